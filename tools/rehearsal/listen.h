// Listening sockets on many addresses that share one port.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace rehearsal {

// A descriptor that closes itself.
class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    ~Descriptor();
    Descriptor(Descriptor &&other) noexcept : number_(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept;

    int get() const { return number_; }
    int release();

private:
    int number_;
};

struct Listening {
    std::string address{};
    Descriptor socket{}; // non-blocking, closed on exec
};

struct Listeners {
    std::uint16_t port = 0;
    std::vector<Listening> sockets{};
};

// Binds every canonical address to `port`; with port 0 to one that is free on all of them. Addresses in
// `refusing` are bound but not listened on, so that nobody else gets the port and connections are
// refused. Throws std::system_error that names the address.
Listeners listen_on(const std::vector<std::string> &addresses, std::uint16_t port,
                    const std::set<std::string> &refusing);

} // namespace rehearsal
