// The undo of a deletion: how long it is offered, and what of it meets the outbox and what comes
// meanwhile. The store's rows, read before and after, are the judge.
#include "deletion.h"

#include <string>

#include "clause_chat_page.h"
#include "clause_view.h"
#include "fake_session.h"
#include "procedure_view.h"
#include "session.h"
#include "session_test.h"

#define ALICE "alice@alpha.test"
#define BOB   "bob@beta.test"

static const char ROWS[] =
  "PRAGMA synchronous = OFF;"
  "INSERT INTO accounts VALUES (1, '" ALICE "');"
  "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title)"
  " VALUES (1, 1, 1000, '" ALICE "', '" BOB "', 'Rent');"
  "INSERT INTO procedures (db_id, account_db_id, time, initiator, contractor, title)"
  " VALUES (2, 1, 1500, '" BOB "', '" ALICE "', 'Garden');"
  "INSERT INTO clauses VALUES (1, 1, 2000, '" ALICE "', 1);"
  "INSERT INTO clauses VALUES (2, 2, 2000, '" ALICE "', 1);"
  "INSERT INTO clause_revisions VALUES (1, 1, 3000, '" ALICE "', 'COMMITTED', 'first text');";

static const WireName RENT = {ALICE, 1000};
static const WireName GARDEN = {BOB, 1500};

static void
open_account (TestWindow *test)
{
  EXPECT_EQ (sqlite3_exec (test->db, ROWS, NULL, NULL, NULL), SQLITE_OK);
  log_in (test);
}

static bool
is_undo_offered (AppWindow *window)
{
  return gtk_widget_get_visible (window->undo_bar);
}

static std::string
list_titles (TestWindow *test)
{
  return query (test, "SELECT title FROM procedures ORDER BY time");
}

// ---- The end of the undo ----

TEST (deletion, can_be_undone_for_ten_seconds)
{
  TestWindow test;
  open_account (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  GSource *source = g_main_context_find_source_by_id (NULL, test.window->undo_source);
  ASSERT_TRUE (source);
  // A timeout in seconds may come up to one earlier or later, so that many are due together.
  s64 left = g_source_get_ready_time (source) - g_get_monotonic_time ();
  EXPECT_GT (left, 8 * G_USEC_PER_SEC);
  EXPECT_LE (left, 11 * G_USEC_PER_SEC);
  pump ();
  EXPECT_TRUE (is_undo_offered (test.window));

  g_source_set_ready_time (source, 0);
  EXPECT_TRUE (
    pump_until ([] (void *data) { return !is_undo_offered ((AppWindow *) data); }, test.window));
  EXPECT_EQ (test.window->undo_source, 0u);
  EXPECT_EQ (test.window->negotiation.deletion.procedure, nullptr);
  deletion_undo (test.window);
  EXPECT_EQ (list_titles (&test), "Garden\n");
}

TEST (deletion, offers_the_second_one_for_a_time_of_its_own)
{
  TestWindow test;
  open_account (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  guint first = test.window->undo_source;
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  EXPECT_FALSE (g_main_context_find_source_by_id (NULL, first));
  EXPECT_TRUE (g_main_context_find_source_by_id (NULL, test.window->undo_source));
  EXPECT_TRUE (is_undo_offered (test.window));
}

TEST (deletion, cannot_be_undone_any_more_when_the_window_closes)
{
  TestWindow test;
  open_account (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  guint source = test.window->undo_source;
  close_window (&test);
  EXPECT_FALSE (g_main_context_find_source_by_id (NULL, source));
  EXPECT_EQ (test.window->negotiation.deletion.procedure, nullptr);
  EXPECT_EQ (list_titles (&test), "Garden\n");
}

TEST (deletion, cannot_be_undone_any_more_when_the_user_logs_in_again)
{
  TestWindow test;
  open_account (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  guint source = test.window->undo_source;
  app_window_log_in_again (test.window);
  EXPECT_FALSE (g_main_context_find_source_by_id (NULL, source));
  EXPECT_FALSE (is_undo_offered (test.window));
  EXPECT_EQ (test.window->negotiation.deletion.procedure, nullptr);
  deletion_undo (test.window);
  EXPECT_EQ (list_titles (&test), "Garden\n");
}

// ---- What comes meanwhile ----

// Makes a record as the session does, but looks at nothing behind it: a held one lives on.
static void
receive_clause (AppWindow *window, WireName procedure, WireName clause)
{
  XMPPClause *record = alloc_record<XMPPClause> (window);
  record->procedure_initiator = alloc_string (procedure.author);
  record->procedure_time = procedure.time;
  record->clause_initiator = alloc_string (clause.author);
  record->clause_time = clause.time;
  app_window_get_xmpp_clause (record);
}

static void
receive_revision (AppWindow *window, WireName procedure, WireName clause, s64 time,
                  const char *text)
{
  XMPPClauseRevision *record = alloc_record<XMPPClauseRevision> (window);
  record->text = alloc_string (text);
  record->procedure_initiator = alloc_string (procedure.author);
  record->procedure_time = procedure.time;
  record->clause_initiator = alloc_string (clause.author);
  record->clause_time = clause.time;
  record->revision_author = alloc_string (BOB);
  record->revision_time = time;
  app_window_get_xmpp_clause_revision (record);
}

static void
receive_message (AppWindow *window, WireName procedure, WireName clause, s64 time, const char *text)
{
  XMPPClauseMessage *record = alloc_record<XMPPClauseMessage> (window);
  record->text = alloc_string (text);
  record->procedure_initiator = alloc_string (procedure.author);
  record->procedure_time = procedure.time;
  record->clause_initiator = alloc_string (clause.author);
  record->clause_time = clause.time;
  record->message_author = alloc_string ("bob");
  record->message_time = time;
  app_window_get_xmpp_clause_message (record);
}

static void
receive_decision (AppWindow *window, WireName procedure, WireName clause, WireName revision,
                  DecisionStatus status)
{
  XMPPClauseRevisionDecisionSignal *record =
    alloc_record<XMPPClauseRevisionDecisionSignal> (window);
  record->status = status;
  record->procedure_initiator = alloc_string (procedure.author);
  record->procedure_time = procedure.time;
  record->clause_initiator = alloc_string (clause.author);
  record->clause_time = clause.time;
  record->revision_author = alloc_string (revision.author);
  record->revision_time = revision.time;
  record->decision_author = alloc_string (BOB);
  record->decision_time = 4400;
  app_window_get_xmpp_clause_revision_decision_signal (record);
}

// Each needs the one before it: a revision its clause, a decision its revision; the last decision
// counts.
TEST (deletion, applies_what_came_meanwhile_in_its_order)
{
  TestWindow test;
  open_account (&test);
  AppWindow *window = test.window;
  const WireName NEW_CLAUSE = {BOB, 4000};
  const WireName NEW_REVISION = {BOB, 4100};
  app_window_remove_procedure (window, window->procedures.procedures[0]);
  receive_clause (window, RENT, NEW_CLAUSE);
  receive_revision (window, RENT, NEW_CLAUSE, 4100, "their clause");
  // To the other procedure, which has a clause of the same name: nothing of it is held.
  receive_revision (window, GARDEN, {ALICE, 2000}, 4150, "about the garden");
  receive_message (window, RENT, NEW_CLAUSE, 4200, "look at this");
  receive_decision (window, RENT, NEW_CLAUSE, NEW_REVISION, DECISION_AGREE);
  receive_decision (window, RENT, NEW_CLAUSE, NEW_REVISION, DECISION_DISAGREE);
  EXPECT_EQ (query (&test, "SELECT text FROM clause_revisions"), "about the garden\n");
  EXPECT_EQ (query (&test, "SELECT count(*) FROM clause_messages"), "0\n");
  EXPECT_EQ (g_slist_length (window->held_records), 5u);

  press (window, "undo_button");
  EXPECT_EQ (window->held_records, nullptr);
  EXPECT_EQ (list_titles (&test), "Rent\nGarden\n");
  EXPECT_EQ (query (&test, "SELECT p.title, r.text FROM clause_revisions r"
                           " JOIN clauses c ON c.db_id = r.clause_db_id"
                           " JOIN procedures p ON p.db_id = c.procedure_db_id ORDER BY r.time"),
             "Rent|first text\nRent|their clause\nGarden|about the garden\n");
  EXPECT_EQ (query (&test, "SELECT author, text FROM clause_messages"), "bob|look at this\n");
  EXPECT_EQ (query (&test, "SELECT author, status FROM clause_revision_decisions"),
             BOB "|DISAGREE\n");
  Procedure *procedure = window->procedures.procedures[0];
  ASSERT_EQ (procedure->clauses_count, 2u);
  EXPECT_EQ (get_text (procedure->clauses[1]->view, "text_view"), "their clause");
  EXPECT_EQ (get_text (procedure->clauses[1]->view, "decision_status_label"),
             "contractor disagrees");
}

TEST (deletion, drops_what_came_meanwhile_at_its_end)
{
  TestWindow test;
  open_account (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  receive_clause (test.window, RENT, {BOB, 4000});
  EXPECT_EQ (g_slist_length (test.window->held_records), 1u);
  deletion_end (test.window);
  EXPECT_EQ (test.window->held_records, nullptr);
  EXPECT_EQ (query (&test, "SELECT count(*) FROM clauses"), "1\n");
}

TEST (deletion, of_another_procedure_holds_nothing)
{
  TestWindow test;
  open_account (&test);
  app_window_remove_procedure (test.window, test.window->procedures.procedures[0]);
  // The same second, another initiator; the same initiator, another second.
  receive_clause (test.window, {BOB, 1000}, {BOB, 4000});
  receive_clause (test.window, {ALICE, 1001}, {BOB, 4000});
  EXPECT_EQ (test.window->held_records, nullptr);
}

// ---- The outbox ----

static std::string
owed (TestWindow *test)
{
  bool has_table =
    query (test, "SELECT count(*) FROM sqlite_master WHERE name = 'outbox'") == "1\n";
  return has_table ? query (test, "SELECT kind FROM outbox ORDER BY sequence") : "";
}

static Procedure *
begin_procedure (Session *session, const char *title)
{
  app_window_create_new_procedure (session->window, to_string (title), to_string (BOB));
  return session->window->procedures.procedures[session->window->procedures.count - 1];
}

static Clause *
commit_clause (Procedure *procedure, const char *text)
{
  press (procedure->view, "add_clause_button");
  Clause *clause = procedure->clauses[procedure->clauses_count - 1];
  type (clause->view, "text_view", text);
  press (clause->view, "commit_button");
  return clause;
}

// The elements in the order in which they came to the server.
static std::string
list_sent (const std::string &received)
{
  std::string sent;
  for (size_t at = received.find ("<x-"); at != std::string::npos;
       at = received.find ("<x-", at + 1)) {
    sent += received.substr (at + 1, received.find (' ', at) - at);
  }
  return sent;
}

// The store of a closed window in a new one, as after a restart.
static void
restart_from (Session *next, Session *last)
{
  last->close ();
  sqlite3_backup *backup = sqlite3_backup_init (next->test.db, "main", last->test.db, "main");
  EXPECT_EQ (sqlite3_backup_step (backup, -1), SQLITE_DONE);
  EXPECT_EQ (sqlite3_backup_finish (backup), SQLITE_OK);
}

static bool
is_nothing_owed (void *data)
{
  return owed (&((Session *) data)->test).empty ();
}

static bool
is_marked (GtkWidget *widget)
{
  return gtk_style_context_has_class (gtk_widget_get_style_context (widget), "not-sent");
}

TEST (deletion, takes_what_waits_out_of_the_outbox_and_an_undo_brings_it_back)
{
  Session first;
  first.begin ({server_reset ()}, {});
  EXPECT_TRUE (pump_until (is_idle, first.window));
  Procedure *procedure = begin_procedure (&first, "Lease");
  Clause *clause = commit_clause (procedure, "of a barge");
  press (clause->view, "agree_button");
  type (clause->chat_page, "chat_entry", "why?");
  press (clause->chat_page, "send_button");
  begin_procedure (&first, "Mooring");
  const std::string ALL = "procedure\nclause\nrevision\ndecision\nmessage\nprocedure\n";
  EXPECT_EQ (owed (&first.test), ALL);
  app_window_remove_procedure (first.window, procedure);
  EXPECT_EQ (owed (&first.test), "procedure\n");
  press (first.window, "undo_button");
  // Each at its place, ahead of what is younger.
  EXPECT_EQ (owed (&first.test), ALL);
  // Its new widgets say so.
  procedure = first.window->procedures.procedures[0];
  EXPECT_TRUE (is_marked (GTK_WIDGET (procedure->list_item)));
  EXPECT_TRUE (is_marked (GTK_WIDGET (procedure->clauses[0]->view)));
  EXPECT_TRUE (is_marked (find_widget (procedure->clauses[0]->view, "agree_button")));
  first.finish ();

  Session second;
  restart_from (&second, &first);
  second.begin ({server_expect_until ("Mooring</x-procedure></body></message>"), server_wait ()},
                {});
  EXPECT_TRUE (pump_until (is_nothing_owed, &second));
  scripted_server_signal (second.server);
  EXPECT_EQ (list_sent (second.finish ().received),
             "x-procedure x-clause x-revision x-clause-decision x-clause-message x-procedure ");
}

TEST (deletion, without_an_undo_sends_nothing_of_what_waited)
{
  Session first;
  first.begin ({server_reset ()}, {});
  EXPECT_TRUE (pump_until (is_idle, first.window));
  Procedure *procedure = begin_procedure (&first, "Lease");
  commit_clause (procedure, "of a barge");
  begin_procedure (&first, "Mooring");
  app_window_remove_procedure (first.window, procedure);
  first.finish ();

  Session second;
  restart_from (&second, &first);
  second.begin ({server_expect_until ("</x-procedure></body></message>"), server_wait ()}, {});
  EXPECT_TRUE (pump_until (is_nothing_owed, &second));
  scripted_server_signal (second.server);
  EXPECT_EQ (list_sent (second.finish ().received), "x-procedure ");
}
