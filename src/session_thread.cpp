// The thread of a session: its login, its receiving, its end.
#include "session_thread.h"

#include "app_window.h"
#include "morvane.h"
#include "receive.h"
#include "stanza_dispatch.h"
#include "xmpp_connection.h"

void *
start_xmpp_connection_thread (void *argument)
{
  AppWindow *window = (AppWindow *) argument;
  const XMPPHandlers *handlers = window->xmpp_handlers;
  String kept = {};
  const char *failure = xmpp_log_in (window, &kept);
  if (!failure) {
    hand_over (handlers->login_success, g_object_ref (window));
    run_xmpp_session (window, kept);
    dealloc_string (kept);
  } else if (worker_is_current_interrupted ()) {
    failure = XMPP_INTERRUPTED_TEXT;
  }
  String outcome = failure ? to_string (failure) : String{};
  return end_xmpp_worker (window, handlers, handlers->login_failure, outcome);
}

void
run_xmpp_session (AppWindow *window, String kept)
{
  Receiver receiver;
  receiver_begin (&receiver, window->connection.tls_session, window->input_stream_buffer, kept);
  for (;;) {
    Received received = receive_stanzas (&receiver);
    String data = received.data;
    if (data.size)
      stream_management_note_heard (&window->stream_management, data);
    // Nobody waits for it any more, however much comes.
    if (data.size && worker_is_current_interrupted () &&
        !stream_management_is_counting (&window->stream_management))
      continue;
    CONSOLE_DUMP (data);
    if (!data.size)
      break;
    dispatch_received (window, received);
  }
  // A window that closes may have said its farewell already.
  if (!worker_is_current_interrupted ())
    end_xmpp_stream (window);
  console_put ("Disconnected.\n");
}
