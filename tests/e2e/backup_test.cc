// Backups on a real daemon, read packet by packet: the stream (entry kinds,
// chunking, versions, depth limits, selection, grooming, estimate), its flow
// (acknowledgements, renewals, restart points, watchdog, locks, stalls,
// concurrent jobs) and its faults (dropped front-end, killed sender,
// unreadable entries, loops, over-long paths), after which the job's IPC
// objects and registry lines are gone and the daemon serves the next job.
#include <poll.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>

#include "backup/attribute_record.h"
#include "e2e/test_user.h"
#include "protocol/filter_items.h"

namespace {

using namespace tavik::test;
namespace frontend = tavik::frontend;
namespace protocol = tavik::protocol;

// The front-end's side of a backup stream: every packet the agent sends
// (code, value, version, length, payload).
struct StreamPacket {
    int8_t code = 0;
    uint8_t version = 0;
    uint16_t value = 0;
    std::vector<uint8_t> payload;
    int connection = 0;  // 0 for the first connection, 1 after the first renewal...

    // A file header's fields.
    protocol::BackupAttributes attributes() const {
        auto a = protocol::decodeBackupAttributes(payload);
        return a ? *a : protocol::BackupAttributes{.kind = 255, .name = "?"};
    }
    std::string name() const { return attributes().name; }
    uint8_t kind() const { return attributes().kind; }
    uint32_t mode() const { return attributes().mode; }
    uint32_t size() const { return attributes().size; }
    // A text packet's text.
    std::string text() const { return std::string(payload.begin(), std::find(payload.begin(), payload.end(), 0)); }
};

// Reads the stream, acknowledges every n-th packet of codes 6, 7 and 8,
// follows connection renewals (code 16) to the new port, and can reassemble
// the files.
class BackupStreamReader {
public:
    explicit BackupStreamReader(int fd) : fd_(fd) {}
    ~BackupStreamReader() { closeAll(); }

    void acknowledgeEvery(uint16_t n, int8_t ackCode = 0) {
        ackInterval_ = n;
        ackCode_ = ackCode;
    }
    // Before each renewal, a caller from the loopback address `source`
    // reaches the new port first; the agent must close it.
    void strangerFirst(const char* source) { stranger_ = source; }

    // Reads up to END (true) or until the connection fails or `timeoutMs`
    // passes without a packet (false). `stopAfter` > 0 stops after that many
    // packets.
    bool readUntilEnd(int timeoutMs = 10000, size_t stopAfter = 0) {
        for (;;) {
            StreamPacket p;
            uint8_t h[8];
            if (!readExact(h, 8, timeoutMs)) return false;
            p.code = int8_t(h[2]);
            p.version = h[3];
            p.value = tavik::wire::loadLe16(h + 4);
            p.payload.assign(tavik::wire::loadLe16(h + 6), 0);
            p.connection = connection_;
            if (!p.payload.empty() && !readExact(p.payload.data(), p.payload.size(), timeoutMs)) return false;
            packets_.push_back(p);
            if (p.code == 16 && !renew(p.value)) return false;
            if (ackInterval_ != 0 && (p.code == 6 || p.code == 7 || p.code == 8) &&
                (ackCounter_ = uint16_t((ackCounter_ + 1) % ackInterval_)) == 0) {
                uint8_t ack[8] = {0, 0, uint8_t(ackCode_), 0, 0, 0, 0, 0};
                if (::send(fd_, ack, 8, MSG_NOSIGNAL) != 8) return fail("ack send failed");
            }
            if (p.code == 3) return true;
            if (stopAfter && packets_.size() >= stopAfter) return false;
        }
    }

    // The connection now in use (after renewals), -1 when closed.
    int fd() const { return fd_; }
    void closeAll() {
        for (int fd : old_) ::close(fd);
        old_.clear();
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

    const std::vector<StreamPacket>& packets() const { return packets_; }
    // One word per packet: "6:name", "7:2048", "8:12", "9", and text packets
    // (14, 101..) with their text: "101:name".
    std::vector<std::string> summary() const {
        std::vector<std::string> out;
        for (const StreamPacket& p : packets_) {
            std::string s = std::to_string(int(uint8_t(p.code)));
            if (p.code == 6) s += ":" + p.name();
            if (p.code == 7 || p.code == 8) s += ":" + std::to_string(p.payload.size());
            if ((p.code == 14 || uint8_t(p.code) >= 101) && !p.payload.empty()) s += ":" + p.text();
            out.push_back(s);
        }
        return out;
    }
    // Every file's data by its path under the source, rebuilt from the
    // file headers, directory nesting and data packets.
    std::map<std::string, std::string> files() const {
        std::map<std::string, std::string> out;
        std::vector<std::string> dirs;  // the open directories below the source
        std::string current;
        bool inFile = false;
        for (const StreamPacket& p : packets_) {
            if (p.code == 6 && p.kind() == 16) {
                dirs.push_back(p.name());
                inFile = false;
            } else if (p.code == 6 && p.kind() == 0) {
                current.clear();
                for (const std::string& d : dirs) current += d + "/";
                out[current += p.name()];
                inFile = true;
            } else if ((p.code == 7 || p.code == 8) && inFile) {
                out[current].append(p.payload.begin(), p.payload.end());
                inFile = p.code == 7;
            } else if ((p.code == 9 || p.code == 13 || p.code == 18 || p.code == 101) && !dirs.empty()) {
                dirs.pop_back();
            }
        }
        return out;
    }
    const std::string& error() const { return error_; }

private:
    bool fail(const std::string& why) {
        error_ = why;
        return false;
    }
    bool readExact(uint8_t* buf, size_t n, int timeoutMs) {
        for (size_t got = 0; got < n;) {
            pollfd p{fd_, POLLIN, 0};
            int r = ::poll(&p, 1, timeoutMs);
            if (r == 0) return fail("time-out");
            ssize_t m = r < 0 ? -1 : ::recv(fd_, buf + got, n - got, 0);
            if (m < 0 && errno == EINTR) continue;
            if (m <= 0) return fail(m == 0 ? "end of file" : std::strerror(errno));
            got += size_t(m);
        }
        return true;
    }
    // Connects to the new port of a renewal; later packets come from there.
    bool renew(uint16_t port) {
        sockaddr_in a = inetAddress(port);
        if (!stranger_.empty()) {
            int t = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in from = inetAddress(0);
            inet_pton(AF_INET, stranger_.c_str(), &from.sin_addr);
            uint8_t byte;
            pollfd p{t, POLLIN, 0};
            bool closed = ::bind(t, reinterpret_cast<sockaddr*>(&from), sizeof from) == 0 &&
                          ::connect(t, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && ::poll(&p, 1, 5000) == 1 &&
                          ::recv(t, &byte, 1, 0) <= 0;
            ::close(t);
            if (!closed) return fail("the stranger's call on the new port was not closed");
        }
        int s = ::socket(AF_INET, SOCK_STREAM, 0);
        if (::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
            ::close(s);
            return fail("renewal connect failed");
        }
        old_.push_back(fd_);
        fd_ = s;
        ++connection_;
        return true;
    }

    int fd_;
    std::string stranger_;
    std::vector<int> old_;
    uint16_t ackInterval_ = 0;
    int8_t ackCode_ = 0;
    uint16_t ackCounter_ = 0;
    int connection_ = 0;
    std::vector<StreamPacket> packets_;
    std::string error_;
};

// What a backup job is asked for (every member has its default, so that a
// test names only what it changes).
struct BackupSetup {
    std::string root{};  // the tree's
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
};

// Waits until the registry holds no live line and every object it named is
// gone from the kernel.
bool ipcReleased(const Daemon& daemon, int timeoutMs = 5000) {
    for (int waited = 0; waited <= timeoutMs; waited += 20) {
        std::ifstream in(daemon.home() + "LOG/tvk.ipc");
        std::string line;
        bool live = false, objects = false;
        while (std::getline(in, line)) {
            if (line.empty()) continue;
            if (line[0] == 'm' || line[0] == 's' || line[0] == 'q') live = true;
            if (line[0] == '#' && line.size() > 2) {
                int id = std::atoi(line.c_str() + 2);
                shmid_ds ds{};
                if (line[1] == 'm' && shmctl(id, IPC_STAT, &ds) == 0) objects = true;
                if (line[1] == 's' && semctl(id, 0, GETVAL) >= 0) objects = true;
            }
        }
        if (!live && !objects) return true;
        usleep(20000);
    }
    return false;
}

// A daemon (single-user mode by default, time-outs divided by 1000) and a
// scratch tree to back up.
class BackupTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root: device nodes, test logins and the daemon's identity";
    }
    bool start(const std::vector<std::string>& args = {"-v", "-S"}, const std::string& divisor = "1000") {
        return daemon_.start(args, {{"TAVIK_TIME_DIVISOR", divisor}});
    }
    // Runs the request (for the tree unless `s` names a root) and the
    // command phase; the reader then owns the connection. Null (with a test
    // failure) when the agent refused.
    std::unique_ptr<BackupStreamReader> begin(BackupSetup s) {
        frontend::JobClient client;
        EXPECT_TRUE(client.connect("127.0.0.1", daemon_.port())) << client.lastError();
        int answer = client.request({.root = s.root.empty() ? tree_.root() : s.root, .login = s.login,
                                     .password = s.password, .serverVersion = s.serverVersion,
                                     .acceptEA = uint8_t(s.password.empty() ? 0 : 'e'), .follow = s.follow,
                                     .tpSize = uint16_t(s.filterItems.size())});
        if (answer != 4) {
            ADD_FAILURE() << "request answered " << answer;
            return nullptr;
        }
        if (s.serverVersion >= 50) {
            EXPECT_TRUE(client.sendRaw(optionsRecord(s.retryCount, s.retryInterval, s.flags)));
            for (const auto& item : s.filterItems) EXPECT_TRUE(client.sendRaw(item));
        }
        if (s.commands) s.commands(client);
        EXPECT_TRUE(client.start(s.ackInterval));
        auto reader = std::make_unique<BackupStreamReader>(dup(client.fd()));
        reader->acknowledgeEvery(s.ackInterval);
        return reader;
    }
    // A whole backup read up to END (or, without `expectEnd`, until the
    // agent stops); afterwards the job's IPC objects must be gone.
    std::unique_ptr<BackupStreamReader> backup(const BackupSetup& s, bool expectEnd = true) {
        auto reader = begin(s);
        if (!reader) return std::make_unique<BackupStreamReader>(-1);
        EXPECT_EQ(reader->readUntilEnd(), expectEnd) << reader->error();
        reader->closeAll();
        EXPECT_TRUE(ipcReleased(daemon_));
        return reader;
    }
    std::vector<std::string> summary(const BackupSetup& s) { return backup(s)->summary(); }

    Daemon daemon_;
    Tree tree_;
};
using Summary = std::vector<std::string>;

class BackupStreamTest : public BackupTest {};
class BackupFlowTest : public BackupTest {};
class BackupFaultTest : public BackupTest {
protected:
    // The first child process of `pid` (-1 when it has none).
    static pid_t firstChild(pid_t pid) {
        pid_t child = -1;
        std::ifstream("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children") >> child;
        return child;
    }
    // The next job is served normally.
    void servesNextJob(BackupSetup s = {}) {
        Tree other;
        other.file("next", "n");
        s.root = other.root();
        EXPECT_EQ(summary(s), (Summary{"6:", "6:next", "8:1", "9", "3"}));
    }
};

bool contains(const Summary& s, const std::string& word) { return std::find(s.begin(), s.end(), word) != s.end(); }

TEST_F(BackupStreamTest, EveryEntryKindInStreamOrder) {
    tree_.file("empty", "");
    tree_.file("small", "hello");
    std::string big = pattern(4097);
    tree_.file("big", big);
    symlink("target-text", tree_.path("link").c_str());
    mkfifo(tree_.path("fifo").c_str(), 0644);
    mknod(tree_.path("chardev").c_str(), S_IFCHR | 0644, makedev(1, 3));
    ASSERT_EQ(mknod(tree_.path("sock").c_str(), S_IFSOCK | 0644, 0), 0);
    tree_.dir("sub");
    tree_.file("sub/inner", "abc");
    ASSERT_TRUE(start());

    auto reader = backup({});
    std::map<std::string, Summary> data = {
        {"empty", {"6:empty", "8:0"}},
        {"small", {"6:small", "8:5"}},
        {"big", {"6:big", "7:2048", "7:2048", "8:1"}},
        {"link", {"6:link", "8:11"}},
        {"fifo", {"6:fifo", "8:0"}},
        {"chardev", {"6:chardev", "8:0"}},
    };
    Summary want = {"6:"};  // the socket is left out, the directory comes after the files
    for (const std::string& name : tree_.order()) want.insert(want.end(), data[name].begin(), data[name].end());
    for (std::string w : {"6:sub", "6:inner", "8:3", "9", "9", "3"}) want.push_back(w);
    EXPECT_EQ(reader->summary(), want);

    // Kinds, version bytes, sizes and types in the records.
    std::map<std::string, std::pair<uint32_t, uint32_t>> sizeAndType = {
        {"chardev", {0, 0x2000}}, {"big", {4097, 0x8000}}, {"link", {11, 0xA000}}, {"fifo", {0, 0x1000}}};
    for (const StreamPacket& p : reader->packets()) {
        bool status = p.code == 9 || p.code == 3;
        EXPECT_EQ(p.version, status ? 5 : 0) << int(p.code);
        EXPECT_EQ(p.value, 0);
        if (p.code != 6) continue;
        EXPECT_EQ(p.kind(), p.name().empty() ? 17 : p.name() == "sub" ? 16 : 0) << p.name();
        EXPECT_EQ(p.payload.size(), 49 + p.name().size());
        if (sizeAndType.count(p.name())) {
            EXPECT_EQ(std::make_pair(p.size(), p.mode() & 0xF000), sizeAndType[p.name()]) << p.name();
        }
    }
    EXPECT_EQ(reader->files(), (std::map<std::string, std::string>{{"empty", ""}, {"small", "hello"}, {"big", big},
                                                                   {"link", "target-text"}, {"fifo", ""},
                                                                   {"chardev", ""}, {"sub/inner", "abc"}}));
    EXPECT_TRUE(daemon_.waitForLog("Workstation Backup Ended"));
    EXPECT_TRUE(daemon_.waitForLog("SO_SNDBUF = "));
}

TEST_F(BackupStreamTest, ChunksFollowTheJobsBufferSize) {
    tree_.file("a", pattern(4096));
    ASSERT_TRUE(start({"-v", "-S", "-b", "8192"}));
    // Without option flag 0x40 the job uses 2048 whatever -b says.
    EXPECT_EQ(summary({}), (Summary{"6:", "6:a", "7:2048", "7:2048", "8:0", "9", "3"}));
    tree_.file("a", pattern(8193));
    auto reader = backup({.flags = 0x40});  // the daemon's buffer size kept
    EXPECT_EQ(reader->summary(), (Summary{"6:", "6:a", "7:8192", "8:1", "9", "3"}));
    EXPECT_EQ(reader->files()["a"], pattern(8193));
}

TEST_F(BackupStreamTest, OldServersGetNoSourceRecordAndTheShallowDepthLimit) {
    std::string rel;
    for (int i = 1; i <= 25; ++i) {
        rel += (rel.empty() ? "d" : "/d") + std::to_string(i);
        tree_.dir(rel);
        tree_.file(rel + "/f", "x");
    }
    tree_.file("f", "x");
    ASSERT_TRUE(start());
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
    ASSERT_TRUE(start());
    // Not crossing file systems (flag 0x01): the newest servers get code 18
    // for the skipped directory, older ones an ENDDIR.
    EXPECT_EQ(summary({.follow = 1, .flags = 0x01}), (Summary{"6:", "6:other", "18", "9", "3"}));
    EXPECT_EQ(summary({.serverVersion = 50, .follow = 1, .flags = 0x01}), (Summary{"6:", "6:other", "9", "9", "3"}));
    EXPECT_TRUE(daemon_.waitForLog("Skip file system " + tree_.root() + "other/"));
    EXPECT_EQ(summary({.follow = 1}), (Summary{"6:", "6:other", "6:hidden", "8:1", "9", "9", "3"}));
}

TEST_F(BackupStreamTest, TopListAndFiltersSelect) {
    tree_.file("keep", "k");
    tree_.file("drop", "d");
    tree_.file("x.o", "o");
    tree_.dir("dir");
    tree_.file("dir/keep", "inner");
    tree_.file("dir/y.o", "o");
    ASSERT_TRUE(start());
    // Only the listed names at the top; deeper levels are not limited.
    EXPECT_EQ(backup({.commands = [](frontend::JobClient& c) { EXPECT_EQ(c.diskItem({"keep", "dir"}), 4); }})->files(),
              (std::map<std::string, std::string>{{"keep", "k"}, {"dir/keep", "inner"}, {"dir/y.o", "o"}}));
    auto exclude = protocol::encodeNamePatternItem(false, true, std::vector<std::string>{"*.o"});
    EXPECT_EQ(backup({.filterItems = {*exclude}})->files(),
              (std::map<std::string, std::string>{{"keep", "k"}, {"drop", "d"}, {"dir/keep", "inner"}}));
    // A "between" item with its days in reverse order selects the days
    // between them and is logged with them as sent.
    auto day = [](int mday, int hour = 0) {  // of November 2004, UTC
        struct tm t {};
        t.tm_year = 104;
        t.tm_mon = 10;
        t.tm_mday = mday;
        t.tm_hour = hour;
        return timegm(&t);
    };
    tree_.file("drop", "d", 0644, day(15, 12));
    auto between = protocol::encodeDateItem(false, protocol::kWhichModified, protocol::kBetween,
                                                 int32_t(day(20)), int32_t(day(9)));
    EXPECT_EQ(backup({.filterItems = {between}})->files(), (std::map<std::string, std::string>{{"drop", "d"}}));
    EXPECT_TRUE(daemon_.waitForLog("Include files modified 'between' 11/20/04 and 11/09/04"));
}

TEST_F(BackupStreamTest, ProtectedDirectoriesAreLeftOutAndAccessTimesRestored) {
    tree_.dir("prot");
    tree_.file("prot/inside", "p");
    tree_.dir("prot/deeper");
    tree_.file("prot/deeper/x", "x");
    tree_.file("read", "r");
    tree_.dir("kept");
    tree_.file("kept/f", "k");
    struct timespec old[2] = {{1000000, 0}, {0, UTIME_OMIT}};  // accessed long before its change
    utimensat(AT_FDCWD, tree_.path("read").c_str(), old, 0);
    utimensat(AT_FDCWD, tree_.path("kept").c_str(), old, 0);
    struct stat before = statOf(tree_.path("read")), dirBefore = statOf(tree_.path("kept"));
    ASSERT_TRUE(start());
    std::ofstream(daemon_.home() + "tvk.cntl") << tree_.path("prot") << "\n";
    // Estimates leave out the same directories: of the protected one's
    // files, those directly in it count (as when the estimate's source was
    // compared by its text), none below.
    auto estimates = [&](frontend::JobClient& c) {
        for (auto [source, files] : {std::pair{tree_.root(), 2u}, std::pair{tree_.path("prot/"), 1u}}) {
            std::string payload = source + '\0';
            EXPECT_EQ(c.command(14, std::vector<uint8_t>(payload.begin(), payload.end())), 4);
            std::array<uint8_t, 8> reply{};
            EXPECT_TRUE(c.recvRaw(reply));
            EXPECT_EQ(tavik::wire::loadLe32(reply.data()), files) << source;
        }
    };
    EXPECT_EQ(summary({.commands = estimates}),
              (Summary{"6:", "6:read", "8:1", "6:kept", "6:f", "8:1", "9", "9", "3"}));
    EXPECT_TRUE(daemon_.waitForLog("(ws_backup) Protected Directory [" + tree_.path("prot") + "] in " +
                                   daemon_.home() + "tvk.cntl"));
    // Read without touching the access time, so nothing looks changed either.
    for (auto [name, was] : {std::pair{"read", before}, std::pair{"kept", dirBefore}}) {
        struct stat st = statOf(tree_.path(name));
        EXPECT_EQ(st.st_atime, 1000000) << name;
        EXPECT_EQ(st.st_ctim.tv_sec, was.st_ctim.tv_sec) << name;
        EXPECT_EQ(st.st_ctim.tv_nsec, was.st_ctim.tv_nsec) << name;
    }
}

TEST_F(BackupStreamTest, ListedRawDeviceIsSentAsData) {
    mknod(tree_.path("raw").c_str(), S_IFCHR | 0600, makedev(1, 5));  // reads as zeros
    ASSERT_TRUE(start());
    std::string entry = std::string("\0\x10\0\0", 4) + tree_.path("raw") + '\0';  // size 4096, path, NUL
    entry.resize((entry.size() + 3) / 4 * 4, '\0');
    std::vector<uint8_t> list(entry.begin(), entry.end());
    auto reader = backup({.commands = [&](frontend::JobClient& c) { EXPECT_EQ(c.dbFile(list), 4); }});
    EXPECT_EQ(reader->summary(), (Summary{"6:", "6:raw", "7:2048", "8:2048", "9", "3"}));
    EXPECT_EQ(reader->packets()[1].size(), 4096u);
    EXPECT_EQ(reader->files()["raw"], std::string(4096, '\0'));
}

TEST_F(BackupStreamTest, DeletingGroomingReportsAndRemovesTheBackedUpFiles) {
    tree_.dir("old");
    tree_.file("old/one", "1");
    tree_.file("old/two", "22");
    ASSERT_TRUE(start());
    Summary got = summary({.commands = [](frontend::JobClient& c) {
        EXPECT_EQ(c.grooming(groomingRecord(0x04), std::vector<uint8_t>(63, 0)), 4);
    }});
    // After the source's ENDDIR: the count, then the work file as data.
    auto at = std::find(got.begin(), got.end(), "14:2");
    ASSERT_NE(at, got.end()) << ::testing::PrintToString(got);
    EXPECT_EQ(*(at - 1), "9");
    EXPECT_EQ((at + 1)->rfind("8:", 0), 0u);
    EXPECT_EQ(got.back(), "3");
    EXPECT_EQ(statOf(tree_.path("old/one")).st_mode, 0u);
    EXPECT_EQ(statOf(tree_.path("old/two")).st_mode, 0u);
    EXPECT_TRUE(S_ISDIR(statOf(tree_.path("old")).st_mode)) << "directories are never groomed";
    EXPECT_TRUE(daemon_.waitForLog("Total 2 files were deleted"));
}

TEST_F(BackupStreamTest, EstimateCountsWhatABackupWouldSend) {
    tree_.file("a", pattern(1000));
    tree_.file("b", pattern(2048));
    tree_.file("c", "");
    mkfifo(tree_.path("fifo").c_str(), 0644);
    tree_.dir("sub");
    tree_.file("sub/d", pattern(3000));
    ASSERT_TRUE(start());
    auto ask = [&](const std::string& source, const std::vector<std::string>& names) {
        frontend::JobClient c;
        EXPECT_TRUE(c.connect("127.0.0.1", daemon_.port()));
        // A job of commands only; the source and the names, each with its NUL.
        EXPECT_EQ(c.request({.root = tree_.root(), .login = "root", .password = "", .opMode = 7}), 4);
        std::string payload = source + '\0';
        for (const std::string& n : names) payload += n + '\0';
        EXPECT_EQ(c.command(14, std::vector<uint8_t>(payload.begin(), payload.end())), 4);
        std::array<uint8_t, 8> reply{};
        EXPECT_TRUE(c.recvRaw(reply));
        return std::make_pair(tavik::wire::loadLe32(reply.data()), tavik::wire::loadLe32(reply.data() + 4));
    };
    EXPECT_EQ(ask(tree_.root(), {}), std::make_pair(5u, 5u));  // 6048 bytes
    EXPECT_EQ(ask(tree_.root(), {"a", "b", "c", "fifo"}), std::make_pair(4u, 2u));
    EXPECT_EQ(ask(tree_.path("nothing-here"), {}), std::make_pair(0u, 0u));
}

TEST_F(BackupFlowTest, AcknowledgementsEveryNthDataPacket) {
    for (int i = 1; i <= 6; ++i) tree_.file("f" + std::to_string(i), pattern(5000, unsigned(i)));
    ASSERT_TRUE(start());
    EXPECT_EQ(backup({.ackInterval = 3})->files().size(), 6u);
    EXPECT_TRUE(daemon_.waitForLog("RCV_OK: AckCount=3"));

    // An answer other than 0 in place of an acknowledgement ends the sender,
    // and with it the job.
    auto bad = begin({.ackInterval = 2});
    ASSERT_TRUE(bad);
    bad->acknowledgeEvery(2, 5);
    EXPECT_FALSE(bad->readUntilEnd());
    EXPECT_TRUE(daemon_.waitForLog("(SendDaemon) Protocol error (Acknowledge expected)"));
    EXPECT_TRUE(daemon_.waitForLog("(cleanup) Child process ("));
    bad->closeAll();
    EXPECT_TRUE(ipcReleased(daemon_));
}

TEST_F(BackupFlowTest, RenewalsAfterFilesAndAfterKilobytes) {
    for (int i = 1; i <= 5; ++i) tree_.file("f" + std::to_string(i), pattern(10, unsigned(i)));
    ASSERT_TRUE(start({"-v", "-S", "-R", "2"}));
    auto reader = backup({.flags = 0x04});
    const auto& p = reader->packets();
    std::vector<size_t> renewals, endfs;
    for (size_t i = 0; i < p.size(); ++i) {
        if (p[i].code == 16) renewals.push_back(i);
        if (p[i].code == 8) endfs.push_back(i);
    }
    ASSERT_EQ(renewals.size(), 2u);
    ASSERT_EQ(endfs.size(), 5u);
    // Before the 2nd and the 4th ENDF, which go first on the new connection.
    EXPECT_EQ(renewals[0] + 1, endfs[1]);
    EXPECT_EQ(renewals[1] + 1, endfs[3]);
    EXPECT_EQ(p[endfs[1]].connection, 1);
    EXPECT_EQ(p[renewals[0]].connection, 0);
    EXPECT_EQ(p.back().connection, 2);
    EXPECT_EQ(p[renewals[0]].payload.size(), 0u);
    EXPECT_NE(p[renewals[0]].value, 0);
    EXPECT_EQ(reader->files().size(), 5u);
    EXPECT_TRUE(daemon_.waitForLog("(reestablishTCP) New TCP fd="));
    // Without option flag 0x04 there is no renewal.
    EXPECT_FALSE(contains(summary({}), "16"));

    // After a kilobyte: acknowledgements follow the renewal.
    tree_.file("f1", pattern(3000));
    for (int i = 2; i <= 5; ++i) unlink(tree_.path("f" + std::to_string(i)).c_str());
    daemon_.stop();
    ASSERT_TRUE(start({"-v", "-S", "-r", "1"}));
    // A caller from another address that reaches the new port first is
    // closed; the front-end's call is then taken.
    reader = begin({.flags = 0x04, .ackInterval = 1});
    ASSERT_TRUE(reader);
    reader->strangerFirst("127.0.0.2");
    EXPECT_TRUE(reader->readUntilEnd()) << reader->error();
    reader->closeAll();
    EXPECT_TRUE(daemon_.waitForLog(" from 127.0.0.2 is not the front-end's: closed"));
    EXPECT_EQ(reader->summary(), (Summary{"6:", "6:f1", "16", "7:2048", "8:952", "9", "3"}));
    EXPECT_EQ(reader->packets()[3].connection, 1);
    EXPECT_EQ(reader->files()["f1"], pattern(3000));

    // Both limits: an ENDF that renews for the file limit counts its length
    // afresh, and renews again before it is sent when that reaches the
    // kilobyte limit. One file per directory fixes the order: a, d/b, d/e/c.
    Tree nested;
    nested.dir("d");
    nested.dir("d/e");
    const struct {
        const char* files;  // -R
        size_t a, b, c;     // file sizes
        Summary want;       // from c's header on
        std::vector<int> connections;  // of those packets
    } rows[] = {
        // c: 3rd file, renewal, then 1500 bytes since it: a second one.
        {"3", 10, 10, 1500, {"6:c", "16", "16", "8:1500", "9", "9", "9", "3"}, {0, 0, 1, 2, 2, 2, 2, 2}},
        // Every file renews; c's 1500 bytes once more.
        {"1", 10, 10, 1500, {"6:c", "16", "16", "8:1500", "9", "9", "9", "3"}, {2, 2, 3, 4, 4, 4, 4, 4}},
        // b renews for the file limit and its 600 bytes count: c's 600 more reach 1 KB.
        {"2", 600, 600, 600, {"6:c", "16", "8:600", "9", "9", "9", "3"}, {1, 1, 2, 2, 2, 2, 2}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string("-R ") + row.files);
        nested.file("a", pattern(row.a, 1));
        nested.file("d/b", pattern(row.b, 2));
        nested.file("d/e/c", pattern(row.c, 3));
        daemon_.stop();
        ASSERT_TRUE(start({"-v", "-S", "-R", row.files, "-r", "1"}));
        reader = backup({.root = nested.root(), .flags = 0x04, .ackInterval = 1});
        Summary got = reader->summary();
        auto c = std::find(got.begin(), got.end(), "6:c");
        ASSERT_NE(c, got.end()) << ::testing::PrintToString(got);
        EXPECT_EQ(Summary(c, got.end()), row.want) << ::testing::PrintToString(got);
        std::vector<int> connections;
        for (size_t i = size_t(c - got.begin()); i < got.size(); ++i)
            connections.push_back(reader->packets()[i].connection);
        EXPECT_EQ(connections, row.connections);
        EXPECT_EQ(reader->files()["d/e/c"], pattern(row.c, 3));
    }
}

TEST_F(BackupFlowTest, RestartPointWithAndWithoutOffset) {
    tree_.dir("d");
    for (const char* n : {"f1", "f2", "f3"}) tree_.file(std::string("d/") + n, n);
    ASSERT_TRUE(start());
    std::vector<std::string> order = tree_.order("d");
    std::string named = tree_.root() + "d/" + order[1];
    BackupSetup s;
    auto restartAt = [&](uint32_t offset, const std::string& path) {
        s.commands = [=](frontend::JobClient& c) { EXPECT_EQ(c.continueAt(offset, path), 4); };
    };
    // Offset 0: everything up to the named file is skipped.
    restartAt(0, named);
    EXPECT_EQ(summary(s), (Summary{"6:" + order[2], "8:2", "9", "9", "3"}));
    EXPECT_TRUE(daemon_.waitForLog("Continue on file next to " + named));

    // An offset: the file's data from there on, without its file header.
    std::string big = pattern(10000);
    tree_.file("d/" + order[1], big);
    restartAt(6000, named);
    auto reader = backup(s);
    EXPECT_EQ(reader->summary(), (Summary{"7:2048", "8:1952", "6:" + order[2], "8:2", "9", "9", "3"}));
    std::string tail;
    for (size_t i = 0; i < 2; ++i)
        tail.append(reader->packets()[i].payload.begin(), reader->packets()[i].payload.end());
    EXPECT_EQ(tail, big.substr(6000));

    // A restart file that is never reached: no END, the job ends at once.
    restartAt(0, tree_.root() + "nowhere");
    EXPECT_TRUE(backup(s, false)->packets().empty());
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
    ASSERT_TRUE(start());
    Summary got = summary({.root = modes.root(), .retryCount = 0});
    EXPECT_TRUE(contains(got, "201:sgid"));
    EXPECT_TRUE(contains(got, "6:sgidx"));
    EXPECT_EQ(summary({.retryCount = 0}), (Summary{"6:", "6:locked", "8:4", "9", "3"}));
    daemon_.stop();
    ASSERT_TRUE(start({"-v", "-S", "-l"}));

    // Four tries 100 s apart (0.1 s here) with a 30 s (30 ms) watchdog.
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

TEST_F(BackupFlowTest, NonBlockingIoServesTheWholeExchange) {
    tree_.file("a", pattern(5000));
    ASSERT_TRUE(start({"-v", "-S", "-s", "nonblocking"}));
    auto item = [](frontend::JobClient& c) { EXPECT_EQ(c.diskItem({"a"}), 4); };
    auto reader = backup({.commands = item, .ackInterval = 2});
    EXPECT_EQ(reader->files()["a"], pattern(5000));
    EXPECT_TRUE(daemon_.waitForLog("RCV_OK: AckCount=2"));
    // The non-blocking receive traces every call on standard output.
    EXPECT_TRUE(has(readFile(daemon_.home() + "launcher.out"), "(nonblockRecv)  connfd="));
}

TEST_F(BackupFlowTest, TapeChangeStallPutsTheBackupProcessToSleepAndWakesIt) {
    tree_.file("huge", pattern(8 << 20));
    ASSERT_TRUE(start());
    auto reader = begin({});
    ASSERT_TRUE(reader);
    EXPECT_FALSE(reader->readUntilEnd(10000, 3));
    // The server stops reading for longer than the 180 s (0.18 s) stall.
    EXPECT_TRUE(daemon_.waitForLog("Put Backup Process("));
    EXPECT_TRUE(daemon_.waitForLog("(span_tape_sleep) Received SIGUSR1 from child process"));
    EXPECT_TRUE(reader->readUntilEnd()) << reader->error();
    // The sender wakes it at its first progress (a wake-up signal that
    // follows the sleep signal at once may merge with it; the backup process
    // then goes on when slots are freed).
    EXPECT_TRUE(daemon_.waitForLog("Wake Backup Process("));
    EXPECT_TRUE(reader->files()["huge"] == pattern(8 << 20));
    reader->closeAll();
    EXPECT_TRUE(ipcReleased(daemon_));
}

TEST_F(BackupFlowTest, ThirtyTwoBackupsAtOnceReassembleExactly) {
    constexpr int kJobs = 32;
    std::array<Tree, kJobs> trees;
    auto content = [](int t, int i) { return pattern(3000 * size_t(i) + size_t(t), unsigned(t * 10 + i)); };
    for (int t = 0; t < kJobs; ++t) {
        for (int i = 0; i < 8; ++i) trees[t].file("f" + std::to_string(i), content(t, i));
        trees[t].dir("sub");
        trees[t].file("sub/g", pattern(70000, unsigned(t)));
    }
    // A ring of ten slots that fills often, with the bounded full-ring wait.
    // 32 calls at once: each gets the request deadline divided by 100 only
    // (1.2 s), as the forks of a busy machine may take a while.
    ASSERT_TRUE(start({"-v", "-S", "-m", "10", "-c", "5"}, "100"));
    std::vector<std::map<std::string, std::string>> got(kJobs);
    std::vector<std::thread> jobs;
    for (int t = 0; t < kJobs; ++t) {
        jobs.emplace_back([&, t] {
            // No acknowledgements, every packet, every second.
            auto reader = begin({.root = trees[t].root(), .ackInterval = uint16_t(t % 3)});
            if (!reader) return;
            EXPECT_TRUE(reader->readUntilEnd()) << reader->error();
            got[t] = reader->files();
        });
    }
    for (auto& j : jobs) j.join();
    EXPECT_TRUE(ipcReleased(daemon_));
    for (int t = 0; t < kJobs; ++t) {
        ASSERT_EQ(got[t].size(), 9u);
        for (int i = 0; i < 8; ++i) EXPECT_EQ(got[t]["f" + std::to_string(i)], content(t, i));
        EXPECT_EQ(got[t]["sub/g"], pattern(70000, unsigned(t)));
    }
}

// The front-end resets the connection in the middle of the stream or after
// its last packet.
TEST_F(BackupFaultTest, FrontEndResetsTheConnectionMidBackupOrAfterTheEnd) {
    tree_.file("huge", pattern(16 << 20));
    Tree small;
    small.file("a", "a");
    ASSERT_TRUE(start());
    struct Row {
        const char* name;
        const Tree& tree;
        size_t stopAfter;
        const char* line;
    } rows[] = {{"mid-backup", tree_, 5, "(connrelease) Job aborted by front-end"},
                {"after END", small, 0, "(connrelease) Received disconnect from localhost"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        auto reader = begin({.root = row.tree.root()});
        ASSERT_TRUE(reader);
        EXPECT_EQ(reader->readUntilEnd(10000, row.stopAfter), row.stopAfter == 0);
        linger hard{1, 0};  // a reset, as a front-end that dies
        setsockopt(reader->fd(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        reader->closeAll();
        EXPECT_TRUE(daemon_.waitForLog(row.line));
        EXPECT_TRUE(ipcReleased(daemon_));
    }
    EXPECT_TRUE(daemon_.waitForLog("(cleanup) Child process ("));
    servesNextJob();
}

TEST_F(BackupFaultTest, KilledSenderEndsTheBackupProcess) {
    tree_.file("huge", pattern(16 << 20));
    ASSERT_TRUE(start());
    auto reader = begin({});  // and never read
    ASSERT_TRUE(reader);
    // The sender is the job process's child, the daemon's only grandchild.
    pid_t sender = -1;
    for (int i = 0; i < 250 && sender <= 0; ++i, usleep(20000)) sender = firstChild(firstChild(daemon_.pid()));
    ASSERT_GT(sender, 0);
    kill(sender, SIGKILL);
    EXPECT_TRUE(daemon_.waitForLog("(cleanup) Child process (" + std::to_string(sender) + ") died"));
    EXPECT_TRUE(ipcReleased(daemon_));
    reader->closeAll();
    servesNextJob();
}

// SIGKILL of a backup's job process: its sender dies with it, the front-end
// sees the connection close at once, and the daemon removes the job's IPC
// objects; a restarted daemon finds nothing left either.
TEST_F(BackupFaultTest, KilledJobProcessTakesItsSenderAndItsIpcObjects) {
    tree_.file("huge", pattern(16 << 20));
    ASSERT_TRUE(start());
    auto reader = begin({});  // and never read
    ASSERT_TRUE(reader);
    pid_t job = -1, sender = -1;
    for (int i = 0; i < 250 && sender <= 0; ++i, usleep(20000)) sender = firstChild(job = firstChild(daemon_.pid()));
    ASSERT_GT(sender, 0);
    std::string registry = readFile(daemon_.home() + "LOG/tvk.ipc");
    kill(job, SIGKILL);
    pollfd p{reader->fd(), POLLIN, 0};
    bool closed = false;
    // What the agent had sent is drained; then the end of the stream.
    std::vector<uint8_t> sink(1 << 16);
    auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!closed && std::chrono::steady_clock::now() < giveUp)
        closed = poll(&p, 1, 1000) == 1 && recv(reader->fd(), sink.data(), sink.size(), 0) <= 0;
    EXPECT_TRUE(closed);
    // The test process is the subreaper that collects the orphaned sender.
    EXPECT_EQ(waitExit(sender, 1000), 128 + SIGKILL) << "the sender outlived its job";
    EXPECT_TRUE(ipcReleased(daemon_)) << registry << "\n" << readFile(daemon_.home() + "LOG/tvk.ipc");
    EXPECT_TRUE(daemon_.waitForLog("(ReclaimIPC) Removed the semaphore "));
    reader->closeAll();
    daemon_.stop();
    ASSERT_TRUE(start());
    EXPECT_TRUE(ipcReleased(daemon_));
    servesNextJob();
}

// A thousand jobs one after another leave the daemon with the descriptors,
// memory and IPC registry it had.
TEST_F(BackupFaultTest, AThousandJobsLeaveTheDaemonAsTheyFoundIt) {
    tree_.file("a", "a");
    ASSERT_TRUE(start());
    auto descriptors = [&] {
        return std::distance(std::filesystem::directory_iterator("/proc/" + std::to_string(daemon_.pid()) + "/fd"),
                             std::filesystem::directory_iterator{});
    };
    auto residentKb = [&] {
        std::ifstream status("/proc/" + std::to_string(daemon_.pid()) + "/status");
        for (std::string line; std::getline(status, line);)
            if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
        return 0L;
    };
    const Summary want = {"6:", "6:a", "8:1", "9", "3"};
    EXPECT_EQ(summary({}), want);  // the first job settles what it allocates once
    long fds = descriptors(), kb = residentKb();
    for (int i = 0; i < 1000; ++i) {
        auto reader = begin({});
        ASSERT_TRUE(reader);
        ASSERT_TRUE(reader->readUntilEnd()) << i << ": " << reader->error();
        ASSERT_EQ(reader->summary(), want) << i;
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
    for (std::string w : {"6:private", "101", "9", "3"}) want.push_back(w);
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
    ASSERT_TRUE(start());
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
    ASSERT_TRUE(start());
    Summary got = summary({});
    for (const std::string& w : {"102:" + longFile, "102:" + longDir, std::string("6:ok"), std::string("6:last")})
        EXPECT_TRUE(contains(got, w)) << w;
    EXPECT_EQ(countOf(daemon_.log(), "(File name too long)"), 2u);
}

}  // namespace
