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
    XMLLIB_ERR_INVALIDPATH = 6,  // invalid path, or a configuration could not be parsed or examined
    XMLLIB_ERR_DOCUMENT = 7,     // an empty document, or a policy that could not be parsed
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

// Starts the store for a module type such as "rexec", or counts one more user. The first call finds the
// installation, loads the policies "all" and "cluster", and opens the store's own trace where the
// configuration asks for it. Returns 0, XMLLIB_ERR_INVALIDARG for a null type, or the code of a policy that
// could not be loaded; every call but one with a null type is matched by xmllib_term, a failed one too.
int xmllib_init(const char *modtype);
// Gives one use back; the last one unloads every document. Returns 0 or XMLLIB_ERR_NOTINIT.
int xmllib_term();
// Kept for its callers: does nothing, whatever it is given, and returns 0.
int xmllib_setlog(...);

// Each operation below returns 0, XMLLIB_ERR_NOTINIT before xmllib_init, or the codes named with it. Any
// thread may call them; one at a time is served.

// Load or count, and unload, the policy of a type, such as "all" or "rexec". Loading: XMLLIB_ERR_NOTEXIST
// without a file, XMLLIB_ERR_DOCUMENT when it cannot be parsed (after three attempts, a second apart),
// XMLLIB_ERR_INVALIDARG for a null type or a full table (128 documents). Unloading: XMLLIB_ERR_NOTLOAD.
int xmllib_load_policy(const char *type);
int xmllib_unload_policy(const char *type);

// Load or count, and unload, the cluster configuration; loaded, it is consulted before the policies.
// XMLLIB_ERR_INVALIDPATH when it cannot be parsed (after three attempts, a second apart) or examined,
// XMLLIB_ERR_DOCUMENT when it is empty, XMLLIB_ERR_INVALIDARG for a full table; XMLLIB_ERR_NOTLOAD.
int xmllib_load_config();
int xmllib_unload_config();
// Parses it again when its file has another size or modification time, or loads it. A failure, with the
// codes of loading, leaves the document as it was.
int xmllib_reload_config();

// Load the configuration file at `path` and consult it first; *handle, unless null, receives its handle,
// which is the store's. Every call loads anew. Codes as for the cluster configuration; XMLLIB_ERR_INVALIDPATH
// for a null path, XMLLIB_ERR_NOHANDLE for a null handle. A handle ends with its unloading.
int xmllib_load_pathconfig(const char *path, void **handle);
int xmllib_unload_pathconfig(void *handle);
// Consults a loaded configuration first; null for the cluster configuration, or XMLLIB_ERR_NOTLOAD.
int xmllib_change_config(void *handle);

// Reads one value: from the current configuration, or else from the first loaded policy that has it. An
// empty element is "" or 0.
//   type    XMLLIB_TYPE_STRING, at most 1023 bytes of text, or XMLLIB_TYPE_INT, strtol in base 0
//   buffer  the caller's; null asks for the size
//   size    bytes of the buffer (4 for an integer); receives the bytes stored or needed
// Returns XMLLIB_ERR_NOSIZE with the size needed, XMLLIB_ERR_NOTEXIST, XMLLIB_ERR_NOCONTENTS for an element
// that starts with an element, XMLLIB_ERR_INVALIDPATH, XMLLIB_ERR_INVALIDVALUE for a text that is no number,
// XMLLIB_ERR_TOOLONG, XMLLIB_ERR_NOTLOAD, or XMLLIB_ERR_INVALIDARG.
int xmllib_get_value(const char *path, int type, void *buffer, int *size);

// The same for one server: .../server@NAME/parameters/... in place of .../parameters/... where that exists.
// XMLLIB_ERR_INVALIDARG for a path without "parameters"; without a server name the path is read as it is.
int xmllib_get_srvsep_value(const char *server, const char *path, int type, void *buffer, int *size);

// Lists the first attributes of the elements that a path leads to, from the current configuration only.
//   buffer  receives one NUL-terminated text of at most 255 bytes per 256 bytes; null asks for the size
//   size    bytes of the buffer; receives 256 times the number of values
// Codes as for xmllib_get_value; with XMLLIB_ERR_NOSIZE the values that fit have been stored.
int xmllib_enum_value(const char *path, char *buffer, int *size);

// Writes the install directory into `buffer` of `size` bytes, cut to fit and NUL-terminated, the rest zero.
// Needs no initialisation. Returns 0.
int xmllib_get_installpath(char *buffer, int size);

// Elapsed clock ticks since an arbitrary point, as times(2) returns them, with the range that the
// system library takes for an error mended; the argument is ignored; 0 when the clock cannot be read. Needs
// no initialisation, never blocks, and is no cancellation point while it writes no log of its own.
clock_t xmllib_times(struct tms *ignored = nullptr);
