// The list: what it refuses, and how it lets go of its nodes.
#include "conf_dlq.h"

#include "reports.h"

#include <cstring>

namespace {

using test::refused;
using ListTest = test::Fixture;

conf_dlq_node_t nodes[4];
std::string released;

void release(void *node)
{
    released += std::to_string(static_cast<conf_dlq_node_t *>(node) - nodes);
    std::memset(node, 0xff, sizeof(conf_dlq_node_t)); // as if freed
}

TEST_F(ListTest, RefusesForeignNodesAndIsEmptyAfterInitAndFree)
{
    conf_dlq_list_t list;
    std::memset(&list, 0xff, sizeof list);
    conf_dlq_init(&list);
    conf_dlq_list_t other{};
    conf_dlq_node_t *const in = &nodes[0], *const out = &nodes[3], *const free = &nodes[2];
    EXPECT_EQ(conf_dlq_append(&other, out), 0);
    EXPECT_TRUE(!conf_dlq_append(&list, in) && !conf_dlq_insert(&list, nullptr, &nodes[1]));
    refused((conf_dlq_init(nullptr), 0), 0, ".");
    refused((conf_dlq_free(&list, nullptr), 0), 0, "(list=%, free_func=(nil)).", {&list});
    refused(conf_dlq_append(nullptr, free), -1, "(list=(nil), node=%).", {free});
    refused(conf_dlq_insert(&list, out, free), -1, "(list=%, before=%, node=%).",
            {&list, out, free});
    refused(conf_dlq_tail(nullptr) != nullptr, 0, ".");
    refused(conf_dlq_prev(&list, out) != nullptr, 0, "(list=%, node=%).", {&list, out});
    conf_dlq_free(nullptr, release);
    EXPECT_EQ(conf_dlq_append(&list, nullptr) + conf_dlq_insert(nullptr, in, free) +
                  conf_dlq_insert(&list, in, nullptr),
              -3);
    EXPECT_TRUE(conf_dlq_prev(nullptr, in) == nullptr && conf_dlq_prev(&list, nullptr) == nullptr);
    EXPECT_EQ(test::take_system_log().size(), 6U);
    EXPECT_TRUE(conf_dlq_head(nullptr) == nullptr && conf_dlq_next(nullptr, in) == nullptr &&
                conf_dlq_next(&list, nullptr) == nullptr && conf_dlq_next(&list, out) == nullptr);
    for (const auto &[from, node] : {std::pair(&list, out), {nullptr, in}, {&list, nullptr}}) {
        refused((conf_dlq_remove(from, node), 0), 0, "");
    }
    EXPECT_TRUE(list.num == 2 && other.num == 1 && free->list == nullptr);
    conf_dlq_free(&list, release);
    EXPECT_EQ(released, "01");
    EXPECT_TRUE(list.num == 0 && list.head == nullptr && list.tail == nullptr);
}

} // namespace
