#include "xmpp.h"

#include <assert.h>
#include <stdlib.h>
#include <string.h>

#include "app_window.h"
#include "morvane.h"
#include "network.h"
#include "stream_management.h"

// ---- Ids and addresses ----

u64
generate_xmpp_id (AppWindow *window)
{
  return __atomic_add_fetch (&window->last_xmpp_id, 1, __ATOMIC_RELAXED);
}

String
get_bare_jid_from_full_jid (String jid)
{
  return {jid.data, jid.size - find_char (jid, '/').size};
}

bool
is_bare_jid (String text)
{
  String host = find_char (text, '@');
  // One byte is the "@" itself, and the first byte of the text must not be it.
  if (host.size < 2 || host.size == text.size)
    return false;
  return !find_char (string_advance (host, 1), '@').size && !find_char (text, '/').size;
}

bool
is_storable_text (String text)
{
  return g_utf8_validate_len ((const char *) text.data, text.size, NULL);
}

bool
is_storable_jid (String bare_jid)
{
  return bare_jid.size && bare_jid.size <= BARE_JID_SIZE_MAX && is_storable_text (bare_jid) &&
         !find_char (bare_jid, '\'').size;
}

// ---- Presence, roster and chat ----

// Returns whether the session took all of it.
static bool
send_request (gnutls_session_t tls_session, String request)
{
  CONSOLE_DUMP (request);
  return send_stanza (tls_session, request) == request.size;
}

// Sends what was written since `start`.
static bool
send_built_request (gnutls_session_t tls_session, Buffer start, Buffer request_p)
{
  return send_request (tls_session, {start.data, start.size - request_p.size});
}

// Sends a stanza that was formatted whole. One that fills the buffer may have been cut, and half a
// stanza must not go out.
static void
send_window_request (AppWindow *window, String request)
{
  assert (request.size < window->output_stream_buffer.size);
  send_request (window->connection.tls_session, request);
}

u64
xmpp_presence_subscribe (AppWindow *window, String to)
{
  u64 id = generate_xmpp_id (window);
  String request =
    make_format_string (window->output_stream_buffer,
                        "<presence type='subscribe' id='%lu' from='%.*s' to='%.*s'/>", id,
                        STRING_ARGS (window->account.bare_jid), STRING_ARGS (to));
  send_window_request (window, request);
  return id;
}

u64
xmpp_presence_subscribed (AppWindow *window, String to)
{
  u64 id = generate_xmpp_id (window);
  String request =
    make_format_string (window->output_stream_buffer,
                        "<presence type='subscribed' id='%lu' from='%.*s' to='%.*s'/>", id,
                        STRING_ARGS (window->account.full_jid), STRING_ARGS (to));
  send_window_request (window, request);
  return id;
}

u64
xmpp_iq_get_roster (AppWindow *window)
{
  u64 id = generate_xmpp_id (window);
  String request = make_format_string (
    window->output_stream_buffer,
    "<iq type='get' id='%lu' from='%.*s'><query xmlns='jabber:iq:roster'/></iq>", id,
    STRING_ARGS (window->account.full_jid));
  send_window_request (window, request);
  return id;
}

void
xmpp_iq_set_roster (gnutls_session_t tls_session, Buffer buffer, u64 id, String from, String jid)
{
  String request = make_format_string (buffer,
                                       "<iq type='set' id='%lu' from='%.*s'><query "
                                       "xmlns='jabber:iq:roster'><item jid='%.*s'/></query></iq>",
                                       id, STRING_ARGS (from), STRING_ARGS (jid));
  assert (request.size < buffer.size);
  send_request (tls_session, request);

  String response = recv_tls_data (tls_session, buffer);
  CONSOLE_DUMP (response);
  assert (response.size);
  XMLElement *xml_element =
    parse_xml_tree (buffer_advance (buffer, response.size), response, NULL, NULL);
  assert (xml_element);
  assert (xml_element->name == "iq");
  assert (get_xml_attribute (xml_element, "type") == "result");
  assert (get_xml_attribute (xml_element, "to") == from);
  [[maybe_unused]] String response_id = get_xml_attribute (xml_element, "id");
  assert (response_id.size);
  assert (string_to_u64 (response_id) == id);
  assert (!xml_element->children);
  assert (!xml_element->next);
}

void
xmpp_iq_get_disco1_vcard4 (AppWindow *window, String to)
{
  u64 id = generate_xmpp_id (window);
  String request =
    make_format_string (window->output_stream_buffer,
                        "<iq type='get' id='%lu' from='%.*s' to='%.*s'><query "
                        "xmlns='http://jabber.org/protocol/disco#info'/></iq>",
                        id, STRING_ARGS (window->account.full_jid), STRING_ARGS (to));
  send_window_request (window, request);
}

bool
xmpp_send_message (AppWindow *window, String to, String text)
{
  u64 id = generate_xmpp_id (window);
  Buffer buffer_p =
    buffer_append_format (window->output_stream_buffer,
                          "<message type='chat' id='%lu' from='%.*s' to='%.*s'><body>", id,
                          STRING_ARGS (window->account.full_jid), STRING_ARGS (to));
  buffer_p = buffer_append_escaped_xml (buffer_p, text);
  buffer_p = buffer_append_cstr (buffer_p, "</body></message>");
  assert (buffer_p.size);
  return send_built_request (window->connection.tls_session, window->output_stream_buffer,
                             buffer_p);
}

// ---- vCards ----

u64
xmpp_iq_get_vcard4 (AppWindow *window, String to)
{
  u64 id = generate_xmpp_id (window);
  String request =
    make_format_string (window->output_stream_buffer,
                        "<iq type='get' id='%lu' from='%.*s' to='%.*s'><vcard "
                        "xmlns='urn:ietf:params:xml:ns:vcard-4.0'/></iq>",
                        id, STRING_ARGS (window->account.full_jid), STRING_ARGS (to));
  send_window_request (window, request);
  return id;
}

u64
// cppcheck-suppress passedByValue ; handed over by value, as all plain records are
xmpp_iq_set_vcard4 (AppWindow *window, VCard vcard)
{
  u64 id = generate_xmpp_id (window);
  Buffer buffer_p =
    buffer_append_format (window->output_stream_buffer, "<iq type='set' id='%lu' from='%.*s'>", id,
                          STRING_ARGS (window->account.full_jid));
  buffer_p = buffer_append_vcard4 (buffer_p, vcard);
  buffer_p = buffer_append_cstr (buffer_p, "</iq>");
  assert (buffer_p.size);
  send_built_request (window->connection.tls_session, window->output_stream_buffer, buffer_p);
  return id;
}

// RFC 6351: a property holds its parameters and then its value. An empty value is left out.
static Buffer
buffer_append_vcard4_field (Buffer buffer, const char *opening, const char *value,
                            const char *closing)
{
  if (!value[0])
    return buffer;
  buffer = buffer_append_cstr (buffer, opening);
  buffer = buffer_append_escaped_xml (buffer, to_string (value));
  return buffer_append_cstr (buffer, closing);
}

Buffer
buffer_append_vcard4 (Buffer buffer, VCard vcard)
{
  buffer = buffer_append_cstr (buffer, "<vcard xmlns='urn:ietf:params:xml:ns:vcard-4.0'>");
  buffer = buffer_append_vcard4_field (buffer, "<fn><text>", vcard.fullname, "</text></fn>");
  buffer = buffer_append_vcard4_field (
    buffer, "<email><parameters><type><text>work</text></type></parameters><text>", vcard.email,
    "</text></email>");
  buffer = buffer_append_vcard4_field (
    buffer, "<role><parameters><type><text>work</text></type></parameters><text>", vcard.role,
    "</text></role>");
  buffer =
    buffer_append_vcard4_field (buffer,
                                "<tel><parameters><type><text>work</text></type></parameters><uri>",
                                vcard.telephone, "</uri></tel>");
  buffer = buffer_append_vcard4_field (buffer, "<url><uri>", vcard.url, "</uri></url>");
  buffer = buffer_append_vcard4_field (
    buffer, "<org><parameters><type><text>work</text></type></parameters><text>",
    vcard.organization, "</text></org>");
  buffer = buffer_append_vcard4_field (
    buffer, "<adr><parameters><type><text>work</text></type></parameters><street>",
    vcard.work_street, "</street></adr>");
  buffer = buffer_append_vcard4_field (buffer, "<key><text>", vcard.key, "</text></key>");
  return buffer_append_cstr (buffer, "</vcard>");
}

char *
alloc_get_vcard4_field_text_by_name (XMLElement *property, const char *name)
{
  XMLElement *value = get_xml_child_by_name (property, name);
  if (!value || !value->children || !value->children->text.size)
    return NULL;
  return alloc_cstr (value->children->text);
}

// Where the value of the property lies in the record, and in which element on the wire; none for a
// property that the program does not know.
static char **
find_vcard4_field (VCard *vcard, String property, const char **value_name_out)
{
  *value_name_out = "text";
  if (property == "fn")
    return &vcard->fullname;
  if (property == "role")
    return &vcard->role;
  if (property == "email")
    return &vcard->email;
  if (property == "org")
    return &vcard->organization;
  if (property == "key")
    return &vcard->key;
  *value_name_out = "uri";
  if (property == "tel")
    return &vcard->telephone;
  if (property == "url")
    return &vcard->url;
  *value_name_out = "street";
  if (property == "adr")
    return &vcard->work_street;
  return NULL;
}

void
parse_xmpp_vcard4 (AppWindow *window, u64 id, String from, XMLElement *vcard)
{
  String xmlns = get_xml_attribute (vcard, "xmlns");
  if (!xmlns.size) {
    console_put ("Warning: Received a vcard which doesn't have an xmlns attribute value.\n");
    return;
  }
  if (xmlns != "urn:ietf:params:xml:ns:vcard-4.0") {
    console_log ("Warning: Received a vcard which has an unexpected xmlns attribute: %.*s\n",
                 STRING_ARGS (xmlns));
    return;
  }

  VCardMessage *message = (VCardMessage *) alloc_xmpp_record (window, sizeof (VCardMessage));
  message->id = id;
  if (from.size)
    message->from = alloc_string (from);
  for (XMLElement *property = vcard->children; property; property = property->next) {
    String field_name = property->name;
    assert (field_name.size);
    const char *value_name;
    char **field = find_vcard4_field (&message->vcard, field_name, &value_name);
    if (field) {
      dealloc_cstr (*field);
      *field = alloc_get_vcard4_field_text_by_name (property, value_name);
    }
  }
  hand_over (window->xmpp_handlers->vcard, message);
}

// ---- Negotiation: sending ----

void
xmpp_send_procedure (gnutls_session_t tls_session, Buffer buffer, u64 id, String from,
                     Procedure *procedure)
{
  assert (get_bare_jid_from_full_jid (from) == procedure->initiator);
  Buffer request_p =
    buffer_append_format (buffer, "<message type='chat' id='%lu' from='%.*s' to='%.*s'><body>", id,
                          STRING_ARGS (from), STRING_ARGS (procedure->contractor));
  request_p = buffer_append_format (request_p, "<x-procedure procedure='%.*s:%ld'>",
                                    STRING_ARGS (procedure->initiator), procedure->time);
  request_p = buffer_append_escaped_xml (request_p, procedure->title);
  request_p = buffer_append_cstr (request_p, "</x-procedure></body></message>");
  assert (request_p.size);
  send_built_request (tls_session, buffer, request_p);
}

void
xmpp_send_clause (gnutls_session_t tls_session, Buffer buffer, u64 id, String from,
                  Procedure *procedure, Clause *clause)
{
  assert (get_bare_jid_from_full_jid (from) == clause->initiator);
  String to = procedure_get_other_party (procedure, clause->initiator);
  Buffer request_p =
    buffer_append_format (buffer,
                          "<message type='chat' id='%lu' from='%.*s' to='%.*s'><body>"
                          "<x-clause procedure='%.*s:%ld' clause='%.*s:%ld'>",
                          id, STRING_ARGS (from), STRING_ARGS (to),
                          STRING_ARGS (procedure->initiator), procedure->time,
                          STRING_ARGS (clause->initiator), clause->time);
  request_p = buffer_append_cstr (request_p, "</x-clause></body></message>");
  assert (request_p.size);
  send_built_request (tls_session, buffer, request_p);
}

void
xmpp_send_clause_revision (gnutls_session_t tls_session, Buffer buffer, u64 id, String from,
                           Procedure *procedure, Clause *clause, ClauseRevision *revision)
{
  assert (get_bare_jid_from_full_jid (from) == revision->author);
  String to = procedure_get_other_party (procedure, revision->author);
  Buffer request_p =
    buffer_append_format (buffer,
                          "<message type='chat' id='%lu' from='%.*s' to='%.*s'><body>"
                          "<x-revision procedure='%.*s:%ld' clause='%.*s:%ld' revision='%.*s:%ld'>",
                          id, STRING_ARGS (from), STRING_ARGS (to),
                          STRING_ARGS (procedure->initiator), procedure->time,
                          STRING_ARGS (clause->initiator), clause->time,
                          STRING_ARGS (revision->author), revision->time);
  request_p = buffer_append_escaped_xml (request_p, revision->text);
  request_p = buffer_append_cstr (request_p, "</x-revision></body></message>");
  assert (request_p.size);
  send_built_request (tls_session, buffer, request_p);
}

u64
xmpp_send_clause_message (AppWindow *window, Procedure *procedure, Clause *clause,
                          ClauseMessage *message)
{
  u64 id = generate_xmpp_id (window);
  String to = procedure_get_other_party (procedure, window->account.bare_jid);
  Buffer buffer_p = buffer_append_format (
    window->output_stream_buffer,
    "<message type='chat' id='%lu' from='%.*s' to='%.*s'><body>"
    "<x-clause-message procedure='%.*s:%ld' clause='%.*s:%ld' message='%.*s:%ld'>",
    id, STRING_ARGS (window->account.full_jid), STRING_ARGS (to),
    STRING_ARGS (procedure->initiator), procedure->time, STRING_ARGS (clause->initiator),
    clause->time, STRING_ARGS (message->author), message->time);
  buffer_p = buffer_append_escaped_xml (buffer_p, message->text);
  buffer_p = buffer_append_cstr (buffer_p, "</x-clause-message></body></message>");
  assert (buffer_p.size);
  send_built_request (window->connection.tls_session, window->output_stream_buffer, buffer_p);
  return id;
}

u64
xmpp_send_clause_revision_decision (AppWindow *window, Procedure *procedure, Clause *clause,
                                    ClauseRevision *revision, ClauseRevisionDecision *decision)
{
  u64 id = generate_xmpp_id (window);
  String to = procedure_get_other_party (procedure, window->account.bare_jid);
  String request = make_format_string (
    window->output_stream_buffer,
    "<message type='chat' id='%lu' from='%.*s' to='%.*s'><body>"
    "<x-clause-decision procedure='%.*s:%ld' clause='%.*s:%ld' revision='%.*s:%ld' "
    "decision='%.*s:%ld'>%s</x-clause-decision></body></message>",
    id, STRING_ARGS (window->account.full_jid), STRING_ARGS (to),
    STRING_ARGS (procedure->initiator), procedure->time, STRING_ARGS (clause->initiator),
    clause->time, STRING_ARGS (revision->author), revision->time, STRING_ARGS (decision->author),
    decision->time, DECISION_STATUS_STRINGS[decision->status]);
  send_window_request (window, request);
  return id;
}

// ---- Negotiation: receiving ----

// One "author:time" attribute, split; views over the attribute.
struct WirePair {
  String author;
  String time;
};

// Defines the reader of one pair attribute and the reader of its time. The first colon divides, the
// author is dumped, and the assertions name the attribute that broke them: the format is held to by
// stopping the program. `time_reader` is called after all pairs of an element were split.
// NOLINTBEGIN(bugprone-macro-parentheses): they would stand in the assertions' texts.
#define DEFINE_PAIR_READER(attribute, attrib, divider, author_name, time_name)                     \
  static WirePair split_##attribute##_pair (XMLElement *element)                                   \
  {                                                                                                \
    String attrib = get_xml_attribute (element, #attribute);                                       \
    String divider = find_char (attrib, ':');                                                      \
    assert (divider.size);                                                                         \
    assert (divider.size != attrib.size);                                                          \
    assert (divider.size != 1);                                                                    \
    String author_name = {attrib.data, attrib.size - divider.size};                                \
    CONSOLE_DUMP (author_name);                                                                    \
    return {author_name, string_advance (divider, 1)};                                             \
  }                                                                                                \
  static s64 read_##attribute##_time (WirePair pair)                                               \
  {                                                                                                \
    String time_name = pair.time;                                                                  \
    assert (string_has_only_digits (time_name));                                                   \
    return string_to_s64 (time_name);                                                              \
  }
// NOLINTEND(bugprone-macro-parentheses)

DEFINE_PAIR_READER (procedure, procedure, procedure_divider, procedure_initiator, procedure_time)
DEFINE_PAIR_READER (clause, clause, clause_divider, clause_initiator, clause_time)
DEFINE_PAIR_READER (revision, revision, revision_divider, revision_author, revision_time)
DEFINE_PAIR_READER (message, message_attrib, message_divider, message_author, message_time)
DEFINE_PAIR_READER (decision, decision, decision_divider, decision_author, decision_time)

// Which pairs each kind of element has, its author's last. A procedure is not among them: anyone may
// pass one on.
struct ElementPairs {
  const char *element_name;
  const char *pair_names[4];
  bool may_name_user;  // the author may be a user name without its host
};
static const ElementPairs ELEMENT_PAIRS[] = {
  {"x-clause", {"procedure", "clause"}, false},
  {"x-revision", {"procedure", "clause", "revision"}, false},
  {"x-clause-message", {"procedure", "clause", "message"}, true},
  {"x-clause-decision", {"procedure", "clause", "revision", "decision"}, false},
};

static const ElementPairs *
find_element_pairs (String element_name)
{
  for (const ElementPairs &pairs : ELEMENT_PAIRS) {
    if (element_name == pairs.element_name)
      return &pairs;
  }
  return NULL;
}

// The author of a pair; empty when the pair is one that stops its reader.
static String
find_pair_author (String pair)
{
  String divider = find_char (pair, ':');
  if (divider.size < 2 || !string_has_only_digits (string_advance (divider, 1)))
    return {};
  return {pair.data, pair.size - divider.size};
}

bool
is_negotiation_author_sender (XMLElement *element, String from)
{
  const ElementPairs *pairs = find_element_pairs (element->name);
  if (!pairs)
    return true;
  String author = {};
  for (u32 i = 0; i < G_N_ELEMENTS (pairs->pair_names) && pairs->pair_names[i]; ++i) {
    author = find_pair_author (get_xml_attribute (element, pairs->pair_names[i]));
    if (!author.size)
      return true;
  }
  String sender = get_bare_jid_from_full_jid (from);
  if (author == sender)
    return true;
  String host = find_char (sender, '@');
  String user = {sender.data, sender.size - host.size};
  return pairs->may_name_user && host.size && author == user;
}

// Whether what a pair names can be kept; a warning when not. A time of more than 12 digits is no
// second that anyone lives to see.
static bool
check_pair (WirePair pair)
{
  if (is_storable_jid (pair.author) && pair.time.size <= 12)
    return true;
  console_put ("Warning: Received a negotiation element whose author or time can't be kept.\n");
  return false;
}

// Whether an escaped text of the other party can be resolved and kept; a warning when not.
static bool
check_text (String text)
{
  if (is_xml_text_unescapable (text) && is_storable_text (text))
    return true;
  console_put ("Warning: Received a text which can't be kept.\n");
  return false;
}

// The element's text, still escaped: that of its first child. Empty, with one of the two warnings,
// when it has no child or an element as its first.
static String
get_content (XMLElement *element, const char *void_warning, const char *no_text_warning)
{
  if (!element->children) {
    console_put (void_warning);
    return {};
  }
  if (!element->children->text.size)
    console_put (no_text_warning);
  return element->children->text;
}

void
parse_xmpp_procedure (AppWindow *window, XMLElement *element, String)
{
  String title = get_content (element, "Warning: Received a void procedure.\n",
                              "Warning: Received a procedure without a title.\n");
  if (!title.size)
    return;
  WirePair procedure = split_procedure_pair (element);
  s64 procedure_time = read_procedure_time (procedure);
  if (!check_pair (procedure) || !check_text (title))
    return;

  XMPPProcedure *message = (XMPPProcedure *) alloc_xmpp_record (window, sizeof (XMPPProcedure));
  message->title = alloc_unescape_xml_text (title);
  message->initiator = alloc_string (procedure.author);
  message->time = procedure_time;
  hand_over (window->xmpp_handlers->procedure, message);
}

void
parse_xmpp_clause (AppWindow *window, XMLElement *element, String)
{
  WirePair procedure = split_procedure_pair (element);
  WirePair clause = split_clause_pair (element);
  s64 procedure_time = read_procedure_time (procedure);
  s64 clause_time = read_clause_time (clause);
  if (!check_pair (procedure) || !check_pair (clause))
    return;

  XMPPClause *message = (XMPPClause *) alloc_xmpp_record (window, sizeof (XMPPClause));
  message->procedure_initiator = alloc_string (procedure.author);
  message->clause_initiator = alloc_string (clause.author);
  message->procedure_time = procedure_time;
  message->clause_time = clause_time;
  hand_over (window->xmpp_handlers->clause, message);
}

void
parse_xmpp_clause_revision (AppWindow *window, XMLElement *element, String)
{
  String text = get_content (element, "Warning: Received a void clause revision.\n",
                             "Warning: Received a clause revision with no text.\n");
  WirePair procedure = split_procedure_pair (element);
  WirePair clause = split_clause_pair (element);
  WirePair revision = split_revision_pair (element);
  s64 procedure_time = read_procedure_time (procedure);
  s64 clause_time = read_clause_time (clause);
  s64 revision_time = read_revision_time (revision);
  if (!check_pair (procedure) || !check_pair (clause) || !check_pair (revision) ||
      !check_text (text)) {
    return;
  }

  XMPPClauseRevision *message =
    (XMPPClauseRevision *) alloc_xmpp_record (window, sizeof (XMPPClauseRevision));
  message->text = alloc_unescape_xml_text (text);
  message->procedure_initiator = alloc_string (procedure.author);
  message->clause_initiator = alloc_string (clause.author);
  message->revision_author = alloc_string (revision.author);
  message->procedure_time = procedure_time;
  message->clause_time = clause_time;
  message->revision_time = revision_time;
  hand_over (window->xmpp_handlers->clause_revision, message);
}

void
parse_xmpp_clause_message (AppWindow *window, XMLElement *element, String)
{
  String text = get_content (element, "Warning: Received a void clause message.\n",
                             "Warning: Received a clause message with no text.\n");
  WirePair procedure = split_procedure_pair (element);
  WirePair clause = split_clause_pair (element);
  WirePair message_pair = split_message_pair (element);
  s64 procedure_time = read_procedure_time (procedure);
  s64 clause_time = read_clause_time (clause);
  s64 message_time = read_message_time (message_pair);
  if (!check_pair (procedure) || !check_pair (clause) || !check_pair (message_pair) ||
      !check_text (text)) {
    return;
  }

  XMPPClauseMessage *message =
    (XMPPClauseMessage *) alloc_xmpp_record (window, sizeof (XMPPClauseMessage));
  message->text = alloc_unescape_xml_text (text);
  message->procedure_initiator = alloc_string (procedure.author);
  message->clause_initiator = alloc_string (clause.author);
  message->message_author = alloc_string (message_pair.author);
  message->procedure_time = procedure_time;
  message->clause_time = clause_time;
  message->message_time = message_time;
  hand_over (window->xmpp_handlers->clause_message, message);
}

void
parse_xmpp_clause_decision (AppWindow *window, XMLElement *element, String)
{
  String text = get_content (element, "Warning: Received a void clause decision.\n",
                             "Warning: Received a clause decision not text.\n");
  if (!text.size)
    return;
  DecisionStatus status = string_to_decision_status (text);
  if (status == DECISION_INVALID) {
    console_log ("Warning: Received an invalid clause decision '%.*s'\n", STRING_ARGS (text));
    return;
  }
  WirePair procedure = split_procedure_pair (element);
  WirePair clause = split_clause_pair (element);
  WirePair revision = split_revision_pair (element);
  WirePair decision = split_decision_pair (element);
  s64 procedure_time = read_procedure_time (procedure);
  s64 clause_time = read_clause_time (clause);
  s64 revision_time = read_revision_time (revision);
  s64 decision_time = read_decision_time (decision);
  if (!check_pair (procedure) || !check_pair (clause) || !check_pair (revision) ||
      !check_pair (decision)) {
    return;
  }

  XMPPClauseRevisionDecisionSignal *signal = (XMPPClauseRevisionDecisionSignal *)
    alloc_xmpp_record (window, sizeof (XMPPClauseRevisionDecisionSignal));
  signal->status = status;
  signal->procedure_initiator = alloc_string (procedure.author);
  signal->clause_initiator = alloc_string (clause.author);
  signal->revision_author = alloc_string (revision.author);
  signal->decision_author = alloc_string (decision.author);
  signal->procedure_time = procedure_time;
  signal->clause_time = clause_time;
  signal->revision_time = revision_time;
  signal->decision_time = decision_time;
  hand_over (window->xmpp_handlers->clause_revision_decision, signal);
}
