// Address parsing of header fields, on hand-made fields and on the From,
// To and Cc fields of the corpus.

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <string>
#include <vector>

#include "support/charset.h"
#include "support/parseaddr.h"
#include "tests/testutil.h"

namespace {

std::string field(const char *s) { return s ? std::string("'") + s + "'" : "-"; }

// One record per line: name route mailbox domain, "-" for null.
std::string render(const address *a)
{
    std::string out;
    for (; a; a = a->next)
        out += field(a->name) + " " + field(a->route) + " " + field(a->mailbox) + " " +
               field(a->domain) + "\n";
    return out;
}

std::string parse(const char *text)
{
    address *list = nullptr;
    parseaddr_list(text, &list);
    std::string s = render(list);
    parseaddr_free(list);
    return s;
}

TEST(ParseAddr, NamesRoutesAndComments)
{
    EXPECT_EQ(parse(" Alice <alice@example.org>"), "'Alice' - 'alice' 'example.org'\n");
    EXPECT_EQ(parse("\"Doe, John\" <j@x.org>, bob@Y.org"),
              "'Doe, John' - 'j' 'x.org'\n- - 'bob' 'Y.org'\n");
    EXPECT_EQ(parse("\"a \\\"quoted\\\" \\\\ name\" <q@x>"),
              "'a \"quoted\" \\ name' - 'q' 'x'\n");
    EXPECT_EQ(parse("John  Q.  Public <jqp@x>"), "'John Q. Public' - 'jqp' 'x'\n");
    EXPECT_EQ(parse("\" via RT\" <rt@x>"), "' via RT' - 'rt' 'x'\n");
    EXPECT_EQ(parse("=?utf-8?Q?Antoine_Beaupr=C3=A9?= <a@o.org>"),
              "'=?utf-8?Q?Antoine_Beaupr=C3=A9?=' - 'a' 'o.org'\n");
    EXPECT_EQ(parse("Nicolas de =?iso-8859-1?Q?Peslo=FCan?= <n@x>"),
              "'Nicolas de =?iso-8859-1?Q?Peslo=FCan?=' - 'n' 'x'\n");
    // Comments: dropped from names, taken as the name when there is none.
    EXPECT_EQ(parse("John (the (real) one) Smith <js@x>"), "'John Smith' - 'js' 'x'\n");
    EXPECT_EQ(parse("bob@x.org (Bob (B.) Smith)"), "'Bob (B.) Smith' - 'bob' 'x.org'\n");
    EXPECT_EQ(parse("(Bob) bob@x.org"), "'Bob' - 'bob' 'x.org'\n");
    EXPECT_EQ(parse("bob(c)@(d)x.org"), "'d' - 'bob' 'x.org'\n");
    // Local parts and domains as written, white space around dots gone.
    EXPECT_EQ(parse("\"john doe\"@x.org"), "- - '\"john doe\"' 'x.org'\n");
    EXPECT_EQ(parse("john . doe @ mail . x.org"), "- - 'john.doe' 'mail.x.org'\n");
    EXPECT_EQ(parse("u@[192.0.2.1]"), "- - 'u' '[192.0.2.1]'\n");
    // Source routes.
    EXPECT_EQ(parse("Joe <@a.org,@b.org:joe@c.org>"),
              "'Joe' '@a.org,@b.org' 'joe' 'c.org'\n");
    EXPECT_EQ(parse("<@a.org, @b.org : joe@c.org>, x@y"),
              "- '@a.org,@b.org' 'joe' 'c.org'\n- - 'x' 'y'\n");
    // No domain: the empty string, never null (null marks groups).
    EXPECT_EQ(parse("joe"), "- - 'joe' ''\n");
    EXPECT_EQ(parse("<joe>, Ann <>"), "- - 'joe' ''\n'Ann' - '' ''\n");
    EXPECT_EQ(parse("undisclosed recipients"), "- - 'undisclosed recipients' ''\n");
}

TEST(ParseAddr, Groups)
{
    EXPECT_EQ(parse("friends: a@x, \"B, b\" <b@y>;, c@z"),
              "- - 'friends' -\n- - 'a' 'x'\n'B, b' - 'b' 'y'\n- - - -\n- - 'c' 'z'\n");
    EXPECT_EQ(parse("undisclosed-recipients:;"), "- - 'undisclosed-recipients' -\n- - - -\n");
    EXPECT_EQ(parse("Team A : ;"), "- - 'Team A' -\n- - - -\n");
    // A group that isn't closed is closed at the end of the field.
    EXPECT_EQ(parse("team: a@x\r\nCc: b@y"), "- - 'team' -\n- - 'a' 'x'\n- - - -\n");
    // A second ":" inside a group, a ";" outside of one: skipped.
    EXPECT_EQ(parse("g: a@x, h: b@y; ; c@z"),
              "- - 'g' -\n- - 'a' 'x'\n- - 'b' 'y'\n- - - -\n- - 'c' 'z'\n");
}

TEST(ParseAddr, FieldEndsAtAnUnfoldedLineEnd)
{
    const char *hdr =
        " Alice <a@x>,\r\n Bob\r\n\t<b@y>, \"Folded\r\n name\" <c@z>\r\nCc: d@w\r\n\r\nbody e@v\r\n";
    EXPECT_EQ(parse(hdr), "'Alice' - 'a' 'x'\n'Bob' - 'b' 'y'\n'Folded name' - 'c' 'z'\n");
    EXPECT_EQ(parse("a@x\nb@y"), "- - 'a' 'x'\n");
    EXPECT_EQ(parse("a@x,\n b@y\n"), "- - 'a' 'x'\n- - 'b' 'y'\n");
    EXPECT_EQ(parse("\r\n d@w"), "- - 'd' 'w'\n");  // value on the next line
    EXPECT_EQ(parse("\r\nCc: d@w"), "");               // empty field
    // An unclosed quote, comment or bracket ends with the field, too.
    EXPECT_EQ(parse("\"open <a@x>\r\nTo: b@y"), "- - '\"open <a@x>' ''\n");
    EXPECT_EQ(parse("(open a@x\nTo: b@y"), "");
    EXPECT_EQ(parse("<a@x\nTo: b@y"), "- - 'a' 'x'\n");
    EXPECT_EQ(parse("u@[1.2\nTo: b@y"), "- - 'u' '[1.2'\n");
}

TEST(ParseAddr, BrokenInputAndAppending)
{
    EXPECT_EQ(parse(""), "");
    EXPECT_EQ(parse("   \t "), "");
    EXPECT_EQ(parse(",,, ;;; >>> )))"), "");
    EXPECT_EQ(parse("a@x>, <b@y>>"), "- - 'a' 'x'\n- - 'b' 'y'\n");
    EXPECT_EQ(parse("@x"), "- - '' 'x'\n");
    EXPECT_EQ(parse("<@a.org:>"), "- '@a.org' '' ''\n");

    // Records of a second field go behind those of the first.
    address *list = nullptr;
    parseaddr_list("a@x\r\n", &list);
    parseaddr_list("g: b@y;\r\n", &list);
    EXPECT_EQ(render(list), "- - 'a' 'x'\n- - 'g' -\n- - 'b' 'y'\n- - - -\n");
    parseaddr_list(nullptr, &list);
    EXPECT_EQ(render(list), "- - 'a' 'x'\n- - 'g' -\n- - 'b' 'y'\n- - - -\n");
    parseaddr_free(list);
    parseaddr_free(nullptr);

    // Every cut of a tricky field, each in a heap block of its own size,
    // so that a read behind the end shows up under the address sanitizer.
    const std::string tricky =
        "\"Q\\\"x\" (c (n) \\) ) <@r1,@r2:l.p@[d.l]>, g:a@b,(x;\"y\r\n z\";, c <d";
    for (size_t n = 0; n <= tricky.size(); n++) {
        char *cut = (char *)malloc(n + 1);
        memcpy(cut, tricky.data(), n);
        cut[n] = '\0';
        address *l = nullptr;
        parseaddr_list(cut, &l);
        int depth = 0;
        for (address *a = l; a; a = a->next) {
            if (!a->domain) depth += a->mailbox ? 1 : -1;
            EXPECT_TRUE(depth == 0 || depth == 1) << n;
        }
        EXPECT_EQ(depth, 0) << n;
        parseaddr_free(l);
        free(cut);
    }
}

// The header block of each message of a mail file: behind the "From " line
// up to the first empty line.
std::vector<std::string> headers_of(const std::string &mbox)
{
    std::vector<std::string> out;
    size_t pos = 0;
    while ((pos = mbox.find("From ", pos)) != std::string::npos) {
        if (pos != 0 && mbox[pos - 1] != '\n') {
            pos += 5;
            continue;
        }
        size_t start = mbox.find('\n', pos);
        if (start == std::string::npos) break;
        start++;
        size_t end = mbox.find("\n\n", start);
        if (end == std::string::npos) end = mbox.size();
        out.push_back(mbox.substr(start, end + 1 - start));
        pos = end;
    }
    return out;
}

TEST(ParseAddr, CorpusFields)
{
    const char *files[] = {"list-archive.mbox", "kernel-list.mbox", "broken.mbox"};
    int fields = 0, addresses = 0;
    for (const char *f : files) {
        std::string mbox = testutil::read_file(testutil::corpus_path(f));
        ASSERT_FALSE(mbox.empty()) << f;
        std::vector<std::string> hdrs = headers_of(mbox);
        EXPECT_GE(hdrs.size(), 20u) << f;
        for (const std::string &h : hdrs) {
            for (size_t line = 0; line < h.size(); line = h.find('\n', line) + 1) {
                size_t colon;
                if (strncasecmp(h.c_str() + line, "from:", 5) == 0)
                    colon = line + 5;
                else if (strncasecmp(h.c_str() + line, "to:", 3) == 0 ||
                         strncasecmp(h.c_str() + line, "cc:", 3) == 0)
                    colon = line + 3;
                else
                    continue;
                // The text runs to the end of the header, as the message
                // parser hands it over; in a heap block of its own size.
                std::string rest = h.substr(colon);
                char *text = strdup(rest.c_str());
                size_t fieldend = colon;
                while ((fieldend = h.find('\n', fieldend)) != std::string::npos &&
                       fieldend + 1 < h.size() && (h[fieldend + 1] == ' ' || h[fieldend + 1] == '\t'))
                    fieldend++;
                std::string value = h.substr(colon, fieldend - colon);

                address *l = nullptr;
                parseaddr_list(text, &l);
                fields++;
                int ats = 0, count = 0;
                for (char c : value) ats += c == '@';
                for (address *a = l; a; a = a->next) {
                    if (!a->domain) continue;
                    count++;
                    addresses++;
                    ASSERT_NE(a->mailbox, nullptr);
                    for (const char *s : {a->name, a->route, a->mailbox, a->domain})
                        if (s) {
                            EXPECT_EQ(strpbrk(s, "\r\n"), nullptr) << value;
                        }
                    if (a->name) {
                        char *d = charset_decode1522(a->name, nullptr, 0);
                        EXPECT_NE(d, nullptr);
                        free(d);
                    }
                }
                // Nothing of the next header field is taken in: the field
                // cut out here gives the same records.
                EXPECT_EQ(render(l), parse(value.c_str())) << value;
                if (ats > 0) {
                    EXPECT_GE(count, 1) << value;
                }
                parseaddr_free(l);
                free(text);
            }
        }
    }
    EXPECT_GT(fields, 500);
    EXPECT_GT(addresses, 600);
}

}  // namespace
