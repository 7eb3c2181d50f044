#include "revision_list.h"

#include "clause_revision_list_item.h"
#include "revisions_popover.h"

// ---- Drafts ----

void
revision_list_show_waiting_draft (RevisionList *self, bool is_waiting)
{
  GtkWidget *button = GTK_WIDGET (self->button);
  GtkStyleContext *style = gtk_widget_get_style_context (button);
  const char *description = is_waiting ? "Your draft is waiting" : "";
  if (is_waiting == (bool) gtk_style_context_has_class (style, "draft-waiting"))
    return;
  if (is_waiting) {
    gtk_style_context_add_class (style, "draft-waiting");
    gtk_style_context_add_class (style, GTK_STYLE_CLASS_SUGGESTED_ACTION);
  } else {
    gtk_style_context_remove_class (style, "draft-waiting");
    gtk_style_context_remove_class (style, GTK_STYLE_CLASS_SUGGESTED_ACTION);
  }
  gtk_widget_set_tooltip_text (button,
                               is_waiting ? "Revisions: your draft is waiting" : "Revisions");
  atk_object_set_description (gtk_widget_get_accessible (button), description);
}

static void
revision_list_kept_draft_handle (GtkWidget *chosen, RevisionList *self)
{
  gtk_popover_popdown (self->popover);
  self->bring_back (self->owner, GPOINTER_TO_UINT (g_object_get_data (G_OBJECT (chosen), "index")));
}

// Makes a menu item or a button bring a kept draft back.
static void
revision_list_prepare_kept_draft (RevisionList *self, GtkWidget *widget, const char *signal,
                                  u32 index)
{
  char *excerpt = alloc_kept_draft_excerpt (self->kept_drafts, index);
  gtk_widget_set_tooltip_text (widget, excerpt);
  g_free (excerpt);
  g_object_set_data (G_OBJECT (widget), "index", GUINT_TO_POINTER (index));
  g_signal_connect (widget, signal, G_CALLBACK (revision_list_kept_draft_handle), self);
  gtk_widget_show (widget);
}

// A button for each kept draft; none for no draft.
static GtkWidget *
revision_list_make_kept_draft_buttons (RevisionList *self)
{
  u32 count = kept_drafts_count (self->kept_drafts);
  if (!count)
    return NULL;
  GtkWidget *box = gtk_box_new (GTK_ORIENTATION_VERTICAL, 0);
  for (u32 i = 0; i < count; i++) {
    char *label = alloc_kept_draft_label (self->kept_drafts, i);
    GtkWidget *button = gtk_button_new_with_label (label);
    g_free (label);
    gtk_button_set_relief (GTK_BUTTON (button), GTK_RELIEF_NONE);
    revision_list_prepare_kept_draft (self, button, "clicked", i);
    gtk_container_add (GTK_CONTAINER (box), button);
  }
  gtk_widget_show (box);
  return box;
}

static void
// NOLINTNEXTLINE(bugprone-easily-swappable-parameters): as GTK calls it.
revision_list_header_handle (GtkListBoxRow *row, GtkListBoxRow *before, gpointer self)
{
  GtkWidget *header = before ? NULL : revision_list_make_kept_draft_buttons ((RevisionList *) self);
  gtk_list_box_row_set_header (row, header);
}

// Above the first row or, in a list without rows, in their place.
void
revision_list_show_kept_drafts (RevisionList *self)
{
  gtk_list_box_invalidate_headers (self->list_box);
  gtk_list_box_set_placeholder (self->list_box, revision_list_make_kept_draft_buttons (self));
}

void
revision_list_fill_menu (RevisionList *self, GtkMenuShell *menu)
{
  for (u32 i = 0; i < kept_drafts_count (self->kept_drafts); i++) {
    char *label = alloc_kept_draft_label (self->kept_drafts, i);
    GtkWidget *item = gtk_menu_item_new_with_label (label);
    g_free (label);
    revision_list_prepare_kept_draft (self, item, "activate", i);
    gtk_menu_shell_append (menu, item);
  }
}

// ---- Rows ----

static void
revision_list_append_row (RevisionList *self, GtkWidget *item)
{
  gtk_widget_show (item);
  gtk_container_add (GTK_CONTAINER (self->list_box), item);
}

void
revision_list_add (RevisionList *self, ClauseRevision *revision)
{
  revision_list_append_row (self, clause_revision_list_item_new (revision));
}

void
revision_list_add_draft_row (RevisionList *self)
{
  if (self->has_draft_row)
    return;
  self->has_draft_row = true;
  revision_list_append_row (self, clause_revision_list_item_new_draft ());
}

ClauseRevision *
revision_list_get_revision (GtkListBoxRow *row)
{
  GtkWidget *child = gtk_bin_get_child (GTK_BIN (row));
  return clause_revision_list_item_get_revision (MORVANE_CLAUSE_REVISION_LIST_ITEM (child));
}

// The row of the revision, which is nearly always at the revision's own place, or one below where the
// draft's row is above it; a clause may have thousands.
GtkListBoxRow *
revision_list_find_row (RevisionList *self, ClauseRevision *revision)
{
  s64 index = get_revision_index_reversed (self->clause, revision);
  for (s64 place = index; place >= 0 && place <= index + 1; place++) {
    GtkListBoxRow *row = gtk_list_box_get_row_at_index (self->list_box, (gint) place);
    GtkWidget *child = row ? gtk_bin_get_child (GTK_BIN (row)) : NULL;
    if (child && clause_revision_list_item_get_revision (
                   MORVANE_CLAUSE_REVISION_LIST_ITEM (child)) == revision)
      return row;
  }
  return clause_revision_list_item_find_row (self->list_box, revision);
}

static gint
compare_revision_rows (GtkListBoxRow *row, GtkListBoxRow *other_row, gpointer data)
{
  Clause *clause = ((RevisionList *) data)->clause;
  ClauseRevision *revision = revision_list_get_revision (row);
  ClauseRevision *other_revision = revision_list_get_revision (other_row);
  // Only the draft's row is without a revision.
  if (!revision || !other_revision)
    return !revision - !other_revision;
  if (revision->time != other_revision->time)
    return (revision->time > other_revision->time) - (revision->time < other_revision->time);
  s64 index = get_revision_index_reversed (clause, revision);
  s64 other_index = get_revision_index_reversed (clause, other_revision);
  return (index > other_index) - (index < other_index);
}

void
revision_list_order (RevisionList *self, ClauseRevision *revision)
{
  Clause *clause = self->clause;
  if (revision == clause->revisions[clause->revisions_count - 1])
    return;
  // Sorts at once; the rows that are added later stay where they are.
  gtk_list_box_set_sort_func (self->list_box, compare_revision_rows, self, NULL);
  gtk_list_box_set_sort_func (self->list_box, NULL, NULL, NULL);
}

// ---- The menu of a row ----

static void
revision_list_compare_handle (GtkMenuItem *item, RevisionList *self)
{
  GtkListBoxRow *row = GTK_LIST_BOX_ROW (g_object_get_data (G_OBJECT (item), "row"));
  gtk_popover_popdown (self->popover);
  self->compare (self->owner, revision_list_get_revision (row));
}

// The menu of one row; `event` is what asked for it.
static void
revision_list_show_row_menu (RevisionList *self, GtkListBoxRow *row, GdkEvent *event)
{
  GtkWidget *menu = gtk_menu_new ();
  gtk_menu_attach_to_widget (GTK_MENU (menu), GTK_WIDGET (row), NULL);
  g_signal_connect (menu, "selection-done", G_CALLBACK (gtk_widget_destroy), NULL);
  GtkWidget *item = gtk_menu_item_new_with_label ("Compare with the revision shown");
  g_object_set_data_full (G_OBJECT (item), "row", g_object_ref (row), g_object_unref);
  g_signal_connect (item, "activate", G_CALLBACK (revision_list_compare_handle), self);
  gtk_widget_show (item);
  gtk_menu_shell_append (GTK_MENU_SHELL (menu), item);
  if (event) {
    gtk_menu_popup_at_pointer (GTK_MENU (menu), event);
  } else {
    gtk_menu_popup_at_widget (GTK_MENU (menu), GTK_WIDGET (row), GDK_GRAVITY_SOUTH_WEST,
                              GDK_GRAVITY_NORTH_WEST, NULL);
    gtk_menu_shell_select_first (GTK_MENU_SHELL (menu), TRUE);
  }
}

static gboolean
revision_list_button_press_handle (GtkWidget *, GdkEvent *event, RevisionList *self)
{
  if (!gdk_event_triggers_context_menu (event))
    return FALSE;
  GtkListBoxRow *row = gtk_list_box_get_row_at_y (self->list_box, (int) event->button.y);
  if (!row)
    return FALSE;
  revision_list_show_row_menu (self, row, event);
  return TRUE;
}

// The Menu key, or Shift and F10.
static gboolean
revision_list_popup_menu_handle (GtkWidget *, RevisionList *self)
{
  GtkWidget *row = gtk_container_get_focus_child (GTK_CONTAINER (self->list_box));
  if (!row)
    return FALSE;
  revision_list_show_row_menu (self, GTK_LIST_BOX_ROW (row), NULL);
  return TRUE;
}

// ---- Making ----

void
revision_list_init (RevisionList *self, GtkMenuButton *button, Clause *clause,
                    KeptDrafts *kept_drafts)
{
  self->button = button;
  self->clause = clause;
  self->kept_drafts = kept_drafts;
  self->list_box = GTK_LIST_BOX (gtk_list_box_new ());
  gtk_list_box_set_header_func (self->list_box, revision_list_header_handle, self, NULL);
  self->scroller = GTK_SCROLLED_WINDOW (gtk_scrolled_window_new (NULL, NULL));
  gtk_scrolled_window_set_policy (self->scroller, GTK_POLICY_NEVER, GTK_POLICY_AUTOMATIC);
  gtk_scrolled_window_set_min_content_height (self->scroller, 300);
  gtk_container_add (GTK_CONTAINER (self->scroller), GTK_WIDGET (self->list_box));
  gtk_widget_set_tooltip_text (GTK_WIDGET (self->list_box),
                               "Shows a revision; its menu compares it with the one shown");
  gtk_widget_show_all (GTK_WIDGET (self->scroller));
  self->popover = revisions_popover_new (button);
  gtk_container_add (GTK_CONTAINER (self->popover), GTK_WIDGET (self->scroller));
  g_signal_connect (self->list_box, "button-press-event",
                    G_CALLBACK (revision_list_button_press_handle), self);
  g_signal_connect (self->list_box, "popup-menu", G_CALLBACK (revision_list_popup_menu_handle),
                    self);
}
