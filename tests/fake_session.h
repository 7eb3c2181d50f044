// What the session thread would hand to the interface: each function makes one record as the parsers
// of stanzas do, and gives it to its handler at once.
//
// Ownership: the handler frees the record; a leak or a kept reference fails the test.
// Threads: the main thread.
#pragma once

#include "widget_test.h"

#include "app_window.h"
#include "network_events.h"

// Hands `record` over and checks what every handler promises: it runs once, and nothing of the record
// keeps the window.
inline void
deliver (AppWindow *window, GSourceFunc handler, void *record)
{
  guint with_record = G_OBJECT (window)->ref_count;
  EXPECT_EQ (handler (record), G_SOURCE_REMOVE);
  EXPECT_LT (G_OBJECT (window)->ref_count, with_record);
  pump ();
}

template <typename Record>
Record *
alloc_record (AppWindow *window)
{
  return (Record *) alloc_xmpp_record (window, sizeof (Record));
}

inline void
deliver_message (AppWindow *window, const char *from, const char *text)
{
  XMPPMessageSignal *signal = alloc_record<XMPPMessageSignal> (window);
  signal->from = alloc_string (from);
  signal->text = alloc_string (text);
  deliver (window, app_window_get_xmpp_message_signal, signal);
}

inline void
deliver_message_error (AppWindow *window, const char *from, u64 id, const char *condition,
                       const char *text)
{
  XMPPMessageErrorSignal *signal = alloc_record<XMPPMessageErrorSignal> (window);
  signal->from = alloc_string (from);
  signal->id = id;
  signal->condition = alloc_string (condition);
  signal->text = alloc_string (text);
  deliver (window, app_window_get_xmpp_message_error_signal, signal);
}

inline void
deliver_presence (AppWindow *window, GSourceFunc handler, const char *from)
{
  XMPPPresenceSignal *signal = alloc_record<XMPPPresenceSignal> (window);
  signal->from = alloc_string (from);
  deliver (window, handler, signal);
}

inline void
deliver_iq_error (AppWindow *window, u64 id)
{
  deliver (window, app_window_get_iq_error_message, alloc_xmpp_iq_error_signal (window, id));
}

// `from` may be NULL: an answer that names no sender.
inline void
deliver_vcard (AppWindow *window, u64 id, const char *from, const char *fullname)
{
  VCardMessage *message = alloc_record<VCardMessage> (window);
  message->id = id;
  if (from)
    message->from = alloc_string (from);
  message->vcard.fullname = alloc_cstr (fullname);
  deliver (window, app_window_get_vcard_message, message);
}

// An object of the negotiation as the wire names it.
struct WireName {
  const char *author;
  s64 time;
};

inline void
deliver_procedure (AppWindow *window, WireName procedure, const char *title)
{
  XMPPProcedure *message = alloc_record<XMPPProcedure> (window);
  message->title = alloc_string (title);
  message->initiator = alloc_string (procedure.author);
  message->time = procedure.time;
  deliver (window, app_window_get_xmpp_procedure, message);
}

inline void
deliver_clause (AppWindow *window, WireName procedure, WireName clause)
{
  XMPPClause *message = alloc_record<XMPPClause> (window);
  message->procedure_initiator = alloc_string (procedure.author);
  message->procedure_time = procedure.time;
  message->clause_initiator = alloc_string (clause.author);
  message->clause_time = clause.time;
  deliver (window, app_window_get_xmpp_clause, message);
}

inline void
deliver_revision (AppWindow *window, WireName procedure, WireName clause, WireName revision,
                  const char *text)
{
  XMPPClauseRevision *message = alloc_record<XMPPClauseRevision> (window);
  message->text = alloc_string (text);
  message->procedure_initiator = alloc_string (procedure.author);
  message->procedure_time = procedure.time;
  message->clause_initiator = alloc_string (clause.author);
  message->clause_time = clause.time;
  message->revision_author = alloc_string (revision.author);
  message->revision_time = revision.time;
  deliver (window, app_window_get_xmpp_clause_revision, message);
}

inline void
deliver_clause_message (AppWindow *window, WireName procedure, WireName clause, WireName line,
                        const char *text)
{
  XMPPClauseMessage *message = alloc_record<XMPPClauseMessage> (window);
  message->text = alloc_string (text);
  message->procedure_initiator = alloc_string (procedure.author);
  message->procedure_time = procedure.time;
  message->clause_initiator = alloc_string (clause.author);
  message->clause_time = clause.time;
  message->message_author = alloc_string (line.author);
  message->message_time = line.time;
  deliver (window, app_window_get_xmpp_clause_message, message);
}

inline void
deliver_decision (AppWindow *window, WireName procedure, WireName clause, WireName revision,
                  WireName decision, DecisionStatus status)
{
  XMPPClauseRevisionDecisionSignal *signal =
    alloc_record<XMPPClauseRevisionDecisionSignal> (window);
  signal->status = status;
  signal->procedure_initiator = alloc_string (procedure.author);
  signal->procedure_time = procedure.time;
  signal->clause_initiator = alloc_string (clause.author);
  signal->clause_time = clause.time;
  signal->revision_author = alloc_string (revision.author);
  signal->revision_time = revision.time;
  signal->decision_author = alloc_string (decision.author);
  signal->decision_time = decision.time;
  deliver (window, app_window_get_xmpp_clause_revision_decision_signal, signal);
}
