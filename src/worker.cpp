#include "worker.h"

#include <assert.h>
#include <errno.h>
#include <stdlib.h>
#include <time.h>

#include "morvane.h"

// Set while a thread runs a worker's entry.
static __thread Worker *current_worker;

static gint abandoned_workers_count;

// ---- Life ----

Worker *
worker_new ()
{
  Worker *worker = (Worker *) calloc (1, sizeof (Worker));
  pthread_condattr_t attributes;
  pthread_condattr_init (&attributes);
  pthread_condattr_setclock (&attributes, CLOCK_MONOTONIC);
  pthread_cond_init (&worker->cond, &attributes);
  pthread_condattr_destroy (&attributes);
  pthread_mutex_init (&worker->mutex, NULL);
  worker->references_count = 1;
  return worker;
}

Worker *
worker_ref (Worker *worker)
{
  pthread_mutex_lock (&worker->mutex);
  worker->references_count++;
  pthread_mutex_unlock (&worker->mutex);
  return worker;
}

void
worker_unref (Worker *worker)
{
  pthread_mutex_lock (&worker->mutex);
  bool is_last = --worker->references_count == 0;
  pthread_mutex_unlock (&worker->mutex);
  if (is_last) {
    if (worker->is_abandoned)
      g_atomic_int_add (&abandoned_workers_count, -1);
    for (void *block : worker->kept)
      free (block);
    pthread_cond_destroy (&worker->cond);
    pthread_mutex_destroy (&worker->mutex);
    free (worker);
  }
}

void *
worker_run (Worker *worker, void *(*entry) (void *), void *argument)
{
  current_worker = worker;
  void *result = entry (argument);
  current_worker = NULL;
  return result;
}

Worker *
worker_get_current ()
{
  return current_worker;
}

static void *
run_thread (void *data)
{
  Worker *worker = (Worker *) data;
  worker_run (worker, worker->entry, worker->argument);
  worker_unref (worker);
  return NULL;
}

void
worker_start (Worker *worker, void *(*entry) (void *), void *argument)
{
  assert (!worker->entry);
  worker->entry = entry;
  worker->argument = argument;
  int error = pthread_create (&worker->thread, NULL, run_thread, worker_ref (worker));
  assert (!error);
  // Nobody joins it, so its stack must go by itself.
  if (!error)
    pthread_detach (worker->thread);
}

// ---- The end ----

void
worker_interrupt (Worker *worker)
{
  pthread_mutex_lock (&worker->mutex);
  worker->is_interrupted = true;
  pthread_cond_broadcast (&worker->cond);
  pthread_mutex_unlock (&worker->mutex);
}

bool
worker_is_interrupted (Worker *worker)
{
  pthread_mutex_lock (&worker->mutex);
  bool is_interrupted = worker->is_interrupted;
  pthread_mutex_unlock (&worker->mutex);
  return is_interrupted;
}

bool
worker_is_current_interrupted ()
{
  return current_worker && worker_is_interrupted (current_worker);
}

void
worker_leave (Worker *worker)
{
  pthread_mutex_lock (&worker->mutex);
  worker->has_left = true;
  pthread_cond_broadcast (&worker->cond);
  pthread_mutex_unlock (&worker->mutex);
}

bool
worker_has_left (Worker *worker)
{
  pthread_mutex_lock (&worker->mutex);
  bool has_left = worker->has_left;
  pthread_mutex_unlock (&worker->mutex);
  return has_left;
}

bool
worker_wait_until_left (Worker *worker, struct timespec deadline)
{
  pthread_mutex_lock (&worker->mutex);
  int error = 0;
  while (!worker->has_left && error != ETIMEDOUT) {
    error = pthread_cond_timedwait (&worker->cond, &worker->mutex, &deadline);
  }
  bool has_left = worker->has_left;
  pthread_mutex_unlock (&worker->mutex);
  return has_left;
}

struct timespec
get_deadline (u32 milliseconds)
{
  struct timespec deadline;
  clock_gettime (CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += milliseconds / 1000;
  deadline.tv_nsec += milliseconds % 1000 * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec++;
    deadline.tv_nsec -= 1000000000L;
  }
  return deadline;
}

// ---- Connecting ----

bool
worker_begin_connecting (Worker *worker)
{
  pthread_mutex_lock (&worker->mutex);
  worker->is_connecting = !worker->is_interrupted;
  bool is_connecting = worker->is_connecting;
  pthread_mutex_unlock (&worker->mutex);
  return is_connecting;
}

bool
worker_end_connecting (Worker *worker)
{
  pthread_mutex_lock (&worker->mutex);
  worker->is_connecting = false;
  bool is_abandoned = worker->is_abandoned;
  pthread_mutex_unlock (&worker->mutex);
  return !is_abandoned;
}

bool
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): both are freed.
worker_abandon (Worker *worker, void *first_block, void *second_block)
{
  pthread_mutex_lock (&worker->mutex);
  bool is_abandoned = worker->is_connecting;
  worker->is_interrupted = true;
  pthread_cond_broadcast (&worker->cond);
  if (is_abandoned) {
    worker->is_abandoned = true;
    worker->kept[0] = first_block;
    worker->kept[1] = second_block;
    g_atomic_int_inc (&abandoned_workers_count);
  }
  pthread_mutex_unlock (&worker->mutex);
  if (is_abandoned)
    worker_unref (worker);
  return is_abandoned;
}

bool
worker_is_abandoned (Worker *worker)
{
  pthread_mutex_lock (&worker->mutex);
  bool is_abandoned = worker->is_abandoned;
  pthread_mutex_unlock (&worker->mutex);
  return is_abandoned;
}

u32
worker_count_abandoned ()
{
  return (u32) g_atomic_int_get (&abandoned_workers_count);
}

// ---- Pace ----

// How many stanzas the worker may be ahead of the interface. GLib hands out all idle sources that wait
// before it looks for events again, so what waits there is what the user waits for.
static const u32 LEAD_MAX = 2;

// How long the worker waits for the interface, in milliseconds. Longer, and an interface that waits
// for a server to take what it sends, while that server waits for us to take what it sends, would
// wait for ever.
static const u32 PACE_WAIT = 1000;

void
worker_keep_pace (Worker *worker)
{
  pthread_mutex_lock (&worker->mutex);
  worker->lead++;
  pthread_mutex_unlock (&worker->mutex);
  hand_over (worker_note_applied, worker_ref (worker));
  struct timespec deadline = get_deadline (PACE_WAIT);
  bool is_in_time = true;
  pthread_mutex_lock (&worker->mutex);
  while (worker->lead > LEAD_MAX && !worker->is_interrupted && is_in_time) {
    is_in_time = pthread_cond_timedwait (&worker->cond, &worker->mutex, &deadline) != ETIMEDOUT;
  }
  pthread_mutex_unlock (&worker->mutex);
}

gboolean
worker_note_applied (gpointer data)
{
  Worker *worker = (Worker *) accept_hand_over (data);
  pthread_mutex_lock (&worker->mutex);
  worker->lead--;
  pthread_cond_broadcast (&worker->cond);
  pthread_mutex_unlock (&worker->mutex);
  worker_unref (worker);
  return G_SOURCE_REMOVE;
}
