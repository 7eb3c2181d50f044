#include "app.h"

#include <signal.h>

#include <glib-unix.h>

#include "app_window.h"
#include "morvane.h"
#include "session.h"

struct _App {
  GtkApplication parent_instance;
  gnutls_certificate_credentials_t tls_credentials;  // borrowed
  sqlite3 *db;                                       // borrowed
  GtkTextBuffer *console;                            // owned; shared by all windows
};

G_DEFINE_TYPE (App, app, GTK_TYPE_APPLICATION)

// Keys can be given to actions once the framework has started.
static void
app_startup_handle (GApplication *application, gpointer)
{
  app_add_session_actions (GTK_APPLICATION (application));
}

static void
app_activate (GApplication *application)
{
  App *self = MORVANE_APP (application);
  AppWindow *window = app_window_new (self, self->tls_credentials, self->db, self->console);
  gtk_window_present (GTK_WINDOW (window));
}

// -1: the framework goes on with the command line.
static gint
app_handle_location_options (GApplication *, GVariantDict *)
{
  return -1;
}

static void
app_class_init (AppClass *app_class)
{
  G_APPLICATION_CLASS (app_class)->activate = app_activate;
  G_APPLICATION_CLASS (app_class)->handle_local_options = app_handle_location_options;
}

static void
app_init (App *)
{
}

App *
app_new (gnutls_certificate_credentials_t tls_credentials, sqlite3 *db)
{
  App *self = MORVANE_APP (g_object_new (app_get_type (), "application-id", "org.halvex.morvane",
                                         "flags", G_APPLICATION_HANDLES_OPEN, NULL));
  self->tls_credentials = tls_credentials;
  self->db = db;
  self->console = gtk_text_buffer_new (NULL);
  _console_text_buffer = self->console;
  g_signal_connect (self, "startup", G_CALLBACK (app_startup_handle), NULL);
  return self;
}

void
app_release_input ()
{
  GtkWidget *holder;
  while ((holder = gtk_grab_get_current ()) != NULL) {
    // The menu of a row goes when it is given up.
    g_object_ref (holder);
    if (GTK_IS_MENU_SHELL (holder))
      gtk_menu_shell_cancel (GTK_MENU_SHELL (holder));
    gtk_grab_remove (holder);
    g_object_unref (holder);
  }
}

// A window may have its reasons to stay for a moment, so it is asked as its close button asks. One
// that is asked twice goes once.
static gboolean
app_end_signal_handle (gpointer data)
{
  App *self = MORVANE_APP (data);
  app_release_input ();
  GList *windows = gtk_application_get_windows (GTK_APPLICATION (self));
  if (!windows)
    g_application_quit (G_APPLICATION (self));
  for (GList *link = windows; link; link = link->next) {
    gtk_window_close (GTK_WINDOW (link->data));
  }
  return G_SOURCE_CONTINUE;
}

void
app_end_on_signals (App *self)
{
  const int SIGNAL_NUMBERS[] = {SIGTERM, SIGINT, SIGHUP};
  for (int signal_number : SIGNAL_NUMBERS) {
    struct sigaction action;
    if (!sigaction (signal_number, NULL, &action) && action.sa_handler != SIG_IGN)
      g_unix_signal_add (signal_number, app_end_signal_handle, self);
  }
}
