// Public header: annotations for clang's thread-safety analysis.
//
// The lock rules of this library are part of its declarations: clang checks
// them with -Wthread-safety, other compilers see nothing.
#ifndef TOLV_VEX_TOLVTHREADSAFETY_HPP
#define TOLV_VEX_TOLVTHREADSAFETY_HPP

#if defined(__clang__)
#define TOLV_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define TOLV_THREAD_SAFETY(attribute)
#endif

/// The class is a lock.
#define TOLV_CAPABILITY TOLV_THREAD_SAFETY(capability("mutex"))

/// The class holds a lock as long as it lives.
#define TOLV_SCOPED_CAPABILITY TOLV_THREAD_SAFETY(scoped_lockable)

/// The member is only touched with the lock held.
#define TOLV_GUARDED_BY(lock) TOLV_THREAD_SAFETY(guarded_by(lock))

/// The function is called with the lock held.
#define TOLV_REQUIRES(...) TOLV_THREAD_SAFETY(requires_capability(__VA_ARGS__))

/// The function is called with the lock not held: it takes it itself.
#define TOLV_EXCLUDES(...) TOLV_THREAD_SAFETY(locks_excluded(__VA_ARGS__))

/// The function takes the lock and returns with it.
#define TOLV_ACQUIRE(...) TOLV_THREAD_SAFETY(acquire_capability(__VA_ARGS__))

/// The function gives the lock back.
#define TOLV_RELEASE(...) TOLV_THREAD_SAFETY(release_capability(__VA_ARGS__))

/// The function is not checked; its comment says why it is right.
#define TOLV_NO_THREAD_SAFETY_ANALYSIS                                         \
    TOLV_THREAD_SAFETY(no_thread_safety_analysis)

#endif
