// The restore front-end without a daemon: the selection of paths, the
// splitting of the agent's answers, and the sender and the archive replay
// over a real socket pair whose other end plays the agent: it records every
// packet and answers each ENDF with a scripted status.
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "daemon/scratch_home.h"
#include "frontend/restore_client.h"
#include "frontend/stream_builder.h"
#include "protocol/restore_record.h"
#include "wire/bytes.h"

namespace {

using namespace tavik::frontend;
using tavik::test::archiveOf;
using tavik::test::StreamBuilder;
namespace cmd = tavik::protocol::code;
namespace protocol = tavik::protocol;

TEST(RestoreSelection, PathsRelativeOrUnderTheSourceSelectTheirSubtrees) {
    RestoreSelection s;
    std::string error;
    EXPECT_TRUE(s.all());
    EXPECT_TRUE(s.selects("anything/at/all"));
    ASSERT_TRUE(s.add("sub/deeper/", "/usr/include", error));
    ASSERT_TRUE(s.add("/usr/include/sys", "/usr/include/", error));
    EXPECT_FALSE(s.all());
    EXPECT_TRUE(s.selects("sub/deeper"));
    EXPECT_TRUE(s.selects("sub/deeper/x"));
    EXPECT_TRUE(s.selects("sys/types.h"));
    EXPECT_FALSE(s.selects("sub/deeperx"));
    EXPECT_FALSE(s.selects("sub"));
    EXPECT_FALSE(s.selects("system"));
    EXPECT_TRUE(s.isAbove("sub"));
    EXPECT_TRUE(s.isAbove(""));
    EXPECT_FALSE(s.isAbove("sub/deeper"));
    EXPECT_FALSE(s.isAbove("su"));
    s.met("sys");
    EXPECT_EQ(s.unmet(), std::vector<std::string>{"sub/deeper"});

    for (const char* bad : {"/etc/passwd", "a/../b", "a//b", "./a"}) {
        SCOPED_TRACE(bad);
        RestoreSelection t;
        EXPECT_FALSE(t.add(bad, "/usr/include", error));
        EXPECT_FALSE(error.empty());
    }
    // The source itself selects everything.
    RestoreSelection whole;
    ASSERT_TRUE(whole.add("/usr/include", "/usr/include", error));
    EXPECT_TRUE(whole.selects("x/y"));
}

TEST(RestoreAnswers, SplitIntoWholeAnswersAndLeaveTheRest) {
    std::vector<uint8_t> bytes(8, 0);
    bytes[2] = 'j';
    std::vector<uint8_t> withPayload(8, 0);
    withPayload[2] = 0xCB;
    tavik::wire::storeLe16(&withPayload[6], 3);
    withPayload.insert(withPayload.end(), {1, 2, 3});
    bytes.insert(bytes.end(), withPayload.begin(), withPayload.end());
    std::vector<uint8_t> codes;
    auto keep = [&codes](uint8_t c) { codes.push_back(c); };
    EXPECT_EQ(splitAnswers(bytes, keep), 19u);
    EXPECT_EQ(codes, (std::vector<uint8_t>{'j', 0xCB}));
    // Cut at every length: only whole answers are taken.
    for (size_t cut = 0; cut < bytes.size(); ++cut) {
        codes.clear();
        size_t used = splitAnswers(std::span<const uint8_t>(bytes).first(cut), keep);
        EXPECT_EQ(used, cut < 8 ? 0u : (cut < 19 ? 8u : 19u)) << cut;
        EXPECT_EQ(codes.size(), used == 0 ? 0u : (used == 8 ? 1u : 2u));
    }
    uint8_t policy = 0;
    EXPECT_TRUE(parseConflictPolicy("newer", policy));
    EXPECT_EQ(policy, protocol::conflict_policy::kNewer);
    EXPECT_FALSE(parseConflictPolicy("Newer", policy));
    EXPECT_EQ(restoreStatusWords('z'), "locked by another process");
    EXPECT_EQ(restoreStatusWords(0x42), "unknown status 66");
}

struct Seen {
    int8_t code;
    std::string name;  // MKDIR and OPENFILE
    size_t length;
};

// The agent's end of the connection: reads packets until END (answered 3)
// or until it answers a "no space" status, which ends the job.
class FakeAgent {
public:
    explicit FakeAgent(std::vector<uint8_t> statuses) : statuses_(std::move(statuses)) {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        ours_ = fds[0];
        theirs_ = tavik::platform::UniqueFd(fds[1]);
        thread_ = std::thread([this] {
            serve();
            ::shutdown(ours_, SHUT_RDWR);  // the job process ends
        });
    }
    ~FakeAgent() {
        if (thread_.joinable()) thread_.join();
        ::close(ours_);
    }
    tavik::platform::UniqueFd connection() { return std::move(theirs_); }
    const std::vector<Seen>& seen() {
        if (thread_.joinable()) thread_.join();
        return seen_;
    }

private:
    bool readAll(uint8_t* p, size_t n) { return tavik::testing::recvWithin(ours_, p, n); }
    void reply(uint8_t code) {
        uint8_t h[8] = {0, 0, code, 0, 0, 0, 0, 0};
        EXPECT_EQ(::write(ours_, h, 8), 8);
    }
    void serve() {
        size_t next = 0;
        for (;;) {
            uint8_t h[8];
            if (!readAll(h, 8)) return;
            size_t length = tavik::wire::loadLe16(&h[6]);
            std::vector<uint8_t> payload(length);
            if (!readAll(payload.data(), length)) return;
            Seen s{static_cast<int8_t>(h[2]), {}, length};
            if (s.code == cmd::kMkdir || s.code == cmd::kOpenFile) {
                protocol::RestoreAttributes a;
                EXPECT_EQ(protocol::decodeRestoreAttributes(payload, a), protocol::RecordError::None);
                s.name = a.name;
            }
            seen_.push_back(s);
            if (s.code == cmd::kEnd) return reply(3);
            if (s.code == cmd::kEndf) {
                uint8_t status = next < statuses_.size() ? statuses_[next] : 0;
                ++next;
                reply(status);
                if (status == 'd') return;  // the job ends
            }
        }
    }

    std::vector<uint8_t> statuses_;
    int ours_ = -1;
    tavik::platform::UniqueFd theirs_;
    std::vector<Seen> seen_;
    std::thread thread_;
};

std::vector<int8_t> codesOf(const std::vector<Seen>& seen) {
    std::vector<int8_t> out;
    for (const Seen& s : seen) out.push_back(s.code);
    return out;
}

bool replay(const std::vector<uint8_t>& archive, RestoreSelection& selection, RestoreSender& sender,
            std::string& error) {
    ArchiveReader reader;
    if (!reader.openMemory(archive)) {
        error = reader.error();
        return false;
    }
    ArchiveWalker walker(reader);
    return replayArchive(walker, selection, sender, error);
}

TEST(RestoreReplay, EntriesBecomeCommandsWithFullNamesAndStatusesAreMatchedInOrder) {
    StreamBuilder b;
    b.source().file("a", std::string(4100, 'a'), 8192).dir("d").file("b", "").file("c", "ccc");
    b.endDir().file("e", "e").endDir().end();
    std::vector<uint8_t> archive = archiveOf(b);

    FakeAgent agent({0, 'j', 0xCB, 0});
    RestoreSender sender(agent.connection(), "/dest/", 5000);
    RestoreSelection all;
    std::string error;
    ASSERT_TRUE(replay(archive, all, sender, error)) << error;
    ASSERT_TRUE(sender.finish()) << sender.error();

    // a: 4100 bytes re-cut into 2048, 2048 and an ENDF of 4.
    std::vector<int8_t> want = {cmd::kOpenFile, cmd::kMof, cmd::kMof, cmd::kEndf, cmd::kMkdir,
                                cmd::kOpenFile, cmd::kEndf, cmd::kOpenFile, cmd::kEndf, cmd::kOpenFile,
                                cmd::kEndf, cmd::kEnd};
    const std::vector<Seen>& seen = agent.seen();
    EXPECT_EQ(codesOf(seen), want);
    ASSERT_EQ(seen.size(), want.size());
    EXPECT_EQ(seen[0].name, "/dest/a");
    EXPECT_EQ(seen[1].length, 2048u);
    EXPECT_EQ(seen[3].length, 4u);
    EXPECT_EQ(seen[4].name, "/dest/d");
    EXPECT_EQ(seen[5].name, "/dest/d/b");
    EXPECT_EQ(seen[6].length, 0u);
    EXPECT_EQ(seen[9].name, "/dest/e");

    const RestoreStats& s = sender.stats();
    EXPECT_EQ(s.files, 4u);
    EXPECT_EQ(s.directories, 1u);
    EXPECT_EQ(s.restored, 2u);
    EXPECT_EQ(s.skipped, 1u);
    EXPECT_EQ(s.dataBytes, 4104u);
    ASSERT_EQ(s.failures.size(), 1u);
    EXPECT_EQ(s.failures[0].path, "d/b");
    EXPECT_EQ(s.failures[0].status, 'j');
    EXPECT_TRUE(s.ended);
}

TEST(RestoreReplay, UnreadableDataIsRemovedAgainAndMissingEntriesAreNamed) {
    StreamBuilder b;
    b.source().header("partial", 0, 0100644, 5000).packet(7, std::vector<uint8_t>(2048, 'p'));
    b.status(protocol::code::kReadErr);
    b.status(protocol::code::kNoFile, "gone", true).dir("skip").file("x", "x").endDir().end();
    std::vector<uint8_t> archive = archiveOf(b);

    FakeAgent agent({0});
    RestoreSender sender(agent.connection(), "/r", 5000);
    RestoreSelection only;
    std::string error;
    ASSERT_TRUE(only.add("partial", "/src", error));
    ASSERT_TRUE(only.add("gone", "/src", error));
    ASSERT_TRUE(replay(archive, only, sender, error)) << error;
    ASSERT_TRUE(sender.finish());
    // The partial file is ended and unlinked; nothing of skip/ is sent.
    EXPECT_EQ(codesOf(agent.seen()), (std::vector<int8_t>{cmd::kOpenFile, cmd::kEndf, cmd::kUnlink, cmd::kEnd}));
    const RestoreStats& s = sender.stats();
    ASSERT_EQ(s.failures.size(), 2u);
    EXPECT_EQ(s.failures[0].path, "gone");
    EXPECT_NE(s.failures[0].words.find("not in the archive: NOFILE"), std::string::npos) << s.failures[0].words;
    EXPECT_EQ(s.failures[1].path, "partial");
    EXPECT_NE(s.failures[1].words.find("removed again"), std::string::npos);
    EXPECT_EQ(s.restored, 0u);
    EXPECT_TRUE(only.unmet().empty());
}

TEST(RestoreReplay, NoSpaceEndsTheJobAndEveryFileAfterItIsReported) {
    StreamBuilder b;
    b.source();
    for (int i = 0; i < 50; ++i) b.file("f" + std::to_string(i), std::string(3000, 'f'));
    b.endDir().end();
    std::vector<uint8_t> archive = archiveOf(b);

    FakeAgent agent({0, 0, 'd'});
    RestoreSender sender(agent.connection(), "/r", 5000);
    RestoreSelection all;
    std::string error;
    replay(archive, all, sender, error);  // may break off once the agent is gone
    EXPECT_FALSE(sender.finish());
    const RestoreStats& s = sender.stats();
    EXPECT_EQ(s.restored, 2u);
    ASSERT_GE(s.failures.size(), 1u);
    EXPECT_EQ(s.failures[0].path, "f2");
    EXPECT_EQ(s.failures[0].status, 'd');
    // Every file sent after f2 is named as not restored.
    EXPECT_EQ(s.failureCount, s.files - 2);
    for (size_t i = 1; i < s.failures.size(); ++i)
        EXPECT_NE(s.failures[i].words.find("lack of space"), std::string::npos) << s.failures[i].words;
}

TEST(RestoreReplay, ArchiveBreakingOffInsideAFileEndsItRemovesItAndStillEndsTheJob) {
    StreamBuilder b;
    b.source().file("whole", "w").header("cut", 0, 0100644, 9000).packet(7, std::vector<uint8_t>(2048, 'c'));
    std::vector<uint8_t> archive = archiveOf(b, false);

    FakeAgent agent({0, 0});
    RestoreSender sender(agent.connection(), "/r", 5000);
    RestoreSelection all;
    std::string error;
    EXPECT_FALSE(replay(archive, all, sender, error));
    EXPECT_FALSE(error.empty());
    ASSERT_TRUE(sender.finish()) << sender.error();
    EXPECT_EQ(codesOf(agent.seen()), (std::vector<int8_t>{cmd::kOpenFile, cmd::kEndf, cmd::kOpenFile, cmd::kEndf,
                                                          cmd::kUnlink, cmd::kEnd}));
    const RestoreStats& s = sender.stats();
    EXPECT_EQ(s.restored, 1u);
    ASSERT_EQ(s.failures.size(), 1u);
    EXPECT_EQ(s.failures[0].path, "cut");
    EXPECT_NE(s.failures[0].words.find("breaks off"), std::string::npos) << s.failures[0].words;
}

}  // namespace
