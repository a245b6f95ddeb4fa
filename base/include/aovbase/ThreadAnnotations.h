#pragma once

// Locking rules that the compiler checks. Under clang with -Wthread-safety a
// member marked AOV_GUARDED_BY(m) may only be touched while m is held, and a
// function marked AOV_REQUIRES(m) only called with it held; other compilers
// see nothing. The analysis knows only annotated types, whatever standard
// library is in use: shared state is locked through aov::Mutex
// (aovbase/Mutex.h) or aov::PosixMutex (aovbase/PosixMutex.h).
#if defined(__clang__)
#define AOV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define AOV_THREAD_ANNOTATION(x)
#endif

#define AOV_CAPABILITY(name) AOV_THREAD_ANNOTATION(capability(name))
#define AOV_SCOPED_CAPABILITY AOV_THREAD_ANNOTATION(scoped_lockable)
// The member itself is guarded by m.
#define AOV_GUARDED_BY(m) AOV_THREAD_ANNOTATION(guarded_by(m))
// What the member points at is guarded by m (the pointer itself is not).
#define AOV_PT_GUARDED_BY(m) AOV_THREAD_ANNOTATION(pt_guarded_by(m))
#define AOV_REQUIRES(...) AOV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define AOV_EXCLUDES(...) AOV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define AOV_ACQUIRE(...) AOV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define AOV_RELEASE(...) AOV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define AOV_TRY_ACQUIRE(...) AOV_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define AOV_RETURN_CAPABILITY(x) AOV_THREAD_ANNOTATION(lock_returned(x))
// Tells the analysis that the lock is held here, for a caller it cannot follow
// (a callback run under the lock by code that is not annotated).
#define AOV_ASSERT_CAPABILITY(x) AOV_THREAD_ANNOTATION(assert_capability(x))
// The escape hatch: the function is not checked at all. For locking the
// analysis cannot express (a lock taken in one function and released in
// another, as around fork()); say why where it is used.
#define AOV_NO_THREAD_SAFETY_ANALYSIS AOV_THREAD_ANNOTATION(no_thread_safety_analysis)
