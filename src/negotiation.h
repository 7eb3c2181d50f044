// What a party does in a negotiation and what arrives from the other one: each is one call, which
// changes the model and the store. What one call stores is there whole or, where the program ends
// within it, not at all. Views show the result, and send afterwards what is to be sent.
//
// Ownership: a `Negotiation` borrows all that it names. A record that comes back belongs to the
// model; texts and received records stay the caller's.
// Threads: the interface thread only.
#pragma once

#include "db.h"
#include "outbox.h"
#include "xmpp.h"

// What was deleted last and can be brought back: a procedure or a clause, or none of them.
struct NegotiationDeletion {
  Procedure *procedure;  // owned
  Clause *clause;        // owned
  Procedure *parent;     // borrowed; the clause's
  u32 index;             // where the procedure stood
};

// One account's negotiations.
struct Negotiation {
  sqlite3 *db;                  // borrowed
  u64 account_db_id;            // row of the account
  String own;                   // view; the account's bare JID
  String own_name;              // view; its user name, which signs the lines of a clause's chat
  ProceduresStack *procedures;  // borrowed; all of the account
  Outbox *outbox;               // borrowed; what the other party still has to get
  NegotiationDeletion deletion;
};

// ---- What the user does ----

// A procedure with `contractor`. `title` has no apostrophe. It shares its second with no own procedure,
// nor with the one that can be brought back.
Procedure *negotiation_begin (Negotiation *negotiation, String title, String contractor);
// Takes the procedure, with all that it holds, out of model and store. It can be brought back until the
// next deletion or `negotiation_end_undo`, which free it: its widgets must be gone by then.
void negotiation_delete (Negotiation *negotiation, Procedure *procedure);
// A clause without a revision, where its time belongs. It shares its second with no own clause of the
// procedure, nor of another row of it where it came twice, nor with one that can be brought back.
Clause *negotiation_add_clause (Negotiation *negotiation, Procedure *procedure);
// The same as `negotiation_delete` for a clause that was never sent.
void negotiation_delete_clause (Negotiation *negotiation, Procedure *procedure, Clause *clause);
// Stores what was deleted last once more, in new rows, and puts it back where it stood. There must be
// something to undo.
void negotiation_undo_delete (Negotiation *negotiation);
// What is deleted stays deleted, and is freed. At the latest before the store is closed.
void negotiation_end_undo (Negotiation *negotiation);
// Makes `text` the clause's draft, in place of the one that it may have.
void negotiation_save_draft (Negotiation *negotiation, Clause *clause, String text);
// Takes the draft out of model and store and frees it; does nothing where there is none.
void negotiation_discard_draft (Negotiation *negotiation, Clause *clause);
// Makes `text` the clause's next revision, in place of its draft. Its time is above that of the last
// one, whatever the clock says, so that it stays the last.
ClauseRevision *negotiation_commit (Negotiation *negotiation, Clause *clause, String text);
// What `author` thinks of the revision from now on.
ClauseRevisionDecision *negotiation_decide (Negotiation *negotiation, ClauseRevision *revision,
                                            String author, DecisionStatus status);
// A line of the clause's chat, at a second of its own.
ClauseMessage *negotiation_say (Negotiation *negotiation, Clause *clause, String text);

// ---- What arrives ----

// Clauses are looked for in the first row of their procedure, and then in the others where it came
// twice; a new one goes to the first.

// Each returns what it has made or changed, or NULL after a console line that says why the record
// was dropped: it has no place here, is here already, comes in the account's own name, or from
// someone who is no party of the procedure. A procedure may repeat, a decision takes the place of an
// earlier one. The `_out` parameters are only filled with a result.
//
// A clause or a revision goes where its time and author belong, as it will be after the next start. A
// time more than a day ahead of the clock is taken, and costs a line.
//
// Parties are compared as people read them, after NFKC and case folding, because the user types a
// contractor by hand and servers normalise addresses. A line of a clause's chat is signed with the
// user name or the bare JID of a party; both parties may have the same user name.
Procedure *negotiation_receive_procedure (Negotiation *negotiation, XMPPProcedure *record);
Clause *negotiation_receive_clause (Negotiation *negotiation, XMPPClause *record,
                                    Procedure **procedure_out);
ClauseRevision *negotiation_receive_revision (Negotiation *negotiation, XMPPClauseRevision *record,
                                              Clause **clause_out);
ClauseMessage *negotiation_receive_message (Negotiation *negotiation, XMPPClauseMessage *record,
                                            Clause **clause_out);
ClauseRevisionDecision *negotiation_receive_decision (Negotiation *negotiation,
                                                      XMPPClauseRevisionDecisionSignal *record,
                                                      Clause **clause_out,
                                                      ClauseRevision **revision_out);
