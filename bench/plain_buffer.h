// A byte buffer as plainly as it can be written: whole pages from the kernel; what grows or shrinks
// moves to a new mapping, by copying, and the old one is wiped and given back.
#ifndef CONFSVC_BENCH_PLAIN_BUFFER_H
#define CONFSVC_BENCH_PLAIN_BUFFER_H

#include "harness.h"

#include <sys/mman.h>

namespace bench {

class plain_buffer {
public:
    plain_buffer() { map(page); }
    ~plain_buffer() { unmap(at_, total_); }
    plain_buffer(const plain_buffer &) = delete;
    plain_buffer &operator=(const plain_buffer &) = delete;

    [[nodiscard]] char *data() const { return at_ + head; }
    [[nodiscard]] std::size_t length() const { return used_; }

    void append(const void *bytes, std::size_t count)
    {
        if (used_ + count >= total_) { // to 128 KiB, or by that much
            const std::size_t needed = used_ + count + head + 1;
            const std::size_t more = count < step ? step : 0;
            move(needed < step ? step : rounded(needed + more));
        }
        std::memcpy(data() + used_, bytes, count);
        used_ += count;
        data()[used_] = 0;
    }

    // From the front, and gives back the pages that are no longer needed.
    void remove(std::size_t count)
    {
        used_ -= count;
        std::memmove(data(), data() + count, used_);
        data()[used_] = 0;
        if (total_ > page - head - 1 && total_ >= 2 * used_) {
            move(rounded(used_ + head + 1));
        }
    }

private:
    static constexpr std::size_t page = 4096;
    static constexpr std::size_t head = 8;
    static constexpr std::size_t step = 131072;

    static std::size_t rounded(std::size_t size) { return (size + page - 1) & ~(page - 1); }

    void map(std::size_t size)
    {
        void *memory =
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            give_up("mmap");
        }
        at_ = static_cast<char *>(memory);
        total_ = size - head;
    }

    static void unmap(char *at, std::size_t total)
    {
        explicit_bzero(at + head, total);
        (void)munmap(at, total + head);
    }

    void move(std::size_t size)
    {
        char *const old = at_;
        const std::size_t old_total = total_;
        map(size);
        std::memcpy(data(), old + head, used_);
        data()[used_] = 0;
        unmap(old, old_total);
    }

    char *at_ = nullptr;
    std::size_t total_ = 0;
    std::size_t used_ = 0;
};

} // namespace bench

#endif
