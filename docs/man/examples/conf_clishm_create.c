/* The daemon makes a fresh table, whatever was left of an earlier one, and notes a client. */
#include <conf_misc.h>
#include <string.h>
#include <unistd.h>

int note_client(u32_t address, unsigned int port)
{
    conf_cli_info_t client;
    int tries = 3;
    while (conf_clishm_create(64) != 0 && --tries > 0)
        continue; /* what stood in the way has been removed */
    memset(&client, 0, sizeof(client));
    client.sshd_pid = getpid();
    client.cli_port = port & 0xffff;
    client.addr_buf[0] = address;
    return tries > 0 ? conf_save_client_info(&client) : -1;
}
