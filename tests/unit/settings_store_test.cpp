#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "atomic_file.hpp"
#include "rules.hpp"
#include "schema.hpp"
#include "store.hpp"
#include "support/disk_in_pieces.hpp"
#include "support/temp_folder.hpp"
#include "support/unique_fd.hpp"

namespace {

using namespace settingsd;
using nlohmann::json;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing_support::TempFolder;

const std::array kSchema = {
    Setting{"device", "deviceName", "Unit-1", Belongs::ToOwner},
    Setting{"network", "enabled", true},
    Setting{"network", "mode", "Host"},
    Setting{"display", "brightness", 80, Belongs::ToProduct, refusal_of_brightness},
};
const Setting& deviceName = kSchema[0];
const Setting& enabled = kSchema[1];
const Setting& mode = kSchema[2];
const Setting& brightness = kSchema[3];

/** A store whose file is in a folder of the test's. */
class SettingsStoreTest : public testing::Test
{
protected:
    SettingsStore make_store() const { return {folder.file("settings.json"), kSchema}; }

    SettingsStore load_store() const
    {
        SettingsStore store = make_store();
        EXPECT_THAT(findings_of(store), IsEmpty());
        return store;
    }

    /** Loads the store, with this result; what was odd. */
    static std::vector<std::string> findings_of(SettingsStore& store, int result = 0)
    {
        std::vector<std::string> findings;
        EXPECT_EQ(store.load(findings), result);
        return findings;
    }

    /** What a store that starts now has, though another one still holds the file. */
    Value after_restart(const Setting& setting) const
    {
        const TempFolder other;
        std::filesystem::copy(folder.file("settings.json"), other.file("settings.json"));
        SettingsStore store(other.file("settings.json"), kSchema);
        EXPECT_THAT(findings_of(store), IsEmpty());
        return store.get(setting);
    }

    json stored() const { return json::parse(folder.read("settings.json")); }

    static int set(SettingsStore& store, const Setting& setting, const Value& value)
    {
        bool changed = false;
        return store.set(setting, value, changed);
    }

    /** All but the lock, which always stays. */
    std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
            if (entry.path().extension() != ".lock") {
                names.push_back(entry.path().filename());
            }
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
    EXPECT_EQ(after_restart(mode), Value("Client"));
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
    bool changed = true;
    EXPECT_EQ(store.set(mode, true, changed), -EINVAL);
    EXPECT_FALSE(changed);
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
    EXPECT_THAT(findings_of(store),
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
    EXPECT_THAT(findings_of(store),
                ElementsAre("not valid JSON",
                            "the damaged file is kept as " + folder.file("settings.json.damaged-1")));
    EXPECT_EQ(folder.read("settings.json.damaged-1"), damaged);
    EXPECT_EQ(store.get(enabled), Value(false));
    EXPECT_EQ(store.get(mode), Value("Host"));
    EXPECT_EQ(stored(), json({{"network", {{"enabled", false}}}}));
    EXPECT_EQ(after_restart(enabled), Value(false)) << "reported once, not at each start";
}

TEST_F(SettingsStoreTest, NeverWritesOverAFileKeptAsideEarlier)
{
    folder.write("settings.json.damaged-1", "first");
    folder.write("settings.json.damaged-2", "second");
    folder.write("settings.json", "third");
    SettingsStore store = make_store();
    EXPECT_THAT(findings_of(store), Contains(HasSubstr("settings.json.damaged-3")));
    EXPECT_EQ(folder.read("settings.json.damaged-1"), "first");
    EXPECT_EQ(folder.read("settings.json.damaged-2"), "second");
    EXPECT_EQ(folder.read("settings.json.damaged-3"), "third");
}

TEST_F(SettingsStoreTest, KeepsAFileWithAValueOfAWrongTypeAside)
{
    const std::string damaged = R"({"network": {"enabled": 1, "mode": "Client"}})";
    folder.write("settings.json", damaged);
    SettingsStore store = make_store();
    EXPECT_THAT(findings_of(store), Contains("setting network.enabled is not of type 'b'"));
    EXPECT_EQ(folder.read("settings.json.damaged-1"), damaged);
    EXPECT_EQ(store.get(enabled), Value(true));
    EXPECT_EQ(store.get(mode), Value("Client"));
}

TEST_F(SettingsStoreTest, FallsBackAloneWhereAStoredValueIsNotAllowedAndKeepsTheFileAside)
{
    const std::string older = R"({"display": {"brightness": 101}, "network": {"mode": "Client"}})";
    folder.write("settings.json", older);
    SettingsStore store = make_store();
    EXPECT_THAT(findings_of(store), Contains("setting display.brightness must be 0 to 100"));
    EXPECT_EQ(store.get(brightness), Value(80));
    EXPECT_EQ(store.get(mode), Value("Client"));
    EXPECT_EQ(folder.read("settings.json.damaged-1"), older);
    EXPECT_EQ(after_restart(mode), Value("Client")) << "reported once, not at each start";
}

TEST_F(SettingsStoreTest, RefusesAValueThatIsNotAllowed)
{
    SettingsStore store = load_store();
    EXPECT_EQ(set(store, brightness, 101), -EINVAL);
    EXPECT_EQ(store.get(brightness), Value(80));
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(SettingsStoreTest, WritesAndReadsAFileOfTheLargestSizeLaidOutForReaders)
{
    constexpr std::size_t kLargest = std::size_t{1} << 20U;
    const auto laidOut = [](std::size_t fill) {
        return json({{"future", std::string(fill, 'x')}, {"network", {{"mode", "Client"}}}}).dump(2) + "\n";
    };
    const std::size_t fill = kLargest - laidOut(0).size();
    folder.write("settings.json", json({{"future", std::string(fill, 'x')}}).dump());
    {
        SettingsStore store = make_store();
        findings_of(store);
        EXPECT_EQ(set(store, mode, "Client"), 0);
    }
    EXPECT_TRUE(folder.read("settings.json") == laidOut(fill)) << "too long to be shown";
    SettingsStore again = make_store();
    EXPECT_THAT(findings_of(again), ElementsAre("unknown section future is kept"));
}

TEST_F(SettingsStoreTest, RefusesAWriteThatWouldMakeTheFileLargerThanItReads)
{
    const json foreign = {{"future", {{"text", std::string((std::size_t{1} << 20U) - 200, 'x')}}}};
    folder.write("settings.json", foreign.dump());
    SettingsStore store = make_store();
    findings_of(store);
    EXPECT_EQ(set(store, mode, "Client"), 0);
    const std::string before = folder.read("settings.json");
    EXPECT_EQ(set(store, deviceName, std::string(200, 'x')), -EFBIG);
    EXPECT_EQ(store.get(deviceName), Value("Unit-1"));
    EXPECT_EQ(folder.read("settings.json"), before);

    SettingsStore again(folder.file("copy.json"), kSchema);
    std::filesystem::copy(folder.file("settings.json"), folder.file("copy.json"));
    EXPECT_THAT(findings_of(again), ElementsAre("unknown section future is kept"))
        << "what was written is read";
    EXPECT_EQ(again.get(mode), Value("Client"));
}

TEST_F(SettingsStoreTest, ChangesAFileThatIsTooLargeOnlyWhenItIsLaidOutForReaders)
{
    json foreign;
    for (int i = 0; i < 50000; ++i) {
        foreign["f" + std::to_string(i)] = {{"x", 1}};
    }
    folder.write("settings.json", foreign.dump());
    SettingsStore store = make_store();
    findings_of(store);
    EXPECT_EQ(set(store, mode, "Client"), 0);
    foreign["network"]["mode"] = "Client";
    EXPECT_EQ(stored(), foreign);
}

TEST_F(SettingsStoreTest, TakesWhatItKnowsFromAFileThatIsLargerThanItWrites)
{
    const std::string large = json({{"device", {{"deviceName", "Kitchen"}}},
                                    {"future", {{"text", std::string(std::size_t{2} << 20U, 'x')}}},
                                    {"network", {{"enabled", "no"}, {"mode", "Client"}, {"channel", 6}}}})
                                  .dump();
    folder.write("settings.json", large);
    SettingsStore store = make_store();
    EXPECT_THAT(findings_of(store),
                ElementsAre("is larger than 1 MiB, only the known settings in it are kept",
                            "setting network.enabled is not of type 'b'",
                            "the damaged file is kept as " + folder.file("settings.json.damaged-1")));
    EXPECT_EQ(folder.read("settings.json.damaged-1"), large);
    EXPECT_EQ(stored(), json({{"device", {{"deviceName", "Kitchen"}}}, {"network", {{"mode", "Client"}}}}));
    EXPECT_EQ(set(store, enabled, false), 0);
}

TEST_F(SettingsStoreTest, KeepsAFileThatIsFarTooLargeAside)
{
    folder.write("settings.json", std::string(std::size_t{5} << 20U, ' '));
    SettingsStore store = make_store();
    EXPECT_THAT(findings_of(store), Contains("is larger than 4 MiB, nothing in it is kept"));
    EXPECT_EQ(folder.read("settings.json.damaged-1").size(), std::size_t{5} << 20U);
    EXPECT_EQ(set(store, enabled, false), 0);
}

TEST_F(SettingsStoreTest, ItsFileIsReadByItsGroupAndNobodyElseAndTheLockByNobody)
{
    const mode_t before = ::umask(0);
    SettingsStore store = load_store();
    EXPECT_EQ(set(store, mode, "Client"), 0);
    ::umask(before);
    for (const auto& [name, permissions] :
         {std::pair("settings.json", 0640U), std::pair("settings.json.lock", 0600U)}) {
        struct stat status = {};
        ASSERT_EQ(::stat(folder.file(name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, permissions) << name;
    }
}

TEST_F(SettingsStoreTest, ReadsAFileOnceThatCanBeRead)
{
    folder.write("settings.json", R"({"network": {"mode": "Client"}})");
    const UniqueFd watch(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(
        ::inotify_add_watch(watch.get(), folder.file("settings.json").c_str(), IN_OPEN | IN_CLOSE_NOWRITE),
        0);
    load_store();
    std::array<inotify_event, 8> events = {};
    EXPECT_EQ(::read(watch.get(), events.data(), sizeof events), 2 * sizeof(inotify_event));
}

TEST_F(SettingsStoreTest, AFailureToReadCountsWhenItLastsForThreeAttempts)
{
    folder.write("settings.json", R"({"network": {"mode": "Client"}})");
    {
        const testing_support::DiskInPieces disk(SIZE_MAX - 1, 2, EIO);
        EXPECT_EQ(load_store().get(mode), Value("Client"));
    }
    const testing_support::DiskInPieces disk(SIZE_MAX - 1, 3, EIO);
    SettingsStore store = make_store();
    EXPECT_THAT(findings_of(store, -EIO),
                ElementsAre("cannot be read and is left alone, settings cannot be changed "
                            "until it can: Input/output error"));
    EXPECT_EQ(store.get(mode), Value("Host"));
}

TEST_F(SettingsStoreTest, LeavesAFileAloneThatCannotBeReadUntilItCan)
{
    folder.write("settings.json/inside", "a folder where the file should be");
    SettingsStore store = make_store();
    std::vector<std::string> findings;
    EXPECT_EQ(store.load(findings), -EISDIR);
    EXPECT_THAT(findings, ElementsAre("cannot be read and is left alone, settings cannot be changed until it "
                                      "can: Is a directory"));
    EXPECT_FALSE(store.is_loaded());
    EXPECT_EQ(set(store, enabled, false), -EISDIR);
    EXPECT_EQ(set(store, enabled, true), -EISDIR) << "nobody knows whether this is what is stored";
    std::vector<const Setting*> changed;
    EXPECT_EQ(store.reset(std::array{&enabled}, changed), -EISDIR);
    EXPECT_EQ(store.get(enabled), Value(true));
    EXPECT_TRUE(folder.has("settings.json/inside"));

    std::filesystem::remove_all(folder.file("settings.json"));
    folder.write("settings.json", R"({"network": {"mode": "Client"}})");
    EXPECT_THAT(findings_of(store), IsEmpty());
    EXPECT_EQ(store.get(mode), Value("Client"));
    EXPECT_EQ(set(store, enabled, false), 0);
}

TEST_F(SettingsStoreTest, KeepsADamagedFileAsideOnceOnlyWhenItCannotBeReplaced)
{
    folder.write("settings.json", "{");
    folder.write("settings.json.tmp/inside", "in the way of every write");
    SettingsStore store = make_store();
    EXPECT_THAT(findings_of(store), Contains(HasSubstr("cannot be replaced: ")));
    EXPECT_FALSE(store.is_settled());
    EXPECT_LT(store.settle(), 0);
    EXPECT_LT(set(store, mode, "Host"), 0) << "unchanged, and nobody knows whether it would be found again";
    EXPECT_THAT(findings_of(store), Contains(HasSubstr("settings.json.damaged-1")));
    EXPECT_FALSE(folder.has("settings.json.damaged-2")) << "it is kept already";

    std::filesystem::remove_all(folder.file("settings.json.tmp"));
    EXPECT_EQ(store.settle(), 0);
    EXPECT_TRUE(store.is_settled());
    EXPECT_EQ(stored(), json::object());
    EXPECT_EQ(store.settle(), 0) << "nothing is left to do";
}

TEST_F(SettingsStoreTest, LeavesADamagedFileAloneThatCannotBeKeptAside)
{
    folder.write("settings.json", R"({"network": {"enabled": false, "mode": "Cli)");
    for (int number = 1; number <= 1000; ++number) {
        folder.write("settings.json.damaged-" + std::to_string(number), "");
    }
    SettingsStore store = make_store();
    std::vector<std::string> findings;
    EXPECT_EQ(store.load(findings), -EEXIST);
    EXPECT_THAT(findings,
                ElementsAre("not valid JSON", "cannot be kept aside, settings cannot be changed until "
                                              "it can: File exists"));
    EXPECT_EQ(store.get(enabled), Value(false));
    EXPECT_EQ(set(store, mode, "Client"), -EEXIST);
    EXPECT_EQ(folder.read("settings.json"), R"({"network": {"enabled": false, "mode": "Cli)");

    std::filesystem::remove(folder.file("settings.json.damaged-1000"));
    EXPECT_THAT(findings_of(store), Contains(HasSubstr("settings.json.damaged-1000")));
    EXPECT_EQ(set(store, mode, "Client"), 0);
}

TEST_F(SettingsStoreTest, RefusesChangesWhereItCannotLockItsFile)
{
    SettingsStore store(folder.file("none/settings.json"), kSchema);
    std::vector<std::string> findings;
    EXPECT_EQ(store.load(findings), -ENOENT);
    EXPECT_THAT(
        findings,
        ElementsAre("cannot be locked, settings cannot be changed until it can: No such file or directory"));
    EXPECT_EQ(set(store, mode, "Client"), -ENOENT);
    std::filesystem::create_directories(folder.file("none"));
    EXPECT_THAT(findings_of(store), IsEmpty());
    EXPECT_EQ(set(store, mode, "Client"), 0);
}

TEST_F(SettingsStoreTest, SharesItsFileWithNobody)
{
    {
        const SettingsStore first = load_store();
        SettingsStore second = make_store();
        std::vector<std::string> findings;
        EXPECT_EQ(second.load(findings), -EBUSY);
        EXPECT_THAT(findings, ElementsAre("is in use by another process"));
        EXPECT_EQ(set(second, mode, "Client"), -EBUSY);
    }
    SettingsStore third = load_store();
    EXPECT_EQ(set(third, mode, "Client"), 0);
}

TEST_F(SettingsStoreTest, SharesNoFileThatIsReachedThroughALinkEither)
{
    folder.write("settings.json", "{}");
    ASSERT_EQ(::symlink("settings.json", folder.file("link.json").c_str()), 0);
    const SettingsStore first = load_store();
    SettingsStore second(folder.file("link.json"), kSchema);
    std::vector<std::string> findings;
    EXPECT_EQ(second.load(findings), -EBUSY);
}

TEST_F(SettingsStoreTest, HoldsItsLockInAFolderThatWasMadeAnew)
{
    SettingsStore first = load_store();
    ASSERT_EQ(set(first, mode, "Client"), 0);
    std::filesystem::remove_all(folder.path());
    std::filesystem::create_directories(folder.path());
    ASSERT_EQ(set(first, enabled, false), 0);
    SettingsStore second = make_store();
    std::vector<std::string> findings;
    EXPECT_EQ(second.load(findings), -EBUSY);
}

TEST_F(SettingsStoreTest, ReplacesWhatALinkLeadsToAndKeepsTheLink)
{
    folder.write("real/target.json", R"({"network": {"mode": "Client"}})");
    ASSERT_EQ(::symlink("real/second", folder.file("settings.json").c_str()), 0);
    ASSERT_EQ(::symlink("target.json", folder.file("real/second").c_str()), 0);
    SettingsStore store = load_store();
    EXPECT_EQ(store.get(mode), Value("Client"));
    ASSERT_EQ(set(store, enabled, false), 0);
    EXPECT_EQ(json::parse(folder.read("real/target.json")),
              json({{"network", {{"enabled", false}, {"mode", "Client"}}}}));
    EXPECT_TRUE(std::filesystem::is_symlink(folder.file("settings.json")));
    EXPECT_TRUE(std::filesystem::is_symlink(folder.file("real/second")));
}

TEST_F(SettingsStoreTest, MakesTheFileThatALinkLeadsTo)
{
    folder.write("real/other", "");
    ASSERT_EQ(::symlink(folder.file("real/target.json").c_str(), folder.file("settings.json").c_str()), 0);
    SettingsStore store = load_store();
    ASSERT_EQ(set(store, mode, "Client"), 0);
    EXPECT_TRUE(folder.has("real/target.json"));
    EXPECT_TRUE(std::filesystem::is_symlink(folder.file("settings.json")));
}

TEST_F(SettingsStoreTest, RefusesChangesWhereLinksLeadInARing)
{
    ASSERT_EQ(::symlink("other", folder.file("settings.json").c_str()), 0);
    ASSERT_EQ(::symlink("settings.json", folder.file("other").c_str()), 0);
    SettingsStore store = make_store();
    EXPECT_THAT(findings_of(store, -ELOOP),
                ElementsAre("cannot be read and is left alone, settings cannot be changed until it can: Too "
                            "many levels of symbolic links"));
    EXPECT_EQ(set(store, mode, "Client"), -ELOOP);
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
    std::vector<const Setting*> changed = {&enabled};
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
        EXPECT_EQ(set(store, deviceName, std::string(200, 'x')), -EFBIG);
    }
    EXPECT_EQ(store.get(deviceName), Value("Unit-1"));
    EXPECT_EQ(folder.read("settings.json"), before);
    EXPECT_THAT(files(), ElementsAre("settings.json"));
    EXPECT_EQ(set(store, deviceName, std::string(200, 'x')), 0);
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
    bool settled = false;
    ASSERT_EQ(replace_file(folder.file("settings.json"), "old contents", settled), 0);
    std::ifstream reader(folder.file("settings.json"));
    ASSERT_EQ(replace_file(folder.file("settings.json"), "new", settled), 0);
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
    const auto defaultOf = [](const char* section, const char* key) -> Value {
        const Setting* setting = find_setting(device_schema(), section, key);
        EXPECT_NE(setting, nullptr) << section << "." << key;
        return setting != nullptr ? setting->defaultValue : Value("missing");
    };
    EXPECT_EQ(defaultOf("network", "enabled"), Value(true));
    EXPECT_EQ(defaultOf("network", "mode"), Value("Host"));
    EXPECT_EQ(defaultOf("network", "frequency"), Value("2.4"));
    EXPECT_EQ(defaultOf("development", "killWifiOnBoot"), Value(false));
    EXPECT_TRUE(std::holds_alternative<std::string>(defaultOf("device", "deviceName")));
}

TEST(DeviceSchema, NamesADeviceByModelAndSerialNumber)
{
    EXPECT_EQ(default_device_name("Model", "12-3456"), "Model-3456");
    EXPECT_EQ(default_device_name("Model", "AB-12-34"), "Model-12-34");
    EXPECT_EQ(default_device_name("Model", "123456"), "Model-123456");
    EXPECT_EQ(default_device_name("Model", "12-"), "Model-");
    EXPECT_EQ(default_device_name("Model", ""), "Model-");
    EXPECT_EQ(default_device_name("", "1"), "-1");
    EXPECT_EQ(default_device_name("B\xFCro", "12-34\xC3"), "Bro-34") << "the bus carries nothing else";
    EXPECT_EQ(default_device_name("B\u00FCro\uFFFE", "12-\"\\"), "B\u00FCro-\"\\") << "nor a non-character";
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
