// A second matcher for cross-checking: the wildcard match as a plain
// recursion over the two strings, trying every place a "*" can end. It takes
// time exponential in the number of stars, so it is only for short inputs
// (the exhaustive test and the fuzz target bound them).
#pragma once

#include <cwchar>
#include <string_view>

namespace filtertest {

inline size_t referenceCharLength(std::string_view s) {
    const size_t available = s.size() < 4 ? s.size() : 4;
    mbstate_t state{};
    const size_t n = mbrlen(s.data(), available, &state);
    return n == 0 || n > available ? 1 : n;  // also covers (size_t)-1 and -2
}

inline bool referenceWildcard(std::string_view name, std::string_view pattern) {
    if (pattern.empty()) return name.empty();
    if (pattern[0] == '*') {
        pattern.remove_prefix(1);
        if (pattern.empty()) return true;
        if (name.empty()) return false;
        do {
            name.remove_prefix(referenceCharLength(name));
            if (referenceWildcard(name, pattern)) return true;
        } while (!name.empty());
        return false;
    }
    if (name.empty()) return false;
    const size_t nameLen = referenceCharLength(name);
    const signed char c = static_cast<signed char>(name[0]);
    if (pattern[0] == '?') return referenceWildcard(name.substr(nameLen), pattern.substr(referenceCharLength(pattern)));
    if (pattern[0] == '[') {
        std::string_view cls = pattern.substr(1);
        bool hit = false;
        bool havePrevious = false;
        signed char previous = 0;
        while (!cls.empty() && cls[0] != ']') {
            const size_t len = referenceCharLength(cls);
            const signed char pc = static_cast<signed char>(cls[0]);
            if (pc == '-' && havePrevious && cls.size() > len && cls[len] != ']') {
                if (previous <= c && c <= static_cast<signed char>(cls[len])) hit = true;
            } else {
                if (pc == c) hit = true;
                previous = pc;
                havePrevious = true;
            }
            cls.remove_prefix(len);
        }
        if (cls.empty() || !hit) return false;
        return referenceWildcard(name.substr(nameLen), cls.substr(1));
    }
    if (static_cast<signed char>(pattern[0]) != c) return false;
    return referenceWildcard(name.substr(nameLen), pattern.substr(referenceCharLength(pattern)));
}

inline int referenceMatchName(std::string_view name, std::string_view pattern) {
    if (pattern == "*") return 1;
    if (!pattern.empty() && pattern[0] == '!' && referenceCharLength(pattern) == 1) {
        return referenceWildcard(name, pattern.substr(1)) ? 0 : 1;
    }
    return referenceWildcard(name, pattern) ? 1 : 0;
}

}  // namespace filtertest
