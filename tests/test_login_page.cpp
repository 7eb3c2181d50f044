#include "login_page.h"

#include <arpa/inet.h>
#include <string.h>

#include "delivery.h"
#include "morvane.h"
#include "widget_test.h"

// An address of this machine on which nothing listens.
#define DEAF_JID "alice@127.33.44.55"

static void
fill (TestWindow *test, const char *bare_jid, const char *password)
{
  type (test->window->login_page, "bare_jid_entry", bare_jid);
  type (test->window->login_page, "password_entry", password);
}

static bool
is_idle (void *data)
{
  return !app_window_is_worker_running (((TestWindow *) data)->window);
}

static bool
has_status (void *data)
{
  return get_text (((TestWindow *) data)->window->login_page, "status_label") != "";
}

static gboolean
succeed (TestWindow *test, const char *bare_jid)
{
  test->window->account =
    alloc_xmpp_account (to_string (bare_jid), to_string ("secret"), to_string ("morvane"));
  return login_page_handle_login_success (g_object_ref (test->window));
}

// Presses the button whatever it looks like, as a key binding might.
static void
force_login (TestWindow *test)
{
  g_signal_emit_by_name (find_widget (test->window->login_page, "login_button"), "clicked");
}

// ---- Looks ----

TEST (login_page_init, shows_two_empty_entries_and_an_insensitive_login_button)
{
  TestWindow test;
  LoginPage *page = test.window->login_page;
  EXPECT_EQ (get_page (test.window, "stack"), "login_page");
  EXPECT_EQ (get_text (page, "bare_jid_entry"), "");
  EXPECT_EQ (get_text (page, "password_entry"), "");
  EXPECT_EQ (get_text (page, "status_label"), "");
  EXPECT_EQ (get_text (page, "login_button"), "_Login");
  EXPECT_EQ (get_text (page, "register_button"), "_Register");
  EXPECT_FALSE (is_sensitive (page, "login_button"));
  EXPECT_TRUE (is_sensitive (page, "register_button"));
}

TEST (login_page_init, hides_the_password_and_lets_enter_log_in)
{
  TestWindow test;
  GtkEntry *bare_jid = GTK_ENTRY (find_widget (test.window->login_page, "bare_jid_entry"));
  GtkEntry *password = GTK_ENTRY (find_widget (test.window->login_page, "password_entry"));
  EXPECT_STREQ (gtk_entry_get_placeholder_text (bare_jid), "account");
  EXPECT_STREQ (gtk_entry_get_placeholder_text (password), "password");
  EXPECT_EQ (gtk_entry_get_input_purpose (bare_jid), GTK_INPUT_PURPOSE_EMAIL);
  EXPECT_EQ (gtk_entry_get_input_purpose (password), GTK_INPUT_PURPOSE_PASSWORD);
  EXPECT_FALSE (gtk_entry_get_visibility (password));
  EXPECT_TRUE (gtk_entry_get_activates_default (bare_jid));
  EXPECT_TRUE (gtk_entry_get_activates_default (password));
  EXPECT_EQ (gtk_window_get_default_widget (GTK_WINDOW (test.window)),
             login_page_get_login_button (test.window->login_page));
}

TEST (login_page_init, names_its_widgets_for_assistive_technology)
{
  TestWindow test;
  LoginPage *page = test.window->login_page;
  EXPECT_EQ (list_unnamed_widgets (page), "");
  EXPECT_EQ (find_accessible (page, "Account"), find_widget (page, "bare_jid_entry"));
  EXPECT_EQ (find_accessible (page, "Password"), find_widget (page, "password_entry"));
  EXPECT_EQ (find_accessible (page, "Login"), find_widget (page, "login_button"));
  EXPECT_EQ (find_accessible (page, "Register"), find_widget (page, "register_button"));
}

// ---- Validation ----

struct Validity {
  const char *bare_jid;
  const char *password;
  bool is_valid;
};

class LoginPageValidation : public testing::TestWithParam<Validity> {};

TEST_P (LoginPageValidation, makes_the_login_button_sensitive_exactly_for_valid_input)
{
  TestWindow test;
  fill (&test, GetParam ().bare_jid, GetParam ().password);
  EXPECT_EQ (is_sensitive (test.window->login_page, "login_button"), GetParam ().is_valid);
}

INSTANTIATE_TEST_SUITE_P (
  login_page_validate_fields, LoginPageValidation,
  testing::Values (Validity{"alice@alpha.test", "x", true}, Validity{"alice@alpha.test", " ", true},
                   Validity{"alice@alpha.test", "", false}, Validity{"", "x", false},
                   Validity{"alice", "x", false}, Validity{"@alpha.test", "x", false},
                   Validity{"alice@", "x", false}, Validity{"alice@alpha.test/desk", "x", false},
                   Validity{"alice@alpha@test", "x", false}));

TEST (login_page_validate_fields, follows_every_change)
{
  TestWindow test;
  LoginPage *page = test.window->login_page;
  fill (&test, "alice@alpha.test", "x");
  EXPECT_TRUE (is_sensitive (page, "login_button"));
  type (page, "bare_jid_entry", "alice@alpha.test/");
  EXPECT_FALSE (is_sensitive (page, "login_button"));
  type (page, "bare_jid_entry", "alice@alpha.test");
  EXPECT_TRUE (is_sensitive (page, "login_button"));
  type (page, "password_entry", "");
  EXPECT_FALSE (is_sensitive (page, "login_button"));
}

// ---- Setters ----

TEST (login_page_set_bare_jid, fills_the_entry_from_a_text_and_from_a_string)
{
  TestWindow test;
  LoginPage *page = test.window->login_page;
  login_page_set_bare_jid (page, "alice@alpha.test");
  EXPECT_EQ (get_text (page, "bare_jid_entry"), "alice@alpha.test");
  login_page_set_bare_jid (page, String{(u8 *) "bob@beta.test and more", 13});
  EXPECT_EQ (get_text (page, "bare_jid_entry"), "bob@beta.test");
  login_page_set_bare_jid (page, String{});
  EXPECT_EQ (get_text (page, "bare_jid_entry"), "");
}

TEST (login_page_set_password, fills_the_entry_and_counts_as_typed)
{
  TestWindow test;
  LoginPage *page = test.window->login_page;
  login_page_set_bare_jid (page, "alice@alpha.test");
  login_page_set_password (page, "secret");
  EXPECT_EQ (get_text (page, "password_entry"), "secret");
  EXPECT_TRUE (is_sensitive (page, "login_button"));
  login_page_set_password (page, to_string ("other"));
  EXPECT_EQ (get_text (page, "password_entry"), "other");
}

TEST (login_page_set_password, takes_bytes_that_are_no_text_without_a_warning)
{
  TestWindow test;
  login_page_set_password (test.window->login_page, to_string ("a\xff"
                                                               "b"));
  EXPECT_EQ (get_text (test.window->login_page, "password_entry"), "a\xef\xbf\xbd"
                                                                   "b");
}

TEST (login_page_set_bare_jid, is_done_by_the_configuration_file)
{
  TestWindow test ("bare_jid = carol@alpha.test\npassword = pw\n");
  EXPECT_EQ (get_text (test.window->login_page, "bare_jid_entry"), "carol@alpha.test");
  EXPECT_EQ (get_text (test.window->login_page, "password_entry"), "pw");
  EXPECT_TRUE (is_sensitive (test.window->login_page, "login_button"));
}

TEST (login_page_focus_password, gives_the_focus_to_the_password)
{
  TestWindow test;
  login_page_focus_password (test.window->login_page);
  EXPECT_EQ (gtk_window_get_focus (GTK_WINDOW (test.window)),
             find_widget (test.window->login_page, "password_entry"));
}

// ---- Login button ----

TEST (login_page_login_button, asks_for_the_account_first)
{
  TestWindow test;
  force_login (&test);
  EXPECT_EQ (get_text (test.window->login_page, "status_label"), "Input an account");
}

TEST (login_page_login_button, asks_for_the_password_before_it_judges_the_account)
{
  TestWindow test;
  fill (&test, "alice", "");
  force_login (&test);
  EXPECT_EQ (get_text (test.window->login_page, "status_label"), "Input a password");
}

TEST (login_page_login_button, refuses_an_account_of_the_wrong_form)
{
  TestWindow test;
  fill (&test, "alice@alpha.test/desk", "secret");
  force_login (&test);
  EXPECT_EQ (get_text (test.window->login_page, "status_label"), "Incorrect account format");
  EXPECT_FALSE (app_window_is_worker_running (test.window));
  EXPECT_EQ (test.window->account.data, (u8 *) NULL);
}

TEST (login_page_login_button, locks_the_input_and_starts_the_spinner)
{
  TestWindow test;
  LoginPage *page = test.window->login_page;
  fill (&test, DEAF_JID, "secret");
  testing::internal::CaptureStdout ();
  // Not `press`: the outcome must not be handled before the page was looked at.
  gtk_button_clicked (GTK_BUTTON (login_page_get_login_button (page)));
  EXPECT_FALSE (is_sensitive (page, "bare_jid_entry"));
  EXPECT_FALSE (is_sensitive (page, "password_entry"));
  EXPECT_FALSE (is_sensitive (page, "login_button"));
  EXPECT_TRUE (is_sensitive (page, "register_button"));
  EXPECT_EQ (get_text (page, "status_label"), "");
  gboolean is_spinning = FALSE;
  g_object_get (find_widget (page, "spinner"), "active", &is_spinning, NULL);
  EXPECT_TRUE (is_spinning);
  EXPECT_TRUE (pump_until (is_idle, &test));
  std::string output = testing::internal::GetCapturedStdout ();
  EXPECT_NE (output.find ("Connecting...\n"), std::string::npos);
}

TEST (login_page_login_button, builds_the_account_in_lower_case_with_the_fixed_resource)
{
  TestWindow test;
  fill (&test, "Alice@127.33.44.55", "SeCret");
  gtk_button_clicked (GTK_BUTTON (login_page_get_login_button (test.window->login_page)));
  EXPECT_EQ (to_std_string (test.window->account.full_jid), "alice@127.33.44.55/morvane");
  EXPECT_EQ (to_std_string (test.window->account.password), "SeCret");
  EXPECT_TRUE (pump_until (is_idle, &test));
}

TEST (login_page_login_button, ends_with_the_reason_when_the_server_is_not_there)
{
  TestWindow test;
  LoginPage *page = test.window->login_page;
  fill (&test, DEAF_JID, "secret");
  press (page, "login_button");
  EXPECT_TRUE (pump_until (is_idle, &test));
  EXPECT_EQ (get_text (page, "status_label"), "Can't connect to server");
  EXPECT_EQ (get_text (page, "password_entry"), "secret");
  EXPECT_TRUE (is_sensitive (page, "login_button"));
  EXPECT_EQ (gtk_window_get_focus (GTK_WINDOW (test.window)), login_page_get_login_button (page));
}

TEST (login_page_login_button, can_try_again_after_a_failure)
{
  TestWindow test;
  LoginPage *page = test.window->login_page;
  fill (&test, DEAF_JID, "secret");
  for (int i = 0; i < 3; ++i) {
    press (page, "login_button");
    EXPECT_TRUE (pump_until (is_idle, &test));
    EXPECT_EQ (get_text (page, "status_label"), "Can't connect to server");
  }
}

TEST (login_page_login_button, is_pressed_by_enter_in_an_entry)
{
  TestWindow test;
  fill (&test, DEAF_JID, "secret");
  login_page_focus_password (test.window->login_page);
  pump ();
  press_key (&test, GDK_KEY_Return);
  // A button that a key presses stays down for a moment before it acts.
  EXPECT_TRUE (pump_until (has_status, &test));
  EXPECT_EQ (get_text (test.window->login_page, "status_label"), "Can't connect to server");
}

TEST (login_page_login_button, refuses_while_another_attempt_runs)
{
  TestWindow test;
  fill (&test, DEAF_JID, "secret");
  gtk_button_clicked (GTK_BUTTON (login_page_get_login_button (test.window->login_page)));
  force_login (&test);
  EXPECT_EQ (get_text (test.window->login_page, "status_label"),
             "Another attempt is still running");
  EXPECT_TRUE (pump_until (is_idle, &test));
}

// Its worker may still need a moment, in which a press would be refused.
TEST (login_page_login_button, is_off_after_a_success_that_was_given_up_until_the_worker_has_left)
{
  TestWindow test;
  AppWindow *window = test.window;
  fill (&test, DEAF_JID, "secret");
  gtk_button_clicked (GTK_BUTTON (login_page_get_login_button (window->login_page)));
  EXPECT_TRUE (worker_wait_until_left (window->worker, get_deadline (60000)));
  GdkEvent *event = gdk_event_new (GDK_KEY_PRESS);
  event->key.window = GDK_WINDOW (g_object_ref (gtk_widget_get_window (GTK_WIDGET (window))));
  event->key.keyval = GDK_KEY_Escape;
  gboolean is_handled = FALSE;
  g_signal_emit_by_name (window->login_page, "key-press-event", event, &is_handled);
  EXPECT_TRUE (is_handled);
  gdk_event_free (event);
  login_page_handle_login_success (g_object_ref (window));
  EXPECT_FALSE (is_idle (&test));
  EXPECT_FALSE (is_sensitive (window->login_page, "login_button"));
  EXPECT_TRUE (pump_until (is_idle, &test));
  EXPECT_TRUE (is_sensitive (window->login_page, "login_button"));
}

// A press that is refused would take the place of the reason, too.
TEST (login_page_login_button, is_off_after_a_failure_until_the_worker_has_left)
{
  TestWindow test;
  LoginPage *page = test.window->login_page;
  fill (&test, DEAF_JID, "secret");
  gtk_button_clicked (GTK_BUTTON (login_page_get_login_button (page)));
  EXPECT_TRUE (worker_wait_until_left (test.window->worker, get_deadline (60000)));
  login_page_handle_login_failure (alloc_thread_message (test.window, "Unable to authorize", 0));
  EXPECT_FALSE (is_idle (&test));
  EXPECT_FALSE (is_sensitive (page, "login_button"));
  EXPECT_FALSE (is_sensitive (page, "password_entry"));
  gtk_window_activate_default (GTK_WINDOW (test.window));
  EXPECT_EQ (get_text (page, "status_label"), "Unable to authorize");
  EXPECT_TRUE (pump_until (is_idle, &test));
  EXPECT_TRUE (is_sensitive (page, "login_button"));
  EXPECT_TRUE (is_sensitive (page, "password_entry"));
  EXPECT_EQ (gtk_window_get_focus (GTK_WINDOW (test.window)), login_page_get_login_button (page));
}

TEST (login_page_login_button, refuses_an_account_that_another_window_has_open)
{
  TestWindow first;
  fill (&first, DEAF_JID, "secret");
  gtk_button_clicked (GTK_BUTTON (login_page_get_login_button (first.window->login_page)));
  {
    TestWindow second;
    // The first window's attempt has ended by now or has not; its account is held as open.
    first.window->is_connected = true;
    fill (&second, "ALICE@127.33.44.55", "secret");
    force_login (&second);
    EXPECT_EQ (get_text (second.window->login_page, "status_label"),
               "This account is open in another window");
    EXPECT_TRUE (is_idle (&second));
    first.window->is_connected = false;
  }
  EXPECT_TRUE (pump_until (is_idle, &first));
}

TEST (login_page_login_button, refuses_an_account_that_another_process_has_open)
{
  TestWindow test;
  int other = lock_all_accounts (&test);
  fill (&test, DEAF_JID, "secret");
  testing::internal::CaptureStdout ();
  press (test.window->login_page, "login_button");
  EXPECT_TRUE (is_idle (&test));
  EXPECT_EQ (get_text (test.window->login_page, "status_label"),
             "This account is open in another window");
  // Nothing was begun, and nothing is left of it.
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "");
  EXPECT_EQ (test.window->account.data, nullptr);
  EXPECT_TRUE (is_sensitive (test.window->login_page, "login_button"));
  close (other);
  EXPECT_FALSE (is_account_locked (&test));
  press (test.window->login_page, "login_button");
  EXPECT_TRUE (pump_until (is_idle, &test));
  EXPECT_EQ (get_text (test.window->login_page, "status_label"), "Can't connect to server");
}

TEST (login_page_login_button, keeps_other_processes_out_until_the_attempt_has_failed)
{
  TestWindow test;
  fill (&test, DEAF_JID, "secret");
  EXPECT_FALSE (is_account_locked (&test));
  gtk_button_clicked (GTK_BUTTON (login_page_get_login_button (test.window->login_page)));
  EXPECT_TRUE (is_account_locked (&test));
  EXPECT_TRUE (pump_until (is_idle, &test));
  EXPECT_FALSE (is_account_locked (&test));
}

// ---- Outcomes ----

TEST (login_page_handle_login_success, empties_the_password_and_shows_the_main_page)
{
  TestWindow test;
  LoginPage *page = test.window->login_page;
  log_in (&test);
  fill (&test, "alice@alpha.test", "secret");
  delivery_end (test.window);
  dealloc_contact_stack (test.window->contacts);
  dealloc_procedure_stack (test.window->procedures);
  dealloc_xmpp_account (test.window->account);
  EXPECT_EQ (succeed (&test, "alice@alpha.test"), G_SOURCE_REMOVE);
  EXPECT_EQ (get_text (page, "password_entry"), "");
  EXPECT_EQ (get_text (page, "bare_jid_entry"), "alice@alpha.test");
  EXPECT_EQ (get_text (page, "status_label"), "");
  EXPECT_TRUE (is_sensitive (page, "bare_jid_entry"));
  EXPECT_TRUE (is_sensitive (page, "password_entry"));
  EXPECT_TRUE (is_sensitive (page, "register_button"));
  EXPECT_EQ (get_page (test.window, "stack"), "main_page");
  EXPECT_EQ (query (&test, "SELECT bare_jid FROM accounts"), "alice@alpha.test\n");
}

TEST (login_page_handle_login_success, stops_the_program_without_an_account)
{
  EXPECT_DEATH (
    {
      TestWindow test;
      login_page_handle_login_success (g_object_ref (test.window));
    },
    "src/login_page.cpp.*window->account.bare_jid.size");
}

TEST (login_page_handle_login_success, does_nothing_to_a_closed_window)
{
  TestWindow test;
  close_window (&test);
  EXPECT_EQ (login_page_handle_login_success (g_object_ref (test.window)), G_SOURCE_REMOVE);
  EXPECT_EQ (query (&test, "SELECT bare_jid FROM accounts"), "");
}

TEST (login_page_handle_login_failure, shows_the_text_and_releases_the_connection)
{
  TestWindow test;
  LoginPage *page = test.window->login_page;
  fill (&test, "alice@alpha.test", "secret");
  test.window->account =
    alloc_xmpp_account (to_string ("alice@alpha.test"), to_string ("secret"), to_string ("x"));
  gtk_widget_set_sensitive (find_widget (page, "bare_jid_entry"), FALSE);
  gtk_widget_set_sensitive (find_widget (page, "password_entry"), FALSE);
  gtk_spinner_start (GTK_SPINNER (find_widget (page, "spinner")));
  XMPPThreadMessage *message = alloc_thread_message (test.window, "Unable to authorize", 0);
  EXPECT_EQ (login_page_handle_login_failure (message), G_SOURCE_REMOVE);
  EXPECT_EQ (get_text (page, "status_label"), "Unable to authorize");
  EXPECT_EQ (test.window->account.data, (u8 *) NULL);
  EXPECT_TRUE (is_sensitive (page, "bare_jid_entry"));
  EXPECT_TRUE (is_sensitive (page, "password_entry"));
  EXPECT_TRUE (is_sensitive (page, "login_button"));
  EXPECT_EQ (get_text (page, "password_entry"), "secret");
  gboolean is_spinning = TRUE;
  g_object_get (find_widget (page, "spinner"), "active", &is_spinning, NULL);
  EXPECT_FALSE (is_spinning);
  EXPECT_EQ (gtk_window_get_focus (GTK_WINDOW (test.window)), login_page_get_login_button (page));
}

static std::string
tooltip_after_failure (const char *bare_jid, const char *password)
{
  TestWindow test;
  fill (&test, bare_jid, password);
  login_page_handle_login_failure (alloc_thread_message (test.window, "Unable to authorize", 0));
  char *text = gtk_widget_get_tooltip_text (find_widget (test.window->login_page, "status_label"));
  std::string tooltip = text ? text : "";
  g_free (text);
  return tooltip;
}

TEST (login_page_handle_login_failure, tells_of_characters_that_reach_the_server_changed)
{
  const char *hint =
    "The name or the password has characters beyond ASCII, which reach the server changed";
  EXPECT_EQ (tooltip_after_failure ("alice@alpha.test", "p\303\244ss"), hint);
  EXPECT_EQ (tooltip_after_failure ("\303\244lice@alpha.test", "secret"), hint);
  EXPECT_EQ (tooltip_after_failure ("alice@alpha.test", "se cret~!"), "");
  // The host is not sent with them.
  EXPECT_EQ (tooltip_after_failure ("alice@\303\244lpha.test", "secret"), "");
}

TEST (login_page_handle_login_failure, leaves_no_tooltip_to_the_next_refusal)
{
  TestWindow test;
  GtkWidget *label = find_widget (test.window->login_page, "status_label");
  fill (&test, DEAF_JID, "p\303\244ss");
  login_page_handle_login_failure (alloc_thread_message (test.window, "Unable to authorize", 0));
  EXPECT_TRUE (gtk_widget_get_has_tooltip (label));
  int other = lock_all_accounts (&test);
  press (test.window->login_page, "login_button");
  EXPECT_EQ (get_text (test.window->login_page, "status_label"),
             "This account is open in another window");
  EXPECT_FALSE (gtk_widget_get_has_tooltip (label));
  close (other);
}

TEST (login_page_handle_login_failure, leaves_the_focus_alone_on_another_page)
{
  TestWindow test;
  press (test.window->login_page, "register_button");
  gtk_widget_grab_focus (find_widget (test.window->registration_page, "bare_jid_entry"));
  login_page_handle_login_failure (alloc_thread_message (test.window, "Unable to authorize", 0));
  EXPECT_EQ (gtk_window_get_focus (GTK_WINDOW (test.window)),
             find_widget (test.window->registration_page, "bare_jid_entry"));
  EXPECT_EQ (get_text (test.window->login_page, "status_label"), "Unable to authorize");
}

TEST (login_page_handle_login_failure, wraps_a_long_text_instead_of_widening_the_window)
{
  TestWindow test;
  std::string text;
  for (int i = 0; i < 40; ++i) {
    text += "long words ";
  }
  int width = 0;
  login_page_handle_login_failure (alloc_thread_message (test.window, text.c_str (), 0));
  pump ();
  gtk_window_get_size (GTK_WINDOW (test.window), &width, NULL);
  EXPECT_EQ (width, 640);
}

// ---- Register button ----

TEST (login_page_register_button, shows_the_registration_page)
{
  TestWindow test;
  press (test.window->login_page, "register_button");
  EXPECT_EQ (get_page (test.window, "stack"), "registration_page");
}

// ---- A page ----

TEST (login_page_new, makes_a_page_of_its_own_that_is_empty)
{
  TestWindow test;
  GtkWidget *page = login_page_new ();
  EXPECT_TRUE (g_object_is_floating (page));
  GtkWidget *toplevel = show_alone (page);
  EXPECT_EQ (get_text (page, "bare_jid_entry"), "");
  EXPECT_EQ (get_text (page, "password_entry"), "");
  EXPECT_EQ (get_text (page, "status_label"), "");
  gtk_widget_destroy (toplevel);
}
