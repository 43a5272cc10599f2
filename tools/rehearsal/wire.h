// Packets and payloads of the data transfer protocol as plain records, and their bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace rehearsal {

using Bytes = std::vector<unsigned char>;

inline constexpr std::size_t header_size = 76; // bytes of every packet's header

// A packet header. Texts hold what stands before the first NUL, at most the field's width.
struct Header {
    std::string magic{};           // 8 bytes on the wire
    std::string version{};         // 16
    std::string edition{};         // 16
    std::string cluster_version{}; // 16
    std::int32_t code = 0;
    std::int32_t seq = 0;
    std::int32_t status = 0;
    std::uint32_t allsize = 0;
    std::uint32_t size = 0;
};

enum class RequestKind {
    check,     // connection check
    terminate, // farewell
    failover,
    script,
    notice,
    clear,
    unknown_id,   // execute-parameter request with an identifier that no server function has
    unknown_code, // a request code that this server does not serve
};

// One decoded request; fields that its kind does not have stay empty.
struct Request {
    Header header{};
    RequestKind kind = RequestKind::unknown_code;
    std::string id{};
    std::int32_t limiter = 0;
    std::string group{};    // failover: by group, or
    std::string resource{}; // by resource
    std::string script{};
    std::string monitor{};    // notice and clear: by monitor name, or
    std::string category{};   // by category and, unless empty,
    std::string keyword{};    // keyword
    std::int32_t timeout = 0; // seconds; failover and script
    std::int32_t monnum = 0;  // notice and clear
};

// One monitor of a notice or clear answer.
struct MonitorResult {
    std::string name{};
    std::int32_t acttype = 0;
    std::int32_t action = 0;
    std::int32_t result = 0;
    std::int32_t preaction_status = 0;
    std::int32_t preaction_exitcode = 0;
};

// What came of a request, beyond its status.
struct Outcome {
    std::optional<std::int32_t> exitcode{}; // of a script that ended
    std::vector<MonitorResult> monitors{};  // those that were told, in the order of the cluster
};

// Decodes the header_size bytes at `bytes`.
Header decode_header(std::span<const unsigned char, header_size> bytes);

// Says what makes a request's header unacceptable (magic word, length of the variable part);
// empty when it is in order.
std::string header_problem(const Header &header);

// Decodes the variable part `body` of the request that `header` announced into `request`. Every length
// in it is held against the bytes that are there. Returns what is wrong with it, empty when in order.
std::string decode_request(const Header &header, std::span<const unsigned char> body, Request &request);

// Word for a kind, as the cluster file and the journal use it.
std::string_view kind_name(RequestKind kind);
// One line about a request and its fields, with control characters made harmless.
std::string describe(const Request &request);

// The header's 76 bytes; a text longer than its field is cut, one that fills it gets no NUL.
Bytes encode_header(const Header &header);
// Variable part of an execute-parameter answer: return value 0, the length, the payload.
Bytes encode_answer_body(const Bytes &payload);
// What it carries; empty when there is nothing.
Bytes encode_outcome(const Outcome &outcome);

// Writes `value` big-endian over the four bytes at `offset`, which must lie inside `bytes`.
void put_u32(Bytes &bytes, std::size_t offset, std::uint32_t value);

} // namespace rehearsal
