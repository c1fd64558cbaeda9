// The small helpers: results from tables, and what the kernel was really told.
#include "conf_misc.h"
#include "test_support.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <fstream>
#include <sys/epoll.h>
#include <sys/eventfd.h>

using test::refused;
using MiscTest = test::Fixture;

TEST_F(MiscTest, Texts)
{
    const std::pair<const char *, const char *> stripped[] = {
        {nullptr, nullptr}, {" \t ", nullptr}, {"\v a b\t\f\r\n", "a b"}, {"\xe9 ", "\xe9"}};
    for (const auto &[text, expected] : stripped) {
        EXPECT_STREQ(support::heap_text(conf_strip(text)).get(), expected);
    }
    // What 6 bytes look like afterwards.
    const std::tuple<long, unsigned, std::string> numbers[] = {
        {-42, 9, "-42.##"}, {-42, 4, "-42.##"},
        {-42, 3, "-4.###"}, {-42, 1, ".#####"},
        {-42, 0, "######"}, {LONG_MAX, 6, std::to_string(LONG_MAX).substr(0, 5) + "."},
    };
    for (const auto &[number, size, expected] : numbers) {
        std::string out = "######";
        EXPECT_EQ(conf_itoa(number, out.data(), size), out.data());
        std::replace(out.begin(), out.end(), '\0', '.');
        EXPECT_EQ(out, expected) << number << " in " << size;
    }
    EXPECT_EQ(conf_itoa(1, nullptr, 32), nullptr);
    const long long second = 1000000;
    const long long before = time(nullptr) * second, now = conf_get_unix_time();
    EXPECT_GE(now, before);
    EXPECT_LT(now, (time(nullptr) + 1) * second);

    xmlNode *node = test::parse("<a key='value'>text</a>");
    EXPECT_STREQ(conf_get_node_content(reinterpret_cast<xmlNode *>(node->properties)), "value");
    EXPECT_EQ(conf_get_node_content(node->children), nullptr) << "a text is no element";
    EXPECT_STREQ(conf_get_node_content(node), "text");
    EXPECT_EQ(conf_get_node_content(nullptr), nullptr);
    xmlFreeNode(node);
}

TEST_F(MiscTest, Descriptors)
{
    const support::unique_fd epoll(epoll_create1(EPOLL_CLOEXEC)), event(eventfd(0, EFD_CLOEXEC));
    const int ep = epoll.get(), fd = event.get();
    // Events and data of the only registration, hexadecimal, as the kernel describes it.
    const auto registered = [ep] {
        std::ifstream info("/proc/self/fdinfo/" + std::to_string(ep));
        std::string word, events;
        while (info >> word && word != "events:") {
        }
        info >> events >> word >> word;
        return events + ' ' + word;
    };
    // The kernel adds EPOLLERR and EPOLLHUP, 0x18.
    const std::tuple<int, int, const char *> rows[] = {
        {0, 0, "80002018 0"},   {1, 7, "80002019 7"},          {2, 255, "8000201c ff"},
        {3, 42, "8000201d 2a"}, {~3, -1, "80002018 ffffffff"}, {-1, INT_MIN, "8000201d 80000000"},
    };
    for (const auto &[mask, para, expected] : rows) {
        refused(conf_event_add(ep, fd, mask, para), 0, "");
        EXPECT_EQ(registered(), expected);
        EXPECT_EQ(conf_event_reset(ep, fd, ~mask, 0), 0);
        EXPECT_EQ(conf_event_reset(ep, fd, mask, para), 0);
        EXPECT_EQ(registered(), expected);
        EXPECT_EQ(epoll_ctl(ep, EPOLL_CTL_DEL, fd, nullptr), 0);
    }
    const std::string failure = " event(fd=-1, event=-2, para=-3) failed(Bad file descriptor).";
    refused(conf_event_add(ep, -1, -2, -3), -1, "Add" + failure);
    refused(conf_event_reset(ep, -1, -2, -3), -1, "Reset" + failure);

    EXPECT_EQ(fcntl(fd, F_SETFL, O_APPEND), 0);
    refused(conf_non_block_fd(fd), 0, "");
    EXPECT_EQ(fcntl(fd, F_GETFL) & (O_NONBLOCK | O_APPEND), O_NONBLOCK | O_APPEND);
    refused(conf_non_block_fd(-1), -1, "Get options of fd(-1) failed(Bad file descriptor).");
}
