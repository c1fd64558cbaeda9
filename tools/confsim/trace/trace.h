// Tells of frames in readable form, with the values of passwords, keys and secrets masked: prints
// them, and writes them to files.
#ifndef CONFSIM_TRACE_H
#define CONFSIM_TRACE_H

#include "commands/console.h"
#include "trace/trace_file.h"

#include <libxml/tree.h>

#include <list>
#include <string>

namespace confsim {

class tracer {
public:
    // The files, if any, get every frame, whether or not it is printed.
    explicit tracer(const console &out, std::list<trace_file> *files = nullptr)
        : out_(out), files_(files)
    {
    }

    void enable(bool on) { enabled_ = on; }

    // The message is null when it is not well-formed.
    void sent(const traced_peer &peer, const msg_head_t &head, const xmlNode *message) const
    {
        frame(false, peer, head, message);
    }
    void received(const traced_peer &peer, const msg_head_t &head, const xmlNode *message) const
    {
        frame(true, peer, head, message);
    }
    void notification(const std::string &text) const;

private:
    [[nodiscard]] bool is_written() const { return files_ != nullptr && !files_->empty(); }
    [[nodiscard]] bool is_printed() const { return enabled_ || out_.recorder; }
    void frame(bool is_received, const traced_peer &peer, const msg_head_t &head,
               const xmlNode *message) const;
    void print(const std::string &headline, const std::string &body) const;
    void write(traced_frame made, const std::timespec &time) const;

    const console &out_;
    std::list<trace_file> *files_;
    bool enabled_ = false;
};

} // namespace confsim

#endif
