// The few things that confsim does with libxml2 trees, with owners and with exceptions.
#ifndef CONFSIM_XML_H
#define CONFSIM_XML_H

#include <libxml/tree.h>

#include <memory>
#include <string>
#include <vector>

namespace confsim::xml {

struct deleter {
    void operator()(xmlNode *node) const { xmlFreeNode(node); }
    void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
using node_ptr = std::unique_ptr<xmlNode, deleter>;
using doc_ptr = std::unique_ptr<xmlDoc, deleter>;

// Parse a text or a file; failure names `origin`, the line and the cause.
[[nodiscard]] doc_ptr parse_text(const std::string &text, const std::string &origin);
[[nodiscard]] doc_ptr parse_file(const std::string &file);

// Throws the failure that parse_text() would. Makes no document, in less than half the time.
void check_text(const std::string &text, const std::string &origin);

// The bytes of the character that begins at a place of a text; 0 if it is no UTF-8, or XML cannot
// hold it, not even escaped.
[[nodiscard]] std::size_t character_length(const std::string &text, std::size_t at);

// Whether a text consists of such characters.
[[nodiscard]] bool can_hold(const std::string &text);

// The text with everything replaced, by U+FFFD, that cannot stand in XML.
[[nodiscard]] std::string printable(const std::string &text);

[[nodiscard]] node_ptr element(const char *name);
[[nodiscard]] node_ptr copy(const xmlNode *node);
// Takes a node out of its document, on which its name and its namespace still depend.
[[nodiscard]] node_ptr taken(xmlNode *node);
xmlNode *add(xmlNode *parent, const char *name, const std::string &text = "");
void add(xmlNode *parent, node_ptr child);

[[nodiscard]] const char *name(const xmlNode *node);

// Element children are what matters in every tree here; these skip everything else.
[[nodiscard]] xmlNode *first_element(const xmlNode *parent);
[[nodiscard]] xmlNode *next_element(const xmlNode *node);
[[nodiscard]] std::vector<const xmlNode *> elements(const xmlNode *parent);
[[nodiscard]] xmlNode *child(const xmlNode *parent, const char *name);

// Text directly inside of a node, without surrounding element children; blank text is empty.
[[nodiscard]] std::string text(const xmlNode *node);
[[nodiscard]] std::string child_text(const xmlNode *parent, const char *name);
[[nodiscard]] int child_number(const xmlNode *parent, const char *name);

// Adds a copy of an element, which takes the namespace of its new parent where it has none, and
// keeps the prefixes that it knows.
void add_inheriting(xmlNode *parent, const xmlNode *element);

// As print(), with the prefixes that the element knows declared in it, so it can stand alone.
[[nodiscard]] std::string print_alone(xmlNode *element);

// As indented lines, without a line break at the end.
[[nodiscard]] std::string print(xmlNode *node);

} // namespace confsim::xml

#endif
