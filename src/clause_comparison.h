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
  GtkWidget *tools;        // stand over the text, at the run that is decided on next
  GtkWidget *keep_button;  // both of the tools
  GtkWidget *remove_button;
  bool is_shown;            // from `clause_comparison_show` to `clause_comparison_end`
  GtkTextTag *added_tag;    // both of the buffer's table while shown
  GtkTextTag *deleted_tag;  // both NULL otherwise
  // A mark in front of each return symbol that is shown and is no part of the text. The marks are the
  // buffer's; NULL unless shown.
  GHashTable *return_marks;
  bool has_decisions;  // since it is shown
  // The tagged run that the tools act on, good until the text changes.
  bool has_run;
  GtkTextIter run_start;
  GtkTextIter run_end;
  // Where the pointer stood on the screen when the cursor brought the tools to their run.
  bool has_rest;  // else the pointer brought them
  int rest_x;
  int rest_y;
};

// ---- Making ----

// `tools` stand in an overlay over the text view and hold the two buttons.
void clause_comparison_init (ClauseComparison *self, GtkTextView *text_view, GtkWidget *tools,
                             GtkWidget *keep_button, GtkWidget *remove_button);
// Frees what is left when the buffer may be gone already.
void clause_comparison_finalize (ClauseComparison *self);

// ---- Showing ----

// Why the two can't be compared, to be shown to the user; NULL when they can. Either may be NULL.
const char *get_comparison_refusal (ClauseRevision *revision, ClauseRevision *other_revision);
// Appends the comparison to the text, which the caller has emptied, in place of an earlier one. Both
// texts must have words. Edits the buffer.
void clause_comparison_show (ClauseComparison *self, String older, String newer);
// The text as it stands, without the return symbols. `text_buffer` has the comparison, also while the
// text view shows another buffer. Belongs to the caller (`g_free`).
char *clause_comparison_alloc_text (ClauseComparison *self, GtkTextBuffer *text_buffer);
// The text view has the buffer of a comparison that is shown again: lets the user type there, or not.
void clause_comparison_restore (ClauseComparison *self);
// Takes the tags and marks out of the buffer; the text stays, and can be edited. Nothing when no
// comparison is shown.
void clause_comparison_end (ClauseComparison *self);
// Whether a run is still to be decided on.
bool clause_comparison_has_changes (ClauseComparison *self);
// Finds where the next run begins, or the previous one, seen from the run that the tools stand at or
// else from the cursor. Behind the last run comes the first. False when there is none.
bool clause_comparison_find_next (ClauseComparison *self, GtkTextIter *start_out);
bool clause_comparison_find_previous (ClauseComparison *self, GtkTextIter *start_out);

// ---- Tools ----

// Places the tools for the run from `start` to `end`: just under the line that is at `location`, and
// centred on `x` (both in buffer coordinates). Their buttons tell what they would do to the run.
void clause_comparison_show_tools (ClauseComparison *self, GtkTextIter start, GtkTextIter end,
                                   GdkRectangle location, int x);
void clause_comparison_hide_tools (ClauseComparison *self);
bool clause_comparison_has_focus_in_tools (ClauseComparison *self);
// Whether a place on the screen lies in what is in sight of text and tools.
bool clause_comparison_is_at (ClauseComparison *self, int x_root, int y_root);
// The cursor has brought the tools: the pointer rests where it is.
void clause_comparison_note_rest (ClauseComparison *self);
// Whether the pointer, now at this place on the screen, has rested since the cursor brought the tools.
bool clause_comparison_is_at_rest (ClauseComparison *self, int x_root, int y_root);

// ---- Deciding ----

// Decides on the run that the tools stand at, and hides them: a kept run stays as ordinary text,
// another one goes. After the last one the text can be edited. There must be such a run. Edits the
// buffer.
void clause_comparison_decide (ClauseComparison *self, bool is_kept);
// Decides on all changes that are left as one of the two texts has them, and lets the text be edited.
// Edits the buffer.
void clause_comparison_take_all (ClauseComparison *self, bool is_newer);
