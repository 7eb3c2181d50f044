#include "clause_comparison.h"

#include "buffers.h"
#include "diff.h"

// ---- Making ----

void
clause_comparison_init (ClauseComparison *self, GtkTextView *text_view, GtkWidget *tools)
{
  *self = {};
  self->text_view = text_view;
  self->tools = tools;
}

void
clause_comparison_finalize (ClauseComparison *self)
{
  if (self->return_marks)
    g_hash_table_destroy (self->return_marks);
  self->return_marks = NULL;
}

// ---- Showing ----

// The most cells that a comparison may take: a tenth of a second and 100 MB.
static const u64 DIFF_CELLS_MAX = 25000000;

const char *
get_comparison_refusal (ClauseRevision *revision, ClauseRevision *other_revision)
{
  if (!revision || !other_revision || revision == other_revision) {
    return "A revision can't be compared with itself.";
  }
  if (!revision->text.size || !other_revision->text.size) {
    return "An empty text can't be compared.";
  }
  StringsStack words = alloc_split_string_by_words (revision->text);
  StringsStack other_words = alloc_split_string_by_words (other_revision->text);
  u64 cells_count = ((u64) words.count + 1) * ((u64) other_words.count + 1);
  dealloc_strings_stack (words);
  dealloc_strings_stack (other_words);
  return cells_count > DIFF_CELLS_MAX ? "These texts are too long to be compared." : NULL;
}

// What the walk over a comparison appends to.
struct DiffDisplay {
  ClauseComparison *comparison;
  GtkTextBuffer *text_buffer;
  StringsStack older_words;
  StringsStack newer_words;
};

static void
append_diff_word (DiffKind kind, u32 index, void *data)
{
  DiffDisplay *display = (DiffDisplay *) data;
  ClauseComparison *comparison = display->comparison;
  String word =
    kind == DIFF_ADDED ? display->newer_words.strings[index] : display->older_words.strings[index];
  GtkTextIter end;
  gtk_text_buffer_get_end_iter (display->text_buffer, &end);
  if (kind == DIFF_COMMON) {
    gtk_text_buffer_insert (display->text_buffer, &end, (const char *) word.data, (gint) word.size);
    return;
  }
  if (word == "\n") {
    // A line break that came or went would not be seen.
    GtkTextMark *mark = gtk_text_buffer_create_mark (display->text_buffer, NULL, &end, TRUE);
    g_hash_table_add (comparison->return_marks, mark);
    word = to_string ("\u23ce\n");
  }
  GtkTextTag *tag = kind == DIFF_ADDED ? comparison->added_tag : comparison->deleted_tag;
  gtk_text_buffer_insert_with_tags (display->text_buffer, &end, (const char *) word.data,
                                    (gint) word.size, tag, NULL);
}

static void
clause_comparison_fill (ClauseComparison *self, String older, String newer)
{
  DiffDisplay display = {};
  display.comparison = self;
  display.text_buffer = gtk_text_view_get_buffer (self->text_view);
  display.older_words = alloc_split_string_by_words (older);
  display.newer_words = alloc_split_string_by_words (newer);
  Diff diff = alloc_diff (display.older_words, display.newer_words);
  diff_walk (diff, append_diff_word, &display);
  dealloc_diff (diff);
  dealloc_strings_stack (display.older_words);
  dealloc_strings_stack (display.newer_words);
}

void
clause_comparison_show (ClauseComparison *self, String older, String newer)
{
  clause_comparison_end (self);
  self->is_shown = true;
  self->return_marks = g_hash_table_new (NULL, NULL);
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  self->added_tag = gtk_text_buffer_create_tag (text_buffer, NULL, "background", "#085", NULL);
  self->deleted_tag = gtk_text_buffer_create_tag (text_buffer, NULL, "background", "#c55", NULL);
  clause_comparison_fill (self, older, newer);
  // Not behind the last word, where the filling has moved the cursor.
  GtkTextIter start;
  gtk_text_buffer_get_start_iter (text_buffer, &start);
  gtk_text_buffer_place_cursor (text_buffer, &start);
  gtk_text_view_set_editable (self->text_view, !clause_comparison_has_changes (self));
  // Room for the tools below the last line. Hidden, they themselves have no height; all of their
  // buttons have the same.
  GList *buttons = gtk_container_get_children (GTK_CONTAINER (self->tools));
  int tools_height;
  gtk_widget_get_preferred_height (GTK_WIDGET (buttons->data), NULL, &tools_height);
  g_list_free (buttons);
  gtk_text_view_set_bottom_margin (self->text_view, tools_height);
}

void
clause_comparison_end (ClauseComparison *self)
{
  if (!self->is_shown)
    return;
  self->is_shown = false;
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  GtkTextTagTable *tags = gtk_text_buffer_get_tag_table (text_buffer);
  gtk_text_tag_table_remove (tags, self->added_tag);
  gtk_text_tag_table_remove (tags, self->deleted_tag);
  self->added_tag = NULL;
  self->deleted_tag = NULL;
  GHashTableIter iter;
  gpointer mark;
  g_hash_table_iter_init (&iter, self->return_marks);
  while (g_hash_table_iter_next (&iter, &mark, NULL)) {
    gtk_text_buffer_delete_mark (text_buffer, GTK_TEXT_MARK (mark));
  }
  g_hash_table_destroy (self->return_marks);
  self->return_marks = NULL;
  clause_comparison_hide_tools (self);
  gtk_text_view_set_bottom_margin (self->text_view, 0);
  gtk_text_view_set_editable (self->text_view, TRUE);
}

bool
clause_comparison_has_changes (ClauseComparison *self)
{
  GtkTextIter iter;
  gtk_text_buffer_get_start_iter (gtk_text_view_get_buffer (self->text_view), &iter);
  return gtk_text_iter_toggles_tag (&iter, NULL) ||
         gtk_text_iter_forward_to_tag_toggle (&iter, NULL);
}

// ---- Tools ----

void
clause_comparison_show_tools (ClauseComparison *self, GtkTextIter start, GtkTextIter end,
                              GdkRectangle location, int x)
{
  self->run_start = start;
  self->run_end = end;
  self->has_run = true;
  int border_width = (int) gtk_container_get_border_width (GTK_CONTAINER (self->text_view));
  int tools_width = gtk_widget_get_allocated_width (self->tools);
  gtk_widget_set_margin_start (self->tools, MAX (0, x + 2 * border_width - tools_width / 2));
  gtk_widget_set_margin_top (self->tools, location.y + location.height + border_width);
  gtk_widget_show (self->tools);
}

void
clause_comparison_hide_tools (ClauseComparison *self)
{
  self->has_run = false;
  gtk_widget_hide (self->tools);
}

// ---- Deciding ----

// The mark that makes a return symbol of the character at `iter`; NULL when that is text.
static GtkTextMark *
clause_comparison_find_return_mark (ClauseComparison *self, GtkTextIter *iter)
{
  GtkTextMark *found = NULL;
  GSList *marks = gtk_text_iter_get_marks (iter);
  for (GSList *link = marks; link && !found; link = link->next) {
    if (g_hash_table_contains (self->return_marks, link->data))
      found = GTK_TEXT_MARK (link->data);
  }
  g_slist_free (marks);
  return found;
}

// Takes the return symbols of a run out again, so that its line breaks are alone. The iterators stay
// good.
static void
clause_comparison_remove_return_symbols (ClauseComparison *self, GtkTextIter *start,
                                         GtkTextIter *end)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  int start_offset = gtk_text_iter_get_offset (start);
  int end_offset = gtk_text_iter_get_offset (end);
  // From the end on, so that what is still to be seen stays at its place.
  GtkTextIter iter = *end;
  for (int offset = end_offset; offset > start_offset; offset--) {
    gtk_text_iter_backward_char (&iter);
    GtkTextMark *mark = clause_comparison_find_return_mark (self, &iter);
    if (!mark)
      continue;
    GtkTextIter symbol_end = iter;
    gtk_text_iter_forward_char (&symbol_end);
    gtk_text_buffer_delete (text_buffer, &iter, &symbol_end);
    g_hash_table_remove (self->return_marks, mark);
    gtk_text_buffer_delete_mark (text_buffer, mark);
    end_offset--;
  }
  gtk_text_buffer_get_iter_at_offset (text_buffer, start, start_offset);
  gtk_text_buffer_get_iter_at_offset (text_buffer, end, end_offset);
}

// Makes ordinary text of a run, or takes the run out. Either way none of its marks is left, which
// would come to stand at the text behind the run. `start` is where the run was.
static void
clause_comparison_decide_run (ClauseComparison *self, GtkTextIter *start, GtkTextIter *end,
                              bool is_kept)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  clause_comparison_remove_return_symbols (self, start, end);
  if (is_kept)
    gtk_text_buffer_remove_all_tags (text_buffer, start, end);
  else
    gtk_text_buffer_delete (text_buffer, start, end);
}

void
clause_comparison_decide (ClauseComparison *self, bool is_kept)
{
  GtkTextIter start = self->run_start;
  GtkTextIter end = self->run_end;
  clause_comparison_hide_tools (self);
  clause_comparison_decide_run (self, &start, &end, is_kept);
  gtk_text_view_set_editable (self->text_view, !clause_comparison_has_changes (self));
}

void
clause_comparison_keep_all (ClauseComparison *self)
{
  GtkTextBuffer *text_buffer = gtk_text_view_get_buffer (self->text_view);
  clause_comparison_hide_tools (self);
  GtkTextIter start;
  gtk_text_buffer_get_start_iter (text_buffer, &start);
  while (gtk_text_iter_starts_tag (&start, NULL) ||
         gtk_text_iter_forward_to_tag_toggle (&start, NULL)) {
    GtkTextIter end = start;
    if (!gtk_text_iter_forward_to_tag_toggle (&end, NULL))
      break;
    bool is_kept = !gtk_text_iter_has_tag (&start, self->deleted_tag);
    clause_comparison_decide_run (self, &start, &end, is_kept);
  }
  gtk_text_view_set_editable (self->text_view, TRUE);
}
