// The messages that the store writes itself: templates decoded and
// expanded, the header completed, the date in the local zone, the language
// of the template chosen from the configuration, the text in the charset of
// that language, and the message delivered into a real folder, on its own
// or inside an append session that the caller holds.
#include "store/append.h"
#include "store/autocreate.h"
#include "store/mboxlist_create.h"
#include "support/charset.h"
#include "support/timeutil.h"
#include "tests/testutil.h"

namespace {

using namespace testutil;

const char kConfig[] = "local.hostname: mail.example.org\ngen.accounturl: http://x/\nstore.quotawarn: 85\n"
                       "gen.newuserforms: Subject: Welcome$$Hello [ID]\n"
                       "gen.newuserforms.de: Subject: Willkommen$$Gr\xC3\xBC\xC3\x9F" "e [ID]\n";
const char kDateRe[] = "^Date: (Mon|Tue|Wed|Thu|Fri|Sat|Sun), [1-9][0-9]? [A-Z][a-z]{2} [0-9]{4} "
                       "[0-9]{2}:[0-9]{2}:[0-9]{2} [+-][0-9]{4}\r$";
// The headers that a template without any of them gets, for fred with a
// mail address, "Date: D" standing for the date.
const std::string kAdded = "To: fred@example.org\r\nDate: D\r\nFrom: Mail Administrator "
                           "<Postmaster@mail.example.org>\r\nMIME-Version: 1.0\r\n";
const std::string kAscii = "Content-Type: text/plain; charset=us-ascii\r\nContent-Transfer-Encoding: 7bit\r\n";

// A message with the value of its first Date line (which must be a good
// date of now's kind) replaced by "D"; "<bad date>" when it isn't.
std::string masked(const std::string &msg) {
    size_t at = msg.find("Date: "), end = msg.find('\n', at);
    if (at == std::string::npos || end == std::string::npos) return msg;
    if (!matches(kDateRe, msg.substr(at, end - at))) return "<bad date>";
    return msg.substr(0, at) + "Date: D\r" + msg.substr(end);
}

std::string parse(const char *tmpl, const quotadata *q = nullptr, const char *user = "fred") {
    return masked(take(ParseMsg(user, "fred@example.org", tmpl, nullptr, q)));
}

class Greeting : public StoreTest {
  protected:
    Greeting() : StoreTest(kConfig) {}
    void SetUp() override {
        StoreTest::SetUp();
        ASSERT_EQ(mboxlist_createmailbox("user/fred", MAILBOX_VERSION, nullptr, "fred", auth_dontCheckAcl,
                                         QUOTA_UNLIMITED, QUOTA_UNLIMITED, 0, nullptr), 0);
    }
    void TearDown() override { mailbox_close(&mb), StoreTest::TearDown(); }
    // The files of fred's inbox from uid first on, with their dates masked.
    std::vector<std::string> stored(unsigned first = 1) {
        mailbox_close(&mb);
        EXPECT_EQ(mailbox_open("user/fred", 0, auth_dontCheckAcl, &mb), 0);
        std::vector<std::string> out;
        for (unsigned uid = first; uid <= mb.mbd.last_uid; uid++)
            out.push_back(masked(read_file(message_file(mb, uid))));
        return out;
    }
    mailbox mb = zeromailbox;
};

}  // namespace

TEST(GreetingTemplate, DecodingOfEscapes) {
    struct { const char *in, *out; } cases[] = {
        {"a$b$", "a\r\nb\r\n"}, {"\\24x\\4a\\4A", "$xJJ"}, {"\\zz\\2", "\\zz\\2"}, {"x\\", "x\\"},
        {"\\g1", "\\g1"}, {"\\00a", "a"}, {"", ""}, {nullptr, "<null>"}};
    for (const auto &c : cases) EXPECT_EQ(take(DecodeMultiLineMsg(c.in)), c.out) << str(c.in);
}

// The zone from the local and the universal clock: west and east of
// Universal Time, across the change of date and year, with daylight saving
// from a zone file, and in half hours.
TEST(GreetingTemplate, DateInTheLocalZone) {
    struct { const char *tz; int y, mon, d, h, m; const char *want; } cases[] = {
        {"EST5", 2003, 1, 4, 3, 0, "Fri, 3 Jan 2003 22:00:00 -0500"},
        {":America/New_York", 2003, 7, 4, 2, 0, "Thu, 3 Jul 2003 22:00:00 -0400"},
        {"JST-9", 2003, 12, 31, 23, 5, "Thu, 1 Jan 2004 08:05:00 +0900"},
        {"XST-5:30", 2004, 2, 10, 20, 0, "Wed, 11 Feb 2004 01:30:00 +0530"},
        {"UTC0", 2004, 2, 29, 12, 0, "Sun, 29 Feb 2004 12:00:00 +0000"}};
    for (const auto &c : cases) {
        ScopedTZ tz(c.tz);
        struct tm u = {0, c.m, c.h, c.d, c.mon - 1, c.y - 1900, 0, 0, 0, 0, nullptr};
        char buf[64];
        EXPECT_EQ(str(GetRFC822Date(buf, mkgmtime(&u))), c.want) << c.tz;
    }
    EXPECT_EQ(GetRFC822Date(nullptr, 0), nullptr);
}

TEST_F(Greeting, HeaderRulesAndPlaceholders) {
    const std::string tail = "From: Mail Administrator <Postmaster@mail.example.org>\r\nMIME-Version: 1.0\r\n";
    struct { const char *tmpl, *want; } cases[] = {
        {"Subject: Hi$$Welcome [ID]", "Subject: Hi\r\n{added}{ascii}\r\nWelcome fred"},
        // A To line of its own is the user's; a later one and a Subject stay.
        {"To: x@y$Subject: [ID]$to: z$$b", "To: fred\r\nSubject: [ID]\r\nto: z\r\nDate: D\r\n{tail}{ascii}\r\nb"},
        // The line with a space before any colon ends the header and is body.
        {"Subject: Hi$Dear user$second line", "Subject: Hi\r\n{added}{ascii}\r\nDear user\r\nsecond line"},
        // One line of neither space nor colon is header; a tab stays; a dollar.
        {"X-Flag$Subject:\tt$$Cost: \\24 5$", "X-Flag\r\nSubject:\tt\r\n{added}{ascii}\r\nCost: $ 5\r\n"},
        {"From: Boss <b@x>$Date: never$$x", "From: Boss <b@x>\r\nDate: D\r\nTo: fred@example.org\r\n"
                                            "MIME-Version: 1.0\r\n{ascii}\r\nx"},
        // A header alone has no content headers; one without an end is refused.
        {"Subject: Hi$", "Subject: Hi\r\n{added}\r\n"}, {"Subject: Hi$$", "Subject: Hi\r\n{added}{ascii}\r\n"},
        {"Subject: Hi", "<null>"}, {"Subject: Hi$X: y", "<null>"}};
    for (const auto &c : cases) {
        std::string want = c.want;
        for (auto [key, text] : {std::pair{"{added}", kAdded}, {"{ascii}", kAscii}, {"{tail}", tail}})
            for (size_t at; (at = want.find(key)) != std::string::npos;) want.replace(at, strlen(key), text);
        EXPECT_EQ(parse(c.tmpl), want) << c.tmpl;
    }
    // Placeholders, exact and in upper case only; usage beyond 32 bits of
    // kilobytes is the largest number.
    const char *tmpl = "S: x$$[URL] [ID] [DISKUSAGE] [NUMMSG] [PERCENT] [QUOTA] [MSGQUOTA] [id] [X] [ID";
    struct { quotadata q; const char *want; } quotas[] = {
        {{QUOTA_UNLIMITED, 1536, 0, 0, 0, 0, 0, 0, 0, QUOTA_UNLIMITED, 7, 0, 0, 0},
         "http://x/ fred 1KB 7 85% no limit no limit [id] [X] [ID"},
        {{2048, 0, 2, 0, 0, 0, 0, 0, 0, 500, 0, 0, 0, 0}, "http://x/ fred 8388608KB 0 85% 2048KB 500 [id] [X] [ID"},
        {{1, 1023, 0x400, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, "http://x/ fred 4294967295KB 0 85% 1KB 0 [id] [X] [ID"}};
    for (const auto &q : quotas) {
        std::string got = parse(tmpl, &q.q);
        EXPECT_EQ(got.substr(got.find("\r\n\r\n") + 4), q.want);
    }
    // Many long expansions outgrow the first estimate of the output.
    std::string user(500, 'u'), many = "S: x$$", want;
    for (int i = 0; i < 300; i++) many += "[ID]$", want += user + "\r\n";
    std::string got = parse(many.c_str(), nullptr, user.c_str());
    EXPECT_EQ(got.substr(got.find("\r\n\r\n") + 4), want);
}

// Each template delivered by itself: the stored message has the header and
// the body in the charset of the language, or in UTF-8 where that charset
// lacks a character. Failures deliver nothing.
TEST_F(Greeting, DeliveredInTheCharsetOfTheLanguage) {
    // Japanese, Russian and Korean as the same two characters in subject and body.
    const std::string ja = "\xE6\x97\xA5\xE6\x9C\xAC", ru = "\xD0\x9F\xD1\x80\xD0\xB8", ko = "\xEC\x95\x88\xEB\x85\x95";
    const std::string qp = "quoted-printable\r\n\r\n";
    struct { const char *lang; std::string tmpl, subject, charset, body; } cases[] = {
        {"DE-ch", "Subject: Gr\xC3\xBC\xC3\x9F" "e$$Sch\xC3\xB6ne Gr\xC3\xBC\xC3\x9F" "e, [ID]",
         "=?iso-8859-1?Q?Gr=FC=DFe?=", "iso-8859-1", qp + "Sch=F6ne Gr=FC=DFe, fred"},
        {"ja", "Subject: " + ja + "$$" + ja + " [ID]$", "=?iso-2022-jp?B?GyRCRnxLXBsoQg==?=", "iso-2022-jp",
         "7bit\r\n\r\n\x1B$BF|K\\\x1B(B fred\r\n"},
        {"ru", "Subject: " + ru + "$$" + ru, "=?koi8-r?B?8NLJ?=", "koi8-r", qp + "=F0=D2=C9"},
        {"ko", "Subject: " + ko + "$$" + ko, "=?euc-kr?B?vsiz5w==?=", "euc-kr", "base64\r\n\r\nvsiz5w==\r\n"},
        {"de", "Subject: 5 \xE2\x82\xAC$$5 \xE2\x82\xAC", "5 =?utf-8?Q?=E2=82=AC?=", "utf-8", qp + "5 =E2=82=AC"},
        {nullptr, "Subject: Hi$$x", "Hi", "us-ascii", "7bit\r\n\r\nx"}};
    for (const auto &c : cases)
        EXPECT_EQ(CreateMessage_from_text("fred", "user/fred", "fred@example.org", c.lang, c.tmpl.c_str(), nullptr,
                                          nullptr), 0) << c.tmpl;
    std::vector<std::string> got = stored();
    ASSERT_EQ(got.size(), std::size(cases));
    for (size_t i = 0; i < got.size(); i++)
        EXPECT_EQ(got[i], "Subject: " + cases[i].subject + "\r\n" + kAdded + "Content-Type: text/plain; charset=" +
                              cases[i].charset + "\r\nContent-Transfer-Encoding: " + cases[i].body) << i;
    for (const char *bad : {"", "Subject: Hi", "Subject: Hi$$"})
        EXPECT_EQ(CreateMessage_from_text("fred", "user/fred", nullptr, nullptr, bad, nullptr, nullptr), -1) << bad;
    EXPECT_EQ(CreateMessage_from_text("fred", "user/nobody", nullptr, nullptr, "S: x$$y", nullptr, nullptr),
              IMAP_MAILBOX_NONEXISTENT);
    EXPECT_EQ(stored().size(), std::size(cases));
    std::string log = inst.newLog();
    for (const char *line : {"Incomplete message", "Failed to parse message for fred. Please check (lang=[NONE])",
                             "Failed to convert message for fred (lang=[NONE]).",
                             "Unable to deliver message to fred: "})
        EXPECT_NE(log.find(line), std::string::npos) << line;
}

// Long header values become several encoded words of at most 75 bytes, each
// of which decodes on its own (a word of a stateful charset ends in its
// initial state) to its piece of the value.
TEST(GreetingTemplate, LongHeaderValuesInEncodedWords) {
    std::string de = "\xC3\xBC", ja;
    for (int i = 0; i < 40; i++) de += " \xC3\xBC", ja += "\xE6\x97\xA5";
    for (auto [lang, value, charset] :
         {std::tuple{"de", de, "iso-8859-1"}, {"ja", ja, "iso-2022-jp"}, {"ru", de, "utf-8"}}) {
        std::vector<char> buf(MCV_UTF8ToInternetMessageHeader(lang, value.c_str(), nullptr, -1) + 1);
        ASSERT_GT(MCV_UTF8ToInternetMessageHeader(lang, value.c_str(), buf.data(), (int)buf.size()), 0);
        std::string enc = buf.data(), joined, prefix = "=?" + std::string(charset) + "?";
        int count = 0;
        for (size_t at = 0, sp; at <= enc.size(); at = sp + 1, count++) {
            sp = std::min(enc.find(' ', at), enc.size());
            std::string word = enc.substr(at, sp - at);
            EXPECT_TRUE(word.size() <= 75 && word.rfind(prefix, 0) == 0) << word;
            joined += take(charset_decode1522(word.c_str(), nullptr, 0));
        }
        EXPECT_TRUE(count > 1 && joined == value) << lang << ": " << enc;
    }
}

// The template of the user's language where the configuration has one,
// else the plain one; a key without any template delivers nothing. A
// message inside an append session that the caller holds goes with the caller's own.
TEST_F(Greeting, LanguageChoiceAndTheCallersSession) {
    quotadata q = {};
    struct { const char *lang; const char *subject; } cases[] = {
        {"de", "Subject: Willkommen\r\n"}, {"fr", "Subject: Welcome\r\n"}, {nullptr, "Subject: Welcome\r\n"}};
    for (const auto &c : cases)
        EXPECT_EQ(CreateMessage("fred", "user/fred", nullptr, c.lang, "gen.newuserforms", nullptr, &q), 0);
    EXPECT_EQ(CreateMessage("fred", "user/fred", nullptr, "de", "store.quotaexceededmsg", nullptr, &q), -1);
    std::vector<std::string> got = stored();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0], "Subject: Willkommen\r\nTo: fred\r\nDate: D\r\n" + kAdded.substr(kAdded.find("From:")) +
                          "Content-Type: text/plain; charset=iso-8859-1\r\n"
                          "Content-Transfer-Encoding: quoted-printable\r\n\r\nGr=FC=DFe fred");
    for (size_t i = 1; i < 3; i++) EXPECT_EQ(got[i].rfind(cases[i].subject, 0), 0u) << got[i];
    EXPECT_NE(got[1].find("charset=us-ascii"), std::string::npos);
    mailbox_close(&mb);
    append_state as;
    as.mailbox = &mb;
    ASSERT_EQ(append_setup(&as, "user/fred", 0, MAILBOX_VERSION, auth_dontCheckAcl, 0, 0), 0);
    EXPECT_EQ(CreateMessage("fred", "user/other", "fred@example.org", nullptr, "gen.newuserforms", &as, &q), 0);
    const std::string own = "Subject: own\r\n\r\nx";
    EXPECT_EQ(append_fromstring(&as, own.data(), (unsigned)own.size(), 1000, nullptr, 0, "fred", nullptr), 0);
    append_finish(&as);
    got = stored(4);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], "Subject: Welcome\r\n" + kAdded + kAscii + "\r\nHello fred");
    EXPECT_EQ(got[1], own);
}
