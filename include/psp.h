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
 *   its failure result, having changed nothing. If the tag concerned is armed (psp_createTagEx,
 *   psp_resetTag), control returns to the armed point instead, from the outermost psp_ function,
 *   after everything that this function had taken has been given back.
 * - "Any thread" means: may run at the same time in any number of threads. "One thread at a time"
 *   means: calls that name the same object must not overlap.
 * - After a failed call psp_errno tells the platform's code; cleaning up never changes it.
 *
 * Fork: a child may go on using memory, files, streams and log if no other thread of its parent
 * was inside the library or held one of its locks at the moment of the fork.
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
 * stay on until the process ends. */

/** Starts the library, or counts one more start when it is started already.
 *
 *  @return PSP_OKAY; PSP_FAILED when a module could not start, and then everything is as before.
 *  Works without a start. Any thread. */
PSP_API psp_status psp_init(void) PSP_MUST_USE;

/** Counts one stop; the one that matches the first psp_init stops the library.
 *
 *  No other thread may be inside the library at the last stop. A call too many does nothing.
 *  Works without a start. Any thread. */
PSP_API void psp_term(void);

/** Switches read-only mode on for the rest of the process: disk files are opened only for reading,
 *  and writes to disk files and to the standard channels write nothing and give 0.
 *
 *  Works without a start. Any thread. */
PSP_API void psp_rdonly(void);

/** Switches no-disk mode on for the rest of the process: operations on the disk fail as if there
 *  were none. Handles opened before go on working.
 *
 *  Works without a start. Any thread. */
PSP_API void psp_nodisk(void);

/** Tells the version of the loaded library: 11, 0, 586.
 *
 *  @param major,minor,build  where to store the numbers; each may be null.
 *  Works without a start. Any thread. */
PSP_API void psp_version(uint16_t *major, uint16_t *minor, uint16_t *build);

/** Tells whether the process runs under a memory-checking tool that the library knows.
 *
 *  @return always 0.
 *  Works without a start. Any thread. */
PSP_API int32_t psp_isPurifyRunning(void);

/** The platform's last error code of the calling thread: errno on POSIX, GetLastError on Windows.
 *
 *  Works without a start. Any thread. */
PSP_API uint32_t psp_errno(void);

/** Writes the text and a newline to the C runtime's standard output, past all channels.
 *
 *  @param text  what to write; null writes an empty line.
 *  Works without a start. Any thread. */
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
 *  @param jump   a filled jump buffer, which is copied, to arm the tag; null leaves it unarmed.
 *  @param flags  PSP_TAG_THREADSAFE or 0; other bits are ignored.
 *  @param file,line  the caller's source position; not used at present.
 *  @return the tag; PSP_TAG_FAILED (not null) when the library is not started or memory is short.
 *  Ended by psp_freeTagMemory(tag, 1). Any thread. */
PSP_API psp_tag *psp_createTagEx(jmp_buf *jump, uint32_t flags, const char *file,
                                 uint32_t line) PSP_MUST_USE;

/** Arms the tag with a copy of the jump buffer, or disarms it.
 *
 *  @param jump  a filled jump buffer; null disarms.
 *  @param tag   the tag; null is the default tag.
 *  Does nothing when the library is not started. Thread rule of the tag. */
PSP_API void psp_resetTag(jmp_buf *jump, psp_tag *tag);

/** Releases all blocks of a tag.
 *
 *  @param tag      the tag; null and PSP_TAG_FAILED do nothing, the default tag is the library's.
 *  @param release  0 keeps the empty tag; anything else ends it, and no other thread may use it.
 *  Does nothing when the library is not started. Thread rule of the tag. */
PSP_API void psp_freeTagMemory(psp_tag *tag, int16_t release);

/** Obtains a block, aligned for any type.
 *
 *  @param size    bytes; 0 gives null without a message in the modes that use it.
 *  @param tag     the owner; null is the default tag.
 *  @param mode    PSP_MEM_ALLOC to PSP_MEM_WSTRDUP; any other value gives null without a message.
 *  @param source  what to copy in modes 3 to 5, not null there; else ignored.
 *  @param file,line  the caller's source position, for the message. The text must outlive the call.
 *  @return the block; null when the library is not started or memory is short (after the message
 *          "Out of memory. Called from FILE:LINE"; an armed tag jumps instead).
 *  Released by psp_freeMem with the same tag, or with the tag. Thread rule of the tag. */
PSP_API void *psp_getMem(size_t size, psp_tag *tag, uint32_t mode, const void *source,
                         const char *file, uint32_t line) PSP_MUST_USE;

/** Changes the size of a block, moving it if need be.
 *
 *  @param pointer     a block of the tag; null obtains a new one, zero-filled if zero is set.
 *  @param size        the new size in bytes; 0 keeps an empty block, or gives null for no pointer.
 *  @param tag         the block's tag; null is the default tag.
 *  @param zero        not 0: set the last zero_count bytes of the new size to zero.
 *  @param zero_count  bytes to clear, normally those added; more than size clears size bytes.
 *  @param file,line   as in psp_getMem.
 *  @return the block, perhaps at another address; null when the library is not started, the pointer
 *          is no live block or memory is short. The old block is untouched then.
 *  Thread rule of the tag. */
PSP_API void *psp_extendMem(void *pointer, size_t size, psp_tag *tag, int32_t zero,
                            size_t zero_count, const char *file, uint32_t line) PSP_MUST_USE;

/** Releases a block.
 *
 *  @param pointer  the block; null does nothing. A pointer that is no live block (released already,
 *                  or never the library's) is left alone after the message "Attempting to free
 *                  previously freed memory" on the C runtime's standard output.
 *  @param tag      the block's tag; null is the default tag.
 *  Does nothing when the library is not started. Thread rule of the tag. */
PSP_API void psp_freeMem(void *pointer, psp_tag *tag);

/** Hands a block from one tag to another; its address stays.
 *
 *  @param pointer      the block; null and pointers that are no live block do nothing.
 *  @param destination  the new tag; null is the default tag.
 *  @param source       the block's tag; null is the default tag. Equal arguments do nothing.
 *  Does nothing when the library is not started. Thread rules of both tags, whose locks are never
 *  held together. */
PSP_API void psp_moveMemTag(void *pointer, psp_tag *destination, psp_tag *source);

/** Compares two byte ranges as unsigned bytes.
 *
 *  @param first,second  the ranges.
 *  @param length        bytes of each; 0 compares equal.
 *  @return -1, 0 or 1 as the first range is smaller, equal or larger.
 *  Works without a start. Any thread. */
PSP_API int32_t psp_memCmp(const void *first, const void *second, size_t length);

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
 *  @return the pool; null when the library is not started or memory is short.
 *  Ended by psp_zFreePool, or with its tag; then its lock lasts until the last psp_term. */
PSP_API psp_pool *psp_allocPool(psp_tag *tag, uint16_t fixed_size,
                                uint32_t thread_safe) PSP_MUST_USE;

/** Obtains a chunk, aligned for any type.
 *
 *  @param size    bytes.
 *  @param pool    the pool; null gives null.
 *  @param mode    PSP_MEM_ZERO clears size bytes; PSP_MEM_COPY copies size bytes from source; any
 *                 other value leaves the content as it is.
 *  @param source  what PSP_MEM_COPY copies; null gives null there.
 *  @param file,line  the caller's source position, as in psp_getMem.
 *  @return the chunk; null when the library is not started or memory is short, after the message of
 *          psp_getMem; an armed tag jumps instead.
 *  Given back by psp_putInPool, or released with the tag. Thread rule of the pool. */
PSP_API void *psp_getMemFromPool(size_t size, psp_pool *pool, uint32_t mode, const void *source,
                                 const char *file, uint32_t line) PSP_MUST_USE;

/** Gives a chunk back; it is released when 1000 wait already.
 *
 *  @param pointer  a chunk; null does nothing. "Attempting to put a memory chunk into a pool that
 *                  didn't create it" is logged for anything but a chunk that this pool handed out:
 *                  another pool's chunk becomes one of this pool and its tag, and this pool checks
 *                  sizes from then on; a chunk that waits already is left alone.
 *  @param pool     the pool; null does nothing.
 *  Thread rule of the pool. */
PSP_API void psp_putInPool(void *pointer, psp_pool *pool);

/** Ends a pool with its waiting chunks. Those handed out stay blocks of the tag and must not be
 *  given back any more.
 *
 *  @param pool  the variable that holds the pool; set to null. Null, there or in it, does nothing.
 *  Nobody may use the pool meanwhile or afterwards. */
PSP_API void psp_zFreePool(psp_pool **pool);

/* ---- Sync objects -----------------------------------------------------------------------------
 * A sync object is an exclusive lock or a gate, made by psp_syncCreate_check and ended by
 * psp_syncDelete. All functions may be called by any thread, except that nobody may use an object
 * while it is deleted or afterwards. A process can have 131,072 of them.
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
 *  @param kind  PSP_SYNC_EXCL or PSP_SYNC_EVENT.
 *  @param file,line  the caller's source position, for the message.
 *  @return the object; PSP_SYNC_NONE when the library is not started, the kind is another, memory
 *          is short, or all 131,072 exist ("Insufficient number of semaphores, called from
 *          FILE:LINE" is logged then).
 *  Ended by psp_syncDelete, at the latest by the last psp_term. Any thread. */
PSP_API psp_sync psp_syncCreate_check(int16_t kind, const char *file, uint32_t line) PSP_MUST_USE;

/** Ends a sync object. Nobody may hold it, wait for it or use it any more.
 *
 *  @param object  a live object; PSP_SYNC_NONE and null do nothing. */
PSP_API void psp_syncDelete(psp_sync object);

/** Enters an exclusive lock, waiting as long as it takes. Each enter wants one exit.
 *
 *  @param object  a lock; a gate, PSP_SYNC_NONE and null do nothing. */
PSP_API void psp_syncEnterExcl(psp_sync object);

/** Leaves one level of an exclusive lock.
 *
 *  @param object  a lock; nothing happens if the calling thread does not hold it, nor for a gate,
 *                 PSP_SYNC_NONE and null. */
PSP_API void psp_syncExitExcl(psp_sync object);

/** Waits until a gate is open.
 *
 *  @param object        a gate.
 *  @param milliseconds  the longest time to wait; 0 only looks, PSP_NO_LIMIT waits for ever.
 *  @return PSP_OKAY when open (and at once for any object that is no gate); PSP_TIMEOUT when the
 *          limit has passed; PSP_FAILED when the platform cannot wait. */
PSP_API psp_status psp_syncWait(psp_sync object, uint32_t milliseconds);

/** Closes a gate: later waits block.
 *
 *  @param object  a gate; anything else does nothing. */
PSP_API void psp_syncStart(psp_sync object);

/** Opens a gate and lets every waiter through.
 *
 *  @param object  a gate; anything else does nothing. */
PSP_API void psp_syncResume(psp_sync object);

/** Enters the process-wide critical section, a recursive lock that guards one-time set-ups.
 *
 *  Works without a start. Any thread. It is not given up when its holder's thread ends. */
PSP_API void psp_enterCritSec(void);

/** Leaves one level of the process-wide critical section; nothing if the thread is not inside.
 *
 *  Works without a start. Any thread. */
PSP_API void psp_exitCritSec(void);

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
 * The decimal point is the C runtime's locale's. No conversion allocates. All functions work in any
 * thread. */

/** Formats into a buffer.
 *
 *  @param buffer  where to store; null only measures.
 *  @param size    bytes of the buffer, the terminator included; at most size - 1 characters are
 *                 stored, and a size of 1 or more always gets a terminator.
 *  @param format  the format.
 *  @param arguments  the values that the format names.
 *  @return the characters that the whole text needs, without the terminator; -1 for a null format,
 *          a width or precision above 2^31 - 1, a floating value out of its notation's range (the
 *          text ends before the directive then), or a text of 2^31 - 1 characters or more.
 *  Works without a start. */
PSP_API int32_t psp_vsnprintf(char *buffer, size_t size, const char *format, va_list arguments);

/** psp_vsnprintf with the values as arguments. */
PSP_API int32_t psp_snprintf(char *buffer, size_t size, const char *format, ...);

/** Formats into a new string of the tag.
 *
 *  @param tag     the owner; null is the default tag.
 *  @param format  as in psp_vsnprintf.
 *  @return the string, released with psp_freeMem(string, tag); null when formatting fails or memory
 *          is short. */
PSP_API char *psp_makeStr(psp_tag *tag, const char *format, ...) PSP_MUST_USE;

/** psp_makeStr under the default tag. */
PSP_API char *psp_makeString(const char *format, ...) PSP_MUST_USE;

/** psp_makeStr with the source position that an out-of-memory message names. */
PSP_API char *psp_makeStrVA(const char *file, uint32_t line, psp_tag *tag, const char *format,
                            ...) PSP_MUST_USE;

/* ---- Random numbers ---------------------------------------------------------------------------
 * Independent pseudo-random generators (MT19937). A seed gives the published sequence of that
 * generator on every platform. They are for tests and simulations, not for secrets. A generator is
 * used by one thread at a time; drawing needs no started library, but a generator lives no longer
 * than the last psp_term. */

typedef struct psp_rand psp_rand;

/** Makes a generator.
 *
 *  @param seed  its seed; 0 stands for 2381394812.
 *  @return the generator; null when the library is not started or memory is short.
 *  Ended by psp_randDestroy. */
PSP_API psp_rand *psp_randCreate(uint32_t seed) PSP_MUST_USE;

/** Ends a generator; null does nothing. */
PSP_API void psp_randDestroy(psp_rand *generator);

/** Starts the generator's sequence anew.
 *
 *  @param seed  its seed; 0 stands for itself. */
PSP_API void psp_randResetSeed(psp_rand *generator, uint32_t seed);

/** The low 15 bits of the next number: 0 to 32767. The generator of this and the functions below is
 *  not null. */
PSP_API int32_t psp_randGet(psp_rand *generator);
/** The next number: 0 to 2^32 - 1. */
PSP_API uint32_t psp_randGetUInt32(psp_rand *generator);
/** The next two numbers: the first in the high 32 bits, the second in the low ones. */
PSP_API uint64_t psp_randGetUInt64(psp_rand *generator);
/** The next number divided by 2^32 - 1: 0 to 1, both included. */
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
 * differently.
 *
 * The buffer functions work without a start; all work in any thread. */

#define PSP_UTF8_STRICT 0u
#define PSP_UTF8_REPLACE 1u

/** Converts a zero-terminated wide string to UTF-8.
 *
 *  @param destination  bytes, or null to measure.
 *  @param source       the wide string, not null.
 *  @param size         bytes of the destination, the terminator included.
 *  @param mode         PSP_UTF8_STRICT or PSP_UTF8_REPLACE.
 *  @return bytes stored or needed, the terminator included; -1 when the source is invalid, or a
 *          replacement for a held high surrogate finds no room, or the result would pass 2^31 - 1.
 *          After -1 the destination holds what came before, without a terminator. */
PSP_API int32_t psp_wchar_to_utf8(char *destination, const psp_wchar *source, uint32_t size,
                                  uint32_t mode);

/** Converts count units, zero units included. Otherwise as psp_wchar_to_utf8. */
PSP_API int32_t psp_wchar_to_utf8_len(char *destination, uint32_t size, const psp_wchar *source,
                                      uint32_t count, uint32_t mode);

/** Converts a zero-terminated UTF-8 string to UTF-16.
 *
 *  @param destination  units, or null to measure.
 *  @param source       the UTF-8 string, not null.
 *  @param size         units of the destination, the terminator included.
 *  @param mode         PSP_UTF8_STRICT or PSP_UTF8_REPLACE.
 *  @return units stored or needed, the terminator included; -1 when the source is invalid, or a
 *          replacement for a sequence cut short by the end finds no room, or the result would pass
 *          2^31 - 1. A character that does not fit is dropped, and a later shorter one may still
 *          take the remaining place. */
PSP_API int32_t psp_utf8_to_wchar(psp_wchar *destination, const char *source, uint32_t size,
                                  uint32_t mode);

/** Converts count bytes, zero bytes included. Otherwise as psp_utf8_to_wchar. */
PSP_API int32_t psp_utf8_to_wchar_len(psp_wchar *destination, uint32_t size, const char *source,
                                      uint32_t count, uint32_t mode);

/** Converts a wide string to a new UTF-8 string of the default tag.
 *
 *  @param source  the wide string, not null.
 *  @param mode    PSP_UTF8_STRICT or PSP_UTF8_REPLACE.
 *  @return the string, released with psp_freeMem(string, NULL); null when the source is invalid,
 *          memory is short or the library is not started. */
PSP_API char *psp_convertToUTF8(const psp_wchar *source, uint32_t mode) PSP_MUST_USE;

/** Converts a UTF-8 string to a new wide string of the default tag. As psp_convertToUTF8. */
PSP_API psp_wchar *psp_convertToWchar(const char *source, uint32_t mode) PSP_MUST_USE;

/** Converts an argument vector to UTF-8, strictly.
 *
 *  @param count      entries; 0 gives an empty array.
 *  @param arguments  wide strings; a null entry gives a null entry.
 *  @param result     receives the array of count strings, without a null at the end. The caller
 *                    releases each string and then the array with psp_freeMem(..., NULL).
 *  @return PSP_OKAY; PSP_FAILED when an entry is invalid or memory is short: nothing is left
 *          allocated then, and the result is null (untouched if the array itself failed). */
PSP_API psp_status psp_convertArgvToUTF8(int32_t count, psp_wchar *const *arguments,
                                         char ***result) PSP_MUST_USE;

/* ---- Small utilities --------------------------------------------------------------------------
 * Pure functions. They work without a start and in any thread. */

/** Finds a pattern in a text without regard to the case of the letters A to Z.
 *
 *  @param text     the text; null counts as empty.
 *  @param pattern  the pattern; null counts as empty.
 *  @return the first place where it occurs; null when it does not, and for an empty text. An empty
 *          pattern occurs at the start of any other text. */
PSP_API const char *psp_strcasestr(const char *text, const char *pattern);

/** Copies at most size - 1 characters, fills the rest of the buffer with zeros and terminates it.
 *
 *  @param destination  the buffer.
 *  @param source       the string; null counts as empty.
 *  @param size         bytes of the buffer; 0 touches nothing.
 *  @return the destination. */
PSP_API char *psp_strncpyZ(char *destination, const char *source, uint32_t size);

/** psp_strncpyZ for wide strings; the size is in units. */
PSP_API psp_wchar *psp_wcsncpyZ(psp_wchar *destination, const psp_wchar *source, uint32_t size);

/** Rounds to the nearest whole number, halves away from zero. Infinity and NaN stay what they are;
 *  the sign stays also at zero. */
PSP_API double psp_round(double value);

/** The alignment class (0 to 6) of a field type code such as 'i' or 'F'; 0 for unknown codes. */
PSP_API int32_t psp_alignType(char code);

/** The smallest offset not below the given one that is a multiple of the class's alignment.
 *
 *  @param offset           bytes; near 65,535 the result wraps.
 *  @param alignment_class  0 to 6: 1, 2, 2, 4, 4, 8, 8 bytes; any other value aligns to 1. */
PSP_API uint16_t psp_align(uint16_t offset, int32_t alignment_class);

/** The bytes of a value in reverse order. */
PSP_API uint16_t psp_swaporder16(uint16_t value);
/** The bytes of a value in reverse order. */
PSP_API uint32_t psp_swaporder32(uint32_t value);
/** The bytes of a value in reverse order. */
PSP_API uint64_t psp_swaporder64(uint64_t value);
/** The float whose bytes are those of the pattern in reverse order. */
PSP_API float psp_swaporderf32(uint32_t pattern);
/** The double whose bytes are those of the pattern in reverse order. */
PSP_API double psp_swaporderf64(uint64_t pattern);

/* ---- Files ------------------------------------------------------------------------------------
 * psp_fileOpen makes a handle, psp_fileClose ends it; every handle is to be closed before the last
 * psp_term. A handle is used by one thread at a time. It is never inherited by a child process that
 * runs another program.
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
 *  @return the handle; null when the library is not started, the name is null, a directory or
 *          refused by the platform, another handle's mode forbids it, a process-wide mode forbids
 *          it, memory is short, or the mode asks for the in-memory store and it has no such file.
 *  Any thread. */
PSP_API PSP_FH psp_fileOpen(const char *name, uint32_t flags, uint16_t mode) PSP_MUST_USE;

/** psp_fileOpen with a wide name; a name that is not valid UTF-16 fails. */
PSP_API PSP_FH psp_fileOpenW(const psp_wchar *name, uint32_t flags, uint16_t mode) PSP_MUST_USE;

/** Closes a file and ends its handle.
 *
 *  @param file  the handle; null does nothing. */
PSP_API void psp_fileClose(PSP_FH file);

/** Moves the sequential position.
 *
 *  @param file    the handle.
 *  @param offset  bytes, from whence.
 *  @param whence  PSP_SEEK_START, _CURRENT or _END; another value is reported and taken as start.
 *  @return PSP_OKAY; PSP_FAILED when the file cannot be positioned or the place is negative, and in
 *          the store for a place behind the end or another whence. */
PSP_API psp_status psp_fileSeek(PSP_FH file, int64_t offset, int32_t whence);

/** Reads at most count bytes at the sequential position and moves it.
 *
 *  @return bytes read, 0 at the end; -1 after a failure, which is logged. A count above 2^31 - 1
 *          reads that much at most. */
PSP_API int32_t psp_fileRead(PSP_FH file, void *buffer, uint32_t count);

/** Writes count bytes at the sequential position and moves it.
 *
 *  @return bytes written, fewer only if the platform stopped half-way (a full disk); 0 in read-only
 *          mode; -1 after a failure or for a count above 2^31 - 1, told on the C runtime's standard
 *          error. In the store fewer when memory is short; of a count above 2^31 - 1 that much. */
PSP_API int32_t psp_fileWrite(PSP_FH file, const void *buffer, uint32_t count);

/** Reads at most count bytes at an offset. Where the sequential position is afterwards is open.
 *
 *  @return bytes read, 0 at or past the end; -1 after a failure, which is logged. While another
 *          handle holds the first byte, a read of it repeats itself without end. */
PSP_API int32_t psp_fileSeekRead(PSP_FH file, int64_t offset, void *buffer, uint32_t count);

/** Writes count bytes at an offset. Where the sequential position is afterwards is open.
 *
 *  @return bytes written, fewer only if the platform stopped half-way; 0 in read-only mode; -1
 * after a failure or for a count above 2^31 - 1, which is logged. */
PSP_API int32_t psp_fileSeekWrite(PSP_FH file, int64_t offset, const void *buffer, uint32_t count);

/** The length of an open file in bytes; 0 when it cannot be told. */
PSP_API int64_t psp_fileLength(PSP_FH file);

/** The length of a file by name.
 *
 *  @return bytes; -1 when it cannot be queried. In the store 0 for what is no file, -1 only for a
 *          null name. No-disk mode does not matter. Works on the disk without a start. Any
 *          thread. */
PSP_API int64_t psp_fileLengthStat(const char *name, uint16_t mode);

/** Sets the length of a file: cuts it, or appends zero bytes. On the disk the position is the new
 *  end then; in the store it stays, even behind the end.
 *
 *  @param size  the new length in bytes.
 *  @return 0. On the disk -1 when the file could not grow, for a negative size and in read-only
 *          mode; a cut that fails gives 0: to learn of it, look at psp_errno as for psp_fileSync.
 * In the store 2 when memory is short or the size is beyond it, with the length unchanged. */
PSP_API int32_t psp_fileSetSize(PSP_FH file, int64_t size);

/** Takes the first byte of the file for this handle; never waits. In the store takes the lock of
 *  the whole file for this thread, and waits for it.
 *
 *  @return PSP_OKAY; PSP_FAILED when another handle, or this one, holds it. In the store always
 *          PSP_OKAY. */
PSP_API psp_status psp_fileLock(PSP_FH file);

/** Gives the first byte back; in the store one level of the lock that this thread took through this
 *  handle.
 *
 *  @return PSP_OKAY; PSP_FAILED when the handle does not hold it. In the store always PSP_OKAY. */
PSP_API psp_status psp_fileUnlock(PSP_FH file);

/** Makes what was written durable.
 *
 *  @return always PSP_OKAY. To learn of a failure, clear the platform's last error before the call
 *          and look at psp_errno after it. */
PSP_API psp_status psp_fileSync(PSP_FH file);

/** The time of the last modification of a file by name.
 *
 *  @return seconds since 1970-01-01 UTC; -1 when it cannot be queried and in no-disk mode. In the
 *          store 0 for what is no file or was never written. Works on the disk without a start. Any
 *          thread. */
PSP_API int64_t psp_fileModTimeStat(const char *name, uint16_t mode);

/* ---- Whole files ------------------------------------------------------------------------------
 * Operations on a file or a directory by name. Each comes in four forms: plain (on the disk), Ex
 * (a mode word beside each name, whose PSP_FILE_MEMORY places that name in the in-memory store), W
 * and ExW (wide names). A wide name that is not valid UTF-16 fails: copy, compare, move and
 * directory move give PSP_FAILED, remove and rename PSP_NOMEMORY, the existence test 0.
 *
 * They are sequences of platform calls on names: another thread or process that uses the same names
 * at the same time sees the steps between. They work in any thread. In read-only mode removing,
 * renaming and moving to the disk fail; in no-disk mode everything on the disk fails.
 *
 * What they leave behind when memory fails: names and files as they were before the step that
 * failed; no copy is left half-made unless the comment says so. */

/** Copies a file onto a new or an existing name, writing only the blocks of 1024 bytes that differ.
 *
 *  @param source       the file to read.
 *  @param source_mode  its PSP_FILE_ bits.
 *  @param destination  the file to create or change.
 *  @param destination_mode  its PSP_FILE_ bits.
 *  @return PSP_OKAY; PSP_FAILED when a file cannot be opened, read or written or memory is short;
 * -1 when the final length cannot be set. After a failure in the middle the destination keeps the
 * blocks written so far and its old length. */
PSP_API psp_status psp_fileCopyEx(const char *source, uint16_t source_mode, const char *destination,
                                  uint16_t destination_mode);
/** psp_fileCopyEx on the disk. */
PSP_API psp_status psp_fileCopy(const char *source, const char *destination);
/** psp_fileCopy with wide names. */
PSP_API psp_status psp_fileCopyW(const psp_wchar *source, const psp_wchar *destination);
/** psp_fileCopyEx with wide names. */
PSP_API psp_status psp_fileCopyExW(const psp_wchar *source, uint16_t source_mode,
                                   const psp_wchar *destination, uint16_t destination_mode);

#define PSP_CMP_NO_FIRST 7  /* psp_fileCmp: the first file cannot be opened */
#define PSP_CMP_NO_SECOND 8 /* psp_fileCmp: the second file cannot be opened */

/** Compares the contents of two files.
 *
 *  @param first,second  the files.
 *  @param first_mode,second_mode  their PSP_FILE_ bits.
 *  @return 0 when equal; PSP_FAILED when they differ or cannot be read; PSP_NOMEMORY;
 *          PSP_CMP_NO_FIRST; PSP_CMP_NO_SECOND. */
PSP_API psp_status psp_fileCmpEx(const char *first, uint16_t first_mode, const char *second,
                                 uint16_t second_mode);
/** psp_fileCmpEx on the disk. */
PSP_API psp_status psp_fileCmp(const char *first, const char *second);
/** psp_fileCmp with wide names. */
PSP_API psp_status psp_fileCmpW(const psp_wchar *first, const psp_wchar *second);
/** psp_fileCmpEx with wide names. */
PSP_API psp_status psp_fileCmpExW(const psp_wchar *first, uint16_t first_mode,
                                  const psp_wchar *second, uint16_t second_mode);

/** Removes a file, never a directory.
 *
 *  @param name  the file.
 *  @param mode  its PSP_FILE_ bits.
 *  @return PSP_OKAY; PSP_FAILED; PSP_NOMEMORY; PSP_NOTFOUND for a store name that is missing. */
PSP_API psp_status psp_fileRemoveEx(const char *name, uint16_t mode);
/** psp_fileRemoveEx on the disk. */
PSP_API psp_status psp_fileRemove(const char *name);
/** psp_fileRemove with a wide name. */
PSP_API psp_status psp_fileRemoveW(const psp_wchar *name);
/** psp_fileRemoveEx with a wide name. */
PSP_API psp_status psp_fileRemoveExW(const psp_wchar *name, uint16_t mode);

/** Gives a file or directory a new name; never replaces an existing one and never crosses between
 *  the disk and the store. A file may cross file systems: it is copied beside the new name, made
 *  durable, named in one step, and the old one goes last; it fails while a handle may write the
 *  file. A directory may not.
 *
 *  @param old_name,new_name  the names.
 *  @param old_mode,new_mode  their PSP_FILE_ bits.
 *  @return PSP_OKAY; PSP_FAILED; PSP_NOMEMORY; PSP_NOTFOUND for a store name that is missing. */
PSP_API psp_status psp_fileRenameEx(const char *old_name, uint16_t old_mode, const char *new_name,
                                    uint16_t new_mode);
/** psp_fileRenameEx on the disk. */
PSP_API psp_status psp_fileRename(const char *old_name, const char *new_name);
/** psp_fileRename with wide names. */
PSP_API psp_status psp_fileRenameW(const psp_wchar *old_name, const psp_wchar *new_name);
/** psp_fileRenameEx with wide names. */
PSP_API psp_status psp_fileRenameExW(const psp_wchar *old_name, uint16_t old_mode,
                                     const psp_wchar *new_name, uint16_t new_mode);

/** Tells whether a name exists.
 *
 *  @param name       the file or directory.
 *  @param mode       its PSP_FILE_ bits.
 *  @param directory  receives 0 for a file, 16384 (disk) or 1 (store) for a directory, nothing when
 *                    the name does not exist; may be null.
 *  @return 1 or 0. */
PSP_API int32_t psp_fileValidateEx(const char *name, uint16_t mode, uint32_t *directory);
/** psp_fileValidateEx on the disk, without the flag. */
PSP_API int32_t psp_fileValidate(const char *name);
/** psp_fileValidate with a wide name. */
PSP_API int32_t psp_fileValidateW(const psp_wchar *name);
/** psp_fileValidateEx with a wide name. */
PSP_API int32_t psp_fileValidateExW(const psp_wchar *name, uint16_t mode, uint32_t *directory);

/** Moves a file onto a name, replacing what is there: by a rename where that is possible, else by a
 *  copy. The old destination is gone even if the move then fails; the source is kept then.
 *
 *  @return as psp_fileCopyEx. Two names of the same file give PSP_OKAY and nothing is removed;
 *          PSP_FAILED, and nothing is removed, where it cannot be found out whether they are. A
 *          pipe, a device or a socket is renamed, but never copied: PSP_FAILED. */
PSP_API psp_status psp_fileMoveEx(const char *source, uint16_t source_mode, const char *destination,
                                  uint16_t destination_mode);
/** psp_fileMoveEx on the disk. */
PSP_API psp_status psp_fileMove(const char *source, const char *destination);
/** psp_fileMove with wide names. */
PSP_API psp_status psp_fileMoveW(const psp_wchar *source, const psp_wchar *destination);
/** psp_fileMoveEx with wide names. */
PSP_API psp_status psp_fileMoveExW(const psp_wchar *source, uint16_t source_mode,
                                   const psp_wchar *destination, uint16_t destination_mode);

/** Moves a directory: by a rename where that is possible; else the files directly inside it, into a
 *  destination that is created with its parents. Subdirectories stay where they are then.
 *
 *  @return PSP_OKAY, also when there was nothing to move; PSP_FAILED when the source cannot be
 * read, and before anything is created in read-only and no-disk mode; otherwise the result of the
 *          step or of the file move that failed. Files moved before it stay moved. Files that
 *          psp_pathNext passes over stay too, and the source with them. */
PSP_API psp_status psp_dirMoveEx(const char *source, uint16_t source_mode, const char *destination,
                                 uint16_t destination_mode);
/** psp_dirMoveEx on the disk. */
PSP_API psp_status psp_dirMove(const char *source, const char *destination);
/** psp_dirMove with wide names. */
PSP_API psp_status psp_dirMoveW(const psp_wchar *source, const psp_wchar *destination);
/** psp_dirMoveEx with wide names. */
PSP_API psp_status psp_dirMoveExW(const psp_wchar *source, uint16_t source_mode,
                                  const psp_wchar *destination, uint16_t destination_mode);

/* ---- Paths and directories --------------------------------------------------------------------
 * Names as text, directories, the temporary directory. The library writes backslashes and accepts
 * slashes too, on every platform. Strings handed out belong to the caller, who releases them with
 * psp_freeMem and the default tag (null), unless a tag is an argument. Everything works in any
 * thread; an iterator is used by one thread at a time. */

/** The current directory, as the platform spells it; "\" in no-disk mode.
 *
 *  @return a new string; null on failure. */
PSP_API char *psp_currdir(void) PSP_MUST_USE;

/** Whether a name starts at a root: with a separator, or with a letter, a colon and a separator.
 *
 *  @return 1 or 0. Works without a start. */
PSP_API int32_t psp_pathIsFullyQualified(const char *name);

/** The full path of a directory, ending in a backslash. No "." or ".." is resolved.
 *
 *  @param name  the directory; null, empty, "." and ".\" are the current one.
 *  @return a new string; null on failure. */
PSP_API char *psp_fullpath(const char *name) PSP_MUST_USE;

/** Splits a name at its last backslash; else at its last slash; else at its last colon.
 *
 *  @param name       the name.
 *  @param directory  receives a new string, the separator included, or null; may be null.
 *  @param file       receives a new string or null; may be null.
 *  When memory is short both are null. */
PSP_API void psp_pathSplit(const char *name, char **directory, char **file);

/** The name without a drive prefix (any character and a colon): a pointer into the same string.
 *  Works without a start. */
PSP_API const char *psp_pathStripDrive(const char *name);

/** Whether a name is spelled like a directory: its last character is a backslash or a colon.
 *
 *  @return 1 or 0; -1 for a null or empty name. Works without a start. */
PSP_API int32_t psp_pathIsDir(const char *name);

/** Whether a name is a link: links are not recognised.
 *
 *  @return always 0. Works without a start. */
PSP_API int32_t psp_pathIsLink(const char *name);

typedef struct psp_pathIter psp_pathIter;

/** psp_pathOpenEx on the disk. */
PSP_API psp_pathIter *psp_pathOpen(const char *directory, const char *pattern) PSP_MUST_USE;

/** Starts an iteration over the entries of a directory, "." and ".." included.
 *
 *  @param directory  the directory.
 *  @param mode       its PSP_FILE_ bits.
 *  @param pattern    which names: "?" is one character, "*" any number, letters match without
 *                    regard to case; the character after a "*" is taken literally. On the disk
 *                    "*.*" matches every name.
 *  @return the iterator, ended by psp_pathClose; null when no entry matches, the directory cannot
 * be read, an argument is null or the directory empty, in no-disk mode and when memory is short.
 * Entries that come or go meanwhile may or may not be met. On POSIX an entry whose name holds a
 * backslash is passed over: to the library the name would be a path, perhaps of another file.
 *
 *  In the store the names come in order (ASCII letters as lower case), "." and ".." are not among
 *  them, and "*.*" wants a dot. An iterator is given for a directory without a match, too; names
 *  that come or go behind the last one are met or not as they stand when their turn comes. */
PSP_API psp_pathIter *psp_pathOpenEx(const char *directory, uint16_t mode,
                                     const char *pattern) PSP_MUST_USE;

/** The next entry.
 *
 *  @param iterator   the iterator.
 *  @param directory  receives 0 for a file, 16 (disk) or 1 (store) for a directory; not null.
 *  @return the entry's name, the iterator's until the next call on it; null when none is left, or
 *          in the store when memory is short; there the next call begins anew. */
PSP_API const char *psp_pathNext(psp_pathIter *iterator, uint32_t *directory);

/** Ends an iteration; null does nothing. */
PSP_API void psp_pathClose(psp_pathIter *iterator);

/** Creates a directory.
 *
 *  @return PSP_OKAY; PSP_EXISTS; PSP_FAILED; PSP_NOMEMORY. */
PSP_API psp_status psp_dirCreate(const char *name);
/** psp_dirCreate with a wide name. */
PSP_API psp_status psp_dirCreateW(const psp_wchar *name);

/** Creates a directory with all its parents.
 *
 *  @return as psp_dirCreate. A name that ends in a separator gives PSP_EXISTS even when it was
 *          created just now. */
PSP_API psp_status psp_dirCreateAll(const char *name);
/** psp_dirCreateAll with a wide name. */
PSP_API psp_status psp_dirCreateAllW(const psp_wchar *name);

/** Removes an empty directory.
 *
 *  @return PSP_OKAY, also when it does not exist; PSP_FAILED; PSP_NOMEMORY. */
PSP_API psp_status psp_dirRemove(const char *name);
/** psp_dirRemove with a wide name. */
PSP_API psp_status psp_dirRemoveW(const psp_wchar *name);

/** Makes a name for a temporary file; creates nothing and tests nothing.
 *
 *  @param counter    the caller's counter, part of the name by its value and its address; it is
 *                    raised by one.
 *  @param prefix     null is "temp".
 *  @param extension  null is "tmp".
 *  @param tag        the owner; null is the default tag.
 *  @return a new string; null when memory is short. The caller serialises the use of a counter. */
PSP_API char *psp_fileCreateTmpName(uint32_t *counter, const char *prefix, const char *extension,
                                    psp_tag *tag) PSP_MUST_USE;

/** The temporary directory: the environment's VKD_TMPDIR as it stands; else the first of TEMP, TMP,
 *  the system's own and the current directory in which a file could be made, found once. An empty
 *  TEMP or TMP counts as not set.
 *
 *  @param tag  the owner; null is the default tag.
 *  @return a new string; null when there is none or memory is short. */
PSP_API char *psp_tmpdir(psp_tag *tag) PSP_MUST_USE;

/* ---- Text streams -----------------------------------------------------------------------------
 * A stream is a buffered text file: psp_fopen makes it, psp_fclose ends it. One thread at a time.
 * Texts are UTF-8 whatever the file holds. A read stream recognises a byte-order mark and turns
 * UTF-16 into UTF-8; a write stream of width 2 writes a mark and UTF-16, little-endian. A carriage
 * return with a line feed reads as one line feed, and a line feed is written as the two.
 *
 * Reading and writing may alternate. What is written reaches the file when a block of 1024 bytes is
 * full, at a flush and at the close. In read-only mode output is dropped in silence. A write that
 * the file does not take leaves its bytes in the stream, which tries again at the next occasion.
 *
 * A byte 0xFF of 8-bit text reads as -1 and cannot be told from the end. Of a run of carriage
 * returns that no line feed ends, no more than 20 are read; one that a line feed ends is part of
 * the line end. A null stream gives the failure result. */

typedef struct psp_stream psp_stream;

/** psp_fopenEx with mode word 0. */
PSP_API psp_stream *psp_fopen(const char *name, const char *mode, uint32_t width) PSP_MUST_USE;

/** Opens a text file.
 *
 *  @param name       the path.
 *  @param mode       "r", "w" (create or empty) or "a" (create; starts at the end), each with an
 *                    optional "+" for reading and writing; any other character fails, "b" and "t"
 *                    too. Null reads.
 *  @param width      bytes of a unit of a write stream, 1 or 2; 0 is 1. Read streams find out.
 *  @param mode_word  PSP_FILE_ bits.
 *  @return the stream; null when the file cannot be opened or memory is short.
 *  Ended by psp_fclose. Any thread. */
PSP_API psp_stream *psp_fopenEx(const char *name, const char *mode, uint32_t width,
                                uint16_t mode_word) PSP_MUST_USE;

/** Opens a standard channel by name, "stdin", "stdout" or "stderr", as 8-bit text.
 *
 *  @return the stream; null when that fails. Ended by psp_fclose, which leaves the channel open. */
PSP_API psp_stream *psp_fopen_std(const char *name) PSP_MUST_USE;

/** Writes what is buffered, a failure of which is not reported (psp_fflush first, if it matters),
 *  closes the file and ends the stream.
 *
 *  @param stream  the stream; null does nothing. */
PSP_API void psp_fclose(psp_stream *stream);

/** Reads one character: one byte of the UTF-8 text.
 *
 *  @return the byte as a signed value (0x80 to 0xFF are -128 to -1; continuation bytes made from
 *          UTF-16 are 128 to 191), or a value pushed back, as it was; -1 at the end. */
PSP_API int32_t psp_fgetc(psp_stream *stream);

/** Pushes a value back; the next psp_fgetc gives it. Up to 20 are held, last in, first out.
 *
 *  @return the value; -1 when 20 are held. */
PSP_API int32_t psp_fungetc(int32_t character, psp_stream *stream);

/** Reads up to a line feed, which is kept, or size - 1 characters, and terminates them.
 *
 *  @param buffer  where to store.
 *  @param size    bytes of the buffer; 1 gives an empty string.
 *  @return the buffer; null when nothing was read, the buffer is null or the size not positive. */
PSP_API char *psp_fgets(char *buffer, int32_t size, psp_stream *stream);

/** Reads a line of any length. A zero byte belongs to the line like any other.
 *
 *  @param stream  the stream.
 *  @param buffer  in and out: the line buffer, a block of the default tag that grows and is reused;
 *                 null obtains one. The caller releases it with psp_freeMem(buffer, NULL).
 *  @param size    in and out: its size in bytes; 0 is taken as 100.
 *  @return the line with its line feed, if it had one; null at the end, for a null argument and
 *          when the buffer cannot grow (buffer and size stay valid and hold the line's beginning).
 */
PSP_API char *psp_fGetLine(psp_stream *stream, char **buffer, uint32_t *size);

/** Writes one character; a line feed goes out as carriage return and line feed.
 *
 *  @return 1, or 0 when it failed. */
PSP_API int32_t psp_fputc(int32_t character, psp_stream *stream);

/** Writes a string.
 *
 *  @return the bytes of the string; -1 at the first character that fails (earlier ones stay). */
PSP_API int32_t psp_fputs(const char *string, psp_stream *stream);

/** Writes formatted text (see psp_vsnprintf).
 *
 *  @return the bytes of the text; -1 when formatting, memory or writing fails. */
PSP_API int32_t psp_vfprintf(psp_stream *stream, const char *format, va_list arguments);

/** psp_vfprintf with the values as arguments. */
PSP_API int32_t psp_fprintf(psp_stream *stream, const char *format, ...);

/** Writes what is buffered and makes it durable.
 *
 *  @return 0; -1 when half of a UTF-8 character waits to be written as UTF-16. A failed write is
 * not reported here; its bytes stay buffered. */
PSP_API int32_t psp_fflush(psp_stream *stream);

/** Moves the position.
 *
 *  @param offset  bytes: from the first character after the mark (origin 0), from the position (1)
 *                 or from the known length (2). Values pushed back stay.
 *  @return PSP_OKAY; PSP_FAILED for another origin and for a place before the start of the file. */
PSP_API psp_status psp_fseek(psp_stream *stream, int32_t offset, int32_t origin);

/* ---- Channels and log -------------------------------------------------------------------------
 * The process has three output channels: standard output, standard error and the log. Each writes
 * to the output that was pushed on it last; the first two start with the process's own. Pushing and
 * popping must not run while another thread writes to the same channel; everything else may be
 * called by any thread, and one message is always written in one piece.
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
 *  @return PSP_OKAY; PSP_FAILED when the library is not started or the file cannot be opened;
 *          PSP_NOMEMORY. The channel is unchanged then. */
PSP_API psp_status psp_stdout_open(const char *name);
/** Pushes an output on the standard error channel. As psp_stdout_open. */
PSP_API psp_status psp_stderr_open(const char *name);
/** Pushes an output on the log channel. As psp_stdout_open. */
PSP_API psp_status psp_log_open(const char *name);

/** Pushes the output whose name is the two strings joined on the log channel.
 *
 *  @return as psp_log_open; PSP_OKAY, with nothing opened, when the library is not started. */
PSP_API psp_status psp_log_create(const char *first, const char *second);

/** Pops the standard output channel's output, if there is one; its last use closes the file. */
PSP_API void psp_stdout_close(void);
/** Pops the standard error channel's output. As psp_stdout_close. */
PSP_API void psp_stderr_close(void);
/** Pops the log channel's output. As psp_stdout_close. */
PSP_API void psp_log_close(void);

/** Writes formatted text to the standard output channel, without a flush.
 *
 *  @return bytes of the text; 0 when the channel swallows it; -1 when it failed. */
PSP_API int32_t psp_printf(const char *format, ...);
/** psp_printf with an argument list. */
PSP_API int32_t psp_printfV(const char *format, va_list arguments);
/** Writes formatted text to the standard error channel. As psp_printf. */
PSP_API int32_t psp_printfErr(const char *format, ...);
/** psp_printfErr with an argument list. */
PSP_API int32_t psp_printfErrV(const char *format, va_list arguments);

/** Flushes the standard output channel; without an output, the C runtime's standard output. */
PSP_API void psp_flush(void);
/** Flushes the standard error channel; without an output, the C runtime's standard error. */
PSP_API void psp_flushErr(void);

/** Logs a message and flushes it. The platform's last error code is left as it was.
 *
 *  @return bytes written to the standard output channel, 0 when it swallows them; -1 when that
 *          failed. A message that cannot be formatted is dropped and gives 0. */
PSP_API int32_t psp_log(const char *format, ...);
/** psp_log with an argument list. */
PSP_API int32_t psp_logV(const char *format, va_list arguments);
/** Logs a message to the standard error channel and the log. As psp_log. */
PSP_API int32_t psp_log_err(const char *format, ...);

/* A message built from pieces. */
typedef struct psp_logChunk psp_logChunk;

/** Starts a message that is built from pieces and logged whole.
 *
 *  @return the chunk, ended by psp_log_chunk_end; null when the library is not started or memory is
 *          short. It belongs to the thread that builds it. */
PSP_API psp_logChunk *psp_log_chunk_init(void) PSP_MUST_USE;

/** Adds a formatted piece. A null chunk or format does nothing; a piece that cannot be formatted or
 *  held is left out whole. */
PSP_API void psp_log_chunk(psp_logChunk *chunk, const char *format, ...);

/** Adds a last piece (format may be null), logs the message if it has text, and ends the chunk. */
PSP_API void psp_log_chunk_end(psp_logChunk *chunk, const char *format, ...);

/** Flushes all three channels. */
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
 * out-of-memory jump: the buffer then stays as after a transport that failed.
 *
 * One thread at a time for each buffer; different buffers may be used at the same time. */

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
 *  @param buff        where to store the buffer, ended by psp_inputBuffDestroy; not null.
 *  @return PSP_OKAY; PSP_ERR_INVARG; PSP_ERR_NOMEMORY when memory is short or the library is not
 *          started. On failure *buff is unchanged. The memory is the default tag's. Any thread. */
PSP_API psp_status psp_inputBuffCreate(psp_transportRead read, psp_transportReadTimed timed_read,
                                       void *context, uint16_t swap,
                                       psp_inputBuff **buff) PSP_MUST_USE;
/** Ends an input buffer; bytes not handed out are dropped. Null does nothing. */
PSP_API void psp_inputBuffDestroy(psp_inputBuff *buff);

/** Takes a character.
 *
 *  @param buff   the buffer; not null.
 *  @param value  where to store it; null takes the character off the stream and drops it.
 *  @return PSP_OKAY; PSP_ERR_INVARG; the transport's status. */
PSP_API psp_status psp_inputBuffGetChar(psp_inputBuff *buff, char *value);
/** Takes a 16-bit integer. As psp_inputBuffGetChar; a failure may leave the value partly stored. */
PSP_API psp_status psp_inputBuffGetInt16(psp_inputBuff *buff, int16_t *value);
/** Takes a 32-bit integer. As psp_inputBuffGetInt16. */
PSP_API psp_status psp_inputBuffGetInt32(psp_inputBuff *buff, int32_t *value);
/** Takes a 32-bit integer with a limit of time. As psp_inputBuffGetInt16.
 *
 *  @param timeout  handed to the timed read function at each call that is needed; 0, or a buffer
 *                  without such a function, has the plain read function called. */
PSP_API psp_status psp_inputBuffGetInt32Timeout(psp_inputBuff *buff, int32_t *value,
                                                uint32_t timeout);
/** Takes a 64-bit integer. As psp_inputBuffGetInt16. */
PSP_API psp_status psp_inputBuffGetInt64(psp_inputBuff *buff, int64_t *value);
/** Takes a float; its bits arrive as they were sent, NaNs included. As psp_inputBuffGetInt16. */
PSP_API psp_status psp_inputBuffGetFloat32(psp_inputBuff *buff, float *value);
/** Takes a double. As psp_inputBuffGetFloat32. */
PSP_API psp_status psp_inputBuffGetFloat64(psp_inputBuff *buff, double *value);

/** Takes a string with its length as a new string.
 *
 *  @param buff   the buffer; not null.
 *  @param value  where to store the string, ended by a zero byte (zero bytes sent within it stay);
 *                null for a null string and on failure. Released with psp_freeMem(string, NULL). A
 *                null value takes the string off the stream and drops it.
 *  @return PSP_OKAY; PSP_ERR_INVARG; the transport's status; PSP_ERR_NOMEMORY, and then the length
 *          and perhaps a part of the bytes are taken.
 *  A sender that lies about the length costs 1 MiB at first; beyond that memory is taken as the
 *  bytes arrive. There is no other limit: use psp_inputBuffGetStringWithLength to have one. */
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
 *          status. */
PSP_API psp_status psp_inputBuffGetStringWithLength(psp_inputBuff *buff, char *destination,
                                                    uint32_t size);

/** Takes bytes as they are.
 *
 *  @param destination  where to store them; null drops them. A failure keeps those that arrived.
 *  @param count        bytes; 0 does nothing.
 *  @return PSP_OKAY; PSP_ERR_INVARG for a null buffer; the transport's status. */
PSP_API psp_status psp_inputBuffGetBytes(psp_inputBuff *buff, void *destination, uint32_t count);

/** Drops the bytes that the buffer holds; the next value is asked of the transport. */
PSP_API void psp_inputBuffReset(psp_inputBuff *buff);

/** Makes an output buffer.
 *
 *  @param write    sends its bytes; not null.
 *  @param context  handed to it.
 *  @param swap     not 0: values are sent in the order opposite to the machine's.
 *  @param buff     where to store the buffer, ended by psp_outputBuffDestroy; not null.
 *  @return as psp_inputBuffCreate. Any thread. */
PSP_API psp_status psp_outputBuffCreate(psp_transportWrite write, void *context, uint16_t swap,
                                        psp_outputBuff **buff) PSP_MUST_USE;
/** Ends an output buffer WITHOUT sending the bytes that wait in it: call psp_outputBuffFlush first.
 *  Null does nothing. */
PSP_API void psp_outputBuffDestroy(psp_outputBuff *buff);

/** Puts a character. It is sent when the buffer is full and more bytes come, or by a flush.
 *
 *  @param buff  the buffer; not null.
 *  @return PSP_OKAY; PSP_ERR_INVARG; the transport's status, and then all bytes that were in the
 *          buffer go on waiting, perhaps with the first bytes of this value behind them. */
PSP_API psp_status psp_outputBuffPutChar(psp_outputBuff *buff, char value);
/** Puts a 16-bit integer. As psp_outputBuffPutChar. */
PSP_API psp_status psp_outputBuffPutInt16(psp_outputBuff *buff, int16_t value);
/** Puts a 32-bit integer. As psp_outputBuffPutChar. */
PSP_API psp_status psp_outputBuffPutInt32(psp_outputBuff *buff, int32_t value);
/** Puts a 64-bit integer. As psp_outputBuffPutChar. */
PSP_API psp_status psp_outputBuffPutInt64(psp_outputBuff *buff, int64_t value);
/** Puts a float. As psp_outputBuffPutChar. */
PSP_API psp_status psp_outputBuffPutFloat32(psp_outputBuff *buff, float value);
/** Puts a double. As psp_outputBuffPutChar. */
PSP_API psp_status psp_outputBuffPutFloat64(psp_outputBuff *buff, double value);

/** Puts the bytes of a string, which is not null, without length and terminator. As
 *  psp_outputBuffPutChar. */
PSP_API psp_status psp_outputBuffPutString(psp_outputBuff *buff, const char *string);

/** Puts a string with its length.
 *
 *  @param string  the string, shorter than 4 GiB - 1; null is sent as a null string.
 *  @return as psp_outputBuffPutChar; PSP_ERR_INVARG, with nothing put, for a longer string. */
PSP_API psp_status psp_outputBuffPutStringWithLength(psp_outputBuff *buff, const char *string);

/** Puts bytes as they are. As psp_outputBuffPutChar.
 *
 *  @param data   the bytes; may be null if there are none.
 *  @param count  how many; 0 does nothing. */
PSP_API psp_status psp_outputBuffPutBytes(psp_outputBuff *buff, const void *data, uint32_t count);

/** Sends the bytes that wait, if there are any, in one call of the write function.
 *
 *  @return PSP_OKAY; PSP_ERR_INVARG for a null buffer; the transport's status, and then the bytes
 *          go on waiting. */
PSP_API psp_status psp_outputBuffFlush(psp_outputBuff *buff);

/** Sends the bytes that wait and then, in one more call of the write function and without a copy,
 *  the caller's own: the way for large blocks.
 *
 *  @param data   the bytes; may be null if there are none.
 *  @param count  how many; 0 does nothing and sends nothing.
 *  @return PSP_OKAY; PSP_ERR_INVARG; the status of the transport. If sending the waiting bytes
 *          failed they go on waiting and the others have not been touched. */
PSP_API psp_status psp_outputBuffSendDirect(psp_outputBuff *buff, const void *data, uint32_t count);

/* ---- INI configuration ------------------------------------------------------------------------
 * A file is read once into a process-wide store and answers lookups from there; an update rewrites
 * the file and reads it again. Names of sections and keys compare without regard to case, and of
 * two of one name the first counts. Names of files compare as the platform does (on POSIX byte for
 * byte), in the file store without regard to case; two spellings of one file are two entries.
 * Lookups and updates may be called by any thread and are serialised; psp_readIniFile and
 * psp_iniCleanup must not run meanwhile.
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

/** Starts the module; psp_init does it.
 *
 *  @return PSP_OKAY; PSP_FAILED. */
PSP_API psp_status psp_iniInit(void);
/** Stops the module; psp_term does it. */
PSP_API void psp_iniTerm(void);
/** Empties the store. No other thread may use the INI functions meanwhile. */
PSP_API void psp_iniCleanup(void);

/** Reads a file into the store, replacing what it holds of it; a file that cannot be opened leaves
 *  an empty entry.
 *
 *  @param file  the file's name, under which lookups find it.
 *  @param mode  its PSP_FILE_ bits.
 *  @return always PSP_OKAY. */
PSP_API psp_status psp_readIniFileEx(const char *file, uint16_t mode);
/** psp_readIniFileEx on the disk. */
PSP_API psp_status psp_readIniFile(const char *file);
/** Reads a file with a wide name; one that cannot be opened keeps its old entry.
 *
 *  @return PSP_OKAY; PSP_ERR_NOMEMORY when the name cannot be converted. */
PSP_API psp_status psp_readIniFileW(const psp_wchar *file);
/** psp_readIniFileW with a mode word. */
PSP_API psp_status psp_readIniFileExW(const psp_wchar *file, uint16_t mode);

/** Looks a value up, or lists names.
 *
 *  @param file     the INI file.
 *  @param section  the section; null lists the sections.
 *  @param key      the key; null lists the section's keys.
 *  @param buffer   receives the value, or each name with its zero byte, and one zero byte more.
 *  @param size     bytes of the buffer, at least 2.
 *  @param mode     the file's PSP_FILE_ bits.
 *  @return PSP_OKAY; PSP_FAILED when there is no such section or key; PSP_ERR_NOFILE;
 *          PSP_ERR_INVARG for a null file or buffer or a size below 2; PSP_ERR_BUFFERFULL when the
 *          result was cut (a value of L bytes needs a size of L + 3). */
PSP_API psp_status psp_iniGetEx(const char *file, const char *section, const char *key,
                                char *buffer, uint32_t size, uint16_t mode);
/** psp_iniGetEx on the disk. */
PSP_API psp_status psp_iniGet(const char *file, const char *section, const char *key, char *buffer,
                              uint32_t size);
/** psp_iniGetEx with wide strings; the size is in units. The buffer is touched on PSP_OKAY only.
 *  A value of more units than the buffer holds is cut without a sign as long as its UTF-8 is at
 * most 4 * size - 3 bytes: give a buffer of a unit for each byte that a value can have. */
PSP_API psp_status psp_iniGetExW(const psp_wchar *file, const psp_wchar *section,
                                 const psp_wchar *key, psp_wchar *buffer, uint32_t size,
                                 uint16_t mode);
/** psp_iniGetExW on the disk. */
PSP_API psp_status psp_iniGetW(const psp_wchar *file, const psp_wchar *section,
                               const psp_wchar *key, psp_wchar *buffer, uint32_t size);

/** The same as psp_iniGetEx. */
PSP_API psp_status psp_iniStringEx(const char *file, const char *section, const char *key,
                                   char *buffer, uint32_t size, uint16_t mode);
/** The same as psp_iniGet. */
PSP_API psp_status psp_iniString(const char *file, const char *section, const char *key,
                                 char *buffer, uint32_t size);
/** The same as psp_iniGetExW. */
PSP_API psp_status psp_iniStringExW(const psp_wchar *file, const psp_wchar *section,
                                    const psp_wchar *key, psp_wchar *buffer, uint32_t size,
                                    uint16_t mode);
/** The same as psp_iniGetW. */
PSP_API psp_status psp_iniStringW(const psp_wchar *file, const psp_wchar *section,
                                  const psp_wchar *key, psp_wchar *buffer, uint32_t size);

/** Looks a number up: leading white space, a sign, digits; no digits give 0, and a number beyond 32
 *  bits the nearest.
 *
 *  @param number  receives it; untouched on any failure.
 *  @return as psp_iniGetEx, no argument being null; PSP_ERR_BUFFERFULL for a value of more than 17
 *          bytes. */
PSP_API psp_status psp_iniInt32Ex(const char *file, const char *section, const char *key,
                                  int32_t *number, uint16_t mode);
/** psp_iniInt32Ex on the disk. */
PSP_API psp_status psp_iniInt32(const char *file, const char *section, const char *key,
                                int32_t *number);
/** psp_iniInt32Ex with wide strings. */
PSP_API psp_status psp_iniInt32ExW(const psp_wchar *file, const psp_wchar *section,
                                   const psp_wchar *key, int32_t *number, uint16_t mode);
/** psp_iniInt32ExW on the disk. */
PSP_API psp_status psp_iniInt32W(const psp_wchar *file, const psp_wchar *section,
                                 const psp_wchar *key, int32_t *number);

/** Sets or removes a value in an existing file, keeping every other line.
 *
 *  @param section  the section, not null.
 *  @param key      the key; null removes the section.
 *  @param value    the value; null removes the key. Names and value are written as they are: a
 *                  line feed in them begins another line, and what a reader drops of a line (a
 *                  comment, spaces at the ends) it drops of them.
 *  @return PSP_OKAY; PSP_ERR_INVARG for a null file or section; PSP_ERR_NOMEMORY; PSP_ERR_NOFILE
 *          when the file or the temporary file cannot be opened, also when another process has
 *          the latter for too long and when "_temp_.ini" is a link or no file;
 *          PSP_ERR_REPLACEFILE when the new file could not be written whole or take the old one's
 *          place, which then stays. */
PSP_API psp_status psp_iniSetEx(const char *file, const char *section, const char *key,
                                const char *value, uint16_t mode);
/** psp_iniSetEx on the disk. */
PSP_API psp_status psp_iniSet(const char *file, const char *section, const char *key,
                              const char *value);
/** psp_iniSetEx with wide strings. */
PSP_API psp_status psp_iniSetExW(const psp_wchar *file, const psp_wchar *section,
                                 const psp_wchar *key, const psp_wchar *value, uint16_t mode);
/** psp_iniSetExW on the disk. */
PSP_API psp_status psp_iniSetW(const psp_wchar *file, const psp_wchar *section,
                               const psp_wchar *key, const psp_wchar *value);

/* ---- Threads ----------------------------------------------------------------------------------
 * psp_threadBegin starts a thread; nobody waits for it (use a gate). When a thread ends, the locks
 * that it holds go to their next waiters. Everything works in any thread and without a start. */

/* A running thread; valid only while it runs. */
typedef uintptr_t psp_threadHandle;

#define PSP_PRIORITY_LOWEST (-1)
#define PSP_PRIORITY_NORMAL 0
#define PSP_PRIORITY_HIGHEST 1

/** Starts a thread.
 *
 *  @param function  what it runs; its return ends the thread.
 *  @param stack     bytes of its stack; 0 is the platform's own choice, less than 64 KiB or the
 *                   platform's least is the larger of these.
 *  @param argument  handed to the function.
 *  @return PSP_OKAY; PSP_FAILED after the message "Failed to create thread". */
PSP_API psp_status psp_threadBegin(void (*function)(void *), uint32_t stack, void *argument);

/** Starts a thread with a priority.
 *
 *  @param handle    receives the thread; may be null. The thread may have ended by then.
 *  @param priority  as in psp_threadSetPriority; 0 leaves it normal. A refused one is not told.
 *  @param reserved  ignored.
 *  @return as psp_threadBegin. */
PSP_API psp_status psp_threadBeginEx(void (*function)(void *), uint32_t stack, void *argument,
                                     psp_threadHandle *handle, int32_t priority, int32_t reserved);

/** Sets the priority of a running thread.
 *
 *  @param priority  PSP_PRIORITY_LOWEST, PSP_PRIORITY_HIGHEST; any other value is normal, the
 *                   process's own. On POSIX the two are 10 nice values off it.
 *  @return PSP_OKAY; PSP_FAILED when the platform refuses (raising wants a right on POSIX). */
PSP_API psp_status psp_threadSetPriority(psp_threadHandle thread, int32_t priority);

/** Ends the calling thread. Does not return. */
PSP_API void psp_threadEnd(void);

/** Waiting for a thread is not available.
 *
 *  @return always PSP_NOTSUPPORTED, at once. */
PSP_API psp_status psp_threadJoin(psp_threadHandle thread);

/** The platform's identifier of the calling thread. */
PSP_API uint32_t psp_threadId(void);

/* ---- Message queues ---------------------------------------------------------------------------
 * Queues carry small messages, three words each, between the threads of the process. A queue has a
 * name, under which another thread finds it. Messages are read in the order in which they were
 * written; an urgent one goes in front of all others.
 *
 * The module is started and stopped by its users, inside psp_init and psp_term: psp_queueInit,
 * psp_queueTerm. All functions may be called by any thread. Readers of one queue take turns: while
 * one waits for a message, the others wait for their turn without a time limit.
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
 *  @return PSP_OKAY; PSP_FAILED when the library is not started. */
PSP_API psp_status psp_queueInit(int16_t reset) PSP_MUST_USE;

/** Stops the module. It must run before the last psp_term.
 *
 *  @param force  0 does nothing while queues exist; anything else deletes them, under the rule of
 *                psp_queueDelete. */
PSP_API void psp_queueTerm(int16_t force);

/** Makes a queue.
 *
 *  @param name  its name, which is copied; null is "". Names need not be unique.
 *  @return the queue; null when the module is not started or memory is short. A name that finds no
 *          memory is left out: such a queue is never found and lasts until psp_queueTerm.
 *  Ended by psp_queueDelete or psp_queueTerm. */
PSP_API psp_queue *psp_queueCreate(const char *name) PSP_MUST_USE;

/** Deletes a queue with its messages, closing it first.
 *
 *  @param queue  the queue; null does nothing. One that does not exist (any more) is not touched;
 *                "Deleted too many queues" is logged.
 *  No other call on the queue may be under way, except one waiting psp_queueRead. */
PSP_API void psp_queueDelete(psp_queue *queue);

/** Finds a queue by its name, byte for byte.
 *
 *  @return the queue of that name that was made last; null when there is none or the name is null.
 *          It is not protected against its deletion. */
PSP_API psp_queue *psp_queueFind(const char *name);

/** Writes a message. It is dropped when the queue is closed, and when memory is short (after the
 *  message "Out of memory").
 *
 *  @param data,extra,type  the message; only psp_queuePurge looks at type.
 *  @param flags            PSP_QUEUE_URGENT or 0; other bits are ignored. */
PSP_API void psp_queueWrite(psp_queue *queue, psp_word data, psp_word extra, psp_word type,
                            uint32_t flags);

/** Takes the first message, waiting for one.
 *
 *  @param data   receives the message's data; not null.
 *  @param extra,type  receive the rest; each may be null. All three are stored on PSP_OKAY only.
 *  @param limit  the longest wait in milliseconds, counted from the reader's turn; 0 does not wait
 *                for a message, PSP_NO_LIMIT waits as long as it takes.
 *  @return PSP_OKAY; PSP_TIMEOUT; PSP_QUEUE_CLOSED, messages or not; PSP_FAILED when the queue is
 *          empty and limit is 0, when the queue or data is null, and when the queue was emptied by
 *          a purge between the wake-up and the look ("unexpected empty queue on NAME" is logged;
 *          of a name that is longer than 255 bytes the characters that fit there). */
PSP_API psp_status psp_queueRead(psp_queue *queue, psp_word *data, psp_word *extra, psp_word *type,
                                 uint32_t limit) PSP_MUST_USE;

/** Removes messages. A closed queue keeps what it has.
 *
 *  @param type  the type of those that go; PSP_QUEUE_ALL_TYPES removes every message. */
PSP_API void psp_queuePurge(psp_queue *queue, psp_word type);

/** Closes a queue for good: later and waiting reads give PSP_QUEUE_CLOSED, writes are dropped. */
PSP_API void psp_queueClose(psp_queue *queue);

/** The number of messages in the queue, closed or not; 0 for null. */
PSP_API uint32_t psp_queueCount(psp_queue *queue);

/* ---- Time, environment and process ------------------------------------------------------------
 * Thin wrappers. They work without a start and in any thread. */

/** Suspends the calling thread, no shorter than told.
 *
 *  @param milliseconds  0 yields. */
PSP_API void psp_sleep(uint32_t milliseconds);

/** The process identifier. */
PSP_API int32_t psp_get_pid(void);

/** Prepares running in the background: nothing to do, a service manager does it.
 *
 *  @return always PSP_OKAY. */
PSP_API psp_status psp_daemonStart(int32_t first, int32_t second);
/** Ends the preparation; does nothing. */
PSP_API void psp_daemonComplete(int32_t value);

/** The calendar time, for seeding a random generator. */
PSP_API int64_t psp_seed(void);
/** The calendar time in seconds since 1970-01-01 UTC. */
PSP_API int64_t psp_timeSecs(void);
/** The calendar time in milliseconds, modulo 2^32. */
PSP_API uint32_t psp_timeMilliSecs(void);
/** A monotonic time in nanoseconds since some point; 0 when the platform has none. */
PSP_API uint64_t psp_timeNanoSecs(void);

/** Converts a calendar time to local time.
 *
 *  @param result  receives the nine fields.
 *  @return result; null when it is null or the time cannot be converted. */
PSP_API struct tm *psp_timeLocaltime(int64_t time, struct tm *result);

/** The text of a calendar time in local time, as ctime gives it, with its newline.
 *
 *  @return the C runtime's own buffer, which the next such call of any thread overwrites; null when
 *          the time cannot be converted. */
PSP_API const char *psp_timeCtime(int64_t time);

/** The value of an environment variable.
 *
 *  @return the runtime's text; null when it is not set or the name is null. */
PSP_API const char *psp_getenv(const char *name);
/** psp_getenv for wide strings.
 *
 *  @return the text, which stays valid until the last psp_term; null when it is not set, is not
 *          UTF-8, or memory is short. */
PSP_API const psp_wchar *psp_getenvW(const psp_wchar *name);

/** Sets or, for a null name, queries the locale. Numbers and meaning are the C runtime's.
 *
 *  @param category  LC_ALL and its relatives of <locale.h>.
 *  @param name      the locale.
 *  @return the runtime's text; null when the locale does not exist. */
PSP_API const char *psp_setlocale(int32_t category, const char *name);
/** psp_setlocale for wide strings. The result is as long valid as that of psp_getenvW. */
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
 *  @return PSP_OKAY; PSP_FAILED when the platform refuses, and then nothing is changed. */
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
 *  manager started this process, otherwise at once in the calling thread. Needs no start.
 *
 *  As a service, a stop or a shutdown sets the stop flag; on Linux that is SIGTERM, which then
 *  reaches no handler of psp_handleInterrupt until the service has ended, and does what it did
 *  before after that. The log functions write to the log alone from then on. On Linux the manager's
 *  NOTIFY_SOCKET leaves the environment, so that programs which the service starts run directly.
 *
 *  @param name      the counter's name; it must last until the return.
 *  @param stopFlag  set to 1 by a stop, from another thread; may be null.
 *  @param first     handed to main, as is second.
 *  @param main      the main function.
 *  @return 0 after a service, be it that it could not be run; otherwise what main returned;
 *          PSP_FAILED for a null main. */
PSP_API int32_t psp_serviceStart(const char *name, uint16_t *stopFlag, psp_word first,
                                 psp_word second, psp_serviceMain main);

/** Tells the manager that the service is ready. Does nothing outside a service. Any thread. */
PSP_API void psp_serviceStarted(void);

/** Tells the manager that the service is about to end; it has ended when main returns. Does nothing
 *  outside a service. Any thread. */
PSP_API void psp_serviceDone(void);

/** Installs a service that starts with the system, and starts it. Waits for no start.
 *
 *  On Linux it writes the unit /etc/systemd/system/NAME.service. Characters that a unit's name
 *  cannot hold are escaped there; slashes, backslashes and control characters are refused, as are
 *  control characters in the command line. A unit of that name, wherever it lies, is never
 *  changed. Processes may install and uninstall at the same time. The service is told of stops
 *  only if it calls psp_serviceStart with the counter's name; one that has not called it after 90
 *  seconds is ended.
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
 *          taken, a text is refused or not UTF-8, memory), and then nothing is left behind. */
PSP_API psp_status psp_serviceInstall(const char *counterName, const char *serviceName,
                                      const char *displayName, const char *description,
                                      const char *programPath, const char *programArguments);

/** Stops and removes a service. Waits for its end where the manager tells it (on Linux it does);
 *  but a program that runs as a service may remove itself, so that it only asks for the stop. Needs
 *  no start.
 *
 *  @return PSP_OKAY; PSP_NOSERVICE when there is no such service; PSP_NOACCESS; PSP_FAILED for
 *          anything else. The counter is lowered on PSP_OKAY alone. */
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
 *  @return 0 when the input was accepted;
 *          3 when a syntax error was met that no rule takes (after error was called), or the input
 *          ended while one was being recovered from (error is not called);
 *          PSP_NOMEMORY, the same number, when memory is short: everything taken, from a client's
 *          tag too, has been given back, and error is not called;
 *          PSP_ERR_INVARG when context, tables, lexer or action is null;
 *          else what action returned.
 *  Any thread; the context, and a tag without a lock, by one at a time. */
PSP_API int16_t psp_yyparse(const psp_yyContext *context);

#if defined(__cplusplus)
}
#endif

#endif
