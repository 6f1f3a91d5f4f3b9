// The backup and estimate command lines: the option flags, the filter items
// they send (compared with the filter library's own encoders), the restart
// point and the refusals of malformed arguments.
#include <gtest/gtest.h>

#include <cstdlib>

#include "protocol/filter_items.h"
#include "frontend/backup_options.h"

namespace {

using namespace tavik::frontend;
namespace protocol = tavik::protocol;

TEST(BackupCommandLine, FlagsFiltersTopItemsAndRestart) {
    BackupCommandLine line;
    std::string error;
    ASSERT_TRUE(parseBackupCommandLine({"127.0.0.1:/usr/include", "-o", "/dev/null", "--renew", "--watchdog",
                                        "--buffer-from-agent", "--no-atime-reset", "--one-file-system", "--nfs",
                                        "--include-file", "*.h", "--include-file", "*.c", "--exclude-dir", "tmp",
                                        "--date-field", "atime", "--between", "2026-01-01,2026-02-01", "--within",
                                        "3m", "--top", "sys", "--ack", "8", "--restart", "/usr/include/a:b:4096",
                                        "--user", "root", "--port", "7000"},
                                       true, line, error))
        << error;
    const BackupJobSpec& s = line.job;
    EXPECT_EQ(s.host, "127.0.0.1");
    EXPECT_EQ(s.source, "/usr/include");
    EXPECT_EQ(s.port, 7000);
    EXPECT_EQ(line.output, "/dev/null");
    EXPECT_EQ(s.optionFlags, 0x01 | 0x02 | 0x04 | 0x08 | 0x20 | 0x40);
    EXPECT_EQ(s.ackInterval, 8);
    ASSERT_TRUE(s.restart);
    EXPECT_EQ(s.restart->first, 4096u);
    EXPECT_EQ(s.restart->second, "/usr/include/a:b");
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

    std::vector<uint8_t> record = encodeJobOptions(s);
    ASSERT_EQ(record.size(), 512u);
    EXPECT_EQ(record[0], 5);  // retry count
    EXPECT_EQ(record[2], 5);  // retry interval
    EXPECT_EQ(record[4], 0x6F);
}

TEST(BackupCommandLine, RestartOffsetsAndRefusals) {
    uint32_t offset = 7;
    std::string path;
    ASSERT_TRUE(parseRestart("/a/b", offset, path));
    EXPECT_EQ(offset, 0u);
    EXPECT_EQ(path, "/a/b");
    ASSERT_TRUE(parseRestart("/a/b:-1", offset, path));
    EXPECT_EQ(offset, 0xFFFFFFFFu);
    EXPECT_EQ(path, "/a/b");

    struct Case {
        std::vector<std::string> args;
        const char* error;
    };
    std::vector<Case> cases = {
        {{"127.0.0.1:/x"}, "-o ARCHIVE"},
        {{"/x", "-o", "a"}, "HOST:/path"},
        {{"h:/x", "-o", "a", "--before", "2026-02-30"}, "YYYY-MM-DD"},
        {{"h:/x", "-o", "a", "--within", "3w"}, "d, m or y"},
        {{"h:/x", "-o", "a", "--ack", "70000"}, "--ack"},
        {{"h:/x", "-o", "a", "--top", "a/b"}, "--top"},
        {{"h:/x", "-o", "a", "--password", "p"}, "never given on the command line"},
        {{"h:/x", "-o", "a", "--bogus"}, "unexpected argument"},
    };
    for (const Case& c : cases) {
        BackupCommandLine line;
        std::string error;
        line.job.login.user = "root";
        EXPECT_FALSE(parseBackupCommandLine(c.args, true, line, error)) << c.error;
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
    // Options only a backup takes are refused by estimate.
    BackupCommandLine line;
    std::string error;
    EXPECT_FALSE(parseBackupCommandLine({"h:/x", "--renew"}, false, line, error));
    EXPECT_TRUE(parseBackupCommandLine({"h:/x", "--nfs", "--top", "a"}, false, line, error)) << error;
}

}  // namespace
