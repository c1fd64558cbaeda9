// Makes the calls fail that the library makes: of the system, of the C library, of libxml2, PCRE2
// and cJSON (the list is calls.def), and the allocations inside libxml2.
//
// The library is linked into one object in which these calls lead to the wrappers of faults.cpp;
// the calls of the tests themselves are never touched. While armed, the wrappers number the calls
// and apply one fault. Single-threaded.
#ifndef CONFSVC_FAULT_FAULTS_H
#define CONFSVC_FAULT_FAULTS_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace fault {

enum class family { calls, memory }; // memory: allocations inside libxml2

enum class kind {
    none,
    once,        // the call fails
    ever,        // the call and all that follow fail
    cut,         // a transfer moves fewer bytes than it could
    interrupted, // EINTR
    again,       // EAGAIN
    timeout,     // a wait ends without event at once
    broken,      // the call and all that follow of its name fail
    stuck        // the same with EAGAIN
};

inline constexpr const char *kind_names[] = {"none",   "once",    "ever",   "cut",  "EINTR",
                                             "EAGAIN", "timeout", "broken", "stuck"};

// The faults of the kinds from `cut` on that a call can have, as bits.
constexpr unsigned bit(kind each)
{
    return 1U << static_cast<unsigned>(each);
}

struct call {
    std::string name;
    unsigned kinds = 0;
    std::size_t size = 0; // bytes that a transfer moved
};

struct point {
    fault::family family = family::calls;
    std::size_t number = 0; // of the call, from 1
    fault::kind kind = kind::none;
    std::size_t size = 0; // bytes that a cut transfer moves
};

// Forgets all calls and applies `where` from now on, whenever the library is entered.
void arm(const point &where);

// Between the two the library's calls count.
void enter_library();
void leave_library();

std::vector<call> &calls(family which);

// What the library did instead of waiting: "waited 300000 ms".
std::vector<std::string> take_waits();

// Called before each wait of the library: the turn of its peer. A wait that nothing can end then
// ends as if its time were over.
extern std::function<void()> on_wait;

// Whether the calls that the two logs make count too.
extern bool logs_count;

// Whether a wait without limit would never have ended.
extern bool hangs;

// Replaces libxml2's allocator; to be called before libxml2 is used.
void watch_libxml2();

} // namespace fault

#endif
