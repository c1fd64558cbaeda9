// The memory of this process, for tests of what must not grow.
#ifndef CONFSVC_TEST_MEMORY_H
#define CONFSVC_TEST_MEMORY_H

#include <cstdlib>
#include <fstream>
#include <malloc.h>
#include <unistd.h>

namespace test {

inline constexpr long growth_limit = 65536;

// For main(), first of all. What the allocator's cache for a thread holds would count as used, and
// keep the heap from being trimmed; it is made with the process.
inline void without_allocator_cache(char **arguments)
{
    if (std::getenv("GLIBC_TUNABLES") == nullptr) {
        setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
        execv("/proc/self/exe", arguments);
    }
}

// Bytes in use of the heap, and of all mappings.
inline long long memory_now()
{
    malloc_trim(0);
    const auto info = mallinfo2();
    long long pages = 0; // an emulator has more than a small machine can count
    std::ifstream("/proc/self/statm") >> pages;
    return static_cast<long long>(info.uordblks + info.hblkhd) + pages * getpagesize();
}

} // namespace test

#endif
