// Keeps most inputs short and cheap, however long and costly those were that they are made from:
// a target then takes thousands of them a second. What costs much is still tried, in few inputs.
#include "fuzz.h"

#include <cstring>

extern "C" std::size_t LLVMFuzzerMutate(uint8_t *data, std::size_t size, std::size_t most);

// `most` is 4 or more.
extern "C" std::size_t LLVMFuzzerCustomMutator(uint8_t *data, std::size_t size, std::size_t most,
                                               unsigned int seed)
{
    constexpr std::size_t usual_size = 128;
    const std::uint8_t mark = seed % 512 == 0 ? fuzz::lavish : seed % 16 == 0 ? fuzz::verbose : 0;
    const std::size_t room = mark == fuzz::lavish ? most - 1 : std::min(most - 1, usual_size);
    size -= size > 0 ? 1 : 0; // the mark
    if (size > room) {        // the end is what most choices are made from
        std::memmove(data, data + size - room, room);
        size = room;
    }
    size = LLVMFuzzerMutate(data, size, room);
    data[size] = mark;
    return size + 1;
}
