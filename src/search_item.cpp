#include "search_item.h"

#include "shown_text.h"

struct _SearchItem {
  GtkBox parent_instance;
  AppWindow *window;  // borrowed
  // Template children.
  GtkButton *add_button;
  GtkButton *del_button;
  GtkLabel *account_label;
  GtkBox *tags_box;
  const char *account;               // borrowed
  char *tags[SEARCH_ITEM_TAGS_MAX];  // borrowed
  u32 tags_count;
};

G_DEFINE_TYPE (SearchItem, search_item, GTK_TYPE_BOX)

static void
search_item_handle_add_button (GtkButton *, SearchItem *self)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->add_button), FALSE);
  gtk_widget_set_sensitive (GTK_WIDGET (self->del_button), TRUE);
}

static void
search_item_handle_del_button (GtkButton *, SearchItem *self)
{
  gtk_widget_set_sensitive (GTK_WIDGET (self->add_button), TRUE);
  gtk_widget_set_sensitive (GTK_WIDGET (self->del_button), FALSE);
}

static void
search_item_class_init (SearchItemClass *item_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (item_class);
  gtk_widget_class_set_template_from_resource (widget_class, "/org/halvex/morvane/search_item.ui");
  gtk_widget_class_bind_template_child (widget_class, SearchItem, add_button);
  gtk_widget_class_bind_template_child (widget_class, SearchItem, del_button);
  gtk_widget_class_bind_template_child (widget_class, SearchItem, account_label);
  gtk_widget_class_bind_template_child (widget_class, SearchItem, tags_box);
}

static void
search_item_init (SearchItem *self)
{
  gtk_widget_init_template (GTK_WIDGET (self));
}

static void
search_item_add_tag (SearchItem *self, char *tag)
{
  GtkWidget *label = gtk_label_new (NULL);
  label_show_text (GTK_LABEL (label), to_string (tag));
  GtkWidget *frame = gtk_frame_new (NULL);
  gtk_widget_set_margin_start (label, 10);
  gtk_widget_set_margin_end (label, 10);
  gtk_container_add (GTK_CONTAINER (frame), label);
  gtk_container_add (GTK_CONTAINER (self->tags_box), frame);
  gtk_widget_show (label);
  gtk_widget_show (frame);
  self->tags[self->tags_count] = tag;
  ++self->tags_count;
}

SearchItem *
search_item_new (const char *account, AppWindow *window, char **tags, unsigned count)
{
  SearchItem *self = MORVANE_SEARCH_ITEM (g_object_new (search_item_get_type (), NULL));
  self->window = window;
  self->account = account;
  label_show_address (self->account_label, to_string (account));
  g_signal_connect (self->add_button, "clicked", G_CALLBACK (search_item_handle_add_button), self);
  g_signal_connect (self->del_button, "clicked", G_CALLBACK (search_item_handle_del_button), self);
  for (u32 i = 0; i < count && i < SEARCH_ITEM_TAGS_MAX; ++i) {
    search_item_add_tag (self, tags[i]);
  }
  return self;
}

u32
search_item_get_tags_count (SearchItem *self)
{
  return self->tags_count;
}

const char *
search_item_get_tag (SearchItem *self, u32 index)
{
  return index < self->tags_count ? self->tags[index] : NULL;
}
