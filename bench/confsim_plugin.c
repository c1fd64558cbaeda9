/* Plugins for confsim.py.
 *
 *     confsim_plugin one        subscribes to the list, and asks what its operations tell it to
 *     confsim_plugin many N     N processes named p1 to pN, with ten subscriptions each: one that
 * all of them have, and nine of their own
 */
#include "conf_supervisor.h"
#include "conf_values.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { subscriptions = 10 };

static int accept_change(int session_id, int oper, int more, int priority, const char *path)
{
    (void)session_id, (void)oper, (void)more, (void)priority, (void)path;
    return 0;
}

static double now_us(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return 1e6 * (double)now.tv_sec + 1e-3 * (double)now.tv_nsec;
}

static int pull(const char *path)
{
    xmlNode *found = NULL;
    int result = econf_plugin_pull(0, path, &found);
    result = result == 0 && found == NULL ? ENOENT : result;
    xmlFreeNodeList(found);
    return result;
}

static int locate(const char *path)
{
    xmlNode *position = NULL;
    int result = econf_plugin_locate(0, path, &position);
    xmlFreeNode(position);
    return result;
}

/* Asks `times` times, and answers with the microseconds that one took. */
static int ask(xmlNode *input, xmlNode **output, int (*request)(const char *path))
{
    const char *path = NULL;
    long long times = 0;
    double begin = now_us();
    if (econf_node_text(econf_node_find(input, "path"), &path) != 1 ||
        econf_node_number(econf_node_find(input, "times"), 1, 1000000, &times) != 1)
        return EINVAL;
    for (long long left = times; left > 0; --left) {
        int result = request(path);
        if (result != 0)
            return result;
    }
    *output = econf_node_build("took", NULL);
    return econf_node_add(*output, "us", "%.3f", (now_us() - begin) / (double)times) == NULL
               ? ENOMEM
               : 0;
}

static int on_pull(int session_id, xmlNode *input, xmlNode **output)
{
    (void)session_id;
    return ask(input, output, pull);
}

static int on_locate(int session_id, xmlNode *input, xmlNode **output)
{
    (void)session_id;
    return ask(input, output, locate);
}

static int serve(const char *name, econf_config_cb_info_t *configs)
{
    econf_operate_cb_info_t operations[] = {{"pull", on_pull}, {"locate", on_locate}, {NULL, NULL}};
    econf_plugin_subpub_info_t callbacks = {configs, NULL, operations, NULL};
    econf_supervisor_t *plugin = econf_supervisor_create(name, &callbacks, NULL);
    int result = econf_supervisor_run(plugin);
    econf_supervisor_destroy(plugin);
    return result == 0 ? 0 : 1;
}

static int be_one_of_many(int number)
{
    char name[16];
    char paths[subscriptions][32];
    econf_config_cb_info_t configs[subscriptions + 1] = {{0}};
    snprintf(name, sizeof name, "p%d", number);
    for (int i = 0; i < subscriptions; ++i) {
        if (i == 0)
            snprintf(paths[i], sizeof paths[i], "/bench:all");
        else
            snprintf(paths[i], sizeof paths[i], "/bench:p%d/s%d", number, i);
        configs[i].path = paths[i];
        configs[i].priority = 10;
        configs[i].callback = accept_change;
    }
    return serve(name, configs);
}

int main(int count, char *argument[])
{
    if (count == 2 && strcmp(argument[1], "one") == 0) {
        econf_config_cb_info_t configs[] = {{"/bench:top/entry", 10, accept_change},
                                            {NULL, 0, NULL}};
        return serve("one", configs);
    }
    if (count == 3 && strcmp(argument[1], "many") == 0) {
        for (int number = atoi(argument[2]); number > 0; --number) {
            if (fork() == 0)
                return be_one_of_many(number);
        }
        while (wait(NULL) > 0)
            ;
        return 0;
    }
    fprintf(stderr, "usage: %s one | many N\n", argument[0]);
    return 2;
}
