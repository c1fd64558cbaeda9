// See trace.h.
#include "trace/trace.h"

#include "trace/mask.h"

namespace confsim {

void tracer::frame(const char *direction, const std::string &peer, const xmlNode *message,
                   std::size_t size) const
{
    if (!enabled_ && !out_.recorder) {
        return;
    }
    const std::string headline = direction + peer + ", " + std::to_string(size) + " bytes";
    if (message == nullptr) {
        print(headline + ", not well-formed", "");
        return;
    }
    print(headline, masked(message));
}

void tracer::notification(const std::string &text) const
{
    if (enabled_ || out_.recorder) {
        print("<-- notification, " + std::to_string(text.size()) + " bytes", masked_as_given(text));
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
