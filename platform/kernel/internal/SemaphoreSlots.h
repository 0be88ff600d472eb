// SemaphoreSlots.h: the kernel kit's semaphore table, for the platform and
// its sister library (libzvkit, built in the same project).
//
// The table and the layout of a slot's state word are described in
// Semaphores.cpp. This header exposes them, with the one-unit acquire and
// release that need no wait and no wake-up, so that a lock of libzvkit can
// take and give back its semaphore's unit inline, without a call into this
// library; anything else (units missing, waiters, a deleted semaphore, a
// race) makes those calls answer false, having changed nothing, and the
// caller goes on to the exported acquire_sem_etc or release_sem, which
// decide. It is not installed: the layout is the two libraries' private
// agreement, and both are always built and shipped together.
//
// Thread safety: the functions may be called from any thread, and from a
// signal handler of the only thread of a process (see "One thread").
#ifndef ZVPLATFORM_SEMAPHORE_SLOTS_H
#define ZVPLATFORM_SEMAPHORE_SLOTS_H

#include <OS.h>
#include <SupportDefs.h>

#include <atomic>
#include <climits>

#include <sys/single_threaded.h>

// The thread sanitizer build keeps every change of a state word an atomic
// it can follow.
#if defined(__SANITIZE_THREAD__)
#define ZVPLATFORM_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZVPLATFORM_THREAD_SANITIZER 1
#endif
#endif

// ZVPLATFORM_UNLOCKED_EXCHANGE: a process with one thread changes state words
// without the bus lock (x86-64, but in the thread sanitizer build).
// ZVPLATFORM_INLINE_UNITS: TakeOneInline and GiveOneInline exist (x86-64;
// other targets always call the exported functions).
#if defined(__x86_64__)
#define ZVPLATFORM_INLINE_UNITS 1
#if !defined(ZVPLATFORM_THREAD_SANITIZER)
#define ZVPLATFORM_UNLOCKED_EXCHANGE 1
#endif
#endif

namespace zvplatform {

constexpr uint32 kSlotCount = 65536; // the index fills 16 bits

constexpr uint64 kCountMask = 0xFFFFFFFFull;
constexpr int kWaiterShift = 32;
constexpr uint64 kOneWaiter = 1ull << kWaiterShift;
constexpr uint64 kWaiterMask = 0xFFFFull << kWaiterShift;
constexpr int kTagShift = 48;
constexpr uint32 kDeadBit = 0x8000;
constexpr uint32 kGenerationMask = 0x7FFF;

struct alignas(64) SemSlot
{
	std::atomic<uint64> word{0};
	// Bit 0: a waiter may be asleep (see "Wake sequence" in Semaphores.cpp);
	// bits 31..1 advance with every wake-up.
	std::atomic<uint32> wakeSeq{0};
	// Units wanted by the registered waiters (for get_sem_count), and how
	// many of them want more than one unit (then a release wakes all).
	std::atomic<int32> demand{0};
	std::atomic<int32> bigWaiters{0};
	// Guarded by the table's lock (Semaphores.cpp).
	team_id team = 0;
	char name[B_OS_NAME_LENGTH] = {};
};

static_assert(std::atomic<uint64>::is_always_lock_free, "the state word must be lock-free");

// The table, zero-initialised and never freed. Exported for libzvkit only;
// both libraries reach it through their GOT, so that a copy of it made by a
// program that names it (a test) is the one table everybody uses.
extern _EXPORT SemSlot gSemSlots[kSlotCount];

// The slot index of an identifier (its low 16 bits).
inline uint32 SlotIndexOf(sem_id id)
{
	return static_cast<uint32>(id) & 0xFFFF;
}

// The generation an identifier names.
inline uint32 LiveTagOf(sem_id id)
{
	return (static_cast<uint32>(id) >> 16) & kGenerationMask;
}

// The high half (tag and waiters) of the word of a live semaphore with this
// tag and no registered waiter.
inline uint32 IdleHighHalf(uint32 tag)
{
	return tag << (kTagShift - 32);
}

#if defined(ZVPLATFORM_UNLOCKED_EXCHANGE)
// True while the process has never had a second thread (the C library's
// __libc_single_threaded: it is cleared by the first pthread_create, in this
// thread, before the new thread runs).
inline bool SingleThreaded()
{
	return __libc_single_threaded != 0;
}

// One thread. Even an exchange without the lock prefix costs several times
// a plain read-modify-write on some processors (it is microcoded), so while
// the process has one thread an acquire or release of one unit changes the
// count field (the word's low half) with a single subl or addl, after two
// plain reads: the high half (generation and waiters, which no acquire or
// release changes) and the count. Only a signal handler of this thread can
// run between those reads and the change; if it took the last unit or added
// the last one there is room for, the change shows it by its carry or
// overflow flag and is undone by the next instruction, and the general path
// decides. The undone value is what a handler running in that one
// instruction's gap may see; CountOf (Semaphores.cpp) reads it as what it
// stands for. (create_sem and delete_sem take a mutex and are not for signal
// handlers.)
inline uint32 LoadCountHalf(const std::atomic<uint64>& word)
{
	uint32 half;
	asm volatile("movl (%1), %0" : "=r"(half) : "r"(&word) : "memory");
	return half;
}

inline uint32 LoadHighHalf(const std::atomic<uint64>& word)
{
	uint32 half;
	asm volatile("movl 4(%1), %0" : "=r"(half) : "r"(&word) : "memory");
	return half;
}

// Takes one unit without the bus lock; false (nothing changed) when the
// general path must decide.
inline bool TakeOneAlone(std::atomic<uint64>& word, uint32 tag)
{
	if (LoadHighHalf(word) != IdleHighHalf(tag))
		return false;
	const uint32 field = LoadCountHalf(word);
	if (field - 1 >= static_cast<uint32>(INT32_MAX))
		return false; // no unit free, or a handler's undo in progress
	bool borrowed;
	asm volatile("subl $1, %0" : "+m"(word), "=@ccc"(borrowed) : : "memory");
	if (__builtin_expect(!borrowed, 1))
		return true;
	asm volatile("addl $1, %0" : "+m"(word) : : "memory");
	return false;
}

// Gives back one unit without the bus lock; false (nothing changed) when
// the general path must decide.
inline bool GiveOneAlone(std::atomic<uint64>& word, uint32 tag)
{
	if (LoadHighHalf(word) != IdleHighHalf(tag))
		return false;
	const uint32 field = LoadCountHalf(word);
	if (field >= static_cast<uint32>(INT32_MAX))
		return false; // no room, or a handler's undo in progress
	bool overflowed;
	asm volatile("addl $1, %0" : "+m"(word), "=@cco"(overflowed) : : "memory");
	if (__builtin_expect(!overflowed, 1))
		return true;
	asm volatile("subl $1, %0" : "+m"(word) : : "memory");
	return false;
}
#endif

#if defined(ZVPLATFORM_INLINE_UNITS)
// The slot of a valid-looking identifier (positive, as every identifier
// create_sem gives), or null; the caller still compares the tag.
inline SemSlot* InlineSlotFor(sem_id id)
{
	if (id <= 0)
		return nullptr;
	return &gSemSlots[SlotIndexOf(id)];
}

// acquire_sem_etc(id, 1, ...) when a unit is free: takes it and answers
// true. False, with nothing changed, whenever the exported call must decide
// (no unit free, waiters registered, a deleted or unknown semaphore, or a
// racing change of the word); that call then gives the answer.
inline bool TakeOneInline(sem_id id)
{
	SemSlot* slot = InlineSlotFor(id);
	if (slot == nullptr)
		return false;
	const uint32 tag = LiveTagOf(id);
#if defined(ZVPLATFORM_UNLOCKED_EXCHANGE)
	if (__builtin_expect(SingleThreaded(), 0))
		return TakeOneAlone(slot->word, tag);
#endif
	// One compare-and-swap, as in the exported call's fast path; a word
	// with waiters is left to that call, which keeps their bookkeeping.
	uint64 word = slot->word.load(std::memory_order_relaxed);
	if (static_cast<uint32>(word >> 32) != IdleHighHalf(tag) ||
	    static_cast<uint32>(word) - 1 >= static_cast<uint32>(INT32_MAX))
		return false;
	return slot->word.compare_exchange_strong(word, word - 1, std::memory_order_acquire,
	                                          std::memory_order_relaxed);
}

// release_sem(id) when no waiter is registered and there is room: gives
// the unit back and answers true. False, with nothing changed, whenever the
// exported call must decide (waiters to wake, a full count, a deleted or
// unknown semaphore, or a racing change of the word).
inline bool GiveOneInline(sem_id id)
{
	SemSlot* slot = InlineSlotFor(id);
	if (slot == nullptr)
		return false;
	const uint32 tag = LiveTagOf(id);
#if defined(ZVPLATFORM_UNLOCKED_EXCHANGE)
	if (__builtin_expect(SingleThreaded(), 0))
		return GiveOneAlone(slot->word, tag);
#endif
	// seq_cst, as the exported release: the word replaced had no waiter; a
	// waiter registering later sees the unit in its own exchange, and one
	// registering in between makes the exchange fail.
	uint64 word = slot->word.load(std::memory_order_relaxed);
	if (static_cast<uint32>(word >> 32) != IdleHighHalf(tag) ||
	    static_cast<uint32>(word) >= static_cast<uint32>(INT32_MAX))
		return false;
	return slot->word.compare_exchange_strong(word, word + 1, std::memory_order_seq_cst,
	                                          std::memory_order_relaxed);
}
#endif

} // namespace zvplatform

#endif // ZVPLATFORM_SEMAPHORE_SLOTS_H
