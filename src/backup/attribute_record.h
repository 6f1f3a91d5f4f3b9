// The backup attribute record of an entry, from its status: Linux's 64-bit
// stat fields mapped to the record's 32-bit fields (protocol/backup_record.h
// holds the record itself).
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string_view>

#include "protocol/backup_record.h"

namespace tavik::platform {
class InodeNumbering;
}

namespace tavik::backup {

// The record's fields for an entry, with Linux's 64-bit stat fields mapped
// to the 32-bit wire fields (inode numbers through the job's numbering).
protocol::BackupAttributes attributesFromStat(const struct stat& st, std::string_view name, uint8_t kind,
                                    platform::InodeNumbering& inodes);

}  // namespace tavik::backup
