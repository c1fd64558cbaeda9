// Texts and the values of attributes, see xml_reader.h.
//
// Text is cut into chunks where libxml2 cuts it, since it decides chunk by chunk whether blanks are
// dropped, and gives a text the line on which its first chunk ends.
#include "support/bounded.h"
#include "xml_reader.h"

#include <libxml/parserInternals.h>

namespace {

constexpr std::size_t long_chunk = 300; // where libxml2 cuts a text that it cannot take as it is

} // namespace

namespace xml {

// Text between quotes, in memory of its own. Plain is what stands for itself.
xmlChar *reader::value(bool *is_plain)
{
    const byte quote = *at_;
    if (quote != '"' && quote != '\'') {
        return nullptr;
    }
    const byte *const from = ++at_;
    while (is(*at_, is_plain_value) && *at_ != quote) {
        ++at_;
    }
    *is_plain = *at_ == quote;
    if (*is_plain) {
        const std::string_view text = view(from, at_++);
        return text.size() > longest_text ? nullptr : copy(text);
    }
    const auto *const closing =
        static_cast<const byte *>(std::memchr(at_, quote, static_cast<std::size_t>(end_ - at_)));
    const auto length = static_cast<std::size_t>(closing - from);
    xmlChar *made = closing == nullptr || length > longest_text ? nullptr : room_for(length);
    if (made == nullptr) {
        return nullptr;
    }
    const auto plain = static_cast<std::size_t>(at_ - from);
    std::memcpy(made, from, plain);
    byte *end = made + plain;
    const bool is_sound = decode_value(closing, &end);
    *end = 0;
    if (!is_sound) {
        support::wipe(made, static_cast<std::size_t>(end - made));
        xmlFree(made);
        return nullptr;
    }
    ++at_;
    return made;
}

bool reader::decode_value(const byte *closing, byte **to)
{
    while (at_ != closing) {
        if (*at_ == '&') {
            if (!reference(to)) {
                return false;
            }
        } else if (is(*at_, is_blank)) {
            at_ += at_[0] == '\r' && at_[1] == '\n' ? 1 : 0;
            line_ += *at_ == '\n' ? 1 : 0;
            *(*to)++ = ' ';
            ++at_;
        } else {
            const std::size_t length = *at_ == '<' ? 0 : xml::decode(at_).length;
            if (length == 0) {
                return false;
            }
            std::memcpy(*to, at_, length);
            *to += length;
            at_ += length;
        }
    }
    return true;
}

// Never writes more bytes than the reference has.
bool reader::reference(byte **to)
{
    const character found = xml::reference(at_);
    at_ += found.length;
    if (found.length == 0) {
        return false;
    }
    *to = encode(found.code, *to);
    return true;
}

// ---- text --------------------------------------------------------------------------------------

// A text that is decoded never needs more room than up to the tag at its end.
bool reader::begin_text(const byte *from)
{
    if (text_ != nullptr) {
        return true;
    }
    text_ = add_node(XML_TEXT_NODE);
    if (text_ == nullptr) {
        return false;
    }
    text_->name = xmlStringText;
    text_->line = line();
    text_->content = room_for(static_cast<std::size_t>(tag_ - from));
    text_end_ = text_->content;
    return text_end_ != nullptr;
}

// Whether libxml2 takes a chunk for blanks between tags. A place that is not next to a text, nor in
// an element that begins with one, nor the only content. An element in which a chunk that it looked
// at was text keeps all blanks that follow, which is noted in `extra` until the element is closed.
bool reader::is_dropped(const byte *from, const byte *to) const
{
    if (open_->extra != 0 || text_ != nullptr || (*at_ != '<' && *at_ != '\r')) {
        return false;
    }
    if (open_->children == nullptr ? *at_ == '<' && at_[1] == '/'
                                   : open_->children->type == XML_TEXT_NODE) {
        return false;
    }
    return std::all_of(from, to, [](byte c) { return is(c, is_blank); });
}

// Of text that libxml2 takes as it is, it looks only at what begins with a blank.
bool reader::take_chunk(const byte *from, const byte *to, bool is_cut)
{
    if (is_cut || is(*from, is_blank)) {
        if (is_dropped(from, to)) {
            return true;
        }
        open_->extra = 1;
    }
    if (!begin_text(from)) {
        return false;
    }
    if (!is_cut) {
        const auto length = static_cast<std::size_t>(to - from);
        std::memcpy(text_end_, from, length);
        text_end_ += length;
    } else {
        for (; from != to; ++from) {
            if (*from != '\r') {
                *text_end_++ = *from;
            } else if (from[1] != '\n') {
                *text_end_++ = '\n';
            }
        }
    }
    *text_end_ = 0;
    return true;
}

bool reader::text()
{
    tag_ = static_cast<const byte *>(std::memchr(at_, '<', static_cast<std::size_t>(end_ - at_)));
    if (tag_ == nullptr || static_cast<std::size_t>(tag_ - at_) > longest_text) {
        return false;
    }
    text_ = nullptr;
    while (at_ != tag_) {
        if (*at_ != '&') {
            if (!plain_chunks()) {
                return false;
            }
            continue;
        }
        if (!begin_text(at_) || !reference(&text_end_)) {
            return false;
        }
        *text_end_ = 0;
    }
    return true;
}

// Text that stands for itself, up to a tag, a reference, a carriage return or what is not ASCII.
bool reader::plain_chunks()
{
    for (;;) {
        const byte *const from = at_;
        const byte *to = from; // no member, which would be stored for each byte
        for (;;) {
            while (is(*to, is_plain_text)) {
                ++to;
            }
            if (*to == '\n') {
                ++line_;
            } else if (*to != ']') {
                break;
            } else if (to[1] == ']' && to[2] == '>') {
                return false;
            }
            ++to;
        }
        at_ = to;
        if (at_ != from && !take_chunk(from, at_, false)) {
            return false;
        }
        if (*at_ == '<' || *at_ == '&') {
            return true;
        }
        if (at_[0] != '\r' || at_[1] != '\n') {
            return cut_chunks();
        }
        ++at_;
        const byte next = at_[1];
        if (next >= 0x80 || next == '\r') {
            return cut_chunks();
        }
    }
}

// All that is left of the text up to a tag or reference.
bool reader::cut_chunks()
{
    while (*at_ != '<' && *at_ != '&') {
        const byte *const from = at_;
        const byte *to = nullptr;
        std::size_t length = 0;
        do {
            const std::size_t bytes = xml::decode(at_).length;
            if (bytes == 0 || (at_[0] == ']' && at_[1] == ']' && at_[2] == '>')) {
                return false;
            }
            line_ += *at_ == '\n' ? 1 : 0;
            length += bytes;
            at_ += bytes;
            to = at_;
            at_ += at_[0] == '\r' && at_[1] == '\n' ? 1 : 0;
        } while (length < long_chunk && *at_ != '<' && *at_ != '&');
        if (!take_chunk(from, to, true)) {
            return false;
        }
    }
    return true;
}

} // namespace xml
