// What all connections of a server share: the cluster under its lock, the faults and the records.
#pragma once

#include "answer.h"
#include "journal.h"
#include "server.h"

#include <mutex>

namespace rehearsal {

// All functions may be called by any thread once the constructor is done.
class Engine {
public:
    // Reads the cluster and makes all addresses canonical. Throws std::invalid_argument for wrong options,
    // std::runtime_error for a wrong cluster file.
    explicit Engine(Options options);

    const Options &options() const { return options_; }
    Recorder &recorder() { return recorder_; }
    const Recorder &recorder() const { return recorder_; }
    const std::vector<Fault> &faults(const std::string &server) const;

    // The hook's answer; nothing when there is no hook or it leaves the answer to the cluster.
    std::optional<RawAnswer> ask_hook(const Exchange &exchange) const;
    Decision ask_cluster(const Exchange &exchange);
    // The decision as bytes, changed by the faults of the server.
    RawAnswer answer(const Exchange &exchange, const Decision &decision);

    // Records a request that arrived, and later what became of it under the returned number.
    std::size_t arrived(const Exchange &exchange);
    void done(std::size_t number, const Exchange &exchange);

private:
    Options options_;
    Recorder recorder_;
    Journal journal_;
    FaultMap faults_;
    std::mutex mutex_;
    Cluster cluster_; // its state is guarded by mutex_
};

} // namespace rehearsal
