// The cache record a delivery writes: its 11 items, the index record, the
// message type hook, failures, the real corpus as the scanner cuts it, and
// showcache's output.
#include "store/message.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

const std::string kPlain = "(\"TEXT\" \"PLAIN\" (\"CHARSET\" \"us-ascii\") NIL NIL \"7BIT\" ";

struct Delivery {
    int rc;
    struct index_record record;
    std::vector<std::string> items;
};

// A scratch "store.idx": 100 bytes of header, then the cache area.
class CacheFile {
  public:
    static const uint32_t kCacheOffset = 100;
    CacheFile() {
        path_ = tmp_.file("store.idx");
        write_file(path_, std::string(kCacheOffset, 'h'));
        mb_.index_fd = open(path_.c_str(), O_RDWR), mb_.name = (char *)"user/joe/box";
        mb_.hdr.cache_offset = kCacheOffset;
    }
    ~CacheFile() { close(mb_.index_fd); }

    // Delivers text from an exact-size heap copy; the record ends the file.
    Delivery deliver(const std::string &text, const char *cache_text = nullptr, uint32_t flags = 0) {
        Delivery d{};
        d.record.system_flags = flags;
        off_t before = lseek(mb_.index_fd, 0, SEEK_END);
        char *copy = static_cast<char *>(malloc(text.size() ? text.size() : 1));
        memcpy(copy, text.data(), text.size());
        d.rc = message_parse_mapped(copy, text.size(), &mb_, cache_text, &d.record);
        free(copy);
        if (d.rc != 0) return d;
        EXPECT_EQ(d.record.rec_cache_offset, (uint32_t)(before - kCacheOffset));
        // 11 whole items padded with NULs, and nothing behind them.
        std::string entry = read_file(path_).substr(kCacheOffset + d.record.rec_cache_offset);
        d.items = cache_items(entry);
        EXPECT_TRUE(d.items.size() == 11 && cache_entry(d.items) == entry);
        return d;
    }
    struct mailbox *mailbox() { return &mb_; }

  private:
    TempDir tmp_;
    std::string path_;
    struct mailbox mb_ = {};
};

// One element at i (list, quoted string, literal, NIL or number); i ends
// behind it. Lists hold elements apart by single spaces or back to back.
bool element(const std::string &s, size_t &i) {
    if (i >= s.size()) return false;
    char c = s[i];
    if (c == '(') {
        for (i++; i < s.size() && s[i] != ')';) {
            if (!element(s, i)) return false;
            if (i + 1 < s.size() && s[i] == ' ' && s[i + 1] != ')')
                i++;
            else if (i < s.size() && s[i] != ')' && !(s[i] == '(' && s[i - 1] == ')'))
                return false;
        }
        return i++ < s.size();
    }
    if (c == '"') {
        size_t e = s.find('"', i + 1);
        if (e == std::string::npos) return false;
        for (size_t k = i + 1; k < e; k++)
            if (s[k] == '\\' || s[k] == '\r' || s[k] == '\n' || (unsigned char)s[k] >= 128)
                return false;
        i = e + 1;
    } else if (c == '{') {
        size_t e = s.find("}\r\n", i);
        i = e == std::string::npos ? SIZE_MAX : e + 3 + strtoul(s.c_str() + i + 1, nullptr, 10);
        return i <= s.size();
    } else if (s.compare(i, 3, "NIL") == 0) {
        i += 3;
    } else if (c >= '0' && c <= '9') {
        while (i < s.size() && s[i] >= '0' && s[i] <= '9') i++;
    } else {
        return false;
    }
    return true;
}

// The syntax of a text item: its elements, nothing left over.
bool well_formed(const std::string &s) {
    std::string list = "(" + s + ")";
    size_t i = 0;
    return !s.empty() && element(list, i) && i == list.size();
}

// Walks a section table from off; the offset behind it, or 0. Entries but
// the 0/-1 ones must lie within len.
size_t walk_section(const std::string &s, size_t off, size_t len = SIZE_MAX, int depth = 0) {
    if (depth > 200 || off + 4 > s.size()) return 0;
    uint32_t count = be32_at(s, off);
    off += 4;
    if (count > (s.size() - off) / 20) return 0;
    for (uint32_t i = 0; i < count; i++, off += 20) {
        uint64_t header_end = (uint64_t)be32_at(s, off) + be32_at(s, off + 4);
        uint64_t content_end = (uint64_t)be32_at(s, off + 8) + be32_at(s, off + 12);
        if (be32_at(s, off + 4) != 0xFFFFFFFFu && (header_end > len || content_end > len)) return 0;
    }
    for (uint32_t i = 1; i < count && off; i++) off = walk_section(s, off, len, depth + 1);
    return off;
}

TEST(MessageCache, SinglePartItems) {
    CacheFile cf;
    const std::string msg = crlf("From: Joe User <Joe@Example.COM>\nTo: Ann <ann@x.org>\nSubject: Test\n"
        "Date: Fri, 3 Jan 2003 10:00:00 +0100\nMessage-ID: <m1@x>\n\nHello world\n");
    Delivery d = cf.deliver(msg, "caller {text}");
    ASSERT_EQ(d.rc, 0);
    uint32_t hs = d.record.header_size;
    const std::string joe = "((\"Joe User\" NIL \"Joe\" \"Example.COM\")) ";
    EXPECT_EQ(d.items, std::vector<std::string>(
                           {"(\"Fri, 3 Jan 2003 10:00:00 +0100\" \"Test\" " + joe + joe + joe +
                                "((\"Ann\" NIL \"ann\" \"x.org\")) NIL NIL NIL \"<m1@x>\")",
                            kPlain + "13 1 NIL NIL NIL)", kPlain + "13 1)",
                            be32({2, 0, hs, hs, 13, 0xFFFF0000u, 0, hs, hs, 13, 0, 0}),
                            msg.substr(0, hs), "Joe User <joe@example.com>", "Ann <ann@x.org>",
                            "", "", "\"Test\"", "caller {text}"}));
    EXPECT_TRUE(hs == msg.find("Hello") && d.record.size == hs + 13 && d.record.content_offset == hs);
    EXPECT_EQ(d.record.sentdate, 1041584400u);
    // An empty message: the next record follows right behind.
    Delivery e = cf.deliver("");
    ASSERT_EQ(e.rc, 0);
    EXPECT_EQ(e.items, std::vector<std::string>({"(NIL NIL NIL NIL NIL NIL NIL NIL NIL NIL)",
                                        kPlain + "0 0 NIL NIL NIL)", kPlain + "0 0)",
                                        be32({2, 0, 0, 0, 0, 0xFFFF0000u, 0, 0, 0, 0, 0, 0}),
                                        "", "", "", "", "", "NIL", ""}));
    EXPECT_EQ(e.record.size, 0u);
}

TEST(MessageCache, EnvelopeAndSearchAddresses) {
    CacheFile cf;
    Delivery d = cf.deliver(crlf("From: =?utf-8?q?J=C3=B6rg?= <Joerg@Example.DE>\nSender: Boss <BOSS@x.org>\n"
        "To: Friends: Ann <Ann@X.org>, bob@Y.org;, Carl@Z\nCc: <@Relay.ORG:User@Host.ORG>\n"
        "Bcc: \"Quote \\\" Name\" <q@q>\nSubject:\nIn-Reply-To: <r@x>\n\n"));
    ASSERT_EQ(d.rc, 0);
    EXPECT_EQ(d.items[0], "(NIL \"\" ((\"=?utf-8?q?J=C3=B6rg?=\" NIL \"Joerg\" \"Example.DE\")) "
              "((\"Boss\" NIL \"BOSS\" \"x.org\")) ((\"=?utf-8?q?J=C3=B6rg?=\" NIL \"Joerg\" \"Example.DE\")) "
              "((NIL NIL \"Friends\" NIL)(\"Ann\" NIL \"Ann\" \"X.org\")(NIL NIL \"bob\" \"Y.org\")"
              "(NIL NIL NIL NIL)(NIL NIL \"Carl\" \"Z\")) ((NIL \"@Relay.ORG\" \"User\" \"Host.ORG\")) "
              "(({12}\r\nQuote \" Name NIL \"q\" \"q\")) \"<r@x>\" NIL)");
    // Search forms: names decoded, addresses lower-cased, groups spelled out.
    EXPECT_EQ(std::vector<std::string>(d.items.begin() + 5, d.items.begin() + 10),
              std::vector<std::string>({"J\xc3\xb6rg <joerg@example.de>",
                                        "Friends:Ann <ann@x.org>,<bob@y.org>;,<carl@z>",
                                        "<@relay.org:user@host.org>", "Quote \" Name <q@q>", "\"\""}));
}

TEST(MessageCache, SubjectFormsAndPadding) {
    CacheFile cf;
    struct Case {
        std::string subject, item;
    } cases[] = {
        // Quoted up to 1023 bytes of plain text, a literal otherwise.
        {std::string(1023, 'a'), "\"" + std::string(1023, 'a') + "\""},
        {std::string(1024, 'a'), "{1024}\r\n" + std::string(1024, 'a')},
        {"back\\slash", "{10}\r\nback\\slash"}, {"say \"hi\"", "{8}\r\nsay \"hi\""},
        {"caf\xc3\xa9", "{5}\r\ncaf\xc3\xa9"},
        // Encoded words are decoded for the subject item only.
        {"=?iso-8859-1?q?caf=E9?= ok", "{8}\r\ncaf\xc3\xa9 ok"}, {"=?utf-8?b?aGVsbG8=?=", "\"hello\""},
        {"one\r\n two", "\"one two\""},  // a folded subject is joined
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.subject.substr(0, 40));
        std::string msg = "Subject: " + c.subject + "\r\n\r\nx\r\n";
        Delivery d = cf.deliver(msg);
        ASSERT_EQ(d.rc, 0);
        EXPECT_EQ(d.items[9], c.item);
        EXPECT_TRUE(well_formed(d.items[0]));
    }
    // The envelope keeps the subject as written (none: NIL, see the empty message).
    EXPECT_EQ(cf.deliver("Subject: =?utf-8?b?aGVsbG8=?=\r\n\r\n").items[0].substr(0, 28),
              "(NIL \"=?utf-8?b?aGVsbG8=?=\" ");
}

TEST(MessageCache, MultipartItemsAndSections) {
    CacheFile cf;
    const std::string msg = crlf("Content-Type: multipart/mixed; boundary=b\n\n"
        "--b\nContent-Type: text/plain; charset=UTF-8\nContent-Transfer-Encoding: quoted-printable\n"
        "Content-Disposition: attachment; filename=a.txt\nContent-Language: en, fr\nContent-MD5: sum\n\none\n"
        "--b\nContent-Type: text/html; charset=x-unknown\nContent-Transfer-Encoding: base64\n\ntwo\n--b--\n");
    Delivery d = cf.deliver(msg);
    ASSERT_EQ(d.rc, 0);
    EXPECT_EQ(d.items[2], "((\"TEXT\" \"PLAIN\" (\"CHARSET\" \"UTF-8\") NIL NIL \"QUOTED-PRINTABLE\" 3 0)"
              "(\"TEXT\" \"HTML\" (\"CHARSET\" \"x-unknown\") NIL NIL \"BASE64\" 3 0) \"MIXED\")");
    EXPECT_EQ(d.items[1], "((\"TEXT\" \"PLAIN\" (\"CHARSET\" \"UTF-8\") NIL NIL \"QUOTED-PRINTABLE\" 3 0 "
              "\"sum\" (\"ATTACHMENT\" (\"FILENAME\" \"a.txt\")) (\"EN\" \"FR\"))"
              "(\"TEXT\" \"HTML\" (\"CHARSET\" \"x-unknown\") NIL NIL \"BASE64\" 3 0 NIL NIL NIL) "
              "\"MIXED\" (\"BOUNDARY\" \"b\") NIL NIL)");
    // Count 3, the message, both parts with charset words, an empty table each.
    uint32_t p1 = msg.find("Content-Type: text/plain"), c1 = msg.find("one");
    uint32_t p2 = msg.find("Content-Type: text/html"), c2 = msg.find("two");
    uint32_t hs = d.record.header_size;
    EXPECT_EQ(d.items[3], be32({3, 0, hs, hs, (uint32_t)msg.size() - hs, 0xFFFF0000u, p1,
                                c1 - p1, c1, 3, 0x00010001u, p2, c2 - p2, c2, 3, 0xFFFF0002u, 0, 0}));
    // Nested: a multipart part gets the 0/-1 entry, a message part its own level.
    Delivery n = cf.deliver(crlf("Content-Type: multipart/mixed; boundary=o\n\n"
        "--o\nContent-Type: multipart/alternative; boundary=i\n\n--i\n\na\n--i--\n"
        "--o\nContent-Type: message/rfc822\n\nSubject: in\n\nb\n--o\nContent-Type: multipart/mixed\n\nc\n"
        "--o\nContent-Type: message/partial; id=x\n\nd\n--o--\n"));
    ASSERT_EQ(n.rc, 0);
    // Count 5; the alternative's table behind it: count 2, the 0/-1 entry.
    const std::string &s = n.items[3];
    EXPECT_TRUE(walk_section(s, 0) == s.size() && be32_at(s, 0) == 5u);
    EXPECT_EQ(s.substr(104, 24), be32({2, 0, 0xFFFFFFFFu, 0, 0xFFFFFFFFu, 0xFFFF0000u}));
    EXPECT_TRUE(well_formed(n.items[1]) && well_formed(n.items[2]));
    // A multipart without parts is empty plain text; a message part carries
    // the inner envelope and body.
    EXPECT_NE(n.items[2].find(kPlain + "0 0)(\"MESSAGE\" \"PARTIAL\""), std::string::npos);
    EXPECT_NE(n.items[2].find("(\"MESSAGE\" \"RFC822\" NIL NIL NIL \"7BIT\" 16 (NIL \"in\" "), std::string::npos);
    EXPECT_NE(n.items[2].find(kPlain + "1 0) 2)"), std::string::npos);
    // The top is a multipart without BOUNDARY: plain text with no sizes.
    Delivery nb = cf.deliver(crlf("Content-Type: multipart/mixed\n\nsome text\n"));
    EXPECT_EQ(nb.items[2] + nb.items[1], kPlain + "0 0)" + kPlain + "0 0 NIL NIL NIL)");
    EXPECT_EQ(nb.record.size, nb.record.header_size + 11);
}

TEST(MessageCache, RecordFlags) {
    CacheFile cf;
    const std::string plain = crlf("A: b\n\nx\n");
    // Other bits that the caller gives stay.
    const struct { std::string msg; uint32_t given, want; } cases[] = {
        {plain, 0, FLAG_NODOTS_CRLF}, {plain, FLAG_ANSWERED, FLAG_ANSWERED | FLAG_NODOTS_CRLF},
        // A line that starts with a dot, in the body or in any header.
        {crlf("A: b\n\n.x\n"), FLAG_NODOTS_CRLF, 0}, {crlf("A: b\n.odd: header\n\nx\n"), 0, 0},
        {crlf("Content-Type: multipart/mixed; boundary=q\n\n--q\n.X: y\n\nz\n--q--\n"), 0, 0},
        {crlf("A: b\n\nx.y\n"), 0, FLAG_NODOTS_CRLF},
        {crlf("Content-Type: message/rfc822\n\nSubject: in\n\n.dot\n"), 0, 0}, {"A: b\r\n\r\nx", 0, 0},
        {"A: b\r\n\r\nx\n", 0, 0}, {"\r\n", 0, FLAG_NODOTS_CRLF},
    };
    for (const auto &c : cases)
        EXPECT_EQ(cf.deliver(c.msg, nullptr, c.given).record.system_flags, c.want) << c.msg;
}

// What the message type hook was called with last, and how often.
struct HookSeen { void *context; const char *base; uint32_t len; std::string subject; int calls; } hook_seen;
uint32_t hook_result;

uint32_t test_examine(void *context, const char *base, uint32_t len, struct body *top) {
    hook_seen = {context, base, len, top && top->subject ? top->subject : "", hook_seen.calls + 1};
    return hook_result;
}

TEST(MessageCache, MessageTypeHookAndFailures) {
    CacheFile cf;
    // The handle's first word is the context; the type byte goes to the flags.
    void *handle[2] = {(void *)&hook_seen, nullptr};
    msgtype_plugin = (svcplugin *)handle;
    msgtype_examineMessage = test_examine;
    hook_result = 0x81FFFFFFu;
    std::string msg = "Subject: typed\r\n\r\nx\r\n";
    EXPECT_EQ(cf.deliver(msg).record.system_flags, 0x81000000u | FLAG_NODOTS_CRLF);
    EXPECT_TRUE(hook_seen.calls == 1 && hook_seen.context == (void *)&hook_seen &&
                hook_seen.len == msg.size() && hook_seen.subject == "typed");
    hook_result = 0x00FFFFFFu;
    EXPECT_EQ(cf.deliver(msg).record.system_flags, FLAG_NODOTS_CRLF);
    // A cache that can't be written: the record is filled, the hook runs.
    struct mailbox mb = *cf.mailbox();
    mb.index_fd = open("/dev/null", O_RDONLY);
    hook_result = 0x02000000u;
    struct index_record rec = {};
    StderrCapture cap;
    EXPECT_EQ(message_parse_mapped(msg.data(), msg.size(), &mb, nullptr, &rec), IMAP_IOERROR);
    close(mb.index_fd);
    EXPECT_TRUE(rec.size == msg.size() && rec.header_size == 18u && hook_seen.calls == 3);
    EXPECT_EQ(rec.system_flags & FLAG_MSGTYPE_MASK, 0x02000000u);
    msgtype_examineMessage = nullptr, msgtype_plugin = nullptr;
}

TEST(MessageCache, Corpus) {
    CacheFile cf;
    size_t total = 0;
    for (const std::string &m : scan_texts(corpus_all())) {
        SCOPED_TRACE("message " + std::to_string(++total));
        Delivery d = cf.deliver(m);
        ASSERT_TRUE(d.rc == 0 && d.items.size() == 11u);
        if (m.find('\0') >= d.record.header_size) {  // a NUL in the header cuts it
            EXPECT_EQ(d.record.size, m.size());
        }
        EXPECT_EQ(d.items[4], m.substr(0, d.record.header_size));
        EXPECT_EQ(d.record.content_offset, d.record.header_size);
        for (int k : {0, 1, 2, 9}) EXPECT_TRUE(well_formed(d.items[k])) << k;
        EXPECT_EQ(walk_section(d.items[3], 0, m.size()), d.items[3].size());
    }
    EXPECT_EQ(total, 283u);
}

TEST(MessageCache, ShowcacheOutput) {
    std::string bin = binary_dir() + "/bin/showcache";
    TempDir tmp;
    const std::string lf = "From: A B <ab@Example.COM>\nSubject: hello\n"
                           "Date: Fri, 3 Jan 03 10:00:00 +0100\n\nbody line\n";
    const std::string lfpath = tmp.file("lf.txt"), crlfpath = tmp.file("crlf.txt");
    write_file(lfpath, "From someone\n" + lf);
    write_file(crlfpath, crlf(lf));
    // Both files show the record a delivery writes, the second behind the first.
    CacheFile cf;
    std::string want;
    for (const std::string &path : {lfpath, crlfpath}) {
        Delivery d = cf.deliver(crlf(lf));
        const struct index_record &r = d.record;
        char head[512];
        snprintf(head, sizeof head, "FILE %s\nsentdate: %u\nsize: %u\nheader_size: %u\ncontent_offset: %u\n"
                 "rec_cache_offset: %u\nsystem_flags: 0x%08x\n",
                 path.c_str(), r.sentdate, r.size, r.header_size, r.content_offset,
                 r.rec_cache_offset, r.system_flags);
        want += head;
        for (int i = 0; i < MESSAGE_CACHE_ITEMS; i++)
            want += "ITEM " + std::to_string(i) + " " + message_cache_item_name[i] + " " +
                    std::to_string(d.items[i].size()) + "\n" + d.items[i] + "\n";
    }
    std::string out, err;
    ASSERT_EQ(run_command(bin + " " + lfpath + " " + crlfpath, &out, &err), 0) << err;
    EXPECT_EQ(out, want);
    // No file: a usage error; a missing file fails, and the others are shown.
    EXPECT_EQ(run_command(bin, &out, &err), 64);
    EXPECT_EQ(run_command(bin + " " + tmp.file("missing") + " " + lfpath, &out, &err), 66);
    EXPECT_EQ(out.substr(0, 5 + lfpath.size()), "FILE " + lfpath);
}

}  // namespace
