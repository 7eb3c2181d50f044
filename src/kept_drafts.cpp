#include "kept_drafts.h"

#include <string.h>

// Of a text in a label, in characters.
static const glong EXCERPT_MAX = 40;

// The records by their clause's identity. NULL until the first is asked for.
static GHashTable *records;

static void
dealloc_kept_drafts (gpointer data)
{
  KeptDrafts *self = (KeptDrafts *) data;
  g_slist_free_full (self->texts, g_free);
  g_free (self);
}

KeptDrafts *
get_kept_drafts (u64 account_db_id, String procedure_initiator, s64 procedure_time,
                 String clause_initiator, s64 clause_time)
{
  if (!records)
    records = g_hash_table_new_full (g_str_hash, g_str_equal, g_free, dealloc_kept_drafts);
  // No address has a line break.
  char *identity =
    g_strdup_printf ("%lu\n%.*s\n%ld\n%.*s\n%ld", account_db_id, STRING_ARGS (procedure_initiator),
                     procedure_time, STRING_ARGS (clause_initiator), clause_time);
  KeptDrafts *self = (KeptDrafts *) g_hash_table_lookup (records, identity);
  if (self) {
    g_free (identity);
  } else {
    self = g_new0 (KeptDrafts, 1);
    g_hash_table_insert (records, identity, self);
  }
  return self;
}

void
forget_kept_drafts ()
{
  g_clear_pointer (&records, g_hash_table_destroy);
}

void
kept_drafts_add (KeptDrafts *self, String text)
{
  if (!text.size)
    return;
  char *copy = g_strndup ((const char *) text.data, (gsize) text.size);
  GSList *same = g_slist_find_custom (self->texts, copy, (GCompareFunc) strcmp);
  if (same) {
    g_free (same->data);
    self->texts = g_slist_delete_link (self->texts, same);
  }
  self->texts = g_slist_prepend (self->texts, copy);
}

u32
kept_drafts_count (KeptDrafts *self)
{
  return g_slist_length (self->texts);
}

char *
kept_drafts_take (KeptDrafts *self, u32 index)
{
  GSList *link = g_slist_nth (self->texts, index);
  if (!link)
    return NULL;
  char *text = (char *) link->data;
  self->texts = g_slist_delete_link (self->texts, link);
  return text;
}

char *
alloc_kept_draft_excerpt (KeptDrafts *self, u32 index)
{
  char *words = g_strdup ((const char *) g_slist_nth_data (self->texts, index));
  g_strdelimit (words, "\n", ' ');
  bool is_short = g_utf8_strlen (words, -1) <= EXCERPT_MAX;
  char *start = is_short ? g_strdup (words) : g_utf8_substring (words, 0, EXCERPT_MAX);
  char *excerpt = g_strconcat ("\u201c", start, is_short ? "" : "\u2026", "\u201d", NULL);
  g_free (start);
  g_free (words);
  return excerpt;
}

char *
alloc_kept_draft_label (KeptDrafts *self, u32 index)
{
  if (index == 0)
    return g_strdup ("Bring back the replaced draft");
  char *excerpt = alloc_kept_draft_excerpt (self, index);
  char *label = g_strconcat ("Bring back the replaced draft ", excerpt, NULL);
  g_free (excerpt);
  return label;
}
