// Every call of libxml2 that builds, parses or wipes a document, behind functions that
// cannot hand out half a result.
//
// libxml2 reports exhausted memory to its error handler but often returns a tree that merely lacks
// some nodes, or a dump that ends early. Each function here watches the handler for the time of its
// calls (see libxml_watch), treats such a result as failure, and gives the host's handler back.
// While it watches, libxml2 prints nothing: a malformed body may hold secrets.
//
// Relies on libxml2 and on support/ only.
#ifndef CONF_PLUGIN_XML_H
#define CONF_PLUGIN_XML_H

#include "support/owners.h"

#include <libxml/tree.h>
#include <libxml/xmlerror.h>

#include <span>

// Takes over libxml2's error reports of this thread for its lifetime.
class libxml_watch {
public:
    libxml_watch();
    ~libxml_watch();
    libxml_watch(const libxml_watch &) = delete;
    libxml_watch &operator=(const libxml_watch &) = delete;

    // Whether libxml2 ran out of memory since the watch began.
    [[nodiscard]] bool out_of_memory() const { return out_of_memory_; }

private:
    xmlStructuredErrorFunc host_handler_;
    void *host_context_;
    bool out_of_memory_ = false;
};

// Frees a tree or a list after wiping its texts.
void wipe_and_free(xmlNode *node);
void wipe_and_free_list(xmlNode *node);

using node_ptr = std::unique_ptr<xmlNode, support::released_by<xmlFreeNode>>;
using wiped_node = std::unique_ptr<xmlNode, support::released_by<wipe_and_free>>;
using wiped_list = std::unique_ptr<xmlNode, support::released_by<wipe_and_free_list>>;
using node_list = std::unique_ptr<xmlNode, support::released_by<xmlFreeNodeList>>;

// Overwrites the text of `node`, of its following siblings and of everything below them with zero
// bytes. Attributes, CDATA sections and comments stay, and so does text that a dictionary shares
// among documents. Null is ignored.
void clean_xml_content(xmlNode *node);

// The same with attributes, CDATA sections, comments and processing instructions.
void clean_everything(xmlNode *node);

// Whether the node is an element of that name, whatever its namespace.
[[nodiscard]] bool is_element(const xmlNode *node, const char *name);

// The first child element of that name; null when there is none.
[[nodiscard]] xmlNode *child_element(const xmlNode *parent, const char *name);

// A new element without content; null when it cannot be made.
[[nodiscard]] xmlNode *new_element(const char *name);

// Adds a child element and returns it; null when it cannot be made whole. A null and an empty text
// both give an empty element (<name/>).
[[nodiscard]] xmlNode *add_element(xmlNode *parent, const char *name);
[[nodiscard]] xmlNode *add_text(xmlNode *parent, const char *name, const char *text);
[[nodiscard]] xmlNode *add_number(xmlNode *parent, const char *name, long long number);
// The text is taken as XML content: entities in it are resolved, a bare "&" empties it.
[[nodiscard]] xmlNode *add_raw(xmlNode *parent, const char *name, const char *content);

// Declares a namespace on an element, with a prefix or, for null, as the default. The element
// itself is not put into it.
[[nodiscard]] xmlNs *declare_namespace(xmlNode *element, const char *prefix, const char *name);

[[nodiscard]] bool set_attribute(xmlNode *element, const char *name, const char *value);

// Makes a list the children of `parent`, which has none and owns them from then on. On failure the
// list stays the caller's.
[[nodiscard]] bool add_children(xmlNode *parent, xmlNode *list);

// Deep copies of a node alone, and of a list of siblings; null when they cannot be made whole.
[[nodiscard]] xmlNode *copy_node(xmlNode *node);
[[nodiscard]] xmlNode *copy_list(xmlNode *list);

// Takes the children out of `parent`, whose tree is freed next: detached, or copied when they use
// namespaces that are declared above them. Null when there are none, and when the copy cannot be
// made whole.
[[nodiscard]] xmlNode *take_children(xmlNode *parent);

// Parses the body of a message where it stands; the byte behind it is in use meanwhile, and its own
// again afterwards. Control characters that XML cannot hold count as blanks, and may be
// overwritten. Returns a tree that belongs to no document, or null. `failed_copy` tells a body that
// is not well-formed from one whose tree could not be taken out of its document.
struct parse_result {
    xmlNode *root;
    bool failed_copy;
};
[[nodiscard]] parse_result parse_body(std::span<char> body);

#endif
