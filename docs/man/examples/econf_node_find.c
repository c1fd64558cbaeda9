/* The number of users in a tree. */
#include <conf_values.h>

int count_users(xmlNode *users)
{
    int count = 0;
    xmlNode *user = econf_node_child(users, "user");
    for (; user != NULL; user = econf_node_next(user, "user"))
        count++;
    return count;
}
