// What the daemon itself calls: injects its hooks for plugin code in its own process, and opens the
// sockets for plugins and for notifications (that for agents stands in conf_agent.cpp). Accepting
// and reading on them is the daemon's own business.
#include "conf_misc.h"
#include "plugin_internal.h"
#include "support/log.h"
#include "support/owners.h"
#include "wire.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t socket_mask = 0117; // leaves 0660
constexpr int notifier_room = 32768; // bytes of notifications that may wait for the daemon

// The hooks live as long as the process, in a record that may stand at an odd address, where leak
// checkers do not look for pointers.
[[gnu::used]] confd_plugin_callback_t *g_installed_hooks = nullptr;

} // namespace

int conf_plugin_init_api(confd_plugin_callback_t *api)
{
    if (api == nullptr) {
        LOG_FILE_ERROR("Error input parameter.");
        return -1;
    }
    conf_plugin_data *plugin = get_plugin_from_hash();
    if (plugin == nullptr) {
        return -1;
    }
    if (plugin->confd_hooks != nullptr) {
        LOG_FILE_ERROR("Conf API had initialized.");
        return -1;
    }
    auto *hooks = static_cast<confd_plugin_callback_t *>(malloc(sizeof *api));
    if (hooks == nullptr) {
        LOG_FILE_ERROR("Allocate memory for confd api failed.");
        return -1;
    }
    *hooks = *api;
    plugin->confd_hooks = hooks;
    g_installed_hooks = hooks;
    return 0;
}

int conf_plugin_service_enable(void)
{
    support::unique_fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        LOG_FILE_ERROR("Create conf-plugin socket failed(%s).", std::strerror(errno));
        return -1;
    }
    if (bind_service(sock.get(), socket_address(g_conf_plugin_socket)) != 0) {
        LOG_FILE_ERROR("Bind conf-plugin socket failed(%s).", std::strerror(errno));
        return -1;
    }
    if (listen(sock.get(), wire::service_backlog) != 0) {
        LOG_FILE_ERROR("Listen conf-plugin socket failed(%s).", std::strerror(errno));
        return -1;
    }
    if (conf_non_block_fd(sock.get()) != 0) {
        LOG_FILE_ERROR("Set plugin service socket to nonblock failed.");
        return -1;
    }
    return sock.release();
}

void conf_plugin_service_disable(int sock)
{
    close_service(sock, g_conf_plugin_socket);
}

int conf_plugin_notifier_enable(void)
{
    support::unique_fd sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        LOG_FILE_ERROR("Create notifier socket failed(%s).", std::strerror(errno));
        return -1;
    }
    if (bind_service(sock.get(), socket_address(g_conf_notifier_socket)) != 0) {
        LOG_FILE_ERROR("Bind notifier socket failed(%s).", std::strerror(errno));
        return -1;
    }
    if (setsockopt(sock.get(), SOL_SOCKET, SO_RCVBUF, &notifier_room, sizeof notifier_room) != 0) {
        LOG_FILE_ERROR("Set socket receive buffer option failed(%s).", std::strerror(errno));
        return -1;
    }
    if (conf_non_block_fd(sock.get()) != 0) {
        LOG_FILE_ERROR("Set notifier socket to nonblock failed.");
        return -1;
    }
    return sock.release();
}

void conf_plugin_notifier_disable(int sock)
{
    close_service(sock, g_conf_notifier_socket);
}

int bind_service(int sock, const sockaddr_un &address)
{
    (void)unlink(address.sun_path); // left by an earlier run
    const mode_t before = umask(socket_mask);
    const int result = bind(sock, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const int cause = errno;
    (void)umask(before);
    errno = cause;
    return result;
}

void close_service(int sock, const char *path)
{
    support::unique_fd(sock).reset();
    (void)unlink(socket_address(path).sun_path);
}
