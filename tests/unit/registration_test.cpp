// Registration and close, against a fake daemon: the request, what is left behind when it fails.
#include "fake_daemon.h"

#include <cstdarg>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using strings = std::vector<std::string>;

int on_config(int, int, int, int, const char *)
{
    return 0;
}
int other_config(int, int, int, int, const char *)
{
    return 1;
}
int on_status(int, const char *, const char *, xmlNode **)
{
    return 0;
}
int on_operate(int, xmlNode *, xmlNode **)
{
    return 0;
}
void on_kick_off() {}

class RegistrationTest : public test::PluginFixture {
protected:
    // Registers while the daemon plays `script`.
    int init(econf_plugin_subpub_info_t info, const char *name, test::FakeDaemon::Script script)
    {
        daemon->play(std::move(script));
        const int sock = econf_plugin_init(name, &info);
        peer = &daemon->finish();
        return sock;
    }
};

TEST_F(RegistrationTest, AnnouncesEverySubscriptionWithItsIndex)
{
    char reset[] = "reset";
    char clear[] = "clear";
    econf_config_cb_info_t no_config[] = {{nullptr, 0, nullptr}};
    econf_config_cb_info_t one_config[] = {{"/demo/settings", 10, on_config},
                                           {nullptr, 0, nullptr}};
    // Paths are XML content as they stand.
    econf_config_cb_info_t configs[] = {
        {"/demo/a&amp;b", -5, on_config}, {"/demo/c", 0, other_config}, {nullptr, 0, nullptr}};
    econf_status_cb_info_t no_status[] = {{nullptr, nullptr}};
    econf_status_cb_info_t states[] = {{"/demo/state", on_status}, {nullptr, nullptr}};
    econf_operate_cb_info_t no_operation[] = {{nullptr, nullptr}};
    econf_operate_cb_info_t one_operation[] = {{reset, on_operate}, {nullptr, nullptr}};
    econf_operate_cb_info_t operations[] = {
        {reset, on_operate}, {clear, on_operate}, {nullptr, nullptr}};
    const struct {
        econf_plugin_subpub_info_t info;
        const char *name;
        const char *params;
        std::vector<econf_subpub_cb_t> slots;
    } cases[] = {
        {{nullptr, nullptr, nullptr, nullptr},
         "demo",
         "<plugin-name>demo</plugin-name>",
         {nullptr}},
        {{no_config, no_status, no_operation, on_kick_off},
         "a&b<c",
         "<plugin-name>a&amp;b&lt;c</plugin-name><config-subscribe/><status-publish/>"
         "<operate-subscribe/>",
         {test::slot(on_kick_off)}},
        {{one_config, nullptr, one_operation, nullptr},
         "demo",
         "<plugin-name>demo</plugin-name><config-subscribe><subscriber><path>/demo/settings</path>"
         "<priority>10</priority><callback>1</callback></subscriber></config-subscribe>"
         "<operate-subscribe><subscriber><path>reset</path><callback>2</callback></subscriber>"
         "</operate-subscribe>",
         {nullptr, test::slot(on_config), test::slot(on_operate)}},
        {{configs, states, operations, on_kick_off},
         "demo",
         "<plugin-name>demo</plugin-name><config-subscribe><subscriber><path>/demo/a&amp;b</path>"
         "<priority>-5</priority><callback>1</callback></subscriber><subscriber><path>/demo/c"
         "</path><priority>0</priority><callback>2</callback></subscriber></config-subscribe>"
         "<status-publish><publisher><path>/demo/state</path><callback>3</callback></publisher>"
         "</status-publish><operate-subscribe><subscriber><path>reset</path><callback>4</callback>"
         "</subscriber><subscriber><path>clear</path><callback>5</callback></subscriber>"
         "</operate-subscribe>",
         {test::slot(on_kick_off), test::slot(on_config), test::slot(other_config),
          test::slot(on_status), test::slot(on_operate), test::slot(on_operate)}},
    };
    for (const auto &c : cases) {
        std::string request;
        const int sock = init(c.info, c.name, [&](test::Peer &connection) {
            request = connection.answer("<result><any/></result>");
        });
        ASSERT_GE(sock, 0);
        EXPECT_EQ(request,
                  test::rpc("register", std::string("<params>") + c.params + "</params>", "1"));
        EXPECT_EQ(peer->head().seq, 0);
        EXPECT_EQ(fcntl(sock, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        EXPECT_EQ(fcntl(sock, F_GETFD), FD_CLOEXEC);

        const conf_plugin_context_t *context = get_plugin_context();
        ASSERT_NE(context, nullptr);
        EXPECT_EQ(context->sock, sock);
        EXPECT_EQ(context->version, 2);
        EXPECT_EQ(context->rpc_id, 2);
        EXPECT_EQ(context->bit_activate, 0U);
        EXPECT_EQ(std::vector<econf_subpub_cb_t>(context->cbs, context->cbs + context->cbs_nums),
                  c.slots);
        EXPECT_EQ(test::debug_texts(DBG_DEBUG),
                  strings{std::string("Register plugin ") + c.name + " success."});
        EXPECT_EQ(errors(), strings{});

        test::clear_debug_file();
        econf_plugin_close();
        EXPECT_EQ(get_plugin_context(), nullptr);
        EXPECT_EQ(peer->receive(), "") << "nothing is sent, and the stream ends";
        EXPECT_EQ(test::debug_texts(DBG_DEBUG),
                  strings{std::string("Close plugin ") + c.name + "."});
        econf_plugin_close();
        EXPECT_EQ(errors(), strings{"Plugin context is not ready when close."});
        test::clear_debug_file();
        daemon->forget_connection();
    }
}

TEST_F(RegistrationTest, RefusalLeavesNothingBehind)
{
    const std::string both = "<result/>" + test::error("1", "x");
    const struct {
        const char *name;
        test::FakeDaemon::Script script;
        strings errors;
    } cases[] = {
        {"error",
         [](test::Peer &p) { p.answer(test::error("3", "no such path")); },
         {"Confd reply error(no such path) for plugin demo rpc."}},
        {"result and error",
         [&](test::Peer &p) { p.answer(both); },
         {"Invalid reply message(both <error> and <result>).",
          "Parse reply for plugin demo rpc failed."}},
        {"neither result nor error",
         [](test::Peer &p) { p.answer("<other/>"); },
         {"Invalid reply message(without <error> and <result>).",
          "Parse reply for plugin demo rpc failed."}},
        {"end of stream",
         [](test::Peer &p) {
             p.receive();
             p.close();
         },
         {"An error epoll event occur(0x?).", "Plugin demo send rpc to confd failed."}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(init({}, "demo", c.script), -1);
        strings expected = c.errors;
        expected.emplace_back("Plugin demo register to confd failed.");
        EXPECT_EQ(errors(), expected);
        EXPECT_EQ(get_plugin_context(), nullptr);
        EXPECT_EQ(peer->receive(), "");
        daemon->forget_connection();
        test::clear_debug_file();
    }
    // The next attempt begins afresh.
    std::string request;
    EXPECT_GE(init({}, "demo", [&](test::Peer &p) { request = p.answer("<result/>"); }), 0);
    EXPECT_NE(request.find("<id>1</id>"), std::string::npos);
}

std::string printed(const char *format, ...)
{
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

TEST_F(RegistrationTest, RefusesWithoutConnecting)
{
    econf_plugin_subpub_info_t info{};
    const char *name = "demo";
    const char *format = "Input parameters error(name=%p, reg_info=%p).";
    EXPECT_EQ(econf_plugin_init(nullptr, &info), -1);
    EXPECT_EQ(econf_plugin_init(name, nullptr), -1);
    EXPECT_EQ(errors(), (strings{printed(format, nullptr, &info), printed(format, name, nullptr)}));

    test::clear_debug_file();
    confd_plugin_callback_t hooks{};
    get_plugin_from_hash()->confd_hooks = &hooks;
    EXPECT_EQ(econf_plugin_init(name, &info), -1);
    EXPECT_EQ(errors(), strings{"Plugin local context has been created."});
    del_plugin_from_hash();

    daemon.reset(); // with it goes the file of the socket
    for (const char *reason : {"No such file or directory", "Connection refused"}) {
        test::clear_debug_file();
        EXPECT_EQ(econf_plugin_init(name, &info), -1);
        EXPECT_EQ(errors(), (strings{std::string("Connect to confd failed(") + reason + ").",
                                     "Initialize context for plugin demo failed."}));
        EXPECT_EQ(get_plugin_context(), nullptr);

        sockaddr_un address{AF_UNIX, {}}; // for the second round: a file that nobody listens at
        std::string(g_conf_plugin_socket).copy(address.sun_path, sizeof address.sun_path - 1);
        const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
        (void)bind(sock, reinterpret_cast<sockaddr *>(&address), sizeof address);
        close(sock);
    }
    std::filesystem::remove(g_conf_plugin_socket);
}

TEST_F(RegistrationTest, SecondPluginIsRefusedAndTheFirstKeepsWorking)
{
    start();
    econf_plugin_subpub_info_t info{};
    const conf_plugin_context_t *context = get_plugin_context();
    EXPECT_EQ(econf_plugin_init("second", &info), -1);
    EXPECT_EQ(errors(), strings{"Plugin remote context has been created."});
    EXPECT_EQ(get_plugin_context(), context);
    peer->send(test::framed(test::rpc("kickoff", "<params/>", "9")));
    econf_plugin_run();
    EXPECT_EQ(peer->received(), strings{test::reply("<result/>", "9")});
}

TEST_F(RegistrationTest, CloseKeepsInjectedHooks)
{
    start();
    confd_plugin_callback_t hooks{};
    get_plugin_from_hash()->confd_hooks = &hooks;
    econf_plugin_close();
    EXPECT_EQ(get_plugin_context(), nullptr);
    EXPECT_EQ(get_plugin_hooks(), &hooks);
}

} // namespace
