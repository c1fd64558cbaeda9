// Plays the configuration daemon towards agents: opens sessions for them, tells what it can do, and
// forwards notifications to those that subscribed.
#ifndef CONFSIM_AGENTS_H
#define CONFSIM_AGENTS_H

#include "connection.h"
#include "console.h"
#include "endpoints.h"
#include "loop.h"
#include "trace.h"

#include <list>
#include <memory>
#include <string>

namespace confsim {

class agent_service {
public:
    agent_service(event_loop &loop, const console &out, const tracer &trace,
                  const endpoints &where);
    ~agent_service();
    agent_service(const agent_service &) = delete;
    agent_service &operator=(const agent_service &) = delete;

    // Sends a notification, as plugins send it, to every agent that subscribed.
    void forward(const std::string &notification);

private:
    struct agent {
        agent(int descriptor, const tracer &trace) : stream(descriptor, trace) {}

        connection stream;
        std::string called;
        bool subscribed = false;
    };
    using agent_ptr = std::shared_ptr<agent>;

    void accept();
    void serve(const agent_ptr &from, short events);
    void watch_for_room(const agent &to);
    void drop(const agent_ptr &whom, const std::string &why);
    xml::node_ptr answer(agent &from, const xmlNode *rpc);

    event_loop &loop_;
    const console &out_;
    const tracer &trace_;
    const endpoints &where_;
    std::list<agent_ptr> agents_;
    unsigned last_session_ = 0;
};

} // namespace confsim

#endif
