#include "registration_page.h"

#include <string.h>

#include "app_window.h"
#include "morvane.h"
#include "session.h"

struct _RegistrationPage {
  GtkBox parent_instance;
  bool is_bare_jid_valid;
  bool are_passwords_valid;  // both not empty, and equal
  bool is_registering;       // a registration of this page runs
  bool is_cancelled;         // and the user has left it
  bool is_ending;            // it has failed, and its worker has not left yet
  // Template children.
  GtkLabel *status_label;
  GtkSpinner *status_spinner;
  GtkEntry *bare_jid_entry;
  GtkEntry *password1_entry;
  GtkEntry *password2_entry;
  GtkButton *register_button;
  GtkButton *cancel_button;
};

G_DEFINE_TYPE (RegistrationPage, registration_page, GTK_TYPE_BOX)

static AppWindow *
registration_page_get_window (RegistrationPage *self)
{
  return MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
}

static void
registration_page_validate_fields (RegistrationPage *self)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->register_button),
                            self->is_bare_jid_valid && self->are_passwords_valid);
}

// While the entries are locked the page itself takes the focus, or Escape would not reach it.
static void
registration_page_set_entries_sensitive (RegistrationPage *self, gboolean sensitive)
{
  gtk_widget_set_can_focus (GTK_WIDGET (self), !sensitive);
  if (!sensitive) {
    gtk_widget_grab_focus (GTK_WIDGET (self));
  }
  gtk_widget_set_sensitive (GTK_WIDGET (self->bare_jid_entry), sensitive);
  gtk_widget_set_sensitive (GTK_WIDGET (self->password1_entry), sensitive);
  gtk_widget_set_sensitive (GTK_WIDGET (self->password2_entry), sensitive);
  gtk_widget_set_sensitive (GTK_WIDGET (self->register_button), sensitive);
}

// Returns whether the user still waits for the outcome.
static bool
registration_page_show_outcome (RegistrationPage *self, const char *status)
{
  bool is_awaited = !self->is_cancelled;
  gtk_label_set_text (self->status_label, is_awaited ? status : "");
  gtk_spinner_stop (self->status_spinner);
  self->is_registering = false;
  return is_awaited;
}

static bool
registration_page_end_registration (RegistrationPage *self, const char *status)
{
  registration_page_set_entries_sensitive (self, TRUE);
  self->is_ending = false;
  return registration_page_show_outcome (self, status);
}

// Back to the login page. A registration that runs is given up: its outcome may still come, and then
// unlocks the page, but tells the user nothing.
static void
registration_page_leave (RegistrationPage *self)
{
  AppWindow *window = registration_page_get_window (self);
  if (self->is_registering) {
    self->is_cancelled = true;
    if (app_window_give_up_worker (window))
      registration_page_end_registration (self, "");
  }
  app_window_goto_login_page (window, NULL);
}

static gboolean
registration_page_key_press_handle (GtkWidget *, GdkEvent *event, RegistrationPage *self)
{
  guint keyval = 0;
  bool is_escape = gdk_event_get_event_type (event) == GDK_KEY_PRESS &&
                   gdk_event_get_keyval (event, &keyval) && keyval == GDK_KEY_Escape;
  if (!is_escape)
    return FALSE;
  registration_page_leave (self);
  return TRUE;
}

static void
registration_page_bare_jid_entry_changed_handle (GtkEditable *, RegistrationPage *self)
{
  self->is_bare_jid_valid = is_bare_jid (to_string (gtk_entry_get_text (self->bare_jid_entry)));
  registration_page_validate_fields (self);
}

static void
registration_page_password_entries_changed_handle (GtkEditable *, RegistrationPage *self)
{
  const char *password1 = gtk_entry_get_text (self->password1_entry);
  const char *password2 = gtk_entry_get_text (self->password2_entry);
  self->are_passwords_valid = *password1 && *password2 && strcmp (password1, password2) == 0;
  registration_page_validate_fields (self);
}

static void
registration_page_start_registration (RegistrationPage *self, String bare_jid)
{
  AppWindow *window = registration_page_get_window (self);
  String password = to_string (gtk_entry_get_text (self->password1_entry));
  window->account = alloc_xmpp_account (bare_jid, password, to_string ("morvane"));
  if (!window->account.bare_jid.size) {
    gtk_label_set_text (self->status_label, "Incorrect account format");
    dealloc_xmpp_account (window->account);
    window->account = {};
    app_window_release_account (window);
    return;
  }
  gtk_label_set_text (self->status_label, "");
  registration_page_set_entries_sensitive (self, FALSE);
  gtk_spinner_start (self->status_spinner);
  self->is_registering = true;
  self->is_cancelled = false;
  console_put ("Registering...\n");
  app_window_start_worker (window, start_xmpp_register_thread);
}

static void
registration_page_register_button_handle (GtkButton *, RegistrationPage *self)
{
  AppWindow *window = registration_page_get_window (self);
  char *bare_jid = g_ascii_strdown (gtk_entry_get_text (self->bare_jid_entry), -1);
  if (app_window_is_worker_running (window)) {
    gtk_label_set_text (self->status_label, "Another attempt is still running");
  } else if (!app_window_claim_account (window, to_string (bare_jid))) {
    gtk_label_set_text (self->status_label, "This account is open in another window");
  } else {
    registration_page_start_registration (self, to_string (bare_jid));
  }
  g_free (bare_jid);
}

static void
registration_page_cancel_button_handle (GtkButton *, RegistrationPage *self)
{
  registration_page_leave (self);
}

static void
registration_page_class_init (RegistrationPageClass *page_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (page_class);
  gtk_widget_class_set_template_from_resource (widget_class,
                                               "/org/halvex/morvane/registration_page.ui");
  gtk_widget_class_bind_template_child (widget_class, RegistrationPage, status_label);
  gtk_widget_class_bind_template_child (widget_class, RegistrationPage, status_spinner);
  gtk_widget_class_bind_template_child (widget_class, RegistrationPage, bare_jid_entry);
  gtk_widget_class_bind_template_child (widget_class, RegistrationPage, password1_entry);
  gtk_widget_class_bind_template_child (widget_class, RegistrationPage, password2_entry);
  gtk_widget_class_bind_template_child (widget_class, RegistrationPage, register_button);
  gtk_widget_class_bind_template_child (widget_class, RegistrationPage, cancel_button);
}

static void
registration_page_init (RegistrationPage *self)
{
  gtk_widget_init_template (GTK_WIDGET (self));
  g_signal_connect (self, "key-press-event", G_CALLBACK (registration_page_key_press_handle), self);
  g_signal_connect (self->bare_jid_entry, "changed",
                    G_CALLBACK (registration_page_bare_jid_entry_changed_handle), self);
  g_signal_connect (self->password1_entry, "changed",
                    G_CALLBACK (registration_page_password_entries_changed_handle), self);
  g_signal_connect (self->password2_entry, "changed",
                    G_CALLBACK (registration_page_password_entries_changed_handle), self);
  g_signal_connect (self->register_button, "clicked",
                    G_CALLBACK (registration_page_register_button_handle), self);
  g_signal_connect (self->cancel_button, "clicked",
                    G_CALLBACK (registration_page_cancel_button_handle), self);
}

GtkWidget *
registration_page_new ()
{
  return GTK_WIDGET (g_object_new (registration_page_get_type (), NULL));
}

GtkWidget *
registration_page_get_register_button (RegistrationPage *self)
{
  return GTK_WIDGET (self->register_button);
}

// ---- Outcomes of a registration ----

gboolean
registration_page_handle_success (gpointer data)
{
  XMPPThreadMessage *message = (XMPPThreadMessage *) accept_hand_over (data);
  AppWindow *window = message->window;
  if (app_window_is_open (window)) {
    RegistrationPage *self = window->registration_page;
    xmpp_close_connection (window);
    if (registration_page_end_registration (self, "")) {
      char *bare_jid = g_ascii_strdown (gtk_entry_get_text (self->bare_jid_entry), -1);
      app_window_goto_login_page (window, bare_jid);
      g_free (bare_jid);
    }
    gtk_entry_set_text (self->bare_jid_entry, "");
    gtk_entry_set_text (self->password1_entry, "");
    gtk_entry_set_text (self->password2_entry, "");
  }
  dealloc_thread_message (message);
  return G_SOURCE_REMOVE;
}

void
registration_page_note_worker_left (RegistrationPage *self)
{
  if (!self->is_ending)
    return;
  registration_page_set_entries_sensitive (self, TRUE);
  self->is_ending = false;
  // While the user is on the login page the focus stays there.
  if (gtk_widget_get_child_visible (GTK_WIDGET (self)))
    gtk_widget_grab_focus (GTK_WIDGET (self->register_button));
}

gboolean
registration_page_handle_failure (gpointer data)
{
  XMPPThreadMessage *message = (XMPPThreadMessage *) accept_hand_over (data);
  AppWindow *window = message->window;
  if (app_window_is_open (window)) {
    RegistrationPage *self = window->registration_page;
    xmpp_close_connection (window);
    char *text = g_utf8_make_valid (message->text, -1);
    registration_page_show_outcome (self, text);
    self->is_ending = true;
    if (!app_window_is_worker_running (window))
      registration_page_note_worker_left (self);
    g_free (text);
  }
  dealloc_thread_message (message);
  return G_SOURCE_REMOVE;
}
