// Every key that a module of this version reads.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace config {

enum class Kind { text, integer };

// What a module makes of a value that it can read and that is outside the range.
enum class Otherwise {
    as_is,        // it works with it
    nearer,       // the nearer end of the range
    standard,     // the default
    zero,         // 0
    less_is_zero, // the same, in other words: of what can be repeated
    log_size,     // the size in the policy "log"
    unconnected,  // it connects to nothing
};

struct Range {
    enum class Form {
        any,
        flag,   // one value means something, all others the opposite
        from,   // low and up
        span,   // low to high
        levels, // of a log; with a low of -1 also 0 and -1
        modes,  // permission bits
        bytes,  // length of a text, low to high
        share,  // a text that is a number from 0 to 1, of at most high bytes
    };
    Form form;
    std::int32_t low;
    std::int32_t high;
    const char *zero; // what 0 stands for where it is outside; null where it stands for nothing
};

struct Key {
    const char
        *path; // with %s for any name and %d for any number, name@value for an element's first attribute
    Kind kind;
    Range range;
    const char *standard; // built-in default; null for none
    const char *policy;   // where its default stands
    const char *modules;  // who reads it, parted by commas
    Otherwise otherwise;
    const char *only = nullptr; // the one name that %s stands for; null for any

    bool is_pattern() const { return std::string_view(path).find('%') != std::string_view::npos; }
    bool is_read_by(std::string_view module) const;
};

std::span<const Key> all_keys();

// The policies that modules load, in the order of the table's need for them.
std::span<const char *const> all_policies();

// The key of a path, which may be one of a pattern; null when no module reads it.
const Key *find_key(std::string_view path);

// Whether a number is one that the key is meant for.
bool is_in_range(const Key &key, std::int32_t number);

// The range and what becomes of others, as the table of doc/configuration.md has them.
std::string describe_range(const Key &key);

// A path's steps behind the leading "/".
std::vector<std::string_view> split_steps(std::string_view path);

// Whether a name, or an attribute's value, is one that a piece of a pattern stands for.
bool matches_piece(std::string_view pattern, std::string_view text);

// Whether an element's name is one of a step of the key's path, of which `pattern` is the part in front of
// "@".
bool matches_name(const Key &key, std::string_view pattern, std::string_view name);

} // namespace config
