// The System V queue of the event daemon.
#include "events/receive.h"

#include "eventc.h"
#include "keyfile.h"

#include <array>
#include <cerrno>
#include <system_error>

#include <sys/ipc.h>
#include <sys/msg.h>

namespace rehearsal {
namespace {

constexpr int queue_project = 99; // of ftok
constexpr int queue_mode = 0666;
constexpr long record_type = 1;
constexpr long wake_type = 2; // an empty message from here, which ends a blocked read

struct Message {
    long type = 0;
    std::array<std::byte, EVENTC_RECORD_LEN + 1> bytes;
};

key_t find_key(const std::filesystem::path &tree) {
    const std::filesystem::path directory = tree / "work/ipc";
    key_t key = -1;
    if (make_key({directory.c_str(), 0755, "msgq.key", 0644, queue_project}, &key) != KeyStep::done)
        throw std::system_error(errno, std::generic_category(), "cannot make a key in " + directory.string());
    return key;
}

} // namespace

QueueReader::QueueReader(const std::filesystem::path &tree, Sink sink) : sink_(std::move(sink)) {
    const key_t key = find_key(tree);
    id_ = ::msgget(key, IPC_CREAT | IPC_EXCL | queue_mode);
    made_ = id_ != -1;
    if (!made_ && errno == EEXIST)
        id_ = ::msgget(key, queue_mode);
    if (id_ == -1)
        throw std::system_error(errno, std::generic_category(), "cannot open the queue");
    thread_ = std::thread([this] { read_all(); });
}

QueueReader::~QueueReader() {
    ending_ = true;
    // A queue that is full takes no message, but then the thread does not wait either: it takes every type.
    const Message wake = {.type = wake_type, .bytes = {}};
    ::msgsnd(id_, &wake, 0, IPC_NOWAIT);
    thread_.join();
    while (read_one(IPC_NOWAIT)) {
    }
    if (made_)
        ::msgctl(id_, IPC_RMID, nullptr);
}

void QueueReader::read_all() {
    while (read_one(0) && !ending_) {
    }
}

// False when there is nothing to read any more. Foreign types are thrown away.
bool QueueReader::read_one(int flags) {
    Message message;
    const ssize_t got = ::msgrcv(id_, &message, message.bytes.size(), 0, flags | MSG_NOERROR);
    if (got < 0)
        return errno == EINTR;
    if (message.type == record_type) {
        const auto size = static_cast<std::size_t>(got);
        sink_("queue", std::span(message.bytes).first(size), size);
    }
    return true;
}

} // namespace rehearsal
