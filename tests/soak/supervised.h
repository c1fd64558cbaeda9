// What the two sources of the program `supervised` share: its command line, and a host.
#ifndef CONFSVC_SOAK_SUPERVISED_H
#define CONFSVC_SOAK_SUPERVISED_H

#include "../support/supervised.h"
#include "conf_plugin/supervision.h"

#include <algorithm>

// See main().
struct command_line {
    const char *confsim;
    int asked, kills, period;
};
inline command_line plan;

// How the timer of a host fared, in milliseconds: the longest lateness of a tick, and the longest
// tick.
struct timing {
    long long late = 0, tick = 0;
};

// The loop of a host with a timer. A tick is due a period after the end of the one before, so that
// only the supervisor makes it late.
inline timing live(int fd, int period, const std::function<int()> &process,
                   const std::function<void()> &tick, const std::function<bool()> &is_over)
{
    constexpr unsigned patience = 120; // seconds after which a run that hangs is killed
    timing longest;
    alarm(patience);
    long long due = monotonic_time() + period;
    while (!is_over()) {
        pollfd input = {fd, POLLIN, 0};
        (void)poll(&input, 1, static_cast<int>(std::max(due - monotonic_time(), 0LL)));
        EXPECT_TRUE(input.revents == 0 || process() == 1);
        const long long begin = monotonic_time();
        if (begin >= due) {
            tick();
            longest.late = std::max(longest.late, begin - due);
            longest.tick = std::max(longest.tick, monotonic_time() - begin);
            due = monotonic_time() + period;
        }
    }
    return longest;
}

#endif
