// See fake_daemon.h. Relies on the sandbox: profile and socket stand at the library's fixed paths.
#include "fake_daemon.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace test {

namespace {

constexpr int wait_limit = 60000; // milliseconds; only a failing test waits that long
constexpr unsigned guard = 200;   // seconds after which a test that hangs is killed
constexpr sockaddr_un address{AF_UNIX, "/var/tmp/daemon/confd.plugin.socket"};

bool readable(int fd)
{
    pollfd events{fd, POLLIN, 0};
    return poll(&events, 1, wait_limit) == 1;
}

} // namespace

std::string framed(const std::string &body, u16_t seq)
{
    const msg_head_t head{MSG_MAGIC, static_cast<u32_t>(body.size()), seq, 0};
    return std::string(reinterpret_cast<const char *>(&head), sizeof head) + body;
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

bool Peer::read_more(bool wait)
{
    if (wait && fd_ >= 0 && !readable(fd_)) {
        ADD_FAILURE() << "the plugin sent nothing";
        return false;
    }
    char bytes[65536];
    const ssize_t count = fd_ < 0 ? -1 : recv(fd_, bytes, sizeof bytes, MSG_DONTWAIT);
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
    if (input_.size() - sizeof head_ < head_.length) {
        return false;
    }
    body = input_.substr(sizeof head_, head_.length);
    input_.erase(0, sizeof head_ + head_.length);
    return true;
}

std::string Peer::receive()
{
    std::string body;
    while (!cut(body) && read_more(true)) {
    }
    return body;
}

strings Peer::received()
{
    while (read_more(false)) {
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
    for (std::size_t sent = 0; sent < bytes.size() && fd_ >= 0;) {
        const ssize_t step = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        sent += static_cast<std::size_t>(std::max<ssize_t>(step, 0));
        if (step < 0) {
            close();
        }
    }
}

void Peer::close()
{
    if (fd_ >= 0) {
        ::close(std::exchange(fd_, -1));
    }
}

FakeDaemon::FakeDaemon() : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    std::filesystem::create_directories("/dev/shm/yang_modules");
    std::filesystem::create_directories("/var/tmp/daemon");
    std::filesystem::remove(address.sun_path);
    std::ofstream("/dev/shm/yang_modules/confd.conf") << R"({"working-dir": "/var/tmp/daemon"})";
    if (bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener_, 8) != 0) {
        ADD_FAILURE() << "no socket for the fake daemon: " << std::strerror(errno);
    }
}

FakeDaemon::~FakeDaemon()
{
    forget_connection();
    ::close(listener_);
    std::filesystem::remove(address.sun_path);
}

Peer &FakeDaemon::connection()
{
    if (!peer_) {
        const int fd =
            readable(listener_) ? accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        EXPECT_GE(fd, 0) << "the plugin did not connect";
        peer_ = std::make_unique<Peer>(fd);
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

void FakeDaemon::forget_connection()
{
    thread_ = {};
    peer_.reset();
}

void PluginFixture::SetUp()
{
    Fixture::SetUp();
    alarm(guard);
    daemon = std::make_unique<FakeDaemon>();
}

void PluginFixture::TearDown()
{
    end();
    del_plugin_from_hash();
    daemon.reset();
    alarm(0);
    Fixture::TearDown();
}

void PluginFixture::start(econf_plugin_subpub_info_t info)
{
    daemon->play([](Peer &connection) {
        connection.answer("<result/>");
        connection.answer("<result/>");
    });
    ASSERT_GE(econf_plugin_init("demo", &info), 0);
    ASSERT_EQ(econf_plugin_activate(ACTIVATE_WITH_NONE), 0);
    peer = &daemon->finish();
    context = get_plugin_context();
    clear_debug_file();
}

void PluginFixture::end()
{
    if (get_plugin_context() != nullptr) {
        econf_plugin_close();
    }
    if (daemon) {
        daemon->forget_connection();
    }
}

std::string PluginFixture::request_of(const std::function<void()> &call, const std::string &content)
{
    std::string request;
    daemon->play([&](Peer &connection) { request = connection.answer(content); });
    call();
    peer = &daemon->finish();
    return request;
}

void PluginFixture::leave_over(std::string bytes)
{
    const int size = static_cast<int>(bytes.size());
    conf_buffer_t **const buffer = &get_plugin_context()->recv_buf;
    EXPECT_TRUE(bytes.empty() || conf_buffer_append(buffer, bytes.data(), size) == 0);
}

void PluginFixture::expect_idle()
{
    const conf_plugin_context_t *plugin = get_plugin_context();
    EXPECT_EQ(conf_buffer_length(plugin->send_buf), 0);
    EXPECT_EQ(plugin->send_pos, 0U);
    EXPECT_EQ(conf_buffer_length(plugin->recv_buf), 0);
}

} // namespace test
