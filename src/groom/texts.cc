// Grooming's catalogue texts, checked before they are used as formats.
#include <cctype>
#include <cstring>
#include <string>

#include "groom/groom.h"
#include "nls/messages.h"

namespace tavik::groom {
namespace {

// The arguments each text of set 13 is given: "s" a text, "d" an int.
const char* expectedArguments(int number) {
    switch (number) {
    case kMsgCannotOpen: case kMsgWorkFileOpen: case kMsgCannotRemove: return "sss";
    case kMsgNoMemory: return "sds";
    case kMsgTapeName: case kMsgSessionNumber: return "s";
    case kMsgNoSortedName: return "ss";
    case kMsgDeletedCount: return "d";
    default: return "";
    }
}

// The conversions of a printf format as "s"/"d" letters; false for anything
// else (positional arguments, "*", "%n", length modifiers, other types).
bool conversions(const char* format, std::string& out) {
    out.clear();
    for (const char* p = format; *p; ++p) {
        if (*p != '%') continue;
        ++p;
        if (*p == '%') continue;
        while (*p && strchr("-+ #0", *p)) ++p;
        while (isdigit(static_cast<unsigned char>(*p))) ++p;
        if (*p == '.') {
            ++p;
            while (isdigit(static_cast<unsigned char>(*p))) ++p;
        }
        if (*p == 's') out.push_back('s');
        else if (*p == 'd' || *p == 'i') out.push_back('d');
        else return false;
    }
    return true;
}

}  // namespace

const char* GroomText(int number) {
    const char* text = nls::GetMessage(kGroomSet, number);
    std::string found;
    std::string expected = expectedArguments(number);
    // Fewer conversions than arguments is harmless; more, or others, are not.
    if (!conversions(text, found) || expected.compare(0, found.size(), found) != 0) return nls::kMissingMessage;
    return text;
}

}  // namespace tavik::groom
