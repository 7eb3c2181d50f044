// Stanzas: one sender for each kind that the program sends, and the parsers that turn a received
// negotiation element or vCard into a record for the interface. RFC 6120 and 6121 (XMPP), XEP-0292
// (vCard 4 over XMPP), XEP-0030 (service discovery); the negotiation elements are Morvane's own.
//
// A negotiation object is named on the wire by "author:time": the bare JID of who made it, a colon
// and the POSIX second, and every element names its whole ancestry with such pairs.
//
// Ownership: senders borrow everything.
//
// Threads: senders run on the interface thread, but for `xmpp_iq_get_roster` and
// `xmpp_iq_set_roster`, which the session thread calls before the interface is told of the login;
// parsers run on the session thread.
#pragma once

#include <glib.h>
#include <gnutls/gnutls.h>

#include "contacts.h"
#include "procedure.h"
#include "xml.h"
#include "xmpp_records.h"

// The longest bare JID that is taken from the network, in bytes (RFC 7622: two parts of at most
// 1,023 bytes and the sign between them).
enum {
  BARE_JID_SIZE_MAX = 2047
};

// ---- Ids and addresses ----

// The next request id of the window; the first is 1. Any thread.
u64 generate_xmpp_id (AppWindow *window);
// The part before the first "/", or the whole text when there is none: a view.
String get_bare_jid_from_full_jid (String jid);
// A non-empty text without "/", with one "@" that is neither its first nor its last byte.
bool is_bare_jid (String text);
// Whether a text from the network can be kept and shown: valid UTF-8 without a NUL byte.
bool is_storable_text (String text);
// Whether a bare JID from the network can be kept: such a text, not empty, of at most
// BARE_JID_SIZE_MAX bytes and without an apostrophe, which no JID of the store may hold.
bool is_storable_jid (String bare_jid);

// ---- Presence, roster and chat ----
// Each builds its stanza in the window's `output_stream_buffer`, dumps it under "request" and sends
// it whole. A stanza that fills the buffer stops the program. Ids returned are the request's.

u64 xmpp_presence_subscribe (AppWindow *window, String to);
u64 xmpp_presence_subscribed (AppWindow *window, String to);
u64 xmpp_iq_get_roster (AppWindow *window);
// Sends and waits for the answer, which must be an empty result; anything else stops the program.
// For the time before the receive loop runs.
void xmpp_iq_set_roster (gnutls_session_t tls_session, Buffer buffer, u64 id, String from,
                         String jid);
void xmpp_iq_get_disco1_vcard4 (AppWindow *window, String to);
// Returns whether the session took all of it.
bool xmpp_send_message (AppWindow *window, String to, String text);

// ---- vCards ----

u64 xmpp_iq_get_vcard4 (AppWindow *window, String to);
// No field may be NULL; an empty one is left out.
u64 xmpp_iq_set_vcard4 (AppWindow *window, VCard vcard);
Buffer buffer_append_vcard4 (Buffer buffer, VCard vcard);
// Posts a `VCardMessage` to the interface; a wrong namespace drops the answer with a warning.
void parse_xmpp_vcard4 (AppWindow *window, u64 id, String from, XMLElement *vcard);
// A copy of the text in the property's first child of that name, entities left as they are; NULL
// when there is none. Belongs to the caller (`dealloc_cstr`).
char *alloc_get_vcard4_field_text_by_name (XMLElement *property, const char *name);

// ---- Negotiation: sending ----
// Each goes to the other party of the procedure. Speaking for someone else stops the program.

void xmpp_send_procedure (gnutls_session_t tls_session, Buffer buffer, u64 id, String from,
                          Procedure *procedure);
void xmpp_send_clause (gnutls_session_t tls_session, Buffer buffer, u64 id, String from,
                       Procedure *procedure, Clause *clause);
void xmpp_send_clause_revision (gnutls_session_t tls_session, Buffer buffer, u64 id, String from,
                                Procedure *procedure, Clause *clause, ClauseRevision *revision);
u64 xmpp_send_clause_message (AppWindow *window, Procedure *procedure, Clause *clause,
                              ClauseMessage *message);
u64 xmpp_send_clause_revision_decision (AppWindow *window, Procedure *procedure, Clause *clause,
                                        ClauseRevision *revision, ClauseRevisionDecision *decision);

// ---- Negotiation: receiving ----
// Elements name their authors themselves, so what a message may say is settled before its parser.

// Whether the author of a negotiation element is who sent it, `from` being a full or bare JID: the
// last pair names exactly the bare JID, or, of a clause message, the user name. True for an element
// that names no author to be compared: a procedure, an unknown one, and one with a malformed pair,
// which stops its parser whoever sent it.
bool is_negotiation_author_sender (XMLElement *element, String from);

// Each takes one element of a message's body and posts one record, or drops the element with one
// line that begins with "Warning: ". A malformed pair stops the program. `from` is not consulted.

void parse_xmpp_procedure (AppWindow *window, XMLElement *element, String from);
void parse_xmpp_clause (AppWindow *window, XMLElement *element, String from);
void parse_xmpp_clause_revision (AppWindow *window, XMLElement *element, String from);
void parse_xmpp_clause_message (AppWindow *window, XMLElement *element, String from);
void parse_xmpp_clause_decision (AppWindow *window, XMLElement *element, String from);
