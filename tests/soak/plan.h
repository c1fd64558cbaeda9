// What happens in each exchange and each change of a soak: it follows from the seed and a number,
// so that plugin and daemon, in two processes, both know it. Relies on the requests of
// demo_plugin.h.
#ifndef CONFSVC_TEST_SOAK_PLAN_H
#define CONFSVC_TEST_SOAK_PLAN_H

#include "demo_plugin.h"

#include <algorithm>
#include <random>
#include <string>

namespace soak {

using namespace test;
using number = unsigned long long;

// The arguments of the program.
inline number exchanges = 0;
inline number changes = 0;
inline number seed = 0;

inline number below(std::mt19937_64 &random, number limit)
{
    return random() % limit;
}

struct step {
    number kind;
    bool error, hangs_up;
    std::string text; // of its own, at times several pages long
};

inline step step_of(number which, number kinds)
{
    std::mt19937_64 random(seed + which);
    step made{below(random, kinds), below(random, 8) == 0, below(random, 500) == 0, {}};
    const number size = below(random, 50) == 0 ? 16000 + below(random, 4000) : below(random, 200);
    do {
        made.text += std::to_string(which) + '-';
    } while (made.text.size() < size);
    return made;
}

// ---- exchanges ---------------------------------------------------------------------------------

inline constexpr struct {
    const char *method, *before, *after; // around the text in the request
    const char *element = nullptr;       // around the text in the list that a reading call gets
} kinds[] = {
    {"pull", "<path>", "</path>", "v"},
    {"pull", "<old/><path>", "</path>", "v"},
    {"locate", "<path>", "</path>", "prev"},
    {"push", "<path>/p</path><data><v>", "</v></data>"},
    {"config_deployment", "<path>/p</path><oper-type>add</oper-type><data><v>", "</v></data>"},
};

inline int call(const step &now, xmlNode *data, xmlNode **list)
{
    switch (now.kind) {
    case 0:
    case 1:
        return econf_plugin_pull(static_cast<int>(now.kind), now.text.c_str(), list);
    case 2:
        return econf_plugin_locate(0, now.text.c_str(), list);
    case 3:
        return econf_plugin_push("/p", data);
    default:
        return econf_plugin_config_deployment("/p", 0, data);
    }
}

inline step exchange_of(number which)
{
    return step_of(which, std::size(kinds));
}

inline std::string element_of(const std::string &name, const std::string &text)
{
    return "<" + name + ">" + text + "</" + name + ">";
}

inline std::string list_of_exchange(const step &now)
{
    const char *element = kinds[now.kind].element;
    return element == nullptr ? "" : element_of(element, now.text);
}

inline std::string content_of_exchange(const step &now)
{
    const std::string list = list_of_exchange(now);
    return now.error       ? error("7", now.text)
           : now.kind <= 1 ? element_of("result", element_of("data", list))
           : list.empty()  ? "<result/>"
                           : element_of("result", list);
}

// Exchanges are spread evenly over the changes: some of those of a change are made while it is
// handled, the others afterwards.
inline number exchanges_until(number change)
{
    return exchanges * change / changes;
}

inline number exchanges_inside(number change)
{
    return std::min(exchanges_until(change) + change % 4, exchanges_until(change + 1));
}

// ---- changes -----------------------------------------------------------------------------------

inline step change_of(number which)
{
    return step_of((number{1} << 40) + which, 3);
}

inline bool describes_its_error(const step &now)
{
    return now.text.size() % 2 == 0;
}

// What the daemon sends, how the callback is called for it, and what is answered.
struct dialogue {
    std::string request, call, content;
};

inline dialogue dialogue_of(const step &now)
{
    const std::string path = "/c/" + now.text;
    const std::string path_element = element_of("path", path);
    const std::string output = element_of("o", now.text);
    const std::string input = element_of("i", now.text);
    dialogue all[] = {
        {config(path), "config 3 1 0 10 " + path, "<result/>"},
        {subscribe(path_element), "status 4 " + path + " null",
         element_of("result", path_element + element_of("data", output))},
        {operate(input), "operate 3 " + input, element_of("result", output)},
    };
    if (now.error) {
        all[now.kind].content =
            describes_its_error(now) ? error("6", now.text) : error("5", default_error);
    }
    return all[now.kind];
}

} // namespace soak

#endif
