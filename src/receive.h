// From the bytes that a server sends to whole stanzas, and from these to their trees.
//
// A server cuts stanzas into records blindly and coalesces short ones, so a record is no unit: a
// session takes what is whole and keeps what is not. A stanza that the tree parser refuses takes no
// neighbour with it, and one that is longer than half of the buffer is passed over to its end.
//
// Ownership: a `Receiver` borrows session and buffer. What was received and its trees are views over
// the buffer, good until the next call that receives.
// Threads: the one that receives on the session.
#pragma once

#include <gnutls/gnutls.h>

#include "os_gnulinux.h"
#include "xml.h"

// The receiving side of one session.
struct Receiver {
  gnutls_session_t tls_session;  // borrowed
  Buffer buffer;                 // borrowed; what was received lies at its front
  u64 size;                      // bytes received there
  u64 given_size;                // those of them that the last `Received` holds
};

// Whole stanzas, and at the end of the stream perhaps the beginning of one.
struct Received {
  String data;        // a view over the front of the buffer; empty at the end of the stream
  bool is_open;       // the stream ended inside of a stanza
  String text;        // what the tree at hand was made of, from its first "<" on
  u32 skipped_count;  // stanzas longer than half of the buffer, passed over ahead of `data`
  // For `received_next_tree`.
  Buffer memory;      // the room behind all that was received
  String rest;        // what no tree was asked for yet
  bool is_whole;      // `rest` was not yet tried in one piece
  bool is_last_open;  // the last element of the tree at hand is the one that was cut
};

// ---- Stanzas of a session ----

// `kept` is what came earlier and was kept for the session; it is copied.
void receiver_begin (Receiver *receiver, gnutls_session_t tls_session, Buffer buffer, String kept);
// Waits until no stanza is left open, or half of the buffer is full; the other half is for the trees.
// What is then not whole is continued by the next call. A stanza that fills that half alone costs a
// "Warning: " line, and is skipped to its end.
Received receive_stanzas (Receiver *receiver);
// What `data` holds, which begins where a stanza may begin; its trees are built in `memory`.
Received make_received (String data, bool is_open, Buffer memory);
// Moves on to the next tree of what was received; false when there is none left. Usually there is one,
// which holds all stanzas as siblings. When the whole gives none, each stanza is tried by itself. A
// stanza that gives no tree sets `tree_out` to none and costs a "Warning: " line. A tree is overwritten
// by the next one.
bool received_next_tree (Received *received, XMLElement **tree_out);

// ---- Looking ahead ----

// Whether `text` begins with the opening tag of a message, a presence or an iq.
bool begins_with_stanza (String text);
// Whether what came behind the answer that binds a resource may wait for the session: messages and
// presences, which the server passes on from that moment on (RFC 6120, 7.1), white space, and the
// beginning of a stanza.
bool can_wait_for_session (String rest);

// ---- Answers to a request ----
// Each receives into the front of `buffer` until a whole answer is there and nothing is open; what is
// there when the server pauses for three seconds, or half of the buffer is full, is the answer too.
// Empty when the connection ended.

String receive_clear_answer (SocketDescriptor socket, Buffer buffer);
String receive_tls_answer (gnutls_session_t tls_session, Buffer buffer);
// The same, and the answer is one stanza only. `rest_out` receives what came in one record with it.
String receive_tls_stanza (gnutls_session_t tls_session, Buffer buffer, String *rest_out);
