// A scripted XMPP server on the loopback: one thread of the test that plays a list of steps to the
// program under test, checks what it sends byte by byte and answers as told, well or badly.
//
// Its certificates are those of the private world that scripts/world makes, found by MORVANE_WORLD
// in the environment. The program always connects to port 5222, so such tests run in a world.
//
// Every step is bounded in time. A step that fails ends the script: the reason goes to standard
// error at once (the program may stop before the test can ask), the connection is closed, and the
// report tells it. Beyond the steps, every TLS record of the program must be at most 10 bytes.
//
// Ownership: `scripted_server_finish` and `scripted_server_stop` release the server.
// Threads: the functions here are for the threads of the test; the server's own is inside.
#pragma once

#include <stddef.h>

#include <string>
#include <vector>

// What travels as pieces: in clear text each piece is one send, over TLS each is one record (a
// piece of more than 16,384 bytes takes several).
typedef std::vector<std::string> Pieces;

enum ServerStepKind {
  SERVER_STEP_ACCEPT,
  SERVER_STEP_EXPECT,
  SERVER_STEP_EXPECT_PATTERN,
  SERVER_STEP_EXPECT_UNTIL,
  SERVER_STEP_EXPECT_END,
  SERVER_STEP_SEND,
  SERVER_STEP_HANDSHAKE,
  SERVER_STEP_REFUSED_HANDSHAKE,
  SERVER_STEP_DELAY,
  SERVER_STEP_WAIT,
  SERVER_STEP_WAIT_DEAF,
  SERVER_STEP_RUN,
  SERVER_STEP_UPDATE_KEYS,
  SERVER_STEP_CLOSE_NOTIFY,
  SERVER_STEP_FIN,
  SERVER_STEP_RESET,
  SERVER_STEP_CLOSE,
};

struct ServerStep {
  ServerStepKind kind;
  std::string text;             // what is expected, or the host whose certificate is shown
  Pieces pieces;                // what is sent
  int pause_ms;                 // between two pieces, or the length of a delay
  bool with_tickets;            // the handshake is followed by TLS 1.3 session tickets
  void (*action) (void *data);  // what a run step calls, on the server's thread
  void *data;                   // borrowed
};

typedef std::vector<ServerStep> ServerScript;

// ---- Steps ----

// Takes the next connection; an open one is closed first. Comes before everything else.
ServerStep server_accept ();
// Exactly these bytes come next.
ServerStep server_expect (const std::string &text);
// What comes next matches this POSIX extended regular expression, from its first byte on; the
// longest match counts, so the pattern should end in something that comes once.
ServerStep server_expect_pattern (const std::string &pattern);
// Anything up to and including `tail`.
ServerStep server_expect_until (const std::string &tail);
// The program ends the connection, in whatever way, after nothing more.
ServerStep server_expect_end ();
ServerStep server_send (const std::string &text);  // in one piece; nothing when empty
ServerStep server_send (const Pieces &pieces, int pause_ms = 0);
// TLS from here on, with the world's certificate for `host`.
ServerStep server_handshake (const std::string &host, bool with_tickets = false);
// A handshake that the program gives up.
ServerStep server_refused_handshake (const std::string &host);
// Does nothing for a while, as a slow server would. Not a way to wait for the program.
ServerStep server_delay (int ms);
// Goes on when the test has called `scripted_server_signal` once more. Reads meanwhile, or not.
ServerStep server_wait ();
ServerStep server_wait_deaf ();
ServerStep server_run (void (*action) (void *data), void *data);
// Renews the server's keys and asks the program to renew its own (RFC 8446, 4.6.3). GnuTLS takes eight
// of these in a second.
ServerStep server_update_keys ();
ServerStep server_close_notify ();  // ends the server's TLS stream, keeps reading
ServerStep server_fin ();           // ends the server's side of the socket, without close-notify
ServerStep server_reset ();         // breaks the connection off
ServerStep server_close ();         // closes the socket, without close-notify

void script_append (ServerScript *script, const ServerScript &more);

// The text in two pieces, and in pieces of `size` bytes.
Pieces cut_at (const std::string &text, size_t offset);
Pieces cut_every (const std::string &text, size_t size);

// ---- Running ----

struct ScriptedServer;

struct ServerOptions {
  std::string address = "127.0.0.1";
  int port = 5222;         // 0 for any that is free
  int timeout_ms = 10000;  // for each step; so many times as long as MORVANE_SLOW says
};

// What happened.
struct ServerReport {
  std::string failure;               // empty when every step went well
  size_t steps_done;                 // of the script
  std::vector<std::string> taken;    // for each step done, what it expected and got; else empty
  std::vector<std::string> records;  // every TLS record that the program sent, of all connections
  std::string received_clear;        // all clear text that the program sent
  std::string received;              // all text over TLS that the program sent
  std::string rest;                  // what came that no step took
  std::string end;                   // how the program ended the last connection: empty when it
                                     // didn't, "close-notify", "fin" or "reset"
  std::string server_name;           // which server the last handshake asked for (RFC 6066)
  std::string transcript;            // everything in order, for a person to read
};

// Listens before it returns; a port that is taken is a failure in the report.
ScriptedServer *scripted_server_start (const ServerScript &script,
                                       const ServerOptions &options = {});
int scripted_server_port (ScriptedServer *server);
// Lets one wait pass, this or the next.
void scripted_server_signal (ScriptedServer *server);
size_t scripted_server_steps_done (ScriptedServer *server);
// The script is through, or has failed; never waits.
bool scripted_server_is_done (ScriptedServer *server);
// Waits until `count` steps are done, at most for the time of one step. False when that fails.
bool scripted_server_wait_steps (ScriptedServer *server, size_t count);
// Waits for the end of the script, closes, joins.
ServerReport scripted_server_finish (ScriptedServer *server);
// Ends the script where it is, closes, joins. Not being through is no failure here.
ServerReport scripted_server_stop (ScriptedServer *server);

// The sizes of a report's records.
std::vector<size_t> record_sizes (const ServerReport &report);

// ---- Logging in ----

// How a login differs from the good one that Prosody gives. An answer that has pieces replaces the
// usual one; a single empty piece sends nothing.
struct LoginOptions {
  std::string password = "pw";
  std::string resource = "morvane";  // what the program asks for
  std::string bound_resource;        // what it gets; empty for what it asks for

  bool has_declaration = true;  // the clear answer begins with <?xml version='1.0'?>
  bool offers_starttls = true;
  bool has_separate_features = false;     // header and features in a piece each, as ejabberd does
  bool accepts_password = true;           // else the script ends with the failure and the end
  bool has_roster_answer = true;          // the roster's result
  bool has_presence_answer = true;        // the program's own presence, sent back
  bool with_tickets = false;              // TLS 1.3 session tickets
  bool offers_stream_management = false;  // and expects that it is enabled, and agrees

  size_t cut_size = 0;      // cuts every answer into pieces of so many bytes; 0 for whole
  int pause_ms = 0;         // between pieces
  int answer_delay_ms = 0;  // before every answer

  Pieces clear_answer;
  Pieces proceed_answer;
  Pieces stream_answer;
  Pieces auth_answer;
  Pieces second_stream_answer;
  Pieces bind_answer;
  Pieces enable_answer;
  Pieces roster_answer;
  Pieces presence_answer;

  std::string certificate_host;  // whose certificate is shown; empty for the host of the JID
};

// The program's requests, byte by byte.
std::string login_stream_request (const std::string &host);
std::string login_auth_request (const std::string &user, const std::string &password);
std::string login_bind_request (const std::string &resource);
std::string login_roster_request (const std::string &full_jid);
std::string login_presence_request (const std::string &full_jid);
// The server's usual answers.
std::string login_stream_header (const std::string &host);
std::string login_starttls_features ();
std::string login_sasl_features ();
std::string login_bind_features ();

// From accepting to the open TLS stream: what login and registration share. With the options that
// keep the program from TLS, the script ends with the end of the connection.
ServerScript script_connect (const std::string &host, const LoginOptions &options = {});
// A whole login: what a test adds comes after the program's presence and the answer to it.
ServerScript script_login (const std::string &bare_jid, const LoginOptions &options = {});
