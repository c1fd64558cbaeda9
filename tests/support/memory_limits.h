// A way to the end of memory: a buffer that is full.
#ifndef CONFSVC_TEST_MEMORY_LIMITS_H
#define CONFSVC_TEST_MEMORY_LIMITS_H

#include "conf_buffer.h"

#include <cstdint>
#include <sys/mman.h>

namespace test {

// Whether the largest buffers have room here: a small address space has none.
inline bool largest_buffers_fit()
{
    return sizeof(void *) > 4;
}

// A buffer in a mapping of that size, filled up but for `room` bytes. Pages are reserved, not used:
// it costs nothing, and conf_buffer_destroy(), which writes to all of them, is not for it.
inline conf_buffer_t *reserve_buffer(std::int64_t mapping, std::int64_t room)
{
    void *memory = mmap(nullptr, static_cast<std::size_t>(mapping), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    auto *buf = static_cast<conf_buffer_t *>(memory);
    buf->total = static_cast<std::int32_t>(mapping - 8);
    buf->used = static_cast<std::int32_t>(mapping - 9 - room);
    return buf;
}

inline void release_buffer(conf_buffer_t *buf)
{
    munmap(buf, static_cast<std::size_t>(buf->total) + 8);
}

} // namespace test

#endif
