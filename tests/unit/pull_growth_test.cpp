// The time of a pull grows with its reply, and not faster.
#include "fake_daemon.h"
#include "timing.h"

using PullGrowthTest = test::PluginFixture;

TEST_F(PullGrowthTest, IsLinear)
{
    start();
    econf_plugin_config_debug(DBG_ALL, 0); // a line for each read would cost more than the rest
    const auto pull = [&](int entries) {
        daemon.play([entries](test::Peer &plugin) {
            const char *entry =
                "<entry><name>eth10</name><mtu>1500</mtu><v4><on>true</on></v4></entry>";
            plugin.answer("<result><data>" + test::repeat(entry, entries) + "</data></result>");
        });
        xmlNode *list = nullptr;
        EXPECT_EQ(econf_plugin_pull(0, "/demo", &list), 0);
        daemon.finish();
        EXPECT_NE(list, nullptr);
        xmlFreeNodeList(list);
    };
    EXPECT_LT(test::growth(pull, 30000), 2) << "repeating work for what came before makes it 4";
}
