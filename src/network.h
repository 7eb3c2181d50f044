// TLS under the XMPP session, by GnuTLS: the library and the trusted certificates for the process,
// one client session on a connected socket, the routines that send and receive on it.
//
// A handshake verifies the server's certificate against the system's trust and the host name.
// Failures of the network are console lines and short or empty results; a set-up call of GnuTLS
// that fails stops the program.
//
// Ownership: said at each function; the socket stays with the caller.
// Threads: the credentials are made before any worker starts and only read afterwards. On one
// session one thread may receive while others send: `send_all_tls_data` keeps the records of one
// stanza together.
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
// Returns the bytes sent: the size, or less, with a warning, when a record could not be sent; records
// that a failing write took in part do not count.
u64 send_all_tls_data (gnutls_session_t session, String data);
// What one record brought, or its front when `buffer` is smaller, as a view over the front of
// `buffer`. Waits for it. Empty when the server ended the stream and after 64 failed attempts.
String recv_tls_data (gnutls_session_t session, Buffer buffer);
