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
        {"-a create bob INBOX", 0, "^$"},
        {"create fred Archive/2026", 0, "^$"},
        {"list fred", 0, "^noinferiors INBOX\nchildren Archive\nnone Archive/2026\n$"},
        {"list fred %", 0, "^noinferiors INBOX\nchildren Archive\n$"},
        {"list bob", 0, "^noinferiors INBOX\n$"},
        {"setacl fred Archive bob lr", 0, "^$"},
        {"setacl bob 'Shared Folders/User/fred/Archive' ann lr", 77, "Permission denied"},
        {"setacl fred Archive fred none", 0, "^$"},  // the owner keeps l, c and a
        {"getacl fred Archive", 0, "^fred lca\nbob lr\n$"},
        {"list bob", 0, "^noinferiors INBOX\n[a-z]+ Shared Folders/User/fred/Archive\n$"},
        {"subscribe bob 'Shared Folders/User/fred/Archive'", 0, "^$"},
        {"subscribe bob 'Shared Folders/User/fred/Archive/2026'", 66, "does not exist"},
        {"subscribe fred Archive/2026", 0, "^$"},
        {"lsub fred", 0, "^[a-z]+ Archive/2026\n$"},
        {"lsub bob", 0, "^[a-z]+ Shared Folders/User/fred/Archive\n$"},
        {"unsubscribe fred Archive/2026", 0, "^$"},
        {"lsub fred", 0, "^$"},
        {"rename fred Archive Old", 0, "^$"},
        {"list fred", 0, "^noinferiors INBOX\nchildren Old\nnone Old/2026\n$"},
        {"rename fred Old INBOX", 64, "cannot rename Old"},
        {"rename fred Nothing New", 66, "does not exist"},
        {"rename fred INBOX Saved", 0, "^$"},
        {"list fred", 0, "^noinferiors INBOX\nchildren Old\nnone Old/2026\nnone Saved\n$"},
        {"-a rename fred Old Old nowhere", 64, "cannot rename Old"},
        {"-a create fred Archive", 0, "^$"},
        {"config local.store.maxfolders: 5", 0, ""},  // fred has 5 now
        {"create fred Sixth", 73, "cannot create Sixth"},
        {"config local.store.maxfolders: 0", 0, ""},
        {"delete fred Old", 0, "^$"},  // its messages, not its child
        {"quota fred", 0, "^user/fred 0 1 0 100 0\n$"},
        {"list fred Old*", 0, "^none Old/2026\n$"},
        {"delete fred Old", 66, "does not exist"},
        {"delete fred INBOX", 77, "administrator"},
        {"-a delete fred INBOX", 0, "^$"},
        {"quota fred", 66, "Quota root does not exist"},
        {"frob fred", 64, "unknown verb frob"},
        {"getacl", 64, "^usage: storectl"},
        {"getacl fred/x INBOX", 64, "not a user id"},
    };
    for (const auto &s : steps) {
        std::string out, err;
        if (s.args.rfind("config ", 0) == 0) {
            inst.addConfig(s.args.substr(7) + "\n");
            continue;
        }
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

namespace {

// After the loss of the whole database directory the daemon starts with
// empty databases; once the user's folders are registered again from their
// files, the subscriptions come back from "store.sub".
TEST(Storectl, SubscriptionsSurviveTheLossOfTheDatabase) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    const std::string mbox = source_dir() + "/samples/demo.mbox";
    auto ctl = [&](const std::string &args, std::string *out = nullptr) {
        std::string err;
        int r = inst.run("storectl", args, out, &err);
        EXPECT_TRUE(r == 0 || r == 73) << args << ": " << err;
    };
    ctl("-a create fred INBOX");
    for (const char *f : {"A", "B", "C"}) {
        ctl(std::string("create fred ") + f);
        ASSERT_EQ(inst.run("importmail", std::string("-u fred -d ") + f + " -s " + mbox), 0);
    }
    ctl("subscribe fred A"), ctl("subscribe fred C");
    ASSERT_EQ(inst.run("importmail", "-u fred -d INBOX -s " + mbox), 0);
    ASSERT_EQ(inst.stopStored(), 0);
    ASSERT_EQ(run_command("rm -rf '" + inst.path("data/store/mboxlist") + "'"), 0);
    ASSERT_TRUE(inst.startStored());
    std::string out;
    ctl("lsub fred", &out);
    EXPECT_EQ(out, "");  // no folder rows yet
    // Creating the folders again takes over their files with the messages.
    for (const char *f : {"-a create fred INBOX", "create fred A", "create fred B", "create fred C"}) ctl(f);
    ctl("lsub fred", &out);
    EXPECT_EQ(out, "none A\nnone C\n");
}

}  // namespace
