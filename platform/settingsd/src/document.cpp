#include "document.hpp"

#include <cstdint>
#include <utility>

#include "salvage.hpp"

namespace settingsd {

namespace {

using nlohmann::json;

/** Deeper than any settings file; writing JSON recurses, so a hostile depth must not get into memory. */
constexpr int kDeepest = 32;

/** Parses valid JSON; nothing when it is not, or too deep. */
std::optional<json> parse_json(std::string_view text)
{
    bool tooDeep = false;
    auto parsed = json::parse(
        text,
        [&tooDeep](int depth, json::parse_event_t, json&) {
            tooDeep = tooDeep || depth > kDeepest;
            return depth <= kDeepest;
        },
        false);
    if (parsed.is_discarded() || tooDeep) {
        return std::nullopt;
    }
    return parsed;
}

void report_damage(Document& document, std::string finding)
{
    document.damaged = true;
    document.findings.push_back(std::move(finding));
}

/** Takes out of a known section what is of a wrong type. */
void check_section(Document& document, const std::string& section, json& settings, Schema schema)
{
    for (auto entry = settings.begin(); entry != settings.end();) {
        const Setting* setting = find_setting(schema, section, entry.key());
        const std::string name = section + "." + entry.key();
        if (setting == nullptr) {
            document.findings.push_back("unknown setting " + name + " is kept");
        } else if (!to_value(entry.value(), setting->defaultValue)) {
            report_damage(document,
                          "setting " + name + " is not of type '" + type_of(setting->defaultValue) + "'");
            entry = settings.erase(entry);
            continue;
        }
        ++entry;
    }
}

void check(Document& document, Schema schema)
{
    json& root = document.root;
    for (auto entry = root.begin(); entry != root.end();) {
        if (!has_section(schema, entry.key())) {
            document.findings.push_back("unknown section " + entry.key() + " is kept");
        } else if (!entry.value().is_object()) {
            report_damage(document, "section " + entry.key() + " is not an object");
            entry = root.erase(entry);
            continue;
        } else {
            check_section(document, entry.key(), entry.value(), schema);
        }
        ++entry;
    }
}

} // namespace

Document parse_document(std::string_view text, Schema schema)
{
    Document document;
    auto parsed = parse_json(text);
    if (!parsed) {
        report_damage(document, "not valid JSON");
        document.root = salvage(text);
    } else if (!parsed->is_object()) {
        report_damage(document, "not a JSON object");
    } else {
        document.root = std::move(*parsed);
    }
    check(document, schema);
    return document;
}

std::string to_text(const json& root)
{
    return root.dump(2) + "\n";
}

std::optional<Value> to_value(const json& value, const Value& example)
{
    if (std::holds_alternative<bool>(example) && value.is_boolean()) {
        return value.get<bool>();
    }
    if (std::holds_alternative<std::int32_t>(example) && value.is_number_integer()) {
        const bool fits = value.is_number_unsigned() ? std::in_range<std::int32_t>(value.get<std::uint64_t>())
                                                     : std::in_range<std::int32_t>(value.get<std::int64_t>());
        return fits ? std::optional<Value>(value.get<std::int32_t>()) : std::nullopt;
    }
    if (std::holds_alternative<std::string>(example) && value.is_string()) {
        auto text = value.get<std::string>();
        // D-Bus texts cannot hold a NUL.
        return text.find('\0') == std::string::npos ? std::optional<Value>(std::move(text)) : std::nullopt;
    }
    return std::nullopt;
}

json to_json(const Value& value)
{
    return std::visit([](const auto& held) { return json(held); }, value);
}

} // namespace settingsd
