// Clang's thread-safety annotations under short names; nothing elsewhere. `./dev check` compiles
// with -Wthread-safety, which then proves that guarded fields are touched under their lock.
//
// Included by every module with a lock.
#pragma once

#if defined(__clang__)
#define PSP_ANNOTATION(x) __attribute__((x))
#else
#define PSP_ANNOTATION(x)
#endif

#define PSP_CAPABILITY(name) PSP_ANNOTATION(capability(name))
#define PSP_SCOPED_CAPABILITY PSP_ANNOTATION(scoped_lockable)
#define PSP_GUARDED_BY(lock) PSP_ANNOTATION(guarded_by(lock))
#define PSP_ACQUIRES(...) PSP_ANNOTATION(acquire_capability(__VA_ARGS__))
#define PSP_RELEASES(...) PSP_ANNOTATION(release_capability(__VA_ARGS__))
#define PSP_REQUIRES(...) PSP_ANNOTATION(requires_capability(__VA_ARGS__))
#define PSP_UNCHECKED PSP_ANNOTATION(no_thread_safety_analysis)
