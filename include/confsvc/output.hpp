/*
 * confsvc/output.hpp - building XML: what a status or an operation answers, what is pushed. Texts
 * are always escaped. See confsvc.hpp.
 *
 *     confsvc::element port = out.open("port");
 *     port.add("name", name).add("mtu", 1500).add("enabled", true);
 *     port.open("counters").add("in-octets", octets);
 *
 * Nothing here throws. What could not be built for want of memory leaves the output incomplete, and
 * an incomplete one is neither sent nor pushed: an error takes its place.
 */
#ifndef CONFSVC_OUTPUT_HPP
#define CONFSVC_OUTPUT_HPP

#include "../conf_values.h"
#include "basics.hpp"

#include <climits>
#include <type_traits>

namespace confsvc {

/* An element under construction, which belongs to its output and lives as long as that. */
class element {
public:
    /* Adds a child with a text, a whole number, or a truth value. */
    template <typename type>
    element &add(c_text name, const type &value)
    {
        if constexpr (std::is_same_v<type, bool>) {
            return put(name, value ? "true" : "false");
        } else if constexpr (std::is_integral_v<type>) {
            using widest =
                std::conditional_t<std::is_signed_v<type>, long long, unsigned long long>;
            const char *const format = std::is_signed_v<type> ? "%lld" : "%llu";
            return check(econf_node_add(node_, name.get(), format, static_cast<widest>(value)));
        } else if constexpr (std::is_same_v<type, secret>) {
            return put(name, value.view());
        } else {
            return put(name, value);
        }
    }

    /* Adds a child to be filled; one that stays as it is is empty. */
    element open(c_text name)
    {
        xmlNode *child = econf_node_add(node_, name.get(), nullptr);
        (void)check(child);
        return {child, failed_};
    }

    /* Declares the default namespace, as the outermost element of a model needs it. */
    element &declare(c_text name)
    {
        const auto *text = reinterpret_cast<const xmlChar *>(name.get());
        return check(node_ == nullptr ? nullptr : xmlNewNs(node_, text, nullptr));
    }

    [[nodiscard]] xmlNode *get() const noexcept { return node_; }

protected:
    element(xmlNode *made, bool *failed) : node_(made), failed_(failed) { (void)check(made); }

private:
    element &put(c_text name, std::string_view text)
    {
        const int length = text.size() > INT_MAX ? -1 : static_cast<int>(text.size());
        return check(length < 0 ? nullptr
                                : econf_node_add(node_, name.get(), "%.*s", length, text.data()));
    }

    element &check(const void *made)
    {
        *failed_ = *failed_ || made == nullptr;
        return *this;
    }

    xmlNode *node_;
    bool *failed_;
};

namespace detail {

/* A base, so that it is there before the element that notes failures in it. */
struct completeness {
    bool incomplete = false;
};

} // namespace detail

/* The elements of an answer. Owns them, and wipes them when nobody takes them. */
class output : private detail::completeness, public element {
public:
    output() : element(econf_node_build("output", nullptr), &incomplete) {}
    output(const output &) = delete;
    output &operator=(const output &) = delete;
    ~output() { econf_node_free_list(get()); }

    [[nodiscard]] bool complete() const noexcept { return !incomplete; }
    /* The first element, with its siblings; null when there is none. */
    [[nodiscard]] xmlNode *first() const noexcept
    {
        return get() == nullptr ? nullptr : get()->children;
    }
    /* Hands the elements over, as a list without a parent. */
    [[nodiscard]] xmlNode *release() noexcept
    {
        xmlNode *const list = first();
        for (xmlNode *child = list; child != nullptr; child = child->next) {
            child->parent = nullptr;
        }
        if (list != nullptr) {
            get()->children = nullptr;
            get()->last = nullptr;
        }
        return list;
    }
};

} // namespace confsvc

#endif
