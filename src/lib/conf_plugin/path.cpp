// The forms of a datastore path: conversions between them, and the removal of the quoting around
// key values. Everything here is one pass over the text.
#include "plugin_internal.h"
#include "support/log.h"
#include "support/owners.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

// Writes a path in standard form, character by character. A node's name is written as it comes; the
// prefix in front of it is taken back when it repeats the current namespace.
class standard_form {
public:
    standard_form(bool is_schema, char *output) : is_schema_(is_schema), out_(output) {}

    void put(const char *at)
    {
        const char c = *at;
        if (c == '[' || c == ']') {
            is_key_ = c == '[';
            put_key(c);
        } else if (is_key_) {
            put_key(c);
        } else if (c == '/') {
            end_segment();
        } else if (c == ':') {
            end_prefix(at);
        } else {
            put_name(at);
        }
    }

    void finish()
    {
        if (length_ > 1 && out_[length_ - 1] == '/') {
            --length_;
        }
        out_[length_] = '\0';
    }

private:
    // Key predicates pass through unchanged; the schema form has none.
    void put_key(char c)
    {
        if (!is_schema_) {
            append(c);
        }
    }

    void end_segment()
    {
        if (node_ == nullptr) {
            append('/');
        } else if (has_namespace()) {
            append('/');
            node_ = nullptr;
        } else { // the first segment of a path without prefixes is the module
            take_namespace();
            append(':');
        }
    }

    void end_prefix(const char *at)
    {
        if (node_ == nullptr) {
            return;
        }
        const std::string_view prefix(node_, static_cast<std::size_t>(at - node_));
        if (has_namespace() && prefix == current_namespace()) {
            length_ = node_out_;
        } else {
            take_namespace();
            append(':');
        }
    }

    void put_name(const char *at)
    {
        if (length_ == 0) {
            append('/');
        }
        if (node_ == nullptr) {
            node_ = at;
            node_out_ = length_;
        }
        append(*at);
    }

    void append(char c) { out_[length_++] = c; }

    // What has been written of the node so far becomes the current namespace.
    void take_namespace()
    {
        namespace_ = node_out_;
        namespace_length_ = length_ - node_out_;
        namespace_known_ = true;
    }

    [[nodiscard]] bool has_namespace() const { return namespace_known_; }
    [[nodiscard]] std::string_view current_namespace() const
    {
        return {out_ + namespace_, namespace_length_};
    }

    bool is_schema_;
    bool is_key_ = false;
    char *out_;
    std::size_t length_ = 0;
    const char *node_ = nullptr; // where the current node begins in the source
    std::size_t node_out_ = 0;   // and in the output
    bool namespace_known_ = false;
    std::size_t namespace_ = 0;
    std::size_t namespace_length_ = 0;
};

char *_format_path(bool is_schema, const char *path)
{
    if (path == nullptr) {
        return nullptr;
    }
    // Longer than the source by a leading "/" at the most.
    support::heap_text output(static_cast<char *>(malloc(std::strlen(path) + 2)));
    if (!output) {
        LOG_FILE_ERROR("Duplicated path %s failed.", path);
        return nullptr;
    }
    standard_form form(is_schema, output.get());
    for (; *path != '\0'; ++path) {
        form.put(path);
    }
    form.finish();
    return output.release();
}

// The end of a quoted key value that means the same without its quotes: the closing quote, when the
// value holds nothing that the quotes protect and the key ends right behind it; else null.
char *closing_quote(char *opening)
{
    char *end = opening + 1 + std::strcspn(opening + 1, "\"\\,]");
    return *end == '"' && (end[1] == ']' || end[1] == ',') ? end : nullptr;
}

} // namespace

char *plugin_path_schema2std(const char *schema_path)
{
    return _format_path(true, schema_path);
}

char *plugin_path_data2std(const char *data_path)
{
    return _format_path(false, data_path);
}

char *plugin_path_std2db(const char *data_path)
{
    char *path = _format_path(false, data_path);
    if (path == nullptr || path[0] == '\0') {
        return path;
    }
    char *colon = std::strchr(path, ':'); // never the first character
    if (colon != nullptr) {
        *colon = '/';
    }
    return path;
}

char *datastore_path_rm_quotes(char *src)
{
    if (src == nullptr) {
        return nullptr;
    }
    const char *const end = src + std::strlen(src);
    bool in_quotes = false;
    bool escaped = false; // an odd number of backslashes stands directly in front
    char *out = src;
    for (char *in = src; *in != '\0';) {
        char *closing = *in == '=' && in[1] == '"' && !in_quotes ? closing_quote(in + 1) : nullptr;
        if (closing != nullptr) {
            *out++ = '=';
            const auto length = static_cast<std::size_t>(closing - in - 2);
            std::memmove(out, in + 2, length);
            out += length;
            *out++ = closing[1];
            in = closing + 2;
            escaped = false;
            continue;
        }
        if (*in == '"' && !escaped) {
            in_quotes = !in_quotes;
        }
        escaped = *in == '\\' && !escaped;
        *out++ = *in++;
    }
    std::memset(out, 0, static_cast<std::size_t>(end - out));
    return src;
}
