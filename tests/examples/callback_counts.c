/* SPDX-License-Identifier: Apache-2.0 */
/* Counts what the callback of examples/callback.c allocates, frees, locks, logs and writes, in the library too: the
 * program's functions are found before those of the C library. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

static int counted;

#define COUNTED(result, name, parameters, arguments)     \
  result name parameters {                               \
    static result(*next) parameters;                     \
    ++counted;                                           \
    if (!next) *(void**)&next = dlsym(RTLD_NEXT, #name); \
    return next arguments;                               \
  }
COUNTED(void*, malloc, (size_t bytes), (bytes))
COUNTED(void*, realloc, (void* block, size_t bytes), (block, bytes))
COUNTED(int, posix_memalign, (void** block, size_t alignment, size_t bytes), (block, alignment, bytes))
COUNTED(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
COUNTED(int, pthread_mutex_trylock, (pthread_mutex_t * mutex), (mutex))
COUNTED(int, pthread_rwlock_rdlock, (pthread_rwlock_t * lock), (lock))
COUNTED(int, pthread_rwlock_wrlock, (pthread_rwlock_t * lock), (lock))
COUNTED(char*, getenv, (const char* name), (name)) /* every line of our log asks for it */
COUNTED(ssize_t, write, (int file, const void* data, size_t bytes), (file, data, bytes))

#define main exampleMain
#include "../../examples/callback.c"
#undef main

int main(void) {
  static int16_t surround[1000][6], audio[2048][2];
  for (int i = 0; i < 1000; ++i) surround[i][2] = 5000;
  static Player player;
  counted = 0;
  if (!openPlayer(&player, (const int16_t(*)[6])surround, 1000)) return 1;
  const int opening = counted;
  counted = 0;
  for (int32_t i = 1; i < 1000; ++i) {
    const int32_t frames = i * 7 % 2048 + 1;
    if (onAudio(NULL, &player, audio, frames) != 0) return 1;
    if (i > 20 && audio[frames - 1][0] != 7071) return printf("%d instead of the mix\n", audio[frames - 1][0]);
  }
  const int calling = counted;
  closePlayer(&player);
  printf("%d in the callback\n", calling);
  return opening == 0 || calling != 0; /* opening allocates and logs: the counter counts */
}
