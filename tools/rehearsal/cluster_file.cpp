// Reads the pretended cluster from its XML file and refuses whatever it does not understand.
#include "cluster.h"

#include "trnsv.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <memory>
#include <stdexcept>
#include <utility>

#include <libxml/parser.h>

namespace rehearsal {
namespace {

constexpr std::int64_t int_min = std::numeric_limits<std::int32_t>::min();
constexpr std::int64_t int_max = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t delay_max_ms = 86'400'000;

std::string_view view(const xmlChar *text) {
    return text == nullptr ? std::string_view{} : reinterpret_cast<const char *>(text);
}

[[noreturn]] void reject(std::string_view file, long line, const std::string &what) {
    throw std::runtime_error(std::string(file) + ":" + std::to_string(line) + ": " + what);
}

struct Word {
    std::string_view text;
    std::int32_t value;
};

constexpr std::array<Word, 2> yes_no{{{"yes", 1}, {"no", 0}}};
constexpr std::array<Word, 4> acttypes{{{"restart", TRANS_ACTTYPE_RESTART},
                                        {"failover", TRANS_ACTTYPE_FAILOVER},
                                        {"other", TRANS_ACTTYPE_OTHER},
                                        {"script", TRANS_ACTTYPE_SCRIPT}}};

// One element while it is read. Each attribute is taken once; what is left at the end is unknown.
class Element {
public:
    Element(std::string_view file, xmlNode *node) : file_(file), node_(node) {
        for (const xmlAttr *one = node->properties; one != nullptr; one = one->next) {
            const std::unique_ptr<xmlChar, void (*)(void *)> value(
                xmlNodeListGetString(node->doc, one->children, 1), xmlFree);
            attributes_.emplace(view(one->name), view(value.get()));
        }
    }

    std::string_view name() const { return view(node_->name); }
    [[noreturn]] void fail(const std::string &what) const { reject(file_, xmlGetLineNo(node_), what); }

    std::optional<std::string> take(std::string_view key) {
        const auto found = attributes_.find(std::string(key));
        if (found == attributes_.end()) {
            return std::nullopt;
        }
        std::string value = std::move(found->second);
        attributes_.erase(found);
        return value;
    }

    // A text of at most width - 1 bytes, so that it fits its field on the wire with a NUL.
    std::string text(std::string_view key, std::size_t width) {
        std::string value = take(key).value_or("");
        if (value.size() >= width) {
            fail(std::string(key) + " is longer than " + std::to_string(width - 1) + " bytes");
        }
        return value;
    }

    std::string required(std::string_view key, std::size_t width) {
        std::string value = text(key, width);
        if (value.empty()) {
            fail("<" + std::string(name()) + "> needs the attribute " + std::string(key));
        }
        return value;
    }

    std::int64_t number(std::string_view key, std::int64_t fallback, std::int64_t least, std::int64_t most) {
        const auto text = take(key);
        if (!text) {
            return fallback;
        }
        std::int64_t value = 0;
        const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
        if (error != std::errc{} || end != text->data() + text->size() || value < least || value > most) {
            fail(std::string(key) + "=\"" + *text + "\" is not a number from " + std::to_string(least) +
                 " to " + std::to_string(most));
        }
        return value;
    }

    std::int32_t integer(std::string_view key, std::int32_t fallback) {
        return static_cast<std::int32_t>(number(key, fallback, int_min, int_max));
    }

    Milliseconds delay() { return Milliseconds{number("delay", 0, 0, delay_max_ms)}; }

    template <std::size_t N>
    std::int32_t word(std::string_view key, std::int32_t fallback, const std::array<Word, N> &words) {
        const auto text = take(key);
        if (!text) {
            return fallback;
        }
        const auto *found = std::ranges::find(words, *text, &Word::text);
        if (found == words.end()) {
            std::string choice;
            for (const Word &one : words) {
                choice += (choice.empty() ? "" : ", ") + std::string(one.text);
            }
            fail(std::string(key) + "=\"" + *text + "\" is none of: " + choice);
        }
        return found->value;
    }

    bool flag(std::string_view key, bool fallback) { return word(key, fallback, yes_no) != 0; }

    std::string address(const std::string &value) const {
        try {
            return canonical_address(value);
        } catch (const std::invalid_argument &error) {
            fail(error.what());
        }
    }

    std::string at() {
        const auto value = take("at");
        return value ? address(*value) : "";
    }

    std::vector<std::string> list(std::string_view key) {
        std::vector<std::string> items;
        const std::string all = take(key).value_or("");
        for (std::size_t from = 0; from < all.size();) {
            const std::size_t comma = std::min(all.find(',', from), all.size());
            items.push_back(all.substr(from, comma - from));
            from = comma + 1;
        }
        return items;
    }

    // Refuses what nobody took, then reads each child element with `child`.
    template <class Child>
    void finish(Child child) const {
        if (!attributes_.empty()) {
            fail("<" + std::string(name()) + "> has no attribute " + attributes_.begin()->first);
        }
        for (xmlNode *one = node_->children; one != nullptr; one = one->next) {
            if (one->type == XML_ELEMENT_NODE) {
                Element element(file_, one);
                child(element);
            } else if (one->type != XML_COMMENT_NODE && xmlIsBlankNode(one) == 0) {
                fail("<" + std::string(name()) +
                     "> holds something that is neither an element nor a comment");
            }
        }
    }

    void finish() const {
        finish([this](const Element &child) { unknown(child); });
    }

    [[noreturn]] void unknown(const Element &child) const {
        child.fail("<" + std::string(name()) + "> has no element <" + std::string(child.name()) + ">");
    }

private:
    std::string_view file_;
    xmlNode *node_;
    std::map<std::string, std::string> attributes_;
};

// Adds an entry under its name, which must be new for its server.
template <class Entry>
void add(const Element &element, std::vector<Entry> &list, Entry entry) {
    for (const Entry &one : list) {
        if (one.name == entry.name && one.at == entry.at) {
            element.fail(std::string(element.name()) + " " + entry.name + " stands here twice");
        }
    }
    list.push_back(std::move(entry));
}

void read_group(Element &element, Cluster &cluster) {
    Group group{.name = element.required("name", TRNSV_NAME_LEN),
                .at = element.at(),
                .online = element.flag("online", true),
                .status = element.integer("status", 0),
                .delay = element.delay()};
    for (const std::string &server : element.list("servers")) {
        group.servers.push_back(element.address(server));
    }
    element.finish([&](Element &child) {
        if (child.name() != "resource") {
            element.unknown(child);
        }
        group.resources.push_back(child.required("name", TRNSV_NAME_LEN));
        child.finish();
    });
    add(element, cluster.groups, std::move(group));
}

void read_monitor(Element &element, Cluster &cluster) {
    Monitor monitor{.name = element.required("name", TRNSV_NAME_LEN),
                    .at = element.at(),
                    .category = element.text("category", 128),
                    .keyword = element.text("keyword", 1024),
                    .active = element.flag("active", true),
                    .error = element.flag("error", false),
                    .acttype = element.word("acttype", TRANS_ACTTYPE_RESTART, acttypes),
                    .action = element.integer("action", 0),
                    .result = element.integer("result", 0),
                    .clear_result = element.integer("clear-result", 0),
                    .delay = element.delay()};
    element.finish([&](Element &child) {
        if (child.name() != "preaction") {
            element.unknown(child);
        }
        monitor.preaction_status = child.integer("status", 0);
        monitor.preaction_exitcode = child.integer("exitcode", 0);
        child.finish();
    });
    if (cluster.monitors.size() == monitors_max) {
        element.fail("there are more than " + std::to_string(monitors_max) + " monitors");
    }
    add(element, cluster.monitors, std::move(monitor));
}

void read_scripts(Element &element, Cluster &cluster) {
    cluster.script_directory = element.take("dir").value_or("");
    element.finish([&](Element &child) {
        if (child.name() != "script") {
            element.unknown(child);
        }
        Script script{.name = child.required("name", 256),
                      .at = child.at(),
                      .executable = child.flag("executable", true),
                      .exitcode = child.integer("exitcode", 0),
                      .status = child.integer("status", 0),
                      .delay = child.delay()};
        child.finish();
        add(child, cluster.scripts, std::move(script));
    });
}

void read_client(Element &element, Cluster &cluster) {
    const std::string address = element.address(element.required("address", 64));
    if (!element.flag("permitted", true)) {
        cluster.denied.insert(address);
    }
    element.finish();
}

void read_server(Element &element, Cluster &cluster) {
    const std::string address = element.address(element.required("address", 64));
    if (element.flag("busy", false)) {
        cluster.busy.insert(address);
    }
    for (const std::string &fault : element.list("fault")) {
        try {
            cluster.faults[address].push_back(parse_fault(fault));
        } catch (const std::invalid_argument &error) {
            element.fail(error.what());
        }
    }
    element.finish();
}

constexpr std::array request_kinds{RequestKind::check,  RequestKind::terminate, RequestKind::failover,
                                   RequestKind::script, RequestKind::notice,    RequestKind::clear};

void read_answer(Element &element, Cluster &cluster) {
    const std::string request = element.required("request", 64);
    const auto *kind = std::ranges::find(request_kinds, request, kind_name);
    if (kind == request_kinds.end()) {
        element.fail("request=\"" + request + "\" is no request");
    }
    FixedAnswer answer{.kind = *kind, .at = element.at()};
    if (const std::int64_t unset = int_max + 1, status = element.number("status", unset, int_min, int_max);
        status != unset) {
        answer.status = static_cast<std::int32_t>(status);
    }
    answer.delay = element.delay();
    element.finish();
    cluster.answers.push_back(answer);
}

struct Reader {
    std::string_view element;
    void (*read)(Element &element, Cluster &cluster);
};

constexpr std::array<Reader, 6> readers{{{"group", read_group},
                                         {"monitor", read_monitor},
                                         {"scripts", read_scripts},
                                         {"client", read_client},
                                         {"server", read_server},
                                         {"answer", read_answer}}};

Cluster read_cluster(Element &root) {
    if (root.name() != "cluster") {
        root.fail("the root element is <" + std::string(root.name()) + ">, not <cluster>");
    }
    Cluster cluster;
    cluster.magic = root.take("magic").value_or(cluster.magic);
    cluster.version = root.text("version", 17);
    cluster.edition = root.text("edition", 17);
    cluster.cluster_version = root.text("cluster-version", 17);
    root.finish([&](Element &child) {
        const auto *reader = std::ranges::find(readers, child.name(), &Reader::element);
        if (reader == readers.end()) {
            root.unknown(child);
        }
        reader->read(child, cluster);
    });
    return cluster;
}

} // namespace

Cluster load_cluster(const std::filesystem::path &path) {
    const std::string file = path.string();
    const std::unique_ptr<xmlDoc, void (*)(xmlDoc *)> document(
        xmlReadFile(file.c_str(), nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING),
        xmlFreeDoc);
    if (!document) {
        const xmlError *error = xmlGetLastError();
        if (error == nullptr || error->line == 0) {
            throw std::runtime_error(file + ": cannot be read");
        }
        std::string what = error->message;
        what.erase(what.find_last_not_of('\n') + 1);
        reject(file, error->line, what);
    }
    if (document->intSubset != nullptr) {
        reject(file, 1, "a document type declaration is not accepted");
    }
    Element root(file, xmlDocGetRootElement(document.get()));
    Cluster cluster = read_cluster(root);
    if (cluster.script_directory.is_relative() && !cluster.script_directory.empty()) {
        cluster.script_directory = path.parent_path() / cluster.script_directory;
    }
    return cluster;
}

} // namespace rehearsal
