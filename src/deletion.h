// What the user deleted last can be brought back for ten seconds, or until the next deletion or login: a bar
// below the lists says what is gone and offers Undo. The store has forgotten it meanwhile; its widgets
// are only hidden, so that all is as the user left it when they are seen again.
//
// Ownership: the window owns the bar and the records that wait, as its children the hidden widgets; the
// negotiation what was deleted.
// Threads: the interface thread only.
#pragma once

#include "app_window.h"

// Makes the window's bar, which nobody sees yet.
void deletion_init (AppWindow *window);
// Something was deleted just now, by a call of `negotiation.h`, and its widgets were hidden; `text` says
// what. `deletion_end` was called before.
void deletion_offer_undo (AppWindow *window, const char *text);
// Brings it back, with what came for it meanwhile. Nothing happens where there is nothing to undo.
void deletion_undo (AppWindow *window);
// What is deleted stays deleted, and its widgets are destroyed. Called ahead of the next deletion, which
// frees their records.
void deletion_end (AppWindow *window);
// Keeps a record that was dropped, when its procedure or one row of it is deleted: true when the record
// is kept, which takes it over. After an undo `handler` gets the record once more.
bool deletion_hold (AppWindow *window, String procedure_initiator, s64 procedure_time,
                    GSourceFunc handler, void *record, GDestroyNotify dealloc_record);
