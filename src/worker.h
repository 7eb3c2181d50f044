// The thread that works for a window: how it is started, keeps pace with the interface, is told to
// leave and says that it has left. What the thread does is the business of its entry.
//
// Ownership: a `Worker` is counted; each `worker_new` and `worker_ref` is answered by one
// `worker_unref`, and the last one frees it. A running thread holds a reference of its own.
//
// Threads: any thread, unless a function says otherwise.
#pragma once

#include <glib.h>
#include <pthread.h>

#include "buffers.h"

struct Worker {
  pthread_mutex_t mutex;  // guards all fields but thread, entry and argument
  pthread_cond_t cond;    // told when one of them changes
  u32 references_count;
  pthread_t thread;  // never joined
  void *(*entry) (void *);
  void *argument;       // borrowed by the thread until it leaves
  bool has_left;        // it no longer uses what it shared with the interface
  bool is_interrupted;  // it is to leave, and nobody waits for its outcome
  bool is_connecting;   // nothing wakes it, and it touches nothing that it shares
  bool is_abandoned;
  void *kept[2];  // what was its window's, freed with the worker
  u32 lead;       // stanzas that it has handed over and that are not applied yet
};

// ---- Life ----

Worker *worker_new ();  // with one reference; no thread runs yet
Worker *worker_ref (Worker *worker);
void worker_unref (Worker *worker);
// Runs `entry` with `argument` on a thread of its own, which nobody joins. Once for each worker.
void worker_start (Worker *worker, void *(*entry) (void *), void *argument);
// Runs `entry` on this thread, which is the worker's meanwhile, and returns its result.
void *worker_run (Worker *worker, void *(*entry) (void *), void *argument);
// The worker that this thread runs; NULL on other threads.
Worker *worker_get_current ();

// ---- The end ----

// Tells the worker to leave; wakes it where it waits for the interface, not where it waits for a
// server.
void worker_interrupt (Worker *worker);
// Stays true once it is.
bool worker_is_interrupted (Worker *worker);
// Whether the worker that this thread runs is to leave; false on other threads.
bool worker_is_current_interrupted ();
// The worker's farewell: it has made its last use of what it shared. Worker thread.
void worker_leave (Worker *worker);
bool worker_has_left (Worker *worker);
// Waits for the farewell, until `get_deadline`'s result at the latest. Returns whether it came.
bool worker_wait_until_left (Worker *worker, struct timespec deadline);
// The monotonic clock's time in so many milliseconds.
struct timespec get_deadline (u32 milliseconds);

// ---- Connecting ----
// Nothing ends a thread's wait for a resolver, so who gives up a worker that waits there leaves it
// behind: it ends by itself, and frees what it has.

// From now on the worker touches nothing of its window but the memory of what it was given. False
// when it is to leave instead.
bool worker_begin_connecting (Worker *worker);
// False when the worker was abandoned meanwhile: it has to release what it opened, and to end.
bool worker_end_connecting (Worker *worker);
// Leaves a worker that connects behind, with two blocks of memory that it may be reading; it drops the
// window's reference on itself. False when it does not connect: it is interrupted then. Interface
// thread.
bool worker_abandon (Worker *worker, void *first_block, void *second_block);
// Whether the worker was left behind: the window that it was started for is no longer its business.
bool worker_is_abandoned (Worker *worker);
// How many of them have not ended yet.
u32 worker_count_abandoned ();

// ---- Pace ----

// Called by the worker after the records of each stanza: waits until the interface has applied all
// but the last few, a second at most, or until the worker is interrupted. A server that sends faster
// than the store keeps up is so slowed down, and the user is heard in between.
void worker_keep_pace (Worker *worker);
// Idle handler, posted by `worker_keep_pace` after the records of a stanza. Interface thread.
gboolean worker_note_applied (gpointer data);
