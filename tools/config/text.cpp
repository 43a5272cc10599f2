// The characters of a text.
#include "text.h"

#include <algorithm>
#include <array>

#include <libxml/xmlstring.h>

namespace config {
namespace {

struct Block {
    int first;
    int last;
};
// Control characters, and those that set the direction of what follows or break the line.
constexpr auto unprintable = std::to_array<Block>({{0x00, 0x1f},
                                                   {0x7f, 0x9f},
                                                   {0x200b, 0x200f},
                                                   {0x2028, 0x202e},
                                                   {0x2060, 0x206f},
                                                   {0xfeff, 0xfeff},
                                                   {0xe0000, 0xe007f}});

// By bytes in UTF-8. What is written in more bytes than it needs is no UTF-8.
constexpr auto smallest = std::to_array<int>({0, 0, 0x80, 0x800, 0x10000});

bool is_printable(int character) {
    return character >= 0 &&
           std::none_of(unprintable.begin(), unprintable.end(), [character](const Block &block) {
               return character >= block.first && character <= block.last;
           });
}

} // namespace

std::string printable(std::string_view text, std::size_t limit) {
    const std::string whole(text); // with the NUL that ends the decoder's look ahead
    std::string shown;
    for (std::size_t at = 0; at < whole.size();) {
        int length = static_cast<int>(std::min<std::size_t>(whole.size() - at, 4));
        const int character =
            xmlGetUTF8Char(reinterpret_cast<const unsigned char *>(whole.data() + at), &length);
        const std::size_t bytes = character >= 0 ? static_cast<std::size_t>(length) : 1;
        const bool shortest = character >= smallest[bytes];
        if (shown.size() + bytes > limit)
            return shown + "...";
        shown += shortest && is_printable(character) ? whole.substr(at, bytes) : "?";
        at += bytes;
    }
    return shown;
}

std::string quoted(std::string_view text) {
    return '"' + printable(text) + '"';
}

} // namespace config
