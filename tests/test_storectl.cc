// The operator's command: each verb on a store of its own, as a script
// would use it, with the exit statuses and messages of refusals, which
// change nothing.
#include "tests/testutil.h"

namespace {

using namespace testutil;

TEST(Storectl, VerbsStatusesAndMessages) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    const std::string mbox = source_dir() + "/samples/demo.mbox";
    // Each step: arguments, exit status, a pattern that standard output
    // (status 0) or standard error must match.
    const struct { std::string args; int status; const char *pattern; } steps[] = {
        {"create fred Archive", 77, "cannot create Archive: Permission denied"},
        {"create fred INBOX", 66, "fred has no directory entry"},
        {"-a create fred INBOX", 0, "^$"},
        {"create fred Archive", 0, "^$"},
        {"create fred Archive", 73, "already exists"},
        {"create fred Bad%Name", 64, "cannot create Bad%Name"},
        {"getacl fred INBOX", 0, "^fred lrswipcda\n$"},
        {"getacl bob INBOX", 66, "cannot read the ACL of INBOX: Mailbox does not exist"},
        {"-a getacl fred Archive", 0, "^fred lrswipcda\n"},
        {"import", 0, ""},
        {"quota fred", 0, "^user/fred [0-9]+ none 4 none 0\n$"},
        {"quota fred 10", 77, "only an administrator"},
        {"-a quota fred 1x", 65, "not a limit: 1x"},
        {"-a quota fred 1 100", 0, "^user/fred [0-9]+ 1 4 100 [1-9][0-9]*\n$"},  // at once over
        {"-a fixquota fred", 0, "^user/fred correct\n$"},
        {"delete fred Archive", 0, "^$"},
        {"quota fred", 0, "^user/fred 0 1 0 100 0\n$"},
        {"delete fred Archive", 66, "does not exist"},
        {"delete fred INBOX", 77, "administrator"},
        {"-a delete fred INBOX", 0, "^$"},
        {"quota fred", 66, "Quota root does not exist"},
        {"frob fred", 64, "unknown verb frob"},
        {"getacl", 64, "^usage: storectl"},
        {"getacl fred/x INBOX", 64, "not a user id"},
    };
    for (const auto &s : steps) {
        std::string out, err;
        if (s.args == "import") {
            ASSERT_EQ(inst.run("importmail", "-u fred -d Archive -s " + mbox, &out, &err), 0) << err;
            continue;
        }
        EXPECT_EQ(inst.run("storectl", s.args, &out, &err), s.status) << s.args << ": " << err;
        EXPECT_TRUE(matches(s.pattern, s.status ? err : out)) << s.args << ": " << out << err;
    }
    inst.stopStored();
    std::string err;
    EXPECT_EQ(inst.run("storectl", "quota fred", nullptr, &err), 75) << err;
}

}  // namespace
