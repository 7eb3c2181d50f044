// Delivery: a real main window commits in front of a scripted server that takes, withholds, breaks
// off and comes back. What is owed is read from the store's rows, what was sent from the wire.
#include <sys/socket.h>

#include <string>
#include <vector>

#include "clause_chat_page.h"
#include "clause_revision_list_item.h"
#include "clause_view.h"
#include "procedure_view.h"
#include "session.h"
#include "session_test.h"

static const char OWED[] = "SELECT kind FROM outbox ORDER BY sequence";
static const char BOB[] = "bob@beta.test";

static std::string
owed (TestWindow *test)
{
  bool has_table =
    query (test, "SELECT count(*) FROM sqlite_master WHERE name = 'outbox'") == "1\n";
  return has_table ? query (test, OWED) : "no table";
}

static bool
is_table_gone (void *data)
{
  return owed (&((Session *) data)->test) == "no table";
}

static bool
is_table_empty (void *data)
{
  std::string rows = owed (&((Session *) data)->test);
  return rows.empty () || rows == "no table";
}

static Procedure *
begin_procedure (Session *session)
{
  app_window_create_new_procedure (session->window, to_string ("Lease"), to_string (BOB));
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

// One object of each kind.
static Procedure *
do_everything (Session *session)
{
  Procedure *procedure = begin_procedure (session);
  Clause *clause = commit_clause (procedure, "First");
  press (clause->view, "agree_button");
  type (clause->chat_page, "chat_entry", "why?");
  press (clause->chat_page, "send_button");
  return procedure;
}

// The elements of the five kinds in the order in which they went out.
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

static LoginOptions
managed ()
{
  LoginOptions options;
  options.offers_stream_management = true;
  return options;
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

static const char ALL_SENT[] =
  "x-procedure x-clause x-revision x-clause-decision x-clause-message ";
static const char ALL_OWED[] = "procedure\nclause\nrevision\ndecision\nmessage\n";

// ---- Without stream management ----

TEST (delivery, what_the_servers_system_took_is_no_longer_owed_and_the_table_goes)
{
  Session session;
  session.begin ({server_expect_until ("</x-clause-message></body></message>"), server_wait ()},
                 {});
  s64 start = g_get_monotonic_time ();
  do_everything (&session);
  EXPECT_TRUE (pump_until (is_table_empty, &session));
  EXPECT_TRUE (pump_until (is_table_gone, &session));
  // It was there for a second while it was empty.
  EXPECT_GT (g_get_monotonic_time () - start, 900000);
  scripted_server_signal (session.server);
  EXPECT_EQ (list_sent (session.finish ().received), ALL_SENT);
}

TEST (delivery, what_is_committed_without_a_session_goes_out_at_the_next_login)
{
  Session first;
  first.begin ({server_reset ()}, {});
  EXPECT_TRUE (pump_until (is_idle, first.window));
  Procedure *procedure = do_everything (&first);
  press (procedure->view, "add_clause_button");
  type (procedure->clauses[1]->view, "text_view", "A draft, which is nobody's business");
  EXPECT_EQ (owed (&first.test), ALL_OWED);
  first.finish ();

  Session second;
  restart_from (&second, &first);
  EXPECT_EQ (owed (&second.test), ALL_OWED);
  second.begin ({server_expect_until ("</x-clause-message></body></message>"), server_wait ()}, {});
  EXPECT_TRUE (pump_until (is_table_gone, &second));
  scripted_server_signal (second.server);
  EXPECT_EQ (list_sent (second.finish ().received), ALL_SENT);
}

TEST (delivery, old_things_go_before_new_ones)
{
  Session first;
  first.begin ({server_reset ()}, {});
  EXPECT_TRUE (pump_until (is_idle, first.window));
  Procedure *procedure = begin_procedure (&first);
  commit_clause (procedure, "First");
  first.finish ();
  Session second;
  restart_from (&second, &first);
  second.begin ({server_expect_until (">Second</x-revision></body></message>")}, {});
  procedure = second.window->procedures.procedures[0];
  type (procedure->clauses[0]->view, "text_view", "Second");
  press (procedure->clauses[0]->view, "commit_button");
  EXPECT_EQ (list_sent (second.finish ().received), "x-procedure x-clause x-revision x-revision ");
}

TEST (delivery, what_was_taken_and_not_answered_is_owed_again)
{
  Session session;
  session.begin ({server_expect_until ("</x-clause-message></body></message>"), server_reset ()},
                 {});
  do_everything (&session);
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_EQ (owed (&session.test), ALL_OWED);
  session.finish ();
}

TEST (delivery, a_word_of_the_server_settles_what_was_taken_before_it)
{
  Session session;
  session.begin ({server_expect_until ("</x-clause-message></body></message>"), server_wait (),
                  server_send ("<presence from='bob@beta.test' to='alice@alpha.test'/>"),
                  server_wait (), server_reset ()},
                 {});
  do_everything (&session);
  // As if the server took long to speak.
  session.window->stream_management.heard_delay = 0;
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until ([] (void *data) { return ((AppWindow *) data)->contacts.count == 1; },
                           session.window));
  Clause *clause = session.window->procedures.procedures[0]->clauses[0];
  type (clause->view, "text_view", "Second");
  press (clause->view, "commit_button");
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_EQ (owed (&session.test), "revision\n");
  session.finish ();
}

static bool
has_contact (void *data)
{
  return ((AppWindow *) data)->contacts.count == 1;
}

TEST (delivery, what_stands_in_the_socket_is_owed_whatever_the_server_says)
{
  Session session;
  session.begin ({server_wait_deaf (),
                  server_send ("<presence from='bob@beta.test' to='alice@alpha.test'/>"),
                  server_wait_deaf (), server_reset ()},
                 {});
  session.window->stream_management.heard_delay = 0;
  fill_socket (&session);
  do_everything (&session);
  EXPECT_EQ (get_tls_send_state (session.window->connection.tls_session).waiting_size, 0u);
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (has_contact, session.window));
  EXPECT_EQ (owed (&session.test), ALL_OWED);
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_EQ (owed (&session.test), ALL_OWED);
  session.finish ();
}

TEST (delivery, a_server_that_reads_on_settles_it)
{
  Session session;
  session.begin ({server_wait_deaf (), server_expect_until ("</x-clause-message></body></message>"),
                  server_wait ()},
                 {});
  fill_socket (&session);
  do_everything (&session);
  EXPECT_EQ (owed (&session.test), ALL_OWED);
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (is_table_gone, &session));
  scripted_server_signal (session.server);
  session.finish ();
}

// The interface is to hear of what waits, and hears of the loss first. Of a real loss the worker would
// write its end of the stream, and nothing would wait any more.
TEST (delivery, a_lost_session_does_not_watch_its_socket)
{
  Session session;
  session.begin ({server_wait_deaf ()}, {});
  pump ();
  gnutls_session_t tls_session = session.window->connection.tls_session;
  int room = 10000;
  setsockopt (session.window->connection.socket, SOL_SOCKET, SO_SNDBUF, &room, sizeof (room));
  std::string text (10000, 'x');
  for (int i = 0; i < 1000 && !get_tls_send_state (tls_session).waiting_size; ++i)
    send_all_tls_data (tls_session, {(u8 *) text.data (), text.size ()});
  EXPECT_EQ (g_atomic_int_get (&session.window->is_send_change_known), 1);
  session.window->is_connected = false;
  EXPECT_TRUE (pump_until (
    [] (void *data) { return g_atomic_int_get (&((AppWindow *) data)->is_send_change_known) == 0; },
    session.window));
  EXPECT_GT (get_tls_send_state (tls_session).waiting_size, 0u);
  EXPECT_EQ (session.window->send_source, 0u);
  session.window->is_connected = true;
  scripted_server_signal (session.server);
  app_window_lose_session (session.window);
  EXPECT_TRUE (pump_until (is_idle, session.window));
  session.finish ();
}

TEST (delivery, the_end_of_the_servers_stream_settles_too)
{
  Session session;
  session.begin ({server_expect_until ("</x-clause-message></body></message>"), server_wait (),
                  server_send ("</stream:stream>"), server_close_notify (),
                  server_expect ("</stream:stream>")},
                 {});
  do_everything (&session);
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_TRUE (is_table_empty (&session));
  session.finish ();
}

TEST (delivery, a_closed_window_leaves_what_is_in_doubt)
{
  Session session;
  session.begin ({server_expect_until ("</x-clause-message></body></message>"), server_wait ()},
                 {});
  do_everything (&session);
  EXPECT_TRUE (scripted_server_wait_steps (session.server, script_login (JID).size () + 1));
  session.close ();
  EXPECT_EQ (owed (&session.test), ALL_OWED);
  scripted_server_stop (session.server);
  session.server = NULL;
}

// ---- With stream management ----

TEST (delivery, an_acknowledged_object_is_no_longer_owed)
{
  Session session;
  // Roster, presence and the five.
  session.begin ({server_expect_until ("</x-clause-message></body></message>"), server_wait (),
                  server_send ("<a xmlns='urn:xmpp:sm:3' h='4'/>"), server_wait (),
                  server_send ("<a xmlns='urn:xmpp:sm:3' h='7'/>"), server_wait ()},
                 managed ());
  do_everything (&session);
  EXPECT_EQ (owed (&session.test), ALL_OWED);
  scripted_server_signal (session.server);
  EXPECT_TRUE (
    pump_until ([] (
                  void *
                    data) { return owed ((TestWindow *) data) == "revision\ndecision\nmessage\n"; },
                &session.test));
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (is_table_gone, &session));
  scripted_server_signal (session.server);
  session.finish ();
}

TEST (delivery, what_was_not_acknowledged_is_sent_again)
{
  Session first;
  first.begin ({server_expect_until ("</x-clause-message></body></message>"),
                server_send ("<a xmlns='urn:xmpp:sm:3' h='4'/>"), server_close_notify (),
                server_expect_until ("</stream:stream>")},
               managed ());
  do_everything (&first);
  EXPECT_TRUE (pump_until (is_idle, first.window));
  first.finish ();
  EXPECT_EQ (owed (&first.test), "revision\ndecision\nmessage\n");
  Session second;
  restart_from (&second, &first);
  second.begin ({server_expect_until ("</x-clause-message></body></message>"),
                 server_send ("<a xmlns='urn:xmpp:sm:3' h='5'/>"), server_wait ()},
                managed ());
  EXPECT_TRUE (pump_until (is_table_gone, &second));
  scripted_server_signal (second.server);
  EXPECT_EQ (list_sent (second.finish ().received),
             "x-revision x-clause-decision x-clause-message ");
}

// ---- What comes back ----

static bool
owes_revision (void *data)
{
  return owed (&((Session *) data)->test) == "revision\n";
}

static bool
is_told_undelivered (void *data)
{
  return ((Session *) data)->console ().find ("couldn't be delivered") != std::string::npos;
}

// As a bounce of an earlier session, whose ids were the same.
TEST (delivery, what_came_back_from_another_party_is_none_of_this_one)
{
  Session session;
  session.begin ({server_expect_until (">Sale</x-procedure></body></message>"), server_wait (),
                  server_send ("<message type='error' id='5' from='carla@beta.test' "
                               "to='alice@alpha.test/morvane'><error type='cancel'>"
                               "<service-unavailable xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/>"
                               "</error></message>"),
                  server_wait ()},
                 {});
  do_everything (&session);
  app_window_create_new_procedure (session.window, to_string ("Sale"),
                                   to_string ("carla@beta.test"));
  EXPECT_TRUE (pump_until (is_table_empty, &session));
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (is_told_undelivered, &session));
  EXPECT_TRUE (is_table_empty (&session));
  scripted_server_signal (session.server);
  session.finish ();
}

TEST (delivery, what_came_back_is_owed_and_goes_out_in_the_next_session_only)
{
  Session first;
  // Binding and roster took the first two ids, then come procedure, clause and revision.
  first.begin ({server_expect_until ("</x-clause-message></body></message>"), server_wait (),
                server_send ("<message type='error' id='5' from='bob@beta.test' "
                             "to='alice@alpha.test/morvane'><error type='cancel'>"
                             "<service-unavailable xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/>"
                             "</error></message>"),
                server_wait (), server_send ("</stream:stream>"), server_close_notify (),
                server_expect_until ("</stream:stream>")},
               {});
  Procedure *procedure = do_everything (&first);
  scripted_server_signal (first.server);
  EXPECT_TRUE (pump_until (owes_revision, &first));
  // The table stays.
  EXPECT_EQ (first.window->outbox_table_source, 0u);
  GtkWidget *label = find_widget (procedure->clauses[0]->view, "revision_status_label");
  EXPECT_TRUE (gtk_style_context_has_class (gtk_widget_get_style_context (label), "not-sent"));
  scripted_server_signal (first.server);
  EXPECT_TRUE (pump_until (is_idle, first.window));
  EXPECT_EQ (list_sent (first.finish ().received), ALL_SENT);
  EXPECT_EQ (owed (&first.test), "revision\n");

  Session second;
  restart_from (&second, &first);
  second.begin ({server_expect_until ("</x-revision></body></message>"), server_wait ()}, {});
  EXPECT_TRUE (pump_until (is_table_gone, &second));
  scripted_server_signal (second.server);
  EXPECT_EQ (list_sent (second.finish ().received), "x-revision ");
}

static std::string
bounce (const char *id)
{
  return std::string ("<message type='error' id='") + id +
         "' from='bob@beta.test' to='alice@alpha.test/morvane'><error type='cancel'>"
         "<service-unavailable xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error></message>";
}

static bool
are_four_told_undelivered (void *data)
{
  return count_of (((Session *) data)->console (), "couldn't be delivered") == 4;
}

static bool
owes_procedure (void *data)
{
  return owed (&((Session *) data)->test) == "procedure\n";
}

// As of a contractor who has an account a minute later. A revision alone would be dropped there.
TEST (delivery, what_came_back_goes_ahead_of_what_follows_it_in_its_procedure)
{
  Session session;
  session.begin ({server_expect_until (">Lease</x-procedure></body></message>"),
                  server_expect_until (">First</x-revision></body></message>"),
                  server_expect_until (">Lease</x-procedure></body></message>"),
                  server_send (bounce ("3") + bounce ("4") + bounce ("5") + bounce ("6")),
                  server_expect_until (">Second</x-revision></body></message>"), server_wait ()},
                 {});
  Clause *clause = commit_clause (begin_procedure (&session), "First");
  begin_procedure (&session);
  EXPECT_TRUE (pump_until (are_four_told_undelivered, &session));
  EXPECT_EQ (owed (&session.test), "procedure\nclause\nrevision\nprocedure\n");
  type (clause->view, "text_view", "Second");
  press (clause->view, "commit_button");
  // What came back of another procedure waits for its own.
  EXPECT_TRUE (pump_until (owes_procedure, &session));
  GtkWidget *label = find_widget (clause->view, "revision_status_label");
  EXPECT_FALSE (gtk_style_context_has_class (gtk_widget_get_style_context (label), "not-sent"));
  scripted_server_signal (session.server);
  EXPECT_EQ (list_sent (session.finish ().received), "x-procedure x-clause x-revision x-procedure "
                                                     "x-procedure x-clause x-revision x-revision ");
}

TEST (delivery, the_first_object_can_come_back_too)
{
  Session session;
  session.begin ({server_expect_until ("</x-clause-message></body></message>"), server_wait (),
                  server_send ("<message type='error' id='3' from='bob@beta.test' "
                               "to='alice@alpha.test/morvane'><error type='cancel'>"
                               "<service-unavailable xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/>"
                               "</error></message>"),
                  server_wait ()},
                 {});
  do_everything (&session);
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (owes_procedure, &session));
  scripted_server_signal (session.server);
  session.finish ();
}

// ---- Marks ----

static std::string
mark_of (GtkWidget *widget)
{
  bool has_class = gtk_style_context_has_class (gtk_widget_get_style_context (widget), "not-sent");
  char *tooltip = gtk_widget_get_tooltip_text (widget);
  const char *description = atk_object_get_description (gtk_widget_get_accessible (widget));
  std::string mark = std::string (has_class ? "class" : "") + "|" + (tooltip ? tooltip : "") + "|" +
                     (description ? description : "");
  g_free (tooltip);
  return mark;
}

static const char MARK[] = "class|not sent yet|not sent yet";
static const char NO_MARK[] = "||";

struct Marked {
  GtkWidget *procedure;
  GtkWidget *clause;
  GtkWidget *revision;
  GtkWidget *message;
  GtkWidget *agree;
};

static Marked
find_marked (Procedure *procedure)
{
  Clause *clause = procedure->clauses[0];
  return {GTK_WIDGET (procedure->list_item), GTK_WIDGET (clause->view),
          find_widget (clause->view, "revision_status_label"),
          find_widget (clause->chat_page, "chat_text_view"),
          find_widget (clause->view, "agree_button")};
}

TEST (marks, each_object_that_did_not_go_out_says_so_until_it_has_gone)
{
  Session first;
  first.begin ({server_reset ()}, {});
  EXPECT_TRUE (pump_until (is_idle, first.window));
  Procedure *procedure = do_everything (&first);
  Marked marked = find_marked (procedure);
  EXPECT_EQ (mark_of (marked.procedure), MARK);
  EXPECT_EQ (mark_of (marked.clause), MARK);
  EXPECT_EQ (mark_of (marked.revision), MARK);
  EXPECT_EQ (mark_of (marked.message), MARK);
  std::string agree = mark_of (marked.agree);
  EXPECT_EQ (agree.find ("class|Agree with the revision of alice@alpha.test, "), 0u) << agree;
  EXPECT_NE (agree.find (" (not sent yet)|not sent yet"), std::string::npos) << agree;
  first.finish ();

  Session second;
  restart_from (&second, &first);
  second.begin ({server_expect_until ("</x-clause-message></body></message>"), server_wait ()}, {});
  marked = find_marked (second.window->procedures.procedures[0]);
  for (GtkWidget *widget : {marked.procedure, marked.clause, marked.revision, marked.message})
    EXPECT_EQ (mark_of (widget), NO_MARK);
  scripted_server_signal (second.server);
  second.finish ();
}

TEST (marks, what_went_out_bears_none_and_what_is_in_doubt_gets_one)
{
  Session session;
  session.begin ({server_expect_until ("</x-clause-message></body></message>"), server_wait (),
                  server_reset ()},
                 {});
  Marked marked = find_marked (do_everything (&session));
  for (GtkWidget *widget : {marked.procedure, marked.clause, marked.revision, marked.message})
    EXPECT_EQ (mark_of (widget), NO_MARK);
  EXPECT_EQ (mark_of (marked.agree).find ("class"), std::string::npos);
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_EQ (mark_of (marked.procedure), MARK);
  EXPECT_EQ (mark_of (marked.clause), MARK);
  EXPECT_EQ (mark_of (marked.revision), MARK);
  EXPECT_EQ (mark_of (marked.message), MARK);
  session.finish ();
}

TEST (marks, the_draft_that_is_shown_bears_none)
{
  Session session;
  session.begin ({server_reset ()}, {});
  EXPECT_TRUE (pump_until (is_idle, session.window));
  Procedure *procedure = do_everything (&session);
  Clause *clause = procedure->clauses[0];
  Marked marked = find_marked (procedure);
  type (clause->view, "text_view", "Another text");
  EXPECT_EQ (mark_of (marked.revision), NO_MARK);
  EXPECT_EQ (mark_of (marked.agree), "|Agree|");
  press (clause->view, "cancel_button");
  EXPECT_EQ (mark_of (marked.revision), MARK);
  session.finish ();
}

// The first list below a widget.
static GtkListBox *
find_list_box (GtkWidget *widget)
{
  if (GTK_IS_LIST_BOX (widget))
    return GTK_LIST_BOX (widget);
  GtkListBox *found = NULL;
  if (GTK_IS_CONTAINER (widget)) {
    GList *children = gtk_container_get_children (GTK_CONTAINER (widget));
    for (GList *link = children; link && !found; link = link->next)
      found = find_list_box (GTK_WIDGET (link->data));
    g_list_free (children);
  }
  return found;
}

TEST (marks, the_rows_of_revisions_bear_them)
{
  Session session;
  session.begin ({server_expect_until ("</x-clause-message></body></message>"), server_wait (),
                  server_send ("</stream:stream>"), server_close_notify (),
                  server_expect ("</stream:stream>")},
                 {});
  Clause *clause = do_everything (&session)->clauses[0];
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (is_idle, session.window));
  type (clause->view, "text_view", "Second");
  press (clause->view, "commit_button");
  GtkWidget *list = find_widget (clause->view, "revision_select_menu_button");
  GtkPopover *popover = gtk_menu_button_get_popover (GTK_MENU_BUTTON (list));
  std::string marks;
  GtkListBox *box = find_list_box (GTK_WIDGET (popover));
  for (ClauseRevision *revision : {clause->revisions[0], clause->revisions[1]})
    marks += mark_of (GTK_WIDGET (clause_revision_list_item_find_row (box, revision))) + " ";
  EXPECT_EQ (marks, std::string (NO_MARK) + " " + MARK + " ");
  session.finish ();
}

TEST (marks, an_undo_brings_them_back)
{
  Session session;
  session.begin ({server_reset ()}, {});
  EXPECT_TRUE (pump_until (is_idle, session.window));
  app_window_remove_procedure (session.window, do_everything (&session));
  press (session.window, "undo_button");
  ASSERT_EQ (session.window->procedures.count, 1u);
  Marked marked = find_marked (session.window->procedures.procedures[0]);
  for (GtkWidget *widget : {marked.procedure, marked.clause, marked.revision, marked.message})
    EXPECT_EQ (mark_of (widget), MARK);
  session.finish ();
}

TEST (marks, of_a_decision_goes_to_the_other_button_with_it)
{
  Session session;
  session.begin ({server_reset ()}, {});
  EXPECT_TRUE (pump_until (is_idle, session.window));
  Clause *clause = do_everything (&session)->clauses[0];
  GtkWidget *agree = find_widget (clause->view, "agree_button");
  GtkWidget *disagree = find_widget (clause->view, "disagree_button");
  EXPECT_EQ (mark_of (agree).find ("class"), 0u);
  EXPECT_EQ (mark_of (disagree).find ("class"), std::string::npos);
  press (clause->view, "disagree_button");
  EXPECT_EQ (query (&session.test, "SELECT status FROM clause_revision_decisions"), "DISAGREE\n");
  EXPECT_EQ (mark_of (agree).find ("class"), std::string::npos);
  EXPECT_EQ (mark_of (agree).find ("not sent yet"), std::string::npos);
  EXPECT_EQ (mark_of (disagree).find ("class"), 0u);
  session.finish ();
}

// ---- Our end of the stream ----

// The server ends its side when the test says so, as one that first sends what it still has.
static ServerScript
end_late ()
{
  return {server_expect_until ("</stream:stream>"), server_wait (),
          server_send ("</stream:stream>"), server_close_notify ()};
}

static bool
has_ended (void *data)
{
  return has_ended_xmpp_stream ((AppWindow *) data);
}

static bool
is_login_page_shown (void *data)
{
  return get_page ((AppWindow *) data, "stack") == "login_page";
}

TEST (delivery, what_is_committed_behind_our_end_of_the_stream_is_owed_and_marked)
{
  for (bool is_managed : {false, true}) {
    LoginOptions options = is_managed ? managed () : LoginOptions ();
    Session first;
    first.begin (end_late (), options);
    AppWindow *window = first.window;
    app_window_log_in_again (window);
    EXPECT_TRUE (pump_until (has_ended, window));
    Marked marked = find_marked (do_everything (&first));
    for (GtkWidget *widget : {marked.procedure, marked.clause, marked.revision, marked.message})
      EXPECT_EQ (mark_of (widget), MARK);
    EXPECT_EQ (owed (&first.test), ALL_OWED);
    scripted_server_signal (first.server);
    EXPECT_TRUE (pump_until (is_login_page_shown, window));
    EXPECT_EQ (owed (&first.test), ALL_OWED);
    ServerReport report = first.finish ();
    EXPECT_EQ (list_sent (report.received), "");
    EXPECT_EQ (report.rest, "");

    Session second;
    restart_from (&second, &first);
    second.begin ({server_expect_until ("</x-clause-message></body></message>"), server_wait ()},
                  {});
    EXPECT_TRUE (pump_until (is_table_gone, &second));
    scripted_server_signal (second.server);
    EXPECT_EQ (list_sent (second.finish ().received), ALL_SENT);
  }
}

TEST (delivery, what_went_out_ahead_of_our_end_is_settled_by_the_servers)
{
  Session session;
  session.begin (end_late (), {});
  begin_procedure (&session);
  app_window_log_in_again (session.window);
  EXPECT_TRUE (pump_until (has_ended, session.window));
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (is_login_page_shown, session.window));
  EXPECT_EQ (owed (&session.test), "no table");
  EXPECT_EQ (list_sent (session.finish ().received), "x-procedure ");
}

TEST (contact_chat_page_send, tells_of_a_line_behind_our_end_of_the_stream)
{
  Session session;
  session.begin (end_late (), {});
  AppWindow *window = session.window;
  app_window_create_new_contact (window, to_string (BOB), to_string ("available"));
  Contact *contact = window->contacts.contacts[0];
  gtk_stack_set_visible_child (window->main_page_stack, GTK_WIDGET (contact->chat_page));
  type (contact->chat_page, "chat_entry", "on time");
  press (contact->chat_page, "send_button");
  EXPECT_EQ (g_object_get_data (G_OBJECT (contact->chat_page), "delivery-notice"), nullptr);
  app_window_log_in_again (window);
  EXPECT_TRUE (pump_until (has_ended, window));
  type (contact->chat_page, "chat_entry", "too late");
  press (contact->chat_page, "send_button");
  gpointer bar = g_object_get_data (G_OBJECT (contact->chat_page), "delivery-notice");
  ASSERT_NE (bar, nullptr);
  std::string notice = gtk_label_get_text (GTK_LABEL (g_object_get_data (G_OBJECT (bar), "label")));
  EXPECT_NE (notice.find ("too late"), std::string::npos) << notice;
  EXPECT_NE (notice.find ("not connected"), std::string::npos) << notice;
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (is_login_page_shown, window));
  ServerReport report = session.finish ();
  EXPECT_NE (report.received.find ("on time"), std::string::npos);
  EXPECT_EQ (report.received.find ("too late"), std::string::npos);
}

// ---- What the server does not take ----

static const char TOO_BIG[] =
  "<stream:error><policy-violation xmlns='urn:ietf:params:xml:ns:xmpp-streams'/>"
  "<text xmlns='urn:ietf:params:xml:ns:xmpp-streams'>XML stanza is too big</text>"
  "<stanza-too-big xmlns='urn:xmpp:errors'/></stream:error>";

// Each row with its kind, in the order of sending; what is not to be sent comes first.
static std::string
held_and_owed (TestWindow *test)
{
  return query (test, "SELECT CASE sequence WHEN 0 THEN 'held ' ELSE '' END || kind FROM outbox "
                      "ORDER BY sequence, db_id");
}

// A text of so many bytes that ends in its name.
static std::string
make_long_text (size_t size, const std::string &name)
{
  std::string text;
  while (text.size () + name.size () < size)
    text += "wordy ";
  return text.substr (0, size - name.size ()) + name;
}

// What a server says in two breaths that counts stanzas and refuses one.
static Pieces
refuse_after (int count)
{
  return {"<a xmlns='urn:xmpp:sm:3' h='" + std::to_string (count) + "'/>",
          std::string (TOO_BIG) + "</stream:stream>"};
}

// The server gets everything up to the end of a text and refuses it, with so many acknowledged.
static ServerScript
refuse_behind (const std::string &tail, int count)
{
  return {server_expect_until (tail), server_send (refuse_after (count)), server_close_notify (),
          server_expect_until ("</stream:stream>")};
}

static std::string
notice_on (Procedure *procedure)
{
  GtkWidget *page = find_widget (procedure->view, "main_box");
  gpointer bar = g_object_get_data (G_OBJECT (page), "delivery-notice");
  return bar ? gtk_label_get_text (GTK_LABEL (g_object_get_data (G_OBJECT (bar), "label"))) : "";
}

static const char REVISION_END[] = "</x-revision></body></message>";

static void
commit_revision (Clause *clause, const std::string &text)
{
  type (clause->view, "text_view", text.c_str ());
  press (clause->view, "commit_button");
}

// Prosody sends error and end in one record, ejabberd in two; neither end says that all was read.
TEST (delivery, a_revision_that_the_server_refuses_for_its_size_is_held_and_the_rest_goes_out)
{
  for (bool is_in_one_record : {true, false}) {
    Session first;
    std::string end = "</stream:stream>";
    first.begin ({server_expect_until (std::string ("LONG") + REVISION_END),
                  server_send (is_in_one_record ? Pieces{TOO_BIG + end} : Pieces{TOO_BIG, end}),
                  server_close_notify (), server_expect ("</stream:stream>")},
                 {});
    Procedure *procedure = begin_procedure (&first);
    commit_clause (procedure, "First");
    Clause *clause = commit_clause (procedure, make_long_text (12000, "LONG").c_str ());
    EXPECT_TRUE (pump_until (is_idle, first.window));
    // What came before it was read, but nothing has said so.
    EXPECT_EQ (held_and_owed (&first.test), "held revision\nprocedure\nclause\nrevision\nclause\n");
    EXPECT_EQ (mark_of (find_widget (clause->view, "revision_status_label")), MARK);
    std::string notice = notice_on (procedure);
    EXPECT_EQ (notice.find ("Not delivered to bob@beta.test (the server takes no text as long"), 0u)
      << notice;
    EXPECT_NE (notice.find ("the revision \u201cwordy wordy"), std::string::npos) << notice;
    EXPECT_EQ (count_of (first.console (), "Warning: Received unknown XML data.\n"), 1u);
    first.finish ();

    Session second;
    restart_from (&second, &first);
    second.begin ({server_expect_until (std::string (">Short") + REVISION_END), server_wait ()},
                  {});
    procedure = second.window->procedures.procedures[0];
    clause = procedure->clauses[1];
    EXPECT_EQ (mark_of (find_widget (clause->view, "revision_status_label")), MARK);
    EXPECT_EQ (notice_on (procedure), notice);
    commit_revision (clause, "Short");
    EXPECT_EQ (mark_of (find_widget (clause->view, "revision_status_label")), NO_MARK);
    EXPECT_TRUE (
      pump_until ([] (void
                        *data) { return held_and_owed ((TestWindow *) data) == "held revision\n"; },
                  &second.test));
    scripted_server_signal (second.server);
    EXPECT_EQ (list_sent (second.finish ().received),
               "x-procedure x-clause x-revision x-clause x-revision ");
    EXPECT_EQ (held_and_owed (&second.test), "held revision\n");
    EXPECT_TRUE (pump_until (is_idle, second.window));

    // One that has a newer one in its place is not told of for ever.
    Session third;
    restart_from (&third, &second);
    third.begin ({server_expect_until (std::string (">Short") + REVISION_END), server_wait ()}, {});
    EXPECT_EQ (notice_on (third.window->procedures.procedures[0]), "");
    scripted_server_signal (third.server);
    EXPECT_EQ (third.finish ().received.find ("LONG"), std::string::npos);
  }
}

TEST (delivery, with_acknowledgements_only_what_was_not_acknowledged_is_in_doubt)
{
  Session first;
  std::string long_end = std::string ("LONG") + REVISION_END;
  // Roster, presence, procedure and twice clause and revision; the last of these is refused.
  first.begin (refuse_behind (long_end, 6), managed ());
  Procedure *procedure = begin_procedure (&first);
  commit_clause (procedure, make_long_text (11000, "innocent").c_str ());
  commit_clause (procedure, make_long_text (12000, "LONG").c_str ());
  EXPECT_TRUE (pump_until (is_idle, first.window));
  EXPECT_EQ (held_and_owed (&first.test), "held revision\n");
  EXPECT_EQ (notice_on (procedure).find ("Not delivered to bob@beta.test"), 0u);
  first.finish ();
  Session second;
  restart_from (&second, &first);
  second.begin ({server_expect_until (std::string (">Short") + REVISION_END), server_wait ()},
                managed ());
  commit_revision (second.window->procedures.procedures[0]->clauses[1], "Short");
  scripted_server_signal (second.server);
  EXPECT_EQ (list_sent (second.finish ().received), "x-revision ");
}

// The first that is too large ends the session, and what is larger is too large as well.
TEST (delivery, each_lost_session_holds_one_of_several)
{
  for (bool is_larger_first : {false, true}) {
    std::string larger = make_long_text (12000, "LARGER");
    std::string smaller = make_long_text (11000, "SMALLER");
    Session first;
    first.begin ({server_expect_until (is_larger_first ? "LARGER" : "SMALLER"),
                  server_expect_until (is_larger_first ? "SMALLER" : "LARGER"),
                  server_send (refuse_after (4)), server_close_notify (),
                  server_expect_until ("</stream:stream>")},
                 managed ());
    Procedure *procedure = begin_procedure (&first);
    commit_clause (procedure, (is_larger_first ? larger : smaller).c_str ());
    commit_clause (procedure, (is_larger_first ? smaller : larger).c_str ());
    EXPECT_TRUE (pump_until (is_idle, first.window));
    std::string owed_then =
      is_larger_first ? "held revision\nclause\nrevision\n" : "held revision\nrevision\nclause\n";
    EXPECT_EQ (held_and_owed (&first.test), owed_then);
    EXPECT_NE (notice_on (procedure), "");
    first.finish ();

    Session second;
    restart_from (&second, &first);
    second.begin ({server_expect_until (std::string ("SMALLER") + REVISION_END),
                   server_send (refuse_after (is_larger_first ? 3 : 2)), server_close_notify (),
                   server_expect_until ("</stream:stream>")},
                  managed ());
    EXPECT_TRUE (pump_until (is_idle, second.window));
    EXPECT_EQ (second.finish ().received.find ("LARGER"), std::string::npos);
    EXPECT_EQ (held_and_owed (&second.test), is_larger_first
                                               ? "held revision\nheld revision\n"
                                               : "held revision\nheld revision\nclause\n");

    Session third;
    restart_from (&third, &second);
    third.begin ({server_wait ()}, managed ());
    scripted_server_signal (third.server);
    EXPECT_EQ (list_sent (third.finish ().received), is_larger_first ? "" : "x-clause ");
  }
}

// Also while the session is being ended by the user: the server's end then answers ours, and has not
// read all the same.
TEST (delivery, what_the_server_refuses_behind_our_end_is_held)
{
  for (bool is_managed : {false, true}) {
    Session session;
    session.begin ({server_expect_until ("</stream:stream>"),
                    server_send (is_managed ? refuse_after (4)
                                            : Pieces{std::string (TOO_BIG) + "</stream:stream>"}),
                    server_close_notify ()},
                   is_managed ? managed () : LoginOptions ());
    commit_clause (begin_procedure (&session), make_long_text (12000, "LONG").c_str ());
    app_window_log_in_again (session.window);
    EXPECT_TRUE (pump_until (is_login_page_shown, session.window));
    EXPECT_EQ (held_and_owed (&session.test),
               is_managed ? "held revision\n" : "held revision\nprocedure\nclause\n");
    session.finish ();
  }
}

// Of 10,000 bytes with all that stands around the text.
TEST (delivery, what_every_server_has_to_take_is_never_held)
{
  Session session;
  session.begin (refuse_behind (std::string ("LONG") + REVISION_END, 4), managed ());
  commit_clause (begin_procedure (&session), make_long_text (9000, "LONG").c_str ());
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_EQ (held_and_owed (&session.test), "revision\n");
  EXPECT_EQ (notice_on (session.window->procedures.procedures[0]), "");
  session.finish ();
}

TEST (delivery, a_larger_line_to_a_contact_is_what_was_refused)
{
  Session session;
  session.begin (refuse_behind ("CHAT</body></message>", 4), managed ());
  app_window_create_new_contact (session.window, to_string (BOB), to_string ("available"));
  Contact *contact = session.window->contacts.contacts[0];
  commit_clause (begin_procedure (&session), make_long_text (12000, "LONG").c_str ());
  type (contact->chat_page, "chat_entry", make_long_text (13000, "CHAT").c_str ());
  press (contact->chat_page, "send_button");
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_EQ (held_and_owed (&session.test), "revision\n");
  session.finish ();
}

// Anyone may put such an element into a message.
TEST (delivery, an_error_within_a_message_holds_nothing)
{
  Session session;
  session.begin ({server_expect_until (std::string ("LONG") + REVISION_END),
                  server_send (std::string ("<message from='eve@beta.test/x' "
                                            "to='alice@alpha.test'><body>hello</body>") +
                               TOO_BIG + "</message>"),
                  server_reset ()},
                 {});
  commit_clause (begin_procedure (&session), make_long_text (12000, "LONG").c_str ());
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_EQ (held_and_owed (&session.test), "procedure\nclause\nrevision\n");
  session.finish ();
}

TEST (delivery, another_error_holds_nothing)
{
  Session session;
  session.begin ({server_expect_until (std::string ("LONG") + REVISION_END),
                  server_send ("<stream:error><conflict "
                               "xmlns='urn:ietf:params:xml:ns:xmpp-streams'/></stream:error>"
                               "</stream:stream>"),
                  server_close_notify (), server_expect_until ("</stream:stream>")},
                 managed ());
  commit_clause (begin_procedure (&session), make_long_text (12000, "LONG").c_str ());
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_EQ (held_and_owed (&session.test), "procedure\nclause\nrevision\n");
  session.finish ();
}

TEST (delivery, a_line_about_a_clause_is_held_likewise)
{
  Session first;
  std::string end = "LINE</x-clause-message></body></message>";
  first.begin (refuse_behind (end, 5), managed ());
  Clause *clause = commit_clause (begin_procedure (&first), "First");
  type (clause->chat_page, "chat_entry", make_long_text (12000, "LINE").c_str ());
  press (clause->chat_page, "send_button");
  EXPECT_TRUE (pump_until (is_idle, first.window));
  EXPECT_EQ (held_and_owed (&first.test), "held message\n");
  EXPECT_EQ (mark_of (find_widget (clause->chat_page, "chat_text_view")), MARK);
  EXPECT_NE (notice_on (first.window->procedures.procedures[0]).find ("the line \u201cwordy"),
             std::string::npos);
  first.finish ();
  Session second;
  restart_from (&second, &first);
  second.begin ({server_expect_until (">why?</x-clause-message></body></message>")}, managed ());
  clause = second.window->procedures.procedures[0]->clauses[0];
  EXPECT_EQ (mark_of (find_widget (clause->chat_page, "chat_text_view")), MARK);
  type (clause->chat_page, "chat_entry", "why?");
  press (clause->chat_page, "send_button");
  EXPECT_EQ (list_sent (second.finish ().received), "x-clause-message ");
}

// What stands on something that is held would be dropped at the other side.
TEST (delivery, a_decision_on_a_held_revision_is_held_with_it)
{
  Session first;
  first.begin (refuse_behind (std::string ("LONG") + REVISION_END, 4), managed ());
  commit_clause (begin_procedure (&first), make_long_text (12000, "LONG").c_str ());
  EXPECT_TRUE (pump_until (is_idle, first.window));
  first.finish ();
  Session second;
  restart_from (&second, &first);
  second.begin ({server_expect_until (std::string (">Second") + REVISION_END)}, managed ());
  Procedure *procedure = second.window->procedures.procedures[0];
  press (procedure->clauses[0]->view, "agree_button");
  GtkWidget *agree = find_widget (procedure->clauses[0]->view, "agree_button");
  EXPECT_EQ (mark_of (agree).find ("class"), 0u);
  EXPECT_EQ (held_and_owed (&second.test), "held revision\nheld decision\n");
  press (procedure->clauses[0]->view, "disagree_button");
  EXPECT_EQ (held_and_owed (&second.test), "held revision\nheld decision\n");
  commit_clause (procedure, "Second");
  EXPECT_EQ (list_sent (second.finish ().received), "x-clause x-revision ");
}

TEST (delivery, a_deletion_takes_what_is_held_and_the_undo_brings_it_back_held)
{
  Session session;
  session.begin (refuse_behind (std::string ("LONG") + REVISION_END, 4), managed ());
  commit_clause (begin_procedure (&session), make_long_text (12000, "LONG").c_str ());
  EXPECT_TRUE (pump_until (is_idle, session.window));
  app_window_remove_procedure (session.window, session.window->procedures.procedures[0]);
  EXPECT_EQ (held_and_owed (&session.test), "");
  press (session.window, "undo_button");
  EXPECT_EQ (held_and_owed (&session.test), "held revision\n");
  Clause *clause = session.window->procedures.procedures[0]->clauses[0];
  EXPECT_EQ (mark_of (find_widget (clause->view, "revision_status_label")), MARK);
  app_window_remove_procedure (session.window, session.window->procedures.procedures[0]);
  session.finish ();
  session.close ();
  EXPECT_EQ (owed (&session.test), "no table");
}

// Deleted while it was on its way: there is no page to tell it on.
TEST (delivery, what_is_refused_while_it_is_deleted_comes_back_held)
{
  Session session;
  session.begin ({server_expect_until (std::string ("LONG") + REVISION_END), server_wait (),
                  server_send (refuse_after (4)), server_close_notify (),
                  server_expect_until ("</stream:stream>")},
                 managed ());
  commit_clause (begin_procedure (&session), make_long_text (12000, "LONG").c_str ());
  app_window_remove_procedure (session.window, session.window->procedures.procedures[0]);
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (is_idle, session.window));
  press (session.window, "undo_button");
  EXPECT_EQ (held_and_owed (&session.test), "held revision\n");
  session.finish ();
}

// ---- Neighbours ----

TEST (delivery, a_deleted_procedure_is_not_sent)
{
  Session first;
  first.begin ({server_reset ()}, {});
  EXPECT_TRUE (pump_until (is_idle, first.window));
  do_everything (&first);
  begin_procedure (&first);
  app_window_remove_procedure (first.window, first.window->procedures.procedures[0]);
  EXPECT_EQ (owed (&first.test), "procedure\n");
  first.finish ();
}

TEST (delivery, the_table_goes_after_a_deletion_that_took_its_last_row)
{
  Session session;
  session.begin ({server_reset ()}, {});
  EXPECT_TRUE (pump_until (is_idle, session.window));
  app_window_remove_procedure (session.window, begin_procedure (&session));
  EXPECT_EQ (owed (&session.test), "");
  EXPECT_TRUE (pump_until (is_table_gone, &session));
  press (session.window, "undo_button");
  EXPECT_EQ (owed (&session.test), "procedure\n");
  session.finish ();
}

TEST (delivery, another_accounts_rows_stay_and_unknown_ones_go)
{
  Session first;
  first.begin ({server_reset ()}, {});
  EXPECT_TRUE (pump_until (is_idle, first.window));
  begin_procedure (&first);
  first.finish ();
  query (&first.test, "UPDATE outbox SET object_db_id = 77");
  query (&first.test,
         "INSERT INTO outbox (account_db_id, sequence, kind, object_db_id) VALUES (99, 1, "
         "'clause', 5)");
  Session second;
  restart_from (&second, &first);
  second.begin ({server_wait ()}, {});
  EXPECT_EQ (owed (&second.test), "clause\n");
  EXPECT_EQ (count_of (second.console (),
                       "Warning: The outbox names an object that isn't there.\n"),
             1u);
  scripted_server_signal (second.server);
  EXPECT_EQ (list_sent (second.finish ().received), "");
  EXPECT_EQ (owed (&second.test), "clause\n");
}

TEST (delivery, a_row_of_the_other_partys_object_is_not_sent)
{
  Session first;
  first.begin ({server_send ("<message from='bob@beta.test/desk' to='alice@alpha.test'><body>"
                             "<x-procedure procedure='bob@beta.test:100'>Bob's</x-procedure>"
                             "</body></message>"),
                server_close_notify (), server_expect ("</stream:stream>")},
               {});
  EXPECT_TRUE (pump_until (is_idle, first.window));
  first.finish ();
  begin_procedure (&first);
  query (&first.test, "UPDATE outbox SET object_db_id = 1");
  Session second;
  restart_from (&second, &first);
  second.begin ({server_wait ()}, {});
  scripted_server_signal (second.server);
  EXPECT_EQ (list_sent (second.finish ().received), "");
}
