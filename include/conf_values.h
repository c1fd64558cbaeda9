/*
 * conf_values.h - helpers for callbacks: values in XML trees, keys in paths, refusals with a text.
 *
 * Every function accepts null pointers, so calls can be nested without checks:
 *
 *     static int apply(xmlNode *interface)
 *     {
 *         const char *name = NULL;
 *         long long mtu = 1500;
 *         if (econf_node_text(econf_node_child(interface, "name"), &name) != 1) {
 *             return econf_plugin_refuse(EINVAL, "an interface has a name");
 *         }
 *         if (econf_node_number(econf_node_child(interface, "mtu"), 68, 65535, &mtu) < 0) {
 *             return econf_plugin_refuse(ERANGE, "interface %s: mtu is 68 to 65535", name);
 *         }
 *         return set_mtu(name, mtu);
 *     }
 *
 * The functions that read a value return 1 if there is one, 0 if the node is null, that is, absent,
 * and -1 if the node holds something else. They write to the output only with 1, so the variable
 * can hold the default beforehand.
 *
 * Values follow the rules of XML: text may be in a CDATA section, in several nodes, or around a
 * comment. An element that contains elements or entity references has no value, and the result is
 * -1. Names are compared without prefix and namespace.
 *
 * Nothing here is logged. The functions keep no state. They may be called from any thread, but only
 * from one at a time for the same tree. econf_plugin_refuse() belongs to the thread of the plugin.
 *
 * All of this header came with version 1.1 of the interface. The loader refuses a program that uses
 * it where the library is older: "version `CONFSVC_1.1' not found".
 */
#ifndef CONF_VALUES_H
#define CONF_VALUES_H

#include "conf_def.h"

#include <libxml/tree.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- Finding nodes ------------------------------------------------------------------------- */

/*
 * The first element with that name: in `list` and the siblings after it, among the children of
 * `parent`, or among the siblings after `node`. Null if there is none. A null name matches any.
 *
 *     xmlNode *user = econf_node_child(users, "user");
 *     for (; user != NULL; user = econf_node_next(user, "user"))
 *         add(user);
 */
xmlNode *econf_node_find(xmlNode *list, const char *name);
xmlNode *econf_node_child(xmlNode *parent, const char *name);
xmlNode *econf_node_next(xmlNode *node, const char *name);

/* ---- Reading values ------------------------------------------------------------------------ */

/*
 * The text of an element, an attribute or a text node, including white space; "" for an empty one.
 * It belongs to the node, and stays valid until the node's content changes.
 *
 * Text in a single node is returned in place. Several nodes are joined first: the first one takes
 * the whole text, and the others are removed from the tree and wiped. If there is no memory for
 * that, the result is -1, too.
 */
int econf_node_text(xmlNode *node, const char **text);

/*
 * An integer from `least` to `most`: decimal digits, optionally after a "-", surrounded by optional
 * white space. A leading zero is refused, since some programs take it as octal.
 */
int econf_node_number(xmlNode *node, long long least, long long most, long long *number);
int econf_node_unsigned(xmlNode *node, unsigned long long least, unsigned long long most,
                        unsigned long long *number);

/* A boolean: "true" or "false", surrounded by optional white space. */
int econf_node_boolean(xmlNode *node, bool_t *value);

/*
 * One of `words`, an array that ends with a null pointer, surrounded by optional white space.
 * `*index` becomes its position.
 *
 *     static const char *const duplexes[] = {"auto", "half", "full", NULL};
 *     int duplex = 0;
 *     if (econf_node_choice(econf_node_child(port, "duplex"), duplexes, &duplex) < 0)
 *         return econf_plugin_refuse(EINVAL, "duplex is auto, half or full");
 */
int econf_node_choice(xmlNode *node, const char *const words[], int *index);

/* ---- Building and freeing trees ------------------------------------------------------------ */

/*
 * A new element with children, given as pairs of name and text, up to a null name. A null text
 * makes an empty child. Text is escaped when the tree is printed, so it may contain anything.
 *
 *     *status = econf_node_build("user", "name", name, "shell", shell, NULL);
 *
 * Returns the element, which the caller releases (a callback hands it to the library), or null if
 * there is no memory; nothing is left behind then.
 */
xmlNode *econf_node_build(const char *element, ...)
#if defined(__GNUC__)
    __attribute__((sentinel))
#endif
    ;

/*
 * Adds a child element with a text formatted as by printf(), or without text for a null format.
 * Returns the child. Returns null, with `parent` unchanged, if that is null or there is no memory.
 *
 *     made = econf_node_add(port, "mtu", "%u", port_mtu) != NULL && made;
 */
xmlNode *econf_node_add(xmlNode *parent, const char *element, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

/*
 * Frees a node and the siblings after it, as xmlFreeNodeList() does, after wiping their content:
 * text, CDATA sections, attribute values, comments. Use it for pulled values, and for all other
 * lists of the caller that may hold secrets.
 */
void econf_node_free_list(xmlNode *list);

/* ---- Keys of paths ------------------------------------------------------------------------- */

/*
 * The value of a key in a path, as plain text: [name=a], [name="a\"b"] and [name='a'] hold a, a"b
 * and a. Several keys may share a pair of brackets, or each have their own. `step` names the list,
 * with or without its prefix; null matches any. If several steps have the key, the last one counts.
 *
 *     char name[IFNAMSIZ];
 *     if (econf_path_key(path, "interface", "name", name, sizeof(name)) != 1)
 *         return econf_plugin_refuse(EINVAL, "%s names no interface of Linux", path);
 *
 * Copies the value and its terminating zero into `size` bytes. Returns 1; 0 if the path has no such
 * key; -1 if the value does not fit or the path is damaged. With 0 and -1 `value` is set to "" if
 * it has room for that. The value never needs more room than the path.
 */
int econf_path_key(const char *path, const char *step, const char *key, char *value, size_t size);

/* ---- Refusals with a text ------------------------------------------------------------------ */

/*
 * Records an error for the reply to the current request, as econf_plugin_error() does, with a text
 * formatted as by printf(). Returns its code, for the callback to return. Code 0, which would mean
 * success, becomes -1. A null format selects the default text. The text is copied. Operators see it
 * and logs keep it, so it must not contain secrets.
 *
 *     if (mtu < 68)
 *         return econf_plugin_refuse(ERANGE, "interface %s: mtu is 68 to 65535", name);
 */
int econf_plugin_refuse(int err_code, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
