// Runs a program of this build and takes back what it printed.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

struct Finished {
    std::string output; // standard output; standard error is the test's own
    int exit = -1;      // -1: ended by a signal
    std::chrono::duration<double> took{};
};

// Where the program's standard output goes.
enum class Stdout { captured, closed, reader_gone, all_closed, inherited };

class Program {
public:
    explicit Program(std::vector<std::string> words, Stdout to = Stdout::captured)
        : started_(std::chrono::steady_clock::now()) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        if (to == Stdout::captured || to == Stdout::reader_gone)
            posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        if (to == Stdout::closed || to == Stdout::all_closed)
            posix_spawn_file_actions_addclose(&actions, STDOUT_FILENO);
        if (to == Stdout::all_closed) {
            posix_spawn_file_actions_addclose(&actions, STDIN_FILENO);
            posix_spawn_file_actions_addclose(&actions, STDERR_FILENO);
        }
        if (to == Stdout::reader_gone) {
            close(ends[0]);
            ends[0] = -1;
        }
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
        output_ = ends[0];
    }
    ~Program() { finish(); }
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    pid_t pid() const { return pid_; }

    // The next line, without its newline; what there is at the end of the output.
    std::string read_line() {
        std::string line;
        for (char c = 0; output_ != -1 && read(output_, &c, 1) == 1 && c != '\n';)
            line += c;
        return line;
    }
    Finished finish() {
        if (pid_ <= 0)
            return {};
        Finished result;
        char block[4096];
        for (ssize_t got = 0; output_ != -1 && (got = read(output_, block, sizeof(block))) > 0;)
            result.output.append(block, static_cast<std::size_t>(got));
        int status = 0;
        waitpid(pid_, &status, 0);
        result.exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        result.took = std::chrono::steady_clock::now() - started_;
        if (output_ != -1)
            close(output_);
        pid_ = 0;
        return result;
    }

private:
    std::chrono::steady_clock::time_point started_;
    pid_t pid_ = 0;
    int output_ = -1;
};

inline Finished run(std::vector<std::string> words, Stdout to = Stdout::captured) {
    return Program(std::move(words), to).finish();
}
