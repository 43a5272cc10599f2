#include "keyfile.h"

#include "cancel.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A file or directory held open, so that what has been looked at is what is used.
class Held {
public:
    Held(int directory, const char *name, mode_t type)
        : fd_(openat(directory, name, O_PATH | O_NOFOLLOW | O_CLOEXEC)) {
        if (fd_ != -1 && is_type(S_IFLNK) && may_follow())
            follow(directory);
        if (fd_ != -1 && !is_type(type))
            fail(S_ISLNK(status_.st_mode) ? ELOOP : type == S_IFDIR ? ENOTDIR : EINVAL);
    }
    ~Held() { fail(errno); }
    Held(const Held &) = delete;
    Held &operator=(const Held &) = delete;

    int get() const { return fd_; }
    const struct stat &status() const { return status_; }

private:
    bool is_type(mode_t type) { return fstat(fd_, &status_) == 0 && (status_.st_mode & S_IFMT) == type; }
    bool may_follow() const { return status_.st_uid == 0 || status_.st_uid == geteuid(); }
    // What the link said when it was looked at; another one may have its name by now.
    void follow(int directory) {
        char target[PATH_MAX];
        const ssize_t length = readlinkat(fd_, "", target, sizeof(target) - 1);
        fail(errno);
        if (length != -1) {
            target[length] = '\0';
            fd_ = openat(directory, target, O_PATH | O_CLOEXEC);
        }
    }
    void fail(int error) {
        const CancelDisabled in_destructor;
        if (fd_ != -1)
            close(fd_);
        fd_ = -1;
        errno = error;
    }

    int fd_;
    struct stat status_ = {};
};

// A path, parted in front of its last name. A slash at its end is left out: the system would follow a link
// there.
struct Place {
    explicit Place(std::string_view path) {
        path = path.substr(0, path.find_last_not_of('/') + 1).substr(0, sizeof(parent) - 2);
        const std::size_t at = path.rfind('/') + 1;
        parent[path.copy(parent, at)] = '.';
        path.substr(at).copy(name, sizeof(name) - 1);
    }
    char parent[PATH_MAX] = "";
    char name[PATH_MAX] = "";
};

bool make_file(int directory, const char *name, mode_t mode) {
    const int fd = openat(directory, name, O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd != -1)
        close(fd);
    return fd != -1 || errno == EEXIST;
}

} // namespace

KeyStep make_key(const KeyFile &file, key_t *key) {
    const Place place(file.directory);
    const Held parent(AT_FDCWD, place.parent, S_IFDIR);
    if (parent.get() == -1 ||
        (mkdirat(parent.get(), place.name, file.directory_mode) != 0 && errno != EEXIST))
        return KeyStep::directory;
    const Held directory(parent.get(), place.name, S_IFDIR);
    if (directory.get() == -1)
        return KeyStep::directory;
    const char *name = file.name + std::strspn(file.name, "/"); // in the directory, and nowhere else
    if (!make_file(directory.get(), name, file.mode))
        return KeyStep::file;
    const Held held(directory.get(), name, S_IFREG);
    if (held.get() == -1)
        return KeyStep::file;
    // What ftok(3) makes of a path: 16 bits of the inode, 8 of the device, 8 of the project.
    *key = static_cast<key_t>((held.status().st_ino & 0xffff) | (held.status().st_dev & 0xff) << 16 |
                              static_cast<unsigned>(file.project & 0xff) << 24);
    return *key != -1 ? KeyStep::done : KeyStep::key;
}
