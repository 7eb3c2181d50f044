// Sessions that end and begin again: the keys and actions of a real window, and what a window that
// unloads its account leaves of it. The store's rows are the judge of what was saved.
#include "session.h"

#include <string>

#include "account_lock.h"
#include "app_window.h"
#include "clause_view.h"
#include "fake_session.h"
#include "procedure_creation_page.h"
#include "procedure_view.h"

#define ALICE "alice@alpha.test"
#define BOB   "bob@beta.test"

static const char ROWS[] =
  "PRAGMA synchronous = OFF;"
  "INSERT INTO accounts VALUES (1, '" ALICE "');"
  "INSERT INTO contacts VALUES (1, 1, '" BOB "');"
  "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title)"
  " VALUES (1, 1, 1000, '" ALICE "', '" BOB "', 'Rent');"
  "INSERT INTO clauses VALUES (1, 1, 2000, '" ALICE "', 1);"
  "INSERT INTO clauses VALUES (2, 1, 2100, '" ALICE "', 2);"
  "INSERT INTO clause_revisions VALUES (1, 1, 3000, '" ALICE "', 'COMMITTED', 'one two');"
  "INSERT INTO clause_revisions VALUES (2, 1, 3100, '" BOB "', 'COMMITTED', 'one three');"
  "INSERT INTO clause_revisions VALUES (3, 2, 3200, '" ALICE "', 'COMMITTED', 'second clause');";

// ---- A window with an account ----

// Alice's window, on the page of her procedure with Bob.
struct Loaded {
  TestWindow test;
  AppWindow *window = test.window;
  Procedure *procedure;
  Clause *clause;

  Loaded ()
  {
    EXPECT_EQ (sqlite3_exec (test.db, ROWS, NULL, NULL, NULL), SQLITE_OK);
    log_in (&test);
    procedure = window->procedures.procedures[0];
    clause = procedure->clauses[0];
    gtk_widget_activate (GTK_WIDGET (procedure->list_item));
    pump ();
  }

  std::string drafts ()
  {
    return query (&test, "SELECT text FROM clause_revisions WHERE status = 'DRAFT' ORDER BY db_id");
  }

  GtkWidget *text_view ()
  {
    return find_widget (clause->view, "text_view");
  }
};

static bool
is_mapped (void *data)
{
  return gtk_widget_get_mapped (GTK_WIDGET (data));
}

static bool
is_login_page_shown (AppWindow *window)
{
  return get_page (window, "stack") == "login_page";
}

static void
focus (Loaded *loaded, GtkWidget *widget)
{
  EXPECT_TRUE (
    pump_until ([] (
                  void *data) { return (bool) gtk_window_has_toplevel_focus (GTK_WINDOW (data)); },
                loaded->window));
  gtk_widget_grab_focus (widget);
  pump ();
  EXPECT_TRUE (gtk_widget_has_focus (widget));
}

// What the user does when all is said, and what has to be true then. A warning fails the test, too.
static void
leave (Loaded *loaded)
{
  app_window_log_in_again (loaded->window);
  pump ();
  EXPECT_TRUE (is_login_page_shown (loaded->window));
  EXPECT_EQ (get_text (loaded->window->login_page, "bare_jid_entry"), ALICE);
  EXPECT_EQ (loaded->window->account_db_id, 0u);
  EXPECT_EQ (get_page (loaded->window, "main_page_stack"), "procedure_creation_page");
}

// ---- Actions ----

static void
add_actions (Loaded *loaded)
{
  app_add_session_actions (gtk_window_get_application (GTK_WINDOW (loaded->window)));
  // A window that is there already learns its keys when it is idle.
  pump ();
}

TEST (app_add_session_actions, gives_the_action_its_key)
{
  Loaded loaded;
  add_actions (&loaded);
  press_key (&loaded.test, GDK_KEY_L, (GdkModifierType) (GDK_CONTROL_MASK | GDK_SHIFT_MASK));
  EXPECT_TRUE (is_login_page_shown (loaded.window));
  EXPECT_EQ (loaded.window->account_db_id, 0u);
}

TEST (app_add_session_actions, gives_the_key_to_who_types)
{
  Loaded loaded;
  add_actions (&loaded);
  focus (&loaded, loaded.text_view ());
  type (loaded.clause->view, "text_view", "half a thought");
  press_key (&loaded.test, GDK_KEY_L, (GdkModifierType) (GDK_CONTROL_MASK | GDK_SHIFT_MASK));
  EXPECT_TRUE (is_login_page_shown (loaded.window));
  EXPECT_EQ (loaded.drafts (), "half a thought\n");
}

// As a notification names it.
static void
activate_for (Loaded *loaded, guint id)
{
  GtkApplication *application = gtk_window_get_application (GTK_WINDOW (loaded->window));
  g_action_group_activate_action (G_ACTION_GROUP (application), "log-in-again",
                                  g_variant_new_uint32 (id));
  pump ();
}

TEST (app_add_session_actions, leads_from_a_notification_to_its_window)
{
  Loaded other;
  Loaded loaded;
  add_actions (&loaded);
  activate_for (&loaded,
                gtk_application_window_get_id (GTK_APPLICATION_WINDOW (loaded.window)) + 1000);
  EXPECT_FALSE (is_login_page_shown (loaded.window));
  activate_for (&loaded, gtk_application_window_get_id (GTK_APPLICATION_WINDOW (loaded.window)));
  EXPECT_TRUE (is_login_page_shown (loaded.window));
  EXPECT_FALSE (is_login_page_shown (other.window));
}

// ---- Claims ----

TEST (app_window_claim_account, holds_the_account_until_it_is_unloaded)
{
  TestWindow test;
  EXPECT_TRUE (app_window_claim_account (test.window, to_string (ALICE)));
  log_in (&test);
  EXPECT_TRUE (is_account_locked (&test));
  app_window_lose_session (test.window);
  EXPECT_TRUE (is_account_locked (&test));
  app_window_log_in_again (test.window);
  EXPECT_EQ (test.window->account_db_id, 0u);
  EXPECT_FALSE (is_account_locked (&test));
}

TEST (app_window_claim_account, holds_the_account_until_the_window_is_gone)
{
  TestWindow test;
  EXPECT_TRUE (app_window_claim_account (test.window, to_string (ALICE)));
  log_in (&test);
  close_window (&test);
  EXPECT_FALSE (is_account_locked (&test));
}

TEST (app_window_claim_account, holds_one_account_at_a_time)
{
  TestWindow test;
  EXPECT_TRUE (app_window_claim_account (test.window, to_string (ALICE)));
  EXPECT_TRUE (app_window_claim_account (test.window, to_string (ALICE)));
  EXPECT_TRUE (app_window_claim_account (test.window, to_string (BOB)));
  app_window_release_account (test.window);
  EXPECT_FALSE (is_account_locked (&test));
}

// The other program's connection to the store is one of this program that the window doesn't know.
TEST (app_window_claim_account, is_refused_while_another_program_has_the_account)
{
  TestWindow test;
  sqlite3 *db = NULL;
  EXPECT_EQ (sqlite3_open (sqlite3_db_filename (test.db, "main"), &db), SQLITE_OK);
  AccountLock *lock = account_lock_take (db, to_string (ALICE));
  EXPECT_TRUE (lock);
  EXPECT_FALSE (app_window_claim_account (test.window, to_string (ALICE)));
  EXPECT_TRUE (app_window_claim_account (test.window, to_string (BOB)));
  account_lock_drop (lock);
  EXPECT_TRUE (app_window_claim_account (test.window, to_string (ALICE)));
  sqlite3_close (db);
}

// Whose session is over gives the account to another window of its process, and to no other process.
TEST (app_window_claim_account, goes_from_window_to_window)
{
  TestWindow left;
  EXPECT_TRUE (app_window_claim_account (left.window, to_string (ALICE)));
  log_in (&left);
  app_window_lose_session (left.window);
  {
    TestWindow test;
    sqlite3 *db = test.window->db;
    test.window->db = left.db;
    EXPECT_TRUE (app_window_claim_account (test.window, to_string (ALICE)));
    log_in (&test);
    EXPECT_EQ (left.window->account_db_id, 0u);
    EXPECT_TRUE (is_account_locked (&left));
    close_window (&test);
    EXPECT_FALSE (is_account_locked (&left));
    test.window->db = db;
  }
}

static bool
is_active (void *window)
{
  return gtk_window_is_active (GTK_WINDOW (window));
}

TEST (app_add_session_actions, bring_the_window_of_a_notification_to_the_front)
{
  Loaded loaded;
  Loaded other;
  add_actions (&loaded);
  gtk_window_present (GTK_WINDOW (other.window));
  ASSERT_TRUE (pump_until (is_active, other.window));
  activate_for (&loaded, gtk_application_window_get_id (GTK_APPLICATION_WINDOW (loaded.window)));
  EXPECT_TRUE (pump_until (is_active, loaded.window));
}

// ---- Unloading ----

TEST (app_window_log_in_again, while_a_comparison_is_shown)
{
  Loaded loaded;
  type (loaded.procedure->clauses[1]->view, "text_view", "half a thought");
  clause_view_show_diff (loaded.clause->view, loaded.clause->revisions[0],
                         loaded.clause->revisions[1]);
  focus (&loaded, loaded.text_view ());
  press_key (&loaded.test, GDK_KEY_F8);
  EXPECT_TRUE (gtk_widget_get_visible (find_widget (loaded.clause->view, "diff_overlay_tools")));
  leave (&loaded);
  EXPECT_EQ (loaded.drafts (), "half a thought\n");
}

TEST (app_window_log_in_again, while_the_revisions_are_open)
{
  Loaded loaded;
  type (loaded.clause->view, "text_view", "half a thought");
  GtkWidget *button = find_widget (loaded.clause->view, "revision_select_menu_button");
  EXPECT_TRUE (pump_until (is_mapped, button));
  gtk_toggle_button_set_active (GTK_TOGGLE_BUTTON (button), TRUE);
  EXPECT_TRUE (pump_until (is_mapped, gtk_menu_button_get_popover (GTK_MENU_BUTTON (button))));
  leave (&loaded);
  EXPECT_EQ (loaded.drafts (), "half a thought\n");
}

TEST (app_window_log_in_again, while_the_menu_of_a_text_is_open)
{
  Loaded loaded;
  GtkWidget *menu = NULL;
  type (loaded.clause->view, "text_view", "half a thought");
  g_signal_connect (loaded.text_view (), "populate-popup",
                    G_CALLBACK (+[] (GtkTextView *, GtkWidget *popup, gpointer data) {
                      *(GtkWidget **) data = popup;
                    }),
                    &menu);
  focus (&loaded, loaded.text_view ());
  press_key (&loaded.test, GDK_KEY_Menu);
  EXPECT_TRUE (pump_until ([] (void *data) { return *(GtkWidget **) data != NULL; }, &menu));
  EXPECT_TRUE (pump_until (is_mapped, menu));
  leave (&loaded);
  EXPECT_EQ (loaded.drafts (), "half a thought\n");
}

TEST (app_window_log_in_again, while_the_menu_of_a_revision_is_open)
{
  Loaded loaded;
  GtkWidget *button = find_widget (loaded.clause->view, "revision_select_menu_button");
  EXPECT_TRUE (pump_until (is_mapped, button));
  gtk_toggle_button_set_active (GTK_TOGGLE_BUTTON (button), TRUE);
  GtkWidget *popover = GTK_WIDGET (gtk_menu_button_get_popover (GTK_MENU_BUTTON (button)));
  EXPECT_TRUE (pump_until (is_mapped, popover));
  GtkWidget *scroller = gtk_bin_get_child (GTK_BIN (popover));
  GtkWidget *list = gtk_bin_get_child (GTK_BIN (gtk_bin_get_child (GTK_BIN (scroller))));
  focus (&loaded, GTK_WIDGET (gtk_list_box_get_row_at_index (GTK_LIST_BOX (list), 0)));
  press_key (&loaded.test, GDK_KEY_Menu);
  EXPECT_TRUE (
    pump_until ([] (void *) { return (bool) GTK_IS_MENU (gtk_grab_get_current ()); }, NULL));
  leave (&loaded);
  EXPECT_EQ (gtk_grab_get_current (), nullptr);
}

TEST (app_window_log_in_again, while_a_deletion_can_be_undone_lets_it_stay_deleted)
{
  Loaded loaded;
  app_window_remove_procedure (loaded.window, loaded.procedure);
  EXPECT_TRUE (gtk_widget_get_visible (loaded.window->undo_bar));
  leave (&loaded);
  EXPECT_FALSE (gtk_widget_get_visible (loaded.window->undo_bar));
  EXPECT_EQ (loaded.window->undo_source, 0u);
  EXPECT_EQ (loaded.window->negotiation.deletion.procedure, nullptr);
  EXPECT_EQ (query (&loaded.test, "SELECT count(*) FROM procedures"), "0\n");
  press (loaded.window, "undo_button");
  EXPECT_EQ (query (&loaded.test, "SELECT count(*) FROM procedures"), "0\n");
}

TEST (app_window_log_in_again, while_a_deleted_clause_can_be_undone_lets_it_stay_deleted)
{
  Loaded loaded;
  press (loaded.procedure->view, "add_clause_button");
  Clause *clause = loaded.procedure->clauses[2];
  type (clause->view, "text_view", "a new clause");
  press (clause->view, "cancel_button");
  EXPECT_TRUE (gtk_widget_get_visible (loaded.window->undo_bar));
  leave (&loaded);
  press (loaded.window, "undo_button");
  EXPECT_EQ (query (&loaded.test, "SELECT count(*) FROM clauses"), "2\n");
}

TEST (app_window_log_in_again, while_a_contacts_chat_is_shown)
{
  Loaded loaded;
  type (loaded.clause->view, "text_view", "half a thought");
  Contact *contact = loaded.window->contacts.contacts[0];
  gtk_stack_set_visible_child (loaded.window->main_page_stack, GTK_WIDGET (contact->chat_page));
  type (contact->chat_page, "chat_entry", "a line for Bob");
  focus (&loaded, find_widget (contact->chat_page, "chat_entry"));
  leave (&loaded);
  EXPECT_EQ (loaded.drafts (), "half a thought\n");
}

// The next account in this window may be somebody else's.
TEST (app_window_log_in_again, leaves_nothing_that_was_typed_for_the_former_account)
{
  Loaded loaded;
  GtkWidget *page = GTK_WIDGET (loaded.window->procedure_creation_page);
  gtk_stack_set_visible_child (loaded.window->main_page_stack, page);
  type (page, "title_entry", "Rent");
  type (page, "contractor_entry", "b\"ob@beta.test");
  press (page, "begin_button");
  EXPECT_NE (get_text (page, "status_label"), "");
  type (loaded.window->contacts.contacts[0]->chat_page, "chat_entry", "a line for Bob");
  leave (&loaded);
  EXPECT_EQ (get_text (page, "title_entry"), "");
  EXPECT_EQ (get_text (page, "contractor_entry"), "");
  EXPECT_EQ (get_text (page, "status_label"), "");
  EXPECT_FALSE (is_sensitive (page, "begin_button"));
  EXPECT_FALSE (is_sensitive (page, "contractor_add_button"));
  EXPECT_EQ (find_widget (loaded.window, "chat_entry"), nullptr);
}

// A message of this session may come back in the next one, and is known by its id.
TEST (app_window_log_in_again, gives_no_request_id_twice)
{
  Loaded loaded;
  u64 id = generate_xmpp_id (loaded.window);
  leave (&loaded);
  EXPECT_EQ (generate_xmpp_id (loaded.window), id + 1);
}

TEST (app_window_log_in_again, puts_the_password_of_nobody_into_the_page)
{
  Loaded loaded;
  type (loaded.window->login_page, "password_entry", "secret");
  leave (&loaded);
  EXPECT_EQ (get_text (loaded.window->login_page, "password_entry"), "");
}
