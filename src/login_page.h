// The first page of the main window: an account and its password, and the attempt to log in with
// them. Input is judged as it is typed; the outcome of an attempt comes from the session thread.
//
// Ownership: a widget; texts given to it are copied.
//
// Threads: the interface thread only. The two outcomes are idle handlers that the session thread
// posts.
#pragma once

#include <gtk/gtk.h>

#include "buffers.h"

G_DECLARE_FINAL_TYPE (LoginPage, login_page, MORVANE, LOGIN_PAGE, GtkBox)

GtkWidget *login_page_new ();

// ---- Entries and buttons ----

void login_page_set_bare_jid (LoginPage *self, const char *text);
void login_page_set_bare_jid (LoginPage *self, String text);
void login_page_set_password (LoginPage *self, const char *text);
void login_page_set_password (LoginPage *self, String text);
void login_page_focus_password (LoginPage *self);
// The button that Enter presses while the page is shown; the page's own.
GtkWidget *login_page_get_login_button (LoginPage *self);

// ---- Outcomes of a login ----
// Both return G_SOURCE_REMOVE.

// `data` is the `AppWindow`, with a reference for this handler. Shows the account.
gboolean login_page_handle_login_success (gpointer data);
// `data` is an `XMPPThreadMessage`, which is freed. Closes the connection and shows the text; the page
// stays locked while the worker has not left, for no other attempt can begin until then.
gboolean login_page_handle_login_failure (gpointer data);
// The window's worker has left: an attempt that has failed, or was given up when it had succeeded, is
// over, and another can begin.
void login_page_note_worker_left (LoginPage *self);
