// Both sides of the works over D-Bus, for each of its libraries. Texts travel as arrays of bytes,
// because strings would be checked for UTF-8. The two sides call methods of each other; the peer
// does not wait for the reply before it calls again.
//
// `endpoint` is one end of a connection: call() and push() call a method of the other end; the
// reply is what call() returns, and is announced to answered() after push(); process() waits for
// messages, and hands calls to called(), which reply() answers.
#ifndef CONFSVC_BENCH_DBUS_PEER_H
#define CONFSVC_BENCH_DBUS_PEER_H

#include "peers.h"

namespace bench {

constexpr const char *dbus_object = "/peer";
constexpr const char *dbus_interface = "net.Peer";

template <typename endpoint>
class dbus_peer : public endpoint {
public:
    using endpoint::endpoint;
    void run()
    {
        while (this->process()) {
        }
    }

private:
    using message = typename endpoint::message;

    void called(message *call, std::string_view method, std::string_view bytes) override
    {
        if (method == "Ask") {
            (void)this->reply(call, reply_to(bytes));
        } else {
            (void)this->reply(call, {});
            burst_ = number(bytes);
            push_burst();
        }
    }
    void answered(bool good) override
    {
        if (!good) {
            _exit(0); // the measured process has gone
        }
        if (--left_ == 0) {
            push_burst();
        }
    }
    void push_burst()
    {
        for (left_ = 0; left_ < burst_; ++left_) {
            this->push("Operate", operation);
        }
    }

    std::size_t burst_ = 0;
    std::size_t left_ = 0;
};

template <typename endpoint>
class dbus_client : public endpoint {
public:
    using endpoint::endpoint;
    bool ask(const std::string &request, std::size_t size)
    {
        return is_reply(this->call("Ask", request), size);
    }
    void start(int burst) { (void)this->call("Push", std::to_string(burst)); }
    void handle(progress &operations)
    {
        operations_ = &operations;
        if (!this->process()) {
            operations.fail();
        }
    }

private:
    using message = typename endpoint::message;

    void called(message *call, std::string_view /*method*/, std::string_view bytes) override
    {
        operations_->one_handled(bytes == operation && this->reply(call, operation_reply));
    }

    progress *operations_ = nullptr;
};

} // namespace bench

#endif
