#pragma once

#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "schema.hpp"

namespace settingsd {

/**
 * The settings in effect, and the file that holds them. A setting without a value in the file has its
 * default. Every change is on the disk before it is in effect; one that cannot be stored does not happen.
 */
class SettingsStore
{
public:
    SettingsStore(std::string path, Schema schema);

    /**
     * Reads the file; none at all is an empty one. Returns what was found odd, as texts for the log. A
     * damaged file is first kept aside under a new name, then replaced by what could be read of it. Where it
     * cannot be kept aside, it is left alone and every later change is refused, so that nothing in it is
     * lost.
     */
    std::vector<std::string> load();

    Schema schema() const { return schema_; }

    /** The value in effect. */
    Value get(const Setting& setting) const;

    /**
     * Sets a value, which must be of the setting's type. Returns 0 with `changed` telling whether it differs
     * from the one before (if not, nothing is written), or a negative errno with everything as before.
     */
    int set(const Setting& setting, const Value& value, bool& changed);

    /**
     * Gives all these settings their defaults back, all or none. Returns 0 with those in `changed` whose
     * value is another one now, or a negative errno with everything as before.
     */
    int reset(std::span<const Setting* const> settings, std::vector<const Setting*>& changed);

private:
    int save(const nlohmann::json& root);

    const std::string path_;
    const Schema schema_;
    nlohmann::json root_ = nlohmann::json::object();
    int sealed_ = 0; ///< the negative errno that every change is refused with
};

} // namespace settingsd
