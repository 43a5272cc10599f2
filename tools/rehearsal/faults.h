// Faults that a server shows on request: which exchange they strike and what they do to its answer.
//
// A fault is written [check-|request-|terminate-|all-]NAME[:ARGUMENT]. The prefix says which exchange
// it strikes; without one it strikes what its row in the table says, mostly the request.
#pragma once

#include "wire.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace rehearsal {

// What happens to the connection once an answer has gone out.
enum class After { keep, close, reset };

// An answer as it goes out: bytes, when, how fast, and what follows.
struct RawAnswer {
    Bytes bytes{}; // empty: nothing is sent
    After after = After::keep;
    std::chrono::milliseconds delay{0}; // before the first byte
    std::chrono::milliseconds gap{0};   // between single bytes; 0 sends all at once
};

// Where an answer is cut off.
enum class Cut { none, before_header, in_header, after_header, in_body };

// An answer under construction; faults change it before it becomes bytes.
struct Outgoing {
    Header header{};
    Bytes body{};
    Cut cut = Cut::none;
    After after = After::keep;
    std::chrono::milliseconds delay{0};
    std::chrono::milliseconds gap{0};
};

// Which exchanges a fault strikes; `listener` strikes before there is any.
enum class Scope { check, request, terminate, all, listener };

struct FaultRow;

struct Fault {
    const FaultRow *row = nullptr; // of the fault table; lives for ever
    Scope scope = Scope::request;
    std::int64_t argument = 0;
};

using FaultMap = std::map<std::string, std::vector<Fault>>; // by listening address

// Parses one fault. Throws std::invalid_argument that says what is wrong with `text`.
Fault parse_fault(std::string_view text);

// The faults that there are, one a line, for a help text.
std::string fault_help();

// Whether the address is only reserved, so that connections to it are refused.
bool refuses(const std::vector<Fault> &faults);

// Applies, in their order, the faults that strike this kind of request.
void apply_faults(const std::vector<Fault> &faults, const Request &request, Outgoing &answer);

// The bytes of an answer, cut where it says. A cut behind the header or inside the body of an answer
// that has no body announces one first, so that the cut falls inside the answer.
RawAnswer finish(Outgoing answer);

} // namespace rehearsal
