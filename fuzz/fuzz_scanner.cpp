// Stanza boundaries: the first byte chooses how the rest is cut. However it is cut, the scanner is in
// the same state, and what the tree parser takes, it counts as that does.
#include "fuzz.h"

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
         a.bytes_count == b.bytes_count && a.depth == b.depth && a.name_matched == b.name_matched &&
         a.place == b.place && a.tag_kind == b.tag_kind && a.name_state == b.name_state &&
         a.quote == b.quote && a.previous == b.previous;
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

struct Counted {
  u64 stanzas_count;  // ended
  bool is_open;       // something other than the stream was left open
};

static bool
is_stream (XMLElement *element)
{
  return element->name == "stream:stream";
}

// Counts the stanzas of a level where only the stream is open; `unclosed` is the innermost open
// element.
static Counted
count_stanzas (XMLElement *node, XMLElement *unclosed)
{
  Counted counted = {};
  for (; node; node = node->next) {
    bool is_unclosed = false;
    for (XMLElement *element = unclosed; element; element = element->parent)
      is_unclosed = is_unclosed || element == node;
    if (node->text.size || node->is_doctype || (node->is_void && is_stream (node)))
      continue;
    if (is_stream (node)) {
      Counted inside = count_stanzas (node->children, unclosed);
      counted.stanzas_count += inside.stanzas_count;
      counted.is_open = counted.is_open || inside.is_open;
    } else {
      counted.is_open = counted.is_open || is_unclosed;
    }
    counted.stanzas_count += !is_unclosed;
  }
  return counted;
}

static void
check_against_parser (XMLScanner scanner, String text)
{
  Buffer memory = alloc (text.size * 200 + 1024);
  XMLElement *unclosed;
  XMLElement *unopened;
  XMLElement *tree = parse_xml_tree (memory, text, &unclosed, &unopened);
  if (tree || unopened) {
    Counted counted = count_stanzas (tree, unclosed);
    for (; unopened; unopened = unopened->next)
      ++counted.stanzas_count;
    CHECK (scanner.stanzas_count == counted.stanzas_count);
    CHECK (xml_scanner_is_complete (&scanner) == !counted.is_open);
  }
  dealloc (memory);
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
  check_against_parser (whole, input);
}
