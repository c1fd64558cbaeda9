// One connected plugin: who it is, what it registered, and the requests that wait for its answers.
//
// A plugin is asked one thing at a time: while it waits for an answer of its own in the middle of a
// callback, it discards every other message. So a request that was given up still holds up those
// behind it until the plugin answers.
//
// A request can be lost: by a fault on its way, or as the plugin discarded it. When that is
// possible, the plugin is probed with a method that nobody has, to which it answers with an error.
// It answers in order, so an answer to the probe shows that there will be none to the request.
#ifndef CONFSIM_PLUGIN_H
#define CONFSIM_PLUGIN_H

#include "faults/faulty_line.h"
#include "service/connection.h"
#include "service/loop.h"
#include "tree/path.h"

#include "conf_def.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace confsim {

// A configuration or status path that a plugin named at registration.
struct subscription {
    path where;
    int priority; // of configuration
    int index;    // of the callback
};

// An operation that it serves.
struct operation {
    std::string name;
    int index;
};

// What became of a request.
struct answer {
    enum class outcome { result, refused, gone, silent };

    outcome kind;
    int code = 0;             // of an error
    std::string message;      // of an error, or in words what else went wrong
    xml::node_ptr document{}; // the reply, when one came

    [[nodiscard]] bool is_result() const { return kind == outcome::result; }
    [[nodiscard]] const xmlNode *result() const { return xml::child(document.get(), "result"); }
    // "code 22: text", or what else went wrong.
    [[nodiscard]] std::string in_words() const;
};

// Is told what a plugin does wrong, and how long it takes for each answer.
class plugin_watcher {
public:
    virtual ~plugin_watcher() = default;
    plugin_watcher(const plugin_watcher &) = delete;
    plugin_watcher &operator=(const plugin_watcher &) = delete;

    virtual void add(const std::string &plugin, const std::string &what) = 0;
    virtual void answered(const std::string &plugin, const std::string &request, seconds taken) = 0;

    // The last error that a process recorded since this was called, in words, if that can be seen.
    virtual std::optional<std::string> take_recorded(const std::string &process) = 0;

protected:
    plugin_watcher() = default;
};

class plugin {
public:
    enum class state { connected, registered, activated, gone };
    using answered = std::function<void(answer)>;

    plugin(int descriptor, const tracer &trace, event_loop &loop, seconds patience);
    ~plugin();
    plugin(const plugin &) = delete;
    plugin &operator=(const plugin &) = delete;

    connection stream;
    std::unique_ptr<faulty_line> line; // of what it is sent, or null: it then goes straight
    std::uint64_t serial = 0;          // in the order in which they came
    state now = state::connected;
    std::string name; // empty until it registers
    std::vector<subscription> configs;
    std::vector<subscription> statuses;
    std::vector<operation> operations;
    plugin_watcher *watcher = nullptr; // or nobody
    int wanted_start = 0; // CONFIG_OP_CFGR or _SMOOTH until it is told the configuration that way

    [[nodiscard]] bool is_active() const { return now == state::activated; }

    // The name, or what there is instead.
    [[nodiscard]] std::string called() const;

    // Takes over what a register request says. Throws failure, with the plugin as before.
    void take_registration(const xmlNode *params);

    // Sends a request as soon as the ones before it are answered. `done` is called exactly once,
    // from the event loop, also when no answer comes in time. Throws broken.
    void ask(const char *method, xml::node_ptr params, answered done);

    // An answer has come. Throws broken when sending the next request fails.
    void take_reply(xml::node_ptr reply);

    // The number of the request that it has yet to answer, in time or not; 0 when there is none.
    [[nodiscard]] u32_t awaited() const { return requests_.empty() ? 0 : requests_.front().id; }

    // That request in words. There must be one.
    [[nodiscard]] std::string asked() const;

    // Whether nothing but the plugin itself can be the reason that it has not answered.
    [[nodiscard]] bool owes_answer() const { return awaited() != 0 && !has_met_fault_; }

    // Something is wrong with what it sends.
    void report(const std::string &what) const;

    // A fault met what it is sent or asked: answers may be missing for that reason. What it is sent
    // may be lost or doubled then, if the fault is `of_frame`.
    void note_fault(bool of_frame);
    // It made a request.
    void note_request(const std::string &method);

    // End all requests, or those that wait for an answer to another, for a plugin that has gone or
    // takes part no longer.
    void give_up(const std::string &why);
    void give_up_unsent(const std::string &why);

private:
    struct request {
        u32_t id;
        xml::node_ptr document;
        answered done; // null when it was given up
    };

    void send_next();
    void give_up_first();
    void check_answer(const xmlNode *reply) const;
    [[nodiscard]] std::optional<std::string> take_recorded() const;
    void probe();
    void lose_first();
    static void end(const std::deque<request> &given_up, const std::string &why);
    void stop_waiting();

    event_loop &loop_;
    seconds patience_;
    std::deque<request> requests_;             // the first one has been sent
    std::optional<event_loop::timer> timeout_; // of the answer, or the next probe
    steady_clock::time_point sent_;            // the first request
    u32_t last_id_ = 0;
    u32_t last_probe_ = 0;
    u32_t probes_before_ = 0;       // the first request was sent
    bool has_met_fault_ = false;    // since the last answer
    bool may_have_lost_ = false;    // something that it was sent, since the last answer
    bool may_answer_again_ = false; // as it was sent something twice or in parts, for all its time
    std::string own_request_;       // the last one, since it was asked; empty when there was none
};

using plugin_ptr = std::shared_ptr<plugin>;

} // namespace confsim

#endif
