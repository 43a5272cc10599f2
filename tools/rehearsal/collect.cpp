// The collector's sockets and the grammar of its lines.
#include "collect.h"

#include "datagram.h"
#include "journal.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <optional>
#include <ostream>
#include <string_view>
#include <system_error>

namespace rehearsal {
namespace {

constexpr int port_tries = 100; // each needs a port that ::1 has in use already

// Takes what stands in front of the first `end`, or all, from `rest`.
std::string_view take_until(std::string_view &rest, char end) {
    const std::string_view part = rest.substr(0, rest.find(end));
    rest.remove_prefix(std::min(part.size() + 1, rest.size()));
    return part;
}

bool is_number(std::string_view text, double least, double most) {
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number >= least && number <= most;
}

bool are_tags(std::string_view text) {
    while (text.find(',') != text.npos)
        if (take_until(text, ',').empty())
            return false;
    return !text.empty();
}

// Whether a line is "name:value|type", "|@rate" and "|#tag,tag..." behind it or not.
bool is_metric(std::string_view line) {
    constexpr double most = std::numeric_limits<double>::max(); // "inf" is no value
    constexpr auto types = std::to_array<std::string_view>({"c", "g", "ms", "h", "s"});
    std::string_view first = take_until(line, '|');
    const std::string_view name = take_until(first, ':');
    const std::string_view type = take_until(line, '|');
    if (name.empty() || std::ranges::any_of(name, is_control) || !is_number(first, -most, most) ||
        std::ranges::find(types, type) == types.end())
        return false;
    if (line.starts_with('@') && !is_number(take_until(line, '|').substr(1), 0, 1))
        return false;
    return line.empty() || (line.starts_with('#') && line.find('|') == line.npos &&
                            std::ranges::none_of(line, is_control) && are_tags(line.substr(1)));
}

// The socket of ::1; nothing where the host has no such address.
std::optional<Descriptor> bind_ipv6(std::uint16_t port) {
    try {
        return bind_udp("::1", port);
    } catch (const std::system_error &error) {
        if (error.code() == std::errc::address_family_not_supported ||
            error.code() == std::errc::address_not_available)
            return std::nullopt;
        throw;
    }
}

// Of both addresses where the host has them.
struct Sockets {
    Descriptor ipv4;
    std::optional<Descriptor> ipv6;
};

Sockets bind_both(std::uint16_t &port) {
    const std::uint16_t given = port;
    for (int tries = 1;; ++tries) {
        Descriptor ipv4 = bind_udp("127.0.0.1", port);
        try {
            return {std::move(ipv4), bind_ipv6(port)};
        } catch (const std::system_error &) {
            if (given != 0 || tries == port_tries)
                throw;
            port = 0;
        }
    }
}

} // namespace

class Collector::Running {
public:
    Running(asio::io_context &io, std::uint16_t port, int journal) : journal_(journal, {}), port_(port) {
        Sockets sockets = bind_both(port_);
        const Sink sink = [this](const char *, std::span<const std::byte> bytes, std::size_t size) {
            take({reinterpret_cast<const char *>(bytes.data()), bytes.size()}, size);
        };
        ipv4_.emplace(io, std::move(sockets.ipv4), "udp", sink);
        if (sockets.ipv6)
            ipv6_.emplace(io, std::move(*sockets.ipv6), "udp", sink);
    }
    ~Running() {
        ipv4_->drain();
        if (ipv6_)
            ipv6_->drain();
    }
    Running(const Running &) = delete;
    Running &operator=(const Running &) = delete;

    std::uint16_t port() const { return port_; }
    void tell(std::ostream &out) const {
        out << "metrics at UDP port " << port_ << (ipv6_ ? "" : ", of IPv4 only") << std::endl;
    }

private:
    // A line may end in a line end, and what was cut is none.
    void take(std::string_view line, std::size_t size) {
        const bool whole = line.size() == size;
        if (line.ends_with('\n'))
            line.remove_suffix(1);
        journal_.line(time_of_day() + (whole && is_metric(line) ? " metric " : " malformed ") +
                      printable(line));
    }

    Journal journal_;
    std::uint16_t port_;
    std::optional<SocketReader> ipv4_;
    std::optional<SocketReader> ipv6_;
};

Collector::Collector(asio::io_context &io, std::uint16_t port, int journal)
    : running_(std::make_unique<Running>(io, port, journal)) {}
Collector::~Collector() = default;

std::uint16_t Collector::port() const {
    return running_->port();
}
void Collector::tell(std::ostream &out) const {
    running_->tell(out);
}

} // namespace rehearsal
