// Clang's thread-safety attributes under the project's names, so that the compiler checks which
// lock guards what (clang builds add -Wthread-safety; with other compilers these expand to
// nothing). Use them with mirell::Mutex (mutex.h): std::mutex carries no attributes.
#pragma once

#if defined(__clang__)
#define MIRELL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define MIRELL_THREAD_ANNOTATION(x)
#endif

#define MIRELL_CAPABILITY(name) MIRELL_THREAD_ANNOTATION(capability(name))
#define MIRELL_SCOPED_CAPABILITY MIRELL_THREAD_ANNOTATION(scoped_lockable)
#define MIRELL_GUARDED_BY(lock) MIRELL_THREAD_ANNOTATION(guarded_by(lock))
#define MIRELL_PT_GUARDED_BY(lock) MIRELL_THREAD_ANNOTATION(pt_guarded_by(lock))
#define MIRELL_ACQUIRED_BEFORE(...) MIRELL_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define MIRELL_ACQUIRED_AFTER(...) MIRELL_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define MIRELL_REQUIRES(...) MIRELL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define MIRELL_ACQUIRE(...) MIRELL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define MIRELL_RELEASE(...) MIRELL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define MIRELL_TRY_ACQUIRE(...) MIRELL_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define MIRELL_EXCLUDES(...) MIRELL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define MIRELL_NO_THREAD_SAFETY_ANALYSIS MIRELL_THREAD_ANNOTATION(no_thread_safety_analysis)
