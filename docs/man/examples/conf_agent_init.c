/* An agent asks for a session. The answer is read from the same socket. */
#include <conf_plugin.h>
#include <sys/socket.h>

int ask_for_session(void)
{
    const int sock = conf_agent_init();
    conf_buffer_t *requests = conf_buffer_create(0);
    if (sock >= 0 && requests != NULL && conf_agent_build_session(&requests, 1) == 0)
        (void)send(sock, conf_buffer_data(requests), (size_t)conf_buffer_length(requests),
                   MSG_NOSIGNAL);
    conf_buffer_destroy(requests);
    return sock; /* for conf_agent_exit() */
}
