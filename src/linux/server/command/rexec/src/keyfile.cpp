#include "keyfile.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Whether what lies at `path` is of a type and no link of somebody else.
int check(const char *path, mode_t type) {
    struct stat status = {};
    if (lstat(path, &status) != 0)
        return -1;
    if (S_ISLNK(status.st_mode)) {
        if (status.st_uid != 0 && status.st_uid != geteuid()) {
            errno = ELOOP;
            return -1;
        }
        if (stat(path, &status) != 0)
            return -1;
    }
    if ((status.st_mode & S_IFMT) != type) {
        errno = type == S_IFDIR ? ENOTDIR : EINVAL;
        return -1;
    }
    return 0;
}

} // namespace

int make_key_directory(const char *path, mode_t mode) {
    if (mkdir(path, mode) != 0 && errno != EEXIST)
        return -1;
    return check(path, S_IFDIR);
}

int make_key_file(const char *path, mode_t mode) {
    const int fd = open(path, O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd == -1 && errno != EEXIST)
        return -1;
    if (fd != -1)
        close(fd);
    return check(path, S_IFREG);
}
