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
// How many objects are searched for before all are put into tables.
static const u32 SEARCHES_MAX = 8;
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

// Is shown one object after the other; what it returns ends the walk when it is true.
typedef bool ParcelVisitor (OutboxKind kind, u64 db_id, const Parcel *parcel, void *data);

static bool
visit_revision (Parcel parcel, ParcelVisitor *visitor, void *data)
{
  bool is_over = visitor (OUTBOX_REVISION, parcel.revision->db_id, &parcel, data);
  for (u32 i = 0; !is_over && i < parcel.revision->decisions_count; ++i) {
    parcel.decision = parcel.revision->decisions[i];
    is_over = visitor (OUTBOX_DECISION, parcel.decision->db_id, &parcel, data);
  }
  return is_over;
}

static bool
visit_clause (Parcel parcel, ParcelVisitor *visitor, void *data)
{
  bool is_over = visitor (OUTBOX_CLAUSE, parcel.clause->db_id, &parcel, data);
  for (u32 i = 0; !is_over && i < parcel.clause->revisions_count; ++i) {
    parcel.revision = parcel.clause->revisions[i];
    is_over = visit_revision (parcel, visitor, data);
  }
  parcel.revision = NULL;
  for (u32 i = 0; !is_over && i < parcel.clause->messages_count; ++i) {
    parcel.message = parcel.clause->messages[i];
    is_over = visitor (OUTBOX_MESSAGE, parcel.message->db_id, &parcel, data);
  }
  return is_over;
}

static void
visit_parcels (ProceduresStack *procedures, ParcelVisitor *visitor, void *data)
{
  bool is_over = false;
  for (u32 i = 0; !is_over && i < procedures->count; ++i) {
    Parcel parcel = {};
    parcel.procedure = procedures->procedures[i];
    is_over = visitor (OUTBOX_PROCEDURE, parcel.procedure->db_id, &parcel, data);
    for (u32 j = 0; !is_over && j < parcel.procedure->clauses_count; ++j) {
      parcel.clause = parcel.procedure->clauses[j];
      is_over = visit_clause (parcel, visitor, data);
    }
  }
}

struct ParcelSearch {
  const OutboxEntry *entry;
  Parcel *parcel;
  bool is_found;
};

static bool
compare_parcel (OutboxKind kind, u64 db_id, const Parcel *parcel, void *data)
{
  ParcelSearch *search = (ParcelSearch *) data;
  search->is_found = kind == search->entry->kind && db_id == search->entry->object_db_id;
  if (search->is_found)
    *search->parcel = *parcel;
  return search->is_found;
}

static bool
find_parcel (ProceduresStack *procedures, const OutboxEntry *entry, Parcel *parcel)
{
  ParcelSearch search = {entry, parcel, false};
  visit_parcels (procedures, compare_parcel, &search);
  return search.is_found;
}

// For looking up many objects: the first few are searched for one by one, and then all are put into
// tables by their rows. Zeroed but for the procedures; good until the model changes.
struct ParcelIndex {
  ProceduresStack *procedures;  // borrowed
  u32 asked_count;
  GHashTable *parcels[OUTBOX_KINDS_COUNT];  // NULL before they are needed
};

static bool
index_parcel (OutboxKind kind, u64 db_id, const Parcel *parcel, void *data)
{
  ParcelIndex *index = (ParcelIndex *) data;
  g_hash_table_insert (index->parcels[kind], GSIZE_TO_POINTER (db_id),
                       g_memdup2 (parcel, sizeof (*parcel)));
  return false;
}

static bool
find_parcel (ParcelIndex *index, const OutboxEntry *entry, Parcel *parcel)
{
  if (index->asked_count < SEARCHES_MAX) {
    index->asked_count++;
    return find_parcel (index->procedures, entry, parcel);
  }
  if (!index->parcels[0]) {
    for (u32 kind = 0; kind < OUTBOX_KINDS_COUNT; ++kind)
      index->parcels[kind] = g_hash_table_new_full (NULL, NULL, NULL, g_free);
    visit_parcels (index->procedures, index_parcel, index);
  }
  Parcel *found = (Parcel *) g_hash_table_lookup (index->parcels[entry->kind],
                                                  GSIZE_TO_POINTER (entry->object_db_id));
  if (found)
    *parcel = *found;
  return found;
}

static void
dealloc_parcel_index (ParcelIndex *index)
{
  for (u32 kind = 0; kind < OUTBOX_KINDS_COUNT; ++kind)
    g_clear_pointer (&index->parcels[kind], g_hash_table_unref);
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

// Whether the entry's widgets say something else than they should, and can be told.
static bool
has_old_mark (AppWindow *window, const OutboxEntry *entry)
{
  return outbox_is_unsent (entry) != entry->is_marked && !entry->removed_object && !window->closed;
}

// Brings the widgets up to date of those entries whose mark has changed.
static void
show_marks (AppWindow *window)
{
  ParcelIndex index = {};
  index.procedures = &window->procedures;
  for (u32 i = 0; i < window->outbox.count; ++i) {
    OutboxEntry *entry = &window->outbox.entries[i];
    Parcel parcel = {};
    if (has_old_mark (window, entry) && find_parcel (&index, entry, &parcel)) {
      entry->is_marked = !entry->is_marked;
      show_mark (entry->kind, &parcel, entry->is_marked);
    }
  }
  dealloc_parcel_index (&index);
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

static bool
has_refused (Outbox *outbox)
{
  for (u32 i = 0; i < outbox->count; ++i) {
    if (outbox->entries[i].state == OUTBOX_REFUSED)
      return true;
  }
  return false;
}

// What came back goes out again ahead of what follows it in the same procedure, which the other party
// could not attach to anything without it. Returns whether anything does.
static bool
wake_refused (Outbox *outbox, ParcelIndex *index, Procedure *procedure)
{
  bool is_woken = false;
  for (u32 i = 0; i < outbox->count; ++i) {
    OutboxEntry *entry = &outbox->entries[i];
    Parcel parcel = {};
    if (entry->state == OUTBOX_REFUSED && !entry->removed_object &&
        find_parcel (index, entry, &parcel) && parcel.procedure == procedure) {
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

// A walk over what waits. Nothing comes back and nothing is committed while it lasts.
struct SendWalk {
  ParcelIndex index;
  u32 first;      // nothing ahead of this entry waits
  bool may_wake;  // something that came back may belong to what waits
};

// False when nothing waits any more, or the session takes no more.
static bool
send_next (AppWindow *window, SendWalk *walk)
{
  Outbox *outbox = &window->outbox;
  StreamManagement *counts = &window->stream_management;
  OutboxEntry *entry = outbox_get_next (outbox, walk->first);
  if (!entry)
    return false;
  walk->first = (u32) (entry - outbox->entries);
  Parcel parcel = {};
  bool is_found = find_parcel (&walk->index, entry, &parcel);
  if (!is_found ||
      !is_own_parcel (entry->kind, &parcel, window->account.bare_jid, window->account.username)) {
    console_put ("Warning: The outbox names an object that isn't there.\n");
    outbox_drop (outbox, entry);
    return true;
  }
  if (walk->may_wake && wake_refused (outbox, &walk->index, parcel.procedure)) {
    walk->first = 0;
    walk->may_wake = has_refused (outbox);
    return true;
  }
  if (is_stranded (outbox, entry->kind, &parcel)) {
    outbox_hold (outbox, entry);
    return true;
  }
  u64 id = send_parcel (window, entry->kind, &parcel);
  // Also when the session broke amid it: that may be the stanza that the server refuses.
  u64 position = stream_management_get_sent_count (counts);
  outbox_note_sent (outbox, entry, position, position, id);
  return !stream_management_is_broken (counts);
}

void
delivery_send (AppWindow *window)
{
  if (window->is_delivering && outbox_get_next (&window->outbox)) {
    SendWalk walk = {};
    walk.index.procedures = &window->procedures;
    walk.may_wake = has_refused (&window->outbox);
    // What is committed behind our end of the stream waits for the next session.
    while (!has_ended_xmpp_stream (window) && send_next (window, &walk))
      continue;
    dealloc_parcel_index (&walk.index);
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
