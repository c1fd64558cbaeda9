// List, hash table and vector: what they refuse, how they let go of what they hold, and which
// buckets the table chooses.
#include "conf_hash.h"
#include "conf_vec.h"
#include "test_support.h"

#include <climits>
#include <cstring>

namespace {

using test::refused;
using Containers = test::Fixture;

conf_dlq_node_t nodes[4]; // also the elements of the vector
std::string released;

void release(void *node)
{
    released += std::to_string(static_cast<conf_dlq_node_t *>(node) - nodes);
    std::memset(node, 0xff, sizeof(conf_dlq_node_t)); // as if freed
}

TEST_F(Containers, ListRefusesForeignNodesAndIsEmptyAfterInitAndFree)
{
    conf_dlq_list_t list, other{};
    std::memset(&list, 0xff, sizeof list);
    conf_dlq_init(&list);
    released.clear();
    std::memset(nodes, 0, sizeof nodes);
    conf_dlq_node_t *const in = &nodes[0], *const out = &nodes[3], *const free = &nodes[2];
    EXPECT_EQ(conf_dlq_append(&other, out), 0);
    EXPECT_EQ(conf_dlq_append(&list, in), 0);
    EXPECT_EQ(conf_dlq_insert(&list, nullptr, &nodes[1]), 0);
    refused((conf_dlq_init(nullptr), 0), 0, ".");
    refused((conf_dlq_free(&list, nullptr), 0), 0, "(list=%, free_func=(nil)).", {&list});
    refused((conf_dlq_free(nullptr, release), 0), 0, "(list=(nil), free_func=%).",
            {reinterpret_cast<void *>(release)});
    refused(conf_dlq_append(nullptr, free), -1, "(list=(nil), node=%).", {free});
    refused(conf_dlq_append(&list, nullptr), -1, "(list=%, node=(nil)).", {&list});
    const std::tuple<conf_dlq_list_t *, conf_dlq_node_t *, conf_dlq_node_t *> inserts[] = {
        {&list, out, free}, {nullptr, in, free}, {&list, in, nullptr}};
    for (const auto &[to, before, node] : inserts) {
        refused(conf_dlq_insert(to, before, node), -1, "(list=%, before=%, node=%).",
                {to, before, node});
    }
    refused(conf_dlq_tail(nullptr) != conf_dlq_head(nullptr), 0, ".");
    for (const auto &[from, node] : {std::pair(&list, out), {nullptr, in}, {&list, nullptr}}) {
        refused((conf_dlq_remove(from, node), conf_dlq_next(from, node) != nullptr), 0, "");
        refused(conf_dlq_prev(from, node) != nullptr, 0, "(list=%, node=%).", {from, node});
    }
    EXPECT_EQ(std::tuple(list.num, other.num, free->list), std::tuple(2U, 1U, nullptr));
    conf_dlq_free(&list, release);
    EXPECT_EQ(released, "01");
    EXPECT_EQ(std::tuple(list.num, list.head, list.tail), std::tuple(0U, nullptr, nullptr));
}

TEST_F(Containers, SeedsAndBuckets)
{
    constexpr u32_t seeds[][2] = {
        {130, 31},      {131, 131},      {1312, 131},      {1313, 1313},
        {13131, 13131}, {131312, 13131}, {131313, 131313}, {1313131, 1313131},
    };
    for (const auto &[buckets, seed] : seeds) {
        conf_hash_tbl_t *table = conf_hash_create(buckets);
        EXPECT_EQ(std::pair(table->num, table->seed), std::pair(buckets, seed));
        conf_hash_destroy(table);
    }
    conf_hash_tbl_t *large = conf_hash_create(1000);
    // Bytes count as unsigned; the long key's value is 2785858530 after wrapping around at 32 bits.
    for (auto [name, bucket] : {std::pair(std::string("\xff"), 255), {"plugin_tid_1234", 530}}) {
        EXPECT_EQ(conf_hash_add(large, name.data(), nodes, 1), 0);
        EXPECT_EQ(large->buckets[bucket].num, 1U) << name;
        conf_hash_del(large, name.data());
        EXPECT_EQ(large->buckets[bucket].num, 0U) << name;
    }
    conf_hash_destroy(large);
}

TEST_F(Containers, KeyAndValueMayLieInTheEntryThatTheyReplace)
{
    conf_hash_tbl_t *table = conf_hash_create(8);
    char key[] = "key", digits[] = "0123456789";
    const auto get = [&] { return static_cast<char *>(conf_hash_get(table, key)); };
    for (const auto &[offset, length] : {std::pair(2U, 5U), {0U, 10U}, {0U, 9U}, {9U, 1U}}) {
        EXPECT_EQ(conf_hash_add(table, key, digits, 10), 0);
        char *const value = get();
        EXPECT_EQ(conf_hash_add(table, value - sizeof key, value + offset, length), 0);
        EXPECT_EQ(std::string(get(), length), std::string(digits + offset, length));
        EXPECT_TRUE(get() == value || length != 10) << "the same length is replaced in place";
    }
    conf_hash_del(table, get() - sizeof key);
    EXPECT_EQ(get(), nullptr);

    refused(conf_hash_add(nullptr, key, digits, 5), -1, "(key=%, data=%).", {key, digits});
    refused(conf_hash_add(table, nullptr, digits, 5), -1, "(key=(nil), data=%).", {digits});
    refused(conf_hash_add(table, key, nullptr, 0), -1, "(key=%, data=(nil)).", {key});
    refused(conf_hash_create(0) != nullptr, 0, "(size=0).");
    refused(conf_hash_get(table, nullptr) != conf_hash_get(nullptr, key), 0, "");
    refused((conf_hash_del(table, nullptr), conf_hash_del(nullptr, key), 0), 0, "");
    // The value that was to be replaced is gone also when the new one is too long.
    for (const u32_t length : {UINT32_MAX - u32_t{sizeof(conf_hash_node_t)} - 3, UINT32_MAX}) {
        EXPECT_EQ(conf_hash_add(table, key, digits, 3), 0);
        refused(conf_hash_add(table, key, digits, length), -1,
                "Allocate memory size is less than 0.");
        EXPECT_EQ(get(), nullptr);
    }
    conf_hash_destroy(table);
    conf_hash_destroy(nullptr);
}

TEST_F(Containers, VectorRefusesAndReleases)
{
    conf_vec_t *vector = conf_vector_create(1), *null = nullptr;
    EXPECT_EQ(conf_vector_add(&vector, &nodes[0]), 0);
    refused(conf_vector_get(vector, 1) != nullptr, 0, "(vector=%, index=1).", {vector});
    refused(conf_vector_remove(vector, 1), -1, "(vector=%, index=1).", {vector});
    EXPECT_EQ(conf_vector_add(&vector, &nodes[1]), 1);
    EXPECT_EQ(conf_vector_add(&vector, &nodes[2]), 2);
    EXPECT_EQ(conf_vector_remove(vector, 0), 0);
    EXPECT_EQ(conf_vector_add(&vector, &nodes[3]), 0);
    refused(conf_vector_create(0) != nullptr, 0, "(size=0).");
    refused(conf_vector_create(UINT_MAX) != nullptr, 0,
            "Allocate memory failed(Cannot allocate memory).");
    for (const auto &[to, data] : {std::pair(&null, nodes), {nullptr, nodes}, {&vector, nullptr}}) {
        refused(conf_vector_add(to, data), -1, "(vector=%, data=%).", {to, data});
    }
    refused(conf_vector_get(nullptr, UINT_MAX) != nullptr, 0, "(vector=(nil), index=-1).");
    refused(conf_vector_size(nullptr), 0, "(vector=(nil)).");
    refused((conf_vector_destroy(nullptr, release), 0), 0, ".");
    conf_vector_destroy(conf_vector_create(1), nullptr);
    released.clear();
    conf_vector_destroy(vector, release);
    EXPECT_EQ(released, "312") << "each element once, in the order of the indices";
}

} // namespace
