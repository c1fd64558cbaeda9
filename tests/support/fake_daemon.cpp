// See fake_daemon.h. Relies on the sandbox: profile and socket stand at the library's fixed paths.
#include "fake_daemon.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace test {

namespace {

constexpr int wait_limit = 60000; // milliseconds; only a failing test waits that long
constexpr unsigned guard = 200;   // seconds after which a test that hangs is killed
constexpr const char *directory = "/var/tmp/daemon";
constexpr const char *socket_path = "/var/tmp/daemon/confd.plugin.socket";

bool readable(int fd, int milliseconds)
{
    pollfd events{fd, POLLIN, 0};
    return poll(&events, 1, milliseconds) == 1;
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
    if (fd_ < 0) {
        return false;
    }
    if (wait && !readable(fd_, wait_limit)) {
        ADD_FAILURE() << "the plugin sent nothing";
        return false;
    }
    std::string bytes(read_size, '\0');
    const ssize_t count = recv(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT);
    input_.append(bytes, 0, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return count > 0;
}

bool Peer::cut(std::string &body)
{
    if (input_.size() < sizeof head_) {
        return false;
    }
    std::memcpy(&head_, input_.data(), sizeof head_);
    if (head_.magic != MSG_MAGIC || head_.format != 0) {
        ADD_FAILURE() << "not a message: " << input_.substr(0, 100);
        input_.clear();
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
    while (!cut(body)) {
        if (!read_more(true)) {
            return {};
        }
    }
    return body;
}

std::vector<std::string> Peer::received()
{
    while (read_more(false)) {
    }
    std::vector<std::string> bodies;
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
    const std::size_t count = std::min(bytes.size(), rest_.value_or(bytes.size()));
    for (std::size_t sent = 0; sent < count && fd_ >= 0;) {
        const ssize_t step = ::send(fd_, bytes.data() + sent, count - sent, MSG_NOSIGNAL);
        if (step < 0) {
            close();
            return;
        }
        sent += static_cast<std::size_t>(step);
    }
    if (rest_ && (*rest_ -= count) == 0) {
        close();
    }
}

void Peer::close()
{
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

void interrupt_wait()
{
    static std::atomic<int> handled = 0;
    const auto former = std::signal(SIGUSR1, [](int) { ++handled; });
    for (std::string id, name, condition; condition != "S";) {
        std::ifstream("/proc/self/task/" + std::to_string(getpid()) + "/stat") >> id >> name >>
            condition;
    }
    const int before = handled;
    kill(getpid(), SIGUSR1);
    while (handled == before) {
        std::this_thread::yield();
    }
    std::signal(SIGUSR1, former);
}

FakeDaemon::FakeDaemon() : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    std::filesystem::create_directories("/dev/shm/yang_modules");
    std::filesystem::create_directories(directory);
    std::filesystem::remove(socket_path);
    std::ofstream("/dev/shm/yang_modules/confd.conf")
        << R"({"working-dir": ")" << directory << R"("})";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(socket_path).copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener_, 8) != 0) {
        ADD_FAILURE() << "no socket for the fake daemon: " << std::strerror(errno);
    }
}

FakeDaemon::~FakeDaemon()
{
    forget_connection();
    ::close(listener_);
    std::filesystem::remove(socket_path);
}

void FakeDaemon::accept_connection()
{
    const int fd =
        readable(listener_, wait_limit) ? accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    EXPECT_GE(fd, 0) << "the plugin did not connect";
    peer_ = std::make_unique<Peer>(fd);
}

Peer &FakeDaemon::connection()
{
    if (!peer_) {
        accept_connection();
    }
    return *peer_;
}

void FakeDaemon::play(Script script)
{
    if (thread_.joinable()) {
        thread_.join();
    }
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before); // signals are for the plugin
    thread_ = std::thread([this, script = std::move(script)] { script(connection()); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

Peer &FakeDaemon::finish()
{
    if (thread_.joinable()) {
        thread_.join();
    }
    return *peer_;
}

void FakeDaemon::forget_connection()
{
    if (thread_.joinable()) {
        thread_.join();
    }
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
    if (get_plugin_context() != nullptr) {
        econf_plugin_close();
    }
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
    clear_debug_file();
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
    if (!bytes.empty()) {
        ASSERT_EQ(conf_buffer_append(&get_plugin_context()->recv_buf, bytes.data(),
                                     static_cast<int>(bytes.size())),
                  0);
    }
}

} // namespace test
