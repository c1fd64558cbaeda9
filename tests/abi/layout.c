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
#define AT(type, member, place) SAME(offsetof(type, member), place)

/* Records of which every member takes the place of a pointer. */
#define TWO(type, a, b)                                                                            \
    SAME(sizeof(type), 2 * P);                                                                     \
    AT(type, a, 0);                                                                                \
    AT(type, b, P)
#define THREE(type, a, b, c)                                                                       \
    SAME(sizeof(type), 3 * P);                                                                     \
    AT(type, a, 0);                                                                                \
    AT(type, b, P);                                                                                \
    AT(type, c, 2 * P)

CONF_STATIC_ASSERT(sizeof(u8_t) == 1 && sizeof(u16_t) == 2 && sizeof(u32_t) == 4 &&
                       sizeof(bool_t) == 4 && false == 0 && true == 1,
                   "basic types");
SAME(MSG_MAGIC, 0xfedcbaffU);
SAME(sizeof(msg_head_t), 12);
AT(msg_head_t, length, 4);
AT(msg_head_t, seq, 8);
AT(msg_head_t, format, 10);
AT(conf_buffer_t, used, 4);
AT(conf_buffer_t, buf, 8);
THREE(conf_dlq_node_t, list, prev, next);
THREE(conf_dlq_list_t, num, head, tail);
SAME(sizeof(conf_hash_tbl_t), 8);
AT(conf_hash_tbl_t, seed, 4);
AT(conf_hash_tbl_t, buckets, 8);
SAME(sizeof(conf_hash_node_t), 3 * P + 8);
AT(conf_hash_node_t, k_len, 3 * P);
AT(conf_hash_node_t, v_len, 3 * P + 4);
SAME(sizeof(conf_vec_node_t), P);
AT(conf_vec_t, vec, P);
SAME(sizeof(conf_cli_info_t), 24);
AT(conf_cli_info_t, addr_buf, 8);
TWO(conf_plugin_data, plugin_ctxt, confd_hooks);
SAME(__alignof__(conf_plugin_data), 1);
SAME(sizeof(confd_plugin_callback_t), 8 * P);
AT(confd_plugin_callback_t, conf_plugin_pull, P);
AT(confd_plugin_callback_t, conf_plugin_reply, 7 * P);
THREE(econf_config_cb_info_t, path, priority, callback);
TWO(econf_status_cb_info_t, path, callback);
TWO(econf_operate_cb_info_t, path, callback);
SAME(sizeof(econf_plugin_subpub_info_t), 4 * P);
AT(econf_plugin_subpub_info_t, status_cbs, P);
AT(econf_plugin_subpub_info_t, operate_cbs, 2 * P);
AT(econf_plugin_subpub_info_t, kick_off, 3 * P);

/* The records of the older interface are used as those of the newer one. */
THREE(config_callback_t, path, priority, config_cb);
TWO(status_callback_t, path, status_cb);
TWO(rpc_callback_t, rpc_name, rpc_cb);
SAME(sizeof(conf_plugin_info_t), 5 * P);
AT(conf_plugin_info_t, status_cbs, P);
AT(conf_plugin_info_t, rpc_cbs, 2 * P);
AT(conf_plugin_info_t, kickoff, 3 * P);
AT(conf_plugin_info_t, uninstall, 4 * P);
SAME(sizeof(conf_val_t), P);

CONF_STATIC_ASSERT(CONFIG_OP_ADD == 1 && CONFIG_OP_RM == 2 && CONFIG_OP_MOD == 4 &&
                       CONFIG_OP_CHAIN == 8 && CONFIG_OP_MOVE == 16 && CONFIG_OP_CFGR == 16384 &&
                       CONFIG_OP_ROLLBACK == 32768 && CONFIG_OP_SMOOTH == 65536 &&
                       CONFIG_OP_ERROR == -1 && ACTIVATE_WITH_CFGR == 1 &&
                       ACTIVATE_WITH_SMOOTH == 2 && DBG_CRIT == 1 && DBG_ALL == 7,
                   "numbers on the wire and in calls");
