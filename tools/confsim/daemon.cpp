// See daemon.h. The table of methods below is all that a plugin can ask.
#include "daemon.h"

#include "conf_api.h"
#include "conf_plugin.h"
#include "failure.h"

#include <algorithm>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace confsim {

namespace {

constexpr std::size_t most_plugins = 256;
constexpr std::size_t most_notifications = 1000;
constexpr std::size_t longest_notification = 262144;

constexpr const char *plugin_is_gone = "the plugin is gone";

xml::node_ptr error_element(int code, const std::string &message)
{
    xml::node_ptr error = xml::element("error");
    xml::add(error.get(), "code", std::to_string(code));
    xml::add(error.get(), "message", message);
    return error;
}

} // namespace

const conf_daemon::served_method conf_daemon::methods[] = {
    {"register", &conf_daemon::on_register},
    {"activate", &conf_daemon::on_activate},
    {"deactivate", &conf_daemon::on_deactivate},
    {"pull", &conf_daemon::on_pull},
};

conf_daemon::conf_daemon(event_loop &loop, const console &out, const tracer &trace,
                         configuration &config, const endpoints &where, seconds patience)
    : loop_(loop), out_(out), trace_(trace), config_(config), where_(where), patience_(patience),
      agents_(loop, out, trace, where)
{
    loop_.watch(where_.plugin_socket(), POLLIN, [this](short) { accept_plugins(); });
    loop_.watch(where_.notifier_socket(), POLLIN, [this](short) { receive_notifications(); });
}

conf_daemon::~conf_daemon()
{
    loop_.forget(where_.plugin_socket());
    loop_.forget(where_.notifier_socket());
    for (const plugin_ptr &each : plugins_) {
        loop_.forget(each->stream.descriptor());
    }
}

plugin_ptr conf_daemon::find(const std::string &name) const
{
    const auto found = std::find_if(plugins_.begin(), plugins_.end(), [&name](const auto &each) {
        return !name.empty() && each->name == name;
    });
    return found == plugins_.end() ? nullptr : *found;
}

void conf_daemon::accept_plugins()
{
    const int accepted =
        accept4(where_.plugin_socket(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (accepted < 0) {
        return; // gone again
    }
    if (plugins_.size() >= most_plugins) {
        close(accepted);
        return;
    }
    plugins_.push_back(std::make_shared<plugin>(accepted, trace_, loop_, patience_));
    loop_.watch(accepted, POLLIN, [this, from = std::weak_ptr(plugins_.back())](short events) {
        if (const plugin_ptr alive = from.lock()) {
            serve(alive, events);
        }
    });
}

void conf_daemon::receive_notifications()
{
    std::string text(longest_notification, '\0');
    const ssize_t count = recv(where_.notifier_socket(), text.data(), text.size(), 0);
    if (count < 0) {
        return;
    }
    text.resize(static_cast<std::size_t>(count));
    if (!text.empty() && text.back() == '\0') {
        text.pop_back();
    }
    trace_.notification(text);
    agents_.forward(text);
    notifications_.push_back(std::move(text));
    ++not_taken_;
    if (notifications_.size() > most_notifications) {
        notifications_.pop_front();
        not_taken_ = std::min(not_taken_, notifications_.size());
    }
}

std::optional<std::string> conf_daemon::take_notification()
{
    if (not_taken_ == 0) {
        return std::nullopt;
    }
    return notifications_[notifications_.size() - not_taken_--];
}

void conf_daemon::serve(const plugin_ptr &from, short events)
{
    try {
        if ((events & POLLOUT) != 0) {
            from->stream.flush();
        }
        if ((events & ~POLLOUT) != 0) {
            for (xml::node_ptr &message : from->stream.receive()) {
                handle(from, std::move(message));
            }
        }
        watch_for_room(*from);
    } catch (const broken &reason) {
        drop(from, reason.what());
    }
}

void conf_daemon::watch_for_room(const plugin &to)
{
    loop_.change(to.stream.descriptor(),
                 static_cast<short>(to.stream.has_unsent() ? POLLIN | POLLOUT : POLLIN));
}

void conf_daemon::drop(const plugin_ptr &whom, const std::string &why)
{
    loop_.forget(whom->stream.descriptor());
    plugins_.remove(whom);
    out_.event("plugin " + whom->called() + " " + why);
    whom->now = plugin::state::gone;
    whom->give_up(answer::outcome::gone, plugin_is_gone);
}

void conf_daemon::handle(const plugin_ptr &from, xml::node_ptr message)
{
    if (std::strcmp(xml::name(message.get()), "reply") == 0) {
        from->take_reply(std::move(message));
        return;
    }
    const char *method = nullptr;
    xmlNode *params = nullptr;
    if (plugin_parse_rpc(message.get(), &method, &params) != 0) {
        return;
    }
    const auto *known =
        std::find_if(std::begin(methods), std::end(methods), [method](const served_method &each) {
            return std::strcmp(each.name, method) == 0;
        });
    const bool was_active = from->is_active();
    xml::node_ptr result;
    try {
        if (known == std::end(methods)) {
            throw failure(std::string("Method ") + method + " is not served.");
        }
        if (from->now == plugin::state::connected && known->handle != &conf_daemon::on_register) {
            throw failure("The plugin is not registered.");
        }
        result = (this->*known->handle)(from, params);
    } catch (const failure &refusal) {
        result = error_element(-1, refusal.what());
    }
    const u32_t id = plugin_get_msgid(message.get());
    const xml::node_ptr reply(plugin_build_reply_message(result.release(), id));
    if (id != 0 && reply != nullptr) {
        from->stream.send(reply.get());
    }
    if (!was_active && from->is_active()) {
        out_.event("plugin " + from->name + " activated");
        const bool cfgr = xml::child(params, "with-cfgr") != nullptr;
        const bool smooth = xml::child(params, "with-smooth") != nullptr;
        start(from, cfgr ? CONFIG_OP_CFGR : smooth ? CONFIG_OP_SMOOTH : CONFIG_OP_NONE);
    }
}

// Tells a plugin that has just been activated the whole configuration, if it wants it.
void conf_daemon::start(const plugin_ptr &whom, int kind)
{
    if (kind == CONFIG_OP_NONE) {
        return;
    }
    const node nothing{"", "config", "", {}};
    std::vector<publication> all = publications({whom}, differences(nothing, config_.running()));
    for (std::size_t i = 0; i < all.size(); ++i) {
        all[i].oper |= kind;
        const std::string complaint =
            "plugin " + whom->name + " did not take over " + to_text(all[i].where) + ": ";
        whom->ask("publish", publish_params(all[i], i + 1 < all.size()),
                  [this, complaint](const answer &got) {
                      if (!got.is_result()) {
                          out_.event(complaint + got.in_words());
                      }
                  });
    }
}

xml::node_ptr conf_daemon::on_register(const plugin_ptr &from, const xmlNode *params)
{
    if (from->now != plugin::state::connected) {
        throw failure("The plugin is registered already.");
    }
    const std::string name = xml::child_text(params, "plugin-name");
    if (find(name) != nullptr) {
        throw failure("There is a plugin " + name + " already.");
    }
    from->take_registration(params);
    out_.event("plugin " + from->name + " registered");
    return xml::element("result");
}

xml::node_ptr conf_daemon::on_activate(const plugin_ptr &from, const xmlNode * /*params*/)
{
    from->now = plugin::state::activated;
    return xml::element("result");
}

xml::node_ptr conf_daemon::on_deactivate(const plugin_ptr &from, const xmlNode * /*params*/)
{
    from->now = plugin::state::registered;
    out_.event("plugin " + from->name + " deactivated");
    return xml::element("result");
}

xml::node_ptr conf_daemon::on_pull(const plugin_ptr & /*from*/, const xmlNode *params)
{
    const bool old = xml::child(params, "old") != nullptr;
    xml::node_ptr result = xml::element("result");
    xmlNode *data = xml::add(result.get(), "data");
    const path where = parse_path(xml::child_text(params, "path"));
    for (const node *each : confsim::find(config_.seen_by_plugins(old), where)) {
        xml::add(data, config_.as_xml(*each));
    }
    return result;
}

void conf_daemon::ask(const plugin_ptr &to, const char *method, xml::node_ptr params,
                      plugin::answered done)
{
    if (to->now == plugin::state::gone) {
        done({answer::outcome::gone, -1, plugin_is_gone, nullptr});
        return;
    }
    try {
        to->ask(method, std::move(params), std::move(done));
        watch_for_room(*to);
    } catch (const broken &reason) {
        drop(to, reason.what());
    }
}

answer conf_daemon::exchange(const plugin_ptr &to, const char *method, xml::node_ptr params)
{
    // Shared with the request, which may outlive this call when the loop is interrupted.
    const auto got = std::make_shared<std::optional<answer>>();
    ask(to, method, std::move(params), [got](answer what) { *got = std::move(what); });
    if (!loop_.run_until([&got] { return got->has_value(); })) {
        return {answer::outcome::silent, -1, "interrupted", nullptr};
    }
    return std::move(**got);
}

} // namespace confsim
