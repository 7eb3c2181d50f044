// TLS against a scripted server in the private world of scripts/world, with good and bad
// certificates. What a real server cannot bring about is done by standing in for single functions
// of GnuTLS.
#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "morvane.h"
#include "network.h"
#include "scripted_server.h"

// ---- Standing in for GnuTLS ----

// What the functions below do on this thread instead of their work; all zero for their work. The
// server's thread never sets any of it.
struct Forced {
  int global_init_error;
  int allocate_credentials_error;
  bool has_trust_count;
  int trust_count;
  int init_error;
  int server_name_set_error;
  int set_priority_error;
  int credentials_set_error;
  bool has_no_description;
  bool has_raw_key_type;
  int print_error;
  int handshake_failures;      // so many handshakes give GNUTLS_E_AGAIN
  bool yields_before_records;  // offers the processor to the other thread
  int send_passes;             // so many sends work before the failing ones
  int send_failures;           // so many sends give GNUTLS_E_PUSH_ERROR
  int recv_failures;           // so many receives give GNUTLS_E_AGAIN
  int recv_key_updates;        // so many receives answer to new keys at once
  size_t send_limit;           // a send takes at most so many bytes
  int write_passes;            // so many writes to the socket work before the failing ones
  int write_failures;          // so many of them give ECONNRESET
};

static thread_local Forced forced;
static thread_local std::vector<size_t> offered_sizes;  // what each send was given
static thread_local std::vector<size_t> written_sizes;  // what each write to the socket was given
static thread_local std::vector<std::string> release_calls;
static thread_local unsigned int handshake_timeout;

// A session on which no two calls may send or receive at the same time, and how often they did.
static gnutls_session_t watched_session;
static gint watched_calls_count;
static gint overlaps_count;

static bool
enter_call (gnutls_session_t session)
{
  bool is_watched = g_atomic_pointer_get (&watched_session) == session;
  if (is_watched && g_atomic_int_add (&watched_calls_count, 1))
    g_atomic_int_inc (&overlaps_count);
  return is_watched;
}

static void
leave_call (bool is_watched)
{
  if (is_watched)
    g_atomic_int_add (&watched_calls_count, -1);
}

#define CALL_REAL(function, ...) ((decltype (&function)) dlsym (RTLD_NEXT, #function)) (__VA_ARGS__)

int
gnutls_global_init ()
{
  int error = forced.global_init_error;
  return error ? error : CALL_REAL (gnutls_global_init);
}

void
gnutls_global_deinit ()
{
  release_calls.push_back ("library");
  CALL_REAL (gnutls_global_deinit);
}

int
gnutls_certificate_allocate_credentials (gnutls_certificate_credentials_t *credentials)
{
  int error = forced.allocate_credentials_error;
  return error ? error : CALL_REAL (gnutls_certificate_allocate_credentials, credentials);
}

void
gnutls_certificate_free_credentials (gnutls_certificate_credentials_t credentials)
{
  release_calls.push_back ("credentials");
  CALL_REAL (gnutls_certificate_free_credentials, credentials);
}

int
gnutls_certificate_set_x509_system_trust (gnutls_certificate_credentials_t credentials)
{
  if (forced.has_trust_count) {
    return forced.trust_count;
  }
  return CALL_REAL (gnutls_certificate_set_x509_system_trust, credentials);
}

int
gnutls_init (gnutls_session_t *session, unsigned int flags)
{
  return forced.init_error ? forced.init_error : CALL_REAL (gnutls_init, session, flags);
}

int
gnutls_server_name_set (gnutls_session_t session, gnutls_server_name_type_t type, const void *name,
                        size_t size)
{
  int error = forced.server_name_set_error;
  return error ? error : CALL_REAL (gnutls_server_name_set, session, type, name, size);
}

int
gnutls_set_default_priority (gnutls_session_t session)
{
  int error = forced.set_priority_error;
  return error ? error : CALL_REAL (gnutls_set_default_priority, session);
}

int
gnutls_credentials_set (gnutls_session_t session, gnutls_credentials_type_t type, void *credentials)
{
  int error = forced.credentials_set_error;
  return error ? error : CALL_REAL (gnutls_credentials_set, session, type, credentials);
}

void
gnutls_handshake_set_timeout (gnutls_session_t session, unsigned int ms)
{
  handshake_timeout = ms;
  CALL_REAL (gnutls_handshake_set_timeout, session, ms);
}

int
gnutls_handshake (gnutls_session_t session)
{
  if (forced.handshake_failures > 0) {
    --forced.handshake_failures;
    return GNUTLS_E_AGAIN;
  }
  return CALL_REAL (gnutls_handshake, session);
}

char *
gnutls_session_get_desc (gnutls_session_t session)
{
  return forced.has_no_description ? NULL : CALL_REAL (gnutls_session_get_desc, session);
}

gnutls_certificate_type_t
gnutls_certificate_type_get (gnutls_session_t session)
{
  return forced.has_raw_key_type ? GNUTLS_CRT_RAWPK
                                 : CALL_REAL (gnutls_certificate_type_get, session);
}

int
gnutls_certificate_verification_status_print (unsigned int status, gnutls_certificate_type_t type,
                                              gnutls_datum_t *out, unsigned int flags)
{
  int error = forced.print_error;
  if (error) {
    return error;
  }
  return CALL_REAL (gnutls_certificate_verification_status_print, status, type, out, flags);
}

ssize_t
gnutls_record_send (gnutls_session_t session, const void *data, size_t size)
{
  offered_sizes.push_back (size);
  if (forced.yields_before_records) {
    sched_yield ();
  }
  if (forced.send_passes > 0) {
    --forced.send_passes;
  } else if (forced.send_failures > 0) {
    --forced.send_failures;
    return GNUTLS_E_PUSH_ERROR;
  }
  size_t amount = forced.send_limit && forced.send_limit < size ? forced.send_limit : size;
  bool is_watched = enter_call (session);
  ssize_t sent = CALL_REAL (gnutls_record_send, session, data, amount);
  leave_call (is_watched);
  return sent;
}

ssize_t
send (int socket, const void *data, size_t size, int flags)
{
  written_sizes.push_back (size);
  if (forced.write_passes > 0) {
    --forced.write_passes;
  } else if (forced.write_failures > 0) {
    --forced.write_failures;
    errno = ECONNRESET;
    return -1;
  }
  return CALL_REAL (send, socket, data, size, flags);
}

ssize_t
gnutls_record_recv (gnutls_session_t session, void *data, size_t size)
{
  if (forced.recv_failures > 0) {
    --forced.recv_failures;
    return GNUTLS_E_AGAIN;
  }
  if (forced.recv_key_updates > 0) {
    --forced.recv_key_updates;
    EXPECT_EQ (gnutls_session_key_update (session, 0), 0);
  }
  bool is_watched = enter_call (session);
  ssize_t received = CALL_REAL (gnutls_record_recv, session, data, size);
  leave_call (is_watched);
  return received;
}

// ---- Helpers ----

class WorldEnvironment : public testing::Environment {
  void SetUp () override
  {
    // As the program does at its start.
    signal (SIGPIPE, SIG_IGN);
    ASSERT_TRUE (getenv ("MORVANE_WORLD")) << "run this test in scripts/world: it needs a private "
                                              "network and certificates";
  }
};

static testing::Environment *const world_environment =
  testing::AddGlobalTestEnvironment (new WorldEnvironment);

static std::string
to_std_string (String string)
{
  return std::string ((const char *) string.data, string.size);
}

static String
to_view (const std::string &text)
{
  return {(u8 *) text.data (), text.size ()};
}

static std::string
repeat (const std::string &text, int count)
{
  std::string result;
  for (int index = 0; index < count; ++index) {
    result += text;
  }
  return result;
}

static void
expect_matches (const std::string &text, const std::string &pattern)
{
  EXPECT_TRUE (testing::internal::RE::FullMatch (text, testing::internal::RE (pattern)))
    << "text: " << text << "\npattern: " << pattern;
}

// The program's side of one connection.
struct Client {
  gnutls_certificate_credentials_t credentials;
  SocketDescriptor socket;
  gnutls_session_t session;
  char *host_name;
  int result;           // of the handshake
  std::string console;  // what the handshake wrote
};

static ScriptedServer *
start_server (const ServerScript &script)
{
  ServerOptions options;
  options.port = 0;
  return scripted_server_start (script, options);
}

// Connects and performs the handshake with a server that must be `host`.
static Client
open_client (ScriptedServer *server, const std::string &host)
{
  Client client = {};
  testing::internal::CaptureStdout ();
  client.credentials = init_tls_global ();
  std::string port = std::to_string (scripted_server_port (server));
  int connect_error = os_connect (to_string ("127.0.0.1"), port.c_str (), &client.socket);
  testing::internal::GetCapturedStdout ();
  EXPECT_EQ (connect_error, 0);

  testing::internal::CaptureStdout ();
  client.result = init_tls_session (client.credentials, client.socket, to_view (host),
                                    &client.session, &client.host_name);
  client.console = testing::internal::GetCapturedStdout ();
  return client;
}

static void
close_client (Client *client)
{
  deinit_tls_session (client->session, client->host_name);
  os_close_connection (client->socket);
  deinit_tls_global (client->credentials);
  *client = {};
}

// A connection whose handshake went well, and the server behind it.
struct Link {
  ScriptedServer *server;
  Client client;
};

static Link
open_link (const ServerScript &steps, bool with_tickets = false)
{
  ServerScript script = {server_accept (), server_handshake ("alpha.test", with_tickets)};
  script_append (&script, steps);
  Link link = {};
  link.server = start_server (script);
  link.client = open_client (link.server, "alpha.test");
  EXPECT_EQ (link.client.result, 0);
  return link;
}

// What the server saw after all its steps went well.
static ServerReport
close_link (Link *link)
{
  close_client (&link->client);
  ServerReport report = scripted_server_finish (link->server);
  EXPECT_EQ (report.failure, "");
  return report;
}

// Until what the server did to the connection has arrived.
static void
wait_for_peer (SocketDescriptor socket)
{
  struct pollfd fd = {socket, POLLIN, 0};
  EXPECT_EQ (poll (&fd, 1, 10000), 1);
}

struct Received {
  std::string text;
  std::string console;
  bool is_view_over_buffer;
};

static Received
receive (gnutls_session_t session, u64 size = 65536)
{
  Buffer buffer = alloc (size);
  testing::internal::CaptureStdout ();
  String data = recv_tls_data (session, buffer);
  Received received = {};
  received.console = testing::internal::GetCapturedStdout ();
  received.text = to_std_string (data);
  received.is_view_over_buffer = data.data == buffer.data;
  dealloc (buffer);
  return received;
}

struct Sent {
  u64 size;
  std::string console;
};

static Sent
send_all (gnutls_session_t session, const std::string &text)
{
  offered_sizes.clear ();
  written_sizes.clear ();
  testing::internal::CaptureStdout ();
  Sent sent = {};
  sent.size = send_all_tls_data (session, to_view (text));
  sent.console = testing::internal::GetCapturedStdout ();
  return sent;
}

static Sent
send_one (gnutls_session_t session, const std::string &text)
{
  offered_sizes.clear ();
  testing::internal::CaptureStdout ();
  Sent sent = {};
  sent.size = send_tls_data (session, to_view (text));
  sent.console = testing::internal::GetCapturedStdout ();
  return sent;
}

// In a death test: what the console says goes where the test can see it.
static void
show_console ()
{
  dup2 (STDERR_FILENO, STDOUT_FILENO);
  setvbuf (stdout, NULL, _IONBF, 0);
}

static const char PUSH_ERROR_LINE[] =
  "Warning: GnuTLS send error -53: Error in the push function.\n";
static const char RESET_LINE[] =
  "Warning: GnuTLS send error -110: The TLS connection was non-properly terminated.\n";
static const char INVALID_SESSION_SEND_LINE[] =
  "Warning: GnuTLS send error -10: The specified session has been invalidated for some reason.\n";
static const char AGAIN_LINE[] =
  "Warning: GnuTLS recv error -28: Resource temporarily unavailable, try again.\n";
static const char INVALID_SESSION_RECV_LINE[] =
  "Warning: GnuTLS recv error -10: The specified session has been invalidated for some reason.\n";
static const char TWENTY_FIVE_BYTES[] = "<presence id='25 bytes'/>";

// ---- Process ----

TEST (init_tls_global, dumps_how_many_certificates_the_system_trusts)
{
  testing::internal::CaptureStdout ();
  gnutls_certificate_credentials_t credentials = init_tls_global ();
  std::string console = testing::internal::GetCapturedStdout ();
  EXPECT_TRUE (credentials);
  expect_matches (console, "GnuTLS init\\.\\.\\.\ntls_certs_count: [1-9][0-9]* \\(s32\\)\n");
  deinit_tls_global (credentials);
}

TEST (init_tls_global, goes_on_with_a_warning_when_nothing_is_trusted)
{
  forced = {};
  forced.has_trust_count = true;
  testing::internal::CaptureStdout ();
  gnutls_certificate_credentials_t credentials = init_tls_global ();
  EXPECT_EQ (testing::internal::GetCapturedStdout (),
             "GnuTLS init...\n"
             "tls_certs_count: 0 (s32)\n"
             "Warning: GnuTLS didn't find any certificates\n");
  EXPECT_TRUE (credentials);
  deinit_tls_global (credentials);
  forced = {};
}

static void
init_with_unreadable_trust ()
{
  show_console ();
  forced.has_trust_count = true;
  forced.trust_count = GNUTLS_E_FILE_ERROR;
  init_tls_global ();
}

TEST (init_tls_global, stops_the_program_when_the_trust_cannot_be_read)
{
  EXPECT_DEATH (init_with_unreadable_trust (),
                "GnuTLS init\\.\\.\\.\n"
                "tls_certs_count: -64 \\(s32\\)\n"
                "Error: GnuTLS set certificates: Error while reading file\\.\n"
                ".*src/network\\.cpp.*tls_certs_count >= 0");
}

static void
init_without_library ()
{
  forced.global_init_error = GNUTLS_E_MEMORY_ERROR;
  init_tls_global ();
}

TEST (init_tls_global, stops_the_program_without_the_library)
{
  EXPECT_DEATH (init_without_library (), "src/network\\.cpp.*!tls_global_init_error");
}

static void
init_without_credentials ()
{
  forced.allocate_credentials_error = GNUTLS_E_MEMORY_ERROR;
  init_tls_global ();
}

TEST (init_tls_global, stops_the_program_without_credentials)
{
  EXPECT_DEATH (init_without_credentials (), "src/network\\.cpp.*!tls_creds_alloc_error");
}

TEST (deinit_tls_global, releases_the_credentials_before_the_library)
{
  testing::internal::CaptureStdout ();
  gnutls_certificate_credentials_t credentials = init_tls_global ();
  testing::internal::GetCapturedStdout ();
  release_calls.clear ();
  deinit_tls_global (credentials);
  EXPECT_EQ (release_calls, (std::vector<std::string>{"credentials", "library"}));
}

TEST (deinit_tls_global, can_be_followed_by_another_start)
{
  for (int round = 0; round < 2; ++round) {
    Link link = open_link ({server_expect ("ping"), server_expect_end ()});
    EXPECT_EQ (send_all (link.client.session, "ping").size, 4u);
    close_link (&link);
  }
}

// ---- Session ----

TEST (init_tls_session, describes_a_good_handshake)
{
  Link link = open_link ({server_expect_end ()});
  expect_matches (link.client.console,
                  "Info: GnuTLS session: alpha\\.test: \\(TLS1\\.3\\)-[^\n]*\n");
  close_link (&link);
}

TEST (init_tls_session, asks_for_the_host_by_name)
{
  Link link = open_link ({server_expect_end ()});
  ServerReport report = close_link (&link);
  EXPECT_EQ (report.server_name, "alpha.test");
}

TEST (init_tls_session, returns_a_terminated_copy_of_the_host_name)
{
  ServerScript script = {server_accept (), server_handshake ("alpha.test"), server_expect_end ()};
  Link link = {start_server (script), {}};
  Client *client = &link.client;
  std::string text = "alpha.test/and more";
  testing::internal::CaptureStdout ();
  client->credentials = init_tls_global ();
  std::string port = std::to_string (scripted_server_port (link.server));
  ASSERT_EQ (os_connect (to_string ("127.0.0.1"), port.c_str (), &client->socket), 0);
  EXPECT_EQ (init_tls_session (client->credentials, client->socket, {(u8 *) text.data (), 10},
                               &client->session, &client->host_name),
             0);
  testing::internal::GetCapturedStdout ();
  EXPECT_STREQ (client->host_name, "alpha.test");
  EXPECT_NE ((const void *) client->host_name, (const void *) text.data ());
  close_link (&link);
}

TEST (init_tls_session, bounds_the_handshake_by_the_default_time)
{
  handshake_timeout = 0;
  Link link = open_link ({server_expect_end ()});
  EXPECT_EQ (handshake_timeout, GNUTLS_DEFAULT_HANDSHAKE_TIMEOUT);
  close_link (&link);
}

TEST (init_tls_session, repeats_a_handshake_that_may_go_on)
{
  forced = {};
  forced.handshake_failures = 70;
  Link link = open_link ({server_expect_end ()});
  std::string warning =
    "Warning: GnuTLS handshake error -28: Resource temporarily unavailable, try again.\n";
  EXPECT_EQ (link.client.console.substr (0, 70 * warning.size ()), repeat (warning, 70));
  expect_matches (link.client.console.substr (70 * warning.size ()),
                  "Info: GnuTLS session: [^\n]*\n");
  close_link (&link);
}

struct RefusedCertificate {
  const char *name;    // of the test
  const char *shown;   // whose certificate the server shows
  const char *host;    // which host the program means
  const char *status;  // the bits, in decimal
  const char *text;    // what of the status differs
};

static std::ostream &
operator<< (std::ostream &stream, const RefusedCertificate &refused)
{
  return stream << refused.name;
}

class init_tls_session_refused : public testing::TestWithParam<RefusedCertificate> {};

TEST_P (init_tls_session_refused, explains_itself_and_returns_an_error)
{
  RefusedCertificate refused = GetParam ();
  ServerScript script = {server_accept (), server_refused_handshake (refused.shown)};
  Link link = {start_server (script), {}};
  link.client = open_client (link.server, refused.host);
  EXPECT_EQ (link.client.result, -1);
  EXPECT_EQ (link.client.console, std::string ("Warning: GnuTLS handshake error -348: Error in the "
                                               "certificate verification.\n"
                                               "cert_type: X.509\n"
                                               "cert_verify_status: ") +
                                    refused.status +
                                    " (u32)\nstatus: The certificate is NOT trusted. " +
                                    refused.text + " \n");
  EXPECT_TRUE (link.client.session);
  EXPECT_STREQ (link.client.host_name, refused.host);
  close_link (&link);
}

static std::string
get_refused_name (const testing::TestParamInfo<RefusedCertificate> &info)
{
  return info.param.name;
}

INSTANTIATE_TEST_SUITE_P (
  certificates, init_tls_session_refused,
  testing::Values (RefusedCertificate{"expired", "expired.test", "expired.test", "1026",
                                      "The certificate chain uses expired certificate."},
                   RefusedCertificate{"not_yet_valid", "future.test", "future.test", "514",
                                      "The certificate chain uses not yet valid certificate."},
                   RefusedCertificate{"self_signed", "selfsigned.test", "selfsigned.test", "66",
                                      "The certificate issuer is unknown."},
                   RefusedCertificate{"of_an_unknown_authority", "unknown-ca.test",
                                      "unknown-ca.test", "66",
                                      "The certificate issuer is unknown."},
                   RefusedCertificate{"of_another_host", "wrong.test", "wrong.test", "16386",
                                      "The name in the certificate does not match the expected."},
                   RefusedCertificate{"good_but_of_a_neighbour", "beta.test", "alpha.test", "16386",
                                      "The name in the certificate does not match the expected."}),
  get_refused_name);

TEST (init_tls_session, is_refused_when_nothing_is_trusted)
{
  forced = {};
  forced.has_trust_count = true;
  ServerScript script = {server_accept (), server_refused_handshake ("alpha.test")};
  Link link = {start_server (script), {}};
  link.client = open_client (link.server, "alpha.test");
  forced = {};
  EXPECT_EQ (link.client.result, -1);
  EXPECT_EQ (link.client.console,
             "Warning: GnuTLS handshake error -348: Error in the certificate verification.\n"
             "cert_type: X.509\n"
             "cert_verify_status: 66 (u32)\n"
             "status: The certificate is NOT trusted. The certificate issuer is unknown. \n");
  close_link (&link);
}

TEST (init_tls_session, fails_when_the_server_speaks_no_tls)
{
  ServerScript script = {server_accept (), server_send ("<stream:error/>, and no TLS at all")};
  Link link = {start_server (script), {}};
  link.client = open_client (link.server, "alpha.test");
  EXPECT_EQ (link.client.result, -1);
  expect_matches (link.client.console, "Warning: GnuTLS handshake error -[0-9]+: [^\n]+\n");
  EXPECT_TRUE (link.client.session);
  EXPECT_STREQ (link.client.host_name, "alpha.test");
  close_client (&link.client);
  EXPECT_EQ (scripted_server_stop (link.server).failure, "");
}

TEST (init_tls_session, fails_when_the_server_goes_away)
{
  ServerScript script = {server_accept (), server_fin ()};
  Link link = {start_server (script), {}};
  link.client = open_client (link.server, "alpha.test");
  EXPECT_EQ (link.client.result, -1);
  EXPECT_EQ (link.client.console, "Warning: GnuTLS handshake error -110: The TLS connection was "
                                  "non-properly terminated.\n");
  close_link (&link);
}

// The handshake with a server that shows the certificate of `shown`, inside a death test.
static void
perform_handshake (const std::string &shown)
{
  ServerScript script = {server_accept (), server_handshake (shown)};
  ScriptedServer *server = start_server (script);
  open_client (server, shown);
}

// Fails before anything is sent: no server is needed.
static void
begin_session ()
{
  gnutls_session_t session;
  char *host_name;
  gnutls_certificate_credentials_t credentials = init_tls_global ();
  init_tls_session (credentials, -1, to_string ("alpha.test"), &session, &host_name);
}

static void
begin_without_session ()
{
  forced.init_error = GNUTLS_E_MEMORY_ERROR;
  begin_session ();
}

TEST (init_tls_session, stops_the_program_without_a_session)
{
  EXPECT_DEATH (begin_without_session (), "src/network\\.cpp.*!tls_init_error");
}

static void
begin_without_server_name ()
{
  forced.server_name_set_error = GNUTLS_E_MEMORY_ERROR;
  begin_session ();
}

TEST (init_tls_session, stops_the_program_without_a_server_name)
{
  EXPECT_DEATH (begin_without_server_name (), "src/network\\.cpp.*!tls_server_name_set_error");
}

static void
begin_without_priority ()
{
  forced.set_priority_error = GNUTLS_E_MEMORY_ERROR;
  begin_session ();
}

TEST (init_tls_session, stops_the_program_without_priorities)
{
  EXPECT_DEATH (begin_without_priority (), "src/network\\.cpp.*!tls_set_priority_error");
}

static void
begin_without_credentials ()
{
  forced.credentials_set_error = GNUTLS_E_MEMORY_ERROR;
  begin_session ();
}

TEST (init_tls_session, stops_the_program_without_its_credentials)
{
  EXPECT_DEATH (begin_without_credentials (), "src/network\\.cpp.*!tls_credentials_set_error");
}

static void
begin_without_description ()
{
  forced.has_no_description = true;
  perform_handshake ("alpha.test");
}

TEST (init_tls_session, stops_the_program_without_a_description)
{
  EXPECT_DEATH (begin_without_description (), "src/network\\.cpp.*tls_session_description");
}

static void
refuse_raw_key ()
{
  forced.has_raw_key_type = true;
  perform_handshake ("expired.test");
}

TEST (init_tls_session, stops_the_program_when_what_it_refuses_is_no_x509_certificate)
{
  EXPECT_DEATH (refuse_raw_key (), "src/network\\.cpp.*cert_type == GNUTLS_CRT_X509");
}

static void
refuse_without_text ()
{
  forced.print_error = GNUTLS_E_MEMORY_ERROR;
  perform_handshake ("expired.test");
}

TEST (init_tls_session, stops_the_program_without_a_text_for_the_status)
{
  EXPECT_DEATH (refuse_without_text (), "src/network\\.cpp.*!print_error");
}

TEST (deinit_tls_session, sends_no_close_notify_and_leaves_the_socket_open)
{
  Link link = open_link ({server_expect_end ()});
  Client *client = &link.client;
  deinit_tls_session (client->session, client->host_name);
  int type;
  socklen_t size = sizeof (type);
  EXPECT_EQ (getsockopt (client->socket, SOL_SOCKET, SO_TYPE, &type, &size), 0);
  os_close_connection (client->socket);
  deinit_tls_global (client->credentials);
  ServerReport report = scripted_server_finish (link.server);
  EXPECT_EQ (report.failure, "");
  EXPECT_EQ (report.end, "fin");
}

TEST (deinit_tls_session, takes_no_host_name)
{
  testing::internal::CaptureStdout ();
  gnutls_certificate_credentials_t credentials = init_tls_global ();
  testing::internal::GetCapturedStdout ();
  gnutls_session_t session;
  ASSERT_EQ (gnutls_init (&session, GNUTLS_CLIENT), 0);
  deinit_tls_session (session, NULL);
  deinit_tls_global (credentials);
}

// ---- Sending ----

TEST (send_tls_data, takes_at_most_ten_bytes)
{
  Link link = open_link ({server_expect ("<presence "), server_expect_end ()});
  Sent sent = send_one (link.client.session, TWENTY_FIVE_BYTES);
  EXPECT_EQ (sent.size, 10u);
  EXPECT_EQ (sent.console, "");
  ServerReport report = close_link (&link);
  EXPECT_EQ (record_sizes (report), (std::vector<size_t>{10}));
}

TEST (send_tls_data, takes_less_when_there_is_less)
{
  Link link = open_link ({server_expect ("abc"), server_expect_end ()});
  EXPECT_EQ (send_one (link.client.session, "abc").size, 3u);
  ServerReport report = close_link (&link);
  EXPECT_EQ (record_sizes (report), (std::vector<size_t>{3}));
}

TEST (send_tls_data, tries_again_after_a_failure)
{
  Link link = open_link ({server_expect ("abc"), server_expect_end ()});
  forced = {};
  forced.send_failures = 63;
  Sent sent = send_one (link.client.session, "abc");
  EXPECT_EQ (sent.size, 3u);
  EXPECT_EQ (sent.console, repeat (PUSH_ERROR_LINE, 63));
  close_link (&link);
}

TEST (send_tls_data, gives_up_after_64_attempts)
{
  Link link = open_link ({server_expect_end ()});
  forced = {};
  forced.send_failures = 1000;
  Sent sent = send_one (link.client.session, TWENTY_FIVE_BYTES);
  forced = {};
  EXPECT_EQ (sent.size, 0u);
  EXPECT_EQ (sent.console, repeat (PUSH_ERROR_LINE, 64));
  EXPECT_EQ (offered_sizes, std::vector<size_t> (64, 10));
  ServerReport report = close_link (&link);
  EXPECT_EQ (report.received, "");
}

TEST (send_all_tls_data, sends_25_bytes_as_three_records)
{
  Link link = open_link ({server_expect (TWENTY_FIVE_BYTES), server_expect_end ()});
  Sent sent = send_all (link.client.session, TWENTY_FIVE_BYTES);
  EXPECT_EQ (sent.size, 25u);
  EXPECT_EQ (sent.console, "");
  ServerReport report = close_link (&link);
  EXPECT_EQ (record_sizes (report), (std::vector<size_t>{10, 10, 5}));
}

TEST (send_all_tls_data, sends_full_records_only_when_ten_divides_the_size)
{
  std::string text (30, 'x');
  Link link = open_link ({server_expect (text), server_expect_end ()});
  EXPECT_EQ (send_all (link.client.session, text).size, 30u);
  ServerReport report = close_link (&link);
  EXPECT_EQ (record_sizes (report), (std::vector<size_t>{10, 10, 10}));
}

TEST (send_all_tls_data, sends_nothing_of_nothing)
{
  Link link = open_link ({server_expect_end ()});
  Sent sent = send_all (link.client.session, "");
  EXPECT_EQ (sent.size, 0u);
  EXPECT_EQ (sent.console, "");
  EXPECT_TRUE (offered_sizes.empty ());
  close_link (&link);
}

TEST (send_all_tls_data, sends_every_byte_as_it_is)
{
  std::string text;
  for (int byte = 0; byte < 256; ++byte) {
    text += (char) byte;
  }
  Link link = open_link ({server_expect (text), server_expect_end ()});
  EXPECT_EQ (send_all (link.client.session, text).size, 256u);
  close_link (&link);
}

TEST (send_all_tls_data, goes_on_behind_what_a_record_took)
{
  Link link = open_link ({server_expect (TWENTY_FIVE_BYTES), server_expect_end ()});
  forced = {};
  forced.send_limit = 4;
  Sent sent = send_all (link.client.session, TWENTY_FIVE_BYTES);
  forced = {};
  EXPECT_EQ (sent.size, 25u);
  EXPECT_EQ (offered_sizes, (std::vector<size_t>{10, 10, 10, 10, 9, 5, 1}));
  ServerReport report = close_link (&link);
  EXPECT_EQ (record_sizes (report), (std::vector<size_t>{4, 4, 4, 4, 4, 4, 1}));
}

TEST (send_all_tls_data, survives_failures_in_between)
{
  Link link = open_link ({server_expect (TWENTY_FIVE_BYTES), server_expect_end ()});
  forced = {};
  forced.send_passes = 1;
  forced.send_failures = 63;
  Sent sent = send_all (link.client.session, TWENTY_FIVE_BYTES);
  EXPECT_EQ (sent.size, 25u);
  EXPECT_EQ (sent.console, repeat (PUSH_ERROR_LINE, 63));
  close_link (&link);
}

TEST (send_all_tls_data, says_how_much_was_sent_when_it_gives_up)
{
  Link link = open_link ({server_expect ("<presence id='25 byt"), server_expect_end ()});
  forced = {};
  forced.send_passes = 2;
  forced.send_failures = 1000;
  Sent sent = send_all (link.client.session, TWENTY_FIVE_BYTES);
  forced = {};
  EXPECT_EQ (sent.size, 20u);
  EXPECT_EQ (sent.console, repeat (PUSH_ERROR_LINE, 64) +
                             "Warning: Not all TLS data was sent - 20/25 bytes were sent.\n");
  close_link (&link);
}

TEST (send_all_tls_data, sends_the_next_stanza_after_it_gave_up)
{
  Link link = open_link ({server_expect ("<presence/>"), server_expect_end ()});
  forced = {};
  forced.send_failures = 64;
  EXPECT_EQ (send_all (link.client.session, TWENTY_FIVE_BYTES).size, 0u);
  EXPECT_EQ (send_all (link.client.session, "<presence/>").size, 11u);
  close_link (&link);
}

TEST (send_all_tls_data, gives_up_on_a_connection_that_was_reset)
{
  Link link = open_link ({server_reset ()});
  wait_for_peer (link.client.socket);
  Sent sent = send_all (link.client.session, TWENTY_FIVE_BYTES);
  EXPECT_EQ (sent.size, 0u);
  expect_matches (sent.console, "(Warning: GnuTLS send error -[0-9]+: [^\n]+\n){64}"
                                "Warning: Not all TLS data was sent - 0/25 bytes were sent\\.\n");
  close_link (&link);
}

TEST (send_all_tls_data, sends_a_long_stanza_whole)
{
  std::string text = "<message>" + std::string (60000, 'x') + "</message>";
  Link link = open_link ({server_expect (text), server_expect_end ()});
  EXPECT_EQ (send_all (link.client.session, text).size, text.size ());
  ServerReport report = close_link (&link);
  EXPECT_EQ (report.records.size (), (text.size () + 9) / 10);
}

TEST (send_all_tls_data, writes_the_records_of_a_stanza_at_once)
{
  Link link = open_link ({server_expect (TWENTY_FIVE_BYTES), server_expect_end ()});
  send_all (link.client.session, TWENTY_FIVE_BYTES);
  EXPECT_EQ (written_sizes.size (), 1u);
  ServerReport report = close_link (&link);
  EXPECT_EQ (record_sizes (report), (std::vector<size_t>{10, 10, 5}));
}

TEST (send_all_tls_data, writes_a_long_stanza_in_few_pieces)
{
  std::string text (60000, 'x');
  Link link = open_link ({server_expect (text), server_expect_end ()});
  send_all (link.client.session, text);
  for (size_t piece = 0; piece < written_sizes.size (); ++piece) {
    EXPECT_LE (written_sizes[piece], 16384u);
    bool is_last = piece + 1 == written_sizes.size ();
    EXPECT_TRUE (is_last || written_sizes[piece] > 16000) << written_sizes[piece];
  }
  close_link (&link);
}

TEST (send_all_tls_data, counts_what_was_written_before_a_write_failed)
{
  Link link = open_link ({server_expect ("x")});
  forced = {};
  forced.write_passes = 1;
  forced.write_failures = 1000;
  Sent sent = send_all (link.client.session, std::string (60000, 'x'));
  forced = {};
  EXPECT_EQ (written_sizes.size (), 2u);
  EXPECT_EQ (sent.size % 10, 0u);
  // What the first write carried: 16 KB of records, each more than twice as long as its ten bytes.
  EXPECT_GT (sent.size, 3000u);
  EXPECT_LT (sent.size, 8192u);
  EXPECT_EQ (sent.console, std::string (RESET_LINE) + repeat (INVALID_SESSION_SEND_LINE, 63) +
                             "Warning: Not all TLS data was sent - " + std::to_string (sent.size) +
                             "/60000 bytes were sent.\n");
  close_link (&link);
}

TEST (send_all_tls_data, counts_nothing_when_the_only_write_failed)
{
  Link link = open_link ({server_expect_end ()});
  forced = {};
  forced.write_failures = 1000;
  Sent sent = send_all (link.client.session, TWENTY_FIVE_BYTES);
  forced = {};
  EXPECT_EQ (sent.size, 0u);
  EXPECT_EQ (sent.console, std::string (RESET_LINE) + repeat (INVALID_SESSION_SEND_LINE, 63) +
                             "Warning: Not all TLS data was sent - 0/25 bytes were sent.\n");
  close_link (&link);
}

TEST (send_all_tls_data, counts_nothing_of_what_cannot_be_written_after_giving_up)
{
  Link link = open_link ({server_expect_end ()});
  forced = {};
  forced.send_passes = 2;
  forced.send_failures = 1000;
  forced.write_failures = 1000;
  Sent sent = send_all (link.client.session, TWENTY_FIVE_BYTES);
  forced = {};
  EXPECT_EQ (sent.size, 0u);
  close_link (&link);
}

// ---- Receiving ----

TEST (recv_tls_data, returns_one_record_a_call)
{
  Link link = open_link ({server_send (Pieces{"<a/>", "<bc/>"}), server_expect_end ()});
  Received first = receive (link.client.session);
  EXPECT_EQ (first.text, "<a/>");
  EXPECT_EQ (first.console, "");
  EXPECT_TRUE (first.is_view_over_buffer);
  EXPECT_EQ (receive (link.client.session).text, "<bc/>");
  close_link (&link);
}

TEST (recv_tls_data, returns_a_record_in_parts_when_the_buffer_is_small)
{
  Link link = open_link ({server_send ("0123456789"), server_expect_end ()});
  EXPECT_EQ (receive (link.client.session, 4).text, "0123");
  EXPECT_EQ (receive (link.client.session, 4).text, "4567");
  EXPECT_EQ (receive (link.client.session, 4).text, "89");
  close_link (&link);
}

TEST (recv_tls_data, returns_the_largest_record_whole)
{
  std::string text (16384, 'x');
  Link link = open_link ({server_send (text), server_expect_end ()});
  EXPECT_EQ (receive (link.client.session).text, text);
  close_link (&link);
}

TEST (recv_tls_data, waits_for_a_record)
{
  Link link =
    open_link ({server_wait (), server_delay (20), server_send ("late"), server_expect_end ()});
  scripted_server_signal (link.server);
  EXPECT_EQ (receive (link.client.session).text, "late");
  close_link (&link);
}

TEST (recv_tls_data, is_empty_when_the_server_closes_the_stream)
{
  Link link = open_link ({server_close_notify (), server_expect ("bye"), server_expect_end ()});
  Received received = receive (link.client.session);
  EXPECT_EQ (received.text, "");
  EXPECT_EQ (received.console, "");
  EXPECT_TRUE (received.is_view_over_buffer);
  // The other direction is still open.
  EXPECT_EQ (send_all (link.client.session, "bye").size, 3u);
  close_link (&link);
}

TEST (recv_tls_data, is_empty_after_64_attempts_when_the_server_is_gone)
{
  Link link = open_link ({server_fin (), server_expect_end ()});
  Received received = receive (link.client.session);
  EXPECT_EQ (received.text, "");
  EXPECT_TRUE (received.is_view_over_buffer);
  EXPECT_EQ (received.console,
             "Warning: GnuTLS recv error -110: The TLS connection was non-properly terminated.\n" +
               repeat (INVALID_SESSION_RECV_LINE, 63));
  close_link (&link);
}

TEST (recv_tls_data, is_empty_after_64_attempts_when_the_connection_is_reset)
{
  Link link = open_link ({server_reset ()});
  Received received = receive (link.client.session);
  EXPECT_EQ (received.text, "");
  EXPECT_TRUE (received.is_view_over_buffer);
  EXPECT_EQ (received.console, "Warning: GnuTLS recv error -54: Error in the pull function.\n" +
                                 repeat (INVALID_SESSION_RECV_LINE, 63));
  close_link (&link);
}

TEST (recv_tls_data, returns_what_came_before_the_end)
{
  Link link = open_link ({server_send ("last"), server_close_notify (), server_expect_end ()});
  EXPECT_EQ (receive (link.client.session).text, "last");
  EXPECT_EQ (receive (link.client.session).text, "");
  close_link (&link);
}

TEST (recv_tls_data, passes_over_session_tickets)
{
  Link link = open_link ({server_send ("<a/>"), server_expect_end ()}, true);
  Received received = receive (link.client.session);
  EXPECT_EQ (received.text, "<a/>");
  expect_matches (received.console, "(" + std::string (AGAIN_LINE) + "){1,2}");
  close_link (&link);
}

TEST (recv_tls_data, tries_again_after_a_failure)
{
  Link link = open_link ({server_send ("<a/>"), server_expect_end ()});
  forced = {};
  forced.recv_failures = 63;
  Received received = receive (link.client.session);
  EXPECT_EQ (received.text, "<a/>");
  EXPECT_EQ (received.console, repeat (AGAIN_LINE, 63));
  close_link (&link);
}

TEST (recv_tls_data, gives_up_after_64_attempts)
{
  Link link = open_link ({server_send ("<a/>"), server_expect_end ()});
  forced = {};
  forced.recv_failures = 64;
  Received received = receive (link.client.session);
  EXPECT_EQ (received.text, "");
  EXPECT_EQ (received.console, repeat (AGAIN_LINE, 64));
  EXPECT_TRUE (received.is_view_over_buffer);
  // The record is still there.
  EXPECT_EQ (receive (link.client.session).text, "<a/>");
  close_link (&link);
}

// ---- Two threads ----

static const int STANZAS_PER_SENDER = 200;

struct Sender {
  gnutls_session_t session;
  char letter;
  pthread_barrier_t *start;
  u64 size;
};

// Of different sizes, none a multiple of a record's.
static std::string
make_stanza (char letter, int number)
{
  return "<" + std::string (11 + number % 37, letter) + ">";
}

static void *
send_stanzas (void *data)
{
  Sender *sender = (Sender *) data;
  // Both at once, and each offers its place to the other between any two records.
  pthread_barrier_wait (sender->start);
  forced.yields_before_records = true;
  for (int number = 0; number < STANZAS_PER_SENDER; ++number) {
    sender->size +=
      send_all_tls_data (sender->session, to_view (make_stanza (sender->letter, number)));
  }
  return NULL;
}

// Takes the senders' stanzas off the front, each sender's in its order; what is left when the next
// is no whole stanza of either.
static std::string
take_whole_stanzas (std::string text)
{
  int numbers[2] = {};
  for (;;) {
    std::string a = make_stanza ('a', numbers[0]);
    std::string b = make_stanza ('b', numbers[1]);
    if (text.compare (0, a.size (), a) == 0) {
      text.erase (0, a.size ());
      ++numbers[0];
    } else if (text.compare (0, b.size (), b) == 0) {
      text.erase (0, b.size ());
      ++numbers[1];
    } else {
      return text;
    }
  }
}

// Two threads that begin to send at the same time. Stays where it is until `end_senders`.
struct SenderPair {
  pthread_barrier_t start;
  Sender senders[2];
  pthread_t threads[2];
};

static void
begin_senders (SenderPair *pair, gnutls_session_t session)
{
  ASSERT_EQ (pthread_barrier_init (&pair->start, NULL, 2), 0);
  for (int i = 0; i < 2; ++i) {
    pair->senders[i] = {session, (char) ('a' + i), &pair->start, 0};
  }
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ (pthread_create (&pair->threads[i], NULL, send_stanzas, &pair->senders[i]), 0);
  }
}

static void
end_senders (SenderPair *pair)
{
  pthread_join (pair->threads[0], NULL);
  pthread_join (pair->threads[1], NULL);
  pthread_barrier_destroy (&pair->start);
}

TEST (send_all_tls_data, keeps_the_stanzas_of_two_threads_apart)
{
  u64 total = 0;
  for (int number = 0; number < STANZAS_PER_SENDER; ++number) {
    total += 2 * make_stanza ('a', number).size ();
  }
  Link link = open_link (
    {server_send (Pieces (50, "<iq/>")), server_expect_until ("!"), server_expect_end ()});
  SenderPair pair;
  begin_senders (&pair, link.client.session);
  // Receiving goes on beside it, as in a session.
  std::string received;
  for (int number = 0; number < 50; ++number) {
    received += receive (link.client.session).text;
  }
  end_senders (&pair);
  EXPECT_EQ (send_all (link.client.session, "!").size, 1u);
  ServerReport report = close_link (&link);
  EXPECT_EQ (received, repeat ("<iq/>", 50));
  EXPECT_EQ (pair.senders[0].size + pair.senders[1].size, total);
  EXPECT_EQ (report.received.size (), total + 1);
  EXPECT_EQ (take_whole_stanzas (report.received), "!");
}

// GnuTLS changes the keys of both directions in a thread that receives, and in one that sends.
TEST (recv_tls_data, takes_new_keys_while_others_send)
{
  ServerScript script;
  for (int number = 0; number < 4; ++number)
    script_append (&script, {server_update_keys (), server_update_keys (), server_send ("<iq/>")});
  script_append (&script, {server_expect_until ("!"), server_expect_end ()});
  Link link = open_link (script);
  g_atomic_pointer_set (&watched_session, link.client.session);
  g_atomic_int_set (&overlaps_count, 0);
  SenderPair pair;
  begin_senders (&pair, link.client.session);
  std::string received;
  for (int number = 0; number < 4; ++number)
    received += receive (link.client.session).text;
  end_senders (&pair);
  EXPECT_EQ (g_atomic_int_get (&overlaps_count), 0);
  g_atomic_pointer_set (&watched_session, (gnutls_session_t) NULL);
  EXPECT_EQ (send_all (link.client.session, "!").size, 1u);
  ServerReport report = close_link (&link);
  EXPECT_EQ (received, repeat ("<iq/>", 4));
  EXPECT_EQ (take_whole_stanzas (report.received), "!");
}

// ---- A server that does not read ----
// The sockets of these tests hold less than a megabyte; what is given here is more, over two when
// encrypted. The server's own record of what came judges.

static const int DEAF_STANZAS = 12;

static Link
open_narrow_link (const ServerScript &steps)
{
  Link link = open_link (steps);
  int size = 128 * 1024;
  EXPECT_EQ (setsockopt (link.client.socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof (size)), 0);
  return link;
}

static std::string
make_long_stanza (int number)
{
  std::string stanza = "<message id='" + std::to_string (number) + "'>";
  for (int word = 0; stanza.size () < 60000; ++word)
    stanza += std::to_string (number * 7 + word) + " ";
  return stanza + "</message>";
}

// Gives the session so many long stanzas and returns what they are together.
static std::string
give_long_stanzas (gnutls_session_t session, int count)
{
  std::string all;
  for (int number = 0; number < count; ++number) {
    std::string stanza = make_long_stanza (number);
    EXPECT_EQ (send_all_tls_data (session, to_view (stanza)), stanza.size ());
    all += stanza;
  }
  return all;
}

static void
count_call (void *data)
{
  ++*(int *) data;
}

TEST (send_all_tls_data, does_not_wait_for_a_server_that_does_not_read)
{
  Link link =
    open_narrow_link ({server_wait_deaf (), server_expect_until ("!"), server_expect_end ()});
  int calls_count = 0;
  set_tls_send_handler (link.client.session, count_call, &calls_count);
  std::string all = give_long_stanzas (link.client.session, DEAF_STANZAS);
  TLSSendState state = get_tls_send_state (link.client.session);
  EXPECT_EQ (state.given_count, (u64) DEAF_STANZAS);
  EXPECT_EQ (state.given_size, all.size ());
  EXPECT_GT (state.waiting_size, 0u);
  EXPECT_LT (state.taken_count, state.given_count);
  EXPECT_LE (state.taken_size, state.taken_count * (all.size () / DEAF_STANZAS + 100));
  EXPECT_FALSE (state.is_lost);
  EXPECT_FALSE (has_all_tls_data_left (link.client.session));
  EXPECT_GE (calls_count, 1);
  EXPECT_FALSE (flush_tls_data (link.client.session, 0));
  int calls_before_count = calls_count;

  scripted_server_signal (link.server);
  EXPECT_TRUE (flush_tls_data (link.client.session, 30000));
  state = get_tls_send_state (link.client.session);
  EXPECT_EQ (state.waiting_size, 0u);
  EXPECT_EQ (state.taken_count, state.given_count);
  EXPECT_EQ (state.taken_size, all.size ());
  EXPECT_GT (calls_count, calls_before_count);
  EXPECT_EQ (send_all (link.client.session, "!").size, 1u);
  ServerReport report = close_link (&link);
  EXPECT_TRUE (report.received == all + "!");
  std::vector<size_t> sizes = record_sizes (report);
  EXPECT_LE (*std::max_element (sizes.begin (), sizes.end ()), 10u);
}

// Long stanzas until the socket holds some that the server's system does not take, and nothing waits in
// front of the socket. Returns all of them.
static std::string
fill_socket (const Client &client)
{
  std::string all;
  for (int number = 0; os_get_unconfirmed_size (client.socket) < 100000; ++number) {
    std::string stanza = make_stanza ('a', number).substr (0, 4000);
    EXPECT_EQ (send_all_tls_data (client.session, to_view (stanza)), stanza.size ());
    all += stanza;
  }
  EXPECT_EQ (get_tls_send_state (client.session).waiting_size, 0u);
  return all;
}

TEST (has_all_tls_data_left, counts_what_the_socket_holds)
{
  Link link =
    open_narrow_link ({server_wait_deaf (), server_expect_until ("!"), server_expect_end ()});
  std::string all = fill_socket (link.client);
  EXPECT_FALSE (has_all_tls_data_left (link.client.session));
  EXPECT_EQ (send_all (link.client.session, "!").size, 1u);
  scripted_server_signal (link.server);
  s64 end = g_get_monotonic_time () + 10000000;
  while (!has_all_tls_data_left (link.client.session) && g_get_monotonic_time () < end)
    g_usleep (1000);
  EXPECT_TRUE (has_all_tls_data_left (link.client.session));
  EXPECT_TRUE (close_link (&link).received == all + "!");
}

TEST (send_all_tls_data, keeps_the_order_when_some_of_it_waits)
{
  Link link =
    open_narrow_link ({server_wait_deaf (), server_expect_until ("!"), server_expect_end ()});
  int calls_count = 0;
  set_tls_send_handler (link.client.session, count_call, &calls_count);
  std::string all = give_long_stanzas (link.client.session, DEAF_STANZAS);
  scripted_server_signal (link.server);
  // The server reads, and each stanza pushes what waits in front of it.
  for (int number = 0; number < 50; ++number) {
    std::string stanza = make_stanza ('a', number);
    EXPECT_EQ (send_all_tls_data (link.client.session, to_view (stanza)), stanza.size ());
    all += stanza;
  }
  send_all_tls_data (link.client.session, to_string ("!"));
  EXPECT_TRUE (flush_tls_data (link.client.session, 30000));
  ServerReport report = close_link (&link);
  EXPECT_TRUE (report.received == all + "!");
}

TEST (send_all_tls_data, tells_what_was_taken_while_the_rest_waits)
{
  Link link =
    open_narrow_link ({server_wait_deaf (), server_expect_until ("id='3'"), server_wait_deaf (),
                       server_expect_until ("!"), server_expect_end ()});
  int calls_count = 0;
  set_tls_send_handler (link.client.session, count_call, &calls_count);
  give_long_stanzas (link.client.session, DEAF_STANZAS + 4);
  TLSSendState before = get_tls_send_state (link.client.session);
  calls_count = 0;
  scripted_server_signal (link.server);
  // The server reads a little, and stops again.
  TLSSendState state = before;
  for (int i = 0; i < 300 && state.taken_count == before.taken_count; ++i) {
    EXPECT_FALSE (flush_tls_data (link.client.session, 100));
    state = get_tls_send_state (link.client.session);
  }
  EXPECT_GT (state.taken_count, before.taken_count);
  EXPECT_GT (state.waiting_size, 0u);
  EXPECT_GE (calls_count, 1);
  scripted_server_signal (link.server);
  send_all_tls_data (link.client.session, to_string ("!"));
  EXPECT_TRUE (flush_tls_data (link.client.session, 30000));
  close_link (&link);
}

TEST (recv_tls_data, sends_what_waits_while_nobody_else_sees_to_it)
{
  Link link = open_narrow_link ({server_wait_deaf (), server_expect_until ("!"),
                                 server_send ("<done/>"), server_expect_end ()});
  std::string all = give_long_stanzas (link.client.session, DEAF_STANZAS);
  EXPECT_EQ (send_all_tls_data (link.client.session, to_string ("!")), 1u);
  EXPECT_GT (get_tls_send_state (link.client.session).waiting_size, 0u);
  scripted_server_signal (link.server);
  EXPECT_EQ (receive (link.client.session).text, "<done/>");
  EXPECT_EQ (get_tls_send_state (link.client.session).waiting_size, 0u);
  ServerReport report = close_link (&link);
  EXPECT_TRUE (report.received == all + "!");
}

// What waits when the system has taken all that it takes for a server that does not read.
static u64
settle_waiting_size (gnutls_session_t session)
{
  u64 before;
  u64 size = get_tls_send_state (session).waiting_size;
  do {
    before = size;
    flush_tls_data (session, 100);
    size = get_tls_send_state (session).waiting_size;
  } while (size != before);
  return size;
}

// The answer to the server's new keys has its place among the records that wait, whether it goes with
// the next stanza, as GnuTLS 3.7 does it, or at once.
TEST (recv_tls_data, takes_new_keys_while_something_waits)
{
  for (int recv_key_updates : {0, 1}) {
    Link link =
      open_narrow_link ({server_wait_deaf (), server_update_keys (), server_send ("<iq/>"),
                         server_wait_deaf (), server_expect_until ("!"), server_expect_end ()});
    int calls_count = 0;
    set_tls_send_handler (link.client.session, count_call, &calls_count);
    std::string all = give_long_stanzas (link.client.session, DEAF_STANZAS);
    u64 waiting_size = settle_waiting_size (link.client.session);
    EXPECT_GT (waiting_size, 0u);
    scripted_server_signal (link.server);
    forced.recv_key_updates = recv_key_updates;
    EXPECT_EQ (receive (link.client.session).text, "<iq/>");
    EXPECT_EQ (get_tls_send_state (link.client.session).waiting_size > waiting_size,
               recv_key_updates != 0);
    all += give_long_stanzas (link.client.session, 2);
    scripted_server_signal (link.server);
    EXPECT_TRUE (flush_tls_data (link.client.session, 30000));
    EXPECT_EQ (send_all (link.client.session, "!").size, 1u);
    EXPECT_TRUE (close_link (&link).received == all + "!");
  }
}

TEST (recv_tls_data, is_woken_from_a_server_that_does_not_read)
{
  Link link = open_narrow_link ({server_wait_deaf ()});
  give_long_stanzas (link.client.session, DEAF_STANZAS);
  os_shutdown_connection (link.client.socket);
  EXPECT_EQ (receive (link.client.session).text, "");
  EXPECT_TRUE (get_tls_send_state (link.client.session).is_lost);
  scripted_server_signal (link.server);
  close_client (&link.client);
  scripted_server_stop (link.server);
}

TEST (send_all_tls_data, loses_the_connection_when_too_much_waits)
{
  Link link = open_narrow_link ({server_wait_deaf ()});
  int calls_count = 0;
  set_tls_send_handler (link.client.session, count_call, &calls_count);
  std::string stanza = make_long_stanza (1);
  Sent sent = send_all (link.client.session, stanza);
  int given_count = 0;
  while (sent.size == stanza.size () && given_count < 1000) {
    EXPECT_EQ (sent.console, "");
    given_count++;
    calls_count = 0;
    sent = send_all (link.client.session, stanza);
  }
  EXPECT_EQ (sent.size, 0u);
  EXPECT_EQ (sent.console, "Warning: The server takes nothing, and too much waits for it.\n"
                           "Warning: Not all TLS data was sent - 0/" +
                             std::to_string (stanza.size ()) + " bytes were sent.\n");
  TLSSendState state = get_tls_send_state (link.client.session);
  EXPECT_TRUE (state.is_lost);
  EXPECT_EQ (state.given_count, (u64) given_count);
  const u64 QUEUE_MAX = 16777216;
  EXPECT_GT (state.waiting_size, QUEUE_MAX);
  // A record of ten bytes is 32 bytes long; one stanza may be begun below the limit.
  EXPECT_LE (state.waiting_size, QUEUE_MAX + stanza.size () * 4);
  EXPECT_EQ (calls_count, 1);
  // Something small would fit, but what came before it is missing.
  EXPECT_EQ (send_all (link.client.session, "<presence/>").size, 0u);
  scripted_server_signal (link.server);
  close_client (&link.client);
  scripted_server_stop (link.server);
}

TEST (flush_tls_data, tells_that_the_connection_is_lost)
{
  Link link = open_narrow_link ({server_wait_deaf ()});
  int calls_count = 0;
  give_long_stanzas (link.client.session, DEAF_STANZAS);
  set_tls_send_handler (link.client.session, count_call, &calls_count);
  EXPECT_EQ (calls_count, 1);
  os_shutdown_connection (link.client.socket);
  EXPECT_FALSE (flush_tls_data (link.client.session, 30000));
  TLSSendState state = get_tls_send_state (link.client.session);
  EXPECT_TRUE (state.is_lost);
  EXPECT_LT (state.taken_count, state.given_count);
  EXPECT_GE (calls_count, 2);
  scripted_server_signal (link.server);
  close_client (&link.client);
  scripted_server_stop (link.server);
}

TEST (get_tls_send_state, says_what_the_socket_took_at_once)
{
  Link link = open_link ({server_expect ("<a/><b/>"), server_expect_end ()});
  int calls_count = 0;
  set_tls_send_handler (link.client.session, count_call, &calls_count);
  send_all (link.client.session, "<a/>");
  send_all (link.client.session, "<b/>");
  TLSSendState state = get_tls_send_state (link.client.session);
  EXPECT_EQ (state.given_count, 2u);
  EXPECT_EQ (state.taken_count, 2u);
  EXPECT_EQ (state.taken_size, 8u);
  EXPECT_EQ (state.waiting_size, 0u);
  EXPECT_FALSE (state.is_lost);
  EXPECT_EQ (calls_count, 0);
  close_link (&link);
}

// ---- The scripted server ----
// What the wire tests rely on: a script notices every deviation and always comes to an end.

// The program's side of a login, by hand; answers come one record each.
static Client
play_login (ScriptedServer *server)
{
  Client client = {};
  testing::internal::CaptureStdout ();
  client.credentials = init_tls_global ();
  std::string port = std::to_string (scripted_server_port (server));
  EXPECT_EQ (os_connect (to_string ("127.0.0.1"), port.c_str (), &client.socket), 0);
  u8 memory[4096];
  Buffer buffer = {memory, sizeof (memory)};
  std::string stream = login_stream_request ("alpha.test");
  os_send (client.socket, to_view (stream));
  os_recv (client.socket, buffer);
  os_send (client.socket, to_string ("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>"));
  os_recv (client.socket, buffer);
  client.result = init_tls_session (client.credentials, client.socket, to_string ("alpha.test"),
                                    &client.session, &client.host_name);
  std::string full_jid = "romeo@alpha.test/morvane";
  for (const std::string &request :
       {stream, login_auth_request ("romeo", "pw"), stream, login_bind_request ("morvane"),
        login_roster_request (full_jid), login_presence_request (full_jid)}) {
    send_all_tls_data (client.session, to_view (request));
    client.console += to_std_string (recv_tls_data (client.session, buffer)) + "\n";
  }
  testing::internal::GetCapturedStdout ();
  return client;
}

TEST (script_login, plays_a_whole_login)
{
  ServerScript script = script_login ("romeo@alpha.test");
  script.push_back (server_expect_end ());
  Link link = {start_server (script), {}};
  link.client = play_login (link.server);
  EXPECT_EQ (link.client.console,
             login_stream_header ("alpha.test") + login_sasl_features () +
               "\n<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>\n" +
               login_stream_header ("alpha.test") + login_bind_features () +
               "\n<iq type='result' id='1'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'>"
               "<jid>romeo@alpha.test/morvane</jid></bind></iq>"
               "\n<iq type='result' id='2' to='romeo@alpha.test/morvane'>"
               "<query xmlns='jabber:iq:roster' ver='1'/></iq>"
               "\n<presence from='romeo@alpha.test/morvane'><priority>1</priority></presence>\n");
  ServerReport report = close_link (&link);
  EXPECT_EQ (report.steps_done, script.size ());
  EXPECT_EQ (report.rest, "");
}

TEST (login_auth_request, is_the_plain_message_in_base64)
{
  EXPECT_EQ (login_auth_request ("romeo1", "julia"),
             "<auth xmlns=\"urn:ietf:params:xml:ns:xmpp-sasl\" mechanism=\"PLAIN\">"
             "AHJvbWVvMQBqdWxpYQ==</auth>");
  EXPECT_EQ (login_auth_request ("me", "pw"),
             "<auth xmlns=\"urn:ietf:params:xml:ns:xmpp-sasl\" mechanism=\"PLAIN\">"
             "AG1lAHB3</auth>");
  EXPECT_EQ (login_auth_request ("me", "pwd"),
             "<auth xmlns=\"urn:ietf:params:xml:ns:xmpp-sasl\" mechanism=\"PLAIN\">"
             "AG1lAHB3ZA==</auth>");
}

TEST (server_expect, refuses_what_differs)
{
  Link link = open_link ({server_expect ("<presence id='25 bites'/>")});
  send_all (link.client.session, TWENTY_FIVE_BYTES);
  ServerReport report = scripted_server_finish (link.server);
  expect_matches (report.failure, "step 3: something else came\n"
                                  "  expected: <presence id='25 bites'/>\n"
                                  "  received: <presence id='25 b.*");
  close_client (&link.client);
}

TEST (server_expect, refuses_records_of_more_than_ten_bytes)
{
  Link link = open_link ({server_expect ("12345678901")});
  ASSERT_EQ (gnutls_record_send (link.client.session, "12345678901", 11), 11);
  ServerReport report = scripted_server_finish (link.server);
  EXPECT_EQ (report.failure, "step 3: a record of 11 bytes: 12345678901");
  close_client (&link.client);
}

TEST (server_expect, takes_no_more_than_it_expects)
{
  Link link = open_link ({server_expect ("<a/>"), server_expect ("<b/>"), server_expect_end ()});
  send_all (link.client.session, "<a/><b/>");
  ServerReport report = close_link (&link);
  EXPECT_EQ (report.taken, (std::vector<std::string>{"", "", "<a/>", "<b/>", ""}));
}

TEST (server_expect, fails_when_nothing_comes_in_time)
{
  ServerOptions options;
  options.port = 0;
  options.timeout_ms = 50;
  ScriptedServer *server = scripted_server_start ({server_accept ()}, options);
  EXPECT_EQ (scripted_server_finish (server).failure,
             "step 1: the program did not connect in time");
}

TEST (server_expect, fails_when_the_program_ends_first)
{
  Link link = open_link ({server_expect ("<a/>")});
  close_client (&link.client);
  EXPECT_EQ (scripted_server_finish (link.server).failure,
             "step 3: the program ended the connection\n  expected: <a/>\n  received: ");
}

TEST (server_expect_pattern, takes_what_matches)
{
  Link link = open_link (
    {server_expect_pattern ("<a time='[0-9]+'/>"), server_expect ("<b/>"), server_expect_end ()});
  send_all (link.client.session, "<a time='1234'/><b/>");
  EXPECT_EQ (close_link (&link).taken[2], "<a time='1234'/>");
}

TEST (server_expect_until, takes_everything_to_the_tail)
{
  std::string text = std::string (20000, 'x') + "</a>";
  Link link =
    open_link ({server_expect_until ("</a>"), server_expect ("<b/>"), server_expect_end ()});
  send_all (link.client.session, text + "<b/>");
  EXPECT_EQ (close_link (&link).taken[2], text);
}

TEST (server_expect_end, refuses_more)
{
  Link link = open_link ({server_expect_end ()});
  send_all (link.client.session, "more");
  EXPECT_EQ (scripted_server_finish (link.server).failure, "step 3: instead of the end came: more");
  close_client (&link.client);
}

TEST (server_accept, takes_one_connection_after_the_other)
{
  ServerScript script = {server_accept (),
                         server_handshake ("alpha.test"),
                         server_expect ("one"),
                         server_accept (),
                         server_handshake ("alpha.test"),
                         server_expect ("two"),
                         server_expect_end ()};
  Link link = {start_server (script), {}};
  link.client = open_client (link.server, "alpha.test");
  send_all (link.client.session, "one");
  close_client (&link.client);
  link.client = open_client (link.server, "alpha.test");
  send_all (link.client.session, "two");
  EXPECT_EQ (close_link (&link).steps_done, 7u);
}

TEST (server_wait, goes_on_when_signalled)
{
  Link link = open_link ({server_wait (), server_send ("now"), server_expect_end ()});
  EXPECT_TRUE (scripted_server_wait_steps (link.server, 2));
  EXPECT_EQ (scripted_server_steps_done (link.server), 2u);
  EXPECT_FALSE (scripted_server_is_done (link.server));
  scripted_server_signal (link.server);
  EXPECT_EQ (receive (link.client.session).text, "now");
  close_link (&link);
}

static void
count_up (void *data)
{
  ++*(int *) data;
}

TEST (server_run, calls_the_test)
{
  int count = 0;
  ScriptedServer *server =
    start_server ({server_run (count_up, &count), server_run (count_up, &count)});
  EXPECT_EQ (scripted_server_finish (server).failure, "");
  EXPECT_EQ (count, 2);
}

TEST (scripted_server_stop, ends_a_step_that_waits)
{
  ScriptedServer *server = start_server ({server_accept ()});
  ServerReport report = scripted_server_stop (server);
  EXPECT_EQ (report.failure, "");
  EXPECT_EQ (report.steps_done, 0u);
}

TEST (scripted_server_start, reports_a_port_that_is_taken)
{
  ScriptedServer *server = start_server ({server_accept ()});
  ServerOptions options;
  options.port = scripted_server_port (server);
  ScriptedServer *second = scripted_server_start ({server_accept ()}, options);
  EXPECT_TRUE (scripted_server_is_done (second));
  ServerReport report = scripted_server_finish (second);
  expect_matches (report.failure, "step 1: listening on 127\\.0\\.0\\.1:[0-9]+: [^\n]+");
  scripted_server_stop (server);
}

TEST (cut_every, joins_back)
{
  std::string text = "0123456789";
  for (size_t size = 0; size <= 11; ++size) {
    std::string joined;
    for (const std::string &piece : cut_every (text, size)) {
      EXPECT_FALSE (piece.empty ());
      joined += piece;
    }
    EXPECT_EQ (joined, text);
    Pieces halves = cut_at (text, size);
    EXPECT_EQ (halves.size (), size == 0 || size >= 10 ? 1u : 2u);
    EXPECT_EQ (halves[0] + (halves.size () > 1 ? halves[1] : ""), text);
  }
}
