// Attacks on a root agent started without -S, each by an unprivileged test
// login or a local user, with the secure outcome asserted on the wire, on
// disk and in the log; and what a trusted login may still do. In order: a
// restore by a login that is not trusted, the run-unswitched bit, links
// planted under a root restore, names planted in LOG/ and forged log lines,
// a protected directory spelled otherwise, a reverse-lookup name the
// caller chose, account state and the cost of an unknown login, a request
// without a record, and grooming through a swapped directory or out of
// LOG/.
#include <arpa/inet.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "e2e/restore_driver.h"

namespace {

using namespace tavik::test;
using tavik::frontend::JobClient;
using tavik::frontend::RequestFields;
using tavik::protocol::RestoreAttributes;
namespace protocol = tavik::protocol;
namespace fs = std::filesystem;

class SecurityTest : public LoginJobTest {
protected:
    // A connection from the loopback address `source`: the answer to `f`.
    int askFrom(const char* source, const RequestFields& f, uint16_t port) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in from = inetAddress(0), to = inetAddress(port);
        inet_pton(AF_INET, source, &from.sin_addr);
        if (bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0 ||
            connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
            close(fd);
            return tavik::frontend::kNoAnswer;
        }
        JobClient client(fd);
        return client.request(f);
    }
    // Shows `daemon` the files `binds` (source, system file) in a mount
    // namespace of its own; false where namespaces are not permitted.
    bool inNamespace(Daemon& daemon, const std::vector<std::pair<std::string, std::string>>& binds) {
        if (std::system("unshare -m true >/dev/null 2>&1") != 0) return false;
        std::string script;
        for (const auto& [from, to] : binds) script += "mount --bind " + from + " " + to + " && ";
        daemon.runThrough("unshare -m sh -c '" + script + "exec \"$0\" \"$@\"'");
        return true;
    }

    // A compare job that keeps root's identity (the login is trusted and
    // asks for it), grooming as `groom` says: the answer to the request.
    int beginRootCompare(const std::vector<uint8_t>& groom) {
        trust(user_.name());
        auto f = fields(work_, 2);
        f.runUnswitched = true;
        return begin(f, optionsRecord(2, 1), 0, groom);
    }
    void ownedLink(const std::string& target, const std::string& link, bool byLogin) const {
        ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0) << link;
        if (byLogin) lchown(link.c_str(), user_.uid(), user_.gid());
    }

    Tree scratch_;
};

TEST_F(SecurityTest, RestoreByALoginThatIsNotTrustedRunsAsThatLogin) {
    ASSERT_TRUE(startDaemon());
    scratch_.dir("rootonly", 0700);
    scratch_.file("victim", "root's file");
    ASSERT_EQ(begin(fields(work_, 1)), 4);
    RestoreDriver r(client_);
    RestoreAttributes mem = restoreAttrs(at("mem"), 020666);
    mem.rdev = tavik::platform::encodeDev32(makedev(1, 1));
    // Each with data beyond one MOF packet, which a refused file drops.
    const struct {
        const char* what;
        RestoreAttributes record;
        int status;
    } rows[] = {
        {"a set-user-id root shell in a root-only directory", restoreAttrs(scratch_.path("rootonly/sh"), 0104755), 'j'},
        {"a device node", mem, 'p'},
        {"a fifo", restoreAttrs(at("fifo"), 010644), 'p'},
        {"a file given to root where the login may write", restoreAttrs(at("mine"), 0104755), 'k'},
        {"a set-user-id file of the login's own", restoreAttrs(at("own"), 0104750, user_.uid(), user_.gid()), 0},
    };
    for (const auto& row : rows) EXPECT_EQ(r.file(row.record, pattern(3000)), row.status) << row.what;
    // A directory over root's file, then UNLINK of that name.
    ASSERT_TRUE(r.mkdir(restoreAttrs(scratch_.path("victim"), 040755)));
    ASSERT_TRUE(r.send(protocol::code::kUnlink));
    EXPECT_EQ(r.end(), 3);

    EXPECT_EQ(statOf(scratch_.path("rootonly/sh")).st_mode, 0u);
    EXPECT_EQ(statOf(at("mem")).st_mode, 0u);
    EXPECT_EQ(statOf(at("fifo")).st_mode, 0u);
    EXPECT_EQ(statOf(at("mine")).st_uid, user_.uid());
    EXPECT_EQ(statOf(at("own")).st_mode, mode_t(0104750));
    EXPECT_EQ(readFile(scratch_.path("victim")), "root's file");
    EXPECT_TRUE(logHas("(ws_restore[OPENFILE]) Failed to create " + scratch_.path("rootonly/sh") +
                       " (Permission denied)"));
    EXPECT_TRUE(logHas("(ws_restore[OPENFILE]) Only system administrator can restore special file"));
    EXPECT_TRUE(logHas("(ws_restore[ENDF]) Failed to change owner for <" + at("mine") + "> (Operation not permitted)"));
    EXPECT_TRUE(logHas("Failed to unlink <" + scratch_.path("victim") + "> (Permission denied)"));
}

TEST_F(SecurityTest, RunningUnswitchedIsForTrustedLoginsOnly) {
    ASSERT_TRUE(startDaemon());
    scratch_.dir("rootonly", 0700);
    scratch_.file("rootonly/secret", "secret");
    RequestFields f = fields(scratch_.path("rootonly"), 0);
    f.runUnswitched = true;
    EXPECT_EQ(ask(f), 118);
    EXPECT_TRUE(daemon_.waitForLog("The request to run without switching to login " + user_.name() +
                                   " is ignored: the login is not trusted"));
    trust(user_.name());
    EXPECT_EQ(ask(f), 4);
}

// A job of its command exchange alone (an estimate) by a login that is not
// trusted runs as that login: it counts nothing it may not read.
TEST_F(SecurityTest, AnEstimateCountsOnlyWhatTheLoginMayRead) {
    ASSERT_TRUE(startDaemon());
    scratch_.dir("rootonly", 0700);
    for (const char* f : {"a", "b", "c"}) scratch_.file(std::string("rootonly/") + f, std::string(5000, 'x'));
    auto estimate = [&] {
        EXPECT_EQ(ask(fields(work_, 7)), 4);
        std::string source = scratch_.path("rootonly");
        EXPECT_EQ(client_.command(14, bytes(source + std::string(1, '\0'))), 4);
        std::array<uint8_t, 8> counts{};
        EXPECT_TRUE(client_.recvRaw(counts));
        return tavik::wire::loadLe32(counts.data());
    };
    EXPECT_EQ(estimate(), 0u);
    trust(user_.name());
    EXPECT_EQ(estimate(), 3u);
}

TEST_F(SecurityTest, RestoreAsRootFollowsNoLinkAnotherUserPlanted) {
    TestUser attacker;
    ASSERT_TRUE(attacker.ok());
    trust(user_.name());  // its restore runs as root
    ASSERT_TRUE(startDaemon());
    std::string dest = scratch_.path("dest"), secret = scratch_.path("secret");
    scratch_.dir("dest");
    chown(dest.c_str(), attacker.uid(), attacker.gid());
    scratch_.file("secret", "top secret", 0600);
    scratch_.dir("rootonly", 0700);
    scratch_.dir("rootdir");
    auto plant = [&](const std::string& target, const std::string& name, uid_t owner) {
        std::string tmp = dest + "/.planted";
        symlink(target.c_str(), tmp.c_str());
        lchown(tmp.c_str(), owner, owner);
        rename(tmp.c_str(), (dest + "/" + name).c_str());
    };
    plant(scratch_.path("rootonly"), "sub", attacker.uid());
    plant(scratch_.path("rootdir"), "viaroot", 0);

    // The names sent are complete; every MOF is acknowledged, so that the
    // OPENFILE before it has been served.
    ASSERT_EQ(begin(fields(work_, 1), {}, 1), 4);
    RestoreDriver r(client_, 1);
    // Between OPENFILE and ENDF the file's name becomes a link to root's
    // secret.
    ASSERT_TRUE(r.openFile(restoreAttrs(dest + "/f", 0100644, attacker.uid(), attacker.gid())));
    ASSERT_TRUE(r.mof(bytes("da")));
    plant(secret, "f", attacker.uid());
    EXPECT_EQ(r.endf(bytes("ta")), 0);
    // Through a link the attacker planted beforehand: nothing is made.
    EXPECT_EQ(r.file(restoreAttrs(dest + "/sub/x", 0100644), "x"), 'j');
    ASSERT_TRUE(r.mkdir(restoreAttrs(dest + "/sub/newdir", 040755)));
    // A link of root's is followed.
    EXPECT_EQ(r.file(restoreAttrs(dest + "/viaroot/y", 0100644), "y"), 0);
    EXPECT_EQ(r.end(), 3);

    struct stat st = statOf(secret);
    EXPECT_EQ(st.st_mode, mode_t(0100600));
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(readFile(secret), "top secret");
    EXPECT_EQ(readFile(dest + "/f"), "data");  // the restored file took the name
    EXPECT_EQ(statOf(dest + "/f").st_uid, attacker.uid());
    EXPECT_TRUE(std::filesystem::is_empty(scratch_.path("rootonly")));
    EXPECT_EQ(readFile(scratch_.path("rootdir/y")), "y");
    EXPECT_TRUE(logHas("(ws_restore[OPENFILE]) Failed to create " + dest + "/sub/x (Permission denied)"));
    EXPECT_TRUE(logHas("(ws_restore[MKDIR]) Failed to make directory <" + dest + "/sub/newdir> (Permission denied)"));
}

// LOG/ as an older agent left it (mode 0777), where a login replaced each
// file's name with its own link to a file of root's (mode 0600). The agent
// starts and serves a job; root's files keep their bytes, the pid file is
// made afresh, LOG/ becomes sticky, and the lines the log refused went to
// standard output.
TEST_F(SecurityTest, LinksPlantedInLogAreNotWrittenThrough) {
    const std::string log = daemon_.home() + "LOG/";
    ASSERT_EQ(mkdir(log.c_str(), 0777), 0);
    ASSERT_EQ(chmod(log.c_str(), 0777), 0);
    const char* names[] = {"tvk.log", "tvk.log.old", "tvk.ipc", "tavikd.pid"};
    for (const char* name : names) {
        scratch_.file(name, "root's own\n", 0600);
        ASSERT_EQ(symlink(scratch_.path(name).c_str(), (log + name).c_str()), 0);
        ASSERT_EQ(lchown((log + name).c_str(), user_.uid(), user_.gid()), 0);
    }
    ASSERT_TRUE(daemon_.start()) << daemon_.launcher().output;
    // A job of a type (7) the agent does not run: the command exchange is
    // the whole job.
    ASSERT_EQ(ask(fields(user_.home(), 7)), 4);
    ASSERT_TRUE(client_.start(0));
    EXPECT_TRUE(agentCloses());
    for (const char* name : names) {
        SCOPED_TRACE(name);
        EXPECT_EQ(readFile(scratch_.path(name)), "root's own\n");
        EXPECT_EQ(statOf(scratch_.path(name)).st_mode, mode_t(0100600));
    }
    EXPECT_EQ(statOf(daemon_.pidPath()).st_mode, mode_t(0100644));
    EXPECT_EQ(readFile(daemon_.pidPath()), std::to_string(daemon_.pid()) + "\n");
    EXPECT_EQ(statOf(log).st_mode, mode_t(041777));
    std::string out = readFile(daemon_.home() + "launcher.out");
    EXPECT_TRUE(has(out, "(ulog) Faied to open " + log + "tvk.log (Too many levels of symbolic links)")) << out;
    EXPECT_TRUE(has(out, "Start Compare Job From ")) << out;
}

// A LOG that is a link to a directory elsewhere, or a file: the agent does
// not start and writes nothing there.
TEST_F(SecurityTest, LogThatIsNotARealDirectoryStopsTheStart) {
    Tree elsewhere;
    for (bool asLink : {true, false}) {
        SCOPED_TRACE(asLink ? "link" : "file");
        Daemon d;
        const std::string log = d.home() + "LOG";
        if (asLink)
            ASSERT_EQ(symlink(elsewhere.dir().c_str(), log.c_str()), 0);
        else
            writeFile(log, "");
        LaunchResult r = d.launch({"-p", std::to_string(freePort())});
        EXPECT_EQ(r.status, 255);
        EXPECT_TRUE(has(r.output, "Failed to make directory <" + log + "> (Not a directory)")) << r.output;
        EXPECT_TRUE(elsewhere.order().empty());
    }
}

// A refused caller whose login holds newlines: its text is in the log with
// the newlines escaped, and no line of the log begins with what followed them.
TEST_F(SecurityTest, CallerTextCannotStartALogLine) {
    ASSERT_TRUE(startDaemon());
    const std::string forged = "EVIL::0:0::/:/bin/sh";
    RequestFields f = fields("/tmp", 2);
    f.login = "x\n" + forged + "\n";
    EXPECT_EQ(ask(f), 115);  // unknown user
    EXPECT_TRUE(daemon_.waitForLog("(ckpasswd) User x\\012" + forged + "\\012 is not defined in the password file"));
    EXPECT_TRUE(has(daemon_.log(), "loginID=x\\012" + forged + "\\012 "));
    for (const std::string& line : lines(daemon_.log())) EXPECT_NE(line.rfind("EVIL", 0), 0u) << line;
}

// tvk.cntl names a directory once; every other name of it, and every
// directory below it, is refused all the same, whoever may read tvk.cntl.
TEST_F(SecurityTest, ProtectedDirectoryHoldsHoweverItIsSpelled) {
    for (const char* d : {"secret", "secret/inner", "sub", "secretary", "vault"}) mkdir(at(d).c_str(), 0755);
    ownedLink("secret", at("alias"), true);
    ownedLink(at("vault"), at("way"), false);  // an entry that is a link protects where it leads
    ASSERT_TRUE(startDaemon());
    const std::string cntl = daemon_.home() + "tvk.cntl";
    std::ofstream(cntl) << at("secret") << "\n" << at("way") << "\n";

    const struct {
        std::string root;
        int answer;
    } rows[] = {
        {at("secret"), 114},       {"/" + at("secret"), 114},      {work_ + "/./secret", 114},
        {at("sub/../secret"), 114}, {at("alias"), 114},            {at("alias/inner"), 114},
        {at("vault"), 114},        {at("secretary"), 4},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.root);
        EXPECT_EQ(ask(fields(row.root, 0)), row.answer);
        std::string line = "Protected Directory [" + row.root + "/] in " + cntl;
        if (row.answer == 114) {
            EXPECT_TRUE(agentCloses());
            EXPECT_TRUE(daemon_.waitForLog(line));
        } else {
            EXPECT_FALSE(logHas(line));
        }
    }
    // The list is the administrator's: read with root's rights.
    chmod(cntl.c_str(), 0600);
    EXPECT_EQ(ask(fields(at("secret"), 0)), 114);
    EXPECT_TRUE(daemon_.waitForLog("Protected Directory [" + at("secret") + "/] in " + cntl, 2));
}

TEST_F(SecurityTest, HostEquivalenceNeedsTheCallersOwnAddress) {
    // 127.0.0.3's reverse lookup names trusted.test, whose address is
    // 127.0.0.2: a name the caller's own reverse zone could choose.
    scratch_.file("hosts", "127.0.0.1 localhost\n127.0.0.2 trusted.test\n127.0.0.3 trusted.test\n");
    scratch_.file("host.conf", "multi off\n");
    if (!inNamespace(daemon_, {{scratch_.path("hosts"), "/etc/hosts"}, {scratch_.path("host.conf"), "/etc/host.conf"}}))
        GTEST_SKIP() << "mount namespaces are not permitted here";
    user_.trustHost("trusted.test");
    ASSERT_TRUE(startDaemon());
    RequestFields f = fields(user_.home(), 2);
    f.password = "wrong";
    f.acceptEA = 0;
    EXPECT_EQ(askFrom("127.0.0.2", f, daemon_.port()), 4);
    EXPECT_EQ(askFrom("127.0.0.3", f, daemon_.port()), 113);
    EXPECT_TRUE(daemon_.waitForLog("(ckpasswd) Incorrect password"));
}

TEST_F(SecurityTest, ExpiredLockedAndRefusedAccountsAreRefusedAndUnknownLoginsCostAHash) {
    TestUser expired, locked;
    ASSERT_TRUE(expired.ok() && locked.ok());
    ASSERT_TRUE(runQuietly("chage -E 2000-01-01 " + expired.name()));
    ASSERT_TRUE(runQuietly("usermod -L " + locked.name()));
    ASSERT_TRUE(startDaemon());
    auto askAs = [&](const std::string& login, const std::string& password) {
        RequestFields f = fields(user_.home(), 2);
        f.login = login;
        f.password = password;
        f.serverVersion = 49;  // unknown logins get 113 too
        return ask(f);
    };
    EXPECT_EQ(askAs(expired.name(), kPassword), 113);
    EXPECT_TRUE(daemon_.waitForLog("(ckaccount) The account " + expired.name() + " has expired"));
    EXPECT_EQ(askAs(locked.name(), kPassword), 113);
    EXPECT_TRUE(daemon_.waitForLog("(ckpasswd) Incorrect password"));

    // A refusal takes as long for a login that does not exist as for a
    // wrong password: both cost one hash.
    auto slowest = [&](const std::string& login) {
        auto took = std::chrono::steady_clock::duration::max();
        for (int i = 0; i < 3; ++i) {
            auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(askAs(login, "wrong"), 113);
            took = std::min(took, std::chrono::steady_clock::now() - start);
        }
        return took;
    };
    auto known = slowest(user_.name()), unknown = slowest("tvk-no-such-login");
    EXPECT_GT(unknown * 2, known) << "unknown " << unknown.count() << " ns, known " << known.count() << " ns";

    // The system's account rules apply: a PAM service that denies every
    // account refuses the right password.
    Daemon denying;
    std::string pam = scratch_.path("pam.d");
    ASSERT_EQ(std::system(("cp -a /etc/pam.d " + pam).c_str()), 0);
    std::ofstream(pam + "/tavikd") << "account required pam_deny.so\n";
    if (!inNamespace(denying, {{pam, "/etc/pam.d"}})) GTEST_SKIP() << "mount namespaces are not permitted here";
    ASSERT_TRUE(denying.start());
    JobClient client;
    ASSERT_TRUE(client.connect("127.0.0.1", denying.port()));
    EXPECT_EQ(client.request(fields(user_.home(), 2)), 113);
    EXPECT_TRUE(denying.waitForLog("(ckaccount) The account " + user_.name() + " may not be used now ("));
}

TEST_F(SecurityTest, ARequestWithoutARecordGetsNoEarlierCallersRoot) {
    ASSERT_TRUE(startDaemon({"-v", "-S"}));
    scratch_.dir("secret");
    EXPECT_EQ(ask(fields(scratch_.path("secret"), 0)), 4);
    client_.close();
    ASSERT_TRUE(client_.connect("127.0.0.1", daemon_.port()));
    ASSERT_TRUE(client_.sendRaw(std::array<uint8_t, 8>{}));  // a header that announces no record
    EXPECT_EQ(client_.readAnswer(), 116);
    EXPECT_TRUE(daemon_.waitForLog("Invalid Unix Path, Job Abort"));
}

// A root grooming records dir/f; before it deletes, dir becomes a link to a
// directory the login may not write that holds its own f. The deletion
// neither follows the login's link nor deletes in another directory than the
// one recorded.
TEST_F(SecurityTest, GroomingDoesNotDeleteThroughASwappedDirectory) {
    for (const char* d : {"mine", "root"}) {
        scratch_.dir(d);
        scratch_.file(std::string(d) + "/f", "root's f");
        mkdir(at(d).c_str(), 0755);
        writeFile(at(std::string(d) + "/f"), "backed up");
    }
    writeFile(at("g"), "groomed");
    ASSERT_TRUE(startDaemon());
    ASSERT_EQ(beginRootCompare(groomingRecord(0x04)), 4);
    RestoreDriver r(client_);
    // Each as the disk has it now: identical.
    for (const char* rel : {"mine/f", "root/f", "g"})
        EXPECT_EQ(r.compare(tapeOf(at(rel), rel), readFile(at(rel))), Verdicts(0, 0)) << rel;
    for (const char* d : {"mine", "root"}) {
        fs::rename(at(d), at(std::string(d) + "-moved"));
        ownedLink(scratch_.path(d), at(d), std::string(d) == "mine");  // the login's own link, and root's
    }

    auto [count, work] = r.endWithReport();
    EXPECT_EQ(count, "1" + std::string(15, '\0'));
    EXPECT_TRUE(has(work, " " + at("g") + "\n"));
    EXPECT_FALSE(fs::exists(at("g")));
    for (const char* d : {"mine", "root"}) {
        EXPECT_EQ(readFile(scratch_.path(std::string(d) + "/f")), "root's f") << d;
        EXPECT_EQ(readFile(at(std::string(d) + "-moved/f")), "backed up") << d;
        EXPECT_FALSE(has(work, " " + at(std::string(d) + "/f") + "\n")) << d;
        EXPECT_FALSE(logHas("Delete " + at(std::string(d) + "/f"))) << d;
    }
    EXPECT_TRUE(daemon_.waitForLog("Total 1 files were deleted"));
}

// The rotation set's copy file is LOG/<set>.grm: a set name that leaves LOG/
// (directly, or through a link planted in the world-writable LOG/) ends the
// grooming before anything is written, and a copy file planted there as a
// link is not written through.
TEST_F(SecurityTest, GroomingSetNameStaysInTheLogDirectory) {
    ASSERT_TRUE(startDaemon());
    const std::string log = daemon_.home() + "LOG/";
    ownedLink(scratch_.dir(), log + "a", true);
    ownedLink(scratch_.path("planted.grm"), log + "planted.grm", true);
    const struct {
        std::string set, escape;
        bool refused;
    } rows[] = {{"../../x", log + "../../x.grm", true}, {"a/b", scratch_.path("b.grm"), true},
                {"planted", scratch_.path("planted.grm"), false}};
    size_t ended = 0, refused = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.set);
        fs::remove(row.escape);
        ASSERT_EQ(beginRootCompare(groomingRecord(0x02, 1, row.set)), 4);
        RestoreDriver r(client_);
        EXPECT_EQ(r.endWithReport().count, "");
        EXPECT_TRUE(daemon_.waitForLog("Workstation Compare Ended", ++ended));
        EXPECT_FALSE(fs::exists(row.escape));
        fs::remove(row.escape);
        refused += row.refused;
        EXPECT_EQ(logHas("(BeginGrooming) The rotation set name [" + row.set + "] is not a plain file name"),
                  row.refused);
        EXPECT_EQ(countOf(daemon_.log(), "Failed in BeginGrooming()"), refused);
    }
    EXPECT_TRUE(logHas("Cannot copy file "));
    EXPECT_TRUE(logHas(log + "planted.grm"));
}

}  // namespace
