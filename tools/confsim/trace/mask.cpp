// See mask.h. The library masks a value where it stands on one line right between its tags, so line
// breaks inside of texts are shown as spaces, and CDATA sections as texts.
#include "trace/mask.h"

#include "commands/words.h"
#include "conf_debug.h"
#include "failure.h"
#include "tree/path.h"
#include "tree/xml.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace confsim {

namespace {

constexpr const char *hidden = "******";

void make_plain(const xmlNode *node)
{
    for (xmlNode *part = node->children; part != nullptr; part = part->next) {
        if (part->type == XML_ELEMENT_NODE) {
            make_plain(part);
        } else if (part->content != nullptr && part->type != XML_ENTITY_REF_NODE) {
            char *text = reinterpret_cast<char *>(part->content);
            std::replace(text, text + std::char_traits<char>::length(text), '\n', ' ');
            if (part->type == XML_CDATA_SECTION_NODE) {
                part->type = XML_TEXT_NODE;
            }
        }
    }
}

// Whether the trace would hide a value of the node of this name.
bool is_name_of_secret(const std::string &name)
{
    const std::string shown = "<" + name + ">value</" + name + ">";
    return masked(shown) != shown;
}

// Of the node that a path leads to.
bool is_secret(const std::string &where)
{
    return is_name_of_secret(parse_path(where).back().name);
}

} // namespace

std::string masked(std::string text)
{
    REG_RemarkKeyInfo(text.data(), static_cast<int>(text.size()));
    return text;
}

std::string masked(const xmlNode *node)
{
    const xml::node_ptr copy = xml::copy(node);
    make_plain(copy.get());
    return masked(xml::print(copy.get()));
}

std::string masked_as_given(std::string text)
{
    for (const std::string mark : {"<![CDATA[", "]]>"}) {
        for (std::size_t at = 0; (at = text.find(mark, at)) != std::string::npos;) {
            text.erase(at, mark.size());
        }
    }
    std::replace(text.begin(), text.end(), '\n', ' ');
    return masked(std::move(text));
}

std::string masked_command(const std::string &line)
{
    try {
        std::vector<std::string> split = split_words(line);
        const auto set = std::find(split.begin(), split.end(), "set"); // behind fail and try, too
        if (split.end() - set >= 3 && is_secret(set[1])) {
            split.erase(set + 2, split.end());
            return join_words(split, 0) + ' ' + hidden;
        }
    } catch (const failure &) { // the command will fail, too; what it holds may be a secret
        return line.substr(0, line.find(' ', line.find_first_not_of(' ')) + 1) + hidden;
    }
    return masked_as_given(line);
}

bool may_carry_secret(const std::string &line)
{
    std::string names = line;
    std::replace_if(
        names.begin(), names.end(), [](char c) { return c == '<' || c == '>' || c == '\n'; }, ' ');
    return masked_command(line) != line || is_name_of_secret(names);
}

} // namespace confsim
