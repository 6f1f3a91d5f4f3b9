// Shared by the filter tests: a scratch home whose log lines can be read
// back, a fixed time zone, and small builders for times and stats.
#pragma once

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "daemon/scratch_home.h"
#include "daemon/state.h"

namespace filtertest {

// North American rules: daylight saving from the second Sunday of March to
// the first Sunday of November (2026: 8 March and 1 November).
inline constexpr const char* kNewYorkTz = "EST5EDT,M3.2.0,M11.1.0";

inline void setTimeZone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
}

// Seconds since 1970 of a UTC calendar time.
inline time_t utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    struct tm t {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    return timegm(&t);
}

inline struct stat statWithTimes(time_t mtime, time_t atime = 0, time_t ctime = 0) {
    struct stat st {};
    st.st_mtime = mtime;
    st.st_atime = atime;
    st.st_ctime = ctime;
    return st;
}

// A fixture with its own log file, TZ fixed to kNewYorkTz and verbose off.
class LoggedTest : public ::testing::Test {
protected:
    void SetUp() override {
        tavik::startupSettings().verbose = false;
        tavik::publishSettings();
        setTimeZone(kNewYorkTz);
    }
    void TearDown() override {
        tavik::startupSettings().verbose = false;
        tavik::publishSettings();
    }
    // The messages logged so far, without their date and process id.
    std::vector<std::string> logMessages() const {
        std::ifstream in(tavik::paths().logPath);
        std::vector<std::string> messages;
        for (std::string line; std::getline(in, line);) {
            const size_t dash = line.find(") - ");
            messages.push_back(dash == std::string::npos ? line : line.substr(dash + 4));
        }
        return messages;
    }
    tavik::testing::ScratchHome home_;
};

}  // namespace filtertest
