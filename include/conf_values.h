/*
 * conf_values.h - reading and writing what a callback deals with: the values in XML trees, the keys
 * in paths, refusals with a text.
 *
 * Every function takes null for whatever it is given, so calls nest without a check in between:
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
 * The functions that read a value return 1 when it is there, 0 when the node is null, which is what
 * "absent" becomes, and -1 when the node holds something else. Only 1 writes to the output, so that
 * a variable may hold the default before.
 *
 * A value is what XML says, however it is written: in a CDATA section, in several pieces, around a
 * comment. An element that holds elements or references to entities has none, and is answered with
 * -1. Names are compared without prefix and namespace.
 *
 * Nothing here is logged. The functions keep no state: they may be called from any thread, each
 * tree from one at a time. econf_plugin_refuse() belongs to the thread of the plugin.
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
 * The first element of that name: among `list` and the siblings behind it, among the children of
 * `parent`, among the siblings behind `node`. Null when there is none; a null name stands for any.
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
 * The text of an element, an attribute, or a node of text, with all its white space; "" for an
 * empty one. It belongs to the node and lives as long as its content is not changed.
 *
 * A text in one piece is used where it stands. Pieces are joined, once: the first takes the whole,
 * the others leave the tree and are wiped. For that memory is needed, and -1 is also what comes
 * when there is none.
 */
int econf_node_text(xmlNode *node, const char **text);

/*
 * A whole number from `least` to `most`: decimal digits, perhaps behind a "-", with white space
 * around. A zero in front of other digits is refused, for it makes the number octal to some.
 */
int econf_node_number(xmlNode *node, long long least, long long most, long long *number);
int econf_node_unsigned(xmlNode *node, unsigned long long least, unsigned long long most,
                        unsigned long long *number);

/* A truth value: "true" or "false", with white space around. */
int econf_node_boolean(xmlNode *node, bool_t *value);

/*
 * One of `words`, whose end is a null pointer, with white space around; `*index` becomes its place.
 *
 *     static const char *const duplexes[] = {"auto", "half", "full", NULL};
 *     int duplex = 0;
 *     if (econf_node_choice(econf_node_child(port, "duplex"), duplexes, &duplex) < 0)
 *         return econf_plugin_refuse(EINVAL, "duplex is auto, half or full");
 */
int econf_node_choice(xmlNode *node, const char *const words[], int *index);

/* ---- Building and freeing trees ------------------------------------------------------------ */

/*
 * A new element with children, given as pairs of name and text up to a null name. A null text makes
 * an empty child. Texts are escaped where the tree is printed, so they may hold anything.
 *
 *     *status = econf_node_build("user", "name", name, "shell", shell, NULL);
 *
 * Returns the element, for the caller to release (a callback hands it to the library), or null when
 * there is no memory, with nothing left behind.
 */
xmlNode *econf_node_build(const char *element, ...)
#if defined(__GNUC__)
    __attribute__((sentinel))
#endif
    ;

/*
 * Adds a child element with a text made as by printf(), or without one for a null format. Returns
 * the child, or null, with `parent` as before, when that is null or there is no memory.
 *
 *     made = econf_node_add(port, "mtu", "%u", port_mtu) != NULL && made;
 */
xmlNode *econf_node_add(xmlNode *parent, const char *element, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

/*
 * Frees a node and the siblings behind it, as xmlFreeNodeList() does, after overwriting all that
 * they hold: texts, CDATA sections, attribute values, comments. For what has been pulled, and for
 * every other list of the caller's own that may hold secrets.
 */
void econf_node_free_list(xmlNode *list);

/* ---- Keys of paths ------------------------------------------------------------------------- */

/*
 * The value of a key in a path, as plain text: [name=a], [name="a\"b"] and [name='a'] hold a, a"b
 * and a; several keys stand in one pair of brackets or each in its own. `step` names the list, with
 * or without its prefix; null stands for any. Where several steps have the key, the last one
 * counts.
 *
 *     char name[IFNAMSIZ];
 *     if (econf_path_key(path, "interface", "name", name, sizeof(name)) != 1)
 *         return econf_plugin_refuse(EINVAL, "%s names no interface of Linux", path);
 *
 * Copies the value into `size` bytes with its terminating zero. Returns 1; 0 when the path has no
 * such key; -1 when the value does not fit and when the path is damaged. After 0 and -1 `value` is
 * the empty text, if it has room for one; it never needs more room than the path.
 */
int econf_path_key(const char *path, const char *step, const char *key, char *value, size_t size);

/* ---- Refusals with a text ------------------------------------------------------------------ */

/*
 * Records the error that answers the request being handled, as econf_plugin_error() does, with a
 * text made as by printf(), and returns its code: what a callback ends with. Code 0, which would be
 * success, becomes -1. A null format gives the default text. The text is copied. Operators read it
 * and logs keep it, so no secret belongs into it.
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
