// The characters of a text.
#include "text.h"

#include <algorithm>
#include <array>

namespace rehearsal {
namespace {

// How characters of more than one byte begin in UTF-8: what follows the second byte is 0x80 to 0xbf.
struct Lead {
    unsigned first, last; // first byte
    unsigned low, high;   // second byte; keeps out overlong forms, surrogates and what is above U+10FFFF
    std::size_t length;
};
constexpr auto leads = std::to_array<Lead>({
    {0xc2, 0xdf, 0x80, 0xbf, 2},
    {0xe0, 0xe0, 0xa0, 0xbf, 3},
    {0xe1, 0xec, 0x80, 0xbf, 3},
    {0xed, 0xed, 0x80, 0x9f, 3},
    {0xee, 0xef, 0x80, 0xbf, 3},
    {0xf0, 0xf0, 0x90, 0xbf, 4},
    {0xf1, 0xf3, 0x80, 0xbf, 4},
    {0xf4, 0xf4, 0x80, 0x8f, 4},
});

// Bytes of the character at the beginning of a text that is not empty; 0 when there is none.
std::size_t character_length(std::string_view text) {
    const auto within = [&](std::size_t at, unsigned low, unsigned high) {
        return at < text.size() && static_cast<unsigned char>(text[at]) >= low &&
               static_cast<unsigned char>(text[at]) <= high;
    };
    if (within(0, 0, 0x7f))
        return 1;
    const auto lead = std::ranges::find_if(leads, [&](const Lead &one) {
        return within(0, one.first, one.last) && within(1, one.low, one.high);
    });
    if (lead == leads.end())
        return 0;
    for (std::size_t at = 2; at < lead->length; ++at)
        if (!within(at, 0x80, 0xbf))
            return 0;
    return lead->length;
}

bool is_c1(std::string_view character) {
    return character.size() == 2 && character[0] == '\xc2' && static_cast<unsigned char>(character[1]) < 0xa0;
}

} // namespace

bool is_control(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

std::string printable(std::string_view text) {
    std::string line;
    while (!text.empty()) {
        const std::size_t length = character_length(text);
        const std::string_view character = text.substr(0, std::max<std::size_t>(length, 1));
        if (character == "\n" || character == "\t")
            line += character == "\n" ? "\\n" : "\\t";
        else if (length == 0 || is_control(character[0]) || is_c1(character))
            line += '?';
        else
            line += character;
        text.remove_prefix(character.size());
    }
    return line;
}

} // namespace rehearsal
