/*
 * confsvc/request.hpp - what a plugin asks of the daemon: from a handler, in joined(), in posted
 * work, or anywhere else on the thread of the loop while the plugin is joined. Failures are errors
 * with the code EIO. What each request does, conf_api.h says; see confsvc.hpp for the rest.
 */
#ifndef CONFSVC_REQUEST_HPP
#define CONFSVC_REQUEST_HPP

#include "../conf_api.h"
#include "node.hpp"
#include "output.hpp"

namespace confsvc {

/* The present configuration, or the one before the change that is being made. */
enum class datastore { present, old };

/* What is done to the deployment store. */
enum class staging { add = 0, remove = 1, update = 2 };

/* Paths of the neighbours of a configuration entry; empty where there is none. */
struct position {
    std::string previous;
    std::string next;
};

namespace detail {

inline outcome done(int returned, const char *what, c_text about)
{
    if (returned == 0) {
        return {};
    }
    return error(EIO, std::string("the daemon did not ") + what + ' ' + about.get());
}

} // namespace detail

/* Nothing there is no failure: the owner is empty. It is empty, too, when the daemon refuses. */
inline result<elements> try_pull(c_text path, datastore from = datastore::present)
{
    xmlNode *list = nullptr;
    const int old_flag = from == datastore::old ? 1 : 0;
    if (const outcome pulled =
            detail::done(econf_plugin_pull(old_flag, path.get(), &list), "say", path);
        !pulled) {
        return pulled.why();
    }
    return elements(list);
}

inline result<position> try_locate(c_text path, datastore from = datastore::present)
{
    xmlNode *list = nullptr;
    const int old_flag = from == datastore::old ? 1 : 0;
    const int returned = econf_plugin_locate(old_flag, path.get(), &list);
    const elements found(list);
    if (const outcome located = detail::done(returned, "locate", path); !located) {
        return located.why();
    }
    const auto neighbour = [&found](const char *name) {
        const char *text = "";
        (void)econf_node_text(found.all().find(name).get(), &text);
        return std::string(text);
    };
    return position{neighbour("prev"), neighbour("next")};
}

inline outcome try_push(c_text path, const output &data)
{
    return detail::done(data.complete() ? econf_plugin_push(path.get(), data.first()) : -1,
                        "take what was pushed to", path);
}

inline outcome try_stage(c_text path, staging how, const output &data)
{
    const int oper = static_cast<int>(how);
    return detail::done(
        data.complete() ? econf_plugin_config_deployment(path.get(), oper, data.first()) : -1,
        "stage", path);
}

inline outcome try_save_deployment()
{
    return detail::done(econf_plugin_save_deployment(), "save", "the deployment");
}

inline outcome try_copy_running_to_deployment(bool overwrite)
{
    return detail::done(econf_plugin_copy_running_to_deployment(overwrite ? 1 : 0), "copy",
                        "the running configuration");
}

/* Sends the first element of `data`. Needs no plugin, and any thread may do it. */
inline outcome try_notify(c_text name, const output &data)
{
    return detail::done(data.complete() ? econf_notify(name.get(), data.first()) : -1,
                        "take the notification", name);
}

#if CONFSVC_EXCEPTIONS
[[nodiscard]] inline elements pull(c_text path, datastore from = datastore::present)
{
    return value_or_throw(try_pull(path, from));
}
[[nodiscard]] inline position locate(c_text path, datastore from = datastore::present)
{
    return value_or_throw(try_locate(path, from));
}
inline void push(c_text path, const output &data)
{
    throw_failure(try_push(path, data));
}
inline void stage(c_text path, staging how, const output &data)
{
    throw_failure(try_stage(path, how, data));
}
inline void save_deployment()
{
    throw_failure(try_save_deployment());
}
inline void copy_running_to_deployment(bool overwrite)
{
    throw_failure(try_copy_running_to_deployment(overwrite));
}
inline void notify(c_text name, const output &data)
{
    throw_failure(try_notify(name, data));
}
#endif

/* ---- What handlers are given ----------------------------------------------------------------- */

namespace detail {

inline result<std::string> read_key(const char *path, const char *step, const char *key)
{
    std::string value(path == nullptr ? 1 : std::strlen(path) + 1, '\0');
    const int found = econf_path_key(path, step, key, &value[0], value.size());
    if (found <= 0) {
        return refusal(EINVAL, std::string(path == nullptr ? "a missing path" : path) +
                                   (found == 0 ? " has no key " : " is damaged, sought was ") +
                                   key);
    }
    value.resize(std::strlen(value.c_str()));
    return value;
}

} // namespace detail

/* A path, as it came; the bases of what has one. */
class with_path {
public:
    /* Never null; "" when the daemon sent none. */
    [[nodiscard]] const char *path() const noexcept { return path_ == nullptr ? "" : path_; }
    /* The value of a key, of the last step that has it or of the last one called `step`. */
    [[nodiscard]] result<std::string> try_key(c_text name, c_text step = nullptr) const
    {
        return detail::read_key(path_, step.get(), name.get());
    }
#if CONFSVC_EXCEPTIONS
    [[nodiscard]] std::string key(c_text name, c_text step = nullptr) const
    {
        return value_or_throw(try_key(name, step));
    }
#endif

protected:
    explicit with_path(const char *path) : path_(path) {}

private:
    const char *path_;
};

/* A change of the configuration. Lives during the call of the handler. */
class change : public with_path {
public:
    change(int session, int oper, int more, int priority, const char *path)
        : with_path(path), session_(session), oper_(oper), more_(more), priority_(priority)
    {
    }

    [[nodiscard]] bool added() const noexcept { return has(CONFIG_OP_ADD); }
    [[nodiscard]] bool removed() const noexcept { return has(CONFIG_OP_RM); }
    [[nodiscard]] bool modified() const noexcept { return has(CONFIG_OP_MOD); }
    [[nodiscard]] bool moved() const noexcept { return has(CONFIG_OP_MOVE); }
    /* Takes back what was applied before. */
    [[nodiscard]] bool rollback() const noexcept { return has(CONFIG_OP_ROLLBACK); }
    /* Part of the configuration that a start mode asked for. */
    [[nodiscard]] bool replay() const noexcept { return has(CONFIG_OP_CFGR | CONFIG_OP_SMOOTH); }
    /* Further changes of the same commit follow. */
    [[nodiscard]] bool more() const noexcept { return more_ != 0; }
    [[nodiscard]] int session() const noexcept { return session_; }
    [[nodiscard]] int priority() const noexcept { return priority_; }
    [[nodiscard]] int operation() const noexcept { return oper_; }

    /*
     * What is to be in force under the path once the change is applied, and what was before; empty
     * where there is nothing. In a roll-back the two have changed places: what is to be in force
     * again is the old configuration. Each call pulls.
     */
    [[nodiscard]] result<elements> try_values() const { return try_pull(path(), wanted()); }
    [[nodiscard]] result<elements> try_old_values() const { return try_pull(path(), replaced()); }
#if CONFSVC_EXCEPTIONS
    [[nodiscard]] elements values() const
    {
        return pull(path(), wanted());
    }
    [[nodiscard]] elements old_values() const
    {
        return pull(path(), replaced());
    }
#endif

private:
    [[nodiscard]] bool has(int bits) const noexcept
    {
        return (oper_ & bits) != 0;
    }
    [[nodiscard]] datastore wanted() const noexcept
    {
        return rollback() ? datastore::old : datastore::present;
    }
    [[nodiscard]] datastore replaced() const noexcept
    {
        return rollback() ? datastore::present : datastore::old;
    }

    int session_;
    int oper_;
    int more_;
    int priority_;
};

/* A question for a status. Lives during the call of the handler. */
class query : public with_path {
public:
    query(int session, const char *path, const char *filter)
        : with_path(path), session_(session), filter_(filter)
    {
    }
    [[nodiscard]] int session() const noexcept { return session_; }
    /* The text of the filter; empty when there is none. */
    [[nodiscard]] std::optional<std::string_view> filter() const
    {
        return filter_ == nullptr ? std::nullopt : std::optional<std::string_view>(filter_);
    }

private:
    int session_;
    const char *filter_;
};

/* A call of an operation: reads the values of its input. Lives during the call of the handler. */
class call : public reader<call> {
public:
    call(int session, xmlNode *input) : session_(session), input_(input) {}
    [[nodiscard]] int session() const noexcept { return session_; }
    [[nodiscard]] nodes input() const { return nodes(input_); }
    [[nodiscard]] node find(c_text name) const { return econf_node_find(input_, name.get()); }

private:
    int session_;
    xmlNode *input_;
};

} // namespace confsvc

#endif
