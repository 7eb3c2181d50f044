// What a window knows about its session: whether it lives, what waits for the server to take it, how
// the window finds out that the session is over, and how the user logs in again.
//
// A session begins when its account is loaded. It is over when its worker has left or when a stanza
// could not be sent; the account then stays loaded, and the title says so, until the user logs in
// again, here or in another window, or closes the window.
//
// Ownership: the state is the window's.
// Threads: the interface thread.
#pragma once

#include <gtk/gtk.h>

#include "buffers.h"

typedef struct _App App;
typedef struct _AppWindow AppWindow;

// ---- Actions ----

// "app.log-in-again" with the id of a window, which notifications name, and the key of the action
// "log-in-again" of each window. At the application's startup.
void app_add_session_actions (GtkApplication *application);
void app_window_add_session_actions (AppWindow *window);

// ---- Beginning ----

// Before a worker is started for the account: keeps other processes from it until the worker has left
// without a session, the account is unloaded or the window closes. False when another window, of this
// process or of another one on the same store, has the account.
bool app_window_claim_account (AppWindow *window, String bare_jid);
void app_window_release_account (AppWindow *window);
// The account is about to be loaded for a session that lives. What else of the process has it loaded,
// in a window whose session is over, unloads it.
void app_window_begin_session (AppWindow *window);
bool app_window_is_connected (AppWindow *window);

// ---- The end ----

// The session is over, without the user having asked for it: the title and one notification say so,
// and a worker that still waits for the server is woken, so that it leaves. Nothing happens when it
// was known. The one place where the end of a session that lived is handled.
void app_window_lose_session (AppWindow *window);
// The worker has left and its outcome was handled.
void app_window_note_worker_left (AppWindow *window);
// Before the connection is released: nobody sees to what waits to be sent any more.
void app_window_stop_sending (AppWindow *window);

// ---- Farewell ----

// Ends our side of a session. With stream management the worker takes no more stanzas, what it took is
// applied and acknowledged first, and what comes later stays the server's.
void app_window_begin_farewell (AppWindow *window);
// The same at once, for a window whose main loop has ended: acknowledges what was applied. False when
// our end was not sent, because the session is over or the server takes no more.
bool app_window_say_farewell (AppWindow *window);

// ---- Logging in again ----

// Ends the session if there is one and leads to the login page, with the account's address filled in
// and the account unloaded. What the server delivers until its own end of the stream is applied
// first, for two seconds at most; with stream management it stays the server's. Nothing happens without a loaded account.
void app_window_log_in_again (AppWindow *window);
