#include "network_events.h"

#include "app_window.h"
#include "clause_chat_page.h"
#include "clause_view.h"
#include "contact_chat_page.h"
#include "deletion.h"
#include "delivery.h"
#include "login_page.h"
#include "morvane.h"
#include "procedure_creation_page.h"
#include "procedure_view.h"
#include "registration_page.h"
#include "shown_text.h"
#include "vcard_page.h"

// ---- Chat and presence ----

static void
app_window_apply_message (AppWindow *self, XMPPMessageSignal *signal)
{
  console_log ("Received <message from='%.*s'>\n", STRING_ARGS (signal->from));
  String bare_jid = get_bare_jid_from_full_jid (signal->from);
  // From another resource of our own.
  if (bare_jid == self->account.bare_jid)
    return;
  Contact *contact = contact_stack_get_by_bare_jid (self->contacts, bare_jid);
  if (!contact) {
    console_log (
      "Warning: Received a message from '%.*s', but that contact isn't in the contact list.\n",
      STRING_ARGS (signal->from));
    return;
  }
  app_window_add_contact_message (self, contact, signal->text);
}

gboolean
app_window_get_xmpp_message_signal (gpointer data)
{
  XMPPMessageSignal *signal = (XMPPMessageSignal *) accept_hand_over (data);
  if (app_window_is_open (signal->window))
    app_window_apply_message (signal->window, signal);
  dealloc_xmpp_message_signal (signal);
  return G_SOURCE_REMOVE;
}

// Told where the user wrote: in the chat when one of its lines came back, else in the procedure that
// the object belongs to. Whoever sends back what never went there is told of on the console only.
static void
app_window_apply_message_error (AppWindow *self, XMPPMessageErrorSignal *signal)
{
  String to = get_bare_jid_from_full_jid (signal->from);
  String condition = signal->condition.size ? signal->condition : to_string ("no reason given");
  String reason = signal->text.size ? signal->text : condition;
  console_log ("Warning: A message to '%.*s' couldn't be delivered: %.*s.\n", STRING_ARGS (to),
               STRING_ARGS (condition));
  Contact *contact = contact_stack_get_by_bare_jid (self->contacts, to);
  ContactMessage *message = contact ? contact_get_sent_message (contact, signal->id) : NULL;
  if (message) {
    contact_chat_page_tell_undelivered (contact->chat_page, message->body, reason);
    return;
  }
  UndeliveredObject undelivered;
  bool is_ours = delivery_note_refused (self, signal->id, to, &undelivered);
  if (is_ours && undelivered.procedure)
    procedure_view_tell_undelivered (undelivered.procedure->view, to, undelivered.kind,
                                     undelivered.text, reason);
}

gboolean
app_window_get_xmpp_message_error_signal (gpointer data)
{
  XMPPMessageErrorSignal *signal = (XMPPMessageErrorSignal *) accept_hand_over (data);
  if (app_window_is_open (signal->window))
    app_window_apply_message_error (signal->window, signal);
  dealloc_xmpp_message_error_signal (signal);
  return G_SOURCE_REMOVE;
}

gboolean
app_window_get_xmpp_presence_confirm_signal (gpointer data)
{
  XMPPPresenceConfirmSignal *signal = (XMPPPresenceConfirmSignal *) accept_hand_over (data);
  if (app_window_is_open (signal->window)) {
    console_log ("Received <presence from='%.*s'>\n", STRING_ARGS (signal->from));
  }
  dealloc_xmpp_presence_confirm_signal (signal);
  return G_SOURCE_REMOVE;
}

// Whoever says that they are there, or not, becomes a contact.
static void
app_window_apply_contact_status (AppWindow *self, String contact_bare_jid, const char *status)
{
  if (contact_bare_jid == self->account.bare_jid)
    return;
  Contact *contact = contact_stack_get_by_bare_jid (self->contacts, contact_bare_jid);
  if (contact) {
    app_window_set_contact_status (self, contact, to_string (status));
  } else if (is_storable_jid (contact_bare_jid)) {
    app_window_create_new_contact (self, contact_bare_jid, to_string (status));
  } else {
    console_put ("Warning: Received a <presence> from an account that can't be a contact.\n");
  }
}

gboolean
app_window_get_xmpp_presence_available_signal (gpointer data)
{
  XMPPPresenceAvailableSignal *signal = (XMPPPresenceAvailableSignal *) accept_hand_over (data);
  if (app_window_is_open (signal->window)) {
    console_log ("Received <presence from='%.*s'>\n", STRING_ARGS (signal->from));
    app_window_apply_contact_status (signal->window, get_bare_jid_from_full_jid (signal->from),
                                     "available");
  }
  dealloc_xmpp_presence_available_signal (signal);
  return G_SOURCE_REMOVE;
}

gboolean
app_window_get_xmpp_presence_unavailable_signal (gpointer data)
{
  XMPPPresenceUnavailableSignal *signal = (XMPPPresenceUnavailableSignal *) accept_hand_over (data);
  if (app_window_is_open (signal->window)) {
    console_log ("Received <presence type='unavailable' from='%.*s'>\n",
                 STRING_ARGS (signal->from));
    String contact_bare_jid = get_bare_jid_from_full_jid (signal->from);
    CONSOLE_DUMP (contact_bare_jid);
    app_window_apply_contact_status (signal->window, contact_bare_jid, "unavailable");
  }
  dealloc_xmpp_presence_unavailable_signal (signal);
  return G_SOURCE_REMOVE;
}

// Every request is accepted, and answered with one of our own.
gboolean
app_window_get_xmpp_presence_subscribe_signal (gpointer data)
{
  XMPPPresenceSubscribeSignal *signal = (XMPPPresenceSubscribeSignal *) accept_hand_over (data);
  if (app_window_is_open (signal->window)) {
    console_log ("Received <presence type='subscribe' from='%.*s'>\n", STRING_ARGS (signal->from));
    if (is_misleading_address (get_bare_jid_from_full_jid (signal->from)))
      console_put ("Warning: This address mixes alphabets or holds invisible letters.\n");
    if (find_char (signal->from, '\'').size) {
      // It would break out of the attribute of the answer.
      console_put ("Warning: Received a <presence> from an account that can't be answered.\n");
    } else if (!has_ended_xmpp_stream (signal->window)) {
      // Without an answer the server asks again at the next login (RFC 6121, 3.1.3).
      xmpp_presence_subscribed (signal->window, signal->from);
      xmpp_presence_subscribe (signal->window, signal->from);
    }
  }
  dealloc_xmpp_presence_subscribe_signal (signal);
  return G_SOURCE_REMOVE;
}

gboolean
app_window_get_xmpp_presence_subscribed_signal (gpointer data)
{
  XMPPPresenceSubscribedSignal *signal = (XMPPPresenceSubscribedSignal *) accept_hand_over (data);
  if (app_window_is_open (signal->window)) {
    console_log ("Received <presence type='subscribed' from='%.*s'>\n", STRING_ARGS (signal->from));
  }
  dealloc_xmpp_presence_subscribed_signal (signal);
  return G_SOURCE_REMOVE;
}

// ---- vCards ----

static const char OWN_VCARD_TITLE[] = "Your Public Profile";

static void
app_window_show_vcard_page (AppWindow *self)
{
  gtk_stack_set_visible_child (self->main_page_stack, GTK_WIDGET (self->vcard_page));
}

static void
app_window_apply_iq_error (AppWindow *self, XMPPIQErrorSignal *message)
{
  CONSOLE_DUMP (message->id);
  CONSOLE_DUMP (self->get_vcard_id);
  CONSOLE_DUMP (self->get_own_vcard_id);
  if (self->get_vcard_id && message->id == self->get_vcard_id) {
    self->get_vcard_id = 0;
    procedure_creation_page_set_contractor_vcard_button_sensitive (self->procedure_creation_page,
                                                                   FALSE);
  } else if (self->get_own_vcard_id && message->id == self->get_own_vcard_id) {
    // An account without a vCard is offered an empty form.
    self->get_own_vcard_id = 0;
    vcard_page_set_title (self->vcard_page, to_string (OWN_VCARD_TITLE));
    vcard_page_clear_vcard (self->vcard_page);
    vcard_page_set_editable (self->vcard_page, TRUE);
    app_window_show_vcard_page (self);
  } else {
    console_log ("Warning: Got an IQ an ID %lu which doesn't correspond to any requested.\n",
                 message->id);
  }
}

gboolean
app_window_get_iq_error_message (gpointer data)
{
  XMPPIQErrorSignal *message = (XMPPIQErrorSignal *) accept_hand_over (data);
  if (app_window_is_open (message->window))
    app_window_apply_iq_error (message->window, message);
  dealloc_xmpp_iq_error_signal (message);
  return G_SOURCE_REMOVE;
}

static void
app_window_apply_vcard (AppWindow *self, VCardMessage *message)
{
  CONSOLE_DUMP (message->id);
  CONSOLE_DUMP (self->get_vcard_id);
  CONSOLE_DUMP (self->get_own_vcard_id);
  // The pending ids stay: a second answer is shown again.
  if (self->get_vcard_id && message->id == self->get_vcard_id) {
    vcard_page_set_title (self->vcard_page, message->from);
    vcard_page_set_vcard (self->vcard_page, message->vcard);
    vcard_page_set_editable (self->vcard_page, FALSE);
    app_window_show_vcard_page (self);
  } else if (self->get_own_vcard_id && message->id == self->get_own_vcard_id) {
    if (message->from.size && message->from != self->account.bare_jid) {
      console_log (
        "Warning: Expected a VCard from own account, but got a VCard from someone else.\n");
      return;
    }
    vcard_page_set_title (self->vcard_page, to_string (OWN_VCARD_TITLE));
    vcard_page_set_vcard (self->vcard_page, message->vcard);
    vcard_page_set_editable (self->vcard_page, TRUE);
    app_window_show_vcard_page (self);
  } else {
    console_log ("Warning: Got a VCard with an ID %lu which doesn't correspond to any requested.\n",
                 message->id);
  }
}

gboolean
app_window_get_vcard_message (gpointer data)
{
  VCardMessage *message = (VCardMessage *) accept_hand_over (data);
  if (app_window_is_open (message->window))
    app_window_apply_vcard (message->window, message);
  dealloc_vcard_message (message);
  return G_SOURCE_REMOVE;
}

// ---- Negotiation ----

static void
app_window_apply_procedure (AppWindow *self, XMPPProcedure *message)
{
  Procedure *procedure = negotiation_receive_procedure (app_window_get_negotiation (self), message);
  if (procedure && !self->closing)
    app_window_add_procedure (self, procedure);
}

gboolean
app_window_get_xmpp_procedure (gpointer data)
{
  XMPPProcedure *message = (XMPPProcedure *) accept_hand_over (data);
  if (app_window_is_open (message->window))
    app_window_apply_procedure (message->window, message);
  dealloc_xmpp_procedure (message);
  return G_SOURCE_REMOVE;
}

// Each of these returns whether it was taken.

static bool
app_window_apply_clause (AppWindow *self, XMPPClause *message)
{
  Procedure *procedure;
  Clause *clause =
    negotiation_receive_clause (app_window_get_negotiation (self), message, &procedure);
  if (!clause || self->closing)
    return clause;
  procedure_view_add_clause (procedure->view, clause);
  procedure_view_order_clause (procedure->view, clause);
  clause_view_enable_chat (clause->view);
  return true;
}

gboolean
app_window_get_xmpp_clause (gpointer data)
{
  XMPPClause *message = (XMPPClause *) accept_hand_over (data);
  AppWindow *window = message->window;
  if (app_window_is_open (window) && !app_window_apply_clause (window, message) &&
      deletion_hold (window, message->procedure_initiator, message->procedure_time,
                     app_window_get_xmpp_clause, message, (GDestroyNotify) dealloc_xmpp_clause))
    return G_SOURCE_REMOVE;
  dealloc_xmpp_clause (message);
  return G_SOURCE_REMOVE;
}

static bool
app_window_apply_clause_revision (AppWindow *self, XMPPClauseRevision *message)
{
  Clause *clause;
  ClauseRevision *revision =
    negotiation_receive_revision (app_window_get_negotiation (self), message, &clause);
  if (!revision || self->closing)
    return revision;
  clause_view_add_revision (clause->view, revision);
  clause_view_show_revision (clause->view, revision, self->account.bare_jid);
  clause_view_order_revision (clause->view, revision);
  return true;
}

gboolean
app_window_get_xmpp_clause_revision (gpointer data)
{
  XMPPClauseRevision *message = (XMPPClauseRevision *) accept_hand_over (data);
  AppWindow *window = message->window;
  if (app_window_is_open (window) && !app_window_apply_clause_revision (window, message) &&
      deletion_hold (window, message->procedure_initiator, message->procedure_time,
                     app_window_get_xmpp_clause_revision, message,
                     (GDestroyNotify) dealloc_xmpp_clause_revision))
    return G_SOURCE_REMOVE;
  dealloc_xmpp_clause_revision (message);
  return G_SOURCE_REMOVE;
}

static bool
app_window_apply_clause_message (AppWindow *self, XMPPClauseMessage *xmpp_message)
{
  CONSOLE_DUMP (xmpp_message);
  CONSOLE_DUMP (self);
  Clause *clause;
  ClauseMessage *message =
    negotiation_receive_message (app_window_get_negotiation (self), xmpp_message, &clause);
  if (message && !self->closing)
    clause_chat_page_add_message (clause->chat_page, message);
  return message;
}

gboolean
app_window_get_xmpp_clause_message (gpointer data)
{
  XMPPClauseMessage *message = (XMPPClauseMessage *) accept_hand_over (data);
  AppWindow *window = message->window;
  if (app_window_is_open (window) && !app_window_apply_clause_message (window, message) &&
      deletion_hold (window, message->procedure_initiator, message->procedure_time,
                     app_window_get_xmpp_clause_message, message,
                     (GDestroyNotify) dealloc_xmpp_clause_message))
    return G_SOURCE_REMOVE;
  dealloc_xmpp_clause_message (message);
  return G_SOURCE_REMOVE;
}

static bool
app_window_apply_clause_revision_decision (AppWindow *self,
                                           XMPPClauseRevisionDecisionSignal *signal)
{
  Clause *clause;
  ClauseRevision *revision;
  ClauseRevisionDecision *decision =
    negotiation_receive_decision (app_window_get_negotiation (self), signal, &clause, &revision);
  if (decision && !self->closing)
    clause_view_set_others_revision_decision (clause->view, revision, decision);
  return decision;
}

gboolean
app_window_get_xmpp_clause_revision_decision_signal (gpointer data)
{
  XMPPClauseRevisionDecisionSignal *signal =
    (XMPPClauseRevisionDecisionSignal *) accept_hand_over (data);
  AppWindow *window = signal->window;
  if (app_window_is_open (window) && !app_window_apply_clause_revision_decision (window, signal) &&
      deletion_hold (window, signal->procedure_initiator, signal->procedure_time,
                     app_window_get_xmpp_clause_revision_decision_signal, signal,
                     (GDestroyNotify) dealloc_xmpp_clause_revision_decision_signal))
    return G_SOURCE_REMOVE;
  dealloc_xmpp_clause_revision_decision_signal (signal);
  return G_SOURCE_REMOVE;
}

// ---- The table of handlers ----

const XMPPHandlers APP_WINDOW_XMPP_HANDLERS = {
  .message = app_window_get_xmpp_message_signal,
  .message_error = app_window_get_xmpp_message_error_signal,
  .presence_confirm = app_window_get_xmpp_presence_confirm_signal,
  .presence_available = app_window_get_xmpp_presence_available_signal,
  .presence_unavailable = app_window_get_xmpp_presence_unavailable_signal,
  .presence_subscribe = app_window_get_xmpp_presence_subscribe_signal,
  .presence_subscribed = app_window_get_xmpp_presence_subscribed_signal,
  .iq_error = app_window_get_iq_error_message,
  .vcard = app_window_get_vcard_message,
  .procedure = app_window_get_xmpp_procedure,
  .clause = app_window_get_xmpp_clause,
  .clause_revision = app_window_get_xmpp_clause_revision,
  .clause_message = app_window_get_xmpp_clause_message,
  .clause_revision_decision = app_window_get_xmpp_clause_revision_decision_signal,
  .login_failure = login_page_handle_login_failure,
  .register_success = registration_page_handle_success,
  .register_failure = registration_page_handle_failure,
  .login_success = login_page_handle_login_success,
  .worker_left = app_window_release_worker,
  .acknowledged = app_window_note_acknowledged,
};
