// Stories of everything that needs no plugin: the daemon's own calls, agents, the client table,
// messages and paths, containers, and the logs.
#include "client_table.h"
#include "lane.h"

#include "conf_dlq.h"
#include "conf_mask.h"
#include "conf_values.h"
#include "conf_vec.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <cstdlib>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fault {

namespace {

namespace fs = std::filesystem;

void note_size(conf_buffer_t *buffer, const char *name = "size")
{
    note(name, std::to_string(conf_buffer_length(buffer)) + " of " + std::to_string(buffer->total));
}

int read_hook(bool_t /*old*/, const char * /*path*/, xmlNode **result)
{
    *result = made_outside("<name>a</name>");
    return 0;
}

confd_plugin_callback_t hooks = {read_hook,
                                 read_hook,
                                 [](const char *, xmlNode *) { return 7; },
                                 [](const char *, int oper, xmlNode *) { return oper; },
                                 [] { return 8; },
                                 [](int override_flag) { return override_flag; },
                                 [](int, const char *) {},
                                 [](int session, xmlNode *, xmlNode *) { return session; }};

// ---- the client table --------------------------------------------------------------------------

void note_objects()
{
    const int semaphore = test::semaphore();
    note("objects",
         std::string(test::segment() < 0 ? "no segment" : "segment") +
             (semaphore < 0 ? "" : ", unlocked " + std::to_string(semctl(semaphore, 0, GETVAL))));
}

void use_table()
{
    conf_cli_info_t info{};
    for (const int pid : {100, 200}) {
        info.sshd_pid = pid;
        step("save", [&] { return conf_save_client_info(&info); });
    }
    step("find", [&] { return conf_get_client_info(200, &info) == 0 ? info.sshd_pid + 0 : -1; });
    step("free", [] { conf_free_client_info(100); });
    note_objects();
}

} // namespace

void write_all(xmlNode *data)
{
    step("push", [=] { return econf_plugin_push("/demo", data); });
    step("deploy", [=] { return econf_plugin_config_deployment("/demo", 1, data); });
    step("save", econf_plugin_save_deployment);
    step("copy", [] { return econf_plugin_copy_running_to_deployment(1); });
}

const story services("services", about::calls, [] {
    struct service {
        const char *name;
        int (*enable)();
        void (*disable)(int);
        char *path;
    };
    const service all[] = {
        {"plugin", conf_plugin_service_enable, conf_plugin_service_disable, g_conf_plugin_socket},
        {"agent", conf_agent_service_enable, conf_agent_service_disable, g_conf_agent_socket},
        {"notifier", conf_plugin_notifier_enable, conf_plugin_notifier_disable,
         g_conf_notifier_socket},
    };
    for (const auto &each : all) {
        std::strcpy(each.path, (std::string("/var/tmp/") + each.name).c_str());
        umask(022);
        int sock = -1;
        step(each.name, [&] { return (sock = each.enable()) < 0 ? -1 : 0; });
        struct stat status {};
        note("mode", stat(each.path, &status) == 0 ? text_of(status.st_mode & 0777) : "none");
        note("mask", umask(022));
        step(each.name + std::string(" off"), [&] { each.disable(sock); });
        note("file", fs::exists(each.path) ? "left" : "gone");
    }
});

const story local_mode("local_mode", about::calls, [] {
    const node_ptr data(test::parse("<name>a</name>"));
    if (step("hooks", [] { return conf_plugin_init_api(&hooks); }) != 0) {
        note("hooks", get_plugin_hooks());
        return;
    }
    econf_plugin_subpub_info_t none{};
    step("init", [&] { return econf_plugin_init("demo", &none); });
    for (const auto call : {econf_plugin_pull, econf_plugin_locate}) {
        xmlNode *list = nullptr;
        step("read", [&] { return call(0, "/demo", &list); });
        xmlFreeNodeList(list);
    }
    write_all(data.get());
    step("error", [] { econf_plugin_error(5, "no"); });
    step("reply", [&] { return conf_send_reply(9, data.get(), data.get()); });
});

const story agent("agent", about::documents, [] {
    std::strcpy(g_conf_agent_socket, "/var/tmp/agent");
    const int service = conf_agent_service_enable();
    int sock = -1;
    step("connect", [&] { return (sock = conf_agent_init()) < 0 ? -1 : 0; });
    step("exit", [=] { conf_agent_exit(sock); });
    conf_agent_service_disable(service);

    conf_buffer_t *buffer = conf_buffer_create(4000); // what follows makes it grow
    std::string filling(3900, 'x');
    (void)conf_buffer_append(&buffer, filling.data(), 3900);
    for (const auto build :
         {conf_agent_build_session, conf_agent_build_capability, conf_agent_build_notify_rpc}) {
        const int before = conf_buffer_length(buffer);
        step("build", [&] { return build(&buffer, 7); });
        note("added", conf_buffer_length(buffer) == before
                          ? "nothing"
                          : conf_buffer_data(buffer) + before + sizeof(msg_head_t));
    }
    conf_buffer_destroy(buffer);
});

const story client_table("client_table", about::calls, [] {
    test::make_key_file();
    step("create", [] { return conf_clishm_create(2); });
    note_objects();
    use_table();
    step("destroy", conf_clishm_destroy);
    note_objects();
});

const story table_of_another_process("client_table_of_another_process", about::calls, [] {
    test::make_key_file();
    (void)test::create_elsewhere(2);
    use_table();
});

const story values("values", about::documents, [] {
    xmlNode *node = test::parse("<port><name>a<!--x--><![CDATA[b]]></name><mtu> 68 </mtu></port>");
    const char *text = nullptr;
    long long number = 0;
    step("find", [&] { return econf_node_find(node, "port") == node; });
    xmlNode *name = step("child", [&] { return econf_node_child(node, "name"); });
    step("text in pieces", [&] { return econf_node_text(name, &text); });
    note("text", text);
    step("next", [&] { return econf_node_next(name, "mtu") == node->last; });
    step("number", [&] { return econf_node_number(node->last, 68, 68, &number); });
    unsigned long long positive = 0;
    step("unsigned", [&] { return econf_node_unsigned(node->last, 69, 70, &positive); });
    bool_t truth = false;
    step("boolean", [&] { return econf_node_boolean(node->last, &truth); });
    static const char *const words[] = {"67", "68", nullptr};
    int index = 0;
    step("choice", [&] { return econf_node_choice(node->last, words, &index); });
    note("values", text_of(number) + text_of(positive) + text_of(truth) + text_of(index));
    step("add", [&] { return econf_node_add(node, "up", "%s", "true"); });
    xmlNode *built = step("build", [&] { return econf_node_build("a", "b", "1", "c", "", NULL); });
    note("grown", node);
    step("free", [&] { econf_node_free_list(node); });
    econf_node_free_list(built);
    char key[8];
    step("key", [&] { return econf_path_key("/l/e[k=\"a,b\"]", "e", "k", key, sizeof key); });
    note("key", key + 0);
    step("refuse", [] { return econf_plugin_refuse(22, "%s", "no plugin"); });
});

const story messages("messages", about::documents, [] {
    const std::string body = "<reply>" + test::error("5", "no") + "</reply>";
    // For libxml2, to which its text comes in pieces.
    const std::string long_text =
        "<a>" + std::string(600, 'x') + "&amp;" + std::string(2000, 'x') + "<!----></a>";
    std::string stream = test::framed(body);
    conf_buffer_t *buffer = conf_buffer_create(1000);
    (void)conf_buffer_append(&buffer, stream.data(), static_cast<int>(stream.size()));
    xmlNode *message = step("parse", [&] { return plugin_parse_message(&buffer); });
    note_size(buffer, "buffer");
    stream = test::framed(long_text);
    (void)conf_buffer_append(&buffer, stream.data(), static_cast<int>(stream.size()));
    step("parse long", [&] {
        const wiped_node whole(plugin_parse_message(&buffer));
        const char *content = whole ? conf_get_node_content(whole.get()) : nullptr;
        return content == nullptr ? -1 : static_cast<int>(std::strlen(content));
    });
    conf_buffer_destroy(buffer);

    xmlNode *result = nullptr;
    xmlNode *error = nullptr;
    step("split reply", [&] { return plugin_parse_reply(message, &result, &error); });
    step("code", [&] { return plugin_get_reply_errcode(error); });
    step("text", [&] { return plugin_get_reply_errmsg(error); });
    xmlFreeNode(message);

    xmlNode *params = test::parse("<params><path>/demo</path></params>");
    xmlNode *rpc = step("rpc", [&] { return plugin_build_rpc_message("pull", params, 12); });
    const char *method = nullptr;
    step("split rpc", [&] { return plugin_parse_rpc(rpc, &method, &params); });
    step("id", [&] { return plugin_get_msgid(rpc); });
    step("valid", [] { return static_cast<int>(is_valid_xmlchr('\1')); });
    xmlFreeNode(rpc);
    result = test::parse("<result><name>a</name></result>");
    xmlFreeNode(step("reply", [&] { return plugin_build_reply_message(result, 12); }));
});

const story paths("paths", about::calls, [] {
    const test::FakeDaemon profile;
    std::strcpy(g_conf_agent_socket, "/before");
    char *directory = nullptr;
    step("profile", [&] { return conf_load_config(&directory); });
    note("directory", directory);
    note("agent", g_conf_agent_socket + 0);
    std::free(directory);
    for (const auto convert : {plugin_path_schema2std, plugin_path_data2std, plugin_path_std2db}) {
        std::free(step("path", [&] { return convert("/a:b/a:c"); }));
    }
});

const story containers("containers", about::calls, [] {
    conf_dlq_node_t first{}, second{};
    conf_dlq_list_t list;
    step("list", [&] {
        conf_dlq_init(&list);
        (void)conf_dlq_append(&list, &second);
        (void)conf_dlq_insert(&list, &second, &first);
        const bool linked = conf_dlq_next(&list, conf_dlq_head(&list)) == &second &&
                            conf_dlq_prev(&list, conf_dlq_tail(&list)) == &first;
        conf_dlq_remove(&list, &first);
        conf_dlq_free(&list, [](void *) {});
        return linked ? 0 : -1;
    });

    char key[] = "key";
    char value[] = "longer value";
    conf_hash_tbl_t *table = step("table", [] { return conf_hash_create(8); });
    step("add", [&] { return conf_hash_add(table, key, value, 7); });
    step("add longer", [&] { return conf_hash_add(table, key, value, sizeof value); });
    step("get", [&] { return static_cast<const char *>(conf_hash_get(table, key)); });
    step("delete", [&] { conf_hash_del(table, key); });
    step("destroy", [&] { conf_hash_destroy(table); });

    conf_vec_t *vector = step("vector", [] { return conf_vector_create(1); });
    for (int index = 0; vector != nullptr && index < 2; ++index) {
        step("add", [&] { return conf_vector_add(&vector, key); });
        step("size", [&] { return conf_vector_size(vector); });
    }
    step("get", [&] { return static_cast<const char *>(conf_vector_get(vector, 0)); });
    step("remove", [&] { return conf_vector_remove(vector, 0); });
    step("destroy", [&] { conf_vector_destroy(vector, [](void *) {}); });
});

const story buffers("buffers", about::calls, [] {
    conf_buffer_t *buffer = step("create", [] { return conf_buffer_create(1000); });
    if (buffer == nullptr) {
        return;
    }
    std::string text(5000, 'x');
    step("append", [&] { return conf_buffer_append(&buffer, text.data(), 5000); });
    note_size(buffer);
    step("insert", [&] { return conf_buffer_insert(&buffer, 0, text.data(), 10); });
    note_size(buffer);
    step("remove", [&] { conf_buffer_remove(buffer, 0, 4000); });
    step("slim", [&] { conf_buffer_slim(&buffer); });
    note_size(buffer);
    step("flush", [&] { conf_buffer_flush(buffer); });
    step("data", [&] { return static_cast<const char *>(conf_buffer_data(buffer)); });
    step("length", [&] { return conf_buffer_length(buffer); });
    step("destroy", [&] { conf_buffer_destroy(buffer); });
});

const story helpers("helpers", about::calls, [] {
    int ends[2] = {-1, -1};
    (void)!pipe(ends);
    const int epoll = epoll_create1(0);
    step("non-block", [&] { return conf_non_block_fd(ends[0]); });
    step("add", [&] { return conf_event_add(epoll, ends[0], 1, 4); });
    step("change", [&] { return conf_event_reset(epoll, ends[0], 3, 5); });
    for (const int fd : {ends[0], ends[1], epoll}) {
        close(fd);
    }
    std::free(step("strip", [] { return conf_strip(" a b "); }));
    char number[32];
    step("number", [&] { return static_cast<const char *>(conf_itoa(-42, number, 32)); });
    step("time", [] { return conf_get_unix_time() > 0; });
});

const story logs("logs", about::logs, [] {
    char file[] = "/var/log/other.log";
    const fs::path usual = "/var/log/conf_plugin.log";
    step("level", [] { return econf_plugin_config_debug(DBG_ERROR, 1); });
    note("state", text_of(g_log_enable) + text_of(g_log_level) + g_debug_desc[2]);
    step("line", econf_plugin_close);
    std::ofstream(usual) << std::string(0x200001, 'x');
    inside = true;
    econf_plugin_close();
    inside = false;
    std::error_code none;
    const auto size = fs::file_size(usual, none);
    note("long file", none ? "gone" : size < 1000 ? "cut" : "kept");
    test::clear_debug_file();
    step("masked", [] { safety_syslog(11, "<password>abc</password> \"key\": abc"); });

    // A pattern that the program has put into the table.
    auto *const own = std::exchange(g_oxelKeyInfoRe[0], REG_CreateOxelKeyRe("a(b*)c"));
    char text[] = "abbc abc ac";
    step("own pattern", [&] { REG_RemarkKeyInfo(text, static_cast<int>(sizeof text - 1)); });
    note("text", text + 0);
    pcre2_code_free_8(std::exchange(g_oxelKeyInfoRe[0], own));

    // Without memory for the patterns their values are masked all the same.
    for (pcre2_code_8 *&entry : g_oxelKeyInfoRe) {
        pcre2_code_free_8(std::exchange(entry, nullptr));
    }
    char secret[] = "<password>abc</password>";
    step("new patterns", [&] { REG_RemarkKeyInfo(secret, static_cast<int>(sizeof secret - 1)); });
    note("text", secret + 0);

    step("file", [&] { return conf_dbg_enable(0, file); });
    step("no file", [] { return conf_dbg_enable(0, nullptr); });
    step("off", conf_dbg_disable);
    fs::remove(file);
});

} // namespace fault
