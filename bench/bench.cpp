// How the lower modules fare against the platform's own functions, and how their time grows with
// their input. Only ratios of times from one and the same run are printed, so that they can be
// compared between machines. A noisy machine fails nothing: the program always ends with status 0.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "db.h"
#include "diff.h"
#include "morvane.h"
#include "xml.h"
#include "xml_dump.h"
#include "xml_scanner.h"

static const u64 MESSAGE_SIZE = 60000;  // bytes of a long clause text
static const s64 ROUND_NS = 2000000;    // at least so long is each timed round
static const u32 ROUNDS_COUNT = 60;     // of which the fastest counts

// Where the table goes; standard output itself belongs to the console, and that to nobody here.
static FILE *table;

// What a run has computed, so that the compiler cannot leave it out.
static volatile u64 sink;

// ---- Timing ----

// One piece of work on `data`.
typedef void Run (void *data);

// The time that this thread has worked: what others do on the machine does not count.
static s64
get_thread_ns ()
{
  struct timespec now;
  clock_gettime (CLOCK_THREAD_CPUTIME_ID, &now);
  return (s64) now.tv_sec * 1000000000 + now.tv_nsec;
}

static s64
time_runs (Run *run, void *data, u64 count)
{
  s64 start = get_thread_ns ();
  for (u64 index = 0; index < count; ++index)
    run (data);
  s64 elapsed = get_thread_ns () - start;
  // The console has scheduled its texts for an interface that is not there.
  while (g_main_context_iteration (NULL, FALSE))
    continue;
  return elapsed;
}

// Nanoseconds of one run: the fastest of several rounds, each of as many runs as take long enough.
static r64
measure (Run *run, void *data)
{
  u64 count = 1;
  s64 elapsed = time_runs (run, data, count);
  while (elapsed < ROUND_NS) {
    count *= 2;
    elapsed = time_runs (run, data, count);
  }
  s64 fastest = elapsed;
  for (u32 round = 1; round < ROUNDS_COUNT; ++round) {
    elapsed = time_runs (run, data, count);
    fastest = elapsed < fastest ? elapsed : fastest;
  }
  return (r64) fastest / (r64) count;
}

static void
print_heading (const char *heading, const char *ratio, const char *expected)
{
  fprintf (table, "%-62s %8s %10s\n", heading, ratio, expected);
}

static void
print_ratio (const char *name, r64 time, r64 time_base, const char *expected)
{
  fprintf (table, "  %-60s %8.2f %10s\n", name, time / time_base, expected);
  fflush (table);
}

// ---- Texts ----

// A text and a block that every run may write to. Both are owned.
struct TextJob {
  String text;
  Buffer block;
  u64 record_size;  // bytes that the scanner gets at once
};

static TextJob
alloc_text_job (u64 size, u64 block_size)
{
  TextJob job = {};
  job.text = {alloc (size).data, size};
  job.block = alloc (block_size);
  return job;
}

static void
dealloc_text_job (TextJob job)
{
  dealloc_string (job.text);
  dealloc (job.block);
}

// Fills `text` with a sentence again and again, and what is too short for another one with spaces.
static void
fill_text (String text, const char *sentence)
{
  String part = to_string (sentence);
  Buffer buffer = {text.data, text.size};
  while (part.size > 0 && buffer.size >= part.size)
    buffer = buffer_append_string (buffer, part);
  memset (buffer.data, ' ', buffer.size);
}

// A stanza around a text of about `MESSAGE_SIZE` bytes, with room to parse it.
static TextJob
alloc_message_job (const char *sentence)
{
  const char *head = "<message from='anna@alpha.example/morvane' to='ben@beta.example' type='chat'>"
                     "<body><x-revision procedure='anna@alpha.example:1700000000'>";
  const char *tail = "</x-revision></body></message>";
  TextJob job = alloc_text_job (strlen (head) + MESSAGE_SIZE + strlen (tail), 2 << 20);
  Buffer rest = buffer_append_cstr ({job.text.data, job.text.size}, head);
  fill_text ({rest.data, MESSAGE_SIZE}, sentence);
  buffer_append_cstr (buffer_advance (rest, MESSAGE_SIZE), tail);
  return job;
}

// ---- Runs against the platform ----

static const u64 FORMAT_DB_ID = 123456;
static const s64 FORMAT_TIME = 1700000000;
static const char FORMAT_AUTHOR[] = "anna@alpha.example";
static const char FORMAT_TITLE[] = "The tenant leases the flat on the second floor";
#define FORMAT_TEMPLATE "<x-clause id='%lu' author='%.*s' time='%ld'>%s: %d</x-clause>"

static void
run_format (void *data)
{
  TextJob *job = (TextJob *) data;
  String author = {(u8 *) FORMAT_AUTHOR, sizeof (FORMAT_AUTHOR) - 1};
  sink = make_format_string (job->block, FORMAT_TEMPLATE, FORMAT_DB_ID, STRING_ARGS (author),
                             FORMAT_TIME, FORMAT_TITLE, 42)
           .size;
}

static void
run_snprintf (void *data)
{
  TextJob *job = (TextJob *) data;
  int author_size = sizeof (FORMAT_AUTHOR) - 1;
  int size = snprintf ((char *) job->block.data, job->block.size, FORMAT_TEMPLATE, FORMAT_DB_ID,
                       author_size, FORMAT_AUTHOR, FORMAT_TIME, FORMAT_TITLE, 42);
  sink = (u64) size;
}

static void
run_parse (void *data)
{
  TextJob *job = (TextJob *) data;
  sink = (u64) parse_xml_tree (job->block, job->text, NULL, NULL);
}

static void
run_memchr (void *data)
{
  TextJob *job = (TextJob *) data;
  sink = (u64) memchr (job->text.data, '\0', job->text.size);
}

static void
run_escape (void *data)
{
  TextJob *job = (TextJob *) data;
  sink = buffer_append_escaped_xml (job->block, job->text).size;
}

static void
run_unescape (void *data)
{
  TextJob *job = (TextJob *) data;
  String text = alloc_unescape_xml_text (job->text);
  sink = text.size;
  dealloc_string (text);
}

static void
run_memcpy (void *data)
{
  TextJob *job = (TextJob *) data;
  memcpy (job->block.data, job->text.data, job->text.size);
  sink = job->block.data[job->text.size - 1];
}

static void
run_scanner (void *data)
{
  TextJob *job = (TextJob *) data;
  XMLScanner scanner = {};
  for (String rest = job->text; rest.size > 0; rest = string_advance (rest, job->record_size)) {
    u64 size = rest.size < job->record_size ? rest.size : job->record_size;
    xml_scanner_feed (&scanner, {rest.data, size});
  }
  sink = scanner.boundary;
}

static void
compare_format ()
{
  TextJob job = alloc_text_job (0, 4096);
  print_ratio ("make_format_string / snprintf, a stanza of five arguments",
               measure (run_format, &job), measure (run_snprintf, &job), "0.7");
  dealloc_text_job (job);
}

static void
compare_xml ()
{
  const char *plain = "The tenant leases the flat on the second floor. ";
  const char *escaped = "the tenant &amp; &quot;the flat&quot; ";
  TextJob message = alloc_message_job (plain);
  TextJob elements = alloc_message_job ("<item jid='a@b' name='c'/>");
  r64 memchr_time = measure (run_memchr, &message);
  print_ratio ("parse_xml_tree / memchr, a text of 60 KB in one element",
               measure (run_parse, &message), memchr_time, "1.6");
  print_ratio ("parse_xml_tree / memchr, 60 KB of elements", measure (run_parse, &elements),
               memchr_time, "350");

  TextJob text = alloc_text_job (MESSAGE_SIZE, MESSAGE_SIZE * 6 + 1);
  fill_text (text.text, plain);
  r64 memcpy_time = measure (run_memcpy, &text);
  print_ratio ("buffer_append_escaped_xml / memcpy, nothing to escape", measure (run_escape, &text),
               memcpy_time, "160");
  print_ratio ("alloc_unescape_xml_text / memcpy, nothing to undo", measure (run_unescape, &text),
               memcpy_time, "130");
  fill_text (text.text, escaped);
  print_ratio ("alloc_unescape_xml_text / memcpy, many entities", measure (run_unescape, &text),
               memcpy_time, "140");

  message.record_size = 8192;
  r64 whole_time = measure (run_scanner, &message);
  message.record_size = 10;
  print_ratio ("xml_scanner_feed, 60 KB: records of 10 bytes / of 8 KB",
               measure (run_scanner, &message), whole_time, "1.3");
  dealloc_text_job (text);
  dealloc_text_job (elements);
  dealloc_text_job (message);
}

// ---- Runs that grow ----

static void
run_split (void *data)
{
  StringsStack words = alloc_split_string_by_words (((TextJob *) data)->text);
  sink = words.count;
  dealloc_strings_stack (words);
}

struct DiffJob {
  StringsStack first;   // owned
  StringsStack second;  // owned
};

static void
run_diff (void *data)
{
  DiffJob *job = (DiffJob *) data;
  Diff diff = alloc_diff (job->first, job->second);
  sink = diff.cells[(u64) diff.width * diff.height - 1];
  dealloc_diff (diff);
}

static void
run_print (void *data)
{
  print_xml_tree ((XMLElement *) data, 0);
}

static void
run_free_time (void *data)
{
  sink = (u64) clause_get_free_revision_time ((Clause *) data, to_string (FORMAT_AUTHOR), 0);
}

static void
run_load (void *data)
{
  ContactStack contacts;
  ProceduresStack procedures;
  db_load_account ((sqlite3 *) data, 1, &contacts, &procedures);
  dealloc_contact_stack (contacts);
  dealloc_procedure_stack (procedures);
}

// Each of these gives the time for an input of size `n`.

static r64
measure_split (u32 n)
{
  TextJob job = alloc_text_job (n, 1);
  fill_text (job.text, "The tenant leases\nthe flat on the second floor. ");
  r64 result = measure (run_split, &job);
  dealloc_text_job (job);
  return result;
}

static r64
measure_diff (u32 n)
{
  TextJob first = alloc_text_job (n * 6, 1);
  TextJob second = alloc_text_job (n * 6, 1);
  fill_text (first.text, "lease floor rooms ");
  fill_text (second.text, "floor walls lease ");
  DiffJob job = {alloc_split_string_by_words (first.text),
                 alloc_split_string_by_words (second.text)};
  r64 result = measure (run_diff, &job);
  dealloc_strings_stack (job.first);
  dealloc_strings_stack (job.second);
  dealloc_text_job (first);
  dealloc_text_job (second);
  return result;
}

// Prints a tree of `n` elements: siblings, or one inside the other.
static r64
measure_print (u32 n, const char *opening, const char *closing)
{
  u64 opening_size = strlen (opening) * n;
  TextJob job = alloc_text_job (opening_size + strlen (closing) * n, (u64) n * 400);
  fill_text ({job.text.data, opening_size}, opening);
  fill_text ({job.text.data + opening_size, job.text.size - opening_size}, closing);
  XMLElement *tree = parse_xml_tree (job.block, job.text, NULL, NULL);
  r64 result = measure (run_print, tree);
  dealloc_text_job (job);
  return result;
}

static r64
measure_print_siblings (u32 n)
{
  return measure_print (n, "<item jid='a@b' name='c'/>", "");
}

static r64
measure_print_nested (u32 n)
{
  return measure_print (n, "<a>", "</a>");
}

static r64
measure_free_time (u32 n)
{
  String author = to_string (FORMAT_AUTHOR);
  Clause *clause = alloc_clause (1, 1, 0, author, 1);
  for (u32 index = 0; index < n; ++index)
    clause_add_revision (clause,
                         alloc_clause_revision (1, 1, index, author, REVISION_COMMITTED, author));
  r64 result = measure (run_free_time, clause);
  dealloc_clause (clause);
  return result;
}

static void
insert_clause (sqlite3 *db, u64 procedure_db_id, s64 time, String author)
{
  Clause *clause = alloc_clause (0, procedure_db_id, time, author, 1);
  db_insert_clause (db, clause);
  ClauseMessage *message = alloc_clause_message (0, clause->db_id, time, author, author);
  db_insert_clause_message (db, message);
  ClauseRevision *revision =
    alloc_clause_revision (0, clause->db_id, time, author, REVISION_COMMITTED, author);
  db_insert_clause_revision (db, revision);
  ClauseRevisionDecision *decision =
    alloc_clause_revision_decision (0, revision->db_id, time, author, DECISION_AGREE);
  db_insert_clause_revision_decision (db, decision);
  dealloc_clause_revision_decision (decision);
  dealloc_clause_revision (revision);
  dealloc_clause_message (message);
  dealloc_clause (clause);
}

// One procedure of `n` clauses, each with a message, a revision and a decision, in a store that
// lives in memory.
static r64
measure_load (u32 n)
{
  sqlite3 *db = db_connect (":memory:");
  String author = to_string (FORMAT_AUTHOR);
  Procedure *procedure = alloc_procedure (0, 1, 1, to_string (FORMAT_TITLE), author, author);
  db_insert_procedure (db, procedure);
  for (u32 index = 0; index < n; ++index)
    insert_clause (db, procedure->db_id, index, author);
  dealloc_procedure (procedure);
  r64 result = measure (run_load, db);
  db_close (db);
  return result;
}

static void
print_growth (const char *name, r64 (*measure_size) (u32), u32 n, const char *expected)
{
  r64 time = measure_size (n);
  print_ratio (name, measure_size (2 * n), time, expected);
}

// ---- Main ----

int
main ()
{
  table = fdopen (dup (STDOUT_FILENO), "w");
  if (table == NULL || freopen ("/dev/null", "w", stdout) == NULL) {
    perror ("bench");
    return 0;
  }
  print_heading ("time of the first / time of the second", "ratio", "usual");
  compare_format ();
  compare_xml ();
  print_heading ("time for 2 n / time for n", "ratio", "usual");
  print_growth ("alloc_split_string_by_words, 30,000 bytes", measure_split, 30000, "2");
  print_growth ("alloc_diff, 500 words on each side", measure_diff, 500, "4");
  print_growth ("print_xml_tree, 1,000 siblings", measure_print_siblings, 1000, "2");
  print_growth ("print_xml_tree, 500 levels (the indentation grows too)", measure_print_nested, 500,
                "3.5");
  print_growth ("clause_get_free_revision_time, 1,000 revisions", measure_free_time, 1000, "2");
  print_growth ("db_load_account, 100 clauses", measure_load, 100, "2.5");
  fclose (table);
  return 0;
}
