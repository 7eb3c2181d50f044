// What a session has sent and received, counted in stanzas, and what both sides tell each other about
// it: XEP-0198 (stream management, urn:xmpp:sm:3) without resumption. Stanzas are messages, presences
// and iqs; the elements of stream management itself are none.
//
// A server that offers it acknowledges what it has taken over, and so do we: a received stanza is
// acknowledged when the interface has stored what it brought. Without it the server's word is missing,
// and the nearest to it is that bytes came some time after the server's system had taken what was
// sent: what comes at once may have been on its way. Bytes of a server that does not read confirm
// nothing, nor do those that come before it has had as long to read the rest as the backlog stood.
//
// A server that refuses a stanza for its size ends the stream with the error "policy-violation" (RFC
// 6120, 4.9.3.14) and doesn't say which. It must be the largest one of the session: what is smaller than
// another that the server took would have passed. The end of such a stream confirms nothing, as the
// server has read no further than that stanza.
//
// Ownership: the record is a field of its window, and belongs to the session that it was begun for.
// Threads: any, but for the functions that name one. The session thread begins it; it ends on the
// interface thread, after the session thread has left.
#pragma once

#include <glib.h>
#include <gnutls/gnutls.h>

#include "xml.h"

typedef struct _AppWindow AppWindow;

struct StreamManagement {
  AppWindow *window;             // borrowed; NULL when there is no session
  gnutls_session_t tls_session;  // borrowed
  StreamManagement *next;        // of all that have begun
  u64 session_number;            // tells a late record of an earlier session from this one's
  bool is_enabled;               // asked for, and not refused
  bool is_counting;              // the server has agreed: received stanzas count
  bool is_broken;                // a stanza could not be sent whole; nothing more goes out
  bool is_policy_violated;       // the server has ended the stream because of what was sent
  // All of these count stanzas since the session began.
  u64 sent_count;
  u64 taken_count;         // of those, the ones that the server's system has taken whole
  u64 acknowledged_count;  // what the server has acknowledged
  u64 largest_size;        // of one stanza that was sent, in bytes
  u64 largest_position;    // where that one stands in what was sent
  u64 received_count;      // since the server agreed
  u64 applied_count;       // of those, the ones that the interface has applied
  // Interface thread.
  u64 told_count;  // what we have acknowledged last
  // Monotonic, microseconds; 0 for never.
  s64 taken_time;    // when the server's system was last found to have taken all
  s64 backlog_time;  // since when there is something that it has not taken
  s64 trusted_time;  // bytes that come before this confirm nothing: the server has read too little
  s64 heard_time;    // when bytes that confirm last came from the server
  s64 ended_time;    // when the server ended its stream
  s64 heard_delay;  // how much earlier the server's system must have taken what those bytes confirm
  bool is_stuck;    // the server's system has not taken something for longer than that
  bool is_asking;   // `<r/>` goes out as soon as the interface has nothing else to do
  guint tell_source;    // a timer that will acknowledge; 0 for none
  guint answer_source;  // a timer for an answer that is due; 0 for none
  u32 answer_time_max;  // milliseconds that the server has for an answer
};

// ---- Session ----

// Begins to count: everything that is sent on `tls_session` with `send_stanza` from now on. With
// `is_offered`, asks the server to count too; its answer comes among the stanzas. Session thread.
void stream_management_begin (StreamManagement *counts, AppWindow *window,
                              gnutls_session_t tls_session, bool is_offered);
// Does nothing when it was not begun. Interface thread.
void stream_management_end (StreamManagement *counts);
// Whether these features of a stream, or what they stand in, offer stream management.
bool is_stream_management_offered (XMLElement *features);

// ---- Sending ----

// Sends one whole stanza, and counts it where its session is counted. Returns the bytes sent: none,
// with a warning, once our end of a counted session's stream was sent.
u64 send_stanza (gnutls_session_t tls_session, String stanza);

// ---- Receiving ----

// These bytes came from the server. Session thread.
void stream_management_note_heard (StreamManagement *counts, String data);
// Looks whether this top-level element is an error that ends the stream because of what was sent.
// Session thread.
void stream_management_note_error (StreamManagement *counts, XMLElement *element);
// Takes a top-level element that belongs to stream management, where that is enabled; false for any
// other. Session thread.
bool stream_management_take (StreamManagement *counts, XMLElement *element);
// Before and after one received stanza is parsed and handed over; the second also stands for one that
// was skipped. Should the program stop between the two, by an assertion, the stanza is acknowledged
// first, after what came before it was applied: it would come again at every login. Session thread.
void stream_management_enter_stanza (StreamManagement *counts);
void stream_management_leave_stanza (StreamManagement *counts);

// ---- Acknowledging ----

// Whether received stanzas are counted, and so come again when they are not acknowledged.
bool stream_management_is_counting (StreamManagement *counts);
// Acknowledges at once what has been applied and was not acknowledged yet. Interface thread.
void stream_management_tell (StreamManagement *counts);

// ---- Looking ----

// What was sent, what of that the server's system has taken whole, and what the server has
// acknowledged.
u64 stream_management_get_sent_count (StreamManagement *counts);
// Looks, and so has to be called again while something is not taken: nothing tells.
u64 stream_management_get_taken_count (StreamManagement *counts);
// When that was seen, or later. Monotonic, microseconds.
s64 stream_management_get_taken_time (StreamManagement *counts);
u64 stream_management_get_acknowledged_count (StreamManagement *counts);
// What was taken up to this time has reached the server, as far as anybody can know without
// acknowledgements. Monotonic, microseconds; 0 for nothing.
s64 stream_management_get_confirmed_time (StreamManagement *counts);
// Where the stanza stands in what was sent that the server has refused for its size; 0 for none. From
// there on it has read nothing. Stanzas that each server has to take (RFC 6120, 13.12) are never it.
u64 stream_management_get_refused_position (StreamManagement *counts);
// Whether the server acknowledges, as far as is known: asked for, and not refused.
bool stream_management_is_enabled (StreamManagement *counts);
// Whether a stanza could not be sent whole.
bool stream_management_is_broken (StreamManagement *counts);
