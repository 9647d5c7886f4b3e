#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

/** What libFuzzer calls, and tests/fuzz/replay.cpp with the files of a corpus. Every target defines it. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

/** Ends the process, which is how a fuzzer is told of a finding, unless a property holds. */
inline void require(bool holds, const char* property, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE())
{
    if (!holds) {
        std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, property);
        std::abort();
    }
}

/** Takes an input apart, from its start. When nothing is left, numbers are 0 and texts empty. */
class Input
{
public:
    Input(const uint8_t* data, size_t size) : left_(reinterpret_cast<const char*>(data), size) {}

    bool empty() const { return left_.empty(); }

    template <typename T>
    T number()
    {
        static_assert(std::is_integral_v<T>);
        T value = 0;
        const size_t size = std::min(sizeof(T), left_.size());
        std::memcpy(&value, left_.data(), size);
        left_.remove_prefix(size);
        return value;
    }

    /** A number below `limit`, which is at most 256. */
    size_t below(size_t limit) { return number<uint8_t>() % limit; }

    /** Bytes behind a length of one byte. */
    std::string_view bytes() { return take(number<uint8_t>()); }

    std::string_view take(size_t count)
    {
        const std::string_view taken = left_.substr(0, count);
        left_.remove_prefix(taken.size());
        return taken;
    }

    /** What stands before the next NUL, or all that is left; the NUL is passed over. */
    std::string_view up_to_nul()
    {
        const std::string_view taken = left_.substr(0, left_.find('\0'));
        left_.remove_prefix(std::min(taken.size() + 1, left_.size()));
        return taken;
    }

    std::string_view rest() { return take(left_.size()); }

private:
    std::string_view left_;
};

} // namespace fuzz
