// The list: order and counts against std::list, what it refuses, and how it lets go of its nodes.
#include "conf_dlq.h"

#include "reports.h"

#include <algorithm>
#include <cstring>
#include <list>
#include <random>

namespace {

using numbers = std::vector<int>;

using test::refused;

class ListTest : public test::Fixture {};

struct record {
    conf_dlq_node_t node;
    int number;
};

using step = conf_dlq_node_t *(*)(conf_dlq_list_t *, conf_dlq_node_t *);

numbers numbers_from(conf_dlq_list_t *list, conf_dlq_node_t *node, step next)
{
    numbers found;
    for (; node != nullptr; node = next(list, node)) {
        found.push_back(reinterpret_cast<record *>(node)->number);
    }
    return found;
}

numbers forward(conf_dlq_list_t *list)
{
    return numbers_from(list, conf_dlq_head(list), conf_dlq_next);
}

TEST_F(ListTest, BehavesLikeAList)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    conf_dlq_list_t list{};
    std::list<int> model;
    std::vector<record> records(12);
    for (std::size_t i = 0; i < records.size(); ++i) {
        records[i].number = static_cast<int>(i);
    }
    for (int round = 0; round < 5000; ++round) {
        SCOPED_TRACE(::testing::Message() << "round " << round);
        record &chosen = records[random() % records.size()];
        if (chosen.node.list != nullptr) {
            conf_dlq_remove(&list, &chosen.node);
            model.remove(chosen.number);
            ASSERT_TRUE(chosen.node.list == nullptr && chosen.node.prev == nullptr &&
                        chosen.node.next == nullptr);
            conf_dlq_remove(&list, &chosen.node); // is not in it any more: nothing happens
        } else if (random() % 3 == 0) {
            ASSERT_EQ(conf_dlq_append(&list, &chosen.node), 0);
            model.push_back(chosen.number);
        } else {
            record &other = records[random() % records.size()];
            const bool inside = other.node.list != nullptr; // in front of it, else at the end
            ASSERT_EQ(conf_dlq_insert(&list, inside ? &other.node : nullptr, &chosen.node), 0);
            model.insert(std::find(model.begin(), model.end(), other.number), chosen.number);
        }
        ASSERT_EQ(list.num, model.size());
        ASSERT_EQ(forward(&list), numbers(model.begin(), model.end()));
        ASSERT_EQ(numbers_from(&list, conf_dlq_tail(&list), conf_dlq_prev),
                  numbers(model.rbegin(), model.rend()));
    }
    EXPECT_EQ(test::take_reports(), "");
}

numbers released;

void release(void *node)
{
    released.push_back(static_cast<record *>(node)->number);
    std::memset(node, 0xff, sizeof(record)); // as if freed
}

TEST_F(ListTest, IsEmptyAfterInitAndFree)
{
    conf_dlq_list_t list;
    std::memset(&list, 0xff, sizeof list);
    conf_dlq_init(&list);
    record records[] = {{{}, 1}, {{}, 2}, {{}, 3}};
    for (record &each : records) {
        ASSERT_EQ(conf_dlq_append(&list, &each.node), 0);
    }
    conf_dlq_free(&list, release);
    EXPECT_EQ(released, (numbers{1, 2, 3}));
    EXPECT_TRUE(list.num == 0 && list.head == nullptr && list.tail == nullptr);
}

TEST_F(ListTest, Refusals)
{
    conf_dlq_list_t list{};
    conf_dlq_list_t other{};
    record inside{{}, 1};
    record outside{{}, 2};
    record loose{{}, 3};
    ASSERT_EQ(conf_dlq_append(&list, &inside.node), 0);
    ASSERT_EQ(conf_dlq_append(&other, &outside.node), 0);
    conf_dlq_node_t *const in = &inside.node;
    conf_dlq_node_t *const out = &outside.node;
    conf_dlq_node_t *const free = &loose.node;
    refused((conf_dlq_init(nullptr), 0), 0, ".");
    refused((conf_dlq_free(nullptr, release), 0), 0, "(list=(nil), free_func=%).",
            {reinterpret_cast<void *>(release)});
    refused((conf_dlq_free(&list, nullptr), 0), 0, "(list=%, free_func=(nil)).", {&list});
    refused(conf_dlq_append(nullptr, free), -1, "(list=(nil), node=%).", {free});
    refused(conf_dlq_append(&list, nullptr), -1, "(list=%, node=(nil)).", {&list});
    refused(conf_dlq_insert(nullptr, in, free), -1, "(list=(nil), before=%, node=%).", {in, free});
    refused(conf_dlq_insert(&list, in, nullptr), -1, "(list=%, before=%, node=(nil)).",
            {&list, in});
    refused(conf_dlq_insert(&list, out, free), -1, "(list=%, before=%, node=%).",
            {&list, out, free});
    refused(conf_dlq_tail(nullptr) != nullptr, 0, ".");
    refused(conf_dlq_prev(nullptr, in) != nullptr, 0, "(list=(nil), node=%).", {in});
    refused(conf_dlq_prev(&list, nullptr) != nullptr, 0, "(list=%, node=(nil)).", {&list});
    refused(conf_dlq_prev(&list, out) != nullptr, 0, "(list=%, node=%).", {&list, out});
    refused(conf_dlq_head(nullptr) != nullptr, 0, "");
    refused(conf_dlq_next(nullptr, in) != nullptr, 0, "");
    refused(conf_dlq_next(&list, nullptr) != nullptr, 0, "");
    refused(conf_dlq_next(&list, out) != nullptr, 0, "");
    refused((conf_dlq_remove(nullptr, in), 0), 0, "");
    refused((conf_dlq_remove(&list, nullptr), 0), 0, "");
    refused((conf_dlq_remove(&list, out), 0), 0, "");
    EXPECT_EQ(forward(&list), numbers{1});
    EXPECT_EQ(forward(&other), numbers{2});
    EXPECT_EQ(free->list, nullptr);
}

} // namespace
