// The word diff: its table, and the walk that tells what was removed, added and kept.
#include "diff.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

typedef std::vector<std::string> Words;

// ---- Helpers ----

// A stack of views over `words`, which must live as long.
static StringsStack
alloc_words (const Words &words)
{
  StringsStack stack = {};
  for (const std::string &word : words) {
    String string = {(u8 *) word.data (), word.size ()};
    strings_stack_push (&stack, string);
  }
  return stack;
}

static Diff
alloc_diff_of (const Words &first, const Words &second)
{
  StringsStack first_stack = alloc_words (first);
  StringsStack second_stack = alloc_words (second);
  Diff diff = alloc_diff (first_stack, second_stack);
  dealloc_strings_stack (first_stack);
  dealloc_strings_stack (second_stack);
  return diff;
}

// What the walk told, as "-word", "+word" and "=word".
struct Walk {
  const Words *first;
  const Words *second;
  Words steps;
};

static void
record_step (DiffKind kind, u32 index, void *data)
{
  Walk *walk = (Walk *) data;
  switch (kind) {
  case DIFF_REMOVED:
    walk->steps.push_back ("-" + walk->first->at (index));
    break;
  case DIFF_ADDED:
    walk->steps.push_back ("+" + walk->second->at (index));
    break;
  case DIFF_COMMON:
    walk->steps.push_back ("=" + walk->first->at (index));
    break;
  }
}

static Words
walk_through (const Words &first, const Words &second)
{
  Diff diff = alloc_diff_of (first, second);
  Walk walk = {&first, &second, {}};
  diff_walk (diff, record_step, &walk);
  dealloc_diff (diff);
  return walk.steps;
}

static Words
make_random_words (u32 *seed)
{
  Words words;
  *seed = *seed * 1664525 + 1013904223;
  u32 count = 1 + (*seed >> 8) % 12;
  for (u32 index = 0; index < count; ++index) {
    *seed = *seed * 1664525 + 1013904223;
    words.push_back (std::string (1, (char) ('a' + (*seed >> 8) % 4)));
  }
  return words;
}

// The length of the longest common subsequence of the ends of two lists, by its definition.
static u32
count_common (const Words &first, u32 i, const Words &second, u32 j)
{
  if (i == first.size () || j == second.size ())
    return 0;
  if (first[i] == second[j])
    return 1 + count_common (first, i + 1, second, j + 1);
  return std::max (count_common (first, i + 1, second, j), count_common (first, i, second, j + 1));
}

// ---- Building ----

TEST (alloc_diff, is_one_wider_and_higher_than_the_lists)
{
  Diff diff = alloc_diff_of ({"a", "b", "c"}, {"a", "b"});
  EXPECT_EQ (4u, diff.width);
  EXPECT_EQ (3u, diff.height);
  dealloc_diff (diff);
}

TEST (alloc_diff, holds_the_lengths_for_the_ends_of_the_lists)
{
  Diff diff = alloc_diff_of ({"a ", "b"}, {"a ", "c", "b"});
  u32 expected[] = {0, 0, 0, 0, 1, 1, 0, 1, 1, 0, 1, 2};
  for (u32 index = 0; index < 12; ++index)
    EXPECT_EQ (expected[index], diff.cells[index]) << index;
  dealloc_diff (diff);
}

TEST (alloc_diff, agrees_with_the_definition_in_every_cell)
{
  u32 seed = 11;
  for (u32 round = 0; round < 60; ++round) {
    Words first = make_random_words (&seed);
    Words second = make_random_words (&seed);
    first.resize (std::min<size_t> (first.size (), 7));
    second.resize (std::min<size_t> (second.size (), 7));
    Diff diff = alloc_diff_of (first, second);
    for (u32 j = 0; j < diff.height; ++j) {
      for (u32 i = 0; i < diff.width; ++i)
        EXPECT_EQ (count_common (first, first.size () - i, second, second.size () - j),
                   diff.cells[j * diff.width + i]);
    }
    dealloc_diff (diff);
  }
}

TEST (alloc_diff, stops_the_program_without_a_first_list)
{
  EXPECT_DEATH (alloc_diff_of ({}, {"a"}),
                "src/diff\\.cpp.*Diff alloc_diff\\(StringsStack, StringsStack\\).*`arr1\\.count'");
}

TEST (alloc_diff, stops_the_program_without_a_second_list)
{
  EXPECT_DEATH (alloc_diff_of ({"a"}, {}),
                "src/diff\\.cpp.*Diff alloc_diff\\(StringsStack, StringsStack\\).*`arr2\\.count'");
}

// ---- Walking ----

TEST (diff_walk, through_identical_lists_tells_only_common_words)
{
  EXPECT_EQ ((Words{"=a ", "=b ", "=c"}), walk_through ({"a ", "b ", "c"}, {"a ", "b ", "c"}));
}

TEST (diff_walk, tells_a_changed_last_word)
{
  EXPECT_EQ ((Words{"=a ", "-b", "+c"}), walk_through ({"a ", "b"}, {"a ", "c"}));
}

TEST (diff_walk, without_a_common_word_tells_all_removed_then_all_added)
{
  EXPECT_EQ ((Words{"-x", "+y"}), walk_through ({"x"}, {"y"}));
  EXPECT_EQ ((Words{"-x", "-y", "+z", "+w"}), walk_through ({"x", "y"}, {"z", "w"}));
}

TEST (diff_walk, takes_a_word_with_another_trailing_space_as_another_word)
{
  EXPECT_EQ ((Words{"-b", "+b "}), walk_through ({"b"}, {"b "}));
}

TEST (diff_walk, tells_removals_before_additions)
{
  EXPECT_EQ ((Words{"-a", "-b", "+c", "+d", "=e"}),
             walk_through ({"a", "b", "e"}, {"c", "d", "e"}));
  EXPECT_EQ ((Words{"-a", "+b", "=m", "-c", "+d"}),
             walk_through ({"a", "m", "c"}, {"b", "m", "d"}));
}

TEST (diff_walk, gives_up_the_first_lists_word_where_two_subsequences_are_equally_long)
{
  EXPECT_EQ ((Words{"-a", "=b", "+a"}), walk_through ({"a", "b"}, {"b", "a"}));
}

TEST (diff_walk, tells_words_inserted_and_removed_at_each_end)
{
  EXPECT_EQ ((Words{"+n", "=a"}), walk_through ({"a"}, {"n", "a"}));
  EXPECT_EQ ((Words{"=a", "+n"}), walk_through ({"a"}, {"a", "n"}));
  EXPECT_EQ ((Words{"-o", "=a"}), walk_through ({"o", "a"}, {"a"}));
  EXPECT_EQ ((Words{"=a", "-o"}), walk_through ({"a", "o"}, {"a"}));
}

TEST (diff_walk, compares_what_the_splitter_made)
{
  StringsStack first = alloc_split_string_by_words (to_string ("one two\nthree"));
  StringsStack second = alloc_split_string_by_words (to_string ("one 2 \nthree\n"));
  Words first_words;
  Words second_words;
  for (u32 index = 0; index < first.count; ++index)
    first_words.push_back (
      std::string ((const char *) first.strings[index].data, first.strings[index].size));
  for (u32 index = 0; index < second.count; ++index)
    second_words.push_back (
      std::string ((const char *) second.strings[index].data, second.strings[index].size));
  EXPECT_EQ ((Words{"=one ", "-two", "+2 ", "=\n", "=three", "+\n"}),
             walk_through (first_words, second_words));
  dealloc_strings_stack (first);
  dealloc_strings_stack (second);
}

TEST (diff_walk, tells_both_lists_in_order_and_as_much_common_as_there_is)
{
  u32 seed = 23;
  for (u32 round = 0; round < 500; ++round) {
    Words first = make_random_words (&seed);
    Words second = make_random_words (&seed);
    Words first_again;
    Words second_again;
    u32 common_count = 0;
    for (const std::string &step : walk_through (first, second)) {
      if (step[0] != '+')
        first_again.push_back (step.substr (1));
      if (step[0] != '-')
        second_again.push_back (step.substr (1));
      common_count += step[0] == '=';
    }
    EXPECT_EQ (first, first_again);
    EXPECT_EQ (second, second_again);
    Diff diff = alloc_diff_of (first, second);
    EXPECT_EQ (diff.cells[(diff.height - 1) * diff.width + diff.width - 1], common_count);
    dealloc_diff (diff);
  }
}

// Removals first: an added word is never followed by a removed one without a common one between.
TEST (diff_walk, never_tells_a_removal_right_after_an_addition)
{
  u32 seed = 31;
  for (u32 round = 0; round < 500; ++round) {
    Words steps = walk_through (make_random_words (&seed), make_random_words (&seed));
    for (size_t index = 1; index < steps.size (); ++index)
      EXPECT_FALSE (steps[index - 1][0] == '+' && steps[index][0] == '-');
  }
}
