#include "clause_status.h"

#include "procedure_view.h"

// How long the user is told why nothing happened.
static const guint REFUSAL_SECONDS = 5;

void
clause_status_init (ClauseStatus *self, GtkBox *box, GtkLabel *label)
{
  self->box = box;
  self->label = label;
}

static void
clause_status_drop_refusal (ClauseStatus *self)
{
  if (self->refusal_source)
    g_source_remove (self->refusal_source);
  self->refusal_source = 0;
  g_clear_pointer (&self->status_before, g_free);
}

void
clause_status_finalize (ClauseStatus *self)
{
  clause_status_drop_refusal (self);
}

void
clause_status_set (ClauseStatus *self, const char *status)
{
  clause_status_drop_refusal (self);
  gtk_label_set_text (self->label, status);
}

const char *
clause_status_get (ClauseStatus *self)
{
  return self->status_before ? self->status_before : gtk_label_get_text (self->label);
}

static gboolean
clause_status_end_refusal (gpointer data)
{
  ClauseStatus *self = (ClauseStatus *) data;
  self->refusal_source = 0;
  gtk_label_set_text (self->label, self->status_before);
  clause_status_drop_refusal (self);
  return G_SOURCE_REMOVE;
}

void
clause_status_show_refusal (ClauseStatus *self, const char *refusal)
{
  char *status = g_strdup (clause_status_get (self));
  clause_status_set (self, refusal);
  self->status_before = status;
  self->refusal_source = g_timeout_add_seconds (REFUSAL_SECONDS, clause_status_end_refusal, self);
}

// ---- The note ----

void
clause_status_show_note (ClauseStatus *self, const char *text)
{
  if (!self->note_label) {
    self->note_label = GTK_LABEL (gtk_label_new (NULL));
    gtk_label_set_xalign (self->note_label, 0);
    gtk_label_set_line_wrap (self->note_label, TRUE);
    gtk_style_context_add_class (gtk_widget_get_style_context (GTK_WIDGET (self->note_label)),
                                 "note");
    gtk_box_pack_start (self->box, GTK_WIDGET (self->note_label), FALSE, FALSE, 0);
    // Just above the text.
    gtk_box_reorder_child (self->box, GTK_WIDGET (self->note_label), 1);
  }
  char *markup = g_markup_printf_escaped ("<b>%s</b>", text);
  gtk_label_set_markup (self->note_label, markup);
  g_free (markup);
  gtk_widget_show (GTK_WIDGET (self->note_label));
}

void
clause_status_hide_note (ClauseStatus *self)
{
  if (self->note_label)
    gtk_widget_hide (GTK_WIDGET (self->note_label));
}

bool
clause_status_has_note (ClauseStatus *self)
{
  return self->note_label && gtk_widget_get_visible (GTK_WIDGET (self->note_label));
}

// Whether it begins above what is in sight of the page.
static bool
clause_status_is_above_page (ClauseStatus *self, GtkWidget *widget)
{
  GtkWidget *viewport = gtk_widget_get_ancestor (GTK_WIDGET (self->box), GTK_TYPE_VIEWPORT);
  int y = 0;
  return viewport &&
         gtk_widget_translate_coordinates (widget, gtk_bin_get_child (GTK_BIN (viewport)), 0, 0,
                                           NULL, &y) &&
         y < gtk_adjustment_get_value (procedure_view_get_page (GTK_WIDGET (self->box)));
}

const char *
clause_status_get_unseen (ClauseStatus *self)
{
  if (self->status_before && clause_status_is_above_page (self, GTK_WIDGET (self->label)))
    return gtk_label_get_text (self->label);
  if (clause_status_has_note (self) &&
      clause_status_is_above_page (self, GTK_WIDGET (self->note_label)))
    return gtk_label_get_text (self->note_label);
  return NULL;
}
