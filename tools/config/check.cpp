// Files first, in the order of their names, and then what only the whole of them shows.
#include "check.h"

#include "text.h"
#include "verdict.h"
#include "walk.h"
#include "xmlin/file.h"
#include "xmllib.h"

#include <algorithm>
#include <array>
#include <filesystem>

namespace config {
namespace {

namespace fs = std::filesystem;

constexpr int findings_max = 200; // of one file

// A value that is of no use without another key.
struct Need {
    const char *path;
    std::int32_t low; // the values that it is about
    std::int32_t high;
    const char *needed;  // counts as absent with an integer 0, too
    const char *without; // what happens then
    Severity severity;
};
constexpr auto needs = std::to_array<Need>({
    {"/root/statsd/mode", 1, 2, "/root/statsd/server/host", "no metric is sent", Severity::error},
    {"/root/statsd/mode", 2, 2, "/root/statsd/metrics/monitor_response_time/custom_tag", "no metric is sent",
     Severity::error},
    {"/root/cluster/event/method", 1, 1, "/root/cluster/event/port", "the socket is used", Severity::warning},
});

bool is_known(const std::string &policy) {
    return std::any_of(all_policies().begin(), all_policies().end(),
                       [&](const char *known) { return policy == known; });
}

class Check {
public:
    explicit Check(Store &store) : store_(store) {}

    Report run() {
        if (std::error_code error; !fs::is_directory(store_.directory() + "/etc", error)) {
            begin(store_.directory() + "/etc");
            tell({0, 0}, Severity::error, "no installation is here: the command runs standalone");
        } else {
            check_file(store_.configuration(), {nullptr}, true);
            for (const std::string &directory : policy_directories())
                check_directory(directory);
            check_policies();
            check_keys();
            check_needs();
        }
        report_.text += "zynconfig: " + printable(store_.directory(), 4096) + ": " +
                        count(report_.errors, "error") + ", " + count(report_.warnings, "warning") + ", " +
                        count(report_.infos, "info") + '\n';
        return report_;
    }

private:
    static std::string count(int number, const char *what) {
        return std::to_string(number) + ' ' + what + (number == 1 ? "" : "s");
    }

    void begin(const std::string &file) {
        file_ = file;
        told_ = 0;
    }

    void tell(Place place, Severity severity, const std::string &text) {
        const bool error = severity == Severity::error;
        const bool warning = severity == Severity::warning;
        ++(error ? report_.errors : warning ? report_.warnings : report_.infos);
        if (++told_ > findings_max)
            return;
        report_.text += describe_place(file_, place) + ": " +
                        (error     ? "error: "
                         : warning ? "warning: "
                                   : "info: ") +
                        text + '\n';
        if (told_ == findings_max)
            report_.text +=
                describe_place(file_, place) + ": info: what follows in this file is counted only\n";
    }

    void check_file(const std::string &file, FileKind kind, bool content) {
        begin(file);
        const Look look = look_at(file);
        for (const Problem &problem : look.problems)
            tell(problem.place, problem.fatal ? Severity::error : Severity::warning, problem.text);
        if (look.document != nullptr && content)
            walk_document(look.document.get(), kind,
                          [this](Place place, Severity severity, const std::string &text) {
                              tell(place, severity, text);
                          });
    }

    // etc/policy and etc/policy.CHARSET for every charset, each with a "/" at its end.
    std::vector<std::string> policy_directories() const {
        std::vector<std::string> found;
        std::error_code error;
        for (fs::directory_iterator at(store_.directory() + "/etc", error), end; !error && at != end;
             at.increment(error)) {
            const std::string name = at->path().filename();
            if (name == "policy" || name.starts_with("policy."))
                for (std::string directory : _policypath)
                    found.push_back(
                        directory.replace(directory.find("%s", store_.directory().size()), 2, name));
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    void check_directory(const std::string &directory) {
        std::vector<std::string> names;
        std::error_code error;
        for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error))
            if (at->path().extension() == ".pol")
                names.push_back(at->path().stem());
        if (error && error != std::errc::no_such_file_or_directory) {
            begin(directory);
            tell({0, 0}, Severity::error, "cannot be listed: " + error.message());
        }
        std::sort(names.begin(), names.end());
        for (const std::string &name : names)
            check_policy(directory + name + ".pol", name);
    }

    void check_policy(const std::string &file, const std::string &name) {
        const std::string read = store_.policy_file(name);
        const bool known = is_known(name);
        check_file(file, {name.c_str()}, known);
        if (!known)
            tell({0, 0}, Severity::info,
                 "no module of this version reads the policy " + config::quoted(name));
        else if (read != file)
            tell({0, 0}, Severity::info, "not read: " + printable(read, 4096) + " goes before it");
    }

    void check_policies() {
        for (const char *name : all_policies()) {
            const std::string file = store_.policy_file(name);
            begin(file.empty() ? store_.directory() + "/etc/policy/" + name + ".pol" : file);
            if (file.empty())
                tell({0, 0}, Severity::error,
                     std::string("the policy \"") + name + "\" is missing" +
                         (name == std::string_view("trnsv") ? ": nothing is sent" : ""));
        }
        begin(store_.configuration());
        if (const std::string &reason = store_.standalone_reason(); !reason.empty())
            tell({0, 0}, Severity::error,
                 "the command runs standalone, with its built-in defaults: " + reason);
    }

    // Keys that no file has. Where a module does without the store, that has been told already.
    void check_keys() {
        for (const Key &key : all_keys()) {
            if (key.is_pattern())
                continue;
            const Answered answered = store_.answer(&key, key.path);
            if (answered.found || !answered.reason.empty())
                continue;
            begin(store_.policy_file(key.policy));
            const Verdict verdict = judge_absence(key, answered);
            if (verdict.severity != Severity::none)
                tell({0, 0}, verdict.severity,
                     std::string(key.path) + " is not set: taken is " +
                         (verdict.severity == Severity::info ? "the built-in default, " : "") +
                         verdict.taken);
        }
    }

    Answered answer(const char *path) { return store_.answer(find_key(path), path); }

    void check_needs() {
        for (const Need &need : needs) {
            const Answered value = answer(need.path);
            if (!value.found || value.found->reading.number_code != XMLLIB_OK ||
                value.found->reading.number < need.low || value.found->reading.number > need.high)
                continue;
            const Answered needed = answer(need.needed);
            const bool integer = find_key(need.needed)->kind == Kind::integer;
            if (needed.found && !(integer && needed.found->reading.number == 0))
                continue;
            begin(value.found->file);
            tell(value.found->place, need.severity,
                 std::string(need.path) + " " + std::to_string(value.found->reading.number) + " needs " +
                     need.needed + ", which is not set: " + need.without);
        }
    }

    Store &store_;
    Report report_;
    std::string file_;
    int told_ = 0;
};

} // namespace

Report check(Store &store) {
    return Check(store).run();
}

} // namespace config
