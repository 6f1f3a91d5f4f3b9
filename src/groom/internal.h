// Grooming's process state, shared by gr_lib and gr_cntl only.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

#include "groom/groom.h"
#include "platform/file_identity.h"

namespace tavik::groom::detail {

// One candidate's identities: the file's device and inode, its directory's,
// each 64 bits little-endian, and its kind.
inline constexpr size_t kFileDevAt = 0;
inline constexpr size_t kFileInoAt = 8;
inline constexpr size_t kDirDevAt = 16;
inline constexpr size_t kDirInoAt = 24;
inline constexpr size_t kKindAt = 32;
inline constexpr size_t kIdentityRecordSize = 33;
inline constexpr uint8_t kKindFile = 1;
inline constexpr uint8_t kKindDirectory = 2;  // never deleted
inline constexpr size_t kIdentityBatch = 64;

struct GroomState {
    int kind = 0;
    std::string workFile;           // chosen by BeginGrooming
    int workFd = -1;                // -1 not yet opened, -2 could not be opened
    std::string copyFile;
    std::string candidatesFile;
    FILE* candidates = nullptr;
    // The identities of the candidates, a fixed-width record per sequence
    // number in a file removed as soon as it was made (the descriptor is
    // all that is left of it); records wait in `pending` until it is full.
    int identitiesFd = -1;
    std::array<uint8_t, kIdentityBatch * kIdentityRecordSize> pending{};
    size_t pendingCount = 0;
    // The directory the last file recorded without its directory's identity
    // lay in, and that identity ({0, 0}: it could not be reached).
    std::string lastDirectory;
    bool lastDirectoryKnown = false;
    platform::FileIdentity lastDirectoryId;
    std::string sortedFile;         // set only while EndGrooming runs
    pid_t sortPid = -1;             // the running "sort", for RemoveGroomingTempFiles
    int sequence = 1;
    time_t startTime = 0;
    time_t ageLimit = 0;
    GroomList protectedList;
    int groomedCount = 0;
    time_t controlFileTime = 0;
    protocol::GroomingRecord record;
    pid_t owner = -1;               // the process whose temporary files these are
};

GroomState& state();

}  // namespace tavik::groom::detail
