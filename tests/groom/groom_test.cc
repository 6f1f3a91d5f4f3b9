// The grooming library in scratch trees: what is deleted, in which order,
// what is kept, the files it writes, and the protected list.
//
// Every test works under a fresh directory made with mkdtemp below /tmp
// (grooming refuses to work below /dev). Grooming's temporary files, the
// agent's home and log, the package information files and every recorded
// path lie under it. record() refuses any path outside it and abandons the
// grooming (its candidates are removed, so EndGrooming has nothing to
// delete), and endGrooming() checks every candidate line again before
// grooming ends: a test that would reach outside fails first. Dates are
// printed in UTC.
#include "groom/groom.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "daemon/scratch_home.h"
#include "daemon/state.h"
#include "e2e/daemon_fixture.h"
#include "nls/messages.h"

namespace {

using namespace tavik::groom;
using tavik::test::has;
using tavik::test::lines;
using tavik::test::readFile;
using tavik::test::setTimes;
using tavik::test::writeFile;
using tavik::testing::logMessages;
namespace fs = std::filesystem;
namespace protocol = tavik::protocol;

class GroomScratch : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        setenv("NLSPATH", "/nonexistent/%N", 1);  // only the catalogues the tests name
        char tmpl[] = "/tmp/groomtest-XXXXXX";
        char resolved[PATH_MAX];
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        ASSERT_NE(realpath(tmpl, resolved), nullptr);
        root_ = resolved;
        home_ = root_ + "/home";
        tree_ = root_ + "/tree";
        tmp_ = root_ + "/tmp";
        for (const std::string& d : {home_ + "/LOG", tree_, tmp_, root_ + "/pkg/var/sadm/pkg/Korvane",
                                     root_ + "/pkg/var/sadm/pkg/TAVIK"})
            fs::create_directories(d);
        chmod(tmp_.c_str(), 01777);
        chmod(root_.c_str(), 0755);  // a child that drops to nobody must reach the tree
        tavik::paths().deriveFrom(home_ + "/");
        tavik::publishSettings();
        g_.environment.tempDir = tmp_;
        g_.environment.packageRoot = root_ + "/pkg";
        ResetGrooming(g_);
    }

    void TearDown() override {
        ResetGrooming(g_);
        g_.environment = GroomingEnvironment{};
        std::error_code ec;
        fs::remove_all(root_, ec);
        unsetenv("TZ");
        tzset();
    }

    Grooming g_;

    bool inScratch(const std::string& path) const { return path.rfind(root_ + "/", 0) == 0; }

    // Records `path` with its lstat status.
    void record(const std::string& path) {
        if (!inScratch(path)) {
            ADD_FAILURE() << "refusing to record " << path << " outside the scratch root " << root_;
            RemoveGroomingTempFiles(g_);
            return;
        }
        struct stat st;
        ASSERT_EQ(lstat(path.c_str(), &st), 0) << path;
        ASSERT_EQ(RecordGrooming(g_, path.c_str(), st), 0);
    }

    // EndGrooming, once every candidate is known to lie in the scratch root.
    int endGrooming() {
        for (const std::string& line : lines(readFile(GroomingCandidatesFile(g_)))) {
            if (!inScratch(line.substr(line.find(' ') + 1))) {
                ADD_FAILURE() << "candidate outside the scratch root: " << line;
                RemoveGroomingTempFiles(g_);
                return -99;
            }
        }
        return EndGrooming(g_);
    }

    // Begins a deleting grooming (which does not use the set name).
    int begin(const char* set = "") { return BeginGrooming(g_, logDir().c_str(), set, deleting(), tape()); }

    std::string makeFile(const std::string& rel, size_t size) {
        std::string path = tree_ + "/" + rel;
        fs::create_directories(fs::path(path).parent_path());
        writeFile(path, std::string(size, 'g'));
        return path;
    }


    static protocol::GroomingRecord deleting() { return {.fOptions = protocol::kGroomDelete, .rotationSet = ""}; }
    static protocol::TapeRecord tape() { return {.tapeID = "T0001", .sessionNumber = "0042", .tapeName = "WEEKLY-07"}; }
    std::string logDir() const { return tavik::paths().logDir; }
    std::vector<std::string> tempFiles() const {
        std::vector<std::string> out;
        for (const auto& e : fs::directory_iterator(tmp_)) out.push_back(e.path().string());
        return out;
    }

    std::string root_, home_, tree_, tmp_;
};

// 2020-01-02 03:00:00 UTC; the fixture runs with TZ=UTC.
constexpr time_t kJan2 = 1577934000;
constexpr uid_t kNobody = 65534;

class GroomingLibrary : public GroomScratch {};

TEST_F(GroomingLibrary, DeletesFiftyRecordedFilesLatestFirst) {
    // Protected: a directory listed in groom.cntl, a "tavik" component, the
    // server package's home and the agent's program file from the package
    // information files.
    writeFile(home_ + "/groom.cntl", "# kept by the administrator\nnot/a/path\n" + tree_ + "/keep\n");
    writeFile(root_ + "/pkg/var/sadm/pkg/Korvane/pkginfo", "PKG=Korvane\nKRV_HOME=" + tree_ + "/server\n");
    writeFile(root_ + "/pkg/var/sadm/pkg/TAVIK/pkginfo", "TVKBIN=" + tree_ + "/agent\nKRV_HOME=/elsewhere\n");
    const std::vector<std::string> kept = {makeFile("keep/a.dat", 10), makeFile("keep/deep/b.dat", 11),
                                           makeFile("app/tavik/c.dat", 12), makeFile("server/d.db", 13),
                                           makeFile("agent/tavik", 14)};
    ASSERT_EQ(begin(), 0);
    std::vector<std::string> recorded;
    for (int i = 0; i < 50; ++i) {
        const std::string dir = "d" + std::to_string(i / 10);
        recorded.push_back(makeFile(dir + "/f" + std::to_string(i % 10), size_t(i * 37 + 1)));
        setTimes(recorded.back(), kJan2, kJan2 + i * 60);
        if (i % 10 == 0 || i < 10) record(tree_ + "/" + dir);  // directories: again harmlessly, never removed
        record(recorded.back());
        if (i % 10 == 4) record(kept[size_t(i / 10)]);
    }
    ASSERT_EQ(endGrooming(), 0);
    EXPECT_EQ(GroomedCount(g_), 50);
    for (const std::string& path : recorded) EXPECT_FALSE(fs::exists(path)) << path;
    for (const std::string& path : kept) EXPECT_TRUE(fs::exists(path)) << path;

    // The work file: blank line, the two tape texts (no catalogue is open,
    // so both read "catgetsErr"), blank line, one line per deleted file
    // latest recorded first, blank line, the count's text.
    std::string expected = "\ncatgetsErrcatgetsErr\n";
    std::vector<std::string> deleteLines;
    for (int i = 49; i >= 0; --i) {
        char line[2048];
        snprintf(line, sizeof line, "01/02/20 03:%02d %12d %s\n", i, i * 37 + 1, recorded[size_t(i)].c_str());
        expected += line;
        deleteLines.push_back("Delete " + recorded[size_t(i)]);
    }
    EXPECT_EQ(readFile(GroomingWorkFile(g_)), expected + "\ncatgetsErr");
    EXPECT_EQ(tempFiles(), std::vector<std::string>{GroomingWorkFile(g_)}) << "only the work file is left";
    // MigrateLog puts one "Delete" line per deleted file into the agent log.
    ASSERT_EQ(MigrateLog(GroomingWorkFile(g_)), 0);
    EXPECT_EQ(logMessages(), deleteLines);
}

TEST_F(GroomingLibrary, UnremovableFileIsLoggedAndSkipped) {
    // The grooming runs in a child without the right to remove under ro/:
    // as root the child becomes nobody, otherwise ro/ is made read-only.
    const std::string ro1 = makeFile("ro/one", 3), ro2 = makeFile("ro/two", 4), ok = makeFile("ok/three", 5);
    setTimes(ok, kJan2, kJan2);
    const bool root = geteuid() == 0;
    ASSERT_EQ(root ? chown((tree_ + "/ok").c_str(), kNobody, kNobody) : chmod((tree_ + "/ro").c_str(), 0555), 0);
    setenv("LANG", "C", 1);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        tavik::nls::CloseMessages();
        tavik::nls::OpenMessages(TAVIK_CATALOGUE_HOME, "tavik");
        if (root && (setgid(kNobody) != 0 || setuid(kNobody) != 0)) _exit(3);
        if (begin() != 0) _exit(3);
        for (const std::string& p : {ro1, ok, ro2}) {
            struct stat st;
            if (lstat(p.c_str(), &st) != 0 || RecordGrooming(g_, p.c_str(), st) != 0) _exit(4);
        }
        _exit(EndGrooming(g_) == 0 && GroomedCount(g_) == 1 ? 0 : 5);
    }
    ASSERT_EQ(tavik::testing::exitStatusOf(pid), 0);
    chmod((tree_ + "/ro").c_str(), 0755);
    EXPECT_TRUE(fs::exists(ro1) && fs::exists(ro2));
    EXPECT_FALSE(fs::exists(ok));
    const std::vector<std::string> left = tempFiles();
    ASSERT_EQ(left.size(), 1u) << "the child leaves only its work file";
    EXPECT_EQ(readFile(left[0]), "\nTape name: WEEKLY-07\nSession number: 0042\n\n"
                                 "(EndGrooming) Could not remove " + ro2 + " (Permission denied)\n"
                                 "01/02/20 03:00            5 " + ok + "\n"
                                 "(EndGrooming) Could not remove " + ro1 + " (Permission denied)\n"
                                 "\nFiles deleted in all: 1\n");
    ASSERT_EQ(MigrateLog(left[0].c_str()), 0);
    EXPECT_EQ(logMessages(), std::vector<std::string>{"Delete " + ok});
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
    const struct {
        time_t start;
        int months;
        time_t limit;
    } cases[] = {
        {at(2024, 3, 31, 12), 1, at(2024, 2, 29, 0)},  // leap year
        {at(2023, 3, 31, 12), 1, at(2023, 2, 28, 0)},
        {at(2000, 3, 31, 12), 1, at(2000, 2, 29, 0)},  // divisible by 400
        {at(2100, 3, 31, 12), 1, at(2100, 2, 28, 0)},  // divisible by 100
        {at(2024, 3, 30, 23), 1, at(2024, 2, 29, 0)},  {at(2024, 5, 31, 1), 1, at(2024, 4, 30, 0)},
        {at(2024, 5, 15, 10), 3, at(2024, 2, 15, 0)},  {at(2024, 1, 31, 10), 1, at(2023, 12, 31, 0)},
        {at(2024, 2, 10, 10), 14, at(2022, 12, 10, 0)}, {at(2024, 7, 4, 18), 0, at(2024, 7, 4, 0)},
    };
    for (const auto& c : cases) EXPECT_EQ(GroomAgeLimit(c.start, c.months), c.limit) << ctime(&c.start);
}

TEST_F(GroomingLibrary, RecordingPassesOverWhatIsNotEligible) {
    // Nothing recorded here is ever deleted: grooming is abandoned below.
    ASSERT_EQ(begin(), 0);
    struct stat file = {}, dir = {};
    file.st_mode = S_IFREG | 0644;
    dir.st_mode = S_IFDIR | 0755;
    // Recorded: a directory directly under "/", /usr/library, a "tavikd"
    // component. Passed over: a file directly under "/", anything under
    // /usr/lib, a "tavik" or "Korvane" component, /etc, /var/sadm/pkg, a
    // newline that would split the line, relative and over-long paths.
    const std::string longPath = "/long/" + std::string(1100, 'x');
    const struct {
        const char* path;
        const struct stat& st;
    } cases[] = {
        {"/core", file}, {"/tmp", dir}, {"/usr/lib/x", file}, {"/usr/library/x", file}, {"/opt/tavik/bin/x", file},
        {"/opt/tavikd/x", file}, {"/home/u/Korvane", file}, {"/etc", dir}, {"/var/sadm/pkg/x", file},
        {"/a/b\n9 /c/d", file}, {"", file}, {"core", file}, {longPath.c_str(), file},
    };
    for (const auto& c : cases) EXPECT_EQ(RecordGrooming(g_, c.path, c.st), 0) << c.path;
    EXPECT_EQ(readFile(GroomingCandidatesFile(g_)), "1 /tmp\n2 /usr/library/x\n3 /opt/tavikd/x\n");

    const std::string candidates = GroomingCandidatesFile(g_), work = GroomingWorkFile(g_);
    // A forked child's cleanup leaves the parent's files alone.
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        RemoveGroomingTempFiles(g_);  // what cleanup does in any process
        _exit(0);
    }
    ASSERT_EQ(tavik::testing::exitStatusOf(pid), 0);
    EXPECT_TRUE(fs::exists(candidates) && fs::exists(work));
    RemoveGroomingTempFiles(g_);
    RemoveGroomingTempFiles(g_);  // twice is harmless
    EXPECT_FALSE(fs::exists(candidates) || fs::exists(work));
    EXPECT_EQ(EndGrooming(g_), -1) << "grooming was abandoned";
    EXPECT_EQ(RecordGrooming(g_, "/usr/library/y", file), 0);
    EXPECT_TRUE(tempFiles().empty());
}

TEST_F(GroomingLibrary, LinksNeverLeadIntoProtectedDirectories) {
    writeFile(home_ + "/groom.cntl", tree_ + "/keep/\n");
    const std::string precious = makeFile("keep/precious", 3), swapped = makeFile("keep/f", 3);
    const std::string later = makeFile("keep/later", 1), plain = makeFile("plain/f", 3);
    fs::create_directory_symlink(tree_ + "/keep", tree_ + "/link");
    ASSERT_EQ(begin(), 0);
    record(tree_ + "/link/precious");
    // A directory swapped for a link after its file was recorded.
    record(plain);
    fs::rename(tree_ + "/plain", tree_ + "/plain-moved");
    fs::create_directory_symlink(tree_ + "/keep", tree_ + "/plain");
    ASSERT_EQ(endGrooming(), 0);
    EXPECT_EQ(GroomedCount(g_), 0);
    EXPECT_TRUE(fs::exists(precious) && fs::exists(swapped) && fs::exists(tree_ + "/plain-moved/f"));

    // groom.cntl is read for every grooming, unchanged or not; a missing one stops nothing.
    for (bool cntl : {true, false}) {
        if (!cntl) fs::remove(home_ + "/groom.cntl");
        ASSERT_EQ(begin(), 0);
        record(later);
        ASSERT_EQ(endGrooming(), 0);
        EXPECT_EQ(fs::exists(later), cntl);
    }
}

// Between recording and deletion a file is replaced or goes away: only
// what is still what was recorded is deleted, and the rest is reported.
// Enough files are recorded that their identities fill the side file over
// several writes. (A directory swapped for a link, root's or the login's, is
// GroomingDoesNotDeleteThroughASwappedDirectory's attack, end to end.)
TEST_F(GroomingLibrary, DeletesOnlyWhatIsStillWhatWasRecorded) {
    setenv("LANG", "C", 1);
    tavik::nls::CloseMessages();  // texts looked up before the catalogue was open are forgotten
    tavik::nls::OpenMessages(TAVIK_CATALOGUE_HOME, "tavik");
    const bool root = geteuid() == 0;
    const std::string refused = root ? "Permission denied" : "Stale file handle";
    makeFile("e/target", 1);
    fs::create_symlink("target", tree_ + "/e/link");
    makeFile("g-real/f", 1);
    fs::create_directory_symlink(tree_ + "/g-real", tree_ + "/g");
    if (root) lchown((tree_ + "/g").c_str(), kNobody, kNobody);
    const struct {
        std::string path;
        std::function<void()> change;
        std::string line;  // reported in the work file; empty: deleted or passed over
        bool deleted;
    } rows[] = {
        {makeFile("c/f", 1), [&] { fs::rename(tree_ + "/c/f", tree_ + "/c/f-old"), makeFile("c/f", 2); },
         "Stale file handle", false},
        {makeFile("d/f", 1), [&] { fs::remove(tree_ + "/d/f"); }, "", false},
        {tree_ + "/e/link", [] {}, "", true},  // recorded by where it leads, as a walk that follows links does
        {tree_ + "/g/f", [] {}, refused, false},  // recorded through another user's link
    };
    ASSERT_EQ(begin(), 0);
    std::vector<std::string> plain;
    for (int i = 0; i < 150; ++i) {
        plain.push_back(makeFile("p/" + std::to_string(i), 1));
        struct stat st, dir;
        ASSERT_EQ(lstat(plain.back().c_str(), &st), 0);
        ASSERT_EQ(stat((tree_ + "/p").c_str(), &dir), 0);
        if (i % 2) {
            record(plain.back());
        } else {
            RecordGrooming(g_, plain.back().c_str(), st, tavik::platform::identityOf(dir));
        }
        if (i % 40) continue;
        const auto& row = rows[size_t(i / 40)];
        const fs::path parent = fs::path(row.path).parent_path();
        ASSERT_EQ(stat(row.path.c_str(), &st), 0) << row.path;  // following links
        RecordGrooming(g_, row.path.c_str(), st);
        ASSERT_EQ(stat((tree_ + "/" + parent.filename().string()).c_str(), &dir), 0);
        RecordGrooming(g_, parent.c_str(), dir, {});  // a directory: never deleted
    }
    struct stat st;
    ASSERT_EQ(lstat(rows[3].path.c_str(), &st), 0);
    RecordGrooming(g_, rows[3].path.c_str(), st);
    for (const auto& row : rows) row.change();

    ASSERT_EQ(endGrooming(), 0);
    EXPECT_EQ(GroomedCount(g_), 151);
    for (const std::string& p : plain) EXPECT_FALSE(fs::exists(p)) << p;
    const std::string work = readFile(GroomingWorkFile(g_));
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(has(work, "(EndGrooming) Could not remove " + row.path + " (" + row.line + ")\n"), !row.line.empty());
        EXPECT_EQ(has(work, " " + row.path + "\n"), row.deleted);
    }
    EXPECT_FALSE(fs::exists(tree_ + "/e/link"));
    for (const char* kept : {"c/f", "c/f-old", "e/target", "g-real/f"})
        EXPECT_TRUE(fs::exists(tree_ + "/" + kept)) << kept;
    tavik::nls::CloseMessages();
}

TEST_F(GroomingLibrary, WithoutTemporaryDirectoryNothingIsDeleted) {
    const std::string a = makeFile("a/a", 1);
    ASSERT_EQ(begin(), 0);
    record(a);
    // The temporary directory goes away: no name for the sorted list.
    fs::rename(tmp_, root_ + "/tmp-moved");
    EXPECT_EQ(endGrooming(), 2);
    // Nor does grooming begin without it; messages then go to standard error.
    EXPECT_EQ(begin(), -1);
    struct stat file = {};
    file.st_mode = S_IFREG;
    EXPECT_EQ(RecordGrooming(g_, a.c_str(), file), 0);
    EXPECT_EQ(EndGrooming(g_), -1);
    EXPECT_TRUE(fs::exists(a));
    testing::internal::CaptureStderr();
    grlog(g_, "to standard error %d\n", 7);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "to standard error 7\n");
}

// The protected list.
std::vector<std::string> names(const GroomList& list) {
    std::vector<std::string> out;
    for (const GroomElement* e = list.get(); e; e = e->next.get()) out.push_back(e->name);
    return out;
}

GroomList listOf(std::initializer_list<const char*> names) {
    Grooming g_;
    GroomList list;
    for (const char* name : names) {
        GroomList e = new_element(g_, (std::string(name) + "\n").c_str());
        e->next = std::move(list);
        list = std::move(e);
    }
    return list;
}

TEST(GroomProtected, PrefixesEndAtAComponentAndNamesMatchComponents) {
    GroomList list = listOf({"/usr/lib", "tavik", "/data/keep/", "/bin"});
    const struct {
        const char* path;
        int want;
    } cases[] = {
        {"/usr/lib", -1},     {"/usr/lib/", -1},     {"/usr/lib/x", -1}, {"/usr/library", 0}, {"/usr/li", 0},
        {"/usr", 0},          {"/opt/tavik", -1},    {"/opt/tavik/x", -1}, {"/tavik", -1},   {"/opt/tavikd/x", 0},
        {"/opt/xtavik", 0},   {"tavik/x", 0},        {"/data/keep/f", -1}, {"/data/keep", -1}, {"/data/keeper", 0},
        {"/bin", -1},         {"/binary", 0},        {"/sbin/x", 0},     {"", 0},            {"/", 0},
    };
    for (const auto& c : cases) EXPECT_EQ(IsProtected(c.path, list.get()), c.want) << c.path;
    EXPECT_EQ(IsProtected("/anything/at/all", listOf({"/"}).get()), -1);
    EXPECT_EQ(IsProtected("/anything", nullptr), 0);
    // An element drops the line's last character, whatever it is.
    Grooming g_;
    EXPECT_EQ(new_element(g_, "x")->name, "");
    EXPECT_EQ(new_element(g_, "")->name, "");
}

class GroomControlFile : public GroomScratch {};
using GroomTexts = GroomControlFile;

TEST_F(GroomControlFile, ReadsLinesThatBeginWithASlash) {
    EXPECT_EQ(ControlFileOf("/opt/agent/LOG/"), "/opt/agent/groom.cntl");
    EXPECT_EQ(ControlFileOf("/var/log/agent"), "/var/log/agent/groom.cntl");
    const std::string cntl = home_ + "/groom.cntl";
    writeFile(cntl, "# comment\n/one\nrelative\n\n  /indented\n/two/\n/" + std::string(5000, 'x') + "\n/last");
    GroomList list;
    ASSERT_EQ(dir_cntl(g_, cntl.c_str(), list), 0);
    EXPECT_EQ(names(list), (std::vector<std::string>{"/last", "/two/", "/one"}));
    // Unchanged since the last read: the list is emptied and not read again.
    ASSERT_EQ(dir_cntl(g_, cntl.c_str(), list), 0);
    EXPECT_EQ(list, nullptr);
    // A missing file protects nothing and is no failure.
    ASSERT_EQ(dir_cntl(g_, (home_ + "/none").c_str(), list), 0);
    EXPECT_EQ(list, nullptr);

    // The package information files: NAME=value lines.
    const std::string info = root_ + "/pkginfo";
    writeFile(info, "PKG=x\nKRV_HOMEDIR=/wrong\nKRV_HOME=/opt/krv=2\nKRV_HOME=/second\n");
    std::string value;
    // The first line that begins with the name wins, even a longer name.
    ASSERT_TRUE(PackageValue(info.c_str(), "KRV_HOME", value));
    EXPECT_EQ(value, "/wrong");
    ASSERT_TRUE(PackageValue(info.c_str(), "KRV_HOME=", value));
    EXPECT_EQ(value, "/opt/krv=2");
    EXPECT_FALSE(PackageValue(info.c_str(), "TVKBIN", value));
    EXPECT_FALSE(PackageValue((root_ + "/none").c_str(), "PKG", value));
    writeFile(info, "TVKBIN=/opt/bin");
    ASSERT_TRUE(PackageValue(info.c_str(), "TVKBIN", value));
    EXPECT_EQ(value, "/opt/bin") << "a last line without its newline keeps all its text";
}

// A catalogue whose grooming texts carry other conversions than the agent
// passes is not used for them.
TEST_F(GroomTexts, DamagedCatalogueTextsAreNotUsedAsFormats) {
    fs::create_directories(root_ + "/nls/C");
    writeFile(root_ + "/bad.msg", "$quote \"\n$set 13\n1 \"%sok %s (%s)\\n\"\n4 \"%s %s %s\\n\"\n5 \"%n\\n\"\n"
                                  "9 \"%s%s\\n\"\n11 \"%ld\\n\"\n");
    ASSERT_EQ(std::system(("gencat " + root_ + "/nls/C/tavik.cat " + root_ + "/bad.msg").c_str()), 0);
    setenv("LANG", "C", 1);
    tavik::nls::CloseMessages();
    tavik::nls::OpenMessages(root_.c_str(), "tavik");
    const struct {
        int number;
        const char* text;
    } cases[] = {{1, "%sok %s (%s)\n"}, {4, "catgetsErr"},  // three texts for one argument
                 {5, "catgetsErr"},     {9, "%s%s\n"},      // fewer conversions are harmless
                 {11, "catgetsErr"},    {2, "catgetsErr"}};  // absent
    for (const auto& c : cases) EXPECT_STREQ(GroomText(c.number), c.text) << c.number;
    tavik::nls::CloseMessages();
}

}  // namespace
