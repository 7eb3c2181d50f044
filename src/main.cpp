// The program's entry: makes what outlives every window, runs the application, releases it again.

#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>

#include "app.h"
#include "app_window.h"
#include "db.h"
#include "kept_drafts.h"
#include "network.h"

int
main (int argc, char **argv)
{
  // What was logged ahead of an abort must have arrived, in a pipe too.
  (void) setvbuf (stdout, NULL, _IONBF, 0);
  // Contracts and passwords are nobody else's.
  umask (077);
  // A server that is gone shows in the result of a send.
  (void) signal (SIGPIPE, SIG_IGN);

  gnutls_certificate_credentials_t tls_credentials = init_tls_global ();
  sqlite3 *db = db_connect (".morvane.db");
  App *app = app_new (tls_credentials, db);
  app_end_on_signals (app);
  int status = g_application_run (G_APPLICATION (app), argc, argv);
  forget_kept_drafts ();
  db_close (db);
  // A worker that did not come back in time may still be inside of the library.
  if (!app_window_count_stray_workers ())
    deinit_tls_global (tls_credentials);
  return status;
}
