// Owners that release what they hold when they go out of scope: descriptors, heap texts, byte
// buffers. Those for libxml2's objects stand with the calls that make them (conf_plugin/xml.h).
#ifndef CONF_SUPPORT_OWNERS_H
#define CONF_SUPPORT_OWNERS_H

#include "conf_buffer.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <unistd.h>

namespace support {

// Keeps errno over calls that may change it, such as those that report a failure.
class errno_keeper {
public:
    errno_keeper() : value_(errno) {}
    ~errno_keeper() { errno = value_; }
    errno_keeper(const errno_keeper &) = delete;
    errno_keeper &operator=(const errno_keeper &) = delete;

private:
    int value_;
};

class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] explicit operator bool() const { return fd_ >= 0; }
    [[nodiscard]] int release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    // Closes without touching errno, so that a failure can still be reported afterwards.
    void reset(int fd = -1)
    {
        if (fd_ >= 0) {
            const errno_keeper keep;
            (void)::close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

template <auto release>
struct released_by {
    template <typename type>
    void operator()(type *object) const
    {
        release(object);
    }
};

using heap_text = std::unique_ptr<char, released_by<std::free>>;
using buffer_owner = std::unique_ptr<conf_buffer_t, released_by<conf_buffer_destroy>>;

} // namespace support

#endif
