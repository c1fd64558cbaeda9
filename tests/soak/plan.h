// What happens in each exchange and each change of a soak: it follows from the seed and a number,
// so that plugin and daemon, in two processes, both know it. Relies on the requests of
// demo_plugin.h.
#ifndef CONFSVC_TEST_SOAK_PLAN_H
#define CONFSVC_TEST_SOAK_PLAN_H

#include "demo_plugin.h"

#include <algorithm>
#include <random>
#include <regex>
#include <string>
#include <vector>

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

// With % for the text of the step. What is seen is the list that a reading call gets, or how the
// callback is called.
struct form {
    std::string sent, seen, answered;
};
inline const std::vector<form> exchange_forms = {
    {rpc("pull", "<params><path>%</path></params>", ""), "<v>%</v>",
     "<result><data><v>%</v></data></result>"},
    {rpc("pull", "<params><old/><path>%</path></params>", ""), "<v>%</v>",
     "<result><data><v>%</v></data></result>"},
    {rpc("locate", "<params><path>%</path></params>", ""), "<prev>%</prev>",
     "<result><prev>%</prev></result>"},
    {rpc("push", "<params><path>/p</path><data><v>%</v></data></params>", ""), "", "<result/>"},
    {rpc("config_deployment",
         "<params><path>/p</path><oper-type>add</oper-type><data><v>%</v></data></params>", ""),
     "", "<result/>"},
};
inline const std::vector<form> change_forms = {
    {config("/c/%"), "config 3 1 0 10 /c/%", "<result/>"},
    {subscribe("<path>/c/%</path>"), "status 4 /c/% null",
     "<result><path>/c/%</path><data><o>%</o></data></result>"},
    {operate("<o>%</o>"), "operate 3 <o>%</o>", "<result><o>%</o></result>"},
};

struct step {
    number kind;
    bool error, hangs_up, describes_error;
    std::string text = {}; // of its own, at times several pages long
    std::string sent = {}, seen = {}, answered = {};
};

inline step step_of(number which, const std::vector<form> &forms)
{
    static const std::regex mark("%");
    std::mt19937_64 random(seed + which);
    step made{below(random, forms.size()), below(random, 8) == 0, below(random, 500) == 0,
              below(random, 2) == 0};
    const number size = below(random, 50) == 0 ? 16000 + below(random, 4000) : below(random, 200);
    do {
        made.text += std::to_string(which) + '-';
    } while (made.text.size() < size);
    const form &form = forms[made.kind];
    made.sent = std::regex_replace(form.sent, mark, made.text);
    made.seen = std::regex_replace(form.seen, mark, made.text);
    made.answered = !made.error            ? std::regex_replace(form.answered, mark, made.text)
                    : made.describes_error ? error("6", made.text)
                                           : error("5", default_error);
    return made;
}

inline step exchange_of(number which)
{
    return step_of(which, exchange_forms);
}

inline step change_of(number which)
{
    return step_of((number{1} << 40) + which, change_forms);
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

} // namespace soak

#endif
