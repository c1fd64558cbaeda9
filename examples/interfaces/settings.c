/*
 * settings.c - see settings.h. All checks of the configuration stand here: what passes them is safe
 * to be used as the name of an interface and of a file below /sys.
 */
#include "settings.h"

#include "conf_values.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>

enum { MTU_DEFAULT = 1500, MTU_LEAST = 68, MTU_MOST = 65535 };

int refuse(int code, const char *format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the checker overlooks va_start()
    (void)vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    syslog(LOG_WARNING, "%s", text);
    return econf_plugin_refuse(code, "%s", text);
}

int settings_check_name(const char *name)
{
    if (name[0] == '\0' || strlen(name) >= IFNAMSIZ) {
        return refuse(ENAMETOOLONG, "interface %.64s: a name has 1 to %d characters", name,
                      IFNAMSIZ - 1);
    }
    if (strpbrk(name, "/:%[]'\" \t\r\n") != NULL || strcmp(name, ".") == 0 ||
        strcmp(name, "..") == 0) {
        return refuse(EINVAL, "interface %s: the name holds characters that Linux forbids", name);
    }
    if (strcmp(name, "lo") == 0) {
        return refuse(EPERM, "interface lo: the loopback interface cannot be configured");
    }
    return 0;
}

int settings_read_name(const char *path, char name[IFNAMSIZ])
{
    const int found = econf_path_key(path, "interface", "name", name, IFNAMSIZ);
    if (found < 0) {
        return refuse(ENAMETOOLONG, "path %s: a name has at most %d characters", path,
                      IFNAMSIZ - 1);
    }
    return found == 0 ? refuse(EINVAL, "path %s does not name an interface", path)
                      : settings_check_name(name);
}

int settings_read(xmlNode *interface, const char *name, struct settings *settings)
{
    bool_t enabled = true;
    long long mtu = MTU_DEFAULT;
    const char *description = "";
    if (econf_node_boolean(econf_node_child(interface, "enabled"), &enabled) < 0) {
        return refuse(EINVAL, "interface %s: enabled is true or false", name);
    }
    if (econf_node_number(econf_node_child(interface, "mtu"), 0, MTU_MOST, &mtu) < 0) {
        return refuse(ERANGE, "interface %s: mtu is a number up to %d", name, MTU_MOST);
    }
    if (mtu < MTU_LEAST) {
        return refuse(ERANGE,
                      "interface %s: mtu %lld is below %d, the least that IPv4 can work with", name,
                      mtu, MTU_LEAST);
    }
    if (econf_node_text(econf_node_child(interface, "description"), &description) < 0 ||
        strlen(description) >= sizeof(settings->description)) {
        return refuse(EINVAL, "interface %s: a description is a text of at most %zu bytes", name,
                      sizeof(settings->description) - 1);
    }
    settings->enabled = enabled;
    settings->mtu = (unsigned)mtu;
    memcpy(settings->description, description, strlen(description) + 1);
    return 0;
}
