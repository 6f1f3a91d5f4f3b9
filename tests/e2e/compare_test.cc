// Compare jobs on a real daemon: a test login, the front-end's job client
// and the restore stream driver replay a backup of a scratch tree with
// changes made on disk; every verdict byte, the log lines, the access times
// and, with grooming, the files left on disk and the grooming report are
// checked. Names are sent relative to the job's root.
#include <sys/sysmacros.h>

#include <filesystem>

#include "e2e/restore_driver.h"
#include "e2e/test_user.h"
#include "log/ulog.h"
#include "platform/wire_stat.h"

namespace {

using namespace tavik::test;
using tavik::frontend::kNoAnswer;
using tavik::restore::RestoreAttributes;
namespace fs = std::filesystem;

constexpr time_t kOld = 631152000;  // 1990-01-01
constexpr time_t kBackupTime = 1600000000;
constexpr uint8_t kDetailed = 0x80;
constexpr uint8_t kNoAccessReset = 0x08;

// The answers of one file: after OPENFILE and after ENDF.
using Verdicts = std::pair<int, int>;

// What the agent sends after END with grooming: code 14, the 16-byte count,
// the work file's packets (code and data).
struct GroomingReport {
    std::string count;
    std::vector<std::pair<int, std::string>> packets;
    std::string work() const {
        std::string all;
        for (const auto& p : packets) all += p.second;
        return all;
    }
};

class CompareTest : public LoginJobTest {
protected:
    void SetUp() override {
        LoginJobTest::SetUp();
        if (!IsSkipped() && !HasFailure()) makeWork();
    }
    // Request, options (two lock attempts a second apart, divided by the
    // time divisor), grooming, start: the answer to the request.
    int beginCompare(uint8_t flags = 0, uint16_t ack = 0, const std::vector<uint8_t>& groom = {}, uint8_t follow = 0) {
        auto f = fields(work_, 2);
        f.follow = follow;
        return begin(f, optionsRecord(2, 1, flags), ack, groom);
    }
    // A file of the login's with `content`, accessed 100 s before `mtime`.
    void makeFile(const std::string& rel, const std::string& content, mode_t mode = 0644, time_t mtime = kBackupTime) {
        fs::create_directories(fs::path(at(rel)).parent_path());
        std::ofstream(at(rel), std::ios::binary) << content;
        chown(at(rel).c_str(), user_.uid(), user_.gid());
        chmod(at(rel).c_str(), mode);
        setTimes(at(rel), mtime - 100, mtime);
    }
    void makeDir(const std::string& rel) {
        mkdir(at(rel).c_str(), 0755);
        chown(at(rel).c_str(), user_.uid(), user_.gid());
    }
    // What a backup of the object on disk says now, under its relative name
    // (or `as`).
    RestoreAttributes tapeOf(const std::string& rel, const std::string& as = "") const {
        using namespace tavik::platform;
        struct stat st = statOf(rel.empty() ? work_ : at(rel));
        return {.dev = encodeDev32(st.st_dev), .ino = uint32_t(st.st_ino), .mode = st.st_mode,
                .nlink = uint32_t(st.st_nlink), .uid = st.st_uid, .gid = st.st_gid, .rdev = encodeDev32(st.st_rdev),
                .atime = wireTime(st.st_atime), .mtime = wireTime(st.st_mtime), .size = wireSize(st.st_size),
                .name = as.empty() ? rel : as};
    }
    // OPENFILE, its answer, the data.
    Verdicts compareFile(RestoreDriver& r, const RestoreAttributes& a, const std::string& data = "") {
        if (!r.openFile(a)) return {kNoAnswer, kNoAnswer};
        int open = r.status();
        return {open, r.data(data)};
    }
    int compareDir(RestoreDriver& r, const RestoreAttributes& a) { return r.mkdir(a) ? r.status() : kNoAnswer; }
    // END, the grooming report, then the end answer (3) and the close.
    GroomingReport endWithGrooming(RestoreDriver& r) {
        GroomingReport report;
        EXPECT_TRUE(r.send(tavik::restore::command::kEnd));
        EXPECT_EQ(client_.readAnswer(), 14);
        std::array<uint8_t, 16> text{};
        EXPECT_TRUE(client_.recvRaw(text));
        report.count.assign(text.begin(), text.end());
        for (int code = 7; code == 7 && report.packets.size() < 1000;) {
            std::array<uint8_t, 8> h{};
            if (!client_.recvRaw(h)) break;
            code = h[2];
            std::string data(tavik::wire::loadLe16(&h[6]), '\0');
            if (!data.empty() && !client_.recvRaw({reinterpret_cast<uint8_t*>(data.data()), data.size()})) break;
            report.packets.emplace_back(code, data);
        }
        EXPECT_EQ(r.status(), 3);
        EXPECT_TRUE(agentCloses());
        return report;
    }
};

TEST_F(CompareTest, AnUnchangedTreeIsIdenticalEverywhereAndKeepsItsAccessTimes) {
    ASSERT_TRUE(startDaemon());
    makeDir("sub");
    std::map<std::string, std::string> files = {
        {"empty", ""},
        {"small", "small file\n"},
        {"batch", pattern(4296, 1)},     // exactly one comparison block
        {"sub/big", pattern(20000, 2)},  // blocks at MOF and a rest at ENDF
        {"sub/odd", pattern(6000, 3)},
    };
    for (const auto& [rel, content] : files) makeFile(rel, content);
    makeFile("mandatory", "locks tested, none held", 02644);  // the read lock test passes
    symlink("sub/big", at("link").c_str());
    lchown(at("link").c_str(), user_.uid(), user_.gid());
    mkfifo(at("fifo").c_str(), 0600);
    chown(at("fifo").c_str(), user_.uid(), user_.gid());
    // Access times before the modification times: a plain read would move them.
    const time_t atime = kBackupTime - 5000;
    for (const auto& [rel, content] : files) setTimes(at(rel), atime, kBackupTime, 123456789);

    ASSERT_EQ(beginCompare(0, 3), 4) << client_.lastError();
    RestoreDriver r(client_, 3);
    EXPECT_EQ(compareDir(r, tapeOf("")), 0);  // the root itself
    EXPECT_EQ(compareDir(r, tapeOf("sub")), 0);
    for (const auto& [rel, content] : files) EXPECT_EQ(compareFile(r, tapeOf(rel), content), (Verdicts{0, 0})) << rel;
    EXPECT_EQ(compareFile(r, tapeOf("mandatory"), "locks tested, none held"), (Verdicts{0, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("link"), "sub/big"), (Verdicts{0, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("fifo")), (Verdicts{0, 0}));
    EXPECT_EQ(r.acks(), 4);  // 13 MOF packets, every third acknowledged
    EXPECT_EQ(r.end(), 3);
    EXPECT_TRUE(agentCloses());
    for (const auto& [rel, content] : files) {
        struct stat st = statOf(at(rel));
        EXPECT_EQ(st.st_atim.tv_sec, atime) << rel;
        EXPECT_EQ(st.st_atim.tv_nsec, 123456789) << rel;
        EXPECT_EQ(st.st_mtime, kBackupTime) << rel;
    }
    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost"));
    EXPECT_TRUE(logHas("Start Compare Job From localhost(" + user_.name() + "), Destination = " + work_));
    EXPECT_TRUE(logHas("SO_RCVBUF = "));
    EXPECT_TRUE(logHas(" - Workstation Compare Ended"));
    EXPECT_FALSE(logHas("changed"));

    // Without the access time reset a file read by the job shows its new
    // access time (where reads update access times at all).
    setTimes(at("small"), atime, kBackupTime);
    readFile(at("small"));
    if (statOf(at("small")).st_atime == atime) GTEST_SKIP() << "reads do not update access times here";
    setTimes(at("sub/big"), atime, kBackupTime);
    ASSERT_EQ(beginCompare(kNoAccessReset), 4);
    RestoreDriver again(client_);
    EXPECT_EQ(compareFile(again, tapeOf("sub/big"), files["sub/big"]), (Verdicts{0, 0}));
    EXPECT_EQ(again.end(), 3);
    EXPECT_GT(statOf(at("sub/big")).st_atime, kBackupTime);
}

TEST_F(CompareTest, AttributeDifferencesGiveSummaryOrDetailedCodes) {
    ASSERT_TRUE(startDaemon());
    makeFile("f", "same contents");
    makeDir("d");
    ASSERT_EQ(mknod(at("dev").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    chown(at("dev").c_str(), user_.uid(), user_.gid());
    setTimes(at("dev"), kBackupTime, kBackupTime);
    setTimes(at("d"), kBackupTime, kBackupTime);

    struct Case {
        const char* what;
        void (*change)(RestoreAttributes&);
        uint8_t code;
    };
    const Case cases[] = {
        {"mode", [](RestoreAttributes& a) { a.mode ^= 0044; }, 0xDD},
        {"links", [](RestoreAttributes& a) { a.nlink += 1; }, 0xDE},
        {"owner", [](RestoreAttributes& a) { a.uid += 1; }, 0xDF},
        {"group", [](RestoreAttributes& a) { a.gid += 1; }, 0xE0},
        {"mtime", [](RestoreAttributes& a) { a.mtime -= 86400; }, 0xE2},
    };
    for (bool detailed : {false, true}) {
        SCOPED_TRACE(detailed ? "detailed codes" : "summary codes");
        ASSERT_EQ(beginCompare(detailed ? kDetailed : 0), 4);
        RestoreDriver r(client_);
        for (const Case& c : cases) {
            RestoreAttributes file = tapeOf("f");
            c.change(file);
            // The contents are still compared when only an attribute differs.
            EXPECT_EQ(compareFile(r, file, "same contents"), (Verdicts{detailed ? c.code : 0xD6, 0})) << c.what;
            EXPECT_EQ(compareFile(r, file, "same_contents"), (Verdicts{detailed ? c.code : 0xD6, 0xDA})) << c.what;
            RestoreAttributes dir = tapeOf("d");
            c.change(dir);
            EXPECT_EQ(compareDir(r, dir), detailed ? c.code : 0xD7) << c.what;
        }
        RestoreAttributes dev = tapeOf("dev");
        dev.rdev = tavik::platform::encodeDev32(makedev(1, 5));
        EXPECT_EQ(compareFile(r, dev), (Verdicts{detailed ? 0xE3 : 0xD6, 0}));
        // Mode and links both differ: only the first is reported.
        RestoreAttributes two = tapeOf("f");
        two.mode = 0100600;
        two.nlink = 7;
        EXPECT_EQ(compareFile(r, two, "same contents"), (Verdicts{detailed ? 0xDD : 0xD6, 0}));
        EXPECT_EQ(r.end(), 3);
        EXPECT_TRUE(agentCloses());
    }

    std::string was = tavik::formatLogDate(kBackupTime - 86400), now = tavik::formatLogDate(kBackupTime);
    std::string mtimes = "modify time is changed (" + was + " -> " + now + ")";
    std::string o = "(ws_compare[OPENFILE]) File [f] ";
    std::string m = "(ws_compare[MKDIR]) File [" + work_ + "/d] ";
    std::string uid = std::to_string(user_.uid()), gid = std::to_string(user_.gid());
    for (const std::string& line :
         {o + "mode is changed (0100600 -> 0100644)", o + "number of links is changed (2 -> 1)",
          o + "user id is changed (" + std::to_string(user_.uid() + 1) + " -> " + uid + ")",
          o + "group id is changed (" + std::to_string(user_.gid() + 1) + " -> " + gid + ")", o + mtimes,
          std::string("(ws_compare[OPENFILE]) File [dev] rdev is changed (40005 -> 40003)"),
          std::string("(ws_compare[ENDF]) File [f] content is changed"), m + "mode is changed (040711 -> 040755)",
          m + mtimes}) {
        EXPECT_TRUE(logHas(line)) << line;
    }
}

TEST_F(CompareTest, MissingObjectsSizesAndContents) {
    ASSERT_TRUE(startDaemon());
    makeFile("sized", "twelve bytes");
    makeFile("big", pattern(20000, 5));
    makeFile("tail", pattern(5000, 6));
    makeFile("shrinks", pattern(12000, 7));
    symlink("target-a", at("link").c_str());
    symlink("target-a", at("vanishing").c_str());

    ASSERT_EQ(beginCompare(kDetailed), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(compareFile(r, tapeOf("sized", "no-such-file"), "twelve bytes"), (Verdicts{0xD2, 0}));
    EXPECT_EQ(compareDir(r, tapeOf("", "no-such-dir")), 0xD3);

    // Size and mode differ: both are logged, the size answers, no contents.
    RestoreAttributes sized = tapeOf("sized");
    sized.size = 11;
    sized.mode = 0100600;
    EXPECT_EQ(compareFile(r, sized, "eleven byte"), (Verdicts{0xD5, 0}));

    std::string changed = pattern(20000, 5);
    changed[5000] ^= 1;  // in the second comparison block, found at a MOF
    EXPECT_EQ(compareFile(r, tapeOf("big"), changed), (Verdicts{0, 0xDA}));
    std::string lastByte = pattern(5000, 6);
    lastByte[4999] ^= 1;  // in the rest compared at ENDF
    EXPECT_EQ(compareFile(r, tapeOf("tail"), lastByte), (Verdicts{0, 0xDA}));
    EXPECT_EQ(compareFile(r, tapeOf("big"), pattern(20000, 5)), (Verdicts{0, 0}));

    // Symbolic links: by the target's length and bytes.
    EXPECT_EQ(compareFile(r, tapeOf("link"), "target-b"), (Verdicts{0, 0xDA}));
    EXPECT_EQ(compareFile(r, tapeOf("link"), "target-aa"), (Verdicts{0, 0xDA}));
    EXPECT_EQ(compareFile(r, tapeOf("link"), "target-a"), (Verdicts{0, 0}));
    // A link that goes away between OPENFILE and ENDF cannot be read.
    ASSERT_TRUE(r.openFile(tapeOf("vanishing")));
    EXPECT_EQ(r.status(), 0);
    unlink(at("vanishing").c_str());
    EXPECT_EQ(r.endf(bytes("target-a")), 0xD9);

    // A file cut short after OPENFILE: its blocks cannot be read.
    ASSERT_TRUE(r.openFile(tapeOf("shrinks")));
    EXPECT_EQ(r.status(), 0);
    truncate(at("shrinks").c_str(), 100);
    std::string data = pattern(12000, 7);
    for (size_t i = 0; i < 10240; i += 2048) ASSERT_TRUE(r.mof(bytes(data).subspan(i, 2048)));
    EXPECT_EQ(r.endf(bytes(data).subspan(10240)), 0xD8);

    // A character device with raw contents on the tape: not compared.
    ASSERT_EQ(mknod(at("raw").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    RestoreAttributes raw = tapeOf("raw");
    raw.size = 100;
    EXPECT_EQ(compareFile(r, raw, std::string(100, 'r')), (Verdicts{0, 0}));
    EXPECT_EQ(r.end(), 3);

    for (const char* line : {
             "(ws_compare[OPENFILE]) Failed to get the attributes (lstat) of no-such-file (No such file",
             "(ws_compare[MKDIR]) Failed to get the attributes (stat) of no-such-dir (No such file",
             "(ws_compare[OPENFILE]) File [sized] mode is changed (0100600 -> 0100644)",
             "(ws_compare[OPENFILE]) File [sized] size is changed (11 -> 12)",
             "(ws_compare[MOF]) File [big] content is changed",
             "(ws_compare[ENDF]) File [tail] content is changed",
             "(ws_compare[ENDF]) File [link] content is changed",
             "(ws_compare[ENDF]) Failed to read the contents of the symbolic link file vanishing (No such file",
             "(ws_compare[MOF]) Failed in reading file [shrinks]",
         }) {
        EXPECT_TRUE(logHas(line)) << line;
    }
}

TEST_F(CompareTest, UnreadableFilesAndHeldLocks) {
    ASSERT_TRUE(startDaemon());
    makeFile("secret", "root only");
    chown(at("secret").c_str(), 0, 0);
    chmod(at("secret").c_str(), 0600);
    makeFile("mand", "locked data", 02644);  // set-group-id without group execute: tested without -l
    makeFile("plain", "plain data");
    int fd = holdLock(at("mand"));
    ASSERT_GE(fd, 0);
    ASSERT_EQ(beginCompare(), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(compareFile(r, tapeOf("secret"), "root only"), (Verdicts{0xD4, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("mand"), "locked data"), (Verdicts{0xDC, 0}));
    close(fd);
    // Without the lock the file compares; the test's read lock is given up at
    // once, so a writer may lock the file while the job still holds it open.
    ASSERT_TRUE(r.openFile(tapeOf("mand")));
    EXPECT_EQ(r.status(), 0);
    fd = holdLock(at("mand"));
    EXPECT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(r.endf(bytes("locked data")), 0);
    fd = holdLock(at("plain"));  // without -l a plain file's lock is not tested
    EXPECT_EQ(compareFile(r, tapeOf("plain"), "plain data"), (Verdicts{0, 0}));
    EXPECT_EQ(r.end(), 3);
    EXPECT_TRUE(logHas("(ws_compare[OPENFILE]) Failed to open regular file secret (Permission denied)"));
    EXPECT_TRUE(logHas("(ws_compare[OPENFILE]) File mand is locked by another process"));

    // With -l every regular file's lock is tested.
    daemon_.stop();
    ASSERT_TRUE(startDaemon({"-v", "-l"}));
    ASSERT_EQ(beginCompare(), 4);
    RestoreDriver l(client_);
    EXPECT_EQ(compareFile(l, tapeOf("plain"), "plain data"), (Verdicts{0xDC, 0}));
    close(fd);
    EXPECT_EQ(compareFile(l, tapeOf("plain"), "plain data"), (Verdicts{0, 0}));
    EXPECT_EQ(l.end(), 3);
}

TEST_F(CompareTest, FollowingLinksComparesWhatTheyPointToAndAbortEndsTheJob) {
    ASSERT_TRUE(startDaemon());  // without -f: the request's follow decides
    makeFile("target", pattern(5000, 9));
    symlink("target", at("link").c_str());
    symlink("nowhere", at("dangling").c_str());
    ASSERT_EQ(beginCompare(kDetailed, 0, {}, 1), 4);
    RestoreDriver r(client_);
    RestoreAttributes link = tapeOf("target", "link");
    EXPECT_EQ(compareFile(r, link, pattern(5000, 9)), (Verdicts{0, 0}));
    // The backup saw a link: type and size differ.
    EXPECT_EQ(compareFile(r, tapeOf("link"), "target"), (Verdicts{0xD5, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("dangling"), "nowhere"), (Verdicts{0xD2, 0}));
    ASSERT_TRUE(r.send(99));  // unknown: logged, no answer
    EXPECT_EQ(compareFile(r, link, pattern(5000, 9)), (Verdicts{0, 0}));
    ASSERT_TRUE(r.send(tavik::restore::command::kAbort));
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost"));
    for (const char* line : {"* Symbolic links will be followed",
                             "(ws_compare[OPENFILE]) File [link] mode is changed (0120777 -> 0100644)",
                             "(ws_compare[OPENFILE]) Failed to get the attributes (stat) of dangling (No such file",
                             "(ws_compare) Unknown command: 63", "(ws_compare[ABORT]) Job aborted by front-end"}) {
        EXPECT_TRUE(logHas(line)) << line;
    }
    EXPECT_FALSE(logHas("Workstation Compare Ended"));
}

TEST_F(CompareTest, RotationSetGroomingRemovesOnlyOldIdenticalFiles) {
    ASSERT_TRUE(startDaemon());
    makeDir("old");
    makeFile("old/a", "old a", 0644, kOld);
    makeFile("old/b", pattern(5000, 8), 0644, kOld);
    makeFile("old/changed", "old but changed", 0644, kOld);
    makeFile("recent", "recent", 0644, time(nullptr) - 60);
    makeFile("old/read-lately", "read lately", 0644, kOld);
    setTimes(at("old/read-lately"), time(nullptr) - 3600, kOld);
    for (const char* rel : {"old/a", "old/b", "old/changed"}) setTimes(at(rel), kOld, kOld);

    ASSERT_EQ(beginCompare(0, 0, groomingRecord(0x02, 1, "WEEKSET")), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(compareDir(r, tapeOf("old")), 0);
    EXPECT_EQ(compareFile(r, tapeOf("old/a"), "old a"), (Verdicts{0, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("old/b"), pattern(5000, 8)), (Verdicts{0, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("old/changed"), "old but chxnged"), (Verdicts{0, 0xDA}));
    EXPECT_EQ(compareFile(r, tapeOf("recent"), "recent"), (Verdicts{0, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("old/read-lately"), "read lately"), (Verdicts{0, 0}));
    GroomingReport report = endWithGrooming(r);
    EXPECT_EQ(report.count, std::string("2") + std::string(15, '\0'));
    EXPECT_FALSE(fs::exists(at("old/a")));
    EXPECT_FALSE(fs::exists(at("old/b")));
    for (const char* kept : {"old/changed", "recent", "old/read-lately", "old"}) EXPECT_TRUE(fs::exists(at(kept))) << kept;
    std::string work = report.work();
    EXPECT_TRUE(has(work, at("old/a")));
    EXPECT_TRUE(has(work, at("old/b")));
    EXPECT_FALSE(has(work, "changed"));
    // The set's copy file has the work file appended, and so on each job.
    EXPECT_EQ(readFile(daemon_.home() + "LOG/WEEKSET.grm"), work);
    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost"));
    EXPECT_TRUE(logHas("Total 2 files were groomed for Helmsman set WEEKSET"));
    EXPECT_FALSE(logHas("Delete "));
}

TEST_F(CompareTest, DeletingGroomingRemovesExactlyTheIdenticalUnprotectedFiles) {
    ASSERT_TRUE(startDaemon());
    makeDir("d");
    std::vector<std::string> same;
    for (unsigned i = 0; i < 5; ++i) {
        same.push_back("d/f" + std::to_string(i));
        makeFile(same.back(), pattern(1000 * i + 1, i));
    }
    makeFile("changed", "changed");
    makeFile("mode", "mode");
    makeDir("keep");
    makeFile("keep/protected", "protected");
    symlink("d/f0", at("link").c_str());
    lchown(at("link").c_str(), user_.uid(), user_.gid());
    std::ofstream(daemon_.home() + "groom.cntl") << at("keep") << "\n";

    ASSERT_EQ(beginCompare(0, 0, groomingRecord(0x04)), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(compareDir(r, tapeOf("")), 0);
    EXPECT_EQ(compareDir(r, tapeOf("d")), 0);
    for (unsigned i = 0; i < same.size(); ++i)
        EXPECT_EQ(compareFile(r, tapeOf(same[i]), pattern(1000 * i + 1, i)), (Verdicts{0, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("changed"), "chanGed"), (Verdicts{0, 0xDA}));
    RestoreAttributes mode = tapeOf("mode");
    mode.mode = 0100600;
    EXPECT_EQ(compareFile(r, mode, "mode"), (Verdicts{0xD6, 0}));
    EXPECT_EQ(compareDir(r, tapeOf("keep")), 0);
    EXPECT_EQ(compareFile(r, tapeOf("keep/protected"), "protected"), (Verdicts{0, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("link"), "d/f0"), (Verdicts{0, 0}));
    GroomingReport report = endWithGrooming(r);
    EXPECT_EQ(report.count, std::string("6") + std::string(15, '\0'));

    for (const std::string& rel : same) EXPECT_FALSE(fs::exists(at(rel))) << rel;
    EXPECT_FALSE(fs::is_symlink(at("link")));
    for (const char* kept : {"changed", "mode", "keep/protected", "d", ""}) EXPECT_TRUE(fs::exists(at(kept))) << kept;
    // MOF packets of 2048 bytes, then one shorter ENDF.
    ASSERT_FALSE(report.packets.empty());
    for (size_t i = 0; i + 1 < report.packets.size(); ++i) {
        EXPECT_EQ(report.packets[i].first, 7);
        EXPECT_EQ(report.packets[i].second.size(), 2048u);
    }
    EXPECT_EQ(report.packets.back().first, 8);
    EXPECT_LT(report.packets.back().second.size(), 2048u);
    std::string work = report.work();
    EXPECT_TRUE(daemon_.waitForLog("Total 6 files were deleted"));
    for (const std::string& rel : same) {
        EXPECT_TRUE(has(work, " " + at(rel) + "\n")) << rel;
        EXPECT_TRUE(logHas("Delete " + at(rel))) << rel;
    }
    EXPECT_TRUE(logHas("Delete " + at("link")));
    EXPECT_FALSE(logHas("Delete " + at("keep/protected")));
    EXPECT_FALSE(logHas("Delete " + at("changed")));
    EXPECT_FALSE(fs::exists(daemon_.home() + "LOG/migrate.log"));
}

}  // namespace
