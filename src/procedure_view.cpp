#include "procedure_view.h"

#include "app_window.h"
#include "clause_chat_page.h"
#include "clause_view.h"
#include "db.h"
#include "morvane.h"

struct _ProcedureView {
  GtkBox parent_instance;
  Procedure *procedure;  // borrowed
  // Template children.
  GtkStack *stack;
  GtkBox *main_box;
  GtkButton *delete_button;
  GtkLabel *title_label;
  GtkBox *clauses_box;
  GtkButton *add_clause_button;
};

G_DEFINE_TYPE (ProcedureView, procedure_view, GTK_TYPE_BOX)

// Nothing is sent: the other party learns of a clause with its first committed revision.
static void
procedure_view_add_clause_button_handle (GtkButton *, ProcedureView *self)
{
  AppWindow *window = MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self)));
  Procedure *procedure = self->procedure;
  String own = window->account.bare_jid;
  s64 time = procedure_get_free_clause_time (procedure, own, get_posix_time ());
  u64 position = (u64) procedure->clauses_count + 1;
  Clause *clause = alloc_clause (0, procedure->db_id, time, own, position);
  db_insert_clause (window->db, clause);
  procedure_add_clause (procedure, clause);
  procedure_view_add_clause (self, clause);
  clause_view_set_draft_mode (clause->view);
}

// The view is gone when the window has removed its procedure.
static void
procedure_view_delete_button_handle (GtkButton *, ProcedureView *self)
{
  app_window_remove_procedure (MORVANE_APP_WINDOW (gtk_widget_get_toplevel (GTK_WIDGET (self))),
                               self->procedure);
}

static void
procedure_view_class_init (ProcedureViewClass *view_class)
{
  GtkWidgetClass *widget_class = GTK_WIDGET_CLASS (view_class);
  gtk_widget_class_set_template_from_resource (widget_class,
                                               "/org/halvex/morvane/procedure_view.ui");
  gtk_widget_class_bind_template_child (widget_class, ProcedureView, stack);
  gtk_widget_class_bind_template_child (widget_class, ProcedureView, main_box);
  gtk_widget_class_bind_template_child (widget_class, ProcedureView, delete_button);
  gtk_widget_class_bind_template_child (widget_class, ProcedureView, title_label);
  gtk_widget_class_bind_template_child (widget_class, ProcedureView, clauses_box);
  gtk_widget_class_bind_template_child (widget_class, ProcedureView, add_clause_button);
}

static void
procedure_view_init (ProcedureView *self)
{
  gtk_widget_init_template (GTK_WIDGET (self));
  g_signal_connect (self->delete_button, "clicked",
                    G_CALLBACK (procedure_view_delete_button_handle), self);
  g_signal_connect (self->add_clause_button, "clicked",
                    G_CALLBACK (procedure_view_add_clause_button_handle), self);
}

GtkWidget *
procedure_view_new (Procedure *procedure, String own)
{
  ProcedureView *self = MORVANE_PROCEDURE_VIEW (g_object_new (procedure_view_get_type (), NULL));
  self->procedure = procedure;
  char *title =
    g_utf8_make_valid ((const char *) procedure->title.data, (gssize) procedure->title.size);
  gtk_label_set_text (self->title_label, title);
  g_free (title);
  for (u32 i = 0; i < procedure->clauses_count; ++i) {
    Clause *clause = procedure->clauses[i];
    procedure_view_add_clause (self, clause);
    if (clause->revisions_count) {
      clause_view_show_revision (clause->view, clause->revisions[clause->revisions_count - 1], own);
    } else {
      clause_view_set_draft_mode (clause->view);
    }
  }
  return GTK_WIDGET (self);
}

// ---- Clauses ----

void
procedure_view_add_clause (ProcedureView *self, Clause *clause)
{
  GtkWidget *view = clause_view_new (self->procedure, clause);
  GtkWidget *chat_page = clause_chat_page_new (self->procedure, clause);
  clause->view = MORVANE_CLAUSE_VIEW (view);
  clause->chat_page = MORVANE_CLAUSE_CHAT_PAGE (chat_page);
  gtk_widget_show (view);
  gtk_widget_show (chat_page);
  gtk_container_add (GTK_CONTAINER (self->clauses_box), view);
  gtk_container_add (GTK_CONTAINER (self->stack), chat_page);
}

// ---- Pages ----

void
procedure_view_show_clause (ProcedureView *self)
{
  gtk_stack_set_visible_child (self->stack, GTK_WIDGET (self->main_box));
}

void
procedure_view_show_clause_chat_page (ProcedureView *self, ClauseChatPage *chat_page)
{
  gtk_stack_set_visible_child (self->stack, GTK_WIDGET (chat_page));
}
