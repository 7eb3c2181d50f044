// The page that registers a new account with its server: a JID and a password typed twice. A
// success leads to the login page with the new JID filled in.
//
// Ownership: a widget.
//
// Threads: the interface thread only. The two outcomes are idle handlers that the registration
// thread posts.
#pragma once

#include <gtk/gtk.h>

G_DECLARE_FINAL_TYPE (RegistrationPage, registration_page, MORVANE, REGISTRATION_PAGE, GtkBox)

GtkWidget *registration_page_new ();

// The button that Enter presses while the page is shown; the page's own.
GtkWidget *registration_page_get_register_button (RegistrationPage *self);

// ---- Outcomes of a registration ----
// `data` is an `XMPPThreadMessage`, which is freed; both close the connection and return
// G_SOURCE_REMOVE. The outcome of a registration that the user has left only unlocks the page, and one
// that has failed does so when its worker has left, for no other attempt can begin until then.

gboolean registration_page_handle_success (gpointer data);
gboolean registration_page_handle_failure (gpointer data);
// The window's worker has left: a registration that has failed is over, and another can begin.
void registration_page_note_worker_left (RegistrationPage *self);
