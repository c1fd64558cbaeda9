/*
 * A program in C that sees the headers and the shared library only, as a user's program does: it
 * links, and a call from each area gives the right result. No daemon is needed and no socket made.
 */
#include "conf_api.h"
#include "conf_buffer.h"
#include "conf_hash.h"
#include "conf_misc.h"
#include "conf_plugin.h"
#include "conf_vec.h"

#include <stdio.h>
#include <string.h>

static int failures = 0;

#define CHECK(condition)                                                                           \
    ((condition) ? (void)0 : (void)(failures++, fprintf(stderr, "not so: %s\n", #condition)))

/* Other programs read these words out of shared memory. */
static void use_client_record(void)
{
    const conf_cli_info_t records[] = {{.sshd_pid = -2, .valid = 1, .cli_port = 0x8001},
                                       {.ipv6 = 1}};
    u32_t words[12];
    memcpy(words, records, sizeof words);
    CHECK(words[0] == 0xfffffffeU && words[1] == 0x00020005U && words[7] == 2);
}

int main(void)
{
    char key[] = "key";
    char text[8] = "text";
    char secret[] = "<password>abc</password>";
    const char *method = NULL;
    xmlNode *params = NULL;
    xmlNode *rpc = plugin_build_rpc_message("ping", xmlNewNode(NULL, BAD_CAST "params"), 7);
    conf_buffer_t *buffer = conf_buffer_create(0);
    conf_hash_tbl_t *table = conf_hash_create(7);
    conf_vec_t *vector = conf_vector_create(1);
    CHECK(plugin_parse_rpc(rpc, &method, &params) == 0 && strcmp(method, "ping") == 0);
    CHECK(get_plugin_context() == NULL && econf_plugin_init(NULL, NULL) == -1);
    CHECK(g_rdb_recovery_status == 0 && g_log_enable == 0);
    REG_RemarkKeyInfo(secret, (int)sizeof secret - 1);
    CHECK(strcmp(secret, "<password>***</password>") == 0);
    CHECK(conf_buffer_append(&buffer, text, 4) == 0 && strcmp(buffer->buf, text) == 0);
    CHECK(conf_hash_add(table, key, text, sizeof text) == 0);
    CHECK(strcmp((char *)conf_hash_get(table, key), text) == 0);
    CHECK(conf_vector_add(&vector, text) == 0 && conf_vector_get(vector, 0) == text);
    CHECK(strcmp(conf_itoa(-42L, text, sizeof text), "-42") == 0);
    use_client_record();
    xmlFreeNode(rpc);
    conf_buffer_destroy(buffer);
    conf_hash_del(table, key);
    conf_hash_destroy(table);
    conf_vector_destroy(vector, NULL);
    return failures != 0;
}
