// Copies, fills and prints that know the size of their destination and fail rather than overrun.
// Relies on the C library only; nothing here allocates.
#ifndef CONF_SUPPORT_BOUNDED_H
#define CONF_SUPPORT_BOUNDED_H

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace support {

// Overwrites memory with zeros in a way that the compiler cannot drop.
inline void wipe(void *memory, std::size_t size)
{
    explicit_bzero(memory, size);
}

// Overwrites the stack below the caller, where functions that have returned may have left text: to
// be called after handing secrets to functions that are not ours. They reach less deep than this,
// and a thread need not have much more.
[[gnu::noinline]] inline void wipe_stack()
{
    char left_behind[8192];
    wipe(left_behind, sizeof left_behind);
}

// Copies `count` bytes into a destination of `room` bytes; the ranges may overlap.
[[nodiscard]] inline bool copy_bytes(void *to, std::size_t room, const void *from,
                                     std::size_t count)
{
    if (count > room) {
        return false;
    }
    if (count > 0) {
        std::memmove(to, from, count);
    }
    return true;
}

// Copies as much of a text as fits into `room` bytes (at least 1) with its terminator.
inline void copy_text(char *to, std::size_t room, const char *from)
{
    const std::size_t length = strnlen(from, room - 1);
    std::memcpy(to, from, length);
    to[length] = '\0';
}

// Prints into `room` bytes (at least 1), terminator included. A text that does not fit leaves the
// destination empty.
__attribute__((format(printf, 3, 0))) inline bool vprint(char *to, std::size_t room,
                                                         const char *format, std::va_list arguments)
{
    const int length = std::vsnprintf(to, room, format, arguments);
    const bool fits = length >= 0 && static_cast<std::size_t>(length) < room;
    if (!fits) {
        wipe(to, room);
    }
    return fits;
}

// As vprint(), but a text that does not fit is cut. For texts whose beginning is of use.
__attribute__((format(printf, 3, 4))) inline void print_cut(char *to, std::size_t room,
                                                            const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    if (std::vsnprintf(to, room, format, arguments) < 0) {
        to[0] = '\0';
    }
    va_end(arguments);
}

} // namespace support

#endif
