// Packed lists of the object layer, and its time helper. (Lists are checked
// where the context keeps its sessions in one; vectors and hash tables go
// until exclusions and backups use them.)
#include "objects/bkutils.h"

#include "tests/testutil.h"

namespace {

using namespace testutil;

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

TEST(Helpers, TimeTextIsLocal) {
    char buf[64];
    EXPECT_EQ(nullptr, time2str(0, nullptr));
    ScopedTZ tz("EST5");  // local time, not Universal Time
    EXPECT_STREQ("Wed, 31 Dec 1969 19:00:00\n", time2str(0, buf));
}
