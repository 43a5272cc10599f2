// Standard output: everything that the command prints leaves through here.
#pragma once

#include <cstddef>

#include "cancel.h"

// Holds the lock of standard output from its first text to its end, so that the lines of one server
// stay together, and gives them to the reader at its end at the latest. Locks may nest. One that has
// nothing to say takes no lock: a stalled reader must not hold up a request that is yet to be sent.
// A reader that is slow is waited for; one that is gone loses the text and nothing else. Allocates
// nothing, so that a result can be told when memory has run out. Never a cancellation point.
class Output {
public:
    Output() = default;
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    // Adds a text, printf-style, of at most 4095 bytes; a longer one is cut.
    void print(const char *format, ...) __attribute__((format(printf, 2, 3)));
    // Gives what has been added to the reader, before another Output of this thread adds its own.
    void flush();

private:
    CancelDisabled whole_text_;
    bool locked_ = false;
    std::size_t used_ = 0;
    char buffer_[4096];
};
