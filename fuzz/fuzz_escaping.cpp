// Escaping: the predicate says exactly when the unescaper stops, what is escaped comes back the same,
// and a sendable text is one that the wire carries unchanged.
#include "fuzz.h"

const char *const DESIGNED_STOPS[] = {
  "end.size",
  "!find_char (entity, '&').size",
  "!\"Unhandled XML entity\"",
  NULL,
};

void
fuzz_clean_up ()
{
}

static void
unescape (void *data)
{
  String text = *(String *) data;
  String unescaped = alloc_unescape_xml_text (text);
  CHECK (unescaped.size <= text.size);
  dealloc_string (unescaped);
}

// Escaped into a block of exactly the size that it takes.
static String
alloc_escaped (String text)
{
  Buffer block = alloc (text.size * 6 + 1);
  Buffer block_p = buffer_append_escaped_xml (block, text);
  CHECK (block_p.size);
  String escaped = {block.data, block.size - block_p.size};
  for (const char *c = "<>'\""; *c; ++c)
    CHECK (!find_char (escaped, *c).size);
  return escaped;
}

static void
check_round_trip (String text)
{
  String escaped = alloc_escaped (text);
  CHECK (is_xml_text_unescapable (escaped));
  String unescaped = alloc_unescape_xml_text (escaped);
  CHECK (unescaped == text);
  dealloc_string (unescaped);

  // Cut anywhere, it is the front of the whole.
  Buffer small = alloc (text.size);
  Buffer small_p = buffer_append_escaped_xml (small, text);
  CHECK ((String{small.data, small.size - small_p.size} ==
          String{escaped.data, small.size - small_p.size}));
  dealloc (small);
  dealloc_string (escaped);
}

static void
check_sendable (String text)
{
  String sendable = alloc_sendable_text (text);
  CHECK (sendable.size <= text.size);
  CHECK (!sendable.size || sendable.data[0] != ' ');
  for (u64 index = 0; index < sendable.size; ++index) {
    u8 c = sendable.data[index];
    CHECK (c >= ' ' || c == '\t' || c == '\n');
    CHECK (c != 0xEF || sendable.size - index < 3 || sendable.data[index + 1] != 0xBF ||
           (sendable.data[index + 2] != 0xBE && sendable.data[index + 2] != 0xBF));
  }
  String again = alloc_sendable_text (sendable);
  CHECK (again == sendable);
  dealloc_string (again);
  dealloc_string (sendable);
}

void
fuzz_run (String input)
{
  check_round_trip (input);
  check_sendable (input);
  bool is_stop = is_stopped (unescape, &input);
  CHECK (is_stop == !is_xml_text_unescapable (input));
  if (is_stop) {
    // Ends the run as the stop does, which leaves a block behind.
    unescape (&input);
  }
}
