// See daemon.h. The table of methods below is all that a plugin can ask.
#include "service/daemon.h"

#include "conf_api.h"
#include "conf_plugin.h"
#include "failure.h"
#include "service/model_checks.h"

#include <algorithm>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <utility>
#include <vector>

namespace confsim {

namespace {

constexpr std::size_t most_notifications = 1000;
constexpr std::size_t longest_notification = 262144;

constexpr const char *plugin_is_gone = "the plugin is gone";

bool asks_for_old(const xmlNode *params)
{
    return xml::child(params, "old") != nullptr;
}

std::vector<const xmlNode *> data_in(const xmlNode *params)
{
    const xmlNode *data = xml::child(params, "data");
    return data == nullptr ? std::vector<const xmlNode *>() : xml::elements(data);
}

} // namespace

xml::node_ptr error_element(int code, const std::string &message)
{
    xml::node_ptr error = xml::element("error");
    xml::add(error.get(), "code", std::to_string(code));
    xml::add(error.get(), "message", message);
    return error;
}

const conf_daemon::served_method conf_daemon::methods[] = {
    {"register", &conf_daemon::on_register},
    {"activate", &conf_daemon::on_activate},
    {"deactivate", &conf_daemon::on_deactivate},
    {"pull", &conf_daemon::on_pull},
    {"locate", &conf_daemon::on_locate},
    {"push", &conf_daemon::on_push},
    {"config_deployment", &conf_daemon::on_config_deployment},
    {"save_deployment", &conf_daemon::on_save_deployment},
    {"copy_deployment_to_memory", &conf_daemon::on_copy_deployment},
};

conf_daemon::conf_daemon(event_loop &loop, const console &out, const tracer &trace,
                         configuration &config, endpoints &where, seconds patience,
                         std::size_t most_plugins)
    : loop_(loop), out_(out), trace_(trace), config_(config), where_(where), patience_(patience),
      agents_(loop, out, trace, where),
      plugins_(
          loop, where.plugin_socket(), most_plugins,
          {[this](int descriptor) { return make_plugin(descriptor); },
           [this](const plugin_ptr &from, xml::node_ptr message) {
               if (message != nullptr) {
                   handle(from, std::move(message));
               } else {
                   from->report("sends a message that is not well-formed");
               }
           },
           [this](const plugin_ptr &whom, const std::string &why) { let_go(whom, why); },
           [&out](const std::string &why) { out.event("no more plugins are accepted: " + why); }})
{
    watch_notifier();
}

conf_daemon::~conf_daemon()
{
    loop_.forget(where_.notifier_socket());
}

plugin_ptr conf_daemon::find(const std::string &name) const
{
    const auto found = std::find_if(plugins().begin(), plugins().end(), [&name](const auto &each) {
        return !name.empty() && each->name == name;
    });
    return found == plugins().end() ? nullptr : *found;
}

void conf_daemon::watch_notifier()
{
    loop_.watch(where_.notifier_socket(), POLLIN, [this](short) { (void)receive_notification(); });
}

// Returns whether there was one.
bool conf_daemon::receive_notification()
{
    std::string text(longest_notification, '\0');
    const ssize_t count = recv(where_.notifier_socket(), text.data(), text.size(), 0);
    if (count < 0) {
        return false;
    }
    text.resize(static_cast<std::size_t>(count));
    if (!text.empty() && text.back() == '\0') {
        text.pop_back();
    }
    if (is_filler(text)) {
        return true;
    }
    trace_.notification(text);
    if (!agents_.forward(text)) {
        out_.event("a notification is not XML: " + out_.shown_notification(text.substr(0, 80)));
    }
    check_notification(text);
    notifications_.push_back(std::move(text));
    ++not_taken_;
    if (notifications_.size() > most_notifications) {
        notifications_.pop_front();
        not_taken_ = std::min(not_taken_, notifications_.size());
    }
    return true;
}

void conf_daemon::check_notification(const std::string &text)
{
    try {
        report_breach("", breach_of_notification(config_, text));
    } catch (const failure &) {
        return; // nobody waits for an answer; the session fails in the end
    }
}

void conf_daemon::report_breach(const std::string &who, const std::string &breach)
{
    if (breach.empty()) {
        return;
    }
    has_seen_breach_ = true;
    const std::string text =
        (who.empty() ? "a plugin" : "plugin " + who) + " breaks the model: " + breach;
    out_.event((are_breaches_errors_ ? "error: " : "warning: ") + text,
               are_breaches_errors_ ? tone::error : tone::finding);
    if (are_breaches_errors_) {
        throw failure(text);
    }
}

// Subscriptions to what the model has not would never be told of anything; the others get the form
// that the model gives them.
void conf_daemon::check_registration(plugin &whom)
{
    for (auto *all : {&whom.configs, &whom.statuses}) {
        for (subscription &each : *all) {
            try {
                each.where = config_.as_modelled(each.where);
            } catch (const failure &reason) {
                report_breach(whom.name, reason.what());
            }
        }
    }
}

path conf_daemon::path_in(const plugin_ptr &from, const xmlNode *params)
{
    path where = parse_path(xml::child_text(params, "path"));
    try {
        return config_.as_modelled(where);
    } catch (const failure &reason) {
        report_breach(from->name, reason.what());
        return where;
    }
}

std::optional<std::string> conf_daemon::take_notification()
{
    if (not_taken_ == 0) {
        return std::nullopt;
    }
    return notifications_[notifications_.size() - not_taken_--];
}

void conf_daemon::let_go(const plugin_ptr &whom, const std::string &why)
{
    out_.event("plugin " + whom->called() + " " + why);
    if (whom->is_active()) {
        subscriptions_.remove(whom);
    }
    whom->now = plugin::state::gone;
    whom->give_up(plugin_is_gone);
}

void conf_daemon::handle(const plugin_ptr &from, xml::node_ptr message)
{
    if (std::strcmp(xml::name(message.get()), "reply") == 0) {
        messages_.add(from->called(), "reply", message.get());
        from->take_reply(std::move(message));
        return;
    }
    const char *method = nullptr;
    xmlNode *params = nullptr;
    if (plugin_parse_rpc(message.get(), &method, &params) != 0) {
        return;
    }
    const std::string given = xml::child_text(params, "plugin-name"); // of one that registers
    const std::string name = given.empty() ? from->called() : given;
    messages_.add(name, method, message.get());
    from->note_request(method);
    if (!misbehave(from, name, method, message)) {
        serve(from, message.get());
    }
}

// Carries out a request of the plugin, and answers it.
void conf_daemon::serve(const plugin_ptr &from, xmlNode *message)
{
    const char *method = nullptr;
    xmlNode *params = nullptr;
    if (plugin_parse_rpc(message, &method, &params) != 0) {
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
        out_.event("plugin " + from->called() + ": " + method + " refused: " + refusal.what(),
                   tone::error);
    }
    reply(from, message, std::move(result));
    if (!was_active && from->is_active()) {
        out_.event("plugin " + from->name + " activated");
        const bool cfgr = xml::child(params, "with-cfgr") != nullptr;
        const bool smooth = xml::child(params, "with-smooth") != nullptr;
        from->wanted_start = cfgr ? CONFIG_OP_CFGR : smooth ? CONFIG_OP_SMOOTH : CONFIG_OP_NONE;
        if (!are_starts_held_) {
            start(from);
        }
    }
}

void conf_daemon::reply(const plugin_ptr &to, xmlNode *request, xml::node_ptr content)
{
    const u32_t id = plugin_get_msgid(request);
    const xml::node_ptr made(plugin_build_reply_message(content.release(), id));
    if (id != 0 && made != nullptr) {
        to->stream.send(made.get());
    }
}

// Tells a plugin that has just been activated the whole configuration, if it wants it.
void conf_daemon::start(const plugin_ptr &whom)
{
    const int kind = std::exchange(whom->wanted_start, CONFIG_OP_NONE);
    if (kind == CONFIG_OP_NONE) {
        return;
    }
    const node nothing{"", "config", "", {}};
    subscription_index own;
    own.add(whom);
    std::vector<publication> all = own.publications(differences(nothing, config_.running()));
    for (std::size_t i = 0; i < all.size(); ++i) {
        all[i].oper |= kind;
        const std::string complaint =
            "plugin " + whom->name + " did not take over " + to_text(all[i].where) + ": ";
        whom->ask("publish", publish_params(all[i], i + 1 < all.size()),
                  [this, complaint](const answer &got) {
                      if (!got.is_result()) {
                          out_.event(complaint + got.in_words(), tone::error);
                      }
                  });
    }
}

void conf_daemon::release_starts()
{
    are_starts_held_ = false;
    std::vector<plugin_ptr> started; // one that is broken leaves the list of all
    std::copy_if(plugins().begin(), plugins().end(), std::back_inserter(started),
                 [](const plugin_ptr &each) { return each->wanted_start != CONFIG_OP_NONE; });
    for (const plugin_ptr &each : started) {
        plugins_.talk_to(each, [&] { start(each); });
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
    try {
        check_registration(*from);
    } catch (const failure &) {
        from->now = plugin::state::connected;
        from->name.clear();
        throw;
    }
    out_.event("plugin " + from->name + " registered");
    return xml::element("result");
}

xml::node_ptr conf_daemon::on_activate(const plugin_ptr &from, const xmlNode * /*params*/)
{
    if (!from->is_active()) {
        from->now = plugin::state::activated;
        subscriptions_.add(from);
    }
    return xml::element("result");
}

xml::node_ptr conf_daemon::on_deactivate(const plugin_ptr &from, const xmlNode * /*params*/)
{
    if (from->is_active()) {
        subscriptions_.remove(from);
    }
    from->now = plugin::state::registered;
    from->wanted_start = CONFIG_OP_NONE;
    out_.event("plugin " + from->name + " deactivated");
    from->give_up_unsent("the plugin is deactivated");
    return xml::element("result");
}

xml::node_ptr conf_daemon::on_pull(const plugin_ptr &from, const xmlNode *params)
{
    xml::node_ptr result = xml::element("result");
    xmlNode *data = xml::add(result.get(), "data");
    for (const node *each :
         confsim::find(config_.seen_by_plugins(asks_for_old(params)), path_in(from, params))) {
        xml::add(data, config_.as_xml(*each));
    }
    return result;
}

xml::node_ptr conf_daemon::on_locate(const plugin_ptr &from, const xmlNode *params)
{
    const neighbours found =
        find_neighbours(config_.seen_by_plugins(asks_for_old(params)), path_in(from, params));
    xml::node_ptr result = xml::element("result");
    if (found.previous) {
        xml::add(result.get(), "prev", to_text(*found.previous));
    }
    if (found.next) {
        xml::add(result.get(), "next", to_text(*found.next));
    }
    return result;
}

xml::node_ptr conf_daemon::on_push(const plugin_ptr &from, const xmlNode *params)
{
    const given_data given = config_.read_given(parse_path(xml::child_text(params, "path")),
                                                data_in(params), model::content::all);
    report_breach(from->name, given.breach);
    config_.publish(given);
    out_.event("plugin " + from->name + " published " + to_text(given.where));
    return xml::element("result");
}

xml::node_ptr conf_daemon::on_config_deployment(const plugin_ptr &from, const xmlNode *params)
{
    const given_data given = config_.read_given(parse_path(xml::child_text(params, "path")),
                                                data_in(params), model::content::configuration);
    const std::string oper = xml::child_text(params, "oper-type");
    if (oper != "add" && oper != "delete" && oper != "update") {
        throw failure("There is no oper-type \"" + oper + "\".");
    }
    report_breach(from->name, given.breach);
    config_.stage(given, oper);
    out_.event("plugin " + from->name + " staged: " + oper + " " + to_text(given.where));
    return xml::element("result");
}

xml::node_ptr conf_daemon::on_save_deployment(const plugin_ptr &from, const xmlNode * /*params*/)
{
    config_.save_deployment();
    out_.event("plugin " + from->name + " saved the deployment");
    return xml::element("result");
}

xml::node_ptr conf_daemon::on_copy_deployment(const plugin_ptr &from, const xmlNode *params)
{
    config_.copy_running_to_deployment(xml::child_text(params, "override") == "1");
    out_.event("plugin " + from->name + " copied the running configuration to the deployment");
    return xml::element("result");
}

void conf_daemon::ask(const plugin_ptr &to, const char *method, xml::node_ptr params,
                      plugin::answered done)
{
    if (to->now == plugin::state::gone) {
        done({answer::outcome::gone, -1, plugin_is_gone, nullptr});
        return;
    }
    plugins_.talk_to(to, [&] { to->ask(method, std::move(params), std::move(done)); });
}

bool conf_daemon::wait_until_free(const plugin_ptr &whom)
{
    while (const u32_t earlier = whom->awaited()) {
        const auto has_gone_on = [&] { return whom->awaited() != earlier; };
        if (!loop_.run_until(has_gone_on, after(patience_))) {
            return false;
        }
    }
    return true;
}

void conf_daemon::wait_until_all_free()
{
    std::vector<plugin_ptr> busy; // they come and go meanwhile
    std::copy_if(plugins().begin(), plugins().end(), std::back_inserter(busy),
                 [](const plugin_ptr &each) { return each->awaited() != 0; });
    for (const plugin_ptr &each : busy) {
        (void)wait_until_free(each);
    }
}

answer conf_daemon::exchange(const plugin_ptr &to, const char *method, xml::node_ptr params)
{
    if (!wait_until_free(to)) {
        return {answer::outcome::silent, -1, "it has not answered an earlier request yet", nullptr};
    }
    // Shared with the request, which may outlive this call when the loop is interrupted.
    const auto got = std::make_shared<std::optional<answer>>();
    ask(to, method, std::move(params), [got](answer what) { *got = std::move(what); });
    if (!loop_.run_until([&got] { return got->has_value(); })) {
        return {answer::outcome::silent, -1, "interrupted", nullptr};
    }
    return std::move(**got);
}

} // namespace confsim
