// Restore jobs on a real daemon: a test login, the front-end's job client
// and the restore record encoder drive the command stream; the files the
// agent makes are checked on disk (content, type, mode, owner, times, inode
// and device numbers) together with every status byte and the log lines.
#include <sys/mount.h>
#include <sys/sysmacros.h>

#include <cstring>
#include <tuple>

#include "e2e/restore_driver.h"
#include "e2e/test_user.h"
#include "platform/wire_stat.h"

namespace {

using namespace tavik::test;
using tavik::restore::RestoreAttributes;

constexpr uint32_t kTime = 1234567890;
constexpr int kSkipped = 0xCB;

class RestoreTest : public LoginJobTest {
protected:
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
    mode_t modeOf(const std::string& name) const { return statOf(at(name)).st_mode; }
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
};

TEST_F(RestoreTest, FilesDirectoriesModesOwnersAndTimesComeBackExactly) {
    ASSERT_TRUE(startDaemon());
    ASSERT_EQ(beginRestore(3, 3), 4) << client_.lastError();
    // The destination was made by the login's own process.
    EXPECT_EQ(owned(""), std::make_tuple(mode_t(040755), user_.uid(), user_.gid()));

    RestoreDriver r(client_, 3);
    ASSERT_TRUE(r.mkdir(restoreAttrs(at("sub"), 040750, 4321, 765, kTime)));
    ASSERT_TRUE(r.mkdir(restoreAttrs(at("sticky"), 041777, user_.uid(), user_.gid())));
    ASSERT_TRUE(r.mkdir(restoreAttrs(at("sub"), 040700, 0, 0)));  // exists: nothing happens
    std::string big = pattern(20000, 1);
    EXPECT_EQ(r.file(restoreAttrs(at("sub/big"), 0100640, 4321, 765, kTime), big), 0);
    EXPECT_EQ(r.file(file("empty", 0100600, kTime - 5)), 0);
    EXPECT_EQ(r.file(file("suid", 0104755), "#!/bin/sh\n"), 0);
    EXPECT_EQ(r.file(file("sgid", 0102711), "x"), 0);
    EXPECT_EQ(r.file(file("batch", 0100644), pattern(4296, 2)), 0);
    EXPECT_EQ(r.file(file("deep/er/leaf", 0100444), "leaf"), 0);
    EXPECT_EQ(r.acks(), 3);  // 9 + 2 MOF packets, every third acknowledged
    EXPECT_EQ(r.end(), 3);
    EXPECT_TRUE(agentCloses());

    EXPECT_EQ(owned("sub"), std::make_tuple(mode_t(040750), 4321u, 765u));
    EXPECT_EQ(modeOf("sticky"), mode_t(041777));
    struct stat st = statOf(at("sub/big"));  // before reading it changes the access time
    EXPECT_EQ(readFile(at("sub/big")), big);
    EXPECT_EQ(owned("sub/big"), std::make_tuple(mode_t(0100640), 4321u, 765u));
    EXPECT_EQ(st.st_mtime, time_t(kTime));
    EXPECT_EQ(st.st_atime, time_t(kTime + 3600));
    EXPECT_EQ(statOf(at("empty")).st_size, 0);
    EXPECT_EQ(statOf(at("empty")).st_mtime, time_t(kTime - 5));
    EXPECT_EQ(owned("suid"), std::make_tuple(mode_t(0104755), user_.uid(), user_.gid()));
    EXPECT_EQ(modeOf("sgid"), mode_t(0102711));
    EXPECT_EQ(readFile(at("batch")), pattern(4296, 2));
    // Missing parents: 0755, owned by the login.
    EXPECT_EQ(owned("deep/er"), std::make_tuple(mode_t(040755), user_.uid(), user_.gid()));
    EXPECT_EQ(readFile(at("deep/er/leaf")), "leaf");

    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost"));
    EXPECT_TRUE(logHas("Start Restore Job From localhost(" + user_.name() + "), Destination = " + work_));
    EXPECT_TRUE(logHas("SO_RCVBUF = "));
    EXPECT_TRUE(logHas(" - Workstation Restore Completed"));
}

TEST_F(RestoreTest, EveryConflictPolicy) {
    ASSERT_TRUE(startDaemon());
    makeWork();
    writeFile(at("a"), "old a");
    writeFile(at("r"), "r0");
    writeFile(at("r.AS1"), "r1");
    writeFile(at("n.AS9"), "n9");
    writeFile(at("same"), "same", kTime);
    writeFile(at("older"), "older", kTime - 1);
    writeFile(at("newer"), "newer", kTime + 1);
    mkdir(at("d").c_str(), 0700);
    // Real directories so that an existing name is 1021 bytes long: its
    // ".AS1" would need 1025 bytes with the NUL.
    std::string dir = work_;
    while (dir.size() + 1 + 200 + 30 < 1021) {
        dir += "/" + std::string(200, 'q');
        ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    }
    std::string longName = dir + "/" + std::string(1021 - dir.size() - 1, 'f');
    ASSERT_EQ(longName.size(), 1021u);
    writeFile(longName, "keep");

    {  // skip: the data is discarded and 0xCB answered at ENDF
        ASSERT_EQ(beginRestore(1), 4);
        RestoreDriver r(client_);
        EXPECT_EQ(r.file(file("a"), pattern(9000, 3)), kSkipped);
        EXPECT_EQ(readFile(at("a")), "old a");
        EXPECT_EQ(r.file(file("fresh"), "fresh"), 0);  // a free name is restored
        EXPECT_EQ(r.file(file("d"), "x"), 'j');        // a directory is in the way
        EXPECT_EQ(r.end(), 3);
    }
    {  // newer: only files older on disk are replaced; equal times are kept
        ASSERT_EQ(beginRestore(4), 4);
        RestoreDriver r(client_);
        EXPECT_EQ(r.file(file("same"), "new"), kSkipped);
        EXPECT_EQ(r.file(file("newer"), "new"), kSkipped);
        EXPECT_EQ(r.file(file("older"), "new"), 0);
        EXPECT_EQ(r.end(), 3);
        EXPECT_EQ(readFile(at("same")), "same");
        EXPECT_EQ(readFile(at("newer")), "newer");
        EXPECT_EQ(readFile(at("older")), "new");
    }
    {  // rename: the chain climbs to the first free name; a name that would not fit is refused
        ASSERT_EQ(beginRestore(2), 4);
        RestoreDriver r(client_);
        EXPECT_EQ(r.file(file("r"), "r2"), 0);
        EXPECT_EQ(r.file(file("n.AS9"), "n10"), 0);
        EXPECT_EQ(r.file(file("d"), "x"), 'j');
        EXPECT_EQ(r.file(restoreAttrs(longName, 0100644), "new"), 'j');
        EXPECT_EQ(r.end(), 3);
        EXPECT_EQ(readFile(at("r")), "r0");
        EXPECT_EQ(readFile(at("r.AS1")), "r1");
        EXPECT_EQ(readFile(at("r.AS2")), "r2");
        EXPECT_EQ(readFile(at("n.AS10")), "n10");
        EXPECT_EQ(statOf(at("r.AS2")).st_mtime, time_t(kTime));
        EXPECT_EQ(readFile(longName), "keep");
        EXPECT_TRUE(logHas("(File name too long)"));
    }
    for (uint8_t policy : {3, 0, 5}) {  // overwrite, an unknown policy, 5 taken as 3
        SCOPED_TRACE(int(policy));
        writeFile(at("a"), "old a");
        ASSERT_EQ(beginRestore(policy), 4);
        RestoreDriver r(client_);
        EXPECT_EQ(r.file(file("a", 0100604), "new a"), 0);
        EXPECT_EQ(r.file(file("d"), "x"), 'j');
        EXPECT_EQ(r.end(), 3);
        EXPECT_EQ(readFile(at("a")), "new a");
        EXPECT_EQ(modeOf("a"), mode_t(0100604));
    }
    EXPECT_TRUE(S_ISDIR(modeOf("d")));
    EXPECT_TRUE(logHas("(ws_restore[OPENFILE]) Cannot create <" + at("d") + ">, same name directory exists"));
}

TEST_F(RestoreTest, LockedFilesAreAnsweredZAndKept) {
    ASSERT_TRUE(startDaemon());
    makeWork();
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

    // With -l every regular file is tested, a read lock is enough.
    daemon_.stop();
    ASSERT_TRUE(startDaemon({"-v", "-l"}));
    fd = holdLock(at("plain"), F_RDLCK);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(beginRestore(3, 0, "", optionsRecord(1, 0)), 4);
    RestoreDriver l(client_);
    EXPECT_EQ(l.file(file("plain"), "new"), 'z');
    EXPECT_EQ(l.end(), 3);
    close(fd);
    EXPECT_EQ(readFile(at("plain")), "new plain");
}

TEST_F(RestoreTest, HardLinksSymbolicLinksFifosAndDevices) {
    ASSERT_TRUE(startDaemon());
    makeWork();
    writeFile(at("existing"), "replaced by a link");
    ASSERT_EQ(beginRestore(), 4);
    RestoreDriver r(client_);
    // The second name of an inode becomes a hard link.
    RestoreAttributes first = file("h1", 0100640);
    first.nlink = 3;
    first.dev = 0x00400003;
    first.ino = 77;
    EXPECT_EQ(r.file(first, "first data"), 0);
    EXPECT_EQ(r.file(as(first, "h2"), "second data is discarded"), 0);
    EXPECT_EQ(r.file(as(first, "new/dir/h3"), ""), 0);  // parents are made for a link too
    RestoreAttributes otherDevice = as(first, "h4");
    otherDevice.dev = 9;
    EXPECT_EQ(r.file(otherDevice, "another file"), 0);
    // Symbolic links are made at ENDF, with missing parents.
    EXPECT_EQ(r.file(restoreAttrs(at("links/sub/ln"), 0120777, 4321, 765), "../../target file"), 0);
    EXPECT_EQ(r.file(restoreAttrs(at("existing"), 0120777, 4321, 765), "elsewhere"), 0);  // overwritten
    // Special files, and raw data written into a device.
    EXPECT_EQ(r.file(file("fifo", 010640)), 0);
    RestoreAttributes null = file("null", 020666);
    null.rdev = tavik::platform::encodeDev32(makedev(1, 3));
    EXPECT_EQ(r.file(null), 0);
    RestoreAttributes block = file("sub/loop", 060660);
    block.rdev = tavik::platform::encodeDev32(makedev(7, 200));
    EXPECT_EQ(r.file(block), 0);
    RestoreAttributes raw = as(null, "rawnull");
    raw.size = 5000;
    EXPECT_EQ(r.file(raw, pattern(5000, 4)), 0);
    EXPECT_EQ(r.end(), 3);

    struct stat a = statOf(at("h1")), b = statOf(at("h2")), c = statOf(at("new/dir/h3")), d = statOf(at("h4"));
    EXPECT_EQ(a.st_ino, b.st_ino);
    EXPECT_EQ(a.st_ino, c.st_ino);
    EXPECT_NE(a.st_ino, d.st_ino);
    EXPECT_EQ(a.st_nlink, 3u);
    EXPECT_EQ(readFile(at("h2")), "first data");
    EXPECT_EQ(readFile(at("h4")), "another file");
    EXPECT_EQ(b.st_mtime, time_t(kTime));

    char target[256] = {};
    ASSERT_GT(readlink(at("links/sub/ln").c_str(), target, sizeof target - 1), 0);
    EXPECT_STREQ(target, "../../target file");
    EXPECT_EQ(owned("links/sub/ln"), std::make_tuple(mode_t(0120777), 4321u, 765u));
    EXPECT_EQ(statOf(at("links/sub")).st_uid, user_.uid());
    EXPECT_TRUE(S_ISLNK(modeOf("existing")));

    EXPECT_EQ(owned("fifo"), std::make_tuple(mode_t(010640), user_.uid(), user_.gid()));
    struct stat n = statOf(at("null"));
    EXPECT_TRUE(S_ISCHR(n.st_mode));
    EXPECT_EQ(n.st_rdev, makedev(1, 3));
    EXPECT_EQ(n.st_mtime, time_t(kTime));
    struct stat blk = statOf(at("sub/loop"));
    EXPECT_TRUE(S_ISBLK(blk.st_mode));
    EXPECT_EQ(blk.st_rdev, makedev(7, 200));
    EXPECT_TRUE(S_ISCHR(modeOf("rawnull")));
}

TEST_F(RestoreTest, BadCommandsAreRefusedAndAbortEndsTheJob) {
    ASSERT_TRUE(startDaemon());
    makeWork();
    writeFile(at("keep"), "keep me");
    ASSERT_EQ(beginRestore(1), 4);
    RestoreDriver r(client_);
    // A name of 1024 bytes has no room for its NUL: 'j', its data dropped.
    std::vector<uint8_t> record = RestoreDriver::encode(file("x"));
    record.resize(48);
    record.insert(record.end(), 1100, 'a');
    ASSERT_TRUE(r.send(tavik::restore::command::kOpenFile, record));
    ASSERT_TRUE(r.mof(std::vector<uint8_t>(2048, 'z')));
    EXPECT_EQ(r.endf(std::vector<uint8_t>(10, 'z')), 'j');
    ASSERT_TRUE(r.send(tavik::restore::command::kMkdir, record));  // logged, not answered
    // Unknown commands are logged and ignored.
    ASSERT_TRUE(r.send(63));
    ASSERT_TRUE(r.send(static_cast<int8_t>(200), std::vector<uint8_t>(16, 1)));
    EXPECT_EQ(r.endf(), 'j');  // ENDF with no file
    // UNLINK after a skipped file does not remove the file the policy kept;
    // after a restored file it removes it.
    EXPECT_EQ(r.file(file("keep"), "other"), kSkipped);
    ASSERT_TRUE(r.send(tavik::restore::command::kUnlink));
    EXPECT_EQ(r.file(file("gone"), "data"), 0);
    ASSERT_TRUE(r.send(tavik::restore::command::kUnlink));
    EXPECT_EQ(r.file(file("after"), "after"), 0);
    // ABORT ends the job without an answer.
    ASSERT_TRUE(r.send(tavik::restore::command::kAbort));
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

// An oversized payload or a cut connection in the middle of a file ends the
// job; files answered before stay intact and the partial file never gets the
// finished file's attributes.
TEST_F(RestoreTest, BrokenStreamsEndTheJobAndAnsweredFilesStayIntact) {
    ASSERT_TRUE(startDaemon());
    size_t ended = 0;
    for (bool oversized : {true, false}) {
        SCOPED_TRACE(oversized ? "oversized MOF" : "connection cut");
        std::string done = pattern(7000, oversized ? 5 : 6);
        std::string name = oversized ? "oversized" : "cut";
        ASSERT_EQ(beginRestore(), 4);
        RestoreDriver r(client_);
        EXPECT_EQ(r.file(file(name + "-done", 0100755), done), 0);
        ASSERT_TRUE(r.openFile(file(name + "-partial", 0100755)));
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(r.mof(std::vector<uint8_t>(2048, 'p')));
        if (oversized) {
            ASSERT_TRUE(r.send(tavik::restore::command::kMof, std::vector<uint8_t>(2049, 'p')));
            EXPECT_TRUE(agentCloses());
        } else {
            client_.close();
        }
        EXPECT_TRUE(daemon_.waitForLog("Cannot Receive disconnect from localhost", ++ended));
        EXPECT_EQ(readFile(at(name + "-done")), done);
        EXPECT_EQ(modeOf(name + "-done"), mode_t(0100755));
        EXPECT_EQ(statOf(at(name + "-done")).st_mtime, time_t(kTime));
        struct stat p = statOf(at(name + "-partial"));
        EXPECT_EQ(p.st_size, 6144);  // the batch written at the third packet
        EXPECT_EQ(p.st_mode, mode_t(0100600));
        EXPECT_NE(p.st_mtime, time_t(kTime));
    }
    EXPECT_TRUE(logHas("(GetReply) Failed to Receive Data Packet"));
}

TEST_F(RestoreTest, AFullFileSystemAnswersDAndEndsTheJob) {
    ASSERT_TRUE(startDaemon());
    makeWork();
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
    std::string small = pattern(3000, 6), medium = pattern(50000, 7);
    EXPECT_EQ(r.file(file("small", 0100640), small), 0);
    EXPECT_EQ(r.file(file("medium", 0100640), medium), 0);
    EXPECT_EQ(r.file(file("huge", 0100640), pattern(600000, 8)), 'd');
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost"));
    EXPECT_TRUE(logHas("(ws_restore[MOF]) Failed in writing file <" + at("huge") + "> (No space left on device)"));
    EXPECT_EQ(readFile(at("small")), small);
    EXPECT_EQ(readFile(at("medium")), medium);
    EXPECT_EQ(modeOf("medium"), mode_t(0100640));
    EXPECT_EQ(statOf(at("medium")).st_mtime, time_t(kTime));
    EXPECT_EQ(modeOf("huge"), mode_t(0100600));
}

TEST_F(RestoreTest, DestinationTheLoginCannotMakeOrWriteGets105) {
    ASSERT_TRUE(startDaemon());
    Tree rootOnly;
    EXPECT_EQ(beginRestore(3, 0, rootOnly.path("dest")), 105);
    EXPECT_TRUE(daemon_.waitForLog("(make_path) Failed to make directory <" + rootOnly.path("dest") +
                                   "> (Permission denied)"));
    EXPECT_TRUE(daemon_.waitForLog("(make_dir) Failed to create restore directory " + rootOnly.path("dest")));
    EXPECT_EQ(beginRestore(3, 0, rootOnly.dir()), 105);  // exists, but the login may not write it
    EXPECT_TRUE(daemon_.waitForLog("(make_dir) Failed to Access Directory [" + rootOnly.root() + "] (Permission denied)"));
}

}  // namespace
