// support/annotations.h: lock annotations, checked where the compiler can (clang -Wthread-safety),
// empty elsewhere.
#pragma once

#if defined(__clang__)
#define NRPC_ANNOTATE(x) __attribute__((x))
#else
#define NRPC_ANNOTATE(x)
#endif

#define CAPABILITY(name) NRPC_ANNOTATE(capability(name))
#define SCOPED_CAPABILITY NRPC_ANNOTATE(scoped_lockable)
#define GUARDED_BY(lock) NRPC_ANNOTATE(guarded_by(lock))
#define REQUIRES_LOCK(lock) NRPC_ANNOTATE(requires_capability(lock))
#define EXCLUDES_LOCK(lock) NRPC_ANNOTATE(locks_excluded(lock))
#define ACQUIRES_LOCK(...) NRPC_ANNOTATE(acquire_capability(__VA_ARGS__))
#define RELEASES_LOCK(...) NRPC_ANNOTATE(release_capability(__VA_ARGS__))
#define TRIES_LOCK(...) NRPC_ANNOTATE(try_acquire_capability(__VA_ARGS__))
// For the few functions whose locking depends on a value, which the checker cannot follow.
#define UNCHECKED_LOCKING NRPC_ANNOTATE(no_thread_safety_analysis)
