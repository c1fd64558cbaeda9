// See supervision.h.
#include "supervision.h"

#include "conf_buffer_internal.h"
#include "support/bounded.h"
#include "wire.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <string_view>
#include <sys/eventfd.h>
#include <utility>

namespace {

// From here on, kept messages move to the beginning of their buffer once most of it is taken.
constexpr int worth_moving = 64 * 1024;

supervision *g_present = nullptr;

} // namespace

long long monotonic_time()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void wake_loop(int event_fd)
{
    const support::errno_keeper keep;
    (void)eventfd_write(event_fd, 1);
}

void supervise(supervision *next)
{
    g_present = next;
}

supervision *supervised()
{
    const bool applies =
        g_present != nullptr && (g_present->is_joining_ || g_present->owns_context());
    return applies ? g_present : nullptr;
}

supervision::supervision(int event_fd, int answer_limit)
    : event_fd_(event_fd), answer_limit_(answer_limit)
{
}

supervision::~supervision()
{
    conf_buffer_destroy(kept_);
    support::wipe(explanation_, sizeof explanation_);
}

void supervision::begin_joining(int limit)
{
    is_joining_ = true;
    deadline_ = monotonic_time() + limit;
    support::wipe(explanation_, sizeof explanation_);
}

void supervision::end_joining()
{
    is_joining_ = false;
    generation_ = context_generation();
}

bool supervision::owns_context() const
{
    return generation_ == context_generation();
}

bool supervision::has_kept() const
{
    return kept_ != nullptr && kept_->used > taken_;
}

xmlNode *supervision::take_kept()
{
    char *const first = kept_->buf + taken_;
    const std::size_t size = first_message(kept_, taken_).size();
    xmlNode *const root = parse_message_at(kept_, taken_);
    support::wipe(first, size);
    taken_ += static_cast<int>(size);
    if (taken_ == kept_->used || (taken_ > worth_moving && taken_ > kept_->used / 2)) {
        conf_buffer_consume(&kept_, std::exchange(taken_, 0));
    }
    return root;
}

void supervision::drop_kept()
{
    taken_ = 0;
    if (kept_ != nullptr) {
        conf_buffer_clear(&kept_);
    }
}

void supervision::begin_exchange()
{
    if (!is_joining_) {
        deadline_ = monotonic_time() + answer_limit_;
    }
}

void supervision::end_exchange(bool failed)
{
    if (failed) {
        explain("%s", time_left() == 0 ? "The daemon does not answer."
                                       : "The daemon has closed the connection.");
    }
    if (failed || wakes_always_) {
        wake_loop(event_fd_);
    }
}

int supervision::time_left() const
{
    return static_cast<int>(std::clamp<long long>(deadline_ - monotonic_time(), 0, INT_MAX));
}

bool supervision::keep_first(const conf_buffer_t *buffer)
{
    const std::span<const char> message = first_message(buffer, 0);
    const auto body = message.subspan(wire::head_size);
    constexpr std::string_view reply = "<reply";
    if (body.size() >= reply.size() && std::memcmp(body.data(), reply.data(), reply.size()) == 0) {
        return false;
    }
    if (kept_ == nullptr) {
        kept_ = conf_buffer_create(wire::buffer_room);
    }
    const bool was_empty = !has_kept();
    last_size_ = static_cast<int>(message.size());
    if (kept_ == nullptr ||
        std::int64_t{kept_->used} - taken_ + last_size_ > std::int64_t{wire::max_body} ||
        conf_buffer_append(&kept_, const_cast<char *>(message.data()), last_size_) != 0) {
        return false;
    }
    if (was_empty) {
        wake_loop(event_fd_);
    }
    return true;
}

void supervision::forget_last()
{
    conf_buffer_remove(kept_, kept_->used - last_size_, last_size_);
}

void supervision::explain(const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    if (std::vsnprintf(explanation_, sizeof explanation_, format, arguments) < 0) {
        explanation_[0] = '\0';
    }
    va_end(arguments);
}
