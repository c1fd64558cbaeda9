// Growable byte buffer in one private anonymous mapping of whole pages.
//
// Growing and giving back pages is left to mremap: pages move with what they hold, so nothing is
// copied and nothing stays behind. Where mremap fails, a new mapping takes a copy. Sizes are
// computed in 64 bits and checked against the largest mapping that the 32-bit fields can describe.
//
// Relies on the system log only.
#include "conf_buffer_internal.h"

#include "support/bounded.h"
#include "support/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/mman.h>

namespace {

constexpr std::int64_t page_size = 4096;
constexpr std::int64_t head_size = sizeof(conf_buffer_t);

// A buffer that outgrows its mapping gets at least this much, so that data which arrive in small
// pieces seldom move it.
constexpr std::int64_t growth_step = 131072;

constexpr std::int64_t whole_pages(std::int64_t bytes)
{
    return (bytes + page_size - 1) / page_size * page_size;
}

// The largest mapping whose data area an int32_t can count.
constexpr std::int64_t largest_mapping = (INT32_MAX + head_size) / page_size * page_size;

// Head, `used` bytes of data and the zero byte.
constexpr std::int64_t fitting_size(std::int64_t used)
{
    return whole_pages(head_size + used + 1);
}

constexpr std::int64_t grown_size(std::int64_t used, std::int64_t len)
{
    const std::int64_t needed = head_size + used + len + 1;
    if (needed < growth_step) {
        return growth_step;
    }
    return whole_pages(len < growth_step ? needed + growth_step : needed);
}

std::int64_t mapping_size(const conf_buffer_t *buf)
{
    return head_size + buf->total;
}

// Turns the result of mmap or mremap into a buffer of that size; null with errno on failure.
conf_buffer_t *as_buffer(void *mapping, std::int64_t size)
{
    if (mapping == MAP_FAILED) {
        return nullptr;
    }
    auto *buf = static_cast<conf_buffer_t *>(mapping);
    buf->total = static_cast<std::int32_t>(size - head_size);
    return buf;
}

// An empty buffer of zero bytes; null with errno on failure.
conf_buffer_t *map(std::int64_t size)
{
    if (size > largest_mapping) {
        errno = EOVERFLOW;
        return nullptr;
    }
    return as_buffer(mmap(nullptr, static_cast<std::size_t>(size), PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS, -1, 0),
                     size);
}

// Moves a buffer into a mapping of another size, which its data fit in; null with errno on failure,
// and `buf` is then as it was.
conf_buffer_t *move(conf_buffer_t *buf, std::int64_t size)
{
    conf_buffer_t *const moved = map(size);
    if (moved != nullptr) {
        std::memcpy(moved->buf, buf->buf, static_cast<std::size_t>(buf->used));
        moved->used = buf->used;
        conf_buffer_destroy(buf);
    }
    return moved;
}

// The same with its pages, or fewer, and more that are zero. That cannot be when one of them was
// locked, or advised on: they are then several mappings to the system.
conf_buffer_t *remap(conf_buffer_t *buf, std::int64_t size)
{
    conf_buffer_t *remapped = nullptr;
    if (size <= largest_mapping) {
        remapped = as_buffer(mremap(buf, static_cast<std::size_t>(mapping_size(buf)),
                                    static_cast<std::size_t>(size), MREMAP_MAYMOVE),
                             size);
    }
    return remapped != nullptr ? remapped : move(buf, size);
}

bool at_most_half_full(const conf_buffer_t *buf)
{
    return buf->total >= std::int64_t{2} * buf->used;
}

// Sets the end of the data and wipes what it cuts off, up to and with the old zero byte.
void cut(conf_buffer_t *buf, int used)
{
    support::wipe(buf->buf + used, static_cast<std::size_t>(buf->used - used) + 1);
    buf->used = used;
}

// Removes up to `len` bytes from `start`, which lies within the data.
void remove_range(conf_buffer_t *buf, int start, int len)
{
    const int removed = std::min(len, buf->used - start);
    const int behind = buf->used - start - removed;
    std::memmove(buf->buf + start, buf->buf + start + removed, static_cast<std::size_t>(behind));
    cut(buf, start + behind);
}

// Gives the pages back that a buffer which is at most half full does not need.
void shrink(conf_buffer_t **buf)
{
    const std::int64_t size = fitting_size((*buf)->used);
    if (!at_most_half_full(*buf) || size >= mapping_size(*buf)) {
        return;
    }
    conf_buffer_t *const shrunk = remap(*buf, size);
    if (shrunk == nullptr) {
        LOG_SYSTEM_ERROR("Allocate memory failed(%s).", std::strerror(errno));
        return;
    }
    *buf = shrunk;
}

// Whether `len` bytes of `context` can be copied into the buffer: none of them may lie in its own
// mapping, which moves under them when it grows.
bool can_take(conf_buffer_t *const *buf, const void *context, int len)
{
    if (buf == nullptr || *buf == nullptr || context == nullptr || len < 0) {
        return false;
    }
    const auto mapping = reinterpret_cast<std::uintptr_t>(*buf);
    const auto source = reinterpret_cast<std::uintptr_t>(context);
    const bool begins_inside = source - mapping < static_cast<std::uintptr_t>(mapping_size(*buf));
    const bool reaches_inside = mapping - source < static_cast<std::uintptr_t>(len);
    return !begins_inside && !reaches_inside;
}

// Copies acceptable bytes (see can_take) in front of the byte at `offset`, which lies within the
// data or at its end. Returns 0, or -1 with the buffer as it was.
int insert_at(conf_buffer_t **buf, int offset, const void *context, int len)
{
    conf_buffer_t *const grown = conf_buffer_expand(*buf, len);
    if (grown == nullptr) {
        LOG_SYSTEM_ERROR("Expand buffer failed.");
        return -1;
    }
    char *const gap = grown->buf + offset;
    std::memmove(gap + len, gap, static_cast<std::size_t>(grown->used - offset));
    std::memcpy(gap, context, static_cast<std::size_t>(len));
    grown->used += len;
    grown->buf[grown->used] = '\0';
    *buf = grown;
    return 0;
}

} // namespace

conf_buffer_t *conf_buffer_create(int size)
{
    if (size < 0) {
        LOG_SYSTEM_ERROR("Error input parameter(size=%d).", size);
        return nullptr;
    }
    conf_buffer_t *const buf = map(fitting_size(size));
    if (buf == nullptr) {
        LOG_SYSTEM_ERROR("Allocate memory failed(%s).", std::strerror(errno));
    }
    return buf;
}

void conf_buffer_destroy(conf_buffer_t *buf)
{
    if (buf == nullptr) {
        return;
    }
    // Behind the data everything is zero; pages there may never have been touched.
    support::wipe(buf->buf, static_cast<std::size_t>(buf->used));
    (void)munmap(buf, static_cast<std::size_t>(mapping_size(buf)));
}

conf_buffer_t *conf_buffer_expand(conf_buffer_t *buf, int len)
{
    if (std::int64_t{buf->used} + len < buf->total) {
        return buf;
    }
    const std::int64_t size = grown_size(buf->used, len);
    conf_buffer_t *const grown = remap(buf, size);
    if (grown == nullptr) {
        LOG_SYSTEM_ERROR("Allocate %d byte(s) memory failed(%s).",
                         static_cast<int>(std::min<std::int64_t>(size, INT32_MAX)),
                         std::strerror(errno));
    }
    return grown;
}

int conf_buffer_insert(conf_buffer_t **buf, int offset, void *context, int len)
{
    if (!can_take(buf, context, len)) {
        LOG_SYSTEM_ERROR("Error input parameter(buf=%p, context=%p).", static_cast<void *>(buf),
                         context);
        return -1;
    }
    if (offset < 0 || offset > (*buf)->used) {
        LOG_SYSTEM_ERROR("Error offset(offset=%d, buf.used=%d).", offset, (*buf)->used);
        return -1;
    }
    return insert_at(buf, offset, context, len);
}

int conf_buffer_append(conf_buffer_t **buf, void *context, int len)
{
    if (!can_take(buf, context, len)) {
        LOG_SYSTEM_ERROR("Error input parameter(buf=%p, context=%p).", static_cast<void *>(buf),
                         context);
        return -1;
    }
    return insert_at(buf, (*buf)->used, context, len);
}

void conf_buffer_remove(conf_buffer_t *buf, int start, int len)
{
    if (buf == nullptr || start < 0 || len <= 0 || start >= buf->used) {
        LOG_SYSTEM_ERROR("Error input parameter(buf=%p, start=%d, len=%d).",
                         static_cast<void *>(buf), start, len);
        return;
    }
    remove_range(buf, start, len);
}

void conf_buffer_flush(conf_buffer_t *buf)
{
    if (buf != nullptr) {
        cut(buf, 0);
    }
}

void conf_buffer_consume(conf_buffer_t **buf, int len)
{
    if (len > 0) {
        remove_range(*buf, 0, len);
        shrink(buf);
    }
}

void conf_buffer_clear(conf_buffer_t **buf)
{
    cut(*buf, 0);
    shrink(buf);
}

void conf_buffer_slim(conf_buffer_t **buf)
{
    if (buf == nullptr || *buf == nullptr) {
        LOG_SYSTEM_ERROR("Error input parameter(buf=%p).", static_cast<void *>(buf));
        return;
    }
    if (!at_most_half_full(*buf)) {
        return;
    }
    conf_buffer_t *const slim = move(*buf, fitting_size((*buf)->used));
    if (slim == nullptr) {
        LOG_SYSTEM_ERROR("Allocate memory failed(%s).", std::strerror(errno));
        return;
    }
    *buf = slim;
}

char *conf_buffer_data(conf_buffer_t *buf)
{
    if (buf == nullptr) {
        LOG_SYSTEM_ERROR("Error input parameter.");
        return nullptr;
    }
    return buf->buf;
}

int conf_buffer_length(conf_buffer_t *buf)
{
    if (buf == nullptr) {
        LOG_SYSTEM_ERROR("Error input parameter.");
        return 0;
    }
    return buf->used;
}
