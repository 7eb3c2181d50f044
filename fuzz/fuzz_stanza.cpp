// Received text as it comes, given to the three stanza parsers.
#include "fuzz.h"

const char *const DESIGNED_STOPS[] = {STANZA_STOPS, NULL};

void
fuzz_clean_up ()
{
}

void
fuzz_run (String input)
{
  run_stanzas (input);
}
