// The message catalogue of a module, messages/MODULE.msg.LOCALE of the installation: entries of key and
// value.
#pragma once

#include "log_local.h"

#include <cstdio>

// A catalogue, read line by line. The file is the operator's: nothing in it is believed.
class LogCatalogue {
public:
    LogCatalogue() = default;
    ~LogCatalogue();
    LogCatalogue(const LogCatalogue &) = delete;
    LogCatalogue &operator=(const LogCatalogue &) = delete;

    // Opens the catalogue of the handle's module and goes to the first entry of an event. Returns LOG_OK,
    // LOG_ERR_CATALOGUE or LOG_ERR_EVENT.
    std::int32_t open(const LOGLIB_OBJ *plogobj, std::int32_t eid);

    // Goes to the next pair of the entry that has a value. A comment counts as one, whose key is nobody's.
    // False at the end of the entry, where the reading is over.
    bool next();
    // Whether the key of the pair begins with `name`, in letters of either case.
    bool key_is(const char *name) const;
    char *value() { return value_; }

private:
    bool open_file(const char *path);
    bool read_line();

    std::FILE *file_ = nullptr;
    char *value_ = nullptr;
    char line_[544] = ""; // longer lines are cut
};
