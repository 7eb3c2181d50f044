// What a clause's view tells in words: in its label what is shown, or for a few seconds why something did
// not happen, and in a note above the text what a revision took the place of.
//
// Ownership: the record is a part of the clause's view; the widgets are borrowed.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

struct ClauseStatus {
  GtkBox *box;  // the clause's view
  GtkLabel *label;
  guint refusal_source;  // ends the showing of a refusal; 0 while none is shown
  char *status_before;   // in whose place a refusal is shown; owned, NULL while none is
  GtkLabel *note_label;  // NULL until there is something to say
};

void clause_status_init (ClauseStatus *self, GtkBox *box, GtkLabel *label);
void clause_status_finalize (ClauseStatus *self);

// Ends a refusal, so that none outlasts what it was said about.
void clause_status_set (ClauseStatus *self, const char *status);
// What is shown, also while a refusal has its place. The record's, until its next change.
const char *clause_status_get (ClauseStatus *self);
// Tells the user for a few seconds, in the place of the status, why nothing happened.
void clause_status_show_refusal (ClauseStatus *self, const char *refusal);

// ---- The note ----

void clause_status_show_note (ClauseStatus *self, const char *text);
void clause_status_hide_note (ClauseStatus *self);
bool clause_status_has_note (ClauseStatus *self);
// What is said, refusal or note, above what is in sight of the page; NULL when there is nothing, or when
// it is in sight. The record's, until its next change.
const char *clause_status_get_unseen (ClauseStatus *self);
