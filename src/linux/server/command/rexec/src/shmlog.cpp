#include "shmlog.h"

#include "keyfile.h"
#include "log.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <pthread.h>
#include <sched.h>
#include <sys/shm.h>

namespace {

constexpr int table_project = 101; // of ftok
constexpr int table_mode = 0666;

pthread_mutex_t shmlog_mutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<shm_log *> table{nullptr}; // changed under shmlog_mutex
int table_id = -1;                     // guarded by shmlog_mutex, as the next
std::int32_t shmlogref = 0;
std::atomic<void *> phshmlog{nullptr};

void shmlog(std::int32_t level, const char *file, std::int32_t line, const char *function, const char *format,
            ...) __attribute__((format(printf, 5, 6)));
void shmlog(std::int32_t level, const char *file, std::int32_t line, const char *function, const char *format,
            ...) {
    // The line itself looks into the table, and has nothing to say about that.
    static thread_local bool writing = false;
    if (writing)
        return;
    writing = true;
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    log_write_text(phshmlog, level, file, line, function, text);
    writing = false;
}

#define SHMLOG_IN(function, level, ...)                                                                      \
    (phshmlog.load(std::memory_order_relaxed) != nullptr                                                     \
         ? shmlog((level), "src/shmlog", __LINE__, (function), __VA_ARGS__)                                  \
         : void())
#define SHMLOG(level, ...) SHMLOG_IN(__func__, level, __VA_ARGS__)

// Notes entry and exit of a function around its work.
template <typename Work>
std::int32_t noted(const char *function, Work work) {
    SHMLOG_IN(function, 8, "<<< ENTER >>>");
    const std::int32_t ret = work();
    SHMLOG_IN(function, 8, "<<< EXIT >>> : 0x%08lx", static_cast<unsigned long>(ret));
    return ret;
}

// Threads that may be looking at the table: counted apart from each other, so that they need not pass one
// counter from processor to processor.
struct alignas(64) Readers {
    std::atomic<std::int32_t> count{0};
};
std::array<Readers, 8> readers;

// A forked child has none of the threads that were counted.
void forget_readers() {
    for (Readers &some : readers)
        some.count = 0;
}

// Before any thread: a child must not find this half done.
const int readers_forgotten [[maybe_unused]] = pthread_atfork(nullptr, nullptr, forget_readers);

Readers &own_readers() {
    static std::atomic<unsigned> threads{0};
    static thread_local Readers &own = readers[threads++ % readers.size()];
    return own;
}

// The table, kept mapped for the length of a scope.
class Reading {
public:
    Reading() : own_(own_readers()) {
        ++own_.count;
        at_ = table;
    }
    ~Reading() { --own_.count; }
    Reading(const Reading &) = delete;
    Reading &operator=(const Reading &) = delete;
    shm_log *get() const { return at_; }

private:
    Readers &own_;
    shm_log *at_;
};

class Lock {
public:
    Lock() : taken_(shmlog_lock() == SHMLOG_OK) {}
    ~Lock() {
        if (taken_)
            shmlog_unlock();
    }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
    bool taken() const { return taken_; }

private:
    const bool taken_;
};

// Another process writes the table: what it says of its size is not believed.
std::int32_t entries_of(const shm_log *at) {
    return std::clamp(std::atomic_ref(const_cast<std::int32_t &>(at->maxtype)).load(), 0, SHMLOG_TYPE_MAX);
}

bool has_type(const shm_log_info &entry, std::string_view type) {
    return type.size() < sizeof(entry.type) && std::memcmp(entry.type, type.data(), type.size()) == 0 &&
           entry.type[type.size()] == '\0';
}

// Every message looks for its type: most entries are passed by their first character.
shm_log_info *find(shm_log *at, std::string_view type) {
    const char first = type[0];
    shm_log_info *const end = at->loginfo + entries_of(at);
    for (shm_log_info *entry = at->loginfo; entry != end; ++entry)
        if (std::atomic_ref(entry->type[0]).load(std::memory_order_acquire) == first &&
            has_type(*entry, type))
            return entry;
    return nullptr;
}

std::int32_t find_key(const char *instpath, key_t *key) {
    char dir[1024 + sizeof("/work/ipc")];
    std::snprintf(dir, sizeof(dir), "%s/work/ipc", instpath);
    const KeyStep step = make_key({dir, 0755, "event.key", 0644, table_project}, key);
    if (step == KeyStep::done)
        return SHMLOG_OK;
    const int error = errno;
    if (step == KeyStep::key) {
        SHMLOG(1, "ftok() failed(errno:%d)", error);
        return SHMLOG_ERR_KEY;
    }
    SHMLOG(1, "shmlog_createkeyf(%s,%s) failed(ret:%d)", dir, "event.key", error);
    return SHMLOG_ERR_KEYFILE;
}

// A segment of another size is another program's; the system refuses smaller ones only.
bool has_table_size(int id) {
    shmid_ds status = {};
    return shmctl(id, IPC_STAT, &status) == 0 && status.shm_segsz == sizeof(shm_log);
}

std::int32_t map_table(int id) {
    void *address = shmat(id, nullptr, 0);
    if (address == reinterpret_cast<void *>(-1)) {
        SHMLOG(1, "shmat() failed(errno:%d)", errno);
        return SHMLOG_ERR_ATTACH;
    }
    table_id = id;
    table = static_cast<shm_log *>(address);
    ++shmlogref;
    SHMLOG(4, "shared memory id : %d", id);
    return SHMLOG_OK;
}

// Counts one more user of a table that is attached.
bool count_user() {
    if (table == nullptr)
        return false;
    ++shmlogref;
    SHMLOG(2, "already initialize");
    return true;
}

std::int32_t attach(const char *instpath) {
    key_t key = 0;
    if (const std::int32_t ret = find_key(instpath, &key); ret != SHMLOG_OK)
        return ret;
    const int id = shmget(key, sizeof(shm_log), table_mode);
    if (id == -1 || !has_table_size(id)) {
        SHMLOG(1, "shmget(use) failed(errno:%d)", errno);
        return SHMLOG_ERR_GET;
    }
    return map_table(id);
}

std::int32_t create(const char *instpath) {
    key_t key = 0;
    if (const std::int32_t ret = find_key(instpath, &key); ret != SHMLOG_OK)
        return ret;
    const int id = shmget(key, sizeof(shm_log), IPC_CREAT | IPC_EXCL | table_mode);
    if (id == -1) {
        const int error = errno;
        SHMLOG(error == EEXIST ? 2 : 1, "shmget(create) failed(errno:%d)", error);
        return error == EEXIST ? attach(instpath) : static_cast<std::int32_t>(SHMLOG_ERR_GET);
    }
    if (const std::int32_t ret = map_table(id); ret != SHMLOG_OK) {
        if (shmctl(id, IPC_RMID, nullptr) != 0)
            SHMLOG(1, "shmctl(delete) failed(errno:%d)", errno);
        return ret;
    }
    std::memset(table.load(), 0, sizeof(shm_log));
    table.load()->maxtype = SHMLOG_TYPE_MAX;
    return SHMLOG_OK;
}

std::int32_t read_entry(const char *type, std::int32_t *plevel, std::int32_t *psize, std::int32_t *plogtype) {
    const Reading reading;
    if (reading.get() == nullptr)
        return SHMLOG_ERR_NOTINIT;
    shm_log_info *entry = *type != '\0' ? find(reading.get(), type) : nullptr;
    if (entry == nullptr)
        return SHMLOG_ERR_NOTFOUND;
    *plevel = std::atomic_ref(entry->level).load();
    *psize = std::atomic_ref(entry->size).load();
    *plogtype = std::atomic_ref(entry->logtype).load();
    return SHMLOG_OK;
}

// A value of 0 leaves what stands there.
void set_values(shm_log_info &entry, std::int32_t level, std::int32_t size, std::int32_t logtype) {
    const auto store = [](std::int32_t &field, std::int32_t value) {
        if (value != 0)
            std::atomic_ref(field).store(value);
    };
    store(entry.level, level);
    store(entry.size, size);
    store(entry.logtype, logtype);
}

std::int32_t set_entry(shm_log *at, std::string_view type, std::int32_t level, std::int32_t size,
                       std::int32_t logtype) {
    if (shm_log_info *entry = find(at, type); entry != nullptr) {
        set_values(*entry, level, size, logtype);
        return SHMLOG_OK;
    }
    const auto end = at->loginfo + entries_of(at);
    shm_log_info *entry =
        std::find_if(at->loginfo, end, [](const shm_log_info &one) { return one.type[0] == '\0'; });
    if (entry == end) {
        SHMLOG(1, "no space");
        return SHMLOG_ERR_NOSPACE;
    }
    // Its first character makes it an entry: a module that looks meanwhile finds none, or all of it.
    set_values(*entry, level, size, logtype);
    std::memset(entry->type, 0, sizeof(entry->type));
    type.substr(1).copy(entry->type + 1, sizeof(entry->type) - 2);
    std::atomic_ref(entry->type[0]).store(type[0]);
    ++at->curtype;
    return SHMLOG_OK;
}

std::int32_t not_initialized() {
    SHMLOG(1, "not initialize");
    return SHMLOG_ERR_NOTINIT;
}

std::int32_t invalid_parameter() {
    SHMLOG(1, "invalid parameter");
    return SHMLOG_ERR_PARAMETER;
}

// Attaches or creates under the mutex, unless the table is there.
template <typename Open>
std::int32_t open_table(const char *function, void *hlog, const char *instpath, Open open) {
    const Lock lock;
    if (!lock.taken())
        return SHMLOG_ERR_LOCK;
    phshmlog = hlog;
    if (instpath == nullptr)
        return invalid_parameter();
    return noted(function,
                 [&] { return count_user() ? static_cast<std::int32_t>(SHMLOG_OK) : open(instpath); });
}

std::int32_t unmap_last() {
    if (shmlogref > 0)
        --shmlogref;
    if (shmlogref > 0)
        return SHMLOG_OK;
    shm_log *at = table.exchange(nullptr);
    for (const Readers &some : readers)
        while (some.count != 0) // each looks for a microsecond
            sched_yield();
    shmdt(at);
    return SHMLOG_OK;
}

} // namespace

std::int32_t shmlog_lock() {
    return pthread_mutex_lock(&shmlog_mutex) == 0 ? SHMLOG_OK : SHMLOG_ERR_LOCK;
}

void shmlog_unlock() {
    pthread_mutex_unlock(&shmlog_mutex);
}

std::int32_t shmlog_attach(void *hlog, const char *instpath, const char *) {
    return open_table(__func__, hlog, instpath, attach);
}

std::int32_t shmlog_create(void *hlog, const char *instpath, const char *) {
    return open_table(__func__, hlog, instpath, create);
}

std::int32_t shmlog_detach() {
    const Lock lock;
    if (!lock.taken())
        return SHMLOG_ERR_LOCK;
    return noted(__func__, [] { return table == nullptr ? not_initialized() : unmap_last(); });
}

std::int32_t shmlog_delete() {
    const Lock lock;
    if (!lock.taken())
        return SHMLOG_ERR_LOCK;
    return noted(__func__, [] {
        if (table == nullptr)
            return not_initialized();
        if (shmctl(table_id, IPC_RMID, nullptr) != 0)
            SHMLOG(1, "shmctl(delete) failed(errno:%d)", errno);
        shmlogref = 0;
        return unmap_last();
    });
}

std::int32_t shmlog_getloginfo(const char *type, std::int32_t *plevel, std::int32_t *psize,
                               std::int32_t *plogtype) {
    return noted(__func__, [&] {
        if (type == nullptr || plevel == nullptr || psize == nullptr || plogtype == nullptr)
            return invalid_parameter();
        const std::int32_t ret = read_entry(type, plevel, psize, plogtype);
        if (ret == SHMLOG_ERR_NOTINIT)
            return not_initialized();
        if (ret == SHMLOG_ERR_NOTFOUND)
            SHMLOG(8, "not found(type:%s)", type);
        return ret;
    });
}

std::int32_t shmlog_setloginfo(const char *type, std::int32_t level, std::int32_t size,
                               std::int32_t logtype) {
    const Lock lock;
    if (!lock.taken())
        return SHMLOG_ERR_LOCK;
    return noted(__func__, [&] {
        if (type == nullptr || *type == '\0' || level < -1 || size < 0)
            return invalid_parameter();
        if (table == nullptr)
            return not_initialized();
        const std::string_view kept = std::string_view(type).substr(0, sizeof(shm_log_info::type) - 1);
        return set_entry(table, kept, level, size, logtype);
    });
}

std::int32_t shmlog_enumtype(shm_log_info *entries, std::int32_t *count) {
    const Lock lock;
    if (!lock.taken())
        return SHMLOG_ERR_LOCK;
    return noted(__func__, [&] {
        if (entries == nullptr || count == nullptr)
            return invalid_parameter();
        const shm_log *at = table;
        if (at == nullptr)
            return not_initialized();
        std::int32_t used = 0;
        std::for_each_n(at->loginfo, entries_of(at), [&](const shm_log_info &entry) {
            if (entry.type[0] == '\0')
                return;
            if (used < *count)
                entries[used] = entry;
            ++used;
        });
        *count = used;
        return static_cast<std::int32_t>(SHMLOG_OK);
    });
}
