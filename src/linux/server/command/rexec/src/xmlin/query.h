// Queries by path over the document table: one value, or the attribute values of a list.
//
// A path is a sequence of steps, each an element name, or name@value for the element whose first
// attribute has that value. Nothing here locks; see xmlin.h.
#pragma once

#include "xmlin.h"

// One step of a path.
struct ZYNXML_ELEMENT {
    char name[32];  // without a NUL where it fills its width
    char attr[256]; // value that the first attribute must have; empty for any
};

// How find_path walks.
enum class PathMode {
    value,  // down every step, attributes compared
    policy, // down every step, attributes ignored
    list,   // down every step but the last, attributes compared
};

// Bits of find_element's flags.
inline constexpr unsigned FIND_DESCEND = 1; // give back the first child of the match, not the match itself
inline constexpr unsigned FIND_ATTR = 2;    // compare attributes

// Splits a path into an array of records, calloc'ed, for the caller to free. Returns 0 with *records
// and *count set, XMLLIB_ERR_TOOLONG for a step above its limit, or -1 for a null argument, a path
// whose first "/" is not its first character, or a failed allocation; *records is null then, as it is with
// a *count of 0 for a path without a "/".
int separate_path(const char *path, ZYNXML_ELEMENT **records, int *count);

// Finds the element of a step among `start` and its siblings. *matched tells whether there was one: a
// match without a child gives back null when descending.
xmlNode *find_element(xmlNode *start, const ZYNXML_ELEMENT *record, unsigned flags, bool *matched);

// Walks all records from the root of a document; *matched is that of the last step. *element, unless null,
// receives the element that matched it.
xmlNode *find_path(const ZYNXML_XMLDOC *slot, PathMode mode, const ZYNXML_ELEMENT *records, int count,
                   bool *matched, const xmlNode **element = nullptr);

// Collects the first attributes of `first` and of its siblings of the same name into 256-byte slots of
// `buffer`. *size is that of the buffer and receives the bytes that all of them need. Returns 0,
// XMLLIB_ERR_NOSIZE, XMLLIB_ERR_NOTEXIST when there is none, or XMLLIB_ERR_INVALIDVALUE.
int fill_attr(xmlNode *first, const ZYNXML_ELEMENT *record, char *buffer, int *size);

// Converts a text into `buffer` of *size bytes; *size receives the bytes stored or needed. `type` is
// XMLLIB_TYPE_*. Returns 0, XMLLIB_ERR_NOSIZE, XMLLIB_ERR_INVALIDVALUE or XMLLIB_ERR_INVALIDARG.
int make_value(const char *text, int type, void *buffer, int *size);

// Removes blanks (0x20 only) from both ends, in place. Returns 0, or -1 for null.
int cut_space(char *text);

// What answers a path: the first hit in the current configuration and then in the policies.
struct Answer {
    const ZYNXML_XMLDOC *slot;
    const xmlNode *element;
};

// Finds the answer. Returns 0, or XMLLIB_ERR_NOTLOAD, XMLLIB_ERR_INVALIDPATH, XMLLIB_ERR_TOOLONG or
// XMLLIB_ERR_NOTEXIST.
int find_answer(const char *path, Answer *answer);

// Reads the value of an element, however it was found, with the codes and the sizes of get_value.
int read_element(const char *path, const xmlNode *element, int type, void *buffer, int *size);

// The two queries, with the codes of xmllib.h. A null buffer asks for the size.
int get_value(const char *path, int type, void *buffer, int *size);
int enum_value(const char *path, char *buffer, int *size);
