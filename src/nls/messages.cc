#include "nls/messages.h"

#include <nl_types.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace tavik::nls {
namespace {

// The number of messages of each set 0..34 of the catalogue.
constexpr int kSetSizes[kLastSet + 1] = {
    0,   356, 278, 138, 75,  132, 12,  165, 45,  262, 1456, 254, 37,  12,  0,   44,  290, 11,
    470, 26,  367, 45,  515, 21,  251, 51,  51,  8,   250, 0,   45,   114, 244, 418, 33,
};
static_assert(sizeof kSetSizes / sizeof kSetSizes[0] == 35);

// The library's state: one per process.
struct Catalogue {
    std::string locale = "C";
    // Given to putenv, so it must outlive every later getenv: a static buffer.
    char langEnv[256] = "LANG=C";
    std::string dir;
    nl_catd descriptor = reinterpret_cast<nl_catd>(-1);
    bool open = false;
    // cache[set] is empty until the set is first used.
    std::vector<std::string> cache[kLastSet + 1];
    bool cached[kLastSet + 1] = {};
};

Catalogue& catalogue() {
    static Catalogue c;
    return c;
}

void exportLocale(Catalogue& c) {
    snprintf(c.langEnv, sizeof c.langEnv, "LANG=%s", c.locale.c_str());
    putenv(c.langEnv);
}

// Tries "<home>/nls/<locale>/<name>.cat", then "<name>.cat". Returns the
// first name for the failure message.
bool tryOpen(Catalogue& c, const std::string& home, const char* name, std::string& firstName) {
    c.dir = home + "/nls/" + c.locale;
    firstName = c.dir + "/" + name + ".cat";
    std::string secondName = std::string(name) + ".cat";
    nl_catd d = catopen(firstName.c_str(), NL_CAT_LOCALE);
    if (d == reinterpret_cast<nl_catd>(-1)) d = catopen(secondName.c_str(), NL_CAT_LOCALE);
    if (d == reinterpret_cast<nl_catd>(-1)) return false;
    c.descriptor = d;
    c.open = true;
    return true;
}

}  // namespace

void OpenMessages(const char* home, const char* name) {
    Catalogue& c = catalogue();
    // Opened again: the earlier catalogue is closed (its cached texts stay).
    if (c.open) {
        catclose(c.descriptor);
        c.open = false;
        c.descriptor = reinterpret_cast<nl_catd>(-1);
    }
    const char* lang = getenv("LANG");
    c.locale = (lang && *lang) ? lang : "C";
    if (!setlocale(LC_ALL, c.locale.c_str())) {
        c.locale = "C";
        setlocale(LC_ALL, "C");
    }
    exportLocale(c);
    std::string homeDir;
    if (home) {
        homeDir = home;
    } else {
        const char* env = getenv("KRV_HOME");
        if (!env) {
            fprintf(stderr, "Default environmental variable KRV_HOME not set\n");
            exit(1);
        }
        homeDir = env;
    }
    std::string firstName;
    if (tryOpen(c, homeDir, name, firstName)) return;
    int savedErrno = errno;
    if (c.locale != "C") {
        c.locale = "C";
        setlocale(LC_ALL, "C");
        exportLocale(c);
        if (tryOpen(c, homeDir, name, firstName)) return;
        savedErrno = errno;
    }
    printf("catopen failed : %s, %s(%d)\n", firstName.c_str(), strerror(savedErrno), savedErrno);
    fflush(stdout);
    exit(1);
}

const char* GetMessage(int set, int number) {
    if (set < 1 || set > kLastSet) return kMissingMessage;
    Catalogue& c = catalogue();
    if (!c.cached[set]) {
        std::vector<std::string>& texts = c.cache[set];
        texts.clear();
        texts.reserve(size_t(kSetSizes[set]));
        for (int k = 0; k < kSetSizes[set]; ++k) {
            const char* text = c.open ? catgets(c.descriptor, set, k + 1, kMissingMessage) : kMissingMessage;
            texts.emplace_back(text ? text : kMissingMessage);
        }
        c.cached[set] = true;
    }
    if (number < 1 || number > kSetSizes[set]) return kMissingMessage;
    return c.cache[set][size_t(number - 1)].c_str();
}

void CloseMessages() {
    Catalogue& c = catalogue();
    if (c.open) {
        catclose(c.descriptor);
        c.open = false;
        c.descriptor = reinterpret_cast<nl_catd>(-1);
    }
    for (int set = 1; set <= kLastSet; ++set) {
        if (!c.cached[set]) continue;
        std::vector<std::string>().swap(c.cache[set]);
        c.cached[set] = false;
    }
}

const char* MessageLocale() { return catalogue().locale.c_str(); }

const char* MessageDir() { return catalogue().dir.c_str(); }

int SetSize(int set) {
    if (set < 0 || set > kLastSet) return 0;
    return kSetSizes[set];
}

int LocaleKind() {
    const std::string& name = catalogue().locale;
    if (name.compare(0, 1, "C") == 0) return kKindDefault;
    if (name.compare(0, 2, "ja") == 0) return kKindJapanese;
    if (name.compare(0, 2, "fr") == 0) return kKindFrench;
    if (name.compare(0, 2, "de") == 0 || name.compare(0, 2, "ge") == 0) return kKindGerman;
    return kKindDefault;
}

}  // namespace tavik::nls
