// The configuration store: policy files and the cluster configuration, read by path.
//
// A path is a sequence of element names from "/root"; a step name@value selects an element whose
// first attribute has that value.
#pragma once

#include <cstdint>

#include <sys/times.h>

// Result codes of every operation.
enum : int {
    XMLLIB_OK = 0,
    XMLLIB_ERR_NOTINIT = 1,      // library not initialised
    XMLLIB_ERR_NOTLOAD = 2,      // no document loaded
    XMLLIB_ERR_NOSIZE = 3,       // buffer too small; the size needed has been stored
    XMLLIB_ERR_NOTEXIST = 4,     // the key or the policy file does not exist
    XMLLIB_ERR_NOCONTENTS = 5,   // the element exists but holds no text
    XMLLIB_ERR_INVALIDPATH = 6,  // invalid path, or the configuration file could not be parsed
    XMLLIB_ERR_DOCUMENT = 7,     // a file parsed to an empty document
    XMLLIB_ERR_NOHANDLE = 8,     // null configuration handle
    XMLLIB_ERR_INVALIDVALUE = 9, // the text is not a valid number
    XMLLIB_ERR_INVALIDARG = 10,  // invalid argument or value type, or the table is full
    XMLLIB_ERR_TOOLONG = 11,     // a step or an attribute value is too long
};

// What xmllib_get_value stores.
enum : int {
    XMLLIB_TYPE_STRING = 0, // NUL-terminated text
    XMLLIB_TYPE_INT = 1,    // a 32-bit signed integer
};

// Starts the store for a module type, or counts one more user. Every call is matched by xmllib_term.
int xmllib_init(const char *modtype);
// Gives one use back; the last one unloads every document.
int xmllib_term();

// Loads, counts or unloads the policy of a type, such as "all" or "rexec".
int xmllib_load_policy(const char *type);
int xmllib_unload_policy(const char *type);
// Loads, counts or unloads the cluster configuration.
int xmllib_load_config();
int xmllib_unload_config();
// Loads the configuration file at `path` and consults it first; *handle receives its handle.
int xmllib_load_pathconfig(const char *path, void **handle);
int xmllib_unload_pathconfig(void *handle);

// Reads one value. `*size` is the size of `buffer` in bytes (4 for an integer) and receives the
// size stored, or the size needed when XMLLIB_ERR_NOSIZE is returned. The buffer is the caller's.
int xmllib_get_value(const char *path, int type, void *buffer, int *size);

// Elapsed clock ticks since an arbitrary point, as times(2) returns them, with the range that the
// system library takes for an error mended; the argument is ignored; 0 when the clock cannot be read. Needs
// no initialisation, never blocks, and is no cancellation point while it writes no log of its own.
clock_t xmllib_times(struct tms *ignored = nullptr);
