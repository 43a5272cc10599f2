// The table of faults, and how they change an answer.
#include "faults.h"

#include "trans.h"
#include "trnsv.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <optional>
#include <stdexcept>

namespace rehearsal {

struct FaultRow {
    std::string_view name;
    Scope scope;                        // what it strikes without a prefix
    bool prefixed;                      // whether a prefix may choose another scope
    std::int64_t least, most;           // limits of the argument; most < least: takes none
    std::optional<std::int64_t> preset; // without an argument; none: the argument must be given
    void (*apply)(Outgoing &answer, const Request &request, std::int64_t argument);
    std::string_view help;
};

namespace {

constexpr std::size_t envelope = sizeof(TRANS_RES_EXEC_PARAM_INFO);
constexpr std::size_t monitors_at = envelope + 264; // first monitor of a notice or clear answer
constexpr std::int64_t day_ms = 86'400'000;
constexpr std::int64_t int_min = std::numeric_limits<std::int32_t>::min();
constexpr std::int64_t int_max = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t uint_max = std::numeric_limits<std::uint32_t>::max();

void set_body(Outgoing &answer, Bytes body) {
    answer.body = std::move(body);
    answer.header.size = answer.header.allsize = static_cast<std::uint32_t>(answer.body.size());
}

template <Cut where, After then>
void cut(Outgoing &answer, const Request &, std::int64_t) {
    answer.cut = where;
    answer.after = then;
}

void stay_silent(Outgoing &answer, const Request &, std::int64_t) {
    answer.cut = Cut::before_header;
}

void change_status(Outgoing &answer, const Request &, std::int64_t status) {
    set_body(answer, {});
    answer.header.status = static_cast<std::int32_t>(status);
}

void announce_size(Outgoing &answer, const Request &, std::int64_t size) {
    answer.header.size = answer.header.allsize = static_cast<std::uint32_t>(size);
}

// Really sends what it announces, so that a reader that does not mind gets a whole answer.
void send_oversized(Outgoing &answer, const Request &, std::int64_t size) {
    answer.body.resize(static_cast<std::size_t>(size));
    announce_size(answer, {}, size);
}

void shorten_body(Outgoing &answer, const Request &, std::int64_t size) {
    answer.header.status = TRANS_RES_STAT_SUCCESS;
    answer.body.resize(static_cast<std::size_t>(size));
    answer.header.size = static_cast<std::uint32_t>(size);
    answer.header.allsize = envelope;
}

void lie_inner(Outgoing &answer, const Request &, std::int64_t surplus) {
    Bytes body = answer.body;
    body.resize(std::max(body.size(), envelope));
    put_u32(body, 4, static_cast<std::uint32_t>(static_cast<std::int64_t>(body.size() - envelope) + surplus));
    set_body(answer, std::move(body));
}

void lie_monnum(Outgoing &answer, const Request &request, std::int64_t count) {
    const bool monitors = request.kind == RequestKind::notice || request.kind == RequestKind::clear;
    if (monitors && answer.body.size() >= monitors_at) {
        put_u32(answer.body, envelope, static_cast<std::uint32_t>(count));
    }
}

// The magic word keeps its NUL, since the answer would not be read any further without it.
void leave_unterminated(Outgoing &answer, const Request &request, std::int64_t) {
    answer.header.version = std::string(TRANS_VERSION_LEN, 'V');
    answer.header.edition = std::string(TRANS_VERSION_LEN, 'E');
    answer.header.cluster_version = std::string(TRANS_VERSION_LEN, 'C');
    if (request.kind != RequestKind::notice && request.kind != RequestKind::clear) {
        return;
    }
    for (std::size_t at = monitors_at; at + sizeof(TRNSV_MRW_OUT_INFO) <= answer.body.size();
         at += sizeof(TRNSV_MRW_OUT_INFO)) {
        std::fill_n(answer.body.begin() + static_cast<std::ptrdiff_t>(at), TRNSV_NAME_LEN, 'N');
    }
}

void set_late(Outgoing &answer, const Request &, std::int64_t ms) {
    answer.delay += std::chrono::milliseconds{ms};
}
void set_drip(Outgoing &answer, const Request &, std::int64_t ms) {
    answer.gap = std::chrono::milliseconds{ms};
}
void set_code(Outgoing &answer, const Request &, std::int64_t code) {
    answer.header.code = static_cast<std::int32_t>(code);
}
void wrong_magic(Outgoing &answer, const Request &, std::int64_t) {
    answer.header.magic = "x_trnsv";
}
void endless_magic(Outgoing &answer, const Request &, std::int64_t) {
    answer.header.magic = "l_trnsvX";
}
void nothing(Outgoing &, const Request &, std::int64_t) {}

using enum Scope;
using enum Cut;
using enum After;

// clang-format off
constexpr std::array<FaultRow, 27> rows{{
    {"refuse", listener, false, 1, 0, 0, nothing, "the address is reserved, but connections are refused"},
    {"silent", all, true, 1, 0, 0, stay_silent, "accepts, reads and never answers"},
    {"silent-request", request, false, 1, 0, 0, stay_silent, "answers the check and the farewell only"},
    {"late", request, true, 0, day_ms, {}, set_late, "answers after so many milliseconds"},
    {"drip", request, true, 1, day_ms, {}, set_drip, "sends single bytes, so many milliseconds apart"},
    {"close-before", request, true, 1, 0, 0, cut<before_header, close>, "closes instead of answering"},
    {"close-header", request, true, 1, 0, 0, cut<in_header, close>, "closes inside the header"},
    {"close-after-header", request, true, 1, 0, 0, cut<after_header, close>, "closes between header and body"},
    {"close-body", request, true, 1, 0, 0, cut<in_body, close>, "closes inside the body"},
    {"close-after", request, true, 1, 0, 0, cut<none, close>, "closes after the whole answer"},
    {"reset-before", request, true, 1, 0, 0, cut<before_header, reset>, "resets instead of answering"},
    {"reset-header", request, true, 1, 0, 0, cut<in_header, reset>, "resets inside the header"},
    {"reset-after-header", request, true, 1, 0, 0, cut<after_header, reset>, "resets between header and body"},
    {"reset-body", request, true, 1, 0, 0, cut<in_body, reset>, "resets inside the body"},
    {"reset-after", request, true, 1, 0, 0, cut<none, reset>, "resets after the whole answer"},
    {"wrong-magic", request, true, 1, 0, 0, wrong_magic, "answers with an unknown magic word"},
    {"unterminated-magic", request, true, 1, 0, 0, endless_magic, "the magic word goes on to its field's end"},
    {"wrong-code", request, true, int_min, int_max, 99, set_code, "answers with that response code (99)"},
    {"oversized", request, true, 0, 64'000'000, 500001, send_oversized, "announces and sends that many bytes (500001)"},
    {"huge-size", request, true, 0, uint_max, uint_max, announce_size, "announces that many bytes (4294967295)"},
    {"short-body", request, true, 0, 7, 4, shorten_body, "a successful answer with that many bytes of body (4)"},
    {"lie-inner", request, true, 1, int_max, 1, lie_inner, "the body announces that many bytes too many (1)"},
    {"lie-monnum", request, true, int_min, int_max, {}, lie_monnum, "announces that many monitors"},
    {"negative-monnum", request, true, 1, 0, -1, lie_monnum, "announces -1 monitors"},
    {"unterminated", request, true, 1, 0, 0, leave_unterminated, "texts fill their fields without a NUL"},
    {"busy", check, true, 1, 0, TRANS_RES_STAT_FAIL_BUSY, change_status, "answers that it is busy"},
    {"status", request, true, int_min, int_max, {}, change_status, "answers with that status and no data"},
}};
// clang-format on

struct Prefix {
    std::string_view text;
    Scope scope;
};

constexpr std::array<Prefix, 4> prefixes{
    {{"check-", check}, {"request-", request}, {"terminate-", terminate}, {"all-", all}}};

const FaultRow *find_row(std::string_view name) {
    const auto *row = std::ranges::find(rows, name, &FaultRow::name);
    return row == rows.end() ? nullptr : row;
}

// The row of `name` with the scope that its prefix chooses; no row when there is none.
Fault find_fault(std::string_view name) {
    if (const FaultRow *row = find_row(name)) {
        return {.row = row, .scope = row->scope};
    }
    for (const Prefix &prefix : prefixes) {
        if (name.starts_with(prefix.text)) {
            const FaultRow *row = find_row(name.substr(prefix.text.size()));
            return {.row = row != nullptr && row->prefixed ? row : nullptr, .scope = prefix.scope};
        }
    }
    return {};
}

std::int64_t parse_argument(const FaultRow &row, std::string_view text, std::string_view whole) {
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value < row.least || value > row.most) {
        throw std::invalid_argument("fault \"" + std::string(whole) +
                                    "\": the argument must be a number from " + std::to_string(row.least) +
                                    " to " + std::to_string(row.most));
    }
    return value;
}

bool strikes(Scope scope, RequestKind kind) {
    const Scope here = kind == RequestKind::check       ? check
                       : kind == RequestKind::terminate ? terminate
                                                        : request;
    return scope == all || scope == here;
}

std::size_t cut_length(Cut where, std::size_t length) {
    switch (where) {
    case before_header:
        return 0;
    case in_header:
        return header_size / 2;
    case after_header:
        return header_size;
    case in_body:
        return header_size + (length - header_size) / 2;
    case none:
        break;
    }
    return length;
}

} // namespace

Fault parse_fault(std::string_view text) {
    const std::size_t colon = text.find(':');
    Fault fault = find_fault(text.substr(0, colon));
    const std::string where = "fault \"" + std::string(text) + "\": ";
    if (fault.row == nullptr) {
        throw std::invalid_argument(where + "there is no such fault");
    }
    if (colon != text.npos) {
        if (fault.row->most < fault.row->least) {
            throw std::invalid_argument(where + "it takes no argument");
        }
        fault.argument = parse_argument(*fault.row, text.substr(colon + 1), text);
    } else if (fault.row->preset) {
        fault.argument = *fault.row->preset;
    } else {
        throw std::invalid_argument(where + "it needs an argument, as in NAME:NUMBER");
    }
    return fault;
}

std::string fault_help() {
    std::string help;
    for (const FaultRow &row : rows) {
        std::string name{row.name};
        if (row.most >= row.least) {
            name += row.preset ? "[:N]" : ":N";
        }
        name.resize(std::max<std::size_t>(name.size(), 22), ' ');
        help += "  " + name + " " + std::string(row.help) + "\n";
    }
    return help;
}

bool refuses(const std::vector<Fault> &faults) {
    return std::ranges::any_of(faults, [](const Fault &one) { return one.scope == listener; });
}

void apply_faults(const std::vector<Fault> &faults, const Request &request, Outgoing &answer) {
    for (const Fault &one : faults) {
        if (strikes(one.scope, request.kind)) {
            one.row->apply(answer, request, one.argument);
        }
    }
}

RawAnswer finish(Outgoing answer) {
    if ((answer.cut == after_header || answer.cut == in_body) && answer.body.empty()) {
        set_body(answer, Bytes(envelope));
    }
    RawAnswer raw{.after = answer.after, .delay = answer.delay, .gap = answer.gap};
    raw.bytes = encode_header(answer.header);
    raw.bytes.insert(raw.bytes.end(), answer.body.begin(), answer.body.end());
    raw.bytes.resize(cut_length(answer.cut, raw.bytes.size()));
    return raw;
}

} // namespace rehearsal
