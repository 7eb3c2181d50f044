// The XML reader: tokens, trees, console output, escaping.
#include "xml.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "morvane.h"
#include "xml_dump.h"

// Bytes in a heap block of exactly their size, so that the address sanitizer sees every read past
// the end; `offset` moves them off the block's alignment.
struct ExactBytes {
  u8 *block;
  String string;
  ExactBytes (const std::string &text) : ExactBytes (text.size (), 0)
  {
    memcpy (string.data, text.data (), text.size ());
  }
  ExactBytes (u64 size, u64 offset)
  {
    block = (u8 *) malloc (size + offset);
    string = {block + offset, size};
  }
  ExactBytes (const ExactBytes &) = delete;
  ~ExactBytes ()
  {
    free (block);
  }
  Buffer buffer ()
  {
    return {string.data, string.size};
  }
};

static std::string
to_std (String string)
{
  return std::string ((const char *) string.data, string.size);
}

static std::string
repeat (const std::string &text, u64 count)
{
  std::string result;
  for (u64 index = 0; index < count; ++index) {
    result += text;
  }
  return result;
}

// Alternates the display name and the text of each token, up to the end of the input.
static std::vector<std::string>
get_all_tokens (const std::string &text)
{
  ExactBytes input (text);
  std::vector<std::string> result;
  String rest = input.string;
  XMLToken token;
  for (rest = get_token (rest, &token); token.text.data; rest = get_token (rest, &token)) {
    result.push_back (XML_TOKEN_TYPE_STRINGS[token.type]);
    result.push_back (to_std (token.text));
  }
  EXPECT_EQ (rest.size, 0u);
  EXPECT_EQ (token.type, XML_TOKEN_UNKNOWN);
  EXPECT_EQ (token.text.size, 0u);
  return result;
}

typedef std::vector<std::string> Tokens;

// ---- Tokenizer ----

TEST (xml_token_type_strings, are_the_enumerators_in_their_order)
{
  const char *names[] = {
    "UNKNOWN",         "TAG_START",  "TAG_END", "VOID_TAG_END",        "CLOSING_TAG_START",
    "IDENTIFIER",      "EQUALS",     "STRING",  "UNTERMINATED_STRING", "DOCTYPE_TAG_START",
    "DOCTYPE_TAG_END", "INNER_TEXT",
  };
  ASSERT_EQ (XML_TOKEN_INNER_TEXT, 11);
  ASSERT_EQ (sizeof (XMLTokenType), 4u);
  for (u32 index = 0; index < 12; ++index) {
    EXPECT_STREQ (XML_TOKEN_TYPE_STRINGS[index], names[index]);
  }
}

TEST (xml_token_type, values_are_numbered_from_zero)
{
  EXPECT_EQ (XML_TOKEN_UNKNOWN, 0);
  EXPECT_EQ (XML_TOKEN_TAG_START, 1);
  EXPECT_EQ (XML_TOKEN_TAG_END, 2);
  EXPECT_EQ (XML_TOKEN_VOID_TAG_END, 3);
  EXPECT_EQ (XML_TOKEN_CLOSING_TAG_START, 4);
  EXPECT_EQ (XML_TOKEN_IDENTIFIER, 5);
  EXPECT_EQ (XML_TOKEN_EQUALS, 6);
  EXPECT_EQ (XML_TOKEN_STRING, 7);
  EXPECT_EQ (XML_TOKEN_UNTERMINATED_STRING, 8);
  EXPECT_EQ (XML_TOKEN_DOCTYPE_TAG_START, 9);
  EXPECT_EQ (XML_TOKEN_DOCTYPE_TAG_END, 10);
}

TEST (is_ascii_alpha_char, takes_the_letters_and_nothing_else)
{
  std::string letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  for (u32 c = 0; c < 256; ++c) {
    EXPECT_EQ (is_ascii_alpha_char ((u8) c), letters.find ((char) c) != std::string::npos) << c;
  }
}

TEST (is_xml_identifier_char, takes_letters_digits_colon_and_hyphen)
{
  std::string others = "0123456789:-";
  for (u32 c = 0; c < 256; ++c) {
    bool expected = is_ascii_alpha_char ((u8) c) || others.find ((char) c) != std::string::npos;
    EXPECT_EQ (is_xml_identifier_char ((u8) c), expected) << c;
  }
}

struct TokenCase {
  const char *input;
  Tokens tokens;
};

class GetTokenTable : public testing::TestWithParam<TokenCase> {};

TEST_P (GetTokenTable, cuts_these_tokens)
{
  testing::internal::CaptureStdout ();
  Tokens tokens = get_all_tokens (GetParam ().input);
  std::string output = testing::internal::GetCapturedStdout ();
  EXPECT_EQ (tokens, GetParam ().tokens);
  u64 unknown_count = 0;
  for (u64 index = 0; index < tokens.size (); index += 2) {
    unknown_count += tokens[index] == "UNKNOWN";
  }
  EXPECT_EQ (output, repeat ("->>>>>XML_TOKEN_UNKNOWN\n", unknown_count));
}

INSTANTIATE_TEST_SUITE_P (
  get_token, GetTokenTable,
  testing::Values (
    TokenCase{"", {}}, TokenCase{"   ", {}},
    TokenCase{"  <a", {"TAG_START", "<", "IDENTIFIER", "a"}}, TokenCase{"<", {"TAG_START", "<"}},
    TokenCase{"</", {"CLOSING_TAG_START", "</"}}, TokenCase{"<?", {"DOCTYPE_TAG_START", "<?"}},
    TokenCase{"< /", {"TAG_START", "<", "UNKNOWN", "/"}},
    TokenCase{"<</", {"TAG_START", "<", "CLOSING_TAG_START", "</"}},
    TokenCase{"/>", {"VOID_TAG_END", "/>"}}, TokenCase{">", {"TAG_END", ">"}},
    TokenCase{"/ >", {"UNKNOWN", "/", "TAG_END", ">"}}, TokenCase{"=", {"EQUALS", "="}},
    TokenCase{"?>", {"DOCTYPE_TAG_END", "?>"}},
    TokenCase{"stream:stream xmlns:stream='x'",
              {"IDENTIFIER", "stream:stream", "IDENTIFIER", "xmlns:stream", "EQUALS", "=", "STRING",
               "x"}},
    TokenCase{"x-clause9", {"IDENTIFIER", "x-clause9"}}, TokenCase{"'it\"s'", {"STRING", "it\"s"}},
    TokenCase{"\"it's\"", {"STRING", "it's"}}, TokenCase{"''", {"STRING", ""}},
    TokenCase{"'a&amp;b'", {"STRING", "a&amp;b"}},
    TokenCase{"'<a>'>", {"STRING", "<a>", "TAG_END", ">"}},
    TokenCase{"\"abc", {"UNTERMINATED_STRING", "abc"}},
    TokenCase{"'a\"", {"UNTERMINATED_STRING", "a\""}}, TokenCase{"'", {"UNTERMINATED_STRING", ""}},
    TokenCase{"\n", {"UNKNOWN", "\n"}}, TokenCase{"\t\r", {"UNKNOWN", "\t", "UNKNOWN", "\r"}},
    TokenCase{"/x", {"UNKNOWN", "/", "IDENTIFIER", "x"}}, TokenCase{"/", {"UNKNOWN", "/"}},
    TokenCase{"?", {"UNKNOWN", "?"}}, TokenCase{"?x", {"UNKNOWN", "?", "IDENTIFIER", "x"}},
    TokenCase{"_a", {"UNKNOWN", "_", "IDENTIFIER", "a"}},
    TokenCase{"a_b", {"IDENTIFIER", "a", "UNKNOWN", "_", "IDENTIFIER", "b"}},
    TokenCase{"a.b", {"IDENTIFIER", "a", "UNKNOWN", ".", "IDENTIFIER", "b"}},
    TokenCase{"9a", {"UNKNOWN", "9", "IDENTIFIER", "a"}},
    TokenCase{":a", {"UNKNOWN", ":", "IDENTIFIER", "a"}},
    TokenCase{"-a", {"UNKNOWN", "-", "IDENTIFIER", "a"}}, TokenCase{"&", {"UNKNOWN", "&"}},
    TokenCase{"a\xC3\xA9", {"IDENTIFIER", "a", "UNKNOWN", "\xC3", "UNKNOWN", "\xA9"}}));

TEST (get_token, gives_a_token_without_data_at_the_end)
{
  ExactBytes input ("   ");
  XMLToken token = {{input.string.data, 3}, XML_TOKEN_STRING};
  String rest = get_token (input.string, &token);
  EXPECT_EQ (rest.size, 0u);
  EXPECT_EQ (token.type, XML_TOKEN_UNKNOWN);
  EXPECT_EQ (token.text.data, nullptr);
  EXPECT_EQ (token.text.size, 0u);
}

TEST (get_token, takes_input_without_data)
{
  XMLToken token = {};
  String rest = get_token ({}, &token);
  EXPECT_EQ (rest.size, 0u);
  EXPECT_EQ (token.text.data, nullptr);
}

TEST (get_token, gives_an_empty_string_data_so_that_it_is_not_the_end)
{
  ExactBytes input ("''");
  XMLToken token = {};
  get_token (input.string, &token);
  EXPECT_EQ (token.type, XML_TOKEN_STRING);
  EXPECT_EQ (token.text.size, 0u);
  EXPECT_NE (token.text.data, nullptr);
}

TEST (get_token, returns_views_of_its_input)
{
  ExactBytes input (" 'abc' x");
  XMLToken token = {};
  String rest = get_token (input.string, &token);
  EXPECT_EQ (token.text.data, input.string.data + 2);
  EXPECT_EQ (rest.data, input.string.data + 6);
  EXPECT_EQ (rest.size, 2u);
}

TEST (get_token, reads_a_zero_byte_as_unknown)
{
  testing::internal::CaptureStdout ();
  Tokens tokens = get_all_tokens (std::string ("<\0", 2));
  testing::internal::GetCapturedStdout ();
  EXPECT_EQ (tokens, (Tokens{"TAG_START", "<", "UNKNOWN", std::string (1, '\0')}));
}

TEST (get_token, leaves_no_byte_out_but_spaces_and_quotes)
{
  std::mt19937 random (1);
  const std::string alphabet = "<>/?='\" ab:-9\n&";
  testing::internal::CaptureStdout ();
  for (u32 round = 0; round < 5000; ++round) {
    std::string text;
    for (u32 size = random () % 20; size > 0; --size) {
      text += alphabet[random () % alphabet.size ()];
    }
    ExactBytes input (text);
    String rest = input.string;
    XMLToken token;
    while (true) {
      u8 *before = rest.data;
      rest = get_token (rest, &token);
      if (!token.text.data) {
        break;
      }
      bool is_string = token.type == XML_TOKEN_STRING;
      ASSERT_EQ (rest.data, token.text.data + token.text.size + is_string) << text;
      for (u8 *c = before; c < token.text.data - is_string; ++c) {
        bool is_quote = token.type == XML_TOKEN_UNTERMINATED_STRING;
        ASSERT_TRUE (*c == ' ' || (is_quote && c == token.text.data - 1)) << text;
      }
    }
    ASSERT_EQ (rest.data + rest.size, input.string.data + input.string.size);
  }
  testing::internal::GetCapturedStdout ();
}

TEST (get_token, stops_the_program_without_a_token)
{
  ExactBytes input ("<a");
  EXPECT_DEATH (get_token (input.string, NULL),
                "src/xml\\.cpp.*String get_token\\(String, XMLToken\\*\\).*`token_out'");
}

TEST (console_put_xml_token, dumps_type_and_text)
{
  ExactBytes input ("'abc'");
  XMLToken token;
  get_token (input.string, &token);
  testing::internal::CaptureStdout ();
  CONSOLE_DUMP (token);
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "token: STRING: \"abc\"\n");
}

TEST (console_put_xml_token, dumps_the_end_of_input)
{
  XMLToken token;
  get_token ({}, &token);
  testing::internal::CaptureStdout ();
  CONSOLE_DUMP (token);
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "token: UNKNOWN: \"\"\n");
}

// ---- Tree ----

// A tree in one line: "name[attribute=value](children)", "/" behind a void element's name and "?"
// behind a declaration's, texts in quotes. Checks the links on its way.
static std::string
describe (XMLElement *node, XMLElement *parent)
{
  std::string result;
  for (; node; node = node->next) {
    result += result.empty () ? "" : " ";
    if (node->text.size) {
      EXPECT_EQ (node->name.size, 0u);
      EXPECT_EQ (node->parent, nullptr);
      EXPECT_EQ (node->attributes, nullptr);
      result += "'" + to_std (node->text) + "'";
      continue;
    }
    EXPECT_EQ (node->parent, parent);
    result += to_std (node->name) + (node->is_void ? "/" : "") + (node->is_doctype ? "?" : "");
    for (XMLAttribute *attribute = node->attributes; attribute; attribute = attribute->next) {
      result += "[" + to_std (attribute->name) + "=" + to_std (attribute->value) + "]";
    }
    if (node->children) {
      result += "(" + describe (node->children, node) + ")";
    }
  }
  return result;
}

// One parse with everything that came of it.
struct Parsed {
  ExactBytes arena;
  ExactBytes text;
  XMLElement *tree;
  XMLElement *unclosed;
  XMLElement *unopened;
  std::string console;

  Parsed (const std::string &source, bool with_outs = true, u64 arena_size = 16384)
      : arena (arena_size, 0), text (source)
  {
    unclosed = NULL;
    unopened = NULL;
    testing::internal::CaptureStdout ();
    tree = parse_xml_tree (arena.buffer (), text.string, with_outs ? &unclosed : NULL,
                           with_outs ? &unopened : NULL);
    console = testing::internal::GetCapturedStdout ();
  }
  std::string tree_text ()
  {
    return describe (tree, NULL);
  }
};

struct TreeCase {
  const char *input;
  const char *tree;
  const char *unclosed;  // names from the innermost outwards, a space behind each
  const char *unopened;  // names in order, a space behind each
};

class ParseTable : public testing::TestWithParam<TreeCase> {};

TEST_P (ParseTable, gives_this_tree)
{
  Parsed parsed (GetParam ().input);
  EXPECT_EQ (parsed.console, "");
  EXPECT_EQ (parsed.tree_text (), GetParam ().tree);
  std::string unclosed;
  for (XMLElement *element = parsed.unclosed; element; element = element->parent) {
    unclosed += to_std (element->name) + " ";
  }
  EXPECT_EQ (unclosed, GetParam ().unclosed);
  std::string unopened;
  for (XMLElement *element = parsed.unopened; element; element = element->next) {
    EXPECT_EQ (element->parent, nullptr);
    EXPECT_EQ (element->children, nullptr);
    unopened += to_std (element->name) + " ";
  }
  EXPECT_EQ (unopened, GetParam ().unopened);
}

INSTANTIATE_TEST_SUITE_P (
  parse_xml_tree, ParseTable,
  testing::Values (
    TreeCase{"", "", "", ""}, TreeCase{"   ", "", "", ""},
    TreeCase{"<a x='1'><b/>hi</a>", "a[x=1](b/ 'hi')", "", ""},
    TreeCase{"<?xml version='1.0'?><stream:stream to='s'>", "xml?[version=1.0] stream:stream[to=s]",
             "stream:stream ", ""},
    TreeCase{"<?xml version='1.0'?><a/>", "xml?[version=1.0] a/", "", ""},
    TreeCase{"</stream:stream>", "", "", "stream:stream "},
    TreeCase{"<a>  x  </a>", "a('x  ')", "", ""}, TreeCase{"<a>   </a>", "a", "", ""},
    TreeCase{"<a>\n x</a>", "a('\n x')", "", ""},
    TreeCase{"<a>x > y = 'z' / ?> \"</a>", "a('x > y = 'z' / ?> \"')", "", ""},
    TreeCase{"<a>&lt;</a>", "a('&lt;')", "", ""}, TreeCase{"<a/>tail", "a/ 'tail'", "", ""},
    TreeCase{"<a></a>tail<b/>", "a 'tail' b/", "", ""}, TreeCase{"<a/>  ", "a/", "", ""},
    TreeCase{"<a>text to the end", "a('text to the end')", "a ", ""},
    TreeCase{"<a></a><b/><c></c>", "a b/ c", "", ""},
    TreeCase{"<a><b><c/></b><d></d></a>", "a(b(c/) d)", "", ""},
    TreeCase{"<a><b><c>", "a(b(c))", "c b a ", ""},
    TreeCase{"<a><b></b><c>x", "a(b c('x'))", "c a ", ""},
    TreeCase{"</a></b><c/></d>", "c/", "", "a b d "}, TreeCase{"</a><b>", "b", "b ", "a "},
    TreeCase{"<a x='1' y=\"it's\" x='2'/>", "a/[x=1][y=it's][x=2]", "", ""},
    TreeCase{"< a x = '' />", "a/[x=]", "", ""}, TreeCase{"</ a >", "", "", "a "},
    TreeCase{"<a><?b?></a>", "a(b?)", "", ""},
    TreeCase{"<a><b/>x<c/>y</a>", "a(b/ 'x' c/ 'y')", "", ""},
    TreeCase{"<stream:stream><stream:features><a/></stream:features>",
             "stream:stream(stream:features(a/))", "stream:stream ", ""},
    TreeCase{"<stream:error><x/></stream:error></stream:stream>", "stream:error(x/)", "",
             "stream:stream "}));

struct WarningCase {
  const char *input;
  const char *console;
};

class ParseWarnings : public testing::TestWithParam<WarningCase> {};

TEST_P (ParseWarnings, says_what_is_wrong_and_gives_nothing)
{
  Parsed parsed (GetParam ().input);
  EXPECT_EQ (parsed.console, GetParam ().console);
  EXPECT_EQ (parsed.tree, nullptr);
  EXPECT_EQ (parsed.unclosed, nullptr);
  EXPECT_EQ (parsed.unopened, nullptr);
}

#define UNKNOWN_LINE "->>>>>XML_TOKEN_UNKNOWN\n"

INSTANTIATE_TEST_SUITE_P (
  parse_xml_tree, ParseWarnings,
  testing::Values (
    WarningCase{"<a\n/>", UNKNOWN_LINE "Warning: Unknown XML token '\n'.\n"},
    WarningCase{"\n", UNKNOWN_LINE "Warning: Unknown XML token '\n'.\n"},
    WarningCase{"<?xml version='1.0'?>\n<a/>", UNKNOWN_LINE "Warning: Unknown XML token '\n'.\n"},
    WarningCase{"<a b='1'/x>", UNKNOWN_LINE "Warning: Unknown XML token '/'.\n"},
    WarningCase{"<!-- a -->", UNKNOWN_LINE "Warning: Unknown XML token '!'.\n"},
    WarningCase{"<a 'x", "Warning: Unterminated string token: \"x\"\n"},
    WarningCase{"<a '", "Warning: Unterminated string token: \"\"\n"},
    WarningCase{"<a '1234567890123456",
                "Warning: Unterminated string token: \"1234567890123456\"\n"},
    WarningCase{"<a '12345678901234567",
                "Warning: Unterminated string token: \"1234567890123456\" ...\n"},
    WarningCase{"<", "Warning: Unpexpected end of text after beginning of an opening tag.\n"},
    WarningCase{"<?", "Warning: Unpexpected end of text after beginning of an opening tag.\n"},
    WarningCase{"<=", "Warning: Expected tag name, but got EQUALS instead.\n"},
    WarningCase{"<>", "Warning: Expected tag name, but got TAG_END instead.\n"},
    WarningCase{"<<a>", "Warning: Expected tag name, but got TAG_START instead.\n"},
    WarningCase{"<?'a'?>", "Warning: Expected tag name, but got STRING instead.\n"},
    WarningCase{"<a", "Warning: Unpexpected end before an opening/void tag was closed.\n"},
    WarningCase{"<a b='1'", "Warning: Unpexpected end before an opening/void tag was closed.\n"},
    WarningCase{"<?a>", "Warning: Unexpected normal tag end '>' in a tag which began with '<?'.\n"},
    WarningCase{"<?a/>", "Warning: Unexpected '/>' in a tag which began with '<?'.\n"},
    WarningCase{"<a?>", "Warning: Unexpected '?>' in a tag which didn't began with '<?'.\n"},
    WarningCase{"<a 'b'>",
                "Warning: Expected attribute name or end of tag, but got STRING instead.\n"},
    WarningCase{"<a </a>", "Warning: Expected attribute name or end of tag, but got "
                           "CLOSING_TAG_START instead.\n"},
    WarningCase{"<a <? ", "Warning: Expected attribute name or end of tag, but got "
                          "DOCTYPE_TAG_START instead.\n"},
    WarningCase{"<a b", "Warning: Unpexpected end of text after an attribute name.\n"},
    WarningCase{"<a b>",
                "Warning: Expected '=' after an attribute name, but got TAG_END instead.\n"},
    WarningCase{"<a b/>",
                "Warning: Expected '=' after an attribute name, but got VOID_TAG_END instead.\n"},
    WarningCase{"<?a b?>", "Warning: Expected '=' after an attribute name, but got "
                           "DOCTYPE_TAG_END instead.\n"},
    WarningCase{"<a b=", "Warning: Unpexpected end of text before an attribute value.\n"},
    WarningCase{"<a b=c>", "Warning: Expected attribute value, but got IDENTIFIER instead.\n"},
    WarningCase{"</", "Warning: Unpexpected end of text after the begining of a closing tag.\n"},
    WarningCase{"</>", "Warning: Expected indentifier after beginning of closing tag, but got "
                       "TAG_END instead.\n"},
    WarningCase{"<a></b>",
                "Warning: Trying to close XML element \"b\", but \"a\" should close now.\n"},
    WarningCase{"<a><b></a></b>",
                "Warning: Trying to close XML element \"a\", but \"b\" should close now.\n"},
    WarningCase{"</a", "Warning: Unpexpected end before the end of a closing tag.\n"},
    WarningCase{"<a></a", "Warning: Unpexpected end before the end of a closing tag.\n"},
    WarningCase{"</a b>",
                "Warning: Expected the '>' of a closing tag, but got IDENTIFIER instead.\n"},
    WarningCase{"<a></a/>",
                "Warning: Expected the '>' of a closing tag, but got VOID_TAG_END instead.\n"},
    WarningCase{"text", "Warning: Unexpected token IDENTIFIER.\n"},
    WarningCase{"=", "Warning: Unexpected token EQUALS.\n"},
    WarningCase{"'x'", "Warning: Unexpected token STRING.\n"},
    WarningCase{">", "Warning: Unexpected token TAG_END.\n"},
    WarningCase{"/>", "Warning: Unexpected token VOID_TAG_END.\n"},
    WarningCase{"?>", "Warning: Unexpected token DOCTYPE_TAG_END.\n"},
    WarningCase{"<?a?>text", "Warning: Unexpected token IDENTIFIER.\n"}));

TEST (parse_xml_tree, warns_of_unclosed_elements_when_nobody_asks_for_them)
{
  Parsed parsed ("<?xml version='1.0'?><stream:stream to='s'>", false);
  EXPECT_EQ (parsed.console, "Warning: Unclosed XML elements: </stream:stream>\n");
  EXPECT_EQ (parsed.tree_text (), "xml?[version=1.0] stream:stream[to=s]");
}

TEST (parse_xml_tree, names_unclosed_elements_from_the_innermost_outwards)
{
  Parsed parsed ("<a><x/><b><c>text", false);
  EXPECT_EQ (parsed.console, "Warning: Unclosed XML elements: </c></b></a>\n");
}

TEST (parse_xml_tree, warns_of_closings_that_were_never_opened_in_their_order)
{
  Parsed parsed ("</a><x/></stream:stream>", false);
  EXPECT_EQ (parsed.console,
             "Warning: Close XML elements which have never opened: </a></stream:stream>\n");
  EXPECT_EQ (parsed.tree_text (), "x/");
}

TEST (parse_xml_tree, warns_of_both_imbalances)
{
  Parsed parsed ("</a><b>", false);
  EXPECT_EQ (parsed.console, "Warning: Unclosed XML elements: </b>\n"
                             "Warning: Close XML elements which have never opened: </a>\n");
}

TEST (parse_xml_tree, takes_each_out_argument_alone)
{
  ExactBytes arena (4096, 0);
  ExactBytes text ("</a><b>");
  XMLElement *unclosed = NULL;
  XMLElement *unopened = NULL;
  testing::internal::CaptureStdout ();
  parse_xml_tree (arena.buffer (), text.string, &unclosed, NULL);
  EXPECT_EQ (testing::internal::GetCapturedStdout (),
             "Warning: Close XML elements which have never opened: </a>\n");
  ASSERT_NE (unclosed, nullptr);
  EXPECT_EQ (to_std (unclosed->name), "b");
  testing::internal::CaptureStdout ();
  parse_xml_tree (arena.buffer (), text.string, NULL, &unopened);
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "Warning: Unclosed XML elements: </b>\n");
  ASSERT_NE (unopened, nullptr);
  EXPECT_EQ (to_std (unopened->name), "a");
}

TEST (parse_xml_tree, says_nothing_of_imbalances_after_a_failure)
{
  Parsed parsed ("</x><a><b></c>", false);
  EXPECT_EQ (parsed.console,
             "Warning: Trying to close XML element \"c\", but \"b\" should close now.\n");
}

TEST (parse_xml_tree, empties_the_out_arguments_when_it_fails)
{
  ExactBytes arena (4096, 0);
  ExactBytes text ("<a b>");
  XMLElement stale = {};
  XMLElement *unclosed = &stale;
  XMLElement *unopened = &stale;
  testing::internal::CaptureStdout ();
  EXPECT_EQ (parse_xml_tree (arena.buffer (), text.string, &unclosed, &unopened), nullptr);
  testing::internal::GetCapturedStdout ();
  EXPECT_EQ (unclosed, nullptr);
  EXPECT_EQ (unopened, nullptr);
}

TEST (parse_xml_tree, takes_input_and_arena_without_data)
{
  testing::internal::CaptureStdout ();
  EXPECT_EQ (parse_xml_tree ({}, {}, NULL, NULL), nullptr);
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "");
}

TEST (parse_xml_tree, fails_without_an_arena)
{
  Parsed parsed ("<a/>", true, 0);
  EXPECT_EQ (parsed.tree, nullptr);
  EXPECT_EQ (parsed.console, "Warning: No memory in buffer for parsing XML.\n");
}

// With room for the tokens alone, the first element does not fit; with one byte less, neither does
// the last token.
TEST (parse_xml_tree, warns_alike_for_tokens_and_for_records)
{
  const std::string no_memory = "Warning: No memory in buffer for parsing XML.\n";
  EXPECT_EQ (Parsed ("<a/>", true, 3 * sizeof (XMLToken) - 1).console, no_memory);
  EXPECT_EQ (Parsed ("<a/>", true, 3 * sizeof (XMLToken)).console, no_memory);
  EXPECT_EQ (Parsed ("<a/>x", true, 3 * sizeof (XMLToken)).console, no_memory);
  EXPECT_EQ (Parsed ("<a/>", true, 3 * sizeof (XMLToken) + sizeof (XMLElement)).console, "");
  EXPECT_EQ (Parsed ("<a/>x", true, 4 * sizeof (XMLToken) + sizeof (XMLElement)).console,
             no_memory);
  EXPECT_EQ (Parsed ("</a>", true, 3 * sizeof (XMLToken)).console, no_memory);
}

// The room for a record is looked for before what follows its first token.
TEST (parse_xml_tree, warns_of_the_room_before_what_follows)
{
  const std::string no_memory = "Warning: No memory in buffer for parsing XML.\n";
  EXPECT_EQ (Parsed ("<", true, sizeof (XMLToken)).console, no_memory);
  EXPECT_EQ (Parsed ("<>", true, 2 * sizeof (XMLToken)).console, no_memory);
  EXPECT_EQ (Parsed ("<a b>", true, 4 * sizeof (XMLToken) + sizeof (XMLElement)).console,
             no_memory);
  EXPECT_EQ (Parsed ("</a", true, 2 * sizeof (XMLToken)).console, no_memory);
  EXPECT_EQ (Parsed ("</", true, sizeof (XMLToken)).console,
             "Warning: Unpexpected end of text after the begining of a closing tag.\n");
}

// An arena of any size at any address: the whole tree, or the one warning.
TEST (parse_xml_tree, survives_every_arena)
{
  const std::string source = "<?xml v='1'?><s:s a='1'><b x='1' y='2'>one<c/>two</b></s:s></z>";
  const std::string whole = "xml?[v=1] s:s[a=1](b[x=1][y=2]('one' c/ 'two'))";
  ExactBytes text (source);
  for (u64 offset = 0; offset < 9; ++offset) {
    u64 failed_count = 0;
    bool has_succeeded = false;
    testing::internal::CaptureStdout ();
    for (u64 size = 0; size < 2400; ++size) {
      ExactBytes arena (size, offset);
      XMLElement *unclosed = NULL;
      XMLElement *unopened = NULL;
      XMLElement *tree = parse_xml_tree (arena.buffer (), text.string, &unclosed, &unopened);
      failed_count += !tree;
      EXPECT_EQ (unclosed, nullptr);
      EXPECT_EQ (!tree, !unopened);
      // What fits once fits in every larger arena.
      EXPECT_TRUE (tree || !has_succeeded);
      if (tree) {
        has_succeeded = true;
        EXPECT_EQ (describe (tree, NULL), whole);
        EXPECT_EQ (to_std (unopened->name), "z");
      }
    }
    std::string console = testing::internal::GetCapturedStdout ();
    EXPECT_EQ (console, repeat ("Warning: No memory in buffer for parsing XML.\n", failed_count));
    EXPECT_TRUE (has_succeeded);
  }
}

TEST (parse_xml_tree, keeps_every_node_inside_the_arena_and_every_text_inside_the_input)
{
  Parsed parsed ("<a x='1'><b/>hi</a>");
  u8 *arena = parsed.arena.string.data;
  u8 *text = parsed.text.string.data;
  XMLElement *a = parsed.tree;
  EXPECT_GE ((u8 *) a, arena + 12 * sizeof (XMLToken));
  EXPECT_EQ (a->name.data, text + 1);
  EXPECT_EQ (a->attributes->value.data, text + 6);
  EXPECT_EQ (a->children->next->text.data, text + 13);
  EXPECT_LT ((u8 *) a->children->next, arena + parsed.arena.string.size);
}

TEST (parse_xml_tree, overwrites_whatever_the_arena_held)
{
  ExactBytes arena (4096, 3);
  memset (arena.string.data, 0xFF, arena.string.size);
  ExactBytes text ("<a x='1'><b/>hi</a>");
  EXPECT_EQ (describe (parse_xml_tree (arena.buffer (), text.string, NULL, NULL), NULL),
             "a[x=1](b/ 'hi')");
}

// Random documents over a small alphabet: nothing is read or written outside, whatever they hold.
TEST (parse_xml_tree, survives_random_input)
{
  std::mt19937 random (2);
  const char *pieces[] = {"<",  ">", "/>",  "</", "<?", "?>",  "a",    "b:c",  "=",     "'",
                          "\"", " ", "x y", "\n", "&",  "<a>", "</a>", "<b/>", " c='d'"};
  testing::internal::CaptureStdout ();
  for (u32 round = 0; round < 20000; ++round) {
    std::string source;
    for (u32 count = random () % 12; count > 0; --count) {
      source += pieces[random () % (sizeof (pieces) / sizeof (pieces[0]))];
    }
    ExactBytes text (source);
    ExactBytes arena (random () % 1500, random () % 8);
    XMLElement *unclosed = NULL;
    XMLElement *unopened = NULL;
    XMLElement *tree = parse_xml_tree (arena.buffer (), text.string, &unclosed, &unopened);
    if (tree) {
      describe (tree, NULL);
    }
  }
  EXPECT_EQ (testing::internal::GetCapturedStdout ().find ("(null)"), std::string::npos);
}

static const u64 MANY = 100000;

TEST (parse_xml_tree, reads_a_hundred_thousand_levels)
{
  Parsed parsed (repeat ("<a>", MANY) + repeat ("</a>", MANY), true, MANY * 300);
  EXPECT_EQ (parsed.console, "");
  EXPECT_EQ (parsed.unclosed, nullptr);
  u64 depth = 0;
  for (XMLElement *element = parsed.tree; element; element = element->children) {
    depth += 1;
    ASSERT_EQ (element->next, nullptr);
  }
  EXPECT_EQ (depth, MANY);
}

TEST (parse_xml_tree, names_a_hundred_thousand_unclosed_levels)
{
  Parsed parsed (repeat ("<ab>", MANY), false, MANY * 300);
  EXPECT_EQ (parsed.console, "Warning: Unclosed XML elements: " + repeat ("</ab>", MANY) + "\n");
}

TEST (parse_xml_tree, names_a_hundred_thousand_closings_never_opened)
{
  Parsed parsed (repeat ("</ab>", MANY), false, MANY * 300);
  EXPECT_EQ (parsed.console, "Warning: Close XML elements which have never opened: " +
                               repeat ("</ab>", MANY) + "\n");
}

TEST (parse_xml_tree, reads_a_hundred_thousand_siblings)
{
  Parsed parsed ("<r>" + repeat ("<a/>x", MANY) + "</r>", true, MANY * 400);
  EXPECT_EQ (parsed.console, "");
  ASSERT_NE (parsed.tree, nullptr);
  u64 count = 0;
  for (XMLElement *element = parsed.tree->children; element; element = element->next) {
    EXPECT_EQ (element->text.size, count % 2);
    count += 1;
  }
  EXPECT_EQ (count, 2 * MANY);
}

TEST (parse_xml_tree, reads_a_hundred_thousand_attributes)
{
  Parsed parsed ("<r" + repeat (" a='1'", MANY) + "/>", true, MANY * 200);
  ASSERT_NE (parsed.tree, nullptr);
  u64 count = 0;
  for (XMLAttribute *attribute = parsed.tree->attributes; attribute; attribute = attribute->next) {
    count += 1;
  }
  EXPECT_EQ (count, MANY);
}

TEST (xml_append_element, appends_in_order_and_leaves_the_parent_alone)
{
  XMLElement parent = {};
  XMLElement a = {};
  XMLElement b = {};
  XMLElement c = {};
  xml_append_element (&parent, &a);
  xml_append_element (&parent, &b);
  xml_append_element (&parent, &c);
  EXPECT_EQ (parent.children, &a);
  EXPECT_EQ (a.next, &b);
  EXPECT_EQ (b.next, &c);
  EXPECT_EQ (c.next, nullptr);
  EXPECT_EQ (a.parent, nullptr);
}

TEST (xml_append_element, finds_the_end_of_a_chain_made_by_hand)
{
  XMLElement parent = {};
  XMLElement a = {};
  XMLElement b = {};
  XMLElement c = {};
  XMLElement d = {};
  XMLElement e = {};
  parent.children = &a;
  a.next = &b;
  xml_append_element (&parent, &c);
  EXPECT_EQ (b.next, &c);
  c.next = &d;
  xml_append_element (&parent, &e);
  EXPECT_EQ (d.next, &e);
}

TEST (xml_append_element, begins_anew_in_an_emptied_chain)
{
  XMLElement parent = {};
  XMLElement a = {};
  XMLElement b = {};
  xml_append_element (&parent, &a);
  parent.children = NULL;
  xml_append_element (&parent, &b);
  EXPECT_EQ (parent.children, &b);
  EXPECT_EQ (a.next, nullptr);
}

TEST (xml_append_element, continues_the_chain_of_a_parsed_element)
{
  Parsed parsed ("<a><b/><c/></a>");
  XMLElement d = {};
  xml_append_element (parsed.tree, &d);
  EXPECT_EQ (parsed.tree->children->next->next, &d);
}

TEST (xml_append_attribute, appends_in_order)
{
  XMLElement element = {};
  XMLAttribute a = {};
  XMLAttribute b = {};
  XMLAttribute c = {};
  xml_append_attribute (&element, &a);
  xml_append_attribute (&element, &b);
  xml_append_attribute (&element, &c);
  EXPECT_EQ (element.attributes, &a);
  EXPECT_EQ (a.next, &b);
  EXPECT_EQ (b.next, &c);
  EXPECT_EQ (c.next, nullptr);
}

TEST (xml_append_attribute, finds_the_end_of_a_chain_made_by_hand)
{
  XMLElement element = {};
  XMLAttribute a = {};
  XMLAttribute b = {};
  XMLAttribute c = {};
  XMLAttribute d = {};
  element.attributes = &a;
  a.next = &b;
  xml_append_attribute (&element, &c);
  EXPECT_EQ (b.next, &c);
  element.attributes = NULL;
  xml_append_attribute (&element, &d);
  EXPECT_EQ (element.attributes, &d);
}

static std::string
print_to_string (XMLElement *node, u32 depth)
{
  testing::internal::CaptureStdout ();
  print_xml_tree (node, depth);
  return testing::internal::GetCapturedStdout ();
}

struct PrintCase {
  const char *input;
  u32 depth;
  const char *output;
};

class PrintTable : public testing::TestWithParam<PrintCase> {};

TEST_P (PrintTable, prints_this_text)
{
  Parsed parsed (GetParam ().input);
  EXPECT_EQ (print_to_string (parsed.tree, GetParam ().depth), GetParam ().output);
}

INSTANTIATE_TEST_SUITE_P (
  print_xml_tree, PrintTable,
  testing::Values (
    PrintCase{"", 0, "(null)\n"}, PrintCase{"", 3, "(null)\n"}, PrintCase{"<a/>", 0, "<a/>\n"},
    PrintCase{"<a></a>", 0, "<a></a>\n"}, PrintCase{"<a>hi</a>", 0, "<a>\n  hi\n</a>\n"},
    PrintCase{"<?xml version='1.0'?><a/>", 0, "<?xml version='1.0'?>\n<a/>\n"},
    PrintCase{"<a x='1' y=\"2\"/>", 0, "<a x='1' y='2'/>\n"},
    PrintCase{"<a x='&amp;'>&lt;</a>", 0, "<a x='&amp;'>\n  &lt;\n</a>\n"},
    PrintCase{"<a/><b></b>text", 2, "    <a/>\n    <b></b>\n    text\n"},
    PrintCase{"<a><b><c/>x</b><d></d></a><e/>", 0,
              "<a>\n  <b>\n    <c/>\n    x\n  </b>\n  <d></d>\n</a>\n<e/>\n"},
    PrintCase{"<a><b><c>x</c></b></a>", 1,
              "  <a>\n    <b>\n      <c>\n        x\n      </c>\n    </b>\n  </a>\n"},
    PrintCase{"<stream:stream><a/>", 0, "<stream:stream>\n  <a/>\n</stream:stream>\n"}));

TEST (print_xml_tree, prints_from_the_middle_and_does_not_climb_out)
{
  Parsed parsed ("<a><b><c/></b><d/></a><e/>");
  EXPECT_EQ (print_to_string (parsed.tree->children, 0), "<b>\n  <c/>\n</b>\n<d/>\n");
}

TEST (print_xml_tree, prints_trees_made_by_hand)
{
  XMLElement a = {};
  XMLElement b = {};
  XMLElement c = {};
  a.name = to_string ("a");
  b.text = to_string ("b");
  c.name = to_string ("c");
  a.children = &b;
  b.next = &c;
  EXPECT_EQ (print_to_string (&a, 0), "<a>\n  b\n  <c></c>\n</a>\n");
}

// The tree of so many nested elements, printed by a rule of its own.
static std::string
draw_levels (u64 levels, u64 indentation_max)
{
  std::string text;
  for (u64 depth = 0; depth < levels; ++depth) {
    text += repeat ("  ", std::min (depth, indentation_max)) + "<a>\n";
  }
  text += repeat ("  ", std::min (levels, indentation_max)) + "x\n";
  for (u64 depth = levels; depth > 0; --depth) {
    text += repeat ("  ", std::min (depth - 1, indentation_max)) + "</a>\n";
  }
  return text;
}

TEST (print_xml_tree, indents_each_level)
{
  const u64 levels = 128;
  Parsed parsed (repeat ("<a>", levels) + "x" + repeat ("</a>", levels), true, levels * 300);
  EXPECT_TRUE (print_to_string (parsed.tree, 0) == draw_levels (levels, levels));
}

TEST (print_xml_tree, stops_indenting_at_the_128th_level)
{
  const u64 levels = 1000;
  Parsed parsed (repeat ("<a>", levels) + "x" + repeat ("</a>", levels), true, levels * 300);
  EXPECT_TRUE (print_to_string (parsed.tree, 0) == draw_levels (levels, 128));
}

TEST (print_xml_tree, prints_a_hundred_thousand_siblings)
{
  Parsed parsed ("<r>" + repeat ("<a>x</a>", MANY) + "</r>", true, MANY * 600);
  EXPECT_TRUE (print_to_string (parsed.tree, 0) ==
               "<r>\n" + repeat ("  <a>\n    x\n  </a>\n", MANY) + "</r>\n");
}

TEST (print_xml_tree, prints_a_text_of_megabytes)
{
  std::string text = repeat ("0123456789abcdef", 3 * 65536);
  Parsed parsed ("<a>" + text + "</a>");
  EXPECT_TRUE (print_to_string (parsed.tree, 0) == "<a>\n  " + text + "\n</a>\n");
}

static void
count_insert (GtkTextBuffer *, GtkTextIter *, char *, int, u64 *count)
{
  *count += 1;
}

// The pane gets a large tree in a few pieces, each of which ends with a line.
TEST (print_xml_tree, hands_over_few_pieces)
{
  Parsed parsed ("<r>" + repeat ("<a>\xC3\xA9</a>", MANY / 4) + "</r>", true, MANY * 150);
  GtkTextBuffer *buffer = gtk_text_buffer_new (NULL);
  u64 count = 0;
  g_signal_connect (buffer, "insert-text", G_CALLBACK (count_insert), &count);
  _console_text_buffer = buffer;
  std::string printed = print_to_string (parsed.tree, 0);
  while (g_main_context_iteration (NULL, FALSE)) {
  }
  _console_text_buffer = NULL;
  char *shown = gtk_text_buffer_get_all_text (buffer);
  EXPECT_TRUE (printed == shown);
  EXPECT_GE (count, 2u);
  EXPECT_LE (count, 3u);
  g_free (shown);
  g_object_unref (buffer);
}

struct DumpCase {
  const char *input;
  const char *output;
};

class DumpTable : public testing::TestWithParam<DumpCase> {};

TEST_P (DumpTable, dumps_this_line)
{
  Parsed parsed (GetParam ().input);
  testing::internal::CaptureStdout ();
  CONSOLE_DUMP (*parsed.tree);
  EXPECT_EQ (testing::internal::GetCapturedStdout (), GetParam ().output);
}

INSTANTIATE_TEST_SUITE_P (
  console_put_xml_element, DumpTable,
  testing::Values (DumpCase{"<a x='1' y='2'><b/></a>", "*parsed.tree: <a x='1' y='2'>\n"},
                   DumpCase{"<a x='1'/>", "*parsed.tree: <a x='1'/>\n"},
                   DumpCase{"<?xml version='1.0'?>", "*parsed.tree: <?xml version='1.0'?>\n"}));

// ---- Access ----

TEST (get_xml_attribute, gives_the_first_value_of_the_name_still_escaped)
{
  Parsed parsed ("<a y='0' x='1&amp;' x='2' X='3'/>");
  String value = get_xml_attribute (parsed.tree, "x");
  EXPECT_EQ (to_std (value), "1&amp;");
  EXPECT_EQ (value.data, parsed.text.string.data + 12);
  EXPECT_EQ (to_std (get_xml_attribute (parsed.tree, to_string ("X"))), "3");
}

TEST (get_xml_attribute, gives_an_empty_string_without_data_when_there_is_none)
{
  Parsed parsed ("<a xy='1'/>");
  for (const char *name : {"x", "xyz", ""}) {
    String value = get_xml_attribute (parsed.tree, name);
    EXPECT_EQ (value.data, nullptr);
    EXPECT_EQ (value.size, 0u);
  }
}

TEST (get_xml_child_by_name, gives_the_first_child_of_the_name)
{
  Parsed parsed ("<a>text<b/><c x='1'/><c x='2'/></a>");
  XMLElement *c = get_xml_child_by_name (parsed.tree, "c");
  ASSERT_NE (c, nullptr);
  EXPECT_EQ (to_std (get_xml_attribute (c, "x")), "1");
  EXPECT_EQ (get_xml_child_by_name (parsed.tree, "d"), nullptr);
  EXPECT_EQ (get_xml_child_by_name (parsed.tree, "a"), nullptr);
}

TEST (get_xml_child_by_name, gives_none_among_texts_alone)
{
  Parsed parsed ("<a>b</a>");
  EXPECT_EQ (get_xml_child_by_name (parsed.tree, "b"), nullptr);
}

TEST (get_xml_next_sibling_by_name, steps_through_the_repeated_children)
{
  Parsed parsed ("<a><item n='1'/>text<b/><item n='2'/><item n='3'/></a>");
  std::string found;
  for (XMLElement *item = get_xml_child_by_name (parsed.tree, "item"); item;
       item = get_xml_next_sibling_by_name (item, "item")) {
    found += to_std (get_xml_attribute (item, "n"));
  }
  EXPECT_EQ (found, "123");
}

TEST (get_xml_next_sibling_by_name, excludes_the_element_itself)
{
  Parsed parsed ("<a/><b/>");
  EXPECT_EQ (get_xml_next_sibling_by_name (parsed.tree, "a"), nullptr);
  EXPECT_EQ (get_xml_next_sibling_by_name (parsed.tree, "b"), parsed.tree->next);
}

// ---- Escaping ----

// Into a buffer of exactly `size` bytes.
static std::string
escape (const std::string &text, u64 size)
{
  ExactBytes input (text);
  ExactBytes output (size, 0);
  Buffer rest = buffer_append_escaped_xml (output.buffer (), input.string);
  EXPECT_EQ (rest.data + rest.size, output.string.data + size);
  return to_std ({output.string.data, size - rest.size});
}

static std::string
escape (const std::string &text)
{
  return escape (text, text.size () * 6 + 1);
}

static std::string
unescape (const std::string &text)
{
  ExactBytes input (text);
  String result = alloc_unescape_xml_text (input.string);
  std::string copy = to_std (result);
  dealloc_string (result);
  return copy;
}

static bool
is_unescapable (const std::string &text)
{
  ExactBytes input (text);
  return is_xml_text_unescapable (input.string);
}

static std::string
sendable (const std::string &text)
{
  ExactBytes input (text);
  String result = alloc_sendable_text (input.string);
  std::string copy = to_std (result);
  dealloc_string (result);
  return copy;
}

TEST (buffer_append_escaped_xml, writes_the_five_entities)
{
  EXPECT_EQ (escape ("a<b & 'c'"), "a&lt;b &amp; &apos;c&apos;");
  EXPECT_EQ (escape ("\"&'<>"), "&quot;&amp;&apos;&lt;&gt;");
  EXPECT_EQ (escape (""), "");
}

TEST (buffer_append_escaped_xml, leaves_every_other_byte_alone)
{
  for (u32 c = 0; c < 256; ++c) {
    std::string text (1, (char) c);
    if (text.find_first_of ("\"&'<>") == std::string::npos) {
      EXPECT_EQ (escape (text), text);
    }
  }
}

TEST (buffer_append_escaped_xml, cuts_where_the_room_ends)
{
  const std::string text = "x\"&'<>y";
  const std::string whole = escape (text);
  for (u64 size = 0; size <= whole.size () + 2; ++size) {
    EXPECT_EQ (escape (text, size), whole.substr (0, size));
  }
}

TEST (alloc_unescape_xml_text, undoes_one_level)
{
  EXPECT_EQ (unescape ("x &amp;amp; y"), "x &amp; y");
  EXPECT_EQ (unescape ("&quot;hi&quot;"), "\"hi\"");
  EXPECT_EQ (unescape ("&quot;&apos;&amp;&lt;&gt;"), "\"'&<>");
  EXPECT_EQ (unescape (""), "");
  EXPECT_EQ (unescape ("a;b"), "a;b");
}

TEST (alloc_unescape_xml_text, undoes_what_escaping_did_to_any_bytes)
{
  std::mt19937 random (3);
  for (u32 round = 0; round < 3000; ++round) {
    std::string text;
    for (u32 size = random () % 80; size > 0; --size) {
      text += random () % 3 ? (char) random () : "\"&'<>;"[random () % 6];
    }
    std::string escaped = escape (text);
    ASSERT_EQ (escaped.find_first_of ("\"'<>"), std::string::npos);
    ASSERT_TRUE (is_unescapable (escaped));
    ASSERT_EQ (unescape (escaped), text);
  }
}

struct EntityCase {
  const char *input;
  const char *expression;  // as a regular expression
};

class UnescapeStops : public testing::TestWithParam<EntityCase> {};

TEST_P (UnescapeStops, the_program_and_is_foretold)
{
  std::string message = "src/xml\\.cpp.*String alloc_unescape_xml_text\\(String\\).*`";
  EXPECT_FALSE (is_unescapable (GetParam ().input));
  EXPECT_DEATH (unescape (GetParam ().input), message + GetParam ().expression + "'");
}

INSTANTIATE_TEST_SUITE_P (
  alloc_unescape_xml_text, UnescapeStops,
  testing::Values (EntityCase{"a & b", "end\\.size"}, EntityCase{"&", "end\\.size"},
                   EntityCase{"&amp", "end\\.size"}, EntityCase{"&amp;&lt", "end\\.size"},
                   EntityCase{"&abcde;", "end\\.size"}, EntityCase{"&#8217;", "end\\.size"},
                   EntityCase{"&a&;", "!find_char \\(entity, '&'\\)\\.size"},
                   EntityCase{"&&lt;", "!find_char \\(entity, '&'\\)\\.size"},
                   EntityCase{"&nbsp;", "!\"Unhandled XML entity\""},
                   EntityCase{"&#39;", "!\"Unhandled XML entity\""},
                   EntityCase{"&#10;", "!\"Unhandled XML entity\""},
                   EntityCase{"&;", "!\"Unhandled XML entity\""},
                   EntityCase{"&AMP;", "!\"Unhandled XML entity\""},
                   EntityCase{"&am;", "!\"Unhandled XML entity\""},
                   EntityCase{"&x27;", "!\"Unhandled XML entity\""}));

TEST (alloc_unescape_xml_text, stops_at_a_numeric_reference)
{
  EXPECT_DEATH (unescape ("&#x27;"), "src/xml\\.cpp.*`!\"Unhandled XML entity\"'|`end\\.size'");
  EXPECT_FALSE (is_unescapable ("&#x27;"));
}

// Every text of up to seven pieces out of these: the test and the unescaping agree with a slow
// reading of the rule. Where the test says yes, a stop would end this program.
TEST (is_xml_text_unescapable, agrees_with_the_unescaping)
{
  std::mt19937 random (4);
  const char *pieces[] = {"&",  ";", "quot",  "apos", "amp", "lt",
                          "gt", "#", "&amp;", "&lt;", "a",   " "};
  u64 unescapable_count = 0;
  for (u32 round = 0; round < 50000; ++round) {
    std::string text;
    for (u32 count = random () % 8; count > 0; --count) {
      text += pieces[random () % 12];
    }
    bool expected = true;
    std::string result;
    for (u64 index = 0; index < text.size () && expected; ++index) {
      const char *entities[] = {"&quot;", "&apos;", "&amp;", "&lt;", "&gt;"};
      bool found = text[index] != '&';
      result += found ? text.substr (index, 1) : "";
      for (u32 entity = 0; entity < 5 && !found; ++entity) {
        found = text.compare (index, strlen (entities[entity]), entities[entity]) == 0;
        result += found ? std::string (1, "\"'&<>"[entity]) : "";
        index += found ? strlen (entities[entity]) - 1 : 0;
      }
      expected = found;
    }
    ASSERT_EQ (is_unescapable (text), expected) << text;
    if (expected) {
      ASSERT_EQ (unescape (text), result) << text;
      unescapable_count += 1;
    }
  }
  EXPECT_GT (unescapable_count, 1000u);
}

TEST (is_xml_text_unescapable, takes_zero_bytes)
{
  EXPECT_TRUE (is_unescapable (std::string ("a\0&amp;\0", 8)));
  EXPECT_FALSE (is_unescapable (std::string ("&lt\0;", 5)));
}

struct SendableCase {
  std::string input;
  std::string output;
};

class SendableTable : public testing::TestWithParam<SendableCase> {};

TEST_P (SendableTable, gives_this_text)
{
  EXPECT_EQ (sendable (GetParam ().input), GetParam ().output);
}

INSTANTIATE_TEST_SUITE_P (
  alloc_sendable_text, SendableTable,
  testing::Values (SendableCase{"", ""}, SendableCase{"a b\tc\nd", "a b\tc\nd"},
                   SendableCase{"a\r\nb", "a\nb"}, SendableCase{"a\rb\r", "a\nb\n"},
                   SendableCase{"\r\r\n\r", "\n\n\n"},
                   SendableCase{"a\x01\x08\x0B\x0C\x1F"
                                "b",
                                "ab"},
                   SendableCase{std::string ("a\0b", 3), "ab"}, SendableCase{"\x7F", "\x7F"},
                   SendableCase{"a\r\x01\nb", "a\n\nb"}, SendableCase{"   a  ", "a  "},
                   SendableCase{"   ", ""}, SendableCase{"\n  a", "\n  a"},
                   SendableCase{"\t a", "\t a"}, SendableCase{" \x01 a", "a"},
                   SendableCase{"\x01  a", "a"}, SendableCase{" \x1B\n a", "\n a"},
                   SendableCase{"\xEF\xBF\xBE  a", "a"},
                   SendableCase{"a\xEF\xBF\xBF"
                                "b\xEF\xBF\xBE",
                                "ab"},
                   SendableCase{"\xEF\xBF\xBD \xEF\xBF\xBC", "\xEF\xBF\xBD \xEF\xBF\xBC"},
                   SendableCase{"\xEF\x01\xBF\xBE"
                                "a",
                                "a"},
                   SendableCase{"\xEF\xBF\xEF\xBF\xBF\xBE"
                                "a",
                                "a"},
                   SendableCase{"\xEF\xBF", "\xEF\xBF"},
                   SendableCase{"\xC3\xA4\xF0\x9F\x98\x80", "\xC3\xA4\xF0\x9F\x98\x80"}));

static std::string
random_awkward_text (std::mt19937 *random)
{
  const std::string awkward ("\0\x01\t\n\r\x1F  \xEF\xEF\xBF\xBF\xBE<>&'\"a;", 21);
  std::string text;
  for (u32 size = (*random) () % 30; size > 0; --size) {
    text += (*random) () % 8 ? awkward[(*random) () % awkward.size ()] : (char) (*random) ();
  }
  return text;
}

TEST (alloc_sendable_text, changes_nothing_the_second_time)
{
  std::mt19937 random (5);
  for (u32 round = 0; round < 30000; ++round) {
    std::string once = sendable (random_awkward_text (&random));
    ASSERT_EQ (sendable (once), once);
    ASSERT_EQ (once.find ("\xEF\xBF\xBE"), std::string::npos);
    ASSERT_EQ (once.find ("\xEF\xBF\xBF"), std::string::npos);
    for (char c : once) {
      ASSERT_TRUE ((u8) c >= ' ' || c == '\t' || c == '\n');
    }
  }
}

TEST (alloc_sendable_text, gives_what_escaping_parsing_and_unescaping_give_back)
{
  std::mt19937 random (6);
  ExactBytes arena (4096, 0);
  for (u32 round = 0; round < 10000; ++round) {
    std::string text = sendable (random_awkward_text (&random));
    ExactBytes stanza ("<body>" + escape (text) + "</body>");
    XMLElement *body = parse_xml_tree (arena.buffer (), stanza.string, NULL, NULL);
    ASSERT_NE (body, nullptr);
    std::string received = body->children ? unescape (to_std (body->children->text)) : "";
    ASSERT_EQ (received, text);
  }
}
