// Whole stanzas made of parts: each byte chooses the next part, or says how many bytes of the input
// stand for a part of their own. So most of what the parsers get is well formed, and goes deep.
#include "fuzz.h"

const char *const DESIGNED_STOPS[] = {STANZA_STOPS, NULL};

void
fuzz_clean_up ()
{
}

static const char *const ELEMENTS[] = {
  "x-procedure",
  "x-clause",
  "x-revision",
  "x-clause-message",
  "x-clause-decision",
  "body",
  "message",
  "presence",
  "iq",
  "vcard",
  "fn",
  "text",
  "uri",
  "tel",
  "url",
  "adr",
  "street",
  "org",
  "role",
  "key",
  "email",
  "query",
  "stream:stream",
  "error",
  "parameters",
  "x-unknown",
};

static const char *const ATTRIBUTES[] = {
  "procedure", "clause", "revision", "message", "decision", "from",
  "to",        "type",   "id",       "xmlns",   "bogus",
};

static const char *const VALUES[] = {
  "anna@alpha.test:1700000000",
  "ben@beta.test:1700000001",
  "ben:1700000001",
  "ben@beta.test:0",
  "ben@beta.test:",
  ":1700000000",
  "ben@beta.test",
  "ben@beta.test:-1",
  "ben@beta.test:999999999999",
  "ben@beta.test:1000000000000",
  "ben@beta.test:18446744073709551616",
  "a:b:1",
  "ben&apos;s@beta.test:1",
  "anna@alpha.test",
  "anna@alpha.test/desk",
  "ben@beta.test/shop",
  "error",
  "result",
  "unavailable",
  "subscribe",
  "subscribed",
  "chat",
  "17",
  "18446744073709551615",
  "seventeen",
  "urn:ietf:params:xml:ns:vcard-4.0",
  "",
};

static const char *const TEXTS[] = {
  "AGREE", "DISAGREE", "INVALID", "The tenant pays.", "a &amp; b", "&lt;b&gt;", "&#39;",
  "& b",   "\xC3\xBC", "\xC3",    "two\nlines ",      " front",    "&amp;lt;",
};

#define COUNT(table) (sizeof (table) / sizeof ((table)[0]))

// From a table, or a few bytes of the input without what would end them.
static Buffer
append_part (Buffer buffer, String *input, const char *const *table, u64 count, const char *ends)
{
  u8 choice = take_byte (input);
  if (choice < 0xF0)
    return buffer_append_cstr (buffer, table[choice % count]);
  String bytes = take_bytes (input, choice & 0x0F);
  for (u64 index = 0; index < bytes.size; ++index) {
    char c = (char) bytes.data[index];
    if (!find_char (to_string (ends), c).size)
      buffer = buffer_append_char (buffer, c);
  }
  return buffer;
}

static Buffer
append_attributes (Buffer buffer, String *input)
{
  for (u64 count = take_byte (input) % 8; count; --count) {
    buffer = buffer_append_char (buffer, ' ');
    buffer = buffer_append_cstr (buffer, ATTRIBUTES[take_byte (input) % COUNT (ATTRIBUTES)]);
    buffer = buffer_append_cstr (buffer, "='");
    buffer = append_part (buffer, input, VALUES, COUNT (VALUES), "'");
    buffer = buffer_append_cstr (buffer, "'");
  }
  return buffer;
}

// The pairs of a negotiation element in one go, as no chance would find them often enough.
static Buffer
append_pairs (Buffer buffer, String *input)
{
  for (u64 index = 0; index < 5; ++index) {
    buffer = buffer_append_char (buffer, ' ');
    buffer = buffer_append_cstr (buffer, ATTRIBUTES[index]);
    buffer = buffer_append_cstr (buffer, "='");
    u8 choice = take_byte (input);
    const char *value = choice < 0xC0 ? VALUES[choice % 4] : VALUES[choice % COUNT (VALUES)];
    buffer = buffer_append_cstr (buffer, value);
    buffer = buffer_append_cstr (buffer, "'");
  }
  return buffer;
}

static Buffer
append_element (Buffer buffer, String *input, u32 depth)
{
  const char *name = ELEMENTS[take_byte (input) % COUNT (ELEMENTS)];
  u8 shape = take_byte (input);
  buffer = buffer_append_cstr (buffer_append_char (buffer, '<'), name);
  buffer = shape & 1 ? append_pairs (buffer, input) : append_attributes (buffer, input);
  if ((shape & 0x0E) == 0x0E)
    return buffer_append_cstr (buffer, "/>");
  buffer = buffer_append_char (buffer, '>');
  for (u32 count = (shape >> 4) % 5; count && depth < 6 && input->size; --count) {
    if (take_byte (input) & 1)
      buffer = append_part (buffer, input, TEXTS, COUNT (TEXTS), "<");
    else
      buffer = append_element (buffer, input, depth + 1);
  }
  buffer = buffer_append_cstr (buffer, "</");
  return buffer_append_char (buffer_append_cstr (buffer, name), '>');
}

// A message around one negotiation element, or any element.
static Buffer
append_stanza (Buffer buffer, String *input)
{
  if (take_byte (input) & 1)
    return append_element (buffer, input, 0);
  buffer = buffer_append_cstr (buffer, "<message type='chat' from='ben@beta.test/shop'><body>");
  buffer = append_element (buffer, input, 1);
  return buffer_append_cstr (buffer, "</body></message>");
}

void
fuzz_run (String input)
{
  Buffer block = alloc (input.size * 64 + 4096);
  Buffer block_p = block;
  while (input.size)
    block_p = append_stanza (block_p, &input);
  CHECK (block_p.size);
  String text = alloc_string ({block.data, block.size - block_p.size});
  dealloc (block);
  run_stanzas (text);
  dealloc_string (text);
}
