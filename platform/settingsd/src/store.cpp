#include "store.hpp"

#include <cerrno>
#include <iterator>
#include <system_error>
#include <utility>

#include "atomic_file.hpp"
#include "document.hpp"

namespace settingsd {

namespace {

std::string errno_text(int r)
{
    return std::system_category().message(-r);
}

} // namespace

SettingsStore::SettingsStore(std::string path, Schema schema) : path_(std::move(path)), schema_(schema)
{
}

int SettingsStore::load(std::vector<std::string>& findings)
{
    sealed_ = open(findings);
    if (sealed_ == -EBUSY) {
        return sealed_;
    }
    std::string text;
    const int r = read(text);
    if (r == -ENOENT) {
        return sealed_;
    }
    if (r < 0 && r != -EFBIG) {
        sealed_ = r;
        findings.push_back("cannot be read and is left alone, settings cannot be changed until it can: " +
                           errno_text(r));
        return sealed_;
    }
    Document document = r == 0 ? parse_document(text, schema_) : unreadable_document();
    root_ = std::move(document.root);
    std::move(document.findings.begin(), document.findings.end(), std::back_inserter(findings));
    if (document.damaged && sealed_ == 0) {
        sealed_ = put_damaged_aside(findings);
    }
    return sealed_;
}

/** Finds the file and locks it. Returns 0, or a negative errno. */
int SettingsStore::open(std::vector<std::string>& findings)
{
    int r = follow_links(path_, file_);
    if (r < 0) {
        file_ = path_; // reading it fails in the same way, and tells
        return r;
    }
    r = lock_.take(file_ + ".lock");
    if (r == -EBUSY) {
        findings.emplace_back("is in use by another process");
    } else if (r < 0) {
        findings.push_back("cannot be locked, settings cannot be changed until it can: " + errno_text(r));
    }
    return r;
}

/** Reads the file. A failure may pass: only one that lasts counts. Returns 0, or a negative errno. */
int SettingsStore::read(std::string& text) const
{
    constexpr int kAttempts = 3;
    int r = 0;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        r = read_file(file_, kLargestReadable, text);
        if (r == 0 || r == -ENOENT || r == -EFBIG) {
            break;
        }
    }
    return r;
}

int SettingsStore::put_damaged_aside(std::vector<std::string>& findings)
{
    std::string kept;
    int r = keep_aside(file_, kept);
    if (r < 0) {
        findings.push_back("cannot be kept aside, settings cannot be changed until it can: " + errno_text(r));
        return r;
    }
    findings.push_back("the damaged file is kept as " + kept);
    r = save(root_);
    if (r < 0) {
        settled_ = false;
        findings.push_back("cannot be replaced: " + errno_text(r));
    }
    return 0;
}

int SettingsStore::settle()
{
    return settled_ ? 0 : save(root_);
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
    if (value.index() != setting.defaultValue.index() || !refusal_of(setting, value).empty()) {
        return -EINVAL;
    }
    const bool isOther = get(setting) != value;
    nlohmann::json root = root_;
    if (isOther) {
        root[setting.section][setting.key] = to_json(value);
    }
    const int r = store(std::move(root));
    changed = r == 0 && isOther;
    return r;
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
    const int r = store(std::move(root));
    if (r == 0) {
        changed = std::move(otherValue);
    }
    return r;
}

/** Puts new contents on the disk, then into effect. The same ones are written only where the disk may differ.
 */
int SettingsStore::store(nlohmann::json root)
{
    if (sealed_ < 0) {
        return sealed_;
    }
    if (settled_ && root == root_) {
        return 0;
    }
    const int r = save(root);
    if (r == 0) {
        root_ = std::move(root);
    }
    return r;
}

int SettingsStore::save(const nlohmann::json& root)
{
    const int r = lock_.take(file_ + ".lock");
    if (r < 0) {
        return r;
    }
    const std::string text = to_text(root);
    return text.size() > kLargestFile ? -EFBIG : replace_file(file_, text, settled_);
}

} // namespace settingsd
