// The drafts of one clause that others have taken the place of, and the texts of comparisons with
// decisions in them that went without their user's doing; kept until the program ends, the last one
// first. No text is kept twice, and none that is empty.
//
// Ownership: this module owns the record of each clause and its texts: views come and go with a
// login, the kept drafts stay.
//
// Threads: the interface thread only.
#pragma once

#include <glib.h>

#include "buffers.h"

struct KeptDrafts {
  GSList *texts;  // owned C strings
};

// The record of a clause, by its account's row and by who began its procedure and itself, and when:
// rows are new after the undo of a deletion. Good until `forget_kept_drafts`.
KeptDrafts *get_kept_drafts (u64 account_db_id, String procedure_initiator, s64 procedure_time,
                             String clause_initiator, s64 clause_time);
// Frees the records of all clauses. At the end of the program, or when another store is opened: no
// view may have such a record then.
void forget_kept_drafts ();
// Copies `text` to the front.
void kept_drafts_add (KeptDrafts *self, String text);
u32 kept_drafts_count (KeptDrafts *self);
// Takes a text out of the list; it belongs to the caller (`g_free`). NULL when there is no such text.
char *kept_drafts_take (KeptDrafts *self, u32 index);
// What the user chooses a text by; the first one's label has no words of the text. Belongs to the
// caller (`g_free`).
char *alloc_kept_draft_label (KeptDrafts *self, u32 index);
// The text's first words. Belongs to the caller (`g_free`).
char *alloc_kept_draft_excerpt (KeptDrafts *self, u32 index);
