// Measures subjects that take turns, so that whatever else the machine does hits them alike.
//
//   vantora-bench-measure BLOCKS SIZE SUBJECT...             times: one line for each block of each subject,
//   the
//                                                            subject's number and SIZE times in nanoseconds
//   vantora-bench-measure --load SECONDS PAUSE_MS SUBJECT... no times, only the doing, with pauses
//   vantora-bench-measure --count TIMES SUBJECT...           no times, only the doing, so often: for those
//   who
//                                                            count what it takes
//
// A block is SIZE runs of one subject. Every second round of blocks has the subjects in the opposite order.
// What comes first is dropped: one block of each, in which caches and heaps settle.
//
// Subjects: get:SERVICE:PROPERTY, getall:SERVICE, commands:LETTERS, access-points,
// access-points:read, start:PROGRAM, event, stations-leave, setting, setting:file, run:PROGRAM ARGUMENT...

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <span>
#include <string_view>
#include <thread>
#include <vector>

#include "measure/subject.hpp"

namespace {

using Subjects = std::vector<std::unique_ptr<Subject>>;

std::unique_ptr<Subject> make_subject(const std::string& text)
{
    const size_t colon = text.find(':');
    const std::string kind = text.substr(0, colon);
    const std::string rest = colon == std::string::npos ? "" : text.substr(colon + 1);
    if (kind == "get") {
        const size_t separator = rest.find(':');
        if (separator != std::string::npos) {
            return make_property_read(rest.substr(0, separator), rest.substr(separator + 1));
        }
    } else if (kind == "getall") {
        return make_read_of_all(rest);
    } else if (kind == "commands") {
        return make_bare_commands(rest);
    } else if (kind == "access-points") {
        return make_bare_access_points(rest == "read");
    } else if (kind == "start") {
        return make_start(rest);
    } else if (kind == "event") {
        return make_station_event();
    } else if (kind == "stations-leave") {
        return make_stations_leave();
    } else if (kind == "setting") {
        return rest == "file" ? make_bare_file_write() : make_setting_write();
    } else if (kind == "run") {
        return make_run(rest);
    }
    throw MeasuringFailed("unknown subject: " + text);
}

std::vector<Subject::Clock::duration> run_block(Subject& subject, size_t size)
{
    std::vector<Subject::Clock::duration> times(size);
    for (auto& time : times) {
        time = subject.run();
    }
    return times;
}

void print_block(size_t number, const std::vector<Subject::Clock::duration>& times)
{
    std::printf("%zu", number);
    for (const auto time : times) {
        std::printf(" %lld", static_cast<long long>(
                                 std::chrono::duration_cast<std::chrono::nanoseconds>(time).count()));
    }
    std::printf("\n");
}

void measure(const Subjects& subjects, size_t blocks, size_t size)
{
    for (const auto& subject : subjects) {
        run_block(*subject, size);
    }
    for (size_t block = 0; block < blocks; ++block) {
        for (size_t turn = 0; turn < subjects.size(); ++turn) {
            const size_t number = block % 2 == 0 ? turn : subjects.size() - 1 - turn;
            print_block(number, run_block(*subjects[number], size));
        }
    }
}

void load(const Subjects& subjects, std::chrono::seconds duration, std::chrono::milliseconds pause)
{
    const auto end = Subject::Clock::now() + duration;
    while (Subject::Clock::now() < end) {
        for (const auto& subject : subjects) {
            subject->run();
            std::this_thread::sleep_for(pause);
        }
    }
}

/** The subjects that are each done so often, without being timed. */
void count(const Subjects& subjects, size_t times)
{
    for (const auto& subject : subjects) {
        run_block(*subject, times);
    }
}

int run(std::span<char*> arguments)
{
    const std::string_view option = !arguments.empty() ? arguments[0] : "";
    const bool loading = option == "--load";
    const bool counting = option == "--count";
    if (loading || counting) {
        arguments = arguments.subspan(1);
    }
    const size_t numbers = counting ? 1 : 2;
    if (arguments.size() <= numbers) {
        std::fprintf(stderr, "usage: vantora-bench-measure [--load] NUMBER NUMBER SUBJECT...\n"
                             "       vantora-bench-measure --count NUMBER SUBJECT...\n");
        return EXIT_FAILURE;
    }
    const size_t first = std::strtoul(arguments[0], nullptr, 10);
    const size_t second = std::strtoul(arguments[numbers - 1], nullptr, 10);
    Subjects subjects;
    for (const char* text : arguments.subspan(numbers)) {
        subjects.push_back(make_subject(text));
    }
    if (counting) {
        count(subjects, first);
    } else if (loading) {
        load(subjects, std::chrono::seconds(first), std::chrono::milliseconds(second));
    } else {
        measure(subjects, first, second);
    }
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run(std::span(argv, static_cast<size_t>(argc)).subspan(1));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
