// The road to a session: the account, the steps from a socket to a bound resource, in-band
// registration, and the connection's end. RFC 6120 (streams, STARTTLS, SASL, resource binding), RFC
// 4616 (PLAIN), XEP-0077 (registration).
//
// Most answers that differ from the expected one stop the program with an assertion: nothing is
// guessed about a server that does not keep to the protocol.
//
// Ownership: an `XMPPAccount` owns one block, all its texts are views into it. A `Connection` owns
// its socket and its TLS session until `xmpp_close_connection`.
//
// Interruption: once its worker is told to leave (`worker_is_current_interrupted`), an exchange judges
// nothing any more and returns what it returns for a failure; the caller looks ahead of its next step.
//
// Threads: the exchanges run on the worker that owns the connection, one at a time, on the window's
// input buffer. `xmpp_close_connection` and `interrupt_xmpp_connection` run on the interface thread.
#pragma once

#include <gnutls/gnutls.h>

#include "os_gnulinux.h"
#include "xmpp.h"

struct XMPPAccount {
  u8 *data;         // the owning block: bare JID, "/", resource, password, back to back
  String full_jid;  // views into `data`, here and below
  String bare_jid;
  String resource;
  String username;  // before the "@"
  String hostname;  // after the "@"
  String password;
};

// What is open, and so must be released.
struct Connection {
  bool opened_stream;       // the clear-text stream was opened
  bool opened_socket;       // `socket` must be closed
  bool opened_tls_session;  // `tls_session` must be de-initialised, also after a failed handshake
  bool is_present;          // the server may have been told that we are there, and so deliver
  bool has_ended_stream;    // our end of the stream was sent; nothing may follow it
  SocketDescriptor socket;
  gnutls_session_t tls_session;
  char *tls_hostname;  // belongs to `tls_session`
};

enum XMPPError {
  XMPP_OK,           // the expected answer
  XMPP_ERROR,        // some other answer
  XMPP_FAILURE,      // the server said "failure" to the authentication
  XMPP_INTERRUPTED,  // this thread's worker is to leave, and the answer was not judged
};

// How a login or a registration ended, as a text for the page that waits for it.
struct XMPPThreadMessage {
  AppWindow *window;
  char *text;  // owned
  u8 flag;     // 0 from every sender
};

XMPPThreadMessage *alloc_thread_message (AppWindow *window, const char *text, u8 flag);
void dealloc_thread_message (XMPPThreadMessage *message);

// ---- Account ----

// Zeroed, with a line on the console, when the JID is not of the form user@host; zeroed without a
// line when one of the three is empty.
XMPPAccount alloc_xmpp_account (String bare_jid, String password, String resource);
void dealloc_xmpp_account (XMPPAccount account);

// ---- Opening a stream ----

// From nothing to an open TLS stream. 0, or -1 when the server can't be reached or offers no TLS or
// its certificate is refused, or when this thread's worker is to leave. `connection_out` says in both
// cases what is open; its socket is set as soon as there is one, so that `interrupt_xmpp_connection`
// can end the wait. Where the worker was left behind (`worker_abandon`), `connection_out` is not
// touched.
int start_xmpp_connection (Buffer buffer, String host, const char *port,
                           gnutls_certificate_credentials_t tls_credentials,
                           Connection *connection_out);
// 0 when the server opened a stream that offers STARTTLS, else -1 with a warning; -1 without one when
// interrupted.
int xmpp_begin_unencypted_stream (SocketDescriptor socket, Buffer buffer, String host);
// Any answer but "proceed" stops the program.
void xmpp_request_starttls (SocketDescriptor socket, Buffer buffer);
// Whether the server offers stream management (XEP-0198) on this stream; false when interrupted.
bool xmpp_begin_stream (gnutls_session_t tls_session, Buffer buffer, String host);

// ---- Logging in ----

XMPPError xmpp_send_auth_request (gnutls_session_t tls_session, Buffer buffer, String user,
                                  String password);
// The full JID that the server bound: a view into `buffer`, good until the next exchange; empty when
// interrupted. Any answer but one bind result stops the program. An empty `resource` lets the server choose. `rest_out`
// receives a view of what came behind the answer and belongs to the session: messages and presences,
// the last of them perhaps not whole. Anything else there stops the program.
String xmpp_iq_set_bind_resource (gnutls_session_t tls_session, Buffer buffer, u64 id,
                                  String resource, String *rest_out);
void xmpp_send_presence (gnutls_session_t tls_session, Buffer buffer, String full_jid);
void xmpp_send_end_stream (gnutls_session_t tls_session, Buffer buffer);

// ---- Registering ----

// XMPP_OK when the server offers registration.
XMPPError xmpp_iq_get_register (gnutls_session_t tls_session, Buffer buffer, u64 id);
// Returns `id`; the answer is not read here. User and password go out as they are, unescaped.
u64 xmpp_iq_set_register (gnutls_session_t tls_session, Buffer buffer, u64 id, String user,
                          String password);

// ---- Workers ----

// The whole way of a login, from nothing to our presence. Returns why there is no session, or NULL when
// there is one; `kept_out` is then what came ahead of it, and belongs to the caller.
const char *xmpp_log_in (AppWindow *window, String *kept_out);
// The entry of a registration's thread; `data` is the `AppWindow`, whose `app_window_start_worker`
// starts it. The outcome reaches the page as an idle handler; handing it over is the last that the
// thread does with the window's connection and account.
void *start_xmpp_register_thread (void *data);
// The last act of a worker's entry: leaves the connection to the interface, then says how things ended,
// where `outcome` has data. A worker that was left behind has no window to tell, so `handlers` is the
// window's table as it was found at the beginning. Returns 0.
void *end_xmpp_worker (AppWindow *window, const XMPPHandlers *handlers, GSourceFunc outcome_handler,
                       String outcome);
// The outcome of a worker that was interrupted.
#define XMPP_INTERRUPTED_TEXT "Interrupted"

// ---- Iqs ----

// Takes one received top-level element; session thread.
void parse_xmpp_iq (AppWindow *window, XMLElement *element);

// ---- Closing ----

// Tells a worker that still logs in to leave; it will then not announce our presence, so that the
// server has delivered nothing. False when it has begun to announce it, and for ever after.
bool interrupt_xmpp_login (AppWindow *window);
// Sends our end of the stream, the first time that it is called in a session.
void end_xmpp_stream (AppWindow *window);
// Whether our end was sent: nothing is sent behind it.
bool has_ended_xmpp_stream (AppWindow *window);

// Wakes a worker that waits for the server, by shutting its socket down without closing it. Nothing
// happens when there is no socket.
void interrupt_xmpp_connection (AppWindow *window);
// Releases account, socket and TLS session and zeroes what held them. No worker may be using them.
void xmpp_close_connection (AppWindow *window);
