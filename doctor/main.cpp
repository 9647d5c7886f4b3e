#include <array>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <variant>

#include <sys/stat.h>
#include <unistd.h>

#include "access_point_key.hpp"
#include "arguments.hpp"
#include "checks.hpp"
#include "client/text.hpp"
#include "fix.hpp"
#include "qr_code.hpp"
#include "report.hpp"
#include "show.hpp"

namespace {

using namespace doctor;

constexpr std::chrono::seconds kAllWaits{60};
/** All waits together are over before; what is left is a file that the kernel does not give back. */
constexpr unsigned kGivenUp = 70;
constexpr int kDoesNotWork = 2;

void give_up(int)
{
    constexpr std::string_view kText =
        "vantora-doctor: gave up after 70 seconds: a file or device does not answer\n";
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, kText.data(), kText.size());
    ::_exit(kDoesNotWork);
}

std::chrono::microseconds since_boot()
{
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::seconds(now.tv_sec) +
                                                                 std::chrono::nanoseconds(now.tv_nsec));
}

std::string time_in_words()
{
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    std::array<char, 64> text{};
    ::gmtime_r(&now, &parts);
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts);
    return text.data();
}

int show_key(const View& view)
{
    const AccessPointKey key = find_key(view);
    if (!view.root && !key.failure.empty()) {
        std::fputs("vantora-doctor: only root may see the passphrase: use 'sudo vantora-doctor key'\n",
                   stderr);
        return kFailed;
    }
    if (!key.failure.empty()) {
        std::fprintf(stderr, "vantora-doctor: %s\n", client::escaped(key.failure).c_str());
        return kFailed;
    }
    std::printf("Network     %s\nPassphrase  %s\n\n%s", client::escaped(key.ssid).c_str(),
                client::escaped(key.passphrase).c_str(),
                drawn_code(wifi_code_text(key), client::Terminal::of(STDOUT_FILENO)).c_str());
    return 0;
}

int write_asked_report(const View& view, const Findings& findings, const std::string& path)
{
    const int error = write_report(path, report_text(view, findings, time_in_words()));
    if (error != 0) {
        std::fprintf(stderr, "vantora-doctor: %s: %s\n", client::escaped(path).c_str(), std::strerror(error));
        return kFailed;
    }
    return 0;
}

int look(const View& view, const Arguments& arguments)
{
    Findings findings = look_at(view);
    std::vector<Mended> mended;
    if (arguments.fix) {
        mended = mend(view, findings);
        findings = mended.empty() ? findings : look_at(view);
    }
    const std::string text = arguments.json
                                 ? shown_to_programs(mended, findings)
                                 : shown_to_people(mended, findings, client::Terminal::of(STDOUT_FILENO));
    std::fputs(text.c_str(), stdout);
    if (!arguments.json && !view.root) {
        std::puts("Some of it is for root only: sudo vantora-doctor sees all.");
    }
    const int reported = arguments.report.empty() ? 0 : write_asked_report(view, findings, arguments.report);
    return reported != 0 ? reported : findings.exit_status();
}

int run_program(int argc, const char* const* argv)
{
    std::setlocale(LC_CTYPE, "");
    const auto parsed = parse_arguments(argc, argv);
    if (const auto* const end = std::get_if<EarlyEnd>(&parsed); end != nullptr) {
        std::fputs(end->text.c_str(), end->status == 0 ? stdout : stderr);
        return end->status;
    }
    std::signal(SIGALRM, give_up);
    ::alarm(kGivenUp);

    const auto& arguments = std::get<Arguments>(parsed);
    const Patience patience(kAllWaits);
    const Files files;
    RealCommands commands(patience);
    RealBus system("", patience);
    RealBus user(roots_bus_address(), patience);
    const View view = {files, commands, system, user, interface_names(), ::geteuid() == 0, since_boot()};

    int status = arguments.task == Task::ShowKey ? show_key(view) : look(view, arguments);
    if (std::fflush(stdout) != 0) {
        std::fputs("vantora-doctor: standard output cannot be written\n", stderr);
        status = kFailed;
    }
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run_program(argc, argv);
    } catch (const std::exception& error) {
        // Only lack of memory gets here.
        std::fprintf(stderr, "vantora-doctor: %s\n", error.what());
        return kFailed;
    }
}
