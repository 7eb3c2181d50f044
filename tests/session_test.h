// A real main window in front of a scripted server, for what is about sessions.
//
// Ownership: a `Session` ends its window, its worker and its server.
// Threads: the main thread is the interface thread; the server has its own.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "login_page.h"
#include "morvane.h"
#include "network.h"
#include "scripted_server.h"
#include "widget_test.h"

static const char JID[] = "alice@alpha.test";

static gnutls_certificate_credentials_t tls_credentials;

class Process : public testing::Environment {
  void SetUp () override
  {
    tls_credentials = init_tls_global ();
  }
  void TearDown () override
  {
    deinit_tls_global (tls_credentials);
  }
};

[[maybe_unused]] static testing::Environment *process =
  testing::AddGlobalTestEnvironment (new Process ());

// ---- A window and its server ----

inline bool
is_idle (void *data)
{
  return !app_window_is_worker_running ((AppWindow *) data);
}

inline bool
is_logged_in (void *data)
{
  return ((AppWindow *) data)->account_db_id != 0;
}

inline bool
is_server_done (void *data)
{
  return scripted_server_is_done ((ScriptedServer *) data);
}

struct Session {
  TestWindow test;
  AppWindow *window = test.window;
  ScriptedServer *server = NULL;

  Session ()
  {
    window->tls_credentials = tls_credentials;
    _console_text_buffer = test.console;
  }
  ~Session ()
  {
    close ();
    if (server)
      scripted_server_stop (server);
    pump ();
    _console_text_buffer = NULL;
  }
  Session (const Session &) = delete;
  Session &operator= (const Session &) = delete;

  // Ends it as its close button does.
  void close ()
  {
    close_window (&test);
    EXPECT_TRUE (pump_until (is_idle, window));
  }

  // Logs in to a server that goes on with `more` after the login.
  void begin (const ServerScript &more, const LoginOptions &options)
  {
    ServerScript script = script_login (JID, options);
    script_append (&script, more);
    server = scripted_server_start (script);
    log_in ();
  }

  // Logs in to a server that listens already, and expects the first ids in each login.
  void log_in ()
  {
    window->last_xmpp_id = 0;
    type (window->login_page, "bare_jid_entry", JID);
    type (window->login_page, "password_entry", "pw");
    press (window->login_page, "login_button");
    EXPECT_TRUE (pump_until (is_logged_in, window));
  }

  ServerReport finish ()
  {
    EXPECT_TRUE (pump_until (is_server_done, server));
    ServerReport report = scripted_server_finish (server);
    server = NULL;
    EXPECT_EQ (report.failure, "") << report.transcript;
    return report;
  }

  std::string console ()
  {
    pump ();
    char *text = gtk_text_buffer_get_all_text (test.console);
    std::string result = text;
    g_free (text);
    return result;
  }
};

// ---- A server that does not read ----

// To a server that is deaf: text until its system takes no more and the own socket holds the rest,
// and nothing waits in front of that.
inline void
fill_socket (Session *session)
{
  Connection *connection = &session->window->connection;
  std::string text =
    "<message to='bob@beta.test'><body>" + std::string (4000, 'x') + "</body></message>";
  while (os_get_unconfirmed_size (connection->socket) < 1000000)
    send_stanza (connection->tls_session, {(u8 *) &text[0], text.size ()});
  EXPECT_EQ (get_tls_send_state (connection->tls_session).waiting_size, 0u);
}

inline size_t
count_of (const std::string &text, const std::string &part)
{
  size_t count = 0;
  for (size_t at = text.find (part); at != std::string::npos; at = text.find (part, at + 1))
    ++count;
  return count;
}
