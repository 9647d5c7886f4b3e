#include "dbus-helper/sdbus_utils.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <any>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "support/private_bus.hpp"

namespace {

using namespace sdbus_utils;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Lt;
using testing_support::PrivateBus;

constexpr const char* kService = "com.example.Properties";
constexpr const char* kPath = "/com/example/object";
constexpr const char* kInterface = "com.example.Interface";

template <typename T>
T held(const std::any& value)
{
    const T* pointer = std::any_cast<T>(&value);
    if (pointer == nullptr) {
        ADD_FAILURE() << "held as " << value.type().name();
        return {};
    }
    return *pointer;
}

/** Messages made and read without ever being sent. */
class ParserTest : public testing::Test
{
protected:
    using Fill = std::function<int(sd_bus_message*)>;

    /** A message ready to be read. */
    MessagePtr make(const Fill& fill)
    {
        sd_bus_message* message = nullptr;
        EXPECT_GE(sd_bus_message_new_signal(connection.get(), &message, kPath, kInterface, "Signal"), 0);
        MessagePtr owner(message);
        EXPECT_GE(fill(message), 0);
        EXPECT_GE(sd_bus_message_seal(message, 1, 0), 0);
        EXPECT_GE(sd_bus_message_rewind(message, 1), 0);
        return owner;
    }

    /** A message with the dictionary {"Before": "b", "Value": <filled>, "Zafter": "z"}. */
    MessagePtr make_with_value(const char* type, const Fill& fill)
    {
        return make([&](sd_bus_message* m) {
            int r = sd_bus_message_open_container(m, 'a', "{sv}");
            r = std::min(r, sd_bus_message_append(m, "{sv}", "Before", "s", "b"));
            r = std::min(r, sd_bus_message_open_container(m, 'e', "sv"));
            r = std::min(r, sd_bus_message_append(m, "s", "Value"));
            r = std::min(r, sd_bus_message_open_container(m, 'v', type));
            r = std::min(r, fill(m));
            r = std::min(r, sd_bus_message_close_container(m));
            r = std::min(r, sd_bus_message_close_container(m));
            r = std::min(r, sd_bus_message_append(m, "{sv}", "Zafter", "s", "z"));
            return std::min(r, sd_bus_message_close_container(m));
        });
    }

    /** Parses such a message both ways; checks the neighbours and the signature; the value, or nothing. */
    std::any parse_value(const char* type, const Fill& fill)
    {
        PropertyMap plain;
        TypedPropertyMap typed;
        EXPECT_GE(ParseProperties(make_with_value(type, fill).get(), plain), 0);
        EXPECT_GE(ParsePropertiesWithType(make_with_value(type, fill).get(), typed), 0);
        EXPECT_EQ(held<std::string>(plain["Before"]), "b");
        EXPECT_EQ(held<std::string>(plain["Zafter"]), "z");
        EXPECT_EQ(typed["Before"].first, "s");
        EXPECT_EQ(held<std::string>(typed["Zafter"].second), "z");
        EXPECT_EQ(plain.contains("Value"), typed.contains("Value"));
        if (!typed.contains("Value")) {
            return {};
        }
        EXPECT_EQ(typed["Value"].first, type);
        EXPECT_EQ(typed["Value"].second.type(), plain["Value"].type());
        return typed["Value"].second;
    }

    bool skips(const char* type, const Fill& fill) { return !parse_value(type, fill).has_value(); }

    /** The value of a type whose arguments sd_bus_message_append takes. */
    template <typename... Arguments>
    std::any parse(const char* type, Arguments... arguments)
    {
        return parse_value(type,
                           [&](sd_bus_message* m) { return sd_bus_message_append(m, type, arguments...); });
    }

    PrivateBus bus;
    BusPtr connection = bus.connect();
};

TEST_F(ParserTest, DecodesEveryBasicType)
{
    EXPECT_EQ(held<std::uint8_t>(parse("y", 200)), 200);
    EXPECT_EQ(held<bool>(parse("b", 1)), true);
    EXPECT_EQ(held<bool>(parse("b", 0)), false);
    EXPECT_EQ(held<std::int16_t>(parse("n", -45)), -45);
    EXPECT_EQ(held<std::uint16_t>(parse("q", 65535)), 65535);
    EXPECT_EQ(held<std::int32_t>(parse("i", INT32_MIN)), INT32_MIN);
    EXPECT_EQ(held<std::uint32_t>(parse("u", UINT32_MAX)), UINT32_MAX);
    EXPECT_EQ(held<std::int64_t>(parse("x", INT64_MIN)), INT64_MIN);
    EXPECT_EQ(held<std::uint64_t>(parse("t", UINT64_MAX)), UINT64_MAX);
    EXPECT_EQ(held<double>(parse("d", 2.4)), 2.4);
    EXPECT_EQ(held<std::string>(parse("s", "text")), "text");
    EXPECT_EQ(held<std::string>(parse("s", "")), "");
    EXPECT_EQ(held<std::string>(parse("o", "/a/path")), "/a/path");
    EXPECT_EQ(held<std::string>(parse("g", "a{sv}")), "a{sv}");
}

TEST_F(ParserTest, DecodesArraysOfEveryBasicType)
{
    EXPECT_THAT(held<std::vector<std::uint8_t>>(parse("ay", 3, 0, 65, 255)), ElementsAre(0, 65, 255));
    EXPECT_THAT(held<std::vector<bool>>(parse("ab", 2, 1, 0)), ElementsAre(true, false));
    EXPECT_THAT(held<std::vector<std::int16_t>>(parse("an", 2, -1, 1)), ElementsAre(-1, 1));
    EXPECT_THAT(held<std::vector<std::uint16_t>>(parse("aq", 1, 9)), ElementsAre(9));
    EXPECT_THAT(held<std::vector<std::int32_t>>(parse("ai", 1, -9)), ElementsAre(-9));
    EXPECT_THAT(held<std::vector<std::uint32_t>>(parse("au", 2, 1000000U, 2U)), ElementsAre(1000000U, 2U));
    EXPECT_THAT(held<std::vector<std::int64_t>>(parse("ax", 1, INT64_MIN)), ElementsAre(INT64_MIN));
    EXPECT_THAT(held<std::vector<std::uint64_t>>(parse("at", 1, UINT64_MAX)), ElementsAre(UINT64_MAX));
    EXPECT_THAT(held<std::vector<double>>(parse("ad", 1, 0.5)), ElementsAre(0.5));
    EXPECT_THAT(held<std::vector<std::string>>(parse("as", 2, "wpa-psk", "sae")),
                ElementsAre("wpa-psk", "sae"));
    EXPECT_THAT(held<std::vector<std::string>>(parse("ao", 1, "/bss/1")), ElementsAre("/bss/1"));
    EXPECT_THAT(held<std::vector<std::string>>(parse("ag", 1, "ay")), ElementsAre("ay"));
}

TEST_F(ParserTest, DecodesEmptyArraysAsEmptyVectors)
{
    EXPECT_THAT(held<std::vector<std::uint8_t>>(parse("ay", 0)), IsEmpty());
    EXPECT_THAT(held<std::vector<bool>>(parse("ab", 0)), IsEmpty());
    EXPECT_THAT(held<std::vector<std::uint64_t>>(parse("at", 0)), IsEmpty());
    EXPECT_THAT(held<std::vector<std::string>>(parse("as", 0)), IsEmpty());
    EXPECT_THAT(held<std::vector<std::string>>(parse("ao", 0)), IsEmpty());
    EXPECT_THAT(held<PropertyMap>(parse("a{sv}", 0)), IsEmpty());
}

TEST_F(ParserTest, DecodesADictionaryByTheSameRules)
{
    auto rsn = held<PropertyMap>(
        parse("a{sv}", 3, "KeyMgmt", "as", 2, "wpa-psk", "sae", "Group", "s", "ccmp", "Odd", "(ii)", 1, 2));
    EXPECT_EQ(rsn.size(), 2U);
    EXPECT_THAT(held<std::vector<std::string>>(rsn["KeyMgmt"]), ElementsAre("wpa-psk", "sae"));
    EXPECT_EQ(held<std::string>(rsn["Group"]), "ccmp");
}

TEST_F(ParserTest, DecodesADictionaryInADictionary)
{
    auto outer = held<PropertyMap>(parse("a{sv}", 1, "inner", "a{sv}", 1, "n", "n", -7));
    auto inner = held<PropertyMap>(outer["inner"]);
    EXPECT_EQ(held<std::int16_t>(inner["n"]), -7);
}

TEST_F(ParserTest, DecodesAVariantInAVariantAsTheInnerValue)
{
    EXPECT_EQ(held<std::string>(parse("v", "s", "inner")), "inner");
    EXPECT_EQ(held<bool>(parse("v", "v", "b", 1)), true);
    EXPECT_THAT(held<std::vector<std::uint8_t>>(parse("v", "ay", 2, 1, 2)), ElementsAre(1, 2));
}

TEST_F(ParserTest, SkipsTypesThatAreNotListed)
{
    const auto appends = [](const char* type, auto... arguments) -> Fill {
        return [=](sd_bus_message* m) { return sd_bus_message_append(m, type, arguments...); };
    };
    EXPECT_TRUE(skips("h", appends("h", STDERR_FILENO)));
    EXPECT_TRUE(skips("ah", appends("ah", 2, STDERR_FILENO, STDERR_FILENO)));
    EXPECT_TRUE(skips("(si)", appends("(si)", "text", 1)));
    EXPECT_TRUE(skips("a(si)", appends("a(si)", 2, "a", 1, "b", 2)));
    EXPECT_TRUE(skips("a(si)", appends("a(si)", 0)));
    EXPECT_TRUE(skips("a{ss}", appends("a{ss}", 1, "key", "value")));
    EXPECT_TRUE(skips("a{uv}", appends("a{uv}", 1, 7U, "s", "value")));
    EXPECT_TRUE(skips("av", appends("av", 2, "s", "a", "i", 1)));
    EXPECT_TRUE(skips("aay", appends("aay", 2, 2, 1, 2, 0)));
    EXPECT_TRUE(skips("aa{sv}", appends("aa{sv}", 1, 1, "key", "s", "value")));
    EXPECT_TRUE(skips("v", appends("v", "(i)", 1)));
}

TEST_F(ParserTest, ReadsAnEmptyDictionary)
{
    PropertyMap properties = {{"stale", std::any(1)}};
    const MessagePtr message = make([](sd_bus_message* m) { return sd_bus_message_append(m, "a{sv}", 0); });
    EXPECT_GE(ParseProperties(message.get(), properties), 0);
    EXPECT_THAT(properties, IsEmpty());
}

TEST_F(ParserTest, ReadsFromTheCurrentPositionAndStopsBehindTheDictionary)
{
    const MessagePtr message = make([](sd_bus_message* m) {
        return sd_bus_message_append(m, "sa{sv}as", "com.example.Interface", 1, "enabled", "b", 1, 1,
                                     "invalidated");
    });
    ASSERT_GE(sd_bus_message_skip(message.get(), "s"), 0);
    TypedPropertyMap properties;
    ASSERT_GE(ParsePropertiesWithType(message.get(), properties), 0);
    EXPECT_EQ(properties["enabled"].first, "b");
    EXPECT_EQ(held<bool>(properties["enabled"].second), true);
    const char* rest = nullptr;
    EXPECT_GT(sd_bus_message_read(message.get(), "as", 1, &rest), 0);
    EXPECT_STREQ(rest, "invalidated");
}

TEST_F(ParserTest, TakesTheLastOfTwoValuesForOneKey)
{
    PropertyMap properties;
    const MessagePtr message = make([](sd_bus_message* m) {
        return sd_bus_message_append(m, "a{sv}", 2, "State", "s", "first", "State", "s", "last");
    });
    ASSERT_GE(ParseProperties(message.get(), properties), 0);
    EXPECT_EQ(held<std::string>(properties["State"]), "last");
}

TEST_F(ParserTest, FailsAndLeavesNothingWhereThereIsNoDictionary)
{
    const std::vector<Fill> messages = {
        [](sd_bus_message*) { return 0; },
        [](sd_bus_message* m) { return sd_bus_message_append(m, "s", "text"); },
        [](sd_bus_message* m) { return sd_bus_message_append(m, "a{ss}", 1, "a", "b"); },
        [](sd_bus_message* m) { return sd_bus_message_append(m, "as", 1, "a"); },
        [](sd_bus_message* m) { return sd_bus_message_append(m, "v", "a{sv}", 0); },
    };
    for (const Fill& fill : messages) {
        PropertyMap plain = {{"stale", std::any(1)}};
        TypedPropertyMap typed = {{"stale", {"i", std::any(1)}}};
        EXPECT_LT(ParseProperties(make(fill).get(), plain), 0);
        EXPECT_LT(ParsePropertiesWithType(make(fill).get(), typed), 0);
        EXPECT_THAT(plain, IsEmpty());
        EXPECT_THAT(typed, IsEmpty());
    }
}

TEST_F(ParserTest, FailsBehindTheLastDictionaryOfAnArray)
{
    const MessagePtr message =
        make([](sd_bus_message* m) { return sd_bus_message_append(m, "aa{sv}", 1, 0); });
    ASSERT_GE(sd_bus_message_enter_container(message.get(), 'a', "a{sv}"), 0);
    PropertyMap properties;
    EXPECT_EQ(ParseProperties(message.get(), properties), 0);
    properties = {{"stale", std::any(1)}};
    EXPECT_EQ(ParseProperties(message.get(), properties), -EBADMSG);
    EXPECT_THAT(properties, IsEmpty());
}

TEST_F(ParserTest, ReadsVariantsNestedAsDeepAsAMessageCanHoldThem)
{
    // Array, entry and outer variant are three levels of the 64 that D-Bus allows for values.
    constexpr int kDepth = 60;
    const auto value = parse_value("v", [](sd_bus_message* m) {
        int r = 0;
        for (int level = 0; level < kDepth; ++level) {
            r = std::min(r, sd_bus_message_open_container(m, 'v', level + 1 < kDepth ? "v" : "s"));
        }
        r = std::min(r, sd_bus_message_append(m, "s", "innermost"));
        for (int level = 0; level < kDepth; ++level) {
            r = std::min(r, sd_bus_message_close_container(m));
        }
        return r;
    });
    EXPECT_EQ(held<std::string>(value), "innermost");
}

TEST_F(ParserTest, ReadsHugeArrays)
{
    constexpr std::size_t kSize = std::size_t{8} * 1024 * 1024;
    const std::vector<std::uint8_t> bytes(kSize, 0x5A);
    const auto value = parse_value("ay", [&](sd_bus_message* m) {
        return sd_bus_message_append_array(m, 'y', bytes.data(), bytes.size());
    });
    EXPECT_EQ(held<std::vector<std::uint8_t>>(value), bytes);

    EXPECT_TRUE(skips("a(u)", [&](sd_bus_message* m) {
        int r = sd_bus_message_open_container(m, 'a', "(u)");
        for (int i = 0; i < 10000; ++i) {
            r = std::min(r, sd_bus_message_append(m, "(u)", i));
        }
        return std::min(r, sd_bus_message_close_container(m));
    }));
}

/** The two byte orders, as a message names them. */
constexpr char kLittleEndian = 'l';
constexpr char kBigEndian = 'B';

/** Puts numbers and texts into a D-Bus message by hand. */
class Wire
{
public:
    explicit Wire(char order) : order_(order) {}

    Wire& byte(unsigned value)
    {
        bytes_.push_back(static_cast<char>(value));
        return *this;
    }
    Wire& number(std::uint32_t value, unsigned size)
    {
        align(size);
        for (unsigned i = 0; i < size; ++i) {
            byte((value >> (8 * (order_ == kBigEndian ? size - 1 - i : i))) & 0xFFU);
        }
        return *this;
    }
    Wire& text(const std::string& value)
    {
        number(static_cast<std::uint32_t>(value.size()), 4);
        bytes_ += value;
        return byte(0);
    }
    Wire& signature(const std::string& value)
    {
        byte(static_cast<unsigned>(value.size()));
        bytes_ += value;
        return byte(0);
    }
    /** An array of what begins at multiples of eight, like the entries of a dictionary. */
    Wire& array(const std::string& elements)
    {
        number(static_cast<std::uint32_t>(elements.size()), 4).align(8);
        bytes_ += elements;
        return *this;
    }
    Wire& align(std::size_t boundary)
    {
        bytes_.resize((bytes_.size() + boundary - 1) / boundary * boundary);
        return *this;
    }
    const std::string& bytes() const { return bytes_; }

private:
    char order_;
    std::string bytes_;
};

/** A whole signal, or the whole answer to the first call of a connection. */
enum class MessageKind : std::uint8_t { Answer = 2, Signal = 4 };

std::string whole_message(char order, MessageKind kind, const std::string& signature, const std::string& body)
{
    Wire fields(order);
    if (kind == MessageKind::Signal) {
        fields.byte(1).signature("o").text(kPath);
        fields.align(8).byte(2).signature("s").text(kInterface);
        fields.align(8).byte(3).signature("s").text("Signal");
    } else {
        fields.byte(5).signature("u").number(1, 4);
    }
    fields.align(8).byte(8).signature("g").signature(signature);
    Wire message(order);
    message.byte(static_cast<unsigned char>(order)).byte(static_cast<unsigned>(kind)).byte(1).byte(1);
    message.number(static_cast<std::uint32_t>(body.size()), 4).number(1, 4).array(fields.bytes());
    return message.align(8).bytes() + body;
}

/** A connection to a far end that no bus daemon watches, and that has said all it will say. */
class SpokenTo
{
public:
    explicit SpokenTo(const std::string& messages)
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        farEnd_.reset(ends[1]);
        sd_bus* bus = nullptr;
        EXPECT_GE(sd_bus_new(&bus), 0);
        connection_.reset(bus);
        EXPECT_GE(sd_bus_set_fd(bus, ends[0], ends[0]), 0);
        const std::string said =
            "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n" + messages;
        EXPECT_EQ(::write(ends[1], said.data(), said.size()), static_cast<ssize_t>(said.size()));
        EXPECT_GE(sd_bus_start(bus), 0);
    }

    sd_bus* bus() const { return connection_.get(); }

private:
    UniqueFd farEnd_;
    BusPtr connection_;
};

/** What the parsers made of the body of one signal. */
struct Parsed
{
    int plainResult = 0;
    int typedResult = 0;
    PropertyMap plain = {{"stale", std::any(1)}};
    TypedPropertyMap typed = {{"stale", {"i", std::any(1)}}};
};

std::vector<Parsed> parse_received(char order, const std::vector<std::string>& bodies)
{
    std::string messages;
    for (const std::string& body : bodies) {
        messages += whole_message(order, MessageKind::Signal, "a{sv}", body);
    }
    const SpokenTo connection(messages);
    std::vector<Parsed> parsed;
    EXPECT_GE(sd_bus_add_filter(
                  connection.bus(), nullptr,
                  [](sd_bus_message* message, void* userdata, sd_bus_error*) {
                      Parsed& last = static_cast<std::vector<Parsed>*>(userdata)->emplace_back();
                      last.plainResult = ParseProperties(message, last.plain);
                      EXPECT_GE(sd_bus_message_rewind(message, 1), 0);
                      last.typedResult = ParsePropertiesWithType(message, last.typed);
                      return 0;
                  },
                  &parsed),
              0);
    for (std::size_t step = 0; step < 100 + 2 * bodies.size() && parsed.size() < bodies.size(); ++step) {
        EXPECT_GE(sd_bus_process(connection.bus(), nullptr), 0);
    }
    EXPECT_EQ(parsed.size(), bodies.size());
    return parsed;
}

void expect_refused(char order, const std::vector<std::string>& bodies,
                    const testing::Matcher<int>& result = -EBADMSG)
{
    std::size_t which = 0;
    for (const Parsed& parsed : parse_received(order, bodies)) {
        SCOPED_TRACE(testing::Message() << "order " << order << ", body " << which++);
        EXPECT_THAT(parsed.plainResult, result);
        EXPECT_THAT(parsed.typedResult, result);
        EXPECT_THAT(parsed.plain, IsEmpty());
        EXPECT_THAT(parsed.typed, IsEmpty());
    }
}

TEST(ReceivedMessages, AreReadInBothByteOrders)
{
    for (const char order : {kLittleEndian, kBigEndian}) {
        Wire entries(order);
        entries.text("Level").signature("n").number(static_cast<std::uint16_t>(-45), 2);
        entries.align(8).text("SSID").signature("ay").number(3, 4).byte('l').byte('a').byte('b');
        entries.align(8).text("Rates").signature("au").number(8, 4).number(6'000'000, 4).number(1, 4);
        auto parsed = parse_received(order, {Wire(order).array(entries.bytes()).bytes()});
        ASSERT_EQ(parsed.size(), 1U);
        EXPECT_EQ(parsed[0].typedResult, 0);
        EXPECT_EQ(parsed[0].plain.size(), 3U);
        auto& properties = parsed[0].typed;
        ASSERT_EQ(properties.size(), 3U);
        EXPECT_EQ(held<std::int16_t>(properties["Level"].second), -45);
        EXPECT_THAT(held<std::vector<std::uint8_t>>(properties["SSID"].second), ElementsAre('l', 'a', 'b'));
        EXPECT_THAT(held<std::vector<std::uint32_t>>(properties["Rates"].second), ElementsAre(6'000'000, 1));
    }
}

TEST(ReceivedMessages, AreRefusedWhereverTheirOnlyEntryBreaksOff)
{
    for (const char order : {kLittleEndian, kBigEndian}) {
        const auto entry = [order](const std::string& type) {
            return Wire(order).text("Key").signature(type);
        };
        const std::string text = Wire(order).text("Key").signature("s").text("text").bytes();
        const std::string entries[] = {
            entry("y").byte(1).bytes(),
            entry("b").number(1, 4).bytes(),
            entry("u").number(1, 4).bytes(),
            text,
            entry("g").signature("ay").bytes(),
            entry("ay").number(2, 4).byte(1).byte(2).bytes(),
            entry("ab").number(4, 4).number(1, 4).bytes(),
            entry("au").number(8, 4).number(1, 4).number(2, 4).bytes(),
            entry("as").number(9, 4).text("text").bytes(),
            entry("a{sv}").array(text).bytes(),
            entry("v").signature("v").signature("s").text("text").bytes(),
            entry("(uu)").align(8).number(1, 4).number(2, 4).bytes(),
        };
        for (const std::string& whole : entries) {
            std::vector<std::string> bodies;
            for (std::size_t size = 1; size < whole.size(); ++size) {
                bodies.push_back(Wire(order).array(whole.substr(0, size)).bytes());
            }
            expect_refused(order, bodies);
            EXPECT_EQ(parse_received(order, {Wire(order).array(whole).bytes()})[0].plainResult, 0);
        }
    }
}

TEST(ReceivedMessages, AreRefusedWhenTheyHoldNoTextsOrHalfNumbersOrAreTooDeep)
{
    for (const char order : {kLittleEndian, kBigEndian}) {
        const auto body = [order](Wire& entry) { return Wire(order).array(entry.bytes()).bytes(); };
        const auto entry = [order](const std::string& type) {
            return Wire(order).text("Key").signature(type);
        };
        std::string dictionaries = Wire(order).text("Key").signature("y").byte(1).bytes();
        for (int level = 0; level < 43; ++level) {
            dictionaries = entry("a{sv}").array(dictionaries).bytes();
        }
        Wire variants = entry("v");
        for (int level = 0; level < 130; ++level) {
            variants.signature("v");
        }
        variants.signature("y").byte(1);
        expect_refused(order,
                       {body(Wire(order).text("\xFF").signature("y").byte(1)), body(entry("s").text("\xFF")),
                        body(entry("o").text("no/slash/first")), body(entry("as").number(6, 4).text("\xFF")),
                        Wire(order).array(dictionaries).bytes(), body(variants)});
        expect_refused(order,
                       {body(entry("ab").number(3, 4).number(1, 4)),
                        body(entry("au").number(3, 4).number(1, 4)), body(entry("yy").byte(1).byte(1)),
                        body(entry("v").signature("yy").byte(1).byte(1))},
                       Lt(0));
    }
}

TEST(ReceivedAnswers, ThatCannotBeReadAreNamedAndLeaveTheValue)
{
    const auto variant = [](const std::string& type) { return Wire(kLittleEndian).signature(type); };
    const auto text = [](const std::string& body) {
        const SpokenTo connection(whole_message(kLittleEndian, MessageKind::Answer, "v", body));
        std::string value = "kept";
        std::string error;
        EXPECT_EQ(GetProperty(connection.bus(), kService, kPath, kInterface, "mode", value, error), -EBADMSG);
        EXPECT_EQ(value, "kept");
        return error;
    };
    EXPECT_EQ(text(""), "Cannot read property mode: Bad message");
    EXPECT_EQ(text(variant("s").bytes()), "Cannot read property mode: Bad message");
    EXPECT_EQ(text(variant("s").text("\xFF").bytes()), "Cannot read property mode: Bad message");

    const auto paths = [](const std::string& body) {
        const SpokenTo connection(whole_message(kLittleEndian, MessageKind::Answer, "v", body));
        std::vector<std::string> value = {"kept"};
        std::string error;
        EXPECT_EQ(GetProperty(connection.bus(), kService, kPath, kInterface, "BSSs", value, error), -EBADMSG);
        EXPECT_THAT(value, ElementsAre("kept"));
        return error;
    };
    EXPECT_EQ(paths(variant("ao").bytes()), "Cannot read property BSSs: Bad message");
    EXPECT_EQ(paths(variant("ao").number(21, 4).text("/path").text("none").bytes()),
              "Cannot read property BSSs: Bad message");

    const SpokenTo connection(whole_message(kLittleEndian, MessageKind::Answer, "v", variant("b").bytes()));
    bool flag = true;
    std::string error;
    EXPECT_EQ(GetProperty(connection.bus(), kService, kPath, kInterface, "enabled", flag, error), -EBADMSG);
    EXPECT_TRUE(flag);
    EXPECT_EQ(error, "Cannot read property enabled: Bad message");
}

/** A service that answers Get, GetAll and Set as the test says, on a thread and a connection of its own. */
class CallsTest : public testing::Test
{
protected:
    using Answer = std::function<int(sd_bus_message* call)>;

    CallsTest() : connection(bus.connect())
    {
        EXPECT_GE(sd_bus_request_name(connection.get(), kService, 0), 0);
        EXPECT_GE(sd_bus_add_object(connection.get(), nullptr, kPath, &CallsTest::on_call, this), 0);
        // The connection is the thread's until it has ended.
        server = std::thread([this] {
            while (!ended) {
                const int r = sd_bus_process(connection.get(), nullptr);
                if (r < 0) {
                    return;
                }
                if (r == 0) {
                    sd_bus_wait(connection.get(), std::uint64_t{20} * 1000);
                }
            }
        });
    }
    CallsTest(const CallsTest&) = delete;
    CallsTest& operator=(const CallsTest&) = delete;
    ~CallsTest() override
    {
        ended = true;
        server.join();
    }

    /** Answers every call with one value, as sd_bus_reply_method_return takes it. Set before the first call.
     */
    template <typename... Arguments>
    void answer_with(Arguments... arguments)
    {
        answer = [=](sd_bus_message* call) { return sd_bus_reply_method_return(call, arguments...); };
    }

    static int on_call(sd_bus_message* call, void* userdata, sd_bus_error*)
    {
        auto& self = *static_cast<CallsTest*>(userdata);
        return self.answer(call);
    }

    PrivateBus bus;
    BusPtr connection;
    Answer answer;
    std::atomic<bool> ended = false;
    std::thread server;
    std::string error;
};

TEST_F(CallsTest, GetsABoolean)
{
    answer_with("v", "b", 1);
    bool value = false;
    EXPECT_GE(GetProperty(nullptr, kService, kPath, kInterface, "enabled", value, error), 0);
    EXPECT_TRUE(value);
    EXPECT_EQ(error, "");
}

TEST_F(CallsTest, GetsAString)
{
    answer_with("v", "s", "Client");
    std::string value;
    EXPECT_GE(GetProperty(nullptr, kService, kPath, kInterface, "mode", value, error), 0);
    EXPECT_EQ(value, "Client");
}

TEST_F(CallsTest, GetsObjectPathsInOrderInPlaceOfWhatWasThere)
{
    answer_with("v", "ao", 3, "/b", "/a", "/c");
    std::vector<std::string> value = {"stale"};
    EXPECT_GE(GetProperty(nullptr, kService, kPath, kInterface, "BSSs", value, error), 0);
    EXPECT_THAT(value, ElementsAre("/b", "/a", "/c"));
}

TEST_F(CallsTest, GetsAnEmptyListOfObjectPaths)
{
    answer_with("v", "ao", 0);
    std::vector<std::string> value = {"stale"};
    EXPECT_GE(GetProperty(nullptr, kService, kPath, kInterface, "BSSs", value, error), 0);
    EXPECT_THAT(value, IsEmpty());
}

TEST_F(CallsTest, AsksForTheInterfaceAndPropertyOnTheCallersConnection)
{
    std::string asked;
    std::string asker;
    answer = [&](sd_bus_message* call) {
        const char* ofInterface = nullptr;
        const char* name = nullptr;
        sd_bus_message_read(call, "ss", &ofInterface, &name);
        asked = std::string(sd_bus_message_get_member(call)) + " " + ofInterface + " " + name;
        asker = sd_bus_message_get_sender(call);
        return sd_bus_reply_method_return(call, "v", "b", 0);
    };
    const BusPtr own = bus.connect();
    const char* ownName = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(own.get(), &ownName), 0);
    bool value = true;
    EXPECT_GE(GetProperty(own.get(), kService, kPath, kInterface, "enabled", value, error), 0);
    EXPECT_FALSE(value);
    EXPECT_EQ(asked, "Get com.example.Interface enabled");
    EXPECT_EQ(asker, ownName);
}

TEST_F(CallsTest, SaysWhichPropertyIsOfWhichWrongTypeAndLeavesTheValue)
{
    answer_with("v", "s", "yes");
    bool flag = true;
    EXPECT_LT(GetProperty(nullptr, kService, kPath, kInterface, "enabled", flag, error), 0);
    EXPECT_TRUE(flag);
    EXPECT_EQ(error, "Property enabled is of type 's', not 'b'");
}

TEST_F(CallsTest, RefusesEveryOtherTypeForAStringAndForObjectPaths)
{
    answer_with("v", "o", "/a/path");
    std::string text = "kept";
    EXPECT_LT(GetProperty(nullptr, kService, kPath, kInterface, "mode", text, error), 0);
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(error, "Property mode is of type 'o', not 's'");
}

TEST_F(CallsTest, RefusesStringsForObjectPaths)
{
    answer_with("v", "as", 1, "/a/path");
    std::vector<std::string> paths = {"kept"};
    EXPECT_LT(GetProperty(nullptr, kService, kPath, kInterface, "BSSs", paths, error), 0);
    EXPECT_THAT(paths, ElementsAre("kept"));
    EXPECT_EQ(error, "Property BSSs is of type 'as', not 'ao'");
}

TEST_F(CallsTest, RefusesAReplyWithoutAVariant)
{
    answer_with("s", "bare");
    std::string text = "kept";
    EXPECT_LT(GetProperty(nullptr, kService, kPath, kInterface, "mode", text, error), 0);
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(error, "The reply for property mode holds 's' in place of a variant");
}

TEST_F(CallsTest, RefusesAnEmptyReply)
{
    answer_with(static_cast<const char*>(nullptr));
    std::string text = "kept";
    EXPECT_EQ(GetProperty(nullptr, kService, kPath, kInterface, "mode", text, error), -ENXIO);
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(error, "The reply for property mode holds '' in place of a variant");
}

TEST_F(CallsTest, PassesTheErrorTextOfTheService)
{
    answer = [](sd_bus_message* call) {
        return sd_bus_reply_method_errorf(call, "com.example.Error.Odd", "it is %s", "odd");
    };
    bool flag = true;
    EXPECT_LT(GetProperty(nullptr, kService, kPath, kInterface, "enabled", flag, error), 0);
    EXPECT_TRUE(flag);
    EXPECT_EQ(error, "it is odd");
    EXPECT_LT(SetProperty(nullptr, kService, kPath, kInterface, "enabled", true, error), 0);
    EXPECT_EQ(error, "it is odd");
}

TEST_F(CallsTest, NamesAnErrorThatHasNoText)
{
    answer = [](sd_bus_message* call) {
        const sd_bus_error silent = {"com.example.Error.Silent", nullptr, 0};
        return sd_bus_reply_method_error(call, &silent);
    };
    bool flag = true;
    EXPECT_LT(GetProperty(nullptr, kService, kPath, kInterface, "enabled", flag, error), 0);
    EXPECT_EQ(error, "com.example.Error.Silent");
}

TEST_F(CallsTest, SaysWhenNobodyOwnsTheName)
{
    std::string text = "kept";
    EXPECT_LT(GetProperty(nullptr, "com.example.Nobody", kPath, kInterface, "mode", text, error), 0);
    EXPECT_EQ(text, "kept");
    EXPECT_THAT(error, HasSubstr("com.example.Nobody"));
}

TEST_F(CallsTest, RefusesNamesThatDBusDoesNotAllow)
{
    std::string text = "kept";
    EXPECT_EQ(GetProperty(nullptr, kService, "/has a blank", kInterface, "mode", text, error), -EINVAL);
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(error, "Invalid argument");
}

TEST_F(CallsTest, SetsABooleanAndAString)
{
    std::vector<std::string> calls;
    answer = [&](sd_bus_message* call) {
        const char* ofInterface = nullptr;
        const char* name = nullptr;
        sd_bus_message_read(call, "ss", &ofInterface, &name);
        char type = 0;
        const char* contents = nullptr;
        sd_bus_message_peek_type(call, &type, &contents);
        std::string value;
        if (std::string(contents) == "b") {
            int flag = -1;
            sd_bus_message_read(call, "v", "b", &flag);
            value = flag == 1 ? "true" : "false";
        } else {
            const char* text = "?";
            sd_bus_message_read(call, "v", "s", &text);
            value = text;
        }
        calls.push_back(std::string(sd_bus_message_get_member(call)) + " " + ofInterface + " " + name + "=" +
                        value);
        return sd_bus_reply_method_return(call, nullptr);
    };
    EXPECT_GE(SetProperty(nullptr, kService, kPath, kInterface, "enabled", true, error), 0);
    EXPECT_GE(SetProperty(nullptr, kService, kPath, kInterface, "enabled", false, error), 0);
    EXPECT_GE(SetProperty(nullptr, kService, kPath, kInterface, "mode", std::string("Client"), error), 0);
    EXPECT_EQ(error, "");
    EXPECT_THAT(calls, ElementsAre("Set com.example.Interface enabled=true",
                                   "Set com.example.Interface enabled=false",
                                   "Set com.example.Interface mode=Client"));
}

TEST_F(CallsTest, RefusesToSetTextsThatDBusCannotCarry)
{
    EXPECT_EQ(SetProperty(nullptr, kService, kPath, kInterface, "name", std::string("a\0b", 3), error),
              -EINVAL);
    EXPECT_EQ(error, "The value for property name holds a NUL character");
    EXPECT_LT(SetProperty(nullptr, kService, kPath, kInterface, "name", std::string("\xFF\xFE"), error), 0);
    EXPECT_NE(error, "");
}

TEST_F(CallsTest, GetsAllPropertiesWithTheirTypes)
{
    answer_with("a{sv}", 3, "SSID", "ay", 3, 'l', 'a', 'b', "Signal", "n", -40, "Odd", "(i)", 1);
    TypedPropertyMap properties = {{"stale", {"i", std::any(1)}}};
    ASSERT_GE(GetAllProperties(nullptr, kService, kPath, kInterface, properties), 0);
    ASSERT_EQ(properties.size(), 2U);
    EXPECT_EQ(properties["SSID"].first, "ay");
    EXPECT_THAT(held<std::vector<std::uint8_t>>(properties["SSID"].second), ElementsAre('l', 'a', 'b'));
    EXPECT_EQ(properties["Signal"].first, "n");
    EXPECT_EQ(held<std::int16_t>(properties["Signal"].second), -40);
}

TEST_F(CallsTest, LeavesNoPropertiesWhenGetAllFails)
{
    answer = [](sd_bus_message* call) { return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_FAILED, "no"); };
    TypedPropertyMap properties = {{"stale", {"i", std::any(1)}}};
    EXPECT_LT(GetAllProperties(nullptr, kService, kPath, kInterface, properties), 0);
    EXPECT_THAT(properties, IsEmpty());
}

TEST(CallsWithoutABus, FailAndSaySo)
{
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    std::string error;
    bool flag = true;
    EXPECT_LT(GetProperty(nullptr, kService, kPath, kInterface, "enabled", flag, error), 0);
    EXPECT_TRUE(flag);
    EXPECT_THAT(error, HasSubstr("Cannot open the user bus: "));
    error.clear();
    EXPECT_LT(SetProperty(nullptr, kService, kPath, kInterface, "enabled", true, error), 0);
    EXPECT_THAT(error, HasSubstr("Cannot open the user bus: "));
    EXPECT_LT(SetProperty(nullptr, kService, kPath, kInterface, "mode", std::string("Host"), error), 0);
    TypedPropertyMap properties = {{"stale", {"i", std::any(1)}}};
    EXPECT_LT(GetAllProperties(nullptr, kService, kPath, kInterface, properties), 0);
    EXPECT_THAT(properties, IsEmpty());
}

} // namespace
