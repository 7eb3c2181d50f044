// One clause of a procedure on the screen: the text of the revision shown, who wrote it and when,
// both parties' decisions on it, and the cycle that turns typing into a draft and a draft into a
// committed revision. Also the word by word comparison of two revisions.
//
// Ownership: a widget; borrows the procedure and the clause, which outlive it.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "procedure.h"

G_DECLARE_FINAL_TYPE (ClauseView, clause_view, MORVANE, CLAUSE_VIEW, GtkBox)

// Shows nothing until a revision is shown or draft mode is set; a stored draft has its row.
GtkWidget *clause_view_new (Procedure *procedure, Clause *clause);

// ---- Revisions and the draft ----

// A new row for a revision that the clause has; what is shown stays.
void clause_view_add_revision (ClauseView *self, ClauseRevision *revision);
// Puts the rows into the order of the clause's revisions, the draft's last, where this revision is not
// the last one.
void clause_view_order_revision (ClauseView *self, ClauseRevision *revision);
// `own` is the bare JID of the account. Unsaved typing is kept as the draft first. A revision
// without a row stops the program.
void clause_view_show_revision (ClauseView *self, ClauseRevision *revision, String own);
// Whether what is shown is what a revision that arrived while the view was seen has put there, and not
// what the user has chosen or typed since.
bool clause_view_is_as_arrived (ClauseView *self);
// The clause must have a draft.
void clause_view_show_draft (ClauseView *self);
void clause_view_set_draft_mode (ClauseView *self);
void clause_view_begin_draft (ClauseView *self);
// Stores what was typed since the last save as the clause's draft; nothing when there is nothing.
void clause_view_save_draft (ClauseView *self);
void clause_view_remove_draft_from_revisions_select_list (ClauseView *self);
// Shows `text` without starting a draft.
void clause_view_set_text (ClauseView *self, String text);
// Finds out the sizes of a view whose page is not shown yet, so that this is not to be done for all
// views when the page is opened.
void clause_view_measure (ClauseView *self);
// What the view tells the user, as that his text is kept or why it is not committed, above what is in
// sight of the page; NULL when there is nothing, or when it is in sight. The view's, until its next
// change.
const char *clause_view_get_unseen_note (ClauseView *self);
void clause_view_enable_chat (ClauseView *self);
void clause_view_focus_text (ClauseView *self);

// ---- Decisions ----

// Marks, or no longer marks, the revision and the user's decision on it as not sent, where the view
// shows them.
void clause_view_show_unsent (ClauseView *self, ClauseRevision *revision);
// Shows the other party's decision, when `revision` is the one shown.
void clause_view_set_others_revision_decision (ClauseView *self, ClauseRevision *revision,
                                               ClauseRevisionDecision *decision);
void clause_view_set_others_decision_to_agree (ClauseView *self);
void clause_view_set_others_decision_to_disagree (ClauseView *self);
// Records, stores and sends a decision on the revision shown.
void clause_view_make_new_decision (ClauseView *self, String author, DecisionStatus status);

// ---- Comparison ----

// Appends the comparison to the text, which the caller has emptied. Both texts must have words.
void clause_view_show_diff (ClauseView *self, ClauseRevision *older, ClauseRevision *newer);
