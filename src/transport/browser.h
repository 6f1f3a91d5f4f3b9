// The file-system browser: the browse job's request loop on the job
// connection. The server lists directories (READ_DIR with a selection), the
// mounted file systems (READ_DIR with an empty path, version 22 and later)
// and reads symbolic links (READ_LINK) until it logs out.
//
// Every packet is a big-endian protocol::BrowseHeader and its payload, sent and
// received with one usbSend/usbReceive call each. Entries describe a file by
// its lstat (or, for a link's target, stat) status in the layout of the
// server's browse version: from version 22 on the entry carries the device
// of the file system and the name starts at offset 48, below 22 it starts at
// 44; link-target packets exist from version 21 on.
//
// Requires: the process runs as the identity the listing is for; the SIGALRM
// disposition is left as it was after every call. SendDirData changes the
// working directory of the process and leaves it there.
// Fails: Browser ends (always returning 0) on LOGOUT, on a failed receive
// (including a request longer than its 1024-byte buffer or a header that
// arrives in pieces) and on a failed answer. SendDirData, SendFSData and
// SendLinkData return -1 when a packet could not be sent or (SendLinkData)
// the link could not be read; a single entry that cannot be examined is
// logged and left out.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "protocol/browse.h"

namespace tavik::transport {


// Maps Linux's status (64-bit devices, times, sizes and link counts) to the
// 32-bit wire fields: devices as encodeDev32, times and sizes as wireTime and
// wireSize, link counts above 2^32-1 as 2^32-1.
protocol::BrowseEntry entryFromStat(const struct stat& st, std::string name);

// One request as received: its header and the text of its payload (up to
// the first NUL).
struct BrowseRequest {
    protocol::BrowseHeader header;
    std::string text;
};

// The browse connection, and the time divisor of its send and receive
// alarms (1 in production).
struct BrowseSocket {
    int fd = -1;
    int timeDivisor = 1;
};

enum class ReceiveStatus {
    kOk,
    kHeaderFailed,   // logged by usbReceive
    kPayloadFailed,  // a short or failed payload, or one longer than kMaxRequest
};
[[nodiscard]] ReceiveStatus receiveRequest(const BrowseSocket& socket, BrowseRequest& out);

// The mounted file systems, as the browser walks them.
class MountList {
public:
    virtual ~MountList() = default;
    // 0, or -1 when the table cannot be opened.
    virtual int open() = 0;
    // The next mount point; false at the end.
    virtual bool next(std::string& mountPoint) = 0;
    virtual void close() = 0;
};

int Browser(const BrowseSocket& socket, MountList& mounts);
int SendDirData(const BrowseSocket& socket, const std::string& directory, uint16_t select, int version);
int SendFSData(const BrowseSocket& socket, MountList& mounts);
int SendLinkData(const BrowseSocket& socket, const std::string& path, int version);

}  // namespace tavik::transport
