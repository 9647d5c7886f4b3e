#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace doctor {

/** How much a finding matters; the worst one decides the exit status. */
enum class Level : std::uint8_t {
    Good,    /**< as it must be */
    Note,    /**< worth knowing, and nothing to be done about it */
    Unseen,  /**< could not be looked at: nobody knows */
    Warning, /**< the device works, but not as well as it could */
    Bad,     /**< the device, or a part of what it is for, does not work */
};

/** What can be mended without a question: it takes nothing away from anybody and can be undone. */
enum class RemedyKind : std::uint8_t { None, UnmaskUnit, StartUnit, ReloadManager, RemoveFile };

struct Remedy
{
    RemedyKind kind = RemedyKind::None;
    std::string subject; /**< the unit or the file; empty for ReloadManager */

    bool operator==(const Remedy&) const = default;
};

/** One line of what was found. Texts may hold anything: they are made harmless where they are shown. */
struct Finding
{
    Level level = Level::Good;
    /** For programs: the group of checks and what was looked at, such as "units.hostapd.service". */
    std::string check;
    /** What is so, without a full stop. */
    std::string text;
    /** Why it matters; empty for what is good. */
    std::string why;
    /** The command or the file that mends it; empty for what is good. */
    std::string mend;
    Remedy remedy;
};

/** All that was found, in the order in which it was looked at. */
class Findings
{
public:
    void good(std::string check, std::string text)
    {
        add({Level::Good, std::move(check), std::move(text), "", "", {}});
    }
    void note(std::string check, std::string text, std::string why = "")
    {
        add({Level::Note, std::move(check), std::move(text), std::move(why), "", {}});
    }
    void unseen(std::string check, std::string text, std::string mend)
    {
        add({Level::Unseen, std::move(check), std::move(text), "", std::move(mend), {}});
    }
    void warning(std::string check, std::string text, std::string why, std::string mend, Remedy remedy = {})
    {
        add({Level::Warning, std::move(check), std::move(text), std::move(why), std::move(mend),
             std::move(remedy)});
    }
    void bad(std::string check, std::string text, std::string why, std::string mend, Remedy remedy = {})
    {
        add({Level::Bad, std::move(check), std::move(text), std::move(why), std::move(mend),
             std::move(remedy)});
    }

    void add(Finding finding) { all_.push_back(std::move(finding)); }

    const std::vector<Finding>& all() const { return all_; }
    std::size_t count(Level level) const;

    /** 0: works; 1: works, with warnings, or something could not be looked at; 2: does not work. */
    int exit_status() const;

private:
    std::vector<Finding> all_;
};

} // namespace doctor
