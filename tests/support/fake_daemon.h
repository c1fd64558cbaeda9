// The daemon's end of a plugin's stream, played by a test.
//
// A script runs on a thread of its own while the test is inside a call that blocks. Between such
// calls the test drives the connection itself: it sends, runs the plugin's loop and looks at what
// has been received. Nothing here uses the library but its owner of descriptors: frames and
// envelopes are made by hand.
#ifndef CONFSVC_TEST_FAKE_DAEMON_H
#define CONFSVC_TEST_FAKE_DAEMON_H

#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/xml.h"
#include "test_support.h"

#include <functional>
#include <thread>

namespace test {

// The head of a message, a message, and the two kinds of body.
std::string head(u32_t length, u16_t seq = 0);
std::string framed(const std::string &body, u16_t seq = 0);
std::string rpc(const std::string &method, const std::string &params, const std::string &id);
std::string reply(const std::string &content, const std::string &id);
std::string error(const std::string &code, const std::string &message);

inline const std::string default_error = "Service process failed.";

// One connection.
class Peer {
public:
    explicit Peer(int fd);

    // Waits for the next message and returns its body; empty at the end of the stream, and after a
    // minute.
    std::string receive();
    // The bodies of the messages that have arrived by now.
    strings received();
    // Receives a request, which is returned, and sends the reply that holds `content` and its id.
    std::string answer(const std::string &content);
    void send(const std::string &bytes);
    // Without reading first, so bytes that have not been read reset the connection.
    void close() { fd_.reset(); }

    [[nodiscard]] int fd() const { return fd_.get(); }
    [[nodiscard]] const msg_head_t &head() const { return head_; } // of the last message received

private:
    bool read_more(int flags);
    bool cut(std::string &body);

    support::unique_fd fd_;
    std::string input_;
    msg_head_t head_{};
};

class FakeDaemon {
public:
    using Script = std::function<void(Peer &)>;

    FakeDaemon(); // listens where the profile says

    // Ends listening and connection, as a death does: the file of the socket stays. And begins anew
    // at a new socket.
    void stop();
    void start();
    void stop_listening() { listener_.reset(); }

    // Begins the script with the present connection, or else with the next one.
    void play(Script script);
    // Waits for the end of the script; the connection stays open unless the script closed it.
    Peer &finish();
    // The present connection, or else the next one.
    Peer &connection();
    // Without waiting: null when there is none. The next one takes the place of one that the plugin
    // has closed.
    Peer *present_connection();
    void forget_connection();

private:
    support::unique_fd listener_;
    std::unique_ptr<Peer> peer_;
    std::jthread thread_; // joined when it is replaced
};

// Base of the tests of a plugin, named "demo", that talks to a fake daemon.
class PluginFixture : public Fixture {
protected:
    PluginFixture();
    ~PluginFixture() override;

    // Registers and activates, and leaves the debug file empty.
    void start(econf_plugin_subpub_info_t info = {});
    // Ends the plugin, if it has not ended itself, and its connection.
    void end();
    // The request that `call` sends, and that the daemon answers with `content`.
    std::string request_of(const std::function<void()> &call,
                           const std::string &content = "<result/>");
    // Puts bytes into the plugin's receive buffer.
    static void leave_over(std::string bytes);
    // Checks that nothing waits in the plugin's buffers.
    static void expect_idle();

    FakeDaemon daemon;
    Peer *peer = nullptr;                     // after start(), as is the next
    conf_plugin_context_t *context = nullptr; // of the last start
};

} // namespace test

#endif
