// LooperControl and HandlerControl: the blocks shared between loopers,
// handlers and the refs that name them.

#include "looper/internal/LooperControl.h"

#include <chrono>

namespace zvkit::internal {

LooperControl::LooperControl(ZvLooper* looper)
    : fState(0), fRefs(1), fLooper(looper), fThread(0), fDead(false)
{
}

void LooperControl::Release()
{
	if (fRefs.fetch_sub(1, std::memory_order_acq_rel) == 1)
		delete this;
}

bool LooperControl::WaitForPosters(bigtime_t timeout)
{
	std::unique_lock<std::mutex> hold(fLock);
	// The last poster to leave an ending looper takes the lock before it
	// notifies (_WakeEnding), so its wake-up cannot fall between this test
	// and the wait.
	return fDrained.wait_for(hold, std::chrono::microseconds(timeout),
	                         [this] { return Posters() == 0; });
}

void LooperControl::_WakeEnding()
{
	std::lock_guard<std::mutex> hold(fLock);
	fDrained.notify_all();
}

HandlerControl::HandlerControl() : fStamp(0), fRefs(1), fLooper(nullptr) {}

HandlerControl::~HandlerControl()
{
	if (fLooper != nullptr)
		fLooper->Release();
}

void HandlerControl::Release()
{
	if (fRefs.fetch_sub(1, std::memory_order_acq_rel) == 1)
		delete this;
}

void HandlerControl::Attach(LooperControl* looper)
{
	if (looper != nullptr)
		looper->Acquire();
	// A deleted handler is never attached again; keep its bit.
	_Replace(looper, [](std::atomic<uint32>& stamp) {
		return stamp.fetch_add(2, std::memory_order_acq_rel);
	});
}

void HandlerControl::MarkDeleted()
{
	_Replace(nullptr, [](std::atomic<uint32>& stamp) {
		return stamp.fetch_or(1, std::memory_order_acq_rel);
	});
}

void HandlerControl::_Replace(LooperControl* looper, uint32 (*stampChange)(std::atomic<uint32>&))
{
	LooperControl* previous;
	{
		std::lock_guard<std::mutex> hold(fLock);
		previous = fLooper;
		fLooper = looper;
		stampChange(fStamp);
	}
	if (previous != nullptr)
		previous->Release();
}

LooperControl* HandlerControl::CurrentAttachment(uint32* stamp)
{
	std::lock_guard<std::mutex> hold(fLock);
	*stamp = fStamp.load(std::memory_order_relaxed);
	if (fLooper != nullptr)
		fLooper->Acquire();
	return fLooper;
}

} // namespace zvkit::internal
