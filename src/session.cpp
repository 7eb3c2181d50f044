#include "session.h"

#include <glib-unix.h>

#include "app.h"
#include "app_window.h"
#include "clause_view.h"
#include "deletion.h"
#include "delivery.h"
#include "login_page.h"
#include "morvane.h"
#include "network.h"
#include "procedure_creation_page.h"
#include "procedure_view.h"
#include "registration_page.h"
#include "stanza_dispatch.h"
#include "vcard_page.h"

static const char TITLE[] = "Morvane";
static const char LOST_TITLE[] = "Morvane (not connected: Ctrl+Shift+L logs in again)";
static const char *const LOG_IN_AGAIN_KEYS[] = {"<Primary><Shift>l", NULL};

static const char NOTIFICATION_SERVICE[] = "org.freedesktop.Notifications";

// How long a session that the user ends may take to end, in milliseconds.
static const guint STREAM_END_WAIT = 2000;

// ---- Actions ----

static void
app_log_in_again_handle (GSimpleAction *, GVariant *id, gpointer application)
{
  GtkWindow *window =
    gtk_application_get_window_by_id (GTK_APPLICATION (application), g_variant_get_uint32 (id));
  if (!MORVANE_IS_APP_WINDOW (window))
    return;
  gtk_window_present (window);
  app_window_log_in_again (MORVANE_APP_WINDOW (window));
}

void
app_add_session_actions (GtkApplication *application)
{
  static const GActionEntry ENTRIES[] = {
    {"log-in-again", app_log_in_again_handle, "u", NULL, NULL, {0, 0, 0}},
  };
  g_action_map_add_action_entries (G_ACTION_MAP (application), ENTRIES, G_N_ELEMENTS (ENTRIES),
                                   application);
  gtk_application_set_accels_for_action (application, "win.log-in-again", LOG_IN_AGAIN_KEYS);
}

static void
app_window_log_in_again_handle (GSimpleAction *, GVariant *, gpointer window)
{
  app_window_log_in_again (MORVANE_APP_WINDOW (window));
}

void
app_window_add_session_actions (AppWindow *self)
{
  static const GActionEntry ENTRIES[] = {
    {"log-in-again", app_window_log_in_again_handle, NULL, NULL, NULL, {0, 0, 0}},
  };
  g_action_map_add_action_entries (G_ACTION_MAP (self), ENTRIES, G_N_ELEMENTS (ENTRIES), self);
}

// ---- Notification ----

static char *
make_notification_id (AppWindow *self)
{
  return g_strdup_printf ("session-%u",
                          gtk_application_window_get_id (GTK_APPLICATION_WINDOW (self)));
}

static void
app_window_send_notification (AppWindow *self, GApplication *application)
{
  guint window_id = gtk_application_window_get_id (GTK_APPLICATION_WINDOW (self));
  GNotification *notification = g_notification_new ("Morvane is not connected");
  char *body = g_strdup_printf ("The connection of %.*s to its server has ended.",
                                STRING_ARGS (self->account.bare_jid));
  g_notification_set_body (notification, body);
  g_notification_set_default_action_and_target (notification, "app.log-in-again", "u", window_id);
  g_notification_add_button_with_target (notification, "Log in again", "app.log-in-again", "u",
                                         window_id);
  char *id = make_notification_id (self);
  g_application_send_notification (application, id, notification);
  self->is_notified = true;
  g_free (id);
  g_free (body);
  g_object_unref (notification);
}

static void
app_window_ask_bus (AppWindow *self, GDBusConnection *bus, const char *method, GVariant *parameters,
                    GAsyncReadyCallback handle)
{
  g_dbus_connection_call (bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                          "org.freedesktop.DBus", method, parameters, NULL, G_DBUS_CALL_FLAGS_NONE,
                          -1, NULL, handle, g_object_ref (self));
}

// Whether the bus has answered with anything but an error.
static bool
accept_bus_reply (GObject *bus, GAsyncResult *result)
{
  GVariant *reply = g_dbus_connection_call_finish (G_DBUS_CONNECTION (bus), result, NULL);
  bool is_accepted = reply != NULL;
  if (reply)
    g_variant_unref (reply);
  return is_accepted;
}

// There is a service now; the window may have a session again.
static void
app_window_notification_service_found (AppWindow *self)
{
  GtkApplication *application = gtk_window_get_application (GTK_WINDOW (self));
  bool is_due = app_window_is_open (self) && self->account_db_id && !self->is_connected;
  if (application && is_due && !self->is_login_wanted)
    app_window_send_notification (self, G_APPLICATION (application));
}

// `data` is the window, with a reference for this call.
static void
app_window_notification_service_handle (GObject *bus, GAsyncResult *result, gpointer data)
{
  AppWindow *self = MORVANE_APP_WINDOW (data);
  if (accept_bus_reply (bus, result))
    app_window_notification_service_found (self);
  g_object_unref (self);
}

// A bus knows how to start only those services that have a file there, which a service that runs
// already need not have. `data` is the window, with a reference for this call.
static void
app_window_notification_owner_handle (GObject *bus, GAsyncResult *result, gpointer data)
{
  AppWindow *self = MORVANE_APP_WINDOW (data);
  if (accept_bus_reply (bus, result)) {
    app_window_notification_service_found (self);
  } else {
    app_window_ask_bus (self, G_DBUS_CONNECTION (bus), "StartServiceByName",
                        g_variant_new ("(su)", NOTIFICATION_SERVICE, 0),
                        app_window_notification_service_handle);
  }
  g_object_unref (self);
}

// Without a notification service GLib would warn, so the bus is asked first.
static void
app_window_notify (AppWindow *self)
{
  GtkApplication *application = gtk_window_get_application (GTK_WINDOW (self));
  GDBusConnection *bus =
    application ? g_application_get_dbus_connection (G_APPLICATION (application)) : NULL;
  if (bus)
    app_window_ask_bus (self, bus, "GetNameOwner", g_variant_new ("(s)", NOTIFICATION_SERVICE),
                        app_window_notification_owner_handle);
}

static void
app_window_withdraw_notification (AppWindow *self)
{
  GtkApplication *application = gtk_window_get_application (GTK_WINDOW (self));
  if (!self->is_notified || !application)
    return;
  self->is_notified = false;
  char *id = make_notification_id (self);
  g_application_withdraw_notification (G_APPLICATION (application), id);
  g_free (id);
}

// ---- Sending ----

static gboolean
app_window_socket_writable_handle (gint, GIOCondition, gpointer data)
{
  AppWindow *self = (AppWindow *) data;
  bool is_done = flush_tls_data (self->connection.tls_session, 0);
  if (!is_done && !get_tls_send_state (self->connection.tls_session).is_lost)
    return G_SOURCE_CONTINUE;
  self->send_source = 0;
  return G_SOURCE_REMOVE;
}

// `data` is the window, with a reference for this call.
static gboolean
app_window_apply_send_state (gpointer data)
{
  AppWindow *self = (AppWindow *) accept_hand_over (data);
  g_atomic_int_set (&self->is_send_change_known, 0);
  if (!self->closed && self->is_connected && self->connection.opened_tls_session) {
    TLSSendState state = get_tls_send_state (self->connection.tls_session);
    delivery_update (self);
    if (state.is_lost) {
      app_window_lose_session (self);
    } else if (state.waiting_size && !self->send_source) {
      self->send_source =
        g_unix_fd_add (self->connection.socket, G_IO_OUT, app_window_socket_writable_handle, self);
    }
  }
  g_object_unref (self);
  return G_SOURCE_REMOVE;
}

// Any thread, which may hold locks of its own.
static void
app_window_note_send_state (void *data)
{
  AppWindow *self = (AppWindow *) data;
  if (g_atomic_int_compare_and_exchange (&self->is_send_change_known, 0, 1))
    hand_over (app_window_apply_send_state, g_object_ref (self));
}

void
app_window_stop_sending (AppWindow *self)
{
  // Before an account is loaded the connection may be in its worker's hands.
  if (self->account_db_id && self->connection.opened_tls_session)
    set_tls_send_handler (self->connection.tls_session, NULL, NULL);
  if (self->send_source)
    g_source_remove (self->send_source);
  self->send_source = 0;
}

// ---- Unloading ----

// Frees what the account brought into the window: pages, rows and records.
static void
app_window_unload_account (AppWindow *self)
{
  app_release_input ();
  gtk_stack_set_visible_child (self->main_page_stack, GTK_WIDGET (self->procedure_creation_page));
  for (u32 i = 0; i < self->procedures.count; i++) {
    gtk_widget_destroy (GTK_WIDGET (self->procedures.procedures[i]->list_item));
    gtk_widget_destroy (GTK_WIDGET (self->procedures.procedures[i]->view));
  }
  for (u32 i = 0; i < self->contacts.count; i++) {
    Contact *contact = self->contacts.contacts[i];
    gtk_widget_destroy (gtk_widget_get_parent (GTK_WIDGET (contact->list_item)));
    gtk_widget_destroy (GTK_WIDGET (contact->chat_page));
  }
  procedure_creation_page_clear (self->procedure_creation_page);
  vcard_page_clear_vcard (self->vcard_page);
  dealloc_contact_stack (self->contacts);
  dealloc_procedure_stack (self->procedures);
  self->contacts = {};
  self->procedures = {};
  self->account_db_id = 0;
  self->get_vcard_id = 0;
  self->get_own_vcard_id = 0;
  self->prev_main_page = NULL;
  app_window_release_account (self);
}

// From a session that is over, and whose worker has left, to the login page.
static void
app_window_leave_account (AppWindow *self)
{
  app_window_save_drafts (self);
  deletion_end (self);
  if (self->stream_end_source)
    g_source_remove (self->stream_end_source);
  self->stream_end_source = 0;
  self->is_login_wanted = false;
  self->is_connected = false;
  app_window_withdraw_notification (self);
  char *bare_jid =
    g_strndup ((const char *) self->account.bare_jid.data, self->account.bare_jid.size);
  app_window_stop_sending (self);
  delivery_end (self);
  app_window_unload_account (self);
  xmpp_close_connection (self);
  gtk_window_set_title (GTK_WINDOW (self), TITLE);
  app_window_goto_login_page (self, bare_jid);
  g_free (bare_jid);
}

// ---- Beginning ----

bool
app_window_claim_account (AppWindow *self, String bare_jid)
{
  if (app_window_is_account_open_elsewhere (self, bare_jid))
    return false;
  AccountLock *lock = account_lock_take (self->db, bare_jid);
  if (!lock)
    return false;
  account_lock_drop (self->account_lock);
  self->account_lock = lock;
  return true;
}

void
app_window_release_account (AppWindow *self)
{
  account_lock_drop (self->account_lock);
  self->account_lock = NULL;
}

// Another window with this account loaded and no session; NULL when there is none.
static AppWindow *
app_window_find_left_behind (AppWindow *self)
{
  GtkApplication *application = gtk_window_get_application (GTK_WINDOW (self));
  GList *link = application ? gtk_application_get_windows (application) : NULL;
  for (; link; link = link->next) {
    if (!MORVANE_IS_APP_WINDOW (link->data) || link->data == self)
      continue;
    AppWindow *other = MORVANE_APP_WINDOW (link->data);
    bool is_left_behind = !other->closed && other->account_db_id && !other->is_connected;
    if (is_left_behind && !other->worker_active &&
        other->account.bare_jid == self->account.bare_jid)
      return other;
  }
  return NULL;
}

void
app_window_begin_session (AppWindow *self)
{
  AppWindow *other = app_window_find_left_behind (self);
  while (other) {
    app_window_leave_account (other);
    other = app_window_find_left_behind (self);
  }
  self->is_connected = true;
  if (self->connection.opened_tls_session)
    set_tls_send_handler (self->connection.tls_session, app_window_note_send_state, self);
}

bool
app_window_is_connected (AppWindow *self)
{
  return self->is_connected;
}

// ---- The end ----

void
app_window_lose_session (AppWindow *self)
{
  if (!self->is_connected)
    return;
  self->is_connected = false;
  app_window_stop_sending (self);
  interrupt_xmpp_connection (self);
  if (self->is_login_wanted || self->closing)
    return;
  gtk_window_set_title (GTK_WINDOW (self), LOST_TITLE);
  app_window_notify (self);
}

void
app_window_note_worker_left (AppWindow *self)
{
  if (self->closed)
    return;
  if (!self->account_db_id) {
    // Of a login that was given up just when it had succeeded.
    xmpp_close_connection (self);
    login_page_note_worker_left (self->login_page);
    registration_page_note_worker_left (self->registration_page);
    return;
  }
  app_window_lose_session (self);
  if (self->is_login_wanted)
    app_window_leave_account (self);
}

// ---- Farewell ----

// No end to a server that has ended the session itself, or to one that takes no more.
bool
app_window_say_farewell (AppWindow *self)
{
  if (!self->worker_active)
    return false;
  stream_management_tell (&self->stream_management);
  bool is_told = os_is_writable (self->connection.socket);
  if (is_told)
    end_xmpp_stream (self);
  return is_told;
}

// What the interface is asked to say when all that the worker has taken is applied.
struct Farewell {
  AppWindow *window;  // with a reference
  Worker *worker;     // of the session that it ends; with a reference
};

// The last word in a session with stream management, behind all that the worker has taken: what the
// server delivers after it stays the server's, and comes again. A session that has ended by itself
// meanwhile needs none, and the window's next one, or a login to it, must not hear it.
static gboolean
app_window_farewell_is_due (gpointer data)
{
  Farewell *farewell = (Farewell *) accept_hand_over (data);
  AppWindow *self = farewell->window;
  if (!self->closed && self->worker == farewell->worker)
    app_window_say_farewell (self);
  worker_unref (farewell->worker);
  g_object_unref (self);
  g_free (farewell);
  return G_SOURCE_REMOVE;
}

void
app_window_begin_farewell (AppWindow *self)
{
  if (stream_management_is_counting (&self->stream_management)) {
    Farewell *farewell = g_new (Farewell, 1);
    farewell->window = (AppWindow *) g_object_ref (self);
    farewell->worker = worker_ref (self->worker);
    stop_taking_stanzas (self);
    hand_over (app_window_farewell_is_due, farewell);
  } else {
    app_window_say_farewell (self);
  }
}

// ---- Logging in again ----

// The server has not ended the stream in time.
static gboolean
app_window_stream_end_due_handle (gpointer data)
{
  AppWindow *self = (AppWindow *) data;
  self->stream_end_source = 0;
  app_window_lose_session (self);
  return G_SOURCE_REMOVE;
}

void
app_window_log_in_again (AppWindow *self)
{
  if (self->closing || self->closed || self->loading || !self->account_db_id ||
      self->is_login_wanted)
    return;
  app_window_save_drafts (self);
  if (!self->worker_active) {
    app_window_leave_account (self);
    return;
  }
  self->is_login_wanted = true;
  if (self->is_connected) {
    app_window_begin_farewell (self);
    self->stream_end_source =
      g_timeout_add (STREAM_END_WAIT, app_window_stream_end_due_handle, self);
  }
}
