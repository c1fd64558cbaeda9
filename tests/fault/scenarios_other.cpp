// Stories of everything that needs no plugin: the daemon's own calls, agents, the client table,
// messages and paths, containers, and the logs.
#include "scenarios.h"

#include "conf_debug.h"
#include "conf_dlq.h"
#include "conf_hash.h"
#include "conf_misc.h"
#include "conf_plugin.h"
#include "conf_vec.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/epoll.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fault {

namespace {

void set_paths()
{
    std::strcpy(g_conf_agent_socket, "/var/tmp/agent");
    std::strcpy(g_conf_plugin_socket, "/var/tmp/plugin");
    std::strcpy(g_conf_notifier_socket, "/var/tmp/notifier");
}

std::string size_of(conf_buffer_t *buffer)
{
    return std::to_string(conf_buffer_length(buffer)) + " of " + std::to_string(buffer->total);
}

// ---- local mode --------------------------------------------------------------------------------

int read_hook(bool_t /*old*/, const char * /*path*/, xmlNode **result)
{
    leave_library();
    *result = test::parse("<name>a</name>");
    enter_library();
    return 0;
}

int write_hook(const char * /*path*/, xmlNode * /*data*/)
{
    return 7;
}

int deploy_hook(const char * /*path*/, int oper, xmlNode * /*data*/)
{
    return oper;
}

int save_hook()
{
    return 8;
}

int copy_hook(int override_flag)
{
    return override_flag;
}

void error_hook(int /*code*/, const char * /*text*/) {}

int reply_hook(int session, xmlNode * /*rpc*/, xmlNode * /*data*/)
{
    return session;
}

confd_plugin_callback_t hooks = {read_hook, read_hook, write_hook, deploy_hook,
                                 save_hook, copy_hook, error_hook, reply_hook};

// ---- the client table --------------------------------------------------------------------------

constexpr const char *key_file = "/mnt/squash/local/etc/confd/confd.conf";

conf_cli_info_t client(int pid)
{
    conf_cli_info_t info{};
    info.sshd_pid = pid;
    return info;
}

void note_objects()
{
    const key_t key = ftok(key_file, 0);
    const int semaphore = semget(key, 0, 0);
    note("objects",
         std::string(shmget(key, 0, 0) < 0 ? "no segment" : "segment") +
             (semaphore < 0 ? "" : ", unlocked " + std::to_string(semctl(semaphore, 0, GETVAL))));
}

void use_table()
{
    for (const int pid : {100, 200}) {
        step("save", [=] {
            conf_cli_info_t info = client(pid);
            return conf_save_client_info(&info);
        });
    }
    step("find", [] {
        conf_cli_info_t info{};
        return conf_get_client_info(200, &info) == 0 ? static_cast<int>(info.sshd_pid) : -1;
    });
    step("free", [] { conf_free_client_info(100); });
    note_objects();
}

void make_key_file()
{
    std::filesystem::create_directories(std::filesystem::path(key_file).parent_path());
    std::ofstream(key_file, std::ios::app).flush();
}

} // namespace

void services()
{
    set_paths();
    struct service {
        const char *name;
        int (*enable)();
        void (*disable)(int);
        const char *path;
    };
    const service all[] = {
        {"plugin", conf_plugin_service_enable, conf_plugin_service_disable, g_conf_plugin_socket},
        {"agent", conf_agent_service_enable, conf_agent_service_disable, g_conf_agent_socket},
        {"notifier", conf_plugin_notifier_enable, conf_plugin_notifier_disable,
         g_conf_notifier_socket},
    };
    for (const service &each : all) {
        umask(022);
        const std::string name = each.name;
        const int sock = step_fd(name, each.enable);
        struct stat status {};
        note("mode",
             stat(each.path, &status) == 0 ? std::to_string(status.st_mode & 0777) : "none");
        note("mask", std::to_string(umask(022)));
        step(name + " off", [&] { each.disable(sock); });
        note("file", std::filesystem::exists(each.path) ? "left" : "gone");
    }
}

void local_mode()
{
    const node_ptr data(test::parse("<name>a</name>"));
    if (step("hooks", [] { return conf_plugin_init_api(&hooks); }) != 0) {
        note("hooks", text_of(static_cast<const void *>(get_plugin_hooks())));
        return;
    }
    econf_plugin_subpub_info_t none{};
    step("init", [&] { return econf_plugin_init("demo", &none); });
    for (const auto call : {econf_plugin_pull, econf_plugin_locate}) {
        xmlNode *list = nullptr;
        step("read", [&] { return call(0, "/demo", &list); });
        xmlFreeNodeList(list);
    }
    step("push", [&] { return econf_plugin_push("/demo", data.get()); });
    step("deploy", [&] { return econf_plugin_config_deployment("/demo", 1, data.get()); });
    step("save", econf_plugin_save_deployment);
    step("copy", [] { return econf_plugin_copy_running_to_deployment(1); });
    step("error", [] { econf_plugin_error(5, "no"); });
    step("reply", [&] { return conf_send_reply(9, data.get(), data.get()); });
}

void agent()
{
    set_paths();
    const int service = conf_agent_service_enable();
    const int sock = step_fd("connect", conf_agent_init);
    step("exit", [=] { conf_agent_exit(sock); });
    conf_agent_service_disable(service);

    conf_buffer_t *buffer = conf_buffer_create(4000); // what follows makes it grow
    std::string filling(3900, 'x');
    (void)conf_buffer_append(&buffer, filling.data(), 3900);
    for (const auto build :
         {conf_agent_build_session, conf_agent_build_capability, conf_agent_build_notify_rpc}) {
        const int before = conf_buffer_length(buffer);
        step("build", [&] { return build(&buffer, 7); });
        const char *added = conf_buffer_data(buffer) + before;
        note("added",
             conf_buffer_length(buffer) == before ? "nothing" : added + sizeof(msg_head_t));
    }
    conf_buffer_destroy(buffer);
}

void client_table()
{
    make_key_file();
    step("create", [] { return conf_clishm_create(2); });
    note_objects();
    use_table();
    step("destroy", conf_clishm_destroy);
    note_objects();
}

void client_table_of_another_process()
{
    make_key_file();
    if (const pid_t creator = fork(); creator == 0) {
        _exit(conf_clishm_create(2));
    } else {
        waitpid(creator, nullptr, 0);
    }
    use_table();
}

void messages()
{
    const std::string body = "<reply><error><code>5</code><message>no</message></error></reply>";
    std::string stream = test::framed(body);
    conf_buffer_t *buffer = conf_buffer_create(1000);
    (void)conf_buffer_append(&buffer, stream.data(), static_cast<int>(stream.size()));
    xmlNode *message = step("parse", [&] { return plugin_parse_message(&buffer); });
    note("buffer", size_of(buffer));
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
    step("id", [&] { return static_cast<int>(plugin_get_msgid(rpc)); });
    step("valid", [] { return static_cast<int>(is_valid_xmlchr('\1')); });
    xmlFreeNode(rpc);
    result = test::parse("<result><name>a</name></result>");
    xmlFreeNode(step("reply", [&] { return plugin_build_reply_message(result, 12); }));
}

void paths()
{
    const test::FakeDaemon profile;
    std::strcpy(g_conf_agent_socket, "/before");
    char *directory = nullptr;
    step("profile", [&] { return conf_load_config(&directory); });
    note("directory", text_of(directory));
    note("agent", g_conf_agent_socket);
    std::free(directory);
    for (const auto convert : {plugin_path_schema2std, plugin_path_data2std, plugin_path_std2db}) {
        std::free(step("path", [&] { return convert("/a:b/a:c"); }));
    }
}

void containers()
{
    struct entry {
        conf_dlq_node_t node;
    };
    entry first{};
    entry second{};
    conf_dlq_list_t list;
    step("list", [&] {
        conf_dlq_init(&list);
        (void)conf_dlq_append(&list, &second.node);
        (void)conf_dlq_insert(&list, &second.node, &first.node);
        const bool linked = conf_dlq_next(&list, conf_dlq_head(&list)) == &second.node &&
                            conf_dlq_prev(&list, conf_dlq_tail(&list)) == &first.node;
        conf_dlq_remove(&list, &first.node);
        conf_dlq_free(&list, [](void * /*node*/) {});
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
    step("destroy", [&] { conf_vector_destroy(vector, [](void * /*data*/) {}); });
}

void buffers()
{
    conf_buffer_t *buffer = step("create", [] { return conf_buffer_create(1000); });
    if (buffer == nullptr) {
        return;
    }
    std::string text(5000, 'x');
    step("append", [&] { return conf_buffer_append(&buffer, text.data(), 5000); });
    note("size", size_of(buffer));
    step("insert", [&] { return conf_buffer_insert(&buffer, 0, text.data(), 10); });
    note("size", size_of(buffer));
    step("remove", [&] { conf_buffer_remove(buffer, 0, 4000); });
    step("slim", [&] { conf_buffer_slim(&buffer); });
    note("size", size_of(buffer));
    step("flush", [&] { conf_buffer_flush(buffer); });
    step("data", [&] { return static_cast<const char *>(conf_buffer_data(buffer)); });
    step("length", [&] { return conf_buffer_length(buffer); });
    step("destroy", [&] { conf_buffer_destroy(buffer); });
}

void helpers()
{
    int ends[2] = {-1, -1};
    (void)!pipe(ends);
    const int epoll = epoll_create1(0);
    step("non-block", [&] { return conf_non_block_fd(ends[0]); });
    step("add", [&] { return conf_event_add(epoll, ends[0], 1, 4); });
    step("change", [&] { return conf_event_reset(epoll, ends[0], 3, 5); });
    for (const int fd : {ends[0], ends[1], epoll}) {
        close(fd);
    }
    const node_ptr tree(test::parse("<name>a</name>"));
    step("content", [&] { return conf_get_node_content(tree.get()); });
    std::free(step("strip", [] { return conf_strip(" a b "); }));
    char number[32];
    step("number", [&] { return static_cast<const char *>(conf_itoa(-42, number, 32)); });
    step("time", [] { return static_cast<int>(conf_get_unix_time() > 0); });
}

void logs()
{
    const std::string file = "/var/log/other.log";
    step("level", [] { return econf_plugin_config_debug(DBG_ERROR, 1); });
    note("state", std::to_string(g_log_enable) + std::to_string(g_log_level) + g_debug_desc[2]);
    step("line", [] { econf_plugin_close(); });
    std::ofstream("/var/log/conf_plugin.log") << std::string(0x200001, 'x');
    enter_library();
    econf_plugin_close();
    leave_library();
    std::error_code none;
    const auto size = std::filesystem::file_size("/var/log/conf_plugin.log", none);
    note("long file", none ? "gone" : size < 1000 ? "cut" : "kept");
    test::clear_debug_file();
    step("masked", [] { safety_syslog(11, "<password>abc</password> \"key\": abc"); });

    // A pattern that the program has put into the table.
    pcre2_code_8 *const own = g_oxelKeyInfoRe[0];
    int error = 0;
    PCRE2_SIZE offset = 0;
    g_oxelKeyInfoRe[0] = pcre2_compile_8(reinterpret_cast<PCRE2_SPTR8>("a(b*)c"),
                                         PCRE2_ZERO_TERMINATED, 0, &error, &offset, nullptr);
    char text[] = "abbc abc ac";
    step("own pattern", [&] { REG_RemarkKeyInfo(text, static_cast<int>(sizeof text - 1)); });
    note("text", text);
    pcre2_code_free_8(g_oxelKeyInfoRe[0]);
    g_oxelKeyInfoRe[0] = own;

    step("file", [&] { return conf_dbg_enable(0, const_cast<char *>(file.c_str())); });
    step("no file", [] { return conf_dbg_enable(0, nullptr); });
    step("off", conf_dbg_disable);
    std::filesystem::remove(file);
}

} // namespace fault
