// Plays the configuration daemon towards agents: opens sessions for them, tells what it can do, and
// forwards notifications to those that subscribed.
#ifndef CONFSIM_AGENTS_H
#define CONFSIM_AGENTS_H

#include "commands/console.h"
#include "service/endpoints.h"
#include "service/server.h"
#include "trace/trace.h"

#include <memory>
#include <string>

namespace confsim {

class agent_service {
public:
    agent_service(event_loop &loop, const console &out, const tracer &trace,
                  const endpoints &where);

    // Sends a notification, as plugins send it, to every agent that subscribed. Returns whether it
    // is XML, as it should be.
    bool forward(const std::string &notification);

    // Hangs up on all agents, and accepts them again at a socket that was opened anew.
    void stop() { agents_.stop("lost confsim, which starts anew"); }
    void go_on(int listener) { agents_.go_on(listener); }

private:
    struct agent {
        agent(int descriptor, const tracer &trace) : stream(descriptor, trace) {}

        connection stream;
        std::string called;
        bool subscribed = false;
    };
    using agent_ptr = std::shared_ptr<agent>;

    agent_ptr make(int descriptor, const tracer &trace);
    xml::node_ptr answer(agent &from, const xmlNode *rpc);

    const console &out_;
    unsigned last_session_ = 0;
    server<agent> agents_;
};

} // namespace confsim

#endif
