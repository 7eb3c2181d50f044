#include "procedure_creation_page.h"

#include <string.h>

#include "app_window.h"
#include "db.h"
#include "morvane.h"
#include "procedure_view.h"
#include "shown_text.h"

struct _ProcedureCreationPage {
  GtkBox parent_instance;
  bool is_title_valid;
  bool is_contractor_valid;
  // Template children.
  GtkEntry *title_entry;
  GtkLabel *status_label;
  GtkEntry *contractor_entry;
  GtkButton *contractor_add_button;
  GtkButton *contractor_vcard_button;
  GtkButton *begin_button;
};

G_DEFINE_TYPE (ProcedureCreationPage, procedure_creation_page, GTK_TYPE_BOX)

static AppWindow *
procedure_creation_page_get_window (ProcedureCreationPage *self)
{
  return MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
}

// The contractor as it is used: in lower case, and without the dot that ends the host's name (RFC 7622,
// 3.2), or a sentence from which it was copied. Servers leave it out, too. The caller frees it with
// `g_free`.
static char *
procedure_creation_page_get_contractor (ProcedureCreationPage *self)
{
  char *contractor = g_ascii_strdown (gtk_entry_get_text (self->contractor_entry), -1);
  size_t size = strlen (contractor);
  if (size && contractor[size - 1] == '.')
    contractor[size - 1] = '\0';
  return contractor;
}

// What is wrong with a contractor, as a text for the user; NULL when nothing is. RFC 7622 allows
// none of these characters. Some would break out of the attributes of a stanza; the invisible ones, which
// come with a pasted address, servers take out: what the contractor sends would then come from someone
// else.
static const char *
get_contractor_refusal (const char *contractor)
{
  for (const char *c = contractor; *c; c = g_utf8_next_char (c)) {
    gunichar character = g_utf8_get_char (c);
    bool is_reserved = character < 128 && strchr ("\"&'<>/", (int) character) != NULL;
    if (is_reserved || g_unichar_isspace (character) || g_unichar_iscntrl (character))
      return "The contractor holds a character that no account can have";
  }
  if (has_invisible_letters (to_string (contractor)))
    return "The contractor holds an invisible character; type it by hand";
  if (strlen (contractor) > BARE_JID_SIZE_MAX)
    return "The contractor is too long";
  return NULL;
}

static void
procedure_creation_page_validate_fields (ProcedureCreationPage *self)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->begin_button),
                            self->is_title_valid && self->is_contractor_valid);
}

static void
procedure_creation_page_title_entry_changed_handle (GtkEditable *, ProcedureCreationPage *self)
{
  self->is_title_valid = cstr_has_non_whitespace (gtk_entry_get_text (self->title_entry));
  procedure_creation_page_validate_fields (self);
}

static void
procedure_creation_page_contractor_entry_changed_handle (GtkEditable *, ProcedureCreationPage *self)
{
  AppWindow *window = procedure_creation_page_get_window (self);
  char *text = procedure_creation_page_get_contractor (self);
  String contractor = to_string (text);
  bool is_valid = is_bare_jid (contractor) && !is_same_party (contractor, window->account.bare_jid);
  gtk_widget_set_sensitive (GTK_WIDGET (self->contractor_add_button), is_valid);
  gtk_widget_set_sensitive (GTK_WIDGET (self->contractor_vcard_button), is_valid);
  self->is_contractor_valid = is_valid;
  procedure_creation_page_validate_fields (self);
  g_free (text);
}

static gboolean
procedure_creation_page_entry_focus_in_handle (GtkWidget *, GdkEvent *, ProcedureCreationPage *self)
{
  gtk_widget_grab_default (GTK_WIDGET (self->begin_button));
  return FALSE;
}

static void
procedure_creation_page_contractor_add_button_handle (GtkButton *, ProcedureCreationPage *self)
{
  char *contractor = procedure_creation_page_get_contractor (self);
  const char *refusal = get_contractor_refusal (contractor);
  gtk_label_set_text (self->status_label, refusal ? refusal : "");
  if (!refusal) {
    xmpp_presence_subscribe (procedure_creation_page_get_window (self), to_string (contractor));
  }
  g_free (contractor);
}

static void
procedure_creation_page_contractor_vcard_button_handle (GtkButton *, ProcedureCreationPage *self)
{
  AppWindow *window = procedure_creation_page_get_window (self);
  char *contractor = procedure_creation_page_get_contractor (self);
  const char *refusal = get_contractor_refusal (contractor);
  gtk_label_set_text (self->status_label, refusal ? refusal : "");
  if (!refusal) {
    window->get_vcard_id = xmpp_iq_get_vcard4 (window, to_string (contractor));
  }
  g_free (contractor);
}

// The title as the wire and the store carry it. The caller frees it with `dealloc_string`.
static String
alloc_title (const char *text)
{
  String sendable = alloc_sendable_text (to_string (text));
  String title = alloc_procedure_title (sendable);
  dealloc_string (sendable);
  return title;
}

static const char *
procedure_creation_page_get_refusal (ProcedureCreationPage *self, String title,
                                     const char *contractor)
{
  AppWindow *window = procedure_creation_page_get_window (self);
  const char *contractor_refusal = get_contractor_refusal (contractor);
  if (contractor_refusal)
    return contractor_refusal;
  if (!title.size)
    return "Input a title";
  if (!db_can_hold_procedure (window->account_db_id, get_posix_time (), window->account.bare_jid,
                              to_string (contractor), title))
    return "The title is too long";
  return NULL;
}

static void
procedure_creation_page_begin_button_handle (GtkButton *, ProcedureCreationPage *self)
{
  String title = alloc_title (gtk_entry_get_text (self->title_entry));
  char *contractor = procedure_creation_page_get_contractor (self);
  const char *refusal = procedure_creation_page_get_refusal (self, title, contractor);
  gtk_label_set_text (self->status_label, refusal ? refusal : "");
  if (!refusal) {
    AppWindow *window = procedure_creation_page_get_window (self);
    app_window_create_new_procedure (window, title, to_string (contractor));
    // The page that is shown now is the new procedure's.
    GtkWidget *page = gtk_stack_get_visible_child (window->main_page_stack);
    if (MORVANE_IS_PROCEDURE_VIEW (page))
      procedure_view_focus_add_clause_button (MORVANE_PROCEDURE_VIEW (page));
  }
  g_free (contractor);
  dealloc_string (title);
}

static void
procedure_creation_page_class_init (ProcedureCreationPageClass *page_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (page_class);
  gtk_widget_class_set_template_from_resource (widget_class,
                                               "/org/halvex/morvane/procedure_creation_page.ui");
  gtk_widget_class_bind_template_child (widget_class, ProcedureCreationPage, title_entry);
  gtk_widget_class_bind_template_child (widget_class, ProcedureCreationPage, status_label);
  gtk_widget_class_bind_template_child (widget_class, ProcedureCreationPage, contractor_entry);
  gtk_widget_class_bind_template_child (widget_class, ProcedureCreationPage, contractor_add_button);
  gtk_widget_class_bind_template_child (widget_class, ProcedureCreationPage,
                                        contractor_vcard_button);
  gtk_widget_class_bind_template_child (widget_class, ProcedureCreationPage, begin_button);
}

static void
procedure_creation_page_init (ProcedureCreationPage *self)
{
  gtk_widget_init_template (GTK_WIDGET (self));
  g_signal_connect (self->begin_button, "clicked",
                    G_CALLBACK (procedure_creation_page_begin_button_handle), self);
  g_signal_connect (self->title_entry, "changed",
                    G_CALLBACK (procedure_creation_page_title_entry_changed_handle), self);
  g_signal_connect (self->contractor_entry, "changed",
                    G_CALLBACK (procedure_creation_page_contractor_entry_changed_handle), self);
  g_signal_connect (self->contractor_add_button, "clicked",
                    G_CALLBACK (procedure_creation_page_contractor_add_button_handle), self);
  g_signal_connect (self->contractor_vcard_button, "clicked",
                    G_CALLBACK (procedure_creation_page_contractor_vcard_button_handle), self);
  g_signal_connect (self->title_entry, "focus-in-event",
                    G_CALLBACK (procedure_creation_page_entry_focus_in_handle), self);
  g_signal_connect (self->contractor_entry, "focus-in-event",
                    G_CALLBACK (procedure_creation_page_entry_focus_in_handle), self);
}

GtkWidget *
procedure_creation_page_new ()
{
  return GTK_WIDGET (g_object_new (procedure_creation_page_get_type (), NULL));
}

GtkWidget *
procedure_creation_page_get_begin_button (ProcedureCreationPage *self)
{
  return GTK_WIDGET (self->begin_button);
}

void
procedure_creation_page_set_contractor_vcard_button_sensitive (ProcedureCreationPage *self,
                                                               gboolean sensitive)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->contractor_vcard_button), sensitive);
}

void
procedure_creation_page_clear (ProcedureCreationPage *self)
{
  gtk_entry_set_text (self->title_entry, "");
  gtk_entry_set_text (self->contractor_entry, "");
  gtk_label_set_text (self->status_label, "");
}
