// The chat of one clause, a page of its procedure's view: what was written, and an entry for more.
//
// Ownership: a widget; borrows the procedure and the clause, which outlive it. Its toplevel is the
// `AppWindow`.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "procedure.h"

G_DECLARE_FINAL_TYPE (ClauseChatPage, clause_chat_page, MORVANE, CLAUSE_CHAT_PAGE, GtkBox)

// Shows every message that the clause has.
GtkWidget *clause_chat_page_new (Procedure *procedure, Clause *clause);
// Appends one line, on the screen only; a page at its end stays at its end.
void clause_chat_page_add_message (ClauseChatPage *self, ClauseMessage *message);
// One more of the lines did not go out, or one of those did: the text is marked while there is any.
void clause_chat_page_count_unsent (ClauseChatPage *self, bool is_unsent);
