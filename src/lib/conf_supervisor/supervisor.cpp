// Makes and releases the supervisor, and does what its host asks for between the turns of the loop.
// See supervisor_internal.h. Relies on turn.cpp.
#include "supervisor_internal.h"

#include "support/log.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <utility>

namespace {

constexpr int default_join_limit = 5000;
constexpr int default_answer_limit = 300000;
constexpr int default_retry_first = 100;
constexpr int default_retry_most = 30000;

using work_owner = std::unique_ptr<posted_work, support::released_by<std::free>>;

econf_supervisor_t *g_supervisor = nullptr;

static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

bool is_own(const econf_supervisor_t *s)
{
    return s != nullptr && s->process == getpid();
}

// What the host has asked for, with the defaults in place of zeros.
econf_supervisor_options_t completed(const econf_supervisor_options_t *given)
{
    econf_supervisor_options_t options = given == nullptr ? econf_supervisor_options_t{} : *given;
    const auto complete = [](int &time, int fallback) { time = time > 0 ? time : fallback; };
    complete(options.join_limit, default_join_limit);
    complete(options.answer_limit, default_answer_limit);
    complete(options.retry_first, default_retry_first);
    complete(options.retry_most, default_retry_most);
    return options;
}

// ---- copies ------------------------------------------------------------------------------------

// Where copies go that are made in one block: tables first, since they need their alignment.
struct copy_room {
    char *tables;
    char *texts;
};

struct copy_size {
    std::size_t tables = 0;
    std::size_t texts = 0;
};

// The three tables differ in the size of their entries only: each begins with the path, and one
// without a path ends the table.
static_assert(offsetof(econf_config_cb_info_t, path) == 0 &&
              offsetof(econf_status_cb_info_t, path) == 0 &&
              offsetof(econf_operate_cb_info_t, path) == 0);

const char *path_of(const char *entry)
{
    const char *path = nullptr;
    std::memcpy(&path, entry, sizeof path);
    return path;
}

void measure(const void *table, std::size_t entry_size, copy_size &size)
{
    const auto *entry = static_cast<const char *>(table);
    for (; entry != nullptr; entry += entry_size) {
        size.tables += entry_size;
        const char *const path = path_of(entry);
        if (path == nullptr) {
            return;
        }
        size.texts += std::strlen(path) + 1;
    }
}

char *copy_of_text(const char *text, copy_room &room)
{
    const std::size_t size = std::strlen(text) + 1;
    char *const copy = room.texts;
    std::memcpy(copy, text, size);
    room.texts += size;
    return copy;
}

void *copy_of_table(const void *table, std::size_t entry_size, copy_room &room)
{
    const auto *entry = static_cast<const char *>(table);
    char *const first = room.tables;
    for (; entry != nullptr; entry += entry_size) {
        char *const copy = room.tables;
        std::memcpy(copy, entry, entry_size);
        room.tables += entry_size;
        const char *path = path_of(entry);
        if (path == nullptr) {
            return first;
        }
        path = copy_of_text(path, room);
        std::memcpy(copy, &path, sizeof path);
    }
    return nullptr;
}

template <typename entry_type>
void measure(const entry_type *table, copy_size &size)
{
    measure(table, sizeof *table, size);
}

template <typename entry_type>
entry_type *copy_of_table(const entry_type *table, copy_room &room)
{
    return static_cast<entry_type *>(copy_of_table(table, sizeof *table, room));
}

// The supervisor with all that it copies in one block; null without memory.
econf_supervisor_t *allocate(const char *name, const econf_plugin_subpub_info_t &info,
                             const econf_supervisor_options_t &options)
{
    copy_size size;
    measure(info.config_cbs, size);
    measure(info.status_cbs, size);
    measure(info.operate_cbs, size);
    size.texts += std::strlen(name) + 1;
    void *const block = malloc(sizeof(econf_supervisor_t) + size.tables + size.texts);
    if (block == nullptr) {
        return nullptr;
    }
    auto *const s = std::construct_at(static_cast<econf_supervisor_t *>(block), options);
    char *const tables = reinterpret_cast<char *>(s + 1);
    copy_room room = {tables, tables + size.tables};
    s->info = {copy_of_table(info.config_cbs, room), copy_of_table(info.status_cbs, room),
               copy_of_table(info.operate_cbs, room), note_kick_off};
    s->kick_off = info.kick_off;
    s->name = copy_of_text(name, room);
    return s;
}

bool open_descriptors(econf_supervisor_t &s)
{
    s.epoll.reset(epoll_create1(EPOLL_CLOEXEC));
    s.event.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    s.timer.reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    return s.epoll && s.event && s.timer &&
           watch_descriptor(s, s.event.get(), EPOLLIN, from_event) &&
           watch_descriptor(s, s.timer.get(), EPOLLIN, from_timer);
}

void forget_work(posted_work *first)
{
    while (first != nullptr) {
        const work_owner done(first);
        first = first->next;
    }
}

// Why there can be no supervisor; null when there can.
const char *obstacle(const char *name, const econf_plugin_subpub_info_t *info)
{
    if (name == nullptr || info == nullptr) {
        return "name or info is null";
    }
    if (is_own(g_supervisor)) {
        return "the process has one";
    }
    if (get_plugin_hooks() != nullptr) {
        return "the process is the daemon's own";
    }
    return get_plugin_context() != nullptr ? "the process has a plugin" : nullptr;
}

} // namespace

// The kick-off of the plugin as the library knows it. The host's may destroy the supervisor.
void note_kick_off()
{
    econf_supervisor_t *const s = g_supervisor;
    s->state = plugin_state::kicked_off;
    if (s->kick_off != nullptr) {
        s->kick_off();
    }
}

void do_posted(econf_supervisor_t &s, const bool &gone)
{
    posted_work *ordered = nullptr;
    for (posted_work *work = s.posted.exchange(nullptr); work != nullptr;) {
        posted_work *const next = std::exchange(work->next, ordered);
        ordered = std::exchange(work, next);
    }
    while (ordered != nullptr && !gone && !s.is_stopped) {
        const work_owner work(std::exchange(ordered, ordered->next));
        work->work(work->arg);
    }
    forget_work(ordered);
}

econf_supervisor_t *econf_supervisor_create(const char *name,
                                            const econf_plugin_subpub_info_t *info,
                                            const econf_supervisor_options_t *options)
{
    if (const char *const reason = obstacle(name, info)) {
        LOG_FILE_ERROR("No supervisor is made: %s.", reason);
        return nullptr;
    }
    econf_supervisor_t *const s = allocate(name, *info, completed(options));
    if (s == nullptr || !open_descriptors(*s)) {
        LOG_FILE_ERROR("No supervisor is made: %s.", std::strerror(errno));
        if (s != nullptr) {
            std::destroy_at(s);
            free(s);
        }
        return nullptr;
    }
    s->exchange.emplace(s->event.get(), s->options.answer_limit);
    s->exchange->explain("Not tried yet.");
    s->pause = s->options.retry_first;
    arm_timer(*s, 0);
    g_supervisor = s;
    supervise(&*s->exchange);
    return s;
}

int econf_supervisor_fd(econf_supervisor_t *supervisor)
{
    return supervisor == nullptr ? -1 : supervisor->epoll.get();
}

int econf_supervisor_process(econf_supervisor_t *supervisor)
{
    if (!is_own(supervisor)) {
        return -1;
    }
    if (supervisor->gone != nullptr) {
        return 1;
    }
    bool gone = false;
    supervisor->gone = &gone;
    const int result = take_turn(*supervisor, gone);
    if (!gone) {
        supervisor->gone = nullptr;
    }
    return result;
}

int econf_supervisor_run(econf_supervisor_t *supervisor)
{
    if (!is_own(supervisor) || supervisor->gone != nullptr) {
        return -1;
    }
    pollfd input = {supervisor->epoll.get(), POLLIN, 0};
    for (;;) {
        const int result = econf_supervisor_process(supervisor);
        if (result != 1) {
            return result;
        }
        if (poll(&input, 1, -1) < 0 && errno != EINTR) {
            return -1;
        }
    }
}

int econf_supervisor_post(econf_supervisor_t *supervisor, void (*work)(void *arg), void *arg)
{
    if (!is_own(supervisor) || work == nullptr) {
        return -1;
    }
    auto *const added = static_cast<posted_work *>(malloc(sizeof(posted_work)));
    if (added == nullptr) {
        return -1;
    }
    *added = {work, arg, supervisor->posted.load()};
    while (!supervisor->posted.compare_exchange_weak(added->next, added)) {
    }
    wake_loop(supervisor->event.get());
    return 0;
}

void econf_supervisor_stop(econf_supervisor_t *supervisor)
{
    if (is_own(supervisor)) {
        supervisor->is_stopped = true;
        wake_loop(supervisor->event.get());
    }
}

const char *econf_supervisor_reason(econf_supervisor_t *supervisor)
{
    if (supervisor == nullptr) {
        return "There is no supervisor.";
    }
    switch (supervisor->state) {
    case plugin_state::waiting:
        return supervisor->exchange->explanation();
    case plugin_state::joined:
        return owns_plugin(*supervisor) ? "" : "The plugin was closed.";
    case plugin_state::kicked_off:
        return "It was kicked off.";
    default:
        return "The plugin was closed.";
    }
}

void econf_supervisor_destroy(econf_supervisor_t *supervisor)
{
    if (supervisor == nullptr) {
        return;
    }
    if (supervisor->gone != nullptr) {
        *supervisor->gone = true;
    }
    if (is_own(supervisor)) {
        leave(*supervisor);
    }
    if (g_supervisor == supervisor) {
        g_supervisor = nullptr;
        supervise(nullptr);
    }
    forget_work(supervisor->posted.exchange(nullptr));
    std::destroy_at(supervisor);
    free(supervisor);
}
