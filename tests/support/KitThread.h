// KitThread.h: a thread of the kit's running a function, for tests that
// must see it asleep on a semaphore.
//
// A std::thread is not a thread the kit knows: get_thread_info cannot say
// what it waits on. A KitThread is made with ZvThread::Create, so a test
// can wait until it sleeps on a named semaphore (a post blocked on a
// queue's "_item_limit", for instance) before it lets it go.
#ifndef ZVKIT_KIT_THREAD_H
#define ZVKIT_KIT_THREAD_H

#include <ZvThread.h>

#include "Polling.h"

#include <functional>
#include <utility>

namespace zvtest {

// Runs body in a new thread of the kit's at once; the destructor waits for
// it. Used by one test thread.
class KitThread
{
public:
	explicit KitThread(std::function<void()> body, const char* name = "kit thread")
	    : fBody(std::move(body))
	{
		fThread = ZvThread::Create(&KitThread::Entry, this, ZV_NORMAL_PRIORITY, name);
		if (fThread > 0)
			fResumed = ZvThread::Resume(static_cast<uint32>(fThread));
	}
	~KitThread() { Join(); }
	KitThread(const KitThread&) = delete;
	KitThread& operator=(const KitThread&) = delete;

	// Whether the thread was made and set running (and so runs body).
	bool Started() const { return fThread > 0 && fResumed; }
	uint32 ID() const { return static_cast<uint32>(fThread); }
	// Whether the thread is asleep on the semaphore named semaphore now.
	bool IsWaitingOn(const char* semaphore) const
	{
		return IsWaitingOnSemaphore(fThread, semaphore);
	}
	// Waits until the thread sleeps on that semaphore (bounded, as
	// WaitUntil); false when it did not within the limit.
	bool WaitsOn(const char* semaphore) const
	{
		return WaitUntil([&] { return IsWaitingOn(semaphore); });
	}
	// Waits for the thread to end; true when it ended (the first call).
	bool Join()
	{
		if (fJoined || !Started())
			return false;
		fJoined = true;
		return ZvThread::Wait(static_cast<uint32>(fThread), nullptr);
	}

private:
	static int32 Entry(void* data)
	{
		static_cast<KitThread*>(data)->fBody();
		return 0;
	}

	std::function<void()> fBody;
	int32 fThread = 0;
	bool fResumed = false;
	bool fJoined = false;
};

} // namespace zvtest

#endif // ZVKIT_KIT_THREAD_H
