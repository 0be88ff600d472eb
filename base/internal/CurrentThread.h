// CurrentThread.h: the calling thread's kernel identifier, cached per thread.
//
// find_thread(nullptr) is a call into the platform library; the lock's fast
// path asks for the caller's identifier on every Lock and Unlock, so the
// answer is kept in a thread-local word after the first call. A forked
// child's only thread has a new identifier: CurrentThread.cpp clears the
// cache in the child.
//
// Thread safety: each thread reads and writes only its own cache.
#ifndef _ZV_INTERNAL_CURRENT_THREAD_H
#define _ZV_INTERNAL_CURRENT_THREAD_H

#include <OS.h>
#include <SupportDefs.h>

namespace zvkit::internal {

// __thread rather than thread_local: the word needs no constructor, and an
// extern thread_local would make every reader call the variable's
// initialisation wrapper first.
extern __thread uint32 tCurrentThread __attribute__((tls_model("initial-exec")));

// Asks the platform and fills the cache; kept out of line so that the
// readers' fast path stays small.
uint32 LookUpCurrentThread();

// The cached identifier, or 0 while this thread has not looked it up yet:
// for callers that take the look-up out of line themselves.
inline uint32 CachedCurrentThread()
{
	return tCurrentThread;
}

inline uint32 CurrentThread()
{
	const uint32 id = tCurrentThread;
	if (__builtin_expect(id == 0, 0))
		return LookUpCurrentThread();
	return id;
}

} // namespace zvkit::internal

#endif // _ZV_INTERNAL_CURRENT_THREAD_H
