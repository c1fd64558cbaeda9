// The connections that one listening socket has accepted. A peer is any class with a member
// `stream` of type connection, made from a descriptor.
#ifndef CONFSIM_SERVER_H
#define CONFSIM_SERVER_H

#include "service/connection.h"
#include "service/loop.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace confsim {

template <typename peer>
class server {
public:
    using peer_ptr = std::shared_ptr<peer>;

    struct behaviour {
        std::function<peer_ptr(int descriptor)> made;
        std::function<void(const peer_ptr &, xml::node_ptr)> received; // may throw broken
        std::function<void(const peer_ptr &, const std::string &why)> gone;
        std::function<void(const std::string &why)> closed; // no more peers come in for now
    };

    server(event_loop &loop, int listener, std::size_t most, behaviour act)
        : loop_(loop), most_(most), act_(std::move(act))
    {
        go_on(listener);
    }
    ~server()
    {
        loop_.forget(listener_);
        end_pause();
        for (const peer_ptr &each : peers_) {
            loop_.forget(each->stream.descriptor());
        }
    }
    server(const server &) = delete;
    server &operator=(const server &) = delete;

    // Hangs up on all peers, and accepts no more until it goes on with another socket.
    void stop(const std::string &why)
    {
        loop_.forget(std::exchange(listener_, -1));
        end_pause();
        for (const peer_ptr &each : std::exchange(peers_, {})) {
            loop_.forget(each->stream.descriptor());
            act_.gone(each, why);
        }
    }
    void go_on(int listener)
    {
        listener_ = listener;
        loop_.watch(listener_, POLLIN, [this](short) { accept(); });
    }

    [[nodiscard]] const std::list<peer_ptr> &peers() const { return peers_; }

    // Does something that sends to the peer, which is dropped when that throws broken.
    template <typename action>
    void talk_to(peer_ptr to, action act) // a copy, as the peer may leave the list
    {
        try {
            act();
            const short unsent = to->stream.has_unsent() ? POLLOUT : 0;
            loop_.change(to->stream.descriptor(), static_cast<short>(POLLIN | unsent));
        } catch (const broken &reason) {
            loop_.forget(to->stream.descriptor());
            peers_.remove(to);
            act_.gone(to, reason.what());
        }
    }

private:
    void accept()
    {
        const int accepted = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (accepted < 0) {
            const bool has_gone_again = errno == EAGAIN || errno == ECONNABORTED;
            if (!has_gone_again && errno != EINTR) {
                report(std::strerror(errno));
                pause();
            }
            return;
        }
        if (peers_.size() >= most_) {
            close(accepted);
            report("there are " + std::to_string(most_));
            return;
        }
        is_reported_ = false;
        peers_.push_back(act_.made(accepted));
        loop_.watch(accepted, POLLIN, [this, from = std::weak_ptr(peers_.back())](short events) {
            if (const peer_ptr alive = from.lock()) {
                talk_to(alive, [&] { serve(alive, events); });
            }
        });
    }

    void report(const std::string &why)
    {
        if (!std::exchange(is_reported_, true)) {
            act_.closed(why);
        }
    }

    // Who cannot be accepted stays in the queue, and would be announced again and again.
    void pause()
    {
        loop_.change(listener_, 0);
        pause_ = loop_.start_timer(seconds(0.5), [this] {
            pause_.reset();
            loop_.change(listener_, POLLIN);
        });
    }

    void end_pause()
    {
        if (pause_) {
            loop_.stop_timer(*pause_);
            pause_.reset();
        }
    }

    void serve(const peer_ptr &from, short events)
    {
        if ((events & POLLOUT) != 0) {
            from->stream.flush();
        }
        if ((events & ~POLLOUT) != 0) {
            for (xml::node_ptr &message : from->stream.receive()) {
                act_.received(from, std::move(message));
            }
        }
    }

    event_loop &loop_;
    int listener_ = -1;
    std::size_t most_;
    behaviour act_;
    std::list<peer_ptr> peers_;
    bool is_reported_ = false; // that no more come in, since one came in
    std::optional<event_loop::timer> pause_;
};

} // namespace confsim

#endif
