// Tells the test of the installed command what it called, in the file named by ZYN_TEST_CALLS, and sleeps
// not at all. Linked with --wrap for each of them.
#include <cstdio>
#include <cstdlib>

#include <sys/resource.h>

namespace {

void tell(const char *call) {
    if (std::FILE *file = std::fopen(std::getenv("ZYN_TEST_CALLS"), "a"); file != nullptr) {
        std::fprintf(file, "%s\n", call);
        std::fclose(file);
    }
}

} // namespace

extern "C" {

unsigned __wrap_sleep(unsigned) {
    tell("sleep");
    return 0;
}

int __real_setrlimit(int resource, const rlimit *limit);
int __wrap_setrlimit(int resource, const rlimit *limit) {
    if (resource == RLIMIT_CORE && limit->rlim_cur == RLIM_INFINITY && limit->rlim_max == RLIM_INFINITY)
        tell("core");
    return __real_setrlimit(resource, limit);
}
}
