// The model of a contract negotiation: a procedure between two parties, its clauses, the successive
// revisions of a clause's text, each party's decision on a revision, and the chat of a clause.
// Across the network an object is known by its author's (or initiator's) bare JID and its time.
//
// Ownership: a parent owns its children and frees them with itself, a record owns its strings.
// Links to widgets are borrowed: they start NULL, the interface sets them, nothing here frees them.
// Threads: the interface thread only.
#pragma once

#include "buffers.h"

// Widgets are nothing but pointers to the model.
typedef struct _ClauseView ClauseView;
typedef struct _ClauseChatPage ClauseChatPage;
typedef struct _ProcedureView ProcedureView;
typedef struct _GtkListBoxRow GtkListBoxRow;

enum RevisionStatus : u32 {
  REVISION_INVALID,
  REVISION_COMMITTED,
  REVISION_DRAFT
};

enum DecisionStatus : u32 {
  DECISION_INVALID,
  DECISION_AGREE,
  DECISION_DISAGREE
};

// Indexed by status. These words are also what is stored and what is sent.
extern const char *const REVISION_STATUS_STRINGS[3];
extern const char *const DECISION_STATUS_STRINGS[3];

// One line of the chat of a clause.
struct ClauseMessage {
  u64 db_id;         // row in the store; 0 until stored
  u64 clause_db_id;  // row of the clause
  s64 time;          // POSIX seconds
  String author;     // owned; bare JID of the writer
  String text;       // owned
};

// What one party thinks of one revision.
struct ClauseRevisionDecision {
  u64 db_id;                  // row in the store; 0 until stored
  u64 clause_revision_db_id;  // row of the revision
  s64 time;                   // POSIX seconds
  String author;              // owned; bare JID of the deciding party
  DecisionStatus status;
};

// One version of the text of a clause.
struct ClauseRevision {
  u64 db_id;         // row in the store; 0 until stored
  u64 clause_db_id;  // row of the clause
  s64 time;          // POSIX seconds
  String author;     // owned; bare JID
  RevisionStatus status;
  String text;  // owned
  u32 decisions_max;
  u32 decisions_count;
  ClauseRevisionDecision **decisions;  // owned, with the decisions, in the order added
};

struct Clause {
  ClauseView *view;           // borrowed; NULL until shown
  ClauseChatPage *chat_page;  // borrowed; NULL until shown
  u64 db_id;                  // row in the store; 0 until stored
  u64 procedure_db_id;        // row of the procedure
  s64 time;                   // POSIX seconds
  String initiator;           // owned; bare JID of the party that proposed the clause
  u64 position;               // place in the procedure, from 1
  u32 messages_max;
  u32 messages_count;
  ClauseMessage **messages;  // owned, with the messages; as loaded, and then in the order added
  u32 revisions_max;
  u32 revisions_count;
  ClauseRevision **revisions;  // owned, with the revisions; in their order; the draft is not here
  ClauseRevision *draft;       // owned; the user's unsent revision, NULL when there is none
};

struct Procedure {
  ProcedureView *view;       // borrowed; NULL until shown
  GtkListBoxRow *list_item;  // borrowed; NULL until shown
  u64 db_id;                 // row in the store; 0 until stored
  u64 account_db_id;         // row of the local account
  s64 time;                  // POSIX seconds
  String title;              // owned
  String initiator;          // owned; bare JID
  String contractor;         // owned; bare JID
  u32 clauses_max;
  u32 clauses_count;
  Clause **clauses;  // owned, with the clauses; in their order
};

// All procedures of the loaded account.
struct ProceduresStack {
  u32 max;
  u32 count;
  Procedure **procedures;  // owned, with the procedures
};

// ---- Statuses ----

// Exact, case-sensitive words; anything else is the INVALID value.
RevisionStatus cstr_to_revision_status (const char *text);
DecisionStatus string_to_decision_status (String text);
DecisionStatus cstr_to_decision_status (const char *text);

// ---- Records ----

// Every constructor copies its strings and returns a record that belongs to the caller, without
// children and without links to widgets. Every destructor frees the record's strings, then all it
// owns, then the record.
ClauseMessage *alloc_clause_message (u64 db_id, u64 clause_db_id, s64 time, String author,
                                     String text);
void dealloc_clause_message (ClauseMessage *message);
ClauseRevisionDecision *alloc_clause_revision_decision (u64 db_id, u64 clause_revision_db_id,
                                                        s64 time, String author,
                                                        DecisionStatus status);
void dealloc_clause_revision_decision (ClauseRevisionDecision *decision);
ClauseRevision *alloc_clause_revision (u64 db_id, u64 clause_db_id, s64 time, String author,
                                       RevisionStatus status, String text);
void dealloc_clause_revision (ClauseRevision *revision);
Clause *alloc_clause (u64 db_id, u64 procedure_db_id, s64 time, String initiator, u64 position);
void dealloc_clause (Clause *clause);
Procedure *alloc_procedure (u64 db_id, u64 account_db_id, s64 time, String title, String initiator,
                            String contractor);
void dealloc_procedure (Procedure *procedure);
ProceduresStack alloc_procedure_stack ();
void dealloc_procedure_stack (ProceduresStack stack);

// A title as records and the store hold it: each apostrophe becomes the typographic one (U+2019),
// since the store writes titles unquoted. Belongs to the caller (`dealloc_string`).
String alloc_procedure_title (String text);

// ---- Adding ----

// The container takes over the added record. A full array doubles. Asserts that the capacity is
// not zero.
void clause_revision_add_decision (ClauseRevision *revision, ClauseRevisionDecision *decision);
void clause_add_message (Clause *clause, ClauseMessage *message);
void clause_add_revision (Clause *clause, ClauseRevision *revision);
void procedure_add_clause (Procedure *procedure, Clause *clause);
void procedures_stack_add_procedure (ProceduresStack *stack, Procedure *procedure);
// The same at `index`, which is the count at most: what stands there and later moves up.
void procedures_stack_insert_procedure (ProceduresStack *stack, Procedure *procedure, u32 index);

// ---- Order ----

// Clauses and revisions go by time. What both parties made in one second goes by author, byte by byte:
// so both come to the same order and the same last revision, whatever arrived first where. Each puts
// what was added last behind all that are not above it. Lines of a chat stay as they came: an answer
// in the second of its question follows it.
void clause_order_last_revision (Clause *clause);
void procedure_order_last_clause (Procedure *procedure);

// ---- Removing ----

// Closes the gap and keeps the order. What was removed is not freed: it belongs to the caller.
// Asserts that `index` is below the count.
void clause_remove_revision (Clause *clause, u32 index);
void procedure_remove_clause (Procedure *procedure, u32 index);
void procedures_stack_remove_procedure (ProceduresStack *stack, u32 index);

// ---- Parties ----

// Whether two names, addresses or user names, mean the same party: after NFKC and case folding, since
// a contractor is typed by hand and servers normalise. Who wrote something is found so everywhere; what
// an object is called in a stanza, and a sender's "from", are compared byte for byte.
bool is_same_party (String name, String other_name);
// The party that `party` negotiates with.
String procedure_get_other_party (Procedure *procedure, String party);

// ---- Lookups ----

// The first match in the order added, NULL when there is none. The record stays its owner's.
ClauseRevisionDecision *get_revision_decision_by_author (ClauseRevision *revision, String author);
// The same, however the author's name is spelled (`is_same_party`).
ClauseRevisionDecision *get_revision_decision_by_party (ClauseRevision *revision, String party);
ClauseRevision *get_clause_revision_by_author_and_time (Clause *clause, String author, s64 time);
Clause *get_clause_by_initiator_and_time (Procedure *procedure, String initiator, s64 time);
Procedure *get_procedure_by_initiator_and_time (ProceduresStack *stack, String initiator, s64 time);

// The index of this very record, 0 the oldest, -1 when it is not there. The reversed ones look at
// the newest first, which is what they are nearly always asked for.
s64 get_revision_index_reversed (Clause *clause, ClauseRevision *revision);
s64 procedure_get_clause_index_reversed (Procedure *procedure, Clause *clause);
s64 procedures_stack_get_index (ProceduresStack *stack, Procedure *procedure);

// ---- Free seconds ----

// Two objects of one kind by one author never share a second, because author and time are what the
// other party knows them by. Each returns the first second from `time` on that this author does not
// have yet among the siblings. The draft of a clause has no second of its own: it is never sent.
s64 clause_get_free_revision_time (Clause *clause, String author, s64 time);
s64 clause_get_free_message_time (Clause *clause, String author, s64 time);
s64 procedure_get_free_clause_time (Procedure *procedure, String initiator, s64 time);
s64 procedures_stack_get_free_time (ProceduresStack *stack, String initiator, s64 time);
