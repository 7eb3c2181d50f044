// The acts of a negotiation: model and store, in one order.
#include "negotiation.h"

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
  s64 index = procedures_stack_get_index (negotiation->procedures, procedure);
  if (index >= 0)
    procedures_stack_remove_procedure (negotiation->procedures, (u32) index);
  db_begin (negotiation->db);
  if (negotiation->outbox) {
    outbox_remove_procedure (negotiation->outbox, procedure);
    outbox_forget_removed (negotiation->outbox);
  }
  db_delete_procedure (negotiation->db, procedure);
  db_commit (negotiation->db);
  dealloc_procedure (procedure);
}

Clause *
negotiation_add_clause (Negotiation *negotiation, Procedure *procedure)
{
  String own = negotiation->own;
  s64 time = procedure_get_free_clause_time (procedure, own, get_posix_time ());
  u64 position = (u64) procedure->clauses_count + 1;
  Clause *clause = alloc_clause (0, procedure->db_id, time, own, position);
  db_insert_clause (negotiation->db, clause);
  procedure_add_clause (procedure, clause);
  return clause;
}

void
negotiation_delete_clause (Negotiation *negotiation, Procedure *procedure, Clause *clause)
{
  s64 index = procedure_get_clause_index_reversed (procedure, clause);
  if (index >= 0)
    procedure_remove_clause (procedure, (u32) index);
  db_begin (negotiation->db);
  db_delete_clause (negotiation->db, clause);
  db_commit (negotiation->db);
  dealloc_clause (clause);
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

ClauseRevision *
negotiation_commit (Negotiation *negotiation, Clause *clause, String text)
{
  db_begin (negotiation->db);
  negotiation_remove_draft (negotiation, clause);
  if (!clause->db_id)
    db_insert_clause (negotiation->db, clause);
  String own = negotiation->own;
  s64 time = clause_get_free_revision_time (clause, own, get_posix_time ());
  ClauseRevision *revision =
    alloc_clause_revision (0, clause->db_id, time, own, REVISION_COMMITTED, text);
  clause_add_revision (clause, revision);
  db_insert_clause_revision (negotiation->db, revision);
  // The other party knows its own clauses, and this one's after the first revision.
  if (clause->revisions_count == 1 && clause->initiator == own)
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
  ClauseRevisionDecision *decision = get_revision_decision_by_author (revision, author);
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
  ClauseMessage *message =
    alloc_clause_message (0, clause->db_id, get_posix_time (), negotiation->own_name, text);
  db_begin (negotiation->db);
  db_insert_clause_message (negotiation->db, message);
  negotiation_owe (negotiation, OUTBOX_MESSAGE, message->db_id);
  db_commit (negotiation->db);
  clause_add_message (clause, message);
  return message;
}

// ---- What arrives ----

Procedure *
negotiation_receive_procedure (Negotiation *negotiation, XMPPProcedure *record)
{
  String own = negotiation->own;
  String title = alloc_procedure_title (record->title);
  Procedure *procedure = NULL;
  if (db_can_hold_procedure (negotiation->account_db_id, record->time, record->initiator, own,
                             title)) {
    procedure =
      alloc_procedure (0, negotiation->account_db_id, record->time, title, record->initiator, own);
    db_insert_procedure (negotiation->db, procedure);
    procedures_stack_add_procedure (negotiation->procedures, procedure);
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

static Clause *
negotiation_find_clause (Procedure *procedure, String initiator, s64 time, const char *event)
{
  Clause *clause = procedure ? get_clause_by_initiator_and_time (procedure, initiator, time) : NULL;
  if (procedure && !clause)
    console_log ("Warning: A %s came, but we don't have the clause to attach it to.\n", event);
  return clause;
}

Clause *
negotiation_receive_clause (Negotiation *negotiation, XMPPClause *record, Procedure **procedure_out)
{
  Procedure *procedure = negotiation_find_procedure (negotiation, record->procedure_initiator,
                                                     record->procedure_time, "clause");
  if (!procedure)
    return NULL;
  // The position does not travel.
  Clause *clause =
    alloc_clause (0, procedure->db_id, record->clause_time, record->clause_initiator, 1);
  db_insert_clause (negotiation->db, clause);
  procedure_add_clause (procedure, clause);
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
  Clause *clause =
    negotiation_find_clause (procedure, record->clause_initiator, record->clause_time, EVENT);
  if (!clause)
    return NULL;
  ClauseRevision *revision =
    alloc_clause_revision (0, clause->db_id, record->revision_time, record->revision_author,
                           REVISION_COMMITTED, record->text);
  db_insert_clause_revision (negotiation->db, revision);
  clause_add_revision (clause, revision);
  *clause_out = clause;
  return revision;
}

ClauseMessage *
negotiation_receive_message (Negotiation *negotiation, XMPPClauseMessage *record,
                             Clause **clause_out)
{
  static const char EVENT[] = "clause message";
  Procedure *procedure = negotiation_find_procedure (negotiation, record->procedure_initiator,
                                                     record->procedure_time, EVENT);
  Clause *clause =
    negotiation_find_clause (procedure, record->clause_initiator, record->clause_time, EVENT);
  if (!clause)
    return NULL;
  ClauseMessage *message = alloc_clause_message (0, clause->db_id, record->message_time,
                                                 record->message_author, record->text);
  db_insert_clause_message (negotiation->db, message);
  clause_add_message (clause, message);
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
  Clause *clause =
    negotiation_find_clause (procedure, record->clause_initiator, record->clause_time, EVENT);
  if (!clause)
    return NULL;
  ClauseRevision *revision =
    get_clause_revision_by_author_and_time (clause, record->revision_author, record->revision_time);
  if (!revision) {
    console_log ("Warning: A %s came, but we don't have the revision to attach it to.\n", EVENT);
    return NULL;
  }
  *clause_out = clause;
  *revision_out = revision;
  // Stamped with the time of receipt, unlike revisions and messages.
  return negotiation_set_decision (negotiation, revision, record->decision_author, record->status);
}
