// zynconfig: a look into the configuration, with the store that the command reads it with.
#include "check.h"
#include "names.h"
#include "show.h"
#include "text.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>

namespace {

constexpr int exit_none = 1;               // get: nothing is taken; check: warnings
constexpr int exit_errors = 2;             // check
constexpr int exit_usage = 3;              // the options, or the output
constexpr std::size_t directory_max = 900; // bytes; the store takes 1023 with what it puts behind them

struct Arguments {
    std::string root;
    std::string path;
    std::string module;
    bool bare = false;
};

int fail(const std::string &text) {
    std::cerr << "zynconfig: " << text << '\n';
    return exit_usage;
}

int print(const std::string &text, int status) {
    std::cout << text << std::flush;
    return std::cout ? status : fail("cannot write to standard output");
}

int run_get(config::Store &store, const Arguments &arguments) {
    const std::optional<config::Shown> shown = config::show_path(store, arguments.path, arguments.bare);
    if (!shown)
        return fail(config::quoted(arguments.path) +
                    " is no path: one is /root/NAME..., as /root/rexec/cmdto");
    return print(shown->text, shown->taken ? 0 : exit_none);
}

int run_list(config::Store &store, const Arguments &arguments) {
    const std::optional<std::string> listed = config::list_keys(store, arguments.module);
    if (!listed)
        return fail(config::quoted(arguments.module) + " is no module: there are " + config::module_names());
    return print(*listed, 0);
}

int run_names(const config::Store &store, const Arguments &arguments) {
    const std::optional<std::string> listed = config::list_names(store, arguments.module);
    if (!listed)
        return fail(config::quoted(arguments.module) + " is no kind of names: there are " +
                    config::name_kinds());
    return print(*listed, 0);
}

int run_check(config::Store &store) {
    const config::Report report = config::check(store);
    return print(report.text, report.errors > 0 ? exit_errors : report.warnings > 0 ? exit_none : 0);
}

// An absolute path: the store forms others from it.
std::string directory_of(const std::string &root) {
    const std::filesystem::path path = std::filesystem::absolute(root).lexically_normal();
    return !path.has_filename() && path.has_relative_path() ? path.parent_path() : path;
}

int run(const CLI::App &app, const Arguments &arguments) {
    if (app.got_subcommand("keys"))
        return print(config::show_table(), 0);
    const bool elsewhere = app.count("--root") > 0;
    const std::string directory = arguments.root.empty() ? "" : directory_of(arguments.root);
    if (elsewhere && (directory.empty() || directory.size() > directory_max))
        return fail("--root: a directory of at most " + std::to_string(directory_max) + " bytes is needed");
    const config::Watch watch;
    config::Store store(elsewhere ? directory.c_str() : nullptr);
    if (app.got_subcommand("check"))
        return run_check(store);
    if (app.got_subcommand("names"))
        return run_names(store, arguments);
    const int status = app.got_subcommand("get") ? run_get(store, arguments) : run_list(store, arguments);
    if (const std::string &reason = store.standalone_reason(); status < exit_usage && !reason.empty())
        std::cerr << "zynconfig: in " << config::printable(store.directory(), directory_max)
                  << " the command runs standalone: " << reason << '\n';
    return status;
}

void declare(CLI::App &app, Arguments &arguments) {
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option(
           "--root", arguments.root,
           "Look at the installation in this directory, such as one of zynrehearse --install-tree, in\n"
           "place of the one that the command finds")
        ->type_name("DIR");
    CLI::App *get = app.add_subcommand(
        "get", "Tell what is known of one key: its value, where it stands, and what becomes of it");
    get->add_option("PATH", arguments.path, "The key, as /root/rexec/cmdto")->required()->type_name("");
    get->add_flag("-b,--bare", arguments.bare, "Print what the module works with, and nothing else");
    CLI::App *list =
        app.add_subcommand("list", "Print every known key with the value in force and where it stands");
    list->add_option("MODULE", arguments.module,
                     "Keys of this module or policy only: " + config::module_names())
        ->type_name("");
    app.add_subcommand("check",
                       "Read the configuration and all policies, and print a line FILE:LINE:COLUMN: "
                       "error|warning|info: TEXT\nfor each finding; 0:0 where there is no place in the file");
    app.add_subcommand(
        "keys", "Print the table of keys: path, type, range, default, policy, modules, parted by tabs");
    CLI::App *names = app.add_subcommand(
        "names", "Print what the shells complete words with, from files of this host alone: those of the\n"
                 "installation (its configuration and its directory scripts) and /etc/hosts");
    names->add_option("KIND", arguments.module, "One of: " + config::name_kinds())->required()->type_name("");
    app.footer(
        "A file is looked at once, where the command tries one that it cannot read three times.\n\n"
        "Exit status: 0 the key has a value or a default, all is listed, or nothing is to be found fault\n"
        "with (infos aside); 1 get: there is neither, check: warnings; 2 check: errors; 3 wrong options, or\n"
        "standard output cannot be written.");
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app("Shows the configuration of zynrexec as the command and the libraries around it read it, "
                 "and what is\n"
                 "wrong with it. It changes nothing.",
                 "zynconfig");
    Arguments arguments;
    declare(app, arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : exit_usage;
    }
    try {
        return run(app, arguments);
    } catch (const std::exception &error) {
        return fail(error.what());
    }
}
