// One row of a clause's list of revisions: a committed revision, or the one draft row.
//
// Ownership: a widget; borrows the revision, which outlives it.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "procedure.h"

G_DECLARE_FINAL_TYPE (ClauseRevisionListItem, clause_revision_list_item, MORVANE,
                      CLAUSE_REVISION_LIST_ITEM, GtkBox)

// A revision as it is named to the user: its author, as a label shows that, and its time. The caller
// frees it with `g_free`.
char *alloc_shown_revision_name (ClauseRevision *revision);

GtkWidget *clause_revision_list_item_new (ClauseRevision *revision);
GtkWidget *clause_revision_list_item_new_draft ();
// NULL tells the draft row.
ClauseRevision *clause_revision_list_item_get_revision (ClauseRevisionListItem *self);

// ---- Finding rows ----
// The first match, NULL when there is none. A row that holds anything but such an item stops the
// program.

// The row of this very record.
GtkListBoxRow *clause_revision_list_item_find_row (GtkListBox *list_box, ClauseRevision *revision);
GtkListBoxRow *clause_revision_list_item_draft_find_row (GtkListBox *list_box);
