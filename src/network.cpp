// TLS by GnuTLS: the process, the session and its handshake, sending and receiving.
#include "network.h"

#include <assert.h>
#include <pthread.h>

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

// ---- Collecting records ----
// A stanza of 60 KB is 6,000 records. Written one by one, each is a system call, and where the thread
// is held up between two of them the server gets a stanza in pieces with a pause between, which some
// servers' parsers then hold back until more comes. So the records of a stanza are collected, and
// reach the socket in as few writes as their number allows.

static const u64 COLLECTED_SIZE_MAX = (u64) 16 * 1024;  // bytes of finished records

struct RecordCollector {
  u8 *data;       // `COLLECTED_SIZE_MAX` bytes, the front of them filled
  u64 size;       // bytes collected
  u64 taken;      // bytes of the stanza that records before the one at hand carry
  u64 written;    // those of them whose records have reached the socket
  bool ends_now;  // the record at hand is the stanza's last: nothing is kept back
};

// That of the stanza which this thread is sending. Records of a handshake go out at once.
static thread_local RecordCollector *collector;

static bool
write_collected_records (SocketDescriptor socket)
{
  String records = {collector->data, collector->size};
  collector->size = 0;
  if (!os_send_all (socket, records)) {
    return false;
  }
  collector->written = collector->taken;
  return true;
}

// What GnuTLS writes with; results and `errno` are those of `send`.
static ssize_t
push_record (gnutls_transport_ptr_t transport, const void *data, size_t size)
{
  SocketDescriptor socket = GPOINTER_TO_INT (transport);
  String record = {(u8 *) data, size};
  if (!collector) {
    return os_send_all (socket, record) ? (ssize_t) size : -1;
  }
  assert (size <= COLLECTED_SIZE_MAX);
  if (size > COLLECTED_SIZE_MAX) {
    return -1;
  }
  if (collector->size + size > COLLECTED_SIZE_MAX && !write_collected_records (socket)) {
    return -1;
  }
  Buffer room = {collector->data + collector->size, COLLECTED_SIZE_MAX - collector->size};
  buffer_append_string (room, record);
  collector->size += size;
  if (collector->ends_now && !write_collected_records (socket)) {
    return -1;
  }
  return (ssize_t) size;
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
  gnutls_transport_set_int2 (session, socket, socket);
  gnutls_transport_set_push_function (session, push_record);
  gnutls_handshake_set_timeout (session, GNUTLS_DEFAULT_HANDSHAKE_TIMEOUT);

  int result = perform_handshake (session, host_name);
  *session_out = session;
  return result;
}

void
deinit_tls_session (gnutls_session_t session, char *host_name)
{
  gnutls_deinit (session);
  if (host_name) {
    dealloc_cstr (host_name);
  }
}

// ---- Sending and receiving ----

static const int TLS_ATTEMPTS_MAX = 64;
static const u64 TLS_RECORD_SIZE_MAX = 10;  // bytes of a stanza in one record; meant to be small

// Held for a whole stanza. A plain mutex, so that the thread sanitizer sees it.
static pthread_mutex_t tls_send_mutex = PTHREAD_MUTEX_INITIALIZER;

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

// Returns the bytes that reached the socket.
static u64
send_stanza (gnutls_session_t session, String stanza)
{
  u8 records[COLLECTED_SIZE_MAX];
  RecordCollector own_collector = {records, 0, 0, 0, false};
  collector = &own_collector;
  String rest = stanza;
  while (rest.size) {
    collector->ends_now = rest.size <= TLS_RECORD_SIZE_MAX;
    u64 sent = send_tls_data (session, rest);
    if (!sent) {
      break;
    }
    rest = string_advance (rest, sent);
    collector->taken += sent;
  }
  if (collector->size) {
    write_collected_records (gnutls_transport_get_int (session));
  }
  collector = NULL;
  return rest.size ? own_collector.written : stanza.size;
}

u64
send_all_tls_data (gnutls_session_t session, String data)
{
  pthread_mutex_lock (&tls_send_mutex);
  u64 sent_size = send_stanza (session, data);
  pthread_mutex_unlock (&tls_send_mutex);
  if (sent_size != data.size) {
    console_log ("Warning: Not all TLS data was sent - %ld/%ld bytes were sent.\n", (s64) sent_size,
                 (s64) data.size);
  }
  return sent_size;
}

String
recv_tls_data (gnutls_session_t session, Buffer buffer)
{
  for (int attempt = 0; attempt < TLS_ATTEMPTS_MAX; ++attempt) {
    ssize_t received = gnutls_record_recv (session, buffer.data, buffer.size);
    if (received >= 0) {
      return {buffer.data, (u64) received};
    }
    console_log ("Warning: GnuTLS recv error %ld: %s\n", received,
                 gnutls_strerror ((int) received));
  }
  return {buffer.data, 0};
}
