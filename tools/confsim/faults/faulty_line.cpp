// See faulty_line.h.
#include "faults/faulty_line.h"

#include <algorithm>
#include <utility>

namespace confsim {

namespace {

// Long enough for a peer to read what came before.
constexpr seconds between_halves(0.05);

} // namespace

faulty_line::faulty_line(connection &stream, event_loop &loop, surroundings around)
    : stream_(stream), loop_(loop), around_(std::move(around))
{
    stream_.send_through([this](std::string frame) { send(std::move(frame)); });
}

faulty_line::~faulty_line()
{
    if (pause_) {
        loop_.stop_timer(*pause_);
    }
}

void faulty_line::send(std::string frame)
{
    const std::optional<fault> met = around_.next_fault();
    const std::size_t at = met ? std::min(met->at, frame.size()) : 0;
    const fault::kind what = met ? met->what : fault::kind::refuse; // which concerns no frame
    switch (what) {
    case fault::kind::drop:
        break;
    case fault::kind::delay:
        waiting_.push_back({std::move(frame), seconds(met->seconds)});
        break;
    case fault::kind::duplicate:
        waiting_.push_back({frame + frame});
        break;
    case fault::kind::truncate:
        waiting_.push_back({frame.substr(0, at)});
        break;
    case fault::kind::corrupt:
        frame[std::min(at, frame.size() - 1)] ^= '\x7f'; // no text has the zero that may come out
        waiting_.push_back({std::move(frame)});
        break;
    case fault::kind::split:
        waiting_.push_back({frame.substr(0, at)});
        waiting_.push_back({frame.substr(at), between_halves});
        break;
    case fault::kind::disconnect_at:
        waiting_.push_back({frame.substr(0, at), seconds(0), true});
        break;
    default:
        waiting_.push_back({std::move(frame)});
        break;
    }
    if (!pause_) {
        proceed();
    }
}

// Sends what need not wait.
void faulty_line::proceed()
{
    while (!waiting_.empty()) {
        const seconds pause = std::exchange(waiting_.front().pause, seconds(0));
        if (pause > seconds(0)) {
            pause_ = loop_.start_timer(pause, [this] {
                pause_.reset();
                around_.talk([this] { proceed(); });
            });
            return;
        }
        const piece next = std::move(waiting_.front());
        waiting_.pop_front();
        stream_.send_bytes(next.bytes);
        if (next.hangs_up) {
            stream_.hang_up("was hung up on, as ordered");
            waiting_.clear();
        }
    }
}

} // namespace confsim
