// Parsing of the store's files. What is no small regular file of well-formed XML is refused.
#pragma once

#include <memory>

#include <libxml/tree.h>

struct FreeDoc {
    void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
using Document = std::unique_ptr<xmlDoc, FreeDoc>;

// Parses a file; with `repeat` up to three times, a second apart, for one that is being rewritten at this
// moment. Null when it cannot be parsed.
Document parse_file(const char *file, bool repeat);

// What libxml2 has to say goes to the store's trace, from whatever thread it parses in.
void err_handler(void *context, const char *format, ...) __attribute__((format(printf, 2, 3)));
