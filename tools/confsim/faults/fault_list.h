// The faults that were ordered or are drawn, and those that happened.
#ifndef CONFSIM_FAULT_LIST_H
#define CONFSIM_FAULT_LIST_H

#include "faults/chaos.h"
#include "faults/fault.h"

#include <list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace confsim {

class fault_list {
public:
    static constexpr const char *everybody = "all";

    // For a plugin, or everybody: once, or until it is called off.
    void order(const std::string &plugin, fault what, bool always);

    // Calls off what was ordered for a plugin, or all that was ordered at all.
    void call_off(const std::string &plugin);

    // What is to happen to the next frame for a plugin, or to its request, which is noted as having
    // happened. What was ordered first comes first.
    [[nodiscard]] std::optional<fault> for_frame(const std::string &plugin);
    [[nodiscard]] std::optional<fault> for_request(const std::string &plugin,
                                                   const std::string &method);

    // From now on faults are drawn as well, by what was given, or no more.
    void draw_from(std::optional<chaos> drawn);
    [[nodiscard]] bool is_chaos() const { return chaos_.has_value(); }
    // What meets the daemon as a whole before a command; it is noted by whoever lets it happen.
    [[nodiscard]] std::optional<chaos::trouble> for_command();

    // Notes a fault of another kind: of confsim as a whole, or of no single frame.
    void note(const std::string &plugin, const std::string &what);

    // One for each that is still to come, and for each kind that happened.
    struct entry {
        std::string plugin; // empty: confsim as a whole
        std::string what;
        bool always;    // until it is called off
        unsigned times; // that it happened; 0: it is still to come
    };
    [[nodiscard]] std::vector<entry> entries() const;

private:
    struct ordered {
        std::string plugin;
        fault what;
        bool always;
    };

    std::optional<fault> noted(const std::string &plugin, std::optional<fault> what);
    template <typename condition>
    std::optional<fault> take(const std::string &plugin, condition is_wanted);

    std::list<ordered> ordered_;
    std::optional<chaos> chaos_;
    std::map<std::pair<std::string, std::string>, unsigned> happened_; // by plugin and fault
};

} // namespace confsim

#endif
