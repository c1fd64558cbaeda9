// The small helpers: results from tables, and what the kernel was really told.
#include "conf_misc.h"

#include "reports.h"
#include "support/owners.h"

#include <climits>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/time.h>

namespace {

using support::unique_fd;
using test::refused;

class MiscTest : public test::Fixture {};

TEST_F(MiscTest, StripsWhiteSpace)
{
    const struct {
        const char *text, *stripped;
    } rows[] = {
        {nullptr, nullptr}, {"", nullptr},         {" ", nullptr},       {" \t \t", nullptr},
        {"a", "a"},         {"  a b \t\n", "a b"}, {"\v\f\r\na\n", "a"}, {"\xe9 ", "\xe9"},
    };
    for (const auto &row : rows) {
        const support::heap_text stripped(conf_strip(row.text));
        EXPECT_STREQ(stripped.get(), row.stripped);
        EXPECT_TRUE(stripped == nullptr || stripped.get() != row.text);
    }
}

TEST_F(MiscTest, PrintsNumbers)
{
    const struct {
        long number;
        unsigned int size;
        std::string text; // what the 32 bytes begin with afterwards
    } rows[] = {
        {-42, 32, std::string("-42\0#", 5)}, {-42, 3, std::string("-4\0#", 4)},
        {-42, 1, std::string("\0#", 2)},     {-42, 0, "#"},
        {0, 2, std::string("0\0#", 3)},      {LONG_MIN, 32, std::to_string(LONG_MIN)},
    };
    for (const auto &row : rows) {
        char text[32];
        std::memset(text, '#', sizeof text);
        EXPECT_EQ(conf_itoa(row.number, text, row.size), text);
        EXPECT_EQ(std::string(text, row.text.size()), row.text) << row.number << " in " << row.size;
    }
    EXPECT_EQ(conf_itoa(1, nullptr, 32), nullptr);
}

TEST_F(MiscTest, FindsTheTextOfANode)
{
    const struct {
        const char *xml, *content;
    } rows[] = {
        {"<a>text</a>", "text"},       {"<a/>", nullptr},
        {"<a>&amp;<b/></a>", "&"},     {"<a><b>t</b></a>", nullptr},
        {"<a><!--c-->t</a>", nullptr}, {"<a><![CDATA[t]]></a>", nullptr},
    };
    for (const auto &row : rows) {
        xmlNode *node = test::parse(row.xml);
        ASSERT_NE(node, nullptr) << row.xml;
        EXPECT_STREQ(conf_get_node_content(node), row.content) << row.xml;
        if (row.content != nullptr) {
            EXPECT_TRUE(BAD_CAST conf_get_node_content(node) == node->children->content)
                << "a copy";
            EXPECT_EQ(conf_get_node_content(node->children), nullptr) << "a text is no element";
        }
        xmlFreeNode(node);
    }
    xmlNode *node = test::parse("<a key='value'/>");
    EXPECT_STREQ(conf_get_node_content(reinterpret_cast<xmlNode *>(node->properties)), "value");
    xmlFreeNode(node);
    EXPECT_EQ(conf_get_node_content(nullptr), nullptr);
}

TEST_F(MiscTest, SwitchesToNonBlocking)
{
    const unique_fd fd(eventfd(0, EFD_CLOEXEC));
    ASSERT_EQ(fcntl(fd.get(), F_SETFL, O_APPEND), 0);
    refused(conf_non_block_fd(fd.get()), 0, "");
    EXPECT_EQ(fcntl(fd.get(), F_GETFL) & (O_NONBLOCK | O_APPEND), O_NONBLOCK | O_APPEND);

    refused(conf_non_block_fd(-1), -1, "Get options of fd(-1) failed(Bad file descriptor).");
    const unique_fd path_only(open("/", O_PATH | O_CLOEXEC)); // has options that cannot be set
    refused(conf_non_block_fd(path_only.get()), -1,
            "Set options of fd(" + std::to_string(path_only.get()) +
                ") failed(Bad file descriptor).");
}

// The registration as the kernel describes it: "events data", both hexadecimal.
std::string registration(int epfd)
{
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(epfd));
    std::string word;
    std::string result;
    while (info >> word) {
        if (word == "events:" || word == "data:") {
            info >> word;
            result += result.empty() ? word : " " + word;
        }
    }
    return result;
}

TEST_F(MiscTest, RegistersEvents)
{
    const unique_fd epoll(epoll_create1(EPOLL_CLOEXEC));
    const unique_fd fd(eventfd(0, EFD_CLOEXEC));
    const int ep = epoll.get();
    const struct {
        int event, para;
        const char *registered; // the kernel adds EPOLLERR and EPOLLHUP, 0x18
    } rows[] = {
        {0, 0, "80002018 0"},   {1, 7, "80002019 7"},          {2, 255, "8000201c ff"},
        {3, 42, "8000201d 2a"}, {~3, -1, "80002018 ffffffff"}, {-1, INT_MIN, "8000201d 80000000"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.event);
        const std::string event = "event(fd=" + std::to_string(fd.get()) +
                                  ", event=" + std::to_string(row.event) +
                                  ", para=" + std::to_string(row.para) + ") failed";
        refused(conf_event_reset(ep, fd.get(), row.event, row.para), -1,
                "Reset " + event + "(No such file or directory).");
        ASSERT_EQ(conf_event_add(ep, fd.get(), row.event, row.para), 0);
        EXPECT_EQ(registration(ep), row.registered);
        refused(conf_event_add(ep, fd.get(), row.event, row.para), -1,
                "Add " + event + "(File exists).");
        ASSERT_EQ(conf_event_reset(ep, fd.get(), 3 - (row.event & 3), 0), 0);
        ASSERT_EQ(conf_event_reset(ep, fd.get(), row.event, row.para), 0);
        EXPECT_EQ(registration(ep), row.registered);
        ASSERT_EQ(epoll_ctl(ep, EPOLL_CTL_DEL, fd.get(), nullptr), 0);
    }
    EXPECT_EQ(test::take_reports(), "");
}

TEST_F(MiscTest, ReadsTheWallClock)
{
    const auto wall_clock = [] {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
    };
    const long long before = wall_clock();
    const long long now = conf_get_unix_time();
    EXPECT_TRUE(before <= now && now <= wall_clock());
}

} // namespace
