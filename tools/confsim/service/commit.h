// Puts the candidate configuration in force: publishes every change to the plugins concerned, and
// takes all of them back when one is refused.
#ifndef CONFSIM_COMMIT_H
#define CONFSIM_COMMIT_H

#include "service/daemon.h"

#include <functional>
#include <string>

namespace confsim {

// Reports each step through `say`. Throws failure when a plugin refused, died or did not answer, or
// when the result cannot be stored; the running configuration is then as before, and the candidate
// stays for mending.
void commit(conf_daemon &service, configuration &config,
            const std::function<void(const std::string &)> &say);

} // namespace confsim

#endif
