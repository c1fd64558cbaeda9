// The vector: what it refuses, and how it lets go of its elements.
#include "conf_vec.h"

#include "reports.h"

#include <climits>

namespace {

using test::refused;
using VectorTest = test::Fixture;

char e[4]; // the elements
std::string released;

void release(void *data)
{
    released += std::to_string(static_cast<char *>(data) - e);
}

TEST_F(VectorTest, RefusesAndReleases)
{
    conf_vec_t *vector = conf_vector_create(1);
    conf_vec_t *null = nullptr;
    EXPECT_EQ(conf_vector_add(&vector, &e[0]), 0);
    refused(conf_vector_get(vector, 1) != nullptr, 0, "(vector=%, index=1).", {vector});
    refused(conf_vector_remove(vector, 1), -1, "(vector=%, index=1).", {vector});
    EXPECT_TRUE(conf_vector_add(&vector, &e[1]) == 1 && conf_vector_add(&vector, &e[2]) == 2);
    EXPECT_TRUE(conf_vector_remove(vector, 0) == 0 && conf_vector_add(&vector, &e[3]) == 0);
    refused(conf_vector_create(0) != nullptr, 0, "(size=0).");
    refused(conf_vector_create(UINT_MAX) != nullptr, 0,
            "Allocate memory failed(Cannot allocate memory).");
    refused(conf_vector_add(&null, e), -1, "(vector=%, data=%).", {&null, e});
    refused(conf_vector_add(nullptr, e), -1, "(vector=(nil), data=%).", {e});
    refused(conf_vector_add(&vector, nullptr), -1, "(vector=%, data=(nil)).", {&vector});
    refused(conf_vector_get(nullptr, UINT_MAX) != nullptr, 0, "(vector=(nil), index=-1).");
    refused(conf_vector_size(nullptr), 0, "(vector=(nil)).");
    refused((conf_vector_destroy(nullptr, release), 0), 0, ".");
    conf_vector_destroy(conf_vector_create(1), nullptr);
    conf_vector_destroy(vector, release);
    EXPECT_EQ(released, "312") << "each element once, in the order of the indices";
}

} // namespace
