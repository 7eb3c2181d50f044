// The drafts of one clause that others have taken the place of, kept until the program ends, the last
// one first. No text is kept twice, and none that is empty.
//
// Ownership: the record is a part of the clause's view and owns its texts.
//
// Threads: the interface thread only.
#pragma once

#include <glib.h>

#include "buffers.h"

struct KeptDrafts {
  GSList *texts;  // owned C strings
};

void dealloc_kept_drafts (KeptDrafts *self);
// Copies `text` to the front.
void kept_drafts_add (KeptDrafts *self, String text);
u32 kept_drafts_count (KeptDrafts *self);
// Takes a text out of the list; it belongs to the caller (`g_free`).
char *kept_drafts_take (KeptDrafts *self, u32 index);
// What the user chooses a text by; the first one's label has no words of the text. Belongs to the
// caller (`g_free`).
char *alloc_kept_draft_label (KeptDrafts *self, u32 index);
// The text's first words. Belongs to the caller (`g_free`).
char *alloc_kept_draft_excerpt (KeptDrafts *self, u32 index);
