// Keys that were on their way into a text when something else took its place. A window with a guard
// swallows all keys until a second passes without one, or until the user clicks: whoever types on
// without looking reaches no button and no other text. Escape goes through, and ends the guard.
//
// Ownership: the window owns its guard.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

// Begins the second anew where the window has a guard already.
void key_guard_begin (GtkWindow *window);
void key_guard_end (GtkWindow *window);
bool key_guard_is_active (GtkWindow *window);
