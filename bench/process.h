// Runs a program and tells what it cost.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

struct Cost {
    int exit = -1;      // -1: ended by a signal
    double wall_ms = 0; // from before the start to after the end
    double cpu_ms = 0;  // user and system time, that of starting the program included
    long waits = 0;     // how often it gave up the processor by itself: a wait of any kind counts
    std::string output;
};

// One program under way. Its standard output goes to memory, so that no reader takes processor time.
class Program {
public:
    explicit Program(std::vector<std::string> words); // throws std::system_error
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    // Largest resident size so far, in KiB; 0 when it cannot be read. Unlike the figure in the usage
    // record it starts with the program and not with the process that it was forked from.
    long peak_resident_kib() const;
    Cost finish();

private:
    double started_ms_;
    pid_t pid_ = -1;
    int output_ = -1;
};

inline Cost run(std::vector<std::string> words) {
    return Program(std::move(words)).finish();
}
