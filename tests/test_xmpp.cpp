// Stanzas: what every sender puts on the wire, byte by byte, and which record every parser makes of
// a received element. Records are caught on their way to the interface, before any handler runs;
// what is sent goes through a real TLS session to a peer inside this process.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gnutls/gnutls.h>

#include "app_window.h"
#include "morvane.h"
#include "network_events.h"

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

// The line of an assertion, as a regular expression: every character that has a meaning there
// stands in brackets of its own.
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
  return stop_in ("xmpp", expression);
}

// What GLib complains of ends the program, and so the test.
[[maybe_unused]] static const GLogLevelFlags previous_fatal_levels =
  g_log_set_always_fatal ((GLogLevelFlags) (G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));

// ---- The interface thread, caught ----

struct Caught {
  GSourceFunc handler;
  void *record;
};

static std::mutex caught_mutex;
static std::vector<Caught> caught_records;

// In the place of GDK's: records stay here, console text is dealt with at once.
extern "C" guint
gdk_threads_add_idle (GSourceFunc handler, gpointer record)
{
  if (handler == _console_put_gdk_thread) {
    handler (record);
    return 1;
  }
  std::lock_guard<std::mutex> lock (caught_mutex);
  caught_records.push_back ({handler, record});
  return 1;
}

// The one record that was posted, which must be meant for `handler`; the caller frees it.
static void *
take_record (GSourceFunc handler)
{
  std::lock_guard<std::mutex> lock (caught_mutex);
  EXPECT_EQ (caught_records.size (), 1u);
  if (caught_records.size () != 1) {
    caught_records.clear ();
    return NULL;
  }
  Caught caught = caught_records[0];
  caught_records.clear ();
  EXPECT_EQ (caught.handler, handler);
  return caught.record;
}

static size_t
count_records ()
{
  std::lock_guard<std::mutex> lock (caught_mutex);
  return caught_records.size ();
}

// ---- Received elements ----

// A window without widgets, which counts its references as the real one does.
static AppWindow *
make_bare_window ()
{
  static GType type =
    g_type_register_static_simple (G_TYPE_OBJECT, "BareWindow", sizeof (GObjectClass), NULL,
                                   sizeof (AppWindow), NULL, (GTypeFlags) 0);
  AppWindow *window = (AppWindow *) g_object_new (type, NULL);
  window->xmpp_handlers = &APP_WINDOW_XMPP_HANDLERS;
  return window;
}

// Whose worker receives; lives as long as the program.
static AppWindow *
get_receiving_window ()
{
  static AppWindow *window = make_bare_window ();
  return window;
}

typedef void (*ElementParser) (AppWindow *window, XMLElement *element, String from);

struct Parsed {
  std::string text;
  std::vector<u8> memory;
  XMLElement *element;

  explicit Parsed (const std::string &xml) : text (xml), memory (64 * 1024 + xml.size () * 8)
  {
    element = parse_xml_tree ({memory.data (), memory.size ()}, string_of (text), NULL, NULL);
    EXPECT_TRUE (element) << xml;
  }
};

// Gives the element to the parser and returns what that wrote to the console.
static std::string
parse (ElementParser parser, const std::string &xml)
{
  Parsed parsed (xml);
  testing::internal::CaptureStdout ();
  parser (get_receiving_window (), parsed.element, to_string ("bob@beta.test/desk"));
  return testing::internal::GetCapturedStdout ();
}

static size_t
count_warnings (const std::string &console)
{
  size_t count = 0;
  for (size_t at = console.find ("Warning: "); at != std::string::npos;
       at = console.find ("Warning: ", at + 1)) {
    ++count;
  }
  return count;
}

// ---- Ids and addresses ----

TEST (generate_xmpp_id, begins_with_one)
{
  AppWindow *window = make_bare_window ();
  EXPECT_EQ (generate_xmpp_id (window), 1u);
  EXPECT_EQ (generate_xmpp_id (window), 2u);
  EXPECT_EQ (window->last_xmpp_id, 2u);
  g_object_unref (window);
}

TEST (generate_xmpp_id, never_gives_two_threads_the_same)
{
  const u64 COUNT = 100000;
  AppWindow *window = make_bare_window ();
  std::vector<u64> ids[2];
  std::thread threads[2];
  for (int i = 0; i < 2; ++i) {
    threads[i] = std::thread ([window, &list = ids[i]] {
      for (u64 n = 0; n < COUNT; ++n)
        list.push_back (generate_xmpp_id (window));
    });
  }
  threads[0].join ();
  threads[1].join ();
  std::set<u64> all (ids[0].begin (), ids[0].end ());
  all.insert (ids[1].begin (), ids[1].end ());
  EXPECT_EQ (all.size (), 2 * COUNT);
  EXPECT_EQ (*all.begin (), 1u);
  EXPECT_EQ (*all.rbegin (), 2 * COUNT);
  g_object_unref (window);
}

TEST (get_bare_jid_from_full_jid, ends_before_the_first_slash)
{
  const std::vector<std::pair<std::string, std::string>> rows = {
    {"alice@alpha.test", "alice@alpha.test"},
    {"alice@alpha.test/morvane", "alice@alpha.test"},
    {"alice@alpha.test/a/b", "alice@alpha.test"},
    {"alice@alpha.test/", "alice@alpha.test"},
    {"/morvane", ""},
    {"", ""},
  };
  for (const auto &[full, bare] : rows)
    EXPECT_EQ (text_of (get_bare_jid_from_full_jid (string_of (full))), bare) << full;
}

TEST (is_bare_jid, wants_one_at_sign_inside_and_no_slash)
{
  for (const char *text : {"a@b", "alice@alpha.test", "a'b@c", "a b@c"})
    EXPECT_TRUE (is_bare_jid (to_string (text))) << text;
  for (const char *text : {"", "@", "a", "@b", "a@", "a@b@c", "a@@b", "@@", "a@b/c", "a/b@c", "/",
                           "a@b/", "alice@alpha.test/morvane"}) {
    EXPECT_FALSE (is_bare_jid (to_string (text))) << text;
  }
}

// The definition, said once more in another way.
TEST (is_bare_jid, agrees_with_its_definition_on_all_short_texts)
{
  const char letters[] = "a@/";
  for (int length = 0; length <= 6; ++length) {
    int count = 1;
    for (int i = 0; i < length; ++i)
      count *= 3;
    for (int number = 0; number < count; ++number) {
      std::string text;
      for (int i = 0, rest = number; i < length; ++i, rest /= 3)
        text += letters[rest % 3];
      size_t at = text.find ('@');
      bool expected = at != std::string::npos && at == text.rfind ('@') && at > 0 &&
                      at + 1 < text.size () && text.find ('/') == std::string::npos;
      EXPECT_EQ (is_bare_jid (string_of (text)), expected) << text;
    }
  }
}

TEST (is_storable_text, wants_utf8_without_nul)
{
  EXPECT_TRUE (is_storable_text ({}));
  EXPECT_TRUE (is_storable_text (to_string ("Gr\xC3\xBC\xC3\x9F\x65 \xF0\x9F\x98\x80 'quoted'\n")));
  EXPECT_FALSE (is_storable_text (string_of (std::string ("a\0b", 3))));
  EXPECT_FALSE (is_storable_text (to_string ("\xFF")));
  EXPECT_FALSE (is_storable_text (to_string ("\xC3")));
  EXPECT_FALSE (is_storable_text (to_string ("\xED\xA0\x80")));
}

TEST (is_storable_jid, refuses_what_the_store_cant_hold)
{
  EXPECT_TRUE (is_storable_jid (to_string ("bob@beta.test")));
  EXPECT_TRUE (is_storable_jid (to_string ("b\xC3\xB6@beta.test")));
  EXPECT_TRUE (is_storable_jid (string_of (std::string (BARE_JID_SIZE_MAX, 'b'))));
  EXPECT_FALSE (is_storable_jid (string_of (std::string (BARE_JID_SIZE_MAX + 1, 'b'))));
  EXPECT_FALSE (is_storable_jid ({}));
  EXPECT_FALSE (is_storable_jid (to_string ("o'hara@beta.test")));
  EXPECT_FALSE (is_storable_jid (string_of (std::string ("b\0b@beta.test", 13))));
  EXPECT_FALSE (is_storable_jid (to_string ("b\xFF@beta.test")));
}

// ---- Records ----

TEST (alloc_xmpp_record, holds_a_reference_on_its_window)
{
  AppWindow *window = make_bare_window ();
  XMPPIQErrorSignal *signal = alloc_xmpp_iq_error_signal (window, 18446744073709551615u);
  EXPECT_EQ (signal->window, window);
  EXPECT_EQ (signal->id, 18446744073709551615u);
  EXPECT_EQ (((GObject *) window)->ref_count, 2u);
  dealloc_xmpp_iq_error_signal (signal);
  EXPECT_EQ (((GObject *) window)->ref_count, 1u);
  g_object_unref (window);
}

TEST (dealloc_vcard, takes_fields_that_are_missing)
{
  dealloc_vcard ({});
  VCard vcard = {};
  vcard.key = alloc_cstr ("key");
  dealloc_vcard (vcard);
  VCardMessage *message = (VCardMessage *) alloc_xmpp_record (NULL, sizeof (VCardMessage));
  EXPECT_EQ (message->from.data, nullptr);
  dealloc_vcard_message (message);
}

// ---- A session ----

// Both ends of a TLS session inside the process, with anonymous keys. The far end notes every
// record and answers the first whole stanza with `answer`, when there is one.
struct Session {
  AppWindow *window = make_bare_window ();
  std::vector<std::string> records;
  std::string answer;
  std::thread thread;
  int sockets[2];
  gnutls_anon_client_credentials_t client_credentials;
  gnutls_anon_server_credentials_t server_credentials;
  std::vector<u8> output;

  explicit Session (const std::string &answer_text = "", size_t output_size = 4096);
  ~Session ();
  Session (const Session &) = delete;
  Session &operator= (const Session &) = delete;
  void receive ();
  std::string end ();
};

#define PRIORITIES "NORMAL:-VERS-ALL:+VERS-TLS1.2:+ANON-ECDH"

void
Session::receive ()
{
  gnutls_session_t session;
  gnutls_init (&session, GNUTLS_SERVER);
  gnutls_priority_set_direct (session, PRIORITIES, NULL);
  gnutls_credentials_set (session, GNUTLS_CRD_ANON, server_credentials);
  gnutls_transport_set_int (session, sockets[1]);
  ssize_t result = gnutls_handshake (session);
  std::string received;
  while (result >= 0) {
    char data[4096];
    result = gnutls_record_recv (session, data, sizeof (data));
    if (result <= 0)
      break;
    records.push_back (std::string (data, (size_t) result));
    received += records.back ();
    if (received.ends_with ("</iq>") && !answer.empty ())
      gnutls_record_send (session, answer.data (), answer.size ());
  }
  gnutls_deinit (session);
  close (sockets[1]);
}

Session::Session (const std::string &answer_text, size_t output_size)
    : answer (answer_text), output (output_size)
{
  EXPECT_EQ (socketpair (AF_UNIX, SOCK_STREAM, 0, sockets), 0);
  gnutls_anon_allocate_client_credentials (&client_credentials);
  gnutls_anon_allocate_server_credentials (&server_credentials);
  thread = std::thread (&Session::receive, this);
  gnutls_session_t session;
  gnutls_init (&session, GNUTLS_CLIENT);
  gnutls_priority_set_direct (session, PRIORITIES, NULL);
  gnutls_credentials_set (session, GNUTLS_CRD_ANON, client_credentials);
  gnutls_transport_set_int (session, sockets[0]);
  EXPECT_EQ (gnutls_handshake (session), 0);
  window->connection.tls_session = session;
  window->output_stream_buffer = {output.data (), output.size ()};
  window->account =
    alloc_xmpp_account (to_string ("alice@alpha.test"), to_string ("pw"), to_string ("morvane"));
}

// Ends the session; returns all that was sent.
std::string
Session::end ()
{
  if (thread.joinable ()) {
    gnutls_bye (window->connection.tls_session, GNUTLS_SHUT_WR);
    thread.join ();
  }
  std::string sent;
  for (const std::string &record : records) {
    EXPECT_LE (record.size (), 10u);
    sent += record;
  }
  return sent;
}

Session::~Session ()
{
  end ();
  gnutls_deinit (window->connection.tls_session);
  close (sockets[0]);
  gnutls_anon_free_client_credentials (client_credentials);
  gnutls_anon_free_server_credentials (server_credentials);
  dealloc_xmpp_account (window->account);
  g_object_unref (window);
}

// Whatever is sent is dumped, exactly so.
static std::string
request_dump (const std::string &request)
{
  return "request: \"" + request + "\" (String)\n";
}

// ---- Presence, roster and chat ----

TEST (xmpp_presence_subscribe, speaks_for_the_bare_jid)
{
  Session session;
  testing::internal::CaptureStdout ();
  EXPECT_EQ (xmpp_presence_subscribe (session.window, to_string ("bob@beta.test")), 1u);
  std::string console = testing::internal::GetCapturedStdout ();
  std::string expected =
    "<presence type='subscribe' id='1' from='alice@alpha.test' to='bob@beta.test'/>";
  EXPECT_EQ (session.end (), expected);
  EXPECT_EQ (console, request_dump (expected));
}

TEST (xmpp_presence_subscribed, speaks_for_the_full_jid)
{
  Session session;
  EXPECT_EQ (xmpp_presence_subscribed (session.window, to_string ("bob@beta.test/desk")), 1u);
  EXPECT_EQ (session.end (), "<presence type='subscribed' id='1' from='alice@alpha.test/morvane' "
                             "to='bob@beta.test/desk'/>");
}

TEST (xmpp_iq_get_roster, asks_for_the_own_roster)
{
  Session session;
  EXPECT_EQ (xmpp_iq_get_roster (session.window), 1u);
  EXPECT_EQ (session.end (), "<iq type='get' id='1' from='alice@alpha.test/morvane'>"
                             "<query xmlns='jabber:iq:roster'/></iq>");
}

TEST (xmpp_iq_get_disco1_vcard4, asks_what_the_other_side_can_do)
{
  Session session;
  session.window->last_xmpp_id = 6;
  xmpp_iq_get_disco1_vcard4 (session.window, to_string ("bob@beta.test"));
  EXPECT_EQ (session.end (),
             "<iq type='get' id='7' from='alice@alpha.test/morvane' to='bob@beta.test'>"
             "<query xmlns='http://jabber.org/protocol/disco#info'/></iq>");
  EXPECT_EQ (session.window->last_xmpp_id, 7u);
}

TEST (xmpp_send_message, escapes_the_text)
{
  Session session;
  xmpp_send_message (session.window, to_string ("bob@beta.test"), to_string ("1 < 2 & \"it's\" >"));
  EXPECT_EQ (session.end (),
             "<message type='chat' id='1' from='alice@alpha.test/morvane' to='bob@beta.test'>"
             "<body>1 &lt; 2 &amp; &quot;it&apos;s&quot; &gt;</body></message>");
}

TEST (xmpp_send_message, sends_an_empty_text)
{
  Session session;
  xmpp_send_message (session.window, to_string ("bob@beta.test"), {});
  EXPECT_EQ (session.end (), "<message type='chat' id='1' from='alice@alpha.test/morvane' "
                             "to='bob@beta.test'><body></body></message>");
}

// ---- Setting the roster ----

static void
set_roster (const std::string &answer)
{
  Session session (answer);
  std::vector<u8> buffer (64 * 1024);
  xmpp_iq_set_roster (session.window->connection.tls_session, {buffer.data (), buffer.size ()}, 5,
                      to_string ("alice@alpha.test/morvane"), to_string ("bob@beta.test"));
  EXPECT_EQ (session.end (), "<iq type='set' id='5' from='alice@alpha.test/morvane'><query "
                             "xmlns='jabber:iq:roster'><item jid='bob@beta.test'/></query></iq>");
}

TEST (xmpp_iq_set_roster, takes_an_empty_result)
{
  testing::internal::CaptureStdout ();
  set_roster ("<iq type='result' id='5' to='alice@alpha.test/morvane'/>");
  std::string console = testing::internal::GetCapturedStdout ();
  EXPECT_NE (console.find ("response: \"<iq type='result' id='5' "
                           "to='alice@alpha.test/morvane'/>\" (String)\n"),
             std::string::npos);
}

TEST (xmpp_iq_set_roster, stops_at_any_other_answer)
{
  const std::string to = " to='alice@alpha.test/morvane'";
  const std::vector<std::pair<std::string, std::string>> rows = {
    {"<", "xml_element"},
    {"<message/>", "xml_element->name == \"iq\""},
    {"<iq type='error' id='5'" + to + "/>",
     "get_xml_attribute (xml_element, \"type\") == \"result\""},
    {"<iq type='result' id='5' to='alice@alpha.test'/>",
     "get_xml_attribute (xml_element, \"to\") == from"},
    {"<iq type='result'" + to + "/>", "response_id.size"},
    {"<iq type='result' id='6'" + to + "/>", "string_to_u64 (response_id) == id"},
    {"<iq type='result' id='5'" + to + "><query/></iq>", "!xml_element->children"},
    {"<iq type='result' id='5'" + to + "/><iq/>", "!xml_element->next"},
  };
  for (const auto &[answer, expression] : rows)
    EXPECT_DEATH (set_roster (answer), stop_at (expression)) << answer;
}

// ---- vCards ----

static std::string
build_vcard (VCard vcard)
{
  std::vector<u8> memory (8192);
  Buffer buffer = {memory.data (), memory.size ()};
  Buffer buffer_p = buffer_append_vcard4 (buffer, vcard);
  EXPECT_EQ (buffer_p.size + (u64) (buffer_p.data - buffer.data), buffer.size);
  return std::string ((const char *) buffer.data, buffer.size - buffer_p.size);
}

static VCard
make_vcard (const char *value)
{
  char *v = (char *) value;
  return {v, v, v, v, v, v, v, v};
}

#define VCARD_OPEN "<vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'>"
#define VCARD_WORK "<parameters><type><text>work</text></type></parameters>"

static char FULLNAME[] = "Alice \"A\" <1>";
static char ROLE[] = "Buyer & seller";
static char EMAIL[] = "alice@alpha.test";
static char TELEPHONE[] = "tel:+1";
static char URL[] = "http://alpha.test/?a&b";
static char ORGANIZATION[] = "O'Hara";
static char STREET[] = "First Street 1";
static char KEY[] = "k=";
static const VCard FULL_VCARD = {FULLNAME, ROLE, EMAIL, TELEPHONE, URL, ORGANIZATION, STREET, KEY};
static const char FULL_VCARD_XML[] =
  VCARD_OPEN "<fn><text>Alice &quot;A&quot; &lt;1&gt;</text></fn>"
             "<email>" VCARD_WORK "<text>alice@alpha.test</text></email>"
             "<role>" VCARD_WORK "<text>Buyer &amp; seller</text></role>"
             "<tel>" VCARD_WORK "<uri>tel:+1</uri></tel>"
             "<url><uri>http://alpha.test/?a&amp;b</uri></url>"
             "<org>" VCARD_WORK "<text>O&apos;Hara</text></org>"
             "<adr>" VCARD_WORK "<street>First Street 1</street></adr>"
             "<key><text>k=</text></key></vcard>";

TEST (buffer_append_vcard4, writes_a_single_field_without_anything_between)
{
  VCard vcard = make_vcard ("");
  vcard.fullname = EMAIL;
  EXPECT_EQ (build_vcard (vcard), VCARD_OPEN "<fn><text>alice@alpha.test</text></fn></vcard>");
}

TEST (buffer_append_vcard4, writes_all_fields_in_order_and_escaped)
{
  EXPECT_EQ (build_vcard (FULL_VCARD), FULL_VCARD_XML);
}

TEST (buffer_append_vcard4, leaves_empty_fields_out)
{
  EXPECT_EQ (build_vcard (make_vcard ("")), VCARD_OPEN "</vcard>");
}

TEST (xmpp_iq_set_vcard4, sends_the_whole_card)
{
  Session session;
  EXPECT_EQ (xmpp_iq_set_vcard4 (session.window, FULL_VCARD), 1u);
  EXPECT_EQ (session.end (),
             std::string ("<iq type='set' id='1' from='alice@alpha.test/morvane'>") +
               FULL_VCARD_XML + "</iq>");
}

TEST (xmpp_iq_get_vcard4, asks_an_account)
{
  Session session;
  EXPECT_EQ (xmpp_iq_get_vcard4 (session.window, to_string ("bob@beta.test")), 1u);
  EXPECT_EQ (session.end (),
             "<iq type='get' id='1' from='alice@alpha.test/morvane' to='bob@beta.test'>"
             "<vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'/></iq>");
}

static std::string
field_of (const char *property, const char *name)
{
  Parsed parsed (property);
  char *text = alloc_get_vcard4_field_text_by_name (parsed.element, name);
  std::string result = text ? std::string ("'") + text + "'" : "none";
  dealloc_cstr (text);
  return result;
}

TEST (alloc_get_vcard4_field_text_by_name, takes_the_first_text_as_it_is)
{
  EXPECT_EQ (field_of ("<fn><text>A &amp; B</text></fn>", "text"), "'A &amp; B'");
  EXPECT_EQ (field_of ("<fn><text>one</text><text>two</text></fn>", "text"), "'one'");
  EXPECT_EQ (field_of ("<tel><uri>tel:1</uri></tel>", "text"), "none");
  EXPECT_EQ (field_of ("<fn/>", "text"), "none");
  EXPECT_EQ (field_of ("<fn><text/></fn>", "text"), "none");
  EXPECT_EQ (field_of ("<fn><text></text></fn>", "text"), "none");
  EXPECT_EQ (field_of ("<fn><text><b>x</b></text></fn>", "text"), "none");
}

static std::string
parse_vcard (const std::string &xml, const char *from = "bob@beta.test")
{
  Parsed parsed (xml);
  testing::internal::CaptureStdout ();
  parse_xmpp_vcard4 (get_receiving_window (), 9, to_string (from), parsed.element);
  return testing::internal::GetCapturedStdout ();
}

static VCardMessage *
take_vcard ()
{
  return (VCardMessage *) take_record (app_window_get_vcard_message);
}

TEST (parse_xmpp_vcard4, reads_every_field_with_its_entities)
{
  EXPECT_EQ (parse_vcard (FULL_VCARD_XML), "");
  VCardMessage *message = take_vcard ();
  ASSERT_TRUE (message);
  EXPECT_EQ (message->window, get_receiving_window ());
  EXPECT_EQ (message->id, 9u);
  EXPECT_EQ (text_of (message->from), "bob@beta.test");
  EXPECT_STREQ (message->vcard.fullname, "Alice &quot;A&quot; &lt;1&gt;");
  EXPECT_STREQ (message->vcard.role, "Buyer &amp; seller");
  EXPECT_STREQ (message->vcard.email, "alice@alpha.test");
  EXPECT_STREQ (message->vcard.telephone, "tel:+1");
  EXPECT_STREQ (message->vcard.url, "http://alpha.test/?a&amp;b");
  EXPECT_STREQ (message->vcard.organization, "O&apos;Hara");
  EXPECT_STREQ (message->vcard.work_street, "First Street 1");
  EXPECT_STREQ (message->vcard.key, "k=");
  dealloc_vcard_message (message);
}

TEST (parse_xmpp_vcard4, posts_an_empty_card)
{
  EXPECT_EQ (parse_vcard (VCARD_OPEN "</vcard>", ""), "");
  VCardMessage *message = take_vcard ();
  ASSERT_TRUE (message);
  EXPECT_EQ (message->from.data, nullptr);
  EXPECT_EQ (message->from.size, 0u);
  const VCard &vcard = message->vcard;
  for (char *field : {vcard.fullname, vcard.role, vcard.email, vcard.telephone, vcard.url,
                      vcard.organization, vcard.work_street, vcard.key}) {
    EXPECT_EQ (field, nullptr);
  }
  dealloc_vcard_message (message);
}

TEST (parse_xmpp_vcard4, wants_each_value_in_its_own_element)
{
  EXPECT_EQ (parse_vcard (VCARD_OPEN "<tel><text>1</text></tel><url><text>2</text></url>"
                                     "<adr><text>3</text></adr><fn><uri>4</uri></fn></vcard>"),
             "");
  VCardMessage *message = take_vcard ();
  ASSERT_TRUE (message);
  EXPECT_EQ (message->vcard.telephone, nullptr);
  EXPECT_EQ (message->vcard.url, nullptr);
  EXPECT_EQ (message->vcard.work_street, nullptr);
  EXPECT_EQ (message->vcard.fullname, nullptr);
  dealloc_vcard_message (message);
}

TEST (parse_xmpp_vcard4, lets_a_later_property_replace_an_earlier_one)
{
  parse_vcard (VCARD_OPEN "<fn><text>one</text></fn><nickname><text>x</text></nickname>"
                          "<fn><text>two</text></fn><role><text>r</text></role><role/></vcard>");
  VCardMessage *message = take_vcard ();
  ASSERT_TRUE (message);
  EXPECT_STREQ (message->vcard.fullname, "two");
  EXPECT_EQ (message->vcard.role, nullptr);
  dealloc_vcard_message (message);
}

TEST (parse_xmpp_vcard4, drops_a_card_without_the_namespace)
{
  EXPECT_EQ (parse_vcard ("<vcard><fn><text>x</text></fn></vcard>"),
             "Warning: Received a vcard which doesn't have an xmlns attribute value.\n");
  EXPECT_EQ (parse_vcard ("<vcard xmlns='vcard-temp'/>"),
             "Warning: Received a vcard which has an unexpected xmlns attribute: vcard-temp\n");
  EXPECT_EQ (count_records (), 0u);
}

TEST (parse_xmpp_vcard4, stops_at_text_between_the_properties)
{
  EXPECT_DEATH (parse_vcard (VCARD_OPEN "x<fn><text>x</text></fn></vcard>"),
                stop_at ("field_name.size"));
  EXPECT_DEATH (parse_vcard (VCARD_OPEN "<fn><text>x</text></fn>\n</vcard>"),
                stop_at ("field_name.size"));
}

// ---- Negotiation: sending ----

// A procedure of the two parties, with one of each thing.
struct TestNegotiation {
  Procedure *procedure;
  Clause *clause;
  ClauseRevision *revision;
  ClauseRevisionDecision *decision;
  ClauseMessage *message;

  TestNegotiation (const char *initiator, const char *contractor, const char *author,
                   const std::string &text = "a < b")
  {
    procedure =
      alloc_procedure (1, 1, 100, string_of (text), to_string (initiator), to_string (contractor));
    clause = alloc_clause (1, 1, 200, to_string (author), 1);
    revision =
      alloc_clause_revision (1, 1, 300, to_string (author), REVISION_COMMITTED, string_of (text));
    decision = alloc_clause_revision_decision (1, 1, 400, to_string (author), DECISION_AGREE);
    message = alloc_clause_message (1, 1, 500, to_string (author), string_of (text));
  }
  ~TestNegotiation ()
  {
    dealloc_procedure (procedure);
    dealloc_clause (clause);
    dealloc_clause_revision (revision);
    dealloc_clause_revision_decision (decision);
    dealloc_clause_message (message);
  }
};

static const char OWN[] = "alice@alpha.test";
static const char PEER[] = "bob@beta.test";
static const char FULL[] = "alice@alpha.test/morvane";

static std::string
envelope (u64 id, const std::string &element)
{
  return "<message type='chat' id='" + std::to_string (id) +
         "' from='alice@alpha.test/morvane' to='bob@beta.test'><body>" + element +
         "</body></message>";
}

typedef void (*Sender) (Session *session, TestNegotiation *negotiation);

static void
send_procedure (Session *session, TestNegotiation *n)
{
  xmpp_send_procedure (session->window->connection.tls_session,
                       session->window->output_stream_buffer, 7, to_string (FULL), n->procedure);
}

static void
send_clause (Session *session, TestNegotiation *n)
{
  xmpp_send_clause (session->window->connection.tls_session, session->window->output_stream_buffer,
                    7, to_string (FULL), n->procedure, n->clause);
}

static void
send_revision (Session *session, TestNegotiation *n)
{
  xmpp_send_clause_revision (session->window->connection.tls_session,
                             session->window->output_stream_buffer, 7, to_string (FULL),
                             n->procedure, n->clause, n->revision);
}

static void
send_clause_message (Session *session, TestNegotiation *n)
{
  EXPECT_EQ (xmpp_send_clause_message (session->window, n->procedure, n->clause, n->message), 1u);
}

static void
send_decision (Session *session, TestNegotiation *n)
{
  EXPECT_EQ (xmpp_send_clause_revision_decision (session->window, n->procedure, n->clause,
                                                 n->revision, n->decision),
             1u);
}

static std::string
sent_by (Sender sender, const char *initiator, const char *contractor,
         DecisionStatus status = DECISION_AGREE)
{
  Session session;
  TestNegotiation negotiation (initiator, contractor, OWN);
  negotiation.decision->status = status;
  sender (&session, &negotiation);
  return session.end ();
}

TEST (xmpp_send_procedure, goes_to_the_contractor)
{
  EXPECT_EQ (sent_by (send_procedure, OWN, PEER),
             envelope (7, "<x-procedure procedure='alice@alpha.test:100'>a &lt; b</x-procedure>"));
}

TEST (xmpp_send_clause, goes_to_the_other_party)
{
  EXPECT_EQ (sent_by (send_clause, OWN, PEER),
             envelope (7, "<x-clause procedure='alice@alpha.test:100' "
                          "clause='alice@alpha.test:200'></x-clause>"));
  EXPECT_EQ (sent_by (send_clause, PEER, OWN),
             envelope (7, "<x-clause procedure='bob@beta.test:100' "
                          "clause='alice@alpha.test:200'></x-clause>"));
}

TEST (xmpp_send_clause_revision, goes_to_the_other_party)
{
  EXPECT_EQ (sent_by (send_revision, OWN, PEER),
             envelope (7,
                       "<x-revision procedure='alice@alpha.test:100' clause='alice@alpha.test:200' "
                       "revision='alice@alpha.test:300'>a &lt; b</x-revision>"));
  EXPECT_EQ (sent_by (send_revision, PEER, OWN),
             envelope (7, "<x-revision procedure='bob@beta.test:100' clause='alice@alpha.test:200' "
                          "revision='alice@alpha.test:300'>a &lt; b</x-revision>"));
}

TEST (xmpp_send_clause_message, goes_to_the_other_party)
{
  EXPECT_EQ (
    sent_by (send_clause_message, OWN, PEER),
    envelope (1, "<x-clause-message procedure='alice@alpha.test:100' clause='alice@alpha.test:200' "
                 "message='alice@alpha.test:500'>a &lt; b</x-clause-message>"));
  EXPECT_EQ (
    sent_by (send_clause_message, PEER, OWN),
    envelope (1, "<x-clause-message procedure='bob@beta.test:100' clause='alice@alpha.test:200' "
                 "message='alice@alpha.test:500'>a &lt; b</x-clause-message>"));
}

TEST (xmpp_send_clause_revision_decision, sends_the_word_to_the_other_party)
{
  const std::string rest = "clause='alice@alpha.test:200' revision='alice@alpha.test:300' "
                           "decision='alice@alpha.test:400'>";
  EXPECT_EQ (sent_by (send_decision, OWN, PEER),
             envelope (1, "<x-clause-decision procedure='alice@alpha.test:100' " + rest +
                            "AGREE</x-clause-decision>"));
  EXPECT_EQ (sent_by (send_decision, PEER, OWN, DECISION_DISAGREE),
             envelope (1, "<x-clause-decision procedure='bob@beta.test:100' " + rest +
                            "DISAGREE</x-clause-decision>"));
  EXPECT_EQ (sent_by (send_decision, PEER, OWN, DECISION_INVALID),
             envelope (1, "<x-clause-decision procedure='bob@beta.test:100' " + rest +
                            "INVALID</x-clause-decision>"));
}

TEST (xmpp_send_clause_revision, sends_an_empty_text_as_an_element_without_content)
{
  Session session;
  TestNegotiation negotiation (OWN, PEER, OWN, "");
  send_revision (&session, &negotiation);
  EXPECT_EQ (session.end (),
             envelope (7,
                       "<x-revision procedure='alice@alpha.test:100' clause='alice@alpha.test:200' "
                       "revision='alice@alpha.test:300'></x-revision>"));
}

static void
send_for (Sender sender, const char *author)
{
  Session session;
  TestNegotiation negotiation (author, PEER, author);
  sender (&session, &negotiation);
}

TEST (xmpp_send_procedure, stops_when_it_speaks_for_someone_else)
{
  EXPECT_DEATH (send_for (send_procedure, "carol@alpha.test"),
                stop_at ("get_bare_jid_from_full_jid (from) == procedure->initiator"));
}

TEST (xmpp_send_clause, stops_when_it_speaks_for_someone_else)
{
  EXPECT_DEATH (send_for (send_clause, "carol@alpha.test"),
                stop_at ("get_bare_jid_from_full_jid (from) == clause->initiator"));
}

TEST (xmpp_send_clause_revision, stops_when_it_speaks_for_someone_else)
{
  EXPECT_DEATH (send_for (send_revision, "carol@alpha.test"),
                stop_at ("get_bare_jid_from_full_jid (from) == revision->author"));
}

// ---- Stanzas that do not fit ----

static void
send_subscribe (Session *session, TestNegotiation *)
{
  xmpp_presence_subscribe (session->window, to_string (PEER));
}

static void
send_subscribed (Session *session, TestNegotiation *)
{
  xmpp_presence_subscribed (session->window, to_string (PEER));
}

static void
send_roster_query (Session *session, TestNegotiation *)
{
  xmpp_iq_get_roster (session->window);
}

static void
send_disco (Session *session, TestNegotiation *)
{
  xmpp_iq_get_disco1_vcard4 (session->window, to_string (PEER));
}

static void
send_vcard_query (Session *session, TestNegotiation *)
{
  xmpp_iq_get_vcard4 (session->window, to_string (PEER));
}

static void
send_vcard (Session *session, TestNegotiation *)
{
  xmpp_iq_set_vcard4 (session->window, FULL_VCARD);
}

static void
send_chat (Session *session, TestNegotiation *)
{
  xmpp_send_message (session->window, to_string (PEER), to_string ("a < b"));
}

struct FitRow {
  Sender sender;
  const char *source;
  const char *expression;
};

// Those that are formatted whole are stopped by the formatter itself.
static const FitRow FIT_ROWS[] = {
  {send_subscribe, "buffers", "buffer_p.size"},    {send_subscribed, "buffers", "buffer_p.size"},
  {send_roster_query, "buffers", "buffer_p.size"}, {send_disco, "buffers", "buffer_p.size"},
  {send_vcard_query, "buffers", "buffer_p.size"},  {send_decision, "buffers", "buffer_p.size"},
  {send_vcard, "xmpp", "buffer_p.size"},           {send_chat, "xmpp", "buffer_p.size"},
  {send_clause_message, "xmpp", "buffer_p.size"},  {send_procedure, "xmpp", "request_p.size"},
  {send_clause, "xmpp", "request_p.size"},         {send_revision, "xmpp", "request_p.size"},
};

class stanza_room : public testing::TestWithParam<FitRow> {};

static std::string
send_in_room (Sender sender, size_t size)
{
  Session session ("", size);
  TestNegotiation negotiation (OWN, PEER, OWN);
  sender (&session, &negotiation);
  return session.end ();
}

TEST_P (stanza_room, one_byte_over_is_enough_and_an_exact_fit_stops)
{
  const FitRow &row = GetParam ();
  std::string stanza = send_in_room (row.sender, 4096);
  EXPECT_EQ (send_in_room (row.sender, stanza.size () + 1), stanza);
  EXPECT_DEATH (send_in_room (row.sender, stanza.size ()), stop_in (row.source, row.expression));
  EXPECT_DEATH (send_in_room (row.sender, stanza.size () / 2),
                stop_in (row.source, row.expression));
}

INSTANTIATE_TEST_SUITE_P (senders, stanza_room, testing::ValuesIn (FIT_ROWS));

// ---- Negotiation: receiving ----

struct AuthorRow {
  const char *element;
  const char *from;
  bool is_sender;
};

#define OF_CLAUSE "procedure='p@q:1' clause='c@d:2'"

static const AuthorRow AUTHOR_ROWS[] = {
  {"<x-clause procedure='p@q:1' clause='b@c:2'/>", "b@c", true},
  {"<x-clause procedure='p@q:1' clause='b@c:2'/>", "b@c/desk", true},
  {"<x-clause procedure='p@q:1' clause='b@c:2'/>", "b@c/", true},
  // The author is the last pair's, not that of the procedure.
  {"<x-clause procedure='p@q:1' clause='b@c:2'/>", "p@q/desk", false},
  {"<x-revision " OF_CLAUSE " revision='b@c:3'/>", "b@c/desk", true},
  {"<x-revision " OF_CLAUSE " revision='b@c:3'/>", "c@d/desk", false},
  {"<x-revision " OF_CLAUSE " revision='b@c:3'/>", "p@q", false},
  {"<x-clause-decision " OF_CLAUSE " revision='r@s:3' decision='b@c:4'/>", "b@c/desk", true},
  {"<x-clause-decision " OF_CLAUSE " revision='r@s:3' decision='b@c:4'/>", "r@s/desk", false},
  {"<x-clause-decision decision='b@c:4' revision='r@s:3' " OF_CLAUSE "/>", "b@c/desk", true},
  {"<x-clause-message " OF_CLAUSE " message='b@c:3'/>", "b@c/desk", true},
  {"<x-clause-message " OF_CLAUSE " message='b:3'/>", "b@c/desk", true},
  {"<x-clause-message " OF_CLAUSE " message='b:3'/>", "b@elsewhere", true},
  {"<x-clause-message " OF_CLAUSE " message='b:3'/>", "bb@c", false},
  {"<x-clause-message " OF_CLAUSE " message='bb:3'/>", "b@c", false},
  {"<x-clause-message " OF_CLAUSE " message='c:3'/>", "b@c/c", false},
  {"<x-clause-message " OF_CLAUSE " message='b@:3'/>", "b@c", false},
  {"<x-clause-message " OF_CLAUSE " message='c:3'/>", "c", true},
  {"<x-clause-message " OF_CLAUSE " message='c:3'/>", "c/@", true},
  // Only the lines of a clause's chat are signed with a user name.
  {"<x-revision " OF_CLAUSE " revision='b:3'/>", "b@c/desk", false},
  {"<x-clause procedure='p@q:1' clause='b:2'/>", "b@c/desk", false},
  {"<x-clause-decision " OF_CLAUSE " revision='r@s:3' decision='b:4'/>", "b@c/desk", false},
  // Byte by byte: neither case nor resource nor a longer host.
  {"<x-revision " OF_CLAUSE " revision='B@c:3'/>", "b@c/desk", false},
  {"<x-revision " OF_CLAUSE " revision='b@c/desk:3'/>", "b@c/desk", false},
  {"<x-revision " OF_CLAUSE " revision='b@c.d:3'/>", "b@c", false},
  {"<x-revision " OF_CLAUSE " revision='b@c:3'/>", "b@c.d", false},
  {"<x-revision " OF_CLAUSE " revision='b@c:3' revision='m@n:3'/>", "m@n", false},
  {"<x-revision " OF_CLAUSE " revision='b@c:3' revision='m@n:3'/>", "b@c", true},
  // A malformed pair is left to the parser, which stops at it.
  {"<x-revision " OF_CLAUSE " revision='m@n'/>", "b@c", true},
  {"<x-revision " OF_CLAUSE " revision='m@n:'/>", "b@c", true},
  {"<x-revision " OF_CLAUSE " revision=':3'/>", "b@c", true},
  {"<x-revision " OF_CLAUSE " revision='m@n:3x'/>", "b@c", true},
  {"<x-revision " OF_CLAUSE "/>", "b@c", true},
  {"<x-revision clause='c@d:2' revision='m@n:3'/>", "b@c", true},
  {"<x-clause procedure='p@q' clause='m@n:2'/>", "b@c", true},
  // Of these nobody is asked.
  {"<x-procedure procedure='p@q:1'>T</x-procedure>", "b@c", true},
  {"<x-other " OF_CLAUSE "/>", "b@c", true},
};

TEST (is_negotiation_author_sender, compares_the_last_pair_with_the_bare_sender)
{
  for (const AuthorRow &row : AUTHOR_ROWS) {
    Parsed parsed (row.element);
    EXPECT_EQ (is_negotiation_author_sender (parsed.element, to_string (row.from)), row.is_sender)
      << row.element << " from " << row.from;
  }
}

TEST (parse_xmpp_procedure, posts_its_record)
{
  EXPECT_EQ (parse (parse_xmpp_procedure,
                    "<x-procedure procedure='bob@beta.test:100'>A &amp; B</x-procedure>"),
             "procedure_initiator: \"bob@beta.test\" (String)\n");
  XMPPProcedure *message = (XMPPProcedure *) take_record (app_window_get_xmpp_procedure);
  ASSERT_TRUE (message);
  EXPECT_EQ (text_of (message->title), "A & B");
  EXPECT_EQ (text_of (message->initiator), "bob@beta.test");
  EXPECT_EQ (message->time, 100);
  dealloc_xmpp_procedure (message);
}

TEST (parse_xmpp_clause, posts_its_record)
{
  EXPECT_EQ (parse (parse_xmpp_clause, "<x-clause procedure='bob@beta.test:100' "
                                       "clause='alice@alpha.test:200'></x-clause>"),
             "procedure_initiator: \"bob@beta.test\" (String)\n"
             "clause_initiator: \"alice@alpha.test\" (String)\n");
  XMPPClause *message = (XMPPClause *) take_record (app_window_get_xmpp_clause);
  ASSERT_TRUE (message);
  EXPECT_EQ (text_of (message->procedure_initiator), "bob@beta.test");
  EXPECT_EQ (text_of (message->clause_initiator), "alice@alpha.test");
  EXPECT_EQ (message->procedure_time, 100);
  EXPECT_EQ (message->clause_time, 200);
  dealloc_xmpp_clause (message);
}

TEST (parse_xmpp_clause_revision, posts_its_record)
{
  EXPECT_EQ (parse (parse_xmpp_clause_revision,
                    "<x-revision procedure='bob@beta.test:100' clause='alice@alpha.test:200' "
                    "revision='carol@alpha.test:300'>&quot;&amp;&apos;&lt;&gt;</x-revision>"),
             "procedure_initiator: \"bob@beta.test\" (String)\n"
             "clause_initiator: \"alice@alpha.test\" (String)\n"
             "revision_author: \"carol@alpha.test\" (String)\n");
  XMPPClauseRevision *message =
    (XMPPClauseRevision *) take_record (app_window_get_xmpp_clause_revision);
  ASSERT_TRUE (message);
  EXPECT_EQ (text_of (message->text), "\"&'<>");
  EXPECT_EQ (text_of (message->procedure_initiator), "bob@beta.test");
  EXPECT_EQ (text_of (message->clause_initiator), "alice@alpha.test");
  EXPECT_EQ (text_of (message->revision_author), "carol@alpha.test");
  EXPECT_EQ (message->procedure_time, 100);
  EXPECT_EQ (message->clause_time, 200);
  EXPECT_EQ (message->revision_time, 300);
  dealloc_xmpp_clause_revision (message);
}

TEST (parse_xmpp_clause_message, posts_its_record)
{
  EXPECT_EQ (parse (parse_xmpp_clause_message,
                    "<x-clause-message procedure='bob@beta.test:100' "
                    "clause='alice@alpha.test:200' message='carol@alpha.test:500'>"
                    "hello</x-clause-message>"),
             "procedure_initiator: \"bob@beta.test\" (String)\n"
             "clause_initiator: \"alice@alpha.test\" (String)\n"
             "message_author: \"carol@alpha.test\" (String)\n");
  XMPPClauseMessage *message =
    (XMPPClauseMessage *) take_record (app_window_get_xmpp_clause_message);
  ASSERT_TRUE (message);
  EXPECT_EQ (text_of (message->text), "hello");
  EXPECT_EQ (text_of (message->procedure_initiator), "bob@beta.test");
  EXPECT_EQ (text_of (message->clause_initiator), "alice@alpha.test");
  EXPECT_EQ (text_of (message->message_author), "carol@alpha.test");
  EXPECT_EQ (message->procedure_time, 100);
  EXPECT_EQ (message->clause_time, 200);
  EXPECT_EQ (message->message_time, 500);
  dealloc_xmpp_clause_message (message);
}

static XMPPClauseRevisionDecisionSignal *
take_decision ()
{
  return (XMPPClauseRevisionDecisionSignal *) take_record (
    app_window_get_xmpp_clause_revision_decision_signal);
}

static std::string
decision_element (const std::string &word)
{
  return "<x-clause-decision procedure='bob@beta.test:100' clause='alice@alpha.test:200' "
         "revision='carol@alpha.test:300' decision='dave@alpha.test:400'>" +
         word + "</x-clause-decision>";
}

TEST (parse_xmpp_clause_decision, posts_its_record)
{
  EXPECT_EQ (parse (parse_xmpp_clause_decision, decision_element ("DISAGREE")),
             "procedure_initiator: \"bob@beta.test\" (String)\n"
             "clause_initiator: \"alice@alpha.test\" (String)\n"
             "revision_author: \"carol@alpha.test\" (String)\n"
             "decision_author: \"dave@alpha.test\" (String)\n");
  XMPPClauseRevisionDecisionSignal *signal = take_decision ();
  ASSERT_TRUE (signal);
  EXPECT_EQ (signal->status, DECISION_DISAGREE);
  EXPECT_EQ (text_of (signal->procedure_initiator), "bob@beta.test");
  EXPECT_EQ (text_of (signal->clause_initiator), "alice@alpha.test");
  EXPECT_EQ (text_of (signal->revision_author), "carol@alpha.test");
  EXPECT_EQ (text_of (signal->decision_author), "dave@alpha.test");
  EXPECT_EQ (signal->procedure_time, 100);
  EXPECT_EQ (signal->clause_time, 200);
  EXPECT_EQ (signal->revision_time, 300);
  EXPECT_EQ (signal->decision_time, 400);
  dealloc_xmpp_clause_revision_decision_signal (signal);
}

TEST (parse_xmpp_clause_decision, takes_either_word)
{
  parse (parse_xmpp_clause_decision, decision_element ("AGREE"));
  XMPPClauseRevisionDecisionSignal *signal = take_decision ();
  ASSERT_TRUE (signal);
  EXPECT_EQ (signal->status, DECISION_AGREE);
  dealloc_xmpp_clause_revision_decision_signal (signal);
}

// Content is judged first, so that not even the pairs of such an element are looked at.
TEST (parse_xmpp_clause_decision, drops_an_element_without_a_known_word)
{
  const std::vector<std::pair<std::string, std::string>> rows = {
    {"<x-clause-decision/>", "Warning: Received a void clause decision.\n"},
    {"<x-clause-decision></x-clause-decision>", "Warning: Received a void clause decision.\n"},
    {"<x-clause-decision><b>AGREE</b></x-clause-decision>",
     "Warning: Received a clause decision not text.\n"},
    {decision_element ("agree"), "Warning: Received an invalid clause decision 'agree'\n"},
    {decision_element ("INVALID"), "Warning: Received an invalid clause decision 'INVALID'\n"},
    {decision_element ("AGREE &amp;"),
     "Warning: Received an invalid clause decision 'AGREE &amp;'\n"},
  };
  for (const auto &[element, console] : rows)
    EXPECT_EQ (parse (parse_xmpp_clause_decision, element), console) << element;
  EXPECT_EQ (count_records (), 0u);
}

TEST (parse_xmpp_procedure, drops_an_element_without_a_title)
{
  EXPECT_EQ (parse (parse_xmpp_procedure, "<x-procedure/>"),
             "Warning: Received a void procedure.\n");
  EXPECT_EQ (parse (parse_xmpp_procedure, "<x-procedure></x-procedure>"),
             "Warning: Received a void procedure.\n");
  EXPECT_EQ (parse (parse_xmpp_procedure, "<x-procedure><b>title</b></x-procedure>"),
             "Warning: Received a procedure without a title.\n");
  EXPECT_EQ (count_records (), 0u);
}

TEST (parse_xmpp_clause_revision, takes_an_element_without_text)
{
  const std::string opening = "<x-revision procedure='a@b:1' clause='a@b:2' revision='a@b:3'>";
  const std::vector<std::pair<std::string, std::string>> rows = {
    {opening + "</x-revision>", "Warning: Received a void clause revision.\n"},
    {opening + "<b>x</b></x-revision>", "Warning: Received a clause revision with no text.\n"},
  };
  for (const auto &[element, warning] : rows) {
    std::string console = parse (parse_xmpp_clause_revision, element);
    EXPECT_TRUE (console.starts_with (warning)) << console;
    EXPECT_EQ (count_warnings (console), 1u) << console;
    XMPPClauseRevision *message =
      (XMPPClauseRevision *) take_record (app_window_get_xmpp_clause_revision);
    ASSERT_TRUE (message);
    EXPECT_EQ (message->text.size, 0u);
    EXPECT_EQ (message->revision_time, 3);
    dealloc_xmpp_clause_revision (message);
  }
}

TEST (parse_xmpp_clause_message, takes_an_element_without_text)
{
  const std::string opening = "<x-clause-message procedure='a@b:1' clause='a@b:2' message='a@b:3'>";
  const std::vector<std::pair<std::string, std::string>> rows = {
    {opening + "</x-clause-message>", "Warning: Received a void clause message.\n"},
    {opening + "<b>x</b></x-clause-message>", "Warning: Received a clause message with no text.\n"},
  };
  for (const auto &[element, warning] : rows) {
    std::string console = parse (parse_xmpp_clause_message, element);
    EXPECT_TRUE (console.starts_with (warning)) << console;
    EXPECT_EQ (count_warnings (console), 1u) << console;
    XMPPClauseMessage *message =
      (XMPPClauseMessage *) take_record (app_window_get_xmpp_clause_message);
    ASSERT_TRUE (message);
    EXPECT_EQ (message->text.size, 0u);
    EXPECT_EQ (message->message_time, 3);
    dealloc_xmpp_clause_message (message);
  }
}

// ---- Pairs that stop the program ----

struct ElementRow {
  ElementParser parser;
  const char *name;
  std::vector<std::string> attributes;
  const char *content;
};

static const std::vector<ElementRow> ELEMENT_ROWS = {
  {parse_xmpp_procedure, "x-procedure", {"procedure"}, "title"},
  {parse_xmpp_clause, "x-clause", {"procedure", "clause"}, ""},
  {parse_xmpp_clause_revision, "x-revision", {"procedure", "clause", "revision"}, "text"},
  {parse_xmpp_clause_message, "x-clause-message", {"procedure", "clause", "message"}, "text"},
  {parse_xmpp_clause_decision,
   "x-clause-decision",
   {"procedure", "clause", "revision", "decision"},
   "AGREE"},
};

// The element with good pairs, but for `attribute`, which has `value`, or is absent without one.
static std::string
make_element (const ElementRow &row, const std::string &attribute = "", const char *value = NULL)
{
  std::string element = std::string ("<") + row.name;
  for (const std::string &name : row.attributes) {
    if (name != attribute) {
      element += " " + name + "='bob@beta.test:100'";
    } else if (value) {
      element += " " + name + "='" + value + "'";
    }
  }
  return element + ">" + row.content + "</" + row.name + ">";
}

class negotiation_element : public testing::TestWithParam<ElementRow> {};

TEST_P (negotiation_element, stops_at_every_malformed_pair)
{
  const ElementRow &row = GetParam ();
  for (const std::string &name : row.attributes) {
    const std::string whole = name == "message" ? "message_attrib" : name;
    const std::string divider = name + "_divider";
    const std::string only_digits = "string_has_only_digits (" + name + "_time)";
    const std::vector<std::pair<const char *, std::string>> faults = {
      {NULL, divider + ".size"},
      {"", divider + ".size"},
      {"bob@beta.test", divider + ".size"},
      {":100", divider + ".size != " + whole + ".size"},
      {"bob@beta.test:", divider + ".size != 1"},
      {"bob@beta.test:1O0", only_digits},
      {"bob@beta.test:-100", only_digits},
      {"bob@beta.test: 100", only_digits},
      {"bob@beta.test:5222:100", only_digits},
    };
    for (const auto &[value, expression] : faults) {
      EXPECT_DEATH (parse (row.parser, make_element (row, name, value)), stop_at (expression))
        << name << " " << (value ? value : "absent");
    }
  }
}

TEST_P (negotiation_element, splits_all_pairs_before_it_looks_at_a_time)
{
  const ElementRow &row = GetParam ();
  const std::string &last = row.attributes.back ();
  std::string element = make_element (row, last, NULL);
  // The first pair has a bad time and the last pair is absent, unless they are one and the same.
  for (size_t at = element.find (":100'"); at != std::string::npos; at = element.find (":100'"))
    element.replace (at, 5, ":x'");
  EXPECT_DEATH (parse (row.parser, element), stop_at (last + "_divider.size"));
}

static const char CANT_KEEP[] =
  "Warning: Received a negotiation element whose author or time can't be kept.\n";

TEST_P (negotiation_element, drops_what_the_store_cant_hold)
{
  const ElementRow &row = GetParam ();
  std::string long_jid = std::string (BARE_JID_SIZE_MAX + 1, 'b') + ":100";
  for (const std::string &name : row.attributes) {
    for (const char *value :
         {"bob@beta.test:1234567890123", "b\xFF@beta.test:100", (const char *) long_jid.c_str ()}) {
      std::string console = parse (row.parser, make_element (row, name, value));
      EXPECT_TRUE (console.ends_with (CANT_KEEP)) << console;
      EXPECT_EQ (count_warnings (console), 1u) << console;
      EXPECT_EQ (count_records (), 0u) << name << " " << value;
    }
  }
}

TEST_P (negotiation_element, drops_an_author_with_an_apostrophe)
{
  const ElementRow &row = GetParam ();
  for (const std::string &name : row.attributes) {
    std::string element = make_element (row, name, "QUOTED");
    size_t at = element.find ("'QUOTED'");
    element.replace (at, 8, "\"o'hara@beta.test:100\"");
    std::string console = parse (row.parser, element);
    EXPECT_EQ (count_warnings (console), 1u) << console;
    EXPECT_EQ (count_records (), 0u) << element;
  }
}

TEST_P (negotiation_element, drops_an_author_with_a_nul_byte)
{
  const ElementRow &row = GetParam ();
  for (const std::string &name : row.attributes) {
    std::string element = make_element (row, name, "b?b@beta.test:100");
    element[element.find ('?')] = '\0';
    std::string console = parse (row.parser, element);
    EXPECT_EQ (count_warnings (console), 1u) << console;
    EXPECT_EQ (count_records (), 0u) << element;
  }
}

TEST_P (negotiation_element, keeps_a_time_of_twelve_digits_and_a_jid_of_full_length)
{
  const ElementRow &row = GetParam ();
  std::string longest = std::string (BARE_JID_SIZE_MAX, 'b') + ":999999999999";
  for (const std::string &name : row.attributes) {
    std::string console = parse (row.parser, make_element (row, name, longest.c_str ()));
    EXPECT_EQ (count_warnings (console), 0u) << console;
    ASSERT_EQ (count_records (), 1u);
    // Each kind of record has a deallocator of its own.
    Caught caught = caught_records[0];
    caught_records.clear ();
    if (row.parser == parse_xmpp_procedure) {
      EXPECT_EQ (((XMPPProcedure *) caught.record)->time, 999999999999);
      dealloc_xmpp_procedure ((XMPPProcedure *) caught.record);
    } else if (row.parser == parse_xmpp_clause) {
      dealloc_xmpp_clause ((XMPPClause *) caught.record);
    } else if (row.parser == parse_xmpp_clause_revision) {
      dealloc_xmpp_clause_revision ((XMPPClauseRevision *) caught.record);
    } else if (row.parser == parse_xmpp_clause_message) {
      dealloc_xmpp_clause_message ((XMPPClauseMessage *) caught.record);
    } else {
      dealloc_xmpp_clause_revision_decision_signal (
        (XMPPClauseRevisionDecisionSignal *) caught.record);
    }
  }
}

INSTANTIATE_TEST_SUITE_P (elements, negotiation_element, testing::ValuesIn (ELEMENT_ROWS));

// The elements that carry a text of the other party.
TEST (negotiation_text, that_cant_be_kept_is_dropped_with_one_warning)
{
  for (const ElementRow &row : {ELEMENT_ROWS[0], ELEMENT_ROWS[2], ELEMENT_ROWS[3]}) {
    for (const std::string &text :
         {std::string ("&nbsp;"), std::string ("a & b"), std::string ("&&amp;"),
          std::string ("&amp"), std::string ("&#65;"), std::string ("a\0b", 3),
          std::string ("\xFF")}) {
      ElementRow changed = row;
      std::string element = make_element (changed);
      size_t at = element.find (std::string (">") + row.content + "<");
      element.replace (at + 1, strlen (row.content), text);
      std::string console = parse (row.parser, element);
      EXPECT_TRUE (console.ends_with ("Warning: Received a text which can't be kept.\n"))
        << console;
      EXPECT_EQ (count_warnings (console), 1u) << console;
      EXPECT_EQ (count_records (), 0u) << element;
    }
  }
}

// ---- There and back ----

// A text as a user may type it: everything but a space at its front, which the wire does not keep.
static std::string
make_text (std::mt19937 *random)
{
  static const char *const PIECES[] = {"\"", "&",    "'",        "<",  ">",    "&amp;",
                                       " ",  "\n",   "\xC3\xBC", "x",  "</b>", "\xF0\x9F\x98\x80",
                                       ":",  "]]>",  "<!--",     "\t", "%s",   "%.*s",
                                       "/>", "&lt;", "="};
  std::string text = "x";
  for (u32 count = (*random) () % 40; count; --count)
    text += PIECES[(*random) () % (sizeof (PIECES) / sizeof (PIECES[0]))];
  return text;
}

// The element inside the body of a sent stanza.
static XMLElement *
get_body_element (const Parsed &parsed)
{
  XMLElement *body = get_xml_child_by_name (parsed.element, "body");
  EXPECT_TRUE (body && body->children);
  return body->children;
}

TEST (negotiation, comes_back_as_it_was_sent)
{
  std::mt19937 random (4);
  for (int i = 0; i < 40; ++i) {
    std::string text = make_text (&random);
    testing::internal::CaptureStdout ();
    for (Sender sender : {send_procedure, send_revision, send_clause_message}) {
      Session session;
      TestNegotiation negotiation (OWN, PEER, OWN, text);
      sender (&session, &negotiation);
      Parsed parsed (session.end ());
      XMLElement *element = get_body_element (parsed);
      if (sender == send_procedure) {
        parse_xmpp_procedure (get_receiving_window (), element, {});
        XMPPProcedure *message = (XMPPProcedure *) take_record (app_window_get_xmpp_procedure);
        ASSERT_TRUE (message);
        EXPECT_EQ (text_of (message->title), text);
        dealloc_xmpp_procedure (message);
      } else if (sender == send_revision) {
        parse_xmpp_clause_revision (get_receiving_window (), element, {});
        XMPPClauseRevision *message =
          (XMPPClauseRevision *) take_record (app_window_get_xmpp_clause_revision);
        ASSERT_TRUE (message);
        EXPECT_EQ (text_of (message->text), text);
        dealloc_xmpp_clause_revision (message);
      } else {
        parse_xmpp_clause_message (get_receiving_window (), element, {});
        XMPPClauseMessage *message =
          (XMPPClauseMessage *) take_record (app_window_get_xmpp_clause_message);
        ASSERT_TRUE (message);
        EXPECT_EQ (text_of (message->text), text);
        dealloc_xmpp_clause_message (message);
      }
    }
    testing::internal::GetCapturedStdout ();
  }
}
