// Tokenizer and tree parser: the first two bytes are the size of the arena, the third its distance
// from an aligned address, the rest is the text.
#include "fuzz.h"
#include "xml_dump.h"

const char *const DESIGNED_STOPS[] = {NULL};

void
fuzz_clean_up ()
{
}

static void
check_tokens (String text)
{
  String rest = text;
  while (true) {
    XMLToken token;
    u64 size_before = rest.size;
    rest = get_token (rest, &token);
    CHECK (is_view_of (rest, text) && is_view_of (token.text, text));
    if (!token.text.data)
      break;
    CHECK (rest.size < size_before);
    CHECK (token.type < XML_TOKEN_INNER_TEXT);
  }
  CHECK (!rest.size);
}

static u64
hash_string (u64 hash, String string)
{
  hash = (hash ^ string.size) * 0x100000001B3;
  for (u64 index = 0; index < string.size; ++index)
    hash = (hash ^ string.data[index]) * 0x100000001B3;
  return hash;
}

// A number that tells two trees of one text apart; checks every link on the way.
static u64
hash_tree (u64 hash, XMLElement *node, XMLElement *parent, String text)
{
  for (; node; node = node->next) {
    CHECK (is_view_of (node->name, text) && is_view_of (node->text, text));
    CHECK ((node->name.size == 0) == (node->text.size != 0));
    CHECK (node->parent == (node->text.size ? NULL : parent));
    CHECK (!node->children || (!node->is_void && !node->is_doctype && !node->text.size));
    hash = hash_string (hash_string (hash, node->name), node->text);
    hash = hash * 4 + node->is_void * 2 + node->is_doctype;
    for (XMLAttribute *attribute = node->attributes; attribute; attribute = attribute->next) {
      CHECK (is_view_of (attribute->name, text) && is_view_of (attribute->value, text));
      CHECK (get_xml_attribute (node, attribute->name).data);
      hash = hash_string (hash_string (hash, attribute->name), attribute->value);
    }
    if (node->children && node->children->name.size)
      CHECK (node->parent == parent);
    hash = hash_tree (hash + 1, node->children, node, text);
  }
  return hash * 31 + 7;
}

struct Parsed {
  u64 hash;  // 0 when there is no tree
  bool has_unclosed;
  bool has_unopened;
};

static Parsed
parse (Buffer memory, String text, bool is_printed)
{
  XMLElement *unclosed;
  XMLElement *unopened;
  XMLElement *tree = parse_xml_tree (memory, text, &unclosed, &unopened);
  Parsed parsed = {0, unclosed != NULL, unopened != NULL};
  CHECK (!unclosed || tree);
  if (tree)
    parsed.hash = hash_tree (1, tree, NULL, text);
  for (XMLElement *element = unclosed; element; element = element->parent)
    CHECK (!element->is_void && !element->is_doctype && element->name.size);
  for (XMLElement *element = unopened; element; element = element->next)
    CHECK (!element->parent && element->name.size && !element->children);
  if (is_printed)
    print_xml_tree (tree, 0);
  return parsed;
}

void
fuzz_run (String input)
{
  u64 arena_size = take_u16 (&input);
  u64 offset = take_byte (&input) & 7;
  check_tokens (input);

  Buffer ample_block = alloc (input.size * 200 + 1024);
  Parsed ample = parse (ample_block, input, true);
  dealloc (ample_block);

  // A smaller arena gives the same or nothing.
  Buffer block = alloc (offset + arena_size);
  Parsed parsed = parse (buffer_advance (block, offset), input, false);
  if (parsed.hash || parsed.has_unopened) {
    CHECK (parsed.hash == ample.hash);
    CHECK (parsed.has_unclosed == ample.has_unclosed);
    CHECK (parsed.has_unopened == ample.has_unopened);
  } else {
    CHECK (!parsed.has_unclosed);
    CHECK (arena_size < input.size * 200 + 1024 || (!ample.hash && !ample.has_unopened));
  }
  // Without a place for them, what is left open or never opened becomes a line.
  parse_xml_tree (buffer_advance (block, offset), input, NULL, NULL);
  dealloc (block);
}
