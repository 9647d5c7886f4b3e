// Usage: vantora-sim-sandbox WORK [EXPOSED...]
//
// Makes a sandbox and keeps it until standard input ends: so it cannot outlive the program that asked for it,
// however that program dies. Prints the process id of the sandbox's init, to be entered with nsenter, once
// everything is in place.
//
// Works for root and, where user namespaces are allowed, for anybody.

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "sandbox.hpp"

namespace sandbox {

void fail(const std::string& what)
{
    std::fprintf(stderr, "vantora-sim-sandbox: %s: %s\n", what.c_str(), std::strerror(errno));
    _exit(1);
}

namespace {

void write_file(const std::string& path, const std::string& text)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        fail("write " + path);
    }
    close(fd);
}

void make_namespaces(bool userNamespace)
{
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    const int user = userNamespace ? CLONE_NEWUSER : 0;
    if (unshare(user | CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS) < 0) {
        fail("unshare (are user namespaces allowed here?)");
    }
    if (userNamespace) {
        write_file("/proc/self/setgroups", "deny");
        write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
}

/// Init: everything is prepared here, then orphans are reaped until the end of the sandbox takes init with
/// it.
[[noreturn]] void be_init(const Layout& layout, int ready)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    constexpr std::string_view kHost = "korrin";
    if (sethostname(kHost.data(), kHost.size()) < 0) {
        fail("sethostname");
    }
    make_mounts(layout);
    make_interfaces();

    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    if (write(ready, "1", 1) != 1) {
        fail("report readiness");
    }
    close(ready);

    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child, nullptr);
    for (;;) {
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        int signal = 0;
        sigwait(&child, &signal);
    }
}

int keep(pid_t init, int ready)
{
    char byte = 0;
    if (read(ready, &byte, 1) != 1) {
        waitpid(init, nullptr, 0);
        return 1;
    }
    std::printf("%d\n", init);
    std::fflush(stdout);
    while (read(STDIN_FILENO, &byte, 1) > 0 || errno == EINTR) {
        errno = 0;
    }
    kill(init, SIGKILL);
    waitpid(init, nullptr, 0);
    return 0;
}

int run(int argc, char** argv)
{
    if (argc < 2) {
        std::fputs("Usage: vantora-sim-sandbox WORK [EXPOSED...]\n", stderr);
        return 2;
    }
    const Layout layout{argv[1], {argv + 2, argv + argc}, geteuid() != 0};
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) < 0) {
        fail("pipe");
    }
    make_namespaces(layout.userNamespace);
    const pid_t init = fork();
    if (init < 0) {
        fail("fork");
    }
    if (init == 0) {
        close(ready[0]);
        be_init(layout, ready[1]);
    }
    close(ready[1]);
    return keep(init, ready[0]);
}

} // namespace
} // namespace sandbox

int main(int argc, char** argv)
{
    return sandbox::run(argc, argv);
}
