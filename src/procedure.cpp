// The model of a negotiation: records, growable arrays, lookups by what the other party knows.
#include "procedure.h"

#include <assert.h>
#include <stdlib.h>
#include <string.h>

#include <glib.h>

static const u32 DECISIONS_INITIAL_MAX = 32;
static const u32 MESSAGES_INITIAL_MAX = 32;
static const u32 REVISIONS_INITIAL_MAX = 32;
static const u32 CLAUSES_INITIAL_MAX = 64;
static const u32 PROCEDURES_INITIAL_MAX = 64;

const char *const REVISION_STATUS_STRINGS[3] = {"INVALID", "COMMITTED", "DRAFT"};
const char *const DECISION_STATUS_STRINGS[3] = {"INVALID", "AGREE", "DISAGREE"};

// ---- Statuses ----

RevisionStatus
cstr_to_revision_status (const char *text)
{
  if (!strcmp (text, REVISION_STATUS_STRINGS[REVISION_COMMITTED])) {
    return REVISION_COMMITTED;
  }
  if (!strcmp (text, REVISION_STATUS_STRINGS[REVISION_DRAFT])) {
    return REVISION_DRAFT;
  }
  return REVISION_INVALID;
}

DecisionStatus
string_to_decision_status (String text)
{
  if (text == DECISION_STATUS_STRINGS[DECISION_AGREE]) {
    return DECISION_AGREE;
  }
  if (text == DECISION_STATUS_STRINGS[DECISION_DISAGREE]) {
    return DECISION_DISAGREE;
  }
  return DECISION_INVALID;
}

DecisionStatus
cstr_to_decision_status (const char *text)
{
  return string_to_decision_status (to_string (text));
}

// ---- Records ----

ClauseMessage *
alloc_clause_message (u64 db_id, u64 clause_db_id, s64 time, String author, String text)
{
  ClauseMessage *message = (ClauseMessage *) malloc (sizeof (*message));
  message->db_id = db_id;
  message->clause_db_id = clause_db_id;
  message->time = time;
  message->author = alloc_string (author);
  message->text = alloc_string (text);
  return message;
}

void
dealloc_clause_message (ClauseMessage *message)
{
  dealloc_string (message->author);
  dealloc_string (message->text);
  free (message);
}

ClauseRevisionDecision *
alloc_clause_revision_decision (u64 db_id, u64 clause_revision_db_id, s64 time, String author,
                                DecisionStatus status)
{
  ClauseRevisionDecision *decision = (ClauseRevisionDecision *) malloc (sizeof (*decision));
  decision->db_id = db_id;
  decision->clause_revision_db_id = clause_revision_db_id;
  decision->time = time;
  decision->author = alloc_string (author);
  decision->status = status;
  return decision;
}

void
dealloc_clause_revision_decision (ClauseRevisionDecision *decision)
{
  dealloc_string (decision->author);
  free (decision);
}

ClauseRevision *
alloc_clause_revision (u64 db_id, u64 clause_db_id, s64 time, String author, RevisionStatus status,
                       String text)
{
  ClauseRevision *revision = (ClauseRevision *) malloc (sizeof (*revision));
  revision->db_id = db_id;
  revision->clause_db_id = clause_db_id;
  revision->time = time;
  revision->author = alloc_string (author);
  revision->status = status;
  revision->text = alloc_string (text);
  revision->decisions_max = DECISIONS_INITIAL_MAX;
  revision->decisions_count = 0;
  revision->decisions =
    (ClauseRevisionDecision **) realloc_pointers (NULL, revision->decisions_max);
  return revision;
}

void
dealloc_clause_revision (ClauseRevision *revision)
{
  dealloc_string (revision->author);
  dealloc_string (revision->text);
  for (u32 i = 0; i < revision->decisions_count; ++i) {
    dealloc_clause_revision_decision (revision->decisions[i]);
  }
  free (revision->decisions);
  free (revision);
}

Clause *
alloc_clause (u64 db_id, u64 procedure_db_id, s64 time, String initiator, u64 position)
{
  Clause *clause = (Clause *) malloc (sizeof (*clause));
  clause->view = NULL;
  clause->chat_page = NULL;
  clause->db_id = db_id;
  clause->procedure_db_id = procedure_db_id;
  clause->time = time;
  clause->initiator = alloc_string (initiator);
  clause->position = position;
  clause->messages_max = MESSAGES_INITIAL_MAX;
  clause->messages_count = 0;
  clause->messages = (ClauseMessage **) realloc_pointers (NULL, clause->messages_max);
  clause->revisions_max = REVISIONS_INITIAL_MAX;
  clause->revisions_count = 0;
  clause->revisions = (ClauseRevision **) realloc_pointers (NULL, clause->revisions_max);
  clause->draft = NULL;
  return clause;
}

void
dealloc_clause (Clause *clause)
{
  dealloc_string (clause->initiator);
  for (u32 i = 0; i < clause->messages_count; ++i) {
    dealloc_clause_message (clause->messages[i]);
  }
  free (clause->messages);
  for (u32 i = 0; i < clause->revisions_count; ++i) {
    dealloc_clause_revision (clause->revisions[i]);
  }
  free (clause->revisions);
  if (clause->draft) {
    dealloc_clause_revision (clause->draft);
  }
  free (clause);
}

Procedure *
alloc_procedure (u64 db_id, u64 account_db_id, s64 time, String title, String initiator,
                 String contractor)
{
  Procedure *procedure = (Procedure *) malloc (sizeof (*procedure));
  procedure->view = NULL;
  procedure->list_item = NULL;
  procedure->db_id = db_id;
  procedure->account_db_id = account_db_id;
  procedure->time = time;
  procedure->title = alloc_string (title);
  procedure->initiator = alloc_string (initiator);
  procedure->contractor = alloc_string (contractor);
  procedure->clauses_max = CLAUSES_INITIAL_MAX;
  procedure->clauses_count = 0;
  procedure->clauses = (Clause **) realloc_pointers (NULL, procedure->clauses_max);
  return procedure;
}

void
dealloc_procedure (Procedure *procedure)
{
  dealloc_string (procedure->title);
  dealloc_string (procedure->initiator);
  dealloc_string (procedure->contractor);
  for (u32 i = 0; i < procedure->clauses_count; ++i) {
    dealloc_clause (procedure->clauses[i]);
  }
  free (procedure->clauses);
  free (procedure);
}

ProceduresStack
alloc_procedure_stack ()
{
  ProceduresStack stack;
  stack.max = PROCEDURES_INITIAL_MAX;
  stack.count = 0;
  stack.procedures = (Procedure **) realloc_pointers (NULL, stack.max);
  return stack;
}

void
dealloc_procedure_stack (ProceduresStack stack)
{
  for (u32 i = 0; i < stack.count; ++i) {
    dealloc_procedure (stack.procedures[i]);
  }
  free (stack.procedures);
}

String
alloc_procedure_title (String text)
{
  static const char APOSTROPHE[] = "\u2019";
  Buffer title = alloc (text.size * (sizeof (APOSTROPHE) - 1));
  Buffer title_p = title;
  for (u64 i = 0; i < text.size; i++) {
    if (text.data[i] == '\'') {
      title_p = buffer_append_cstr (title_p, APOSTROPHE);
    } else {
      title_p = buffer_append_char (title_p, (char) text.data[i]);
    }
  }
  return {title.data, title.size - title_p.size};
}

// ---- Adding ----

void
clause_revision_add_decision (ClauseRevision *revision, ClauseRevisionDecision *decision)
{
  assert (revision->decisions_max);
  if (revision->decisions_count == revision->decisions_max) {
    revision->decisions_max = grow_max (revision->decisions_max);
    revision->decisions =
      (ClauseRevisionDecision **) realloc_pointers (revision->decisions, revision->decisions_max);
  }
  revision->decisions[revision->decisions_count++] = decision;
}

void
clause_add_message (Clause *clause, ClauseMessage *message)
{
  assert (clause->messages_max);
  if (clause->messages_count == clause->messages_max) {
    clause->messages_max = grow_max (clause->messages_max);
    clause->messages = (ClauseMessage **) realloc_pointers (clause->messages, clause->messages_max);
  }
  clause->messages[clause->messages_count++] = message;
}

void
clause_add_revision (Clause *clause, ClauseRevision *revision)
{
  assert (clause->revisions_max);
  if (clause->revisions_count == clause->revisions_max) {
    clause->revisions_max = grow_max (clause->revisions_max);
    clause->revisions =
      (ClauseRevision **) realloc_pointers (clause->revisions, clause->revisions_max);
  }
  clause->revisions[clause->revisions_count++] = revision;
}

void
procedure_add_clause (Procedure *procedure, Clause *clause)
{
  assert (procedure->clauses_max);
  if (procedure->clauses_count == procedure->clauses_max) {
    procedure->clauses_max = grow_max (procedure->clauses_max);
    procedure->clauses = (Clause **) realloc_pointers (procedure->clauses, procedure->clauses_max);
  }
  procedure->clauses[procedure->clauses_count++] = clause;
}

void
procedures_stack_add_procedure (ProceduresStack *stack, Procedure *procedure)
{
  assert (stack->max);
  if (stack->count == stack->max) {
    stack->max = grow_max (stack->max);
    stack->procedures = (Procedure **) realloc_pointers (stack->procedures, stack->max);
  }
  stack->procedures[stack->count++] = procedure;
}

void
procedures_stack_insert_procedure (ProceduresStack *stack, Procedure *procedure, u32 index)
{
  assert (index <= stack->count);
  procedures_stack_add_procedure (stack, procedure);
  for (u32 i = stack->count - 1; i > index; --i) {
    stack->procedures[i] = stack->procedures[i - 1];
  }
  stack->procedures[index] = procedure;
}

// ---- Order ----

// Byte by byte, a text ahead of those that it begins: below, at or above 0.
static int
compare_bytes (String text, String other_text)
{
  u64 size = text.size < other_text.size ? text.size : other_text.size;
  int order = size ? memcmp (text.data, other_text.data, size) : 0;
  if (order != 0) {
    return order;
  }
  return text.size < other_text.size ? -1 : text.size > other_text.size;
}

static int
compare_marks (s64 time, String author, s64 other_time, String other_author)
{
  if (time != other_time) {
    return time < other_time ? -1 : 1;
  }
  return compare_bytes (author, other_author);
}

void
clause_order_last_revision (Clause *clause)
{
  assert (clause->revisions_count);
  u32 index = clause->revisions_count - 1;
  ClauseRevision *revision = clause->revisions[index];
  for (; index > 0; --index) {
    ClauseRevision *previous = clause->revisions[index - 1];
    if (compare_marks (previous->time, previous->author, revision->time, revision->author) <= 0) {
      break;
    }
    clause->revisions[index] = previous;
  }
  clause->revisions[index] = revision;
}

void
procedure_order_last_clause (Procedure *procedure)
{
  assert (procedure->clauses_count);
  u32 index = procedure->clauses_count - 1;
  Clause *clause = procedure->clauses[index];
  for (; index > 0; --index) {
    Clause *previous = procedure->clauses[index - 1];
    if (compare_marks (previous->time, previous->initiator, clause->time, clause->initiator) <= 0) {
      break;
    }
    procedure->clauses[index] = previous;
  }
  procedure->clauses[index] = clause;
}

// ---- Removing ----

void
clause_remove_revision (Clause *clause, u32 index)
{
  assert (index < clause->revisions_count);
  if (index >= clause->revisions_count) {
    return;
  }
  --clause->revisions_count;
  for (u32 i = index; i < clause->revisions_count; ++i) {
    clause->revisions[i] = clause->revisions[i + 1];
  }
}

void
procedure_remove_clause (Procedure *procedure, u32 index)
{
  assert (index < procedure->clauses_count);
  if (index >= procedure->clauses_count) {
    return;
  }
  --procedure->clauses_count;
  for (u32 i = index; i < procedure->clauses_count; ++i) {
    procedure->clauses[i] = procedure->clauses[i + 1];
  }
}

void
procedures_stack_remove_procedure (ProceduresStack *stack, u32 index)
{
  assert (index < stack->count);
  if (index >= stack->count) {
    return;
  }
  --stack->count;
  for (u32 i = index; i < stack->count; ++i) {
    stack->procedures[i] = stack->procedures[i + 1];
  }
}

// ---- Parties ----

// A name as parties are compared; freed with `g_free`. NULL for one that is not UTF-8.
static char *
alloc_folded_name (String name)
{
  if (!name.size || !g_utf8_validate ((const char *) name.data, (gssize) name.size, NULL))
    return NULL;
  char *normal = g_utf8_normalize ((const char *) name.data, (gssize) name.size, G_NORMALIZE_NFKC);
  char *folded = g_utf8_casefold (normal, -1);
  g_free (normal);
  // Folding may leave letters apart that normalising joins.
  normal = g_utf8_normalize (folded, -1, G_NORMALIZE_NFKC);
  g_free (folded);
  return normal;
}

bool
is_same_party (String name, String other_name)
{
  if (name == other_name)
    return true;
  char *folded = alloc_folded_name (name);
  char *other_folded = alloc_folded_name (other_name);
  bool is_same = folded && other_folded && !g_strcmp0 (folded, other_folded);
  g_free (folded);
  g_free (other_folded);
  return is_same;
}

String
procedure_get_other_party (Procedure *procedure, String party)
{
  return is_same_party (party, procedure->initiator) ? procedure->contractor : procedure->initiator;
}

// ---- Lookups ----

ClauseRevisionDecision *
get_revision_decision_by_author (ClauseRevision *revision, String author)
{
  for (u32 i = 0; i < revision->decisions_count; ++i) {
    if (revision->decisions[i]->author == author) {
      return revision->decisions[i];
    }
  }
  return NULL;
}

ClauseRevisionDecision *
get_revision_decision_by_party (ClauseRevision *revision, String party)
{
  for (u32 i = 0; i < revision->decisions_count; ++i) {
    if (is_same_party (revision->decisions[i]->author, party)) {
      return revision->decisions[i];
    }
  }
  return NULL;
}

ClauseRevision *
get_clause_revision_by_author_and_time (Clause *clause, String author, s64 time)
{
  for (u32 i = 0; i < clause->revisions_count; ++i) {
    ClauseRevision *revision = clause->revisions[i];
    if (revision->time == time && revision->author == author) {
      return revision;
    }
  }
  return NULL;
}

Clause *
get_clause_by_initiator_and_time (Procedure *procedure, String initiator, s64 time)
{
  for (u32 i = 0; i < procedure->clauses_count; ++i) {
    Clause *clause = procedure->clauses[i];
    if (clause->time == time && clause->initiator == initiator) {
      return clause;
    }
  }
  return NULL;
}

Procedure *
get_procedure_by_initiator_and_time (ProceduresStack *stack, String initiator, s64 time)
{
  for (u32 i = 0; i < stack->count; ++i) {
    Procedure *procedure = stack->procedures[i];
    if (procedure->time == time && procedure->initiator == initiator) {
      return procedure;
    }
  }
  return NULL;
}

s64
get_revision_index_reversed (Clause *clause, ClauseRevision *revision)
{
  for (u32 i = clause->revisions_count; i > 0; --i) {
    if (clause->revisions[i - 1] == revision) {
      return i - 1;
    }
  }
  return -1;
}

s64
procedure_get_clause_index_reversed (Procedure *procedure, Clause *clause)
{
  for (u32 i = procedure->clauses_count; i > 0; --i) {
    if (procedure->clauses[i - 1] == clause) {
      return i - 1;
    }
  }
  return -1;
}

s64
procedures_stack_get_index (ProceduresStack *stack, Procedure *procedure)
{
  for (u32 i = 0; i < stack->count; ++i) {
    if (stack->procedures[i] == procedure) {
      return i;
    }
  }
  return -1;
}

// ---- Free seconds ----

// Which of the seconds first, first + 1, ... are taken. Among `count` siblings at least one of the
// first `count` + 1 seconds is free, so one look at each sibling is enough however many follow each
// other.
struct TakenSeconds {
  s64 first;  // POSIX seconds
  u64 size;   // seconds looked at
  u8 *taken;  // owned; 1 for a second that is taken
};

static TakenSeconds
alloc_taken_seconds (s64 first, u32 siblings_count)
{
  TakenSeconds seconds;
  seconds.first = first;
  seconds.size = (u64) siblings_count + 1;
  seconds.taken = (u8 *) calloc (seconds.size, 1);
  return seconds;
}

static void
taken_seconds_mark (TakenSeconds seconds, s64 time)
{
  // Unsigned, so that no two times are too far apart to subtract.
  u64 offset = (u64) time - (u64) seconds.first;
  if (time >= seconds.first && offset < seconds.size) {
    seconds.taken[offset] = 1;
  }
}

// The first second that is free; releases the record, which has answered its one question.
static s64
taken_seconds_end (TakenSeconds seconds)
{
  u64 offset = 0;
  while (offset < seconds.size - 1 && seconds.taken[offset]) {
    ++offset;
  }
  free (seconds.taken);
  return (s64) ((u64) seconds.first + offset);
}

s64
clause_get_free_revision_time (Clause *clause, String author, s64 time)
{
  TakenSeconds seconds = alloc_taken_seconds (time, clause->revisions_count);
  for (u32 i = 0; i < clause->revisions_count; ++i) {
    if (clause->revisions[i]->author == author) {
      taken_seconds_mark (seconds, clause->revisions[i]->time);
    }
  }
  return taken_seconds_end (seconds);
}

s64
clause_get_free_message_time (Clause *clause, String author, s64 time)
{
  TakenSeconds seconds = alloc_taken_seconds (time, clause->messages_count);
  for (u32 i = 0; i < clause->messages_count; ++i) {
    if (clause->messages[i]->author == author) {
      taken_seconds_mark (seconds, clause->messages[i]->time);
    }
  }
  return taken_seconds_end (seconds);
}

s64
procedure_get_free_clause_time (Procedure *procedure, String initiator, s64 time)
{
  TakenSeconds seconds = alloc_taken_seconds (time, procedure->clauses_count);
  for (u32 i = 0; i < procedure->clauses_count; ++i) {
    if (procedure->clauses[i]->initiator == initiator) {
      taken_seconds_mark (seconds, procedure->clauses[i]->time);
    }
  }
  return taken_seconds_end (seconds);
}

s64
procedures_stack_get_free_time (ProceduresStack *stack, String initiator, s64 time)
{
  TakenSeconds seconds = alloc_taken_seconds (time, stack->count);
  for (u32 i = 0; i < stack->count; ++i) {
    if (stack->procedures[i]->initiator == initiator) {
      taken_seconds_mark (seconds, stack->procedures[i]->time);
    }
  }
  return taken_seconds_end (seconds);
}
