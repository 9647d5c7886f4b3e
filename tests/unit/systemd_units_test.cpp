#include "utils/systemd_units.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <systemd/sd-bus.h>

#include "support/captured_log.hpp"

// libsystemd is replaced by one that does what the test says: most of its failures can not be caused from
// outside.

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::captured_log;
using testing_support::LogLine;

constexpr const char* kManagerCall =
    "org.freedesktop.systemd1 /org/freedesktop/systemd1 org.freedesktop.systemd1.Manager ";

/** What the library was asked to do, and what it answers. */
struct Library
{
    /** Results of the calls of a function, in turn; 1 when there are no more. */
    std::map<std::string, std::vector<int>> results;
    const char* replyPath = "/reply/path";
    const char* errorText = nullptr;

    /** How long the bus takes to let in. */
    std::vector<std::chrono::microseconds> waitsToLetIn;

    /** What the clock is ahead by, instead of a wait. */
    std::chrono::microseconds waited{};

    std::vector<std::string> steps;
    int buses = 0;
    int messages = 0;

    /** What a function returns next: what was asked for, or what the real one returns when it succeeds. */
    int result_of(const std::string& function, int success)
    {
        std::vector<int>& waiting = results[function];
        if (waiting.empty()) {
            return success;
        }
        const int result = waiting.front();
        waiting.erase(waiting.begin());
        return result;
    }
};

std::unique_ptr<Library> library;

sd_bus* const kBus = reinterpret_cast<sd_bus*>(&library);
sd_bus_message* const kMessage = reinterpret_cast<sd_bus_message*>(&library);

sd_bus_message* hand_out_message()
{
    ++library->messages;
    return kMessage;
}

void set_error(sd_bus_error* error)
{
    if (library->errorText != nullptr) {
        *error = {.name = "org.example.Refused", .message = library->errorText, ._need_free = 0};
    }
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    static auto* const kReal = reinterpret_cast<decltype(clock_gettime)*>(dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = kReal(clock, time);
    if (library && clock == CLOCK_MONOTONIC) {
        time->tv_sec += std::chrono::round<std::chrono::seconds>(library->waited).count();
    }
    return result;
}

int sd_bus_open_system(sd_bus** bus)
{
    const int result = library->result_of("open_system", 0);
    library->steps.emplace_back("open_system");
    if (result >= 0) {
        *bus = kBus;
        ++library->buses;
    }
    return result;
}

int sd_bus_is_ready(sd_bus*)
{
    return library->waitsToLetIn.empty() ? 1 : 0;
}

int sd_bus_get_method_call_timeout(sd_bus*, uint64_t* timeout)
{
    *timeout = 25'000'000;
    return 0;
}

int sd_bus_process(sd_bus*, sd_bus_message**)
{
    return 0;
}

/** The bus lets in after so long, or not within the time. */
int sd_bus_wait(sd_bus*, uint64_t timeout)
{
    const std::chrono::microseconds wanted = library->waitsToLetIn.front();
    library->waited += std::min(wanted, std::chrono::microseconds(timeout));
    library->waitsToLetIn.erase(library->waitsToLetIn.begin());
    return 1;
}

void sd_bus_close(sd_bus*)
{
    library->steps.emplace_back("close");
}

sd_bus* sd_bus_close_unref(sd_bus*)
{
    library->steps.emplace_back("close_unref");
    --library->buses;
    return nullptr;
}

sd_bus_message* sd_bus_message_unref(sd_bus_message*)
{
    // A message may hold the bus: it goes first.
    EXPECT_EQ(library->buses, 1);
    --library->messages;
    return nullptr;
}

int sd_bus_message_new_method_call(sd_bus*, sd_bus_message** message, const char* destination,
                                   const char* path, const char* interface, const char* member)
{
    const int result = library->result_of("new_method_call", 0);
    library->steps.push_back(std::string("new_method_call ") + destination + " " + path + " " + interface +
                             " " + member);
    if (result >= 0) {
        *message = hand_out_message();
    }
    return result;
}

int sd_bus_message_open_container(sd_bus_message*, char type, const char* contents)
{
    library->steps.push_back(std::string("open_container ") + type + " " + contents);
    return library->result_of("open_container", 0);
}

int sd_bus_message_close_container(sd_bus_message*)
{
    library->steps.emplace_back("close_container");
    return library->result_of("close_container", 0);
}

int sd_bus_message_append(sd_bus_message*, const char* types, ...)
{
    va_list arguments;
    va_start(arguments, types);
    const std::string type = types;
    const std::string value =
        type == "s" ? va_arg(arguments, const char*) : std::to_string(va_arg(arguments, int));
    va_end(arguments);
    library->steps.push_back("append " + type + " " + value);
    return library->result_of("append " + type, 1);
}

int sd_bus_call(sd_bus*, sd_bus_message*, uint64_t usec, sd_bus_error* error, sd_bus_message** reply)
{
    const int result = library->result_of("call", 1);
    library->steps.push_back("call " + std::to_string(usec));
    if (result < 0) {
        set_error(error);
    } else {
        *reply = hand_out_message();
    }
    return result;
}

int sd_bus_call_method(sd_bus*, const char* destination, const char* path, const char* interface,
                       const char* member, sd_bus_error* error, sd_bus_message** reply, const char* types,
                       ...)
{
    va_list arguments;
    va_start(arguments, types);
    library->steps.push_back(std::string("call_method ") + destination + " " + path + " " + interface + " " +
                             member + " " + types + " " + va_arg(arguments, const char*));
    va_end(arguments);
    const int result = library->result_of("call_method", 1);
    if (result < 0) {
        set_error(error);
    } else {
        *reply = hand_out_message();
    }
    return result;
}

int sd_bus_message_read(sd_bus_message*, const char* types, ...)
{
    library->steps.push_back(std::string("read ") + types);
    const int result = library->result_of("read", 1);
    va_list arguments;
    va_start(arguments, types);
    if (result > 0) {
        *va_arg(arguments, const char**) = library->replyPath;
    }
    va_end(arguments);
    return result;
}
}

namespace {

class SystemdUnits : public testing::Test
{
protected:
    SystemdUnits()
    {
        library = std::make_unique<Library>();
        captured_log().clear();
    }
    ~SystemdUnits() override
    {
        EXPECT_EQ(library->buses, 0) << "a bus connection was not closed";
        EXPECT_EQ(library->messages, 0) << "a message was not released";
    }

    static std::vector<LogLine> log() { return captured_log().lines(); }
};

// Enabling

TEST_F(SystemdUnits, EnableSendsOneFilePersistentlyAndWithoutForce)
{
    EXPECT_TRUE(utils_enable_service("/etc/a.service"));
    EXPECT_THAT(library->steps,
                ElementsAre("open_system", std::string("new_method_call ") + kManagerCall + "EnableUnitFiles",
                            "open_container a s", "append s /etc/a.service", "close_container", "append b 0",
                            "append b 0", "call 5000000", "close_unref"));
    EXPECT_THAT(log(),
                ElementsAre(LogLine{LOG_INFO, "[Utils] Trying to enable /etc/a.service"},
                            LogLine{LOG_INFO, "[Utils] /etc/a.service should've been successfully enabled"}));
}

TEST_F(SystemdUnits, EnableHasWhatTheOpeningOfTheBusLeavesOfItsFiveSeconds)
{
    library->waitsToLetIn = {std::chrono::seconds(2)};
    EXPECT_TRUE(utils_enable_service("a.service"));
    // In tenths of a second, and some less where the machine is busy.
    EXPECT_THAT(library->steps, testing::Contains(testing::MatchesRegex("call (30|2.)00000")));

    library->waitsToLetIn = {std::chrono::seconds(6)};
    EXPECT_TRUE(utils_enable_service("a.service"));
    EXPECT_THAT(library->steps, testing::Contains("call 1")); // 0 would be the usual time-out
}

TEST_F(SystemdUnits, EnableGivesUpWithoutABus)
{
    library->results["open_system"] = {-ENOENT};
    EXPECT_FALSE(utils_enable_service("a.service"));
    EXPECT_THAT(library->steps, ElementsAre("open_system"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_INFO, "[Utils] Trying to enable a.service"},
                                   LogLine{LOG_ERR, "[Utils] Failed to open system bus. ret -2"}));
}

TEST_F(SystemdUnits, EnableTakesABusOpenedWithZeroForOpened)
{
    library->results["open_system"] = {0};
    EXPECT_TRUE(utils_enable_service("a.service"));
}

TEST_F(SystemdUnits, EnableGivesUpWithoutAMessage)
{
    library->results["new_method_call"] = {-ENOMEM};
    EXPECT_FALSE(utils_enable_service("a.service"));
    EXPECT_THAT(
        log(),
        ElementsAre(
            LogLine{LOG_INFO, "[Utils] Trying to enable a.service"},
            LogLine{LOG_ERR, "[Utils] utils_enable_service Error building/calling EnableUnitFiles: -12"}));
}

TEST_F(SystemdUnits, EnableGoesOnAfterAnyFailureToBuildTheListAndTheFirstFlag)
{
    library->results["open_container"] = {-ENXIO};
    library->results["append s"] = {-ENOMEM};
    library->results["close_container"] = {-EINVAL};
    library->results["append b"] = {-ESTALE, 1};
    EXPECT_TRUE(utils_enable_service("a.service"));
    EXPECT_EQ(library->steps.size(), 9U);
    EXPECT_THAT(log(),
                ElementsAre(LogLine{LOG_INFO, "[Utils] Trying to enable a.service"},
                            LogLine{LOG_ERR, "[Utils], failed to open container. ret -6"},
                            LogLine{LOG_ERR, "[Utils], failed to append message with a.service"},
                            LogLine{LOG_ERR, "[Utils] utils_enable_service: sd_bus_close_container failed"},
                            LogLine{LOG_ERR, "[Utils], failed to append message with 0"},
                            LogLine{LOG_INFO, "[Utils] a.service should've been successfully enabled"}));
}

TEST_F(SystemdUnits, EnableTakesAnythingAppendedWithZeroForAppended)
{
    library->results["append s"] = {0};
    library->results["append b"] = {0, 0};
    EXPECT_TRUE(utils_enable_service("a.service"));
    EXPECT_THAT(log(),
                ElementsAre(LogLine{LOG_INFO, "[Utils] Trying to enable a.service"},
                            LogLine{LOG_INFO, "[Utils] a.service should've been successfully enabled"}));
}

TEST_F(SystemdUnits, EnableGivesUpWhenTheLastFlagCanNotBeAppended)
{
    library->results["append b"] = {1, -ENOMEM};
    EXPECT_FALSE(utils_enable_service("a.service"));
    EXPECT_THAT(library->steps, testing::Not(testing::Contains("call 5000000")));
    EXPECT_THAT(
        log(),
        ElementsAre(
            LogLine{LOG_INFO, "[Utils] Trying to enable a.service"},
            LogLine{LOG_ERR, "[Utils], failed to append message with 0"},
            LogLine{LOG_ERR, "[Utils] utils_enable_service Error building/calling EnableUnitFiles: -12"}));
}

TEST_F(SystemdUnits, EnableReportsARefusedCall)
{
    library->results["call"] = {-ENOENT};
    library->errorText = "no such unit";
    EXPECT_FALSE(utils_enable_service("a.service"));
    EXPECT_THAT(
        log(),
        ElementsAre(
            LogLine{LOG_INFO, "[Utils] Trying to enable a.service"},
            LogLine{LOG_ERR, "[Utils] Failed to send bus enable call"},
            LogLine{LOG_ERR, "[Utils] utils_enable_service Error building/calling EnableUnitFiles: -2"}));
}

TEST_F(SystemdUnits, EnableWithAResultOfZeroIsLoggedAsFailedAndIsTrue)
{
    library->results["call"] = {0};
    EXPECT_TRUE(utils_enable_service("a.service"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_INFO, "[Utils] Trying to enable a.service"},
                                   LogLine{LOG_ERR, "[Utils] Failed to send bus enable call"}));
}

// Disabling

TEST_F(SystemdUnits, DisableSendsOneFileAndOneFlag)
{
    EXPECT_TRUE(utils_disable_service("a.service"));
    EXPECT_THAT(library->steps,
                ElementsAre("open_system",
                            std::string("new_method_call ") + kManagerCall + "DisableUnitFiles",
                            "open_container a s", "append s a.service", "close_container", "append b 0",
                            "call 5000000", "close_unref"));
    EXPECT_THAT(log(),
                ElementsAre(LogLine{LOG_INFO, "[Utils] a.service should've been successfully disabled"}));
}

TEST_F(SystemdUnits, DisableGivesUpWithoutABus)
{
    library->results["open_system"] = {-ECONNREFUSED};
    EXPECT_FALSE(utils_disable_service("a.service"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, "[Utils] Failed to open system bus. ret -111"}));
}

TEST_F(SystemdUnits, DisableGivesUpWithoutAMessage)
{
    library->results["new_method_call"] = {-ENOMEM};
    EXPECT_FALSE(utils_disable_service("a.service"));
    EXPECT_THAT(log(),
                ElementsAre(LogLine{
                    LOG_ERR, "[Utils] utils_disable_service Error building/calling DisableUnitFiles: -12"}));
}

TEST_F(SystemdUnits, DisableGoesOnAfterAnyFailureToBuildTheList)
{
    library->results["open_container"] = {-ENXIO};
    library->results["append s"] = {-ENOMEM};
    library->results["close_container"] = {-EINVAL};
    EXPECT_TRUE(utils_disable_service("a.service"));
    EXPECT_THAT(log(),
                ElementsAre(LogLine{LOG_ERR, "[Utils], failed to open container. ret -6"},
                            LogLine{LOG_ERR, "[Utils], failed to append message with a.service"},
                            LogLine{LOG_ERR, "[Main] utils_disable_service: sd_bus_close_container failed"},
                            LogLine{LOG_INFO, "[Utils] a.service should've been successfully disabled"}));
}

TEST_F(SystemdUnits, DisableGivesUpWhenItsFlagCanNotBeAppended)
{
    library->results["append b"] = {-ENOMEM};
    EXPECT_FALSE(utils_disable_service("a.service"));
    EXPECT_THAT(
        log(),
        ElementsAre(
            LogLine{LOG_ERR, "[Utils], failed to append message with 0"},
            LogLine{LOG_ERR, "[Utils] utils_disable_service Error building/calling DisableUnitFiles: -12"}));
}

TEST_F(SystemdUnits, DisableReportsARefusedCallAsAFailedEnableCall)
{
    library->results["call"] = {-EACCES};
    EXPECT_FALSE(utils_disable_service("a.service"));
    EXPECT_THAT(
        log(),
        ElementsAre(
            LogLine{LOG_ERR, "[Utils] Failed to send bus enable call"},
            LogLine{LOG_ERR, "[Utils] utils_disable_service Error building/calling DisableUnitFiles: -13"}));
}

TEST_F(SystemdUnits, DisableWithAResultOfZeroIsLoggedAsFailedAndIsTrue)
{
    library->results["call"] = {0};
    EXPECT_TRUE(utils_disable_service("a.service"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, "[Utils] Failed to send bus enable call"}));
}

// Look-ups and jobs: one line of the tables each

struct LookUp
{
    int (*function)(const std::string& name, std::string& path);
    const char* name;
    const char* method;
    const char* failed;
};

struct Job
{
    int (*function)(const std::string& path);
    const char* name;
    const char* method;
    const char* failed;
    const char* succeeded;
};

class UnitLookUp : public SystemdUnits, public testing::WithParamInterface<LookUp>
{
};

class UnitJobs : public SystemdUnits, public testing::WithParamInterface<Job>
{
};

TEST_P(UnitLookUp, GivesTheObjectPath)
{
    std::string path = "before";
    EXPECT_EQ(GetParam().function("a.service", path), 1);
    EXPECT_EQ(path, "/reply/path");
    EXPECT_THAT(library->steps,
                ElementsAre("open_system",
                            std::string("call_method ") + kManagerCall + GetParam().method + " s a.service",
                            "read o", "close_unref"));
    EXPECT_THAT(log(), ElementsAre(LogLine{
                           LOG_INFO, "[Utils] Got unit name '/reply/path' for the service 'a.service'"}));
}

TEST_P(UnitLookUp, SaysNothingWithoutABusAndIsNonzero)
{
    library->results["open_system"] = {-ENOENT};
    std::string path = "before";
    EXPECT_EQ(GetParam().function("a.service", path), 1);
    EXPECT_EQ(path, "before");
    EXPECT_THAT(log(), IsEmpty());
}

TEST_P(UnitLookUp, ReportsARefusalAndIsNonzero)
{
    library->results["call_method"] = {-EACCES};
    library->errorText = "not now";
    std::string path = "before";
    EXPECT_EQ(GetParam().function("a.service", path), 1);
    EXPECT_EQ(path, "before");
    EXPECT_THAT(log(),
                ElementsAre(LogLine{LOG_ERR, std::string("[Utils] Failed to ") + GetParam().failed +
                                                 " unit name of 'a.service' service. not now (r = -13)"}));
}

TEST_P(UnitLookUp, LogsAnEmptyTextForARefusalWithoutOne)
{
    library->results["call_method"] = {-EIO};
    std::string path;
    EXPECT_EQ(GetParam().function("a.service", path), 1);
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, std::string("[Utils] Failed to ") + GetParam().failed +
                                                        " unit name of 'a.service' service.  (r = -5)"}));
}

TEST_P(UnitLookUp, ReportsAReplyThatItCanNotReadAndIsNonzero)
{
    library->results["read"] = {-ENXIO};
    std::string path = "before";
    EXPECT_EQ(GetParam().function("a.service", path), 1);
    EXPECT_EQ(path, "before");
    EXPECT_THAT(log(),
                ElementsAre(LogLine{LOG_ERR, std::string(GetParam().name) + ": Failed to read response"}));
}

TEST_P(UnitLookUp, IsZeroOnlyWhenTheLastResultIs)
{
    library->results["read"] = {0};
    std::string path = "before";
    EXPECT_EQ(GetParam().function("a.service", path), 0);
    EXPECT_EQ(path, "");
    EXPECT_THAT(log(),
                ElementsAre(LogLine{LOG_INFO, "[Utils] Got unit name '' for the service 'a.service'"}));

    library->results["open_system"] = {0};
    library->results["call_method"] = {0};
    EXPECT_EQ(GetParam().function("a.service", path), 1);
    EXPECT_EQ(path, "/reply/path");
}

INSTANTIATE_TEST_SUITE_P(
    Both, UnitLookUp,
    testing::Values(LookUp{utils_load_service_unit, "utils_load_service_unit", "LoadUnit", "load"},
                    LookUp{utils_get_service_unit, "utils_get_service_unit", "GetUnit", "get"}),
    [](const auto& tested) { return tested.param.method; });

TEST_P(UnitJobs, QueuesAJobThatReplaces)
{
    EXPECT_EQ(GetParam().function("/unit/a"), 1);
    EXPECT_THAT(
        library->steps,
        ElementsAre(
            "open_system",
            std::string("call_method org.freedesktop.systemd1 /unit/a org.freedesktop.systemd1.Unit ") +
                GetParam().method + " s replace",
            "read o", "close_unref"));
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_INFO, std::string("[Utils] ") + GetParam().succeeded +
                                                         " '/unit/a' unit with job id:/reply/path"}));
}

TEST_P(UnitJobs, SaysNothingWithoutABusAndIsNonzero)
{
    library->results["open_system"] = {-ENOENT};
    EXPECT_EQ(GetParam().function("/unit/a"), 1);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_P(UnitJobs, ReportsARefusalAndIsNonzero)
{
    library->results["call_method"] = {-EACCES};
    library->errorText = "not now";
    EXPECT_EQ(GetParam().function("/unit/a"), 1);
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_ERR, std::string(GetParam().failed) +
                                                        " '/unit/a' unit. not now (r = -13)"}));
}

TEST_P(UnitJobs, LogsAnEmptyTextForARefusalWithoutOne)
{
    library->results["call_method"] = {-EIO};
    EXPECT_EQ(GetParam().function("/unit/a"), 1);
    EXPECT_THAT(log(),
                ElementsAre(LogLine{LOG_ERR, std::string(GetParam().failed) + " '/unit/a' unit.  (r = -5)"}));
}

TEST_P(UnitJobs, ReportsAReplyThatItCanNotReadAndIsNonzero)
{
    library->results["read"] = {-ENXIO};
    EXPECT_EQ(GetParam().function("/unit/a"), 1);
    EXPECT_THAT(log(),
                ElementsAre(LogLine{LOG_ERR, std::string(GetParam().name) + ": Failed to read response"}));
}

TEST_P(UnitJobs, IsZeroOnlyWhenTheLastResultIs)
{
    library->results["read"] = {0};
    EXPECT_EQ(GetParam().function("/unit/a"), 0);
    EXPECT_THAT(log(), ElementsAre(LogLine{LOG_INFO, std::string("[Utils] ") + GetParam().succeeded +
                                                         " '/unit/a' unit with job id:"}));
    library->results["call_method"] = {0};
    EXPECT_EQ(GetParam().function("/unit/a"), 1);
}

TEST_P(UnitJobs, WaitForTheBusToLetInUnlessThereIsNoUnit)
{
    for (const auto& [path, leftToWait] : {std::pair("/unit/a", 0U), {"", 1U}}) {
        library->waitsToLetIn = {std::chrono::milliseconds(1)};
        GetParam().function(path);
        EXPECT_EQ(library->waitsToLetIn.size(), leftToWait) << path;
    }
}

INSTANTIATE_TEST_SUITE_P(All, UnitJobs,
                         testing::Values(Job{utils_start_service, "utils_start_service", "Start",
                                             "[Utils] Failed to start", "Started"},
                                         Job{utils_restart_service, "utils_restart_service", "Restart",
                                             "[Utils]  Failed to re-start", "Restarted"},
                                         Job{utils_stop_service, "utils_stop_service", "Stop",
                                             "[Utils] Failed to stop", "Stopped"}),
                         [](const auto& tested) { return tested.param.method; });

} // namespace
