// The memory of libxml2, watched for secrets and made to fail. A source file that includes this
// replaces libxml2's allocator in its whole program, before main().
#ifndef CONFSVC_TEST_XML_MEMORY_H
#define CONFSVC_TEST_XML_MEMORY_H

#include <libxml/parser.h>
#include <libxml/xmlmemory.h>

#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <utility>

namespace test {

struct xml_memory {
    bool fails_next = false; // the next allocation
    int secrets = 0;         // blocks freed that began with the text "secret"

    void *allocate(void *old, std::size_t size)
    {
        // New bytes are zero: the look into freed blocks also reaches what libxml2 never wrote.
        const std::size_t before = old == nullptr ? 0 : malloc_usable_size(old);
        void *block = std::exchange(fails_next, false) ? nullptr : std::realloc(old, size);
        if (block != nullptr && size > before) {
            std::memset(static_cast<char *>(block) + before, 0, size - before);
        }
        return block;
    }
};

inline xml_memory &xml_heap = *new xml_memory; // libxml2 frees its last blocks after static objects

inline const int xml_memory_replaced = xmlMemSetup(
    [](void *block) {
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

} // namespace test

#endif
