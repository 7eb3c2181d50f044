#include "app.h"

#include <glib-unix.h>
#include <signal.h>

#include <algorithm>
#include <vector>

#include "db.h"
#include "morvane.h"
#include "widget_test.h"

// An application in a working directory of its own; it looks for no other instance.
struct TestApp {
  std::string directory;
  sqlite3 *db;
  App *app;
  GtkTextBuffer *console;

  TestApp ()
  {
    char path[] = "/tmp/morvane-app-XXXXXX";
    directory = mkdtemp (path);
    EXPECT_EQ (chdir (path), 0);
    g_setenv ("DBUS_SESSION_BUS_ADDRESS", "disabled:", TRUE);
    db = db_connect (".morvane.db");
    app = app_new (NULL, db);
    console = _console_text_buffer;
  }

  ~TestApp ()
  {
    while (GList *windows = gtk_application_get_windows (GTK_APPLICATION (app))) {
      gtk_widget_destroy (GTK_WIDGET (windows->data));
    }
    pump ();
    _console_text_buffer = NULL;
    g_object_unref (app);
    g_object_unref (console);
    db_close (db);
    unlink (".morvane.db");
    rmdir (directory.c_str ());
  }
};

static void
activate (TestApp *test)
{
  EXPECT_TRUE (g_application_register (G_APPLICATION (test->app), NULL, NULL));
  g_application_activate (G_APPLICATION (test->app));
  pump ();
}

static std::vector<AppWindow *>
list_windows (TestApp *test)
{
  std::vector<AppWindow *> list;
  for (GList *link = gtk_application_get_windows (GTK_APPLICATION (test->app)); link;
       link = link->next) {
    list.push_back (MORVANE_APP_WINDOW (link->data));
  }
  return list;
}

static std::string
get_console_text (TestApp *test)
{
  char *text = gtk_text_buffer_get_all_text (test->console);
  std::string result = text;
  g_free (text);
  return result;
}

// Runs the application as the entry does, with these arguments, to its end.
static int
run (TestApp *test, std::vector<const char *> arguments)
{
  return g_application_run (G_APPLICATION (test->app), (int) arguments.size (),
                            (char **) arguments.data ());
}

// ---- The object ----

TEST (app_new, has_the_id_of_the_program_and_takes_files)
{
  TestApp test;
  EXPECT_STREQ (g_application_get_application_id (G_APPLICATION (test.app)), "org.halvex.morvane");
  EXPECT_EQ (g_application_get_flags (G_APPLICATION (test.app)), 4);
  EXPECT_EQ (G_APPLICATION_HANDLES_OPEN, 4);
  EXPECT_STREQ (G_OBJECT_TYPE_NAME (test.app), "App");
  EXPECT_TRUE (GTK_IS_APPLICATION (test.app));
  EXPECT_EQ (MORVANE_APP (test.app), test.app);
}

TEST (app_new, publishes_a_console_buffer)
{
  _console_text_buffer = NULL;
  TestApp test;
  ASSERT_TRUE (GTK_IS_TEXT_BUFFER (_console_text_buffer));
  EXPECT_EQ (get_console_text (&test), "");
  testing::internal::CaptureStdout ();
  console_put ("from here on\n");
  pump ();
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "from here on\n");
  EXPECT_EQ (get_console_text (&test), "from here on\n");
}

TEST (app_new, leaves_what_was_logged_before_to_standard_output)
{
  _console_text_buffer = NULL;
  console_put ("too early\n");
  TestApp test;
  pump ();
  EXPECT_EQ (get_console_text (&test), "");
}

TEST (app_new, opens_no_window)
{
  TestApp test;
  pump ();
  EXPECT_EQ (list_windows (&test).size (), 0u);
}

TEST (app_class_init, installs_two_handlers_and_no_other)
{
  TestApp test;
  GApplicationClass *own = G_APPLICATION_GET_CLASS (test.app);
  GApplicationClass *parent =
    G_APPLICATION_CLASS (g_type_class_peek_parent (G_APPLICATION_GET_CLASS (test.app)));
  EXPECT_NE (own->activate, parent->activate);
  EXPECT_NE (own->handle_local_options, parent->handle_local_options);
  EXPECT_EQ (own->open, parent->open);
  EXPECT_EQ (own->startup, parent->startup);
  EXPECT_EQ (own->shutdown, parent->shutdown);
  EXPECT_EQ (own->command_line, parent->command_line);
  EXPECT_EQ (own->local_command_line, parent->local_command_line);
}

TEST (app_handle_location_options, lets_the_framework_go_on)
{
  TestApp test;
  GVariantDict *options = g_variant_dict_new (NULL);
  GApplication *application = G_APPLICATION (test.app);
  EXPECT_EQ (G_APPLICATION_GET_CLASS (test.app)->handle_local_options (application, options), -1);
  g_variant_dict_unref (options);
}

// ---- Activation ----

TEST (app_activate, shows_a_window_over_the_store_and_the_console)
{
  TestApp test;
  activate (&test);
  std::vector<AppWindow *> windows = list_windows (&test);
  ASSERT_EQ (windows.size (), 1u);
  EXPECT_EQ (windows[0]->db, test.db);
  EXPECT_FALSE (windows[0]->tls_credentials);
  EXPECT_EQ (gtk_text_view_get_buffer (windows[0]->console), test.console);
  EXPECT_TRUE (gtk_widget_get_visible (GTK_WIDGET (windows[0])));
  EXPECT_EQ (gtk_window_get_application (GTK_WINDOW (windows[0])), GTK_APPLICATION (test.app));
}

TEST (app_activate, again_builds_a_second_window_that_shares_both)
{
  TestApp test;
  activate (&test);
  activate (&test);
  std::vector<AppWindow *> windows = list_windows (&test);
  ASSERT_EQ (windows.size (), 2u);
  EXPECT_NE (windows[0], windows[1]);
  EXPECT_EQ (windows[0]->db, windows[1]->db);
  EXPECT_EQ (gtk_text_view_get_buffer (windows[0]->console),
             gtk_text_view_get_buffer (windows[1]->console));
  EXPECT_NE (windows[0]->input_stream_buffer.data, windows[1]->input_stream_buffer.data);
  EXPECT_NE (windows[0]->output_stream_buffer.data, windows[1]->output_stream_buffer.data);
}

TEST (app_activate, hands_the_credentials_on)
{
  TestApp test;
  gnutls_certificate_credentials_t credentials;
  gnutls_certificate_allocate_credentials (&credentials);
  GtkTextBuffer *console = test.console;
  g_object_unref (test.app);
  test.app = app_new (credentials, test.db);
  g_object_unref (console);
  test.console = _console_text_buffer;
  activate (&test);
  ASSERT_EQ (list_windows (&test).size (), 1u);
  EXPECT_EQ (list_windows (&test)[0]->tls_credentials, credentials);
  gtk_widget_destroy (GTK_WIDGET (list_windows (&test)[0]));
  gnutls_certificate_free_credentials (credentials);
}

TEST (app_activate, shows_the_console_of_both_windows_what_either_logs)
{
  TestApp test;
  activate (&test);
  activate (&test);
  testing::internal::CaptureStdout ();
  console_put ("seen twice\n");
  pump ();
  testing::internal::GetCapturedStdout ();
  for (AppWindow *window : list_windows (&test)) {
    EXPECT_NE (get_text (window, "console").find ("seen twice\n"), std::string::npos);
  }
}

// ---- A run ----

static gboolean
close_windows (gpointer data)
{
  TestApp *test = (TestApp *) data;
  for (AppWindow *window : list_windows (test)) {
    gtk_window_close (GTK_WINDOW (window));
  }
  return G_SOURCE_REMOVE;
}

TEST (app_activate, lasts_until_the_last_window_is_closed)
{
  TestApp test;
  g_signal_connect_swapped (test.app, "window-added", G_CALLBACK (+[] (gpointer data) {
                              g_idle_add_full (G_PRIORITY_LOW, close_windows, data, NULL);
                            }),
                            &test);
  EXPECT_EQ (run (&test, {"morvane"}), 0);
  EXPECT_EQ (list_windows (&test).size (), 0u);
}

TEST (app_handle_location_options, refuses_an_unknown_option_as_any_program_does)
{
  TestApp test;
  testing::internal::CaptureStderr ();
  EXPECT_EQ (run (&test, {"morvane", "--no-such-option"}), 1);
  EXPECT_NE (testing::internal::GetCapturedStderr ().find ("--no-such-option"), std::string::npos);
  EXPECT_EQ (list_windows (&test).size (), 0u);
}

// ---- The templates ----

TEST (gresource_get_resource, holds_the_thirteen_templates)
{
  char **children =
    g_resources_enumerate_children ("/org/halvex/morvane/", G_RESOURCE_LOOKUP_FLAGS_NONE, NULL);
  ASSERT_TRUE (children);
  std::vector<std::string> names (children, children + g_strv_length (children));
  g_strfreev (children);
  std::sort (names.begin (), names.end ());
  std::vector<std::string> expected =
    {"app_window.ui",     "clause_chat_page.ui",        "clause_revision_list_item.ui",
     "clause_view.ui",    "contact_chat_page.ui",       "contact_list_item.ui",
     "login_page.ui",     "procedure_creation_page.ui", "procedure_list_item.ui",
     "procedure_view.ui", "registration_page.ui",       "search_item.ui",
     "vcard_page.ui"};
  EXPECT_EQ (names, expected);
}

// ---- What holds the input ----

TEST (app_release_input, closes_a_menu_that_holds_it)
{
  TestApp test;
  activate (&test);
  GtkWidget *menu = gtk_menu_new ();
  GtkWidget *item = gtk_menu_item_new_with_label ("Copy");
  gtk_menu_shell_append (GTK_MENU_SHELL (menu), item);
  gtk_widget_show (item);
  GtkWidget *window = GTK_WIDGET (list_windows (&test)[0]);
  gtk_menu_attach_to_widget (GTK_MENU (menu), window, NULL);
  GdkEvent *event = gdk_event_new (GDK_BUTTON_PRESS);
  event->button.window = GDK_WINDOW (g_object_ref (gtk_widget_get_window (window)));
  gdk_event_set_device (event, gdk_seat_get_pointer (
                                 gdk_display_get_default_seat (gdk_display_get_default ())));
  gtk_menu_popup_at_widget (GTK_MENU (menu), window, GDK_GRAVITY_CENTER, GDK_GRAVITY_CENTER, event);
  gdk_event_free (event);
  ASSERT_EQ (gtk_grab_get_current (), menu);
  app_release_input ();
  EXPECT_EQ (gtk_grab_get_current (), nullptr);
  EXPECT_FALSE (gtk_widget_get_visible (menu));
  // A second time there is nothing to be released.
  app_release_input ();
}

// ---- Signals ----

static bool
has_no_windows (void *data)
{
  return list_windows ((TestApp *) data).empty ();
}

static gboolean
note_signal (gpointer is_heard)
{
  *(bool *) is_heard = true;
  return G_SOURCE_REMOVE;
}

static bool
is_set (void *flag)
{
  return *(bool *) flag;
}

class AppSignal : public testing::TestWithParam<int> {};

TEST_P (AppSignal, closes_every_window)
{
  TestApp test;
  // nohup and others start programs with SIGHUP ignored.
  void (*before) (int) = signal (GetParam (), SIG_DFL);
  app_end_on_signals (test.app);
  activate (&test);
  activate (&test);
  EXPECT_EQ (list_windows (&test).size (), 2u);
  EXPECT_EQ (raise (GetParam ()), 0);
  EXPECT_EQ (raise (GetParam ()), 0);
  EXPECT_TRUE (pump_until (has_no_windows, &test));
  // Late ones find nothing to close. A thread of GLib hands signals on, and not to the next test.
  bool is_heard = false;
  g_unix_signal_add (GetParam (), note_signal, &is_heard);
  EXPECT_EQ (raise (GetParam ()), 0);
  EXPECT_TRUE (pump_until (is_set, &is_heard));
  pump ();
  while (g_source_remove_by_user_data (test.app))
    continue;
  signal (GetParam (), before);
}

INSTANTIATE_TEST_SUITE_P (app_end_on_signals, AppSignal, testing::Values (SIGTERM, SIGINT, SIGHUP));

TEST (app_end_on_signals, leaves_an_ignored_signal_ignored)
{
  TestApp test;
  void (*before) (int) = signal (SIGHUP, SIG_IGN);
  app_end_on_signals (test.app);
  activate (&test);
  struct sigaction action;
  EXPECT_EQ (sigaction (SIGHUP, NULL, &action), 0);
  EXPECT_EQ (action.sa_handler, SIG_IGN);
  EXPECT_EQ (raise (SIGHUP), 0);
  pump ();
  EXPECT_EQ (list_windows (&test).size (), 1u);
  while (g_source_remove_by_user_data (test.app))
    continue;
  signal (SIGHUP, before);
}
