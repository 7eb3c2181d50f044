// One procedure on the screen: its title, its clauses one below the other, and the chat page of
// each clause as a further page of its own stack.
//
// Ownership: a widget; borrows the procedure, which outlives it. Links each clause to the clause's
// view and chat page.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "procedure.h"

G_DECLARE_FINAL_TYPE (ProcedureView, procedure_view, MORVANE, PROCEDURE_VIEW, GtkBox)

// `own` is the bare JID of the account. Each clause shows its last revision, or is in draft mode
// when it has none.
GtkWidget *procedure_view_new (Procedure *procedure, String own);
// The same in two steps. All of a view that comes into a window gets its styles at once, so one of
// hundreds of clauses comes empty, and is filled there, with pauses in long work.
GtkWidget *procedure_view_new_empty (Procedure *procedure);
void procedure_view_fill (ProcedureView *self, String own);

// ---- Clauses ----

// Makes view and chat page of a clause that the procedure has; the view is the last.
void procedure_view_add_clause (ProcedureView *self, Clause *clause);
// Moves the view of a clause to the clause's place in the procedure.
void procedure_view_order_clause (ProcedureView *self, Clause *clause);
// Hides view and chat page of a clause that the procedure has no longer, and shows them at the old place
// when the deletion was undone, as the user left them.
void procedure_view_put_clause_away (ProcedureView *self, Clause *clause);
void procedure_view_put_clause_back (ProcedureView *self, Clause *clause);
// Where the keyboard is to go on when nothing else of the page is meant.
void procedure_view_focus_add_clause_button (ProcedureView *self);

// ---- Pages ----

// Where the scrolled page stands that holds a widget of a procedure's view. None outside of a page.
GtkAdjustment *procedure_view_get_page (GtkWidget *widget);
// Leaves the chat page of a clause.
void procedure_view_show_clause (ProcedureView *self);
void procedure_view_show_clause_chat_page (ProcedureView *self, ClauseChatPage *chat_page);
// Tells in a bar, on the page that is shown, what did not reach this party, and why; `kind` and `text` as
// in `delivery_notice_show`.
void procedure_view_tell_undelivered (ProcedureView *self, String to, const char *kind, String text,
                                      String reason);
