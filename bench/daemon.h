// The daemon's end of a plugin's stream, for measuring programs: it blocks, and does not check what
// it is sent.
#ifndef CONFSVC_BENCH_DAEMON_H
#define CONFSVC_BENCH_DAEMON_H

#include "conf_plugin.h"
#include "sandbox.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace bench {

[[noreturn]] inline void give_up(const char *what)
{
    std::perror(what);
    std::exit(1);
}

inline void enter_sandbox()
{
    std::string error;
    if (!sandbox::enter({}, error)) {
        std::fprintf(stderr, "no sandbox: %s\n", error.c_str());
        std::exit(1);
    }
}

// Runs `body` in a process that ends with this one. It leaves standard error to this one: what an
// emulator writes there is about this process alone.
template <typename function>
void in_background(function body)
{
    const pid_t self = getpid();
    const pid_t child = fork();
    if (child < 0) {
        give_up("fork");
    }
    if (child == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != self) { // which has ended already
            _exit(0);
        }
        (void)dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        body();
        _exit(0);
    }
}

inline std::string framed(const std::string &body)
{
    const msg_head_t head{MSG_MAGIC, static_cast<u32_t>(body.size()), 0, 0};
    return std::string(reinterpret_cast<const char *>(&head), sizeof head) + body;
}

// A change below the path of a configuration callback.
inline std::string change(std::size_t callback)
{
    return framed("<rpc><method>publish</method><params><type>config</type><session-id>3"
                  "</session-id><callback>" +
                  std::to_string(callback) +
                  "</callback><info><oper-type>1</oper-type><more-flag>0</more-flag><priority>10"
                  "</priority><path>/demo:settings/interface[name=\"eth0\"]/mtu</path></info>"
                  "</params><id>17</id></rpc>");
}

// Entries of a list with small leaves, of at least `size` bytes.
inline std::string configuration(std::size_t size)
{
    std::string text = R"(<interfaces xmlns="urn:ietf:params:xml:ns:yang:ietf-interfaces">)";
    for (int i = 0; text.size() < size; ++i) {
        const std::string number = std::to_string(i);
        text += "<interface><name>eth" + number + "</name><description>uplink " + number +
                "</description><mtu>1500</mtu><ipv4><ip>10.0.0.1</ip></ipv4></interface>";
    }
    return text + "</interfaces>";
}

inline bool send_all(int sock, const std::string &bytes)
{
    return send(sock, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

// The body of the next message; empty at the end of the stream.
inline std::string receive(int sock)
{
    msg_head_t head{};
    if (recv(sock, &head, sizeof head, MSG_WAITALL) != sizeof head) {
        return {};
    }
    std::string body(head.length, '\0');
    (void)recv(sock, body.data(), body.size(), MSG_WAITALL);
    return body;
}

// Takes one request and answers it with success and `content`; false at the end of the stream.
inline bool answer(int sock, const std::string &content)
{
    const std::string request = receive(sock);
    const std::size_t id = request.rfind("<id>");
    return id != std::string::npos &&
           send_all(sock, framed("<reply><result>" + content + "</result>" +
                                 request.substr(id, request.rfind("</rpc>") - id) + "</reply>"));
}

// The next plugin that connects.
inline int accept_plugin(int listener)
{
    pollfd ready{listener, POLLIN, 0};
    (void)poll(&ready, 1, -1);
    return accept(listener, nullptr, nullptr);
}

// A private system log, which a process of its own empties.
inline void open_system_log()
{
    sockaddr_un address{AF_UNIX, "/dev/log"};
    const int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(sock, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        give_up("/dev/log");
    }
    in_background([sock] {
        char byte = 0;
        while (recv(sock, &byte, 1, 0) >= 0) {
        }
    });
    (void)close(sock);
}

} // namespace bench

#endif
