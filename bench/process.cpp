// Starting, waiting for and weighing a program.
#include "process.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <system_error>

#include <csignal>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

double now_ms() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

double to_ms(const struct timeval &time) {
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

std::string read_all(int fd) {
    std::string text;
    char block[4096];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t got = 0; (got = read(fd, block, sizeof(block))) > 0;)
        text.append(block, static_cast<std::size_t>(got));
    return text;
}

} // namespace

Program::Program(std::vector<std::string> words) : started_ms_(0) {
    output_ = memfd_create("output", MFD_CLOEXEC);
    if (output_ == -1)
        throw std::system_error(errno, std::generic_category(), "memfd_create");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output_, STDOUT_FILENO);
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    started_ms_ = now_ms();
    const int error = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        close(output_);
        throw std::system_error(error, std::generic_category(), words.front());
    }
}

Program::~Program() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close(output_);
}

long Program::peak_resident_kib() const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmHWM:"))
            return std::strtol(line.c_str() + sizeof("VmHWM:") - 1, nullptr, 10);
    return 0;
}

Cost Program::finish() {
    int status = 0;
    struct rusage usage = {};
    while (wait4(pid_, &status, 0, &usage) == -1 && errno == EINTR) {
    }
    Cost cost;
    cost.wall_ms = now_ms() - started_ms_;
    pid_ = -1;
    cost.exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    cost.cpu_ms = to_ms(usage.ru_utime) + to_ms(usage.ru_stime);
    cost.waits = usage.ru_nvcsw;
    cost.output = read_all(output_);
    return cost;
}
