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
constexpr int most_at_end = 1 << 16;

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

QueueReader::QueueReader(std::filesystem::path tree, Sink sink, Note note)
    : tree_(std::move(tree)), sink_(std::move(sink)), note_(std::move(note)) {
    open();
    thread_ = std::thread([this] { read_all(); });
}

QueueReader::~QueueReader() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        // A queue that is full takes no message, but then the thread does not wait either: it takes every
        // type.
        const Message wake = {.type = wake_type, .bytes = {}};
        ::msgsnd(id_, &wake, 0, IPC_NOWAIT);
    }
    thread_.join();
    for (int i = 0; i < most_at_end && read_one(id_, IPC_NOWAIT); ++i) {
    }
    if (made_)
        ::msgctl(id_, IPC_RMID, nullptr);
}

std::string QueueReader::describe() const {
    const std::lock_guard lock(mutex_);
    return "queue " + std::to_string(id_) + (made_ ? "" : ", which was there and stays");
}

// Under mutex_, or before the thread starts.
void QueueReader::open() {
    const key_t key = find_key(tree_);
    id_ = ::msgget(key, IPC_CREAT | IPC_EXCL | queue_mode);
    made_ = id_ != -1;
    if (!made_ && errno == EEXIST)
        id_ = ::msgget(key, queue_mode);
    if (id_ == -1)
        throw std::system_error(errno, std::generic_category(), "cannot open the queue");
}

// -1 at the end.
int QueueReader::current() const {
    const std::lock_guard lock(mutex_);
    return ending_ ? -1 : id_;
}

void QueueReader::read_all() {
    for (int id; (id = current()) != -1;)
        if (!read_one(id, 0) && !replace(errno))
            return;
}

// False when there is nothing to read any more, with errno. Foreign types are thrown away.
bool QueueReader::read_one(int id, int flags) {
    Message message;
    const ssize_t got = ::msgrcv(id, &message, message.bytes.size(), 0, flags | MSG_NOERROR);
    if (got < 0)
        return errno == EINTR;
    if (message.type == record_type) {
        const auto size = static_cast<std::size_t>(got);
        sink_("queue", std::span(message.bytes).first(size), size);
    }
    return true;
}

// Whether there is a queue again after a read that failed. The lock keeps the end from waking a queue that is
// about to be left.
bool QueueReader::replace(int error) {
    const std::lock_guard lock(mutex_);
    if (ending_)
        return false;
    if (error != EIDRM && error != EINVAL) { // EINVAL: gone between two reads
        note_("queue", "is read no more: " + std::generic_category().message(error));
        return false;
    }
    try {
        open();
    } catch (const std::exception &failed) {
        note_("queue", std::string("was removed, and is read no more: ") + failed.what());
        return false;
    }
    note_("queue", std::string("was removed; ") + (made_ ? "made anew" : "another was there") +
                       ", events at queue " + std::to_string(id_));
    return true;
}

} // namespace rehearsal
