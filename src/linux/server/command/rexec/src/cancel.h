// Owners for what a thread that may be cancelled must not leave behind.
//
// A cancel unwinds the stack of its thread: destructors run. They must not reach a cancellation
// point while cancellation is enabled, or the process is aborted, so every owner here that calls
// one switches cancellation off first. Setting the cancel state is itself no cancellation point.
#pragma once

#include <pthread.h>

// Cancellation is off for the length of a scope.
class CancelDisabled {
public:
    CancelDisabled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~CancelDisabled() { pthread_setcancelstate(before_, nullptr); }
    CancelDisabled(const CancelDisabled &) = delete;
    CancelDisabled &operator=(const CancelDisabled &) = delete;

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

// Cancellation is on for the length of a scope, which holds one blocking call and nothing else.
class CancelEnabled {
public:
    CancelEnabled() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &before_); }
    ~CancelEnabled() { pthread_setcancelstate(before_, nullptr); }
    CancelEnabled(const CancelEnabled &) = delete;
    CancelEnabled &operator=(const CancelEnabled &) = delete;

private:
    int before_ = PTHREAD_CANCEL_DISABLE;
};

// Ends the calling thread here if it has been cancelled.
inline void act_on_cancel() {
    const CancelEnabled here;
    pthread_testcancel();
}

// Calls `handler` when its scope is left by a cancel, or in any way before dismiss().
template <typename T>
class CancelCleanup {
public:
    CancelCleanup(void (*handler)(T *), T *argument) : handler_(handler), argument_(argument) {}
    ~CancelCleanup() {
        if (handler_ != nullptr) {
            const CancelDisabled in_destructor;
            handler_(argument_);
        }
    }
    CancelCleanup(const CancelCleanup &) = delete;
    CancelCleanup &operator=(const CancelCleanup &) = delete;
    void dismiss() { handler_ = nullptr; }

private:
    void (*handler_)(T *);
    T *argument_;
};

// A POSIX mutex held for the length of a scope; locking and unlocking are no cancellation points.
class MutexLock {
public:
    explicit MutexLock(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~MutexLock() { pthread_mutex_unlock(&mutex_); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

private:
    pthread_mutex_t &mutex_;
};
