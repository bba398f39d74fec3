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
    unsigned int hex;
    const char *name;
    const char *text;
};

const Row kRows[] = {
    {IMAP_IOERROR, 0x8E76EA00, "IMAP_IOERROR",
     "System I/O error.  Administrator, check server log for details."},
    {IMAP_CONFIG_ERROR, 0x8E76EA01, "IMAP_CONFIG_ERROR", "Configuration error"},
    {IMAP_PERMISSION_DENIED, 0x8E76EA02, "IMAP_PERMISSION_DENIED", "Permission denied"},
    {IMAP_QUOTA_EXCEEDED, 0x8E76EA03, "IMAP_QUOTA_EXCEEDED", "Over quota"},
    {IMAP_QUOTA_EXCEEDED_PERSISTENT, 0x8E76EA04, "IMAP_QUOTA_EXCEEDED_PERSISTENT", "Over quota"},
    {IMAP_MESSAGE_TOO_LARGE, 0x8E76EA05, "IMAP_MESSAGE_TOO_LARGE", "Message too large"},
    {IMAP_USERFLAG_EXHAUSTED, 0x8E76EA06, "IMAP_USERFLAG_EXHAUSTED", "Too many keywords in mailbox"},
    {IMAP_MAILBOX_BADFORMAT, 0x8E76EA07, "IMAP_MAILBOX_BADFORMAT", "Mailbox has an invalid format"},
    {IMAP_MAILBOX_NOTSUPPORTED, 0x8E76EA08, "IMAP_MAILBOX_NOTSUPPORTED",
     "Operation is not supported on mailbox"},
    {IMAP_MAILBOX_NONEXISTENT, 0x8E76EA09, "IMAP_MAILBOX_NONEXISTENT", "Mailbox does not exist"},
    {IMAP_WRONG_MAILHOST, 0x8E76EA0A, "IMAP_WRONG_MAILHOST", "Mailbox is on a different server"},
    {IMAP_MAILBOX_EXISTS, 0x8E76EA0B, "IMAP_MAILBOX_EXISTS", "Mailbox already exists"},
    {IMAP_MAILBOX_BADNAME, 0x8E76EA0C, "IMAP_MAILBOX_BADNAME", "Invalid mailbox name"},
    {IMAP_MAILBOX_LOCKED, 0x8E76EA0D, "IMAP_MAILBOX_LOCKED", "Mailbox is busy"},
    {IMAP_MAILBOXLIST_NONEXISTENT, 0x8E76EA0E, "IMAP_MAILBOXLIST_NONEXISTENT",
     "Mailbox list does not exist"},
    {IMAP_MAILBOX_EXHAUSTED, 0x8E76EA0F, "IMAP_MAILBOX_EXHAUSTED", "Too many mailboxes"},
    {IMAP_MAILBOX_PINNED, 0x8E76EA10, "IMAP_MAILBOX_PINNED", "Mailbox is pinned"},
    {IMAP_PARTITION_UNKNOWN, 0x8E76EA11, "IMAP_PARTITION_UNKNOWN", "Unknown/invalid partition"},
    {IMAP_INVALID_IDENTIFIER, 0x8E76EA12, "IMAP_INVALID_IDENTIFIER", "Invalid identifier"},
    {IMAP_INVALID_MSGNO, 0x8E76EA13, "IMAP_INVALID_MSGNO", "Invalid message number"},
    {IMAP_MESSAGE_CONTAINSNULL, 0x8E76EA14, "IMAP_MESSAGE_CONTAINSNULL",
     "Message contains NUL characters"},
    {IMAP_MESSAGE_CONTAINSNL, 0x8E76EA15, "IMAP_MESSAGE_CONTAINSNL", "Message contains bare newlines"},
    {IMAP_MESSAGE_BADHEADER, 0x8E76EA16, "IMAP_MESSAGE_BADHEADER", "Message contains invalid header"},
    {IMAP_MESSAGE_NOBLANKLINE, 0x8E76EA17, "IMAP_MESSAGE_NOBLANKLINE",
     "Message has no header/body separator"},
    {IMAP_MESSAGE_EXHAUSTED, 0x8E76EA18, "IMAP_MESSAGE_EXHAUSTED", "Too many messages"},
    {IMAP_QUOTAROOT_NONEXISTENT, 0x8E76EA19, "IMAP_QUOTAROOT_NONEXISTENT", "Quota root does not exist"},
    {IMAP_UNRECOGNIZED_CHARSET, 0x8E76EA1A, "IMAP_UNRECOGNIZED_CHARSET", "Unrecognized character set"},
    {IMAP_UNRECOGNIZED_LANGUAGE, 0x8E76EA1B, "IMAP_UNRECOGNIZED_LANGUAGE", "Unrecognized language"},
    {IMAP_INVALID_USER, 0x8E76EA1C, "IMAP_INVALID_USER", "Invalid user"},
    {IMAP_INVALID_LOGIN, 0x8E76EA1D, "IMAP_INVALID_LOGIN", "Login incorrect"},
    {IMAP_ANONYMOUS_NOT_PERMITTED, 0x8E76EA1E, "IMAP_ANONYMOUS_NOT_PERMITTED",
     "Anonymous login is not permitted"},
    {IMAP_USER_NOT_PERMITTED, 0x8E76EA1F, "IMAP_USER_NOT_PERMITTED", "User not permitted"},
    {IMAP_TEMP_AUTH_FAILURE, 0x8E76EA20, "IMAP_TEMP_AUTH_FAILURE",
     "Authentication server temporarily unavailable"},
    {IMAP_UNSUPPORTED_QUOTA, 0x8E76EA21, "IMAP_UNSUPPORTED_QUOTA", "Unsupported quota resource"},
    {IMAP_NO_OVERQUOTA, 0x8E76EA22, "IMAP_NO_OVERQUOTA", "Mailbox is over quota"},
    {IMAP_NO_CLOSEQUOTA, 0x8E76EA23, "IMAP_NO_CLOSEQUOTA", "Mailbox is at %d%% of quota"},
    {IMAP_NO_MSGGONE, 0x8E76EA24, "IMAP_NO_MSGGONE", "Message no longer exists"},
    {IMAP_NO_CHECKPERUSER, 0x8E76EA25, "IMAP_NO_CHECKPERUSER", "Unable to checkpoint per-user flags"},
    {IMAP_NO_CHECKPRESERVE, 0x8E76EA26, "IMAP_NO_CHECKPRESERVE", "Unable to preserve per-user flags"},
    {IMAP_PROXY_UNAVAILABLE, 0x8E76EA27, "IMAP_PROXY_UNAVAILABLE",
     "Server hosting this mailbox is not available"},
    {IMAP_PROXY_ERROR, 0x8E76EA28, "IMAP_PROXY_ERROR", "Error parsing backend IMAP server response"},
    {IMAP_PROXY_DISCONNECTED, 0x8E76EA29, "IMAP_PROXY_DISCONNECTED",
     "The backend IMAP server has disconnected"},
    {IMAP_PARTITION_FULL, 0x8E76EA2A, "IMAP_PARTITION_FULL", "Store partition is full"},
    {IMAP_PROXY_ONLY, 0x8E76EA2B, "IMAP_PROXY_ONLY", "Server is not configured for local users"},
    {IMAP_BYE_LOGOUT, 0x8E76EA2C, "IMAP_BYE_LOGOUT", "LOGOUT received"},
    {IMAP_BYE_SHUTDOWN, 0x8E76EA2D, "IMAP_BYE_SHUTDOWN", "System shutting down"},
    {IMAP_OK_COMPLETED, 0x8E76EA2E, "IMAP_OK_COMPLETED", "Completed"},
    {IMAP_PREFIX_OTHER, 0x8E76EA2F, "IMAP_PREFIX_OTHER", "Shared Folders/User"},
    {IMAP_PREFIX_PUBLIC, 0x8E76EA30, "IMAP_PREFIX_PUBLIC", "Shared Folders/Public"},
};

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

int unknown_before_install() {
    CHECK_OR_FAIL(PR_ErrorToName(IMAP_IOERROR) == nullptr, 1);
    std::string t = text_of(IMAP_IOERROR);
    CHECK_OR_FAIL(t.rfind("Unknown code", 0) == 0, 2);
    CHECK_OR_FAIL(imap_InitializePRErrorTable() == 0, 3);
    CHECK_OR_FAIL(text_of(IMAP_IOERROR) == kRows[0].text, 4);
    return 0;
}

void write_translations(const testutil::TempDir &root) {
    std::string dir = root.file("lang");
    std::string cmd = "mkdir -p '" + dir + "/fr' '" + dir + "/es'";
    if (system(cmd.c_str()) != 0) abort();
    testutil::write_file(dir + "/fr/imap_err.txt",
                         "# Textes des erreurs\n"
                         "\n"
                         "IMAP_IOERROR Erreur d'entr\xc3\xa9""e/sortie du syst\xc3\xa8me\n"
                         "IMAP_NO_CLOSEQUOTA\tLa bo\xc3\xaet""e est \xc3\xa0 %d%% du quota\r\n"
                         "IMAP_NOT_A_CODE Ignor\xc3\xa9\n"
                         "IMAP_MAILBOX_EXISTS\n"
                         "IMAP_PERMISSION_DENIED   Permission refus\xc3\xa9""e");
    testutil::write_file(dir + "/es/imap_err.txt", "IMAP_PERMISSION_DENIED Permiso denegado\n");
}

// The languages are announced before the table is installed, as at the
// start of the store, or after it.
int translations(bool table_first) {
    testutil::TempDir root;
    write_translations(root);
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

    CHECK_OR_FAIL(text_of(IMAP_IOERROR, fr) ==
                      "Erreur d'entr\xc3\xa9""e/sortie du syst\xc3\xa8me", 7);
    CHECK_OR_FAIL(text_of(IMAP_NO_CLOSEQUOTA, fr) ==
                      "La bo\xc3\xaet""e est \xc3\xa0 %d%% du quota", 8);
    CHECK_OR_FAIL(text_of(IMAP_PERMISSION_DENIED, fr) == "Permission refus\xc3\xa9""e", 9);
    CHECK_OR_FAIL(text_of(IMAP_PERMISSION_DENIED, es) == "Permiso denegado", 10);
    // No translation: the English text.
    CHECK_OR_FAIL(text_of(IMAP_MAILBOX_EXISTS, fr) == "Mailbox already exists", 11);
    CHECK_OR_FAIL(text_of(IMAP_IOERROR, de) == kRows[0].text, 12);
    CHECK_OR_FAIL(text_of(IMAP_IOERROR, es) == kRows[0].text, 13);
    CHECK_OR_FAIL(text_of(IMAP_PERMISSION_DENIED, PR_LANGUAGE_I_DEFAULT) == "Permission denied", 14);
    CHECK_OR_FAIL(text_of(IMAP_PERMISSION_DENIED, PR_LANGUAGE_EN) == "Permission denied", 15);
    // A language code beyond the list.
    CHECK_OR_FAIL(text_of(IMAP_PERMISSION_DENIED, 9) == "Permission denied", 16);
    return 0;
}

class ImapErr : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

}  // namespace

TEST_F(ImapErr, CodesAreFixed) {
    EXPECT_EQ((int)0x8E76EA00, IMAP_IOERROR);
    EXPECT_EQ(-1904809472, IMAP_IOERROR);
    EXPECT_EQ((int)0x8E76EA02, IMAP_PERMISSION_DENIED);
    EXPECT_EQ((int)0x8E76EA0B, IMAP_MAILBOX_EXISTS);
    ASSERT_EQ(49u, sizeof kRows / sizeof kRows[0]);
    for (unsigned i = 0; i < 49; i++) {
        EXPECT_EQ((int)kRows[i].hex, kRows[i].code) << kRows[i].name;
        EXPECT_EQ((int)(0x8E76EA00u + i), kRows[i].code) << kRows[i].name;
        EXPECT_LT(kRows[i].code, 0);
    }
    EXPECT_STREQ("imap_err", imap_err_error_table.name);
    EXPECT_EQ(IMAP_IOERROR, imap_err_error_table.base);
    EXPECT_EQ(49, imap_err_error_table.n_msgs);
}

TEST_F(ImapErr, UnknownUntilInstalled) {
    EXPECT_EXIT(exit(unknown_before_install()), ::testing::ExitedWithCode(0), "");
}

TEST_F(ImapErr, EveryTextAfterInstallation) {
    ASSERT_EQ(0, imap_InitializePRErrorTable());
    ASSERT_EQ(0, imap_InitializePRErrorTable());  // harmless a second time
    for (const Row &r : kRows) {
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
