// The importmail program as an operator runs it: options, exit statuses,
// the input checks, folder names, the debug output, and a message too
// large for the store.
#include "import/importmail.h"
#include "tests/testutil.h"

namespace {

const std::string F = "From a Tue Nov  5 10:20:30 2002\n";

class ImportmailCli : public ::testing::Test {
  protected:
    int run(const std::string &args, std::string *out = nullptr, std::string *err = nullptr, int limit = 120) {
        return inst.run("importmail", args, out, err, limit);
    }
    std::string mbox(const std::string &name, const std::string &content) {
        testutil::write_file(inst.path(name), content);
        return inst.path(name);
    }
    testutil::Instance inst;
};

typedef std::vector<std::pair<unsigned long, unsigned long>> Sizes;

// The "msg size: N offset: M" lines of the debug output.
Sizes debug_sizes(const std::string &out) {
    Sizes r;
    unsigned long size, offset;
    for (const std::string &line : testutil::split_lines(out))
        if (sscanf(line.c_str(), "msg size: %lu offset: %lu", &size, &offset) == 2) r.push_back({size, offset});
    return r;
}

}  // namespace

// Usage errors and unusable input end the run before the store is touched:
// no daemon runs here.
TEST_F(ImportmailCli, RefusedBeforeTheStoreIsTouched) {
    std::string in = mbox("in.mbox", F + "\nx\n"), err;
    const char *bad[] = {"-c yes", "-c x", "-v 3", "-v -1", "-s %s", "-u ann", "-d a -d a", "-e utf-8 -e utf-8", "-x"};
    for (const char *b : bad) {
        std::string args = std::string("-u joe -s %s ") + b;
        for (size_t pos; (pos = args.find("%s")) != std::string::npos;) args.replace(pos, 2, in);
        EXPECT_EQ(run(args, nullptr, &err), 64) << args;
        EXPECT_NE(err.find("USAGE:"), std::string::npos) << args;
    }
    EXPECT_EQ(run("-s /nonexistent/file"), 64);  // a missing -u is found before the file

    EXPECT_EQ(run("-u joe -s /nonexistent/file.mbox"), 66);
    EXPECT_EQ(run("-u joe -s " + inst.path("config")), 66);  // a directory
    // A FIFO without a writer: refused at once, not waited on.
    std::string fifo = inst.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(run("-u joe -s " + fifo, nullptr, &err, 10), 66) << "killed after 10 s: " << err;
    EXPECT_NE(err.find(fifo), std::string::npos) << err;

    EXPECT_EQ(testutil::run_command("STORE_INSTANCEDIR=/nonexistent/instance " + testutil::binary_dir() +
                                    "/bin/importmail -u joe -s " + in), 69);
}

TEST_F(ImportmailCli, FormatChecksAndFolderNames) {
    ASSERT_TRUE(inst.startStored());
    std::string err;
    // Not in the mail file format: no separator first, a first line without
    // LF, a date form outside the tables.
    for (const char *bad : {"Subject: no separator\n\nbody\n", "From joe Tue Nov  5 10:20:30 2002",
                            "From joe 2002-11-05 10:20:30 +0000 somewhere\n\nx\n"})
        EXPECT_EQ(run("-u joe -s " + mbox("bad.mbox", bad)), 65) << bad;
    EXPECT_EQ(run("-v 0 -u joe -s " + mbox("empty.mbox", "")), 0);

    std::string in = mbox("in.mbox", F + "\nx\n\n" + F + "\ny\n");
    EXPECT_EQ(run("-v 0 -u joe -d " + std::string(1100, 'f') + " -s " + in, nullptr, &err), 64);
    EXPECT_NE(err.find("too long"), std::string::npos) << err;

    // Progress names the folder (leading slashes dropped) and each message;
    // without -d the file name is the folder name.
    ASSERT_EQ(run("-u joe -d //Archive/2002 -s " + in, nullptr, &err), 0) << err;
    for (const char *p : {"/export/user/joe/Archive/2002\n", "/export/user/joe/Archive/2002/1\n",
                          "/export/user/joe/Archive/2002/2\n"})
        EXPECT_NE(err.find(p), std::string::npos) << err;
    ASSERT_EQ(run("-v 1 -u joe -s " + in, nullptr, &err), 0);
    EXPECT_EQ(err, "/export/user/joe" + in + "\n");
}

// A message too large for the store's 32-bit sizes: the middle one of three,
// a hole of more than 4 GB in a sparse file. It is refused without being
// copied or even read; -c y goes on with the next message, -c n stops.
TEST_F(ImportmailCli, MessageTooLargeForTheStore) {
    ASSERT_TRUE(inst.startStored());
    std::string path = inst.path("big.mbox");
    std::string head = F + "Subject: one\n\nfirst\n\n" + F + "Subject: big\n\n", tail = "\n\n" + F + "\nlast\n";
    off_t tailAt = (off_t)head.size() + ((off_t)4 << 30) + 4096;
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
    struct stat st;
    ASSERT_TRUE(fd >= 0 && write(fd, head.data(), head.size()) == (ssize_t)head.size() &&
                pwrite(fd, tail.data(), tail.size(), tailAt) == (ssize_t)tail.size() && fstat(fd, &st) == 0);
    close(fd);
    if (st.st_blocks > 1024) GTEST_SKIP() << "the file system here keeps no sparse files";

    std::string out, err;
    EXPECT_EQ(run("-g -c y -v 0 -u joe -d inbox -s " + path, &out, &err), 0) << err;
    // "Subject: one" CRLF CRLF "first" CRLF, and a blank line and "last".
    EXPECT_EQ(debug_sizes(out), (Sizes{{23, head.find("From", 1)}, {7, (unsigned long)st.st_size}})) << out << err;
    EXPECT_NE(err.find("message 2 "), std::string::npos) << err;
    EXPECT_NE(err.find(std::to_string(MESSAGE_SIZE_MAX)), std::string::npos) << err;

    EXPECT_EQ(run("-g -c n -v 0 -u joe -d inbox -s " + path, &out, &err), 65) << err;
    EXPECT_EQ(debug_sizes(out).size(), 1u) << out;
}
