// LooperControl.h: the shared blocks that let a ZvLooperRef outlive what it
// names.
//
// LooperControl: one per looper, made by its constructor. The looper holds
// one reference, the process-wide table of live loopers another while the
// looper is in it, each ZvLooperRef (and each handler attached to the
// looper) another; the last release deletes the block, so a ref, or a Quit
// that found the looper in the table, can always read it even after the
// looper is gone. The block says whether the looper is still
// accepting posts and counts the posters that are using the looper right
// now (between Enter and Leave). A looper that begins to end marks the block
// (MarkEnding: Enter fails from then on); before the looper object is
// deleted, its thread (or its owner) waits until every poster inside has
// left (WaitForPosters). So a poster that entered may touch the looper until
// it leaves, and no one else ever does. Posting takes only this looper's
// block, never a lock shared by all loopers.
//
// The block also answers the other question about a looper's life: has its
// deletion begun? Its end guard serialises the ending steps (Quit, a "QUIT"
// message) with the start of the looper's death (MarkDead), so that those
// steps never overlap the delete; see ZvLooper.cpp.
//
// HandlerControl: one per handler, made by its constructor. It records the
// handler's current attachment: the looper's block, and a stamp that
// changes at every attachment change (added, removed, moved) and when the
// handler is deleted. A ref made from a handler keeps the stamp it saw;
// once the stamp moved on, the ref is invalid for ever.
//
// Thread safety: every member may be called from any thread.
#ifndef _ZV_LOOPER_CONTROL_H
#define _ZV_LOOPER_CONTROL_H

#include <SupportDefs.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

class ZvLooper;

namespace zvkit::internal {

class alignas(64) LooperControl
{
public:
	// A block for looper, with the one reference the looper holds.
	explicit LooperControl(ZvLooper* looper);

	LooperControl(const LooperControl&) = delete;
	LooperControl& operator=(const LooperControl&) = delete;

	void Acquire() { fRefs.fetch_add(1, std::memory_order_relaxed); }
	// Drops one reference; the last one deletes the block.
	void Release();

	// Enters as a poster: true when the looper accepts posts, and it then
	// stays alive until the matching Leave. False once it began to end
	// (nothing to leave then).
	bool Enter()
	{
		const uint32 before = fState.fetch_add(1, std::memory_order_acquire);
		if ((before & kEnding) == 0)
			return true;
		Leave();
		return false;
	}
	void Leave()
	{
		const uint32 before = fState.fetch_sub(1, std::memory_order_release);
		if (before == (kEnding | 1))
			_WakeEnding();
	}

	// The looper; to be used only between a successful Enter and its Leave.
	ZvLooper* Looper() const { return fLooper; }
	bool IsAlive() const { return (fState.load(std::memory_order_acquire) & kEnding) == 0; }

	// The looper's thread (0 before Run).
	uint32 Thread() const { return fThread.load(std::memory_order_acquire); }
	void SetThread(uint32 thread) { fThread.store(thread, std::memory_order_release); }

	// The looper's side: refuses new posters from now on. Idempotent.
	void MarkEnding() { fState.fetch_or(kEnding, std::memory_order_acq_rel); }
	// How many posters are inside right now.
	int32 Posters() const
	{
		return static_cast<int32>(fState.load(std::memory_order_acquire) & ~kEnding);
	}
	// After MarkEnding: true once every poster that entered has left,
	// false when timeout (microseconds) passed first.
	bool WaitForPosters(bigtime_t timeout);

	// Held across the ending steps, and by MarkDead: while it is held and
	// IsDead() is false, the looper object exists.
	std::mutex& EndGuard() { return fEndGuard; }
	// Whether the looper's death has begun; read under EndGuard().
	bool IsDead() const { return fDead; }
	// The looper's side, just before it is deleted: waits for the ending
	// steps in flight and marks the looper dead.
	void MarkDead()
	{
		std::lock_guard<std::mutex> hold(fEndGuard);
		fDead = true;
	}

private:
	~LooperControl() = default;
	void _WakeEnding();

	static constexpr uint32 kEnding = 0x80000000u;

	// Written by every post (Enter, Leave): the first word of the block.
	std::atomic<uint32> fState;
	std::atomic<int32> fRefs;
	ZvLooper* const fLooper;
	std::atomic<uint32> fThread;
	// Only for the ending looper's wait for the last poster.
	std::mutex fLock;
	std::condition_variable fDrained;
	std::mutex fEndGuard;
	// Guarded by fEndGuard.
	bool fDead;
};

class HandlerControl
{
public:
	// A block with the one reference the handler holds; not attached.
	HandlerControl();

	HandlerControl(const HandlerControl&) = delete;
	HandlerControl& operator=(const HandlerControl&) = delete;

	void Acquire() { fRefs.fetch_add(1, std::memory_order_relaxed); }
	void Release();

	// The handler's side: a new attachment (looper null: detached). Takes a
	// reference to the looper's block and drops the previous one.
	void Attach(LooperControl* looper);
	// The handler's side, from its destructor: the handler is gone.
	void MarkDeleted();

	// The current attachment: the looper's block with a reference taken
	// for the caller (null when detached or deleted) and the stamp that
	// names the attachment.
	LooperControl* CurrentAttachment(uint32* stamp);
	// Whether the attachment named by stamp still holds (the handler is
	// alive and was neither removed nor moved since).
	bool Holds(uint32 stamp) const { return fStamp.load(std::memory_order_acquire) == stamp; }

private:
	~HandlerControl();

	// Sets the attachment to looper (whose reference the caller took) and
	// changes the stamp by stampChange, under the lock; drops the previous
	// attachment's reference.
	void _Replace(LooperControl* looper, uint32 (*stampChange)(std::atomic<uint32>&));

	// The attachment's number times two; bit 0 set once the handler was
	// deleted, so that no stamp a ref keeps (always even) matches again.
	std::atomic<uint32> fStamp;
	std::atomic<int32> fRefs;
	// Pairs the looper's block with the stamp for CurrentAttachment.
	std::mutex fLock;
	LooperControl* fLooper;
};

} // namespace zvkit::internal

#endif // _ZV_LOOPER_CONTROL_H
