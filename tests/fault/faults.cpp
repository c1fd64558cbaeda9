// Makes the calls fail that the library makes; see lane.h. The wrappers of most calls are all of
// one form and made from calls.def.
#include "lane.h"

#include "support/log.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <cJSON.h>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <grp.h>
#include <libxml/parserInternals.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace fault {

namespace {

constexpr unsigned always = once | ever;
constexpr unsigned reading = always | cut | interrupted;
constexpr unsigned sending = always | interrupted | again | broken | stuck;

// Numbers a call and tells what it is to do.
unsigned next(const char *name, unsigned kinds, bool is_inside_libxml2 = false)
{
    if (!inside) {
        return none;
    }
    const std::size_t number = ++stage->counted[is_inside_libxml2 ? 1 : 0];
    if (!is_inside_libxml2) {
        stage->calls.at(number - 1) = {name, kinds, 0};
    }
    if (is_inside_libxml2 != armed.is_inside_libxml2 || number < armed.number) {
        return none;
    }
    // The library prints numbers and short texts: no lack of anything makes that fail.
    const bool fails =
        number == armed.number || (armed.kind == ever && std::strstr(name, "printf") == nullptr) ||
        (armed.kind >= broken && std::strcmp(stage->calls[armed.number - 1].name, name) == 0);
    return fails ? armed.kind : none;
}

// Whether a call that fails in one way only is to fail now.
bool fails(const char *name, int error)
{
    const bool now = next(name, always) != none;
    errno = now ? error : errno;
    return now;
}

template <typename work>
ssize_t transfer(const char *name, int error, unsigned kinds, std::size_t size, work move)
{
    const unsigned what = next(name, kinds);
    if ((what & ~cut) != none) {
        errno = what == interrupted ? EINTR : what == again || what == stuck ? EAGAIN : error;
        return -1;
    }
    const ssize_t moved = move(what == cut ? std::min(armed.size, size) : size);
    if (inside && moved > 0) {
        stage->calls[stage->counted[0] - 1].size = static_cast<std::size_t>(moved);
    }
    return moved;
}

void *xml_memory(void *old, std::size_t size)
{
    return next("allocation", always, true) == none ? std::realloc(old, size) : nullptr;
}

} // namespace

void watch_libxml2()
{
    (void)xmlMemSetup(
        std::free, [](std::size_t size) { return xml_memory(nullptr, size); }, xml_memory,
        [](const char *text) {
            void *copy = xml_memory(nullptr, std::strlen(text) + 1);
            return copy == nullptr ? nullptr : std::strcpy(static_cast<char *>(copy), text);
        });
}

} // namespace fault

using namespace fault;

// NOLINTBEGIN(cert-err33-c)
#define VARIADIC(name, parameters, arguments, failure, error)                                      \
    extern "C" auto __wrap_##name parameters->decltype(name arguments)                             \
    {                                                                                              \
        return fails(#name, error) ? failure : name arguments;                                     \
    }
#define TRANSFER(name, parameters, arguments, kinds, error)                                        \
    extern "C" ssize_t __wrap_##name parameters                                                    \
    {                                                                                              \
        return transfer(#name, error, kinds, size, [=](auto part) { return name arguments; });     \
    }
// A template, since that takes the parameters from the type of the function.
#define CALL(name, failure, error)                                                                 \
    template <typename>                                                                            \
    struct name##_wrapper;                                                                         \
    template <typename result, typename... types, bool throws_nothing>                             \
    struct name##_wrapper<result(types...) noexcept(throws_nothing)> {                             \
        static result call(types... values) asm("__wrap_" #name);                                  \
    };                                                                                             \
    template <typename result, typename... types, bool throws_nothing>                             \
    result name##_wrapper<result(types...) noexcept(throws_nothing)>::call(types... values)        \
    {                                                                                              \
        return fails(#name, error) ? failure : name(values...);                                    \
    }                                                                                              \
    template struct name##_wrapper<decltype(name)>;
#define SPECIAL(name)
#define UNFAILING(names)
#include "calls.def"

// A wait that nothing can end ends as if its time were over.
template <typename poller>
int wait_at_most(int limit, const char *name, poller look)
{
    const unsigned what = next(name, always | interrupted | timeout);
    if (what == none) {
        take_turn();
    }
    int count = what == none ? look() : what == timeout ? 0 : -1;
    if (count == 0) {
        waits.push_back("waited " + std::to_string(limit) + " ms");
        waited += std::max(limit, 0);
        count = limit < 0 ? -1 : 0;
        hangs = hangs || (limit < 0 && what == none);
    }
    errno = count >= 0 ? errno : what == interrupted ? EINTR : EBADF;
    return count;
}

extern "C" {

int __wrap_snprintf(char *to, std::size_t room, const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    const int length = fails("snprintf", EOVERFLOW) ? -1 : vsnprintf(to, room, format, arguments);
    va_end(arguments);
    return length;
}

int __wrap_epoll_wait(int epoll, epoll_event *events, int room, int limit)
{
    return wait_at_most(limit, "epoll_wait", [&] { return epoll_wait(epoll, events, room, 0); });
}

int __wrap_poll(pollfd *states, nfds_t count, int limit)
{
    return wait_at_most(limit, "poll", [&] { return poll(states, count, 0); });
}

// Nothing but waiting takes time.
int __wrap_clock_gettime(clockid_t /*clock*/, timespec *now)
{
    *now = {waited / 1000, waited % 1000 * 1000000};
    return 0;
}

int __wrap_nanosleep(const timespec *time, timespec * /*left*/)
{
    waits.push_back("slept " + std::to_string(time->tv_sec) + " s");
    return 0;
}

int __wrap_semop(int set, sembuf *operations, std::size_t count)
{
    const unsigned what = next("semop", always | interrupted);
    if ((what & always) != none) {
        (void)semctl(set, 0, IPC_RMID); // nothing else makes it fail
    }
    const int result = what == none ? semop(set, operations, count) : -1;
    errno = what == none ? errno : what == interrupted ? EINTR : EIDRM;
    return result;
}

// Every machine has the group here, and it is one that a file can be given to.
group *__wrap_getgrnam(const char * /*name*/)
{
    static group own{};
    own.gr_gid = getegid();
    return fails("getgrnam", EMFILE) ? nullptr : &own;
}

#define LOG(name, mangled)                                                                         \
    void __wrap_##mangled(int level, const char *format, ...)                                      \
    {                                                                                              \
        char *text = nullptr;                                                                      \
        std::va_list arguments;                                                                    \
        va_start(arguments, format);                                                               \
        (void)vasprintf(&text, format, arguments);                                                 \
        va_end(arguments);                                                                         \
        const bool before = std::exchange(inside, inside && logs_count);                           \
        name(level, "%s", text);                                                                   \
        inside = before;                                                                           \
        std::free(text);                                                                           \
    }
LOG(_conf_write_log, _Z15_conf_write_logiPKcz)
LOG(safety_syslog, safety_syslog)

} // extern "C"
// NOLINTEND(cert-err33-c)
