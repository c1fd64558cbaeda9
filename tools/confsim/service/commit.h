// Puts the candidate configuration in force: publishes every change to the plugins concerned, and
// takes all of them back when one is refused.
#ifndef CONFSIM_COMMIT_H
#define CONFSIM_COMMIT_H

#include "service/daemon.h"
#include "service/publication.h"

#include <functional>
#include <string>

namespace confsim {

// Who is told of each step: in words, and of each publication what became of it.
struct commit_listener {
    std::function<void(const std::string &, tone)> say = [](const auto & /*text*/, tone /*meant*/) {
    };
    std::function<void(const publication &, const answer &)> published =
        [](const auto & /*what*/, const auto & /*got*/) {};
};

// Throws a refusal when a plugin refused, died or did not answer, and failure when the result
// cannot be stored; the running configuration is then as before, and the candidate stays for
// mending.
void commit(conf_daemon &service, configuration &config, const commit_listener &listener);

} // namespace confsim

#endif
