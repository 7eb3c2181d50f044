#include "network_events.h"

#include <stdlib.h>

#include "account_test.h"
#include "clause_chat_page.h"
#include "clause_view.h"
#include "contact_list_item.h"
#include "deletion.h"
#include "morvane.h"
#include "procedure_creation_page.h"
#include "procedure_view.h"
#include "vcard_page.h"

// ---- Chat ----

TEST (app_window_get_xmpp_message_signal, stores_and_shows_what_a_contact_says)
{
  TestWindow test;
  open_negotiation (&test);
  s64 before = get_posix_time ();
  begin_capture ();
  deliver_message (test.window, BOB "/desk", "it's <fine>");
  EXPECT_TRUE (has (end_capture (), "Received <message from='" BOB "/desk'>\n"));
  Contact *contact = test.window->contacts.contacts[0];
  ASSERT_EQ (contact->messages_count, 1u);
  EXPECT_GE (contact->messages[0]->time, before);
  EXPECT_EQ (query (&test, "SELECT contact_db_id, author, body FROM contact_messages"),
             "1|" BOB "|it's <fine>\n");
  EXPECT_EQ (get_text (contact->chat_page, "chat_text_view"), BOB ": it's <fine>");
}

TEST (app_window_get_xmpp_message_signal, takes_a_bare_sender_and_an_empty_text)
{
  TestWindow test;
  open_negotiation (&test);
  deliver_message (test.window, CAROL, "");
  EXPECT_EQ (query (&test, "SELECT contact_db_id, author, body FROM contact_messages"),
             "2|" CAROL "|\n");
}

TEST (app_window_get_xmpp_message_signal, drops_what_our_other_resources_say_without_a_word)
{
  TestWindow test;
  open_account (&test, "INSERT INTO contacts VALUES (1, 1, '" ALICE "');");
  begin_capture ();
  deliver_message (test.window, ALICE "/phone", "note to self");
  EXPECT_EQ (end_capture (), "Received <message from='" ALICE "/phone'>\n");
  EXPECT_EQ (count (&test, "contact_messages"), "0\n");
}

TEST (app_window_get_xmpp_message_signal, loses_what_a_stranger_says)
{
  TestWindow test;
  open_negotiation (&test);
  begin_capture ();
  deliver_message (test.window, "eve@beta.test/x", "hello");
  EXPECT_EQ (end_capture (), "Received <message from='eve@beta.test/x'>\n"
                             "Warning: Received a message from 'eve@beta.test/x', but that contact "
                             "isn't in the contact list.\n");
  EXPECT_EQ (count (&test, "contact_messages"), "0\n");
  EXPECT_EQ (count (&test, "contacts"), "2\n");
}

// ---- Presence ----

TEST (app_window_get_xmpp_presence_confirm_signal, is_logged_only)
{
  TestWindow test;
  open_negotiation (&test);
  begin_capture ();
  deliver_presence (test.window, app_window_get_xmpp_presence_confirm_signal, ALICE "/morvane");
  EXPECT_EQ (end_capture (), "Received <presence from='" ALICE "/morvane'>\n");
  EXPECT_EQ (count (&test, "contacts"), "2\n");
}

TEST (app_window_get_xmpp_presence_subscribe_signal, answers_no_address_with_an_apostrophe)
{
  TestWindow test;
  log_in (&test);
  testing::internal::CaptureStdout ();
  deliver_presence (test.window, app_window_get_xmpp_presence_subscribe_signal, "eve@beta.test/'");
  EXPECT_EQ (testing::internal::GetCapturedStdout (),
             "Received <presence type='subscribe' from='eve@beta.test/''>\n"
             "Warning: Received a <presence> from an account that can't be answered.\n");
  EXPECT_EQ (take_sent (&test), "");
}

TEST (app_window_get_xmpp_presence_subscribed_signal, is_logged_only)
{
  TestWindow test;
  open_negotiation (&test);
  begin_capture ();
  deliver_presence (test.window, app_window_get_xmpp_presence_subscribed_signal, "eve@beta.test");
  EXPECT_EQ (end_capture (), "Received <presence type='subscribed' from='eve@beta.test'>\n");
  EXPECT_EQ (count (&test, "contacts"), "2\n");
  EXPECT_EQ (take_sent (&test), "");
}

TEST (app_window_get_xmpp_presence_available_signal, sets_the_status_of_a_contact)
{
  TestWindow test;
  open_negotiation (&test);
  begin_capture ();
  deliver_presence (test.window, app_window_get_xmpp_presence_available_signal, CAROL "/desk");
  EXPECT_EQ (end_capture (), "Received <presence from='" CAROL "/desk'>\n");
  EXPECT_EQ (list_contacts (&test), BOB "|unavailable\n" CAROL "|available\n");
  EXPECT_EQ (count (&test, "contacts"), "2\n");
}

TEST (app_window_get_xmpp_presence_available_signal, makes_a_contact_of_a_stranger)
{
  TestWindow test;
  open_negotiation (&test);
  deliver_presence (test.window, app_window_get_xmpp_presence_available_signal, "eve@beta.test/x");
  EXPECT_EQ (list_contacts (&test),
             BOB "|unavailable\n" CAROL "|unavailable\neve@beta.test|available\n");
  EXPECT_EQ (query (&test, "SELECT * FROM contacts WHERE db_id > 2"), "3|1|eve@beta.test\n");
  deliver_message (test.window, "eve@beta.test/x", "hello");
  EXPECT_EQ (query (&test, "SELECT contact_db_id, body FROM contact_messages"), "3|hello\n");
}

TEST (app_window_get_xmpp_presence_available_signal, makes_contacts_of_as_many_as_come)
{
  TestWindow test;
  open_account (&test);
  std::string expected;
  for (int i = 0; i < 70; i++) {
    std::string name = "guest" + std::to_string (i) + "@beta.test";
    deliver_presence (test.window, app_window_get_xmpp_presence_available_signal, name.c_str ());
    expected += name + "|available\n";
  }
  EXPECT_EQ (list_contacts (&test), expected);
  EXPECT_EQ (count (&test, "contacts"), "70\n");
}

TEST (app_window_get_xmpp_presence_available_signal, passes_over_our_own_resources)
{
  TestWindow test;
  open_account (&test);
  deliver_presence (test.window, app_window_get_xmpp_presence_available_signal, ALICE "/phone");
  EXPECT_EQ (count (&test, "contacts"), "0\n");
}

struct PresenceCase {
  const char *from;
};

class AppWindowStrangers : public testing::TestWithParam<PresenceCase> {};

// Nobody's name may stop the program.
TEST_P (AppWindowStrangers, that_cannot_be_kept_are_dropped_with_a_warning)
{
  TestWindow test;
  open_account (&test);
  begin_capture ();
  deliver_presence (test.window, app_window_get_xmpp_presence_available_signal, GetParam ().from);
  EXPECT_EQ (end_capture (),
             std::string ("Received <presence from='") + GetParam ().from +
               "'>\nWarning: Received a <presence> from an account that can't be a contact.\n");
  EXPECT_EQ (count (&test, "contacts"), "0\n");
  EXPECT_EQ (list_contacts (&test), "");
}

INSTANTIATE_TEST_SUITE_P (app_window_get_xmpp_presence_available_signal, AppWindowStrangers,
                          testing::Values (PresenceCase{"o'hara@beta.test/x"},
                                           PresenceCase{"/only-a-resource"},
                                           PresenceCase{"\xff@beta.test"}));

TEST (app_window_get_xmpp_presence_unavailable_signal, sets_the_status_of_a_contact)
{
  TestWindow test;
  open_negotiation (&test);
  deliver_presence (test.window, app_window_get_xmpp_presence_available_signal, BOB "/desk");
  begin_capture ();
  deliver_presence (test.window, app_window_get_xmpp_presence_unavailable_signal, BOB "/desk");
  EXPECT_EQ (end_capture (), "Received <presence type='unavailable' from='" BOB "/desk'>\n"
                             "contact_bare_jid: \"" BOB "\" (String)\n");
  EXPECT_EQ (list_contacts (&test), BOB "|unavailable\n" CAROL "|unavailable\n");
}

TEST (app_window_get_xmpp_presence_unavailable_signal, makes_a_contact_of_a_stranger)
{
  TestWindow test;
  open_account (&test);
  deliver_presence (test.window, app_window_get_xmpp_presence_unavailable_signal, "eve@beta.test");
  EXPECT_EQ (list_contacts (&test), "eve@beta.test|unavailable\n");
  EXPECT_EQ (query (&test, "SELECT * FROM contacts"), "1|1|eve@beta.test\n");
}

TEST (app_window_get_xmpp_presence_unavailable_signal, passes_over_our_own_resources)
{
  TestWindow test;
  open_account (&test);
  deliver_presence (test.window, app_window_get_xmpp_presence_unavailable_signal, ALICE "/phone");
  EXPECT_EQ (count (&test, "contacts"), "0\n");
}

TEST (app_window_get_xmpp_presence_subscribe_signal, accepts_and_asks_back)
{
  TestWindow test;
  open_account (&test);
  begin_capture ();
  deliver_presence (test.window, app_window_get_xmpp_presence_subscribe_signal, "eve@beta.test/x");
  std::string console = end_capture ();
  EXPECT_EQ (console.find ("Received <presence type='subscribe' from='eve@beta.test/x'>\n"), 0u);
  EXPECT_EQ (take_sent (&test),
             "<presence type='subscribed' id='1' from='" ALICE "/morvane' to='eve@beta.test/x'/>"
             "<presence type='subscribe' id='2' from='" ALICE "' to='eve@beta.test/x'/>");
  EXPECT_EQ (count (&test, "contacts"), "0\n");
}

// ---- Failures and vCards ----

static std::string
dump_ids (u64 id, u64 get_vcard_id, u64 get_own_vcard_id)
{
  return "message->id: " + std::to_string (id) +
         " (u64)\nself->get_vcard_id: " + std::to_string (get_vcard_id) +
         " (u64)\nself->get_own_vcard_id: " + std::to_string (get_own_vcard_id) + " (u64)\n";
}

TEST (app_window_get_iq_error_message, says_that_the_contractor_has_no_vcard)
{
  TestWindow test;
  open_account (&test);
  ProcedureCreationPage *page = test.window->procedure_creation_page;
  type (page, "contractor_entry", BOB);
  EXPECT_TRUE (is_sensitive (page, "contractor_vcard_button"));
  test.window->get_vcard_id = 5;
  test.window->get_own_vcard_id = 6;
  begin_capture ();
  deliver_iq_error (test.window, 5);
  EXPECT_EQ (end_capture (), dump_ids (5, 5, 6));
  EXPECT_FALSE (is_sensitive (page, "contractor_vcard_button"));
  EXPECT_EQ (test.window->get_vcard_id, 0u);
  EXPECT_EQ (test.window->get_own_vcard_id, 6u);
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "procedure_creation_page");
}

TEST (app_window_get_iq_error_message, offers_an_empty_profile_when_there_is_none)
{
  TestWindow test;
  open_account (&test);
  VCardPage *page = test.window->vcard_page;
  test.window->get_vcard_id = 5;
  deliver_vcard (test.window, 5, BOB, "Bob");
  press (test.window, "add_procedure_button");
  test.window->get_own_vcard_id = 6;
  begin_capture ();
  deliver_iq_error (test.window, 6);
  EXPECT_EQ (end_capture (), dump_ids (6, 5, 6));
  EXPECT_EQ (test.window->get_own_vcard_id, 0u);
  EXPECT_EQ (test.window->get_vcard_id, 5u);
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "vcard_page");
  EXPECT_EQ (get_text (page, "title_label"), "Your Public Profile");
  EXPECT_EQ (get_text (page, "fullname_entry"), "");
  EXPECT_TRUE (gtk_editable_get_editable (GTK_EDITABLE (find_widget (page, "fullname_entry"))));
}

TEST (app_window_get_iq_error_message, warns_of_an_id_that_nobody_requested)
{
  TestWindow test;
  open_account (&test);
  begin_capture ();
  deliver_iq_error (test.window, 77);
  EXPECT_EQ (end_capture (),
             dump_ids (77, 0, 0) +
               "Warning: Got an IQ an ID 77 which doesn't correspond to any requested.\n");
}

TEST (app_window_get_iq_error_message, takes_zero_for_no_request)
{
  TestWindow test;
  open_account (&test);
  begin_capture ();
  deliver_iq_error (test.window, 0);
  EXPECT_TRUE (has (end_capture (),
                    "Warning: Got an IQ an ID 0 which doesn't correspond to any requested.\n"));
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "procedure_creation_page");
}

TEST (app_window_get_iq_error_message, answers_a_request_once)
{
  TestWindow test;
  open_account (&test);
  test.window->get_own_vcard_id = 6;
  deliver_iq_error (test.window, 6);
  begin_capture ();
  deliver_iq_error (test.window, 6);
  EXPECT_TRUE (has (end_capture (), "Warning: Got an IQ an ID 6 "));
}

TEST (app_window_get_vcard_message, shows_another_accounts_card_read_only)
{
  TestWindow test;
  open_account (&test);
  VCardPage *page = test.window->vcard_page;
  test.window->get_vcard_id = 5;
  begin_capture ();
  deliver_vcard (test.window, 5, BOB "/desk", "Bob");
  EXPECT_EQ (end_capture (), dump_ids (5, 5, 0));
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "vcard_page");
  EXPECT_EQ (get_text (page, "title_label"), BOB "/desk");
  EXPECT_EQ (get_text (page, "fullname_entry"), "Bob");
  EXPECT_FALSE (gtk_editable_get_editable (GTK_EDITABLE (find_widget (page, "fullname_entry"))));
  EXPECT_EQ (test.window->get_vcard_id, 5u);
}

TEST (app_window_get_vcard_message, shows_a_second_answer_again)
{
  TestWindow test;
  open_account (&test);
  test.window->get_vcard_id = 5;
  deliver_vcard (test.window, 5, BOB, "Bob");
  press (test.window, "add_procedure_button");
  deliver_vcard (test.window, 5, BOB, "Robert");
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "vcard_page");
  EXPECT_EQ (get_text (test.window->vcard_page, "fullname_entry"), "Robert");
}

struct OwnCardCase {
  const char *from;
};

class AppWindowOwnCard : public testing::TestWithParam<OwnCardCase> {};

TEST_P (AppWindowOwnCard, is_shown_to_be_edited)
{
  TestWindow test;
  open_account (&test);
  VCardPage *page = test.window->vcard_page;
  vcard_page_set_editable (page, FALSE);
  test.window->get_own_vcard_id = 6;
  begin_capture ();
  deliver_vcard (test.window, 6, GetParam ().from, "Alice");
  EXPECT_EQ (end_capture (), dump_ids (6, 0, 6));
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "vcard_page");
  EXPECT_EQ (get_text (page, "title_label"), "Your Public Profile");
  EXPECT_EQ (get_text (page, "fullname_entry"), "Alice");
  EXPECT_TRUE (gtk_editable_get_editable (GTK_EDITABLE (find_widget (page, "fullname_entry"))));
  EXPECT_EQ (test.window->get_own_vcard_id, 6u);
}

INSTANTIATE_TEST_SUITE_P (app_window_get_vcard_message, AppWindowOwnCard,
                          testing::Values (OwnCardCase{NULL}, OwnCardCase{ALICE}));

TEST (app_window_get_vcard_message, refuses_someone_elses_card_for_ours)
{
  TestWindow test;
  open_account (&test);
  test.window->get_own_vcard_id = 6;
  begin_capture ();
  deliver_vcard (test.window, 6, BOB, "Bob");
  EXPECT_EQ (end_capture (), dump_ids (6, 0, 6) +
                               "Warning: Expected a VCard from own account, but got a VCard from "
                               "someone else.\n");
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "procedure_creation_page");
  EXPECT_EQ (get_text (test.window->vcard_page, "fullname_entry"), "");
  EXPECT_EQ (test.window->get_own_vcard_id, 6u);
}

TEST (app_window_get_vcard_message, warns_of_an_id_that_nobody_requested)
{
  TestWindow test;
  open_account (&test);
  for (u64 id : {0, 77}) {
    begin_capture ();
    deliver_vcard (test.window, id, BOB, "Bob");
    EXPECT_EQ (end_capture (), dump_ids (id, 0, 0) + "Warning: Got a VCard with an ID " +
                                 std::to_string (id) +
                                 " which doesn't correspond to any requested.\n");
  }
  EXPECT_EQ (get_page (test.window, "main_page_stack"), "procedure_creation_page");
}

// ---- Procedures ----

static const char PROCEDURE_ROWS[] =
  "SELECT account_db_id, time, initiator, contractor, title FROM procedures ORDER BY db_id";

TEST (app_window_get_xmpp_procedure, stores_and_lists_it)
{
  TestWindow test;
  open_account (&test);
  GtkWidget *page = get_main_page (&test);
  deliver_procedure (test.window, {BOB, 1700}, "Roof & \"walls\"");
  EXPECT_EQ (query (&test, PROCEDURE_ROWS), "1|1700|" BOB "|" ALICE "|Roof & \"walls\"\n");
  EXPECT_EQ (list_procedures (&test), "Roof & \"walls\"|" BOB "\n");
  ASSERT_EQ (test.window->procedures.count, 1u);
  EXPECT_EQ (test.window->procedures.procedures[0]->db_id, 1u);
  EXPECT_EQ (get_main_page (&test), page);
  EXPECT_EQ (take_sent (&test), "");
}

TEST (app_window_get_xmpp_procedure, comes_on_top_whatever_its_time)
{
  TestWindow test;
  open_negotiation (&test);
  deliver_procedure (test.window, {BOB, 1}, "Oldest");
  EXPECT_EQ (list_procedures (&test), "Oldest|" BOB "\nGarden|" CAROL "\nRent|" BOB "\n");
}

TEST (app_window_get_xmpp_procedure, repeated_makes_a_second_procedure)
{
  TestWindow test;
  open_account (&test);
  deliver_procedure (test.window, {BOB, 1700}, "Roof");
  deliver_procedure (test.window, {BOB, 1700}, "Roof");
  EXPECT_EQ (query (&test, PROCEDURE_ROWS),
             "1|1700|" BOB "|" ALICE "|Roof\n1|1700|" BOB "|" ALICE "|Roof\n");
  EXPECT_EQ (list_procedures (&test), "Roof|" BOB "\nRoof|" BOB "\n");
}

TEST (app_window_get_xmpp_procedure, in_the_own_name_is_dropped)
{
  TestWindow test;
  open_account (&test);
  begin_capture ();
  deliver_procedure (test.window, {ALICE, 1700}, "Forged");
  EXPECT_EQ (end_capture (), "Warning: A procedure came in this account's own name.\n");
  EXPECT_EQ (query (&test, PROCEDURE_ROWS), "");
  EXPECT_EQ (list_procedures (&test), "");
}

TEST (app_window_get_xmpp_procedure, keeps_apostrophes_as_typographic_ones)
{
  TestWindow test;
  open_account (&test);
  deliver_procedure (test.window, {BOB, 1700}, "Bob's 'roof'");
  EXPECT_EQ (query (&test, "SELECT title FROM procedures"), "Bob\u2019s \u2019roof\u2019\n");
  EXPECT_EQ (list_procedures (&test), "Bob\u2019s \u2019roof\u2019|" BOB "\n");
  EXPECT_EQ (to_std_string (test.window->procedures.procedures[0]->title),
             "Bob\u2019s \u2019roof\u2019");
}

// The longest title that the store takes with these names.
static std::string
make_longest_title (TestWindow *test)
{
  std::string title;
  while (db_can_hold_procedure (test->window->account_db_id, 1700, to_string (BOB),
                                to_string (ALICE), to_string ((title + "x").c_str ()))) {
    title += "x";
  }
  return title;
}

TEST (app_window_get_xmpp_procedure, takes_the_longest_title)
{
  TestWindow test;
  open_account (&test);
  std::string title = make_longest_title (&test);
  EXPECT_GT (title.size (), 3000u);
  deliver_procedure (test.window, {BOB, 1700}, title.c_str ());
  EXPECT_EQ (query (&test, "SELECT title FROM procedures"), title + "\n");
}

TEST (app_window_get_xmpp_procedure, drops_a_longer_title_with_one_warning)
{
  TestWindow test;
  open_account (&test);
  std::string title = make_longest_title (&test) + "x";
  begin_capture ();
  deliver_procedure (test.window, {BOB, 1700}, title.c_str ());
  EXPECT_EQ (end_capture (), "Warning: Received a procedure whose title is too long to be kept.\n");
  EXPECT_EQ (count (&test, "procedures"), "0\n");
  EXPECT_EQ (list_procedures (&test), "");
}

// Each apostrophe takes three bytes of the statement.
TEST (app_window_get_xmpp_procedure, measures_the_title_that_is_kept)
{
  TestWindow test;
  open_account (&test);
  std::string title = make_longest_title (&test);
  title.back () = '\'';
  deliver_procedure (test.window, {BOB, 1700}, title.c_str ());
  EXPECT_EQ (count (&test, "procedures"), "0\n");
}

// ---- Clauses ----

TEST (app_window_get_xmpp_clause, stores_it_at_the_first_position_and_lets_the_user_chat)
{
  TestWindow test;
  open_negotiation (&test);
  deliver_clause (test.window, RENT, {BOB, 2200});
  EXPECT_EQ (query (&test, "SELECT procedure_db_id, time, initiator, position FROM clauses"),
             "1|2000|" ALICE "|1\n1|2200|" BOB "|1\n");
  Procedure *procedure = test.window->procedures.procedures[0];
  ASSERT_EQ (procedure->clauses_count, 2u);
  Clause *clause = procedure->clauses[1];
  EXPECT_EQ (clause->db_id, 2u);
  ASSERT_TRUE (clause->view);
  EXPECT_TRUE (is_sensitive (clause->view, "chat_button"));
  EXPECT_EQ (get_text (clause->view, "text_view"), "");
  EXPECT_FALSE (is_sensitive (clause->view, "commit_button"));
  EXPECT_FALSE (is_sensitive (clause->view, "agree_button"));
}

// The clauses as they stand one below the other, by the revisions that they show.
static std::string
list_clause_views (Procedure *procedure)
{
  GList *views =
    gtk_container_get_children (GTK_CONTAINER (find_widget (procedure->view, "clauses_box")));
  std::string list;
  for (GList *link = views; link; link = link->next)
    list += get_text (GTK_WIDGET (link->data), "revision_status_label") + " ";
  g_list_free (views);
  return list;
}

TEST (app_window_get_xmpp_clause, stands_where_its_time_and_its_initiator_belong)
{
  TestWindow test;
  open_negotiation (&test);
  Procedure *procedure = test.window->procedures.procedures[0];
  EXPECT_EQ (list_clause_views (procedure), ALICE ":3000 ");
  // Another one's second of CLAUSE, a second before it and one far ahead.
  const WireName clauses[] = {{BOB, 2000}, {BOB, 999999999998}, {BOB, 1999}};
  for (WireName clause : clauses) {
    deliver_clause (test.window, RENT, clause);
    deliver_revision (test.window, RENT, clause, {BOB, clause.time + 1}, "text");
  }
  std::string order = BOB ":2000 " ALICE ":3000 " BOB ":2001 " BOB ":999999999999 ";
  EXPECT_EQ (list_clause_views (procedure), order);
  // A new one of the user's stands above what is said to come later.
  press (procedure->view, "add_clause_button");
  order = BOB ":2000 " ALICE ":3000 " BOB ":2001 draft " BOB ":999999999999 ";
  EXPECT_EQ (list_clause_views (procedure), order);
  EXPECT_TRUE (gtk_widget_has_focus (find_widget (procedure->clauses[3]->view, "text_view")));
  // Cancelled, and brought back.
  press (procedure->clauses[3]->view, "cancel_button");
  deletion_undo (test.window);
  EXPECT_EQ (list_clause_views (procedure), order);
}

TEST (app_window_get_xmpp_clause_revision, that_shares_a_second_goes_by_its_author)
{
  TestWindow test;
  open_negotiation (&test);
  Clause *clause = get_clause (&test);
  const WireName revisions[] = {{BOB, 4242}, {BOB, 3000}, {BOB, 2999}};
  for (WireName revision : revisions)
    deliver_revision (test.window, RENT, CLAUSE, revision, "text");
  std::string order;
  for (u32 i = 0; i < clause->revisions_count; i++)
    order += to_std_string (clause->revisions[i]->author) +
             std::to_string (clause->revisions[i]->time) + " ";
  EXPECT_EQ (order, BOB "2999 " ALICE "3000 " BOB "3000 " BOB "4242 ");
}

TEST (app_window_get_xmpp_clause, without_its_procedure_is_dropped_with_all_that_follows)
{
  TestWindow test;
  open_negotiation (&test);
  begin_capture ();
  deliver_clause (test.window, {ALICE, 1001}, {BOB, 2200});
  EXPECT_EQ (end_capture (),
             "Warning: A clause came, but we don't have the procedure to attach it to.\n");
  begin_capture ();
  deliver_clause (test.window, {BOB, 1000}, {BOB, 2200});
  EXPECT_EQ (end_capture (),
             "Warning: A clause came, but we don't have the procedure to attach it to.\n");
  EXPECT_EQ (count (&test, "clauses"), "1\n");
  begin_capture ();
  deliver_revision (test.window, RENT, {BOB, 2200}, {BOB, 2300}, "text");
  EXPECT_EQ (end_capture (),
             "Warning: A clause revision came, but we don't have the clause to attach it to.\n");
  EXPECT_EQ (count (&test, "clause_revisions"), "2\n");
}

TEST (app_window_get_xmpp_clause, can_be_answered_at_once)
{
  TestWindow test;
  open_negotiation (&test);
  deliver_clause (test.window, RENT, {BOB, 2200});
  deliver_revision (test.window, RENT, {BOB, 2200}, {BOB, 2200}, "their text");
  Clause *clause = test.window->procedures.procedures[0]->clauses[1];
  EXPECT_EQ (get_text (clause->view, "text_view"), "their text");
  press (clause->view, "agree_button");
  EXPECT_TRUE (has (take_sent (&test), "clause='" BOB ":2200' revision='" BOB ":2200'"));
}

// ---- Revisions ----

TEST (app_window_get_xmpp_clause_revision, stores_and_shows_it_with_the_senders_time)
{
  TestWindow test;
  open_negotiation (&test);
  deliver_revision (test.window, RENT, CLAUSE, {BOB, 4242}, "it's \"mine\"\n& <yours>");
  EXPECT_EQ (query (&test, "SELECT clause_db_id, time, author, status, text FROM clause_revisions "
                           "WHERE db_id > 2"),
             "1|4242|" BOB "|COMMITTED|it's \"mine\"\n& <yours>\n");
  Clause *clause = get_clause (&test);
  ASSERT_EQ (clause->revisions_count, 2u);
  EXPECT_EQ (clause->revisions[1]->db_id, 3u);
  EXPECT_EQ (get_text (clause->view, "text_view"), "it's \"mine\"\n& <yours>");
  EXPECT_EQ (get_text (clause->view, "revision_status_label"), BOB ":4242");
  EXPECT_EQ (take_sent (&test), "");
}

TEST (app_window_get_xmpp_clause_revision, may_be_empty)
{
  TestWindow test;
  open_negotiation (&test);
  deliver_revision (test.window, RENT, CLAUSE, {BOB, 4242}, "");
  EXPECT_EQ (query (&test, "SELECT status, text FROM clause_revisions WHERE db_id > 2"),
             "COMMITTED|\n");
  EXPECT_EQ (get_text (get_clause (&test)->view, "text_view"), "");
  EXPECT_TRUE (is_sensitive (get_clause (&test)->view, "agree_button"));
}

TEST (app_window_get_xmpp_clause_revision, without_its_parents_is_dropped)
{
  TestWindow test;
  open_negotiation (&test);
  begin_capture ();
  deliver_revision (test.window, {CAROL, 1000}, CLAUSE, {BOB, 4242}, "text");
  EXPECT_EQ (end_capture (),
             "Warning: A clause revision came, but we don't have the procedure to attach it to.\n");
  begin_capture ();
  deliver_revision (test.window, RENT, {ALICE, 2001}, {BOB, 4242}, "text");
  EXPECT_EQ (end_capture (),
             "Warning: A clause revision came, but we don't have the clause to attach it to.\n");
  EXPECT_EQ (count (&test, "clause_revisions"), "2\n");
  EXPECT_EQ (get_clause (&test)->revisions_count, 1u);
}

TEST (app_window_get_xmpp_clause_revision, is_found_in_its_own_procedure_only)
{
  TestWindow test;
  open_negotiation (&test);
  begin_capture ();
  deliver_revision (test.window, {CAROL, 1500}, CLAUSE, {CAROL, 4242}, "text");
  EXPECT_EQ (end_capture (),
             "Warning: A clause revision came, but we don't have the clause to attach it to.\n");
}

static std::string
list_revision_rows (ClauseView *view)
{
  GtkWidget *button = find_widget (view, "revision_select_menu_button");
  GtkWidget *scroller =
    gtk_bin_get_child (GTK_BIN (gtk_menu_button_get_popover (GTK_MENU_BUTTON (button))));
  GtkWidget *list = gtk_bin_get_child (GTK_BIN (gtk_bin_get_child (GTK_BIN (scroller))));
  std::string rows;
  for (int i = 0; GtkListBoxRow *row = gtk_list_box_get_row_at_index (GTK_LIST_BOX (list), i);
       i++) {
    rows +=
      std::string (gtk_list_box_row_is_selected (row) ? "*" : "") + get_text (row, "label") + " ";
  }
  return rows;
}

TEST (app_window_get_xmpp_clause_revision, is_shown_and_goes_where_its_time_belongs)
{
  TestWindow test;
  open_negotiation (&test);
  Clause *clause = get_clause (&test);
  s64 time = clause->revisions[0]->time;
  type (clause->view, "text_view", "A draft");
  clause_view_save_draft (clause->view);
  deliver_revision (test.window, RENT, CLAUSE, {BOB, time + 9}, "later");
  deliver_revision (test.window, RENT, CLAUSE, {BOB, time - 1}, "earlier");
  EXPECT_EQ (get_text (clause->view, "text_view"), "earlier");
  EXPECT_EQ (list_revision_rows (clause->view), "*" BOB ":" + std::to_string (time - 1) + " " +
                                                  to_std_string (clause->revisions[1]->author) +
                                                  ":" + std::to_string (time) + " " BOB ":" +
                                                  std::to_string (time + 9) + " draft ");
}

TEST (app_window_get_xmpp_clause_revision, of_a_forged_author_is_dropped)
{
  TestWindow test;
  open_negotiation (&test);
  begin_capture ();
  deliver_revision (test.window, RENT, CLAUSE, {ALICE, 4242}, "never wrote this");
  deliver_revision (test.window, RENT, CLAUSE, {CAROL, 4242}, "no party of this");
  EXPECT_EQ (end_capture (),
             "Warning: A clause revision came in this account's own name.\n"
             "Warning: A clause revision came from someone who is no party of its procedure.\n");
  EXPECT_EQ (get_clause (&test)->revisions_count, 1u);
  EXPECT_EQ (query (&test, "SELECT author FROM clause_revisions WHERE time = 4242"), "");
}

// ---- The chat of a clause ----

TEST (app_window_get_xmpp_clause_message, stores_and_shows_it_with_the_senders_time)
{
  TestWindow test;
  open_negotiation (&test);
  begin_capture ();
  deliver_clause_message (test.window, RENT, CLAUSE, {"bob", 4242}, "it's <ok>");
  std::string console = end_capture ();
  EXPECT_EQ (console.find ("xmpp_message: 0x"), 0u) << console;
  EXPECT_TRUE (has (console, " (void *)\nself: 0x")) << console;
  EXPECT_EQ (query (&test, "SELECT * FROM clause_messages WHERE db_id > 1"),
             "2|1|4242|bob|it's <ok>\n");
  Clause *clause = get_clause (&test);
  ASSERT_EQ (clause->messages_count, 2u);
  EXPECT_EQ (clause->messages[1]->db_id, 2u);
  EXPECT_EQ (get_text (clause->chat_page, "chat_text_view"), "alice: well?\nbob: it's <ok>");
}

TEST (app_window_get_xmpp_clause_message, without_its_parents_is_dropped)
{
  TestWindow test;
  open_negotiation (&test);
  begin_capture ();
  deliver_clause_message (test.window, {ALICE, 999}, CLAUSE, {"bob", 4242}, "text");
  EXPECT_TRUE (has (end_capture (), "Warning: A clause message came, but we don't have the "
                                    "procedure to attach it to.\n"));
  begin_capture ();
  deliver_clause_message (test.window, RENT, {BOB, 2000}, {"bob", 4242}, "text");
  EXPECT_TRUE (has (end_capture (), "Warning: A clause message came, but we don't have the clause "
                                    "to attach it to.\n"));
  EXPECT_EQ (count (&test, "clause_messages"), "1\n");
}

// ---- Decisions ----

static const char DECISION_ROWS[] = "SELECT clause_revision_db_id, author, status FROM "
                                    "clause_revision_decisions ORDER BY db_id";

TEST (app_window_get_xmpp_clause_revision_decision_signal, stores_and_shows_it)
{
  TestWindow test;
  open_negotiation (&test);
  s64 before = get_posix_time ();
  deliver_decision (test.window, RENT, CLAUSE, FIRST, {BOB, 4242}, DECISION_AGREE);
  EXPECT_EQ (query (&test, DECISION_ROWS), "1|" ALICE "|AGREE\n1|" BOB "|AGREE\n");
  ClauseRevision *revision = get_clause (&test)->revisions[0];
  ASSERT_EQ (revision->decisions_count, 2u);
  EXPECT_EQ (revision->decisions[1]->db_id, 2u);
  // Stamped here: the time of the wire is not used.
  EXPECT_GE (revision->decisions[1]->time, before);
  EXPECT_EQ (query (&test, "SELECT time FROM clause_revision_decisions WHERE db_id = 2"),
             std::to_string (revision->decisions[1]->time) + "\n");
  EXPECT_EQ (get_text (get_clause (&test)->view, "decision_status_label"), "contractor agrees");
}

TEST (app_window_get_xmpp_clause_revision_decision_signal, repeated_leaves_the_later_one)
{
  TestWindow test;
  open_negotiation (&test);
  deliver_decision (test.window, RENT, CLAUSE, FIRST, {BOB, 4242}, DECISION_AGREE);
  run (&test, "UPDATE clause_revision_decisions SET time = 1;");
  s64 before = get_posix_time ();
  deliver_decision (test.window, RENT, CLAUSE, FIRST, {BOB, 4243}, DECISION_DISAGREE);
  EXPECT_EQ (query (&test, DECISION_ROWS), "1|" ALICE "|AGREE\n1|" BOB "|DISAGREE\n");
  ClauseRevision *revision = get_clause (&test)->revisions[0];
  EXPECT_EQ (revision->decisions_count, 2u);
  EXPECT_GE (revision->decisions[1]->time, before);
  EXPECT_EQ (query (&test, "SELECT time FROM clause_revision_decisions WHERE db_id = 2"),
             std::to_string (revision->decisions[1]->time) + "\n");
  EXPECT_EQ (get_text (get_clause (&test)->view, "decision_status_label"), "contractor disagrees");
}

TEST (app_window_get_xmpp_clause_revision_decision_signal, without_its_parents_is_dropped)
{
  TestWindow test;
  open_negotiation (&test);
  begin_capture ();
  deliver_decision (test.window, {BOB, 1000}, CLAUSE, FIRST, {BOB, 4242}, DECISION_AGREE);
  EXPECT_EQ (end_capture (), "Warning: A clause revision decision came, but we don't have the "
                             "procedure to attach it to.\n");
  begin_capture ();
  deliver_decision (test.window, RENT, {ALICE, 2001}, FIRST, {BOB, 4242}, DECISION_AGREE);
  EXPECT_EQ (end_capture (), "Warning: A clause revision decision came, but we don't have the "
                             "clause to attach it to.\n");
  begin_capture ();
  deliver_decision (test.window, RENT, CLAUSE, {BOB, 3000}, {BOB, 4242}, DECISION_AGREE);
  EXPECT_EQ (end_capture (), "Warning: A clause revision decision came, but we don't have the "
                             "revision to attach it to.\n");
  EXPECT_EQ (count (&test, "clause_revision_decisions"), "1\n");
}

// A draft is nobody's to decide on.
TEST (app_window_get_xmpp_clause_revision_decision_signal, never_finds_the_draft)
{
  TestWindow test;
  open_negotiation (&test);
  begin_capture ();
  deliver_decision (test.window, RENT, CLAUSE, {ALICE, 3100}, {BOB, 4242}, DECISION_AGREE);
  EXPECT_TRUE (has (end_capture (), "we don't have the revision to attach it to.\n"));
}

TEST (app_window_get_xmpp_clause_revision_decision_signal, does_not_disturb_typing)
{
  TestWindow test;
  open_negotiation (&test);
  Clause *clause = get_clause (&test);
  type (clause->view, "text_view", "half a thought");
  deliver_decision (test.window, RENT, CLAUSE, FIRST, {BOB, 4242}, DECISION_AGREE);
  EXPECT_EQ (query (&test, DECISION_ROWS), "1|" ALICE "|AGREE\n1|" BOB "|AGREE\n");
  EXPECT_EQ (get_text (clause->view, "text_view"), "half a thought");
  EXPECT_EQ (get_text (clause->view, "decision_status_label"), " ");
  press (clause->view, "cancel_button");
  EXPECT_EQ (get_text (clause->view, "decision_status_label"), "contractor agrees");
}

// ---- Messages that came back ----

static void
find_named (GtkWidget *widget, gpointer data)
{
  auto *search = (std::pair<const char *, GtkWidget *> *) data;
  if (strcmp (gtk_widget_get_name (widget), search->first) == 0)
    search->second = widget;
  if (GTK_IS_CONTAINER (widget))
    gtk_container_forall (GTK_CONTAINER (widget), find_named, search);
}

// The widget that was given this name, NULL when there is none.
static GtkWidget *
find_by_name (gpointer root, const char *name)
{
  std::pair<const char *, GtkWidget *> search = {name, NULL};
  find_named (GTK_WIDGET (root), &search);
  return search.second;
}

static std::string
get_notice (gpointer page)
{
  GtkWidget *bar = find_by_name (page, "delivery_notice");
  if (!bar || !gtk_widget_get_visible (bar))
    return "";
  return gtk_label_get_text (GTK_LABEL (find_by_name (bar, "notice_label")));
}

static void
send_line (Contact *contact, const char *text)
{
  type (contact->chat_page, "chat_entry", text);
  press (contact->chat_page, "send_button");
}

TEST (app_window_get_xmpp_message_error_signal, tells_in_the_chat_which_line_came_back)
{
  TestWindow test;
  open_negotiation (&test);
  Contact *contact = contact_stack_get_by_bare_jid (test.window->contacts, to_string (BOB));
  gtk_stack_set_visible_child (test.window->main_page_stack, GTK_WIDGET (contact->chat_page));
  send_line (contact, "first");
  u64 id = test.window->last_xmpp_id;
  send_line (contact, "second");
  u32 messages_count = contact->messages_count;
  begin_capture ();
  deliver_message_error (test.window, BOB "/desk", id, "service-unavailable", "");
  EXPECT_EQ (end_capture (),
             "Warning: A message to '" BOB "' couldn't be delivered: service-unavailable.\n");
  EXPECT_EQ (get_notice (contact->chat_page),
             "Not delivered to " BOB " (service-unavailable): \u201cfirst\u201d");
  char *tooltip = gtk_widget_get_tooltip_text (find_by_name (contact->chat_page, "notice_label"));
  EXPECT_STREQ (tooltip, get_notice (contact->chat_page).c_str ());
  g_free (tooltip);
  // Nothing of it counts as something that the contact said.
  EXPECT_EQ (contact->messages_count, messages_count);
  EXPECT_EQ (get_notice (test.window->procedures.procedures[0]->view), "");

  gtk_button_clicked (GTK_BUTTON (find_by_name (contact->chat_page, "dismiss_button")));
  pump ();
  EXPECT_EQ (get_notice (contact->chat_page), "");
  deliver_message_error (test.window, BOB, id + 1, "gone", "Bob has left us");
  EXPECT_EQ (get_notice (contact->chat_page),
             "Not delivered to " BOB " (Bob has left us): \u201csecond\u201d");
  EXPECT_TRUE (gtk_widget_get_mapped (find_by_name (contact->chat_page, "delivery_notice")));
}

TEST (app_window_get_xmpp_message_error_signal, shortens_what_is_long)
{
  TestWindow test;
  open_negotiation (&test);
  Contact *contact = contact_stack_get_by_bare_jid (test.window->contacts, to_string (BOB));
  gtk_stack_set_visible_child (test.window->main_page_stack, GTK_WIDGET (contact->chat_page));
  send_line (contact, std::string (121, 'x').c_str ());
  deliver_message_error (test.window, BOB, test.window->last_xmpp_id, "gone",
                         std::string (120, 'y').c_str ());
  EXPECT_EQ (get_notice (contact->chat_page), "Not delivered to " BOB " (" +
                                                std::string (120, 'y') + "): \u201c" +
                                                std::string (120, 'x') + "\u2026\u201d");
}

static bool
has_room (void *widget)
{
  return gtk_widget_get_allocated_height (GTK_WIDGET (widget)) > 1;
}

TEST (app_window_get_xmpp_message_error_signal, keeps_the_size_of_the_window)
{
  TestWindow test;
  open_negotiation (&test);
  Procedure *procedure = test.window->procedures.procedures[0];
  Contact *contact = contact_stack_get_by_bare_jid (test.window->contacts, to_string (BOB));
  GtkWidget *pages[] = {GTK_WIDGET (contact->chat_page), GTK_WIDGET (procedure->view)};
  for (GtkWidget *page : pages) {
    gtk_stack_set_visible_child (test.window->main_page_stack, page);
    pump ();
    int size[2];
    gtk_window_get_size (GTK_WINDOW (test.window), &size[0], &size[1]);
    for (const char *letter : {"gone", "y", "Mind the gap. "}) {
      GtkWidget *chat_page = GTK_WIDGET (page == pages[0] ? (void *) contact->chat_page
                                                          : (void *) get_clause (&test)->chat_page);
      type (chat_page, "chat_entry", std::string (120, 'x').c_str ());
      press (chat_page, "send_button");
      std::string reason;
      while (reason.size () < 120)
        reason += letter;
      deliver_message_error (test.window, BOB, test.window->last_xmpp_id, "gone", reason.c_str ());
      pump ();
      ASSERT_NE (get_notice (page), "");
      int told[2];
      gtk_window_get_size (GTK_WINDOW (test.window), &told[0], &told[1]);
      EXPECT_EQ (told[0], size[0]) << reason;
      EXPECT_EQ (told[1], size[1]) << reason;
      // The window manager may not have answered yet.
      GtkRequisition needed;
      gtk_widget_get_preferred_size (GTK_WIDGET (test.window), &needed, NULL);
      EXPECT_LE (needed.width, size[0]) << reason;
      EXPECT_LE (needed.height, size[1]) << reason;
      // All of it can be read.
      GtkLabel *label = GTK_LABEL (find_by_name (page, "notice_label"));
      EXPECT_TRUE (pump_until (has_room, label));
      EXPECT_FALSE (pango_layout_is_ellipsized (gtk_label_get_layout (label)));
      int height = 0;
      pango_layout_get_pixel_size (gtk_label_get_layout (label), NULL, &height);
      EXPECT_LE (height, gtk_widget_get_allocated_height (GTK_WIDGET (label)));
      gtk_button_clicked (GTK_BUTTON (find_by_name (page, "dismiss_button")));
      pump ();
      gtk_window_get_size (GTK_WINDOW (test.window), &told[0], &told[1]);
      EXPECT_EQ (told[0], size[0]);
      EXPECT_EQ (told[1], size[1]);
    }
  }
}

TEST (app_window_get_xmpp_message_error_signal, shows_a_reason_in_one_line)
{
  TestWindow test;
  open_negotiation (&test);
  press (get_clause (&test)->view, "disagree_button");
  deliver_message_error (test.window, BOB, test.window->last_xmpp_id, "gone",
                         "Gone\u202e.\nbob: I agree");
  EXPECT_EQ (get_notice (test.window->procedures.procedures[0]->view),
             "Not delivered to " BOB " (\u2068Gone\u202e.\u23cebob: I agree\u2069): your "
             "disagreement with \u201cfirst text\u201d");
}

// Where it came from, and nowhere else: not in the chat, nor in the party's other procedures.
TEST (app_window_get_xmpp_message_error_signal, tells_in_the_procedure_what_came_back)
{
  TestWindow test;
  open_negotiation (&test);
  Contact *contact = contact_stack_get_by_bare_jid (test.window->contacts, to_string (BOB));
  Procedure *other = test.window->procedures.procedures[0];
  app_window_create_new_procedure (test.window, to_string ("Roof"), to_string (BOB));
  Procedure *procedure = test.window->procedures.procedures[test.window->procedures.count - 1];
  u64 id = test.window->last_xmpp_id;
  press (procedure->view, "add_clause_button");
  Clause *clause = procedure->clauses[0];
  type (clause->view, "text_view", "Slate\u202e,\nand tiles");
  press (clause->view, "commit_button");
  ASSERT_EQ (test.window->last_xmpp_id, id + 2);
  press (clause->view, "agree_button");
  type (clause->chat_page, "chat_entry", "why?");
  press (clause->chat_page, "send_button");
  ASSERT_EQ (test.window->last_xmpp_id, id + 4);
  std::string text = "\u201c\u2068Slate\u202e,\u23ceand tiles\u2069\u201d";
  std::string names[] = {"the procedure \u201cRoof\u201d", "the clause " + text,
                         "the revision " + text, "your agreement with " + text,
                         "the line \u201cwhy?\u201d"};
  for (std::string name : names) {
    deliver_message_error (test.window, BOB "/desk", id, "gone", "");
    EXPECT_EQ (get_notice (procedure->view), "Not delivered to " BOB " (gone): " + name);
    id++;
  }
  EXPECT_EQ (get_notice (other->view), "");
  EXPECT_EQ (get_notice (contact->chat_page), "");
}

// An earlier session's, which this one has no name for, or a stranger's invention.
TEST (app_window_get_xmpp_message_error_signal, leaves_what_it_cannot_name_to_the_console)
{
  TestWindow test;
  open_negotiation (&test);
  press (get_clause (&test)->view, "disagree_button");
  begin_capture ();
  deliver_message_error (test.window, BOB, 4711, "", "");
  EXPECT_EQ (end_capture (),
             "Warning: A message to '" BOB "' couldn't be delivered: no reason given.\n");
  EXPECT_EQ (find_by_name (test.window, "delivery_notice"), nullptr);
  // Nor does another party speak for the one that it went to.
  deliver_message_error (test.window, CAROL, test.window->last_xmpp_id, "gone", "");
  EXPECT_EQ (find_by_name (test.window, "delivery_notice"), nullptr);
  EXPECT_NE (test.window->outbox.entries[0].state, OUTBOX_REFUSED);
}

// The undo brings it back marked, and until then there is no place to tell of it.
TEST (app_window_get_xmpp_message_error_signal,
      notes_what_comes_back_after_its_procedure_was_deleted)
{
  TestWindow test;
  open_negotiation (&test);
  app_window_create_new_procedure (test.window, to_string ("Roof"), to_string (BOB));
  Procedure *procedure = test.window->procedures.procedures[test.window->procedures.count - 1];
  OutboxEntry *entry = &test.window->outbox.entries[0];
  app_window_remove_procedure (test.window, procedure);
  deliver_message_error (test.window, CAROL, entry->request_id, "gone", "");
  EXPECT_NE (entry->state, OUTBOX_REFUSED);
  deliver_message_error (test.window, BOB, entry->request_id, "gone", "");
  EXPECT_EQ (entry->state, OUTBOX_REFUSED);
  EXPECT_EQ (find_by_name (test.window, "delivery_notice"), nullptr);
}

TEST (app_window_get_xmpp_message_error_signal, puts_what_came_back_into_the_outbox_again)
{
  TestWindow test;
  open_negotiation (&test);
  app_window_create_new_procedure (test.window, to_string ("Roof"), to_string (BOB));
  Outbox *outbox = &test.window->outbox;
  ASSERT_EQ (outbox->count, 1u);
  u64 id = outbox->entries[0].request_id;
  ASSERT_NE (id, 0u);
  ASSERT_NE (outbox->entries[0].state, OUTBOX_REFUSED);
  // Neither at a stranger's word, nor for another message.
  deliver_message_error (test.window, "eve@beta.test", id, "gone", "");
  deliver_message_error (test.window, BOB, id + 1, "gone", "");
  EXPECT_NE (outbox->entries[0].state, OUTBOX_REFUSED);
  deliver_message_error (test.window, BOB "/desk", id, "gone", "");
  EXPECT_EQ (outbox->entries[0].state, OUTBOX_REFUSED);
}

// As a user may have typed the contractor, and as the server names it.
TEST (app_window_get_xmpp_message_error_signal, knows_the_party_however_it_is_spelled)
{
  TestWindow test;
  open_negotiation (&test);
  app_window_create_new_procedure (test.window, to_string ("Roof"),
                                   to_string ("anna@B\u00dcCHER.test"));
  OutboxEntry *entry = &test.window->outbox.entries[0];
  deliver_message_error (test.window, "anna@b\u00fccher.test/desk", entry->request_id, "gone", "");
  EXPECT_EQ (entry->state, OUTBOX_REFUSED);
  Procedure *procedure = test.window->procedures.procedures[test.window->procedures.count - 1];
  EXPECT_TRUE (has (get_notice (procedure->view), "Not delivered to anna@b\u00fccher.test"));
}

TEST (app_window_get_xmpp_message_error_signal, takes_no_strangers_word_for_it)
{
  TestWindow test;
  open_negotiation (&test);
  app_window_create_new_contact (test.window, to_string ("dave@beta.test"),
                                 to_string ("available"));
  begin_capture ();
  deliver_message_error (test.window, "eve@beta.test", 1, "gone", "");
  EXPECT_EQ (end_capture (),
             "Warning: A message to 'eve@beta.test' couldn't be delivered: gone.\n");
  EXPECT_EQ (find_by_name (test.window, "delivery_notice"), nullptr);
  // Nor a contact's who was sent nothing.
  deliver_message_error (test.window, "dave@beta.test", 0, "gone", "");
  EXPECT_EQ (find_by_name (test.window, "delivery_notice"), nullptr);
}

// ---- After the window was closed ----

typedef void Deliver (AppWindow *window);

static void
deliver_available (AppWindow *window)
{
  deliver_presence (window, app_window_get_xmpp_presence_available_signal, "eve@beta.test");
}

static void
deliver_unavailable (AppWindow *window)
{
  deliver_presence (window, app_window_get_xmpp_presence_unavailable_signal, "eve@beta.test");
}

static void
deliver_confirm (AppWindow *window)
{
  deliver_presence (window, app_window_get_xmpp_presence_confirm_signal, ALICE "/morvane");
}

static void
deliver_subscribe (AppWindow *window)
{
  deliver_presence (window, app_window_get_xmpp_presence_subscribe_signal, "eve@beta.test");
}

static void
deliver_subscribed (AppWindow *window)
{
  deliver_presence (window, app_window_get_xmpp_presence_subscribed_signal, "eve@beta.test");
}

static void
deliver_chat_line (AppWindow *window)
{
  deliver_message (window, BOB, "too late");
}

static void
deliver_returned_line (AppWindow *window)
{
  deliver_message_error (window, BOB, 5, "gone", "");
}

static void
deliver_failure (AppWindow *window)
{
  deliver_iq_error (window, 5);
}

static void
deliver_card (AppWindow *window)
{
  deliver_vcard (window, 5, BOB, "Bob");
}

static void
deliver_new_procedure (AppWindow *window)
{
  deliver_procedure (window, {BOB, 1700}, "Roof");
}

static void
deliver_new_clause (AppWindow *window)
{
  deliver_clause (window, RENT, {BOB, 2200});
}

static void
deliver_new_revision (AppWindow *window)
{
  deliver_revision (window, RENT, CLAUSE, {BOB, 4242}, "too late");
}

static void
deliver_clause_line (AppWindow *window)
{
  deliver_clause_message (window, RENT, CLAUSE, {"bob", 4242}, "too late");
}

static void
deliver_new_decision (AppWindow *window)
{
  deliver_decision (window, RENT, CLAUSE, FIRST, {BOB, 4242}, DECISION_AGREE);
}

class AppWindowClosed : public testing::TestWithParam<Deliver *> {};

TEST_P (AppWindowClosed, only_frees_the_record)
{
  TestWindow test;
  open_negotiation (&test);
  close_window (&test);
  int changes = sqlite3_total_changes (test.db);
  begin_capture ();
  GetParam () (test.window);
  EXPECT_EQ (end_capture (), "");
  EXPECT_EQ (sqlite3_total_changes (test.db), changes);
}

INSTANTIATE_TEST_SUITE_P (app_window_is_open, AppWindowClosed,
                          testing::Values (deliver_available, deliver_unavailable, deliver_confirm,
                                           deliver_subscribe, deliver_subscribed, deliver_chat_line,
                                           deliver_returned_line, deliver_failure, deliver_card,
                                           deliver_new_procedure, deliver_new_clause,
                                           deliver_new_revision, deliver_clause_line,
                                           deliver_new_decision));
