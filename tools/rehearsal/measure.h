// The performance logs of a rehearsal: the server measures what it does as a resident module of the cluster
// would.
#pragma once

#include "exchange.h"

#include <memory>

namespace rehearsal {

// Rows go to three logs: "group" for failovers, "script" for scripts, "monitor" for notices and clears, one
// for each monitor they told. The response times of the latter go to the metrics collector, too. Rows are
// written on a thread of their own, so that a slow event daemon holds up no answer; a row's end time is that
// of its writing, its response time is exact to a clock tick. When rows begin to be lost, standard error says
// so.
class Measurements {
public:
    // Opens the logs. Throws std::runtime_error that says which one cannot be, and why.
    Measurements();
    ~Measurements(); // writes what was measured and closes the logs
    Measurements(const Measurements &) = delete;
    Measurements &operator=(const Measurements &) = delete;

    // To be called before a request is answered, and when the exchange is done. Any thread.
    void begin(const Exchange &exchange);
    void end(const Exchange &exchange);

private:
    class Running;
    std::unique_ptr<Running> running_;
};

} // namespace rehearsal
