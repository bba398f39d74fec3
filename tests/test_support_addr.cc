// Address parsing of header fields, on hand-made fields and on the From,
// To and Cc fields of the corpus.
#include <strings.h>

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

// Parses text (a heap block of its own size, so that a read behind its end
// shows under the address sanitizer); the records, and how many groups
// stayed open (a group record has a null domain: mailbox set opens it,
// null closes it).
std::string parse(const char *text, int *openGroups = nullptr) {
    char *copy = text ? strdup(text) : nullptr;
    address *list = nullptr;
    parseaddr_list(copy, &list);
    std::string s = render(list);
    int depth = 0;
    for (address *a = list; a; a = a->next)
        if (!a->domain) depth += a->mailbox ? 1 : -1;
    if (openGroups) *openGroups = depth;
    parseaddr_free(list);
    free(copy);
    return s;
}

TEST(ParseAddr, HandMadeFields) {
    struct { const char *in, *out; } cases[] = {
        {"\"Doe, John\" <j@x.org>, bob@Y.org", "'Doe, John' - 'j' 'x.org'\n- - 'bob' 'Y.org'\n"},
        {"\"a \\\"quoted\\\" \\\\ name\" <q@x>", "'a \"quoted\" \\ name' - 'q' 'x'\n"},
        // Comments: dropped from names, taken as the name when there is none.
        {"John (the (real) one) Smith <js@x>", "'John Smith' - 'js' 'x'\n"},
        {"bob@x.org (Bob (B.) Smith)", "'Bob (B.) Smith' - 'bob' 'x.org'\n"}, {"bob(c)@(d)x.org", "'d' - 'bob' 'x.org'\n"},
        // Local parts and domains as written, white space around dots gone.
        {"\"john doe\"@x.org", "- - '\"john doe\"' 'x.org'\n"}, {"u@[192.0.2.1]", "- - 'u' '[192.0.2.1]'\n"},
        {"john . doe @ mail . x.org", "- - 'john.doe' 'mail.x.org'\n"},
        {"<@a.org, @b.org : joe@c.org>, x@y", "- '@a.org,@b.org' 'joe' 'c.org'\n- - 'x' 'y'\n"},
        // No domain: the empty string, never null (null marks groups).
        {"<joe>, Ann <>", "- - 'joe' ''\n'Ann' - '' ''\n"}, {"undisclosed recipients", "- - 'undisclosed recipients' ''\n"},
        // Groups; one not closed is closed at the end of the field; a
        // second ":" inside a group and a ";" outside of one are skipped.
        {"friends: a@x, \"B, b\" <b@y>;, c@z",
         "- - 'friends' -\n- - 'a' 'x'\n'B, b' - 'b' 'y'\n- - - -\n- - 'c' 'z'\n"},
        {"Team A : ;", "- - 'Team A' -\n- - - -\n"}, {"team: a@x\r\nCc: b@y", "- - 'team' -\n- - 'a' 'x'\n- - - -\n"},
        {"g: a@x, h: b@y; ; c@z", "- - 'g' -\n- - 'a' 'x'\n- - 'b' 'y'\n- - - -\n- - 'c' 'z'\n"},
        // The field ends at a line end that isn't folded.
        {" Alice <a@x>,\r\n Bob\r\n\t<b@y>, \"Folded\r\n name\" <c@z>\r\nCc: d@w\r\n\r\nbody e@v\r\n",
         "'Alice' - 'a' 'x'\n'Bob' - 'b' 'y'\n'Folded name' - 'c' 'z'\n"},
        {"a@x\nb@y", "- - 'a' 'x'\n"}, {"\r\n d@w", "- - 'd' 'w'\n"}, {"\r\nCc: d@w", ""},
        // An unclosed quote, comment or bracket ends with the field, too.
        {"\"open <a@x>\r\nTo: b@y", "- - '\"open <a@x>' ''\n"}, {"(open a@x\nTo: b@y", ""},
        {"<a@x\nTo: b@y", "- - 'a' 'x'\n"}, {"u@[1.2\nTo: b@y", "- - 'u' '[1.2'\n"},
        // Broken input.
        {"", ""}, {",,, ;;; >>> )))", ""}, {"a@x>, <b@y>>", "- - 'a' 'x'\n- - 'b' 'y'\n"},
        {"@x", "- - '' 'x'\n"}, {"<@a.org:>", "- '@a.org' '' ''\n"},
    };
    for (const auto &c : cases) EXPECT_EQ(parse(c.in), c.out) << c.in;

    // Records of a second field go behind those of the first.
    address *list = nullptr;
    for (const char *f : {"a@x\r\n", "g: b@y;\r\n", (const char *)nullptr}) parseaddr_list(f, &list);
    EXPECT_EQ(render(list), "- - 'a' 'x'\n- - 'g' -\n- - 'b' 'y'\n- - - -\n");
    parseaddr_free(list);

    // Every cut of a tricky field: groups open and close in pairs.
    const std::string tricky = "\"Q\\\"x\" (c (n) \\) ) <@r1,@r2:l.p@[d.l]>, g:a@b,(x;\"y\r\n z\";, c <d";
    int open = -1;
    for (size_t n = 0; n <= tricky.size(); n++) {
        parse(tricky.substr(0, n).c_str(), &open);
        EXPECT_EQ(open, 0) << n;
    }
}

// Each From, To and Cc field of the corpus, handed over with the rest of
// the header behind it as the message parser does: nothing of the next
// field is taken in, so the field cut out alone gives the same records.
TEST(ParseAddr, CorpusFields) {
    int fields = 0;
    for (const char *f : {"list-archive.mbox", "kernel-list.mbox", "broken.mbox"}) {
        std::string mbox = testutil::read_file(testutil::corpus_path(f));
        ASSERT_FALSE(mbox.empty()) << f;
        for (size_t line = 0, next; line < mbox.size(); line = next) {
            next = mbox.find('\n', line);
            next = next == std::string::npos ? mbox.size() : next + 1;
            size_t colon = 0, headerEnd = mbox.find("\n\n", line), end;
            for (const char *name : {"from:", "to:", "cc:"})
                if (strncasecmp(mbox.c_str() + line, name, strlen(name)) == 0) colon = line + strlen(name);
            if (!colon || headerEnd == std::string::npos) continue;
            for (end = colon; (end = mbox.find('\n', end)) < headerEnd && (mbox[end + 1] == ' ' || mbox[end + 1] == '\t');)
                end++;
            std::string value = mbox.substr(colon, end - colon);
            int open = -1;
            std::string records = parse(mbox.substr(colon, headerEnd + 1 - colon).c_str(), &open);
            fields++;
            EXPECT_EQ(records, parse(value.c_str())) << value;
            EXPECT_EQ(open, 0) << value;
            EXPECT_EQ(records.find('\r'), std::string::npos) << value;
            EXPECT_TRUE(records != "" || value.find('@') == std::string::npos) << value;
        }
    }
    EXPECT_GT(fields, 500);
}

}  // namespace
