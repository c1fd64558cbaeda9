/*
 * confsvc/node.hpp - reading XML trees: one element, the elements of a list, and an owner of a list
 * that was pulled. Views but the owner: they live as long as the tree. See confsvc.hpp.
 *
 * A value of a child comes as a std::optional, empty when there is no such child. A child that
 * holds something else than was asked for is a refusal with a text that fits an error reply, such
 * as "mtu is not a whole number from 68 to 65535": thrown by text() and the like, returned by
 * try_text() and the like. How values may be written, conf_values.h says.
 */
#ifndef CONFSVC_NODE_HPP
#define CONFSVC_NODE_HPP

#include "../conf_values.h"
#include "basics.hpp"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <limits>
#include <type_traits>

#if defined(__cpp_lib_ranges)
#include <ranges>
#endif

namespace confsvc {

class node;
class nodes;

namespace detail {

inline const char *name_of(const xmlNode *element)
{
    return element == nullptr || element->name == nullptr
               ? ""
               : reinterpret_cast<const char *>(element->name);
}

/* What the calls of conf_values.h return for a node, as a result. */
template <typename type>
result<std::optional<type>> read(xmlNode *element, int found, type value, const std::string &is)
{
    if (found < 0) {
        return refusal(EINVAL, name_of(element) + (' ' + is));
    }
    return found == 0 ? std::optional<type>() : std::optional<type>(value);
}

inline result<std::optional<std::string_view>> read_text(xmlNode *element)
{
    const char *text = "";
    const int found = econf_node_text(element, &text);
    return read<std::string_view>(element, found, text, "is not a text");
}

inline int read_whole(xmlNode *element, long long least, long long most, long long *number)
{
    return econf_node_number(element, least, most, number);
}

inline int read_whole(xmlNode *element, unsigned long long least, unsigned long long most,
                      unsigned long long *number)
{
    return econf_node_unsigned(element, least, most, number);
}

/* Of the widest type: all others share it. */
template <typename widest>
result<std::optional<widest>> read_widest(xmlNode *element, widest least, widest most)
{
    widest number = 0;
    const int found = read_whole(element, least, most, &number);
    std::string is;
    if (found < 0) {
        is = "is not a whole number from " + std::to_string(least) + " to " + std::to_string(most);
    }
    return read(element, found, number, is);
}

template <typename type>
result<std::optional<type>> read_number(xmlNode *element, type least, type most)
{
    static_assert(std::is_integral_v<type> && !std::is_same_v<type, bool>, "a whole number");
    using widest = std::conditional_t<std::is_signed_v<type>, long long, unsigned long long>;
    const result<std::optional<widest>> number = read_widest<widest>(element, least, most);
    if (!number) {
        return number.why();
    }
    return *number ? std::optional<type>(static_cast<type>(**number)) : std::optional<type>();
}

inline result<std::optional<bool>> read_boolean(xmlNode *element)
{
    bool_t value = false;
    const int found = econf_node_boolean(element, &value);
    return read(element, found, value != 0, "is neither true nor false");
}

template <typename type, std::size_t count>
result<std::optional<type>> read_choice(xmlNode *element, const char *const (&words)[count])
{
    const char *ended[count + 1] = {};
    std::copy(words, words + count, ended);
    int index = 0;
    const int found = econf_node_choice(element, ended, &index);
    std::string list;
    for (std::size_t i = 0; found < 0 && i < count; ++i) {
        list += (i == 0 ? "" : ", ") + std::string(words[i]);
    }
    return read(element, found, static_cast<type>(index), "is none of " + list);
}

} // namespace detail

/*
 * The values of named elements. `derived` has find(), which gives the first element of a name: of a
 * node that is a child, of a list one of its own elements.
 *
 *     const int mtu = interface.number<int>("mtu", 68, 65535).value_or(1500);
 *     const auto duplex = interface.choice<mode>("duplex", {"auto", "half", "full"});
 */
template <typename derived>
class reader {
public:
    [[nodiscard]] bool contains(c_text name) const { return found(name) != nullptr; }

    /* The value of that element: empty when there is none, an error when it is no such value. */
    result<std::optional<std::string_view>> try_text(c_text name) const
    {
        return detail::read_text(found(name));
    }
    template <typename type>
    result<std::optional<type>> try_number(c_text name,
                                           type least = std::numeric_limits<type>::min(),
                                           type most = std::numeric_limits<type>::max()) const
    {
        return detail::read_number(found(name), least, most);
    }
    result<std::optional<bool>> try_boolean(c_text name) const
    {
        return detail::read_boolean(found(name));
    }
    /* The place of the value among the words, as a number or an enumeration. */
    template <typename type = int, std::size_t count>
    result<std::optional<type>> try_choice(c_text name, const char *const (&words)[count]) const
    {
        return detail::read_choice<type>(found(name), words);
    }

#if CONFSVC_EXCEPTIONS
    /* The element, which has to be there: without it a refusal is thrown. */
    [[nodiscard]] auto at(c_text name) const
    {
        auto element = static_cast<const derived *>(this)->find(name);
        if (!element) {
            throw refusal(EINVAL, name.get() + std::string(" is missing"));
        }
        return element;
    }
    /* The same, with the error thrown. */
    [[nodiscard]] std::optional<std::string_view> text(c_text name) const
    {
        return value_or_throw(try_text(name));
    }
    template <typename type>
    [[nodiscard]] std::optional<type> number(c_text name,
                                             type least = std::numeric_limits<type>::min(),
                                             type most = std::numeric_limits<type>::max()) const
    {
        return value_or_throw(try_number<type>(name, least, most));
    }
    [[nodiscard]] std::optional<bool> boolean(c_text name) const
    {
        return value_or_throw(try_boolean(name));
    }
    template <typename type = int, std::size_t count>
    [[nodiscard]] std::optional<type> choice(c_text name, const char *const (&words)[count]) const
    {
        return value_or_throw(try_choice<type>(name, words));
    }
#endif

private:
    xmlNode *found(c_text name) const
    {
        return static_cast<const derived *>(this)->find(name).get();
    }
};

/* One element, or none: then everything is absent. */
class node : public reader<node> {
public:
    node() = default;
    node(xmlNode *element) : element_(element) {} // NOLINT(google-explicit-constructor)

    [[nodiscard]] explicit operator bool() const noexcept { return element_ != nullptr; }
    [[nodiscard]] xmlNode *get() const noexcept { return element_; }
    [[nodiscard]] std::string_view name() const { return detail::name_of(element_); }
    [[nodiscard]] node find(c_text name) const { return econf_node_child(element_, name.get()); }
    /* All child elements, or those of a name, which is to live as long as the range. */
    [[nodiscard]] nodes children() const;
    [[nodiscard]] nodes children(c_text name) const;

    /* Values of the element itself. */
    result<std::optional<std::string_view>> try_text() const { return detail::read_text(element_); }
    using reader::try_text;
#if CONFSVC_EXCEPTIONS
    /* The value, which has to be there: without it a refusal is thrown. */
    [[nodiscard]] std::string_view as_text() const
    {
        return need(detail::read_text(element_));
    }
    template <typename type>
    [[nodiscard]] type as_number(type least = std::numeric_limits<type>::min(),
                                 type most = std::numeric_limits<type>::max()) const
    {
        return need(detail::read_number(element_, least, most));
    }
    [[nodiscard]] bool as_boolean() const
    {
        return need(detail::read_boolean(element_));
    }
    template <typename type = int, std::size_t count>
    [[nodiscard]] type as_choice(const char *const (&words)[count]) const
    {
        return need(detail::read_choice<type>(element_, words));
    }
#endif

    friend bool operator==(node left, node right)
    {
        return left.element_ == right.element_;
    }
    friend bool operator!=(node left, node right)
    {
        return left.element_ != right.element_;
    }

private:
#if CONFSVC_EXCEPTIONS
    template <typename type>
    static type need(result<std::optional<type>> given)
    {
        const std::optional<type> value = value_or_throw(std::move(given));
        if (!value) {
            throw refusal(EINVAL, "an element is missing");
        }
        return *value;
    }
#endif

    xmlNode *element_ = nullptr;
};

/* The elements of a list, or those of a name: a forward range. */
class nodes : public reader<nodes> {
public:
    class iterator {
    public:
        using iterator_category = std::input_iterator_tag; // forward, but for its references
#if defined(__cpp_lib_ranges)
        using iterator_concept = std::forward_iterator_tag;
#endif
        using value_type = node;
        using difference_type = std::ptrdiff_t;
        using pointer = const node *;
        using reference = node;

        iterator() = default;
        iterator(xmlNode *element, const char *name) : at_(element), name_(name) {}

        reference operator*() const
        {
            return at_;
        }
        pointer operator->() const
        {
            return &at_;
        }
        iterator &operator++()
        {
            at_ = econf_node_next(at_.get(), name_);
            return *this;
        }
        iterator operator++(int) // NOLINT(cert-dcl21-cpp): as iterators do
        {
            iterator before = *this;
            ++*this;
            return before;
        }
        friend bool operator==(const iterator &left, const iterator &right)
        {
            return left.at_ == right.at_;
        }
        friend bool operator!=(const iterator &left, const iterator &right)
        {
            return left.at_ != right.at_;
        }

    private:
        node at_;
        const char *name_ = nullptr;
    };

    nodes() = default;
    explicit nodes(xmlNode *list, const char *name = nullptr)
        : first_(econf_node_find(list, name)), name_(name)
    {
    }

    [[nodiscard]] iterator begin() const
    {
        return {first_, name_};
    }
    [[nodiscard]] static iterator end()
    {
        return {};
    }
    [[nodiscard]] bool empty() const
    {
        return first_ == nullptr;
    }
    [[nodiscard]] node front() const
    {
        return first_;
    }
    [[nodiscard]] node find(c_text name) const
    {
        return econf_node_find(first_, name.get());
    }

private:
    xmlNode *first_ = nullptr;
    const char *name_ = nullptr;
};

inline nodes node::children() const
{
    return nodes(econf_node_child(element_, nullptr));
}

inline nodes node::children(c_text name) const
{
    return nodes(econf_node_child(element_, name.get()), name.get());
}

/*
 * Owns what was pulled: the elements with all that is in them, wiped when they go. Used like a
 * pointer to the first element, mostly the only one, and as a range of all.
 *
 *     const confsvc::elements now = change.values();
 *     apply(now->text("name"), now->number<int>("mtu"));
 *
 * Views of a temporary owner would dangle and do not compile.
 */
class elements {
public:
    elements() = default;
    explicit elements(xmlNode *list) : list_(list), first_(econf_node_find(list, nullptr)) {}
    elements(elements &&other) noexcept
        : list_(std::exchange(other.list_, nullptr)), first_(std::exchange(other.first_, node()))
    {
    }
    elements &operator=(elements &&other) noexcept
    {
        std::swap(list_, other.list_);
        std::swap(first_, other.first_);
        return *this;
    }
    elements(const elements &) = delete;
    elements &operator=(const elements &) = delete;
    ~elements() { econf_node_free_list(list_); }

    [[nodiscard]] explicit operator bool() const noexcept { return static_cast<bool>(first_); }
    [[nodiscard]] const node &operator*() const & { return first_; }
    [[nodiscard]] const node *operator->() const & { return &first_; }
    [[nodiscard]] nodes all() const & { return nodes(list_); }
    [[nodiscard]] nodes::iterator begin() const & { return all().begin(); }
    [[nodiscard]] nodes::iterator end() const & { return nodes::end(); }
    const node &operator*() const && = delete;
    const node *operator->() const && = delete;
    nodes all() const && = delete;

    [[nodiscard]] xmlNode *get() const noexcept { return list_; }
    /* Hands the list over, to whom econf_node_free_list() is then left. */
    [[nodiscard]] xmlNode *release() noexcept
    {
        first_ = node();
        return std::exchange(list_, nullptr);
    }

private:
    xmlNode *list_ = nullptr;
    node first_;
};

} // namespace confsvc

#if defined(__cpp_lib_ranges)
template <>
inline constexpr bool std::ranges::enable_view<confsvc::nodes> = true;
template <>
inline constexpr bool std::ranges::enable_borrowed_range<confsvc::nodes> = true;
#endif

#endif
