// Becomes a program, and keeps what its store was like before every system call with which the
// program writes: all that a kill between two system calls could leave behind.
//
// Started in the program's place, with the program's path in KILL_POINTS_PROGRAM and a directory
// "points" in its working directory. There it keeps
//   control    the record `Control`, which the trial reads and writes while the program runs
//   calls      one line for every call that changes the store, in order:
//              number, number among these, call, file, size, copies in the middle, copies after
//   totals     at the end, how often each system call was seen
//   db-N, journal-N   copies of the store's two files; copy 0 stands for no file
//
// A filter of the kernel stops every thread at each call that is not on the list of those which
// write nothing, so that no call escapes for being unknown here. The watching process is a child,
// and the program keeps the id that this process was started with.

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "buffers.h"

static const char STORE_NAME[] = ".morvane.db";
static const char JOURNAL_NAME[] = ".morvane.db-journal";
static const u32 CALLS_MAX = 1024;  // above every number of a system call

// Shared with the trial, which reads it as numbers of 8 bytes in this order.
struct Control {
  u64 reached;         // writing calls begun so far, in all threads
  u64 store_reached;   // those among them that change the store
  u64 kill_at;         // kill ahead of this writing call; 0 never
  u64 kill_at_store;   // kill ahead of this call that changes the store; 0 never
  u64 kill_in_middle;  // the first write of data from there on, when half of its bytes are written
  u64 middle_killed;   // whether the kill was in the middle of a write
  u64 strange;         // calls on files beside the store that SQLite could read back: none
};

// What is known of one call ahead of it.
struct Call {
  u64 number;           // of the system call
  u64 arguments[6];     // as the kernel has them
  char path[PATH_MAX];  // the file it is about, empty if none
  bool is_journal;
  bool is_data;  // writes bytes into the file
  u64 offset;    // where
  u64 size;      // bytes
};

static Control *control;
static pid_t program;
static FILE *calls;
static char store_path[PATH_MAX];
static u64 db_copy, journal_copy, copies_count;
static u64 counts[CALLS_MAX];

static void
stop (const char *what)
{
  fprintf (stderr, "kill_points: %s: %s\n", what, strerror (errno));
  exit (125);
}

// ---- The filter ----

// What changes nothing outside of the program's memory.
static const u16 SILENT_CALLS[] = {
#ifdef SYS_access
  SYS_access,
  SYS_stat,
  SYS_lstat,
  SYS_poll,
  SYS_select,
  SYS_readlink,
  SYS_getdents,
  SYS_pipe,
  SYS_dup2,
  SYS_epoll_wait,
  SYS_epoll_create,
  SYS_eventfd,
  SYS_inotify_init,
  SYS_fork,
  SYS_vfork,
  SYS_alarm,
  SYS_getpgrp,
  SYS_time,
  SYS_arch_prctl,
#endif
  SYS_read,
  SYS_pread64,
  SYS_readv,
  SYS_preadv,
  SYS_recvfrom,
  SYS_recvmsg,
  SYS_recvmmsg,
  SYS_fstat,
  SYS_newfstatat,
  SYS_statx,
  SYS_statfs,
  SYS_fstatfs,
  SYS_faccessat,
  SYS_faccessat2,
  SYS_readlinkat,
  SYS_getdents64,
  SYS_getcwd,
  SYS_chdir,
  SYS_lseek,
  SYS_close,
  SYS_fcntl,
  SYS_ioctl,
  SYS_flock,
  SYS_dup,
  SYS_dup3,
  SYS_pipe2,
  SYS_fadvise64,
  SYS_getxattr,
  SYS_lgetxattr,
  SYS_fgetxattr,
  SYS_mmap,
  SYS_munmap,
  SYS_mprotect,
  SYS_mremap,
  SYS_madvise,
  SYS_mlock,
  SYS_munlock,
  SYS_brk,
  SYS_mincore,
  SYS_membarrier,
  SYS_memfd_create,
  SYS_futex,
  SYS_ppoll,
  SYS_pselect6,
  SYS_epoll_pwait,
  SYS_epoll_ctl,
  SYS_epoll_create1,
  SYS_eventfd2,
  SYS_inotify_init1,
  SYS_inotify_add_watch,
  SYS_inotify_rm_watch,
  SYS_timerfd_create,
  SYS_timerfd_settime,
  SYS_signalfd4,
  SYS_clone,
  SYS_clone3,
  SYS_execve,
  SYS_exit,
  SYS_exit_group,
  SYS_wait4,
  SYS_waitid,
  SYS_rt_sigaction,
  SYS_rt_sigprocmask,
  SYS_rt_sigreturn,
  SYS_rt_sigtimedwait,
  SYS_sigaltstack,
  SYS_restart_syscall,
  SYS_kill,
  SYS_tkill,
  SYS_tgkill,
  SYS_getpid,
  SYS_gettid,
  SYS_getppid,
  SYS_getpgid,
  SYS_getsid,
  SYS_setsid,
  SYS_getuid,
  SYS_geteuid,
  SYS_getgid,
  SYS_getegid,
  SYS_getresuid,
  SYS_getresgid,
  SYS_getgroups,
  SYS_umask,
  SYS_prctl,
  SYS_set_tid_address,
  SYS_set_robust_list,
  SYS_rseq,
  SYS_prlimit64,
  SYS_getrlimit,
  SYS_getrusage,
  SYS_sysinfo,
  SYS_uname,
  SYS_getrandom,
  SYS_times,
  SYS_clock_gettime,
  SYS_clock_getres,
  SYS_clock_nanosleep,
  SYS_nanosleep,
  SYS_gettimeofday,
  SYS_sched_yield,
  SYS_sched_getaffinity,
  SYS_sched_setaffinity,
  SYS_sched_getparam,
  SYS_sched_getscheduler,
  SYS_sched_setscheduler,
  SYS_sched_getattr,
  SYS_sched_setattr,
  SYS_sched_get_priority_max,
  SYS_sched_get_priority_min,
  SYS_getpriority,
  SYS_setpriority,
  SYS_socket,
  SYS_socketpair,
  SYS_connect,
  SYS_bind,
  SYS_listen,
  SYS_getsockname,
  SYS_getpeername,
  SYS_getsockopt,
  SYS_setsockopt};

static u32 filter_count;
static sock_filter filter[1024];

static void
filter_add (u16 code, u32 value, u8 jump_if, u8 jump_else)
{
  filter[filter_count++] = {code, jump_if, jump_else, value};
}

// Opening a file writes when it makes the file or cuts it.
static void
filter_add_open (u32 call, u32 flags_index)
{
  u32 flags_offset = (u32) offsetof (seccomp_data, args) + 8 * flags_index;
  filter_add (BPF_JMP | BPF_JEQ | BPF_K, call, 0, 4);
  filter_add (BPF_LD | BPF_W | BPF_ABS, flags_offset, 0, 0);
  filter_add (BPF_JMP | BPF_JSET | BPF_K, O_CREAT | O_TRUNC, 0, 1);
  filter_add (BPF_RET | BPF_K, SECCOMP_RET_TRACE, 0, 0);
  filter_add (BPF_RET | BPF_K, SECCOMP_RET_ALLOW, 0, 0);
}

static void
install_filter ()
{
  filter_add (BPF_LD | BPF_W | BPF_ABS, (u32) offsetof (seccomp_data, nr), 0, 0);
  for (u16 call : SILENT_CALLS) {
    filter_add (BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1);
    filter_add (BPF_RET | BPF_K, SECCOMP_RET_ALLOW, 0, 0);
  }
#ifdef SYS_open
  filter_add_open (SYS_open, 1);
#endif
  filter_add_open (SYS_openat, 2);
  filter_add (BPF_RET | BPF_K, SECCOMP_RET_TRACE, 0, 0);

  sock_fprog filter_program = {(unsigned short) filter_count, filter};
  if (prctl (PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) ||
      prctl (PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter_program))
    stop ("no filter");
}

// ---- The program's memory and files ----

static u64
read_memory (pid_t thread, u64 address, void *data, u64 size)
{
  iovec here = {data, size}, there = {(void *) address, size};
  ssize_t count = process_vm_readv (thread, &here, 1, &there, 1, 0);
  return count < 0 ? 0 : (u64) count;
}

static void
read_path (pid_t thread, u64 address, char *path)
{
  // A path may end just ahead of a page that cannot be read.
  for (u64 i = 0; i + 1 < PATH_MAX; ++i) {
    if (!read_memory (thread, address + i, path + i, 1) || !path[i]) {
      path[i] = '\0';
      return;
    }
  }
}

static void
read_descriptor (pid_t thread, u64 descriptor, char *path)
{
  char link[64];
  snprintf (link, sizeof (link), "/proc/%d/fd/%d", thread, (int) descriptor);
  ssize_t size = readlink (link, path, PATH_MAX - 1);
  path[size < 0 ? 0 : size] = '\0';
}

static u64
read_position (pid_t thread, u64 descriptor)
{
  char name[64];
  snprintf (name, sizeof (name), "/proc/%d/fdinfo/%d", thread, (int) descriptor);
  unsigned long position = 0;
  FILE *file = fopen (name, "r");
  if (file) {
    if (fscanf (file, "pos: %lu", &position) != 1)
      position = 0;
    fclose (file);
  }
  return position;
}

static Call
read_call (pid_t thread)
{
  Call call = {};
  __ptrace_syscall_info info = {};
  ptrace (PTRACE_GET_SYSCALL_INFO, thread, sizeof (info), &info);
  call.number = info.seccomp.nr;
  memcpy (call.arguments, info.seccomp.args, sizeof (call.arguments));
  switch (call.number) {
#ifdef SYS_open
  case SYS_open:
  case SYS_unlink:
  case SYS_rename:
  case SYS_truncate:
    read_path (thread, call.arguments[0], call.path);
    break;
#endif
  case SYS_openat:
  case SYS_unlinkat:
  case SYS_renameat:
  case SYS_renameat2:
    read_path (thread, call.arguments[1], call.path);
    break;
  default:
    read_descriptor (thread, call.arguments[0], call.path);
  }
  // The program stays in its working directory.
  if (call.path[0] != '/' && !strncmp (call.path, STORE_NAME, strlen (STORE_NAME)))
    snprintf (call.path, sizeof (call.path), "%s", store_path);
  if (call.number == SYS_write || call.number == SYS_pwrite64) {
    call.is_data = true;
    call.size = call.arguments[2];
    call.offset =
      call.number == SYS_pwrite64 ? call.arguments[3] : read_position (thread, call.arguments[0]);
  }
  return call;
}

// ---- Copies ----

static u64
copy_file (const char *from, const char *kind)
{
  int in = open (from, O_RDONLY | O_CLOEXEC);
  if (in < 0)
    return 0;
  char to[64];
  u64 copy = ++copies_count;
  snprintf (to, sizeof (to), "points/%s-%lu", kind, (unsigned long) copy);
  int out = open (to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  static u8 block[1 << 16];
  ssize_t size;
  while ((size = read (in, block, sizeof (block))) > 0) {
    if (write (out, block, (size_t) size) != size)
      stop (to);
  }
  close (out);
  close (in);
  return copy;
}

// A copy of the file as it is with half of the call's bytes written; 0 when the call has no halves.
static u64
copy_middle (pid_t thread, const Call *call, const char *target)
{
  if (!call->is_data || call->size < 2)
    return 0;
  const char *name = call->is_journal ? JOURNAL_NAME : STORE_NAME;
  const char *kind = call->is_journal ? "journal" : "db";
  u64 half = call->size / 2;
  u8 *bytes = (u8 *) malloc (half);
  half = read_memory (thread, call->arguments[1], bytes, half);
  u64 copy = target ? 1 : copy_file (name, kind);
  char path[64];
  snprintf (path, sizeof (path), "points/%s-%lu", kind, (unsigned long) copy);
  int out = open (target ? target : path, O_WRONLY | O_CLOEXEC);
  if (out < 0 || pwrite (out, bytes, half, (off_t) call->offset) != (ssize_t) half)
    stop (target ? target : path);
  close (out);
  free (bytes);
  return copy;
}

// ---- Calls ----

static const char *
call_name (u64 number)
{
  switch (number) {
  case SYS_write:
    return "write";
  case SYS_pwrite64:
    return "pwrite64";
  case SYS_ftruncate:
    return "ftruncate";
  case SYS_fallocate:
    return "fallocate";
  case SYS_fsync:
    return "fsync";
  case SYS_fdatasync:
    return "fdatasync";
  case SYS_openat:
    return "openat";
#ifdef SYS_open
  case SYS_open:
    return "open";
  case SYS_unlink:
    return "unlink";
#endif
  case SYS_unlinkat:
    return "unlinkat";
  case SYS_writev:
    return "writev";
  case SYS_pwritev:
    return "pwritev";
  case SYS_sendto:
    return "sendto";
  case SYS_sendmsg:
    return "sendmsg";
  case SYS_sendmmsg:
    return "sendmmsg";
  case SYS_shutdown:
    return "shutdown";
  case SYS_fchown:
    return "fchown";
  default:
    return "other";
  }
}

static void
kill_program (bool is_in_middle)
{
  control->middle_killed = is_in_middle;
  kill (program, SIGKILL);
}

// Lets one thread make its call, and returns when it has; false when it will make none any more.
static bool
finish_call (pid_t thread)
{
  int signal_number = 0;
  for (;;) {
    if (ptrace (PTRACE_SYSCALL, thread, 0, signal_number))
      return false;
    int status;
    if (waitpid (thread, &status, __WALL) != thread || WIFEXITED (status) || WIFSIGNALED (status))
      return false;
    if (WSTOPSIG (status) == (SIGTRAP | 0x80)) {
      __ptrace_syscall_info info = {};
      ptrace (PTRACE_GET_SYSCALL_INFO, thread, sizeof (info), &info);
      if (info.op == PTRACE_SYSCALL_INFO_EXIT)
        return true;
      signal_number = 0;
    } else {
      signal_number = status >> 16 ? 0 : WSTOPSIG (status);
    }
  }
}

// The call is finished before any other thread goes on, so that the copies are exact.
static bool
pass_store_call (pid_t thread, Call *call)
{
  const char *suffix = call->path + strlen (store_path);
  call->is_journal = !strncmp (suffix, "-journal", 8);
  if (*suffix && !call->is_journal)
    ++control->strange;
  ++control->store_reached;
  u64 middle = copy_middle (thread, call, NULL);
  bool is_kill = control->kill_at_store && control->store_reached >= control->kill_at_store;
  if (is_kill && (middle || !control->kill_in_middle)) {
    bool is_in_middle = control->kill_in_middle;
    if (is_in_middle)
      copy_middle (thread, call, call->path);
    fprintf (calls, "%lu %lu killed %s %lu %lu %lu %lu %lu\n", (unsigned long) control->reached,
             (unsigned long) control->store_reached, call->is_journal ? "journal" : "db",
             (unsigned long) call->size,
             (unsigned long) (middle && !call->is_journal ? middle : db_copy),
             (unsigned long) (middle && call->is_journal ? middle : journal_copy),
             (unsigned long) db_copy, (unsigned long) journal_copy);
    kill_program (is_in_middle);
    return true;
  }
  u64 middle_db = middle && !call->is_journal ? middle : db_copy;
  u64 middle_journal = middle && call->is_journal ? middle : journal_copy;
  bool is_finished = finish_call (thread);
  if (call->number != SYS_fsync && call->number != SYS_fdatasync) {
    if (call->is_journal)
      journal_copy = copy_file (JOURNAL_NAME, "journal");
    else
      db_copy = copy_file (STORE_NAME, "db");
  }
  fprintf (calls, "%lu %lu %s %s %lu %lu %lu %lu %lu\n", (unsigned long) control->reached,
           (unsigned long) control->store_reached, call_name (call->number),
           call->is_journal ? "journal" : "db", (unsigned long) (middle ? call->size : 0),
           (unsigned long) middle_db, (unsigned long) middle_journal, (unsigned long) db_copy,
           (unsigned long) journal_copy);
  return is_finished;
}

// Returns whether the thread is still to be set going.
static bool
pass_call (pid_t thread)
{
  Call call = read_call (thread);
  ++counts[call.number < CALLS_MAX ? call.number : 0];
  ++control->reached;
  if (control->reached == control->kill_at) {
    kill_program (false);
    return true;
  }
  if (!strncmp (call.path, store_path, strlen (store_path)))
    return pass_store_call (thread, &call);
  return true;
}

// ---- Watching ----

static void
watch ()
{
  int status;
  pid_t thread;
  while ((thread = waitpid (-1, &status, __WALL)) > 0 || errno == EINTR) {
    if (thread < 0 || WIFEXITED (status) || WIFSIGNALED (status))
      continue;
    int event = status >> 16;
    if (event == PTRACE_EVENT_SECCOMP) {
      if (pass_call (thread))
        ptrace (PTRACE_CONT, thread, 0, 0);
    } else if (event == PTRACE_EVENT_STOP && WSTOPSIG (status) != SIGTRAP) {
      ptrace (PTRACE_LISTEN, thread, 0, 0);
    } else if (event || WSTOPSIG (status) == (SIGTRAP | 0x80)) {
      ptrace (PTRACE_CONT, thread, 0, 0);
    } else {
      ptrace (PTRACE_CONT, thread, 0, WSTOPSIG (status));
    }
  }
}

static void
write_totals ()
{
  FILE *file = fopen ("points/totals", "we");
  for (u32 number = 0; file && number < CALLS_MAX; ++number) {
    if (counts[number])
      fprintf (file, "%s %u %lu\n", call_name (number), number, (unsigned long) counts[number]);
  }
  if (file)
    fclose (file);
}

static void
open_points ()
{
  if (!getcwd (store_path, sizeof (store_path) - 16))
    stop ("no working directory");
  snprintf (store_path + strlen (store_path), 16, "/%s", STORE_NAME);
  int file = open ("points/control", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0 || ftruncate (file, sizeof (Control)))
    stop ("points/control");
  control = (Control *) mmap (NULL, sizeof (Control), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  calls = fopen ("points/calls", "we");
  if (control == MAP_FAILED || !calls)
    stop ("points");
  setvbuf (calls, NULL, _IOLBF, 0);
  db_copy = copy_file (STORE_NAME, "db");
  journal_copy = copy_file (JOURNAL_NAME, "journal");
  fprintf (calls, "0 0 start - 0 %lu %lu %lu %lu\n", (unsigned long) db_copy,
           (unsigned long) journal_copy, (unsigned long) db_copy, (unsigned long) journal_copy);
}

// The child: takes hold of its parent, says so, and follows it to its end.
static void
be_watcher (int channel)
{
  program = getppid ();
  char go;
  if (read (channel, &go, 1) != 1)
    exit (125);
  open_points ();
  long options = PTRACE_O_TRACESECCOMP | PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK |
                 PTRACE_O_TRACEVFORK | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL |
                 PTRACE_O_TRACESYSGOOD;
  if (ptrace (PTRACE_SEIZE, program, 0, options))
    stop ("cannot watch");
  if (write (channel, &go, 1) != 1)
    stop ("nobody to watch");
  watch ();
  write_totals ();
  exit (0);
}

int
main (int, char **arguments)
{
  const char *path = getenv ("KILL_POINTS_PROGRAM");
  int channel[2];
  if (!path || socketpair (AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel))
    stop ("no program");
  pid_t watcher = fork ();
  if (watcher == 0) {
    close (channel[0]);
    be_watcher (channel[1]);
  }
  close (channel[1]);
  prctl (PR_SET_PTRACER, watcher, 0, 0, 0);
  char go = 'g';
  if (watcher < 0 || write (channel[0], &go, 1) != 1 || read (channel[0], &go, 1) != 1)
    stop ("no watcher");
  install_filter ();
  execv (path, arguments);
  stop (path);
}
