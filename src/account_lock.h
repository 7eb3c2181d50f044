// Which process may use an account of a store. The model of an account is read once and then only
// written, so two processes that have loaded the same account write the same things twice: a second
// draft of one clause, what both have received. Windows of one process see each other, and share a lock;
// another process on the same store is another start without this session's bus.
//
// The lock is one of the system's on the store's directory, under a number that is made of the
// account. It ends with the process, leaves no file, and does not touch the store, whose own locks
// SQLite would lose with a descriptor that we open on the store and close. An abstract socket would do
// as much, but only within one network namespace, and any user could take its name; a file would stay
// behind where the process is killed. Processes of two systems that share the directory over a network
// don't see each other.
//
// Ownership: each `account_lock_take` is answered by one `account_lock_drop`.
// Threads: the interface thread only.
#pragma once

#include <sqlite3.h>

#include "buffers.h"

struct AccountLock;

// NULL when another process has the account of this store. A store without a file is nobody else's.
AccountLock *account_lock_take (sqlite3 *db, String bare_jid);
void account_lock_drop (AccountLock *lock);  // NULL is none
