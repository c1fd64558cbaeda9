// Intrusive doubly linked list. Relies on the system log only.
#include "conf_dlq.h"

#include "support/log.h"

namespace {

bool is_linked(const conf_dlq_list_t *list, const conf_dlq_node_t *node)
{
    return list != nullptr && node != nullptr && node->list == list;
}

// The pointers that lead to the first or the next node, and to the last or the previous one.
conf_dlq_node_t *&forward_link(conf_dlq_list_t *list, conf_dlq_node_t *node)
{
    return node != nullptr ? node->next : list->head;
}

conf_dlq_node_t *&backward_link(conf_dlq_list_t *list, conf_dlq_node_t *node)
{
    return node != nullptr ? node->prev : list->tail;
}

// Links `node` between two neighbours; a null `before` is the beginning, a null `behind` the end.
void link_between(conf_dlq_list_t *list, conf_dlq_node_t *before, conf_dlq_node_t *node,
                  conf_dlq_node_t *behind)
{
    *node = {list, before, behind};
    forward_link(list, before) = node;
    backward_link(list, behind) = node;
    ++list->num;
}

// An empty list has no tail, whatever its field holds.
conf_dlq_node_t *last_node(const conf_dlq_list_t *list)
{
    return list->num > 0 ? list->tail : nullptr;
}

} // namespace

void conf_dlq_init(conf_dlq_list_t *list)
{
    if (list == nullptr) {
        LOG_SYSTEM_ERROR("Error input parameter.");
        return;
    }
    *list = {};
}

void conf_dlq_free(conf_dlq_list_t *list, void (*free_func)(void *node))
{
    if (list == nullptr || free_func == nullptr) {
        LOG_SYSTEM_ERROR("Error input parameter(list=%p, free_func=%p).", static_cast<void *>(list),
                         reinterpret_cast<void *>(free_func));
        return;
    }
    for (conf_dlq_node_t *node = list->head; node != nullptr;) {
        conf_dlq_node_t *const next = node->next;
        free_func(node);
        node = next;
    }
    *list = {};
}

int conf_dlq_append(conf_dlq_list_t *list, conf_dlq_node_t *node)
{
    if (list == nullptr || node == nullptr) {
        LOG_SYSTEM_ERROR("Error input parameter(list=%p, node=%p).", static_cast<void *>(list),
                         static_cast<void *>(node));
        return -1;
    }
    link_between(list, last_node(list), node, nullptr);
    return 0;
}

int conf_dlq_insert(conf_dlq_list_t *list, conf_dlq_node_t *pos, conf_dlq_node_t *node)
{
    if (list == nullptr || node == nullptr || (pos != nullptr && !is_linked(list, pos))) {
        LOG_SYSTEM_ERROR("Error input parameter(list=%p, before=%p, node=%p).",
                         static_cast<void *>(list), static_cast<void *>(pos),
                         static_cast<void *>(node));
        return -1;
    }
    link_between(list, pos != nullptr ? pos->prev : last_node(list), node, pos);
    return 0;
}

void conf_dlq_remove(conf_dlq_list_t *list, conf_dlq_node_t *node)
{
    if (!is_linked(list, node)) {
        return;
    }
    forward_link(list, node->prev) = node->next;
    backward_link(list, node->next) = node->prev;
    --list->num;
    *node = {};
}

conf_dlq_node_t *conf_dlq_head(conf_dlq_list_t *list)
{
    return list != nullptr ? list->head : nullptr;
}

conf_dlq_node_t *conf_dlq_next(conf_dlq_list_t *list, conf_dlq_node_t *node)
{
    return is_linked(list, node) ? node->next : nullptr;
}

conf_dlq_node_t *conf_dlq_tail(conf_dlq_list_t *list)
{
    if (list == nullptr) {
        LOG_SYSTEM_ERROR("Error input parameter.");
        return nullptr;
    }
    return list->tail;
}

conf_dlq_node_t *conf_dlq_prev(conf_dlq_list_t *list, conf_dlq_node_t *node)
{
    if (!is_linked(list, node)) {
        LOG_SYSTEM_ERROR("Error input parameter(list=%p, node=%p).", static_cast<void *>(list),
                         static_cast<void *>(node));
        return nullptr;
    }
    return node->prev;
}
