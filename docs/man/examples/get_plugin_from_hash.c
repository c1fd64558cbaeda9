/* Whether the plugin of this process is active. */
#include <conf_plugin.h>

int is_active(void)
{
    const conf_plugin_context_t *context = get_plugin_context();
    return context != NULL && context->bit_activate;
}
