// The form that opens a procedure: its title and its contractor, who may first be asked for a
// presence subscription or looked up.
//
// Ownership: a widget; its toplevel is the `AppWindow`.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

G_DECLARE_FINAL_TYPE (ProcedureCreationPage, procedure_creation_page, MORVANE,
                      PROCEDURE_CREATION_PAGE, GtkBox)

GtkWidget *procedure_creation_page_new ();

// The button that Enter presses while an entry of the page has the focus; the page's own.
GtkWidget *procedure_creation_page_get_begin_button (ProcedureCreationPage *self);
// Off when the contractor turned out to have no vCard; typing another contractor turns it on again.
void procedure_creation_page_set_contractor_vcard_button_sensitive (ProcedureCreationPage *self,
                                                                    gboolean sensitive);
// Nothing is left of what was typed.
void procedure_creation_page_clear (ProcedureCreationPage *self);
