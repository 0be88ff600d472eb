// ProcessStore.h: a process-wide store of memory kept for reuse, made at its
// first use, never destroyed, and locked across fork().
//
// The block cache's central store and the array store are reached from any
// thread at any time (a thread that ends after static destructors have run
// still hands its blocks over), so each is made once and never destroyed.
// Every lock of a store is taken before fork() and let go after it in both
// processes: a fork while another thread held one would otherwise leave the
// child's copy locked for good, and the child's first use would wait
// forever.
//
// Thread safety: TheProcessStore may be called from any thread; the store
// guards itself.
#ifndef _ZV_INTERNAL_PROCESS_STORE_H
#define _ZV_INTERNAL_PROCESS_STORE_H

#include <pthread.h>

namespace zvkit::internal {

// The one Store of the process. Store has LockAll() and UnlockAll(), which
// take and let go of every lock it has.
template <class Store> Store& TheProcessStore()
{
	static Store* store = [] {
		Store* made = new Store();
		// Installed with the store: before it exists there is nothing to
		// guard. The child's handler runs in its only thread, the one that
		// forked and so holds every lock.
		pthread_atfork([] { TheProcessStore<Store>().LockAll(); },
		               [] { TheProcessStore<Store>().UnlockAll(); },
		               [] { TheProcessStore<Store>().UnlockAll(); });
		return made;
	}();
	return *store;
}

} // namespace zvkit::internal

#endif // _ZV_INTERNAL_PROCESS_STORE_H
