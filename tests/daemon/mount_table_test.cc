// The mount-table walk: fs.cntl's format (comments, trimming, case, the
// built-in list only when the file is missing, read once), the table's
// records (escapes, texts cut to the record's widths, no mount time), and
// the kernel's own table.
#include "daemon/mount_table.h"

#include <mntent.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "daemon/scratch_home.h"

namespace {

using tavik::MountRecord;
using tavik::MountTable;
using tavik::testing::ScratchHome;

std::vector<std::string> skipped(const MountTable& t) { return {t.skippedTypes().begin(), t.skippedTypes().end()}; }

std::vector<MountRecord> walk(MountTable& t) {
    std::vector<MountRecord> out;
    while (auto r = t.nextMount()) out.push_back(*r);
    return out;
}

class MountTableTest : public ::testing::Test {
protected:
    std::string write(const std::string& name, const std::string& text) {
        std::string path = home_.dir() + "/" + name;
        std::ofstream(path) << text;
        return path;
    }
    ScratchHome home_;
};

TEST_F(MountTableTest, FsCntlFormat) {
    struct Case {
        const char* name;
        const char* text;  // nullptr: no file
        std::vector<std::string> expected;
    };
    const std::vector<Case> cases{
        {"missing file", nullptr, {"fdfs", "processorfs", "proc"}},
        {"comments only", "# nothing here\n#proc\n", {}},
        {"trimmed, newest first", "# skip\n  NFS \t\n\n\x01sysfs\x02\r\n cgroup2\ndevpts", {"devpts", "cgroup2", "sysfs", "NFS"}},
        {"blank lines and a hash inside", "\n \t\nfuse#x\n #not a comment\n", {"#not a comment", "fuse#x"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::remove((home_.dir() + "/fs.cntl").c_str());
        if (c.text) write("fs.cntl", c.text);
        MountTable table(write("mounts", ""));
        ASSERT_EQ(table.openMountTable(home_.dir()), 0);
        EXPECT_EQ(skipped(table), c.expected);
    }
}

TEST_F(MountTableTest, TypesCompareWithoutCaseAndTheListIsReadOnce) {
    write("fs.cntl", "Nfs\n");
    MountTable table(write("mounts", "srv:/x /mnt/x nfs rw 0 0\n/dev/a / ext4 rw 0 0\nsrv:/y /mnt/y NFS rw 0 0\n"));
    ASSERT_EQ(table.openMountTable(home_.dir()), 0);
    EXPECT_TRUE(table.isSkippedType("NFS"));
    EXPECT_TRUE(table.isSkippedType("nfs"));
    EXPECT_FALSE(table.isSkippedType("nfs4"));
    EXPECT_FALSE(table.isSkippedType("proc"));  // a present file replaces the built-in list
    std::vector<MountRecord> records = walk(table);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].mountPoint, "/");

    // A later open does not read fs.cntl again, and starts the table anew.
    write("fs.cntl", "ext4\n");
    ASSERT_EQ(table.openMountTable(home_.dir()), 0);
    EXPECT_EQ(walk(table).size(), 1u);
    table.closeMountTable();
    EXPECT_FALSE(table.nextMount());
}

TEST_F(MountTableTest, RecordsFromTheTable) {
    std::string longPoint = "/" + std::string(300, 'm');
    std::string longType(40, 't');
    std::string longSpecial(300, 's');
    MountTable table(write("mounts", "/dev/sda1 /with\\040blank ext4 rw,relatime 0 0\n" + longSpecial + " " + longPoint +
                                         " " + longType + " rw 0 0\n# a comment line\n"));
    ASSERT_EQ(table.openMountTable(home_.dir()), 0);
    std::vector<MountRecord> records = walk(table);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].special, "/dev/sda1");
    EXPECT_EQ(records[0].mountPoint, "/with blank");
    EXPECT_EQ(records[0].type, "ext4");
    EXPECT_EQ(records[0].mountTime, 0u);  // Linux keeps none
    EXPECT_EQ(records[1].special, longSpecial.substr(0, 255));
    EXPECT_EQ(records[1].mountPoint, longPoint.substr(0, 255));
    EXPECT_EQ(records[1].type, longType.substr(0, 31));

    MountTable missing(home_.dir() + "/no-such-table");
    EXPECT_EQ(missing.openMountTable(home_.dir()), -1);
    EXPECT_FALSE(missing.nextMount());
}

TEST_F(MountTableTest, KernelTableLessTheBuiltInTypes) {
    MountTable table;
    ASSERT_EQ(table.openMountTable(home_.dir()), 0);
    std::vector<MountRecord> records = walk(table);
    std::vector<std::string> expected;
    FILE* f = setmntent("/proc/self/mounts", "r");
    ASSERT_NE(f, nullptr);
    while (const mntent* m = getmntent(f))
        if (std::string(m->mnt_type) != "proc") expected.push_back(m->mnt_dir);
    endmntent(f);
    std::vector<std::string> got;
    for (const MountRecord& r : records) got.push_back(r.mountPoint);
    EXPECT_EQ(got, expected);
    EXPECT_FALSE(got.empty());
}

}  // namespace
