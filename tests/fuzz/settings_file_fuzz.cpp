#include <algorithm>
#include <array>
#include <filesystem>

#include "document.hpp"
#include "fuzz_input.hpp"
#include "store.hpp"
#include "support/temp_folder.hpp"

// A settings file of any bytes: what is kept of it is a settings file again, every setting has a value of its
// type, and every change is found again after the next start. A damaged file is kept aside, whole.

namespace {

using namespace settingsd;

/** The shape of the product's own table, which would ask the machine for its name. */
Schema schema()
{
    static const std::array kSettings = {
        Setting{"development", "killWifiOnBoot", false},
        Setting{"device", "deviceName", "Korrin One-3456", Belongs::ToOwner},
        Setting{"display", "brightness", 80},
        Setting{"network", "enabled", true},
        Setting{"network", "mode", "Host"},
        Setting{"network", "frequency", "2.4"},
    };
    return kSettings;
}

Value other_value(const Value& value)
{
    if (const auto* flag = std::get_if<bool>(&value)) {
        return !*flag;
    }
    if (const auto* number = std::get_if<std::int32_t>(&value)) {
        return *number == 7 ? 8 : 7;
    }
    return std::get<std::string>(value) == "other" ? std::string("one more") : std::string("other");
}

void check_document(const Document& document)
{
    fuzz::require(document.root.is_object(), "the root is an object");
    fuzz::require(!document.damaged || !document.findings.empty(), "damage is told");
    const std::string text = to_text(document.root);
    const Document again = parse_document(text, schema());
    fuzz::require(!again.damaged, "what is kept is sound");
    fuzz::require(again.root == document.root, "and reads as itself");
}

void check_store(const testing_support::TempFolder& folder, const std::string& original, bool damaged)
{
    const std::string file = folder.file("settings.json");
    std::vector<Value> changed;
    {
        SettingsStore store(file, schema());
        std::vector<std::string> findings;
        fuzz::require(store.load(findings) == 0, "it can be loaded");
        for (const Setting& setting : schema()) {
            const Value value = store.get(setting);
            fuzz::require(value.index() == setting.defaultValue.index(), "a value has its setting's type");
            const Value other = other_value(value);
            bool differs = false;
            fuzz::require(store.set(setting, other, differs) == 0 && differs, "it can be changed");
            changed.push_back(other);
        }
    }
    fuzz::require(folder.has("settings.json.damaged-1") == damaged, "a damaged file is kept, and no other");
    fuzz::require(!damaged || folder.read("settings.json.damaged-1") == original, "as it was");

    SettingsStore store(file, schema());
    fuzz::require(!folder.has("settings.json.damaged-2"), "the new file is not damaged");
    std::vector<std::string> findings;
    fuzz::require(store.load(findings) == 0 && findings.size() < 100, "and again");
    auto expected = changed.begin();
    for (const Setting& setting : schema()) {
        fuzz::require(store.get(setting) == *expected, "the change is found again");
        ++expected;
    }
    std::vector<const Setting*> all;
    std::vector<const Setting*> reset;
    std::transform(schema().begin(), schema().end(), std::back_inserter(all),
                   [](const Setting& one) { return &one; });
    fuzz::require(store.reset(all, reset) == 0, "everything can be reset");
    for (const Setting& setting : schema()) {
        fuzz::require(store.get(setting) == setting.defaultValue, "then the defaults hold");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const testing_support::TempFolder kFolder;

    const std::string text(reinterpret_cast<const char*>(data), size);
    const Document document = parse_document(text, schema());
    check_document(document);

    for (const auto& entry : std::filesystem::directory_iterator(kFolder.path())) {
        std::filesystem::remove(entry.path());
    }
    kFolder.write("settings.json", text);
    check_store(kFolder, text, document.damaged);
    return 0;
}
