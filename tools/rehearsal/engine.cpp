// Brings the options into one form and answers for all connections.
#include "engine.h"

#include <algorithm>
#include <stdexcept>

namespace rehearsal {
namespace {

Options prepared(Options options) {
    if (options.addresses.empty()) {
        throw std::invalid_argument("there is no address to listen on");
    }
    std::set<std::string> seen;
    for (std::string &address : options.addresses) {
        address = canonical_address(address);
        if (!seen.insert(address).second) {
            throw std::invalid_argument("the address " + address + " is given twice");
        }
    }
    if (!options.cluster_file.empty()) {
        options.cluster = load_cluster(options.cluster_file);
    }
    return options;
}

FaultMap all_faults(const Options &options) {
    FaultMap faults = options.cluster.faults;
    for (const auto &[text, fault] : options.faults) {
        const std::string address = canonical_address(text);
        if (std::ranges::count(options.addresses, address) == 0) {
            throw std::invalid_argument("a fault is asked of " + address + ", which is not listened on");
        }
        faults[address].push_back(parse_fault(fault));
    }
    return faults;
}

} // namespace

Engine::Engine(Options options)
    : options_(prepared(std::move(options))), journal_(options_.journal, options_.dumps),
      faults_(all_faults(options_)), cluster_(options_.cluster) {}

const std::vector<Fault> &Engine::faults(const std::string &server) const {
    static const std::vector<Fault> none;
    const auto found = faults_.find(server);
    return found == faults_.end() ? none : found->second;
}

std::optional<RawAnswer> Engine::ask_hook(const Exchange &exchange) const {
    return options_.hook ? options_.hook(exchange) : std::nullopt;
}

Decision Engine::ask_cluster(const Exchange &exchange) {
    const std::lock_guard lock(mutex_);
    return decide(cluster_, exchange.request, exchange.server, exchange.client, options_.real_scripts);
}

RawAnswer Engine::answer(const Exchange &exchange, const Decision &decision) {
    // Only what the lock need not guard: the texts that every header carries.
    Outgoing out = compose(options_.cluster, exchange.request, decision);
    apply_faults(faults(exchange.server), exchange.request, out);
    return finish(std::move(out));
}

std::size_t Engine::arrived(const Exchange &exchange) {
    return options_.record ? recorder_.add(exchange) : 0;
}

void Engine::done(std::size_t number, const Exchange &exchange) {
    if (options_.record) {
        recorder_.update(number, exchange);
    }
    if (options_.observer) { // before whatever the reader of the journal holds up
        options_.observer(exchange);
    }
    journal_.exchange(exchange);
}

} // namespace rehearsal
