// The comparison of two texts inside of a clause's text view: the words of both as ordinary text, and
// coloured runs of words that came or went, each of which is kept or removed. The clause's view knows
// whose texts these are, and what becomes of the result.
//
// The text view's buffer is edited here, so who follows the user's typing in it (the buffer's
// "changed") must look away during each call that says so.
//
// Ownership: the record is a part of the clause's view and owns its tags and marks; the widgets are
// borrowed.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "procedure.h"

struct ClauseComparison {
  GtkTextView *text_view;
  GtkWidget *tools;         // stand over the text, at the run that is decided on next
  bool is_shown;            // from `clause_comparison_show` to `clause_comparison_end`
  GtkTextTag *added_tag;    // both of the buffer's table while shown
  GtkTextTag *deleted_tag;  // both NULL otherwise
  // A mark in front of each return symbol that is shown and is no part of the text. The marks are the
  // buffer's; NULL unless shown.
  GHashTable *return_marks;
  // The tagged run that the tools act on, good until the text changes.
  bool has_run;
  GtkTextIter run_start;
  GtkTextIter run_end;
};

// ---- Making ----

void clause_comparison_init (ClauseComparison *self, GtkTextView *text_view, GtkWidget *tools);
// Frees what is left when the buffer may be gone already.
void clause_comparison_finalize (ClauseComparison *self);

// ---- Showing ----

// Why the two can't be compared, to be shown to the user; NULL when they can. Either may be NULL.
const char *get_comparison_refusal (ClauseRevision *revision, ClauseRevision *other_revision);
// Appends the comparison to the text, which the caller has emptied, in place of an earlier one. Both
// texts must have words. Edits the buffer.
void clause_comparison_show (ClauseComparison *self, String older, String newer);
// Takes the tags and marks out of the buffer; the text stays, and can be edited. Nothing when no
// comparison is shown.
void clause_comparison_end (ClauseComparison *self);
// Whether a run is still to be decided on.
bool clause_comparison_has_changes (ClauseComparison *self);

// ---- Tools ----

// Places the tools for the run from `start` to `end`: just under the line that is at `location`, and
// centred on `x` (both in buffer coordinates).
void clause_comparison_show_tools (ClauseComparison *self, GtkTextIter start, GtkTextIter end,
                                   GdkRectangle location, int x);
void clause_comparison_hide_tools (ClauseComparison *self);

// ---- Deciding ----

// Decides on the run that the tools stand at, and hides them: a kept run stays as ordinary text,
// another one goes. After the last one the text can be edited. There must be such a run. Edits the
// buffer.
void clause_comparison_decide (ClauseComparison *self, bool is_kept);
// The changes that are left as the newer text has them: what it added stays, what it removed goes, and
// the text can be edited. Edits the buffer.
void clause_comparison_keep_all (ClauseComparison *self);
