// Does the daemon answer within a second?
//
// The question is what an agent may ask before it does anything else, which capabilities there are:
// it only reads, and neither opens a session nor subscribes to anything. The daemon forgets the
// visitor with the connection. Plugins have no such question, so their socket is not asked.
#include "conf_api.h"
#include "conf_buffer.h"
#include "conf_def.h"
#include "conf_plugin.h"
#include "doctor/checks.h"
#include "doctor/processes.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace confsim::doctor {

namespace {

using steady = std::chrono::steady_clock;
constexpr std::chrono::milliseconds patience{1000};

struct released {
    void operator()(conf_buffer_t *buffer) const { conf_buffer_destroy(buffer); }
};

enum class outcome { answered, ended, odd, silent };

class visit {
public:
    explicit visit(const std::string &path)
        : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        connected_ = socket_ >= 0 && connect(socket_, reinterpret_cast<const sockaddr *>(&address),
                                             sizeof address) == 0;
    }
    ~visit()
    {
        if (socket_ >= 0) {
            close(socket_);
        }
    }
    visit(const visit &) = delete;
    visit &operator=(const visit &) = delete;

    [[nodiscard]] bool ask() const
    {
        conf_buffer_t *made = conf_buffer_create(0);
        const bool built = made != nullptr && conf_agent_build_capability(&made, 1) == 0;
        const std::unique_ptr<conf_buffer_t, released> question(made);
        return connected_ && built &&
               send(socket_, conf_buffer_data(made),
                    static_cast<std::size_t>(conf_buffer_length(made)), MSG_NOSIGNAL) > 0;
    }

    // The header of the answer is enough.
    [[nodiscard]] outcome listen() const
    {
        const auto deadline = steady::now() + patience;
        msg_head_t head{};
        std::size_t have = 0;
        while (have < sizeof head) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(deadline - steady::now());
            pollfd readable{socket_, POLLIN, 0};
            if (left.count() <= 0 || poll(&readable, 1, static_cast<int>(left.count())) == 0) {
                return outcome::silent;
            }
            const ssize_t count =
                recv(socket_, reinterpret_cast<char *>(&head) + have, sizeof head - have, 0);
            if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
                return outcome::ended;
            }
            have += count > 0 ? static_cast<std::size_t>(count) : 0;
        }
        return head.magic == MSG_MAGIC ? outcome::answered : outcome::odd;
    }

private:
    int socket_;
    bool connected_ = false;
};

} // namespace

findings check_answer(facts &here)
{
    if (!here.agents_connect || here.is_busy) {
        return {};
    }
    const auto start = steady::now();
    const visit agent(here.directory + "/confd.agent.socket");
    const outcome came = agent.ask() ? agent.listen() : outcome::ended;
    const std::string daemon =
        here.agent_listener > 0 ? process_text(here.agent_listener) : "the daemon";
    const std::string command = revival(here.agent_listener, here.directory);
    switch (came) {
    case outcome::silent:
        return {{"daemon-silent",
                 daemon + (is_stopped(here.agent_listener) ? " is stopped"
                                                           : " does not answer within a second"),
                 command}};
    case outcome::ended:
        return {{"daemon-refuses", daemon + " hangs up on agents without an answer", command}};
    case outcome::odd:
        return {
            {"daemon-odd", daemon + " answers, but in no form that the library knows", command}};
    case outcome::answered:
        break;
    }
    const auto passed =
        std::chrono::duration_cast<std::chrono::milliseconds>(steady::now() - start);
    here.notes.push_back(daemon + " answers within " + std::to_string(passed.count() + 1) + " ms");
    return {};
}

} // namespace confsim::doctor
