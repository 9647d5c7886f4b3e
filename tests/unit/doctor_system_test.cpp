// The doctor's own hands: files, programs and buses that hang, refuse, or are something else.

#include <chrono>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "doctor/bus.hpp"
#include "doctor/bus_values.hpp"
#include "doctor/commands.hpp"
#include "doctor/files.hpp"
#include "doctor/report.hpp"
#include "support/disk_in_pieces.hpp"
#include "support/interrupting_signals.hpp"
#include "support/private_bus.hpp"
#include "support/temp_folder.hpp"

namespace {

using namespace doctor;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing_support::DiskInPieces;
using testing_support::InterruptingSignals;
using testing_support::PrivateBus;
using testing_support::TempFolder;

TEST(DoctorFiles, AreReadOnlyWhereTheyAreFiles)
{
    const TempFolder folder;
    folder.write("file", "text");
    folder.write("many/b", "");
    folder.write("many/a", "");
    ::mkfifo(folder.file("pipe").c_str(), 0600);
    const Files files(folder.path().string());
    EXPECT_EQ(files.read("/file").text, "text");
    EXPECT_EQ(files.read("/file", 2).text, "te");
    EXPECT_EQ(files.read("/none").error, ENOENT);
    EXPECT_EQ(files.read("/many").error, EINVAL);
    EXPECT_EQ(files.read("/pipe").error, EINVAL);
    EXPECT_THAT(files.names("/many"), ElementsAre("a", "b"));
    EXPECT_TRUE(files.names("/none").empty());
    EXPECT_FALSE(files.exists("/none"));
    EXPECT_FALSE(files.is_abandoned_socket("/file"));
    EXPECT_EQ(files.remove("/file"), 0);
    EXPECT_EQ(files.remove("/file"), ENOENT);
}

TEST(DoctorFiles, AreReadAndReportsWrittenInPiecesAndAfterSignals)
{
    const TempFolder folder;
    const Files files;
    for (const std::size_t piece : {1, 2, 4}) {
        const std::string path = folder.file("report" + std::to_string(piece));
        {
            const DiskInPieces disk(piece);
            EXPECT_EQ(write_report(path, "text"), 0);
        }
        const DiskInPieces disk(piece);
        EXPECT_EQ(files.read(path).text, "text");
        EXPECT_EQ(files.read(path, 3).text, "tex");
    }
    EXPECT_EQ(write_report(folder.file("report1"), "other"), EEXIST);
}

TEST(DoctorCommands, SeeOutputStatusAndWhatTheyAreGiven)
{
    const Patience patience(20s);
    RealCommands commands(patience);
    const Ran ran =
        commands.run({"sh", "-c", "cat /dev/stdin; echo to standard error >&2; exit 3"}, "given\n");
    EXPECT_EQ(ran.output, "given\nto standard error\n");
    EXPECT_EQ(ran.status, 3);
    EXPECT_TRUE(ran.found);
    EXPECT_FALSE(ran.succeeded());
    EXPECT_EQ(commands.run({"sh", "-c", "cat"}).output, "");
    EXPECT_TRUE(commands.run({"true"}).succeeded());
    EXPECT_EQ(commands.run({"sh", "-c", "kill -9 $$"}).status, -1);
    EXPECT_FALSE(commands.run({"vantora-no-such-program"}).found);
    EXPECT_EQ(commands.find("sh").substr(0, 1), "/");
}

TEST(DoctorCommands, AreKilledWithAllThatTheyStartedWhenTheirTimeIsOver)
{
    const Patience patience(300ms);
    RealCommands commands(patience);
    const TempFolder folder;
    const auto began = std::chrono::steady_clock::now();
    const Ran ran =
        commands.run({"sh", "-c", "sleep 100 & echo $! > " + folder.file("child") + "; echo begun; wait"});
    EXPECT_TRUE(ran.timedOut);
    EXPECT_EQ(ran.status, -1);
    EXPECT_EQ(ran.output, "begun\n");
    EXPECT_LT(std::chrono::steady_clock::now() - began, 5s);
    // It was in the same group, so the same signal has reached it; whoever adopts it takes it away.
    const pid_t child = std::stoi(folder.read("child"));
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    const Files files;
    const auto runs = [&files, child] {
        const std::string text = files.read("/proc/" + std::to_string(child) + "/stat").text;
        return !text.empty() && text.find(") Z ") == std::string::npos;
    };
    while (runs() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(runs());
    // The time of all is used up: the next one is over before it can say anything.
    EXPECT_TRUE(commands.run({"sleep", "100"}).timedOut);
}

TEST(DoctorCommands, AreWaitedForNoLongerWhereSignalsInterruptTheWait)
{
    const Patience patience(300ms);
    RealCommands commands(patience);
    const InterruptingSignals signals;
    EXPECT_TRUE(commands.run({"sleep", "100"}).timedOut);
}

TEST(DoctorCommands, AreWaitedForToTheirEndWhereSignalsInterruptTheWait)
{
    const Patience patience(20s);
    RealCommands commands(patience);
    const InterruptingSignals signals;
    const Ran ran = commands.run({"sh", "-c", "sleep 0.2; echo late; exec >&- 2>&-; sleep 0.2; exit 3"});
    EXPECT_EQ(ran.output, "late\n");
    EXPECT_EQ(ran.status, 3);
}

TEST(DoctorCommands, AreWaitedForAsleepWhenTheyHaveClosedTheirOutput)
{
    const auto used = [] {
        rusage usage{};
        ::getrusage(RUSAGE_THREAD, &usage);
        return std::chrono::seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               std::chrono::microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    };
    const Patience patience(20s);
    RealCommands commands(patience);
    const auto usedBefore = used();
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(commands.run({"sh", "-c", "exec >&- 2>&-; sleep 0.3; exit 7"}).status, 7);
    EXPECT_LT(used() - usedBefore, (std::chrono::steady_clock::now() - began) / 4);
}

TEST(DoctorBus, ReadsValuesOfEveryType)
{
    const PrivateBus bus;
    const BusPtr connection = bus.connect();
    sd_bus_message* made = nullptr;
    ASSERT_GE(sd_bus_message_new_signal(connection.get(), &made, "/x", "a.b", "C"), 0);
    const MessagePtr message(made);
    ASSERT_GE(sd_bus_message_append(made, "ynqiuxtdsbo(sv)a{sv}a{ui}asg", 1, -2, 3, -4, 5, int64_t{-6},
                                    uint64_t{7}, 0.5, "s", 1, "/o", "in", "b", 0, 1, "key", "as", 2, "a", "b",
                                    1, 8, -9, 0, "i"),
              0);
    ASSERT_GE(sd_bus_message_seal(made, 1, 0), 0);
    Json values = Json::array();
    ASSERT_GE(read_values(made, values), 0);
    EXPECT_EQ(values,
              Json::parse(
                  R"([1,-2,3,-4,5,-6,7,0.5,"s",true,"/o",["in",false],{"key":["a","b"]},{"8":-9},[],"i"])"));
}

TEST(DoctorBus, TellsOwnersRefusalsAndAbsence)
{
    const PrivateBus daemon(testing_support::BusRole::User);
    const Patience patience(20s);
    RealBus real(daemon.address(), patience);
    Bus& bus = real;
    EXPECT_EQ(bus.owner("com.vantora.Nobody").kind, Reply::Kind::Answered);
    EXPECT_EQ(bus.owner("com.vantora.Nobody").word(), "");
    EXPECT_EQ(bus.owner("org.freedesktop.DBus").word(), "org.freedesktop.DBus");
    const Reply refused = bus.property({"com.vantora.Nobody", "/", "a.b"}, "C");
    EXPECT_EQ(refused.kind, Reply::Kind::Refused);
    EXPECT_EQ(refused.error, "org.freedesktop.DBus.Error.NameHasNoOwner");
    const Reply ids = bus.call({"org.freedesktop.DBus", "/", "org.freedesktop.DBus"}, "ListNames");
    ASSERT_TRUE(ids.answered());
    EXPECT_TRUE(ids.value().is_array());
    EXPECT_EQ(bus.call({"org.freedesktop.DBus", "not a path", "x"}, "y").kind, Reply::Kind::Refused);

    RealBus none("unix:path=/nonexistent/bus", patience);
    EXPECT_EQ(none.owner("a.b").kind, Reply::Kind::Unreachable);
    EXPECT_EQ(none.owner("a.b").text, "No such file or directory");
}

TEST(DoctorBus, GivesUpWhoDoesNotAnswerAndAsksThatOneNoMore)
{
    const PrivateBus daemon(testing_support::BusRole::User);
    const BusPtr silent = daemon.connect();
    ASSERT_GE(sd_bus_request_name(silent.get(), "com.vantora.Silent", 0), 0);
    const Patience patience(300ms);
    RealBus bus(daemon.address(), patience);
    const auto began = std::chrono::steady_clock::now();
    for (int call = 0; call < 50; ++call) {
        EXPECT_EQ(bus.property({"com.vantora.Silent", "/", "a.b"}, "C").kind, Reply::Kind::Silent);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - began, 10s);
}

TEST(DoctorBus, IsNotWaitedForWhereItLetsNobodyIn)
{
    const TempFolder folder;
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    folder.file("bus").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(socket.get(), 8), 0);
    const Patience patience(300ms);
    RealBus bus("unix:path=" + folder.file("bus"), patience);
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(bus.owner("a.b").kind, Reply::Kind::Unreachable);
    EXPECT_EQ(bus.owner("a.b").kind, Reply::Kind::Unreachable);
    EXPECT_LT(std::chrono::steady_clock::now() - began, 10s);
}

TEST(DoctorBus, IsRootsWhateverAnotherUsersIs)
{
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/run/user/1000/bus", 1);
    EXPECT_EQ(roots_bus_address(), "unix:path=/run/user/0/bus");
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/tmp/x", 1);
    EXPECT_EQ(roots_bus_address(), "unix:path=/tmp/x");
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    EXPECT_EQ(roots_bus_address(), "unix:path=/run/user/0/bus");
}

} // namespace
