// Names from the configuration, the directory of scripts and /etc/hosts.
#include "names.h"

#include "look.h"
#include "show.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include <unistd.h>

namespace config {
namespace {

namespace fs = std::filesystem;
using Names = std::set<std::string>;

constexpr char group_element[] = "group";
constexpr char resource_element[] = "resource";
constexpr char monitor_element[] = "monitor";
constexpr char hosts_file[] = "/etc/hosts";
constexpr std::size_t line_max = 4096; // bytes of a line of it
constexpr int lines_max = 10000;
constexpr std::size_t names_max = 1000;
constexpr std::size_t name_max = 255; // bytes

// One word for every shell, and no option.
void add(Names &names, const std::string &name) {
    const bool plain = std::all_of(name.begin(), name.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
               std::string_view("._-:/@+").find(c) != std::string_view::npos;
    });
    if (plain && !name.empty() && name[0] != '-' && name.size() <= name_max && names.size() < names_max)
        names.insert(name);
}

std::string attribute(const xmlNode *element, const char *name) {
    xmlChar *value = xmlGetNoNsProp(element, reinterpret_cast<const xmlChar *>(name));
    const std::string text = value != nullptr ? reinterpret_cast<const char *>(value) : "";
    xmlFree(value);
    return text;
}

// A monitor is of one category, and may have a keyword.
void add_category(Names &names, const xmlNode *element) {
    const std::string category = attribute(element, "category");
    const std::string keyword = attribute(element, "keyword");
    add(names, category);
    if (!category.empty() && !keyword.empty())
        add(names, category + '.' + keyword);
}

// Elements of a name, wherever they stand; each is told by its first attribute, as in a path.
void collect(const xmlNode *first, const std::string &element, bool categories, Names &names) {
    for (const xmlNode *node = first; node != nullptr; node = node->next) {
        if (node->type != XML_ELEMENT_NODE)
            continue;
        if (element == reinterpret_cast<const char *>(node->name)) {
            if (categories)
                add_category(names, node);
            else if (node->properties != nullptr)
                add(names, attribute(node, reinterpret_cast<const char *>(node->properties->name)));
        }
        collect(node->children, element, categories, names);
    }
}

void add_elements(const Store &store, const std::string &element, bool categories, Names &names) {
    if (const Look look = look_at(store.configuration()); look.document != nullptr)
        collect(look.document->children, element, categories, names);
}

// The file itself is read: to ask the resolver could mean to ask the network.
void add_hosts(Names &names) {
    std::error_code error;
    if (!fs::is_regular_file(hosts_file, error))
        return;
    std::ifstream in(hosts_file);
    std::array<char, line_max> line = {};
    for (int number = 0; number < lines_max && in.getline(line.data(), line.size()); ++number) {
        std::istringstream words(std::string(line.data()).substr(0, std::string_view(line.data()).find('#')));
        for (std::string word; words >> word;)
            add(names, word);
    }
}

void list_scripts(const Store &store, Names &names) {
    std::error_code error;
    for (fs::directory_iterator at(store.directory() + "/scripts", error), end; !error && at != end;
         at.increment(error))
        if (std::error_code no_file;
            fs::is_regular_file(at->path(), no_file) && access(at->path().c_str(), X_OK) == 0)
            add(names, at->path().filename());
}

void list_all_keys(const Store &, Names &names) {
    for (const Key &key : all_keys())
        if (!key.is_pattern())
            names.insert(key.path);
}

void list_addresses(const Store &store, Names &names) {
    add_elements(store, "server", false, names);
    add_hosts(names);
}
template <const char *element>
void list_elements(const Store &store, Names &names) {
    add_elements(store, element, false, names);
}
void list_categories(const Store &store, Names &names) {
    add_elements(store, monitor_element, true, names);
}
void list_modules(const Store &, Names &names) {
    std::istringstream rest(module_names());
    for (std::string name; std::getline(rest >> std::ws, name, ',');)
        add(names, name);
}

struct NameKind {
    const char *name;
    void (*list)(const Store &, Names &);
};
constexpr auto kinds = std::to_array<NameKind>({{"address", list_addresses},
                                                {"group", list_elements<group_element>},
                                                {"resource", list_elements<resource_element>},
                                                {"monitor", list_elements<monitor_element>},
                                                {"category", list_categories},
                                                {"script", list_scripts},
                                                {"key", list_all_keys},
                                                {"module", list_modules}});

} // namespace

std::optional<std::string> list_names(const Store &store, const std::string &kind) {
    const auto *found =
        std::find_if(kinds.begin(), kinds.end(), [&](const NameKind &row) { return kind == row.name; });
    if (found == kinds.end())
        return std::nullopt;
    Names names;
    found->list(store, names);
    std::string listed;
    for (const std::string &name : names)
        listed += name + '\n';
    return listed;
}

std::string name_kinds() {
    std::string names;
    for (const NameKind &kind : kinds)
        names += (names.empty() ? "" : ", ") + std::string(kind.name);
    return names;
}

} // namespace config
