// Activation and deactivation: what they send, when the loop works, and that no request is lost.
#include "demo_plugin.h"

#include <poll.h>

using namespace test;

namespace {

using ActivationTest = DemoFixture;

TEST_F(ActivationTest, ActivationOpensTheLoop)
{
    const std::pair<int, const char *> modes[] = {
        {ACTIVATE_WITH_NONE, "<params/>"},
        {ACTIVATE_WITH_CFGR, "<params><with-cfgr/></params>"},
        {ACTIVATE_WITH_SMOOTH, "<params><with-smooth/></params>"},
        {7, "<params/>"}};
    const std::string not_ready = "Plugin context is not ready or not be activated.";
    const std::string busy = "Confd reply error(busy) for plugin demo rpc.\n";
    for (const auto &[mode, params] : modes) {
        SCOPED_TRACE(mode);
        context->rpc_id = 3;
        clear_debug_file();
        EXPECT_EQ(request_of(econf_plugin_deactivate), rpc("deactivate", "<params/>", "3"));
        econf_plugin_deactivate(); // sends nothing
        EXPECT_EQ(debug_texts(DBG_DEBUG),
                  (strings{"Dectivate plugin demo success.", "Plugin demo has been deactivated."}));
        EXPECT_EQ(peer->received(), strings{});

        request_of([mode = mode] { EXPECT_EQ(econf_plugin_activate(mode), -1); },
                   error("1", "busy"));
        econf_plugin_run();
        EXPECT_EQ(take_errors(), busy + "Activate plugin demo failed.\n" + not_ready);

        // Requests that come with the answer wait in the socket, where the plugin sees them.
        std::string request;
        daemon->play([&](Peer &p) {
            request = p.receive();
            p.send(framed(reply("<result/>", "5")) + framed(kick_off) + framed(config("/a")));
        });
        EXPECT_EQ(econf_plugin_activate(mode), 0);
        daemon->finish();
        EXPECT_EQ(request, rpc("activate", params, "5"));
        EXPECT_EQ(debug_texts(DBG_DEBUG), strings{"Activate plugin demo success."});
        pollfd sock{context->sock, POLLIN, 0};
        EXPECT_EQ(poll(&sock, 1, 0), 1);
        EXPECT_EQ(handle({}), succeeded() + succeeded());
        EXPECT_EQ(econf_plugin_activate(mode), -1);
        EXPECT_EQ(take_errors(), "Plugin demo has been activated.");
        EXPECT_EQ(peer->received(), strings{});
    }
    // A request that comes while the plugin is inactive waits.
    context->bit_activate = 0;
    EXPECT_EQ(handle({kick_off}), "");
    EXPECT_EQ(take_errors(), not_ready);
    context->bit_activate = 1;
    EXPECT_EQ(handle({}), succeeded());

    request_of(econf_plugin_deactivate, error("1", "busy"));
    EXPECT_EQ(take_errors(), busy + "Dectivate plugin demo failed.");
    EXPECT_EQ(context->bit_activate, 1U);

    econf_plugin_close();
    EXPECT_EQ(econf_plugin_activate(0), -1);
    econf_plugin_deactivate();
    econf_plugin_run();
    EXPECT_EQ(take_errors(), "Plugin context is not ready when active.\n"
                             "Plugin context is not ready.\n" +
                                 not_ready);
}

} // namespace
