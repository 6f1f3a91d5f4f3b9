// Backups on a real daemon, read packet by packet: the stream (entry kinds,
// chunking, versions, depth limits, selection, estimate), its flow
// (acknowledgements, renewals, restart points, watchdog, locks, stalls,
// concurrent jobs) and its faults (dropped front-end, killed processes,
// unreadable entries, loops, over-long paths), after which the job's IPC
// objects and registry lines are gone and the daemon serves the next job.
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <thread>

#include "e2e/test_user.h"
#include "frontend/archive.h"
#include "frontend/backup_client.h"
#include "platform/whole_io.h"
#include "protocol/backup_record.h"
#include "protocol/filter_items.h"
#include "protocol/packet.h"

namespace {

using namespace tavik::test;
namespace frontend = tavik::frontend;
namespace protocol = tavik::protocol;
using tavik::platform::Received;
using Summary = std::vector<std::string>;
using Files = std::map<std::string, std::string>;

// One packet of the backup stream as the agent sent it.
struct StreamPacket {
    int8_t code = 0;
    uint8_t version = 0;
    uint16_t value = 0;
    std::vector<uint8_t> payload;
    int connection = 0;  // 0 on the first connection, 1 after the first renewal...

    // A file header's record.
    protocol::BackupAttributes record() const {
        auto a = protocol::decodeBackupAttributes(payload);
        return a ? *a : protocol::BackupAttributes{.kind = 255, .name = "?"};
    }
    // A text packet's text.
    std::string text() const { return std::string(payload.begin(), std::find(payload.begin(), payload.end(), 0)); }
};

// One packet read by hand, for what the front-end's receiver does not do
// (code 0 when none came within 10 s).
StreamPacket readPacket(int fd) {
    protocol::HeaderBytes bytes{};
    if (tavik::platform::recvAll(fd, bytes.data(), bytes.size(), 10000) != Received::Data) return {};
    protocol::PacketHeader h = protocol::decodeHeader(bytes);
    StreamPacket p{h.code, h.version, h.value, std::vector<uint8_t>(h.length)};
    if (tavik::platform::recvAll(fd, p.payload.data(), p.payload.size(), 10000) != Received::Data) return {};
    return p;
}

// A backup stream as the front-end's receiver took it: every packet, in
// order, as kept in the archive it wrote.
struct Stream {
    bool complete = false;  // END came
    std::string error;
    std::string structureError;  // the first breach of the stream's structure the receiver saw
    std::vector<StreamPacket> packets;

    // One word per packet: "6:name", "7:2048", "8:12", "9", and text packets
    // (14, 101..) with their text: "101:name"; with `connections`, each
    // followed by "@" and the packet's connection.
    Summary summary(bool connections = false) const {
        Summary out;
        for (const StreamPacket& p : packets) {
            std::string s = std::to_string(int(uint8_t(p.code)));
            if (p.code == 6) s += ":" + p.record().name;
            if (p.code == 7 || p.code == 8) s += ":" + std::to_string(p.payload.size());
            if ((p.code == 14 || uint8_t(p.code) >= 101) && !p.payload.empty()) s += ":" + p.text();
            out.push_back(connections ? s + "@" + std::to_string(p.connection) : s);
        }
        return out;
    }
    // Every file's data by its name (the tests' names are unique in their
    // trees; the directory nesting is checked on the summaries).
    Files files() const {
        Files out;
        std::string name;
        for (const StreamPacket& p : packets) {
            if (p.code == 6) name = p.record().name;
            if (p.code == 7 || p.code == 8) out[name].append(p.payload.begin(), p.payload.end());
        }
        return out;
    }
};

// Receives a backup stream on `connection` with the front-end's receiver
// (acknowledging every `ackInterval`-th file header or data packet, following
// renewals to the new port, giving up after 10 s of silence) into an archive
// in memory, and reads the archive back.
Stream receive(tavik::platform::UniqueFd connection, uint16_t ackInterval) {
    Stream out;
    tavik::platform::UniqueFd memory(memfd_create("stream", 0));
    frontend::ArchiveWriter writer;
    frontend::StreamReceiver receiver(&writer, ackInterval);
    receiver.setTimeoutMs(10000);
    EXPECT_TRUE(writer.openFd(memory.get(), {})) << writer.error();
    out.complete = receiver.run(std::move(connection));
    out.error = receiver.error();
    out.structureError = receiver.stats().structureError;
    EXPECT_TRUE(writer.finish(receiver.stats().packets, out.complete)) << writer.error();
    frontend::ArchiveReader archive;
    EXPECT_TRUE(archive.open("/proc/self/fd/" + std::to_string(memory.get()))) << archive.error();
    int connectionNumber = 0;  // a renewal's packet is the last of its connection
    for (frontend::ArchivePacket p; archive.next(p) == frontend::ArchiveReader::Next::kPacket;) {
        const protocol::PacketHeader& h = p.header;
        out.packets.push_back({h.code, h.version, h.value, {p.payload.begin(), p.payload.end()}, connectionNumber});
        if (h.code == 16) ++connectionNumber;
    }
    return out;
}

// What a backup job is asked for (every member has its default, so that a
// test names only what it changes).
struct BackupSetup {
    std::string root{};  // the tree's when empty
    int serverVersion = frontend::kNewestServerVersion;
    uint8_t follow = 0;
    uint8_t flags = 0;
    uint16_t retryCount = 5;
    uint16_t retryInterval = 5;
    std::vector<std::vector<uint8_t>> filterItems{};
    std::function<void(frontend::JobClient&)> commands{};
    uint16_t ackInterval = 0;
    std::string login = "root";
    std::string password{};
    // The stream begins after a restart point: the front-end's walker takes
    // its closes of directories opened before the point for a breach.
    bool restarted = false;
};

// Waits until the registry holds no live line and every object it named is
// gone from the kernel.
bool ipcReleased(const Daemon& daemon, int timeoutMs = 5000) {
    for (int waited = 0; waited <= timeoutMs; waited += 20, usleep(20000)) {
        bool left = false;
        for (const std::string& line : lines(readFile(daemon.home() + "LOG/tvk.ipc"))) {
            int id = line.size() > 2 ? std::atoi(line.c_str() + 2) : -1;
            shmid_ds ds{};
            left = left || (!line.empty() && (line[0] == 'm' || line[0] == 's' || line[0] == 'q')) ||
                   (line.rfind("#m", 0) == 0 && shmctl(id, IPC_STAT, &ds) == 0) ||
                   (line.rfind("#s", 0) == 0 && semctl(id, 0, GETVAL) >= 0);
        }
        if (!left) return true;
    }
    return false;
}

// A daemon (single-user mode by default, time-outs divided by 1000) and a
// scratch tree to back up.
class BackupTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root: device nodes, test logins and the daemon's identity";
        ASSERT_TRUE(start());
    }
    // (Re)starts the daemon.
    bool start(const std::vector<std::string>& args = {"-v", "-S"}, const std::string& divisor = "1000") {
        daemon_.stop();
        return daemon_.start(args, {{"TAVIK_TIME_DIVISOR", divisor}});
    }
    // Runs the request (for the tree unless `s` names a root) and the
    // command phase; the connection the stream then comes on (-1, with a
    // test failure, when the agent refused).
    tavik::platform::UniqueFd begin(const BackupSetup& s) {
        frontend::JobClient client;
        EXPECT_TRUE(client.connect("127.0.0.1", daemon_.port())) << client.lastError();
        int answer = client.request({.root = s.root.empty() ? tree_.root() : s.root, .login = s.login,
                                     .password = s.password, .serverVersion = s.serverVersion,
                                     .acceptEA = uint8_t(s.password.empty() ? 0 : 'e'), .follow = s.follow,
                                     .tpSize = uint16_t(s.filterItems.size())});
        if (answer != 4) {
            ADD_FAILURE() << "request answered " << answer;
            return {};
        }
        if (s.serverVersion >= 50) {
            EXPECT_TRUE(client.sendRaw(optionsRecord(s.retryCount, s.retryInterval, s.flags)));
            for (const auto& item : s.filterItems) EXPECT_TRUE(client.sendRaw(item));
        }
        if (s.commands) s.commands(client);
        EXPECT_TRUE(client.start(s.ackInterval));
        return tavik::platform::UniqueFd(dup(client.fd()));
    }
    // A whole backup received up to END (or, without `expectEnd`, until the
    // agent stops); afterwards the job's IPC objects must be gone.
    Stream backup(const BackupSetup& s, bool expectEnd = true) {
        Stream got = receive(begin(s), s.ackInterval);
        EXPECT_EQ(got.complete, expectEnd) << got.error;
        EXPECT_TRUE(s.restarted || got.structureError.empty()) << got.structureError;
        EXPECT_TRUE(ipcReleased(daemon_));
        return got;
    }
    Summary summary(const BackupSetup& s) { return backup(s).summary(); }
    // The next job is served normally.
    void servesNextJob(BackupSetup s = {}) {
        Tree other;
        other.file("next", "n");
        s.root = other.root();
        EXPECT_EQ(summary(s), (Summary{"6:", "6:next", "8:1", "9", "3"}));
    }

    Daemon daemon_;
    Tree tree_;
};
using BackupStreamTest = BackupTest;
using BackupFlowTest = BackupTest;
using BackupFaultTest = BackupTest;

bool contains(const Summary& s, const std::string& word) { return std::find(s.begin(), s.end(), word) != s.end(); }

// Each kind in stream order, in chunks of 2048 bytes unless option flag 0x40
// keeps the daemon's buffer size for the job.
TEST_F(BackupStreamTest, EveryEntryKindInStreamOrder) {
    tree_.file("empty", "");
    tree_.file("small", "hello");
    tree_.file("even", pattern(4096));
    tree_.file("big", pattern(8193));
    symlink("target-text", tree_.path("link").c_str());
    mkfifo(tree_.path("fifo").c_str(), 0644);
    mknod(tree_.path("chardev").c_str(), S_IFCHR | 0644, makedev(1, 3));
    ASSERT_EQ(mknod(tree_.path("sock").c_str(), S_IFSOCK | 0644, 0), 0);
    tree_.dir("sub");
    tree_.file("sub/inner", "abc");
    ASSERT_TRUE(start({"-v", "-S", "-b", "8192"}));
    for (uint8_t flags : {0x00, 0x40}) {
        SCOPED_TRACE(int(flags));
        std::map<std::string, Summary> data = {
            {"empty", {"8:0"}}, {"small", {"8:5"}}, {"link", {"8:11"}}, {"fifo", {"8:0"}}, {"chardev", {"8:0"}},
            {"even", flags ? Summary{"8:4096"} : Summary{"7:2048", "7:2048", "8:0"}},
            {"big", flags ? Summary{"7:8192", "8:1"} : Summary{"7:2048", "7:2048", "7:2048", "7:2048", "8:1"}},
        };
        Summary want = {"6:"};  // the socket is left out, the directory comes after the files
        for (const std::string& name : tree_.order()) {
            if (!data.count(name)) continue;
            want.push_back("6:" + name);
            want.insert(want.end(), data[name].begin(), data[name].end());
        }
        want.insert(want.end(), {"6:sub", "6:inner", "8:3", "9", "9", "3"});
        Stream reader = backup({.flags = flags});
        EXPECT_EQ(reader.summary(), want);
        EXPECT_EQ(reader.files()["big"], pattern(8193));
        // Version bytes, values, kinds and record lengths.
        for (const StreamPacket& p : reader.packets) {
            EXPECT_EQ(p.version, p.code == 9 || p.code == 3 ? 5 : 0) << int(p.code);
            EXPECT_EQ(p.value, 0);
            if (p.code != 6) continue;
            protocol::BackupAttributes a = p.record();
            EXPECT_EQ(a.kind, a.name.empty() ? 17 : a.name == "sub" ? 16 : 0) << a.name;
            EXPECT_EQ(p.payload.size(), 49 + a.name.size());
        }
    }
    EXPECT_TRUE(daemon_.waitForLog("Workstation Backup Ended"));
    EXPECT_TRUE(daemon_.waitForLog("SO_SNDBUF = "));
}

TEST_F(BackupStreamTest, OldServersGetNoSourceRecordAndTheShallowDepthLimit) {
    std::string rel;
    for (int i = 1; i <= 25; ++i) {
        rel += (rel.empty() ? "d" : "/d") + std::to_string(i);
        tree_.dir(rel);
        tree_.file(rel + "/f", "x");
    }
    tree_.file("f", "x");
    for (int version : {49, 52}) {
        SCOPED_TRACE(version);
        Summary got = summary({.serverVersion = version});
        ASSERT_FALSE(got.empty());
        EXPECT_EQ(got.front(), version == 49 ? "6:f" : "6:");  // old servers get no record of the source
        // Old servers: d1 (depth 2) .. d18 (depth 19) and the files down to depth 19.
        EXPECT_EQ(std::count_if(got.begin(), got.end(), [](auto& w) { return w.rfind("6:d", 0) == 0; }),
                  version == 49 ? 18 : 25);
        EXPECT_EQ(std::count(got.begin(), got.end(), "6:f"), version == 49 ? 19 : 26);
    }
    EXPECT_EQ(countOf(daemon_.log(), "(ws_backup) Directory travering exceeds the maximun level 19"), 1u);
}

TEST_F(BackupStreamTest, SkippedFileSystemsCloseByVersion) {
    Tree other("/dev/shm/tavik-e2e-fs-XXXXXX");
    other.file("hidden", "x");
    symlink(other.dir().c_str(), tree_.path("other").c_str());
    // Not crossing file systems (flag 0x01): the newest servers get code 18
    // for the skipped directory, older ones an ENDDIR.
    EXPECT_EQ(summary({.follow = 1, .flags = 0x01}), (Summary{"6:", "6:other", "18", "9", "3"}));
    EXPECT_EQ(summary({.serverVersion = 50, .follow = 1, .flags = 0x01}), (Summary{"6:", "6:other", "9", "9", "3"}));
    EXPECT_TRUE(daemon_.waitForLog("Skip file system " + tree_.root() + "other/"));
    EXPECT_EQ(summary({.follow = 1}), (Summary{"6:", "6:other", "6:hidden", "8:1", "9", "9", "3"}));
}

TEST_F(BackupStreamTest, TopListAndFiltersSelect) {
    tree_.file("keep", "k");
    tree_.file("drop", "d", 0644, 1100520000);  // 15 November 2004, 12:00 UTC
    tree_.file("x.o", "o");
    tree_.dir("dir");
    tree_.file("dir/inner", "inner");
    tree_.file("dir/y.o", "o");
    auto topList = [](frontend::JobClient& c) { EXPECT_EQ(c.diskItem({"keep", "dir"}), 4); };
    auto exclude = *protocol::encodeNamePatternItem(false, true, std::vector<std::string>{"*.o"});
    // A "between" item with its days (20 and 9 November 2004) in reverse
    // order selects the days between them and is logged with them as sent.
    auto between = protocol::encodeDateItem(false, protocol::kWhichModified, protocol::kBetween, 1100908800,
                                            1099958400);
    const std::pair<BackupSetup, Files> rows[] = {
        // Only the listed names at the top; deeper levels are not limited.
        {{.commands = topList}, {{"keep", "k"}, {"inner", "inner"}, {"y.o", "o"}}},
        {{.filterItems = {exclude}}, {{"keep", "k"}, {"drop", "d"}, {"inner", "inner"}}},
        {{.filterItems = {between}}, {{"drop", "d"}}},
    };
    for (const auto& [setup, want] : rows) EXPECT_EQ(backup(setup).files(), want);
    EXPECT_TRUE(daemon_.waitForLog("Include files modified 'between' 11/20/04 and 11/09/04"));
}

// Protected directories are left out of backups and estimates; reading
// restores the access times, so nothing looks changed either.
TEST_F(BackupStreamTest, ProtectedDirectoriesAreLeftOutAndAccessTimesRestored) {
    tree_.dir("prot");
    tree_.file("prot/inside", "p");
    tree_.dir("prot/deeper");
    tree_.file("prot/deeper/x", "x");
    tree_.file("read", pattern(3000));
    tree_.dir("kept");
    tree_.file("kept/f", "k");
    struct timespec old[2] = {{1000000, 0}, {0, UTIME_OMIT}};  // accessed long before its change
    utimensat(AT_FDCWD, tree_.path("read").c_str(), old, 0);
    utimensat(AT_FDCWD, tree_.path("kept").c_str(), old, 0);
    struct stat before = statOf(tree_.path("read")), dirBefore = statOf(tree_.path("kept"));
    std::ofstream(daemon_.home() + "tvk.cntl") << tree_.path("prot") << "\n";
    // An estimate (files, kilobytes) of a source and optionally some of its
    // names, each with its NUL. Of the protected directory's files those
    // directly in it count (as when the estimate's source was compared by
    // its text), none below.
    const struct {
        std::string source;
        std::vector<std::string> names;
        uint32_t files, kilobytes;
    } estimates[] = {{tree_.root(), {}, 2, 2},
                     {tree_.path("prot/"), {}, 1, 0},
                     {tree_.root(), {"read", "prot"}, 1, 2},
                     {tree_.path("nothing-here"), {}, 0, 0}};
    auto estimate = [&](frontend::JobClient& c) {
        for (const auto& e : estimates) {
            std::string payload = e.source + '\0';
            for (const std::string& n : e.names) payload += n + '\0';
            EXPECT_EQ(c.command(14, std::vector<uint8_t>(payload.begin(), payload.end())), 4);
            std::array<uint8_t, 8> reply{};
            EXPECT_TRUE(c.recvRaw(reply));
            EXPECT_EQ(tavik::wire::loadLe32(reply.data()), e.files) << e.source;
            EXPECT_EQ(tavik::wire::loadLe32(reply.data() + 4), e.kilobytes) << e.source;
        }
    };
    EXPECT_EQ(summary({.commands = estimate}),
              (Summary{"6:", "6:read", "7:2048", "8:952", "6:kept", "6:f", "8:1", "9", "9", "3"}));
    EXPECT_TRUE(daemon_.waitForLog("(ws_backup) Protected Directory [" + tree_.path("prot") + "] in " +
                                   daemon_.home() + "tvk.cntl"));
    for (auto [name, was] : {std::pair{"read", before}, std::pair{"kept", dirBefore}}) {
        struct stat st = statOf(tree_.path(name));
        EXPECT_EQ(st.st_atime, 1000000) << name;
        EXPECT_EQ(st.st_ctim.tv_sec, was.st_ctim.tv_sec) << name;
        EXPECT_EQ(st.st_ctim.tv_nsec, was.st_ctim.tv_nsec) << name;
    }
}

TEST_F(BackupStreamTest, ListedRawDeviceIsSentAsData) {
    mknod(tree_.path("raw").c_str(), S_IFCHR | 0600, makedev(1, 5));  // reads as zeros
    std::string entry = std::string("\0\x10\0\0", 4) + tree_.path("raw") + '\0';  // size 4096, path, NUL
    entry.resize((entry.size() + 3) / 4 * 4, '\0');
    std::vector<uint8_t> list(entry.begin(), entry.end());
    Stream reader = backup({.commands = [&](frontend::JobClient& c) { EXPECT_EQ(c.dbFile(list), 4); }});
    EXPECT_EQ(reader.summary(), (Summary{"6:", "6:raw", "7:2048", "8:2048", "9", "3"}));
    EXPECT_EQ(reader.packets[1].record().size, 4096u);
    EXPECT_EQ(reader.files()["raw"], std::string(4096, '\0'));
}

// Deleting grooming after a backup: the count and the work file as data come
// after the source's ENDDIR; the files go, their directories stay.
TEST_F(BackupStreamTest, DeletingGroomingReportsAndRemovesTheBackedUpFiles) {
    tree_.dir("old");
    tree_.file("old/one", "1");
    Stream reader = backup({.commands = [](frontend::JobClient& c) {
        EXPECT_EQ(c.grooming(groomingRecord(0x04), std::vector<uint8_t>(63, 0)), 4);
    }});
    Summary got = reader.summary();
    ASSERT_EQ(got.size(), 9u) << ::testing::PrintToString(got);
    EXPECT_EQ(Summary(got.begin(), got.begin() + 7), (Summary{"6:", "6:old", "6:one", "8:1", "9", "9", "14:1"}));
    EXPECT_EQ(got[7].rfind("8:", 0), 0u);
    EXPECT_EQ(got[8], "3");
    EXPECT_TRUE(has(reader.packets[7].text(), tree_.path("old/one"))) << reader.packets[7].text();
    EXPECT_EQ(statOf(tree_.path("old/one")).st_mode, 0u);
    EXPECT_TRUE(S_ISDIR(statOf(tree_.path("old")).st_mode));
    EXPECT_TRUE(daemon_.waitForLog("Total 1 files were deleted"));
}

// An answer other than 0 in place of an acknowledgement ends the sender,
// and with it the job; acknowledgements in non-blocking socket I/O. (The
// renewal and concurrency tests acknowledge every packet, every second and
// none in blocking I/O.)
TEST_F(BackupFlowTest, AcknowledgementsEveryNthDataPacket) {
    for (int i = 1; i <= 6; ++i) tree_.file("f" + std::to_string(i), pattern(5000, unsigned(i)));
    tavik::platform::UniqueFd bad = begin({.ackInterval = 2});
    const uint8_t answer5[8] = {0, 0, 5};  // where the first acknowledgement is due
    ASSERT_TRUE(tavik::platform::sendAll(bad.get(), answer5, sizeof answer5));
    EXPECT_FALSE(receive(std::move(bad), 0).complete);
    EXPECT_TRUE(daemon_.waitForLog("(SendDaemon) Protocol error (Acknowledge expected)"));
    EXPECT_TRUE(daemon_.waitForLog("(cleanup) Child process ("));
    EXPECT_TRUE(ipcReleased(daemon_));

    ASSERT_TRUE(start({"-v", "-S", "-s", "nonblocking"}));
    auto item = [](frontend::JobClient& c) { EXPECT_EQ(c.diskItem({"f1"}), 4); };
    EXPECT_EQ(backup({.commands = item, .ackInterval = 2}).files(), (Files{{"f1", pattern(5000, 1)}}));
    EXPECT_TRUE(daemon_.waitForLog("RCV_OK: AckCount=2"));
    // The non-blocking receive traces every call on standard output.
    EXPECT_TRUE(has(readFile(daemon_.home() + "launcher.out"), "(nonblockRecv)  connfd="));
}

TEST_F(BackupFlowTest, RenewalsAfterFilesAndAfterKilobytes) {
    // After a kilobyte (-r): acknowledgements follow the renewal. A caller
    // from another address that reaches the new port first is closed; the
    // front-end's call is then taken.
    tree_.file("f1", pattern(3000));
    ASSERT_TRUE(start({"-v", "-S", "-r", "1"}));
    tavik::platform::UniqueFd first = begin({.flags = 0x04, .ackInterval = 1});
    Summary headers;
    StreamPacket p;
    while ((p = readPacket(first.get())).code == 6) {
        headers.push_back("6:" + p.record().name);
        const uint8_t ack[8] = {};
        ASSERT_TRUE(tavik::platform::sendAll(first.get(), ack, sizeof ack));
    }
    EXPECT_EQ(headers, (Summary{"6:", "6:f1"}));
    ASSERT_EQ(p.code, 16);
    EXPECT_TRUE(p.payload.empty());
    tavik::platform::UniqueFd stranger(callFrom(p.value, "127.0.0.2"));
    ASSERT_TRUE(stranger) << "the stranger's call on the new port was refused";
    uint8_t byte;
    Received r = tavik::platform::recvAll(stranger.get(), &byte, 1, 5000);
    EXPECT_TRUE(r == Received::Closed || r == Received::Failed) << "the stranger's call was not closed";
    EXPECT_TRUE(daemon_.waitForLog(" from 127.0.0.2 is not the front-end's: closed"));
    Stream rest = receive(tavik::platform::UniqueFd(callFrom(p.value)), 1);
    EXPECT_TRUE(rest.complete) << rest.error;
    EXPECT_EQ(rest.summary(), (Summary{"7:2048", "8:952", "9", "3"}));
    EXPECT_EQ(rest.files()[""], pattern(3000));  // the data of f1, whose header came before

    // After files (-R), alone and with the kilobyte limit: the renewal comes
    // before the ENDF, which goes first on the new connection; an ENDF that
    // renews for the file limit counts its length afresh, and renews again
    // before it is sent when that reaches the kilobyte limit. One file per
    // directory fixes the order: a, d/b, d/e/c.
    Tree nested;
    nested.dir("d");
    nested.dir("d/e");
    const struct {
        std::vector<std::string> args;
        size_t a, b, c;  // file sizes
        Summary want;
    } rows[] = {
        {{"-v", "-S", "-R", "2"}, 10, 10, 10,
         {"6:@0", "6:a@0", "8:10@0", "6:d@0", "6:b@0", "16@0", "8:10@1", "6:e@1", "6:c@1", "8:10@1", "9@1", "9@1",
          "9@1", "3@1"}},
        // c: 3rd file, renewal, then 1500 bytes since it: a second one.
        {{"-v", "-S", "-R", "3", "-r", "1"}, 10, 10, 1500,
         {"6:@0", "6:a@0", "8:10@0", "6:d@0", "6:b@0", "8:10@0", "6:e@0", "6:c@0", "16@0", "16@1", "8:1500@2", "9@2",
          "9@2", "9@2", "3@2"}},
        // Every file renews; c's 1500 bytes once more.
        {{"-v", "-S", "-R", "1", "-r", "1"}, 10, 10, 1500,
         {"6:@0", "6:a@0", "16@0", "8:10@1", "6:d@1", "6:b@1", "16@1", "8:10@2", "6:e@2", "6:c@2", "16@2", "16@3",
          "8:1500@4", "9@4", "9@4", "9@4", "3@4"}},
        // b renews for the file limit and its 600 bytes count: c's 600 more reach 1 KB.
        {{"-v", "-S", "-R", "2", "-r", "1"}, 600, 600, 600,
         {"6:@0", "6:a@0", "8:600@0", "6:d@0", "6:b@0", "16@0", "8:600@1", "6:e@1", "6:c@1", "16@1", "8:600@2", "9@2",
          "9@2", "9@2", "3@2"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.args));
        nested.file("a", pattern(row.a, 1));
        nested.file("d/b", pattern(row.b, 2));
        nested.file("d/e/c", pattern(row.c, 3));
        ASSERT_TRUE(start(row.args));
        Stream reader = backup({.root = nested.root(), .flags = 0x04, .ackInterval = 1});
        EXPECT_EQ(reader.summary(true), row.want);
        EXPECT_EQ(reader.files()["c"], pattern(row.c, 3));
        for (const StreamPacket& p : reader.packets) EXPECT_TRUE(p.code != 16 || p.payload.empty());
    }
    EXPECT_TRUE(daemon_.waitForLog("(reestablishTCP) New TCP fd="));
    // Without option flag 0x04 there is no renewal.
    EXPECT_FALSE(contains(summary({.root = nested.root()}), "16"));
}

TEST_F(BackupFlowTest, RestartPointWithAndWithoutOffset) {
    tree_.dir("d");
    for (const char* n : {"f1", "f2", "f3"}) tree_.file(std::string("d/") + n, n);
    std::vector<std::string> order = tree_.order("d");
    std::string named = tree_.root() + "d/" + order[1];
    auto restartAt = [](uint32_t offset, const std::string& path) {
        return BackupSetup{.commands = [=](frontend::JobClient& c) { EXPECT_EQ(c.continueAt(offset, path), 4); },
                           .restarted = true};
    };
    // Offset 0: everything up to the named file is skipped.
    EXPECT_EQ(summary(restartAt(0, named)), (Summary{"6:" + order[2], "8:2", "9", "9", "3"}));
    EXPECT_TRUE(daemon_.waitForLog("Continue on file next to " + named));

    // An offset: the file's data from there on, without its file header.
    std::string big = pattern(10000);
    tree_.file("d/" + order[1], big);
    Stream reader = backup(restartAt(6000, named));
    EXPECT_EQ(reader.summary(), (Summary{"7:2048", "8:1952", "6:" + order[2], "8:2", "9", "9", "3"}));
    const auto& p = reader.packets;
    std::string tail(p[0].payload.begin(), p[0].payload.end());
    EXPECT_EQ(tail.append(p[1].payload.begin(), p[1].payload.end()), big.substr(6000));

    // A restart file that is never reached: no END, the job ends at once.
    EXPECT_TRUE(backup(restartAt(0, tree_.root() + "nowhere"), false).packets.empty());
}

TEST_F(BackupFlowTest, WatchdogAndLockTests) {
    tree_.file("locked", "data");
    int fd = holdLock(tree_.path("locked"));
    ASSERT_GE(fd, 0);
    // Without -l only set-group-id files without group execute are tested (a
    // count of 0 refuses every file it tests); a locked plain file is sent.
    Tree modes;
    modes.file("sgid", "data", 02644);
    modes.file("sgidx", "data", 02754);
    Summary got = summary({.root = modes.root(), .retryCount = 0});
    EXPECT_TRUE(contains(got, "201:sgid"));
    EXPECT_TRUE(contains(got, "6:sgidx"));
    EXPECT_EQ(summary({.retryCount = 0}), (Summary{"6:", "6:locked", "8:4", "9", "3"}));

    // With -l: four tries 100 s apart (0.1 s here) with a 30 s (30 ms) watchdog.
    ASSERT_TRUE(start({"-v", "-S", "-l"}));
    got = summary({.flags = 0x02, .retryCount = 4, .retryInterval = 100});
    EXPECT_GE(std::count(got.begin(), got.end(), "47"), 2);
    ASSERT_GE(got.size(), 4u);
    EXPECT_EQ(Summary(got.end() - 3, got.end()), (Summary{"201:locked", "9", "3"}));
    EXPECT_TRUE(daemon_.waitForLog("(SendDaemon) WATCH_DOG sent"));
    EXPECT_TRUE(daemon_.waitForLog("(backup_file) File " + tree_.root() + "locked is locked by another process"));
    // No watchdog without flag 0x02; no retries with a count of 0.
    EXPECT_EQ(summary({.retryCount = 0}), (Summary{"6:", "201:locked", "9", "3"}));
    // Released: the file is sent (the count of 0 still refuses without trying).
    close(fd);
    EXPECT_EQ(summary({.retryCount = 1}), (Summary{"6:", "6:locked", "8:4", "9", "3"}));
}

TEST_F(BackupFlowTest, TapeChangeStallPutsTheBackupProcessToSleepAndWakesIt) {
    tree_.file("huge", pattern(8 << 20));
    tavik::platform::UniqueFd connection = begin({});
    // The server does not read for longer than the 180 s (0.18 s) stall.
    EXPECT_TRUE(daemon_.waitForLog("Put Backup Process("));
    EXPECT_TRUE(daemon_.waitForLog("(span_tape_sleep) Received SIGUSR1 from child process"));
    Stream reader = receive(std::move(connection), 0);
    EXPECT_TRUE(reader.complete) << reader.error;
    // The sender wakes it at its first progress (a wake-up signal that
    // follows the sleep signal at once may merge with it; the backup process
    // then goes on when slots are freed).
    EXPECT_TRUE(daemon_.waitForLog("Wake Backup Process("));
    EXPECT_TRUE(reader.files()["huge"] == pattern(8 << 20));
    EXPECT_TRUE(ipcReleased(daemon_));
}

TEST_F(BackupFlowTest, ThirtyTwoBackupsAtOnceReassembleExactly) {
    constexpr int kJobs = 32;
    std::array<Tree, kJobs> trees;
    std::vector<Files> want(kJobs), got(kJobs);
    for (int t = 0; t < kJobs; ++t) {
        for (int i = 0; i < 8; ++i)
            want[t]["f" + std::to_string(i)] = pattern(3000 * size_t(i) + size_t(t), unsigned(t * 10 + i));
        want[t]["g"] = pattern(70000, unsigned(t));
        trees[t].dir("sub");
        for (const auto& [name, data] : want[t]) trees[t].file(name == "g" ? "sub/g" : name, data);
    }
    // A ring of ten slots that fills often, with the bounded full-ring wait.
    // 32 calls at once: each gets the request deadline divided by 100 only
    // (1.2 s), as the forks of a busy machine may take a while.
    ASSERT_TRUE(start({"-v", "-S", "-m", "10", "-c", "5"}, "100"));
    std::vector<std::thread> jobs;
    for (int t = 0; t < kJobs; ++t) {
        jobs.emplace_back([&, t] {
            // No acknowledgements, every packet, every second.
            uint16_t ackInterval = uint16_t(t % 3);
            Stream stream = receive(begin({.root = trees[t].root(), .ackInterval = ackInterval}), ackInterval);
            EXPECT_TRUE(stream.complete) << "job " << t << ": " << stream.error;
            got[t] = stream.files();
        });
    }
    for (auto& j : jobs) j.join();
    EXPECT_TRUE(ipcReleased(daemon_));
    for (int t = 0; t < kJobs; ++t) EXPECT_TRUE(got[t] == want[t]) << "job " << t;
}

// The front-end resets the connection in the middle of the stream or after
// its last packet.
TEST_F(BackupFaultTest, FrontEndResetsTheConnectionMidBackupOrAfterTheEnd) {
    tree_.file("huge", pattern(16 << 20));
    Tree small;
    small.file("a", "a");
    const struct {
        const Tree& tree;
        bool toTheEnd;
        const char* line;
    } rows[] = {{tree_, false, "(connrelease) Job aborted by front-end"},
                {small, true, "(connrelease) Received disconnect from localhost"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        tavik::platform::UniqueFd connection = begin({.root = row.tree.root()});
        if (row.toTheEnd)  // the receiver's copy of the connection closes after END; this one is reset
            EXPECT_TRUE(receive(tavik::platform::UniqueFd(dup(connection.get())), 0).complete);
        else  // five packets of the huge file's stream
            for (int i = 0; i < 5; ++i) EXPECT_NE(readPacket(connection.get()).code, 0) << i;
        linger hard{1, 0};  // a reset, as a front-end that dies
        setsockopt(connection.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        connection.reset();
        EXPECT_TRUE(daemon_.waitForLog(row.line));
        EXPECT_TRUE(ipcReleased(daemon_));
    }
    EXPECT_TRUE(daemon_.waitForLog("(cleanup) Child process ("));
    servesNextJob();
}

// SIGKILL of a backup's sender ends the job; SIGKILL of its job process
// takes the sender with it and the front-end sees the connection close at
// once. Either way the daemon removes the job's IPC objects (a restarted
// daemon finds nothing left either) and serves the next job.
TEST_F(BackupFaultTest, KilledJobProcessTakesItsSenderAndItsIpcObjects) {
    tree_.file("huge", pattern(16 << 20));
    for (bool killJob : {false, true}) {
        SCOPED_TRACE(killJob ? "job process" : "sender");
        ASSERT_TRUE(start());
        tavik::platform::UniqueFd connection = begin({});  // and never read
        ASSERT_TRUE(connection);
        // The sender is the job process's child, the daemon's only grandchild.
        auto firstChild = [](pid_t pid) {
            pid_t child = -1;
            std::ifstream("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children") >> child;
            return child;
        };
        pid_t job = -1, sender = -1;
        for (int i = 0; i < 250 && sender <= 0; ++i, usleep(20000))
            sender = firstChild(job = firstChild(daemon_.pid()));
        ASSERT_GT(sender, 0);
        kill(killJob ? job : sender, SIGKILL);
        if (killJob) {
            // What the agent had sent is drained; then the end of the stream.
            std::vector<uint8_t> sink(1 << 16);
            size_t got = 0;
            Received r;
            do r = tavik::platform::recvSome(connection.get(), sink.data(), sink.size(), 1000, got);
            while (r == Received::Data);
            EXPECT_NE(r, Received::TimedOut);
            // The test process is the subreaper that collects the orphaned sender.
            EXPECT_EQ(waitExit(sender, 1000), 128 + SIGKILL) << "the sender outlived its job";
        }
        EXPECT_TRUE(ipcReleased(daemon_)) << readFile(daemon_.home() + "LOG/tvk.ipc");
        EXPECT_TRUE(daemon_.waitForLog(killJob ? "(ReclaimIPC) Removed the semaphore "
                                               : "(cleanup) Child process (" + std::to_string(sender) + ") died"));
        connection.reset();
        if (killJob) {
            ASSERT_TRUE(start());
            EXPECT_TRUE(ipcReleased(daemon_));
        }
        servesNextJob();
    }
}

// A thousand jobs one after another leave the daemon with the descriptors,
// memory and IPC registry it had.
TEST_F(BackupFaultTest, AThousandJobsLeaveTheDaemonAsTheyFoundIt) {
    tree_.file("a", "a");
    std::string proc = "/proc/" + std::to_string(daemon_.pid());
    auto descriptors = [&] {
        return std::distance(std::filesystem::directory_iterator(proc + "/fd"), std::filesystem::directory_iterator{});
    };
    auto residentKb = [&] {
        for (const std::string& line : lines(readFile(proc + "/status")))
            if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
        return 0L;
    };
    const Summary want = {"6:", "6:a", "8:1", "9", "3"};
    EXPECT_EQ(summary({}), want);  // the first job settles what it allocates once
    long fds = descriptors(), kb = residentKb();
    for (int i = 0; i < 1000; ++i) {
        Stream stream = receive(begin({}), 0);
        ASSERT_TRUE(stream.complete) << i << ": " << stream.error;
        ASSERT_EQ(stream.summary(), want) << i;
    }
    EXPECT_TRUE(ipcReleased(daemon_));
    EXPECT_EQ(descriptors(), fds);
    EXPECT_LE(residentKb(), kb + 256) << "resident memory grew from " << kb << " KB";
}

TEST_F(BackupFaultTest, EntriesTheLoginMayNotRead) {
    TestUser user;
    ASSERT_TRUE(user.ok());
    tree_.file("open", "o");
    tree_.file("secret", "s", 0600);
    tree_.dir("private", 0700);
    tree_.file("private/inside", "i");
    mkfifo(tree_.path("fifo").c_str(), 0644);
    ASSERT_TRUE(start({"-v"}));
    BackupSetup s{.login = user.name(), .password = kPassword};
    std::map<std::string, Summary> data = {
        {"open", {"6:open", "8:1"}}, {"secret", {"102:secret"}}, {"fifo", {"102:fifo"}}};
    Summary want = {"6:"};
    for (const std::string& name : tree_.order()) want.insert(want.end(), data[name].begin(), data[name].end());
    want.insert(want.end(), {"6:private", "101", "9", "3"});
    EXPECT_EQ(summary(s), want);
    std::string root = tree_.root();
    for (const std::string& line :
         {"(backup_file) Failed to open regular file " + root + "secret (Permission denied)",
          "(backup_file) Failed to access special file " + root + "fifo",
          "(ws_backup) Failed to Access Directory [" + root + "private/] (Permission denied)"})
        EXPECT_TRUE(daemon_.waitForLog(line)) << line;
    servesNextJob(s);
}

TEST_F(BackupFaultTest, DirectoryLoopThroughAFollowedLink) {
    tree_.dir("sub");
    symlink("..", tree_.path("sub/up").c_str());
    EXPECT_EQ(summary({.follow = 1}), (Summary{"6:", "6:sub", "6:up", "9", "9", "9", "3"}));
    EXPECT_TRUE(daemon_.waitForLog("(ws_backup) Detected link to its ancestor of file " + tree_.root() + "sub/up"));
    // Not followed, the link is sent as a link.
    EXPECT_EQ(summary({}), (Summary{"6:", "6:sub", "6:up", "8:2", "9", "9", "3"}));
}

TEST_F(BackupFaultTest, PathsLongerThanTheBuffersAreRefusedAndTheWalkGoesOn) {
    std::string rel;
    for (int level = 0; level < 4; ++level) {
        rel += (rel.empty() ? "" : "/") + std::string(200, char('a' + level));
        tree_.dir(rel);
    }
    std::string longFile(250, 'f'), longDir(250, 'g');
    tree_.file(rel + "/" + longFile, "x");
    tree_.dir(rel + "/" + longDir);
    tree_.file(rel + "/ok", "fine");
    tree_.file("last", "z");
    Summary got = summary({});
    for (const std::string& w : {"102:" + longFile, "102:" + longDir, std::string("6:ok"), std::string("6:last")})
        EXPECT_TRUE(contains(got, w)) << w;
    EXPECT_EQ(countOf(daemon_.log(), "(File name too long)"), 2u);
}

}  // namespace
