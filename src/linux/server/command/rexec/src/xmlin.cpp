// The document table and its slot finders.
#include "xmlin.h"

#include "trace.h"

#include <algorithm>
#include <cstring>

std::array<ZYNXML_XMLDOC, XMLDOC_MAX> _xmldocs;

namespace {

template <typename Wanted>
ZYNXML_XMLDOC *find_first(Wanted wanted) {
    const auto found = std::find_if(_xmldocs.begin(), _xmldocs.end(), wanted);
    ZYNXML_XMLDOC *slot = found == _xmldocs.end() ? nullptr : &*found;
    XMLIN_TRACE(8, "%s", slot != nullptr ? "discovery!" : "undiscovery.");
    return slot;
}

} // namespace

void clear_xmldoc(ZYNXML_XMLDOC *slot) {
    XMLIN_ENTER();
    *slot = {};
    XMLIN_EXIT();
}

void internal_init() {
    XMLIN_ENTER();
    for (ZYNXML_XMLDOC &slot : _xmldocs)
        clear_xmldoc(&slot);
    XMLIN_EXIT();
}

ZYNXML_XMLDOC *default_config() {
    XMLIN_ENTER();
    XMLIN_TRACE(8, "search default config ...");
    ZYNXML_XMLDOC *slot = find_first([](const ZYNXML_XMLDOC &at) { return at.type == XMLDOC_TYPE_DEFAULT; });
    XMLIN_EXIT();
    return slot;
}

ZYNXML_XMLDOC *current_config() {
    XMLIN_ENTER();
    XMLIN_TRACE(8, "search current config ...");
    ZYNXML_XMLDOC *slot = find_first([](const ZYNXML_XMLDOC &at) { return at.current == 1; });
    XMLIN_EXIT();
    return slot;
}

ZYNXML_XMLDOC *find_policy(const char *type) {
    XMLIN_ENTER();
    ZYNXML_XMLDOC *slot = nullptr;
    if (type == nullptr) {
        XMLIN_TRACE(1, "invalid argument.");
    } else {
        XMLIN_TRACE(8, "search \"%s\" policy ...", type);
        slot = find_first([type](const ZYNXML_XMLDOC &at) {
            return at.type == XMLDOC_TYPE_POLICY && std::strcmp(at.name, type) == 0;
        });
    }
    XMLIN_EXIT();
    return slot;
}

ZYNXML_XMLDOC *find_nouse() {
    XMLIN_ENTER();
    ZYNXML_XMLDOC *slot = find_first([](const ZYNXML_XMLDOC &at) { return at.type == XMLDOC_TYPE_NONE; });
    XMLIN_EXIT();
    return slot;
}

bool check_load() {
    XMLIN_ENTER();
    const bool loaded = std::any_of(_xmldocs.begin(), _xmldocs.end(),
                                    [](const ZYNXML_XMLDOC &at) { return at.type != XMLDOC_TYPE_NONE; });
    XMLIN_EXIT();
    return loaded;
}
