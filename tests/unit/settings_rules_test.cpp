#include "rules.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using namespace settingsd;

const Setting& setting(const char* section, const char* key)
{
    const Setting* found = find_setting(device_schema(), section, key);
    if (found == nullptr) {
        throw std::invalid_argument(key);
    }
    return *found;
}

/** Values that a setting takes, and values that it refuses, with the reason. */
struct Case
{
    const char* section;
    const char* key;
    std::vector<Value> allowed;
    std::vector<Value> refused;
    std::string reason;
};

/** Of 64 bytes, in parts that are short enough. */
const std::string kLongestLanguage = "en-" + std::string(8, 'x') + "." + std::string(16, 'x') + "@" +
                                     std::string(16, 'x') + "." + std::string(16, 'x') + "@x";

const std::vector<Case> kCases = {
    {"network",
     "mode",
     {"Host", "Client"},
     {"", "host", "Host ", "Client\n", "AP"},
     "must be \"Host\" or \"Client\""},
    {"network", "frequency", {"2.4", "5"}, {"", "5.0", "2,4", " 5", "6"}, "must be \"2.4\" or \"5\""},
    {"device",
     "deviceName",
     {"x", " ", std::string(32, 'x'),
      "K\xC3\xBC"
      "che",
      "two\nlines"},
     {"", std::string(33, 'x'), std::string("\xC3\xBC") + std::string(31, 'x')},
     "must have 1 to 32 bytes"},
    {"display", "brightness", {0, 1, 100}, {-1, 101, INT32_MIN, INT32_MAX}, "must be 0 to 100"},
    {"locale",
     "language",
     {"en", "de-CH", "de_CH", "zh-Hant-TW", "sr_RS@latin", "de_CH.UTF-8", "ast", "es-419", "de-1996",
      "az-AZ-09", "abcdefgh-abcdefgh", "en.a-z@A-Z09", "en." + std::string(16, 'x'), kLongestLanguage},
     {"",
      "e",
      "e1",
      "en-",
      "-en",
      "en--US",
      "en US",
      "en.",
      "en@",
      "de_CH.UTF-8@",
      "../etc",
      "en/US",
      "abcdefghi",
      "en-abcdefghi",
      "d\xC3\xA9",
      "en\n",
      "en." + std::string(17, 'x'),
      kLongestLanguage + "x",
      "e`",
      "e{",
      "E@",
      "E[",
      "en-/",
      "en-:",
      "en-a.!"},
     "must be a language such as \"en\" or \"de-CH\""},
    {"locale",
     "timezone",
     {"UTC", "Europe/Zurich", "America/Argentina/ComodRivadavia", "Etc/GMT+8", "GB-Eire", "EST5EDT",
      "America/Port_of_Spain", "azAZ09", "zulu", "Zulu", "a", "A", std::string(64, 'x')},
     {"",
      "/",
      "/UTC",
      "UTC/",
      "Europe//Zurich",
      "../../etc/shadow",
      "Europe/..",
      "Europe/Zurich\n",
      "1UTC",
      "Europe/ Zurich",
      ":UTC",
      std::string(65, 'x'),
      "`",
      "{",
      "@",
      "[",
      "U`",
      "U{",
      "U@",
      "U[",
      "U:"},
     "must be a time zone such as \"UTC\" or \"Europe/Zurich\""},
};

TEST(SettingsRules, AllowWhatASettingMayBe)
{
    for (const Case& one : kCases) {
        for (const Value& value : one.allowed) {
            EXPECT_EQ(refusal_of(setting(one.section, one.key), value), "")
                << one.key << ": " << testing::PrintToString(value);
        }
    }
}

TEST(SettingsRules, RefuseEverythingElseAndSayWhy)
{
    for (const Case& one : kCases) {
        for (const Value& value : one.refused) {
            EXPECT_EQ(refusal_of(setting(one.section, one.key), value), one.reason)
                << one.key << ": " << testing::PrintToString(value);
        }
    }
}

TEST(SettingsRules, AllowTheDefaultWhateverItIs)
{
    for (const Setting& one : device_schema()) {
        EXPECT_EQ(refusal_of(one, one.defaultValue), "") << one.key;
    }
    const Setting longName{"device", "deviceName", std::string(40, 'x'), Belongs::ToOwner,
                           refusal_of_device_name};
    EXPECT_EQ(refusal_of(longName, std::string(40, 'x')), "") << "what was read may be written back";
    EXPECT_EQ(refusal_of(longName, std::string(41, 'x')), "must have 1 to 32 bytes");
}

TEST(SettingsRules, LeaveNoTextAndNoNumberWithoutOne)
{
    for (const Setting& one : device_schema()) {
        EXPECT_NE(one.refusal == nullptr, !std::holds_alternative<bool>(one.defaultValue)) << one.key;
    }
}

} // namespace
