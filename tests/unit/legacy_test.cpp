// The older plugin interface: what its calls send, give and report, and how it differs from the
// newer one.
#include "conf_plugin/xml.h"
#include "demo_plugin.h"
#include "xml_memory.h"

#include <atomic>
#include <csignal>
#include <fstream>
#include <thread>
#include <unistd.h>

using namespace test;

namespace {

char settings[] = "/demo/settings";
char state[] = "/demo/state";
char reset[] = "reset";
char none[] = "none";

config_callback_t configs[] = {{settings, 10,
                                [](int oper, int more, int priority, char *path) {
                                    return old_config(oper, more, priority, path);
                                }},
                               {nullptr, 0, nullptr}};
status_callback_t states[] = {
    {state,
     [](char *path, char *filter, xmlNode **status) { return old_status(path, filter, status); }},
    {nullptr, nullptr}};
rpc_callback_t operations[] = {{reset, old_operate}, {none, nullptr}, {nullptr, nullptr}};

void on_kick_off()
{
    called += "kick-off";
}

void on_uninstall(char * /*name*/)
{
    called += "uninstall";
}

conf_plugin_info_t subscriptions = {configs, states, operations, on_kick_off, nullptr};

const std::string not_ready = "Plugin context is not ready or not be activated.";

class LegacyTest : public PluginFixture {
protected:
    void SetUp() override
    {
        PluginFixture::SetUp();
        act = {};
        called.clear();
    }

    // The request that `call` sends, and that is answered.
    std::string sent_by(const std::string &answer, const std::function<void()> &call)
    {
        clear_debug_file();
        std::string request;
        daemon->play([&](Peer &p) { request = p.answer(answer); });
        call();
        peer = &daemon->finish();
        return request;
    }

    // The same for a request whose id is to be 3.
    std::string third_sent_by(const std::string &answer, const std::function<void()> &call)
    {
        get_plugin_context()->rpc_id = 3;
        return sent_by(answer, call);
    }

    std::string init(const std::string &answer = "<result/>")
    {
        return sent_by(answer, [this] { context = conf_plugin_init(name, &subscriptions); });
    }

    std::string start_session(int with_cfgr)
    {
        return sent_by("<result/>",
                       [=, this] { EXPECT_EQ(conf_start_session(context, with_cfgr), 0); });
    }

    void begin()
    {
        init();
        ASSERT_NE(context, nullptr);
        start_session(0);
        clear_debug_file();
    }

    char name[5] = "demo";
    conf_context_t *context = nullptr;
};

// ---- registration and callbacks ----------------------------------------------------------------

TEST_F(LegacyTest, RegistersAsTheNewerInterfaceDoes)
{
    EXPECT_EQ(conf_plg_get_hconf(nullptr), -1);
    EXPECT_EQ(conf_plugin_close(nullptr), 0);
    EXPECT_EQ(conf_plugin_init(name, nullptr), nullptr);

    auto *const info = reinterpret_cast<econf_plugin_subpub_info_t *>(&subscriptions);
    const std::string newer =
        sent_by("<result/>", [&] { EXPECT_GE(econf_plugin_init(name, info), 0); });
    econf_plugin_close();
    daemon->forget_connection();
    EXPECT_NE(newer.find("<subscriber><path>none</path><callback>4</callback></subscriber>"),
              std::string::npos)
        << newer;

    for (void (*const uninstall)(char *) : {static_cast<void (*)(char *)>(nullptr), on_uninstall}) {
        subscriptions.uninstall = uninstall;
        EXPECT_EQ(init(error("1", "refused")), newer);
        EXPECT_EQ(context, nullptr);
        daemon->forget_connection();
        EXPECT_EQ(init(), newer);
        const conf_plugin_context_t *const plugin = get_plugin_context();
        ASSERT_NE(plugin, nullptr);
        EXPECT_EQ(static_cast<void *>(context), plugin);
        EXPECT_EQ(plugin->version, 1);
        EXPECT_EQ(conf_plg_get_hconf(nullptr), plugin->sock);
        EXPECT_EQ(conf_plugin_init(name, &subscriptions), nullptr) << "there is one already";
        EXPECT_EQ(start_session(ACTIVATE_WITH_CFGR),
                  rpc("activate", "<params><with-cfgr/></params>", "2"));
        EXPECT_EQ(conf_plugin_close(context), 0);
        EXPECT_EQ(conf_plg_get_hconf(context), -1);
        daemon->forget_connection();
    }
    EXPECT_EQ(called, "");
    subscriptions.uninstall = nullptr;
}

TEST_F(LegacyTest, CallsTheOlderCallbacks)
{
    begin();
    const auto own_error = [] { EXPECT_EQ(conf_set_error(7, "own"), 0); };
    const auto other_error = [] { EXPECT_EQ(conf_plg_set_error(nullptr, 8, nullptr), 0); };
    const struct {
        std::string request, call, answer;
        behaviour does = {};
    } rows[] = {
        {config("/a[k=\"1\"]"), "config 1 0 10 /a[k=1]", succeeded()},
        {config("/a", std::to_string(CONFIG_OP_CFGR)), "config 16384 0 10 /a", failed("4"),
         returns(4)},
        {config("/a"), "config 1 0 10 /a", failed("7", "own"), {4, own_error, {}}},
        {config("/a"), "config 1 0 10 /a", failed("8"), {4, other_error, {}}},
        {subscribe("<path>/s</path><filter>f</filter>"), "status /s f",
         succeeded("<result><data><s/></data></result>"), gives(element("<s/>"))},
        {operate("<a/>"), "operate <a/>", succeeded("<result><ok/></result>")},
        {operate("<a/>"), "operate <a/>", succeeded("<result><o>1</o><p/></result>"),
         gives(element("<w><o>1</o><p/></w>"))},
        {operate("<a/>"), "operate <a/>", succeeded(), gives(element("<w/>"))},
        {kick_off, "kick-off", succeeded()},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.call);
        act = row.does;
        called.clear();
        peer->send(framed(row.request));
        EXPECT_EQ(conf_run(context, 0), 0);
        EXPECT_EQ(called, row.call);
        EXPECT_EQ(peer->received(), strings{row.answer});
    }
    EXPECT_EQ(conf_recovery_status(), 0);
    EXPECT_EQ(errors(), strings());
    ++g_rdb_recovery_status;
    EXPECT_EQ(conf_recovery_status(), 1);
    g_rdb_recovery_status = 0;
}

// ---- requests ----------------------------------------------------------------------------------

TEST_F(LegacyTest, ReadsConfiguration)
{
    begin();
    const struct {
        const char *answer;
        std::string list;
        strings log = {};
    } rows[] = {
        {"<result><data><a>1</a>text<b x=\"2\"><c/></b></data></result>",
         "<a>1</a>text<b x=\"2\"><c/></b>"},
        {"<result xmlns=\"u:1\" xmlns:p=\"u:2\"><data><p:a/><p:b><c/></p:b></data></result>",
         "<p:a xmlns:p=\"u:2\"/><p:b xmlns:p=\"u:2\" xmlns=\"u:1\"><c/></p:b>"},
        {"<result><data/></result>", ""},
        {"<error><code>1</code></error>", ""},
        {"",
         "",
         {"Invalid reply message(without <error> and <result>).",
          "Parse reply for plugin demo rpc failed."}},
    };
    for (const auto &row : rows) {
        for (const bool old : {false, true}) {
            SCOPED_TRACE(::testing::Message() << row.answer << (old ? ", old" : ""));
            const std::string request = rpc("pull",
                                            std::string("<params>") + (old ? "<old/>" : "") +
                                                "<path>/demo/settings</path></params>",
                                            "3");
            xmlNode *list = nullptr;
            std::string sent = third_sent_by(row.answer, [&] {
                list = (old ? conf_get_old_config : conf_get_config)(settings);
            });
            EXPECT_EQ(sent, request);
            EXPECT_EQ(list_of(list), row.list);
            EXPECT_EQ(errors(), row.log);
            xmlFreeNodeList(list);

            xmlNode before{};
            conf_val_t value = {&before};
            sent = third_sent_by(row.answer, [&] {
                const auto read = old ? conf_plg_get_old_value : conf_plg_get_value;
                EXPECT_EQ(read(context, settings, &value), 0);
            });
            EXPECT_EQ(sent, request);
            EXPECT_EQ(list_of(value.data), row.list.empty() ? "" : "<data>" + row.list + "</data>");
            xmlFreeNode(value.data);
            EXPECT_EQ(errors(), row.log);
        }
    }
}

TEST_F(LegacyTest, WritesConfiguration)
{
    begin();
    const node_ptr data(parse("<a>1</a>"));
    conf_val_t value = {data.get()};
    const std::string request =
        rpc("push", "<params><path>/demo/settings</path><data><a>1</a></data></params>", "3");
    const std::function<int()> calls[] = {
        [&] { return conf_set_config(settings, data.get()); },
        [&] { return conf_plg_set_value(context, 0, settings, &value); },
        [&] { return conf_plg_set_value(context, 7, settings, &value); }};
    for (const auto &call : calls) {
        int result = 1;
        EXPECT_EQ(third_sent_by("<result/>", [&] { result = call(); }), request);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(third_sent_by(error("1", "no"), [&] { result = call(); }), request);
        EXPECT_EQ(result, -1);
    }
}

TEST_F(LegacyTest, RefusesWhatCannotBe)
{
    xmlNode node{};
    conf_val_t value = {&node};
    const auto read = [&] { return conf_plg_get_value(context, settings, &value); };
    const strings no_path = {"Input parameters error(path=(nil), val=" + place(&value) + ")."};
    const strings no_value = {"Input parameters error(path=" + place(settings) + ", val=(nil))."};
    const struct {
        std::function<int()> call;
        int result;
        strings log;
    } rows[] = {
        {[&] { return conf_plg_get_value(context, nullptr, &value); }, -1, no_path},
        {[&] { return conf_plg_get_value(context, settings, nullptr); }, -1, no_value},
        {[&] { return conf_plg_get_old_value(context, nullptr, &value); }, -1, no_path},
        {[&] { return conf_plg_get_old_value(context, settings, nullptr); }, -1, no_value},
        {[&] { return conf_plg_set_value(context, 0, nullptr, &value); }, -1, no_path},
        {[&] { return conf_plg_set_value(context, 0, settings, nullptr); }, -1, no_value},
        // Without a plugin:
        {[&] { return conf_plg_set_value(context, 0, settings, &value); }, -1, {not_ready}},
        {[&] { return conf_set_config(settings, &node); }, -1, {not_ready}},
        {read, 0, {not_ready}},
        {[&] { return conf_get_config(settings) == nullptr ? 0 : 1; }, 0, {not_ready}},
        {[&] { return conf_set_error(5, "text"); }, 0, {not_ready}},
        {[&] { return conf_plg_set_error(context, 5, none); }, 0, {not_ready}},
        {[&] { return conf_start_session(context, 0); },
         -1,
         {"Plugin context is not ready when active."}},
        {[&] { return conf_run(context, 0); }, 0, {not_ready}},
        {[&] { return conf_run(context, 1); }, -1, {}},
        {[&] { return conf_plugin_close(context); },
         0,
         {"Plugin context is not ready when close."}},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(i);
        clear_debug_file();
        value.data = &node;
        EXPECT_EQ(rows[i].call(), rows[i].result);
        EXPECT_EQ(errors(), rows[i].log);
    }
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(value.data, nullptr);
}

// ---- inside the daemon -------------------------------------------------------------------------

TEST_F(LegacyTest, ReadsNothingWhenMemoryRunsOut)
{
    confd_plugin_callback_t hooks{};
    hooks.conf_plugin_pull = [](bool_t, const char *, xmlNode **result) {
        *result = nodes_of("<l><a>1</a><b/></l>")(nullptr);
        xml_heap.fail_at(act.result, false); // what comes next is ours
        return 0;
    };
    ASSERT_EQ(conf_plugin_init_api(&hooks), 0);
    bool failed = true;
    for (act.result = 1; failed; ++act.result) {
        const std::size_t blocks = xml_heap.blocks.size();
        clear_debug_file();
        xmlNode before{};
        conf_val_t value = {&before};
        const int result = conf_plg_get_value(nullptr, settings, &value);
        failed = xml_heap.failed;
        xml_heap.work_again();
        xmlResetLastError();
        EXPECT_EQ(result, failed ? -1 : 0);
        EXPECT_EQ(list_of(value.data), failed ? "" : "<data><a>1</a><b/></data>");
        EXPECT_EQ(errors(), failed ? strings{"Create <data> node failed."} : strings());
        xmlFreeNode(value.data);
        EXPECT_EQ(xml_heap.blocks.size(), blocks);
    }
    EXPECT_GT(act.result, 2);
    free(get_plugin_hooks());
}

TEST_F(LegacyTest, HandsAReplyToItsHook)
{
    static int session = 0;
    static std::string nodes;
    const strings obsolete = {"WARN: conf_send_reply is obsolete."};
    const node_ptr request(parse("<r/>"));
    const node_ptr data(parse("<d/>"));
    EXPECT_EQ(conf_send_reply(3, request.get(), data.get()), -1);
    EXPECT_EQ(errors(), obsolete);
    for (const bool with_slot : {false, true}) {
        confd_plugin_callback_t hooks{};
        if (with_slot) {
            hooks.conf_plugin_reply = [](int id, xmlNode *input, xmlNode *output) {
                session = id;
                nodes = list_of(input) + list_of(output);
                return 9;
            };
        }
        ASSERT_EQ(conf_plugin_init_api(&hooks), 0);
        clear_debug_file();
        EXPECT_EQ(conf_send_reply(3, request.get(), data.get()), with_slot ? 9 : -1);
        EXPECT_EQ(errors(), obsolete);
        free(get_plugin_hooks());
        del_plugin_from_hash();
    }
    EXPECT_EQ(session, 3);
    EXPECT_EQ(nodes, "<r/><d/>");
}

// ---- conf_run ----------------------------------------------------------------------------------

std::atomic<int> signals = 0;

// Sends a signal to the main thread when it waits, and returns when it has been delivered.
void interrupt_wait()
{
    const std::string stat = "/proc/self/task/" + std::to_string(getpid()) + "/stat";
    for (std::string id, name, condition; condition != "S";) {
        std::ifstream(stat) >> id >> name >> condition;
    }
    const int before = signals;
    kill(getpid(), SIGUSR1);
    while (signals == before) {
        std::this_thread::yield();
    }
}

TEST_F(LegacyTest, ServesUntilTheDaemonHangsUp)
{
    begin();
    struct sigaction action {};
    struct sigaction former {};
    action.sa_handler = [](int) { ++signals; };
    sigaction(SIGUSR1, &action, &former);
    // One request is there already: no event comes for it.
    std::string buffered = framed(with_id(config("/a"), "1"));
    ASSERT_EQ(conf_buffer_append(&get_plugin_context()->recv_buf, buffered.data(),
                                 static_cast<int>(buffered.size())),
              0);
    strings replies;
    daemon->play([&](Peer &p) {
        replies.push_back(p.receive());
        for (const char *id : {"2", "3"}) {
            interrupt_wait();
            p.send(framed(with_id(operate("<a/>"), id)));
            replies.push_back(p.receive());
        }
        p.close();
    });
    EXPECT_EQ(conf_run(context, 1), 0);
    daemon->finish();
    EXPECT_EQ(replies, (strings{reply("<result/>", "1"), reply("<result><ok/></result>", "2"),
                                reply("<result><ok/></result>", "3")}));
    EXPECT_EQ(called, "config 1 0 10 /aoperate <a/>operate <a/>");
    EXPECT_EQ(errors(), strings{"An error epoll event occur(0x?)."});
    EXPECT_NE(get_plugin_context(), nullptr) << "closing is up to the plugin";
    sigaction(SIGUSR1, &former, nullptr);
}

TEST_F(LegacyTest, ServesUntilACallbackClosesThePlugin)
{
    const auto close_plugin = [] { conf_plugin_close(nullptr); };
    const auto begin_anew = [this] {
        conf_plugin_close(context);
        daemon->forget_connection();
        act = {};
        begin();
    };
    for (const bool anew : {false, true}) {
        for (const bool buffered : {false, true}) {
            SCOPED_TRACE(::testing::Message() << anew << buffered);
            begin();
            act.inside = close_plugin;
            if (anew) {
                act.inside = begin_anew;
            }
            std::string request = framed(config("/a"));
            if (buffered) {
                conf_buffer_append(&get_plugin_context()->recv_buf, request.data(),
                                   static_cast<int>(request.size()));
            } else {
                peer->send(request);
            }
            EXPECT_EQ(conf_run(context, 1), 0);
            EXPECT_EQ(get_plugin_context() != nullptr, anew);
            EXPECT_EQ(errors(), strings());
            conf_plugin_close(context);
            daemon->forget_connection();
        }
    }
}

TEST_F(LegacyTest, FailsWhenItCannotWait)
{
    begin();
    EXPECT_EQ(without_descriptors([&] { return conf_run(context, 1); }), -1);
}

} // namespace
