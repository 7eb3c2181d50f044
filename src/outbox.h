// The outbox: which objects of an account were committed and are not known to have left for the
// other side. Its table names rows of the other tables, never texts; the table is made when a row is
// needed and dropped when none is left, so at rest the store has its nine tables.
//
// An entry is written in the transaction of the object that it names. While a session runs, entries
// go from one state to the next; which of them have a row follows from their state. Positions are
// counted by the session and only grow: what is sent later has a higher one.
//
// Ownership: an `Outbox` owns its entries and borrows the store. Pointers to entries are good until
// the next call that adds or forgets entries.
// Threads: the interface thread only.
#pragma once

#include "db.h"

enum OutboxKind {
  OUTBOX_PROCEDURE,
  OUTBOX_CLAUSE,
  OUTBOX_REVISION,
  OUTBOX_MESSAGE,  // a line about a clause
  OUTBOX_DECISION,
  OUTBOX_KINDS_COUNT,
};

// As stored in the column `kind`.
extern const char *OUTBOX_KIND_STRINGS[OUTBOX_KINDS_COUNT];

enum OutboxState {
  OUTBOX_WAITING,  // has a row; to be sent
  OUTBOX_SENT,     // has a row; given to the session, which has not told yet what became of it
  OUTBOX_REFUSED,  // has a row; came back with an error, and is sent again ahead of what comes next
  OUTBOX_HELD,     // has a row; the server takes no stanza as large, and it is not sent again
  OUTBOX_TAKEN,    // no row; the server's system took it, and the server was not heard of since
  OUTBOX_DONE,     // no row; kept until the session ends, for an error that may still come back
};

struct OutboxEntry {
  u64 db_id;     // its row; 0 for none
  u64 sequence;  // the order of sending, within the account; 0 for what is held
  OutboxKind kind;
  u64 object_db_id;  // row of the object
  OutboxState state;
  u64 acknowledge_position;  // where it stands in what the server acknowledges
  u64 take_position;         // where it stands in what the server's system takes
  s64 taken_time;            // when that was known to have taken it; monotonic, microseconds
  u64 request_id;            // of the stanza that carried it last; 0 before the first
  bool is_marked;  // the object's widgets say that it did not go out; its owner's business
  // The object's record while its deletion can be undone: the entry has no row meanwhile. Else NULL.
  const void *removed_object;
};

struct Outbox {
  sqlite3 *db;        // borrowed
  u64 account_db_id;  // whose objects these are
  u64 last_sequence;
  u32 max;
  u32 count;
  OutboxEntry *entries;  // in the order of sending
};

// The entries of the account's rows, all waiting, save for those that are held. A table without any
// row is dropped.
Outbox outbox_load (sqlite3 *db, u64 account_db_id);
// Entries only: the rows stay.
void dealloc_outbox (Outbox *outbox);

// ---- Objects ----

// Whether the entry's object has not gone out: it is waiting, was refused or is held.
bool outbox_is_unsent (const OutboxEntry *entry);
// The entry of this object when it has not gone out. Else NULL.
OutboxEntry *outbox_get_unsent (Outbox *outbox, OutboxKind kind, u64 object_db_id);
// In the transaction that stores the object. Where this object is waiting already, or held,
// that is enough; one that was refused is to be sent again now.
void outbox_add (Outbox *outbox, OutboxKind kind, u64 object_db_id);

// In the transaction that deletes these: the entries of the record and of all below lose their rows.
void outbox_remove_procedure (Outbox *outbox, Procedure *procedure);
void outbox_remove_clause (Outbox *outbox, Clause *clause);
// In the transaction that stores the same records again, once they have their new rows: puts back
// what was removed, as the session left it meanwhile.
void outbox_restore_procedure (Outbox *outbox, Procedure *procedure);
void outbox_restore_clause (Outbox *outbox, Clause *clause);
// No deletion before this can be undone any more. Called before the removed records are freed.
void outbox_forget_removed (Outbox *outbox);

// ---- Sending ----

// The first entry that waits, `from` this index on; NULL when none does.
OutboxEntry *outbox_get_next (Outbox *outbox, u32 from = 0);
// The stanza with this id was given to the session; the positions are where it ends.
void outbox_note_sent (Outbox *outbox, OutboxEntry *entry, u64 acknowledge_position,
                       u64 take_position, u64 request_id);
// Without acknowledgements: the socket took everything up to there and has passed it on to the server's
// system, by `time` at the latest. The rows go.
void outbox_note_taken (Outbox *outbox, u64 take_position, s64 time);
// The server was heard of, and what its system took up to `time` is known to have reached it.
void outbox_note_heard (Outbox *outbox, s64 time);
// The server has acknowledged everything up to there. The rows go.
void outbox_note_acknowledged (Outbox *outbox, u64 acknowledge_position);
// The stanza with this id came back with an error. False when it carried none of these.
bool outbox_note_refused (Outbox *outbox, u64 request_id);
// The session is over: what was sent and not confirmed is waiting again, and has a row. The server has
// read nothing from `refused_position` on, 0 for none: what was sent there is held, and what was sent
// behind is in doubt whatever seemed to confirm it. Returns the entry that is held now, or NULL.
OutboxEntry *outbox_end_session (Outbox *outbox, u64 refused_position);
// Takes an entry out of the order of sending.
void outbox_hold (Outbox *outbox, OutboxEntry *entry);
// The object is gone from the store without its entry, as when another program deleted it.
void outbox_drop (Outbox *outbox, OutboxEntry *entry);

// ---- Table ----

// Drops the table when it has no row of any account. Returns whether there is no table now.
bool outbox_drop_empty_table (sqlite3 *db);
