// The error table: installation once per process, and translations read
// from files, announced before or after the table. Each case runs in a
// child process, where nothing is installed yet.
#include <prerror.h>

#include "tests/testutil.h"

namespace {

using namespace testutil;

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

}  // namespace

TEST(ImapErr, InstalledOnceAndTranslated) {
    for (int c = 0; c < 3; c++) {
        SCOPED_TRACE(c);
        EXPECT_EQ(in_child([c] {
                      c ? translations(c == 2) : installed_once();
                      return ::testing::Test::HasFailure() ? 1 : 0;
                  }),
                  0);
    }
}
