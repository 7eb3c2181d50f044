// What the fuzz targets share: the run of one input, designed stops, a heap of their own, and the
// place where records for the interface end.
//
// A target is one program. It defines the three names under "The target", and the engine calls it
// with one input after the other. An assertion that the program is meant to fail at such an input
// ends the run of that input; any other one is a finding, and so is whatever the sanitizers see,
// a failed CHECK and memory that an input leaves allocated.
//
// Ownership: what the program's sources allocate during a run is taken back after a stop.
// Threads: one.
#pragma once

#include "app_window.h"

// ---- The target ----

extern const char *const DESIGNED_STOPS[];  // texts of assertions; ends with NULL
// Runs one input. It lies in a block of exactly its size.
void fuzz_run (String input);
// Called after each input, stopped or not: releases what the target holds outside of the heap.
void fuzz_clean_up ();

// ---- Checks ----

// A broken law is a finding.
#define CHECK(condition)                                                                           \
  do {                                                                                             \
    if (!(condition))                                                                              \
      fuzz_fail (#condition, __FILE__, __LINE__);                                                  \
  } while (0)

[[noreturn]] void fuzz_fail (const char *condition, const char *file, int line);
// Whether the view lies inside of `text`; an empty one counts.
bool is_view_of (String view, String text);
// Whether a designed stop ended `function`; what that had allocated stays so until the input ends.
bool is_stopped (void (*function) (void *data), void *data);

// Takes back all that the input has allocated so far: for a subject that keeps memory by contract.
void fuzz_free_kept ();

// ---- Reading the input ----

// Each takes bytes off the front of the input; 0 and empty when there are none left.
u8 take_byte (String *input);
u16 take_u16 (String *input);
String take_bytes (String *input, u64 size);

// ---- Stanzas ----

// The assertions that a stanza of a peer may fail.
#define STANZA_STOPS                                                                               \
  "procedure_divider.size", "procedure_divider.size != procedure.size",                            \
    "procedure_divider.size != 1", "clause_divider.size", "clause_divider.size != clause.size",    \
    "clause_divider.size != 1", "revision_divider.size", "revision_divider.size != revision.size", \
    "revision_divider.size != 1", "message_divider.size",                                          \
    "message_divider.size != message_attrib.size", "message_divider.size != 1",                    \
    "decision_divider.size", "decision_divider.size != decision.size",                             \
    "decision_divider.size != 1", "string_has_only_digits (procedure_time)",                       \
    "string_has_only_digits (clause_time)", "string_has_only_digits (revision_time)",              \
    "string_has_only_digits (message_time)", "string_has_only_digits (decision_time)",             \
    "string_has_only_digits (id_attrib)", "xml->next == NULL", "name.size", "field_name.size"

// The window of the account that receives, in good order; nothing is sent or counted on it yet.
AppWindow *fuzz_get_window ();
// No reference on the window is lost: nothing that was handed over is left.
void fuzz_check_window_references ();
// Parses and dispatches what was received in one piece.
void run_stanzas (String text);
// The records handed over since the input began.
extern u64 fuzz_records_count;

// What a record for the interface says, with the fields that its kind has.
struct FuzzRecord {
  const char *kind;
  String from;        // the sender's address, as received
  String text;        // a text, a title, a decision or a condition
  String words;       // an error's own words
  String authors[4];  // of the pairs, from the procedure's on
  s64 times[4];
  u64 id;
};

// Called for each record, in front of its end, when the target has set it.
extern void (*fuzz_record_handler) (const FuzzRecord *record);
