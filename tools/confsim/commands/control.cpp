// See control.h.
#include "commands/control.h"

#include "failure.h"
#include "service/endpoints.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace confsim {

namespace {

constexpr std::size_t most_clients = 64;
constexpr std::size_t longest_line = std::size_t{64} * 1024 * 1024; // holds all that XML may
constexpr int waiting_clients = 16;

[[noreturn]] void fail(const std::string &file, const std::string &why)
{
    throw failure("cannot open the control socket " + file + ": " + why);
}

bool has_line(const std::string &received)
{
    return received.find('\n') != std::string::npos;
}

} // namespace

control_socket::control_socket(const std::string &file)
{
    const std::filesystem::path given(file);
    const std::string parent = given.parent_path().empty() ? "." : given.parent_path().string();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (file.size() >= sizeof address.sun_path) {
        fail(file, "the name is too long");
    }
    file.copy(address.sun_path, file.size());
    struct stat found {};
    if (lstat(file.c_str(), &found) == 0) {
        if (!S_ISSOCK(found.st_mode) || somebody_listens(file)) {
            fail(file, S_ISSOCK(found.st_mode) ? "it is in use" : "there is another file");
        }
        unlink(file.c_str());
    }
    directory_ = open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    descriptor_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const mode_t others = umask(0177); // whoever connects can do whatever this user can
    const bool is_bound =
        bind(descriptor_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    const int error = errno;
    umask(others);
    if (!is_bound || directory_ < 0 || listen(descriptor_, waiting_clients) != 0) {
        const std::string why = std::generic_category().message(error);
        close(descriptor_);
        close(directory_);
        fail(file, why);
    }
    name_ = given.filename().string();
}

control_socket::~control_socket()
{
    unlinkat(directory_, name_.c_str(), 0);
    close(descriptor_);
    close(directory_);
}

control::client::~client()
{
    close(descriptor);
}

control::control(event_loop &loop, const console &out, const control_socket &socket,
                 interpreter &commands)
    : loop_(loop), out_(out), socket_(socket), commands_(commands)
{
    loop_.watch(socket_.descriptor(), POLLIN, [this](short) { accept(); });
}

control::~control()
{
    loop_.forget(socket_.descriptor());
    for (const client_ptr &each : clients_) {
        loop_.forget(each->descriptor);
    }
}

void control::accept()
{
    const int accepted =
        accept4(socket_.descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (accepted < 0) {
        return;
    }
    if (clients_.size() >= most_clients) {
        close(accepted);
        return;
    }
    clients_.push_back(std::make_shared<client>(accepted));
    watch(clients_.back());
}

// Waits for what is of use next: room for the answer, or a line as long as none is there. A client
// whose turn has not come is not looked at, or the end of its stream would wake the loop again and
// again.
void control::watch(const client_ptr &whom)
{
    loop_.forget(whom->descriptor);
    if (whom->is_gone) {
        clients_.remove(whom);
        return;
    }
    const bool sends = !whom->unsent.empty();
    if (sends || !has_line(whom->received)) {
        loop_.watch(whom->descriptor, static_cast<short>(sends ? POLLOUT : POLLIN),
                    [this, held = std::weak_ptr(whom)](short events) {
                        if (const client_ptr alive = held.lock()) {
                            attend(alive, events);
                        }
                    });
    }
}

void control::attend(const client_ptr &whom, short events)
{
    if ((events & POLLOUT) != 0 || !whom->unsent.empty()) {
        flush(*whom);
    } else {
        receive(*whom);
    }
    watch(whom);
    serve();
}

void control::receive(client &from)
{
    std::array<char, 65536> bytes{};
    const ssize_t count = recv(from.descriptor, bytes.data(), bytes.size(), 0);
    from.is_gone = count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
    from.received.append(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    from.is_gone = from.is_gone || from.received.size() > longest_line;
}

void control::flush(client &to)
{
    while (!to.unsent.empty()) {
        const ssize_t count = send(to.descriptor, to.unsent.data(), to.unsent.size(), MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) {
            to.is_gone = errno != EAGAIN;
            return;
        }
        to.unsent.erase(0, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
}

void control::serve()
{
    for (bool was_served = true; was_served && !commands_.is_busy();) {
        was_served = false;
        const std::list<client_ptr> present = clients_; // they come and go meanwhile
        for (const client_ptr &each : present) {
            was_served = serve_next(each) || was_served;
        }
    }
}

// Returns whether a command of this client was carried out.
bool control::serve_next(const client_ptr &whom)
{
    const std::size_t end = whom->received.find('\n');
    if (end == std::string::npos || !whom->unsent.empty() || commands_.has_quit()) {
        return false;
    }
    const std::string line = whom->received.substr(0, end);
    whom->received.erase(0, end + 1);
    out_.print_command(line);
    (void)commands_.run(line);
    if (commands_.last()) {
        whom->unsent = to_json(*commands_.last()) + '\n';
        flush(*whom);
    }
    watch(whom);
    if (commands_.has_quit()) {
        loop_.interrupt();
    }
    return true;
}

} // namespace confsim
