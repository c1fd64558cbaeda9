// See fake_daemon.h. Relies on the sandbox: profile and socket stand at the library's fixed paths.
#include "fake_daemon.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

namespace test {

namespace {

constexpr unsigned guard = 200; // seconds after which a test that hangs is killed
constexpr sockaddr_un address{AF_UNIX, "/var/tmp/daemon/confd.plugin.socket"};

void limit_waits(int fd)
{
    const timeval limit{60, 0};
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

} // namespace

std::string head(u32_t length, u16_t seq)
{
    const msg_head_t fields{MSG_MAGIC, length, seq, 0};
    return {reinterpret_cast<const char *>(&fields), sizeof fields};
}

std::string framed(const std::string &body, u16_t seq)
{
    return head(static_cast<u32_t>(body.size()), seq) + body;
}

std::string rpc(const std::string &method, const std::string &params, const std::string &id)
{
    return "<rpc><method>" + method + "</method>" + params + "<id>" + id + "</id></rpc>";
}

std::string reply(const std::string &content, const std::string &id)
{
    return "<reply>" + content + "<id>" + id + "</id></reply>";
}

std::string error(const std::string &code, const std::string &message)
{
    return "<error><code>" + code + "</code><message>" + message + "</message></error>";
}

Peer::Peer(int fd) : fd_(fd)
{
    limit_waits(fd);
}

bool Peer::read_more(int flags)
{
    char bytes[65536];
    ssize_t count;
    do {
        count = recv(fd(), bytes, sizeof bytes, flags);
    } while (count < 0 && errno == EINTR); // a stop of the machine ends a wait with a limit, too
    input_.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return count > 0;
}

bool Peer::cut(std::string &body)
{
    if (input_.size() < sizeof head_) {
        return false;
    }
    std::memcpy(&head_, input_.data(), sizeof head_);
    if (head_.magic != MSG_MAGIC || head_.format != 0) {
        ADD_FAILURE() << "not a message: " << std::exchange(input_, {}).substr(0, 100);
        return false;
    }
    const bool is_whole = input_.size() - sizeof head_ >= head_.length;
    if (is_whole) {
        body = input_.substr(sizeof head_, head_.length);
        input_.erase(0, sizeof head_ + head_.length);
    }
    return is_whole;
}

std::string Peer::receive()
{
    std::string body;
    while (!cut(body) && read_more(0)) {
    }
    return body;
}

strings Peer::received()
{
    while (read_more(MSG_DONTWAIT)) {
    }
    strings bodies;
    for (std::string body; cut(body);) {
        bodies.push_back(body);
    }
    return bodies;
}

std::string Peer::answer(const std::string &content)
{
    std::string request = receive();
    const std::size_t id = request.rfind("<id>") + 4;
    if (!request.empty()) {
        send(framed(reply(content, request.substr(id, request.find('<', id) - id))));
    }
    return request;
}

void Peer::send(const std::string &bytes)
{
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t step = ::send(fd(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (step < 0) {
            close();
            return;
        }
        sent += static_cast<std::size_t>(step);
    }
}

FakeDaemon::FakeDaemon()
{
    start();
}

void FakeDaemon::stop()
{
    forget_connection();
    stop_listening();
}

void FakeDaemon::start()
{
    listener_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    std::filesystem::create_directories("/dev/shm/yang_modules");
    std::filesystem::create_directories("/var/tmp/daemon");
    std::filesystem::remove(address.sun_path);
    std::ofstream("/dev/shm/yang_modules/confd.conf") << R"({"working-dir": "/var/tmp/daemon"})";
    const auto *const generic = reinterpret_cast<const sockaddr *>(&address);
    EXPECT_EQ(bind(listener_.get(), generic, sizeof address), 0) << std::strerror(errno);
    EXPECT_EQ(listen(listener_.get(), 8), 0) << std::strerror(errno);
    limit_waits(listener_.get());
}

Peer &FakeDaemon::connection()
{
    if (!peer_) {
        peer_ = std::make_unique<Peer>(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_GE(peer_->fd(), 0) << "the plugin did not connect";
    }
    return *peer_;
}

void FakeDaemon::play(Script script)
{
    thread_ = std::jthread([this, script = std::move(script)] { script(connection()); });
}

Peer &FakeDaemon::finish()
{
    thread_ = {};
    return *peer_;
}

Peer *FakeDaemon::present_connection()
{
    pollfd states[] = {{listener_.get(), POLLIN, 0},
                       {peer_ == nullptr ? -1 : peer_->fd(), POLLRDHUP, 0}};
    (void)poll(states, 2, 0);
    if (states[0].revents != 0 && states[1].revents != 0) {
        forget_connection();
    }
    return peer_ == nullptr && states[0].revents == 0 ? nullptr : &connection();
}

void FakeDaemon::forget_connection()
{
    thread_ = {};
    peer_.reset();
}

PluginFixture::PluginFixture()
{
    alarm(guard);
}

PluginFixture::~PluginFixture()
{
    end();
    del_plugin_from_hash();
    alarm(0);
}

void PluginFixture::start(econf_plugin_subpub_info_t info)
{
    daemon.play([](Peer &connection) {
        connection.answer("<result/>");
        connection.answer("<result/>");
    });
    ASSERT_GE(econf_plugin_init("demo", &info), 0);
    ASSERT_EQ(econf_plugin_activate(ACTIVATE_WITH_NONE), 0);
    peer = &daemon.finish();
    context = get_plugin_context();
    clear_debug_file();
}

void PluginFixture::end()
{
    if (get_plugin_context() != nullptr) {
        econf_plugin_close();
    }
    daemon.forget_connection();
}

std::string PluginFixture::request_of(const std::function<void()> &call, const std::string &content)
{
    std::string request;
    daemon.play([&](Peer &connection) { request = connection.answer(content); });
    call();
    peer = &daemon.finish();
    return request;
}

void PluginFixture::leave_over(std::string bytes)
{
    const int size = static_cast<int>(bytes.size());
    EXPECT_EQ(conf_buffer_append(&get_plugin_context()->recv_buf, bytes.data(), size), 0);
}

void PluginFixture::expect_idle()
{
    const conf_plugin_context_t *plugin = get_plugin_context();
    EXPECT_EQ(conf_buffer_length(plugin->send_buf), 0);
    EXPECT_EQ(plugin->send_pos, 0U);
    EXPECT_EQ(conf_buffer_length(plugin->recv_buf), 0);
}

} // namespace test
