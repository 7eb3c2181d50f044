// Stream management: the counts of a session and the elements that tell them.
#include "stream_management.h"

#include <assert.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>

#include "app_window.h"
#include "morvane.h"
#include "network.h"

static const u32 ANSWER_TIME_MAX = 60000;  // milliseconds
// What a server sends within this time may have been on its way already, in microseconds.
static const s64 HEARD_DELAY = 2000000;
// A burst of stanzas is acknowledged once, so much after its first, in milliseconds.
static const u32 TELL_DELAY = 100;
// RFC 6120, 13.12: the size of a stanza, in bytes, that each server has to take.
static const u64 ALLOWED_STANZA_SIZE = 10000;
// How long a stop waits for the interface, in milliseconds.
static const u32 STOP_WAIT_MAX = 2000;

// Guards the list and all counts of all sessions. A plain mutex, so that the thread sanitizer sees it.
static pthread_mutex_t counts_mutex = PTHREAD_MUTEX_INITIALIZER;
static StreamManagement *first_counts;

// What the session thread tells the interface: a moment in the order of its records.
struct StreamManagementMark {
  AppWindow *window;
  u64 session_number;
};

static void
hand_over_mark (StreamManagement *counts, GSourceFunc handler)
{
  StreamManagementMark *mark =
    (StreamManagementMark *) alloc_xmpp_record (counts->window, sizeof (StreamManagementMark));
  mark->session_number = counts->session_number;
  hand_over (handler, mark);
}

// The counts that a mark is about; NULL when their session is over. Called before the mark is freed.
static StreamManagement *
get_counts_of_mark (StreamManagementMark *mark)
{
  StreamManagement *counts = &mark->window->stream_management;
  return counts->window && counts->session_number == mark->session_number ? counts : NULL;
}

// ---- Session ----

static const char STREAM_MANAGEMENT_NAMESPACE[] = "urn:xmpp:sm:3";

// Elements of stream management are no stanzas, and are not counted.
static void
send_element (StreamManagement *counts, String request)
{
  if (has_ended_xmpp_stream (counts->window))
    return;
  CONSOLE_DUMP (request);
  send_all_tls_data (counts->tls_session, request);
}

// All but the number, by which the next session is told from this one.
static void
clear_counts (StreamManagement *counts)
{
  u64 session_number = counts->session_number;
  *counts = {};
  counts->session_number = session_number;
}

void
stream_management_end (StreamManagement *counts)
{
  if (!counts->window)
    return;
  if (counts->tell_source)
    g_source_remove (counts->tell_source);
  if (counts->answer_source)
    g_source_remove (counts->answer_source);
  pthread_mutex_lock (&counts_mutex);
  StreamManagement **link = &first_counts;
  while (*link != counts)
    link = &(*link)->next;
  *link = counts->next;
  clear_counts (counts);
  pthread_mutex_unlock (&counts_mutex);
}

bool
is_stream_management_offered (XMLElement *features)
{
  for (XMLElement *element = features; element; element = element->next) {
    bool is_offer =
      element->name == "sm" && get_xml_attribute (element, "xmlns") == STREAM_MANAGEMENT_NAMESPACE;
    bool has_features = element->name == "stream:stream" || element->name == "stream:features";
    if (is_offer || (has_features && is_stream_management_offered (element->children)))
      return true;
  }
  return false;
}

// ---- Sending ----

static gboolean
stream_management_answer_is_late (gpointer data)
{
  StreamManagement *counts = (StreamManagement *) data;
  counts->answer_source = 0;
  console_put ("Warning: The server doesn't answer.\n");
  interrupt_xmpp_connection (counts->window);
  return G_SOURCE_REMOVE;
}

static void
stop_awaiting_answer (StreamManagement *counts)
{
  if (counts->answer_source)
    g_source_remove (counts->answer_source);
  counts->answer_source = 0;
}

static void
await_answer (StreamManagement *counts)
{
  stop_awaiting_answer (counts);
  counts->answer_source =
    g_timeout_add (counts->answer_time_max, stream_management_answer_is_late, counts);
}

// Idle handler; counting was offered and asked for.
static gboolean
stream_management_await_word (gpointer data)
{
  StreamManagementMark *mark = (StreamManagementMark *) accept_hand_over (data);
  StreamManagement *counts = get_counts_of_mark (mark);
  if (counts && stream_management_is_enabled (counts) && !stream_management_is_counting (counts))
    await_answer (counts);
  dealloc_xmpp_record (mark);
  return G_SOURCE_REMOVE;
}

void
stream_management_begin (StreamManagement *counts, AppWindow *window, gnutls_session_t tls_session,
                         bool is_offered)
{
  assert (!counts->window);
  pthread_mutex_lock (&counts_mutex);
  clear_counts (counts);
  counts->session_number++;
  counts->window = window;
  counts->tls_session = tls_session;
  counts->is_enabled = is_offered;
  counts->answer_time_max = ANSWER_TIME_MAX;
  counts->heard_delay = HEARD_DELAY;
  counts->next = first_counts;
  first_counts = counts;
  pthread_mutex_unlock (&counts_mutex);
  if (is_offered) {
    send_element (counts, to_string ("<enable xmlns='urn:xmpp:sm:3'/>"));
    hand_over_mark (counts, stream_management_await_word);
  }
}

// Idle handler; the server agrees or refuses.
static gboolean
stream_management_note_word (gpointer data)
{
  StreamManagementMark *mark = (StreamManagementMark *) accept_hand_over (data);
  StreamManagement *counts = get_counts_of_mark (mark);
  if (counts)
    stop_awaiting_answer (counts);
  dealloc_xmpp_record (mark);
  return G_SOURCE_REMOVE;
}

// Idle handler behind a burst of stanzas.
static gboolean
stream_management_ask (gpointer data)
{
  StreamManagementMark *mark = (StreamManagementMark *) accept_hand_over (data);
  StreamManagement *counts = get_counts_of_mark (mark);
  if (counts) {
    pthread_mutex_lock (&counts_mutex);
    counts->is_asking = false;
    pthread_mutex_unlock (&counts_mutex);
    send_element (counts, to_string ("<r xmlns='urn:xmpp:sm:3'/>"));
    if (!counts->answer_source)
      await_answer (counts);
  }
  dealloc_xmpp_record (mark);
  return G_SOURCE_REMOVE;
}

// Asks once for all that is sent until the interface has nothing else to do. With the mutex held.
static void
ask_after_burst (StreamManagement *counts)
{
  if (!counts->is_counting || counts->is_asking || counts->sent_count == counts->acknowledged_count)
    return;
  counts->is_asking = true;
  hand_over_mark (counts, stream_management_ask);
}

// What waits in the session's queue the socket has not taken, and what waits in the socket the
// server's system has not. A server that was found not to read is given as long to read what its
// system holds as all before that took. The counts are locked.
static void
look_for_taken (StreamManagement *counts)
{
  if (!counts->window || counts->is_broken || counts->taken_count == counts->sent_count)
    return;
  s64 now = g_get_monotonic_time ();
  s64 backlog = now - counts->backlog_time;
  if (has_all_tls_data_left (counts->tls_session)) {
    if (counts->is_stuck)
      counts->trusted_time = now + backlog;
    counts->is_stuck = false;
    counts->taken_count = counts->sent_count;
    counts->taken_time = now;
  } else if (backlog > counts->heard_delay) {
    counts->is_stuck = true;
  }
}

// The mutex is held.
static StreamManagement *
find_counts (gnutls_session_t tls_session)
{
  StreamManagement *counts = first_counts;
  while (counts && counts->tls_session != tls_session)
    counts = counts->next;
  return counts;
}

// What was sent before may have left long ago, without anybody having looked: a backlog begins here
// unless it really stands.
static void
note_backlog (gnutls_session_t tls_session)
{
  pthread_mutex_lock (&counts_mutex);
  StreamManagement *counts = find_counts (tls_session);
  if (counts) {
    look_for_taken (counts);
    if (counts->taken_count == counts->sent_count)
      counts->backlog_time = g_get_monotonic_time ();
  }
  pthread_mutex_unlock (&counts_mutex);
}

// RFC 6120, 4.4: behind our end of the stream the server reads nothing more.
static bool
may_send (gnutls_session_t tls_session)
{
  pthread_mutex_lock (&counts_mutex);
  StreamManagement *counts = find_counts (tls_session);
  AppWindow *window = counts ? counts->window : NULL;
  pthread_mutex_unlock (&counts_mutex);
  return !window || !has_ended_xmpp_stream (window);
}

u64
send_stanza (gnutls_session_t tls_session, String stanza)
{
  if (!may_send (tls_session)) {
    console_put ("Warning: The stream has ended, and a stanza isn't sent.\n");
    return 0;
  }
  note_backlog (tls_session);
  u64 sent_size = send_all_tls_data (tls_session, stanza);
  pthread_mutex_lock (&counts_mutex);
  StreamManagement *counts = find_counts (tls_session);
  if (counts) {
    counts->sent_count++;
    counts->is_broken = counts->is_broken || sent_size != stanza.size;
    if (stanza.size > counts->largest_size) {
      counts->largest_size = stanza.size;
      counts->largest_position = counts->sent_count;
    }
    look_for_taken (counts);
    ask_after_burst (counts);
  }
  pthread_mutex_unlock (&counts_mutex);
  return sent_size;
}

// ---- Receiving ----

// Whether the server may say here that it stopped reading. The error's place in the stream is not looked
// at: nothing is lost when bytes confirm nothing.
static bool
may_tell_violation (String data)
{
  const char *text = (const char *) data.data;
  return g_strstr_len (text, (gssize) data.size, "<stream:error") &&
         g_strstr_len (text, (gssize) data.size, "<policy-violation");
}

void
stream_management_note_heard (StreamManagement *counts, String data)
{
  bool is_violation = may_tell_violation (data);
  String end = to_string ("</stream:stream>");
  bool is_end = data.size >= end.size && string_advance (data, data.size - end.size) == end;
  pthread_mutex_lock (&counts_mutex);
  // In answer to ours it has read all; one that leaves by itself may not have. There is no window
  // during a login, where nothing is counted yet, and none when the interface has ended the counts.
  bool is_answer = is_end && counts->window && has_ended_xmpp_stream (counts->window);
  look_for_taken (counts);
  s64 time = g_get_monotonic_time ();
  bool has_read = !is_violation && !counts->is_policy_violated;
  bool is_trusted = has_read && !counts->is_stuck && time >= counts->trusted_time;
  if (is_trusted)
    counts->heard_time = time;
  if ((is_answer && has_read) || (is_end && is_trusted))
    counts->ended_time = time;
  pthread_mutex_unlock (&counts_mutex);
}

void
stream_management_note_error (StreamManagement *counts, XMLElement *element)
{
  if (element->name != "stream:error" || !get_xml_child_by_name (element, "policy-violation"))
    return;
  pthread_mutex_lock (&counts_mutex);
  counts->is_policy_violated = true;
  pthread_mutex_unlock (&counts_mutex);
}

// The server has taken over so many stanzas, modulo 2^32.
static void
take_acknowledgement (StreamManagement *counts, String h)
{
  if (!h.size || !string_has_only_digits (h)) {
    console_put ("Warning: Received an acknowledgement without a number.\n");
    return;
  }
  pthread_mutex_lock (&counts_mutex);
  u32 step = (u32) string_to_u64 (h) - (u32) counts->acknowledged_count;
  bool is_possible = counts->acknowledged_count + step <= counts->sent_count;
  if (is_possible)
    counts->acknowledged_count += step;
  pthread_mutex_unlock (&counts_mutex);
  if (!is_possible)
    console_put ("Warning: Received an acknowledgement of more than was sent.\n");
}

// Idle handlers; the session thread hands them over in the order of what it received.

// Whether an answer is still due: all that was sent was asked about, unless it is about to be.
static bool
is_more_asked (StreamManagement *counts)
{
  pthread_mutex_lock (&counts_mutex);
  bool is_more = !counts->is_asking && counts->sent_count != counts->acknowledged_count;
  pthread_mutex_unlock (&counts_mutex);
  return is_more;
}

static gboolean
stream_management_note_answer (gpointer data)
{
  StreamManagementMark *mark = (StreamManagementMark *) accept_hand_over (data);
  StreamManagement *counts = get_counts_of_mark (mark);
  if (counts) {
    stop_awaiting_answer (counts);
    if (is_more_asked (counts))
      await_answer (counts);
    mark->window->xmpp_handlers->acknowledged (mark->window);
  }
  dealloc_xmpp_record (mark);
  return G_SOURCE_REMOVE;
}

static void
tell_applied (StreamManagement *counts)
{
  pthread_mutex_lock (&counts_mutex);
  counts->told_count = counts->applied_count;
  pthread_mutex_unlock (&counts_mutex);
  u8 block[64];
  send_element (counts,
                make_format_string ({block, sizeof (block)}, "<a xmlns='urn:xmpp:sm:3' h='%u'/>",
                                    (u32) counts->told_count));
}

static gboolean
stream_management_answer (gpointer data)
{
  StreamManagementMark *mark = (StreamManagementMark *) accept_hand_over (data);
  StreamManagement *counts = get_counts_of_mark (mark);
  if (counts)
    tell_applied (counts);
  dealloc_xmpp_record (mark);
  return G_SOURCE_REMOVE;
}

static void
begin_counting (StreamManagement *counts)
{
  pthread_mutex_lock (&counts_mutex);
  counts->is_counting = true;
  // What was sent before the server's word came.
  ask_after_burst (counts);
  pthread_mutex_unlock (&counts_mutex);
}

static void
give_up_counting (StreamManagement *counts)
{
  console_put ("Warning: The server offers stream management and refuses it.\n");
  pthread_mutex_lock (&counts_mutex);
  counts->is_enabled = false;
  counts->is_counting = false;
  pthread_mutex_unlock (&counts_mutex);
}

// A server that ends the stream by itself counts what it has just read, and throws it away (seen with
// Prosody 0.12.3, when it is stopped): what it acknowledges in the same breath may be lost.
static bool
is_last_word (XMLElement *acknowledgement)
{
  XMLElement *next = acknowledgement->next;
  while (next && next->name != "stream:error")
    next = next->next;
  return next;
}

bool
stream_management_take (StreamManagement *counts, XMLElement *element)
{
  if (!counts->is_enabled || get_xml_attribute (element, "xmlns") != STREAM_MANAGEMENT_NAMESPACE) {
    return false;
  }
  if (element->name == "r") {
    hand_over_mark (counts, stream_management_answer);
  } else if (element->name == "a") {
    if (!is_last_word (element))
      take_acknowledgement (counts, get_xml_attribute (element, "h"));
    hand_over_mark (counts, stream_management_note_answer);
  } else if (element->name == "enabled") {
    hand_over_mark (counts, stream_management_note_word);
    begin_counting (counts);
  } else if (element->name == "failed") {
    hand_over_mark (counts, stream_management_note_word);
    give_up_counting (counts);
  } else {
    return false;
  }
  return true;
}

// ---- Stopping ----

// The session whose stanza this thread is parsing; none between two stanzas.
static thread_local StreamManagement *entered_counts;

static bool
is_everything_applied (StreamManagement *counts)
{
  pthread_mutex_lock (&counts_mutex);
  bool is_applied = counts->applied_count == counts->received_count;
  pthread_mutex_unlock (&counts_mutex);
  return is_applied;
}

// Handler of SIGABRT. An assertion raises it at a place that holds no lock, so this may do what
// handlers of other signals must not. `abort` goes on when this returns.
static void
acknowledge_and_stop (int)
{
  StreamManagement *counts = entered_counts;
  if (!counts)
    return;
  entered_counts = NULL;
  for (u32 waited = 0; !is_everything_applied (counts) && waited < STOP_WAIT_MAX; waited += 10)
    g_usleep (10000);
  if (!is_everything_applied (counts))
    return;
  u8 block[64];
  send_element (counts,
                make_format_string ({block, sizeof (block)}, "<a xmlns='urn:xmpp:sm:3' h='%u'/>",
                                    (u32) (counts->received_count + 1)));
}

static void
catch_stops ()
{
  struct sigaction action = {};
  action.sa_handler = acknowledge_and_stop;
  sigaction (SIGABRT, &action, NULL);
}

void
stream_management_enter_stanza (StreamManagement *counts)
{
  if (!counts->is_counting)
    return;
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  pthread_once (&once, catch_stops);
  entered_counts = counts;
}

// ---- Acknowledging ----

static gboolean
stream_management_tell_is_due (gpointer data)
{
  StreamManagement *counts = (StreamManagement *) data;
  counts->tell_source = 0;
  stream_management_tell (counts);
  return G_SOURCE_REMOVE;
}

static gboolean
stream_management_note_applied (gpointer data)
{
  StreamManagementMark *mark = (StreamManagementMark *) accept_hand_over (data);
  StreamManagement *counts = get_counts_of_mark (mark);
  if (counts) {
    pthread_mutex_lock (&counts_mutex);
    counts->applied_count++;
    pthread_mutex_unlock (&counts_mutex);
    if (!counts->tell_source)
      counts->tell_source = g_timeout_add (TELL_DELAY, stream_management_tell_is_due, counts);
  }
  dealloc_xmpp_record (mark);
  return G_SOURCE_REMOVE;
}

void
stream_management_leave_stanza (StreamManagement *counts)
{
  entered_counts = NULL;
  if (!counts->is_counting)
    return;
  pthread_mutex_lock (&counts_mutex);
  counts->received_count++;
  pthread_mutex_unlock (&counts_mutex);
  hand_over_mark (counts, stream_management_note_applied);
}

bool
stream_management_is_counting (StreamManagement *counts)
{
  pthread_mutex_lock (&counts_mutex);
  bool is_counting = counts->is_counting;
  pthread_mutex_unlock (&counts_mutex);
  return is_counting;
}

void
stream_management_tell (StreamManagement *counts)
{
  pthread_mutex_lock (&counts_mutex);
  bool is_due = counts->is_counting && counts->applied_count != counts->told_count;
  pthread_mutex_unlock (&counts_mutex);
  if (is_due)
    tell_applied (counts);
}

// ---- Looking ----

u64
stream_management_get_sent_count (StreamManagement *counts)
{
  pthread_mutex_lock (&counts_mutex);
  u64 count = counts->sent_count;
  pthread_mutex_unlock (&counts_mutex);
  return count;
}

u64
stream_management_get_taken_count (StreamManagement *counts)
{
  pthread_mutex_lock (&counts_mutex);
  look_for_taken (counts);
  u64 count = counts->taken_count;
  pthread_mutex_unlock (&counts_mutex);
  return count;
}

s64
stream_management_get_taken_time (StreamManagement *counts)
{
  pthread_mutex_lock (&counts_mutex);
  s64 time = counts->taken_time;
  pthread_mutex_unlock (&counts_mutex);
  return time;
}

u64
stream_management_get_acknowledged_count (StreamManagement *counts)
{
  pthread_mutex_lock (&counts_mutex);
  u64 count = counts->acknowledged_count;
  pthread_mutex_unlock (&counts_mutex);
  return count;
}

s64
stream_management_get_confirmed_time (StreamManagement *counts)
{
  pthread_mutex_lock (&counts_mutex);
  s64 time = counts->heard_time - counts->heard_delay;
  if (time < counts->ended_time)
    time = counts->ended_time;
  pthread_mutex_unlock (&counts_mutex);
  return time > 0 ? time : 0;
}

u64
stream_management_get_refused_position (StreamManagement *counts)
{
  pthread_mutex_lock (&counts_mutex);
  u64 position = counts->largest_position;
  bool is_refused = counts->is_policy_violated && counts->largest_size > ALLOWED_STANZA_SIZE &&
                    position > counts->acknowledged_count;
  pthread_mutex_unlock (&counts_mutex);
  return is_refused ? position : 0;
}

bool
stream_management_is_enabled (StreamManagement *counts)
{
  pthread_mutex_lock (&counts_mutex);
  bool is_enabled = counts->is_enabled;
  pthread_mutex_unlock (&counts_mutex);
  return is_enabled;
}

bool
stream_management_is_broken (StreamManagement *counts)
{
  pthread_mutex_lock (&counts_mutex);
  bool is_broken = counts->is_broken;
  pthread_mutex_unlock (&counts_mutex);
  return is_broken;
}
