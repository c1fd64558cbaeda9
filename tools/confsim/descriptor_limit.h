// Room for the sockets of many plugins. Programs that confsim starts get the limit that it was
// given itself, since select(2) takes no descriptor beyond the usual one.
#ifndef CONFSIM_DESCRIPTOR_LIMIT_H
#define CONFSIM_DESCRIPTOR_LIMIT_H

#include <cstddef>

namespace confsim {

// Raises the limit for so many plugins, as far as the system allows. Returns whether it is enough.
bool make_room_for_plugins(std::size_t count);

// In a program that is about to be started.
void restore_descriptor_limit();

} // namespace confsim

#endif
