// Containers of the object layer: packed lists, strings, vectors, lists,
// hash tables and the file and time helpers.
#include "objects/bkutils.h"

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/testutil.h"

namespace {

std::string bytes_of(const Vdata &v) {
    return v.data ? std::string((const char *)v.data, v.size) : std::string();
}

// A packed list made by hand into a heap buffer of exactly its size, so
// that a read past its end is caught by the address sanitizer.
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

std::string be32(uint32_t n) {
    uint32_t net = htonl(n);
    return std::string((const char *)&net, 4);
}

// Counts live instances, to see what the containers delete.
struct Tracked {
    static int alive;
    int id;
    explicit Tracked(int i = 0) : id(i) { alive++; }
    Tracked(const Tracked &o) : id(o.id) { alive++; }
    Tracked &operator=(const Tracked &o) {
        id = o.id;
        return *this;
    }
    ~Tracked() { alive--; }
};
int Tracked::alive = 0;

}  // namespace

TEST(Vdata, PackedListAppendAndPart) {
    Vdata v;
    v += "abc";
    v += Vdata(0, nullptr, 0);
    char hello[] = "hello";
    v += Vdata(5, hello, 0);
    EXPECT_EQ(1, v.own);
    ASSERT_EQ(4u + 3 + 4 + 0 + 4 + 5, v.size);
    EXPECT_EQ(be32(3) + "abc" + be32(0) + be32(5) + "hello", bytes_of(v));

    Vdata out;
    ASSERT_EQ(1, v.part(0, &out));
    EXPECT_EQ("abc", bytes_of(out));
    EXPECT_EQ(0, out.own);
    EXPECT_EQ((char *)v.data + 4, (char *)out.data);  // a view into the list
    ASSERT_EQ(1, v.part(1, &out));
    EXPECT_EQ(0u, out.size);
    ASSERT_EQ(1, v.part(2, &out));
    EXPECT_EQ("hello", bytes_of(out));
    EXPECT_EQ(0, v.part(3, &out));
    EXPECT_EQ(0, v.part(-1, &out));

    // Appending a list to itself adds its whole bytes as one item.
    std::string before = bytes_of(v);
    v += v;
    ASSERT_EQ(1, v.part(3, &out));
    EXPECT_EQ(before, bytes_of(out));

    Vdata empty;
    EXPECT_EQ(0, empty.part(0, &out));
}

TEST(Vdata, PartRefusesItemsThatDoNotFit) {
    Vdata out;
    // The single item claims all 8 bytes that remain before its length.
    RawList equal(be32(8) + "abcd");
    EXPECT_EQ(0, equal.view().part(0, &out));
    // Lengths between the bytes behind the length word and all that remain
    // would read past the end.
    for (uint32_t len = 5; len <= 7; len++) {
        RawList over(be32(len) + "abcd");
        EXPECT_EQ(0, over.view().part(0, &out)) << len;
    }
    RawList huge(be32(0xffffffffu) + "abcd");
    EXPECT_EQ(0, huge.view().part(0, &out));
    RawList fits(be32(4) + "abcd");
    ASSERT_EQ(1, fits.view().part(0, &out));
    EXPECT_EQ("abcd", bytes_of(out));

    // Truncated length words, at the start and behind a good item.
    RawList shortword(std::string("\0\0\0", 3));
    EXPECT_EQ(0, shortword.view().part(0, &out));
    RawList second(be32(1) + "x" + std::string("\0\0", 2));
    EXPECT_EQ(1, second.view().part(0, &out));
    EXPECT_EQ(0, second.view().part(1, &out));
    RawList secondover(be32(1) + "x" + be32(3) + "yz");
    EXPECT_EQ(0, secondover.view().part(1, &out));
}

TEST(Vdata, ChopAndConstructFromStrings) {
    char a[] = "alpha", b[] = "", c[] = "gamma", d[] = "never";
    char *strs[] = {a, b, c, nullptr, d};
    Vdata packed(strs, 10);  // stops at the null pointer
    EXPECT_EQ(1, packed.own);
    EXPECT_EQ(be32(5) + "alpha" + be32(0) + be32(5) + "gamma", bytes_of(packed));
    Vdata two(strs, 2);
    EXPECT_EQ(be32(5) + "alpha" + be32(0), bytes_of(two));
    Vdata none(strs, 0);
    EXPECT_EQ(0u, none.size);

    char sentinel[] = "untouched";
    char *out[5];
    for (auto &p : out) p = sentinel;
    EXPECT_EQ(1, packed.chop(out, 2));
    EXPECT_STREQ("alpha", out[0]);
    EXPECT_STREQ("", out[1]);
    EXPECT_EQ(sentinel, out[2]);
    free(out[0]);
    free(out[1]);

    for (auto &p : out) p = sentinel;
    EXPECT_EQ(1, packed.chop(out, 5));
    EXPECT_STREQ("gamma", out[2]);
    EXPECT_EQ(sentinel, out[3]);
    for (int i = 0; i < 3; i++) free(out[i]);

    // A broken third item ends the work and leaves its slot alone.
    RawList broken(be32(1) + "x" + be32(2) + "yz" + be32(5) + "abc");
    for (auto &p : out) p = sentinel;
    EXPECT_EQ(1, broken.view().chop(out, 5));
    EXPECT_STREQ("x", out[0]);
    EXPECT_STREQ("yz", out[1]);
    EXPECT_EQ(sentinel, out[2]);
    free(out[0]);
    free(out[1]);
}

TEST(Vdata, LoadAndSave) {
    testutil::TempDir dir;
    std::string path = dir.file("data");
    std::string content("line one\n\0binary\xff", 17);

    Vdata src;
    ASSERT_EQ(1, src.setcstring("stale"));
    Vdata v;
    ASSERT_EQ(1, v.setcstring("previous"));
    Vdata w(17, (void *)content.data(), 0);
    ASSERT_EQ(1, w.save(path.c_str()));
    EXPECT_EQ(content, testutil::read_file(path));

    // Loading over an owned buffer replaces it (the old one is freed).
    ASSERT_EQ(1, v.load(path.c_str()));
    EXPECT_EQ(1, v.own);
    EXPECT_EQ(content, bytes_of(v));

    // Saving truncates a longer file.
    ASSERT_EQ(1, src.save(path.c_str()));
    EXPECT_EQ("stale", testutil::read_file(path));

    testutil::write_file(dir.file("empty"), "");
    Vdata e;
    EXPECT_EQ(0, e.load(dir.file("empty").c_str()));
    EXPECT_EQ(0, e.load(dir.file("missing").c_str()));
    EXPECT_EQ(0u, e.size);
    EXPECT_EQ(0, src.save(dir.file("no/such/dir").c_str()));
}

TEST(Vdata, CStringsAndViews) {
    Vdata v;
    ASSERT_EQ(1, v.setcstring("hello"));
    EXPECT_EQ(5u, v.size);
    EXPECT_EQ(1, v.own);
    EXPECT_EQ("hello", bytes_of(v));
    char *s = v.getcstring();
    ASSERT_NE(nullptr, s);
    EXPECT_STREQ("hello", s);
    EXPECT_NE(v.data, (void *)s);
    free(s);

    // A second setcstring replaces (and frees) the first buffer.
    ASSERT_EQ(1, v.setcstring(""));
    EXPECT_EQ(0u, v.size);
    s = v.getcstring();
    EXPECT_STREQ("", s);
    free(s);

    ASSERT_EQ(1, v.setcstring("owner"));
    {
        Vdata view;
        view = v;
        EXPECT_EQ(0, view.own);
        EXPECT_EQ(v.data, view.data);
        EXPECT_EQ(5u, view.size);
        Vdata copy(v);
        EXPECT_EQ(0, copy.own);
        EXPECT_EQ(v.data, copy.data);
        view = view;  // stays a view
        EXPECT_EQ(0, view.own);
    }
    // The views are gone and the owner's bytes are still whole.
    EXPECT_EQ("owner", bytes_of(v));
    v = v;  // an owner assigned to itself keeps its buffer
    EXPECT_EQ(1, v.own);
}

TEST(String, TextOperations) {
    String empty;
    EXPECT_EQ(nullptr, empty.getcstring());
    EXPECT_EQ(0, empty.length());

    String s("mail");
    EXPECT_STREQ("mail", s.getcstring());
    EXPECT_EQ(4, s.length());
    ASSERT_EQ(1, s.append("box"));
    ASSERT_EQ(1, s.append('/'));
    ASSERT_EQ(1, s.append(4294967295u));
    EXPECT_STREQ("mailbox/4294967295", s.getcstring());
    EXPECT_EQ(18, s.length());
    // Appending a part of its own text.
    ASSERT_EQ(1, s.append(s.getcstring() + 8));
    EXPECT_STREQ("mailbox/42949672954294967295", s.getcstring());

    String part("abcdef", 3);
    EXPECT_STREQ("abc", part.getcstring());
    EXPECT_EQ(3, part.length());

    String copy(part);
    String assigned;
    assigned = part;
    EXPECT_NE(part.getcstring(), copy.getcstring());
    EXPECT_NE(part.getcstring(), assigned.getcstring());
    part.append('!');
    EXPECT_STREQ("abc", copy.getcstring());
    EXPECT_STREQ("abc", assigned.getcstring());
    assigned = assigned;
    EXPECT_STREQ("abc", assigned.getcstring());

    EXPECT_TRUE(copy == assigned);
    EXPECT_FALSE(copy == part);
    EXPECT_FALSE(String("abc") == String("abd"));
    EXPECT_FALSE(String("ab") == String("abc"));
    EXPECT_TRUE(String() == String(""));

    copy.setcstring(nullptr);
    EXPECT_EQ(nullptr, copy.getcstring());
    EXPECT_EQ(0, copy.length());
    copy.setcstring("again");
    EXPECT_EQ(5, copy.length());
}

TEST(Vector, GrowthCursorAndOwnership) {
    Tracked::alive = 0;
    {
        Vector<Tracked *> v(1);
        EXPECT_EQ(1, v.capacity);
        for (int i = 0; i < 5; i++) ASSERT_EQ(1, v.add(new Tracked(i)));
        ASSERT_EQ(1, v.add(nullptr));
        EXPECT_EQ(6, v.count());
        EXPECT_EQ(8, v.capacity);
        EXPECT_EQ(3, v[3]->id);
        EXPECT_EQ(nullptr, v[6]);
        EXPECT_EQ(nullptr, v[1000000]);
        // Writing through the reference past the end doesn't stick.
        v[7] = (Tracked *)&v;
        EXPECT_EQ(nullptr, v[7]);

        int seen = 0;
        v.rewind();
        Tracked *t;
        while ((t = v.next()) != nullptr) EXPECT_EQ(seen++, t->id);
        EXPECT_EQ(5, seen);  // ends on the null element
        EXPECT_EQ(nullptr, v.next());
        v.rewind();
        EXPECT_EQ(0, v.next()->id);
        EXPECT_EQ(5, Tracked::alive);
    }
    EXPECT_EQ(0, Tracked::alive);

    // Texts are freed (the leak checker of the sanitizer build sees it).
    Vector<char *> texts(0);
    ASSERT_EQ(1, texts.add(strdup("one")));
    ASSERT_EQ(1, texts.add(strdup("two")));
    EXPECT_STREQ("two", texts[1]);

    Vector<KeyValue *> pairs(2);
    ASSERT_EQ(1, pairs.add(new KeyValue(strdup("user"), strdup("%"))));
    EXPECT_STREQ("%", pairs[0]->value);
}

#if defined(__SANITIZE_ADDRESS__)
#define BK_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define BK_UNDER_ASAN 1
#endif
#endif

TEST(Vector, FailedAddEmptiesTheVector) {
#ifdef BK_UNDER_ASAN
    GTEST_SKIP() << "an address-space limit can't be combined with the sanitizer";
#else
    // In a child whose address space is capped just above what it uses, a
    // full vector of a million pointers can't double.
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        Tracked::alive = 0;
        Vector<Tracked *> v(1 << 20);
        v.add(new Tracked(1));
        while (v.count() < (1 << 20) - 1) v.add(nullptr);
        v.add(new Tracked(2));
        long pages = 0;
        FILE *f = fopen("/proc/self/statm", "r");
        if (!f || fscanf(f, "%ld", &pages) != 1) _exit(10);
        fclose(f);
        struct rlimit rl;
        rl.rlim_cur = rl.rlim_max = (rlim_t)pages * (rlim_t)sysconf(_SC_PAGESIZE) + (2 << 20);
        if (setrlimit(RLIMIT_AS, &rl) != 0) _exit(11);
        Tracked *extra = new Tracked(3);
        if (v.add(extra) != 0) _exit(12);
        if (v.count() != 0 || v.capacity != 0 || v.cursor != 0) _exit(13);
        if (Tracked::alive != 1) _exit(14);  // the held ones are gone, extra is ours
        if (v[0] != nullptr || v.next() != nullptr) _exit(15);
        if (v.add(extra) != 1 || v.count() != 1 || v[0] != extra) _exit(16);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
#endif
}

TEST(List, ReverseOrderAndRemoval) {
    Tracked::alive = 0;
    {
        List<Tracked> l;
        EXPECT_EQ(nullptr, l.next());
        for (int i = 1; i <= 3; i++) ASSERT_EQ(1, l.insert(new Tracked(i)));
        EXPECT_EQ(3, l.count);
        l.rewind();
        EXPECT_EQ(3, l.next()->id);
        EXPECT_EQ(2, l.next()->id);
        EXPECT_EQ(1, l.next()->id);
        EXPECT_EQ(nullptr, l.next());

        l.removeAll();
        EXPECT_EQ(0, Tracked::alive);
        EXPECT_EQ(0, l.count);
        EXPECT_EQ(nullptr, l.head);
        l.rewind();
        EXPECT_EQ(nullptr, l.next());

        l.insert(new Tracked(7));
        // Assignment shares the nodes; the source forgets them.
        List<Tracked> other;
        other = l;
        l.detach();
        EXPECT_EQ(1, other.count);
        other.rewind();
        EXPECT_EQ(7, other.next()->id);
        EXPECT_EQ(1, Tracked::alive);
    }
    EXPECT_EQ(0, Tracked::alive);
}

TEST(HashTable, ChainsShadowingAndDestruction) {
    // "a", "e" and "i" share chain 1 of 4.
    ASSERT_EQ(1u, hashvalue(String("a"), 4));
    ASSERT_EQ(1u, hashvalue(String("e"), 4));
    ASSERT_EQ(1u, hashvalue(String("i"), 4));

    auto *t = new HashTable<String, String, 4>;
    EXPECT_EQ(nullptr, t->search(String("a")));
    ASSERT_EQ(1, t->insert(String("a"), String("first")));
    ASSERT_EQ(1, t->insert(String("e"), String("other")));
    ASSERT_EQ(1, t->insert(String("a"), String("second")));
    ASSERT_EQ(1, t->insert(String("b"), String("alone")));
    EXPECT_EQ(4, t->count);
    EXPECT_STREQ("second", t->search(String("a"))->getcstring());
    EXPECT_STREQ("other", t->search(String("e"))->getcstring());
    EXPECT_STREQ("alone", t->search(String("b"))->getcstring());
    EXPECT_EQ(nullptr, t->search(String("i")));

    // The chain: newest first, back links behind the head.
    auto *head = t->hash_entries[1];
    ASSERT_NE(nullptr, head);
    EXPECT_EQ(nullptr, head->prev);
    EXPECT_STREQ("second", head->value.getcstring());
    ASSERT_NE(nullptr, head->next);
    EXPECT_EQ(head, head->next->prev);
    EXPECT_STREQ("e", head->next->key.getcstring());
    EXPECT_STREQ("first", head->next->next->value.getcstring());
    EXPECT_EQ(nullptr, head->next->next->next);
    EXPECT_EQ(nullptr, t->hash_entries[0]);
    delete t;

    // Message references: the key compares dev and ino, the value is a
    // copy of its own.
    auto *refs = new MsgRefTable;
    MsgRef r;
    r.mboxname = strdup("user/joe");
    r.uid = htonl(42);
    ASSERT_EQ(1, refs->insert(DevIno(3, 0x100000005ull), r));
    r.mboxname[0] = 'X';
    EXPECT_EQ(nullptr, refs->search(DevIno(4, 0x100000005ull)));
    MsgRef *found = refs->search(DevIno(3, 0x100000005ull));
    ASSERT_NE(nullptr, found);
    EXPECT_STREQ("user/joe", found->mboxname);
    EXPECT_EQ(42u, ntohl(found->uid));
    delete refs;

    // A table of lists owns the nodes once the inserted list lets go.
    Tracked::alive = 0;
    auto *waits = new HashTable<String, List<Tracked>, 8>;
    {
        List<Tracked> l;
        l.insert(new Tracked(1));
        l.insert(new Tracked(2));
        ASSERT_EQ(1, waits->insert(String("joe/INBOX/7"), l));
        l.detach();
    }
    List<Tracked> *waiting = waits->search(String("joe/INBOX/7"));
    ASSERT_NE(nullptr, waiting);
    EXPECT_EQ(2, waiting->count);
    EXPECT_EQ(2, Tracked::alive);
    delete waits;
    EXPECT_EQ(0, Tracked::alive);

    // Values stored by value are destroyed with the table.
    auto *byvalue = new HashTable<DevIno, Tracked, 16>;
    for (int i = 0; i < 40; i++) byvalue->insert(DevIno(0, (uint64_t)i), Tracked(i));
    EXPECT_EQ(40, byvalue->count);
    EXPECT_EQ(33, byvalue->search(DevIno(0, 33))->id);
    EXPECT_EQ(40, Tracked::alive);
    delete byvalue;
    EXPECT_EQ(0, Tracked::alive);
}

TEST(HashTable, BrokenChainHeadIsFatal) {
    auto *t = new HashTable<String, String, 4>;
    t->insert(String("a"), String("1"));
    t->hash_entries[1]->prev = t->hash_entries[1];
    EXPECT_DEATH(t->insert(String("e"), String("2")), "!\\(hash_entries\\[h\\]\\)->prev");
    t->hash_entries[1]->prev = nullptr;
    delete t;
}

TEST(Helpers, HashValues) {
    // Worked by hand: ((97 << 5) + 98) % 1000 for "ab"; bytes from 0x80 are
    // negative: 0xff is -1, as unsigned 32-bit 4294967295.
    EXPECT_EQ(202u, hashvalue(String("ab"), 1000));
    EXPECT_EQ(295u, hashvalue(String("\xff"), 1000));
    EXPECT_EQ(976u, hashvalue(String("a\x80"), 1000));  // 3104 - 128
    // The shift wraps at 32 bits.
    EXPECT_EQ(2927228858u, hashvalue(String("zzzzzzz"), 4000000000ul));
    EXPECT_EQ(52907u, hashvalue(String("Mail/\xe9t\xe9"), 87641));
    EXPECT_EQ(0u, hashvalue(String(), 87641));

    // Only the low 32 bits of ino count: 5 % 7, not 0x100000005 % 7.
    EXPECT_EQ(5u, hashvalue(DevIno(99, 0x100000005ull), 7));
    EXPECT_EQ(2u, hashvalue(DevIno(0, 87643), 87641));
}

TEST(Helpers, FilesAndTimes) {
    testutil::TempDir dir;
    testutil::write_file(dir.file("f"), "12345");
    EXPECT_EQ(1, file_exists(dir.file("f").c_str()));
    EXPECT_EQ(5, file_size(dir.file("f").c_str()));
    EXPECT_EQ(0, file_exists(dir.path().c_str()));
    EXPECT_EQ(0, file_size(dir.path().c_str()));
    EXPECT_EQ(0, file_exists(dir.file("missing").c_str()));
    EXPECT_EQ(0, file_size(dir.file("missing").c_str()));
    testutil::write_file(dir.file("empty"), "");
    EXPECT_EQ(1, file_exists(dir.file("empty").c_str()));

    const char *oldtz = getenv("TZ");
    std::string saved = oldtz ? oldtz : "";
    char buf[64];
    EXPECT_EQ(nullptr, time2str(0, nullptr));
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(buf, time2str(1234567890, buf));
    EXPECT_STREQ("Fri, 13 Feb 2009 23:31:30\n", buf);
    // Local time, not Universal Time.
    setenv("TZ", "EST5", 1);
    tzset();
    EXPECT_STREQ("Wed, 31 Dec 1969 19:00:00\n", time2str(0, buf));
    if (oldtz)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}
