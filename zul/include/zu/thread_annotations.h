// Locking rules the compiler checks. Clang's thread-safety analysis (-Wthread-safety) reads
// these attributes: a member marked ZU_GUARDED_BY(m_lock) may be touched only with m_lock held,
// a function marked ZU_REQUIRES(m_lock) may be called only with it held, and so on. Other
// compilers see nothing.
#pragma once

#if defined(__clang__)
#define ZU_THREAD_ANNOTATION(attribute) __attribute__((attribute))
#else
#define ZU_THREAD_ANNOTATION(attribute)
#endif

// A class that is a lock (zu::Mutex) or a guard holding one for its lifetime (zu::ScopedLock).
#define ZU_CAPABILITY(name) ZU_THREAD_ANNOTATION(capability(name))
#define ZU_SCOPED_CAPABILITY ZU_THREAD_ANNOTATION(scoped_lockable)

// Data that may be read or written only with the lock held (for a pointer: what it points at).
#define ZU_GUARDED_BY(lock) ZU_THREAD_ANNOTATION(guarded_by(lock))
#define ZU_PT_GUARDED_BY(lock) ZU_THREAD_ANNOTATION(pt_guarded_by(lock))

// Functions that must be called with the locks held, or without them.
#define ZU_REQUIRES(...) ZU_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZU_EXCLUDES(...) ZU_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// Functions that take or give back a lock.
#define ZU_ACQUIRE(...) ZU_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZU_RELEASE(...) ZU_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZU_TRY_ACQUIRE(...) ZU_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ZU_RETURN_CAPABILITY(lock) ZU_THREAD_ANNOTATION(lock_returned(lock))

// For the rare function whose locking the analysis cannot follow; say why where it is used.
#define ZU_NO_THREAD_SAFETY_ANALYSIS ZU_THREAD_ANNOTATION(no_thread_safety_analysis)
