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
std::string render(const address *a) {
    std::string out;
    for (; a; a = a->next)
        out += field(a->name) + " " + field(a->route) + " " + field(a->mailbox) + " " + field(a->domain) + "\n";
    return out;
}

std::string parse(const char *text) {
    address *list = nullptr;
    parseaddr_list(text, &list);
    std::string s = render(list);
    parseaddr_free(list);
    return s;
}

TEST(ParseAddr, HandMadeFields) {
    struct { const char *in, *out; } cases[] = {
        {" Alice <alice@example.org>", "'Alice' - 'alice' 'example.org'\n"},
        {"\"Doe, John\" <j@x.org>, bob@Y.org", "'Doe, John' - 'j' 'x.org'\n- - 'bob' 'Y.org'\n"},
        {"\"a \\\"quoted\\\" \\\\ name\" <q@x>", "'a \"quoted\" \\ name' - 'q' 'x'\n"},
        {"John  Q.  Public <jqp@x>", "'John Q. Public' - 'jqp' 'x'\n"},
        {"\" via RT\" <rt@x>", "' via RT' - 'rt' 'x'\n"},
        {"=?utf-8?Q?Antoine_Beaupr=C3=A9?= <a@o.org>", "'=?utf-8?Q?Antoine_Beaupr=C3=A9?=' - 'a' 'o.org'\n"},
        {"Nicolas de =?iso-8859-1?Q?Peslo=FCan?= <n@x>", "'Nicolas de =?iso-8859-1?Q?Peslo=FCan?=' - 'n' 'x'\n"},
        // Comments: dropped from names, taken as the name when there is none.
        {"John (the (real) one) Smith <js@x>", "'John Smith' - 'js' 'x'\n"},
        {"bob@x.org (Bob (B.) Smith)", "'Bob (B.) Smith' - 'bob' 'x.org'\n"},
        {"(Bob) bob@x.org", "'Bob' - 'bob' 'x.org'\n"},
        {"bob(c)@(d)x.org", "'d' - 'bob' 'x.org'\n"},
        // Local parts and domains as written, white space around dots gone.
        {"\"john doe\"@x.org", "- - '\"john doe\"' 'x.org'\n"},
        {"john . doe @ mail . x.org", "- - 'john.doe' 'mail.x.org'\n"},
        {"u@[192.0.2.1]", "- - 'u' '[192.0.2.1]'\n"},
        {"Joe <@a.org,@b.org:joe@c.org>", "'Joe' '@a.org,@b.org' 'joe' 'c.org'\n"},
        {"<@a.org, @b.org : joe@c.org>, x@y", "- '@a.org,@b.org' 'joe' 'c.org'\n- - 'x' 'y'\n"},
        // No domain: the empty string, never null (null marks groups).
        {"joe", "- - 'joe' ''\n"},
        {"<joe>, Ann <>", "- - 'joe' ''\n'Ann' - '' ''\n"},
        {"undisclosed recipients", "- - 'undisclosed recipients' ''\n"},
        // Groups; one not closed is closed at the end of the field; a
        // second ":" inside a group and a ";" outside of one are skipped.
        {"friends: a@x, \"B, b\" <b@y>;, c@z",
         "- - 'friends' -\n- - 'a' 'x'\n'B, b' - 'b' 'y'\n- - - -\n- - 'c' 'z'\n"},
        {"undisclosed-recipients:;", "- - 'undisclosed-recipients' -\n- - - -\n"},
        {"Team A : ;", "- - 'Team A' -\n- - - -\n"},
        {"team: a@x\r\nCc: b@y", "- - 'team' -\n- - 'a' 'x'\n- - - -\n"},
        {"g: a@x, h: b@y; ; c@z", "- - 'g' -\n- - 'a' 'x'\n- - 'b' 'y'\n- - - -\n- - 'c' 'z'\n"},
        // The field ends at a line end that isn't folded.
        {" Alice <a@x>,\r\n Bob\r\n\t<b@y>, \"Folded\r\n name\" <c@z>\r\nCc: d@w\r\n\r\nbody e@v\r\n",
         "'Alice' - 'a' 'x'\n'Bob' - 'b' 'y'\n'Folded name' - 'c' 'z'\n"},
        {"a@x\nb@y", "- - 'a' 'x'\n"},
        {"a@x,\n b@y\n", "- - 'a' 'x'\n- - 'b' 'y'\n"},
        {"\r\n d@w", "- - 'd' 'w'\n"},  // value on the next line
        {"\r\nCc: d@w", ""},           // empty field
        // An unclosed quote, comment or bracket ends with the field, too.
        {"\"open <a@x>\r\nTo: b@y", "- - '\"open <a@x>' ''\n"},
        {"(open a@x\nTo: b@y", ""},
        {"<a@x\nTo: b@y", "- - 'a' 'x'\n"},
        {"u@[1.2\nTo: b@y", "- - 'u' '[1.2'\n"},
        // Broken input.
        {"", ""}, {"   \t ", ""}, {",,, ;;; >>> )))", ""},
        {"a@x>, <b@y>>", "- - 'a' 'x'\n- - 'b' 'y'\n"},
        {"@x", "- - '' 'x'\n"},
        {"<@a.org:>", "- '@a.org' '' ''\n"},
    };
    for (const auto &c : cases) EXPECT_EQ(parse(c.in), c.out) << c.in;

    // Records of a second field go behind those of the first.
    address *list = nullptr;
    parseaddr_list("a@x\r\n", &list);
    parseaddr_list("g: b@y;\r\n", &list);
    parseaddr_list(nullptr, &list);
    EXPECT_EQ(render(list), "- - 'a' 'x'\n- - 'g' -\n- - 'b' 'y'\n- - - -\n");
    parseaddr_free(list);
    parseaddr_free(nullptr);

    // Every cut of a tricky field, each in a heap block of its own size
    // (a read behind the end shows up under the address sanitizer); groups
    // open and close in pairs.
    const std::string tricky = "\"Q\\\"x\" (c (n) \\) ) <@r1,@r2:l.p@[d.l]>, g:a@b,(x;\"y\r\n z\";, c <d";
    for (size_t n = 0; n <= tricky.size(); n++) {
        char *cut = strndup(tricky.data(), n);
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

// Each From, To and Cc field of the header blocks of the corpus, handed
// over with the rest of the header behind it as the message parser does.
TEST(ParseAddr, CorpusFields) {
    int fields = 0, addresses = 0;
    for (const char *f : {"list-archive.mbox", "kernel-list.mbox", "broken.mbox"}) {
        std::string mbox = testutil::read_file(testutil::corpus_path(f));
        ASSERT_FALSE(mbox.empty()) << f;
        int headers = 0;
        for (size_t pos = 0; (pos = mbox.find("From ", pos)) != std::string::npos; pos += 5) {
            if (pos != 0 && mbox[pos - 1] != '\n') continue;
            size_t start = mbox.find('\n', pos);
            if (start == std::string::npos) break;
            size_t end = mbox.find("\n\n", ++start);
            std::string h = mbox.substr(start, end == std::string::npos ? std::string::npos : end + 1 - start);
            headers++;
            for (size_t line = 0; line < h.size(); line = h.find('\n', line) + 1) {
                size_t colon = 0;
                for (const char *name : {"from:", "to:", "cc:"})
                    if (strncasecmp(h.c_str() + line, name, strlen(name)) == 0) colon = line + strlen(name);
                if (!colon) continue;
                size_t fieldend = colon;
                while ((fieldend = h.find('\n', fieldend)) != std::string::npos && fieldend + 1 < h.size() &&
                       (h[fieldend + 1] == ' ' || h[fieldend + 1] == '\t'))
                    fieldend++;
                std::string value = h.substr(colon, fieldend - colon);
                char *text = strdup(h.c_str() + colon);  // a heap block of its own size
                address *l = nullptr;
                parseaddr_list(text, &l);
                fields++;
                int count = 0;
                for (address *a = l; a; a = a->next) {
                    if (!a->domain) continue;
                    count++;
                    ASSERT_NE(a->mailbox, nullptr);
                    for (const char *s : {a->name, a->route, a->mailbox, a->domain})
                        EXPECT_TRUE(!s || !strpbrk(s, "\r\n")) << value;
                    EXPECT_TRUE(!a->name || testutil::take(charset_decode1522(a->name, nullptr, 0)) != "<null>");
                }
                addresses += count;
                // Nothing of the next header field is taken in: the field
                // cut out here gives the same records.
                EXPECT_EQ(render(l), parse(value.c_str())) << value;
                EXPECT_TRUE(count > 0 || value.find('@') == std::string::npos) << value;
                parseaddr_free(l);
                free(text);
            }
        }
        EXPECT_GE(headers, 20) << f;
    }
    EXPECT_GT(fields, 500);
    EXPECT_GT(addresses, 600);
}

}  // namespace
