// See plugin.h.
#include "service/plugin.h"

#include "conf_plugin.h"
#include "failure.h"

#include <cstring>
#include <new>
#include <utility>

namespace confsim {

namespace {

// Greater ids are those of probes, up to what every peer reads as a number.
constexpr u32_t last_id = 0x3fffffff;

// How many probes are sent in the time that an answer may take. What is left of a damaged frame may
// swallow the first ones.
constexpr int probes_in_time = 4;

template <typename Visit>
void for_each_entry(const xmlNode *params, const char *section, Visit visit)
{
    const xmlNode *entries = xml::child(params, section);
    if (entries == nullptr) {
        return;
    }
    for (const xmlNode *entry = xml::first_element(entries); entry != nullptr;
         entry = xml::next_element(entry)) {
        visit(entry);
    }
}

std::vector<subscription> read_subscriptions(const xmlNode *params, const char *section)
{
    std::vector<subscription> found;
    for_each_entry(params, section, [&found](const xmlNode *entry) {
        found.push_back({parse_path(xml::child_text(entry, "path")),
                         xml::child_number(entry, "priority"),
                         xml::child_number(entry, "callback")});
    });
    return found;
}

answer read_answer(xml::node_ptr reply)
{
    xmlNode *result = nullptr;
    xmlNode *error = nullptr;
    if (plugin_parse_reply(reply.get(), &result, &error) != 0) {
        return {answer::outcome::refused, -1, "the reply holds neither result nor error",
                std::move(reply)};
    }
    if (result != nullptr) {
        return {answer::outcome::result, 0, "", std::move(reply)};
    }
    const char *text = plugin_get_reply_errmsg(error);
    return {answer::outcome::refused, plugin_get_reply_errcode(error), text == nullptr ? "" : text,
            std::move(reply)};
}

} // namespace

std::string answer::in_words() const
{
    return kind == outcome::refused ? "code " + std::to_string(code) + ": " + message : message;
}

plugin::plugin(int descriptor, const tracer &trace, event_loop &loop, seconds patience)
    : stream(descriptor, trace), loop_(loop), patience_(patience)
{
}

plugin::~plugin()
{
    stop_waiting();
}

std::string plugin::called() const
{
    return name.empty() ? "process " + stream.process() : name;
}

void plugin::take_registration(const xmlNode *params)
{
    const std::string given = xml::child_text(params, "plugin-name");
    if (given.empty()) {
        throw failure("The registration names no plugin.");
    }
    std::vector<subscription> new_configs = read_subscriptions(params, "config-subscribe");
    std::vector<subscription> new_statuses = read_subscriptions(params, "status-publish");
    std::vector<operation> new_operations;
    for_each_entry(params, "operate-subscribe", [&new_operations](const xmlNode *entry) {
        new_operations.push_back(
            {xml::child_text(entry, "path"), xml::child_number(entry, "callback")});
    });
    configs = std::move(new_configs);
    statuses = std::move(new_statuses);
    operations = std::move(new_operations);
    name = given;
    stream.set_peer(name);
    now = state::registered;
}

void plugin::ask(const char *method, xml::node_ptr params, answered done)
{
    const u32_t id = last_id_ = last_id_ % last_id + 1;
    xml::node_ptr document(plugin_build_rpc_message(method, params.release(), id));
    if (document == nullptr) {
        throw std::bad_alloc();
    }
    requests_.push_back({id, std::move(document), std::move(done)});
    if (requests_.size() == 1) {
        send_next();
    }
}

void plugin::take_reply(xml::node_ptr reply)
{
    const u32_t id = plugin_get_msgid(reply.get());
    if (id > last_id && id <= last_id + last_probe_) {
        if (!requests_.empty() && id > last_id + probes_before_) {
            lose_first();
        }
        return;
    }
    if (requests_.empty() || id != requests_.front().id) {
        if (!may_answer_again_) {
            report("sends a reply that answers nothing, with the id " + std::to_string(id));
        }
        (void)take_recorded(); // of what this answers
        return;
    }
    check_answer(reply.get());
    stop_waiting();
    has_met_fault_ = may_have_lost_ = false;
    const request answered_request = std::move(requests_.front());
    requests_.pop_front();
    if (answered_request.done) {
        answered_request.done(read_answer(std::move(reply)));
    }
    if (!requests_.empty() && !timeout_) {
        send_next();
    }
}

void plugin::send_next()
{
    timeout_ = loop_.start_timer(patience_, [this] { give_up_first(); });
    own_request_.clear();
    (void)take_recorded(); // outside of a request
    probes_before_ = last_probe_;
    sent_ = steady_clock::now();
    stream.send(requests_.front().document.get());
}

void plugin::give_up_first()
{
    timeout_.reset();
    const answered done = std::exchange(requests_.front().done, nullptr);
    if (has_met_fault_ || !own_request_.empty()) {
        probe();
    }
    done({answer::outcome::silent, -1, "no answer in time", nullptr});
}

void plugin::probe()
{
    timeout_ = loop_.start_timer(patience_ / probes_in_time, [this] {
        timeout_.reset();
        probe();
    });
    last_probe_ = last_probe_ % last_id + 1;
    const xml::node_ptr document(plugin_build_rpc_message(
        "are-you-there", xml::element("params").release(), last_id + last_probe_));
    if (document == nullptr) {
        throw std::bad_alloc();
    }
    line->talk([this, &document] { stream.send(document.get()); });
}

// There will be no answer to the first request, as those to later ones have come.
void plugin::lose_first()
{
    if (!own_request_.empty() && !may_have_lost_) {
        report("drops " + asked() + ", for it made the request " + own_request_ +
               " while that lay in its socket");
    }
    stop_waiting();
    has_met_fault_ = may_have_lost_ = false;
    requests_.pop_front();
    if (!requests_.empty()) {
        send_next();
    }
}

void plugin::note_fault(bool of_frame)
{
    has_met_fault_ = true;
    may_have_lost_ = may_have_lost_ || of_frame;
    may_answer_again_ = may_answer_again_ || of_frame;
}

void plugin::note_request(const std::string &method)
{
    if (!requests_.empty()) {
        own_request_ = method;
    }
}

std::string plugin::asked() const
{
    const xmlNode *sent = requests_.front().document.get();
    const xmlNode *params = xml::child(sent, "params");
    const xmlNode *info = xml::child(params, "info");
    std::string where = xml::child_text(params, "path");
    if (where.empty() && info != nullptr) {
        where = xml::child_text(info, "path");
    }
    return xml::child_text(sent, "method") + (where.empty() ? "" : " of " + where);
}

void plugin::check_answer(const xmlNode *reply) const
{
    if (xml::child(reply, "result") == nullptr && xml::child(reply, "error") == nullptr) {
        report("answers " + asked() + " with neither a result nor an error");
    }
    const std::optional<std::string> recorded = take_recorded();
    if (recorded && xml::child(reply, "error") == nullptr) {
        report("returns 0 from " + asked() +
               ", so the error that it recorded is lost: " + *recorded);
    }
    if (watcher != nullptr && !has_met_fault_) {
        watcher->answered(called(), asked(), steady_clock::now() - sent_);
    }
}

std::optional<std::string> plugin::take_recorded() const
{
    return watcher == nullptr ? std::nullopt : watcher->take_recorded(stream.process());
}

void plugin::report(const std::string &what) const
{
    if (watcher != nullptr) {
        watcher->add(called(), what);
    }
}

void plugin::give_up(const std::string &why)
{
    stop_waiting();
    end(std::exchange(requests_, {}), why);
}

void plugin::give_up_unsent(const std::string &why)
{
    std::deque<request> sent;
    if (!requests_.empty()) {
        sent.push_back(std::move(requests_.front()));
        requests_.pop_front();
    }
    end(std::exchange(requests_, std::move(sent)), why);
}

void plugin::end(const std::deque<request> &given_up, const std::string &why)
{
    for (const request &each : given_up) {
        if (each.done) {
            each.done({answer::outcome::gone, -1, why, nullptr});
        }
    }
}

void plugin::stop_waiting()
{
    if (timeout_) {
        loop_.stop_timer(*timeout_);
        timeout_.reset();
    }
}

} // namespace confsim
