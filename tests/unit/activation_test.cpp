// Activation and deactivation: what they send, when the loop works, and that no request is lost.
#include "demo_plugin.h"

#include <poll.h>

using namespace test;

namespace {

using ActivationTest = DemoFixture;

TEST_F(ActivationTest, ActivationOpensTheLoop)
{
    const struct {
        int mode;
        const char *params;
        const char *word;
    } modes[] = {{ACTIVATE_WITH_NONE, "<params/>", "none"},
                 {ACTIVATE_WITH_CFGR, "<params><with-cfgr/></params>", "cfgr"},
                 {ACTIVATE_WITH_SMOOTH, "<params><with-smooth/></params>", "smooth"},
                 {7, "<params/>", "none"}};
    const strings not_ready{"Plugin context is not ready or not be activated."};
    for (const auto &m : modes) {
        SCOPED_TRACE(m.mode);
        context->rpc_id = 3;
        std::string request;
        clear_debug_file();
        daemon->play([&](Peer &p) { request = p.answer("<result/>"); });
        econf_plugin_deactivate();
        daemon->finish();
        EXPECT_EQ(request, rpc("deactivate", "<params/>", "3"));
        econf_plugin_deactivate(); // sends nothing
        EXPECT_EQ(debug_texts(DBG_DEBUG),
                  (strings{"Dectivate plugin demo success.", "Plugin demo has been deactivated."}));
        EXPECT_EQ(peer->received(), strings{});

        daemon->play([&](Peer &p) { p.answer(error("1", "busy")); });
        EXPECT_EQ(econf_plugin_activate(m.mode), -1);
        daemon->finish();
        econf_plugin_run();
        EXPECT_EQ(errors(), (strings{"Confd reply error(busy) for plugin demo rpc.",
                                     "Activate plugin demo failed.", not_ready[0]}));

        // Requests that come with the answer wait in the socket, where the plugin sees them.
        clear_debug_file();
        daemon->play([&](Peer &p) {
            request = p.receive();
            p.send(framed(reply("<result/>", "5")) + framed(kick_off) + framed(config("/a")));
        });
        EXPECT_EQ(econf_plugin_activate(m.mode), 0);
        daemon->finish();
        EXPECT_EQ(request, rpc("activate", m.params, "5"));
        EXPECT_EQ(debug_texts(DBG_DEBUG), strings{"Activate plugin demo success."});
        pollfd sock{context->sock, POLLIN, 0};
        EXPECT_EQ(poll(&sock, 1, 0), 1);
        EXPECT_EQ(handle({}), succeeded() + succeeded());
        EXPECT_EQ(econf_plugin_activate(m.mode), -1);
        EXPECT_EQ(errors(), strings{"Plugin demo has been activated."});
        EXPECT_EQ(peer->received(), strings{});
    }
    // A request that comes while the plugin is inactive waits.
    context->bit_activate = 0;
    EXPECT_EQ(handle({kick_off}), "");
    context->bit_activate = 1;
    EXPECT_EQ(handle({}), succeeded());

    daemon->play([&](Peer &p) { p.answer(error("1", "busy")); });
    clear_debug_file();
    econf_plugin_deactivate();
    daemon->finish();
    EXPECT_EQ(errors(), (strings{"Confd reply error(busy) for plugin demo rpc.",
                                 "Dectivate plugin demo failed."}));
    EXPECT_EQ(context->bit_activate, 1U);

    econf_plugin_close();
    clear_debug_file();
    EXPECT_EQ(econf_plugin_activate(0), -1);
    econf_plugin_deactivate();
    econf_plugin_run();
    EXPECT_EQ(errors(), (strings{"Plugin context is not ready when active.",
                                 "Plugin context is not ready.", not_ready[0]}));
}

} // namespace
