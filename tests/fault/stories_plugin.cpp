// Stories of a plugin: registration, the event loop, requests, the older interface.
#include "both_interfaces.h"
#include "lane.h"

#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

// The paths "/refuse" are refused, and "/own" has a status that the plugin keeps.
int test::handle_call(const char *path, xmlNode *input, xmlNode **output)
{
    static xmlNode *const own = fault::made_outside("<own><up>1</up></own>");
    const std::string where = path == nullptr ? "" : path;
    if (output == nullptr) {
        return where == "/refuse" ? econf_plugin_error(5, "no"), 22 : 0;
    }
    if (where == "/refuse") {
        return 23;
    }
    const bool is_old = get_plugin_context()->version == 1;
    const char *result = is_old ? "<output><done>2</done></output>" : "<done>2</done>";
    *output = where == "/own"    ? own->children
              : path != nullptr  ? fault::made_outside("<up>1</up>")
              : input != nullptr ? fault::made_outside(result)
                                 : nullptr;
    return 0;
}

namespace fault {

namespace {

char *const path = test::path_of_changes;
char event[] = "event";
char text[] = "text";
char never[] = "never";

// What the plugin is left with.
void note_state()
{
    if (const conf_plugin_context_t *context = get_plugin_context()) {
        note("active", static_cast<int>(context->bit_activate));
        note("queued", std::to_string(conf_buffer_length(context->send_buf)) + ' ' +
                           std::to_string(context->send_pos) + ' ' +
                           std::to_string(conf_buffer_length(context->recv_buf)));
    } else {
        note("active", "no context");
    }
}

// Registers and activates without a fault.
void start()
{
    (void)test::initialise();
    (void)econf_plugin_activate(ACTIVATE_WITH_NONE);
    forget_logs();
}

void serve(const std::vector<std::pair<const char *, std::string>> &requests)
{
    start();
    for (const auto &[name, body] : requests) {
        ask(body);
        step(name, econf_plugin_run);
        note("reply", take_replies());
    }
    note_state();
}

// With whole messages, so that the daemon does not mind.
void fill_socket()
{
    if (const conf_plugin_context_t *context = get_plugin_context()) {
        const int least = 1;
        (void)setsockopt(context->sock, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
        const std::string filling = test::framed("<filling/>");
        while (send(context->sock, filling.data(), filling.size(), MSG_NOSIGNAL) > 0) {
        }
    }
}

conf_buffer_t *filled(int length)
{
    std::string filling(static_cast<std::size_t>(length), 'x');
    conf_buffer_t *buffer = conf_buffer_create(1000);
    (void)conf_buffer_append(&buffer, filling.data(), length);
    return buffer;
}

} // namespace

const story registration("registration", about::plugin, [] {
    step("record", get_plugin_from_hash);
    note("table", g_plugin_hash);
    if (step("init", [] { return test::initialise() < 0 ? -1 : 0; }) == 0) {
        step("activate", [] { return econf_plugin_activate(ACTIVATE_WITH_CFGR); });
        step("deactivate", econf_plugin_deactivate);
        note_state();
        step("close", econf_plugin_close);
    }
    note_state();
    if (get_plugin_context() == nullptr) {
        step("delete record", del_plugin_from_hash);
    }
    note("hooks", get_plugin_hooks());
});

// Whose memory is short from the first call on.
const story no_record("no_record", about::calls, [] {
    const node_ptr data(test::parse("<name>a</name>"));
    step("activate", [] { return econf_plugin_activate(ACTIVATE_WITH_NONE); });
    step("deactivate", econf_plugin_deactivate);
    write_all(data.get());
    step("error", [] { econf_plugin_error(5, "no"); });
    step("run", [] { return conf_run(nullptr, 0); });
    step("reply", [&] { return conf_send_reply(1, data.get(), data.get()); });
    step("hooks", get_plugin_hooks);
});

// Messages that make the buffers grow.
const story full_buffers("full_buffers", about::calls, [] {
    const node_ptr rpc(test::parse(test::kick_off));
    conf_plugin_context_t context{};
    conf_plugin_data plugin{};
    plugin.plugin_ctxt = &context;
    for (const int room : {5, 30}) { // for no head, or no body
        context.send_buf = filled(4087 - room);
        step("queue", [&] { return _cache_message(&plugin, rpc.get(), odd_bytes::refused); });
        note("queued", conf_buffer_length(context.send_buf));
        conf_buffer_destroy(context.send_buf);
    }
    int ends[2] = {-1, -1};
    (void)socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends);
    const std::string bytes = test::framed("<a>" + std::string(4100, 'x') + "</a>");
    context.sock = ends[0];
    context.recv_buf = filled(0);
    (void)conf_buffer_append(&context.recv_buf, const_cast<char *>(bytes.data()), 4080);
    (void)!write(ends[1], bytes.data() + 4080, bytes.size() - 4080);
    bool_t ready = 0;
    step("receive", [&] { return _recv_message(&plugin, &ready); });
    note("ready", static_cast<int>(ready));
    note("received", conf_buffer_length(context.recv_buf));
    step("parse",
         [&] { return wiped_node(plugin_parse_message(&plugin.plugin_ctxt->recv_buf)) ? 0 : -1; });
    note("size", context.recv_buf->total);
    conf_buffer_destroy(context.recv_buf);
    close(ends[0]);
    close(ends[1]);
});

const story changes("changes", about::plugin, [] {
    serve({{"config", test::config("/demo[name=\"a\"]")},
           {"config refused", test::config("/refuse")},
           {"kick-off", test::rpc("kickoff", "<params><!-- for libxml2 --></params>", "17")},
           {"unknown", test::rpc("unknown", "<params/>", "17")}});
});

const story status_and_operations("status_and_operations", about::plugin, [] {
    serve({{"status", test::subscribe("<path>/state</path>")},
           {"status of the plugin's own", test::subscribe("<path>/own</path>")},
           {"status refused", test::subscribe("<path>/refuse</path>")},
           {"operation", test::operate("<in>1</in>")},
           {"operation without input", test::operate("")}});
});

const story reading("reading", about::plugin, [] {
    start();
    for (const bool old : {true, false}) {
        xmlNode *list = nullptr;
        step(old ? "pull old" : "locate",
             [&] { return (old ? econf_plugin_pull : econf_plugin_locate)(old, path, &list); });
        note("list", list);
        xmlFreeNodeList(list);
    }
    note_state();
});

const story writing("writing", about::plugin, [] {
    const node_ptr data(test::parse("<name>a</name>"));
    start();
    write_all(data.get());
    note_state();
});

// A request and a reply for which the socket has no room at first.
const story no_room("no_room", about::plugin, [] {
    start();
    fill_socket();
    step("save", econf_plugin_save_deployment);
    ask(test::kick_off);
    fill_socket();
    step("kick-off", econf_plugin_run);
    note_state();
});

const story older_interface("older_interface", about::plugin, [] {
    conf_context_t *handle = test::initialise_by_older_interface();
    (void)conf_start_session(handle, 0);
    forget_logs();
    step("descriptor", [=] { return conf_plg_get_hconf(handle) < 0 ? -1 : 0; });
    ask(test::config(path));
    step("run", [=] { return conf_run(handle, 0); });
    ask(test::subscribe("<path>/state</path>"));
    ask(test::operate("<in>1</in>"));
    waits_left = 2;
    step("run until the end", [=] { return conf_run(handle, 1); });
    note("replies", take_replies());
    note("recovery", text_of(conf_recovery_status()) + text_of(g_rdb_recovery_status));
    step("close", [=] { return conf_plugin_close(handle); });
    note_state();
});

const story older_requests("older_requests", about::plugin, [] {
    const node_ptr data(test::parse("<name>a</name>"));
    conf_val_t value{};
    start();
    step("set", [&] { return conf_set_config(path, data.get()); });
    xmlFreeNodeList(step("get", [] { return conf_get_config(path); }));
    step("value", [&] { return conf_plg_get_value(nullptr, path, &value); });
    note("value", value.data);
    xmlFreeNode(value.data);
    // The same once more, each by another name.
    xmlFreeNodeList(conf_get_old_config(path));
    (void)conf_plg_get_old_value(nullptr, path, &value);
    xmlFreeNode(value.data);
    value.data = data.get();
    (void)conf_plg_set_value(nullptr, 0, path, &value);
    forget_logs();
    step("error", [] { return conf_set_error(5, "no"); });
    note("text", get_plugin_context()->err_msg);
    step("error again", [] { return conf_plg_set_error(nullptr, 6, never); });
    note("text", get_plugin_context()->err_msg);
    step("reply", [&] { return conf_send_reply(1, data.get(), data.get()); });
    note_state();
});

const story notifications("notifications", about::documents, [] {
    const node_ptr data(test::parse("<event>1</event>"));
    std::snprintf(g_conf_notifier_socket, sizeof g_conf_notifier_socket, "/var/tmp/notifier");
    const int notifier = conf_plugin_notifier_enable();
    step("element", [&] { return econf_notify(event, data.get()); });
    step("text", [&] { return conf_notify(event, text); });
    step("text at once", [&] { return conf_notify_nonblock(event, text); });
    std::string received;
    char datagram[256]{};
    for (ssize_t count; (count = read(notifier, datagram, sizeof datagram - 1)) > 0;) {
        received += std::string(datagram, strnlen(datagram, static_cast<std::size_t>(count))) + '.';
    }
    note("received", received);
    conf_plugin_notifier_disable(notifier);
});

} // namespace fault
