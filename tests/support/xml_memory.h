// The memory of libxml2, watched and made to fail: for tests that let every allocation of a
// scenario fail once. A source file that includes this replaces libxml2's allocator in its whole
// program, before main().
#ifndef CONFSVC_TEST_XML_MEMORY_H
#define CONFSVC_TEST_XML_MEMORY_H

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/xmlmemory.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <malloc.h>
#include <optional>
#include <set>
#include <string>

namespace test {

struct xml_memory {
    long until_failure = 0;  // allocations up to the one that fails; 0 for none
    bool all_after = false;  // whether all after it fail too
    bool failed = false;     // whether one has failed
    std::set<void *> blocks; // allocated and not yet freed
    int secrets = 0;         // blocks freed that began with the text "secret"

    void fail_at(long number, bool and_all_after)
    {
        until_failure = number;
        all_after = and_all_after;
        failed = false;
    }
    void work_again()
    {
        until_failure = 0;
        all_after = false;
    }

    void *allocate(void *old, std::size_t size)
    {
        const bool fails = until_failure == 1 || (failed && all_after);
        failed = failed || fails;
        until_failure -= until_failure > 0 ? 1 : 0;
        void *block = fails ? nullptr : std::realloc(old, size);
        if (block != nullptr) {
            blocks.erase(old);
            blocks.insert(block);
        }
        return block;
    }
};

inline xml_memory &xml_heap = *new xml_memory; // libxml2 frees its last blocks after static objects

inline const int xml_memory_replaced = xmlMemSetup(
    [](void *block) {
        xml_heap.blocks.erase(block);
        if (malloc_usable_size(block) > 6 && std::memcmp(block, "secret", 6) == 0) {
            ++xml_heap.secrets;
        }
        std::free(block);
    },
    [](std::size_t size) { return xml_heap.allocate(nullptr, size); },
    [](void *old, std::size_t size) { return xml_heap.allocate(old, size); },
    [](const char *text) {
        void *copy = xml_heap.allocate(nullptr, std::strlen(text) + 1);
        return copy == nullptr ? nullptr : std::strcpy(static_cast<char *>(copy), text);
    });

// Whether libxml2 itself forgets blocks when memory runs out in the scenario.
enum class leaks { none, of_libxml2 };

// Runs the scenario with each of its allocations failing, alone and with all that follow. It
// returns its result as a text, made after xml_heap.work_again(), or nothing when it failed: never
// a part of the result, and never with memory left behind.
inline void expect_whole_or_nothing(const char *name, leaks allowed,
                                    const std::function<std::optional<std::string>()> &scenario)
{
    ASSERT_EQ(xml_memory_replaced, 0);
    const std::optional<std::string> whole = scenario();
    ASSERT_TRUE(whole.has_value()) << name;
    for (const bool all_after : {false, true}) {
        bool reached = true;
        for (long number = 1; reached; ++number) {
            xmlResetLastError();
            const std::set<void *> before = xml_heap.blocks;
            xml_heap.fail_at(number, all_after);
            const std::optional<std::string> result = scenario();
            reached = xml_heap.failed;
            xml_heap.work_again();
            xmlResetLastError();
            EXPECT_TRUE(result == whole || (reached && !result.has_value()))
                << name << ", allocation " << number << ": " << result.value_or("nothing");
            for (void *block : std::set<void *>(xml_heap.blocks)) {
                if (!before.contains(block)) {
                    EXPECT_EQ(allowed, leaks::of_libxml2) << name << ", allocation " << number;
                    xmlFree(block);
                }
            }
        }
    }
}

} // namespace test

#endif
