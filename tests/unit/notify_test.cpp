// Notifications: what reaches the daemon's socket. This program stands in for nanosleep(), which is
// interrupted once and spoils errno instead.
#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/xml.h"
#include "test_support.h"

#include <sys/socket.h>

static int interruptions = 0, rests = 0;

extern "C" int nanosleep(const timespec *time, timespec *left)
{
    const bool is_rest = time->tv_nsec == 7;
    EXPECT_EQ(time->tv_sec, is_rest ? 3 : 5);
    ++(is_rest ? rests : interruptions);
    *left = {3, 7};
    errno = is_rest ? ENOENT : EINTR;
    return is_rest ? 0 : -1;
}

namespace {

using namespace test;
using namespace std::string_literals;
using Notify = Fixture;

char event[] = "event", text[] = "abc";

TEST_F(Notify, SendsOneDatagramWithoutAnythingAdded)
{
    const support::unique_fd receiver(conf_plugin_notifier_enable());
    const auto received = [&] {
        char datagram[100];
        const ssize_t size = recv(receiver.get(), datagram, sizeof datagram, 0);
        return size < 0 ? "nothing" : std::string(datagram, static_cast<std::size_t>(size));
    };
    const node_ptr parent(parse("<l><one/><a k='1'>&lt;<b> </b></a><three/></l>"));
    xmlAddChild(parent->children->next, xmlNewReference(nullptr, BAD_CAST "lt"));
    xmlAddChild(parent->children->next, xmlNewText(nullptr));
    xmlAddChild(parent->children->next, xmlNewCDataBlock(nullptr, BAD_CAST "]]>", 3));
    EXPECT_EQ(econf_notify(event, parent->children->next), 0);
    EXPECT_EQ(received(), "<a k=\"1\">&lt;<b> </b>&lt;<![CDATA[]]]]><![CDATA[>]]></a>");
    xmlAddChild(parent->children->next, xmlNewText(BAD_CAST "\xf6")); // no UTF-8
    EXPECT_EQ(econf_notify(event, parent->children->next), -1);
    EXPECT_EQ(take_errors(), "Dump data node failed.");
    EXPECT_EQ(conf_notify(event, text + 3), 0);
    EXPECT_EQ(received(), "\0"s);
    EXPECT_EQ(conf_notify(event, text), 0);
    EXPECT_EQ(received(), "abc\0"s);
    EXPECT_EQ(debug_texts(DBG_INFO), (strings{"Sent notification to confd, length is 1",
                                              "Sent notification to confd, length is 4"}));
    const std::string sent =
        "<14>[INFO] Sent notification to confd with non block mode, length is ";
    for (strings log; log.size() < 2; log = take_system_texts()) { // until the queue is full
        EXPECT_TRUE(log.empty() || log == strings{sent + "4 tryTime=4"}) << log[0];
        ASSERT_EQ(conf_notify_nonblock(event, text), 0);
    }
    EXPECT_GT(interruptions, 0);
    EXPECT_EQ(rests, interruptions);
    unlink(g_conf_notifier_socket);
}

TEST_F(Notify, RefusesNullArguments)
{
    xmlNode node{};
    const std::tuple<char *, xmlNode *, char *> wrong[] = {{nullptr, &node, text}, {event, {}, {}}};
    for (const auto &[name, element, data] : wrong) {
        EXPECT_EQ(econf_notify(name, element), -1);
        EXPECT_EQ(conf_notify(name, data), -1);
        refused(conf_notify_nonblock(name, data), -1, "(list=%, node=%).", {name, data});
        EXPECT_EQ(take_errors(), "Error input parameter(name=" + place(name) +
                                     ", node=" + place(element) +
                                     ").\nError input parameter(list=" + place(name) +
                                     ", node=" + place(data) + ").");
    }
}

} // namespace
