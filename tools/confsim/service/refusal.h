// What a plugin's refusal of a request is thrown as, or that it did not answer.
#ifndef CONFSIM_REFUSAL_H
#define CONFSIM_REFUSAL_H

#include "failure.h"
#include "service/plugin.h"

#include <memory>
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
          details_(std::make_shared<details>(details{who, what, got.message, std::nullopt}))
    {
        if (got.kind == answer::outcome::refused) {
            details_->code = got.code;
        }
    }

    struct details {
        std::string plugin;
        std::string where;
        std::string message; // of the plugin, or in words what else went wrong
        std::optional<int> code;
    };
    [[nodiscard]] const details &told() const { return *details_; }

private:
    std::shared_ptr<details> details_; // as copies of what is thrown must not throw
};

} // namespace confsim

#endif
