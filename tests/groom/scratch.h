// Test support for the grooming library: a scratch tree that grooming may
// touch, and nothing else.
//
// Every test works under a fresh directory made with mkdtemp. Grooming's
// temporary files, the agent's home and log, the package information files
// and every recorded path lie under it. record() refuses any path outside it
// and abandons the grooming (its candidates are removed, so EndGrooming has
// nothing to delete), and endGrooming() checks every candidate line again
// before grooming ends: a test that would reach outside fails first.
// Dates are printed in UTC.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "daemon/scratch_home.h"
#include "daemon/state.h"
#include "groom/groom.h"

namespace groomtest {

namespace fs = std::filesystem;
namespace protocol = tavik::protocol;

using tavik::testing::readFile;

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::stringstream s(text);
    for (std::string line; std::getline(s, line);) out.push_back(line);
    return out;
}

class GroomScratch : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        char tmpl[] = "/tmp/groomtest-XXXXXX";
        char resolved[PATH_MAX];
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        ASSERT_NE(realpath(tmpl, resolved), nullptr);
        root_ = resolved;
        home_ = root_ + "/home";
        tree_ = root_ + "/tree";
        tmp_ = root_ + "/tmp";
        for (const std::string& d : {home_ + "/LOG", tree_, tmp_, root_ + "/pkg/var/sadm/pkg/Korvane",
                                     root_ + "/pkg/var/sadm/pkg/TAVIK"})
            fs::create_directories(d);
        chmod(tmp_.c_str(), 01777);
        chmod(root_.c_str(), 0755);  // a child that drops to nobody must reach the tree
        tavik::paths().deriveFrom(home_ + "/");
        tavik::groom::groomingEnvironment().tempDir = tmp_;
        tavik::groom::groomingEnvironment().packageRoot = root_ + "/pkg";
        tavik::groom::ResetGrooming();
    }

    void TearDown() override {
        tavik::groom::ResetGrooming();
        tavik::groom::groomingEnvironment() = tavik::groom::GroomingEnvironment{};
        std::error_code ec;
        fs::remove_all(root_, ec);
        unsetenv("TZ");
        tzset();
    }

    bool inScratch(const std::string& path) const { return path.rfind(root_ + "/", 0) == 0; }

    // Records `path` with its lstat status.
    void record(const std::string& path) {
        if (!inScratch(path)) {
            ADD_FAILURE() << "refusing to record " << path << " outside the scratch root " << root_;
            tavik::groom::RemoveGroomingTempFiles();
            return;
        }
        struct stat st;
        ASSERT_EQ(lstat(path.c_str(), &st), 0) << path;
        ASSERT_EQ(tavik::groom::RecordGrooming(path.c_str(), st), 0);
    }

    // EndGrooming, once every candidate is known to lie in the scratch root.
    int endGrooming() {
        for (const std::string& line : lines(readFile(tavik::groom::GroomingCandidatesFile()))) {
            if (!inScratch(line.substr(line.find(' ') + 1))) {
                ADD_FAILURE() << "candidate outside the scratch root: " << line;
                tavik::groom::RemoveGroomingTempFiles();
                return -99;
            }
        }
        return tavik::groom::EndGrooming();
    }

    // Begins a deleting grooming (which does not use the set name).
    int begin(const char* set = "") { return tavik::groom::BeginGrooming(logDir().c_str(), set, deleting(), tape()); }

    std::string makeFile(const std::string& rel, size_t size) {
        std::string path = tree_ + "/" + rel;
        fs::create_directories(fs::path(path).parent_path());
        writeFile(path, std::string(size, 'g'));
        return path;
    }

    static void setTimes(const std::string& path, time_t atime, time_t mtime) {
        struct timespec times[2] = {{atime, 0}, {mtime, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
    }

    static protocol::GroomingRecord deleting() { return {.fOptions = protocol::kGroomDelete, .rotationSet = ""}; }
    static protocol::GroomingRecord rotation() {
        return {.nMonths = 1, .fOptions = protocol::kGroomRotationSet, .rotationSet = "WEEKSET"};
    }
    static protocol::TapeRecord tape() { return {.tapeID = "T0001", .sessionNumber = "0042", .tapeName = "WEEKLY-07"}; }
    std::string logDir() const { return tavik::paths().logDir; }
    std::vector<std::string> tempFiles() const {
        std::vector<std::string> out;
        for (const auto& e : fs::directory_iterator(tmp_)) out.push_back(e.path().string());
        return out;
    }
    // The agent log's messages, without their date and process id.
    static std::vector<std::string> logMessages() {
        std::vector<std::string> out;
        for (const std::string& line : lines(readFile(tavik::paths().logPath)))
            out.push_back(line.substr(line.find(") - ") + 4));
        return out;
    }

    std::string root_, home_, tree_, tmp_;
};

}  // namespace groomtest
