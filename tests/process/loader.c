/* Opens and closes the library a thousand times, with a life of it and a thread of its own in
 * between that goes on after the close. Nobody can wait for the end of such a thread, whose last
 * steps are the library's: it stays in memory, and so does nothing else. */
#include <dirent.h>
#include <dlfcn.h>
#include <psp.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

enum { kRounds = 1000, kSettled = 50, kSlackPages = 64 };

static sem_t at_work, closed, freed;
static psp_sync lock;
static void (*enter)(psp_sync);
static void (*leave)(psp_sync);

static void guest(void *argument) {
  (void)argument;
  enter(lock); /* from now on the end of the thread calls the library */
  leave(lock);
  sem_post(&at_work);
  sem_wait(&closed);
  sem_post(&freed);
}

static void must(int holds, const char *what) {
  if (holds) return;
  fprintf(stderr, "%s: %s\n", what, dlerror());
  exit(1);
}

static int entries(const char *folder) {
  int count = 0;
  DIR *stream = opendir(folder);
  while (stream != NULL && readdir(stream) != NULL) ++count;
  closedir(stream);
  return count;
}

static long resident_pages(void) {
  long size = 0, resident = 0;
  FILE *file = fopen("/proc/self/statm", "r");
  must(file != NULL && fscanf(file, "%ld %ld", &size, &resident) == 2, "statm");
  fclose(file);
  return resident;
}

#define FIND(name) __typeof__(&name) p_##name = (__typeof__(&name))dlsym(library, #name)

static void round_of(const char *path) {
  void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  must(library != NULL, "dlopen");
  FIND(psp_init);
  FIND(psp_term);
  FIND(psp_threadBegin);
  FIND(psp_syncCreate_check);
  FIND(psp_getMem);
  enter = (void (*)(psp_sync))dlsym(library, "psp_syncEnterExcl");
  leave = (void (*)(psp_sync))dlsym(library, "psp_syncExitExcl");
  must(p_psp_init() == PSP_OKAY, "psp_init");
  lock = p_psp_syncCreate_check(PSP_SYNC_EXCL, __FILE__, __LINE__);
  must(p_psp_getMem(10000, NULL, PSP_MEM_ZERO, NULL, __FILE__, __LINE__) != NULL, "psp_getMem");
  must(p_psp_threadBegin(guest, 0, NULL) == PSP_OKAY, "psp_threadBegin");
  sem_wait(&at_work);
  p_psp_term();
  must(dlclose(library) == 0, "dlclose");
  sem_post(&closed);
  sem_wait(&freed);
}

int main(int argc, char **argv) {
  long pages = 0;
  int descriptors = 0;
  if (argc != 2) return 2;
  sem_init(&at_work, 0, 0);
  sem_init(&closed, 0, 0);
  sem_init(&freed, 0, 0);
  for (int round = 0; round < kRounds; ++round) {
    round_of(argv[1]);
    while (entries("/proc/self/task") > 3) usleep(100); /* ".", ".." and this one */
    if (round != kSettled) continue;
    pages = resident_pages();
    descriptors = entries("/proc/self/fd");
  }
  printf("%ld pages became %ld\n", pages, resident_pages());
  must(entries("/proc/self/fd") == descriptors, "descriptors");
  must(resident_pages() <= pages + kSlackPages, "pages");
  return 0;
}
