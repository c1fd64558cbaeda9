// A reader of plain documents, many times as fast as libxml2 and with the same result.
//
// Plain are elements with ASCII names, attributes, namespaces and text, with the predefined
// entities and character references, as nearly all messages are. Whatever else a document holds, be
// it legal or not, is left to libxml2, which alone decides what is well-formed.
//
// Relies on libxml2's memory functions and on its way to free a tree.
#ifndef CONF_PLUGIN_XML_READ_H
#define CONF_PLUGIN_XML_READ_H

#include <libxml/tree.h>

#include <span>

enum class read_outcome { made, left, no_memory };

struct read_result {
    xmlNode *root; // null unless the outcome is `made`
    read_outcome outcome;
};

// Reads a document that has a zero byte behind it. The tree is the one that parse_body() would get
// from libxml2: it belongs to no document, blanks between tags are missing, and every block comes
// from libxml2's allocator. Nothing of a document that is left remains in memory.
[[nodiscard]] read_result read_plain(std::span<const char> document);

#endif
