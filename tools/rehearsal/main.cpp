// zynrehearse: a stand-in data transfer server to rehearse against.
#include "install_tree.h"
#include "server.h"

#include <CLI/CLI.hpp>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int exit_failed = 1;
constexpr int exit_usage = 2;

struct Arguments {
    rehearsal::Options server{};
    std::vector<std::string> faults{};
    std::filesystem::path port_file{};
    std::optional<std::filesystem::path> install_tree{};
    bool quiet = false;
};

void declare(CLI::App &app, Arguments &arguments) {
    rehearsal::Options &server = arguments.server;
    app.add_option("-l,--listen", server.addresses, "Addresses to listen on, IPv4 or IPv6; may be repeated")
        ->delimiter(',')
        ->type_name("ADDRESS[,ADDRESS...]")
        ->default_str("127.0.0.1");
    app.add_option("-p,--port", server.port, "Port of every address; 0 picks a free one")
        ->type_name("PORT")
        ->default_str("0");
    app.add_option("--port-file", arguments.port_file,
                   "Write the port into this file once the server is ready")
        ->type_name("FILE");
    app.add_option("-c,--cluster", server.cluster_file,
                   "The pretended cluster, an XML file; without it the cluster is empty")
        ->type_name("FILE");
    app.add_option("-f,--fault", arguments.faults,
                   "Let the server at an address show a fault, listed below; may be repeated")
        ->type_name("ADDRESS=FAULT")
        ->allow_extra_args(false);
    app.add_flag("--script", server.real_scripts,
                 "Really run the scripts of the cluster's script directory, in place of pretending to");
    app.add_option("--dump", server.dumps,
                   "Write the bytes of each packet into numbered files of this folder")
        ->type_name("DIR");
    app.add_flag("-q,--quiet", arguments.quiet, "Print no line for each exchange");
    app.add_option("--install-tree", arguments.install_tree,
                   "Lay out an installation of the command in this folder, tell how to use it, and end;\n"
                   "changed settings that are there already stay. Stands alone")
        ->type_name("DIR");
    app.footer(
        "Faults, written [check-|request-|terminate-|all-]NAME[:N]; the prefix chooses which exchange is\n"
        "struck in place of the usual one (for most the request):\n" +
        rehearsal::fault_help() +
        "\nExit status: 0 stopped by SIGINT or SIGTERM, or the tree is laid out; 1 could not start, or\n"
        "could not lay it out; 2 wrong options.");
}

void check_alone(const CLI::App &app) {
    if (app.count("--install-tree") > 0 && app.parse_order().size() > 1) {
        throw CLI::ValidationError("--install-tree", "goes with no other option");
    }
}

// Splits ADDRESS=FAULT at the first equals sign.
void split_faults(Arguments &arguments) {
    for (const std::string &one : arguments.faults) {
        const std::size_t equals = one.find('=');
        if (equals == one.npos) {
            throw CLI::ValidationError("--fault", "\"" + one + "\" is not of the form ADDRESS=FAULT");
        }
        arguments.server.faults.emplace_back(one.substr(0, equals), one.substr(equals + 1));
    }
}

// The name appears only with the whole content, so that a reader never sees half a number.
void write_port(const std::filesystem::path &file, unsigned port) {
    std::filesystem::path fresh = file;
    fresh += ".new";
    std::ofstream out(fresh);
    out << port << '\n';
    if (out.close(); !out) {
        throw std::runtime_error("cannot write " + fresh.string());
    }
    std::filesystem::rename(fresh, file);
}

// Without this a socket could become standard output, and a peer receive the journal.
void fill_standard_descriptors() {
    for (int opened = 0; opened >= 0 && opened <= STDERR_FILENO;) {
        opened = ::open("/dev/null", O_RDWR);
        if (opened > STDERR_FILENO) {
            ::close(opened);
        }
    }
}

int serve(Arguments &arguments) {
    std::signal(SIGPIPE, SIG_IGN);
    asio::io_context io;
    asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([](const asio::error_code &, int) {});
    rehearsal::raise_descriptor_limit();

    arguments.server.record = false;
    arguments.server.journal = arguments.quiet ? -1 : STDOUT_FILENO;
    rehearsal::Server server(std::move(arguments.server));
    server.start();
    for (const std::string &address : server.addresses()) {
        std::printf("listening on %s port %u\n", address.c_str(), unsigned{server.port()});
    }
    std::fflush(stdout);
    if (!arguments.port_file.empty()) {
        write_port(arguments.port_file, server.port());
    }
    io.run(); // until a signal comes
    server.stop();
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    fill_standard_descriptors();
    CLI::App app(
        "A stand-in data transfer server: answers check, failover, script, notice, clear and farewell\n"
        "for a pretended cluster, so that a drill can be rehearsed without a real one.",
        "zynrehearse");
    Arguments arguments;
    declare(app, arguments);
    try {
        app.parse(argc, argv);
        check_alone(app);
        split_faults(arguments);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : exit_usage;
    }
    try {
        if (arguments.install_tree) {
            rehearsal::lay_out_tree(*arguments.install_tree, std::cout);
            return 0;
        }
        return serve(arguments);
    } catch (const std::invalid_argument &error) {
        std::cerr << "zynrehearse: " << error.what() << '\n';
        return exit_usage;
    } catch (const std::exception &error) {
        std::cerr << "zynrehearse: " << error.what() << '\n';
        return exit_failed;
    }
}
