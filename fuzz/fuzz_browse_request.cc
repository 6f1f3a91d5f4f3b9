// Arbitrary bytes as the server's side of a browse connection, read request
// by request as the browser reads them (one receive for the header, one for
// the payload, at most 1024 bytes); and the same bytes as an entry payload
// for the front-end's decoder, whose result must encode and decode again.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "scratch.h"
#include "transport/browser.h"

using namespace tavik::transport;
namespace protocol = tavik::protocol;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tavik::fuzz::discardLog();
    int fds[2];
    if (size <= 4096 && ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0) {
        if (size > 0 && ::send(fds[1], data, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size)) abort();
        ::shutdown(fds[1], SHUT_WR);
        size_t requests = 0;
        BrowseRequest request;
        while (receiveRequest({.fd = fds[0]}, request) == ReceiveStatus::kOk) {
            if (request.text.size() > protocol::browse::kMaxRequest || request.text.size() > request.header.length) abort();
            if (request.text.find('\0') != std::string::npos) abort();
            if (++requests > size / protocol::browse::kHeaderSize) abort();  // every request takes a header
        }
        ::close(fds[0]);
        ::close(fds[1]);
    }

    for (int version : {20, 21, 22}) {
        auto entry = protocol::decodeBrowseEntry({data, size}, version);
        if (!entry) continue;
        std::vector<uint8_t> again = protocol::encodeBrowseEntry(*entry, version);
        if (entry->name.size() > protocol::browse::kMaxName) {
            if (!again.empty()) abort();
            continue;
        }
        auto back = protocol::decodeBrowseEntry(again, version);
        if (!back || back->name != entry->name || back->mode != entry->mode || back->fsDev != entry->fsDev) abort();
    }
    return 0;
}
