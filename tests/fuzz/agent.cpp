// The requests of an agent, with any sequence number, into buffers in any state: each is appended
// whole, as it should read.
#include "conf_plugin.h"
#include "fuzz.h"

#include <pwd.h>
#include <unistd.h>

namespace {

const std::string base = "<rpc xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" xmlns:";
const std::string user = getpwuid(getuid())->pw_name;

std::string asking(const std::string &id, const std::string &operation)
{
    return base + "confd=\"com:volmar:netconf:private:oxel:device:confd\" message-id=\"" + id +
           "\"><get-config><source><running/></source><filter type=\"subtree\"><confd:" +
           operation + "</filter></get-config></rpc>";
}

std::string framed(const std::string &body, int sequence)
{
    const msg_head_t head = {MSG_MAGIC, static_cast<u32_t>(body.size()),
                             static_cast<u16_t>(sequence), 0};
    return std::string(reinterpret_cast<const char *>(&head), sizeof head) + body;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    conf_buffer_t *buffer = conf_buffer_create(in.ConsumeIntegralInRange(0, 20000));
    std::string expected;
    while (!in.ended()) {
        const int sequence = in.ConsumeIntegral<int>();
        const std::string id = std::to_string(sequence);
        int result = 0;
        switch (in.below(6)) {
        case 0:
            result = conf_agent_build_session(&buffer, sequence);
            expected += framed(asking(id, "create-session><confd:username>" + user +
                                              "</confd:username><confd:agent-ppid>" +
                                              std::to_string(getppid()) +
                                              "</confd:agent-ppid></confd:create-session>"),
                               sequence);
            break;
        case 1:
            result = conf_agent_build_capability(&buffer, sequence);
            expected += framed(asking(id, "get-capability/>"), sequence);
            break;
        case 2:
            result = conf_agent_build_notify_rpc(&buffer, sequence);
            expected += framed(base + "ntf=\"urn:ietf:params:xml:ns:netconf:notification:1.0\" "
                                      "message-id=\"subscribeNotification_1\">"
                                      "<ntf:create-subscription/></rpc>",
                               sequence);
            break;
        case 3:
            if (!expected.empty()) {
                const std::size_t start = in.below(expected.size());
                const std::size_t count = 1 + in.below(300);
                conf_buffer_remove(buffer, static_cast<int>(start), static_cast<int>(count));
                expected.erase(start, count);
            }
            break;
        case 4:
            conf_buffer_slim(&buffer);
            break;
        default:
            std::string more = in.text(100);
            result = conf_buffer_append(&buffer, more.data(), static_cast<int>(more.size()));
            expected += more;
        }
        fuzz::require(result == 0, "a request fails");
        fuzz::require(expected ==
                          std::string_view(conf_buffer_data(buffer),
                                           static_cast<std::size_t>(conf_buffer_length(buffer))),
                      "the buffer holds something else");
    }
    conf_buffer_destroy(buffer);
    return 0;
}
