// The requests of an agent, with any sequence number, into buffers in any state: each is appended
// whole, as it should read.
#include "conf_plugin.h"
#include "fuzz.h"

#include <pwd.h>
#include <unistd.h>

namespace {

const std::string base = "<rpc xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" xmlns:";
const std::string asking =
    "confd=\"com:volmar:netconf:private:oxel:device:confd\" message-id=\"%\">"
    "<get-config><source><running/></source><filter type=\"subtree\"><confd:";
const struct {
    int (*build)(conf_buffer_t **, int);
    std::string body; // with a % where the sequence number stands
} requests[] = {
    {conf_agent_build_session,
     base + asking + "create-session><confd:username>" + getpwuid(getuid())->pw_name +
         "</confd:username><confd:agent-ppid>" + std::to_string(getppid()) +
         "</confd:agent-ppid></confd:create-session></filter></get-config></rpc>"},
    {conf_agent_build_capability, base + asking + "get-capability/></filter></get-config></rpc>"},
    {conf_agent_build_notify_rpc,
     base + "ntf=\"urn:ietf:params:xml:ns:netconf:notification:1.0\" message-id="
            "\"subscribeNotification_1\"><ntf:create-subscription/></rpc>"},
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    conf_buffer_t *buffer = conf_buffer_create(in.ConsumeIntegralInRange(0, 20000));
    std::string expected;
    while (!in.ended()) {
        const int sequence = in.ConsumeIntegral<int>();
        const std::size_t kind = in.below(6);
        int result = 0;
        if (kind < std::size(requests)) {
            std::string body = requests[kind].body;
            if (const std::size_t at = body.find('%'); at != std::string::npos) {
                body.replace(at, 1, std::to_string(sequence));
            }
            result = requests[kind].build(&buffer, sequence);
            expected += fuzz::framed(body, body.size(), sequence);
        } else if (kind == 3 && !expected.empty()) {
            const std::size_t start = in.below(expected.size());
            const std::size_t count = 1 + in.below(300);
            conf_buffer_remove(buffer, static_cast<int>(start), static_cast<int>(count));
            expected.erase(start, count);
        } else if (kind == 4) {
            conf_buffer_slim(&buffer);
        } else if (kind == 5) {
            std::string more = in.text(100);
            result = conf_buffer_append(&buffer, more.data(), static_cast<int>(more.size()));
            expected += more;
        }
        const auto length = static_cast<std::size_t>(conf_buffer_length(buffer));
        fuzz::require(result == 0, "a request fails");
        fuzz::require(expected == std::string_view(conf_buffer_data(buffer), length),
                      "other bytes");
    }
    conf_buffer_destroy(buffer);
    return 0;
}
