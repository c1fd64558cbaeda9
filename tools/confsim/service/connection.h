// The frames of one plugin connection: a 12-byte header and one XML element as text.
//
// A peer cannot do harm here: what it sends is bounded, what it does not read is bounded, and bytes
// that begin no frame are skipped. Whoever goes beyond the limits is to be dropped.
#ifndef CONFSIM_CONNECTION_H
#define CONFSIM_CONNECTION_H

#include "conf_buffer.h"
#include "trace/trace.h"
#include "tree/xml.h"

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace confsim {

// The connection is of no further use; the text says why.
class broken : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class connection {
public:
    // Takes over a non-blocking stream socket.
    connection(int descriptor, const tracer &trace);
    ~connection();
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    [[nodiscard]] int descriptor() const { return descriptor_; }
    // The id of the process that connected, and the one by which it knows itself when that differs.
    [[nodiscard]] const std::string &process() const { return process_; }

    // Name of the peer in traces.
    void set_peer(std::string name) { peer_.name = std::move(name); }

    // Reads what has arrived, up to a limit, and returns the messages that are complete, with a
    // null pointer for each that is not well-formed. Throws broken, also at the end of the stream,
    // but then only after the last message was returned.
    [[nodiscard]] std::vector<xml::node_ptr> receive();

    // Queues a message and writes as much as the socket takes. All three throw broken.
    void send(xmlNode *message);
    void send_bytes(std::string_view bytes);
    void flush();
    [[nodiscard]] bool has_unsent() const { return !unsent_.empty(); }

    // Has whole frames go another way than straight to send_bytes().
    void send_through(std::function<void(std::string frame)> way) { way_ = std::move(way); }

    // Ends the connection. As with one that the peer ends, receive() says so at last, in the words
    // given here.
    void hang_up(std::string why);

private:
    struct buffer_deleter {
        void operator()(conf_buffer_t *buffer) const { conf_buffer_destroy(buffer); }
    };

    [[nodiscard]] bool read_available();
    [[nodiscard]] bool begins_with_frame();
    void skip_damage();
    [[nodiscard]] xml::node_ptr take_message();

    int descriptor_;
    std::string process_;
    traced_peer peer_;
    const tracer &trace_;
    std::unique_ptr<conf_buffer_t, buffer_deleter> received_;
    std::string unsent_;
    std::string end_ = "closed its connection";
    std::function<void(std::string)> way_;
    unsigned sequence_ = 0;
    std::size_t skipped_bytes_ = 0;
    int unreadable_messages_ = 0;
};

} // namespace confsim

#endif
