// The row of a procedure in the main window's list: its title and the other party.
//
// Ownership: a widget; borrows the procedure, which outlives it.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "procedure.h"

G_DECLARE_FINAL_TYPE (ProcedureListItem, procedure_list_item, MORVANE, PROCEDURE_LIST_ITEM, GtkBox)

// `contact` is the bare JID of the other party.
GtkWidget *procedure_list_item_new (Procedure *procedure, String contact);
// The procedure that the row stands for.
Procedure *procedure_list_item_get_procedure (ProcedureListItem *self);
