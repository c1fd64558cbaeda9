// Commands of other programs, over a Unix socket: a line each, answered by a line of JSON.
//
// One command is carried out at a time, whoever gives it. A client that does not read its answers
// is given no more of them, and all that is kept for it is one line and one answer.
#ifndef CONFSIM_CONTROL_H
#define CONFSIM_CONTROL_H

#include "commands/commands.h"
#include "service/loop.h"

#include <list>
#include <memory>
#include <optional>
#include <string>

namespace confsim {

// The socket. It is to be opened before the sandbox is entered, so that it is seen outside.
class control_socket {
public:
    // Takes the place of a socket that nobody listens to. Throws failure.
    explicit control_socket(const std::string &path);
    ~control_socket();
    control_socket(const control_socket &) = delete;
    control_socket &operator=(const control_socket &) = delete;

    [[nodiscard]] int descriptor() const { return descriptor_; }

private:
    std::string name_;   // in the directory
    int directory_ = -1; // which has another path, or none, in the sandbox
    int descriptor_ = -1;
};

class control {
public:
    control(event_loop &loop, const console &out, const control_socket &socket,
            interpreter &commands);
    ~control();
    control(const control &) = delete;
    control &operator=(const control &) = delete;

    // Carries out what has arrived, unless a command is being carried out now. To be called after
    // each one that is not given here.
    void serve();

private:
    struct client {
        explicit client(int accepted) : descriptor(accepted) {}
        ~client();
        client(const client &) = delete;
        client &operator=(const client &) = delete;

        int descriptor;
        std::string received;
        std::string unsent;
        bool is_gone = false;
    };
    using client_ptr = std::shared_ptr<client>;

    void accept();
    void attend(const client_ptr &whom, short events);
    void watch(const client_ptr &whom);
    [[nodiscard]] bool serve_next(const client_ptr &whom);
    static void receive(client &from);
    static void flush(client &to);

    event_loop &loop_;
    const console &out_;
    const control_socket &socket_;
    interpreter &commands_;
    std::list<client_ptr> clients_;
};

} // namespace confsim

#endif
