// The older plugin interface: what its calls send, give and report, and how it differs from the
// newer one.
#include "demo_plugin.h"

using namespace test;

namespace {

char name[] = "demo", settings[] = "/demo/settings", reset[] = "reset";

int on_config(int oper, int more, int priority, char *path)
{
    return called_back("config " + numbers(oper, more, priority) + text_of(path));
}

int on_status(char *path, char *filter, xmlNode **status)
{
    return called_back("status " + text_of(path) + ' ' + text_of(filter), nullptr, status);
}

int on_operate(xmlNode *input, xmlNode **output)
{
    return called_back("operate " + list_of(input), input, output);
}

config_callback_t configs[] = {{settings, 10, on_config}, {}};
status_callback_t states[] = {{settings, on_status}, {}};
rpc_callback_t operations[] = {{reset, on_operate}, {}};
conf_plugin_info_t subscriptions = {configs, states, operations, [] { called_back("kick-off"); },
                                    [](char *) { called_back("uninstall"); }};

class LegacyTest : public PluginFixture {
protected:
    std::string init()
    {
        act = {};
        called.clear();
        return request_of([this] { handle = conf_plugin_init(name, &subscriptions); });
    }

    void begin()
    {
        init();
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(request_of([this] { EXPECT_EQ(conf_start_session(handle, 1), 0); }),
                  rpc("activate", "<params><with-cfgr/></params>", "2"));
        clear_debug_file();
    }

    conf_context_t *handle = nullptr;
};

TEST_F(LegacyTest, RegistersAsTheNewerInterfaceDoes)
{
    EXPECT_EQ(conf_plg_get_hconf(nullptr), -1);
    auto *const info = reinterpret_cast<econf_plugin_subpub_info_t *>(&subscriptions);
    const std::string newer = request_of([&] { EXPECT_GE(econf_plugin_init(name, info), 0); });
    EXPECT_EQ(conf_plugin_init(name, &subscriptions), nullptr) << "there is one already";
    end();
    EXPECT_EQ(init(), newer);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(static_cast<void *>(handle), get_plugin_context());
    EXPECT_EQ(conf_plg_get_hconf(nullptr), get_plugin_context()->sock);
    EXPECT_EQ(conf_plugin_close(handle), 0);
    EXPECT_EQ(called, "") << "least of all the function for uninstalling";
}

TEST_F(LegacyTest, CallsTheOlderCallbacks)
{
    begin();
    const node_ptr own(parse("<own><w><z>1</z></w></own>"));
    const auto set_error = [] { EXPECT_EQ(conf_set_error(7, "own"), 0); };
    const auto plg_set_error = [] { EXPECT_EQ(conf_plg_set_error(nullptr, 8, nullptr), 0); };
    const std::string operation = operate("<a/>"), input = "operate <a/>";
    const struct {
        std::string request, call, answer;
        behaviour does = {};
    } rows[] = {
        {config("/a[k=\"1\"]"), "config 1 0 10 /a[k=1]", succeeded()},
        {config("/a", "16384"), "config 16384 0 10 /a", failed("4"), {4}},
        {config("/a"), "config 1 0 10 /a", failed("7", "own"), {4, set_error, {}}},
        {config("/a"), "config 1 0 10 /a", failed("8"), {4, plg_set_error, {}}},
        {subscribe("<path>/s</path><filter>f</filter>"), "status /s f",
         succeeded("<result><data><s/></data></result>"), gives(nodes_of("<s/>"))},
        {operation, input, succeeded("<result><ok/></result>")},
        {operation, input, succeeded("<result><o>1</o><p/></result>"),
         gives(nodes_of("<w><o>1</o><p/></w>"))},
        {operation, input, succeeded(), gives(nodes_of("<w/>"))},
        {operate("<a><b/></a>"), "operate <a><b/></a>", succeeded("<result><b/></result>"),
         gives([](xmlNode *given) { return given; })},
        {operation, input, succeeded("<result><z>1</z></result>"),
         gives([&](xmlNode *) { return own->children; })},
        {kick_off, "kick-off", succeeded()},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.call);
        act = row.does;
        called.clear();
        peer->send(framed(row.request));
        EXPECT_EQ(conf_run(handle, 0), 0);
        EXPECT_EQ(called, row.call);
        EXPECT_EQ(peer->received(), strings{row.answer});
    }
    EXPECT_EQ(print(own.get()), "<own><w><z>1</z></w></own>");
    EXPECT_EQ(conf_recovery_status(), 0) << "refusals are not counted here";
}

TEST_F(LegacyTest, ReadsAndWritesConfiguration)
{
    begin();
    const node_ptr data(parse("<a>1</a>"));
    conf_val_t given = {data.get()};
    std::string seen;
    const auto see = [&seen](xmlNode *list) { return seen = list_of(node_list(list).get()), 0; };
    const auto get = [&](auto call) {
        conf_val_t got{};
        const int result = call(handle, settings, &got);
        return result + see(got.data);
    };
    const std::string path = "<path>/demo/settings</path>", old = "<old/>" + path;
    const std::string set = path + "<data><a>1</a></data>", list = "<p:a xmlns:p=\"u:1\"/>text";
    const struct {
        const char *method;
        std::function<int()> call;
        std::string params, list = {};
    } rows[] = {
        {"pull", [&] { return see(conf_get_config(settings)); }, path, list},
        {"pull", [&] { return see(conf_get_old_config(settings)); }, old, list},
        {"pull", [&] { return get(conf_plg_get_value); }, path, "<data>" + list + "</data>"},
        {"pull", [&] { return get(conf_plg_get_old_value); }, old, "<data>" + list + "</data>"},
        {"push", [&] { return conf_set_config(settings, given.data); }, set},
        {"push", [&] { return conf_plg_set_value(handle, 7, settings, &given); }, set},
    };
    const std::string answer = "<result xmlns:p=\"u:1\"><data><p:a/>text</data></result>";
    for (const auto &row : rows) {
        get_plugin_context()->rpc_id = 3;
        seen.clear();
        EXPECT_EQ(request_of([&] { EXPECT_EQ(row.call(), 0); }, answer),
                  rpc(row.method, "<params>" + row.params + "</params>", "3"));
        EXPECT_EQ(seen, row.list);
    }
    take_errors();
    const std::pair<char *, conf_val_t *> wrong[] = {{nullptr, &given}, {settings, nullptr}};
    for (const auto &[no_path, no_value] : wrong) {
        const std::string error =
            "Input parameters error(path=" + place(no_path) + ", val=" + place(no_value) + ").";
        EXPECT_EQ(conf_plg_get_value(handle, no_path, no_value), -1);
        EXPECT_EQ(conf_plg_set_value(handle, 0, no_path, no_value), -1);
        EXPECT_EQ(take_errors(), error + "\n" + error);
    }
    end();
    EXPECT_EQ(conf_plg_get_value(handle, settings, &given), 0) << "as if there were nothing";
    EXPECT_EQ(given.data, nullptr);
    EXPECT_EQ(conf_run(handle, 0), 0);
    EXPECT_EQ(conf_run(handle, 1), -1);
    EXPECT_EQ(debug_texts(DBG_ERROR).back(), "Plugin context is not ready.");
}

TEST_F(LegacyTest, ReadsNodesWhoseStringsBelongToADocumentOfTheDaemon)
{
    static xmlDoc *doc;
    doc = xmlReadDoc(BAD_CAST "<own><shared>1</shared></own>", nullptr, nullptr, 0);
    confd_plugin_callback_t hooks{};
    hooks.conf_plugin_pull = [](bool_t, const char *, xmlNode **list) {
        *list = xmlDocGetRootElement(doc)->children;
        xmlUnlinkNode(*list);
        return 0;
    };
    get_plugin_from_hash()->confd_hooks = &hooks;
    conf_val_t got{};
    EXPECT_EQ(conf_plg_get_value(nullptr, settings, &got), 0);
    EXPECT_EQ(print(got.data), "<data><shared>1</shared></data>");
    xmlFreeNode(got.data);
    xmlFreeDoc(doc);
    get_plugin_from_hash()->confd_hooks = nullptr;
}

TEST_F(LegacyTest, ServesUntilTheDaemonHangsUp)
{
    begin();
    leave_over(framed(with_id(config("/a"), "1"))); // no event comes for it
    daemon.play([&](Peer &p) {
        EXPECT_EQ(p.receive(), reply("<result/>", "1"));
        for (const char *id : {"2", "3"}) {
            p.send(framed(with_id(operate("<a/>"), id)));
            EXPECT_EQ(p.receive(), reply("<result><ok/></result>", id));
        }
        p.close();
    });
    EXPECT_EQ(conf_run(handle, 1), 0);
    daemon.finish();
    EXPECT_EQ(take_errors(), "An error epoll event occur(0x?).");
    EXPECT_NE(get_plugin_context(), nullptr) << "closing is up to the plugin";
}

TEST_F(LegacyTest, ServesUntilACallbackClosesThePlugin)
{
    for (const int round : {0, 1, 2, 3}) {
        SCOPED_TRACE(round);
        const bool anew = round % 2 == 1;
        begin();
        act.inside = [=, this] {
            end();
            if (anew) {
                begin();
            }
        };
        round < 2 ? leave_over(framed(config("/a"))) : peer->send(framed(config("/a")));
        EXPECT_EQ(conf_run(handle, 1), 0);
        EXPECT_EQ(get_plugin_context() != nullptr, anew);
        EXPECT_EQ(take_errors(), "");
        end();
    }
}

} // namespace
