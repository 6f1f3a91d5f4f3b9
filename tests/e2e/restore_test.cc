// Restore jobs on a real daemon: a test login, the front-end's job client
// and the restore record encoder drive the command stream; the files the
// agent makes are checked on disk (content, type, mode, owner, times, inode
// and device numbers) together with every status byte and the log lines.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "e2e/daemon_fixture.h"
#include "e2e/restore_driver.h"
#include "e2e/test_user.h"
#include "frontend/job_client.h"
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
using tavik::test::restoreAttrs;
using tavik::test::TestUser;

constexpr uint32_t kTime = 1234567890;
constexpr int kSkipped = 0xCB;

std::string pattern(size_t size, unsigned seed) {
    std::string s(size, '\0');
    for (size_t i = 0; i < size; ++i) s[i] = static_cast<char>((i * 131 + seed * 7 + i / 97) & 0xFF);
    return s;
}

void writeFile(const std::string& path, const std::string& content, time_t mtime = 0) {
    std::ofstream(path, std::ios::binary) << content;
    if (mtime != 0) {
        timespec t[2] = {{mtime, 0}, {mtime, 0}};
        utimensat(AT_FDCWD, path.c_str(), t, 0);
    }
}

struct stat statOf(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) st.st_mode = 0;
    return st;
}

class RestoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root: creates a test login, device nodes and owners";
        ASSERT_TRUE(user_.ok());
        dest_ = user_.home() + "/dest";
    }

    bool startDaemon(std::vector<std::string> args = {"-v"}) {
        if (!daemon_.start(args, {{"TAVIK_TIME_DIVISOR", "1000"}})) return false;
        chmod(daemon_.home().c_str(), 0755);
        return true;
    }
    RequestFields fields(uint8_t conflict, const std::string& root) const {
        RequestFields s;
        s.root = root;
        s.login = user_.name();
        s.password = tavik::test::kPassword;
        s.opMode = 1;
        s.conflict = conflict;
        return s;
    }
    // Request, ready, the start command: the stream may begin. The answer
    // to the request (4 when the job goes on).
    int begin(uint8_t conflict = 3, uint16_t ack = 0, const std::string& root = "",
              const std::vector<uint8_t>& options = {}) {
        client_.close();
        if (!client_.connect("127.0.0.1", daemon_.port())) return kNoAnswer;
        int answer = client_.request(fields(conflict, root.empty() ? dest_ : root));
        if (answer != 4) return answer;
        if (!options.empty() && client_.option(options) != 4) return kNoAnswer;
        return client_.start(ack) ? 4 : kNoAnswer;
    }
    // Makes the destination beforehand, owned by the login.
    void makeDest() {
        mkdir(dest_.c_str(), 0755);
        chown(dest_.c_str(), user_.uid(), user_.gid());
    }
    std::string at(const std::string& name) const { return dest_ + "/" + name; }
    RestoreAttributes file(const std::string& name, uint32_t mode = 0100644, uint32_t mtime = kTime) const {
        return restoreAttrs(at(name), mode, user_.uid(), user_.gid(), mtime);
    }
    bool agentCloses() { return client_.readAnswer() == kNoAnswer; }

    TestUser user_;
    std::string dest_;
    Daemon daemon_;
    JobClient client_;
};

TEST_F(RestoreTest, FilesDirectoriesModesOwnersAndTimesComeBackExactly) {
    ASSERT_TRUE(startDaemon());
    ASSERT_EQ(begin(3, 3), 4) << client_.lastError();
    // The destination was made by the login's own process.
    struct stat root = statOf(dest_);
    ASSERT_TRUE(S_ISDIR(root.st_mode));
    EXPECT_EQ(root.st_uid, user_.uid());
    EXPECT_EQ(root.st_mode & 07777, 0755u);

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

    struct stat sub = statOf(at("sub"));
    EXPECT_EQ(sub.st_mode, static_cast<mode_t>(040750));
    EXPECT_EQ(sub.st_uid, 4321u);
    EXPECT_EQ(sub.st_gid, 765u);
    EXPECT_EQ(statOf(at("sticky")).st_mode, static_cast<mode_t>(041777));
    struct stat st = statOf(at("sub/big"));  // before reading it changes the access time
    EXPECT_EQ(readFile(at("sub/big")), big);
    EXPECT_EQ(st.st_mode, static_cast<mode_t>(0100640));
    EXPECT_EQ(st.st_uid, 4321u);
    EXPECT_EQ(st.st_gid, 765u);
    EXPECT_EQ(st.st_mtime, static_cast<time_t>(kTime));
    EXPECT_EQ(st.st_atime, static_cast<time_t>(kTime + 3600));
    EXPECT_EQ(statOf(at("empty")).st_size, 0);
    EXPECT_EQ(statOf(at("empty")).st_mtime, static_cast<time_t>(kTime - 5));
    EXPECT_EQ(statOf(at("suid")).st_mode, static_cast<mode_t>(0104755));
    EXPECT_EQ(statOf(at("suid")).st_uid, user_.uid());
    EXPECT_EQ(statOf(at("sgid")).st_mode, static_cast<mode_t>(0102711));
    EXPECT_EQ(readFile(at("batch")), pattern(4296, 2));
    // Missing parents: 0755, owned by the login.
    struct stat deep = statOf(at("deep/er"));
    EXPECT_EQ(deep.st_mode, static_cast<mode_t>(040755));
    EXPECT_EQ(deep.st_uid, user_.uid());
    EXPECT_EQ(readFile(at("deep/er/leaf")), "leaf");

    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost"));
    std::string log = daemon_.log();
    EXPECT_NE(log.find("Start Restore Job From localhost(" + user_.name() + "), Destination = " + dest_),
              std::string::npos);
    EXPECT_NE(log.find("SO_RCVBUF = "), std::string::npos);
    EXPECT_NE(log.find(" - Workstation Restore Completed"), std::string::npos);
}

TEST_F(RestoreTest, EveryConflictPolicy) {
    ASSERT_TRUE(startDaemon());
    makeDest();
    writeFile(at("a"), "old a");
    writeFile(at("r"), "r0");
    writeFile(at("r.AS1"), "r1");
    writeFile(at("n.AS9"), "n9");
    writeFile(at("same"), "same", kTime);
    writeFile(at("older"), "older", kTime - 1);
    writeFile(at("newer"), "newer", kTime + 1);
    mkdir(at("d").c_str(), 0700);

    {  // skip: the data is discarded and 0xCB answered at ENDF
        ASSERT_EQ(begin(1), 4);
        RestoreDriver r(client_);
        EXPECT_EQ(r.file(file("a"), pattern(9000, 3)), kSkipped);
        EXPECT_EQ(readFile(at("a")), "old a");
        EXPECT_EQ(r.file(file("fresh"), "fresh"), 0);  // a free name is restored
        EXPECT_EQ(r.file(file("d"), "x"), 'j');        // a directory is in the way
        EXPECT_EQ(r.end(), 3);
    }
    {  // newer: only files older on disk are replaced; equal times are kept
        ASSERT_EQ(begin(4), 4);
        RestoreDriver r(client_);
        EXPECT_EQ(r.file(file("same"), "new"), kSkipped);
        EXPECT_EQ(r.file(file("newer"), "new"), kSkipped);
        EXPECT_EQ(r.file(file("older"), "new"), 0);
        EXPECT_EQ(r.end(), 3);
        EXPECT_EQ(readFile(at("same")), "same");
        EXPECT_EQ(readFile(at("newer")), "newer");
        EXPECT_EQ(readFile(at("older")), "new");
    }
    {  // rename: the chain climbs to the first free name
        ASSERT_EQ(begin(2), 4);
        RestoreDriver r(client_);
        EXPECT_EQ(r.file(file("r"), "r2"), 0);
        EXPECT_EQ(r.file(file("n.AS9"), "n10"), 0);
        EXPECT_EQ(r.file(file("d"), "x"), 'j');
        EXPECT_EQ(r.end(), 3);
        EXPECT_EQ(readFile(at("r")), "r0");
        EXPECT_EQ(readFile(at("r.AS1")), "r1");
        EXPECT_EQ(readFile(at("r.AS2")), "r2");
        EXPECT_EQ(readFile(at("n.AS10")), "n10");
        EXPECT_EQ(statOf(at("r.AS2")).st_mtime, static_cast<time_t>(kTime));
    }
    for (uint8_t policy : {3, 0, 5}) {  // overwrite, an unknown policy, 5 taken as 3
        writeFile(at("a"), "old a");
        ASSERT_EQ(begin(policy), 4);
        RestoreDriver r(client_);
        EXPECT_EQ(r.file(file("a", 0100604), "new a"), 0);
        EXPECT_EQ(r.file(file("d"), "x"), 'j');
        EXPECT_EQ(r.end(), 3);
        EXPECT_EQ(readFile(at("a")), "new a") << int(policy);
        EXPECT_EQ(statOf(at("a")).st_mode, static_cast<mode_t>(0100604));
    }
    EXPECT_TRUE(S_ISDIR(statOf(at("d")).st_mode));
    EXPECT_NE(daemon_.log().find("(ws_restore[OPENFILE]) Cannot create <" + at("d") + ">, same name directory exists"),
              std::string::npos);
}

TEST_F(RestoreTest, ARenameThatWouldNotFitIsRefusedWithJ) {
    ASSERT_TRUE(startDaemon());
    makeDest();
    // Real directories so that an existing name is 1021 bytes long: its
    // ".AS1" would need 1025 bytes with the NUL.
    std::string dir = dest_;
    while (dir.size() + 1 + 200 + 30 < 1021) {
        dir += "/" + std::string(200, 'q');
        ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    }
    std::string name = dir + "/" + std::string(1021 - dir.size() - 1, 'f');
    ASSERT_EQ(name.size(), 1021u);
    writeFile(name, "keep");
    ASSERT_EQ(begin(2), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(r.file(restoreAttrs(name, 0100644), "new"), 'j');
    EXPECT_EQ(r.end(), 3);
    EXPECT_EQ(readFile(name), "keep");
    EXPECT_NE(daemon_.log().find("(File name too long)"), std::string::npos);
}

TEST_F(RestoreTest, ALockedFileIsAnsweredZAndKept) {
    ASSERT_TRUE(startDaemon());
    makeDest();
    writeFile(at("mand"), "locked data");
    chmod(at("mand").c_str(), 02644);  // set-group-id without group execute: lock test without -l
    writeFile(at("plain"), "plain data");
    int fd = open(at("mand").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);

    std::vector<uint8_t> options(512, 0);
    options[0] = 2;  // two attempts, one second apart (divided by the test's time divisor)
    options[2] = 1;
    ASSERT_EQ(begin(3, 0, "", options), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(r.file(file("mand"), "replacement"), 'z');
    EXPECT_EQ(readFile(at("mand")), "locked data");
    EXPECT_EQ(r.file(file("plain"), "new plain"), 0);  // no lock test for a plain file without -l
    close(fd);                                          // the lock goes
    EXPECT_EQ(r.file(file("mand"), "replacement"), 0);
    EXPECT_EQ(r.end(), 3);
    EXPECT_EQ(readFile(at("mand")), "replacement");
    EXPECT_NE(daemon_.log().find("(ws_restore[OPENFILE]) File " + at("mand") + " is locked by another process"),
              std::string::npos);
}

TEST_F(RestoreTest, CheckLocksOptionTestsEveryRegularFile) {
    ASSERT_TRUE(startDaemon({"-v", "-l"}));
    makeDest();
    writeFile(at("plain"), "plain data");
    int fd = open(at("plain").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    struct flock lock {};
    lock.l_type = F_RDLCK;
    ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
    std::vector<uint8_t> options(512, 0);
    options[0] = 1;
    ASSERT_EQ(begin(3, 0, "", options), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(r.file(file("plain"), "new"), 'z');
    EXPECT_EQ(r.end(), 3);
    close(fd);
    EXPECT_EQ(readFile(at("plain")), "plain data");
}

TEST_F(RestoreTest, TheSecondNameOfAnInodeBecomesAHardLink) {
    ASSERT_TRUE(startDaemon());
    ASSERT_EQ(begin(), 4);
    RestoreDriver r(client_);
    RestoreAttributes first = file("h1", 0100640);
    first.nlink = 3;
    first.dev = 0x00400003;
    first.ino = 77;
    EXPECT_EQ(r.file(first, "first data"), 0);
    RestoreAttributes second = first;
    second.name = at("h2");
    EXPECT_EQ(r.file(second, "second data is discarded"), 0);
    RestoreAttributes third = first;
    third.name = at("new/dir/h3");  // parents are made for a link too
    EXPECT_EQ(r.file(third, ""), 0);
    RestoreAttributes otherDevice = first;
    otherDevice.dev = 9;
    otherDevice.name = at("h4");
    EXPECT_EQ(r.file(otherDevice, "another file"), 0);
    EXPECT_EQ(r.end(), 3);

    struct stat a = statOf(at("h1")), b = statOf(at("h2")), c = statOf(at("new/dir/h3")), d = statOf(at("h4"));
    EXPECT_EQ(a.st_ino, b.st_ino);
    EXPECT_EQ(a.st_ino, c.st_ino);
    EXPECT_NE(a.st_ino, d.st_ino);
    EXPECT_EQ(a.st_nlink, 3u);
    EXPECT_EQ(readFile(at("h2")), "first data");
    EXPECT_EQ(readFile(at("h4")), "another file");
    EXPECT_EQ(b.st_mtime, static_cast<time_t>(kTime));
}

TEST_F(RestoreTest, FifosDevicesAndRawDeviceDataAsRoot) {
    ASSERT_TRUE(startDaemon());
    ASSERT_EQ(begin(), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(r.file(file("fifo", 010640)), 0);
    RestoreAttributes null = file("null", 020666);
    null.rdev = tavik::platform::encodeDev32(makedev(1, 3));
    EXPECT_EQ(r.file(null), 0);
    RestoreAttributes block = file("sub/loop", 060660);
    block.rdev = tavik::platform::encodeDev32(makedev(7, 200));
    EXPECT_EQ(r.file(block), 0);
    RestoreAttributes raw = null;
    raw.name = at("rawnull");
    raw.size = 5000;
    EXPECT_EQ(r.file(raw, pattern(5000, 4)), 0);  // written into the device
    EXPECT_EQ(r.end(), 3);

    struct stat f = statOf(at("fifo"));
    EXPECT_TRUE(S_ISFIFO(f.st_mode));
    EXPECT_EQ(f.st_mode & 07777, 0640u);
    EXPECT_EQ(f.st_uid, user_.uid());
    struct stat n = statOf(at("null"));
    EXPECT_TRUE(S_ISCHR(n.st_mode));
    EXPECT_EQ(n.st_rdev, makedev(1, 3));
    EXPECT_EQ(n.st_mtime, static_cast<time_t>(kTime));
    struct stat b = statOf(at("sub/loop"));
    EXPECT_TRUE(S_ISBLK(b.st_mode));
    EXPECT_EQ(b.st_rdev, makedev(7, 200));
    struct stat raw_ = statOf(at("rawnull"));
    EXPECT_TRUE(S_ISCHR(raw_.st_mode));
    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from"));
}

TEST_F(RestoreTest, SymbolicLinkWithMissingParentsIsMadeAtEndf) {
    ASSERT_TRUE(startDaemon());
    ASSERT_EQ(begin(), 4);
    RestoreDriver r(client_);
    RestoreAttributes link = restoreAttrs(at("links/sub/ln"), 0120777, 4321, 765);
    EXPECT_EQ(r.file(link, "../../target file"), 0);
    writeFile(at("existing"), "kept under another name");
    EXPECT_EQ(r.file(restoreAttrs(at("existing"), 0120777, 4321, 765), "elsewhere"), 0);  // overwritten
    EXPECT_EQ(r.end(), 3);
    char target[256] = {};
    ASSERT_GT(readlink(at("links/sub/ln").c_str(), target, sizeof target - 1), 0);
    EXPECT_STREQ(target, "../../target file");
    struct stat st = statOf(at("links/sub/ln"));
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(st.st_uid, 4321u);
    EXPECT_EQ(st.st_gid, 765u);
    EXPECT_EQ(statOf(at("links/sub")).st_uid, user_.uid());
    EXPECT_TRUE(S_ISLNK(statOf(at("existing")).st_mode));
}

TEST_F(RestoreTest, BadCommandsAreRefusedAndTheStreamGoesOn) {
    ASSERT_TRUE(startDaemon());
    makeDest();
    writeFile(at("keep"), "keep me");
    ASSERT_EQ(begin(1), 4);
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
    // ENDF with no file.
    EXPECT_EQ(r.endf(), 'j');
    // UNLINK after a skipped file does not remove the file the policy kept.
    EXPECT_EQ(r.file(file("keep"), "other"), kSkipped);
    ASSERT_TRUE(r.send(tavik::restore::command::kUnlink));
    // UNLINK after a restored file removes it.
    EXPECT_EQ(r.file(file("gone"), "data"), 0);
    ASSERT_TRUE(r.send(tavik::restore::command::kUnlink));
    EXPECT_EQ(r.file(file("after"), "after"), 0);
    EXPECT_EQ(r.end(), 3);
    EXPECT_EQ(readFile(at("keep")), "keep me");
    EXPECT_NE(statOf(at("after")).st_mode, 0u);
    EXPECT_EQ(statOf(at("gone")).st_mode, 0u);
    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from"));
    std::string log = daemon_.log();
    EXPECT_NE(log.find("(ws_restore[OPENFILE]) Failed to create aaaaaaaaaa"), std::string::npos);
    EXPECT_NE(log.find("(File name too long)"), std::string::npos);
    EXPECT_NE(log.find("(ws_restore[MKDIR]) Failed to make directory <aaaaaaaaaa"), std::string::npos);
    EXPECT_NE(log.find("(ws_restore) Unknown command: 3f"), std::string::npos);
    EXPECT_NE(log.find("(ws_restore) Unknown command: ffffffc8"), std::string::npos);
}

TEST_F(RestoreTest, OversizedPayloadEndsTheJobAndEarlierFilesStayIntact) {
    ASSERT_TRUE(startDaemon());
    ASSERT_EQ(begin(), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(r.file(file("done", 0100755), "complete"), 0);
    ASSERT_TRUE(r.openFile(file("partial", 0100755)));
    ASSERT_TRUE(r.mof(std::vector<uint8_t>(2048, 'p')));
    ASSERT_TRUE(r.send(tavik::restore::command::kMof, std::vector<uint8_t>(2049, 'p')));
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("Cannot Receive disconnect from localhost"));
    EXPECT_NE(daemon_.log().find("(GetReply) Failed to Receive Data Packet"), std::string::npos);
    EXPECT_EQ(readFile(at("done")), "complete");
    EXPECT_EQ(statOf(at("done")).st_mode, static_cast<mode_t>(0100755));
    struct stat p = statOf(at("partial"));
    EXPECT_EQ(p.st_mode, static_cast<mode_t>(0100600));  // never given the finished file's attributes
    EXPECT_NE(p.st_mtime, static_cast<time_t>(kTime));
}

TEST_F(RestoreTest, ConnectionCutMidFileLeavesAnsweredFilesIntact) {
    ASSERT_TRUE(startDaemon());
    ASSERT_EQ(begin(), 4);
    RestoreDriver r(client_);
    std::string done = pattern(7000, 5);
    EXPECT_EQ(r.file(file("done"), done), 0);
    ASSERT_TRUE(r.openFile(file("partial")));
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(r.mof(std::vector<uint8_t>(2048, 'p')));
    client_.close();
    EXPECT_TRUE(daemon_.waitForLog("Cannot Receive disconnect from localhost"));
    EXPECT_EQ(readFile(at("done")), done);
    EXPECT_EQ(statOf(at("done")).st_mtime, static_cast<time_t>(kTime));
    struct stat p = statOf(at("partial"));
    EXPECT_EQ(p.st_size, 6144);  // the batch written at the third packet
    EXPECT_EQ(p.st_mode, static_cast<mode_t>(0100600));
    EXPECT_NE(p.st_mtime, static_cast<time_t>(kTime));
}

TEST_F(RestoreTest, AbortEndsTheJobWithoutAnAnswer) {
    ASSERT_TRUE(startDaemon());
    ASSERT_EQ(begin(), 4);
    RestoreDriver r(client_);
    EXPECT_EQ(r.file(file("one"), "1"), 0);
    ASSERT_TRUE(r.send(tavik::restore::command::kAbort));
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("(ws_restore[ABORT]) Job aborted by front-end"));
    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost"));
}

TEST_F(RestoreTest, AFullFileSystemAnswersDAndEndsTheJob) {
    ASSERT_TRUE(startDaemon());
    makeDest();
    if (mount("tavik-test", dest_.c_str(), "tmpfs", 0, "size=256k,mode=0755") != 0) {
        GTEST_SKIP() << "mounting a tmpfs is not permitted here: " << std::strerror(errno);
    }
    chown(dest_.c_str(), user_.uid(), user_.gid());
    struct Unmount {
        std::string path;
        ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
    } unmount{dest_};

    ASSERT_EQ(begin(), 4);
    RestoreDriver r(client_);
    std::string small = pattern(3000, 6), medium = pattern(50000, 7);
    EXPECT_EQ(r.file(file("small", 0100640), small), 0);
    EXPECT_EQ(r.file(file("medium", 0100640), medium), 0);
    EXPECT_EQ(r.file(file("huge", 0100640), pattern(600000, 8)), 'd');
    EXPECT_TRUE(agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("Received disconnect from localhost"));
    EXPECT_NE(daemon_.log().find("(ws_restore[MOF]) Failed in writing file <" + at("huge") + "> (No space left on device)"),
              std::string::npos);
    EXPECT_EQ(readFile(at("small")), small);
    EXPECT_EQ(readFile(at("medium")), medium);
    EXPECT_EQ(statOf(at("medium")).st_mode, static_cast<mode_t>(0100640));
    EXPECT_EQ(statOf(at("medium")).st_mtime, static_cast<time_t>(kTime));
    EXPECT_EQ(statOf(at("huge")).st_mode, static_cast<mode_t>(0100600));
}

TEST_F(RestoreTest, DestinationTheLoginCannotMakeOrWriteGets105) {
    ASSERT_TRUE(startDaemon());
    char tmpl[] = "/tmp/tavik-e2e-restore-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::string rootOnly = tmpl;
    chmod(rootOnly.c_str(), 0755);
    EXPECT_EQ(begin(3, 0, rootOnly + "/dest"), 105);
    EXPECT_TRUE(daemon_.waitForLog("(make_path) Failed to make directory <" + rootOnly + "/dest> (Permission denied)"));
    EXPECT_TRUE(daemon_.waitForLog("(make_dir) Failed to create restore directory " + rootOnly + "/dest"));
    EXPECT_EQ(begin(3, 0, rootOnly), 105);  // exists, but the login may not write it
    EXPECT_TRUE(daemon_.waitForLog("(make_dir) Failed to Access Directory [" + rootOnly + "/] (Permission denied)"));
    std::system(("rm -rf '" + rootOnly + "'").c_str());
}

}  // namespace
