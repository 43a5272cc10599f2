// A record of the log library, as the event daemon reads it.
#pragma once

#include "eventc.h"

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace rehearsal {

// Checks a record and takes it over with every integer in the order of this host. Returns what is wrong with
// it, in words; an empty text when nothing is: then every text that its kind has ends within its field, and
// module type and performance log name are safe as the name of a file (the latter may be empty).
std::string read_record(std::span<const std::byte> bytes, EVENTC_LOG_INFO &record);

// What is wrong with a module type, in words; an empty text when nothing is.
std::string judge_type(std::string_view type);

} // namespace rehearsal
