// A plugin "demo" that registers by either interface. Both have a callback of each kind, and all
// lead to one function of the program that includes this.
#ifndef CONFSVC_TEST_BOTH_INTERFACES_H
#define CONFSVC_TEST_BOTH_INTERFACES_H

#include "conf_api.h"
#include "conf_plugin.h"

namespace test {

// A change has a path only, a status also an output, an operation no path, a kick-off nothing.
int handle_call(const char *path, xmlNode *input, xmlNode **output);

inline char path_of_changes[] = "/demo", path_of_status[] = "/state", operation[] = "reset";

inline void kicked_off()
{
    (void)handle_call(nullptr, nullptr, nullptr);
}

inline econf_plugin_subpub_info_t *callbacks()
{
    static econf_config_cb_info_t configs[] = {
        {path_of_changes, 10,
         [](int, int, int, int, const char *at) { return handle_call(at, nullptr, nullptr); }},
        {}};
    static econf_status_cb_info_t states[] = {
        {path_of_status, [](int, const char *at, const char *,
                            xmlNode **out) { return handle_call(at, nullptr, out); }},
        {}};
    static econf_operate_cb_info_t operations[] = {
        {operation, [](int, xmlNode *in, xmlNode **out) { return handle_call(nullptr, in, out); }},
        {}};
    static econf_plugin_subpub_info_t all = {configs, states, operations, kicked_off};
    return &all;
}

inline int initialise()
{
    return econf_plugin_init("demo", callbacks());
}

inline conf_context_t *initialise_by_older_interface()
{
    static config_callback_t configs[] = {
        {path_of_changes, 10,
         [](int, int, int, char *at) { return handle_call(at, nullptr, nullptr); }},
        {}};
    static status_callback_t states[] = {
        {path_of_status,
         [](char *at, char *, xmlNode **out) { return handle_call(at, nullptr, out); }},
        {}};
    static rpc_callback_t operations[] = {
        {operation, [](xmlNode *in, xmlNode **out) { return handle_call(nullptr, in, out); }}, {}};
    static conf_plugin_info_t all = {configs, states, operations, kicked_off, nullptr};
    return conf_plugin_init(path_of_changes + 1, &all);
}

} // namespace test

#endif
