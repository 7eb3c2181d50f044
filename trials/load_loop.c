// Preloaded into the program under load: watches its main loop from inside.
//
// Between two looks of the loop at what has come, no event can be handled. Each such stretch of at
// least a hundredth of a second is written to the file that MORVANE_LOAD_LOG names, as
//
//   stretch END WALL PROCESSOR      the loop's clock at the end, and how long it was: by the clock
//                                   on the wall and in processor time of the thread
//   event TYPE HANDLED LATENCY      a press, a release or a key: when it was handled, and how long
//                                   after the display had it
//
// in microseconds of CLOCK_MONOTONIC, which is the clock of the X server too.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

// What is used of GLib and GTK, whose headers a preloaded library need not have: the first fields
// of their public records.
typedef struct Source Source;
typedef struct {
  int (*prepare) (Source *source, int *timeout);
  int (*check) (Source *source);
  int (*dispatch) (Source *source, void *callback, void *data);
  void (*finalize) (Source *source);
  void *closure_callback;
  void *closure_marshal;
} SourceFuncs;
typedef struct {
  int type;
  void *window;
  signed char send_event;
  unsigned time;  // milliseconds
} Event;
typedef struct {
  size_t type;
  void *data[2];
} Value;

enum {
  BUTTON_PRESS = 4,
  BUTTON_RELEASE = 7,
  KEY_PRESS = 8,
  STRETCH_MIN = 10000,  // microseconds
  SOURCE_SIZE = 96,     // bytes of a GSource
  FIRST = -1000,        // a priority ahead of all others
};

typedef Source *SourceNew (SourceFuncs *funcs, unsigned size);
typedef void SourceSetPriority (Source *source, int priority);
typedef unsigned SourceAttach (Source *source, void *context);
typedef size_t TypeFromName (const char *name);
typedef void *TypeClassPeek (size_t type);
typedef unsigned SignalLookup (const char *name, size_t type);
typedef int EmissionHook (void *hint, unsigned count, const Value *values, void *data);
typedef unsigned long SignalAddEmissionHook (unsigned signal, unsigned detail, EmissionHook *hook,
                                             void *data, void *destroy);
typedef void *ValueGetBoxed (const Value *value);
typedef int ApplicationRun (void *application, int count, char **arguments);

static int log_file = -1;
static long wall_start;
static long processor_start;
static int is_watching_events;
static ValueGetBoxed *value_get_boxed;

static long
read_clock (clockid_t clock)
{
  struct timespec now;
  clock_gettime (clock, &now);
  return now.tv_sec * 1000000L + now.tv_nsec / 1000;
}

static void
write_line (const char *line, int size)
{
  if (write (log_file, line, (size_t) size) != size)
    abort ();
}

// The same event is offered to a widget and then to those around it; it was handled once.
static int
event_hook (void *hint, unsigned count, const Value *values, void *data)
{
  static unsigned last_time;
  static int last_type;
  (void) hint;
  (void) data;
  const Event *event = count > 1 ? value_get_boxed (&values[1]) : NULL;
  if (!event ||
      (event->type != BUTTON_PRESS && event->type != BUTTON_RELEASE && event->type != KEY_PRESS))
    return 1;
  if (!event->time || (event->time == last_time && event->type == last_type))
    return 1;
  last_time = event->time;
  last_type = event->type;
  long now = read_clock (CLOCK_MONOTONIC);
  unsigned latency = (unsigned) (now / 1000) - event->time;
  char line[96];
  int size = snprintf (line, sizeof (line), "event %d %ld %u\n", event->type, now, latency * 1000);
  write_line (line, size);
  return 1;
}

static void
watch_events (void)
{
  TypeFromName *type_from_name = (TypeFromName *) dlsym (RTLD_DEFAULT, "g_type_from_name");
  TypeClassPeek *type_class_peek = (TypeClassPeek *) dlsym (RTLD_DEFAULT, "g_type_class_peek");
  SignalLookup *signal_lookup = (SignalLookup *) dlsym (RTLD_DEFAULT, "g_signal_lookup");
  SignalAddEmissionHook *add_hook =
    (SignalAddEmissionHook *) dlsym (RTLD_DEFAULT, "g_signal_add_emission_hook");
  value_get_boxed = (ValueGetBoxed *) dlsym (RTLD_DEFAULT, "g_value_get_boxed");
  size_t type = type_from_name ("GtkWidget");
  if (!type || !type_class_peek (type))
    return;
  add_hook (signal_lookup ("event", type), 0, event_hook, NULL, NULL);
  is_watching_events = 1;
}

// A stretch begins when the loop has looked at what has come...
static int
check (Source *source)
{
  (void) source;
  wall_start = read_clock (CLOCK_MONOTONIC);
  processor_start = read_clock (CLOCK_THREAD_CPUTIME_ID);
  return 0;
}

// ... and ends when it is about to look again.
static int
prepare (Source *source, int *timeout)
{
  (void) source;
  *timeout = -1;
  if (!is_watching_events)
    watch_events ();
  if (!wall_start)
    return 0;
  long wall_end = read_clock (CLOCK_MONOTONIC);
  long wall = wall_end - wall_start;
  long processor = read_clock (CLOCK_THREAD_CPUTIME_ID) - processor_start;
  wall_start = 0;
  if (wall < STRETCH_MIN)
    return 0;
  char line[96];
  int size = snprintf (line, sizeof (line), "stretch %ld %ld %ld\n", wall_end, wall, processor);
  write_line (line, size);
  return 0;
}

static int
dispatch (Source *source, void *callback, void *data)
{
  (void) source;
  (void) callback;
  (void) data;
  return 1;
}

static SourceFuncs funcs = {prepare, check, dispatch, NULL, NULL, NULL};

// The program calls this once, with GLib ready and before its loop runs.
int
g_application_run (void *application, int count, char **arguments)
{
  ApplicationRun *run = (ApplicationRun *) dlsym (RTLD_NEXT, "g_application_run");
  const char *path = getenv ("MORVANE_LOAD_LOG");
  if (path)
    log_file = open (path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (log_file >= 0) {
    Source *source = ((SourceNew *) dlsym (RTLD_DEFAULT, "g_source_new")) (&funcs, SOURCE_SIZE);
    ((SourceSetPriority *) dlsym (RTLD_DEFAULT, "g_source_set_priority")) (source, FIRST);
    ((SourceAttach *) dlsym (RTLD_DEFAULT, "g_source_attach")) (source, NULL);
  }
  return run (application, count, arguments);
}
