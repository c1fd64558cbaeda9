// Stories of a plugin: registration, the event loop, requests, the older interface.
#include "scenarios.h"

#include "conf_plugin.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace fault {

namespace {

// ---- the plugin --------------------------------------------------------------------------------

// A callback is no part of the library.
class outside {
public:
    outside() { leave_library(); }
    ~outside() { enter_library(); }
    outside(const outside &) = delete;
    outside &operator=(const outside &) = delete;
};

int on_config(int /*session*/, int /*oper*/, int /*more*/, int /*priority*/, const char *path)
{
    if (std::strcmp(path, "/refuse") == 0) {
        econf_plugin_error(5, "no");
        return 22;
    }
    return 0;
}

int on_status(int /*session*/, const char *path, const char * /*filter*/, xmlNode **status)
{
    if (std::strcmp(path, "/refuse") == 0) {
        return 23;
    }
    const outside scope;
    *status = test::parse("<up>1</up>");
    return 0;
}

int on_operate(int /*session*/, xmlNode *input, xmlNode **output)
{
    const outside scope;
    *output = input == nullptr ? nullptr : test::parse("<done>2</done>");
    return 0;
}

void on_kick_off() {}

char reset[] = "reset";
econf_config_cb_info_t configs[] = {{"/demo", 10, on_config}, {nullptr, 0, nullptr}};
econf_status_cb_info_t states[] = {{"/state", on_status}, {nullptr, nullptr}};
econf_operate_cb_info_t operations[] = {{reset, on_operate}, {nullptr, nullptr}};
econf_plugin_subpub_info_t callbacks = {configs, states, operations, on_kick_off};

int initialise()
{
    return econf_plugin_init("demo", &callbacks);
}

// What the plugin, or the daemon, is left with.
void note_state()
{
    const conf_plugin_context_t *context = get_plugin_context();
    note("active", context == nullptr ? "no context" : std::to_string(context->bit_activate));
    if (context != nullptr) {
        note("queued", std::to_string(conf_buffer_length(context->send_buf)) + ' ' +
                           std::to_string(context->send_pos) + ' ' +
                           std::to_string(conf_buffer_length(context->recv_buf)));
    }
}

// Registers and activates without a fault.
void start()
{
    (void)initialise();
    (void)econf_plugin_activate(ACTIVATE_WITH_NONE);
    forget_logs();
}

void serve(Daemon &daemon, const std::string &name, const std::string &request)
{
    daemon.send(request);
    step(name, econf_plugin_run);
    note("reply", daemon.take_replies());
}

// The plugin asks for something; what it gets is shown and freed.
void read_list(const std::string &name, int (*call)(int, const char *, xmlNode **), int old)
{
    xmlNode *list = nullptr;
    step(name, [&] { return call(old, "/demo", &list); });
    note("list", text_of(list));
    xmlFreeNodeList(list);
}

char *changeable(const char *text)
{
    return const_cast<char *>(text);
}

// ---- the older interface -----------------------------------------------------------------------

int old_config(int /*oper*/, int /*more*/, int /*priority*/, char * /*path*/)
{
    return 0;
}

int old_status(char * /*path*/, char * /*filter*/, xmlNode **status)
{
    return on_status(0, "", nullptr, status);
}

int old_operate(xmlNode *input, xmlNode **output)
{
    const outside scope;
    *output = input == nullptr ? nullptr : test::parse("<output><done>2</done></output>");
    return 0;
}

config_callback_t old_configs[] = {{changeable("/demo"), 10, old_config}, {nullptr, 0, nullptr}};
status_callback_t old_states[] = {{changeable("/state"), old_status}, {nullptr, nullptr}};
rpc_callback_t old_operations[] = {{reset, old_operate}, {nullptr, nullptr}};
conf_plugin_info_t old_callbacks = {old_configs, old_states, old_operations, on_kick_off, nullptr};

void read_value(const std::string &name, int (*call)(conf_context_t *, char *, conf_val_t *))
{
    conf_val_t value{};
    step(name, [&] { return call(nullptr, changeable("/demo"), &value); });
    note("value", text_of(value.data));
    xmlFreeNode(value.data);
}

} // namespace

void registration()
{
    Daemon daemon;
    step("record", [] { return static_cast<const void *>(get_plugin_from_hash()); });
    note("table", text_of(static_cast<const void *>(g_plugin_hash)));
    if (step_fd("init", initialise) >= 0) {
        step("activate", [] { return econf_plugin_activate(ACTIVATE_WITH_CFGR); });
        step("deactivate", econf_plugin_deactivate);
        note_state();
        step("close", econf_plugin_close);
    }
    note_state();
    if (get_plugin_context() == nullptr) {
        step("delete record", del_plugin_from_hash);
    }
    note("hooks", text_of(static_cast<const void *>(get_plugin_hooks())));
}

void changes()
{
    Daemon daemon;
    start();
    serve(daemon, "config", test::config("/demo[name=\"a\"]"));
    serve(daemon, "config refused", test::config("/refuse"));
    serve(daemon, "kick-off", test::kick_off);
    serve(daemon, "unknown", test::rpc("unknown", "<params/>", "17"));
    note_state();
}

void status_and_operations()
{
    Daemon daemon;
    start();
    serve(daemon, "status", test::subscribe("<path>/state</path>"));
    serve(daemon, "status refused", test::subscribe("<path>/refuse</path>"));
    serve(daemon, "operation", test::operate("<in>1</in>"));
    serve(daemon, "operation without input", test::operate(""));
    note_state();
}

void reading()
{
    Daemon daemon;
    start();
    read_list("pull old", econf_plugin_pull, 1);
    read_list("locate", econf_plugin_locate, 0);
    note_state();
}

void writing()
{
    Daemon daemon;
    const node_ptr data(test::parse("<name>a</name>"));
    start();
    step("push", [&] { return econf_plugin_push("/demo", data.get()); });
    step("deploy", [&] { return econf_plugin_config_deployment("/demo", 1, data.get()); });
    step("save", econf_plugin_save_deployment);
    step("copy", [] { return econf_plugin_copy_running_to_deployment(1); });
    note_state();
}

void older_interface()
{
    Daemon daemon;
    conf_context_t *handle = conf_plugin_init(changeable("demo"), &old_callbacks);
    (void)conf_start_session(handle, 0);
    forget_logs();
    step_fd("descriptor", [=] { return conf_plg_get_hconf(handle); });
    daemon.send(test::config("/demo"));
    step("run", [=] { return conf_run(handle, 0); });
    daemon.send(test::subscribe("<path>/state</path>"));
    daemon.send(test::operate("<in>1</in>"));
    daemon.hang_up();
    step("run until the end", [=] { return conf_run(handle, 1); });
    note("replies", daemon.take_replies());
    note("recovery", text_of(conf_recovery_status()) + text_of(g_rdb_recovery_status));
    step("close", [=] { return conf_plugin_close(handle); });
    note_state();
}

void older_requests()
{
    Daemon daemon;
    const node_ptr data(test::parse("<name>a</name>"));
    conf_val_t value = {data.get()};
    start();
    step("set", [&] { return conf_set_config("/demo", data.get()); });
    xmlFreeNodeList(step("get", [] { return conf_get_config("/demo"); }));
    read_value("value", conf_plg_get_value);
    // The same once more, each by another name.
    xmlFreeNodeList(conf_get_old_config("/demo"));
    (void)conf_plg_get_old_value(nullptr, changeable("/demo"), &value);
    xmlFreeNode(value.data);
    value.data = data.get();
    (void)conf_plg_set_value(nullptr, 0, changeable("/demo"), &value);
    forget_logs();
    step("error", [] { return conf_set_error(5, "no"); });
    note("text", text_of(get_plugin_context()->err_msg));
    step("error again", [] { return conf_plg_set_error(nullptr, 6, changeable("never")); });
    note("text", text_of(get_plugin_context()->err_msg));
    step("reply", [&] { return conf_send_reply(1, data.get(), data.get()); });
    note_state();
}

void notifications()
{
    const node_ptr data(test::parse("<event>1</event>"));
    std::snprintf(g_conf_notifier_socket, sizeof g_conf_notifier_socket, "/var/tmp/notifier");
    const int notifier = conf_plugin_notifier_enable();
    step("element", [&] { return econf_notify("event", data.get()); });
    step("text", [] { return conf_notify(changeable("event"), changeable("text")); });
    step("text at once",
         [] { return conf_notify_nonblock(changeable("event"), changeable("text")); });
    std::string received;
    char datagram[256];
    for (ssize_t count; (count = read(notifier, datagram, sizeof datagram)) > 0;) {
        received += std::string(datagram, strnlen(datagram, static_cast<std::size_t>(count))) + '.';
    }
    note("received", received);
    conf_plugin_notifier_disable(notifier);
}

} // namespace fault
