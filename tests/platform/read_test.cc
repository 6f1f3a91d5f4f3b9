// Reading directories for the backup: every entry with its type, and the
// same listing after a rewind. (That reading leaves access times alone is
// asserted end to end by ProtectedDirectoriesAreLeftOutAndAccessTimesRestored.)
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <string>

#include "daemon/scratch_home.h"
#include "platform/dir_stream.h"

namespace {

using tavik::platform::DirStream;

std::map<std::string, unsigned char> list(DirStream& d) {
    std::map<std::string, unsigned char> out;
    errno = 0;
    while (const DirStream::Entry* e = d.next()) out[e->name] = e->type;
    EXPECT_EQ(errno, 0);
    return out;
}

TEST(ReadTest, DirectoryListsEveryEntryWithItsTypeAndAgainAfterRewind) {
    tavik::testing::ScratchHome home;
    auto at = [&](const std::string& name) { return home.dir() + "/" + name; };
    std::ofstream(at("file")) << "x";
    mkdir(at("sub").c_str(), 0755);
    symlink("file", at("link").c_str());
    mkfifo(at("fifo").c_str(), 0600);
    // Enough long names to take several reads of the buffer.
    for (int i = 0; i < 400; ++i) std::ofstream(at(std::string(200, 'n') + std::to_string(i)));

    DirStream d;
    ASSERT_TRUE(d.open(home.dir().c_str(), false));
    auto first = list(d);
    EXPECT_EQ(first.size(), 407u);  // the home's LOG folder included
    const std::map<std::string, unsigned char> kinds = {{".", DT_DIR},     {"..", DT_DIR},  {"file", DT_REG},
                                                        {"sub", DT_DIR},   {"link", DT_LNK}, {"fifo", DT_FIFO}};
    for (const auto& [name, type] : kinds) EXPECT_EQ(first[name], type) << name;
    ASSERT_TRUE(d.rewind());
    EXPECT_EQ(list(d), first);

    DirStream missing;
    EXPECT_FALSE(missing.open(at("none").c_str(), true));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(missing.open(at("file").c_str(), true));
    EXPECT_EQ(errno, ENOTDIR);
}

}  // namespace
