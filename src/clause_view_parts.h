// What the modules that make up a clause's view share: its record, and what each of them does to the whole
// view. `clause_view` shows revisions, commits and decides, `clause_view_drafts` keeps what the user is
// at, and `clause_view_comparison` follows the user through a comparison.
//
// Threads: the interface thread only.
#pragma once

#include "app_window.h"
#include "clause_comparison.h"
#include "clause_status.h"
#include "clause_text.h"
#include "clause_view.h"
#include "decision_buttons.h"
#include "kept_drafts.h"
#include "revision_list.h"

// A comparison that a revision took the place of.
struct ComparisonAside {
  GtkTextBuffer *text_buffer;   // owned; NULL for none
  ClauseComparison comparison;  // of this buffer
  char *status;                 // owned; the label's text
  bool was_draft_shown;
};

struct _ClauseView {
  GtkBox parent_instance;
  Procedure *procedure;  // borrowed, like all records here
  Clause *clause;
  ClauseRevision *revision;       // shown and decided on; NULL while the user edits
  ClauseRevision *base_revision;  // shown last; where Cancel returns to
  bool is_text_changed;           // since the draft was saved
  bool is_draft;                  // in draft mode
  bool is_on_draft;               // the text is the clause's draft or was typed on top of it
  RevisionList revision_list;     // behind `revision_select_menu_button`
  // Template children.
  GtkButton *chat_button;
  GtkTextView *text_view;
  ClauseText text;  // in `text_view`
  GtkMenuButton *revision_select_menu_button;
  GtkLabel *revision_status_label;
  ClauseStatus status;  // around `revision_status_label`
  GtkLabel *decision_status_label;
  GtkButton *agree_button;
  GtkButton *disagree_button;
  DecisionButtons decision_buttons;
  GtkButton *commit_button;
  GtkButton *cancel_button;
  GtkBox *diff_overlay_tools;
  GtkButton *diff_add_button;
  GtkButton *diff_del_button;
  ClauseComparison comparison;
  bool was_draft_shown;  // when the comparison began
  // The draft.
  KeptDrafts *kept_drafts;  // borrowed, as all that stays when the view goes
  int draft_cursor;         // where the cursor was when the draft was left, in characters
  guint save_source;        // stores the typing; 0 when there is none to be stored
  // What a revision that arrived took the place of.
  bool was_draft_left;    // the user was at the draft
  ComparisonAside aside;  // the user was at a comparison
  bool is_draft_newer;    // the user was at the draft after the comparison
  bool is_as_arrived;  // a revision took its place in sight, and the user has chosen nothing since
};

// The view must be in a window.
AppWindow *clause_view_get_window (ClauseView *self);
Negotiation *clause_view_get_negotiation (ClauseView *self);
void clause_view_set_edit_buttons_sensitive (ClauseView *self, gboolean commit, gboolean cancel);
// Focuses a widget of the view and leaves the page where it is: the user may be reading elsewhere.
void clause_view_focus_in_place (ClauseView *self, GtkWidget *widget);
// Lets the list of revisions tell whether the clause has a draft that is not shown.
void clause_view_show_waiting_draft (ClauseView *self);
// Makes the row of the draft where there is none, and selects it.
void clause_view_select_draft_row (ClauseView *self);
// Shows what the user asked for. `own` is the bare JID of the account.
void clause_view_go_to_revision (ClauseView *self, ClauseRevision *revision, String own);
// Gives the tagged run at `iter` the comparison's tools, at `x` (buffer coordinates); elsewhere there
// are none.
void clause_view_show_diff_tools (ClauseView *self, GtkTextIter iter, int x);
// Adds an item to the text's menu.
void clause_view_append_menu_item (ClauseView *self, GtkWidget *menu, const char *label,
                                   bool is_sensitive, void (*handler) (ClauseView *));
