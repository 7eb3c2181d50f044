// TLS by GnuTLS: the process, the session and its handshake, sending and receiving.
#include "network.h"

#include <assert.h>
#include <pthread.h>

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

u64
send_all_tls_data (gnutls_session_t session, String data)
{
  String rest = data;
  pthread_mutex_lock (&tls_send_mutex);
  while (rest.size) {
    u64 sent = send_tls_data (session, rest);
    if (!sent) {
      break;
    }
    rest = string_advance (rest, sent);
  }
  pthread_mutex_unlock (&tls_send_mutex);
  if (!rest.size) {
    return data.size;
  }
  s64 sent_size = data.size - rest.size;
  console_log ("Warning: Not all TLS data was sent - %ld/%ld bytes were sent.\n", sent_size,
               (s64) data.size);
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
