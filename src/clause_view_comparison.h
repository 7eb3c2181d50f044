// The user's way through a comparison in a clause's view: how it begins and is left, the tools that follow
// pointer and cursor, its keys and its part of the text's menu, what becomes of the decisions, and how a
// comparison is put aside while a revision that arrived is shown.
//
// Threads: the interface thread only.
#pragma once

#include "clause_view_parts.h"

// Follows the tools and their keys.
void clause_view_connect_comparison (ClauseView *self);

// ---- Comparing ----

// Compares two of the clause's revisions, the draft being the newest. Refused, with a text in the
// place of the revision's name, where there is nothing to compare.
void clause_view_compare (ClauseView *self, ClauseRevision *revision,
                          ClauseRevision *other_revision);
// Compares a revision, or the draft for NULL, with what the user looks at. `data` is the view.
void clause_view_compare_with_shown (gpointer data, ClauseRevision *revision);
// The view is beside a comparison from now on, of which `status` tells; decisions stay.
void clause_view_show_comparison_state (ClauseView *self, const char *status);
void clause_view_add_comparison_items (ClauseView *self, GtkWidget *menu);

// ---- Changes ----

// A widget that is hidden loses the focus, and keys would go nowhere: it goes to the text.
void clause_view_hide_diff_tools (ClauseView *self);
// The buffer's "notify::cursor-position". The keyboard's way to a change: the tools follow the cursor
// too, and Tab leads to them.
void clause_view_cursor_position_handle (GtkTextBuffer *text_buffer, GParamSpec *property,
                                         ClauseView *self);
// Decides on the run that the tools stand at. A kept run stays as ordinary text; another one goes,
// and where that was the last, what is left is a draft.
void clause_view_decide_change (ClauseView *self, bool is_kept);

// ---- Aside ----

// The comparison leaves the view as it is, decisions included, in place of an earlier one.
void clause_view_put_comparison_aside (ClauseView *self);
// There must be a comparison aside.
void clause_view_go_back_to_comparison (ClauseView *self);
void clause_view_drop_aside (ClauseView *self);
// What the user has decided in a comparison is at hand afterwards, as a replaced draft is.
void clause_view_keep_decisions (ClauseView *self, ClauseComparison *comparison,
                                 GtkTextBuffer *text_buffer);
