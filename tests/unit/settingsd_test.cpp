#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>

#include "support/event_loop.hpp"
#include "support/private_bus.hpp"

namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing_support::ChildProcess;
using testing_support::PrivateBus;
using testing_support::TempFolder;

constexpr const char* kService = "com.vantora.common.Settings1";
constexpr const char* kBasePath = "/com/vantora/common/Settings1";

std::string daemon_program()
{
    const auto tests = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    return (tests / "../../vantora-settingsd").lexically_normal().string();
}

/** The socket to which a daemon tells the service manager that it is ready. */
class NotifySocket
{
public:
    explicit NotifySocket(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }

    /** The next message; empty when none comes in time. */
    std::string next() const
    {
        pollfd waiting = {socket_.get(), POLLIN, 0};
        const auto timeout = std::chrono::milliseconds(testing_support::kPatience).count();
        if (::poll(&waiting, 1, static_cast<int>(timeout)) <= 0) {
            return {};
        }
        char text[256];
        const ssize_t size = ::recv(socket_.get(), text, sizeof text, 0);
        return size > 0 ? std::string(text, static_cast<std::size_t>(size)) : std::string();
    }

private:
    UniqueFd socket_;
};

/** A terminal on which a daemon shows its log. */
class Terminal
{
public:
    Terminal() : screen_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK))
    {
        EXPECT_EQ(::grantpt(screen_.get()), 0);
        EXPECT_EQ(::unlockpt(screen_.get()), 0);
        line_ = UniqueFd(::open(::ptsname(screen_.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
        EXPECT_TRUE(line_);
    }

    /** Makes it the standard error; for the child. */
    void take_errors() const { ::dup2(line_.get(), STDERR_FILENO); }

    /** What has come onto it since it was asked last. */
    std::string text() const
    {
        std::string text;
        std::array<char, 4096> buffer = {};
        for (ssize_t size = 0; (size = ::read(screen_.get(), buffer.data(), buffer.size())) > 0;) {
            text.append(buffer.data(), static_cast<std::size_t>(size));
        }
        return text;
    }

private:
    UniqueFd screen_;
    UniqueFd line_;
};

/** What a client was answered: the error's name and text, both empty when all went well. */
using Answer = std::pair<std::string, std::string>;
const Answer kSuccess = {};

class SettingsdTest : public testing::Test
{
protected:
    /** Whatever was asked of it, it ends as it should; one that has been waited for has been looked at. */
    void TearDown() override
    {
        constexpr int kWaitedForAlready = -1;
        EXPECT_THAT(daemon != nullptr ? stop(SIGTERM) : 0, testing::AnyOf(0, kWaitedForAlready));
    }

    void start(const std::function<void()>& prepare = {})
    {
        daemon = std::make_unique<ChildProcess>(
            std::vector<std::string>{daemon_program(), "--state", folder.file("state/settings.json")}, [&] {
                ::setenv("NOTIFY_SOCKET", folder.file("notify").c_str(), 1);
                if (prepare) {
                    prepare();
                }
            });
        ASSERT_EQ(notify.next(), "READY=1");
    }

    static std::string path_of(const std::string& section) { return std::string(kBasePath) + "/" + section; }

    template <typename... Arguments>
    Answer set(const std::string& section, const char* key, const char* type, Arguments... value)
    {
        BusError error;
        sd_bus_set_property(client.get(), kService, path_of(section).c_str(), kService, key, error.get(),
                            type, value...);
        return answer_of(error);
    }

    template <typename... Arguments>
    Answer call(const char* method, const char* types, Arguments... arguments)
    {
        BusError error;
        sd_bus_call_method(client.get(), kService, kBasePath, kService, method, error.get(), nullptr, types,
                           arguments...);
        return answer_of(error);
    }

    std::string get_string(const std::string& section, const char* key)
    {
        char* text = nullptr;
        sd_bus_get_property_string(client.get(), kService, path_of(section).c_str(), kService, key, nullptr,
                                   &text);
        const std::string value = text != nullptr ? text : "<failed>";
        std::free(text);
        return value;
    }

    int get_number(const std::string& section, const char* key, char type)
    {
        int value = -1;
        sd_bus_get_property_trivial(client.get(), kService, path_of(section).c_str(), kService, key, nullptr,
                                    type, &value);
        return value;
    }

    static Answer answer_of(const BusError& error)
    {
        return {error.name() != nullptr ? error.name() : "", error.message()};
    }

    /** Notes each change signal as "section key=value ..."; to be called before what causes them. */
    void listen()
    {
        const std::string match = std::string("type='signal',sender='") + kService +
                                  "',interface='org.freedesktop.DBus.Properties',member='PropertiesChanged'";
        ASSERT_GE(sd_bus_add_match(client.get(), nullptr, match.c_str(), note_change, this), 0);
    }

    static int note_change(sd_bus_message* message, void* userdata, sd_bus_error*)
    {
        const std::filesystem::path path(sd_bus_message_get_path(message));
        std::string text = path.filename();
        EXPECT_GE(sd_bus_message_skip(message, "s"), 0);
        EXPECT_GT(sd_bus_message_enter_container(message, 'a', "{sv}"), 0);
        while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
            const char* key = nullptr;
            const char* contents = nullptr;
            EXPECT_GT(sd_bus_message_read(message, "s", &key), 0);
            EXPECT_GT(sd_bus_message_peek_type(message, nullptr, &contents), 0);
            text += std::string(" ") + key + "=";
            if (*contents == 's') {
                const char* value = nullptr;
                EXPECT_GT(sd_bus_message_read(message, "v", "s", &value), 0);
                text += value;
            } else {
                int value = 0;
                EXPECT_GT(sd_bus_message_read(message, "v", contents, &value), 0);
                text += std::to_string(value);
            }
            EXPECT_GT(sd_bus_message_exit_container(message), 0);
        }
        static_cast<SettingsdTest*>(userdata)->changes.push_back(text);
        return 0;
    }

    /** All changes announced so far: those before the answer of a call have arrived with it. */
    const std::vector<std::string>& announced()
    {
        get_string("network", "mode");
        while (sd_bus_process(client.get(), nullptr) > 0) {
        }
        return changes;
    }

    /** What a daemon with this file says when it does not start. */
    std::string failure_with(const std::string& file) const
    {
        const Terminal terminal;
        ChildProcess failing({daemon_program(), "--state", folder.file(file)},
                             [&] { terminal.take_errors(); });
        EXPECT_EQ(failing.wait(), 1);
        return terminal.text();
    }

    json stored() const { return json::parse(folder.read("state/settings.json")); }

    int stop(int signalNumber)
    {
        daemon->send(signalNumber);
        return daemon->wait();
    }

    PrivateBus bus;
    TempFolder folder;
    NotifySocket notify{folder.file("notify")};
    BusPtr client = bus.connect();
    std::unique_ptr<ChildProcess> daemon;
    std::vector<std::string> changes;
};

TEST_F(SettingsdTest, ServesTheDefaults)
{
    start();
    EXPECT_EQ(get_number("network", "enabled", 'b'), 1);
    EXPECT_EQ(get_string("network", "mode"), "Host");
    EXPECT_EQ(get_string("network", "frequency"), "2.4");
    EXPECT_EQ(get_number("development", "killWifiOnBoot", 'b'), 0);
    EXPECT_EQ(get_number("display", "brightness", 'i'), 80);
    EXPECT_THAT(get_string("device", "deviceName"), HasSubstr("-"));
}

TEST_F(SettingsdTest, OwnsItsNameBeforeItIsReady)
{
    start();
    EXPECT_GE(sd_bus_get_name_creds(client.get(), kService, 0, nullptr), 0);
}

TEST_F(SettingsdTest, AnswersAWriteOnceItIsOnTheDiskAndKeepsItOverAKill)
{
    start();
    EXPECT_EQ(set("network", "mode", "s", "Client"), kSuccess);
    EXPECT_EQ(stored(), json({{"network", {{"mode", "Client"}}}}));
    EXPECT_EQ(set("network", "enabled", "b", 0), kSuccess);
    EXPECT_EQ(set("display", "brightness", "i", 7), kSuccess);
    stop(SIGKILL);
    start();
    EXPECT_EQ(get_string("network", "mode"), "Client");
    EXPECT_EQ(get_number("network", "enabled", 'b'), 0);
    EXPECT_EQ(get_number("display", "brightness", 'i'), 7);
}

TEST_F(SettingsdTest, AnnouncesRealChangesOnlyWithTheirNewValues)
{
    start();
    listen();
    EXPECT_EQ(set("network", "mode", "s", "Host"), kSuccess);
    EXPECT_EQ(set("network", "mode", "s", "Client"), kSuccess);
    EXPECT_EQ(set("network", "mode", "s", "Client"), kSuccess);
    EXPECT_EQ(set("network", "enabled", "b", 0), kSuccess);
    EXPECT_EQ(set("device", "deviceName", "s", "Kitchen"), kSuccess);
    EXPECT_THAT(announced(),
                ElementsAre("network mode=Client", "network enabled=0", "device deviceName=Kitchen"));
}

TEST_F(SettingsdTest, ResetsEverythingOrAllButWhatIsTheOwners)
{
    start();
    const std::string factoryName = get_string("device", "deviceName");
    ASSERT_EQ(set("network", "mode", "s", "Client"), kSuccess);
    ASSERT_EQ(set("network", "enabled", "b", 0), kSuccess);
    ASSERT_EQ(set("device", "deviceName", "s", "Kitchen"), kSuccess);
    listen();
    EXPECT_EQ(call("ResetToDefaults", "b", 0), kSuccess);
    EXPECT_EQ(get_string("device", "deviceName"), "Kitchen");
    EXPECT_EQ(stored(), json({{"device", {{"deviceName", "Kitchen"}}}}));
    EXPECT_EQ(call("ResetToDefaults", "b", 1), kSuccess);
    EXPECT_EQ(get_string("device", "deviceName"), factoryName);
    EXPECT_EQ(stored(), json::object());
    EXPECT_EQ(call("ResetToDefaults", "b", 1), kSuccess);
    EXPECT_THAT(announced(), ElementsAre("network enabled=1 mode=Host", "device deviceName=" + factoryName));
}

TEST_F(SettingsdTest, ResetsASectionAndASetting)
{
    start();
    ASSERT_EQ(set("network", "mode", "s", "Client"), kSuccess);
    ASSERT_EQ(set("network", "frequency", "s", "5"), kSuccess);
    ASSERT_EQ(set("display", "brightness", "i", 1), kSuccess);
    listen();
    EXPECT_EQ(call("ResetSetting", "ss", "network", "mode"), kSuccess);
    EXPECT_EQ(get_string("network", "frequency"), "5");
    EXPECT_EQ(call("ResetSection", "s", "network"), kSuccess);
    EXPECT_EQ(get_number("display", "brightness", 'i'), 1);
    EXPECT_THAT(announced(), ElementsAre("network mode=Host", "network frequency=2.4"));
}

TEST_F(SettingsdTest, ResetsForOneWhoWantsNoAnswer)
{
    start();
    ASSERT_EQ(set("network", "mode", "s", "Client"), kSuccess);
    sd_bus_message* call = nullptr;
    ASSERT_GE(
        sd_bus_message_new_method_call(client.get(), &call, kService, kBasePath, kService, "ResetSection"),
        0);
    const MessagePtr owner(call);
    ASSERT_GE(sd_bus_message_append(call, "s", "network"), 0);
    ASSERT_GE(sd_bus_message_set_expect_reply(call, 0), 0);
    ASSERT_GE(sd_bus_send(client.get(), call, nullptr), 0);
    EXPECT_EQ(get_string("network", "mode"), "Host");
    EXPECT_EQ(get_string("network", "mode"), "Host") << "it is still there";
}

TEST_F(SettingsdTest, RefusesWhatItDoesNotKnow)
{
    start();
    EXPECT_EQ(set("nosuch", "mode", "s", "x").first, "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(set("network", "nosuch", "s", "x").first, "org.freedesktop.DBus.Error.UnknownProperty");
    EXPECT_EQ(call("ResetSection", "s", "nosuch"),
              Answer("org.freedesktop.DBus.Error.InvalidArgs", "No such section: nosuch"));
    EXPECT_EQ(call("ResetSetting", "ss", "network", "nosuch"),
              Answer("org.freedesktop.DBus.Error.InvalidArgs", "No such setting: network.nosuch"));
    EXPECT_EQ(call("ResetSetting", "ss", "nosuch", "mode"),
              Answer("org.freedesktop.DBus.Error.InvalidArgs", "No such setting: nosuch.mode"));
    EXPECT_EQ(call("ResetSection", "b", 1).first, "org.freedesktop.DBus.Error.InvalidArgs");
}

TEST_F(SettingsdTest, RefusesAValueOfAWrongTypeAndKeepsTheOldOne)
{
    start();
    EXPECT_EQ(set("network", "enabled", "s", "yes").first, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(set("network", "mode", "b", 1).first, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(set("display", "brightness", "u", 1U).first, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(get_number("network", "enabled", 'b'), 1);
    EXPECT_EQ(get_string("network", "mode"), "Host");
    EXPECT_FALSE(folder.has("state/settings.json"));
}

TEST_F(SettingsdTest, RefusesAValueThatIsNotAllowedWithTheReason)
{
    const std::string invalid = "org.freedesktop.DBus.Error.InvalidArgs";
    start();
    listen();
    EXPECT_EQ(set("network", "mode", "s", "host"),
              Answer(invalid, "network.mode must be \"Host\" or \"Client\""));
    EXPECT_EQ(set("network", "frequency", "s", ""),
              Answer(invalid, "network.frequency must be \"2.4\" or \"5\""));
    EXPECT_EQ(set("device", "deviceName", "s", std::string(std::size_t{1} << 20U, 'x').c_str()),
              Answer(invalid, "device.deviceName must have 1 to 32 bytes"));
    EXPECT_EQ(set("display", "brightness", "i", 101), Answer(invalid, "display.brightness must be 0 to 100"));
    EXPECT_EQ(get_string("network", "mode"), "Host");
    EXPECT_FALSE(folder.has("state/settings.json"));
    EXPECT_THAT(announced(), IsEmpty());
}

TEST_F(SettingsdTest, RefusesChangesUntilItsFileCanBeReadAndThenAnnouncesWhatIsInIt)
{
    folder.write("state/settings.json/inside", "a folder where the file should be");
    const auto before = std::chrono::steady_clock::now();
    Terminal terminal;
    start([&] { terminal.take_errors(); });
    listen();
    EXPECT_EQ(set("network", "mode", "s", "Client"),
              Answer("org.freedesktop.DBus.Error.IOError", "Cannot store network.mode: Is a directory"));
    EXPECT_EQ(get_string("network", "mode"), "Host");
    EXPECT_TRUE(folder.has("state/settings.json/inside"));

    folder.write("state/readable",
                 R"({"development": {"killWifiOnBoot": true}, "network": {"mode": "Client"}})");
    // At once: where there is no file at all, the defaults hold.
    ASSERT_EQ(::renameat2(AT_FDCWD, folder.file("state/readable").c_str(), AT_FDCWD,
                          folder.file("state/settings.json").c_str(), RENAME_EXCHANGE),
              0);
    const auto deadline = std::chrono::steady_clock::now() + testing_support::kPatience;
    while (changes.size() < 2 && std::chrono::steady_clock::now() < deadline) {
        if (sd_bus_process(client.get(), nullptr) == 0) {
            sd_bus_wait(client.get(), std::chrono::microseconds(testing_support::kPatience).count());
        }
    }
    EXPECT_THAT(changes, ElementsAre("development killWifiOnBoot=1", "network mode=Client"));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(1)) << "it tries too often";
    EXPECT_EQ(set("network", "enabled", "b", 0), kSuccess);
    EXPECT_EQ(stored(), json::parse(R"({"development": {"killWifiOnBoot": true},
                                        "network": {"enabled": false, "mode": "Client"}})"));
    const std::string file = folder.file("state/settings.json");
    EXPECT_EQ(terminal.text(),
              "vantora-settingsd: " + file +
                  ": cannot be read and is left alone, settings cannot be changed until it can: Is a "
                  "directory\r\n"
                  "vantora-settingsd: Cannot store network.mode: Is a directory\r\n"
                  "vantora-settingsd: " +
                  file + ": is in use again\r\n");
}

TEST_F(SettingsdTest, FailsWhenAnotherProcessHasItsFile)
{
    start();
    const PrivateBus otherBus(testing_support::BusRole::User);
    EXPECT_EQ(failure_with("state/settings.json"),
              "vantora-settingsd: " + folder.file("state/settings.json") +
                  ": is in use by another process\r\n"
                  "vantora-settingsd: Cannot have the settings to itself: Device or resource busy\r\n");
    EXPECT_EQ(set("network", "mode", "s", "Client"), kSuccess);
}

TEST_F(SettingsdTest, RefusesAWriteThatCannotBeStoredAndKeepsTheOldValue)
{
    start();
    ASSERT_EQ(set("network", "mode", "s", "Client"), kSuccess);
    listen();
    std::filesystem::remove_all(folder.file("state"));
    EXPECT_EQ(
        set("network", "mode", "s", "Host"),
        Answer("org.freedesktop.DBus.Error.IOError", "Cannot store network.mode: No such file or directory"));
    EXPECT_EQ(
        call("ResetSection", "s", "network"),
        Answer("org.freedesktop.DBus.Error.IOError", "Cannot store the defaults: No such file or directory"));
    EXPECT_EQ(get_string("network", "mode"), "Client");
    EXPECT_THAT(announced(), IsEmpty());
}

TEST_F(SettingsdTest, OutlivesADiskWithoutRoom)
{
    start([] {
        const rlimit limit = {50, 50};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    });
    EXPECT_EQ(set("device", "deviceName", "s", std::string(32, 'x').c_str()),
              Answer("org.freedesktop.DBus.Error.IOError", "Cannot store device.deviceName: File too large"));
    EXPECT_EQ(set("network", "mode", "s", "Client"), kSuccess);
}

TEST_F(SettingsdTest, ServesWhatItCanReadOfADamagedFile)
{
    folder.write("state/settings.json", R"({"network": {"mode": "Client", "enab)");
    start();
    EXPECT_EQ(get_string("network", "mode"), "Client");
    EXPECT_EQ(get_number("network", "enabled", 'b'), 1);
    EXPECT_EQ(folder.read("state/settings.json.damaged-1"), R"({"network": {"mode": "Client", "enab)");
}

TEST_F(SettingsdTest, ListsItsSectionsThroughTheObjectManager)
{
    start();
    sd_bus_message* answer = nullptr;
    ASSERT_GE(sd_bus_call_method(client.get(), kService, kBasePath, "org.freedesktop.DBus.ObjectManager",
                                 "GetManagedObjects", nullptr, &answer, nullptr),
              0);
    const MessagePtr reply(answer);
    std::vector<std::string> objects;
    ASSERT_GT(sd_bus_message_enter_container(answer, 'a', "{oa{sa{sv}}}"), 0);
    while (sd_bus_message_enter_container(answer, 'e', "oa{sa{sv}}") > 0) {
        const char* path = nullptr;
        ASSERT_GT(sd_bus_message_read(answer, "o", &path), 0);
        objects.emplace_back(path);
        ASSERT_GE(sd_bus_message_skip(answer, "a{sa{sv}}"), 0);
        ASSERT_GE(sd_bus_message_exit_container(answer), 0);
    }
    EXPECT_THAT(objects,
                testing::UnorderedElementsAre(path_of("development"), path_of("device"), path_of("display"),
                                              path_of("locale"), path_of("network")));
}

TEST_F(SettingsdTest, EndsCleanlyOnSigtermAndSigint)
{
    for (const int number : {SIGTERM, SIGINT}) {
        start();
        EXPECT_EQ(stop(number), 0);
        EXPECT_EQ(notify.next(), "STOPPING=1");
    }
}

TEST_F(SettingsdTest, FailsWhenTheBusIsLostAndSaysSo)
{
    Terminal terminal;
    start([&] { terminal.take_errors(); });
    bus.stop();
    EXPECT_EQ(daemon->wait(), 1);
    EXPECT_EQ(terminal.text(), "vantora-settingsd: The user bus is gone\r\n");
}

TEST_F(SettingsdTest, SaysNothingAndSleepsWhileAllIsWell)
{
    Terminal terminal;
    start([&] { terminal.take_errors(); });
    EXPECT_EQ(set("network", "mode", "s", "Client"), kSuccess);
    const auto process = std::filesystem::path("/proc") / std::to_string(daemon->pid());
    for (const auto& descriptor : std::filesystem::directory_iterator(process / "fdinfo")) {
        std::ifstream file(descriptor.path());
        const std::string about((std::istreambuf_iterator<char>(file)), {});
        EXPECT_THAT(about, testing::AnyOf(HasSubstr("it_value: (0, 0)"), Not(HasSubstr("it_value: "))))
            << "a timer is armed";
    }
    EXPECT_EQ(stop(SIGTERM), 0);
    EXPECT_EQ(terminal.text(), "");
}

TEST_F(SettingsdTest, FailsWithoutABus)
{
    bus.stop();
    EXPECT_EQ(failure_with("other.json"),
              "vantora-settingsd: Cannot open the user bus: No such file or directory\r\n");
}

TEST_F(SettingsdTest, FailsAtTheStepForWhichItHasNoDescriptor)
{
    // The loop's own is the first, after the three that every process has; whoever runs the tests may leave
    // it more.
    for (const auto& [most, step] : {std::pair(4U, "handle signals"), std::pair(5U, "open the user bus"),
                                     std::pair(6U, "attach the user bus")}) {
        const Terminal terminal;
        ChildProcess failing({daemon_program(), "--state", folder.file("other.json")}, [&, limit = most] {
            terminal.take_errors();
            ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
            const rlimit descriptors = {limit, limit};
            ::setrlimit(RLIMIT_NOFILE, &descriptors);
        });
        EXPECT_EQ(failing.wait(), 1) << step;
        EXPECT_EQ(terminal.text(),
                  std::string("vantora-settingsd: Cannot ") + step + ": Too many open files\r\n");
    }
}

TEST_F(SettingsdTest, FailsWithinACallsTimeOutWhereTheBusLetsNobodyIn)
{
    const UniqueFd silent(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = folder.file("silent");
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(silent.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(silent.get(), 5), 0);
    const auto before = std::chrono::steady_clock::now();
    ChildProcess second({daemon_program(), "--state", folder.file("other.json")}, [&] {
        ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + path).c_str(), 1);
        ::setenv("SYSTEMD_BUS_TIMEOUT", "1s", 1);
    });
    EXPECT_EQ(second.wait(), 1);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(20))
        << "the library waits for 90";
}

TEST_F(SettingsdTest, FailsWhenTheNameIsTakenByOneThatWouldGiveItAway)
{
    ASSERT_GE(sd_bus_request_name(client.get(), kService, SD_BUS_NAME_ALLOW_REPLACEMENT), 0);
    EXPECT_EQ(failure_with("other.json"),
              "vantora-settingsd: Cannot own the name com.vantora.common.Settings1: File exists\r\n");
}

TEST_F(SettingsdTest, TellsItsVersionAndItsOptions)
{
    const auto outputOf = [&](const char* option) {
        const std::string file = folder.file("output");
        ChildProcess program({daemon_program(), option}, [&] {
            ::dup2(::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        });
        EXPECT_EQ(program.wait(), 0);
        return folder.read("output");
    };
    EXPECT_THAT(
        outputOf("--version"),
        testing::MatchesRegex("vantora-settingsd [0-9]+\\.[0-9]+\\.[0-9]+(\\+[0-9]+\\.g[0-9a-f]+)?\n"));
    EXPECT_THAT(outputOf("--help"), HasSubstr("--state FILE"));
}

TEST_F(SettingsdTest, RefusesACommandLineThatItDoesNotUnderstand)
{
    for (const auto& [word, text] : {std::pair("--nosuch", ": unrecognized option '--nosuch'\r\n"),
                                     std::pair("--state", ": option '--state' requires an argument\r\n"),
                                     std::pair("--state=", ": the state file needs a name\r\n"),
                                     std::pair("argument", ": takes options only, no arguments\r\n")}) {
        const Terminal terminal;
        ChildProcess program({daemon_program(), word}, [&] { terminal.take_errors(); });
        EXPECT_EQ(program.wait(), 2) << word;
        EXPECT_EQ(terminal.text(), daemon_program() + text);
    }
}

} // namespace
