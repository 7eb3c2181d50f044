#include "app_window.h"

#include <assert.h>

#include "app.h"
#include "clause_view.h"
#include "contact_chat_page.h"
#include "contact_list_item.h"
#include "db.h"
#include "deletion.h"
#include "delivery.h"
#include "login_page.h"
#include "morvane.h"
#include "network.h"
#include "network_events.h"
#include "procedure_creation_page.h"
#include "procedure_list_item.h"
#include "procedure_view.h"
#include "registration_page.h"
#include "session.h"
#include "shown_text.h"
#include "vcard_page.h"
#include "window_state.h"
#include "wrapped_text.h"

G_DEFINE_TYPE (AppWindow, app_window, GTK_TYPE_APPLICATION_WINDOW)

// ---- Closing ----

// How long a window that closes waits, in milliseconds: for the server to end the stream, or for a
// worker that was told to leave; with the rest of closing, under two seconds.
static const u32 CLOSING_WAIT = 1500;
// How long a worker whose socket was shut down may take to leave, in milliseconds.
static const u32 LEAVE_WAIT = 300;
// How long what the server has delivered ahead of its end may take to be stored, in milliseconds.
static const u32 BACKLOG_WAIT = 60000;
// For a window that is destroyed without being closed: for the end of the stream, and for the worker.
static const u32 STREAM_END_WAIT = 1000;
static const u32 WORKER_WAIT = 1500;

static u32 stray_workers_count;

// Width and height of a new window, in pixels.
static const int WINDOW_SIZE = 640;

void
app_window_save_drafts (AppWindow *self)
{
  for (u32 i = 0; i < self->procedures.count; i++) {
    Procedure *procedure = self->procedures.procedures[i];
    for (u32 j = 0; j < procedure->clauses_count; j++) {
      clause_view_save_draft (procedure->clauses[j]->view);
    }
  }
}

// Ends the session, lets the worker leave and releases the connection; without the worker's leave
// it stays the worker's, and is released when that comes back.
static void
app_window_end_session (AppWindow *self)
{
  // A window that was closed has waited already.
  struct timespec deadline = get_deadline (self->closing ? 0 : WORKER_WAIT);
  bool is_logged_in = self->account_db_id && !self->closing;
  app_window_stop_sending (self);
  if (self->worker_active)
    worker_interrupt (self->worker);
  struct timespec end_deadline = get_deadline (STREAM_END_WAIT);
  if (is_logged_in && app_window_say_farewell (self))
    flush_tls_data (self->connection.tls_session, STREAM_END_WAIT);
  if (self->worker_active) {
    bool left = is_logged_in && worker_wait_until_left (self->worker, end_deadline);
    if (!left)
      interrupt_xmpp_connection (self);
    if (!worker_wait_until_left (self->worker, deadline)) {
      self->worker_stray = true;
      stray_workers_count++;
      delivery_end (self);
      return;
    }
  }
  delivery_end (self);
  xmpp_close_connection (self);
}

static void
app_window_disappear (AppWindow *self)
{
  gtk_widget_hide (GTK_WIDGET (self));
  gdk_display_flush (gtk_widget_get_display (GTK_WIDGET (self)));
  // While the account is loaded there is nothing to type into, and not every clause has a view.
  if (!self->loading)
    app_window_save_drafts (self);
}

// A window that closes has waited long enough: for the server first, then for the worker.
static gboolean
app_window_go_on_closing (gpointer data)
{
  AppWindow *self = MORVANE_APP_WINDOW (data);
  if (self->loading)
    return G_SOURCE_CONTINUE;
  self->closing_source = 0;
  if (self->closing_is_late || !self->account_db_id) {
    gtk_widget_destroy (GTK_WIDGET (self));
    return G_SOURCE_REMOVE;
  }
  self->closing_is_late = true;
  u32 wait = BACKLOG_WAIT;
  if (!os_has_peer_ended (self->connection.socket)) {
    worker_interrupt (self->worker);
    interrupt_xmpp_connection (self);
    wait = LEAVE_WAIT;
  }
  self->closing_source = g_timeout_add (wait, app_window_go_on_closing, self);
  return G_SOURCE_REMOVE;
}

// The window is out of sight at once. It goes when its worker has left and all that this has handed
// over was applied to model and store; the views are left alone from now on.
static void
app_window_begin_closing (AppWindow *self)
{
  app_window_disappear (self);
  self->closing = true;
  if (self->loading)
    give_up_long_work ();
  self->closing_source = g_timeout_add (CLOSING_WAIT, app_window_go_on_closing, self);
  if (!self->account_db_id && interrupt_xmpp_login (self)) {
    // One that connects nothing wakes: it is left behind, and the window goes as soon as it can.
    if (app_window_give_up_worker (self) && !self->loading) {
      g_source_remove (self->closing_source);
      self->closing_source = g_idle_add (app_window_go_on_closing, self);
    }
  } else {
    app_window_begin_farewell (self);
  }
}

static void
app_window_destroy (GtkWidget *widget)
{
  AppWindow *self = MORVANE_APP_WINDOW (widget);
  if (!self->closed) {
    if (!self->closing)
      app_window_disappear (self);
    if (self->closing_source)
      g_source_remove (self->closing_source);
    self->closing_source = 0;
    deletion_end (self);
    self->closed = true;
    if (self->stream_end_source)
      g_source_remove (self->stream_end_source);
    self->stream_end_source = 0;
    app_window_end_session (self);
    app_window_release_account (self);
  }
  GTK_WIDGET_CLASS (app_window_parent_class)->destroy (widget);
}

// The widgets, which borrow the records, are gone; so is the worker, which held a reference.
static void
app_window_finalize (GObject *object)
{
  AppWindow *self = MORVANE_APP_WINDOW (object);
  if (self->account_db_id) {
    dealloc_contact_stack (self->contacts);
    dealloc_procedure_stack (self->procedures);
  }
  dealloc (self->input_stream_buffer);
  dealloc (self->output_stream_buffer);
  dealloc_string (self->worker_bare_jid);
  if (self->worker)
    worker_unref (self->worker);
  G_OBJECT_CLASS (app_window_parent_class)->finalize (object);
}

// ---- Handlers ----

static void
app_window_add_procedure_button_handle (GtkButton *, AppWindow *self)
{
  gtk_stack_set_visible_child (self->main_page_stack, GTK_WIDGET (self->procedure_creation_page));
}

static void
app_window_show_vcard_button_handle (GtkButton *, AppWindow *self)
{
  self->get_own_vcard_id = xmpp_iq_get_vcard4 (self, self->account.bare_jid);
}

static void
app_window_procedures_list_box_row_activated_handle (GtkListBox *, GtkListBoxRow *row,
                                                     AppWindow *self)
{
  GtkWidget *item = gtk_bin_get_child (GTK_BIN (row));
  Procedure *procedure = procedure_list_item_get_procedure (MORVANE_PROCEDURE_LIST_ITEM (item));
  gtk_stack_set_visible_child (self->main_page_stack, GTK_WIDGET (procedure->view));
}

static void
app_window_contacts_list_box_row_activated_handle (GtkListBox *, GtkListBoxRow *row,
                                                   AppWindow *self)
{
  GtkWidget *item = gtk_bin_get_child (GTK_BIN (row));
  Contact *contact = contact_list_item_get_contact (MORVANE_CONTACT_LIST_ITEM (item));
  gtk_stack_set_visible_child (self->main_page_stack, GTK_WIDGET (contact->chat_page));
}

static gboolean
app_window_delete_handle (GtkWidget *, GdkEvent *, AppWindow *self)
{
  bool has_to_wait = self->worker_active || self->loading;
  if (has_to_wait && !self->closing)
    app_window_begin_closing (self);
  return has_to_wait;
}

// Alt with the grave accent opens and closes the console.
static gboolean
handle_app_window_key_press (GtkWidget *, GdkEventKey *event, AppWindow *self)
{
  // Shared by all windows: each opens its console where the last one was closed.
  static int prev_pos;
  if (event->type != GDK_KEY_PRESS || event->keyval != GDK_KEY_grave ||
      !(event->state & GDK_MOD1_MASK)) {
    return FALSE;
  }
  int position = gtk_paned_get_position (self->console_paned);
  if (position != 0) {
    prev_pos = position;
    gtk_widget_hide (GTK_WIDGET (self->console));
    gtk_paned_set_position (self->console_paned, 0);
  } else {
    gtk_widget_show (GTK_WIDGET (self->console));
    gtk_paned_set_position (self->console_paned, prev_pos);
  }
  return TRUE;
}

// Made for the console buffer's "changed" signal, and deliberately left unconnected: whoever reads
// the console must not be carried away by new output.
[[maybe_unused]] static void
app_window_console_changed_handle (GtkTextBuffer *text_buffer, AppWindow *self)
{
  gtk_text_view_scroll_mark_onscreen (self->console, gtk_text_buffer_get_insert (text_buffer));
}

static void
app_window_bind_template_children (GtkWidgetClass *widget_class)
{
  gtk_widget_class_bind_template_child (widget_class, AppWindow, console_paned);
  gtk_widget_class_bind_template_child (widget_class, AppWindow, console);
  gtk_widget_class_bind_template_child (widget_class, AppWindow, stack);
  gtk_widget_class_bind_template_child (widget_class, AppWindow, login_page);
  gtk_widget_class_bind_template_child (widget_class, AppWindow, registration_page);
  gtk_widget_class_bind_template_child (widget_class, AppWindow, procedure_creation_page);
  gtk_widget_class_bind_template_child (widget_class, AppWindow, vcard_page);
  gtk_widget_class_bind_template_child (widget_class, AppWindow, main_page);
  gtk_widget_class_bind_template_child (widget_class, AppWindow, main_page_stack);
  gtk_widget_class_bind_template_child (widget_class, AppWindow, roster_tools_box);
  gtk_widget_class_bind_template_child (widget_class, AppWindow, show_vcard_button);
  gtk_widget_class_bind_template_child (widget_class, AppWindow, add_procedure_button);
  gtk_widget_class_bind_template_child (widget_class, AppWindow, contacts_list_box);
  gtk_widget_class_bind_template_child (widget_class, AppWindow, procedures_list_box);
}

static void
app_window_class_init (AppWindowClass *window_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (window_class);
  G_OBJECT_CLASS (window_class)->finalize = app_window_finalize;
  widget_class->destroy = app_window_destroy;
  gtk_widget_class_set_template_from_resource (widget_class, "/org/halvex/morvane/app_window.ui");
  app_window_bind_template_children (widget_class);
}

static void
app_window_init (AppWindow *self)
{
  // The template names these types; nothing else has used them yet.
  g_type_ensure (login_page_get_type ());
  g_type_ensure (registration_page_get_type ());
  g_type_ensure (vcard_page_get_type ());
  g_type_ensure (procedure_creation_page_get_type ());
  g_type_ensure (wrapped_text_get_type ());
  g_type_ensure (wrapped_label_get_type ());
  gtk_widget_init_template (GTK_WIDGET (self));
  deletion_init (self);
  self->xmpp_handlers = &APP_WINDOW_XMPP_HANDLERS;
  self->last_xmpp_id = 0;
  self->get_vcard_id = 0;
  self->get_own_vcard_id = 0;
  self->prev_main_page = NULL;
}

static void
app_window_set_console_style (AppWindow *self)
{
  GtkCssProvider *provider = gtk_css_provider_new ();
  gtk_css_provider_load_from_data (provider, "* {font-size: 10px;}", -1, NULL);
  gtk_style_context_add_provider (gtk_widget_get_style_context (GTK_WIDGET (self->console)),
                                  GTK_STYLE_PROVIDER (provider), GTK_STYLE_PROVIDER_PRIORITY_USER);
  g_object_unref (provider);
}

// Only what is visible gets a place.
static void
app_window_place_console (AppWindow *self)
{
  gtk_widget_show (GTK_WIDGET (self->console));
  gtk_text_view_place (self->console, WINDOW_SIZE);
  gtk_widget_hide (GTK_WIDGET (self->console));
}

// The theme gives a switcher's buttons a width that leaves the clauses too little of a small window.
static void
app_window_narrow_roster_switcher (AppWindow *self)
{
  // One provider serves all windows of the screen.
  static bool is_done;
  if (is_done)
    return;
  is_done = true;
  GtkCssProvider *provider = gtk_css_provider_new ();
  gtk_css_provider_load_from_data (provider, "#roster-switcher > button {min-width: 60px;}", -1,
                                   NULL);
  gtk_style_context_add_provider_for_screen (gtk_widget_get_screen (GTK_WIDGET (self)),
                                             GTK_STYLE_PROVIDER (provider),
                                             GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  g_object_unref (provider);
}

AppWindow *
app_window_new (App *app, gnutls_certificate_credentials_t tls_credentials, sqlite3 *db,
                GtkTextBuffer *console)
{
  AppWindow *self =
    MORVANE_APP_WINDOW (g_object_new (app_window_get_type (), "application", app, NULL));
  gtk_text_view_set_buffer (self->console, console);
  app_window_place_console (self);
  self->tls_credentials = tls_credentials;
  self->db = db;
  self->account = {};
  self->connection = {};
  self->config = read_config_file (".morvanerc");
  self->input_stream_buffer = alloc (STREAM_BUFFER_SIZE);
  self->output_stream_buffer = alloc (STREAM_BUFFER_SIZE);
  if (self->config.bare_jid.size) {
    login_page_set_bare_jid (self->login_page, self->config.bare_jid);
    if (self->config.password.size) {
      login_page_set_password (self->login_page, self->config.password);
    }
  }
  gtk_window_set_default (GTK_WINDOW (self), login_page_get_login_button (self->login_page));
  gtk_window_set_default_size (GTK_WINDOW (self), WINDOW_SIZE, WINDOW_SIZE);
  app_window_set_console_style (self);
  app_window_narrow_roster_switcher (self);
  window_state_follow (GTK_WINDOW (self), self->main_page);

  app_window_add_session_actions (self);

  g_signal_connect (self, "delete-event", G_CALLBACK (app_window_delete_handle), self);
  g_signal_connect (self, "key-press-event", G_CALLBACK (handle_app_window_key_press), self);
  g_signal_connect (self->add_procedure_button, "clicked",
                    G_CALLBACK (app_window_add_procedure_button_handle), self);
  g_signal_connect (self->show_vcard_button, "clicked",
                    G_CALLBACK (app_window_show_vcard_button_handle), self);
  g_signal_connect (self->procedures_list_box, "row-activated",
                    G_CALLBACK (app_window_procedures_list_box_row_activated_handle), self);
  g_signal_connect (self->contacts_list_box, "row-activated",
                    G_CALLBACK (app_window_contacts_list_box_row_activated_handle), self);
  return self;
}

// ---- Pages ----

void
app_window_goto_login_page (AppWindow *self, const char *bare_jid)
{
  gtk_stack_set_visible_child (self->stack, GTK_WIDGET (self->login_page));
  if (bare_jid) {
    login_page_set_bare_jid (self->login_page, bare_jid);
    login_page_set_password (self->login_page, "");
    login_page_focus_password (self->login_page);
  }
  gtk_window_set_default (GTK_WINDOW (self), login_page_get_login_button (self->login_page));
}

void
app_window_goto_registration_page (AppWindow *self)
{
  gtk_window_set_default (GTK_WINDOW (self),
                          registration_page_get_register_button (self->registration_page));
  gtk_stack_set_visible_child (self->stack, GTK_WIDGET (self->registration_page));
}

void
app_window_goto_prev_main_page (AppWindow *self)
{
  GtkWidget *page = self->prev_main_page;
  self->prev_main_page = NULL;
  if (!page)
    page = GTK_WIDGET (self->procedure_creation_page);
  gtk_stack_set_visible_child (self->main_page_stack, page);
}

// ---- Account, contacts and procedures ----

static void
app_window_begin_loading (AppWindow *self)
{
  self->loading = true;
  begin_long_work ();
  if (self->closing)
    give_up_long_work ();
}

static void
app_window_end_loading (AppWindow *self)
{
  end_long_work ();
  self->loading = false;
  if (self->closing && !self->worker_active)
    gtk_widget_destroy (GTK_WIDGET (self));
}

void
app_window_load_account (AppWindow *self)
{
  self->account_db_id = db_get_account_db_id (self->db, self->account.bare_jid);
  if (!self->account_db_id) {
    self->account_db_id = db_insert_account (self->db, self->account.bare_jid);
  }
  assert (self->account_db_id);
  app_window_begin_session (self);
  app_window_begin_loading (self);
  db_load_account (self->db, self->account_db_id, &self->contacts, &self->procedures);
  for (u32 i = 0; i < self->contacts.count; i++) {
    app_window_add_contact (self, self->contacts.contacts[i]);
    if (!pause_long_work ())
      break;
  }
  for (u32 i = 0; i < self->procedures.count; i++) {
    app_window_add_procedure (self, self->procedures.procedures[i]);
    if (!pause_long_work ())
      break;
  }
  gtk_stack_set_visible_child (self->stack, GTK_WIDGET (self->main_page));
  // Nothing is sent behind the farewell.
  if (!self->closing)
    delivery_begin (self);
  app_window_end_loading (self);
}

Negotiation *
app_window_get_negotiation (AppWindow *self)
{
  self->negotiation.db = self->db;
  self->negotiation.account_db_id = self->account_db_id;
  self->negotiation.own = self->account.bare_jid;
  self->negotiation.own_name = self->account.username;
  self->negotiation.procedures = &self->procedures;
  self->negotiation.outbox = &self->outbox;
  return &self->negotiation;
}

void
app_window_add_contact (AppWindow *self, Contact *contact)
{
  GtkWidget *chat_page = contact_chat_page_new (contact);
  GtkWidget *list_item = contact_list_item_new (contact);
  contact->chat_page = MORVANE_CONTACT_CHAT_PAGE (chat_page);
  contact->list_item = MORVANE_CONTACT_LIST_ITEM (list_item);
  gtk_widget_show (chat_page);
  gtk_widget_show (list_item);
  gtk_container_add (GTK_CONTAINER (self->main_page_stack), chat_page);
  gtk_container_add (GTK_CONTAINER (self->contacts_list_box), list_item);
}

void
app_window_create_new_contact (AppWindow *self, String bare_jid, String status)
{
  Contact *contact = alloc_contact (0, self->account_db_id, bare_jid, status);
  db_insert_contact (self->db, contact);
  contact_stack_push (&self->contacts, contact);
  if (!self->closing)
    app_window_add_contact (self, contact);
}

void
app_window_set_contact_status (AppWindow *self, Contact *contact, String status)
{
  assert (contact->status.data);
  dealloc_string (contact->status);
  contact->status = alloc_string (status);
  if (!self->closing)
    contact_list_item_set_status (contact->list_item, status);
}

void
app_window_add_contact_message (AppWindow *self, Contact *contact, String text)
{
  ContactMessage *message =
    alloc_contact_message (0, contact->db_id, get_posix_time (), contact->bare_jid, text);
  db_insert_contact_message (self->db, message);
  contact_add_message (contact, message);
  if (!self->closing)
    contact_chat_page_add_message (contact->chat_page, message);
}

void
app_window_add_procedure (AppWindow *self, Procedure *procedure)
{
  String own = self->account.bare_jid;
  String other = procedure_get_other_party (procedure, own);
  GtkWidget *view = procedure_view_new_empty (procedure);
  GtkWidget *list_item = procedure_list_item_new (procedure, other);
  procedure->view = MORVANE_PROCEDURE_VIEW (view);
  gtk_widget_show (view);
  gtk_widget_show (list_item);
  gtk_container_add (GTK_CONTAINER (self->main_page_stack), view);
  procedure_view_fill (procedure->view, own);
  gtk_list_box_prepend (self->procedures_list_box, list_item);
  procedure->list_item = GTK_LIST_BOX_ROW (gtk_widget_get_parent (list_item));
}

// A stack that loses the page it shows would be left blank.
static void
app_window_leave_page (AppWindow *self, GtkWidget *page)
{
  if (gtk_stack_get_visible_child (self->main_page_stack) != page)
    return;
  GtkWidget *focus = gtk_window_get_focus (GTK_WINDOW (self));
  bool has_focus = focus && gtk_widget_is_ancestor (focus, page);
  // A stack gives it back with the page, as to the button that deletes.
  if (has_focus)
    gtk_window_set_focus (GTK_WINDOW (self), NULL);
  GtkWidget *next = GTK_WIDGET (self->procedure_creation_page);
  gtk_stack_set_visible_child (self->main_page_stack, next);
  if (has_focus)
    gtk_widget_child_focus (next, GTK_DIR_TAB_FORWARD);
}

void
app_window_remove_procedure (AppWindow *self, Procedure *procedure)
{
  // What is typed is there again after an undo.
  for (u32 i = 0; i < procedure->clauses_count; i++) {
    clause_view_save_draft (procedure->clauses[i]->view);
  }
  deletion_end (self);
  negotiation_delete (app_window_get_negotiation (self), procedure);
  gtk_list_box_unselect_row (self->procedures_list_box, procedure->list_item);
  app_window_leave_page (self, GTK_WIDGET (procedure->view));
  gtk_widget_hide (GTK_WIDGET (procedure->list_item));
  gtk_widget_hide (GTK_WIDGET (procedure->view));
  char *title = alloc_shown_text (procedure->title);
  char *text = g_strdup_printf ("\u201c%s\u201d deleted.", title);
  deletion_offer_undo (self, text);
  g_free (text);
  g_free (title);
}

void
app_window_put_procedure_back (AppWindow *self, Procedure *procedure)
{
  gtk_widget_show (GTK_WIDGET (procedure->list_item));
  gtk_widget_show (GTK_WIDGET (procedure->view));
  gtk_list_box_select_row (self->procedures_list_box, procedure->list_item);
  // A stack hands the focus on to what comes first on the page, and that would scroll it.
  gtk_window_set_focus (GTK_WINDOW (self), NULL);
  gtk_stack_set_visible_child (self->main_page_stack, GTK_WIDGET (procedure->view));
}

void
app_window_create_new_procedure (AppWindow *self, String title, String contractor)
{
  Procedure *procedure = negotiation_begin (app_window_get_negotiation (self), title, contractor);
  app_window_add_procedure (self, procedure);
  gtk_list_box_select_row (self->procedures_list_box, procedure->list_item);
  gtk_stack_set_visible_child (self->main_page_stack, GTK_WIDGET (procedure->view));
  delivery_send (self);
}

// ---- The worker ----

void
app_window_start_worker (AppWindow *self, void *(*entry) (void *) )
{
  assert (!self->worker_active);
  self->worker_active = true;
  dealloc_string (self->worker_bare_jid);
  self->worker_bare_jid = alloc_string (self->account.bare_jid);
  if (self->worker)
    worker_unref (self->worker);
  self->worker = worker_new ();
  worker_start (self->worker, entry, g_object_ref (self));
}

bool
app_window_is_worker_running (AppWindow *self)
{
  return self->worker_active;
}

gboolean
app_window_release_worker (gpointer data)
{
  AppWindow *self = (AppWindow *) accept_hand_over (data);
  self->worker_active = false;
  if (!self->account_db_id)
    app_window_release_account (self);
  delivery_end_session (self);
  if (self->worker_stray) {
    self->worker_stray = false;
    stray_workers_count--;
    xmpp_close_connection (self);
  }
  if (self->closing && !self->closed) {
    gtk_widget_destroy (GTK_WIDGET (self));
  } else {
    app_window_note_worker_left (self);
  }
  g_object_unref (self);
  return G_SOURCE_REMOVE;
}

void
app_window_interrupt_worker (AppWindow *self)
{
  if (!self->worker_active)
    return;
  worker_interrupt (self->worker);
  interrupt_xmpp_connection (self);
}

bool
app_window_give_up_worker (AppWindow *self)
{
  if (!self->worker_active)
    return true;
  if (!worker_abandon (self->worker, self->account.data, self->input_stream_buffer.data)) {
    app_window_interrupt_worker (self);
    return false;
  }
  self->worker = NULL;
  self->worker_active = false;
  app_window_release_account (self);
  self->account = {};
  self->input_stream_buffer = alloc (STREAM_BUFFER_SIZE);
  g_object_unref (self);
  return true;
}

void
app_window_note_acknowledged (AppWindow *self)
{
  delivery_update (self);
}

bool
app_window_is_account_open_elsewhere (AppWindow *self, String bare_jid)
{
  GtkApplication *application = gtk_window_get_application (GTK_WINDOW (self));
  if (!application)
    return false;
  for (GList *link = gtk_application_get_windows (application); link; link = link->next) {
    if (!MORVANE_IS_APP_WINDOW (link->data) || link->data == self)
      continue;
    AppWindow *other = MORVANE_APP_WINDOW (link->data);
    // The account itself may be in its worker's hands.
    // A closed window that was still logging in won't come to a session.
    bool is_given_up = other->closed || (other->closing && !other->account_db_id);
    bool is_open = !is_given_up && (other->worker_active || other->is_connected);
    if (is_open && other->worker_bare_jid == bare_jid)
      return true;
  }
  return false;
}

bool
app_window_is_open (AppWindow *self)
{
  return !self->closed;
}

u32
app_window_count_stray_workers ()
{
  return stray_workers_count + worker_count_abandoned ();
}
