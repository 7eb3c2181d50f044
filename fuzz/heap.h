// Included by the build in front of every source: the heap of the sources is the fuzzers' own.
#pragma once

#include <stdlib.h>

extern "C" void *fuzz_malloc (size_t size);
extern "C" void *fuzz_calloc (size_t count, size_t size);
extern "C" void *fuzz_realloc (void *block, size_t size);
extern "C" void fuzz_free (void *block);

#define malloc  fuzz_malloc
#define calloc  fuzz_calloc
#define realloc fuzz_realloc
#define free    fuzz_free
