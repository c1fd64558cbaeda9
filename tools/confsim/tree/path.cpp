// See path.h. Keys are taken out before the library normalises the rest, because their values may
// hold any character.
#include "tree/path.h"

#include "conf_plugin.h"
#include "failure.h"
#include "tree/xml.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace confsim {

namespace {

// Every walk through a tree is recursive; no schema comes near this.
constexpr std::size_t most_steps = 100;

// Parsers of XML refuse very long names.
constexpr std::size_t longest_name = 1000;

bool is_name(const std::string &text)
{
    const auto *chars = reinterpret_cast<const xmlChar *>(text.c_str());
    return text.size() <= longest_name && xmlValidateNCName(chars, 0) == 0;
}

// Reads one path from left to right.
class reader {
public:
    explicit reader(const std::string &text) : text_(text) {}

    path read()
    {
        if (!xml::can_hold(text_)) {
            complain("it holds characters that XML cannot hold");
        }
        std::string bare;
        std::vector<std::vector<predicate>> keys;
        while (at_ < text_.size()) {
            const std::string segment = take_until("/[");
            bare += "/" + segment;
            keys.push_back(read_keys());
            if (at_ < text_.size() && text_[at_++] != '/') {
                complain("expected / behind the keys");
            }
            if (segment.empty() && keys.size() == 1) { // the leading slash
                bare.clear();
                keys.clear();
            }
            if (keys.size() > most_steps) {
                complain("it has too many nodes");
            }
        }
        return join(bare, keys);
    }

private:
    [[noreturn]] void complain(const std::string &what) const
    {
        throw failure("bad path " + text_ + ": " + what);
    }

    std::string take_until(const char *ends)
    {
        const std::size_t end = std::min(text_.find_first_of(ends, at_), text_.size());
        std::string taken = text_.substr(at_, end - at_);
        at_ = end;
        return taken;
    }

    // All of [a="1"][b='2'], [a="1",b="2"], [a=1] and [3] that stands here.
    std::vector<predicate> read_keys()
    {
        std::vector<predicate> keys;
        while (at_ < text_.size() && text_[at_] == '[') {
            do {
                ++at_; // [ or ,
                keys.push_back(read_key());
            } while (at_ < text_.size() && text_[at_] == ',');
            if (at_ == text_.size() || text_[at_++] != ']') {
                complain("a key has no ]");
            }
        }
        return keys;
    }

    predicate read_key()
    {
        std::string name = take_until("=],");
        if (at_ == text_.size() || text_[at_] != '=') {
            return {"", name};
        }
        ++at_;
        const std::size_t prefix = name.find(':');
        if (prefix != std::string::npos) {
            name.erase(0, prefix + 1);
        }
        if (name != "." && !is_name(name)) {
            complain("a key has no name that XML allows");
        }
        return {name, read_value()};
    }

    std::string read_value()
    {
        const char quote = at_ < text_.size() ? text_[at_] : '\0';
        if (quote != '"' && quote != '\'') {
            return take_until(",]");
        }
        std::string value;
        for (++at_; at_ < text_.size() && text_[at_] != quote; ++at_) {
            if (quote == '"' && text_[at_] == '\\' && at_ + 1 < text_.size()) {
                ++at_;
            }
            value += text_[at_];
        }
        if (at_ == text_.size()) {
            complain("a key value has no closing quote");
        }
        ++at_;
        return value;
    }

    // The library writes the module as a prefix wherever it changes; a module that stood as first
    // segment has become the prefix of the second.
    path join(const std::string &bare, std::vector<std::vector<predicate>> &keys) const
    {
        const std::unique_ptr<char, decltype(&std::free)> normal(plugin_path_data2std(bare.c_str()),
                                                                 &std::free);
        const std::string standard = normal ? normal.get() : "";
        path steps;
        for (std::size_t begin = 1; begin < standard.size();) {
            const std::size_t end = std::min(standard.find('/', begin), standard.size());
            const std::string node = standard.substr(begin, end - begin);
            const std::size_t colon = node.find(':');
            const bool prefixed = colon != std::string::npos;
            if (!prefixed && steps.empty()) {
                complain("it names no node of a module, as /module:node does");
            }
            steps.push_back({prefixed ? node.substr(0, colon) : steps.back().module,
                             prefixed ? node.substr(colon + 1) : node,
                             {}});
            if (!is_name(steps.back().name) || !is_name(steps.back().module)) {
                complain("a node has no name that XML allows");
            }
            begin = end + 1;
        }
        const std::size_t module_segments = keys.size() > steps.size() ? 1 : 0;
        if (steps.empty() || keys.size() != steps.size() + module_segments) {
            complain("it names no node");
        }
        for (std::size_t i = 0; i < steps.size(); ++i) {
            steps[i].keys = std::move(keys[i + module_segments]);
        }
        return steps;
    }

    const std::string &text_;
    std::size_t at_ = 0;
};

std::string quoted(const std::string &value)
{
    std::string text = "\"";
    for (const char c : value) {
        if (c == '"' || c == '\\') {
            text += '\\';
        }
        text += c;
    }
    return text + '"';
}

} // namespace

path parse_path(const std::string &text)
{
    return reader(text).read();
}

std::string to_text(const path &where)
{
    std::string text;
    const std::string *module = nullptr;
    for (const step &each : where) {
        text += '/';
        if (module == nullptr || *module != each.module) {
            text += each.module + ":";
        }
        module = &each.module;
        text += each.name;
        for (const predicate &key : each.keys) {
            text += key.name.empty() ? "[" + key.value + "]"
                                     : "[" + key.name + "=" + quoted(key.value) + "]";
        }
    }
    return text;
}

bool same_schema(const step &left, const step &right)
{
    return left.name == right.name && left.module == right.module;
}

bool leads_to(const path &prefix, const path &where)
{
    return prefix.size() <= where.size() &&
           std::equal(prefix.begin(), prefix.end(), where.begin(), same_schema);
}

} // namespace confsim
