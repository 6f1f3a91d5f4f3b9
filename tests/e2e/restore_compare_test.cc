// Restore and compare jobs on a real daemon, as a test login: the front-end's
// job client sends the restore command stream (MKDIR, OPENFILE, MOF, ENDF,
// UNLINK, END, ABORT) built with the restore record encoder and reads each
// answer.
// RestoreTest: the files the agent makes are checked on disk (content, type,
// mode, owner, times, inode and device numbers) together with every status
// byte and the log lines. What the front-end's round trips already show of
// every kind of entry (tavikctl_test) is not repeated here.
// CompareTest: a backup of a scratch tree is replayed with changes made on
// disk; every verdict byte, the log lines, the access times and, with
// grooming, the files left on disk and the grooming report are checked;
// damaged streams (overlong names, oversized payloads and records, a header
// cut short) and a size above 32 bits are sent as no front-end would.
// Names are sent relative to the job's root.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <span>
#include <tuple>

#include "e2e/restore_driver.h"
#include "log/ulog.h"

namespace {

using namespace tavik::test;
using tavik::frontend::kNoAnswer;
using tavik::platform::encodeDev32;
using tavik::protocol::RestoreAttributes;
namespace fs = std::filesystem;
namespace protocol = tavik::protocol;

constexpr uint32_t kTime = 1234567890;
constexpr int kSkipped = 0xCB;
const std::string kCut = "Cannot Receive disconnect from localhost";

constexpr time_t kOld = 631152000;  // 1990-01-01
constexpr time_t kBackupTime = 1600000000;
constexpr uint8_t kDetailed = 0x80;
constexpr uint8_t kNoAccessReset = 0x08;

// The login is trusted: its restores run as root and give files their
// owners, set-id bits and device nodes; its compares still run as the login,
// as they do not ask to keep root's identity.
class JobStreamTest : public LoginJobTest {
protected:
    void SetUp() override {
        LoginJobTest::SetUp();
        trust(user_.name());
    }
    mode_t modeOf(const std::string& name) const { return statOf(at(name)).st_mode; }
    // Closes the connection with a reset rather than an orderly end.
    void resetConnection() {
        linger hard{1, 0};
        setsockopt(client_.fd(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        client_.close();
    }
    // Request (into the work directory unless `root` is given), the options
    // record when given, start: the answer to the request.
    int beginRestore(uint8_t conflict = 3, uint16_t ack = 0, const std::string& root = "",
                     const std::vector<uint8_t>& options = {}) {
        auto f = fields(root.empty() ? work_ : root, 1);
        f.conflict = conflict;
        return begin(f, options, ack);
    }
    RestoreAttributes file(const std::string& name, uint32_t mode = 0100644, uint32_t mtime = kTime) const {
        return restoreAttrs(at(name), mode, user_.uid(), user_.gid(), mtime);
    }
    // Mode (with the type), owner and group of `name`.
    std::tuple<mode_t, uid_t, gid_t> owned(const std::string& name) const {
        struct stat st = statOf(at(name));
        return {st.st_mode, st.st_uid, st.st_gid};
    }
    // `a` under another name.
    RestoreAttributes as(RestoreAttributes a, const std::string& name) const {
        a.name = at(name);
        return a;
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
    RestoreAttributes tape(const std::string& rel, const std::string& as = "") const {
        return tapeOf(rel.empty() ? work_ : at(rel), as.empty() ? rel : as);
    }
    // END, the grooming report with `count` files (checked), 3 and the close:
    // the work file's text.
    std::string endWithGrooming(RestoreDriver& r, const std::string& count) {
        GroomingReport report = r.endWithReport();
        EXPECT_EQ(report.count, count + std::string(16 - count.size(), '\0'));
        return report.work;
    }
};

using RestoreTest = JobStreamTest;
using CompareTest = JobStreamTest;

TEST_F(RestoreTest, FilesDirectoriesModesOwnersAndTimesComeBackExactlyWhereTheLoginMayWrite) {
    ASSERT_TRUE(startDaemon());
    rmdir(work_.c_str());
    ASSERT_EQ(beginRestore(3, 3), 4) << client_.lastError();
    // The destination was made by the login's own process.
    EXPECT_EQ(owned(""), std::make_tuple(mode_t(040755), user_.uid(), user_.gid()));

    RestoreDriver r(client_, 3);
    ASSERT_TRUE(r.mkdir(restoreAttrs(at("sub"), 040750, 4321, 765, kTime)));
    ASSERT_TRUE(r.mkdir(restoreAttrs(at("sub"), 040700, 0, 0)));  // exists: nothing happens
    std::string big = pattern(20000, 1);
    EXPECT_EQ(r.file(restoreAttrs(at("sub/big"), 0100640, 4321, 765, kTime), big), 0);
    EXPECT_EQ(r.file(file("deep/er/leaf", 0100444), "leaf"), 0);
    EXPECT_EQ(r.acks(), 3);  // 9 MOF packets, every third acknowledged
    EXPECT_EQ(r.end(), 3);
    EXPECT_TRUE(agentCloses());

    EXPECT_EQ(owned("sub"), std::make_tuple(mode_t(040750), 4321u, 765u));
    struct stat st = statOf(at("sub/big"));  // before reading it changes the access time
    EXPECT_EQ(readFile(at("sub/big")), big);
    EXPECT_EQ(owned("sub/big"), std::make_tuple(mode_t(0100640), 4321u, 765u));
    EXPECT_EQ(st.st_mtime, time_t(kTime));
    EXPECT_EQ(st.st_atime, time_t(kTime + 3600));
    // Missing parents: 0755, owned by the login.
    EXPECT_EQ(owned("deep/er"), std::make_tuple(mode_t(040755), user_.uid(), user_.gid()));
    EXPECT_EQ(readFile(at("deep/er/leaf")), "leaf");

    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost"));
    EXPECT_TRUE(logHas("Start Restore Job From localhost(" + user_.name() + "), Destination = " + work_));
    EXPECT_TRUE(logHas("SO_RCVBUF = "));
    EXPECT_TRUE(logHas(" - Workstation Restore Completed"));

    // A destination the login cannot make, or not write: 105.
    Tree rootOnly;
    // The path is made down to the first failure, and named up to there.
    EXPECT_EQ(beginRestore(3, 0, rootOnly.path("dest/deeper")), 105);
    EXPECT_TRUE(daemon_.waitForLog("(make_path) Failed to make directory <" + rootOnly.path("dest") +
                                   "> (Permission denied)"));
    EXPECT_TRUE(daemon_.waitForLog("(make_dir) Failed to create restore directory " + rootOnly.path("dest")));
    EXPECT_EQ(beginRestore(3, 0, rootOnly.dir()), 105);  // exists, but the login may not write it
    EXPECT_TRUE(
        daemon_.waitForLog("(make_dir) Failed to Access Directory [" + rootOnly.root() + "] (Permission denied)"));

    // A login whose group id no process can take: the child that makes the
    // destination cannot switch to it. 119 for servers of version 50 or
    // more, 105 for older ones; nothing is made.
    TestUser broken;
    ASSERT_TRUE(broken.ok() && broken.setPasswdGroupId("4294967295"));
    trust(broken.name());
    for (int version : {52, 50, 49}) {
        auto f = fields(work_ + "/new", 1);
        f.login = broken.name();
        f.serverVersion = version;
        EXPECT_EQ(ask(f), version >= 50 ? 119 : 105) << version;
    }
    EXPECT_EQ(modeOf("new"), 0u);
}

TEST_F(RestoreTest, EveryConflictPolicy) {
    ASSERT_TRUE(startDaemon());
    writeFile(at("r"), "r0");
    writeFile(at("r.AS1"), "r1");
    writeFile(at("n.AS9"), "n9");
    writeFile(at("same"), "same", kTime);
    writeFile(at("older"), "older", kTime - 1);
    mkdir(at("d").c_str(), 0700);
    // Real directories so that an existing name is 1021 bytes long: its
    // ".AS1" would need 1025 bytes with the NUL.
    std::string dir = work_;
    while (dir.size() + 1 + 200 + 30 < 1021) dir += "/" + std::string(200, 'q');
    ASSERT_TRUE(fs::create_directories(dir));
    std::string longName = dir + "/" + std::string(1021 - dir.size() - 1, 'f');
    ASSERT_EQ(longName.size(), 1021u);
    writeFile(longName, "keep");
    std::string longRel = longName.substr(work_.size() + 1);

    // Per policy: the files sent (name, data, answer), then what is on disk;
    // "a" is "old a" (mode 0644) before each job. Which files each policy
    // keeps or replaces by their times, and the first renamed copy, are
    // tavikctl's conflict cases.
    struct Sent {
        std::string name, data;
        int answer;
    };
    struct Policy {
        const char* what;
        uint8_t conflict;
        std::vector<Sent> sent;
        std::map<std::string, std::string> after;
    };
    const std::vector<Sent> overwrite = {{"a", "new a", 0}, {"d", "x", 'j'}};
    const Policy policies[] = {
        {"skip: the data is discarded, 0xCB at ENDF", 1, {{"a", pattern(9000, 3), kSkipped}}, {{"a", "old a"}}},
        {"newer: equal times are kept", 4, {{"same", "new", kSkipped}, {"older", "new", 0}},
         {{"same", "same"}, {"older", "new"}}},
        {"rename: the chain climbs to the first free name; a name that would not fit is refused", 2,
         {{"r", "r2", 0}, {"n.AS9", "n10", 0}, {"d", "x", 'j'}, {longRel, "new", 'j'}},
         {{"r", "r0"}, {"r.AS1", "r1"}, {"r.AS2", "r2"}, {"n.AS10", "n10"}, {longRel, "keep"}}},
        {"overwrite", 3, overwrite, {{"a", "new a"}}},
        {"an unknown policy overwrites", 0, overwrite, {{"a", "new a"}}},
        {"5 is taken as 3", 5, overwrite, {{"a", "new a"}}},
    };
    for (const Policy& p : policies) {
        SCOPED_TRACE(p.what);
        writeFile(at("a"), "old a");
        chmod(at("a").c_str(), 0644);
        ASSERT_EQ(beginRestore(p.conflict), 4);
        RestoreDriver r(client_);
        for (const Sent& f : p.sent) EXPECT_EQ(r.file(file(f.name, 0100604), f.data), f.answer) << f.name;
        EXPECT_EQ(r.end(), 3);
        for (const auto& [name, data] : p.after) EXPECT_EQ(readFile(at(name)), data) << name;
        // An overwritten "a" has the record's mode.
        EXPECT_EQ(modeOf("a"), mode_t(p.after.count("a") && p.after.at("a") == "new a" ? 0100604 : 0100644));
    }
    EXPECT_EQ(statOf(at("r.AS2")).st_mtime, time_t(kTime));
    EXPECT_TRUE(logHas("(File name too long)"));
    EXPECT_TRUE(S_ISDIR(modeOf("d")));
    EXPECT_TRUE(logHas("(ws_restore[OPENFILE]) Cannot create <" + at("d") + ">, same name directory exists"));
}

// A restore of a locked file answers 'z' and keeps the file; a compare
// answers 0xDC, and 0xD4 for a file the login may not read. Without -l only
// a set-group-id file without group execute has its lock tested; with -l
// every regular file, and a read lock is enough to refuse a restore.
TEST_F(RestoreTest, LockedFilesAreAnsweredZAndKept) {
    ASSERT_TRUE(startDaemon());
    writeFile(at("mand"), "locked data");
    chmod(at("mand").c_str(), 02644);  // set-group-id without group execute: lock test without -l
    writeFile(at("plain"), "plain data");
    int fd = holdLock(at("mand"));
    ASSERT_GE(fd, 0);
    // Two attempts, one second apart (divided by the time divisor).
    ASSERT_EQ(beginRestore(3, 0, "", optionsRecord(2, 1)), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(r.file(file("mand"), "replacement"), 'z');
    EXPECT_EQ(readFile(at("mand")), "locked data");
    EXPECT_EQ(r.file(file("plain"), "new plain"), 0);  // no lock test for a plain file without -l
    close(fd);                                          // the lock goes
    EXPECT_EQ(r.file(file("mand"), "replacement"), 0);
    EXPECT_EQ(r.end(), 3);
    EXPECT_EQ(readFile(at("mand")), "replacement");
    EXPECT_TRUE(logHas("(ws_restore[OPENFILE]) File " + at("mand") + " is locked by another process"));

    makeFile("secret", "root only", 0600);
    chown(at("secret").c_str(), 0, 0);
    makeFile("cmp-mand", "locked data", 02644);
    makeFile("cmp-plain", "plain data");
    fd = holdLock(at("cmp-mand"));
    ASSERT_GE(fd, 0);
    ASSERT_EQ(beginCompare(), 4);
    RestoreDriver c(client_);
    EXPECT_EQ(c.compare(tape("secret"), "root only"), Verdicts(0xD4, 0));
    EXPECT_EQ(c.compare(tape("cmp-mand"), "locked data"), Verdicts(0xDC, 0));
    close(fd);
    // Without the lock the file compares; the test's read lock is given up at
    // once, so a writer may lock the file while the job still holds it open.
    ASSERT_EQ(c.compareOpen(tape("cmp-mand")), 0);
    fd = holdLock(at("cmp-mand"));
    EXPECT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(c.endf(bytes("locked data")), 0);
    fd = holdLock(at("cmp-plain"));  // without -l a plain file's lock is not tested
    EXPECT_EQ(c.compare(tape("cmp-plain"), "plain data"), Verdicts(0, 0));
    EXPECT_EQ(c.end(), 3);
    EXPECT_TRUE(logHas("(ws_compare[OPENFILE]) Failed to open regular file secret (Permission denied)"));
    EXPECT_TRUE(logHas("(ws_compare[OPENFILE]) File cmp-mand is locked by another process"));

    daemon_.stop();
    ASSERT_TRUE(startDaemon({"-v", "-l"}));
    ASSERT_EQ(beginCompare(), 4);
    RestoreDriver lc(client_);
    EXPECT_EQ(lc.compare(tape("cmp-plain"), "plain data"), Verdicts(0xDC, 0));
    close(fd);
    EXPECT_EQ(lc.compare(tape("cmp-plain"), "plain data"), Verdicts(0, 0));
    EXPECT_EQ(lc.end(), 3);
    fd = holdLock(at("plain"), F_RDLCK);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(beginRestore(3, 0, "", optionsRecord(1, 0)), 4);
    RestoreDriver lr(client_);
    EXPECT_EQ(lr.file(file("plain"), "new"), 'z');
    EXPECT_EQ(lr.end(), 3);
    close(fd);
    EXPECT_EQ(readFile(at("plain")), "new plain");
}

// Hard links, symbolic links, fifos and character devices as such are in
// tavikctl's round trip; here what it cannot arrange.
TEST_F(RestoreTest, HardLinksSymbolicLinksFifosAndDevices) {
    ASSERT_TRUE(startDaemon());
    writeFile(at("existing"), "replaced by a link");
    ASSERT_EQ(beginRestore(), 4);
    RestoreDriver r(client_);
    // The second name of an inode becomes a hard link, with missing parents;
    // the same inode number on another device is another file.
    RestoreAttributes first = file("h1", 0100640);
    first.nlink = 3;
    first.dev = 0x00400003;
    first.ino = 77;
    EXPECT_EQ(r.file(first, "first data"), 0);
    EXPECT_EQ(r.file(as(first, "new/dir/h3"), "second data is discarded"), 0);
    RestoreAttributes otherDevice = as(first, "h4");
    otherDevice.dev = 9;
    EXPECT_EQ(r.file(otherDevice, "another file"), 0);
    // A link to a name that UNLINK took away cannot be made.
    RestoreAttributes gone = as(first, "g1");
    gone.ino = 78;
    EXPECT_EQ(r.file(gone, "1"), 0);
    ASSERT_TRUE(r.send(protocol::code::kUnlink));
    EXPECT_EQ(r.file(as(gone, "g2"), "2"), 'o');
    // Symbolic links are made at ENDF, with missing parents, over a file.
    EXPECT_EQ(r.file(restoreAttrs(at("links/sub/ln"), 0120777, 4321, 765), "../../target file"), 0);
    EXPECT_EQ(r.file(restoreAttrs(at("existing"), 0120777, 4321, 765), "elsewhere"), 0);
    // A block device, raw data written into a device, and a device of no
    // driver (major 240 is for local use) that cannot take its raw data.
    RestoreAttributes block = file("sub/loop", 060660);
    block.rdev = encodeDev32(makedev(7, 200));
    EXPECT_EQ(r.file(block), 0);
    RestoreAttributes raw = file("rawnull", 020666);
    raw.rdev = encodeDev32(makedev(1, 3));
    raw.size = 5000;
    EXPECT_EQ(r.file(raw, pattern(5000, 4)), 0);
    RestoreAttributes noDriver = as(raw, "nodriver");
    noDriver.rdev = encodeDev32(makedev(240, 0));
    EXPECT_EQ(r.file(noDriver, pattern(5000, 4)), 'x');
    EXPECT_EQ(r.end(), 3);

    struct stat a = statOf(at("h1")), c = statOf(at("new/dir/h3")), d = statOf(at("h4"));
    EXPECT_EQ(a.st_ino, c.st_ino);
    EXPECT_NE(a.st_ino, d.st_ino);
    EXPECT_EQ(readFile(at("new/dir/h3")), "first data");
    EXPECT_EQ(readFile(at("h4")), "another file");
    EXPECT_EQ(modeOf("g2"), 0u);
    EXPECT_TRUE(logHas("(postml) Can't create hardlink for <" + at("g1") + "> & <" + at("g2") +
                       "> (No such file or directory)"));
    EXPECT_EQ(fs::read_symlink(at("links/sub/ln")), "../../target file");
    EXPECT_EQ(owned("links/sub/ln"), std::make_tuple(mode_t(0120777), 4321u, 765u));
    EXPECT_EQ(statOf(at("links/sub")).st_uid, user_.uid());
    EXPECT_TRUE(S_ISLNK(modeOf("existing")));
    struct stat blk = statOf(at("sub/loop"));
    EXPECT_TRUE(S_ISBLK(blk.st_mode));
    EXPECT_EQ(blk.st_rdev, makedev(7, 200));
    EXPECT_TRUE(S_ISCHR(modeOf("rawnull")));
    EXPECT_TRUE(logHas("(ws_restore[OPENFILE]) Faied to open " + at("nodriver")));
}

TEST_F(RestoreTest, BadCommandsAreRefusedAndAbortEndsTheJob) {
    ASSERT_TRUE(startDaemon());
    writeFile(at("keep"), "keep me");
    ASSERT_EQ(beginRestore(1), 4);
    RestoreDriver r(client_);
    // A name of 1024 bytes has no room for its NUL: 'j', its data dropped.
    std::vector<uint8_t> record = encode(file("x"));
    record.resize(48);
    record.insert(record.end(), 1100, 'a');
    ASSERT_TRUE(r.send(protocol::code::kOpenFile, record));
    ASSERT_TRUE(r.mof(std::vector<uint8_t>(2048, 'z')));
    EXPECT_EQ(r.endf(std::vector<uint8_t>(10, 'z')), 'j');
    ASSERT_TRUE(r.send(protocol::code::kMkdir, record));  // logged, not answered
    // Unknown commands are logged and ignored.
    ASSERT_TRUE(r.send(63));
    ASSERT_TRUE(r.send(static_cast<int8_t>(200), std::vector<uint8_t>(16, 1)));
    EXPECT_EQ(r.endf(), 'j');  // ENDF with no file
    // UNLINK after a skipped file does not remove the file the policy kept;
    // after a restored file it removes it.
    EXPECT_EQ(r.file(file("keep"), "other"), kSkipped);
    ASSERT_TRUE(r.send(protocol::code::kUnlink));
    EXPECT_EQ(r.file(file("gone"), "data"), 0);
    ASSERT_TRUE(r.send(protocol::code::kUnlink));
    EXPECT_EQ(r.file(file("after"), "after"), 0);
    // ABORT ends the job without an answer.
    ASSERT_TRUE(r.send(protocol::code::kAbort));
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost"));
    EXPECT_EQ(readFile(at("keep")), "keep me");
    EXPECT_EQ(readFile(at("after")), "after");
    EXPECT_EQ(modeOf("gone"), 0u);
    for (const char* line : {"(ws_restore[OPENFILE]) Failed to create aaaaaaaaaa", "(File name too long)",
                             "(ws_restore[MKDIR]) Failed to make directory <aaaaaaaaaa",
                             "(ws_restore) Unknown command: 3f", "(ws_restore) Unknown command: ffffffc8",
                             "(ws_restore[ABORT]) Job aborted by front-end"}) {
        EXPECT_TRUE(logHas(line)) << line;
    }
}

// A stream that breaks off in the middle of a file that replaces another
// (an oversized payload or record, a closed or reset connection, ABORT, a
// full disk) ends the job; files answered before stay intact, the old file
// keeps its place and attributes, and no temporary file is left behind.
TEST_F(RestoreTest, BrokenStreamsEndTheJobAndAnsweredFilesStayIntact) {
    ASSERT_TRUE(startDaemon());
    auto sender = [](int8_t code, size_t size) {
        return [=](RestoreDriver& r) { r.send(code, std::vector<uint8_t>(size, 'p')); };
    };
    const struct {
        const char* what;
        std::function<void(RestoreDriver&)> cut;
        std::string line;  // how the job's end is logged
    } rows[] = {
        {"an oversized MOF", sender(protocol::code::kMof, 2049), kCut},
        {"an oversized ENDF", sender(protocol::code::kEndf, 2049), kCut},
        {"a record larger than any name could make it", sender(protocol::code::kOpenFile, 48 + 4097), kCut},
        {"ABORT", sender(protocol::code::kAbort, 0), "(ws_restore[ABORT]) Job aborted by front-end"},
        {"a closed connection", [this](RestoreDriver&) { client_.close(); }, kCut},
        {"a reset connection", [this](RestoreDriver&) { resetConnection(); }, kCut},
    };
    int row = 0;
    for (const auto& [what, cut, line] : rows) {
        SCOPED_TRACE(what);
        std::string name = std::to_string(++row), done = pattern(7000, row);
        writeFile(at(name + "-old"), "the good old file");
        ASSERT_EQ(beginRestore(), 4);
        RestoreDriver r(client_);
        EXPECT_EQ(r.file(file(name + "-done", 0100755), done), 0);
        ASSERT_TRUE(r.openFile(file(name + "-old", 0100755)));  // overwrites
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(r.mof(std::vector<uint8_t>(2048, 'q')));
        size_t ended = countOf(daemon_.log(), line);
        cut(r);
        if (client_.fd() >= 0) {
            EXPECT_TRUE(agentCloses());
        }
        EXPECT_TRUE(daemon_.waitForLog(line, ended + 1));
        EXPECT_EQ(readFile(at(name + "-done")), done);
        EXPECT_EQ(modeOf(name + "-done"), mode_t(0100755));
        EXPECT_EQ(statOf(at(name + "-done")).st_mtime, time_t(kTime));
        EXPECT_EQ(readFile(at(name + "-old")), "the good old file");
        EXPECT_EQ(modeOf(name + "-old"), mode_t(0100644));
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(work_), {}), 2 * row) << "no temporary file is left";
    EXPECT_TRUE(logHas("(GetReply) Failed to Receive Data Packet"));

    // A full file system: 'd' for the file that does not fit, and the job ends.
    if (mount("tavik-test", work_.c_str(), "tmpfs", 0, "size=256k,mode=0755") != 0) {
        GTEST_SKIP() << "mounting a tmpfs is not permitted here: " << std::strerror(errno);
    }
    chown(work_.c_str(), user_.uid(), user_.gid());
    struct Unmount {
        std::string path;
        ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
    } unmount{work_};
    ASSERT_EQ(beginRestore(), 4);
    RestoreDriver r(client_);
    std::string medium = pattern(50000, 7);
    EXPECT_EQ(r.file(file("medium", 0100640), medium), 0);
    writeFile(at("huge"), "the good old file");
    EXPECT_EQ(r.file(file("huge", 0100640), pattern(600000, 8)), 'd');
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost", 2));  // after ABORT's
    EXPECT_TRUE(logHas("(ws_restore[MOF]) Failed in writing file <" + at("huge") + "> (No space left on device)"));
    EXPECT_EQ(readFile(at("medium")), medium);
    EXPECT_EQ(modeOf("medium"), mode_t(0100640));
    EXPECT_EQ(readFile(at("huge")), "the good old file");
    EXPECT_EQ(std::distance(fs::directory_iterator(work_), {}), 2) << "no temporary file is left";
}

TEST_F(CompareTest, AnUnchangedTreeIsIdenticalEverywhereAndKeepsItsAccessTimes) {
    ASSERT_TRUE(startDaemon());
    makeDir("sub");
    std::map<std::string, std::string> files = {
        {"empty", ""},
        {"batch", pattern(4296, 1)},     // exactly one comparison block
        {"sub/big", pattern(20000, 2)},  // blocks at MOF and a rest at ENDF
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
    EXPECT_EQ(r.compareDir(tape("")), 0);  // the root itself
    EXPECT_EQ(r.compareDir(tape("sub")), 0);
    for (const auto& [rel, content] : files) EXPECT_EQ(r.compare(tape(rel), content), Verdicts(0, 0)) << rel;
    EXPECT_EQ(r.compare(tape("mandatory"), "locks tested, none held"), Verdicts(0, 0));
    EXPECT_EQ(r.compare(tape("link"), "sub/big"), Verdicts(0, 0));
    EXPECT_EQ(r.compare(tape("fifo")), Verdicts(0, 0));
    EXPECT_EQ(r.acks(), 3);  // 11 MOF packets, every third acknowledged
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
    setTimes(at("batch"), atime, kBackupTime);
    readFile(at("batch"));
    if (statOf(at("batch")).st_atime == atime) GTEST_SKIP() << "reads do not update access times here";
    setTimes(at("sub/big"), atime, kBackupTime);
    ASSERT_EQ(beginCompare(kNoAccessReset), 4);
    RestoreDriver again(client_);
    EXPECT_EQ(again.compare(tape("sub/big"), files["sub/big"]), Verdicts(0, 0));
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
            RestoreAttributes file = tape("f");
            c.change(file);
            // The contents are still compared when only an attribute differs.
            EXPECT_EQ(r.compare(file, "same contents"), Verdicts(detailed ? c.code : 0xD6, 0)) << c.what;
            EXPECT_EQ(r.compare(file, "same_contents"), Verdicts(detailed ? c.code : 0xD6, 0xDA)) << c.what;
            RestoreAttributes dir = tape("d");
            c.change(dir);
            EXPECT_EQ(r.compareDir(dir), detailed ? c.code : 0xD7) << c.what;
        }
        RestoreAttributes dev = tape("dev");
        dev.rdev = encodeDev32(makedev(1, 5));
        EXPECT_EQ(r.compare(dev), Verdicts(detailed ? 0xE3 : 0xD6, 0));
        // Mode and links both differ: only the first is reported.
        RestoreAttributes two = tape("f");
        two.mode = 0100600;
        two.nlink = 7;
        EXPECT_EQ(r.compare(two, "same contents"), Verdicts(detailed ? 0xDD : 0xD6, 0));
        EXPECT_EQ(r.end(), 3);
        EXPECT_TRUE(agentCloses());
    }

    std::string was = tavik::formatLogDate(kBackupTime - 86400).c_str(), now = tavik::formatLogDate(kBackupTime).c_str();
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

TEST_F(CompareTest, MissingObjectsSizesContentsFollowedLinksAndAbort) {
    ASSERT_TRUE(startDaemon());
    makeFile("sized", "twelve bytes");
    makeFile("big", pattern(20000, 5));
    makeFile("tail", pattern(5000, 6));
    makeFile("shrinks", pattern(12000, 7));
    symlink("target-a", at("link").c_str());
    symlink("target-a", at("vanishing").c_str());

    ASSERT_EQ(beginCompare(kDetailed), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(r.compare(tape("sized", "no-such-file"), "twelve bytes"), Verdicts(0xD2, 0));
    EXPECT_EQ(r.compareDir(tape("", "no-such-dir")), 0xD3);

    // Size and mode differ: both are logged, the size answers, no contents.
    RestoreAttributes sized = tape("sized");
    sized.size = 11;
    sized.mode = 0100600;
    EXPECT_EQ(r.compare(sized, "eleven byte"), Verdicts(0xD5, 0));

    std::string changed = pattern(20000, 5);
    changed[5000] ^= 1;  // in the second comparison block, found at a MOF
    EXPECT_EQ(r.compare(tape("big"), changed), Verdicts(0, 0xDA));
    std::string lastByte = pattern(5000, 6);
    lastByte[4999] ^= 1;  // in the rest compared at ENDF
    EXPECT_EQ(r.compare(tape("tail"), lastByte), Verdicts(0, 0xDA));
    EXPECT_EQ(r.compare(tape("big"), pattern(20000, 5)), Verdicts(0, 0));

    // Symbolic links: by the target's length and bytes.
    EXPECT_EQ(r.compare(tape("link"), "target-b"), Verdicts(0, 0xDA));
    EXPECT_EQ(r.compare(tape("link"), "target-aa"), Verdicts(0, 0xDA));
    EXPECT_EQ(r.compare(tape("link"), "target-a"), Verdicts(0, 0));
    // A link that goes away between OPENFILE and ENDF cannot be read.
    ASSERT_EQ(r.compareOpen(tape("vanishing")), 0);
    unlink(at("vanishing").c_str());
    EXPECT_EQ(r.endf(bytes("target-a")), 0xD9);

    // A file cut short after OPENFILE: its blocks cannot be read.
    ASSERT_EQ(r.compareOpen(tape("shrinks")), 0);
    truncate(at("shrinks").c_str(), 100);
    std::string data = pattern(12000, 7);
    for (size_t i = 0; i < 10240; i += 2048) ASSERT_TRUE(r.mof(bytes(data).subspan(i, 2048)));
    EXPECT_EQ(r.endf(bytes(data).subspan(10240)), 0xD8);

    // A character device with raw contents on the tape: not compared.
    ASSERT_EQ(mknod(at("raw").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    RestoreAttributes raw = tape("raw");
    raw.size = 100;
    EXPECT_EQ(r.compare(raw, std::string(100, 'r')), Verdicts(0, 0));
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

    // Links followed at the request's word (the daemon runs without -f):
    // compared as what they point to; ABORT ends the job without an answer.
    makeFile("to", pattern(5000, 9));
    symlink("to", at("followed").c_str());
    symlink("nowhere", at("gone").c_str());
    ASSERT_EQ(beginCompare(kDetailed, 0, {}, 1), 4);
    RestoreDriver f(client_);
    RestoreAttributes followed = tape("to", "followed");
    EXPECT_EQ(f.compare(followed, pattern(5000, 9)), Verdicts(0, 0));
    // The backup saw a link: type and size differ.
    EXPECT_EQ(f.compare(tape("followed"), "to"), Verdicts(0xD5, 0));
    EXPECT_EQ(f.compare(tape("gone"), "nowhere"), Verdicts(0xD2, 0));
    ASSERT_TRUE(f.send(99));  // unknown: logged, no answer
    EXPECT_EQ(f.compare(followed, pattern(5000, 9)), Verdicts(0, 0));
    ASSERT_TRUE(f.send(protocol::code::kAbort));
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost", 2));
    for (const char* line : {"* Symbolic links will be followed",
                             "(ws_compare[OPENFILE]) File [followed] mode is changed (0120777 -> 0100644)",
                             "(ws_compare[OPENFILE]) Failed to get the attributes (stat) of gone (No such file",
                             "(ws_compare) Unknown command: 63", "(ws_compare[ABORT]) Job aborted by front-end"}) {
        EXPECT_TRUE(logHas(line)) << line;
    }
    EXPECT_EQ(countOf(daemon_.log(), "Workstation Compare Ended"), 1u);  // the first job's only

    // A front-end that dies mid-file (a reset): the job ends, the file is
    // left as it was, and the next compare is served.
    ASSERT_EQ(beginCompare(), 4);
    RestoreDriver cut(client_);
    ASSERT_EQ(cut.compareOpen(tape("to")), 0);
    ASSERT_TRUE(cut.mof(bytes(pattern(2048, 9))));
    resetConnection();
    EXPECT_TRUE(daemon_.waitForLog(kCut));
    EXPECT_EQ(readFile(at("to")), pattern(5000, 9));
    ASSERT_EQ(beginCompare(), 4);
    RestoreDriver next(client_);
    EXPECT_EQ(next.compare(tape("to"), pattern(5000, 9)), Verdicts(0, 0));
}

// Streams the front-end would never send: names too long for any file, a
// record or a payload beyond its bound, a stream that stops in a header;
// and a file whose size needs more than 32 bits.
TEST_F(CompareTest, DamagedStreamsAndSizesBeyond32Bits) {
    ASSERT_TRUE(startDaemon());
    makeFile("f", "data");
    // A record whose name is `n` bytes of 'n' and its NUL.
    auto longName = [](size_t n) {
        std::vector<uint8_t> record(protocol::kRecName + n + 1, 'n');
        std::fill_n(record.begin(), protocol::kRecName, 0);
        record.back() = 0;
        return record;
    };
    // Overlong names are objects that cannot be examined, and the stream
    // goes on; a deleting grooming that finds nothing identical sends no
    // report.
    ASSERT_EQ(beginCompare(0, 0, groomingRecord(0x04)), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(r.command(protocol::code::kOpenFile, longName(1024)), 0xD2);
    ASSERT_TRUE(r.mof(std::vector<uint8_t>(2048, 'x')));
    EXPECT_EQ(r.endf(std::vector<uint8_t>(10, 'x')), 0);
    EXPECT_EQ(r.command(protocol::code::kMkdir, longName(4000)), 0xD3);
    // A name that fits the buffer but is too long for the system.
    EXPECT_EQ(r.command(protocol::code::kOpenFile, longName(1023)), 0xD2);
    EXPECT_EQ(r.endf(), 0);
    RestoreAttributes other = tape("f");
    other.mode ^= 0044;  // the same contents, but an attribute differs: not groomed
    EXPECT_EQ(r.compare(other, "data"), Verdicts(0xD6, 0));
    EXPECT_EQ(r.endf(), 0);  // no file to end: nothing is compared
    EXPECT_EQ(r.endWithReport().count, "");
    EXPECT_TRUE(daemon_.waitForLog("Total 0 files were deleted"));
    EXPECT_EQ(readFile(at("f")), "data");
    const std::string tooLong = std::string(100, 'n') + "... (File name too long)";
    EXPECT_TRUE(logHas("(ws_compare[OPENFILE]) Failed to get the attributes (lstat) of " + tooLong));
    EXPECT_TRUE(logHas("(ws_compare[MKDIR]) Failed to get the attributes (stat) of " + tooLong));

    // A payload or record beyond its bound, or a header cut short: 100, and
    // the job ends.
    const struct {
        const char* what;
        std::function<void(RestoreDriver&)> send;
        std::vector<int> answers;
    } rows[] = {
        {"a data payload larger than one packet may carry",
         [&](RestoreDriver& d) {
             if (d.openFile(tape("f"))) d.send(protocol::code::kMof, std::vector<uint8_t>(2049));
         },
         {0, 100}},
        {"a record larger than the record area",
         [&](RestoreDriver& d) { d.send(protocol::code::kOpenFile, longName(60000)); }, {100}},
        {"a stream that stops in a header",
         [&](RestoreDriver& d) {
             if (d.openFile(tape("f"))) client_.sendRaw(std::array<uint8_t, 3>{});
             shutdown(client_.fd(), SHUT_WR);
         },
         {0, 100}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(beginCompare(), 4);
        RestoreDriver d(client_);
        row.send(d);
        for (int answer : row.answers) EXPECT_EQ(d.status(), answer);
        EXPECT_TRUE(agentCloses());
    }
    EXPECT_TRUE(logHas("(GetReply) Failed to Receive Data Packet"));
    EXPECT_TRUE(logHas("(GetReply) Failed to Receive Header Packet"));

    // Above 4 GiB the size is compared by its low 32 bits.
    int fd = open(at("big").c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    if (ftruncate(fd, (off_t{1} << 32) + 10) != 0) {
        close(fd);
        GTEST_SKIP() << "no sparse files of 4 GiB here";
    }
    close(fd);
    RestoreAttributes big = tape("big");
    EXPECT_EQ(big.size, 10u);
    ASSERT_EQ(beginCompare(), 4);
    RestoreDriver b(client_);
    ASSERT_EQ(b.compareOpen(big), 0);
    big.size = 11;
    EXPECT_EQ(b.compareOpen(big), 0xD5);
    ASSERT_TRUE(b.send(protocol::code::kAbort));
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("(ws_compare[OPENFILE]) File [big] size is changed (11 -> 10)"));
}

TEST_F(CompareTest, RotationSetGroomingRemovesOnlyOldIdenticalFiles) {
    ASSERT_TRUE(startDaemon());
    makeDir("old");
    makeFile("old/a", pattern(5000, 8), 0644, kOld);
    makeFile("old/changed", "old but changed", 0644, kOld);
    makeFile("recent", "recent", 0644, time(nullptr) - 60);
    makeFile("old/read-lately", "read lately", 0644, kOld);
    setTimes(at("old/read-lately"), time(nullptr) - 3600, kOld);
    for (const char* rel : {"old/a", "old/changed"}) setTimes(at(rel), kOld, kOld);

    ASSERT_EQ(beginCompare(0, 0, groomingRecord(0x02, 1, "WEEKSET")), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(r.compareDir(tape("old")), 0);
    EXPECT_EQ(r.compare(tape("old/a"), pattern(5000, 8)), Verdicts(0, 0));
    EXPECT_EQ(r.compare(tape("old/changed"), "old but chxnged"), Verdicts(0, 0xDA));
    EXPECT_EQ(r.compare(tape("recent"), "recent"), Verdicts(0, 0));
    EXPECT_EQ(r.compare(tape("old/read-lately"), "read lately"), Verdicts(0, 0));
    std::string work = endWithGrooming(r, "1");
    EXPECT_FALSE(fs::exists(at("old/a")));
    for (const char* kept : {"old/changed", "recent", "old/read-lately", "old"})
        EXPECT_TRUE(fs::exists(at(kept))) << kept;
    EXPECT_TRUE(has(work, at("old/a")));
    EXPECT_FALSE(has(work, "changed"));
    // The set's copy file has the work file appended, and so on each job.
    EXPECT_EQ(readFile(daemon_.home() + "LOG/WEEKSET.grm"), work);
    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost"));
    EXPECT_TRUE(logHas("Total 1 files were groomed for Helmsman set WEEKSET"));
    EXPECT_FALSE(logHas("Delete "));
}

TEST_F(CompareTest, DeletingGroomingRemovesExactlyTheIdenticalUnprotectedFiles) {
    ASSERT_TRUE(startDaemon());
    makeDir("d");
    const std::vector<std::string> same = {"d/f0", "d/f1"};
    for (unsigned i = 0; i < same.size(); ++i) makeFile(same[i], pattern(3000 * i + 1, i));
    makeFile("changed", "changed");
    makeFile("mode", "mode");
    makeDir("keep");
    makeFile("keep/protected", "protected");
    symlink("d/f0", at("link").c_str());
    lchown(at("link").c_str(), user_.uid(), user_.gid());
    std::ofstream(daemon_.home() + "groom.cntl") << at("keep") << "\n";

    ASSERT_EQ(beginCompare(0, 0, groomingRecord(0x04)), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(r.compareDir(tape("")), 0);
    EXPECT_EQ(r.compareDir(tape("d")), 0);
    for (unsigned i = 0; i < same.size(); ++i)
        EXPECT_EQ(r.compare(tape(same[i]), pattern(3000 * i + 1, i)), Verdicts(0, 0));
    EXPECT_EQ(r.compare(tape("changed"), "chanGed"), Verdicts(0, 0xDA));
    RestoreAttributes mode = tape("mode");
    mode.mode = 0100600;
    EXPECT_EQ(r.compare(mode, "mode"), Verdicts(0xD6, 0));
    EXPECT_EQ(r.compareDir(tape("keep")), 0);
    EXPECT_EQ(r.compare(tape("keep/protected"), "protected"), Verdicts(0, 0));
    EXPECT_EQ(r.compare(tape("link"), "d/f0"), Verdicts(0, 0));
    std::string work = endWithGrooming(r, "3");

    for (const std::string& rel : same) EXPECT_FALSE(fs::exists(at(rel))) << rel;
    EXPECT_FALSE(fs::is_symlink(at("link")));
    for (const char* kept : {"changed", "mode", "keep/protected", "d", ""}) EXPECT_TRUE(fs::exists(at(kept))) << kept;
    EXPECT_TRUE(daemon_.waitForLog("Total 3 files were deleted"));
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
