#include "procedure_creation_page.h"

#include "morvane.h"
#include "widget_test.h"

static void
fill (TestWindow *test, const char *title, const char *contractor)
{
  type (test->window->procedure_creation_page, "title_entry", title);
  type (test->window->procedure_creation_page, "contractor_entry", contractor);
}

static std::string
get_status (TestWindow *test)
{
  return get_text (test->window->procedure_creation_page, "status_label");
}

// The stanza that opens the newest procedure of the window, with the title as it travels.
static std::string
make_stanza (TestWindow *test, const char *contractor, const char *title)
{
  ProceduresStack *stack = &test->window->procedures;
  Procedure *procedure = stack->procedures[stack->count - 1];
  return "<message type='chat' id='1' from='alice@alpha.test/morvane' to='" +
         std::string (contractor) +
         "'><body><x-procedure procedure='alice@alpha.test:" + std::to_string (procedure->time) +
         "'>" + title + "</x-procedure></body></message>";
}

// ---- Looks ----

TEST (procedure_creation_page_init, shows_an_empty_form_with_everything_off)
{
  TestWindow test;
  log_in (&test);
  ProcedureCreationPage *page = test.window->procedure_creation_page;
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "procedure_creation_page");
  EXPECT_EQ (get_text (page, "title_entry"), "");
  EXPECT_EQ (get_text (page, "contractor_entry"), "");
  EXPECT_EQ (get_text (page, "begin_button"), "_Begin");
  for (const char *name : {"contractor_add_button", "contractor_vcard_button", "begin_button"}) {
    EXPECT_FALSE (is_sensitive (page, name)) << name;
  }
  GtkEntry *title = GTK_ENTRY (find_widget (page, "title_entry"));
  GtkEntry *contractor = GTK_ENTRY (find_widget (page, "contractor_entry"));
  EXPECT_STREQ (gtk_entry_get_placeholder_text (title), "procedure title");
  EXPECT_STREQ (gtk_entry_get_placeholder_text (contractor), "contractor");
  EXPECT_TRUE (gtk_entry_get_activates_default (contractor));
  EXPECT_EQ (gtk_entry_get_input_purpose (contractor), GTK_INPUT_PURPOSE_EMAIL);
}

TEST (procedure_creation_page_init, names_its_widgets_for_assistive_technology)
{
  TestWindow test;
  ProcedureCreationPage *page = test.window->procedure_creation_page;
  EXPECT_EQ (list_unnamed_widgets (page), "");
  EXPECT_EQ (find_accessible (page, "Procedure title"), find_widget (page, "title_entry"));
  EXPECT_EQ (find_accessible (page, "Contractor"), find_widget (page, "contractor_entry"));
  EXPECT_EQ (find_accessible (page, "Begin"), find_widget (page, "begin_button"));
}

// ---- Validation ----

struct Validity {
  const char *title;
  const char *contractor;
  bool can_look_up;
  bool can_begin;
};

class ProcedureCreationPageValidation : public testing::TestWithParam<Validity> {};

TEST_P (ProcedureCreationPageValidation, switches_the_buttons)
{
  TestWindow test;
  log_in (&test);
  ProcedureCreationPage *page = test.window->procedure_creation_page;
  fill (&test, GetParam ().title, GetParam ().contractor);
  EXPECT_EQ (is_sensitive (page, "contractor_add_button"), GetParam ().can_look_up);
  EXPECT_EQ (is_sensitive (page, "contractor_vcard_button"), GetParam ().can_look_up);
  EXPECT_EQ (is_sensitive (page, "begin_button"), GetParam ().can_begin);
}

INSTANTIATE_TEST_SUITE_P (
  procedure_creation_page_validate_fields, ProcedureCreationPageValidation,
  testing::Values (
    Validity{"Planks", "bob@beta.test", true, true},
    Validity{"  Planks", "bob@beta.test", true, true}, Validity{"", "bob@beta.test", true, false},
    Validity{"   ", "bob@beta.test", true, false}, Validity{" \t\n", "bob@beta.test", true, false},
    Validity{"Planks", "", false, false}, Validity{"Planks", "bob", false, false},
    Validity{"Planks", "@beta.test", false, false}, Validity{"Planks", "bob@", false, false},
    Validity{"Planks", "bob@beta@test", false, false},
    Validity{"Planks", "bob@beta.test/x", false, false},
    Validity{"Planks", "alice@alpha.test", false, false},
    Validity{"Planks", "ALICE@Alpha.Test", false, false},
    Validity{"Planks", "\uff41lice@alpha.test", false, false}));

TEST (procedure_creation_page_contractor_entry_changed, follows_every_change)
{
  TestWindow test;
  log_in (&test);
  ProcedureCreationPage *page = test.window->procedure_creation_page;
  fill (&test, "Planks", "bob@beta.test");
  EXPECT_TRUE (is_sensitive (page, "begin_button"));
  type (page, "contractor_entry", "alice@alpha.test");
  EXPECT_FALSE (is_sensitive (page, "begin_button"));
  EXPECT_FALSE (is_sensitive (page, "contractor_add_button"));
  type (page, "contractor_entry", "malice@alpha.test");
  EXPECT_TRUE (is_sensitive (page, "begin_button"));
  EXPECT_TRUE (is_sensitive (page, "contractor_vcard_button"));
}

TEST (procedure_creation_page_set_contractor_vcard_button_sensitive, lasts_until_another_is_typed)
{
  TestWindow test;
  log_in (&test);
  ProcedureCreationPage *page = test.window->procedure_creation_page;
  fill (&test, "Planks", "bob@beta.test");
  procedure_creation_page_set_contractor_vcard_button_sensitive (page, FALSE);
  EXPECT_FALSE (is_sensitive (page, "contractor_vcard_button"));
  EXPECT_TRUE (is_sensitive (page, "contractor_add_button"));
  EXPECT_TRUE (is_sensitive (page, "begin_button"));
  type (page, "contractor_entry", "carol@beta.test");
  EXPECT_TRUE (is_sensitive (page, "contractor_vcard_button"));
}

// ---- Contractor buttons ----

TEST (procedure_creation_page_contractor_add_button, asks_for_a_subscription_in_lower_case)
{
  TestWindow test;
  log_in (&test);
  fill (&test, "", "Bob@Beta.test");
  press (test.window->procedure_creation_page, "contractor_add_button");
  EXPECT_EQ (take_sent (&test),
             "<presence type='subscribe' id='1' from='alice@alpha.test' to='bob@beta.test'/>");
}

TEST (procedure_creation_page_contractor_vcard_button, requests_the_vcard_and_keeps_the_id)
{
  TestWindow test;
  log_in (&test);
  fill (&test, "", "Bob@Beta.test");
  generate_xmpp_id (test.window);
  press (test.window->procedure_creation_page, "contractor_vcard_button");
  EXPECT_EQ (take_sent (&test),
             "<iq type='get' id='2' from='alice@alpha.test/morvane' to='bob@beta.test'>"
             "<vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'/></iq>");
  EXPECT_EQ (test.window->get_vcard_id, 2u);
  EXPECT_EQ (test.window->get_own_vcard_id, 0u);
}

// ---- Begin button ----

TEST (procedure_creation_page_begin_button, stores_shows_and_sends_the_procedure)
{
  TestWindow test;
  log_in (&test);
  ProcedureCreationPage *page = test.window->procedure_creation_page;
  fill (&test, "Oak planks", "Bob@Beta.test");
  s64 before = get_posix_time ();
  press (page, "begin_button");
  ASSERT_EQ (test.window->procedures.count, 1u);
  Procedure *procedure = test.window->procedures.procedures[0];
  EXPECT_GE (procedure->time, before);
  EXPECT_LE (procedure->time, get_posix_time ());
  EXPECT_EQ (query (&test, "SELECT initiator, contractor, title FROM procedures"),
             "alice@alpha.test|bob@beta.test|Oak planks\n");
  EXPECT_EQ (gtk_stack_get_visible_child (test.window->main_page_stack),
             GTK_WIDGET (procedure->view));
  EXPECT_EQ (gtk_list_box_get_selected_row (test.window->procedures_list_box),
             procedure->list_item);
  EXPECT_EQ (take_sent (&test), make_stanza (&test, "bob@beta.test", "Oak planks"));
}

TEST (procedure_creation_page_begin_button, keeps_the_entries_and_empties_the_status)
{
  TestWindow test;
  log_in (&test);
  ProcedureCreationPage *page = test.window->procedure_creation_page;
  gtk_label_set_text (GTK_LABEL (find_widget (page, "status_label")), "old");
  fill (&test, "Oak planks", "bob@beta.test");
  press (page, "begin_button");
  EXPECT_EQ (get_status (&test), "");
  EXPECT_EQ (get_text (page, "title_entry"), "Oak planks");
  EXPECT_EQ (get_text (page, "contractor_entry"), "bob@beta.test");
}

TEST (procedure_creation_page_begin_button, opens_two_procedures_in_two_seconds)
{
  TestWindow test;
  log_in (&test);
  fill (&test, "Oak planks", "bob@beta.test");
  press (test.window->procedure_creation_page, "begin_button");
  press (test.window->procedure_creation_page, "begin_button");
  ASSERT_EQ (test.window->procedures.count, 2u);
  EXPECT_NE (test.window->procedures.procedures[0]->time,
             test.window->procedures.procedures[1]->time);
}

struct Title {
  const char *typed;
  const char *kept;
  const char *sent;
};

class ProcedureCreationPageTitle : public testing::TestWithParam<Title> {};

TEST_P (ProcedureCreationPageTitle, is_kept_and_sent_alike)
{
  TestWindow test;
  log_in (&test);
  fill (&test, GetParam ().typed, "bob@beta.test");
  press (test.window->procedure_creation_page, "begin_button");
  ASSERT_EQ (test.window->procedures.count, 1u) << get_status (&test);
  EXPECT_EQ (to_std_string (test.window->procedures.procedures[0]->title), GetParam ().kept);
  EXPECT_EQ (query (&test, "SELECT title FROM procedures"), std::string (GetParam ().kept) + "\n");
  EXPECT_EQ (take_sent (&test), make_stanza (&test, "bob@beta.test", GetParam ().sent));
}

INSTANTIATE_TEST_SUITE_P (
  procedure_creation_page_begin_button, ProcedureCreationPageTitle,
  testing::Values (Title{"Bob's planks", "Bob\u2019s planks", "Bob\u2019s planks"},
                   Title{"''", "\u2019\u2019", "\u2019\u2019"},
                   Title{"\"a\" & <b>", "\"a\" & <b>", "&quot;a&quot; &amp; &lt;b&gt;"},
                   Title{"a\x01"
                         "b\x1f",
                         "ab", "ab"},
                   Title{"\u00e4\U0001f600", "\u00e4\U0001f600", "\u00e4\U0001f600"}));

TEST (procedure_creation_page_begin_button, refuses_a_title_of_which_nothing_can_be_sent)
{
  TestWindow test;
  log_in (&test);
  fill (&test, "\x01\x02", "bob@beta.test");
  press (test.window->procedure_creation_page, "begin_button");
  EXPECT_EQ (get_status (&test), "Input a title");
  EXPECT_EQ (test.window->procedures.count, 0u);
  EXPECT_EQ (take_sent (&test), "");
}

TEST (procedure_creation_page_begin_button, refuses_a_title_that_the_store_cannot_hold)
{
  TestWindow test;
  log_in (&test);
  fill (&test, std::string (4000, 'x').c_str (), "bob@beta.test");
  press (test.window->procedure_creation_page, "begin_button");
  EXPECT_EQ (get_status (&test), "The title is too long");
  EXPECT_EQ (test.window->procedures.count, 0u);
  EXPECT_EQ (query (&test, "SELECT COUNT(*) FROM procedures"), "0\n");
  EXPECT_EQ (take_sent (&test), "");
}

TEST (procedure_creation_page_begin_button, takes_a_long_title_that_the_store_can_hold)
{
  TestWindow test;
  log_in (&test);
  fill (&test, std::string (3500, 'x').c_str (), "bob@beta.test");
  press (test.window->procedure_creation_page, "begin_button");
  EXPECT_EQ (get_status (&test), "");
  EXPECT_EQ (query (&test, "SELECT LENGTH(title) FROM procedures"), "3500\n");
}

// Contractors that look like a bare JID and that no account can have.
class ProcedureCreationPageContractor : public testing::TestWithParam<const char *> {};

TEST_P (ProcedureCreationPageContractor, is_refused_by_every_button)
{
  TestWindow test;
  log_in (&test);
  fill (&test, "Planks", GetParam ());
  for (const char *name : {"contractor_add_button", "contractor_vcard_button", "begin_button"}) {
    gtk_label_set_text (GTK_LABEL (
                          find_widget (test.window->procedure_creation_page, "status_label")),
                        "");
    g_signal_emit_by_name (find_widget (test.window->procedure_creation_page, name), "clicked");
    EXPECT_EQ (get_status (&test), "The contractor holds a character that no account can have")
      << name;
  }
  EXPECT_EQ (test.window->procedures.count, 0u);
  EXPECT_EQ (test.window->get_vcard_id, 0u);
  EXPECT_EQ (take_sent (&test), "");
}

INSTANTIATE_TEST_SUITE_P (procedure_creation_page_begin_button, ProcedureCreationPageContractor,
                          testing::Values ("b\"ob@beta.test", "b&ob@beta.test", "b'ob@beta.test",
                                           "b<ob@beta.test", "b>ob@beta.test", "b/ob@beta.test",
                                           "b ob@beta.test", "bob@beta.test ", "b\tob@beta.test",
                                           "b\nob@beta.test", "b\x7fob@beta.test",
                                           "b\x01ob@beta.test", "b\u00a0ob@beta.test",
                                           "b\u2003ob@beta.test"));

// What comes from the contractor comes from the address without it.
TEST (procedure_creation_page_begin_button, leaves_a_dot_behind_the_contractor_out)
{
  TestWindow test;
  log_in (&test);
  fill (&test, "Planks", "bob@beta.test.");
  press (test.window->procedure_creation_page, "begin_button");
  EXPECT_EQ (query (&test, "SELECT contractor FROM procedures"), "bob@beta.test\n");
  for (const char *none : {"bob@.", ".", "alice@alpha.test."}) {
    fill (&test, "Planks", none);
    EXPECT_FALSE (is_sensitive (test.window->procedure_creation_page, "begin_button")) << none;
  }
}

// A server takes these out, and what comes from the contractor then comes from someone else.
TEST (procedure_creation_page_begin_button, refuses_a_contractor_with_letters_that_nobody_sees)
{
  TestWindow test;
  log_in (&test);
  for (const char *contractor :
       {"bob@beta.test\u200b", "\ufeffbob@beta.test", "b\u00adob@beta.test", "bob@be\u2060ta.test",
        "b\u200dob@beta.test", "b\ufe0fob@beta.test"}) {
    fill (&test, "Planks", contractor);
    press (test.window->procedure_creation_page, "begin_button");
    EXPECT_EQ (get_status (&test), "The contractor holds an invisible character; type it by hand")
      << contractor;
  }
  EXPECT_EQ (test.window->procedures.count, 0u);
  // An accent of its own is seen.
  fill (&test, "Planks", "bo\u0301b@beta.test");
  press (test.window->procedure_creation_page, "begin_button");
  EXPECT_EQ (test.window->procedures.count, 1u);
}

TEST (procedure_creation_page_begin_button, refuses_a_contractor_longer_than_any_account)
{
  TestWindow test;
  log_in (&test);
  fill (&test, "Planks", ("bob@" + std::string (2044, 'b')).c_str ());
  press (test.window->procedure_creation_page, "begin_button");
  EXPECT_EQ (get_status (&test), "The contractor is too long");
  EXPECT_EQ (test.window->procedures.count, 0u);
}

TEST (procedure_creation_page_begin_button, takes_a_contractor_after_a_refused_one)
{
  TestWindow test;
  log_in (&test);
  fill (&test, "Planks", "b ob@beta.test");
  press (test.window->procedure_creation_page, "begin_button");
  type (test.window->procedure_creation_page, "contractor_entry", "bob@beta.test");
  press (test.window->procedure_creation_page, "begin_button");
  EXPECT_EQ (get_status (&test), "");
  EXPECT_EQ (test.window->procedures.count, 1u);
}

static bool
has_procedure (void *data)
{
  return ((TestWindow *) data)->window->procedures.count == 1;
}

TEST (procedure_creation_page_begin_button, is_pressed_by_enter_in_the_contractor_entry)
{
  TestWindow test;
  log_in (&test);
  ProcedureCreationPage *page = test.window->procedure_creation_page;
  fill (&test, "Planks", "bob@beta.test");
  gtk_widget_grab_focus (find_widget (page, "contractor_entry"));
  pump ();
  EXPECT_EQ (gtk_window_get_default_widget (GTK_WINDOW (test.window)),
             procedure_creation_page_get_begin_button (page));
  press_key (&test, GDK_KEY_Return);
  EXPECT_TRUE (pump_until (has_procedure, &test));
}

static bool
has_clause (void *data)
{
  return ((Procedure *) data)->clauses_count == 1;
}

// Return, pressed once too often, must not delete what was begun with it.
TEST (procedure_creation_page_begin_button, leads_to_the_first_clause_and_not_to_deleting)
{
  TestWindow test;
  log_in (&test);
  fill (&test, "Rent", "bob@beta.test");
  gtk_widget_grab_focus (find_widget (test.window->procedure_creation_page, "contractor_entry"));
  pump ();
  press_key (&test, GDK_KEY_Return);
  ASSERT_TRUE (pump_until (has_procedure, &test));
  Procedure *procedure = test.window->procedures.procedures[0];
  EXPECT_EQ (gtk_window_get_focus (GTK_WINDOW (test.window)),
             find_widget (procedure->view, "add_clause_button"));
  press_key (&test, GDK_KEY_Return);
  EXPECT_TRUE (pump_until (has_clause, procedure));
  EXPECT_EQ (query (&test, "SELECT title FROM procedures"), "Rent\n");
}

// ---- A page ----

TEST (procedure_creation_page_new, makes_a_page_of_its_own_that_is_empty)
{
  TestWindow test;
  GtkWidget *page = procedure_creation_page_new ();
  EXPECT_TRUE (g_object_is_floating (page));
  GtkWidget *toplevel = show_alone (page);
  EXPECT_EQ (get_text (page, "title_entry"), "");
  EXPECT_EQ (get_text (page, "contractor_entry"), "");
  EXPECT_EQ (get_text (page, "status_label"), "");
  gtk_widget_destroy (toplevel);
}
