// The statuses of the data transfer protocol as words for people.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace rehearsal {

// Short name of a TRANS_RES_STAT_* value; nothing for any other. Any thread.
std::optional<std::string_view> find_status_name(std::int32_t status);
// The same; "not a known status" for any other.
std::string_view status_name(std::int32_t status);

} // namespace rehearsal
