// Linked into the coverage build alone: a failed assertion ends the program without `exit`, so what
// has run until then is written down first. Tests of stops run in forked children; each adds its
// counts to the same files.

extern "C" void __gcov_dump ();
extern "C" void __real___assert_fail (const char *expression, const char *file, unsigned line,
                                      const char *function) __attribute__ ((noreturn));

extern "C" __attribute__ ((noreturn)) void
__wrap___assert_fail (const char *expression, const char *file, unsigned line, const char *function)
{
  __gcov_dump ();
  __real___assert_fail (expression, file, line, function);
}
