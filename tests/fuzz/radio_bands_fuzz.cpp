#include "radio_bands.hpp"

#include <algorithm>
#include <vector>

#include "fuzz_input.hpp"

// Attributes of an nl80211 message, of any bytes, at an odd address and at an even one.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using KorrinInfo::detail::attributes_offer_5ghz;

    const auto* bytes = reinterpret_cast<const std::byte*>(data);
    const std::vector<std::byte> exact(bytes, bytes + size);
    const bool offered = attributes_offer_5ghz(exact);

    std::vector<std::byte> shifted(size + 1);
    std::copy(exact.begin(), exact.end(), shifted.begin() + 1);
    fuzz::require(attributes_offer_5ghz(std::span(shifted).subspan(1)) == offered,
                  "the address does not matter");
    fuzz::require(!offered || size >= 8, "a band takes two headers: the list and the band");
    fuzz::require(!attributes_offer_5ghz(std::span(exact).first(0)), "nothing offers nothing");
    return 0;
}
