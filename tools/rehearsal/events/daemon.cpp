// The event daemon's parts, put together and taken apart.
//
// Datagrams come on the thread that runs the io_context, messages of the queue on a thread of their own; a
// record is dealt with under one mutex, by whichever thread has it.
#include "events/daemon.h"

#include "events/modules.h"
#include "events/receive.h"
#include "events/record.h"
#include "journal.h"
#include "text.h"

#include <mutex>
#include <ostream>
#include <stdexcept>

#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace rehearsal {
namespace {

// The socket file, removed at the end unless another daemon's has taken its place.
class SocketFile {
public:
    explicit SocketFile(fs::path path) : path_(std::move(path)), descriptor_(bind_local(path_)) {
        ::lstat(path_.c_str(), &made_);
    }
    ~SocketFile() {
        struct stat now = {};
        if (::lstat(path_.c_str(), &now) == 0 && now.st_dev == made_.st_dev && now.st_ino == made_.st_ino)
            ::unlink(path_.c_str());
    }
    SocketFile(const SocketFile &) = delete;
    SocketFile &operator=(const SocketFile &) = delete;

    const fs::path &path() const { return path_; }
    Descriptor release() { return std::move(descriptor_); }

private:
    fs::path path_;
    Descriptor descriptor_;
    struct stat made_ = {};
};

fs::path find_tree(const fs::path &given) {
    if (!fs::is_directory(given))
        throw std::runtime_error(given.string() + " is no folder; --install-tree lays out an installation");
    return fs::canonical(given);
}

std::string begin(const char *transport) {
    return time_of_day() + " " + transport + " ";
}

std::string sender(const EVENTC_LOG_INFO &record) {
    return printable(record.type) + "[" + std::to_string(record.pid) + ":" + std::to_string(record.tid) + "]";
}

} // namespace

// Members are destroyed from the last to the first: what hands records over before what takes them.
class EventDaemon::Running {
public:
    Running(asio::io_context &io, const EventOptions &options)
        : tree_(find_tree(options.tree)), socket_(local_socket(tree_)), journal_(options.journal, {}),
          modules_(tree_) {
        local_.emplace(io, socket_.release(), "unix", sink());
        if (options.port) {
            port_ = *options.port;
            udp_.emplace(io, bind_udp("127.0.0.1", port_), "udp", sink());
        }
        if (options.queue)
            queue_.emplace(tree_, sink(), [this](const char *transport, const std::string &text) {
                const std::lock_guard lock(mutex_);
                journal_.line(begin(transport) + printable(text));
            });
    }
    ~Running() {
        local_->drain();
        if (udp_)
            udp_->drain();
    }
    Running(const Running &) = delete;
    Running &operator=(const Running &) = delete;

    std::uint16_t port() const { return port_; }

    void tell(std::ostream &out) const {
        out << "events at " << printable(socket_.path().string()) << '\n';
        if (udp_)
            out << "events at UDP port " << port_ << '\n';
        if (queue_)
            out << "events at " << queue_->describe() << '\n';
        if (!modules_.table().made())
            out << "the level table was there and stays\n";
        out << "logs in " << printable((tree_ / "log").string()) << std::endl;
    }

private:
    Sink sink() {
        return [this](const char *transport, std::span<const std::byte> bytes, std::size_t size) {
            take(transport, bytes, size);
        };
    }

    void take(const char *transport, std::span<const std::byte> bytes, std::size_t size) {
        const std::lock_guard lock(mutex_);
        EVENTC_LOG_INFO record;
        std::string problem = bytes.size() < size ? std::to_string(size) + " bytes in place of " +
                                                        std::to_string(EVENTC_RECORD_LEN)
                                                  : read_record(bytes, record);
        if (!problem.empty()) {
            journal_.line(begin(transport) + "refused: " + problem);
            return;
        }
        try {
            journal_.line(begin(transport) + sender(record) + " " + modules_.take(record));
        } catch (const std::exception &error) {
            journal_.line(begin(transport) + sender(record) + " lost: " + printable(error.what()));
        }
    }

    fs::path tree_;
    SocketFile socket_;
    std::mutex mutex_;
    Journal journal_; // guarded by mutex_, as the next
    Modules modules_;
    std::uint16_t port_ = 0;
    std::optional<SocketReader> local_;
    std::optional<SocketReader> udp_;
    std::optional<QueueReader> queue_;
};

EventDaemon::EventDaemon(asio::io_context &io, EventOptions options)
    : running_(std::make_unique<Running>(io, options)) {}
EventDaemon::~EventDaemon() = default;

std::uint16_t EventDaemon::port() const {
    return running_->port();
}

void EventDaemon::tell(std::ostream &out) const {
    running_->tell(out);
}

} // namespace rehearsal
