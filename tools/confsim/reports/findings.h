// What plugins do that is wrong or slow, though no command need fail by it. Each finding is printed
// and stands in the report of its case; when findings are errors, the case fails.
#ifndef CONFSIM_FINDINGS_H
#define CONFSIM_FINDINGS_H

#include "commands/console.h"
#include "reports/cases.h"
#include "service/loop.h"
#include "service/plugin.h"
#include "watch/error_watch.h"

#include <list>
#include <map>
#include <optional>
#include <string>

namespace confsim {

class findings final : public plugin_watcher {
public:
    // Answers that take longer than `slow` are findings; none are when it is not given.
    findings(const console &out, case_list &cases, error_watch *recorded,
             std::optional<seconds> slow, bool are_errors)
        : out_(out), cases_(cases), recorded_(recorded), slow_(slow), are_errors_(are_errors)
    {
    }

    void add(const std::string &plugin, const std::string &what) override;
    void answered(const std::string &plugin, const std::string &request, seconds taken) override;
    std::optional<std::string> take_recorded(const std::string &process) override
    {
        return recorded_ == nullptr ? std::nullopt : recorded_->taken(process);
    }

    // At the end of each case: whether the processes of plugins hold more from case to case.
    void compare(const std::list<plugin_ptr> &plugins);

    // At the end of the session: whether plugins still owe answers, though they have had the time.
    void settle(const std::list<plugin_ptr> &plugins);

    [[nodiscard]] bool has_failed() const { return are_errors_ && has_any_; }

private:
    // How often in a row something was more than the case before; -1 once that was found.
    struct growth {
        long last = 0;
        int rises = 0;
    };
    struct holdings {
        growth descriptors;
        growth memory;
    };

    void grow(growth &known, long now, const plugin &whom, int most, const std::string &what);

    const console &out_;
    case_list &cases_;
    error_watch *recorded_; // null for plugins that somebody else starts
    std::optional<seconds> slow_;
    bool are_errors_;
    bool has_any_ = false;
    std::map<std::string, holdings> holdings_; // by process
};

} // namespace confsim

#endif
