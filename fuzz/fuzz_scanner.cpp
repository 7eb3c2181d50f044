// Stanza boundaries: the first byte chooses how the rest is cut. However it is cut, the scanner is in
// the same state, and the stanzas that expat finds, it finds.
#include "fuzz.h"

#include "../tests/expat_stanzas.h"

#include "xml_scanner.h"

const char *const DESIGNED_STOPS[] = {NULL};

void
fuzz_clean_up ()
{
}

static bool
is_same_state (XMLScanner a, XMLScanner b)
{
  return a.stanzas_count == b.stanzas_count && a.boundary == b.boundary &&
         a.bytes_count == b.bytes_count && a.depth == b.depth && a.matched == b.matched &&
         a.place == b.place && a.is_closing == b.is_closing && a.quote == b.quote &&
         a.previous == b.previous;
}

// Fed in pieces whose sizes follow from `seed`.
static XMLScanner
scan_in_pieces (String text, u32 seed)
{
  XMLScanner scanner = {};
  while (text.size) {
    seed = seed * 1664525 + 1013904223;
    xml_scanner_feed (&scanner, take_bytes (&text, seed >> 28));
  }
  return scanner;
}

// What the scanner finds, one stanza after the other, begins with what expat has found when it comes
// to the place that it refuses, if there is one.
static void
check_against_expat (String text)
{
  ExpatStanzas read = read_stanzas_by_expat (std::string ((char *) text.data, text.size));
  XMLScanner scanner = {};
  String rest = text;
  for (size_t index = 0; index < read.stanzas.size (); ++index) {
    rest = xml_scanner_feed_stanza (&scanner, rest);
    CHECK (scanner.stanzas_count == index + 1);
    CHECK (text.size - rest.size == read.stanzas[index].end);
    CHECK (xml_scanner_is_complete (&scanner));
    CHECK (scanner.boundary == read.stanzas[index].end);
  }
}

void
fuzz_run (String input)
{
  u8 seed = take_byte (&input);
  XMLScanner whole = {};
  xml_scanner_feed (&whole, input);
  CHECK (whole.bytes_count == input.size);
  CHECK (whole.boundary <= input.size);
  CHECK (!xml_scanner_is_complete (&whole) || whole.boundary == input.size);
  CHECK (is_same_state (whole, scan_in_pieces (input, seed)));
  XMLScanner bytewise = {};
  for (u64 index = 0; index < input.size; ++index)
    xml_scanner_feed (&bytewise, {input.data + index, 1});
  CHECK (is_same_state (whole, bytewise));

  XMLScanner front = {};
  xml_scanner_feed (&front, {input.data, whole.boundary});
  CHECK (xml_scanner_is_complete (&front));
  CHECK (front.stanzas_count == whole.stanzas_count);
  check_against_expat (input);
}
