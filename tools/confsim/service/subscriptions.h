// Who subscribed to what, found by what changed. A change looks only at the subscriptions above and
// below its place, however many there are.
#ifndef CONFSIM_SUBSCRIPTIONS_H
#define CONFSIM_SUBSCRIPTIONS_H

#include "service/publication.h"

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace confsim {

class subscription_index {
public:
    // The subscriptions of a plugin do not change as long as it is here.
    void add(const plugin_ptr &whom);
    void remove(const plugin_ptr &whom);

    // What those that are here are to be told of: by priority, the smaller number first, then in
    // document order, then as they came in.
    [[nodiscard]] std::vector<publication>
    publications(const std::vector<difference> &changes) const;

    // What changed and concerns none of them: paths without keys, each once.
    [[nodiscard]] std::vector<std::string>
    unsubscribed(const std::vector<difference> &changes) const;

    // All that is subscribed to.
    [[nodiscard]] std::vector<std::string> paths() const;

private:
    struct entry {
        plugin_ptr of;
        std::size_t number; // of the subscription

        bool operator<(const entry &other) const
        {
            return std::pair(of->serial, number) < std::pair(other.of->serial, other.number);
        }
    };
    struct place { // keys do not matter
        std::vector<entry> here{};
        std::map<std::pair<std::string, std::string>, place> below{}; // by name and module
    };

    static void remove_from(place &at, const path &where, std::size_t depth,
                            const plugin_ptr &whom);
    template <typename Visit>
    static void visit_below(const place &at, Visit &visit);
    // All whose path leads to a place, or from there on.
    template <typename Visit>
    void visit_around(const path &where, Visit visit) const;

    place top_;
};

} // namespace confsim

#endif
