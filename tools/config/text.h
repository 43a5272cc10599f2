// Texts of files as they may be shown on a terminal.
#pragma once

#include <string>
#include <string_view>

namespace config {

// The text with "?" for what is no UTF-8, controls something or would turn its neighbours around; what is
// longer than `limit` bytes is cut and ends in "...".
std::string printable(std::string_view text, std::size_t limit = 200);

// The same in quotation marks.
std::string quoted(std::string_view text);

} // namespace config
