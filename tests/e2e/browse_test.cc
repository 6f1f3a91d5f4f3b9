// Browse jobs on a real daemon: a scratch tree with a file, a directory, a
// link to each, a dangling link, a FIFO and a device node, listed for
// browse versions 20, 21 and 22 with every selection; the entry bytes
// against lstat/stat of the same files; the mounted file systems with and
// without fs.cntl; a directory the login may not read; a login whose
// identity cannot be taken; and tavikctl ls, mounts and readlink.
#include <mntent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/daemon_fixture.h"
#include "e2e/test_user.h"
#include "frontend/browse_client.h"
#include "wire/bytes.h"

namespace {

using tavik::frontend::BrowseClient;
using tavik::frontend::BrowsePacket;
using tavik::frontend::Listing;
using tavik::frontend::RequestFields;
using tavik::test::Daemon;
using tavik::test::TestUser;
using tavik::transport::BrowseHeader;
using tavik::wire::loadBe16;
using tavik::wire::loadBe32;

#define REQUIRE_ROOT()                                                                 \
    do {                                                                               \
        if (geteuid() != 0) GTEST_SKIP() << "needs root: device nodes and test logins"; \
    } while (0)

// The tree every listing test browses.
class Tree {
public:
    Tree() {
        char tmpl[] = "/tmp/tavik-e2e-browse-XXXXXX";
        if (!mkdtemp(tmpl)) return;
        dir_ = tmpl;
        chmod(dir_.c_str(), 0755);
        std::ofstream(dir_ + "/file") << std::string(1234, 'x');
        chmod((dir_ + "/file").c_str(), 0644);
        mkdir((dir_ + "/dir").c_str(), 0755);
        symlink("file", (dir_ + "/link-file").c_str());
        symlink("dir", (dir_ + "/link-dir").c_str());
        symlink("nowhere", (dir_ + "/dangling").c_str());
        mkfifo((dir_ + "/fifo").c_str(), 0640);
        mknod((dir_ + "/null").c_str(), S_IFCHR | 0666, makedev(1, 3));
        chmod((dir_ + "/null").c_str(), 0666);
    }
    ~Tree() {
        if (!dir_.empty()) std::system(("rm -rf '" + dir_ + "'").c_str());
    }
    const std::string& dir() const { return dir_; }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

private:
    std::string dir_;
};

struct CtlResult {
    int status = -1;
    std::string out;
};

// Runs tavikctl with `args`; standard error joins standard output.
CtlResult runCtl(const std::string& args, const std::string& password = "") {
    setenv("TAVIK_PASSWORD", password.c_str(), 1);
    CtlResult r;
    FILE* p = popen((std::string(TAVIKCTL_PATH) + " " + args + " 2>&1").c_str(), "r");
    if (!p) return r;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, p)) > 0) r.out.append(buffer, n);
    int status = pclose(p);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

uint32_t dev32(dev_t dev) { return (major(dev) << 18) | minor(dev); }

class BrowseTest : public ::testing::Test {
protected:
    bool startDaemon(const std::vector<std::string>& args = {"-v", "-S"}) {
        if (!daemon_.start(args, {{"TAVIK_TIME_DIVISOR", "1000"}})) return false;
        chmod(daemon_.home().c_str(), 0755);
        return true;
    }
    // Logs in as root (single-user mode admits anyone).
    bool login(BrowseClient& client, const std::string& user = "root", const std::string& password = "") {
        RequestFields f;
        f.root = "/";
        f.login = user;
        f.password = password;
        return client.login("127.0.0.1", daemon_.port(), f) == 14;
    }
    std::string port() const { return std::to_string(daemon_.port()); }

    Daemon daemon_;
    Tree tree_;
};

std::set<std::string> names(const Listing& l) {
    std::set<std::string> out;
    for (const auto& e : l.entries) out.insert(e.entry.name);
    return out;
}

TEST_F(BrowseTest, ListingsForEachVersionAndSelection) {
    REQUIRE_ROOT();
    ASSERT_TRUE(startDaemon());
    BrowseClient client;
    ASSERT_TRUE(login(client)) << client.lastError();
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
    for (const Case& c : cases) {
        SCOPED_TRACE("version " + std::to_string(c.version) + " select " + std::to_string(c.select));
        auto listing = client.readDir(tree_.dir(), c.select, static_cast<int8_t>(c.version));
        ASSERT_TRUE(listing) << client.lastError();
        EXPECT_EQ(listing->end, 16);
        EXPECT_EQ(names(*listing), c.expected);
        for (const auto& e : listing->entries) {
            bool link = S_ISLNK(e.entry.mode);
            // Link targets come from version 21 on, and only after links.
            EXPECT_EQ(e.target.has_value(), link && c.version >= 21) << e.entry.name;
            if (!e.target) continue;
            if (e.entry.name == "/dangling") {
                EXPECT_EQ(e.target->name, "nowhere");
                EXPECT_EQ(e.target->mode, 0u);
                EXPECT_EQ(e.target->size, 0u);
            } else if (e.entry.name == "/link-file") {
                EXPECT_EQ(e.target->name, "file");
                EXPECT_TRUE(S_ISREG(e.target->mode));
                EXPECT_EQ(e.target->size, 1234u);
            } else {
                EXPECT_EQ(e.target->name, "dir");
                EXPECT_TRUE(S_ISDIR(e.target->mode));
            }
        }
    }
    // A listing from an old server with an empty path is no mount list: the
    // change to the empty path fails and only the end of listing comes.
    auto old = client.readDir("", 3, 20);
    ASSERT_TRUE(old);
    EXPECT_EQ(old->end, 16);
    EXPECT_TRUE(old->entries.empty());
    EXPECT_TRUE(client.logout());
    EXPECT_TRUE(client.agentCloses());
    EXPECT_TRUE(daemon_.waitForLog("(Browser) LOGOUT"));
    EXPECT_NE(daemon_.log().find("(SendDirData) Failed to change directory to  (No such file or directory), Job Abort"),
              std::string::npos);
}

// Checks one entry payload against a status, with offsets written out here.
void expectEntryBytes(const std::vector<uint8_t>& p, const struct stat& st, const std::string& name, int version,
                      bool checkAtime = true) {
    size_t nameAt = version >= 22 ? 48 : 44;
    ASSERT_EQ(p.size(), nameAt + name.size() + 1);
    EXPECT_EQ(loadBe32(&p[0]), st.st_mode);
    EXPECT_EQ(loadBe32(&p[4]), st.st_nlink);
    EXPECT_EQ(loadBe32(&p[8]), st.st_uid);
    EXPECT_EQ(loadBe32(&p[12]), st.st_gid);
    EXPECT_EQ(loadBe32(&p[16]), dev32(st.st_rdev));
    if (checkAtime) {
        EXPECT_EQ(loadBe32(&p[20]), uint32_t(st.st_atime));
    }
    EXPECT_EQ(loadBe32(&p[24]), uint32_t(st.st_mtime));
    EXPECT_EQ(loadBe32(&p[28]), uint32_t(st.st_ctime));
    EXPECT_EQ(loadBe32(&p[32]), uint32_t(st.st_size));
    for (size_t i = 36; i < 44; ++i) EXPECT_EQ(p[i], 0) << "byte " << i;
    if (version >= 22) {
        EXPECT_EQ(loadBe32(&p[44]), dev32(st.st_dev));
    }
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&p[nameAt])), name);
    EXPECT_EQ(p.back(), 0);
}

TEST_F(BrowseTest, EntryBytesMatchLstatAndStat) {
    REQUIRE_ROOT();
    ASSERT_TRUE(startDaemon());
    BrowseClient client;
    ASSERT_TRUE(login(client));
    for (int version : {20, 21, 22}) {
        SCOPED_TRACE("version " + std::to_string(version));
        std::vector<uint8_t> path = tavik::frontend::pathPayload(tree_.dir());
        ASSERT_TRUE(client.send(BrowseHeader{3, 15, static_cast<int8_t>(version), 0, uint16_t(path.size())}, path));
        std::string lastLink;
        int packets = 0;
        for (;;) {
            BrowsePacket p;
            ASSERT_TRUE(client.receive(p)) << client.lastError();
            // Every packet from the agent: select 0, version 22, level 0.
            EXPECT_EQ(p.header.select, 0);
            EXPECT_EQ(p.header.version, 22);
            EXPECT_EQ(p.header.level, 0);
            if (p.header.code == 16) {
                EXPECT_TRUE(p.payload.empty());
                break;
            }
            ++packets;
            if (p.header.code == 20) {
                ASSERT_FALSE(lastLink.empty()) << "a link target follows its link";
                std::string text(reinterpret_cast<const char*>(&p.payload[version >= 22 ? 48 : 44]));
                struct stat st {};
                if (::stat(tree_.path(lastLink).c_str(), &st) != 0) st = {};
                expectEntryBytes(p.payload, st, text, version);
                EXPECT_EQ(text, lastLink == "dangling" ? "nowhere" : lastLink == "link-dir" ? "dir" : "file");
                lastLink.clear();
                continue;
            }
            ASSERT_EQ(p.header.code, 15);
            ASSERT_TRUE(lastLink.empty()) << "version " << version << " sent no target for " << lastLink;
            std::string name(reinterpret_cast<const char*>(&p.payload[version >= 22 ? 48 : 44]));
            ASSERT_EQ(name[0], '/');
            struct stat st {};
            ASSERT_EQ(::lstat(tree_.path(name.substr(1)).c_str(), &st), 0);
            // Reading a link may touch its access time after it was sent.
            expectEntryBytes(p.payload, st, name, version, !S_ISLNK(st.st_mode));
            if (S_ISLNK(st.st_mode) && version >= 21) lastLink = name.substr(1);
        }
        EXPECT_TRUE(lastLink.empty());
        EXPECT_EQ(packets, version >= 21 ? 10 : 7);
    }
}

TEST_F(BrowseTest, ReadLinkAnswersAndFailures) {
    REQUIRE_ROOT();
    ASSERT_TRUE(startDaemon());
    BrowseClient client;
    ASSERT_TRUE(login(client));
    auto link = client.readLink(tree_.path("link-dir"), 21);
    ASSERT_TRUE(link) << client.lastError();
    // The text is examined relative to the browse process's directory: a
    // listing of the tree moves it there first.
    EXPECT_EQ(link->name, "dir");
    ASSERT_TRUE(client.readDir(tree_.dir(), 0, 22));  // select 0: no change of directory
    ASSERT_TRUE(client.readDir(tree_.dir(), 2, 22));
    link = client.readLink(tree_.path("link-dir"), 22);
    ASSERT_TRUE(link);
    EXPECT_TRUE(S_ISDIR(link->mode));

    // A file that is no link ends the job without an answer.
    EXPECT_FALSE(client.readLink(tree_.path("file"), 22));
    EXPECT_TRUE(daemon_.waitForLog("(Browser) Failed in SendDirData"));
    EXPECT_NE(daemon_.log().find("(SendLinkData) Failed to read the contents of the symbolic link file " +
                                 tree_.path("file") + " (Invalid argument)"),
              std::string::npos);
}

// The mount points of the kernel's table whose type is not in `skipped`
// and which stat can examine.
std::multiset<std::string> expectedMounts(const std::set<std::string>& skipped) {
    std::multiset<std::string> out;
    FILE* f = setmntent("/proc/self/mounts", "r");
    if (!f) return out;
    while (const mntent* m = getmntent(f)) {
        struct stat st {};
        if (skipped.count(m->mnt_type) || ::stat(m->mnt_dir, &st) != 0) continue;
        out.insert(m->mnt_dir);
    }
    endmntent(f);
    return out;
}

TEST_F(BrowseTest, MountListCarriesByte40AndFollowsFsCntl) {
    REQUIRE_ROOT();
    ASSERT_TRUE(startDaemon());
    auto mounts = [&](BrowseClient& client) {
        std::multiset<std::string> listed;
        std::vector<uint8_t> empty{0};
        EXPECT_TRUE(client.send(BrowseHeader{0, 15, 22, 0, 1}, empty));
        for (;;) {
            BrowsePacket p;
            if (!client.receive(p) || p.header.code != 15) {
                EXPECT_EQ(p.header.code, 16);
                break;
            }
            EXPECT_EQ(p.payload[40], 1);
            std::string name(reinterpret_cast<const char*>(&p.payload[48]));
            struct stat st {};
            EXPECT_EQ(::stat(name.c_str(), &st), 0) << name;
            EXPECT_EQ(loadBe32(&p.payload[44]), dev32(st.st_dev)) << name;
            EXPECT_EQ(loadBe32(&p.payload[0]), st.st_mode) << name;
            listed.insert(name);
        }
        return listed;
    };
    {
        BrowseClient client;
        ASSERT_TRUE(login(client));
        std::multiset<std::string> listed = mounts(client);
        EXPECT_EQ(listed, expectedMounts({"proc", "processorfs", "fdfs"}));
        EXPECT_EQ(listed.count("/proc"), 0u);
        EXPECT_EQ(listed.count("/"), 1u);
    }
    // fs.cntl replaces the built-in list; read by each job process anew.
    std::ofstream(daemon_.home() + "fs.cntl") << "# pseudo file systems\n  SysFs \t\n\ncgroup\n";
    {
        BrowseClient client;
        ASSERT_TRUE(login(client));
        std::multiset<std::string> listed = mounts(client);
        EXPECT_EQ(listed, expectedMounts({"sysfs", "cgroup"}));
        EXPECT_EQ(listed.count("/proc"), 1u);
        EXPECT_EQ(listed.count("/sys"), 0u);
    }
    CtlResult ctl = runCtl("mounts --port " + port() + " 127.0.0.1");
    EXPECT_EQ(ctl.status, 0) << ctl.out;
    struct stat root {};
    ASSERT_EQ(::stat("/", &root), 0);
    std::string rootLine = std::to_string(major(root.st_dev)) + ":" + std::to_string(minor(root.st_dev)) + "\t/";
    auto out = lines(ctl.out);
    EXPECT_NE(std::find(out.begin(), out.end(), rootLine), out.end()) << ctl.out;
}

TEST_F(BrowseTest, DirectoryTheLoginMayNotReadAnswers101) {
    REQUIRE_ROOT();
    TestUser user;
    ASSERT_TRUE(user.ok());
    std::string closed = tree_.path("closed");
    ASSERT_EQ(mkdir(closed.c_str(), 0711), 0);  // enterable, not readable
    chmod(closed.c_str(), 0711);
    ASSERT_TRUE(startDaemon({"-v"}));
    BrowseClient client;
    ASSERT_TRUE(login(client, user.name(), tavik::test::kPassword)) << client.lastError();
    auto listing = client.readDir(closed, 3, 22);
    ASSERT_TRUE(listing) << client.lastError();
    EXPECT_EQ(listing->end, 101);
    EXPECT_TRUE(listing->entries.empty());
    EXPECT_TRUE(daemon_.waitForLog("(SendDirData) Failed to opendir(" + closed + ") (Permission denied)"));
    // The job goes on.
    listing = client.readDir(tree_.dir(), 1, 22);
    ASSERT_TRUE(listing);
    EXPECT_EQ(names(*listing), (std::set<std::string>{"/file", "/link-file"}));
    ASSERT_TRUE(client.logout());

    CtlResult ctl = runCtl("ls --user " + user.name() + " --port " + port() + " 127.0.0.1:" + closed,
                           tavik::test::kPassword);
    EXPECT_EQ(ctl.status, 1);
    EXPECT_NE(ctl.out.find("the agent cannot open it (answer 101)"), std::string::npos) << ctl.out;
    ctl = runCtl("ls --user " + user.name() + " --port " + port() + " 127.0.0.1:" + closed, "wrong");
    EXPECT_EQ(ctl.status, 1);
    EXPECT_NE(ctl.out.find("wrong password (answer 113)"), std::string::npos) << ctl.out;
}

TEST_F(BrowseTest, FailedIdentitySwitchClosesWithoutAnswer) {
    REQUIRE_ROOT();
    TestUser user;
    ASSERT_TRUE(user.ok());
    // No process can take group id 2^32-1: the switch fails.
    ASSERT_TRUE(user.setPasswdGroupId("4294967295"));
    ASSERT_TRUE(startDaemon({"-v"}));
    BrowseClient client;
    RequestFields f;
    f.login = user.name();
    f.password = tavik::test::kPassword;
    EXPECT_EQ(client.login("127.0.0.1", daemon_.port(), f), tavik::frontend::kNoAnswer);
    EXPECT_EQ(client.lastError(), "the agent closed the connection");
    EXPECT_TRUE(daemon_.waitForLog("(chuid) Failed"));
    EXPECT_EQ(daemon_.log().find("(Browser)"), std::string::npos);
}

TEST_F(BrowseTest, TavikctlLsShowsTheTree) {
    REQUIRE_ROOT();
    ASSERT_TRUE(startDaemon());
    CtlResult ctl = runCtl("ls --port " + port() + " 127.0.0.1:" + tree_.dir());
    ASSERT_EQ(ctl.status, 0) << ctl.out;
    std::map<std::string, std::string> byName;
    for (const std::string& line : lines(ctl.out)) {
        // The name follows the date and time: the eighth field.
        std::istringstream in(line);
        std::string f[8];
        for (auto& field : f) in >> field;
        if (f[0][0] == 'c') in >> f[7];  // "1, 3" takes two fields
        byName[f[7]] = line;
    }
    ASSERT_EQ(byName.size(), 7u) << ctl.out;
    struct stat st {};
    ASSERT_EQ(::lstat(tree_.path("file").c_str(), &st), 0);
    char when[32];
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M", std::localtime(&st.st_mtime));
    EXPECT_EQ(byName["file"].rfind("-rw-r--r--   1     0     0       1234 " + std::string(when) + " file", 0), 0u)
        << byName["file"];
    EXPECT_EQ(byName["dir"].rfind("drwxr-xr-x ", 0), 0u);
    EXPECT_EQ(byName["fifo"].rfind("prw-r----- ", 0), 0u);
    EXPECT_NE(byName["null"].find("crw-rw-rw-   1     0     0       1, 3 "), std::string::npos) << byName["null"];
    EXPECT_NE(byName["link-dir"].find(" link-dir -> dir (directory)"), std::string::npos) << byName["link-dir"];
    EXPECT_NE(byName["link-file"].find(" link-file -> file (regular file)"), std::string::npos);
    EXPECT_NE(byName["dangling"].find(" dangling -> nowhere (missing)"), std::string::npos);
    EXPECT_EQ(byName["dangling"].rfind("lrwxrwxrwx ", 0), 0u);

    ctl = runCtl("ls -d --port " + port() + " 127.0.0.1:" + tree_.dir());
    EXPECT_EQ(lines(ctl.out).size(), 2u) << ctl.out;  // dir and link-dir
    ctl = runCtl("ls -f --browse-version 20 --port " + port() + " 127.0.0.1:" + tree_.dir());
    ASSERT_EQ(lines(ctl.out).size(), 1u) << ctl.out;  // old servers see links as links
    EXPECT_NE(ctl.out.find(" file\n"), std::string::npos);

    ctl = runCtl("readlink --port " + port() + " 127.0.0.1:" + tree_.path("dangling"));
    EXPECT_EQ(ctl.status, 0);
    EXPECT_EQ(ctl.out, "nowhere (missing)\n");
    ctl = runCtl("readlink --port " + port() + " 127.0.0.1:" + tree_.path("file"));
    EXPECT_EQ(ctl.status, 1);
    ctl = runCtl("ls --port " + port() + " 127.0.0.1");
    EXPECT_EQ(ctl.status, 2);
}

TEST(TavikctlLs, UsrIncludeMatchesLs) {
    Daemon daemon;
    ASSERT_TRUE(daemon.start({"-S"}, {{"TAVIK_TIME_DIVISOR", "1000"}}));
    // Names as ls gives them, and their sizes from lstat.
    std::map<std::string, uint32_t> expected;
    FILE* ls = popen("ls -a /usr/include", "r");
    ASSERT_NE(ls, nullptr);
    char buffer[4096];
    while (fgets(buffer, sizeof buffer, ls)) {
        std::string name(buffer);
        name.pop_back();
        if (name == "." || name == "..") continue;
        struct stat st {};
        ASSERT_EQ(::lstat(("/usr/include/" + name).c_str(), &st), 0);
        expected[name] = uint32_t(st.st_size);
    }
    pclose(ls);
    ASSERT_GT(expected.size(), 10u);

    CtlResult ctl = runCtl("ls --port " + std::to_string(daemon.port()) + " 127.0.0.1:/usr/include");
    ASSERT_EQ(ctl.status, 0) << ctl.out;
    std::map<std::string, uint32_t> listed;
    for (const std::string& line : lines(ctl.out)) {
        std::istringstream in(line);
        std::string mode, links, uid, gid, size, date, time, name;
        in >> mode >> links >> uid >> gid >> size;
        if (mode[0] == 'c' || mode[0] == 'b') in >> size;
        in >> date >> time >> name;
        listed[name] = uint32_t(std::stoul(size));
    }
    EXPECT_EQ(listed, expected);
}

}  // namespace
