#include "korrin-info/korrin_info.hpp"

#include "identity.hpp"
#include "radio_bands.hpp"

namespace KorrinInfo {

namespace {

/** Callers are promised that nothing throws: out of memory, the answer is the one for "unknown". */
template <typename Answer, typename Ask>
Answer ask_quietly(Ask ask)
{
    try {
        return ask();
    } catch (...) {
        return Answer{};
    }
}

} // namespace

std::string ThisModel::DisplayName()
{
    return ask_quietly<std::string>([] { return detail::display_name(""); });
}

std::string ThisKorrin::SerialNumber()
{
    return ask_quietly<std::string>([] { return detail::serial_number(""); });
}

int ThisKorrin::RadioType()
{
    return ask_quietly<int>([] { return detail::radio_type("", detail::radio_offers_5ghz); });
}

} // namespace KorrinInfo
