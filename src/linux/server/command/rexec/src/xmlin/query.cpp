// Queries by path. The trees are only read; a query needs no memory besides its record array.
#include "xmlin/query.h"

#include "log.h"
#include "trace.h"
#include "xmllib.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

namespace {

constexpr int name_limit = 32;  // for the counter of a step's name
constexpr int attr_limit = 256; // for the counter of an attribute value
constexpr std::size_t value_size = 1024;
constexpr int list_slot_size = 256;

struct Free {
    void operator()(ZYNXML_ELEMENT *records) const { std::free(records); }
};
using Records = std::unique_ptr<ZYNXML_ELEMENT, Free>;

// Copies what fits of a text of the tree into a zeroed field of `size` bytes.
void copy_text(const xmlChar *text, char *field, std::size_t size) {
    const char *start = reinterpret_cast<const char *>(text);
    std::memcpy(field, start, strnlen(start, size - 1));
}

// The value text of an element's first attribute; null when it has none.
const xmlChar *first_attribute(const xmlNode *node) {
    if (node->properties == nullptr || node->properties->children == nullptr)
        return nullptr;
    return node->properties->children->content;
}

bool has_name(const xmlNode *node, const ZYNXML_ELEMENT &record) {
    constexpr std::size_t width = sizeof(record.name); // a name that fills it has no NUL
    const char *name = reinterpret_cast<const char *>(node->name);
    return std::strncmp(name, record.name, width) == 0 &&
           (record.name[width - 1] == '\0' || name[width] == '\0');
}

bool matches(const xmlNode *node, const ZYNXML_ELEMENT &record, bool compare_attr) {
    if (node->type != XML_ELEMENT_NODE || !has_name(node, record))
        return false;
    if (!compare_attr || record.attr[0] == '\0')
        return true;
    const xmlChar *value = first_attribute(node);
    return value != nullptr && std::strcmp(reinterpret_cast<const char *>(value), record.attr) == 0;
}

// The first match among a node and those behind it.
template <typename Node>
Node *find_match(Node *node, const ZYNXML_ELEMENT &record, bool compare_attr) {
    while (node != nullptr && !matches(node, record, compare_attr))
        node = node->next;
    return node;
}

// The scan over a path: the record and the field that the next text goes into.
struct Split {
    ZYNXML_ELEMENT *record;
    bool in_attr = false;
    int counter = 0; // characters since the last separator, which counts itself but for the first

    bool fits(int limit) const {
        if (counter <= limit)
            return true;
        XMLIN_TRACE(1, "element is more than %d(len=%d).", name_limit, counter);
        return false;
    }
    void store(std::string_view text) const {
        if (in_attr) {
            text.copy(record->attr, sizeof(record->attr) - 1);
        } else {
            std::memset(record->name, 0, sizeof(record->name)); // a second "@" stores it again
            text.copy(record->name, sizeof(record->name));
        }
    }
};

// Splits the text behind the leading "/" of a path into its zeroed records.
int split(const char *text, ZYNXML_ELEMENT *records) {
    Split at = {.record = records};
    const char *start = text;
    for (;; ++text, ++at.counter) {
        const bool attr_begins = *text == '@';
        if (*text != '\0' && *text != '/' && !attr_begins)
            continue;
        if (!at.fits(at.in_attr && !attr_begins ? attr_limit : name_limit))
            return XMLLIB_ERR_TOOLONG;
        if (attr_begins)
            at.in_attr = false; // what stands before it is a name, a second time too
        at.store({start, static_cast<std::size_t>(text - start)});
        if (*text == '\0')
            return XMLLIB_OK;
        at.in_attr = attr_begins;
        at.record += attr_begins ? 0 : 1;
        at.counter = 0;
        start = text + 1;
    }
}

int allocate_and_split(const char *path, ZYNXML_ELEMENT **records, int *count) {
    *count = static_cast<int>(std::count(path, path + std::strlen(path), '/'));
    XMLIN_TRACE(16, "%s is %d depth.", path, *count);
    if (*count == 0)
        return XMLLIB_OK;
    const std::size_t bytes = static_cast<std::size_t>(*count) * sizeof(ZYNXML_ELEMENT);
    Records made(
        static_cast<ZYNXML_ELEMENT *>(std::calloc(static_cast<std::size_t>(*count), sizeof(ZYNXML_ELEMENT))));
    if (made == nullptr) {
        XMLIN_TRACE(1, "malloc(%d) failed(%d).", static_cast<int>(bytes), errno);
        return -1;
    }
    const int ret = split(path + 1, made.get());
    if (ret == XMLLIB_OK)
        *records = made.release();
    return ret;
}

// Splits the path of a query, with the messages and codes of both.
int split_query(const char *path, Records &records, int *count) {
    ZYNXML_ELEMENT *made = nullptr;
    const int ret = separate_path(path, &made, count);
    records.reset(made);
    if (ret != XMLLIB_OK) {
        XMLIN_TRACE(1, "separate_path(%s %#x %d) failed(%d).", path, log_low32(made), *count, ret);
        return ret == XMLLIB_ERR_TOOLONG ? XMLLIB_ERR_TOOLONG : XMLLIB_ERR_INVALIDPATH;
    }
    if (*count == 0) {
        XMLIN_TRACE(1, "invalid path? num = 0.");
        return XMLLIB_ERR_INVALIDPATH;
    }
    return XMLLIB_OK;
}

// The element that a path leads to in one document; null when there is none.
const xmlNode *look_up(const ZYNXML_XMLDOC *slot, PathMode mode, const ZYNXML_ELEMENT *records, int count) {
    const xmlNode *element = nullptr;
    bool matched = false;
    find_path(slot, mode, records, count, &matched, &element);
    return element;
}

// The current configuration first, then the policies in the order of their slots.
Answer look_up_everywhere(const char *path, const ZYNXML_ELEMENT *records, int count) {
    if (const ZYNXML_XMLDOC *current = current_config(); current != nullptr) {
        const xmlNode *element = look_up(current, PathMode::value, records, count);
        if (element != nullptr) {
            XMLIN_TRACE(8, "\"%s\" discover from current config.", path);
            return {current, element};
        }
    }
    for (const ZYNXML_XMLDOC &slot : _xmldocs) {
        if (slot.type != XMLDOC_TYPE_POLICY)
            continue;
        const xmlNode *element = look_up(&slot, PathMode::policy, records, count);
        if (element != nullptr && element->children != nullptr)
            XMLIN_TRACE(8, "\"%s\" discover from \"%s\" policy.", path, slot.name);
        if (element != nullptr)
            return {&slot, element};
    }
    return {nullptr, nullptr};
}

int convert_element(const char *path, const xmlNode *element, int type, void *buffer, int *size) {
    char text[value_size] = "";
    if (const xmlNode *first = element->children; first != nullptr) {
        if (first->content == nullptr) {
            XMLIN_TRACE(2, "not exist contents(%s).", path);
            return XMLLIB_ERR_NOCONTENTS;
        }
        copy_text(first->content, text, sizeof(text));
        if (cut_space(text) != 0) {
            XMLIN_TRACE(1, "invalid value.");
            return XMLLIB_ERR_INVALIDVALUE;
        }
    }
    XMLIN_TRACE(8, "content is \"%s\".", text);
    const bool size_query = buffer == nullptr;
    const int ret = make_value(text, type, buffer, size);
    if (ret != XMLLIB_OK)
        XMLIN_TRACE(size_query ? 8 : 2, "make_value(%s %d %#x %#x) failed(%#x).", text, type,
                    log_low32(buffer), log_low32(size), static_cast<unsigned>(ret));
    return ret;
}

bool is_loaded() {
    const bool loaded = check_load();
    if (!loaded)
        XMLIN_TRACE(1, "not load.");
    return loaded;
}

int answer_path(const char *path, Answer *answer) {
    XMLIN_TRACE(8, "get value from \"%s\"...", path);
    Records records;
    int count = 0;
    if (const int ret = split_query(path, records, &count); ret != XMLLIB_OK)
        return ret;
    *answer = look_up_everywhere(path, records.get(), count);
    if (answer->element != nullptr)
        return XMLLIB_OK;
    XMLIN_TRACE(2, "not exist(%s)", path);
    return XMLLIB_ERR_NOTEXIST;
}

int query_value(const char *path, int type, void *buffer, int *size) {
    if (path == nullptr || size == nullptr) {
        XMLIN_TRACE(1, "invalid armgument.");
        return XMLLIB_ERR_INVALIDARG;
    }
    if (!is_loaded())
        return XMLLIB_ERR_NOTLOAD;
    if (buffer == nullptr)
        *size = 0;
    Answer answer = {};
    if (const int ret = answer_path(path, &answer); ret != XMLLIB_OK)
        return ret;
    return convert_element(path, answer.element, type, buffer, size);
}

void trace_list(const char *path, int ret, const char *buffer, int size) {
    if (ret == XMLLIB_ERR_NOSIZE)
        XMLIN_TRACE(8, "not enough size(%d).", size);
    else if (ret == XMLLIB_ERR_NOTEXIST)
        XMLIN_TRACE(2, "not exist(%s)", path);
    else if (ret != XMLLIB_OK)
        XMLIN_TRACE(1, "fill_attr() failed(%#x).", static_cast<unsigned>(ret));
    for (int i = 0; ret == XMLLIB_OK && i < size / list_slot_size; ++i)
        XMLIN_TRACE(8, "attribute[%d] is \"%s\".", i, buffer + i * list_slot_size);
}

int query_list(const char *path, char *buffer, int *size) {
    if (path == nullptr || size == nullptr) {
        XMLIN_TRACE(1, "invalid armgument.");
        return XMLLIB_ERR_INVALIDARG;
    }
    const ZYNXML_XMLDOC *current = current_config();
    if (current == nullptr) {
        XMLIN_TRACE(1, "not load.");
        return XMLLIB_ERR_NOTLOAD;
    }
    if (buffer == nullptr)
        *size = 0;
    XMLIN_TRACE(8, "enum value from \"%s\"...", path);
    Records records;
    int count = 0;
    if (const int ret = split_query(path, records, &count); ret != XMLLIB_OK)
        return ret;
    bool matched = false;
    xmlNode *first = find_path(current, PathMode::list, records.get(), count, &matched);
    if (first == nullptr) {
        XMLIN_TRACE(2, "not exist(%s)", path);
        return XMLLIB_ERR_NOTEXIST;
    }
    const int ret = fill_attr(first, records.get() + count - 1, buffer, size);
    trace_list(path, ret, buffer, *size);
    return ret;
}

// Stores one value of a list; returns 0, or XMLLIB_ERR_INVALIDVALUE.
int store_attr(const xmlChar *value, char *slot) {
    std::memset(slot, 0, list_slot_size);
    copy_text(value, slot, list_slot_size);
    if (cut_space(slot) == 0)
        return XMLLIB_OK;
    XMLIN_TRACE(1, "invalid value.");
    return XMLLIB_ERR_INVALIDVALUE;
}

int collect_attrs(const xmlNode *first, const ZYNXML_ELEMENT &record, char *buffer, int *size) {
    int ret = XMLLIB_OK;
    int count = 0;
    int left = *size;
    for (const xmlNode *node = first; node != nullptr; node = node->next) {
        const xmlChar *value = matches(node, record, false) ? first_attribute(node) : nullptr;
        if (value == nullptr)
            continue;
        if (count == INT_MAX / list_slot_size)
            break;
        if (left >= list_slot_size) {
            if (store_attr(value, buffer + count * list_slot_size) != XMLLIB_OK)
                return XMLLIB_ERR_INVALIDVALUE;
            left -= list_slot_size;
        } else {
            ret = XMLLIB_ERR_NOSIZE;
        }
        ++count;
    }
    *size = count * list_slot_size;
    return count > 0 ? ret : static_cast<int>(XMLLIB_ERR_NOTEXIST);
}

int make_string(const char *text, char *buffer, int *size) {
    const int needed = static_cast<int>(std::strlen(text)) + 1;
    const int given = *size;
    *size = needed;
    if (given < needed) {
        XMLIN_TRACE(8, "not enough size(%d).", given);
        return XMLLIB_ERR_NOSIZE;
    }
    std::memcpy(buffer, text, static_cast<std::size_t>(needed));
    return XMLLIB_OK;
}

int make_int(const char *text, void *buffer, int *size) {
    const int given = *size;
    *size = sizeof(std::int32_t);
    if (given < *size) {
        XMLIN_TRACE(8, "not enough size(%d).", given);
        return XMLLIB_ERR_NOSIZE;
    }
    char *end = nullptr;
    const auto value = static_cast<std::int32_t>(std::strtol(text, &end, 0));
    if (*end != '\0') {
        XMLIN_TRACE(2, "invalid contents.");
        return XMLLIB_ERR_INVALIDVALUE;
    }
    std::memcpy(buffer, &value, sizeof(value));
    return XMLLIB_OK;
}

int convert(const char *text, int type, void *buffer, int *size) {
    if (text == nullptr || size == nullptr) {
        XMLIN_TRACE(1, "invalid argument.");
        return XMLLIB_ERR_INVALIDARG;
    }
    switch (type) {
    case XMLLIB_TYPE_STRING:
        return make_string(text, static_cast<char *>(buffer), size);
    case XMLLIB_TYPE_INT:
        return make_int(text, buffer, size);
    default:
        XMLIN_TRACE(1, "invalid type(%d).", type);
        return XMLLIB_ERR_INVALIDARG;
    }
}

} // namespace

int separate_path(const char *path, ZYNXML_ELEMENT **records, int *count) {
    XMLIN_ENTER();
    int ret = -1;
    if (records != nullptr)
        *records = nullptr;
    if (path == nullptr || records == nullptr || count == nullptr ||
        (path[0] != '/' && std::strchr(path, '/') != nullptr))
        XMLIN_TRACE(1, "invalid argument.");
    else
        ret = allocate_and_split(path, records, count);
    XMLIN_EXIT();
    return ret;
}

xmlNode *find_element(xmlNode *start, const ZYNXML_ELEMENT *record, unsigned flags, bool *matched) {
    XMLIN_ENTER();
    xmlNode *node = find_match(start, *record, (flags & FIND_ATTR) != 0);
    *matched = node != nullptr;
    if (node == nullptr)
        XMLIN_TRACE(8, "undiscovery.");
    else if ((flags & FIND_DESCEND) != 0)
        node = node->children;
    XMLIN_EXIT();
    return node;
}

xmlNode *find_path(const ZYNXML_XMLDOC *slot, PathMode mode, const ZYNXML_ELEMENT *records, int count,
                   bool *matched, const xmlNode **element) {
    XMLIN_ENTER();
    const unsigned attr = mode == PathMode::policy ? 0 : FIND_ATTR;
    // A slot whose configuration has been unloaded may still be made current: it holds nothing.
    xmlNode *node = slot->doc != nullptr ? slot->doc->children : nullptr;
    *matched = false;
    const xmlNode *level = nullptr; // first node beside the last match
    for (int i = 0; i < count; ++i) {
        const bool stay = mode == PathMode::list && i == count - 1;
        level = node;
        node = find_element(node, &records[i], attr | (stay ? 0 : FIND_DESCEND), matched);
        if (!*matched)
            break;
    }
    if (element != nullptr && *matched)
        *element = node != nullptr && mode != PathMode::list
                       ? node->parent
                       : find_match(level, records[count - 1], attr != 0);
    if (node == nullptr && !*matched)
        XMLIN_TRACE(8, "not exist in \"%s\".", slot->name);
    XMLIN_EXIT();
    return node;
}

int fill_attr(xmlNode *first, const ZYNXML_ELEMENT *record, char *buffer, int *size) {
    XMLIN_ENTER();
    const int ret = collect_attrs(first, *record, buffer, size);
    XMLIN_EXIT();
    return ret;
}

int make_value(const char *text, int type, void *buffer, int *size) {
    XMLIN_ENTER();
    const int ret = convert(text, type, buffer, size);
    XMLIN_EXIT();
    return ret;
}

int cut_space(char *text) {
    XMLIN_ENTER();
    int ret = 0;
    if (text == nullptr) {
        XMLIN_TRACE(1, "invalid argument.");
        ret = -1;
    } else {
        std::string_view kept = text;
        kept.remove_prefix(std::min(kept.find_first_not_of(' '), kept.size()));
        kept.remove_suffix(kept.size() - (kept.find_last_not_of(' ') + 1));
        std::memmove(text, kept.data(), kept.size());
        text[kept.size()] = '\0';
    }
    XMLIN_EXIT();
    return ret;
}

int find_answer(const char *path, Answer *answer) {
    XMLIN_ENTER();
    const int ret = is_loaded() ? answer_path(path, answer) : static_cast<int>(XMLLIB_ERR_NOTLOAD);
    XMLIN_EXIT();
    return ret;
}

int read_element(const char *path, const xmlNode *element, int type, void *buffer, int *size) {
    XMLIN_ENTER();
    const int ret = convert_element(path, element, type, buffer, size);
    XMLIN_EXIT();
    return ret;
}

int get_value(const char *path, int type, void *buffer, int *size) {
    XMLIN_ENTER();
    const int ret = query_value(path, type, buffer, size);
    XMLIN_EXIT();
    return ret;
}

int enum_value(const char *path, char *buffer, int *size) {
    XMLIN_ENTER();
    const int ret = query_list(path, buffer, size);
    XMLIN_EXIT();
    return ret;
}
