// Test support: locales made with localedef in a scratch directory that
// LOCPATH points to (no system locale is touched), and scratch homes that
// hold the built catalogue under nls/<locale>/tavik.cat.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include <clocale>

#include "nls/messages.h"

namespace nlstest {

namespace fs = std::filesystem;

inline std::string builtCatalogue() { return std::string(TAVIK_CATALOGUE_HOME) + "/nls/C/tavik.cat"; }

// Locale name -> (source locale, charmap). "german" is the platform's alias
// of de_DE.ISO-8859-1.
inline const std::map<std::string, std::pair<std::string, std::string>>& wantedLocales() {
    static const std::map<std::string, std::pair<std::string, std::string>> m = {
        {"fr", {"fr_FR", "ISO-8859-1"}},
        {"de", {"de_DE", "ISO-8859-1"}},
        {"de_DE.ISO-8859-1", {"de_DE", "ISO-8859-1"}},
        {"ja_JP", {"ja_JP", "EUC-JP"}},
        {"ja_JP.SJIS", {"ja_JP", "SHIFT_JIS"}},
    };
    return m;
}

// Makes every wanted locale once per test program; returns "" when all were
// made, else why not. LOCPATH is set to the directory.
inline const std::string& prepareLocales() {
    static std::string why = [] {
        char tmpl[] = "/tmp/nlstest-locales-XXXXXX";
        if (!mkdtemp(tmpl)) return std::string("cannot make a scratch directory");
        std::string dir = tmpl;
        std::atexit([] {
            const char* d = getenv("LOCPATH");
            if (d && std::string(d).rfind("/tmp/nlstest-locales-", 0) == 0) {
                std::error_code ec;
                fs::remove_all(d, ec);
            }
        });
        setenv("LOCPATH", dir.c_str(), 1);
        for (const auto& [name, how] : wantedLocales()) {
            // -c: SHIFT_JIS is not ASCII-compatible, which localedef only warns about.
            std::string cmd = "localedef -c -i " + how.first + " -f " + how.second + " '" + dir + "/" + name +
                              "' >/dev/null 2>&1";
            std::system(cmd.c_str());
            if (!fs::exists(dir + "/" + name + "/LC_CTYPE"))
                return "localedef could not make the locale " + name +
                       " (install the locales package: tools/deps.sh)";
        }
        return std::string();
    }();
    return why;
}

// A scratch home with the built catalogue for each of `locales`.
class ScratchHome {
public:
    explicit ScratchHome(std::initializer_list<const char*> locales) {
        char tmpl[] = "/tmp/nlstest-home-XXXXXX";
        if (!mkdtemp(tmpl)) ADD_FAILURE() << "mkdtemp";
        dir_ = tmpl;
        for (const char* locale : locales) {
            fs::create_directories(dir_ + "/nls/" + locale);
            fs::copy_file(builtCatalogue(), dir_ + "/nls/" + locale + "/tavik.cat", fs::copy_options::overwrite_existing);
        }
    }
    ~ScratchHome() {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    const std::string& dir() const { return dir_; }

private:
    std::string dir_;
};

// Opens the catalogue of a scratch home for `locale` (LANG = locale).
// False when the locale could not be set up.
inline bool openIn(const ScratchHome& home, const char* locale) {
    setenv("NLSPATH", "/nonexistent/%N", 1);
    setenv("LANG", locale, 1);
    tavik::nls::OpenMessages(home.dir().c_str(), "tavik");
    return std::string(tavik::nls::MessageLocale()) == locale;
}

// Back to the "C" locale with no catalogue open and no set cached.
inline void restoreC() {
    ScratchHome home({"C"});
    setenv("LANG", "C", 1);
    tavik::nls::OpenMessages(home.dir().c_str(), "tavik");
    tavik::nls::CloseMessages();
    setlocale(LC_ALL, "C");
}

}  // namespace nlstest
