// See descriptor_limit.h.
#include "descriptor_limit.h"

#include <algorithm>
#include <sys/resource.h>

namespace confsim {

namespace {

constexpr rlim_t others = 256; // agents, files and programs

rlim_t given_limit = 0; // or 0, as long as it is in force

} // namespace

bool make_room_for_plugins(std::size_t count)
{
    const rlim_t needed = rlim_t{count} + others;
    rlimit now{};
    if (getrlimit(RLIMIT_NOFILE, &now) != 0 || now.rlim_cur >= needed) {
        return true;
    }
    rlimit raised = now;
    raised.rlim_cur = std::min(needed, now.rlim_max);
    if (setrlimit(RLIMIT_NOFILE, &raised) == 0) {
        given_limit = now.rlim_cur;
    }
    return now.rlim_max >= needed;
}

void restore_descriptor_limit()
{
    rlimit now{};
    if (given_limit != 0 && getrlimit(RLIMIT_NOFILE, &now) == 0) {
        now.rlim_cur = given_limit;
        (void)setrlimit(RLIMIT_NOFILE, &now);
    }
}

} // namespace confsim
