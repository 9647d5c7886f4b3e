#pragma once

#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "file_lock.hpp"
#include "schema.hpp"

namespace settingsd {

/**
 * The settings in effect, and the file that holds them. A setting without a value in the file has its
 * default. Every change is on the disk before it is in effect; one that cannot be stored does not happen.
 *
 * Where the path is a symbolic link, the file is what it leads to, and the link stays.
 */
class SettingsStore
{
public:
    SettingsStore(std::string path, Schema schema);

    /**
     * Takes the file for this process alone, and reads it; none at all is an empty one. What was found odd is
     * added to `findings`, as texts for the log. Returns 0, or a negative errno, with which every change is
     * refused until this is called again and returns 0:
     *
     * - A file that another process has taken is not read: -EBUSY.
     * - A file that cannot be read is left alone; the values in effect stay.
     * - A damaged file is first kept aside under a new name, then replaced by what could be read of it. Where
     *   it cannot be kept aside, it is left alone, so that nothing in it is lost; what could be read of it is
     *   in effect.
     */
    int load(std::vector<std::string>& findings);

    /** Whether a failure has left something to be tried again: load(), or settle(). */
    bool is_loaded() const { return sealed_ == 0; }
    bool is_settled() const { return settled_; }

    /**
     * Writes what is in effect once more, where a failure has left it open what the disk holds. Returns 0, or
     * a negative errno.
     */
    int settle();

    Schema schema() const { return schema_; }
    const std::string& path() const { return path_; }

    /** The value in effect. */
    Value get(const Setting& setting) const;

    /**
     * Sets a value, which must be of the setting's type and allowed. Returns 0 with `changed` telling whether
     * it differs from the one before (if not, nothing is written), or a negative errno with everything as
     * before.
     */
    int set(const Setting& setting, const Value& value, bool& changed);

    /**
     * Gives all these settings their defaults back, all or none. Returns 0 with those in `changed` whose
     * value is another one now, or a negative errno with everything as before.
     */
    int reset(std::span<const Setting* const> settings, std::vector<const Setting*>& changed);

private:
    int open(std::vector<std::string>& findings);
    int read(std::string& text) const;
    int put_damaged_aside(std::vector<std::string>& findings);
    int store(nlohmann::json root);
    int save(const nlohmann::json& root);

    const std::string path_;
    const Schema schema_;
    std::string file_; ///< what the path leads to
    FileLock lock_;
    nlohmann::json root_ = nlohmann::json::object();
    int sealed_ = 0;      ///< the negative errno that every change is refused with
    bool settled_ = true; ///< the disk is known to hold what is in effect
};

} // namespace settingsd
