// Parsing of the store's files. What is no small regular file of well-formed XML is refused.
#pragma once

#include <memory>

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sys/types.h>

inline constexpr off_t XML_FILE_SIZE_MAX = off_t{4}
                                           << 20; // bytes; a parsed document takes up to 35 times its file

struct FreeDoc {
    void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
using Document = std::unique_ptr<xmlDoc, FreeDoc>;

// Parses a file; with `repeat` up to three times, a second apart, for one that is being rewritten at this
// moment. Null when it cannot be parsed.
Document parse_file(const char *file, bool repeat);

// For a thread that looks at files rather than works with them: `watch` is told of each element it parses
// from now on, with the parser standing behind the start tag, and no file is tried a second time. Null ends
// it.
using ElementWatch = void (*)(const xmlParserCtxt *parser, const xmlNode *element);
void watch_elements(ElementWatch watch);

// What libxml2 has to say goes to the store's trace, from whatever thread it parses in.
void err_handler(void *context, const char *format, ...) __attribute__((format(printf, 2, 3)));
