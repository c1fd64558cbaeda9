// Notifications: what reaches the daemon's socket, and how the non-blocking call retries. This
// program stands in for sleep(), sendto() and syslog(), which then count, fail or spoil errno.
#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/xml.h"
#include "test_support.h"

#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <regex>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace std::string_literals;
using texts = std::vector<std::string>;

std::vector<unsigned> slept;              // the pauses, in seconds
std::function<void()> after_second_pause; // called then
std::vector<int> send_errors;             // what the next sends fail with; 0 lets one pass
std::vector<int> send_flags;              // of each send

} // namespace

extern "C" unsigned sleep(unsigned seconds)
{
    slept.push_back(seconds);
    if (slept.size() == 2 && after_second_pause) {
        after_second_pause();
    }
    errno = ENOENT;
    return 0;
}

extern "C" ssize_t sendto(int sock, const void *data, std::size_t size, int flags,
                          const sockaddr *address, socklen_t length)
{
    send_flags.push_back(flags);
    if (!send_errors.empty()) {
        const int error = send_errors.front();
        send_errors.erase(send_errors.begin());
        if (error != 0) {
            errno = error;
            return -1;
        }
    }
    return syscall(SYS_sendto, sock, data, size, flags, address, length);
}

extern "C" void syslog(int priority, const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
    errno = ENOENT;
}

namespace {

char event[] = "event";

int notify_element(const char *name, const char *text)
{
    const node_ptr element(text == nullptr ? nullptr : test::parse(text));
    return econf_notify(name, element.get());
}

int notify_text(const char *name, const char *text)
{
    return conf_notify(const_cast<char *>(name), const_cast<char *>(text));
}

int notify_nonblock(const char *name, const char *text)
{
    return conf_notify_nonblock(const_cast<char *>(name), const_cast<char *>(text));
}

std::string sent_line(int length, int tries)
{
    return "<14>[INFO] Sent notification to confd with non block mode, length is " +
           std::to_string(length) + " tryTime=" + std::to_string(tries);
}

std::string failed_line(int error)
{
    return std::string("<11>[ERROR] Send notification event failed failed(") +
           std::strerror(error) + ") " + std::to_string(error) + ".";
}

class Notify : public test::Fixture {
protected:
    void SetUp() override
    {
        Fixture::SetUp();
        std::strcpy(g_conf_notifier_socket, "/var/tmp/events");
        slept.clear();
        after_second_pause = nullptr;
        send_errors.clear();
        send_flags.clear();
        receiver = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        const sockaddr_un address = socket_address(g_conf_notifier_socket);
        ASSERT_EQ(bind(receiver, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }

    void TearDown() override
    {
        unlink(g_conf_notifier_socket);
        close(receiver);
        Fixture::TearDown();
    }

    [[nodiscard]] texts received() const
    {
        texts all;
        std::string datagram(1 << 16, '\0');
        for (ssize_t count; (count = recv(receiver, datagram.data(), datagram.size(), 0)) >= 0;) {
            all.push_back(datagram.substr(0, static_cast<std::size_t>(count)));
        }
        return all;
    }

    static void fill()
    {
        const sockaddr_un address = socket_address(g_conf_notifier_socket);
        const int sock = socket(AF_UNIX, SOCK_DGRAM, 0);
        while (sendto(sock, "", 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&address),
                      sizeof address) == 1) {
        }
        close(sock);
        send_flags.clear();
    }

    int receiver = -1;
};

TEST_F(Notify, SendsOneDatagramWithoutAnythingAdded)
{
    EXPECT_EQ(notify_element(event, "<x/>"), 0);
    EXPECT_EQ(notify_element(event, "<a k='1'>&lt;<b> </b></a>"), 0);
    EXPECT_EQ(notify_text(event, ""), 0);
    EXPECT_EQ(notify_text(event, "abc"), 0);
    EXPECT_EQ(notify_nonblock(event, "abc"), 0);
    const node_ptr parent(test::parse("<l><one/><two>2</two><three/></l>"));
    EXPECT_EQ(econf_notify(event, parent->children->next), 0);
    EXPECT_EQ(test::print(parent.get()), "<l><one/><two>2</two><three/></l>");
    EXPECT_EQ(received(), (texts{"<x/>", "<a k=\"1\">&lt;<b> </b></a>", "\0"s, "abc\0"s, "abc\0"s,
                                 "<two>2</two>"}));
    for (std::size_t i = 0; i < send_flags.size(); ++i) {
        EXPECT_EQ(send_flags[i] & MSG_DONTWAIT, i == 4 ? MSG_DONTWAIT : 0) << i;
    }
    EXPECT_EQ(test::debug_lines(), (texts{"[INFO] - Sent notification to confd, length is 1",
                                          "[INFO] - Sent notification to confd, length is 4"}));
    EXPECT_EQ(test::take_system_texts(), texts{sent_line(4, 4)});
    EXPECT_TRUE(slept.empty());
}

TEST_F(Notify, RefusesNullArguments)
{
    const node_ptr node(test::parse("<x/>"));
    char text[] = "text";
    texts files;
    texts system;
    for (const bool no_name : {true, false}) {
        char *const name = no_name ? nullptr : event;
        xmlNode *const element = no_name ? node.get() : nullptr;
        char *const data = no_name ? text : nullptr;
        EXPECT_EQ(econf_notify(name, element), -1);
        EXPECT_EQ(conf_notify(name, data), -1);
        EXPECT_EQ(conf_notify_nonblock(name, data), -1);
        char line[128];
        std::snprintf(line, sizeof line, "Error input parameter(name=%p, node=%p).",
                      static_cast<void *>(name), static_cast<void *>(element));
        files.emplace_back(line);
        std::snprintf(line, sizeof line, "Error input parameter(list=%p, node=%p).",
                      static_cast<void *>(name), static_cast<void *>(data));
        files.emplace_back(line);
        system.push_back(std::string("<11>[ERROR] ") + line);
    }
    EXPECT_EQ(test::debug_texts(DBG_ERROR), files);
    EXPECT_EQ(test::take_system_texts(), system);
    EXPECT_EQ(received(), texts());
}

TEST_F(Notify, FailsAtOnceWithoutAReceiverOrWithTooMuchToSend)
{
    const std::string large(1 << 22, 'x');
    const std::string element = "<x>" + large + "</x>";
    const struct {
        int error;
        std::function<void()> prepare;
        std::string text, element;
    } cases[] = {
        {EMSGSIZE, [] {}, large, element},
        {ECONNREFUSED, [this] { close(std::exchange(receiver, -1)); }, "abc", "<x/>"},
        {ENOENT, [] { unlink(g_conf_notifier_socket); }, "abc", "<x/>"},
    };
    for (const auto &c : cases) {
        c.prepare();
        test::clear_debug_file();
        EXPECT_EQ(notify_element(event, c.element.c_str()), -1);
        EXPECT_EQ(notify_text(event, c.text.c_str()), -1);
        EXPECT_EQ(notify_nonblock(event, c.text.c_str()), -1);
        const std::string failed = std::string("[ERROR] - Send notification event failed failed(") +
                                   std::strerror(c.error) + ").";
        EXPECT_EQ(test::debug_lines(),
                  (texts{failed, "[INFO] - Sent notification to confd, length is -1", failed}));
        EXPECT_EQ(test::take_system_texts(), (texts{sent_line(-1, 4), failed_line(c.error)}));
    }
    receiver = dup(0);
    EXPECT_TRUE(slept.empty());
}

TEST_F(Notify, RetriesWhileTheQueueIsFull)
{
    const std::string too_much = "<12>[WARN] [TOO MUCH]Send notification event failed "
                                 "failed(Resource temporarily unavailable) 11.";
    fill();
    EXPECT_EQ(notify_nonblock(event, "lost"), 0);
    EXPECT_EQ(slept, std::vector<unsigned>(5, 5));
    EXPECT_EQ(send_flags.size(), 5U);
    EXPECT_EQ(test::take_system_texts(), (texts{sent_line(-1, -1), too_much}));

    slept.clear();
    after_second_pause = [this] { (void)received(); };
    EXPECT_EQ(notify_nonblock(event, "third"), 0);
    EXPECT_EQ(slept.size(), 2U);
    EXPECT_EQ(test::take_system_texts(), texts{sent_line(6, 2)});
    EXPECT_EQ(received(), texts{"third\0"s});

    const struct {
        std::vector<int> errors;
        int result;
        texts log;
    } cases[] = {
        {{EINTR, EAGAIN, EINTR, EINTR}, 0, {sent_line(4, 0)}},
        {{EAGAIN, EAGAIN, EAGAIN, EAGAIN, EINTR}, -1, {sent_line(-1, -1), failed_line(EINTR)}},
        {{EINTR, EINTR, EINTR, EINTR, EAGAIN}, 0, {sent_line(-1, -1), too_much}},
        {{EAGAIN, EPERM}, -1, {sent_line(-1, 3), failed_line(EPERM)}},
    };
    for (const auto &c : cases) {
        send_errors = c.errors;
        EXPECT_EQ(notify_nonblock(event, "abc"), c.result);
        EXPECT_EQ(test::take_system_texts(), c.log);
        EXPECT_TRUE(send_errors.empty());
    }
}

TEST_F(Notify, NamesTheFileAndTheLineInTheSystemLog)
{
    send_errors = {EPERM};
    EXPECT_EQ(notify_nonblock(event, "abc"), -1);
    const texts lines = test::take_system_log();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(std::regex_match(lines[0],
                                 std::regex("<14>\\[INFO\\]notify\\.cpp:[0-9]+ Sent [^:]*=4\\s?")))
        << lines[0];
    EXPECT_TRUE(std::regex_match(
        lines[1],
        std::regex("<11>\\[ERROR\\]notify\\.cpp:[0-9]+:conf_notify_nonblock Send .*\\s?")))
        << lines[1];
}

TEST_F(Notify, ReportsThatNoSocketCanBeMade)
{
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int results[] = {notify_element(event, "<x/>"), notify_text(event, "abc"),
                           notify_nonblock(event, "abc")};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    for (const int result : results) {
        EXPECT_EQ(result, -1);
    }
    EXPECT_EQ(test::take_system_texts(),
              texts{"<11>[ERROR] Create notifier socket failed(Too many open files)."});
}

} // namespace
