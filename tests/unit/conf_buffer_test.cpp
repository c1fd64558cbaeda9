// The byte buffer: sizes, refusals, and wiping.
#include "conf_buffer_internal.h"

#include "test_support.h"

#include <climits>
#include <sys/mman.h>

namespace {

using test::refused;

using BufferTest = test::Fixture;

int append(conf_buffer_t **buf, std::string text)
{
    return conf_buffer_append(buf, text.data(), static_cast<int>(text.size()));
}

// A buffer of that size that holds `text` and behind it zeros.
void expect_holds(const conf_buffer_t *buf, int total, const std::string &text)
{
    EXPECT_EQ(buf->total, total);
    const std::string all(buf->buf, static_cast<std::size_t>(buf->total));
    EXPECT_EQ(buf->used, static_cast<int>(text.size()));
    EXPECT_TRUE(all.starts_with(text));
    EXPECT_EQ(all.find_first_not_of('\0', text.size()), std::string::npos);
}

TEST_F(BufferTest, Sizes)
{
    // Created for, appended twice, pages, pages when slim. The last four rows lie just below and at
    // the sizes from which growth adds to what is needed, and no more.
    constexpr int rows[][5] = {
        {100, 0, 0, 1, 1},          {4087, 0, 0, 1, 1},     {4088, 0, 0, 2, 1},
        {1000, 4087, 0, 1, 1},      {1000, 4087, 1, 32, 2}, {131063, 65532, 0, 32, 17},
        {131063, 65533, 0, 32, 32}, {0, 131062, 0, 32, 32}, {0, 131063, 0, 64, 32},
        {0, 131071, 0, 65, 33},     {0, 131072, 0, 33, 33},
    };
    for (const auto &[created, first, second, pages, slim] : rows) {
        const std::string one(static_cast<std::size_t>(first), 'a');
        const std::string two(static_cast<std::size_t>(second), 'b');
        conf_buffer_t *buf = conf_buffer_create(created);
        EXPECT_EQ(append(&buf, one), 0);
        EXPECT_EQ(append(&buf, two), 0);
        expect_holds(buf, 4096 * pages - 8, one + two);
        const conf_buffer_t *const before = buf;
        conf_buffer_slim(&buf);
        EXPECT_EQ(buf != before, 4096 * pages - 8 >= 2 * (first + second))
            << "new, also of the same size";
        conf_buffer_consume(&buf, 0);
        expect_holds(buf, 4096 * slim - 8, one + two);
        conf_buffer_destroy(buf);
    }
}

// The buffer lies in a file in memory, which shows what it leaves in pages that it has given back.
TEST_F(BufferTest, NothingThatLeavesABufferStaysInItsMemory)
{
    constexpr std::size_t size = 65536;
    const std::string secret(20000, 's');
    const std::tuple<void (*)(conf_buffer_t **), int, std::string> rows[] = {
        {[](auto **buf) { conf_buffer_remove(*buf, 0, INT_MAX); }, 65528, ""},
        {[](auto **buf) { conf_buffer_flush(*buf); }, 65528, ""},
        {[](auto **buf) { conf_buffer_slim(buf); }, 20472, secret + "public"},
        {[](auto **buf) { conf_buffer_consume(buf, 20000); }, 4088, "public"},
        {[](auto **buf) { conf_buffer_clear(buf); }, 4088, ""},
        // Two more mappings in the system's eyes: one page does not go into a dump.
        {[](auto **buf) {
             EXPECT_EQ(madvise(reinterpret_cast<char *>(*buf) + 4096, 4096, MADV_DONTDUMP), 0);
             EXPECT_EQ(append(buf, std::string(65536, 'x')), 0);
         },
         131064, secret + "public" + std::string(65536, 'x')},
    };
    for (const auto &[action, total, kept] : rows) {
        if (sizeof(void *) == 4 && total > static_cast<int>(size)) {
            continue; // qemu takes the old pages away although mremap has failed
        }
        const support::unique_fd file(memfd_create("buffer", MFD_CLOEXEC));
        EXPECT_EQ(ftruncate(file.get(), size), 0);
        auto *buf = static_cast<conf_buffer_t *>(
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0));
        buf->total = size - 8;
        EXPECT_EQ(append(&buf, secret + "public"), 0);
        action(&buf);
        expect_holds(buf, total, kept);
        std::string pages(size, '\0');
        EXPECT_EQ(pread(file.get(), pages.data(), size, 0), static_cast<ssize_t>(size));
        EXPECT_EQ(pages.find("sss"), std::string::npos);
        conf_buffer_destroy(buf);
        EXPECT_EQ(pread(file.get(), pages.data(), size, 0), static_cast<ssize_t>(size));
        EXPECT_EQ(pages.find_first_not_of('\0', 8), std::string::npos);
    }
}

// A full buffer in a mapping of that size. Pages are reserved, not used: it costs nothing, and
// conf_buffer_destroy(), which writes to all of them, is not for it.
conf_buffer_t *full_buffer(std::int64_t mapping)
{
    auto *buf = static_cast<conf_buffer_t *>(
        mmap(nullptr, static_cast<std::size_t>(mapping), PROT_READ | PROT_WRITE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    buf->total = static_cast<std::int32_t>(mapping - 8);
    buf->used = buf->total - 1;
    return buf;
}

void release(conf_buffer_t *buf)
{
    munmap(buf, static_cast<std::size_t>(buf->total) + 8);
}

TEST_F(BufferTest, GrowthEndsWhereTheFieldsEnd)
{
    if (sizeof(void *) == 4) {
        GTEST_SKIP() << "a small address space has no room for the largest buffers";
    }
    constexpr std::int64_t end = std::int64_t{1} << 31;
    conf_buffer_t *source = full_buffer(end);
    const std::string overflow = "failed(Value too large for defined data type).";
    const std::string refusal =
        "Allocate 2147483647 byte(s) memory " + overflow + "\nExpand buffer failed.";
    const std::tuple<std::int64_t, int, bool> rows[] = {
        {4096, INT_MAX - 4087, false}, {end - 135168, 135168, true}, {end - 135168, 135169, false},
        {end - 135168, 4096, true},    {end - 135168, 4097, false},
    };
    for (const auto &[mapping, len, fits] : rows) {
        conf_buffer_t *buf = full_buffer(mapping);
        refused(conf_buffer_append(&buf, source->buf, len), fits ? 0 : -1, fits ? "" : refusal);
        EXPECT_EQ(buf->total, fits ? INT_MAX - 7 : mapping - 8) << len << " in " << mapping;
        EXPECT_EQ(buf->used, mapping - 9 + (fits ? len : 0)) << len << " in " << mapping;
        release(buf);
    }
    release(source);
    refused(conf_buffer_create(INT_MAX - 7) != nullptr, 0, "Allocate memory " + overflow);
}

TEST_F(BufferTest, Refusals)
{
    conf_buffer_t *none = nullptr;
    conf_buffer_t *buf = conf_buffer_create(0);
    EXPECT_EQ(append(&buf, "12345"), 0);
    char text[] = "text";
    char *const mapping = reinterpret_cast<char *>(buf); // which no source may reach into
    const std::tuple<conf_buffer_t **, void *, int> sources[] = {
        {&none, text, 4}, {nullptr, text, 4},     {&buf, nullptr, 4},
        {&buf, text, -1}, {&buf, mapping - 1, 2}, {&buf, mapping + 4095, 1}};
    for (const auto &[to, from, len] : sources) {
        refused(conf_buffer_append(to, from, len), -1, "(buf=%, context=%).", {to, from});
    }
    refused(conf_buffer_insert(&buf, 1, mapping, 1), -1, "(buf=%, context=%).", {&buf, mapping});
    refused(conf_buffer_insert(&buf, -1, text, 4), -1, "Error offset(offset=-1, buf.used=5).");
    refused(conf_buffer_insert(&buf, 6, text, 4), -1, "Error offset(offset=6, buf.used=5).");
    refused((conf_buffer_remove(nullptr, 0, 1), 0), 0, "(buf=(nil), start=0, len=1).");
    refused((conf_buffer_slim(&none), 0), 0, "(buf=%).", {&none});
    refused(conf_buffer_data(nullptr) != nullptr, 0, ".");
    refused(conf_buffer_length(nullptr), 0, ".");
    refused(conf_buffer_create(-1) != nullptr, 0, "(size=-1).");
    refused((conf_buffer_flush(nullptr), conf_buffer_destroy(nullptr), 0), 0, "");
    conf_buffer_slim(nullptr);
    for (const auto &[start, len] : {std::pair(-1, 1), {0, 0}, {5, 1}}) {
        conf_buffer_remove(buf, start, len);
    }
    EXPECT_EQ(test::take_system_log().size(), 4U);
    expect_holds(buf, 4088, "12345");
    conf_buffer_destroy(buf);
}

} // namespace
