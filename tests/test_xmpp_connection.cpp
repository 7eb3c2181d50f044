// The road of a session: the account, every exchange against a peer that answers well and badly,
// the dispatch of what is received, and both workers against a scripted server in the private world
// of scripts/world. Records are caught on their way to the interface, before any handler runs.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gnutls/gnutls.h>

#include "app_window.h"
#include "login_page.h"
#include "morvane.h"
#include "network.h"
#include "network_events.h"
#include "registration_page.h"
#include "scripted_server.h"
#include "session_thread.h"
#include "stanza_dispatch.h"

static std::string
text_of (String string)
{
  return std::string ((const char *) string.data, string.size);
}

static String
string_of (const std::string &text)
{
  return {(u8 *) text.data (), text.size ()};
}

// The line of an assertion, as a regular expression.
static std::string
stop_in (const std::string &source, const std::string &expression)
{
  std::string regex = "src/" + source + "\\.cpp.*Assertion `";
  for (char c : expression) {
    if (strchr ("()[]{}.*+?|^$\\", c)) {
      regex += "\\";
    }
    regex += c;
  }
  return regex + "' failed";
}

static std::string
stop_at (const std::string &expression)
{
  return stop_in ("xmpp_connection", expression);
}

static bool
contains (const std::string &text, const std::string &part)
{
  return text.find (part) != std::string::npos;
}

static std::string
dump_of (const std::string &name, const std::string &value)
{
  return name + ": \"" + value + "\" (String)\n";
}

// The lines that begin with "Warning: " or "Error: ", in order.
static std::string
complaints_of (const std::string &console)
{
  std::string result;
  for (size_t start = 0; start < console.size ();) {
    size_t end = console.find ('\n', start);
    end = end == std::string::npos ? console.size () : end + 1;
    std::string line = console.substr (start, end - start);
    if (line.starts_with ("Warning: ") || line.starts_with ("Error: "))
      result += line;
    start = end;
  }
  return result;
}

// ---- The interface thread, caught ----

struct Caught {
  GSourceFunc handler;
  void *record;
};

static std::mutex caught_mutex;
static std::vector<Caught> caught_records;

// In the place of GDK's: records stay here and count as applied, console text is dealt with at once.
extern "C" guint
gdk_threads_add_idle (GSourceFunc handler, gpointer record)
{
  if (handler == _console_put_gdk_thread || handler == worker_note_applied) {
    handler (record);
    return 1;
  }
  std::lock_guard<std::mutex> lock (caught_mutex);
  caught_records.push_back ({handler, record});
  return 1;
}

static std::string
take_presence (const char *kind, void *record)
{
  XMPPPresenceSignal *signal = (XMPPPresenceSignal *) record;
  std::string text = std::string (kind) + " " + text_of (signal->from) + "\n";
  dealloc_xmpp_presence_available_signal (signal);
  return text;
}

static std::string
take_outcome (const char *kind, void *record)
{
  XMPPThreadMessage *message = (XMPPThreadMessage *) record;
  std::string text = std::string (kind) + ": " + message->text + "\n";
  EXPECT_EQ (message->flag, 0);
  dealloc_thread_message (message);
  return text;
}

static std::string
pair_of (String author, s64 time)
{
  return " " + text_of (author) + ":" + std::to_string (time);
}

static std::string
take_negotiation (const Caught &caught)
{
  std::string text;
  if (caught.handler == app_window_get_xmpp_procedure) {
    XMPPProcedure *m = (XMPPProcedure *) caught.record;
    text = "procedure" + pair_of (m->initiator, m->time) + " " + text_of (m->title);
    dealloc_xmpp_procedure (m);
  } else if (caught.handler == app_window_get_xmpp_clause) {
    XMPPClause *m = (XMPPClause *) caught.record;
    text = "clause" + pair_of (m->procedure_initiator, m->procedure_time) +
           pair_of (m->clause_initiator, m->clause_time);
    dealloc_xmpp_clause (m);
  } else if (caught.handler == app_window_get_xmpp_clause_revision) {
    XMPPClauseRevision *m = (XMPPClauseRevision *) caught.record;
    text = "revision" + pair_of (m->revision_author, m->revision_time) + " " + text_of (m->text);
    dealloc_xmpp_clause_revision (m);
  } else if (caught.handler == app_window_get_xmpp_clause_message) {
    XMPPClauseMessage *m = (XMPPClauseMessage *) caught.record;
    text =
      "clause message" + pair_of (m->message_author, m->message_time) + " " + text_of (m->text);
    dealloc_xmpp_clause_message (m);
  } else if (caught.handler == app_window_get_xmpp_clause_revision_decision_signal) {
    XMPPClauseRevisionDecisionSignal *m = (XMPPClauseRevisionDecisionSignal *) caught.record;
    text = "decision" + pair_of (m->decision_author, m->decision_time) + " " +
           DECISION_STATUS_STRINGS[m->status];
    dealloc_xmpp_clause_revision_decision_signal (m);
  } else {
    ADD_FAILURE () << "a record for an unknown handler";
  }
  return text + "\n";
}

// Says what was posted, and frees it as its handler would.
static std::string
take (const Caught &caught)
{
  if (caught.handler == app_window_get_xmpp_message_signal) {
    XMPPMessageSignal *signal = (XMPPMessageSignal *) caught.record;
    std::string text = "message " + text_of (signal->from) + " '" + text_of (signal->text) + "'\n";
    dealloc_xmpp_message_signal (signal);
    return text;
  }
  if (caught.handler == app_window_get_xmpp_message_error_signal) {
    XMPPMessageErrorSignal *signal = (XMPPMessageErrorSignal *) caught.record;
    std::string text = "message error " + text_of (signal->from) + " " +
                       std::to_string (signal->id) + " '" + text_of (signal->condition) + "' '" +
                       text_of (signal->text) + "'\n";
    dealloc_xmpp_message_error_signal (signal);
    return text;
  }
  if (caught.handler == app_window_get_iq_error_message) {
    XMPPIQErrorSignal *signal = (XMPPIQErrorSignal *) caught.record;
    std::string text = "iq error " + std::to_string (signal->id) + "\n";
    dealloc_xmpp_iq_error_signal (signal);
    return text;
  }
  if (caught.handler == app_window_get_vcard_message) {
    VCardMessage *message = (VCardMessage *) caught.record;
    std::string text =
      "vcard " + std::to_string (message->id) + " " + text_of (message->from) + "\n";
    dealloc_vcard_message (message);
    return text;
  }
  if (caught.handler == login_page_handle_login_success) {
    g_object_unref (caught.record);
    return "login success\n";
  }
  if (caught.handler == app_window_release_worker) {
    g_object_unref (caught.record);
    return "release\n";
  }
  const std::vector<std::pair<GSourceFunc, const char *>> presences = {
    {app_window_get_xmpp_presence_confirm_signal, "confirm"},
    {app_window_get_xmpp_presence_available_signal, "available"},
    {app_window_get_xmpp_presence_unavailable_signal, "unavailable"},
    {app_window_get_xmpp_presence_subscribe_signal, "subscribe"},
    {app_window_get_xmpp_presence_subscribed_signal, "subscribed"},
  };
  for (const auto &[handler, kind] : presences) {
    if (caught.handler == handler)
      return take_presence (kind, caught.record);
  }
  if (caught.handler == login_page_handle_login_failure)
    return take_outcome ("login failure", caught.record);
  if (caught.handler == registration_page_handle_success)
    return take_outcome ("register success", caught.record);
  if (caught.handler == registration_page_handle_failure)
    return take_outcome ("register failure", caught.record);
  return take_negotiation (caught);
}

// Everything that was posted, one line each, in order.
static std::string
take_posted ()
{
  std::vector<Caught> records;
  caught_mutex.lock ();
  records.swap (caught_records);
  caught_mutex.unlock ();
  std::string text;
  for (const Caught &caught : records)
    text += take (caught);
  return text;
}

// ---- Process ----

static gnutls_certificate_credentials_t tls_credentials;

// What the program's entry does for every window.
class Process : public testing::Environment {
  void SetUp () override
  {
    signal (SIGPIPE, SIG_IGN);
    tls_credentials = init_tls_global ();
  }
  void TearDown () override
  {
    deinit_tls_global (tls_credentials);
  }
};

[[maybe_unused]] static testing::Environment *process =
  testing::AddGlobalTestEnvironment (new Process ());

// A window without widgets.
struct BareWindow {
  AppWindow *window;

  explicit BareWindow (u64 input_size = 1024 * 1024)
  {
    static GType type =
      g_type_register_static_simple (G_TYPE_OBJECT, "BareWindow", sizeof (GObjectClass), NULL,
                                     sizeof (AppWindow), NULL, (GTypeFlags) 0);
    window = (AppWindow *) g_object_new (type, NULL);
    window->xmpp_handlers = &APP_WINDOW_XMPP_HANDLERS;
    window->worker = worker_new ();
    window->tls_credentials = tls_credentials;
    window->input_stream_buffer = alloc (input_size);
    window->output_stream_buffer = alloc (64 * 1024);
    window->account =
      alloc_xmpp_account (to_string ("alice@alpha.test"), to_string ("pw"), to_string ("morvane"));
  }
  ~BareWindow ()
  {
    xmpp_close_connection (window);
    dealloc (window->input_stream_buffer);
    dealloc (window->output_stream_buffer);
    worker_unref (window->worker);
    EXPECT_EQ (((GObject *) window)->ref_count, 1u);
    g_object_unref (window);
  }
  BareWindow (const BareWindow &) = delete;
  BareWindow &operator= (const BareWindow &) = delete;
};

// ---- Account ----

TEST (alloc_xmpp_account, lays_its_texts_out_in_one_block)
{
  testing::internal::CaptureStdout ();
  XMPPAccount account = alloc_xmpp_account (to_string ("alice@alpha.test"), to_string ("secret"),
                                            to_string ("morvane"));
  EXPECT_EQ (testing::internal::GetCapturedStdout (), "");
  EXPECT_EQ (std::string ((char *) account.data, 30), "alice@alpha.test/morvanesecret");
  EXPECT_EQ (text_of (account.full_jid), "alice@alpha.test/morvane");
  EXPECT_EQ (text_of (account.bare_jid), "alice@alpha.test");
  EXPECT_EQ (text_of (account.resource), "morvane");
  EXPECT_EQ (text_of (account.username), "alice");
  EXPECT_EQ (text_of (account.hostname), "alpha.test");
  EXPECT_EQ (text_of (account.password), "secret");
  for (String view : {account.full_jid, account.bare_jid, account.resource, account.username,
                      account.hostname, account.password}) {
    EXPECT_GE (view.data, account.data);
    EXPECT_LE (view.data + view.size, account.data + 30);
  }
  dealloc_xmpp_account (account);
}

static std::string
refuse_account (const std::string &bare_jid, const std::string &password = "pw",
                const std::string &resource = "morvane")
{
  testing::internal::CaptureStdout ();
  XMPPAccount account =
    alloc_xmpp_account (string_of (bare_jid), string_of (password), string_of (resource));
  std::string console = testing::internal::GetCapturedStdout ();
  XMPPAccount invalid = {};
  EXPECT_EQ (memcmp (&account, &invalid, sizeof (account)), 0) << bare_jid;
  dealloc_xmpp_account (account);
  return console;
}

TEST (alloc_xmpp_account, refuses_an_empty_part_without_a_line)
{
  EXPECT_EQ (refuse_account (""), "");
  EXPECT_EQ (refuse_account ("alice@alpha.test", ""), "");
  EXPECT_EQ (refuse_account ("alice@alpha.test", "pw", ""), "");
  EXPECT_EQ (refuse_account ("alice", "", ""), "");
}

TEST (alloc_xmpp_account, says_what_is_wrong_with_the_address)
{
  EXPECT_EQ (refuse_account ("alice"), "Error: Login account 'alice' is missing an '@' symbol.\n");
  EXPECT_EQ (refuse_account ("@alpha.test"),
             "Error: Login account '@alpha.test' is missing the username part.\n");
  EXPECT_EQ (refuse_account ("@"), "Error: Login account '@' is missing the username part.\n");
  EXPECT_EQ (refuse_account ("@@"), "Error: Login account '@@' is missing the username part.\n");
  EXPECT_EQ (refuse_account ("alice@"),
             "Error: Login account 'alice@' is missing the hostname part.\n");
  EXPECT_EQ (refuse_account ("alice@alpha@test"),
             "Error: Login account 'alice@alpha@test' has more than one '@' symbol.\n");
  EXPECT_EQ (refuse_account ("alice@@"),
             "Error: Login account 'alice@@' has more than one '@' symbol.\n");
}

TEST (alloc_xmpp_account, leaves_a_slash_alone)
{
  XMPPAccount account = alloc_xmpp_account (to_string ("a@b/c"), to_string ("p"), to_string ("r"));
  EXPECT_EQ (text_of (account.bare_jid), "a@b/c");
  EXPECT_EQ (text_of (account.hostname), "b/c");
  EXPECT_EQ (text_of (account.full_jid), "a@b/c/r");
  dealloc_xmpp_account (account);
}

TEST (alloc_thread_message, copies_its_text)
{
  char text[] = "text";
  XMPPThreadMessage *message = alloc_thread_message (NULL, text, 7);
  text[0] = 'n';
  EXPECT_STREQ (message->text, "text");
  EXPECT_EQ (message->flag, 7);
  EXPECT_EQ (message->window, nullptr);
  dealloc_thread_message (message);
}

static s64
get_ms ()
{
  return g_get_monotonic_time () / 1000;
}

// ---- Clear text ----

// A socket whose every packet is one receive, so that an answer is cut as a test wants.
struct ClearPeer {
  int sockets[2];
  std::vector<u8> memory = std::vector<u8> (64 * 1024);
  std::string console;

  explicit ClearPeer (const Pieces &answer, bool closes = true)
  {
    EXPECT_EQ (socketpair (AF_UNIX, SOCK_SEQPACKET, 0, sockets), 0);
    for (const std::string &piece : answer) {
      EXPECT_EQ (send (sockets[1], piece.data (), piece.size (), 0), (ssize_t) piece.size ());
    }
    if (closes)
      shutdown (sockets[1], SHUT_WR);
  }
  ~ClearPeer ()
  {
    close (sockets[0]);
    close (sockets[1]);
  }
  ClearPeer (const ClearPeer &) = delete;
  ClearPeer &operator= (const ClearPeer &) = delete;

  Buffer buffer ()
  {
    return {memory.data (), memory.size ()};
  }
  std::string sent ()
  {
    char data[4096];
    ssize_t size = recv (sockets[1], data, sizeof (data), MSG_DONTWAIT);
    return size > 0 ? std::string (data, (size_t) size) : "";
  }
  int begin ()
  {
    testing::internal::CaptureStdout ();
    int result = xmpp_begin_unencypted_stream (sockets[0], buffer (), to_string ("alpha.test"));
    console = testing::internal::GetCapturedStdout ();
    return result;
  }
  void request_starttls ()
  {
    testing::internal::CaptureStdout ();
    xmpp_request_starttls (sockets[0], buffer ());
    console = testing::internal::GetCapturedStdout ();
  }
};

static const char STREAM_REQUEST[] =
  "<?xml version='1.0'?><stream:stream xmlns='jabber:client' "
  "xmlns:stream='http://etherx.jabber.org/streams' to='alpha.test' version='1.0'>";

static std::string
clear_answer ()
{
  return login_stream_header ("alpha.test") + login_starttls_features ();
}

TEST (xmpp_begin_unencypted_stream, sends_one_header_and_shows_everything)
{
  ClearPeer peer ({clear_answer ()});
  EXPECT_EQ (peer.begin (), 0);
  EXPECT_EQ (peer.sent (), STREAM_REQUEST);
  EXPECT_EQ (peer.sent (), "");
  std::string dumps = dump_of ("request", STREAM_REQUEST) + dump_of ("response", clear_answer ());
  EXPECT_TRUE (peer.console.starts_with (dumps)) << peer.console;
  EXPECT_TRUE (contains (peer.console.substr (dumps.size ()), "starttls")) << peer.console;
  // The parser's own, since a stream stays open.
  EXPECT_EQ (complaints_of (peer.console), "Warning: Unclosed XML elements: </stream:stream>\n");
}

static const char NO_DOCTYPE[] =
  "Warning: Stream doesn't have an XML DOCTYPE as it's first element.\n";

struct ClearRow {
  const char *answer;
  int result;
  std::string warnings;
};

TEST (xmpp_begin_unencypted_stream, judges_the_answer)
{
  const std::vector<ClearRow> rows = {
    {"<stream:stream><stream:features><starttls/></stream:features>", 0, NO_DOCTYPE},
    {"<xml/><stream:stream><stream:features><starttls/></stream:features>", 0, NO_DOCTYPE},
    {"<?html?><stream:stream><stream:features><starttls/></stream:features>", 0, NO_DOCTYPE},
    {"<?xml?><other/><stream:stream><stream:features><a/><starttls/></stream:features>", 0, ""},
    {"<?xml?><other/>", -1, "Warning: No XMPP <stream:stream> found.\n"},
    {"<other/>", -1, std::string (NO_DOCTYPE) + "Warning: No XMPP <stream:stream> found.\n"},
    {"<?xml?><stream:stream>", -1, "Warning: Stream doesn't have <stream:features>.\n"},
    {"<?xml?><stream:stream><features/></stream:stream>", -1,
     "Warning: Stream doesn't have <stream:features>.\n"},
    {"<?xml?><stream:stream><stream:features/>", -1,
     "Warning: Stream features doesn't have <starttls>.\n"},
    {"<?xml?><stream:stream><stream:features><tls/></stream:features>", -1,
     "Warning: Stream features doesn't have <starttls>.\n"},
  };
  for (const ClearRow &row : rows) {
    ClearPeer peer ({row.answer});
    EXPECT_EQ (peer.begin (), row.result) << row.answer;
    std::string complaints;
    // The parser has a line of its own about the stream that stays open.
    for (const char *line : {NO_DOCTYPE, "Warning: No XMPP <stream:stream> found.\n",
                             "Warning: Stream doesn't have <stream:features>.\n",
                             "Warning: Stream features doesn't have <starttls>.\n"}) {
      if (contains (peer.console, line))
        complaints += line;
    }
    EXPECT_EQ (complaints, row.warnings) << row.answer;
  }
}

TEST (xmpp_begin_unencypted_stream, finds_no_stream_in_what_is_no_xml)
{
  ClearPeer peer ({"<"});
  EXPECT_EQ (peer.begin (), -1);
  EXPECT_TRUE (contains (peer.console, NO_DOCTYPE));
  EXPECT_TRUE (peer.console.ends_with ("Warning: No XMPP <stream:stream> found.\n"));
}

TEST (xmpp_begin_unencypted_stream, takes_an_answer_however_it_was_cut)
{
  std::string answer = clear_answer ();
  for (size_t offset = 1; offset < answer.size (); ++offset) {
    ClearPeer peer (cut_at (answer, offset), false);
    ASSERT_EQ (peer.begin (), 0) << offset;
    ASSERT_TRUE (contains (peer.console, dump_of ("response", answer))) << offset;
  }
  ClearPeer peer (cut_every (answer, 3), false);
  EXPECT_EQ (peer.begin (), 0);
}

TEST (xmpp_begin_unencypted_stream, judges_what_is_there_after_a_pause)
{
  ClearPeer peer ({login_stream_header ("alpha.test")}, false);
  s64 start = get_ms ();
  EXPECT_EQ (peer.begin (), -1);
  EXPECT_GE (get_ms () - start, 2900);
  EXPECT_TRUE (peer.console.ends_with ("Warning: Stream doesn't have <stream:features>.\n"));
}

static void
begin_clear_stream (const Pieces &answer, size_t buffer_size)
{
  ClearPeer peer (answer);
  xmpp_begin_unencypted_stream (peer.sockets[0], {peer.memory.data (), buffer_size},
                                to_string ("alpha.test"));
}

TEST (xmpp_begin_unencypted_stream, stops_without_an_answer)
{
  EXPECT_DEATH (begin_clear_stream ({}, 4096), stop_at ("response.size"));
}

TEST (xmpp_begin_unencypted_stream, stops_when_the_request_fills_the_buffer)
{
  EXPECT_DEATH (begin_clear_stream ({clear_answer ()}, sizeof (STREAM_REQUEST) - 1),
                stop_at ("request_p.size"));
}

static const char PROCEED[] = "<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>";

TEST (xmpp_request_starttls, takes_the_go_ahead_and_shows_only_that)
{
  ClearPeer peer ({PROCEED});
  peer.request_starttls ();
  std::string sent = peer.sent ();
  EXPECT_EQ (sent, "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>");
  EXPECT_EQ (sent.size (), 51u);
  EXPECT_EQ (peer.console, dump_of ("response", PROCEED));
}

TEST (xmpp_request_starttls, takes_the_go_ahead_however_it_was_cut)
{
  for (size_t offset = 1; offset < strlen (PROCEED); ++offset) {
    ClearPeer peer (cut_at (PROCEED, offset), false);
    peer.request_starttls ();
    ASSERT_EQ (peer.console, dump_of ("response", PROCEED)) << offset;
  }
}

static void
request_starttls (const Pieces &answer)
{
  ClearPeer peer (answer);
  xmpp_request_starttls (peer.sockets[0], peer.buffer ());
}

TEST (xmpp_request_starttls, stops_at_any_other_answer)
{
  const std::vector<std::pair<Pieces, const char *>> rows = {
    {{}, "response.size"},
    {{"<"}, "xml_element"},
    {{"<failure xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>"}, "xml_element->name == \"proceed\""},
    {{"<proceed></proceed>"}, "xml_element->is_void"},
    {{"<proceed/><stream:features/>"}, "!xml_element->next"},
  };
  for (const auto &[answer, expression] : rows)
    EXPECT_DEATH (request_starttls (answer), stop_at (expression));
}

// ---- Over TLS ----

// Wants exactly this request, then answers it; an answer without pieces ends the stream.
struct TLSExchange {
  std::string request;
  Pieces answer;
  int pause_ms = 0;
};

typedef std::vector<TLSExchange> Exchanges;

#define PRIORITIES "NORMAL:-VERS-ALL:+VERS-TLS1.2:+ANON-ECDH"

// Both ends of a TLS session inside the process; the far end plays a list of exchanges.
struct TLSPeer {
  Exchanges exchanges;
  std::string rest;
  std::thread thread;
  int sockets[2];
  gnutls_session_t session;
  gnutls_anon_client_credentials_t client_credentials;
  gnutls_anon_server_credentials_t server_credentials;
  std::vector<u8> memory = std::vector<u8> (64 * 1024);

  explicit TLSPeer (const Exchanges &list);
  ~TLSPeer ();
  TLSPeer (const TLSPeer &) = delete;
  TLSPeer &operator= (const TLSPeer &) = delete;
  void play ();
  bool play_exchange (gnutls_session_t server, const TLSExchange &exchange);
  Buffer buffer ()
  {
    return {memory.data (), memory.size ()};
  }
};

// Receives until `received` has the size of `request`; false at the end.
static bool
receive (gnutls_session_t server, std::string *received, size_t size)
{
  while (received->size () < size) {
    char data[4096];
    ssize_t result = gnutls_record_recv (server, data, sizeof (data));
    if (result <= 0)
      return false;
    EXPECT_LE (result, 10);
    received->append (data, (size_t) result);
  }
  return true;
}

bool
TLSPeer::play_exchange (gnutls_session_t server, const TLSExchange &exchange)
{
  bool is_open = receive (server, &rest, exchange.request.size ());
  EXPECT_EQ (rest.substr (0, exchange.request.size ()), exchange.request);
  rest.erase (0, exchange.request.size ());
  bool ends = exchange.answer.empty ();
  for (size_t i = 0; i < exchange.answer.size (); ++i) {
    // An empty last piece is the end of the stream.
    ends = exchange.answer[i].empty ();
    if (i && exchange.pause_ms)
      g_usleep (exchange.pause_ms * 1000);
    if (!ends)
      gnutls_record_send (server, exchange.answer[i].data (), exchange.answer[i].size ());
  }
  if (ends)
    gnutls_bye (server, GNUTLS_SHUT_WR);
  return is_open;
}

void
TLSPeer::play ()
{
  gnutls_session_t server;
  gnutls_init (&server, GNUTLS_SERVER);
  gnutls_priority_set_direct (server, PRIORITIES, NULL);
  gnutls_credentials_set (server, GNUTLS_CRD_ANON, server_credentials);
  gnutls_transport_set_int (server, sockets[1]);
  bool is_open = gnutls_handshake (server) == 0;
  for (size_t i = 0; is_open && i < exchanges.size (); ++i)
    is_open = play_exchange (server, exchanges[i]);
  if (is_open)
    receive (server, &rest, (size_t) -1);
  gnutls_deinit (server);
  close (sockets[1]);
}

TLSPeer::TLSPeer (const Exchanges &list) : exchanges (list)
{
  EXPECT_EQ (socketpair (AF_UNIX, SOCK_STREAM, 0, sockets), 0);
  gnutls_anon_allocate_client_credentials (&client_credentials);
  gnutls_anon_allocate_server_credentials (&server_credentials);
  thread = std::thread (&TLSPeer::play, this);
  gnutls_init (&session, GNUTLS_CLIENT);
  gnutls_priority_set_direct (session, PRIORITIES, NULL);
  gnutls_credentials_set (session, GNUTLS_CRD_ANON, client_credentials);
  gnutls_transport_set_int (session, sockets[0]);
  EXPECT_EQ (gnutls_handshake (session), 0);
}

TLSPeer::~TLSPeer ()
{
  gnutls_bye (session, GNUTLS_SHUT_WR);
  thread.join ();
  EXPECT_EQ (rest, "");
  gnutls_deinit (session);
  close (sockets[0]);
  gnutls_anon_free_client_credentials (client_credentials);
  gnutls_anon_free_server_credentials (server_credentials);
}

// One exchange of the client on `peer`; what it returns is put in words.
typedef std::string (*Exchange) (TLSPeer *peer, Buffer buffer);

static std::string
begin_stream (TLSPeer *peer, Buffer buffer)
{
  xmpp_begin_stream (peer->session, buffer, to_string ("alpha.test"));
  return "";
}

static std::string
error_name (XMPPError error)
{
  static const char *const NAMES[] = {"XMPP_OK", "XMPP_ERROR", "XMPP_FAILURE"};
  return NAMES[error];
}

static std::string
send_auth (TLSPeer *peer, Buffer buffer)
{
  return error_name (
    xmpp_send_auth_request (peer->session, buffer, to_string ("alice"), to_string ("pw")));
}

static std::string
bind_resource (TLSPeer *peer, Buffer buffer)
{
  String rest;
  String full_jid =
    xmpp_iq_set_bind_resource (peer->session, buffer, 3, to_string ("morvane"), &rest);
  EXPECT_EQ (rest.size, 0u);
  return text_of (full_jid);
}

static std::string
get_register (TLSPeer *peer, Buffer buffer)
{
  return error_name (xmpp_iq_get_register (peer->session, buffer, 3));
}

static const char BIND_REQUEST[] =
  "<iq type='set' id='3'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'>"
  "<resource>morvane</resource></bind></iq>";
static const char REGISTER_REQUEST[] =
  "<iq type='get' id='3'><query xmlns='jabber:iq:register'/></iq>";

static std::string
auth_request ()
{
  return "<auth xmlns=\"urn:ietf:params:xml:ns:xmpp-sasl\" mechanism=\"PLAIN\">AGFsaWNlAHB3</auth>";
}

static std::string
bind_answer (const std::string &children = "<jid>alice@alpha.test/morvane</jid>")
{
  return "<iq type='result' id='3'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'>" + children +
         "</bind></iq>";
}

struct ExchangeRow {
  Exchange exchange;
  std::string request;
  std::string answer;
  std::string result;
};

static std::vector<ExchangeRow>
make_exchange_rows ()
{
  return {
    {begin_stream, STREAM_REQUEST, login_stream_header ("alpha.test") + login_sasl_features (), ""},
    {send_auth, auth_request (), "<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>", "XMPP_OK"},
    {send_auth, auth_request (), "<failure><not-authorized/></failure>", "XMPP_FAILURE"},
    {send_auth, auth_request (), "<challenge>cmVz</challenge>", "XMPP_ERROR"},
    {bind_resource, BIND_REQUEST, bind_answer (), "alice@alpha.test/morvane"},
    {get_register, REGISTER_REQUEST, "<iq type='result' id='3'><query/></iq>", "XMPP_OK"},
    {get_register, REGISTER_REQUEST, "<iq type='error' id='3'><error/></iq>", "XMPP_ERROR"},
    {get_register, REGISTER_REQUEST, "<iq type='get' id='3'/>", "XMPP_ERROR"},
  };
}

class tls_exchange : public testing::TestWithParam<ExchangeRow> {};

TEST_P (tls_exchange, shows_request_and_response_and_judges_the_answer)
{
  const ExchangeRow &row = GetParam ();
  TLSPeer peer ({{row.request, {row.answer}}});
  testing::internal::CaptureStdout ();
  std::string result = row.exchange (&peer, peer.buffer ());
  std::string console = testing::internal::GetCapturedStdout ();
  EXPECT_EQ (result, row.result);
  std::string dumps = dump_of ("request", row.request) + dump_of ("response", row.answer);
  EXPECT_TRUE (console.starts_with (dumps)) << console;
  EXPECT_GT (console.size (), dumps.size ()) << "no tree was printed";
}

TEST_P (tls_exchange, takes_an_answer_however_it_was_cut)
{
  const ExchangeRow &row = GetParam ();
  Exchanges exchanges;
  for (size_t offset = 1; offset < row.answer.size (); ++offset)
    exchanges.push_back ({row.request, cut_at (row.answer, offset)});
  exchanges.push_back ({row.request, cut_every (row.answer, 1)});
  TLSPeer peer (exchanges);
  testing::internal::CaptureStdout ();
  for (size_t i = 0; i < exchanges.size (); ++i)
    EXPECT_EQ (row.exchange (&peer, peer.buffer ()), row.result) << i;
  testing::internal::GetCapturedStdout ();
}

TEST_P (tls_exchange, stops_without_an_answer)
{
  const ExchangeRow &row = GetParam ();
  auto run = [&row] {
    TLSPeer peer ({{row.request, {}}});
    row.exchange (&peer, peer.buffer ());
  };
  EXPECT_DEATH (run (), stop_at ("response.size"));
}

TEST_P (tls_exchange, stops_at_what_is_no_xml)
{
  const ExchangeRow &row = GetParam ();
  auto run = [&row] {
    TLSPeer peer ({{row.request, {"<", ""}}});
    row.exchange (&peer, peer.buffer ());
  };
  EXPECT_DEATH (run (), stop_at ("xml_element"));
}

TEST_P (tls_exchange, stops_when_the_request_fills_the_buffer)
{
  const ExchangeRow &row = GetParam ();
  // The credentials and their base64 form stand in front of the request.
  size_t ahead = row.exchange == send_auth ? 9 + 12 : 0;
  const char *expression = row.exchange == send_auth ? "request_buffer_p.size" : "request_p.size";
  auto run = [&row, ahead] {
    TLSPeer peer ({{row.request, {row.answer}}});
    row.exchange (&peer, {peer.memory.data (), row.request.size () + ahead});
  };
  EXPECT_DEATH (run (), stop_at (expression));
}

INSTANTIATE_TEST_SUITE_P (answers, tls_exchange, testing::ValuesIn (make_exchange_rows ()));

TEST (xmpp_begin_stream, judges_what_is_there_after_a_pause)
{
  TLSPeer peer ({{STREAM_REQUEST, {login_stream_header ("alpha.test")}}});
  s64 start = get_ms ();
  begin_stream (&peer, peer.buffer ());
  EXPECT_GE (get_ms () - start, 2900);
}

// Each pause is shorter than three seconds, all of them together are longer.
TEST (xmpp_begin_stream, waits_as_long_as_something_comes)
{
  std::string features = login_sasl_features ();
  Pieces answer = {login_stream_header ("alpha.test")};
  for (const std::string &piece : cut_at (features, 20))
    answer.push_back (piece);
  TLSPeer peer ({{STREAM_REQUEST, answer, 1700}});
  testing::internal::CaptureStdout ();
  begin_stream (&peer, peer.buffer ());
  std::string console = testing::internal::GetCapturedStdout ();
  EXPECT_TRUE (contains (console, dump_of ("response", login_stream_header ("alpha.test") +
                                                         login_sasl_features ())));
}

TEST (xmpp_iq_set_bind_resource, lets_the_server_choose)
{
  std::string empty_request =
    "<iq type='set' id='3'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/></iq>";
  TLSPeer peer ({{empty_request, {bind_answer ("<jid>alice@alpha.test/xyz</jid>")}}});
  String rest;
  EXPECT_EQ (text_of (xmpp_iq_set_bind_resource (peer.session, peer.buffer (), 3, {}, &rest)),
             "alice@alpha.test/xyz");
}

static void
bind_to (const std::string &answer)
{
  TLSPeer peer ({{BIND_REQUEST, {answer}}});
  bind_resource (&peer, peer.buffer ());
}

TEST (xmpp_iq_set_bind_resource, stops_at_anything_but_one_bind_result)
{
  const std::string bind = "<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'>";
  const std::string jid = "<jid>alice@alpha.test/morvane</jid>";
  const std::vector<std::pair<std::string, std::string>> rows = {
    {"<message/>", "xml_element->name == \"iq\""},
    {"<iq type='result'>" + bind + jid + "</bind></iq>", "response_id.size"},
    {"<iq type='result' id=''>" + bind + jid + "</bind></iq>", "response_id.size"},
    {"<iq type='result' id='4'>" + bind + jid + "</bind></iq>",
     "string_to_u64 (response_id) == id"},
    {"<iq type='error' id='3'>" + bind + jid + "</bind></iq>",
     "get_xml_attribute (xml_element, \"type\") == \"result\""},
    {bind_answer () + "<iq/>", "!xml_element->next"},
    {"<iq type='result' id='3'/>", "xml_element->children"},
    {"<iq type='result' id='3'><session/></iq>", "xml_element->name == \"bind\""},
    {"<iq type='result' id='3'><bind>" + jid + "</bind></iq>",
     "get_xml_attribute (xml_element, \"xmlns\") == \"urn:ietf:params:xml:ns:xmpp-bind\""},
    {"<iq type='result' id='3'>" + bind + jid + "</bind><bind/></iq>", "!xml_element->next"},
    {bind_answer (""), "xml_element->children"},
    {bind_answer ("<resource>x</resource>"), "xml_element->name == \"jid\""},
    {bind_answer (jid + jid), "!xml_element->next"},
    {bind_answer ("<jid/>"), "xml_element->children"},
    {bind_answer ("<jid><b>x</b></jid>"), "xml_element->text.size"},
    {bind_answer ("<jid>a@b/c<b>x</b></jid>"), "!xml_element->next"},
  };
  for (const auto &[answer, expression] : rows)
    EXPECT_DEATH (bind_to (answer), stop_at (expression)) << answer;
}

static void
get_register_with (const std::string &answer)
{
  TLSPeer peer ({{REGISTER_REQUEST, {answer}}});
  get_register (&peer, peer.buffer ());
}

TEST (xmpp_iq_get_register, stops_at_an_answer_to_something_else)
{
  const std::vector<std::pair<std::string, std::string>> rows = {
    {"<message/>", "xml_element->name == \"iq\""},
    {"<iq type='result'/>", "response_id.size"},
    {"<iq type='result' id='4'/>", "string_to_u64 (response_id) == id"},
    {"<iq id='3'/>", "iq_type.size"},
  };
  for (const auto &[answer, expression] : rows)
    EXPECT_DEATH (get_register_with (answer), stop_at (expression)) << answer;
}

static const char SET_REGISTER_REQUEST[] =
  "<iq type='set' id='4'><query xmlns='jabber:iq:register'><username>al<ice</username>"
  "<password>p&w</password></query></iq>";

TEST (xmpp_iq_set_register, sends_name_and_password_as_they_are_and_does_not_wait)
{
  TLSPeer peer (Exchanges{{SET_REGISTER_REQUEST, {"<unread/>"}}});
  testing::internal::CaptureStdout ();
  EXPECT_EQ (xmpp_iq_set_register (peer.session, peer.buffer (), 4, to_string ("al<ice"),
                                   to_string ("p&w")),
             4u);
  EXPECT_EQ (testing::internal::GetCapturedStdout (), dump_of ("request", SET_REGISTER_REQUEST));
}

TEST (xmpp_iq_set_register, stops_when_the_request_fills_the_buffer)
{
  auto run = [] {
    TLSPeer peer (Exchanges{});
    xmpp_iq_set_register (peer.session, {peer.memory.data (), strlen (SET_REGISTER_REQUEST)}, 4,
                          to_string ("al<ice"), to_string ("p&w"));
  };
  EXPECT_DEATH (run (), stop_at ("buffer_p.size"));
}

TEST (xmpp_send_presence, says_that_the_resource_is_there)
{
  const std::string request =
    "<presence from='alice@alpha.test/morvane'><priority>1</priority></presence>";
  TLSPeer peer ({{request, {"<unread/>"}}});
  testing::internal::CaptureStdout ();
  xmpp_send_presence (peer.session, peer.buffer (), to_string ("alice@alpha.test/morvane"));
  EXPECT_EQ (testing::internal::GetCapturedStdout (), dump_of ("request", request));
}

TEST (xmpp_send_presence, stops_when_the_request_fills_the_buffer)
{
  auto run = [] {
    TLSPeer peer (Exchanges{});
    xmpp_send_presence (peer.session, {peer.memory.data (), 30}, to_string ("alice@alpha.test/m"));
  };
  EXPECT_DEATH (run (), stop_in ("buffers", "buffer_p.size"));
}

TEST (xmpp_send_end_stream, leaves_the_buffer_alone)
{
  TLSPeer peer (Exchanges{{"</stream:stream>", {"<unread/>"}}});
  testing::internal::CaptureStdout ();
  xmpp_send_end_stream (peer.session, {});
  EXPECT_EQ (testing::internal::GetCapturedStdout (), dump_of ("request", "</stream:stream>"));
}

// ---- Dispatch ----

typedef void (*StanzaParser) (AppWindow *window, XMLElement *element);

// What the parser wrote to the console, then what it posted.
static std::string
dispatch (StanzaParser parser, const std::string &xml)
{
  BareWindow bare;
  std::vector<u8> memory (64 * 1024);
  XMLElement *element =
    parse_xml_tree ({memory.data (), memory.size ()}, string_of (xml), NULL, NULL);
  EXPECT_TRUE (element) << xml;
  testing::internal::CaptureStdout ();
  parser (bare.window, element);
  std::string console = testing::internal::GetCapturedStdout ();
  return console + take_posted ();
}

struct DispatchRow {
  StanzaParser parser;
  const char *stanza;
  const char *outcome;
};

static const DispatchRow DISPATCH_ROWS[] = {
  // Presence without a type, with and without "to".
  {parse_xmpp_presence, "<presence from='bob@beta.test/desk' to='alice@alpha.test'/>",
   "available bob@beta.test/desk\n"},
  {parse_xmpp_presence, "<presence from='bob@beta.test/desk' to='alice@alpha.test/morvane'/>",
   "available bob@beta.test/desk\n"},
  {parse_xmpp_presence, "<presence type='' from='bob@beta.test/desk' to='alice@alpha.test/x'/>",
   "available bob@beta.test/desk\n"},
  {parse_xmpp_presence, "<presence to='alice@alpha.test'/>",
   "Warning: Got a <presence> without a FROM attribute.\n"},
  {parse_xmpp_presence, "<presence to='carol@alpha.test'/>",
   "Warning: Got a <presence> without a FROM attribute.\n"},
  {parse_xmpp_presence, "<presence from='bob@beta.test' to='carol@alpha.test/x'/>",
   "Warning: Got <presence type='subscribed'> with a TO attribute 'carol@alpha.test/x', but we are "
   "'alice@alpha.test'.\n"},
  {parse_xmpp_presence, "<presence/>",
   "Warning: Got a <presence> without a TO attribute and with FROM attribute '(null)', but we are "
   "'alice@alpha.test/morvane'.\n"},
  {parse_xmpp_presence, "<presence from='alice@alpha.test/morvane'/>",
   "confirm alice@alpha.test/morvane\n"},
  {parse_xmpp_presence, "<presence from='alice@alpha.test/other'/>",
   "Warning: Got a <presence> without a TO attribute and with FROM attribute "
   "'alice@alpha.test/other', but we are 'alice@alpha.test/morvane'.\n"},
  {parse_xmpp_presence, "<presence from='bob@beta.test'/>",
   "Warning: Got a <presence> without a TO attribute and with FROM attribute 'bob@beta.test', but "
   "we are 'alice@alpha.test/morvane'.\n"},
  // Unavailable.
  {parse_xmpp_presence,
   "<presence type='unavailable' from='bob@beta.test/desk' to='alice@alpha.test/morvane'/>",
   "unavailable bob@beta.test/desk\n"},
  {parse_xmpp_presence, "<presence type='unavailable'/>",
   "Warning: Got <presence type='unavailable'> without a FROM attribute.\n"},
  {parse_xmpp_presence, "<presence type='unavailable' from='bob@beta.test'/>",
   "Warning: Got <presence type='unavailable'> without a TO attribute.\n"},
  {parse_xmpp_presence, "<presence type='unavailable' from='bob@beta.test' to='c@d'/>",
   "Warning: Got <presence type='unavailable'> with a TO attribute 'c@d', but we are "
   "'alice@alpha.test'.\n"},
  // Subscribe.
  {parse_xmpp_presence, "<presence type='subscribe' from='bob@beta.test'/>",
   "subscribe bob@beta.test\n"},
  {parse_xmpp_presence, "<presence type='subscribe' from='bob@beta.test' to='c@d'/>",
   "subscribe bob@beta.test\n"},
  {parse_xmpp_presence, "<presence type='subscribe' to='alice@alpha.test'/>",
   "Warning: Got <presence type='subscribe'> without a FROM attribute.\n"},
  // Subscribed.
  {parse_xmpp_presence, "<presence type='subscribed' from='bob@beta.test' to='alice@alpha.test'/>",
   "subscribed bob@beta.test\n"},
  {parse_xmpp_presence, "<presence type='subscribed'/>",
   "Warning: Got <presence type='subscribed'> without a FROM attribute.\n"},
  {parse_xmpp_presence, "<presence type='subscribed' from='bob@beta.test'/>",
   "Warning: Got <presence type='subscribed'> without a TO attribute.\n"},
  {parse_xmpp_presence, "<presence type='subscribed' from='bob@beta.test' to='c@d'/>",
   "Warning: Got <presence type='subscribed'> with a TO attribute 'c@d', but we are "
   "'alice@alpha.test'.\n"},
  // Anything else.
  {parse_xmpp_presence, "<presence type='probe' from='bob@beta.test'/>",
   "Warning: Got unhandled a <presence> of TYPE 'probe'\n"},
  {parse_xmpp_presence, "<presence type='Unavailable'/>",
   "Warning: Got unhandled a <presence> of TYPE 'Unavailable'\n"},

  {parse_xmpp_message, "<message from='bob@beta.test/desk'><body>a &lt; b</body></message>",
   "message bob@beta.test/desk 'a < b'\n"},
  {parse_xmpp_message, "<message type='error' from='b@c'><subject/><body>x</body></message>",
   "message b@c 'x'\n"},
  {parse_xmpp_message, "<message from='b@c'><body/></message>", "message b@c ''\n"},
  {parse_xmpp_message, "<message from='b@c'><body></body></message>", "message b@c ''\n"},
  {parse_xmpp_message, "<message><body>x</body></message>",
   "Warning: Received a <message> without a FROM attribute.\n"},
  {parse_xmpp_message, "<message from=''><body>x</body></message>",
   "Warning: Received a <message> without a FROM attribute.\n"},
  {parse_xmpp_message, "<message/>", "Warning: Received a <message> without a FROM attribute.\n"},
  {parse_xmpp_message, "<message from='b@c'><composing/></message>",
   "Warning: Received a <message> without a BODY.\n"},
  {parse_xmpp_message, "<message from='b@c'><body>&nbsp;</body></message>",
   "Warning: Received a text which can't be kept.\n"},
  {parse_xmpp_message, "<message from='b@c'><body>\xFF</body></message>",
   "Warning: Received a text which can't be kept.\n"},
  {parse_xmpp_message, "<message from='b@c'><body><b>x</b><x-other/></body></message>", ""},
  {parse_xmpp_message, "<message from='b@c'><body>one</body><body>two</body></message>",
   "message b@c 'one'\n"},
  {parse_xmpp_message,
   "<message from='b@c'><body>text<x-clause procedure='b@c:1' clause='b@c:2'/>more</body>"
   "</message>",
   "procedure_initiator: \"b@c\" (String)\nclause_initiator: \"b@c\" (String)\n"
   "message b@c 'text'\nclause b@c:1 b@c:2\nmessage b@c 'more'\n"},
  {parse_xmpp_message,
   "<message from='b@c'><body><x-procedure procedure='b@c:1'>T</x-procedure></body></message>",
   "procedure_initiator: \"b@c\" (String)\nprocedure b@c:1 T\n"},
  {parse_xmpp_message,
   "<message from='b@c'><body><x-revision procedure='b@c:1' clause='b@c:2' revision='b@c:3'>T"
   "</x-revision></body></message>",
   "procedure_initiator: \"b@c\" (String)\nclause_initiator: \"b@c\" (String)\n"
   "revision_author: \"b@c\" (String)\nrevision b@c:3 T\n"},
  {parse_xmpp_message,
   "<message from='b@c'><body><x-clause-message procedure='b@c:1' clause='b@c:2' message='b@c:4'>T"
   "</x-clause-message></body></message>",
   "procedure_initiator: \"b@c\" (String)\nclause_initiator: \"b@c\" (String)\n"
   "message_author: \"b@c\" (String)\nclause message b@c:4 T\n"},
  {parse_xmpp_message,
   "<message from='b@c'><body><x-clause-decision procedure='b@c:1' clause='b@c:2' revision='b@c:3' "
   "decision='b@c:5'>AGREE</x-clause-decision></body></message>",
   "procedure_initiator: \"b@c\" (String)\nclause_initiator: \"b@c\" (String)\n"
   "revision_author: \"b@c\" (String)\ndecision_author: \"b@c\" (String)\n"
   "decision b@c:5 AGREE\n"},

  // A message that came back carries nobody's words, whatever its type says.
  {parse_xmpp_message,
   "<message type='error' id='17' from='bob@beta.test/desk'><body>mine</body><error type='cancel'>"
   "<service-unavailable xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error></message>",
   "message error bob@beta.test/desk 17 'service-unavailable' ''\n"},
  {parse_xmpp_message,
   "<message id='18' from='b@c'><error><text>Gone &amp; away</text><gone/></error></message>",
   "message error b@c 18 'gone' 'Gone & away'\n"},
  {parse_xmpp_message,
   "<message type='chat' from='b@c'><body><x-procedure procedure='b@c:1'>T</x-procedure>"
   "<x-revision revision='bad'/>text</body><error/></message>",
   "message error b@c 0 '' ''\n"},
  {parse_xmpp_message, "<message id='x1' from='b@c'><error>words<gone/></error></message>",
   "message error b@c 0 'gone' ''\n"},
  {parse_xmpp_message,
   "<message id='18446744073709551615' from='b@c'><error><text>&nbsp;</text></error></message>",
   "message error b@c 18446744073709551615 '' ''\n"},
  {parse_xmpp_message, "<message id='1'><body>x</body><error/></message>",
   "Warning: Received a <message> without a FROM attribute.\n"},
  // An element of that name in the body is none of a message that came back.
  {parse_xmpp_message, "<message type='error' from='b@c'><body>x<error/></body></message>",
   "message b@c 'x'\n"},

  // What a message says in the name of its sender is taken, all else is not.
  {parse_xmpp_message,
   "<message from='mallory@c/x'><body><x-clause procedure='b@c:1' clause='b@c:2'/>chat</body>"
   "</message>",
   "Warning: Received a negotiation element from 'mallory@c/x' in someone else's name.\n"
   "message mallory@c/x 'chat'\n"},
  {parse_xmpp_message,
   "<message from='mallory@c/x'><body><x-revision procedure='b@c:1' clause='b@c:2' "
   "revision='b@c:3'>T</x-revision></body></message>",
   "Warning: Received a negotiation element from 'mallory@c/x' in someone else's name.\n"},
  {parse_xmpp_message,
   "<message from='mallory@c/x'><body><x-clause-message procedure='b@c:1' clause='b@c:2' "
   "message='b@c:3'>T</x-clause-message></body></message>",
   "Warning: Received a negotiation element from 'mallory@c/x' in someone else's name.\n"},
  {parse_xmpp_message,
   "<message from='mallory@c/x'><body><x-clause-decision procedure='b@c:1' clause='b@c:2' "
   "revision='b@c:3' decision='b@c:4'>AGREE</x-clause-decision></body></message>",
   "Warning: Received a negotiation element from 'mallory@c/x' in someone else's name.\n"},
  {parse_xmpp_message,
   "<message from='mallory@c'><body><x-procedure procedure='b@c:1'>T</x-procedure></body>"
   "</message>",
   "procedure_initiator: \"b@c\" (String)\nprocedure b@c:1 T\n"},
  {parse_xmpp_message,
   "<message from='b@c/x'><body><x-clause-message procedure='m@c:1' clause='m@c:2' message='b:3'>T"
   "</x-clause-message></body></message>",
   "procedure_initiator: \"m@c\" (String)\nclause_initiator: \"m@c\" (String)\n"
   "message_author: \"b\" (String)\nclause message b:3 T\n"},
  // An element that nobody knows stays without a word.
  {parse_xmpp_message,
   "<message from='m@c'><body><x-other procedure='b@c:1' clause='b@c:2'/></body></message>", ""},

  {parse_xmpp_iq, "<iq type='error' id='18446744073709551615'><error/></iq>",
   "iq error 18446744073709551615\n"},
  {parse_xmpp_iq, "<iq type='error'/>", ""},
  {parse_xmpp_iq, "<iq type='error' id=''/>", ""},
  {parse_xmpp_iq, "<iq type='error' id='7'>text<a/><b/></iq>", "iq error 7\n"},
  {parse_xmpp_iq, "<iq type='result' id='7'/>", ""},
  {parse_xmpp_iq, "<iq type='result' id='2'><query xmlns='jabber:iq:roster'/></iq>", ""},
  {parse_xmpp_iq, "<iq type='get' id='ping'><ping/></iq>", ""},
  {parse_xmpp_iq,
   "<iq type='result' id='9' from='b@c'><vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'/></iq>",
   "vcard 9 b@c\n"},
  {parse_xmpp_iq, "<iq id='9'><vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'/></iq>",
   "vcard 9 \n"},
  {parse_xmpp_iq, "<iq type='result' from='b@c'><vcard/></iq>",
   "Warning: Received a <iq> without and ID attribute.\n"},
  {parse_xmpp_iq, "<iq type='result' id='x9'><vcard/></iq>",
   "Warning: Received a <iq> with an ID attribute 'x9' which contains non-digits.\n"},
  {parse_xmpp_iq, "<iq type='result' id='9'><vcard/></iq>",
   "Warning: Received a vcard which doesn't have an xmlns attribute value.\n"},
};

class stanza : public testing::TestWithParam<DispatchRow> {};

TEST_P (stanza, gives_its_record_or_its_warning)
{
  const DispatchRow &row = GetParam ();
  EXPECT_EQ (dispatch (row.parser, row.stanza), row.outcome) << row.stanza;
}

INSTANTIATE_TEST_SUITE_P (rows, stanza, testing::ValuesIn (DISPATCH_ROWS));

TEST (parse_xmpp_iq, stops_at_what_no_server_sends)
{
  EXPECT_DEATH (dispatch (parse_xmpp_iq, "<iq type='error' id='x'/>"),
                stop_at ("string_has_only_digits (id_attrib)"));
  EXPECT_DEATH (dispatch (parse_xmpp_iq, "<iq type='result' id='1'><a/><b/></iq>"),
                stop_at ("xml->next == NULL"));
  EXPECT_DEATH (dispatch (parse_xmpp_iq, "<iq type='result' id='1'>text</iq>"),
                stop_at ("name.size"));
}

// Whoever sent it: an author who is not the sender changes nothing about a malformed pair.
TEST (parse_xmpp_message, stops_at_a_malformed_pair_in_anyones_name)
{
  struct MalformedRow {
    const char *procedure;
    const char *revision;
    const char *expression;
  };
  const MalformedRow rows[] = {
    {"b@c", "b@c:3", "procedure_divider.size"},
    {"b@c:x", "b@c:3", "string_has_only_digits (procedure_time)"},
    {"b@c:1", "", "revision_divider.size"},
    {"b@c:1", ":3", "revision_divider.size != revision.size"},
    {"b@c:1", "b@c:", "revision_divider.size != 1"},
    {"b@c:1", "b@c:3x", "string_has_only_digits (revision_time)"},
  };
  for (const MalformedRow &row : rows) {
    for (const char *from : {"b@c/x", "mallory@c/x"}) {
      std::string text =
        std::string ("<message from='") + from + "'><body><x-revision procedure='" + row.procedure +
        "' clause='b@c:2' revision='" + row.revision + "'>T</x-revision></body></message>";
      EXPECT_DEATH (dispatch (parse_xmpp_message, text), stop_in ("xmpp", row.expression)) << text;
    }
  }
}

TEST (parse_xmpp_message, holds_the_window_with_each_record)
{
  BareWindow bare;
  std::vector<u8> memory (4096);
  XMLElement *element =
    parse_xml_tree ({memory.data (), memory.size ()},
                    to_string ("<message from='b@c'><body>a<b/>c</body></message>"), NULL, NULL);
  parse_xmpp_message (bare.window, element);
  EXPECT_EQ (((GObject *) bare.window)->ref_count, 3u);
  EXPECT_EQ (take_posted (), "message b@c 'a'\nmessage b@c 'c'\n");
  EXPECT_EQ (((GObject *) bare.window)->ref_count, 1u);
}

// ---- Closing ----

TEST (xmpp_close_connection, releases_everything_and_can_be_repeated)
{
  BareWindow bare;
  AppWindow *window = bare.window;
  int sockets[2];
  ASSERT_EQ (socketpair (AF_UNIX, SOCK_STREAM, 0, sockets), 0);
  window->connection.opened_stream = true;
  window->connection.opened_socket = true;
  window->connection.socket = sockets[0];
  window->connection.opened_tls_session = true;
  gnutls_init (&window->connection.tls_session, GNUTLS_CLIENT);
  window->connection.tls_hostname = alloc_cstr ("alpha.test");
  for (int i = 0; i < 2; ++i) {
    xmpp_close_connection (window);
    EXPECT_EQ (window->account.data, nullptr);
    EXPECT_EQ (window->account.full_jid.size, 0u);
    EXPECT_FALSE (window->connection.opened_stream);
    EXPECT_FALSE (window->connection.opened_socket);
    EXPECT_FALSE (window->connection.opened_tls_session);
    EXPECT_EQ (window->connection.tls_session, nullptr);
    EXPECT_EQ (window->connection.tls_hostname, nullptr);
  }
  // Closed, and without a word.
  char byte;
  EXPECT_EQ (recv (sockets[1], &byte, 1, MSG_DONTWAIT), 0);
  close (sockets[1]);
}

TEST (interrupt_xmpp_connection, shuts_the_socket_down_and_keeps_it)
{
  BareWindow bare;
  interrupt_xmpp_connection (bare.window);
  int sockets[2];
  ASSERT_EQ (socketpair (AF_UNIX, SOCK_STREAM, 0, sockets), 0);
  bare.window->connection.opened_socket = true;
  bare.window->connection.socket = sockets[0];
  interrupt_xmpp_connection (bare.window);
  interrupt_xmpp_connection (bare.window);
  EXPECT_TRUE (bare.window->connection.opened_socket);
  char byte;
  EXPECT_EQ (recv (sockets[0], &byte, 1, 0), 0);
  close (sockets[1]);
}

// ---- Connecting ----

struct Connected {
  int result;
  Connection connection;
  ServerReport report;
  std::string console;
};

// Plays the script against one attempt to connect, and releases what that opened.
static Connected
connect_to (const ServerScript &script, const char *host = "alpha.test")
{
  Connected connected = {};
  std::vector<u8> memory (64 * 1024);
  ScriptedServer *server = scripted_server_start (script);
  testing::internal::CaptureStdout ();
  connected.result = start_xmpp_connection ({memory.data (), memory.size ()}, to_string (host),
                                            "5222", tls_credentials, &connected.connection);
  connected.console = testing::internal::GetCapturedStdout ();
  if (connected.connection.opened_tls_session)
    deinit_tls_session (connected.connection.tls_session, connected.connection.tls_hostname);
  if (connected.connection.opened_socket)
    os_close_connection (connected.connection.socket);
  connected.report = scripted_server_finish (server);
  EXPECT_EQ (connected.report.failure, "");
  return connected;
}

TEST (start_xmpp_connection, opens_a_stream_over_tls)
{
  ServerScript script = script_connect ("alpha.test");
  script.push_back (server_expect_end ());
  Connected connected = connect_to (script);
  EXPECT_EQ (connected.result, 0);
  EXPECT_TRUE (connected.connection.opened_socket);
  EXPECT_TRUE (connected.connection.opened_stream);
  EXPECT_TRUE (connected.connection.opened_tls_session);
  EXPECT_STREQ (connected.report.server_name.c_str (), "alpha.test");
  EXPECT_EQ (connected.report.received_clear,
             std::string (STREAM_REQUEST) + "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>");
  EXPECT_EQ (connected.report.received, STREAM_REQUEST);
}

TEST (start_xmpp_connection, goes_on_without_a_declaration)
{
  LoginOptions options;
  options.has_declaration = false;
  Connected connected = connect_to (script_connect ("alpha.test", options));
  EXPECT_EQ (connected.result, 0);
  EXPECT_TRUE (contains (connected.console, NO_DOCTYPE));
}

TEST (start_xmpp_connection, takes_header_and_features_apart)
{
  LoginOptions options;
  options.has_separate_features = true;
  options.pause_ms = 50;
  options.with_tickets = true;
  EXPECT_EQ (connect_to (script_connect ("alpha.test", options)).result, 0);
}

TEST (start_xmpp_connection, takes_answers_byte_by_byte)
{
  LoginOptions options;
  options.cut_size = 1;
  EXPECT_EQ (connect_to (script_connect ("alpha.test", options)).result, 0);
}

TEST (start_xmpp_connection, gives_up_where_nobody_listens)
{
  ServerOptions options;
  options.port = 0;
  ScriptedServer *server = scripted_server_start ({server_accept ()}, options);
  std::vector<u8> memory (4096);
  Connection connection;
  memset (&connection, 0xFF, sizeof (connection));
  EXPECT_EQ (start_xmpp_connection ({memory.data (), memory.size ()}, to_string ("alpha.test"),
                                    "5222", tls_credentials, &connection),
             -1);
  EXPECT_FALSE (connection.opened_socket);
  EXPECT_FALSE (connection.opened_stream);
  EXPECT_FALSE (connection.opened_tls_session);
  scripted_server_stop (server);
}

TEST (start_xmpp_connection, gives_up_without_tls)
{
  LoginOptions options;
  options.offers_starttls = false;
  Connected connected = connect_to (script_connect ("alpha.test", options));
  EXPECT_EQ (connected.result, -1);
  EXPECT_TRUE (contains (connected.console, "Warning: Stream features doesn't have <starttls>.\n"));
  EXPECT_TRUE (connected.connection.opened_socket);
  EXPECT_FALSE (connected.connection.opened_stream);
  EXPECT_FALSE (connected.connection.opened_tls_session);
}

TEST (start_xmpp_connection, gives_up_at_a_bad_certificate)
{
  Connected connected =
    connect_to ({server_accept (), server_expect (STREAM_REQUEST), server_send (clear_answer ()),
                 server_expect ("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>"),
                 server_send (PROCEED), server_refused_handshake ("beta.test")});
  EXPECT_EQ (connected.result, -1);
  EXPECT_TRUE (connected.connection.opened_socket);
  EXPECT_TRUE (connected.connection.opened_stream);
  EXPECT_TRUE (connected.connection.opened_tls_session);
}

TEST (start_xmpp_connection, stops_when_starttls_is_refused)
{
  LoginOptions options;
  options.proceed_answer = {"<failure xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>"};
  EXPECT_DEATH (connect_to (script_connect ("alpha.test", options)),
                stop_at ("xml_element->name == \"proceed\""));
}

// ---- The session thread ----

struct Ran {
  std::string posted;
  std::string console;
  std::string full_jid;
  ServerReport report;
};

// Runs a worker to its end against the script.
static Ran
run_worker (void *(*entry) (void *), const ServerScript &script, const ServerOptions &options = {},
            u64 input_size = 1024 * 1024)
{
  BareWindow bare (input_size);
  Ran ran;
  ScriptedServer *server = scripted_server_start (script, options);
  testing::internal::CaptureStdout ();
  g_object_ref (bare.window);
  std::thread worker (
    [entry, &bare] { EXPECT_EQ (worker_run (bare.window->worker, entry, bare.window), nullptr); });
  worker.join ();
  ran.console = testing::internal::GetCapturedStdout ();
  EXPECT_TRUE (worker_has_left (bare.window->worker));
  ran.full_jid = text_of (bare.window->account.full_jid);
  xmpp_close_connection (bare.window);
  ran.posted = take_posted ();
  ran.report = scripted_server_finish (server);
  EXPECT_EQ (ran.report.failure, "") << ran.report.transcript;
  return ran;
}

// Runs a worker that is interrupted when the first `count` steps of the script are done. Says what it
// has posted.
static std::string
run_interrupted (void *(*entry) (void *), ServerScript script, size_t count)
{
  BareWindow bare;
  script.resize (count);
  script.push_back (server_wait ());
  ScriptedServer *server = scripted_server_start (script);
  testing::internal::CaptureStdout ();
  g_object_ref (bare.window);
  bare.window->worker_active = true;
  std::thread worker (
    [entry, &bare] { EXPECT_EQ (worker_run (bare.window->worker, entry, bare.window), nullptr); });
  EXPECT_TRUE (scripted_server_wait_steps (server, count));
  app_window_interrupt_worker (bare.window);
  worker.join ();
  testing::internal::GetCapturedStdout ();
  scripted_server_stop (server);
  EXPECT_TRUE (worker_has_left (bare.window->worker));
  return take_posted ();
}

static Ran
run_login (const ServerScript &script)
{
  return run_worker (start_xmpp_connection_thread, script);
}

// A login, then these pieces, then the end of the stream, whose answer is the program's own end.
static ServerScript
script_session (const Pieces &pieces, const LoginOptions &options = {})
{
  ServerScript script = script_login ("alice@alpha.test", options);
  script.push_back (server_send (pieces));
  script.push_back (server_close_notify ());
  script.push_back (server_expect ("</stream:stream>"));
  return script;
}

static const char SESSION_BEGIN[] = "login success\nconfirm alice@alpha.test/morvane\n";

TEST (start_xmpp_connection_thread, logs_in_and_lives_until_the_server_ends_the_stream)
{
  Ran ran = run_login (script_session ({}));
  EXPECT_EQ (ran.posted, std::string (SESSION_BEGIN) + "release\n");
  EXPECT_TRUE (ran.console.ends_with ("data: \"\" (String)\n" +
                                      dump_of ("request", "</stream:stream>") + "Disconnected.\n"))
    << ran.console;
  EXPECT_EQ (ran.report.received,
             login_stream_request ("alpha.test") + login_auth_request ("alice", "pw") +
               login_stream_request ("alpha.test") + login_bind_request ("morvane") +
               login_roster_request ("alice@alpha.test/morvane") +
               login_presence_request ("alice@alpha.test/morvane") + "</stream:stream>");
  EXPECT_FALSE (contains (ran.console, "window->account.resource"));
}

TEST (start_xmpp_connection_thread, logs_in_however_the_answers_were_cut)
{
  for (size_t size : {1, 7, 64}) {
    LoginOptions options;
    options.cut_size = size;
    options.with_tickets = true;
    Ran ran = run_login (script_session ({}, options));
    EXPECT_EQ (ran.posted, std::string (SESSION_BEGIN) + "release\n") << size;
  }
}

TEST (start_xmpp_connection_thread, takes_the_resource_that_the_server_chose)
{
  LoginOptions options;
  options.bound_resource = "server-42";
  Ran ran = run_login (script_session ({}, options));
  EXPECT_EQ (ran.full_jid, "alice@alpha.test/server-42");
  EXPECT_TRUE (contains (ran.console, dump_of ("window->account.resource", "server-42")));
  EXPECT_TRUE (contains (ran.report.received,
                         "<presence from='alice@alpha.test/server-42'><priority>1</priority>"));
  EXPECT_EQ (ran.posted, "login success\nconfirm alice@alpha.test/server-42\nrelease\n");
}

TEST (start_xmpp_connection_thread, says_that_it_cant_connect)
{
  ServerOptions elsewhere;
  elsewhere.port = 0;
  EXPECT_EQ (run_worker (start_xmpp_connection_thread, {}, elsewhere).posted,
             "login failure: Can't connect to server\nrelease\n");
  LoginOptions options;
  options.offers_starttls = false;
  ServerScript script = script_connect ("alpha.test", options);
  // The worker leaves the connection open; the page closes it.
  script.pop_back ();
  EXPECT_EQ (run_login (script).posted, "login failure: Can't connect to server\nrelease\n");
}

TEST (start_xmpp_connection_thread, says_that_it_is_not_authorized)
{
  for (const char *answer : {"<failure><not-authorized/></failure>", "<other/>"}) {
    LoginOptions options;
    options.accepts_password = false;
    options.auth_answer = {answer};
    Ran ran = run_login (script_login ("alice@alpha.test", options));
    EXPECT_EQ (ran.posted, "login failure: Unable to authorize\nrelease\n");
  }
}

static void
log_in_bound_to (const std::string &jid)
{
  LoginOptions options;
  options.bind_answer = {"<iq type='result' id='1'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'>"
                         "<jid>" +
                         jid + "</jid></bind></iq>"};
  run_login (script_login ("alice@alpha.test", options));
}

TEST (start_xmpp_connection_thread, stops_when_the_server_binds_someone_else)
{
  EXPECT_DEATH (log_in_bound_to ("/morvane"), stop_at ("bare_jid.size"));
  EXPECT_DEATH (log_in_bound_to ("bob@alpha.test/morvane"),
                stop_at ("bare_jid == window->account.bare_jid"));
  EXPECT_DEATH (log_in_bound_to ("alice@alpha.test"), stop_at ("resource.size"));
  EXPECT_DEATH (log_in_bound_to ("alice@alpha.test/"), stop_at ("resource.size"));
}

TEST (start_xmpp_connection_thread, takes_every_end_of_the_connection)
{
  for (const ServerStep &end : {server_fin (), server_reset (), server_close ()}) {
    ServerScript script = script_login ("alice@alpha.test");
    // Once the program has read everything, it must only wait for the end.
    script.push_back (end);
    Ran ran = run_login (script);
    EXPECT_TRUE (ran.posted.starts_with ("login success\n")) << ran.posted;
    EXPECT_TRUE (ran.posted.ends_with ("release\n")) << ran.posted;
    EXPECT_TRUE (ran.console.ends_with ("Disconnected.\n"));
  }
}

static std::string
run_pieces (const Pieces &pieces, std::string *console_out = NULL)
{
  Ran ran = run_login (script_session (pieces));
  EXPECT_TRUE (ran.posted.starts_with (SESSION_BEGIN)) << ran.posted;
  EXPECT_TRUE (ran.posted.ends_with ("release\n")) << ran.posted;
  if (console_out)
    *console_out = ran.console;
  std::string posted = ran.posted.substr (strlen (SESSION_BEGIN));
  return posted.substr (0, posted.size () - strlen ("release\n"));
}

static size_t
count_of (const std::string &text, const std::string &part)
{
  size_t count = 0;
  for (size_t at = text.find (part); at != std::string::npos; at = text.find (part, at + 1))
    ++count;
  return count;
}

TEST (session, dispatches_the_stanzas_of_one_record_in_order)
{
  std::string console;
  EXPECT_EQ (run_pieces ({"<presence from='b@c' to='alice@alpha.test'/><message from='b@c'><body>1"
                          "</body></message><iq type='error' id='7'/><message from='b@c'><body>2"
                          "</body></message>"},
                         &console),
             "available b@c\nmessage b@c '1'\niq error 7\nmessage b@c '2'\n");
  EXPECT_EQ (count_of (console, "data: \"<presence from='b@c'"), 1u);
}

TEST (session, warns_of_each_unknown_element)
{
  std::string console;
  EXPECT_EQ (run_pieces ({"<a/><b/><iq type='error' id='7'/><Message/>"}, &console),
             "iq error 7\n");
  EXPECT_EQ (count_of (console, "Warning: Received unknown XML data.\n"), 3u);
}

// RFC 6120, 11.1 forbids them; they are not stanzas, whatever their names are.
TEST (session, takes_no_processing_instruction_for_a_stanza)
{
  const std::string message = "<message from='b@c'><body>1</body></message>";
  for (std::string instruction :
       {"<?presence from='b@c' to='alice@alpha.test'?>", "<?presence from='b@c' type='subscribe'?>",
        "<?message from='b@c'?>", "<?iq type='error' id='7'?>"}) {
    for (const Pieces &pieces : {Pieces{instruction, message}, Pieces{instruction + message},
                                 Pieces{message + instruction}}) {
      std::string console;
      EXPECT_EQ (run_pieces (pieces, &console), "message b@c '1'\n") << pieces[0];
      EXPECT_EQ (count_of (console, "Warning: Received unknown XML data.\n"), 1u) << pieces[0];
    }
  }
}

TEST (session, warns_of_what_is_no_xml_and_goes_on)
{
  std::string console;
  EXPECT_EQ (run_pieces ({"  ", "<message from='b@c'><body>1</body></message>"}, &console),
             "message b@c '1'\n");
  EXPECT_EQ (count_of (console, "Warning: Received non-XML data.\n"), 1u);
  EXPECT_TRUE (contains (console, "data: \"  \" (String)\n"));
}

TEST (session, hears_of_the_end_of_the_stream_without_a_stop)
{
  EXPECT_EQ (run_pieces ({"<message from='b@c'><body>1</body></message></stream:stream>"}),
             "message b@c '1'\n");
  EXPECT_EQ (run_pieces ({"<message from='b@c'><body>1</body></message>", "</stream:stream>"}),
             "message b@c '1'\n");
  EXPECT_EQ (run_pieces ({"<stream:error><conflict/></stream:error></stream:stream>"}), "");
}

// Five stanzas of all kinds, and what they give.
static const char STANZAS[] =
  "<message type=\"chat\" from='b@c/\"d' id='a>b'><body>it&apos;s &lt;one&gt;</body></message>"
  "<iq type='result' id='9' from='b@c'><vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'><fn><text>B"
  "</text></fn></vcard></iq>"
  "<presence from='b@c/d' to='alice@alpha.test/morvane'><priority>1</priority></presence>"
  "<message from='b@c'><body><x-procedure procedure='b@c:1'>Gr\xC3\xBC\xC3\x9F\x65</x-procedure>"
  "</body></message><iq type='error' id='7'><error/></iq>";
static const char STANZAS_POSTED[] =
  "message b@c/\"d 'it's <one>'\nvcard 9 b@c\navailable b@c/d\nprocedure b@c:1 "
  "Gr\xC3\xBC\xC3\x9F\x65\niq error 7\n";

TEST (session, gives_the_same_records_however_the_stanzas_were_cut)
{
  const std::string stanzas = STANZAS;
  Pieces pieces = {stanzas};
  std::string expected = STANZAS_POSTED;
  for (size_t offset = 1; offset < stanzas.size (); ++offset) {
    Pieces cut = cut_at (stanzas, offset);
    pieces.insert (pieces.end (), cut.begin (), cut.end ());
    expected += STANZAS_POSTED;
  }
  for (size_t size : {1, 2, 3, 100}) {
    Pieces cut = cut_every (stanzas, size);
    pieces.insert (pieces.end (), cut.begin (), cut.end ());
    expected += STANZAS_POSTED;
  }
  std::string console;
  EXPECT_EQ (run_pieces (pieces, &console), expected);
  EXPECT_FALSE (contains (console, "Warning: Received"));
}

TEST (session, takes_a_stanza_of_many_records_whole)
{
  std::string text;
  while (text.size () < 60000)
    text += "word " + std::to_string (text.size ()) + "\n";
  std::string stanza =
    "<message from='b@c'><body><x-revision procedure='b@c:1' clause='b@c:2' revision='b@c:3'>" +
    text + "</x-revision></body></message>";
  EXPECT_EQ (run_pieces (cut_every (stanza, 8192)), "revision b@c:3 " + text + "\n");
}

// The other half is the tree's. What comes in the records behind such a stanza is read as ever.
TEST (session, loses_a_stanza_that_outgrows_half_of_the_buffer)
{
  const std::string first = "<message from='b@c'><body>1</body></message>";
  const std::string head = "<message from='b@c'><body>";
  const std::string last = "<message from='b@c'><body>2</body></message>";
  // The record that reaches the middle of the buffer ends inside of the long text.
  Pieces pieces = {first + head + std::string (8000, 'x')};
  for (int i = 0; i < 4; ++i)
    pieces.push_back (std::string (8192, 'x'));
  pieces.push_back (std::string (4096, 'y') + "</body></message>");
  pieces.push_back (last);
  Ran ran = run_worker (start_xmpp_connection_thread, script_session (pieces), {}, 64 * 1024);
  EXPECT_EQ (ran.posted,
             std::string (SESSION_BEGIN) + "message b@c '1'\nmessage b@c '2'\nrelease\n");
}

// However far a stanza came when the stream ends, the whole ones ahead of it are taken, and it is
// not.
TEST (session, loses_only_the_stanza_that_the_end_of_the_stream_cut)
{
  const std::string first = "<message from='b@c'><body>1</body></message>";
  const std::string second = "<message from='b@c'><body>2 &lt; 3</body></message>";
  for (size_t size = 1; size < second.size (); size += 3) {
    std::string console;
    EXPECT_EQ (run_pieces ({first + second.substr (0, size)}, &console), "message b@c '1'\n")
      << size;
    EXPECT_TRUE (contains (console, second.substr (0, size))) << size;
  }
}

// Records of 16,384 bytes, so that the end of one falls where a stranger wants it. The stranger's own
// name stands in none of the messages that would be forged.
TEST (session, lets_no_stranger_speak_as_another)
{
  const std::string forged = "<message from='anna@alpha.test/a'><body>I agree</body></message>";
  for (std::string name : {"_x", "\u00e9", ":x", "x_", "x.y"}) {
    std::string head = "<message from='eve@c'><" + name + ">t</" + name + ">";
    head += std::string (16384 - head.size (), ' ');
    EXPECT_EQ (run_pieces ({head, forged + "</message>", forged + "</message>"}),
               "message anna@alpha.test/a 'I agree'\n")
      << name;
  }
}

// The tail of a stanza that outgrows half of the buffer is no stanza of its own.
TEST (session, skips_a_stanza_that_outgrows_half_of_the_buffer_to_its_end)
{
  const std::string forged = "<message from='anna@alpha.test/a'><body>I agree</body></message>";
  const std::string last = "<message from='b@c'><body>2</body></message>";
  for (size_t lead : {0, 1, 300, 5000}) {
    std::string stanza =
      "<message from='eve@c'><body>" + std::string (40000 + lead, 'x') + "</body>";
    stanza.resize ((stanza.size () / 8192 + 1) * 8192, ' ');
    stanza += forged + "<p/>" + forged + std::string (20000, ' ') + "</message>";
    Pieces pieces = cut_every (stanza + last + last, 8192);
    Ran ran = run_worker (start_xmpp_connection_thread, script_session (pieces), {}, 64 * 1024);
    EXPECT_EQ (ran.posted,
               std::string (SESSION_BEGIN) + "message b@c '2'\nmessage b@c '2'\nrelease\n")
      << lead;
    EXPECT_EQ (count_of (ran.console, "Warning: Received a stanza that is too long.\n"), 1u);
  }
}

TEST (session, ends_when_the_stream_ends_inside_of_a_stanza_that_is_skipped)
{
  Pieces pieces = cut_every ("<message from='eve@c'><body>" + std::string (60000, 'x'), 8192);
  Ran ran = run_worker (start_xmpp_connection_thread, script_session (pieces), {}, 64 * 1024);
  EXPECT_EQ (ran.posted, std::string (SESSION_BEGIN) + "release\n");
  EXPECT_TRUE (contains (ran.console, "Disconnected.\n"));
}

// Records that end inside of a stanza, one after the other, for longer than the buffer is.
TEST (session, loses_nothing_when_half_of_the_buffer_is_full)
{
  std::string stanzas;
  std::string expected = SESSION_BEGIN;
  for (int i = 0; stanzas.size () < 150000; ++i) {
    stanzas += "<message from='b@c'><body>" + std::to_string (i) + "</body></message>";
    expected += "message b@c '" + std::to_string (i) + "'\n";
  }
  Ran ran = run_worker (start_xmpp_connection_thread, script_session (cut_every (stanzas, 8191)),
                        {}, 1024 * 1024);
  EXPECT_EQ (ran.posted, expected + "release\n");
  // Little room for trees, and so a tree for few stanzas.
  ran = run_worker (start_xmpp_connection_thread, script_session (cut_every (stanzas, 1000)), {},
                    32 * 1024);
  EXPECT_EQ (ran.posted, expected + "release\n");
}

static std::string
make_procedures (int count, std::string *expected)
{
  std::string stanzas;
  for (int i = 1; i <= count; ++i) {
    std::string pair = "b@c:" + std::to_string (i);
    stanzas += "<message from='b@c'><body><x-procedure procedure='" + pair +
               "'>Title</x-procedure></body></message>";
    *expected += "procedure " + pair + " Title\n";
  }
  return stanzas;
}

TEST (session, takes_the_neighbours_of_a_refused_stanza)
{
  for (std::string refused : {"<a_b/>", "<message from='eve@c'><_x>t</_x></message>", "<a\n/>",
                              "\n", "<presence from='eve@c'><a x='1'y.z='2'/></presence>"}) {
    std::string expected;
    std::string procedures = make_procedures (20, &expected);
    for (size_t place : {(size_t) 0, procedures.size () / 20, procedures.size ()}) {
      std::string console;
      std::string data = procedures;
      EXPECT_EQ (run_pieces ({data.insert (place, refused)}, &console), expected) << refused;
      bool is_stanza = refused != "\n";
      EXPECT_EQ (count_of (console, "Warning: Received non-XML data.\n"), (size_t) is_stanza)
        << refused;
    }
  }
}

TEST (session, warns_of_each_refused_stanza)
{
  std::string console;
  EXPECT_EQ (run_pieces ({"<a_b/><iq type='error' id='7'/><c_d></c_d><e_f/>"}, &console),
             "iq error 7\n");
  EXPECT_EQ (count_of (console, "Warning: Received non-XML data.\n"), 3u);
  EXPECT_EQ (count_of (console, "data: \"<a_b/>"), 1u);
}

TEST (session, says_once_what_is_wrong_with_the_only_stanza)
{
  std::string console;
  EXPECT_EQ (run_pieces ({" <a_b/> "}, &console), "");
  size_t begin = console.find ("data: \" <a_b/> \" (String)\n");
  ASSERT_NE (begin, std::string::npos);
  EXPECT_TRUE (console.substr (begin).starts_with ("data: \" <a_b/> \" (String)\n"
                                                   "->>>>>XML_TOKEN_UNKNOWN\n"
                                                   "Warning: Unknown XML token '_'.\n"
                                                   "Warning: Received non-XML data.\n"
                                                   "data: \"\" (String)\n"))
    << console.substr (begin);
}

// Stanzas that are taken and stanzas that are refused, in any order and cut in any way: what comes out
// is what each gives by itself.
TEST (session, gives_what_each_stanza_gives_by_itself)
{
  std::mt19937 random (3);
  const std::string refused[] = {"<a_b/>", "<message from='eve@c'><_x><message/></_x></message>",
                                 "<message from='e@c'\n><body/></message>", "<é></é>"};
  for (int round = 0; round < 12; ++round) {
    std::string stanzas;
    std::string expected;
    size_t refused_count = 0;
    for (int i = 0; i < 60; ++i) {
      if (random () % 4 == 0) {
        stanzas += refused[random () % 4];
        ++refused_count;
      } else {
        stanzas += "<message from='b@c'><body>" + std::to_string (i) + "</body></message>";
        expected += "message b@c '" + std::to_string (i) + "'\n";
      }
    }
    std::string console;
    EXPECT_EQ (run_pieces (cut_every (stanzas, 1 + random () % 2000), &console), expected);
    EXPECT_EQ (count_of (console, "Warning: Received non-XML data.\n"), refused_count);
  }
}

// ---- What shares a record with the answer to the bind ----

static Ran
run_bind (const Pieces &answer, const Pieces &pieces = {})
{
  LoginOptions options;
  options.bind_answer = answer;
  return run_login (script_session (pieces, options));
}

static std::string
make_bind_answer ()
{
  return "<iq type='result' id='1'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'>"
         "<jid>alice@alpha.test/morvane</jid></bind></iq>";
}

TEST (login, keeps_the_stanzas_that_follow_the_bind_answer)
{
  const std::string first = "<message from='b@c'><body>1</body></message>";
  const std::string second = "<presence from='b@c' to='alice@alpha.test'/>";
  const std::string third = "<message from='b@c'><body>3</body></message>";
  const std::string expected = "login success\nmessage b@c '1'\navailable b@c\n";
  for (std::string space : {"", " ", "\n"}) {
    Ran ran = run_bind ({make_bind_answer () + space + first + space + second}, {third});
    EXPECT_TRUE (ran.posted.starts_with (expected)) << ran.posted;
    EXPECT_TRUE (contains (ran.posted, "message b@c '3'\n")) << ran.posted;
    EXPECT_TRUE (contains (ran.console, dump_of ("response", make_bind_answer ())));
  }
}

TEST (login, goes_on_with_a_stanza_that_the_record_of_the_bind_answer_cut)
{
  const std::string first = "<message from='b@c'><body>1</body></message>";
  for (size_t size = 1; size < first.size (); size += 4) {
    Pieces cut = cut_at (make_bind_answer () + first + first, make_bind_answer ().size () + size);
    Ran ran = run_bind (cut);
    EXPECT_EQ (count_of (ran.posted, "message b@c '1'\n"), 2u) << size;
    EXPECT_TRUE (ran.posted.starts_with ("login success\n")) << ran.posted;
  }
}

TEST (login, is_not_stopped_by_a_stanza_that_is_refused)
{
  Ran ran = run_bind ({make_bind_answer () + "<message from='eve@c'><_x/></message>"
                                             "<message from='b@c'><body>1</body></message>"});
  EXPECT_TRUE (contains (ran.posted, "message b@c '1'\n")) << ran.posted;
  EXPECT_EQ (count_of (ran.console, "Warning: Received non-XML data.\n"), 1u);
}

TEST (login, stops_at_anything_else_that_follows_the_bind_answer)
{
  const std::string message = "<message from='b@c'><body>1</body></message>";
  for (std::string rest :
       {"<iq/>", "<a/>", "text", "<messages/>", "<presence-x/>", "< message/>"}) {
    for (std::string between : {std::string (), message}) {
      EXPECT_DEATH (run_bind ({make_bind_answer () + between + rest}),
                    stop_at ("!xml_element->next"))
        << rest;
    }
  }
}

TEST (session, prints_an_open_stanza_without_dispatching_it)
{
  std::string console;
  EXPECT_EQ (run_pieces ({"<message from='b@c'><body>text"}, &console), "");
  size_t data = console.find ("data: \"<message from='b@c'><body>text\" (String)\n");
  ASSERT_NE (data, std::string::npos);
  EXPECT_NE (console.find ("text", data + 50), std::string::npos) << "no tree was printed";
}

TEST (session, keeps_the_last_stanza_when_the_closing_tag_was_cut)
{
  const std::string first = "<message from='b@c'><body>1</body></message>";
  const std::string end = "</stream:stream>";
  for (size_t size = 1; size <= end.size (); ++size)
    EXPECT_EQ (run_pieces ({first + end.substr (0, size)}), "message b@c '1'\n") << size;
}

TEST (session, keeps_reading_while_requests_are_sent)
{
  // What the interface sends while the worker receives must arrive whole.
  BareWindow bare;
  ServerScript script = script_login ("alice@alpha.test");
  const int COUNT = 200;
  script.push_back (server_send (cut_every (
    [] {
      std::string all;
      for (int i = 0; i < COUNT; ++i)
        all += "<message from='b@c'><body>" + std::to_string (i) + "</body></message>";
      return all;
    }(),
    97)));
  std::string expected;
  for (int i = 0; i < COUNT; ++i) {
    expected += "<message type='chat' id='" + std::to_string (3 + i) +
                "' from='alice@alpha.test/morvane' to='b@c'><body>text</body></message>";
  }
  script.push_back (server_expect (expected));
  script.push_back (server_close_notify ());
  script.push_back (server_expect ("</stream:stream>"));
  ScriptedServer *server = scripted_server_start (script);
  testing::internal::CaptureStdout ();
  g_object_ref (bare.window);
  std::thread worker ([&bare] { start_xmpp_connection_thread (bare.window); });
  // The interface sends nothing before it was told of the login.
  bool is_logged_in = false;
  for (s64 end = get_ms () + 10000; !is_logged_in && get_ms () < end; g_usleep (1000)) {
    std::lock_guard<std::mutex> lock (caught_mutex);
    is_logged_in = !caught_records.empty ();
  }
  EXPECT_TRUE (is_logged_in);
  if (is_logged_in) {
    accept_hand_over (bare.window);
    for (int i = 0; i < COUNT; ++i)
      xmpp_send_message (bare.window, to_string ("b@c"), to_string ("text"));
  }
  worker.join ();
  testing::internal::GetCapturedStdout ();
  ServerReport report = scripted_server_finish (server);
  EXPECT_EQ (report.failure, "");
  EXPECT_EQ (count_of (take_posted (), "message b@c"), (size_t) COUNT);
  xmpp_close_connection (bare.window);
}

// What the server has said until then, or has not, is nobody's fault.
TEST (start_xmpp_connection_thread, judges_nothing_wherever_it_is_interrupted)
{
  ServerScript script = script_login ("alice@alpha.test");
  size_t count = 1;
  do {
    EXPECT_EQ (run_interrupted (start_xmpp_connection_thread, script, count),
               "login failure: Interrupted\nrelease\n")
      << count;
  } while (script[count++].text != login_bind_request ("morvane"));
}

TEST (start_xmpp_connection_thread, touches_nothing_more_once_it_is_left_behind)
{
  BareWindow bare;
  worker_ref (bare.window->worker);
  EXPECT_TRUE (worker_begin_connecting (bare.window->worker));
  EXPECT_TRUE (worker_abandon (bare.window->worker, NULL, NULL));
  memset (&bare.window->connection, 0xFF, sizeof (Connection));
  Connection connection = bare.window->connection;
  testing::internal::CaptureStdout ();
  std::thread worker (
    [&bare] { worker_run (bare.window->worker, start_xmpp_connection_thread, bare.window); });
  worker.join ();
  testing::internal::GetCapturedStdout ();
  EXPECT_EQ (memcmp (&connection, &bare.window->connection, sizeof (Connection)), 0);
  EXPECT_FALSE (worker_has_left (bare.window->worker));
  EXPECT_EQ (take_posted (), "");
  bare.window->connection = {};
}

// ---- The registration thread ----

static const char SET_REGISTER[] =
  "<iq type='set' id='2'><query xmlns='jabber:iq:register'><username>alice</username>"
  "<password>pw</password></query></iq>";

// Asks, registers, is answered with these pieces, and then the stream ends.
static ServerScript
script_register (const Pieces &answer, bool closes = true)
{
  ServerScript script = script_connect ("alpha.test");
  script.push_back (
    server_expect ("<iq type='get' id='1'><query xmlns='jabber:iq:register'/></iq>"));
  script.push_back (server_send ("<iq type='result' id='1'><query xmlns='jabber:iq:register'>"
                                 "<username/><password/></query></iq>"));
  script.push_back (server_expect (SET_REGISTER));
  script.push_back (server_send (answer));
  if (closes)
    script.push_back (server_close_notify ());
  return script;
}

static std::string
run_register (const ServerScript &script)
{
  Ran ran = run_worker (start_xmpp_register_thread, script);
  EXPECT_TRUE (ran.posted.ends_with ("release\n")) << ran.posted;
  return ran.posted.substr (0, ran.posted.size () - strlen ("release\n"));
}

static std::string
register_answered (const Pieces &answer)
{
  return run_register (script_register (answer));
}

static std::string
register_error (const std::string &children)
{
  return "<iq type='error' id='2'>" + children + "</iq>";
}

TEST (start_xmpp_register_thread, tells_of_a_new_account_and_leaves)
{
  // The stream stays open: the answer alone ends the worker.
  EXPECT_EQ (run_register (script_register ({"<iq type='result' id='2'/>"}, false)),
             "register success: result\n");
}

TEST (start_xmpp_register_thread, takes_an_answer_however_it_was_cut)
{
  EXPECT_EQ (run_register (script_register (cut_every ("<iq type='result' id='2'/>", 1), false)),
             "register success: result\n");
}

TEST (start_xmpp_register_thread, passes_the_servers_words_on_as_they_came)
{
  const std::string error = "<error type='cancel'><conflict/><text>It&apos;s taken</text></error>";
  EXPECT_EQ (register_answered ({register_error (error)}), "register failure: It&apos;s taken\n");
  // With the query repeated in front of it.
  EXPECT_EQ (register_answered (
               {register_error ("<query><username>alice</username></query>" + error)}),
             "register failure: It&apos;s taken\n");
  // Without an element of that name the first child is judged.
  EXPECT_EQ (register_answered ({register_error ("<e type='cancel'><text>No</text></e>")}),
             "register failure: No\n");
}

TEST (start_xmpp_register_thread, says_that_it_cant_connect)
{
  ServerOptions elsewhere;
  elsewhere.port = 0;
  EXPECT_EQ (run_worker (start_xmpp_register_thread, {}, elsewhere).posted,
             "register failure: Can't connect to server\nrelease\n");
}

TEST (start_xmpp_register_thread, asks_no_further_when_registration_is_refused)
{
  ServerScript script = script_connect ("alpha.test");
  script.push_back (
    server_expect ("<iq type='get' id='1'><query xmlns='jabber:iq:register'/></iq>"));
  script.push_back (server_send ("<iq type='error' id='1'><error type='cancel'/></iq>"));
  script.push_back (server_expect_end ());
  EXPECT_EQ (run_register (script), "register failure: Registration unavailable\n");
}

TEST (start_xmpp_register_thread, says_how_the_server_left)
{
  const std::vector<std::pair<Pieces, std::string>> rows = {
    {{}, "Server disconnected for unknown reason by closing the socket"},
    {{"</stream:stream>"}, "Server disconnected for unknown reason by closing the XMPP stream"},
    {{"<message/></stream:stream>"},
     "Server disconnected for unknown reason by closing the XMPP stream"},
    {{register_error ("<error type='cancel'><text>No</text></error>") + "</stream:stream>"},
     "Server disconnected for unknown reason by closing the XMPP stream"},
    {{"<stream:error><not-well-formated/></stream:error></stream:stream>"},
     "Stream error: not-well-formated"},
    {{"<stream:error><not-well-formed/></stream:error></stream:stream>"}, "Unhandled error"},
    {{"<stream:error/></stream:stream>"}, "Unhandled error"},
    {{"<stream:error>text</stream:error></stream:stream>"}, "Unhandled error"},
  };
  for (const auto &[answer, text] : rows)
    EXPECT_EQ (register_answered (answer), "register failure: " + text + "\n");
}

// The error may come by itself, ahead of the closing tag.
TEST (start_xmpp_register_thread, says_the_same_however_the_end_of_the_stream_was_cut)
{
  const std::string error = "<stream:error><conflict/></stream:error>";
  const std::string end = error + "</stream:stream>";
  for (size_t offset : {(size_t) 1, (size_t) 15, error.size () - 1, error.size (),
                        error.size () + 1, end.size () - 1}) {
    EXPECT_EQ (register_answered (cut_at (end, offset)), "register failure: Unhandled error\n")
      << offset;
  }
  EXPECT_EQ (register_answered ({error}),
             "register failure: Server disconnected for unknown reason by closing the socket\n");
}

// Half of what the server has to say is not shown as if it were the whole.
TEST (start_xmpp_register_thread, passes_no_half_answer_on)
{
  const std::string answer =
    register_error ("<error type='cancel'><text>It is taken</text></error>");
  for (const char *rest : {" is taken</text></error></iq>", "</text></error></iq>", "</iq>"}) {
    std::string half = answer.substr (0, answer.find (rest));
    EXPECT_EQ (register_answered ({half}),
               "register failure: Server disconnected for unknown reason by closing the socket\n")
      << half;
  }
}

TEST (start_xmpp_register_thread, ignores_other_elements)
{
  EXPECT_EQ (register_answered ({"<presence/>", "<message/>", "<iq type='result' id='2'/>"}),
             "register success: result\n");
}

TEST (start_xmpp_register_thread, judges_nothing_wherever_it_is_interrupted)
{
  ServerScript script = script_register ({});
  size_t count = 1;
  do {
    EXPECT_EQ (run_interrupted (start_xmpp_register_thread, script, count),
               "register failure: Interrupted\nrelease\n")
      << count;
  } while (script[count++].text != SET_REGISTER);
}

TEST (start_xmpp_register_thread, judges_no_half_answer_when_it_is_interrupted)
{
  const std::string answer = "<iq type='result' id='2'/>";
  for (size_t size = 0; size < answer.size (); ++size) {
    BareWindow bare;
    ServerScript script = script_register ({answer.substr (0, size)}, false);
    script.push_back (server_expect_end ());
    ScriptedServer *server = scripted_server_start (script);
    testing::internal::CaptureStdout ();
    g_object_ref (bare.window);
    bare.window->worker_active = true;
    std::thread worker (
      [&bare] { worker_run (bare.window->worker, start_xmpp_register_thread, bare.window); });
    EXPECT_TRUE (scripted_server_wait_steps (server, script.size () - 1));
    app_window_interrupt_worker (bare.window);
    worker.join ();
    testing::internal::GetCapturedStdout ();
    EXPECT_EQ (take_posted (), "register failure: Interrupted\nrelease\n") << size;
    EXPECT_EQ (scripted_server_finish (server).failure, "");
  }
}

TEST (start_xmpp_register_thread, stops_at_answers_that_make_no_sense)
{
  const std::vector<std::pair<std::string, std::string>> rows = {
    {" ", "xml"},
    {"</a>", "unopened_elements->name == \"stream:stream\""},
    {"<a/><b/>", "!xml->next"},
    {"<iq type='result'/>", "response_id.size"},
    {"<iq type='result' id='3'/>", "string_to_u64 (response_id) == set_register_iq_id"},
    {"<iq id='2'/>", "iq_type.size"},
    {"<iq type='get' id='2'/>", "!\"Unhandled error\""},
    {"<iq type='error' id='2'/>", "xml_error"},
    {register_error ("<error type='modify'><text>No</text></error>"),
     "get_xml_attribute (xml_error, \"type\") == \"cancel\""},
    {register_error ("<query/><other/>"), "get_xml_attribute (xml_error, \"type\") == \"cancel\""},
    {register_error ("<error type='cancel'><conflict/></error>"), "xml_text"},
    {register_error ("<error type='cancel'><text/></error>"), "text.size"},
    {register_error ("<error type='cancel'><text><b>x</b></text></error>"), "text.size"},
    {register_error ("<error type='cancel'><text>x<b/></text></error>"), "!xml_text_node->next"},
  };
  for (const auto &[answer, expression] : rows)
    EXPECT_DEATH (register_answered ({answer}), stop_at (expression)) << answer;
}

static void
register_on (bool opened_socket, bool opened_stream)
{
  BareWindow bare;
  bare.window->connection.opened_socket = opened_socket;
  bare.window->connection.opened_stream = opened_stream;
  start_xmpp_register_thread (bare.window);
}

TEST (start_xmpp_register_thread, stops_when_a_connection_is_open)
{
  EXPECT_DEATH (register_on (true, false), stop_at ("!window->connection.opened_socket"));
  EXPECT_DEATH (register_on (false, true), stop_at ("!window->connection.opened_stream"));
}
