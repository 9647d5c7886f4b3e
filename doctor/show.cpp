#include "show.hpp"

#include <nlohmann/json.hpp>

#include "client/text.hpp"

namespace doctor {

namespace {

using client::escaped;
using client::Style;
using Json = nlohmann::json;

/** How a level looks: what stands in front of a line, all of one width; its colours; its name for programs.
 */
struct Appearance
{
    const char* mark;
    Style style;
    const char* word;
};

Appearance appearance_of(Level level)
{
    switch (level) {
    case Level::Good:
        return {"ok   ", Style::Good, "good"};
    case Level::Note:
        return {"note ", Style::Faint, "note"};
    case Level::Unseen:
        return {"?    ", Style::Faint, "unseen"};
    case Level::Warning:
        return {"warn ", Style::Heading, "warning"};
    case Level::Bad:
        break;
    }
    return {"BAD  ", Style::Bad, "bad"};
}

std::string group_of(const Finding& finding)
{
    return finding.check.substr(0, finding.check.find('.'));
}

std::string counted(std::size_t count, const char* one, const char* many)
{
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string summary(const Findings& findings)
{
    std::string text = counted(findings.count(Level::Good), "thing is", "things are") + " as they must be";
    if (findings.count(Level::Good) == 1) {
        text = "1 thing is as it must be";
    }
    text += ", " + counted(findings.count(Level::Warning), "warning", "warnings");
    text += ", " + std::to_string(findings.count(Level::Bad)) + " bad";
    if (const std::size_t unseen = findings.count(Level::Unseen); unseen > 0) {
        text += ", " + std::to_string(unseen) + " not looked at";
    }
    switch (findings.exit_status()) {
    case 0:
        return text + ": the device works.";
    case 1:
        return text + (findings.count(Level::Warning) > 0 ? ": it works, with warnings."
                                                          : ": nothing wrong is seen.");
    default:
        return text + ": it does not work.";
    }
}

} // namespace

std::string shown_to_people(const std::vector<Mended>& mended, const Findings& findings,
                            const client::Terminal& terminal)
{
    std::string text;
    for (const Mended& one : mended) {
        text += std::string(one.done ? "mended: " : "not mended: ") + escaped(one.text) + "\n";
    }
    std::string group;
    for (const Finding& finding : findings.all()) {
        if (group != group_of(finding)) {
            group = group_of(finding);
            text += terminal.styled(Style::Heading, group) + "\n";
        }
        const Appearance appearance = appearance_of(finding.level);
        text += "  " + terminal.styled(appearance.style, appearance.mark) + escaped(finding.text) + "\n";
        if (!finding.why.empty()) {
            text += "       why   " + escaped(finding.why) + "\n";
        }
        if (!finding.mend.empty()) {
            text += "       mend  " + escaped(finding.mend) + "\n";
        }
    }
    return text + summary(findings) + "\n";
}

std::string shown_to_programs(const std::vector<Mended>& mended, const Findings& findings)
{
    Json object = {
        {"status", findings.exit_status()}, {"mended", Json::array()}, {"findings", Json::array()}};
    for (const Mended& one : mended) {
        object["mended"].push_back({{"done", one.done}, {"text", one.text}});
    }
    for (const Finding& finding : findings.all()) {
        object["findings"].push_back({{"check", finding.check},
                                      {"level", appearance_of(finding.level).word},
                                      {"text", finding.text},
                                      {"why", finding.why},
                                      {"mend", finding.mend},
                                      {"fixable", finding.remedy.kind != RemedyKind::None}});
    }
    return object.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

} // namespace doctor
