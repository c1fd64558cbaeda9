/*
 * link.c - see link.h. Each request is one message on a fresh socket, acknowledged by the kernel
 * before the send returns; so there is never an answer to an earlier request to be sorted out.
 */
#include "link.h"

#include <errno.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

/* Kinds of interface without hardware, in order of preference; a kernel may lack the first. */
static const char *const kinds[] = {"dummy", "ifb"};

struct request {
    struct nlmsghdr head;
    struct ifinfomsg link;
    char attributes[512];
};

static void begin(struct request *request, unsigned short type, unsigned short flags)
{
    memset(request, 0, sizeof(*request));
    request->head.nlmsg_type = type;
    request->head.nlmsg_flags = (unsigned short)(NLM_F_REQUEST | NLM_F_ACK | flags);
    request->head.nlmsg_len = (unsigned)offsetof(struct request, attributes);
}

/* Appends an attribute; returns it, or null when the message is full. */
static struct rtattr *add(struct request *request, unsigned short type, const void *value,
                          size_t size)
{
    const size_t start = NLMSG_ALIGN(request->head.nlmsg_len);
    const size_t length = RTA_LENGTH(size);
    if (size > sizeof(request->attributes) || start + RTA_ALIGN(length) > sizeof(*request)) {
        return NULL;
    }
    struct rtattr *attribute = (struct rtattr *)((char *)request + start);
    attribute->rta_type = type;
    attribute->rta_len = (unsigned short)length;
    if (size > 0) {
        memcpy(RTA_DATA(attribute), value, size);
    }
    request->head.nlmsg_len = (unsigned)(start + RTA_ALIGN(length));
    return attribute;
}

static struct rtattr *add_text(struct request *request, unsigned short type, const char *text)
{
    return add(request, type, text, strlen(text) + 1);
}

static bool add_kind(struct request *request, const char *kind)
{
    const size_t start = NLMSG_ALIGN(request->head.nlmsg_len);
    struct rtattr *info = add(request, IFLA_LINKINFO, NULL, 0);
    if (info == NULL || add_text(request, IFLA_INFO_KIND, kind) == NULL) {
        return false;
    }
    info->rta_len = (unsigned short)(request->head.nlmsg_len - start); /* it holds the kind */
    return true;
}

/* Waits for the kernel's acknowledgement: 0 or a negative errno value. */
static int acknowledgement(int handle)
{
    union {
        struct nlmsghdr head;
        char bytes[4096];
    } answer;
    ssize_t size;
    do {
        size = recv(handle, &answer, sizeof(answer), 0);
    } while (size < 0 && errno == EINTR);
    if (size < 0) {
        return -errno;
    }
    if ((size_t)size < NLMSG_LENGTH(sizeof(int)) || answer.head.nlmsg_type != NLMSG_ERROR) {
        return -EPROTO;
    }
    int error = 0;
    memcpy(&error, NLMSG_DATA(&answer.head), sizeof(error));
    return error;
}

static int transact(const struct request *request)
{
    const int handle = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (handle < 0) {
        return -errno;
    }
    ssize_t sent;
    do {
        sent = send(handle, request, request->head.nlmsg_len, 0);
    } while (sent < 0 && errno == EINTR);
    const int result = sent < 0 ? -errno : acknowledgement(handle);
    (void)close(handle);
    return result;
}

int link_create(const char *name)
{
    const unsigned group = LINK_OWN_GROUP;
    int result = -EOPNOTSUPP;
    for (size_t i = 0; i < sizeof(kinds) / sizeof(kinds[0]) && result == -EOPNOTSUPP; ++i) {
        struct request request;
        begin(&request, RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
        if (add_text(&request, IFLA_IFNAME, name) == NULL ||
            add(&request, IFLA_GROUP, &group, sizeof(group)) == NULL ||
            !add_kind(&request, kinds[i])) {
            return -EMSGSIZE;
        }
        result = transact(&request);
    }
    return result;
}

int link_set(const char *name, unsigned mtu, const char *alias, bool up)
{
    struct request request;
    begin(&request, RTM_NEWLINK, 0);
    request.link.ifi_flags = up ? IFF_UP : 0;
    request.link.ifi_change = IFF_UP;
    if (add_text(&request, IFLA_IFNAME, name) == NULL ||
        add(&request, IFLA_MTU, &mtu, sizeof(mtu)) == NULL ||
        add_text(&request, IFLA_IFALIAS, alias) == NULL) {
        return -EMSGSIZE;
    }
    return transact(&request);
}

int link_delete(const char *name)
{
    struct request request;
    begin(&request, RTM_DELLINK, 0);
    if (add_text(&request, IFLA_IFNAME, name) == NULL) {
        return -EMSGSIZE;
    }
    return transact(&request);
}

bool link_is_forbidden(int error)
{
    return error == -EPERM || error == -EACCES || error == -EOPNOTSUPP || error == -EAFNOSUPPORT ||
           error == -EPROTONOSUPPORT;
}

int link_watch_open(void)
{
    const int watch = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (watch < 0) {
        return -errno;
    }
    struct sockaddr_nl address;
    memset(&address, 0, sizeof(address));
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (bind(watch, (const struct sockaddr *)&address, sizeof(address)) != 0) {
        const int error = errno;
        (void)close(watch);
        return -error;
    }
    return watch;
}

void link_watch_drain(int watch)
{
    char rest;
    /* A lost message (ENOBUFS) needs no care: the reader looks at all interfaces anyway. */
    while (recv(watch, &rest, sizeof(rest), 0) >= 0 || errno == ENOBUFS || errno == EINTR) {
    }
}
