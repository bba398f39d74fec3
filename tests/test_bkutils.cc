// Containers of the object layer, and its time helper.
#include "objects/bkutils.h"

#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/testutil.h"

namespace {

using testutil::be32;

std::string bytes_of(const Vdata &v) {
    return v.data ? std::string((const char *)v.data, v.size) : std::string();
}

// A hand-made packed list in an exact-size heap buffer (the sanitizer sees overreads).
struct RawList {
    unsigned char *buf;
    unsigned size;
    explicit RawList(const std::string &bytes) : size((unsigned)bytes.size()) {
        buf = (unsigned char *)malloc(size ? size : 1);
        memcpy(buf, bytes.data(), size);
    }
    ~RawList() { free(buf); }
    Vdata view() const { return Vdata(size, buf, 0); }
};

// Counts live instances, to see what the containers delete.
struct Tracked {
    static int alive;
    int id;
    explicit Tracked(int i = 0) : id(i) { alive++; }
    Tracked(const Tracked &o) : id(o.id) { alive++; }
    Tracked &operator=(const Tracked &o) = default;
    ~Tracked() { alive--; }
};
int Tracked::alive = 0;

}  // namespace

TEST(Vdata, PackedListsAndCopies) {
    Vdata v, out;
    v += "abc";
    char hello[] = "hello";
    v += Vdata(5, hello, 0);
    EXPECT_EQ(be32({3}) + "abc" + be32({5}) + "hello", bytes_of(v));
    // Appending a list to itself adds its whole bytes as one item.
    std::string before = bytes_of(v);
    v += v;
    EXPECT_TRUE(v.part(2, &out) == 1 && before == bytes_of(out) && out.own == 0);
    EXPECT_EQ(0, v.part(3, &out) + v.part(-1, &out) + Vdata().part(0, &out));
    // Lengths past the end (by one, or wildly) and cut length words, first
    // and behind a good item (null: refused).
    std::string shortword(2, '\0');
    struct { std::string bytes; int index; const char *item; } cases[] = {
        {be32({4}) + "abcd", 0, "abcd"},           {be32({5}) + "abcd", 0, nullptr},
        {be32({0xffffffffu}) + "abcd", 0, nullptr},
        {std::string(3, '\0'), 0, nullptr},        {be32({1}) + "x" + shortword, 0, "x"},
        {be32({1}) + "x" + shortword, 1, nullptr}, {be32({1}) + "x" + be32({3}) + "yz", 1, nullptr}};
    for (const auto &c : cases) {
        RawList l(c.bytes);
        int got = l.view().part(c.index, &out);
        EXPECT_EQ(c.item ? c.item : "-", got ? bytes_of(out) : "-") << c.bytes.size() << " " << c.index;
    }
    // Copies and assignments of an owner are views; assignments to itself
    // keep what was there.
    ASSERT_EQ(1, v.setcstring("owner"));
    {
        Vdata view, copy(v);
        view = v;
        view = view;
        for (const Vdata *w : {&view, &copy}) EXPECT_TRUE(w->own == 0 && w->data == v.data && w->size == 5u);
    }
    v = v;
    EXPECT_EQ("owner", bytes_of(v));
}

TEST(Vector, GrowthCursorAndOwnership) {
    Tracked::alive = 0;
    {
        Vector<Tracked *> v(1);
        for (int i = 0; i < 5; i++) ASSERT_EQ(1, v.add(new Tracked(i)));
        ASSERT_EQ(1, v.add(nullptr));
        EXPECT_TRUE(v.count() == 6 && v[3]->id == 3 && v[1000000] == nullptr);
        v[7] = (Tracked *)&v;  // writing through the reference past the end doesn't stick
        EXPECT_EQ(nullptr, v[7]);
        for (int pass = 0; pass < 2; pass++) {  // the cursor ends on the null element
            int seen = 0;
            v.rewind();
            while (Tracked *t = v.next()) EXPECT_EQ(seen++, t->id);
            EXPECT_EQ(5, seen);
        }
    }
    EXPECT_EQ(0, Tracked::alive);
}

TEST(Vector, FailedAddEmptiesTheVector) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "an address-space limit can't be combined with the sanitizer";
#else
    // A full vector of a million pointers can't double in a capped child.
    EXPECT_EQ(0, testutil::in_child([] {
                  Tracked::alive = 0;
                  Vector<Tracked *> v(1 << 20);
                  v.add(new Tracked(1));
                  while (v.count() < (1 << 20) - 1) v.add(nullptr);
                  v.add(new Tracked(2));
                  long pages = 0;
                  if (sscanf(testutil::read_file("/proc/self/statm").c_str(), "%ld", &pages) != 1) return 10;
                  struct rlimit rl;
                  rl.rlim_cur = rl.rlim_max = (rlim_t)pages * (rlim_t)sysconf(_SC_PAGESIZE) + (2 << 20);
                  if (setrlimit(RLIMIT_AS, &rl) != 0) return 11;
                  Tracked *extra = new Tracked(3);
                  if (v.add(extra) != 0 || v.count() != 0 || v.capacity != 0 || v.cursor != 0) return 12;
                  if (Tracked::alive != 1 || v[0] != nullptr || v.next() != nullptr) return 13;  // extra is ours
                  return v.add(extra) == 1 && v.count() == 1 && v[0] == extra ? 0 : 16;
              }));
#endif
}

TEST(List, ReverseOrderAndRemoval) {
    Tracked::alive = 0;
    List<Tracked> l;
    EXPECT_EQ(nullptr, l.next());
    for (int i = 1; i <= 3; i++) ASSERT_EQ(1, l.insert(new Tracked(i)));
    l.rewind();
    for (int want : {3, 2, 1}) EXPECT_EQ(want, l.next()->id);
    EXPECT_EQ(nullptr, l.next());
    l.removeAll();
    EXPECT_TRUE(Tracked::alive == 0 && l.count == 0 && l.head == nullptr);
}

TEST(Helpers, TimeTextIsLocal) {
    char buf[64];
    EXPECT_EQ(nullptr, time2str(0, nullptr));
    testutil::ScopedTZ tz("EST5");  // local time, not Universal Time
    EXPECT_STREQ("Wed, 31 Dec 1969 19:00:00\n", time2str(0, buf));
}
