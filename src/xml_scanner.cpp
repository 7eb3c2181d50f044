// Stanza boundaries.
#include "xml_scanner.h"

enum XMLScannerPlace {
  XML_SCANNER_TEXT,            // outside of tags
  XML_SCANNER_TAG_BEGIN,       // just behind "<"
  XML_SCANNER_NAME,            // inside a tag's name
  XML_SCANNER_TAG,             // inside a tag, behind its name
  XML_SCANNER_VALUE,           // inside a quoted value
  XML_SCANNER_INSTRUCTION,     // behind "<?"; the declaration is one of these
  XML_SCANNER_SECTION_BEGIN,   // behind "<!", while that may begin one of the next two
  XML_SCANNER_COMMENT,         // behind "<!--"
  XML_SCANNER_CHARACTER_DATA,  // behind "<![CDATA["
  XML_SCANNER_DOCUMENT_TYPE,   // behind "<!" and something else; no server may send this
};

static const char XML_STREAM_NAME[] = "stream:stream";
static const u32 XML_STREAM_NAME_SIZE = sizeof (XML_STREAM_NAME) - 1;
// In `matched`: the name is another one.
static const u32 XML_NAME_DIFFERS = UINT32_MAX;

static const char COMMENT_BEGIN[] = "--";
static const char CHARACTER_DATA_BEGIN[] = "[CDATA[";

bool
is_xml_space (u8 c)
{
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool
is_xml_name_char (u8 c)
{
  return c != '>' && c != '/' && !is_xml_space (c);
}

static void
xml_scanner_end_tag (XMLScanner *scanner)
{
  scanner->place = XML_SCANNER_TEXT;
  bool is_top_level = scanner->depth == 0;
  if (scanner->is_closing) {
    scanner->depth -= is_top_level ? 0 : 1;
    scanner->stanzas_count += scanner->depth == 0;
    return;
  }
  // Only the outermost "stream:stream" is the stream: inside a stanza it is a name like any other.
  if (is_top_level && scanner->matched == XML_STREAM_NAME_SIZE) {
    return;
  }
  if (scanner->previous == '/') {
    scanner->stanzas_count += is_top_level;
  } else {
    scanner->depth += 1;
  }
}

static void
xml_scanner_step_tag (XMLScanner *scanner, u8 c)
{
  if (c == '>') {
    xml_scanner_end_tag (scanner);
    return;
  }
  scanner->place = c == '\'' || c == '"' ? XML_SCANNER_VALUE : XML_SCANNER_TAG;
  scanner->quote = c;
  scanner->previous = c;
}

static void
xml_scanner_step_name (XMLScanner *scanner, u8 c)
{
  if (!is_xml_name_char (c)) {
    xml_scanner_step_tag (scanner, c);
    return;
  }
  bool agrees =
    scanner->matched < XML_STREAM_NAME_SIZE && c == (u8) XML_STREAM_NAME[scanner->matched];
  scanner->matched = agrees ? scanner->matched + 1 : XML_NAME_DIFFERS;
  scanner->previous = c;
}

static void
xml_scanner_begin_tag (XMLScanner *scanner, u8 c)
{
  scanner->matched = 0;
  scanner->previous = 0;
  scanner->is_closing = c == '/';
  if (c == '?') {
    scanner->place = XML_SCANNER_INSTRUCTION;
  } else if (c == '!') {
    scanner->place = XML_SCANNER_SECTION_BEGIN;
  } else {
    scanner->place = XML_SCANNER_NAME;
    if (!scanner->is_closing) {
      xml_scanner_step_name (scanner, c);
    }
  }
}

// Tells comments and character data by what follows "<!".
static void
xml_scanner_step_section_begin (XMLScanner *scanner, u8 c)
{
  // Both marks differ in their first byte, which chooses between them.
  scanner->previous = scanner->matched ? scanner->previous : c;
  bool is_comment = scanner->previous == (u8) COMMENT_BEGIN[0];
  const char *mark = is_comment ? COMMENT_BEGIN : CHARACTER_DATA_BEGIN;
  if (c != (u8) mark[scanner->matched]) {
    scanner->place = c == '>' ? XML_SCANNER_TEXT : XML_SCANNER_DOCUMENT_TYPE;
    return;
  }
  scanner->matched += 1;
  if (!mark[scanner->matched]) {
    scanner->place = is_comment ? XML_SCANNER_COMMENT : XML_SCANNER_CHARACTER_DATA;
    scanner->matched = 0;
  }
}

// Both kinds of sections end behind two bytes of one kind in a row, and a ">".
static void
xml_scanner_step_section (XMLScanner *scanner, u8 c)
{
  u8 mark = scanner->place == XML_SCANNER_COMMENT ? '-' : ']';
  if (c == mark) {
    scanner->matched += scanner->matched < 2;
  } else if (c == '>' && scanner->matched == 2) {
    scanner->place = XML_SCANNER_TEXT;
  } else {
    scanner->matched = 0;
  }
}

static void
xml_scanner_step (XMLScanner *scanner, u8 c)
{
  switch (scanner->place) {
  case XML_SCANNER_TEXT:
    scanner->place = c == '<' ? XML_SCANNER_TAG_BEGIN : XML_SCANNER_TEXT;
    break;
  case XML_SCANNER_TAG_BEGIN:
    xml_scanner_begin_tag (scanner, c);
    break;
  case XML_SCANNER_NAME:
    xml_scanner_step_name (scanner, c);
    break;
  case XML_SCANNER_TAG:
    xml_scanner_step_tag (scanner, c);
    break;
  case XML_SCANNER_VALUE:
    scanner->place = c == scanner->quote ? XML_SCANNER_TAG : XML_SCANNER_VALUE;
    break;
  case XML_SCANNER_INSTRUCTION:
    scanner->place =
      scanner->previous == '?' && c == '>' ? XML_SCANNER_TEXT : XML_SCANNER_INSTRUCTION;
    scanner->previous = c;
    break;
  case XML_SCANNER_SECTION_BEGIN:
    xml_scanner_step_section_begin (scanner, c);
    break;
  case XML_SCANNER_COMMENT:
  case XML_SCANNER_CHARACTER_DATA:
    xml_scanner_step_section (scanner, c);
    break;
  case XML_SCANNER_DOCUMENT_TYPE:
    scanner->place = c == '>' ? XML_SCANNER_TEXT : XML_SCANNER_DOCUMENT_TYPE;
    break;
  }
}

// The bytes at the front that leave the scanner where it is.
static u64
xml_scanner_count_plain (const XMLScanner *scanner, String bytes)
{
  if (scanner->place == XML_SCANNER_TEXT) {
    return bytes.size - find_char (bytes, '<').size;
  }
  if (scanner->place == XML_SCANNER_VALUE) {
    return bytes.size - find_char (bytes, (char) scanner->quote).size;
  }
  return 0;
}

String
xml_scanner_feed_stanza (XMLScanner *scanner, String bytes)
{
  u64 count = scanner->stanzas_count;
  while (bytes.size && scanner->stanzas_count == count) {
    u64 size = xml_scanner_count_plain (scanner, bytes);
    if (!size) {
      xml_scanner_step (scanner, bytes.data[0]);
      size = 1;
    }
    bytes = string_advance (bytes, size);
    scanner->bytes_count += size;
    if (xml_scanner_is_complete (scanner)) {
      scanner->boundary = scanner->bytes_count;
    }
  }
  return bytes;
}

void
xml_scanner_feed (XMLScanner *scanner, String bytes)
{
  while (bytes.size) {
    bytes = xml_scanner_feed_stanza (scanner, bytes);
  }
}

bool
xml_scanner_is_complete (const XMLScanner *scanner)
{
  return scanner->place == XML_SCANNER_TEXT && scanner->depth == 0;
}
