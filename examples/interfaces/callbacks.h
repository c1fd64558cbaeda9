/*
 * callbacks.h - the callbacks of the interfaces plugin: configuration, status, one operation and
 * the kick-off. They are the same whether the plugin is a program of its own (plugin.c) or code
 * that a daemon has loaded (../local).
 */
#ifndef INTERFACES_CALLBACKS_H
#define INTERFACES_CALLBACKS_H

#include "conf_api.h"

#include <stdbool.h>

/* What the callbacks want their program to know. */
struct interfaces_events {
    bool changed;    /* something may have changed the status of an interface */
    bool kicked_off; /* the daemon wants the plugin to end */
};
extern struct interfaces_events interfaces_events;

/* The tables to register; they live as long as the program. */
econf_plugin_subpub_info_t *interfaces_callbacks(void);

#endif
