// The list: order and counts against std::list, what it refuses, and how it lets go of its nodes.
#include "conf_dlq.h"

#include "test_support.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <list>
#include <random>

namespace {

class ListTest : public test::Fixture {};

struct record {
    conf_dlq_node_t node;
    int number;
};

int number_of(conf_dlq_node_t *node)
{
    return reinterpret_cast<record *>(node)->number;
}

std::vector<int> forward(conf_dlq_list_t *list)
{
    std::vector<int> numbers;
    for (auto *node = conf_dlq_head(list); node != nullptr; node = conf_dlq_next(list, node)) {
        numbers.push_back(number_of(node));
    }
    return numbers;
}

std::vector<int> backward(conf_dlq_list_t *list)
{
    std::vector<int> numbers;
    for (auto *node = conf_dlq_tail(list); node != nullptr; node = conf_dlq_prev(list, node)) {
        numbers.push_back(number_of(node));
    }
    return numbers;
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
            conf_dlq_node_t *const pos = other.node.list != nullptr ? &other.node : nullptr;
            ASSERT_EQ(conf_dlq_insert(&list, pos, &chosen.node), 0);
            model.insert(pos != nullptr ? std::find(model.begin(), model.end(), other.number)
                                        : model.end(),
                         chosen.number);
        }
        ASSERT_EQ(list.num, model.size());
        ASSERT_EQ(forward(&list), std::vector<int>(model.begin(), model.end()));
        ASSERT_EQ(backward(&list), std::vector<int>(model.rbegin(), model.rend()));
    }
    EXPECT_TRUE(test::take_system_log().empty());
}

std::vector<int> released;

void release(void *node)
{
    released.push_back(number_of(static_cast<conf_dlq_node_t *>(node)));
    std::memset(node, 0xff, sizeof(record)); // as if freed
}

TEST_F(ListTest, EndsEmptyHoweverItIsEmptied)
{
    conf_dlq_list_t list;
    std::memset(&list, 0xff, sizeof list);
    conf_dlq_init(&list);
    record records[] = {{{}, 1}, {{}, 2}, {{}, 3}};
    for (record &each : records) {
        ASSERT_EQ(conf_dlq_append(&list, &each.node), 0);
    }
    released.clear();
    conf_dlq_free(&list, release);
    EXPECT_EQ(released, (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(list.num == 0 && list.head == nullptr && list.tail == nullptr);
    EXPECT_TRUE(test::take_system_log().empty());
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

    // "L", "I", "O" and "F" stand for the pointers to the list and to the three nodes.
    const auto filled = [&](const std::string &text) {
        std::string message;
        for (const char character : text) {
            const void *const pointers[] = {&list, in,      out,
                                            free,  nullptr, reinterpret_cast<void *>(release)};
            const std::size_t index = std::string("LIOF0R").find(character);
            char place[32] = {character};
            if (index != std::string::npos) {
                std::snprintf(place, sizeof place, "%p", pointers[index]);
            }
            message += place;
        }
        return message;
    };
    const struct {
        std::function<long()> call;
        long result;
        std::string arguments; // of the message; "-" when nothing is reported
    } rows[] = {
        {[&] { return conf_dlq_init(nullptr), 0; }, 0, "."},
        {[&] { return conf_dlq_free(nullptr, release), 0; }, 0, "(list=0, free_func=R)."},
        {[&] { return conf_dlq_free(&list, nullptr), 0; }, 0, "(list=L, free_func=0)."},
        {[&] { return conf_dlq_append(nullptr, free); }, -1, "(list=0, node=F)."},
        {[&] { return conf_dlq_append(&list, nullptr); }, -1, "(list=L, node=0)."},
        {[&] { return conf_dlq_insert(nullptr, in, free); }, -1, "(list=0, before=I, node=F)."},
        {[&] { return conf_dlq_insert(&list, nullptr, nullptr); }, -1,
         "(list=L, before=0, node=0)."},
        {[&] { return conf_dlq_insert(&list, in, nullptr); }, -1, "(list=L, before=I, node=0)."},
        {[&] { return conf_dlq_insert(&list, out, free); }, -1, "(list=L, before=O, node=F)."},
        {[&] { return conf_dlq_tail(nullptr) != nullptr; }, 0, "."},
        {[&] { return conf_dlq_prev(nullptr, in) != nullptr; }, 0, "(list=0, node=I)."},
        {[&] { return conf_dlq_prev(&list, nullptr) != nullptr; }, 0, "(list=L, node=0)."},
        {[&] { return conf_dlq_prev(&list, out) != nullptr; }, 0, "(list=L, node=O)."},
        {[&] { return conf_dlq_head(nullptr) != nullptr; }, 0, "-"},
        {[&] { return conf_dlq_next(nullptr, in) != nullptr; }, 0, "-"},
        {[&] { return conf_dlq_next(&list, nullptr) != nullptr; }, 0, "-"},
        {[&] { return conf_dlq_next(&list, out) != nullptr; }, 0, "-"},
        {[&] { return conf_dlq_remove(nullptr, in), 0; }, 0, "-"},
        {[&] { return conf_dlq_remove(&list, nullptr), 0; }, 0, "-"},
        {[&] { return conf_dlq_remove(&list, out), 0; }, 0, "-"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(::testing::Message() << "row " << &row - rows << ": " << row.arguments);
        EXPECT_EQ(row.call(), row.result);
        std::vector<std::string> messages;
        if (row.arguments != "-") {
            messages.push_back("<11>[ERROR] Error input parameter" + filled(row.arguments));
        }
        EXPECT_EQ(test::take_system_texts(), messages);
        EXPECT_EQ(forward(&list), std::vector<int>{1});
        EXPECT_EQ(forward(&other), std::vector<int>{2});
        EXPECT_EQ(free->list, nullptr);
    }
}

} // namespace
