// The error table: installation once per process, and translations read
// from files, announced before or after the table. Each case runs in a
// fresh process, where nothing is installed yet.
#include <prerror.h>

#include "tests/testutil.h"

namespace {

// 0, or 1 after naming the first check that failed.
#define CHECK(cond)                                                       \
    if (!(cond)) {                                                        \
        fprintf(stderr, "check failed: %s (line %d)\n", #cond, __LINE__); \
        return 1;                                                         \
    }

int installed_once() {
    CHECK(PR_ErrorToName(IMAP_IOERROR) == nullptr);
    CHECK(imap_InitializePRErrorTable() == 0 && imap_InitializePRErrorTable() == 0);
    // Every code of the range has a name of its own; the neighbours have none.
    std::set<std::string> names;
    for (int i = 0; i < IMAP_ERR_COUNT; i++) {
        const char *name = PR_ErrorToName(IMAP_ERR_BASE + i);
        CHECK(name && strncmp(name, "IMAP_", 5) == 0 && names.insert(name).second);
    }
    CHECK(!PR_ErrorToName(IMAP_ERR_BASE - 1) && !PR_ErrorToName(IMAP_ERR_BASE + IMAP_ERR_COUNT));
    // A text with a number in it stays a format for the caller.
    char buf[64];
    snprintf(buf, sizeof buf, PR_ErrorToString(IMAP_NO_CLOSEQUOTA, 0), 90);
    CHECK(strstr(buf, "90%") != nullptr);
    return 0;
}

int translations(bool table_first) {
    testutil::TempDir root;
    std::string dir = root.file("lang");
    CHECK(system(("mkdir -p '" + dir + "/fr' '" + dir + "/es'").c_str()) == 0);
    testutil::write_file(dir + "/fr/imap_err.txt",
                         "# Textes des erreurs\n\nIMAP_IOERROR Erreur E/S\nIMAP_NOT_A_CODE Non\n"
                         "IMAP_MAILBOX_EXISTS\nIMAP_PERMISSION_DENIED\t  Refus\xc3\xa9\r\n");
    testutil::write_file(dir + "/es/imap_err.txt", "IMAP_PERMISSION_DENIED Denegado");
    if (table_first) CHECK(imap_InitializePRErrorTable() == 0);
    // "de" has no file, the path-like tag is dropped, "en" is built in, a
    // repeated tag counts once; a second announcement changes nothing.
    et_install_language_plugin(root.path().c_str(), "en,fr de;../etc es,fr");
    et_install_language_plugin(root.path().c_str(), "it");
    if (!table_first) CHECK(imap_InitializePRErrorTable() == 0);
    auto text = [](int code, PRLanguageCode l) { return std::string(PR_ErrorToString(code, l)); };
    std::string english = text(IMAP_PERMISSION_DENIED, PR_LANGUAGE_I_DEFAULT);

    const char *const *langs = PR_ErrorLanguages();
    const char *want[] = {"i-default", "en", "fr", "de", "es", nullptr};
    for (int i = 0; want[i]; i++) CHECK(langs[i] && strcmp(langs[i], want[i]) == 0);
    CHECK(langs[5] == nullptr && imap_err_language("it") == PR_LANGUAGE_I_DEFAULT);
    PRLanguageCode fr = imap_err_language("fr"), de = imap_err_language("de"), es = imap_err_language("es");
    // A code without a translation, a language without a file and one
    // beyond the list fall back to English.
    CHECK(text(IMAP_IOERROR, fr) == "Erreur E/S" && text(IMAP_PERMISSION_DENIED, es) == "Denegado");
    CHECK(text(IMAP_PERMISSION_DENIED, fr) == "Refus\xc3\xa9");
    CHECK(text(IMAP_MAILBOX_EXISTS, fr) == text(IMAP_MAILBOX_EXISTS, PR_LANGUAGE_I_DEFAULT));
    CHECK(text(IMAP_PERMISSION_DENIED, de) == english);
    CHECK(text(IMAP_PERMISSION_DENIED, 9) == english);
    CHECK(english.rfind("Unknown code", 0) != 0);
    return 0;
}

}  // namespace

TEST(ImapErr, InstalledOnceAndTranslated) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exit(installed_once()), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(exit(translations(false)), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(exit(translations(true)), ::testing::ExitedWithCode(0), "");
}
