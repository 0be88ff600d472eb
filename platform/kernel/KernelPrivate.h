// KernelPrivate.h: pieces shared by the semaphore, thread and time code of
// the kernel kit: futex waits on the monotonic clock, and blocking that a
// kill_thread can interrupt.
#ifndef ZVPLATFORM_KERNEL_PRIVATE_H
#define ZVPLATFORM_KERNEL_PRIVATE_H

#include <OS.h>

#include <atomic>
#include <cstring>
#include <mutex>

namespace zvplatform {

// A deadline in system_time() microseconds; kNoDeadline waits for ever.
constexpr bigtime_t kNoDeadline = -1;

// The deadline for a wait of "timeout" microseconds starting now, saturating
// to kNoDeadline when it would overflow.
bigtime_t DeadlineAfter(bigtime_t timeout);

// Waits while *word == expected, until woken, a signal arrives or the
// deadline passes. Returns 0 when woken (or *word already differed),
// ETIMEDOUT or EINTR.
int FutexWait(std::atomic<uint32>* word, uint32 expected, bigtime_t deadline);
void FutexWake(std::atomic<uint32>* word, int count);

enum block_outcome
{
	BLOCK_WOKEN,       // woken, or the word changed; the caller re-checks
	BLOCK_TIMED_OUT,   // the deadline passed
	BLOCK_INTERRUPTED, // a signal arrived
	BLOCK_KILLED,      // kill_thread was called on the calling thread
};

// FutexWait for the kernel kit's blocking calls. Every word passed here is a
// sequence word: any change only causes a spurious wake-up, so kill_thread
// may bump it to wake the thread. The word must stay valid (never freed)
// while a thread may block on it, or be owned by an object the killer keeps
// alive (see Threads.cpp).
block_outcome BlockOn(std::atomic<uint32>* word, uint32 expected, bigtime_t deadline);

// True when kill_thread has been called on the calling thread.
bool CurrentThreadKilled();

// Ends the calling thread, which kill_thread has marked, with the exit value
// B_INTERRUPTED. Unwinds its stack (destructors run) like pthread_exit.
[[noreturn]] void ExitKilledThread();

// Copies name (an empty one when null) into target, truncated to size - 1
// characters and always terminated.
inline void CopyName(char* target, size_t size, const char* name)
{
	if (name == nullptr)
		name = "";
	size_t length = strnlen(name, size - 1);
	memcpy(target, name, length);
	target[length] = '\0';
}

// The kit's internal locks are taken inside a critical section: a
// suspend_thread that reaches a thread there is deferred until the thread
// leaves it, so a paused thread never holds a lock that resume_thread, or
// any other call of the kit, needs. Sections nest; they cost nothing for
// threads not made by spawn_thread.
void EnterKitSection();
void LeaveKitSection();

class KitLock
{
public:
	explicit KitLock(std::mutex& mutex) : fMutex(mutex)
	{
		EnterKitSection();
		fMutex.lock();
	}

	~KitLock()
	{
		fMutex.unlock();
		LeaveKitSection();
	}

	KitLock(const KitLock&) = delete;
	KitLock& operator=(const KitLock&) = delete;

private:
	std::mutex& fMutex;
};

// The calling process's id, cached (refreshed in a forked child).
team_id CurrentTeam();

// The team (process) of any live thread of the host, from /proc; -1 when
// there is no such thread or it has ended.
team_id TeamOfThread(thread_id thread);

// Sets *waiting to the semaphore the calling thread blocks on (0 when none),
// for get_thread_info; a no-op for threads not made by spawn_thread.
void NoteWaitingOnSem(sem_id sem);

} // namespace zvplatform

#endif // ZVPLATFORM_KERNEL_PRIVATE_H
