// The text of a clause's view: a text view that keeps the cursor in the sight of the page and has the
// height of its text, the history of what is typed in it, and who follows the typing and the cursor.
//
// Ownership: the record is a part of the clause's view and owns the history; the text view is borrowed.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "buffers.h"
#include "text_history.h"

struct ClauseText {
  GtkTextView *text_view;
  TextHistory *history;
  int width;  // that the text was laid out for last, in pixels
  // Who follows the buffer's "changed" and "notify::cursor-position", each with `owner`.
  gpointer owner;
  GCallback changed_handler;
  GCallback cursor_handler;
};

// Nobody follows yet.
void clause_text_init (ClauseText *self, GtkTextView *text_view);
void clause_text_finalize (ClauseText *self);
// From here on `owner`, which the caller has named with both handlers, follows, and there is a history.
void clause_text_follow (ClauseText *self);
// What follows looks away while the program edits the text.
void clause_text_look_away (ClauseText *self);
void clause_text_look_back (ClauseText *self);

// Shows `text`, which nobody takes for typing.
void clause_text_set (ClauseText *self, String text);
// The text as it can be kept and sent. Belongs to the caller (`dealloc_string`).
String clause_text_alloc (ClauseText *self);
int clause_text_get_cursor (ClauseText *self);  // in characters
void clause_text_place_cursor (ClauseText *self, int cursor);
// Another buffer takes over what the user sees and does in the text.
void clause_text_change_buffer (ClauseText *self, GtkTextBuffer *text_buffer);
// Lays the text of a view that is not shown yet out for the width that a new window gives it.
void clause_text_place (ClauseText *self);
