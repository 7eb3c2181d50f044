// Delivery: from the outbox to the session, and back when the session dies.
#include "delivery.h"

#include "app_window.h"
#include "clause_chat_page.h"
#include "clause_view.h"
#include "morvane.h"
#include "procedure_view.h"
#include "unsent_mark.h"

// How long the outbox's table has to be empty before it goes, in milliseconds.
static const u32 EMPTY_TABLE_TIME = 1000;
// How soon is looked again what the server's system has taken, in milliseconds.
static const u32 LOOK_TIME = 50;

// ---- Table ----

static gboolean
delivery_table_is_unused (gpointer data)
{
  AppWindow *window = (AppWindow *) data;
  window->outbox_table_source = 0;
  outbox_drop_empty_table (window->db);
  return G_SOURCE_REMOVE;
}

static bool
has_rows (Outbox *outbox)
{
  for (u32 i = 0; i < outbox->count; ++i) {
    if (outbox->entries[i].db_id)
      return true;
  }
  return false;
}

void
delivery_watch_table (AppWindow *window)
{
  if (window->outbox_table_source)
    g_source_remove (window->outbox_table_source);
  window->outbox_table_source = 0;
  if (window->outbox.db && !has_rows (&window->outbox)) {
    window->outbox_table_source =
      g_timeout_add (EMPTY_TABLE_TIME, delivery_table_is_unused, window);
  }
}

// ---- Finding objects ----

// An object with all that it stands in; fields that its kind has no use for stay NULL.
struct Parcel {
  Procedure *procedure;
  Clause *clause;
  ClauseRevision *revision;
  ClauseMessage *message;
  ClauseRevisionDecision *decision;
};

static bool
find_in_clause (Clause *clause, const OutboxEntry *entry, Parcel *parcel)
{
  u64 db_id = entry->object_db_id;
  parcel->clause = clause;
  if (entry->kind == OUTBOX_CLAUSE)
    return clause->db_id == db_id;
  for (u32 i = 0; entry->kind == OUTBOX_MESSAGE && i < clause->messages_count; ++i) {
    parcel->message = clause->messages[i];
    if (parcel->message->db_id == db_id)
      return true;
  }
  for (u32 i = 0; i < clause->revisions_count; ++i) {
    ClauseRevision *revision = clause->revisions[i];
    parcel->revision = revision;
    if (entry->kind == OUTBOX_REVISION && revision->db_id == db_id)
      return true;
    for (u32 j = 0; entry->kind == OUTBOX_DECISION && j < revision->decisions_count; ++j) {
      parcel->decision = revision->decisions[j];
      if (parcel->decision->db_id == db_id)
        return true;
    }
  }
  return false;
}

static bool
find_parcel (ProceduresStack *procedures, const OutboxEntry *entry, Parcel *parcel)
{
  for (u32 i = 0; i < procedures->count; ++i) {
    Procedure *procedure = procedures->procedures[i];
    *parcel = {};
    parcel->procedure = procedure;
    if (entry->kind == OUTBOX_PROCEDURE && procedure->db_id == entry->object_db_id)
      return true;
    for (u32 j = 0; entry->kind != OUTBOX_PROCEDURE && j < procedure->clauses_count; ++j) {
      *parcel = {};
      parcel->procedure = procedure;
      if (find_in_clause (procedure->clauses[j], entry, parcel))
        return true;
    }
  }
  return false;
}

// A row that another program has given to somebody else's object names nothing of ours.
static bool
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): their names tell.
is_own_parcel (OutboxKind kind, const Parcel *parcel, String own, String own_name)
{
  switch (kind) {
  case OUTBOX_PROCEDURE:
    return parcel->procedure->initiator == own;
  case OUTBOX_CLAUSE:
    return parcel->clause->initiator == own;
  case OUTBOX_REVISION:
    return parcel->revision->author == own;
  case OUTBOX_MESSAGE:
    return parcel->message->author == own_name;
  default:
    return parcel->decision->author == own;
  }
}

// ---- Marks ----

bool
delivery_is_unsent (AppWindow *window, OutboxKind kind, u64 object_db_id)
{
  OutboxEntry *entry = outbox_get_unsent (&window->outbox, kind, object_db_id);
  // Who asks shows the mark, and is told when that has to go.
  if (entry)
    entry->is_marked = true;
  return entry;
}

static void
show_mark (OutboxKind kind, const Parcel *parcel, bool is_unsent)
{
  if (kind == OUTBOX_PROCEDURE) {
    unsent_mark_show (GTK_WIDGET (parcel->procedure->list_item), is_unsent);
  } else if (kind == OUTBOX_CLAUSE) {
    unsent_mark_show (GTK_WIDGET (parcel->clause->view), is_unsent);
  } else if (kind == OUTBOX_MESSAGE) {
    clause_chat_page_count_unsent (parcel->clause->chat_page, is_unsent);
  } else {
    clause_view_show_unsent (parcel->clause->view, parcel->revision);
  }
}

// Brings the widgets up to date of those entries whose mark has changed.
static void
show_marks (AppWindow *window)
{
  for (u32 i = 0; i < window->outbox.count; ++i) {
    OutboxEntry *entry = &window->outbox.entries[i];
    bool is_unsent = outbox_is_unsent (entry);
    Parcel parcel = {};
    if (is_unsent != entry->is_marked && !entry->removed_object && !window->closed &&
        find_parcel (&window->procedures, entry, &parcel)) {
      entry->is_marked = is_unsent;
      show_mark (entry->kind, &parcel, is_unsent);
    }
  }
}

// ---- Sending ----

// Returns the id of the request.
static u64
send_parcel (AppWindow *window, OutboxKind kind, const Parcel *parcel)
{
  gnutls_session_t tls_session = window->connection.tls_session;
  Buffer buffer = window->output_stream_buffer;
  String from = window->account.full_jid;
  if (kind == OUTBOX_MESSAGE) {
    return xmpp_send_clause_message (window, parcel->procedure, parcel->clause, parcel->message);
  }
  if (kind == OUTBOX_DECISION) {
    return xmpp_send_clause_revision_decision (window, parcel->procedure, parcel->clause,
                                               parcel->revision, parcel->decision);
  }
  u64 id = generate_xmpp_id (window);
  if (kind == OUTBOX_PROCEDURE) {
    xmpp_send_procedure (tls_session, buffer, id, from, parcel->procedure);
  } else if (kind == OUTBOX_CLAUSE) {
    xmpp_send_clause (tls_session, buffer, id, from, parcel->procedure, parcel->clause);
  } else {
    xmpp_send_clause_revision (tls_session, buffer, id, from, parcel->procedure, parcel->clause,
                               parcel->revision);
  }
  return id;
}

// What came back goes out again ahead of what follows it in the same procedure, which the other party
// could not attach to anything without it. Returns whether anything does.
static bool
wake_refused (AppWindow *window, Procedure *procedure)
{
  bool is_woken = false;
  for (u32 i = 0; i < window->outbox.count; ++i) {
    OutboxEntry *entry = &window->outbox.entries[i];
    Parcel parcel = {};
    if (entry->state == OUTBOX_REFUSED && !entry->removed_object &&
        find_parcel (&window->procedures, entry, &parcel) && parcel.procedure == procedure) {
      entry->state = OUTBOX_WAITING;
      is_woken = true;
    }
  }
  return is_woken;
}

// The other party could attach this to nothing: it decides on a revision that is held.
static bool
is_stranded (Outbox *outbox, OutboxKind kind, const Parcel *parcel)
{
  if (kind != OUTBOX_DECISION)
    return false;
  OutboxEntry *entry = outbox_get_unsent (outbox, OUTBOX_REVISION, parcel->revision->db_id);
  return entry && entry->state == OUTBOX_HELD;
}

void
delivery_send (AppWindow *window)
{
  Outbox *outbox = &window->outbox;
  StreamManagement *counts = &window->stream_management;
  // What is committed behind our end of the stream waits for the next session.
  while (window->is_delivering && !has_ended_xmpp_stream (window)) {
    OutboxEntry *entry = outbox_get_next (outbox);
    if (!entry)
      break;
    Parcel parcel = {};
    bool is_found = find_parcel (&window->procedures, entry, &parcel);
    String own = window->account.bare_jid;
    if (!is_found || !is_own_parcel (entry->kind, &parcel, own, window->account.username)) {
      console_put ("Warning: The outbox names an object that isn't there.\n");
      outbox_drop (outbox, entry);
      continue;
    }
    if (wake_refused (window, parcel.procedure))
      continue;
    if (is_stranded (outbox, entry->kind, &parcel)) {
      outbox_hold (outbox, entry);
      continue;
    }
    u64 id = send_parcel (window, entry->kind, &parcel);
    // Also when the session broke amid it: that may be the stanza that the server refuses.
    u64 position = stream_management_get_sent_count (counts);
    outbox_note_sent (outbox, entry, position, position, id);
    if (stream_management_is_broken (counts))
      break;
  }
  delivery_update (window);
}

static gboolean
delivery_look_is_due (gpointer data)
{
  AppWindow *window = (AppWindow *) data;
  window->outbox_look_source = 0;
  delivery_update (window);
  return G_SOURCE_REMOVE;
}

static void
stop_looking (AppWindow *window)
{
  if (window->outbox_look_source)
    g_source_remove (window->outbox_look_source);
  window->outbox_look_source = 0;
}

// Without acknowledgements nothing tells when the server's system has taken what was sent.
static void
look_later (AppWindow *window)
{
  stop_looking (window);
  bool is_on_its_way = false;
  for (u32 i = 0; i < window->outbox.count; ++i)
    is_on_its_way = is_on_its_way || window->outbox.entries[i].state == OUTBOX_SENT;
  if (is_on_its_way && window->is_delivering)
    window->outbox_look_source = g_timeout_add (LOOK_TIME, delivery_look_is_due, window);
}

void
delivery_update (AppWindow *window)
{
  Outbox *outbox = &window->outbox;
  StreamManagement *counts = &window->stream_management;
  if (!outbox->db)
    return;
  if (stream_management_is_enabled (counts)) {
    outbox_note_acknowledged (outbox, stream_management_get_acknowledged_count (counts));
  } else {
    u64 taken_count = stream_management_get_taken_count (counts);
    outbox_note_taken (outbox, taken_count, stream_management_get_taken_time (counts));
    outbox_note_heard (outbox, stream_management_get_confirmed_time (counts));
    look_later (window);
  }
  show_marks (window);
  delivery_watch_table (window);
}

// ---- What comes back ----

static OutboxEntry *
find_sent (Outbox *outbox, u64 request_id)
{
  for (u32 i = 0; i < outbox->count; ++i) {
    OutboxEntry *entry = &outbox->entries[i];
    if (!outbox_is_unsent (entry) && entry->request_id == request_id)
      return entry;
  }
  return NULL;
}

// A clause is known by its first revision, which went out with it.
static UndeliveredObject
describe_parcel (OutboxKind kind, const Parcel *parcel)
{
  switch (kind) {
  case OUTBOX_PROCEDURE:
    return {parcel->procedure, "the procedure ", parcel->procedure->title};
  case OUTBOX_CLAUSE: {
    Clause *clause = parcel->clause;
    return {parcel->procedure, "the clause ",
            clause->revisions_count ? clause->revisions[0]->text : String{}};
  }
  case OUTBOX_REVISION:
    return {parcel->procedure, "the revision ", parcel->revision->text};
  case OUTBOX_MESSAGE:
    return {parcel->procedure, "the line ", parcel->message->text};
  default:
    return {parcel->procedure,
            parcel->decision->status == DECISION_AGREE ? "your agreement with "
                                                       : "your disagreement with ",
            parcel->revision->text};
  }
}

bool
delivery_note_refused (AppWindow *window, u64 request_id, String party,
                       UndeliveredObject *undelivered_out)
{
  *undelivered_out = {};
  OutboxEntry *entry = window->outbox.db ? find_sent (&window->outbox, request_id) : NULL;
  if (!entry)
    return false;
  Parcel parcel = {};
  NegotiationDeletion *deletion = &app_window_get_negotiation (window)->deletion;
  Procedure *procedure = NULL;
  // The row of a deleted object may be another's by now.
  if (entry->removed_object) {
    procedure = deletion->procedure ? deletion->procedure : deletion->parent;
  } else if (find_parcel (&window->procedures, entry, &parcel)) {
    procedure = parcel.procedure;
    *undelivered_out = describe_parcel (entry->kind, &parcel);
  }
  String own = window->account.bare_jid;
  if (!procedure || !is_same_party (procedure_get_other_party (procedure, own), party))
    return false;
  outbox_note_refused (&window->outbox, request_id);
  show_marks (window);
  delivery_watch_table (window);
  return true;
}

// ---- What the server does not take ----

static const char HELD_REASON[] =
  "the server takes no text as long as this one, which is not sent; write a shorter one";

// Told where the user wrote, like what came back.
static void
tell_held (AppWindow *window, const OutboxEntry *entry)
{
  Parcel parcel = {};
  if (window->closed || entry->removed_object || !find_parcel (&window->procedures, entry, &parcel))
    return;
  String to = procedure_get_other_party (parcel.procedure, window->account.bare_jid);
  UndeliveredObject held = describe_parcel (entry->kind, &parcel);
  procedure_view_tell_undelivered (held.procedure->view, to, held.kind, held.text,
                                   to_string (HELD_REASON));
}

// Tells again what has no newer revision in its place: the window may have closed when it was held.
static void
tell_held_revisions (AppWindow *window)
{
  for (u32 i = 0; i < window->outbox.count; ++i) {
    const OutboxEntry *entry = &window->outbox.entries[i];
    Parcel parcel = {};
    if (entry->state == OUTBOX_HELD && entry->kind == OUTBOX_REVISION &&
        find_parcel (&window->procedures, entry, &parcel) &&
        parcel.clause->revisions[parcel.clause->revisions_count - 1] == parcel.revision)
      tell_held (window, entry);
  }
}

// ---- Sessions ----

void
delivery_begin (AppWindow *window)
{
  window->outbox = outbox_load (window->db, window->account_db_id);
  window->is_delivering = true;
  tell_held_revisions (window);
  delivery_send (window);
}

void
delivery_end_session (AppWindow *window)
{
  if (!window->is_delivering)
    return;
  delivery_update (window);
  stop_looking (window);
  window->is_delivering = false;
  u64 refused_position = stream_management_get_refused_position (&window->stream_management);
  OutboxEntry *held = outbox_end_session (&window->outbox, refused_position);
  if (held) {
    console_put (
      "Warning: The server takes no stanza as large as one that was sent, which is held.\n");
    tell_held (window, held);
  }
  show_marks (window);
  delivery_watch_table (window);
}

void
delivery_end (AppWindow *window)
{
  if (!window->outbox.db)
    return;
  delivery_end_session (window);
  if (window->outbox_table_source)
    g_source_remove (window->outbox_table_source);
  window->outbox_table_source = 0;
  dealloc_outbox (&window->outbox);
  outbox_drop_empty_table (window->db);
}
