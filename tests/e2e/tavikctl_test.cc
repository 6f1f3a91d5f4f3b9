// tavikctl backup, list, estimate, restore and compare against a real daemon
// in single-user mode: a tree of every kind of entry and a copy of
// /usr/include backed up, listed, restored and compared entry by entry with
// their sources; acknowledgements, renewals, restart points and old servers
// on the way; selection and estimate; conflict policies, partial restores,
// damaged archives and refused jobs with their exit statuses; compare
// verdicts in words and deleting grooming after a backup or a compare; the
// --json output of every command that has it.
#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "scratch_base.h"
#include "e2e/tavikctl_run.h"
#include "frontend/json_output.h"

namespace {

using namespace tavik::test;

constexpr time_t kArchived = 1400000000;

class TavikctlTest : public ::testing::Test {
protected:
    // Real time-outs: tavikctl answers as a front-end would, at its own pace.
    void SetUp() override { ASSERT_TRUE(daemon_.start({"-v", "-S"}, {})); }
    std::string at(const std::string& rel) const { return tree_.path(rel); }
    // tavikctl with `args` and the daemon's port.
    Output ctl(const std::string& args) const { return tavikctl(args + " --port " + std::to_string(daemon_.port())); }
    // The jobs: tavikctl gives up after a minute without a word from the
    // agent, so that a fault that stalls the exchange fails the case.
    Output backup(const std::string& extra = "", const std::string& source = "") const {
        return ctl("backup 127.0.0.1:" + (source.empty() ? tree_.dir() : source) + " -o " + archive_ + kLimit + extra);
    }
    Output restore(const std::string& extra = "", const std::string& archive = "") const {
        return ctl("restore " + (archive.empty() ? archive_ : archive) + " 127.0.0.1:" + dest_ + kLimit + extra);
    }
    Output compare(const std::string& extra = "", const std::string& target = "") const {
        return ctl("compare " + archive_ + " 127.0.0.1:" + (target.empty() ? tree_.dir() : target) + kLimit + " " +
                   extra);
    }
    static constexpr const char* kLimit = " --timeout 60";
    static Output list(const std::string& archive) { return tavikctl("list --verify " + archive); }
    // The archive verifies and lists `entries` lines.
    void expectListed(size_t entries) const {
        Output l = list(archive_);
        EXPECT_TRUE(exited(l, 0));
        EXPECT_EQ(lines(l.out).size(), entries) << l.out;
    }
    // Backs `source` up, lists the archive, restores it into dest_ and
    // compares dest_ with the source entry by entry: listed under its path
    // (a directory with its "/", a link with its target), type, content,
    // mode, owner, group, modification time, link target, device number,
    // link count and which names share an inode. A restore carries no
    // directory times and no symbolic link's times. Returns the number of
    // entries compared; each difference is a failure (the first 20 shown).
    size_t roundTrip(const std::string& source) {
        auto src = entries(source);
        const size_t count = src.size() + 1;  // and the source itself
        EXPECT_TRUE(exited(backup("", source), 0, " " + std::to_string(count) + " entries"));
        listed_ = list(archive_);
        EXPECT_TRUE(exited(listed_, 0, "checksum good"));
        std::set<std::string> listed;  // each line from the path on
        for (const std::string& line : lines(listed_.out))
            listed.insert(line.substr(std::min(line.find(source), line.size())));
        EXPECT_EQ(listed.size(), count);
        EXPECT_EQ(listed.count(source + "/"), 1u);
        EXPECT_TRUE(exited(restore(), 0, " 0 failed"));

        auto dst = entries(dest_);
        size_t differences = 0;
        auto differ = [&](const std::string& path, const std::string& what) {
            if (++differences <= 20) ADD_FAILURE() << path << ": " << what;
        };
        std::map<std::pair<dev_t, ino_t>, std::string> firstName;  // source inode -> first name met
        for (const auto& [path, s] : src) {
            std::string from = source + "/" + path, to = dest_ + "/" + path;
            bool link = S_ISLNK(s.st_mode), dir = S_ISDIR(s.st_mode);
            if (!listed.count(from + (dir ? "/" : link ? " -> " + linkText(from) : ""))) differ(path, "not listed");
            auto it = dst.find(path);
            if (it == dst.end() || (s.st_mode & S_IFMT) != (it->second.st_mode & S_IFMT)) {
                differ(path, "missing, or another type");
                continue;
            }
            const struct stat& r = it->second;
            if (!link && (s.st_mode & 07777) != (r.st_mode & 07777)) differ(path, "mode differs");
            if (s.st_uid != r.st_uid || s.st_gid != r.st_gid) differ(path, "owner or group differs");
            if (!link && !dir && s.st_mtime != r.st_mtime) differ(path, "modification time differs");
            if (S_ISREG(s.st_mode) && readFile(from) != readFile(to)) differ(path, "content differs");
            if (link && linkText(from) != linkText(to)) differ(path, "link target differs");
            if ((S_ISCHR(s.st_mode) || S_ISBLK(s.st_mode)) && s.st_rdev != r.st_rdev) differ(path, "device differs");
            if (dir) continue;
            if (s.st_nlink != r.st_nlink) differ(path, "link count differs");
            auto [first, isNew] = firstName.emplace(std::make_pair(s.st_dev, s.st_ino), path);
            if (!isNew && dst.at(first->second).st_ino != r.st_ino)
                differ(path, "not the same file as " + first->second);
        }
        for (const auto& [path, r] : dst)
            if (!src.count(path)) differ(path, "not in the source");
        return src.size();
    }
    // Every name below `root` (not root itself), relative, with its lstat.
    static std::map<std::string, struct stat> entries(const std::string& root) {
        std::map<std::string, struct stat> out;
        for (const auto& e : std::filesystem::recursive_directory_iterator(root))
            out[e.path().string().substr(root.size() + 1)] = statOf(e.path());
        return out;
    }
    static std::string linkText(const std::string& path) { return std::filesystem::read_symlink(path).string(); }

    Daemon daemon_;
    Tree scratch_, tree_;
    std::string archive_ = scratch_.path("tree.tvk"), dest_ = scratch_.path("dest");
    Output listed_;
};

TEST_F(TavikctlTest, EveryKindOfEntryRoundTripsAndIsListed) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: device nodes and foreign owners";
    // Sizes around the 2048-byte payload and several MiB.
    tree_.file("empty", "");
    tree_.file("one", "x");
    for (int i = 0; i < 3; ++i) tree_.file("p204" + std::to_string(7 + i), pattern(2047 + size_t(i), unsigned(i)));
    tree_.file("big", pattern(5 * 1024 * 1024 + 17, 4), 0644, 1500000000);
    // Names: spaces, UTF-8, bytes that are not UTF-8, 200 characters.
    tree_.file("with  spaces in it ", "spaces");
    tree_.file("gr\xc3\xbc\xc3\x9f \xe6\x97\xa5\xe6\x9c\xac", "utf-8");
    tree_.file("latin1-\xe9\xff\xfe", "not utf-8");
    tree_.file(std::string(200, 'n'), "long name");
    // Deep directories.
    std::string deep = "deep";
    tree_.dir(deep);
    for (int i = 0; i < 30; ++i) tree_.dir(deep += "/level" + std::to_string(i), 0750);
    tree_.file(deep + "/bottom", "at the bottom");
    // Symbolic links: absolute, relative, dangling (given away); hard links
    // within a directory and across directories (three names).
    tree_.file("linked", pattern(10000, 5));
    tree_.dir("other");
    tree_.file("other/pair", "pair");
    for (auto [target, name] : {std::pair{"/usr/lib", "abs-link"}, {"../one", "deep/rel-link"},
                                {"nowhere/at/all", "dangling"}})
        ASSERT_EQ(symlink(target, at(name).c_str()), 0);
    ASSERT_EQ(lchown(at("dangling").c_str(), 4321, 5432), 0);
    for (auto [existing, name] : {std::pair{"linked", "linked-too"}, {"linked", "other/linked-elsewhere"},
                                  {"other/pair", "deep/level0/pair"}})
        ASSERT_EQ(link(at(existing).c_str(), at(name).c_str()), 0);
    // Special files.
    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0640), 0);
    ASSERT_EQ(mknod(at("chardev").c_str(), S_IFCHR | 0620, makedev(1, 3)), 0);
    // Set-user-id, set-group-id, sticky; foreign owners.
    tree_.file("suid", "s", 04755, 1300000000);
    tree_.file("sgid", "g");
    tree_.dir("sticky", 01777);
    tree_.dir("setgid-dir", 02775);
    tree_.file("foreign", "owned by someone else", 0604);
    for (auto [name, uid, gid] : {std::tuple{"sgid", 1234, 2345}, {"setgid-dir", 3456, 4567}, {"foreign", 12345, 23456}})
        ASSERT_EQ(chown(at(name).c_str(), uid, gid), 0);
    tree_.file("setgid-dir/inside", "inside");  // takes the directory's group
    // Set-group-id after chown, which clears it on a file.
    ASSERT_EQ(chmod(at("sgid").c_str(), 02751), 0);

    EXPECT_EQ(roundTrip(tree_.dir()), 59u);
    EXPECT_TRUE(has(listed_.out, "-rw-r--r-- 0/0       2049 ")) << listed_.out;
    EXPECT_TRUE(has(listed_.out, "prw-r----- 0/0          0 ")) << listed_.out;
    // An archive of several MiB (more than the writer's buffer) may go to a device.
    EXPECT_TRUE(exited(ctl("backup 127.0.0.1:" + tree_.dir() + " -o /dev/null"), 0));
}

TEST_F(TavikctlTest, UsrIncludeRoundTripsIdentically) {
    if (statOf("/usr/include").st_mode == 0) GTEST_SKIP() << "no /usr/include";
    // A copy, so that the backup's access-time resets touch nothing of the system.
    ASSERT_EQ(std::system(("cp -a /usr/include '" + at("include") + "'").c_str()), 0);
    size_t compared = roundTrip(at("include"));
    std::printf("[ round trip ] %zu entries of /usr/include compared\n", compared);
    EXPECT_GT(compared, 1000u);
}

// A file above 4 GiB (sparse, with data at its start, across the 4 GiB mark
// and at its end): its record carries the size's low 32 bits, its data
// goes whole, and it backs up, restores and compares identical.
TEST_F(TavikctlTest, AFileAbove4GiBRoundTripsIdentically) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "4 GiB through the sanitizers reaches no code the other round trips do not";
#endif
    constexpr off_t kSize = (off_t(4) << 30) + 5000;
    // The archive and the restored copy in memory where there is room.
    Tree place(std::string(tavik::testing::scratchBase()) + "/tavik-e2e-4g-XXXXXX");
    struct statvfs fs {};
    if (statvfs(place.dir().c_str(), &fs) != 0 || fs.f_bavail * fs.f_frsize < (uint64_t(12) << 30))
        GTEST_SKIP() << "needs 12 GiB free for the archive and the restored copy";
    archive_ = place.path("big.tvk");
    dest_ = place.path("dest");
    const std::pair<off_t, std::string> marks[] = {
        {0, pattern(3000, 1)}, {(off_t(4) << 30) - 1000, pattern(3000, 2)}, {kSize - 3000, pattern(3000, 3)}};
    int fd = open(at("big").c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    for (const auto& [offset, mark] : marks) ASSERT_EQ(pwrite(fd, mark.data(), 3000, offset), 3000);
    close(fd);
    ASSERT_TRUE(exited(backup(), 0));
    ASSERT_TRUE(exited(restore(), 0));
    std::string copy = dest_ + "/big";
    EXPECT_EQ(statOf(copy).st_size, kSize);
    fd = open(copy.c_str(), O_RDONLY);
    for (const auto& [offset, mark] : marks) {
        std::string read(3000, '\0');
        EXPECT_EQ(pread(fd, read.data(), 3000, offset), 3000);
        EXPECT_EQ(read, mark) << offset;
    }
    close(fd);
    EXPECT_TRUE(exited(compare("", dest_), 0));
    unlink(copy.c_str());
    unlink(archive_.c_str());
}

TEST_F(TavikctlTest, BackupOptionsRestartPointsOldServersEstimateAndRefusals) {
    // 10 entries, 7 of them sent with data.
    tree_.file("empty", "");
    tree_.file("two-chunks", std::string(4096, 'a'));
    tree_.file("odd", std::string(4097, 'b'));
    for (const char* d : {"sub", "sub/deeper", "sub/empty-dir"}) tree_.dir(d);
    tree_.file("sub/notes.txt", "some notes\n");
    tree_.file("sub/deeper/x.c", std::string(10000, 'x'));
    symlink("/usr/lib", at("sub/lnk").c_str());
    mkfifo(at("fifo").c_str(), 0644);
    const size_t count = entries(tree_.dir()).size() + 1;
    // empty, two-chunks, odd, fifo, notes.txt, x.c, lnk: 0+4096+4097+0+11+10000+8 bytes.
    ASSERT_TRUE(printed(ctl("estimate 127.0.0.1:" + tree_.dir()), 0, "7 files, 17 kilobytes\n"));

    ASSERT_TRUE(exited(backup(" --include-file '*.c'"), 0));
    Output l = list(archive_);
    ASSERT_TRUE(exited(l, 0));
    EXPECT_TRUE(has(l.out, "/sub/deeper/x.c\n")) << l.out;
    EXPECT_FALSE(has(l.out, "/odd\n")) << l.out;

    // Resume inside the last file sent (sub/deeper/x.c, 10000 bytes): its
    // remaining data come first, without a file header, then the closes.
    ASSERT_TRUE(exited(backup(" --restart " + at("sub/deeper/x.c") + ":6000"), 0, "4000 bytes of data"));
    EXPECT_TRUE(exited(list(archive_), 0));
    // A server of version 49 gets no source header: every entry but the
    // source is listed.
    ASSERT_TRUE(exited(backup(" --server-version 49"), 0));
    expectListed(count - 1);

    EXPECT_TRUE(exited(ctl("backup 127.0.0.1:relative/path -o " + archive_), 2));  // not HOST:/path
    unlink(archive_.c_str());
    EXPECT_TRUE(exited(backup("", at("no-such-dir")), 1, "job refused"));
    EXPECT_TRUE(exited(list(archive_), 1));

    // Renew every 2 files and every 4 KB; acknowledge every 3 packets; the
    // agent's 8192-byte buffer kept for the job.
    daemon_.stop();
    ASSERT_TRUE(daemon_.start({"-v", "-S", "-R", "2", "-r", "4", "-b", "8192"}, {}));
    ASSERT_TRUE(exited(backup(" --renew --ack 3 --buffer-from-agent --watchdog"), 0,
                       ", 5 connection renewals, 6 acknowledgements\n"));
    EXPECT_TRUE(daemon_.waitForLog("New TCP fd=")) << daemon_.log();
    expectListed(count);
    // Without --renew the same daemon keeps one connection.
    Output b = backup();
    EXPECT_TRUE(exited(b, 0));
    EXPECT_FALSE(has(b.err, "renewals")) << b.err;
}

class TavikctlCompare : public TavikctlTest {
protected:
    void SetUp() override {
        TavikctlTest::SetUp();
        tree_.dir("sub");
        tree_.file("a.txt", "alpha\n");
        tree_.file("sub/b.txt", std::string(5000, 'b'));
        tree_.file("sub/c.txt", "gamma");
        ASSERT_EQ(symlink("a.txt", at("link").c_str()), 0);
        ASSERT_TRUE(exited(backup(), 0));
    }
};

TEST_F(TavikctlCompare, UnchangedAndRestoredTreesAreIdenticalChangesAreNamedInWords) {
    EXPECT_TRUE(printed(compare(), 0, "4 identical, 0 different, 0 unreadable\n"));
    EXPECT_TRUE(printed(compare("--directories"), 0, "5 identical, 0 different, 0 unreadable\n"));
    ASSERT_TRUE(exited(restore(), 0));
    EXPECT_TRUE(printed(compare("--detailed", dest_), 0, "4 identical, 0 different, 0 unreadable\n"));

    // Differences are named in words.
    tree_.file("a.txt", "ALPHA\n", 0644, statOf(at("a.txt")).st_mtime);  // same size and time, other contents
    ASSERT_EQ(chmod(at("sub/c.txt").c_str(), 0600), 0);
    ASSERT_EQ(unlink(at("sub/b.txt").c_str()), 0);
    Output r = compare();
    EXPECT_EQ(r.status, 1);
    for (const char* line : {"a.txt: contents differ\n", "sub/b.txt: missing or cannot be examined\n",
                             "sub/c.txt: attributes differ\n", "1 identical, 3 different, 0 unreadable\n"})
        EXPECT_TRUE(has(r.out, line)) << line << r.out;
    EXPECT_TRUE(printed(compare("--detailed sub/c.txt"), 1,
                        "sub/c.txt: mode differs\n0 identical, 1 different, 0 unreadable\n"));
}

// The compare's grooming removes the identical files; a backup's, every
// file it backed up.
TEST_F(TavikctlCompare, DeletingGroomingRemovesTheIdenticalFilesAndReportsThem) {
    tree_.file("sub/c.txt", "GAMMA");  // differs: must survive the compare's grooming
    Output r = compare("--groom delete");
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_TRUE(has(r.out, "grooming: ")) << r.out;
    EXPECT_TRUE(has(r.out, at("sub/b.txt"))) << r.out;
    EXPECT_EQ(statOf(at("sub/b.txt")).st_mode, 0u);
    EXPECT_TRUE(S_ISREG(statOf(at("sub/c.txt")).st_mode));
    r = backup(" --groom delete");
    EXPECT_TRUE(exited(r, 0, "grooming: 1 files"));
    EXPECT_TRUE(has(r.err, at("sub/c.txt"))) << r.err;
    EXPECT_EQ(statOf(at("sub/c.txt")).st_mode, 0u);
    EXPECT_TRUE(exited(list(archive_), 0));
}

// --json: every line of standard output is one object; the fields carry
// what the lines in words say, and the exit statuses stay.
TEST_F(TavikctlCompare, JsonOutputIsOneObjectPerEntryOrRun) {
    using tavik::frontend::Json;
    auto objects = [](const std::string& text) {
        std::vector<Json> out;
        for (const std::string& line : lines(text)) out.push_back(Json::parse(line));
        return out;
    };
    const std::string port = std::to_string(daemon_.port()), src = " 127.0.0.1:" + tree_.dir();
    struct Case {
        std::string command;  // --json and the port are added
        int status;
        const char* field;  // of the one object on standard output
        Json value;         // null: the field is there
    };
    const Case cases[] = {
        {"query 127.0.0.1:" + port, 0, "system", "Linux"},
        {"estimate" + src, 0, "files", 4},
        {"backup" + src + " -o " + archive_, 0, "entries", 6},
        {"backup 127.0.0.1:" + at("none") + " -o " + scratch_.path("x.tvk"), 1, "error", nullptr},
        {"compare " + archive_ + src + " --directories", 0, "identical", 5},
        {"restore " + archive_ + " 127.0.0.1:" + dest_, 0, "restored", 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.command);
        Output r = tavikctl(c.command + " --json" + (c.command.starts_with("query") ? "" : " --port " + port));
        EXPECT_EQ(r.status, c.status) << r.err;
        std::vector<Json> got = objects(r.out);
        ASSERT_EQ(got.size(), 1u) << r.out;
        EXPECT_TRUE(c.value.is_null() ? got[0].contains(c.field) : got[0][c.field] == c.value) << r.out;
    }

    // list: one object per entry, fields in their documented order, a link
    // with its target; then the verdict.
    Output l = tavikctl("list --verify --json " + archive_);
    ASSERT_EQ(l.status, 0) << l.err;
    std::vector<Json> listed = objects(l.out);
    ASSERT_EQ(listed.size(), 7u) << l.out;
    auto entry = [&](const std::string& rel) {
        for (const Json& o : listed)
            if (o["path"] == at(rel)) return o;
        return Json();
    };
    EXPECT_EQ(entry("sub/c.txt"), (Json{{"record", "entry"}, {"path", at("sub/c.txt")}, {"type", "file"},
                                        {"mode", "0644"}, {"uid", getuid()}, {"gid", getgid()}, {"size", 5},
                                        {"mtime", statOf(at("sub/c.txt")).st_mtime}}));
    EXPECT_EQ(entry("link")["target"], "a.txt");
    EXPECT_EQ(entry("sub")["type"], "directory");
    EXPECT_EQ(listed.back()["record"], "verify");
    EXPECT_EQ(listed.back()["entries"], 6);

    // compare: each difference, then the counts; exit 1.
    tree_.file("a.txt", "ALPHA\n", 0644, statOf(at("a.txt")).st_mtime);
    Output c = tavikctl("compare --json " + archive_ + src + " --port " + port);
    EXPECT_EQ(c.status, 1);
    std::vector<Json> compared = objects(c.out);
    ASSERT_EQ(compared.size(), 2u) << c.out;
    EXPECT_EQ(compared[0], (Json{{"record", "difference"}, {"path", "a.txt"}, {"verdict", "contents differ"},
                                 {"code", compared[0]["code"]}, {"unreadable", false}}));
    EXPECT_EQ(compared[1], (Json{{"record", "summary"}, {"identical", 3}, {"different", 1}, {"unreadable", 0}}));

    // restore: a directory in the way fails one file; the summary names it.
    std::filesystem::remove_all(dest_);
    ASSERT_EQ(mkdir(dest_.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((dest_ + "/a.txt").c_str(), 0755), 0);
    Output r = tavikctl("restore " + archive_ + " 127.0.0.1:" + dest_ + " --json --port " + port);
    EXPECT_EQ(r.status, 1);
    Json restored = Json::parse(r.out);
    EXPECT_EQ(restored["ok"], false);
    EXPECT_EQ(restored["failed"], 1);
    EXPECT_EQ(restored["failures"][0]["path"], dest_ + "/a.txt");

    // backup to standard output: the summary goes to standard error.
    Output piped = tavikctl("backup" + src + " -o - --json --port " + port);
    EXPECT_EQ(piped.status, 0);
    EXPECT_EQ(piped.out.substr(0, 8), "TAVIKARC");
    EXPECT_EQ(Json::parse(piped.err)["complete"], true) << piped.err;
}

// A damaged archive is refused before the agent hears of it: no job is
// started, no destination made.
TEST_F(TavikctlCompare, DamagedArchivesAreRefusedBeforeAnythingIsSent) {
    std::string data = readFile(archive_);
    ASSERT_GT(data.size(), 200u);
    struct Damage {
        const char* what;
        size_t at;  // byte flipped; npos: cut the trailer off
    };
    for (const Damage& d : {Damage{"body byte", data.size() / 2}, Damage{"header byte", 16},
                            Damage{"byte 40", 40}, Damage{"cut", std::string::npos}}) {
        SCOPED_TRACE(d.what);
        std::string bad = data;
        if (d.at == std::string::npos) bad.resize(bad.size() - 40);
        else bad[d.at] = static_cast<char>(bad[d.at] ^ 0x20);
        std::string path = scratch_.path("damaged.tvk");
        writeFile(path, bad);
        EXPECT_TRUE(exited(restore("", path), 1, "is damaged, nothing was restored"));
        EXPECT_TRUE(exited(ctl("compare " + path + " 127.0.0.1:" + tree_.dir()), 2, "damaged archive"));
    }
    EXPECT_EQ(statOf(dest_).st_mode, 0u);
    EXPECT_FALSE(has(daemon_.log(), "Start Restore Job")) << daemon_.log();
    EXPECT_FALSE(has(daemon_.log(), "Start Compare Job")) << daemon_.log();
}

class TavikctlRestore : public TavikctlTest {
protected:
    void SetUp() override {
        TavikctlTest::SetUp();
        tree_.file("f", "archived", 0644, kArchived);
        tree_.file("g", "archived g", 0644, kArchived);
        tree_.dir("sub", 0750);
        tree_.dir("sub/deeper", 0700);
        tree_.file("sub/deeper/x", std::string(5000, 'x'), 0644, kArchived);
        tree_.file("sub/y", "y", 0644, kArchived);
        tree_.dir("other");
        tree_.file("other/z", "z", 0644, kArchived);
        ASSERT_TRUE(exited(backup(), 0));
    }
};

TEST_F(TavikctlRestore, ConflictPoliciesDecideAboutFilesAlreadyThere) {
    struct Case {
        const char* option;
        const char* f;
        const char* g;
        const char* fRenamed;  // f.AS1, or null when none is made
        const char* counts;
    };
    const Case cases[] = {
        {"", "archived", "archived g", nullptr, "5 files (5 restored, 0 skipped, 0 failed)"},  // overwrite by default
        {" --conflict overwrite", "archived", "archived g", nullptr, "5 files (5 restored, 0 skipped"},
        {" --conflict skip", "older on disk", "newer on disk", nullptr, "5 files (3 restored, 2 skipped, 0 failed)"},
        {" --conflict newer", "archived", "newer on disk", nullptr, "5 files (4 restored, 1 skipped, 0 failed)"},
        {" --conflict rename", "older on disk", "newer on disk", "archived", "5 files (5 restored, 0 skipped"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.option);
        std::system(("rm -rf '" + dest_ + "'").c_str());
        ASSERT_EQ(mkdir(dest_.c_str(), 0755), 0);
        writeFile(dest_ + "/f", "older on disk", kArchived - 100);
        writeFile(dest_ + "/g", "newer on disk", kArchived + 100);
        EXPECT_TRUE(exited(restore(c.option), 0, c.counts));
        EXPECT_EQ(readFile(dest_ + "/f"), c.f);
        EXPECT_EQ(readFile(dest_ + "/g"), c.g);
        EXPECT_EQ(readFile(dest_ + "/f.AS1"), c.fRenamed ? c.fRenamed : "");
        EXPECT_EQ(statOf(dest_ + "/f.AS1").st_mode != 0, c.fRenamed != nullptr);
        EXPECT_EQ(readFile(dest_ + "/sub/deeper/x"), std::string(5000, 'x'));
    }
    EXPECT_TRUE(exited(restore(" --conflict sometimes"), 2, "--conflict takes skip, rename, overwrite or newer"));
}

TEST_F(TavikctlRestore, PathArgumentsRestoreOnlyThoseParts) {
    // One path relative to the source, one with the source in front.
    ASSERT_TRUE(exited(restore(" sub/deeper " + at("f/")), 0, "2 files (2 restored"));
    EXPECT_EQ(readFile(dest_ + "/f"), "archived");
    EXPECT_EQ(readFile(dest_ + "/sub/deeper/x"), std::string(5000, 'x'));
    for (const char* absent : {"/g", "/sub/y", "/other"}) EXPECT_EQ(statOf(dest_ + absent).st_mode, 0u) << absent;
    // The directories on the way keep their own modes.
    EXPECT_EQ(statOf(dest_ + "/sub").st_mode, mode_t(040750));
    EXPECT_EQ(statOf(dest_ + "/sub/deeper").st_mode, mode_t(040700));

    // A path the archive does not hold is named, and fails the command; a
    // path selects no longer name it is the start of.
    std::filesystem::remove_all(dest_);
    Output missing = restore(" other no/such/thing sub/deep");
    EXPECT_TRUE(exited(missing, 1, "not in the archive: " + at("no/such/thing")));
    EXPECT_TRUE(has(missing.err, "not in the archive: " + at("sub/deep\n"))) << missing.err;
    EXPECT_EQ(readFile(dest_ + "/other/z"), "z");
    EXPECT_EQ(statOf(dest_ + "/sub/deeper").st_mode, 0u);
    // Paths outside the source, or with empty, "." or ".." components.
    for (auto [path, words] : {std::pair{" /elsewhere/f", "is not below the archive's source"},
                               {" a/../b", "holds an empty, '.' or '..' component"},
                               {" a//b", "holds an empty"}, {" ./a", "holds an empty"}})
        EXPECT_TRUE(exited(restore(path), 2, words)) << path;
}

TEST_F(TavikctlRestore, RefusalsFailuresAndUsageErrors) {
    // A directory where the archive has the file f: the agent answers 'j'.
    ASSERT_EQ(mkdir(dest_.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((dest_ + "/f").c_str(), 0755), 0);
    Output r = restore();
    EXPECT_TRUE(exited(r, 1,
                       "not restored: " + dest_ + "/f: cannot be created, or a directory of that name is in the way"));
    EXPECT_TRUE(has(r.err, "5 files (4 restored, 0 skipped, 1 failed)")) << r.err;
    // Everything after it still came back.
    EXPECT_EQ(readFile(dest_ + "/g"), "archived g");
    EXPECT_EQ(readFile(dest_ + "/other/z"), "z");

    // A destination that is not absolute; no destination at all.
    EXPECT_TRUE(exited(ctl("restore " + archive_ + " 127.0.0.1:relative"), 2));
    EXPECT_TRUE(exited(tavikctl("restore " + archive_), 2, "usage: tavikctl restore ARCHIVE HOST:/dest"));
    // A destination below a regular file cannot be made: 105.
    EXPECT_TRUE(exited(ctl("restore " + archive_ + " 127.0.0.1:" + at("f/below")), 1,
                       "job refused: the destination could not be made or entered (105)"));
}

}  // namespace
