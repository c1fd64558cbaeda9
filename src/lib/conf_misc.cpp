// Small helpers for descriptors, epoll, XML node text, strings, numbers and time.
// Relies on the system log; reads libxml2's nodes without calling libxml2.
#include "conf_misc.h"

#include "support/bounded.h"
#include "support/log.h"

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/epoll.h>
#include <sys/time.h>

namespace {

enum wanted_event { wanted_input = 1, wanted_output = 2 };

epoll_event edge_triggered(int event, int para)
{
    epoll_event record{};
    record.events = EPOLLET | EPOLLRDHUP;
    if ((event & wanted_input) != 0) {
        record.events |= EPOLLIN;
    }
    if ((event & wanted_output) != 0) {
        record.events |= EPOLLOUT;
    }
    record.data.u32 = static_cast<std::uint32_t>(para);
    return record;
}

bool is_space(char character)
{
    return std::isspace(static_cast<unsigned char>(character)) != 0;
}

} // namespace

int conf_non_block_fd(int fd)
{
    const int options = fcntl(fd, F_GETFL);
    if (options < 0) {
        LOG_SYSTEM_ERROR("Get options of fd(%d) failed(%s).", fd, std::strerror(errno));
        return -1;
    }
    if (fcntl(fd, F_SETFL, options | O_NONBLOCK) < 0) {
        LOG_SYSTEM_ERROR("Set options of fd(%d) failed(%s).", fd, std::strerror(errno));
        return -1;
    }
    return 0;
}

int conf_event_add(int epfd, int fd, int event, int para)
{
    epoll_event record = edge_triggered(event, para);
    if (epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &record) < 0) {
        LOG_SYSTEM_ERROR("Add event(fd=%d, event=%d, para=%d) failed(%s).", fd, event, para,
                         std::strerror(errno));
        return -1;
    }
    return 0;
}

int conf_event_reset(int epfd, int fd, int event, int para)
{
    epoll_event record = edge_triggered(event, para);
    if (epoll_ctl(epfd, EPOLL_CTL_MOD, fd, &record) < 0) {
        LOG_SYSTEM_ERROR("Reset event(fd=%d, event=%d, para=%d) failed(%s).", fd, event, para,
                         std::strerror(errno));
        return -1;
    }
    return 0;
}

const char *conf_get_node_content(xmlNode *node)
{
    if (node == nullptr || (node->type != XML_ELEMENT_NODE && node->type != XML_ATTRIBUTE_NODE)) {
        return nullptr;
    }
    const xmlNode *const child = node->children;
    if (child == nullptr || child->type != XML_TEXT_NODE) {
        return nullptr;
    }
    return reinterpret_cast<const char *>(child->content);
}

char *conf_strip(const char *str)
{
    std::string_view text = str != nullptr ? str : "";
    while (!text.empty() && is_space(text.back())) {
        text.remove_suffix(1);
    }
    while (!text.empty() && is_space(text.front())) {
        text.remove_prefix(1);
    }
    if (text.empty()) {
        return nullptr;
    }
    return strndup(text.data(), text.size());
}

char *conf_itoa(long i, char *buf, unsigned int size)
{
    if (buf != nullptr && size > 0) {
        support::print_cut(buf, size, "%ld", i);
    }
    return buf;
}

long long conf_get_unix_time(void)
{
    timeval now{};
    (void)gettimeofday(&now, nullptr);
    return static_cast<long long>(now.tv_sec) * 1000000 + now.tv_usec;
}
