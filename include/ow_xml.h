/* ow_xml.h: a tolerant reader for small XML-like documents (one element tree of tags and
 * text), a depth-first lookup of a tag's text, a printer and the release of a tree.
 *
 * Conventions:
 *  1. This is a single-pass scanner, not a conforming XML parser: attributes in the text are
 *     skipped, there are no entities, comments, processing instructions or CDATA sections,
 *     and a close tag's name is not compared with its open tag's. Malformed input never
 *     fails: it yields whatever tree the scan built. Bytes that are neither printable ASCII
 *     nor white space are ignored.
 *  2. A tree owns every record and string in it and is released as a whole with
 *     ow_xml_destroy_node. Lists (attributes, children) are chains of the library's list
 *     entry record (data, size, next) whose data are the records themselves.
 *  3. Nothing recurses on the document's nesting: reading, searching, printing and releasing
 *     a tree use heap memory in proportion to its depth, never the call stack.
 *  4. Failures write one ERROR line (ow_log.h): EINVAL for refused arguments, ENOMEM for
 *     allocation failures (then nothing built so far survives). Steps are narrated as DEBUG
 *     lines.
 */
#ifndef OW_XML_H
#define OW_XML_H

#include <stdbool.h>
#include <stdint.h>

#include "ow_export.h"
#include "ow_list.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ow_xml_attribute {
    char* label; /* owned */
    char* value; /* owned, or NULL */
} ow_xml_attribute;

typedef struct ow_xml_node {
    char* name;                 /* owned tag name, or NULL */
    char* data;                 /* owned element text, or NULL */
    struct ow_list* attributes; /* ow_xml_attribute records, in order of addition */
    struct ow_list* children;   /* ow_xml_node records, in document order */
} ow_xml_node;

/* Reads the first element of text into a new tree (free with ow_xml_destroy_node), or NULL
 * when text is NULL or empty, holds no "<" that opens an element, or on allocation failure.
 * When end is not NULL and the element is closed, *end receives the position of the ">"
 * that closes it. An element's data runs from the first non-blank character of its content
 * to the "<" of its own close tag, so text before a child also takes in the child's markup.
 * A document that ends inside elements yields the elements opened so far. parent is unused. */
OW_API ow_xml_node* ow_xml_string_to_node(const char* text, const char** end, ow_xml_node* parent);
/* The data of the first node, depth first, whose name equals name without regard to case
 * and which has data; borrowed from the tree. NULL when none matches, or (EINVAL) when node
 * is NULL or name is NULL or empty. */
OW_API const char* ow_xml_retrieve_key_value(const ow_xml_node* node, const char* name);
/* Parses "label=value" (up to end, or to the NUL when end is NULL) into an attribute
 * appended to node, white space simplified in both parts; no "=" or nothing after it gives
 * an attribute without value. False (logged) for a NULL node or text, an empty text, an
 * empty label ("Corrupt data - attribute string must have a label") or allocation failure. */
OW_API bool ow_xml_add_node_attribute(ow_xml_node* node, const char* text, const char* end);
/* Releases node with everything below it; NULL is a no-op (DEBUG line). */
OW_API void ow_xml_destroy_node(ow_xml_node* node);
/* Releases one attribute record; NULL is a no-op (DEBUG line). */
OW_API void ow_xml_destroy_attribute(ow_xml_attribute* attribute);
/* Prints node and its children on standard output, each level indented by one more tab
 * than depth. NULL prints nothing. */
OW_API void ow_xml_print_node(const ow_xml_node* node, uint8_t depth);

#ifdef __cplusplus
}
#endif

#endif /* OW_XML_H */
