// Which mutex guards which member, in a form that clang's -Wthread-safety checks and other compilers skip.
#pragma once

#if defined(__clang__)
#define KESTREL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KESTREL_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) KESTREL_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY KESTREL_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) KESTREL_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) KESTREL_THREAD_ANNOTATION(pt_guarded_by(x))
#define REQUIRES(...) KESTREL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) KESTREL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) KESTREL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define EXCLUDES(...) KESTREL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS KESTREL_THREAD_ANNOTATION(no_thread_safety_analysis)
