#include "support/utf8.hpp"

#include <cstdlib>

#include "fuzz_input.hpp"
#include "message_builder.hpp"

// Any bytes become a text that sd-bus sends and reads; a good text stays as it is.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const std::string text = utf8_text(bytes);

    fuzz::require(text.size() <= 3 * bytes.size(), "no byte becomes more than one replacement character");
    fuzz::require(text.find('\0') == std::string::npos, "there is no NUL");
    fuzz::require(utf8_text(text) == text, "what it made it leaves alone");
    fuzz::require(fuzz::sd_bus_takes(text), "sd-bus takes the text");
    fuzz::require(is_bus_text(bytes) == (text == bytes), "what is no text is told");
    if (bytes.find('\0') == std::string_view::npos && fuzz::sd_bus_takes(std::string(bytes))) {
        fuzz::require(text == bytes, "a text that sd-bus takes comes back unchanged");
    }
    // Every ASCII character survives, in order.
    const auto asciiOf = [](std::string_view from) {
        std::string kept;
        for (const char character : from) {
            if (character > 0) {
                kept += character;
            }
        }
        return kept;
    };
    fuzz::require(asciiOf(text) == asciiOf(bytes), "ASCII characters are kept");
    return 0;
}
