// A session's stream: records of any size, cut anywhere, with as many stanzas as will, through the
// session's own receiving, the second try of what gives no tree, and the dispatch. Who spoke, in which
// order and what, stream_judge.h tells.
//
// The first byte chooses the buffer's size, and whether the first record came ahead of the session,
// the second one how long the records are at most; the rest is what comes, in which 0xFE ends a record
// and 0xFF and two more bytes stand for a run of one byte. "00" is the smallest buffer, and records
// that end where they are told to.
#include "fuzz.h"

#include "session_thread.h"
#include "stream_judge.h"

#include <algorithm>

const char *const DESIGNED_STOPS[] = {STANZA_STOPS, NULL};

enum {
  BUFFER_SIZE_MIN = 8192,   // bytes
  RECORD_SIZE_MAX = 1024,   // bytes
  STREAM_SIZE_MAX = 32768,  // bytes
  RUN_UNIT = 32             // bytes that one step of a run stands for
};

// ---- The connection ----

// What the server has yet to send: a record each.
static std::vector<std::string> coming_records;
static size_t next_record;  // of these
static size_t next_byte;    // of that
static std::string sent;    // by the program
static std::vector<std::string> handed_records;
static bool has_stopped;

// All three take the place of the library's. There is no session behind them.
extern "C" ssize_t
gnutls_record_recv (gnutls_session_t, void *data, size_t size)
{
  CHECK (size);
  if (next_record == coming_records.size ())
    return 0;
  const std::string &record = coming_records[next_record];
  size_t count = record.copy ((char *) data, size, next_byte);
  next_byte += count;
  if (next_byte == record.size ()) {
    ++next_record;
    next_byte = 0;
  }
  return (ssize_t) count;
}

extern "C" ssize_t
gnutls_record_send (gnutls_session_t, const void *data, size_t size)
{
  sent.append ((const char *) data, size);
  return (ssize_t) size;
}

extern "C" void *
gnutls_session_get_ptr (gnutls_session_t)
{
  return NULL;
}

static void
note_record (const FuzzRecord *record)
{
  handed_records.push_back (describe_record (record));
}

void
fuzz_clean_up ()
{
  fuzz_record_handler = NULL;
  coming_records.clear ();
  handed_records.clear ();
  sent.clear ();
  next_record = 0;
  next_byte = 0;
}

// ---- One stream ----

static void
add_record (std::string *record)
{
  if (record->size ())
    coming_records.push_back (*record);
  record->clear ();
}

// Returns all that the records hold.
static std::string
read_records (String input, size_t size_max)
{
  std::string stream;
  std::string record;
  while (input.size && stream.size () < STREAM_SIZE_MAX) {
    u8 byte = take_byte (&input);
    size_t count = 1;
    if (byte == 0xFE) {
      add_record (&record);
      continue;
    }
    if (byte == 0xFF) {
      count = (size_t) take_byte (&input) * RUN_UNIT;
      byte = take_byte (&input);
    }
    stream.append (count, (char) byte);
    while (count) {
      size_t part = std::min (count, size_max - record.size ());
      record.append (part, (char) byte);
      count -= part;
      if (record.size () == size_max)
        add_record (&record);
    }
  }
  add_record (&record);
  return stream;
}

struct Session {
  AppWindow *window;
  String kept;
};

static void
run_session (void *data)
{
  Session *session = (Session *) data;
  run_xmpp_session (session->window, session->kept);
}

void
fuzz_run (String input)
{
  u8 choice = (u8) (take_byte (&input) - '0');
  u8 size_max = (u8) (take_byte (&input) - '0');
  size_t buffer_size = (size_t) BUFFER_SIZE_MIN << (choice & 3);
  std::string stream = read_records (input, size_max ? size_max : (u32) RECORD_SIZE_MAX);
  Session session = {fuzz_get_window (), {}};
  if ((choice & 4) && coming_records.size ()) {
    session.kept = {(u8 *) coming_records[0].data (), coming_records[0].size ()};
    next_record = 1;
  }
  session.window->input_stream_buffer = alloc (buffer_size);
  fuzz_record_handler = note_record;
  has_stopped = is_stopped (run_session, &session);
  // A record more than half may be there when a tree is built.
  size_t room_size = buffer_size / 2 - RECORD_SIZE_MAX - alignof (XMLElement);
  JudgedStream judged = judge_stream (stream, buffer_size / 2, room_size);
  CHECK (is_judged_right (judged, handed_records, has_stopped));
  if (has_stopped) {
    fuzz_free_kept ();
  } else {
    CHECK (next_record == coming_records.size ());
    CHECK (sent == "</stream:stream>");
    fuzz_check_window_references ();
    dealloc (session.window->input_stream_buffer);
  }
}
