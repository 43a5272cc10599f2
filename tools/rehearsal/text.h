// Texts of others, for terminals and files.
#pragma once

#include <string>
#include <string_view>

namespace rehearsal {

// Whether a character is a control character of ASCII.
bool is_control(char c);

// The text as a terminal may be given it, on one line: newline and tab are written out, other control
// characters (C1, too) and bytes that are no UTF-8 become "?".
std::string printable(std::string_view text);

} // namespace rehearsal
