// The socket of the event daemon.
#include "events/receive.h"

#include <cerrno>
#include <system_error>

#include <sys/socket.h>
#include <sys/un.h>

namespace fs = std::filesystem;

namespace rehearsal {
namespace {

[[noreturn]] void fail(int error, const std::string &what) {
    throw std::system_error(error, std::generic_category(), what);
}

sockaddr_un address_of(const fs::path &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.native().size() >= sizeof(address.sun_path))
        fail(ENAMETOOLONG, path.string() + " cannot be a socket");
    path.native().copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

bool bind_to(const Descriptor &made, const sockaddr_un &address) {
    return ::bind(made.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
}

// Makes room for a socket where the one of an ended daemon lies.
void remove_unread(const fs::path &path) {
    if (is_read(path))
        fail(EADDRINUSE, path.string() + " is read by another event daemon");
    if (fs::symlink_status(path).type() != fs::file_type::socket)
        fail(EEXIST, path.string() + " is no socket");
    fs::remove(path);
}

} // namespace

fs::path local_socket(const fs::path &tree) {
    return tree / "tmp/sockevent";
}

bool is_read(const fs::path &socket) {
    const Descriptor made = make_datagram_socket(AF_UNIX);
    const sockaddr_un address = address_of(socket);
    return ::connect(made.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
}

Descriptor bind_local(const fs::path &path) {
    const sockaddr_un address = address_of(path);
    Descriptor made = make_datagram_socket(AF_UNIX);
    if (bind_to(made, address))
        return made;
    if (errno == EADDRINUSE) {
        remove_unread(path);
        if (bind_to(made, address))
            return made;
    }
    fail(errno, "cannot make " + path.string());
}

} // namespace rehearsal
