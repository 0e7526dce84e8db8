/* psp: one portable layer over the operating system and the C runtime.
 *
 * This header is the contract of the library. What is not declared here is no interface, and its
 * comments are the authoritative description from which the reference is made.
 *
 * Reading order: status codes and life of the library, then the families in the order of the
 * layers (memory and pools, sync objects, text, random numbers, files by handle and by name, paths,
 * streams, channels and log, typed buffers, INI configuration, threads, message queues, time and
 * process, services, the parser engine).
 *
 * Rules that hold everywhere:
 * - A process calls psp_init before it uses the library and psp_term when it is done. Functions
 *   that work without this say so.
 * - Narrow strings are UTF-8 and end with a zero byte. Wide strings are UTF-16 and end with a zero
 *   unit. Sizes are in bytes unless a comment says "units".
 * - Memory that a function hands out belongs to the caller, who gives it back with psp_freeMem and
 *   the tag that the comment names. A pointer marked "const" in a result stays the library's.
 * - When memory runs out, "Out of memory. Called from FILE:LINE" is logged and the function gives
 *   its failure result. If the tag concerned is armed (psp_createTagEx, psp_resetTag), control
 *   returns to the armed point instead, from the outermost psp_ function, after everything that
 *   this function had taken has been given back. What a function takes of the default tag makes it
 *   jump like any other when somebody has armed that.
 * - After a failed call psp_errno tells the platform's code; cleaning up never changes it.
 *
 * The comment of a function ends with what it asks of its caller. "As psp_NAME" before that means:
 * with the arguments and results of that function.
 * - Owner: who gives back what the function hands out or keeps, and with what.
 * - Threads: "any": it may run at the same time in any number of threads. "one at a time": calls
 *   that name the same object must not overlap.
 * - Start: whether the library must be started, and what happens else. "that of the handle" (or
 *   pool, ...): the call wants the object alive, which it is no longer after the last psp_term.
 * - Memory: the result when memory is short, and what is left behind then. "needs none": the call
 *   obtains none and never jumps; what the platform takes for its own is not the library's. "no
 *   jump": the memory belongs to no tag, so that the call never jumps, and logs no message.
 *
 * Fork: a child may go on using memory, files, streams and log if no other thread of its parent
 * was inside the library or held one of its locks at the moment of the fork. A handle, a stream or
 * a log in a file that both have holds a position for each: what one writes there, the other
 * overwrites.
 */
#ifndef PSP_H
#define PSP_H

#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>
#include <uchar.h>

/* Export, calling and checking attributes. Format functions carry no printf attribute: "l" means
 * 32 bits in their formats on every platform, and a compiler would warn about right calls. */
#if defined(_WIN32)
#if defined(PSP_STATIC)
#define PSP_API
#elif defined(PSP_BUILDING)
#define PSP_API __declspec(dllexport)
#else
#define PSP_API __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define PSP_API __attribute__((visibility("default")))
#else
#define PSP_API
#endif

#if defined(__GNUC__)
#define PSP_MUST_USE __attribute__((warn_unused_result))
#else
#define PSP_MUST_USE
#endif

#if defined(__cplusplus)
extern "C" {
#endif

/* The version of this header; psp_version tells that of the loaded library. The shared library's
 * name (libpsp.so.11) moves with the major number. */
#define PSP_VERSION_MAJOR 11
#define PSP_VERSION_MINOR 0
#define PSP_VERSION_BUILD 586

/* One UTF-16 code unit; PSP_W("text") makes a literal of it. */
#if defined(_WIN32)
typedef wchar_t psp_wchar;
#define PSP_W(text) L##text
#else
typedef char16_t psp_wchar;
#define PSP_W(text) u##text
#endif

/* A pointer-sized word. */
typedef uintptr_t psp_word;

/* ---- Status codes -----------------------------------------------------------------------------
 * The result of most functions. 0 is success. */
typedef int32_t psp_status;

#define PSP_OKAY 0          /* success */
#define PSP_TIMEOUT 1       /* a wait ended by its limit */
#define PSP_FAILED 2        /* general failure */
#define PSP_NOMEMORY 3      /* memory could not be obtained */
#define PSP_EXISTS 6        /* the directory to be created exists */
#define PSP_NOSERVICE 7     /* the service is not installed */
#define PSP_NOACCESS 9      /* no right to manage services */
#define PSP_NOTSUPPORTED 10 /* not available on this platform */
#define PSP_NOTFOUND 100    /* the last component of a path does not exist */

#define PSP_ERR_TRUNCATED (-211)   /* a string did not fit and was cut */
#define PSP_ERR_NOMEMORY (-904)    /* an allocation failed */
#define PSP_ERR_NOFILE (-905)      /* a file could not be opened */
#define PSP_ERR_REPLACEFILE (-919) /* a rewritten INI file could not take its place */
#define PSP_ERR_INVARG (-924)      /* a required pointer was null, or a size out of range */
#define PSP_ERR_BUFFERFULL (-932)  /* an INI result did not fit and was cut */

/* ---- Life of the library ----------------------------------------------------------------------
 * psp_init and psp_term nest: independent users in one process each start and stop the library.
 * The last psp_term closes every output channel, releases every tag with its memory and every sync
 * object; nothing obtained before it may be used after it. The two modes are switched on once and
 * stay on until the process ends.
 *
 * On POSIX the shared library stays in memory once it is loaded: dlclose does not unload it, and a
 * later dlopen finds it as it was left. A client's own library that holds the static one and starts
 * threads with it is to be linked so, too (-Wl,-z,nodelete). */

/** Starts the library, or counts one more start when it is started already.
 *
 *  @return PSP_OKAY; PSP_FAILED when a module could not start.
 *
 *  Threads: any. Start: not needed. Memory: if short, PSP_FAILED, with everything as before. */
PSP_API psp_status psp_init(void) PSP_MUST_USE;

/** Counts one stop; the one that matches the first psp_init stops the library. A call too many does
 *  nothing.
 *
 *  Threads: any, but no other may be inside the library at the last stop. Start: not needed.
 *  Memory: needs none. */
PSP_API void psp_term(void);

/** Switches read-only mode on for the rest of the process: disk files are opened only for reading,
 *  and writes to disk files and to the standard channels write nothing and give 0.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API void psp_rdonly(void);

/** Switches no-disk mode on for the rest of the process: operations on the disk fail as if there
 *  were none. Handles opened before go on working.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API void psp_nodisk(void);

/** Tells the version of the loaded library: 11, 0, 586.
 *
 *  @param major,minor,build  where to store the numbers; each may be null.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API void psp_version(uint16_t *major, uint16_t *minor, uint16_t *build);

/** Tells whether the process runs under a memory-checking tool that the library knows.
 *
 *  @return always 0.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API int32_t psp_isPurifyRunning(void);

/** Tells the platform's last error code of the calling thread.
 *
 *  @return errno on POSIX, GetLastError on Windows.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API uint32_t psp_errno(void);

/** Writes the text and a newline to the C runtime's standard output, past all channels.
 *
 *  @param text  what to write; null writes an empty line.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API void psp_errPrint(const char *text);

/* ---- Tagged memory ----------------------------------------------------------------------------
 * Every block belongs to one tag. A tag knows its blocks: psp_freeTagMemory releases them all at
 * once. psp_createTagEx makes a tag, psp_freeTagMemory with release ends it. A null tag means the
 * default tag, which exists from psp_init to the last psp_term and is thread-safe.
 *
 * A tag with PSP_TAG_THREADSAFE may be used by any thread; one without it by one thread at a time.
 *
 * A tag may be armed with a jump buffer (setjmp). An allocation in it that fails then does not
 * return: after the message, control goes to that setjmp with the value 1. The jump always leaves
 * from the outermost psp_ function of the calling thread, with no lock held and nothing leaked, so
 * the function that called setjmp must not have returned, and the thread must be the same. */

typedef struct psp_tag psp_tag;

#define PSP_TAG_FAILED ((psp_tag *)UINTPTR_MAX) /* psp_createTagEx failed */
#define PSP_TAG_THREADSAFE 0x0001u              /* the tag gets a lock of its own */

#define PSP_MEM_ALLOC 1   /* uninitialised block */
#define PSP_MEM_ZERO 2    /* zero-filled block */
#define PSP_MEM_STRDUP 3  /* copy of the narrow string at source; size is ignored */
#define PSP_MEM_COPY 4    /* copy of size bytes at source */
#define PSP_MEM_WSTRDUP 5 /* copy of the wide string at source; size is ignored */

/** Makes a tag.
 *
 *  @param jump       a filled jump buffer, which is copied, to arm the tag; null leaves it unarmed.
 *  @param flags      PSP_TAG_THREADSAFE or 0; other bits are ignored. A lock that cannot be made is
 *                    left out: that all sync objects exist, or that memory is short, is logged.
 *  @param file,line  the caller's source position; not used at present.
 *  @return the tag; PSP_TAG_FAILED (not null) when the library is not started or memory is short.
 *
 *  Owner: the caller, until psp_freeTagMemory with release. Threads: any. Start: needed, else
 *  PSP_TAG_FAILED. Memory: if short, PSP_TAG_FAILED and nothing stays behind; for the lock alone,
 *  see flags. */
PSP_API psp_tag *psp_createTagEx(jmp_buf *jump, uint32_t flags, const char *file,
                                 uint32_t line) PSP_MUST_USE;

/** Releases all blocks of a tag, and ends the tag if wanted.
 *
 *  @param tag      the tag; null and PSP_TAG_FAILED do nothing, the default tag is the library's.
 *  @param release  0 keeps the empty tag; anything else ends it, and no other thread may use it.
 *
 *  Threads: as the tag. Start: needed, else it does nothing. Memory: needs none. */
PSP_API void psp_freeTagMemory(psp_tag *tag, int16_t release);

/** Arms the tag with a copy of the jump buffer, or disarms it.
 *
 *  @param jump  a filled jump buffer; null disarms.
 *  @param tag   the tag; null is the default tag; PSP_TAG_FAILED does nothing.
 *
 *  Threads: as the tag. Start: needed, else it does nothing. Memory: needs none. */
PSP_API void psp_resetTag(jmp_buf *jump, psp_tag *tag);

/** Obtains a block, aligned for any type.
 *
 *  @param size       bytes; 0 gives null without a message in the modes that use it.
 *  @param tag        the owner; null is the default tag; PSP_TAG_FAILED gives null.
 *  @param mode       PSP_MEM_ALLOC to PSP_MEM_WSTRDUP; any other value gives null without a
 *                    message.
 *  @param source     what to copy in modes 3 to 5, null gives null there; else ignored.
 *  @param file,line  the caller's source position, for the message. The text must outlive the call.
 *  @return the block, or null.
 *
 *  Owner: the caller, until psp_freeMem with the same tag, or with the tag. Threads: as the tag.
 *  Start: needed, else null. Memory: if short, null after the message "Out of memory. Called from
 *  FILE:LINE"; an armed tag jumps instead. */
PSP_API void *psp_getMem(size_t size, psp_tag *tag, uint32_t mode, const void *source,
                         const char *file, uint32_t line) PSP_MUST_USE;

/** Changes the size of a block, moving it if need be.
 *
 *  @param pointer     a block of the tag; null obtains a new one, zero-filled if zero is set; a
 *                     pointer that is no live block gives null.
 *  @param size        the new size in bytes; 0 keeps an empty block, or gives null for no pointer.
 *  @param tag         the block's tag; null is the default tag; PSP_TAG_FAILED gives null.
 *  @param zero        not 0: set the last zero_count bytes of the new size to zero.
 *  @param zero_count  bytes to clear, normally those added; more than size clears size bytes.
 *  @param file,line   as in psp_getMem.
 *  @return the block, perhaps at another address, or null.
 *
 *  Owner: the caller, as of a block of psp_getMem. Threads: as the tag. Start: needed, else null.
 *  Memory: if short, as psp_getMem, with the old block untouched. */
PSP_API void *psp_extendMem(void *pointer, size_t size, psp_tag *tag, int32_t zero,
                            size_t zero_count, const char *file, uint32_t line) PSP_MUST_USE;

/** Releases a block.
 *
 *  @param pointer  the block; null does nothing. A pointer that is no live block (released already,
 *                  or never the library's) is left alone after the message "Attempting to free
 *                  previously freed memory" on the C runtime's standard output.
 *  @param tag      the block's tag; null is the default tag; PSP_TAG_FAILED does nothing.
 *
 *  Threads: as the tag. Start: needed, else it does nothing. Memory: needs none. */
PSP_API void psp_freeMem(void *pointer, psp_tag *tag);

/** Hands a block from one tag to another; its address stays.
 *
 *  @param pointer      the block; null and pointers that are no live block do nothing.
 *  @param destination  the new tag; null is the default tag.
 *  @param source       the block's tag; null is the default tag. Equal arguments do nothing, nor
 *                      does PSP_TAG_FAILED in either.
 *
 *  Threads: as the tags, whose locks are never held together. Start: needed, else it does nothing.
 *  Memory: needs none. */
PSP_API void psp_moveMemTag(void *pointer, psp_tag *destination, psp_tag *source);

/** Compares two byte ranges as unsigned bytes.
 *
 *  @param first,second  the ranges.
 *  @param length        bytes of each; 0 compares equal.
 *  @return -1, 0 or 1 as the first range is smaller, equal or larger.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API int32_t psp_memCmp(const void *first, const void *second, size_t length);

/* Short forms, which name the caller's position. The copies are released like any block. */
#define psp_createTag(flags) psp_createTagEx(NULL, (flags), __FILE__, __LINE__)
#define psp_alloc(size, tag) psp_getMem((size), (tag), PSP_MEM_ALLOC, NULL, __FILE__, __LINE__)
#define psp_allocZero(size, tag) psp_getMem((size), (tag), PSP_MEM_ZERO, NULL, __FILE__, __LINE__)
#define psp_memdup(data, size, tag) \
  psp_getMem((size), (tag), PSP_MEM_COPY, (data), __FILE__, __LINE__)
#define psp_strdup(text, tag) \
  ((char *)psp_getMem(0, (tag), PSP_MEM_STRDUP, (text), __FILE__, __LINE__))
#define psp_wcsdup(text, tag) \
  ((psp_wchar *)psp_getMem(0, (tag), PSP_MEM_WSTRDUP, (text), __FILE__, __LINE__))

/* ---- Memory pools -----------------------------------------------------------------------------
 * A pool recycles memory of one purpose: chunks that are given back wait, up to 1000 of them, and
 * are handed out again, the last one first. The pool and all its chunks are blocks of the pool's
 * tag; releasing the tag releases them too.
 *
 * A thread-safe pool may be used by any thread, if its tag is thread-safe; another pool by one
 * thread at a time. */

typedef struct psp_pool psp_pool;

/** Makes a pool.
 *
 *  @param tag          the owner of the pool and its chunks; null is the default tag.
 *  @param fixed_size   not 0: every request will ask for the same size, and no chunk is checked for
 *                      its size. 0: a waiting chunk that is too small is released and a new one
 *                      obtained.
 *  @param thread_safe  not 0 gives the pool a lock. A lock that cannot be made, which is logged, is
 *                      left out.
 *  @return the pool, or null.
 *
 *  Owner: the caller, until psp_zFreePool, or the tag; then its lock lasts until the last psp_term.
 *  Threads: as the tag. Start: needed, else null. Memory: if short, null and nothing stays behind;
 *  for the lock alone, see thread_safe. */
PSP_API psp_pool *psp_allocPool(psp_tag *tag, uint16_t fixed_size,
                                uint32_t thread_safe) PSP_MUST_USE;

/** Ends a pool with its waiting chunks. Those handed out stay blocks of the tag and must not be
 *  given back any more.
 *
 *  @param pool  the variable that holds the pool; set to null. Null, there or in it, does nothing.
 *
 *  Owner: the library again. Threads: only when nobody else uses the pool, now or
 *  later. Start: needed, else the variable is set and nothing else done. Memory: needs none. */
PSP_API void psp_zFreePool(psp_pool **pool);

/** Obtains a chunk, aligned for any type.
 *
 *  @param size       bytes.
 *  @param pool       the pool; null gives null.
 *  @param mode       PSP_MEM_ZERO clears size bytes; PSP_MEM_COPY copies size bytes from source;
 *                    any other value leaves the content as it is.
 *  @param source     what PSP_MEM_COPY copies; null gives null there.
 *  @param file,line  the caller's source position, as in psp_getMem.
 *  @return the chunk, or null.
 *
 *  Owner: the caller, who gives it back with psp_putInPool, or the tag. Threads: as the pool.
 *  Start: needed, else null. Memory: if short, as psp_getMem with the pool's tag; a waiting chunk
 *  that was too small is released by then. */
PSP_API void *psp_getMemFromPool(size_t size, psp_pool *pool, uint32_t mode, const void *source,
                                 const char *file, uint32_t line) PSP_MUST_USE;

/** Gives a chunk back; it is released when 1000 wait already.
 *
 *  @param pointer  a chunk; null does nothing. "Attempting to put a memory chunk into a pool that
 *                  didn't create it" is logged for anything but a chunk that this pool handed out:
 *                  another pool's chunk becomes one of this pool and its tag, and this pool checks
 *                  sizes from then on; a chunk that waits already is left alone.
 *  @param pool     the pool; null does nothing.
 *
 *  Threads: as the pool. Start: needed, else it does nothing. Memory: needs none. */
PSP_API void psp_putInPool(void *pointer, psp_pool *pool);

/* ---- Sync objects -----------------------------------------------------------------------------
 * A sync object is an exclusive lock or a gate, made by psp_syncCreate_check and ended by
 * psp_syncDelete. A process can have 131,072 of them.
 *
 * An exclusive lock is recursive. When a thread ends while it holds one, the next waiter gets it.
 * Entering and leaving a lock that nobody waits for costs no system call.
 *
 * A gate is made open. While it is closed, waits block; opening it lets every waiter through, even
 * if it is closed again at once. */

typedef struct psp_syncObject *psp_sync;

#define PSP_SYNC_NONE ((psp_sync)UINTPTR_MAX) /* no sync object */
#define PSP_SYNC_EXCL 1                       /* recursive exclusive lock */
#define PSP_SYNC_EVENT 2                      /* gate */
#define PSP_NO_LIMIT UINT32_MAX               /* wait without a time limit */

/** Makes a sync object: a lock that nobody holds, or an open gate.
 *
 *  @param kind       PSP_SYNC_EXCL or PSP_SYNC_EVENT; any other value gives PSP_SYNC_NONE.
 *  @param file,line  the caller's source position, for the message.
 *  @return the object; PSP_SYNC_NONE on failure, also when all 131,072 exist ("Insufficient number
 *          of semaphores, called from FILE:LINE" is logged then).
 *
 *  Owner: the caller, until psp_syncDelete, at the latest the last psp_term. Threads: any. Start:
 *  needed, else PSP_SYNC_NONE. Memory: if short, PSP_SYNC_NONE and nothing stays behind. */
PSP_API psp_sync psp_syncCreate_check(int16_t kind, const char *file, uint32_t line) PSP_MUST_USE;

/** Ends a sync object. Nobody may hold it, wait for it or use it any more. A call is over for this
 *  rule as soon as its effect is seen: a thread that has waited for a gate may end it, though the
 *  psp_syncResume that opened it has not returned yet.
 *
 *  @param object  a live object; PSP_SYNC_NONE and null do nothing.
 *
 *  Threads: only when nobody else uses the object, now or later. Start: that of the
 *  object. Memory: needs none. */
PSP_API void psp_syncDelete(psp_sync object);

/** Enters an exclusive lock, waiting as long as it takes. Each enter wants one exit.
 *
 *  @param object  a lock; a gate, PSP_SYNC_NONE and null do nothing.
 *
 *  Threads: any. Start: that of the object. Memory: needs none. */
PSP_API void psp_syncEnterExcl(psp_sync object);

/** Leaves one level of an exclusive lock.
 *
 *  @param object  a lock; nothing happens if the calling thread does not hold it, nor for a gate,
 *                 PSP_SYNC_NONE and null.
 *
 *  Threads: any. Start: that of the object. Memory: needs none. */
PSP_API void psp_syncExitExcl(psp_sync object);

/** Waits until a gate is open.
 *
 *  @param object        a gate.
 *  @param milliseconds  the longest time to wait; 0 only looks, PSP_NO_LIMIT waits for ever.
 *  @return PSP_OKAY when open (and at once for any object that is no gate); PSP_TIMEOUT when the
 *          limit has passed; PSP_FAILED when the platform cannot wait.
 *
 *  Threads: any. Start: that of the object. Memory: needs none. */
PSP_API psp_status psp_syncWait(psp_sync object, uint32_t milliseconds);

/** Closes a gate: later waits block.
 *
 *  @param object  a gate; anything else does nothing.
 *
 *  Threads: any. Start: that of the object. Memory: needs none. */
PSP_API void psp_syncStart(psp_sync object);

/** Opens a gate and lets every waiter through.
 *
 *  @param object  a gate; anything else does nothing.
 *
 *  Threads: any. Start: that of the object. Memory: needs none. */
PSP_API void psp_syncResume(psp_sync object);

/** Enters the process-wide critical section, a recursive lock that guards one-time set-ups. It is
 *  not given up when its holder's thread ends. Threads: any. Start: not needed. Memory: needs none.
 */
PSP_API void psp_enterCritSec(void);

/** Leaves one level of the process-wide critical section; nothing if the thread is not inside.
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API void psp_exitCritSec(void);

/* The short form, which names the caller's position. */
#define psp_syncCreate(kind) psp_syncCreate_check((kind), __FILE__, __LINE__)

/* ---- Formatted text ---------------------------------------------------------------------------
 * The engine behind every formatted text of the library. It differs from the C runtime's printf:
 *
 *   l          is 32 bits on EVERY platform; ll, I64 and j are 64; z, t and p are the platform's
 *              own size_t, ptrdiff_t and pointer. Cast a long to int64_t and print it with ll.
 *   f F e E g G  cap the precision at 19, round halves away from zero, print "#NAN" and "1.#INF",
 *              and give exponents at least three digits. "a" and "A" print fixed notation. "L"
 *              does not change the argument, which is a double. In fixed notation a magnitude of
 *              2^64 or more fails the call.
 *   '          groups digits by threes with the locale's separator: nothing where that is empty,
 *              as in the "C" locale, and "," where the locale does not know one at all.
 *   p          prints as %X with at least 8 digits.
 *   c          ignores width; s takes (null) for a null pointer and pads with blanks only.
 *   n          counts what the text so far needs, even where the buffer has no room for it.
 *   I64, I32   are size prefixes like ll and none.
 *
 * An unknown conversion puts out nothing and takes no argument; a format that ends inside a
 * directive ends before it.
 *
 * The decimal point is the C runtime's locale's. */

/** Formats into a buffer.
 *
 *  @param buffer     where to store; null only measures.
 *  @param size       bytes of the buffer, the terminator included; at most size - 1 characters are
 *                    stored, and a size of 1 or more always gets a terminator.
 *  @param format     the format.
 *  @param arguments  the values that the format names.
 *  @return the characters that the whole text needs, without the terminator; -1 for a null format,
 *          a width or precision above 2^31 - 1, a floating value out of its notation's range (the
 *          text ends before the directive then), or a text of 2^31 - 1 characters or more.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API int32_t psp_vsnprintf(char *buffer, size_t size, const char *format, va_list arguments);

/** Formats the values behind the format into a buffer. As psp_vsnprintf. Threads: any. Start: not
 *  needed. Memory: needs none. */
PSP_API int32_t psp_snprintf(char *buffer, size_t size, const char *format, ...);

/** Formats into a new string of the tag.
 *
 *  @param tag     the owner; null is the default tag.
 *  @param format  as in psp_vsnprintf, with its values behind it.
 *  @return the string; null when formatting fails, too.
 *
 *  Owner: the caller, who releases it with psp_freeMem(string, tag). Threads: as the tag. Start:
 *  needed, else null. Memory: if short, null; an armed tag jumps. */
PSP_API char *psp_makeStr(psp_tag *tag, const char *format, ...) PSP_MUST_USE;

/** Formats into a new string of the default tag. As psp_makeStr.
 *
 *  Owner: the caller, who releases it with psp_freeMem(string, NULL). Threads: any. Start: needed,
 *  else null. Memory: if short, null. */
PSP_API char *psp_makeString(const char *format, ...) PSP_MUST_USE;

/** Formats into a new string, with the source position that an out-of-memory message names.
 *
 *  @param file,line  the position, as in psp_getMem.
 *  @param tag        the owner; null is the default tag.
 *  @param format     as in psp_vsnprintf, with its values behind it.
 *  @return the string; null when formatting fails, too.
 *
 *  Owner: the caller, who releases it with psp_freeMem(string, tag). Threads: as the tag. Start:
 *  needed, else null. Memory: if short, null; an armed tag jumps. */
PSP_API char *psp_makeStrVA(const char *file, uint32_t line, psp_tag *tag, const char *format,
                            ...) PSP_MUST_USE;

/* ---- Random numbers ---------------------------------------------------------------------------
 * Independent pseudo-random generators (MT19937). A seed gives the published sequence of that
 * generator on every platform. They are for tests and simulations, not for secrets. */

typedef struct psp_rand psp_rand;

/** Makes a generator.
 *
 *  @param seed  its seed; 0 stands for 2381394812.
 *  @return the generator, or null.
 *
 *  Owner: the caller, until psp_randDestroy. Threads: any. Start: needed, else null. Memory: if
 *  short, null. */
PSP_API psp_rand *psp_randCreate(uint32_t seed) PSP_MUST_USE;

/** Ends a generator.
 *
 *  @param generator  the generator; null does nothing.
 *
 *  Threads: one at a time. Start: that of the generator. Memory: needs none. */
PSP_API void psp_randDestroy(psp_rand *generator);

/** Starts the generator's sequence anew.
 *
 *  @param generator  the generator; null does nothing.
 *  @param seed       its seed; 0 stands for itself.
 *
 *  Threads: one at a time. Start: that of the generator. Memory: needs none. */
PSP_API void psp_randResetSeed(psp_rand *generator, uint32_t seed);

/** Draws the low 15 bits of the next number.
 *
 *  @param generator  the generator; not null.
 *  @return 0 to 32767.
 *
 *  Threads: one at a time. Start: that of the generator. Memory: needs none. */
PSP_API int32_t psp_randGet(psp_rand *generator);
/** Draws the next number.
 *
 *  @param generator  the generator; not null.
 *  @return 0 to 2^32 - 1.
 *
 *  Threads: one at a time. Start: that of the generator. Memory: needs none. */
PSP_API uint32_t psp_randGetUInt32(psp_rand *generator);
/** Draws the next two numbers.
 *
 *  @param generator  the generator; not null.
 *  @return the first in the high 32 bits, the second in the low ones.
 *
 *  Threads: one at a time. Start: that of the generator. Memory: needs none. */
PSP_API uint64_t psp_randGetUInt64(psp_rand *generator);
/** Draws the next number and divides it by 2^32 - 1.
 *
 *  @param generator  the generator; not null.
 *  @return 0 to 1, both included.
 *
 *  Threads: one at a time. Start: that of the generator. Memory: needs none. */
PSP_API double psp_randGetDouble(psp_rand *generator);

/* ---- UTF-8 and UTF-16 -------------------------------------------------------------------------
 * The buffer functions store into a destination, or only measure when it is null. Their result
 * counts the terminator, which is always stored. A destination that is too small is no failure:
 * what does not fit is dropped, never split, and the result tells what was stored. The size of a
 * destination must be at least 1. What lies behind the result, or behind the place of a failure,
 * keeps what it held.
 *
 * PSP_UTF8_STRICT fails at the first invalid byte or unit; PSP_UTF8_REPLACE puts a question mark in
 * its place. Any other mode acts as strict. U+FFFE, U+FFFF, encoded surrogates and overlong forms
 * are invalid in UTF-8. Note that the plain and the counted forms order their arguments
 * differently. */

#define PSP_UTF8_STRICT 0u
#define PSP_UTF8_REPLACE 1u

/** Converts a zero-terminated wide string to UTF-8.
 *
 *  @param destination  bytes, or null to measure.
 *  @param source       the wide string, not null.
 *  @param size         bytes of the destination, the terminator included; at least 1.
 *  @param mode         PSP_UTF8_STRICT or PSP_UTF8_REPLACE.
 *  @return bytes stored or needed, the terminator included; -1 when the source is invalid, or a
 *          replacement for a held high surrogate finds no room, or the result would pass 2^31 - 1.
 *          After -1 the destination holds what came before, without a terminator.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API int32_t psp_wchar_to_utf8(char *destination, const psp_wchar *source, uint32_t size,
                                  uint32_t mode);

/** Converts so many units to UTF-8, zero units included.
 *
 *  @param destination  bytes, or null to measure.
 *  @param size         bytes of the destination, the terminator included; at least 1.
 *  @param source       the units.
 *  @param count        how many.
 *  @param mode         PSP_UTF8_STRICT or PSP_UTF8_REPLACE.
 *  @return as psp_wchar_to_utf8.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API int32_t psp_wchar_to_utf8_len(char *destination, uint32_t size, const psp_wchar *source,
                                      uint32_t count, uint32_t mode);

/** Converts a zero-terminated UTF-8 string to UTF-16.
 *
 *  @param destination  units, or null to measure.
 *  @param source       the UTF-8 string, not null.
 *  @param size         units of the destination, the terminator included; at least 1.
 *  @param mode         PSP_UTF8_STRICT or PSP_UTF8_REPLACE.
 *  @return units stored or needed, the terminator included; -1 when the source is invalid, or a
 *          replacement for a sequence cut short by the end finds no room, or the result would pass
 *          2^31 - 1. A character that does not fit is dropped, and a later shorter one may still
 *          take the remaining place.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API int32_t psp_utf8_to_wchar(psp_wchar *destination, const char *source, uint32_t size,
                                  uint32_t mode);

/** Converts so many bytes to UTF-16, zero bytes included.
 *
 *  @param destination  units, or null to measure.
 *  @param size         units of the destination, the terminator included; at least 1.
 *  @param source       the bytes.
 *  @param count        how many.
 *  @param mode         PSP_UTF8_STRICT or PSP_UTF8_REPLACE.
 *  @return as psp_utf8_to_wchar.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API int32_t psp_utf8_to_wchar_len(psp_wchar *destination, uint32_t size, const char *source,
                                      uint32_t count, uint32_t mode);

/** Converts a wide string to a new UTF-8 string of the default tag.
 *
 *  @param source  the wide string, not null.
 *  @param mode    PSP_UTF8_STRICT or PSP_UTF8_REPLACE.
 *  @return the string; null when the source is invalid, too.
 *
 *  Owner: the caller, who releases it with psp_freeMem(string, NULL). Threads: any. Start: needed,
 *  else null. Memory: if short, null. */
PSP_API char *psp_convertToUTF8(const psp_wchar *source, uint32_t mode) PSP_MUST_USE;

/** Converts a UTF-8 string, not null, to a new wide string of the default tag. As
 *  psp_convertToUTF8.
 *
 *  Owner: the caller, who releases it with psp_freeMem(string, NULL). Threads: any. Start: needed,
 *  else null. Memory: if short, null. */
PSP_API psp_wchar *psp_convertToWchar(const char *source, uint32_t mode) PSP_MUST_USE;

/** Converts an argument vector to UTF-8, strictly.
 *
 *  @param count      entries; 0 gives an empty array, a negative number PSP_FAILED.
 *  @param arguments  wide strings; a null entry gives a null entry.
 *  @param result     receives the array of count strings, without a null at the end; null when an
 *                    entry cannot be converted, untouched when the array itself cannot be made.
 *  @return PSP_OKAY; PSP_FAILED when an entry is invalid, too.
 *
 *  Owner: the caller, who releases each string and then the array with psp_freeMem(..., NULL).
 *  Threads: any. Start: needed, else PSP_FAILED. Memory: if short, PSP_FAILED and nothing stays
 *  behind. */
PSP_API psp_status psp_convertArgvToUTF8(int32_t count, psp_wchar *const *arguments,
                                         char ***result) PSP_MUST_USE;

/* ---- Small utilities --------------------------------------------------------------------------
 * Pure functions. */

/** Finds a pattern in a text without regard to the case of the letters A to Z.
 *
 *  @param text     the text; null counts as empty.
 *  @param pattern  the pattern; null counts as empty.
 *  @return the first place where it occurs; null when it does not, and for an empty text. An empty
 *          pattern occurs at the start of any other text.
 *
 *  Owner: that of the text. Threads: any. Start: not needed. Memory: needs none. */
PSP_API const char *psp_strcasestr(const char *text, const char *pattern);

/** Copies at most size - 1 characters, fills the rest of the buffer with zeros and terminates it.
 *
 *  @param destination  the buffer.
 *  @param source       the string; null counts as empty.
 *  @param size         bytes of the buffer; 0 touches nothing.
 *  @return the destination.
 *
 *  Owner: that of the destination. Threads: any. Start: not needed. Memory: needs none. */
PSP_API char *psp_strncpyZ(char *destination, const char *source, uint32_t size);

/** Copies a wide string; the size is in units. As psp_strncpyZ.
 *
 *  Owner: that of the destination. Threads: any. Start: not needed. Memory: needs none. */
PSP_API psp_wchar *psp_wcsncpyZ(psp_wchar *destination, const psp_wchar *source, uint32_t size);

/** Rounds to the nearest whole number, halves away from zero.
 *
 *  @param value  the number.
 *  @return the whole number, with the sign of the value also at zero. Infinity and NaN stay what
 *          they are.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API double psp_round(double value);

/** Tells the alignment class of a field type.
 *
 *  @param code  the type's code, such as 'i' or 'F'.
 *  @return 0 to 6; 0 for unknown codes.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API int32_t psp_alignType(char code);

/** Finds the smallest offset not below the given one that is a multiple of the class's alignment.
 *
 *  @param offset           bytes; near 65,535 the result wraps.
 *  @param alignment_class  0 to 6: 1, 2, 2, 4, 4, 8, 8 bytes; any other value aligns to 1.
 *  @return the offset in bytes.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API uint16_t psp_align(uint16_t offset, int32_t alignment_class);

/** Reverses the bytes of a value.
 *
 *  @param value  any value.
 *  @return the value with its bytes in reverse order.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API uint16_t psp_swaporder16(uint16_t value);
/** Reverses the bytes of a value. As psp_swaporder16. Threads: any. Start: not needed. Memory:
 *  needs none. */
PSP_API uint32_t psp_swaporder32(uint32_t value);
/** Reverses the bytes of a value. As psp_swaporder16. Threads: any. Start: not needed. Memory:
 *  needs none. */
PSP_API uint64_t psp_swaporder64(uint64_t value);
/** Gives the float whose bytes are those of a pattern in reverse order.
 *
 *  @param pattern  any bits.
 *  @return the float.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API float psp_swaporderf32(uint32_t pattern);
/** Gives the double whose bytes are those of a pattern in reverse order.
 *
 *  @param pattern  any bits.
 *  @return the double.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API double psp_swaporderf64(uint64_t pattern);

/* ---- Files ------------------------------------------------------------------------------------
 * psp_fileOpen makes a handle, psp_fileClose ends it; every handle is to be closed before the last
 * psp_term. A handle is never inherited by a child process that runs another program.
 *
 * Names are UTF-8. Both separators, slash and backslash, are accepted. The names "stdin", "stdout"
 * and "stderr" designate the process's standard channels, in every mode; closing such a handle
 * leaves the channel open.
 *
 * PSP_FILE_DENY_READ and PSP_FILE_DENY_WRITE keep other handles of this process and of other
 * processes that use the library from opening the file so. The denial ends with the handle, or with
 * the process. On POSIX it holds for regular files on file systems with open-file-description
 * locks; programs that do not use the library are not stopped; it wants the right to read and to
 * write the file (only to read it, where the handle only reads and denies only writing); and a
 * forked child shares the denials and the first-byte lock of its parent's handles, until both have
 * closed them.
 *
 * psp_fileLock takes the first byte of the file for one handle; meanwhile reads and writes of that
 * byte through other handles fail with a lock violation. A positional read repeats itself for as
 * long as that lasts.
 *
 * Read-only mode: opening for writing or creation fails, writes write nothing and give 0, setting
 * the size fails, sync does nothing. No-disk mode: every open but that of the standard channels
 * fails.
 *
 * The in-memory store. A mode word with PSP_FILE_MEMORY, wherever this header takes one, means a
 * file or directory of a tree that the process keeps in memory from the first psp_init to the last
 * psp_term. The two modes above leave it alone, and a call that they make fail on the disk does not
 * turn to the store by itself.
 *   Names: a file's path needs a separator ("\settings.ini"); one that does not begin with it is
 * taken from psp_currdir, which is "\" in no-disk mode. A directory's path begins at the root in
 * any case. A drive is ignored; "." and ".." mean what they mean elsewhere. ASCII letters count
 * without regard to case, and a name keeps the case in which it was created. A component has at
 * most 65,535 bytes. Directories come into being with a name in them, even one that was only looked
 * for: each one above the last component of a path is made. None is ever removed. Files come with
 * PSP_OPEN_CREATE or _TRUNCATE, and go with psp_fileRemoveEx: the name at once, the contents with
 * the last handle. Two handles of one file see each other's bytes at once. Every single transfer is
 * whole: another thread sees all of it or nothing. Neither denials of sharing nor PSP_OPEN_READ and
 * _WRITE apply: every handle may read and write. psp_fileLock waits for another thread's lock of
 * the file. While a thread holds it, other threads' reads, writes and closes of that file wait; the
 * holder may take it again. It goes with psp_fileUnlock or psp_fileClose of the handle through
 * which it was taken, by the same thread, or with the thread. psp_fileSetSize and an open that
 * truncates take no lock: whoever sets the size of a file that others use at the same time holds
 * its lock. A locked INI file holds up every psp_ini call that wants it, and with that call all
 * others: the holder calls none of them. When memory is short, an open gives null and leaves no new
 * file, a transfer moves fewer bytes than asked, and everything else fails with the store as it
 * was; what psp_fileSetSize has obtained by then stays with the file until it is cut. */

typedef struct psp_file *PSP_FH;

#define PSP_OPEN_READ 0x0000u      /* read only */
#define PSP_OPEN_WRITE 0x0001u     /* write only */
#define PSP_OPEN_READWRITE 0x0002u /* read and write; wins over PSP_OPEN_WRITE */
#define PSP_OPEN_APPEND 0x0008u    /* kept with the handle; writes still go to the position */
#define PSP_OPEN_CREATE 0x0100u    /* create the file if it is missing */
#define PSP_OPEN_TRUNCATE 0x0200u  /* create the file, or empty it if it exists */

#define PSP_FILE_DENY_READ 0x0001u  /* others may not read while the handle is open */
#define PSP_FILE_DENY_WRITE 0x0002u /* others may not write while the handle is open */
#define PSP_FILE_MEMORY 0x0040u     /* the file lives in the in-memory file store */
#define PSP_FILE_NOSYNC 0x0200u     /* psp_fileSync does nothing for the handle */

#define PSP_SEEK_START 0
#define PSP_SEEK_CURRENT 1
#define PSP_SEEK_END 2

/** Opens a file.
 *
 *  @param name   the path.
 *  @param flags  PSP_OPEN_ bits.
 *  @param mode   PSP_FILE_ bits.
 *  @return the handle; null when the name is null, a directory or refused by the platform, another
 *          handle's mode forbids it, a process-wide mode forbids it, or the mode asks for the
 *          in-memory store and it has no such file.
 *
 *  Owner: the caller, until psp_fileClose. Threads: any. Start: needed, else null. Memory: if
 *  short, null; no file has been created or changed. */
PSP_API PSP_FH psp_fileOpen(const char *name, uint32_t flags, uint16_t mode) PSP_MUST_USE;

/** Opens a file with a wide name; one that is not valid UTF-16 fails. As psp_fileOpen.
 *
 *  Owner: the caller, until psp_fileClose. Threads: any. Start: needed, else null. Memory: if
 *  short, null; no file has been created or changed. */
PSP_API PSP_FH psp_fileOpenW(const psp_wchar *name, uint32_t flags, uint16_t mode) PSP_MUST_USE;

/** Closes a file and ends its handle.
 *
 *  @param file  the handle; null does nothing.
 *
 *  Threads: one at a time. Start: that of the handle. Memory: needs none. */
PSP_API void psp_fileClose(PSP_FH file);

/** Moves the sequential position.
 *
 *  @param file    the handle.
 *  @param offset  bytes, from whence.
 *  @param whence  PSP_SEEK_START, _CURRENT or _END; another value is reported and taken as start.
 *  @return PSP_OKAY; PSP_FAILED when the handle is null, the file cannot be positioned or the place
 *          is negative, and in the store for a place behind the end or another whence.
 *
 *  Threads: one at a time. Start: that of the handle. Memory: needs none. */
PSP_API psp_status psp_fileSeek(PSP_FH file, int64_t offset, int32_t whence);

/** Reads bytes at the sequential position and moves it.
 *
 *  @param file    the handle.
 *  @param buffer  where to store them.
 *  @param count   the most to read; above 2^31 - 1 that much; 0 does nothing.
 *  @return bytes read, 0 at the end; -1 for a null handle or buffer, and after a failure, which is
 *          logged.
 *
 *  Threads: one at a time. Start: that of the handle. Memory: needs none on the disk; if short in
 *  the store, fewer bytes are read. */
PSP_API int32_t psp_fileRead(PSP_FH file, void *buffer, uint32_t count);

/** Writes bytes at the sequential position and moves it.
 *
 *  @param file    the handle.
 *  @param buffer  the bytes.
 *  @param count   how many; 0 does nothing.
 *  @return bytes written, fewer only if the platform stopped half-way (a full disk); 0 in read-only
 *          mode; -1 for a null handle or buffer, and after a failure or for a count above 2^31 - 1,
 *          told on the C runtime's standard error. In the store, of a count above 2^31 - 1 that
 *          much.
 *
 *  Threads: one at a time. Start: that of the handle. Memory: needs none on the disk; if short in
 *  the store, fewer bytes are written. */
PSP_API int32_t psp_fileWrite(PSP_FH file, const void *buffer, uint32_t count);

/** Reads bytes at an offset. Where the sequential position is afterwards is open.
 *
 *  @param file    the handle.
 *  @param offset  the place, in bytes from the start.
 *  @param buffer  where to store them.
 *  @param count   the most to read; above 2^31 - 1 that much; 0 does nothing.
 *  @return bytes read, 0 at or past the end; -1 for a null handle or buffer, and after a failure,
 *          which is logged. While another handle holds the first byte, a read of it repeats itself
 *          without end.
 *
 *  Threads: one at a time. Start: that of the handle. Memory: needs none on the disk; if short in
 *  the store, fewer bytes are read. */
PSP_API int32_t psp_fileSeekRead(PSP_FH file, int64_t offset, void *buffer, uint32_t count);

/** Writes bytes at an offset. Where the sequential position is afterwards is open.
 *
 *  @param file    the handle.
 *  @param offset  the place, in bytes from the start.
 *  @param buffer  the bytes.
 *  @param count   how many; 0 does nothing.
 *  @return bytes written, fewer only if the platform stopped half-way; 0 in read-only mode; -1 for
 *          a null handle or buffer, and after a failure or for a count above 2^31 - 1, which is
 *          logged. In the store, of a count above 2^31 - 1 that much.
 *
 *  Threads: one at a time. Start: that of the handle. Memory: needs none on the disk; if short in
 *  the store, fewer bytes are written. */
PSP_API int32_t psp_fileSeekWrite(PSP_FH file, int64_t offset, const void *buffer, uint32_t count);

/** Tells the length of an open file.
 *
 *  @param file  the handle.
 *  @return bytes; 0 when it cannot be told and for a null handle.
 *
 *  Threads: one at a time. Start: that of the handle. Memory: needs none. */
PSP_API int64_t psp_fileLength(PSP_FH file);

/** Tells the length of a file by name. No-disk mode does not matter.
 *
 *  @param name  the path.
 *  @param mode  PSP_FILE_ bits.
 *  @return bytes; -1 when it cannot be queried. In the store 0 for what is no file, -1 only for a
 *          null name.
 *
 *  Threads: any. Start: not needed on the disk; the store's answer is 0 without it. Memory: needs
 *  none on the disk; if short in the store, 0. */
PSP_API int64_t psp_fileLengthStat(const char *name, uint16_t mode);

/** Sets the length of a file: cuts it, or appends zero bytes. On the disk the position is the new
 *  end then; in the store it stays, even behind the end.
 *
 *  @param file  the handle.
 *  @param size  the new length in bytes.
 *  @return 0. On the disk -1 when the file could not grow, for a null handle, a negative size and
 *          in read-only mode; a cut that fails gives 0: to learn of it, look at psp_errno as for
 *          psp_fileSync. In the store 2 when memory is short or the size is beyond it.
 *
 *  Threads: one at a time. Start: that of the handle. Memory: needs none on the disk; if short in
 *  the store, 2 with the length unchanged; what has been obtained by then stays with the file until
 *  it is cut. */
PSP_API int32_t psp_fileSetSize(PSP_FH file, int64_t size);

/** Takes the first byte of the file for this handle; never waits. In the store takes the lock of
 *  the whole file for this thread, and waits for it.
 *
 *  @param file  the handle.
 *  @return PSP_OKAY; PSP_FAILED for a null handle, and when another handle, or this one, holds it.
 *          In the store always PSP_OKAY.
 *
 *  Threads: one at a time. Start: that of the handle. Memory: needs none. */
PSP_API psp_status psp_fileLock(PSP_FH file);

/** Gives the first byte back; in the store one level of the lock that this thread took through this
 *  handle.
 *
 *  @param file  the handle.
 *  @return PSP_OKAY; PSP_FAILED for a null handle, and when the handle does not hold it. In the
 *          store always PSP_OKAY.
 *
 *  Threads: one at a time. Start: that of the handle. Memory: needs none. */
PSP_API psp_status psp_fileUnlock(PSP_FH file);

/** Makes what was written durable.
 *
 *  @param file  the handle; null does nothing, nor does one of the store or of PSP_FILE_NOSYNC.
 *  @return always PSP_OKAY. To learn of a failure, clear the platform's last error before the call
 *          and look at psp_errno after it.
 *
 *  Threads: one at a time. Start: that of the handle. Memory: needs none. */
PSP_API psp_status psp_fileSync(PSP_FH file);

/** Tells the time of the last modification of a file by name.
 *
 *  @param name  the path.
 *  @param mode  PSP_FILE_ bits.
 *  @return seconds since 1970-01-01 UTC; -1 when it cannot be queried, for a null name and on the
 *          disk in no-disk mode. In the store 0 for what is no file or was never written.
 *
 *  Threads: any. Start: not needed on the disk; the store's answer is 0 without it. Memory: needs
 *  none on the disk; if short in the store, 0. */
PSP_API int64_t psp_fileModTimeStat(const char *name, uint16_t mode);

/* ---- Whole files ------------------------------------------------------------------------------
 * Operations on a file or a directory by name. Each comes in four forms: plain (on the disk), Ex
 * (a mode word beside each name, whose PSP_FILE_MEMORY places that name in the in-memory store), W
 * and ExW (wide names). A wide name that is not valid UTF-16 fails: copy, compare, move and
 * directory move give PSP_FAILED, remove and rename PSP_NOMEMORY, the existence test 0.
 *
 * They are sequences of platform calls on names: another thread or process that uses the same names
 * at the same time sees the steps between. In read-only mode removing, renaming and moving to the
 * disk fail; in no-disk mode everything on the disk fails. */

/** Copies a file onto a new or an existing name, writing only the blocks of 1024 bytes that differ.
 *
 *  @param source            the file to read.
 *  @param source_mode       its PSP_FILE_ bits.
 *  @param destination       the file to create or change.
 *  @param destination_mode  its PSP_FILE_ bits.
 *  @return PSP_OKAY; PSP_FAILED when a name is null or a file cannot be opened, read or written; -1
 *          when the final length cannot be set. After a failure in the middle the destination keeps
 *          the blocks written so far and its old length.
 *
 *  Threads: any. Start: needed, else PSP_FAILED. Memory: if short, PSP_FAILED with the destination
 *  untouched; in the store it may be short in the middle. */
PSP_API psp_status psp_fileCopyEx(const char *source, uint16_t source_mode, const char *destination,
                                  uint16_t destination_mode);
/** Copies a file on the disk. As psp_fileCopyEx. Threads: any. Start: needed, else PSP_FAILED.
 *  Memory: if short, PSP_FAILED with the destination untouched. */
PSP_API psp_status psp_fileCopy(const char *source, const char *destination);
/** Copies a file on the disk, with wide names. As psp_fileCopyEx. Threads: any. Start: needed, else
 *  PSP_FAILED. Memory: if short, PSP_FAILED with the destination untouched. */
PSP_API psp_status psp_fileCopyW(const psp_wchar *source, const psp_wchar *destination);
/** Copies a file, with wide names. As psp_fileCopyEx. Threads: any. Start: needed, else PSP_FAILED.
 *  Memory: if short, as there. */
PSP_API psp_status psp_fileCopyExW(const psp_wchar *source, uint16_t source_mode,
                                   const psp_wchar *destination, uint16_t destination_mode);

#define PSP_CMP_NO_FIRST 7  /* psp_fileCmp: the first file cannot be opened */
#define PSP_CMP_NO_SECOND 8 /* psp_fileCmp: the second file cannot be opened */

/** Compares the contents of two files.
 *
 *  @param first,second            the files.
 *  @param first_mode,second_mode  their PSP_FILE_ bits.
 *  @return 0 when equal; PSP_FAILED when they differ or cannot be read; PSP_NOMEMORY;
 *          PSP_CMP_NO_FIRST or PSP_CMP_NO_SECOND when that file cannot be opened. A name that the
 *          two share gives 0 whether the file exists or not.
 *
 *  Threads: any. Start: needed, else PSP_CMP_NO_FIRST. Memory: if short, PSP_NOMEMORY, or as for
 *  the file that was being opened or read. */
PSP_API psp_status psp_fileCmpEx(const char *first, uint16_t first_mode, const char *second,
                                 uint16_t second_mode);
/** Compares two files of the disk. As psp_fileCmpEx. Threads: any. Start: needed, else
 *  PSP_CMP_NO_FIRST. Memory: if short, as there. */
PSP_API psp_status psp_fileCmp(const char *first, const char *second);
/** Compares two files of the disk, with wide names. As psp_fileCmpEx. Threads: any. Start: needed,
 *  else PSP_FAILED. Memory: if short, as there, or PSP_FAILED for a name. */
PSP_API psp_status psp_fileCmpW(const psp_wchar *first, const psp_wchar *second);
/** Compares two files, with wide names. As psp_fileCmpEx. Threads: any. Start: needed, else
 *  PSP_FAILED. Memory: if short, as there, or PSP_FAILED for a name. */
PSP_API psp_status psp_fileCmpExW(const psp_wchar *first, uint16_t first_mode,
                                  const psp_wchar *second, uint16_t second_mode);

/** Removes a file, never a directory.
 *
 *  @param name  the file.
 *  @param mode  its PSP_FILE_ bits.
 *  @return PSP_OKAY; PSP_FAILED; PSP_NOTFOUND for a store name that is missing. With a wide name
 *          that cannot be converted, PSP_NOMEMORY.
 *
 *  Threads: any. Start: not needed on the disk; PSP_FAILED in the store without it. Memory: needs
 *  none on the disk; if short in the store, PSP_FAILED and the file stays. */
PSP_API psp_status psp_fileRemoveEx(const char *name, uint16_t mode);
/** Removes a file of the disk. As psp_fileRemoveEx. Threads: any. Start: not needed. Memory: needs
 *  none. */
PSP_API psp_status psp_fileRemove(const char *name);
/** Removes a file of the disk, with a wide name. As psp_fileRemoveEx. Threads: any. Start: needed,
 *  else PSP_NOMEMORY. Memory: if short, PSP_NOMEMORY and the file stays. */
PSP_API psp_status psp_fileRemoveW(const psp_wchar *name);
/** Removes a file, with a wide name. As psp_fileRemoveEx. Threads: any. Start: needed, else
 *  PSP_NOMEMORY. Memory: if short, PSP_NOMEMORY or PSP_FAILED, and the file stays. */
PSP_API psp_status psp_fileRemoveExW(const psp_wchar *name, uint16_t mode);

/** Gives a file or directory a new name; never replaces an existing one and never crosses between
 *  the disk and the store. A file may cross file systems: it is copied beside the new name, made
 *  durable, named in one step, and the old one goes last; it fails while a handle may write the
 *  file. A directory may not.
 *
 *  @param old_name,new_name  the names. In the store the new one's last component counts alone:
 *                            what it names stays in its directory.
 *  @param old_mode,new_mode  their PSP_FILE_ bits.
 *  @return PSP_OKAY; PSP_FAILED; PSP_NOTFOUND for a store name that is missing. With a wide name
 *          that cannot be converted, PSP_NOMEMORY.
 *
 *  Threads: any. Start: not needed on the disk; PSP_FAILED in the store without it. Memory: needs
 *  none on the disk; if short in the store, PSP_FAILED and the old name stays. */
PSP_API psp_status psp_fileRenameEx(const char *old_name, uint16_t old_mode, const char *new_name,
                                    uint16_t new_mode);
/** Renames on the disk. As psp_fileRenameEx. Threads: any. Start: not needed. Memory: needs none.
 */
PSP_API psp_status psp_fileRename(const char *old_name, const char *new_name);
/** Renames on the disk, with wide names. As psp_fileRenameEx. Threads: any. Start: needed, else
 *  PSP_NOMEMORY. Memory: if short, PSP_NOMEMORY and the old name stays. */
PSP_API psp_status psp_fileRenameW(const psp_wchar *old_name, const psp_wchar *new_name);
/** Renames, with wide names. As psp_fileRenameEx. Threads: any. Start: needed, else PSP_NOMEMORY.
 *  Memory: if short, PSP_NOMEMORY or PSP_FAILED, and the old name stays. */
PSP_API psp_status psp_fileRenameExW(const psp_wchar *old_name, uint16_t old_mode,
                                     const psp_wchar *new_name, uint16_t new_mode);

/** Tells whether a name exists.
 *
 *  @param name       the file or directory.
 *  @param mode       its PSP_FILE_ bits.
 *  @param directory  receives 0 for a file, 16384 (disk) or 1 (store) for a directory, nothing when
 *                    the name does not exist; may be null.
 *  @return 1 or 0.
 *
 *  Threads: any. Start: not needed on the disk; 0 in the store without it. Memory: needs none on
 *  the disk; if short in the store, 0. */
PSP_API int32_t psp_fileValidateEx(const char *name, uint16_t mode, uint32_t *directory);
/** Tells whether a name exists on the disk. As psp_fileValidateEx. Threads: any. Start: not needed.
 *  Memory: needs none. */
PSP_API int32_t psp_fileValidate(const char *name);
/** Tells whether a wide name exists on the disk. As psp_fileValidateEx. Threads: any. Start:
 *  needed, else 0. Memory: if short, 0. */
PSP_API int32_t psp_fileValidateW(const psp_wchar *name);
/** Tells whether a wide name exists. As psp_fileValidateEx. Threads: any. Start: needed, else 0.
 *  Memory: if short, 0. */
PSP_API int32_t psp_fileValidateExW(const psp_wchar *name, uint16_t mode, uint32_t *directory);

/** Moves a file onto a name, replacing what is there: by a rename where that is possible, else by a
 *  copy. The old destination is gone even if the move then fails; the source is kept then.
 *
 *  @param source            the file to move.
 *  @param source_mode       its PSP_FILE_ bits; only PSP_FILE_MEMORY counts.
 *  @param destination       the name that it gets.
 *  @param destination_mode  its PSP_FILE_ bits; only PSP_FILE_MEMORY counts.
 *  @return as psp_fileCopyEx. Two names of the same file give PSP_OKAY and nothing is removed;
 *          PSP_FAILED, and nothing is removed, where it cannot be found out whether they are. A
 *          pipe, a device or a socket is renamed, but never copied: PSP_FAILED.
 *
 *  Threads: any. Start: not needed on the disk where a rename will do; PSP_FAILED for all else
 *  without it. Memory: needs none on the disk where a rename will do; if short for all else,
 *  PSP_FAILED with the source whole and the old destination perhaps gone. */
PSP_API psp_status psp_fileMoveEx(const char *source, uint16_t source_mode, const char *destination,
                                  uint16_t destination_mode);
/** Moves a file on the disk. As psp_fileMoveEx. Threads: any. Start: not needed where a rename will
 *  do; PSP_FAILED without it for a copy. Memory: needs none where a rename will do; if short for a
 *  copy, as there. */
PSP_API psp_status psp_fileMove(const char *source, const char *destination);
/** Moves a file on the disk, with wide names. As psp_fileMoveEx. Threads: any. Start: needed, else
 *  PSP_FAILED. Memory: if short, PSP_FAILED and nothing is removed; for a copy as there. */
PSP_API psp_status psp_fileMoveW(const psp_wchar *source, const psp_wchar *destination);
/** Moves a file, with wide names. As psp_fileMoveEx. Threads: any. Start: needed, else PSP_FAILED.
 *  Memory: if short, as there. */
PSP_API psp_status psp_fileMoveExW(const psp_wchar *source, uint16_t source_mode,
                                   const psp_wchar *destination, uint16_t destination_mode);

/** Moves a directory: by a rename where that is possible; else the files directly inside it, into a
 *  destination that is created with its parents. Subdirectories stay where they are then.
 *
 *  @param source            the directory to move.
 *  @param source_mode       its PSP_FILE_ bits; only PSP_FILE_MEMORY counts.
 *  @param destination       the name that it gets.
 *  @param destination_mode  its PSP_FILE_ bits; only PSP_FILE_MEMORY counts.
 *  @return PSP_OKAY, also when there was nothing to move; PSP_FAILED when the source cannot be
 *          read, and before anything is created in read-only and no-disk mode; otherwise the result
 *          of the step or of the file move that failed. Files moved before it stay moved. Files
 *          that psp_pathNext passes over stay too, and the source with them.
 *
 *  Threads: any. Start: not needed on the disk where a rename will do; PSP_FAILED for all else
 *  without it. Memory: needs none on the disk where a rename will do; if short for all else,
 *  PSP_NOMEMORY or PSP_FAILED; files moved before stay moved, and the destination stays. */
PSP_API psp_status psp_dirMoveEx(const char *source, uint16_t source_mode, const char *destination,
                                 uint16_t destination_mode);
/** Moves a directory on the disk. As psp_dirMoveEx. Threads: any. Start: not needed where a rename
 *  will do; PSP_FAILED without it for all else. Memory: needs none where a rename will do; if short
 *  for all else, as there. */
PSP_API psp_status psp_dirMove(const char *source, const char *destination);
/** Moves a directory on the disk, with wide names. As psp_dirMoveEx. Threads: any. Start: needed,
 *  else PSP_FAILED. Memory: if short, as there, or PSP_FAILED for a name. */
PSP_API psp_status psp_dirMoveW(const psp_wchar *source, const psp_wchar *destination);
/** Moves a directory, with wide names. As psp_dirMoveEx. Threads: any. Start: needed, else
 *  PSP_FAILED. Memory: if short, as there, or PSP_FAILED for a name. */
PSP_API psp_status psp_dirMoveExW(const psp_wchar *source, uint16_t source_mode,
                                  const psp_wchar *destination, uint16_t destination_mode);

/* ---- Paths and directories --------------------------------------------------------------------
 * Names as text, directories, the temporary directory. The library writes backslashes and accepts
 * slashes too, on every platform. */

typedef struct psp_pathIter psp_pathIter;

/** Starts an iteration over the entries of a directory of the disk. As psp_pathOpenEx.
 *
 *  Owner: the caller, until psp_pathClose. Threads: any. Start: needed, else null. Memory: if
 *  short, null. */
PSP_API psp_pathIter *psp_pathOpen(const char *directory, const char *pattern) PSP_MUST_USE;

/** Starts an iteration over the entries of a directory, "." and ".." included. Entries that come or
 *  go meanwhile may or may not be met. On POSIX an entry whose name holds a backslash is passed
 *  over: to the library the name would be a path, perhaps of another file.
 *
 *  In the store the names come in order (ASCII letters as lower case), "." and ".." are not among
 *  them, and "*.*" wants a dot. An iterator is given for a directory without a match, too; names
 *  that come or go behind the last one are met or not as they stand when their turn comes.
 *
 *  @param directory  the directory.
 *  @param mode       its PSP_FILE_ bits.
 *  @param pattern    which names: "?" is one character, "*" any number, letters match without
 *                    regard to case; the character after a "*" is taken literally. On the disk
 *                    "*.*" matches every name.
 *  @return the iterator; null when no entry matches, the directory cannot be read, an argument is
 *          null or the directory empty, and in no-disk mode.
 *
 *  Owner: the caller, until psp_pathClose. Threads: any. Start: needed, else null. Memory: if
 *  short, null. */
PSP_API psp_pathIter *psp_pathOpenEx(const char *directory, uint16_t mode,
                                     const char *pattern) PSP_MUST_USE;

/** Ends an iteration.
 *
 *  @param iterator  the iterator; null does nothing.
 *
 *  Threads: one at a time. Start: that of the iterator. Memory: needs none. */
PSP_API void psp_pathClose(psp_pathIter *iterator);

/** Goes to the next entry.
 *
 *  @param iterator   the iterator.
 *  @param directory  receives 0 for a file, 16 (disk) or 1 (store) for a directory; not null.
 *  @return the entry's name; null when none is left, and for a null argument.
 *
 *  Owner: the iterator, until the next call on it. Threads: one at a time. Start: that of the
 *  iterator. Memory: needs none on the disk; if short in the store, null, and the next call begins
 *  anew. */
PSP_API const char *psp_pathNext(psp_pathIter *iterator, uint32_t *directory);

/** Tells the current directory, as the platform spells it; a backslash alone in no-disk mode.
 *
 *  @return a new string; null when the platform cannot tell it, too.
 *
 *  Owner: the caller, who releases it with psp_freeMem(string, NULL). Threads: any. Start: needed,
 *  else null. Memory: if short, null. */
PSP_API char *psp_currdir(void) PSP_MUST_USE;

/** Tells whether a name starts at a root: with a separator, or with a letter, a colon and a
 *  separator.
 *
 *  @param name  the name; null gives 0.
 *  @return 1 or 0.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API int32_t psp_pathIsFullyQualified(const char *name);

/** Makes the full path of a directory, ending in a backslash. No "." or ".." is resolved.
 *
 *  @param name  the directory; null, empty, a dot and a dot with a backslash are the current one.
 *  @return a new string; null when the current directory cannot be told, too.
 *
 *  Owner: the caller, who releases it with psp_freeMem(string, NULL). Threads: any. Start: needed,
 *  else null. Memory: if short, null. */
PSP_API char *psp_fullpath(const char *name) PSP_MUST_USE;

/** Splits a name at its last backslash; else at its last slash; else at its last colon.
 *
 *  @param name       the name; null has no parts.
 *  @param directory  receives a new string, the separator included, or null; may be null.
 *  @param file       receives a new string or null; may be null.
 *
 *  Owner: the caller, who releases both with psp_freeMem(string, NULL). Threads: any. Start:
 *  needed, else both are null. Memory: if short, both are null. */
PSP_API void psp_pathSplit(const char *name, char **directory, char **file);

/** Passes over a drive prefix (any character and a colon).
 *
 *  @param name  the name; null gives null.
 *  @return the name without it: a place in the same string.
 *
 *  Owner: that of the name. Threads: any. Start: not needed. Memory: needs none. */
PSP_API const char *psp_pathStripDrive(const char *name);

/** Tells whether a name is spelled like a directory: its last character is a backslash or a colon.
 *
 *  @param name  the name.
 *  @return 1 or 0; -1 for a null or empty name.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API int32_t psp_pathIsDir(const char *name);

/** Tells whether a name is a link: links are not recognised.
 *
 *  @param name  the name; not looked at.
 *  @return always 0.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API int32_t psp_pathIsLink(const char *name);

/** Creates a directory.
 *
 *  @param name  the directory.
 *  @return PSP_OKAY; PSP_EXISTS when the name is taken; PSP_FAILED, also for a null name and in
 *          no-disk mode.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API psp_status psp_dirCreate(const char *name);
/** Creates a directory with a wide name. As psp_dirCreate. Threads: any. Start: needed, else
 *  PSP_FAILED. Memory: if short, PSP_FAILED. */
PSP_API psp_status psp_dirCreateW(const psp_wchar *name);

/** Creates a directory with all its parents.
 *
 *  @param name  the directory.
 *  @return as psp_dirCreate. A name that ends in a separator gives PSP_EXISTS even when it was
 *          created just now. After a failure the parents created before it stay.
 *
 *  Threads: any. Start: not needed where the parents exist, else PSP_FAILED. Memory: needs none
 *  where the parents exist; if short, PSP_FAILED and nothing is created. */
PSP_API psp_status psp_dirCreateAll(const char *name);
/** Creates a directory with all its parents, with a wide name. As psp_dirCreateAll. Threads: any.
 *  Start: needed, else PSP_FAILED. Memory: if short, PSP_FAILED and nothing is created. */
PSP_API psp_status psp_dirCreateAllW(const psp_wchar *name);

/** Removes an empty directory.
 *
 *  @param name  the directory.
 *  @return PSP_OKAY, also when it does not exist; PSP_FAILED, also for a null name and in no-disk
 *          mode.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API psp_status psp_dirRemove(const char *name);
/** Removes an empty directory with a wide name. As psp_dirRemove. Threads: any. Start: needed, else
 *  PSP_FAILED. Memory: if short, PSP_FAILED and the directory stays. */
PSP_API psp_status psp_dirRemoveW(const psp_wchar *name);

/** Makes a name for a temporary file; creates nothing and tests nothing.
 *
 *  @param counter    the caller's counter, part of the name by its value and its address; it is
 *                    raised by one. Null gives null.
 *  @param prefix     null is "temp".
 *  @param extension  null is "tmp".
 *  @param tag        the owner; null is the default tag.
 *  @return a new string, or null.
 *
 *  Owner: the caller, who releases it with psp_freeMem(string, tag). Threads: one at a time for
 *  each counter, else as the tag. Start: needed, else null. Memory: if short, null; the counter has
 *  been raised. */
PSP_API char *psp_fileCreateTmpName(uint32_t *counter, const char *prefix, const char *extension,
                                    psp_tag *tag) PSP_MUST_USE;

/** Tells the temporary directory: the environment's VKD_TMPDIR unchanged; else the first of TEMP,
 *  TMP, the system's own and the current directory in which a file could be made, found once. An
 *  empty TEMP or TMP counts as not set.
 *
 *  @param tag  the owner; null is the default tag.
 *  @return a new string; null when there is no such directory, too.
 *
 *  Owner: the caller, who releases it with psp_freeMem(string, tag). Threads: as the tag. Start:
 *  needed, else null. Memory: if short, null; the next call looks again. */
PSP_API char *psp_tmpdir(psp_tag *tag) PSP_MUST_USE;

/* ---- Text streams -----------------------------------------------------------------------------
 * A stream is a buffered text file: psp_fopen makes it, psp_fclose ends it. Texts are UTF-8
 * whatever the file holds. A read stream recognises a byte-order mark and turns UTF-16 into UTF-8;
 * a write stream of width 2 writes a mark and UTF-16, little-endian. A carriage return with a line
 * feed reads as one line feed, and a line feed is written as the two.
 *
 * Reading and writing may alternate. What is written reaches the file when a block of 1024 bytes is
 * full, at a flush and at the close. In read-only mode output is dropped in silence. A write that
 * the file does not take leaves its bytes in the stream, which tries again at the next occasion.
 *
 * A byte 0xFF of 8-bit text reads as -1 and cannot be told from the end. Of a run of carriage
 * returns that no line feed ends, no more than 20 are read; one that a line feed ends is part of
 * the line end. A null stream gives the failure result. */

typedef struct psp_stream psp_stream;

/** Opens a text file of the disk. As psp_fopenEx.
 *
 *  Owner: the caller, until psp_fclose. Threads: any. Start: needed, else null. Memory: if short,
 *  null; no file has been created or changed. */
PSP_API psp_stream *psp_fopen(const char *name, const char *mode, uint32_t width) PSP_MUST_USE;

/** Opens a text file.
 *
 *  @param name       the path; null gives null.
 *  @param mode       "r", "w" (create or empty) or "a" (create; starts at the end), each with an
 *                    optional "+" for reading and writing; any other character fails, "b" and "t"
 *                    too. Null reads.
 *  @param width      bytes of a unit of a write stream, 1 or 2; 0 is 1. Read streams find out.
 *  @param mode_word  PSP_FILE_ bits.
 *  @return the stream; null when the file cannot be opened, or its end not be found for "a".
 *
 *  Owner: the caller, until psp_fclose. Threads: any. Start: needed, else null. Memory: if short,
 *  null; no file has been created or changed. */
PSP_API psp_stream *psp_fopenEx(const char *name, const char *mode, uint32_t width,
                                uint16_t mode_word) PSP_MUST_USE;

/** Opens a standard channel by name as 8-bit text.
 *
 *  @param name  "stdin", "stdout" or "stderr"; any other name is a file of the disk, opened to read
 *               its bytes.
 *  @return the stream; null when that fails. Its end leaves the channel open.
 *
 *  Owner: the caller, until psp_fclose. Threads: any. Start: needed, else null. Memory: if short,
 *  null. */
PSP_API psp_stream *psp_fopen_std(const char *name) PSP_MUST_USE;

/** Writes what is buffered, closes the file and ends the stream. A failure is not reported: if it
 *  matters, call psp_fflush first and look at psp_errno as told there.
 *
 *  @param stream  the stream; null does nothing.
 *
 *  Threads: one at a time. Start: that of the stream. Memory: needs none on the disk; if short in
 *  the store, the file lacks the end of what was buffered. */
PSP_API void psp_fclose(psp_stream *stream);

/** Reads one character: one byte of the UTF-8 text.
 *
 *  @param stream  the stream; null gives -1.
 *  @return the byte as a signed value (0x80 to 0xFF are -128 to -1; continuation bytes made from
 *          UTF-16 are 128 to 191), or a value pushed back, as it was; -1 at the end.
 *
 *  Threads: one at a time. Start: that of the stream. Memory: needs none on the disk; if short in
 *  the store, as at the end. */
PSP_API int32_t psp_fgetc(psp_stream *stream);

/** Pushes a value back; the next psp_fgetc gives it. Up to 20 are held, last in, first out.
 *
 *  @param character  any value.
 *  @param stream     the stream; null gives -1.
 *  @return the value; -1 when 20 are held.
 *
 *  Threads: one at a time. Start: that of the stream. Memory: needs none. */
PSP_API int32_t psp_fungetc(int32_t character, psp_stream *stream);

/** Reads up to a line feed, which is kept, or size - 1 characters, and terminates them.
 *
 *  @param buffer  where to store.
 *  @param size    bytes of the buffer; 1 gives an empty string.
 *  @param stream  the stream; null gives null.
 *  @return the buffer; null when nothing was read, the buffer is null or the size not positive.
 *
 *  Owner: that of the buffer. Threads: one at a time. Start: that of the stream. Memory: needs none
 *  on the disk; if short in the store, as at the end. */
PSP_API char *psp_fgets(char *buffer, int32_t size, psp_stream *stream);

/** Reads a line of any length. A zero byte belongs to the line like any other.
 *
 *  @param stream  the stream.
 *  @param buffer  in and out: the line buffer, a block of the default tag that grows and is reused;
 *                 null obtains one.
 *  @param size    in and out: its size in bytes; 0 is taken as 100.
 *  @return the line with its line feed, if it had one: the buffer; null at the end, for a null
 *          argument and when the buffer cannot grow.
 *
 *  Owner: the caller, who releases the buffer with psp_freeMem(buffer, NULL). Threads: one at a
 *  time. Start: that of the stream. Memory: if short, null; buffer and size stay valid and hold the
 *  line's beginning, which has been read. */
PSP_API char *psp_fGetLine(psp_stream *stream, char **buffer, uint32_t *size);

/** Writes one character; a line feed goes out as carriage return and line feed.
 *
 *  @param character  the byte, in the low 8 bits.
 *  @param stream     the stream; null gives 0.
 *  @return 1, or 0 when it failed.
 *
 *  Threads: one at a time. Start: that of the stream. Memory: needs none on the disk; if short in
 *  the store, 0, and what is buffered stays. */
PSP_API int32_t psp_fputc(int32_t character, psp_stream *stream);

/** Writes a string.
 *
 *  @param string  the string; null gives -1.
 *  @param stream  the stream; null gives -1.
 *  @return the bytes of the string, 2^31 - 1 for more; -1 at the first character that fails
 *          (earlier ones stay).
 *
 *  Threads: one at a time. Start: that of the stream. Memory: needs none on the disk; if short in
 *  the store, -1, and what is buffered stays. */
PSP_API int32_t psp_fputs(const char *string, psp_stream *stream);

/** Writes formatted text.
 *
 *  @param stream     the stream; null gives -1.
 *  @param format     as in psp_vsnprintf; null gives -1.
 *  @param arguments  the values that the format names.
 *  @return the bytes of the text; -1 when formatting or writing fails.
 *
 *  Threads: one at a time. Start: that of the stream. Memory: if short, -1 with nothing written of
 *  a text of 512 bytes or more, shorter ones need none on the disk; in the store as psp_fputs. */
PSP_API int32_t psp_vfprintf(psp_stream *stream, const char *format, va_list arguments);

/** Writes formatted text, with the values behind the format.
 *
 *  @param stream  the stream; null gives -1.
 *  @param format  as in psp_vsnprintf; null gives -1.
 *  @return as psp_vfprintf.
 *
 *  Threads: one at a time. Start: that of the stream. Memory: if short, as psp_vfprintf. */
PSP_API int32_t psp_fprintf(psp_stream *stream, const char *format, ...);

/** Writes what is buffered and makes it durable.
 *
 *  @param stream  the stream; null gives -1.
 *  @return 0; -1 when half of a UTF-8 character waits to be written as UTF-16. A failed write gives
 *          0 too, and its bytes stay buffered: the platform's error code, cleared before the call
 *          (errno = 0), tells it behind the call (psp_errno).
 *
 *  Threads: one at a time. Start: that of the stream. Memory: needs none on the disk; if short in
 *  the store, as after a failed write. */
PSP_API int32_t psp_fflush(psp_stream *stream);

/** Moves the position. Values pushed back stay.
 *
 *  @param stream  the stream; null gives PSP_FAILED.
 *  @param offset  bytes from the origin.
 *  @param origin  0: the first character after the mark; 1: the position; 2: the known length.
 *  @return PSP_OKAY; PSP_FAILED for another origin and for a place before the start of the file.
 *
 *  Threads: one at a time. Start: that of the stream. Memory: needs none. */
PSP_API psp_status psp_fseek(psp_stream *stream, int32_t offset, int32_t origin);

/* ---- Channels and log -------------------------------------------------------------------------
 * The process has three output channels: standard output, standard error and the log. Each writes
 * to the output that was pushed on it last; the first two start with the process's own. One message
 * is always written in one piece.
 *
 * A log message goes to the standard output channel (psp_log_err: standard error) and, with a stamp
 * "[19-Nov-2026 06:32:28]" and two blanks before it, to the log's output if there is one. End your
 * messages with "\n"; one that holds a zero byte ends there. Before psp_init and after the last
 * psp_term messages go to the C runtime's standard output and standard error, formatted by the C
 * runtime: "l" and "z" are its own there. */

/** Pushes an output on the standard output channel.
 *
 *  @param name  the file to create or empty; a name that the channel writes to already (in any case
 *               of letters) is shared. Null or empty pushes an output that swallows everything.
 *  @return PSP_OKAY; PSP_FAILED when the file cannot be opened; PSP_NOMEMORY.
 *
 *  Threads: only while no other writes to the channel. Start: needed, else PSP_FAILED. Memory: if
 *  short, PSP_NOMEMORY, or PSP_FAILED from the opening; channel and file are unchanged. */
PSP_API psp_status psp_stdout_open(const char *name);
/** Pushes an output on the standard error channel. As psp_stdout_open. Threads: only while no other
 *  writes to the channel. Start: needed, else PSP_FAILED. Memory: if short, as there. */
PSP_API psp_status psp_stderr_open(const char *name);
/** Pushes an output on the log channel. As psp_stdout_open. Threads: only while no other writes to
 *  the channel. Start: needed, else PSP_FAILED. Memory: if short, as there. */
PSP_API psp_status psp_log_open(const char *name);

/** Pushes the output whose name is two strings joined on the log channel.
 *
 *  @param first,second  the strings.
 *  @return as psp_log_open, but PSP_OKAY, with nothing opened, when the library is not started.
 *
 *  Threads: only while no other writes to the channel. Start: needed, else PSP_OKAY with nothing
 *  opened. Memory: if short, as psp_log_open. */
PSP_API psp_status psp_log_create(const char *first, const char *second);

/** Pops the standard output channel's output, if there is one; its last use closes the file.
 *  Threads: only while no other writes to the channel. Start: needed, else it does nothing. Memory:
 *  needs none. */
PSP_API void psp_stdout_close(void);
/** Pops the standard error channel's output, if there is one; its last use closes the file.
 *  Threads: only while no other writes to the channel. Start: needed, else it does nothing. Memory:
 *  needs none. */
PSP_API void psp_stderr_close(void);
/** Pops the log channel's output, if there is one; its last use closes the file. Threads: only
 *  while no other writes to the channel. Start: needed, else it does nothing. Memory: needs none.
 */
PSP_API void psp_log_close(void);

/** Writes formatted text to the standard output channel, without a flush.
 *
 *  @param format  as in psp_vsnprintf, with its values behind it.
 *  @return bytes of the text; 0 when the channel swallows it; -1 when it failed.
 *
 *  Threads: any. Start: not needed; without it the text goes to the C runtime. Memory: if short, -1
 *  with nothing written of a text of 512 bytes or more, no jump. */
PSP_API int32_t psp_printf(const char *format, ...);
/** Writes formatted text to the standard output channel, without a flush.
 *
 *  @param format     as in psp_vsnprintf.
 *  @param arguments  the values that the format names.
 *  @return as psp_printf.
 *
 *  Threads: any. Start: not needed; without it the text goes to the C runtime. Memory: if short, as
 *  psp_printf. */
PSP_API int32_t psp_printfV(const char *format, va_list arguments);
/** Writes formatted text to the standard error channel. As psp_printf. Threads: any. Start: not
 *  needed; without it the text goes to the C runtime. Memory: if short, as there. */
PSP_API int32_t psp_printfErr(const char *format, ...);
/** Writes formatted text to the standard error channel. As psp_printfV. Threads: any. Start: not
 *  needed; without it the text goes to the C runtime. Memory: if short, as there. */
PSP_API int32_t psp_printfErrV(const char *format, va_list arguments);

/** Flushes the standard output channel; without an output, the C runtime's standard output.
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API void psp_flush(void);
/** Flushes the standard error channel; without an output, the C runtime's standard error. Threads:
 *  any. Start: not needed. Memory: needs none. */
PSP_API void psp_flushErr(void);

/** Logs a message and flushes it. The platform's last error code is left as it was.
 *
 *  @param format  as in psp_vsnprintf, with its values behind it.
 *  @return bytes written to the standard output channel, 0 when it swallows them; -1 when that
 *          failed. A message that cannot be formatted is dropped and gives 0.
 *
 *  Threads: any. Start: not needed; without it the text goes to the C runtime. Memory: if short, 0
 *  and a message of 512 bytes or more is dropped, no jump. */
PSP_API int32_t psp_log(const char *format, ...);
/** Logs a message and flushes it. The platform's last error code is left as it was.
 *
 *  @param format     as in psp_vsnprintf.
 *  @param arguments  the values that the format names.
 *  @return as psp_log.
 *
 *  Threads: any. Start: not needed; without it the text goes to the C runtime. Memory: if short, as
 *  psp_log. */
PSP_API int32_t psp_logV(const char *format, va_list arguments);
/** Logs a message to the standard error channel and the log. As psp_log. Threads: any. Start: not
 *  needed; without it the text goes to the C runtime. Memory: if short, as there. */
PSP_API int32_t psp_log_err(const char *format, ...);

/* A message built from pieces. */
typedef struct psp_logChunk psp_logChunk;

/** Starts a message that is built from pieces and logged whole.
 *
 *  @return the chunk, or null.
 *
 *  Owner: the caller, until psp_log_chunk_end. Threads: any. Start: needed, else null. Memory: if
 *  short, null, no jump. */
PSP_API psp_logChunk *psp_log_chunk_init(void) PSP_MUST_USE;

/** Adds a last piece, logs the message if it has text, and ends the chunk.
 *
 *  @param chunk   the message; null does nothing.
 *  @param format  as in psp_vsnprintf, with its values behind it; null adds nothing.
 *
 *  Threads: one at a time. Start: not needed; without it the text goes to the C runtime. Memory: if
 *  short, the last piece is left out whole, no jump. */
PSP_API void psp_log_chunk_end(psp_logChunk *chunk, const char *format, ...);

/** Adds a formatted piece.
 *
 *  @param chunk   the message; null does nothing.
 *  @param format  as in psp_vsnprintf, with its values behind it; null does nothing. A piece that
 *                 cannot be formatted is left out whole.
 *
 *  Threads: one at a time. Start: not needed. Memory: if short, the piece is left out whole, no
 *  jump. */
PSP_API void psp_log_chunk(psp_logChunk *chunk, const char *format, ...);

/** Flushes all three channels. Threads: any. Start: not needed. Memory: needs none. */
PSP_API void psp_log_flush(void);

/* ---- Typed buffers ----------------------------------------------------------------------------
 * An input buffer hands out characters, integers, floats, strings and bytes from a byte transport,
 * an output buffer sends them. The transport is the caller's: functions that are called with the
 * caller's context when the buffer of 5000 bytes is empty or full, once a block and not once a
 * value. They and the context must stay valid for the buffer's life.
 *
 * On the wire: a character is 1 byte; integers and IEEE 754 floats are their 2, 4 or 8 bytes in the
 * machine's order, or reversed if the buffer was made with swap; a string is its length, sent as an
 * unsigned 32-bit integer, and its bytes without a terminator; a null string is the length
 * 0xFFFFFFFF alone. Both ends must agree on order and types; nothing on the wire tells them.
 *
 * Results: PSP_OKAY; a failed transport function's status, unchanged; PSP_ERR_INVARG when a pointer
 * is null that must not be, and then nothing has been done; others where told. A value that meets a
 * failure may have been taken or put in part, so the peers no longer agree on where a value starts:
 * unless the failure fell between two values, give the connection up.
 *
 * A transport function may use the library and other buffers. It may also be left by an
 * out-of-memory jump: the buffer then stays as after a transport that failed. */

/** Fills the buffer from the transport; waits until there is at least one byte, or fails.
 *
 *  @param context   as given at the creation.
 *  @param buffer    where to store the bytes.
 *  @param capacity  the most to store.
 *  @param filled    where to tell how many were stored; more than capacity counts as capacity. 0
 *                   with success has the function called again.
 *  @return 0; anything else is a failure, which delivers nothing whatever filled tells. */
typedef int32_t (*psp_transportRead)(void *context, void *buffer, uint32_t capacity,
                                     uint32_t *filled);
/** psp_transportRead with a limit of time, whose unit and meaning are the caller's own. */
typedef int32_t (*psp_transportReadTimed)(void *context, void *buffer, uint32_t capacity,
                                          uint32_t *filled, uint32_t timeout);
/** Sends all the bytes.
 *
 *  @return 0; anything else is a failure, after which the bytes of a buffer go on waiting and are
 *          sent again by the next write. */
typedef int32_t (*psp_transportWrite)(void *context, const void *data, uint32_t count);

typedef struct psp_inputBuff psp_inputBuff;   /* a buffer to get values from */
typedef struct psp_outputBuff psp_outputBuff; /* a buffer to put values into */

/** Makes an input buffer.
 *
 *  @param read        fills it; not null.
 *  @param timed_read  fills it for a psp_inputBuffGetInt32Timeout; null: read does.
 *  @param context     handed to the two.
 *  @param swap        not 0: values arrive in the order opposite to the machine's.
 *  @param buff        where to store the buffer; not null. Unchanged on failure.
 *  @return PSP_OKAY; PSP_ERR_INVARG; PSP_ERR_NOMEMORY.
 *
 *  Owner: the caller, until psp_inputBuffDestroy; the functions and the context must last as long.
 *  Threads: any. Start: needed, else PSP_ERR_NOMEMORY. Memory: if short, PSP_ERR_NOMEMORY. */
PSP_API psp_status psp_inputBuffCreate(psp_transportRead read, psp_transportReadTimed timed_read,
                                       void *context, uint16_t swap,
                                       psp_inputBuff **buff) PSP_MUST_USE;
/** Ends an input buffer; bytes not handed out are dropped.
 *
 *  @param buff  the buffer; null does nothing.
 *
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API void psp_inputBuffDestroy(psp_inputBuff *buff);

/** Takes a character.
 *
 *  @param buff   the buffer; not null.
 *  @param value  where to store it; null takes the character off the stream and drops it.
 *  @return PSP_OKAY; PSP_ERR_INVARG; the transport's status.
 *
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API psp_status psp_inputBuffGetChar(psp_inputBuff *buff, char *value);
/** Takes a 16-bit integer; a failure may leave the value partly stored. As psp_inputBuffGetChar.
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API psp_status psp_inputBuffGetInt16(psp_inputBuff *buff, int16_t *value);
/** Takes a 32-bit integer; a failure may leave the value partly stored. As psp_inputBuffGetChar.
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API psp_status psp_inputBuffGetInt32(psp_inputBuff *buff, int32_t *value);
/** Takes a 32-bit integer with a limit of time; a failure may leave the value partly stored.
 *
 *  @param buff     the buffer; not null.
 *  @param value    where to store it; null takes it off the stream and drops it.
 *  @param timeout  handed to the timed read function at each call that is needed, in that
 *                  function's unit; 0, or a buffer without such a function, has the plain read
 *                  function called.
 *  @return PSP_OKAY; PSP_ERR_INVARG; the transport's status.
 *
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API psp_status psp_inputBuffGetInt32Timeout(psp_inputBuff *buff, int32_t *value,
                                                uint32_t timeout);
/** Takes a 64-bit integer; a failure may leave the value partly stored. As psp_inputBuffGetChar.
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API psp_status psp_inputBuffGetInt64(psp_inputBuff *buff, int64_t *value);
/** Takes a float; its bits arrive as they were sent, NaNs included. A failure may leave the value
 *  partly stored. As psp_inputBuffGetChar. Threads: one at a time. Start: that of the buffer.
 *  Memory: needs none. */
PSP_API psp_status psp_inputBuffGetFloat32(psp_inputBuff *buff, float *value);
/** Takes a double; its bits arrive as they were sent, NaNs included. A failure may leave the value
 *  partly stored. As psp_inputBuffGetChar. Threads: one at a time. Start: that of the buffer.
 *  Memory: needs none. */
PSP_API psp_status psp_inputBuffGetFloat64(psp_inputBuff *buff, double *value);

/** Takes a string with its length as a new string. A sender that lies about the length costs 1 MiB
 *  at first; beyond that memory is taken as the bytes arrive. There is no other limit: use
 *  psp_inputBuffGetStringWithLength to have one.
 *
 *  @param buff   the buffer; not null.
 *  @param value  where to store the string, ended by a zero byte (zero bytes sent within it stay);
 *                null for a null string and on failure. A null value takes the string off the
 *                stream and drops it.
 *  @return PSP_OKAY; PSP_ERR_INVARG; PSP_ERR_NOMEMORY; the transport's status.
 *
 *  Owner: the caller, who releases it with psp_freeMem(string, NULL). Threads: one at a time.
 *  Start: that of the buffer. Memory: if short, PSP_ERR_NOMEMORY; the length and perhaps a part of
 *  the bytes are taken. */
PSP_API psp_status psp_inputBuffGetString(psp_inputBuff *buff, char **value) PSP_MUST_USE;

/** Takes a string with its length into a given space.
 *
 *  @param buff         the buffer; not null.
 *  @param destination  where to store the string, ended by a zero byte; a null string is stored as
 *                      an empty one; on a transport's failure what had arrived. Null takes the
 *                      string off the stream and drops it.
 *  @param size         bytes at destination, at least 1.
 *  @return PSP_OKAY; PSP_ERR_TRUNCATED when the string did not fit: its first size - 1 bytes are
 *          stored and the whole string is taken; PSP_ERR_INVARG, also for size 0; the transport's
 *          status.
 *
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API psp_status psp_inputBuffGetStringWithLength(psp_inputBuff *buff, char *destination,
                                                    uint32_t size);

/** Takes bytes without a look at them.
 *
 *  @param buff         the buffer; not null.
 *  @param destination  where to store them; null drops them. A failure keeps those that arrived.
 *  @param count        bytes; 0 does nothing.
 *  @return PSP_OKAY; PSP_ERR_INVARG for a null buffer; the transport's status.
 *
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API psp_status psp_inputBuffGetBytes(psp_inputBuff *buff, void *destination, uint32_t count);

/** Drops the bytes that the buffer holds; the next value is asked of the transport.
 *
 *  @param buff  the buffer; null does nothing.
 *
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API void psp_inputBuffReset(psp_inputBuff *buff);

/** Makes an output buffer.
 *
 *  @param write    sends its bytes; not null.
 *  @param context  handed to it.
 *  @param swap     not 0: values are sent in the order opposite to the machine's.
 *  @param buff     where to store the buffer; not null. Unchanged on failure.
 *  @return PSP_OKAY; PSP_ERR_INVARG; PSP_ERR_NOMEMORY.
 *
 *  Owner: the caller, until psp_outputBuffDestroy; the function and the context must last as long.
 *  Threads: any. Start: needed, else PSP_ERR_NOMEMORY. Memory: if short, PSP_ERR_NOMEMORY. */
PSP_API psp_status psp_outputBuffCreate(psp_transportWrite write, void *context, uint16_t swap,
                                        psp_outputBuff **buff) PSP_MUST_USE;
/** Ends an output buffer WITHOUT sending the bytes that wait in it: call psp_outputBuffFlush first.
 *
 *  @param buff  the buffer; null does nothing.
 *
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API void psp_outputBuffDestroy(psp_outputBuff *buff);

/** Puts a character. It is sent when the buffer is full and more bytes come, or by a flush.
 *
 *  @param buff   the buffer; not null.
 *  @param value  what to put.
 *  @return PSP_OKAY; PSP_ERR_INVARG; the transport's status, and then all bytes that were in the
 *          buffer go on waiting, perhaps with the first bytes of this value behind them.
 *
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API psp_status psp_outputBuffPutChar(psp_outputBuff *buff, char value);
/** Puts a 16-bit integer. As psp_outputBuffPutChar. Threads: one at a time. Start: that of the
 *  buffer. Memory: needs none. */
PSP_API psp_status psp_outputBuffPutInt16(psp_outputBuff *buff, int16_t value);
/** Puts a 32-bit integer. As psp_outputBuffPutChar. Threads: one at a time. Start: that of the
 *  buffer. Memory: needs none. */
PSP_API psp_status psp_outputBuffPutInt32(psp_outputBuff *buff, int32_t value);
/** Puts a 64-bit integer. As psp_outputBuffPutChar. Threads: one at a time. Start: that of the
 *  buffer. Memory: needs none. */
PSP_API psp_status psp_outputBuffPutInt64(psp_outputBuff *buff, int64_t value);
/** Puts a float. As psp_outputBuffPutChar. Threads: one at a time. Start: that of the buffer.
 *  Memory: needs none. */
PSP_API psp_status psp_outputBuffPutFloat32(psp_outputBuff *buff, float value);
/** Puts a double. As psp_outputBuffPutChar. Threads: one at a time. Start: that of the buffer.
 *  Memory: needs none. */
PSP_API psp_status psp_outputBuffPutFloat64(psp_outputBuff *buff, double value);

/** Puts the bytes of a string, without length and terminator.
 *
 *  @param buff    the buffer; not null.
 *  @param string  the string; not null.
 *  @return as psp_outputBuffPutChar.
 *
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API psp_status psp_outputBuffPutString(psp_outputBuff *buff, const char *string);

/** Puts a string with its length.
 *
 *  @param buff    the buffer; not null.
 *  @param string  the string, shorter than 4 GiB - 1; null is sent as a null string.
 *  @return as psp_outputBuffPutChar; PSP_ERR_INVARG, with nothing put, for a longer string.
 *
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API psp_status psp_outputBuffPutStringWithLength(psp_outputBuff *buff, const char *string);

/** Puts bytes without a look at them.
 *
 *  @param buff   the buffer; not null.
 *  @param data   the bytes; may be null if there are none.
 *  @param count  how many; 0 does nothing.
 *  @return as psp_outputBuffPutChar.
 *
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API psp_status psp_outputBuffPutBytes(psp_outputBuff *buff, const void *data, uint32_t count);

/** Sends the bytes that wait, if there are any, in one call of the write function.
 *
 *  @param buff  the buffer; not null.
 *  @return PSP_OKAY; PSP_ERR_INVARG for a null buffer; the transport's status, and then the bytes
 *          go on waiting.
 *
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API psp_status psp_outputBuffFlush(psp_outputBuff *buff);

/** Sends the bytes that wait and then, in one more call of the write function and without a copy,
 *  the caller's own: the way for large blocks.
 *
 *  @param buff   the buffer; not null.
 *  @param data   the bytes; may be null if there are none.
 *  @param count  how many; 0 does nothing and sends nothing.
 *  @return PSP_OKAY; PSP_ERR_INVARG; the status of the transport. If sending the waiting bytes
 *          failed they go on waiting and the others have not been touched.
 *
 *  Threads: one at a time. Start: that of the buffer. Memory: needs none. */
PSP_API psp_status psp_outputBuffSendDirect(psp_outputBuff *buff, const void *data, uint32_t count);

/* ---- INI configuration ------------------------------------------------------------------------
 * A file is read once into a process-wide store and answers lookups from there; an update rewrites
 * the file and reads it again. Names of sections and keys compare without regard to case, and of
 * two of one name the first counts. Names of files compare as the platform does (on POSIX byte for
 * byte), in the file store without regard to case; two spellings of one file are two entries.
 * Lookups and updates are serialised.
 *
 * The format: "[section]" lines and "key=value" lines; ";" starts a comment anywhere. Spaces around
 * the key's end and the value are dropped. Names keep their first 127 bytes.
 *
 * The file is never lost: an update writes and syncs "_temp_.ini" beside the file and replaces it
 * in one step; a failure or a crash at any moment leaves the old file or the new one. It keeps its
 * group and permissions, and its owner where the process may give it; of a symbolic link the target
 * is updated. Processes that update files of one directory wait for each other, up to 50 ms.
 *
 * Each function comes in four forms: plain (mode word 0), Ex, W and ExW (wide strings, none of them
 * null; a failed conversion gives PSP_ERR_NOMEMORY). */

/** Starts the module, if it is not started; psp_init does it.
 *
 *  @return PSP_OKAY; PSP_FAILED.
 *
 *  Threads: only while no other uses the family. Start: needed, else PSP_FAILED. Memory: if short,
 *  PSP_FAILED. */
PSP_API psp_status psp_iniInit(void);
/** Stops the module; psp_term does it. Threads: only while no other uses the family. Start: needed,
 *  else it does nothing. Memory: needs none. */
PSP_API void psp_iniTerm(void);
/** Empties the store. Threads: only while no other uses the family. Start: needed, else it does
 *  nothing. Memory: needs none. */
PSP_API void psp_iniCleanup(void);

/** Reads a file into the store, replacing what it holds of it; a file that cannot be read leaves an
 *  empty entry or none, and the next lookup reads it.
 *
 *  @param file  the file's name, under which lookups find it; null does nothing.
 *  @param mode  its PSP_FILE_ bits.
 *  @return always PSP_OKAY.
 *
 *  Threads: only while no other uses the family. Start: needed, else it does nothing. Memory: if
 *  short, as for a file that cannot be read. */
PSP_API psp_status psp_readIniFileEx(const char *file, uint16_t mode);
/** Reads a file of the disk into the store. As psp_readIniFileEx. Threads: only while no other uses
 *  the family. Start: needed, else it does nothing. Memory: if short, as there. */
PSP_API psp_status psp_readIniFile(const char *file);
/** Reads a file of the disk with a wide name into the store. As psp_readIniFileExW. Threads: only
 *  while no other uses the family. Start: needed, else PSP_ERR_NOMEMORY. Memory: if short, as
 *  there. */
PSP_API psp_status psp_readIniFileW(const psp_wchar *file);
/** Reads a file with a wide name into the store; one that cannot be read keeps its old entry.
 *
 *  @param file  the file's name, under which lookups find it.
 *  @param mode  its PSP_FILE_ bits.
 *  @return PSP_OKAY; PSP_ERR_INVARG for a null name; PSP_ERR_NOMEMORY when the name cannot be
 *          converted.
 *
 *  Threads: only while no other uses the family. Start: needed, else PSP_ERR_NOMEMORY. Memory: if
 *  short, PSP_ERR_NOMEMORY for the name, else PSP_OKAY with the old entry kept. */
PSP_API psp_status psp_readIniFileExW(const psp_wchar *file, uint16_t mode);

/** Looks a value up, or lists names.
 *
 *  @param file     the INI file.
 *  @param section  the section; null lists the sections.
 *  @param key      the key; null lists the section's keys.
 *  @param buffer   receives the value, or each name with its zero byte, and one zero byte more;
 *                  untouched by PSP_ERR_NOFILE and _INVARG.
 *  @param size     bytes of the buffer, at least 2.
 *  @param mode     the file's PSP_FILE_ bits.
 *  @return PSP_OKAY; PSP_FAILED when there is no such section or key; PSP_ERR_NOFILE;
 *          PSP_ERR_INVARG for a null file or buffer or a size below 2; PSP_ERR_BUFFERFULL when the
 *          result was cut (a value of L bytes needs a size of L + 3).
 *
 *  Threads: any. Start: needed, else PSP_ERR_NOFILE. Memory: if short, PSP_ERR_NOFILE with the
 *  store as before where the file had to be read; none is needed once the store holds it. */
PSP_API psp_status psp_iniGetEx(const char *file, const char *section, const char *key,
                                char *buffer, uint32_t size, uint16_t mode);
/** Looks up in a file of the disk. As psp_iniGetEx. Threads: any. Start: needed, else
 *  PSP_ERR_NOFILE. Memory: if short, as there. */
PSP_API psp_status psp_iniGet(const char *file, const char *section, const char *key, char *buffer,
                              uint32_t size);
/** Looks a value up, with wide strings, none of them null.
 *
 *  @param file,section,key  the file, the section and the key.
 *  @param buffer            receives the value; touched on PSP_OKAY only.
 *  @param size              units of the buffer, at least 2. A value of more units than the buffer
 *                           holds is cut without a sign as long as its UTF-8 is at most 4 * size -
 *                           3 bytes: give a buffer of a unit for each byte that a value can have.
 *  @param mode              the file's PSP_FILE_ bits.
 *  @return as psp_iniGetEx; PSP_ERR_INVARG for anything null; PSP_ERR_NOMEMORY when a string or the
 *          value cannot be converted.
 *
 *  Threads: any. Start: needed, else PSP_ERR_NOMEMORY. Memory: if short, PSP_ERR_NOMEMORY, or as
 *  psp_iniGetEx while the file is read. */
PSP_API psp_status psp_iniGetExW(const psp_wchar *file, const psp_wchar *section,
                                 const psp_wchar *key, psp_wchar *buffer, uint32_t size,
                                 uint16_t mode);
/** Looks a value up in a file of the disk, with wide strings. As psp_iniGetExW. Threads: any.
 *  Start: needed, else PSP_ERR_NOMEMORY. Memory: if short, as there. */
PSP_API psp_status psp_iniGetW(const psp_wchar *file, const psp_wchar *section,
                               const psp_wchar *key, psp_wchar *buffer, uint32_t size);

/** Looks a value up, or lists names: another name of the same. As psp_iniGetEx. Threads: any.
 *  Start: needed, else PSP_ERR_NOFILE. Memory: if short, as there. */
PSP_API psp_status psp_iniStringEx(const char *file, const char *section, const char *key,
                                   char *buffer, uint32_t size, uint16_t mode);
/** Looks up in a file of the disk. As psp_iniGetEx. Threads: any. Start: needed, else
 *  PSP_ERR_NOFILE. Memory: if short, as there. */
PSP_API psp_status psp_iniString(const char *file, const char *section, const char *key,
                                 char *buffer, uint32_t size);
/** Looks a value up, with wide strings. As psp_iniGetExW. Threads: any. Start: needed, else
 *  PSP_ERR_NOMEMORY. Memory: if short, as there. */
PSP_API psp_status psp_iniStringExW(const psp_wchar *file, const psp_wchar *section,
                                    const psp_wchar *key, psp_wchar *buffer, uint32_t size,
                                    uint16_t mode);
/** Looks a value up in a file of the disk, with wide strings. As psp_iniGetExW. Threads: any.
 *  Start: needed, else PSP_ERR_NOMEMORY. Memory: if short, as there. */
PSP_API psp_status psp_iniStringW(const psp_wchar *file, const psp_wchar *section,
                                  const psp_wchar *key, psp_wchar *buffer, uint32_t size);

/** Looks a number up: leading white space, a sign, digits; no digits give 0, and a number beyond 32
 *  bits the nearest.
 *
 *  @param file,section,key  the file, the section and the key, none of them null.
 *  @param number            receives it; untouched on any failure; not null.
 *  @param mode              the file's PSP_FILE_ bits.
 *  @return PSP_OKAY; PSP_FAILED when there is no such section or key; PSP_ERR_NOFILE;
 *          PSP_ERR_INVARG for anything null; PSP_ERR_BUFFERFULL for a value of more than 17 bytes.
 *          With wide strings, PSP_ERR_NOMEMORY when one cannot be converted.
 *
 *  Threads: any. Start: needed, else PSP_ERR_NOFILE. Memory: if short, as psp_iniGetEx. */
PSP_API psp_status psp_iniInt32Ex(const char *file, const char *section, const char *key,
                                  int32_t *number, uint16_t mode);
/** Looks a number up in a file of the disk. As psp_iniInt32Ex. Threads: any. Start: needed, else
 *  PSP_ERR_NOFILE. Memory: if short, as psp_iniGetEx. */
PSP_API psp_status psp_iniInt32(const char *file, const char *section, const char *key,
                                int32_t *number);
/** Looks a number up, with wide strings. As psp_iniInt32Ex. Threads: any. Start: needed, else
 *  PSP_ERR_NOMEMORY. Memory: if short, as psp_iniGetExW. */
PSP_API psp_status psp_iniInt32ExW(const psp_wchar *file, const psp_wchar *section,
                                   const psp_wchar *key, int32_t *number, uint16_t mode);
/** Looks a number up in a file of the disk, with wide strings. As psp_iniInt32Ex. Threads: any.
 *  Start: needed, else PSP_ERR_NOMEMORY. Memory: if short, as psp_iniGetExW. */
PSP_API psp_status psp_iniInt32W(const psp_wchar *file, const psp_wchar *section,
                                 const psp_wchar *key, int32_t *number);

/** Sets or removes a value in an existing file, keeping every other line.
 *
 *  A key's line is known here by its text up to "=", without a change: a line "key = 1", with a
 *  blank before "=", is another key's. A set then adds a line that lookups do not reach, since they
 *  take the first of a name, and a removal finds nothing; both give PSP_OKAY.
 *
 *  @param file     the INI file.
 *  @param section  the section, not null.
 *  @param key      the key; null removes the section.
 *  @param value    the value; null removes the key. Names and value are written without a change: a
 *                  line feed in them begins another line, and what a reader drops of a line (a
 *                  comment, spaces at the ends) it drops of them.
 *  @param mode     the file's PSP_FILE_ bits.
 *  @return PSP_OKAY; PSP_ERR_INVARG for a null file or section, and for anything null that is wide;
 *          PSP_ERR_NOMEMORY; PSP_ERR_NOFILE when the file or the temporary file cannot be opened,
 *          also when another process has the latter for too long and when "_temp_.ini" is a link or
 *          no file; PSP_ERR_REPLACEFILE when the new file could not be written whole or take the
 *          old one's place, which then stays.
 *
 *  Threads: any. Start: needed, else PSP_ERR_NOMEMORY or PSP_ERR_NOFILE. Memory: if short,
 *  PSP_ERR_NOMEMORY, PSP_ERR_NOFILE or, in the store, PSP_ERR_REPLACEFILE, with the file unchanged;
 *  if only the file's new entry finds none, PSP_OKAY, and the next lookup reads the file. */
PSP_API psp_status psp_iniSetEx(const char *file, const char *section, const char *key,
                                const char *value, uint16_t mode);
/** Sets or removes a value in a file of the disk. As psp_iniSetEx. Threads: any. Start: needed,
 *  else PSP_ERR_NOMEMORY or PSP_ERR_NOFILE. Memory: if short, as there. */
PSP_API psp_status psp_iniSet(const char *file, const char *section, const char *key,
                              const char *value);
/** Sets a value, with wide strings, none of them null. As psp_iniSetEx. Threads: any. Start:
 *  needed, else PSP_ERR_NOMEMORY. Memory: if short, as there. */
PSP_API psp_status psp_iniSetExW(const psp_wchar *file, const psp_wchar *section,
                                 const psp_wchar *key, const psp_wchar *value, uint16_t mode);
/** Sets a value in a file of the disk, with wide strings, none of them null. As psp_iniSetEx.
 *  Threads: any. Start: needed, else PSP_ERR_NOMEMORY. Memory: if short, as there. */
PSP_API psp_status psp_iniSetW(const psp_wchar *file, const psp_wchar *section,
                               const psp_wchar *key, const psp_wchar *value);

/* ---- Threads ----------------------------------------------------------------------------------
 * psp_threadBegin starts a thread; nobody waits for it (use a gate). When a thread ends, the locks
 * that it holds go to their next waiters. */

/* A running thread; valid only while it runs. */
typedef uintptr_t psp_threadHandle;

#define PSP_PRIORITY_LOWEST (-1)
#define PSP_PRIORITY_NORMAL 0
#define PSP_PRIORITY_HIGHEST 1

/** Starts a thread.
 *
 *  @param function  what it runs; its return ends the thread. Null gives PSP_FAILED.
 *  @param stack     bytes of its stack; 0 is the platform's own choice, less than 64 KiB or the
 *                   platform's least is the larger of these.
 *  @param argument  handed to the function.
 *  @return PSP_OKAY; PSP_FAILED after the message "Failed to create thread".
 *
 *  Owner: the argument is the function's. Threads: any. Start: not needed. Memory: if short,
 *  PSP_FAILED, no jump. */
PSP_API psp_status psp_threadBegin(void (*function)(void *), uint32_t stack, void *argument);

/** Starts a thread with a priority.
 *
 *  @param function,stack,argument  as in psp_threadBegin.
 *  @param handle    receives the thread; may be null. The thread may have ended by then.
 *  @param priority  as in psp_threadSetPriority; 0 leaves it normal. A refused one is not told.
 *  @param reserved  ignored.
 *  @return as psp_threadBegin.
 *
 *  Owner: the argument is the function's; the handle wants no giving back. Threads: any. Start: not
 *  needed. Memory: if short, PSP_FAILED, no jump. */
PSP_API psp_status psp_threadBeginEx(void (*function)(void *), uint32_t stack, void *argument,
                                     psp_threadHandle *handle, int32_t priority, int32_t reserved);

/** Sets the priority of a running thread.
 *
 *  @param thread    the thread.
 *  @param priority  PSP_PRIORITY_LOWEST, PSP_PRIORITY_HIGHEST; any other value is normal, the
 *                   process's own. On POSIX the two are 10 nice values off it.
 *  @return PSP_OKAY; PSP_FAILED when the platform refuses (raising wants a right on POSIX), also
 *          for a thread that has ended.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API psp_status psp_threadSetPriority(psp_threadHandle thread, int32_t priority);

/** Ends the calling thread. Does not return. Threads: any. Start: not needed. Memory: needs none.
 */
PSP_API void psp_threadEnd(void);

/** Would wait for a thread, which is not available.
 *
 *  @param thread  the thread; not looked at.
 *  @return always PSP_NOTSUPPORTED, at once.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API psp_status psp_threadJoin(psp_threadHandle thread);

/** Tells the platform's identifier of the calling thread.
 *
 *  @return the identifier.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API uint32_t psp_threadId(void);

/* ---- Message queues ---------------------------------------------------------------------------
 * Queues carry small messages, three words each, between the threads of the process. A queue has a
 * name, under which another thread finds it. Messages are read in the order in which they were
 * written; an urgent one goes in front of all others.
 *
 * The module is started and stopped by its users, inside psp_init and psp_term: psp_queueInit,
 * psp_queueTerm. Readers of one queue take turns: while one waits for a message, the others wait
 * for their turn without a time limit.
 *
 * A queue must not be deleted while another call on it is under way. A call is over for this rule
 * as soon as its effect is seen: whoever has read a message, or found the queue closed, may delete
 * the queue though the writer or closer has not returned yet. One reader may be waiting: a queue
 * that is deleted is closed first, and the reader leaves with PSP_QUEUE_CLOSED.
 *
 * A null queue is reported as "Invalid queue handle" and nothing else is done. A queue that got no
 * name for lack of memory is reported so by each write, read and purge, and works. */

typedef struct psp_queue psp_queue;

#define PSP_QUEUE_URGENT 0x2u                       /* psp_queueWrite: in front of all others */
#define PSP_QUEUE_CLOSED 3                          /* psp_queueRead: the queue is closed */
#define PSP_QUEUE_ALL_TYPES ((psp_word)UINTPTR_MAX) /* psp_queuePurge: every message */

/** Starts the module, if it is not started.
 *
 *  @param reset  not 0: end all queues that exist first, as psp_queueTerm(1).
 *  @return PSP_OKAY; PSP_FAILED when the library is not started.
 *
 *  Threads: any. Start: needed, else PSP_FAILED. Memory: needs none. */
PSP_API psp_status psp_queueInit(int16_t reset) PSP_MUST_USE;

/** Stops the module. It must run before the last psp_term.
 *
 *  @param force  0 does nothing while queues exist; anything else deletes them, under the rule of
 *                psp_queueDelete.
 *
 *  Threads: any. Start: needed, else it does nothing. Memory: needs none. */
PSP_API void psp_queueTerm(int16_t force);

/** Makes a queue.
 *
 *  @param name  its name, which is copied; null is "". Names need not be unique.
 *  @return the queue; null when the module is not started, too.
 *
 *  Owner: the caller, until psp_queueDelete or psp_queueTerm. Threads: any. Start: needed, else
 *  null. Memory: if short, null; a name that alone finds none is left out: such a queue is never
 *  found and lasts until psp_queueTerm. */
PSP_API psp_queue *psp_queueCreate(const char *name) PSP_MUST_USE;

/** Deletes a queue with its messages, closing it first. No other call on the queue may be under
 *  way, except one waiting psp_queueRead.
 *
 *  @param queue  the queue; null does nothing. One that does not exist (any more) is not touched;
 *                "Deleted too many queues" is logged.
 *
 *  Threads: any. Start: needed, else as for a queue that does not exist. Memory: needs none. */
PSP_API void psp_queueDelete(psp_queue *queue);

/** Finds a queue by its name, byte for byte.
 *
 *  @param name  the name; null finds none.
 *  @return the queue of that name that was made last; null when there is none.
 *
 *  Owner: whoever made it; it is not protected against its deletion. Threads: any. Start: needed,
 *  else null. Memory: needs none. */
PSP_API psp_queue *psp_queueFind(const char *name);

/** Writes a message. It is dropped when the queue is closed.
 *
 *  @param queue            the queue; null is reported.
 *  @param data,extra,type  the message; only psp_queuePurge looks at type.
 *  @param flags            PSP_QUEUE_URGENT or 0; other bits are ignored.
 *
 *  Threads: any. Start: that of the queue. Memory: if short, the message is dropped after "Out of
 *  memory"; a jump does not come. */
PSP_API void psp_queueWrite(psp_queue *queue, psp_word data, psp_word extra, psp_word type,
                            uint32_t flags);

/** Takes the first message, waiting for one.
 *
 *  @param queue       the queue; null is reported.
 *  @param data        receives the message's data; not null.
 *  @param extra,type  receive the rest; each may be null. All three are stored on PSP_OKAY only.
 *  @param limit       the longest wait in milliseconds, counted from the reader's turn; 0 does not
 *                     wait for a message, PSP_NO_LIMIT waits as long as it takes.
 *  @return PSP_OKAY; PSP_TIMEOUT; PSP_QUEUE_CLOSED, messages or not; PSP_FAILED when the queue is
 *          empty and limit is 0, when the queue or data is null, and when the queue was emptied by
 *          a purge between the wake-up and the look ("unexpected empty queue on NAME" is logged;
 *          of a name that is longer than 255 bytes the characters that fit there).
 *
 *  Threads: any. Start: that of the queue. Memory: needs none. */
PSP_API psp_status psp_queueRead(psp_queue *queue, psp_word *data, psp_word *extra, psp_word *type,
                                 uint32_t limit) PSP_MUST_USE;

/** Removes messages. A closed queue keeps what it has.
 *
 *  @param queue  the queue; null is reported.
 *  @param type   the type of those that go; PSP_QUEUE_ALL_TYPES removes every message.
 *
 *  Threads: any. Start: that of the queue. Memory: needs none. */
PSP_API void psp_queuePurge(psp_queue *queue, psp_word type);

/** Closes a queue for good: later and waiting reads give PSP_QUEUE_CLOSED, writes are dropped.
 *
 *  @param queue  the queue; null is reported.
 *
 *  Threads: any. Start: that of the queue. Memory: needs none. */
PSP_API void psp_queueClose(psp_queue *queue);

/** Tells the number of messages in the queue, closed or not.
 *
 *  @param queue  the queue; null has none.
 *  @return the number.
 *
 *  Threads: any. Start: that of the queue. Memory: needs none. */
PSP_API uint32_t psp_queueCount(psp_queue *queue);

/* ---- Time, environment and process ------------------------------------------------------------
 * Thin wrappers. */

/** Suspends the calling thread, no shorter than told.
 *
 *  @param milliseconds  how long; 0 yields.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API void psp_sleep(uint32_t milliseconds);

/** Tells the process identifier.
 *
 *  @return the identifier.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API int32_t psp_get_pid(void);

/** Prepares running in the background: nothing to do, a service manager does it.
 *
 *  @param first,second  ignored.
 *  @return always PSP_OKAY.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API psp_status psp_daemonStart(int32_t first, int32_t second);
/** Ends the preparation; does nothing.
 *
 *  @param value  ignored.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API void psp_daemonComplete(int32_t value);

/** Tells the calendar time, for seeding a random generator. As psp_timeSecs. Threads: any. Start:
 *  not needed. Memory: needs none. */
PSP_API int64_t psp_seed(void);
/** Tells the calendar time.
 *
 *  @return seconds since 1970-01-01 UTC.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API int64_t psp_timeSecs(void);
/** Tells the calendar time in milliseconds.
 *
 *  @return the milliseconds since 1970-01-01 UTC, modulo 2^32.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API uint32_t psp_timeMilliSecs(void);
/** Tells a monotonic time.
 *
 *  @return nanoseconds since some point; 0 when the platform has none.
 *
 *  Threads: any. Start: not needed. Memory: needs none. */
PSP_API uint64_t psp_timeNanoSecs(void);

/** Converts a calendar time to local time.
 *
 *  @param time    seconds since 1970-01-01 UTC.
 *  @param result  receives the nine fields.
 *  @return result; null when it is null or the time cannot be converted.
 *
 *  Owner: that of the result. Threads: any. Start: not needed. Memory: needs none. */
PSP_API struct tm *psp_timeLocaltime(int64_t time, struct tm *result);

/** Tells a calendar time as text, in local time, as ctime gives it, with its newline.
 *
 *  @param time  seconds since 1970-01-01 UTC.
 *  @return the text; null when the time cannot be converted.
 *
 *  Owner: the C runtime, until the next such call of any thread. Threads: one at a time in the
 *  process. Start: not needed. Memory: needs none. */
PSP_API const char *psp_timeCtime(int64_t time);

/** Tells the value of an environment variable.
 *
 *  @param name  the variable; null is not set.
 *  @return the text; null when it is not set.
 *
 *  Owner: the C runtime, until somebody changes the environment. Threads: any, while nobody changes
 *  the environment. Start: not needed. Memory: needs none. */
PSP_API const char *psp_getenv(const char *name);
/** Tells the value of an environment variable as a wide string.
 *
 *  @param name  the variable; null is not set.
 *  @return the text; null when it is not set or not UTF-8, too.
 *
 *  Owner: the library, until the last psp_term. Threads: any, while nobody changes the environment.
 *  Start: not needed. Memory: if short, null, no jump. */
PSP_API const psp_wchar *psp_getenvW(const psp_wchar *name);

/** Sets or queries the locale of the process. Numbers and meaning are the C runtime's.
 *
 *  @param category  LC_ALL and its relatives of the C runtime's locale.h.
 *  @param name      the locale; null queries.
 *  @return the text of the locale; null when it does not exist.
 *
 *  Owner: the C runtime, until the next such call. Threads: one at a time; to set it, only while no
 *  other thread formats or converts. Start: not needed. Memory: needs none. */
PSP_API const char *psp_setlocale(int32_t category, const char *name);
/** Sets or queries the locale of the process, with wide strings.
 *
 *  @param category  as in psp_setlocale.
 *  @param name      the locale; null queries.
 *  @return the text of the locale; null when it does not exist or is not UTF-8, too.
 *
 *  Owner: the library, until the last psp_term. Threads: one at a time; to set it, only while no
 *  other thread formats or converts. Start: not needed. Memory: if short, null, no jump; the locale
 *  may have been set. */
PSP_API const psp_wchar *psp_setlocaleW(int32_t category, const psp_wchar *name);

/** Installs the function that an interrupt calls, or removes it.
 *
 *  Interrupts are SIGINT, SIGTERM and SIGHUP on POSIX, console control events on Windows. The
 *  handler runs on a thread of its own, never inside a signal, and may use the whole library. It
 *  may install and remove handlers, itself included.
 *
 *  On POSIX one thread makes the calls one after the other. An interrupt that no handler was called
 *  for yet goes to what a removal restores. In a forked child interrupts do what they did before
 *  the handler was installed, until the child installs one itself.
 *
 *  @param handler  the function; it replaces an earlier one. Null removes it and restores what the
 *                  interrupts did before, save where the client has changed that since.
 *  @return PSP_OKAY; PSP_FAILED when the platform refuses, and then nothing is changed.
 *
 *  Owner: the library calls the handler until it is replaced or removed. Threads: any. Start: not
 *  needed. Memory: if short, PSP_FAILED and nothing is changed, no jump. */
PSP_API psp_status psp_handleInterrupt(void (*handler)(void));

/* ---- Services ---------------------------------------------------------------------------------
 * A program with one main function that runs from a console or as a service of the system's manager
 * (systemd on Linux, the service control manager on Windows). Whether a name is installed is a
 * counter that psp_serviceInstall raises and psp_serviceUninstall lowers, on Linux a file under
 * /var/lib. A process can be one service at a time. */

/* What a service does: it calls psp_serviceStarted when it is ready, polls its stop flag, calls
 * psp_serviceDone and returns. Both calls are due on every way out of it, failures included: the
 * manager waits for them. */
typedef int32_t (*psp_serviceMain)(psp_word first, psp_word second);

/** Runs the main function: as a service on a thread of its own if the name is installed and the
 *  manager started this process, otherwise at once in the calling thread.
 *
 *  As a service, a stop or a shutdown sets the stop flag; on Linux that is SIGTERM, which then
 *  reaches no handler of psp_handleInterrupt until the service has ended, and does what it did
 *  before after that. The log functions write to the log alone from then on. On Linux the manager's
 *  NOTIFY_SOCKET leaves the environment, so that programs which the service starts run directly.
 *
 *  @param name          the counter's name.
 *  @param stopFlag      set to 1 by a stop, from another thread, as an atomic store: read it as an
 *                       atomic word. May be null.
 *  @param first,second  handed to main.
 *  @param main          the main function.
 *  @return 0 after a service, be it that it could not be run; otherwise what main returned;
 *          PSP_FAILED for a null main.
 *
 *  Owner: the caller, who keeps name and stopFlag until the return. Threads: any, but a second
 *  service of the process is not run. Start: not needed. Memory: if short, a service is not run,
 *  which gives 0; no jump. */
PSP_API int32_t psp_serviceStart(const char *name, uint16_t *stopFlag, psp_word first,
                                 psp_word second, psp_serviceMain main);

/** Tells the manager that the service is ready. Does nothing outside a service. Threads: any.
 *  Start: not needed. Memory: needs none. */
PSP_API void psp_serviceStarted(void);

/** Tells the manager that the service is about to end; it has ended when main returns. Does nothing
 *  outside a service. Threads: any. Start: not needed. Memory: needs none. */
PSP_API void psp_serviceDone(void);

/** Installs a service that starts with the system, and starts it. Waits for no start.
 *
 *  On Linux it writes the unit /etc/systemd/system/NAME.service. Characters that a unit's name
 *  cannot hold are escaped there; slashes, backslashes and control characters are refused, as are
 *  control characters in the command line. A unit of that name, wherever it lies, is never changed.
 *  The service is told of stops only if it calls psp_serviceStart with the counter's name; one that
 *  has not called it after 90 seconds is ended.
 *
 *  @param counterName       the name that the program gives to psp_serviceStart.
 *  @param serviceName       the name by which the manager knows the service.
 *  @param displayName       its title.
 *  @param description       more about it; null for none.
 *  @param programPath       the program, with an absolute path; quotes around it are dropped. On
 *                           Linux a bare name is looked for by the manager, and any other path is
 *                           refused.
 *  @param programArguments  separated by blanks; double quotes keep blanks inside an argument, and
 *                           a backslash before a double quote makes it a character. Null is none.
 *  @return PSP_OKAY, even if the service could not be counted or started; PSP_NOACCESS when the
 *          caller may not manage services; PSP_FAILED for anything else (no manager, the name is
 *          taken, a text is refused or not UTF-8), and then nothing is left behind.
 *
 *  Threads: any, and processes at the same time. Start: needed, else PSP_FAILED. Memory: if short,
 *  PSP_FAILED and nothing is left behind. */
PSP_API psp_status psp_serviceInstall(const char *counterName, const char *serviceName,
                                      const char *displayName, const char *description,
                                      const char *programPath, const char *programArguments);

/** Stops and removes a service. Waits for its end where the manager tells it (on Linux it does);
 *  but a program that runs as a service may remove itself, so that it only asks for the stop. A
 *  service that the manager does not stop is removed all the same.
 *
 *  @param counterName,serviceName  as in psp_serviceInstall.
 *  @return PSP_OKAY; PSP_NOSERVICE when there is no such service; PSP_NOACCESS; PSP_FAILED for
 *          anything else. The counter is lowered on PSP_OKAY alone.
 *
 *  Threads: any, and processes at the same time. Start: not needed. Memory: needs none. */
PSP_API psp_status psp_serviceUninstall(const char *counterName, const char *serviceName);

/* ---- Parser engine ----------------------------------------------------------------------------
 * An LALR(1) parser that runs over the tables of a classic yacc. The client brings the tables, a
 * lexer and an action for each rule; tools/make_parser_tables makes a header with the tables from
 * a grammar. The engine keeps nothing between parses and no state of its own.
 *
 * A grammar recovers from a syntax error where it has a rule with the token "error": the engine
 * goes back to the latest place that such a rule fits, takes "error" for a token that stood there,
 * and drops tokens until one fits. A parse that finds no such place is abandoned. Let a token
 * follow "error" in its rule: a rule found behind an error ends the dropping, and one that needs no
 * token for that can be found again and again, for the same token that does not fit. */

/** What a yacc writes for a grammar. The engine trusts the tables: they belong together and are
 *  whole. Only the pointers to them may not be null. */
typedef struct {
  int16_t errorToken;    /* number of the token "error" (YYERRCODE) */
  int16_t actionLength;  /* entries of yyact (YYLAST) */
  const int16_t *yyexca; /* exceptions: -1, state, then pairs of token and action up to a negative
                            token with the default action */
  const int16_t *yyact;  /* next states */
  const int16_t *yypact; /* per state: offset into yyact for tokens; -1000: default action only */
  const int16_t *yypgo;  /* per nonterminal: offset into yyact for states */
  const int16_t *yyr1;   /* per rule: its nonterminal */
  const int16_t *yyr2;   /* per rule: its number of symbols */
  const int16_t *yychk;  /* per state: the symbol that leads there, nonterminals negative */
  const int16_t *yydef;  /* per state: rule to reduce by default; 0: syntax error, -2: yyexca, less
                            than 0 otherwise, there too: the input is accepted */
} psp_yyTables;

/** One parse. The engine reads it and changes nothing in it.
 *
 *  The functions are called with no lock held and may use the whole library, parse included. One
 *  that leaves by longjmp leaves the memory of a parse without a tag to the last psp_term: give
 *  such a parse a tag of its own. */
typedef struct {
  /** Bytes of one semantic value; 0 where there are none. Values are moved as bytes. They stand
   *  behind each other in an array that is aligned for any type. */
  uint32_t valueSize;
  /** Handed to the functions. */
  void *context;
  const psp_yyTables *tables;
  /** Gives the next token.
   *  @param value  receives the token's value; it holds the last one's.
   *  @return the token's number, of which the lower 16 bits count; negative or 0 at the end of
   *          input. */
  int32_t (*lexer)(void *context, void *value);
  /** Called for each rule that was found, after the rules of its parts.
   *  @param last    value of the last symbol of the rule; the values of the symbols before it stand
   *                 directly below. Valid during the call.
   *  @param rule    the rule's number, from 1, in the order of the grammar.
   *  @param result  the rule's own value, which is that of its first symbol unless the function
   *                 changes it; for a rule without symbols it is unspecified until then.
   *  @return 0 to go on; anything else ends the parse with this result. */
  int16_t (*action)(void *context, void *last, int16_t rule, void *result);
  /** Called once if the parse is abandoned, when a private tag is gone already; may be null. */
  void (*error)(void *context);
  /** Owner of the parse's memory; null: a private tag, made only when memory is needed and gone
   *  when the parse ends. A tag keeps four blocks (states, values, result, lookahead) for the
   *  client to release with it. Used by parses of several threads, it must be thread-safe. */
  psp_tag *tag;
} psp_yyContext;

/** Parses one input. Its depth is limited by memory alone.
 *
 *  @param context  the parse.
 *  @return 0 when the input was accepted; 3 when a syntax error was met that no rule takes (after
 *          error was called), or the input ended while one was being recovered from (error is not
 *          called); PSP_NOMEMORY, the same number, when memory is short (error is not called);
 *          PSP_ERR_INVARG when context, tables, lexer or action is null; else what action returned.
 *
 *  Threads: any; the context, and a tag without a lock, one at a time. Start: needed, else
 *  PSP_NOMEMORY as soon as the parse wants memory. Memory: if short, PSP_NOMEMORY; everything
 *  taken, from a client's tag too, has been given back. */
PSP_API int16_t psp_yyparse(const psp_yyContext *context);

#if defined(__cplusplus)
}
#endif

#endif
