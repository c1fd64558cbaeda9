// A plugin with a callback of each kind, whose behaviour a test sets, and the daemon's requests for
// them. Relies on the fake daemon.
#ifndef CONFSVC_TEST_DEMO_PLUGIN_H
#define CONFSVC_TEST_DEMO_PLUGIN_H

#include "fake_daemon.h"

namespace test {

// What the callbacks do, and how they were called: "config 3 1 0 10 /path".
struct behaviour {
    int result = 0;
    std::function<void()> inside = {};                     // called before they return
    std::function<xmlNode *(xmlNode *input)> produce = {}; // their output
};
inline behaviour act;
inline std::string called;

behaviour records(int result, int code, const char *text); // an error, then the result
behaviour gives(std::function<xmlNode *(xmlNode *input)> produce);

// Output that is the callback's to give away.
std::function<xmlNode *(xmlNode *)> nodes_of(const std::string &text);

// What every callback does.
int called_back(const std::string &call, xmlNode *input = nullptr, xmlNode **output = nullptr);

template <typename... types>
std::string numbers(types... values)
{
    return ((std::to_string(values) + ' ') + ...);
}

inline std::string text_of(const char *text)
{
    return text == nullptr ? "null" : text;
}

// Requests with the id 17. The demo plugin's callbacks are 1 configuration, 2 status, 3 operation;
// 4 is an operation without a function.
std::string publish(const std::string &type, const std::string &info,
                    const std::string &index = "<callback>1</callback>");
std::string config(const std::string &path, const std::string &oper = "1");
std::string operate(const std::string &input, const std::string &index = "3");
std::string subscribe(const std::string &rest, const std::string &index = "2");
inline const std::string kick_off = rpc("kickoff", "<params/>", "17");
std::string with_id(const std::string &request, const std::string &id); // "" removes it

// The replies to them.
std::string succeeded(const std::string &content = "<result/>");
std::string failed(const std::string &code, const std::string &message = default_error);

// The tables of the demo plugin.
econf_plugin_subpub_info_t subscriptions();

class DemoFixture : public PluginFixture {
protected:
    DemoFixture();

    // Sends a request, if any, runs the loop, and returns the replies.
    std::string handle(const std::string &request = {});
};

} // namespace test

#endif
