// Attacks on what the administrator protects and on grooming's deletions, on
// a root agent started without -S: a protected directory named another way,
// a recorded directory swapped for a link before grooming deletes, and a
// rotation-set name that points out of LOG/. Each outcome is asserted on the
// wire, on disk and in the log.
#include <filesystem>

#include "e2e/test_user.h"
#include "platform/wire_stat.h"
#include "restore/restore_record.h"

namespace {

using namespace tavik::test;
namespace command = tavik::restore::command;
namespace fs = std::filesystem;

class SecurityProtectTest : public LoginJobTest {
protected:
    // A compare job that keeps root's identity (the login is trusted and
    // asks for it), grooming as `groom` says: the answer to the request.
    int beginRootCompare(const std::vector<uint8_t>& groom) {
        trust(user_.name());
        auto f = fields(work_, 2);
        f.runUnswitched = true;
        return begin(f, optionsRecord(2, 1), 0, groom);
    }
    int send(int8_t code, std::span<const uint8_t> payload = {}) {
        if (!client_.sendRaw(tavik::frontend::buildCommand(code, 0, payload))) return tavik::frontend::kNoAnswer;
        return code == command::kEnd ? tavik::frontend::kNoAnswer : client_.readAnswer();
    }
    // OPENFILE with what the disk says of `rel` now, then its data: both
    // answers (0 and 0 when identical).
    std::pair<int, int> compareFile(const std::string& rel) {
        using namespace tavik::platform;
        struct stat st = statOf(at(rel));
        tavik::restore::RestoreAttributes a{
            .dev = encodeDev32(st.st_dev), .ino = uint32_t(st.st_ino), .mode = st.st_mode,
            .nlink = uint32_t(st.st_nlink), .uid = st.st_uid, .gid = st.st_gid, .atime = wireTime(st.st_atime),
            .mtime = wireTime(st.st_mtime), .size = wireSize(st.st_size), .name = rel};
        std::string data = readFile(at(rel));
        int open = send(command::kOpenFile, tavik::restore::encodeRestoreAttributes(a));
        return {open, send(command::kEndf, {reinterpret_cast<const uint8_t*>(data.data()), data.size()})};
    }
    // END: with files groomed, code 14, the 16-byte count and the work file
    // (MOF packets and an ENDF), then 3. The count and the work file.
    std::pair<std::string, std::string> end() {
        EXPECT_TRUE(client_.sendRaw(tavik::frontend::buildCommand(command::kEnd, 0, {})));
        std::pair<std::string, std::string> report;
        int answer = client_.readAnswer();
        if (answer == 14) {
            std::array<uint8_t, 16> count{};
            EXPECT_TRUE(client_.recvRaw(count));
            report.first = reinterpret_cast<const char*>(count.data());
            for (int code = 7; code == 7;) {
                std::array<uint8_t, 8> h{};
                if (!client_.recvRaw(h)) break;
                code = h[2];
                std::string data(tavik::wire::loadLe16(&h[6]), '\0');
                if (!data.empty() && !client_.recvRaw({reinterpret_cast<uint8_t*>(data.data()), data.size()})) break;
                report.second += data;
            }
            answer = client_.readAnswer();
        }
        EXPECT_EQ(answer, 3);
        EXPECT_TRUE(agentCloses());
        return report;
    }
    void ownedLink(const std::string& target, const std::string& link, bool byLogin) const {
        ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0) << link;
        if (byLogin) lchown(link.c_str(), user_.uid(), user_.gid());
    }

    Tree scratch_;
};

// tvk.cntl names a directory once; every other name of it, and every
// directory below it, is refused all the same, whoever may read tvk.cntl.
TEST_F(SecurityProtectTest, ProtectedDirectoryHoldsHoweverItIsSpelled) {
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

// A root grooming records dir/f; before it deletes, dir becomes a link to a
// directory the login may not write that holds its own f. The deletion
// neither follows the login's link nor deletes in another directory than the
// one recorded.
TEST_F(SecurityProtectTest, GroomingDoesNotDeleteThroughASwappedDirectory) {
    for (const char* d : {"mine", "root"}) {
        scratch_.dir(d);
        scratch_.file(std::string(d) + "/f", "root's f");
        mkdir(at(d).c_str(), 0755);
        writeFile(at(std::string(d) + "/f"), "backed up");
    }
    writeFile(at("g"), "groomed");
    ASSERT_TRUE(startDaemon());
    ASSERT_EQ(beginRootCompare(groomingRecord(0x04)), 4);
    for (const char* rel : {"mine/f", "root/f", "g"}) EXPECT_EQ(compareFile(rel), std::make_pair(0, 0)) << rel;
    for (const char* d : {"mine", "root"}) {
        fs::rename(at(d), at(std::string(d) + "-moved"));
        ownedLink(scratch_.path(d), at(d), std::string(d) == "mine");  // the login's own link, and root's
    }

    auto [count, work] = end();
    EXPECT_EQ(count, "1");
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
TEST_F(SecurityProtectTest, GroomingSetNameStaysInTheLogDirectory) {
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
        EXPECT_EQ(end().first, "");
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
