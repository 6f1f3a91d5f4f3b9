// The protected list of grooming: groom.cntl, its elements, the package
// information lookup and the protected test.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "groom/groom.h"
#include "log/ulog.h"
#include "nls/mbstring.h"
#include "nls/messages.h"

namespace tavik::groom {
namespace {

constexpr const char* kCntlPrefix = "(dir_cntl) ";
constexpr const char* kElementPrefix = "(new_element) ";
// The element's size on the agent's original platform, as its message says.
constexpr int kElementSize = 8;
// Longer lines of the control and package files are not names of ours.
constexpr size_t kMaxLine = 4096;

// Reads one line with its newline; false at the end of the file. Lines
// longer than kMaxLine come back empty (ignored by every caller).
bool readLine(FILE* in, std::string& line) {
    line.clear();
    int c;
    bool any = false;
    bool tooLong = false;
    while ((c = fgetc(in)) != EOF) {
        any = true;
        if (line.size() < kMaxLine) line.push_back(char(c)); else tooLong = true;
        if (c == '\n') break;
    }
    if (tooLong) line.clear();
    return any;
}

// A name's last character is its newline; texts without one keep all they have.
std::string withoutNewline(const std::string& line) {
    if (!line.empty() && line.back() == '\n') return line.substr(0, line.size() - 1);
    return line;
}

}  // namespace

GroomList new_element(Grooming& g, const char* text) {
    GroomList element(new (std::nothrow) GroomElement);
    if (!element) {
        grlog(g, GroomText(kMsgNoMemory), kElementPrefix, kElementSize, errText());
        return nullptr;
    }
    size_t len = strlen(text);
    try {
        element->name.assign(text, len > 0 ? len - 1 : 0);
    } catch (const std::bad_alloc&) {
        grlog(g, GroomText(kMsgNoMemory), kElementPrefix, int(len), errText());
        return nullptr;
    }
    return element;
}

int dir_cntl(Grooming& g, const char* controlFile, GroomList& list) {
    list.reset();
    detail::GroomState& s = g.state;
    struct stat st;
    if (stat(controlFile, &st) != 0) return 0;
    if (st.st_mtime <= s.controlFileTime) return 0;
    FILE* in = fopen(controlFile, "r");
    if (!in) {
        grlog(g, GroomText(kMsgCannotOpen), kCntlPrefix, controlFile, errText());
        return -1;
    }
    std::string line;
    while (readLine(in, line)) {
        if (line.empty() || line[0] != '/') continue;
        // A name is stored less its last character, which here is the
        // newline; a last line without one keeps its final character.
        if (line.back() != '\n') line.push_back('\n');
        GroomList element = new_element(g, line.c_str());
        if (!element) {
            fclose(in);
            return -1;
        }
        element->next = std::move(list);
        list = std::move(element);
    }
    fclose(in);
    s.controlFileTime = st.st_mtime;
    return 0;
}

bool PackageValue(const char* file, const char* name, std::string& value) {
    value.clear();
    FILE* in = fopen(file, "r");
    if (!in) return false;
    std::string line;
    size_t nameLen = strlen(name);
    bool found = false;
    while (readLine(in, line)) {
        if (line.compare(0, nameLen, name) != 0) continue;
        const char* eq = nls::MbStrChr(line.c_str(), '=');
        if (eq) {
            value = withoutNewline(std::string(eq + 1));
            found = true;
        }
        break;
    }
    fclose(in);
    return found;
}

// A name beginning with "/" protects itself and everything below it; any
// other name protects every path that has it as a component. Trailing "/"
// of both the path and a name are dropped, so "/data/keep/" in groom.cntl
// protects "/data/keep/x" as "/data/keep" does, and "/" protects every
// absolute path.
int IsProtected(const char* path, const GroomElement* list) {
    std::string p(path);
    if (p.size() > 1 && p.back() == '/') p.pop_back();
    for (const GroomElement* e = list; e; e = e->next.get()) {
        const std::string& name = e->name;
        if (!name.empty() && name[0] == '/') {
            std::string n = name;
            while (n.size() > 1 && n.back() == '/') n.pop_back();
            if (n == "/") {
                if (!p.empty() && p[0] == '/') return -1;
                continue;
            }
            if (p.compare(0, n.size(), n) == 0 && (p.size() == n.size() || p[n.size()] == '/')) return -1;
            continue;
        }
        // Component match: the text after each "/" up to the next "/" or the end.
        const char* at = nls::MbStrChr(p.c_str(), '/');
        while (at) {
            const char* start = at + 1;
            const char* end = nls::MbStrChr(start, '/');
            size_t len = end ? size_t(end - start) : strlen(start);
            if (len == name.size() && name.compare(0, len, start, len) == 0) return -1;
            at = end;
        }
    }
    return 0;
}

std::string ControlFileOf(const char* logDir) {
    const char* at = nls::MbStrStr(logDir, "/LOG");
    if (at) return std::string(logDir, size_t(at - logDir)) + "/groom.cntl";
    return std::string(logDir) + "/groom.cntl";
}

}  // namespace tavik::groom
