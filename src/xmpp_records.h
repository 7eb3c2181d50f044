// What the session thread has for the interface: a record a kind, and the table of the handlers that
// take them.
//
// Ownership: a record owns its strings and holds a reference on its window; it is handed to one idle
// handler, which frees it with the record's own `dealloc_`.
//
// Threads: the session thread makes records, the interface thread frees them.
#pragma once

#include <glib.h>

#include "buffers.h"
#include "procedure.h"

typedef struct _AppWindow AppWindow;

// What a vCard 4 says about an account. Each field is an owned NUL-terminated text, or NULL.
struct VCard {
  char *fullname;
  char *role;
  char *email;
  char *telephone;
  char *url;
  char *organization;
  char *work_street;
  char *key;
};

// A request of ours failed.
struct XMPPIQErrorSignal {
  AppWindow *window;
  u64 id;  // of the request
};

// A chat line came.
struct XMPPMessageSignal {
  AppWindow *window;
  String from;  // full JID as received
  String text;  // entities resolved
};

// A message of ours came back, or so its sender says: anyone may.
struct XMPPMessageErrorSignal {
  AppWindow *window;
  String from;       // who could not be reached; full or bare JID as received
  u64 id;            // of the request that carried the message; 0 when that is not told
  String condition;  // why: the name of the defined condition; empty when there is none
  String text;       // why, in the words of a server, entities resolved; empty when there are none
};

// A presence came; what it says is the handler's that it is given to.
struct XMPPPresenceSignal {
  AppWindow *window;
  String from;  // full JID as received
};
typedef XMPPPresenceSignal XMPPPresenceConfirmSignal;
typedef XMPPPresenceSignal XMPPPresenceAvailableSignal;
typedef XMPPPresenceSignal XMPPPresenceUnavailableSignal;
typedef XMPPPresenceSignal XMPPPresenceSubscribeSignal;
typedef XMPPPresenceSignal XMPPPresenceSubscribedSignal;

// The other party opened a procedure.
struct XMPPProcedure {
  AppWindow *window;
  String title;  // entities resolved
  String initiator;
  s64 time;  // POSIX seconds, here and below
};

// The other party added a clause.
struct XMPPClause {
  AppWindow *window;
  String procedure_initiator;
  String clause_initiator;
  s64 procedure_time;
  s64 clause_time;
};

// The other party committed a revision.
struct XMPPClauseRevision {
  AppWindow *window;
  String text;  // entities resolved; may be empty
  String procedure_initiator;
  String clause_initiator;
  String revision_author;
  s64 procedure_time;
  s64 clause_time;
  s64 revision_time;
};

// The other party wrote a line about a clause.
struct XMPPClauseMessage {
  AppWindow *window;
  String text;  // entities resolved; may be empty
  String procedure_initiator;
  String clause_initiator;
  String message_author;
  s64 procedure_time;
  s64 clause_time;
  s64 message_time;
};

// The other party decided on a revision.
struct XMPPClauseRevisionDecisionSignal {
  AppWindow *window;
  DecisionStatus status;
  String procedure_initiator;
  String clause_initiator;
  String revision_author;
  String decision_author;
  s64 procedure_time;
  s64 clause_time;
  s64 revision_time;
  s64 decision_time;
};

// A vCard came.
struct VCardMessage {
  AppWindow *window;
  u64 id;       // of the request that this answers
  String from;  // as received; no data when the answer named no sender
  VCard vcard;
};

// Who takes what was received, and hears how a worker ended: filled in by the layer above, which
// applies it. A window has one table as long as it lives. But for the last one, each is an idle handler
// (`hand_over`): it frees the record of its kind and returns G_SOURCE_REMOVE.
struct XMPPHandlers {
  GSourceFunc message;
  GSourceFunc message_error;
  GSourceFunc presence_confirm;
  GSourceFunc presence_available;
  GSourceFunc presence_unavailable;
  GSourceFunc presence_subscribe;
  GSourceFunc presence_subscribed;
  GSourceFunc iq_error;
  GSourceFunc vcard;
  GSourceFunc procedure;
  GSourceFunc clause;
  GSourceFunc clause_revision;
  GSourceFunc clause_message;
  GSourceFunc clause_revision_decision;
  // Outcomes of a worker, an `XMPPThreadMessage` each.
  GSourceFunc login_failure;
  GSourceFunc register_success;
  GSourceFunc register_failure;
  // Given the window and a reference on it: the login succeeded, the worker has left.
  GSourceFunc login_success;
  GSourceFunc worker_left;
  // The server has acknowledged stanzas. Called at once, on the interface thread.
  void (*acknowledged) (AppWindow *window);
};

// A zeroed block of `size` bytes whose first field is the window, which may be NULL; takes a
// reference on it. Any thread.
void *alloc_xmpp_record (AppWindow *window, u64 size);
// Frees the block alone, and drops its reference on the window. Interface thread.
void dealloc_xmpp_record (void *record);

XMPPIQErrorSignal *alloc_xmpp_iq_error_signal (AppWindow *window, u64 id);
void dealloc_xmpp_iq_error_signal (XMPPIQErrorSignal *signal);
void dealloc_xmpp_message_signal (XMPPMessageSignal *signal);
void dealloc_xmpp_message_error_signal (XMPPMessageErrorSignal *signal);
void dealloc_xmpp_presence_confirm_signal (XMPPPresenceConfirmSignal *signal);
void dealloc_xmpp_presence_available_signal (XMPPPresenceAvailableSignal *signal);
void dealloc_xmpp_presence_unavailable_signal (XMPPPresenceUnavailableSignal *signal);
void dealloc_xmpp_presence_subscribe_signal (XMPPPresenceSubscribeSignal *signal);
void dealloc_xmpp_presence_subscribed_signal (XMPPPresenceSubscribedSignal *signal);
void dealloc_xmpp_procedure (XMPPProcedure *message);
void dealloc_xmpp_clause (XMPPClause *message);
void dealloc_xmpp_clause_revision (XMPPClauseRevision *message);
void dealloc_xmpp_clause_message (XMPPClauseMessage *message);
void dealloc_xmpp_clause_revision_decision_signal (XMPPClauseRevisionDecisionSignal *signal);
void dealloc_vcard (VCard vcard);
void dealloc_vcard_message (VCardMessage *message);
