// The whole session on the wire: a real main window, pressed and read as a user would, against a
// scripted server that cuts, joins, withholds and ends. What the program sends is compared byte by
// byte, what it receives by the rows in its store.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "clause_chat_page.h"
#include "clause_view.h"
#include "contact_chat_page.h"
#include "login_page.h"
#include "morvane.h"
#include "network.h"
#include "procedure_creation_page.h"
#include "procedure_view.h"
#include "registration_page.h"
#include "scripted_server.h"
#include "session.h"
#include "stanza_dispatch.h"
#include "vcard_page.h"
#include "widget_test.h"

static const char JID[] = "alice@alpha.test";
static const char FULL_JID[] = "alice@alpha.test/morvane";

// ---- Process ----

static gnutls_certificate_credentials_t tls_credentials;

class Process : public testing::Environment {
  void SetUp () override
  {
    tls_credentials = init_tls_global ();
  }
  void TearDown () override
  {
    deinit_tls_global (tls_credentials);
  }
};

[[maybe_unused]] static testing::Environment *process =
  testing::AddGlobalTestEnvironment (new Process ());

// ---- A window and its server ----

static bool
is_idle (void *data)
{
  return !app_window_is_worker_running ((AppWindow *) data);
}

// The console of the process is this window's while it exists.
struct Wire {
  TestWindow test;
  AppWindow *window = test.window;
  ScriptedServer *server = NULL;

  Wire ()
  {
    window->tls_credentials = tls_credentials;
    _console_text_buffer = test.console;
  }
  ~Wire ()
  {
    close_window (&test);
    EXPECT_TRUE (pump_until (is_idle, window));
    if (server)
      scripted_server_stop (server);
    pump ();
    _console_text_buffer = NULL;
  }
  Wire (const Wire &) = delete;
  Wire &operator= (const Wire &) = delete;
};

static void
start_server (Wire *wire, const ServerScript &script)
{
  wire->server = scripted_server_start (script);
}

static ServerReport
finish_server (Wire *wire)
{
  ServerReport report = scripted_server_finish (wire->server);
  wire->server = NULL;
  EXPECT_EQ (report.failure, "") << report.transcript;
  return report;
}

static std::string
console_of (Wire *wire)
{
  pump ();
  char *text = gtk_text_buffer_get_all_text (wire->test.console);
  std::string result = text;
  g_free (text);
  return result;
}

static size_t
count_of (const std::string &text, const std::string &part)
{
  size_t count = 0;
  for (size_t at = text.find (part); at != std::string::npos; at = text.find (part, at + 1))
    ++count;
  return count;
}

static void
press_login (Wire *wire, const char *password = "pw")
{
  LoginPage *page = wire->window->login_page;
  type (page, "bare_jid_entry", JID);
  type (page, "password_entry", password);
  press (page, "login_button");
}

static bool
is_server_done (void *data)
{
  return scripted_server_is_done ((ScriptedServer *) data);
}

static bool
is_logged_in (void *data)
{
  return ((AppWindow *) data)->account_db_id != 0;
}

// Logs in and plays the rest of the script, which must not wait for the test.
static void
play (Wire *wire, const ServerScript &script)
{
  start_server (wire, script);
  press_login (wire);
  EXPECT_TRUE (pump_until (is_logged_in, wire->window));
  EXPECT_TRUE (pump_until (is_server_done, wire->server));
}

// A script that goes on after the login, to the server's end of the stream.
static ServerScript
script_pieces (const Pieces &pieces)
{
  ServerScript script = script_login (JID);
  script.push_back (server_send (pieces));
  script.push_back (server_close_notify ());
  script.push_back (server_expect ("</stream:stream>"));
  return script;
}

static std::string
status_of_login (Wire *wire)
{
  EXPECT_TRUE (pump_until (is_idle, wire->window));
  EXPECT_EQ (get_page (wire->window, "stack"), "login_page");
  EXPECT_TRUE (is_sensitive (wire->window->login_page, "login_button"));
  EXPECT_FALSE (wire->window->connection.opened_socket);
  EXPECT_EQ (wire->window->account.data, nullptr);
  return get_text (wire->window->login_page, "status_label");
}

// ---- Logging in ----

TEST (login, says_that_nobody_listens)
{
  Wire wire;
  press_login (&wire);
  EXPECT_EQ (status_of_login (&wire), "Can't connect to server");
}

TEST (login, says_that_the_server_has_no_tls)
{
  Wire wire;
  LoginOptions options;
  options.offers_starttls = false;
  start_server (&wire, script_login (JID, options));
  press_login (&wire);
  EXPECT_EQ (status_of_login (&wire), "Can't connect to server");
  EXPECT_EQ (count_of (console_of (&wire), "Warning: Stream features doesn't have <starttls>.\n"),
             1u);
  finish_server (&wire);
}

TEST (login, says_that_the_certificate_is_refused)
{
  Wire wire;
  start_server (&wire,
                {server_accept (), server_expect (login_stream_request ("alpha.test")),
                 server_send (login_stream_header ("alpha.test") + login_starttls_features ()),
                 server_expect ("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>"),
                 server_send ("<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>"),
                 server_refused_handshake ("beta.test")});
  press_login (&wire);
  EXPECT_EQ (status_of_login (&wire), "Can't connect to server");
  finish_server (&wire);
}

TEST (login, says_that_the_password_is_wrong_and_takes_the_next_one)
{
  Wire wire;
  LoginOptions options;
  options.password = "wrong";
  options.accepts_password = false;
  ServerScript script = script_login (JID, options);
  script_append (&script, {server_accept ()});
  ServerScript next = script_login (JID);
  // Ids go on where the first attempt left them: it drew none.
  script.insert (script.end (), next.begin () + 1, next.end ());
  start_server (&wire, script);
  press_login (&wire, "wrong");
  EXPECT_EQ (status_of_login (&wire), "Unable to authorize");
  press_login (&wire);
  EXPECT_TRUE (pump_until (is_logged_in, wire.window));
  EXPECT_EQ (get_page (wire.window, "stack"), "main_page");
  EXPECT_EQ (get_text (wire.window->login_page, "status_label"), "");
  EXPECT_EQ (get_text (wire.window->login_page, "password_entry"), "");
  finish_server (&wire);
}

TEST (login, shows_each_step_on_the_console)
{
  Wire wire;
  play (&wire, script_login (JID));
  std::string console = console_of (&wire);
  size_t at = console.find ("Connecting...\n");
  for (const std::string &request :
       {login_stream_request ("alpha.test"), login_stream_request ("alpha.test"),
        login_auth_request ("alice", "pw"), login_stream_request ("alpha.test"),
        login_bind_request ("morvane"), login_roster_request (FULL_JID),
        login_presence_request (FULL_JID)}) {
    ASSERT_NE (at, std::string::npos);
    at = console.find ("request: \"" + request + "\" (String)\n", at + 1);
    EXPECT_NE (at, std::string::npos) << request;
  }
}

// ---- What is sent ----

static std::string
to_bob (u64 id, const std::string &element)
{
  return "<message type='chat' id='" + std::to_string (id) + "' from='" + FULL_JID +
         "' to='bob@beta.test'><body>" + element + "</body></message>";
}

static std::string
pair (const char *author, s64 time)
{
  return std::string (author) + ":" + std::to_string (time);
}

// What bob has done before: a contact, a procedure with a clause and a revision of it.
static const char BOBS_STANZAS[] =
  "<presence from='bob@beta.test/desk' to='alice@alpha.test/morvane'/>"
  "<message from='bob@beta.test/desk' to='alice@alpha.test'><body>"
  "<x-procedure procedure='bob@beta.test:100'>Bob's</x-procedure></body></message>"
  "<message from='bob@beta.test/desk' to='alice@alpha.test'><body>"
  "<x-clause procedure='bob@beta.test:100' clause='bob@beta.test:200'></x-clause></body></message>"
  "<message from='bob@beta.test/desk' to='alice@alpha.test'><body>"
  "<x-revision procedure='bob@beta.test:100' clause='bob@beta.test:200' "
  "revision='bob@beta.test:300'>First &amp; last</x-revision></body></message>";

static bool
has_bobs_revision (void *data)
{
  AppWindow *window = (AppWindow *) data;
  return window->procedures.count == 1 && window->procedures.procedures[0]->clauses_count == 1 &&
         window->procedures.procedures[0]->clauses[0]->revisions_count == 1;
}

// Decides twice and chats about bob's clause; returns what that must send.
static std::string
answer_bob (AppWindow *window)
{
  Procedure *procedure = window->procedures.procedures[0];
  Clause *clause = procedure->clauses[0];
  const std::string ancestry = "procedure='bob@beta.test:100' clause='bob@beta.test:200'";
  std::string expected;
  for (const char *button : {"agree_button", "disagree_button"}) {
    press (clause->view, button);
    ClauseRevisionDecision *decision = clause->revisions[0]->decisions[0];
    expected += to_bob (expected.empty () ? 3 : 4,
                        "<x-clause-decision " + ancestry + " revision='bob@beta.test:300' " +
                          "decision='" + pair (JID, decision->time) + "'>" +
                          DECISION_STATUS_STRINGS[decision->status] + "</x-clause-decision>");
  }
  type (clause->chat_page, "chat_entry", "why \"5\" < 6?");
  press (clause->chat_page, "send_button");
  EXPECT_EQ (clause->messages_count, 1u);
  ClauseMessage *message = clause->messages[0];
  expected += to_bob (5, "<x-clause-message " + ancestry + " message='" +
                           to_std_string (message->author) + ":" + std::to_string (message->time) +
                           "'>why &quot;5&quot; &lt; 6?</x-clause-message>");
  // A revision of bob's clause: bob knows the clause, so only the revision goes out.
  type (clause->view, "text_view", "Second\nline");
  press (clause->view, "commit_button");
  EXPECT_EQ (clause->revisions_count, 2u);
  expected += to_bob (6, "<x-revision " + ancestry + " revision='" +
                           pair (JID, clause->revisions[1]->time) + "'>Second\nline</x-revision>");
  return expected;
}

// Opens a procedure with a clause; returns what that must send.
static std::string
open_procedure (AppWindow *window)
{
  ProcedureCreationPage *page = window->procedure_creation_page;
  type (page, "title_entry", "Alice's \"<lease>\" & more");
  type (page, "contractor_entry", "bob@beta.test");
  press (page, "begin_button");
  EXPECT_EQ (window->procedures.count, 2u);
  Procedure *procedure = window->procedures.procedures[1];
  std::string name = "procedure='" + pair (JID, procedure->time) + "'";
  std::string expected =
    to_bob (7, "<x-procedure " + name + ">Alice\u2019s &quot;&lt;lease&gt;&quot; &amp; more" +
                 "</x-procedure>");
  press (procedure->view, "add_clause_button");
  Clause *clause = procedure->clauses[0];
  type (clause->view, "text_view", "It's 1 < 2 & \"so\" on > \xF0\x9F\x98\x80");
  press (clause->view, "commit_button");
  EXPECT_EQ (clause->revisions_count, 1u);
  name += " clause='" + pair (JID, clause->time) + "'";
  expected += to_bob (8, "<x-clause " + name + "></x-clause>");
  expected +=
    to_bob (9, "<x-revision " + name + " revision='" + pair (JID, clause->revisions[0]->time) +
                 "'>It&apos;s 1 &lt; 2 &amp; &quot;so&quot; on &gt; "
                 "\xF0\x9F\x98\x80</x-revision>");
  return expected;
}

// Chats with the contact, asks for presence, publishes the profile; returns what that must send.
static std::string
meet_bob (AppWindow *window)
{
  ContactChatPage *chat_page = window->contacts.contacts[0]->chat_page;
  type (chat_page, "chat_entry", "hello & <welcome>");
  press (chat_page, "send_button");
  std::string expected = to_bob (10, "hello &amp; &lt;welcome&gt;");
  ProcedureCreationPage *page = window->procedure_creation_page;
  type (page, "contractor_entry", "bob@beta.test");
  press (page, "contractor_add_button");
  press (page, "contractor_vcard_button");
  press (window, "show_vcard_button");
  return expected +
         "<presence type='subscribe' id='11' from='alice@alpha.test' to='bob@beta.test'/>"
         "<iq type='get' id='12' from='alice@alpha.test/morvane' to='bob@beta.test'>"
         "<vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'/></iq>"
         "<iq type='get' id='13' from='alice@alpha.test/morvane' to='alice@alpha.test'>"
         "<vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'/></iq>";
}

static std::string
publish_vcard (AppWindow *window)
{
  type (window->vcard_page, "fullname_entry", "Alice & Co");
  type (window->vcard_page, "telephone_entry", "tel:+1");
  press (window->vcard_page, "save_button");
  return "<iq type='set' id='14' from='alice@alpha.test/morvane'>"
         "<vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'><fn><text>Alice &amp; Co</text></fn>"
         "<tel><parameters><type><text>work</text></type></parameters><uri>tel:+1</uri></tel>"
         "</vcard></iq><iq type='get' id='15' from='alice@alpha.test/morvane' "
         "to='alice@alpha.test'><vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'/></iq>";
}

static bool
shows_own_vcard (void *data)
{
  AppWindow *window = (AppWindow *) data;
  return get_text (window->vcard_page, "title_label") == "Your Public Profile";
}

static bool
is_worker_and_server_done (void *data)
{
  Wire *wire = (Wire *) data;
  return scripted_server_is_done (wire->server) && is_idle (wire->window);
}

TEST (session, sends_every_stanza_byte_by_byte)
{
  Wire wire;
  ServerScript script = script_login (JID);
  size_t login_size = script.size ();
  script.push_back (server_send (BOBS_STANZAS));
  // The own card is asked for last; it comes back empty.
  script.push_back (server_expect_until ("id='13' from='alice@alpha.test/morvane' "
                                         "to='alice@alpha.test'><vcard "
                                         "xmlns='urn:ietf:params:xml:ns:vcard-4.0'/></iq>"));
  script.push_back (server_send ("<iq type='error' id='13' to='alice@alpha.test/morvane'>"
                                 "<error type='cancel'><item-not-found/></error></iq>"));
  script.push_back (server_expect_until ("<iq type='get' id='15' from='alice@alpha.test/morvane' "
                                         "to='alice@alpha.test'><vcard "
                                         "xmlns='urn:ietf:params:xml:ns:vcard-4.0'/></iq>"));
  script.push_back (server_send ("<presence type='subscribe' from='carol@alpha.test'/>"));
  const std::string subscribed = "<presence type='subscribed' id='16' from='alice@alpha.test/"
                                 "morvane' to='carol@alpha.test'/><presence type='subscribe' "
                                 "id='17' from='alice@alpha.test' to='carol@alpha.test'/>";
  script.push_back (server_expect (subscribed));
  script.push_back (server_expect ("</stream:stream>"));
  script.push_back (server_close_notify ());
  start_server (&wire, script);
  press_login (&wire);
  ASSERT_TRUE (pump_until (has_bobs_revision, wire.window));
  std::string expected = answer_bob (wire.window);
  expected += open_procedure (wire.window);
  expected += meet_bob (wire.window);
  ASSERT_TRUE (pump_until (shows_own_vcard, wire.window));
  expected += publish_vcard (wire.window) + subscribed + "</stream:stream>";
  // Until the answer to carol has gone out.
  struct Until {
    Wire *wire;
    size_t steps;
  } until = {&wire, login_size + 6};
  ASSERT_TRUE (pump_until (
    [] (void *data) {
      Until *wanted = (Until *) data;
      return scripted_server_steps_done (wanted->wire->server) >= wanted->steps;
    },
    &until));
  close_window (&wire.test);
  EXPECT_TRUE (pump_until (is_worker_and_server_done, &wire));
  ServerReport report = finish_server (&wire);
  std::string login = login_stream_request ("alpha.test") + login_auth_request ("alice", "pw") +
                      login_stream_request ("alpha.test") + login_bind_request ("morvane") +
                      login_roster_request (FULL_JID) + login_presence_request (FULL_JID);
  EXPECT_EQ (report.received, login + expected);
  EXPECT_EQ (report.received_clear, login_stream_request ("alpha.test") +
                                      "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>");
  for (size_t size : record_sizes (report))
    EXPECT_LE (size, 10u);
}

TEST (session, speaks_from_the_resource_that_the_server_chose)
{
  Wire wire;
  LoginOptions options;
  options.bound_resource = "srv-7";
  ServerScript script = script_login (JID, options);
  script.push_back (server_send ("<presence from='bob@beta.test/d' to='alice@alpha.test/srv-7'/>"));
  script.push_back (server_expect ("<message type='chat' id='3' from='alice@alpha.test/srv-7' "
                                   "to='bob@beta.test'><body>hi</body></message>"));
  start_server (&wire, script);
  press_login (&wire);
  ASSERT_TRUE (pump_until (
    [] (void *data) {
      AppWindow *window = (AppWindow *) data;
      return window->account_db_id && window->contacts.count == 1;
    },
    wire.window));
  ContactChatPage *chat_page = wire.window->contacts.contacts[0]->chat_page;
  type (chat_page, "chat_entry", "hi");
  press (chat_page, "send_button");
  finish_server (&wire);
}

// ---- What is received ----

// A negotiation and what goes around it, as bob's and the server's stanzas.
static std::string
make_stanzas ()
{
  const std::string open = "<message type='chat' from='bob@beta.test/desk' "
                           "to='alice@alpha.test/morvane'><body>";
  const std::string close = "</body></message>";
  const std::string clause = "procedure='bob@beta.test:100' clause='bob@beta.test:200'";
  return std::string (BOBS_STANZAS) + open + "chat &lt;1&gt;" + close + open + "<x-revision " +
         clause +
         " revision='bob@beta.test:301'>Gr\xC3\xBC\xC3\x9F\x65 \xF0\x9F\x98\x80\n&quot;&apos;" +
         "&amp;</x-revision>" + close + open + "<x-clause-message " + clause +
         " message='bob:400'>what > do</x-clause-message>" + close + open + "<x-clause-decision " +
         clause + " revision='bob@beta.test:301' decision='bob@beta.test:500'>DISAGREE" +
         "</x-clause-decision>" + close +
         "<iq type='result' id='2' to='alice@alpha.test/morvane'><query xmlns='jabber:iq:roster'>"
         "<item jid='bob@beta.test' subscription=\"both\"/></query></iq>"
         "<presence type='unavailable' from='bob@beta.test/desk' to='alice@alpha.test/morvane'/>" +
         open + close + open + "chat 2" + close;
}

// Everything in the store but the clock's times.
static std::string
dump_store (Wire *wire)
{
  std::string rows;
  for (const char *sql :
       {"SELECT * FROM contacts", "SELECT db_id, contact_db_id, author, body FROM contact_messages",
        "SELECT db_id, account_db_id, time, initiator, contractor, title FROM procedures",
        "SELECT * FROM clauses", "SELECT * FROM clause_messages", "SELECT * FROM clause_revisions",
        "SELECT db_id, clause_revision_db_id, author, status FROM clause_revision_decisions"}) {
    rows += query (&wire->test, sql) + "--\n";
  }
  return rows;
}

static std::string
receive_stanzas (const Pieces &pieces)
{
  Wire wire;
  play (&wire, script_pieces (pieces));
  EXPECT_TRUE (pump_until (is_idle, wire.window));
  pump ();
  std::string console = console_of (&wire);
  EXPECT_EQ (count_of (console, "Warning: Received"), 0u) << console;
  finish_server (&wire);
  return dump_store (&wire);
}

TEST (session, stores_what_bob_sent)
{
  EXPECT_EQ (receive_stanzas ({make_stanzas ()}),
             "1|1|bob@beta.test\n--\n"
             "1|1|bob@beta.test|chat <1>\n2|1|bob@beta.test|\n3|1|bob@beta.test|chat 2\n--\n"
             "1|1|100|bob@beta.test|alice@alpha.test|Bob\u2019s\n--\n"
             "1|1|200|bob@beta.test|1\n--\n"
             "1|1|400|bob|what > do\n--\n"
             "1|1|300|bob@beta.test|COMMITTED|First & last\n"
             "2|1|301|bob@beta.test|COMMITTED|Gr\xC3\xBC\xC3\x9F\x65 \xF0\x9F\x98\x80\n\"'&\n--\n"
             "1|2|bob@beta.test|DISAGREE\n--\n");
}

TEST (session, stores_the_same_however_the_stanzas_were_cut)
{
  std::string stanzas = make_stanzas ();
  std::string whole = receive_stanzas ({stanzas});
  for (size_t size : {1, 10, 101, 500})
    EXPECT_EQ (receive_stanzas (cut_every (stanzas, size)), whole) << size;
}

// One revision for each place where its stanza may be cut.
TEST (session, keeps_a_stanza_that_was_cut_anywhere)
{
  const std::string head =
    "<message from='bob@beta.test/desk' to='alice@alpha.test'><body><x-revision "
    "procedure='bob@beta.test:100' clause='bob@beta.test:200' revision='bob@beta.test:";
  const std::string tail = "'>x &lt;&#x3E; y</x-revision></body></message>";
  std::string good_tail = tail;
  good_tail.replace (good_tail.find ("&#x3E;"), 6, "&gt;");
  Pieces pieces = {BOBS_STANZAS};
  std::string expected = "300|First & last\n";
  size_t size = head.size () + 4 + good_tail.size ();
  for (size_t offset = 1; offset < size; ++offset) {
    std::string time = std::to_string (1000 + offset);
    for (const std::string &piece : cut_at (head + time + good_tail, offset))
      pieces.push_back (piece);
    expected += time + "|x <> y\n";
  }
  Wire wire;
  play (&wire, script_pieces (pieces));
  EXPECT_TRUE (pump_until (is_idle, wire.window));
  EXPECT_EQ (query (&wire.test, "SELECT time, text FROM clause_revisions ORDER BY db_id"),
             expected);
  finish_server (&wire);
}

TEST (session, loses_only_a_stanza_that_the_end_cut)
{
  const std::string open = "<message from='bob@beta.test/desk'><body>";
  for (const std::string &rest :
       {open + "half", open + "half &l", open.substr (0, 15), open + "half</body></message"}) {
    Wire wire;
    play (&wire,
          script_pieces ({std::string (BOBS_STANZAS) + open + "whole</body></message>" + rest}));
    EXPECT_TRUE (pump_until (is_idle, wire.window));
    EXPECT_EQ (query (&wire.test, "SELECT body FROM contact_messages"), "whole\n") << rest;
    EXPECT_EQ (count_of (console_of (&wire), rest + "\" (String)\n"), 1u) << rest;
    finish_server (&wire);
  }
}

TEST (session, warns_of_what_it_does_not_know)
{
  Wire wire;
  play (&wire, script_pieces ({"<a/><message from='b@c'><body/></message><b/>", "   "}));
  EXPECT_TRUE (pump_until (is_idle, wire.window));
  std::string console = console_of (&wire);
  EXPECT_EQ (count_of (console, "Warning: Received unknown XML data.\n"), 2u);
  EXPECT_EQ (count_of (console, "Warning: Received non-XML data.\n"), 1u);
  EXPECT_EQ (count_of (console,
                       "data: \"<a/><message from='b@c'><body/></message><b/>\" (String)\n"),
             1u);
  finish_server (&wire);
}

TEST (session, drops_a_text_that_cant_be_kept_with_one_warning)
{
  Wire wire;
  play (&wire, script_pieces ({std::string (BOBS_STANZAS) +
                               "<message from='bob@beta.test'><body>&nbsp;</body></message>"
                               "<message from='bob@beta.test'><body>good</body></message>"}));
  EXPECT_TRUE (pump_until (is_idle, wire.window));
  EXPECT_EQ (query (&wire.test, "SELECT body FROM contact_messages"), "good\n");
  EXPECT_EQ (count_of (console_of (&wire), "Warning: Received a text which can't be kept.\n"), 1u);
  finish_server (&wire);
}

// Bob says so many things at once.
static std::string
make_burst (int count)
{
  std::string burst = BOBS_STANZAS;
  for (int i = 0; i < count; ++i)
    burst += "<message from='bob@beta.test'><body>" + std::to_string (i) + "</body></message>";
  return burst;
}

TEST (session, lets_the_user_be_heard_in_a_burst)
{
  // All idle sources that wait are handed out before the next look at the user's events, so no more
  // than a few stanzas may wait at a time.
  const int COUNT = 300;
  const int STANZAS_MAX = 3;
  Wire wire;
  start_server (&wire, script_pieces ({make_burst (COUNT)}));
  press_login (&wire);
  ASSERT_TRUE (pump_until (is_logged_in, wire.window));
  int seen = 0, most = 0;
  for (s64 end = g_get_monotonic_time () + 30000000;
       seen < COUNT && g_get_monotonic_time () < end;) {
    g_main_context_iteration (NULL, TRUE);
    int now = std::stoi (query (&wire.test, "SELECT count(*) FROM contact_messages"));
    most = std::max (most, now - seen);
    seen = now;
  }
  EXPECT_EQ (seen, COUNT);
  EXPECT_LE (most, STANZAS_MAX);
  EXPECT_TRUE (pump_until (is_idle, wire.window));
  finish_server (&wire);
}

// ---- The end of a session ----

TEST (session, lives_on_when_the_server_is_gone)
{
  for (const ServerStep &end : {server_close_notify (), server_fin (), server_reset ()}) {
    Wire wire;
    ServerScript script = script_login (JID);
    script.push_back (server_wait ());
    script.push_back (end);
    start_server (&wire, script);
    press_login (&wire);
    EXPECT_TRUE (pump_until (is_logged_in, wire.window));
    scripted_server_signal (wire.server);
    EXPECT_TRUE (pump_until (is_idle, wire.window));
    EXPECT_EQ (count_of (console_of (&wire), "Disconnected.\n"), 1u);
    EXPECT_EQ (get_page (wire.window, "stack"), "main_page");
    // What the user does now is kept, although nobody hears of it.
    ProcedureCreationPage *page = wire.window->procedure_creation_page;
    type (page, "title_entry", "Later");
    type (page, "contractor_entry", "bob@beta.test");
    press (page, "begin_button");
    EXPECT_EQ (query (&wire.test, "SELECT title FROM procedures"), "Later\n");
    finish_server (&wire);
  }
}

// A window waits two seconds at most for its worker; the rest is for a busy machine.
static const s64 CLOSING_MS_MAX = 5000;

// How long the window takes to close, in milliseconds.
static s64
close_timed (Wire *wire)
{
  s64 start = g_get_monotonic_time ();
  close_window (&wire->test);
  s64 taken = (g_get_monotonic_time () - start) / 1000;
  EXPECT_TRUE (pump_until (is_idle, wire->window));
  EXPECT_EQ (app_window_count_stray_workers (), 0u);
  return taken;
}

TEST (session, ends_its_stream_when_the_window_closes)
{
  Wire wire;
  ServerScript script = script_login (JID);
  script.push_back (server_expect ("</stream:stream>"));
  script.push_back (server_close_notify ());
  script.push_back (server_expect_end ());
  start_server (&wire, script);
  press_login (&wire);
  ASSERT_TRUE (pump_until (is_logged_in, wire.window));
  EXPECT_LT (close_timed (&wire), CLOSING_MS_MAX);
  finish_server (&wire);
  EXPECT_FALSE (wire.window->connection.opened_socket);
}

TEST (session, closes_in_time_in_a_burst)
{
  Wire wire;
  ServerScript script = script_login (JID);
  script.push_back (server_send (make_burst (2000)));
  script.push_back (server_expect ("</stream:stream>"));
  script.push_back (server_expect_end ());
  start_server (&wire, script);
  press_login (&wire);
  ASSERT_TRUE (pump_until (is_logged_in, wire.window));
  ASSERT_TRUE (pump_until (
    [] (void *data) {
      return query ((TestWindow *) data, "SELECT count(*) > 9 FROM contact_messages") == "1\n";
    },
    &wire.test));
  EXPECT_LT (close_timed (&wire), CLOSING_MS_MAX);
  finish_server (&wire);
}

TEST (session, closes_in_time_when_the_server_does_not_answer)
{
  Wire wire;
  ServerScript script = script_login (JID);
  script.push_back (server_expect ("</stream:stream>"));
  script.push_back (server_expect_end ());
  start_server (&wire, script);
  press_login (&wire);
  ASSERT_TRUE (pump_until (is_logged_in, wire.window));
  EXPECT_LT (close_timed (&wire), CLOSING_MS_MAX);
  finish_server (&wire);
}

// ---- Closing early ----

// The server takes a request and is silent.
TEST (closing, ends_every_wait_of_a_login)
{
  ServerScript login = script_login (JID);
  for (size_t count = 1; count < login.size (); ++count) {
    bool is_waiting =
      login[count].kind == SERVER_STEP_SEND || login[count].kind == SERVER_STEP_HANDSHAKE;
    if (!is_waiting)
      continue;
    Wire wire;
    ServerScript script (login.begin (), login.begin () + (ptrdiff_t) count);
    start_server (&wire, script);
    press_login (&wire);
    EXPECT_TRUE (scripted_server_wait_steps (wire.server, count));
    EXPECT_LT (close_timed (&wire), CLOSING_MS_MAX) << count;
    scripted_server_stop (wire.server);
    wire.server = NULL;
    EXPECT_FALSE (wire.window->connection.opened_socket) << count;
    EXPECT_EQ (wire.window->account.data, nullptr) << count;
  }
}

// The server goes on answering, and the window closes at any moment of that.
TEST (closing, is_safe_at_every_step_of_a_login)
{
  ServerScript login = script_login (JID);
  for (size_t count = 0; count <= login.size (); ++count) {
    Wire wire;
    start_server (&wire, login);
    press_login (&wire);
    EXPECT_TRUE (scripted_server_wait_steps (wire.server, count));
    EXPECT_LT (close_timed (&wire), CLOSING_MS_MAX) << count;
    scripted_server_stop (wire.server);
    wire.server = NULL;
  }
}

// Listens where the program connects to, and lets nobody in: the queue is full.
struct DeafServer {
  int listener;
  int fillers[4];

  DeafServer ()
  {
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons (5222);
    address.sin_addr.s_addr = htonl (INADDR_LOOPBACK);
    int on = 1;
    listener = socket (AF_INET, SOCK_STREAM, 0);
    setsockopt (listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof (on));
    EXPECT_EQ (bind (listener, (struct sockaddr *) &address, sizeof (address)), 0);
    EXPECT_EQ (listen (listener, 0), 0);
    for (int &filler : fillers) {
      filler = socket (AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
      (void) !connect (filler, (struct sockaddr *) &address, sizeof (address));
    }
  }
  ~DeafServer ()
  {
    for (int filler : fillers)
      close (filler);
  }
};

static bool
is_connecting (void *data)
{
  Worker *worker = ((AppWindow *) data)->worker;
  pthread_mutex_lock (&worker->mutex);
  bool result = worker->is_connecting;
  pthread_mutex_unlock (&worker->mutex);
  return result;
}

static bool
has_no_strays (void *)
{
  return app_window_count_stray_workers () == 0;
}

// Nothing wakes a thread that connects. The window closes all the same, without waiting for it, and
// what the worker holds is released when it comes back.
TEST (closing, leaves_a_worker_behind_that_cant_be_woken)
{
  Wire wire;
  DeafServer deaf;
  press_login (&wire);
  EXPECT_TRUE (pump_until (is_connecting, wire.window));
  close_window (&wire.test);
  EXPECT_FALSE (app_window_is_worker_running (wire.window));
  EXPECT_EQ (app_window_count_stray_workers (), 1u);
  EXPECT_EQ (wire.window->account.data, nullptr);
  // From now on the program's next attempt is refused.
  close (deaf.listener);
  EXPECT_TRUE (pump_until (has_no_strays, NULL));
}

// ---- Interruptions ----

TEST (interrupt_xmpp_login, ends_a_login_before_the_server_hears_that_we_are_there)
{
  ServerScript login = script_login (JID);
  size_t bind = 0;
  while (login[bind].text.find ("<bind ") == std::string::npos)
    bind++;
  Wire wire;
  ServerScript script (login.begin (), login.begin () + bind + 1);
  script.push_back (server_wait ());
  script.push_back (login[bind + 1]);
  script.push_back (server_expect_end ());
  start_server (&wire, script);
  press_login (&wire);
  EXPECT_TRUE (scripted_server_wait_steps (wire.server, bind + 1));
  EXPECT_TRUE (interrupt_xmpp_login (wire.window));
  scripted_server_signal (wire.server);
  EXPECT_TRUE (pump_until (is_idle, wire.window));
  EXPECT_EQ (wire.window->account_db_id, 0u);
  ServerReport report = finish_server (&wire);
  EXPECT_EQ (report.received.find ("<presence"), std::string::npos);
}

TEST (interrupt_xmpp_login, leaves_a_session_alone)
{
  Wire wire;
  ServerScript script = script_login (JID);
  script.push_back (server_wait ());
  start_server (&wire, script);
  press_login (&wire);
  EXPECT_TRUE (pump_until (is_logged_in, wire.window));
  EXPECT_FALSE (interrupt_xmpp_login (wire.window));
  EXPECT_FALSE (worker_is_interrupted (wire.window->worker));
  scripted_server_signal (wire.server);
  finish_server (&wire);
  EXPECT_TRUE (pump_until (is_idle, wire.window));
}

TEST (stop_taking_stanzas, what_was_taken_is_applied_and_nothing_after_it)
{
  Wire wire;
  ServerScript script = script_login (JID);
  script.push_back (server_send ("<presence from='bob@alpha.test/x' to='alice@alpha.test'/>"));
  script.push_back (server_wait ());
  script.push_back (server_send ("<presence from='carla@alpha.test/x' to='alice@alpha.test'/>"));
  script.push_back (server_send ("</stream:stream>"));
  script.push_back (server_close_notify ());
  script.push_back (server_expect_end ());
  start_server (&wire, script);
  press_login (&wire);
  EXPECT_TRUE (pump_until ([] (void *data) { return ((AppWindow *) data)->contacts.count == 1; },
                           wire.window));
  stop_taking_stanzas (wire.window);
  scripted_server_signal (wire.server);
  EXPECT_TRUE (pump_until (is_idle, wire.window));
  EXPECT_EQ (query (&wire.test, "SELECT bare_jid FROM contacts"), "bob@alpha.test\n");
  finish_server (&wire);
}

TEST (end_xmpp_stream, goes_out_once_and_is_known)
{
  Wire wire;
  ServerScript script = script_login (JID);
  script.push_back (server_expect ("</stream:stream>"));
  script.push_back (server_wait ());
  script.push_back (server_send ("</stream:stream>"));
  script.push_back (server_close_notify ());
  script.push_back (server_expect_end ());
  start_server (&wire, script);
  press_login (&wire);
  EXPECT_TRUE (pump_until (is_logged_in, wire.window));
  EXPECT_FALSE (has_ended_xmpp_stream (wire.window));
  end_xmpp_stream (wire.window);
  EXPECT_TRUE (has_ended_xmpp_stream (wire.window));
  end_xmpp_stream (wire.window);
  scripted_server_signal (wire.server);
  EXPECT_TRUE (pump_until (is_idle, wire.window));
  ServerReport report = finish_server (&wire);
  EXPECT_EQ (count_of (report.received, "</stream:stream>"), 1u);
}

// ---- The end of a session ----

static bool
is_lost (void *data)
{
  return !app_window_is_connected ((AppWindow *) data);
}

static bool
is_login_page_shown (void *data)
{
  AppWindow *window = (AppWindow *) data;
  return !window->account_db_id && get_page (window, "stack") == "login_page";
}

static void
activate_log_in_again (Wire *wire)
{
  g_action_group_activate_action (G_ACTION_GROUP (wire->window), "log-in-again", NULL);
}

static const char LOST_TITLE[] = "Morvane (not connected: Ctrl+Shift+L logs in again)";

TEST (session, says_in_the_title_that_it_is_over)
{
  Wire wire;
  play (&wire, script_pieces ({"<presence from='bob@alpha.test/x' to='alice@alpha.test'/>"}));
  EXPECT_TRUE (pump_until (is_idle, wire.window));
  EXPECT_STREQ (gtk_window_get_title (GTK_WINDOW (wire.window)), LOST_TITLE);
  EXPECT_EQ (get_page (wire.window, "stack"), "main_page");
  EXPECT_EQ (wire.window->contacts.count, 1u);
  finish_server (&wire);
}

TEST (session, is_over_when_a_stanza_cannot_be_sent)
{
  Wire wire;
  ServerScript script = script_login (JID);
  script.push_back (server_wait ());
  start_server (&wire, script);
  press_login (&wire);
  EXPECT_TRUE (pump_until (is_logged_in, wire.window));
  EXPECT_STREQ (gtk_window_get_title (GTK_WINDOW (wire.window)), "Morvane");
  std::string stanza (1000000, 'x');
  String view = {(u8 *) stanza.data (), stanza.size ()};
  while (send_all_tls_data (wire.window->connection.tls_session, view)) {
  }
  // The worker, which was still waiting for the server, leaves too.
  EXPECT_TRUE (pump_until (is_lost, wire.window));
  EXPECT_TRUE (pump_until (is_idle, wire.window));
  EXPECT_STREQ (gtk_window_get_title (GTK_WINDOW (wire.window)), LOST_TITLE);
  scripted_server_signal (wire.server);
}

TEST (session, sends_what_waited_when_the_server_reads_again)
{
  Wire wire;
  ServerScript script = script_login (JID);
  size_t login_steps = script.size ();
  script.push_back (server_wait ());
  script.push_back (server_expect_until ("</last>"));
  start_server (&wire, script);
  press_login (&wire);
  EXPECT_TRUE (pump_until (is_logged_in, wire.window));
  EXPECT_TRUE (scripted_server_wait_steps (wire.server, login_steps));
  gnutls_session_t tls_session = wire.window->connection.tls_session;
  std::string all;
  for (int number = 0; number < 60; ++number) {
    std::string stanza = "<message id='" + std::to_string (number) + "'>";
    stanza += std::string (60000, (char) ('a' + number % 26)) + "</message>";
    EXPECT_EQ (send_all_tls_data (tls_session, {(u8 *) stanza.data (), stanza.size ()}),
               stanza.size ());
    all += stanza;
  }
  send_all_tls_data (tls_session, to_string ("</last>"));
  EXPECT_GT (get_tls_send_state (tls_session).waiting_size, 0u);
  // The user is heard meanwhile.
  pump ();
  scripted_server_signal (wire.server);
  EXPECT_TRUE (pump_until (is_server_done, wire.server));
  EXPECT_EQ (get_tls_send_state (tls_session).waiting_size, 0u);
  ServerReport report = finish_server (&wire);
  EXPECT_TRUE (report.taken.back () == all + "</last>");
}

// As often as one likes, and each time as the first.
TEST (session, can_be_followed_by_another_in_the_same_window)
{
  Wire wire;
  for (int round = 0; round < 20; ++round) {
    play (&wire, script_pieces ({"<presence from='bob@alpha.test/x' to='alice@alpha.test'/>"}));
    EXPECT_TRUE (pump_until (is_idle, wire.window));
    EXPECT_EQ (wire.window->contacts.count, 1u);
    activate_log_in_again (&wire);
    EXPECT_TRUE (is_login_page_shown (wire.window));
    EXPECT_STREQ (gtk_window_get_title (GTK_WINDOW (wire.window)), "Morvane");
    EXPECT_EQ (get_text (wire.window->login_page, "bare_jid_entry"), JID);
    EXPECT_EQ (get_text (wire.window->login_page, "password_entry"), "");
    EXPECT_EQ (wire.window->account.data, nullptr);
    EXPECT_FALSE (wire.window->connection.opened_socket);
    EXPECT_EQ (wire.window->contacts.count, 0u);
    finish_server (&wire);
    // The ids go on; the server of the next round expects the first ones.
    EXPECT_GT (wire.window->last_xmpp_id, 0u);
    wire.window->last_xmpp_id = 0;
  }
}

TEST (session, is_ended_by_a_user_who_logs_in_again)
{
  Wire wire;
  ServerScript script = script_login (JID);
  script_append (&script,
                 {server_expect ("</stream:stream>"),
                  server_send ("<presence from='bob@alpha.test/x' to='alice@alpha.test'/>"),
                  server_send ("</stream:stream>"), server_close_notify ()});
  start_server (&wire, script);
  press_login (&wire);
  EXPECT_TRUE (pump_until (is_logged_in, wire.window));
  activate_log_in_again (&wire);
  activate_log_in_again (&wire);
  EXPECT_TRUE (pump_until (is_login_page_shown, wire.window));
  EXPECT_STREQ (gtk_window_get_title (GTK_WINDOW (wire.window)), "Morvane");
  // What came before the server's end was kept.
  EXPECT_EQ (query (&wire.test, "SELECT count (*) FROM contacts"), "1\n");
}

TEST (session, is_ended_by_a_user_whose_server_does_not_answer)
{
  Wire wire;
  ServerScript script = script_login (JID);
  script_append (&script, {server_expect ("</stream:stream>"), server_wait ()});
  start_server (&wire, script);
  press_login (&wire);
  EXPECT_TRUE (pump_until (is_logged_in, wire.window));
  activate_log_in_again (&wire);
  EXPECT_TRUE (pump_until (is_login_page_shown, wire.window));
  scripted_server_signal (wire.server);
}

TEST (session, that_the_user_ends_can_be_closed_meanwhile)
{
  Wire wire;
  ServerScript script = script_login (JID);
  script_append (&script, {server_expect ("</stream:stream>"), server_wait ()});
  start_server (&wire, script);
  press_login (&wire);
  EXPECT_TRUE (pump_until (is_logged_in, wire.window));
  activate_log_in_again (&wire);
  close_window (&wire.test);
  EXPECT_EQ (wire.window->account.data, nullptr);
  scripted_server_signal (wire.server);
}

// ---- Registering ----

static void
press_register (Wire *wire)
{
  press (wire->window->login_page, "register_button");
  RegistrationPage *page = wire->window->registration_page;
  type (page, "bare_jid_entry", JID);
  type (page, "password1_entry", "pw");
  type (page, "password2_entry", "pw");
  press (page, "register_button");
}

static ServerScript
script_register (const std::string &answer)
{
  ServerScript script = script_connect ("alpha.test");
  script_append (&script,
                 {server_expect ("<iq type='get' id='1'><query xmlns='jabber:iq:register'/></iq>"),
                  server_send ("<iq type='result' id='1'><query xmlns='jabber:iq:register'/></iq>"),
                  server_expect (
                    "<iq type='set' id='2'><query xmlns='jabber:iq:register'><username>alice"
                    "</username><password>pw</password></query></iq>"),
                  server_send (answer)});
  return script;
}

static std::string
status_of_registration (Wire *wire)
{
  EXPECT_TRUE (pump_until (is_idle, wire->window));
  EXPECT_EQ (get_page (wire->window, "stack"), "registration_page");
  EXPECT_TRUE (is_sensitive (wire->window->registration_page, "register_button"));
  EXPECT_FALSE (wire->window->connection.opened_socket);
  EXPECT_EQ (wire->window->account.data, nullptr);
  return get_text (wire->window->registration_page, "status_label");
}

TEST (registration, leads_to_a_login)
{
  Wire wire;
  ServerScript script = script_register ("<iq type='result' id='2'/>");
  script.push_back (server_expect_end ());
  start_server (&wire, script);
  press_register (&wire);
  EXPECT_TRUE (pump_until (is_idle, wire.window));
  EXPECT_EQ (get_page (wire.window, "stack"), "login_page");
  EXPECT_EQ (get_text (wire.window->login_page, "bare_jid_entry"), JID);
  EXPECT_FALSE (wire.window->connection.opened_socket);
  finish_server (&wire);
}

TEST (registration, shows_how_it_failed)
{
  const std::vector<std::pair<std::string, std::string>> rows = {
    {"<iq type='error' id='2'><error type='cancel'><text>Taken</text></error></iq>", "Taken"},
    {"</stream:stream>", "Server disconnected for unknown reason by closing the XMPP stream"},
    {"<stream:error><not-well-formed/></stream:error></stream:stream>", "Unhandled error"},
    {"<stream:error><not-well-formated/></stream:error></stream:stream>",
     "Stream error: not-well-formated"},
  };
  for (const auto &[answer, text] : rows) {
    Wire wire;
    start_server (&wire, script_register (answer));
    press_register (&wire);
    EXPECT_EQ (status_of_registration (&wire), text);
    finish_server (&wire);
  }
}

TEST (registration, shows_that_the_server_left)
{
  Wire wire;
  ServerScript script = script_register ("");
  script.push_back (server_close ());
  start_server (&wire, script);
  press_register (&wire);
  EXPECT_EQ (status_of_registration (&wire),
             "Server disconnected for unknown reason by closing the socket");
  finish_server (&wire);
}

TEST (registration, shows_that_nobody_listens)
{
  Wire wire;
  press_register (&wire);
  EXPECT_EQ (status_of_registration (&wire), "Can't connect to server");
}

TEST (registration, shows_that_it_is_unavailable)
{
  Wire wire;
  ServerScript script = script_connect ("alpha.test");
  script.push_back (
    server_expect ("<iq type='get' id='1'><query xmlns='jabber:iq:register'/></iq>"));
  script.push_back (server_send ("<iq type='error' id='1'><error type='cancel'/></iq>"));
  script.push_back (server_expect_end ());
  start_server (&wire, script);
  press_register (&wire);
  EXPECT_EQ (status_of_registration (&wire), "Registration unavailable");
  finish_server (&wire);
}

TEST (registration, can_be_left_at_every_wait_and_a_login_follows)
{
  ServerScript registering = script_register ("<iq type='result' id='2'/>");
  for (size_t count = 1; count < registering.size (); ++count) {
    if (registering[count].kind != SERVER_STEP_SEND &&
        registering[count].kind != SERVER_STEP_HANDSHAKE) {
      continue;
    }
    Wire wire;
    ServerScript script (registering.begin (), registering.begin () + (ptrdiff_t) count);
    start_server (&wire, script);
    press_register (&wire);
    EXPECT_TRUE (scripted_server_wait_steps (wire.server, count));
    press (wire.window->registration_page, "cancel_button");
    EXPECT_EQ (get_page (wire.window, "stack"), "login_page");
    EXPECT_TRUE (pump_until (is_idle, wire.window)) << count;
    EXPECT_EQ (get_text (wire.window->registration_page, "status_label"), "");
    EXPECT_EQ (get_page (wire.window, "stack"), "login_page");
    EXPECT_FALSE (wire.window->connection.opened_socket) << count;
    scripted_server_stop (wire.server);
    // What it drew of the ids stays drawn; the server of this login does not look at them.
    wire.window->last_xmpp_id = 0;
    start_server (&wire, script_login (JID));
    press_login (&wire);
    EXPECT_TRUE (pump_until (is_logged_in, wire.window)) << count;
    finish_server (&wire);
  }
}

// ---- Giving up ----

// A resolver or a server that keeps quiet takes minutes; the user does not.
TEST (login, can_be_given_up_while_it_connects_and_another_begins_at_once)
{
  Wire wire;
  {
    DeafServer deaf;
    for (u32 attempt = 1; attempt <= 3; ++attempt) {
      press_login (&wire);
      EXPECT_TRUE (pump_until (is_connecting, wire.window));
      press_key (&wire.test, GDK_KEY_Escape);
      EXPECT_FALSE (app_window_is_worker_running (wire.window));
      EXPECT_EQ (app_window_count_stray_workers (), attempt);
      EXPECT_EQ (status_of_login (&wire), "");
      EXPECT_FALSE (is_account_locked (&wire.test));
    }
    close (deaf.listener);
  }
  EXPECT_TRUE (pump_until (has_no_strays, NULL));
  EXPECT_EQ (get_text (wire.window->login_page, "status_label"), "");
  play (&wire, script_pieces ({"<presence from='bob@alpha.test/x' to='alice@alpha.test'/>"}));
  EXPECT_TRUE (pump_until (is_idle, wire.window));
  EXPECT_EQ (wire.window->contacts.count, 1u);
  // Its session is over, and the account still loaded.
  EXPECT_TRUE (is_account_locked (&wire.test));
}

TEST (login, that_was_given_up_outlives_its_window)
{
  Wire wire;
  DeafServer deaf;
  press_login (&wire);
  EXPECT_TRUE (pump_until (is_connecting, wire.window));
  press_key (&wire.test, GDK_KEY_Escape);
  close_window (&wire.test);
  // The console stays: the worker still writes to it, as in a program that has another window.
  EXPECT_EQ (app_window_count_stray_workers (), 1u);
  close (deaf.listener);
  EXPECT_TRUE (pump_until (has_no_strays, NULL));
}

// Up to the answer to the bind, after which the session begins whatever comes.
TEST (login, can_be_given_up_at_every_wait)
{
  ServerScript login = script_login (JID);
  for (size_t count = 0; count + 5 < login.size (); ++count) {
    Wire wire;
    ServerScript script (login.begin (), login.begin () + count);
    script.push_back (server_wait ());
    start_server (&wire, script);
    press_login (&wire);
    EXPECT_TRUE (scripted_server_wait_steps (wire.server, count));
    press_key (&wire.test, GDK_KEY_Escape);
    EXPECT_EQ (status_of_login (&wire), "") << count;
    EXPECT_TRUE (pump_until (has_no_strays, NULL));
    scripted_server_stop (wire.server);
    wire.server = NULL;
  }
}

// The roster, the own presence and a stanza behind them, which the interface has not looked at.
static bool
has_taken_three_stanzas (AppWindow *window)
{
  pthread_mutex_lock (&window->worker->mutex);
  bool has_taken = window->worker->lead == 3;
  pthread_mutex_unlock (&window->worker->mutex);
  return has_taken;
}

static bool
is_loaded (void *window)
{
  return ((AppWindow *) window)->procedures.count == 1;
}

// What the server has delivered is nobody else's any more.
TEST (login, that_has_just_succeeded_is_not_given_up)
{
  Wire wire;
  ServerScript script = script_login (JID);
  script.push_back (server_send (std::string ("<message from='bob@beta.test/desk' to='") + JID +
                                 "'><body><x-procedure procedure='bob@beta.test:100'>Lease"
                                 "</x-procedure></body></message>"));
  script.push_back (server_wait ());
  start_server (&wire, script);
  LoginPage *page = wire.window->login_page;
  type (page, "bare_jid_entry", JID);
  type (page, "password_entry", "pw");
  // Not `press`, which goes on to handle what comes: the success has to wait for the key.
  gtk_button_clicked (GTK_BUTTON (login_page_get_login_button (page)));
  for (int i = 0; i < 10000 && !has_taken_three_stanzas (wire.window); i++)
    g_usleep (1000);
  ASSERT_TRUE (has_taken_three_stanzas (wire.window));
  press_key (&wire.test, GDK_KEY_Escape);
  EXPECT_TRUE (pump_until (is_loaded, wire.window));
  EXPECT_NE (wire.window->account_db_id, 0u);
  EXPECT_EQ (query (&wire.test, "SELECT account_db_id, title FROM procedures"), "1|Lease\n");
  EXPECT_EQ (get_page (wire.window, "stack"), "main_page");
  scripted_server_stop (wire.server);
  wire.server = NULL;
}

TEST (registration, can_be_given_up_while_it_connects_and_a_login_begins_at_once)
{
  Wire wire;
  DeafServer deaf;
  press_register (&wire);
  EXPECT_TRUE (pump_until (is_connecting, wire.window));
  press (wire.window->registration_page, "cancel_button");
  EXPECT_FALSE (app_window_is_worker_running (wire.window));
  EXPECT_EQ (get_page (wire.window, "stack"), "login_page");
  EXPECT_TRUE (is_sensitive (wire.window->registration_page, "register_button"));
  press_login (&wire);
  EXPECT_TRUE (pump_until (is_connecting, wire.window));
  press_key (&wire.test, GDK_KEY_Escape);
  EXPECT_FALSE (app_window_is_worker_running (wire.window));
  close (deaf.listener);
  EXPECT_TRUE (pump_until (has_no_strays, NULL));
}
