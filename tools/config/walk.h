// The elements of a file against the known keys.
#pragma once

#include "look.h"
#include "verdict.h"

#include <functional>
#include <string>

namespace config {

struct FileKind {
    const char *policy; // null for a cluster configuration
};

using Tell = std::function<void(Place, Severity, const std::string &)>;

// Tells everything that is odd in a document, in the order of its elements.
void walk_document(const xmlDoc *document, FileKind kind, const Tell &tell);

} // namespace config
