// One event loop for everything: sockets, terminal, child and timers, in one thread.
#ifndef CONFSIM_LOOP_H
#define CONFSIM_LOOP_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace confsim {

using steady_clock = std::chrono::steady_clock;
using seconds = std::chrono::duration<double>;

[[nodiscard]] steady_clock::time_point after(seconds delay);

class event_loop {
public:
    using handler = std::function<void(short events)>; // as poll(2) reports them
    using timer = std::multimap<steady_clock::time_point, std::function<void()>>::iterator;

    event_loop();
    ~event_loop();
    event_loop(const event_loop &) = delete;
    event_loop &operator=(const event_loop &) = delete;

    // Descriptors are served in the order in which they were added, each of them once, and are
    // forgotten before they are closed. A handler may add and remove any of them, its own included.
    void watch(int descriptor, short events, handler ready);
    void change(int descriptor, short events);
    void forget(int descriptor);

    // A timer runs once, unless it is stopped before.
    timer start_timer(seconds delay, std::function<void()> expired);
    void stop_timer(timer which) { timers_.erase(which); }

    // Serves all until `done` holds, the time has passed or the loop is interrupted. Returns
    // whether `done` holds.
    bool run_until(const std::function<bool()> &done, steady_clock::time_point deadline);
    bool run_until(const std::function<bool()> &done);

    // Serves all until there is something to read, or nothing will come any more; false when it was
    // interrupted.
    [[nodiscard]] bool wait_readable(int descriptor);

    // Ends this and all further runs, until it is resumed.
    void interrupt() { interrupted_ = true; }
    void resume() { interrupted_ = false; }
    [[nodiscard]] bool is_interrupted() const { return interrupted_; }

private:
    struct watched {
        std::uint64_t order;
        short events;
        handler ready;
        bool is_file = false; // always ready, which the kernel does not tell
        bool is_forgotten = false;
    };
    struct served {
        std::shared_ptr<watched> what;
        short events;
    };

    [[nodiscard]] std::vector<served> wait_for_some(int milliseconds);
    void serve_once(steady_clock::time_point deadline);
    void run_timers();

    int epoll_;
    std::map<int, std::shared_ptr<watched>> watched_; // by descriptor
    std::size_t files_ = 0;                           // among them
    std::uint64_t last_order_ = 0;
    std::multimap<steady_clock::time_point, std::function<void()>> timers_;
    bool interrupted_ = false;
};

} // namespace confsim

#endif
