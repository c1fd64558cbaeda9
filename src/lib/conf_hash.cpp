// Hash table from texts to byte strings: one block per entry, a list of entries per bucket.
//
// A value lies behind its key, at any alignment, so it is only ever copied as bytes. Entries are
// wiped before they are freed.
//
// Relies on the list and the system log.
#include "conf_hash.h"

#include "support/bounded.h"
#include "support/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// The multiplier of a table is the largest of these that does not exceed the number of buckets.
constexpr u32_t smallest_seed = 31;
constexpr u32_t larger_seeds[] = {131,     1313,     13131,     131313,
                                  1313131, 13131313, 131313131, 1313131313};

u32_t seed_for(u32_t bucket_num)
{
    u32_t seed = smallest_seed;
    for (const u32_t larger : larger_seeds) {
        if (larger <= bucket_num) {
            seed = larger;
        }
    }
    return seed;
}

char *key_of(conf_hash_node_t *entry)
{
    return reinterpret_cast<char *>(entry + 1);
}

char *value_of(conf_hash_node_t *entry)
{
    return key_of(entry) + entry->k_len;
}

conf_dlq_list_t *bucket_of(conf_hash_tbl_t *hash_tbl, const char *key)
{
    u32_t hash = 0;
    for (; *key != '\0'; ++key) {
        hash = hash * hash_tbl->seed + static_cast<unsigned char>(*key);
    }
    return &hash_tbl->buckets[hash % hash_tbl->num];
}

conf_hash_node_t *find(conf_dlq_list_t *bucket, const char *key)
{
    for (conf_dlq_node_t *node = conf_dlq_head(bucket); node != nullptr;
         node = conf_dlq_next(bucket, node)) {
        auto *const entry = reinterpret_cast<conf_hash_node_t *>(node);
        if (std::strcmp(key_of(entry), key) == 0) {
            return entry;
        }
    }
    return nullptr;
}

// An entry with room for a key, its terminator included, and a value; null after reporting why not.
conf_hash_node_t *make_entry(std::size_t k_len, std::size_t v_len)
{
    const std::uint64_t size = std::uint64_t{sizeof(conf_hash_node_t)} + k_len + v_len;
    if (size > UINT32_MAX) {
        LOG_SYSTEM_ERROR("Allocate memory size is less than 0.");
        return nullptr;
    }
    auto *const entry =
        static_cast<conf_hash_node_t *>(std::malloc(static_cast<std::size_t>(size)));
    if (entry == nullptr) {
        LOG_SYSTEM_ERROR("Allocate memory failed(%s).", std::strerror(errno));
        return nullptr;
    }
    entry->k_len = static_cast<u32_t>(k_len);
    entry->v_len = static_cast<u32_t>(v_len);
    return entry;
}

void free_entry(conf_hash_node_t *entry)
{
    support::wipe(entry, sizeof *entry + entry->k_len + entry->v_len);
    std::free(entry);
}

} // namespace

conf_hash_tbl_t *conf_hash_create(u32_t bucket_num)
{
    if (bucket_num == 0) {
        LOG_SYSTEM_ERROR("Error input parameter(size=%d).", 0);
        return nullptr;
    }
    // Where the sum exceeds the address space, calloc() is left to refuse it.
    const std::uint64_t size =
        sizeof(conf_hash_tbl_t) + std::uint64_t{bucket_num} * sizeof(conf_dlq_list_t);
    auto *const hash_tbl = static_cast<conf_hash_tbl_t *>(
        std::calloc(1, static_cast<std::size_t>(std::min<std::uint64_t>(size, SIZE_MAX))));
    if (hash_tbl == nullptr) {
        LOG_SYSTEM_ERROR("Allocate memory failed(%s).", std::strerror(errno));
        return nullptr;
    }
    hash_tbl->num = bucket_num;
    hash_tbl->seed = seed_for(bucket_num);
    return hash_tbl;
}

void conf_hash_destroy(conf_hash_tbl_t *hash_tbl)
{
    std::free(hash_tbl);
}

int conf_hash_add(conf_hash_tbl_t *hash_tbl, char *key, void *val, u32_t v_len)
{
    if (hash_tbl == nullptr || key == nullptr || val == nullptr) {
        LOG_SYSTEM_ERROR("Error input parameter(key=%p, data=%p).", static_cast<void *>(key), val);
        return -1;
    }
    conf_dlq_list_t *const bucket = bucket_of(hash_tbl, key);
    conf_hash_node_t *const old = find(bucket, key);
    if (old != nullptr) {
        conf_dlq_remove(bucket, &old->dlq);
    }
    // Key and value may lie in the entry that they replace: it goes only when they are copied.
    const bool reuse = old != nullptr && old->v_len == v_len;
    conf_hash_node_t *const entry = reuse ? old : make_entry(std::strlen(key) + 1, v_len);
    if (entry != nullptr) {
        std::memmove(key_of(entry), key, entry->k_len);
        std::memmove(value_of(entry), val, v_len);
    }
    if (old != nullptr && !reuse) {
        free_entry(old);
    }
    return entry != nullptr ? conf_dlq_append(bucket, &entry->dlq) : -1;
}

void *conf_hash_get(conf_hash_tbl_t *hash_tbl, char *key)
{
    if (hash_tbl == nullptr || key == nullptr) {
        return nullptr;
    }
    conf_hash_node_t *const entry = find(bucket_of(hash_tbl, key), key);
    return entry != nullptr ? value_of(entry) : nullptr;
}

void conf_hash_del(conf_hash_tbl_t *hash_tbl, char *key)
{
    if (hash_tbl == nullptr || key == nullptr) {
        return;
    }
    conf_dlq_list_t *const bucket = bucket_of(hash_tbl, key);
    conf_hash_node_t *const entry = find(bucket, key);
    if (entry != nullptr) {
        conf_dlq_remove(bucket, &entry->dlq);
        free_entry(entry);
    }
}
