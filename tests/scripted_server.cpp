#include "scripted_server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <regex.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include <gnutls/gnutls.h>

static const size_t RECORD_SIZE_MAX = 10;

struct ScriptedServer {
  ServerScript script;
  ServerOptions options;
  int port;
  int stop_event;
  int signal_event;
  pthread_t thread;
  bool has_thread;

  pthread_mutex_t mutex;  // guards `report` and `is_done`
  pthread_cond_t changed;
  ServerReport report;
  bool is_done;

  // The server's thread only.
  int listener;
  int socket;                // -1 without a connection
  gnutls_session_t session;  // null in clear text
  gnutls_certificate_credentials_t credentials;
  gnutls_datum_t ticket_key;
  std::string pending;  // what came and no step took
  bool has_ended;       // the program ended the connection
  bool is_stopped;
  int64_t deadline;  // of the step, milliseconds of the monotonic clock
};

// ---- Steps ----

static ServerStep
make_step (ServerStepKind kind)
{
  ServerStep step = {};
  step.kind = kind;
  return step;
}

static ServerStep
make_text_step (ServerStepKind kind, const std::string &text)
{
  ServerStep step = make_step (kind);
  step.text = text;
  return step;
}

ServerStep
server_accept ()
{
  return make_step (SERVER_STEP_ACCEPT);
}

ServerStep
server_expect (const std::string &text)
{
  return make_text_step (SERVER_STEP_EXPECT, text);
}

ServerStep
server_expect_pattern (const std::string &pattern)
{
  return make_text_step (SERVER_STEP_EXPECT_PATTERN, pattern);
}

ServerStep
server_expect_until (const std::string &tail)
{
  return make_text_step (SERVER_STEP_EXPECT_UNTIL, tail);
}

ServerStep
server_expect_end ()
{
  return make_step (SERVER_STEP_EXPECT_END);
}

ServerStep
server_send (const std::string &text)
{
  return server_send (Pieces{text});
}

ServerStep
server_send (const Pieces &pieces, int pause_ms)
{
  ServerStep step = make_step (SERVER_STEP_SEND);
  step.pieces = pieces;
  step.pause_ms = pause_ms;
  return step;
}

ServerStep
server_handshake (const std::string &host, bool with_tickets)
{
  ServerStep step = make_text_step (SERVER_STEP_HANDSHAKE, host);
  step.with_tickets = with_tickets;
  return step;
}

ServerStep
server_refused_handshake (const std::string &host)
{
  return make_text_step (SERVER_STEP_REFUSED_HANDSHAKE, host);
}

ServerStep
server_delay (int ms)
{
  ServerStep step = make_step (SERVER_STEP_DELAY);
  step.pause_ms = ms;
  return step;
}

ServerStep
server_wait ()
{
  return make_step (SERVER_STEP_WAIT);
}

ServerStep
server_wait_deaf ()
{
  return make_step (SERVER_STEP_WAIT_DEAF);
}

ServerStep
server_run (void (*action) (void *data), void *data)
{
  ServerStep step = make_step (SERVER_STEP_RUN);
  step.action = action;
  step.data = data;
  return step;
}

ServerStep
server_update_keys ()
{
  return make_step (SERVER_STEP_UPDATE_KEYS);
}

ServerStep
server_close_notify ()
{
  return make_step (SERVER_STEP_CLOSE_NOTIFY);
}

ServerStep
server_fin ()
{
  return make_step (SERVER_STEP_FIN);
}

ServerStep
server_reset ()
{
  return make_step (SERVER_STEP_RESET);
}

ServerStep
server_close ()
{
  return make_step (SERVER_STEP_CLOSE);
}

void
script_append (ServerScript *script, const ServerScript &more)
{
  script->insert (script->end (), more.begin (), more.end ());
}

Pieces
cut_at (const std::string &text, size_t offset)
{
  if (offset == 0 || offset >= text.size ()) {
    return {text};
  }
  return {text.substr (0, offset), text.substr (offset)};
}

Pieces
cut_every (const std::string &text, size_t size)
{
  if (size == 0) {
    return {text};
  }
  Pieces pieces;
  for (size_t offset = 0; offset < text.size (); offset += size) {
    pieces.push_back (text.substr (offset, size));
  }
  return pieces;
}

// ---- Waiting ----

static int64_t
get_monotonic_ms ()
{
  struct timespec now;
  clock_gettime (CLOCK_MONOTONIC, &now);
  return (int64_t) now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// The first failure counts.
static void
set_failure (ScriptedServer *server, const std::string &text)
{
  pthread_mutex_lock (&server->mutex);
  if (server->report.failure.empty ()) {
    size_t number = server->report.steps_done + 1;
    server->report.failure = "step " + std::to_string (number) + ": " + text;
    fprintf (stderr, "scripted server: %s\n", server->report.failure.c_str ());
  }
  pthread_mutex_unlock (&server->mutex);
}

static bool
has_failed (ScriptedServer *server)
{
  pthread_mutex_lock (&server->mutex);
  bool result = !server->report.failure.empty ();
  pthread_mutex_unlock (&server->mutex);
  return result;
}

static void
write_transcript (ScriptedServer *server, const char *who, const std::string &text)
{
  pthread_mutex_lock (&server->mutex);
  server->report.transcript += who + text + "\n";
  pthread_mutex_unlock (&server->mutex);
}

// Waits for `events` on `fd` (-1 for nothing but the time) until `deadline`. What came, or 0 when
// the time is over or the server is stopped.
static short
wait_events (ScriptedServer *server, int fd, short events, int64_t deadline)
{
  for (;;) {
    struct pollfd fds[] = {{server->stop_event, POLLIN, 0}, {fd, events, 0}};
    int64_t left = deadline - get_monotonic_ms ();
    int count = poll (fds, 2, left > 0 ? (int) left : 0);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (fds[0].revents) {
      server->is_stopped = true;
      return 0;
    }
    return count > 0 ? fds[1].revents : 0;
  }
}

// ---- Reading ----

static const size_t READ_SIZE_MAX = 64 * 1024;  // bytes that are read ahead of a look at them

static void
set_end (ScriptedServer *server, const char *end)
{
  server->has_ended = true;
  pthread_mutex_lock (&server->mutex);
  server->report.end = end;
  pthread_mutex_unlock (&server->mutex);
  write_transcript (server, "-- ", std::string ("the program's ") + end);
}

static bool
read_clear (ScriptedServer *server)
{
  char data[65536];
  ssize_t size = recv (server->socket, data, sizeof (data), MSG_DONTWAIT);
  if (size > 0) {
    server->pending.append (data, size);
    pthread_mutex_lock (&server->mutex);
    server->report.received_clear.append (data, size);
    pthread_mutex_unlock (&server->mutex);
    return true;
  }
  if (size == 0) {
    set_end (server, "fin");
  } else if (errno != EAGAIN && errno != EINTR) {
    set_end (server, "reset");
  }
  return false;
}

static bool
read_record (ScriptedServer *server)
{
  char data[20000];
  ssize_t size = gnutls_record_recv (server->session, data, sizeof (data));
  if (size > 0) {
    std::string record (data, size);
    server->pending += record;
    pthread_mutex_lock (&server->mutex);
    server->report.received += record;
    server->report.records.push_back (record);
    pthread_mutex_unlock (&server->mutex);
    if (record.size () > RECORD_SIZE_MAX) {
      set_failure (server, "a record of " + std::to_string (size) + " bytes: " + record);
    }
    return true;
  }
  if (size == 0) {
    set_end (server, "close-notify");
  } else if (size == GNUTLS_E_PREMATURE_TERMINATION) {
    set_end (server, "fin");
  } else if (gnutls_error_is_fatal ((int) size)) {
    set_end (server, "reset");
  }
  return false;
}

// Everything that is there, until about so many bytes wait for a step.
static void
read_available (ScriptedServer *server, size_t pending_size_max)
{
  while (server->socket >= 0 && !server->has_ended && !has_failed (server) &&
         server->pending.size () < pending_size_max) {
    bool is_progress = server->session ? read_record (server) : read_clear (server);
    if (!is_progress) {
      return;
    }
  }
}

// Waits for more, and leaves much more to the next call: what a step does not ask for stays with the
// client. False when nothing more comes in time.
static bool
read_more (ScriptedServer *server)
{
  size_t size = server->pending.size ();
  for (;;) {
    read_available (server, size + READ_SIZE_MAX);
    if (has_failed (server)) {
      return false;
    }
    if (server->pending.size () != size || server->has_ended) {
      return true;
    }
    if (!wait_events (server, server->socket, POLLIN, server->deadline)) {
      return false;
    }
  }
}

// ---- Expecting ----

enum Match {
  MATCH_NOT_YET,
  MATCH_FOUND,
  MATCH_NEVER,
};

static Match
match_pattern (const std::string &pattern, const std::string &pending, size_t *size_out)
{
  regex_t compiled;
  if (regcomp (&compiled, ("^(" + pattern + ")").c_str (), REG_EXTENDED)) {
    return MATCH_NEVER;
  }
  regmatch_t match;
  int error = regexec (&compiled, pending.c_str (), 1, &match, 0);
  regfree (&compiled);
  *size_out = error ? 0 : match.rm_eo;
  return error ? MATCH_NOT_YET : MATCH_FOUND;
}

// `searched` counts the bytes that need not be looked at again.
static Match
match_step (const ServerStep &step, const std::string &pending, size_t *searched, size_t *size_out)
{
  switch (step.kind) {
  case SERVER_STEP_EXPECT: {
    size_t size = std::min (step.text.size (), pending.size ());
    if (pending.compare (0, size, step.text, 0, size) != 0) {
      return MATCH_NEVER;
    }
    *size_out = size;
    return size == step.text.size () ? MATCH_FOUND : MATCH_NOT_YET;
  }
  case SERVER_STEP_EXPECT_PATTERN:
    return match_pattern (step.text, pending, size_out);
  default: {
    size_t found = pending.find (step.text, *searched);
    *searched = pending.size () - std::min (pending.size (), step.text.size ());
    *size_out = found + step.text.size ();
    return found == std::string::npos ? MATCH_NOT_YET : MATCH_FOUND;
  }
  }
}

static void
set_expect_failure (ScriptedServer *server, const ServerStep &step, const char *why)
{
  set_failure (server, std::string (why) + "\n  expected: " + step.text +
                         "\n  received: " + server->pending);
}

static bool
play_expect (ScriptedServer *server, const ServerStep &step)
{
  size_t searched = 0;
  for (;;) {
    size_t size = 0;
    Match match = match_step (step, server->pending, &searched, &size);
    if (match == MATCH_FOUND) {
      std::string taken = server->pending.substr (0, size);
      server->pending.erase (0, size);
      write_transcript (server, "C: ", taken);
      pthread_mutex_lock (&server->mutex);
      server->report.taken[server->report.steps_done] = taken;
      pthread_mutex_unlock (&server->mutex);
      return true;
    }
    if (match == MATCH_NEVER) {
      set_expect_failure (server, step, "something else came");
    } else if (server->has_ended) {
      set_expect_failure (server, step, "the program ended the connection");
    } else if (read_more (server)) {
      continue;
    } else if (!server->is_stopped) {
      set_expect_failure (server, step, "nothing more came in time");
    }
    return false;
  }
}

static bool
play_expect_end (ScriptedServer *server)
{
  while (server->pending.empty () && !server->has_ended && read_more (server)) {
  }
  if (!server->pending.empty ()) {
    set_failure (server, "instead of the end came: " + server->pending);
  } else if (!server->has_ended && !server->is_stopped) {
    set_failure (server, "the program did not end the connection in time");
  }
  return server->has_ended && server->pending.empty ();
}

// ---- Sending ----

// Sends one piece and goes on reading meanwhile, so that both sides can send a lot.
static bool
send_piece (ScriptedServer *server, const std::string &piece)
{
  size_t sent = 0;
  while (sent < piece.size ()) {
    const char *data = piece.data () + sent;
    size_t left = piece.size () - sent;
    ssize_t size;
    bool is_again;
    if (server->session) {
      size = gnutls_record_send (server->session, data, left);
      is_again = size < 0 && !gnutls_error_is_fatal ((int) size);
    } else {
      size = send (server->socket, data, left, MSG_NOSIGNAL | MSG_DONTWAIT);
      is_again = size < 0 && (errno == EAGAIN || errno == EINTR);
    }
    if (size >= 0) {
      sent += size;
      continue;
    }
    if (!is_again) {
      set_failure (server, "the program takes no more, at: " + piece.substr (sent, 200));
      return false;
    }
    short events = server->has_ended ? POLLOUT : POLLOUT | POLLIN;
    if (!wait_events (server, server->socket, events, server->deadline)) {
      if (!server->is_stopped) {
        set_failure (server, "the program takes nothing in time, at: " + piece.substr (sent, 200));
      }
      return false;
    }
    read_available (server, SIZE_MAX);
  }
  write_transcript (server, "S: ", piece);
  return true;
}

static bool
play_delay (ScriptedServer *server, int ms)
{
  wait_events (server, -1, 0, get_monotonic_ms () + ms);
  return !server->is_stopped;
}

static bool
play_send (ScriptedServer *server, const ServerStep &step)
{
  for (size_t index = 0; index < step.pieces.size (); ++index) {
    if (index > 0 && step.pause_ms > 0 && !play_delay (server, step.pause_ms)) {
      return false;
    }
    // The pauses are the script's own and count for no limit.
    server->deadline = get_monotonic_ms () + server->options.timeout_ms;
    if (!send_piece (server, step.pieces[index])) {
      return false;
    }
  }
  return true;
}

// ---- Connecting and closing ----

static void
close_tls (ScriptedServer *server)
{
  if (server->session) {
    gnutls_deinit (server->session);
    server->session = NULL;
  }
  if (server->credentials) {
    gnutls_certificate_free_credentials (server->credentials);
    server->credentials = NULL;
  }
  if (server->ticket_key.data) {
    gnutls_free (server->ticket_key.data);
    server->ticket_key = {};
  }
}

static void
close_connection (ScriptedServer *server)
{
  close_tls (server);
  if (server->socket >= 0) {
    close (server->socket);
    server->socket = -1;
  }
}

static bool
play_accept (ScriptedServer *server)
{
  close_connection (server);
  if (!server->pending.empty ()) {
    set_failure (server, "no step took: " + server->pending);
    return false;
  }
  server->has_ended = false;
  pthread_mutex_lock (&server->mutex);
  server->report.end.clear ();
  pthread_mutex_unlock (&server->mutex);
  while (wait_events (server, server->listener, POLLIN, server->deadline)) {
    server->socket = accept4 (server->listener, NULL, NULL, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (server->socket >= 0) {
      int on = 1;
      setsockopt (server->socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof (on));
      write_transcript (server, "-- ", "connected");
      return true;
    }
  }
  if (!server->is_stopped) {
    set_failure (server, "the program did not connect in time");
  }
  return false;
}

static bool
load_certificate (ScriptedServer *server, const std::string &host)
{
  const char *world = getenv ("MORVANE_WORLD");
  if (!world) {
    set_failure (server, "MORVANE_WORLD is not set: run this in scripts/world");
    return false;
  }
  std::string stem = std::string (world) + "/" + host;
  std::string certificate = stem + ".crt";
  std::string key = stem + ".key";
  gnutls_certificate_allocate_credentials (&server->credentials);
  int error = gnutls_certificate_set_x509_key_file (server->credentials, certificate.c_str (),
                                                    key.c_str (), GNUTLS_X509_FMT_PEM);
  if (error < 0) {
    set_failure (server, certificate + ": " + gnutls_strerror (error));
  }
  return error >= 0;
}

// 0, or a fatal error of GnuTLS.
static int
perform_handshake (ScriptedServer *server)
{
  for (;;) {
    int error = gnutls_handshake (server->session);
    if (error == 0 || gnutls_error_is_fatal (error)) {
      return error;
    }
    if (error == GNUTLS_E_AGAIN || error == GNUTLS_E_INTERRUPTED) {
      short events = gnutls_record_get_direction (server->session) ? POLLOUT : POLLIN;
      if (!wait_events (server, server->socket, events, server->deadline)) {
        return GNUTLS_E_TIMEDOUT;
      }
    }
  }
}

static void
note_server_name (ScriptedServer *server)
{
  char name[256] = "";
  size_t size = sizeof (name);
  unsigned int type = GNUTLS_NAME_DNS;
  if (gnutls_server_name_get (server->session, name, &size, &type, 0) == 0) {
    pthread_mutex_lock (&server->mutex);
    server->report.server_name.assign (name, size);
    pthread_mutex_unlock (&server->mutex);
  }
}

static bool
play_handshake (ScriptedServer *server, const ServerStep &step)
{
  if (!server->pending.empty ()) {
    set_failure (server, "no step took, before TLS: " + server->pending);
    return false;
  }
  if (!load_certificate (server, step.text)) {
    return false;
  }
  gnutls_init (&server->session, GNUTLS_SERVER | GNUTLS_NONBLOCK | GNUTLS_NO_SIGNAL);
  gnutls_set_default_priority (server->session);
  gnutls_credentials_set (server->session, GNUTLS_CRD_CERTIFICATE, server->credentials);
  gnutls_transport_set_int (server->session, server->socket);
  if (step.with_tickets) {
    gnutls_session_ticket_key_generate (&server->ticket_key);
    gnutls_session_ticket_enable_server (server->session, &server->ticket_key);
  }
  int error = perform_handshake (server);
  note_server_name (server);
  bool is_refusal_expected = step.kind == SERVER_STEP_REFUSED_HANDSHAKE;
  std::string outcome = error ? gnutls_strerror (error) : "done";
  write_transcript (server, "-- ", "handshake as " + step.text + ": " + outcome);
  bool is_late = error == GNUTLS_E_TIMEDOUT;
  if (!server->is_stopped && (is_late || (error != 0) != is_refusal_expected)) {
    set_failure (server, "handshake as " + step.text + ": " + outcome);
  }
  if (error) {
    server->has_ended = true;
    close_connection (server);
  }
  return !server->is_stopped && !has_failed (server);
}

static bool
play_close_notify (ScriptedServer *server)
{
  int error;
  while ((error = gnutls_bye (server->session, GNUTLS_SHUT_WR)) != 0) {
    if (gnutls_error_is_fatal (error) ||
        !wait_events (server, server->socket, POLLOUT, server->deadline)) {
      set_failure (server, std::string ("close-notify: ") + gnutls_strerror (error));
      return false;
    }
  }
  write_transcript (server, "-- ", "close-notify");
  return true;
}

static bool
play_update_keys (ScriptedServer *server)
{
  int error;
  while ((error = gnutls_session_key_update (server->session, GNUTLS_KU_PEER)) != 0) {
    if (gnutls_error_is_fatal (error) ||
        !wait_events (server, server->socket, POLLOUT, server->deadline)) {
      set_failure (server, std::string ("new keys: ") + gnutls_strerror (error));
      return false;
    }
  }
  write_transcript (server, "-- ", "new keys");
  return true;
}

static bool
play_reset (ScriptedServer *server)
{
  struct linger linger = {1, 0};
  setsockopt (server->socket, SOL_SOCKET, SO_LINGER, &linger, sizeof (linger));
  close_connection (server);
  write_transcript (server, "-- ", "reset");
  return true;
}

// ---- The thread ----

// What the program sends meanwhile is kept for the next steps.
static bool
play_wait (ScriptedServer *server, bool is_deaf)
{
  for (;;) {
    uint64_t value;
    if (read (server->signal_event, &value, sizeof (value)) == sizeof (value)) {
      return true;
    }
    if (!is_deaf) {
      read_available (server, SIZE_MAX);
    }
    if (has_failed (server)) {
      return false;
    }
    bool is_reading = !is_deaf && server->socket >= 0 && !server->has_ended;
    struct pollfd fds[] = {{server->stop_event, POLLIN, 0},
                           {server->signal_event, POLLIN, 0},
                           {is_reading ? server->socket : -1, POLLIN, 0}};
    int64_t left = server->deadline - get_monotonic_ms ();
    int count = poll (fds, 3, left > 0 ? (int) left : 0);
    if (fds[0].revents) {
      server->is_stopped = true;
      return false;
    }
    if (count == 0) {
      set_failure (server, "the test did not signal in time");
      return false;
    }
  }
}

static bool
is_step_without_connection (ServerStepKind kind)
{
  return kind == SERVER_STEP_ACCEPT || kind == SERVER_STEP_DELAY || kind == SERVER_STEP_WAIT ||
         kind == SERVER_STEP_WAIT_DEAF || kind == SERVER_STEP_RUN;
}

static bool
play_step (ScriptedServer *server, const ServerStep &step)
{
  server->deadline = get_monotonic_ms () + server->options.timeout_ms;
  if (server->socket < 0 && !is_step_without_connection (step.kind)) {
    if (step.kind == SERVER_STEP_EXPECT_END && server->has_ended) {
      return true;  // a refused handshake
    }
    set_failure (server, "there is no connection");
    return false;
  }
  if ((step.kind == SERVER_STEP_CLOSE_NOTIFY || step.kind == SERVER_STEP_UPDATE_KEYS) &&
      !server->session) {
    set_failure (server, "there is no TLS");
    return false;
  }
  switch (step.kind) {
  case SERVER_STEP_ACCEPT:
    return play_accept (server);
  case SERVER_STEP_EXPECT:
  case SERVER_STEP_EXPECT_PATTERN:
  case SERVER_STEP_EXPECT_UNTIL:
    return play_expect (server, step);
  case SERVER_STEP_EXPECT_END:
    return play_expect_end (server);
  case SERVER_STEP_SEND:
    return play_send (server, step);
  case SERVER_STEP_HANDSHAKE:
  case SERVER_STEP_REFUSED_HANDSHAKE:
    return play_handshake (server, step);
  case SERVER_STEP_DELAY:
    return play_delay (server, step.pause_ms);
  case SERVER_STEP_WAIT:
  case SERVER_STEP_WAIT_DEAF:
    return play_wait (server, step.kind == SERVER_STEP_WAIT_DEAF);
  case SERVER_STEP_RUN:
    step.action (step.data);
    return true;
  case SERVER_STEP_UPDATE_KEYS:
    return play_update_keys (server);
  case SERVER_STEP_CLOSE_NOTIFY:
    return play_close_notify (server);
  case SERVER_STEP_FIN:
    shutdown (server->socket, SHUT_WR);
    write_transcript (server, "-- ", "fin");
    return true;
  case SERVER_STEP_RESET:
    return play_reset (server);
  case SERVER_STEP_CLOSE:
    close_connection (server);
    write_transcript (server, "-- ", "closed");
    return true;
  }
  return false;
}

// After the script: reads until the test ends the server, so that the program can go on sending.
static void
read_to_stop (ScriptedServer *server)
{
  while (!server->is_stopped && !has_failed (server)) {
    read_available (server, SIZE_MAX);
    bool is_reading = server->socket >= 0 && !server->has_ended;
    wait_events (server, is_reading ? server->socket : -1, POLLIN,
                 get_monotonic_ms () + server->options.timeout_ms);
  }
  read_available (server, SIZE_MAX);
}

static void *
run_server (void *data)
{
  ScriptedServer *server = (ScriptedServer *) data;
  bool is_good = true;
  for (size_t index = 0; is_good && index < server->script.size (); ++index) {
    is_good = play_step (server, server->script[index]) && !has_failed (server);
    pthread_mutex_lock (&server->mutex);
    server->report.steps_done += is_good;
    pthread_cond_broadcast (&server->changed);
    pthread_mutex_unlock (&server->mutex);
  }
  if (!is_good) {
    // The program must not wait for a server that has given up.
    close_connection (server);
  }
  pthread_mutex_lock (&server->mutex);
  server->is_done = true;
  pthread_cond_broadcast (&server->changed);
  pthread_mutex_unlock (&server->mutex);
  if (is_good) {
    read_to_stop (server);
  }
  close_connection (server);
  pthread_mutex_lock (&server->mutex);
  server->report.rest = server->pending;
  pthread_mutex_unlock (&server->mutex);
  return NULL;
}

// ---- Running ----

static bool
start_listening (ScriptedServer *server)
{
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons ((uint16_t) server->options.port);
  inet_pton (AF_INET, server->options.address.c_str (), &address.sin_addr);
  int on = 1;
  server->listener = socket (AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  setsockopt (server->listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof (on));
  int window = 64 * 1024;  // bytes: little, for the servers that do not read
  setsockopt (server->listener, SOL_SOCKET, SO_RCVBUF, &window, sizeof (window));
  socklen_t size = sizeof (address);
  if (bind (server->listener, (struct sockaddr *) &address, size) ||
      listen (server->listener, 16) ||
      getsockname (server->listener, (struct sockaddr *) &address, &size)) {
    set_failure (server, "listening on " + server->options.address + ":" +
                           std::to_string (server->options.port) + ": " + strerror (errno));
    return false;
  }
  server->port = ntohs (address.sin_port);
  return true;
}

ScriptedServer *
scripted_server_start (const ServerScript &script, const ServerOptions &options)
{
  ScriptedServer *server = new ScriptedServer ();
  server->script = script;
  server->options = options;
  if (const char *slowness = getenv ("MORVANE_SLOW"))
    server->options.timeout_ms *= std::max (1, atoi (slowness));
  server->socket = -1;
  server->report.taken.resize (script.size ());
  server->stop_event = eventfd (0, EFD_CLOEXEC | EFD_NONBLOCK);
  server->signal_event = eventfd (0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE);
  pthread_mutex_init (&server->mutex, NULL);
  pthread_condattr_t attributes;
  pthread_condattr_init (&attributes);
  pthread_condattr_setclock (&attributes, CLOCK_MONOTONIC);
  pthread_cond_init (&server->changed, &attributes);
  pthread_condattr_destroy (&attributes);
  // Without a thread nothing is left to do; from its start on this is the thread's to say.
  server->is_done = !start_listening (server);
  if (!server->is_done) {
    server->has_thread = pthread_create (&server->thread, NULL, run_server, server) == 0;
    if (!server->has_thread) {
      set_failure (server, "no thread could be started");
      server->is_done = true;
    }
  }
  return server;
}

int
scripted_server_port (ScriptedServer *server)
{
  return server->port;
}

static void
raise_event (int event)
{
  uint64_t one = 1;
  ssize_t written = write (event, &one, sizeof (one));
  (void) written;  // the counter cannot be full
}

void
scripted_server_signal (ScriptedServer *server)
{
  raise_event (server->signal_event);
}

size_t
scripted_server_steps_done (ScriptedServer *server)
{
  pthread_mutex_lock (&server->mutex);
  size_t steps_done = server->report.steps_done;
  pthread_mutex_unlock (&server->mutex);
  return steps_done;
}

bool
scripted_server_is_done (ScriptedServer *server)
{
  pthread_mutex_lock (&server->mutex);
  bool is_done = server->is_done;
  pthread_mutex_unlock (&server->mutex);
  return is_done;
}

bool
scripted_server_wait_steps (ScriptedServer *server, size_t count)
{
  struct timespec deadline;
  clock_gettime (CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += server->options.timeout_ms / 1000 + 1;
  pthread_mutex_lock (&server->mutex);
  int error = 0;
  while (!error && !server->is_done && server->report.steps_done < count) {
    error = pthread_cond_timedwait (&server->changed, &server->mutex, &deadline);
  }
  bool result = server->report.steps_done >= count;
  pthread_mutex_unlock (&server->mutex);
  return result;
}

ServerReport
scripted_server_finish (ScriptedServer *server)
{
  // Every step has an end of its own, and so has the script.
  pthread_mutex_lock (&server->mutex);
  while (!server->is_done) {
    pthread_cond_wait (&server->changed, &server->mutex);
  }
  pthread_mutex_unlock (&server->mutex);
  return scripted_server_stop (server);
}

ServerReport
scripted_server_stop (ScriptedServer *server)
{
  raise_event (server->stop_event);
  if (server->has_thread) {
    pthread_join (server->thread, NULL);
  }
  ServerReport report = server->report;
  close (server->listener);
  close (server->stop_event);
  close (server->signal_event);
  pthread_cond_destroy (&server->changed);
  pthread_mutex_destroy (&server->mutex);
  delete server;
  return report;
}

std::vector<size_t>
record_sizes (const ServerReport &report)
{
  std::vector<size_t> sizes;
  for (const std::string &record : report.records) {
    sizes.push_back (record.size ());
  }
  return sizes;
}

// ---- Logging in ----

static std::string
get_base64 (const std::string &text)
{
  static const char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string result;
  for (size_t index = 0; index < text.size (); index += 3) {
    uint32_t bits = 0;
    for (size_t offset = 0; offset < 3; ++offset) {
      size_t at = index + offset;
      bits = bits << 8 | (at < text.size () ? (uint8_t) text[at] : 0);
    }
    for (size_t offset = 0; offset < 4; ++offset) {
      bool is_padding = index + offset > text.size ();
      result += is_padding ? '=' : ALPHABET[bits >> (18 - 6 * offset) & 63];
    }
  }
  return result;
}

std::string
login_stream_request (const std::string &host)
{
  return "<?xml version='1.0'?><stream:stream xmlns='jabber:client' "
         "xmlns:stream='http://etherx.jabber.org/streams' to='" +
         host + "' version='1.0'>";
}

std::string
login_auth_request (const std::string &user, const std::string &password)
{
  std::string message;
  message += '\0';
  message += user;
  message += '\0';
  message += password;
  return "<auth xmlns=\"urn:ietf:params:xml:ns:xmpp-sasl\" mechanism=\"PLAIN\">" +
         get_base64 (message) + "</auth>";
}

std::string
login_bind_request (const std::string &resource)
{
  std::string bind = "<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'";
  bind += resource.empty () ? "/>" : "><resource>" + resource + "</resource></bind>";
  return "<iq type='set' id='1'>" + bind + "</iq>";
}

std::string
login_roster_request (const std::string &full_jid)
{
  return "<iq type='get' id='2' from='" + full_jid + "'><query xmlns='jabber:iq:roster'/></iq>";
}

std::string
login_presence_request (const std::string &full_jid)
{
  return "<presence from='" + full_jid + "'><priority>1</priority></presence>";
}

std::string
login_stream_header (const std::string &host)
{
  return "<?xml version='1.0'?><stream:stream id='5c3a1f52-8d0e-4a4c-9a43-3f0d9f6b7a01' "
         "version='1.0' xmlns='jabber:client' xml:lang='en' "
         "xmlns:stream='http://etherx.jabber.org/streams' from='" +
         host + "'>";
}

std::string
login_starttls_features ()
{
  return "<stream:features><starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'><required/>"
         "</starttls></stream:features>";
}

std::string
login_sasl_features ()
{
  return "<stream:features><mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'>"
         "<mechanism>PLAIN</mechanism></mechanisms></stream:features>";
}

std::string
login_bind_features ()
{
  return "<stream:features><ver xmlns='urn:xmpp:features:rosterver'/>"
         "<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'><required/></bind>"
         "<session xmlns='urn:ietf:params:xml:ns:xmpp-session'><optional/></session>"
         "</stream:features>";
}

// `usual` or what the options put in its place, cut as they say.
static void
add_answer (ServerScript *script, const LoginOptions &options, const Pieces &usual,
            const Pieces &instead)
{
  Pieces answer;
  for (const std::string &piece : instead.empty () ? usual : instead) {
    Pieces cut = cut_every (piece, options.cut_size);
    answer.insert (answer.end (), cut.begin (), cut.end ());
  }
  if (options.answer_delay_ms > 0) {
    script->push_back (server_delay (options.answer_delay_ms));
  }
  script->push_back (server_send (answer, options.pause_ms));
}

static Pieces
get_stream_answer (const LoginOptions &options, const std::string &header,
                   const std::string &features)
{
  if (options.has_separate_features) {
    return {header, features};
  }
  return {header + features};
}

ServerScript
script_connect (const std::string &host, const LoginOptions &options)
{
  ServerScript script = {server_accept (), server_expect (login_stream_request (host))};
  std::string header = login_stream_header (host);
  if (!options.has_declaration) {
    header.erase (0, header.find ("<stream:stream"));
  }
  std::string features =
    options.offers_starttls ? login_starttls_features () : "<stream:features/>";
  add_answer (&script, options, get_stream_answer (options, header, features),
              options.clear_answer);
  if (!options.offers_starttls) {
    script.push_back (server_expect_end ());
    return script;
  }
  script.push_back (server_expect ("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>"));
  add_answer (&script, options, {"<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>"},
              options.proceed_answer);
  const std::string &shown = options.certificate_host;
  script.push_back (server_handshake (shown.empty () ? host : shown, options.with_tickets));
  script.push_back (server_expect (login_stream_request (host)));
  add_answer (&script, options,
              get_stream_answer (options, login_stream_header (host), login_sasl_features ()),
              options.stream_answer);
  return script;
}

// What follows the binding.
static void
add_session_start (ServerScript *script, const std::string &full_jid, const LoginOptions &options)
{
  script->push_back (server_expect (login_roster_request (full_jid)));
  if (options.has_roster_answer) {
    add_answer (script, options,
                {"<iq type='result' id='2' to='" + full_jid +
                 "'><query xmlns='jabber:iq:roster' ver='1'/></iq>"},
                options.roster_answer);
  }
  script->push_back (server_expect (login_presence_request (full_jid)));
  if (options.has_presence_answer) {
    add_answer (script, options,
                {"<presence from='" + full_jid + "'><priority>1</priority></presence>"},
                options.presence_answer);
  }
}

ServerScript
script_login (const std::string &bare_jid, const LoginOptions &options)
{
  std::string user = bare_jid.substr (0, bare_jid.find ('@'));
  std::string host = bare_jid.substr (bare_jid.find ('@') + 1);
  ServerScript script = script_connect (host, options);
  if (!options.offers_starttls) {
    return script;
  }
  std::string features = login_bind_features ();
  if (options.offers_stream_management) {
    features.insert (features.rfind ("</"), "<sm xmlns='urn:xmpp:sm:3'><optional/></sm>");
  }
  script.push_back (server_expect (login_auth_request (user, options.password)));
  if (!options.accepts_password) {
    add_answer (&script, options,
                {"<failure xmlns='urn:ietf:params:xml:ns:xmpp-sasl'><not-authorized/>"
                 "<text>Unable to authorize you with the authentication credentials you've sent."
                 "</text></failure>"},
                options.auth_answer);
    script.push_back (server_expect_end ());
    return script;
  }
  add_answer (&script, options, {"<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>"},
              options.auth_answer);
  script.push_back (server_expect (login_stream_request (host)));
  add_answer (&script, options, get_stream_answer (options, login_stream_header (host), features),
              options.second_stream_answer);
  script.push_back (server_expect (login_bind_request (options.resource)));
  const std::string &bound = options.bound_resource;
  std::string full_jid = bare_jid + "/" + (bound.empty () ? options.resource : bound);
  add_answer (&script, options,
              {"<iq type='result' id='1'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'><jid>" +
               full_jid + "</jid></bind></iq>"},
              options.bind_answer);
  if (options.offers_stream_management) {
    script.push_back (server_expect ("<enable xmlns='urn:xmpp:sm:3'/>"));
    add_answer (&script, options, {"<enabled xmlns='urn:xmpp:sm:3'/>"}, options.enable_answer);
  }
  add_session_start (&script, full_jid, options);
  return script;
}
