// Clang thread-safety annotations; they compile to nothing elsewhere.
#ifndef ORV_PLATFORM_THREAD_ANNOTATIONS_H
#define ORV_PLATFORM_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define ORV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ORV_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) ORV_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY ORV_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) ORV_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) ORV_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRE(...) ORV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) ORV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define EXCLUSIVE_LOCKS_REQUIRED(...) ORV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define LOCKS_EXCLUDED(...) ORV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) ORV_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) ORV_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define ASSERT_EXCLUSIVE_LOCK(...) ORV_THREAD_ANNOTATION(assert_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS ORV_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // ORV_PLATFORM_THREAD_ANNOTATIONS_H
