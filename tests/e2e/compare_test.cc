// Compare jobs on a real daemon: a test login, the front-end's job client
// and the restore stream driver replay a backup of a scratch tree with
// changes made on disk; every verdict byte, the log lines, the access times
// and, with grooming, the files left on disk and the grooming report are
// checked. Names are sent relative to the job's root.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "e2e/daemon_fixture.h"
#include "e2e/restore_driver.h"
#include "e2e/test_user.h"
#include "frontend/job_client.h"
#include "log/ulog.h"
#include "platform/wire_stat.h"
#include "wire/bytes.h"

namespace {

using tavik::frontend::JobClient;
using tavik::frontend::kNoAnswer;
using tavik::frontend::RequestFields;
using tavik::restore::RestoreAttributes;
using tavik::test::Daemon;
using tavik::test::readFile;
using tavik::test::RestoreDriver;
using tavik::test::TestUser;
namespace fs = std::filesystem;

constexpr time_t kOld = 631152000;       // 1990-01-01
constexpr time_t kBackupTime = 1600000000;
constexpr uint8_t kDetailed = 0x80;
constexpr uint8_t kNoAccessReset = 0x08;

std::string pattern(size_t size, unsigned seed) {
    std::string s(size, '\0');
    for (size_t i = 0; i < size; ++i) s[i] = static_cast<char>((i * 131 + seed * 7 + i / 97) & 0xFF);
    return s;
}

struct stat statOf(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) st.st_mode = 0;
    return st;
}

void setTimes(const std::string& path, timespec atime, timespec mtime) {
    timespec t[2] = {atime, mtime};
    utimensat(AT_FDCWD, path.c_str(), t, AT_SYMLINK_NOFOLLOW);
}

// The answers of one file: after OPENFILE and after ENDF.
struct Verdicts {
    int open = kNoAnswer;
    int end = kNoAnswer;
    bool operator==(const Verdicts&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Verdicts& v) {
    return os << std::hex << "{0x" << v.open << ", 0x" << v.end << "}" << std::dec;
}

// A packet of the grooming work file as the agent sends it.
struct FilePacket {
    int code = 0;
    std::string data;
};

class CompareTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root: creates a test login, device nodes and owners";
        ASSERT_TRUE(user_.ok());
        tree_ = user_.home() + "/tree";
        ASSERT_EQ(mkdir(tree_.c_str(), 0755), 0);
        chown(tree_.c_str(), user_.uid(), user_.gid());
    }

    bool startDaemon(std::vector<std::string> args = {"-v"}) {
        if (!daemon_.start(args, {{"TAVIK_TIME_DIVISOR", "1000"}})) return false;
        chmod(daemon_.home().c_str(), 0755);
        return true;
    }

    // Request, options, grooming, the start command: the stream may begin.
    // The answer to the request (4 when the job goes on).
    int begin(uint8_t flags = 0, uint16_t ack = 0, const std::vector<uint8_t>& groom = {},
              std::vector<uint8_t> options = {}, uint8_t follow = 0) {
        client_.close();
        if (!client_.connect("127.0.0.1", daemon_.port())) return kNoAnswer;
        RequestFields f;
        f.root = tree_;
        f.login = user_.name();
        f.password = tavik::test::kPassword;
        f.opMode = 2;
        f.follow = follow;
        int answer = client_.request(f);
        if (answer != 4) return answer;
        if (options.empty()) {
            options.assign(512, 0);
            options[0] = 5;  // lock attempts
            options[2] = 1;  // a second apart (divided by the time divisor)
        }
        options[4] = flags;
        if (client_.option(options) != 4) return kNoAnswer;
        if (!groom.empty()) {
            std::array<uint8_t, 63> tape{};
            std::memcpy(tape.data(), "T0001", 5);
            std::memcpy(tape.data() + 16, "0042", 4);
            std::memcpy(tape.data() + 32, "WEEKLY-07", 9);
            if (client_.grooming(groom, tape) != 4) return kNoAnswer;
        }
        return client_.start(ack) ? 4 : kNoAnswer;
    }

    std::string at(const std::string& rel) const { return tree_ + "/" + rel; }

    // Makes a file of the login's with `content`, its times fixed.
    void makeFile(const std::string& rel, const std::string& content, mode_t mode = 0644,
                  time_t mtime = kBackupTime) {
        fs::create_directories(fs::path(at(rel)).parent_path());
        std::ofstream(at(rel), std::ios::binary) << content;
        chown(at(rel).c_str(), user_.uid(), user_.gid());
        chmod(at(rel).c_str(), mode);
        setTimes(at(rel), {mtime - 100, 0}, {mtime, 0});
    }
    void makeDir(const std::string& rel, mode_t mode = 0755) {
        mkdir(at(rel).c_str(), mode);
        chown(at(rel).c_str(), user_.uid(), user_.gid());
        chmod(at(rel).c_str(), mode);
    }

    // What a backup of the object on disk says now, under its relative name.
    RestoreAttributes tapeOf(const std::string& rel) const {
        struct stat st = statOf(rel.empty() ? tree_ : at(rel));
        RestoreAttributes a;
        a.name = rel;
        a.dev = tavik::platform::encodeDev32(st.st_dev);
        a.ino = static_cast<uint32_t>(st.st_ino);
        a.mode = st.st_mode;
        a.nlink = static_cast<uint32_t>(st.st_nlink);
        a.uid = st.st_uid;
        a.gid = st.st_gid;
        a.rdev = tavik::platform::encodeDev32(st.st_rdev);
        a.atime = tavik::platform::wireTime(st.st_atime);
        a.mtime = tavik::platform::wireTime(st.st_mtime);
        a.size = tavik::platform::wireSize(st.st_size);
        return a;
    }

    // OPENFILE, its answer, the data in payloads of at most 2048 bytes, ENDF.
    Verdicts compareFile(RestoreDriver& r, const RestoreAttributes& a, const std::string& data = "") {
        Verdicts v;
        if (!r.openFile(a)) return v;
        v.open = r.status();
        std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(data.data()), data.size());
        while (bytes.size() > tavik::restore::kMaxDataPayload) {
            if (!r.mof(bytes.first(tavik::restore::kMaxDataPayload))) return v;
            bytes = bytes.subspan(tavik::restore::kMaxDataPayload);
        }
        v.end = r.endf(bytes);
        return v;
    }
    int compareDir(RestoreDriver& r, const RestoreAttributes& a) {
        if (!r.mkdir(a)) return kNoAnswer;
        return r.status();
    }

    // After END with grooming: code 14, the 16-byte count, the work file's
    // packets; then the end answer.
    bool readGroomingReport(std::string& count, std::vector<FilePacket>& packets) {
        if (client_.readAnswer() != 14) return false;
        std::array<uint8_t, 16> text{};
        if (!client_.recvRaw(text)) return false;
        count.assign(reinterpret_cast<const char*>(text.data()), text.size());
        for (int i = 0; i < 1000; ++i) {
            std::array<uint8_t, 8> h{};
            if (!client_.recvRaw(h)) return false;
            FilePacket p;
            p.code = h[2];
            uint16_t length = tavik::wire::loadLe16(&h[6]);
            p.data.resize(length);
            if (length > 0 && !client_.recvRaw({reinterpret_cast<uint8_t*>(p.data.data()), length})) return false;
            packets.push_back(p);
            if (p.code != 7) return true;
        }
        return false;
    }

    static std::vector<uint8_t> groomingRecord(uint32_t fOptions, uint16_t months, const std::string& set = "") {
        std::vector<uint8_t> g(24, 0);
        tavik::wire::storeLe16(&g[0], months);
        tavik::wire::storeLe16(&g[2], 1);
        tavik::wire::storeLe32(&g[12], fOptions);
        std::memcpy(&g[16], set.data(), std::min<size_t>(set.size(), 8));
        return g;
    }

    bool logHas(const std::string& text) const { return daemon_.log().find(text) != std::string::npos; }
    bool agentCloses() { return client_.readAnswer() == kNoAnswer; }

    TestUser user_;
    std::string tree_;
    Daemon daemon_;
    JobClient client_;
};

TEST_F(CompareTest, AnUnchangedTreeIsIdenticalEverywhereAndKeepsItsAccessTimes) {
    ASSERT_TRUE(startDaemon());
    makeDir("sub");
    std::map<std::string, std::string> files = {
        {"empty", ""},
        {"small", "small file\n"},
        {"batch", pattern(4296, 1)},      // exactly one comparison block
        {"sub/big", pattern(20000, 2)},   // blocks at MOF and a rest at ENDF
        {"sub/odd", pattern(6000, 3)},
    };
    for (const auto& [rel, content] : files) makeFile(rel, content);
    makeFile("mandatory", "locks tested, none held", 02644);  // the read lock test passes
    symlink("sub/big", at("link").c_str());
    lchown(at("link").c_str(), user_.uid(), user_.gid());
    mkfifo(at("fifo").c_str(), 0600);
    chown(at("fifo").c_str(), user_.uid(), user_.gid());
    // Access times before the modification times: a plain read would move them.
    const timespec atime{kBackupTime - 5000, 123456789};
    for (const auto& [rel, content] : files) setTimes(at(rel), atime, {kBackupTime, 0});

    ASSERT_EQ(begin(0, 3), 4) << client_.lastError();
    RestoreDriver r(client_, 3);
    EXPECT_EQ(compareDir(r, tapeOf("")), 0);  // the root itself
    EXPECT_EQ(compareDir(r, tapeOf("sub")), 0);
    for (const auto& [rel, content] : files) {
        EXPECT_EQ(compareFile(r, tapeOf(rel), content), (Verdicts{0, 0})) << rel;
    }
    EXPECT_EQ(compareFile(r, tapeOf("mandatory"), "locks tested, none held"), (Verdicts{0, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("link"), "sub/big"), (Verdicts{0, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("fifo")), (Verdicts{0, 0}));
    EXPECT_EQ(r.acks(), 4);  // 13 MOF packets, every third acknowledged
    EXPECT_EQ(r.end(), 3);
    EXPECT_TRUE(agentCloses());

    for (const auto& [rel, content] : files) {
        struct stat st = statOf(at(rel));
        EXPECT_EQ(st.st_atim.tv_sec, atime.tv_sec) << rel;
        EXPECT_EQ(st.st_atim.tv_nsec, atime.tv_nsec) << rel;
        EXPECT_EQ(st.st_mtime, kBackupTime) << rel;
    }
    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost"));
    EXPECT_TRUE(logHas("Start Compare Job From localhost(" + user_.name() + "), Destination = " + tree_));
    EXPECT_TRUE(logHas("SO_RCVBUF = "));
    EXPECT_TRUE(logHas(" - Workstation Compare Ended"));
    EXPECT_FALSE(logHas("changed"));
}

TEST_F(CompareTest, WithoutAccessTimeResetAReadFileShowsItsNewAccessTime) {
    ASSERT_TRUE(startDaemon());
    makeFile("read", pattern(9000, 4));
    makeFile("control", "x");
    setTimes(at("read"), {kBackupTime - 5000, 0}, {kBackupTime, 0});
    setTimes(at("control"), {kBackupTime - 5000, 0}, {kBackupTime, 0});
    readFile(at("control"));
    if (statOf(at("control")).st_atime == kBackupTime - 5000) GTEST_SKIP() << "reads do not update access times here";

    ASSERT_EQ(begin(kNoAccessReset), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(compareFile(r, tapeOf("read"), pattern(9000, 4)), (Verdicts{0, 0}));
    EXPECT_EQ(r.end(), 3);
    EXPECT_GT(statOf(at("read")).st_atime, kBackupTime);
}

TEST_F(CompareTest, AttributeDifferencesGiveSummaryOrDetailedCodes) {
    ASSERT_TRUE(startDaemon());
    makeFile("f", "same contents");
    makeDir("d");
    ASSERT_EQ(mknod(at("dev").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    chown(at("dev").c_str(), user_.uid(), user_.gid());
    setTimes(at("dev"), {kBackupTime, 0}, {kBackupTime, 0});
    setTimes(at("d"), {kBackupTime, 0}, {kBackupTime, 0});

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
        ASSERT_EQ(begin(detailed ? kDetailed : 0), 4);
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

    std::string mtimeWas = tavik::formatLogDate(kBackupTime - 86400);
    std::string mtimeNow = tavik::formatLogDate(kBackupTime);
    const char* o = "(ws_compare[OPENFILE]) File [f] ";
    std::string m = "(ws_compare[MKDIR]) File [" + tree_ + "/d] ";
    for (const std::string& line :
         {std::string(o) + "mode is changed (0100600 -> 0100644)", std::string(o) + "number of links is changed (2 -> 1)",
          std::string(o) + "user id is changed (" + std::to_string(user_.uid() + 1) + " -> " +
              std::to_string(user_.uid()) + ")",
          std::string(o) + "group id is changed (" + std::to_string(user_.gid() + 1) + " -> " +
              std::to_string(user_.gid()) + ")",
          std::string(o) + "modify time is changed (" + mtimeWas + " -> " + mtimeNow + ")",
          std::string("(ws_compare[OPENFILE]) File [dev] rdev is changed (") + "40005 -> 40003)",
          std::string("(ws_compare[ENDF]) File [f] content is changed"), m + "mode is changed (040711 -> 040755)",
          m + "modify time is changed (" + mtimeWas + " -> " + mtimeNow + ")"}) {
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

    ASSERT_EQ(begin(kDetailed), 4);
    RestoreDriver r(client_);
    RestoreAttributes missing = tapeOf("sized");
    missing.name = "no-such-file";
    EXPECT_EQ(compareFile(r, missing, "twelve bytes"), (Verdicts{0xD2, 0}));
    RestoreAttributes noDir = tapeOf("");
    noDir.name = "no-such-dir";
    EXPECT_EQ(compareDir(r, noDir), 0xD3);

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
    EXPECT_EQ(r.endf({reinterpret_cast<const uint8_t*>("target-a"), 8}), 0xD9);

    // A file cut short after OPENFILE: its blocks cannot be read.
    ASSERT_TRUE(r.openFile(tapeOf("shrinks")));
    EXPECT_EQ(r.status(), 0);
    truncate(at("shrinks").c_str(), 100);
    std::string data = pattern(12000, 7);
    for (size_t i = 0; i + 2048 < data.size(); i += 2048) {
        ASSERT_TRUE(r.mof({reinterpret_cast<const uint8_t*>(data.data()) + i, 2048}));
    }
    EXPECT_EQ(r.endf({reinterpret_cast<const uint8_t*>(data.data()) + 10240, data.size() - 10240}), 0xD8);

    // A character device with raw contents on the tape: not compared.
    ASSERT_EQ(mknod(at("raw").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    RestoreAttributes raw = tapeOf("raw");
    raw.size = 100;
    EXPECT_EQ(compareFile(r, raw, std::string(100, 'r')), (Verdicts{0, 0}));
    EXPECT_EQ(r.end(), 3);

    EXPECT_TRUE(logHas("(ws_compare[OPENFILE]) Failed to get the attributes (lstat) of no-such-file (No such file"));
    EXPECT_TRUE(logHas("(ws_compare[MKDIR]) Failed to get the attributes (stat) of no-such-dir (No such file"));
    EXPECT_TRUE(logHas("(ws_compare[OPENFILE]) File [sized] mode is changed (0100600 -> 0100644)"));
    EXPECT_TRUE(logHas("(ws_compare[OPENFILE]) File [sized] size is changed (11 -> 12)"));
    EXPECT_TRUE(logHas("(ws_compare[MOF]) File [big] content is changed"));
    EXPECT_TRUE(logHas("(ws_compare[ENDF]) File [tail] content is changed"));
    EXPECT_TRUE(logHas("(ws_compare[ENDF]) File [link] content is changed"));
    EXPECT_TRUE(logHas("(ws_compare[ENDF]) Failed to read the contents of the symbolic link file vanishing (No such file"));
    EXPECT_TRUE(logHas("(ws_compare[MOF]) Failed in reading file [shrinks]"));
}

TEST_F(CompareTest, UnreadableFileAndHeldLock) {
    ASSERT_TRUE(startDaemon());
    makeFile("secret", "root only");
    chown(at("secret").c_str(), 0, 0);
    chmod(at("secret").c_str(), 0600);
    makeFile("mand", "locked data", 02644);  // set-group-id without group execute: tested without -l
    int fd = open(at("mand").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);

    std::vector<uint8_t> options(512, 0);
    options[0] = 2;  // two attempts, one second apart (divided by the time divisor)
    options[2] = 1;
    ASSERT_EQ(begin(0, 0, {}, options), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(compareFile(r, tapeOf("secret"), "root only"), (Verdicts{0xD4, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("mand"), "locked data"), (Verdicts{0xDC, 0}));
    close(fd);
    // Without the lock the file compares; the test's read lock is given up at
    // once, so a writer may lock the file while the job still holds it open.
    ASSERT_TRUE(r.openFile(tapeOf("mand")));
    EXPECT_EQ(r.status(), 0);
    fd = open(at("mand").c_str(), O_RDWR);
    EXPECT_EQ(fcntl(fd, F_SETLK, &lock), 0);
    close(fd);
    EXPECT_EQ(r.endf({reinterpret_cast<const uint8_t*>("locked data"), 11}), 0);
    EXPECT_EQ(r.end(), 3);
    EXPECT_TRUE(logHas("(ws_compare[OPENFILE]) Failed to open regular file secret (Permission denied)"));
    EXPECT_TRUE(logHas("(ws_compare[OPENFILE]) File mand is locked by another process"));
}

TEST_F(CompareTest, CheckLocksOptionTestsEveryRegularFile) {
    ASSERT_TRUE(startDaemon({"-v", "-l"}));
    makeFile("plain", "plain data");
    int fd = open(at("plain").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
    ASSERT_EQ(begin(), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(compareFile(r, tapeOf("plain"), "plain data"), (Verdicts{0xDC, 0}));
    close(fd);
    EXPECT_EQ(compareFile(r, tapeOf("plain"), "plain data"), (Verdicts{0, 0}));
    EXPECT_EQ(r.end(), 3);
}

TEST_F(CompareTest, FollowingLinksComparesWhatTheyPointTo) {
    ASSERT_TRUE(startDaemon());  // without -f: the request's follow decides
    makeFile("target", pattern(5000, 9));
    symlink("target", at("link").c_str());
    symlink("nowhere", at("dangling").c_str());
    ASSERT_EQ(begin(kDetailed, 0, {}, {}, 1), 4);
    RestoreDriver r(client_);
    RestoreAttributes link = tapeOf("target");
    link.name = "link";
    EXPECT_EQ(compareFile(r, link, pattern(5000, 9)), (Verdicts{0, 0}));
    RestoreAttributes asLink = tapeOf("link");  // the backup saw a link: type and size differ
    EXPECT_EQ(compareFile(r, asLink, "target"), (Verdicts{0xD5, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("dangling"), "nowhere"), (Verdicts{0xD2, 0}));
    EXPECT_EQ(r.end(), 3);
    EXPECT_TRUE(logHas("* Symbolic links will be followed"));
    EXPECT_TRUE(logHas("(ws_compare[OPENFILE]) File [link] mode is changed (0120777 -> 0100644)"));
    EXPECT_TRUE(logHas("(ws_compare[OPENFILE]) Failed to get the attributes (stat) of dangling (No such file"));
}

TEST_F(CompareTest, AbortEndsTheJobWithoutAnAnswer) {
    ASSERT_TRUE(startDaemon());
    makeFile("f", "x");
    ASSERT_EQ(begin(), 4);
    RestoreDriver r(client_);
    ASSERT_TRUE(r.send(99));  // unknown: logged, no answer
    EXPECT_EQ(compareFile(r, tapeOf("f"), "x"), (Verdicts{0, 0}));
    ASSERT_TRUE(r.send(tavik::restore::command::kAbort));
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost"));
    EXPECT_TRUE(logHas("(ws_compare) Unknown command: 63"));
    EXPECT_TRUE(logHas("(ws_compare[ABORT]) Job aborted by front-end"));
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
    setTimes(at("old/read-lately"), {time(nullptr) - 3600, 0}, {kOld, 0});
    for (const char* rel : {"old/a", "old/b", "old/changed"}) setTimes(at(rel), {kOld, 0}, {kOld, 0});

    ASSERT_EQ(begin(0, 0, groomingRecord(0x02, 1, "WEEKSET")), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(compareDir(r, tapeOf("old")), 0);
    EXPECT_EQ(compareFile(r, tapeOf("old/a"), "old a"), (Verdicts{0, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("old/b"), pattern(5000, 8)), (Verdicts{0, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("old/changed"), "old but chxnged"), (Verdicts{0, 0xDA}));
    EXPECT_EQ(compareFile(r, tapeOf("recent"), "recent"), (Verdicts{0, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("old/read-lately"), "read lately"), (Verdicts{0, 0}));
    ASSERT_TRUE(r.send(tavik::restore::command::kEnd));
    std::string count;
    std::vector<FilePacket> packets;
    ASSERT_TRUE(readGroomingReport(count, packets));
    EXPECT_EQ(count, std::string("2") + std::string(15, '\0'));
    EXPECT_EQ(r.status(), 3);
    EXPECT_TRUE(agentCloses());

    EXPECT_FALSE(fs::exists(at("old/a")));
    EXPECT_FALSE(fs::exists(at("old/b")));
    EXPECT_TRUE(fs::exists(at("old/changed")));
    EXPECT_TRUE(fs::exists(at("recent")));
    EXPECT_TRUE(fs::exists(at("old/read-lately")));
    EXPECT_TRUE(fs::is_directory(at("old")));

    std::string work;
    for (const FilePacket& p : packets) work += p.data;
    EXPECT_NE(work.find(at("old/a")), std::string::npos);
    EXPECT_NE(work.find(at("old/b")), std::string::npos);
    EXPECT_EQ(work.find("changed"), std::string::npos);
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
    for (int i = 0; i < 5; ++i) {
        std::string rel = "d/f" + std::to_string(i);
        makeFile(rel, pattern(1000 * size_t(i) + 1, unsigned(i)));
        same.push_back(rel);
    }
    makeFile("changed", "changed");
    makeFile("mode", "mode");
    makeDir("keep");
    makeFile("keep/protected", "protected");
    symlink("d/f0", at("link").c_str());
    lchown(at("link").c_str(), user_.uid(), user_.gid());
    std::ofstream(daemon_.home() + "groom.cntl") << at("keep") << "\n";

    ASSERT_EQ(begin(0, 0, groomingRecord(0x04, 0)), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(compareDir(r, tapeOf("")), 0);
    EXPECT_EQ(compareDir(r, tapeOf("d")), 0);
    for (size_t i = 0; i < same.size(); ++i) {
        EXPECT_EQ(compareFile(r, tapeOf(same[i]), pattern(1000 * i + 1, unsigned(i))), (Verdicts{0, 0}));
    }
    EXPECT_EQ(compareFile(r, tapeOf("changed"), "chanGed"), (Verdicts{0, 0xDA}));
    RestoreAttributes mode = tapeOf("mode");
    mode.mode = 0100600;
    EXPECT_EQ(compareFile(r, mode, "mode"), (Verdicts{0xD6, 0}));
    EXPECT_EQ(compareDir(r, tapeOf("keep")), 0);
    EXPECT_EQ(compareFile(r, tapeOf("keep/protected"), "protected"), (Verdicts{0, 0}));
    EXPECT_EQ(compareFile(r, tapeOf("link"), "d/f0"), (Verdicts{0, 0}));
    ASSERT_TRUE(r.send(tavik::restore::command::kEnd));
    std::string count;
    std::vector<FilePacket> packets;
    ASSERT_TRUE(readGroomingReport(count, packets));
    EXPECT_EQ(count, std::string("6") + std::string(15, '\0'));
    EXPECT_EQ(r.status(), 3);

    for (const std::string& rel : same) EXPECT_FALSE(fs::exists(at(rel))) << rel;
    EXPECT_FALSE(fs::is_symlink(at("link")));
    EXPECT_TRUE(fs::exists(at("changed")));
    EXPECT_TRUE(fs::exists(at("mode")));
    EXPECT_TRUE(fs::exists(at("keep/protected")));
    EXPECT_TRUE(fs::is_directory(at("d")));
    EXPECT_TRUE(fs::is_directory(tree_));

    // MOF packets of 2048 bytes, then one shorter ENDF.
    ASSERT_FALSE(packets.empty());
    for (size_t i = 0; i + 1 < packets.size(); ++i) {
        EXPECT_EQ(packets[i].code, 7);
        EXPECT_EQ(packets[i].data.size(), 2048u);
    }
    EXPECT_EQ(packets.back().code, 8);
    EXPECT_LT(packets.back().data.size(), 2048u);
    std::string work;
    for (const FilePacket& p : packets) work += p.data;
    EXPECT_TRUE(daemon_.waitForLog("Total 6 files were deleted"));
    for (const std::string& rel : same) {
        EXPECT_NE(work.find(" " + at(rel) + "\n"), std::string::npos) << rel;
        EXPECT_TRUE(logHas("Delete " + at(rel))) << rel;
    }
    EXPECT_TRUE(logHas("Delete " + at("link")));
    EXPECT_FALSE(logHas("Delete " + at("keep/protected")));
    EXPECT_FALSE(logHas("Delete " + at("changed")));
    EXPECT_FALSE(fs::exists(daemon_.home() + "LOG/migrate.log"));
}

}  // namespace
