#include "kept_drafts.h"

#include <gtest/gtest.h>

#include <string>

static std::string
take (KeptDrafts *drafts, u32 index)
{
  char *text = kept_drafts_take (drafts, index);
  std::string copy = text;
  g_free (text);
  return copy;
}

static std::string
label (KeptDrafts *drafts, u32 index)
{
  char *text = alloc_kept_draft_label (drafts, index);
  std::string copy = text;
  g_free (text);
  return copy;
}

// The record of one clause or another, all gone when the test ends.
struct KeptDraftsTest : testing::Test {
  ~KeptDraftsTest ()
  {
    forget_kept_drafts ();
  }
  KeptDrafts *get (u64 account = 1, const char *clause_initiator = "a@alpha.test", s64 time = 20)
  {
    return get_kept_drafts (account, to_string ("a@alpha.test"), 10, to_string (clause_initiator),
                            time);
  }
};

TEST_F (KeptDraftsTest, are_those_of_the_same_clause_each_time)
{
  kept_drafts_add (get (), to_string ("one"));
  EXPECT_EQ (kept_drafts_count (get ()), 1u);
  EXPECT_EQ (kept_drafts_count (get (2)), 0u);
  EXPECT_EQ (kept_drafts_count (get (1, "b@alpha.test")), 0u);
  EXPECT_EQ (kept_drafts_count (get (1, "a@alpha.test", 21)), 0u);
  EXPECT_EQ (take (get (), 0), "one");
}

TEST_F (KeptDraftsTest, has_the_last_one_first)
{
  KeptDrafts *drafts = get ();
  kept_drafts_add (drafts, to_string ("one"));
  kept_drafts_add (drafts, to_string ("two"));
  EXPECT_EQ (kept_drafts_count (drafts), 2u);
  EXPECT_EQ (take (drafts, 1), "one");
  EXPECT_EQ (take (drafts, 0), "two");
  EXPECT_EQ (kept_drafts_count (drafts), 0u);
}

TEST_F (KeptDraftsTest, keeps_no_text_twice_and_none_that_is_empty)
{
  KeptDrafts *drafts = get ();
  kept_drafts_add (drafts, to_string ("one"));
  kept_drafts_add (drafts, to_string ("two"));
  kept_drafts_add (drafts, to_string ("one"));
  kept_drafts_add (drafts, {});
  EXPECT_EQ (kept_drafts_count (drafts), 2u);
  EXPECT_EQ (take (drafts, 0), "one");
  EXPECT_EQ (take (drafts, 0), "two");
  EXPECT_EQ (kept_drafts_take (drafts, 0), nullptr);
}

TEST_F (KeptDraftsTest, tells_later_ones_by_their_first_words)
{
  KeptDrafts *drafts = get ();
  kept_drafts_add (drafts, to_string ("Forty characters of a text are shown, and not one more"));
  kept_drafts_add (drafts, to_string ("two\nlines"));
  kept_drafts_add (drafts, to_string ("last"));
  EXPECT_EQ (label (drafts, 0), "Bring back the replaced draft");
  EXPECT_EQ (label (drafts, 1), "Bring back the replaced draft \u201ctwo lines\u201d");
  EXPECT_EQ (label (drafts, 2), "Bring back the replaced draft "
                                "\u201cForty characters of a text are shown, an\u2026\u201d");
}
