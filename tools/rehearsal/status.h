// The statuses of the data transfer protocol as words for people.
#pragma once

#include <cstdint>
#include <string_view>

namespace rehearsal {

// Short name of a TRANS_RES_STAT_* value; "not a known status" for any other. Any thread.
std::string_view status_name(std::int32_t status);

} // namespace rehearsal
