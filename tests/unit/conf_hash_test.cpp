// The hash table: contents against std::map, choice of buckets, replacement, and refusals.
#include "conf_hash.h"

#include "address_space_limit.h"
#include "test_support.h"

#include <map>
#include <memory>
#include <random>

namespace {

struct destroy {
    void operator()(conf_hash_tbl_t *table) const { conf_hash_destroy(table); }
};
using table_owner = std::unique_ptr<conf_hash_tbl_t, destroy>;

class HashTest : public test::Fixture {
protected:
    HashTest() : owner_(conf_hash_create(8)), table(owner_.get()) {}

    int add(std::string key, std::string value) const
    {
        return conf_hash_add(table, key.data(), value.data(), static_cast<u32_t>(value.size()));
    }
    char *get(std::string key) const
    {
        return static_cast<char *>(conf_hash_get(table, key.data()));
    }
    void del(std::string key) const { conf_hash_del(table, key.data()); }

private:
    table_owner owner_;

protected:
    conf_hash_tbl_t *table;
};

TEST_F(HashTest, BehavesLikeAMap)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    std::map<std::string, std::string> model;
    const auto key_number = [](std::size_t number) {
        return number == 0 ? std::string() : std::string(number % 5, 'k') + std::to_string(number);
    };
    constexpr std::size_t keys = 40;
    for (int round = 0; round < 20000; ++round) {
        SCOPED_TRACE(::testing::Message() << "round " << round);
        const std::string key = key_number(random() % keys);
        if (random() % 3 == 0) {
            del(key);
            model.erase(key);
        } else {
            const std::string value(random() % 9, static_cast<char>(random()));
            ASSERT_EQ(add(key, value), 0);
            model[key] = value;
        }
        const std::string other = key_number(random() % keys);
        const char *const found = get(other);
        ASSERT_EQ(found != nullptr, model.contains(other));
        if (found != nullptr) {
            ASSERT_EQ(std::string(found, model[other].size()), model[other]);
        }
    }
    std::size_t entries = 0;
    for (u32_t i = 0; i < table->num; ++i) {
        entries += table->buckets[i].num;
    }
    EXPECT_EQ(entries, model.size()) << "one entry a key";
    for (const auto &[key, value] : model) {
        del(key);
        EXPECT_EQ(get(key), nullptr);
    }
    EXPECT_TRUE(test::take_system_log().empty());
}

TEST_F(HashTest, SeedsAndBuckets)
{
    const struct {
        u32_t buckets;
        u32_t seed;
    } seeds[] = {{1, 31},        {8, 31},         {130, 31},        {131, 131},
                 {1000, 131},    {1312, 131},     {1313, 1313},     {13130, 1313},
                 {13131, 13131}, {131312, 13131}, {131313, 131313}, {1313131, 1313131}};
    for (const auto &row : seeds) {
        const table_owner owner(conf_hash_create(row.buckets));
        ASSERT_NE(owner, nullptr);
        EXPECT_EQ(owner->num, row.buckets);
        EXPECT_EQ(owner->seed, row.seed) << row.buckets << " buckets";
    }
    const struct {
        const char *key;
        u32_t buckets;
        u32_t bucket;
    } places[] = {
        {"", 8, 0},
        {"ab", 8, 1},
        {"\xff", 1000, 255},            // bytes count as unsigned
        {"plugin_tid_1234", 1000, 530}, // 2785858530 after wrapping around at 32 bits
    };
    for (const auto &row : places) {
        const table_owner owner(conf_hash_create(row.buckets));
        std::string key = row.key;
        ASSERT_EQ(conf_hash_add(owner.get(), key.data(), key.data(), 1), 0);
        EXPECT_EQ(owner->buckets[row.bucket].num, 1U) << row.key;
        conf_hash_del(owner.get(), key.data());
        EXPECT_EQ(owner->buckets[row.bucket].num, 0U) << row.key;
    }
}

TEST_F(HashTest, ReplacedEntryIsTheLastOfItsBucket)
{
    const auto last_key = [&] { // of the bucket that "b" and "j" share
        return std::string(reinterpret_cast<const char *>(
            reinterpret_cast<const conf_hash_node_t *>(table->buckets['b' % 8].tail) + 1));
    };
    ASSERT_EQ(add("b", "1234"), 0);
    ASSERT_EQ(add("j", "other"), 0);
    const char *const value = get("b");
    ASSERT_EQ(add("b", "5678"), 0);
    EXPECT_EQ(get("b"), value) << "a value of the same length is replaced in place";
    EXPECT_EQ(last_key(), "b");
    ASSERT_EQ(add("j", "longer than before"), 0);
    EXPECT_EQ(last_key(), "j");
    EXPECT_EQ(table->buckets['b' % 8].num, 2U);
    del("b");
    del("j");
}

TEST_F(HashTest, KeyAndValueMayLieInTheEntryThatTheyReplace)
{
    const struct {
        u32_t offset;
        u32_t length;
        const char *expected;
    } rows[] = {{2, 5, "23456"}, {0, 10, "0123456789"}, {0, 9, "012345678"}, {9, 1, "9"}};
    for (const auto &row : rows) {
        ASSERT_EQ(add("key", "0123456789"), 0);
        char *const value = get("key");
        char *const stored_key = value - sizeof "key";
        ASSERT_EQ(conf_hash_add(table, stored_key, value + row.offset, row.length), 0);
        ASSERT_NE(get("key"), nullptr);
        EXPECT_EQ(std::string(get("key"), row.length), row.expected);
    }
    conf_hash_del(table, get("key") - sizeof "key");
    EXPECT_EQ(get("key"), nullptr);
}

TEST_F(HashTest, Refusals)
{
    char key[] = "key";
    char value[] = "value";
    const auto refusal = [](const void *refused_key, const void *refused_value) {
        char text[128];
        std::snprintf(text, sizeof text, "<11>[ERROR] Error input parameter(key=%p, data=%p).",
                      refused_key, refused_value);
        return std::vector<std::string>{text};
    };
    EXPECT_EQ(conf_hash_add(nullptr, key, value, 5), -1);
    EXPECT_EQ(test::take_system_texts(), refusal(key, value));
    EXPECT_EQ(conf_hash_add(table, nullptr, value, 5), -1);
    EXPECT_EQ(test::take_system_texts(), refusal(nullptr, value));
    EXPECT_EQ(conf_hash_add(table, key, nullptr, 0), -1);
    EXPECT_EQ(test::take_system_texts(), refusal(key, nullptr));
    EXPECT_EQ(conf_hash_create(0), nullptr);
    EXPECT_EQ(test::take_system_texts(),
              std::vector<std::string>{"<11>[ERROR] Error input parameter(size=0)."});

    EXPECT_EQ(conf_hash_get(table, nullptr), nullptr);
    EXPECT_EQ(conf_hash_get(nullptr, key), nullptr);
    conf_hash_del(table, nullptr);
    conf_hash_del(nullptr, key);
    conf_hash_destroy(nullptr);
    EXPECT_TRUE(test::take_system_log().empty());
}

// Whatever keeps a longer value from being stored, the one that it was to replace is gone.
TEST_F(HashTest, WithoutRoomTheKeyIsAbsent)
{
    constexpr u32_t large = 4 * test::AddressSpaceLimit::slack;
    const std::string value(large, 'v');
    const struct {
        u32_t length;
        const char *message;
    } rows[] = {
        {large, "<11>[ERROR] Allocate memory failed(Cannot allocate memory)."},
        {UINT32_MAX, "<11>[ERROR] Allocate memory size is less than 0."},
        {UINT32_MAX - sizeof(conf_hash_node_t) - 1,
         "<11>[ERROR] Allocate memory size is less than 0."},
        // the largest length that is tried at all
        {UINT32_MAX - sizeof(conf_hash_node_t) - 2,
         "<11>[ERROR] Allocate memory failed(Cannot allocate memory)."},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.length);
        ASSERT_EQ(add("k", "old"), 0);
        const test::AddressSpaceLimit limit;
        std::string key = "k";
        EXPECT_EQ(conf_hash_add(table, key.data(), const_cast<char *>(value.data()), row.length),
                  -1);
        EXPECT_EQ(test::take_system_texts(), std::vector<std::string>{row.message});
        EXPECT_EQ(get("k"), nullptr);
    }
    const test::AddressSpaceLimit limit;
    EXPECT_EQ(conf_hash_create(large), nullptr);
    EXPECT_EQ(
        test::take_system_texts(),
        std::vector<std::string>{"<11>[ERROR] Allocate memory failed(Cannot allocate memory)."});
}

} // namespace
