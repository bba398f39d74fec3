// The MIME parser: headers and their fields, parameters, the multipart
// recursion with its boundaries and nesting budget, and the sizes of the
// body tree. Every message is parsed from an exact-size heap copy, so a
// read past its end shows under the sanitizers.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <string>

#include "store/message.h"

namespace {

std::string crlf(const std::string &s) {
    std::string out;
    for (char c : s) {
        if (c == '\n') out += '\r';
        out += c;
    }
    return out;
}

// A message parsed into its tree.
struct Tree {
    char *data;
    size_t len;
    uint32_t end;  // where the parse stopped
    struct body top;

    explicit Tree(const std::string &text, const char *default_type = MESSAGE_DEFAULT_TYPE) {
        len = text.size();
        data = static_cast<char *>(malloc(len ? len : 1));
        memcpy(data, text.data(), len);
        struct msgrange m = {data, (uint32_t)len, 0};
        struct boundary_stack b = {nullptr, 0, 0};
        message_parse_body(&m, &top, default_type, MESSAGE_NESTING_BUDGET, &b);
        free(b.ids);
        end = m.offset;
    }
    ~Tree() {
        message_free_body(&top);
        free(data);
    }
    Tree(const Tree &) = delete;
    Tree &operator=(const Tree &) = delete;
    std::string at(uint32_t off, uint32_t n) const { return std::string(data + off, n); }
};

std::string str(const char *s) { return s ? s : "<null>"; }

std::string param(const struct param *p, const char *name) {
    for (; p; p = p->next)
        if (p->attribute && strcmp(p->attribute, name) == 0) return p->value;
    return "<none>";
}

std::string param_names(const struct param *p) {
    std::string out;
    for (; p; p = p->next) out += std::string(out.empty() ? "" : ",") + str(p->attribute);
    return out;
}

std::string languages(const struct param *p) {
    std::string out;
    for (; p; p = p->next) out += std::string(out.empty() ? "" : ",") + str(p->value);
    return out;
}

// The entities of a container lie one behind the other: each part begins
// where the one before it ended with its delimiter.
void check_layout(const struct body &b) {
    if (b.numparts > 0) {
        for (int i = 0; i + 1 < b.numparts; i++) {
            const struct body &p = b.subpart[i];
            EXPECT_EQ(b.subpart[i + 1].header_offset,
                      p.header_offset + p.header_size + p.content_size + p.boundary_size)
                << "part " << i;
        }
        for (int i = 0; i < b.numparts; i++) check_layout(b.subpart[i]);
    } else if (b.subpart) {
        if (b.subpart->header_size || b.subpart->content_size) {
            EXPECT_EQ(b.subpart->header_offset, b.content_offset);
        }
        check_layout(*b.subpart);
    }
}

TEST(MessageParse, EmptyMessageAndMissingHeader) {
    Tree empty("");
    EXPECT_EQ(str(empty.top.type), "TEXT");
    EXPECT_EQ(str(empty.top.subtype), "PLAIN");
    EXPECT_EQ(param(empty.top.params, "CHARSET"), "us-ascii");
    EXPECT_EQ(empty.top.header_size, 0u);
    EXPECT_EQ(empty.top.header_lines, 0);
    EXPECT_EQ(empty.top.content_size, 0u);
    EXPECT_EQ(empty.top.numparts, 0);

    // No header at all: the first line has no colon before its first blank.
    Tree none(crlf("Hello there: friend\nsecond line\n"));
    EXPECT_EQ(none.top.header_size, 0u);
    EXPECT_EQ(none.top.header_lines, 0);
    EXPECT_EQ(none.top.content_offset, 0u);
    EXPECT_EQ(none.top.content_size, none.len);
    EXPECT_EQ(none.top.content_lines, 2u);

    // A header that runs into a line without a colon: that line starts the
    // content; there is no separator line.
    Tree run(crlf("Subject: hi\nTo: a@b\nplain text\nmore\n"));
    EXPECT_EQ(run.top.header_size, 22u);
    EXPECT_EQ(run.top.header_lines, 2);
    EXPECT_EQ(run.top.content_offset, 22u);
    EXPECT_EQ(run.at(run.top.content_offset, 5), "plain");
    EXPECT_EQ(str(run.top.subject), "hi");
    EXPECT_EQ(run.top.header_size + run.top.content_size, run.len);

    // Header only, no blank line, no final line end.
    Tree bare("Subject: x");
    EXPECT_EQ(bare.top.header_size, 10u);
    EXPECT_EQ(bare.top.header_lines, 0);
    EXPECT_EQ(str(bare.top.subject), "x");
    EXPECT_EQ(bare.top.content_size, 0u);

    // The last line without a line end counts in bytes but not in lines.
    Tree tail(crlf("A: b\n\nline\nlast"));
    EXPECT_EQ(tail.top.content_size, 10u);
    EXPECT_EQ(tail.top.content_lines, 1u);
}

TEST(MessageParse, StringAndAddressFields) {
    Tree t(crlf("Date: Fri, 3 Jan 03 10:00:00 +0100\n"
                "subject: first\n"
                "  folded\n"
                "Subject: second\n"
                "Message-ID:\n"
                " <id@host>\n"
                "In-Reply-To:   <x@y>\n"
                "Content-ID: <c@d>\n"
                "Content-Description: the text\n"
                "Content-MD5: abc=\n"
                "FROM: Joe <Joe@Example.com>\n"
                "To: a@b, c@d\n"
                "to: e@f\n"
                "Cc: undisclosed: ;\n"
                "Bcc: x@y\n"
                "Sender: s@t\n"
                "Reply-To: r@t\n"
                "X-Subject: not this\n"
                "\n"
                "body\n"));
    const struct body &b = t.top;
    EXPECT_EQ(str(b.date), "Fri, 3 Jan 03 10:00:00 +0100");
    // Folded: the line end goes, the white space of the continuation stays.
    EXPECT_EQ(str(b.subject), "first  folded");
    EXPECT_EQ(str(b.message_id), " <id@host>");
    EXPECT_EQ(str(b.in_reply_to), "<x@y>");
    EXPECT_EQ(str(b.id), "<c@d>");
    EXPECT_EQ(str(b.description), "the text");
    EXPECT_EQ(str(b.md5), "abc=");
    ASSERT_TRUE(b.from);
    EXPECT_EQ(str(b.from->name), "Joe");
    EXPECT_EQ(str(b.from->mailbox), "Joe");
    EXPECT_EQ(str(b.from->domain), "Example.com");
    EXPECT_EQ(b.from->next, nullptr);
    // Two To headers make one list.
    int n = 0;
    for (struct address *a = b.to; a; a = a->next) n++;
    EXPECT_EQ(n, 3);
    ASSERT_TRUE(b.cc);
    EXPECT_EQ(str(b.cc->mailbox), "undisclosed");
    EXPECT_EQ(b.cc->domain, nullptr);
    ASSERT_TRUE(b.bcc && b.sender && b.reply_to);
    EXPECT_EQ(str(b.sender->mailbox), "s");
    EXPECT_EQ(str(b.reply_to->mailbox), "r");

    // An empty Subject is an empty string, not a missing one.
    Tree e(crlf("Subject:\nSubject: later\n\nx\n"));
    EXPECT_EQ(str(e.top.subject), "");
    Tree e2(crlf("Subject:   \n\nx\n"));
    EXPECT_EQ(str(e2.top.subject), "");
    Tree last("Subject:");
    EXPECT_EQ(str(last.top.subject), "");
    // A NUL in a header line cuts what is kept of it; its bytes are consumed.
    std::string nul = crlf("Subject: ab") + std::string(1, '\0') + crlf("cd\n\nbody\n");
    Tree z(nul);
    EXPECT_EQ(str(z.top.subject), "ab");
    EXPECT_EQ(z.top.content_offset, 18u);
    // The blank line behind the cut line doesn't start a line of the copy,
    // so it is kept as header text.
    EXPECT_EQ(z.top.header_size, 13u);
}

TEST(MessageParse, ContentTypeDispositionEncodingLanguage) {
    Tree t(crlf("Content-Type: Text/HTML ; charset = \"US-ASCII\" ;\n"
                "  name=\"a \\\"q\\\" b\"; format=flowed (comment)\n"
                "Content-Type: image/png\n"
                "Content-Transfer-Encoding: quoted-printable (qp)\n"
                "Content-Disposition: attachment; filename=x.txt; size=10\n"
                "Content-Language: en-US, fr\n"
                "\n"
                "x\n"));
    EXPECT_EQ(str(t.top.type), "TEXT");
    EXPECT_EQ(str(t.top.subtype), "HTML");
    EXPECT_EQ(param_names(t.top.params), "CHARSET,NAME,FORMAT");
    EXPECT_EQ(param(t.top.params, "CHARSET"), "US-ASCII");
    EXPECT_EQ(param(t.top.params, "NAME"), "a \"q\" b");
    EXPECT_EQ(param(t.top.params, "FORMAT"), "flowed");
    EXPECT_EQ(str(t.top.encoding), "QUOTED-PRINTABLE");
    EXPECT_EQ(str(t.top.disposition), "ATTACHMENT");
    EXPECT_EQ(param_names(t.top.disposition_params), "FILENAME,SIZE");
    EXPECT_EQ(languages(t.top.language), "EN-US,FR");

    struct Case {
        const char *header;
        const char *type, *subtype, *params;
    } cases[] = {
        // No slash: the default stays.
        {"Content-Type: text", "TEXT", "PLAIN", "CHARSET"},
        {"Content-Type: text/plain; charset=\"us-ascii\"", "TEXT", "PLAIN", "CHARSET"},
        // A special inside the subtype gives up; the default applies.
        {"Content-Type: text/pl@in", "TEXT", "PLAIN", "CHARSET"},
        // Junk behind the subtype: given up.
        {"Content-Type: text/plain junk", "TEXT", "PLAIN", "CHARSET"},
        // An unquoted value with a special ends the parameters; the type stays.
        {"Content-Type: application/x; a=1; b=c/d; e=2", "APPLICATION", "X", "A"},
        // "a=b c=d": neither is stored.
        {"Content-Type: application/x; a=b c=d", "APPLICATION", "X", ""},
        {"Content-Type: multipart/mixed;\n boundary=\"==x==\"", "MULTIPART", "MIXED", "BOUNDARY"},
        // Folded inside a quoted value: the line end goes, the blank stays.
        {"Content-Type: a/b; n=\"x\n y\"", "A", "B", "N"},
        // An 8-bit byte in a token gives up.
        {"Content-Type: te\xe9xt/plain", "TEXT", "PLAIN", "CHARSET"},
    };
    for (const Case &c : cases) {
        Tree ct(crlf(std::string(c.header) + "\n\n"));
        SCOPED_TRACE(c.header);
        EXPECT_EQ(str(ct.top.type), c.type);
        EXPECT_EQ(str(ct.top.subtype), c.subtype);
        EXPECT_EQ(param_names(ct.top.params), c.params);
    }
    Tree folded(crlf("Content-Type: a/b; n=\"x\n y\"\n\n"));
    EXPECT_EQ(param(folded.top.params, "N"), "x y");

    // A type that can't be read lets a later header take effect.
    Tree later(crlf("Content-Type: broken\nContent-Type: image/gif\n\n"));
    EXPECT_EQ(str(later.top.type), "IMAGE");

    Tree enc(crlf("Content-Transfer-Encoding: 7bit x\nContent-Transfer-Encoding: base64\n\n"));
    EXPECT_EQ(str(enc.top.encoding), "BASE64");

    Tree inl(crlf("Content-Disposition: inline\n\n"));
    EXPECT_EQ(str(inl.top.disposition), "INLINE");
    EXPECT_EQ(inl.top.disposition_params, nullptr);
    Tree bad(crlf("Content-Disposition: inline junk\nContent-Disposition: Attachment\n\n"));
    EXPECT_EQ(str(bad.top.disposition), "ATTACHMENT");

    // The list of the last header with a tag wins; a bad tag ends the list.
    Tree lang(crlf("Content-Language: de\nContent-Language: en, x1, fr\nContent-Language: 42\n\n"));
    EXPECT_EQ(languages(lang.top.language), "EN");
    Tree lang2(crlf("Content-Language: en (English) , fr\n\n"));
    EXPECT_EQ(languages(lang2.top.language), "EN,FR");
    Tree lang3(crlf("Content-Language: en fr\n\n"));
    EXPECT_EQ(lang3.top.language, nullptr);
}

TEST(MessageParse, SplitParameters) {
    auto parsed = [](const std::string &params) {
        Tree *t = new Tree(crlf("Content-Type: application/x; " + params + "\n\n"));
        return t;
    };
    struct Case {
        const char *params;
        const char *names;
        const char *name, *value;
    } cases[] = {
        {"title*0*=us-ascii'en'a%20; title*1=\"b c\"", "TITLE*", "TITLE*",
         "us-ascii'en'a%20b%20c"},
        {"title*0=a; title*1*=%20b", "TITLE*", "TITLE*", "''a%20b"},
        {"t*0=\"ab\"; t*1=cd; t*2=\"ef\"", "T", "T", "abcdef"},
        // Continuations may stand before their head.
        {"u*2=c; u*1=b; x=y; u*0=a", "X,U", "U", "abc"},
        // A head alone loses its "*0".
        {"name*0=lone", "NAME", "NAME", "lone"},
        {"name*0*=utf-8''%41", "NAME*", "NAME*", "utf-8''%41"},
        // A gap ends the value; the stray part stays as it is.
        {"v*0=a; v*2=c", "V,V*2", "V", "a"},
        {"title*=utf-8''x; title*3=y", "TITLE*,TITLE*3", "TITLE*", "utf-8''x"},
        // Escaping of plain parts appended to an encoded value.
        {"w*0*=''a; w*1=\"%'* q\"", "W*", "W*", "''a%25%27%2A%20q"},
        // "*01" is no continuation number.
        {"k*0=a; k*01=b", "K,K*01", "K", "a"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.params);
        Tree *t = parsed(c.params);
        EXPECT_EQ(param_names(t->top.params), c.names);
        EXPECT_EQ(param(t->top.params, c.name), c.value);
        delete t;
    }
    // The same folding for Content-Disposition.
    Tree d(crlf("Content-Disposition: attachment; filename*0=\"long\";\n"
                " filename*1=\"name.txt\"\n\n"));
    EXPECT_EQ(param(d.top.disposition_params, "FILENAME"), "longname.txt");
}

TEST(MessageParse, MultipartSizes) {
    const std::string msg = crlf(
        "Content-Type: multipart/mixed; boundary=\"outer\"\n"
        "\n"
        "preamble\n"
        "--outer\n"
        "Content-Type: text/plain; charset=utf-8\n"
        "\n"
        "part one\n"
        ".dot\n"
        "--outer\n"
        "Content-Type: multipart/alternative; boundary=inner\n"
        "\n"
        "--inner\n"
        "\n"
        "alt one\n"
        "--inner\n"
        "Content-Type: text/html\n"
        "\n"
        "<p>x</p>\n"
        "--inner--\n"
        "inner epilogue\n"
        "--outer\n"
        "Content-Type: message/rfc822\n"
        "\n"
        "Subject: inside\n"
        "\n"
        "inner body\n"
        "--outer--\n"
        "epilogue\n");
    Tree t(msg);
    const struct body &top = t.top;
    EXPECT_EQ(top.header_size + top.content_size, t.len);
    EXPECT_EQ(t.end, t.len);
    EXPECT_EQ(top.boundary_size, 0u);
    ASSERT_EQ(top.numparts, 3);
    check_layout(top);

    const struct body &p1 = top.subpart[0];
    EXPECT_EQ(str(p1.type), "TEXT");
    EXPECT_EQ(param(p1.params, "CHARSET"), "utf-8");
    EXPECT_EQ(t.at(p1.content_offset, p1.content_size), "part one\r\n.dot");
    EXPECT_EQ(p1.content_lines, 1u);
    // The CR LF before the delimiter and the delimiter line.
    EXPECT_EQ(p1.boundary_size, 2u + 9u);
    EXPECT_EQ(p1.boundary_lines, 2u);
    EXPECT_NE(p1.dotlines, 0);
    EXPECT_NE(top.dotlines, 0);

    const struct body &alt = top.subpart[1];
    EXPECT_EQ(str(alt.subtype), "ALTERNATIVE");
    ASSERT_EQ(alt.numparts, 2);
    EXPECT_EQ(str(alt.subpart[0].type), "TEXT");
    EXPECT_EQ(alt.subpart[0].header_size, 2u);
    EXPECT_EQ(t.at(alt.subpart[0].content_offset, alt.subpart[0].content_size), "alt one");
    EXPECT_EQ(t.at(alt.subpart[1].content_offset, alt.subpart[1].content_size), "<p>x</p>");
    // The closing delimiter belongs to the last part, the epilogue and the
    // outer delimiter behind it to the container.
    EXPECT_EQ(alt.subpart[1].boundary_size, 2u + 11u);
    EXPECT_EQ(alt.boundary_size, 2u + 9u);
    EXPECT_EQ(alt.content_offset + alt.content_size + alt.boundary_size,
              top.subpart[2].header_offset);

    const struct body &m = top.subpart[2];
    EXPECT_EQ(str(m.type), "MESSAGE");
    ASSERT_TRUE(m.subpart);
    EXPECT_EQ(m.numparts, 0);
    EXPECT_EQ(str(m.subpart->subject), "inside");
    EXPECT_EQ(m.content_size, m.subpart->header_size + m.subpart->content_size);
    EXPECT_EQ(m.content_lines, (uint32_t)m.subpart->header_lines + m.subpart->content_lines);
    EXPECT_EQ(t.at(m.subpart->content_offset, m.subpart->content_size), "inner body");
    EXPECT_EQ(m.boundary_size, 2u + 11u);
    EXPECT_EQ(m.subpart->boundary_size, 2u + 11u);

    // Lines: the whole message's lines are header lines plus content lines.
    uint32_t lf = 0;
    for (char c : msg) lf += c == '\n';
    EXPECT_EQ((uint32_t)top.header_lines + top.content_lines, lf);
}

TEST(MessageParse, BrokenMultiparts) {
    // The first delimiter never comes: all content in the preamble, one
    // empty part.
    Tree none(crlf("Content-Type: multipart/mixed; boundary=b\n\nno parts here\n"));
    ASSERT_EQ(none.top.numparts, 1);
    EXPECT_EQ(none.top.subpart[0].header_size, 0u);
    EXPECT_EQ(none.top.subpart[0].content_size, 0u);
    EXPECT_EQ(none.top.content_size, 15u);
    EXPECT_EQ(none.top.content_lines, 1u);

    // No BOUNDARY parameter: a leaf that stays "MULTIPART".
    Tree nob(crlf("Content-Type: multipart/mixed\n\n--x\nabc\n"));
    EXPECT_EQ(str(nob.top.type), "MULTIPART");
    EXPECT_EQ(nob.top.numparts, 0);
    EXPECT_EQ(nob.top.subpart, nullptr);
    EXPECT_EQ(nob.top.content_size, 10u);

    // Missing final delimiter: the input ends inside the last part.
    Tree open(crlf("Content-Type: multipart/mixed; boundary=b\n\n--b\n\none\n--b\n\ntwo\n"));
    ASSERT_EQ(open.top.numparts, 2);
    EXPECT_EQ(open.at(open.top.subpart[1].content_offset, open.top.subpart[1].content_size),
              "two\r\n");
    EXPECT_EQ(open.top.header_size + open.top.content_size, open.len);
    check_layout(open.top);

    // An inner multipart cut off by the outer closing delimiter: that
    // delimiter's size is carried up to the inner multipart's node.
    Tree cut(crlf("Content-Type: multipart/mixed; boundary=out\n\n"
                  "--out\n"
                  "Content-Type: multipart/mixed; boundary=in\n\n"
                  "--in\n\nx\n"
                  "--out--\n"
                  "epilogue\n"));
    ASSERT_EQ(cut.top.numparts, 1);
    const struct body &inner = cut.top.subpart[0];
    ASSERT_EQ(inner.numparts, 1);
    EXPECT_EQ(inner.subpart[0].boundary_size, 0u);
    EXPECT_EQ(inner.subpart[0].boundary_lines, 0u);
    EXPECT_EQ(inner.boundary_size, 2u + 9u);
    EXPECT_EQ(inner.boundary_lines, 2u);
    EXPECT_EQ(cut.at(inner.subpart[0].content_offset, inner.subpart[0].content_size), "x");
    check_layout(cut.top);
    EXPECT_EQ(cut.top.header_size + cut.top.content_size, cut.len);

    // An outer delimiter that doesn't close leaves the inner multipart
    // open: the part behind it is read as the inner one's.
    Tree across(crlf("Content-Type: multipart/mixed; boundary=out\n\n"
                     "--out\n"
                     "Content-Type: multipart/mixed; boundary=in\n\n"
                     "--in\n\nx\n"
                     "--out\n\ny\n"
                     "--out--\n"));
    ASSERT_EQ(across.top.numparts, 1);
    ASSERT_EQ(across.top.subpart[0].numparts, 2);
    const struct body &y = across.top.subpart[0].subpart[1];
    EXPECT_EQ(across.at(y.content_offset, y.content_size), "y");
    EXPECT_EQ(across.top.subpart[0].boundary_size, 2u + 9u);
    check_layout(across.top);
    EXPECT_EQ(across.top.header_size + across.top.content_size, across.len);

    // A boundary that is a prefix of another: "--abcdef" is a delimiter of
    // "abc", tried from the outermost boundary on.
    Tree prefix(crlf("Content-Type: multipart/mixed; boundary=abc\n\n"
                     "--abc\n"
                     "Content-Type: multipart/mixed; boundary=abcdef\n\n"
                     "--abcdef\n\nfirst\n"
                     "--abcdef--\n"
                     "--abc--\n"));
    // The inner boundary's own delimiters are taken as the outer's
    // non-closing ones; "--abc--" closes both.
    ASSERT_EQ(prefix.top.numparts, 1);
    ASSERT_EQ(prefix.top.subpart[0].numparts, 2);
    const struct body &first = prefix.top.subpart[0].subpart[0];
    EXPECT_EQ(prefix.at(first.content_offset, first.content_size), "first");
    EXPECT_EQ(first.boundary_size, 2u + 12u);
    EXPECT_EQ(prefix.top.header_size + prefix.top.content_size, prefix.len);
    check_layout(prefix.top);

    // Only two dashes behind the boundary close it; one dash doesn't.
    Tree dash(crlf("Content-Type: multipart/mixed; boundary=b\n\n"
                   "--b\n\none\n--b-\n\ntwo\n--b--\nepilogue\n"));
    ASSERT_EQ(dash.top.numparts, 2);
    EXPECT_EQ(dash.at(dash.top.subpart[1].content_offset, dash.top.subpart[1].content_size),
              "two");
    EXPECT_EQ(dash.top.subpart[1].boundary_size, 2u + 7u);
    EXPECT_EQ(dash.top.boundary_size, 0u);
    EXPECT_EQ(dash.top.header_size + dash.top.content_size, dash.len);

    // Empty parts, delimiters back to back, a delimiter right behind the
    // header.
    Tree empty(crlf("Content-Type: multipart/mixed; boundary=e\n\n"
                    "--e\n--e\n\n--e\n--e--\n"));
    ASSERT_EQ(empty.top.numparts, 3);
    for (int i = 0; i < 3; i++) EXPECT_EQ(empty.top.subpart[i].content_size, 0u) << i;
    EXPECT_EQ(empty.top.subpart[0].header_size, 0u);
    EXPECT_EQ(empty.top.header_size + empty.top.content_size, empty.len);
    check_layout(empty.top);

    // A delimiter ends a part's header: the CR LF before it moves over.
    Tree hdr(crlf("Content-Type: multipart/mixed; boundary=h\n\n"
                  "--h\nContent-Type: text/html\n--h--\n"));
    ASSERT_EQ(hdr.top.numparts, 1);
    EXPECT_EQ(hdr.top.subpart[0].header_size, 23u);
    EXPECT_EQ(hdr.top.subpart[0].boundary_size, 2u + 7u);
    EXPECT_EQ(str(hdr.top.subpart[0].subtype), "HTML");
    EXPECT_EQ(hdr.top.header_size + hdr.top.content_size, hdr.len);

    // Input ending in the middle of a delimiter, with no line end.
    for (const char *end : {"--z", "--z-", "--z--", "-", "--", "."}) {
        SCOPED_TRACE(end);
        Tree e(crlf("Content-Type: multipart/mixed; boundary=z\n\n--z\n\nx\n") + end);
        EXPECT_EQ(e.top.header_size + e.top.content_size, e.len);
        EXPECT_EQ(e.end, e.len);
    }
}

TEST(MessageParse, DigestAndMessageParts) {
    Tree d(crlf("Content-Type: multipart/digest; boundary=d\n\n"
                "--d\n\nSubject: one\n\nfirst\n"
                "--d\nContent-Type: text/plain\n\nplain\n"
                "--d--\n"));
    ASSERT_EQ(d.top.numparts, 2);
    EXPECT_EQ(str(d.top.subpart[0].type), "MESSAGE");
    EXPECT_EQ(str(d.top.subpart[0].subtype), "RFC822");
    ASSERT_TRUE(d.top.subpart[0].subpart);
    EXPECT_EQ(str(d.top.subpart[0].subpart->subject), "one");
    EXPECT_EQ(str(d.top.subpart[1].type), "TEXT");
    check_layout(d.top);

    // A message part whose header a delimiter ends: its message is empty
    // and of the default type, and the part takes over the message's
    // (zero) delimiter size, so that delimiter is in no size.
    Tree m(crlf("Content-Type: multipart/mixed; boundary=m\n\n"
                "--m\nContent-Type: message/rfc822\n--m--\n"));
    ASSERT_EQ(m.top.numparts, 1);
    const struct body &mp = m.top.subpart[0];
    ASSERT_TRUE(mp.subpart);
    EXPECT_EQ(str(mp.subpart->type), "TEXT");
    EXPECT_EQ(mp.content_size, 0u);
    EXPECT_EQ(mp.boundary_size, 0u);
    EXPECT_EQ(m.top.header_size + m.top.content_size, m.len - 9);

    // A message inside a message at the top.
    Tree top(crlf("Content-Type: message/rfc822\n\nSubject: in\nFrom: a@b\n\n.dot\n"));
    ASSERT_TRUE(top.top.subpart);
    EXPECT_EQ(str(top.top.subpart->subject), "in");
    EXPECT_EQ(top.top.content_size, top.len - top.top.header_size);
    EXPECT_NE(top.top.dotlines, 0);
}

// "Content-Type: multipart/mixed; boundary=bNx", then its first delimiter,
// for n levels; a text part inside; the closing delimiters.
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
    while (b->numparts > 0) {
        EXPECT_EQ(str(b->type), "MULTIPART") << level;
        b = &b->subpart[0];
        level++;
    }
    // The entity at the limit keeps its subtype and reads its delimiters
    // as content.
    EXPECT_EQ(level, MESSAGE_NESTING_BUDGET);
    EXPECT_EQ(str(b->type), "TEXT");
    EXPECT_EQ(str(b->subtype), "MIXED");
    EXPECT_NE(std::string(t.data + b->content_offset, b->content_size).find("--b55x"),
              std::string::npos);
    EXPECT_EQ(t.top.header_size + t.top.content_size, t.len);
    check_layout(t.top);

    // Thousands of levels end the same way, without deep recursion.
    Tree deep(nested(5000));
    EXPECT_EQ(deep.top.header_size + deep.top.content_size, deep.len);
    EXPECT_EQ(deep.end, deep.len);

    // Messages inside messages count against the same budget.
    std::string msgs;
    for (int i = 0; i < 80; i++) msgs += "Content-Type: message/rfc822\r\n\r\n";
    msgs += "Subject: bottom\r\n\r\nx\r\n";
    Tree m(msgs);
    b = &m.top;
    level = 0;
    while (b->subpart) {
        b = b->subpart;
        level++;
    }
    EXPECT_EQ(level, MESSAGE_NESTING_BUDGET);
    EXPECT_EQ(str(b->type), "TEXT");
    EXPECT_EQ(str(b->subtype), "RFC822");
    EXPECT_EQ(m.top.header_size + m.top.content_size, m.len);
}

TEST(MessageParse, LongHeaders) {
    // A line longer than the buffer's room arrives in pieces; only a
    // line's first piece is looked at, so a piece that starts with a
    // delimiter ends nothing.
    std::string part_header = "X-Long: " + std::string(996 - 8, 'a') + "--b\r\n";
    Tree t("Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n" + part_header +
           "Subject: " + std::string(3000, 's') + "\r\n\r\nbody\r\n--b--\r\n");
    ASSERT_EQ(t.top.numparts, 1);
    const struct body &p = t.top.subpart[0];
    EXPECT_EQ(p.header_size, part_header.size() + 9 + 3000 + 2 + 2);
    EXPECT_EQ(str(p.subject).size(), 3000u);
    EXPECT_EQ(t.at(p.content_offset, p.content_size), "body");

    // A header beyond the buffer's limit is given up: no fields, all
    // content.
    std::string big = "Subject: lost\r\n";
    while (big.size() < 140000) big += "X-Pad: " + std::string(70, 'p') + "\r\n";
    Tree g(big + "\r\nbody\r\n");
    EXPECT_EQ(g.top.header_size, 0u);
    EXPECT_EQ(g.top.header_lines, 0);
    EXPECT_EQ(g.top.subject, nullptr);
    EXPECT_EQ(str(g.top.type), "TEXT");
    EXPECT_EQ(g.top.content_size, g.len);
    EXPECT_EQ(g.top.content_offset, 0u);

    // Just below the limit a header is read whole.
    std::string fits = "Subject: kept\r\n";
    while (fits.size() < 120000) fits += "X-Pad: " + std::string(70, 'p') + "\r\n";
    Tree f(fits + "\r\nbody\r\n");
    EXPECT_EQ(str(f.top.subject), "kept");
    EXPECT_EQ(f.top.header_size, fits.size() + 2);
}

TEST(MessageParse, DotsAndBareLineFeeds) {
    Tree plain(crlf("A: b\n\nno dots\n"));
    EXPECT_EQ(plain.top.dotlines, 0);
    Tree dot(crlf("A: b\n\nx\n.\n"));
    EXPECT_NE(dot.top.dotlines, 0);
    Tree hdrdot(crlf("A: b\n.odd: header\n\nx\n"));
    EXPECT_NE(hdrdot.top.dotlines, 0);
    // A dot at the start of a nested part's header reaches the top.
    Tree nested(crlf("Content-Type: multipart/mixed; boundary=q\n\n--q\n.X: y\n\nz\n--q--\n"));
    EXPECT_NE(nested.top.dotlines, 0);
    // A dot that isn't at a line start counts for nothing.
    Tree mid(crlf("A: b\n\nx.y\n"));
    EXPECT_EQ(mid.top.dotlines, 0);

    // A bare LF inside CRLF text ends a line like CR LF does.
    Tree lf("A: b\r\n\r\none\ntwo\r\nthree");
    EXPECT_EQ(lf.top.content_lines, 2u);
    EXPECT_EQ(lf.top.content_size, 14u);
    // In a header, a bare LF starts a new line; one without colon starts
    // the content.
    Tree hlf("Subject: a\nb\r\n\r\n");
    EXPECT_EQ(str(hlf.top.subject), "a");
    EXPECT_EQ(hlf.top.header_size, 11u);
    // Before a delimiter, the 2 bytes in front count as the delimiter's
    // even when they are not CR LF.
    Tree dl("Content-Type: multipart/mixed; boundary=w\r\n\r\n--w\r\n\r\nab\n--w--\r\n");
    ASSERT_EQ(dl.top.numparts, 1);
    EXPECT_EQ(dl.top.subpart[0].content_size, 1u);
    EXPECT_EQ(dl.top.subpart[0].boundary_size, 2u + 7u);
    EXPECT_EQ(dl.top.header_size + dl.top.content_size, dl.len);
    // A one-byte line before the delimiter gives up no more than it has.
    Tree one("Content-Type: multipart/mixed; boundary=w\r\n\r\n--w\r\n\r\n\n--w--\r\n");
    ASSERT_EQ(one.top.numparts, 1);
    EXPECT_EQ(one.top.subpart[0].content_size, 0u);
    EXPECT_EQ(one.top.header_size + one.top.content_size, one.len);
}

TEST(MessageParse, Dates) {
    const char *tz = getenv("TZ");
    std::string old = tz ? tz : "";
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(message_parse_date("Fri, 3 Jan 03 10:00:00 +0100"), 1041584400);
    EXPECT_EQ(message_parse_date("3 Jan 49 10:00:00 +0000"), 2493280800);
    EXPECT_EQ(message_parse_date("3 Jan 50 10:00:00 +0000"), -630943200);
    EXPECT_EQ(message_parse_date("3 Jan 101 10:00:00 GMT"), 978516000);
    // No time: local noon of the day.
    EXPECT_EQ(message_parse_date("Fri, 3 Jan 2003"), 1041595200);
    // No seconds, no date, a bad month: the current time.
    for (const char *bad : {"Fri, 3 Jan 2003 10:00 +0000", (const char *)nullptr, "3 Foo 2003",
                            "3 Jan 1899 10:00:00 +0000"}) {
        time_t before = time(nullptr);
        time_t got = message_parse_date(bad);
        EXPECT_GE(got, before) << (bad ? bad : "null");
        EXPECT_LE(got, time(nullptr)) << (bad ? bad : "null");
    }
    if (tz)
        setenv("TZ", old.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

}  // namespace
