// The hash table: choice of buckets, replacement, and refusals.
#include "conf_hash.h"

#include "reports.h"

namespace {

using test::refused;

class HashTest : public test::Fixture {
protected:
    ~HashTest() override { conf_hash_destroy(table); }

    conf_hash_tbl_t *table = conf_hash_create(8);
    char key[4] = "key";
    char digits[11] = "0123456789";
};

TEST_F(HashTest, SeedsAndBuckets)
{
    constexpr u32_t seeds[][2] = {
        {130, 31},      {131, 131},      {1312, 131},      {1313, 1313},
        {13131, 13131}, {131312, 13131}, {131313, 131313}, {1313131, 1313131},
    };
    for (const auto &[buckets, seed] : seeds) {
        conf_hash_tbl_t *other = conf_hash_create(buckets);
        EXPECT_TRUE(other->num == buckets && other->seed == seed) << buckets;
        conf_hash_destroy(other);
    }
    conf_hash_tbl_t *large = conf_hash_create(1000);
    // Bytes count as unsigned; the long key's value is 2785858530 after wrapping around at 32 bits.
    for (auto [name, bucket] : {std::pair(std::string("\xff"), 255), {"plugin_tid_1234", 530}}) {
        EXPECT_EQ(conf_hash_add(large, name.data(), digits, 1), 0);
        EXPECT_EQ(large->buckets[bucket].num, 1U) << name;
        conf_hash_del(large, name.data());
        EXPECT_EQ(large->buckets[bucket].num, 0U) << name;
    }
    conf_hash_destroy(large);
}

TEST_F(HashTest, KeyAndValueMayLieInTheEntryThatTheyReplace)
{
    const auto get = [this] { return static_cast<char *>(conf_hash_get(table, key)); };
    for (const auto &[offset, length] : {std::pair(2U, 5U), {0U, 10U}, {0U, 9U}, {9U, 1U}}) {
        EXPECT_EQ(conf_hash_add(table, key, digits, 10), 0);
        char *const value = get();
        EXPECT_EQ(conf_hash_add(table, value - sizeof key, value + offset, length), 0);
        EXPECT_EQ(std::string(get(), length), std::string(digits + offset, length));
        EXPECT_TRUE(get() == value || length != 10) << "the same length is replaced in place";
    }
    conf_hash_del(table, get() - sizeof key);
    EXPECT_EQ(get(), nullptr);
}

TEST_F(HashTest, Refusals)
{
    refused(conf_hash_add(nullptr, key, digits, 5), -1, "(key=%, data=%).", {key, digits});
    refused(conf_hash_add(table, nullptr, digits, 5), -1, "(key=(nil), data=%).", {digits});
    refused(conf_hash_add(table, key, nullptr, 0), -1, "(key=%, data=(nil)).", {key});
    refused(conf_hash_create(0) != nullptr, 0, "(size=0).");
    refused(conf_hash_get(table, nullptr) != conf_hash_get(nullptr, key), 0, "");
    conf_hash_destroy(nullptr);
    refused((conf_hash_del(table, nullptr), conf_hash_del(nullptr, key), 0), 0, "");
    // The value that was to be replaced is gone also when the new one is too long.
    for (const u32_t length : {UINT32_MAX - u32_t{sizeof(conf_hash_node_t)} - 3, UINT32_MAX}) {
        EXPECT_EQ(conf_hash_add(table, key, digits, 3), 0);
        refused(conf_hash_add(table, key, digits, length), -1,
                "Allocate memory size is less than 0.");
        EXPECT_EQ(conf_hash_get(table, key), nullptr);
    }
}

} // namespace
