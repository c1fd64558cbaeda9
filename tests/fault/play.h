// Plays a story once, each time in a process of its own: without a fault, or with one.
#ifndef CONFSVC_FAULT_PLAY_H
#define CONFSVC_FAULT_PLAY_H

#include "faults.h"
#include "story.h"

#include <string>
#include <vector>

namespace fault {

// Begins the last step of an outcome that no fault may bring about.
inline constexpr const char *damage_mark = "DAMAGE:";

// A story without a fault, and the calls that it took.
struct baseline {
    std::vector<std::string> outcome;
    std::vector<call> calls;
    std::size_t allocations = 0;
    std::size_t growth = 0; // of the heap, when it was played twice
};

struct named_point {
    point where;
    std::string kind;
    std::string call;
};

baseline play_without_fault(const scenario &scenario);

// All faults that the calls of the story can have; `quick` as the driver says.
std::vector<named_point> points_of(const scenario &scenario, const baseline &normal, bool quick);

// The outcome: the steps that differ from the normal ones.
std::string play(const scenario &scenario, const point &where, const baseline &normal);

} // namespace fault

#endif
