// What a session must make of a stream, told by expat, a strict parser, and by this judge's own
// reading of what expat found. Nothing of the program's reader of XML or of its dispatch is used.
//
// The law:
// - The stanzas of a stream are the top-level elements that expat finds, up to the place where it
//   refuses the text, where the stream ends or another begins, or where a processing instruction
//   stands: nothing behind that place is judged, as no server passes that on.
// - Each stanza becomes the records that it asks for, in the order of the stream: its own sender, its
//   own texts. Nothing else becomes one.
// - A text is what expat reads, save that spaces at its front are dropped and that line ends stay as
//   they came. One with a character reference ("&#") is not taken.
// - A stanza is refused whole when it holds a comment or a section of character data, a name with
//   anything but ASCII letters, digits, ":" and "-" (a letter first), or white space other than spaces
//   inside a tag.
// - A stanza may be lost when it is longer than half of the buffer, with the text since the stanza
//   before it; when its tree has no room; and when such a comment or section stands right ahead of it.
// - The program may stop at a stanza that asks for it by what stanzas.cpp lists, and at no other.
//
// Ownership: plain values. Threads: one.
#pragma once

#include <string>
#include <vector>

#include "fuzz.h"

// One text for all that a record says; equal records have equal texts.
std::string describe_record (const FuzzRecord *record);

struct JudgedStanza {
  std::vector<std::string> records;  // that it becomes, up to the stop if there is one
  bool stops;                        // the program stops behind these
  bool is_needed;                    // it may not be lost
};

struct JudgedStream {
  std::vector<JudgedStanza> stanzas;
  bool is_cut;  // something behind the last stanza is not judged
};

// `half_size` and `room_size`: bytes of half the buffer, and of what is left of the other half for the
// trees at the least.
JudgedStream judge_stream (const std::string &text, size_t half_size, size_t room_size);

// Whether these records, and the stop, are what the stream asked for.
bool is_judged_right (const JudgedStream &stream, const std::vector<std::string> &records,
                      bool has_stopped);
