#include "shown_text.h"

// ---- Bidirectional controls ----

static const gunichar FIRST_STRONG_ISOLATE = 0x2068;
static const gunichar POP_ISOLATE = 0x2069;
static const gunichar REPLACEMENT = 0xFFFD;

static bool
is_bidi_control (gunichar c)
{
  return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) ||
         (c >= 0x2066 && c <= 0x2069);
}

static bool
has_bidi_control (const char *text)
{
  for (; *text; text = g_utf8_next_char (text)) {
    if (is_bidi_control (g_utf8_get_char (text)))
      return true;
  }
  return false;
}

// One end too many would close the isolate around the text early.
static char *
alloc_isolated_text (const char *text)
{
  GString *shown = g_string_new (NULL);
  u32 open_count = 0;
  g_string_append_unichar (shown, FIRST_STRONG_ISOLATE);
  for (; *text; text = g_utf8_next_char (text)) {
    gunichar c = g_utf8_get_char (text);
    if (c == POP_ISOLATE && !open_count) {
      g_string_append_unichar (shown, REPLACEMENT);
      continue;
    }
    g_string_append_unichar (shown, c);
    if (c >= 0x2066 && c <= 0x2068)
      open_count++;
    else if (c == POP_ISOLATE)
      open_count--;
  }
  // What the text has opened, and the isolate around it.
  for (u32 i = 0; i <= open_count; ++i)
    g_string_append_unichar (shown, POP_ISOLATE);
  return g_string_free (shown, FALSE);
}

// ---- Lines ----

static const gunichar RETURN_SYMBOL = 0x23CE;

// What begins a line in a label, or a paragraph of the bidirectional algorithm.
static bool
is_line_break (gunichar c)
{
  return (c >= 0x0A && c <= 0x0D) || (c >= 0x1C && c <= 0x1E) || c == 0x85 || c == 0x2028 ||
         c == 0x2029;
}

static char *
alloc_line (const char *text)
{
  GString *line = g_string_new (NULL);
  for (; *text; text = g_utf8_next_char (text)) {
    gunichar c = g_utf8_get_char (text);
    bool is_pair = c == '\r' && text[1] == '\n';
    if (!is_pair)
      g_string_append_unichar (line, is_line_break (c) ? RETURN_SYMBOL : c == '\t' ? ' ' : c);
  }
  return g_string_free (line, FALSE);
}

char *
alloc_shown_text (String text)
{
  // Only valid UTF-8 can be shown, and what comes from the network may be anything.
  char *valid = g_utf8_make_valid (text.size ? (const char *) text.data : "", (gssize) text.size);
  char *line = alloc_line (valid);
  g_free (valid);
  if (!has_bidi_control (line))
    return line;
  char *shown = alloc_isolated_text (line);
  g_free (line);
  return shown;
}

void
label_show_text (GtkLabel *label, String text)
{
  char *shown = alloc_shown_text (text);
  gtk_label_set_text (label, shown);
  g_free (shown);
}

// ---- Addresses ----

struct CodePoints {
  gunichar first;
  gunichar last;
};

// What Unicode names ignorable by default although its category is that of a letter or a mark, and
// the blank of Braille.
static const CodePoints IGNORABLES[] = {
  {0x034F, 0x034F}, {0x115F, 0x1160}, {0x17B4, 0x17B5}, {0x180B, 0x180F},   {0x2800, 0x2800},
  {0x3164, 0x3164}, {0xFE00, 0xFE0F}, {0xFFA0, 0xFFA0}, {0xE0000, 0xE0FFF},
};

static bool
is_invisible (gunichar c)
{
  for (const CodePoints &range : IGNORABLES) {
    if (c >= range.first && c <= range.last)
      return true;
  }
  switch (g_unichar_type (c)) {
  case G_UNICODE_CONTROL:
  case G_UNICODE_FORMAT:
  case G_UNICODE_UNASSIGNED:
  case G_UNICODE_PRIVATE_USE:
  case G_UNICODE_SURROGATE:
  case G_UNICODE_LINE_SEPARATOR:
  case G_UNICODE_PARAGRAPH_SEPARATOR:
  case G_UNICODE_SPACE_SEPARATOR:
    return true;
  default:
    return false;
  }
}

// The scripts of an address so far. Latin goes with Chinese, Japanese and Korean writing, each of
// which has scripts of its own beside Han; every other script is alone.
struct Scripts {
  bool has_latin;
  bool has_han;
  bool has_kana;
  bool has_bopomofo;
  bool has_hangul;
  GUnicodeScript other;  // G_UNICODE_SCRIPT_COMMON when there is none
  bool has_others;       // several
};

static void
scripts_add (Scripts *scripts, GUnicodeScript script)
{
  switch (script) {
  case G_UNICODE_SCRIPT_COMMON:
  case G_UNICODE_SCRIPT_INHERITED:
    break;
  case G_UNICODE_SCRIPT_LATIN:
    scripts->has_latin = true;
    break;
  case G_UNICODE_SCRIPT_HAN:
    scripts->has_han = true;
    break;
  case G_UNICODE_SCRIPT_HIRAGANA:
  case G_UNICODE_SCRIPT_KATAKANA:
    scripts->has_kana = true;
    break;
  case G_UNICODE_SCRIPT_BOPOMOFO:
    scripts->has_bopomofo = true;
    break;
  case G_UNICODE_SCRIPT_HANGUL:
    scripts->has_hangul = true;
    break;
  default:
    if (scripts->other != G_UNICODE_SCRIPT_COMMON && scripts->other != script)
      scripts->has_others = true;
    scripts->other = script;
  }
}

static bool
scripts_are_mixed (const Scripts *scripts)
{
  u32 writings = (u32) scripts->has_kana + scripts->has_bopomofo + scripts->has_hangul;
  if (scripts->other == G_UNICODE_SCRIPT_COMMON)
    return writings > 1;
  return scripts->has_others || scripts->has_latin || scripts->has_han || writings;
}

bool
has_invisible_letters (String address)
{
  const char *end = (const char *) address.data + address.size;
  for (const char *p = (const char *) address.data; p < end; p = g_utf8_next_char (p)) {
    if (is_invisible (g_utf8_get_char (p)))
      return true;
  }
  return false;
}

bool
is_misleading_address (String address)
{
  if (!g_utf8_validate_len ((const char *) address.data, address.size, NULL) ||
      has_invisible_letters (address))
    return true;
  Scripts scripts = {};
  scripts.other = G_UNICODE_SCRIPT_COMMON;
  const char *end = (const char *) address.data + address.size;
  for (const char *p = (const char *) address.data; p < end; p = g_utf8_next_char (p))
    scripts_add (&scripts, g_unichar_get_script (g_utf8_get_char (p)));
  return scripts_are_mixed (&scripts);
}

void
label_warn_of_address (GtkLabel *label, String address)
{
  static const char WARNING[] =
    "This address mixes alphabets or holds invisible letters. It may imitate another one.";
  GtkStyleContext *style = gtk_widget_get_style_context (GTK_WIDGET (label));
  bool is_misleading = is_misleading_address (address);
  if (is_misleading == (bool) gtk_style_context_has_class (style, "warning"))
    return;
  gtk_widget_set_tooltip_text (GTK_WIDGET (label), is_misleading ? WARNING : NULL);
  atk_object_set_description (gtk_widget_get_accessible (GTK_WIDGET (label)),
                              is_misleading ? WARNING : "");
  if (is_misleading)
    gtk_style_context_add_class (style, "warning");
  else
    gtk_style_context_remove_class (style, "warning");
}

void
label_show_address (GtkLabel *label, String address)
{
  label_show_text (label, address);
  label_warn_of_address (label, address);
}
