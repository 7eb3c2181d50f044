// The acts of a negotiation: model and store, in one order.
#include "negotiation.h"

#include <assert.h>

#include "morvane.h"

// ---- What the user does ----

// In the transaction that stores the object.
static void
negotiation_owe (Negotiation *negotiation, OutboxKind kind, u64 object_db_id)
{
  if (negotiation->outbox)
    outbox_add (negotiation->outbox, kind, object_db_id);
}

Procedure *
negotiation_begin (Negotiation *negotiation, String title, String contractor)
{
  String own = negotiation->own;
  s64 time = procedures_stack_get_free_time (negotiation->procedures, own, get_posix_time ());
  // The one that can be brought back keeps its second.
  Procedure *deleted = negotiation->deletion.procedure;
  if (deleted && deleted->initiator == own && deleted->time == time)
    time = procedures_stack_get_free_time (negotiation->procedures, own, time + 1);
  Procedure *procedure =
    alloc_procedure (0, negotiation->account_db_id, time, title, own, contractor);
  db_begin (negotiation->db);
  db_insert_procedure (negotiation->db, procedure);
  negotiation_owe (negotiation, OUTBOX_PROCEDURE, procedure->db_id);
  db_commit (negotiation->db);
  procedures_stack_add_procedure (negotiation->procedures, procedure);
  return procedure;
}

void
negotiation_delete (Negotiation *negotiation, Procedure *procedure)
{
  negotiation_end_undo (negotiation);
  s64 index = procedures_stack_get_index (negotiation->procedures, procedure);
  assert (index >= 0);
  procedures_stack_remove_procedure (negotiation->procedures, (u32) index);
  db_begin (negotiation->db);
  if (negotiation->outbox)
    outbox_remove_procedure (negotiation->outbox, procedure);
  db_delete_procedure (negotiation->db, procedure);
  db_commit (negotiation->db);
  negotiation->deletion.procedure = procedure;
  negotiation->deletion.index = (u32) index;
}

static bool
is_same_procedure (Procedure *procedure, Procedure *other)
{
  return procedure->initiator == other->initiator && procedure->time == other->time;
}

// The first second from `time` on that is free beside what was deleted last, which keeps its seconds
// for the day that it is brought back.
static s64
negotiation_skip_deleted_clauses (Negotiation *negotiation, Procedure *procedure, s64 time)
{
  NegotiationDeletion *deletion = &negotiation->deletion;
  String own = negotiation->own;
  if (deletion->procedure && is_same_procedure (deletion->procedure, procedure))
    return procedure_get_free_clause_time (deletion->procedure, own, time);
  Clause *clause = deletion->clause;
  bool is_taken = clause && is_same_procedure (deletion->parent, procedure) &&
                  clause->initiator == own && clause->time == time;
  return is_taken ? time + 1 : time;
}

// A procedure that came twice stands in two rows, and the other party knows the clauses of both as
// those of one procedure: a second is free when no row has it.
static s64
negotiation_get_free_clause_time (Negotiation *negotiation, Procedure *procedure)
{
  ProceduresStack *procedures = negotiation->procedures;
  s64 time = get_posix_time ();
  s64 first_time;
  do {
    first_time = time;
    time = negotiation_skip_deleted_clauses (negotiation, procedure, time);
    for (u32 i = 0; i < procedures->count; i++) {
      if (is_same_procedure (procedures->procedures[i], procedure))
        time = procedure_get_free_clause_time (procedures->procedures[i], negotiation->own, time);
    }
  } while (time != first_time);
  return time;
}

Clause *
negotiation_add_clause (Negotiation *negotiation, Procedure *procedure)
{
  String own = negotiation->own;
  s64 time = negotiation_get_free_clause_time (negotiation, procedure);
  u64 position = (u64) procedure->clauses_count + 1;
  Clause *clause = alloc_clause (0, procedure->db_id, time, own, position);
  db_insert_clause (negotiation->db, clause);
  procedure_add_clause (procedure, clause);
  procedure_order_last_clause (procedure);
  return clause;
}

void
negotiation_delete_clause (Negotiation *negotiation, Procedure *procedure, Clause *clause)
{
  negotiation_end_undo (negotiation);
  s64 index = procedure_get_clause_index_reversed (procedure, clause);
  assert (index >= 0);
  procedure_remove_clause (procedure, (u32) index);
  db_begin (negotiation->db);
  if (negotiation->outbox)
    outbox_remove_clause (negotiation->outbox, clause);
  db_delete_clause (negotiation->db, clause);
  db_commit (negotiation->db);
  negotiation->deletion.clause = clause;
  negotiation->deletion.parent = procedure;
}

void
negotiation_end_undo (Negotiation *negotiation)
{
  NegotiationDeletion *deletion = &negotiation->deletion;
  if (negotiation->outbox && (deletion->procedure || deletion->clause))
    outbox_forget_removed (negotiation->outbox);
  if (deletion->procedure)
    dealloc_procedure (deletion->procedure);
  if (deletion->clause)
    dealloc_clause (deletion->clause);
  *deletion = {};
}

static void
negotiation_store_revision_again (Negotiation *negotiation, Clause *clause,
                                  ClauseRevision *revision)
{
  revision->clause_db_id = clause->db_id;
  db_insert_clause_revision (negotiation->db, revision);
  for (u32 i = 0; i < revision->decisions_count; i++) {
    revision->decisions[i]->clause_revision_db_id = revision->db_id;
    db_insert_clause_revision_decision (negotiation->db, revision->decisions[i]);
  }
}

static void
negotiation_store_clause_again (Negotiation *negotiation, Procedure *procedure, Clause *clause)
{
  clause->procedure_db_id = procedure->db_id;
  clause->db_id = 0;
  db_insert_clause (negotiation->db, clause);
  for (u32 i = 0; i < clause->messages_count; i++) {
    clause->messages[i]->clause_db_id = clause->db_id;
    db_insert_clause_message (negotiation->db, clause->messages[i]);
  }
  for (u32 i = 0; i < clause->revisions_count; i++) {
    negotiation_store_revision_again (negotiation, clause, clause->revisions[i]);
  }
  if (clause->draft)
    negotiation_store_revision_again (negotiation, clause, clause->draft);
}

static void
negotiation_store_procedure_again (Negotiation *negotiation, Procedure *procedure)
{
  procedure->db_id = 0;
  db_insert_procedure (negotiation->db, procedure);
  for (u32 i = 0; i < procedure->clauses_count; i++) {
    negotiation_store_clause_again (negotiation, procedure, procedure->clauses[i]);
  }
  if (negotiation->outbox)
    outbox_restore_procedure (negotiation->outbox, procedure);
}

void
negotiation_undo_delete (Negotiation *negotiation)
{
  NegotiationDeletion deletion = negotiation->deletion;
  assert (deletion.procedure || deletion.clause);
  negotiation->deletion = {};
  db_begin (negotiation->db);
  if (deletion.procedure) {
    negotiation_store_procedure_again (negotiation, deletion.procedure);
    procedures_stack_insert_procedure (negotiation->procedures, deletion.procedure, deletion.index);
  } else {
    negotiation_store_clause_again (negotiation, deletion.parent, deletion.clause);
    if (negotiation->outbox)
      outbox_restore_clause (negotiation->outbox, deletion.clause);
    procedure_add_clause (deletion.parent, deletion.clause);
    procedure_order_last_clause (deletion.parent);
  }
  db_commit (negotiation->db);
}

void
negotiation_save_draft (Negotiation *negotiation, Clause *clause, String text)
{
  ClauseRevision *draft = clause->draft;
  if (draft) {
    draft->time = get_posix_time ();
    dealloc_string (draft->text);
    draft->text = alloc_string (text);
    db_update_clause_revision_text (negotiation->db, draft);
    return;
  }
  db_begin (negotiation->db);
  if (!clause->db_id)
    db_insert_clause (negotiation->db, clause);
  clause->draft = alloc_clause_revision (0, clause->db_id, get_posix_time (), negotiation->own,
                                         REVISION_DRAFT, text);
  db_insert_clause_revision (negotiation->db, clause->draft);
  db_commit (negotiation->db);
}

// In a transaction of the caller's.
static void
negotiation_remove_draft (Negotiation *negotiation, Clause *clause)
{
  ClauseRevision *draft = clause->draft;
  if (!draft)
    return;
  if (draft->db_id)
    db_delete_clause_revision (negotiation->db, draft);
  dealloc_clause_revision (draft);
  clause->draft = NULL;
}

void
negotiation_discard_draft (Negotiation *negotiation, Clause *clause)
{
  db_begin (negotiation->db);
  negotiation_remove_draft (negotiation, clause);
  db_commit (negotiation->db);
}

// The second of the next revision. Receivers take 12 digits: where the last revision has used them
// up, the next one cannot come after it.
static s64
negotiation_get_next_revision_time (Negotiation *negotiation, Clause *clause)
{
  static const s64 TIME_MAX = 999999999999;
  s64 time = get_posix_time ();
  u32 count = clause->revisions_count;
  s64 last_time = count ? clause->revisions[count - 1]->time : time;
  if (count && last_time >= time && last_time < TIME_MAX)
    time = last_time + 1;
  return clause_get_free_revision_time (clause, negotiation->own, time);
}

// Someone who guesses the second of a clause that was never sent can put a revision into it: a count
// of revisions does not tell whether the clause was sent.
static bool
clause_has_revision_of (Clause *clause, String author)
{
  for (u32 i = 0; i < clause->revisions_count; i++) {
    if (clause->revisions[i]->author == author)
      return true;
  }
  return false;
}

ClauseRevision *
negotiation_commit (Negotiation *negotiation, Clause *clause, String text)
{
  db_begin (negotiation->db);
  negotiation_remove_draft (negotiation, clause);
  if (!clause->db_id)
    db_insert_clause (negotiation->db, clause);
  bool is_first = !clause_has_revision_of (clause, negotiation->own);
  s64 time = negotiation_get_next_revision_time (negotiation, clause);
  ClauseRevision *revision =
    alloc_clause_revision (0, clause->db_id, time, negotiation->own, REVISION_COMMITTED, text);
  clause_add_revision (clause, revision);
  clause_order_last_revision (clause);
  db_insert_clause_revision (negotiation->db, revision);
  // The other party knows its own clauses, and this one's after this one's first revision.
  if (is_first && clause->initiator == negotiation->own)
    negotiation_owe (negotiation, OUTBOX_CLAUSE, clause->db_id);
  negotiation_owe (negotiation, OUTBOX_REVISION, revision->db_id);
  db_commit (negotiation->db);
  return revision;
}

// A decision of either party. In a transaction of the caller's.
static ClauseRevisionDecision *
negotiation_set_decision (Negotiation *negotiation, ClauseRevision *revision, String author,
                          DecisionStatus status)
{
  ClauseRevisionDecision *decision = get_revision_decision_by_party (revision, author);
  if (decision) {
    decision->time = get_posix_time ();
    decision->status = status;
    db_update_clause_revision_decision_time_and_status (negotiation->db, decision);
  } else {
    decision =
      alloc_clause_revision_decision (0, revision->db_id, get_posix_time (), author, status);
    db_insert_clause_revision_decision (negotiation->db, decision);
    clause_revision_add_decision (revision, decision);
  }
  if (author == negotiation->own)
    negotiation_owe (negotiation, OUTBOX_DECISION, decision->db_id);
  return decision;
}

ClauseRevisionDecision *
negotiation_decide (Negotiation *negotiation, ClauseRevision *revision, String author,
                    DecisionStatus status)
{
  db_begin (negotiation->db);
  ClauseRevisionDecision *decision =
    negotiation_set_decision (negotiation, revision, author, status);
  db_commit (negotiation->db);
  return decision;
}

ClauseMessage *
negotiation_say (Negotiation *negotiation, Clause *clause, String text)
{
  // The lines of this chat are signed with the user name, unlike revisions and decisions.
  String author = negotiation->own_name;
  s64 time = clause_get_free_message_time (clause, author, get_posix_time ());
  ClauseMessage *message = alloc_clause_message (0, clause->db_id, time, author, text);
  db_begin (negotiation->db);
  db_insert_clause_message (negotiation->db, message);
  negotiation_owe (negotiation, OUTBOX_MESSAGE, message->db_id);
  db_commit (negotiation->db);
  clause_add_message (clause, message);
  return message;
}

// ---- What arrives ----

static bool
is_user_name_of (String name, String bare_jid)
{
  return is_same_party (name, {bare_jid.data, bare_jid.size - find_char (bare_jid, '@').size});
}

// What the account itself has made never arrives here: it is a bounce, or someone else's forgery.
static bool
negotiation_is_own (Negotiation *negotiation, String author, const char *event)
{
  bool is_own = is_same_party (author, negotiation->own);
  if (is_own)
    console_log ("Warning: A %s came in this account's own name.\n", event);
  return is_own;
}

// Whether the other party has made it; warns when not.
static bool
negotiation_may_make (Negotiation *negotiation, Procedure *procedure, String author,
                      const char *event)
{
  if (negotiation_is_own (negotiation, author, event))
    return false;
  bool is_party =
    is_same_party (author, procedure->initiator) || is_same_party (author, procedure->contractor);
  if (!is_party)
    console_log ("Warning: A %s came from someone who is no party of its procedure.\n", event);
  return is_party;
}

// Whether a party signs the lines of a clause's chat with this name; warns when not.
static bool
may_say (Procedure *procedure, String author, const char *event)
{
  String initiator = procedure->initiator;
  String contractor = procedure->contractor;
  bool is_party = is_same_party (author, initiator) || is_same_party (author, contractor) ||
                  is_user_name_of (author, initiator) || is_user_name_of (author, contractor);
  if (!is_party)
    console_log ("Warning: A %s came from someone who is no party of its procedure.\n", event);
  return is_party;
}

static void
warn_of_time (s64 time, const char *event)
{
  static const s64 DAY = (s64) 24 * 60 * 60;  // seconds
  if (time - get_posix_time () > DAY)
    console_log ("Warning: A %s came with a time more than a day ahead.\n", event);
}

static void
warn_of_repetition (const char *event)
{
  console_log ("Warning: A %s came that is here already.\n", event);
}

Procedure *
negotiation_receive_procedure (Negotiation *negotiation, XMPPProcedure *record)
{
  if (negotiation_is_own (negotiation, record->initiator, "procedure"))
    return NULL;
  String own = negotiation->own;
  String title = alloc_procedure_title (record->title);
  Procedure *procedure = NULL;
  if (db_can_hold_procedure (negotiation->account_db_id, record->time, record->initiator, own,
                             title)) {
    procedure =
      alloc_procedure (0, negotiation->account_db_id, record->time, title, record->initiator, own);
    db_insert_procedure (negotiation->db, procedure);
    procedures_stack_add_procedure (negotiation->procedures, procedure);
    warn_of_time (record->time, "procedure");
  } else {
    console_put ("Warning: Received a procedure whose title is too long to be kept.\n");
  }
  dealloc_string (title);
  return procedure;
}

// Where an event belongs; `event` names it in the warning that there is no such place.
static Procedure *
negotiation_find_procedure (Negotiation *negotiation, String initiator, s64 time, const char *event)
{
  Procedure *procedure =
    get_procedure_by_initiator_and_time (negotiation->procedures, initiator, time);
  if (!procedure)
    console_log ("Warning: A %s came, but we don't have the procedure to attach it to.\n", event);
  return procedure;
}

// In the procedure, or in another row of the same one where that came twice.
static Clause *
negotiation_get_clause (Negotiation *negotiation, Procedure *procedure, String initiator, s64 time)
{
  ProceduresStack *procedures = negotiation->procedures;
  Clause *clause = get_clause_by_initiator_and_time (procedure, initiator, time);
  for (u32 i = 0; i < procedures->count && !clause; i++) {
    if (is_same_procedure (procedures->procedures[i], procedure))
      clause = get_clause_by_initiator_and_time (procedures->procedures[i], initiator, time);
  }
  return clause;
}

static Clause *
negotiation_find_clause (Negotiation *negotiation, Procedure *procedure, String initiator, s64 time,
                         const char *event)
{
  Clause *clause =
    procedure ? negotiation_get_clause (negotiation, procedure, initiator, time) : NULL;
  if (procedure && !clause)
    console_log ("Warning: A %s came, but we don't have the clause to attach it to.\n", event);
  return clause;
}

Clause *
negotiation_receive_clause (Negotiation *negotiation, XMPPClause *record, Procedure **procedure_out)
{
  static const char EVENT[] = "clause";
  Procedure *procedure = negotiation_find_procedure (negotiation, record->procedure_initiator,
                                                     record->procedure_time, EVENT);
  if (!procedure || !negotiation_may_make (negotiation, procedure, record->clause_initiator, EVENT))
    return NULL;
  if (negotiation_get_clause (negotiation, procedure, record->clause_initiator,
                              record->clause_time)) {
    warn_of_repetition (EVENT);
    return NULL;
  }
  // The position does not travel.
  Clause *clause =
    alloc_clause (0, procedure->db_id, record->clause_time, record->clause_initiator, 1);
  db_insert_clause (negotiation->db, clause);
  procedure_add_clause (procedure, clause);
  procedure_order_last_clause (procedure);
  warn_of_time (record->clause_time, EVENT);
  *procedure_out = procedure;
  return clause;
}

ClauseRevision *
negotiation_receive_revision (Negotiation *negotiation, XMPPClauseRevision *record,
                              Clause **clause_out)
{
  static const char EVENT[] = "clause revision";
  Procedure *procedure = negotiation_find_procedure (negotiation, record->procedure_initiator,
                                                     record->procedure_time, EVENT);
  Clause *clause = negotiation_find_clause (negotiation, procedure, record->clause_initiator,
                                            record->clause_time, EVENT);
  if (!clause || !negotiation_may_make (negotiation, procedure, record->revision_author, EVENT))
    return NULL;
  if (get_clause_revision_by_author_and_time (clause, record->revision_author,
                                              record->revision_time)) {
    warn_of_repetition (EVENT);
    return NULL;
  }
  ClauseRevision *revision =
    alloc_clause_revision (0, clause->db_id, record->revision_time, record->revision_author,
                           REVISION_COMMITTED, record->text);
  db_insert_clause_revision (negotiation->db, revision);
  clause_add_revision (clause, revision);
  clause_order_last_revision (clause);
  warn_of_time (record->revision_time, EVENT);
  *clause_out = clause;
  return revision;
}

static bool
clause_has_message (Clause *clause, XMPPClauseMessage *record)
{
  for (u32 i = 0; i < clause->messages_count; i++) {
    ClauseMessage *message = clause->messages[i];
    if (message->time == record->message_time && message->author == record->message_author &&
        message->text == record->text) {
      return true;
    }
  }
  return false;
}

ClauseMessage *
negotiation_receive_message (Negotiation *negotiation, XMPPClauseMessage *record,
                             Clause **clause_out)
{
  static const char EVENT[] = "clause message";
  Procedure *procedure = negotiation_find_procedure (negotiation, record->procedure_initiator,
                                                     record->procedure_time, EVENT);
  Clause *clause = negotiation_find_clause (negotiation, procedure, record->clause_initiator,
                                            record->clause_time, EVENT);
  if (!clause || !may_say (procedure, record->message_author, EVENT))
    return NULL;
  if (clause_has_message (clause, record)) {
    warn_of_repetition (EVENT);
    return NULL;
  }
  ClauseMessage *message = alloc_clause_message (0, clause->db_id, record->message_time,
                                                 record->message_author, record->text);
  db_insert_clause_message (negotiation->db, message);
  clause_add_message (clause, message);
  warn_of_time (record->message_time, EVENT);
  *clause_out = clause;
  return message;
}

ClauseRevisionDecision *
negotiation_receive_decision (Negotiation *negotiation, XMPPClauseRevisionDecisionSignal *record,
                              Clause **clause_out, ClauseRevision **revision_out)
{
  static const char EVENT[] = "clause revision decision";
  Procedure *procedure = negotiation_find_procedure (negotiation, record->procedure_initiator,
                                                     record->procedure_time, EVENT);
  Clause *clause = negotiation_find_clause (negotiation, procedure, record->clause_initiator,
                                            record->clause_time, EVENT);
  if (!clause)
    return NULL;
  ClauseRevision *revision =
    get_clause_revision_by_author_and_time (clause, record->revision_author, record->revision_time);
  if (!revision) {
    console_log ("Warning: A %s came, but we don't have the revision to attach it to.\n", EVENT);
    return NULL;
  }
  if (!negotiation_may_make (negotiation, procedure, record->decision_author, EVENT))
    return NULL;
  *clause_out = clause;
  *revision_out = revision;
  // Stamped with the time of receipt, unlike revisions and messages.
  return negotiation_set_decision (negotiation, revision, record->decision_author, record->status);
}
