// LooperTestSupport.h: handlers, loopers and counters shared by the looper
// framework's tests.
#ifndef ZVKIT_LOOPER_TEST_SUPPORT_H
#define ZVKIT_LOOPER_TEST_SUPPORT_H

#include <ZvHandler.h>
#include <ZvLooper.h>
#include <ZvMessage.h>
#include <ZvThread.h>

#include "TestSupport.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace looper_test {

// Heap blocks allocated and not yet freed by the calling thread (operator
// new and delete of the test executable count them; see ZvLooperTest.cpp).
// A difference of 0 around a piece of code that runs in one thread means
// that everything it allocated was freed again.
int64_t LiveBlocksOfThisThread();
// The same, for the blocks of one size only (sizes up to 256 bytes).
int64_t LiveBlocksOfSize(std::size_t size);

// Name of the pointer field in which PostMessage records the target.
inline const char* PreferredField()
{
	return "_preferredhandler";
}

// Counts and remembers what it receives; can be told to wait on a latch in
// MessageReceived so that a test can hold the looper's thread.
class RecordingHandler : public ZvHandler
{
public:
	// Room for the whats of small tests is made up front, so that a receipt
	// allocates nothing (tests count the blocks a dispatch leaves behind).
	explicit RecordingHandler(const char* name = "recorder") : ZvHandler(name)
	{
		fWhats.reserve(256);
	}

	void MessageReceived(ZvMessage* message) override
	{
		fThread.store(ZvThread::CurrentID());
		ZvLooper* looper = Looper();
		fLockedDuringReceive.store(looper != nullptr && looper->IsLocked());
		fCurrentMatched.store(looper != nullptr && looper->CurrentMessage() == message);
		{
			std::lock_guard<std::mutex> hold(fLock);
			fWhats.push_back(message->what);
		}
		fReceived.fetch_add(1);
		if (fArrived != nullptr)
			fArrived->CountDown();
		if (fRelease != nullptr)
			fRelease->WaitFor(std::chrono::seconds(30));
	}

	int32 Received() const { return fReceived.load(); }
	uint32 Thread() const { return fThread.load(); }
	bool WasLockedDuringReceive() const { return fLockedDuringReceive.load(); }
	bool CurrentMessageMatched() const { return fCurrentMatched.load(); }

	std::vector<uint32> Whats() const
	{
		std::lock_guard<std::mutex> hold(fLock);
		return fWhats;
	}

	// Each receipt counts arrived down, then waits until release opens.
	void HoldOn(zvtest::Latch* arrived, zvtest::Latch* release)
	{
		fArrived = arrived;
		fRelease = release;
	}

private:
	std::atomic<int32> fReceived{0};
	std::atomic<uint32> fThread{0};
	std::atomic<bool> fLockedDuringReceive{false};
	std::atomic<bool> fCurrentMatched{false};
	mutable std::mutex fLock;
	std::vector<uint32> fWhats;
	zvtest::Latch* fArrived = nullptr;
	zvtest::Latch* fRelease = nullptr;
};

// A looper that counts what reaches its own MessageReceived and reports its
// destruction (which, for a looper that was run, happens in its thread).
class TestLooper : public ZvLooper
{
public:
	TestLooper(std::atomic<int32>* destroyed = nullptr, zvtest::Latch* gone = nullptr,
	           int32 capacity = 1000, zv_thread_priority priority = ZV_NORMAL_PRIORITY)
	    : ZvLooper("test looper", priority, capacity), fDestroyed(destroyed), fGone(gone)
	{
	}

	~TestLooper() override
	{
		if (fDestroyed != nullptr)
			fDestroyed->fetch_add(1);
		if (fGone != nullptr)
			fGone->CountDown();
	}

	void MessageReceived(ZvMessage* message) override
	{
		fOwnWhats.push_back(message->what);
		fOwnReceived.fetch_add(1);
	}

	// Posts one message for a handler that is not attached and drains it,
	// so that the queue has made its ring of slots (which it keeps): counts
	// of heap blocks taken afterwards see only what a test's own messages
	// allocate and free.
	void PrimeQueue()
	{
		ZvHandler stranger("stranger");
		PostMessage(1, &stranger);
		Drain();
	}

	int32 OwnReceived() const { return fOwnReceived.load(); }
	// Read only once the looper's thread is known to be idle or not running.
	const std::vector<uint32>& OwnWhats() const { return fOwnWhats; }

	// Processes everything queued in the calling thread, as the loop would
	// (for loopers that are never run). Returns the number of messages taken.
	// Stops, as the loop does, after a honoured "QUIT": that message leaves
	// the looper's lock held for ever by the thread that dispatched it (the
	// lock is killed, never released), which the loop's thread never
	// notices because it ends at its next wait.
	int32 Drain()
	{
		int32 taken = 0;
		while (ProcessOne()) {
			taken++;
			if (IsLocked())
				break;
		}
		return taken;
	}

	// One turn of the loop in the calling thread: locks, processes the next
	// message, unlocks. False when the lock fails or nothing was queued.
	bool ProcessOne()
	{
		if (!Lock())
			return false;
		const bool took = ProcessNextMessage();
		Unlock();
		return took;
	}

private:
	std::atomic<int32>* fDestroyed;
	zvtest::Latch* fGone;
	std::atomic<int32> fOwnReceived{0};
	std::vector<uint32> fOwnWhats;
};

} // namespace looper_test

#endif // ZVKIT_LOOPER_TEST_SUPPORT_H
