#include "daemon/options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using tavik::Settings;

// Parses `args` (after the program name) into fresh settings.
bool parse(std::vector<std::string> args, Settings& s) {
    args.insert(args.begin(), "tavikd");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    s = Settings{};
    return tavik::parseOptions(int(args.size()), argv.data(), s);
}

TEST(Options, NumericClampsFallBackToDefaults) {
    Settings s;
    struct Case {
        std::vector<std::string> args;
        int bufferSize, bufferCount, socketSize;
    } cases[] = {
        {{"-b", "500"}, 2048, 100, 0},   {{"-b", "8192"}, 8192, 100, 0},  {{"-b", "8193"}, 2048, 100, 0},
        {{"-b", "1024"}, 1024, 100, 0},  {{"-m", "9"}, 2048, 100, 0},     {{"-m", "1025"}, 2048, 100, 0},
        {{"-m", "10"}, 2048, 10, 0},     {{"-m", "1024"}, 2048, 1024, 0}, {{"-m", "65546"}, 2048, 10, 0},
        {{"-s", "4095"}, 2048, 100, 0},  {{"-s", "4096"}, 2048, 100, 4096}, {{"-s", "65536"}, 2048, 100, 0},
        {{"-s", "max"}, 2048, 100, -1},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(parse(c.args, s)) << c.args[0] << " " << c.args[1];
        EXPECT_EQ(s.ioBufferSize, c.bufferSize) << c.args[1];
        EXPECT_EQ(s.ioBufferCount, c.bufferCount) << c.args[1];
        EXPECT_EQ(s.socketBufferSize, c.socketSize) << c.args[1];
    }
    ASSERT_TRUE(parse({"-s", "4095"}, s));
    EXPECT_TRUE(s.socketBufferSizeGiven) << "an out-of-range size is still confirmed, as 0";
}

TEST(Options, SleepAckAndReconnectClamps) {
    Settings s;
    ASSERT_TRUE(parse({"-c", "0"}, s));
    EXPECT_FALSE(s.boundedWait);
    ASSERT_TRUE(parse({"-c", "1001"}, s));
    EXPECT_FALSE(s.boundedWait);
    EXPECT_EQ(s.waitSleepMs, 0);
    ASSERT_TRUE(parse({"-c", "5"}, s));
    EXPECT_TRUE(s.boundedWait);
    EXPECT_EQ(s.waitSleepMs, 5);

    ASSERT_TRUE(parse({"-a", "257"}, s));
    EXPECT_EQ(s.ackInterval, 0);
    EXPECT_TRUE(s.blockingIo);
    ASSERT_TRUE(parse({"-s", "nonblocking", "-a", "4"}, s));
    EXPECT_EQ(s.ackInterval, 4);
    EXPECT_TRUE(s.blockingIo) << "the later option decides";
    ASSERT_TRUE(parse({"-a", "4", "-s", "nonblocking"}, s));
    EXPECT_FALSE(s.blockingIo);
    ASSERT_TRUE(parse({"-s", "nonblocking", "-a", "257"}, s));
    EXPECT_FALSE(s.blockingIo) << "a clamped -a leaves the I/O mode alone";

    ASSERT_TRUE(parse({"-r", "0", "-R", "1001"}, s));
    EXPECT_EQ(s.reconnectKB, 0);
    EXPECT_EQ(s.reconnectFiles, 0);
    ASSERT_TRUE(parse({"-r", "100000", "-R", "1000"}, s));
    EXPECT_EQ(s.reconnectKB, 100000);
    EXPECT_EQ(s.reconnectFiles, 1000);
    ASSERT_TRUE(parse({"-r", "100001"}, s));
    EXPECT_EQ(s.reconnectKB, 0);
}

TEST(Options, FlagsAndPort) {
    Settings s;
    ASSERT_TRUE(parse({"-v", "-n", "-t", "-S", "-e", "-l", "-f", "-p", "7000", "-s", "async"}, s));
    EXPECT_TRUE(s.verbose && !s.skipNfs && !s.resetAccessTime && s.singleUser && s.noCrossFs && s.checkLocks &&
                s.followLinks);
    EXPECT_EQ(s.tcpPort, 7000);
    EXPECT_TRUE(s.tcpPortGiven);
    EXPECT_FALSE(s.socketBufferSizeGiven) << "async changes nothing";
    ASSERT_TRUE(parse({"-p", ""}, s));
    EXPECT_EQ(s.tcpPort, 0) << "the empty text counts as digits";
    ASSERT_TRUE(parse({"-p", "70000"}, s));
    EXPECT_EQ(s.tcpPort, uint16_t(70000)) << "taken as 16 bits, no range test";
}

TEST(Options, UsageErrors) {
    Settings s;
    for (std::vector<std::string> bad : {std::vector<std::string>{"-p", "abc"}, {"-b", "12k"}, {"-s", "fast"},
                                         {"-x"}, {"-b"}, {"-m", "-1"}, {"-c", "1e3"}, {"-a", " 4"}}) {
        EXPECT_FALSE(parse(bad, s)) << bad[0];
    }
}

TEST(Options, UsageTextByteForByte) {
    const std::string expected =
        "\nUsage:\n  tavikd [options]\n\n"
        "  -b <bufsz>: specify I/O buffer size in bytes (1024..8192) [2048]\n"
        "  -m <maxbuf>: specify number of buffers allocated for I/O (10..1024) [100]\n"
        "  -s <bufsz>: specify socket buffer size in bytes (4096..65535)\n"
        "  -p <tcp_port>: specify TCP port number (*) [6050]\n"
        "  -v: verbose mode\n"
        "  -f: follow symbolic links (*)\n"
        "  -n: backup NFS mounted directories\n"
        "  -l: check for advisory locks [mandatory locks only]\n"
        "  -t: will not reset file access time after backup\n"
        "  -a <n>: acknowledge for every n packets [0:no ack.]\n"
        "  -S: Single user mode\n"
        "  -r <n>: reconnect TCP for every n KB of data transferred\n"
        "  -R <n>: reconnect TCP for every n files transferred\n"
        "  -c <n>: sleep n milliseconds while waiting (0..1000) [0]\n"
        "  -e: backup will not traverse across file system\n"
        "\n  [ ]: default values\n"
        "  (*): only work with Korvane 4.0\n";
    EXPECT_EQ(tavik::usageText("/opt/agent/tavikd"), expected);
}

TEST(Options, HomeDirectoryFromProgramPath) {
    EXPECT_EQ(tavik::programDirectory("/opt/x/tavikd", "/cwd"), "/opt/x/");
    EXPECT_EQ(tavik::programDirectory("./tavikd", "/work/dir"), "/work/dir/");
    EXPECT_EQ(tavik::programDirectory("tavikd", "/work/dir"), "/work/dir/");
    EXPECT_EQ(tavik::programDirectory("bin/tavikd", "/w"), "bin/");
    EXPECT_EQ(tavik::programDirectory("tavikd", nullptr), "/");
    EXPECT_EQ(tavik::programDirectory("tavikd", "/"), "/");

    std::string at255 = "/" + std::string(253, 'd') + "/tavikd";  // directory part: 255 characters
    EXPECT_EQ(tavik::programDirectory(at255.c_str(), "/")->size(), 255u);
    std::string at256 = "/" + std::string(254, 'd') + "/tavikd";
    EXPECT_FALSE(tavik::programDirectory(at256.c_str(), "/")) << "refused, never cut or overflowed";
    std::string longCwd = "/" + std::string(300, 'c');
    EXPECT_FALSE(tavik::programDirectory("tavikd", longCwd.c_str()));
}

TEST(Options, IsDigits) {
    EXPECT_TRUE(tavik::isDigits(""));
    EXPECT_TRUE(tavik::isDigits("0123"));
    EXPECT_FALSE(tavik::isDigits(nullptr));
    EXPECT_FALSE(tavik::isDigits("12k"));
    EXPECT_FALSE(tavik::isDigits("-1"));
}

}  // namespace
