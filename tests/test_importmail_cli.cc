// The importmail program as an operator runs it: options, usage, exit
// statuses, the format check and the debug output.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <sstream>
#include <string>
#include <vector>

#include "import/importmail.h"
#include "tests/testutil.h"

using testutil::Instance;
using testutil::run_command;

namespace {

std::string importmail() { return testutil::binary_dir() + "/bin/importmail"; }

int run(const Instance &inst, const std::string &args, std::string *out = nullptr,
        std::string *err = nullptr) {
    return run_command("STORE_INSTANCEDIR='" + inst.dir() + "' " + importmail() + " " + args,
                       out, err);
}

std::vector<std::string> lines_starting(const std::string &text, const std::string &prefix) {
    std::vector<std::string> r;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, prefix.size(), prefix) == 0) r.push_back(line);
    return r;
}

std::vector<unsigned long> scanner_sizes(const std::string &data) {
    std::vector<unsigned long> sizes;
    FromLine first;
    if (!check_fromline(data.data(), data.data() + data.size(), &first)) return sizes;
    ScanHooks hooks = {[](void *rock, const ScannedMessage *m, int *) {
                           static_cast<std::vector<unsigned long> *>(rock)->push_back(m->size);
                           return 1;
                       },
                       nullptr, &sizes};
    scan_messages(data.data(), data.size(), &first, &hooks);
    return sizes;
}

}  // namespace

TEST(ImportmailCli, UsageErrorsExit64) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    std::string mbox = inst.path("in.mbox");
    testutil::write_file(mbox, "From a Tue Nov  5 10:20:30 2002\n\nx\n");
    std::string err;

    EXPECT_EQ(run(inst, "", nullptr, &err), 64);
    EXPECT_NE(err.find("USAGE: " + importmail() +
                       ": [-g] [-v 0|1|2] [-c y|n] [-d mailbox] [-n] [-e encoding] [-i] -u user "
                       "-s file\n"),
              std::string::npos)
        << err;

    const char *bad[] = {
        "-u joe -s %s -c yes", "-u joe -s %s -c x",     "-u joe -s %s -v 3",
        "-u joe -s %s -v -1",  "-u joe -s %s -s %s",    "-u joe -u ann -s %s",
        "-u joe -s %s -d a -d a", "-u joe -s %s -e utf-8 -e utf-8", "-u joe -s %s -x",
        "-s %s",
    };
    for (const char *b : bad) {
        std::string args = b;
        size_t pos;
        while ((pos = args.find("%s")) != std::string::npos) args.replace(pos, 2, mbox);
        EXPECT_EQ(run(inst, args, nullptr, &err), 64) << args;
        EXPECT_NE(err.find("USAGE:"), std::string::npos) << args;
    }
    // A missing -u is found before the input file is touched.
    EXPECT_EQ(run(inst, "-s /nonexistent/file"), 64);
}

TEST(ImportmailCli, InputFileChecks) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    std::string err;
    EXPECT_EQ(run(inst, "-u joe -s /nonexistent/file.mbox", nullptr, &err), 66);
    EXPECT_NE(err.find("/nonexistent/file.mbox"), std::string::npos);

    EXPECT_EQ(run(inst, "-u joe -s " + inst.path("config"), nullptr, &err), 66);
    EXPECT_NE(err.find("Invalid file permission: " + inst.path("config") + "\n"),
              std::string::npos)
        << err;

    std::string notmbox = inst.path("not.mbox");
    testutil::write_file(notmbox, "Subject: no separator\n\nbody\n");
    EXPECT_EQ(run(inst, "-u joe -s " + notmbox, nullptr, &err), 65);
    EXPECT_NE(err.find("Error: Invalid /var/mail format\n"), std::string::npos) << err;

    // A first line without LF is no separator either.
    testutil::write_file(notmbox, "From joe Tue Nov  5 10:20:30 2002");
    EXPECT_EQ(run(inst, "-u joe -s " + notmbox, nullptr, &err), 65);

    // A date form outside the tables.
    testutil::write_file(notmbox, "From joe 2002-11-05 10:20:30 +0000 somewhere\n\nx\n");
    EXPECT_EQ(run(inst, "-u joe -s " + notmbox, nullptr, &err), 65);

    // An empty file is no error.
    std::string empty = inst.path("empty.mbox");
    testutil::write_file(empty, "");
    EXPECT_EQ(run(inst, "-v 0 -u joe -s " + empty), 0);
}

TEST(ImportmailCli, RefusesWhatDoesNotFitAndMissingInstances) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    std::string mbox = inst.path("in.mbox");
    testutil::write_file(mbox, "From a Tue Nov  5 10:20:30 2002\n\nx\n");
    std::string err;
    std::string longName(1100, 'f');
    EXPECT_EQ(run(inst, "-v 0 -u joe -d " + longName + " -s " + mbox, nullptr, &err), 64);
    EXPECT_NE(err.find("too long"), std::string::npos) << err;

    EXPECT_EQ(run_command("STORE_INSTANCEDIR=/nonexistent/instance " + importmail() +
                              " -u joe -s " + mbox,
                          nullptr, &err),
              69);
    EXPECT_NE(err.find("ERROR: Could not initialize config system\n"), std::string::npos) << err;
}

TEST(ImportmailCli, DebugOutputCountsCorpusMessages) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    struct {
        const char *name;
        size_t count;
    } files[] = {{"list-archive.mbox", 53}, {"kernel-list.mbox", 210}, {"broken.mbox", 20}};
    for (auto &f : files) {
        std::string path = testutil::corpus_path(f.name);
        std::string out, err;
        ASSERT_EQ(run(inst, "-g -c y -v 0 -u joe -d inbox -s " + path, &out, &err), 0) << err;
        auto sizes = lines_starting(out, "msg size: ");
        EXPECT_EQ(sizes.size(), f.count) << f.name;
        auto fs = lines_starting(out, "filesize: ");
        ASSERT_EQ(fs.size(), 1u);
        std::string data = testutil::read_file(path);
        EXPECT_EQ(fs[0], "filesize: " + std::to_string(data.size()));

        // The program reports the messages exactly as the scanner cuts them.
        std::vector<unsigned long> expected = scanner_sizes(data);
        ASSERT_EQ(expected.size(), f.count);
        long lastOffset = 0;
        for (size_t i = 0; i < sizes.size() && i < expected.size(); i++) {
            unsigned long size;
            long offset;
            ASSERT_EQ(sscanf(sizes[i].c_str(), "msg size: %lu offset: %ld", &size, &offset), 2);
            EXPECT_EQ(size, expected[i]) << f.name << " message " << i + 1;
            EXPECT_GT(offset, lastOffset);
            lastOffset = offset;
        }
        EXPECT_EQ(lastOffset, (long)data.size());
    }
}

TEST(ImportmailCli, VerboseNamesFolderAndMessages) {
    Instance inst;
    ASSERT_TRUE(inst.startStored());
    std::string mbox = inst.path("in.mbox");
    testutil::write_file(mbox,
                         "From a Tue Nov  5 10:20:30 2002\n\nx\n\n"
                         "From b Tue Nov  5 10:20:30 2002\n\ny\n");
    std::string err;
    ASSERT_EQ(run(inst, "-u joe -d //Archive/2002 -s " + mbox, nullptr, &err), 0) << err;
    EXPECT_NE(err.find("/export/user/joe/Archive/2002\n"), std::string::npos) << err;
    EXPECT_NE(err.find("/export/user/joe/Archive/2002/1\n"), std::string::npos) << err;
    EXPECT_NE(err.find("/export/user/joe/Archive/2002/2\n"), std::string::npos) << err;

    ASSERT_EQ(run(inst, "-v 1 -u joe -d Archive -s " + mbox, nullptr, &err), 0);
    EXPECT_EQ(err, "/export/user/joe/Archive\n");

    // Without -d the file name is the folder name, leading slashes removed.
    ASSERT_EQ(run(inst, "-v 1 -u joe -s " + mbox, nullptr, &err), 0);
    EXPECT_EQ(err, "/export/user/joe" + mbox + "\n");
}
