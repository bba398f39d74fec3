// The error table: codes, texts, installation and translations.
#include "store/imap_err.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <gtest/gtest.h>
#include <prerror.h>

#include "tests/testutil.h"

namespace {

struct Row {
    int code;
    const char *name;
    const char *text;
};

#define ROW(code, text) {code, #code, text}
// In the order of the table: each code is the one before plus one.
const Row kRows[] = {
    ROW(IMAP_IOERROR, "System I/O error.  Administrator, check server log for details."),
    ROW(IMAP_CONFIG_ERROR, "Configuration error"),
    ROW(IMAP_PERMISSION_DENIED, "Permission denied"),
    ROW(IMAP_QUOTA_EXCEEDED, "Over quota"),
    ROW(IMAP_QUOTA_EXCEEDED_PERSISTENT, "Over quota"),
    ROW(IMAP_MESSAGE_TOO_LARGE, "Message too large"),
    ROW(IMAP_USERFLAG_EXHAUSTED, "Too many keywords in mailbox"),
    ROW(IMAP_MAILBOX_BADFORMAT, "Mailbox has an invalid format"),
    ROW(IMAP_MAILBOX_NOTSUPPORTED, "Operation is not supported on mailbox"),
    ROW(IMAP_MAILBOX_NONEXISTENT, "Mailbox does not exist"),
    ROW(IMAP_WRONG_MAILHOST, "Mailbox is on a different server"),
    ROW(IMAP_MAILBOX_EXISTS, "Mailbox already exists"),
    ROW(IMAP_MAILBOX_BADNAME, "Invalid mailbox name"),
    ROW(IMAP_MAILBOX_LOCKED, "Mailbox is busy"),
    ROW(IMAP_MAILBOXLIST_NONEXISTENT, "Mailbox list does not exist"),
    ROW(IMAP_MAILBOX_EXHAUSTED, "Too many mailboxes"),
    ROW(IMAP_MAILBOX_PINNED, "Mailbox is pinned"),
    ROW(IMAP_PARTITION_UNKNOWN, "Unknown/invalid partition"),
    ROW(IMAP_INVALID_IDENTIFIER, "Invalid identifier"),
    ROW(IMAP_INVALID_MSGNO, "Invalid message number"),
    ROW(IMAP_MESSAGE_CONTAINSNULL, "Message contains NUL characters"),
    ROW(IMAP_MESSAGE_CONTAINSNL, "Message contains bare newlines"),
    ROW(IMAP_MESSAGE_BADHEADER, "Message contains invalid header"),
    ROW(IMAP_MESSAGE_NOBLANKLINE, "Message has no header/body separator"),
    ROW(IMAP_MESSAGE_EXHAUSTED, "Too many messages"),
    ROW(IMAP_QUOTAROOT_NONEXISTENT, "Quota root does not exist"),
    ROW(IMAP_UNRECOGNIZED_CHARSET, "Unrecognized character set"),
    ROW(IMAP_UNRECOGNIZED_LANGUAGE, "Unrecognized language"),
    ROW(IMAP_INVALID_USER, "Invalid user"),
    ROW(IMAP_INVALID_LOGIN, "Login incorrect"),
    ROW(IMAP_ANONYMOUS_NOT_PERMITTED, "Anonymous login is not permitted"),
    ROW(IMAP_USER_NOT_PERMITTED, "User not permitted"),
    ROW(IMAP_TEMP_AUTH_FAILURE, "Authentication server temporarily unavailable"),
    ROW(IMAP_UNSUPPORTED_QUOTA, "Unsupported quota resource"),
    ROW(IMAP_NO_OVERQUOTA, "Mailbox is over quota"),
    ROW(IMAP_NO_CLOSEQUOTA, "Mailbox is at %d%% of quota"),
    ROW(IMAP_NO_MSGGONE, "Message no longer exists"),
    ROW(IMAP_NO_CHECKPERUSER, "Unable to checkpoint per-user flags"),
    ROW(IMAP_NO_CHECKPRESERVE, "Unable to preserve per-user flags"),
    ROW(IMAP_PROXY_UNAVAILABLE, "Server hosting this mailbox is not available"),
    ROW(IMAP_PROXY_ERROR, "Error parsing backend IMAP server response"),
    ROW(IMAP_PROXY_DISCONNECTED, "The backend IMAP server has disconnected"),
    ROW(IMAP_PARTITION_FULL, "Store partition is full"),
    ROW(IMAP_PROXY_ONLY, "Server is not configured for local users"),
    ROW(IMAP_BYE_LOGOUT, "LOGOUT received"),
    ROW(IMAP_BYE_SHUTDOWN, "System shutting down"),
    ROW(IMAP_OK_COMPLETED, "Completed"),
    ROW(IMAP_PREFIX_OTHER, "Shared Folders/User"),
    ROW(IMAP_PREFIX_PUBLIC, "Shared Folders/Public"),
};
#undef ROW

// PR_ErrorToString may hand out one static buffer for unknown codes: copy.
std::string text_of(int code, PRLanguageCode lang = PR_LANGUAGE_I_DEFAULT) {
    return PR_ErrorToString(code, lang);
}

// Checks run in a fresh process, where nothing has been installed yet.
// Each gives 0, or prints what went wrong and gives a number.
#define CHECK_OR_FAIL(cond, n)                                               \
    do {                                                                     \
        if (!(cond)) {                                                       \
            fprintf(stderr, "check failed: %s (line %d)\n", #cond, __LINE__); \
            return n;                                                        \
        }                                                                    \
    } while (0)

// The languages are announced before the table is installed, as at the
// start of the store, or after it.
int translations(bool table_first) {
    testutil::TempDir root;
    std::string dir = root.file("lang");
    if (system(("mkdir -p '" + dir + "/fr' '" + dir + "/es'").c_str()) != 0) return 20;
    testutil::write_file(dir + "/fr/imap_err.txt",
                         "# Textes des erreurs\n"
                         "\n"
                         "IMAP_IOERROR Erreur d'entr\xc3\xa9""e/sortie du syst\xc3\xa8me\n"
                         "IMAP_NO_CLOSEQUOTA\tLa bo\xc3\xaet""e est \xc3\xa0 %d%% du quota\r\n"
                         "IMAP_NOT_A_CODE Ignor\xc3\xa9\n"
                         "IMAP_MAILBOX_EXISTS\n"
                         "IMAP_PERMISSION_DENIED   Permission refus\xc3\xa9""e");
    testutil::write_file(dir + "/es/imap_err.txt", "IMAP_PERMISSION_DENIED Permiso denegado\n");

    if (table_first) CHECK_OR_FAIL(imap_InitializePRErrorTable() == 0, 1);
    // "de" has no file; the path-like tag is ignored; "en" is built in.
    et_install_language_plugin(root.path().c_str(), "en,fr de;../etc es,fr");
    // A second announcement changes nothing.
    et_install_language_plugin(root.path().c_str(), "it");
    if (!table_first) CHECK_OR_FAIL(imap_InitializePRErrorTable() == 0, 2);

    const char *const *langs = PR_ErrorLanguages();
    const char *want[] = {"i-default", "en", "fr", "de", "es"};
    for (int i = 0; i < 5; i++) CHECK_OR_FAIL(langs[i] && strcmp(langs[i], want[i]) == 0, 3);
    CHECK_OR_FAIL(langs[5] == nullptr, 4);
    PRLanguageCode fr = imap_err_language("fr"), de = imap_err_language("de"),
                   es = imap_err_language("es");
    CHECK_OR_FAIL(fr == 2 && de == 3 && es == 4, 5);
    CHECK_OR_FAIL(imap_err_language("it") == PR_LANGUAGE_I_DEFAULT, 6);

    // Without a translation, for a language without a file, and for a
    // code beyond the list: the English text.
    struct { int code; PRLanguageCode lang; const char *text; } texts[] = {
        {IMAP_IOERROR, fr, "Erreur d'entr\xc3\xa9""e/sortie du syst\xc3\xa8me"},
        {IMAP_NO_CLOSEQUOTA, fr, "La bo\xc3\xaet""e est \xc3\xa0 %d%% du quota"},
        {IMAP_PERMISSION_DENIED, fr, "Permission refus\xc3\xa9""e"},
        {IMAP_PERMISSION_DENIED, es, "Permiso denegado"},
        {IMAP_MAILBOX_EXISTS, fr, "Mailbox already exists"},
        {IMAP_IOERROR, de, kRows[0].text},
        {IMAP_IOERROR, es, kRows[0].text},
        {IMAP_PERMISSION_DENIED, PR_LANGUAGE_I_DEFAULT, "Permission denied"},
        {IMAP_PERMISSION_DENIED, PR_LANGUAGE_EN, "Permission denied"},
        {IMAP_PERMISSION_DENIED, 9, "Permission denied"},
    };
    for (int i = 0; i < (int)(sizeof texts / sizeof texts[0]); i++)
        CHECK_OR_FAIL(text_of(texts[i].code, texts[i].lang) == texts[i].text, 10 + i);
    return 0;
}

class ImapErr : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

}  // namespace

TEST_F(ImapErr, UnknownUntilInstalled) {
    EXPECT_EXIT(
        {
            int ok = PR_ErrorToName(IMAP_IOERROR) == nullptr &&
                     text_of(IMAP_IOERROR).rfind("Unknown code", 0) == 0 &&
                     imap_InitializePRErrorTable() == 0 && text_of(IMAP_IOERROR) == kRows[0].text;
            exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(ImapErr, FixedCodesAndEveryTextAfterInstallation) {
    EXPECT_STREQ("imap_err", imap_err_error_table.name);
    EXPECT_EQ((int)0x8E76EA00, imap_err_error_table.base);
    EXPECT_EQ(49, imap_err_error_table.n_msgs);
    ASSERT_EQ(49u, sizeof kRows / sizeof kRows[0]);
    ASSERT_EQ(0, imap_InitializePRErrorTable());
    ASSERT_EQ(0, imap_InitializePRErrorTable());  // harmless a second time
    for (unsigned i = 0; i < 49; i++) {
        const Row &r = kRows[i];
        EXPECT_EQ((int)(0x8E76EA00u + i), r.code) << r.name;
        EXPECT_EQ(std::string(r.text), text_of(r.code)) << r.name;
        EXPECT_EQ(std::string(r.text), text_of(r.code, PR_LANGUAGE_EN)) << r.name;
        const char *name = PR_ErrorToName(r.code);
        ASSERT_NE(nullptr, name);
        EXPECT_STREQ(r.name, name);
    }
    // The neighbours of the table aren't in it.
    EXPECT_EQ(nullptr, PR_ErrorToName(IMAP_IOERROR - 1));
    EXPECT_EQ(nullptr, PR_ErrorToName(IMAP_PREFIX_PUBLIC + 1));
    EXPECT_EQ(0u, text_of(IMAP_PREFIX_PUBLIC + 1).rfind("Unknown code", 0));
    // The format stays a format, for the caller to fill.
    char buf[64];
    snprintf(buf, sizeof buf, PR_ErrorToString(IMAP_NO_CLOSEQUOTA, 0), 90);
    EXPECT_STREQ("Mailbox is at 90% of quota", buf);
}

TEST_F(ImapErr, TranslationsAnnouncedBeforeTheTable) {
    EXPECT_EXIT(exit(translations(false)), ::testing::ExitedWithCode(0), "");
}

TEST_F(ImapErr, TranslationsAnnouncedAfterTheTable) {
    EXPECT_EXIT(exit(translations(true)), ::testing::ExitedWithCode(0), "");
}

TEST_F(ImapErr, OnlyEnglish) {
    EXPECT_EXIT(
        {
            et_install_language_plugin(nullptr, "en");
            imap_InitializePRErrorTable();
            const char *const *langs = PR_ErrorLanguages();
            int ok = strcmp(langs[0], "i-default") == 0 && strcmp(langs[1], "en") == 0 &&
                     langs[2] == nullptr &&
                     text_of(IMAP_MAILBOX_EXISTS, 1) == "Mailbox already exists";
            exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}
