#include "backup/attribute_record.h"

#include "platform/wire_stat.h"

namespace tavik::backup {

protocol::BackupAttributes attributesFromStat(const struct stat& st, std::string_view name, uint8_t kind,
                                    platform::InodeNumbering& inodes) {
    protocol::BackupAttributes a;
    a.dev = platform::encodeDev32(st.st_dev);
    a.ino = inodes.wireInode(st.st_dev, st.st_ino, st.st_nlink);
    a.mode = uint32_t(st.st_mode);
    a.nlink = uint32_t(st.st_nlink);
    a.uid = int32_t(st.st_uid);
    a.gid = int32_t(st.st_gid);
    a.rdev = platform::encodeDev32(st.st_rdev);
    a.atime = platform::wireTime(st.st_atime);
    a.mtime = platform::wireTime(st.st_mtime);
    protocol::dosTimeDate(st.st_mtime, a.dosTime, a.dosDate);
    a.size = platform::wireSize(st.st_size);
    a.kind = kind;
    a.name.assign(name);
    return a;
}

}  // namespace tavik::backup
