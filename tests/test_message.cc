// The MIME parser: header fields, parameters, multiparts, nesting and sizes,
// each message from an exact-size heap copy (the sanitizers see overreads).
#include "store/message.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

// A message parsed into its tree.
struct Tree : testutil::NoCopy {
    char *data;
    size_t len;
    uint32_t end;  // where the parse stopped
    struct body top;

    explicit Tree(const std::string &text) {
        len = text.size();
        data = static_cast<char *>(malloc(len ? len : 1));
        memcpy(data, text.data(), len);
        struct msgrange m = {data, (uint32_t)len, 0};
        struct boundary_stack b = {nullptr, 0, 0};
        message_parse_body(&m, &top, MESSAGE_DEFAULT_TYPE, MESSAGE_NESTING_BUDGET, &b);
        free(b.ids);
        end = m.offset;
    }
    ~Tree() { message_free_body(&top), free(data); }
    std::string content(const struct body &b) const { return std::string(data + b.content_offset, b.content_size); }
};

// A multipart/mixed message with boundary b and the given body.
std::string mixed(const std::string &b, const std::string &body) {
    return crlf("Content-Type: multipart/mixed; boundary=" + b + "\n\n" + body);
}

// A parameter list as "NAME=value,...", a language list as "TAG,...".
std::string list(const struct param *p) {
    std::string out;
    for (; p; p = p->next)
        out += (out.empty() ? "" : ",") + (p->attribute ? str(p->attribute) + "=" : "") + str(p->value);
    return out;
}

// One field of a node, by name, as text: addresses as "name|mailbox|domain;...".
std::string field(const struct body &b, const std::string &name) {
    static const std::pair<const char *, char *body::*> strings[] = {
        {"subject", &body::subject}, {"description", &body::description},
        {"encoding", &body::encoding}, {"message_id", &body::message_id}};
    for (const auto &s : strings)
        if (name == s.first) return str(b.*s.second);
    if (name == "to" || name == "cc") {
        std::string out;
        for (const struct address *a = name == "to" ? b.to : b.cc; a; a = a->next)
            out += (out.empty() ? "" : ";") + str(a->name) + "|" + str(a->mailbox) + "|" + str(a->domain);
        return out;
    }
    if (name == "type") return str(b.type) + "/" + str(b.subtype) + " " + list(b.params);
    if (name == "disposition") return str(b.disposition) + " " + list(b.disposition_params);
    if (name == "language") return list(b.language);
    ADD_FAILURE() << "no field " << name;
    return "";
}

// Each part of a container begins where the one before ended with its delimiter.
void check_layout(const struct body &b) {
    for (int i = 0; i + 1 < b.numparts; i++) {
        const struct body &p = b.subpart[i];
        EXPECT_EQ(b.subpart[i + 1].header_offset,
                  p.header_offset + p.header_size + p.content_size + p.boundary_size) << "part " << i;
    }
    for (int i = 0; i < b.numparts; i++) check_layout(b.subpart[i]);
    if (b.numparts == 0 && b.subpart) {
        if (b.subpart->header_size || b.subpart->content_size) {
            EXPECT_EQ(b.subpart->header_offset, b.content_offset);
        }
        check_layout(*b.subpart);
    }
}

// The top entity covers the whole input, its parts laid out in order.
void expect_whole(const Tree &t) {
    EXPECT_EQ(t.top.header_size + t.top.content_size, t.len);
    EXPECT_EQ(t.end, t.len);
    check_layout(t.top);
}

TEST(MessageParse, MissingHeaderAndLastLine) {
    const struct {
        std::string text;
        uint32_t header_size, header_lines, content_size, content_lines;
        const char *subject;
    } cases[] = {
        // No header at all: the first line has no colon before its first blank.
        {crlf("Hello there: friend\nsecond line\n"), 0, 0, 34, 2, nullptr},
        // A header that runs into a line without a colon: that line starts
        // the content; there is no separator line.
        {crlf("Subject: hi\nTo: a@b\nplain text\nmore\n"), 22, 2, 18, 2, "hi"},
        // The last line without a line end counts in bytes but not in lines.
        {crlf("A: b\n\nline\nlast"), 8, 2, 10, 1, nullptr},
    };
    for (const auto &c : cases) {
        Tree t(c.text);
        const struct body &b = t.top;
        EXPECT_EQ(std::vector<uint32_t>({b.header_size, (uint32_t)b.header_lines, b.content_offset,
                                         b.content_size, b.content_lines}),
                  std::vector<uint32_t>({c.header_size, c.header_lines, c.header_size,
                                         c.content_size, c.content_lines})) << c.text;
        EXPECT_EQ(str(b.subject) + field(b, "type"), str(c.subject) + "TEXT/PLAIN CHARSET=us-ascii");
        expect_whole(t);
    }
}

TEST(MessageParse, HeaderFields) {
    const struct { const char *headers, *field, *want; } cases[] = {
        // Folded: the line end goes, the white space of the continuation
        // stays; the first header of a name wins.
        {"subject: first\n  folded\nSubject: second", "subject", "first  folded"},
        {"Message-ID:\n <id@host>", "message_id", " <id@host>"}, {"X-Subject: not this", "subject", "<null>"},
        // An empty Subject is an empty string, not a missing one.
        {"Subject:\nSubject: later", "subject", ""}, {"Subject:   ", "subject", ""},
        // Every header of a name adds to one address list.
        {"To: a@b, c@d\nto: e@f", "to", "<null>|a|b;<null>|c|d;<null>|e|f"},
        {"Cc: undisclosed: ;", "cc", "<null>|undisclosed|<null>;<null>|<null>|<null>"},
        // Content-Type: the first usable one wins; quotes, escapes and
        // comments go.
        {"Content-Type: Text/HTML ; charset = \"US-ASCII\" ;\n  name=\"a \\\"q\\\" b\"; "
         "format=flowed (comment)\nContent-Type: image/png",
         "type", "TEXT/HTML CHARSET=US-ASCII,NAME=a \"q\" b,FORMAT=flowed"},
        {"Content-Type: text", "type", "TEXT/PLAIN CHARSET=us-ascii"},  // no slash: the default
        // A special inside the subtype, junk behind it, an 8-bit byte in a
        // token: given up, the default applies.
        {"Content-Type: text/pl@in", "type", "TEXT/PLAIN CHARSET=us-ascii"},
        {"Content-Type: text/plain junk", "type", "TEXT/PLAIN CHARSET=us-ascii"},
        {"Content-Type: te\xe9xt/plain", "type", "TEXT/PLAIN CHARSET=us-ascii"},
        // An unquoted value with a special ends the parameters; the type stays.
        {"Content-Type: application/x; a=1; b=c/d; e=2", "type", "APPLICATION/X A=1"},
        {"Content-Type: application/x; a=b c=d", "type", "APPLICATION/X "},  // neither stored
        {"Content-Type: multipart/mixed;\n boundary=\"==x==\"", "type", "MULTIPART/MIXED BOUNDARY===x=="},
        {"Content-Type: a/b; n=\"x\n y\"", "type", "A/B N=x y"},  // folded inside quotes
        {"Content-Type: broken\nContent-Type: image/gif", "type", "IMAGE/GIF "},
        // Split parameters are joined, encoded parts kept encoded.
        {"Content-Type: a/x; title*0*=us-ascii'en'a%20; title*1=\"%'* q\"", "type",
         "A/X TITLE*=us-ascii'en'a%20%25%27%2A%20q"},
        {"Content-Type: a/x; title*0=a; title*1*=%20b", "type", "A/X TITLE*=''a%20b"},
        {"Content-Type: a/x; u*2=c; u*1=b; x=y; u*0=a", "type", "A/X X=y,U=abc"},
        {"Content-Type: a/x; name*0=lone", "type", "A/X NAME=lone"},
        {"Content-Type: a/x; v*0=a; v*2=c", "type", "A/X V=a,V*2=c"},  // a gap ends the value
        {"Content-Type: a/x; title*=utf-8''x; title*3=y", "type", "A/X TITLE*=utf-8''x,TITLE*3=y"},
        {"Content-Type: a/x; k*0=a; k*01=b", "type", "A/X K=a,K*01=b"},
        // Transfer encoding: a token alone in its field.
        {"Content-Transfer-Encoding: quoted-printable (qp)", "encoding", "QUOTED-PRINTABLE"},
        {"Content-Transfer-Encoding: 7bit x\nContent-Transfer-Encoding: base64", "encoding", "BASE64"},
        {"Content-Disposition: inline junk\nContent-Disposition: Attachment", "disposition", "ATTACHMENT "},
        // The list of the last header with a tag wins; a bad tag ends the list.
        {"Content-Language: de\nContent-Language: en, x1, fr\nContent-Language: 42", "language", "EN"},
        {"Content-Language: en (English) , fr", "language", "EN,FR"}, {"Content-Language: en fr", "language", ""},
        // No blank behind the colon: the value starts right behind it.
        {"Content-Transfer-Encoding:base64", "encoding", "BASE64"},
        {"Content-Description:x", "description", "x"}, {"Content-Language:en", "language", "EN"},
        {"Content-Disposition:inline", "disposition", "INLINE "}, {"Content-Type:text/html", "type", "TEXT/HTML "},
    };
    for (const auto &c : cases) {
        Tree t(crlf(std::string(c.headers) + "\n\nbody\n"));
        EXPECT_EQ(field(t.top, c.field), c.want) << c.headers;
    }
    // A field name that ends the input: nothing behind the colon is read.
    const char *ends[][3] = {{"Content-Description:", "description", ""},
                             {"Content-Language:", "language", ""},
                             {"Content-Disposition:", "disposition", "<null> "},
                             {"Content-Transfer-Encoding:", "encoding", "<null>"}};
    for (const auto &e : ends) {
        Tree t(e[0]);
        EXPECT_EQ(t.top.header_size, strlen(e[0]));
        EXPECT_EQ(field(t.top, e[1]), e[2]) << e[0];
    }
    // A NUL cuts what is kept of a header line; the blank line behind it
    // starts no line of the copy, so it stays header text.
    Tree z(crlf("Subject: ab") + std::string(1, '\0') + crlf("cd\n\nbody\n"));
    EXPECT_EQ(str(z.top.subject), "ab");
    EXPECT_EQ(z.top.content_offset, 18u);
    EXPECT_EQ(z.top.header_size, 13u);
}

TEST(MessageParse, MultipartSizes) {
    const std::string msg = crlf("Content-Type: multipart/mixed; boundary=\"outer\"\n\npreamble\n"
        "--outer\nContent-Type: text/plain; charset=utf-8\n\npart one\n.dot\n"
        "--outer\nContent-Type: multipart/alternative; boundary=inner\n\n"
        "--inner\n\nalt one\n--inner\nContent-Type: text/html\n\n<p>x</p>\n--inner--\ninner epilogue\n"
        "--outer\nContent-Type: message/rfc822\n\nSubject: inside\n\ninner body\n--outer--\nepilogue\n");
    Tree t(msg);
    const struct body &top = t.top;
    expect_whole(t);
    EXPECT_EQ(top.boundary_size, 0u);
    ASSERT_EQ(top.numparts, 3);
    const struct body &p1 = top.subpart[0];
    EXPECT_EQ(field(p1, "type"), "TEXT/PLAIN CHARSET=utf-8");
    EXPECT_EQ(t.content(p1), "part one\r\n.dot");
    EXPECT_EQ(p1.content_lines, 1u);
    // The CR LF before the delimiter and the delimiter line.
    EXPECT_EQ(p1.boundary_size, 2u + 9u);
    EXPECT_EQ(p1.boundary_lines, 2u);
    const struct body &alt = top.subpart[1];
    ASSERT_EQ(alt.numparts, 2);
    EXPECT_EQ(alt.subpart[0].header_size, 2u);
    EXPECT_EQ(t.content(alt.subpart[0]), "alt one");
    EXPECT_EQ(t.content(alt.subpart[1]), "<p>x</p>");
    // The closing delimiter belongs to the last part, the epilogue and the
    // outer delimiter behind it to the container.
    EXPECT_EQ(alt.subpart[1].boundary_size, 2u + 11u);
    EXPECT_EQ(alt.boundary_size, 2u + 9u);
    const struct body &m = top.subpart[2];
    // Its sizes, lines and envelope: the cache tests' nested message part.
    ASSERT_TRUE(m.subpart);
    EXPECT_EQ(t.content(*m.subpart), "inner body");
    EXPECT_EQ(m.boundary_size, 2u + 11u);
    // The message's lines are its header lines and content lines.
    uint32_t lf = 0;
    for (char c : msg) lf += c == '\n';
    EXPECT_EQ((uint32_t)top.header_lines + top.content_lines, lf);
}

TEST(MessageParse, BrokenMultiparts) {
    // The first delimiter never comes: all content in the preamble, one
    // empty part.
    Tree none(mixed("b", "no parts here\n"));
    ASSERT_EQ(none.top.numparts, 1);
    EXPECT_EQ(none.top.subpart[0].header_size + none.top.subpart[0].content_size, 0u);
    EXPECT_EQ(none.top.content_size, 15u);
    // No BOUNDARY parameter: the cache tests' multipart without parts.
    // A part (by its path) with its content, header and delimiter sizes, its
    // container's part count and delimiter size (-1: not looked at).
    const struct {
        const char *what, *boundary, *body;
        std::vector<int> path;
        const char *content;
        int header_size, boundary_size, siblings, container_boundary_size, top_parts;
    } cases[] = {
        {"missing final delimiter: the input ends inside the last part", "b",
         "--b\n\none\n--b\n\ntwo\n", {1}, "two\r\n", -1, -1, 2, -1, 2},
        {"an inner multipart cut off by the outer closing delimiter, whose size is carried "
         "up to the inner multipart's node", "out",
         "--out\nContent-Type: multipart/mixed; boundary=in\n\n--in\n\nx\n--out--\nepilogue\n",
         {0, 0}, "x", -1, 0, 1, 2 + 9, 1},
        {"an outer delimiter that doesn't close leaves the inner multipart open", "out",
         "--out\nContent-Type: multipart/mixed; boundary=in\n\n--in\n\nx\n--out\n\ny\n--out--\n",
         {0, 1}, "y", -1, -1, 2, 2 + 9, 1},
        // "--abcdef" is a delimiter of "abc", tried from the outermost
        // boundary on: the inner boundary's own delimiters are taken as the
        // outer's non-closing ones, and "--abc--" closes both.
        {"a boundary that is a prefix of another", "abc",
         "--abc\nContent-Type: multipart/mixed; boundary=abcdef\n\n--abcdef\n\nfirst\n--abcdef--\n--abc--\n",
         {0, 0}, "first", -1, 2 + 12, 2, -1, 1},
        {"only two dashes behind the boundary close it", "b",
         "--b\n\none\n--b-\n\ntwo\n--b--\nepilogue\n", {1}, "two", -1, 2 + 7, 2, 0, 2},
        {"empty parts: delimiters back to back, one right behind the header", "e",
         "--e\n--e\n\n--e\n--e--\n", {2}, "", 0, -1, 3, -1, 3},
        {"a delimiter ends a part's header: the CR LF before it moves over", "h",
         "--h\nContent-Type: text/html\n--h--\n", {0}, "", 23, 2 + 7, 1, -1, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Tree t(mixed(c.boundary, c.body));
        expect_whole(t);
        EXPECT_EQ(t.top.numparts, c.top_parts);
        const struct body *container = &t.top, *b = &t.top;
        for (int i : c.path) {
            ASSERT_GT(b->numparts, i);
            container = b;
            b = &b->subpart[i];
        }
        EXPECT_EQ(container->numparts, c.siblings);
        EXPECT_EQ(t.content(*b), c.content);
        const std::pair<int, uint32_t> sizes[] = {{c.header_size, b->header_size},
                                                  {c.boundary_size, b->boundary_size},
                                                  {c.container_boundary_size, container->boundary_size}};
        for (const auto &s : sizes) {
            if (s.first >= 0) { EXPECT_EQ(s.second, (uint32_t)s.first); }
        }
    }
    // The cut inner multipart: the closing delimiter's lines go with it.
    Tree cut(mixed("out", cases[1].body));
    EXPECT_EQ(cut.top.subpart[0].boundary_lines, 2u);
    EXPECT_EQ(cut.top.subpart[0].subpart[0].boundary_lines, 0u);
    // Input ending in the middle of a delimiter, with no line end.
    for (const char *end : {"--z", "--z-", "--z--", "-", "--", "."}) {
        SCOPED_TRACE(end);
        expect_whole(Tree(mixed("z", "--z\n\nx\n") + end));
    }
}

TEST(MessageParse, DigestAndMessageParts) {
    Tree d(crlf("Content-Type: multipart/digest; boundary=d\n\n--d\n\nSubject: one\n\nfirst\n"
                "--d\nContent-Type: text/plain\n\nplain\n--d--\n"));
    ASSERT_EQ(d.top.numparts, 2);
    EXPECT_EQ(field(d.top.subpart[0], "type"), "MESSAGE/RFC822 ");
    ASSERT_TRUE(d.top.subpart[0].subpart);
    EXPECT_EQ(str(d.top.subpart[0].subpart->subject), "one");
    EXPECT_EQ(str(d.top.subpart[1].type), "TEXT");
    expect_whole(d);
    // A message part whose header a delimiter ends: its message is empty
    // and of the default type, and the part takes over the message's
    // (zero) delimiter size, so that delimiter is in no size.
    Tree m(mixed("m", "--m\nContent-Type: message/rfc822\n--m--\n"));
    ASSERT_EQ(m.top.numparts, 1);
    const struct body &mp = m.top.subpart[0];
    ASSERT_TRUE(mp.subpart);
    EXPECT_EQ(str(mp.subpart->type), "TEXT");
    EXPECT_EQ(mp.content_size + mp.boundary_size, 0u);
    EXPECT_EQ(m.top.header_size + m.top.content_size, m.len - 9);    // A message at the top: the cache tests' flags and sections cover it.
}

// Multiparts nested n deep, boundaries "b<level>x", a text part inside.
std::string nested(int levels) {
    std::string s;
    for (int i = 0; i < levels; i++)
        s += "Content-Type: multipart/mixed; boundary=b" + std::to_string(i) + "x\r\n\r\n--b" +
             std::to_string(i) + "x\r\n";
    s += "Content-Type: text/plain\r\n\r\ndeep\r\n";
    for (int i = levels - 1; i >= 0; i--) s += "--b" + std::to_string(i) + "x--\r\n";
    return s;
}

TEST(MessageParse, NestingBudget) {
    Tree t(nested(60));
    const struct body *b = &t.top;
    int level = 0;
    for (; b->numparts > 0; b = &b->subpart[0], level++)
        EXPECT_EQ(str(b->type), "MULTIPART") << level;
    // The entity at the limit keeps its subtype and reads its delimiters
    // as content.
    EXPECT_EQ(level, MESSAGE_NESTING_BUDGET);
    EXPECT_EQ(str(b->type) + "/" + str(b->subtype), "TEXT/MIXED");
    EXPECT_NE(t.content(*b).find("--b55x"), std::string::npos);
    expect_whole(t);
    // Thousands of levels end the same way, without deep recursion.
    Tree deep(nested(5000));
    EXPECT_EQ(deep.top.header_size + deep.top.content_size, deep.len);
    // Messages inside messages count against the same budget.
    std::string msgs;
    for (int i = 0; i < 80; i++) msgs += "Content-Type: message/rfc822\r\n\r\n";
    Tree m(msgs + "Subject: bottom\r\n\r\nx\r\n");
    for (b = &m.top, level = 0; b->subpart; b = b->subpart) level++;
    EXPECT_EQ(level, MESSAGE_NESTING_BUDGET);
    EXPECT_EQ(str(b->type) + "/" + str(b->subtype), "TEXT/RFC822");
    EXPECT_EQ(m.top.header_size + m.top.content_size, m.len);
}

TEST(MessageParse, LongHeaders) {
    // A line longer than the buffer arrives in pieces; a later piece that
    // starts with a delimiter ends nothing.
    std::string part_header = "X-Long: " + std::string(996 - 8, 'a') + "--b\r\n";
    Tree t("Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n" + part_header +
           "Subject: " + std::string(3000, 's') + "\r\n\r\nbody\r\n--b--\r\n");
    ASSERT_EQ(t.top.numparts, 1);
    const struct body &p = t.top.subpart[0];
    EXPECT_EQ(p.header_size, part_header.size() + 9 + 3000 + 2 + 2);
    EXPECT_EQ(str(p.subject).size(), 3000u);
    EXPECT_EQ(t.content(p), "body");
    // A header beyond the buffer's limit is given up (all content); below it, read whole.
    std::string pad;
    while (pad.size() < 120000) pad += "X-Pad: " + std::string(70, 'p') + "\r\n";
    Tree fits("Subject: kept\r\n" + pad + "\r\nbody\r\n");
    EXPECT_EQ(str(fits.top.subject), "kept");
    EXPECT_EQ(fits.top.header_size, 15 + pad.size() + 2);
    while (pad.size() < 140000) pad += "X-Pad: " + std::string(70, 'p') + "\r\n";
    Tree g("Subject: lost\r\n" + pad + "\r\nbody\r\n");
    EXPECT_EQ(g.top.header_size + g.top.header_lines + g.top.content_offset, 0u);
    EXPECT_EQ(field(g.top, "subject") + field(g.top, "type"), "<null>TEXT/PLAIN CHARSET=us-ascii");
    EXPECT_EQ(g.top.content_size, g.len);
}

TEST(MessageParse, BareLineFeeds) {
    // A bare LF inside CRLF text ends a line like CR LF does.
    Tree lf("A: b\r\n\r\none\ntwo\r\nthree");
    EXPECT_EQ(lf.top.content_lines, 2u);
    EXPECT_EQ(lf.top.content_size, 14u);
    // In a header, a bare LF starts a new line; one without colon starts
    // the content.
    Tree hlf("Subject: a\nb\r\n\r\n");
    EXPECT_EQ(str(hlf.top.subject), "a");
    EXPECT_EQ(hlf.top.header_size, 11u);
    // The 2 bytes before a delimiter are its own even when not CR LF; a
    // one-byte line gives up no more than it has.
    const std::pair<const char *, uint32_t> before[] = {{"ab\n", 1}, {"\n", 0}};
    for (const auto &c : before) {
        Tree dl("Content-Type: multipart/mixed; boundary=w\r\n\r\n--w\r\n\r\n" +
                std::string(c.first) + "--w--\r\n");
        ASSERT_EQ(dl.top.numparts, 1);
        EXPECT_EQ(dl.top.subpart[0].content_size, c.second);
        expect_whole(dl);
    }
}

}  // namespace
