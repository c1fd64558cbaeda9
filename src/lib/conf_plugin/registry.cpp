// The registry: finds the record of the calling process, which holds its plugin context or its
// injected hooks. Relies on the hash table only.
#include "plugin_internal.h"
#include "support/log.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

conf_hash_tbl_t *g_plugin_hash = nullptr;

namespace {

constexpr u32_t bucket_count = 8;

unsigned g_context_generation = 1;

// The key of the calling process, for instance "plugin_tid_1234".
struct record_key {
    char text[32];
};

bool build_key(record_key &key)
{
    const int length = std::snprintf(key.text, sizeof key.text, "%s%lu", "plugin_tid_",
                                     static_cast<unsigned long>(getpid()));
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof key.text) {
        LOG_FILE_ERROR("build hash_key failed");
        return false;
    }
    return true;
}

conf_plugin_data *find_record(record_key &key)
{
    return static_cast<conf_plugin_data *>(conf_hash_get(g_plugin_hash, key.text));
}

} // namespace

conf_plugin_data *get_plugin_from_hash(void)
{
    if (g_plugin_hash == nullptr) {
        g_plugin_hash = conf_hash_create(bucket_count);
    }
    record_key key;
    if (g_plugin_hash == nullptr || !build_key(key)) {
        return nullptr;
    }
    if (conf_plugin_data *record = find_record(key)) {
        return record;
    }
    LOG_FILE_INFO("Hash key = %s.", key.text);
    conf_plugin_data empty{};
    if (conf_hash_add(g_plugin_hash, key.text, &empty, sizeof empty) != 0) {
        return nullptr;
    }
    return find_record(key);
}

void del_plugin_from_hash(void)
{
    record_key key;
    if (g_plugin_hash != nullptr && build_key(key)) {
        conf_hash_del(g_plugin_hash, key.text);
    }
}

conf_plugin_context_t *get_plugin_context(void)
{
    const conf_plugin_data *record = get_plugin_from_hash();
    return record == nullptr ? nullptr : record->plugin_ctxt;
}

confd_plugin_callback_t *get_plugin_hooks(void)
{
    const conf_plugin_data *record = get_plugin_from_hash();
    return record == nullptr ? nullptr : record->confd_hooks;
}

context_guard::context_guard(const conf_plugin_context_t *ctxt)
    : ctxt_(ctxt), generation_(g_context_generation)
{
}

bool context_guard::is_gone() const
{
    return generation_ != g_context_generation || get_plugin_context() != ctxt_;
}

unsigned context_generation()
{
    return g_context_generation;
}

void advance_context_generation()
{
    ++g_context_generation;
}
