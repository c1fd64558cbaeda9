// How time grows with size, measured within one run, and texts of any size.
#ifndef CONFSVC_TEST_TIMING_H
#define CONFSVC_TEST_TIMING_H

#include <algorithm>
#include <ctime>
#include <string>

namespace test {

inline std::string repeat(const std::string &piece, int count)
{
    std::string text;
    while (count-- > 0) {
        text += piece;
    }
    return text;
}

// The shortest of several runs, in processor time: other work on the machine only adds to it.
template <typename call_type>
double shortest_time(call_type call)
{
    double shortest = 1e9;
    for (int run = 0; run < 5; ++run) {
        const std::clock_t begin = std::clock();
        call();
        shortest = std::min(shortest, static_cast<double>(std::clock() - begin));
    }
    return shortest;
}

// How much longer each unit takes when there are four times as many: 1 for linear work, 4 for
// quadratic.
template <typename call_type>
double growth(call_type call, int size)
{
    return shortest_time([&] { call(4 * size); }) / (4 * shortest_time([&] { call(size); }));
}

} // namespace test

#endif
