// What a tested function traced or printed, taken back as text.
#pragma once

#include "rexec.h"
#include "support/text.h"

#include <algorithm>
#include <cstdio>

#include <unistd.h>

inline std::string read_all(int fd) {
    std::string text;
    char block[4096];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t got = 0; (got = read(fd, block, sizeof(block))) > 0;)
        text.append(block, static_cast<std::size_t>(got));
    return text;
}

// The user log file of a scope: every trace line, as "<letter> <message>".
class TraceCapture {
public:
    TraceCapture() { _rexec_pusrlogfd = std::tmpfile(); }
    ~TraceCapture() {
        std::fclose(_rexec_pusrlogfd);
        _rexec_pusrlogfd = nullptr;
    }
    TraceCapture(const TraceCapture &) = delete;
    TraceCapture &operator=(const TraceCapture &) = delete;

    std::string raw() const {
        std::fflush(_rexec_pusrlogfd);
        return read_all(fileno(_rexec_pusrlogfd));
    }
    std::vector<std::string> lines() const {
        std::vector<std::string> result;
        for (const std::string &line : split(raw()))
            result.push_back(line.substr(0, 2) + line.substr(message_column(line)));
        return result;
    }
    // Lines of one level: the letter is not enough to tell 8 from 16, so this looks at texts.
    long count(const std::string &wanted) const {
        const std::vector<std::string> all = lines();
        return std::count(all.begin(), all.end(), wanted);
    }
    long count_starting(const std::string &start) const {
        const std::vector<std::string> all = lines();
        return std::count_if(all.begin(), all.end(),
                             [&](const auto &line) { return line.starts_with(start); });
    }

private:
    // Behind "[pid:tid]line:file function  ".
    static std::size_t message_column(const std::string &line) {
        return line.find(']') + 1 + 5 + 1 + 10 + 1 + 16 + 2;
    }
};

// Standard output of a scope.
class StdoutCapture {
public:
    StdoutCapture() : file_(std::tmpfile()), before_(dup(STDOUT_FILENO)) {
        std::fflush(stdout);
        dup2(fileno(file_), STDOUT_FILENO);
    }
    ~StdoutCapture() {
        dup2(before_, STDOUT_FILENO);
        close(before_);
        std::fclose(file_);
    }
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;

    std::string text() const { return read_all(fileno(file_)); }

private:
    std::FILE *file_;
    int before_;
};
