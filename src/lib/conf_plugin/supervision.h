// What a supervised plugin does otherwise than a plain one, for as long as its connection lives:
// requests of the daemon that arrive during an exchange are kept, every exchange has a total limit,
// replies do not wait, and failures to join are put into words.
//
// conf_supervisor/ owns the one object of this kind; registration.cpp and exchange.cpp ask for
// it with supervised(), which is null for a plain plugin. Relies on frame.cpp and the byte buffer.
#ifndef CONF_PLUGIN_SUPERVISION_H
#define CONF_PLUGIN_SUPERVISION_H

#include "plugin_internal.h"

// Milliseconds of a clock that nobody sets.
[[nodiscard]] long long monotonic_time();

// Makes an eventfd readable. May be called from a signal handler.
void wake_loop(int event_fd);

class supervision {
public:
    supervision(int event_fd, int answer_limit);
    ~supervision();
    supervision(const supervision &) = delete;
    supervision &operator=(const supervision &) = delete;

    // ---- for the supervisor

    // Between the two, exchanges share one limit, and whatever context there is, is supervised;
    // afterwards, the present one.
    void begin_joining(int limit);
    void end_joining();
    [[nodiscard]] bool is_joining() const { return is_joining_; }
    [[nodiscard]] bool owns_context() const;

    // The next request that was kept. Null when it could not be parsed.
    [[nodiscard]] bool has_kept() const;
    [[nodiscard]] xmlNode *take_kept();
    void drop_kept();

    // Whether the loop is to look at the plugin after every exchange, since it does not watch the
    // socket for input.
    void wake_always(bool always) { wakes_always_ = always; }

    // ---- for the exchange

    void begin_exchange();
    void end_exchange(bool failed);

    // What is left of the limit, in milliseconds.
    [[nodiscard]] int time_left() const;

    // Copies the first message of a buffer, unless it begins as a reply does, or no more fit.
    // forget_last() takes that back when it turns out not to be a request.
    [[nodiscard]] bool keep_first(const conf_buffer_t *buffer);
    void forget_last();

    // ---- for both

    __attribute__((format(printf, 2, 3))) void explain(const char *format, ...);
    [[nodiscard]] const char *explanation() const { return explanation_; }

private:
    int event_fd_;
    int answer_limit_;
    bool is_joining_ = false;
    bool wakes_always_ = false;
    unsigned generation_ = 0; // of the supervised context
    long long deadline_ = 0;
    conf_buffer_t *kept_ = nullptr; // whole messages, made with the first
    int taken_ = 0;                 // bytes at its beginning
    int last_size_ = 0;             // of the message that was kept last
    char explanation_[256] = "";

    friend supervision *supervised();
};

// Puts a supervision into force, or with null ends the present one.
void supervise(supervision *next);

// The supervision of the plugin context of the process; null for a plain plugin.
[[nodiscard]] supervision *supervised();

#endif
