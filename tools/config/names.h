// zynconfig names: what the shells offer to complete a word with, from files of this host alone.
#pragma once

#include "store.h"

#include <optional>
#include <string>

namespace config {

// The names of a kind, one a line; null for a kind that there is not. Names that a command line could not
// take as one plain word are left out.
std::optional<std::string> list_names(const Store &store, const std::string &kind);

// The kinds, parted by commas.
std::string name_kinds();

} // namespace config
