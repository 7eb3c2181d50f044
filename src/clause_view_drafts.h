// What the user is at in a clause's view, kept when something else takes its place: the draft and when it
// is stored, the drafts that others replace, and the way back from a revision that arrived.
//
// Threads: the interface thread only.
#pragma once

#include "clause_view_parts.h"

// Follows the keys of the view, and its page.
void clause_view_connect_drafts (ClauseView *self);

// ---- The draft ----

// The present draft, if there is one, is at hand from now on when another takes its place.
void clause_view_keep_draft (ClauseView *self);
// The text is to become the draft. A draft that it did not grow from stays at hand.
void clause_view_replace_draft (ClauseView *self);
// Something else is going to be shown. The draft is stored, and can be gone on with where it was left.
void clause_view_leave_text (ClauseView *self);
// Stores the typing when no key follows for some seconds: the day may come when the display dies, and
// nobody is told.
void clause_view_save_soon (ClauseView *self);
void clause_view_drop_save_source (ClauseView *self);
// Whether a key was meant for the draft: Ctrl+Return commits, Ctrl+Z undoes, Ctrl+Shift+Z does it again.
bool clause_view_edit_key (ClauseView *self, GdkEventKey *event);
// Makes a kept draft the present one, which is at hand then. `data` is the view.
void clause_view_bring_back (gpointer data, u32 index);

// ---- The way back ----

// Keeps what the user is at, as a revision is going to take its place. Keys that were on their way
// there are swallowed.
void clause_view_make_room (ClauseView *self);
// Adds to the text's menu what a revision took the place of.
void clause_view_add_ways_back (ClauseView *self, GtkWidget *menu);
