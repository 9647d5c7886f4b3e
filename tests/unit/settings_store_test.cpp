#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "atomic_file.hpp"
#include "schema.hpp"
#include "store.hpp"
#include "support/temp_folder.hpp"

namespace {

using namespace settingsd;
using nlohmann::json;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing_support::TempFolder;

const std::array schema = {
    Setting{"device", "deviceName", "Unit-1", Belongs::ToOwner},
    Setting{"network", "enabled", true},
    Setting{"network", "mode", "Host"},
    Setting{"display", "brightness", 80},
};
const Setting& device_name = schema[0];
const Setting& enabled = schema[1];
const Setting& mode = schema[2];
const Setting& brightness = schema[3];

/** A store whose file is in a folder of the test's. */
class SettingsStoreTest : public testing::Test
{
protected:
    SettingsStore make_store() const { return {folder.file("settings.json"), schema}; }

    SettingsStore load_store() const
    {
        SettingsStore store = make_store();
        EXPECT_THAT(store.load(), IsEmpty());
        return store;
    }

    json stored() const { return json::parse(folder.read("settings.json")); }

    static int set(SettingsStore& store, const Setting& setting, const Value& value)
    {
        bool changed = false;
        return store.set(setting, value, changed);
    }

    std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    TempFolder folder;
};

TEST_F(SettingsStoreTest, HasDefaultsWithoutAFileAndMakesNone)
{
    const SettingsStore store = load_store();
    EXPECT_EQ(store.get(enabled), Value(true));
    EXPECT_EQ(store.get(mode), Value("Host"));
    EXPECT_EQ(store.get(brightness), Value(80));
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(SettingsStoreTest, HasAValueOnTheDiskWhenSetReturns)
{
    SettingsStore store = load_store();
    bool changed = false;
    EXPECT_EQ(store.set(mode, "Client", changed), 0);
    EXPECT_TRUE(changed);
    EXPECT_EQ(store.get(mode), Value("Client"));
    EXPECT_EQ(stored(), json({{"network", {{"mode", "Client"}}}}));
    EXPECT_EQ(load_store().get(mode), Value("Client"));
    EXPECT_THAT(files(), ElementsAre("settings.json"));
}

TEST_F(SettingsStoreTest, KeepsItsFileFromOtherUsers)
{
    SettingsStore store = load_store();
    ASSERT_EQ(set(store, enabled, false), 0);
    struct stat status = {};
    ASSERT_EQ(::stat(folder.file("settings.json").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0137U, 0U);
}

TEST_F(SettingsStoreTest, WritesNothingWhenTheValueIsTheSame)
{
    SettingsStore store = load_store();
    bool changed = true;
    EXPECT_EQ(store.set(mode, "Host", changed), 0);
    EXPECT_FALSE(changed);
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(SettingsStoreTest, RefusesAValueOfAnotherType)
{
    SettingsStore store = load_store();
    EXPECT_EQ(set(store, mode, true), -EINVAL);
    EXPECT_EQ(store.get(mode), Value("Host"));
}

TEST_F(SettingsStoreTest, ResetsASettingToItsDefault)
{
    SettingsStore store = load_store();
    ASSERT_EQ(set(store, mode, "Client"), 0);
    ASSERT_EQ(set(store, enabled, false), 0);
    std::vector<const Setting*> changed;
    EXPECT_EQ(store.reset(std::array{&mode}, changed), 0);
    EXPECT_THAT(changed, ElementsAre(&mode));
    EXPECT_EQ(store.get(mode), Value("Host"));
    EXPECT_EQ(store.get(enabled), Value(false));
    EXPECT_EQ(stored(), json({{"network", {{"enabled", false}}}}));
}

TEST_F(SettingsStoreTest, ReportsOnlyTheSettingsThatAResetReallyChanges)
{
    SettingsStore store = load_store();
    ASSERT_EQ(set(store, enabled, false), 0);
    std::vector<const Setting*> changed = {&mode};
    EXPECT_EQ(store.reset(std::array{&enabled, &mode, &brightness}, changed), 0);
    EXPECT_THAT(changed, ElementsAre(&enabled));
    EXPECT_EQ(store.reset(std::array{&enabled, &mode}, changed), 0);
    EXPECT_THAT(changed, IsEmpty());
}

TEST_F(SettingsStoreTest, CarriesUnknownKeysThroughAWriteAndAReset)
{
    folder.write("settings.json",
                 R"({"future": {"x": [1, {"y": null}]}, "network": {"channel": 6, "mode": "Client"}})");
    SettingsStore store = make_store();
    EXPECT_THAT(store.load(),
                ElementsAre("unknown section future is kept", "unknown setting network.channel is kept"));
    EXPECT_THAT(files(), ElementsAre("settings.json"));
    ASSERT_EQ(set(store, enabled, false), 0);
    std::vector<const Setting*> changed;
    ASSERT_EQ(store.reset(std::array{&enabled, &mode}, changed), 0);
    EXPECT_EQ(stored(), json::parse(R"({"future": {"x": [1, {"y": null}]}, "network": {"channel": 6}})"));
}

TEST_F(SettingsStoreTest, KeepsADamagedFileAsideAndGoesOnWithWhatCanBeRead)
{
    const std::string damaged = R"({"network": {"enabled": false, "mode": "Cli)";
    folder.write("settings.json", damaged);
    SettingsStore store = make_store();
    EXPECT_THAT(store.load(), ElementsAre("not valid JSON", "the damaged file is kept as " +
                                                                folder.file("settings.json.damaged-1")));
    EXPECT_EQ(folder.read("settings.json.damaged-1"), damaged);
    EXPECT_EQ(store.get(enabled), Value(false));
    EXPECT_EQ(store.get(mode), Value("Host"));
    EXPECT_EQ(stored(), json({{"network", {{"enabled", false}}}}));
    EXPECT_EQ(load_store().get(enabled), Value(false)) << "reported once, not at each start";
}

TEST_F(SettingsStoreTest, NeverWritesOverAFileKeptAsideEarlier)
{
    folder.write("settings.json.damaged-1", "first");
    folder.write("settings.json.damaged-2", "second");
    folder.write("settings.json", "third");
    SettingsStore store = make_store();
    EXPECT_THAT(store.load(), Contains(HasSubstr("settings.json.damaged-3")));
    EXPECT_EQ(folder.read("settings.json.damaged-1"), "first");
    EXPECT_EQ(folder.read("settings.json.damaged-2"), "second");
    EXPECT_EQ(folder.read("settings.json.damaged-3"), "third");
}

TEST_F(SettingsStoreTest, KeepsAFileWithAValueOfAWrongTypeAside)
{
    const std::string damaged = R"({"network": {"enabled": 1, "mode": "Client"}})";
    folder.write("settings.json", damaged);
    SettingsStore store = make_store();
    EXPECT_THAT(store.load(), Contains("setting network.enabled is not of type 'b'"));
    EXPECT_EQ(folder.read("settings.json.damaged-1"), damaged);
    EXPECT_EQ(store.get(enabled), Value(true));
    EXPECT_EQ(store.get(mode), Value("Client"));
}

TEST_F(SettingsStoreTest, KeepsAFileThatIsFarTooLargeAside)
{
    folder.write("settings.json", std::string(std::size_t{2} << 20U, ' '));
    SettingsStore store = make_store();
    EXPECT_THAT(store.load(), Contains(HasSubstr("cannot be read: File too large")));
    EXPECT_EQ(folder.read("settings.json.damaged-1").size(), std::size_t{2} << 20U);
    EXPECT_EQ(set(store, enabled, false), 0);
}

TEST_F(SettingsStoreTest, ChangesNothingWhereTheFileCanBeNeitherReadNorKeptAside)
{
    folder.write("settings.json/inside", "a folder where the file should be");
    SettingsStore store = make_store();
    EXPECT_THAT(store.load(),
                ElementsAre(HasSubstr("cannot be read: Is a directory"),
                            HasSubstr("cannot be kept aside, so settings cannot be changed: ")));
    EXPECT_LT(set(store, enabled, false), 0);
    EXPECT_EQ(store.get(enabled), Value(true));
    EXPECT_TRUE(folder.has("settings.json/inside"));
}

TEST_F(SettingsStoreTest, GoesOnBesideATemporaryFileThatAPowerCutLeft)
{
    folder.write("settings.json", R"({"network": {"mode": "Client"}})");
    folder.write("settings.json.tmp", R"({"network": {"mo)");
    SettingsStore store = load_store();
    EXPECT_EQ(store.get(mode), Value("Client"));
    EXPECT_EQ(set(store, enabled, false), 0);
    EXPECT_EQ(stored(), json({{"network", {{"enabled", false}, {"mode", "Client"}}}}));
    EXPECT_THAT(files(), ElementsAre("settings.json"));
}

TEST_F(SettingsStoreTest, KeepsTheOldValueWhenTheFolderVanished)
{
    SettingsStore store = load_store();
    ASSERT_EQ(set(store, mode, "Client"), 0);
    std::filesystem::remove_all(folder.path());
    EXPECT_EQ(set(store, mode, "Host"), -ENOENT);
    EXPECT_EQ(store.get(mode), Value("Client"));
    std::vector<const Setting*> changed;
    EXPECT_EQ(store.reset(std::array{&mode}, changed), -ENOENT);
    EXPECT_THAT(changed, IsEmpty());
    EXPECT_EQ(store.get(mode), Value("Client"));
    std::filesystem::create_directories(folder.path());
    EXPECT_EQ(set(store, mode, "Host"), 0) << "and works again once there is a folder";
}

/** Lets this process write files up to a size only, for as long as it lives. */
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        ::getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit = {bytes, before_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        handler_ = std::signal(SIGXFSZ, SIG_IGN);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    ~FileSizeLimit()
    {
        ::setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }

private:
    rlimit before_ = {};
    void (*handler_)(int) = nullptr;
};

TEST_F(SettingsStoreTest, KeepsTheOldValueAndFileWhenThereIsNoRoomForTheNewOne)
{
    SettingsStore store = load_store();
    ASSERT_EQ(set(store, mode, "Client"), 0);
    const std::string before = folder.read("settings.json");
    {
        const FileSizeLimit limit(64);
        EXPECT_EQ(set(store, device_name, std::string(200, 'x')), -EFBIG);
    }
    EXPECT_EQ(store.get(device_name), Value("Unit-1"));
    EXPECT_EQ(folder.read("settings.json"), before);
    EXPECT_THAT(files(), ElementsAre("settings.json"));
    EXPECT_EQ(set(store, device_name, std::string(200, 'x')), 0);
}

TEST_F(SettingsStoreTest, KeepsTheOldFileWhenItCannotBeReplaced)
{
    // A folder cannot be replaced by a file: the rename, the very last step, fails.
    SettingsStore store = load_store();
    folder.write("settings.json/inside", "");
    EXPECT_THAT(set(store, mode, "Client"), AnyOf(-EISDIR, -ENOTEMPTY, -EEXIST));
    EXPECT_EQ(store.get(mode), Value("Host"));
    EXPECT_FALSE(folder.has("settings.json.tmp"));
}

TEST_F(SettingsStoreTest, ReplacesAFileThatIsReadMeanwhileWithoutChangingIt)
{
    ASSERT_EQ(replace_file(folder.file("settings.json"), "old contents"), 0);
    std::ifstream reader(folder.file("settings.json"));
    ASSERT_EQ(replace_file(folder.file("settings.json"), "new"), 0);
    const std::string read((std::istreambuf_iterator<char>(reader)), {});
    EXPECT_EQ(read, "old contents") << "the old file was written to";
    EXPECT_EQ(folder.read("settings.json"), "new");
}

TEST_F(SettingsStoreTest, DoesNotFollowALinkInPlaceOfItsTemporaryFile)
{
    folder.write("victim", "precious");
    ASSERT_EQ(::symlink("victim", folder.file("settings.json.tmp").c_str()), 0);
    SettingsStore store = load_store();
    EXPECT_EQ(set(store, enabled, false), 0);
    EXPECT_EQ(folder.read("victim"), "precious");
}

TEST(DeviceSchema, HasTheSettingsThatTheNetworkManagerKeeps)
{
    const auto default_of = [](const char* section, const char* key) -> Value {
        const Setting* setting = find_setting(device_schema(), section, key);
        EXPECT_NE(setting, nullptr) << section << "." << key;
        return setting != nullptr ? setting->defaultValue : Value("missing");
    };
    EXPECT_EQ(default_of("network", "enabled"), Value(true));
    EXPECT_EQ(default_of("network", "mode"), Value("Host"));
    EXPECT_EQ(default_of("network", "frequency"), Value("2.4"));
    EXPECT_EQ(default_of("development", "killWifiOnBoot"), Value(false));
    EXPECT_TRUE(std::holds_alternative<std::string>(default_of("device", "deviceName")));
}

TEST(DeviceSchema, NamesADeviceByModelAndSerialNumber)
{
    EXPECT_EQ(default_device_name("Model", "12-3456"), "Model-3456");
    EXPECT_EQ(default_device_name("Model", "AB-12-34"), "Model-12-34");
    EXPECT_EQ(default_device_name("Model", "123456"), "Model-123456");
    EXPECT_EQ(default_device_name("Model", "12-"), "Model-");
    EXPECT_EQ(default_device_name("Model", ""), "Model-");
    EXPECT_EQ(default_device_name("", "1"), "-1");
}

TEST(DeviceSchema, KeepsTheRowsOfASectionTogether)
{
    std::vector<std::string> sections;
    for (const Setting& setting : device_schema()) {
        if (sections.empty() || sections.back() != setting.section) {
            EXPECT_THAT(sections, testing::Not(Contains(setting.section)));
            sections.emplace_back(setting.section);
        }
    }
}

} // namespace
