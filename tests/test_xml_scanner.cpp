// Stanza boundaries.
#include "xml_scanner.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "expat_stanzas.h"

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
                    (u64) scanner.matched, (u64) scanner.place, (u64) scanner.is_closing,
                    (u64) scanner.quote, (u64) scanner.previous}) {
    result += std::to_string (value) + " ";
  }
  return result;
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
    ScanCase{"<?xml version='1.0'", false, 0, 0}, ScanCase{"<?xml version='1.0'?", false, 0, 0},
    ScanCase{"<?a?b?>", true, 0, 7}, ScanCase{"<?>", false, 0, 0},
    ScanCase{"<?a it's > ?>", true, 0, 13}, ScanCase{"<stream:stream>", true, 0, 15},
    ScanCase{"<stream:stream to='x'", false, 0, 0},
    ScanCase{"<stream:stream to='x' >", true, 0, 23}, ScanCase{"<stream:stream\n>", true, 0, 16},
    ScanCase{"<stream:stream_>", false, 0, 0}, ScanCase{"<stream:stream.>", false, 0, 0},
    ScanCase{"<stream:stream/>", true, 0, 16}, ScanCase{"<stream:stream><a/><b></b>", true, 2, 26},
    ScanCase{"<stream:stream><a>", false, 0, 15}, ScanCase{"</stream:stream>", true, 1, 16},
    ScanCase{"<stream:stream></stream:stream>", true, 1, 31},
    ScanCase{"<stream:error><x/></stream:error></stream:stream>", true, 2, 49},
    ScanCase{"</a></b><c/>", true, 3, 12}, ScanCase{"</a></b><c>", false, 2, 8},
    ScanCase{"<stream:streams>", false, 0, 0}, ScanCase{"<stream:strea>", false, 0, 0},
    ScanCase{"<stream:features>", false, 0, 0}, ScanCase{"<xstream:stream>", false, 0, 0},
    ScanCase{"<sstream:stream>", false, 0, 0}, ScanCase{"<a stream:stream='1'>", false, 0, 0},
    ScanCase{"<a><stream:stream></stream:stream>", false, 0, 0},
    ScanCase{"<a><stream:stream></stream:stream></a>", true, 1, 38}, ScanCase{"<_>", false, 0, 0},
    ScanCase{"<_/>", true, 1, 4}, ScanCase{"<_></_>", true, 1, 7},
    ScanCase{"<:a/><\u00e9a/><a.b/>", true, 3, 17}, ScanCase{"<a><_x>t</_x>", false, 0, 0},
    ScanCase{"<a><_x>t</_x></a>", true, 1, 17}, ScanCase{"<a><\u00e9/></a >", true, 1, 13},
    ScanCase{"<a\t/>", true, 1, 5}, ScanCase{"<a></a\n>", true, 1, 8},
    ScanCase{"<!-- > -- >", false, 0, 0}, ScanCase{"<!-- <a> -->", true, 0, 12},
    ScanCase{"<!--->", false, 0, 0}, ScanCase{"<!-->", false, 0, 0},
    ScanCase{"<!---->", true, 0, 7}, ScanCase{"<a><![CDATA[</a>", false, 0, 0},
    ScanCase{"<a><![CDATA[</a>]]>", false, 0, 0}, ScanCase{"<a><![CDATA[</a>]]]></a>", true, 1, 24},
    ScanCase{"<![CDATA[]]>", true, 0, 12}, ScanCase{"<![CDAT>", true, 0, 8},
    ScanCase{"<!DOCTYPE a", false, 0, 0}, ScanCase{"<!DOCTYPE a>", true, 0, 12},
    ScanCase{"<!>", true, 0, 3}, ScanCase{std::string ("<a\0>\0</a>\0", 10), true, 1, 10},
    ScanCase{std::string ("\0\0<\0", 4), false, 0, 2}));

static const std::string SCAN_CORPUS[] = {
  "<?xml version='1.0'?><stream:stream to='a.b' xmlns:stream='http://x/y' version='1.0'>"
  "<stream:features><starttls xmlns='urn'><required/></starttls></stream:features>",
  "<message to='a@b' from=\"c@d/e\" id='1'><body>it's > this, or that? \"yes\" / no</body>"
  "</message>"
  "<presence/><iq type='result' id='2'><query xmlns='jabber:iq:roster'><item jid='x'/>"
  "</query></iq>",
  "<a x='>' y='&lt;/a>' z=\"b>\"><b/>text</a> <c></c>\n<d></d>  ",
  "<stream:error><not-authorized/></stream:error></stream:stream>",
  "<a><a><a></a></a></a><stream:x/><a/>tail",
  "<_a.b-c\n d = '\n'\t><\u00e9/><:e/>&amp;</_a.b-c ><a><?b it's?><!-- it's > --></a>",
  "<a><![CDATA[</a>]]]]><![CDATA[>]]></a><b/>",
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

// ---- Against expat ----

// Feeds the text in pieces of 1 to `size_max` bytes and checks the state after each against what
// expat has read. What stands behind the last stanza may be unfinished.
static void
check_against_expat (const std::string &text, const ExpatStanzas &read, u64 size_max,
                     std::mt19937 *random)
{
  size_t checked_size = read.stanzas.empty () ? 0 : read.stanzas.back ().end;
  XMLScanner scanner = {};
  for (u64 start = 0, size = 0; start < checked_size; start += size) {
    size = std::min<u64> (1 + (*random) () % size_max, checked_size - start);
    feed (&scanner, text.substr (start, size));
    u64 ended_count = 0;
    for (const StanzaSpan &stanza : read.stanzas) {
      ended_count += stanza.end <= start + size;
    }
    ASSERT_EQ (scanner.stanzas_count, ended_count) << text << "\nafter " << start + size;
    ASSERT_EQ (xml_scanner_is_complete (&scanner), is_between_stanzas (read, start + size))
      << text << "\nafter " << start + size;
    ASSERT_TRUE (!xml_scanner_is_complete (&scanner) || scanner.boundary == start + size);
  }
}

// The ends that the scanner finds when it is asked for one stanza after the other.
static std::vector<size_t>
find_stanza_ends (const std::string &text)
{
  ExactBytes input (text);
  XMLScanner scanner = {};
  std::vector<size_t> ends;
  String rest = xml_scanner_feed_stanza (&scanner, input.string);
  while (scanner.stanzas_count > ends.size ()) {
    ends.push_back (text.size () - rest.size);
    rest = xml_scanner_feed_stanza (&scanner, rest);
  }
  return ends;
}

static std::string
one_of (std::mt19937 *random, const std::vector<std::string> &choices)
{
  return choices[(*random) () % choices.size ()];
}

// What may stand between tags.
static std::string
random_content (std::mt19937 *random)
{
  return one_of (random, {"", "", "x", " > ", "it's", "\"", "/", "?>", "\n", "  ", "&lt;a>", "]]",
                          "\u00e9\U0001f600", "<!-- </a> it's > -->", "<?b it's </a> >?>",
                          "<![CDATA[</a>]]>", "<![CDATA[<!--]]]]><![CDATA[>]]>", "--", "=\t"});
}

// A random element of at most `depth` levels, with all that XML 1.0 allows in it.
static std::string
random_element (std::mt19937 *random, u32 depth)
{
  std::string name =
    one_of (random, {"a", "message", "_", "_x", "stream:error", "stream:streams", "stream:strea",
                     "b-9", "x.y", ":z", "\u00e9", "a\u00e9_", "stream:stream_"});
  if (depth < 3 && (*random) () % 10 == 0) {
    name = "stream:stream";
  }
  std::string space = one_of (random, {" ", "\n", "\t ", "\r\n"});
  std::string tag = "<" + name +
                    one_of (random, {"", space + "x='1'", space + "x='/>'" + space + "y=\">'\"",
                                     space + "_y=\"it's\"" + space, space + "z='&lt;/a>/'",
                                     space + "u" + space + "=" + space + "'\"'", space});
  if ((*random) () % 3 == 0) {
    return tag + "/>";
  }
  std::string result = tag + ">" + random_content (random);
  for (u32 count = depth ? (*random) () % 3 : 0; count > 0; --count) {
    result += random_element (random, depth - 1) + random_content (random);
  }
  return result + "</" + name + one_of (random, {"", " ", "\n"}) + ">";
}

TEST (xml_scanner_feed, finds_the_stanzas_that_expat_finds)
{
  std::mt19937 random (8);
  for (u32 round = 0; round < 2000; ++round) {
    std::string text;
    for (u32 count = 1 + random () % 4; count > 0; --count) {
      text += random_content (&random) + random_element (&random, 3);
    }
    ExpatStanzas read = read_stanzas_by_expat (text);
    ASSERT_FALSE (read.is_refused) << text;
    for (u64 size_max : {1, 10, 40, 10000}) {
      ASSERT_NO_FATAL_FAILURE (check_against_expat (text, read, size_max, &random));
    }
    std::vector<size_t> ends;
    for (const StanzaSpan &stanza : read.stanzas) {
      ends.push_back (stanza.end);
    }
    ASSERT_EQ (find_stanza_ends (text), ends) << text;
  }
}

// Bytes changed at random: what expat takes in front of the place that it refuses is found as well.
TEST (xml_scanner_feed, finds_the_stanzas_in_front_of_what_expat_refuses)
{
  std::mt19937 random (9);
  const std::string bytes = "<>/'\"!?-[]= _a&;";
  u32 refused_count = 0;
  u32 stanzas_count = 0;
  for (u32 round = 0; round < 5000; ++round) {
    std::string text = random_element (&random, 1) + random_element (&random, 2);
    for (u32 count = 1 + random () % 3; count > 0; --count) {
      text[random () % text.size ()] = bytes[random () % bytes.size ()];
    }
    ExpatStanzas read = read_stanzas_by_expat (text);
    refused_count += read.is_refused;
    stanzas_count += (u32) read.stanzas.size ();
    ASSERT_NO_FATAL_FAILURE (check_against_expat (text, read, 10, &random));
  }
  EXPECT_GT (refused_count, 1000u);
  EXPECT_GT (stanzas_count, 1000u);
}

// A stranger's message whose tags the tree parser refuses, and what it would like to have said by
// somebody else.
TEST (xml_scanner_feed, lets_no_stanza_out_of_another_one)
{
  for (std::string name : {"_x", "\u00e9", ":x", "x_", "_"}) {
    std::string text = "<message from='eve@alpha.test/e'><" + name + ">t</" + name + ">" +
                       std::string (20000, ' ') +
                       "<message from='anna@alpha.test/a'><body>I agree</body></message>"
                       "</message>";
    EXPECT_EQ (find_stanza_ends (text), std::vector<size_t>{text.size ()}) << name;
  }
}

TEST (xml_scanner_feed_stanza, stops_behind_the_first_stanza)
{
  XMLScanner scanner = {};
  ExactBytes input ("b</a> <c/>");
  feed (&scanner, "<a>");
  String rest = xml_scanner_feed_stanza (&scanner, input.string);
  EXPECT_EQ (rest.data, input.string.data + 5);
  EXPECT_EQ (rest.size, 5u);
  EXPECT_EQ (scanner.stanzas_count, 1u);
  rest = xml_scanner_feed_stanza (&scanner, rest);
  EXPECT_EQ (rest.size, 0u);
  EXPECT_EQ (scanner.stanzas_count, 2u);
}

TEST (xml_scanner_feed, takes_nothing)
{
  XMLScanner scanner = {};
  xml_scanner_feed (&scanner, {});
  EXPECT_TRUE (xml_scanner_is_complete (&scanner));
  EXPECT_EQ (scanner.bytes_count, 0u);
}
