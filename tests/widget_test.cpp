#include "widget_test.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include <gnutls/gnutls.h>

#include "db.h"
#include "kept_drafts.h"
#include "login_page.h"
#include "network.h"
#include "wrapped_text.h"

// ---- Session ----

struct TestPeer {
  std::mutex mutex;
  std::condition_variable arrived;
  std::string received;
  gnutls_anon_client_credentials_t client_credentials;
  std::thread thread;
};

// Anonymous key exchange: a real session without a certificate.
#define PRIORITIES "NORMAL:-VERS-ALL:+VERS-TLS1.2:+ANON-ECDH"
// What marks the end of a collection; no stanza holds this byte.
#define SENTINEL "\x01"

static void
receive_all (TestPeer *peer, int socket)
{
  gnutls_anon_server_credentials_t credentials;
  gnutls_session_t session;
  gnutls_anon_allocate_server_credentials (&credentials);
  gnutls_init (&session, GNUTLS_SERVER);
  gnutls_priority_set_direct (session, PRIORITIES, NULL);
  gnutls_credentials_set (session, GNUTLS_CRD_ANON, credentials);
  gnutls_transport_set_int (session, socket);
  ssize_t result = gnutls_handshake (session);
  while (result >= 0) {
    char data[4096];
    result = gnutls_record_recv (session, data, sizeof (data));
    if (result <= 0)
      break;
    std::lock_guard<std::mutex> lock (peer->mutex);
    peer->received.append (data, (size_t) result);
    peer->arrived.notify_all ();
  }
  gnutls_deinit (session);
  gnutls_anon_free_server_credentials (credentials);
  close (socket);
}

void
log_in (TestWindow *test, const char *bare_jid)
{
  int sockets[2];
  ASSERT_EQ (socketpair (AF_UNIX, SOCK_STREAM, 0, sockets), 0);
  TestPeer *peer = new TestPeer ();
  test->peer = peer;
  peer->thread = std::thread (receive_all, peer, sockets[1]);

  gnutls_session_t session;
  gnutls_anon_allocate_client_credentials (&peer->client_credentials);
  gnutls_init (&session, GNUTLS_CLIENT);
  gnutls_priority_set_direct (session, PRIORITIES, NULL);
  gnutls_credentials_set (session, GNUTLS_CRD_ANON, peer->client_credentials);
  gnutls_transport_set_int (session, sockets[0]);
  EXPECT_EQ (gnutls_handshake (session), 0);

  AppWindow *window = test->window;
  window->connection.opened_stream = true;
  window->connection.opened_socket = true;
  window->connection.opened_tls_session = true;
  window->connection.socket = sockets[0];
  window->connection.tls_session = session;
  // A worker may have been started for an account already.
  dealloc_xmpp_account (window->account);
  window->account =
    alloc_xmpp_account (to_string (bare_jid), to_string ("secret"), to_string ("morvane"));
  app_window_load_account (window);
  pump ();
}

std::string
take_sent (TestWindow *test)
{
  TestPeer *peer = test->peer;
  send_all_tls_data (test->window->connection.tls_session, to_string (SENTINEL));
  std::unique_lock<std::mutex> lock (peer->mutex);
  bool is_whole = peer->arrived.wait_for (lock, std::chrono::seconds (10), [peer] {
    return peer->received.find (SENTINEL) != std::string::npos;
  });
  EXPECT_TRUE (is_whole);
  std::string sent = peer->received.substr (0, peer->received.find (SENTINEL));
  peer->received.clear ();
  return sent;
}

std::string
query (TestWindow *test, const char *sql)
{
  std::string rows;
  sqlite3_stmt *statement = NULL;
  EXPECT_EQ (sqlite3_prepare_v2 (test->db, sql, -1, &statement, NULL), SQLITE_OK)
    << sqlite3_errmsg (test->db);
  while (sqlite3_step (statement) == SQLITE_ROW) {
    for (int i = 0; i < sqlite3_column_count (statement); ++i) {
      const char *value = (const char *) sqlite3_column_text (statement, i);
      rows += i ? "|" : "";
      rows += value ? value : "";
    }
    rows += "\n";
  }
  sqlite3_finalize (statement);
  return rows;
}

// ---- Window ----

// One application for all windows of a test, without a bus.
static GtkApplication *
get_application ()
{
  static GtkApplication *application;
  if (!application) {
    application = gtk_application_new ("org.halvex.morvane.test", G_APPLICATION_NON_UNIQUE);
    g_application_register (G_APPLICATION (application), NULL, NULL);
  }
  return application;
}

static void
make_window (TestWindow *test, const char *config)
{
  char directory[] = "/tmp/morvane-widget-XXXXXX";
  test->directory = mkdtemp (directory);
  EXPECT_EQ (chdir (directory), 0);
  if (config) {
    g_file_set_contents (".morvanerc", config, -1, NULL);
  }
  test->db = db_connect (".morvane.db");
  test->console = gtk_text_buffer_new (NULL);
  test->peer = NULL;
  // The window only hands the application on to GTK.
  test->window = app_window_new ((App *) get_application (), NULL, test->db, test->console);
  g_object_ref (test->window);
  gtk_window_present (GTK_WINDOW (test->window));
  // The focus of a window that is not active yet tells nobody.
  bool is_active =
    pump_until ([] (void *data) -> bool { return gtk_window_is_active (GTK_WINDOW (data)); },
                test->window);
  EXPECT_TRUE (is_active);
}

TestWindow::TestWindow ()
{
  make_window (this, NULL);
}

TestWindow::TestWindow (const char *config)
{
  make_window (this, config);
}

void
close_window (TestWindow *test)
{
  if (!app_window_is_open (test->window))
    return;
  gtk_window_close (GTK_WINDOW (test->window));
  bool is_closed =
    pump_until ([] (void *data) { return !app_window_is_open (((TestWindow *) data)->window); },
                test);
  EXPECT_TRUE (is_closed);
}

TestWindow::~TestWindow ()
{
  close_window (this);
  pump_until ([] (void *data) { return !app_window_is_worker_running ((AppWindow *) data); },
              window);
  if (peer) {
    peer->thread.join ();
    gnutls_anon_free_client_credentials (peer->client_credentials);
    delete peer;
  }
  g_object_unref (window);
  pump ();
  g_object_unref (console);
  forget_kept_drafts ();
  db_close (db);
  for (const char *name : {".morvanerc", ".morvane.db"}) {
    unlink ((directory + "/" + name).c_str ());
  }
  rmdir (directory.c_str ());
}

// ---- Other processes ----

// A lock of this kind is the descriptor's, so it meets those of the same process like any other.
static struct flock
call_lock (int descriptor, int command, short type)
{
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  EXPECT_EQ (fcntl (descriptor, command, &lock), 0);
  return lock;
}

int
lock_all_accounts (TestWindow *test)
{
  int descriptor = open (test->directory.c_str (), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  call_lock (descriptor, F_OFD_SETLK, F_RDLCK);
  return descriptor;
}

bool
is_account_locked (TestWindow *test)
{
  int descriptor = open (test->directory.c_str (), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  struct flock lock = call_lock (descriptor, F_OFD_GETLK, F_WRLCK);
  close (descriptor);
  return lock.l_type != F_UNLCK;
}

// ---- Main loop ----

void
pump ()
{
  while (gtk_events_pending ()) {
    gtk_main_iteration ();
  }
}

bool
pump_until (bool (*is_done) (void *data), void *data)
{
  const char *slowness = getenv ("MORVANE_SLOW");
  s64 bound = 10 * (slowness ? atoi (slowness) : 1);
  // Wakes the loop also when nothing else does.
  guint source = g_timeout_add (
    10, [] (gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, NULL);
  s64 deadline = g_get_monotonic_time () + bound * G_USEC_PER_SEC;
  bool done = is_done (data);
  while (!done && g_get_monotonic_time () < deadline) {
    gtk_main_iteration ();
    done = is_done (data);
  }
  g_source_remove (source);
  return done;
}

// ---- Widgets ----

struct Search {
  bool (*matches) (GtkWidget *widget, const char *name);
  const char *name;
  GtkWidget *found;
};

static void
search (GtkWidget *widget, gpointer data)
{
  Search *wanted = (Search *) data;
  if (wanted->found)
    return;
  if (wanted->matches (widget, wanted->name)) {
    wanted->found = widget;
  } else if (GTK_IS_CONTAINER (widget)) {
    gtk_container_forall (GTK_CONTAINER (widget), search, wanted);
  }
}

static GtkWidget *
find (gpointer root, const char *name, bool (*matches) (GtkWidget *, const char *))
{
  Search wanted = {matches, name, NULL};
  search (GTK_WIDGET (root), &wanted);
  return wanted.found;
}

GtkWidget *
find_widget (gpointer root, const char *name)
{
  return find (root, name, [] (GtkWidget *widget, const char *wanted) {
    const char *own = gtk_buildable_get_name (GTK_BUILDABLE (widget));
    return own && strcmp (own, wanted) == 0;
  });
}

int
get_first_line_in_sight (gpointer root, const char *name)
{
  GtkTextView *text_view = GTK_TEXT_VIEW (find_widget (root, name));
  GdkRectangle place;
  GtkTextIter iter;
  gtk_text_view_get_visible_rect (text_view, &place);
  gtk_text_view_get_line_at_y (text_view, &iter, place.y, NULL);
  return gtk_text_iter_get_line (&iter);
}

GtkWidget *
find_accessible (gpointer root, const char *name)
{
  return find (root, name, [] (GtkWidget *widget, const char *wanted) {
    const char *own = atk_object_get_name (gtk_widget_get_accessible (widget));
    return own && strcmp (own, wanted) == 0;
  });
}

static GtkWidget *
need_widget (gpointer root, const char *name)
{
  GtkWidget *widget = find_widget (root, name);
  EXPECT_TRUE (widget) << "no widget named " << name;
  return widget;
}

bool
is_sensitive (gpointer root, const char *name)
{
  GtkWidget *widget = need_widget (root, name);
  return widget && gtk_widget_get_sensitive (widget);
}

void
press (gpointer root, const char *name)
{
  GtkWidget *widget = need_widget (root, name);
  if (!widget)
    return;
  EXPECT_TRUE (gtk_widget_is_sensitive (widget)) << name << " is insensitive";
  if (gtk_widget_is_sensitive (widget)) {
    gtk_button_clicked (GTK_BUTTON (widget));
  }
  pump ();
}

void
type (gpointer root, const char *name, const char *text)
{
  GtkWidget *widget = need_widget (root, name);
  if (GTK_IS_ENTRY (widget)) {
    gtk_entry_set_text (GTK_ENTRY (widget), text);
  } else if (GTK_IS_TEXT_VIEW (widget)) {
    gtk_text_buffer_set_text (gtk_text_view_get_buffer (GTK_TEXT_VIEW (widget)), text, -1);
  } else {
    ADD_FAILURE () << name << " takes no text";
  }
  pump ();
}

std::string
get_text (gpointer root, const char *name)
{
  GtkWidget *widget = need_widget (root, name);
  if (GTK_IS_LABEL (widget))
    return gtk_label_get_text (GTK_LABEL (widget));
  if (GTK_IS_ENTRY (widget))
    return gtk_entry_get_text (GTK_ENTRY (widget));
  if (GTK_IS_BUTTON (widget))
    return gtk_button_get_label (GTK_BUTTON (widget));
  if (!GTK_IS_TEXT_VIEW (widget))
    return "";
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (GTK_TEXT_VIEW (widget));
  GtkTextIter start, end;
  gtk_text_buffer_get_bounds (text_buffer, &start, &end);
  char *text = gtk_text_buffer_get_text (text_buffer, &start, &end, FALSE);
  std::string result = text;
  g_free (text);
  return result;
}

std::string
get_icon (gpointer root, const char *name)
{
  const char *icon = NULL;
  gtk_image_get_icon_name (GTK_IMAGE (need_widget (root, name)), &icon, NULL);
  return icon ? icon : "";
}

static void
deliver_key (GdkWindow *gdk_window, GdkEventType event_type, guint keyval, GdkModifierType state)
{
  GdkKeymapKey *keys = NULL;
  int count = 0;
  GdkDisplay *display = gdk_window_get_display (gdk_window);
  gdk_keymap_get_entries_for_keyval (gdk_keymap_get_for_display (display), keyval, &keys, &count);
  GdkEvent *event = gdk_event_new (event_type);
  event->key.window = GDK_WINDOW (g_object_ref (gdk_window));
  event->key.keyval = keyval;
  event->key.state = state;
  event->key.hardware_keycode = (guint16) (count ? keys[0].keycode : 0);
  GdkSeat *seat = gdk_display_get_default_seat (display);
  gdk_event_set_device (event, gdk_seat_get_keyboard (seat));
  gtk_main_do_event (event);
  gdk_event_free (event);
  g_free (keys);
}

void
press_key (TestWindow *test, guint keyval, GdkModifierType state)
{
  GdkWindow *gdk_window = gtk_widget_get_window (GTK_WIDGET (test->window));
  deliver_key (gdk_window, GDK_KEY_PRESS, keyval, state);
  deliver_key (gdk_window, GDK_KEY_RELEASE, keyval, state);
  pump ();
}

std::string
get_page (gpointer root, const char *stack_name)
{
  GtkWidget *page = gtk_stack_get_visible_child (GTK_STACK (need_widget (root, stack_name)));
  const char *name = gtk_buildable_get_name (GTK_BUILDABLE (page));
  // A template's toplevel is named after its class, which is no name of a page.
  bool is_named = name && strcmp (name, G_OBJECT_TYPE_NAME (page)) != 0;
  return is_named ? name : G_OBJECT_TYPE_NAME (page);
}

static void
collect_unnamed_widgets (GtkWidget *widget, gpointer data)
{
  std::string *list = (std::string *) data;
  const char *builder_name = gtk_buildable_get_name (GTK_BUILDABLE (widget));
  bool needs_name = GTK_IS_BUTTON (widget) || GTK_IS_ENTRY (widget) || GTK_IS_TEXT_VIEW (widget);
  if (needs_name && builder_name) {
    const char *name = atk_object_get_name (gtk_widget_get_accessible (widget));
    bool is_icon = GTK_IS_BUTTON (widget) && !gtk_button_get_label (GTK_BUTTON (widget));
    if (!name || !*name)
      *list += std::string (builder_name) + " has no name\n";
    if (is_icon && !gtk_widget_get_has_tooltip (widget))
      *list += std::string (builder_name) + " has no tooltip\n";
  }
  if (GTK_IS_CONTAINER (widget)) {
    gtk_container_forall (GTK_CONTAINER (widget), collect_unnamed_widgets, list);
  }
}

std::string
list_unnamed_widgets (gpointer root)
{
  std::string list;
  collect_unnamed_widgets (GTK_WIDGET (root), &list);
  return list;
}

GtkWidget *
show_alone (GtkWidget *widget)
{
  GtkWidget *toplevel = gtk_window_new (GTK_WINDOW_TOPLEVEL);
  gtk_window_set_default_size (GTK_WINDOW (toplevel), 400, 400);
  gtk_container_add (GTK_CONTAINER (toplevel), widget);
  gtk_widget_show (widget);
  gtk_widget_show (toplevel);
  pump ();
  return toplevel;
}

std::string
to_std_string (String string)
{
  return std::string ((const char *) string.data, string.size);
}

// ---- Main ----

static GLogWriterOutput
write_log (GLogLevelFlags level, const GLogField *fields, gsize fields_count, gpointer data)
{
  if (level & (G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR)) {
    char *text = g_log_writer_format_fields (level, fields, fields_count, FALSE);
    ADD_FAILURE () << text;
    g_free (text);
  }
  return g_log_writer_default (level, fields, fields_count, data);
}

int
main (int argc, char **argv)
{
  testing::InitGoogleTest (&argc, argv);
  testing::GTEST_FLAG (death_test_style) = "threadsafe";
  signal (SIGPIPE, SIG_IGN);
  setvbuf (stdout, NULL, _IONBF, 0);
  gtk_init (&argc, &argv);
  g_log_set_writer_func (write_log, NULL, NULL);
  // As AppWindow does; not all tests have one.
  g_type_ensure (wrapped_text_get_type ());
  g_type_ensure (wrapped_label_get_type ());
  // Pages change at once, so that no test waits for a slide to end.
  g_object_set (gtk_settings_get_default (), "gtk-enable-animations", FALSE, NULL);
  int status = RUN_ALL_TESTS ();
  pump ();
  return status;
}
