// See faults.h. The wrappers of most calls are all of one form and made from calls.def; those that
// take a variable number of arguments, can fail in several ways or may not really fail are here.
#include "faults.h"

#include "conf_debug.h"
#include "support/log.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <cJSON.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <grp.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlmemory.h>
#include <pthread.h>
#include <pwd.h>
#include <string>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace fault {

namespace {

point armed;
bool inside = false;
std::vector<call> made[2];
std::vector<std::string> waits;

// The library prints numbers and short texts: no lack of anything makes that fail.
bool can_fail_for_ever(const char *name)
{
    return std::strstr(name, "printf") == nullptr;
}

// Numbers a call and tells what it is to do.
kind next(family which, const char *name, unsigned kinds = 0)
{
    if (!inside) {
        return kind::none;
    }
    std::vector<call> &of_family = made[static_cast<int>(which)];
    of_family.push_back({name, kinds});
    if (which != armed.family || armed.kind == kind::none || of_family.size() < armed.number) {
        return kind::none;
    }
    if (of_family.size() == armed.number) {
        return armed.kind;
    }
    const bool again = armed.kind == kind::ever ? can_fail_for_ever(name)
                       : armed.kind == kind::broken || armed.kind == kind::stuck
                           ? of_family[armed.number - 1].name == name
                           : false;
    return again ? armed.kind : kind::none;
}

// Whether a call that fails in one way only is to fail now.
bool fails(const char *name, int error)
{
    if (next(family::calls, name) == kind::none) {
        return false;
    }
    errno = error;
    return true;
}

constexpr unsigned reading = bit(kind::cut) | bit(kind::interrupted);
constexpr unsigned sending_datagram =
    bit(kind::interrupted) | bit(kind::again) | bit(kind::broken) | bit(kind::stuck);
constexpr unsigned sending = sending_datagram | bit(kind::cut);

template <typename work>
ssize_t transfer(const char *name, int error, unsigned kinds, std::size_t size, work move)
{
    const kind what = next(family::calls, name, kinds);
    if (what == kind::none || what == kind::cut) {
        const ssize_t moved = move(what == kind::cut ? std::min(armed.size, size) : size);
        if (inside && moved > 0) {
            made[0].back().size = static_cast<std::size_t>(moved);
        }
        return moved;
    }
    const bool is_full = what == kind::again || what == kind::stuck;
    errno = what == kind::interrupted ? EINTR : is_full ? EAGAIN : error;
    return -1;
}

// What the logs call is not counted, unless they are tested.
class quiet {
public:
    quiet() : before_(inside) { inside = inside && logs_count; }
    ~quiet() { inside = before_; }
    quiet(const quiet &) = delete;
    quiet &operator=(const quiet &) = delete;

private:
    bool before_;
};

void *xml_memory(void *old, std::size_t size)
{
    return next(family::memory, "allocation") == kind::none ? std::realloc(old, size) : nullptr;
}

template <typename>
struct signature;
template <typename result_type, typename... types>
struct signature<result_type(types...)> {
    using result = result_type;
    template <std::size_t number>
    using parameter = std::tuple_element_t<number, std::tuple<types...>>;
};
template <typename result_type, typename... types>
struct signature<result_type(types...) noexcept> : signature<result_type(types...)> {
};

} // namespace

std::function<void()> on_wait;
bool logs_count = false;
bool hangs = false;

void arm(const point &where)
{
    armed = where;
    made[0] = {};
    made[1] = {};
}

void enter_library()
{
    inside = true;
}

void leave_library()
{
    inside = false;
}

std::vector<call> &calls(family which)
{
    return made[static_cast<int>(which)];
}

std::vector<std::string> take_waits()
{
    return std::exchange(waits, {});
}

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
#define OF(name) signature<decltype(name)>
#define P0(name)
#define P1(name) OF(name)::parameter<0> a
#define P2(name) P1(name), OF(name)::parameter<1> b
#define P3(name) P2(name), OF(name)::parameter<2> c
#define P4(name) P3(name), OF(name)::parameter<3> d
#define P5(name) P4(name), OF(name)::parameter<4> e
#define P6(name) P5(name), OF(name)::parameter<5> f
#define P7(name) P6(name), OF(name)::parameter<6> g
#define A0
#define A1 a
#define A2 A1, b
#define A3 A2, c
#define A4 A3, d
#define A5 A4, e
#define A6 A5, f
#define A7 A6, g

extern "C" {

#define CALL(count, name, failure, error)                                                          \
    OF(name)::result __wrap_##name(P##count(name))                                                 \
    {                                                                                              \
        return fails(#name, error) ? failure : name(A##count);                                     \
    }
#define SPECIAL(name)
#define UNFAILING(name)
#include "calls.def"

void *__wrap_mremap(void *old, std::size_t old_size, std::size_t size, int flags, ...)
{
    return fails("mremap", ENOMEM) ? MAP_FAILED : mremap(old, old_size, size, flags);
}

int __wrap_snprintf(char *to, std::size_t room, const char *format, ...)
{
    if (fails("snprintf", EOVERFLOW)) {
        return -1;
    }
    std::va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(to, room, format, arguments);
    va_end(arguments);
    return length;
}

int __wrap_open64(const char *path, int flags, ...)
{
    return fails("open64", EMFILE) ? -1 : open64(path, flags, 0666);
}

int __wrap_fcntl64(int fd, int command, ...)
{
    std::va_list arguments;
    va_start(arguments, command);
    const int flags = command == F_SETFL ? va_arg(arguments, int) : 0;
    va_end(arguments);
    return fails("fcntl64", EBADF) ? -1 : fcntl64(fd, command, flags);
}

// The system closes the descriptor even when it reports a failure.
int __wrap_close(int fd)
{
    const bool failed = fails("close", EIO);
    const int cause = errno;
    const int result = close(fd);
    errno = failed ? cause : errno;
    return failed ? -1 : result;
}

int __wrap_fclose(FILE *file)
{
    const bool failed = fails("fclose", EIO);
    return fclose(file) != 0 || failed ? EOF : 0;
}

ssize_t __wrap_read(int fd, void *to, std::size_t size)
{
    return transfer("read", EIO, reading, size,
                    [=](std::size_t part) { return read(fd, to, part); });
}

ssize_t __wrap_write(int fd, const void *from, std::size_t size)
{
    return transfer("write", ENOSPC, reading, size,
                    [=](std::size_t part) { return write(fd, from, part); });
}

ssize_t __wrap_send(int fd, const void *from, std::size_t size, int flags)
{
    return transfer("send", ENOBUFS, sending, size,
                    [=](std::size_t part) { return send(fd, from, part, flags); });
}

ssize_t __wrap_sendto(int fd, const void *from, std::size_t size, int flags,
                      const sockaddr *address, socklen_t length)
{
    return transfer("sendto", ENOBUFS, sending_datagram, size, [=](std::size_t part) {
        return sendto(fd, from, part, flags, address, length);
    });
}

int __wrap_epoll_wait(int epoll, epoll_event *events, int room, int limit)
{
    const kind what =
        next(family::calls, "epoll_wait", bit(kind::interrupted) | bit(kind::timeout));
    if (what != kind::none && what != kind::timeout) {
        errno = what == kind::interrupted ? EINTR : EBADF;
        return -1;
    }
    if (what == kind::none && on_wait) {
        on_wait();
    }
    const int count = what == kind::none ? epoll_wait(epoll, events, room, 0) : 0;
    if (count == 0) {
        waits.push_back("waited " + std::to_string(limit) + " ms");
        if (limit < 0) {
            hangs = hangs || what == kind::none;
            errno = EBADF;
            return -1;
        }
    }
    return count;
}

unsigned __wrap_sleep(unsigned seconds)
{
    waits.push_back("slept " + std::to_string(seconds) + " s");
    return 0;
}

int __wrap_semctl(int set, int number, int command, ...)
{
    union {
        int value;
        void *pointer;
    } argument{};
    std::va_list arguments;
    va_start(arguments, command);
    if (command == SETVAL) {
        argument.value = va_arg(arguments, int);
    }
    va_end(arguments);
    return fails("semctl", EIDRM) ? -1 : semctl(set, number, command, argument);
}

int __wrap_semop(int set, sembuf *operations, std::size_t count)
{
    const kind what = next(family::calls, "semop", bit(kind::interrupted));
    if (what == kind::none) {
        return semop(set, operations, count);
    }
    if (what != kind::interrupted) {
        (void)semctl(set, 0, IPC_RMID); // nothing else makes it fail
    }
    errno = what == kind::interrupted ? EINTR : EIDRM;
    return -1;
}

// Every machine has the group here, and it is one that a file can be given to.
group *__wrap_getgrnam(const char * /*name*/)
{
    static group own{};
    own.gr_gid = getegid();
    return fails("getgrnam", EMFILE) ? nullptr : &own;
}

cJSON *__wrap_cJSON_Parse(const char *text)
{
    const bool failed = fails("cJSON_Parse", ENOMEM);
    return cJSON_Parse(failed ? "" : text); // which also sets what cJSON_GetErrorPtr() returns
}

void __wrap__Z15_conf_write_logiPKcz(int level, const char *format, ...)
{
    char text[4096];
    std::va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const quiet scope;
    _conf_write_log(level, "%s", text);
}

void __wrap_safety_syslog(int priority, const char *format, ...)
{
    char *text = nullptr;
    std::va_list arguments;
    va_start(arguments, format);
    (void)vasprintf(&text, format, arguments);
    va_end(arguments);
    const quiet scope;
    safety_syslog(priority, "%s", text);
    std::free(text);
}

} // extern "C"
// NOLINTEND(cert-err33-c)
