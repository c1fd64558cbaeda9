// The requests of an agent, with any sequence number, into buffers in any state: each is appended
// whole, as it is made in a buffer of its own.
#include "conf_plugin.h"
#include "fuzz.h"

namespace {

std::string_view content(conf_buffer_t *buffer)
{
    return {conf_buffer_data(buffer), static_cast<std::size_t>(conf_buffer_length(buffer))};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static conf_buffer_t *own = conf_buffer_create(0);
    fuzz::input in(data, size);
    conf_buffer_t *buffer = conf_buffer_create(in.ConsumeIntegralInRange(0, 20000));
    std::string expected;
    while (!in.ended()) {
        const int sequence = in.ConsumeIntegral<int>();
        const std::size_t kind = in.below(6);
        if (kind < 3) {
            int (*const build[])(conf_buffer_t **, int) = {
                conf_agent_build_session, conf_agent_build_capability, conf_agent_build_notify_rpc};
            conf_buffer_flush(own);
            MUST(build[kind](&own, sequence) == 0 && build[kind](&buffer, sequence) == 0);
            const std::string body(content(own).substr(sizeof(msg_head_t)));
            const std::string id = "message-id=\"" + std::to_string(sequence) + '"';
            MUST((body.find(id) < 200) == (kind < 2), body);
            expected += test::framed(body, static_cast<u16_t>(sequence));
        } else if (kind == 3 && !expected.empty()) {
            const std::size_t start = in.below(expected.size());
            const std::size_t count = 1 + in.below(300);
            conf_buffer_remove(buffer, static_cast<int>(start), static_cast<int>(count));
            expected.erase(start, count);
        } else if (kind == 4) {
            conf_buffer_slim(&buffer);
        } else if (kind == 5) {
            std::string more = in.text(100);
            MUST(conf_buffer_append(&buffer, more.data(), static_cast<int>(more.size())) == 0);
            expected += more;
        }
        MUST(content(buffer) == expected, std::string(content(buffer)), expected);
    }
    conf_buffer_destroy(buffer);
    return 0;
}
