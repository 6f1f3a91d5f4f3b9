// Grooming as the front-end asks for it in a backup or a compare: the
// command-line options (--groom delete, --groom set NAME --months N), the
// GROOMING command's record and tape record, and sending it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "frontend/job_client.h"

namespace tavik::frontend {

enum class GroomKind { kNone, kDelete, kRotationSet };

struct GroomRequest {
    GroomKind kind = GroomKind::kNone;
    std::string set;      // rotation set name, at most 8 characters
    uint16_t months = 0;  // age limit of rotation-set grooming
};

inline constexpr const char* kGroomUsage = "--groom delete | --groom set NAME --months N";

// Takes --groom and --months (with their values) at args[i]; true when it
// took one (i then indexes its last word). A bad value sets `error`.
bool takeGroomOption(const std::vector<std::string>& args, size_t& i, GroomRequest& out, std::string& error);
// After the whole command line: false with `error` when the options do not fit together.
bool groomOptionsComplete(const GroomRequest& request, std::string& error);

// The GROOMING command's record: months, copies, filter items, options
// (0x02 rotation set, 0x04 delete) and the set name.
std::vector<uint8_t> encodeGroomRecord(const GroomRequest& request);

// Sends GROOMING (record and an empty tape record) unless no grooming was
// asked for; false with `error` when the agent refused it.
bool sendGrooming(JobClient& client, const GroomRequest& request, std::string& error);

}  // namespace tavik::frontend
