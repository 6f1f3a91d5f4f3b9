// Arbitrary bytes as groom.cntl and as a package information file, then the
// protected test over paths taken from the same bytes; and the same bytes as
// a GROOMING payload and tape record.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "groom/groom.h"
#include "protocol/commands.h"
#include "scratch.h"
#include "wire/bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace tavik::groom;
    using namespace tavik::protocol;
    namespace protocol = tavik::protocol;
    static const std::string file = tavik::fuzz::scratchDir("groom-cntl") + "/groom.cntl";
    tavik::fuzz::writeInput(file, data, size);

    Grooming grooming;  // fresh: the control file is read again
    GroomList list;
    if (dir_cntl(grooming, file.c_str(), list) != 0) abort();
    std::string value;
    (void)PackageValue(file.c_str(), "KRV_HOME", value);
    if (value.size() > size) abort();

    std::istringstream paths(std::string(reinterpret_cast<const char*>(data), size));
    for (std::string path; std::getline(paths, path);) {
        const int r = IsProtected(path.c_str(), list.get());
        if (r != 0 && r != -1) abort();
    }

    tavik::wire::ByteReader in(data, size);
    GroomingRecord record = protocol::decodeGroomingRecord(in);
    if (record.rotationSet.size() > kGroomSetWidth) abort();
    TapeRecord tape;
    size_t before = in.position();
    if (!protocol::decodeTapeRecord(in, tape) && in.position() != before) abort();
    return 0;
}
