// Received stanzas, and stand-ins for the interface that gets their records: each checks what it
// was given as far as the records promise it, and frees it.
#include "fuzz.h"

#include <string.h>

#include "morvane.h"
#include "receive.h"
#include "stanza_dispatch.h"
#include "xml_dump.h"
#include "xml_scanner.h"

u64 fuzz_records_count;

// ---- The window ----

// Only its account and its session are read. It is no object of GLib's, whose counting is replaced.
static AppWindow fuzz_window;
static s64 window_references_count;

gpointer (g_object_ref) (gpointer object)
{
  CHECK (object == &fuzz_window);
  ++window_references_count;
  return object;
}

void
g_object_unref (gpointer object)
{
  CHECK (object == &fuzz_window);
  --window_references_count;
}

void
fuzz_check_window_references ()
{
  CHECK (window_references_count == 0);
}

// ---- Dispatch ----

// Who sent the message that is being dispatched; without data when only the target knows.
static String message_from;

// Takes the siblings to the session's own dispatch one by one, so that it is known who speaks.
static void
dispatch (AppWindow *window, XMLElement *tree, bool is_last_open)
{
  for (XMLElement *element = tree; element; element = element->next) {
    if (is_last_open && !element->next)
      break;
    message_from = get_xml_attribute (element, "from");
    dispatch_stanza (window, element);
  }
}

void
run_stanzas (String text)
{
  AppWindow *window = fuzz_get_window ();
  XMLScanner scanner = {};
  xml_scanner_feed (&scanner, text);
  bool is_open = !xml_scanner_is_complete (&scanner);

  // Text and arena share one block, as they do in a session.
  Buffer block = alloc (text.size * 200 + 1024);
  Buffer memory = buffer_append_string (block, text);
  Received received = make_received ({block.data, text.size}, is_open, memory);
  XMLElement *tree;
  while (received_next_tree (&received, &tree)) {
    if (tree) {
      print_xml_tree (tree, 0);
      dispatch (window, tree, received.is_last_open);
    }
  }
  dealloc (block);
  fuzz_check_window_references ();
}

// ---- Handlers ----

void (*fuzz_record_handler) (const FuzzRecord *record);

static void
note_record (FuzzRecord record)
{
  ++fuzz_records_count;
  if (fuzz_record_handler)
    fuzz_record_handler (&record);
}

static void
check_pair (String author, s64 time)
{
  CHECK (is_storable_jid (author));
  CHECK (time >= 0 && time <= 999999999999);
}

// Nobody speaks for someone else: `author` is the sender's account, or just the user name of it.
static void
check_sender (String author, bool may_name_user)
{
  if (!message_from.data)
    return;
  CHECK (author.size <= message_from.size);
  String rest = string_advance (message_from, author.size);
  CHECK (memcmp (author.data, message_from.data, author.size) == 0);
  bool is_user = may_name_user && rest.size && rest.data[0] == '@';
  CHECK (!rest.size || rest.data[0] == '/' || is_user);
}

static gboolean
take_message (gpointer data)
{
  XMPPMessageSignal *signal = (XMPPMessageSignal *) accept_hand_over (data);
  CHECK (signal->from.size);
  CHECK (is_storable_text (signal->text));
  note_record ({"message", signal->from, signal->text, {}, {}, {}, 0});
  dealloc_xmpp_message_signal (signal);
  return G_SOURCE_REMOVE;
}

static gboolean
take_message_error (gpointer data)
{
  XMPPMessageErrorSignal *signal = (XMPPMessageErrorSignal *) accept_hand_over (data);
  CHECK (signal->from.size);
  CHECK (is_storable_text (signal->text));
  note_record ({"error", signal->from, signal->condition, signal->text, {}, {}, signal->id});
  dealloc_xmpp_message_error_signal (signal);
  return G_SOURCE_REMOVE;
}

static gboolean
take_presence (gpointer data, const char *kind)
{
  XMPPPresenceSignal *signal = (XMPPPresenceSignal *) accept_hand_over (data);
  CHECK (signal->from.size);
  note_record ({kind, signal->from, {}, {}, {}, {}, 0});
  dealloc_xmpp_presence_available_signal (signal);
  return G_SOURCE_REMOVE;
}

static gboolean
take_presence_confirm (gpointer data)
{
  return take_presence (data, "confirm");
}

static gboolean
take_presence_available (gpointer data)
{
  return take_presence (data, "available");
}

static gboolean
take_presence_unavailable (gpointer data)
{
  return take_presence (data, "unavailable");
}

static gboolean
take_presence_subscribe (gpointer data)
{
  return take_presence (data, "subscribe");
}

static gboolean
take_presence_subscribed (gpointer data)
{
  return take_presence (data, "subscribed");
}

static gboolean
take_iq_error (gpointer data)
{
  XMPPIQErrorSignal *signal = (XMPPIQErrorSignal *) accept_hand_over (data);
  note_record ({"iq error", {}, {}, {}, {}, {}, signal->id});
  dealloc_xmpp_iq_error_signal (signal);
  return G_SOURCE_REMOVE;
}

static gboolean
take_vcard (gpointer data)
{
  VCardMessage *message = (VCardMessage *) accept_hand_over (data);
  CHECK (!message->from.data || message->from.size);
  note_record ({"vcard", message->from, {}, {}, {}, {}, message->id});
  dealloc_vcard_message (message);
  return G_SOURCE_REMOVE;
}

static gboolean
take_procedure (gpointer data)
{
  XMPPProcedure *message = (XMPPProcedure *) accept_hand_over (data);
  CHECK (message->title.size);
  CHECK (is_storable_text (message->title));
  check_pair (message->initiator, message->time);
  note_record ({"procedure", {}, message->title, {}, {message->initiator}, {message->time}, 0});
  dealloc_xmpp_procedure (message);
  return G_SOURCE_REMOVE;
}

static gboolean
take_clause (gpointer data)
{
  XMPPClause *message = (XMPPClause *) accept_hand_over (data);
  check_pair (message->procedure_initiator, message->procedure_time);
  check_pair (message->clause_initiator, message->clause_time);
  check_sender (message->clause_initiator, false);
  note_record ({"clause",
                {},
                {},
                {},
                {message->procedure_initiator, message->clause_initiator},
                {message->procedure_time, message->clause_time},
                0});
  dealloc_xmpp_clause (message);
  return G_SOURCE_REMOVE;
}

static gboolean
take_clause_revision (gpointer data)
{
  XMPPClauseRevision *message = (XMPPClauseRevision *) accept_hand_over (data);
  CHECK (is_storable_text (message->text));
  check_pair (message->procedure_initiator, message->procedure_time);
  check_pair (message->clause_initiator, message->clause_time);
  check_pair (message->revision_author, message->revision_time);
  check_sender (message->revision_author, false);
  note_record ({"revision",
                {},
                message->text,
                {},
                {message->procedure_initiator, message->clause_initiator, message->revision_author},
                {message->procedure_time, message->clause_time, message->revision_time},
                0});
  dealloc_xmpp_clause_revision (message);
  return G_SOURCE_REMOVE;
}

static gboolean
take_clause_message (gpointer data)
{
  XMPPClauseMessage *message = (XMPPClauseMessage *) accept_hand_over (data);
  CHECK (is_storable_text (message->text));
  check_pair (message->procedure_initiator, message->procedure_time);
  check_pair (message->clause_initiator, message->clause_time);
  check_pair (message->message_author, message->message_time);
  check_sender (message->message_author, true);
  note_record ({"clause message",
                {},
                message->text,
                {},
                {message->procedure_initiator, message->clause_initiator, message->message_author},
                {message->procedure_time, message->clause_time, message->message_time},
                0});
  dealloc_xmpp_clause_message (message);
  return G_SOURCE_REMOVE;
}

static gboolean
take_clause_revision_decision (gpointer data)
{
  XMPPClauseRevisionDecisionSignal *signal =
    (XMPPClauseRevisionDecisionSignal *) accept_hand_over (data);
  CHECK (signal->status == DECISION_AGREE || signal->status == DECISION_DISAGREE);
  check_pair (signal->procedure_initiator, signal->procedure_time);
  check_pair (signal->clause_initiator, signal->clause_time);
  check_pair (signal->revision_author, signal->revision_time);
  check_pair (signal->decision_author, signal->decision_time);
  check_sender (signal->decision_author, false);
  note_record (
    {"decision",
     {},
     to_string (signal->status == DECISION_AGREE ? "AGREE" : "DISAGREE"),
     {},
     {signal->procedure_initiator, signal->clause_initiator, signal->revision_author,
      signal->decision_author},
     {signal->procedure_time, signal->clause_time, signal->revision_time, signal->decision_time},
     0});
  dealloc_xmpp_clause_revision_decision_signal (signal);
  return G_SOURCE_REMOVE;
}

// ---- The table ----

// What no input starts has no handler.
static const XMPPHandlers FUZZ_HANDLERS = {
  .message = take_message,
  .message_error = take_message_error,
  .presence_confirm = take_presence_confirm,
  .presence_available = take_presence_available,
  .presence_unavailable = take_presence_unavailable,
  .presence_subscribe = take_presence_subscribe,
  .presence_subscribed = take_presence_subscribed,
  .iq_error = take_iq_error,
  .vcard = take_vcard,
  .procedure = take_procedure,
  .clause = take_clause,
  .clause_revision = take_clause_revision,
  .clause_message = take_clause_message,
  .clause_revision_decision = take_clause_revision_decision,
  .login_failure = NULL,
  .register_success = NULL,
  .register_failure = NULL,
  .login_success = NULL,
  .worker_left = NULL,
  .acknowledged = NULL,
};

AppWindow *
fuzz_get_window ()
{
  fuzz_window = {};
  fuzz_window.xmpp_handlers = &FUZZ_HANDLERS;
  fuzz_window.account.data = (u8 *) "anna@alpha.test/desk";
  fuzz_window.account.full_jid = to_string ("anna@alpha.test/desk");
  fuzz_window.account.bare_jid = to_string ("anna@alpha.test");
  fuzz_window.account.resource = to_string ("desk");
  window_references_count = 0;
  return &fuzz_window;
}
