// See commit.h.
#include "service/commit.h"

#include "conf_api.h"
#include "failure.h"
#include "service/refusal.h"
#include "tree/nearest.h"

#include <algorithm>

namespace confsim {

namespace {

// Lets plugins read the candidate, for its lifetime.
class committing_scope {
public:
    explicit committing_scope(configuration &config) : config_(config)
    {
        config_.set_committing(true);
    }
    ~committing_scope() { config_.set_committing(false); }
    committing_scope(const committing_scope &) = delete;
    committing_scope &operator=(const committing_scope &) = delete;

private:
    configuration &config_;
};

std::string in_words(const publication &what)
{
    return std::string(verb_of(what.oper)) + " " + to_text(what.where) + " to " + what.to->name;
}

std::string counted(std::size_t count, const char *what)
{
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

answer publish(conf_daemon &service, const publication &what, bool more)
{
    return service.exchange(what.to, "publish", publish_params(what, more));
}

void tell(const commit_listener &listener, const char *what_is_done, const publication &what,
          const answer &got)
{
    listener.say(what_is_done + in_words(what) + ": " + (got.is_result() ? "ok" : got.in_words()),
                 got.is_result() ? tone::plain : tone::error);
    listener.published(what, got);
}

int inverse(int oper)
{
    switch (oper) {
    case CONFIG_OP_ADD:
        return CONFIG_OP_RM;
    case CONFIG_OP_RM:
        return CONFIG_OP_ADD;
    default:
        return oper;
    }
}

// Publishes what was applied back, the last first. A plugin that cannot take its change back is
// reported; the others still take back theirs.
void roll_back(conf_daemon &service, std::vector<publication> applied,
               const commit_listener &listener)
{
    std::reverse(applied.begin(), applied.end());
    for (publication &each : applied) {
        each.oper = inverse(each.oper) | CONFIG_OP_ROLLBACK;
    }
    const std::vector<bool> more = more_follow(applied);
    for (std::size_t i = 0; i < applied.size(); ++i) {
        const answer got = publish(service, applied[i], more[i]);
        tell(listener, "roll back: ", applied[i], got);
    }
}

// A subscription that is mistyped shows in what nobody is told of.
void report_unsubscribed(const subscription_index &subscriptions,
                         const std::vector<difference> &changes, const commit_listener &listener)
{
    constexpr std::size_t most = 10;
    const std::vector<std::string> all = subscriptions.unsubscribed(changes);
    const std::vector<std::string> names =
        all.empty() ? std::vector<std::string>() : subscriptions.paths();
    for (std::size_t i = 0; i < std::min(all.size(), most); ++i) {
        listener.say("no active plugin subscribed to " + all[i] + hint_of_nearest(all[i], names),
                     tone::plain);
    }
    if (all.size() > most) {
        listener.say("nor to " + counted(all.size() - most, "further path"), tone::plain);
    }
}

void refuse_invalid(configuration &config)
{
    try {
        config.validate();
    } catch (const failure &reason) {
        throw failure(std::string("commit failed: the model forbids it: ") + reason.what());
    }
}

void carry_out(conf_daemon &service, configuration &config, const commit_listener &listener)
{
    const std::vector<difference> changes = differences(config.running(), config.candidate());
    std::vector<publication> all = service.subscriptions().publications(changes);
    const std::vector<bool> more = more_follow(all);
    report_unsubscribed(service.subscriptions(), changes, listener);
    const committing_scope scope(config);
    for (std::size_t i = 0; i < all.size(); ++i) {
        const answer got = publish(service, all[i], more[i]);
        tell(listener, "publish: ", all[i], got);
        if (!got.is_result()) {
            const publication refused = all[i];
            all.resize(i);
            roll_back(service, std::move(all), listener);
            throw refusal("commit failed: ", refused.to->name, to_text(refused.where), got);
        }
    }
    try {
        config.accept();
    } catch (const failure &reason) {
        roll_back(service, std::move(all), listener);
        throw failure(std::string("commit failed: ") + reason.what());
    }
    listener.say("committed: " + counted(changes.size(), "difference") + ", " +
                     counted(all.size(), "publication"),
                 tone::plain);
}

} // namespace

void commit(conf_daemon &service, configuration &config, const commit_listener &listener)
{
    // A plugin that starts is told what is in force, before the commit or after it.
    service.hold_starts();
    service.wait_until_all_free();
    try {
        refuse_invalid(config);
        carry_out(service, config, listener);
    } catch (const failure &) {
        service.release_starts();
        throw;
    }
    service.release_starts();
}

} // namespace confsim
