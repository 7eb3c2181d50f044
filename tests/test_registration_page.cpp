#include "registration_page.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "login_page.h"
#include "morvane.h"
#include "widget_test.h"

// An address of this machine on which nothing listens.
#define DEAF_JID "dora@127.33.44.55"

static void
fill (TestWindow *test, const char *bare_jid, const char *password1, const char *password2)
{
  type (test->window->registration_page, "bare_jid_entry", bare_jid);
  type (test->window->registration_page, "password1_entry", password1);
  type (test->window->registration_page, "password2_entry", password2);
}

static bool
is_idle (void *data)
{
  return !app_window_is_worker_running (((TestWindow *) data)->window);
}

// A registration that waits for its outcome, which the test then gives by hand.
static void
start_waiting (TestWindow *test)
{
  press (test->window->login_page, "register_button");
  fill (test, DEAF_JID, "secret", "secret");
  gtk_button_clicked (
    GTK_BUTTON (registration_page_get_register_button (test->window->registration_page)));
}

// The server's socket of an address of this machine, chosen by the process so that test programs
// that run at the same time do not meet.
static int
listen_silently (char bare_jid_out[64])
{
  u32 process = (u32) getpid ();
  char address_text[32];
  snprintf (address_text, sizeof (address_text), "127.77.%u.%u", process / 250 % 250,
            process % 250 + 1);
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons (5222);
  inet_pton (AF_INET, address_text, &address.sin_addr);
  int listener = socket (AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ (bind (listener, (struct sockaddr *) &address, sizeof (address)), 0);
  EXPECT_EQ (listen (listener, 4), 0);
  snprintf (bare_jid_out, 64, "dora@%s", address_text);
  return listener;
}

static bool
is_connected (void *data)
{
  // What the program sends first has arrived: it now waits for an answer.
  char byte;
  return recv (*(int *) data, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
}

// ---- Looks ----

TEST (registration_page_init, shows_three_empty_entries_and_an_insensitive_register_button)
{
  TestWindow test;
  RegistrationPage *page = test.window->registration_page;
  EXPECT_EQ (get_text (page, "bare_jid_entry"), "");
  EXPECT_EQ (get_text (page, "password1_entry"), "");
  EXPECT_EQ (get_text (page, "password2_entry"), "");
  EXPECT_EQ (get_text (page, "register_button"), "_Register");
  EXPECT_EQ (get_text (page, "cancel_button"), "_Cancel");
  EXPECT_FALSE (is_sensitive (page, "register_button"));
  EXPECT_TRUE (is_sensitive (page, "cancel_button"));
  GtkEntry *password1 = GTK_ENTRY (find_widget (page, "password1_entry"));
  GtkEntry *password2 = GTK_ENTRY (find_widget (page, "password2_entry"));
  EXPECT_STREQ (gtk_entry_get_placeholder_text (password1), "password");
  EXPECT_STREQ (gtk_entry_get_placeholder_text (password2), "password (again)");
  EXPECT_FALSE (gtk_entry_get_visibility (password1));
  EXPECT_FALSE (gtk_entry_get_visibility (password2));
}

TEST (registration_page_init, names_its_widgets_for_assistive_technology)
{
  TestWindow test;
  RegistrationPage *page = test.window->registration_page;
  EXPECT_EQ (list_unnamed_widgets (page), "");
  EXPECT_EQ (find_accessible (page, "New account"), find_widget (page, "bare_jid_entry"));
  EXPECT_EQ (find_accessible (page, "New password"), find_widget (page, "password1_entry"));
  EXPECT_EQ (find_accessible (page, "New password (again)"), find_widget (page, "password2_entry"));
}

// ---- Validation ----

struct Validity {
  const char *bare_jid;
  const char *password1;
  const char *password2;
  bool is_valid;
};

class RegistrationPageValidation : public testing::TestWithParam<Validity> {};

TEST_P (RegistrationPageValidation, makes_the_register_button_sensitive_exactly_for_valid_input)
{
  TestWindow test;
  fill (&test, GetParam ().bare_jid, GetParam ().password1, GetParam ().password2);
  EXPECT_EQ (is_sensitive (test.window->registration_page, "register_button"),
             GetParam ().is_valid);
}

INSTANTIATE_TEST_SUITE_P (registration_page_validate_fields, RegistrationPageValidation,
                          testing::Values (Validity{"dora@alpha.test", "a", "a", true},
                                           Validity{"dora@alpha.test", "a", "b", false},
                                           Validity{"dora@alpha.test", "a", "A", false},
                                           Validity{"dora@alpha.test", "a", "ab", false},
                                           Validity{"dora@alpha.test", "", "", false},
                                           Validity{"dora@alpha.test", "a", "", false},
                                           Validity{"dora@alpha.test", "", "a", false},
                                           Validity{"dora", "a", "a", false},
                                           Validity{"", "a", "a", false},
                                           Validity{"dora@alpha.test/desk", "a", "a", false},
                                           Validity{"dora@alpha@test", "a", "a", false}));

// ---- Register button ----

TEST (registration_page_register_button, locks_the_input_and_leaves_cancel)
{
  TestWindow test;
  RegistrationPage *page = test.window->registration_page;
  testing::internal::CaptureStdout ();
  start_waiting (&test);
  for (const char *name :
       {"bare_jid_entry", "password1_entry", "password2_entry", "register_button"}) {
    EXPECT_FALSE (is_sensitive (page, name)) << name;
  }
  EXPECT_TRUE (is_sensitive (page, "cancel_button"));
  EXPECT_EQ (get_text (page, "status_label"), "");
  gboolean is_spinning = FALSE;
  g_object_get (find_widget (page, "status_spinner"), "active", &is_spinning, NULL);
  EXPECT_TRUE (is_spinning);
  EXPECT_EQ (to_std_string (test.window->account.full_jid), DEAF_JID "/morvane");
  EXPECT_TRUE (pump_until (is_idle, &test));
  std::string output = testing::internal::GetCapturedStdout ();
  EXPECT_NE (output.find ("Registering...\n"), std::string::npos);
}

TEST (registration_page_register_button, ends_with_the_reason_when_the_server_is_not_there)
{
  TestWindow test;
  RegistrationPage *page = test.window->registration_page;
  start_waiting (&test);
  EXPECT_TRUE (pump_until (is_idle, &test));
  EXPECT_EQ (get_text (page, "status_label"), "Can't connect to server");
  for (const char *name :
       {"bare_jid_entry", "password1_entry", "password2_entry", "register_button"}) {
    EXPECT_TRUE (is_sensitive (page, name)) << name;
  }
  EXPECT_EQ (get_text (page, "password1_entry"), "secret");
  EXPECT_EQ (gtk_window_get_focus (GTK_WINDOW (test.window)),
             registration_page_get_register_button (page));
  EXPECT_EQ (test.window->account.data, (u8 *) NULL);
}

TEST (registration_page_register_button, can_try_again_after_a_failure)
{
  TestWindow test;
  for (int i = 0; i < 3; ++i) {
    start_waiting (&test);
    EXPECT_TRUE (pump_until (is_idle, &test));
    EXPECT_EQ (get_text (test.window->registration_page, "status_label"),
               "Can't connect to server");
  }
}

TEST (registration_page_register_button, tells_of_a_refused_account)
{
  TestWindow test;
  RegistrationPage *page = test.window->registration_page;
  fill (&test, "@alpha.test", "secret", "secret");
  testing::internal::CaptureStdout ();
  g_signal_emit_by_name (registration_page_get_register_button (page), "clicked");
  std::string output = testing::internal::GetCapturedStdout ();
  EXPECT_EQ (get_text (page, "status_label"), "Incorrect account format");
  EXPECT_EQ (output, "Error: Login account '@alpha.test' is missing the username part.\n");
  EXPECT_EQ (test.window->account.data, (u8 *) NULL);
  EXPECT_TRUE (is_idle (&test));
  EXPECT_FALSE (is_account_locked (&test));
  EXPECT_TRUE (is_sensitive (page, "bare_jid_entry"));
}

TEST (registration_page_register_button, refuses_while_another_attempt_runs)
{
  TestWindow test;
  RegistrationPage *page = test.window->registration_page;
  type (test.window->login_page, "bare_jid_entry", DEAF_JID);
  type (test.window->login_page, "password_entry", "secret");
  fill (&test, DEAF_JID, "secret", "secret");
  // Not `press`: the outcome of the first attempt must not be handled before the second.
  gtk_button_clicked (GTK_BUTTON (login_page_get_login_button (test.window->login_page)));
  gtk_button_clicked (GTK_BUTTON (registration_page_get_register_button (page)));
  EXPECT_EQ (get_text (page, "status_label"), "Another attempt is still running");
  EXPECT_TRUE (is_sensitive (page, "register_button"));
  EXPECT_TRUE (pump_until (is_idle, &test));
}

TEST (registration_page_register_button, refuses_an_account_that_another_window_has_open)
{
  TestWindow first;
  start_waiting (&first);
  {
    TestWindow second;
    first.window->is_connected = true;
    start_waiting (&second);
    EXPECT_EQ (get_text (second.window->registration_page, "status_label"),
               "This account is open in another window");
    first.window->is_connected = false;
  }
  EXPECT_TRUE (pump_until (is_idle, &first));
}

TEST (registration_page_register_button, refuses_an_account_that_another_process_has_open)
{
  TestWindow test;
  int other = lock_all_accounts (&test);
  start_waiting (&test);
  EXPECT_TRUE (is_idle (&test));
  EXPECT_EQ (get_text (test.window->registration_page, "status_label"),
             "This account is open in another window");
  close (other);
  EXPECT_FALSE (is_account_locked (&test));
}

TEST (registration_page_register_button, keeps_other_processes_out_until_the_attempt_has_failed)
{
  TestWindow test;
  start_waiting (&test);
  EXPECT_TRUE (is_account_locked (&test));
  EXPECT_TRUE (pump_until (is_idle, &test));
  EXPECT_FALSE (is_account_locked (&test));
}

// A press that is refused would take the place of the reason, too.
TEST (registration_page_register_button, is_off_after_a_failure_until_the_worker_has_left)
{
  TestWindow test;
  RegistrationPage *page = test.window->registration_page;
  start_waiting (&test);
  EXPECT_TRUE (worker_wait_until_left (test.window->worker, get_deadline (60000)));
  registration_page_handle_failure (alloc_thread_message (test.window, "The name is taken", 0));
  EXPECT_FALSE (is_idle (&test));
  EXPECT_FALSE (is_sensitive (page, "register_button"));
  EXPECT_FALSE (is_sensitive (page, "password1_entry"));
  gtk_window_activate_default (GTK_WINDOW (test.window));
  EXPECT_EQ (get_text (page, "status_label"), "The name is taken");
  EXPECT_TRUE (pump_until (is_idle, &test));
  EXPECT_TRUE (is_sensitive (page, "register_button"));
  EXPECT_TRUE (is_sensitive (page, "password1_entry"));
  EXPECT_EQ (gtk_window_get_focus (GTK_WINDOW (test.window)),
             registration_page_get_register_button (page));
}

// ---- Outcomes ----

TEST (registration_page_handle_success, lands_on_the_login_page_with_the_new_account)
{
  TestWindow test;
  RegistrationPage *page = test.window->registration_page;
  press (test.window->login_page, "register_button");
  type (test.window->login_page, "password_entry", "old");
  fill (&test, "Dora@alpha.test", "secret", "secret");
  XMPPThreadMessage *message = alloc_thread_message (test.window, "result", 0);
  EXPECT_EQ (registration_page_handle_success (message), G_SOURCE_REMOVE);
  pump ();
  EXPECT_EQ (get_page (test.window, "stack"), "login_page");
  EXPECT_EQ (get_text (test.window->login_page, "bare_jid_entry"), "dora@alpha.test");
  EXPECT_EQ (get_text (test.window->login_page, "password_entry"), "");
  EXPECT_EQ (gtk_window_get_focus (GTK_WINDOW (test.window)),
             find_widget (test.window->login_page, "password_entry"));
  EXPECT_EQ (gtk_window_get_default_widget (GTK_WINDOW (test.window)),
             login_page_get_login_button (test.window->login_page));
  EXPECT_EQ (get_text (page, "bare_jid_entry"), "");
  EXPECT_EQ (get_text (page, "password1_entry"), "");
  EXPECT_EQ (get_text (page, "password2_entry"), "");
  EXPECT_EQ (get_text (page, "status_label"), "");
  EXPECT_TRUE (is_sensitive (page, "bare_jid_entry"));
  EXPECT_FALSE (is_sensitive (page, "register_button"));
}

TEST (registration_page_handle_success, does_nothing_to_a_closed_window)
{
  TestWindow test;
  XMPPThreadMessage *message = alloc_thread_message (test.window, "result", 0);
  close_window (&test);
  EXPECT_EQ (registration_page_handle_success (message), G_SOURCE_REMOVE);
  EXPECT_FALSE (app_window_is_open (test.window));
}

TEST (registration_page_handle_failure, shows_the_words_of_the_server_as_they_came)
{
  TestWindow test;
  RegistrationPage *page = test.window->registration_page;
  press (test.window->login_page, "register_button");
  fill (&test, "dora@alpha.test", "secret", "secret");
  const char *text = "The name &quot;dora&quot; <b>is</b> taken";
  XMPPThreadMessage *message = alloc_thread_message (test.window, text, 0);
  EXPECT_EQ (registration_page_handle_failure (message), G_SOURCE_REMOVE);
  EXPECT_EQ (get_text (page, "status_label"), text);
  EXPECT_EQ (get_page (test.window, "stack"), "registration_page");
  EXPECT_EQ (get_text (page, "bare_jid_entry"), "dora@alpha.test");
}

TEST (registration_page_handle_failure, takes_bytes_that_are_no_text_without_a_warning)
{
  TestWindow test;
  registration_page_handle_failure (alloc_thread_message (test.window, "no\xff", 0));
  EXPECT_EQ (get_text (test.window->registration_page, "status_label"), "no\xef\xbf\xbd");
}

TEST (registration_page_handle_failure, does_nothing_to_a_closed_window)
{
  TestWindow test;
  XMPPThreadMessage *message = alloc_thread_message (test.window, "Unhandled error", 0);
  close_window (&test);
  EXPECT_EQ (registration_page_handle_failure (message), G_SOURCE_REMOVE);
  EXPECT_FALSE (app_window_is_open (test.window));
}

// ---- Leaving ----

TEST (registration_page_cancel_button, returns_to_the_login_page_without_an_account)
{
  TestWindow test;
  type (test.window->login_page, "bare_jid_entry", "alice@alpha.test");
  press (test.window->login_page, "register_button");
  fill (&test, "dora@alpha.test", "secret", "secret");
  press (test.window->registration_page, "cancel_button");
  EXPECT_EQ (get_page (test.window, "stack"), "login_page");
  EXPECT_EQ (get_text (test.window->login_page, "bare_jid_entry"), "alice@alpha.test");
  EXPECT_EQ (gtk_window_get_default_widget (GTK_WINDOW (test.window)),
             login_page_get_login_button (test.window->login_page));
}

TEST (registration_page_key_press, escape_returns_to_the_login_page_and_goes_no_further)
{
  TestWindow test;
  press (test.window->login_page, "register_button");
  gtk_widget_grab_focus (find_widget (test.window->registration_page, "password1_entry"));
  bool went_further = false;
  g_signal_connect_after (test.window->stack, "key-press-event",
                          G_CALLBACK (+[] (GtkWidget *, GdkEvent *, bool *seen) -> gboolean {
                            *seen = true;
                            return FALSE;
                          }),
                          &went_further);
  press_key (&test, GDK_KEY_Escape);
  EXPECT_EQ (get_page (test.window, "stack"), "login_page");
  EXPECT_EQ (get_text (test.window->login_page, "bare_jid_entry"), "");
  EXPECT_FALSE (went_further);
}

TEST (registration_page_key_press, leaves_other_keys_and_releases_alone)
{
  TestWindow test;
  press (test.window->login_page, "register_button");
  gtk_widget_grab_focus (find_widget (test.window->registration_page, "password1_entry"));
  GdkEvent *release = gdk_event_new (GDK_KEY_RELEASE);
  release->key.window =
    GDK_WINDOW (g_object_ref (gtk_widget_get_window (GTK_WIDGET (test.window))));
  release->key.keyval = GDK_KEY_Escape;
  gboolean is_handled = TRUE;
  g_signal_emit_by_name (test.window->registration_page, "key-press-event", release, &is_handled);
  gdk_event_free (release);
  EXPECT_FALSE (is_handled);
  press_key (&test, GDK_KEY_F5);
  EXPECT_EQ (get_page (test.window, "stack"), "registration_page");
}

// Presses of Cancel and of Escape while the server keeps the program waiting.
class RegistrationPageLeaving : public testing::TestWithParam<bool> {};

TEST_P (RegistrationPageLeaving, ends_a_registration_that_runs_and_says_nothing_of_it)
{
  TestWindow test;
  RegistrationPage *page = test.window->registration_page;
  char bare_jid[64];
  int listener = listen_silently (bare_jid);
  press (test.window->login_page, "register_button");
  fill (&test, bare_jid, "secret", "secret");
  gtk_button_clicked (GTK_BUTTON (registration_page_get_register_button (page)));
  int connection = accept (listener, NULL, NULL);
  EXPECT_GE (connection, 0);
  EXPECT_TRUE (pump_until (is_connected, &connection));

  if (GetParam ()) {
    press (page, "cancel_button");
  } else {
    press_key (&test, GDK_KEY_Escape);
  }
  EXPECT_EQ (get_page (test.window, "stack"), "login_page");
  gtk_widget_grab_focus (find_widget (test.window->login_page, "bare_jid_entry"));
  EXPECT_TRUE (pump_until (is_idle, &test));
  EXPECT_EQ (get_page (test.window, "stack"), "login_page");
  EXPECT_EQ (gtk_window_get_focus (GTK_WINDOW (test.window)),
             find_widget (test.window->login_page, "bare_jid_entry"));
  EXPECT_EQ (get_text (page, "status_label"), "");
  EXPECT_TRUE (is_sensitive (page, "register_button"));
  EXPECT_EQ (test.window->account.data, (u8 *) NULL);
  close (connection);
  close (listener);
}

INSTANTIATE_TEST_SUITE_P (registration_page_leave, RegistrationPageLeaving,
                          testing::Values (true, false));

// ---- A page ----

TEST (registration_page_new, makes_a_page_of_its_own_that_is_empty)
{
  TestWindow test;
  GtkWidget *page = registration_page_new ();
  EXPECT_TRUE (g_object_is_floating (page));
  GtkWidget *toplevel = show_alone (page);
  EXPECT_EQ (get_text (page, "bare_jid_entry"), "");
  EXPECT_EQ (get_text (page, "password1_entry"), "");
  EXPECT_EQ (get_text (page, "password2_entry"), "");
  gtk_widget_destroy (toplevel);
}
