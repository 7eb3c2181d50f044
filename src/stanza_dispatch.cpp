// Dispatch: messages and presences into records, elements to their parsers.
#include "stanza_dispatch.h"

#include <pthread.h>

#include "app_window.h"
#include "morvane.h"
#include "stream_management.h"
#include "worker.h"
#include "xml_dump.h"
#include "xmpp.h"
#include "xmpp_connection.h"

// ---- Parsers ----

static void
post_message_signal (AppWindow *window, String from, String text)
{
  if (!is_xml_text_unescapable (text) || !is_storable_text (text)) {
    console_put ("Warning: Received a text which can't be kept.\n");
    return;
  }
  XMPPMessageSignal *signal =
    (XMPPMessageSignal *) alloc_xmpp_record (window, sizeof (XMPPMessageSignal));
  signal->from = alloc_string (from);
  signal->text = alloc_unescape_xml_text (text);
  hand_over (window->xmpp_handlers->message, signal);
}

// RFC 6120, 8.3.2: the defined condition is an empty element beside a text.
static String
find_error_condition (XMLElement *error)
{
  for (XMLElement *child = error->children; child; child = child->next) {
    if (child->name.size && child->name != "text")
      return child->name;
  }
  return {};
}

static String
find_error_text (XMLElement *error)
{
  XMLElement *text = get_xml_child_by_name (error, "text");
  if (!text || !text->children)
    return {};
  String words = text->children->text;
  return is_xml_text_unescapable (words) && is_storable_text (words) ? words : String{};
}

static void
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): whole and part.
post_message_error_signal (AppWindow *window, XMLElement *element, XMLElement *error)
{
  XMPPMessageErrorSignal *signal =
    (XMPPMessageErrorSignal *) alloc_xmpp_record (window, sizeof (XMPPMessageErrorSignal));
  signal->from = alloc_string (get_xml_attribute (element, "from"));
  String id = get_xml_attribute (element, "id");
  if (id.size && string_has_only_digits (id))
    signal->id = string_to_u64 (id);
  signal->condition = alloc_string (find_error_condition (error));
  signal->text = alloc_unescape_xml_text (find_error_text (error));
  hand_over (window->xmpp_handlers->message_error, signal);
}

static void
parse_xmpp_body_child (AppWindow *window, XMLElement *child, String from)
{
  if (!child->name.size) {
    post_message_signal (window, from, child->text);
  } else if (!is_negotiation_author_sender (child, from)) {
    console_log ("Warning: Received a negotiation element from '%.*s' in someone else's name.\n",
                 STRING_ARGS (from));
  } else if (child->name == "x-revision") {
    parse_xmpp_clause_revision (window, child, from);
  } else if (child->name == "x-clause-message") {
    parse_xmpp_clause_message (window, child, from);
  } else if (child->name == "x-clause-decision") {
    parse_xmpp_clause_decision (window, child, from);
  } else if (child->name == "x-clause") {
    parse_xmpp_clause (window, child, from);
  } else if (child->name == "x-procedure") {
    parse_xmpp_procedure (window, child, from);
  }
}

void
parse_xmpp_message (AppWindow *window, XMLElement *element)
{
  String from = get_xml_attribute (element, "from");
  XMLElement *body = get_xml_child_by_name (element, "body");
  if (!from.size) {
    console_log ("Warning: Received a <message> without a FROM attribute.\n");
    return;
  }
  // RFC 6120, 8.3: a message that came back. What it holds are our own words, if any.
  XMLElement *error = get_xml_child_by_name (element, "error");
  if (error) {
    post_message_error_signal (window, element, error);
    return;
  }
  if (!body) {
    console_log ("Warning: Received a <message> without a BODY.\n");
    return;
  }
  if (!body->children)
    post_message_signal (window, from, {});
  for (XMLElement *child = body->children; child; child = child->next) {
    parse_xmpp_body_child (window, child, from);
  }
}

static void
post_presence_signal (AppWindow *window, GSourceFunc handler, String from)
{
  XMPPPresenceSignal *signal =
    (XMPPPresenceSignal *) alloc_xmpp_record (window, sizeof (XMPPPresenceSignal));
  signal->from = alloc_string (from);
  hand_over (handler, signal);
}

static bool
is_to_own_bare_jid (AppWindow *window, String to)
{
  return get_bare_jid_from_full_jid (to) == window->account.bare_jid;
}

// A presence without a type: someone is available, or the server echoes our own presence.
static void
parse_xmpp_available_presence (AppWindow *window, String from, String to)
{
  if (!to.size && from == window->account.full_jid) {
    post_presence_signal (window, window->xmpp_handlers->presence_confirm, from);
  } else if (!to.size) {
    console_log ("Warning: Got a <presence> without a TO attribute and with FROM attribute '%.*s', "
                 "but we are '%.*s'.\n",
                 STRING_ARGS (from), STRING_ARGS (window->account.full_jid));
  } else if (!from.size) {
    console_log ("Warning: Got a <presence> without a FROM attribute.\n");
  } else if (!is_to_own_bare_jid (window, to)) {
    // The text of the subscribed case serves here too.
    console_log ("Warning: Got <presence type='subscribed'> with a TO attribute '%.*s', but we are "
                 "'%.*s'.\n",
                 STRING_ARGS (to), STRING_ARGS (window->account.bare_jid));
  } else {
    post_presence_signal (window, window->xmpp_handlers->presence_available, from);
  }
}

// A presence whose type wants both addresses.
static void
parse_xmpp_addressed_presence (AppWindow *window, const char *type, GSourceFunc handler,
                               String from, String to)
{
  if (!from.size) {
    console_log ("Warning: Got <presence type='%s'> without a FROM attribute.\n", type);
  } else if (!to.size) {
    console_log ("Warning: Got <presence type='%s'> without a TO attribute.\n", type);
  } else if (!is_to_own_bare_jid (window, to)) {
    console_log (
      "Warning: Got <presence type='%s'> with a TO attribute '%.*s', but we are '%.*s'.\n", type,
      STRING_ARGS (to), STRING_ARGS (window->account.bare_jid));
  } else {
    post_presence_signal (window, handler, from);
  }
}

void
parse_xmpp_presence (AppWindow *window, XMLElement *element)
{
  String type = get_xml_attribute (element, "type");
  String from = get_xml_attribute (element, "from");
  String to = get_xml_attribute (element, "to");
  if (!type.size) {
    parse_xmpp_available_presence (window, from, to);
  } else if (type == "unavailable") {
    parse_xmpp_addressed_presence (window, "unavailable",
                                   window->xmpp_handlers->presence_unavailable, from, to);
  } else if (type == "subscribed") {
    parse_xmpp_addressed_presence (window, "subscribed", window->xmpp_handlers->presence_subscribed,
                                   from, to);
  } else if (type != "subscribe") {
    console_log ("Warning: Got unhandled a <presence> of TYPE '%.*s'\n", STRING_ARGS (type));
  } else if (!from.size) {
    console_log ("Warning: Got <presence type='subscribe'> without a FROM attribute.\n");
  } else {
    post_presence_signal (window, window->xmpp_handlers->presence_subscribe, from);
  }
}

// ---- Dispatch ----

// Held while a stanza becomes records, so that the interface knows where the worker stands when it
// tells it to take no more.
static pthread_mutex_t dispatch_mutex = PTHREAD_MUTEX_INITIALIZER;

void
dispatch_stanza (AppWindow *window, XMLElement *element)
{
  // RFC 6120, 11.1: a processing instruction is never a stanza, whatever its name is.
  String name = element->is_doctype ? String{} : element->name;
  bool is_message = name == "message";
  bool is_presence = name == "presence";
  if (!is_message && !is_presence && name != "iq") {
    console_put ("Warning: Received unknown XML data.\n");
    return;
  }
  stream_management_enter_stanza (&window->stream_management);
  if (is_message) {
    parse_xmpp_message (window, element);
  } else if (is_presence) {
    parse_xmpp_presence (window, element);
  } else {
    parse_xmpp_iq (window, element);
  }
  stream_management_leave_stanza (&window->stream_management);
}

static void
keep_pace ()
{
  Worker *worker = worker_get_current ();
  if (worker)
    worker_keep_pace (worker);
}

// Dispatches the siblings from `tree` on; the last one is left out when it is still open. A worker that
// is to leave takes only what the server acknowledges.
static void
dispatch_stanzas (AppWindow *window, XMLElement *tree, bool is_last_open)
{
  for (XMLElement *element = tree; element; element = element->next) {
    if (is_last_open && !element->next)
      break;
    if (!element->is_doctype && stream_management_take (&window->stream_management, element))
      continue;
    stream_management_note_error (&window->stream_management, element);
    pthread_mutex_lock (&dispatch_mutex);
    bool is_wanted = !worker_is_current_interrupted ();
    if (is_wanted)
      dispatch_stanza (window, element);
    pthread_mutex_unlock (&dispatch_mutex);
    if (is_wanted)
      keep_pace ();
  }
}

// What was passed over or refused counts for the server like any other stanza.
static void
count_lost_stanza (AppWindow *window)
{
  pthread_mutex_lock (&dispatch_mutex);
  if (!worker_is_current_interrupted ())
    stream_management_leave_stanza (&window->stream_management);
  pthread_mutex_unlock (&dispatch_mutex);
}

void
dispatch_received (AppWindow *window, Received received)
{
  for (u32 i = 0; i < received.skipped_count; i++) {
    count_lost_stanza (window);
  }
  XMLElement *tree;
  while (received_next_tree (&received, &tree)) {
    if (tree) {
      print_xml_tree (tree, 0);
      dispatch_stanzas (window, tree, received.is_last_open);
    } else if (!received.is_open && begins_with_stanza (received.text)) {
      count_lost_stanza (window);
    }
  }
}

void
stop_taking_stanzas (AppWindow *window)
{
  pthread_mutex_lock (&dispatch_mutex);
  worker_interrupt (window->worker);
  pthread_mutex_unlock (&dispatch_mutex);
}
