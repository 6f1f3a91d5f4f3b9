// tavikctl restore against a real daemon in single-user mode: the conflict
// policies on files already at the destination, a damaged archive refused
// before the agent hears of it, partial restores by path, and files the
// agent could not make reported by name with a failing exit status.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "e2e/daemon_fixture.h"
#include "e2e/round_trip_tree.h"
#include "e2e/tavikctl_run.h"

namespace {

using CtlOutput = tavik::test::Output;
using tavik::test::Daemon;
using tavik::test::readFile;


constexpr time_t kArchived = 1400000000;

class TavikctlRestore : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/tavik-e2e-restore-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        scratch_ = tmpl;
        tree_ = scratch_ + "/tree";
        dest_ = scratch_ + "/dest";
        archive_ = scratch_ + "/tree.tvk";
        ASSERT_EQ(mkdir(tree_.c_str(), 0755), 0);
        put(tree_ + "/f", "archived", kArchived);
        put(tree_ + "/g", "archived g", kArchived);
        ASSERT_EQ(mkdir((tree_ + "/sub").c_str(), 0750), 0);
        ASSERT_EQ(mkdir((tree_ + "/sub/deeper").c_str(), 0700), 0);
        put(tree_ + "/sub/deeper/x", std::string(5000, 'x'), kArchived);
        put(tree_ + "/sub/y", "y", kArchived);
        ASSERT_EQ(mkdir((tree_ + "/other").c_str(), 0755), 0);
        put(tree_ + "/other/z", "z", kArchived);
        ASSERT_TRUE(daemon_.start({"-v", "-S"}));
        CtlOutput b = tavik::test::tavikctl("backup 127.0.0.1:" + tree_ + " -o " + archive_ + port());
        ASSERT_EQ(b.status, 0) << b.err;
    }
    void TearDown() override {
        if (daemon_.alive()) daemon_.stop();
        std::system(("rm -rf '" + scratch_ + "'").c_str());
    }
    static void put(const std::string& path, const std::string& data, time_t mtime) {
        std::ofstream(path, std::ios::binary) << data;
        timespec t[2] = {{mtime, 0}, {mtime, 0}};
        utimensat(AT_FDCWD, path.c_str(), t, 0);
    }
    static bool exists(const std::string& path) {
        struct stat st {};
        return lstat(path.c_str(), &st) == 0;
    }
    std::string port() const { return " --port " + std::to_string(daemon_.port()); }
    CtlOutput restore(const std::string& extra = "", const std::string& archive = "") {
        return tavik::test::tavikctl("restore " + (archive.empty() ? archive_ : archive) + " 127.0.0.1:" + dest_ + extra + port());
    }
    // The destination with f older than the archive's and g newer.
    void existingFiles() {
        ASSERT_EQ(mkdir(dest_.c_str(), 0755), 0);
        put(dest_ + "/f", "older on disk", kArchived - 100);
        put(dest_ + "/g", "newer on disk", kArchived + 100);
    }

    Daemon daemon_;
    std::string scratch_, tree_, dest_, archive_;
};

TEST_F(TavikctlRestore, ConflictPoliciesDecideAboutFilesAlreadyThere) {
    struct Case {
        const char* option;
        const char* f;
        const char* g;
        const char* fRenamed;  // f.AS1, or null when none is made
        const char* counts;
    };
    const Case cases[] = {
        {"", "archived", "archived g", nullptr, "5 files (5 restored, 0 skipped, 0 failed)"},  // overwrite by default
        {" --conflict overwrite", "archived", "archived g", nullptr, "5 files (5 restored, 0 skipped"},
        {" --conflict skip", "older on disk", "newer on disk", nullptr, "5 files (3 restored, 2 skipped, 0 failed)"},
        {" --conflict newer", "archived", "newer on disk", nullptr, "5 files (4 restored, 1 skipped, 0 failed)"},
        {" --conflict rename", "older on disk", "newer on disk", "archived", "5 files (5 restored, 0 skipped"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.option);
        std::system(("rm -rf '" + dest_ + "'").c_str());
        existingFiles();
        CtlOutput r = restore(c.option);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.err.find(c.counts), std::string::npos) << r.err;
        EXPECT_EQ(readFile(dest_ + "/f"), c.f);
        EXPECT_EQ(readFile(dest_ + "/g"), c.g);
        EXPECT_EQ(exists(dest_ + "/f.AS1"), c.fRenamed != nullptr);
        if (c.fRenamed) {
            EXPECT_EQ(readFile(dest_ + "/f.AS1"), c.fRenamed);
        }
        EXPECT_EQ(readFile(dest_ + "/sub/deeper/x"), std::string(5000, 'x'));
    }
    CtlOutput bad = restore(" --conflict sometimes");
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err.find("--conflict takes skip, rename, overwrite or newer"), std::string::npos) << bad.err;
}

TEST_F(TavikctlRestore, DamagedArchiveIsRefusedBeforeAnythingIsSent) {
    std::string data = readFile(archive_);
    ASSERT_GT(data.size(), 200u);
    struct Damage {
        const char* what;
        size_t at;  // byte flipped; npos: cut the trailer off
    };
    const Damage damages[] = {{"body byte", data.size() / 2}, {"header byte", 16}, {"cut", std::string::npos}};
    for (const Damage& d : damages) {
        SCOPED_TRACE(d.what);
        std::string bad = data;
        if (d.at == std::string::npos) bad.resize(bad.size() - 40);
        else bad[d.at] = static_cast<char>(bad[d.at] ^ 0x20);
        std::string path = scratch_ + "/damaged.tvk";
        std::ofstream(path, std::ios::binary | std::ios::trunc) << bad;
        CtlOutput r = restore("", path);
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_NE(r.err.find("is damaged, nothing was restored"), std::string::npos) << r.err;
    }
    // The agent never got a request: no job was started, no destination made.
    EXPECT_FALSE(exists(dest_));
    EXPECT_EQ(daemon_.log().find("Start Restore Job"), std::string::npos) << daemon_.log();
}

TEST_F(TavikctlRestore, PathArgumentsRestoreOnlyThoseParts) {
    // One path relative to the source, one with the source in front.
    CtlOutput r = restore(" sub/deeper " + tree_ + "/f/");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("2 files (2 restored"), std::string::npos) << r.err;
    EXPECT_EQ(readFile(dest_ + "/f"), "archived");
    EXPECT_EQ(readFile(dest_ + "/sub/deeper/x"), std::string(5000, 'x'));
    EXPECT_FALSE(exists(dest_ + "/g"));
    EXPECT_FALSE(exists(dest_ + "/sub/y"));
    EXPECT_FALSE(exists(dest_ + "/other"));
    // The directories on the way keep their own modes.
    struct stat st {};
    ASSERT_EQ(stat((dest_ + "/sub").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0750u);
    ASSERT_EQ(stat((dest_ + "/sub/deeper").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);

    // A path the archive does not hold is named, and fails the command.
    CtlOutput missing = restore(" other no/such/thing");
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("not in the archive: " + tree_ + "/no/such/thing"), std::string::npos) << missing.err;
    EXPECT_EQ(readFile(dest_ + "/other/z"), "z");
    CtlOutput outside = restore(" /elsewhere/f");
    EXPECT_EQ(outside.status, 2);
    EXPECT_NE(outside.err.find("is not below the archive's source"), std::string::npos) << outside.err;
}

TEST_F(TavikctlRestore, FileTheAgentCannotMakeIsNamedAndFailsTheCommand) {
    // A directory where the archive has the file f: the agent answers 'j'.
    ASSERT_EQ(mkdir(dest_.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((dest_ + "/f").c_str(), 0755), 0);
    CtlOutput r = restore();
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("not restored: " + dest_ + "/f: cannot be created, or a directory of that name is in the way"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("5 files (4 restored, 0 skipped, 1 failed)"), std::string::npos) << r.err;
    // Everything after it still came back.
    EXPECT_EQ(readFile(dest_ + "/g"), "archived g");
    EXPECT_EQ(readFile(dest_ + "/other/z"), "z");
}

TEST_F(TavikctlRestore, RefusedJobAndUsageErrors) {
    // A destination that is not absolute is refused by the agent.
    CtlOutput rel = tavik::test::tavikctl("restore " + archive_ + " 127.0.0.1:relative" + port());
    EXPECT_EQ(rel.status, 2) << rel.err;
    CtlOutput noTarget = tavik::test::tavikctl("restore " + archive_);
    EXPECT_EQ(noTarget.status, 2);
    EXPECT_NE(noTarget.err.find("usage: tavikctl restore ARCHIVE HOST:/dest"), std::string::npos) << noTarget.err;
    // A destination below a regular file cannot be made: 105.
    CtlOutput refused = tavik::test::tavikctl("restore " + archive_ + " 127.0.0.1:" + tree_ + "/f/below" + port());
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("job refused: the destination could not be made or entered (105)"), std::string::npos)
        << refused.err;
}

}  // namespace
