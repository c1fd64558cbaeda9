/*
 * Loaded in front of the library into the programs that confsim starts: tells confsim of each error
 * that a plugin records. An error that is recorded by a callback which then returns 0 never reaches
 * the daemon, so nothing else can know of it.
 *
 * The calls do what they do without it, errno included, and no descriptor is left open.
 * CONFSIM_WATCH names the socket, where error_watch.cpp reads what is sent here: the code and the
 * text.
 */
#include "conf_api.h"

#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#define EXPORTED __attribute__((visibility("default")))

enum { most_text = 1000 };

static void tell(int code, const char *text)
{
    const int saved = errno;
    const char *name = getenv("CONFSIM_WATCH");
    struct sockaddr_un address = {AF_UNIX, ""};
    const size_t length = name == NULL ? 0 : strlen(name);
    if (code != 0 && length > 0 && length < sizeof address.sun_path) {
        const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        struct iovec parts[] = {{&code, sizeof code},
                                {(void *)text, text == NULL ? 0 : strnlen(text, most_text)}};
        struct msghdr message = {
            .msg_name = &address, .msg_namelen = sizeof address, .msg_iov = parts, .msg_iovlen = 2};
        memcpy(address.sun_path, name, length);
        if (descriptor >= 0) {
            (void)sendmsg(descriptor, &message, MSG_NOSIGNAL);
            close(descriptor);
        }
    }
    errno = saved;
}

/* The call of the library. ISO C has no conversion from dlsym()'s result to a function. */
static void find_next(const char *name, void *function)
{
    void *found = dlsym(RTLD_NEXT, name);
    memcpy(function, &found, sizeof found);
}

EXPORTED void econf_plugin_error(int err_code, const char *err_msg)
{
    void (*next)(int, const char *) = NULL;
    find_next("econf_plugin_error", &next);
    tell(err_code, err_msg);
    next(err_code, err_msg);
}

EXPORTED int conf_set_error(int err_code, const char *err_msg)
{
    int (*next)(int, const char *) = NULL;
    find_next("conf_set_error", &next);
    tell(err_code, err_msg);
    return next(err_code, err_msg);
}

EXPORTED int conf_plg_set_error(conf_context_t *ctxt, int err_code, char *err_msg)
{
    int (*next)(conf_context_t *, int, char *) = NULL;
    find_next("conf_plg_set_error", &next);
    tell(err_code, err_msg);
    return next(ctxt, err_code, err_msg);
}

EXPORTED int econf_plugin_refuse(int err_code, const char *format, ...)
{
    int (*next)(int, const char *, ...) = NULL;
    char *text = NULL;
    int result;
    find_next("econf_plugin_refuse", &next);
    if (format != NULL) {
        va_list arguments;
        va_start(arguments, format);
        if (vasprintf(&text, format, arguments) < 0) {
            text = NULL;
        }
        va_end(arguments);
    }
    tell(err_code == 0 ? -1 : err_code, text);
    result = text == NULL ? next(err_code, NULL) : next(err_code, "%s", text);
    if (text != NULL) {
        explicit_bzero(text, strlen(text));
        free(text);
    }
    return result;
}
