// The vector: contents, indices and capacity against a model, release, and refusals.
#include "conf_vec.h"

#include "memory_limits.h"
#include "reports.h"

#include <algorithm>
#include <climits>
#include <random>

namespace {

using test::refused;

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
                const auto hole = std::find(model.begin(), model.end(), nullptr);
                const auto slot = static_cast<std::size_t>(hole - model.begin());
                model.resize(hole == model.end() ? 2 * slot : model.size());
                model[slot] = element(round);
                ASSERT_EQ(conf_vector_add(&vector, element(round)), static_cast<int>(slot));
            } else {
                model[idx] = nullptr;
                ASSERT_EQ(conf_vector_remove(vector, idx), 0);
            }
            ASSERT_EQ(conf_vector_get(vector, idx), model[idx]);
            ASSERT_EQ(conf_vector_size(vector), static_cast<int>(model.size()));
        }
        released.clear();
        conf_vector_destroy(vector, release);
        std::erase(model, nullptr);
        EXPECT_EQ(released, model) << "each element once, in the order of the indices";
    }
    EXPECT_EQ(test::take_reports(), "");
}

TEST_F(VectorTest, RefusesWhatCannotBe)
{
    conf_vec_t *vector = conf_vector_create(1);
    ASSERT_EQ(conf_vector_add(&vector, element(7)), 0);
    conf_vec_t *null = nullptr;
    refused(conf_vector_create(0) != nullptr, 0, "(size=0).");
    refused(conf_vector_add(nullptr, element(7)), -1, "(vector=(nil), data=0x7).");
    refused(conf_vector_add(&null, element(7)), -1, "(vector=%, data=0x7).", {&null});
    refused(conf_vector_add(&vector, nullptr), -1, "(vector=%, data=(nil)).", {&vector});
    refused(conf_vector_get(nullptr, 0) != nullptr, 0, "(vector=(nil), index=0).");
    refused(conf_vector_get(vector, 1) != nullptr, 0, "(vector=%, index=1).", {vector});
    refused(conf_vector_get(vector, UINT_MAX) != nullptr, 0, "(vector=%, index=-1).", {vector});
    refused(conf_vector_remove(nullptr, 3), -1, "(vector=(nil), index=3).");
    refused(conf_vector_remove(vector, 1), -1, "(vector=%, index=1).", {vector});
    refused(conf_vector_size(nullptr), 0, "(vector=(nil)).");
    refused((conf_vector_destroy(nullptr, release), 0), 0, ".");
    refused(conf_vector_create(UINT_MAX) != nullptr, 0,
            "Allocate memory failed(Cannot allocate memory).");
    EXPECT_EQ(conf_vector_size(vector), 1);
    EXPECT_EQ(conf_vector_get(vector, 0), element(7));
    conf_vector_destroy(vector, nullptr);
}

TEST_F(VectorTest, WithoutMemoryTheVectorStaysAsItWas)
{
    if (!test::memory_can_be_limited()) {
        GTEST_SKIP() << "the limits of memory cannot be reached here";
    }
    constexpr u32_t size = test::AddressSpaceLimit::slack / sizeof(conf_vec_node_t);
    conf_vec_t *vector = conf_vector_create(size);
    conf_vec_t *const before = vector;
    ASSERT_NE(vector, nullptr);
    std::fill_n(vector->vec, size, conf_vec_node_t{element(1)}); // adding looks at every slot
    {
        const test::AddressSpaceLimit limit;
        refused(conf_vector_add(&vector, element(2)), -1,
                "Malloc memory failed(Cannot allocate memory).");
        refused(conf_vector_create(2 * size) != nullptr, 0,
                "Allocate memory failed(Cannot allocate memory).");
    }
    ASSERT_EQ(vector, before);
    EXPECT_EQ(conf_vector_size(vector), static_cast<int>(size));
    EXPECT_EQ(conf_vector_get(vector, size - 1), element(1));
    conf_vector_destroy(vector, nullptr);
}

} // namespace
