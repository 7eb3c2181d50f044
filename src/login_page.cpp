#include "login_page.h"

#include <assert.h>

#include "app_window.h"
#include "morvane.h"
#include "session.h"
#include "session_thread.h"

struct _LoginPage {
  GtkBox parent_instance;
  bool is_bare_jid_valid;
  bool is_password_valid;  // not empty
  bool is_logging_in;      // an attempt of this page runs
  bool is_cancelled;       // and the user has given it up
  bool is_ending;          // it has failed, and its worker has not left yet
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

// What keeps an attempt from starting, as a text for the user; NULL when nothing does, and the account
// is the window's.
static const char *
login_page_claim_account (LoginPage *self, String bare_jid)
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
  if (!app_window_claim_account (window, bare_jid))
    return "This account is open in another window";
  return NULL;
}

// While the entries are locked the page itself takes the focus, or Escape would not reach it.
static void
login_page_set_entries_sensitive (LoginPage *self, gboolean sensitive)
{
  gtk_widget_set_can_focus (GTK_WIDGET (self), !sensitive);
  if (!sensitive)
    gtk_widget_grab_focus (GTK_WIDGET (self));
  gtk_widget_set_sensitive (GTK_WIDGET (self->bare_jid_entry), sensitive);
  gtk_widget_set_sensitive (GTK_WIDGET (self->password_entry), sensitive);
  gtk_widget_set_sensitive (GTK_WIDGET (self->login_button), sensitive);
}

static bool
has_bytes_beyond_ascii (const char *text, char end)
{
  while (*text && *text != end && g_ascii_isprint (*text))
    text++;
  return *text && *text != end;
}

// Base64 of such bytes is not what the server expects, and the server can only say no.
static const char *
login_page_get_refusal_hint (LoginPage *self)
{
  bool is_name_changed = has_bytes_beyond_ascii (gtk_entry_get_text (self->bare_jid_entry), '@');
  bool is_password_changed =
    has_bytes_beyond_ascii (gtk_entry_get_text (self->password_entry), '\0');
  if (!is_name_changed && !is_password_changed)
    return NULL;
  return "The name or the password has characters beyond ASCII, which reach the server changed";
}

static void
login_page_start_login (LoginPage *self, String bare_jid)
{
  AppWindow *window = MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
  String password = to_string (gtk_entry_get_text (self->password_entry));
  // The register button stays on: the user may turn to the other page while the server is slow.
  login_page_set_entries_sensitive (self, FALSE);
  gtk_label_set_text (self->status_label, "");
  self->is_logging_in = true;
  gtk_spinner_start (self->spinner);
  window->account = alloc_xmpp_account (bare_jid, password, to_string ("morvane"));
  console_put ("Connecting...\n");
  app_window_start_worker (window, start_xmpp_connection_thread);
}

static void
login_page_login_button_handle (GtkButton *, LoginPage *self)
{
  char *bare_jid = g_ascii_strdown (gtk_entry_get_text (self->bare_jid_entry), -1);
  const char *refusal = login_page_claim_account (self, to_string (bare_jid));
  gtk_widget_set_tooltip_text (GTK_WIDGET (self->status_label), NULL);
  if (refusal) {
    gtk_label_set_text (self->status_label, refusal);
  } else {
    login_page_start_login (self, to_string (bare_jid));
  }
  g_free (bare_jid);
}

static void
login_page_show_outcome (LoginPage *self, const char *status)
{
  gtk_label_set_text (self->status_label, status);
  gtk_spinner_stop (self->spinner);
  self->is_logging_in = false;
  self->is_cancelled = false;
}

static void
login_page_unlock (LoginPage *self)
{
  login_page_set_entries_sensitive (self, TRUE);
  gtk_widget_set_sensitive (GTK_WIDGET (self->register_button), TRUE);
  self->is_ending = false;
}

static void
login_page_end_login (LoginPage *self, const char *status)
{
  login_page_unlock (self);
  login_page_show_outcome (self, status);
}

// Gives up an attempt that runs. Its outcome may still come, and then only unlocks the page.
static gboolean
login_page_key_press_handle (GtkWidget *, GdkEvent *event, LoginPage *self)
{
  guint keyval = 0;
  bool is_escape = gdk_event_get_event_type (event) == GDK_KEY_PRESS &&
                   gdk_event_get_keyval (event, &keyval) && keyval == GDK_KEY_Escape;
  if (!is_escape || !self->is_logging_in)
    return FALSE;
  AppWindow *window = MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
  // What the server delivers to a session must be kept, so one that has begun is loaded.
  if (!interrupt_xmpp_login (window))
    return TRUE;
  if (app_window_give_up_worker (window)) {
    login_page_end_login (self, "");
    gtk_widget_grab_focus (GTK_WIDGET (self->login_button));
  } else {
    self->is_cancelled = true;
  }
  return TRUE;
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
  g_signal_connect (self, "key-press-event", G_CALLBACK (login_page_key_press_handle), self);
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

gboolean
login_page_handle_login_success (gpointer data)
{
  AppWindow *window = MORVANE_APP_WINDOW (accept_hand_over (data));
  // One that was given up ends when its worker, which was told to leave, has left.
  if (app_window_is_open (window) && !window->login_page->is_cancelled) {
    assert (window->account.bare_jid.size);
    login_page_end_login (window->login_page, "");
    // Emptied behind the rest, so that its handler has the last word on the login button.
    gtk_entry_set_text (window->login_page->password_entry, "");
    app_window_load_account (window);
  }
  g_object_unref (window);
  return G_SOURCE_REMOVE;
}

void
login_page_note_worker_left (LoginPage *self)
{
  if (self->is_logging_in && self->is_cancelled) {
    login_page_end_login (self, "");
  } else if (self->is_ending) {
    login_page_unlock (self);
    // While the user is on the registration page the focus stays there.
    if (gtk_widget_get_child_visible (GTK_WIDGET (self)))
      gtk_widget_grab_focus (GTK_WIDGET (self->login_button));
  }
}

gboolean
login_page_handle_login_failure (gpointer data)
{
  XMPPThreadMessage *message = (XMPPThreadMessage *) accept_hand_over (data);
  AppWindow *window = message->window;
  if (app_window_is_open (window)) {
    LoginPage *self = window->login_page;
    xmpp_close_connection (window);
    bool is_awaited = !self->is_cancelled;
    login_page_show_outcome (self, is_awaited ? message->text : "");
    gtk_widget_set_tooltip_text (GTK_WIDGET (self->status_label),
                                 is_awaited ? login_page_get_refusal_hint (self) : NULL);
    self->is_ending = true;
    if (!app_window_is_worker_running (window))
      login_page_note_worker_left (self);
  }
  dealloc_thread_message (message);
  return G_SOURCE_REMOVE;
}
