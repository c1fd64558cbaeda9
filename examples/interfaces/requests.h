/*
 * requests.h - what the plugin asks of the daemon beside the values of a change. Under a supervisor
 * that may be asked at any time: what the daemon sends meanwhile is handled afterwards.
 */
#ifndef INTERFACES_REQUESTS_H
#define INTERFACES_REQUESTS_H

/* Publishes the present status of the interface. A failure is logged. */
void request_publish_state(const char *name);

/* Logs behind which other interface the one at `path` stands in the configuration. */
void request_place(const char *path);

/*
 * Stages the configuration of the interface, as it is in force, in the deployment store, and saves
 * that. Returns 0, or the code of the error that it has recorded.
 */
int request_keep(const char *name);

#endif
