// Registration and close, against a fake daemon: the request, what is left behind when it fails.
#include "fake_daemon.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
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
    char reset[] = "reset";
    char clear[] = "clear";
    // Paths are XML content as they stand.
    econf_config_cb_info_t configs[] = {
        {"/demo/a&amp;b", -5, callback{1}}, {"/demo/c", 0, callback{2}}, {nullptr, 0, nullptr}};
    econf_status_cb_info_t states[] = {{"/demo/state", callback{3}}, {nullptr, nullptr}};
    econf_operate_cb_info_t operations[] = {
        {reset, callback{4}}, {clear, callback{5}}, {nullptr, nullptr}};
    const struct {
        econf_plugin_subpub_info_t info;
        const char *name, *params;
        std::vector<std::uintptr_t> slots;
    } cases[] = {
        {{}, "demo", "<plugin-name>demo</plugin-name>", {0}},
        {{configs + 2, states + 1, operations + 2, callback{9}},
         "a&b<c",
         "<plugin-name>a&amp;b&lt;c</plugin-name><config-subscribe/><status-publish/>"
         "<operate-subscribe/>",
         {9}},
        {{configs + 1, nullptr, operations + 1, nullptr},
         "demo",
         "<plugin-name>demo</plugin-name><config-subscribe><subscriber><path>/demo/c</path>"
         "<priority>0</priority><callback>1</callback></subscriber></config-subscribe>"
         "<operate-subscribe><subscriber><path>clear</path><callback>2</callback></subscriber>"
         "</operate-subscribe>",
         {0, 2, 5}},
        {{configs, states, operations, callback{9}},
         "demo",
         "<plugin-name>demo</plugin-name><config-subscribe><subscriber><path>/demo/a&amp;b</path>"
         "<priority>-5</priority><callback>1</callback></subscriber><subscriber><path>/demo/c"
         "</path><priority>0</priority><callback>2</callback></subscriber></config-subscribe>"
         "<status-publish><publisher><path>/demo/state</path><callback>3</callback></publisher>"
         "</status-publish><operate-subscribe><subscriber><path>reset</path><callback>4</callback>"
         "</subscriber><subscriber><path>clear</path><callback>5</callback></subscriber>"
         "</operate-subscribe>",
         {9, 1, 2, 3, 4, 5}},
    };
    for (auto c : cases) {
        int sock = -1;
        EXPECT_EQ(request_of([&] { sock = econf_plugin_init(c.name, &c.info); },
                             "<result><any/></result>"),
                  rpc("register", std::string("<params>") + c.params + "</params>", "1"));
        EXPECT_EQ(peer->head().seq, 0);
        EXPECT_EQ(fcntl(sock, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        EXPECT_EQ(fcntl(sock, F_GETFD), FD_CLOEXEC);

        const conf_plugin_context_t *context = get_plugin_context();
        ASSERT_NE(context, nullptr);
        EXPECT_EQ(context->sock, sock);
        EXPECT_EQ(context->version, 2);
        EXPECT_EQ(context->rpc_id, 2);
        EXPECT_EQ(context->bit_activate, 0U);
        std::vector<std::uintptr_t> slots;
        for (u32_t i = 0; i < context->cbs_nums; ++i) {
            slots.push_back(reinterpret_cast<std::uintptr_t>(context->cbs[i]));
        }
        EXPECT_EQ(slots, c.slots);

        econf_plugin_close();
        EXPECT_EQ(get_plugin_context(), nullptr);
        EXPECT_EQ(peer->receive(), "") << "nothing is sent, and the stream ends";
        const std::string name = c.name;
        EXPECT_EQ(debug_texts(DBG_DEBUG),
                  (strings{"Register plugin " + name + " success.", "Close plugin " + name + "."}));
        EXPECT_EQ(take_errors(), "");
        econf_plugin_close();
        EXPECT_EQ(take_errors(), "Plugin context is not ready when close.");
        daemon->forget_connection();
    }
}

TEST_F(RegistrationTest, RefusalLeavesNothingBehind)
{
    const std::string unreadable = "Parse reply for plugin demo rpc failed.\n";
    const struct {
        FakeDaemon::Script script;
        std::string errors;
    } cases[] = {
        {[](Peer &p) { p.answer(error("3", "no &lt;room")); },
         "Confd reply error(no <room) for plugin demo rpc.\n"},
        {[](Peer &p) { p.answer("<result/>" + error("0", "")); },
         "Invalid reply message(both <error> and <result>).\n" + unreadable},
        {[](Peer &p) { p.answer("<other/>"); },
         "Invalid reply message(without <error> and <result>).\n" + unreadable},
        {[](Peer &p) { p.close(); },
         "An error epoll event occur(0x?).\nPlugin demo send rpc to confd failed.\n"},
    };
    econf_plugin_subpub_info_t info{};
    for (const auto &c : cases) {
        daemon->play(c.script);
        EXPECT_EQ(econf_plugin_init("demo", &info), -1);
        EXPECT_EQ(take_errors(), c.errors + "Plugin demo register to confd failed.");
        EXPECT_EQ(get_plugin_context(), nullptr);
        EXPECT_EQ(daemon->finish().receive(), "");
        daemon->forget_connection();
    }
    // The next attempt begins afresh.
    const std::string request = request_of([&] { EXPECT_GE(econf_plugin_init("demo", &info), 0); });
    EXPECT_NE(request.find("<id>1</id>"), std::string::npos);
}

TEST_F(RegistrationTest, RefusesWithoutConnecting)
{
    econf_plugin_subpub_info_t info{};
    const char *name = "demo";
    EXPECT_EQ(econf_plugin_init(nullptr, &info), -1);
    EXPECT_EQ(econf_plugin_init(name, nullptr), -1);
    EXPECT_EQ(take_errors(), "Input parameters error(name=(nil), reg_info=" + place(&info) +
                                 ").\nInput parameters error(name=" + place(name) +
                                 ", reg_info=(nil)).");

    confd_plugin_callback_t hooks{};
    get_plugin_from_hash()->confd_hooks = &hooks;
    EXPECT_EQ(econf_plugin_init(name, &info), -1);
    EXPECT_EQ(take_errors(), "Plugin local context has been created.");
    del_plugin_from_hash();

    daemon.reset(); // with it goes the file of the socket
    for (const std::string reason : {"No such file or directory", "Connection refused"}) {
        EXPECT_EQ(econf_plugin_init(name, &info), -1);
        EXPECT_EQ(take_errors(), "Connect to confd failed(" + reason +
                                     ").\nInitialize context for plugin demo failed.");
        EXPECT_EQ(get_plugin_context(), nullptr);

        sockaddr_un address{AF_UNIX, {}}; // for the second round: a file that nobody listens at
        std::string(g_conf_plugin_socket).copy(address.sun_path, sizeof address.sun_path - 1);
        const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
        (void)bind(sock, reinterpret_cast<sockaddr *>(&address), sizeof address);
        close(sock);
    }
    std::filesystem::remove(g_conf_plugin_socket);
}

TEST_F(RegistrationTest, AProcessHasOnePluginAndKeepsItsHooks)
{
    start();
    econf_plugin_subpub_info_t info{};
    const conf_plugin_context_t *context = get_plugin_context();
    EXPECT_EQ(econf_plugin_init("second", &info), -1);
    EXPECT_EQ(take_errors(), "Plugin remote context has been created.");
    EXPECT_EQ(get_plugin_context(), context);
    peer->send(framed(rpc("kickoff", "<params/>", "9")));
    econf_plugin_run();
    EXPECT_EQ(peer->received(), strings{reply("<result/>", "9")});

    confd_plugin_callback_t hooks{};
    get_plugin_from_hash()->confd_hooks = &hooks;
    econf_plugin_close();
    EXPECT_EQ(get_plugin_context(), nullptr);
    EXPECT_EQ(get_plugin_hooks(), &hooks);
}

} // namespace
