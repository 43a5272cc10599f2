// The files of the configuration store: where they lie, and their documents under reference counts.
//
// Nothing here locks; callers hold the load mutex of the store around every call, also while a failed
// parse sleeps. Codes are those of xmllib.h.
#pragma once

#include "xmlin.h"

#include <array>

inline constexpr std::size_t XML_PATH_SIZE = 1024;

// Filled by the first initialisation.
extern char _xml_installpath[XML_PATH_SIZE];
extern char _xml_confpath[XML_PATH_SIZE]; // the cluster configuration
extern char _xml_charset[128];            // empty until it has been read
// Directories of policies under the install directory, with one %s for "policy" or "policy.<charset>".
extern std::array<char[XML_PATH_SIZE], 6> _policypath;

// Forms the configuration path and the policy directories from _xml_installpath.
void form_paths();

// Writes the install directory into `buffer` of `size` bytes: the target of the library link up to its first
// "/lib", or the built-in one. Always returns 0.
int get_inspath(char *buffer, std::size_t size);

// Makes `directory` the install directory of this process, wherever the library link leads; null: the link
// again.
void set_inspath(const char *directory);

// Finds the file of a policy type and writes its path into `path` of XML_PATH_SIZE bytes. Returns 0, or -1
// with an empty path.
int get_policyfile(const char *type, char *path, const char *charset);

// Load a policy, or count one more use of it; give one use back.
int load_policy(const char *type, const char *charset);
int unload_policy(const char *type);

// Load the cluster configuration (null path) or a caller's file, and consult it first; *handle, where it is
// not null, receives the slot. Unload it again, the cluster configuration for a null handle.
int load_config(const char *path, ZYNXML_XMLDOC **handle);
int unload_config(ZYNXML_XMLDOC *handle);

// Parses the cluster configuration again when its file has another size or time; a failure keeps the
// document that is loaded.
int reload_config();

// Makes a configuration the one that queries consult first; null for the cluster configuration.
int set_current(ZYNXML_XMLDOC *handle);
