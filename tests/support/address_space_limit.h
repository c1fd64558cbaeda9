// Makes large allocations and mappings fail for a while, in this process.
#ifndef CONFSVC_TEST_ADDRESS_SPACE_LIMIT_H
#define CONFSVC_TEST_ADDRESS_SPACE_LIMIT_H

#include <fstream>
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

} // namespace test

#endif
