#include "clause_revision_list_item.h"

#include <assert.h>

#include "shown_text.h"

struct _ClauseRevisionListItem {
  GtkBox parent_instance;
  ClauseRevision *revision;  // borrowed; NULL tells the draft row
  GtkLabel *label;           // template child
};

G_DEFINE_TYPE (ClauseRevisionListItem, clause_revision_list_item, GTK_TYPE_BOX)

static void
clause_revision_list_item_class_init (ClauseRevisionListItemClass *item_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (item_class);
  gtk_widget_class_set_template_from_resource (widget_class,
                                               "/org/halvex/morvane/clause_revision_list_item.ui");
  gtk_widget_class_bind_template_child (widget_class, ClauseRevisionListItem, label);
}

static void
clause_revision_list_item_init (ClauseRevisionListItem *self)
{
  gtk_widget_init_template (GTK_WIDGET (self));
}

char *
alloc_shown_revision_name (ClauseRevision *revision)
{
  char *author = alloc_shown_text (revision->author);
  char *name = g_strdup_printf ("%s:%ld", author, revision->time);
  g_free (author);
  return name;
}

static ClauseRevisionListItem *
clause_revision_list_item_make (ClauseRevision *revision, const char *text)
{
  ClauseRevisionListItem *self =
    MORVANE_CLAUSE_REVISION_LIST_ITEM (g_object_new (clause_revision_list_item_get_type (), NULL));
  self->revision = revision;
  gtk_label_set_text (self->label, text);
  return self;
}

GtkWidget *
clause_revision_list_item_new (ClauseRevision *revision)
{
  char *name = alloc_shown_revision_name (revision);
  ClauseRevisionListItem *self = clause_revision_list_item_make (revision, name);
  g_free (name);
  label_warn_of_address (self->label, revision->author);
  return GTK_WIDGET (self);
}

GtkWidget *
clause_revision_list_item_new_draft ()
{
  return GTK_WIDGET (clause_revision_list_item_make (NULL, "draft"));
}

ClauseRevision *
clause_revision_list_item_get_revision (ClauseRevisionListItem *self)
{
  return self->revision;
}

// ---- Finding rows ----

GtkListBoxRow *
clause_revision_list_item_find_row (GtkListBox *list_box, ClauseRevision *revision)
{
  GtkListBoxRow *found = NULL;
  GList *rows = gtk_container_get_children (GTK_CONTAINER (list_box));
  for (GList *link = rows; link && !found; link = link->next) {
    GtkWidget *child = gtk_bin_get_child (GTK_BIN (link->data));
    ClauseRevisionListItem *item = NULL;
    if (MORVANE_IS_CLAUSE_REVISION_LIST_ITEM (child)) {
      item = MORVANE_CLAUSE_REVISION_LIST_ITEM (child);
    }
    assert (item);
    if (item && item->revision == revision) {
      found = GTK_LIST_BOX_ROW (link->data);
    }
  }
  g_list_free (rows);
  return found;
}

GtkListBoxRow *
clause_revision_list_item_draft_find_row (GtkListBox *list_box)
{
  return clause_revision_list_item_find_row (list_box, NULL);
}
