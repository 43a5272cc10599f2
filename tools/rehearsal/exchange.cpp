// The record of exchanges.
#include "exchange.h"

namespace rehearsal {

std::size_t Recorder::add(const Exchange &exchange) {
    const std::lock_guard lock(mutex_);
    exchanges_.push_back(exchange);
    changed_.notify_all();
    return exchanges_.size() - 1;
}

void Recorder::update(std::size_t index, const Exchange &exchange) {
    const std::lock_guard lock(mutex_);
    exchanges_.at(index) = exchange;
    changed_.notify_all();
}

void Recorder::opened() {
    const std::lock_guard lock(mutex_);
    ++accepted_;
    ++open_;
    changed_.notify_all();
}

void Recorder::closed() {
    const std::lock_guard lock(mutex_);
    --open_;
    changed_.notify_all();
}

std::vector<Exchange> Recorder::all() const {
    const std::lock_guard lock(mutex_);
    return exchanges_;
}

std::size_t Recorder::accepted() const {
    const std::lock_guard lock(mutex_);
    return accepted_;
}

std::size_t Recorder::open() const {
    const std::lock_guard lock(mutex_);
    return open_;
}

bool Recorder::wait_for(const Predicate &predicate, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return predicate(exchanges_); });
}

bool Recorder::wait_until_closed(std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return accepted_ > 0 && open_ == 0; });
}

} // namespace rehearsal
