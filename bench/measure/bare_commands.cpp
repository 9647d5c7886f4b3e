#include "measure/bare_commands.hpp"

#include <array>
#include <cstdio>

#include "listeners/wpa_ctrl_owner.hpp"
#include "measure/subject.hpp"
#include "names.hpp"

namespace {

void run_command(const char* command)
{
    FILE* pipe = popen(command, "r");
    if (pipe == nullptr) {
        throw MeasuringFailed("popen");
    }
    std::array<char, 256> output{};
    const size_t got = fread(output.data(), 1, output.size(), pipe);
    if (pclose(pipe) != 0 || got == 0) {
        throw MeasuringFailed(std::string("no output: ") + command);
    }
}

void ask_hostapd()
{
    const WpaCtrlPtr connection(wpa_ctrl_open2(kHostapdSocket, nullptr));
    std::array<char, 4096> reply{};
    size_t length = reply.size();
    constexpr std::string_view kFirst = "STA-FIRST";
    if (!connection || wpa_ctrl_request(connection.get(), kFirst.data(), kFirst.size(), reply.data(), &length,
                                        nullptr) != 0) {
        throw MeasuringFailed("hostapd does not answer");
    }
}

class BareCommands : public Subject
{
public:
    explicit BareCommands(std::string letters) : letters_(std::move(letters)) {}

    Clock::duration run() override
    {
        const Clock::time_point begin = Clock::now();
        run_bare_commands(letters_);
        return Clock::now() - begin;
    }

private:
    std::string letters_;
};

} // namespace

void run_bare_commands(const std::string& letters)
{
    for (const char letter : letters) {
        switch (letter) {
        case 'p':
            run_command("rfkill list wlan | tail -n +2 ");
            break;
        case 'm':
            run_command("iw dev wlan0 info | grep type");
            break;
        case 's':
            run_command("iw wlan0 info | egrep txpower");
            break;
        case 'h':
            ask_hostapd();
            break;
        default:
            throw MeasuringFailed("unknown command letter");
        }
    }
}

std::unique_ptr<Subject> make_bare_commands(const std::string& letters)
{
    return std::make_unique<BareCommands>(letters);
}
