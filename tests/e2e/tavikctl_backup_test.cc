// tavikctl backup, list and estimate against a real daemon in single-user
// mode: a scratch tree backed up and listed entry for entry, /usr/include
// listed with as many entries as find(1) shows, acknowledgements and
// connection renewals on the way, a discarded archive, an estimate, and a
// refused job's exit status.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/daemon_fixture.h"
#include "e2e/tavikctl_run.h"

namespace {

using tavik::test::Daemon;
using tavik::test::Output;
using tavik::test::tavikctl;

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) out.push_back(line);
    return out;
}

size_t findCount(const std::string& dir) {
    FILE* p = popen(("find " + dir + " | wc -l").c_str(), "r");
    unsigned long n = 0;
    if (p) {
        if (fscanf(p, "%lu", &n) != 1) n = 0;
        pclose(p);
    }
    return n;
}

class TavikctlBackup : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/tavik-e2e-backup-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        scratch_ = tmpl;
        tree_ = scratch_ + "/tree";
        archive_ = scratch_ + "/out.tvk";
        mkdir(tree_.c_str(), 0755);
        write("empty", "");
        write("two-chunks", std::string(4096, 'a'));
        write("odd", std::string(4097, 'b'));
        mkdir((tree_ + "/sub").c_str(), 0755);
        mkdir((tree_ + "/sub/deeper").c_str(), 0755);
        mkdir((tree_ + "/sub/empty-dir").c_str(), 0755);
        write("sub/notes.txt", "some notes\n");
        write("sub/deeper/x.c", std::string(10000, 'x'));
        ASSERT_EQ(symlink("/usr/lib", (tree_ + "/sub/lnk").c_str()), 0);
        ASSERT_EQ(mkfifo((tree_ + "/fifo").c_str(), 0644), 0);
    }
    void TearDown() override {
        if (daemon_.alive()) daemon_.stop();
        std::system(("rm -rf '" + scratch_ + "'").c_str());
    }
    void write(const std::string& name, const std::string& data) {
        std::ofstream(tree_ + "/" + name, std::ios::binary) << data;
    }
    std::string port() const { return " --port " + std::to_string(daemon_.port()); }

    Daemon daemon_;
    std::string scratch_, tree_, archive_;
};

TEST_F(TavikctlBackup, ScratchTreeListsEveryEntry) {
    ASSERT_TRUE(daemon_.start({"-v", "-S"}));
    Output b = tavikctl("backup 127.0.0.1:" + tree_ + " -o " + archive_ + port());
    ASSERT_EQ(b.status, 0) << b.err;
    EXPECT_NE(b.err.find("11 entries"), std::string::npos) << b.err;
    Output l = tavikctl("list --verify " + archive_);
    ASSERT_EQ(l.status, 0) << l.err;
    EXPECT_NE(l.err.find("checksum good"), std::string::npos) << l.err;
    std::vector<std::string> listed = lines(l.out);
    EXPECT_EQ(listed.size(), findCount(tree_)) << l.out;
    for (const char* want : {"/", "/empty", "/two-chunks", "/odd", "/fifo", "/sub/", "/sub/deeper/",
                             "/sub/empty-dir/", "/sub/notes.txt", "/sub/deeper/x.c", "/sub/lnk -> /usr/lib"}) {
        bool found = false;
        for (const std::string& line : listed)
            if (line.size() >= tree_.size() + std::strlen(want) &&
                line.compare(line.size() - tree_.size() - std::strlen(want), std::string::npos, tree_ + want) == 0)
                found = true;
        EXPECT_TRUE(found) << want << " not in\n" << l.out;
    }
    EXPECT_NE(l.out.find("-rw-r--r-- 0/0       4097 "), std::string::npos) << l.out;
    EXPECT_NE(l.out.find("prw-r--r-- 0/0          0 "), std::string::npos) << l.out;
}

TEST_F(TavikctlBackup, UsrIncludeListsAsManyEntriesAsFind) {
    ASSERT_TRUE(daemon_.start({"-S"}));
    std::string archive = "/tmp/inc-" + std::to_string(getpid()) + ".tvk";
    Output b = tavikctl("backup 127.0.0.1:/usr/include -o " + archive + port());
    ASSERT_EQ(b.status, 0) << b.err;
    Output l = tavikctl("list --verify " + archive);
    unlink(archive.c_str());
    ASSERT_EQ(l.status, 0) << l.err;
    EXPECT_NE(l.err.find("checksum good"), std::string::npos) << l.err;
    EXPECT_EQ(lines(l.out).size(), findCount("/usr/include"));
}

TEST_F(TavikctlBackup, AcknowledgementsRenewalsAndLargeBuffers) {
    // Renew every 2 files and every 4 KB; acknowledge every 3 packets; the
    // agent's 8192-byte buffer kept for the job.
    ASSERT_TRUE(daemon_.start({"-v", "-S", "-R", "2", "-r", "4", "-b", "8192"}));
    Output b = tavikctl("backup 127.0.0.1:" + tree_ + " -o " + archive_ + port() +
                        " --renew --ack 3 --buffer-from-agent --watchdog");
    ASSERT_EQ(b.status, 0) << b.err;
    EXPECT_NE(b.err.find(" connection renewals"), std::string::npos) << b.err;
    EXPECT_NE(b.err.find(" acknowledgements"), std::string::npos) << b.err;
    EXPECT_TRUE(daemon_.waitForLog("New TCP fd=")) << daemon_.log();
    Output l = tavikctl("list --verify " + archive_);
    ASSERT_EQ(l.status, 0) << l.err;
    EXPECT_EQ(lines(l.out).size(), findCount(tree_));
    // Without --renew the same daemon keeps one connection: same listing.
    Output b2 = tavikctl("backup 127.0.0.1:" + tree_ + " -o /dev/null" + port());
    EXPECT_EQ(b2.status, 0) << b2.err;
}

TEST_F(TavikctlBackup, SelectionAndEstimate) {
    ASSERT_TRUE(daemon_.start({"-S"}));
    Output e = tavikctl("estimate 127.0.0.1:" + tree_ + port());
    ASSERT_EQ(e.status, 0) << e.err;
    // empty, two-chunks, odd, fifo, notes.txt, x.c, lnk: 0+4096+4097+0+11+10000+8 bytes.
    EXPECT_EQ(e.out, "7 files, 17 kilobytes\n");

    Output b = tavikctl("backup 127.0.0.1:" + tree_ + " -o " + archive_ + port() + " --include-file '*.c'");
    ASSERT_EQ(b.status, 0) << b.err;
    Output l = tavikctl("list --verify " + archive_);
    ASSERT_EQ(l.status, 0) << l.err;
    EXPECT_NE(l.out.find("/sub/deeper/x.c\n"), std::string::npos) << l.out;
    EXPECT_EQ(l.out.find("/odd\n"), std::string::npos) << l.out;
}

TEST_F(TavikctlBackup, RestartedAndOldServerStreamsVerify) {
    ASSERT_TRUE(daemon_.start({"-S"}));
    // Resume inside the last file sent (sub/deeper/x.c, 10000 bytes): its
    // remaining data come first, without a file header, then the closes.
    Output b = tavikctl("backup 127.0.0.1:" + tree_ + " -o " + archive_ + port() + " --restart " + tree_ +
                        "/sub/deeper/x.c:6000");
    ASSERT_EQ(b.status, 0) << b.err;
    EXPECT_NE(b.err.find("4000 bytes of data"), std::string::npos) << b.err;
    Output l = tavikctl("list --verify " + archive_);
    EXPECT_EQ(l.status, 0) << l.err;

    // A server of version 49 gets no source header: every entry but the
    // source is listed.
    b = tavikctl("backup 127.0.0.1:" + tree_ + " -o " + archive_ + port() + " --server-version 49");
    ASSERT_EQ(b.status, 0) << b.err;
    l = tavikctl("list --verify " + archive_);
    ASSERT_EQ(l.status, 0) << l.err;
    EXPECT_EQ(lines(l.out).size(), findCount(tree_) - 1);
}

TEST_F(TavikctlBackup, RefusedJobFailsWithItsReason) {
    ASSERT_TRUE(daemon_.start({"-S"}));
    Output b = tavikctl("backup 127.0.0.1:relative/path -o " + archive_ + port());
    EXPECT_EQ(b.status, 2) << b.err;  // not HOST:/path
    b = tavikctl("backup 127.0.0.1:" + tree_ + "/no-such-dir -o " + archive_ + port());
    EXPECT_EQ(b.status, 1) << b.err;
    EXPECT_NE(b.err.find("job refused"), std::string::npos) << b.err;
    Output l = tavikctl("list --verify " + archive_);
    EXPECT_EQ(l.status, 1) << l.err;
}

}  // namespace
