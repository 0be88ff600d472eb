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

extern thread_local uint32 tCurrentThread __attribute__((tls_model("initial-exec")));

inline uint32 CurrentThread()
{
	uint32 id = tCurrentThread;
	if (__builtin_expect(id == 0, 0)) {
		id = static_cast<uint32>(find_thread(nullptr));
		tCurrentThread = id;
	}
	return id;
}

} // namespace zvkit::internal

#endif // _ZV_INTERNAL_CURRENT_THREAD_H
