// Semaphores.cpp: the kernel kit's counting semaphores, local to the process.
//
// Table. Semaphores live in a static array of slots (zero-initialised, so it
// costs memory only for the slots in use), never freed: a thread holding a
// stale identifier can always look at the slot it names without touching
// freed memory, and creating or deleting a semaphore never allocates. An
// identifier is (generation << 16) | slot index; each reuse of a slot
// advances its generation (1 .. 32767; tag 0 marks a slot never used), and
// freed slots are reused oldest first while at least kMinFree others are
// free, so an identifier comes back only after millions of creations.
//
// State word. Each slot packs into one 64-bit atomic word:
//   bits 63..48  tag: generation, plus kDeadBit once the semaphore is deleted
//   bits 47..32  number of threads registered as waiters
//   bits 31..0   free units (0 .. INT32_MAX; see CountOf for the one
//                exception, which only a process with one thread makes)
// Every change of the count (but the one-thread path) is a
// compare-and-swap on the whole word, so it validates the generation at the
// same time: an acquire or release racing
// with delete_sem either happens entirely before the deletion or fails with
// B_BAD_SEM_ID. Uncontended acquire and release are one such CAS each, with
// no system call (with one thread, one unit: a plain subtraction or addition,
// see "One thread" in internal/SemaphoreSlots.h, which also holds the slot
// layout and the one-unit paths libzvkit's locks take inline).
//
// Waiting. A thread that must wait registers in the waiter field, then
// sleeps on the slot's wake sequence (a futex word). A registered waiter pins
// its slot: a deleted slot goes back to the free list only when its last
// waiter has left, so a woken waiter never works on a semaphore that has
// meanwhile been created in the same slot.
//
// Wake sequence. Bit 0 of the sequence is the "may sleep" bit; the rest
// counts wake-ups (in steps of 2). Before each look at the state word, a
// waiter sets the bit, and it sleeps only on the sequence value that has the
// bit set. A release that sees waiters in the word it replaced reads the
// sequence and makes a system call only when the bit is set: a waiter that is
// registered but awake (just woken, or not asleep yet) costs the releaser
// nothing. This is a Dekker-style handshake, both sides seq_cst:
//   waiter:   set the bit in the sequence, then read the state word;
//   releaser: change the state word, then read the sequence.
// At least one of them sees the other's write: either the waiter sees the
// new units, or the releaser sees the bit and changes the sequence before
// waking, so the waiter's futex wait either fails at once (value changed) or
// is woken. A releaser clears the bit only when it wakes every sleeper, so a
// clear bit means nobody is asleep who has not re-set it first. A releaser
// waking fewer than all advances the sequence but leaves the bit set, so the
// next release wakes the sleepers that remain. delete_sem and a waiter
// passing on a wake-up advance the sequence by 2 (keeping the bit as it is)
// and wake all.
#include "KernelPrivate.h"
#include "internal/SemaphoreSlots.h"

#include <OS.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <mutex>
#include <type_traits>

#include <pthread.h>

namespace zvplatform {

SemSlot gSemSlots[kSlotCount];

namespace {

constexpr uint32 kGrowStep = 256;
constexpr uint32 kMinFree = 1024;

inline uint32 TagOf(uint64 word)
{
	return static_cast<uint32>(word >> kTagShift);
}

inline uint32 WaitersOf(uint64 word)
{
	return static_cast<uint32>((word & kWaiterMask) >> kWaiterShift);
}

// The free units a word holds. The field is 0 .. INT32_MAX, except for the
// length of one instruction in a process with one thread: an acquire or
// release of one unit that a signal handler of the same thread got ahead of
// undoes its subtraction or addition (see "One thread" in
// internal/SemaphoreSlots.h), and a handler
// that runs in between sees 0xFFFFFFFF for 0 or 0x80000000 for INT32_MAX.
inline int32 CountOf(uint64 word)
{
	const uint32 field = static_cast<uint32>(word & kCountMask);
	if (__builtin_expect(field <= static_cast<uint32>(INT32_MAX), 1))
		return static_cast<int32>(field);
	return field == 0xFFFFFFFFu ? 0 : INT32_MAX;
}

// word with count more free units; the count field is added to on its own,
// so that the transient 0xFFFFFFFF (for 0) carries into no other field.
inline uint64 WithMoreUnits(uint64 word, int32 count)
{
	const uint32 field = static_cast<uint32>(word & kCountMask) + static_cast<uint32>(count);
	return (word & ~kCountMask) | field;
}

// Guards creation, deletion, the free list and the slots' team and name.
std::mutex gTableLock;
// The free list: a ring of slot indexes, oldest first.
uint16 gFreeRing[kSlotCount];
uint32 gFreeHead = 0;
uint32 gFreeCount = 0;
// Slots below this index have been handed to the free list at least once.
uint32 gSlotsOpened = 0;

void PrepareFork()
{
	gTableLock.lock();
}

void AfterFork()
{
	gTableLock.unlock();
}

struct ForkGuardInstaller
{
	ForkGuardInstaller() { pthread_atfork(&PrepareFork, &AfterFork, &AfterFork); }
} sForkGuardInstaller;

// The compare-and-swap of the acquire and release fast paths. While the
// process has a single thread (the C library's __libc_single_threaded: it is
// cleared by the first pthread_create, in this thread, before the new thread
// runs) nothing can race the exchange, so on x86-64 it is made without the
// bus lock, as the C library does for its own mutexes: the lock is most of
// an uncontended acquire + release. It is still one instruction, so a signal
// handler on this thread cannot split it. The thread sanitizer build keeps
// the atomic, which it can follow.
#if defined(ZVPLATFORM_UNLOCKED_EXCHANGE)
// cmpxchg without the lock prefix: one instruction, so a signal handler of
// this thread sees it entirely done or not begun. On failure expected holds
// the word as it was.
inline bool ExchangeUnlocked(std::atomic<uint64>& word, uint64& expected, uint64 desired)
{
	bool exchanged;
	asm volatile("cmpxchgq %3, %1"
	             : "=@ccz"(exchanged), "+m"(word), "+a"(expected)
	             : "r"(desired)
	             : "memory");
	return exchanged;
}
#endif

// kAlone: the caller found the process single-threaded.
template <bool kAlone>
inline bool ExchangeWord(std::atomic<uint64>& word, uint64& expected, uint64 desired,
                         std::memory_order order)
{
#if defined(ZVPLATFORM_UNLOCKED_EXCHANGE)
	if (kAlone)
		return ExchangeUnlocked(word, expected, desired);
#endif
	return word.compare_exchange_weak(expected, desired, order, std::memory_order_relaxed);
}

// The slot an identifier names, or null when it cannot name any. The caller
// still has to compare the generation with the slot's tag.
SemSlot* SlotFor(sem_id id)
{
	if (id <= 0)
		return nullptr;
	return &gSemSlots[SlotIndexOf(id)];
}

// Called with gTableLock held.
void FreeSlotLocked(uint32 index)
{
	gFreeRing[(gFreeHead + gFreeCount) % kSlotCount] = static_cast<uint16>(index);
	gFreeCount++;
}

void FreeSlot(uint32 index)
{
	KitLock lock(gTableLock);
	FreeSlotLocked(index);
}

// Leaves the waiter field of a slot this thread registered in. The last
// waiter to leave a deleted slot returns it to the free list.
void Unregister(SemSlot* slot, sem_id id)
{
	const uint64 previous = slot->word.fetch_sub(kOneWaiter, std::memory_order_acq_rel);
	if ((TagOf(previous) & kDeadBit) != 0 && WaitersOf(previous) == 1)
		FreeSlot(SlotIndexOf(id));
}

// A team exists when it is a live process (not merely a thread id).
bool TeamExists(team_id team)
{
	return team > 0 && (team == CurrentTeam() || TeamOfThread(team) == team);
}

status_t AcquireSlow(SemSlot* slot, sem_id id, int32 count, uint32 flags, bigtime_t timeout);
status_t WakeAfterRelease(SemSlot* slot, int32 count, uint64 word);

} // namespace
} // namespace zvplatform

using namespace zvplatform;

sem_id create_sem(int32 count, const char* name)
{
	if (count < 0)
		return B_BAD_VALUE;

	KitLock lock(gTableLock);
	// Open more slots while few are free, so that freed identifiers rest a
	// while before their slot is used again.
	while (gFreeCount < kMinFree && gSlotsOpened < kSlotCount) {
		for (uint32 i = 0; i < kGrowStep; i++)
			FreeSlotLocked(gSlotsOpened + i);
		gSlotsOpened += kGrowStep;
	}
	if (gFreeCount == 0)
		return B_NO_MORE_SEMS;

	const uint32 index = gFreeRing[gFreeHead];
	gFreeHead = (gFreeHead + 1) % kSlotCount;
	gFreeCount--;
	SemSlot* slot = &gSemSlots[index];

	const uint64 old = slot->word.load(std::memory_order_relaxed);
	uint32 generation = (TagOf(old) & kGenerationMask) + 1;
	if (generation > kGenerationMask)
		generation = 1;
	slot->team = CurrentTeam();
	CopyName(slot->name, sizeof(slot->name), name);
	slot->demand.store(0, std::memory_order_relaxed);
	slot->bigWaiters.store(0, std::memory_order_relaxed);
	// Publishing the new tag makes the semaphore usable.
	slot->word.store((static_cast<uint64>(generation) << kTagShift) | static_cast<uint32>(count),
	                 std::memory_order_release);
	return static_cast<sem_id>((generation << 16) | index);
}

status_t delete_sem(sem_id id)
{
	SemSlot* slot = SlotFor(id);
	if (slot == nullptr)
		return B_BAD_SEM_ID;
	const uint32 tag = LiveTagOf(id);

	KitLock lock(gTableLock);
	uint64 word = slot->word.load(std::memory_order_relaxed);
	uint64 dead;
	do {
		if (TagOf(word) != tag)
			return B_BAD_SEM_ID;
		// Mark dead, drop the free units, keep the waiters: they still pin
		// the slot until each has left.
		dead = (static_cast<uint64>(tag | kDeadBit) << kTagShift) | (word & kWaiterMask);
	} while (!slot->word.compare_exchange_weak(word, dead, std::memory_order_acq_rel));

	if (WaitersOf(word) == 0) {
		FreeSlotLocked(SlotIndexOf(id));
	} else {
		// Every waiter wakes, sees the dead tag and returns B_BAD_SEM_ID.
		// Adding 2 changes the value without touching the "may sleep" bit.
		slot->wakeSeq.fetch_add(2, std::memory_order_seq_cst);
		FutexWake(&slot->wakeSeq, INT_MAX);
	}
	return B_OK;
}

// Calls inside the library go to these inline versions rather than through
// the exported (interposable) entry points, so acquire_sem and release_sem
// cost no second call.
namespace zvplatform {
namespace {

// Fast path: take the units with one CAS when enough are free.
template <bool kAlone>
inline status_t AcquireFast(SemSlot* slot, sem_id id, int32 count, uint32 flags, bigtime_t timeout)
{
	const uint32 tag = LiveTagOf(id);
	uint64 word = slot->word.load(std::memory_order_relaxed);
	while (true) {
		if (TagOf(word) != tag)
			return B_BAD_SEM_ID;
		if (CountOf(word) < count)
			break;
		if (ExchangeWord<kAlone>(slot->word, word, word - static_cast<uint32>(count),
		                         std::memory_order_acquire)) {
			return B_OK;
		}
	}
	return AcquireSlow(slot, id, count, flags, timeout);
}

// The common start of an acquire (kTake) or a release of count units: the
// slot of id, the argument checks, then the one-unit path of a process with
// one thread, and otherwise fast(slot, alone), alone a std::bool_constant
// saying whether the process has one thread.
template <bool kTake, typename Fast> inline status_t OnUnits(sem_id id, int32 count, Fast fast)
{
	SemSlot* slot = SlotFor(id);
	if (slot == nullptr)
		return B_BAD_SEM_ID;
	if (count <= 0)
		return B_BAD_VALUE;
#if defined(ZVPLATFORM_UNLOCKED_EXCHANGE)
	if (__builtin_expect(SingleThreaded(), 0)) {
		if (count == 1 && (kTake ? TakeOneAlone(slot->word, LiveTagOf(id))
		                         : GiveOneAlone(slot->word, LiveTagOf(id))))
			return B_OK;
		return fast(slot, std::true_type());
	}
#endif
	return fast(slot, std::false_type());
}

inline status_t AcquireUnits(sem_id id, int32 count, uint32 flags, bigtime_t timeout)
{
	return OnUnits<true>(id, count, [&](SemSlot* slot, auto alone) {
		return AcquireFast<decltype(alone)::value>(slot, id, count, flags, timeout);
	});
}

} // namespace
} // namespace zvplatform

status_t acquire_sem(sem_id id)
{
	return AcquireUnits(id, 1, 0, 0);
}

status_t acquire_sem_etc(sem_id id, int32 count, uint32 flags, bigtime_t timeout)
{
	return AcquireUnits(id, count, flags, timeout);
}

namespace zvplatform {
namespace {

status_t AcquireSlow(SemSlot* slot, sem_id id, int32 count, uint32 flags, bigtime_t timeout)
{
	const uint32 tag = LiveTagOf(id);

	bigtime_t deadline = kNoDeadline;
	if ((flags & B_RELATIVE_TIMEOUT) != 0) {
		// A relative time-out of 0 (or less) polls: the semaphore is
		// unavailable, so the answer is B_TIMED_OUT at once.
		if (timeout <= 0)
			return B_TIMED_OUT;
		deadline = timeout == B_INFINITE_TIMEOUT ? kNoDeadline : DeadlineAfter(timeout);
	} else if ((flags & B_ABSOLUTE_TIMEOUT) != 0) {
		if (timeout != B_INFINITE_TIMEOUT) {
			if (timeout <= system_time())
				return B_TIMED_OUT;
			deadline = timeout;
		}
	}

	// No spinning before sleeping: on a loaded machine the releasing thread
	// is rarely running meanwhile, and measured spins of 200 and 2000 pauses
	// made the two-thread ping-pong three to twenty times slower.
	// Register as a waiter, unless units became free meanwhile.
	uint64 word = slot->word.load(std::memory_order_relaxed);
	while (true) {
		if (TagOf(word) != tag)
			return B_BAD_SEM_ID;
		if (CountOf(word) >= count) {
			if (slot->word.compare_exchange_weak(word, word - static_cast<uint32>(count),
			                                     std::memory_order_acquire,
			                                     std::memory_order_relaxed)) {
				return B_OK;
			}
			continue;
		}
		if (WaitersOf(word) == 0xFFFF)
			return B_NO_MORE_THREADS;
		// seq_cst: pairs with the release's CAS on the same word, which then
		// sees this waiter, and with the wake sequence read below.
		if (slot->word.compare_exchange_weak(word, word + kOneWaiter, std::memory_order_seq_cst,
		                                     std::memory_order_relaxed)) {
			break;
		}
	}
	slot->demand.fetch_add(count, std::memory_order_relaxed);
	if (count > 1)
		slot->bigWaiters.fetch_add(1, std::memory_order_seq_cst);
	NoteWaitingOnSem(id);

	status_t result;
	bool killed = false;
	while (true) {
		// Set the "may sleep" bit before reading the word (seq_cst, pairs
		// with the release's CAS on the word and its read of the sequence):
		// a release the word read below misses sees the bit and changes the
		// sequence before waking, so the futex wait below cannot miss it.
		const uint32 seq = slot->wakeSeq.fetch_or(1, std::memory_order_seq_cst) | 1;
		word = slot->word.load(std::memory_order_seq_cst);
		if (TagOf(word) != tag) {
			result = B_BAD_SEM_ID;
			break;
		}
		if (CountOf(word) >= count) {
			if (slot->word.compare_exchange_weak(word, word - static_cast<uint32>(count),
			                                     std::memory_order_acquire,
			                                     std::memory_order_relaxed)) {
				result = B_OK;
				break;
			}
			continue;
		}
		if (deadline != kNoDeadline && system_time() >= deadline) {
			result = B_TIMED_OUT;
			break;
		}
		const block_outcome outcome = BlockOn(&slot->wakeSeq, seq, deadline);
		if (outcome == BLOCK_KILLED) {
			killed = true;
			result = B_INTERRUPTED;
			break;
		}
		if (outcome == BLOCK_INTERRUPTED && (flags & B_CAN_INTERRUPT) != 0) {
			result = B_INTERRUPTED;
			break;
		}
	}

	NoteWaitingOnSem(0);
	if (result != B_OK && result != B_BAD_SEM_ID) {
		// A waiter leaving without units (killed, timed out, interrupted) may
		// have taken a wake-up meant for a unit that is still free: pass it
		// on to the other waiters, so that none sleeps beside a free unit.
		word = slot->word.load(std::memory_order_seq_cst);
		if (TagOf(word) == tag && CountOf(word) > 0 && WaitersOf(word) > 1) {
			slot->wakeSeq.fetch_add(2, std::memory_order_seq_cst);
			FutexWake(&slot->wakeSeq, INT_MAX);
		}
	}
	// Leave the bookkeeping before unregistering: once unregistered, a
	// deleted slot may be reused at once.
	slot->demand.fetch_sub(count, std::memory_order_relaxed);
	if (count > 1)
		slot->bigWaiters.fetch_sub(1, std::memory_order_relaxed);
	Unregister(slot, id);
	if (killed)
		ExitKilledThread();
	return result;
}

} // namespace
} // namespace zvplatform

namespace zvplatform {
namespace {

template <bool kAlone> inline status_t ReleaseFast(SemSlot* slot, sem_id id, int32 count)
{
	const uint32 tag = LiveTagOf(id);
	uint64 word = slot->word.load(std::memory_order_relaxed);
	while (true) {
		if (TagOf(word) != tag)
			return B_BAD_SEM_ID;
		if (CountOf(word) > INT32_MAX - count)
			return B_BAD_VALUE;
		// seq_cst: the word this replaces says whether waiters registered
		// before the units arrived (those must be woken); a waiter
		// registering later sees the units in its own CAS.
		// (Only a process with one thread can hold an undone count.)
		const uint64 desired =
		    kAlone ? WithMoreUnits(word, count) : word + static_cast<uint32>(count);
		if (ExchangeWord<kAlone>(slot->word, word, desired, std::memory_order_seq_cst))
			break;
	}
	if (WaitersOf(word) != 0)
		return WakeAfterRelease(slot, count, word);
	return B_OK;
}

inline status_t ReleaseUnits(sem_id id, int32 count, uint32 flags)
{
	// B_DO_NOT_RESCHEDULE: a release never yields the processor here; woken
	// threads run when the host schedules them, so the flag needs no work.
	(void)flags;
	return OnUnits<false>(id, count, [&](SemSlot* slot, auto alone) {
		return ReleaseFast<decltype(alone)::value>(slot, id, count);
	});
}

} // namespace
} // namespace zvplatform

status_t release_sem(sem_id id)
{
	return ReleaseUnits(id, 1, 0);
}

status_t release_sem_etc(sem_id id, int32 count, uint32 flags)
{
	return ReleaseUnits(id, count, flags);
}

namespace zvplatform {
namespace {

// Wakes the waiters a release of count units owes: word is the state word
// the release replaced, which had waiters. Returns B_OK, the release's
// result.
status_t WakeAfterRelease(SemSlot* slot, int32 count, uint64 word)
{
	// Waiters wanting one unit each: wake as many as units arrived, or all
	// when that is at least the waiters registered. With a waiter wanting
	// more, wake all, so that no waiter that the new units satisfy keeps
	// sleeping behind one they do not.
	const bool wakeAll = static_cast<uint32>(count) >= WaitersOf(word) ||
	                     slot->bigWaiters.load(std::memory_order_seq_cst) != 0;
	// seq_cst read, after the CAS on the word: see "Wake sequence". A clear
	// bit means no waiter can sleep without first seeing the units. Waking
	// all clears the bit (every sleeper wakes and sets it again before it
	// looks at the word); waking fewer keeps it set for the sleepers left
	// behind. Either way the value changes, so a waiter about to sleep on the
	// old value does not sleep.
	uint32 seq = slot->wakeSeq.load(std::memory_order_seq_cst);
	while ((seq & 1) != 0) {
		const uint32 next = wakeAll ? seq + 1 : seq + 2;
		if (slot->wakeSeq.compare_exchange_weak(seq, next, std::memory_order_seq_cst,
		                                        std::memory_order_seq_cst)) {
			FutexWake(&slot->wakeSeq, wakeAll ? INT_MAX : count);
			break;
		}
	}
	return B_OK;
}

} // namespace
} // namespace zvplatform

status_t get_sem_count(sem_id id, int32* threadCount)
{
	SemSlot* slot = SlotFor(id);
	if (slot == nullptr)
		return B_BAD_SEM_ID;
	if (threadCount == nullptr)
		return B_BAD_VALUE;
	const uint64 word = slot->word.load(std::memory_order_acquire);
	if (TagOf(word) != LiveTagOf(id))
		return B_BAD_SEM_ID;
	// As on the platform, a negative count is the units owed to waiters.
	*threadCount = CountOf(word) - slot->demand.load(std::memory_order_relaxed);
	return B_OK;
}

status_t get_sem_info(sem_id id, sem_info* info)
{
	SemSlot* slot = SlotFor(id);
	if (slot == nullptr)
		return B_BAD_SEM_ID;
	if (info == nullptr)
		return B_BAD_VALUE;
	KitLock lock(gTableLock);
	const uint64 word = slot->word.load(std::memory_order_acquire);
	if (TagOf(word) != LiveTagOf(id))
		return B_BAD_SEM_ID;
	info->sem = id;
	info->team = slot->team;
	memcpy(info->name, slot->name, sizeof(info->name));
	info->count = CountOf(word) - slot->demand.load(std::memory_order_relaxed);
	info->latest_holder = -1;
	return B_OK;
}

status_t set_sem_owner(sem_id id, team_id team)
{
	SemSlot* slot = SlotFor(id);
	if (slot == nullptr)
		return B_BAD_SEM_ID;
	if (!TeamExists(team))
		return B_BAD_TEAM_ID;
	KitLock lock(gTableLock);
	const uint64 word = slot->word.load(std::memory_order_acquire);
	if (TagOf(word) != LiveTagOf(id))
		return B_BAD_SEM_ID;
	slot->team = team;
	return B_OK;
}
