#include "xmpp_connection.h"

#include <assert.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "app_window.h"
#include "morvane.h"
#include "network.h"
#include "receive.h"
#include "sasl.h"
#include "xml_dump.h"

XMPPThreadMessage *
alloc_thread_message (AppWindow *window, const char *text, u8 flag)
{
  XMPPThreadMessage *message =
    (XMPPThreadMessage *) alloc_xmpp_record (window, sizeof (XMPPThreadMessage));
  message->text = alloc_cstr (text);
  message->flag = flag;
  return message;
}

void
dealloc_thread_message (XMPPThreadMessage *message)
{
  dealloc_cstr (message->text);
  dealloc_xmpp_record (message);
}

// ---- Account ----

static void
report_bad_account (String bare_jid, const char *fault)
{
  console_begin_line ();
  console_put ("Error: Login account '");
  console_put (bare_jid);
  console_put (fault);
  console_end_line ();
}

XMPPAccount
alloc_xmpp_account (String bare_jid, String password, String resource)
{
  if (!bare_jid.size || !password.size || !resource.size)
    return {};
  String at = find_char (bare_jid, '@');
  String hostname = string_advance (at, 1);
  const char *fault = NULL;
  if (!at.size) {
    fault = "' is missing an '@' symbol.\n";
  } else if (at.size == bare_jid.size) {
    fault = "' is missing the username part.\n";
  } else if (!hostname.size) {
    fault = "' is missing the hostname part.\n";
  } else if (find_char (hostname, '@').size) {
    fault = "' has more than one '@' symbol.\n";
  }
  if (fault) {
    report_bad_account (bare_jid, fault);
    return {};
  }

  Buffer block = alloc (bare_jid.size + 1 + resource.size + password.size);
  Buffer block_p = buffer_append_string (block, bare_jid);
  block_p = buffer_append_char (block_p, '/');
  block_p = buffer_append_string (block_p, resource);
  block_p = buffer_append_string (block_p, password);
  assert (!block_p.size);

  XMPPAccount account = {};
  account.data = block.data;
  account.full_jid = {block.data, bare_jid.size + 1 + resource.size};
  account.bare_jid = {block.data, bare_jid.size};
  account.resource = {block.data + bare_jid.size + 1, resource.size};
  account.username = {block.data, bare_jid.size - at.size};
  account.hostname = {block.data + bare_jid.size - hostname.size, hostname.size};
  account.password = {account.resource.data + resource.size, password.size};
  return account;
}

void
dealloc_xmpp_account (XMPPAccount account)
{
  free (account.data);
}

// ---- Exchanges ----

// Once the worker is interrupted, because its window was closed or the user gave the attempt up, what
// the server answered or did not answer is nobody's fault. So each exchange looks after its wait,
// ahead of its checks, and a worker that is interrupted stays so: whoever called the exchange finds
// the same.

// The tree of an answer at the front of `buffer`, built in the room behind it.
static XMLElement *
parse_answer (Buffer buffer, String response)
{
  return parse_xml_tree (buffer_advance (buffer, response.size), response, NULL, NULL);
}

// Sends the request at the front of `buffer`, and receives the answer over it. Empty only when the
// worker is interrupted.
static String
exchange_tls_data (gnutls_session_t tls_session, Buffer buffer, String request)
{
  CONSOLE_DUMP (request);
  send_all_tls_data (tls_session, request);
  String response = receive_tls_answer (tls_session, buffer);
  if (worker_is_current_interrupted ())
    return {};
  CONSOLE_DUMP (response);
  assert (response.size);
  return response;
}

// RFC 6120, 4.7: the header that opens a stream.
static String
make_stream_header (Buffer buffer, String host)
{
  Buffer request_p = buffer_append_format (
    buffer,
    "<?xml version='1.0'?><stream:stream xmlns='jabber:client' "
    "xmlns:stream='http://etherx.jabber.org/streams' to='%.*s' version='1.0'>",
    STRING_ARGS (host));
  assert (request_p.size);
  return {buffer.data, buffer.size - request_p.size};
}

// ---- Opening a stream ----

// Guards the window's connection while the worker fills it and the interface may want to interrupt
// it. Of the threads library, so that a thread sanitizer sees it.
static pthread_mutex_t connection_mutex = PTHREAD_MUTEX_INITIALIZER;

static void
publish_connection (Connection *connection_out, const Connection *connection)
{
  pthread_mutex_lock (&connection_mutex);
  *connection_out = *connection;
  pthread_mutex_unlock (&connection_mutex);
}

// The steps behind the socket; `connection` says what each opened.
static int
open_stream (Buffer buffer, String host, gnutls_certificate_credentials_t tls_credentials,
             Connection *connection, Connection *connection_out)
{
  if (xmpp_begin_unencypted_stream (connection->socket, buffer, host))
    return -1;
  connection->opened_stream = true;
  xmpp_request_starttls (connection->socket, buffer);
  if (worker_is_current_interrupted ())
    return -1;
  int error = init_tls_session (tls_credentials, connection->socket, host, &connection->tls_session,
                                &connection->tls_hostname);
  connection->opened_tls_session = true;
  publish_connection (connection_out, connection);
  if (error)
    return -1;
  xmpp_begin_stream (connection->tls_session, buffer, host);
  return worker_is_current_interrupted () ? -1 : 0;
}

int
start_xmpp_connection (Buffer buffer, String host, const char *port,
                       gnutls_certificate_credentials_t tls_credentials, Connection *connection_out)
{
  Connection connection = {};
  Worker *worker = worker_get_current ();
  bool is_wanted = !worker || worker_begin_connecting (worker);
  int result = is_wanted ? os_connect (host, port, &connection.socket) : -1;
  if (worker && !worker_end_connecting (worker)) {
    // The worker was left behind, and its window has nothing to do with it any more.
    if (!result)
      os_close_connection (connection.socket);
    return -1;
  }
  if (!result) {
    connection.opened_socket = true;
    // Known at once, so that a window that closes can end the waits that follow.
    publish_connection (connection_out, &connection);
    bool is_interrupted = worker_is_current_interrupted ();
    result = is_interrupted
               ? -1
               : open_stream (buffer, host, tls_credentials, &connection, connection_out);
  }
  publish_connection (connection_out, &connection);
  return result;
}

int
xmpp_begin_unencypted_stream (SocketDescriptor socket, Buffer buffer, String host)
{
  String request = make_stream_header (buffer, host);
  CONSOLE_DUMP (request);
  os_send (socket, request);
  String response = receive_clear_answer (socket, buffer);
  if (worker_is_current_interrupted ())
    return -1;
  CONSOLE_DUMP (response);
  assert (response.size);
  XMLElement *xml_element = parse_answer (buffer, response);
  print_xml_tree (xml_element, 0);

  if (!xml_element || xml_element->name != "xml" || !xml_element->is_doctype) {
    console_put ("Warning: Stream doesn't have an XML DOCTYPE as it's first element.\n");
  }
  XMLElement *stream = xml_element;
  if (stream && stream->name != "stream:stream") {
    stream = get_xml_next_sibling_by_name (stream, "stream:stream");
  }
  if (!stream) {
    console_put ("Warning: No XMPP <stream:stream> found.\n");
    return -1;
  }
  XMLElement *features = get_xml_child_by_name (stream, "stream:features");
  if (!features) {
    console_put ("Warning: Stream doesn't have <stream:features>.\n");
    return -1;
  }
  if (!get_xml_child_by_name (features, "starttls")) {
    console_put ("Warning: Stream features doesn't have <starttls>.\n");
    return -1;
  }
  return 0;
}

void
xmpp_request_starttls (SocketDescriptor socket, Buffer buffer)
{
  os_send (socket, to_string ("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>"));
  String response = receive_clear_answer (socket, buffer);
  if (worker_is_current_interrupted ())
    return;
  CONSOLE_DUMP (response);
  assert (response.size);
  [[maybe_unused]] XMLElement *xml_element = parse_answer (buffer, response);
  assert (xml_element);
  assert (xml_element->name == "proceed");
  assert (xml_element->is_void);
  // Clear text behind the go-ahead would be somebody else's.
  assert (!xml_element->next);
}

bool
xmpp_begin_stream (gnutls_session_t tls_session, Buffer buffer, String host)
{
  String response = exchange_tls_data (tls_session, buffer, make_stream_header (buffer, host));
  if (!response.size)
    return false;
  XMLElement *xml_element = parse_answer (buffer, response);
  assert (xml_element);
  print_xml_tree (xml_element, 0);
  return is_stream_management_offered (xml_element);
}

// ---- Logging in ----

XMPPError
xmpp_send_auth_request (gnutls_session_t tls_session, Buffer buffer, String user, String password)
{
  // Three texts behind one another: the credentials, their base64 form, and the request.
  String plain_auth = get_plain_auth (buffer, user, password);
  Buffer base64_buffer = buffer_advance (buffer, plain_auth.size);
  String base64_auth = get_base64_string (base64_buffer, plain_auth);
  Buffer request_buffer = buffer_advance (base64_buffer, base64_auth.size);
  Buffer request_buffer_p = buffer_append_format (
    request_buffer,
    "<auth xmlns=\"urn:ietf:params:xml:ns:xmpp-sasl\" mechanism=\"PLAIN\">%.*s</auth>",
    STRING_ARGS (base64_auth));
  assert (request_buffer_p.size);

  String request = {request_buffer.data, request_buffer.size - request_buffer_p.size};
  String response = exchange_tls_data (tls_session, buffer, request);
  if (!response.size)
    return XMPP_INTERRUPTED;
  XMLElement *xml_element = parse_answer (buffer, response);
  assert (xml_element);
  print_xml_tree (xml_element, 0);
  if (xml_element->name == "success")
    return XMPP_OK;
  if (xml_element->name == "failure")
    return XMPP_FAILURE;
  return XMPP_ERROR;
}

// The JID in the one bind result that is accepted (RFC 6120, 7.6).
static String
read_bind_result (XMLElement *xml_element, [[maybe_unused]] u64 id)
{
  assert (xml_element->name == "iq");
  [[maybe_unused]] String response_id = get_xml_attribute (xml_element, "id");
  assert (response_id.size);
  assert (string_to_u64 (response_id) == id);
  assert (get_xml_attribute (xml_element, "type") == "result");
  assert (!xml_element->next);
  assert (xml_element->children);

  xml_element = xml_element->children;
  assert (xml_element->name == "bind");
  assert (get_xml_attribute (xml_element, "xmlns") == "urn:ietf:params:xml:ns:xmpp-bind");
  assert (!xml_element->next);
  assert (xml_element->children);

  xml_element = xml_element->children;
  assert (xml_element->name == "jid");
  assert (!xml_element->next);
  assert (xml_element->children);

  xml_element = xml_element->children;
  assert (xml_element->text.size);
  assert (!xml_element->next);
  assert (!xml_element->children);
  return xml_element->text;
}

// Sends the request and receives the answer over it, and what came behind that. Empty only when the
// worker is interrupted.
static String
exchange_bind_data (gnutls_session_t tls_session, Buffer buffer, String request, String *rest_out)
{
  CONSOLE_DUMP (request);
  send_all_tls_data (tls_session, request);
  String response = receive_tls_stanza (tls_session, buffer, rest_out);
  if (worker_is_current_interrupted ())
    return {};
  // Shown and judged as a part of the answer.
  if (!can_wait_for_session (*rest_out)) {
    response.size += rest_out->size;
    *rest_out = {};
  }
  CONSOLE_DUMP (response);
  assert (response.size);
  return response;
}

String
xmpp_iq_set_bind_resource (gnutls_session_t tls_session, Buffer buffer, u64 id, String resource,
                           String *rest_out)
{
  Buffer request_p = buffer_append_format (buffer, "<iq type='set' id='%lu'>", id);
  if (resource.size) {
    request_p = buffer_append_format (
      request_p, "<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'><resource>%.*s</resource></bind>",
      STRING_ARGS (resource));
  } else {
    request_p = buffer_append_cstr (request_p, "<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/>");
  }
  request_p = buffer_append_cstr (request_p, "</iq>");
  assert (request_p.size);

  String request = {buffer.data, buffer.size - request_p.size};
  String response = exchange_bind_data (tls_session, buffer, request, rest_out);
  if (!response.size)
    return {};
  Buffer memory = buffer_advance (buffer, response.size + rest_out->size);
  XMLElement *xml_element = parse_xml_tree (memory, response, NULL, NULL);
  assert (xml_element);
  print_xml_tree (xml_element, 0);
  return read_bind_result (xml_element, id);
}

void
xmpp_send_presence (gnutls_session_t tls_session, Buffer buffer, String full_jid)
{
  String request =
    make_format_string (buffer, "<presence from='%.*s'><priority>1</priority></presence>",
                        STRING_ARGS (full_jid));
  CONSOLE_DUMP (request);
  send_stanza (tls_session, request);
}

void
xmpp_send_end_stream (gnutls_session_t tls_session, Buffer)
{
  String request = to_string ("</stream:stream>");
  CONSOLE_DUMP (request);
  send_all_tls_data (tls_session, request);
}

// ---- Registering ----

XMPPError
xmpp_iq_get_register (gnutls_session_t tls_session, Buffer buffer, u64 id)
{
  Buffer request_p =
    buffer_append_format (buffer,
                          "<iq type='get' id='%lu'><query xmlns='jabber:iq:register'/></iq>", id);
  assert (request_p.size);

  String request = {buffer.data, buffer.size - request_p.size};
  String response = exchange_tls_data (tls_session, buffer, request);
  if (!response.size)
    return XMPP_INTERRUPTED;
  XMLElement *xml_element = parse_answer (buffer, response);
  assert (xml_element);
  print_xml_tree (xml_element, 0);

  assert (xml_element->name == "iq");
  [[maybe_unused]] String response_id = get_xml_attribute (xml_element, "id");
  assert (response_id.size);
  assert (string_to_u64 (response_id) == id);
  String iq_type = get_xml_attribute (xml_element, "type");
  assert (iq_type.size);
  return iq_type == "result" ? XMPP_OK : XMPP_ERROR;
}

u64
xmpp_iq_set_register (gnutls_session_t tls_session, Buffer buffer, u64 id, String user,
                      String password)
{
  Buffer buffer_p = buffer_append_format (buffer,
                                          "<iq type='set' id='%lu'><query "
                                          "xmlns='jabber:iq:register'><username>%.*s</username>"
                                          "<password>%.*s</password></query></iq>",
                                          id, STRING_ARGS (user), STRING_ARGS (password));
  assert (buffer_p.size);
  String request = {buffer.data, buffer.size - buffer_p.size};
  CONSOLE_DUMP (request);
  send_all_tls_data (tls_session, request);
  return id;
}

// ---- Workers ----

void *
end_xmpp_worker (AppWindow *window, const XMPPHandlers *handlers, GSourceFunc outcome_handler,
                 String outcome)
{
  Worker *worker = worker_get_current ();
  if (worker && worker_is_abandoned (worker))
    return 0;
  XMPPThreadMessage *message = NULL;
  if (outcome.data) {
    char *text = alloc_cstr (outcome);
    message = alloc_thread_message (window, text, 0);
    dealloc_cstr (text);
  }
  if (worker)
    worker_leave (worker);
  if (message)
    hand_over (outcome_handler, message);
  hand_over (handlers->worker_left, window);
  return 0;
}

// Takes the address that the server bound; it may have chosen another resource.
static void
adopt_full_jid (AppWindow *window, String full_jid)
{
  String bare_jid = get_bare_jid_from_full_jid (full_jid);
  assert (bare_jid.size);
  assert (bare_jid == window->account.bare_jid);
  String resource = string_advance (full_jid, bare_jid.size + 1);
  assert (resource.size);
  if (resource != window->account.resource) {
    XMPPAccount account = alloc_xmpp_account (bare_jid, window->account.password, resource);
    dealloc_xmpp_account (window->account);
    window->account = account;
    CONSOLE_DUMP (window->account.resource);
  }
}

// True when nobody has told the worker to leave before the session begins: from then on the server
// delivers, and what it delivers must be kept.
static bool
begin_presence (AppWindow *window)
{
  pthread_mutex_lock (&connection_mutex);
  bool is_wanted = !worker_is_current_interrupted ();
  window->connection.is_present = is_wanted;
  pthread_mutex_unlock (&connection_mutex);
  return is_wanted;
}

const char *
xmpp_log_in (AppWindow *window, String *kept_out)
{
  Buffer buffer = window->input_stream_buffer;
  if (start_xmpp_connection (buffer, window->account.hostname, "5222", window->tls_credentials,
                             &window->connection)) {
    return "Can't connect to server";
  }
  gnutls_session_t tls_session = window->connection.tls_session;
  if (xmpp_send_auth_request (tls_session, buffer, window->account.username,
                              window->account.password) != XMPP_OK) {
    return "Unable to authorize";
  }
  bool is_offered = xmpp_begin_stream (tls_session, buffer, window->account.hostname);
  if (worker_is_current_interrupted ())
    return XMPP_INTERRUPTED_TEXT;
  String rest;
  String full_jid = xmpp_iq_set_bind_resource (tls_session, buffer, generate_xmpp_id (window),
                                               window->account.resource, &rest);
  if (!full_jid.size)
    return XMPP_INTERRUPTED_TEXT;
  adopt_full_jid (window, full_jid);
  // The requests that follow are written over it.
  String kept = alloc_string (rest);
  stream_management_begin (&window->stream_management, window, tls_session, is_offered);
  xmpp_iq_get_roster (window);
  if (!begin_presence (window)) {
    dealloc_string (kept);
    return XMPP_INTERRUPTED_TEXT;
  }
  xmpp_send_presence (tls_session, buffer, window->account.full_jid);
  *kept_out = kept;
  return NULL;
}

// Why the server closed its stream, when an error stands in front of the closing tag. The condition
// is spelled as no server spells it (RFC 6120 has not-well-formed), and stays so.
static const char *
get_stream_end_text (XMLElement *xml)
{
  if (!xml || xml->name != "stream:error") {
    return "Server disconnected for unknown reason by closing the XMPP stream";
  }
  if (xml->children && xml->children->name == "not-well-formated") {
    return "Stream error: not-well-formated";
  }
  return "Unhandled error";
}

// The server's own words about a refused registration, still escaped.
static String
get_register_error_text (XMLElement *iq)
{
  XMLElement *xml_error = get_xml_child_by_name (iq, "error");
  // Servers may repeat the query in front of the error; without an error the first child is judged.
  if (!xml_error)
    xml_error = iq->children;
  assert (xml_error);
  assert (get_xml_attribute (xml_error, "type") == "cancel");
  XMLElement *xml_text = get_xml_child_by_name (xml_error, "text");
  assert (xml_text);
  XMLElement *xml_text_node = xml_text->children;
  String text = xml_text_node ? xml_text_node->text : String{};
  assert (text.size);
  assert (!xml_text_node->next);
  return text;
}

// How a registration ended.
struct RegisterOutcome {
  bool is_success;
  String text;  // for the page; a view, good until the next exchange
};

// False when `xml` is something else than the answer to the registration.
static bool
read_register_answer (XMLElement *xml, [[maybe_unused]] u64 set_register_iq_id,
                      RegisterOutcome *outcome_out)
{
  if (xml->name != "iq")
    return false;
  [[maybe_unused]] String response_id = get_xml_attribute (xml, "id");
  assert (response_id.size);
  assert (string_to_u64 (response_id) == set_register_iq_id);
  String iq_type = get_xml_attribute (xml, "type");
  assert (iq_type.size);
  if (iq_type == "result") {
    *outcome_out = {true, iq_type};
    return true;
  }
  if (iq_type != "error") {
    assert (!"Unhandled error");
    return false;
  }
  *outcome_out = {false, get_register_error_text (xml)};
  return true;
}

static RegisterOutcome
make_register_failure (const char *text)
{
  return {false, to_string (text)};
}

static const char SOCKET_CLOSED_TEXT[] =
  "Server disconnected for unknown reason by closing the socket";

// Reads until the outcome is known.
static RegisterOutcome
await_register_answer (AppWindow *window, u64 set_register_iq_id)
{
  const char *stream_error_text = NULL;
  Receiver receiver;
  receiver_begin (&receiver, window->connection.tls_session, window->input_stream_buffer, {});
  for (;;) {
    Received received = receive_stanzas (&receiver);
    if (worker_is_current_interrupted ())
      return make_register_failure (XMPP_INTERRUPTED_TEXT);
    String data = received.data;
    CONSOLE_DUMP (data);
    if (!data.size)
      return make_register_failure (SOCKET_CLOSED_TEXT);
    XMLElement *unopened_elements = NULL;
    XMLElement *xml = parse_xml_tree (received.memory, data, NULL, &unopened_elements);
    print_xml_tree (xml, 0);
    if (unopened_elements) {
      assert (unopened_elements->name == "stream:stream");
      assert (unopened_elements->parent == NULL);
      // The error may have come by itself, ahead of the closing tag.
      const char *text = stream_error_text && !xml ? stream_error_text : get_stream_end_text (xml);
      return make_register_failure (text);
    }
    assert (xml);
    // The server left within its answer: half of its words are not passed on.
    if (received.is_open)
      return make_register_failure (SOCKET_CLOSED_TEXT);
    if (xml->name == "stream:error")
      stream_error_text = get_stream_end_text (xml);
    assert (!xml->next);
    RegisterOutcome outcome;
    if (read_register_answer (xml, set_register_iq_id, &outcome))
      return outcome;
  }
}

static RegisterOutcome
register_account (AppWindow *window)
{
  Buffer buffer = window->input_stream_buffer;
  if (start_xmpp_connection (buffer, window->account.hostname, "5222", window->tls_credentials,
                             &window->connection)) {
    return make_register_failure ("Can't connect to server");
  }
  gnutls_session_t tls_session = window->connection.tls_session;
  if (xmpp_iq_get_register (tls_session, buffer, generate_xmpp_id (window)) != XMPP_OK)
    return make_register_failure ("Registration unavailable");
  u64 id = xmpp_iq_set_register (tls_session, buffer, generate_xmpp_id (window),
                                 window->account.username, window->account.password);
  return await_register_answer (window, id);
}

void *
start_xmpp_register_thread (void *argument)
{
  AppWindow *window = (AppWindow *) argument;
  const XMPPHandlers *handlers = window->xmpp_handlers;
  assert (!window->connection.opened_socket);
  assert (!window->connection.opened_stream);
  RegisterOutcome outcome = register_account (window);
  if (!outcome.is_success && worker_is_current_interrupted ())
    outcome = make_register_failure (XMPP_INTERRUPTED_TEXT);
  GSourceFunc handler =
    outcome.is_success ? handlers->register_success : handlers->register_failure;
  return end_xmpp_worker (window, handlers, handler, outcome.text);
}

// ---- Iqs ----

static void
parse_xmpp_iq_error (AppWindow *window, XMLElement *element)
{
  String id_attrib = get_xml_attribute (element, "id");
  if (!id_attrib.size)
    return;
  assert (string_has_only_digits (id_attrib));
  hand_over (window->xmpp_handlers->iq_error,
             alloc_xmpp_iq_error_signal (window, string_to_u64 (id_attrib)));
}

void
parse_xmpp_iq (AppWindow *window, XMLElement *element)
{
  if (get_xml_attribute (element, "type") == "error") {
    parse_xmpp_iq_error (window, element);
    return;
  }
  XMLElement *xml = element->children;
  if (!xml)
    return;
  assert (xml->next == NULL);
  String name = xml->name;
  assert (name.size);
  if (name != "vcard")
    return;

  String id_attrib = get_xml_attribute (element, "id");
  if (!id_attrib.size) {
    console_log ("Warning: Received a <iq> without and ID attribute.\n");
  } else if (!string_has_only_digits (id_attrib)) {
    console_log (
      "Warning: Received a <iq> with an ID attribute '%.*s' which contains non-digits.\n",
      STRING_ARGS (id_attrib));
  } else {
    parse_xmpp_vcard4 (window, string_to_u64 (id_attrib), get_xml_attribute (element, "from"), xml);
  }
}

// ---- Closing ----

bool
interrupt_xmpp_login (AppWindow *window)
{
  pthread_mutex_lock (&connection_mutex);
  bool is_login = !window->connection.is_present;
  if (is_login && window->worker)
    worker_interrupt (window->worker);
  pthread_mutex_unlock (&connection_mutex);
  return is_login;
}

void
end_xmpp_stream (AppWindow *window)
{
  pthread_mutex_lock (&connection_mutex);
  bool has_ended = window->connection.has_ended_stream;
  window->connection.has_ended_stream = true;
  pthread_mutex_unlock (&connection_mutex);
  // Outside of the lock: a server that takes nothing must not keep the socket from being shut down.
  if (!has_ended)
    xmpp_send_end_stream (window->connection.tls_session, {});
}

bool
has_ended_xmpp_stream (AppWindow *window)
{
  pthread_mutex_lock (&connection_mutex);
  bool has_ended = window->connection.has_ended_stream;
  pthread_mutex_unlock (&connection_mutex);
  return has_ended;
}

void
interrupt_xmpp_connection (AppWindow *window)
{
  // Held while the socket is used, so that the worker can't replace the record meanwhile.
  pthread_mutex_lock (&connection_mutex);
  if (window->connection.opened_socket)
    os_shutdown_connection (window->connection.socket);
  pthread_mutex_unlock (&connection_mutex);
}

void
xmpp_close_connection (AppWindow *window)
{
  stream_management_end (&window->stream_management);
  dealloc_xmpp_account (window->account);
  window->account = {};
  Connection *connection = &window->connection;
  connection->opened_stream = false;
  if (connection->opened_socket) {
    os_close_connection (connection->socket);
    connection->opened_socket = false;
  }
  if (connection->opened_tls_session) {
    deinit_tls_session (connection->tls_session, connection->tls_hostname);
    connection->opened_tls_session = false;
  }
  window->connection = {};
}
