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

TEST (kept_drafts_add, has_the_last_one_first)
{
  KeptDrafts drafts = {};
  kept_drafts_add (&drafts, to_string ("one"));
  kept_drafts_add (&drafts, to_string ("two"));
  EXPECT_EQ (kept_drafts_count (&drafts), 2u);
  EXPECT_EQ (take (&drafts, 1), "one");
  EXPECT_EQ (take (&drafts, 0), "two");
  EXPECT_EQ (kept_drafts_count (&drafts), 0u);
}

TEST (kept_drafts_add, keeps_no_text_twice_and_none_that_is_empty)
{
  KeptDrafts drafts = {};
  kept_drafts_add (&drafts, to_string ("one"));
  kept_drafts_add (&drafts, to_string ("two"));
  kept_drafts_add (&drafts, to_string ("one"));
  kept_drafts_add (&drafts, {});
  EXPECT_EQ (kept_drafts_count (&drafts), 2u);
  EXPECT_EQ (take (&drafts, 0), "one");
  dealloc_kept_drafts (&drafts);
  EXPECT_EQ (kept_drafts_count (&drafts), 0u);
}

TEST (alloc_kept_draft_label, tells_later_ones_by_their_first_words)
{
  KeptDrafts drafts = {};
  kept_drafts_add (&drafts, to_string ("Forty characters of a text are shown, and not one more"));
  kept_drafts_add (&drafts, to_string ("two\nlines"));
  kept_drafts_add (&drafts, to_string ("last"));
  EXPECT_EQ (label (&drafts, 0), "Bring back the replaced draft");
  EXPECT_EQ (label (&drafts, 1), "Bring back the replaced draft \u201ctwo lines\u201d");
  EXPECT_EQ (label (&drafts, 2), "Bring back the replaced draft "
                                 "\u201cForty characters of a text are shown, an\u2026\u201d");
  dealloc_kept_drafts (&drafts);
}
