#include "app.h"

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

static void
app_startup (GApplication *application)
{
  G_APPLICATION_CLASS (app_parent_class)->startup (application);
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
  G_APPLICATION_CLASS (app_class)->startup = app_startup;
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
  return self;
}
