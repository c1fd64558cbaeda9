// See trace.h.
#include "trace/trace.h"

#include "trace/mask.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace confsim {

namespace {

std::timespec now()
{
    std::timespec time{};
    (void)clock_gettime(CLOCK_REALTIME, &time);
    return time;
}

} // namespace

void tracer::frame(bool is_received, const traced_peer &peer, const msg_head_t &head,
                   const xmlNode *message) const
{
    if (!is_printed() && !is_written()) {
        return;
    }
    const std::timespec time = now(); // masking takes its own
    std::string body = message == nullptr ? "" : masked(message);
    if (is_printed()) {
        print((is_received ? "<-- " : "--> ") + peer.name + ", " + std::to_string(head.length) +
                  " bytes" + (message == nullptr ? ", not well-formed" : ""),
              body);
    }
    if (is_written()) {
        traced_frame made = read_frame(peer, head, message, std::move(body));
        made.is_received = is_received;
        write(std::move(made), time);
    }
}

void tracer::notification(const std::string &text) const
{
    if (!is_printed() && !is_written()) {
        return;
    }
    const std::timespec time = now();
    const std::string body = masked_as_given(text);
    if (is_printed()) {
        print("<-- notification, " + std::to_string(text.size()) + " bytes", body);
    }
    if (is_written()) {
        write(read_notification(text.size(), body), time);
    }
}

void tracer::write(traced_frame made, const std::timespec &time) const
{
    made.time = time;
    for (trace_file &each : *files_) {
        if (const std::string wrong = each.write(made); !wrong.empty()) {
            out_.event("warning: " + wrong, tone::finding);
        }
    }
}

void tracer::print(const std::string &headline, const std::string &body) const
{
    std::string lines = headline;
    for (std::size_t begin = 0; begin < body.size();) {
        const std::size_t end = std::min(body.find('\n', begin), body.size());
        lines += "\n    " + body.substr(begin, end - begin);
        begin = end + 1;
    }
    if (enabled_) {
        out_.print(lines);
    } else {
        out_.record(lines);
    }
}

} // namespace confsim
