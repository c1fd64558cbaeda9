// Growable array of pointers with stable indices. Relies on the C library only.
#include "conf_vec.h"
#include "support/log.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// A zeroed vector; null with errno set, also when the size cannot be counted or indexed.
conf_vec_t *allocate(std::uint64_t size)
{
    const std::uint64_t bytes = offsetof(conf_vec_t, vec) + size * sizeof(conf_vec_node_t);
    if (size > INT_MAX || bytes > SIZE_MAX) {
        errno = ENOMEM;
        return nullptr;
    }
    auto *vector = static_cast<conf_vec_t *>(calloc(1, static_cast<std::size_t>(bytes)));
    if (vector != nullptr) {
        vector->size = static_cast<u32_t>(size);
    }
    return vector;
}

bool has_slot(const conf_vec_t *vector, u32_t idx)
{
    return vector != nullptr && idx < vector->size;
}

} // namespace

conf_vec_t *conf_vector_create(u32_t size)
{
    if (size == 0) {
        LOG_SYSTEM_ERROR("Error input parameter(size=%d).", 0);
        return nullptr;
    }
    conf_vec_t *vector = allocate(size);
    if (vector == nullptr) {
        LOG_SYSTEM_ERROR("Allocate memory failed(%s).", std::strerror(errno));
    }
    return vector;
}

void conf_vector_destroy(conf_vec_t *vector, void (*free_func)(void *data))
{
    if (vector == nullptr) {
        LOG_SYSTEM_ERROR("Error input parameter.");
        return;
    }
    for (u32_t idx = 0; free_func != nullptr && idx < vector->size; ++idx) {
        if (vector->vec[idx].data != nullptr) {
            free_func(vector->vec[idx].data);
        }
    }
    free(vector);
}

int conf_vector_add(conf_vec_t **vector, void *data)
{
    if (vector == nullptr || *vector == nullptr || data == nullptr) {
        LOG_SYSTEM_ERROR("Error input parameter(vector=%p, data=%p).", static_cast<void *>(vector),
                         data);
        return -1;
    }
    const u32_t size = (*vector)->size;
    u32_t idx = 0;
    while (idx < size && (*vector)->vec[idx].data != nullptr) {
        ++idx;
    }
    if (idx == size) {
        conf_vec_t *grown = allocate(std::uint64_t{2} * size);
        if (grown == nullptr) {
            LOG_SYSTEM_ERROR("Malloc memory failed(%s).", std::strerror(errno));
            return -1;
        }
        std::copy_n((*vector)->vec, size, grown->vec);
        free(*vector);
        *vector = grown;
    }
    (*vector)->vec[idx].data = data;
    return static_cast<int>(idx);
}

void *conf_vector_get(conf_vec_t *vector, u32_t idx)
{
    if (!has_slot(vector, idx)) {
        LOG_SYSTEM_ERROR("Error input parameter(vector=%p, index=%d).", static_cast<void *>(vector),
                         static_cast<int>(idx));
        return nullptr;
    }
    return vector->vec[idx].data;
}

int conf_vector_remove(conf_vec_t *vector, u32_t idx)
{
    if (!has_slot(vector, idx)) {
        LOG_SYSTEM_ERROR("Error input parameter(vector=%p, index=%d).", static_cast<void *>(vector),
                         static_cast<int>(idx));
        return -1;
    }
    vector->vec[idx].data = nullptr;
    return 0;
}

int conf_vector_size(conf_vec_t *vector)
{
    if (vector == nullptr) {
        LOG_SYSTEM_ERROR("Error input parameter(vector=%p).", static_cast<void *>(vector));
        return 0;
    }
    return static_cast<int>(vector->size);
}
