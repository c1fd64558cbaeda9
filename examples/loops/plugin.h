/* The plugin of these examples: answers for its state, whatever loop it runs in. */
#ifndef LOOPS_PLUGIN_H
#define LOOPS_PLUGIN_H

#include <conf_supervisor.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The supervised plugin, for the loop to watch and for econf_supervisor_destroy(). Ends the program
 * when it cannot be had. */
econf_supervisor_t *make_plugin(void);

#ifdef __cplusplus
}
#endif
#endif
