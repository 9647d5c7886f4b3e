#include "korrin-info/korrin_info.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <vector>

#include <linux/netlink.h>
#include <linux/nl80211.h>
#include <sys/stat.h>

#include "device_conf.hpp"
#include "identity.hpp"
#include "radio_bands.hpp"
#include "small_file.hpp"
#include "support/disk_in_pieces.hpp"
#include "support/temp_folder.hpp"

namespace {

using namespace KorrinInfo::detail;
using testing::Pair;
using testing::UnorderedElementsAre;

bool with_5ghz()
{
    return true;
}

bool without_5ghz()
{
    return false;
}

/** A machine whose files are those that the test writes. */
class Machine : public testing::Test
{
protected:
    void configure(const std::string& text) { files.write("etc/korrin/device.conf", text); }
    std::string root() const { return files.path().string(); }

    testing_support::TempFolder files;
};

TEST(DeviceConf, ReadsKeysAndValues)
{
    EXPECT_THAT(
        parse_device_conf("model=K1\nserial=12-3456\nradio_type=1\n"),
        UnorderedElementsAre(Pair("model", "K1"), Pair("serial", "12-3456"), Pair("radio_type", "1")));
}

TEST(DeviceConf, DropsBlanksAroundKeysAndValuesAndKeepsThoseWithin)
{
    EXPECT_THAT(parse_device_conf("  model \t=  Korrin One \n"),
                UnorderedElementsAre(Pair("model", "Korrin One")));
}

TEST(DeviceConf, ReadsCrlfLineEndsAndALastLineWithoutEnd)
{
    EXPECT_THAT(parse_device_conf("model=K1\r\nserial=5"),
                UnorderedElementsAre(Pair("model", "K1"), Pair("serial", "5")));
}

TEST(DeviceConf, PassesOverCommentsEmptyLinesAndLinesWithoutEquals)
{
    EXPECT_THAT(parse_device_conf("# model=no\n;serial=no\n\n \t \nnonsense\n=nameless\nmodel=K#1\n"),
                UnorderedElementsAre(Pair("model", "K#1")));
}

TEST(DeviceConf, TakesEverythingAfterTheFirstEqualsSign)
{
    EXPECT_THAT(parse_device_conf("model=a=b"), UnorderedElementsAre(Pair("model", "a=b")));
}

TEST(DeviceConf, TakesTheLastOfTwoValues)
{
    EXPECT_THAT(parse_device_conf("model=a\nmodel=b\n"), UnorderedElementsAre(Pair("model", "b")));
}

TEST(DeviceConf, PassesOverAByteOrderMark)
{
    EXPECT_THAT(parse_device_conf("\xEF\xBB\xBFmodel=a\n"), UnorderedElementsAre(Pair("model", "a")));
}

TEST(DeviceConf, IsEmptyForEmptyText)
{
    EXPECT_TRUE(parse_device_conf("").empty());
}

TEST_F(Machine, TellsWhatItsConfigurationSays)
{
    configure("model=K1\nserial=12-3456\nradio_type=3\n");
    files.write("proc/device-tree/model", "other");
    files.write("proc/device-tree/serial-number", "other");
    EXPECT_EQ(display_name(root()), "K1");
    EXPECT_EQ(serial_number(root()), "12-3456");
    EXPECT_EQ(radio_type(root(), without_5ghz), 3);
}

TEST_F(Machine, TakesAnEmptyConfiguredSerialNumberForWhatItIsAndAnEmptyModelForNone)
{
    configure("model=\nserial=\n");
    files.write("proc/device-tree/model", "other");
    files.write("proc/device-tree/serial-number", "other");
    EXPECT_EQ(display_name(root()), "other");
    EXPECT_EQ(serial_number(root()), "");
}

TEST_F(Machine, LeavesConfiguredTextsAsLongAsTheyAre)
{
    configure("model=Something With A Very Long Name\nserial=0123456789abcdef0\n");
    EXPECT_EQ(display_name(root()), "Something With A Very Long Name");
    EXPECT_EQ(serial_number(root()), "0123456789abcdef0");
}

TEST_F(Machine, ShortensWhatTheMachineSaysToWhatFitsIntoTheNameOfANetwork)
{
    files.write("proc/device-tree/model", "Some Board 4 Model B Rev 1.4");
    files.write("proc/device-tree/serial-number", "10000000abcdef01");
    EXPECT_EQ(display_name(root()), "Some Board 4 Model");
    EXPECT_EQ(serial_number(root()), "0000abcdef01");

    files.write("proc/device-tree/model", "Nineteen Bytes Long");
    EXPECT_EQ(display_name(root()), "Nineteen Bytes Long");
    files.write("proc/device-tree/model", "Nineteen Bytes Are Plenty");
    EXPECT_EQ(display_name(root()), "Nineteen Bytes Are");
    files.write("proc/device-tree/model", "Nineteen-Bytes-Are-Plenty");
    EXPECT_EQ(display_name(root()), "Nineteen-Bytes-Are-");
    // The nineteenth byte is the first of two.
    files.write("proc/device-tree/model", "Eighteen-Bytes--18\u00FC-and-more");
    EXPECT_EQ(display_name(root()), "Eighteen-Bytes--18");
    files.write("proc/device-tree/model", "A Model-Name-Of-Many-Bytes");
    EXPECT_EQ(display_name(root()), "A");
    files.write("proc/device-tree/model", std::string(20, '\x80'));
    EXPECT_EQ(display_name(root()), "Vantora") << "no byte of it begins a character";
}

TEST_F(Machine, AsksTheDeviceTreeForWhatIsNotConfigured)
{
    configure("radio_type=0\n");
    files.write("proc/device-tree/model", std::string("Board Rev 2\0", 12));
    files.write("proc/device-tree/serial-number", std::string("00-11\0", 6));
    EXPECT_EQ(display_name(root()), "Board Rev 2");
    EXPECT_EQ(serial_number(root()), "00-11");
}

TEST_F(Machine, AsksTheFirmwareTablesWithoutADeviceTree)
{
    files.write("sys/class/dmi/id/product_name", "Laptop 9\n");
    files.write("sys/class/dmi/id/product_serial", "SN-77\n");
    EXPECT_EQ(display_name(root()), "Laptop 9");
    EXPECT_EQ(serial_number(root()), "SN-77");
}

TEST_F(Machine, DoesNotTakeTheTemplateTextOfFirmwareTablesForAName)
{
    for (const char* filler : {"To Be Filled By O.E.M.", "Default string", "Not Specified", "Not Applicable",
                               "None", "System Product Name", "System Serial Number", "Unknown", "0"}) {
        files.write("sys/class/dmi/id/product_name", std::string(filler) + "\n");
        files.write("sys/class/dmi/id/product_serial", std::string(filler) + "\n");
        EXPECT_EQ(display_name(root()), "Vantora") << filler;
        EXPECT_EQ(serial_number(root()), "") << filler;
    }
    files.write("sys/class/dmi/id/product_name", "None Such\n");
    EXPECT_EQ(display_name(root()), "None Such");
}

TEST_F(Machine, TakesTheFirstLineOfWhatItReads)
{
    for (const char* text : {"Board\nsecond", "Board\r\nsecond", "Board\rsecond", " Board \n"}) {
        files.write("proc/device-tree/model", text);
        EXPECT_EQ(display_name(root()), "Board") << text;
    }
    files.write("proc/device-tree/model", std::string("Board\0more", 10));
    EXPECT_EQ(display_name(root()), "Board");
}

TEST_F(Machine, MakesASerialNumberFromTheMachineIdWithoutShowingIt)
{
    const std::string id = "0123456789abcdef0123456789abcdef";
    files.write("etc/machine-id", id + "\n");
    const std::string serial = serial_number(root());
    EXPECT_THAT(serial, testing::MatchesRegex("[0-9A-F]{12}"));
    EXPECT_EQ(serial, serial_number(root()));

    files.write("etc/machine-id", "0123456789abcdef0123456789abcdee\n");
    EXPECT_NE(serial_number(root()), serial);
}

TEST_F(Machine, DoesNotTakeAnUninitialisedMachineIdForAnId)
{
    for (const char* text : {"uninitialized\n", "0123456789abcdef0123456789abcdeg\n"}) {
        files.write("etc/machine-id", text);
        EXPECT_EQ(serial_number(root()), "") << text;
    }
}

TEST_F(Machine, HasTheProductsNameAndNoNumberWhenThereIsNothing)
{
    EXPECT_EQ(display_name(root()), "Vantora");
    EXPECT_EQ(serial_number(root()), "");
    EXPECT_EQ(radio_type(root(), without_5ghz), 0);
}

TEST_F(Machine, TakesTheRadioTypeFromTheRadioWhenItIsNotConfigured)
{
    EXPECT_EQ(radio_type(root(), with_5ghz), 1);
    EXPECT_EQ(radio_type(root(), without_5ghz), 0);
}

TEST_F(Machine, TakesTheRadioTypeFromTheRadioWhenTheConfiguredOneIsNoWholeNumber)
{
    for (const char* text : {"radio_type=", "radio_type=five", "radio_type=1x", "radio_type=99999999999"}) {
        configure(text);
        EXPECT_EQ(radio_type(root(), with_5ghz), 1) << text;
        EXPECT_EQ(radio_type(root(), without_5ghz), 0) << text;
    }
}

TEST_F(Machine, DoesNotAskTheRadioWhenTheTypeIsConfigured)
{
    configure("radio_type = 0\r\n");
    EXPECT_EQ(radio_type(root(),
                         [] {
                             ADD_FAILURE() << "the radio was asked";
                             return true;
                         }),
              0);
}

TEST_F(Machine, DoesNotWaitForAFifoInPlaceOfTheConfiguration)
{
    files.write("etc/korrin/other", "");
    ASSERT_EQ(::mkfifo(files.file("etc/korrin/device.conf").c_str(), 0600), 0);
    files.write("proc/device-tree/model", "Board");
    EXPECT_EQ(display_name(root()), "Board");
}

TEST_F(Machine, PassesOverAConfigurationThatIsAFolderOrFarTooLarge)
{
    files.write("proc/device-tree/model", "Board");
    files.write("etc/korrin/device.conf/file", "");
    EXPECT_EQ(display_name(root()), "Board");

    std::filesystem::remove_all(files.file("etc/korrin/device.conf"));
    std::string large = "model=K1\n";
    large.resize(std::size_t{64} * 1024, '#');
    configure(large);
    EXPECT_EQ(display_name(root()), "K1");
    configure(large + "#");
    EXPECT_EQ(display_name(root()), "Board");
}

using Bytes = std::vector<std::byte>;

/** The parts one after the other. */
Bytes join(std::initializer_list<Bytes> parts)
{
    Bytes whole;
    for (const Bytes& part : parts) {
        std::copy(part.begin(), part.end(), std::back_inserter(whole));
    }
    return whole;
}

/** An attribute as the kernel lays it out: length and type, payload, padding to four bytes. */
Bytes attribute(std::uint16_t type, const Bytes& payload)
{
    const nlattr header = {static_cast<std::uint16_t>(sizeof(nlattr) + payload.size()), type};
    Bytes head(sizeof header);
    std::memcpy(head.data(), &header, sizeof header);
    return join({head, payload, Bytes(NLA_ALIGN(payload.size()) - payload.size())});
}

TEST(RadioBands, AreFoundAmongOtherAttributes)
{
    const Bytes name = attribute(NL80211_ATTR_WIPHY_NAME, Bytes(5));
    const Bytes band2ghz = attribute(NL80211_BAND_2GHZ, attribute(NL80211_BAND_ATTR_FREQS, {}));
    const Bytes band5ghz =
        attribute(NL80211_BAND_5GHZ | NLA_F_NESTED, attribute(NL80211_BAND_ATTR_FREQS, {}));
    const auto bands = [](const Bytes& nested) {
        return attribute(NL80211_ATTR_WIPHY_BANDS | NLA_F_NESTED, nested);
    };
    EXPECT_TRUE(attributes_offer_5ghz(join({name, bands(join({band2ghz, band5ghz}))})));
    EXPECT_FALSE(attributes_offer_5ghz(join({name, bands(band2ghz)})));
    EXPECT_FALSE(attributes_offer_5ghz(join({name, bands({})})));
    EXPECT_TRUE(attributes_offer_5ghz(bands(attribute(NL80211_BAND_5GHZ, {}))));
    EXPECT_FALSE(attributes_offer_5ghz(name));
    EXPECT_FALSE(attributes_offer_5ghz({}));
}

TEST(RadioBands, AreNotReadPastTheEndOfAMessageThatIsCutOff)
{
    const Bytes whole =
        attribute(NL80211_ATTR_WIPHY_BANDS,
                  join({attribute(NL80211_BAND_2GHZ, Bytes(8)), attribute(NL80211_BAND_5GHZ, Bytes(8))}));
    ASSERT_TRUE(attributes_offer_5ghz(whole));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_FALSE(attributes_offer_5ghz(cut)) << size; // the outer attribute no longer fits
    }
}

TEST(RadioBands, DoNotLoopOnAnAttributeWithoutLength)
{
    EXPECT_FALSE(attributes_offer_5ghz(Bytes(64)));
}

TEST(KorrinInfo, AnswersOnAnyMachine)
{
    // What it says depends on the machine; that it says the same through the public names does not.
    EXPECT_EQ(KorrinInfo::ThisModel::DisplayName(), display_name(""));
    EXPECT_EQ(KorrinInfo::ThisKorrin::SerialNumber(), serial_number(""));
    EXPECT_EQ(KorrinInfo::ThisKorrin::RadioType(), radio_type("", radio_offers_5ghz));
}

TEST(KorrinInfo, FindsNoBandWhereTheKernelHasNoRadio)
{
    EXPECT_TRUE(std::filesystem::exists("/sys/class/ieee80211") || !radio_offers_5ghz());
}

TEST(SmallFile, IsReadToItsEndInPiecesAndAfterSignals)
{
    const testing_support::TempFolder folder;
    folder.write("file", "contents");
    for (const std::size_t piece : {1, 3, 8}) {
        const testing_support::DiskInPieces disk(piece);
        EXPECT_EQ(read_small_file(folder.file("file")), "contents");
    }
}

} // namespace
