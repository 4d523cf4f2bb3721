// Names for the attributes with which Clang checks locking at compile time (-Wthread-safety).
#ifndef GX_BASE_THREAD_ANNOTATIONS_H
#define GX_BASE_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define GX_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define GX_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) GX_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY GX_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) GX_THREAD_ATTRIBUTE(guarded_by(x))
#define REQUIRES(...) GX_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) GX_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) GX_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define EXCLUDES(...) GX_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS GX_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif  // GX_BASE_THREAD_ANNOTATIONS_H
