// zynconfig get, list and keys.
#pragma once

#include "store.h"

#include <optional>
#include <string>

namespace config {

// What is known of one path, in lines; or, with `bare`, what the module works with alone. `taken` tells
// whether it works with anything. Null for a path that the store refuses.
struct Shown {
    std::string text;
    bool taken;
};
std::optional<Shown> show_path(Store &store, const std::string &path, bool bare);

// A line for each key, of one module or policy or, with an empty name, of all; null for a name that is
// neither.
std::optional<std::string> list_keys(Store &store, const std::string &module);

// The table of keys, its columns parted by tabs.
std::string show_table();

// What list_keys takes, parted by commas.
std::string module_names();

} // namespace config
