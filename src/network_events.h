// What the worker's records do to the account that is loaded: one idle handler for each kind of record,
// run in the order in which the stanzas came. A handler applies its record to model, store and views
// and frees the record. A window that is closing gets model and store only, and for a window that has
// ended its session a handler only frees the record.
//
// Ownership: a handler takes its record over, and with the record its reference on the window.
//
// Threads: the interface thread only.
#pragma once

#include <glib.h>

#include "xmpp.h"

// All return G_SOURCE_REMOVE.

// ---- Chat and presence ----

gboolean app_window_get_xmpp_message_signal (gpointer data);
gboolean app_window_get_xmpp_message_error_signal (gpointer data);
gboolean app_window_get_xmpp_presence_confirm_signal (gpointer data);
gboolean app_window_get_xmpp_presence_available_signal (gpointer data);
gboolean app_window_get_xmpp_presence_unavailable_signal (gpointer data);
gboolean app_window_get_xmpp_presence_subscribe_signal (gpointer data);
gboolean app_window_get_xmpp_presence_subscribed_signal (gpointer data);

// ---- vCards ----

gboolean app_window_get_iq_error_message (gpointer data);
gboolean app_window_get_vcard_message (gpointer data);

// ---- Negotiation ----

gboolean app_window_get_xmpp_procedure (gpointer data);
gboolean app_window_get_xmpp_clause (gpointer data);
gboolean app_window_get_xmpp_clause_revision (gpointer data);
gboolean app_window_get_xmpp_clause_message (gpointer data);
gboolean app_window_get_xmpp_clause_revision_decision_signal (gpointer data);

// ---- The table of handlers ----

// All of these, and the pages' for outcomes: what every window has in `xmpp_handlers`.
extern const XMPPHandlers APP_WINDOW_XMPP_HANDLERS;
