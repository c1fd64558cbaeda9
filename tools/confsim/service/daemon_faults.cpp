// What the daemon does wrong on order. See daemon.h.
#include "conf_plugin.h"
#include "service/daemon.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace confsim {

namespace {

constexpr std::string_view filler = "<room-that-is-taken/>";

// Sends one datagram after the other until there is no room. Returns how many there was room for.
int send_fillers()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(g_conf_notifier_socket).copy(address.sun_path, sizeof address.sun_path - 1);
    const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int count = 0;
    while (sendto(sender, filler.data(), filler.size(), MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr *>(&address), sizeof address) >= 0) {
        ++count;
    }
    close(sender);
    return count;
}

} // namespace

// Frames to a plugin pass where faults can meet them.
plugin_ptr conf_daemon::make_plugin(int descriptor)
{
    auto made = std::make_shared<plugin>(descriptor, trace_, loop_, patience_);
    made->serial = ++last_serial_;
    made->watcher = watcher_;
    const std::weak_ptr<plugin> known = made;
    const auto next_fault = [this, known]() -> std::optional<fault> {
        const plugin_ptr to = known.lock();
        std::optional<fault> met = to == nullptr ? std::nullopt : faults_.for_frame(to->name);
        if (met) {
            to->note_fault(met->what != fault::kind::delay && met->what != fault::kind::split);
            out_.event("fault: the frame to " + to->called() + ": " + in_words(*met));
        }
        return met;
    };
    const auto talk = [this, known](const std::function<void()> &act) {
        if (const plugin_ptr to = known.lock()) {
            plugins_.talk_to(to, act);
        }
    };
    made->line = std::make_unique<faulty_line>(made->stream, loop_,
                                               faulty_line::surroundings{next_fault, talk});
    return made;
}

// Returns whether a fault was ordered for this request, which is then taken care of.
bool conf_daemon::misbehave(const plugin_ptr &from, const std::string &name,
                            const std::string &method, xml::node_ptr &message)
{
    const std::optional<fault> met = faults_.for_request(name, method);
    if (!met) {
        return false;
    }
    from->note_fault(false);
    out_.event("fault: the request of " + name + ": " + in_words(*met));
    if (met->what == fault::kind::refuse) {
        reply(from, message.get(), error_element(met->code, met->text));
    } else if (met->what == fault::kind::late) {
        const std::shared_ptr<xmlNode> kept(message.release(), xmlFreeNode);
        (void)loop_.start_timer(seconds(met->seconds),
                                [this, kept, known = std::weak_ptr<plugin>(from)] {
                                    if (const plugin_ptr alive = known.lock()) {
                                        plugins_.talk_to(alive, [&] { serve(alive, kept.get()); });
                                    }
                                });
    }
    return true;
}

void conf_daemon::hang_up(const plugin_ptr &whom)
{
    faults_.note(whom->name, "kill");
    plugins_.talk_to(whom, [&] { whom->stream.hang_up("was hung up on, as ordered"); });
}

void conf_daemon::restart(seconds away)
{
    faults_.note("", "restart");
    plugins_.stop("lost confsim, which starts anew");
    agents_.stop();
    loop_.forget(where_.notifier_socket());
    is_notifier_full_ = false;
    where_.close();
    (void)loop_.run_until([] { return false; }, after(away));
    where_.open();
    plugins_.go_on(where_.plugin_socket());
    agents_.go_on(where_.agent_socket());
    watch_notifier();
}

// What waits already is received before. Each sender has room for some datagrams only, so there is
// one after the other.
void conf_daemon::set_notifier_full(bool full)
{
    if (std::exchange(is_notifier_full_, full) == full) {
        return;
    }
    if (!full) {
        watch_notifier();
        return;
    }
    faults_.note("", "full");
    while (receive_notification()) {
    }
    loop_.forget(where_.notifier_socket());
    while (send_fillers() > 0) {
    }
}

bool conf_daemon::is_filler(const std::string &notification)
{
    return notification == filler;
}

} // namespace confsim
