/* Whoever listens is told that a link is down; nobody answers. */
#include <conf_api.h>

int tell_link_down(const char *interface)
{
    xmlNode *event = xmlNewNode(NULL, BAD_CAST "link-down");
    if (event == NULL)
        return -1;
    const int told = xmlNewTextChild(event, NULL, BAD_CAST "name", BAD_CAST interface) != NULL
                         ? econf_notify("link-down", event)
                         : -1;
    xmlFreeNode(event);
    return told;
}
