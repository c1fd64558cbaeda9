// For agents: the connection to the daemon and the framed requests that an agent sends; for the
// daemon: the socket that agents connect to. Relies on conf_plugin/xml.h, on the endpoint paths and
// on the byte buffer.
#include "conf_misc.h"
#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/wire.h"
#include "conf_plugin/xml.h"
#include "support/bounded.h"
#include "support/log.h"

#include <cerrno>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr const char *base_namespace = "urn:ietf:params:xml:ns:netconf:base:1.0";
constexpr const char *confd_namespace = "com:volmar:netconf:private:oxel:device:confd";
constexpr const char *notification_namespace = "urn:ietf:params:xml:ns:netconf:notification:1.0";

// Appends a document as one framed message, whole or not at all.
int conf_agent_dump_xml(conf_buffer_t **buffer, const xmlNode *node, int seq)
{
    switch (append_message(buffer, node, static_cast<u16_t>(seq), odd_bytes::refused)) {
    case appended::whole:
        return 0;
    case appended::no_head:
        LOG_SYSTEM_ERROR("Append message header to buffer failed.");
        break;
    case appended::no_body:
        LOG_SYSTEM_ERROR("Append message body to outbound buffer failed.");
        break;
    case appended::not_printable:
        LOG_SYSTEM_ERROR("Create xml buffer failed.");
        break;
    }
    return -1;
}

// The `rpc` with a `get-config` of the running datastore whose filter names the operation.
// `nextParent` receives the filter, whose first child is the operation element.
xmlNode *conf_agent_build_rpc(const char *oper_name, int msg_seq, xmlNode **nextParent)
{
    node_ptr rpc(new_element("rpc"));
    if (!rpc) {
        LOG_SYSTEM_ERROR("Create root node <rpc> failed.");
        return nullptr;
    }
    xmlNs *base = declare_namespace(rpc.get(), nullptr, base_namespace);
    if (base == nullptr) {
        LOG_SYSTEM_ERROR("Create namespace <%s> failed.", base_namespace);
        return nullptr;
    }
    xmlSetNs(rpc.get(), base);
    char id[64];
    (void)conf_itoa(msg_seq, id, sizeof id);
    if (id[0] == '\0' || !set_attribute(rpc.get(), "message-id", id)) {
        LOG_SYSTEM_ERROR("Create attribution <message-id> failed.");
        return nullptr;
    }
    xmlNs *confd = declare_namespace(rpc.get(), "confd", confd_namespace);
    if (confd == nullptr) {
        LOG_SYSTEM_ERROR("Create namepsace <%s> failed.", confd_namespace);
        return nullptr;
    }
    xmlNode *get_config = add_element(rpc.get(), "get-config");
    if (get_config == nullptr) {
        LOG_SYSTEM_ERROR("Create op type node get-config failed.");
        return nullptr;
    }
    xmlNode *source = add_element(get_config, "source");
    const bool has_source = source != nullptr && add_element(source, "running") != nullptr;
    xmlNode *filter = has_source ? add_element(get_config, "filter") : nullptr;
    if (filter == nullptr || !set_attribute(filter, "type", "subtree")) {
        LOG_SYSTEM_ERROR("Create attribution subtree failed.");
        return nullptr;
    }
    xmlNode *operation = add_element(filter, oper_name);
    if (operation == nullptr) {
        LOG_SYSTEM_ERROR("Create child node <%s> failed.", oper_name);
        return nullptr;
    }
    xmlSetNs(operation, confd);
    *nextParent = filter;
    return rpc.release();
}

// What `create-session` tells of the agent. The elements inherit the operation's namespace.
bool describe_agent(xmlNode *operation)
{
    errno = 0;
    const passwd *user = getpwuid(getuid());
    if (user == nullptr) {
        LOG_SYSTEM_ERROR("Get login user information failed(%s).", std::strerror(errno));
        return false;
    }
    if (add_text(operation, "username", user->pw_name) == nullptr) {
        LOG_SYSTEM_ERROR("Create child node <username> failed.");
        return false;
    }
    if (add_number(operation, "agent-ppid", getppid()) == nullptr) {
        LOG_SYSTEM_ERROR("Create child node <agent-ppid> failed.");
        return false;
    }
    return true;
}

// The `rpc` with an empty `create-subscription`.
xmlNode *build_subscription()
{
    node_ptr rpc(new_element("rpc"));
    if (!rpc) {
        LOG_SYSTEM_ERROR("[RE]Create root node <rpc> failed.");
        return nullptr;
    }
    xmlNs *base = declare_namespace(rpc.get(), nullptr, base_namespace);
    if (base == nullptr) {
        LOG_SYSTEM_ERROR("[RE]Create namespace <%s> failed.", base_namespace);
        return nullptr;
    }
    xmlSetNs(rpc.get(), base);
    if (!set_attribute(rpc.get(), "message-id", "subscribeNotification_1")) {
        LOG_SYSTEM_ERROR("[RE]Create attribution <message-id> failed.");
        return nullptr;
    }
    xmlNs *notification = declare_namespace(rpc.get(), "ntf", notification_namespace);
    if (notification == nullptr) {
        LOG_SYSTEM_ERROR("[RE]Create namepsace <%s> failed.", notification_namespace);
        return nullptr;
    }
    xmlNode *subscription = add_element(rpc.get(), "create-subscription");
    if (subscription == nullptr) {
        LOG_SYSTEM_ERROR("[RE]Create child node failed.");
        return nullptr;
    }
    xmlSetNs(subscription, notification);
    return rpc.release();
}

void give_to_group_sudo(const sockaddr_un &address)
{
    const group *sudo = getgrnam("sudo");
    if (sudo != nullptr && chown(address.sun_path, static_cast<uid_t>(-1), sudo->gr_gid) != 0) {
        LOG_SYSTEM_WARN("Fail to change group into sudo for agent sock path");
    }
}

} // namespace

int conf_agent_init(void)
{
    (void)conf_load_config(nullptr); // without a profile the present path stays in force
    support::unique_fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        LOG_SYSTEM_ERROR("Create socket failed(%s).", std::strerror(errno));
        return -1;
    }
    const sockaddr_un address = socket_address(g_conf_agent_socket);
    if (connect(sock.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        LOG_SYSTEM_ERROR("Connect to agent sock addr failed(%s).", std::strerror(errno));
        return -1;
    }
    LOG_SYSTEM_DEBUG("Agent connect to agent sock addr success.");
    return sock.release();
}

void conf_agent_exit(int sock)
{
    support::unique_fd(sock).reset();
    LOG_SYSTEM_DEBUG("Agent disconnect to server.");
}

int conf_agent_build_session(conf_buffer_t **buffer, int msg_seq)
{
    xmlNode *filter = nullptr;
    const node_ptr rpc(conf_agent_build_rpc("create-session", msg_seq, &filter));
    if (!rpc) {
        LOG_SYSTEM_ERROR("Create root node <rpc> failed.");
        return -1;
    }
    if (!describe_agent(filter->children)) {
        return -1;
    }
    if (conf_agent_dump_xml(buffer, rpc.get(), msg_seq) != 0) {
        LOG_SYSTEM_ERROR("Dump xml to message for <create-session> failed.");
        return -1;
    }
    return 0;
}

int conf_agent_build_capability(conf_buffer_t **buffer, int msg_seq)
{
    xmlNode *filter = nullptr;
    const node_ptr rpc(conf_agent_build_rpc("get-capability", msg_seq, &filter));
    if (!rpc) {
        LOG_SYSTEM_ERROR("Create root node <rpc> failed.");
        return -1;
    }
    if (conf_agent_dump_xml(buffer, rpc.get(), msg_seq) != 0) {
        LOG_SYSTEM_ERROR("Dump xml to message for <get-capability> failed.");
        return -1;
    }
    return 0;
}

int conf_agent_build_notify_rpc(conf_buffer_t **buffer, int seq)
{
    const node_ptr rpc(build_subscription());
    if (!rpc) {
        return -1;
    }
    if (conf_agent_dump_xml(buffer, rpc.get(), seq) != 0) {
        LOG_SYSTEM_ERROR("[RE]Dump xml to message for <create-subscription> failed.");
        return -1;
    }
    return 0;
}

int conf_agent_service_enable(void)
{
    support::unique_fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        LOG_SYSTEM_ERROR("Create agent socket failed(%s).", std::strerror(errno));
        return -1;
    }
    const sockaddr_un address = socket_address(g_conf_agent_socket);
    if (bind_service(sock.get(), address) != 0) {
        LOG_SYSTEM_ERROR("Bind agent socket failed(%s).", std::strerror(errno));
        return -1;
    }
    give_to_group_sudo(address);
    if (listen(sock.get(), wire::service_backlog) != 0) {
        LOG_SYSTEM_ERROR("Listen agent socket failed(%s).", std::strerror(errno));
        return -1;
    }
    if (conf_non_block_fd(sock.get()) != 0) {
        LOG_SYSTEM_ERROR("Set agent service socket to nonblock failed.");
        return -1;
    }
    return sock.release();
}

void conf_agent_service_disable(int sock)
{
    close_service(sock, g_conf_agent_socket);
}
