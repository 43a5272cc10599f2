// One walk over a tree, with the rows of the table that an element may still belong to.
#include "walk.h"

#include "text.h"
#include "xmlin/query.h"

#include <algorithm>
#include <array>
#include <map>
#include <vector>

namespace config {
namespace {

constexpr std::size_t name_max = sizeof(ZYNXML_ELEMENT::name) - 1;
constexpr std::size_t attr_max = sizeof(ZYNXML_ELEMENT::attr) - 1;

// What a cluster configuration may hold for others: it names the things of the cluster, and is no setting.
constexpr auto inventory = std::to_array<std::string_view>({"group", "resource", "monitor", "server"});

std::string name_of(const xmlNode *element) {
    return reinterpret_cast<const char *>(element->name);
}

std::string first_attribute(const xmlNode *element) {
    const xmlAttr *attribute = element->properties;
    const bool has_text =
        attribute != nullptr && attribute->children != nullptr && attribute->children->content != nullptr;
    return has_text ? reinterpret_cast<const char *>(attribute->children->content) : "";
}

// Of the attributes that no path asks for the first; those of a namespace are not meant as settings.
const xmlAttr *first_unread(const xmlNode *element, bool by_attr) {
    const xmlAttr *attribute = element->properties;
    if (by_attr && attribute != nullptr)
        attribute = attribute->next;
    while (attribute != nullptr && attribute->ns != nullptr)
        attribute = attribute->next;
    return attribute;
}

bool is_blank(const xmlNode *node) {
    return node->content == nullptr ||
           std::string_view(reinterpret_cast<const char *>(node->content)).find_first_not_of(" \t\r\n") ==
               std::string_view::npos;
}

std::string tag(const std::string &name) {
    return '<' + printable(name) + '>';
}

// A step of a key's path, parted at its "@".
struct Step {
    std::string_view name;
    std::string_view attr; // empty for any
};

struct Row {
    const Key *key;
    std::vector<Step> steps;
};
using Rows = std::vector<const Row *>;

std::vector<Row> all_rows() {
    std::vector<Row> rows;
    for (const Key &key : all_keys()) {
        rows.push_back({&key, {}});
        for (const std::string_view step : split_steps(key.path)) {
            const std::size_t at = step.find('@');
            rows.back().steps.push_back({step.substr(0, at), at != step.npos ? step.substr(at + 1) : ""});
        }
    }
    return rows;
}

class Walk {
public:
    Walk(FileKind kind, const Tell &tell) : kind_(kind), tell_(tell) {}

    void children(const xmlNode *first, const std::string &path, const Rows &rows, std::size_t depth) {
        std::map<std::string, const xmlNode *> seen;
        for (const xmlNode *node = first; node != nullptr; node = node->next) {
            if (node->type == XML_ELEMENT_NODE)
                element(node, path, rows, depth, seen);
            else if (depth > 0 && node->type != XML_COMMENT_NODE && node->type != XML_PI_NODE &&
                     !is_blank(node))
                tell(node->parent, Severity::warning,
                     "text between the elements of " + tag(name_of(node->parent)) + ", which nobody reads");
        }
    }

private:
    void tell(const xmlNode *element, Severity severity, const std::string &text) const {
        tell_(place_of(element), severity, text);
    }

    void element(const xmlNode *node, const std::string &path, const Rows &rows, std::size_t depth,
                 std::map<std::string, const xmlNode *> &seen) {
        const std::string name = name_of(node);
        const std::string attr = first_attribute(node);
        Rows named;
        std::copy_if(rows.begin(), rows.end(), std::back_inserter(named),
                     [&](const Row *row) { return matches_name(*row->key, row->steps[depth].name, name); });
        const std::string_view wanted = named.empty() ? "" : named[0]->steps[depth].attr;
        const bool by_attr = !wanted.empty();
        const std::string step = by_attr ? name + '@' + attr : name;
        if (named.empty() && kind_.policy == nullptr && depth == 1 &&
            std::find(inventory.begin(), inventory.end(), name) != inventory.end())
            return;
        if (!check_name(node, path + '/' + name, name, attr, depth, !named.empty()))
            return;
        if (by_attr && !check_attribute(node, *named[0]->key, wanted, name, attr))
            return;
        if (const auto [first, fresh] = seen.emplace(step, node); !fresh) {
            tell(node, Severity::warning,
                 "a second " + printable(step) + " beside that of line " +
                     std::to_string(place_of(first->second).line) + ": only the first is read");
            return;
        }
        if (const xmlAttr *unread = first_unread(node, by_attr); unread != nullptr)
            tell(node, Severity::warning,
                 "the attribute " + printable(reinterpret_cast<const char *>(unread->name)) + " of " +
                     tag(name) + ", which nobody reads: a setting is an element");
        if (named[0]->steps.size() == depth + 1)
            value(node, path + '/' + step, *named[0]->key);
        else
            children(node->children, path + '/' + step, named, depth + 1);
    }

    // Whether a path can name the element, and some key does.
    bool check_name(const xmlNode *node, const std::string &path, const std::string &name,
                    const std::string &attr, std::size_t depth, bool known) const {
        if (name.size() > name_max)
            tell(node, Severity::warning,
                 "the name " + tag(name) + " is longer than " + std::to_string(name_max) +
                     " bytes: no path leads to it");
        else if (depth == 0 && !known)
            tell(node, Severity::error,
                 "the document's element is " + tag(name) + ", not <root>: nothing in this file is found");
        else if (!known)
            tell(node, Severity::warning,
                 "unknown key " + printable(path) + (attr.empty() ? "" : printable('@' + attr)));
        return known && name.size() <= name_max;
    }

    bool check_attribute(const xmlNode *node, const Key &row, std::string_view wanted,
                         const std::string &name, const std::string &attr) const {
        if (kind_.policy != nullptr)
            tell(node, Severity::warning,
                 "a policy is searched without regard to attributes: settings of " + tag(name) +
                     " belong into zyn.conf");
        else if (attr.size() > attr_max)
            tell(node, Severity::warning,
                 "the first attribute of " + tag(name) + " is longer than " + std::to_string(attr_max) +
                     " bytes: no path leads to it");
        else if (!matches_piece(wanted, attr))
            tell(node, Severity::warning,
                 tag(name) + " needs " + (wanted == "%d" ? "a number" : "a value") +
                     " in its first attribute to be found by " + row.path);
        else
            return true;
        return false;
    }

    void value(const xmlNode *node, const std::string &path, const Key &row) const {
        const Verdict verdict = judge(row, read_value(path, node));
        if (verdict.severity != Severity::none)
            tell(node, verdict.severity, printable(path) + ": " + verdict.note);
        if (kind_.policy != nullptr && std::string_view(kind_.policy) != row.policy)
            tell(node, Severity::warning,
                 printable(path) + " belongs to the policy \"" + row.policy +
                     "\": it counts here only where this one is loaded, too");
    }

    FileKind kind_;
    const Tell &tell_;
};

} // namespace

void walk_document(const xmlDoc *document, FileKind kind, const Tell &tell) {
    const std::vector<Row> table = all_rows();
    Rows rows;
    for (const Row &row : table)
        rows.push_back(&row);
    Walk(kind, tell).children(document->children, "", rows, 0);
}

} // namespace config
