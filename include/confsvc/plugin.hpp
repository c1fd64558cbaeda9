/*
 * confsvc/plugin.hpp - the plugin object: handlers, the loop, and the way from the callbacks of C
 * to the handlers. See confsvc.hpp.
 */
#ifndef CONFSVC_PLUGIN_HPP
#define CONFSVC_PLUGIN_HPP

#include "callbacks.hpp"

#include <algorithm>
#include <chrono>
#include <climits>
#include <vector>

namespace confsvc {

/* How a plugin is supervised; what is 0 takes the default that conf_supervisor.h names. */
struct options {
    int start_mode = ACTIVATE_WITH_NONE;
    std::chrono::milliseconds join_limit{0};
    std::chrono::milliseconds answer_limit{0};
    std::chrono::milliseconds retry_first{0};
    std::chrono::milliseconds retry_most{0};
};

/*
 * A plugin that joins the daemon, serves it, and joins it again whenever it was lost. A process has
 * one at a time. Handlers are set first; then run(), or start() and a loop of the program's own
 * that watches fd() for input and calls process(). Any handler may stop or destroy the plugin.
 */
class plugin {
public:
    explicit plugin(std::string name, const options &how = {})
        : state_(std::make_shared<detail::state>(std::move(name))), options_(how)
    {
    }
    plugin(const plugin &) = delete;
    plugin &operator=(const plugin &) = delete;
    ~plugin()
    {
        if (detail::current == state_.get()) {
            detail::current = nullptr;
        }
        econf_supervisor_destroy(std::exchange(state_->supervisor, nullptr));
    }

    /*
     * Handlers: what is called with (const change &), (const query &, output &) and (const call &,
     * output &), and returns nothing or an outcome. After the start none is taken.
     */
    template <typename function>
    plugin &on_change(c_text path, int priority, function handler)
    {
        return add(state_->changes, path, priority, detail::as_handler<change>(std::move(handler)));
    }
    template <typename function>
    plugin &on_change(c_text path, function handler)
    {
        return on_change(path, 10, std::move(handler));
    }
    template <typename function>
    plugin &on_status(c_text path, function handler)
    {
        return add(state_->statuses, path, 0, detail::as_handler<query>(std::move(handler)));
    }
    template <typename function>
    plugin &on_operation(c_text name, function handler)
    {
        return add(state_->operations, name, 0, detail::as_handler<call>(std::move(handler)));
    }

    /* After each joining: a pull of everything is complete here and loses nothing. */
    plugin &on_joined(std::function<void()> handler)
    {
        state_->joined = std::move(handler);
        return *this;
    }
    /* When the connection was lost, with the reason. */
    plugin &on_lost(std::function<void(std::string_view why)> handler)
    {
        state_->lost = std::move(handler);
        return *this;
    }
    /* When the daemon has kicked the plugin off; the loop ends by itself. */
    plugin &on_kicked_off(std::function<void()> handler)
    {
        state_->kicked_off = std::move(handler);
        return *this;
    }
    /*
     * What is told of exceptions that no reply can carry: where ("joined", "lost", "kicked_off",
     * "posted work") and their text. Without a handler they are reported in the system log.
     */
    plugin &on_failure(std::function<void(std::string_view where, std::string_view what)> handler)
    {
        state_->failed = std::move(handler);
        return *this;
    }

    /* Makes the supervisor; does not wait. Needed once, before a loop of the program's own. */
    outcome try_start();
    /* Joins, serves, does what is due; true when the loop is to go on. */
    result<bool> try_process()
    {
        const int returned = econf_supervisor_process(state_->supervisor); // may destroy this
        return returned < 0 ? result<bool>(failure()) : result<bool>(returned == 1);
    }
    /* A loop for a program without one, which ends when the plugin was stopped or kicked off. */
    outcome try_run()
    {
        if (state_->supervisor == nullptr) {
            outcome started = try_start();
            if (!started) {
                return started;
            }
        }
        return econf_supervisor_run(state_->supervisor) < 0 ? outcome(failure()) : outcome();
    }
#if CONFSVC_EXCEPTIONS
    void start()
    {
        throw_failure(try_start());
    }
    [[nodiscard]] bool process()
    {
        return value_or_throw(try_process());
    }
    void run()
    {
        throw_failure(try_run());
    }
#endif

    /* The descriptor to watch for input; -1 before the start. */
    [[nodiscard]] int fd() const
    {
        return econf_supervisor_fd(state_->supervisor);
    }
    /* Why the plugin is not joined; empty while it is. */
    [[nodiscard]] std::string reason() const
    {
        return econf_supervisor_reason(state_->supervisor);
    }

    /*
     * Has `work` run on the thread of the loop. Any thread may call it once the plugin has started;
     * work that is still queued when the plugin is destroyed does not run. Returns whether it was
     * taken.
     */
    bool post(std::function<void()> work)
    {
        const std::lock_guard lock(state_->work_mutex);
        state_->work.push_back(std::move(work));
        if (econf_supervisor_post(state_->supervisor, detail::run_posted, state_.get()) != 0) {
            state_->work.pop_back();
            return false;
        }
        return true;
    }
    /* Ends the loop: from any thread and any signal handler, once the plugin has started. */
    void stop() noexcept
    {
        econf_supervisor_stop(state_->supervisor);
    }

private:
    plugin &add(std::vector<detail::entry> &to, c_text path, int priority,
                std::function<outcome(const void *, output *)> handler)
    {
        if (state_->supervisor == nullptr) { // the one that runs stays where it is
            to.push_back({path.get(), priority, std::move(handler)});
        }
        return *this;
    }

    static error failure()
    {
        return {EIO, "the loop of the plugin has failed"};
    }

    std::shared_ptr<detail::state> state_;
    options options_;
};

inline outcome plugin::try_start()
{
    detail::state &state = *state_;
    constexpr std::size_t most = CONFSVC_MOST_HANDLERS;
    if (state.changes.size() > most || state.statuses.size() > most ||
        state.operations.size() > most) {
        return error(E2BIG, state.name + " has more than " + std::to_string(most) +
                                " handlers of a kind; see CONFSVC_MOST_HANDLERS");
    }
    std::vector<econf_config_cb_info_t> changes;
    for (const auto &each : state.changes) {
        changes.push_back(
            {each.path.c_str(), each.priority, detail::callbacks::changes[changes.size()]});
    }
    changes.push_back({nullptr, 0, nullptr});
    std::vector<econf_status_cb_info_t> statuses;
    for (const auto &each : state.statuses) {
        statuses.push_back({each.path.c_str(), detail::callbacks::statuses[statuses.size()]});
    }
    statuses.push_back({nullptr, nullptr});
    std::vector<econf_operate_cb_info_t> operations;
    for (auto &each : state.operations) {
        operations.push_back({each.path.data(), detail::callbacks::operations[operations.size()]});
    }
    operations.push_back({nullptr, nullptr});

    const econf_plugin_subpub_info_t info = {changes.data(), statuses.data(), operations.data(),
                                             detail::run_kicked_off};
    const auto number = [](std::chrono::milliseconds time) {
        return static_cast<int>(std::min<long long>(time.count(), INT_MAX));
    };
    const econf_supervisor_options_t how = {options_.start_mode,
                                            number(options_.join_limit),
                                            number(options_.answer_limit),
                                            number(options_.retry_first),
                                            number(options_.retry_most),
                                            state.joined ? detail::run_joined : nullptr,
                                            state.lost ? detail::run_lost : nullptr,
                                            &state};
    if (state.supervisor == nullptr) {
        state.supervisor = econf_supervisor_create(state.name.c_str(), &info, &how);
        if (state.supervisor == nullptr) {
            return error(EIO, state.name + " cannot be supervised; the debug file says why");
        }
        detail::current = &state;
    }
    return {};
}

} // namespace confsvc

#endif
