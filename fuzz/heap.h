// Included by the build in front of every source: the heap and the locks of the sources are the
// fuzzers' own.
#pragma once

#include <pthread.h>
#include <stdlib.h>

extern "C" void *fuzz_malloc (size_t size);
extern "C" void *fuzz_calloc (size_t count, size_t size);
extern "C" void *fuzz_realloc (void *block, size_t size);
extern "C" void fuzz_free (void *block);

#define malloc  fuzz_malloc
#define calloc  fuzz_calloc
#define realloc fuzz_realloc
#define free    fuzz_free

extern "C" int fuzz_mutex_lock (pthread_mutex_t *mutex);
extern "C" int fuzz_mutex_unlock (pthread_mutex_t *mutex);

// A designed stop leaves its locks behind as it leaves memory.
#define pthread_mutex_lock   fuzz_mutex_lock
#define pthread_mutex_unlock fuzz_mutex_unlock
