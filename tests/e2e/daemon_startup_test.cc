// The daemon from the outside: start-up, settings lines, endpoints, the
// machine query, bad datagrams and stopping.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include "e2e/daemon_fixture.h"
#include "frontend/machine_query.h"

namespace {

using tavik::test::Daemon;

// Sends a datagram to the daemon and returns the reply (empty on none).
std::vector<uint8_t> exchange(uint16_t port, const std::vector<uint8_t>& datagram, int timeoutMs = 1500) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    std::vector<uint8_t> reply;
    pollfd pfd{fd, POLLIN, 0};
    if (poll(&pfd, 1, timeoutMs) == 1) {
        reply.resize(4096);
        ssize_t n = recv(fd, reply.data(), reply.size(), 0);
        reply.resize(n > 0 ? size_t(n) : 0);
    }
    close(fd);
    return reply;
}

std::vector<uint8_t> query(uint8_t command, int8_t version, size_t size = 8) {
    std::vector<uint8_t> q(size, 0);
    if (size > 0) q[0] = 0xA5;
    if (size > 1) q[1] = 0x5A;
    if (size > 2) q[2] = command;
    if (size > 3) q[3] = uint8_t(version);
    if (size > 7) q[6] = 0x77, q[7] = 0x66;
    return q;
}

std::vector<std::string> logMessages(const std::string& log) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < log.size()) {
        size_t end = log.find('\n', pos);
        std::string line = log.substr(pos, end - pos);
        size_t dash = line.find(") - ");
        if (dash != std::string::npos) out.push_back(line.substr(dash + 4));
        if (end == std::string::npos) break;
        pos = end + 1;
    }
    return out;
}

TEST(DaemonStartup, BannerStartLinePidFileAndFileModes) {
    Daemon d;
    ASSERT_TRUE(d.start({})) << d.launcher().output;
    EXPECT_EQ(d.launcher().output, "Korvane Client Agent v3.10 for UnixWare 1.1 (UNIX System V/386 R4.2)\n");
    utsname u;
    ASSERT_EQ(uname(&u), 0);
    std::string expected = std::string("Tavik v3.10 started on ") + u.nodename + " (" + u.sysname + " " + u.release +
                           " " + u.version + " " + u.machine + ")";
    auto lines = logMessages(d.log());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], expected);
    EXPECT_EQ(lines[1], "* TCP port number:" + std::to_string(d.port()));

    struct stat st;
    ASSERT_EQ(stat((d.home() + "LOG").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0777u);
    for (const char* f : {"LOG/tvk.log", "LOG/tvk.log.old", "LOG/tvk.ipc"}) {
        ASSERT_EQ(stat((d.home() + f).c_str(), &st), 0) << f;
        EXPECT_EQ(st.st_mode & 07777, 0666u) << f;
    }
    EXPECT_EQ(access((d.home() + "follow.symlink").c_str(), F_OK), -1);
    EXPECT_EQ(std::stoi(tavik::test::readFile(d.pidPath())), d.pid());
}

TEST(DaemonStartup, ConfirmationLinesInOrderAndMarkerFile) {
    Daemon d;
    ASSERT_TRUE(d.start({"-b", "500", "-m", "9", "-s", "4095", "-s", "nonblocking", "-f", "-n", "-l", "-t", "-a",
                         "257", "-S", "-r", "20", "-R", "1001", "-e", "-c", "5"}))
        << d.launcher().output;
    auto lines = logMessages(d.log());
    std::vector<std::string> expected = {
        "* I/O buffer size:2048 bytes",
        "* Number of I/O buffer allocated:100",
        "* Socket buffer size:0 bytes",
        "* Socket I/O is set to non-blocking",
        "* TCP port number:" + std::to_string(d.port()),
        "* Symbolic links will be followed",
        "* NFS directories will be traversed",
        "* Will check for advisory locks",
        "* File access time will not be reset",
        "* Will operate in single user mode",
        "* Reconnect TCP for every 20 KB of data transferred",
        "* Will not traverse across file system",
        "* Sleep time: 5 milliseconds",
    };
    ASSERT_GE(lines.size(), expected.size() + 1);
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(lines[i + 1], expected[i]) << i;
    EXPECT_EQ(access((d.home() + "follow.symlink").c_str(), F_OK), 0);
    EXPECT_EQ(d.stop(), 1);
    // Started again without -f, the marker goes away.
    ASSERT_TRUE(d.start({}));
    EXPECT_EQ(access((d.home() + "follow.symlink").c_str(), F_OK), -1);
}

TEST(DaemonStartup, BadOptionPrintsUsageAndExits1) {
    Daemon d;
    auto r = d.launch({"-p", "abc"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.output.rfind("\nUsage:\n  tavikd [options]\n\n  -b <bufsz>:", 0), 0u) << r.output;
    EXPECT_EQ(d.launch({"-s", "fast"}).status, 1);
    EXPECT_EQ(d.launch({"-b", "12k"}).status, 1);
    EXPECT_EQ(d.launch({"-x"}).status, 1);
    EXPECT_EQ(d.launch({"-p"}).status, 1);
}

TEST(DaemonStartup, EmptyPortArgumentLogsThePortTheSystemChose) {
    Daemon d;
    ASSERT_TRUE(d.start({"-v", "-p", ""})) << d.launcher().output;
    std::string log = d.log();
    size_t at = log.find("Tavik: listen on socket ");
    ASSERT_NE(at, std::string::npos) << log;
    int port = std::atoi(log.c_str() + at + 24);
    EXPECT_GT(port, 0);
    EXPECT_NE(log.find("* TCP port number:0"), std::string::npos);
}

TEST(DaemonStartup, SecondDaemonOnSamePortExits1WithoutStoppedLine) {
    Daemon first;
    ASSERT_TRUE(first.start({}));
    Daemon second;
    auto r = second.launch({"-p", std::to_string(first.port())});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("(udpOpen) Failed to bind socket address (Address already in use)"), std::string::npos)
        << r.output;
    std::string log = tavik::test::readFile(second.logPath());
    EXPECT_NE(log.find("(udpOpen) Failed to bind socket address"), std::string::npos);
    EXPECT_EQ(log.find("Tavik stopped"), std::string::npos);
    EXPECT_TRUE(first.alive());
}

TEST(DaemonStartup, SigtermStopsWithLineAndRemovesPidFile) {
    Daemon d;
    ASSERT_TRUE(d.start({}));
    EXPECT_EQ(d.stop(), 1);
    auto lines = logMessages(d.log());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "Tavik stopped");
    EXPECT_EQ(access(d.pidPath().c_str(), F_OK), -1);
}

TEST(MachineQuery, AnsweredWithThisMachinesIdentity) {
    Daemon d;
    ASSERT_TRUE(d.start({}));
    auto reply = exchange(d.port(), query(13, 5, 20));  // only the first 8 bytes count
    ASSERT_EQ(reply.size(), 1036u);
    EXPECT_EQ(reply[0], 0xA5);
    EXPECT_EQ(reply[1], 0x5A);
    EXPECT_EQ(reply[2], 13);
    EXPECT_EQ(reply[3], 5);
    EXPECT_EQ(reply[4], 0x00);
    EXPECT_EQ(reply[5], 0x32);
    EXPECT_EQ(reply[6], 0x04);
    EXPECT_EQ(reply[7], 0x04);
    auto info = tavik::frontend::decodeMachineReply(reply.data(), reply.size());
    ASSERT_TRUE(info);
    utsname u;
    ASSERT_EQ(uname(&u), 0);
    EXPECT_EQ(info->sysname, u.sysname);
    EXPECT_EQ(info->release, u.release);
    EXPECT_EQ(info->version_text, u.version);
    EXPECT_EQ(info->machine, u.machine);
    // Zero padding after each field.
    EXPECT_EQ(reply[8 + strlen(u.sysname)], 0);
    EXPECT_EQ(reply[1035], 0);

    EXPECT_EQ(exchange(d.port(), query(13, 30))[3], 22) << "version capped at 22";
    EXPECT_EQ(exchange(d.port(), query(13, -3))[3], uint8_t(-3)) << "signed: below 22 kept";
}

TEST(MachineQuery, UnknownCommandAndShortDatagramAreLoggedNotAnswered) {
    Daemon d;
    ASSERT_TRUE(d.start({"-v"}));
    EXPECT_TRUE(exchange(d.port(), query(14, 1), 300).empty());
    EXPECT_TRUE(d.waitForLog("(AskMachine) Unknown command: e\n"));
    EXPECT_TRUE(exchange(d.port(), query(13, 1, 4), 300).empty());
    EXPECT_TRUE(d.waitForLog("(AskMachine) Failed to receive 8 bytes machine query packet, length = 4\n"));
    EXPECT_TRUE(d.waitForLog("AskMachine Failed\n"));
    // Still serving.
    EXPECT_EQ(exchange(d.port(), query(13, 1)).size(), 1036u);
}

TEST(MachineQuery, QueryAndConnectionArrivingTogetherAreBothServed) {
    Daemon d;
    // The connection sends no request: when select reports it before the
    // datagram, the listener waits out the request time-out (shortened here)
    // before it answers the query.
    ASSERT_TRUE(d.start({"-v"}, {{"TAVIK_TIME_DIVISOR", "1000"}}));
    int udp = socket(AF_INET, SOCK_DGRAM, 0);
    int tcp = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(d.port());
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto q = query(13, 22);
    ASSERT_EQ(connect(tcp, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(sendto(udp, q.data(), q.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 8);
    pollfd pfd{udp, POLLIN, 0};
    ASSERT_EQ(poll(&pfd, 1, 3000), 1);
    std::array<uint8_t, 2048> buf;
    EXPECT_EQ(recv(udp, buf.data(), buf.size(), 0), 1036);
    EXPECT_TRUE(d.waitForLog("received call from "));
    EXPECT_TRUE(d.waitForLog("(127.0.0.1)\n"));
    close(tcp);
    close(udp);
}

TEST(MachineQuery, RandomDatagramsNeverStopTheListener) {
    Daemon d;
    ASSERT_TRUE(d.start({}));
    std::mt19937 rng(20261122);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(d.port());
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int i = 0; i < 300; ++i) {
        std::vector<uint8_t> junk(rng() % 2001);
        for (auto& b : junk) b = uint8_t(rng());
        if (!junk.empty() && i % 3 == 0 && junk.size() > 2) junk[2] = 13;  // some look like queries
        sendto(fd, junk.data(), junk.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    }
    close(fd);
    // The listener is free again within the one-second alarm bound: a real
    // query is answered. The junk may have filled the socket's receive
    // buffer, which drops a datagram as UDP may, so ask as a client would:
    // again after each second without an answer.
    std::vector<uint8_t> reply;
    for (int attempt = 0; attempt < 5 && reply.size() != 1036; ++attempt) reply = exchange(d.port(), query(13, 22), 1000);
    EXPECT_EQ(reply.size(), 1036u);
    EXPECT_TRUE(d.alive());
}

TEST(Tavikctl, QueryPrintsFourLabelledLinesOrFailsOnNoAnswer) {
    Daemon d;
    ASSERT_TRUE(d.start({}));
    std::string cmd = std::string(TAVIKCTL_PATH) + " query 127.0.0.1:" + std::to_string(d.port()) + " 2>&1";
    FILE* p = popen(cmd.c_str(), "r");
    std::string out;
    char buf[512];
    while (fgets(buf, sizeof buf, p)) out += buf;
    EXPECT_EQ(pclose(p), 0);
    utsname u;
    uname(&u);
    EXPECT_EQ(out, std::string("System:  ") + u.sysname + "\nRelease: " + u.release + "\nVersion: " + u.version +
                       "\nMachine: " + u.machine + "\n");
    uint16_t silent = tavik::test::freePort();
    std::string cmd2 =
        std::string(TAVIKCTL_PATH) + " query 127.0.0.1:" + std::to_string(silent) + " --timeout 300 2>&1";
    EXPECT_NE(system(cmd2.c_str()), 0);
}

}  // namespace
