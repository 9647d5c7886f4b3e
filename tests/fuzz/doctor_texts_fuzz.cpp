#include "doctor/hostapd_template.hpp"
#include "doctor/iw_text.hpp"
#include "doctor/redact.hpp"

#include "fuzz_input.hpp"
#include "radio/hostapd_config.hpp"
#include "support/captured_log.hpp"
#include "support/temp_folder.hpp"

// Texts of any bytes as the doctor reads them: hostapd's template as the daemon reads it, what `iw` prints,
// and configurations out of which no secret may come.

namespace {

constexpr const char* kSecret = "Fuzz3dS3cret";

/** The daemon's own reader, of a file. */
HostapdConfig read_by_daemon(const std::string& text)
{
    static const testing_support::TempFolder kFolder;
    kFolder.write("template", text);
    HostapdConfig config;
    fuzz::require(hostapd_read_conf(kFolder.file("template"), config) == 1, "the file can be read");
    return config;
}

void check_template(const std::string& text)
{
    const doctor::HostapdTemplate read(text);
    HostapdConfig entries;
    std::string completed;
    std::size_t line = 0;
    for (const auto& [key, entry] : read.entries()) {
        entries[key] = entry.value;
        completed += key + "=" + entry.value + "\n";
        fuzz::require(read.key_at(++line) == key, "each key is found by its line");
    }
    fuzz::require(read.key_at(line + 1).empty(), "and there are no others");
    fuzz::require(entries == read_by_daemon(text), "the daemon reads the same");
    fuzz::require(read.completed() == completed, "and is given the same");
}

void check_redacted(const std::string& text)
{
    if (text.find(kSecret) != std::string::npos) {
        return;
    }
    const std::string around =
        text + "\nwpa_passphrase=" + kSecret + "\n" + text + "\n\t#psk=\"" + kSecret + "\"\n" + text;
    fuzz::require(doctor::redacted(around).find(kSecret) == std::string::npos,
                  "a secret goes, whatever is around it");
    fuzz::require(doctor::redacted_output(around).find(kSecret) == std::string::npos, "from an output, too");
    doctor::Secrets secrets = doctor::Secrets::of_configuration(text);
    secrets.add(kSecret);
    fuzz::require(secrets.removed_from(text + kSecret + text).find(kSecret) == std::string::npos,
                  "and without its name");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    testing_support::captured_log().clear();
    const std::string text(reinterpret_cast<const char*>(data), size);
    check_template(text);
    check_redacted(text);
    for (const doctor::Radio& radio : doctor::radios_in(text)) {
        fuzz::require(radio.usableLow >= 0 && radio.usableHigh >= 0, "channels are counted");
    }
    fuzz::require(doctor::iw_value(text, "type").size() <= size, "a value is of the text");
    fuzz::require(doctor::regulatory_country(text).size() <= size, "and so is a country");
    doctor::wireless_interfaces(text);
    return 0;
}
