// The configuration store as the log library uses it: started, loaded and read for the length of a scope.
#pragma once

#include "xmllib.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

inline constexpr std::size_t LOG_ENUM_LEN = 256; // bytes of each name that xmllib_enum_value stores

// The store with the cluster configuration.
class LogStore {
public:
    LogStore()
        : started_(xmllib_init("log") == XMLLIB_OK), loaded_(started_ && xmllib_load_config() == XMLLIB_OK) {}
    ~LogStore() {
        if (loaded_)
            xmllib_unload_config();
        xmllib_term(); // a failed start counts, too
    }
    LogStore(const LogStore &) = delete;
    LogStore &operator=(const LogStore &) = delete;
    bool started() const { return started_; }
    bool loaded() const { return loaded_; }

private:
    const bool started_;
    const bool loaded_; // policies alone will do
};

class LogPolicy {
public:
    explicit LogPolicy(const char *type) : type_(type), loaded_(xmllib_load_policy(type) == XMLLIB_OK) {}
    ~LogPolicy() {
        if (loaded_)
            xmllib_unload_policy(type_);
    }
    LogPolicy(const LogPolicy &) = delete;
    LogPolicy &operator=(const LogPolicy &) = delete;
    bool loaded() const { return loaded_; }

private:
    const char *type_;
    const bool loaded_;
};

inline std::int32_t log_read_number(const char *key, std::int32_t otherwise) {
    std::int32_t value = 0;
    int size = sizeof(value);
    return xmllib_get_value(key, XMLLIB_TYPE_INT, &value, &size) == XMLLIB_OK ? value : otherwise;
}

// False where the key is missing, or longer than the field, which is left alone then.
template <std::size_t N>
bool log_read_text(const char *key, char (&field)[N]) {
    char text[N];
    int size = sizeof(text);
    if (xmllib_get_value(key, XMLLIB_TYPE_STRING, text, &size) != XMLLIB_OK)
        return false;
    std::memcpy(field, text, static_cast<std::size_t>(size));
    return true;
}
