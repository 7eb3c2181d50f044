// The program's own worker without its windows: logs in to the server of trials/server.py, or
// registers there, and says what it would have handed to the interface.
//
//   server_client session [JID]             one login; then rounds of stanzas until the end
//   server_client login|registration [JID]  one attempt for each line of standard input
//
// In a session the failure of a request with the number ROUND_ID ends a round, one with STREAM_ID
// a stream: the records of each round are compared with those of the stream's first, and the
// stream's end is told with "stream ROUNDS SAME SIZE", followed by the SIZE bytes of the first
// round's records, one a line. The rounds that differ come before it, "different NUMBER SIZE" and
// their records.
//
// Each attempt runs in a process of its own, for many end in a designed stop, and is told in a
// line: "text TEXT" for the status text that the page would show, "session" for a login that
// succeeded and ended, "stop EXPRESSION" for an assertion, "signal NUMBER" and "hang" for what must
// never be.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "app_window.h"
#include "login_page.h"
#include "morvane.h"
#include "network.h"
#include "network_events.h"
#include "registration_page.h"
#include "session_thread.h"

static const u64 ROUND_ID = 4000000001;
static const u64 STREAM_ID = 4000000002;
static const unsigned ATTEMPT_SECONDS_MAX = 60;

// Standard output is the console's, and goes nowhere.
static FILE *report;

// ---- Records ----

// A text on one line.
static std::string
escape (const void *data, u64 size)
{
  std::string line;
  for (u64 i = 0; i < size; ++i) {
    char c = ((const char *) data)[i];
    if (c == '\\')
      line += "\\\\";
    else if (c == '\n')
      line += "\\n";
    else
      line += c;
  }
  return line;
}

static std::string
text_of (String text)
{
  return " '" + escape (text.data, text.size) + "'";
}

static std::string
pair_of (String author, s64 time)
{
  return " " + escape (author.data, author.size) + ":" + std::to_string (time);
}

static std::string
take_vcard (VCardMessage *m)
{
  std::string line = "vcard " + std::to_string (m->id) + text_of (m->from);
  VCard card = m->vcard;
  for (const char *field : {card.fullname, card.role, card.email, card.telephone, card.url,
                            card.organization, card.work_street, card.key})
    line += field ? " '" + escape (field, strlen (field)) + "'" : " -";
  dealloc_vcard_message (m);
  return line;
}

static std::string
take_clause_message (XMPPClauseMessage *m)
{
  std::string line = "clause-message" + pair_of (m->procedure_initiator, m->procedure_time) +
                     pair_of (m->clause_initiator, m->clause_time) +
                     pair_of (m->message_author, m->message_time);
  line += text_of (m->text);
  dealloc_xmpp_clause_message (m);
  return line;
}

static std::string
take_revision (XMPPClauseRevision *m)
{
  std::string line = "revision" + pair_of (m->procedure_initiator, m->procedure_time) +
                     pair_of (m->clause_initiator, m->clause_time) +
                     pair_of (m->revision_author, m->revision_time);
  line += text_of (m->text);
  dealloc_xmpp_clause_revision (m);
  return line;
}

static std::string
take_decision (XMPPClauseRevisionDecisionSignal *m)
{
  std::string line = "decision" + pair_of (m->procedure_initiator, m->procedure_time) +
                     pair_of (m->clause_initiator, m->clause_time) +
                     pair_of (m->revision_author, m->revision_time) +
                     pair_of (m->decision_author, m->decision_time);
  line += std::string (" ") + DECISION_STATUS_STRINGS[m->status];
  dealloc_xmpp_clause_revision_decision_signal (m);
  return line;
}

static std::string
take_negotiation (GSourceFunc handler, void *record)
{
  if (handler == app_window_get_xmpp_procedure) {
    XMPPProcedure *m = (XMPPProcedure *) record;
    std::string line = "procedure" + pair_of (m->initiator, m->time) + text_of (m->title);
    dealloc_xmpp_procedure (m);
    return line;
  }
  if (handler == app_window_get_xmpp_clause) {
    XMPPClause *m = (XMPPClause *) record;
    std::string line = "clause" + pair_of (m->procedure_initiator, m->procedure_time) +
                       pair_of (m->clause_initiator, m->clause_time);
    dealloc_xmpp_clause (m);
    return line;
  }
  if (handler == app_window_get_xmpp_clause_revision)
    return take_revision ((XMPPClauseRevision *) record);
  if (handler == app_window_get_xmpp_clause_message)
    return take_clause_message ((XMPPClauseMessage *) record);
  if (handler == app_window_get_xmpp_clause_revision_decision_signal)
    return take_decision ((XMPPClauseRevisionDecisionSignal *) record);
  return "something unknown";
}

static std::string
take_presence (const char *kind, void *record)
{
  XMPPPresenceSignal *m = (XMPPPresenceSignal *) record;
  std::string line = kind + text_of (m->from);
  dealloc_xmpp_presence_available_signal (m);
  return line;
}

// What a record says, in one line; the record is freed.
static std::string
take (GSourceFunc handler, void *record)
{
  if (handler == app_window_get_xmpp_message_signal) {
    XMPPMessageSignal *m = (XMPPMessageSignal *) record;
    std::string line = "message" + text_of (m->from) + text_of (m->text);
    dealloc_xmpp_message_signal (m);
    return line;
  }
  if (handler == app_window_get_iq_error_message) {
    XMPPIQErrorSignal *m = (XMPPIQErrorSignal *) record;
    std::string line = "error " + std::to_string (m->id);
    dealloc_xmpp_iq_error_signal (m);
    return line;
  }
  if (handler == app_window_get_vcard_message)
    return take_vcard ((VCardMessage *) record);
  if (handler == app_window_get_xmpp_presence_confirm_signal)
    return take_presence ("confirm", record);
  if (handler == app_window_get_xmpp_presence_available_signal)
    return take_presence ("available", record);
  if (handler == app_window_get_xmpp_presence_unavailable_signal)
    return take_presence ("unavailable", record);
  if (handler == app_window_get_xmpp_presence_subscribe_signal)
    return take_presence ("subscribe", record);
  if (handler == app_window_get_xmpp_presence_subscribed_signal)
    return take_presence ("subscribed", record);
  return take_negotiation (handler, record);
}

// ---- Rounds ----

static std::string records;  // of the round that runs
static std::string first;    // of the stream's first round
static u64 rounds_count;
static u64 same_count;
static bool is_session;
static std::string outcome;

static void
write_records (const std::string &lines)
{
  fwrite (lines.data (), 1, lines.size (), report);
  fflush (report);
}

static void
end_round ()
{
  ++rounds_count;
  if (rounds_count == 1)
    first = records;
  if (records == first) {
    ++same_count;
  } else {
    fprintf (report, "different %lu %zu\n", rounds_count, records.size ());
    write_records (records);
  }
  records.clear ();
}

static void
end_stream ()
{
  fprintf (report, "stream %lu %lu %zu\n", rounds_count, same_count, first.size ());
  write_records (first);
  rounds_count = same_count = 0;
}

static void
take_outcome (void *record)
{
  XMPPThreadMessage *message = (XMPPThreadMessage *) record;
  outcome = std::string ("text ") + message->text;
  dealloc_thread_message (message);
}

// In the place of GDK's: what the worker hands over is taken at once, on its own thread.
extern "C" guint
gdk_threads_add_idle (GSourceFunc handler, gpointer record)
{
  if (handler == _console_put_gdk_thread || handler == worker_note_applied) {
    handler (record);
  } else if (handler == login_page_handle_login_success) {
    g_object_unref (record);
    outcome = "session";
  } else if (handler == app_window_release_worker) {
    g_object_unref (record);
  } else if (handler == login_page_handle_login_failure ||
             handler == registration_page_handle_success ||
             handler == registration_page_handle_failure) {
    take_outcome (record);
  } else {
    std::string line = take (handler, record);
    if (is_session && line == "error " + std::to_string (ROUND_ID))
      end_round ();
    else if (is_session && line == "error " + std::to_string (STREAM_ID))
      end_stream ();
    else
      records += line + "\n";
  }
  return 1;
}

// ---- Attempts ----

static AppWindow *
make_window (gnutls_certificate_credentials_t credentials, const char *jid)
{
  GType type = g_type_register_static_simple (G_TYPE_OBJECT, "BareWindow", sizeof (GObjectClass),
                                              NULL, sizeof (AppWindow), NULL, (GTypeFlags) 0);
  AppWindow *window = (AppWindow *) g_object_new (type, NULL);
  window->xmpp_handlers = &APP_WINDOW_XMPP_HANDLERS;
  window->worker = worker_new ();
  window->tls_credentials = credentials;
  window->input_stream_buffer = alloc (STREAM_BUFFER_SIZE);
  window->output_stream_buffer = alloc (STREAM_BUFFER_SIZE);
  window->account = alloc_xmpp_account (to_string (jid), to_string ("pw"), to_string ("morvane"));
  return window;
}

static void
run_worker (AppWindow *window, void *(*entry) (void *) )
{
  g_object_ref (window);
  entry (window);
}

// The expression of the assertion that standard error tells of.
static std::string
read_stop (int errors)
{
  char text[4096];
  ssize_t size = pread (errors, text, sizeof (text), 0);
  std::string line (text, size > 0 ? (size_t) size : 0);
  size_t begin = line.find ("Assertion `");
  size_t end = line.rfind ("' failed");
  if (begin == std::string::npos || end == std::string::npos)
    return "without an assertion";
  return line.substr (begin + 11, end - begin - 11);
}

static std::string
judge (int status, int errors)
{
  if (WIFSIGNALED (status) && WTERMSIG (status) == SIGABRT)
    return "stop " + read_stop (errors);
  if (WIFSIGNALED (status) && WTERMSIG (status) == SIGALRM)
    return "hang";
  if (WIFSIGNALED (status))
    return "signal " + std::to_string (WTERMSIG (status));
  char text[4096];
  ssize_t size = pread (errors, text, sizeof (text), 0);
  return std::string (text, size > 0 ? (size_t) size : 0);
}

static void
attempt (AppWindow *window, void *(*entry) (void *) )
{
  int errors = memfd_create ("errors", 0);
  pid_t child = fork ();
  if (!child) {
    dup2 (errors, STDERR_FILENO);
    alarm (ATTEMPT_SECONDS_MAX);
    run_worker (window, entry);
    fprintf (stderr, "%s", outcome.empty () ? "nothing" : outcome.c_str ());
    fflush (stderr);
    _exit (0);
  }
  int status = 0;
  waitpid (child, &status, 0);
  fprintf (report, "%s\n", judge (status, errors).c_str ());
  fflush (report);
  close (errors);
}

int
main (int count, char **arguments)
{
  std::string mode = count > 1 ? arguments[1] : "";
  signal (SIGPIPE, SIG_IGN);
  report = fdopen (dup (STDOUT_FILENO), "w");
  if (!freopen ("/dev/null", "w", stdout))
    return 1;
  AppWindow *window =
    make_window (init_tls_global (), count > 2 ? arguments[2] : "anna@alpha.test");
  if (mode == "session") {
    is_session = true;
    run_worker (window, start_xmpp_connection_thread);
    return 0;
  }
  char line[80];
  while (fgets (line, sizeof (line), stdin))
    attempt (window, mode == "login" ? start_xmpp_connection_thread : start_xmpp_register_thread);
  return 0;
}
