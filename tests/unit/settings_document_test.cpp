#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

#include "document.hpp"
#include "salvage.hpp"

namespace {

using namespace settingsd;
using nlohmann::json;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::array kSchema = {
    Setting{"network", "enabled", true},
    Setting{"network", "mode", "Host"},
    Setting{"display", "brightness", 80},
};

TEST(SettingsDocument, TakesAValidFileAsItIs)
{
    const Document document = parse_document(R"({"network": {"enabled": false, "mode": "Client"}})", kSchema);
    EXPECT_FALSE(document.damaged);
    EXPECT_THAT(document.findings, IsEmpty());
    EXPECT_EQ(document.root, json({{"network", {{"enabled", false}, {"mode", "Client"}}}}));
}

TEST(SettingsDocument, SurvivesBeingWrittenAndRead)
{
    const json root = {{"network", {{"mode", "Zürich \"1\" \\ \n"}}}};
    EXPECT_EQ(parse_document(to_text(root), kSchema).root, root);
    EXPECT_EQ(to_text({{"display", {{"brightness", 5}}}}),
              "{\n  \"display\": {\n    \"brightness\": 5\n  }\n}\n");
}

TEST(SettingsDocument, KeepsAndReportsUnknownKeysWithoutCallingThemDamage)
{
    const json root = {{"network", {{"enabled", false}, {"channel", 6}}}, {"future", {{"a", {1, 2}}}}};
    const Document document = parse_document(root.dump(), kSchema);
    EXPECT_FALSE(document.damaged);
    EXPECT_EQ(document.root, root);
    EXPECT_THAT(document.findings, Contains("unknown setting network.channel is kept"));
    EXPECT_THAT(document.findings, Contains("unknown section future is kept"));
}

TEST(SettingsDocument, DropsValuesOfAWrongTypeAndKeepsTheirNeighbours)
{
    const Document document = parse_document(R"({"network": {"enabled": "yes", "mode": "Client"}})", kSchema);
    EXPECT_TRUE(document.damaged);
    EXPECT_EQ(document.root, json({{"network", {{"mode", "Client"}}}}));
    EXPECT_THAT(document.findings, Contains("setting network.enabled is not of type 'b'"));
}

TEST(SettingsDocument, DropsASectionThatIsNoObject)
{
    const Document document = parse_document(R"({"display": true, "network": {"enabled": "yes"}})", kSchema);
    EXPECT_TRUE(document.damaged);
    EXPECT_EQ(document.root, json({{"network", json::object()}}));
    EXPECT_THAT(document.findings, ElementsAre("section display is not an object",
                                               "setting network.enabled is not of type 'b'"));
}

TEST(SettingsDocument, CallsEverythingThatIsNoObjectDamaged)
{
    for (const char* text : {"[]", "null", "7", "\"text\"", "", "   ", "\x01\x02"}) {
        const Document document = parse_document(text, kSchema);
        EXPECT_TRUE(document.damaged) << text;
        EXPECT_EQ(document.root, json::object()) << text;
    }
}

TEST(SettingsDocument, KeepsWhatStandsBeforeTheDamage)
{
    const Document document = parse_document(
        R"({"display": {"brightness": 5}, "network": {"enabled": false, "mode": "Cli)", kSchema);
    EXPECT_TRUE(document.damaged);
    EXPECT_THAT(document.findings, Contains("not valid JSON"));
    EXPECT_EQ(document.root, json({{"display", {{"brightness", 5}}}, {"network", {{"enabled", false}}}}));
}

TEST(SettingsDocument, DoesNotKeepAWrongTypeFromADamagedFile)
{
    const Document document = parse_document(R"({"network": {"enabled": 1, "mode": "Client"},)", kSchema);
    EXPECT_TRUE(document.damaged);
    EXPECT_EQ(document.root, json({{"network", {{"mode", "Client"}}}}));
}

TEST(SettingsDocument, IsReadWhereverItIsCutOff)
{
    const json whole = {{"display", {{"brightness", 55}}},
                        {"network", {{"enabled", false}, {"mode", "Client"}}}};
    const std::string text = whole.dump();
    for (std::size_t size = 0; size < text.size(); ++size) {
        const Document document = parse_document(text.substr(0, size), kSchema);
        EXPECT_TRUE(document.damaged) << size;
        for (const auto& [section, settings] : document.root.items()) {
            for (const auto& [key, value] : settings.items()) {
                EXPECT_EQ(value, whole[section][key]) << "cut at " << size;
            }
        }
    }
}

TEST(SettingsDocument, IsReadInATimeThatGrowsWithItsLength)
{
    json large = {{"network", {{"mode", "Client"}}}};
    for (int i = 0; i < 50000; ++i) {
        large["f" + std::to_string(i)] = {{"x", 1}};
    }
    const std::clock_t before = std::clock();
    const Document document = parse_document(large.dump(), kSchema);
    const double seconds = static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC;
    EXPECT_FALSE(document.damaged);
    EXPECT_EQ(document.root.size(), large.size());
    EXPECT_LT(seconds, 5) << "of the processor's time; each section looked at the others once: 17";
}

TEST(SettingsDocument, NamesAFewUnknownThingsAndCountsTheRest)
{
    json root = {{std::string(64, 'x'), {{"a", 1}}}};
    for (int i = 0; i < 9; ++i) {
        root["network"]["key" + std::to_string(i)] = i;
    }
    const Document few = parse_document(root.dump(), kSchema);
    EXPECT_EQ(few.findings.size(), 10U);
    EXPECT_EQ(few.findings.back(), "unknown section " + std::string(64, 'x') + " is kept");
    for (int i = 9; i < 50; ++i) {
        root["network"]["key" + std::to_string(i)] = i;
    }
    const Document document = parse_document(root.dump(), kSchema);
    EXPECT_EQ(document.findings.size(), 11U);
    EXPECT_EQ(document.findings.back(), "41 more unknown sections and settings are kept");
    const Document longName = parse_document(json({{std::string(63, 'x') + "\xC3\xBC", 1}}).dump(), kSchema);
    EXPECT_THAT(longName.findings, ElementsAre("unknown section " + std::string(63, 'x') + "... is kept"));
}

TEST(SettingsDocument, DoesNotTakeInADepthThatWouldOverflowTheStack)
{
    const std::string arrays = std::string(500000, '[') + std::string(500000, ']');
    const Document document =
        parse_document("{\"network\": {\"mode\": \"Client\"}, \"future\": " + arrays + "}", kSchema);
    EXPECT_TRUE(document.damaged);
    EXPECT_EQ(document.root, json({{"network", {{"mode", "Client"}}}}));
    EXPECT_THAT(to_text(document.root), HasSubstr("Client"));

    for (const std::string innermost : {"{}", "[]"}) {
        const auto isDamaged = [&](std::size_t depth) {
            const std::string text = std::string(depth - 2, '[') + innermost + std::string(depth - 2, ']');
            return parse_document("{\"future\": " + text + "}", kSchema).damaged;
        };
        EXPECT_FALSE(isDamaged(32)) << innermost;
        EXPECT_TRUE(isDamaged(33)) << innermost;
    }
}

TEST(SettingsDocument, TakesNoTextThatDBusCannotCarry)
{
    EXPECT_TRUE(parse_document(R"({"network": {"mode": "a\u0000b"}})", kSchema).damaged);
    EXPECT_TRUE(parse_document("{\"network\": {\"mode\": \"\xFF\"}}", kSchema).damaged);
    EXPECT_TRUE(parse_document(R"({"network": {"mode": "a\uFFFE"}})", kSchema).damaged) << "no character";
}

TEST(SettingsDocument, TakesWholeNumbersWithinTheirRangeOnly)
{
    const Value example = std::int32_t{0};
    EXPECT_EQ(to_value(json::parse("2147483647"), example), Value(INT32_MAX));
    EXPECT_EQ(to_value(json::parse("-2147483648"), example), Value(INT32_MIN));
    for (const char* text :
         {"2147483648", "-2147483649", "18446744073709551615", "1.0", "true", "\"1\"", "null"}) {
        EXPECT_EQ(to_value(json::parse(text), example), std::nullopt) << text;
    }
}

TEST(Salvage, TakesNothingFromOtherPlacesThanSettings)
{
    EXPECT_EQ(salvage(R"({"a": 1, "b": {"list": [1, {"x": true}], "deep": {"y": true}, "ok": "z"}, "c)"),
              json({{"b", {{"ok", "z"}}}}));
    EXPECT_EQ(salvage(R"([{"network": {"enabled": true}}, )"), json::object());
    EXPECT_EQ(salvage(R"({"": {"a": true}, "c": {"": true}, "d": {"e": true}, "f": [true], )"),
              json({{"d", {{"e", true}}}}));
}

TEST(SettingsDocument, KeepsWhateverAnotherVersionStores)
{
    const json root = json::parse(R"({"future": {"a": null, "b": -7, "c": 1.5, "d": 18446744073709551615}})");
    EXPECT_EQ(parse_document(root.dump(), kSchema).root, root);
}

TEST(Salvage, TakesNeitherFractionsNorNothing)
{
    EXPECT_EQ(salvage(R"({"display": {"contrast": 1.5, "name": null, "brightness": 7}, )"),
              json({{"display", {{"brightness", 7}}}}));
}

TEST(Salvage, TakesNumbersBelowZeroToo)
{
    EXPECT_EQ(salvage(R"({"display": {"brightness": -7}, )"), json({{"display", {{"brightness", -7}}}}));
}

} // namespace
