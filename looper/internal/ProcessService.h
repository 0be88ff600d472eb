// ProcessService.h: the life of a process-wide service served by a thread of
// its own (the timer thread, the epoll thread).
//
// Such a service is made on its first use and never destroyed: its thread is
// detached and stops with the process. fork() copies the service but not its
// thread, so the child must not use the parent's: the fork handlers here keep
// the service's lock free across the fork, and in the child they let the
// service leave itself inert (Service::_ForgetThreadInChild, called with the
// service's lock held) and forget it, so that the next use there makes a new
// service with a new thread. The inert one stays, so that the objects copied
// into the child that point at it can still be deleted.
//
// A Service gives, to this class (a friend):
//   static Service* _Create();        a new service with its thread started
//   void _ForgetThreadInChild();      the child-side clean-up
//   std::mutex fLock;                 the lock its thread works under
//
// Thread safety: Get may be called from any thread.
#ifndef ZVKIT_PROCESS_SERVICE_H
#define ZVKIT_PROCESS_SERVICE_H

#include <pthread.h>

#include <mutex>

namespace zvkit {
namespace internal {

// Starts a detached thread named name running entry(argument); false when
// no thread could be made.
inline bool StartServiceThread(void* (*entry)(void*), void* argument, const char* name)
{
	pthread_attr_t attributes;
	pthread_attr_init(&attributes);
	pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
	pthread_t thread;
	const bool started = pthread_create(&thread, &attributes, entry, argument) == 0;
	if (started)
		pthread_setname_np(thread, name);
	pthread_attr_destroy(&attributes);
	return started;
}

template <typename Service> class ProcessService
{
public:
	// The service of this process, made with Service::_Create on the first
	// call (and on the first call in a forked child).
	static Service* Get()
	{
		std::lock_guard<std::mutex> hold(sLock);
		if (sService == nullptr) {
			static const bool registered =
			    pthread_atfork(&_BeforeFork, &_AfterForkParent, &_AfterForkChild) == 0;
			(void)registered;
			sService = Service::_Create();
		}
		return sService;
	}

private:
	// Both locks are taken before fork(), so that neither is copied into
	// the child held by a thread that does not exist there.
	static void _BeforeFork()
	{
		sLock.lock();
		if (sService != nullptr)
			sService->fLock.lock();
	}

	static void _AfterForkParent()
	{
		if (sService != nullptr)
			sService->fLock.unlock();
		sLock.unlock();
	}

	static void _AfterForkChild()
	{
		if (sService != nullptr) {
			sService->_ForgetThreadInChild();
			sService->fLock.unlock();
			sService = nullptr;
		}
		sLock.unlock();
	}

	// Guards sService; held across fork() so that the child finds it free.
	static inline std::mutex sLock;
	static inline Service* sService = nullptr;
};

} // namespace internal
} // namespace zvkit

#endif // ZVKIT_PROCESS_SERVICE_H
