// A clause's list of revisions and the button that opens it: a row for each revision in the order of the
// clause, one at most for the draft, and above them a button for each kept draft. What the user chooses
// there is the clause's view's to do.
//
// Ownership: the record is a part of the clause's view; its widgets belong to the button, and clause and
// kept drafts are borrowed.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "kept_drafts.h"
#include "procedure.h"

struct RevisionList {
  Clause *clause;
  KeptDrafts *kept_drafts;
  GtkMenuButton *button;
  GtkPopover *popover;  // of the button
  GtkScrolledWindow *scroller;
  GtkListBox *list_box;  // its "row-activated" tells which row is chosen
  bool has_draft_row;
  // What else the user asks for, each with `owner`; the popover is closed before.
  gpointer owner;
  void (*compare) (gpointer owner, ClauseRevision *revision);  // NULL for the draft's row
  void (*bring_back) (gpointer owner, u32 index);              // of a kept draft
};

// An empty list behind `button`.
void revision_list_init (RevisionList *self, GtkMenuButton *button, Clause *clause,
                         KeptDrafts *kept_drafts);

// ---- Rows ----

void revision_list_add (RevisionList *self, ClauseRevision *revision);
// Nothing where the draft has its row.
void revision_list_add_draft_row (RevisionList *self);
// None for a revision that was never added.
GtkListBoxRow *revision_list_find_row (RevisionList *self, ClauseRevision *revision);
// The revision of a row; NULL for the draft's.
ClauseRevision *revision_list_get_revision (GtkListBoxRow *row);
// Puts the rows into the order of the clause's revisions, the draft's last, where this revision is not
// the last one.
void revision_list_order (RevisionList *self, ClauseRevision *revision);

// ---- Drafts ----

// Lets the button tell, or no longer tell, that the clause has a draft which nobody sees.
void revision_list_show_waiting_draft (RevisionList *self, bool is_waiting);
// The kept drafts are others than before.
void revision_list_show_kept_drafts (RevisionList *self);
// Adds an item for each kept draft.
void revision_list_fill_menu (RevisionList *self, GtkMenuShell *menu);
