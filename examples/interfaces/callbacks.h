/*
 * callbacks.h - the callbacks of the interfaces plugin: configuration, status, operations and the
 * kick-off. They are the same whether the plugin is a program of its own (plugin.c) or code that a
 * daemon has loaded (../local).
 */
#ifndef INTERFACES_CALLBACKS_H
#define INTERFACES_CALLBACKS_H

#include "conf_api.h"

#include <stdbool.h>

/* Something may have changed the status of an interface; its program looks and resets it. */
extern bool interfaces_changed;

/* The tables to register; they live as long as the program. */
econf_plugin_subpub_info_t *interfaces_callbacks(void);

/*
 * To be called after each joining: makes the interfaces those of the daemon's configuration. No
 * callback tells what was removed while the daemon or the plugin was away.
 */
void interfaces_joined(void *user);

#endif
