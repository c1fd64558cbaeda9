// Do the sockets exist, does somebody listen, and may this user connect?
//
// A connection to the socket of plugins is harmless: whoever connects is no plugin before it sends
// a registration, and one that hangs up without a word is what each plugin that fails to start
// leaves to the daemon. To connect a datagram socket sends nothing at all.
#include "doctor/checks.h"
#include "doctor/processes.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <grp.h>
#include <pwd.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace confsim::doctor {

namespace {

struct service {
    const char *file;
    int type;
    int facts::*listener; // of a datagram socket the kernel tells none
};
constexpr std::array<service, 3> services = {{
    {"confd.plugin.socket", SOCK_STREAM, &facts::plugin_listener},
    {"confd.agent.socket", SOCK_STREAM, &facts::agent_listener},
    {"confd.notifier.socket", SOCK_DGRAM, nullptr},
}};

// Many plugins that start together can fill the queue of a sound daemon, but not for long.
constexpr int tries = 100;
constexpr std::chrono::milliseconds between_tries{10};

// Tries to connect without waiting. Returns 0, or the error.
int connect_once(const std::string &path, int type, int *listener)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int probe = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int cause = 0;
    ucred peer{};
    socklen_t size = sizeof peer;
    if (probe < 0 ||
        connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        cause = errno;
    } else if (listener != nullptr &&
               getsockopt(probe, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0) {
        *listener = peer.pid;
    }
    if (probe >= 0) {
        close(probe);
    }
    return cause;
}

// The same, for as long as a queue may be full. Returns 0, or the error.
int connect_patiently(const std::string &path, int type, int *listener)
{
    int cause = connect_once(path, type, listener);
    for (int left = tries; cause == EAGAIN && left > 0; --left) {
        std::this_thread::sleep_for(between_tries);
        cause = connect_once(path, type, listener);
    }
    return cause;
}

std::string user_name()
{
    const passwd *user = getpwuid(geteuid());
    return user == nullptr ? std::to_string(geteuid()) : user->pw_name;
}

// The command that lets this user connect to a socket.
std::string admission(const std::string &path)
{
    struct stat status {};
    (void)stat(path.c_str(), &status);
    const group *owner = getgrgid(status.st_gid);
    const bool group_may = (status.st_mode & S_IWGRP) != 0;
    if (group_may && owner != nullptr && status.st_gid != getegid()) {
        return "sudo usermod -aG " + quoted(owner->gr_name) + " " + quoted(user_name());
    }
    return "sudo chmod 0660 " + quoted(path);
}

struct fault {
    const char *name;
    const char *text;
};

fault fault_of(const std::string &path, int cause)
{
    struct stat status {};
    const bool is_there = stat(path.c_str(), &status) == 0;
    if (!is_there) {
        return {"sockets-missing", "there is no "};
    }
    if (!S_ISSOCK(status.st_mode)) {
        return {"sockets-replaced", "something else stands in the place of "};
    }
    switch (cause) {
    case ECONNREFUSED:
        return {"sockets-stale", "nobody listens any more at "};
    case EACCES:
        return {"sockets-forbidden", "this user may not connect to "};
    case EPROTOTYPE:
        return {"sockets-of-other-kind", "another kind of socket is "};
    case EAGAIN:
        return {"daemon-busy", "the daemon does not accept, and its queue is full, at "};
    default:
        return {"sockets-unusable", "it is not possible to connect to "};
    }
}

// A daemon that is alive but not to be reached is in the way of another one.
std::string command_for(const facts &here, const std::string &path, int cause)
{
    if (cause == EACCES) {
        return admission(path);
    }
    int alive = here.plugin_listener > 0 ? here.plugin_listener : here.agent_listener;
    if (cause == EAGAIN) {
        const std::vector<int> holders = holders_of_socket(path);
        alive = holders.empty() ? 0 : holders.front();
    }
    return revival(alive, here.directory);
}

} // namespace

findings check_sockets(facts &here)
{
    if (here.directory.empty()) {
        return {};
    }
    std::array<int, services.size()> causes{};
    for (std::size_t i = 0; i < services.size(); ++i) {
        int unknown = 0;
        int &listener = services[i].listener == nullptr ? unknown : here.*services[i].listener;
        causes[i] =
            connect_patiently(here.directory + "/" + services[i].file, services[i].type, &listener);
        here.agents_connect |= causes[i] == 0 && services[i].listener == &facts::agent_listener;
    }
    findings found;
    for (std::size_t i = 0; i < services.size(); ++i) {
        if (causes[i] == 0) {
            continue;
        }
        const std::string path = here.directory + "/" + services[i].file;
        const fault what = fault_of(path, causes[i]);
        // One fault, one finding: the sockets mostly share it.
        const auto known = std::find_if(found.begin(), found.end(), [&what](const finding &other) {
            return other.name == what.name;
        });
        if (known != found.end()) {
            known->text += std::string(", ") + services[i].file;
        } else {
            found.push_back({what.name, what.text + path, command_for(here, path, causes[i])});
        }
        here.is_busy |= causes[i] == EAGAIN;
    }
    return found;
}

findings check_listeners(facts &here)
{
    if (here.plugin_listener <= 0 || here.agent_listener <= 0) {
        return {}; // nobody, or somebody outside of this PID namespace
    }
    if (here.plugin_listener != here.agent_listener) {
        return {{"two-daemons",
                 process_text(here.plugin_listener) + " serves plugins, but " +
                     process_text(here.agent_listener) + " agents",
                 "kill " + std::to_string(here.plugin_listener) + " " +
                     std::to_string(here.agent_listener) + "; sleep 1; " +
                     start_command(here.directory)}};
    }
    here.notes.push_back(process_text(here.plugin_listener) + " listens in " + here.directory);
    // Its plugins are still connected to it, and are missing where the new ones are. If it ended in
    // good order, it would remove the sockets of the other one.
    for (const int id : holders_of_socket(here.directory + "/" + services[0].file)) {
        if (id != here.plugin_listener) {
            return {{"daemon-displaced",
                     process_text(id) + " still listens, but " +
                         process_text(here.plugin_listener) + " has taken the place of its socket",
                     "kill -KILL " + std::to_string(id)}};
        }
    }
    return {};
}

} // namespace confsim::doctor
