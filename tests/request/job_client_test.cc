// The front-end's side: request bytes as the server builds them (version
// byte and flags, scrambled password, long roots), command packets, and the
// login options (never a password on the command line).
#include "frontend/job_client.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "frontend/login_options.h"
#include "protocol/request.h"
#include "platform/secret.h"
#include "wire/bytes.h"

namespace {

using namespace tavik::frontend;

TEST(JobClient, VersionBytesAndFlags) {
    for (auto [version, byte, flags] : {std::tuple{52, '2', 0x40}, {51, '2', 0x80}, {49, '1', 0}}) {
        uint8_t v = 0, f = 0;
        versionBytes(version, v, f);
        EXPECT_EQ(v, byte) << version;
        EXPECT_EQ(f, flags) << version;
    }
}

TEST(JobClient, RequestPacketLayout) {
    RequestFields s;
    s.root = "/srv";
    s.login = "bob";
    s.password = "Pw0rd-42";
    s.opMode = 1;
    s.runUnswitched = true;
    std::vector<uint8_t> p = buildRequestPacket(s);
    ASSERT_EQ(p.size(), 688u);
    EXPECT_EQ(p[0], 0x40);
    EXPECT_EQ(tavik::wire::loadLe16(&p[6]), 680);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&p[8])), "/srv");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&p[8 + 176])), "bob");
    EXPECT_EQ(p[8 + 224], 'P' ^ 'K');
    EXPECT_EQ(p[8 + 251], 1);
    EXPECT_EQ(p[8 + 674], 0x80);
    EXPECT_EQ(p[8 + 678], '2');
    EXPECT_EQ(p[8 + 679], 3);

    s.root = "/" + std::string(175, 'l');  // 176 characters: after the record
    p = buildRequestPacket(s);
    EXPECT_EQ(tavik::wire::loadLe16(&p[6]), 680 + 177);
    EXPECT_EQ(p[8 + 175], 0);  // the record's copy is cut and terminated
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&p[8 + 680])), s.root);

    s.root = "/" + std::string(1022, 'l');  // no room for the agent's 1023 + NUL
    EXPECT_TRUE(buildRequestPacket(s).empty());
}

TEST(JobClient, CommandPacket) {
    std::vector<uint8_t> p = buildCommand(0, 3, {});
    EXPECT_EQ(p, (std::vector<uint8_t>{0, 0, 0, 0, 3, 0, 0, 0}));
    std::vector<uint8_t> payload{1, 2, 3};
    p = buildCommand(16, 0, payload);
    EXPECT_EQ(p, (std::vector<uint8_t>{0, 0, 16, 0, 0, 0, 3, 0, 1, 2, 3}));
}

TEST(LoginOptions, ParsesAndLeavesOtherArguments) {
    std::vector<std::string> args{"host", "--user", "carol", "--port", "7000", "--server-version", "49", "/root"};
    LoginOptions o;
    std::string error;
    ASSERT_TRUE(parseLoginOptions(args, o, error)) << error;
    EXPECT_EQ(o.user, "carol");
    EXPECT_EQ(o.port, 7000);
    EXPECT_EQ(o.serverVersion, 49);
    EXPECT_EQ(args, (std::vector<std::string>{"host", "/root"}));

    std::vector<std::string> none{"host"};
    LoginOptions d;
    ASSERT_TRUE(parseLoginOptions(none, d, error));
    EXPECT_FALSE(d.user.empty());  // the invoking user's name
    EXPECT_EQ(d.port, 6050);
    EXPECT_EQ(d.serverVersion, 52);
}

TEST(LoginOptions, RefusesBadValuesAndPasswordsOnTheCommandLine) {
    for (std::vector<std::string> bad : std::vector<std::vector<std::string>>{
             {"--port", "0"}, {"--port", "65536"}, {"--port", "x"}, {"--server-version", "53"},
             {"--server-version", "48"}, {"--user"}, {"--password", "secret"}}) {
        LoginOptions o;
        std::string error;
        EXPECT_FALSE(parseLoginOptions(bad, o, error)) << bad[0];
        EXPECT_FALSE(error.empty());
    }
}

TEST(LoginOptions, PasswordFromTheEnvironment) {
    setenv("TAVIK_PASSWORD", "from-env", 1);
    LoginOptions o;
    std::string error;
    ASSERT_TRUE(readPassword(o, error));
    EXPECT_EQ(o.password, "from-env");
    unsetenv("TAVIK_PASSWORD");
}

}  // namespace
