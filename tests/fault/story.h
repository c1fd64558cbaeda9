// What the scenarios are written in: a story is a row of steps, each a call of the library, and of
// notes on the state that they leave. Its outcome is a text that can be compared.
#ifndef CONFSVC_FAULT_STORY_H
#define CONFSVC_FAULT_STORY_H

#include "demo_plugin.h"
#include "faults.h"

#include <string>
#include <type_traits>
#include <vector>

namespace fault {

struct scenario {
    const char *name;
    void (*story)();
    bool has_documents = false; // builds, parses or sends them: libxml2's memory fails too
    bool tests_logs = false;
};
extern const std::vector<scenario> scenarios;

// Runs a story, cleans up behind it and returns its outcome, one entry for each step and note.
std::vector<std::string> outcome_of(const scenario &scenario);

void note(const std::string &name, const std::string &text);
void forget_logs();
void end_step(const std::string &name, const std::string &result); // adds what was logged

inline std::string text_of(int number)
{
    return std::to_string(number);
}
inline std::string text_of(const char *text)
{
    return text == nullptr ? "null" : text;
}
inline std::string text_of(const xmlNode *list)
{
    return list == nullptr ? "null" : test::list_of(list);
}
inline std::string text_of(const void *pointer)
{
    return pointer == nullptr ? "null" : "set";
}

// Calls the library while its own calls count. The result, if any, is shown and returned.
template <typename callable>
auto step(const std::string &name, callable call)
{
    enter_library();
    if constexpr (std::is_void_v<decltype(call())>) {
        call();
        end_step(name, "done");
    } else {
        const auto result = call();
        leave_library();
        end_step(name, text_of(result));
        return result;
    }
}

// The same for a call that returns a descriptor, whose number says nothing.
template <typename callable>
int step_fd(const std::string &name, callable call)
{
    int fd = -1;
    step(name, [&] {
        fd = call();
        return fd < 0 ? -1 : 0;
    });
    return fd;
}

// The daemon, which answers whenever the library waits. It lives as long as its story.
class Daemon {
public:
    Daemon();
    ~Daemon();
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    void send(const std::string &request); // to the plugin
    void hang_up();                        // at the wait after the next
    std::string take_replies();            // of the plugin

private:
    void take_turn();

    test::FakeDaemon fake_;
    std::string replies_;
    int waits_left_ = 0; // until it hangs up; 0 for never
};

} // namespace fault

#endif
