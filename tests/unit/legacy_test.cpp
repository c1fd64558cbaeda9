// The older plugin interface: what its calls send, give and report, and how it differs from the
// newer one.
#include "conf_plugin/xml.h"
#include "demo_plugin.h"

using namespace test;

namespace {

char name[] = "demo";
char settings[] = "/demo/settings";
char state[] = "/demo/state";
char reset[] = "reset";
char none[] = "none";

config_callback_t configs[] = {{settings, 10, old_config}, {nullptr, 0, nullptr}};
status_callback_t states[] = {{state, old_status}, {nullptr, nullptr}};
rpc_callback_t operations[] = {{reset, old_operate}, {none, nullptr}, {nullptr, nullptr}};
conf_plugin_info_t subscriptions = {configs, states, operations, [] { called += "kick-off"; },
                                    [](char *) { called += "uninstall"; }};

class LegacyTest : public PluginFixture {
protected:
    void SetUp() override
    {
        PluginFixture::SetUp();
        act = {};
        called.clear();
    }

    std::string init(const std::string &answer = "<result/>")
    {
        return request_of([this] { context = conf_plugin_init(name, &subscriptions); }, answer);
    }

    std::string start_session(int with_cfgr)
    {
        return request_of([=, this] { EXPECT_EQ(conf_start_session(context, with_cfgr), 0); });
    }

    void begin()
    {
        init();
        ASSERT_NE(context, nullptr);
        start_session(0);
        clear_debug_file();
    }

    // The request that `call` sends, with the id 3 each time.
    std::string third_request(const std::string &answer, const std::function<void()> &call)
    {
        get_plugin_context()->rpc_id = 3;
        return request_of(call, answer);
    }

    conf_context_t *context = nullptr;
};

TEST_F(LegacyTest, RegistersAsTheNewerInterfaceDoes)
{
    EXPECT_EQ(conf_plg_get_hconf(nullptr), -1);
    EXPECT_EQ(conf_plugin_init(name, nullptr), nullptr);
    auto *const info = reinterpret_cast<econf_plugin_subpub_info_t *>(&subscriptions);
    const std::string newer = request_of([&] { EXPECT_GE(econf_plugin_init(name, info), 0); });
    econf_plugin_close();
    daemon->forget_connection();
    EXPECT_NE(newer.find("<path>none</path><callback>4</callback>"), std::string::npos) << newer;

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
    EXPECT_EQ(get_plugin_context(), nullptr);
    EXPECT_EQ(called, "") << "least of all the function for uninstalling";
}

TEST_F(LegacyTest, CallsTheOlderCallbacks)
{
    begin();
    xmlNode *const own = parse("<own><w><z>1</z></w></own>");
    const auto own_error = [] { EXPECT_EQ(conf_set_error(7, "own"), 0); };
    const auto other_error = [] { EXPECT_EQ(conf_plg_set_error(nullptr, 8, nullptr), 0); };
    const struct {
        std::string request, call, answer;
        behaviour does = {};
    } rows[] = {
        {config("/a[k=\"1\"]"), "config 1 0 10 /a[k=1]", succeeded()},
        {config("/a", "16384"), "config 16384 0 10 /a", failed("4"), returns(4)},
        {config("/a"), "config 1 0 10 /a", failed("7", "own"), {4, own_error, {}}},
        {config("/a"), "config 1 0 10 /a", failed("8"), {4, other_error, {}}},
        {subscribe("<path>/s</path><filter>f</filter>"), "status /s f",
         succeeded("<result><data><s/></data></result>"), gives(element("<s/>"))},
        {operate("<a/>"), "operate <a/>", succeeded("<result><ok/></result>")},
        {operate("<a/>"), "operate <a/>", succeeded("<result><o>1</o><p/></result>"),
         gives(element("<w><o>1</o><p/></w>"))},
        {operate("<a/>"), "operate <a/>", succeeded(), gives(element("<w/>"))},
        {operate("<a><b/></a>"), "operate <a><b/></a>", succeeded("<result><b/></result>"),
         gives([](xmlNode *input) { return input; })},
        {operate("<a/>"), "operate <a/>", succeeded("<result><z>1</z></result>"),
         gives([=](xmlNode *) { return own->children; })},
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
    EXPECT_EQ(print(own), "<own><w><z>1</z></w></own>");
    xmlFreeNode(own);
    EXPECT_EQ(take_errors(), "");
    EXPECT_EQ(conf_recovery_status(), 0);
    ++g_rdb_recovery_status;
    EXPECT_EQ(conf_recovery_status(), 1);
    g_rdb_recovery_status = 0;
}

TEST_F(LegacyTest, ReadsConfiguration)
{
    begin();
    const struct {
        const char *answer;
        std::string list;
    } rows[] = {
        {"<result xmlns=\"u:1\" xmlns:p=\"u:2\"><data><p:a/>text<p:b><c/></p:b></data></result>",
         "<p:a xmlns:p=\"u:2\"/>text<p:b xmlns:p=\"u:2\" xmlns=\"u:1\"><c/></p:b>"},
        {"<result><data/></result>", ""},
        {"", ""}, // a failed read and an empty one look the same
    };
    for (const auto &row : rows) {
        for (const std::string old : {"", "<old/>"}) {
            SCOPED_TRACE(row.answer + old);
            const std::string request =
                rpc("pull", "<params>" + old + "<path>/demo/settings</path></params>", "3");
            xmlNode *list = nullptr;
            const auto get_list = old.empty() ? conf_get_config : conf_get_old_config;
            EXPECT_EQ(third_request(row.answer, [&] { list = get_list(settings); }), request);
            EXPECT_EQ(list_of(list), row.list);
            xmlFreeNodeList(list);

            xmlNode before{};
            conf_val_t value = {&before};
            const auto get = old.empty() ? conf_plg_get_value : conf_plg_get_old_value;
            const auto call = [&] { EXPECT_EQ(get(context, settings, &value), 0); };
            EXPECT_EQ(third_request(row.answer, call), request);
            EXPECT_EQ(list_of(value.data), row.list.empty() ? "" : "<data>" + row.list + "</data>");
            xmlFreeNode(value.data);
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
    for (const int result : {0, -1}) {
        const std::string answer = result == 0 ? "<result/>" : error("1", "no");
        const auto set_config = [&] { EXPECT_EQ(conf_set_config(settings, data.get()), result); };
        const auto set_value = [&] {
            EXPECT_EQ(conf_plg_set_value(context, 7, settings, &value), result);
        };
        EXPECT_EQ(third_request(answer, set_config), request);
        EXPECT_EQ(third_request(answer, set_value), request);
    }
}

TEST_F(LegacyTest, RefusesWhatCannotBe)
{
    xmlNode node{};
    conf_val_t value = {&node};
    const std::string no_path = "Input parameters error(path=(nil), val=" + place(&value) + ").\n";
    const std::string no_value = "Input parameters error(path=" + place(settings) + ", val=(nil)).";
    EXPECT_EQ(conf_plg_get_value(context, nullptr, &value), -1);
    EXPECT_EQ(conf_plg_get_value(context, settings, nullptr), -1);
    EXPECT_EQ(take_errors(), no_path + no_value);
    EXPECT_EQ(conf_plg_set_value(context, 0, nullptr, &value), -1);
    EXPECT_EQ(conf_plg_set_value(context, 0, settings, nullptr), -1);
    EXPECT_EQ(take_errors(), no_path + no_value);
    // Without a plugin:
    EXPECT_EQ(conf_plg_set_value(context, 0, settings, &value), -1);
    EXPECT_EQ(conf_plg_get_value(context, settings, &value), 0);
    EXPECT_EQ(value.data, nullptr);
    EXPECT_EQ(conf_get_config(settings), nullptr);
    EXPECT_EQ(conf_set_error(5, "text"), 0);
    EXPECT_EQ(conf_start_session(context, 0), -1);
    EXPECT_EQ(conf_run(context, 0), 0);
    EXPECT_EQ(conf_run(context, 1), -1);
    EXPECT_EQ(conf_plugin_close(context), 0);
}

// ---- inside the daemon -------------------------------------------------------------------------

TEST_F(LegacyTest, HandsAReplyToItsHook)
{
    const node_ptr request(parse("<r/>"));
    const node_ptr data(parse("<d/>"));
    confd_plugin_callback_t without{};
    confd_plugin_callback_t with{};
    with.conf_plugin_reply = [](int session, xmlNode *input, xmlNode *output) {
        called += std::to_string(session) + list_of(input) + list_of(output);
        return 9;
    };
    for (confd_plugin_callback_t *hooks :
         {static_cast<confd_plugin_callback_t *>(nullptr), &without, &with}) {
        get_plugin_from_hash()->confd_hooks = hooks;
        EXPECT_EQ(conf_send_reply(3, request.get(), data.get()), hooks == &with ? 9 : -1);
        EXPECT_EQ(take_errors(), "WARN: conf_send_reply is obsolete.");
    }
    EXPECT_EQ(called, "3<r/><d/>");
}

// ---- conf_run ----------------------------------------------------------------------------------

TEST_F(LegacyTest, ServesUntilTheDaemonHangsUp)
{
    begin();
    leave_over(framed(with_id(config("/a"), "1"))); // no event comes for it
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
    EXPECT_EQ(take_errors(), "An error epoll event occur(0x?).");
    EXPECT_NE(get_plugin_context(), nullptr) << "closing is up to the plugin";
    EXPECT_EQ(without_descriptors([&] { return conf_run(context, 1); }), -1) << "cannot wait";
}

TEST_F(LegacyTest, ServesUntilACallbackClosesThePlugin)
{
    for (const bool anew : {false, true}) {
        for (const bool buffered : {false, true}) {
            SCOPED_TRACE(::testing::Message() << anew << buffered);
            begin();
            act.inside = [=, this] {
                conf_plugin_close(context);
                if (anew) {
                    daemon->forget_connection();
                    act = {};
                    begin();
                }
            };
            const std::string request = framed(config("/a"));
            buffered ? leave_over(request) : peer->send(request);
            EXPECT_EQ(conf_run(context, 1), 0);
            EXPECT_EQ(get_plugin_context() != nullptr, anew);
            EXPECT_EQ(take_errors(), "");
            conf_plugin_close(context);
            daemon->forget_connection();
        }
    }
}

} // namespace
