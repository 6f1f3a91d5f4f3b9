// The command line: values out of range fall back to their defaults, and
// the home directory from the program's path. The confirmation lines of
// every option are checked on the real daemon by
// DaemonStartup.BannerStartLinePidFileModesAndSigterm, usage errors and the
// usage text by DaemonStartup.BadOptionsPortsAndASecondDaemonOnThePort.
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
    const struct {
        std::vector<std::string> args;
        int bufferSize, bufferCount, socketSize;
    } cases[] = {
        {{"-b", "500"}, 2048, 100, 0},    {{"-b", "8192"}, 8192, 100, 0},     {{"-b", "8193"}, 2048, 100, 0},
        {{"-b", "1024"}, 1024, 100, 0},   {{"-m", "9"}, 2048, 100, 0},        {{"-m", "1025"}, 2048, 100, 0},
        {{"-m", "10"}, 2048, 10, 0},      {{"-m", "1024"}, 2048, 1024, 0},    {{"-m", "65546"}, 2048, 10, 0},
        {{"-s", "4095"}, 2048, 100, 0},   {{"-s", "4096"}, 2048, 100, 4096},  {{"-s", "65536"}, 2048, 100, 0},
        {{"-s", "max"}, 2048, 100, -1},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(parse(c.args, s)) << c.args[0] << " " << c.args[1];
        EXPECT_EQ(std::vector<int>({s.ioBufferSize, s.ioBufferCount, s.socketBufferSize}),
                  std::vector<int>({c.bufferSize, c.bufferCount, c.socketSize}))
            << c.args[0] << " " << c.args[1];
    }
    ASSERT_TRUE(parse({"-s", "4095"}, s));
    EXPECT_TRUE(s.socketBufferSizeGiven) << "an out-of-range size is still confirmed, as 0";
}

TEST(Options, SleepAckAndReconnectClamps) {
    Settings s;
    ASSERT_TRUE(parse({"-c", "1001"}, s));
    EXPECT_FALSE(s.boundedWait);
    EXPECT_EQ(s.waitSleepMs, 0);
    ASSERT_TRUE(parse({"-c", "0"}, s));
    EXPECT_FALSE(s.boundedWait);
    ASSERT_TRUE(parse({"-s", "nonblocking", "-a", "4"}, s));
    EXPECT_EQ(s.ackInterval, 4);
    EXPECT_TRUE(s.blockingIo) << "the later option decides";
    ASSERT_TRUE(parse({"-a", "4", "-s", "nonblocking"}, s));
    EXPECT_FALSE(s.blockingIo);
    ASSERT_TRUE(parse({"-s", "nonblocking", "-a", "257"}, s));
    EXPECT_EQ(s.ackInterval, 0);
    EXPECT_FALSE(s.blockingIo) << "a clamped -a leaves the I/O mode alone";
    ASSERT_TRUE(parse({"-r", "100001", "-R", "1001"}, s));
    EXPECT_EQ(s.reconnectKB, 0);
    EXPECT_EQ(s.reconnectFiles, 0);
    ASSERT_TRUE(parse({"-r", "100000", "-R", "1000", "-p", "70000"}, s));
    EXPECT_EQ(s.reconnectKB, 100000);
    EXPECT_EQ(s.reconnectFiles, 1000);
    EXPECT_EQ(s.tcpPort, uint16_t(70000)) << "taken as 16 bits, no range test";
}

TEST(Options, HomeDirectoryFromProgramPath) {
    EXPECT_EQ(tavik::programDirectory("/opt/x/tavikd", "/cwd"), "/opt/x/");
    EXPECT_EQ(tavik::programDirectory("./tavikd", "/work/dir"), "/work/dir/");
    EXPECT_EQ(tavik::programDirectory("bin/tavikd", "/w"), "bin/");
    EXPECT_EQ(tavik::programDirectory("tavikd", nullptr), "/");
    EXPECT_EQ(tavik::programDirectory("tavikd", "/"), "/");
    std::string at255 = "/" + std::string(253, 'd') + "/tavikd";  // directory part: 255 characters
    EXPECT_EQ(tavik::programDirectory(at255.c_str(), "/")->size(), 255u);
    std::string at256 = "/" + std::string(254, 'd') + "/tavikd";
    EXPECT_FALSE(tavik::programDirectory(at256.c_str(), "/")) << "refused, never cut or overflowed";
    EXPECT_FALSE(tavik::programDirectory("tavikd", ("/" + std::string(300, 'c')).c_str()));
}

}  // namespace
