// Text services: encoded words, character sets, time zones, folder patterns,
// address parsing of header fields (hand-made ones and those of the corpus),
// string, time and memory helpers, and the error table: installation once
// per process and translations read from files, announced before or after
// the table (each case in a child process, where nothing is installed yet).
#include <prerror.h>
#include <random>
#include <strings.h>

#include "support/charset.h"
#include "support/parseaddr.h"
#include "support/storeglob.h"
#include "support/strutil.h"
#include "support/timeutil.h"
#include "support/xmalloc.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

std::string decode(const char *text) { return take(charset_decode1522(text, nullptr, 0)); }

TEST(Decode1522, WordsTextAroundThemAndBrokenWords) {
    struct { const char *in, *out; } cases[] = {
        {"=?latin1?b?5Q==?=", "\xC3\xA5"}, {"=?ISO-8859-1?Q?Peslo=FCan?=", "Peslo\xC3\xBC" "an"},
        {"=?utf-8*de?Q?=C3=A4?=", "\xC3\xA4"},  // language tag
        // Adjacent words are joined, also across a folded line; text between
        // and around words keeps its spaces; a broken word joins with none.
        {"=?utf-8?Q?a?= =?utf-8?Q?b?=\r\n\t=?utf-8?Q?_c?=", "ab c"},
        {"Essai =?iso-8859-1?Q?accentu=E9?= done", "Essai accentu\xC3\xA9 done"},
        {"plain\r\n text\n\tmore", "plain text\tmore"},
        {"=?utf-8?Q?a?= =?bogus-cs?Q?b?= =?utf-8?Q?c?=", "a =?bogus-cs?Q?b?= c"}, {"", ""}, {nullptr, "<null>"},
        {"=?utf-8?Q?x=FFy?=", "x\xEF\xBF\xBDy"},  // invalid in the charset: U+FFFD
    };
    for (const auto &c : cases) EXPECT_EQ(decode(c.in), c.out) << (c.in ? c.in : "null");
    // Unknown charset or encoding, no end, bad base64 or hex, no charset,
    // iconv suffixes: the words stay as they are.
    for (const char *r : {"=?x-no-such-charset?Q?abc?=", "=?utf-8?X?abc?=", "=?utf-8?Q?abc", "=?utf-8?B?###?=",
                          "=?utf-8?Q?a=ZZ?=", "=?utf-8?Q?a=4?=", "=??Q?abc?=", "=?utf-8//IGNORE?Q?abc?=", "=?"})
        EXPECT_EQ(decode(r), r) << r;
    // Into the caller's buffer when the result and its NUL fit, else on the heap.
    char buf[8];
    char *r = charset_decode1522("=?utf-8?Q?12345678?=", buf, sizeof buf);
    EXPECT_TRUE(charset_decode1522("1234567", buf, sizeof buf) == buf && r != buf && take(r) == "12345678");
}

TEST(Charset, NamesLocalTextAndTimeZones) {
    for (const char *n : {"x-unknown", "", (const char *)nullptr}) EXPECT_EQ(charset_lookupname(n), -1);
    struct { const char *in, *cs, *out; } cases[] = {
        {"\xA4", "ISO-8859-15", "\xE2\x82\xAC"},
        // Without a charset: valid UTF-8 is kept, other bytes are Latin-1.
        {"Sent/\xC3\xA4", nullptr, "Sent/\xC3\xA4"}, {"\xC3", nullptr, "\xC3\x83"},  // the latter cut short
        {"\xED\xA0\x80", nullptr, "\xC3\xAD\xC2\xA0\xC2\x80"},  // a surrogate
        // An unknown charset or input invalid in the charset: as without one.
        {"\xE4", "x-no-such", "\xC3\xA4"}, {"\xE4", "utf-8", "\xC3\xA4"}, {nullptr, nullptr, "<null>"},
    };
    for (const auto &c : cases) EXPECT_EQ(take(MCV_LocalToUTF8(c.in, c.cs)), c.out) << (c.cs ? c.cs : "none");
    // Zones as "+hhmm", or "-" when not known: what may follow a name, and
    // numbers that are no zone.
    auto zone = [](const char *z) {
        char sign = 'x', buf[16] = "-";
        int h = -1, m = -1;
        if (MCV_TimeZoneToOffset(z, &sign, &h, &m)) snprintf(buf, sizeof buf, "%c%02d%02d", sign, h, m);
        return std::string(buf);
    };
    struct { const char *zone, *offset; } zones[] = {
        {"-0800", "-0800"},    {"MEZ 2004", "+0100"}, {" BST\r\n", "+0100"}, {"UTC (x)", "+0000"},
        {"XYZ", "-"},          {"ESTX", "-"},         {"+05", "-"},          {"+12345", "-"},
        {"-0popo", "-"},       {"", "-"},             {"2004", "-"},         {"+0099", "-"}};
    for (const auto &z : zones) EXPECT_EQ(zone(z.zone), z.offset) << z.zone;
    EXPECT_EQ(MCV_TimeZoneToOffset(nullptr, nullptr, nullptr, nullptr), 0);
}

// The patterns as the folder name policy uses them: whole names, "*"
// across "/", "%" not.
TEST(Glob, MatchesOfPatterns) {
    std::string as(400, 'a');
    struct { const char *pattern, *text; int want; } cases[] = {
        {"%", "a/b", -1}, {"a%c", "ab/c", -1}, {"*%*", "x/y", 3}, {"", "", 0}, {"", "x", -1},
        {"*//*", "a//b", 4}, {"*/", "a/b", -1}, {"/*", "/a", 2},
        // Many stars against a long text that fails at the very end.
        {"*a*a*a*a*a*a*a*a*b", as.c_str(), -1}, {"*a*a*a*a*a*a*a*a*", as.c_str(), 400},
    };
    for (const auto &c : cases) {
        storeglob *g = glob_init_suppress(c.pattern, 0, nullptr);
        EXPECT_EQ(glob_test(g, c.text, 0, nullptr), c.want) << c.pattern << " " << c.text;
        glob_free(&g);
    }
}

std::string text(int code, PRLanguageCode lang) { return PR_ErrorToString(code, lang); }

void installed_once() {
    EXPECT_EQ(PR_ErrorToName(IMAP_IOERROR), nullptr);
    ASSERT_TRUE(imap_InitializePRErrorTable() == 0 && imap_InitializePRErrorTable() == 0);
    // Every code of the range has a name of its own; the neighbours have none.
    std::set<std::string> names;
    for (int i = 0; i < IMAP_ERR_COUNT; i++) {
        const char *name = PR_ErrorToName(IMAP_ERR_BASE + i);
        EXPECT_TRUE(name && strncmp(name, "IMAP_", 5) == 0 && names.insert(name).second) << i;
    }
    EXPECT_TRUE(!PR_ErrorToName(IMAP_ERR_BASE - 1) && !PR_ErrorToName(IMAP_ERR_BASE + IMAP_ERR_COUNT));
    // A text with a number in it stays a format for the caller.
    char buf[64];
    snprintf(buf, sizeof buf, PR_ErrorToString(IMAP_NO_CLOSEQUOTA, 0), 90);
    EXPECT_NE(strstr(buf, "90%"), nullptr) << buf;
}

void translations(bool table_first) {
    TempDir root;
    std::string dir = root.file("lang");
    ASSERT_EQ(run_command("mkdir -p '" + dir + "/fr' '" + dir + "/es'"), 0);
    write_file(dir + "/fr/imap_err.txt", "# Textes des erreurs\n\nIMAP_IOERROR Erreur E/S\nIMAP_NOT_A_CODE Non\n"
                                         "IMAP_MAILBOX_EXISTS\nIMAP_PERMISSION_DENIED\t  Refus\xc3\xa9\r\n");
    write_file(dir + "/es/imap_err.txt", "IMAP_PERMISSION_DENIED Denegado");
    ASSERT_EQ(table_first ? imap_InitializePRErrorTable() : 0, 0);
    // "de" has no file, the path-like tag is dropped, "en" is built in, a
    // repeated tag counts once; a second announcement changes nothing.
    et_install_language_plugin(root.path().c_str(), "en,fr de;../etc es,fr");
    et_install_language_plugin(root.path().c_str(), "it");
    ASSERT_EQ(table_first ? 0 : imap_InitializePRErrorTable(), 0);
    std::string english = text(IMAP_PERMISSION_DENIED, PR_LANGUAGE_I_DEFAULT), listed;
    for (const char *const *lang = PR_ErrorLanguages(); lang && *lang; lang++) listed += *lang + std::string(" ");
    EXPECT_EQ(listed, "i-default en fr de es ");
    EXPECT_EQ(imap_err_language("it"), PR_LANGUAGE_I_DEFAULT);
    PRLanguageCode fr = imap_err_language("fr"), de = imap_err_language("de"), es = imap_err_language("es");
    EXPECT_EQ(text(IMAP_IOERROR, fr) + "|" + text(IMAP_PERMISSION_DENIED, fr) + "|" + text(IMAP_PERMISSION_DENIED, es),
              "Erreur E/S|Refus\xc3\xa9|Denegado");
    // A code without a translation, a language without a file and one
    // beyond the list fall back to English.
    EXPECT_EQ(text(IMAP_MAILBOX_EXISTS, fr), text(IMAP_MAILBOX_EXISTS, PR_LANGUAGE_I_DEFAULT));
    EXPECT_TRUE(text(IMAP_PERMISSION_DENIED, de) == english && text(IMAP_PERMISSION_DENIED, 9) == english);
    EXPECT_NE(english.rfind("Unknown code", 0), 0u) << english;
}

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
    const std::string mbox = corpus_all();
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
    EXPECT_GT(fields, 500);
}

}  // namespace

TEST(StringHelpers, LowerCaseLeavesEightBitBytes) {
    char mixed[] = "MiXeD \xc3\x84 Case 9";
    EXPECT_STREQ(lcase(mixed), "mixed \xc3\x84 case 9");
}

// mkgmtime agrees with the C library's timegm, also on wildly out-of-range
// fields and with a local zone that has daylight saving, and leaves the
// fields normalised as mtgmtime gives them back.
TEST(TimeHelpers, MkgmtimeNormalisesAsUniversalTime) {
    ScopedTZ tz("America/New_York");
    std::mt19937 rng(7);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (int i = 0; i < 20000; i++) {
        struct tm a = {pick(-200000, 200000), pick(-3000, 3000), pick(-100, 100), pick(-400, 400),
                       pick(-40, 40), pick(1800, 2300) - 1900, 0, 0, -1, 0, nullptr};
        struct tm b = a, back;
        time_t ours = mkgmtime(&a);
        ASSERT_EQ((long long)ours, (long long)timegm(&b)) << "case " << i;
        ASSERT_TRUE(mtgmtime(&ours, &back));
        for (const struct tm *o : {&b, &back})
            ASSERT_TRUE(a.tm_year == o->tm_year && a.tm_mon == o->tm_mon && a.tm_mday == o->tm_mday &&
                        a.tm_hour == o->tm_hour && a.tm_min == o->tm_min && a.tm_sec == o->tm_sec &&
                        a.tm_wday == o->tm_wday && a.tm_yday == o->tm_yday) << "case " << i;
    }
}

typedef int (*convert_fn)(const char *, char *, size_t);

// The result of a conversion into a buffer of the given size, "<error>" if
// it fails.
static std::string conv(convert_fn fn, const std::string &in, size_t size = 1024) {
    std::vector<char> buf(size ? size : 1, 'X');
    return fn(in.c_str(), buf.data(), size) == 0 ? std::string(buf.data()) : "<error>";
}

// Folder names from the command line go through this codec on their way to
// the store: random text of every kind of code point round-trips and comes
// out as printable 7-bit text; broken input on either side is refused.
TEST(ModifiedUtf7, RoundTripsAndRefusals) {
    std::mt19937 rng(20240611);
    auto pick = [&](uint32_t lo, uint32_t hi) { return std::uniform_int_distribution<uint32_t>(lo, hi)(rng); };
    const uint32_t ranges[][2] = {{0x20, 0x7e}, {'&', '&'}, {'-', '-'}, {1, 0x1f}, {0x7f, 0x7f}, {0x80, 0x7ff},
                                  {0x800, 0xd7ff}, {0xe000, 0xffff}, {0x10000, 0x10ffff}};
    for (int n = 0; n < 3000; n++) {
        std::string s;
        for (int i = (int)pick(0, 24); i > 0; i--) {
            const uint32_t *r = ranges[pick(0, 8)];
            uint32_t cp = pick(r[0], r[1]);
            int extra = cp < 0x80 ? 0 : cp < 0x800 ? 1 : cp < 0x10000 ? 2 : 3;
            s += (char)((0xf0e0c000u >> (8 * extra) & 0xff) | (cp >> (6 * extra)));
            for (int k = extra - 1; k >= 0; k--) s += (char)(0x80 | ((cp >> (6 * k)) & 0x3f));
        }
        std::string m = conv(mutf7_fromutf8, s);
        ASSERT_NE(m, "<error>") << "case " << n;
        for (unsigned char c : m) ASSERT_TRUE(c >= 0x20 && c <= 0x7e) << m;
        ASSERT_EQ(conv(mutf7_toutf8, m), s) << m;
    }
    EXPECT_EQ(conv(mutf7_fromutf8, "A&B\xc3\xa9"), "A&-B&AOk-");
    for (const char *b : {"&", "&AOQ", "&AOR-", "&A-", "&AAA-", "&2D0-", "&A/Q-", "\xc3\xa4", "a\tb"})
        EXPECT_EQ(conv(mutf7_toutf8, b), "<error>") << "accepted: " << b;
    for (const char *s : {"\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xff"})
        EXPECT_EQ(conv(mutf7_fromutf8, s), "<error>") << "accepted invalid UTF-8";
    // A result one byte too long for the buffer is refused, not cut.
    EXPECT_EQ(conv(mutf7_fromutf8, "\xc3\xa4", 5), "<error>");
}

TEST(Memory, Exhaustion) {
#if !defined(__SANITIZE_ADDRESS__)
    // An impossible request ends the process with status 75.
    EXPECT_EXIT(free(xmalloc(SIZE_MAX / 2)), ::testing::ExitedWithCode(75), "");
#endif
}

TEST(ImapErr, InstalledOnceAndTranslated) {
    for (int c = 0; c < 3; c++) {
        SCOPED_TRACE(c);
        EXPECT_EQ(in_child([c] {
                      c ? translations(c == 2) : installed_once();
                      return ::testing::Test::HasFailure() ? 1 : 0;
                  }), 0);
    }
}
