// The store of an installation, loaded for each key as the module that reads it does.
#pragma once

#include "keys.h"
#include "look.h"

#include <optional>
#include <string>
#include <vector>

namespace config {

// A value as the store gives it.
struct Reading {
    int text_code = 0; // of xmllib.h
    std::string text;  // blanks around it removed
    int number_code = 0;
    std::int32_t number = 0;
    bool comment = false;   // a comment in front of the value is read in its place
    bool in_pieces = false; // of which the first is read
};

// Reads an element that a path leads to, with the conversions of the store.
Reading read_value(const std::string &path, const xmlNode *element);

// What answers a path.
struct Found {
    std::string file;
    std::string source; // the same in words
    Place place;
    Reading reading;
};

struct Answered {
    std::optional<Found> found;
    std::string reason;      // why nothing was looked for: the module runs without the store; empty otherwise
    bool standalone = false; // that module is the command
};

class Store {
public:
    static constexpr std::size_t paths_max = 1000; // each is looked up among all of them

    // A directory to look at, or null for where the command looks. Under a Watch that lives longer.
    explicit Store(const char *directory);
    ~Store();
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    const std::string &directory() const { return directory_; }
    std::string configuration() const { return directory_ + "/etc/zyn.conf"; }
    // The file that the policy of a name is loaded from; empty when there is none.
    std::string policy_file(const std::string &name) const;
    // Why the command runs standalone; empty when it does not.
    const std::string &standalone_reason();

    // The path is one of the key. Without a key it is looked for in all policies.
    Answered answer(const Key *key, const std::string &path);

    // The paths that a pattern stands for in the files that its module reads, the first paths_max of them;
    // the path of any other key.
    std::vector<std::string> paths_of(const Key &key);

private:
    bool load(const std::vector<std::string> &policies);
    void unload();
    void read_charset_answer();
    std::string find_standalone_reason();
    std::string reason_without_store(const Key &key);
    std::optional<Found> look_up(const std::string &path) const;

    std::string directory_;
    int start_code_ = 0;  // of xmllib_init
    int config_code_ = 0; // of the cluster configuration
    std::optional<Found> charset_;
    std::vector<std::string> loaded_; // beyond what the store keeps
    std::optional<std::string> standalone_reason_;
    std::string missing_; // the policy that could not be loaded with them
};

} // namespace config
