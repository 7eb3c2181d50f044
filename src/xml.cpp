// The XML reader: tokens, trees in an arena, escaping.
#include "xml.h"

#include <assert.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "morvane.h"
#include "xml_dump.h"

const char *const XML_TOKEN_TYPE_STRINGS[12] = {
  "UNKNOWN",         "TAG_START",  "TAG_END", "VOID_TAG_END",        "CLOSING_TAG_START",
  "IDENTIFIER",      "EQUALS",     "STRING",  "UNTERMINATED_STRING", "DOCTYPE_TAG_START",
  "DOCTYPE_TAG_END", "INNER_TEXT",
};

// ---- Tokenizer ----

bool
is_ascii_alpha_char (u8 c)
{
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool
is_xml_identifier_char (u8 c)
{
  return is_ascii_alpha_char (c) || (c >= '0' && c <= '9') || c == ':' || c == '-';
}

static String
string_skip_spaces (String string)
{
  u64 count = 0;
  while (count < string.size && string.data[count] == ' ') {
    count += 1;
  }
  return string_advance (string, count);
}

// `input` begins with the opening quote.
static String
get_string_token (String input, XMLToken *token_out)
{
  String value = string_advance (input, 1);
  String end = find_char (value, (char) input.data[0]);
  token_out->type = end.size ? XML_TOKEN_STRING : XML_TOKEN_UNTERMINATED_STRING;
  token_out->text = {value.data, value.size - end.size};
  return string_advance (end, 1);
}

// The type of the token that begins with these bytes, and how many of them it takes. `second` is 0
// at the end of the input: no token has a 0 byte in it.
static XMLTokenType
get_punctuation_type (u8 first, u8 second, u64 *size_out)
{
  *size_out = 2;
  if (first == '<' && second == '/') {
    return XML_TOKEN_CLOSING_TAG_START;
  }
  if (first == '<' && second == '?') {
    return XML_TOKEN_DOCTYPE_TAG_START;
  }
  if (first == '/' && second == '>') {
    return XML_TOKEN_VOID_TAG_END;
  }
  if (first == '?' && second == '>') {
    return XML_TOKEN_DOCTYPE_TAG_END;
  }
  *size_out = 1;
  return first == '<'   ? XML_TOKEN_TAG_START
         : first == '>' ? XML_TOKEN_TAG_END
         : first == '=' ? XML_TOKEN_EQUALS
                        : XML_TOKEN_UNKNOWN;
}

String
get_token (String input, XMLToken *token_out)
{
  assert (token_out);
  *token_out = {};
  input = string_skip_spaces (input);
  if (!input.size) {
    return input;
  }
  u8 first = input.data[0];
  if (first == '\'' || first == '"') {
    return get_string_token (input, token_out);
  }
  u64 size = 1;
  if (is_ascii_alpha_char (first)) {
    token_out->type = XML_TOKEN_IDENTIFIER;
    while (size < input.size && is_xml_identifier_char (input.data[size])) {
      size += 1;
    }
  } else {
    token_out->type = get_punctuation_type (first, input.size > 1 ? input.data[1] : 0, &size);
  }
  if (token_out->type == XML_TOKEN_UNKNOWN) {
    puts ("->>>>>XML_TOKEN_UNKNOWN");
  }
  token_out->text = {input.data, size};
  return string_advance (input, size);
}

// ---- Tree ----

// The state of one parse. The two sentinels have no tag of their own; they never reach the caller.
struct XMLParser {
  Buffer memory;        // room left in the arena
  XMLToken *tokens;     // at the front of the arena
  u64 tokens_count;     // tokens stored
  u64 tokens_max;       // tokens that the arena can hold
  u64 index;            // the next token to read
  XMLElement root;      // its children are the top-level nodes
  XMLElement unopened;  // its children are the closing tags that close nothing
  XMLElement *current;  // innermost open element, or `root`
};

static void
warn_no_memory ()
{
  console_log ("Warning: No memory in buffer for parsing XML.\n");
}

static bool
xml_parser_add_token (XMLParser *parser, XMLToken token)
{
  if (parser->tokens_count == parser->tokens_max) {
    warn_no_memory ();
    return false;
  }
  parser->tokens[parser->tokens_count] = token;
  parser->tokens_count += 1;
  return true;
}

static void
warn_unterminated_string (String text)
{
  if (text.size < 17) {
    console_log ("Warning: Unterminated string token: \"%.*s\"\n", STRING_ARGS (text));
  } else {
    String start = {text.data, 16};
    console_log ("Warning: Unterminated string token: \"%.*s\" ...\n", STRING_ARGS (start));
  }
}

// Stores the text in front of the next "<", if there is any, and moves `text_p` behind it.
static bool
xml_parser_read_inner_text (XMLParser *parser, String *text_p)
{
  String text = string_skip_spaces (*text_p);
  if (!text.size || text.data[0] == '<') {
    return true;
  }
  String end = find_char (text, '<');
  String inner_text = {text.data, text.size - end.size};
  *text_p = end;
  return xml_parser_add_token (parser, {inner_text, XML_TOKEN_INNER_TEXT});
}

// First pass: fills the front of the arena with the tokens of the text.
static bool
xml_parser_read_tokens (XMLParser *parser, String text)
{
  // The arena is what is left behind a received chunk, at any address.
  u64 misalignment = (uintptr_t) parser->memory.data % alignof (XMLElement);
  parser->memory =
    buffer_advance (parser->memory, misalignment ? alignof (XMLElement) - misalignment : 0);
  parser->tokens = (XMLToken *) parser->memory.data;
  parser->tokens_max = parser->memory.size / sizeof (XMLToken);
  for (;;) {
    XMLToken token;
    text = get_token (text, &token);
    if (!token.text.data) {
      break;
    }
    if (token.type == XML_TOKEN_UNKNOWN) {
      console_log ("Warning: Unknown XML token '%.*s'.\n", STRING_ARGS (token.text));
      return false;
    }
    if (token.type == XML_TOKEN_UNTERMINATED_STRING) {
      warn_unterminated_string (token.text);
      return false;
    }
    bool ends_tag = token.type == XML_TOKEN_TAG_END || token.type == XML_TOKEN_VOID_TAG_END;
    if (!xml_parser_add_token (parser, token) ||
        (ends_tag && !xml_parser_read_inner_text (parser, &text))) {
      return false;
    }
  }
  parser->memory = buffer_advance (parser->memory, parser->tokens_count * sizeof (XMLToken));
  return true;
}

// The next token, or none at the end.
static XMLToken *
xml_parser_next_token (XMLParser *parser)
{
  if (parser->index == parser->tokens_count) {
    return NULL;
  }
  parser->index += 1;
  return &parser->tokens[parser->index - 1];
}

// A zeroed record from the arena; none, and the warning, when there is no room for it.
static void *
xml_parser_take_record (XMLParser *parser, u64 size)
{
  if (parser->memory.size < size) {
    warn_no_memory ();
    return NULL;
  }
  void *record = parser->memory.data;
  parser->memory = buffer_advance_zeroed (parser->memory, size);
  return record;
}

// `name` has just been read; "=" and the value follow.
static bool
xml_parser_read_attribute (XMLParser *parser, XMLElement *element, String name)
{
  XMLAttribute *attribute = (XMLAttribute *) xml_parser_take_record (parser, sizeof (XMLAttribute));
  if (!attribute) {
    return false;
  }
  attribute->name = name;
  XMLToken *token = xml_parser_next_token (parser);
  if (!token) {
    console_log ("Warning: Unpexpected end of text after an attribute name.\n");
    return false;
  }
  if (token->type != XML_TOKEN_EQUALS) {
    console_log ("Warning: Expected '=' after an attribute name, but got %s instead.\n",
                 XML_TOKEN_TYPE_STRINGS[token->type]);
    return false;
  }
  token = xml_parser_next_token (parser);
  if (!token) {
    console_log ("Warning: Unpexpected end of text before an attribute value.\n");
    return false;
  }
  if (token->type != XML_TOKEN_STRING) {
    console_log ("Warning: Expected attribute value, but got %s instead.\n",
                 XML_TOKEN_TYPE_STRINGS[token->type]);
    return false;
  }
  attribute->value = token->text;
  xml_append_attribute (element, attribute);
  return true;
}

// True when this token may end the tag of `element`, a declaration or not.
static bool
check_tag_end (XMLElement *element, XMLTokenType type)
{
  if (element->is_doctype && type == XML_TOKEN_TAG_END) {
    console_log ("Warning: Unexpected normal tag end '>' in a tag which began with '<?'.\n");
    return false;
  }
  if (element->is_doctype && type == XML_TOKEN_VOID_TAG_END) {
    console_log ("Warning: Unexpected '/>' in a tag which began with '<?'.\n");
    return false;
  }
  if (!element->is_doctype && type == XML_TOKEN_DOCTYPE_TAG_END) {
    console_log ("Warning: Unexpected '?>' in a tag which didn't began with '<?'.\n");
    return false;
  }
  return true;
}

// Reads the attributes and the end of the tag.
static bool
xml_parser_read_tag_inside (XMLParser *parser, XMLElement *element)
{
  for (;;) {
    XMLToken *token = xml_parser_next_token (parser);
    if (!token) {
      console_log ("Warning: Unpexpected end before an opening/void tag was closed.\n");
      return false;
    }
    switch (token->type) {
    case XML_TOKEN_TAG_END:
    case XML_TOKEN_VOID_TAG_END:
    case XML_TOKEN_DOCTYPE_TAG_END:
      element->is_void = token->type == XML_TOKEN_VOID_TAG_END;
      return check_tag_end (element, token->type);
    case XML_TOKEN_IDENTIFIER:
      if (!xml_parser_read_attribute (parser, element, token->text)) {
        return false;
      }
      break;
    default:
      console_log ("Warning: Expected attribute name or end of tag, but got %s instead.\n",
                   XML_TOKEN_TYPE_STRINGS[token->type]);
      return false;
    }
  }
}

static bool
xml_parser_read_opening_tag (XMLParser *parser, bool is_doctype)
{
  XMLElement *element = (XMLElement *) xml_parser_take_record (parser, sizeof (XMLElement));
  if (!element) {
    return false;
  }
  element->is_doctype = is_doctype;
  XMLToken *token = xml_parser_next_token (parser);
  if (!token) {
    console_log ("Warning: Unpexpected end of text after beginning of an opening tag.\n");
    return false;
  }
  if (token->type != XML_TOKEN_IDENTIFIER) {
    console_log ("Warning: Expected tag name, but got %s instead.\n",
                 XML_TOKEN_TYPE_STRINGS[token->type]);
    return false;
  }
  element->name = token->text;
  // The root lives in the stack frame of the parse, so no node may keep a link to it.
  element->parent = parser->current == &parser->root ? NULL : parser->current;
  if (!xml_parser_read_tag_inside (parser, element)) {
    return false;
  }
  xml_append_element (parser->current, element);
  if (!element->is_void && !element->is_doctype) {
    parser->current = element;
  }
  return true;
}

static bool
xml_parser_read_text_node (XMLParser *parser, String text)
{
  XMLElement *element = (XMLElement *) xml_parser_take_record (parser, sizeof (XMLElement));
  if (!element) {
    return false;
  }
  element->text = text;
  xml_append_element (parser->current, element);
  return true;
}

// Closes the current element, or records that `name` was never opened.
static bool
xml_parser_close_element (XMLParser *parser, String name)
{
  XMLElement *current = parser->current;
  if (current == &parser->root) {
    XMLElement *element = (XMLElement *) xml_parser_take_record (parser, sizeof (XMLElement));
    if (!element) {
      return false;
    }
    element->name = name;
    xml_append_element (&parser->unopened, element);
    return true;
  }
  if (current->name != name) {
    console_log ("Warning: Trying to close XML element \"%.*s\", but \"%.*s\" should close now.\n",
                 STRING_ARGS (name), STRING_ARGS (current->name));
    return false;
  }
  parser->current = current->parent ? current->parent : &parser->root;
  return true;
}

static bool
xml_parser_read_closing_tag (XMLParser *parser)
{
  XMLToken *token = xml_parser_next_token (parser);
  if (!token) {
    console_log ("Warning: Unpexpected end of text after the begining of a closing tag.\n");
    return false;
  }
  if (token->type != XML_TOKEN_IDENTIFIER) {
    console_log (
      "Warning: Expected indentifier after beginning of closing tag, but got %s instead.\n",
      XML_TOKEN_TYPE_STRINGS[token->type]);
    return false;
  }
  if (!xml_parser_close_element (parser, token->text)) {
    return false;
  }
  token = xml_parser_next_token (parser);
  if (!token) {
    console_log ("Warning: Unpexpected end before the end of a closing tag.\n");
    return false;
  }
  if (token->type != XML_TOKEN_TAG_END) {
    console_log ("Warning: Expected the '>' of a closing tag, but got %s instead.\n",
                 XML_TOKEN_TYPE_STRINGS[token->type]);
    return false;
  }
  return true;
}

// Second pass: builds the tree from the tokens.
static bool
xml_parser_build_tree (XMLParser *parser)
{
  XMLToken *token;
  while ((token = xml_parser_next_token (parser))) {
    bool ok = false;
    switch (token->type) {
    case XML_TOKEN_TAG_START:
    case XML_TOKEN_DOCTYPE_TAG_START:
      ok = xml_parser_read_opening_tag (parser, token->type == XML_TOKEN_DOCTYPE_TAG_START);
      break;
    case XML_TOKEN_INNER_TEXT:
      ok = xml_parser_read_text_node (parser, token->text);
      break;
    case XML_TOKEN_CLOSING_TAG_START:
      ok = xml_parser_read_closing_tag (parser);
      break;
    default:
      console_log ("Warning: Unexpected token %s.\n", XML_TOKEN_TYPE_STRINGS[token->type]);
      break;
    }
    if (!ok) {
      return false;
    }
  }
  return true;
}

XMLElement *
parse_xml_tree (Buffer memory, String text, XMLElement **unclosed_out, XMLElement **unopened_out)
{
  XMLElement *unclosed = NULL;
  XMLElement *unopened = NULL;
  XMLElement *tree = NULL;
  XMLParser parser = {};
  parser.memory = memory;
  parser.current = &parser.root;
  if (xml_parser_read_tokens (&parser, text) && xml_parser_build_tree (&parser)) {
    unclosed = parser.current == &parser.root ? NULL : parser.current;
    unopened = parser.unopened.children;
    tree = parser.root.children;
  }
  if (unclosed_out) {
    *unclosed_out = unclosed;
  } else if (unclosed) {
    warn_unclosed_xml_elements (unclosed);
  }
  if (unopened_out) {
    *unopened_out = unopened;
  } else if (unopened) {
    warn_unopened_xml_elements (unopened);
  }
  return tree;
}

void
xml_append_element (XMLElement *parent, XMLElement *child)
{
  // The chain may have been made or lengthened by hand, so the hint is where the walk begins.
  XMLElement *last = parent->children;
  if (last && parent->last_child) {
    last = parent->last_child;
  }
  while (last && last->next) {
    last = last->next;
  }
  if (last) {
    last->next = child;
  } else {
    parent->children = child;
  }
  parent->last_child = child;
}

void
xml_append_attribute (XMLElement *element, XMLAttribute *attribute)
{
  XMLAttribute *last = element->attributes;
  if (last && element->last_attribute) {
    last = element->last_attribute;
  }
  while (last && last->next) {
    last = last->next;
  }
  if (last) {
    last->next = attribute;
  } else {
    element->attributes = attribute;
  }
  element->last_attribute = attribute;
}

// ---- Access ----

String
get_xml_attribute (XMLElement *element, String name)
{
  for (XMLAttribute *attribute = element->attributes; attribute; attribute = attribute->next) {
    if (attribute->name == name) {
      return attribute->value;
    }
  }
  return {};
}

String
get_xml_attribute (XMLElement *element, const char *name)
{
  return get_xml_attribute (element, to_string (name));
}

// The first of the chain that begins with `element`, that one included.
static XMLElement *
find_xml_element (XMLElement *element, const char *name)
{
  while (element && element->name != name) {
    element = element->next;
  }
  return element;
}

XMLElement *
get_xml_child_by_name (XMLElement *element, const char *name)
{
  return find_xml_element (element->children, name);
}

XMLElement *
get_xml_next_sibling_by_name (XMLElement *element, const char *name)
{
  return find_xml_element (element->next, name);
}

// ---- Escaping ----

struct XMLEntity {
  const char *name;
  const char *text;  // as it is written
  u8 c;              // what it stands for
};

static const XMLEntity XML_ENTITIES[] = {
  {"quot", "&quot;", '"'}, {"amp", "&amp;", '&'}, {"apos", "&apos;", '\''},
  {"lt", "&lt;", '<'},     {"gt", "&gt;", '>'},
};

Buffer
buffer_append_escaped_xml (Buffer buffer, String text)
{
  for (u64 index = 0; index < text.size && buffer.size; ++index) {
    const XMLEntity *found = NULL;
    for (const XMLEntity &entity : XML_ENTITIES) {
      found = entity.c == text.data[index] ? &entity : found;
    }
    buffer = found ? buffer_append_cstr (buffer, found->text)
                   : buffer_append_char (buffer, (char) text.data[index]);
  }
  return buffer;
}

// What the entity of this name stands for; 0 when there is no such entity.
static u8
get_xml_entity_char (String name)
{
  for (const XMLEntity &entity : XML_ENTITIES) {
    if (name == entity.name) {
      return entity.c;
    }
  }
  return 0;
}

// The tail that begins with the ";" of an entity; `text` is what follows its "&". Empty when there
// is none among the next 5 bytes: the longest name has 4.
static String
find_xml_entity_end (String text)
{
  String reach = {text.data, text.size < 5 ? text.size : 5};
  return find_char (reach, ';');
}

String
alloc_unescape_xml_text (String text)
{
  Buffer memory = alloc (text.size);
  Buffer output = memory;
  while (text.size) {
    u8 c = text.data[0];
    text = string_advance (text, 1);
    if (c == '&') {
      String end = find_xml_entity_end (text);
      assert (end.size);
      String entity = {text.data, (u64) (end.data - text.data)};
      assert (!find_char (entity, '&').size);
      c = get_xml_entity_char (entity);
      if (!c) {
        assert (!"Unhandled XML entity");
      }
      text = string_advance (text, entity.size + 1);
    }
    output = buffer_append_char (output, (char) c);
  }
  return {memory.data, (u64) (output.data - memory.data)};
}

bool
is_xml_text_unescapable (String text)
{
  for (text = find_char (text, '&'); text.size; text = find_char (text, '&')) {
    text = string_advance (text, 1);
    String end = find_xml_entity_end (text);
    String entity = {text.data, (u64) (end.data - text.data)};
    // A name with an "&" in it is none of the five either.
    if (!end.size || !get_xml_entity_char (entity)) {
      return false;
    }
    text = string_advance (text, entity.size + 1);
  }
  return true;
}

// True when the written text ends with U+FFFE or U+FFFF, which XML forbids.
static bool
ends_with_noncharacter (const u8 *data, u64 size)
{
  return size >= 3 && data[size - 3] == 0xEF && data[size - 2] == 0xBF && data[size - 1] >= 0xBE &&
         data[size - 1] <= 0xBF;
}

String
alloc_sendable_text (String text)
{
  // Each byte is judged when it is written, against what was kept before it: what remains after
  // something was dropped must not join into a forbidden character, nor bring a space to the front.
  String result = {alloc (text.size).data, 0};
  for (u64 index = 0; index < text.size; ++index) {
    u8 c = text.data[index];
    bool is_line_end = c == '\r';
    if (is_line_end && index + 1 < text.size && text.data[index + 1] == '\n') {
      continue;
    }
    c = is_line_end ? '\n' : c;
    if ((c < ' ' && c != '\t' && c != '\n') || (c == ' ' && !result.size)) {
      continue;
    }
    result.data[result.size] = c;
    result.size += 1;
    if (ends_with_noncharacter (result.data, result.size)) {
      result.size -= 3;
    }
  }
  return result;
}
