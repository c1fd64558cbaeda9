// The byte buffer: sizes, contents, refusals, wiping, and the time that growth takes.
#include "conf_buffer_internal.h"

#include "address_space_limit.h"
#include "support/owners.h"
#include "test_support.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <ctime>
#include <functional>
#include <random>
#include <string_view>
#include <sys/mman.h>

namespace {

using support::buffer_owner;

class BufferTest : public test::Fixture {};

std::string text_of(const conf_buffer_t *buf)
{
    return {buf->buf, static_cast<std::size_t>(buf->used)};
}

std::string pattern(int length)
{
    std::string text(static_cast<std::size_t>(length), '\0');
    for (std::size_t i = 0; i < text.size(); ++i) {
        text[i] = static_cast<char>('a' + i % 23);
    }
    return text;
}

int append(conf_buffer_t **buf, std::string text)
{
    return conf_buffer_append(buf, text.data(), static_cast<int>(text.size()));
}

int insert(conf_buffer_t **buf, int offset, std::string text)
{
    return conf_buffer_insert(buf, offset, text.data(), static_cast<int>(text.size()));
}

// A buffer of whole pages that holds `text` and nothing else.
void expect_holds(const conf_buffer_t *buf, const std::string &text)
{
    ASSERT_EQ((buf->total + 8) % 4096, 0);
    ASSERT_LT(buf->used, buf->total);
    ASSERT_EQ(buf->used, static_cast<int>(text.size()));
    ASSERT_TRUE(text_of(buf) == text);
    ASSERT_TRUE(std::all_of(buf->buf + buf->used, buf->buf + buf->total, [](char byte) {
        return byte == 0;
    })) << "behind the data";
}

TEST_F(BufferTest, Sizes)
{
    const struct {
        int created;
        std::vector<int> pieces; // appended one after the other
        int total;
        int total_when_slim;
    } rows[] = {
        {0, {}, 4088, 4088},
        {1000, {}, 4088, 4088},
        {4087, {}, 4088, 4088},
        {4088, {}, 8184, 4088},
        {1000, {4087}, 4088, 4088},
        {1000, {4088}, 131064, 8184},
        {1000, {4087, 1}, 131064, 8184},
        {0, {100, 4000}, 131064, 8184},
        {131063, {100}, 131064, 4088},
        {131063, {65532}, 131064, 69624},
        {131063, {65533}, 131064, 131064},
        // just below and at the size from which growth adds to what is needed
        {0, {131062}, 131064, 131064},
        {0, {131063}, 262136, 131064},
        {0, {131071}, 266232, 135160},
        {0, {131072}, 135160, 135160},
        {0, {200000}, 200696, 200696},
        {131063, {100000, 40000}, 274424, 274424},
        {131063, {100000, 140000}, 241656, 241656},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(::testing::Message() << "created for " << row.created << ", pieces "
                                          << ::testing::PrintToString(row.pieces));
        conf_buffer_t *buf = conf_buffer_create(row.created);
        ASSERT_NE(buf, nullptr);
        const buffer_owner owner(conf_buffer_create(0)); // keeps a page next to the buffer
        std::string model;
        for (const int piece : row.pieces) {
            model += pattern(piece);
            EXPECT_EQ(append(&buf, pattern(piece)), 0);
        }
        EXPECT_EQ(buf->total, row.total);
        expect_holds(buf, model);

        const conf_buffer_t *const before = buf;
        const bool sparse = buf->total >= 2 * buf->used;
        conf_buffer_slim(&buf);
        EXPECT_EQ(buf->total, row.total_when_slim);
        EXPECT_EQ(buf != before, sparse) << "a slim buffer is a new one, also of the same size";
        expect_holds(buf, model);
        conf_buffer_destroy(buf);
    }
    EXPECT_TRUE(test::take_system_log().empty());
}

TEST_F(BufferTest, MessagePathKeepsAOnePageBufferInPlace)
{
    conf_buffer_t *buf = conf_buffer_create(1000);
    const conf_buffer_t *const first = buf;
    const auto expect_in_place = [&](const char *text) {
        EXPECT_EQ(buf, first);
        expect_holds(buf, text);
    };
    ASSERT_EQ(append(&buf, "messagerest"), 0);
    conf_buffer_consume(&buf, 7);
    expect_in_place("rest");
    conf_buffer_consume(&buf, 0);
    expect_in_place("rest");
    conf_buffer_consume(&buf, -1);
    expect_in_place("rest");
    conf_buffer_consume(&buf, 4);
    expect_in_place("");
    ASSERT_EQ(append(&buf, "dropped"), 0);
    conf_buffer_clear(&buf);
    expect_in_place("");
    // A larger one gives back what it does not need, from half full on.
    ASSERT_EQ(append(&buf, pattern(70000)), 0);
    conf_buffer_consume(&buf, 70000 - 65533);
    EXPECT_EQ(buf->total, 131064);
    conf_buffer_consume(&buf, 1);
    EXPECT_EQ(buf->total, 69624);
    conf_buffer_clear(&buf);
    EXPECT_EQ(buf->total, 4088);
    expect_holds(buf, "");
    conf_buffer_destroy(buf);
    EXPECT_TRUE(test::take_system_log().empty());
}

// A buffer in shared memory: what it leaves in its pages can be seen after it has released them.
class WatchedBuffer {
public:
    explicit WatchedBuffer(std::size_t size) : size_(size)
    {
        const support::unique_fd memory(memfd_create("buffer", MFD_CLOEXEC));
        EXPECT_EQ(ftruncate(memory.get(), static_cast<off_t>(size)), 0);
        for (void **mapping : {&buffer_, &view_}) {
            *mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(), 0);
        }
        buffer()->total = static_cast<int>(size) - 8;
    }
    ~WatchedBuffer() { munmap(view_, size_); }
    WatchedBuffer(const WatchedBuffer &) = delete;
    WatchedBuffer &operator=(const WatchedBuffer &) = delete;

    [[nodiscard]] conf_buffer_t *buffer() const { return static_cast<conf_buffer_t *>(buffer_); }
    [[nodiscard]] std::string_view pages() const { return {static_cast<char *>(view_), size_}; }

private:
    std::size_t size_;
    void *buffer_ = nullptr;
    void *view_ = nullptr;
};

TEST_F(BufferTest, NothingThatLeavesABufferStaysInItsMemory)
{
    std::string secret;
    while (secret.size() < 20000) {
        secret += "secret ";
    }
    const int length = static_cast<int>(secret.size());
    const struct {
        const char *name;
        std::function<void(conf_buffer_t **)> action;
        const char *kept;
    } rows[] = {
        {"remove", [&](auto **buf) { conf_buffer_remove(*buf, 0, length); }, "public"},
        {"cut", [](auto **buf) { conf_buffer_remove(*buf, 0, INT_MAX); }, ""},
        {"flush", [](auto **buf) { conf_buffer_flush(*buf); }, ""},
        {"slim", [](auto **buf) { conf_buffer_slim(buf); }, nullptr},
        {"consume", [&](auto **buf) { conf_buffer_consume(buf, length); }, "public"},
        {"consume all", [](auto **buf) { conf_buffer_consume(buf, INT_MAX); }, ""},
        {"clear", [](auto **buf) { conf_buffer_clear(buf); }, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const WatchedBuffer watched(65536);
        conf_buffer_t *buf = watched.buffer();
        ASSERT_EQ(append(&buf, secret + "public"), 0);
        row.action(&buf);
        EXPECT_EQ(watched.pages().find("secret"), std::string_view::npos);
        expect_holds(buf, row.kept != nullptr ? row.kept : secret + "public");
        conf_buffer_destroy(buf);
        EXPECT_EQ(watched.pages().find_first_not_of('\0', 8), std::string_view::npos);
    }
}

// Pages are reserved, not used: a buffer of any size costs nothing.
conf_buffer_t *reserve(std::int64_t mapping, std::int64_t used)
{
    void *memory = mmap(nullptr, static_cast<std::size_t>(mapping), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    auto *buf = static_cast<conf_buffer_t *>(memory);
    buf->total = static_cast<std::int32_t>(mapping - 8);
    buf->used = static_cast<std::int32_t>(used);
    return buf;
}

TEST_F(BufferTest, GrowthEndsWhereTheFieldsEnd)
{
    constexpr std::int64_t end = std::int64_t{1} << 31;
    conf_buffer_t *source = reserve(end, 0);
    ASSERT_NE(source, nullptr);
    const struct {
        std::int64_t mapping;
        int len;
        int total; // after the append; 0 when it is refused
    } rows[] = {
        {4096, INT_MAX, 0},
        {4096, INT_MAX - 4087, 0},
        {end - 135168, 135168, INT_MAX - 7},
        {end - 135168, 135169, 0},
        {end - 135168, 4096, INT_MAX - 7},
        {end - 135168, 4097, 0},
        {end, 1, 0},
        {end, INT_MAX, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(::testing::Message() << row.len << " more bytes in " << row.mapping);
        conf_buffer_t *buf = reserve(row.mapping, row.mapping - 9); // full
        ASSERT_NE(buf, nullptr);
        const conf_buffer_t *const before = buf;
        const bool fits = row.total != 0;
        EXPECT_EQ(conf_buffer_append(&buf, source->buf, row.len), fits ? 0 : -1);
        EXPECT_EQ(buf->total, fits ? row.total : row.mapping - 8);
        EXPECT_EQ(buf->used, row.mapping - 9 + (fits ? row.len : 0));
        const std::vector<std::string> refusal = {
            "<11>[ERROR] Allocate 2147483647 byte(s) memory failed(Value too large for defined "
            "data type).",
            "<11>[ERROR] Expand buffer failed."};
        EXPECT_EQ(test::take_system_texts(), fits ? std::vector<std::string>() : refusal);
        if (!fits) {
            EXPECT_EQ(buf, before);
        }
        munmap(buf, static_cast<std::size_t>(buf->total) + 8);
    }
    munmap(source, end);

    for (const int size : {INT_MAX, INT_MAX - 7}) {
        EXPECT_EQ(conf_buffer_create(size), nullptr);
        EXPECT_EQ(test::take_system_texts(),
                  std::vector<std::string>{"<11>[ERROR] Allocate memory failed(Value too large "
                                           "for defined data type)."});
    }
}

TEST_F(BufferTest, WithoutMemoryTheBufferStaysAsItWas)
{
    constexpr int large = 4 * static_cast<int>(test::AddressSpaceLimit::slack);
    constexpr int kept = large / 2 - 4096;
    std::string source = pattern(large);
    conf_buffer_t *small = conf_buffer_create(0);
    conf_buffer_t *sparse = conf_buffer_create(large);
    ASSERT_EQ(append(&small, "kept"), 0);
    ASSERT_EQ(conf_buffer_append(&sparse, source.data(), kept), 0);
    const conf_buffer_t *const small_before = small;
    const conf_buffer_t *const sparse_before = sparse;
    {
        const test::AddressSpaceLimit limit;
        EXPECT_EQ(conf_buffer_append(&small, source.data(), large), -1);
        EXPECT_EQ(conf_buffer_insert(&small, 2, source.data(), large), -1);
        conf_buffer_slim(&sparse);
        EXPECT_EQ(conf_buffer_create(large), nullptr);
    }
    const std::string growth = "<11>[ERROR] Allocate 16781312 byte(s) memory failed(Cannot "
                               "allocate memory).";
    const std::string expand = "<11>[ERROR] Expand buffer failed.";
    const std::string other = "<11>[ERROR] Allocate memory failed(Cannot allocate memory).";
    EXPECT_EQ(test::take_system_texts(),
              (std::vector<std::string>{growth, expand, growth, expand, other, other}));
    EXPECT_EQ(small, small_before);
    EXPECT_EQ(small->total, 4088);
    expect_holds(small, "kept");
    EXPECT_EQ(sparse, sparse_before);
    expect_holds(sparse, source.substr(0, kept));
    conf_buffer_destroy(small);
    conf_buffer_destroy(sparse);
}

std::string place(const void *pointer)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

TEST_F(BufferTest, Refusals)
{
    conf_buffer_t *buf = conf_buffer_create(0);
    ASSERT_EQ(append(&buf, "12345"), 0);
    conf_buffer_t *none = nullptr;
    char text[] = "text";
    // The mapping and what stands in front of it, as seen by a source that reaches into the buffer.
    char *const last = reinterpret_cast<char *>(buf) + 4095;
    char *const in_front = reinterpret_cast<char *>(buf) - 1;
    const auto bad_source = [](conf_buffer_t **address, const void *source) {
        return "Error input parameter(buf=" + place(address) + ", context=" + place(source) + ").";
    };
    const auto bad_range = [](const conf_buffer_t *address, const char *range) {
        return "Error input parameter(buf=" + place(address) + ", " + range + ").";
    };
    const struct {
        std::function<long()> call;
        long result;
        std::string message; // "" when nothing is reported
    } rows[] = {
        {[&] { return conf_buffer_append(nullptr, text, 4); }, -1, bad_source(nullptr, text)},
        {[&] { return conf_buffer_append(&none, text, 4); }, -1, bad_source(&none, text)},
        {[&] { return conf_buffer_append(&buf, nullptr, 4); }, -1, bad_source(&buf, nullptr)},
        {[&] { return conf_buffer_append(&buf, text, -1); }, -1, bad_source(&buf, text)},
        {[&] { return conf_buffer_append(&buf, buf->buf, 1); }, -1, bad_source(&buf, buf->buf)},
        {[&] { return conf_buffer_append(&buf, last, 1); }, -1, bad_source(&buf, last)},
        {[&] { return conf_buffer_append(&buf, in_front, 2); }, -1, bad_source(&buf, in_front)},
        {[&] { return conf_buffer_insert(nullptr, 0, text, 4); }, -1, bad_source(nullptr, text)},
        {[&] { return conf_buffer_insert(&none, 0, text, 4); }, -1, bad_source(&none, text)},
        {[&] { return conf_buffer_insert(&buf, 9, nullptr, 4); }, -1, bad_source(&buf, nullptr)},
        {[&] { return conf_buffer_insert(&buf, 0, text, INT_MIN); }, -1, bad_source(&buf, text)},
        {[&] { return conf_buffer_insert(&buf, 1, last, 1); }, -1, bad_source(&buf, last)},
        {[&] { return conf_buffer_insert(&buf, -1, text, 4); }, -1,
         "Error offset(offset=-1, buf.used=5)."},
        {[&] { return conf_buffer_insert(&buf, 6, text, 4); }, -1,
         "Error offset(offset=6, buf.used=5)."},
        {[&] { return conf_buffer_remove(nullptr, 0, 1), 0; }, 0,
         bad_range(nullptr, "start=0, len=1")},
        {[&] { return conf_buffer_remove(buf, -1, 1), 0; }, 0, bad_range(buf, "start=-1, len=1")},
        {[&] { return conf_buffer_remove(buf, 0, 0), 0; }, 0, bad_range(buf, "start=0, len=0")},
        {[&] { return conf_buffer_remove(buf, 5, 1), 0; }, 0, bad_range(buf, "start=5, len=1")},
        {[&] { return conf_buffer_slim(nullptr), 0; }, 0,
         "Error input parameter(buf=" + place(nullptr) + ")."},
        {[&] { return conf_buffer_slim(&none), 0; }, 0,
         "Error input parameter(buf=" + place(&none) + ")."},
        {[&] { return conf_buffer_data(nullptr) != nullptr; }, 0, "Error input parameter."},
        {[&] { return conf_buffer_length(nullptr); }, 0, "Error input parameter."},
        {[&] { return conf_buffer_create(-1) != nullptr; }, 0, "Error input parameter(size=-1)."},
        {[&] { return conf_buffer_flush(nullptr), 0; }, 0, ""},
        {[&] { return conf_buffer_destroy(nullptr), 0; }, 0, ""},
        {[&] { return conf_buffer_append(&buf, text, 0); }, 0, ""},
    };
    const conf_buffer_t *const before = buf;
    for (const auto &row : rows) {
        SCOPED_TRACE(::testing::Message() << "row " << &row - rows << ": " << row.message);
        EXPECT_EQ(row.call(), row.result);
        EXPECT_EQ(test::take_system_texts(),
                  row.message.empty() ? std::vector<std::string>()
                                      : std::vector<std::string>{"<11>[ERROR] " + row.message});
        EXPECT_EQ(buf, before);
        expect_holds(buf, "12345");
    }
    conf_buffer_destroy(buf);
}

TEST_F(BufferTest, BehavesLikeAString)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    const auto up_to = [&](std::size_t most) {
        return static_cast<int>(std::uniform_int_distribution<std::size_t>(0, most)(random));
    };
    conf_buffer_t *buf = conf_buffer_create(up_to(10000));
    std::string model;
    for (int round = 0; round < 1500 && !HasFatalFailure(); ++round) {
        const std::string piece = pattern(up_to(1) == 0 ? up_to(300) : up_to(40000));
        const int offset = up_to(model.size());
        const int length = 1 + up_to(2 * model.size());
        const auto start = static_cast<std::size_t>(offset);
        const auto count = static_cast<std::size_t>(length);
        const int action = up_to(11);
        SCOPED_TRACE(::testing::Message() << "round " << round << " action " << action);
        if (action < 4) {
            ASSERT_EQ(append(&buf, piece), 0);
            model += piece;
        } else if (action < 7) {
            ASSERT_EQ(insert(&buf, offset, piece), 0);
            model.insert(start, piece);
        } else if (action < 9) {
            if (start < model.size()) {
                conf_buffer_remove(buf, offset, length);
                model.erase(start, count);
            }
        } else if (action == 9) {
            conf_buffer_slim(&buf);
        } else if (action == 10) {
            conf_buffer_consume(&buf, length);
            model.erase(0, count);
        } else if (round % 2 == 0) {
            conf_buffer_clear(&buf);
            model.clear();
        } else {
            conf_buffer_flush(buf);
            model.clear();
        }
        expect_holds(buf, model);
        ASSERT_EQ(conf_buffer_data(buf), buf->buf);
        ASSERT_EQ(conf_buffer_length(buf), static_cast<int>(model.size()));
    }
    conf_buffer_destroy(buf);
}

// Processor time, so that a busy machine does not matter.
double time_per_byte(int size)
{
    const std::clock_t begin = std::clock();
    conf_buffer_t *buf = conf_buffer_create(0);
    std::string piece(1024, 'x');
    for (int done = 0; done < size; done += 1024) {
        EXPECT_EQ(conf_buffer_append(&buf, piece.data(), 1024), 0);
    }
    const std::clock_t end = std::clock();
    EXPECT_EQ(buf->used, size);
    conf_buffer_destroy(buf);
    return static_cast<double>(end - begin) / size;
}

// Copying the data at each growth makes a byte of the larger buffer 16 times as expensive.
TEST_F(BufferTest, TimeOfGrowthIsLinear)
{
    const auto best_of_three = [](int size) {
        return std::min({time_per_byte(size), time_per_byte(size), time_per_byte(size)});
    };
    EXPECT_LT(best_of_three(16 << 20), 4 * best_of_three(1 << 20));
}

} // namespace
