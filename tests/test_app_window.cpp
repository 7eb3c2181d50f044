#include "app_window.h"

#include <stdlib.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>

#include "account_test.h"
#include "clause_chat_page.h"
#include "clause_view.h"
#include "contact_list_item.h"
#include "deletion.h"
#include "login_page.h"
#include "morvane.h"
#include "procedure_creation_page.h"
#include "procedure_view.h"
#include "registration_page.h"
#include "session.h"
#include "vcard_page.h"

// ---- What is done and seen here only ----

static void
activate_row (GtkListBox *list_box, int index)
{
  GtkListBoxRow *row = gtk_list_box_get_row_at_index (list_box, index);
  ASSERT_TRUE (row);
  gtk_widget_activate (GTK_WIDGET (row));
  pump ();
}

static bool
is_mapped (void *data)
{
  return gtk_widget_get_mapped (GTK_WIDGET (data));
}

// Opens the list of revisions of the first clause of a negotiation.
static void
open_revisions (TestWindow *test)
{
  activate_row (test->window->procedures_list_box, 1);
  GtkWidget *button = find_widget (get_clause (test)->view, "revision_select_menu_button");
  EXPECT_TRUE (pump_until (is_mapped, button));
  gtk_toggle_button_set_active (GTK_TOGGLE_BUTTON (button), TRUE);
  EXPECT_TRUE (pump_until (is_mapped, gtk_menu_button_get_popover (GTK_MENU_BUTTON (button))));
}

static GtkWidget *
get_default (TestWindow *test)
{
  return gtk_window_get_default_widget (GTK_WINDOW (test->window));
}

static void
focus (TestWindow *test, GtkWidget *widget)
{
  EXPECT_TRUE (
    pump_until ([] (
                  void *data) { return (bool) gtk_window_has_toplevel_focus (GTK_WINDOW (data)); },
                test->window));
  gtk_widget_grab_focus (widget);
  pump ();
  EXPECT_TRUE (gtk_widget_has_focus (widget));
}

// ---- A new window ----

TEST (app_window_new, shows_the_login_page_in_a_window_of_640_by_640)
{
  TestWindow test;
  int width = 0;
  int height = 0;
  gtk_window_get_default_size (GTK_WINDOW (test.window), &width, &height);
  EXPECT_EQ (width, 640);
  EXPECT_EQ (height, 640);
  EXPECT_STREQ (gtk_window_get_title (GTK_WINDOW (test.window)), "Morvane");
  EXPECT_EQ (get_page (test.window, "stack"), "login_page");
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "procedure_creation_page");
  EXPECT_EQ (get_default (&test), login_page_get_login_button (test.window->login_page));
  EXPECT_STREQ (G_OBJECT_TYPE_NAME (test.window), "AppWindow");
}

TEST (app_window_new, has_nobody_logged_in)
{
  TestWindow test;
  AppWindow *window = test.window;
  EXPECT_EQ (window->db, test.db);
  EXPECT_EQ (window->account_db_id, 0u);
  EXPECT_FALSE (window->account.data);
  EXPECT_EQ (window->account.bare_jid.size, 0u);
  EXPECT_FALSE (window->connection.opened_stream);
  EXPECT_FALSE (window->connection.opened_socket);
  EXPECT_FALSE (window->connection.opened_tls_session);
  EXPECT_EQ (window->last_xmpp_id, 0u);
  EXPECT_EQ (window->get_vcard_id, 0u);
  EXPECT_EQ (window->get_own_vcard_id, 0u);
  EXPECT_FALSE (window->prev_main_page);
  EXPECT_FALSE (app_window_is_worker_running (window));
  EXPECT_TRUE (app_window_is_open (window));
}

TEST (app_window_new, has_room_for_long_stanzas_both_ways)
{
  TestWindow test;
  EXPECT_EQ (test.window->input_stream_buffer.size, 8388607u);
  EXPECT_EQ (test.window->output_stream_buffer.size, 8388607u);
  EXPECT_TRUE (test.window->input_stream_buffer.data);
  EXPECT_NE (test.window->input_stream_buffer.data, test.window->output_stream_buffer.data);
}

// In pixels.
static double
get_font_size (GtkWidget *widget)
{
  double size = 0;
  gtk_style_context_get (gtk_widget_get_style_context (widget), GTK_STATE_FLAG_NORMAL, "font-size",
                         &size, NULL);
  return size;
}

TEST (app_window_new, shows_the_console_buffer_in_small_letters_behind_a_closed_pane)
{
  TestWindow test;
  GtkWidget *console = GTK_WIDGET (test.window->console);
  EXPECT_EQ (gtk_text_view_get_buffer (test.window->console), test.console);
  EXPECT_FALSE (gtk_text_view_get_editable (test.window->console));
  EXPECT_EQ (gtk_text_view_get_wrap_mode (test.window->console), GTK_WRAP_CHAR);
  EXPECT_FALSE (gtk_widget_get_visible (console));
  EXPECT_EQ (gtk_paned_get_position (test.window->console_paned), 0);
  EXPECT_EQ (get_font_size (console), 10);
}

TEST (app_window_new, styles_nothing_but_the_console)
{
  TestWindow test;
  EXPECT_NE (get_font_size (find_widget (test.window->login_page, "bare_jid_entry")), 10);
}

// A text that had no place yet would be broken behind each letter, at many times the cost.
TEST (app_window_new, breaks_the_lines_of_the_hidden_console_at_the_width_of_a_window)
{
  TestWindow test;
  gtk_text_buffer_set_text (test.console, "A line of the console, with some words in it", -1);
  pump ();
  EXPECT_FALSE (gtk_widget_get_visible (GTK_WIDGET (test.window->console)));
  GtkTextIter start;
  gtk_text_buffer_get_start_iter (test.console, &start);
  int y;
  int height;
  gtk_text_view_get_line_yrange (test.window->console, &start, &y, &height);
  EXPECT_LT (height, 40);
}

// Whoever reads the console is not carried away by new output.
TEST (app_window_new, does_not_follow_the_console)
{
  TestWindow test;
  guint changed = g_signal_lookup ("changed", GTK_TYPE_TEXT_BUFFER);
  EXPECT_EQ (g_signal_handler_find (test.console,
                                    (GSignalMatchType) (G_SIGNAL_MATCH_ID | G_SIGNAL_MATCH_DATA),
                                    changed, 0, NULL, NULL, test.window),
             0u);
}

TEST (app_window_new, names_its_widgets_for_assistive_technology)
{
  TestWindow test;
  EXPECT_EQ (list_unnamed_widgets (test.window), "");
}

struct StackCase {
  const char *stack;
  GtkStackTransitionType transition;
  guint duration_ms;
};

class AppWindowStacks : public testing::TestWithParam<StackCase> {};

TEST_P (AppWindowStacks, slide)
{
  TestWindow test;
  GtkStack *stack = GTK_STACK (find_widget (test.window, GetParam ().stack));
  EXPECT_EQ (gtk_stack_get_transition_type (stack), GetParam ().transition);
  EXPECT_EQ (gtk_stack_get_transition_duration (stack), GetParam ().duration_ms);
}

INSTANTIATE_TEST_SUITE_P (
  app_window_init, AppWindowStacks,
  testing::Values (StackCase{"stack", GTK_STACK_TRANSITION_TYPE_SLIDE_LEFT_RIGHT, 700},
                   StackCase{"main_page_stack", GTK_STACK_TRANSITION_TYPE_SLIDE_UP_DOWN, 700}));

TEST (app_window_init, switches_between_procedures_and_contacts)
{
  TestWindow test;
  GtkStack *stack = GTK_STACK (find_widget (test.window, "roster_stack"));
  const char *names[2] = {"procedures", "contacts"};
  const char *titles[2] = {"Procedures", "Contacts"};
  GtkListBox *lists[2] = {test.window->procedures_list_box, test.window->contacts_list_box};
  for (int i = 0; i < 2; i++) {
    GtkWidget *page = gtk_stack_get_child_by_name (stack, names[i]);
    ASSERT_TRUE (page);
    EXPECT_TRUE (gtk_widget_is_ancestor (GTK_WIDGET (lists[i]), page));
    char *title = NULL;
    gtk_container_child_get (GTK_CONTAINER (stack), page, "title", &title, NULL);
    EXPECT_STREQ (title, titles[i]);
    g_free (title);
  }
}

// ---- The configuration file ----

struct ConfigCase {
  const char *config;
  const char *bare_jid;
  const char *password;
};

class AppWindowConfig : public testing::TestWithParam<ConfigCase> {};

TEST_P (AppWindowConfig, fills_the_login_page)
{
  TestWindow test (GetParam ().config);
  EXPECT_EQ (get_text (test.window->login_page, "bare_jid_entry"), GetParam ().bare_jid);
  EXPECT_EQ (get_text (test.window->login_page, "password_entry"), GetParam ().password);
  EXPECT_EQ (is_sensitive (test.window->login_page, "login_button"),
             *GetParam ().bare_jid && *GetParam ().password);
}

INSTANTIATE_TEST_SUITE_P (
  app_window_new, AppWindowConfig,
  testing::Values (ConfigCase{NULL, "", ""},
                   ConfigCase{"bare_jid = " ALICE "\npassword = secret\n", ALICE, "secret"},
                   ConfigCase{"bare_jid=" ALICE "\n", ALICE, ""},
                   ConfigCase{"password = secret\n", "", ""}, ConfigCase{"\n", "", ""}));

TEST (app_window_new, keeps_what_the_configuration_file_says)
{
  TestWindow test ("password = secret\n");
  EXPECT_EQ (test.window->config.bare_jid.size, 0u);
  EXPECT_EQ (to_std_string (test.window->config.password), "secret");
}

// ---- Pages ----

TEST (app_window_goto_registration_page, shows_it_and_lets_enter_register)
{
  TestWindow test;
  app_window_goto_registration_page (test.window);
  pump ();
  EXPECT_EQ (get_page (test.window, "stack"), "registration_page");
  EXPECT_EQ (get_default (&test),
             registration_page_get_register_button (test.window->registration_page));
}

TEST (app_window_goto_login_page, without_an_account_leaves_the_entries)
{
  TestWindow test ("bare_jid = " ALICE "\npassword = secret\n");
  app_window_goto_registration_page (test.window);
  app_window_goto_login_page (test.window, NULL);
  pump ();
  EXPECT_EQ (get_page (test.window, "stack"), "login_page");
  EXPECT_EQ (get_text (test.window->login_page, "bare_jid_entry"), ALICE);
  EXPECT_EQ (get_text (test.window->login_page, "password_entry"), "secret");
  EXPECT_EQ (get_default (&test), login_page_get_login_button (test.window->login_page));
}

TEST (app_window_goto_login_page, with_an_account_asks_for_its_password)
{
  TestWindow test ("bare_jid = " ALICE "\npassword = secret\n");
  app_window_goto_registration_page (test.window);
  app_window_goto_login_page (test.window, BOB);
  pump ();
  EXPECT_EQ (get_page (test.window, "stack"), "login_page");
  EXPECT_EQ (get_text (test.window->login_page, "bare_jid_entry"), BOB);
  EXPECT_EQ (get_text (test.window->login_page, "password_entry"), "");
  EXPECT_EQ (gtk_window_get_focus (GTK_WINDOW (test.window)),
             find_widget (test.window->login_page, "password_entry"));
  EXPECT_EQ (get_default (&test), login_page_get_login_button (test.window->login_page));
}

TEST (app_window_goto_prev_main_page, ends_on_the_creation_page)
{
  TestWindow test;
  open_negotiation (&test);
  activate_row (test.window->procedures_list_box, 0);
  app_window_goto_prev_main_page (test.window);
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "procedure_creation_page");
}

TEST (app_window_goto_prev_main_page, returns_to_a_previous_page_once)
{
  TestWindow test;
  open_negotiation (&test);
  GtkWidget *page = GTK_WIDGET (test.window->contacts.contacts[0]->chat_page);
  test.window->prev_main_page = page;
  app_window_goto_prev_main_page (test.window);
  EXPECT_EQ (get_main_page (&test), page);
  EXPECT_FALSE (test.window->prev_main_page);
  app_window_goto_prev_main_page (test.window);
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "procedure_creation_page");
}

TEST (app_window_add_procedure_button_handle, shows_the_creation_page)
{
  TestWindow test;
  open_negotiation (&test);
  activate_row (test.window->contacts_list_box, 0);
  press (test.window, "add_procedure_button");
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "procedure_creation_page");
}

TEST (app_window_show_vcard_button_handle, asks_for_the_own_vcard)
{
  TestWindow test;
  open_account (&test);
  press (test.window, "show_vcard_button");
  EXPECT_EQ (test.window->get_own_vcard_id, 1u);
  EXPECT_EQ (test.window->get_vcard_id, 0u);
  EXPECT_EQ (take_sent (&test), "<iq type='get' id='1' from='" ALICE "/morvane' to='" ALICE
                                "'><vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'/></iq>");
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "procedure_creation_page");
}

// ---- The console pane ----

static void
toggle_console (TestWindow *test)
{
  press_key (test, GDK_KEY_grave, GDK_MOD1_MASK);
}

static bool
is_console_shown (TestWindow *test)
{
  return gtk_widget_get_visible (GTK_WIDGET (test->window->console));
}

TEST (handle_app_window_key_press, opens_the_console_where_it_was_closed)
{
  TestWindow test;
  toggle_console (&test);
  EXPECT_TRUE (is_console_shown (&test));
  gtk_paned_set_position (test.window->console_paned, 210);
  pump ();
  toggle_console (&test);
  EXPECT_FALSE (is_console_shown (&test));
  EXPECT_EQ (gtk_paned_get_position (test.window->console_paned), 0);
  toggle_console (&test);
  EXPECT_TRUE (is_console_shown (&test));
  EXPECT_EQ (gtk_paned_get_position (test.window->console_paned), 210);
}

// In a process of its own, for the position is the process's.
TEST (handle_app_window_key_press, first_shows_the_console_in_a_pane_of_no_height)
{
  EXPECT_EXIT (
    {
      TestWindow test;
      toggle_console (&test);
      bool is_as_told =
        is_console_shown (&test) && gtk_paned_get_position (test.window->console_paned) == 0;
      _exit (is_as_told ? 0 : 1);
    },
    testing::ExitedWithCode (0), "");
}

TEST (handle_app_window_key_press, has_one_position_for_all_windows)
{
  TestWindow test;
  TestWindow other;
  gtk_paned_set_position (test.window->console_paned, 170);
  toggle_console (&test);
  toggle_console (&other);
  EXPECT_EQ (gtk_paned_get_position (other.window->console_paned), 170);
}

struct KeyCase {
  GdkEventType type;
  guint keyval;
  guint state;
  gboolean is_handled;
};

class AppWindowKeys : public testing::TestWithParam<KeyCase> {};

TEST_P (AppWindowKeys, toggle_the_console_or_are_left_to_others)
{
  TestWindow test;
  GdkEvent *event = gdk_event_new (GetParam ().type);
  event->key.window = GDK_WINDOW (g_object_ref (gtk_widget_get_window (GTK_WIDGET (test.window))));
  event->key.keyval = GetParam ().keyval;
  event->key.state = GetParam ().state;
  GdkSeat *seat = gdk_display_get_default_seat (gdk_display_get_default ());
  gdk_event_set_device (event, gdk_seat_get_keyboard (seat));
  bool was_shown = is_console_shown (&test);
  gboolean is_handled = FALSE;
  g_signal_emit_by_name (test.window, "key-press-event", event, &is_handled);
  EXPECT_EQ (is_handled, GetParam ().is_handled);
  EXPECT_EQ (is_console_shown (&test), GetParam ().is_handled ? !was_shown : was_shown);
  gdk_event_free (event);
}

INSTANTIATE_TEST_SUITE_P (
  handle_app_window_key_press, AppWindowKeys,
  testing::Values (KeyCase{GDK_KEY_PRESS, 0x60, GDK_MOD1_MASK, TRUE},
                   KeyCase{GDK_KEY_PRESS, GDK_KEY_grave, GDK_MOD1_MASK | GDK_SHIFT_MASK, TRUE},
                   KeyCase{GDK_KEY_PRESS, GDK_KEY_F7, GDK_MOD1_MASK, FALSE},
                   KeyCase{GDK_KEY_PRESS, GDK_KEY_F7, 0, FALSE},
                   KeyCase{GDK_KEY_PRESS, GDK_KEY_dead_grave, GDK_MOD1_MASK, FALSE},
                   KeyCase{GDK_KEY_RELEASE, GDK_KEY_grave, GDK_MOD1_MASK, FALSE}));

TEST (handle_app_window_key_press, leaves_a_plain_grave_accent_to_the_text)
{
  TestWindow test;
  focus (&test, find_widget (test.window->login_page, "bare_jid_entry"));
  press_key (&test, GDK_KEY_grave);
  EXPECT_EQ (get_text (test.window->login_page, "bare_jid_entry"), "`");
  EXPECT_FALSE (is_console_shown (&test));
}

// ---- Loading an account ----

TEST (app_window_load_account, keeps_a_window_that_is_closed_meanwhile_until_it_is_done)
{
  TestWindow test;
  test.window->loading = true;
  gtk_window_close (GTK_WINDOW (test.window));
  pump ();
  EXPECT_TRUE (app_window_is_open (test.window));
  EXPECT_TRUE (test.window->closing);
  log_in (&test);
  EXPECT_FALSE (test.window->loading);
  EXPECT_FALSE (app_window_is_open (test.window));
}

TEST (app_window_load_account, makes_the_account_that_is_not_there)
{
  TestWindow test;
  run (&test, "INSERT INTO accounts VALUES (7, '" BOB "');");
  log_in (&test);
  EXPECT_EQ (query (&test, "SELECT * FROM accounts"), "7|" BOB "\n8|" ALICE "\n");
  EXPECT_EQ (test.window->account_db_id, 8u);
  EXPECT_EQ (test.window->contacts.count, 0u);
  EXPECT_EQ (test.window->procedures.count, 0u);
  EXPECT_EQ (get_page (test.window, "stack"), "main_page");
}

TEST (app_window_load_account, finds_the_account_that_is_there)
{
  TestWindow test;
  run (&test, "INSERT INTO accounts VALUES (7, '" ALICE "');");
  log_in (&test);
  EXPECT_EQ (test.window->account_db_id, 7u);
  EXPECT_EQ (count (&test, "accounts"), "1\n");
}

TEST (app_window_load_account, fills_both_lists_with_the_newest_procedure_on_top)
{
  TestWindow test;
  open_negotiation (&test);
  EXPECT_EQ (list_procedures (&test), "Garden|" CAROL "\nRent|" BOB "\n");
  EXPECT_EQ (list_contacts (&test), BOB "|unavailable\n" CAROL "|unavailable\n");
  EXPECT_EQ (get_page (test.window, "stack"), "main_page");
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "procedure_creation_page");
}

TEST (app_window_load_account, passes_over_what_is_another_accounts)
{
  TestWindow test;
  open_account (&test, "INSERT INTO accounts VALUES (2, '" BOB "');"
                       "INSERT INTO contacts VALUES (1, 2, '" ALICE "');"
                       "INSERT INTO procedures (account_db_id, time, initiator, contractor, title)"
                       " VALUES (2, 1, '" BOB "', '" ALICE "', 'Not here');");
  EXPECT_EQ (list_procedures (&test), "");
  EXPECT_EQ (list_contacts (&test), "");
}

TEST (app_window_load_account, links_every_record_to_its_widgets)
{
  TestWindow test;
  open_negotiation (&test);
  for (u32 i = 0; i < 2; i++) {
    Contact *contact = test.window->contacts.contacts[i];
    Procedure *procedure = test.window->procedures.procedures[i];
    EXPECT_EQ (contact_list_item_get_contact (contact->list_item), contact);
    GtkWidget *stack = GTK_WIDGET (test.window->main_page_stack);
    EXPECT_EQ (gtk_widget_get_parent (GTK_WIDGET (contact->chat_page)), stack);
    EXPECT_EQ (gtk_widget_get_parent (GTK_WIDGET (procedure->view)), stack);
    EXPECT_EQ (gtk_widget_get_parent (GTK_WIDGET (procedure->list_item)),
               GTK_WIDGET (test.window->procedures_list_box));
    EXPECT_TRUE (gtk_widget_get_visible (GTK_WIDGET (contact->chat_page)));
    EXPECT_TRUE (gtk_widget_get_visible (GTK_WIDGET (procedure->view)));
  }
}

TEST (app_window_load_account, without_an_account_row_stops_the_program)
{
  TestWindow test;
  run (&test, "CREATE TRIGGER refuse BEFORE INSERT ON accounts BEGIN SELECT RAISE (IGNORE); END;");
  sqlite3_set_last_insert_rowid (test.db, 0);
  test.window->account =
    alloc_xmpp_account (to_string (ALICE), to_string ("secret"), to_string ("morvane"));
  EXPECT_DEATH (app_window_load_account (test.window),
                "src/app_window\\.cpp.*Assertion `self->account_db_id'");
}

TEST (app_window_procedures_list_box_row_activated_handle, shows_the_procedure)
{
  TestWindow test;
  open_negotiation (&test);
  activate_row (test.window->procedures_list_box, 1);
  EXPECT_EQ (get_main_page (&test), GTK_WIDGET (test.window->procedures.procedures[0]->view));
  activate_row (test.window->procedures_list_box, 0);
  EXPECT_EQ (get_main_page (&test), GTK_WIDGET (test.window->procedures.procedures[1]->view));
}

TEST (app_window_contacts_list_box_row_activated_handle, shows_the_chat)
{
  TestWindow test;
  open_negotiation (&test);
  activate_row (test.window->contacts_list_box, 1);
  EXPECT_EQ (get_main_page (&test), GTK_WIDGET (test.window->contacts.contacts[1]->chat_page));
  activate_row (test.window->contacts_list_box, 0);
  EXPECT_EQ (get_main_page (&test), GTK_WIDGET (test.window->contacts.contacts[0]->chat_page));
}

// ---- Contacts ----

TEST (app_window_create_new_contact, stores_lists_and_links_it)
{
  TestWindow test;
  open_negotiation (&test);
  app_window_create_new_contact (test.window, to_string ("dave@beta.test"),
                                 to_string ("available"));
  ASSERT_EQ (test.window->contacts.count, 3u);
  Contact *contact = test.window->contacts.contacts[2];
  EXPECT_EQ (query (&test, "SELECT * FROM contacts WHERE db_id > 2"), "3|1|dave@beta.test\n");
  EXPECT_EQ (contact->db_id, 3u);
  EXPECT_EQ (contact->account_db_id, 1u);
  EXPECT_EQ (list_contacts (&test),
             BOB "|unavailable\n" CAROL "|unavailable\ndave@beta.test|available\n");
  activate_row (test.window->contacts_list_box, 2);
  EXPECT_EQ (get_main_page (&test), GTK_WIDGET (contact->chat_page));
}

TEST (app_window_set_contact_status, replaces_the_status_and_shows_it)
{
  TestWindow test;
  open_negotiation (&test);
  Contact *contact = test.window->contacts.contacts[0];
  app_window_set_contact_status (test.window, contact, to_string ("available"));
  EXPECT_EQ (to_std_string (contact->status), "available");
  EXPECT_EQ (get_icon (contact->list_item, "icon_image"), "user-available-symbolic");
  app_window_set_contact_status (test.window, contact, to_string ("unavailable"));
  EXPECT_EQ (list_contacts (&test), BOB "|unavailable\n" CAROL "|unavailable\n");
  EXPECT_EQ (get_icon (contact->list_item, "icon_image"), "user-offline-symbolic");
}

TEST (app_window_set_contact_status, of_a_contact_without_one_stops_the_program)
{
  TestWindow test;
  open_negotiation (&test);
  Contact contact = {};
  EXPECT_DEATH (app_window_set_contact_status (test.window, &contact, to_string ("available")),
                "src/app_window\\.cpp.*Assertion `contact->status.data'");
}

TEST (app_window_add_contact_message, stores_and_shows_it_under_the_contacts_name)
{
  TestWindow test;
  open_negotiation (&test);
  Contact *contact = test.window->contacts.contacts[0];
  s64 before = get_posix_time ();
  app_window_add_contact_message (test.window, contact, to_string ("it's me"));
  ASSERT_EQ (contact->messages_count, 1u);
  ContactMessage *message = contact->messages[0];
  EXPECT_GE (message->time, before);
  EXPECT_LE (message->time, get_posix_time ());
  EXPECT_EQ (query (&test, "SELECT * FROM contact_messages"),
             "1|1|" + std::to_string (message->time) + "|" BOB "|it's me\n");
  EXPECT_EQ (get_text (contact->chat_page, "chat_text_view"), BOB ": it's me");
}

// ---- Procedures ----

TEST (app_window_create_new_procedure, stores_shows_selects_and_sends_it)
{
  TestWindow test;
  open_negotiation (&test);
  s64 before = get_posix_time ();
  app_window_create_new_procedure (test.window, to_string ("New <deal>"), to_string (BOB));
  ASSERT_EQ (test.window->procedures.count, 3u);
  Procedure *procedure = test.window->procedures.procedures[2];
  EXPECT_GE (procedure->time, before);
  EXPECT_LE (procedure->time, get_posix_time ());
  std::string time = std::to_string (procedure->time);
  EXPECT_EQ (query (&test, "SELECT db_id, account_db_id, time, initiator, contractor, title, "
                           "finished_time FROM procedures WHERE db_id > 2"),
             "3|1|" + time + "|" ALICE "|" BOB "|New <deal>|\n");
  EXPECT_EQ (list_procedures (&test), "*New <deal>|" BOB "\nGarden|" CAROL "\nRent|" BOB "\n");
  EXPECT_EQ (get_main_page (&test), GTK_WIDGET (procedure->view));
  EXPECT_EQ (take_sent (&test), "<message type='chat' id='1' from='" ALICE "/morvane' to='" BOB
                                "'><body><x-procedure procedure='" ALICE ":" +
                                  time + "'>New &lt;deal&gt;</x-procedure></body></message>");
}

TEST (app_window_create_new_procedure, never_gives_two_of_them_one_second)
{
  TestWindow test;
  run (&test, ACCOUNT);
  s64 now = get_posix_time ();
  for (int i = 0; i < 30; i++) {
    run (&test, "INSERT INTO procedures (account_db_id, time, initiator, contractor, title) "
                "VALUES (1, " +
                  std::to_string (now + i) + ", '" ALICE "', '" BOB "', 'taken');");
  }
  log_in (&test);
  app_window_create_new_procedure (test.window, to_string ("one"), to_string (BOB));
  app_window_create_new_procedure (test.window, to_string ("two"), to_string (BOB));
  EXPECT_EQ (test.window->procedures.procedures[30]->time, now + 30);
  EXPECT_EQ (test.window->procedures.procedures[31]->time, now + 31);
}

static const char *const PROCEDURE_TABLES[] = {"procedures", "clauses", "clause_messages",
                                               "clause_revisions", "clause_revision_decisions"};

TEST (app_window_remove_procedure, leaves_nothing_of_it)
{
  TestWindow test;
  open_account (&test, std::string ("INSERT INTO procedures (db_id, account_db_id, time, initiator,"
                                    " contractor, title) VALUES (1, 1, 1000, '" ALICE "', '" BOB
                                    "', 'Rent');") +
                         CLAUSES);
  Procedure *procedure = test.window->procedures.procedures[0];
  gpointer view = procedure->view;
  gpointer row = procedure->list_item;
  g_object_add_weak_pointer (G_OBJECT (view), &view);
  g_object_add_weak_pointer (G_OBJECT (row), &row);
  app_window_remove_procedure (test.window, procedure);
  pump ();
  EXPECT_FALSE (gtk_widget_get_visible (GTK_WIDGET (view)));
  EXPECT_FALSE (gtk_widget_get_visible (GTK_WIDGET (row)));
  // When it cannot be undone any more.
  deletion_end (test.window);
  EXPECT_FALSE (view);
  EXPECT_FALSE (row);
  EXPECT_EQ (test.window->procedures.count, 0u);
  EXPECT_EQ (list_procedures (&test), "");
  for (const char *table : PROCEDURE_TABLES) {
    EXPECT_EQ (count (&test, table), "0\n") << table;
  }
  EXPECT_EQ (take_sent (&test), "");
}

TEST (app_window_remove_procedure, leaves_the_others_alone)
{
  TestWindow test;
  open_negotiation (&test);
  Procedure *rent = test.window->procedures.procedures[0];
  activate_row (test.window->procedures_list_box, 1);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[1]);
  EXPECT_EQ (list_procedures (&test), "*Rent|" BOB "\n");
  ASSERT_EQ (test.window->procedures.count, 1u);
  EXPECT_EQ (test.window->procedures.procedures[0], rent);
  EXPECT_EQ (get_main_page (&test), GTK_WIDGET (rent->view));
  for (const char *table : PROCEDURE_TABLES) {
    EXPECT_NE (count (&test, table), "0\n") << table;
  }
}

TEST (app_window_remove_procedure, while_it_is_shown_leads_to_the_creation_page)
{
  TestWindow test;
  open_negotiation (&test);
  activate_row (test.window->procedures_list_box, 1);
  press (test.window->procedures.procedures[0]->view, "delete_button");
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "procedure_creation_page");
  EXPECT_EQ (list_procedures (&test), "Garden|" CAROL "\n");
}

TEST (app_window_remove_procedure, forgets_what_is_being_typed_in_it)
{
  TestWindow test;
  open_negotiation (&test);
  activate_row (test.window->procedures_list_box, 1);
  focus (&test, find_widget (get_clause (&test)->view, "text_view"));
  type (get_clause (&test)->view, "text_view", "half a thought");
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  pump ();
  EXPECT_EQ (count (&test, "clauses"), "0\n");
  EXPECT_EQ (count (&test, "clause_revisions"), "0\n");
}

// Elsewhere in the tests pages change at once; for the user they slide.
TEST (app_window_remove_procedure, may_come_while_the_page_slides_in)
{
  TestWindow test;
  open_negotiation (&test);
  g_object_set (gtk_settings_get_default (), "gtk-enable-animations", TRUE, NULL);
  activate_row (test.window->procedures_list_box, 1);
  EXPECT_TRUE (gtk_stack_get_transition_running (test.window->main_page_stack));
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  pump ();
  activate_row (test.window->procedures_list_box, 0);
  g_object_set (gtk_settings_get_default (), "gtk-enable-animations", FALSE, NULL);
  EXPECT_EQ (list_procedures (&test), "*Garden|" CAROL "\n");
  EXPECT_EQ (get_main_page (&test), GTK_WIDGET (test.window->procedures.procedures[0]->view));
}

TEST (app_window_remove_procedure, closes_an_open_list_of_revisions)
{
  TestWindow test;
  open_negotiation (&test);
  open_revisions (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  pump ();
  EXPECT_EQ (list_procedures (&test), "Garden|" CAROL "\n");
}

// ---- Undoing a deletion ----

static bool
is_undo_offered (TestWindow *test)
{
  return gtk_widget_get_visible (test->window->undo_bar);
}

TEST (app_window_remove_procedure, names_it_beside_the_undo)
{
  TestWindow test;
  open_account (&test, "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor,"
                       " title) VALUES (1, 1, 1000, '" ALICE "', '" BOB "', 'Oak \u202eplanks');");
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  EXPECT_STREQ (gtk_label_get_text (test.window->undo_label),
                "\u201c\u2068Oak \u202eplanks\u2069\u201d deleted.");
}

TEST (app_window_remove_procedure, can_be_undone_at_its_old_place)
{
  TestWindow test;
  open_negotiation (&test);
  std::string rows = list_procedures (&test);
  EXPECT_FALSE (is_undo_offered (&test));
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  EXPECT_EQ (list_procedures (&test), "Garden|" CAROL "\n");
  EXPECT_TRUE (is_undo_offered (&test));
  press (test.window, "undo_button");
  pump ();
  EXPECT_FALSE (is_undo_offered (&test));
  EXPECT_EQ (list_procedures (&test), "Garden|" CAROL "\n*Rent|" BOB "\n");
  EXPECT_EQ (get_main_page (&test), GTK_WIDGET (test.window->procedures.procedures[0]->view));
  EXPECT_EQ (take_sent (&test), "");
}

TEST (app_window_remove_procedure, keeps_what_is_typed_for_an_undo)
{
  TestWindow test;
  open_negotiation (&test);
  type (get_clause (&test)->view, "text_view", "half a thought");
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  press (test.window, "undo_button");
  ASSERT_TRUE (get_clause (&test)->draft);
  EXPECT_EQ (to_std_string (get_clause (&test)->draft->text), "half a thought");
}

TEST (app_window_remove_procedure, holds_what_comes_for_it_until_an_undo)
{
  TestWindow test;
  open_negotiation (&test);
  s64 time = get_clause (&test)->revisions[0]->time;
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  begin_capture ();
  XMPPClauseRevision *message = alloc_record<XMPPClauseRevision> (test.window);
  message->text = alloc_string ("while deleted");
  message->procedure_initiator = alloc_string (RENT.author);
  message->procedure_time = RENT.time;
  message->clause_initiator = alloc_string (CLAUSE.author);
  message->clause_time = CLAUSE.time;
  message->revision_author = alloc_string (BOB);
  message->revision_time = time + 1;
  app_window_get_xmpp_clause_revision (message);
  EXPECT_EQ (end_capture (),
             "Warning: A clause revision came, but we don't have the procedure to attach it to.\n");
  EXPECT_EQ (query (&test, "SELECT count(*) FROM clause_revisions WHERE text = 'while deleted'"),
             "0\n");
  press (test.window, "undo_button");
  EXPECT_EQ (query (&test, "SELECT count(*) FROM clause_revisions WHERE text = 'while deleted'"),
             "1\n");
  EXPECT_EQ (get_text (get_clause (&test)->view, "text_view"), "while deleted");
}

TEST (app_window_remove_procedure, cannot_be_undone_after_the_next_one)
{
  TestWindow test;
  open_negotiation (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  press (test.window, "undo_button");
  EXPECT_EQ (list_procedures (&test), "*Garden|" CAROL "\n");
  EXPECT_FALSE (is_undo_offered (&test));
}

TEST (clause_view_cancel_button_handle, can_be_undone_for_a_new_clause)
{
  TestWindow test;
  open_negotiation (&test);
  Procedure *procedure = test.window->procedures.procedures[0];
  press (procedure->view, "add_clause_button");
  Clause *clause = procedure->clauses[procedure->clauses_count - 1];
  u32 clauses_count = procedure->clauses_count;
  type (clause->view, "text_view", "a new clause");
  press (clause->view, "cancel_button");
  EXPECT_EQ (procedure->clauses_count, clauses_count - 1);
  press (test.window, "undo_button");
  ASSERT_EQ (procedure->clauses_count, clauses_count);
  EXPECT_EQ (procedure->clauses[clauses_count - 1], clause);
  EXPECT_EQ (get_text (clause->view, "text_view"), "a new clause");
  EXPECT_TRUE (is_sensitive (clause->view, "commit_button"));
}

// ---- Request ids ----

TEST (generate_xmpp_id, counts_from_one_in_each_window)
{
  TestWindow test;
  TestWindow other;
  for (u64 id = 1; id <= 3; id++) {
    EXPECT_EQ (generate_xmpp_id (test.window), id);
  }
  EXPECT_EQ (generate_xmpp_id (other.window), 1u);
}

// ---- Workers ----

// What a worker of these tests waits for, and what it has seen.
static std::atomic<bool> worker_may_leave;
static std::atomic<bool> worker_was_interrupted;

static void *
run_obedient_worker (void *data)
{
  AppWindow *window = (AppWindow *) data;
  while (!worker_may_leave && !worker_is_current_interrupted ()) {
    sched_yield ();
  }
  worker_was_interrupted = worker_is_current_interrupted ();
  worker_leave (worker_get_current ());
  hand_over (app_window_release_worker, window);
  return NULL;
}

static void *
run_stubborn_worker (void *data)
{
  AppWindow *window = (AppWindow *) data;
  while (!worker_may_leave) {
    sched_yield ();
  }
  worker_leave (worker_get_current ());
  hand_over (app_window_release_worker, window);
  return NULL;
}

static void
start_worker (TestWindow *test, void *(*entry) (void *) )
{
  worker_may_leave = false;
  worker_was_interrupted = false;
  if (!test->window->account.data) {
    test->window->account =
      alloc_xmpp_account (to_string (ALICE), to_string ("secret"), to_string ("morvane"));
  }
  app_window_start_worker (test->window, entry);
}

static void
end_worker (TestWindow *test)
{
  worker_may_leave = true;
  EXPECT_TRUE (
    pump_until ([] (void *data) { return !app_window_is_worker_running ((AppWindow *) data); },
                test->window));
}

TEST (app_window_start_worker, keeps_the_window_until_its_outcome_was_handled)
{
  TestWindow test;
  guint references = G_OBJECT (test.window)->ref_count;
  start_worker (&test, run_obedient_worker);
  EXPECT_TRUE (app_window_is_worker_running (test.window));
  EXPECT_EQ (G_OBJECT (test.window)->ref_count, references + 1);
  end_worker (&test);
  EXPECT_EQ (G_OBJECT (test.window)->ref_count, references);
  EXPECT_FALSE (worker_was_interrupted);
}

TEST (app_window_start_worker, works_again_after_the_first_has_left)
{
  TestWindow test;
  start_worker (&test, run_obedient_worker);
  app_window_interrupt_worker (test.window);
  end_worker (&test);
  start_worker (&test, run_obedient_worker);
  EXPECT_FALSE (worker_is_interrupted (test.window->worker));
  end_worker (&test);
}

TEST (app_window_start_worker, while_one_runs_stops_the_program)
{
  TestWindow test;
  EXPECT_DEATH (
    {
      start_worker (&test, run_obedient_worker);
      start_worker (&test, run_obedient_worker);
    },
    "src/app_window\\.cpp.*Assertion `!self->worker_active'");
}

TEST (app_window_interrupt_worker, tells_the_worker)
{
  TestWindow test;
  start_worker (&test, run_obedient_worker);
  EXPECT_FALSE (worker_is_interrupted (test.window->worker));
  app_window_interrupt_worker (test.window);
  EXPECT_TRUE (
    pump_until ([] (void *data) { return !app_window_is_worker_running ((AppWindow *) data); },
                test.window));
  EXPECT_TRUE (worker_was_interrupted);
}

TEST (app_window_interrupt_worker, without_a_worker_does_nothing)
{
  TestWindow test;
  app_window_interrupt_worker (test.window);
  EXPECT_EQ (test.window->worker, nullptr);
}

TEST (app_window_destroy, lets_the_worker_leave_first)
{
  TestWindow test;
  start_worker (&test, run_obedient_worker);
  close_window (&test);
  EXPECT_TRUE (worker_was_interrupted);
  EXPECT_FALSE (test.window->account.data);
  end_worker (&test);
}

TEST (app_window_destroy, does_not_wait_for_ever)
{
  TestWindow test;
  start_worker (&test, run_stubborn_worker);
  close_window (&test);
  EXPECT_EQ (app_window_count_stray_workers (), 1u);
  // What the worker may still be using is there.
  EXPECT_TRUE (test.window->account.data);
  end_worker (&test);
  EXPECT_EQ (app_window_count_stray_workers (), 0u);
  EXPECT_FALSE (test.window->account.data);
}

TEST (app_window_destroy, ends_the_stream_and_releases_the_session)
{
  TestWindow test;
  open_negotiation (&test);
  start_worker (&test, run_obedient_worker);
  begin_capture ();
  close_window (&test);
  EXPECT_TRUE (has (end_capture (), "request: \"</stream:stream>\" (String)\n"));
  EXPECT_FALSE (app_window_is_open (test.window));
  EXPECT_FALSE (test.window->account.data);
  EXPECT_FALSE (test.window->connection.opened_socket);
  EXPECT_FALSE (test.window->connection.opened_tls_session);
  end_worker (&test);
}

TEST (app_window_destroy, says_nothing_to_a_server_that_has_ended_the_session)
{
  TestWindow test;
  open_negotiation (&test);
  begin_capture ();
  close_window (&test);
  EXPECT_FALSE (has (end_capture (), "</stream:stream>"));
  EXPECT_FALSE (test.window->account.data);
  EXPECT_FALSE (test.window->connection.opened_socket);
  EXPECT_FALSE (test.window->connection.opened_tls_session);
}

TEST (app_window_destroy, ends_a_session_whose_worker_receives)
{
  TestWindow test;
  open_negotiation (&test);
  start_worker (&test, run_obedient_worker);
  type (get_clause (&test)->view, "text_view", "last words");
  close_window (&test);
  EXPECT_TRUE (worker_was_interrupted);
  EXPECT_EQ (app_window_count_stray_workers (), 0u);
  EXPECT_FALSE (test.window->connection.opened_tls_session);
  EXPECT_EQ (query (&test, "SELECT text FROM clause_revisions WHERE status = 'DRAFT'"),
             "last words\n");
  end_worker (&test);
}

// Closes the window of a session whose worker goes on, and keeps it from ending by itself.
static void
begin_closing (TestWindow *test)
{
  gtk_window_close (GTK_WINDOW (test->window));
  EXPECT_TRUE (
    pump_until ([] (void *data) { return ((AppWindow *) data)->closing; }, test->window));
  g_source_remove (test->window->closing_source);
  test->window->closing_source = 0;
}

static void
end_closing (TestWindow *test)
{
  worker_may_leave = true;
  EXPECT_TRUE (pump_until ([] (void *data) { return !app_window_is_open ((AppWindow *) data); },
                           test->window));
  EXPECT_EQ (app_window_count_stray_workers (), 0u);
}

TEST (app_window_close, stores_what_still_comes)
{
  TestWindow test;
  open_negotiation (&test);
  start_worker (&test, run_stubborn_worker);
  type (get_clause (&test)->view, "text_view", "last words");
  begin_capture ();
  begin_closing (&test);
  EXPECT_TRUE (has (end_capture (), "request: \"</stream:stream>\" (String)\n"));
  EXPECT_FALSE (gtk_widget_get_visible (GTK_WIDGET (test.window)));
  EXPECT_TRUE (app_window_is_open (test.window));

  deliver_message (test.window, BOB, "a chat line");
  deliver_presence (test.window, app_window_get_xmpp_presence_available_signal, "eve@beta.test");
  deliver_presence (test.window, app_window_get_xmpp_presence_unavailable_signal, BOB);
  deliver_procedure (test.window, {BOB, 1700}, "Roof");
  deliver_clause (test.window, {BOB, 1700}, {BOB, 1800});
  deliver_revision (test.window, {BOB, 1700}, {BOB, 1800}, {BOB, 1900}, "roof text");
  deliver_revision (test.window, RENT, CLAUSE, {BOB, 4242}, "their text");
  deliver_clause_message (test.window, RENT, CLAUSE, {"bob", 4243}, "clause line");
  deliver_decision (test.window, RENT, CLAUSE, FIRST, {BOB, 4244}, DECISION_AGREE);
  EXPECT_EQ (query (&test, "SELECT body FROM contact_messages"), "a chat line\n");
  EXPECT_EQ (query (&test, "SELECT bare_jid FROM contacts WHERE bare_jid LIKE 'eve%'"),
             "eve@beta.test\n");
  EXPECT_EQ (query (&test, "SELECT title FROM procedures WHERE time = 1700"), "Roof\n");
  EXPECT_EQ (query (&test, "SELECT text FROM clause_revisions ORDER BY db_id"),
             "first text\nlast words\nroof text\ntheir text\n");
  EXPECT_EQ (query (&test, "SELECT text FROM clause_messages WHERE time = 4243"), "clause line\n");
  EXPECT_EQ (query (&test, "SELECT status FROM clause_revision_decisions WHERE author = '" BOB "'"),
             "AGREE\n");
  end_closing (&test);
}

// The server is waited for, then the worker, and then no one.
TEST (app_window_close, does_not_wait_forever_for_a_worker_that_stays)
{
  TestWindow test;
  open_negotiation (&test);
  start_worker (&test, run_stubborn_worker);
  gtk_window_close (GTK_WINDOW (test.window));
  EXPECT_TRUE (
    pump_until ([] (void *data) { return !app_window_is_open ((AppWindow *) data); }, test.window));
  EXPECT_EQ (app_window_count_stray_workers (), 1u);
  worker_may_leave = true;
  EXPECT_TRUE (pump_until ([] (void *) { return app_window_count_stray_workers () == 0; }, NULL));
}

TEST (app_window_close, says_nothing_after_its_farewell)
{
  TestWindow test;
  open_negotiation (&test);
  start_worker (&test, run_stubborn_worker);
  begin_closing (&test);
  begin_capture ();
  deliver_presence (test.window, app_window_get_xmpp_presence_subscribe_signal, "eve@beta.test");
  EXPECT_EQ (end_capture (), "Received <presence type='subscribe' from='eve@beta.test'>\n");
  end_closing (&test);
}

TEST (app_window_close, says_no_farewell_to_a_server_that_takes_no_more)
{
  TestWindow test;
  open_negotiation (&test);
  start_worker (&test, run_stubborn_worker);
  // A full socket in the place of the session's own; what is said all the same still arrives.
  int pair[2];
  ASSERT_EQ (socketpair (AF_UNIX, SOCK_STREAM, 0, pair), 0);
  std::string block (4096, 'x');
  while (send (pair[0], block.data (), block.size (), MSG_DONTWAIT) > 0) {
  }
  SocketDescriptor own = test.window->connection.socket;
  test.window->connection.socket = pair[0];
  begin_capture ();
  begin_closing (&test);
  EXPECT_FALSE (has (end_capture (), "</stream:stream>"));
  test.window->connection.socket = own;
  EXPECT_EQ (take_sent (&test), "");
  end_closing (&test);
  close (pair[0]);
  close (pair[1]);
}

TEST (app_window_close, asked_for_again_changes_nothing)
{
  TestWindow test;
  open_negotiation (&test);
  start_worker (&test, run_stubborn_worker);
  begin_closing (&test);
  begin_capture ();
  gtk_window_close (GTK_WINDOW (test.window));
  pump ();
  EXPECT_EQ (end_capture (), "");
  EXPECT_TRUE (app_window_is_open (test.window));
  end_closing (&test);
}

static std::string
make_large_account ()
{
  std::string sql;
  for (int i = 1; i <= 300; i++) {
    std::string id = std::to_string (i);
    sql +=
      "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title) VALUES (" +
      id + ", 1, " + std::to_string (1000 + i) + ", '" BOB "', '" ALICE "', 'Title');" +
      "INSERT INTO clauses VALUES (" + id + ", " + id + ", 2000, '" BOB "', 1);";
  }
  return sql;
}

static gboolean
close_while_loading (gpointer window)
{
  bool is_loading = ((AppWindow *) window)->loading;
  if (is_loading)
    gtk_window_close (GTK_WINDOW (window));
  return is_loading ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

// The model is whole, the views are not.
static void
expect_half_loaded_and_storing (TestWindow *test)
{
  EXPECT_TRUE (test->window->closing);
  EXPECT_EQ (test->window->procedures.count, 300u);
  Procedure *last = test->window->procedures.procedures[299];
  EXPECT_EQ (last->view, nullptr);
  deliver_clause (test->window, {BOB, last->time}, {BOB, 3000});
  deliver_revision (test->window, {BOB, last->time}, {BOB, 2000}, {BOB, 3001}, "text");
  EXPECT_EQ (query (test, "SELECT text FROM clause_revisions"), "text\n");
  EXPECT_EQ (count (test, "clauses"), "301\n");
}

TEST (app_window_close, gives_the_loading_of_views_up_and_stores_what_comes)
{
  TestWindow test;
  start_worker (&test, run_stubborn_worker);
  g_timeout_add (0, close_while_loading, test.window);
  open_account (&test, make_large_account ());
  expect_half_loaded_and_storing (&test);
  end_closing (&test);
}

TEST (app_window_close, lays_out_no_views_when_it_was_asked_for_ahead_of_the_loading)
{
  TestWindow test;
  start_worker (&test, run_stubborn_worker);
  begin_closing (&test);
  open_account (&test, make_large_account ());
  expect_half_loaded_and_storing (&test);
  end_closing (&test);
}

TEST (app_window_destroy, closes_an_open_list_of_revisions)
{
  TestWindow test;
  open_negotiation (&test);
  open_revisions (&test);
  close_window (&test);
  EXPECT_FALSE (app_window_is_open (test.window));
}

TEST (app_window_destroy, without_a_login_sends_nothing)
{
  TestWindow test;
  begin_capture ();
  close_window (&test);
  EXPECT_EQ (end_capture (), "");
}

// ---- Logging in again ----

static void
log_in_again (TestWindow *test)
{
  g_action_group_activate_action (G_ACTION_GROUP (test->window), "log-in-again", NULL);
}

static int
count_children (gpointer container)
{
  GList *children = gtk_container_get_children (GTK_CONTAINER (container));
  int children_count = (int) g_list_length (children);
  g_list_free (children);
  return children_count;
}

TEST (app_window_log_in_again, unloads_the_account)
{
  TestWindow test;
  int pages_count = count_children (test.window->main_page_stack);
  open_negotiation (&test);
  EXPECT_GT (count_children (test.window->main_page_stack), pages_count);
  test.window->get_vcard_id = 3;
  test.window->get_own_vcard_id = 4;
  test.window->prev_main_page = GTK_WIDGET (test.window->procedures.procedures[0]->view);
  log_in_again (&test);
  EXPECT_EQ (get_page (test.window, "stack"), "login_page");
  EXPECT_EQ (get_text (test.window->login_page, "bare_jid_entry"), ALICE);
  EXPECT_EQ (count_children (test.window->main_page_stack), pages_count);
  EXPECT_EQ (count_children (test.window->contacts_list_box), 0);
  EXPECT_EQ (count_children (test.window->procedures_list_box), 0);
  EXPECT_EQ (test.window->account_db_id, 0u);
  EXPECT_EQ (test.window->account.data, nullptr);
  EXPECT_EQ (test.window->get_vcard_id, 0u);
  EXPECT_EQ (test.window->get_own_vcard_id, 0u);
  EXPECT_EQ (test.window->prev_main_page, nullptr);
  EXPECT_EQ (test.window->procedures.count, 0u);
  pump ();
}

TEST (app_window_log_in_again, without_an_account_does_nothing)
{
  TestWindow test;
  type (test.window->login_page, "bare_jid_entry", BOB);
  log_in_again (&test);
  EXPECT_EQ (get_text (test.window->login_page, "bare_jid_entry"), BOB);
}

TEST (app_window_log_in_again, saves_unsaved_typing_first)
{
  TestWindow test;
  open_negotiation (&test);
  type (get_clause (&test)->view, "text_view", "last words");
  log_in_again (&test);
  EXPECT_EQ (query (&test, "SELECT text FROM clause_revisions WHERE status = 'DRAFT'"),
             "last words\n");
}

TEST (app_window_log_in_again, closes_an_open_list_of_revisions)
{
  TestWindow test;
  open_negotiation (&test);
  open_revisions (&test);
  log_in_again (&test);
  pump ();
  EXPECT_EQ (get_page (test.window, "stack"), "login_page");
}

TEST (app_window_load_account, unloads_it_where_its_session_is_over)
{
  TestWindow left;
  open_negotiation (&left);
  type (get_clause (&left)->view, "text_view", "left behind");
  app_window_lose_session (left.window);
  EXPECT_STREQ (gtk_window_get_title (GTK_WINDOW (left.window)),
                "Morvane (not connected: Ctrl+Shift+L logs in again)");
  TestWindow test;
  EXPECT_FALSE (app_window_is_account_open_elsewhere (test.window, to_string (ALICE)));
  log_in (&test);
  EXPECT_EQ (get_page (left.window, "stack"), "login_page");
  EXPECT_EQ (left.window->account_db_id, 0u);
  EXPECT_EQ (query (&left, "SELECT text FROM clause_revisions WHERE status = 'DRAFT'"),
             "left behind\n");
}

TEST (app_window_load_account, leaves_another_account_and_a_living_session_alone)
{
  TestWindow dead;
  log_in (&dead, BOB);
  app_window_lose_session (dead.window);
  TestWindow living;
  log_in (&living);
  TestWindow test;
  log_in (&test, "carol@alpha.test");
  EXPECT_NE (dead.window->account_db_id, 0u);
  EXPECT_NE (living.window->account_db_id, 0u);
}

TEST (app_window_is_account_open_elsewhere, sees_a_window_that_is_logging_in)
{
  TestWindow test;
  TestWindow other;
  start_worker (&test, run_obedient_worker);
  EXPECT_TRUE (app_window_is_account_open_elsewhere (other.window, to_string (ALICE)));
  EXPECT_FALSE (app_window_is_account_open_elsewhere (other.window, to_string (BOB)));
  EXPECT_FALSE (app_window_is_account_open_elsewhere (test.window, to_string (ALICE)));
  end_worker (&test);
  EXPECT_FALSE (app_window_is_account_open_elsewhere (other.window, to_string (ALICE)));
}

TEST (app_window_is_account_open_elsewhere, sees_a_window_that_is_logged_in_until_it_is_closed)
{
  TestWindow test;
  TestWindow other;
  log_in (&test);
  start_worker (&test, run_obedient_worker);
  EXPECT_TRUE (app_window_is_account_open_elsewhere (other.window, to_string (ALICE)));
  EXPECT_FALSE (app_window_is_account_open_elsewhere (other.window, to_string (BOB)));
  close_window (&test);
  EXPECT_FALSE (app_window_is_account_open_elsewhere (other.window, to_string (ALICE)));
  end_worker (&test);
}

TEST (app_window_is_account_open_elsewhere, does_not_see_a_session_that_is_over)
{
  TestWindow test;
  TestWindow other;
  log_in (&test);
  start_worker (&test, run_obedient_worker);
  end_worker (&test);
  EXPECT_NE (test.window->account_db_id, 0u);
  EXPECT_FALSE (app_window_is_account_open_elsewhere (other.window, to_string (ALICE)));
}

// The last reference on a closed window may be a record's.
TEST (app_window_finalize, comes_with_the_last_record)
{
  auto test = std::make_unique<TestWindow> ();
  open_negotiation (test.get ());
  XMPPPresenceSignal *signal = alloc_record<XMPPPresenceSignal> (test->window);
  signal->from = alloc_string (BOB);
  AppWindow *window = test->window;
  bool is_finalized = false;
  g_object_set_data_full (G_OBJECT (window), "witness", &is_finalized,
                          [] (gpointer data) { *(bool *) data = true; });
  test.reset ();
  EXPECT_FALSE (is_finalized);
  EXPECT_EQ (app_window_get_xmpp_presence_available_signal (signal), G_SOURCE_REMOVE);
  EXPECT_TRUE (is_finalized);
}
