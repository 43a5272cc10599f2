// The document table of the configuration store: every parsed document of the process, in 128 slots.
//
// Nothing here locks; callers hold the load mutex of the store around every call.
#pragma once

#include <array>
#include <cstddef>
#include <ctime>

#include <libxml/tree.h>
#include <sys/types.h>

inline constexpr std::size_t XMLDOC_MAX = 128;

enum : int {
    XMLDOC_TYPE_NONE = 0,       // unused slot
    XMLDOC_TYPE_DEFAULT = 1,    // the cluster configuration
    XMLDOC_TYPE_PATHCONFIG = 2, // a configuration from a caller's path
    XMLDOC_TYPE_POLICY = 3,
};

struct ZYNXML_XMLDOC {
    char name[1024];  // policy type, or path of the file
    int type;         // XMLDOC_TYPE_*
    int current;      // 1 for the one document that queries consult first
    int count;        // outstanding loads
    time_t timestamp; // of the default configuration's file when it was parsed, seconds
    off_t filesize;   // of the same, bytes
    xmlDoc *doc;      // owned by the slot
};

extern std::array<ZYNXML_XMLDOC, XMLDOC_MAX> _xmldocs;

// Clears every slot; frees no document.
void internal_init();

// Makes a slot unused; the caller has freed its document.
void clear_xmldoc(ZYNXML_XMLDOC *slot);

// Find a slot in index order; null when there is none.
ZYNXML_XMLDOC *default_config();
ZYNXML_XMLDOC *current_config();
ZYNXML_XMLDOC *find_policy(const char *type);
ZYNXML_XMLDOC *find_nouse();

// Whether any slot is used.
bool check_load();
