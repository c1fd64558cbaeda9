// Registration, activation and their ends: what is sent, what is left behind when it fails, when
// the loop works.
#include "demo_plugin.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

using namespace test;

namespace {

// Stands for a callback, which is stored here and never called.
struct callback {
    std::uintptr_t number;
    template <typename function>
    operator function *() const
    {
        return reinterpret_cast<function *>(number);
    }
};

using RegistrationTest = PluginFixture;

TEST_F(RegistrationTest, AnnouncesEverySubscriptionWithItsIndex)
{
    char reset[] = "reset", clear[] = "clear";
    // Paths are XML content as they stand.
    econf_config_cb_info_t configs[] = {
        {"/demo/a&amp;b", -5, callback{1}}, {"/demo/c", 0, callback{2}}, {}};
    econf_status_cb_info_t states[] = {{"/demo/state", callback{3}}, {}};
    econf_operate_cb_info_t operations[] = {{reset, callback{4}}, {clear, callback{5}}, {}};
    const std::tuple<econf_plugin_subpub_info_t, std::string, std::vector<std::uintptr_t>> cases[] = {
        {{}, "", {0}},
        {{configs + 2, states + 1, operations + 2, callback{9}},
         "<config-subscribe/><status-publish/><operate-subscribe/>",
         {9}},
        {{configs, states, operations, callback{9}},
         "<config-subscribe><subscriber><path>/demo/a&amp;b</path>"
         "<priority>-5</priority><callback>1</callback></subscriber><subscriber><path>/demo/c"
         "</path><priority>0</priority><callback>2</callback></subscriber></config-subscribe>"
         "<status-publish><publisher><path>/demo/state</path><callback>3</callback></publisher>"
         "</status-publish><operate-subscribe><subscriber><path>reset</path><callback>4</callback>"
         "</subscriber><subscriber><path>clear</path><callback>5</callback></subscriber>"
         "</operate-subscribe>",
         {9, 1, 2, 3, 4, 5}},
    };
    for (auto [info, sections, slots] : cases) {
        int sock = -1;
        const std::string named = "<params><plugin-name>a&amp;b</plugin-name>";
        EXPECT_EQ(request_of([&, &info = info] { sock = econf_plugin_init("a&b", &info); }),
                  rpc("register", named + sections + "</params>", "1"));
        EXPECT_EQ(fcntl(sock, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        EXPECT_EQ(fcntl(sock, F_GETFD), FD_CLOEXEC);
        context = get_plugin_context();
        ASSERT_NE(context, nullptr);
        EXPECT_EQ(std::tuple(context->sock, context->version), std::tuple(sock, 2U));
        ASSERT_EQ(context->cbs_nums, slots.size());
        for (std::size_t i = 0; i < slots.size(); ++i) {
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(context->cbs[i]), slots[i]);
        }
        econf_plugin_close();
        EXPECT_EQ(get_plugin_context(), nullptr);
        EXPECT_EQ(peer->receive(), "") << "nothing is sent, and the stream ends";
        EXPECT_EQ(debug_texts(DBG_DEBUG),
                  (strings{"Register plugin a&b success.", "Close plugin a&b."}));
        clear_debug_file();
        end();
    }
}

TEST_F(RegistrationTest, RefusalLeavesNothingBehind)
{
    econf_plugin_subpub_info_t info{};
    const char *name = "demo";
    const std::pair<const char *, econf_plugin_subpub_info_t *> wrong[] = {{name, {}}, {{}, &info}};
    for (const auto &[given, data] : wrong) {
        EXPECT_EQ(econf_plugin_init(given, data), -1);
        EXPECT_EQ(take_errors(), "Input parameters error(name=" + place(given) +
                                     ", reg_info=" + place(data) + ").");
    }
    request_of([&] { EXPECT_EQ(econf_plugin_init(name, &info), -1); }, error("3", "no &lt;room"));
    EXPECT_EQ(take_errors(), "Confd reply error(no <room) for plugin demo rpc.\n"
                             "Plugin demo register to confd failed.");
    EXPECT_EQ(get_plugin_context(), nullptr);
    EXPECT_EQ(peer->receive(), "");
    end();
    // The next attempt begins afresh. A process has one plugin, and keeps its hooks.
    start();
    EXPECT_EQ(context->rpc_id, 3);
    EXPECT_EQ(econf_plugin_init("second", &info), -1);
    EXPECT_EQ(take_errors(), "Plugin remote context has been created.");
    confd_plugin_callback_t hooks{};
    get_plugin_from_hash()->confd_hooks = &hooks;
    econf_plugin_close();
    EXPECT_EQ(get_plugin_context(), nullptr);
    EXPECT_EQ(get_plugin_hooks(), &hooks);
}

TEST_F(RegistrationTest, LeavesTheCauseOfAFailedConnectionInErrno)
{
    econf_plugin_subpub_info_t info{};
    ASSERT_EQ(conf_load_config(nullptr), 0);
    const std::string path = g_conf_plugin_socket;
    for (const int cause : {ENOENT, ECONNREFUSED}) {
        unlink(path.c_str());
        if (cause == ECONNREFUSED) {
            close(open(path.c_str(), O_CREAT | O_WRONLY, 0600));
        }
        errno = 0;
        EXPECT_EQ(econf_plugin_init("demo", &info), -1);
        EXPECT_EQ(errno, cause);
    }
}

using ActivationTest = DemoFixture;

TEST_F(ActivationTest, ActivationOpensTheLoop)
{
    const std::pair<int, const char *> modes[] = {
        {7, "<params/>"},
        {ACTIVATE_WITH_CFGR, "<params><with-cfgr/></params>"},
        {ACTIVATE_WITH_SMOOTH, "<params><with-smooth/></params>"}};
    const std::string busy = "Confd reply error(busy) for plugin demo rpc.\n";
    for (const auto &[mode, params] : modes) {
        SCOPED_TRACE(mode);
        context->rpc_id = 3;
        request_of(econf_plugin_deactivate, error("1", "busy"));
        EXPECT_EQ(take_errors(), busy + "Dectivate plugin demo failed.");
        EXPECT_EQ(request_of(econf_plugin_deactivate), rpc("deactivate", "<params/>", "4"));
        econf_plugin_deactivate(); // sends nothing
        EXPECT_EQ(debug_texts(DBG_DEBUG),
                  (strings{"Dectivate plugin demo success.", "Plugin demo has been deactivated."}));
        EXPECT_EQ(handle(kick_off), "") << "an inactive plugin leaves it in the socket";
        EXPECT_EQ(take_errors(), "Plugin context is not ready or not be activated.");
        const auto activate = [mode = mode] { return econf_plugin_activate(mode); };
        request_of([=] { EXPECT_EQ(activate(), -1); }, error("1", "busy"));
        EXPECT_EQ(take_errors(), busy + "Activate plugin demo failed.");

        EXPECT_EQ(request_of([=] { EXPECT_EQ(activate(), 0); }), rpc("activate", params, "6"));
        EXPECT_EQ(debug_texts(DBG_DEBUG), strings{"Activate plugin demo success."});
        EXPECT_EQ(handle(kick_off), succeeded());
        EXPECT_EQ(activate(), -1);
        EXPECT_EQ(take_errors(), "Plugin demo has been activated.");
    }
    econf_plugin_close();
    EXPECT_EQ(econf_plugin_activate(0), -1);
    econf_plugin_deactivate();
    EXPECT_EQ(take_errors(),
              "Plugin context is not ready when active.\nPlugin context is not ready.");
}

} // namespace
