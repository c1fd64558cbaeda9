/*
 * confsvc/callbacks.hpp - the way from the callbacks of C, which carry nothing of the user's, to
 * the handlers of a plugin: a table of numbered functions for each kind, all of them around one
 * body. Nothing here is for direct use. See confsvc.hpp.
 */
#ifndef CONFSVC_CALLBACKS_HPP
#define CONFSVC_CALLBACKS_HPP

#include "../conf_debug.h"
#include "../conf_supervisor.h"
#include "request.hpp"

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <syslog.h>
#include <vector>

/* The most handlers of one kind. When a program sets it, then to one number in all of its files. */
#ifndef CONFSVC_MOST_HANDLERS
#define CONFSVC_MOST_HANDLERS 64
#endif

namespace confsvc {

namespace detail {

/* A handler of any kind, called with its request and, where the kind has one, its output. */
struct entry {
    std::string path;
    int priority;
    std::function<outcome(const void *request, output *out)> run;
};

/* A handler that returns nothing accepts, unless it throws. */
template <typename request, typename function>
auto as_handler(function handler)
{
    return [handler = std::move(handler)](const void *given, output *out) mutable -> outcome {
        const request &asked = *static_cast<const request *>(given);
        const auto run = [&]() -> decltype(auto) {
            if constexpr (std::is_same_v<request, change>) {
                return handler(asked);
            } else {
                return handler(asked, *out);
            }
        };
        if constexpr (std::is_void_v<decltype(run())>) {
            run();
            return {};
        } else {
            return run();
        }
    };
}

/* All that handlers need, kept while one runs: it may destroy the plugin. */
struct state : std::enable_shared_from_this<state> {
    explicit state(std::string given) : name(std::move(given)) {}

    std::string name;
    std::vector<entry> changes;
    std::vector<entry> statuses;
    std::vector<entry> operations;
    std::function<void()> joined;
    std::function<void(std::string_view)> lost;
    std::function<void()> kicked_off;
    std::function<void(std::string_view, std::string_view)> failed;

    econf_supervisor_t *supervisor = nullptr;
    std::mutex work_mutex;
    std::deque<std::function<void()>> work;

    void report(const char *where, const char *what) noexcept
    {
#if CONFSVC_EXCEPTIONS
        try {
#endif
            if (failed) {
                failed(where, what);
            } else {
                safety_syslog(LOG_USER | LOG_ERR, "[ERROR]plugin %s: %s: %s\n", name.c_str(), where,
                              what);
            }
#if CONFSVC_EXCEPTIONS
        } catch (...) { // there is nobody left to tell
        }
#endif
    }
};

/* The one plugin of the process; the callbacks of C have nothing else to find it by. */
inline state *current = nullptr;

inline std::shared_ptr<state> keep_current()
{
    return current == nullptr ? nullptr : current->weak_from_this().lock();
}

/* The plugin may be gone by now, or be another one, whose answer this is not. */
inline int refuse(const state *of, int code, const char *text) noexcept
{
    return current == of ? econf_plugin_refuse(code, "%s", text) : -1;
}

/* What a callback returns for what its handler did. Nothing gets past it. */
[[gnu::noinline]] inline int answer(const state *of, outcome (*run)(const void *),
                                    const void *context) noexcept
{
#if CONFSVC_EXCEPTIONS
    try {
#endif
        const outcome done = run(context);
        return done ? 0 : refuse(of, done.why().code(), done.why().what());
#if CONFSVC_EXCEPTIONS
    } catch (const error &why) {
        return refuse(of, why.code(), why.what());
    } catch (const std::bad_alloc &) {
        return refuse(of, ENOMEM, "no memory for the request");
    } catch (const std::exception &why) {
        return refuse(of, -1, why.what());
    } catch (...) {
        return refuse(of, -1, "the handler failed");
    }
#endif
}

template <typename function>
int answer(const state *of, const function &handler) noexcept
{
    return answer(
        of, [](const void *context) { return (*static_cast<const function *>(context))(); },
        &handler);
}

/* Runs what has no answer. */
template <typename function>
void contain(state &of, const char *where, const function &run) noexcept
{
#if CONFSVC_EXCEPTIONS
    try {
#endif
        run();
#if CONFSVC_EXCEPTIONS
    } catch (const std::exception &why) {
        of.report(where, why.what());
    } catch (...) {
        of.report(where, "an exception of an unknown kind");
    }
#else
    (void)of;
    (void)where;
#endif
}

/* The bodies behind the callbacks of C, of which there is one for each handler. */

[[gnu::noinline]] inline int run_change(int session, int oper, int more, int priority,
                                        const char *path, std::size_t slot) noexcept
{
    const std::shared_ptr<state> kept = keep_current();
    return answer(kept.get(), [&] {
        const change request(session, oper, more, priority, path);
        return kept->changes[slot].run(&request, nullptr);
    });
}

[[gnu::noinline]] inline int run_with_output(const state *of, const entry &handler,
                                             const void *request, xmlNode **to) noexcept
{
    return answer(of, [&]() -> outcome {
        output out;
        outcome done = handler.run(request, &out);
        if (done && !out.complete()) {
            return error(ENOMEM, "no memory for the answer");
        }
        if (done) {
            *to = out.release();
        }
        return done;
    });
}

[[gnu::noinline]] inline int run_status(int session, const char *path, const char *filter,
                                        xmlNode **to, std::size_t slot) noexcept
{
    const std::shared_ptr<state> kept = keep_current();
    const query request(session, path, filter);
    return run_with_output(kept.get(), kept->statuses[slot], &request, to);
}

[[gnu::noinline]] inline int run_operation(int session, xmlNode *input, xmlNode **to,
                                           std::size_t slot) noexcept
{
    const std::shared_ptr<state> kept = keep_current();
    const call request(session, input);
    return run_with_output(kept.get(), kept->operations[slot], &request, to);
}

template <std::size_t slot>
int change_callback(int session, int oper, int more, int priority, const char *path)
{
    return run_change(session, oper, more, priority, path, slot);
}

template <std::size_t slot>
int status_callback(int session, const char *path, const char *filter, xmlNode **to)
{
    return run_status(session, path, filter, to, slot);
}

template <std::size_t slot>
int operation_callback(int session, xmlNode *input, xmlNode **to)
{
    return run_operation(session, input, to, slot);
}

template <std::size_t... slots>
struct callback_tables {
    static constexpr econf_config_cb_t changes[] = {change_callback<slots>...};
    static constexpr econf_status_cb_t statuses[] = {status_callback<slots>...};
    static constexpr econf_operate_cb_t operations[] = {operation_callback<slots>...};
};

template <std::size_t... slots>
callback_tables<slots...> tables_for(std::index_sequence<slots...>);
using callbacks = decltype(tables_for(std::make_index_sequence<CONFSVC_MOST_HANDLERS>()));

inline void run_kicked_off()
{
    const std::shared_ptr<state> kept = keep_current();
    if (kept != nullptr && kept->kicked_off) {
        contain(*kept, "kicked_off", kept->kicked_off);
    }
}

inline void run_joined(void *user)
{
    const std::shared_ptr<state> kept = static_cast<state *>(user)->weak_from_this().lock();
    contain(*kept, "joined", kept->joined);
}

inline void run_lost(void *user, const char *why)
{
    const std::shared_ptr<state> kept = static_cast<state *>(user)->weak_from_this().lock();
    contain(*kept, "lost", [&] { kept->lost(why); });
}

/* Runs the first of the posted works; as many calls come as there are works. */
inline void run_posted(void *user)
{
    const std::shared_ptr<state> kept = static_cast<state *>(user)->weak_from_this().lock();
    std::unique_lock lock(kept->work_mutex);
    const std::function<void()> first = std::move(kept->work.front());
    kept->work.pop_front();
    lock.unlock();
    contain(*kept, "posted work", first);
}

} // namespace detail

} // namespace confsvc

#endif
