// Preloaded into a program under test: lets one of its calls on a file fail, when and as somebody outside has
// asked.
//
// What is asked for stands in a small file that both have mapped (FAILING_CALLS names it). Nothing is asked
// for at first, and a call that is not meant goes straight to the C library.

// The checked variants are inline functions of the same names, which clang does not let anybody define again.
#undef _FORTIFY_SOURCE

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

/** The layout is known to failing_calls.py, too. */
struct Order
{
    std::atomic<uint32_t> left;   /**< So many more of the calls meant are to fail. */
    std::atomic<uint32_t> skip;   /**< So many of them pass before. */
    std::atomic<uint32_t> error;  /**< With this errno. */
    std::atomic<uint32_t> failed; /**< So many have failed. */
    std::array<char, 16> call;
    std::array<char, 96> path; /**< Part of the name of the file that the call is about. */
};

Order* find_order()
{
    const char* name = std::getenv("FAILING_CALLS");
    const int fd = name == nullptr ? -1 : open(name, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    void* mapped = mmap(nullptr, sizeof(Order), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return mapped == MAP_FAILED ? nullptr : static_cast<Order*>(mapped);
}

Order* order = nullptr;

// A constructor, and not an initialiser: other libraries open files before this one's variables are set.
__attribute__((constructor)) void begin()
{
    order = find_order();
}

bool fails(const char* call, const char* path)
{
    if (order == nullptr || order->left.load() == 0 || std::strcmp(order->call.data(), call) != 0 ||
        std::strstr(path, order->path.data()) == nullptr) {
        return false;
    }
    if (order->skip.load() > 0) {
        --order->skip;
        return false;
    }
    --order->left;
    ++order->failed;
    errno = static_cast<int>(order->error.load());
    return true;
}

bool fails(const char* call, int fd)
{
    if (order == nullptr || order->left.load() == 0) {
        return false;
    }
    std::array<char, 32> link{};
    std::snprintf(link.data(), link.size(), "/proc/self/fd/%d", fd);
    std::array<char, 4096> path{};
    return readlink(link.data(), path.data(), path.size() - 1) > 0 && fails(call, path.data());
}

template <typename Function>
Function* real(Function* /*replacement*/, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    static auto* const kNext = reinterpret_cast<int (*)(const char*, int, ...)>(dlsym(RTLD_NEXT, "open"));
    return fails("open", path) ? -1 : kNext(path, flags, mode);
}

int open64(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    static auto* const kNext = reinterpret_cast<int (*)(const char*, int, ...)>(dlsym(RTLD_NEXT, "open64"));
    return fails("open", path) ? -1 : kNext(path, flags, mode);
}

FILE* fopen(const char* path, const char* mode)
{
    static auto* const kNext = real(fopen, "fopen");
    return fails("open", path) ? nullptr : kNext(path, mode);
}

FILE* fopen64(const char* path, const char* mode)
{
    static auto* const kNext = real(fopen64, "fopen64");
    return fails("open", path) ? nullptr : kNext(path, mode);
}

ssize_t read(int fd, void* data, size_t size)
{
    static auto* const kNext = real(read, "read");
    return fails("read", fd) ? -1 : kNext(fd, data, size);
}

ssize_t write(int fd, const void* data, size_t size)
{
    static auto* const kNext = real(write, "write");
    return fails("write", fd) ? -1 : kNext(fd, data, size);
}

ssize_t writev(int fd, const iovec* parts, int count)
{
    static auto* const kNext = real(writev, "writev");
    return fails("write", fd) ? -1 : kNext(fd, parts, count);
}

int fsync(int fd)
{
    static auto* const kNext = real(fsync, "fsync");
    return fails("fsync", fd) ? -1 : kNext(fd);
}

int rename(const char* from, const char* to) noexcept
{
    static auto* const kNext =
        reinterpret_cast<int (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "rename"));
    return fails("rename", to) ? -1 : kNext(from, to);
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned flags) noexcept
{
    static auto* const kNext = reinterpret_cast<int (*)(int, const char*, int, const char*, unsigned)>(
        dlsym(RTLD_NEXT, "renameat2"));
    return fails("rename", to) ? -1 : kNext(fromFolder, from, toFolder, to, flags);
}

int unlink(const char* path) noexcept
{
    static auto* const kNext = reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "unlink"));
    return fails("unlink", path) ? -1 : kNext(path);
}

} // extern "C"
