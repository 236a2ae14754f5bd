// Lock annotations that clang's -Wthread-safety checks; they compile to
// nothing elsewhere. A lock type is a CAPABILITY, a scoped holder a
// SCOPED_CAPABILITY; a field names its lock with GUARDED_BY (or
// PT_GUARDED_BY for what a pointer points at), a function the locks it needs
// held with REQUIRES and the ones it must not hold with EXCLUDES.
#ifndef QLTFSDK_PLATFORM_THREAD_ANNOTATIONS_H
#define QLTFSDK_PLATFORM_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define QLT_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QLT_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(name) QLT_THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY QLT_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(lock) QLT_THREAD_ANNOTATION(guarded_by(lock))
#define PT_GUARDED_BY(lock) QLT_THREAD_ANNOTATION(pt_guarded_by(lock))
#define REQUIRES(...) QLT_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) QLT_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) QLT_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) QLT_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ACQUIRED_AFTER(...) QLT_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define RETURN_CAPABILITY(x) QLT_THREAD_ANNOTATION(lock_returned(x))
// For the few functions whose locking the analysis cannot follow (a lock
// taken in one call and left in another); say why beside each use.
#define NO_THREAD_SAFETY_ANALYSIS QLT_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // QLTFSDK_PLATFORM_THREAD_ANNOTATIONS_H
