/*
 * banner.c - a plugin of the older interface: keeps the login banner of the device.
 *
 *     banner-plugin FILE
 *
 * Takes the text of /system:banner from the daemon and writes it into FILE, notifies of the change,
 * tells the length as status, and serves the operation "clear-banner". It shows how a plugin that
 * was written for the older calls looks; new plugins use the newer ones (see ../interfaces).
 */
#include "conf_api.h"
#include "conf_misc.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { LONGEST_BANNER = 80 };

static const char *banner_file;

/* Puts the banner in force, and notifies of it. */
static int write_banner(const char *text)
{
    FILE *file = fopen(banner_file, "we");
    if (file == NULL) {
        return -1;
    }
    const int written = fputs(text, file);
    if (fclose(file) != 0 || written < 0) {
        return -1;
    }
    char name[] = "banner";
    char notification[] = "<banner-changed/>";
    (void)conf_notify(name, notification); /* a lost notification changes nothing */
    return 0;
}

/* The text of the banner in what conf_plg_get_value() reads: the first node below "data". */
static const char *text_of(const conf_val_t *value)
{
    const char *text =
        value->data == NULL ? NULL : conf_get_node_content(xmlFirstElementChild(value->data));
    return text == NULL ? "" : text;
}

static int on_banner(int oper, int more, int priority, char *path)
{
    (void)more;
    (void)priority;
    if ((oper & CONFIG_OP_RM) != 0) {
        return write_banner("");
    }
    conf_val_t value = {NULL};
    const int result = (oper & CONFIG_OP_ROLLBACK) != 0 ? conf_plg_get_old_value(NULL, path, &value)
                                                        : conf_plg_get_value(NULL, path, &value);
    if (result != 0) {
        return result;
    }
    int refused = 0;
    if (strlen(text_of(&value)) > LONGEST_BANNER) {
        (void)conf_set_error(27, "The banner is longer than 80 characters.");
        refused = 27;
    } else {
        refused = write_banner(text_of(&value));
    }
    xmlFreeNode(value.data);
    return refused;
}

/* The reply of an older plugin holds the status node alone. */
static int on_state(char *path, char *filter, xmlNode **status)
{
    (void)path;
    (void)filter;
    FILE *file = fopen(banner_file, "re");
    long length = 0;
    if (file != NULL) {
        length = fseek(file, 0, SEEK_END) == 0 ? ftell(file) : 0;
        (void)fclose(file);
    }
    char text[32];
    *status = xmlNewNode(NULL, (const xmlChar *)"banner-state");
    return *status != NULL && xmlNewTextChild(*status, NULL, (const xmlChar *)"length",
                                              (xmlChar *)conf_itoa(length, text, sizeof text))
               ? 0
               : -1;
}

/*
 * The output of an older operation is the content of the node that it hands back: here the reason
 * that was given, if any.
 */
static int on_clear(xmlNode *input, xmlNode **output)
{
    const char *reason = input == NULL ? NULL : conf_get_node_content(input);
    *output = xmlNewNode(NULL, (const xmlChar *)"output");
    if (*output == NULL || write_banner("") != 0) {
        return -1;
    }
    return xmlNewTextChild(*output, NULL, (const xmlChar *)"cleared", (const xmlChar *)reason) ? 0
                                                                                               : -1;
}

int main(int argc, char **argv)
{
    if (argc != 2) {
        (void)fprintf(stderr, "usage: banner-plugin FILE\n");
        return 2;
    }
    banner_file = argv[1];

    char name[] = "banner";
    char config_path[] = "/system:banner";
    char state_path[] = "/system:banner-state";
    char operation[] = "clear-banner";
    config_callback_t configs[] = {{config_path, 20, on_banner}, {NULL, 0, NULL}};
    status_callback_t states[] = {{state_path, on_state}, {NULL, NULL}};
    rpc_callback_t operations[] = {{operation, on_clear}, {NULL, NULL}};
    conf_plugin_info_t info = {configs, states, operations, NULL, NULL};

    conf_context_t *context = conf_plugin_init(name, &info);
    if (context == NULL) {
        (void)fprintf(stderr, "banner: the daemon cannot be reached, or refuses\n");
        return 1;
    }
    int result = conf_start_session(context, ACTIVATE_WITH_CFGR);
    if (result == 0) {
        result = conf_run(context, 1); /* until the daemon hangs up */
    }
    (void)conf_plugin_close(context);
    return result == 0 ? 0 : 1;
}
