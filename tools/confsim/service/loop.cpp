// See loop.h.
#include "service/loop.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <system_error>

namespace confsim {

namespace {

// In milliseconds; whoever waits longer simply waits again.
constexpr long long longest_wait = 3600000;

} // namespace

steady_clock::time_point after(seconds delay)
{
    return steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(delay);
}

void event_loop::watch(int descriptor, short events, handler ready)
{
    watched_.push_back(std::make_shared<watched>(watched{descriptor, events, std::move(ready)}));
}

void event_loop::change(int descriptor, short events)
{
    for (const auto &each : watched_) {
        if (each->descriptor == descriptor) {
            each->events = events;
        }
    }
}

void event_loop::forget(int descriptor)
{
    std::erase_if(watched_, [descriptor](const auto &each) {
        const bool forgotten = each->descriptor == descriptor;
        if (forgotten) {
            each->descriptor = -1; // serve_once() may still hold it
        }
        return forgotten;
    });
}

event_loop::timer event_loop::start_timer(seconds delay, std::function<void()> expired)
{
    return timers_.emplace(after(delay), std::move(expired));
}

bool event_loop::run_until(const std::function<bool()> &done, steady_clock::time_point deadline)
{
    while (!done()) {
        if (interrupted_ || steady_clock::now() >= deadline) {
            return false;
        }
        serve_once(deadline);
    }
    return true;
}

bool event_loop::run_until(const std::function<bool()> &done)
{
    return run_until(done, steady_clock::time_point::max());
}

void event_loop::serve_once(steady_clock::time_point deadline)
{
    const std::vector<std::shared_ptr<watched>> served = watched_;
    std::vector<pollfd> polled;
    polled.reserve(served.size());
    for (const auto &each : served) {
        polled.push_back({each->descriptor, each->events, 0});
    }
    if (!timers_.empty()) {
        deadline = std::min(deadline, timers_.begin()->first);
    }
    int wait = -1;
    if (deadline != steady_clock::time_point::max()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
        wait = static_cast<int>(std::clamp<long long>(left.count(), 0, longest_wait));
    }
    if (poll(polled.data(), polled.size(), wait) < 0 && errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), "poll");
    }
    for (std::size_t i = 0; i < served.size(); ++i) {
        if (polled[i].revents != 0 && served[i]->descriptor >= 0) {
            served[i]->ready(polled[i].revents);
        }
    }
    run_timers();
}

void event_loop::run_timers()
{
    const steady_clock::time_point now = steady_clock::now();
    while (!timers_.empty() && timers_.begin()->first <= now) {
        const std::function<void()> expired = std::move(timers_.begin()->second);
        timers_.erase(timers_.begin());
        expired();
    }
}

} // namespace confsim
