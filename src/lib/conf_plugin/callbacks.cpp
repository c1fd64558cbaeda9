// The table of callbacks of a plugin, and of which kind each of them is: a request of the daemon
// names a callback by its index only, and calling one with the arguments of another kind would use
// wild pointers. registration.cpp fills the table, loop.cpp looks callbacks up.
#include "plugin_internal.h"

#include <array>

namespace {

// What was announced last: the first index of each kind.
struct {
    const conf_plugin_context_t *ctxt;
    std::array<u32_t, 4> first;
} g_announced = {nullptr, {0, 0, 0, UINT32_MAX}};

std::size_t position(callback_kind kind)
{
    return static_cast<std::size_t>(kind);
}

// Of a context that was not registered here the kinds are not known, and only the kick-off is
// excluded.
bool is_announced_as(const conf_plugin_context_t *ctxt, callback_kind kind, u32_t index)
{
    const std::size_t at = position(kind);
    return ctxt != g_announced.ctxt
               ? index > 0
               : index >= g_announced.first[at] && index < g_announced.first[at + 1];
}

} // namespace

void begin_table(conf_plugin_context_t *ctxt, void (*kick_off)())
{
    g_announced.ctxt = ctxt;
    ctxt->cbs_nums = 1;
    ctxt->cbs[0] = function_cast<econf_subpub_cb_t>(kick_off);
}

void announce_kind(const conf_plugin_context_t *ctxt, callback_kind kind)
{
    g_announced.first[position(kind)] = ctxt->cbs_nums;
}

void announce_callback(conf_plugin_context_t *ctxt, econf_subpub_cb_t callback)
{
    ctxt->cbs[ctxt->cbs_nums++] = callback;
}

void forget_table()
{
    g_announced.ctxt = nullptr;
}

econf_subpub_cb_t announced_callback(const conf_plugin_context_t *ctxt, callback_kind kind,
                                     int index)
{
    const auto slot = static_cast<u32_t>(index);
    const bool announced = slot < ctxt->cbs_nums && is_announced_as(ctxt, kind, slot);
    return announced ? ctxt->cbs[slot] : nullptr;
}
