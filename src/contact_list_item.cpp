#include "contact_list_item.h"

#include "morvane.h"
#include "shown_text.h"

struct _ContactListItem {
  GtkBox parent_instance;
  Contact *contact;  // borrowed
  // Template children.
  GtkImage *icon_image;
  GtkLabel *name_label;
  GtkLabel *status_label;
};

G_DEFINE_TYPE (ContactListItem, contact_list_item, GTK_TYPE_BOX)

static void
contact_list_item_class_init (ContactListItemClass *item_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (item_class);
  gtk_widget_class_set_template_from_resource (widget_class,
                                               "/org/halvex/morvane/contact_list_item.ui");
  gtk_widget_class_bind_template_child (widget_class, ContactListItem, icon_image);
  gtk_widget_class_bind_template_child (widget_class, ContactListItem, name_label);
  gtk_widget_class_bind_template_child (widget_class, ContactListItem, status_label);
}

static void
contact_list_item_init (ContactListItem *self)
{
  gtk_widget_init_template (GTK_WIDGET (self));
}

GtkWidget *
contact_list_item_new (Contact *contact)
{
  ContactListItem *self =
    MORVANE_CONTACT_LIST_ITEM (g_object_new (contact_list_item_get_type (), NULL));
  self->contact = contact;
  label_show_address (self->name_label, contact->bare_jid);
  contact_list_item_set_status (self, contact->status);
  return GTK_WIDGET (self);
}

void
contact_list_item_set_status (ContactListItem *self, String status)
{
  label_show_text (self->status_label, status);
  if (status == "unavailable") {
    gtk_image_set_from_icon_name (self->icon_image, "user-offline-symbolic", GTK_ICON_SIZE_BUTTON);
  } else if (status == "available") {
    gtk_image_set_from_icon_name (self->icon_image, "user-available-symbolic",
                                  GTK_ICON_SIZE_BUTTON);
  } else {
    console_log ("Warning: Unsupported contact list item status '%.*s' was set given.\n",
                 STRING_ARGS (status));
  }
}

Contact *
contact_list_item_get_contact (ContactListItem *self)
{
  return self->contact;
}
