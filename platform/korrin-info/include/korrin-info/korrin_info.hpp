#pragma once

#include <string>

/**
 * Identity of the device this program runs on.
 *
 * Every call reads its source anew, so nothing here is cached and nothing can go stale. No call throws,
 * writes to the log or prints.
 */
namespace KorrinInfo {

class ThisModel
{
public:
    /** The model's display name; an empty string when nothing on the machine tells it. */
    static std::string DisplayName();
};

class ThisKorrin
{
public:
    /** The unit's serial number; an empty string when nothing on the machine tells it. */
    static std::string SerialNumber();

    /** The radio type: 0 for a 2.4 GHz radio, 1 for one that is capable of 5 GHz; other numbers as
     * configured. */
    static int RadioType();
};

} // namespace KorrinInfo
