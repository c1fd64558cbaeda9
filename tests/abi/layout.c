/*
 * What programs compiled long ago, by another compiler or for another target, rely on: sizes,
 * offsets and constants of the public records. Nothing is linked or run: the file compiles or not.
 * Compiled as C and as C++, for the host and for targets with 32-bit pointers.
 */
#include "conf_api.h"
#include "conf_buffer.h"
#include "conf_dlq.h"
#include "conf_hash.h"
#include "conf_misc.h"
#include "conf_plugin.h"
#include "conf_vec.h"

#define P sizeof(void *)
#define SAME(actual, expected) CONF_STATIC_ASSERT((actual) == (expected), #actual)

SAME(sizeof(u8_t), 1);
SAME(sizeof(u16_t), 2);
SAME(sizeof(u32_t), 4);
SAME(sizeof(bool_t), 4);
SAME(false, 0);
SAME(true, 1);

SAME(MSG_MAGIC, 0xfedcbaffU);
SAME(sizeof(msg_head_t), 12);
SAME(offsetof(msg_head_t, magic), 0);
SAME(offsetof(msg_head_t, length), 4);
SAME(offsetof(msg_head_t, seq), 8);
SAME(offsetof(msg_head_t, format), 10);

SAME(offsetof(conf_buffer_t, total), 0);
SAME(offsetof(conf_buffer_t, used), 4);
SAME(offsetof(conf_buffer_t, buf), 8);

SAME(sizeof(conf_dlq_node_t), 3 * P);
SAME(offsetof(conf_dlq_node_t, list), 0);
SAME(offsetof(conf_dlq_node_t, prev), P);
SAME(offsetof(conf_dlq_node_t, next), 2 * P);
SAME(sizeof(conf_dlq_list_t), 3 * P);
SAME(offsetof(conf_dlq_list_t, num), 0);
SAME(offsetof(conf_dlq_list_t, head), P);
SAME(offsetof(conf_dlq_list_t, tail), 2 * P);

SAME(sizeof(conf_hash_tbl_t), 8);
SAME(offsetof(conf_hash_tbl_t, seed), 4);
SAME(offsetof(conf_hash_tbl_t, buckets), 8);
SAME(sizeof(conf_hash_node_t), 3 * P + 8);
SAME(offsetof(conf_hash_node_t, k_len), 3 * P);
SAME(offsetof(conf_hash_node_t, v_len), 3 * P + 4);

SAME(sizeof(conf_vec_node_t), P);
SAME(offsetof(conf_vec_t, size), 0);
SAME(offsetof(conf_vec_t, vec), P);

SAME(sizeof(conf_cli_info_t), 24);
SAME(offsetof(conf_cli_info_t, sshd_pid), 0);
SAME(offsetof(conf_cli_info_t, addr_buf), 8);

SAME(sizeof(conf_plugin_data), 2 * P);
SAME(offsetof(conf_plugin_data, confd_hooks), P);
SAME(__alignof__(conf_plugin_data), 1);
SAME(sizeof(confd_plugin_callback_t), 8 * P);
SAME(offsetof(confd_plugin_callback_t, conf_plugin_pull), P);
SAME(offsetof(confd_plugin_callback_t, conf_plugin_reply), 7 * P);

SAME(sizeof(econf_config_cb_info_t), 3 * P);
SAME(offsetof(econf_config_cb_info_t, priority), P);
SAME(offsetof(econf_config_cb_info_t, callback), 2 * P);
SAME(sizeof(econf_status_cb_info_t), 2 * P);
SAME(offsetof(econf_status_cb_info_t, callback), P);
SAME(sizeof(econf_operate_cb_info_t), 2 * P);
SAME(offsetof(econf_operate_cb_info_t, callback), P);
SAME(sizeof(econf_plugin_subpub_info_t), 4 * P);
SAME(offsetof(econf_plugin_subpub_info_t, status_cbs), P);
SAME(offsetof(econf_plugin_subpub_info_t, operate_cbs), 2 * P);
SAME(offsetof(econf_plugin_subpub_info_t, kick_off), 3 * P);

/* The records of the older interface are used as those of the newer one. */
SAME(sizeof(config_callback_t), sizeof(econf_config_cb_info_t));
SAME(offsetof(config_callback_t, priority), P);
SAME(offsetof(config_callback_t, config_cb), 2 * P);
SAME(sizeof(status_callback_t), sizeof(econf_status_cb_info_t));
SAME(offsetof(status_callback_t, status_cb), P);
SAME(sizeof(rpc_callback_t), sizeof(econf_operate_cb_info_t));
SAME(offsetof(rpc_callback_t, rpc_cb), P);
SAME(sizeof(conf_plugin_info_t), 5 * P);
SAME(offsetof(conf_plugin_info_t, status_cbs), P);
SAME(offsetof(conf_plugin_info_t, rpc_cbs), 2 * P);
SAME(offsetof(conf_plugin_info_t, kickoff), 3 * P);
SAME(offsetof(conf_plugin_info_t, uninstall), 4 * P);
SAME(sizeof(conf_val_t), P);

SAME(CONFIG_OP_ADD, 1);
SAME(CONFIG_OP_RM, 2);
SAME(CONFIG_OP_MOD, 4);
SAME(CONFIG_OP_CHAIN, 8);
SAME(CONFIG_OP_MOVE, 16);
SAME(CONFIG_OP_CFGR, 16384);
SAME(CONFIG_OP_ROLLBACK, 32768);
SAME(CONFIG_OP_SMOOTH, 65536);
SAME(CONFIG_OP_ERROR, -1);
SAME(ACTIVATE_WITH_CFGR, 1);
SAME(ACTIVATE_WITH_SMOOTH, 2);
SAME(DBG_CRIT, 1);
SAME(DBG_ALL, 7);
