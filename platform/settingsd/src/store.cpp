#include "store.hpp"

#include <cerrno>
#include <cstddef>
#include <system_error>
#include <utility>

#include "atomic_file.hpp"
#include "document.hpp"

namespace settingsd {

namespace {

constexpr std::size_t kLargestFile = std::size_t{1024} * 1024;

std::string errno_text(int r)
{
    return std::system_category().message(-r);
}

} // namespace

SettingsStore::SettingsStore(std::string path, Schema schema) : path_(std::move(path)), schema_(schema)
{
}

std::vector<std::string> SettingsStore::load()
{
    root_ = nlohmann::json::object();
    sealed_ = 0;

    std::string text;
    const int unreadable = read_file(path_, kLargestFile, text);
    if (unreadable == -ENOENT) {
        return {};
    }
    Document document;
    if (unreadable < 0) {
        document.damaged = true;
        document.findings.push_back("cannot be read: " + errno_text(unreadable));
    } else {
        document = parse_document(text, schema_);
    }
    root_ = std::move(document.root);

    auto findings = std::move(document.findings);
    if (document.damaged) {
        std::string kept;
        int r = keep_aside(path_, kept);
        if (r < 0) {
            sealed_ = r;
            findings.push_back("cannot be kept aside, so settings cannot be changed: " + errno_text(r));
        } else {
            findings.push_back("the damaged file is kept as " + kept);
            r = save(root_);
            if (r < 0) {
                findings.push_back("cannot be replaced: " + errno_text(r));
            }
        }
    }
    return findings;
}

Value SettingsStore::get(const Setting& setting) const
{
    const auto section = root_.find(setting.section);
    if (section != root_.end()) {
        const auto stored = section->find(setting.key);
        if (stored != section->end()) {
            if (auto value = to_value(*stored, setting.defaultValue)) {
                return *std::move(value);
            }
        }
    }
    return setting.defaultValue;
}

int SettingsStore::set(const Setting& setting, const Value& value, bool& changed)
{
    changed = false;
    if (value.index() != setting.defaultValue.index()) {
        return -EINVAL;
    }
    if (get(setting) == value) {
        return 0;
    }
    nlohmann::json root = root_;
    root[setting.section][setting.key] = to_json(value);
    const int r = save(root);
    if (r < 0) {
        return r;
    }
    root_ = std::move(root);
    changed = true;
    return 0;
}

int SettingsStore::reset(std::span<const Setting* const> settings, std::vector<const Setting*>& changed)
{
    changed.clear();
    nlohmann::json root = root_;
    std::vector<const Setting*> otherValue;
    for (const Setting* setting : settings) {
        if (get(*setting) != setting->defaultValue) {
            otherValue.push_back(setting);
        }
        const auto section = root.find(setting->section);
        if (section != root.end()) {
            section->erase(setting->key);
            if (section->empty()) {
                root.erase(section);
            }
        }
    }
    if (root == root_) {
        return 0;
    }
    const int r = save(root);
    if (r < 0) {
        return r;
    }
    root_ = std::move(root);
    changed = std::move(otherValue);
    return 0;
}

int SettingsStore::save(const nlohmann::json& root)
{
    return sealed_ < 0 ? sealed_ : replace_file(path_, to_text(root));
}

} // namespace settingsd
