#include "fix.hpp"

#include <algorithm>
#include <chrono>
#include <cstring>

#include <poll.h>

#include "service_manager.hpp"

namespace doctor {

namespace {

Mended outcome(const Reply& reply, const std::string& done, const std::string& wanted)
{
    if (reply.answered()) {
        return {true, done};
    }
    return {false, wanted + " failed: " + (reply.text.empty() ? reply.error : reply.text)};
}

Reply reload(const View& view)
{
    return view.system.call(systemd_manager(), "Reload");
}

Mended unmask(const View& view, const std::string& unit)
{
    const Reply reply =
        view.system.call(systemd_manager(), "UnmaskUnitFiles", "asb", {Json::array({unit}), false});
    if (reply.answered()) {
        reload(view); // only then does systemd look for the file that was behind the mask
    }
    return outcome(reply, "unmasked " + unit, "unmasking " + unit);
}

/** The job is answered before the unit runs; what is looked at next is to see how it came out. */
Mended start(const View& view, const std::string& unit)
{
    using namespace std::chrono_literals;
    const Reply reply = view.system.call(systemd_manager(), "StartUnit", "ss", {unit, "replace"});
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (reply.answered() && std::chrono::steady_clock::now() < deadline) {
        const Unit now = Unit::look_up(view.system, unit);
        if (now.is_active()) {
            return {true, "started " + unit};
        }
        if (now.active_state() == "failed" || !now.failure().empty()) {
            break;
        }
        ::poll(nullptr, 0, 50);
    }
    return outcome(reply.answered()
                       ? Reply{Reply::Kind::Refused, Json::array(), "", "see journalctl -b -u " + unit}
                       : reply,
                   "", "starting " + unit);
}

Mended remove(const View& view, const std::string& path)
{
    // Once more: somebody may have come to listen there meanwhile.
    if (!view.files.is_abandoned_socket(path)) {
        return {false, path + " is in use again"};
    }
    const int error = view.files.remove(path);
    return error == 0 ? Mended{true, "removed " + path}
                      : Mended{false, "removing " + path + " failed: " + std::strerror(error)};
}

Mended apply(const View& view, const Remedy& remedy)
{
    switch (remedy.kind) {
    case RemedyKind::UnmaskUnit:
        return unmask(view, remedy.subject);
    case RemedyKind::StartUnit:
        return start(view, remedy.subject);
    case RemedyKind::RemoveFile:
        return remove(view, remedy.subject);
    default:
        return outcome(reload(view), "had systemd read its files anew", "having systemd read its files anew");
    }
}

} // namespace

std::vector<Mended> mend(const View& view, const Findings& findings)
{
    std::vector<Remedy> done;
    std::vector<Mended> mended;
    for (const Finding& finding : findings.all()) {
        if (finding.remedy.kind == RemedyKind::None ||
            std::ranges::find(done, finding.remedy) != done.end()) {
            continue;
        }
        done.push_back(finding.remedy);
        mended.push_back(apply(view, finding.remedy));
    }
    return mended;
}

} // namespace doctor
