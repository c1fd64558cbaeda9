// Notifications: what reaches the daemon's socket, and how the non-blocking call retries. This
// program stands in for sleep(), sendto() and syslog(), which then count, fail or spoil errno.
#include "conf_plugin/plugin_internal.h"
#include "conf_plugin/xml.h"
#include "test_support.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

using namespace test;
using namespace std::string_literals;

namespace {

std::vector<unsigned> slept;  // the pauses, in seconds
std::vector<int> send_errors; // what the next sends fail with
std::vector<int> send_flags;  // of each send

} // namespace

extern "C" unsigned sleep(unsigned seconds)
{
    slept.push_back(seconds);
    errno = ENOENT;
    return 0;
}

extern "C" ssize_t sendto(int sock, const void *data, std::size_t size, int flags,
                          const sockaddr *address, socklen_t length)
{
    send_flags.push_back(flags);
    if (!send_errors.empty()) {
        errno = send_errors.front();
        send_errors.erase(send_errors.begin());
        return -1;
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

int notify_element(const std::string &text)
{
    const node_ptr element(parse(text));
    return econf_notify(event, element.get());
}

int notify_text(const char *text)
{
    return conf_notify(event, const_cast<char *>(text));
}

int notify_nonblock(const char *text)
{
    return conf_notify_nonblock(event, const_cast<char *>(text));
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

class Notify : public Fixture {
protected:
    void SetUp() override
    {
        Fixture::SetUp();
        slept.clear();
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

    [[nodiscard]] strings received() const
    {
        strings all;
        std::string datagram(1 << 16, '\0');
        for (ssize_t count; (count = recv(receiver, datagram.data(), datagram.size(), 0)) >= 0;) {
            all.push_back(datagram.substr(0, static_cast<std::size_t>(count)));
        }
        return all;
    }

    int receiver = -1;
};

TEST_F(Notify, SendsOneDatagramWithoutAnythingAdded)
{
    EXPECT_EQ(notify_element("<x/>"), 0);
    EXPECT_EQ(notify_element("<a k='1'>&lt;<b> </b></a>"), 0);
    EXPECT_EQ(notify_text(""), 0);
    EXPECT_EQ(notify_text("abc"), 0);
    EXPECT_EQ(notify_nonblock("abc"), 0);
    const node_ptr parent(parse("<l><one/><two>2</two><three/></l>"));
    EXPECT_EQ(econf_notify(event, parent->children->next), 0);
    EXPECT_EQ(print(parent.get()), "<l><one/><two>2</two><three/></l>");
    EXPECT_EQ(received(), (strings{"<x/>", "<a k=\"1\">&lt;<b> </b></a>", "\0"s, "abc\0"s, "abc\0"s,
                                   "<two>2</two>"}));
    for (std::size_t i = 0; i < send_flags.size(); ++i) {
        EXPECT_EQ(send_flags[i] & MSG_DONTWAIT, i == 4 ? MSG_DONTWAIT : 0) << i;
    }
    EXPECT_EQ(debug_lines(), (strings{"[INFO] - Sent notification to confd, length is 1",
                                      "[INFO] - Sent notification to confd, length is 4"}));
    EXPECT_EQ(take_system_texts(), strings{sent_line(4, 4)});
}

TEST_F(Notify, RefusesNullArguments)
{
    const node_ptr node(parse("<x/>"));
    char text[] = "text";
    for (const bool no_name : {true, false}) {
        char *const name = no_name ? nullptr : event;
        xmlNode *const element = no_name ? node.get() : nullptr;
        char *const data = no_name ? text : nullptr;
        EXPECT_EQ(econf_notify(name, element), -1);
        EXPECT_EQ(conf_notify(name, data), -1);
        EXPECT_EQ(conf_notify_nonblock(name, data), -1);
        const std::string about = "Error input parameter(";
        const std::string list = about + "list=" + place(name) + ", node=" + place(data) + ").";
        EXPECT_EQ(take_errors(),
                  about + "name=" + place(name) + ", node=" + place(element) + ").\n" + list);
        EXPECT_EQ(take_system_texts(), strings{"<11>[ERROR] " + list});
    }
    EXPECT_EQ(received(), strings());
}

TEST_F(Notify, FailsAtOnceWithoutAReceiverOrWithTooMuchToSend)
{
    for (const int error : {EMSGSIZE, ECONNREFUSED, ENOENT}) {
        send_errors = {error, error, error};
        clear_debug_file();
        EXPECT_EQ(notify_element("<x/>"), -1);
        EXPECT_EQ(notify_text("abc"), -1);
        EXPECT_EQ(notify_nonblock("abc"), -1);
        const std::string failed = std::string("[ERROR] - Send notification event failed failed(") +
                                   std::strerror(error) + ").";
        EXPECT_EQ(debug_lines(),
                  (strings{failed, "[INFO] - Sent notification to confd, length is -1", failed}));
        EXPECT_EQ(take_system_texts(), (strings{sent_line(-1, 4), failed_line(error)}));
    }
    EXPECT_TRUE(slept.empty());
}

TEST_F(Notify, RetriesWhileTheQueueIsFull)
{
    const std::string too_much = "<12>[WARN] [TOO MUCH]Send notification event failed "
                                 "failed(Resource temporarily unavailable) 11.";
    const struct {
        std::vector<int> errors;
        int result;
        strings log;
        bool arrives = false;
    } cases[] = {
        {{EINTR, EAGAIN, EINTR, EINTR}, 0, {sent_line(4, 0)}, true},
        {{EAGAIN, EAGAIN}, 0, {sent_line(4, 2)}, true},
        {{EAGAIN, EAGAIN, EAGAIN, EAGAIN, EINTR}, -1, {sent_line(-1, -1), failed_line(EINTR)}},
        {{EINTR, EINTR, EINTR, EINTR, EAGAIN}, 0, {sent_line(-1, -1), too_much}},
        {{EAGAIN, EPERM}, -1, {sent_line(-1, 3), failed_line(EPERM)}},
    };
    for (const auto &c : cases) {
        slept.clear();
        send_errors = c.errors;
        EXPECT_EQ(notify_nonblock("abc"), c.result);
        const auto pauses = std::count(c.errors.begin(), c.errors.end(), EAGAIN) +
                            std::count(c.errors.begin(), c.errors.end(), EINTR);
        EXPECT_EQ(slept, std::vector<unsigned>(static_cast<std::size_t>(pauses), 5));
        EXPECT_EQ(take_system_texts(), c.log);
        EXPECT_EQ(received(), c.arrives ? strings{"abc\0"s} : strings());
        EXPECT_TRUE(send_errors.empty());
    }

    send_errors = {EPERM};
    EXPECT_EQ(notify_nonblock("abc"), -1);
    const strings lines = take_system_log();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(lines[0].starts_with("<14>[INFO]notify.cpp:")) << lines[0];
    EXPECT_TRUE(lines[1].starts_with("<11>[ERROR]notify.cpp:")) << lines[1];
    EXPECT_NE(lines[1].find(":conf_notify_nonblock Send"), std::string::npos) << lines[1];
}

TEST_F(Notify, ReportsThatNoSocketCanBeMade)
{
    EXPECT_EQ(without_descriptors([] { return notify_element("<x/>"); }), -1);
    EXPECT_EQ(without_descriptors([] { return notify_text("abc"); }), -1);
    EXPECT_EQ(without_descriptors([] { return notify_nonblock("abc"); }), -1);
    EXPECT_EQ(take_system_texts(),
              strings{"<11>[ERROR] Create notifier socket failed(Too many open files)."});
}

} // namespace
