// Work that may take everything, or never end, done in a process of its own first.
#ifndef CONFSIM_LIMITED_H
#define CONFSIM_LIMITED_H

#include <functional>
#include <string>

namespace confsim {

// Does the work in a copy of this process, which has less stack, and a limit on memory and time.
// Throws the failure that the work throws, and failure beginning with `what` when it does not come
// to an end there. What the work changes is lost.
void try_in_child(const std::function<void()> &work, const std::string &what);

} // namespace confsim

#endif
