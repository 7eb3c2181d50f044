#include "login_page.h"

#include <assert.h>

#include "app_window.h"
#include "morvane.h"

struct _LoginPage {
  GtkBox parent_instance;
  bool is_bare_jid_valid;
  bool is_password_valid;  // not empty
  // Template children.
  GtkEntry *bare_jid_entry;
  GtkEntry *password_entry;
  GtkButton *login_button;
  GtkButton *register_button;
  GtkLabel *status_label;
  GtkSpinner *spinner;
};

G_DEFINE_TYPE (LoginPage, login_page, GTK_TYPE_BOX)

static void
login_page_validate_fields (LoginPage *self)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->login_button),
                            self->is_bare_jid_valid && self->is_password_valid);
}

static void
login_page_bare_jid_entry_changed_handle (GtkEditable *, LoginPage *self)
{
  self->is_bare_jid_valid = is_bare_jid (to_string (gtk_entry_get_text (self->bare_jid_entry)));
  login_page_validate_fields (self);
}

static void
login_page_password_entry_changed_handle (GtkEditable *, LoginPage *self)
{
  self->is_password_valid = gtk_entry_get_text_length (self->password_entry) != 0;
  login_page_validate_fields (self);
}

// What keeps an attempt from starting, as a text for the user; NULL when nothing does.
static const char *
login_page_get_refusal (LoginPage *self, String bare_jid)
{
  AppWindow *window = MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
  if (!bare_jid.size)
    return "Input an account";
  if (!gtk_entry_get_text_length (self->password_entry))
    return "Input a password";
  if (!is_bare_jid (bare_jid))
    return "Incorrect account format";
  if (app_window_is_worker_running (window))
    return "Another attempt is still running";
  if (app_window_is_account_open_elsewhere (window, bare_jid))
    return "This account is open in another window";
  return NULL;
}

static void
login_page_start_login (LoginPage *self, String bare_jid)
{
  AppWindow *window = MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
  String password = to_string (gtk_entry_get_text (self->password_entry));
  // The register button stays on: the user may turn to the other page while the server is slow.
  gtk_widget_set_sensitive (GTK_WIDGET (self->bare_jid_entry), FALSE);
  gtk_widget_set_sensitive (GTK_WIDGET (self->password_entry), FALSE);
  gtk_widget_set_sensitive (GTK_WIDGET (self->login_button), FALSE);
  gtk_label_set_text (self->status_label, "");
  gtk_spinner_start (self->spinner);
  window->account = alloc_xmpp_account (bare_jid, password, to_string ("morvane"));
  console_put ("Connecting...\n");
  app_window_start_worker (window, start_xmpp_connection_thread);
}

static void
login_page_login_button_handle (GtkButton *, LoginPage *self)
{
  char *bare_jid = g_ascii_strdown (gtk_entry_get_text (self->bare_jid_entry), -1);
  const char *refusal = login_page_get_refusal (self, to_string (bare_jid));
  if (refusal) {
    gtk_label_set_text (self->status_label, refusal);
  } else {
    login_page_start_login (self, to_string (bare_jid));
  }
  g_free (bare_jid);
}

static void
login_page_register_button_handle (GtkButton *, LoginPage *self)
{
  app_window_goto_registration_page (
    MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self))));
}

static void
login_page_class_init (LoginPageClass *page_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (page_class);
  gtk_widget_class_set_template_from_resource (widget_class, "/org/halvex/morvane/login_page.ui");
  gtk_widget_class_bind_template_child (widget_class, LoginPage, bare_jid_entry);
  gtk_widget_class_bind_template_child (widget_class, LoginPage, password_entry);
  gtk_widget_class_bind_template_child (widget_class, LoginPage, login_button);
  gtk_widget_class_bind_template_child (widget_class, LoginPage, register_button);
  gtk_widget_class_bind_template_child (widget_class, LoginPage, status_label);
  gtk_widget_class_bind_template_child (widget_class, LoginPage, spinner);
}

static void
login_page_init (LoginPage *self)
{
  gtk_widget_init_template (GTK_WIDGET (self));
  g_signal_connect (self->bare_jid_entry, "changed",
                    G_CALLBACK (login_page_bare_jid_entry_changed_handle), self);
  g_signal_connect (self->password_entry, "changed",
                    G_CALLBACK (login_page_password_entry_changed_handle), self);
  g_signal_connect (self->login_button, "clicked", G_CALLBACK (login_page_login_button_handle),
                    self);
  g_signal_connect (self->register_button, "clicked",
                    G_CALLBACK (login_page_register_button_handle), self);
}

GtkWidget *
login_page_new ()
{
  return GTK_WIDGET (g_object_new (login_page_get_type (), NULL));
}

// ---- Entries and buttons ----

// An entry takes valid UTF-8 only, and a configuration file may hold anything.
static void
set_entry_text (GtkEntry *entry, String text)
{
  char *valid = g_utf8_make_valid (text.size ? (const char *) text.data : "", (gssize) text.size);
  gtk_entry_set_text (entry, valid);
  g_free (valid);
}

void
login_page_set_bare_jid (LoginPage *self, const char *text)
{
  set_entry_text (self->bare_jid_entry, to_string (text));
}

void
login_page_set_bare_jid (LoginPage *self, String text)
{
  set_entry_text (self->bare_jid_entry, text);
}

void
login_page_set_password (LoginPage *self, const char *text)
{
  set_entry_text (self->password_entry, to_string (text));
}

void
login_page_set_password (LoginPage *self, String text)
{
  set_entry_text (self->password_entry, text);
}

void
login_page_focus_password (LoginPage *self)
{
  gtk_widget_grab_focus (GTK_WIDGET (self->password_entry));
}

GtkWidget *
login_page_get_login_button (LoginPage *self)
{
  return GTK_WIDGET (self->login_button);
}

// ---- Outcomes of a login ----

static void
login_page_end_login (LoginPage *self, const char *status)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->bare_jid_entry), TRUE);
  gtk_widget_set_sensitive (GTK_WIDGET (self->password_entry), TRUE);
  gtk_widget_set_sensitive (GTK_WIDGET (self->login_button), TRUE);
  gtk_widget_set_sensitive (GTK_WIDGET (self->register_button), TRUE);
  gtk_label_set_text (self->status_label, status);
  gtk_spinner_stop (self->spinner);
}

gboolean
login_page_handle_login_success (gpointer data)
{
  AppWindow *window = MORVANE_APP_WINDOW (accept_hand_over (data));
  if (app_window_is_open (window)) {
    assert (window->account.bare_jid.size);
    login_page_end_login (window->login_page, "");
    // Emptied behind the rest, so that its handler has the last word on the login button.
    gtk_entry_set_text (window->login_page->password_entry, "");
    app_window_load_account (window);
  }
  g_object_unref (window);
  return G_SOURCE_REMOVE;
}

gboolean
login_page_handle_login_failure (gpointer data)
{
  XMPPThreadMessage *message = (XMPPThreadMessage *) accept_hand_over (data);
  AppWindow *window = message->window;
  if (app_window_is_open (window)) {
    LoginPage *self = window->login_page;
    xmpp_close_connection (window);
    login_page_end_login (self, message->text);
    // While the user is on the registration page the focus stays there.
    if (gtk_widget_get_child_visible (GTK_WIDGET (self))) {
      gtk_widget_grab_focus (GTK_WIDGET (self->login_button));
    }
  }
  dealloc_thread_message (message);
  return G_SOURCE_REMOVE;
}
