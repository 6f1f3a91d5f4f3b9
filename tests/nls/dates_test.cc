// Date and time styles for each locale kind, and the date reading.
#include "nls/dates.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "locales.h"

namespace {

using namespace tavik::nls;

// Sunday 13 March 2005, 14:05:09.
struct tm sample(int year = 105) {
    struct tm t = {};
    t.tm_year = year;
    t.tm_mon = 2;
    t.tm_mday = 13;
    t.tm_wday = 0;
    t.tm_yday = 71;
    t.tm_hour = 14;
    t.tm_min = 5;
    t.tm_sec = 9;
    return t;
}

struct Styles {
    const char* date[6];  // styles 0..5
    const char* time[5];  // styles 0..4
};

class DatesTest : public ::testing::Test {
protected:
    void TearDown() override { nlstest::restoreC(); }

    // Opens a home with a catalogue for `locale`; false (and a skip) when
    // the locale cannot be had.
    bool enter(const char* locale) {
        if (std::string(locale) != "C") {
            const std::string& why = nlstest::prepareLocales();
            if (!why.empty()) {
                skip_ = why;
                return false;
            }
        }
        home_ = std::make_unique<nlstest::ScratchHome>(std::initializer_list<const char*>{"C", locale});
        if (!nlstest::openIn(*home_, locale)) {
            skip_ = std::string("the platform rejects ") + locale;
            return false;
        }
        return true;
    }

    void expectStyles(const Styles& want) {
        struct tm t = sample();
        for (int style = 0; style <= 5; ++style) {
            SCOPED_TRACE("date style " + std::to_string(style));
            EXPECT_EQ(std::string(DateText(&t, style)), want.date[style]);
        }
        for (int style = 0; style <= 4; ++style) {
            SCOPED_TRACE("time style " + std::to_string(style));
            EXPECT_EQ(std::string(TimeText(&t, style)), want.time[style]);
        }
    }

    std::unique_ptr<nlstest::ScratchHome> home_;
    std::string skip_;
};

TEST_F(DatesTest, StylesOfEachLocaleKind) {
    const struct {
        const char* locale;
        int kind;
        Styles styles;
    } cases[] = {
        {"C", kKindDefault,
         {{"", "03/13/05", "03/13/2005", "Mar 13 2005", "Mar-13", ""}, {"", "14:05", "14:05:09", "02:05 PM", ""}}},
        {"fr", kKindFrench,
         {{"", "13/03/2005", "13/03/2005", "13 mars 2005", "13 mars", ""}, {"", "14:05", "14:05:09", "02:05 ", ""}}},
        // "Mär" in ISO-8859-1.
        {"german", kKindGerman,
         {{"", "13.03.2005", "13.03.2005", "13. M\xe4r 2005", "13. M\xe4r", ""}, {"", "14:05", "14:05:09", "02:05 ", ""}}},
        // Shift JIS: YEAR 0x94 0x4E, MONTH 0x8C 0x8E, DAY 0x93 0xFA, and "%p"
        // of the afternoon 0x8C 0xDF 0x8C 0xE3 ("gogo"). Style 3: "%x"
        // ("2005<year>03<month>13<day>", 14 bytes) less its last 5. Style 4:
        // "03" and the last two bytes of "%m%b", "13" and bytes 6..7 of "%e%A".
        {"ja_JP.SJIS", kKindJapanese,
         {{"", "05/03/13", "03/13/2005", "2005\x94\x4e" "03\x8c", "03\x8c\x8e" "13\x93\xfa", ""},
          {"", "14:05", "14:05:09", "02:05 \x8c\xdf\x8c\xe3", ""}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.locale);
        if (!enter(c.locale)) GTEST_SKIP() << skip_;
        ASSERT_EQ(LocaleKind(), c.kind);
        expectStyles(c.styles);
        nlstest::restoreC();
    }
    // Style 1 has no blank: the grooming log's words stay four.
    EXPECT_EQ(strchr(DateTextOf(0, 1), ' '), nullptr);
    // Japanese style 1 puts the two-digit year first, also before 2000 and in it.
    ASSERT_TRUE(enter("ja_JP.SJIS"));
    struct tm old = sample(96);
    EXPECT_STREQ(DateText(&old, 1), "96/03/13");
    struct tm y2000 = sample(100);
    EXPECT_STREQ(DateText(&y2000, 1), "00/03/13");
}

TEST_F(DatesTest, FromTimeValuesAndParts) {
    ASSERT_TRUE(enter("C"));
    struct tm t = sample();
    t.tm_isdst = -1;
    time_t when = mktime(&t);
    EXPECT_STREQ(DateTextOf(when, 2), "03/13/2005");
    EXPECT_STREQ(TimeTextOf(when, 2), "14:05:09");
    EXPECT_STREQ(DateTextOfParts(105, 3, 13, 2), "03/13/2005");
    EXPECT_STREQ(DateTextOfParts(96, 12, 1, 1), "12/01/96");
    EXPECT_STREQ(TimeTextOfParts(9, 8, 7, 2), "09:08:07");
    EXPECT_STREQ(TimeTextOfParts(23, 0, 0, 3), "11:00 PM");
    // Dates and times have separate buffers.
    const char* d = DateTextOf(when, 1);
    const char* h = TimeTextOf(when, 1);
    EXPECT_STREQ(d, "03/13/05");
    EXPECT_STREQ(h, "14:05");
}

struct Read {
    std::string text;
    int year, month, day;
};

Read readDate(const char* input, int style, size_t capacity = 32) {
    char buf[32] = {};
    strncpy(buf, input, sizeof buf - 1);
    Read r;
    r.year = r.month = r.day = -1;
    ReadDate(buf, capacity, &r.year, &r.month, &r.day, style);
    r.text = buf;
    return r;
}

TEST_F(DatesTest, ReadsDatesInEachKindsOrder) {
    const struct {
        const char* locale;
        const char* input;
        int style;
        const char* text;
        int year, month, day;
    } cases[] = {
        {"C", "3/7/96", 1, "03/07/96", 96, 3, 7},
        {"C", "12.25.2001", 4, "12.25.2001", 2001, 12, 25},
        {"C", "1/2.3", 1, "01/02/03", 3, 1, 2},  // the second separator may differ; the first is written
        {"fr", "3/7/96", 1, "03/07/96", 96, 7, 3},
        {"de", "3/7/96", 4, "03.07.96", 96, 7, 3},
        {"ja_JP.SJIS", "96/3/7", 1, "96/03/07", 96, 3, 7},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.locale) + " " + c.input);
        if (!enter(c.locale)) GTEST_SKIP() << skip_;
        Read r = readDate(c.input, c.style);
        EXPECT_EQ(r.text, c.text);
        EXPECT_EQ((std::vector<int>{r.year, r.month, r.day}), (std::vector<int>{c.year, c.month, c.day}));
        nlstest::restoreC();
    }
}

TEST_F(DatesTest, ReadingThatReadsNothingOrWouldNotFit) {
    ASSERT_TRUE(enter("C"));
    for (int style : {2, 3}) {
        Read r = readDate("3/7/96", style);
        EXPECT_EQ(r.text, "3/7/96");
        EXPECT_EQ(r.year + r.month + r.day, 0);
    }
    for (const char* text : {"", "3796", "3/796", "3-7-96"}) {
        Read r = readDate(text, 1);
        EXPECT_EQ(r.text, text);
        EXPECT_EQ(r.year + r.month + r.day, 0);
    }
    // "01/02/03" needs 9 bytes: with room for 6 the text stays as it is.
    Read r = readDate("1/2/3", 1, 6);
    EXPECT_EQ(r.text, "1/2/3");
    EXPECT_EQ((std::vector<int>{r.year, r.month, r.day}), (std::vector<int>{3, 1, 2}));
    r = readDate("99999999999999/-99999999999/7", 1);
    EXPECT_EQ(r.month, 2147483647);  // the saturated first number
    EXPECT_LT(r.text.size(), 32u);
}

}  // namespace
