// Browse jobs on a real daemon: a scratch tree with a file, a directory, a
// link to each, a dangling link, a FIFO and a device node, listed for
// browse versions 20, 21 and 22 with every selection; the entry bytes
// against lstat/stat of the same files; link texts at the buffer's limit;
// broken, oversized, split and unknown requests and a caller gone while
// listing; the mounted file systems with and without fs.cntl; a directory
// the login may not read; a login whose identity cannot be taken; and
// tavikctl ls, mounts and readlink.
#include <mntent.h>
#include <sys/sysmacros.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "e2e/tavikctl_run.h"
#include "e2e/test_user.h"
#include "frontend/browse_client.h"

namespace {

using namespace tavik::test;
using tavik::frontend::BrowseClient;
using tavik::frontend::BrowsePacket;
using tavik::protocol::BrowseHeader;
using tavik::wire::loadBe32;

uint32_t dev32(dev_t dev) { return (major(dev) << 18) | minor(dev); }

class BrowseTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root: device nodes and test logins";
        tree_.file("file", std::string(1234, 'x'));
        tree_.dir("dir");
        symlink("file", tree_.path("link-file").c_str());
        symlink("dir", tree_.path("link-dir").c_str());
        symlink("nowhere", tree_.path("dangling").c_str());
        mkfifo(tree_.path("fifo").c_str(), 0640);
        mknod(tree_.path("null").c_str(), S_IFCHR | 0666, makedev(1, 3));
        chmod(tree_.path("null").c_str(), 0666);
    }
    bool startDaemon(const std::vector<std::string>& args = {"-v", "-S"}) { return daemon_.start(args); }
    // Logs in (single-user mode admits anyone).
    bool login(BrowseClient& client, const std::string& user = "root", const std::string& password = "") {
        return client.login("127.0.0.1", daemon_.port(), {.root = "/", .login = user, .password = password}) == 14;
    }
    // A browse request's bytes: header and `text` (with its NUL unless
    // withNul is false).
    static std::vector<uint8_t> request(uint8_t code, uint16_t select, int8_t version, const std::string& text,
                                        bool withNul = true) {
        std::vector<uint8_t> payload(text.begin(), text.end());
        if (withNul) payload.push_back(0);
        auto h = tavik::protocol::encodeBrowseHeader({select, code, version, 0, uint16_t(payload.size())});
        payload.insert(payload.begin(), h.begin(), h.end());
        return payload;
    }
    // tavikctl `command` with the daemon's port.
    Output ctl(const std::string& command, const std::string& password = "") const {
        return tavikctl(command + " --port " + std::to_string(daemon_.port()), password);
    }

    Daemon daemon_;
    Tree tree_;
};

// Checks one entry payload against a status, with offsets written out here.
void expectEntryBytes(const std::vector<uint8_t>& p, const struct stat& st, const std::string& name, int version,
                      bool checkAtime = true) {
    size_t nameAt = version >= 22 ? 48 : 44;
    ASSERT_EQ(p.size(), nameAt + name.size() + 1);
    const uint32_t fields[] = {st.st_mode,           uint32_t(st.st_nlink), st.st_uid,
                               st.st_gid,            dev32(st.st_rdev),     uint32_t(st.st_atime),
                               uint32_t(st.st_mtime), uint32_t(st.st_ctime), uint32_t(st.st_size)};
    for (size_t i = 0; i < 9; ++i) {
        if (i != 5 || checkAtime) {
            EXPECT_EQ(loadBe32(&p[4 * i]), fields[i]) << "field at " << 4 * i;
        }
    }
    for (size_t i = 36; i < 44; ++i) EXPECT_EQ(p[i], 0) << "byte " << i;
    EXPECT_EQ(version >= 22 ? loadBe32(&p[44]) : 0u, version >= 22 ? dev32(st.st_dev) : 0u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&p[nameAt])), name);
    EXPECT_EQ(p.back(), 0);
}

// Every listing of the tree for browse versions 20, 21 and 22 and every
// selection: the names, and every entry's bytes against lstat (a link's
// target, from version 21 on right after its link, against stat).
TEST_F(BrowseTest, ListingsForEachVersionAndSelectionMatchLstatAndStatAndLinksRead) {
    ASSERT_TRUE(startDaemon());
    BrowseClient client;
    ASSERT_TRUE(login(client)) << client.lastError();
    // A link's text is examined relative to the browse process's directory:
    // before a listing of the tree has moved it there, only the name is known.
    auto link = client.readLink(tree_.path("link-dir"), 21);
    ASSERT_TRUE(link) << client.lastError();
    EXPECT_EQ(link->name, "dir");
    using Names = std::set<std::string>;
    const Names all{"/file", "/dir", "/link-file", "/link-dir", "/dangling", "/fifo", "/null"};
    struct Case {
        int version;
        uint16_t select;
        Names expected;
    };
    const std::vector<Case> cases{
        {20, 0, {}}, {20, 1, {"/file"}}, {20, 2, {"/dir"}}, {20, 3, all}, {20, 7, all},
        {21, 0, {}}, {21, 1, {"/file", "/link-file"}}, {21, 2, {"/dir", "/link-dir"}}, {21, 3, all},
        {22, 0, {}}, {22, 1, {"/file", "/link-file"}}, {22, 2, {"/dir", "/link-dir"}}, {22, 3, all},
    };
    const std::map<std::string, std::string> targets{
        {"dangling", "nowhere"}, {"link-file", "file"}, {"link-dir", "dir"}};
    for (const Case& c : cases) {
        SCOPED_TRACE("version " + std::to_string(c.version) + " select " + std::to_string(c.select));
        std::vector<uint8_t> path = tavik::frontend::pathPayload(tree_.dir());
        BrowseHeader request{c.select, 15, static_cast<int8_t>(c.version), 0, uint16_t(path.size())};
        ASSERT_TRUE(client.send(request, path));
        std::string lastLink;
        Names names;
        for (;;) {
            BrowsePacket p;
            ASSERT_TRUE(client.receive(p)) << client.lastError();
            // Every packet from the agent: select 0, version 22, level 0.
            EXPECT_EQ((std::vector<int>{p.header.select, p.header.version, p.header.level}),
                      (std::vector<int>{0, 22, 0}));
            if (p.header.code == 16) {
                EXPECT_TRUE(p.payload.empty());
                break;
            }
            std::string name(reinterpret_cast<const char*>(&p.payload[c.version >= 22 ? 48 : 44]));
            if (p.header.code == 20) {
                ASSERT_FALSE(lastLink.empty()) << "a link target follows its link";
                struct stat st {};
                if (::stat(tree_.path(lastLink).c_str(), &st) != 0) st = {};
                expectEntryBytes(p.payload, st, name, c.version);
                EXPECT_EQ(name, targets.at(lastLink));
                lastLink.clear();
                continue;
            }
            ASSERT_EQ(p.header.code, 15);
            ASSERT_TRUE(lastLink.empty()) << "no target for " << lastLink;
            ASSERT_EQ(name[0], '/');
            names.insert(name);
            struct stat st = statOf(tree_.path(name.substr(1)));
            // Reading a link may touch its access time after it was sent.
            expectEntryBytes(p.payload, st, name, c.version, !S_ISLNK(st.st_mode));
            if (S_ISLNK(st.st_mode) && c.version >= 21) lastLink = name.substr(1);
        }
        EXPECT_TRUE(lastLink.empty());
        EXPECT_EQ(names, c.expected);
    }
    link = client.readLink(tree_.path("link-dir"), 22);
    ASSERT_TRUE(link);
    EXPECT_TRUE(S_ISDIR(link->mode));
    // A listing from an old server with an empty path is no mount list: the
    // change to the empty path fails and only the end of listing comes.
    auto old = client.readDir("", 3, 20);
    ASSERT_TRUE(old);
    EXPECT_EQ(old->end, 16);
    EXPECT_TRUE(old->entries.empty());
    EXPECT_TRUE(client.logout());
    EXPECT_TRUE(client.agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("(Browser) LOGOUT"));
    EXPECT_TRUE(
        daemon_.waitForLog("(SendDirData) Failed to change directory to  (No such file or directory), Job Abort"));
}

// Broken requests end the browse job with their log lines; an unknown code
// is answered 22 and the job goes on; a request of exactly 1024 bytes is
// taken whatever pieces it arrives in.
TEST_F(BrowseTest, BrokenRequestsEndTheBrowseCleanly) {
    ASSERT_TRUE(startDaemon());
    struct Case {
        const char* name;
        std::vector<uint8_t> bytes;
        bool shutWrite;
        std::vector<std::string> lines;
    };
    std::vector<uint8_t> midRequest = request(15, 1, 22, std::string(19, 'p'));
    midRequest.resize(8 + 5);
    const Case cases[] = {
        {"part of a header, then closed", {0, 1, 15}, true, {"(usbReceive) Failed to recv 8 bytes, length = 3"}},
        {"closed after the header", {0, 1, 15, 22, 0, 0, 0, 9}, true,
         {"(usbReceive) Failed to recv 9 bytes, length = 0", "(Browser) Failed in Receive"}},
        {"closed mid-request", midRequest, true,
         {"(usbReceive) Failed to recv 20 bytes, length = 5", "(Browser) Failed in Receive"}},
        {"longer than 1024", request(21, 0, 22, std::string(1024, 'l')), false, {"(Browser) Failed in Receive"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::ofstream(daemon_.logPath(), std::ios::trunc).flush();
        BrowseClient client;
        ASSERT_TRUE(login(client));
        ASSERT_TRUE(client.sendBytes(c.bytes));
        if (c.shutWrite) ::shutdown(client.connection().fd(), SHUT_WR);
        EXPECT_TRUE(client.agentCloses());
        for (const std::string& line : c.lines) EXPECT_TRUE(daemon_.waitForLog(line)) << line << daemon_.log();
    }
    EXPECT_FALSE(has(daemon_.log(), "READ_LINK"));  // the oversized request was never taken

    // Select 0 changes no directory: the listing ends at once.
    BrowseClient client;
    ASSERT_TRUE(login(client));
    auto listing = client.readDir("/nonexistent", 0, 22);
    ASSERT_TRUE(listing);
    EXPECT_EQ(listing->end, 16);
    EXPECT_TRUE(listing->entries.empty());
    EXPECT_TRUE(daemon_.waitForLog("(Browser) READ_DIR:version=22, directory=[/nonexistent]"));
    EXPECT_FALSE(has(daemon_.log(), "(SendDirData)"));
    BrowsePacket p;
    ASSERT_TRUE(client.sendBytes(request(30, 0, 22, std::string(10, 'q'), false)));
    ASSERT_TRUE(client.receive(p));
    EXPECT_EQ((std::vector<int>{p.header.select, p.header.code, p.header.version, p.header.level, p.header.length}),
              (std::vector<int>{0, 22, 22, 50, 0}));
    std::vector<uint8_t> bytes = request(15, 3, 22, "/" + std::string(1023, 'd'), false);
    for (auto [from, to] : {std::pair{0, 5}, {5, 8 + 100}, {8 + 100, int(bytes.size())}}) {
        ASSERT_TRUE(client.sendBytes({bytes.begin() + from, bytes.begin() + to}));
        ::usleep(20000);
    }
    ASSERT_TRUE(client.receive(p));
    EXPECT_EQ(p.header.code, 16);
    EXPECT_TRUE(daemon_.waitForLog("(File name too long), Job Abort"));
    // A LOGOUT's payload is never read.
    ASSERT_TRUE(client.sendBytes(request(17, 0, 22, "ignored")));
    EXPECT_TRUE(client.agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("(Browser) LOGOUT"));
}

// A link text of 255 bytes is sent; one of 256 is not, and READ_LINK of it
// ends the job without an answer. Version 20 reads no link texts.
TEST_F(BrowseTest, LinkTextsAtTheBufferLimit) {
    tree_.dir("limits");
    const std::string text255(255, 't'), fits = tree_.path("limits/fits"), full = tree_.path("limits/full");
    ASSERT_EQ(symlink(text255.c_str(), fits.c_str()), 0);
    ASSERT_EQ(symlink(std::string(256, 't').c_str(), full.c_str()), 0);
    ASSERT_TRUE(startDaemon());
    BrowseClient client;
    ASSERT_TRUE(login(client));
    auto listing = client.readDir(tree_.path("limits"), 3, 22);
    ASSERT_TRUE(listing) << client.lastError();
    ASSERT_EQ(listing->entries.size(), 1u);
    EXPECT_EQ(listing->entries[0].entry.name, "/fits");
    ASSERT_TRUE(listing->entries[0].target);
    EXPECT_EQ(listing->entries[0].target->name, text255);
    EXPECT_TRUE(daemon_.waitForLog(
        "(SendDirData) Failed to read the contents of the symbolic link file ./full (File name too long)"));
    listing = client.readDir(tree_.path("limits"), 3, 20);
    ASSERT_TRUE(listing);
    std::set<std::string> names;
    for (const auto& e : listing->entries) names.insert(e.entry.name + (e.target ? " with a target" : ""));
    EXPECT_EQ(names, (std::set<std::string>{"/fits", "/full"}));
    EXPECT_FALSE(client.readLink(full, 22));
    EXPECT_TRUE(daemon_.waitForLog("(SendLinkData) Failed to read the contents of the symbolic link file " + full +
                                   " (File name too long)"));
    EXPECT_TRUE(daemon_.waitForLog("(Browser) Failed in SendDirData"));
}

TEST_F(BrowseTest, PeerGoneWhileListingEndsTheJob) {
    tree_.dir("many");
    for (int i = 0; i < 2000; ++i) writeFile(tree_.path("many/g" + std::to_string(i)), "");
    ASSERT_TRUE(startDaemon());
    BrowseClient client;
    ASSERT_TRUE(login(client));
    ASSERT_TRUE(client.sendBytes(request(15, 3, 22, tree_.path("many"))));
    client.connection().close();
    for (const char* line : {"(usbSend) Failed in send(), ", "(SendDirData) Failed in usbSend()",
                             "(Browser) Failed in SendDirData"})
        EXPECT_TRUE(daemon_.waitForLog(line)) << line;
    EXPECT_TRUE(daemon_.alive());
}

// The mount points of the kernel's table whose type is not in `skipped`
// and which stat can examine.
std::multiset<std::string> expectedMounts(const std::set<std::string>& skipped) {
    std::multiset<std::string> out;
    FILE* f = setmntent("/proc/self/mounts", "r");
    while (const mntent* m = f ? getmntent(f) : nullptr) {
        struct stat st {};
        if (!skipped.count(m->mnt_type) && ::stat(m->mnt_dir, &st) == 0) out.insert(m->mnt_dir);
    }
    if (f) endmntent(f);
    return out;
}

TEST_F(BrowseTest, MountListCarriesByte40AndFollowsFsCntl) {
    ASSERT_TRUE(startDaemon());
    auto mounts = [&] {
        BrowseClient client;
        EXPECT_TRUE(login(client));
        std::multiset<std::string> listed;
        EXPECT_TRUE(client.send(BrowseHeader{0, 15, 22, 0, 1}, std::vector<uint8_t>{0}));
        for (;;) {
            BrowsePacket p;
            if (!client.receive(p) || p.header.code != 15) {
                EXPECT_EQ(p.header.code, 16);
                return listed;
            }
            EXPECT_EQ(p.payload[40], 1);
            std::string name(reinterpret_cast<const char*>(&p.payload[48]));
            struct stat st {};
            EXPECT_EQ(::stat(name.c_str(), &st), 0) << name;
            EXPECT_EQ(loadBe32(&p.payload[44]), dev32(st.st_dev)) << name;
            EXPECT_EQ(loadBe32(&p.payload[0]), st.st_mode) << name;
            listed.insert(name);
        }
    };
    std::multiset<std::string> listed = mounts();
    EXPECT_EQ(listed, expectedMounts({"proc", "processorfs", "fdfs"}));
    EXPECT_EQ(listed.count("/proc"), 0u);
    EXPECT_EQ(listed.count("/"), 1u);
    // fs.cntl replaces the built-in list; read by each job process anew.
    std::ofstream(daemon_.home() + "fs.cntl") << "# pseudo file systems\n  SysFs \t\n\ncgroup\n";
    listed = mounts();
    EXPECT_EQ(listed, expectedMounts({"sysfs", "cgroup"}));
    EXPECT_EQ(listed.count("/proc"), 1u);
    EXPECT_EQ(listed.count("/sys"), 0u);

    Output o = ctl("mounts 127.0.0.1");
    EXPECT_TRUE(exited(o, 0));
    struct stat root = statOf("/");
    std::string rootLine = std::to_string(major(root.st_dev)) + ":" + std::to_string(minor(root.st_dev)) + "\t/";
    auto out = lines(o.out);
    EXPECT_NE(std::find(out.begin(), out.end(), rootLine), out.end()) << o.out;
}

TEST_F(BrowseTest, ClosedDirectoryAnswers101AndAFailedIdentitySwitchClosesWithoutAnswer) {
    TestUser user, broken;
    ASSERT_TRUE(user.ok() && broken.ok());
    // No process can take group id 2^32-1: the switch fails.
    ASSERT_TRUE(broken.setPasswdGroupId("4294967295"));
    tree_.dir("closed", 0711);  // enterable, not readable
    std::string closed = tree_.path("closed");
    ASSERT_TRUE(startDaemon({"-v"}));
    BrowseClient client;
    ASSERT_TRUE(login(client, user.name(), kPassword)) << client.lastError();
    auto listing = client.readDir(closed, 3, 22);
    ASSERT_TRUE(listing) << client.lastError();
    EXPECT_EQ(listing->end, 101);
    EXPECT_TRUE(listing->entries.empty());
    EXPECT_TRUE(daemon_.waitForLog("(SendDirData) Failed to opendir(" + closed + ") (Permission denied)"));
    // The job goes on.
    listing = client.readDir(tree_.dir(), 1, 22);
    ASSERT_TRUE(listing);
    std::multiset<std::string> names;
    for (const auto& e : listing->entries) names.insert(e.entry.name);
    EXPECT_EQ(names, (std::multiset<std::string>{"/file", "/link-file"}));
    ASSERT_TRUE(client.logout());

    const std::string ls = "ls --user " + user.name() + " 127.0.0.1:" + closed;
    EXPECT_TRUE(exited(ctl(ls, kPassword), 1, "the agent cannot open it (answer 101)"));
    EXPECT_TRUE(exited(ctl(ls, "wrong"), 1, "wrong password (answer 113)"));

    size_t browsed = countOf(daemon_.log(), "(Browser)");
    EXPECT_EQ(client.login("127.0.0.1", daemon_.port(), {.root = "", .login = broken.name(), .password = kPassword}),
              tavik::frontend::kNoAnswer);
    EXPECT_EQ(client.lastError(), "the agent closed the connection");
    EXPECT_TRUE(daemon_.waitForLog("(chuid) Failed"));
    EXPECT_EQ(countOf(daemon_.log(), "(Browser)"), browsed);
}

// tavikctl ls lines by name with their sizes (a device's "major, minor"
// takes two fields).
std::map<std::string, std::pair<std::string, std::string>> lsByName(const std::string& out) {
    std::map<std::string, std::pair<std::string, std::string>> byName;
    for (const std::string& line : lines(out)) {
        std::istringstream in(line);
        std::string mode, links, uid, gid, size, date, time, name;
        in >> mode >> links >> uid >> gid >> size;
        if (mode[0] == 'c' || mode[0] == 'b') in >> size;
        in >> date >> time >> name;
        byName[name] = {line, size};
    }
    return byName;
}

TEST_F(BrowseTest, TavikctlLsAndReadlinkShowTheTreeAndUsrInclude) {
    ASSERT_TRUE(startDaemon());
    Output o = ctl("ls 127.0.0.1:" + tree_.dir());
    ASSERT_TRUE(exited(o, 0));
    auto byName = lsByName(o.out);
    ASSERT_EQ(byName.size(), 7u) << o.out;
    time_t mtime = statOf(tree_.path("file")).st_mtime;
    char when[32];
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M", std::localtime(&mtime));
    std::string file = "-rw-r--r--   1     0     0       1234 " + std::string(when) + " file";
    for (auto [name, start] : {std::pair{"file", file},
                               {"dir", "drwxr-xr-x "}, {"fifo", "prw-r----- "}, {"dangling", "lrwxrwxrwx "},
                               {"null", "crw-rw-rw-   1     0     0       1, 3 "}})
        EXPECT_EQ(byName[name].first.rfind(start, 0), 0u) << byName[name].first;
    for (auto [name, end] : {std::pair{"link-dir", " link-dir -> dir (directory)"},
                             {"link-file", " link-file -> file (regular file)"},
                             {"dangling", " dangling -> nowhere (missing)"}})
        EXPECT_TRUE(has(byName[name].first, end)) << byName[name].first;

    o = ctl("ls -d 127.0.0.1:" + tree_.dir());
    EXPECT_EQ(lines(o.out).size(), 2u) << o.out;  // dir and link-dir
    o = ctl("ls -f --browse-version 20 127.0.0.1:" + tree_.dir());
    ASSERT_EQ(lines(o.out).size(), 1u) << o.out;  // old servers see links as links
    EXPECT_TRUE(has(o.out, " file\n"));
    EXPECT_TRUE(printed(ctl("readlink 127.0.0.1:" + tree_.path("dangling")), 0, "nowhere (missing)\n"));
    EXPECT_TRUE(exited(ctl("readlink 127.0.0.1:" + tree_.path("file")), 1));
    EXPECT_TRUE(exited(ctl("ls 127.0.0.1"), 2));

    // /usr/include: every name with its lstat size.
    std::map<std::string, std::string> expected, listed;
    for (const auto& e : std::filesystem::directory_iterator("/usr/include"))
        expected[e.path().filename()] = std::to_string(statOf(e.path()).st_size);
    ASSERT_GT(expected.size(), 10u);
    o = ctl("ls 127.0.0.1:/usr/include");
    ASSERT_TRUE(exited(o, 0));
    for (const auto& [name, entry] : lsByName(o.out)) listed[name] = entry.second;
    EXPECT_EQ(listed, expected);
}

}  // namespace
