// Trees as text, byte for byte what xmlNodeDump() prints of them, but always well-formed.
//
// The text goes straight to its place, which grows as needed: there is neither a pass that measures
// it nor a copy of it.
//
// Relies on xml_chars.h, and on the byte buffer where that is the place.
#ifndef CONF_PLUGIN_XML_WRITE_H
#define CONF_PLUGIN_XML_WRITE_H

#include "conf_buffer.h"

#include <cstddef>
#include <libxml/tree.h>

enum class printed {
    whole,
    no_room,       // memory ran out, or the text is longer than an int can tell
    not_printable, // no text, or one that would not be well-formed
};

// What becomes of bytes that are not the encoding of a character: the whole text is refused, or
// each of them becomes U+FFFD. A control character that XML cannot hold is a space in any case, as
// readers of messages take it.
enum class odd_bytes { refused, replaced };

// A text in memory of its own, which is wiped before it is freed.
struct text_block {
    char *bytes = nullptr;
    std::size_t size = 0;

    text_block() = default;
    ~text_block();
    text_block(const text_block &) = delete;
    text_block &operator=(const text_block &) = delete;
};

// Not printable are a node that cannot stand in an element, a name that is none, a comment or an
// instruction that would end early, a reference to an entity that XML does not know by itself, and
// a tree whose links contradict each other.
//
// The text goes behind the data of *buffer, or into an empty block. Anything but `whole` leaves the
// data as they were, though the buffer may have grown.
[[nodiscard]] printed print_node(conf_buffer_t **buffer, const xmlNode *node, odd_bytes odd);
[[nodiscard]] printed print_node(text_block *block, const xmlNode *node, odd_bytes odd);

#endif
