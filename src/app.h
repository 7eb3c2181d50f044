// The application object: holds what outlives every window and builds a main window at each
// activation. One instance runs per session bus; a second start activates the first.
//
// Ownership: borrows the TLS credentials and the store from `main`; owns the console's text buffer.
//
// Threads: the interface thread only.
#pragma once

#include <gnutls/gnutls.h>
#include <gtk/gtk.h>
#include <sqlite3.h>

G_DECLARE_FINAL_TYPE (App, app, MORVANE, APP, GtkApplication)

// From here on console output reaches the console pane too.
App *app_new (gnutls_certificate_credentials_t tls_credentials, sqlite3 *db);
// From here on SIGTERM, SIGINT and SIGHUP end the program as closing all of its windows does. One that
// is ignored stays ignored, as under nohup. The application must live as long as the main loop.
void app_end_on_signals (App *app);
// Gives up the menu that is open, if there is one: GTK closes no window while a menu, which is a window
// of its own, holds the input, and lets nobody have the input when the menu's widget is gone.
void app_release_input ();
