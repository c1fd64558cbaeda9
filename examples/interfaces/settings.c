/*
 * settings.c - see settings.h. All checks of the configuration stand here: what passes them is safe
 * to be used as the name of an interface and of a file below /sys.
 */
#include "settings.h"

#include "conf_api.h"
#include "conf_misc.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { MTU_DEFAULT = 1500, MTU_LEAST = 68, MTU_MOST = 65535 };

int refuse(int code, const char *format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the checker overlooks va_start()
    (void)vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    econf_plugin_error(code, text);
    return code;
}

int settings_read_name(const char *path, char name[IFNAMSIZ])
{
    static const char head[] = "/ietf-interfaces:interfaces/interface[name=";
    const size_t head_length = sizeof(head) - 1;
    const size_t length = path == NULL ? 0 : strlen(path);
    if (length <= head_length + 1 || strncmp(path, head, head_length) != 0 ||
        path[length - 1] != ']') {
        return refuse(EINVAL, "path %s does not name an interface", path == NULL ? "" : path);
    }

    const char *key = path + head_length;
    const int key_length = (int)(length - head_length - 1);
    if (key_length >= IFNAMSIZ) {
        return refuse(ENAMETOOLONG, "interface %.*s: a name has at most %d characters", key_length,
                      key, IFNAMSIZ - 1);
    }
    memcpy(name, key, (size_t)key_length);
    name[key_length] = '\0';

    if (strpbrk(name, "/:%[]'\" \t\r\n") != NULL || strcmp(name, ".") == 0 ||
        strcmp(name, "..") == 0) {
        return refuse(EINVAL, "interface %s: the name holds characters that Linux forbids", name);
    }
    if (strcmp(name, "lo") == 0) {
        return refuse(EPERM, "interface lo: the loopback interface cannot be configured");
    }
    return 0;
}

static bool is_element(const xmlNode *node, const char *name)
{
    return node->type == XML_ELEMENT_NODE && xmlStrEqual(node->name, (const xmlChar *)name);
}

/* The text of the child element, "" when it is empty, null when there is none. */
static const char *child_text(const xmlNode *parent, const char *name)
{
    for (xmlNode *child = parent->children; child != NULL; child = child->next) {
        if (is_element(child, name)) {
            const char *text = conf_get_node_content(child);
            return text == NULL ? "" : text;
        }
    }
    return NULL;
}

static int read_enabled(const char *text, const char *name, bool *enabled)
{
    if (strcmp(text, "true") != 0 && strcmp(text, "false") != 0) {
        return refuse(EINVAL, "interface %s: enabled is true or false, not %.32s", name, text);
    }
    *enabled = strcmp(text, "true") == 0;
    return 0;
}

static int read_mtu(const char *text, const char *name, unsigned *mtu)
{
    char *end = NULL;
    errno = 0;
    const unsigned long value = strtoul(text, &end, 10);
    if (text[strspn(text, "0123456789")] != '\0' || end == text) {
        return refuse(EINVAL, "interface %s: mtu %.32s is not a number", name, text);
    }
    if (value < MTU_LEAST) {
        return refuse(ERANGE,
                      "interface %s: mtu %lu is below %d, the least that IPv4 can work with", name,
                      value, MTU_LEAST);
    }
    if (errno == ERANGE || value > MTU_MOST) {
        return refuse(ERANGE, "interface %s: mtu %.32s is above %d", name, text, MTU_MOST);
    }
    *mtu = (unsigned)value;
    return 0;
}

static int read_description(const char *text, const char *name, struct settings *settings)
{
    const size_t length = strlen(text);
    if (length >= sizeof(settings->description)) {
        return refuse(EINVAL, "interface %s: a description has at most %zu bytes", name,
                      sizeof(settings->description) - 1);
    }
    memcpy(settings->description, text, length + 1);
    return 0;
}

int settings_read(const xmlNode *pulled, const char *name, struct settings *settings)
{
    const xmlNode *node = pulled;
    while (node != NULL && !is_element(node, "interface")) {
        node = node->next;
    }
    if (node == NULL) {
        return refuse(ENOENT, "interface %s: the daemon has no configuration of it", name);
    }

    struct settings read = {.enabled = true, .mtu = MTU_DEFAULT};
    const char *enabled = child_text(node, "enabled");
    const char *mtu = child_text(node, "mtu");
    const char *description = child_text(node, "description");
    int code = 0;
    if (enabled != NULL) {
        code = read_enabled(enabled, name, &read.enabled);
    }
    if (code == 0 && mtu != NULL) {
        code = read_mtu(mtu, name, &read.mtu);
    }
    if (code == 0 && description != NULL) {
        code = read_description(description, name, &read);
    }
    if (code == 0) {
        *settings = read;
    }
    return code;
}
