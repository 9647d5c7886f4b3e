#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "sandbox.hpp"

namespace sandbox {

namespace {

constexpr std::array kDevices = {"null", "zero", "full", "random", "urandom", "tty"};

/// A mount that is not attached anywhere yet: taken from the host before its place is covered, put in place
/// afterwards.
class DetachedMount
{
public:
    explicit DetachedMount(std::string from)
        : from_(std::move(from)), fd_(open_tree(AT_FDCWD, from_.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC))
    {
        if (fd_ < 0) {
            fail("open_tree " + from_);
        }
    }
    ~DetachedMount()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    DetachedMount(DetachedMount&& other) noexcept
        : from_(std::move(other.from_)), fd_(std::exchange(other.fd_, -1))
    {
    }
    DetachedMount(const DetachedMount&) = delete;
    DetachedMount& operator=(const DetachedMount&) = delete;
    DetachedMount& operator=(DetachedMount&&) = delete;

    void attach(const std::string& to) const
    {
        if (move_mount(fd_, "", AT_FDCWD, to.c_str(), MOVE_MOUNT_F_EMPTY_PATH) < 0) {
            fail("move_mount " + from_ + " to " + to);
        }
    }

private:
    std::string from_;
    int fd_;
};

void mount_new(const char* type, const std::string& where, const std::string& options = "")
{
    if (mount(type, where.c_str(), type, 0, options.empty() ? nullptr : options.c_str()) < 0) {
        fail("mount " + std::string(type) + " on " + where);
    }
}

void make_file(const std::string& path)
{
    const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    if (fd < 0) {
        fail("create " + path);
    }
    close(fd);
}

/// Nothing of the host can be changed from within, whatever runs there as root.
void make_host_read_only()
{
    mount_attr readOnly{};
    readOnly.attr_set = MOUNT_ATTR_RDONLY;
    if (mount_setattr(AT_FDCWD, "/", AT_RECURSIVE, &readOnly, sizeof(readOnly)) < 0 &&
        mount_setattr(AT_FDCWD, "/", 0, &readOnly, sizeof(readOnly)) < 0) {
        fail("make / read-only");
    }
}

void make_devices(const std::vector<DetachedMount>& devices)
{
    mount_new("tmpfs", "/dev", "mode=755");
    for (size_t i = 0; i < kDevices.size(); ++i) {
        const std::string path = std::string("/dev/") + kDevices[i];
        make_file(path);
        devices[i].attach(path);
    }
    mkdir("/dev/shm", 01777);
    mount_new("tmpfs", "/dev/shm", "mode=1777");
    mkdir("/dev/pts", 0755);
    mount_new("devpts", "/dev/pts", "newinstance,ptmxmode=0666,mode=620");
    const std::array<std::pair<const char*, const char*>, 6> links = {{{"pts/ptmx", "/dev/ptmx"},
                                                                       {"/proc/self/fd", "/dev/fd"},
                                                                       {"/proc/self/fd/0", "/dev/stdin"},
                                                                       {"/proc/self/fd/1", "/dev/stdout"},
                                                                       {"/proc/self/fd/2", "/dev/stderr"},
                                                                       {"/run/sim/log", "/dev/log"}}};
    for (const auto& [target, link] : links) {
        if (symlink(target, link) < 0) {
            fail(std::string("symlink ") + link);
        }
    }
}

void make_etc(bool userNamespace)
{
    std::string options = "lowerdir=/etc,upperdir=/run/sim/etc/upper,workdir=/run/sim/etc/scratch";
    if (userNamespace) {
        options += ",userxattr";
    }
    mount_new("overlay", "/etc", options);
}

} // namespace

void make_mounts(const Layout& layout)
{
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0) {
        fail("make / private");
    }
    const DetachedMount run(layout.work + "/run");
    const DetachedMount tmp(layout.work + "/tmp");
    std::vector<DetachedMount> devices;
    for (const char* device : kDevices) {
        devices.emplace_back(std::string("/dev/") + device);
    }
    std::vector<DetachedMount> exposed;
    for (const std::string& path : layout.exposed) {
        exposed.emplace_back(path);
    }

    make_host_read_only();
    run.attach("/run");
    tmp.attach("/tmp");
    make_etc(layout.userNamespace);
    make_devices(devices);
    for (size_t i = 0; i < exposed.size(); ++i) {
        std::error_code ignored; // there already, unless it lies below one of the covered places
        std::filesystem::create_directories(layout.exposed[i], ignored);
        exposed[i].attach(layout.exposed[i]);
    }
    mount_new("proc", "/proc");
    if (mount("/run/sim/cmdline", "/proc/cmdline", nullptr, MS_BIND, nullptr) < 0) {
        fail("cover /proc/cmdline");
    }
    // The host's /sys shows the host's interfaces; where a new one is refused, that blemish is all that
    // remains.
    mount("sysfs", "/sys", "sysfs", 0, nullptr);
    if (chdir("/") < 0) {
        fail("chdir /");
    }
}

} // namespace sandbox
