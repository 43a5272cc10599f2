// Lets calls of a program fail, as the environment variable ZYN_TEST_FAIL says: "calloc:3" the third
// call, "pthread_create:all" every one. Linked with --wrap for each of them.
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <pthread.h>

namespace {

// Whether this call, the `number`-th of its name, is to fail.
bool fails(const char *name, int number) {
    const char *wanted = std::getenv("ZYN_TEST_FAIL");
    const std::size_t length = std::strlen(name);
    if (wanted == nullptr || std::strncmp(wanted, name, length) != 0 || wanted[length] != ':')
        return false;
    const char *which = wanted + length + 1;
    return std::strcmp(which, "all") == 0 || std::atoi(which) == number;
}

std::atomic<int> callocs = 0;
std::atomic<int> mallocs = 0;
std::atomic<int> threads = 0;

} // namespace

extern "C" {

void *__real_calloc(std::size_t count, std::size_t size);
void *__wrap_calloc(std::size_t count, std::size_t size) {
    if (!fails("calloc", ++callocs))
        return __real_calloc(count, size);
    errno = ENOMEM;
    return nullptr;
}

void *__real_malloc(std::size_t size);
void *__wrap_malloc(std::size_t size) {
    if (!fails("malloc", ++mallocs))
        return __real_malloc(size);
    errno = ENOMEM;
    return nullptr;
}

int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*body)(void *),
                          void *argument) {
    return fails("pthread_create", ++threads) ? EAGAIN : __real_pthread_create(thread, attr, body, argument);
}
}
