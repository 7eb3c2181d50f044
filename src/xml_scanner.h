// Where one stanza of a stream ends and the next begins, told from the bytes as they come, however
// they were cut.
//
// For all that is well-formed (XML 1.0) without a document type the answer is that of a parser, also
// where the tree parser of this program will refuse the stanza: a stanza that is refused must not
// lend a part of itself to its neighbours. Names may begin with any byte; values, comments,
// character data sections and processing instructions are passed over whole.
//
// Ownership: nothing is allocated. Threads: any thread; all state is in the caller's record.
#pragma once

#include "buffers.h"

// Follows a stream of bytes. Zeroed, it is at the start of a stream. The first two fields are the
// result; the rest belongs to the functions below.
struct XMLScanner {
  u64 stanzas_count;  // top-level elements completed since the start, and closings never opened
  u64 boundary;       // bytes fed up to the last one after which nothing was left open
  u64 bytes_count;    // bytes fed since the start
  u64 depth;          // elements open now
  u32 matched;        // leading bytes that agree with the name or the mark that is looked for
  u8 place;           // where in the text the next byte stands
  bool is_closing;    // the tag is a closing one
  u8 quote;           // the quote character that closes the value
  u8 previous;        // the byte before, inside a tag and outside of its values
};

// White space of XML: space, tab, line feed and carriage return.
bool is_xml_space (u8 c);
// Whether a tag's name that has begun goes on with `c`.
bool is_xml_name_char (u8 c);
// Takes the next bytes of the stream. Each byte is looked at once.
void xml_scanner_feed (XMLScanner *scanner, String bytes);
// The same, but no further than to the byte that ends a stanza. Returns what was not taken, a view
// over the end of `bytes`: `stanzas_count` tells whether a stanza ended.
String xml_scanner_feed_stanza (XMLScanner *scanner, String bytes);
// True while no tag, quoted value or element of a stanza is left open. The declaration and a
// "stream:stream" outside of all stanzas are no such elements, but while only a part of their tag
// is there, that tag is open. Text outside of all elements does not count.
bool xml_scanner_is_complete (const XMLScanner *scanner);
