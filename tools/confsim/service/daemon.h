// Plays the configuration daemon towards plugins: accepts them, answers what they ask, and asks
// them on behalf of the commands.
#ifndef CONFSIM_DAEMON_H
#define CONFSIM_DAEMON_H

#include "commands/console.h"
#include "faults/fault_list.h"
#include "service/agents.h"
#include "service/endpoints.h"
#include "service/loop.h"
#include "service/messages.h"
#include "service/plugin.h"
#include "service/server.h"
#include "service/subscriptions.h"
#include "store/configuration.h"
#include "trace/trace.h"

#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <optional>
#include <string>

namespace confsim {

// The content of a reply that refuses a request.
[[nodiscard]] xml::node_ptr error_element(int code, const std::string &message);

class conf_daemon {
public:
    static constexpr std::size_t usual_plugins = 4096; // as many as are accepted

    conf_daemon(event_loop &loop, const console &out, const tracer &trace, configuration &config,
                endpoints &where, seconds patience, std::size_t most_plugins = usual_plugins);
    ~conf_daemon();
    conf_daemon(const conf_daemon &) = delete;
    conf_daemon &operator=(const conf_daemon &) = delete;

    [[nodiscard]] const std::list<plugin_ptr> &plugins() const { return plugins_.peers(); }
    [[nodiscard]] plugin_ptr find(const std::string &name) const;

    // Waits until the plugin has answered all that it was asked, as long as no single answer takes
    // too long. Returns whether it has.
    bool wait_until_free(const plugin_ptr &whom);
    // The same with each plugin; one that is late does not stop it.
    void wait_until_all_free();

    // Those of the active plugins.
    [[nodiscard]] const subscription_index &subscriptions() const { return subscriptions_; }

    // Sends a request to a free plugin and waits for what becomes of it; never throws broken.
    answer exchange(const plugin_ptr &to, const char *method, xml::node_ptr params);

    // While starts are held, plugins that are activated wait to be told the configuration.
    void hold_starts() { are_starts_held_ = true; }
    void release_starts();

    // What a plugin does against the model is reported, and thrown as failure when it is to be an
    // error. `who` is empty when nobody knows, and `breach` when there is none.
    void take_breaches_for_errors() { are_breaches_errors_ = true; }
    void report_breach(const std::string &who, const std::string &breach);
    [[nodiscard]] bool has_failed_by_breach() const
    {
        return are_breaches_errors_ && has_seen_breach_;
    }

    // Who is told of what plugins do wrong from now on.
    void set_watcher(plugin_watcher *watcher) { watcher_ = watcher; }

    // Notifications as received, the oldest first; the oldest of very many are forgotten.
    [[nodiscard]] const std::deque<std::string> &notifications() const { return notifications_; }
    // The oldest one that was not yet taken, if any.
    std::optional<std::string> take_notification();
    void take_all_notifications() { not_taken_ = 0; }

    // What goes wrong on order; see daemon_faults.cpp.
    [[nodiscard]] fault_list &faults() { return faults_; }
    // Hangs up on a plugin without a word.
    void hang_up(const plugin_ptr &whom);
    // The sockets are away for that long; what is configured stays.
    void restart(seconds away);
    // While the notifier's queue is full, nobody can notify confsim.
    void set_notifier_full(bool full);
    // What plugins sent, replies included, as far as nobody took it.
    [[nodiscard]] message_store &messages() { return messages_; }

private:
    using handler = xml::node_ptr (conf_daemon::*)(const plugin_ptr &from, const xmlNode *params);
    struct served_method {
        const char *name;
        handler handle;
    };
    static const served_method methods[];

    void check_notification(const std::string &text);
    void check_registration(plugin &whom);
    [[nodiscard]] path path_in(const plugin_ptr &from, const xmlNode *params);
    plugin_ptr make_plugin(int descriptor);
    void watch_notifier();
    [[nodiscard]] static bool is_filler(const std::string &notification);
    bool receive_notification();
    void handle(const plugin_ptr &from, xml::node_ptr message);
    void serve(const plugin_ptr &from, xmlNode *message);
    bool misbehave(const plugin_ptr &from, const std::string &name, const std::string &method,
                   xml::node_ptr &message);
    void reply(const plugin_ptr &to, xmlNode *request, xml::node_ptr content);
    void let_go(const plugin_ptr &whom, const std::string &why);
    void start(const plugin_ptr &whom);
    void ask(const plugin_ptr &to, const char *method, xml::node_ptr params, plugin::answered done);

    xml::node_ptr on_register(const plugin_ptr &from, const xmlNode *params);
    xml::node_ptr on_activate(const plugin_ptr &from, const xmlNode *params);
    xml::node_ptr on_deactivate(const plugin_ptr &from, const xmlNode *params);
    xml::node_ptr on_pull(const plugin_ptr &from, const xmlNode *params);
    xml::node_ptr on_locate(const plugin_ptr &from, const xmlNode *params);
    xml::node_ptr on_push(const plugin_ptr &from, const xmlNode *params);
    xml::node_ptr on_config_deployment(const plugin_ptr &from, const xmlNode *params);
    xml::node_ptr on_save_deployment(const plugin_ptr &from, const xmlNode *params);
    xml::node_ptr on_copy_deployment(const plugin_ptr &from, const xmlNode *params);

    event_loop &loop_;
    const console &out_;
    const tracer &trace_;
    configuration &config_;
    endpoints &where_;
    seconds patience_;
    agent_service agents_;
    server<plugin> plugins_;
    subscription_index subscriptions_;
    fault_list faults_;
    bool is_notifier_full_ = false;
    message_store messages_;
    std::deque<std::string> notifications_;
    std::size_t not_taken_ = 0;
    std::uint64_t last_serial_ = 0; // of a plugin
    plugin_watcher *watcher_ = nullptr;
    bool are_starts_held_ = false;
    bool are_breaches_errors_ = false;
    bool has_seen_breach_ = false;
};

} // namespace confsim

#endif
