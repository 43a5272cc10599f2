// Which documents answer a key is decided by the store; here they are loaded as its modules load them.
#include "store.h"

#include "xmlin/file.h"
#include "xmlin/query.h"
#include "xmllib.h"

#include <array>
#include <filesystem>
#include <set>

namespace config {
namespace {

constexpr char module_type[] =
    "log"; // one that opens no trace: a look writes nothing into the cluster's logs
constexpr std::string_view charset_key = "/root/all/charset";
constexpr auto base_policies = std::to_array<const char *>({"log", "all", "cluster"});

// What the module that reads a key has loaded, beyond what the store keeps, in its order: the first hit
// counts.
std::vector<std::string> policies_for(const Key *key) {
    if (key == nullptr)
        return {all_policies().begin(), all_policies().end()};
    if (std::string_view(key->modules) == "client")
        return {"all", "trnsv", "rexec"};
    return {key->policy};
}

bool is_of_command(const Key &key) {
    return key.is_read_by("command") || key.is_read_by("client");
}

// The path of an element as a query may name it: with the first attribute's value where the pattern has one.
void collect(const Key &key, const xmlNode *element, const std::vector<std::string_view> &steps,
             std::size_t depth, const std::string &path, std::set<std::string> &paths) {
    if (depth == steps.size()) {
        paths.insert(path);
        return;
    }
    const std::string_view step = steps[depth];
    const std::size_t at = step.find('@');
    for (; element != nullptr && paths.size() < Store::paths_max; element = element->next) {
        if (element->type != XML_ELEMENT_NODE ||
            !matches_name(key, step.substr(0, at), reinterpret_cast<const char *>(element->name)))
            continue;
        std::string name = reinterpret_cast<const char *>(element->name);
        if (at != step.npos) {
            const xmlAttr *attribute = element->properties;
            if (attribute == nullptr || attribute->children == nullptr ||
                attribute->children->content == nullptr)
                continue;
            const char *value = reinterpret_cast<const char *>(attribute->children->content);
            if (!matches_piece(step.substr(at + 1), value))
                continue;
            name += std::string("@") + value;
        }
        collect(key, element->children, steps, depth + 1, path + '/' + name, paths);
    }
}

} // namespace

Reading read_value(const std::string &path, const xmlNode *element) {
    Reading reading;
    std::array<char, 1024> text = {};
    int size = text.size();
    reading.text_code = read_element(path.c_str(), element, XMLLIB_TYPE_STRING, text.data(), &size);
    if (reading.text_code == XMLLIB_OK)
        reading.text = text.data();
    size = sizeof(reading.number);
    reading.number_code = read_element(path.c_str(), element, XMLLIB_TYPE_INT, &reading.number, &size);
    const xmlNode *first = element->children;
    reading.comment = first != nullptr && first->type == XML_COMMENT_NODE;
    reading.in_pieces = first != nullptr && first->next != nullptr;
    return reading;
}

Store::Store(const char *directory) {
    set_inspath(directory);
    std::array<char, XML_PATH_SIZE> path = {};
    get_inspath(path.data(), path.size());
    directory_ = path.data();
    read_charset_answer();
    start_code_ = xmllib_init(module_type);
    config_code_ = start_code_ == XMLLIB_OK ? xmllib_load_config() : start_code_;
}

Store::~Store() {
    unload();
    xmllib_term();
    set_inspath(nullptr);
}

// The charset is read before any is known, so from other documents than every other key: those that the start
// of the store has loaded by then.
void Store::read_charset_answer() {
    directory_.copy(_xml_installpath, sizeof(_xml_installpath) - 1);
    form_paths();
    internal_init();
    const bool configured = load_config(nullptr, nullptr) == XMLLIB_OK;
    const bool log = load_policy("log", "") == XMLLIB_OK;
    if (log && load_policy("all", "") == XMLLIB_OK) {
        charset_ = look_up(std::string(charset_key));
        unload_policy("all");
    }
    if (log)
        unload_policy("log");
    if (configured)
        unload_config(nullptr);
}

std::string Store::policy_file(const std::string &name) const {
    std::array<char, XML_PATH_SIZE> path = {};
    get_policyfile(name.c_str(), path.data(), _xml_charset);
    return path.data();
}

bool Store::load(const std::vector<std::string> &policies) {
    if (policies == loaded_)
        return missing_.empty();
    unload();
    for (const std::string &policy : policies) {
        if (xmllib_load_policy(policy.c_str()) != XMLLIB_OK && missing_.empty())
            missing_ = policy;
    }
    loaded_ = policies;
    return missing_.empty();
}

void Store::unload() {
    for (const std::string &policy : loaded_)
        if (missing_.empty() || find_policy(policy.c_str()) != nullptr)
            xmllib_unload_policy(policy.c_str());
    loaded_.clear();
    missing_.clear();
}

std::string Store::find_standalone_reason() {
    if (std::error_code error; !std::filesystem::is_directory(directory_ + "/etc", error))
        return "no installation is there";
    if (start_code_ != XMLLIB_OK) {
        for (const char *policy : base_policies)
            if (const std::string file = policy_file(policy);
                file.empty() || look_at(file).document == nullptr)
                return std::string("the policy \"") + policy + "\" " +
                       (file.empty() ? "is missing" : "cannot be read");
        return "the store cannot start, code " + std::to_string(start_code_);
    }
    if (config_code_ != XMLLIB_OK)
        return "the cluster configuration is missing or cannot be read";
    return load({"rexec"}) ? "" : "the policy \"rexec\" is missing or cannot be read";
}

std::optional<Found> Store::look_up(const std::string &path) const {
    Answer answer = {};
    if (find_answer(path.c_str(), &answer) != XMLLIB_OK)
        return std::nullopt;
    const bool is_policy = answer.slot->type == XMLDOC_TYPE_POLICY;
    return Found{is_policy ? policy_file(answer.slot->name) : answer.slot->name,
                 is_policy ? std::string("policy ") + answer.slot->name : "cluster configuration",
                 place_of(answer.element), read_value(path, answer.element)};
}

const std::string &Store::standalone_reason() {
    if (!standalone_reason_)
        standalone_reason_ = find_standalone_reason();
    return *standalone_reason_;
}

// The command applies the policy "all" before it finds that its own is missing.
std::string Store::reason_without_store(const Key &key) {
    const bool early = key.is_read_by("command") && std::string_view(key.policy) == "all";
    if (start_code_ != XMLLIB_OK || (is_of_command(key) && (!early || config_code_ != XMLLIB_OK)))
        return standalone_reason();
    return "";
}

Answered Store::answer(const Key *key, const std::string &path) {
    if (key != nullptr && key->path == charset_key)
        return {charset_, start_code_ == XMLLIB_OK ? "" : standalone_reason(), false};
    if (key != nullptr)
        if (const std::string reason = reason_without_store(*key); !reason.empty())
            return {std::nullopt, reason, is_of_command(*key)};
    if (!load(policies_for(key)) && key != nullptr)
        return {std::nullopt, "the policy \"" + missing_ + "\" is missing or cannot be read", false};
    return {look_up(path), "", false};
}

std::vector<std::string> Store::paths_of(const Key &key) {
    if (!key.is_pattern())
        return {key.path};
    std::set<std::string> paths;
    if (start_code_ == XMLLIB_OK)
        load(policies_for(&key));
    const std::vector<std::string_view> steps = split_steps(key.path);
    const bool by_attribute = std::string_view(key.path).find('@') != std::string_view::npos;
    for (const ZYNXML_XMLDOC &slot : _xmldocs)
        if (slot.doc != nullptr && (slot.type == XMLDOC_TYPE_DEFAULT || !by_attribute))
            collect(key, slot.doc->children, steps, 0, "", paths);
    return paths.empty() ? std::vector<std::string>{key.path}
                         : std::vector<std::string>(paths.begin(), paths.end());
}

} // namespace config
