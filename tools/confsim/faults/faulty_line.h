// The way of frames from confsim to a plugin, on which they are lost, delayed and damaged on order.
//
// Without faults it is no detour: a frame goes straight to the connection. Whatever has to wait
// holds up what is sent after it, as on any stream.
#ifndef CONFSIM_FAULTY_LINE_H
#define CONFSIM_FAULTY_LINE_H

#include "faults/fault.h"
#include "service/connection.h"
#include "service/loop.h"

#include <deque>
#include <functional>
#include <optional>
#include <string>

namespace confsim {

class faulty_line {
public:
    struct surroundings {
        std::function<std::optional<fault>()> next_fault; // for the frame that is sent now
        // Does something that sends, and takes care of a connection that breaks.
        std::function<void(const std::function<void()> &)> talk;
    };

    // Takes the place of the connection's own sending, for as long as both live.
    faulty_line(connection &stream, event_loop &loop, surroundings around);
    ~faulty_line();
    faulty_line(const faulty_line &) = delete;
    faulty_line &operator=(const faulty_line &) = delete;

    void talk(const std::function<void()> &act) const { around_.talk(act); }

private:
    struct piece {
        std::string bytes;
        seconds pause{};       // before it
        bool hangs_up = false; // after it
    };

    void send(std::string frame);
    void proceed();

    connection &stream_;
    event_loop &loop_;
    surroundings around_;
    std::deque<piece> waiting_;
    std::optional<event_loop::timer> pause_;
};

} // namespace confsim

#endif
