/* A callback of the plain interface that refuses with a text. */
#include <conf_api.h>
#include <errno.h>

int on_reset(int session_id, xmlNode *input, xmlNode **output)
{
    (void)session_id, (void)input, (void)output;
    econf_plugin_error(EBUSY, "The board is being updated.");
    return EBUSY;
}
