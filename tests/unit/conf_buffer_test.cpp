// The byte buffer: sizes, contents, refusals, wiping, and the time that growth takes.
#include "conf_buffer_internal.h"

#include "memory_limits.h"
#include "reports.h"
#include "support/owners.h"

#include <algorithm>
#include <climits>
#include <ctime>
#include <functional>
#include <random>
#include <string_view>

namespace {

using test::refused;
using test::take_reports;

class BufferTest : public test::Fixture {};

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

// A buffer of whole pages that holds `text` and nothing else.
void expect_holds(const conf_buffer_t *buf, const std::string &text)
{
    ASSERT_EQ((buf->total + 8) % 4096, 0);
    ASSERT_LT(buf->used, buf->total);
    ASSERT_TRUE(std::string_view(buf->buf, static_cast<std::size_t>(buf->used)) == text);
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
        {4087, {}, 4088, 4088},
        {4088, {}, 8184, 4088},
        {1000, {4087}, 4088, 4088},
        {1000, {4088}, 131064, 8184},
        {1000, {4087, 1}, 131064, 8184},
        {131063, {65532}, 131064, 69624},
        {131063, {65533}, 131064, 131064},
        // just below and at the size from which growth adds to what is needed
        {0, {131062}, 131064, 131064},
        {0, {131063}, 262136, 131064},
        {0, {131071}, 266232, 135160},
        {0, {131072}, 135160, 135160},
        {131063, {100000, 40000}, 274424, 274424},
        {131063, {100000, 140000}, 241656, 241656},
    };
    for (const auto &[created, pieces, total, total_when_slim] : rows) {
        SCOPED_TRACE(::testing::PrintToString(pieces) + " in " + std::to_string(created));
        conf_buffer_t *buf = conf_buffer_create(created);
        std::string model;
        for (const int piece : pieces) {
            model += pattern(piece);
            EXPECT_EQ(append(&buf, pattern(piece)), 0);
        }
        EXPECT_EQ(buf->total, total);
        const conf_buffer_t *const before = buf;
        const bool sparse = buf->total >= 2 * buf->used;
        conf_buffer_slim(&buf);
        EXPECT_EQ(buf->total, total_when_slim);
        EXPECT_EQ(buf != before, sparse) << "a slim buffer is a new one, also of the same size";
        expect_holds(buf, model);
        conf_buffer_destroy(buf);
    }
}

TEST_F(BufferTest, MessagePathKeepsAOnePageBufferInPlace)
{
    conf_buffer_t *buf = conf_buffer_create(1000);
    const conf_buffer_t *const first = buf;
    ASSERT_EQ(append(&buf, "messagerest"), 0);
    for (const auto &[consumed, left] :
         {std::pair(7, "rest"), {0, "rest"}, {-1, "rest"}, {4, ""}}) {
        conf_buffer_consume(&buf, consumed);
        expect_holds(buf, left);
    }
    conf_buffer_clear(&buf);
    EXPECT_EQ(buf, first);
    // A larger one gives back what it does not need, from half full on.
    ASSERT_EQ(append(&buf, pattern(70000)), 0);
    conf_buffer_consume(&buf, 70000 - 65533);
    EXPECT_EQ(buf->total, 131064);
    conf_buffer_consume(&buf, 1);
    EXPECT_EQ(buf->total, 69624);
    conf_buffer_clear(&buf);
    EXPECT_EQ(buf->total, 4088);
    conf_buffer_destroy(buf);
}

// The buffer lies in a file in memory, which shows what it leaves in pages that it has given back.
TEST_F(BufferTest, NothingThatLeavesABufferStaysInItsMemory)
{
    constexpr std::size_t size = 65536;
    std::string secret;
    while (secret.size() < 20000) {
        secret += "secret ";
    }
    const struct {
        void (*action)(conf_buffer_t **buf);
        std::string kept;
    } rows[] = {
        {[](auto **buf) { conf_buffer_remove(*buf, 0, INT_MAX); }, ""},
        {[](auto **buf) { conf_buffer_slim(buf); }, secret + "public"},
        {[](auto **buf) { conf_buffer_consume(buf, (*buf)->used - 6); }, "public"},
        {[](auto **buf) { conf_buffer_consume(buf, INT_MAX); }, ""},
        {[](auto **buf) { conf_buffer_clear(buf); }, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        const support::unique_fd file(memfd_create("buffer", MFD_CLOEXEC));
        ASSERT_EQ(ftruncate(file.get(), size), 0);
        auto *buf = static_cast<conf_buffer_t *>(
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0));
        const auto pages = [&] {
            std::string bytes(size, '\0');
            EXPECT_EQ(pread(file.get(), bytes.data(), size, 0), static_cast<ssize_t>(size));
            return bytes;
        };
        buf->total = size - 8;
        ASSERT_EQ(append(&buf, secret + "public"), 0);
        row.action(&buf);
        EXPECT_EQ(pages().find("secret"), std::string::npos);
        expect_holds(buf, row.kept);
        conf_buffer_destroy(buf);
        EXPECT_EQ(pages().find_first_not_of('\0', 8), std::string::npos);
    }
}

TEST_F(BufferTest, GrowthEndsWhereTheFieldsEnd)
{
    if (!test::memory_can_be_limited()) {
        GTEST_SKIP() << "the limits of memory cannot be reached here";
    }
    constexpr std::int64_t end = std::int64_t{1} << 31;
    conf_buffer_t *source = test::reserve_buffer(end, 0);
    ASSERT_NE(source, nullptr);
    const struct {
        std::int64_t mapping;
        int len;
        bool fits;
    } rows[] = {
        {4096, INT_MAX - 4087, false}, {end - 135168, 135168, true}, {end - 135168, 135169, false},
        {end - 135168, 4096, true},    {end - 135168, 4097, false},  {end, 1, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(::testing::Message() << row.len << " more bytes in " << row.mapping);
        conf_buffer_t *buf = test::reserve_buffer(row.mapping, 0);
        ASSERT_NE(buf, nullptr);
        const conf_buffer_t *const before = buf;
        EXPECT_EQ(conf_buffer_append(&buf, source->buf, row.len), row.fits ? 0 : -1);
        EXPECT_EQ(buf->total, row.fits ? INT_MAX - 7 : row.mapping - 8);
        EXPECT_EQ(buf->used, row.mapping - 9 + (row.fits ? row.len : 0));
        EXPECT_TRUE(row.fits || buf == before);
        EXPECT_EQ(take_reports(), row.fits ? ""
                                           : "Allocate 2147483647 byte(s) memory failed(Value too "
                                             "large for defined data type).\n"
                                             "Expand buffer failed.\n");
        test::release_buffer(buf);
    }
    test::release_buffer(source);
    const std::string refusal = "Allocate memory failed(Value too large for defined data type).";
    refused(conf_buffer_create(INT_MAX) != nullptr, 0, refusal);
    refused(conf_buffer_create(INT_MAX - 7) != nullptr, 0, refusal);
}

TEST_F(BufferTest, WithoutMemoryTheBufferStaysAsItWas)
{
    if (!test::memory_can_be_limited()) {
        GTEST_SKIP() << "the limits of memory cannot be reached here";
    }
    constexpr int large = 4 * static_cast<int>(test::AddressSpaceLimit::slack);
    std::string source = pattern(large);
    conf_buffer_t *small = conf_buffer_create(0);
    conf_buffer_t *sparse = conf_buffer_create(large);
    const std::string kept = source.substr(0, large / 2 - 4096);
    ASSERT_EQ(append(&small, "kept"), 0);
    ASSERT_EQ(append(&sparse, kept), 0);
    const conf_buffer_t *const before[] = {small, sparse};
    {
        const test::AddressSpaceLimit limit;
        EXPECT_EQ(conf_buffer_append(&small, source.data(), large), -1);
        EXPECT_EQ(conf_buffer_insert(&small, 2, source.data(), large), -1);
        conf_buffer_slim(&sparse);
        EXPECT_EQ(conf_buffer_create(large), nullptr);
    }
    const std::string growth = "Allocate 16781312 byte(s) memory failed(Cannot allocate memory).\n"
                               "Expand buffer failed.\n";
    const std::string other = "Allocate memory failed(Cannot allocate memory).\n";
    EXPECT_EQ(take_reports(), growth + growth + other + other);
    EXPECT_TRUE(small == before[0] && small->total == 4088 && sparse == before[1]);
    expect_holds(small, "kept");
    expect_holds(sparse, kept);
    conf_buffer_destroy(small);
    conf_buffer_destroy(sparse);
}

TEST_F(BufferTest, Refusals)
{
    conf_buffer_t *buf = conf_buffer_create(0);
    ASSERT_EQ(append(&buf, "12345"), 0);
    const conf_buffer_t *const before = buf;
    conf_buffer_t *none = nullptr;
    char text[] = "text";
    // Sources that reach into the buffer's mapping, from behind and from in front of it.
    char *const last = reinterpret_cast<char *>(buf) + 4095;
    char *const in_front = reinterpret_cast<char *>(buf) - 1;
    refused(conf_buffer_append(nullptr, text, 4), -1, "(buf=(nil), context=%).", {text});
    refused(conf_buffer_append(&none, text, 4), -1, "(buf=%, context=%).", {&none, text});
    refused(conf_buffer_append(&buf, nullptr, 4), -1, "(buf=%, context=(nil)).", {&buf});
    refused(conf_buffer_append(&buf, text, -1), -1, "(buf=%, context=%).", {&buf, text});
    refused(conf_buffer_append(&buf, buf->buf, 1), -1, "(buf=%, context=%).", {&buf, buf->buf});
    refused(conf_buffer_append(&buf, last, 1), -1, "(buf=%, context=%).", {&buf, last});
    refused(conf_buffer_append(&buf, in_front, 2), -1, "(buf=%, context=%).", {&buf, in_front});
    refused(conf_buffer_insert(nullptr, 0, text, 4), -1, "(buf=(nil), context=%).", {text});
    refused(conf_buffer_insert(&buf, 9, nullptr, 4), -1, "(buf=%, context=(nil)).", {&buf});
    refused(conf_buffer_insert(&buf, 0, text, INT_MIN), -1, "(buf=%, context=%).", {&buf, text});
    refused(conf_buffer_insert(&buf, 1, last, 1), -1, "(buf=%, context=%).", {&buf, last});
    refused(conf_buffer_insert(&buf, -1, text, 4), -1, "Error offset(offset=-1, buf.used=5).");
    refused(conf_buffer_insert(&buf, 6, text, 4), -1, "Error offset(offset=6, buf.used=5).");
    refused((conf_buffer_remove(nullptr, 0, 1), 0), 0, "(buf=(nil), start=0, len=1).");
    refused((conf_buffer_remove(buf, -1, 1), 0), 0, "(buf=%, start=-1, len=1).", {buf});
    refused((conf_buffer_remove(buf, 0, 0), 0), 0, "(buf=%, start=0, len=0).", {buf});
    refused((conf_buffer_remove(buf, 5, 1), 0), 0, "(buf=%, start=5, len=1).", {buf});
    refused((conf_buffer_slim(nullptr), 0), 0, "(buf=(nil)).");
    refused((conf_buffer_slim(&none), 0), 0, "(buf=%).", {&none});
    refused(conf_buffer_data(nullptr) != nullptr, 0, ".");
    refused(conf_buffer_length(nullptr), 0, ".");
    refused(conf_buffer_create(-1) != nullptr, 0, "(size=-1).");
    refused((conf_buffer_flush(nullptr), 0), 0, "");
    refused((conf_buffer_destroy(nullptr), 0), 0, "");
    refused(conf_buffer_append(&buf, text, 0), 0, "");
    EXPECT_EQ(buf, before);
    expect_holds(buf, "12345");
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
        std::string piece = pattern(up_to(1) == 0 ? up_to(300) : up_to(40000));
        const int piece_length = static_cast<int>(piece.size());
        const int offset = up_to(model.size());
        const int length = 1 + up_to(2 * model.size());
        const auto start = static_cast<std::size_t>(offset);
        const auto count = static_cast<std::size_t>(length);
        const int action = up_to(11);
        SCOPED_TRACE(::testing::Message() << "round " << round << " action " << action);
        if (action < 4) {
            ASSERT_EQ(conf_buffer_append(&buf, piece.data(), piece_length), 0);
            model += piece;
        } else if (action < 7) {
            ASSERT_EQ(conf_buffer_insert(&buf, offset, piece.data(), piece_length), 0);
            model.insert(start, piece);
        } else if (action < 9 && start < model.size()) {
            conf_buffer_remove(buf, offset, length);
            model.erase(start, count);
        } else if (action == 9) {
            conf_buffer_slim(&buf);
        } else if (action == 10) {
            conf_buffer_consume(&buf, length);
            model.erase(0, count);
        } else if (action == 11) {
            round % 2 == 0 ? conf_buffer_clear(&buf) : conf_buffer_flush(buf);
            model.clear();
        }
        expect_holds(buf, model);
        ASSERT_EQ(conf_buffer_data(buf), buf->buf);
        ASSERT_EQ(conf_buffer_length(buf), static_cast<int>(model.size()));
    }
    conf_buffer_destroy(buf);
    EXPECT_EQ(take_reports(), "");
}

// Copying the data at each growth makes a byte of the larger buffer 16 times as expensive.
TEST_F(BufferTest, TimeOfGrowthIsLinear)
{
    const auto time_per_byte = [](int size) { // of the processor: a busy machine does not matter
        double best = 1e9;
        std::string piece(1024, 'x');
        for (int run = 0; run < 3; ++run) {
            const std::clock_t begin = std::clock();
            conf_buffer_t *buf = conf_buffer_create(0);
            for (int done = 0; done < size; done += 1024) {
                EXPECT_EQ(conf_buffer_append(&buf, piece.data(), 1024), 0);
            }
            best = std::min(best, static_cast<double>(std::clock() - begin) / size);
            conf_buffer_destroy(buf);
        }
        return best;
    };
    EXPECT_LT(time_per_byte(16 << 20), 4 * time_per_byte(1 << 20));
}

} // namespace
