// What is printed of keys.
#include "show.h"

#include "text.h"
#include "verdict.h"
#include "xmllib.h"

#include <algorithm>
#include <vector>

namespace config {
namespace {

constexpr std::size_t path_max = 1023; // bytes; nobody asks for a longer one

// Not every path is one for the store.
bool is_path(const std::string &path) {
    return path.size() <= path_max && path.starts_with("/root/") && !path.ends_with('/') &&
           path.find("//") == path.npos;
}

std::string source_of(const Answered &answered) {
    return answered.found ? describe_place(answered.found->file, answered.found->place) : "built-in default";
}

// With the value of another key where that is taken in its place.
Verdict verdict_of(Store &store, const Key &key, const Answered &answered) {
    if (!answered.found)
        return judge_absence(key, answered);
    const Reading &reading = answered.found->reading;
    Verdict verdict = judge(key, reading);
    const Key *other = find_key("/root/log/log/size");
    if (key.otherwise == Otherwise::log_size && reading.number_code == XMLLIB_OK &&
        !is_in_range(key, reading.number))
        verdict.taken = verdict_of(store, *other, store.answer(other, other->path)).taken;
    return verdict;
}

// What the module works with, for a script.
std::string bare_value(const Key *key, const Answered &answered, const Verdict &verdict) {
    if (key != nullptr && key->kind == Kind::integer)
        return verdict.taken;
    if (answered.found && verdict.severity != Severity::error)
        return printable(answered.found->reading.text, path_max);
    return key != nullptr && key->standard != nullptr ? key->standard : "";
}

std::string line(const char *label, const std::string &text) {
    return "  " + std::string(label) + std::string(10 - std::string_view(label).size(), ' ') + text + '\n';
}

std::string show_reading(const Found &found) {
    const Reading &reading = found.reading;
    return line("value", reading.text_code == XMLLIB_OK ? quoted(reading.text)
                                                        : "none, an element stands in its place") +
           line("from", describe_place(found.file, found.place) + " (" + found.source + ")") +
           line("integer", reading.number_code == XMLLIB_OK ? std::to_string(reading.number) : "no");
}

std::vector<std::string> modules() {
    std::vector<std::string> names;
    const auto add = [&names](const std::string &name) {
        if (std::find(names.begin(), names.end(), name) == names.end())
            names.push_back(name);
    };
    for (const Key &key : all_keys())
        for (const char *name : {"command", "client", "store", "log", "performance log", "metrics"})
            if (key.is_read_by(name))
                add(name);
    for (const char *policy : all_policies())
        add(policy);
    return names;
}

} // namespace

std::optional<Shown> show_path(Store &store, const std::string &path, bool bare) {
    if (!is_path(path))
        return std::nullopt;
    const Key *key = find_key(path);
    const Answered answered = store.answer(key, path);
    Verdict verdict;
    if (key != nullptr)
        verdict = verdict_of(store, *key, answered);
    const bool taken = key != nullptr ? !verdict.taken.starts_with("none") : answered.found.has_value();
    if (bare)
        return Shown{taken ? bare_value(key, answered, verdict) + '\n' : "", taken};
    std::string shown = printable(path, path_max) + '\n';
    shown += answered.found ? show_reading(*answered.found)
                            : line("from", key != nullptr ? "built-in default" : "no file has it");
    if (key == nullptr)
        return Shown{shown + line("taken", "by nobody: no module reads this key"), taken};
    shown += line("taken", verdict.taken);
    if (!verdict.note.empty())
        shown += line("note", verdict.note);
    return Shown{shown + line("range", describe_range(*key)) + line("read by", key->modules), taken};
}

std::optional<std::string> list_keys(Store &store, const std::string &module) {
    const std::vector<std::string> known = modules();
    if (!module.empty() && std::find(known.begin(), known.end(), module) == known.end())
        return std::nullopt;
    std::string listed;
    for (const Key &key : all_keys()) {
        if (!module.empty() && !key.is_read_by(module) && key.policy != module)
            continue;
        const std::vector<std::string> paths = store.paths_of(key);
        for (const std::string &path : paths) {
            const Answered answered = store.answer(&key, path);
            const Verdict verdict = verdict_of(store, key, answered);
            listed += printable(path, path_max) + " = " + verdict.taken + '\t' + source_of(answered);
            listed += (verdict.note.empty() ? "" : '\t' + verdict.note) + '\n';
        }
        if (paths.size() == Store::paths_max)
            listed += std::string(key.path) + ": no more of these are listed\n";
    }
    return listed;
}

std::string show_table() {
    std::string table;
    for (const Key &key : all_keys()) {
        const std::string standard = key.standard != nullptr ? '`' + std::string(key.standard) + '`' : "none";
        table += std::string(key.path) + '\t' + (key.kind == Kind::text ? "text" : "integer") + '\t' +
                 describe_range(key) + '\t' + standard + '\t' + key.policy + '\t' + key.modules + '\n';
    }
    return table;
}

std::string module_names() {
    std::string names;
    for (const std::string &name : modules())
        names += (names.empty() ? "" : ", ") + name;
    return names;
}

} // namespace config
