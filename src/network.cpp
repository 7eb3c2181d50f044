// TLS by GnuTLS: the process, the session and its handshake, sending and receiving.
#include "network.h"

#include <assert.h>
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>

#include <glib.h>
#include <gnutls/x509.h>

#include "morvane.h"

// ---- Process ----

gnutls_certificate_credentials_t
init_tls_global ()
{
  console_put ("GnuTLS init...\n");
  [[maybe_unused]] int tls_global_init_error = gnutls_global_init ();
  assert (!tls_global_init_error);
  gnutls_certificate_credentials_t credentials = NULL;
  [[maybe_unused]] int tls_creds_alloc_error =
    gnutls_certificate_allocate_credentials (&credentials);
  assert (!tls_creds_alloc_error);
  int tls_certs_count = gnutls_certificate_set_x509_system_trust (credentials);
  CONSOLE_DUMP (tls_certs_count);
  if (tls_certs_count < 0) {
    console_log ("Error: GnuTLS set certificates: %s\n", gnutls_strerror (tls_certs_count));
  } else if (tls_certs_count == 0) {
    console_put ("Warning: GnuTLS didn't find any certificates\n");
  }
  assert (tls_certs_count >= 0);
  return credentials;
}

void
deinit_tls_global (gnutls_certificate_credentials_t credentials)
{
  gnutls_certificate_free_credentials (credentials);
  gnutls_global_deinit ();
}

// ---- The queue of a session ----
// A stanza of 60 KB is 6,000 records. Written one by one, each is a system call, and where the thread
// is held up between two of them the server gets a stanza in pieces with a pause between, which some
// servers' parsers then hold back until more comes. So the records of a stanza are collected, and
// reach the socket in as few writes as their number allows. What the socket does not take stays in
// the queue, so that no sender waits for a server that does not read.

static const u64 COLLECTED_SIZE_MAX = (u64) 16 * 1024;  // bytes of finished records to a write

// Where a stanza ends.
struct StanzaMark {
  u64 pushed_size;  // what had been pushed then
  u64 given_size;
  u64 given_count;
};

struct SendQueue {
  pthread_mutex_t mutex;  // held for a whole stanza; guards all of the record, and the session
  SocketDescriptor socket;
  GByteArray *records;  // encrypted; what is before `front` has been written
  u64 front;
  u64 fresh_size;   // bytes at the end that no write was tried with
  u64 pushed_size;  // bytes of records since the session began, here and below
  u64 written_size;
  GArray *marks;         // `StanzaMark`: stanzas that the socket has not taken whole
  u64 stanza_taken;      // bytes of the stanza at hand that finished records carry
  u64 stanza_written;    // of those, the bytes that were written or wait
  bool ends_now;         // the record at hand is the stanza's last: nothing is kept back
  int error;             // `errno` of the write that failed; 0 while none has
  bool is_dry;           // the record that this thread receives has not come whole
  bool is_full;          // a stanza was refused, so none may follow
  bool is_change_known;  // the handler was called for the state as it is
  TLSSendState state;
  TLSSendHandler handler;
  void *handler_data;
};

// The queue of the session that this thread is sending or receiving on. A handshake does without: its
// records go out at once, and it waits for those of the server.
static thread_local SendQueue *current_queue;

static SendQueue *
alloc_send_queue (SocketDescriptor socket)
{
  SendQueue *queue = (SendQueue *) calloc (1, sizeof (SendQueue));
  pthread_mutex_init (&queue->mutex, NULL);
  queue->socket = socket;
  queue->records = g_byte_array_new ();
  queue->marks = g_array_new (FALSE, FALSE, sizeof (StanzaMark));
  return queue;
}

static void
dealloc_send_queue (SendQueue *queue)
{
  g_array_unref (queue->marks);
  g_byte_array_unref (queue->records);
  pthread_mutex_destroy (&queue->mutex);
  free (queue);
}

// NULL for a session that `init_tls_session` did not make.
static SendQueue *
get_send_queue (gnutls_session_t session)
{
  return (SendQueue *) gnutls_session_get_ptr (session);
}

static void
note_written (SendQueue *queue)
{
  guint done_count = 0;
  while (done_count < queue->marks->len) {
    StanzaMark *mark = &g_array_index (queue->marks, StanzaMark, done_count);
    if (mark->pushed_size > queue->written_size)
      break;
    queue->state.taken_size = mark->given_size;
    queue->state.taken_count = mark->given_count;
    done_count++;
  }
  if (done_count) {
    g_array_remove_range (queue->marks, 0, done_count);
    queue->is_change_known = false;
  }
}

// Gives back the room of what was written, but not at every write: the rest is moved.
static void
trim_queue (SendQueue *queue)
{
  if (queue->front < queue->records->len && queue->front < queue->records->len / 2)
    return;
  g_byte_array_remove_range (queue->records, 0, (guint) queue->front);
  queue->front = 0;
}

static void
lose_queue (SendQueue *queue, int error)
{
  queue->error = error;
  queue->front = queue->records->len;
  queue->state.is_lost = true;
  queue->is_change_known = false;
}

// Writes what the socket takes. False, with the reason in `errno`, when the connection is lost.
static bool
write_queue (SendQueue *queue)
{
  while (queue->front < queue->records->len) {
    String rest = {queue->records->data + queue->front, queue->records->len - queue->front};
    s64 written_size = os_send_now (queue->socket, rest);
    if (written_size < 0)
      lose_queue (queue, errno);
    if (written_size <= 0)
      break;
    queue->front += (u64) written_size;
    queue->written_size += (u64) written_size;
  }
  queue->fresh_size = 0;
  note_written (queue);
  trim_queue (queue);
  bool was_waiting = queue->state.waiting_size;
  queue->state.waiting_size = queue->records->len - queue->front;
  if (was_waiting != (queue->state.waiting_size != 0))
    queue->is_change_known = false;
  errno = queue->error;
  return !queue->error;
}

static bool
write_collected_records (SendQueue *queue)
{
  if (!write_queue (queue))
    return false;
  queue->stanza_written = queue->stanza_taken;
  return true;
}

// What GnuTLS writes with; results and `errno` are those of `send`.
static ssize_t
push_record (gnutls_transport_ptr_t transport, const void *data, size_t size)
{
  String record = {(u8 *) data, size};
  SendQueue *queue = current_queue;
  if (!queue)
    return os_send_all (GPOINTER_TO_INT (transport), record) ? (ssize_t) size : -1;
  if (queue->error) {
    errno = queue->error;
    return -1;
  }
  if (queue->fresh_size + size > COLLECTED_SIZE_MAX && !write_collected_records (queue))
    return -1;
  g_byte_array_append (queue->records, record.data, (guint) record.size);
  queue->fresh_size += size;
  queue->pushed_size += size;
  if (queue->ends_now && !write_collected_records (queue))
    return -1;
  return (ssize_t) size;
}

// What GnuTLS reads with; results and `errno` are those of `recv`.
static ssize_t
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): the order is that of GnuTLS.
pull_record (gnutls_transport_ptr_t transport, void *data, size_t size)
{
  SocketDescriptor socket = GPOINTER_TO_INT (transport);
  SendQueue *queue = current_queue;
  if (!queue)
    os_wait_readable (socket, -1);
  s64 received_size = os_recv_now (socket, {(u8 *) data, size});
  if (queue)
    queue->is_dry = received_size < 0 && errno == EAGAIN;
  return received_size;
}

// GnuTLS takes its own function for this only beside its own reading.
static int
wait_for_record (gnutls_transport_ptr_t transport, unsigned int timeout_ms)
{
  return gnutls_system_recv_timeout (transport, timeout_ms);
}

// Tells the session's owner when something has changed. The queue is not locked.
static void
tell_send_handler (SendQueue *queue)
{
  pthread_mutex_lock (&queue->mutex);
  TLSSendHandler handler = queue->is_change_known ? NULL : queue->handler;
  void *data = queue->handler_data;
  if (handler)
    queue->is_change_known = true;
  pthread_mutex_unlock (&queue->mutex);
  if (handler)
    handler (data);
}

void
set_tls_send_handler (gnutls_session_t session, TLSSendHandler handler, void *data)
{
  SendQueue *queue = get_send_queue (session);
  if (!queue)
    return;
  pthread_mutex_lock (&queue->mutex);
  queue->handler = handler;
  queue->handler_data = data;
  queue->is_change_known = !queue->state.waiting_size && !queue->state.is_lost;
  pthread_mutex_unlock (&queue->mutex);
  tell_send_handler (queue);
}

TLSSendState
get_tls_send_state (gnutls_session_t session)
{
  SendQueue *queue = get_send_queue (session);
  if (!queue)
    return {};
  pthread_mutex_lock (&queue->mutex);
  TLSSendState state = queue->state;
  pthread_mutex_unlock (&queue->mutex);
  return state;
}

bool
has_all_tls_data_left (gnutls_session_t session)
{
  SendQueue *queue = get_send_queue (session);
  if (!queue)
    return true;
  pthread_mutex_lock (&queue->mutex);
  // Looked at with the queue held: nothing may go from one to the other meanwhile.
  bool has_left = !queue->state.waiting_size && !os_get_unconfirmed_size (queue->socket);
  pthread_mutex_unlock (&queue->mutex);
  return has_left;
}

bool
flush_tls_data (gnutls_session_t session, u32 timeout)
{
  SendQueue *queue = get_send_queue (session);
  if (!queue)
    return true;
  gint64 end = g_get_monotonic_time () / 1000 + timeout;
  for (;;) {
    pthread_mutex_lock (&queue->mutex);
    bool is_done = write_queue (queue) && !queue->state.waiting_size;
    bool is_over = is_done || queue->error;
    pthread_mutex_unlock (&queue->mutex);
    tell_send_handler (queue);
    gint64 left = end - g_get_monotonic_time () / 1000;
    if (is_over || left <= 0)
      return is_done;
    os_wait_writable (queue->socket, (int) left);
  }
}

// The thread that receives also sends what waits, until something came that it can receive or
// somebody else sees to the queue.
static void
flush_until_readable (gnutls_session_t session)
{
  SendQueue *queue = get_send_queue (session);
  if (!queue)
    return;
  for (;;) {
    pthread_mutex_lock (&queue->mutex);
    bool is_due = !queue->handler && queue->state.waiting_size && !queue->error;
    if (is_due)
      write_queue (queue);
    is_due = is_due && queue->state.waiting_size;
    pthread_mutex_unlock (&queue->mutex);
    if (!is_due || gnutls_record_check_pending (session) ||
        os_wait_readable_or_writable (queue->socket))
      return;
  }
}

// ---- Session ----

// Why the server's certificate was refused, on the console.
static void
log_certificate_error (gnutls_session_t session)
{
  gnutls_certificate_type_t cert_type = gnutls_certificate_type_get (session);
  unsigned int cert_verify_status = gnutls_session_get_verify_cert_status (session);
  console_log ("cert_type: %s\n", gnutls_certificate_type_get_name (cert_type));
  CONSOLE_DUMP (cert_verify_status);
  assert (cert_type == GNUTLS_CRT_X509);
  gnutls_datum_t status = {};
  [[maybe_unused]] int print_error =
    gnutls_certificate_verification_status_print (cert_verify_status, cert_type, &status, 0);
  assert (!print_error);
  console_log ("status: %s\n", (char *) status.data);
  gnutls_free (status.data);
}

static int
perform_handshake (gnutls_session_t session, const char *host_name)
{
  for (;;) {
    int handshake_error = gnutls_handshake (session);
    if (handshake_error == 0) {
      char *tls_session_description = gnutls_session_get_desc (session);
      assert (tls_session_description);
      console_log ("Info: GnuTLS session: %s: %s\n", host_name, tls_session_description);
      gnutls_free (tls_session_description);
      return 0;
    }
    console_log ("Warning: GnuTLS handshake error %d: %s\n", handshake_error,
                 gnutls_strerror (handshake_error));
    if (handshake_error == GNUTLS_E_CERTIFICATE_VERIFICATION_ERROR) {
      log_certificate_error (session);
    }
    if (gnutls_error_is_fatal (handshake_error)) {
      return -1;
    }
  }
}

int
init_tls_session (gnutls_certificate_credentials_t credentials, SocketDescriptor socket,
                  String host, gnutls_session_t *session_out, char **host_name_out)
{
  gnutls_session_t session = NULL;
  [[maybe_unused]] int tls_init_error = gnutls_init (&session, GNUTLS_CLIENT);
  assert (!tls_init_error);
  [[maybe_unused]] int tls_server_name_set_error =
    gnutls_server_name_set (session, GNUTLS_NAME_DNS, host.data, host.size);
  assert (!tls_server_name_set_error);
  [[maybe_unused]] int tls_set_priority_error = gnutls_set_default_priority (session);
  assert (!tls_set_priority_error);
  [[maybe_unused]] int tls_credentials_set_error =
    gnutls_credentials_set (session, GNUTLS_CRD_CERTIFICATE, credentials);
  assert (!tls_credentials_set_error);

  // GnuTLS keeps the pointer and reads the name during the handshake and at every later one.
  char *host_name = alloc_cstr (host);
  *host_name_out = host_name;
  gnutls_session_set_verify_cert (session, host_name, 0);
  gnutls_session_set_ptr (session, alloc_send_queue (socket));
  gnutls_transport_set_int2 (session, socket, socket);
  gnutls_transport_set_push_function (session, push_record);
  gnutls_transport_set_pull_function (session, pull_record);
  gnutls_transport_set_pull_timeout_function (session, wait_for_record);
  gnutls_handshake_set_timeout (session, GNUTLS_DEFAULT_HANDSHAKE_TIMEOUT);

  int result = perform_handshake (session, host_name);
  *session_out = session;
  return result;
}

void
deinit_tls_session (gnutls_session_t session, char *host_name)
{
  SendQueue *queue = get_send_queue (session);
  gnutls_deinit (session);
  if (queue)
    dealloc_send_queue (queue);
  if (host_name) {
    dealloc_cstr (host_name);
  }
}

// ---- Sending and receiving ----

static const int TLS_ATTEMPTS_MAX = 64;
static const u64 TLS_RECORD_SIZE_MAX = 10;  // bytes of a stanza in one record; meant to be small

u64
send_tls_data (gnutls_session_t session, String data)
{
  u64 amount = data.size < TLS_RECORD_SIZE_MAX ? data.size : TLS_RECORD_SIZE_MAX;
  for (int attempt = 0; attempt < TLS_ATTEMPTS_MAX; ++attempt) {
    ssize_t sent = gnutls_record_send (session, data.data, amount);
    if (sent >= 0) {
      return sent;
    }
    console_log ("Warning: GnuTLS send error %ld: %s\n", sent, gnutls_strerror ((int) sent));
  }
  return 0;
}

// Returns the bytes that were written, or wait and will be.
static u64
send_records (gnutls_session_t session, SendQueue *queue, String stanza)
{
  queue->stanza_taken = 0;
  queue->stanza_written = 0;
  current_queue = queue;
  String rest = stanza;
  while (rest.size) {
    queue->ends_now = rest.size <= TLS_RECORD_SIZE_MAX;
    u64 sent_size = send_tls_data (session, rest);
    if (!sent_size)
      break;
    rest = string_advance (rest, sent_size);
    queue->stanza_taken += sent_size;
  }
  if (queue->fresh_size && !queue->error)
    write_collected_records (queue);
  current_queue = NULL;
  return rest.size ? queue->stanza_written : stanza.size;
}

// The queue is locked.
static u64
give_stanza (gnutls_session_t session, SendQueue *queue, String stanza)
{
  if (queue->state.waiting_size > TLS_QUEUE_SIZE_MAX || queue->is_full) {
    if (!queue->is_full)
      console_put ("Warning: The server takes nothing, and too much waits for it.\n");
    queue->is_full = true;
    queue->state.is_lost = true;
    queue->is_change_known = false;
    return 0;
  }
  u64 sent_size = send_records (session, queue, stanza);
  queue->state.given_size += sent_size;
  if (sent_size != stanza.size) {
    queue->state.is_lost = true;
    queue->is_change_known = false;
    return sent_size;
  }
  queue->state.given_count++;
  if (queue->written_size == queue->pushed_size) {
    queue->state.taken_size = queue->state.given_size;
    queue->state.taken_count = queue->state.given_count;
  } else {
    StanzaMark mark = {queue->pushed_size, queue->state.given_size, queue->state.given_count};
    g_array_append_val (queue->marks, mark);
  }
  return sent_size;
}

// For a session without a queue, which nothing but a test makes, the sender waits.
static u64
send_unqueued (gnutls_session_t session, String data)
{
  u64 total = 0;
  while (total < data.size) {
    u64 sent_size = send_tls_data (session, string_advance (data, total));
    if (!sent_size)
      break;
    total += sent_size;
  }
  return total;
}

u64
send_all_tls_data (gnutls_session_t session, String data)
{
  SendQueue *queue = get_send_queue (session);
  u64 sent_size = 0;
  if (queue) {
    pthread_mutex_lock (&queue->mutex);
    sent_size = give_stanza (session, queue, data);
    pthread_mutex_unlock (&queue->mutex);
    tell_send_handler (queue);
  } else {
    sent_size = send_unqueued (session, data);
  }
  if (sent_size != data.size) {
    console_log ("Warning: Not all TLS data was sent - %ld/%ld bytes were sent.\n", (s64) sent_size,
                 (s64) data.size);
  }
  return sent_size;
}

// One attempt to receive, which waits for a record. GnuTLS lets one thread send while another
// receives, but not while the other takes new keys from the server (RFC 8446, 4.6.3): both then change
// the session's keys. So what has come is taken with the queue locked, and waited for without.
static ssize_t
recv_record (gnutls_session_t session, SendQueue *queue, Buffer buffer)
{
  for (;;) {
    pthread_mutex_lock (&queue->mutex);
    current_queue = queue;
    // What receiving sends, an answer to new keys, has its place behind what waits.
    queue->ends_now = true;
    queue->is_dry = false;
    ssize_t received = gnutls_record_recv (session, buffer.data, buffer.size);
    bool has_to_wait = received == GNUTLS_E_AGAIN && queue->is_dry;
    current_queue = NULL;
    pthread_mutex_unlock (&queue->mutex);
    tell_send_handler (queue);
    if (!has_to_wait)
      return received;
    os_wait_readable (queue->socket, -1);
  }
}

String
recv_tls_data (gnutls_session_t session, Buffer buffer)
{
  flush_until_readable (session);
  SendQueue *queue = get_send_queue (session);
  for (int attempt = 0; attempt < TLS_ATTEMPTS_MAX; ++attempt) {
    ssize_t received = queue ? recv_record (session, queue, buffer)
                             : gnutls_record_recv (session, buffer.data, buffer.size);
    if (received >= 0) {
      return {buffer.data, (u64) received};
    }
    console_log ("Warning: GnuTLS recv error %ld: %s\n", received,
                 gnutls_strerror ((int) received));
  }
  return {buffer.data, 0};
}
