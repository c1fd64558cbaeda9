// Prints frames in readable form, with the values of passwords, keys and secrets masked.
#ifndef CONFSIM_TRACE_H
#define CONFSIM_TRACE_H

#include "commands/console.h"

#include <libxml/tree.h>

#include <string>

namespace confsim {

class tracer {
public:
    explicit tracer(const console &out) : out_(out) {}

    void enable(bool on) { enabled_ = on; }

    void sent(const std::string &peer, const xmlNode *message, std::size_t size) const
    {
        frame("--> ", peer, message, size);
    }
    void received(const std::string &peer, const xmlNode *message, std::size_t size) const
    {
        frame("<-- ", peer, message, size);
    }
    void notification(const std::string &text) const;

private:
    void frame(const char *direction, const std::string &peer, const xmlNode *message,
               std::size_t size) const;
    void print(const std::string &headline, const std::string &body) const;

    const console &out_;
    bool enabled_ = false;
};

} // namespace confsim

#endif
