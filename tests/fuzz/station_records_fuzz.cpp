#include <algorithm>

#include "listeners/hostapd_socket_listener.hpp"
#include "listeners/wpa_socket_command.hpp"
#include "radio/hostapd.hpp"
#include "scripted_hostapd.hpp"
#include "support/captured_log.hpp"

// Station records of any bytes, each behind its length (two bytes; 65535 stands for a request that fails).
// After the last there is no further station, or that one for ever: as many requests as there can be
// stations, no more.

namespace {

using fuzz::ScriptedHostapd;

constexpr size_t kMostStations = 2007;
constexpr size_t kLongestRequest = 63;
constexpr size_t kRecordPart = 32;

class Replies
{
public:
    Replies(fuzz::Input& input, bool endless) : input_(input), endless_(endless) {}

    std::optional<std::string> next()
    {
        if (!input_.empty()) {
            const auto length = input_.number<uint16_t>();
            last_.reset();
            if (length != UINT16_MAX) {
                last_ = input_.take(length);
            }
        } else if (!endless_) {
            last_ = "";
        }
        return last_;
    }

private:
    fuzz::Input& input_;
    bool endless_;
    std::optional<std::string> last_ = "";
};

void check_count(fuzz::Input& input, bool endless)
{
    Replies replies(input, endless);
    std::vector<std::string> records;
    ScriptedHostapd::answer = [&] {
        const auto reply = replies.next();
        records.push_back(reply.value_or("FAIL"));
        return reply;
    };
    ScriptedHostapd::requests.clear();
    uint32_t count = UINT32_MAX;
    fuzz::require(hostapd_get_num_connected_clients(count) == 1, "with a connection there is a number");
    fuzz::require(ScriptedHostapd::open == 0, "the connection is closed");

    const auto& requests = ScriptedHostapd::requests;
    fuzz::require(!requests.empty() && requests.size() <= kMostStations, "so many stations there can be");
    fuzz::require(count <= requests.size(), "no more than were asked for");
    fuzz::require(requests.front() == "STA-FIRST", "the first is asked for first");
    for (size_t i = 1; i < requests.size(); ++i) {
        const std::string record = records[i - 1].substr(0, kRecordPart);
        fuzz::require(requests[i] == "STA-NEXT " + record.substr(0, record.find('\0')),
                      "then the one behind it, by the beginning of its record");
        fuzz::require(requests[i].size() <= kLongestRequest, "which is cut to a request's size");
    }
    const auto counted = std::count_if(records.begin(), records.end(), [](const std::string& record) {
        const std::string text = record.substr(0, std::min(kRecordPart, record.find('\0')));
        return !text.empty() && hostapd_listener()->IsStationDisconnected(text.c_str()) == 0;
    });
    fuzz::require(static_cast<ptrdiff_t>(count) <= counted, "only addresses that are still here are counted");
}

/** A single request, with a reply area of its own exact size. */
void check_command(const std::string& reply, size_t area)
{
    constexpr char kUntouched = '\x55';
    ScriptedHostapd::answer = [&] { return reply; };
    const std::unique_ptr<char[]> buffer(new char[area]);
    std::fill_n(buffer.get(), area, kUntouched);
    const int32_t result = wpa_socket_cmd(&ScriptedHostapd::connection, "STATUS", buffer.get(), area);
    if (reply.starts_with("FAIL")) {
        fuzz::require(result == -2, "a refusal is told");
        fuzz::require(std::all_of(buffer.get(), buffer.get() + area, [](char c) { return c == kUntouched; }),
                      "and leaves the area alone");
        return;
    }
    fuzz::require(result == 0, "a reply is a success");
    constexpr size_t kLargestReply = 4095;
    constexpr size_t kLargestArea = 4096;
    std::string expected = reply.substr(0, std::min(kLargestReply, reply.find('\0')));
    expected.resize(std::min(area, kLargestArea), '\0');
    expected.resize(area, kUntouched);
    fuzz::require(std::equal(expected.begin(), expected.end(), buffer.get()),
                  "the text, then NULs, and nothing behind the area");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    testing_support::captured_log().clear();
    fuzz::Input input(data, size);
    const auto first = input.number<uint16_t>();
    const size_t area = 1 + first % 5000U;
    const bool endless = first > INT16_MAX;
    hostapd_listener()->Reset();
    for (std::string_view event = input.up_to_nul(); !event.empty(); event = input.up_to_nul()) {
        hostapd_listener()->SignalEvent(std::string(event).c_str());
    }
    const std::string rest(reinterpret_cast<const char*>(data), size);
    check_command(rest, area);
    wpa_socket_buffer_dump(data, static_cast<int32_t>(size));
    check_count(input, endless);
    return 0;
}
