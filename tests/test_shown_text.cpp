// Texts of others as they are shown. The judges are FriBidi, which lays out what mixes directions, and
// ICU, which knows the scripts and the properties of all characters.
#include "shown_text.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include <fribidi.h>
#include <unicode/uchar.h>
#include <unicode/uspoof.h>

static std::u32string
decode (const std::string &text)
{
  glong count = 0;
  gunichar *chars = g_utf8_to_ucs4_fast (text.c_str (), (glong) text.size (), &count);
  std::u32string decoded (chars, chars + count);
  g_free (chars);
  return decoded;
}

static std::string
encode (const std::u32string &text)
{
  char *chars =
    g_ucs4_to_utf8 ((const gunichar *) text.data (), (glong) text.size (), NULL, NULL, NULL);
  std::string encoded = chars;
  g_free (chars);
  return encoded;
}

static String
string_of (const std::string &text)
{
  return {(u8 *) text.data (), text.size ()};
}

static std::string
show (const std::string &text)
{
  char *shown = alloc_shown_text (string_of (text));
  std::string result = shown;
  g_free (shown);
  return result;
}

// Whether what stands before and behind the name, in each of its paragraphs, is laid out from left to
// right, as if the name were not there.
static bool
keeps_to_its_place (const std::string &name)
{
  std::u32string before = U"a (", behind = U") : 5000 EUR";
  std::u32string line = before + decode (name) + behind;
  size_t start = 0;
  while (start <= line.size ()) {
    size_t end = std::min (line.find (U'\n', start), line.size ());
    std::u32string paragraph = line.substr (start, end - start);
    FriBidiStrIndex size = (FriBidiStrIndex) paragraph.size ();
    std::vector<FriBidiCharType> types (paragraph.size () + 1);
    std::vector<FriBidiBracketType> brackets (paragraph.size () + 1);
    std::vector<FriBidiLevel> levels (paragraph.size () + 1);
    const FriBidiChar *chars = (const FriBidiChar *) paragraph.data ();
    fribidi_get_bidi_types (chars, size, types.data ());
    fribidi_get_bracket_types (chars, size, types.data (), brackets.data ());
    FriBidiParType base = FRIBIDI_PAR_LTR;
    EXPECT_GT (fribidi_get_par_embedding_levels_ex (types.data (), brackets.data (), size, &base,
                                                    levels.data ()),
               0);
    for (size_t i = start; i < end; ++i) {
      bool is_around = i < before.size () || i >= line.size () - behind.size ();
      if (is_around && levels[i - start] != 0)
        return false;
    }
    start = end + 1;
  }
  return true;
}

// ---- Bidirectional controls ----

TEST (alloc_shown_text, leaves_a_text_without_controls_alone)
{
  for (const char *text : {"", "bert@beta.test", "Miete", "\u05d0\u05d1", "\u23ce", "\u4e00"})
    EXPECT_EQ (show (text), text);
  EXPECT_EQ (show ("b\xff"), "b\ufffd");
  char *shown = alloc_shown_text ({});
  EXPECT_STREQ (shown, "");
  g_free (shown);
}

TEST (alloc_shown_text, isolates_a_text_with_a_control)
{
  EXPECT_EQ (show ("a\u202eb"), "\u2068a\u202eb\u2069");
  EXPECT_EQ (show ("\u200f"), "\u2068\u200f\u2069");
  EXPECT_EQ (show ("a\u2069\u202eb"), "\u2068a\ufffd\u202eb\u2069");
  EXPECT_EQ (show ("a\u2067b"), "\u2068a\u2067b\u2069\u2069");
  EXPECT_EQ (show ("a\u2066b\u2069c"), "\u2068a\u2066b\u2069c\u2069");
  EXPECT_EQ (show ("a\u2067\nb\u202e"), "\u2068a\u2067\u23ceb\u202e\u2069\u2069");
}

TEST (alloc_shown_text, is_one_line)
{
  EXPECT_EQ (show ("a\nb\r\nc\rd\tf"), "a\u23ceb\u23cec\u23ced f");
  EXPECT_EQ (show ("\n"), "\u23ce");
  EXPECT_EQ (show ("\r\r\n"), "\u23ce\u23ce");
}

// ICU knows what ends a line and what ends a paragraph of the bidirectional algorithm.
TEST (alloc_shown_text, has_no_letter_that_icu_calls_the_end_of_a_line)
{
  u32 ends_count = 0;
  for (UChar32 c = 1; c <= 0x10FFFF; ++c) {
    if (c >= 0xD800 && c <= 0xDFFF)
      continue;
    int breaks = u_getIntPropertyValue (c, UCHAR_LINE_BREAK);
    bool ends_line = breaks == U_LB_MANDATORY_BREAK || breaks == U_LB_CARRIAGE_RETURN ||
                     breaks == U_LB_LINE_FEED || breaks == U_LB_NEXT_LINE ||
                     u_charDirection (c) == U_BLOCK_SEPARATOR;
    std::string text = encode (std::u32string (1, (char32_t) c));
    if (ends_line) {
      ASSERT_EQ (show (text), "\u23ce") << std::hex << c;
    } else if (u_charDirection (c) != U_SEGMENT_SEPARATOR) {
      ASSERT_NE (show (text).find (text), std::string::npos) << std::hex << c;
    }
    ends_count += ends_line;
  }
  EXPECT_EQ (ends_count, 10u);
}

TEST (alloc_shown_text, keeps_every_name_to_its_place)
{
  // Without it a name reaches out: what follows is turned around.
  EXPECT_FALSE (keeps_to_its_place ("a\u202eb"));
  EXPECT_TRUE (keeps_to_its_place (show ("a\u202eb")));
  const std::u32string letters =
    U"ab1 .(\u05d0\u0627\u061c\u200e\u200f\u202a\u202b\u202c\u202d\u202e"
    U"\u2066\u2067\u2068\u2069\n";
  std::mt19937 random (9);
  for (int i = 0; i < 20000; ++i) {
    std::u32string name;
    for (u32 size = random () % 12; size; --size)
      name += letters[random () % letters.size ()];
    bool has_control = name.find_first_of (letters.substr (8, 12)) != std::u32string::npos;
    if (has_control) {
      ASSERT_TRUE (keeps_to_its_place (show (encode (name)))) << encode (name);
    }
  }
  EXPECT_TRUE (keeps_to_its_place (show (encode (std::u32string (100, U'\u2067') + U"\u05d0"))));
}

// ---- Addresses ----

struct AddressRow {
  const char *address;
  bool is_misleading;
};

static const AddressRow ADDRESS_ROWS[] = {
  {"anna@alpha.test", false},
  {"Anna-Maria_7@alpha.test", false},
  {"m\u00fcller@stra\u00dfe.test", false},
  {"mu\u0308ller@alpha.test", false},
  {"\u0430\u043d\u043d\u0430@\u043f\u043e\u0447\u0442\u0430.\u0440\u0444", false},
  {"\u592a\u90ce@alpha.test", false},
  {"\u305f\u308d\u3046@\u4f8b\u3048.jp", false},
  {"\uae40@alpha.test", false},
  {"12@3.4", false},
  {"", false},
  // Cyrillic a, Greek omicron, Armenian o.
  {"\u0430nna@alpha.test", true},
  {"anna@\u0430lpha.test", true},
  {"b\u03bfb@beta.test", true},
  {"b\u0585b@beta.test", true},
  {"\u0430\u043d\u043d\u0430@alpha.test", true},
  {"\u043d\u03bf", true},
  {"\u304b\uae40", true},
  {"\u043d\u592a", true},
  // Letters that nobody sees.
  {"an\u200bna@alpha.test", true},
  {"an\u00adna@alpha.test", true},
  {"an\u202ena@alpha.test", true},
  {"an\u034fna@alpha.test", true},
  {"\uae40\u3164", true},
  {"an\u2800na@alpha.test", true},
  {"an\u00a0na@alpha.test", true},
  {"an na@alpha.test", true},
  {"an\nna@alpha.test", true},
  {"anna\ufe0f@alpha.test", true},
  {"an\ue000na@alpha.test", true},
  {"an\xffna@alpha.test", true},
};

TEST (is_misleading_address, judges_what_an_address_is_made_of)
{
  for (const AddressRow &row : ADDRESS_ROWS)
    EXPECT_EQ (is_misleading_address (to_string (row.address)), row.is_misleading) << row.address;
  EXPECT_TRUE (is_misleading_address ({(u8 *) "a\0b", 3}));
}

TEST (is_misleading_address, agrees_with_icu_on_mixed_scripts)
{
  UErrorCode status = U_ZERO_ERROR;
  USpoofChecker *checker = uspoof_open (&status);
  uspoof_setRestrictionLevel (checker, USPOOF_HIGHLY_RESTRICTIVE);
  uspoof_setChecks (checker, USPOOF_RESTRICTION_LEVEL, &status);
  ASSERT_TRUE (U_SUCCESS (status));
  const std::u32string letters = U"az09.@-\u00e4\u0430\u043d\u03b1\u03bf\u0585\u05d0\u4e00\u592a"
                                 U"\u304b\u30ab\u3105\uac00\u0e01";
  std::mt19937 random (7);
  int counts[2] = {};
  for (int i = 0; i < 20000; ++i) {
    std::u32string address;
    for (u32 size = 1 + random () % 4; size; --size)
      address += letters[random () % letters.size ()];
    std::string text = encode (address);
    int32_t found =
      uspoof_checkUTF8 (checker, text.c_str (), (int32_t) text.size (), NULL, &status);
    ASSERT_TRUE (U_SUCCESS (status));
    counts[found != 0]++;
    ASSERT_EQ (is_misleading_address (string_of (text)), found != 0) << text;
  }
  EXPECT_GT (counts[0], 1000);
  EXPECT_GT (counts[1], 1000);
  uspoof_close (checker);
}

TEST (is_misleading_address, sees_every_letter_that_icu_calls_ignorable)
{
  for (UChar32 c = 1; c <= 0x10FFFF; ++c) {
    if (U_IS_SURROGATE (c) || !u_hasBinaryProperty (c, UCHAR_DEFAULT_IGNORABLE_CODE_POINT))
      continue;
    ASSERT_TRUE (is_misleading_address (string_of (encode (std::u32string (1, (char32_t) c)))))
      << std::hex << c;
  }
}
