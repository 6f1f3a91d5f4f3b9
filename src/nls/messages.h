// Message catalogue and locale of the maker's programs.
//
// OpenMessages chooses the locale from LANG (falling back to "C" when the
// platform rejects it), exports it as LANG, and opens the program's message
// catalogue "<home>/nls/<locale>/<name>.cat", or "<name>.cat" along the
// platform's own catalogue path, retrying both in "C" before it gives up.
// GetMessage hands out texts by set and number; a set is read from the
// catalogue whole on its first use and every later lookup is a table access.
// A missing set, number or catalogue is never an error: the text is
// "catgetsErr". The agent itself never opens a catalogue, so its locale stays
// "C" and every text it looks up reads "catgetsErr".
//
// Requires: one thread. Fails: OpenMessages ends the process with status 1
// when KRV_HOME is needed and unset, or when no catalogue can be opened.
#pragma once

namespace tavik::nls {

// Sets are numbered 1..kLastSet; a set's size is fixed (SetSize).
inline constexpr int kLastSet = 34;
inline constexpr const char* kMissingMessage = "catgetsErr";

// Locale kinds, as the multibyte helpers and the date formats know them.
enum LocaleKindValue : int { kKindDefault = 1, kKindFrench = 2, kKindGerman = 3, kKindJapanese = 4 };

// `home` may be null: KRV_HOME is used then.
void OpenMessages(const char* home, const char* name);
const char* GetMessage(int set, int number);
void CloseMessages();
const char* MessageLocale();
const char* MessageDir();
int SetSize(int set);
int LocaleKind();

}  // namespace tavik::nls
