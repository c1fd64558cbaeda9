// ZeroMQ between two sockets of the file system: request and reply, and a pair for what is pushed.
// Each side has a thread of the library for its connection, on the same processor. The peer ends
// when it is sent an empty message.
#include "peers.h"

#include <zmq.hpp>

namespace {

bool send(zmq::socket_t &over, std::string_view bytes)
{
    return over.send(zmq::buffer(bytes)).has_value();
}

std::string_view receive(zmq::socket_t &over, zmq::message_t &into)
{
    (void)over.recv(into);
    return into.to_string_view();
}

void serve(zmq::socket_t &client)
{
    zmq::message_t received;
    for (std::string_view text; !(text = receive(client, received)).empty();) {
        (void)send(client, bench::reply_to(text));
    }
}

void push(zmq::socket_t &client)
{
    zmq::message_t received;
    const std::size_t burst = bench::number(receive(client, received));
    for (;;) {
        for (std::size_t i = 0; i < burst; ++i) {
            (void)send(client, bench::operation);
        }
        for (std::size_t i = 0; i < burst; ++i) {
            if (receive(client, received).empty()) {
                return;
            }
        }
    }
}

// The peer is forked before this process has a socket, hence threads of the library.
class connection {
public:
    connection(zmq::socket_type kind, zmq::socket_type peer_kind, void (*peer)(zmq::socket_t &))
    {
        const std::string address = "ipc://" + bench::fresh_path();
        (void)bench::started([&](int ready) {
            zmq::context_t context;
            zmq::socket_t sock(context, peer_kind);
            sock.bind(address);
            (void)bench::send_all(ready, address);
            peer(sock);
        });
        sock_ = zmq::socket_t(context_, kind);
        sock_.connect(address);
    }
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;
    ~connection() { (void)send(sock_, {}); }

protected:
    zmq::context_t context_;
    zmq::socket_t sock_;
    zmq::message_t received_;
};

struct asker : connection {
    asker() : connection(zmq::socket_type::req, zmq::socket_type::rep, serve) {}
    bool ask(const std::string &request, std::size_t size)
    {
        return send(sock_, request) && bench::is_reply(receive(sock_, received_), size);
    }
};

struct handler : connection {
    handler() : connection(zmq::socket_type::pair, zmq::socket_type::pair, push) {}
    void start(int burst) { (void)send(sock_, std::to_string(burst)); }
    void handle(bench::progress &operations)
    {
        operations.one_handled(receive(sock_, received_) == bench::operation &&
                               send(sock_, bench::operation_reply));
    }
};

} // namespace

int main(int count, char **arguments)
try {
    bench::prepare();
    bench::add_peer<asker, handler>("zeromq");
    return bench::run(count, arguments);
} catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
