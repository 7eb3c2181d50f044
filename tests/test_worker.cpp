// A worker: its thread, its pace beside the interface, which is this thread, and its end.
#include <gtest/gtest.h>

#include <pthread.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>

#include "morvane.h"
#include "worker.h"

// ---- Threads of these tests ----

// What the entry of a test works on.
struct Work {
  Worker *worker;
  std::atomic<bool> may_leave;
  std::atomic<bool> is_done;
};

static void *
run_until_told (void *data)
{
  Work *work = (Work *) data;
  while (!work->may_leave && !worker_is_interrupted (work->worker)) {
    sched_yield ();
  }
  work->is_done = true;
  worker_leave (work->worker);
  return NULL;
}

static void *
run_ahead (void *data)
{
  Work *work = (Work *) data;
  for (int stanza = 0; stanza < 3; ++stanza)
    worker_keep_pace (work->worker);
  work->is_done = true;
  worker_leave (work->worker);
  return NULL;
}

static const u32 LONG = 30000;  // milliseconds; nothing waits so long unless it is broken

// Lets the interface take what was handed over until only `count` references are left.
static bool
iterate_until_references (Worker *worker, u32 count)
{
  gint64 end = g_get_monotonic_time () + LONG * G_GINT64_CONSTANT (1000);
  while (g_get_monotonic_time () < end) {
    while (g_main_context_iteration (NULL, FALSE)) {
    }
    pthread_mutex_lock (&worker->mutex);
    bool is_reached = worker->references_count == count;
    pthread_mutex_unlock (&worker->mutex);
    if (is_reached)
      return true;
    g_thread_yield ();
  }
  return false;
}

// ---- Life ----

TEST (worker_start, runs_the_entry_and_holds_the_worker_meanwhile)
{
  Work work = {worker_new (), false, false};
  worker_start (work.worker, run_until_told, &work);
  EXPECT_TRUE (iterate_until_references (work.worker, 2));
  EXPECT_FALSE (worker_has_left (work.worker));
  work.may_leave = true;
  EXPECT_TRUE (worker_wait_until_left (work.worker, get_deadline (LONG)));
  EXPECT_TRUE (work.is_done);
  EXPECT_TRUE (iterate_until_references (work.worker, 1));
  worker_unref (work.worker);
}

static void *
run_here (void *data)
{
  Work *work = (Work *) data;
  EXPECT_EQ (worker_get_current (), work->worker);
  EXPECT_FALSE (worker_is_current_interrupted ());
  worker_interrupt (work->worker);
  EXPECT_TRUE (worker_is_current_interrupted ());
  return data;
}

TEST (worker_run, makes_the_thread_the_workers_until_the_entry_returns)
{
  Work work = {worker_new (), false, false};
  EXPECT_EQ (worker_run (work.worker, run_here, &work), &work);
  EXPECT_EQ (worker_get_current (), nullptr);
  EXPECT_FALSE (worker_is_current_interrupted ());
  worker_unref (work.worker);
}

static void
start_twice ()
{
  Work work = {worker_new (), false, false};
  worker_start (work.worker, run_until_told, &work);
  worker_start (work.worker, run_until_told, &work);
}

TEST (worker_start, twice_stops_the_program)
{
  EXPECT_DEATH (start_twice (), "src/worker\\.cpp.*Assertion `!worker->entry'");
}

// ---- The end ----

TEST (worker_interrupt, is_seen_by_the_worker)
{
  Work work = {worker_new (), false, false};
  EXPECT_FALSE (worker_is_interrupted (work.worker));
  worker_start (work.worker, run_until_told, &work);
  worker_interrupt (work.worker);
  EXPECT_TRUE (worker_wait_until_left (work.worker, get_deadline (LONG)));
  EXPECT_TRUE (worker_is_interrupted (work.worker));
  EXPECT_TRUE (iterate_until_references (work.worker, 1));
  worker_unref (work.worker);
}

TEST (worker_wait_until_left, gives_up_at_the_deadline)
{
  Worker *worker = worker_new ();
  gint64 begin = g_get_monotonic_time ();
  EXPECT_FALSE (worker_wait_until_left (worker, get_deadline (20)));
  EXPECT_GE (g_get_monotonic_time () - begin, 19000);
  worker_leave (worker);
  EXPECT_TRUE (worker_wait_until_left (worker, get_deadline (0)));
  worker_unref (worker);
}

TEST (get_deadline, carries_into_the_seconds)
{
  struct timespec now;
  clock_gettime (CLOCK_MONOTONIC, &now);
  struct timespec deadline = get_deadline (1999);
  s64 difference =
    (s64) (deadline.tv_sec - now.tv_sec) * 1000 + (deadline.tv_nsec - now.tv_nsec) / 1000000;
  EXPECT_GE (difference, 1999);
  EXPECT_GE (deadline.tv_nsec, 0);
  EXPECT_LT (deadline.tv_nsec, 1000000000L);
}

// ---- Connecting ----

static void *
run_connecting (void *data)
{
  Work *work = (Work *) data;
  Worker *worker = worker_get_current ();
  EXPECT_TRUE (worker_begin_connecting (worker));
  work->is_done = true;
  while (!work->may_leave) {
    sched_yield ();
  }
  if (worker_end_connecting (worker))
    worker_leave (worker);
  else
    EXPECT_TRUE (worker_is_abandoned (worker));
  return NULL;
}

// Until the entry has begun.
static void
wait_until_done (Work *work)
{
  gint64 end = g_get_monotonic_time () + LONG * G_GINT64_CONSTANT (1000);
  while (!work->is_done && g_get_monotonic_time () < end) {
    g_thread_yield ();
  }
  EXPECT_TRUE (work->is_done);
}

TEST (worker_abandon, leaves_one_that_connects_behind_with_what_it_reads)
{
  Work work = {worker_new (), false, false};
  worker_start (work.worker, run_connecting, &work);
  wait_until_done (&work);
  EXPECT_TRUE (worker_abandon (work.worker, malloc (10), malloc (20)));
  EXPECT_EQ (worker_count_abandoned (), 1u);
  work.may_leave = true;
  gint64 end = g_get_monotonic_time () + LONG * G_GINT64_CONSTANT (1000);
  while (worker_count_abandoned () && g_get_monotonic_time () < end) {
    g_thread_yield ();
  }
  EXPECT_EQ (worker_count_abandoned (), 0u);
}

TEST (worker_abandon, interrupts_one_that_does_not_connect)
{
  Work work = {worker_new (), false, false};
  EXPECT_FALSE (worker_abandon (work.worker, NULL, NULL));
  EXPECT_TRUE (worker_is_interrupted (work.worker));
  EXPECT_FALSE (worker_begin_connecting (work.worker));
  EXPECT_FALSE (worker_is_abandoned (work.worker));
  EXPECT_EQ (worker_count_abandoned (), 0u);
  worker_unref (work.worker);
}

TEST (worker_get_current, is_none_on_other_threads)
{
  EXPECT_EQ (worker_get_current (), nullptr);
}

// ---- Pace ----

// The interface may be waiting for the server, which waits for the worker.
TEST (worker_keep_pace, goes_on_without_an_interface_that_does_not_come)
{
  Work work = {worker_new (), false, false};
  worker_start (work.worker, run_ahead, &work);
  ASSERT_TRUE (worker_wait_until_left (work.worker, get_deadline (LONG)));
  EXPECT_EQ (work.worker->lead, 3u);
  EXPECT_TRUE (iterate_until_references (work.worker, 1));
  EXPECT_EQ (work.worker->lead, 0u);
  worker_unref (work.worker);
}

TEST (worker_keep_pace, waits_for_an_interface_that_is_behind)
{
  Work work = {worker_new (), false, false};
  gint64 begin = g_get_monotonic_time ();
  worker_start (work.worker, run_ahead, &work);
  ASSERT_TRUE (worker_wait_until_left (work.worker, get_deadline (LONG)));
  EXPECT_GE (g_get_monotonic_time () - begin, 900000);
  EXPECT_TRUE (iterate_until_references (work.worker, 1));
  worker_unref (work.worker);
}

static void *
run_far_ahead (void *data)
{
  Work *work = (Work *) data;
  for (int stanza = 0; stanza < 200; ++stanza)
    worker_keep_pace (work->worker);
  worker_leave (work->worker);
  return NULL;
}

TEST (worker_keep_pace, does_not_hold_up_a_worker_that_is_to_leave)
{
  Work work = {worker_new (), false, false};
  worker_interrupt (work.worker);
  worker_start (work.worker, run_far_ahead, &work);
  // Waiting for the interface each time it would take over three minutes.
  ASSERT_TRUE (worker_wait_until_left (work.worker, get_deadline (LONG)));
  EXPECT_TRUE (iterate_until_references (work.worker, 1));
  worker_unref (work.worker);
}
