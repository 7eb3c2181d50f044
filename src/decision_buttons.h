// The two buttons with which the user decides on the revision shown: which of them can be pressed, which
// revision they name, and whether a press was meant for what is shown now.
//
// Ownership: the record is a part of the clause's view; the buttons are borrowed.
//
// Threads: the interface thread only.
#pragma once

#include <gtk/gtk.h>

#include "procedure.h"

struct DecisionButtons {
  GtkButton *agree_button;
  GtkButton *disagree_button;
  s64 arrival_time;         // of the monotonic clock, in microseconds; 0 before the first
  s64 press_time;           // of one of the buttons, likewise; 0 when none is pressed
  bool was_about_to_press;  // a button, when the revision arrived
};

void decision_buttons_init (DecisionButtons *self, GtkButton *agree_button,
                            GtkButton *disagree_button);
void decision_buttons_set_sensitive (DecisionButtons *self, gboolean agree, gboolean disagree);
// Says which revision is decided on, as the text beside the buttons may be a comparison; NULL for none.
void decision_buttons_show_revision (DecisionButtons *self, ClauseRevision *revision);
// Marks the button of a decision that is not sent yet, or none.
void decision_buttons_show_unsent (DecisionButtons *self, bool is_agree_unsent,
                                   bool is_disagree_unsent);

// ---- Haste ----

// A revision is about to arrive, and the decision buttons may move to where `other_buttons` are now.
void decision_buttons_note_arrival (DecisionButtons *self, GtkButton *const other_buttons[2]);
// Whether a press was on its way when a revision arrived below it, which the user has not seen yet.
bool decision_buttons_are_hasty (DecisionButtons *self);
