// The hash table: contents against std::map, choice of buckets, replacement, and refusals.
#include "conf_hash.h"

#include "memory_limits.h"
#include "reports.h"

#include <map>
#include <random>

namespace {

using test::refused;
using test::take_reports;

class HashTest : public test::Fixture {
protected:
    ~HashTest() override { conf_hash_destroy(table); }

    int add(std::string key, std::string value) const
    {
        return conf_hash_add(table, key.data(), value.data(), static_cast<u32_t>(value.size()));
    }
    char *get(std::string key) const
    {
        return static_cast<char *>(conf_hash_get(table, key.data()));
    }
    void del(std::string key) const { conf_hash_del(table, key.data()); }

    conf_hash_tbl_t *table = conf_hash_create(8);
};

TEST_F(HashTest, BehavesLikeAMap)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    std::map<std::string, std::string> model;
    const auto any_key = [&random] {
        const std::size_t number = random() % 40;
        return number == 0 ? std::string() : std::string(number % 5, 'k') + std::to_string(number);
    };
    for (int round = 0; round < 20000; ++round) {
        SCOPED_TRACE(::testing::Message() << "round " << round);
        const std::string key = any_key();
        if (random() % 3 == 0) {
            del(key);
            model.erase(key);
        } else {
            const std::string value(random() % 9, static_cast<char>(random()));
            ASSERT_EQ(add(key, value), 0);
            model[key] = value;
        }
        const std::string other = any_key();
        const char *const found = get(other);
        ASSERT_EQ(found != nullptr, model.contains(other));
        ASSERT_TRUE(found == nullptr || std::string(found, model[other].size()) == model[other]);
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
    EXPECT_EQ(take_reports(), "");
}

TEST_F(HashTest, SeedsAndBuckets)
{
    u32_t last_seed = 31;
    for (const u32_t seed :
         {131U, 1313U, 13131U, 131313U, 1313131U}) { // begins at that many buckets
        for (const u32_t buckets : {seed - 1, seed}) {
            conf_hash_tbl_t *other = conf_hash_create(buckets);
            ASSERT_NE(other, nullptr);
            EXPECT_EQ(other->num, buckets);
            EXPECT_EQ(other->seed, buckets < seed ? last_seed : seed);
            conf_hash_destroy(other);
        }
        last_seed = seed;
    }
    conf_hash_tbl_t *large = conf_hash_create(1000);
    const struct {
        conf_hash_tbl_t *in;
        std::string key;
        u32_t bucket;
    } places[] = {
        {table, "", 0},
        {table, "ab", 1},
        {large, "\xff", 255},            // bytes count as unsigned
        {large, "plugin_tid_1234", 530}, // 2785858530 after wrapping around at 32 bits
    };
    for (auto [in, key, bucket] : places) {
        ASSERT_EQ(conf_hash_add(in, key.data(), key.data(), 1), 0);
        EXPECT_EQ(in->buckets[bucket].num, 1U) << key;
        conf_hash_del(in, key.data());
        EXPECT_EQ(in->buckets[bucket].num, 0U) << key;
    }
    conf_hash_destroy(large);
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
    del("b");
    del("j");
}

TEST_F(HashTest, KeyAndValueMayLieInTheEntryThatTheyReplace)
{
    for (const auto &[offset, length] : {std::pair(2U, 5U), {0U, 10U}, {0U, 9U}, {9U, 1U}}) {
        const std::string digits = "0123456789";
        ASSERT_EQ(add("key", digits), 0);
        char *const value = get("key");
        ASSERT_EQ(conf_hash_add(table, value - sizeof "key", value + offset, length), 0);
        ASSERT_NE(get("key"), nullptr);
        EXPECT_EQ(std::string(get("key"), length), digits.substr(offset, length));
    }
    conf_hash_del(table, get("key") - sizeof "key");
    EXPECT_EQ(get("key"), nullptr);
}

TEST_F(HashTest, Refusals)
{
    char key[] = "key";
    char value[] = "value";
    refused(conf_hash_add(nullptr, key, value, 5), -1, "(key=%, data=%).", {key, value});
    refused(conf_hash_add(table, nullptr, value, 5), -1, "(key=(nil), data=%).", {value});
    refused(conf_hash_add(table, key, nullptr, 0), -1, "(key=%, data=(nil)).", {key});
    refused(conf_hash_create(0) != nullptr, 0, "(size=0).");
    refused(conf_hash_get(table, nullptr) != nullptr, 0, "");
    refused(conf_hash_get(nullptr, key) != nullptr, 0, "");
    refused((conf_hash_del(table, nullptr), 0), 0, "");
    refused((conf_hash_del(nullptr, key), 0), 0, "");
    refused((conf_hash_destroy(nullptr), 0), 0, "");
}

// Whatever keeps a longer value from being stored, the one that it was to replace is gone.
TEST_F(HashTest, WithoutRoomTheKeyIsAbsent)
{
    if (!test::memory_can_be_limited()) {
        GTEST_SKIP() << "the limits of memory cannot be reached here";
    }
    constexpr u32_t largest = UINT32_MAX - sizeof(conf_hash_node_t) - sizeof "k"; // to be tried
    const std::string no_memory = "Allocate memory failed(Cannot allocate memory).";
    const std::string too_large = "Allocate memory size is less than 0.";
    std::string key = "k";
    const test::AddressSpaceLimit limit;
    for (const auto &[length, report] :
         {std::pair(largest, no_memory), {largest + 1, too_large}, {UINT32_MAX, too_large}}) {
        ASSERT_EQ(add(key, "old"), 0);
        refused(conf_hash_add(table, key.data(), key.data(), length), -1, report);
        EXPECT_EQ(get(key), nullptr);
    }
    refused(conf_hash_create(1U << 24) != nullptr, 0, no_memory);
}

} // namespace
