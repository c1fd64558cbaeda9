// The vector: contents, indices and capacity against a model, release, and refusals.
#include "conf_vec.h"

#include "address_space_limit.h"
#include "test_support.h"

#include <climits>
#include <cstdint>
#include <memory>
#include <random>

namespace {

using test::place;
using texts = std::vector<std::string>;

struct destroy {
    void operator()(conf_vec_t *vector) const { conf_vector_destroy(vector, nullptr); }
};
using vector_owner = std::unique_ptr<conf_vec_t, destroy>;

void *element(std::uintptr_t number)
{
    return reinterpret_cast<void *>(number);
}

std::vector<void *> released;

void release(void *data)
{
    released.push_back(data);
}

class VectorTest : public test::Fixture {};

TEST_F(VectorTest, BehavesLikeItsModel)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    for (const u32_t size : {1U, 2U, 3U, 100U}) {
        conf_vec_t *vector = conf_vector_create(size);
        ASSERT_NE(vector, nullptr);
        std::vector<void *> model(size);
        for (std::uintptr_t round = 1; round < 6000; ++round) {
            SCOPED_TRACE(::testing::Message() << "round " << round);
            // Phases of growth and of decline, so that holes are left and filled.
            const bool adds = random() % 10 < (round / 1000 % 2 == 0 ? 6 : 4);
            const u32_t idx = static_cast<u32_t>(random() % model.size());
            if (adds) {
                std::size_t slot = 0;
                while (slot < model.size() && model[slot] != nullptr) {
                    ++slot;
                }
                if (slot == model.size()) {
                    model.resize(2 * slot);
                }
                model[slot] = element(round);
                ASSERT_EQ(conf_vector_add(&vector, element(round)), static_cast<int>(slot));
            } else {
                model[idx] = nullptr;
                ASSERT_EQ(conf_vector_remove(vector, idx), 0);
            }
            ASSERT_EQ(conf_vector_get(vector, idx), model[idx]);
            ASSERT_EQ(conf_vector_size(vector), static_cast<int>(model.size()));
        }
        for (u32_t idx = 0; idx < model.size(); ++idx) {
            ASSERT_EQ(conf_vector_get(vector, idx), model[idx]);
        }
        released.clear();
        conf_vector_destroy(vector, release);
        std::erase(model, nullptr);
        EXPECT_EQ(released, model) << "each element once, in the order of the indices";
    }
    EXPECT_EQ(test::take_system_texts(), texts());
}

TEST_F(VectorTest, RefusesWhatCannotBe)
{
    const vector_owner owner(conf_vector_create(1));
    conf_vec_t *vector = owner.get();
    ASSERT_EQ(conf_vector_add(&vector, element(7)), 0);
    conf_vec_t *null = nullptr;
    const std::string at = "(vector=" + place(vector) + ", index=";
    const struct {
        std::string message;
        std::intptr_t result;
        std::intptr_t expected;
    } rows[] = {
        {"(size=0).", reinterpret_cast<std::intptr_t>(conf_vector_create(0)), 0},
        {"(vector=(nil), data=0x7).", conf_vector_add(nullptr, element(7)), -1},
        {"(vector=" + place(&null) + ", data=0x7).", conf_vector_add(&null, element(7)), -1},
        {"(vector=" + place(&vector) + ", data=(nil)).", conf_vector_add(&vector, nullptr), -1},
        {"(vector=(nil), index=0).", reinterpret_cast<std::intptr_t>(conf_vector_get(nullptr, 0)),
         0},
        {at + "1).", reinterpret_cast<std::intptr_t>(conf_vector_get(vector, 1)), 0},
        {at + "-1).", reinterpret_cast<std::intptr_t>(conf_vector_get(vector, UINT_MAX)), 0},
        {"(vector=(nil), index=3).", conf_vector_remove(nullptr, 3), -1},
        {at + "1).", conf_vector_remove(vector, 1), -1},
        {"(vector=(nil)).", conf_vector_size(nullptr), 0},
    };
    conf_vector_destroy(nullptr, release);
    texts expected;
    for (const auto &row : rows) {
        EXPECT_EQ(row.result, row.expected) << row.message;
        expected.push_back("<11>[ERROR] Error input parameter" + row.message);
    }
    expected.emplace_back("<11>[ERROR] Error input parameter.");
    EXPECT_EQ(test::take_system_texts(), expected);
    EXPECT_EQ(vector, owner.get());
    EXPECT_EQ(conf_vector_size(vector), 1);
    EXPECT_EQ(conf_vector_get(vector, 0), element(7));
}

TEST_F(VectorTest, WithoutMemoryTheVectorStaysAsItWas)
{
    constexpr u32_t size = test::AddressSpaceLimit::slack / sizeof(conf_vec_node_t);
    conf_vec_t *vector = conf_vector_create(size);
    ASSERT_NE(vector, nullptr);
    for (u32_t idx = 0; idx < size; ++idx) {
        vector->vec[idx].data = element(1 + idx); // at once: an add looks at every slot
    }
    const vector_owner owner(vector);
    {
        const test::AddressSpaceLimit limit;
        EXPECT_EQ(conf_vector_add(&vector, element(1)), -1);
        EXPECT_EQ(conf_vector_create(2 * size), nullptr);
    }
    EXPECT_EQ(conf_vector_create(UINT_MAX), nullptr) << "indices are counted in an int";
    const std::string created = "<11>[ERROR] Allocate memory failed(Cannot allocate memory).";
    EXPECT_EQ(
        test::take_system_texts(),
        (texts{"<11>[ERROR] Malloc memory failed(Cannot allocate memory).", created, created}));
    EXPECT_EQ(vector, owner.get());
    EXPECT_EQ(conf_vector_size(vector), static_cast<int>(size));
    EXPECT_EQ(conf_vector_get(vector, size - 1), element(size));
}

} // namespace
