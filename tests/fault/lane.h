// What the parts of the fault lane share. The library is linked into one object in which each call
// that can fail (calls.def) leads to a wrapper of faults.cpp; the calls of the tests are never
// touched. A story (stories_*.cpp) is a row of steps, each a call of the library, and of notes on
// the state that they leave. It is played with one fault after the other. Single-threaded.
#ifndef CONFSVC_FAULT_LANE_H
#define CONFSVC_FAULT_LANE_H

#include "conf_misc.h"
#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/xml.h"
#include "demo_plugin.h"

#include <array>
#include <cstring>
#include <utility>

namespace fault {

// ---- faults.cpp --------------------------------------------------------------------------------

enum kind : unsigned { // bits
    none = 0,
    once = 1,
    ever = 2,
    cut = 4,
    interrupted = 8,
    again = 16,
    timeout = 32,
    broken = 64,
    stuck = 128
};

struct point {
    unsigned kind = none;
    std::size_t number = 0; // of the call, from 1
    std::size_t size = 0;   // bytes that a cut transfer moves
    bool is_inside_libxml2 = false;
};

struct call {
    const char *name;
    unsigned kinds;   // of faults that it can have
    std::size_t size; // bytes that a transfer moved
};

// A story played in a process of its own, as its parent sees it.
struct performance {
    std::array<call, 10000> calls;
    std::size_t counted[2]; // calls, and allocations inside libxml2
    std::size_t growth;     // of the heap
    std::array<char, 1 << 16> first, again, damage;
};

inline performance *stage;
inline point armed;                    // the fault that is applied
inline bool inside = false;            // the library: calls count
inline bool logs_count = false;        // and those that the two logs make
inline bool hangs = false;             // a wait without limit would never have ended
inline std::vector<std::string> waits; // what the library did instead: "waited 300000 ms"
inline long long waited = 0;           // so long, in milliseconds

// Replaces libxml2's allocator; to be called before libxml2 is used.
void watch_libxml2();

// ---- play.cpp ----------------------------------------------------------------------------------

// Documents: the memory of libxml2 fails, too. A plugin has those, and a daemon that answers
// whenever the library waits. The calls of the logs count where they are what the story is about.
// What a supervisor lets go of takes the kernel milliseconds, so its transfers are cut at a few
// lengths only.
enum class about { calls, documents, plugin, supervisor, logs };

struct story {
    story(const char *title, about what, void (*row)())
        : name(title), subject(what), steps(row), next(std::exchange(all, this))
    {
    }
    const char *name;
    about subject;
    void (*steps)();
    const story *next;
    static inline const story *all = nullptr;
};

void add_line(const std::string &name, const std::string &result, bool with_logs);
void forget_logs();
// For what a callback does, which is no part of the library.
class outside {
public:
    outside() : before_(std::exchange(inside, false)) {}
    ~outside() { inside = before_; }
    outside(const outside &) = delete;
    outside &operator=(const outside &) = delete;

private:
    bool before_;
};
xmlNode *made_outside(const char *text);
void write_all(xmlNode *data); // every writing request, in two stories

// The daemon of a plugin's story.
void ask(const std::string &request);
void take_turn(); // at each wait of the library
void hang_up();
std::string take_replies(); // of the plugin
inline int waits_left = 0;  // until it hangs up; 0 for never

template <typename type>
std::string text_of(const type &value)
{
    if constexpr (std::is_integral_v<type>) {
        return std::to_string(value);
    } else if constexpr (std::is_same_v<type, std::string>) {
        return value;
    } else if (value == nullptr) {
        return "null";
    } else if constexpr (std::is_convertible_v<type, const char *>) {
        return value;
    } else if constexpr (std::is_convertible_v<type, const xmlNode *>) {
        return test::list_of(value);
    } else {
        return "set";
    }
}

template <typename type>
void note(const std::string &name, const type &value)
{
    add_line(name, text_of(value), false);
}

// Calls the library while its own calls count. The result, if any, is shown and returned.
template <typename callable>
auto step(const std::string &name, callable call)
{
    inside = true;
    if constexpr (std::is_void_v<decltype(call())>) {
        call();
        inside = false;
        add_line(name, "done", true);
    } else {
        const auto result = call();
        inside = false;
        add_line(name, text_of(result), true);
        return result;
    }
}

inline const std::string damage_mark = "DAMAGE:"; // in an outcome that no fault may bring about

struct result {
    std::string kind, name; // "once", "malloc"
    std::size_t number;     // among the calls of that name; 0 for none
    std::string outcome;    // the lines that differ
};

// What comes of the story without a fault, and with each that its calls can have.
std::vector<result> play_all(const story &played);

} // namespace fault

#endif
