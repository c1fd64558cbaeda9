// One turn of the supervised loop: what has happened is looked at, posted work is done, the plugin
// joins or its requests are handled, and the end of the connection is noticed. See
// supervisor_internal.h.
//
// Relies on the plain calls, and on supervision.h for what the exchange does otherwise.
#include "supervisor_internal.h"

#include "conf_plugin/xml.h"
#include "support/log.h"

#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

namespace {

// The pause after a first failure when the socket has just appeared: the daemon binds it before it
// listens, and changes its permissions in between.
constexpr int appeared_pause = 1;

// Requests that one call handles: the host has other things to do.
constexpr int batch_size = 64;

} // namespace

bool watch_descriptor(const econf_supervisor_t &s, int fd, u32_t events, event_source from)
{
    epoll_event event{};
    event.events = events;
    event.data.u32 = from;
    return epoll_ctl(s.epoll.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

void arm_timer(const econf_supervisor_t &s, int milliseconds)
{
    itimerspec when{};
    when.it_value.tv_sec = milliseconds / 1000;
    when.it_value.tv_nsec = milliseconds % 1000 * 1000000L;
    if (milliseconds == 0) {
        when.it_value.tv_nsec = 1;
    }
    if (milliseconds < 0) {
        when = {};
    }
    (void)timerfd_settime(s.timer.get(), 0, &when, nullptr);
}

bool owns_plugin(const econf_supervisor_t &s)
{
    return s.sock >= 0 && s.exchange->owns_context();
}

// The socket leaves the epoll instance first: where a child of fork() holds it open, closing it
// alone would leave it there.
void leave(econf_supervisor_t &s)
{
    if (owns_plugin(s)) {
        (void)epoll_ctl(s.epoll.get(), EPOLL_CTL_DEL, s.sock, nullptr);
        econf_plugin_close();
    }
    s.sock = -1;
    s.exchange->drop_kept();
}

namespace {

// The pause before the next attempt, at most a half of it cut off.
int next_pause(econf_supervisor_t &s)
{
    const int pause = s.pause;
    const int most = s.options.retry_most;
    s.pause = pause > most / 2 ? most : pause * 2;
    s.random = s.random * 1103515245U + 12345U;
    return pause - static_cast<int>((s.random >> 16U) % (static_cast<u32_t>(pause) / 2 + 1));
}

// ---- the connection ----------------------------------------------------------------------------

// Watches the socket for what can be handled: an inactive plugin takes no requests, and one whose
// replies do not go out takes no more.
void watch_socket_for(econf_supervisor_t &s, bool takes_requests, bool has_unsent)
{
    epoll_event event{};
    event.events = EPOLLRDHUP;
    event.events |= takes_requests ? EPOLLIN : u32_t{0};
    event.events |= has_unsent ? EPOLLOUT : u32_t{0};
    event.data.u32 = from_socket;
    s.exchange->wake_always(!takes_requests);
    if (event.events != s.socket_mask) {
        s.socket_mask = event.events;
        (void)epoll_ctl(s.epoll.get(), EPOLL_CTL_MOD, s.sock, &event);
    }
}

// Connects, registers and activates. On failure there is no plugin, and the supervision holds the
// reason.
bool join(econf_supervisor_t &s)
{
    supervision &exchange = *s.exchange;
    exchange.begin_joining(s.options.join_limit);
    if (get_plugin_context() != nullptr) {
        exchange.explain("The process has a plugin of its own.");
        exchange.end_joining();
        return false;
    }
    s.sock = econf_plugin_init(s.name, &s.info);
    const bool is_joined = s.sock >= 0 && econf_plugin_activate(s.options.start_mode) == 0;
    exchange.end_joining();
    s.socket_mask = EPOLLIN | EPOLLRDHUP;
    if (is_joined && watch_descriptor(s, s.sock, s.socket_mask, from_socket)) {
        return true;
    }
    if (exchange.explanation()[0] == '\0') {
        exchange.explain("Not registered, see the debug file.");
    }
    leave(s);
    return false;
}

// Without a watch the pauses between attempts have to do.
void watch_directories(econf_supervisor_t &s)
{
    if (s.watch.fd() < 0 && s.watch.open()) {
        (void)watch_descriptor(s, s.watch.fd(), EPOLLIN, from_watch);
    }
    s.watch.begin();
}

// Tries to join, with the directories watched from before the attempt on.
void attempt(econf_supervisor_t &s, const bool &gone)
{
    (void)conf_load_config(nullptr);
    watch_directories(s);
    s.joined_to = present_socket();
    if (!join(s)) {
        arm_timer(s, next_pause(s));
        return;
    }
    s.watch.end();
    arm_timer(s, -1);
    s.state = plugin_state::joined;
    s.joined_at = monotonic_time();
    if (s.options.joined != nullptr) {
        s.options.joined(s.options.user);
    }
    if (!gone && !owns_plugin(s)) {
        s.state = plugin_state::closed;
    }
}

// The daemon has gone. A socket that is another one by now belongs to the next daemon; otherwise
// the pause begins anew only after a connection that was longer than it.
void lose(econf_supervisor_t &s)
{
    leave(s);
    s.state = plugin_state::waiting;
    s.exchange->explain("The daemon has closed the connection.");
    watch_directories(s);
    const socket_identity now = present_socket();
    if (now.is_there && !(now == s.joined_to)) {
        s.pause = appeared_pause;
        arm_timer(s, 0);
    } else if (monotonic_time() - s.joined_at > s.pause) {
        s.pause = s.options.retry_first;
        arm_timer(s, 0);
    } else {
        arm_timer(s, next_pause(s));
    }
    if (s.options.lost != nullptr) {
        s.options.lost(s.options.user, s.exchange->explanation());
    }
}

// Handles the next request, the kept ones first; false when there is none.
bool handle_next(econf_supervisor_t &s, conf_plugin_data *plugin)
{
    const loop_scope scope;
    clear_error(plugin->plugin_ctxt); // one recorded outside of a request is no answer to this one
    if (s.exchange->has_kept()) {
        const wiped_node rpc(s.exchange->take_kept());
        handle_request(plugin, rpc.get());
        return true;
    }
    bool_t ready = false;
    if (_recv_message(plugin, &ready) != 0 || !ready) {
        return false;
    }
    const wiped_node rpc(plugin_parse_message(&plugin->plugin_ctxt->recv_buf));
    handle_request(plugin, rpc.get());
    return true;
}

// Sends what waits, handles requests as long as their replies go out, and looks for the end of the
// connection behind them.
void serve(econf_supervisor_t &s, u32_t socket_events, const bool &gone)
{
    conf_plugin_data *const plugin = get_plugin_from_hash();
    const conf_plugin_context_t *const ctxt = plugin->plugin_ctxt;
    (void)send_at_once(plugin);
    int left = batch_size;
    while (left > 0 && is_active(plugin) && unsent(ctxt) == 0 && handle_next(s, plugin)) {
        if (gone || s.state != plugin_state::joined || s.is_stopped) {
            return;
        }
        if (!owns_plugin(s)) {
            s.state = plugin_state::closed;
            return;
        }
        --left;
    }
    if (left == 0) {
        wake_loop(s.event.get());
    } else if ((socket_events & (EPOLLERR | EPOLLHUP | EPOLLRDHUP)) != 0) {
        lose(s);
        return;
    }
    watch_socket_for(s, is_active(plugin) && unsent(ctxt) == 0, unsent(ctxt) > 0);
}

// ---- one turn ----------------------------------------------------------------------------------

bool is_over(econf_supervisor_t &s)
{
    if (s.state == plugin_state::joined && !owns_plugin(s)) {
        s.state = plugin_state::closed;
    }
    return s.is_stopped || s.state == plugin_state::kicked_off || s.state == plugin_state::closed;
}

// What has happened: bits of `event_source`, and the events of the socket. False with a log when
// the descriptor does not work.
bool look(const econf_supervisor_t &s, u32_t &happened, u32_t &socket_events)
{
    epoll_event events[4];
    const int count = epoll_wait(s.epoll.get(), events, 4, 0);
    for (int i = 0; i < count; ++i) {
        happened |= events[i].data.u32;
        if (events[i].data.u32 == from_socket) {
            socket_events = events[i].events;
        }
    }
    if (count < 0 && errno != EINTR) {
        LOG_FILE_ERROR("Wait of the supervisor failed(%s).", std::strerror(errno));
        return false;
    }
    return true;
}

} // namespace

int take_turn(econf_supervisor_t &s, const bool &gone)
{
    u32_t happened = 0;
    u32_t socket_events = 0;
    if (!look(s, happened, socket_events)) {
        return -1;
    }
    if ((happened & from_event) != 0) {
        eventfd_t count = 0;
        (void)eventfd_read(s.event.get(), &count);
        do_posted(s, gone);
    }
    if (gone || is_over(s)) {
        return 0;
    }
    if (s.state == plugin_state::waiting) {
        const bool appeared = (happened & from_watch) != 0 && s.watch.has_news();
        s.pause = appeared ? appeared_pause : s.pause;
        if (appeared || (happened & from_timer) != 0) {
            attempt(s, gone);
        }
    }
    if (!gone && s.state == plugin_state::joined && !is_over(s)) {
        serve(s, socket_events, gone);
    }
    return gone || is_over(s) ? 0 : 1;
}
