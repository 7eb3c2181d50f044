// Strings, cursors, numbers, Base64, the word splitter and the formatter.
#include "buffers.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <locale.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <string>
#include <vector>

// ---- Helpers ----

static std::string
to_std (String string)
{
  return std::string ((const char *) string.data, string.size);
}

static String
make_string (const char *data, u64 size)
{
  String string = {(u8 *) data, size};
  return string;
}

// The text must live as long as the view is used.
static String
from_std (const std::string &text)
{
  String string = {(u8 *) text.data (), text.size ()};
  return string;
}

// Memory for one test, filled with a byte that no writer writes by itself.
struct Room {
  u8 bytes[8192];
};

static Buffer
make_room (Room *room, u64 size)
{
  memset (room->bytes, 0xEE, sizeof (room->bytes));
  Buffer buffer = {room->bytes, size};
  return buffer;
}

static std::string
get_written (Room *room, Buffer buffer_p)
{
  return std::string ((const char *) room->bytes, (size_t) (buffer_p.data - room->bytes));
}

// The formatter without the compiler's check of the directives: some of these are odd on purpose.
static std::string
format_unchecked (u64 room_size, const char *format, ...)
{
  Room room;
  va_list args;
  va_start (args, format);
  Buffer buffer_p = buffer_append_format_valist (make_room (&room, room_size), format, args);
  va_end (args);
  EXPECT_EQ (room_size - (u64) (buffer_p.data - room.bytes), buffer_p.size);
  for (u64 index = room_size; index < sizeof (room.bytes); ++index)
    EXPECT_EQ (0xEE, room.bytes[index]) << "written behind the room";
  return get_written (&room, buffer_p);
}

static std::vector<std::string>
split (const std::string &text)
{
  StringsStack stack = alloc_split_string_by_words (from_std (text));
  std::vector<std::string> words;
  for (u32 index = 0; index < stack.count; ++index)
    words.push_back (to_std (stack.strings[index]));
  EXPECT_LE (stack.count, stack.max);
  dealloc_strings_stack (stack);
  return words;
}

static std::string
base64 (const std::string &text)
{
  Room room;
  String encoded = get_base64_string (make_room (&room, sizeof (room.bytes)), from_std (text));
  EXPECT_EQ (room.bytes, encoded.data);
  EXPECT_EQ (get_base64_len (text.size ()), encoded.size);
  EXPECT_EQ (0xEE, room.bytes[encoded.size]) << "a terminator was written";
  return to_std (encoded);
}

// Bytes that depend on the seed only, so that a failure comes again.
static u32
next_random (u32 *seed)
{
  *seed = *seed * 1664525 + 1013904223;
  return *seed >> 8;
}

static std::string
make_random_text (u32 *seed, u32 size_max, const std::string &alphabet)
{
  std::string text;
  u32 size = next_random (seed) % (size_max + 1);
  for (u32 index = 0; index < size; ++index)
    text += alphabet.empty () ? (char) next_random (seed)
                              : alphabet[next_random (seed) % alphabet.size ()];
  return text;
}

// ---- Number types ----

TEST (number_types, have_the_width_and_sign_of_their_names)
{
  EXPECT_EQ (1u, sizeof (u8));
  EXPECT_EQ (2u, sizeof (u16));
  EXPECT_EQ (4u, sizeof (u32));
  EXPECT_EQ (8u, sizeof (u64));
  EXPECT_EQ (1u, sizeof (s8));
  EXPECT_EQ (2u, sizeof (s16));
  EXPECT_EQ (4u, sizeof (s32));
  EXPECT_EQ (8u, sizeof (s64));
  EXPECT_EQ (4u, sizeof (r32));
  EXPECT_EQ (8u, sizeof (r64));
  EXPECT_GT ((u8) -1, 0);
  EXPECT_LT ((s8) -1, 0);
  EXPECT_GT ((u64) -1, 0u);
  EXPECT_LT ((s64) -1, 0);
}

// ---- Allocation ----

TEST (to_string, views_the_text_without_terminator)
{
  const char *text = "abc";
  String string = to_string (text);
  EXPECT_EQ ((const u8 *) text, string.data);
  EXPECT_EQ (3u, string.size);
}

TEST (to_string, of_an_empty_text_is_empty)
{
  EXPECT_EQ (0u, to_string ("").size);
}

TEST (alloc, gives_room_of_the_size_asked_for)
{
  Buffer buffer = alloc (100);
  ASSERT_NE (nullptr, buffer.data);
  EXPECT_EQ (100u, buffer.size);
  memset (buffer.data, 1, 100);
  dealloc (buffer);
}

TEST (alloc, of_nothing_can_be_given_back)
{
  Buffer buffer = alloc (0);
  EXPECT_EQ (0u, buffer.size);
  dealloc (buffer);
}

TEST (alloc_string, copies_the_bytes_of_a_string)
{
  String original = make_string ("a\0b", 3);
  String copy = alloc_string (original);
  EXPECT_NE (original.data, copy.data);
  EXPECT_EQ (std::string ("a\0b", 3), to_std (copy));
  dealloc_string (copy);
}

TEST (alloc_string, copies_a_terminated_text_without_its_terminator)
{
  String copy = alloc_string ("abc");
  EXPECT_EQ (3u, copy.size);
  EXPECT_EQ ("abc", to_std (copy));
  dealloc_string (copy);
}

TEST (alloc_string, of_an_empty_string_is_empty)
{
  String none = {};
  String copy = alloc_string (none);
  EXPECT_EQ (0u, copy.size);
  dealloc_string (copy);
}

TEST (alloc_cstr, copies_a_string_and_terminates_it)
{
  char *cstr = alloc_cstr (string_advance (to_string ("xabc"), 1));
  EXPECT_STREQ ("abc", cstr);
  dealloc_cstr (cstr);
}

TEST (alloc_cstr, of_an_empty_string_is_an_empty_text)
{
  String none = {};
  char *cstr = alloc_cstr (none);
  EXPECT_STREQ ("", cstr);
  dealloc_cstr (cstr);
}

TEST (alloc_cstr, copies_a_terminated_text)
{
  const char *text = "abc";
  char *cstr = alloc_cstr (text);
  EXPECT_NE (text, cstr);
  EXPECT_STREQ ("abc", cstr);
  dealloc_cstr (cstr);
}

// ---- Comparison ----

TEST (string_equals_string, when_size_and_bytes_are_equal)
{
  std::string one = "abc";
  std::string other = "abc";
  EXPECT_TRUE (from_std (one) == from_std (other));
  EXPECT_FALSE (from_std (one) != from_std (other));
}

TEST (string_equals_string, not_when_a_byte_or_the_size_differs)
{
  EXPECT_FALSE (to_string ("abc") == to_string ("abd"));
  EXPECT_FALSE (to_string ("abc") == to_string ("abcd"));
  EXPECT_TRUE (to_string ("abc") != to_string ("abd"));
  EXPECT_TRUE (to_string ("abc") != to_string ("ab"));
}

TEST (string_equals_string, compares_what_follows_a_0_byte)
{
  std::string one ("a\0b", 3);
  std::string other ("a\0c", 3);
  EXPECT_TRUE (from_std (one) == from_std (one));
  EXPECT_FALSE (from_std (one) == from_std (other));
}

TEST (string_equals_string, empty_ones_are_equal_wherever_they_point)
{
  String none = {};
  EXPECT_TRUE (none == to_string (""));
  EXPECT_TRUE (none == none);
}

TEST (string_equals_cstr, when_both_end_together)
{
  EXPECT_TRUE (to_string ("abc") == "abc");
  EXPECT_FALSE (to_string ("abc") != "abc");
  EXPECT_TRUE (to_string ("") == "");
}

TEST (string_equals_cstr, not_when_one_is_longer)
{
  EXPECT_FALSE (to_string ("abc") == "abcd");
  EXPECT_FALSE (to_string ("abcd") == "abc");
  EXPECT_TRUE (to_string ("abc") != "abcd");
  EXPECT_FALSE (to_string ("") == "a");
  EXPECT_FALSE (to_string ("a") == "");
}

TEST (string_equals_cstr, not_when_a_byte_differs)
{
  EXPECT_FALSE (to_string ("abc") == "abd");
  EXPECT_FALSE (to_string ("xbc") == "abc");
}

TEST (string_equals_cstr, compares_bytes_above_127)
{
  EXPECT_TRUE (to_string ("\xC3\xA4") == "\xC3\xA4");
}

TEST (string_equals_cstr, never_when_the_string_holds_a_0_byte)
{
  EXPECT_FALSE (make_string ("abc\0", 4) == "abc");
  EXPECT_FALSE (make_string ("\0", 1) == "");
  EXPECT_TRUE (make_string ("a\0b", 3) != "a");
}

// ---- Cursors ----

TEST (string_advance, moves_on_inside_the_string)
{
  String string = to_string ("abc");
  String rest = string_advance (string, 2);
  EXPECT_EQ (string.data + 2, rest.data);
  EXPECT_EQ (1u, rest.size);
}

TEST (string_advance, to_exactly_the_end_is_empty)
{
  String string = to_string ("abc");
  String rest = string_advance (string, 3);
  EXPECT_EQ (string.data + 3, rest.data);
  EXPECT_EQ (0u, rest.size);
}

TEST (string_advance, past_the_end_stops_at_the_end)
{
  String string = to_string ("abc");
  for (u64 n : {(u64) 4, (u64) 5, (u64) -1}) {
    String rest = string_advance (string, n);
    EXPECT_EQ (string.data + 3, rest.data);
    EXPECT_EQ (0u, rest.size);
  }
}

TEST (buffer_advance, moves_on_and_takes_from_the_room)
{
  Room room;
  Buffer buffer_p = buffer_advance (make_room (&room, 10), 4);
  EXPECT_EQ (room.bytes + 4, buffer_p.data);
  EXPECT_EQ (6u, buffer_p.size);
  EXPECT_EQ (0xEE, room.bytes[0]);
}

TEST (buffer_advance, past_the_end_stops_at_the_end)
{
  Room room;
  Buffer buffer_p = buffer_advance (make_room (&room, 10), 11);
  EXPECT_EQ (room.bytes + 10, buffer_p.data);
  EXPECT_EQ (0u, buffer_p.size);
}

TEST (buffer_advance_zeroed, zeroes_what_it_passes_over)
{
  Room room;
  Buffer buffer_p = buffer_advance_zeroed (make_room (&room, 10), 3);
  EXPECT_EQ (std::string (3, '\0'), get_written (&room, buffer_p));
  EXPECT_EQ (0xEE, room.bytes[3]);
  EXPECT_EQ (7u, buffer_p.size);
}

TEST (buffer_advance_zeroed, by_more_than_the_room_zeroes_only_the_room)
{
  Room room;
  Buffer buffer_p = buffer_advance_zeroed (make_room (&room, 4), 100);
  EXPECT_EQ (std::string (4, '\0'), get_written (&room, buffer_p));
  EXPECT_EQ (0xEE, room.bytes[4]);
  EXPECT_EQ (0u, buffer_p.size);
}

TEST (buffer_advance_zeroed, without_room_does_nothing)
{
  Buffer none = {};
  Buffer buffer_p = buffer_advance_zeroed (none, 8);
  EXPECT_EQ (nullptr, buffer_p.data);
  EXPECT_EQ (0u, buffer_p.size);
}

// ---- Searching and classification ----

TEST (find_char, gives_the_tail_from_the_first_occurrence)
{
  EXPECT_EQ ("@b@c", to_std (find_char (to_string ("a@b@c"), '@')));
}

TEST (find_char, finds_the_first_and_the_last_byte)
{
  EXPECT_EQ ("abc", to_std (find_char (to_string ("abc"), 'a')));
  EXPECT_EQ ("c", to_std (find_char (to_string ("abc"), 'c')));
}

TEST (find_char, gives_the_empty_end_when_there_is_none)
{
  String string = to_string ("abc");
  String found = find_char (string, '\'');
  EXPECT_EQ (string.data + 3, found.data);
  EXPECT_EQ (0u, found.size);
}

TEST (find_char, finds_nothing_in_an_empty_string)
{
  String none = {};
  EXPECT_EQ (0u, find_char (none, 'a').size);
}

TEST (find_char, finds_0_bytes_and_bytes_above_127)
{
  EXPECT_EQ (2u, find_char (make_string ("a\0b", 3), '\0').size);
  EXPECT_EQ (2u, find_char (to_string ("a\xC3z"), '\xC3').size);
}

struct WhitespaceCase {
  const char *text;
  bool has_whitespace;
  bool has_non_whitespace;
};

class cstr_whitespace : public testing::TestWithParam<WhitespaceCase> {};

TEST_P (cstr_whitespace, is_space_line_feed_return_and_tab)
{
  EXPECT_EQ (GetParam ().has_whitespace, cstr_has_whitespace (GetParam ().text));
  EXPECT_EQ (GetParam ().has_non_whitespace, cstr_has_non_whitespace (GetParam ().text));
}

INSTANTIATE_TEST_SUITE_P (
  table, cstr_whitespace,
  testing::Values (WhitespaceCase{"", false, false}, WhitespaceCase{" ", true, false},
                   WhitespaceCase{"\n", true, false}, WhitespaceCase{"\r", true, false},
                   WhitespaceCase{"\t", true, false}, WhitespaceCase{" \t\r\n", true, false},
                   WhitespaceCase{"abc", false, true}, WhitespaceCase{"ab c", true, true},
                   WhitespaceCase{"abc ", true, true}, WhitespaceCase{" a", true, true},
                   WhitespaceCase{"\v", false, true}, WhitespaceCase{"\f", false, true},
                   WhitespaceCase{"\xC2\xA0", false, true}));

TEST (string_has_only_digits, is_true_for_digits_and_for_nothing)
{
  EXPECT_TRUE (string_has_only_digits (to_string ("0123456789")));
  EXPECT_TRUE (string_has_only_digits (to_string ("")));
}

TEST (string_has_only_digits, is_false_with_any_other_byte)
{
  for (u32 byte = 0; byte < 256; ++byte) {
    std::string text = "12" + std::string (1, (char) byte) + "3";
    EXPECT_EQ (byte >= '0' && byte <= '9', string_has_only_digits (from_std (text))) << byte;
  }
  EXPECT_FALSE (string_has_only_digits (to_string ("-1")));
}

// ---- Appending ----

TEST (buffer_append_string, copies_what_fits_whole)
{
  Room room;
  Buffer buffer_p = buffer_append_string (make_room (&room, 10), to_string ("abc"));
  EXPECT_EQ ("abc", get_written (&room, buffer_p));
  EXPECT_EQ (7u, buffer_p.size);
  EXPECT_EQ (0xEE, room.bytes[3]);
}

TEST (buffer_append_string, of_10_bytes_into_4_writes_4)
{
  Room room;
  Buffer buffer_p = buffer_append_string (make_room (&room, 4), to_string ("abcdefghij"));
  EXPECT_EQ ("abcd", get_written (&room, buffer_p));
  EXPECT_EQ (0u, buffer_p.size);
  EXPECT_EQ (0xEE, room.bytes[4]);
}

TEST (buffer_append_string, of_nothing_or_into_nothing_does_nothing)
{
  Room room;
  String none = {};
  EXPECT_EQ (10u, buffer_append_string (make_room (&room, 10), none).size);
  Buffer no_room = {};
  EXPECT_EQ (0u, buffer_append_string (no_room, to_string ("abc")).size);
}

TEST (buffer_append_char, writes_one_byte)
{
  Room room;
  Buffer buffer_p = buffer_append_char (make_room (&room, 2), 'a');
  EXPECT_EQ ("a", get_written (&room, buffer_p));
  EXPECT_EQ (1u, buffer_p.size);
}

TEST (buffer_append_char, without_room_writes_nothing)
{
  Room room;
  Buffer buffer_p = buffer_append_char (make_room (&room, 0), 'a');
  EXPECT_EQ (room.bytes, buffer_p.data);
  EXPECT_EQ (0u, buffer_p.size);
  EXPECT_EQ (0xEE, room.bytes[0]);
}

TEST (buffer_append_cstr, copies_up_to_the_terminator)
{
  Room room;
  Buffer buffer_p = buffer_append_cstr (make_room (&room, 10), "abc");
  EXPECT_EQ ("abc", get_written (&room, buffer_p));
  EXPECT_EQ (0xEE, room.bytes[3]);
}

TEST (buffer_append_cstr, copies_until_the_room_ends)
{
  Room room;
  Buffer buffer_p = buffer_append_cstr (make_room (&room, 2), "abc");
  EXPECT_EQ ("ab", get_written (&room, buffer_p));
  EXPECT_EQ (0u, buffer_p.size);
  EXPECT_EQ (0xEE, room.bytes[2]);
}

// ---- Number parsing ----

struct NumberCase {
  const char *text;
  u64 as_u64;
  s64 as_s64;
};

class number_parsing : public testing::TestWithParam<NumberCase> {};

TEST_P (number_parsing, of_strings_and_of_terminated_texts_agrees)
{
  const NumberCase &c = GetParam ();
  EXPECT_EQ (c.as_u64, string_to_u64 (to_string (c.text)));
  EXPECT_EQ (c.as_s64, string_to_s64 (to_string (c.text)));
  EXPECT_EQ (c.as_u64, cstr_dec_to_u64 (c.text));
  EXPECT_EQ (c.as_s64, cstr_dec_to_s64 (c.text));
}

INSTANTIATE_TEST_SUITE_P (
  table, number_parsing,
  testing::Values (NumberCase{"", 0, 0}, NumberCase{"0", 0, 0}, NumberCase{"42", 42, 42},
                   NumberCase{"007", 7, 7}, NumberCase{"-42", (u64) -258, -42},
                   NumberCase{"-0", (u64) -30, 0}, NumberCase{"-", (u64) -3, 0},
                   NumberCase{"+5", (u64) -45, -45},
                   NumberCase{"9223372036854775807", INT64_MAX, INT64_MAX},
                   NumberCase{"18446744073709551615", UINT64_MAX, -1},
                   NumberCase{"18446744073709551616", 0, 0},
                   // '-' is three below '0', so that as an unsigned number it wraps.
                   NumberCase{"-9223372036854775808", 16116860184273879040u, INT64_MIN},
                   // A letter counts as its distance from '0', a byte above 127 as a signed one.
                   NumberCase{"a", 49, 49}, NumberCase{"1 2", (u64) -58, -58},
                   NumberCase{"\xFF", (u64) -49, -49}));

TEST (number_parsing, counts_a_0_byte_in_a_string)
{
  EXPECT_EQ ((u64) (10 - 48), string_to_u64 (make_string ("1\0", 2)));
}

TEST (number_parsing, returns_what_was_printed)
{
  u32 seed = 1;
  for (u32 round = 0; round < 2000; ++round) {
    u64 value =
      ((u64) next_random (&seed) << 40) ^ ((u64) next_random (&seed) << 20) ^ next_random (&seed);
    value >>= next_random (&seed) % 64;
    EXPECT_EQ (value, cstr_dec_to_u64 (std::to_string (value).c_str ()));
    EXPECT_EQ ((s64) value, cstr_dec_to_s64 (std::to_string ((s64) value).c_str ()));
  }
}

// ---- Base64 ----

TEST (get_base64_char, gives_the_alphabet_and_a_slash_for_all_above)
{
  std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (u32 index = 0; index < 64; ++index)
    EXPECT_EQ (alphabet[index], get_base64_char ((u8) index)) << index;
  for (u32 index = 64; index < 256; ++index)
    EXPECT_EQ ('/', get_base64_char ((u8) index)) << index;
}

TEST (get_base64_len, is_four_for_every_three_begun)
{
  u64 expected[] = {0, 4, 4, 4, 8, 8, 8, 12};
  for (u64 size = 0; size < 8; ++size)
    EXPECT_EQ (expected[size], get_base64_len (size)) << size;
}

TEST (get_base64_string, encodes_every_remainder)
{
  EXPECT_EQ ("", base64 (""));
  EXPECT_EQ ("YQ==", base64 ("a"));
  EXPECT_EQ ("YWI=", base64 ("ab"));
  EXPECT_EQ ("YWJj", base64 ("abc"));
  EXPECT_EQ ("YWJjZA==", base64 ("abcd"));
}

TEST (get_base64_string, encodes_0_bytes)
{
  EXPECT_EQ ("AGFkYQBwdw==", base64 (std::string ("\0ada\0pw", 7)));
}

TEST (get_base64_string, carries_the_sign_of_bytes_above_127)
{
  // The first byte's own sign makes the first index too large.
  EXPECT_EQ ("/A==", base64 ("\x80"));
  EXPECT_EQ ("/4Bh", base64 ("a\x80"
                             "a"));
  EXPECT_EQ ("//+A", base64 ("aa\x80"));
  EXPECT_EQ ("/4A=", base64 ("a\x80"));
}

TEST (get_base64_string, of_ascii_is_standard)
{
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  u32 seed = 7;
  for (u32 round = 0; round < 500; ++round) {
    std::string text = make_random_text (&seed, 40, "");
    for (char &c : text)
      c = (char) (c & 0x7F);
    std::string encoded = base64 (text);
    std::string decoded;
    u32 bits = 0;
    u32 bits_count = 0;
    for (char c : encoded.substr (0, encoded.find ('='))) {
      bits = (bits << 6) | (u32) alphabet.find (c);
      bits_count += 6;
      if (bits_count >= 8) {
        bits_count -= 8;
        decoded += (char) (bits >> bits_count);
      }
    }
    EXPECT_EQ (text, decoded);
  }
}

TEST (get_base64_string, takes_a_buffer_that_fits_exactly)
{
  Room room;
  String encoded = get_base64_string (make_room (&room, 4), to_string ("a"));
  EXPECT_EQ ("YQ==", to_std (encoded));
  EXPECT_EQ (0xEE, room.bytes[4]);
}

TEST (get_base64_string, stops_the_program_when_the_buffer_is_too_small)
{
  Room room;
  EXPECT_DEATH (get_base64_string (make_room (&room, 3), to_string ("a")),
                "src/buffers\\.cpp.*String get_base64_string\\(Buffer, String\\)"
                ".*`result\\.size <= buffer\\.size'");
}

// ---- Growable arrays ----

TEST (grow_max, doubles_and_begins_with_one)
{
  u32 expected[] = {1, 2, 4, 8, 16, 32};
  u32 max = 0;
  for (u32 index = 0; index < 6; ++index) {
    max = grow_max (max);
    EXPECT_EQ (expected[index], max);
  }
  EXPECT_EQ (128u, grow_max (64));
}

// ---- String stacks ----

TEST (strings_stack_push, grows_from_nothing_to_one_and_then_doubles)
{
  StringsStack stack = {};
  u32 maxima[] = {1, 2, 4, 4, 8, 8, 8, 8, 16};
  for (u32 index = 0; index < 9; ++index) {
    strings_stack_push (&stack, to_string ("abc"));
    EXPECT_EQ (index + 1, stack.count);
    EXPECT_EQ (maxima[index], stack.max);
  }
  for (u32 index = 0; index < 9; ++index)
    EXPECT_TRUE (stack.strings[index] == "abc");
  dealloc_strings_stack (stack);
}

TEST (strings_stack_push, stores_the_view_itself)
{
  StringsStack stack = {};
  String string = to_string ("abc");
  strings_stack_push (&stack, string);
  EXPECT_EQ (string.data, stack.strings[0].data);
  dealloc_strings_stack (stack);
}

struct SplitCase {
  std::string text;
  std::vector<std::string> words;
};

class alloc_split_string_by_words_of : public testing::TestWithParam<SplitCase> {};

TEST_P (alloc_split_string_by_words_of, gives_its_words)
{
  EXPECT_EQ (GetParam ().words, split (GetParam ().text));
}

INSTANTIATE_TEST_SUITE_P (
  table, alloc_split_string_by_words_of,
  testing::Values (SplitCase{"a  b\n c", {"a  ", "b", "\n ", "c"}},
                   SplitCase{"ab cd", {"ab ", "cd"}}, SplitCase{"ab\ncd", {"ab", "\n", "cd"}},
                   SplitCase{" ab", {" ", "ab"}}, SplitCase{"\nab", {"", "\n", "ab"}},
                   SplitCase{"a", {"a"}}, SplitCase{" ", {" "}}, SplitCase{"\n", {"", "\n"}},
                   SplitCase{"\n\n", {"", "\n", "\n"}}, SplitCase{"a\n\nb", {"a", "\n", "\n", "b"}},
                   SplitCase{"a \nb ", {"a ", "\n", "b "}}, SplitCase{" \n a", {" ", "\n ", "a"}},
                   SplitCase{"ab ", {"ab "}}, SplitCase{"ab\n", {"ab", "\n"}},
                   // Tab and carriage return belong to the word.
                   SplitCase{"a\tb\rc d", {"a\tb\rc ", "d"}}, SplitCase{"\ta", {"\ta"}},
                   SplitCase{"a\r\nb", {"a\r", "\n", "b"}},
                   SplitCase{"one two three four five six",
                             {"one ", "two ", "three ", "four ", "five ", "six"}}));

TEST (alloc_split_string_by_words, of_an_empty_text_is_all_zero)
{
  StringsStack stack = alloc_split_string_by_words (to_string (""));
  EXPECT_EQ (0u, stack.max);
  EXPECT_EQ (0u, stack.count);
  EXPECT_EQ (nullptr, stack.strings);
}

TEST (alloc_split_string_by_words, begins_with_a_fifth_of_the_bytes_as_slots)
{
  StringsStack four = alloc_split_string_by_words (to_string ("abcd"));
  EXPECT_EQ (1u, four.max);  // from 0, grown for the one word
  EXPECT_EQ (1u, four.count);
  dealloc_strings_stack (four);

  StringsStack fourteen = alloc_split_string_by_words (to_string ("abcdefghijklmn"));
  EXPECT_EQ (2u, fourteen.max);
  EXPECT_EQ (1u, fourteen.count);
  dealloc_strings_stack (fourteen);
}

TEST (alloc_split_string_by_words, gives_views_over_the_text)
{
  String text = to_string ("ab cd");
  StringsStack stack = alloc_split_string_by_words (text);
  ASSERT_EQ (2u, stack.count);
  EXPECT_EQ (text.data, stack.strings[0].data);
  EXPECT_EQ (text.data + 3, stack.strings[1].data);
  dealloc_strings_stack (stack);
}

TEST (alloc_split_string_by_words, joined_again_gives_the_text)
{
  u32 seed = 3;
  for (u32 round = 0; round < 3000; ++round) {
    std::string text = make_random_text (&seed, 60, round % 2 == 0 ? "ab \n" : "");
    std::string joined;
    for (const std::string &word : split (text))
      joined += word;
    EXPECT_EQ (text, joined);
  }
}

// ---- STRING_ARGS ----

TEST (string_args, give_length_and_data)
{
  Room room;
  String string = string_advance (to_string ("xabc"), 1);
  EXPECT_EQ ("<abc>",
             to_std (make_format_string (make_room (&room, 100), "<%.*s>", STRING_ARGS (string))));
}

TEST (string_args, of_an_empty_string_print_nothing)
{
  Room room;
  String string = to_string ("");
  EXPECT_EQ ("<>",
             to_std (make_format_string (make_room (&room, 100), "<%.*s>", STRING_ARGS (string))));
}

TEST (string_format_size, stays_an_int)
{
  String string = to_string ("abc");
  EXPECT_EQ (3, string_format_size (string));
  string.size = INT_MAX;
  EXPECT_EQ (INT_MAX, string_format_size (string));
  string.size = (u64) INT_MAX + 1;
  EXPECT_EQ (INT_MAX, string_format_size (string));
  string.size = UINT64_MAX;
  EXPECT_EQ (INT_MAX, string_format_size (string));
}

// ---- Formatted output ----

TEST (format, copies_plain_text)
{
  EXPECT_EQ ("", format_unchecked (100, ""));
  EXPECT_EQ ("abc", format_unchecked (100, "abc"));
  EXPECT_EQ ("\xC3\xA4\n", format_unchecked (100, "\xC3\xA4\n"));
}

TEST (format, prints_32_bit_numbers)
{
  EXPECT_EQ ("-5", format_unchecked (100, "%d", -5));
  EXPECT_EQ ("0", format_unchecked (100, "%d", 0));
  EXPECT_EQ ("2147483647", format_unchecked (100, "%d", INT_MAX));
  EXPECT_EQ ("-2147483648", format_unchecked (100, "%d", INT_MIN));
  EXPECT_EQ ("4294967295", format_unchecked (100, "%u", UINT_MAX));
  EXPECT_EQ ("0", format_unchecked (100, "%u", 0));
}

class format_signed_64 : public testing::TestWithParam<const char *> {};

TEST_P (format_signed_64, prints_the_whole_range)
{
  EXPECT_EQ ("-9223372036854775808", format_unchecked (100, GetParam (), INT64_MIN));
  EXPECT_EQ ("9223372036854775807", format_unchecked (100, GetParam (), INT64_MAX));
  EXPECT_EQ ("-1", format_unchecked (100, GetParam (), (s64) -1));
  EXPECT_EQ ("0", format_unchecked (100, GetParam (), (s64) 0));
}

INSTANTIATE_TEST_SUITE_P (table, format_signed_64, testing::Values ("%ld", "%lld", "%I64d"));

class format_unsigned_64 : public testing::TestWithParam<const char *> {};

TEST_P (format_unsigned_64, prints_the_whole_range)
{
  EXPECT_EQ ("18446744073709551615", format_unchecked (100, GetParam (), UINT64_MAX));
  EXPECT_EQ ("0", format_unchecked (100, GetParam (), (u64) 0));
}

INSTANTIATE_TEST_SUITE_P (table, format_unsigned_64, testing::Values ("%lu", "%llu", "%I64u"));

TEST (format, prints_terminated_texts)
{
  EXPECT_EQ ("<abc>", format_unchecked (100, "<%s>", "abc"));
  EXPECT_EQ ("<>", format_unchecked (100, "<%s>", ""));
}

TEST (format, prints_null_for_a_null_text)
{
  EXPECT_EQ ("(null)", format_unchecked (100, "%s", (const char *) NULL));
}

TEST (format, prints_as_many_bytes_as_the_length_says)
{
  EXPECT_EQ ("abc", format_unchecked (100, "%.*s", 3, "abcdef"));
  EXPECT_EQ ("", format_unchecked (100, "%.*s", 0, "abcdef"));
  EXPECT_EQ (std::string ("a\0b", 3), format_unchecked (100, "%.*s", 3, "a\0b"));
}

TEST (format, prints_null_for_null_bytes_of_any_length)
{
  for (int length : {-1, 0, 3, 100})
    EXPECT_EQ ("(null)", format_unchecked (100, "%.*s", length, (const char *) NULL));
}

TEST (format, takes_a_negative_length_as_none)
{
  EXPECT_EQ ("<>", format_unchecked (100, "<%.*s>", -1, "abc"));
  EXPECT_EQ ("<>", format_unchecked (100, "<%.*s>", INT_MIN, "abc"));
}

TEST (format, prints_addresses)
{
  EXPECT_EQ ("(nil)", format_unchecked (100, "%p", (void *) NULL));
  EXPECT_EQ ("0xff", format_unchecked (100, "%p", (void *) 255));
  EXPECT_EQ ("0x1", format_unchecked (100, "%p", (void *) 1));
  EXPECT_EQ ("0x123456789abcdef0", format_unchecked (100, "%p", (void *) 0x123456789ABCDEF0));
  EXPECT_EQ ("0xffffffffffffffff", format_unchecked (100, "%p", (void *) UINT64_MAX));
}

TEST (format, prints_six_decimals)
{
  EXPECT_EQ ("1.500000", format_unchecked (100, "%f", 1.5));
  EXPECT_EQ ("-1.500000", format_unchecked (100, "%f", -1.5));
  EXPECT_EQ ("0.000000", format_unchecked (100, "%f", 0.0));
  EXPECT_EQ ("0.000001", format_unchecked (100, "%f", 0.00000051));
  EXPECT_EQ ("1234567.000000", format_unchecked (100, "%f", 1234567.0));
}

TEST (format, prints_numbers_without_decimals_as_the_platform_does)
{
  EXPECT_EQ ("inf", format_unchecked (100, "%f", (r64) INFINITY));
  EXPECT_EQ ("-inf", format_unchecked (100, "%f", -(r64) INFINITY));
  EXPECT_EQ ("nan", format_unchecked (100, "%f", (r64) NAN));
}

TEST (format, prints_the_largest_number_whole)
{
  std::string text = format_unchecked (512, "%f", -1.7976931348623157e308);
  EXPECT_EQ (317u, text.size ());
  EXPECT_EQ ("-17976931348623157", text.substr (0, 18));
  EXPECT_EQ (".000000", text.substr (310));
}

static void
write_file (const std::string &path, const std::string &text)
{
  FILE *file = fopen (path.c_str (), "w");
  ASSERT_NE (nullptr, file);
  fwrite (text.data (), 1, text.size (), file);
  fclose (file);
}

// Makes a locale that writes numbers with the decimal point given, since the machine may have none
// but the plain one, and switches to it. Returns the folder that holds it.
static std::string
enter_locale (const std::string &decimal_point)
{
  char folder[] = "/tmp/morvane_locale_XXXXXX";
  EXPECT_NE (nullptr, mkdtemp (folder));
  std::string path = folder;
  write_file (path + "/charmap",
              "<code_set_name> MORVANE\n<mb_cur_min> 1\n<mb_cur_max> 2\n<escape_char> /\nCHARMAP\n"
              "<U0000>..<U007F> /x00 ASCII\n"
              "<U066B> /xd9/xab ARABIC DECIMAL SEPARATOR\nEND CHARMAP\n");
  write_file (path + "/source", "LC_NUMERIC\ndecimal_point \"" + decimal_point +
                                  "\"\nthousands_sep \"\"\ngrouping -1\nEND LC_NUMERIC\n");
  // It complains of the categories that the source leaves out, and makes them.
  std::string make = "localedef -c -i " + path + "/source -f " + path + "/charmap --no-archive " +
                     path + "/made >/dev/null 2>&1";
  EXPECT_NE (-1, system (make.c_str ()));
  setenv ("LOCPATH", folder, 1);
  EXPECT_NE (nullptr, setlocale (LC_NUMERIC, "made"));
  return path;
}

static void
leave_locale (const std::string &folder)
{
  setlocale (LC_NUMERIC, "C");
  unsetenv ("LOCPATH");
  std::filesystem::remove_all (folder);
}

struct LocaleCase {
  const char *decimal_point;  // as a locale source names it
  const char *by_platform;    // what the platform makes of -12.25
};

class format_in_locale : public testing::TestWithParam<LocaleCase> {};

TEST_P (format_in_locale, prints_a_full_stop)
{
  std::string folder = enter_locale (GetParam ().decimal_point);
  char by_platform[64];
  r64 value = -12.25;
  snprintf (by_platform, sizeof (by_platform), "%f", value);
  EXPECT_STREQ (GetParam ().by_platform, by_platform);
  EXPECT_EQ ("-12.250000", format_unchecked (100, "%f", value));
  EXPECT_EQ ("0.000000", format_unchecked (100, "%f", 0.0));
  EXPECT_EQ ("inf", format_unchecked (100, "%f", (r64) INFINITY));
  leave_locale (folder);
}

INSTANTIATE_TEST_SUITE_P (table, format_in_locale,
                          testing::Values (LocaleCase{"<U002C>", "-12,250000"},
                                           LocaleCase{"<U066B>", "-12\xD9\xAB"
                                                                 "250000"}));

TEST (format, prints_a_percent_sign)
{
  EXPECT_EQ ("%", format_unchecked (100, "%%"));
  EXPECT_EQ ("100%d", format_unchecked (100, "100%%d"));
  EXPECT_EQ ("%%", format_unchecked (100, "%%%%"));
}

TEST (format, stops_the_program_at_a_star)
{
  EXPECT_DEATH (format_unchecked (100, "%*d", 3, 4),
                "src/buffers\\.cpp.*!\"We don't handle %\\* yet\"");
}

TEST (format, takes_arguments_in_the_order_of_the_directives)
{
  EXPECT_EQ ("1 two 3 thr 5 0x6 7.000000",
             format_unchecked (100, "%d %s %lu %.*s %ld %p %f", 1, "two", (u64) 3, 3, "three",
                               (s64) 5, (void *) 6, 7.0));
}

// The "%d" that follows must get the one argument: nothing before may consume it.
class format_literal : public testing::TestWithParam<const char *> {};

TEST_P (format_literal, copies_what_it_does_not_know_and_takes_no_argument)
{
  std::string directive = GetParam ();
  EXPECT_EQ (directive, format_unchecked (100, directive.c_str (), 7));
  EXPECT_EQ (directive + "|7", format_unchecked (100, (directive + "|%d").c_str (), 7));
}

INSTANTIATE_TEST_SUITE_P (table, format_literal,
                          testing::Values ("%x", "%c", "%5d", "%lx", "%.3s", "%I32d", "%llx", "%ls",
                                           "%lls", "%I64x", "%I6x", "%I64s", "%.*d", "%.s", "%.d",
                                           "%-d", "%+d", "%0d", "% d", "%#d", "%hd", "%lf", "%lp",
                                           "%i", "%X", "%n", "%ll5d", "%l ", "%.* s", "%I64lu"));

// The byte that does not fit is copied too, so it begins no directive of its own.
TEST (format, does_not_look_again_at_the_byte_that_did_not_fit)
{
  EXPECT_EQ ("%l%d", format_unchecked (100, "%l%d", 7));
  EXPECT_EQ ("%.%d", format_unchecked (100, "%.%d", 7));
  EXPECT_EQ ("%.*%d", format_unchecked (100, "%.*%d", 7));
  EXPECT_EQ ("%I%d", format_unchecked (100, "%I%d", 7));
  EXPECT_EQ ("%ll*", format_unchecked (100, "%ll*", 7));
}

class format_end : public testing::TestWithParam<const char *> {};

TEST_P (format_end, in_the_middle_of_a_directive_copies_it)
{
  std::string directive = GetParam ();
  EXPECT_EQ ("a" + directive, format_unchecked (100, ("a" + directive).c_str (), 7));
}

INSTANTIATE_TEST_SUITE_P (table, format_end,
                          testing::Values ("%", "%l", "%ll", "%.", "%.*", "%I", "%I6", "%I64"));

TEST (format, ends_where_the_room_ends)
{
  EXPECT_EQ ("abcd", format_unchecked (4, "abcdef"));
  EXPECT_EQ ("abcd", format_unchecked (4, "%s", "abcdef"));
  EXPECT_EQ ("abcd", format_unchecked (4, "%.*s", 6, "abcdef"));
  EXPECT_EQ ("1234", format_unchecked (4, "%d", 123456));
  EXPECT_EQ ("-123", format_unchecked (4, "%ld", (s64) -123456));
  EXPECT_EQ ("0x12", format_unchecked (4, "%p", (void *) 0x123456));
  EXPECT_EQ ("(nil", format_unchecked (4, "%p", (void *) NULL));
  EXPECT_EQ ("(nul", format_unchecked (4, "%s", (const char *) NULL));
  EXPECT_EQ ("1.50", format_unchecked (4, "%f", 1.5));
  EXPECT_EQ ("%I32", format_unchecked (4, "%I32d"));
  EXPECT_EQ ("", format_unchecked (0, "%d", 1));
}

TEST (format, ignores_the_rest_of_the_format_once_the_room_is_full)
{
  EXPECT_EQ ("ab", format_unchecked (2, "ab%*d"));
}

TEST (buffer_append_format, returns_the_buffer_moved_on)
{
  Room room;
  Buffer buffer_p = buffer_append_format (make_room (&room, 10), "%d-%s", 12, "ab");
  EXPECT_EQ ("12-ab", get_written (&room, buffer_p));
  EXPECT_EQ (5u, buffer_p.size);
  EXPECT_EQ (0xEE, room.bytes[5]);
}

TEST (make_format_string, views_what_was_written)
{
  Room room;
  String string = make_format_string (make_room (&room, 10), "%d", 123);
  EXPECT_EQ (room.bytes, string.data);
  EXPECT_EQ ("123", to_std (string));
}

TEST (make_format_string, is_content_with_one_byte_left)
{
  Room room;
  EXPECT_EQ ("abc", to_std (make_format_string (make_room (&room, 4), "abc")));
}

TEST (make_format_string, stops_the_program_when_the_buffer_is_full)
{
  Room room;
  EXPECT_DEATH (make_format_string (make_room (&room, 3), "abc"),
                "src/buffers\\.cpp.*String make_format_string\\(Buffer, const char\\*, \\.\\.\\.\\)"
                ".*`buffer_p\\.size'");
}

TEST (alloc_format_string, gives_the_text_without_terminator)
{
  testing::internal::CaptureStderr ();
  String string = alloc_format_string ("%d-%s", 12, "ab");
  EXPECT_EQ ("", testing::internal::GetCapturedStderr ());
  EXPECT_EQ ("12-ab", to_std (string));
  dealloc_string (string);
}

TEST (alloc_format_string, of_4095_bytes_does_not_warn)
{
  std::string text (4095, 'x');
  testing::internal::CaptureStderr ();
  String string = alloc_format_string ("%s", text.c_str ());
  EXPECT_EQ ("", testing::internal::GetCapturedStderr ());
  EXPECT_EQ (text, to_std (string));
  dealloc_string (string);
}

TEST (alloc_format_string, warns_when_no_byte_is_left)
{
  for (u32 size : {4096, 5000}) {
    std::string text (size, 'x');
    testing::internal::CaptureStderr ();
    String string = alloc_format_string ("%s", text.c_str ());
    EXPECT_EQ ("Warning: Print buffer probably has exceeded.\n",
               testing::internal::GetCapturedStderr ());
    EXPECT_EQ (text.substr (0, 4096), to_std (string));
    dealloc_string (string);
  }
}

TEST (alloc_format_cstr, gives_a_terminated_text)
{
  testing::internal::CaptureStderr ();
  char *cstr = alloc_format_cstr ("%d-%s", 12, "ab");
  EXPECT_EQ ("", testing::internal::GetCapturedStderr ());
  EXPECT_STREQ ("12-ab", cstr);
  dealloc_cstr (cstr);
}

TEST (alloc_format_cstr, of_4095_bytes_does_not_warn)
{
  std::string text (4095, 'x');
  testing::internal::CaptureStderr ();
  char *cstr = alloc_format_cstr ("%s", text.c_str ());
  EXPECT_EQ ("", testing::internal::GetCapturedStderr ());
  EXPECT_EQ (text, cstr);
  dealloc_cstr (cstr);
}

TEST (alloc_format_cstr, cuts_to_4095_bytes_and_warns)
{
  for (u32 size : {4096, 5000}) {
    std::string text (size, 'x');
    testing::internal::CaptureStderr ();
    char *cstr = alloc_format_cstr ("%s", text.c_str ());
    EXPECT_EQ ("Warning: Alloc formated buffer has exceeded.\n",
               testing::internal::GetCapturedStderr ());
    EXPECT_EQ (std::string (4095, 'x'), cstr);
    dealloc_cstr (cstr);
  }
}

TEST (buffer_append_u64, prints_without_sign_and_leading_zeros)
{
  Room room;
  EXPECT_EQ ("0", get_written (&room, buffer_append_u64 (make_room (&room, 100), 0)));
  EXPECT_EQ ("10", get_written (&room, buffer_append_u64 (make_room (&room, 100), 10)));
  EXPECT_EQ ("18446744073709551615",
             get_written (&room, buffer_append_u64 (make_room (&room, 100), UINT64_MAX)));
}

TEST (buffer_append_s64, prints_the_sign_of_negative_values_only)
{
  Room room;
  EXPECT_EQ ("0", get_written (&room, buffer_append_s64 (make_room (&room, 100), 0)));
  EXPECT_EQ ("-1", get_written (&room, buffer_append_s64 (make_room (&room, 100), -1)));
  EXPECT_EQ ("-9223372036854775808",
             get_written (&room, buffer_append_s64 (make_room (&room, 100), INT64_MIN)));
}

TEST (buffer_append_s64, without_room_for_more_than_the_sign_writes_the_sign)
{
  Room room;
  EXPECT_EQ ("-", get_written (&room, buffer_append_s64 (make_room (&room, 1), -12)));
}

TEST (buffer_append_addr, prints_what_the_directive_prints)
{
  Room room;
  EXPECT_EQ ("(nil)", get_written (&room, buffer_append_addr (make_room (&room, 100), NULL)));
  EXPECT_EQ ("0x10", get_written (&room, buffer_append_addr (make_room (&room, 100), (void *) 16)));
}

TEST (buffer_append_r64, prints_what_the_directive_prints)
{
  Room room;
  EXPECT_EQ ("-0.250000", get_written (&room, buffer_append_r64 (make_room (&room, 100), -0.25)));
  EXPECT_EQ ("-0.", get_written (&room, buffer_append_r64 (make_room (&room, 3), -0.25)));
}

TEST (buffer_append_r64, agrees_with_the_platform_in_the_plain_locale)
{
  u32 seed = 5;
  for (u32 round = 0; round < 2000; ++round) {
    r64 value = ((s32) next_random (&seed) - (1 << 23)) / 1024.0;
    char expected[64];
    snprintf (expected, sizeof (expected), "%f", value);
    EXPECT_EQ (expected, format_unchecked (100, "%f", value));
  }
}
