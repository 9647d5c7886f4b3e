#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <syslog.h>

/**
 * Catches what the code under test writes to syslog(3), in place of the C library's functions: include it in
 * one source file of a test program. It may be written by several threads.
 */
namespace testing_support {

struct LogLine
{
    int priority;
    std::string text;

    bool operator==(const LogLine&) const = default;
};

inline std::ostream& operator<<(std::ostream& stream, const LogLine& line)
{
    return stream << '(' << line.priority << ", \"" << line.text << "\")";
}

inline LogLine line(int priority, const std::string& text)
{
    return {priority, text};
}

inline LogLine error(const std::string& text)
{
    return {LOG_ERR, text};
}

inline LogLine warning(const std::string& text)
{
    return {LOG_WARNING, text};
}

inline LogLine info(const std::string& text)
{
    return {LOG_INFO, text};
}

class CapturedLog
{
public:
    __attribute__((format(printf, 3, 0))) void add(int priority, const char* format, va_list arguments)
    {
        std::string text;
        va_list measured;
        va_copy(measured, arguments);
        text.resize(static_cast<size_t>(std::vsnprintf(nullptr, 0, format, measured)));
        va_end(measured);
        std::vsnprintf(text.data(), text.size() + 1, format, arguments);
        note(priority, std::move(text));
    }

    /** Adds a line by hand, for instance a call, so that calls and messages stand in one order. */
    void note(int priority, std::string text)
    {
        const std::lock_guard lock(mutex_);
        lines_.push_back({priority, std::move(text)});
        grown_.notify_all();
    }

    std::vector<LogLine> lines() const
    {
        const std::lock_guard lock(mutex_);
        return lines_;
    }

    void clear()
    {
        const std::lock_guard lock(mutex_);
        lines_.clear();
    }

    /** Waits until there are so many lines. Returns false when they have not come after 20 seconds. */
    bool wait_for_lines(size_t count)
    {
        std::unique_lock lock(mutex_);
        return grown_.wait_for(lock, std::chrono::seconds(20), [&] { return lines_.size() >= count; });
    }

    /** Waits until the line is there. Returns false when it has not come after 20 seconds. */
    bool wait_for(const LogLine& line)
    {
        std::unique_lock lock(mutex_);
        return grown_.wait_for(lock, std::chrono::seconds(20),
                               [&] { return std::find(lines_.begin(), lines_.end(), line) != lines_.end(); });
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable grown_;
    std::vector<LogLine> lines_;
};

inline CapturedLog& captured_log()
{
    static CapturedLog log;
    return log;
}

} // namespace testing_support

// Named through the assembler, so that the C library's own declarations and inline versions do not matter.
extern "C" {

void testing_support_syslog(int priority, const char* format, ...) __asm__("syslog")
    __attribute__((format(printf, 2, 3)));
void testing_support_syslog_chk(int priority, int flag, const char* format, ...) __asm__("__syslog_chk")
    __attribute__((format(printf, 3, 4)));

void testing_support_syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    testing_support::captured_log().add(priority, format, arguments);
    va_end(arguments);
}

void testing_support_syslog_chk(int priority, int, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    testing_support::captured_log().add(priority, format, arguments);
    va_end(arguments);
}
}
