// zynrehearse: stand-ins for a data transfer server, the event daemon and a metrics collector, to rehearse
// against.
#include "collect.h"
#include "events/daemon.h"
#include "events/table.h"
#include "install_tree.h"
#include "measure.h"
#include "server.h"

#include <CLI/CLI.hpp>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <string_view>
#include <thread>

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
    rehearsal::EventOptions events{};
    std::optional<std::string> set_level{};
    std::optional<std::uint16_t> collect{}; // port
    bool measure = false;
    bool quiet = false;
    bool listens = true; // plays the data transfer server
    bool has_events = false;
};

void declare_events(CLI::App &app, Arguments &arguments) {
    app.add_option(
           "-e,--events", arguments.events.tree,
           "Play the event daemon for the installation in this folder: take the records of the log\n"
           "library at tmp/sockevent there, keep the log files in log/ and the shared level table, and\n"
           "tell where events would go. No data transfer server then, unless --listen is given, too")
        ->type_name("DIR");
    app.add_option("--event-port", arguments.events.port,
                   "Take records at this UDP port of 127.0.0.1, too; 0 picks a free one")
        ->type_name("PORT");
    app.add_flag("--event-queue", arguments.events.queue,
                 "Take records from the message queue of work/ipc/msgq.key, too");
    app.add_option(
           "--set-level", arguments.set_level,
           "Set the log level of a module type for the event daemon of --events DIR that runs already,\n"
           "and end: 1 to 32768, or -1 to write nothing; 0 cannot be set. It takes effect at the next\n"
           "message of running modules and holds until the daemon ends. Goes with --events only")
        ->type_name("TYPE=LEVEL");
}

void declare(CLI::App &app, Arguments &arguments) {
    rehearsal::Options &server = arguments.server;
    app.add_option("-l,--listen", server.addresses, "Addresses to listen on, IPv4 or IPv6; may be repeated")
        ->delimiter(',')
        ->type_name("ADDRESS[,ADDRESS...]")
        ->default_str("127.0.0.1");
    app.add_option("-p,--port", server.port, "Port of every address; 0 picks a free one")
        ->type_name("PORT")
        ->default_str("0");
    app.add_option(
           "--port-file", arguments.port_file,
           "Write the ports into this file once everything is ready, a line each: those of --listen,\n"
           "--event-port and --collect, as far as they are played, in this order")
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
    app.add_flag("-m,--measure", arguments.measure,
                 "Measure failovers, scripts, notices and clears into the performance logs group, script\n"
                 "and monitor, as a resident module does, and pass the monitors' response times to the\n"
                 "metrics collector. It takes an event daemon that runs, and the installation where the\n"
                 "command would find it, whose configuration switches the logs on");
    app.add_flag("-q,--quiet", arguments.quiet, "Print no line for each exchange, record or metric");
    app.add_option("--install-tree", arguments.install_tree,
                   "Lay out an installation of the command in this folder, tell how to use it, and end;\n"
                   "changed settings that are there already stay. Stands alone")
        ->type_name("DIR");
    declare_events(app, arguments);
    app.add_option(
           "--collect", arguments.collect,
           "Play the metrics collector: take StatsD lines at this UDP port of 127.0.0.1 and ::1, and\n"
           "print each, or that it is malformed; 0 picks a free port. No data transfer server then,\n"
           "unless --listen is given, too")
        ->type_name("PORT");
    app.footer(
        "Faults, written [check-|request-|terminate-|all-]NAME[:N]; the prefix chooses which exchange is\n"
        "struck in place of the usual one (for most the request):\n" +
        rehearsal::fault_help() +
        "\nExit status: 0 stopped by SIGINT or SIGTERM, the tree is laid out, or the level set; 1 could not\n"
        "start, lay it out or set it; 2 wrong options.");
}

// What an option goes with, besides being valid by itself.
struct Rule {
    const char *option;
    const char *needs; // has to stand beside it, null for nothing
    bool alone;        // nothing else may
};
constexpr auto rules = std::to_array<Rule>({
    {"--install-tree", nullptr, true},
    {"--set-level", "--events", true},
    {"--event-port", "--events", false},
    {"--event-queue", "--events", false},
});
// With --events or --collect these need --listen: they are of the data transfer server alone.
constexpr auto server_options =
    std::to_array<const char *>({"--port", "--cluster", "--fault", "--script", "--dump", "--measure"});

void check_rule(const CLI::App &app, const Rule &rule) {
    if (rule.needs != nullptr && app.count(rule.needs) == 0)
        throw CLI::ValidationError(rule.option, std::string("needs ") + rule.needs);
    if (!rule.alone)
        return;
    if (rule.needs == nullptr && app.parse_order().size() > 1)
        throw CLI::ValidationError(rule.option, "goes with no other option");
    if (rule.needs != nullptr && app.parse_order().size() > 2)
        throw CLI::ValidationError(rule.option, std::string("goes with ") + rule.needs + " only");
}

void check_roles(const CLI::App &app, Arguments &arguments) {
    for (const Rule &rule : rules)
        if (app.count(rule.option) > 0)
            check_rule(app, rule);
    arguments.has_events = app.count("--events") > 0;
    arguments.listens = (!arguments.has_events && !arguments.collect) || app.count("--listen") > 0;
    if (arguments.listens)
        return;
    for (const char *option : server_options)
        if (app.count(option) > 0)
            throw CLI::ValidationError(option, "needs --listen beside --events or --collect");
    if (app.count("--port-file") > 0 && !arguments.events.port && !arguments.collect)
        throw CLI::ValidationError("--port-file",
                                   "needs --listen, --event-port or --collect beside --events");
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
void write_ports(const std::filesystem::path &file, const std::vector<unsigned> &ports) {
    std::filesystem::path fresh = file;
    fresh += ".new";
    std::ofstream out(fresh);
    for (const unsigned port : ports)
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

// Tells where the data transfer server listens.
void tell_server(const rehearsal::Server &server) {
    for (const std::string &address : server.addresses()) {
        std::cout << "listening on " << address << " port " << server.port() << '\n';
    }
    std::cout.flush();
}

// What is played beside the server, on a thread of its own: the server's own records come to it while logs
// are opened and closed.
class SideRoles {
public:
    explicit SideRoles(Arguments &arguments) {
        const int journal = arguments.quiet ? -1 : STDOUT_FILENO;
        arguments.events.journal = journal;
        if (arguments.has_events)
            events_.emplace(io_, arguments.events);
        if (arguments.collect)
            collector_.emplace(io_, *arguments.collect, journal);
        thread_ = std::thread([this] { io_.run(); });
    }
    ~SideRoles() {
        io_.stop();
        thread_.join();
    }
    SideRoles(const SideRoles &) = delete;
    SideRoles &operator=(const SideRoles &) = delete;

    void tell(std::vector<unsigned> &ports) const {
        if (events_)
            events_->tell(std::cout);
        if (events_ && events_->port() != 0)
            ports.push_back(events_->port());
        if (collector_) {
            collector_->tell(std::cout);
            ports.push_back(collector_->port());
        }
    }

private:
    asio::io_context io_;
    std::optional<rehearsal::EventDaemon> events_;
    std::optional<rehearsal::Collector> collector_;
    std::thread thread_;
};

void start_measuring(std::optional<rehearsal::Measurements> &measurements, rehearsal::Options &server) {
    measurements.emplace();
    server.hook = [&measurements](const rehearsal::Exchange &exchange) {
        measurements->begin(exchange);
        return std::nullopt;
    };
    server.observer = [&measurements](const rehearsal::Exchange &exchange) { measurements->end(exchange); };
}

int serve(Arguments &arguments) {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    asio::io_context io;
    asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&io](const asio::error_code &, int) { io.stop(); });
    rehearsal::raise_descriptor_limit();

    const SideRoles side(arguments);
    std::optional<rehearsal::Measurements> measurements;
    if (arguments.measure)
        start_measuring(measurements, arguments.server);
    std::vector<unsigned> ports;
    arguments.server.record = false;
    arguments.server.journal = arguments.quiet ? -1 : STDOUT_FILENO;
    rehearsal::Server server(std::move(arguments.server));
    if (arguments.listens) {
        server.start();
        tell_server(server);
        ports.push_back(server.port());
    }
    side.tell(ports);
    if (!arguments.port_file.empty()) {
        write_ports(arguments.port_file, ports);
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
        "for a pretended cluster, so that a drill can be rehearsed without a real one. With --events a\n"
        "stand-in event daemon, which takes the records of the log library, with --collect a stand-in\n"
        "metrics collector.",
        "zynrehearse");
    Arguments arguments;
    declare(app, arguments);
    try {
        app.parse(argc, argv);
        check_roles(app, arguments);
        split_faults(arguments);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : exit_usage;
    }
    try {
        if (arguments.install_tree) {
            rehearsal::lay_out_tree(*arguments.install_tree, std::cout);
            return 0;
        }
        if (arguments.set_level) {
            std::cout << rehearsal::set_level(arguments.events.tree, *arguments.set_level) << '\n';
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
