#include "xml_dump.h"

#include <glib.h>

#include "morvane.h"

// ---- Text ----
//
// It is put together from many small pieces and handed over in few large ones: each hand-over costs a
// heap record and an idle source, and a received tree has thousands of pieces.

// From this size on the text is handed over at the next line end, so that neither a length given as
// an int nor the memory of one block grows with the tree, and no character is cut in two.
static const u64 CONSOLE_TEXT_HAND_OVER_SIZE = 262144;

// How deep the indentation goes. The depth of a tree is the peer's choice, and with indentation
// without an end a small stanza would make gigabytes of text.
static const u32 INDENTATION_DEPTH_MAX = 128;

static void
console_text_append (GString *text, String string)
{
  g_string_append_len (text, (const char *) string.data, (gssize) string.size);
}

static void
console_text_append_indentation (GString *text, u32 depth)
{
  g_string_append_printf (text, "%*s", (int) MIN (depth, INDENTATION_DEPTH_MAX) * 2, "");
}

// The console frees what it gets with `dealloc_string`, so that it gets a copy of its own.
static void
console_text_put (GString *text)
{
  _console_put (alloc_string ({(u8 *) text->str, text->len}));
}

// Hands over what there is, and frees the rest.
static void
console_text_hand_over (GString *text)
{
  if (text->len)
    console_text_put (text);
  g_string_free (text, TRUE);
}

static void
console_text_hand_over_if_large (GString *text)
{
  if (text->len < CONSOLE_TEXT_HAND_OVER_SIZE)
    return;
  console_text_put (text);
  g_string_truncate (text, 0);
}

static void
console_text_append_closing_tag (GString *text, String name)
{
  g_string_append (text, "</");
  console_text_append (text, name);
  g_string_append (text, ">");
}

static void
console_text_append_attributes (GString *text, XMLElement *element)
{
  for (XMLAttribute *attribute = element->attributes; attribute; attribute = attribute->next) {
    g_string_append (text, " ");
    console_text_append (text, attribute->name);
    g_string_append (text, "='");
    console_text_append (text, attribute->value);
    g_string_append (text, "'");
  }
}

// ---- Tokens and elements ----

void
_console_put (String name, XMLToken token)
{
  GString *text = g_string_new (NULL);
  console_text_append (text, name);
  g_string_append (text, ": ");
  g_string_append (text, XML_TOKEN_TYPE_STRINGS[token.type]);
  g_string_append (text, ": \"");
  console_text_append (text, token.text);
  g_string_append (text, "\"\n");
  console_text_hand_over (text);
}

void
_console_put (String name, XMLElement element)
{
  GString *text = g_string_new (NULL);
  console_text_append (text, name);
  g_string_append (text, element.is_doctype ? ": <?" : ": <");
  console_text_append (text, element.name);
  console_text_append_attributes (text, &element);
  g_string_append (text, element.is_void ? "/>\n" : element.is_doctype ? "?>\n" : ">\n");
  console_text_hand_over (text);
}

// ---- Trees ----

// Writes what stands in front of the children. True when these and a closing line follow.
static bool
console_text_append_node (GString *text, XMLElement *node, u32 depth)
{
  console_text_append_indentation (text, depth);
  if (node->text.size) {
    console_text_append (text, node->text);
    g_string_append (text, "\n");
    return false;
  }
  g_string_append (text, node->is_doctype ? "<?" : "<");
  console_text_append (text, node->name);
  console_text_append_attributes (text, node);
  if (node->is_void) {
    g_string_append (text, "/>\n");
  } else if (node->is_doctype) {
    g_string_append (text, "?>\n");
  } else if (node->children) {
    g_string_append (text, ">\n");
    return true;
  } else {
    g_string_append (text, ">");
    console_text_append_closing_tag (text, node->name);
    g_string_append (text, "\n");
  }
  return false;
}

void
print_xml_tree (XMLElement *node, u32 depth)
{
  console_begin_line ();
  GString *text = g_string_new (NULL);
  // Elements whose closing line is still to be printed. Links to the parent would not do: text nodes
  // have none, and the depth is the peer's choice, so the stack of calls would not do either.
  GPtrArray *open = g_ptr_array_new ();
  if (!node) {
    g_string_append (text, "(null)\n");
  }
  while (node) {
    if (console_text_append_node (text, node, depth)) {
      g_ptr_array_add (open, node);
      node = node->children;
      depth += 1;
      console_text_hand_over_if_large (text);
      continue;
    }
    while (!node->next && open->len) {
      depth -= 1;
      node = (XMLElement *) g_ptr_array_steal_index (open, open->len - 1);
      console_text_append_indentation (text, depth);
      console_text_append_closing_tag (text, node->name);
      g_string_append (text, "\n");
      console_text_hand_over_if_large (text);
    }
    console_text_hand_over_if_large (text);
    node = node->next;
  }
  console_text_hand_over (text);
  console_end_line ();
  g_ptr_array_unref (open);
}

// ---- Warnings ----

// One line. The list goes on to the parents, or to the siblings.
static void
warn_of_closing_tags (const char *warning, XMLElement *first, bool goes_outwards)
{
  console_begin_line ();
  GString *text = g_string_new (warning);
  for (XMLElement *element = first; element;
       element = goes_outwards ? element->parent : element->next) {
    console_text_append_closing_tag (text, element->name);
    console_text_hand_over_if_large (text);
  }
  g_string_append (text, "\n");
  console_text_hand_over (text);
  console_end_line ();
}

void
warn_unclosed_xml_elements (XMLElement *innermost)
{
  warn_of_closing_tags ("Warning: Unclosed XML elements: ", innermost, true);
}

void
warn_unopened_xml_elements (XMLElement *first)
{
  warn_of_closing_tags ("Warning: Close XML elements which have never opened: ", first, false);
}
