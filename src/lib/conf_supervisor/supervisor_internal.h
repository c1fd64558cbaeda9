// The supervisor as its two sources know it: supervisor.cpp makes and releases it and does what the
// host asks for; turn.cpp is the work of one econf_supervisor_process().
//
// The host sees one descriptor, an epoll instance. It holds the plugin's socket while there is one,
// the watch for the socket's appearance while there is none, a timer for the next attempt to join,
// and an event for posted work, for a stop, and for all that is left to do without news from
// another descriptor.
//
// Every callback may destroy the supervisor. So what calls one has a `gone` at hand, which tells
// afterwards whether the object may still be touched.
#ifndef CONF_SUPERVISOR_INTERNAL_H
#define CONF_SUPERVISOR_INTERNAL_H

#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/supervision.h"
#include "conf_supervisor.h"
#include "watch.h"

#include <atomic>
#include <cstdlib>
#include <memory>
#include <optional>
#include <unistd.h>

// Which descriptor an event belongs to; bits, for several at once.
enum event_source : u32_t { from_socket = 1, from_watch = 2, from_timer = 4, from_event = 8 };

struct posted_work {
    void (*work)(void *arg);
    void *arg;
    posted_work *next;
};

enum class plugin_state { waiting, joined, kicked_off, closed };

struct _econf_supervisor {
    explicit _econf_supervisor(const econf_supervisor_options_t &given) : options(given) {}

    econf_supervisor_options_t options; // without zeros where they mean a default
    econf_plugin_subpub_info_t info{};  // its kick-off is turn.cpp's
    void (*kick_off)() = nullptr;       // the host's
    const char *name = nullptr;
    pid_t process = getpid();

    support::unique_fd epoll;
    support::unique_fd event;
    support::unique_fd timer;
    socket_watch watch; // has watches while waiting
    std::optional<supervision> exchange;

    plugin_state state = plugin_state::waiting;
    int sock = -1;         // of the plugin
    u32_t socket_mask = 0; // what it is watched for
    socket_identity joined_to{};
    long long joined_at = 0;
    int pause = 0; // before the next attempt but one
    u32_t random = static_cast<u32_t>(monotonic_time()) ^ static_cast<u32_t>(getpid()) << 16U;

    std::atomic<bool> is_stopped = false;
    std::atomic<posted_work *> posted = nullptr; // the last one first
    bool *gone = nullptr;                        // inside of econf_supervisor_process()
};

// ---- turn.cpp ----------------------------------------------------------------------------------

// Adds a descriptor to the epoll instance.
[[nodiscard]] bool watch_descriptor(const econf_supervisor_t &s, int fd, u32_t events,
                                    event_source from);

// Has the timer fire after that many milliseconds; never for a negative number.
void arm_timer(const econf_supervisor_t &s, int milliseconds);

// Whether the plugin that was joined is still there: a callback may have closed it.
[[nodiscard]] bool owns_plugin(const econf_supervisor_t &s);

// Ends the connection, if there is one.
void leave(econf_supervisor_t &s);

// Does what there is to do; the result of econf_supervisor_process(). `gone` becomes true when the
// supervisor is destroyed meanwhile.
[[nodiscard]] int take_turn(econf_supervisor_t &s, const bool &gone);

// ---- supervisor.cpp ----------------------------------------------------------------------------

// The kick-off that is registered for the plugin.
void note_kick_off();

// Calls the posted work in order, until the supervisor is stopped or gone.
void do_posted(econf_supervisor_t &s, const bool &gone);

#endif
