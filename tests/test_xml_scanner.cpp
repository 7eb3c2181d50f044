// Stanza boundaries.
#include "xml_scanner.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>

#include "xml.h"

// Bytes in a heap block of exactly their size, so that the address sanitizer sees every read past
// the end.
struct ExactBytes {
  String string;
  ExactBytes (const std::string &text)
  {
    string = {(u8 *) malloc (text.size ()), text.size ()};
    memcpy (string.data, text.data (), text.size ());
  }
  ExactBytes (const ExactBytes &) = delete;
  ~ExactBytes ()
  {
    free (string.data);
  }
};

static void
feed (XMLScanner *scanner, const std::string &bytes)
{
  ExactBytes input (bytes);
  xml_scanner_feed (scanner, input.string);
}

// All that the scanner knows, for comparing.
static std::string
describe (const XMLScanner &scanner)
{
  std::string result;
  for (u64 value : {scanner.stanzas_count, scanner.boundary, scanner.bytes_count, scanner.depth,
                    (u64) scanner.name_matched, (u64) scanner.place, (u64) scanner.tag_kind,
                    (u64) scanner.name_state, (u64) scanner.quote, (u64) scanner.previous}) {
    result += std::to_string (value) + " ";
  }
  return result;
}

// The slow way: parse all that has come and see what is open.
static bool
is_complete_by_parsing (const std::string &bytes)
{
  ExactBytes text (bytes);
  static u8 arena[16384];
  XMLElement *unclosed;
  XMLElement *unopened;
  testing::internal::CaptureStdout ();
  XMLElement *tree = parse_xml_tree ({arena, sizeof (arena)}, text.string, &unclosed, &unopened);
  testing::internal::GetCapturedStdout ();
  if (unclosed) {
    return unclosed->name == "stream:stream" && !unclosed->parent;
  }
  bool is_empty = bytes.find_first_not_of (' ') == std::string::npos;
  return is_empty || tree || unopened;
}

struct ScanCase {
  std::string input;
  bool is_complete;
  u64 stanzas_count;
  u64 boundary;
};

class ScanTable : public testing::TestWithParam<ScanCase> {};

TEST_P (ScanTable, finds_this)
{
  XMLScanner scanner = {};
  feed (&scanner, GetParam ().input);
  EXPECT_EQ (xml_scanner_is_complete (&scanner), GetParam ().is_complete);
  EXPECT_EQ (scanner.stanzas_count, GetParam ().stanzas_count);
  EXPECT_EQ (scanner.boundary, GetParam ().boundary);
}

INSTANTIATE_TEST_SUITE_P (
  xml_scanner_feed, ScanTable,
  testing::Values (
    ScanCase{"", true, 0, 0}, ScanCase{" \n\t", true, 0, 3}, ScanCase{"<", false, 0, 0},
    ScanCase{"<a", false, 0, 0}, ScanCase{"<a>", false, 0, 0}, ScanCase{"<a/>", true, 1, 4},
    ScanCase{"<a/> ", true, 1, 5}, ScanCase{"<a/><", false, 1, 4}, ScanCase{"<a></a>", true, 1, 7},
    ScanCase{"<a></a", false, 0, 0}, ScanCase{"<a><b/></a>", true, 1, 11},
    ScanCase{"<a><b></b>", false, 0, 0}, ScanCase{"<a x='>'", false, 0, 0},
    ScanCase{"<a x='/>'>", false, 0, 0}, ScanCase{"<a x='/'>", false, 0, 0},
    ScanCase{"<a x='/'/>", true, 1, 10}, ScanCase{"<a x='it\"s'/>", true, 1, 13},
    ScanCase{"<a x='", false, 0, 0}, ScanCase{"<a x=\"'\"/>", true, 1, 10},
    ScanCase{"<a>x > y ' \" / </a>", true, 1, 19}, ScanCase{"it's <a/>", true, 1, 9},
    ScanCase{"<a/>it's > ", true, 1, 11}, ScanCase{"<?xml version='1.0'?>", true, 0, 21},
    ScanCase{"<?xml version='1.0'", false, 0, 0}, ScanCase{"<?xml version='?>'", false, 0, 0},
    ScanCase{"<stream:stream>", true, 0, 15}, ScanCase{"<stream:stream to='x'", false, 0, 0},
    ScanCase{"<stream:stream to='x' >", true, 0, 23}, ScanCase{"< stream:stream>", true, 0, 16},
    ScanCase{"<stream:stream><a/><b></b>", true, 2, 26},
    ScanCase{"<stream:stream><a>", false, 0, 15}, ScanCase{"</stream:stream>", true, 1, 16},
    ScanCase{"<stream:stream></stream:stream>", true, 1, 31},
    ScanCase{"<stream:error><x/></stream:error></stream:stream>", true, 2, 49},
    ScanCase{"</a></b><c/>", true, 3, 12}, ScanCase{"</a></b><c>", false, 2, 8},
    ScanCase{"<stream:streams>", false, 0, 0}, ScanCase{"<stream:strea>", false, 0, 0},
    ScanCase{"<stream:features>", false, 0, 0}, ScanCase{"<xstream:stream>", false, 0, 0},
    ScanCase{"<sstream:stream>", false, 0, 0}, ScanCase{"<a stream:stream='1'>", false, 0, 0},
    ScanCase{"<a><stream:stream></stream:stream>", false, 0, 0},
    ScanCase{"<a><stream:stream></stream:stream></a>", true, 1, 38},
    ScanCase{"<!-- no > name", true, 0, 14},
    ScanCase{std::string ("<a\0>\0</a>\0", 10), true, 1, 10},
    ScanCase{std::string ("\0\0<\0", 4), false, 0, 2}));

static const std::string SCAN_CORPUS[] = {
  "<?xml version='1.0'?><stream:stream to='a.b' xmlns:stream='http://x/y' version='1.0'>"
  "<stream:features><starttls xmlns='urn'><required/></starttls></stream:features>",
  "<message to='a@b' from=\"c@d/e\" id='1'><body>it's > this, or that? \"yes\" / no</body>"
  "</message>"
  "<presence/><iq type='result' id='2'><query xmlns='jabber:iq:roster'><item jid='x'/>"
  "</query></iq>",
  "<a x='>' y='</a>' z=\"<b>\"><b/>text</a> <c></c>\n<d></d>  ",
  "<stream:error><not-authorized/></stream:error></stream:stream>",
  "<?xml version='?>'?><stream:stream><a><a><a></a></a></a><stream:x/><a/>tail</stream:stream>",
  "< a  b = 'c' />< stream:stream >< d ></ d >",
  "<a><?b c='d'?></a><stream:stream><a>",
  "</a></b><c><d/></c>",
};

TEST (xml_scanner_feed, gives_the_same_for_every_cut_in_two)
{
  for (const std::string &text : SCAN_CORPUS) {
    XMLScanner whole = {};
    feed (&whole, text);
    for (u64 cut = 0; cut <= text.size (); ++cut) {
      XMLScanner scanner = {};
      feed (&scanner, text.substr (0, cut));
      feed (&scanner, text.substr (cut));
      ASSERT_EQ (describe (scanner), describe (whole)) << text << " cut at " << cut;
    }
  }
}

TEST (xml_scanner_feed, gives_the_same_byte_by_byte_and_for_random_cuts)
{
  std::mt19937 random (7);
  for (const std::string &text : SCAN_CORPUS) {
    XMLScanner whole = {};
    feed (&whole, text);
    for (u32 size_max : {1, 2, 5, 30}) {
      XMLScanner scanner = {};
      for (u64 start = 0, size = 0; start < text.size (); start += size) {
        size = 1 + random () % size_max;
        feed (&scanner, text.substr (start, size));
      }
      EXPECT_EQ (describe (scanner), describe (whole)) << text;
    }
  }
}

TEST (xml_scanner_is_complete, agrees_with_the_parser_after_every_byte)
{
  for (const std::string &text : SCAN_CORPUS) {
    XMLScanner scanner = {};
    u64 boundary = 0;
    for (u64 size = 1; size <= text.size (); ++size) {
      feed (&scanner, text.substr (size - 1, 1));
      bool expected = is_complete_by_parsing (text.substr (0, size));
      ASSERT_EQ (xml_scanner_is_complete (&scanner), expected) << text.substr (0, size);
      boundary = expected ? size : boundary;
      ASSERT_EQ (scanner.boundary, boundary);
    }
  }
}

// A random element of at most `depth` levels.
static std::string
random_element (std::mt19937 *random, u32 depth)
{
  const char *names[] = {"a", "message", "stream:error", "stream:streams", "stream:strea", "b-9"};
  const char *attributes[] = {"", " x='1'", " x='/>' y=\">\"", " y=\"it's\" ", " z='</a>'"};
  const char *texts[] = {"", "x", " > ", "it's", "\"", "/", "?>", "\n", "  "};
  std::string name = names[(*random) () % 6];
  std::string tag = "<" + name + attributes[(*random) () % 5];
  if ((*random) () % 3 == 0) {
    return tag + "/>";
  }
  std::string result = tag + ">" + texts[(*random) () % 9];
  for (u32 count = depth ? (*random) () % 3 : 0; count > 0; --count) {
    result += random_element (random, depth - 1) + texts[(*random) () % 9];
  }
  return result + "</" + name + ">";
}

// Sequences of whole stanzas: complete exactly at the ends of stanzas, and in the text between
// them.
TEST (xml_scanner_is_complete, is_true_exactly_at_the_ends_of_stanzas)
{
  std::mt19937 random (8);
  for (u32 round = 0; round < 300; ++round) {
    XMLScanner scanner = {};
    if (random () % 2) {
      feed (&scanner, "<?xml version='1.0'?><stream:stream to='x'>");
      ASSERT_TRUE (xml_scanner_is_complete (&scanner));
    }
    for (u64 stanza = 1; stanza <= 4; ++stanza) {
      std::string text = random_element (&random, 3);
      for (u64 index = 0; index < text.size (); ++index) {
        feed (&scanner, text.substr (index, 1));
        bool is_end = index + 1 == text.size ();
        ASSERT_EQ (xml_scanner_is_complete (&scanner), is_end) << text;
        ASSERT_EQ (scanner.stanzas_count, stanza - !is_end) << text;
      }
      feed (&scanner, random () % 2 ? "\n it's > " : "");
      ASSERT_TRUE (xml_scanner_is_complete (&scanner));
      ASSERT_EQ (scanner.boundary, scanner.bytes_count);
    }
  }
}

TEST (xml_scanner_is_complete, agrees_with_the_parser_on_random_stanzas)
{
  std::mt19937 random (9);
  for (u32 round = 0; round < 15; ++round) {
    std::string text =
      "<stream:stream>" + random_element (&random, 2) + random_element (&random, 2);
    XMLScanner scanner = {};
    for (u64 size = 1; size <= text.size (); ++size) {
      feed (&scanner, text.substr (size - 1, 1));
      ASSERT_EQ (xml_scanner_is_complete (&scanner), is_complete_by_parsing (text.substr (0, size)))
        << text.substr (0, size);
    }
  }
}

TEST (xml_scanner_feed, takes_nothing)
{
  XMLScanner scanner = {};
  xml_scanner_feed (&scanner, {});
  EXPECT_TRUE (xml_scanner_is_complete (&scanner));
  EXPECT_EQ (scanner.bytes_count, 0u);
}
