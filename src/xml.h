// The program's own XML reader: a tokenizer, a tree parser that builds its nodes inside a caller's
// arena, and the escaping pair through which every text of a user enters and leaves a stanza.
//
// Of XML it knows what servers and peers send: tags, attributes with quoted values, the "<?" ...
// "?>" declaration and text between tags; no comments, no CDATA, no namespaces ("stream:stream" is
// one name).
//
// Ownership: tokens, elements and attributes are views over the parsed text, and the nodes lie in
// the arena; text and arena must outlive the tree, and nothing of it is freed one by one. Only the
// `alloc_` functions return heap memory.
// Threads: any thread; nothing here keeps state between calls.
#pragma once

#include "buffers.h"

enum XMLTokenType : u32 {
  XML_TOKEN_UNKNOWN,              // one byte that begins no token; without data at the end of input
  XML_TOKEN_TAG_START,            // <
  XML_TOKEN_TAG_END,              // >
  XML_TOKEN_VOID_TAG_END,         // />
  XML_TOKEN_CLOSING_TAG_START,    // </
  XML_TOKEN_IDENTIFIER,           // a name
  XML_TOKEN_EQUALS,               // =
  XML_TOKEN_STRING,               // the bytes between two quotes of one kind
  XML_TOKEN_UNTERMINATED_STRING,  // the bytes after a quote that is never closed
  XML_TOKEN_DOCTYPE_TAG_START,    // <?
  XML_TOKEN_DOCTYPE_TAG_END,      // ?>
  XML_TOKEN_INNER_TEXT,           // text between tags; only the tree parser makes it
};

// Display names, indexed by `XMLTokenType`: the enumerator without its prefix.
extern const char *const XML_TOKEN_TYPE_STRINGS[12];

struct XMLToken {
  String text;  // view over the input; of a string the value without its quotes
  XMLTokenType type;
};

struct XMLAttribute {
  String name;         // view over the parsed text
  String value;        // view of what stands between the quotes, still escaped
  XMLAttribute *next;  // in document order, or none
};

// An element, or a text node: that has a `text` and no name, and is told by `text.size`.
struct XMLElement {
  String name;                   // view over the parsed text; empty in a text node
  bool is_doctype;               // the tag began with "<?"
  bool is_void;                  // the tag ended with "/>"
  String text;                   // view, still escaped; empty in an element
  XMLAttribute *attributes;      // first of the chain, in document order, or none
  XMLElement *children;          // first of the chain, in document order, or none
  XMLElement *parent;            // none at top level, in text nodes and in never opened elements
  XMLElement *next;              // next sibling, or none
  XMLAttribute *last_attribute;  // a hint for appending, read by the append functions only
  XMLElement *last_child;        // likewise
};

// ---- Tokenizer ----

// "a" to "z" and "A" to "Z".
bool is_ascii_alpha_char (u8 c);
// ASCII letters and digits, ":" and "-"; neither "_" nor "." nor bytes from 128 on.
bool is_xml_identifier_char (u8 c);
// Cuts one token off the front of `input`, leading spaces (byte 32 only) skipped, and returns what
// follows it. At the end of input the token is unknown and has no data. Never fails: what begins no
// token is an unknown token of one byte and leaves a line on standard output.
// Asserts "token_out".
String get_token (String input, XMLToken *token_out);

// ---- Tree ----

// Builds the tree of one received chunk in `memory`, which may start at any address. Returns the
// first top-level node; none when the chunk is empty or wrong, or the arena too small (one
// "Warning: " line on the console tells which). An imbalance is no failure: `unclosed_out` receives
// the innermost element that is still open, `unopened_out` the first of the closing tags that close
// nothing of this chunk; each may be null, and then what it would have received is told on the
// console. After a failure both are none. Time is linear in the text, and depth costs no stack.
XMLElement *parse_xml_tree (Buffer memory, String text, XMLElement **unclosed_out,
                            XMLElement **unopened_out);
// Both append at the end of the chain, in constant time for chains made by them. `parent` of the
// child is left as it is.
void xml_append_element (XMLElement *parent, XMLElement *child);
void xml_append_attribute (XMLElement *element, XMLAttribute *attribute);

// ---- Access ----

// The value of the first attribute of that name, still escaped, a view over the parsed text; empty
// and without data when there is none.
String get_xml_attribute (XMLElement *element, String name);
String get_xml_attribute (XMLElement *element, const char *name);
// The first child of that name, or none.
XMLElement *get_xml_child_by_name (XMLElement *element, const char *name);
// The first sibling of that name after `element`, or none.
XMLElement *get_xml_next_sibling_by_name (XMLElement *element, const char *name);

// ---- Escaping ----

// Appends `text` with the five characters that XML reserves written as entities. What does not fit
// is cut, inside an entity too: callers give enough room and check that some was left.
Buffer buffer_append_escaped_xml (Buffer buffer, String text);
// Undoes the five entities, one level of them. Heap, `dealloc_string`. Stops the program on any
// other entity and on a lone "&": asserts "end.size", "!find_char (entity, '&').size" and
// "!"Unhandled XML entity"". A text that came from the network is tested first, by the next
// function.
String alloc_unescape_xml_text (String text);
// True exactly when `alloc_unescape_xml_text` would not stop on the text.
bool is_xml_text_unescapable (String text);
// What the wire carries unchanged of a typed or pasted text, so that both sides hold the same: CR
// LF and CR become LF; what XML forbids is dropped (bytes below space save tab and LF, U+FFFE,
// U+FFFF), and so are spaces at the front, which the tree parser does not keep. Heap,
// `dealloc_string`.
String alloc_sendable_text (String text);
