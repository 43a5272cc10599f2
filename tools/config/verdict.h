// What a module makes of a value.
#pragma once

#include "keys.h"
#include "store.h"

#include <string>

namespace config {

enum class Severity { none, info, warning, error };

struct Verdict {
    std::string taken; // what the module works with, in words where it is no value
    std::string note;  // why that is not the value itself, or what is odd about it; empty where nothing is
    Severity severity = Severity::none;
};

// Judges a value that stands in a file.
Verdict judge(const Key &key, const Reading &reading);

// What the module works with where no file has a value.
Verdict judge_absence(const Key &key, const Answered &answered);

} // namespace config
