#include "deletion.h"

#include "clause_chat_page.h"
#include "clause_view.h"
#include "delivery.h"
#include "procedure_view.h"

// How long a deletion can be undone.
static const guint UNDO_SECONDS = 10;

// A record that waits for the end of the time in which a deletion can be undone.
struct HeldRecord {
  GSourceFunc handler;
  void *record;  // owned
  GDestroyNotify dealloc_record;
};

// ---- The bar ----

static void
deletion_undo_button_handle (GtkButton *, AppWindow *window)
{
  deletion_undo (window);
}

void
deletion_init (AppWindow *window)
{
  window->undo_bar = gtk_box_new (GTK_ORIENTATION_VERTICAL, 4);
  gtk_container_set_border_width (GTK_CONTAINER (window->undo_bar), 4);
  window->undo_label = GTK_LABEL (gtk_label_new (NULL));
  gtk_label_set_ellipsize (window->undo_label, PANGO_ELLIPSIZE_END);
  GtkWidget *button = gtk_button_new_with_mnemonic ("_Undo");
  gtk_buildable_set_name (GTK_BUILDABLE (button), "undo_button");
  gtk_widget_set_tooltip_text (button,
                               "Bring back what was deleted, until the next deletion or login");
  g_signal_connect (button, "clicked", G_CALLBACK (deletion_undo_button_handle), window);
  gtk_container_add (GTK_CONTAINER (window->undo_bar), GTK_WIDGET (window->undo_label));
  gtk_container_add (GTK_CONTAINER (window->undo_bar), button);
  gtk_widget_show (GTK_WIDGET (window->undo_label));
  gtk_widget_show (button);
  GtkWidget *lists = gtk_widget_get_parent (GTK_WIDGET (window->roster_tools_box));
  gtk_box_pack_end (GTK_BOX (lists), window->undo_bar, FALSE, FALSE, 0);
}

static void
deletion_hide_bar (AppWindow *window)
{
  if (window->undo_source)
    g_source_remove (window->undo_source);
  window->undo_source = 0;
  gtk_widget_hide (window->undo_bar);
}

static gboolean
deletion_end_in_time (gpointer data)
{
  deletion_end (MORVANE_APP_WINDOW (data));
  return G_SOURCE_REMOVE;
}

// ---- Deleting ----

static GSList *
deletion_take_held (AppWindow *window)
{
  GSList *held = g_slist_reverse (window->held_records);
  window->held_records = NULL;
  return held;
}

static void
deletion_drop_held (AppWindow *window)
{
  GSList *held = deletion_take_held (window);
  for (GSList *link = held; link; link = link->next) {
    HeldRecord *waiting = (HeldRecord *) link->data;
    waiting->dealloc_record (waiting->record);
    g_free (waiting);
  }
  g_slist_free (held);
}

void
deletion_offer_undo (AppWindow *window, const char *text)
{
  delivery_watch_table (window);
  gtk_label_set_text (window->undo_label, text);
  gtk_widget_set_tooltip_text (GTK_WIDGET (window->undo_label), text);
  gtk_widget_show (window->undo_bar);
  window->undo_source = g_timeout_add_seconds (UNDO_SECONDS, deletion_end_in_time, window);
}

// They borrow the records that are freed next.
static void
deletion_destroy_widgets (NegotiationDeletion *deletion)
{
  if (deletion->procedure) {
    gtk_widget_destroy (GTK_WIDGET (deletion->procedure->list_item));
    gtk_widget_destroy (GTK_WIDGET (deletion->procedure->view));
  }
  if (deletion->clause) {
    gtk_widget_destroy (GTK_WIDGET (deletion->clause->chat_page));
    gtk_widget_destroy (GTK_WIDGET (deletion->clause->view));
  }
}

void
deletion_end (AppWindow *window)
{
  deletion_hide_bar (window);
  deletion_drop_held (window);
  deletion_destroy_widgets (&app_window_get_negotiation (window)->deletion);
  negotiation_end_undo (app_window_get_negotiation (window));
}

bool
deletion_hold (AppWindow *window, String procedure_initiator, s64 procedure_time,
               GSourceFunc handler, void *record, GDestroyNotify dealloc_record)
{
  Procedure *deleted = app_window_get_negotiation (window)->deletion.procedure;
  if (!deleted || deleted->time != procedure_time || deleted->initiator != procedure_initiator)
    return false;
  HeldRecord *waiting = g_new (HeldRecord, 1);
  *waiting = {handler, record, dealloc_record};
  window->held_records = g_slist_prepend (window->held_records, waiting);
  return true;
}

// ---- Undoing ----

void
deletion_undo (AppWindow *window)
{
  Negotiation *negotiation = app_window_get_negotiation (window);
  NegotiationDeletion deletion = negotiation->deletion;
  if (!deletion.procedure && !deletion.clause)
    return;
  deletion_hide_bar (window);
  negotiation_undo_delete (negotiation);
  if (deletion.procedure) {
    app_window_put_procedure_back (window, deletion.procedure);
  } else {
    procedure_view_put_clause_back (deletion.parent->view, deletion.clause);
  }
  delivery_send (window);
  GSList *held = deletion_take_held (window);
  for (GSList *link = held; link; link = link->next) {
    HeldRecord *waiting = (HeldRecord *) link->data;
    waiting->handler (waiting->record);
    g_free (waiting);
  }
  g_slist_free (held);
}
