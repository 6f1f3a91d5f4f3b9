// The front-end's clients without a daemon, for what a real agent never
// does: a backup stream broken off, a restore that meets unreadable or
// missing entries, a full disk or an archive ending inside a file, answers
// split anywhere; and the selection of paths and the backup command line's
// flags, filter items and refusals. Acknowledgements, renewals, statuses
// matched in order and the conflict policies are made against the real
// daemon (tests/e2e/tavikctl_test.cc).
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "daemon/scratch_home.h"
#include "frontend/backup_client.h"
#include "frontend/backup_options.h"
#include "frontend/restore_client.h"
#include "frontend/stream_builder.h"
#include "platform/tempfile.h"
#include "protocol/filter_items.h"
#include "wire/bytes.h"

namespace {

using namespace tavik::frontend;
using tavik::platform::UniqueFd;
using tavik::test::StreamBuilder;
using tavik::testing::SocketPair;
namespace cmd = tavik::protocol::code;
namespace protocol = tavik::protocol;

TEST(StreamReceiver, AStreamBrokenOffLeavesAnIncompleteArchive) {
    // Seven packets: the agent goes away after the file header of "b".
    StreamBuilder s;
    s.source().file("a", std::string(4096, 'x')).dir("d").header("b", 0, 0100644, 1);
    SocketPair pair;
    ASSERT_EQ(::write(pair.agent, s.bytes().data(), s.bytes().size()), ssize_t(s.bytes().size()));
    pair.closeAgent();

    tavik::platform::TempFile file("/tmp/tavik-rx-");
    ArchiveWriter writer;
    ASSERT_TRUE(writer.open(file.path(), {.host = "127.0.0.1", .source = "/src"}));
    StreamReceiver receiver(&writer, 0);
    receiver.setTimeoutMs(5000);
    EXPECT_FALSE(receiver.run(UniqueFd(std::exchange(pair.server, -1))));
    EXPECT_NE(receiver.error().find("closed the connection before the end"), std::string::npos) << receiver.error();
    EXPECT_FALSE(receiver.stats().complete);
    EXPECT_EQ(receiver.stats().packets, 7u);
    ASSERT_TRUE(writer.finish(receiver.stats().packets, receiver.stats().complete));
    std::ifstream in(file.path(), std::ios::binary);
    std::string error;
    EXPECT_FALSE(tavik::test::archiveVerifies({std::istreambuf_iterator<char>(in), {}}, &error));
    EXPECT_NE(error.find("no END"), std::string::npos) << error;
}

// A restore of `b` into /r: the agent's end records every command and
// answers each ENDF with the next of `statuses` (0 after them), END with 3;
// a "no space" status ends the job.
struct Replayed {
    bool replayed = false;
    bool finished = false;
    std::string error;
    std::vector<int8_t> codes;
    RestoreStats stats;
};

Replayed restore(const StreamBuilder& b, bool complete, std::vector<uint8_t> statuses,
                 const std::vector<std::string>& paths = {}) {
    SocketPair pair;
    std::vector<int8_t> codes;
    std::thread agent([&, fd = pair.agent] {
        uint8_t h[8];
        for (size_t next = 0; tavik::testing::recvWithin(fd, h, 8);) {
            std::vector<uint8_t> payload(tavik::wire::loadLe16(&h[6]));
            if (!tavik::testing::recvWithin(fd, payload.data(), payload.size())) break;
            codes.push_back(int8_t(h[2]));
            uint8_t answer[8] = {0, 0, 3, 0, 0, 0, 0, 0};
            if (h[2] == uint8_t(cmd::kEndf)) answer[2] = next < statuses.size() ? statuses[next++] : 0;
            if (h[2] == uint8_t(cmd::kEndf) || h[2] == uint8_t(cmd::kEnd)) {
                EXPECT_EQ(::write(fd, answer, 8), 8);
            }
            if (h[2] == uint8_t(cmd::kEnd) || answer[2] == 'd') break;  // the job process ends
        }
        ::shutdown(fd, SHUT_RDWR);
    });
    Replayed r;
    RestoreSender sender(UniqueFd(std::exchange(pair.server, -1)), "/r", 5000);
    RestoreSelection selection;
    for (const std::string& path : paths) EXPECT_TRUE(selection.add(path, "/src", r.error)) << r.error;
    ArchiveReader reader;
    std::vector<uint8_t> archive = tavik::test::archiveOf(b, complete);
    EXPECT_TRUE(reader.openMemory(archive)) << reader.error();
    ArchiveWalker walker(reader);
    r.replayed = replayArchive(walker, selection, sender, r.error);
    r.finished = sender.finish();
    agent.join();
    r.codes = codes;
    r.stats = sender.stats();
    EXPECT_TRUE(selection.unmet().empty());
    return r;
}

TEST(RestoreReplay, UnreadableDataIsRemovedAgainAndMissingEntriesAreNamed) {
    StreamBuilder b;
    b.source().header("partial", 0, 0100644, 5000).packet(cmd::kMof, std::vector<uint8_t>(2048, 'p'));
    b.status(cmd::kReadErr).status(cmd::kNoFile, "gone", true).dir("skip").file("x", "x").endDir().end();
    Replayed r = restore(b, true, {0}, {"partial", "gone"});
    ASSERT_TRUE(r.replayed && r.finished) << r.error;
    // The partial file is ended and unlinked; nothing of skip/ is sent.
    EXPECT_EQ(r.codes, (std::vector<int8_t>{cmd::kOpenFile, cmd::kEndf, cmd::kUnlink, cmd::kEnd}));
    ASSERT_EQ(r.stats.failures.size(), 2u);
    EXPECT_EQ(r.stats.failures[0].path, "gone");
    EXPECT_NE(r.stats.failures[0].words.find("not in the archive: NOFILE"), std::string::npos);
    EXPECT_EQ(r.stats.failures[1].path, "partial");
    EXPECT_NE(r.stats.failures[1].words.find("removed again"), std::string::npos);
    EXPECT_EQ(r.stats.restored, 0u);
}

TEST(RestoreReplay, NoSpaceEndsTheJobAndEveryFileAfterItIsReported) {
    StreamBuilder b;
    b.source();
    for (int i = 0; i < 50; ++i) b.file("f" + std::to_string(i), std::string(3000, 'f'));
    b.endDir().end();
    Replayed r = restore(b, true, {0, 0, 'd'});  // the replay may break off once the agent is gone
    EXPECT_FALSE(r.finished);
    EXPECT_EQ(r.stats.restored, 2u);
    ASSERT_GE(r.stats.failures.size(), 1u);
    EXPECT_EQ(r.stats.failures[0].path, "f2");
    EXPECT_EQ(r.stats.failures[0].status, 'd');
    EXPECT_EQ(r.stats.failureCount, r.stats.files - 2);
    for (size_t i = 1; i < r.stats.failures.size(); ++i)
        EXPECT_NE(r.stats.failures[i].words.find("lack of space"), std::string::npos) << r.stats.failures[i].words;
}

TEST(RestoreReplay, ArchiveBreakingOffInsideAFileEndsItRemovesItAndStillEndsTheJob) {
    StreamBuilder b;
    b.source().file("whole", "w").header("cut", 0, 0100644, 9000).packet(cmd::kMof, std::vector<uint8_t>(2048, 'c'));
    Replayed r = restore(b, false, {0, 0});
    EXPECT_FALSE(r.replayed);
    EXPECT_FALSE(r.error.empty());
    ASSERT_TRUE(r.finished);
    EXPECT_EQ(r.codes, (std::vector<int8_t>{cmd::kOpenFile, cmd::kEndf, cmd::kOpenFile, cmd::kEndf, cmd::kUnlink,
                                            cmd::kEnd}));
    EXPECT_EQ(r.stats.restored, 1u);
    ASSERT_EQ(r.stats.failures.size(), 1u);
    EXPECT_EQ(r.stats.failures[0].path, "cut");
    EXPECT_NE(r.stats.failures[0].words.find("breaks off"), std::string::npos) << r.stats.failures[0].words;
}

TEST(RestoreAnswers, SplitIntoWholeAnswersAndLeaveTheRest) {
    // 'j' without a payload, then 0xCB with three bytes: cut at every
    // length, only whole answers are taken.
    std::vector<uint8_t> bytes{0, 0, 'j', 0, 0, 0, 0, 0, 0, 0, 0xCB, 0, 0, 0, 3, 0, 1, 2, 3};
    for (size_t cut = 0; cut <= bytes.size(); ++cut) {
        std::vector<uint8_t> codes;
        size_t used = splitAnswers(std::span(bytes).first(cut), [&codes](uint8_t c) { codes.push_back(c); });
        EXPECT_EQ(used, cut < 8 ? 0u : (cut < 19 ? 8u : 19u)) << cut;
        const std::vector<uint8_t> all{'j', 0xCB};
        EXPECT_EQ(codes, std::vector<uint8_t>(all.begin(), all.begin() + (used == 0 ? 0 : used == 8 ? 1 : 2))) << cut;
    }
}

TEST(BackupCommandLine, FlagsFiltersTopItemsAndRestart) {
    BackupCommandLine line;
    std::string error;
    ASSERT_TRUE(parseBackupCommandLine(
        {"127.0.0.1:/usr/include", "-o", "/dev/null", "--renew", "--watchdog", "--buffer-from-agent",
         "--no-atime-reset", "--one-file-system", "--nfs", "--include-file", "*.h", "--include-file", "*.c",
         "--exclude-dir", "tmp", "--date-field", "atime", "--between", "2026-01-01,2026-02-01", "--within", "3m",
         "--top", "sys", "--ack", "8", "--restart", "/usr/include/a:b:4096", "--user", "root", "--port", "7000"},
        true, line, error))
        << error;
    const BackupJobSpec& s = line.job;
    EXPECT_EQ(s.host + ":" + s.source + ":" + std::to_string(s.port), "127.0.0.1:/usr/include:7000");
    EXPECT_EQ(s.ackInterval, 8);
    ASSERT_TRUE(s.restart);
    EXPECT_EQ(*s.restart, (std::pair<uint32_t, std::string>{4096u, "/usr/include/a:b"}));
    EXPECT_EQ(s.topNames, std::vector<std::string>{"sys"});
    std::vector<std::string> files = {"*.h", "*.c"}, dirs = {"tmp"};
    int32_t jan = 1767225600, feb = 1769904000;  // 2026-01-01 and 2026-02-01, 00:00 UTC
    std::vector<std::vector<uint8_t>> expected = {
        *protocol::encodeNamePatternItem(false, false, files),
        *protocol::encodeNamePatternItem(true, true, dirs),
        protocol::encodeDateItem(false, protocol::kWhichAccessed, protocol::kBetween, jan, feb),
        protocol::encodeWithinItem(false, protocol::kWhichAccessed, 3, protocol::kUnitMonths),
    };
    EXPECT_EQ(s.filterItems, expected);
    // Retry count and interval, then every flag given.
    std::vector<uint8_t> record = encodeJobOptions(s);
    ASSERT_EQ(record.size(), 512u);
    EXPECT_EQ(std::vector<uint8_t>(record.begin(), record.begin() + 5), (std::vector<uint8_t>{5, 0, 5, 0, 0x6F}));

    uint32_t offset = 7;
    std::string path;
    for (auto [text, wantOffset] : {std::pair{"/a/b", 0u}, {"/a/b:-1", 0xFFFFFFFFu}}) {
        ASSERT_TRUE(parseRestart(text, offset, path));
        EXPECT_EQ(offset, wantOffset);
        EXPECT_EQ(path, "/a/b");
    }
}

TEST(BackupCommandLine, RestartOffsetsAndRefusals) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"127.0.0.1:/x"}, "-o ARCHIVE"},
        {{"/x", "-o", "a"}, "HOST:/path"},
        {{"h:/x", "-o", "a", "--before", "2026-02-30"}, "YYYY-MM-DD"},
        {{"h:/x", "-o", "a", "--within", "3w"}, "d, m or y"},
        {{"h:/x", "-o", "a", "--ack", "70000"}, "--ack"},
        {{"h:/x", "-o", "a", "--top", "a/b"}, "--top"},
        {{"h:/x", "-o", "a", "--password", "p"}, "never given on the command line"},
        {{"h:/x", "-o", "a", "--bogus"}, "unexpected argument"},
    };
    for (const auto& [args, reason] : cases) {
        BackupCommandLine line;
        std::string error;
        line.job.login.user = "root";
        EXPECT_FALSE(parseBackupCommandLine(args, true, line, error)) << reason;
        EXPECT_NE(error.find(reason), std::string::npos) << error;
    }
    // Options only a backup takes are refused by estimate.
    BackupCommandLine line;
    std::string error;
    EXPECT_FALSE(parseBackupCommandLine({"h:/x", "--renew"}, false, line, error));
    EXPECT_TRUE(parseBackupCommandLine({"h:/x", "--nfs", "--top", "a"}, false, line, error)) << error;
}

}  // namespace
