#include "document.hpp"

#include <cstdint>
#include <utility>

#include "salvage.hpp"
#include "support/utf8.hpp"

namespace settingsd {

namespace {

using nlohmann::json;

/** Deeper than any settings file; writing JSON recurses, so a hostile depth must not get into memory. */
constexpr int kDeepest = 32;

/** Judges a text without building anything from it, so that a depth is known before memory is filled. */
class DepthCheck : public nlohmann::json_sax<json>
{
public:
    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t&) override { return true; }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool key(string_t&) override { return true; }
    bool start_object(std::size_t) override { return ++depth_ <= kDeepest; }
    bool start_array(std::size_t) override { return ++depth_ <= kDeepest; }
    bool end_object() override { return leave(); }
    bool end_array() override { return leave(); }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override
    {
        return false;
    }

private:
    bool leave()
    {
        --depth_;
        return true;
    }

    int depth_ = 0;
};

/**
 * Parses valid JSON; nothing when it is not, or too deep. Twice, because the library's parser with a callback
 * looks through all that stands beside an object when that ends, and takes a time that grows with the square.
 */
std::optional<json> parse_json(std::string_view text)
{
    DepthCheck check;
    if (!json::sax_parse(text, &check)) {
        return std::nullopt;
    }
    return json::parse(text, nullptr, false);
}

/** A name from the file for the log, which is no place for a megabyte. */
std::string shown(const std::string& name)
{
    constexpr std::size_t kLongest = 64;
    if (name.size() <= kLongest) {
        return name;
    }
    std::size_t end = kLongest;
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0U) == 0x80U) {
        --end; // not in the middle of a character
    }
    return name.substr(0, end) + "...";
}

/** Tells of what this version does not know: of each thing while there are few, then how many more. */
class Unknown
{
public:
    explicit Unknown(Document& document) : document_(document) {}

    void add(const char* kind, const std::string& name)
    {
        if (++count_ <= kMostNamed) {
            document_.findings.push_back(std::string("unknown ") + kind + " " + name + " is kept");
        }
    }

    void finish()
    {
        if (count_ > kMostNamed) {
            document_.findings.push_back(std::to_string(count_ - kMostNamed) +
                                         " more unknown sections and settings are kept");
        }
    }

private:
    static constexpr std::size_t kMostNamed = 10;

    Document& document_;
    std::size_t count_ = 0;
};

void report_damage(Document& document, std::string finding)
{
    document.damaged = true;
    document.findings.push_back(std::move(finding));
}

/** Takes out of a known section what is of a wrong type or not allowed. */
void check_section(Document& document, const std::string& section, json& settings, Schema schema,
                   Unknown& unknown)
{
    for (auto entry = settings.begin(); entry != settings.end();) {
        const Setting* setting = find_setting(schema, section, entry.key());
        std::string name = section;
        name.append(".").append(shown(entry.key()));
        if (setting == nullptr) {
            unknown.add("setting", name);
            ++entry;
            continue;
        }
        const auto value = to_value(entry.value(), setting->defaultValue);
        const std::string refusal =
            value ? refusal_of(*setting, *value)
                  : std::string("is not of type '") + type_of(setting->defaultValue) + "'";
        if (refusal.empty()) {
            ++entry;
            continue;
        }
        report_damage(document, std::string("setting ").append(name).append(" ").append(refusal));
        entry = settings.erase(entry);
    }
}

void check(Document& document, Schema schema)
{
    json& root = document.root;
    Unknown unknown(document);
    for (auto entry = root.begin(); entry != root.end();) {
        if (!has_section(schema, entry.key())) {
            unknown.add("section", shown(entry.key()));
        } else if (!entry.value().is_object()) {
            report_damage(document, "section " + entry.key() + " is not an object");
            entry = root.erase(entry);
            continue;
        } else {
            check_section(document, entry.key(), entry.value(), schema, unknown);
        }
        ++entry;
    }
    unknown.finish();
}

/** What the schema knows of a document. */
json only_known(const json& root, Schema schema)
{
    json known = json::object();
    for (const Setting& setting : schema) {
        const auto section = root.find(setting.section);
        if (section != root.end() && section->contains(setting.key)) {
            known[setting.section][setting.key] = section->at(setting.key);
        }
    }
    return known;
}

} // namespace

Document parse_document(std::string_view text, Schema schema)
{
    Document document;
    if (text.size() > kLargestFile) {
        report_damage(document, "is larger than 1 MiB, only the known settings in it are kept");
        document.root = only_known(salvage(text), schema);
        check(document, schema);
        return document;
    }
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

Document unreadable_document()
{
    Document document;
    report_damage(document, "is larger than 4 MiB, nothing in it is kept");
    return document;
}

std::string to_text(const json& root)
{
    std::string text = root.dump(2) + "\n";
    if (text.size() > kLargestFile) {
        text = root.dump() + "\n";
    }
    return text;
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
        return is_bus_text(text) ? std::optional<Value>(std::move(text)) : std::nullopt;
    }
    return std::nullopt;
}

json to_json(const Value& value)
{
    return std::visit([](const auto& held) { return json(held); }, value);
}

} // namespace settingsd
