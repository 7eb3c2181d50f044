// TLS under the XMPP session, by GnuTLS: the library and the trusted certificates for the process,
// one client session on a connected socket, the routines that send and receive on it.
//
// A handshake verifies the server's certificate against the system's trust and the host name.
// Failures of the network are console lines and short or empty results; a set-up call of GnuTLS
// that fails stops the program.
//
// Ownership: said at each function; the socket stays with the caller.
// Threads: the credentials are made before any worker starts and only read afterwards. On one
// session one thread may receive while others send and ask how far sending is: a lock of the session
// keeps the records of one stanza together, and sending apart from the taking of what has come.
#pragma once

#include <gnutls/gnutls.h>

#include "buffers.h"
#include "os_gnulinux.h"

// ---- Process ----

// Starts the library and loads the system's trusted certificates. Finding none is a warning: every
// handshake will then fail. Never null; released with `deinit_tls_global`.
gnutls_certificate_credentials_t init_tls_global ();
// Releases the credentials, then the library. No session may be left.
void deinit_tls_global (gnutls_certificate_credentials_t credentials);

// ---- Session ----

// Makes a session on the connected `socket` and performs the handshake. Returns 0, or -1 after a
// fatal error, which the console then explains. In both cases `session_out` and `host_name_out` are
// filled and belong to the caller, who gives both to `deinit_tls_session`. The host name is what
// the session verifies against, so it lives as long as the session.
int init_tls_session (gnutls_certificate_credentials_t credentials, SocketDescriptor socket,
                      String host, gnutls_session_t *session_out, char **host_name_out);
// Releases both without telling the peer; `host_name` may be null. The socket stays open.
void deinit_tls_session (gnutls_session_t session, char *host_name);

// ---- Sending and receiving ----
// An attempt that fails is one warning; it is repeated at once, 64 attempts in all. SIGPIPE must be
// ignored by the process.

// Sends the front of `data` as one record and returns the bytes taken, at most 10; 0 after 64
// failed attempts.
u64 send_tls_data (gnutls_session_t session, String data);
// Sends all of `data`, a whole stanza, as a run of such records, which no other thread's stanza
// interrupts and which reach the socket in few writes: a server gets no half of it and then a pause.
// Never waits for the server: what the socket does not take at once is queued. Returns the bytes that
// were written or queued: the size, or less, with a warning, when the connection is lost: a record
// could not be sent, or more than TLS_QUEUE_SIZE_MAX bytes waited already. Records that a failing
// write took in part do not count.
u64 send_all_tls_data (gnutls_session_t session, String data);
// What one record brought, or its front when `buffer` is smaller, as a view over the front of
// `buffer`. Waits for it. Empty when the server ended the stream and after 64 failed attempts.
String recv_tls_data (gnutls_session_t session, Buffer buffer);

// ---- What waits to be sent ----

enum {
  TLS_QUEUE_SIZE_MAX = 16 * 1024 * 1024  // bytes that may wait before a stanza is begun
};

// How far sending is. All but `waiting_size` only grow while the session lives.
struct TLSSendState {
  u64 given_count;   // stanzas that `send_all_tls_data` took whole
  u64 given_size;    // the bytes that it took
  u64 taken_count;   // of the stanzas, those that the socket has taken whole, as all before them
  u64 taken_size;    // of the bytes, those of such stanzas
  u64 waiting_size;  // encrypted bytes that the socket has not taken yet
  bool is_lost;      // a stanza was not taken whole, or the socket takes nothing any more
};
TLSSendState get_tls_send_state (gnutls_session_t session);

// Whether all that was sent has reached the other side's system, which says nothing about whether the
// server has read it.
bool has_all_tls_data_left (gnutls_session_t session);

typedef void (*TLSSendHandler) (void *data);
// Has `handler` called after a call here changed the state, by the thread of that call, which holds
// no lock of the session but may hold others; what a send does at once to its own stanza does not
// count as a change. Whoever sets it sees to it from then on that `flush_tls_data` is called when the
// socket can take more; until then, and when it is NULL, the thread that receives does. It is called
// at once when something waits or is lost.
void set_tls_send_handler (gnutls_session_t session, TLSSendHandler handler, void *data);
// Writes what the socket takes of what waits, and waits for the rest so many milliseconds. Returns
// whether nothing waits any more; false at once when the connection is lost.
bool flush_tls_data (gnutls_session_t session, u32 timeout);
