// What a plugin's refusal of a request is thrown as, or that it did not answer.
#ifndef CONFSIM_REFUSAL_H
#define CONFSIM_REFUSAL_H

#include "failure.h"
#include "service/plugin.h"

#include <optional>
#include <string>

namespace confsim {

class refusal : public failure {
public:
    // `what` is the path or operation that the request was about, and may be empty.
    refusal(const std::string &before, const std::string &who, const std::string &what,
            const answer &got)
        : failure(before + "plugin " + who + ", " + (what.empty() ? "" : what + ", ") +
                  got.in_words()),
          plugin(who), where(what), message(got.message)
    {
        if (got.kind == answer::outcome::refused) {
            code = got.code;
        }
    }

    std::string plugin;
    std::string where;
    std::string message; // of the plugin, or in words what else went wrong
    std::optional<int> code;
};

} // namespace confsim

#endif
