// Stream management (XEP-0198): a real main window against a scripted server that counts for itself.
// What the window acknowledges is compared with the rows in its store, what it asks for with the
// stanzas that the server has got.
#include <gtest/gtest.h>

#include <signal.h>

#include <string>
#include <vector>

#include <sqlite3.h>

#include "session.h"
#include "session_test.h"

static const char ASK[] = "<r xmlns='urn:xmpp:sm:3'/>";

static LoginOptions
managed ()
{
  LoginOptions options;
  options.offers_stream_management = true;
  return options;
}

static std::string
answer (u64 count)
{
  return "<a xmlns='urn:xmpp:sm:3' h='" + std::to_string (count) + "'/>";
}

static std::string
message (const std::string &body)
{
  return "<message from='bob@beta.test/desk' to='alice@alpha.test'><body>" + body +
         "</body></message>";
}

static std::string
procedure (int time)
{
  return message ("<x-procedure procedure='bob@beta.test:" + std::to_string (time) +
                  "'>Lease</x-procedure>");
}

// What a server counts of what it got: the roster request, the presence and so on.
static u64
count_stanzas (const std::string &text)
{
  return count_of (text, "<iq ") + count_of (text, "<presence ") + count_of (text, "<message ");
}

// ---- Enabling ----

TEST (stream_management, is_enabled_between_binding_and_roster)
{
  Session session;
  session.begin ({server_expect_until (ASK)}, managed ());
  ServerReport report = session.finish ();
  size_t bind = report.received.find ("<bind ");
  size_t enable = report.received.find ("<enable xmlns='urn:xmpp:sm:3'/>");
  size_t roster = report.received.find ("jabber:iq:roster");
  EXPECT_LT (bind, enable);
  EXPECT_LT (enable, roster);
}

TEST (stream_management, a_server_that_does_not_offer_it_hears_nothing_of_it)
{
  Session session;
  // Its names are unknown there, like any other.
  session.begin ({server_send (std::string (ASK) + answer (1) + "<enabled xmlns='urn:xmpp:sm:3'/>" +
                               procedure (100)),
                  server_close_notify (), server_expect ("</stream:stream>")},
                 {});
  ServerReport report = session.finish ();
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_EQ (report.received.find ("urn:xmpp:sm"), std::string::npos);
  EXPECT_EQ (count_of (session.console (), "Warning: Received unknown XML data.\n"), 3u);
  EXPECT_EQ (query (&session.test, "SELECT count(*) FROM procedures"), "1\n");
}

TEST (stream_management, may_be_refused)
{
  LoginOptions options = managed ();
  options.enable_answer = {"<failed xmlns='urn:xmpp:sm:3'><unexpected-request "
                           "xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></failed>"};
  Session session;
  session.begin ({server_send (std::string (ASK) + procedure (100)), server_close_notify (),
                  server_expect ("</stream:stream>")},
                 options);
  session.finish ();
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_EQ (count_of (session.console (), "Warning: Received unknown XML data.\n"), 1u);
  EXPECT_EQ (count_of (session.console (),
                       "Warning: The server offers stream management and refuses it.\n"),
             1u);
}

TEST (stream_management, the_word_of_the_server_may_come_among_stanzas)
{
  LoginOptions options = managed ();
  options.enable_answer = {""};
  Session session;
  // The roster and the presence came before it, and one procedure: none of them counts.
  session.begin ({server_send (procedure (100) + "<enabled xmlns='urn:xmpp:sm:3'/>" +
                               procedure (101) + ASK),
                  server_expect_until (answer (1))},
                 options);
  session.finish ();
}

TEST (stream_management, a_processing_instruction_is_no_stanza_and_no_word_of_the_server)
{
  Session session;
  const char *const instructions = "<?presence from='b@c' type='subscribe'?><?message from='b@c'?>"
                                   "<?r xmlns='urn:xmpp:sm:3'?><?a xmlns='urn:xmpp:sm:3' h='99'?>";
  // The roster's result and the presence come first.
  session.begin ({server_send (procedure (100) + instructions + ASK),
                  server_expect_until (answer (3))},
                 managed ());
  ServerReport report = session.finish ();
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_EQ (count_of (report.received, "<a "), 1u);
  EXPECT_EQ (count_of (session.console (), "Warning: Received unknown XML data.\n"), 4u);
}

TEST (stream_management_end, what_is_under_way_does_not_count_in_the_next_session)
{
  TestWindow test;
  log_in (&test);
  gnutls_session_t tls_session = test.window->connection.tls_session;
  StreamManagement *counts = &test.window->stream_management;
  stream_management_begin (counts, test.window, tls_session, true);
  counts->is_counting = true;
  stream_management_leave_stanza (counts);
  EXPECT_EQ (counts->received_count, 1u);
  // The interface hears of it in the next session.
  stream_management_end (counts);
  stream_management_begin (counts, test.window, tls_session, true);
  pump ();
  EXPECT_EQ (counts->received_count, 0u);
  EXPECT_EQ (counts->applied_count, 0u);
  stream_management_end (counts);
}

// ---- What is received ----

// A look into the store from the server's thread.
struct Look {
  std::string path;
  std::string rows;
};

static int
add_value (void *argument, int, char **values, char **)
{
  *(std::string *) argument += values[0];
  return 0;
}

static void
look_into_store (void *data)
{
  Look *look = (Look *) data;
  sqlite3 *db = NULL;
  sqlite3_open (look->path.c_str (), &db);
  sqlite3_exec (db, "SELECT count(*) FROM procedures", add_value, &look->rows, NULL);
  sqlite3_close (db);
}

TEST (stream_management, a_stanza_is_acknowledged_when_the_store_has_it)
{
  Session session;
  Look look = {session.test.directory + "/.morvane.db", ""};
  const int COUNT = 40;
  std::string burst;
  for (int i = 0; i < COUNT; ++i)
    burst += procedure (100 + i);
  // The roster's result and the presence come first.
  session.begin ({server_send (burst), server_expect_until (answer (2 + COUNT)),
                  server_run (look_into_store, &look)},
                 managed ());
  session.finish ();
  EXPECT_EQ (look.rows, std::to_string (COUNT));
}

TEST (stream_management, no_acknowledgement_runs_ahead_of_the_store)
{
  // The server asks after each stanza, and looks at each answer.
  Session session;
  const int COUNT = 10;
  Look looks[COUNT];
  ServerScript more;
  for (int i = 0; i < COUNT; ++i) {
    looks[i].path = session.test.directory + "/.morvane.db";
    more.push_back (server_send (procedure (100 + i)));
    more.push_back (server_send (std::string (ASK)));
    more.push_back (server_expect_until (answer (3 + i)));
    more.push_back (server_run (look_into_store, &looks[i]));
  }
  session.begin (more, managed ());
  session.finish ();
  for (int i = 0; i < COUNT; ++i)
    EXPECT_EQ (looks[i].rows, std::to_string (i + 1));
}

TEST (stream_management, refused_and_useless_stanzas_count_too)
{
  Session session;
  session.begin ({server_send (message ("<x-procedure procedure='bob@beta.test:1'></x-procedure>") +
                               "<message from='bob@beta.test'/>" + "<presence type='odd'/>" +
                               "<iq type='result' id='77'/>" + procedure (100) + "<unknown/>" +
                               ASK),
                  server_expect_until (answer (7))},
                 managed ());
  session.finish ();
}

TEST (stream_management, an_answer_is_due_even_when_nothing_is_new)
{
  Session session;
  session.begin ({server_send (std::string (ASK)), server_expect_until (answer (2)),
                  server_send (std::string (ASK)), server_expect_until (answer (2))},
                 managed ());
  session.finish ();
}

// ---- Stops ----

static bool
is_never (void *)
{
  return false;
}

TEST (stream_management, a_stanza_that_stops_the_program_is_acknowledged_first)
{
  GTEST_FLAG_SET (death_test_style, "threadsafe");
  ScriptedServer *server = NULL;
  if (!testing::internal::InDeathTestChild ()) {
    ServerScript script = script_login (JID, managed ());
    // Roster, presence and procedure are acknowledged with it, as they were applied.
    script_append (&script,
                   {server_send (procedure (100) + "<iq type='error' id='x' from='alpha.test'/>"),
                    server_expect_until (answer (4))});
    server = scripted_server_start (script);
  }
  EXPECT_DEATH (
    {
      Session session;
      session.log_in ();
      pump_until (is_never, NULL);
    },
    "string_has_only_digits [(]id_attrib[)]");
  ServerReport report = scripted_server_finish (server);
  EXPECT_EQ (report.failure, "") << report.transcript;
}

// The roster's result and the presence are acknowledged, and a stanza of this thread; the signal comes
// when that is left behind.
TEST (stream_management_leave_stanza, leaves_nothing_that_a_stop_acknowledges)
{
  Session session;
  session.begin ({server_expect_until ("</stream:stream>"), server_send ("</stream:stream>"),
                  server_close_notify ()},
                 managed ());
  StreamManagement *counts = &session.window->stream_management;
  EXPECT_TRUE (
    pump_until ([] (void *data) { return ((StreamManagement *) data)->applied_count == 2; },
                counts));
  EXPECT_TRUE (stream_management_is_counting (counts));
  stream_management_enter_stanza (counts);
  stream_management_leave_stanza (counts);
  EXPECT_TRUE (
    pump_until ([] (void *data) { return ((StreamManagement *) data)->applied_count == 3; },
                counts));
  raise (SIGABRT);
  session.close ();
  ServerReport report = session.finish ();
  EXPECT_NE (report.received.find (answer (3)), std::string::npos);
  EXPECT_EQ (report.received.find (answer (4)), std::string::npos);
}

// ---- What is sent ----

struct Counted {
  StreamManagement *counts;
  u64 count;
};

static bool
is_confirmed (void *data)
{
  Counted *counted = (Counted *) data;
  return stream_management_get_acknowledged_count (counted->counts) == counted->count;
}

TEST (stream_management, asks_after_a_burst_and_takes_the_answer)
{
  Session session;
  session.begin ({server_expect_until (ASK), server_send (answer (2)), server_wait (),
                  server_expect_until (ASK), server_send (answer (5)), server_wait ()},
                 managed ());
  Counted counted = {&session.window->stream_management, 2};
  EXPECT_TRUE (pump_until (is_confirmed, &counted));
  scripted_server_signal (session.server);
  for (const char *text : {"one", "two", "three"})
    xmpp_send_message (session.window, to_string ("bob@beta.test"), to_string (text));
  counted.count = 5;
  EXPECT_TRUE (pump_until (is_confirmed, &counted));
  scripted_server_signal (session.server);
  ServerReport report = session.finish ();
  size_t enabled = report.received.find ("<enable ");
  EXPECT_EQ (count_stanzas (report.received.substr (enabled)), 5u);
  EXPECT_EQ (count_of (report.received, ASK), 2u);
}

// As Prosody does when it is stopped: it counts a stanza that it has read, and throws it away.
TEST (stream_management, what_is_acknowledged_in_one_breath_with_an_error_is_in_doubt)
{
  Session session;
  session.begin ({server_expect_until (ASK), server_send (answer (2)), server_wait (),
                  server_expect_until (ASK),
                  server_send (answer (3) + "<stream:error><system-shutdown "
                                            "xmlns='urn:ietf:params:xml:ns:xmpp-streams'/>"
                                            "</stream:error></stream:stream>"),
                  server_close_notify ()},
                 managed ());
  AppWindow *window = session.window;
  Counted counted = {&window->stream_management, 2};
  EXPECT_TRUE (pump_until (is_confirmed, &counted));
  scripted_server_signal (session.server);
  xmpp_send_message (window, to_string ("bob@beta.test"), to_string ("one"));
  EXPECT_TRUE (
    pump_until ([] (void *data) { return !app_window_is_connected ((AppWindow *) data); }, window));
  EXPECT_TRUE (is_confirmed (&counted));
  session.finish ();
}

// One that stands alone was an answer, and the error came later.
TEST (stream_management, what_is_acknowledged_ahead_of_an_error_is_done)
{
  Session session;
  session.begin ({server_expect_until (ASK), server_send (answer (2)), server_wait (),
                  server_send ("<stream:error><system-shutdown "
                               "xmlns='urn:ietf:params:xml:ns:xmpp-streams'/></stream:error>"
                               "</stream:stream>"),
                  server_close_notify ()},
                 managed ());
  Counted counted = {&session.window->stream_management, 2};
  EXPECT_TRUE (pump_until (is_confirmed, &counted));
  scripted_server_signal (session.server);
  EXPECT_TRUE (
    pump_until ([] (void *data) { return !app_window_is_connected ((AppWindow *) data); },
                session.window));
  EXPECT_TRUE (is_confirmed (&counted));
  session.finish ();
}

TEST (stream_management, the_count_goes_on_past_its_32_bits)
{
  Session session;
  session.begin ({server_wait (), server_send (answer (3)), server_wait ()}, managed ());
  StreamManagement *counts = &session.window->stream_management;
  counts->acknowledged_count = 0xFFFFFFFE;
  counts->sent_count = 0x100000005;
  scripted_server_signal (session.server);
  Counted counted = {counts, 0x100000003};
  EXPECT_TRUE (pump_until (is_confirmed, &counted));
  scripted_server_signal (session.server);
  session.finish ();
}

TEST (stream_management, an_impossible_acknowledgement_is_one_line)
{
  Session session;
  session.begin ({server_send (answer (3) + "<a xmlns='urn:xmpp:sm:3'/>" +
                               "<a xmlns='urn:xmpp:sm:3' h='2x'/>" + answer (1)),
                  server_wait ()},
                 managed ());
  Counted counted = {&session.window->stream_management, 1};
  EXPECT_TRUE (pump_until (is_confirmed, &counted));
  std::string console = session.console ();
  EXPECT_EQ (count_of (console, "Warning: Received an acknowledgement of more than was sent.\n"),
             1u);
  EXPECT_EQ (count_of (console, "Warning: Received an acknowledgement without a number.\n"), 2u);
  scripted_server_signal (session.server);
  session.finish ();
}

TEST (stream_management, a_server_that_does_not_answer_is_lost)
{
  LoginOptions options = managed ();
  options.enable_answer = {""};
  Session session;
  session.begin ({server_wait (), server_send ("<enabled xmlns='urn:xmpp:sm:3'/>"),
                  server_expect_until (ASK)},
                 options);
  EXPECT_EQ (session.window->stream_management.answer_time_max, 60000u);
  session.window->stream_management.answer_time_max = 1;
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_EQ (count_of (session.console (), "Warning: The server doesn't answer.\n"), 1u);
  session.finish ();
}

// As if the time of a timer had passed.
static void
make_due (guint source)
{
  g_source_set_ready_time (g_main_context_find_source_by_id (NULL, source), 0);
}

static bool
has_procedure (void *data)
{
  return ((AppWindow *) data)->procedures.count == 1;
}

static bool
is_first_asked (void *data)
{
  size_t login_steps_count = script_login (JID, managed ()).size ();
  return scripted_server_steps_done ((ScriptedServer *) data) > login_steps_count;
}

TEST (stream_management, an_answer_to_an_earlier_question_leaves_the_later_one_due)
{
  Session session;
  session.begin ({server_expect_until (ASK), server_wait (), server_expect_until ("</message>"),
                  server_expect_until (ASK), server_send (answer (2) + procedure (100)),
                  server_wait ()},
                 managed ());
  EXPECT_TRUE (pump_until (is_first_asked, session.server));
  scripted_server_signal (session.server);
  xmpp_send_message (session.window, to_string ("bob@beta.test"), to_string ("one"));
  EXPECT_TRUE (pump_until (has_procedure, session.window));
  StreamManagement *counts = &session.window->stream_management;
  ASSERT_NE (counts->answer_source, 0u);
  make_due (counts->answer_source);
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_EQ (count_of (session.console (), "Warning: The server doesn't answer.\n"), 1u);
  scripted_server_signal (session.server);
  session.finish ();
}

TEST (stream_management, an_answer_to_all_leaves_none_due)
{
  Session session;
  session.begin ({server_expect_until (ASK), server_send (answer (2) + procedure (100)),
                  server_wait ()},
                 managed ());
  EXPECT_TRUE (pump_until (has_procedure, session.window));
  EXPECT_EQ (session.window->stream_management.answer_source, 0u);
  scripted_server_signal (session.server);
  session.finish ();
}

TEST (stream_management, a_server_that_neither_agrees_nor_refuses_is_lost)
{
  LoginOptions options = managed ();
  options.enable_answer = {""};
  Session session;
  session.begin ({server_send (procedure (100)), server_wait ()}, options);
  EXPECT_TRUE (pump_until (has_procedure, session.window));
  StreamManagement *counts = &session.window->stream_management;
  ASSERT_NE (counts->answer_source, 0u);
  make_due (counts->answer_source);
  EXPECT_TRUE (pump_until (is_idle, session.window));
  EXPECT_EQ (count_of (session.console (), "Warning: The server doesn't answer.\n"), 1u);
  scripted_server_signal (session.server);
  session.finish ();
}

TEST (stream_management, a_server_that_refuses_owes_nothing_more)
{
  LoginOptions options = managed ();
  options.enable_answer = {""};
  Session session;
  session.begin ({server_send ("<failed xmlns='urn:xmpp:sm:3'/>" + procedure (100)),
                  server_wait ()},
                 options);
  EXPECT_TRUE (pump_until (has_procedure, session.window));
  EXPECT_EQ (session.window->stream_management.answer_source, 0u);
  scripted_server_signal (session.server);
  session.finish ();
}

// ---- The end ----

static void
close_it (AppWindow *window)
{
  gtk_window_close (GTK_WINDOW (window));
}

static void
destroy_it (AppWindow *window)
{
  gtk_widget_destroy (GTK_WIDGET (window));
}

TEST (stream_management, what_was_applied_is_acknowledged_ahead_of_the_end_and_no_more_is_taken)
{
  typedef void End (AppWindow * window);
  for (End *end : {close_it, app_window_log_in_again, destroy_it}) {
    Session session;
    session.begin ({server_send (procedure (100)),
                    server_expect_until (answer (3) + "</stream:stream>"),
                    server_send (procedure (101) + "</stream:stream>"), server_close_notify ()},
                   managed ());
    EXPECT_TRUE (pump_until (has_procedure, session.window));
    end (session.window);
    EXPECT_TRUE (pump_until (is_idle, session.window));
    session.finish ();
    EXPECT_EQ (query (&session.test, "SELECT time FROM procedures"), "100\n");
  }
}

static bool
was_asked_once (void *data)
{
  return scripted_server_steps_done ((ScriptedServer *) data) >
         script_login (JID, managed ()).size ();
}

// Logs in again as soon as that is possible, and goes on when the server has the presence.
static gboolean
log_in_next (gpointer data)
{
  Session *session = (Session *) data;
  AppWindow *window = session->window;
  if (window->account_db_id || app_window_is_worker_running (window))
    return G_SOURCE_CONTINUE;
  GtkWidget *password_entry = find_widget (window->login_page, "password_entry");
  // The script expects the first ids once more.
  window->last_xmpp_id = 0;
  gtk_entry_set_text (GTK_ENTRY (password_entry), "pw");
  gtk_button_clicked (GTK_BUTTON (find_widget (window->login_page, "login_button")));
  EXPECT_TRUE (
    scripted_server_wait_steps (session->server, 2 * script_login (JID, managed ()).size () + 3));
  return G_SOURCE_REMOVE;
}

// The user asks for the end while the worker's leave waits to be handled; what stands between the two
// may take long.
TEST (stream_management, the_farewell_of_a_session_that_has_ended_meanwhile_is_not_said_to_the_next)
{
  ServerScript script = script_login (JID, managed ());
  script_append (&script, {server_expect_until (ASK), server_wait (), server_close ()});
  script_append (&script, script_login (JID, managed ()));
  script_append (&script, {server_send (procedure (100)), server_expect_until (answer (3))});
  Session session;
  session.server = scripted_server_start (script);
  session.log_in ();
  // The interface asks; below it waits, and would not.
  EXPECT_TRUE (pump_until (was_asked_once, session.server));
  scripted_server_signal (session.server);
  EXPECT_TRUE (worker_wait_until_left (session.window->worker, get_deadline (60000)));
  g_idle_add (log_in_next, &session);
  app_window_log_in_again (session.window);
  EXPECT_TRUE (pump_until (has_procedure, session.window));
  ServerReport report = session.finish ();
  EXPECT_EQ (count_of (report.received, "</stream:stream>"), 0u);
}

TEST (stream_management, a_stanza_that_is_too_long_counts_too)
{
  Session session;
  session.begin ({server_send (message (std::string (5000000, 'x')) + procedure (100)),
                  server_expect_until (answer (4))},
                 managed ());
  session.finish ();
  EXPECT_EQ (count_of (session.console (), "Warning: Received a stanza that is too long.\n"), 1u);
}

static bool
has_own_presence (void *data)
{
  return ((Session *) data)->console ().find ("Received <presence from=") != std::string::npos;
}

TEST (stream_management, without_it_bytes_confirm_what_was_taken_some_time_before)
{
  Session session;
  session.begin ({server_wait (), server_send (procedure (100)), server_wait ()}, {});
  EXPECT_TRUE (pump_until (has_own_presence, &session));
  StreamManagement *counts = &session.window->stream_management;
  s64 before = g_get_monotonic_time ();
  s64 confirmed = stream_management_get_confirmed_time (counts);
  EXPECT_LE (confirmed, before - 2000000);
  EXPECT_EQ (counts->ended_time, 0);
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (has_procedure, session.window));
  EXPECT_GE (stream_management_get_confirmed_time (counts), before - 2000000);
  scripted_server_signal (session.server);
  session.finish ();
}

static bool
is_all_taken (void *data)
{
  StreamManagement *counts = (StreamManagement *) data;
  return stream_management_get_taken_count (counts) == stream_management_get_sent_count (counts);
}

TEST (stream_management, without_it_a_server_that_does_not_read_confirms_nothing)
{
  Session session;
  session.begin ({server_wait_deaf (), server_expect_until ("!"), server_wait ()}, {});
  StreamManagement *counts = &session.window->stream_management;
  EXPECT_TRUE (pump_until (has_own_presence, &session));
  EXPECT_TRUE (pump_until (is_all_taken, counts));
  counts->heard_delay = 0;
  fill_socket (&session);
  EXPECT_FALSE (is_all_taken (counts));
  EXPECT_TRUE (counts->is_stuck);
  s64 heard_time = counts->heard_time;
  stream_management_note_heard (counts, to_string ("<presence/>"));
  EXPECT_EQ (counts->heard_time, heard_time);

  // As if it had stood for an hour: so long the server has for the rest, too.
  const s64 HOUR = (s64) 3600 * 1000000;
  counts->backlog_time = g_get_monotonic_time () - HOUR;
  send_all_tls_data (session.window->connection.tls_session, to_string ("!"));
  scripted_server_signal (session.server);
  EXPECT_TRUE (pump_until (is_all_taken, counts));
  EXPECT_FALSE (counts->is_stuck);
  EXPECT_GE (counts->trusted_time, stream_management_get_taken_time (counts) + HOUR);
  stream_management_note_heard (counts, to_string ("<presence/>"));
  EXPECT_EQ (counts->heard_time, heard_time);
  counts->trusted_time = g_get_monotonic_time ();
  stream_management_note_heard (counts, to_string ("<presence/>"));
  EXPECT_GE (stream_management_get_confirmed_time (counts),
             stream_management_get_taken_time (counts));
  scripted_server_signal (session.server);
  session.finish ();
}

TEST (stream_management, what_left_long_ago_is_no_backlog_though_nobody_has_looked)
{
  Session session;
  session.begin ({server_wait ()}, {});
  StreamManagement *counts = &session.window->stream_management;
  EXPECT_TRUE (pump_until (is_all_taken, counts));
  s64 before = g_get_monotonic_time ();
  counts->taken_count = 0;
  counts->backlog_time = 1;
  std::string line = message ("line");
  send_stanza (session.window->connection.tls_session, {(u8 *) &line[0], line.size ()});
  EXPECT_GE (counts->backlog_time, before);
  EXPECT_FALSE (counts->is_stuck);
  EXPECT_EQ (counts->trusted_time, 0);
  scripted_server_signal (session.server);
  session.finish ();
}

TEST (stream_management, without_it_an_end_confirms_all_only_when_the_server_has_read_or_answers)
{
  for (bool is_answer : {false, true}) {
    Session session;
    session.begin ({server_wait (), server_send ("</stream:stream>"), server_wait ()}, {});
    StreamManagement *counts = &session.window->stream_management;
    EXPECT_TRUE (pump_until (is_all_taken, counts));
    counts->trusted_time = G_MAXINT64;
    if (is_answer)
      end_xmpp_stream (session.window);
    scripted_server_signal (session.server);
    EXPECT_TRUE (pump_until (
      [] (void *data) {
        return ((Session *) data)->console ().find ("data: \"</stream:stream>\" (String)") !=
               std::string::npos;
      },
      &session));
    EXPECT_EQ (counts->ended_time > 0, is_answer);
    scripted_server_signal (session.server);
    session.finish ();
  }
}

TEST (stream_management, without_it_the_servers_end_confirms_at_once)
{
  Session session;
  session.begin ({server_wait (), server_send ("</stream:stream>"), server_wait ()}, {});
  s64 before = g_get_monotonic_time ();
  scripted_server_signal (session.server);
  struct Ended {
    StreamManagement *counts;
    s64 before;
  } ended = {&session.window->stream_management, before};
  EXPECT_TRUE (pump_until (
    [] (void *data) {
      Ended *own = (Ended *) data;
      return stream_management_get_confirmed_time (own->counts) >= own->before;
    },
    &ended));
  scripted_server_signal (session.server);
  session.finish ();
}

// Behind no login at all, and behind a session that is over.
TEST (stream_management_note_heard, takes_an_end_where_nothing_is_counted)
{
  StreamManagement counts = {};
  stream_management_note_heard (&counts, to_string ("</stream:stream>"));
  EXPECT_EQ (stream_management_get_taken_count (&counts), 0u);
}
