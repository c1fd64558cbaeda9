// The time of a pull grows with its reply, and not faster.
#include "fake_daemon.h"

#include <algorithm>
#include <ctime>

namespace {

class PullGrowthTest : public test::PluginFixture {
protected:
    // Of the processor, for each entry of the reply, best of three.
    double time_of(int entries)
    {
        std::string content = "<result><data>";
        for (int i = 0; i < entries; ++i) {
            content += "<entry><name>eth" + std::to_string(i) +
                       "</name><mtu>1500</mtu><v4><on>true</on><ip>10.0.0.1</ip></v4></entry>";
        }
        content += "</data></result>";
        double best = 1e9;
        for (int run = 0; run < 3; ++run) {
            daemon->play([&](test::Peer &plugin) { plugin.answer(content); });
            xmlNode *list = nullptr;
            const std::clock_t begin = std::clock();
            EXPECT_EQ(econf_plugin_pull(0, "/demo", &list), 0);
            best = std::min(best, static_cast<double>(std::clock() - begin) / entries);
            daemon->finish();
            EXPECT_NE(list, nullptr);
            xmlFreeNodeList(list);
        }
        return best;
    }
};

// Work that is repeated for what has arrived before makes an entry 4 times as expensive.
TEST_F(PullGrowthTest, IsLinear)
{
    start();
    econf_plugin_config_debug(DBG_ALL, 0); // a line for each read would cost more than the rest
    const double of_few = time_of(10000);  // 1 MiB
    EXPECT_LT(time_of(40000), 2 * of_few);
}

} // namespace
