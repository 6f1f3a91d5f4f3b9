// The grooming library end to end in scratch trees: what is deleted, in
// which order, what is kept, and the files it writes.
#include "groom/groom.h"

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <ctime>
#include <functional>

#include "daemon/state.h"
#include "nls/messages.h"
#include "scratch.h"

namespace {

using namespace tavik::groom;
using groomtest::lines;
using groomtest::readFile;
using groomtest::writeFile;
namespace fs = std::filesystem;

// 2020-01-02 03:00:00 UTC; tests that print dates run with TZ=UTC.
constexpr time_t kJan2 = 1577934000;

class GroomingLibrary : public groomtest::GroomScratch {
protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        GroomScratch::SetUp();
    }
    void TearDown() override {
        GroomScratch::TearDown();
        unsetenv("TZ");
        tzset();
    }
};

TEST_F(GroomingLibrary, DeletesFiftyRecordedFilesLatestFirst) {
    // Protected: a directory listed in groom.cntl, a "tavik" component, the
    // server package's home and the agent's program file from the package
    // information files.
    writeFile(home_ + "/groom.cntl", "# kept by the administrator\nnot/a/path\n" + tree_ + "/keep\n");
    writeFile(root_ + "/pkg/var/sadm/pkg/Korvane/pkginfo", "PKG=Korvane\nKRV_HOME=" + tree_ + "/server\n");
    writeFile(root_ + "/pkg/var/sadm/pkg/TAVIK/pkginfo", "TVKBIN=" + tree_ + "/agent\nKRV_HOME=/elsewhere\n");
    std::vector<std::string> kept = {makeFile("keep/a.dat", 10), makeFile("keep/deep/b.dat", 11),
                                     makeFile("app/tavik/c.dat", 12), makeFile("server/d.db", 13),
                                     makeFile("agent/tavik", 14)};
    ASSERT_EQ(BeginGrooming(logDir().c_str(), "", deleting(), tape()), 0);
    EXPECT_EQ(GroomingKind(), kKindDelete);
    EXPECT_EQ(std::string(GroomingCopyFile()), logDir() + "/migrate.log");

    std::vector<std::string> recorded;
    for (int i = 0; i < 50; ++i) {
        std::string path = makeFile("d" + std::to_string(i / 10) + "/f" + std::to_string(i % 10) + ".dat",
                                    size_t(i * 37 + 1));
        setTimes(path, kJan2, kJan2 + i * 60);
        recorded.push_back(path);
    }
    for (int i = 0; i < 50; ++i) {
        int d = i / 10;
        if (i % 10 == 0) record(tree_ + "/d" + std::to_string(d));  // directories are recorded, never removed
        if (d == 0) record(tree_ + "/d0");  // recording a directory again is harmless
        record(recorded[size_t(i)]);
        if (i % 10 == 4) record(kept[size_t(d)]);
    }
    for (const std::string& path : recorded) ASSERT_TRUE(fs::exists(path));

    ASSERT_EQ(endGrooming(), 0);
    EXPECT_EQ(GroomedCount(), 50);
    for (const std::string& path : recorded) EXPECT_FALSE(fs::exists(path)) << path;
    for (const std::string& path : kept) EXPECT_TRUE(fs::exists(path)) << path;
    for (int d = 0; d < 5; ++d) EXPECT_TRUE(fs::is_directory(tree_ + "/d" + std::to_string(d)));

    // The work file: blank line, the two tape texts (the agent has no
    // catalogue open, so both read "catgetsErr"), blank line, one line per
    // deleted file latest recorded first, blank line, the count's text.
    std::string expected = "\ncatgetsErrcatgetsErr\n";
    for (int i = 49; i >= 0; --i) {
        char line[2048];
        snprintf(line, sizeof line, "01/02/20 03:%02d %12d %s\n", i, i * 37 + 1, recorded[size_t(i)].c_str());
        expected += line;
    }
    expected += "\ncatgetsErr";
    EXPECT_EQ(readFile(GroomingWorkFile()), expected);

    // Only the work file is left of grooming's temporary files.
    EXPECT_EQ(tempFiles(), std::vector<std::string>{GroomingWorkFile()});

    // MigrateLog puts one "Delete" line per deleted file into the agent log.
    ASSERT_EQ(MigrateLog(GroomingWorkFile()), 0);
    std::vector<std::string> logLines = lines(readFile(tavik::paths().logPath));
    ASSERT_EQ(logLines.size(), 50u);
    for (int i = 0; i < 50; ++i) {
        const std::string& line = logLines[size_t(i)];
        std::string want = " - Delete " + recorded[size_t(49 - i)];
        EXPECT_EQ(line.substr(line.size() - want.size()), want);
    }

    RemoveGroomingTempFiles();
    EXPECT_TRUE(tempFiles().empty());
}

TEST_F(GroomingLibrary, UnremovableFileIsLoggedAndSkipped) {
    // The grooming runs in a child without the right to remove under ro/:
    // as root the child becomes nobody, otherwise ro/ is made read-only.
    std::string ro1 = makeFile("ro/one", 3);
    std::string ro2 = makeFile("ro/two", 4);
    std::string ok = makeFile("ok/three", 5);
    setTimes(ok, kJan2, kJan2);
    const uid_t nobody = 65534;
    if (geteuid() == 0) {
        ASSERT_EQ(chown((tree_ + "/ok").c_str(), nobody, nobody), 0);
    } else {
        ASSERT_EQ(chmod((tree_ + "/ro").c_str(), 0555), 0);
    }
    setenv("LANG", "C", 1);
    setenv("NLSPATH", "/nonexistent/%N", 1);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        tavik::nls::CloseMessages();
        tavik::nls::OpenMessages(TAVIK_CATALOGUE_HOME, "tavik");
        if (geteuid() == 0 && (setgid(nobody) != 0 || setuid(nobody) != 0)) _exit(3);
        if (BeginGrooming(logDir().c_str(), "", deleting(), tape()) != 0) _exit(4);
        for (const std::string& p : {ro1, ok, ro2}) {
            struct stat st;
            if (lstat(p.c_str(), &st) != 0 || RecordGrooming(p.c_str(), st) != 0) _exit(5);
        }
        int rc = EndGrooming();
        _exit(rc == 0 && GroomedCount() == 1 ? 0 : 6);
    }
    ASSERT_EQ(tavik::testing::exitStatusOf(pid), 0);
    chmod((tree_ + "/ro").c_str(), 0755);
    EXPECT_TRUE(fs::exists(ro1));
    EXPECT_TRUE(fs::exists(ro2));
    EXPECT_FALSE(fs::exists(ok));
    std::vector<std::string> left = tempFiles();
    ASSERT_EQ(left.size(), 1u) << "the child leaves only its work file";
    EXPECT_EQ(readFile(left[0]), "\nTape name: WEEKLY-07\nSession number: 0042\n\n"
                                 "(EndGrooming) Could not remove " + ro2 + " (Permission denied)\n"
                                 "01/02/20 03:00            5 " + ok + "\n"
                                 "(EndGrooming) Could not remove " + ro1 + " (Permission denied)\n"
                                 "\nFiles deleted in all: 1\n");
    ASSERT_EQ(MigrateLog(left[0].c_str()), 0);
    std::vector<std::string> logLines = lines(readFile(tavik::paths().logPath));
    ASSERT_EQ(logLines.size(), 1u);
    EXPECT_NE(logLines[0].find(" - Delete " + ok), std::string::npos);
}

TEST_F(GroomingLibrary, RotationSetHonoursAgeOnBothTimes) {
    time_t now = time(nullptr);
    time_t old = now - 400 * 86400;
    std::string stale = makeFile("r/stale", 7);
    std::string read = makeFile("r/read-recently", 8);
    std::string written = makeFile("r/written-recently", 9);
    setTimes(stale, old, old);
    setTimes(read, now - 3600, old);
    setTimes(written, old, now - 3600);
    ASSERT_EQ(BeginGrooming(logDir().c_str(), "WEEKSET", rotation(1), tape()), 0);
    EXPECT_EQ(GroomingKind(), kKindRotation);
    EXPECT_EQ(std::string(GroomingCopyFile()), logDir() + "/WEEKSET.grm");
    record(stale);
    record(read);
    record(written);
    record(tree_ + "/r");  // a new directory: too young to be listed
    EXPECT_EQ(readFile(GroomingCandidatesFile()), "1 " + stale + "\n");
    ASSERT_EQ(endGrooming(), 0);
    EXPECT_EQ(GroomedCount(), 1);
    EXPECT_FALSE(fs::exists(stale));
    EXPECT_TRUE(fs::exists(read));
    EXPECT_TRUE(fs::exists(written));
}

TEST_F(GroomingLibrary, AgeLimitStepsBackToTheEndOfShorterMonths) {
    auto at = [](int y, int m, int d, int h) {
        struct tm t = {};
        t.tm_year = y - 1900;
        t.tm_mon = m - 1;
        t.tm_mday = d;
        t.tm_hour = h;
        t.tm_isdst = -1;
        return mktime(&t);
    };
    struct Case {
        time_t start;
        int months;
        time_t limit;
    } cases[] = {
        {at(2024, 3, 31, 12), 1, at(2024, 2, 29, 0)},   // leap year
        {at(2023, 3, 31, 12), 1, at(2023, 2, 28, 0)},
        {at(2000, 3, 31, 12), 1, at(2000, 2, 29, 0)},   // divisible by 400
        {at(2100, 3, 31, 12), 1, at(2100, 2, 28, 0)},   // divisible by 100
        {at(2024, 3, 30, 23), 1, at(2024, 2, 29, 0)},
        {at(2024, 5, 31, 1), 1, at(2024, 4, 30, 0)},
        {at(2024, 5, 15, 10), 3, at(2024, 2, 15, 0)},
        {at(2024, 1, 31, 10), 1, at(2023, 12, 31, 0)},
        {at(2024, 2, 10, 10), 14, at(2022, 12, 10, 0)},
        {at(2024, 7, 4, 18), 0, at(2024, 7, 4, 0)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(ctime(&c.start));
        EXPECT_EQ(GroomAgeLimit(c.start, c.months), c.limit);
    }
}

TEST_F(GroomingLibrary, RecordingPassesOverWhatIsNotEligible) {
    // Nothing recorded here is ever deleted: grooming is abandoned below.
    ASSERT_EQ(BeginGrooming(logDir().c_str(), "", deleting(), tape()), 0);
    struct stat file = {};
    file.st_mode = S_IFREG | 0644;
    struct stat dir = {};
    dir.st_mode = S_IFDIR | 0755;
    struct {
        const char* path;
        const struct stat& st;
    } cases[] = {
        {"/core", file},                // a file directly under "/"
        {"/tmp", dir},                  // a directory directly under "/": recorded
        {"/usr/lib/x", file},           // under /usr/lib
        {"/usr/library/x", file},       // not under /usr/lib: recorded
        {"/opt/tavik/bin/x", file},     // a "tavik" component
        {"/opt/tavikd/x", file},        // not a "tavik" component: recorded
        {"/home/u/Korvane", file},
        {"/etc", dir},
        {"/var/sadm/pkg/x", file},
        {"/a/b\n9 /c/d", file},         // a newline would split the line
        {"", file},
        {"core", file},
    };
    for (const auto& c : cases) EXPECT_EQ(RecordGrooming(c.path, c.st), 0);
    std::string longPath = "/long/" + std::string(1100, 'x');
    EXPECT_EQ(RecordGrooming(longPath.c_str(), file), 0);
    EXPECT_EQ(readFile(GroomingCandidatesFile()), "1 /tmp\n2 /usr/library/x\n3 /opt/tavikd/x\n");

    std::string candidates = GroomingCandidatesFile();
    std::string work = GroomingWorkFile();
    RemoveGroomingTempFiles();
    EXPECT_FALSE(fs::exists(candidates));
    EXPECT_FALSE(fs::exists(work));
    RemoveGroomingTempFiles();  // twice is harmless
    EXPECT_EQ(EndGrooming(), -1) << "grooming was abandoned";
    EXPECT_EQ(RecordGrooming("/usr/library/y", file), 0);
    EXPECT_TRUE(tempFiles().empty());
}

TEST_F(GroomingLibrary, ForkedChildLeavesTheParentsFilesAlone) {
    ASSERT_EQ(BeginGrooming(logDir().c_str(), "", deleting(), tape()), 0);
    std::string candidates = GroomingCandidatesFile();
    std::string work = GroomingWorkFile();
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        RemoveGroomingTempFiles();  // what cleanup does in any process
        _exit(0);
    }
    ASSERT_EQ(tavik::testing::exitStatusOf(pid), 0);
    EXPECT_TRUE(fs::exists(candidates));
    EXPECT_TRUE(fs::exists(work));
    RemoveGroomingTempFiles();
    EXPECT_FALSE(fs::exists(candidates));
    EXPECT_FALSE(fs::exists(work));
}

TEST_F(GroomingLibrary, LinksNeverLeadIntoProtectedDirectories) {
    writeFile(home_ + "/groom.cntl", tree_ + "/keep/\n");
    std::string precious = makeFile("keep/precious", 3);
    std::string swapped = makeFile("keep/f", 3);
    std::string later = makeFile("keep/later", 1);
    std::string plain = makeFile("plain/f", 3);
    fs::create_directory_symlink(tree_ + "/keep", tree_ + "/link");
    ASSERT_EQ(BeginGrooming(logDir().c_str(), "", deleting(), tape()), 0);
    record(tree_ + "/link/precious");
    // A directory swapped for a link after its file was recorded.
    record(plain);
    fs::rename(tree_ + "/plain", tree_ + "/plain-moved");
    fs::create_directory_symlink(tree_ + "/keep", tree_ + "/plain");
    ASSERT_EQ(endGrooming(), 0);
    EXPECT_EQ(GroomedCount(), 0);
    EXPECT_TRUE(fs::exists(precious));
    EXPECT_TRUE(fs::exists(swapped));
    EXPECT_TRUE(fs::exists(tree_ + "/plain-moved/f"));

    // groom.cntl is read for every grooming, unchanged or not.
    ASSERT_EQ(BeginGrooming(logDir().c_str(), "", deleting(), tape()), 0);
    record(later);
    ASSERT_EQ(endGrooming(), 0);
    EXPECT_TRUE(fs::exists(later)) << "the second grooming kept the control file's names";

    // A missing control file stops nothing.
    fs::remove(home_ + "/groom.cntl");
    ASSERT_EQ(BeginGrooming(logDir().c_str(), "", deleting(), tape()), 0);
    record(later);
    ASSERT_EQ(endGrooming(), 0);
    EXPECT_FALSE(fs::exists(later));
}

// Between recording and deletion a directory becomes a link, a file is
// replaced or goes away: only what is still what was recorded is deleted,
// and the rest is reported. Enough files are recorded that their identities
// fill the side file over several writes.
TEST_F(GroomingLibrary, DeletesOnlyWhatIsStillWhatWasRecorded) {
    setenv("LANG", "C", 1);
    tavik::nls::CloseMessages();  // texts looked up before the catalogue was open are forgotten
    tavik::nls::OpenMessages(TAVIK_CATALOGUE_HOME, "tavik");
    const bool root = geteuid() == 0;
    const std::string refused = root ? "Permission denied" : "Stale file handle";
    auto swapForLink = [&](const std::string& dir, uid_t owner) {
        fs::rename(tree_ + "/" + dir, tree_ + "/" + dir + "-moved");
        fs::create_directory_symlink(tree_ + "/other", tree_ + "/" + dir);
        if (root) lchown((tree_ + "/" + dir).c_str(), owner, owner);
    };
    makeFile("other/f", 9);  // where the swapped directories lead
    makeFile("e/target", 1);
    fs::create_symlink("target", tree_ + "/e/link");
    makeFile("g-real/f", 1);
    fs::create_directory_symlink(tree_ + "/g-real", tree_ + "/g");
    if (root) lchown((tree_ + "/g").c_str(), 65534, 65534);
    const struct {
        std::string path;
        std::function<void()> change;
        std::string line;  // reported in the work file; empty: deleted or passed over
        bool deleted;
    } rows[] = {
        {makeFile("a/f", 1), [&] { swapForLink("a", 0); }, "Stale file handle", false},
        {makeFile("b/f", 1), [&] { swapForLink("b", 65534); }, refused, false},
        {makeFile("c/f", 1), [&] { fs::rename(tree_ + "/c/f", tree_ + "/c/f-old"), makeFile("c/f", 2); },
         "Stale file handle", false},
        {makeFile("d/f", 1), [&] { fs::remove(tree_ + "/d/f"); }, "", false},
        {tree_ + "/e/link", [] {}, "", true},  // recorded by where it leads, as a walk that follows links does
        {tree_ + "/g/f", [] {}, refused, false},  // recorded through another user's link
    };
    ASSERT_EQ(BeginGrooming(logDir().c_str(), "", deleting(), tape()), 0);
    std::vector<std::string> plain;
    for (int i = 0; i < 150; ++i) {
        plain.push_back(makeFile("p/" + std::to_string(i), 1));
        struct stat st, dir;
        ASSERT_EQ(lstat(plain.back().c_str(), &st), 0);
        ASSERT_EQ(stat((tree_ + "/p").c_str(), &dir), 0);
        if (i % 2) {
            record(plain.back());
        } else {
            RecordGrooming(plain.back().c_str(), st, tavik::platform::identityOf(dir));
        }
        if (i % 30) continue;
        const auto& row = rows[size_t(i / 30)];
        ASSERT_EQ(stat(row.path.c_str(), &st), 0) << row.path;  // following links
        RecordGrooming(row.path.c_str(), st);
        ASSERT_EQ(stat((tree_ + "/" + fs::path(row.path).parent_path().filename().string()).c_str(), &dir), 0);
        RecordGrooming(fs::path(row.path).parent_path().c_str(), dir, {});  // a directory: never deleted
    }
    struct stat st;
    ASSERT_EQ(lstat(rows[5].path.c_str(), &st), 0);
    RecordGrooming(rows[5].path.c_str(), st);
    for (const auto& row : rows) row.change();

    ASSERT_EQ(endGrooming(), 0);
    EXPECT_EQ(GroomedCount(), 151);
    for (const std::string& p : plain) EXPECT_FALSE(fs::exists(p)) << p;
    std::string work = readFile(GroomingWorkFile());
    auto has = [&](const std::string& text) { return work.find(text) != std::string::npos; };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        std::string reported = "(EndGrooming) Could not remove " + row.path + " (" + row.line + ")\n";
        EXPECT_EQ(has(reported), !row.line.empty());
        EXPECT_EQ(has(" " + row.path + "\n"), row.deleted);
    }
    EXPECT_FALSE(fs::exists(tree_ + "/e/link"));
    for (const char* kept : {"other/f", "a-moved/f", "b-moved/f", "c/f", "c/f-old", "e/target", "g-real/f"})
        EXPECT_TRUE(fs::exists(tree_ + "/" + kept)) << kept;
    tavik::nls::CloseMessages();
    unsetenv("LANG");
}

TEST_F(GroomingLibrary, RotationSetNameMustBeAPlainFileName) {
    for (const char* set : {"../../x", "a/b", "/x", "..", ".", ""}) {
        SCOPED_TRACE(set);
        EXPECT_EQ(BeginGrooming(logDir().c_str(), set, rotation(1), tape()), -1);
        EXPECT_STREQ(GroomingCopyFile(), "");
        EXPECT_TRUE(tempFiles().empty()) << "nothing is written";
        std::string line = "(BeginGrooming) The rotation set name [" + std::string(set) + "] is not a plain file name";
        EXPECT_NE(readFile(tavik::paths().logPath).find(line), std::string::npos);
    }
    ASSERT_EQ(BeginGrooming(logDir().c_str(), "..x", rotation(1), tape()), 0);
    EXPECT_EQ(std::string(GroomingCopyFile()), logDir() + "/..x.grm");
    ASSERT_EQ(BeginGrooming(logDir().c_str(), "a/b", deleting(), tape()), 0);  // no set: its name is not used
    EXPECT_EQ(std::string(GroomingCopyFile()), logDir() + "/migrate.log");
}

TEST_F(GroomingLibrary, WithoutTemporaryDirectoryNothingIsDeleted) {
    std::string a = makeFile("a/a", 1);
    ASSERT_EQ(BeginGrooming(logDir().c_str(), "", deleting(), tape()), 0);
    record(a);
    // The temporary directory goes away: no name for the sorted list.
    fs::rename(tmp_, root_ + "/tmp-moved");
    EXPECT_EQ(endGrooming(), 2);
    EXPECT_TRUE(fs::exists(a));
    // Nor does grooming begin without it; messages then go to standard error.
    EXPECT_EQ(BeginGrooming(logDir().c_str(), "", deleting(), tape()), -1);
    struct stat file = {};
    file.st_mode = S_IFREG;
    EXPECT_EQ(RecordGrooming(a.c_str(), file), 0);
    EXPECT_EQ(EndGrooming(), -1);
    EXPECT_TRUE(fs::exists(a));
    testing::internal::CaptureStderr();
    grlog("to standard error %d\n", 7);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "to standard error 7\n");
}

TEST_F(GroomingLibrary, MigrateLogReadsTheFourthWord) {
    std::string work = root_ + "/work";
    writeFile(work, "\n"
                    "Tape name: /not/a/deletion\n"
                    "01/02/20 03:00            5 /a/b\n"
                    "(EndGrooming) Could not remove /c (Permission denied)\n"
                    "w x y /p q\n"
                    "1 2 3 relative\n"
                    "01/02/20 03:00 7 /last");
    ASSERT_EQ(MigrateLog(work.c_str()), 0);
    std::vector<std::string> logLines = lines(readFile(tavik::paths().logPath));
    ASSERT_EQ(logLines.size(), 3u);
    EXPECT_NE(logLines[0].find(" - Delete /a/b"), std::string::npos);
    EXPECT_NE(logLines[1].find(" - Delete /p"), std::string::npos);
    EXPECT_NE(logLines[2].find(" - Delete /last"), std::string::npos);

    EXPECT_EQ(MigrateLog((root_ + "/none").c_str()), -1);
    std::string last = lines(readFile(tavik::paths().logPath)).back();
    EXPECT_NE(last.find(" - (MigrateLog) Faied to open " + root_ + "/none (No such file or directory)"),
              std::string::npos) << last;
}

}  // namespace
