/*
 * confsvc/basics.hpp - what the other headers of the C++ interface share: errors, results without
 * exceptions, texts that are wiped. See confsvc.hpp.
 */
#ifndef CONFSVC_BASICS_HPP
#define CONFSVC_BASICS_HPP

#include <cstddef>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

/* Whether the program has exceptions. Without them only the forms named try_... are there. */
#if defined(__cpp_exceptions)
#define CONFSVC_EXCEPTIONS 1
#else
#define CONFSVC_EXCEPTIONS 0
#endif

namespace confsvc {

/* What went wrong: a code other than 0, and what() for people. Copies never fail. */
class error : public std::runtime_error {
public:
    error(int code, const std::string &text) : std::runtime_error(text), code_(code) {}
    [[nodiscard]] int code() const noexcept { return code_; }

private:
    int code_;
};

/* What a handler throws, or returns, to refuse a request: code and text of the error reply. */
class refusal : public error {
public:
    using error::error;
};

/* Success, or an error. What a handler returns, unless it returns nothing. */
class [[nodiscard]] outcome {
public:
    outcome() = default;
    outcome(error why) : why_(std::move(why)) {} // NOLINT(google-explicit-constructor)

    [[nodiscard]] explicit operator bool() const noexcept { return !why_; }
    [[nodiscard]] const error &why() const { return *why_; } /* only of a failure */

private:
    std::optional<error> why_;
};

/* A value, or an error. */
template <typename type>
class [[nodiscard]] result {
public:
    result(type value) : content_(std::move(value)) {} // NOLINT(google-explicit-constructor)
    result(error why) : content_(std::move(why)) {}    // NOLINT(google-explicit-constructor)

    [[nodiscard]] explicit operator bool() const noexcept { return content_.index() == 0; }
    /* Only of a success. */
    [[nodiscard]] type &operator*() & { return *std::get_if<0>(&content_); }
    [[nodiscard]] const type &operator*() const & { return *std::get_if<0>(&content_); }
    [[nodiscard]] type &&operator*() && { return std::move(*std::get_if<0>(&content_)); }
    [[nodiscard]] type *operator->() { return std::get_if<0>(&content_); }
    [[nodiscard]] const type *operator->() const { return std::get_if<0>(&content_); }
    [[nodiscard]] const error &why() const { return *std::get_if<1>(&content_); } /* of a failure */

private:
    std::variant<type, error> content_;
};

/* A text for a C function: any text that ends with a zero byte. Lives no longer than that. */
class c_text {
public:
    c_text(const char *text) : text_(text) {}                // NOLINT(google-explicit-constructor)
    c_text(const std::string &text) : text_(text.c_str()) {} // NOLINT(google-explicit-constructor)
    [[nodiscard]] const char *get() const noexcept { return text_; }

private:
    const char *text_;
};

/* A copy of a text that is overwritten before its memory goes back, for passwords and keys. */
class secret {
public:
    secret() = default;
    explicit secret(std::string_view text) : bytes_(new char[text.size() + 1]), size_(text.size())
    {
        text.copy(bytes_, size_);
        bytes_[size_] = '\0';
    }
    secret(const secret &other) : secret(other.view()) {}
    secret(secret &&other) noexcept
        : bytes_(std::exchange(other.bytes_, nullptr)), size_(std::exchange(other.size_, 0))
    {
    }
    secret &operator=(secret other) noexcept
    {
        std::swap(bytes_, other.bytes_);
        std::swap(size_, other.size_);
        return *this;
    }
    ~secret()
    {
        if (bytes_ != nullptr) {
            explicit_bzero(bytes_, size_);
            delete[] bytes_;
        }
    }

    [[nodiscard]] std::string_view view() const noexcept { return {c_str(), size_}; }
    [[nodiscard]] const char *c_str() const noexcept { return bytes_ == nullptr ? "" : bytes_; }
    [[nodiscard]] bool empty() const noexcept { return size_ == 0; }

    friend bool operator==(const secret &left, const secret &right) noexcept
    {
        return left.view() == right.view();
    }
    friend bool operator!=(const secret &left, const secret &right) noexcept
    {
        return !(left == right);
    }

private:
    char *bytes_ = nullptr;
    std::size_t size_ = 0;
};

#if CONFSVC_EXCEPTIONS
/* The value of a result; throws the error of a failure. */
template <typename type>
type value_or_throw(result<type> given)
{
    if (!given) {
        throw refusal(given.why().code(), given.why().what());
    }
    return *std::move(given);
}

inline void throw_failure(const outcome &given)
{
    if (!given) {
        throw error(given.why());
    }
}
#endif

} // namespace confsvc

#endif
