// See loop.h.
#include "service/loop.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <sys/epoll.h>
#include <system_error>
#include <unistd.h>

namespace confsim {

namespace {

// In milliseconds; whoever waits longer simply waits again.
constexpr long long longest_wait = 3600000;

static_assert(EPOLLIN == POLLIN && EPOLLOUT == POLLOUT && EPOLLERR == POLLERR &&
              EPOLLHUP == POLLHUP);

[[noreturn]] void fail(const char *call)
{
    throw std::system_error(errno, std::generic_category(), call);
}

epoll_event event_for(int descriptor, short events)
{
    epoll_event event{};
    event.events = static_cast<std::uint32_t>(events);
    event.data.fd = descriptor;
    return event;
}

} // namespace

steady_clock::time_point after(seconds delay)
{
    return steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(delay);
}

event_loop::event_loop() : epoll_(epoll_create1(EPOLL_CLOEXEC))
{
    if (epoll_ < 0) {
        fail("epoll_create1");
    }
}

event_loop::~event_loop()
{
    close(epoll_);
}

void event_loop::watch(int descriptor, short events, handler ready)
{
    auto made = std::make_shared<watched>(watched{++last_order_, events, std::move(ready)});
    epoll_event event = event_for(descriptor, events);
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event) != 0) {
        if (errno != EPERM) {
            fail("epoll_ctl");
        }
        made->is_file = true;
        ++files_;
    }
    watched_[descriptor] = std::move(made);
}

void event_loop::change(int descriptor, short events)
{
    const auto found = watched_.find(descriptor);
    if (found == watched_.end() || found->second->events == events) {
        return;
    }
    found->second->events = events;
    epoll_event event = event_for(descriptor, events);
    if (!found->second->is_file && epoll_ctl(epoll_, EPOLL_CTL_MOD, descriptor, &event) != 0) {
        fail("epoll_ctl");
    }
}

void event_loop::forget(int descriptor)
{
    const auto found = watched_.find(descriptor);
    if (found == watched_.end()) {
        return;
    }
    found->second->is_forgotten = true; // serve_once() may still hold it
    if (found->second->is_file) {
        --files_;
    } else {
        (void)epoll_ctl(epoll_, EPOLL_CTL_DEL, descriptor, nullptr);
    }
    watched_.erase(found);
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

// What is served may take longer than the wait, so what is there must wake the loop only once.
bool event_loop::wait_readable(int descriptor)
{
    bool readable = false;
    watch(descriptor, POLLIN, [&](short) {
        readable = true;
        forget(descriptor);
    });
    const bool there = run_until([&readable] { return readable; });
    forget(descriptor);
    return there;
}

// Those that are ready, in the order in which they were added.
std::vector<event_loop::served> event_loop::wait_for_some(int milliseconds)
{
    std::array<epoll_event, 256> events{}; // others are told of the next time
    const int count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()),
                                 files_ > 0 ? 0 : milliseconds);
    if (count < 0 && errno != EINTR) {
        fail("epoll_wait");
    }
    std::vector<served> ready;
    for (int i = 0; i < count; ++i) {
        const epoll_event &each = events[static_cast<std::size_t>(i)];
        const auto found = watched_.find(each.data.fd);
        if (found != watched_.end()) {
            ready.push_back({found->second, static_cast<short>(each.events)});
        }
    }
    if (files_ > 0) {
        for (const auto &[descriptor, each] : watched_) {
            if (each->is_file) {
                ready.push_back({each, each->events});
            }
        }
    }
    std::sort(ready.begin(), ready.end(), [](const served &left, const served &right) {
        return left.what->order < right.what->order;
    });
    return ready;
}

void event_loop::serve_once(steady_clock::time_point deadline)
{
    if (!timers_.empty()) {
        deadline = std::min(deadline, timers_.begin()->first);
    }
    int wait = -1;
    if (deadline != steady_clock::time_point::max()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
        wait = static_cast<int>(std::clamp<long long>(left.count(), 0, longest_wait));
    }
    for (const served &each : wait_for_some(wait)) {
        if (!each.what->is_forgotten) {
            each.what->ready(each.events);
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
