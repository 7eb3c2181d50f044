#include "xmpp_records.h"

#include <glib-object.h>
#include <stdlib.h>

void *
alloc_xmpp_record (AppWindow *window, u64 size)
{
  void *record = calloc (1, size);
  *(AppWindow **) record = window;
  if (window)
    g_object_ref (window);
  return record;
}

void
dealloc_xmpp_record (void *record)
{
  AppWindow *window = *(AppWindow **) record;
  free (record);
  if (window)
    g_object_unref (window);
}

XMPPIQErrorSignal *
alloc_xmpp_iq_error_signal (AppWindow *window, u64 id)
{
  XMPPIQErrorSignal *signal =
    (XMPPIQErrorSignal *) alloc_xmpp_record (window, sizeof (XMPPIQErrorSignal));
  signal->id = id;
  return signal;
}

void
dealloc_xmpp_iq_error_signal (XMPPIQErrorSignal *signal)
{
  dealloc_xmpp_record (signal);
}

void
dealloc_xmpp_message_signal (XMPPMessageSignal *signal)
{
  dealloc_string (signal->from);
  dealloc_string (signal->text);
  dealloc_xmpp_record (signal);
}

void
dealloc_xmpp_message_error_signal (XMPPMessageErrorSignal *signal)
{
  dealloc_string (signal->from);
  dealloc_string (signal->condition);
  dealloc_string (signal->text);
  dealloc_xmpp_record (signal);
}

static void
dealloc_xmpp_presence_signal (XMPPPresenceSignal *signal)
{
  dealloc_string (signal->from);
  dealloc_xmpp_record (signal);
}

void
dealloc_xmpp_presence_confirm_signal (XMPPPresenceConfirmSignal *signal)
{
  dealloc_xmpp_presence_signal (signal);
}

void
dealloc_xmpp_presence_available_signal (XMPPPresenceAvailableSignal *signal)
{
  dealloc_xmpp_presence_signal (signal);
}

void
dealloc_xmpp_presence_unavailable_signal (XMPPPresenceUnavailableSignal *signal)
{
  dealloc_xmpp_presence_signal (signal);
}

void
dealloc_xmpp_presence_subscribe_signal (XMPPPresenceSubscribeSignal *signal)
{
  dealloc_xmpp_presence_signal (signal);
}

void
dealloc_xmpp_presence_subscribed_signal (XMPPPresenceSubscribedSignal *signal)
{
  dealloc_xmpp_presence_signal (signal);
}

void
dealloc_xmpp_procedure (XMPPProcedure *message)
{
  dealloc_string (message->title);
  dealloc_string (message->initiator);
  dealloc_xmpp_record (message);
}

void
dealloc_xmpp_clause (XMPPClause *message)
{
  dealloc_string (message->procedure_initiator);
  dealloc_string (message->clause_initiator);
  dealloc_xmpp_record (message);
}

void
dealloc_xmpp_clause_revision (XMPPClauseRevision *message)
{
  dealloc_string (message->text);
  dealloc_string (message->procedure_initiator);
  dealloc_string (message->clause_initiator);
  dealloc_string (message->revision_author);
  dealloc_xmpp_record (message);
}

void
dealloc_xmpp_clause_message (XMPPClauseMessage *message)
{
  dealloc_string (message->text);
  dealloc_string (message->procedure_initiator);
  dealloc_string (message->clause_initiator);
  dealloc_string (message->message_author);
  dealloc_xmpp_record (message);
}

void
dealloc_xmpp_clause_revision_decision_signal (XMPPClauseRevisionDecisionSignal *signal)
{
  dealloc_string (signal->procedure_initiator);
  dealloc_string (signal->clause_initiator);
  dealloc_string (signal->revision_author);
  dealloc_string (signal->decision_author);
  dealloc_xmpp_record (signal);
}

void
dealloc_vcard (VCard vcard)
{
  dealloc_cstr (vcard.fullname);
  dealloc_cstr (vcard.role);
  dealloc_cstr (vcard.email);
  dealloc_cstr (vcard.telephone);
  dealloc_cstr (vcard.url);
  dealloc_cstr (vcard.organization);
  dealloc_cstr (vcard.work_street);
  dealloc_cstr (vcard.key);
}

void
dealloc_vcard_message (VCardMessage *message)
{
  if (message->from.data)
    dealloc_string (message->from);
  dealloc_vcard (message->vcard);
  dealloc_xmpp_record (message);
}
