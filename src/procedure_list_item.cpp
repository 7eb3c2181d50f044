#include "procedure_list_item.h"

#include "shown_text.h"

struct _ProcedureListItem {
  GtkBox parent_instance;
  Procedure *procedure;  // borrowed
  // Template children.
  GtkLabel *title_label;
  GtkLabel *contact_label;
};

G_DEFINE_TYPE (ProcedureListItem, procedure_list_item, GTK_TYPE_BOX)

static void
procedure_list_item_class_init (ProcedureListItemClass *item_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (item_class);
  gtk_widget_class_set_template_from_resource (widget_class,
                                               "/org/halvex/morvane/procedure_list_item.ui");
  gtk_widget_class_bind_template_child (widget_class, ProcedureListItem, title_label);
  gtk_widget_class_bind_template_child (widget_class, ProcedureListItem, contact_label);
}

static void
procedure_list_item_init (ProcedureListItem *self)
{
  gtk_widget_init_template (GTK_WIDGET (self));
}

GtkWidget *
procedure_list_item_new (Procedure *procedure, String contact)
{
  ProcedureListItem *self =
    MORVANE_PROCEDURE_LIST_ITEM (g_object_new (procedure_list_item_get_type (), NULL));
  self->procedure = procedure;
  label_show_text (self->title_label, procedure->title);
  label_show_address (self->contact_label, contact);
  return GTK_WIDGET (self);
}

Procedure *
procedure_list_item_get_procedure (ProcedureListItem *self)
{
  return self->procedure;
}
