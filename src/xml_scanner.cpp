// Stanza boundaries.
#include "xml_scanner.h"

#include <stdint.h>

#include "xml.h"

enum XMLScannerPlace {
  XML_SCANNER_TEXT,       // outside of tags
  XML_SCANNER_TAG_BEGIN,  // just behind "<"
  XML_SCANNER_TAG,        // inside a tag
  XML_SCANNER_VALUE,      // inside a quoted value
};

enum XMLScannerTag {
  XML_SCANNER_OPENING,  // or void, which shows at its end
  XML_SCANNER_CLOSING,
  XML_SCANNER_DECLARATION,
};

enum XMLScannerName {
  XML_SCANNER_BEFORE_NAME,
  XML_SCANNER_IN_NAME,
  XML_SCANNER_AFTER_NAME,
};

static const char XML_STREAM_NAME[] = "stream:stream";
static const u32 XML_STREAM_NAME_SIZE = sizeof (XML_STREAM_NAME) - 1;
// In `name_matched`: the name is another one. 0 means that the tag has no name at all.
static const u32 XML_NAME_DIFFERS = UINT32_MAX;

static void
xml_scanner_end_tag (XMLScanner *scanner)
{
  scanner->place = XML_SCANNER_TEXT;
  bool is_top_level = scanner->depth == 0;
  if (scanner->tag_kind == XML_SCANNER_CLOSING) {
    scanner->depth -= is_top_level ? 0 : 1;
    scanner->stanzas_count += scanner->depth == 0;
    return;
  }
  // Only the outermost "stream:stream" is the stream: inside a stanza it is a name like any other.
  // A tag without a name is none to the parser, which will refuse it; it opens nothing.
  bool is_stream = is_top_level && scanner->name_matched == XML_STREAM_NAME_SIZE;
  if (scanner->tag_kind == XML_SCANNER_DECLARATION || is_stream || !scanner->name_matched) {
    return;
  }
  if (scanner->previous == '/') {
    scanner->stanzas_count += is_top_level;
  } else {
    scanner->depth += 1;
  }
}

static void
xml_scanner_step_name (XMLScanner *scanner, u8 c)
{
  bool is_in_name = scanner->name_state == XML_SCANNER_IN_NAME ? is_xml_identifier_char (c)
                                                               : is_ascii_alpha_char (c);
  if (scanner->name_state == XML_SCANNER_AFTER_NAME ||
      (scanner->name_state == XML_SCANNER_BEFORE_NAME && c == ' ')) {
    return;
  }
  scanner->name_state = is_in_name ? XML_SCANNER_IN_NAME : XML_SCANNER_AFTER_NAME;
  if (is_in_name) {
    bool agrees = scanner->name_matched < XML_STREAM_NAME_SIZE &&
                  c == (u8) XML_STREAM_NAME[scanner->name_matched];
    scanner->name_matched = agrees ? scanner->name_matched + 1 : XML_NAME_DIFFERS;
  }
}

static void
xml_scanner_step_tag (XMLScanner *scanner, u8 c)
{
  if (c == '>') {
    xml_scanner_end_tag (scanner);
    return;
  }
  xml_scanner_step_name (scanner, c);
  if (c == '\'' || c == '"') {
    scanner->place = XML_SCANNER_VALUE;
    scanner->quote = c;
  }
  scanner->previous = c;
}

static void
xml_scanner_begin_tag (XMLScanner *scanner, u8 c)
{
  scanner->place = XML_SCANNER_TAG;
  scanner->name_state = XML_SCANNER_BEFORE_NAME;
  scanner->name_matched = 0;
  scanner->previous = 0;
  scanner->tag_kind = c == '/'   ? XML_SCANNER_CLOSING
                      : c == '?' ? XML_SCANNER_DECLARATION
                                 : XML_SCANNER_OPENING;
  if (scanner->tag_kind == XML_SCANNER_OPENING) {
    xml_scanner_step_tag (scanner, c);
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
  case XML_SCANNER_TAG:
    xml_scanner_step_tag (scanner, c);
    break;
  case XML_SCANNER_VALUE:
    scanner->place = c == scanner->quote ? XML_SCANNER_TAG : XML_SCANNER_VALUE;
    break;
  }
}

void
xml_scanner_feed (XMLScanner *scanner, String bytes)
{
  for (u64 index = 0; index < bytes.size; ++index) {
    xml_scanner_step (scanner, bytes.data[index]);
    scanner->bytes_count += 1;
    if (xml_scanner_is_complete (scanner)) {
      scanner->boundary = scanner->bytes_count;
    }
  }
}

bool
xml_scanner_is_complete (const XMLScanner *scanner)
{
  return scanner->place == XML_SCANNER_TEXT && scanner->depth == 0;
}
