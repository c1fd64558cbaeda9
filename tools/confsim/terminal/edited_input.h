// Commands that are typed on a terminal: edited, recalled and completed.
#ifndef CONFSIM_EDITED_INPUT_H
#define CONFSIM_EDITED_INPUT_H

#include "commands/input.h"

#include <memory>
#include <string>

namespace confsim {

// Throws failure when the terminal cannot be used.
[[nodiscard]] std::unique_ptr<input> edited_input(event_loop &loop, console &out,
                                                  completer complete);

} // namespace confsim

#endif
