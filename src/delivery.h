// What leaves: sends the outbox of a window's account in its order, and follows each object until the
// server is known to have it. A commit stores the object with its entry and then calls
// `delivery_send`; a login does the same for what earlier sessions left.
//
// Ownership: the outbox is a field of the window, from the loading of an account to its unloading.
// Threads: the interface thread only.
#pragma once

#include "outbox.h"

typedef struct _AppWindow AppWindow;

// The account was loaded: loads its outbox and sends it.
void delivery_begin (AppWindow *window);
// Sends what waits, as far as the session takes it: without one, or behind our end of its stream, it
// goes on waiting. What came back from a procedure goes again ahead of what is new there, which the
// other party could not attach to anything else.
void delivery_send (AppWindow *window);
// What the session has learnt about what was sent: entries go on, rows go.
void delivery_update (AppWindow *window);
// Lets the outbox's table go a second after its last row. After what may have taken the last one.
void delivery_watch_table (AppWindow *window);
// Whether the object did not go out: what shows such an object marks it.
bool delivery_is_unsent (AppWindow *window, OutboxKind kind, u64 object_db_id);

// An object that came back, as the user knows it.
struct UndeliveredObject {
  Procedure *procedure;  // borrowed; NULL while the object is deleted
  const char *kind;      // stands in front of the text, as "the revision "
  String text;           // borrowed; of a decision, that of the revision decided on
};

// The message with this id came back with an error from this party. Whether it carried one of these
// objects, and to that party: ids begin anew with each session, and what an earlier one has sent may
// come back in this one. Says which one it was.
bool delivery_note_refused (AppWindow *window, u64 request_id, String party,
                            UndeliveredObject *undelivered_out);

// The session is over: what is in doubt is in the outbox again. Called after the worker's last use of
// the session, and before the session is released; more than once does no harm.
void delivery_end_session (AppWindow *window);
// The account is unloaded.
void delivery_end (AppWindow *window);
