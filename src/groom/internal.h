// Grooming's process state, shared by gr_lib and gr_cntl only.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <ctime>
#include <string>

#include "groom/groom.h"

namespace tavik::groom::detail {

struct GroomState {
    int kind = 0;
    std::string workFile;           // chosen by BeginGrooming
    int workFd = -1;                // -1 not yet opened, -2 could not be opened
    std::string copyFile;
    std::string candidatesFile;
    FILE* candidates = nullptr;
    std::string sortedFile;         // set only while EndGrooming runs
    int sequence = 1;
    time_t startTime = 0;
    time_t ageLimit = 0;
    GroomList protectedList;
    int groomedCount = 0;
    time_t controlFileTime = 0;
    GroomingRecord record;
    pid_t owner = -1;               // the process whose temporary files these are
};

GroomState& state();

}  // namespace tavik::groom::detail
