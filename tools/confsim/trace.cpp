// See trace.h. A value is masked where it stands on one line right between its tags, so line breaks
// inside of texts are shown as spaces, and CDATA sections as texts.
#include "trace.h"

#include "conf_debug.h"
#include "xml.h"

#include <algorithm>

namespace confsim {

namespace {

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

} // namespace

void tracer::frame(const char *direction, const std::string &peer, const xmlNode *message,
                   std::size_t size) const
{
    if (!enabled_) {
        return;
    }
    const std::string headline = direction + peer + ", " + std::to_string(size) + " bytes";
    if (message == nullptr) {
        print(headline + ", not well-formed", "");
        return;
    }
    const xml::node_ptr copy = xml::copy(message);
    make_plain(copy.get());
    print(headline, xml::print(copy.get()));
}

void tracer::notification(const std::string &text) const
{
    if (enabled_) {
        std::string line = text;
        std::replace(line.begin(), line.end(), '\n', ' ');
        print("<-- notification, " + std::to_string(text.size()) + " bytes", line);
    }
}

void tracer::print(const std::string &headline, std::string body) const
{
    REG_RemarkKeyInfo(body.data(), static_cast<int>(body.size()));
    std::string lines = headline;
    for (std::size_t begin = 0; begin < body.size();) {
        const std::size_t end = std::min(body.find('\n', begin), body.size());
        lines += "\n    " + body.substr(begin, end - begin);
        begin = end + 1;
    }
    out_.print(lines);
}

} // namespace confsim
