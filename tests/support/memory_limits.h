// Two ways to the end of memory, for one process: little room for mappings, and a full buffer.
#ifndef CONFSVC_TEST_MEMORY_LIMITS_H
#define CONFSVC_TEST_MEMORY_LIMITS_H

#include "conf_buffer.h"

#include <cstdint>
#include <fstream>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

namespace test {

// For its lifetime, no more than `slack` bytes can be mapped in addition to what is mapped already.
class AddressSpaceLimit {
public:
    static constexpr rlim_t slack = rlim_t{4} << 20;

    AddressSpaceLimit()
    {
        rlim_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        getrlimit(RLIMIT_AS, &before_);
        const rlimit limit{pages * static_cast<rlim_t>(getpagesize()) + slack, before_.rlim_max};
        setrlimit(RLIMIT_AS, &limit);
    }
    ~AddressSpaceLimit() { setrlimit(RLIMIT_AS, &before_); }
    AddressSpaceLimit(const AddressSpaceLimit &) = delete;
    AddressSpaceLimit &operator=(const AddressSpaceLimit &) = delete;

private:
    rlimit before_{};
};

// Whether such limits work here: an emulator of another machine does not enforce them, and a small
// address space has no room for the largest buffers.
inline bool memory_can_be_limited()
{
    constexpr std::size_t size = 2 * AddressSpaceLimit::slack;
    const AddressSpaceLimit limit;
    void *memory = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED || munmap(memory, size) != 0;
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
