// Where one stanza of a stream ends and the next begins, told from the bytes as they come, however
// they were cut.
//
// Ownership: nothing is allocated. Threads: any thread; all state is in the caller's record.
#pragma once

#include "buffers.h"

// Follows a stream of bytes and tells where stanzas end. Zeroed, it is at the start of a stream.
// The first two fields are the result; the rest belongs to the functions below.
struct XMLScanner {
  u64 stanzas_count;  // top-level elements completed since the start, and closings never opened
  u64 boundary;       // bytes fed up to the last one after which nothing was left open
  u64 bytes_count;    // bytes fed since the start
  u64 depth;          // elements open now
  u32 name_matched;   // leading bytes of the tag's name that agree with "stream:stream"
  u8 place;           // where in the text the next byte stands
  u8 tag_kind;        // opening, closing or declaration
  u8 name_state;      // how far the tag's name has been read
  u8 quote;           // the quote character that closes the value
  u8 previous;        // the byte before, inside a tag and outside of its values
};

// Takes the next bytes of the stream, however it was cut. Each byte is looked at once.
void xml_scanner_feed (XMLScanner *scanner, String bytes);
// True while no tag, quoted value or element of a stanza is left open. The declaration and a
// "stream:stream" outside of all stanzas are no such elements, but while only a part of their tag
// is there, that tag is open. Text outside of all elements does not count.
bool xml_scanner_is_complete (const XMLScanner *scanner);
