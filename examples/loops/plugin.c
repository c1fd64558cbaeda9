/* See plugin.h. */
#include "plugin.h"

#include <stdio.h>
#include <stdlib.h>

static int on_state(int session_id, const char *path, const char *filter, xmlNode **status)
{
    (void)session_id;
    (void)path;
    (void)filter;
    *status = xmlNewNode(NULL, BAD_CAST "in-a-loop");
    return *status == NULL;
}

static void on_joined(void *user)
{
    (void)user;
    puts("joined");
}

static void on_lost(void *user, const char *why)
{
    (void)user;
    printf("lost: %s\n", why);
}

econf_supervisor_t *make_plugin(void)
{
    econf_status_cb_info_t states[] = {{"/loops:state", on_state}, {NULL, NULL}};
    econf_plugin_subpub_info_t info = {NULL, states, NULL, NULL};
    econf_supervisor_options_t options = {0, 0, 0, 0, 0, on_joined, on_lost, NULL};
    econf_supervisor_t *supervisor = econf_supervisor_create("loops", &info, &options);
    if (supervisor == NULL) {
        fprintf(stderr, "The plugin cannot be supervised.\n");
        exit(1);
    }
    return supervisor;
}
