// A command of the simulated device: tells the world how it was called and does what the world answers.
//
// Linked under the names of the real commands in the first folder of PATH. The request is the argument list;
// the answer is one of: print this and exit, be killed by this signal, become the real program. A world that
// never answers makes the command hang, which is what some tests want.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr const char* kWorldSocket = "/run/sim/tool";
constexpr int kNoWorld = 125;       // exit status when there is no world to ask
constexpr int kNoRealProgram = 127; // exit status when the real program is not installed

int connect_to_world()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, kWorldSocket, sizeof(address.sun_path) - 1);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) < 0) {
        std::_Exit(kNoWorld);
    }
    return fd;
}

void write_all(int fd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0) {
            std::_Exit(kNoWorld);
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
}

std::string read_exactly(int fd, size_t size)
{
    std::string data(size, '\0');
    for (size_t have = 0; have < size;) {
        const ssize_t got = read(fd, data.data() + have, size - have);
        if (got <= 0) {
            std::_Exit(kNoWorld);
        }
        have += static_cast<size_t>(got);
    }
    return data;
}

uint32_t read_number(int fd)
{
    uint32_t number = 0;
    const std::string bytes = read_exactly(fd, sizeof(number));
    std::memcpy(&number, bytes.data(), sizeof(number));
    return number;
}

/// The request: the length of the argument list in bytes, then the arguments, each ended by a NUL.
void send_arguments(int fd, int argc, char** argv)
{
    std::string arguments = std::string(basename(argv[0])) + '\0';
    for (int i = 1; i < argc; ++i) {
        arguments.append(argv[i]).push_back('\0');
    }
    const auto size = static_cast<uint32_t>(arguments.size());
    write_all(fd, reinterpret_cast<const char*>(&size), sizeof(size));
    write_all(fd, arguments.data(), arguments.size());
}

[[noreturn]] void become_real_program(char** argv)
{
    const std::string name = basename(argv[0]);
    for (const char* folder : {"/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/"}) {
        execv((folder + name).c_str(), argv);
    }
    std::_Exit(kNoRealProgram);
}

} // namespace

int main(int argc, char** argv)
{
    const int world = connect_to_world();
    send_arguments(world, argc, argv);

    const char order = read_exactly(world, 1)[0];
    const uint32_t number = read_number(world);
    if (order == 'x') {
        become_real_program(argv);
    }
    if (order == 'k') {
        raise(static_cast<int>(number));
    }
    const std::string out = read_exactly(world, read_number(world));
    const std::string err = read_exactly(world, read_number(world));
    write_all(STDOUT_FILENO, out.data(), out.size());
    write_all(STDERR_FILENO, err.data(), err.size());
    std::_Exit(static_cast<int>(number));
}
