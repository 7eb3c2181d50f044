// The thread of a session: logs in, then receives and dispatches until the server ends the stream.
//
// Threads: the thread that `app_window_start_worker` starts. Its outcome reaches the login page as an
// idle handler. After a failed login nothing is done with the window's connection and account behind
// that; after one that succeeded the thread goes on.
#pragma once

#include "buffers.h"

typedef struct _AppWindow AppWindow;

// The thread's entry. `data` is the `AppWindow`, with a reference that the thread hands on.
void *start_xmpp_connection_thread (void *data);
// What it does after a login: receives on the window's session and dispatches, until the server ends
// the stream; then ends ours. `kept` came ahead of the session, and is copied.
void run_xmpp_session (AppWindow *window, String kept);
