// Conversions of paths and the removal of quotes, against the plainest implementation of each.
#include "conf_plugin/plugin_internal.h"
#include "fuzz.h"

#include <optional>
#include <regex>
#include <utility>

namespace {

std::string standard_form(bool is_schema, const std::string &path)
{
    std::string out;
    std::string source;               // of the current node, up to here
    std::size_t begin = 0;            // of the current node, in the output
    std::optional<std::string> space; // the current namespace
    bool is_key = false;
    for (const char c : path) {
        if (c == '[' || c == ']' || is_key) {
            is_key = c == '[' || (is_key && c != ']');
            out.append(is_schema ? 0 : 1, c);
            source.append(source.empty() ? 0 : 1, c);
        } else if (c == '/' && (source.empty() || space)) {
            out += c;
            source.clear();
        } else if (c == '/') {
            space = out.substr(begin);
            out += ':';
            source += c;
        } else if (c == ':' && source.empty()) {
            continue;
        } else if (c == ':') {
            const bool is_known = space == source;
            space = is_known ? space : out.substr(begin);
            out = is_known ? out.substr(0, begin) : out + ':';
            source += c;
        } else {
            out += out.empty() ? "/" : "";
            begin = source.empty() ? out.size() : begin;
            out += c;
            source += c;
        }
    }
    return out.size() > 1 && out.back() == '/' ? out.substr(0, out.size() - 1) : out;
}

std::string standard_to_database(const std::string &path)
{
    std::string made = standard_form(false, path);
    const std::size_t colon = made.starts_with(':') ? 0 : made.find(':', 1);
    return colon == std::string::npos ? made : made.replace(colon, 1, "/");
}

// Without the quotes around key values that end right behind them and hold nothing special, where
// no other quotes are open.
std::string without_quotes(const std::string &text)
{
    static const std::regex value_or_others(
        "(=)\"([^\",\\]\\\\]*)\"(?=[\\],])|(\\\\[\\\\\"]|\"(?:\\\\[\\\\\"]|[^\"])*\"?)");
    return std::regex_replace(text, value_or_others, "$1$2$3");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    std::string path;
    while (!in.ended()) {
        path += in.ConsumeBool() ? in.text(40) : in.path();
    }
    path = path.c_str();
    // The plain ways take more than linear time.
    const std::string seen = path.size() > 1000 ? "" : path;
    char *bare = strdup(path.c_str());
    MUST(datastore_path_rm_quotes(bare) == bare);
    const std::size_t end = std::strlen(bare);
    MUST(std::all_of(bare + end, bare + path.size(), [](char c) { return c == '\0'; }), path);
    const std::pair<char *, std::string> made[] = {
        {plugin_path_schema2std(path.c_str()), standard_form(true, seen)},
        {plugin_path_data2std(path.c_str()), standard_form(false, seen)},
        {plugin_path_std2db(path.c_str()), standard_to_database(seen)},
        {bare, without_quotes(seen)}};
    for (const auto &[given, plain] : made) {
        MUST(given != nullptr && (seen != path || given == plain), path, plain);
        free(given);
    }
    return 0;
}
