// OS.h: the platform's kernel kit: semaphores, threads, teams, time, atomics.
//
// Off the platform these calls are provided by libzvplatform on top of the
// host's threads and futexes, with the platform's observable behaviour:
//
//  - A team is a process. A thread's identifier is the host kernel's thread
//    id, so threads of other processes can be asked about (get_thread_info
//    reads /proc: their team is their process, their name the host's name).
//  - Semaphores live in a table local to the process. Identifiers are
//    positive and not reused soon after deletion: a stale identifier gets
//    B_BAD_SEM_ID. Deleting a semaphore wakes every waiter with B_BAD_SEM_ID.
//    An uncontended acquire or release is one atomic compare-and-swap and no
//    system call; a waiter sleeps on a futex (no spinning). Waiters are not
//    served in strict arrival order: released units go to any waiter they
//    satisfy, so a waiter wanting one unit is not held up behind one
//    wanting more.
//  - A relative time-out of 0 on an unavailable semaphore returns
//    B_TIMED_OUT at once. B_ABSOLUTE_TIMEOUT deadlines are system_time()
//    values. B_CAN_INTERRUPT lets a signal end the wait with B_INTERRUPTED.
//    B_DO_NOT_RESCHEDULE is accepted; a release never yields the processor.
//  - spawn_thread creates a suspended thread; resume_thread starts it (a
//    thread that is already running gives B_BAD_THREAD_STATE).
//    wait_for_thread resumes a suspended thread, then returns its exit
//    value. suspend_thread pauses a running thread wherever it is (a
//    real-time signal whose handler waits until resume_thread) and returns
//    once it is paused; a thread inside one of the kit's own short critical
//    sections pauses as it leaves it, so it never holds a lock of the kit. suspend_thread,
//    resume_thread, kill_thread and wait_for_thread act only on threads made by spawn_thread in
//    this process; other existing threads give B_NOT_ALLOWED.
//  - Threads are detached host threads: one that nobody waits for cleans up
//    after itself. The exit values of the last 256 threads that ended are
//    kept for a wait_for_thread that comes after the end (once each).
//  - kill_thread(thread) marks the thread and wakes it if it is blocked in
//    the kit. The thread ends, with exit value B_INTERRUPTED, at its next
//    kill point: a wait that blocks in acquire_sem, acquire_sem_etc, snooze,
//    snooze_until or wait_for_thread, or the start of a thread never
//    resumed (its function then never runs). Ending unwinds its stack like
//    pthread_exit: destructors run (so code that catches everything must
//    rethrow). A thread that is running other code, or blocked in a host
//    call (read, poll, ...), is not interrupted; it ends when it next
//    blocks in the kit, or when its function returns (then with its own
//    exit value). A killed suspended thread is let go and ends at its next
//    kill point. kill_thread of the calling thread ends it at once.
//  - Priorities map onto nice values of the host's normal scheduler:
//    0 -> 19, 1..9 -> 18..2 (B_LOW_PRIORITY 5 -> 10), 10 -> 0, 11..99 ->
//    -1..-9, 100 and above (B_REAL_TIME_PRIORITY) -> -10. Raising a priority
//    above the creator's needs privileges (CAP_SYS_NICE or RLIMIT_NICE);
//    without them it is silently left as is. The host's real-time classes
//    are never used. get_thread_info reports the priority given to
//    spawn_thread or set_thread_priority, whatever the host made of it.
//  - Names are kept in full (31 characters); the host shows the first 15.
//  - Every wait is measured on one monotonic clock (system_time()).
//
// All functions are thread-safe.
#ifndef _OS_H
#define _OS_H

#include <SupportDefs.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32 area_id;
typedef int32 port_id;
typedef int32 sem_id;
typedef int32 team_id;
typedef int32 thread_id;

#define B_OS_NAME_LENGTH 32
#define B_INFINITE_TIMEOUT (9223372036854775807LL)

// Flags of acquire_sem_etc and release_sem_etc.
enum
{
	B_CAN_INTERRUPT = 0x01,
	B_DO_NOT_RESCHEDULE = 0x02,
	B_CHECK_PERMISSION = 0x04,
	B_RELATIVE_TIMEOUT = 0x08,
	B_ABSOLUTE_TIMEOUT = 0x10,
	B_TIMEOUT = B_RELATIVE_TIMEOUT,
};

// Thread priorities.
enum
{
	B_IDLE_PRIORITY = 0,
	B_LOWEST_ACTIVE_PRIORITY = 1,
	B_LOW_PRIORITY = 5,
	B_NORMAL_PRIORITY = 10,
	B_DISPLAY_PRIORITY = 15,
	B_URGENT_DISPLAY_PRIORITY = 20,
	B_REAL_TIME_DISPLAY_PRIORITY = 100,
	B_URGENT_PRIORITY = 110,
	B_REAL_TIME_PRIORITY = 120,
};

typedef struct sem_info
{
	sem_id sem;
	team_id team;
	char name[B_OS_NAME_LENGTH];
	int32 count;
	thread_id latest_holder;
} sem_info;

typedef enum
{
	B_THREAD_RUNNING = 1,
	B_THREAD_READY,
	B_THREAD_RECEIVING,
	B_THREAD_ASLEEP,
	B_THREAD_SUSPENDED,
	B_THREAD_WAITING,
} thread_state;

typedef struct thread_info
{
	thread_id thread;
	team_id team;
	char name[B_OS_NAME_LENGTH];
	thread_state state;
	int32 priority;
	sem_id sem;
	bigtime_t user_time;
	bigtime_t kernel_time;
	void* stack_base;
	void* stack_end;
} thread_info;

typedef int32 (*thread_func)(void* data);

// Semaphores.
_EXPORT sem_id create_sem(int32 count, const char* name);
_EXPORT status_t delete_sem(sem_id sem);
_EXPORT status_t acquire_sem(sem_id sem);
_EXPORT status_t acquire_sem_etc(sem_id sem, int32 count, uint32 flags, bigtime_t timeout);
_EXPORT status_t release_sem(sem_id sem);
_EXPORT status_t release_sem_etc(sem_id sem, int32 count, uint32 flags);
_EXPORT status_t get_sem_count(sem_id sem, int32* threadCount);
_EXPORT status_t get_sem_info(sem_id sem, sem_info* info);
_EXPORT status_t set_sem_owner(sem_id sem, team_id team);

// Threads. set_thread_priority returns the previous priority (or an error).
_EXPORT thread_id spawn_thread(thread_func function, const char* name, int32 priority, void* data);
_EXPORT status_t resume_thread(thread_id thread);
_EXPORT status_t suspend_thread(thread_id thread);
_EXPORT status_t wait_for_thread(thread_id thread, status_t* returnValue);
_EXPORT status_t kill_thread(thread_id thread);
_EXPORT void exit_thread(status_t status);
_EXPORT thread_id find_thread(const char* name);
_EXPORT status_t get_thread_info(thread_id thread, thread_info* info);
_EXPORT status_t rename_thread(thread_id thread, const char* newName);
_EXPORT status_t set_thread_priority(thread_id thread, int32 newPriority);

// Time.
_EXPORT status_t snooze(bigtime_t microseconds);
_EXPORT status_t snooze_until(bigtime_t time, int timeBase);
_EXPORT bigtime_t system_time(void);

// Atomic operations: each returns the value before the operation. They are
// inline so that an uncontended benaphore costs one locked instruction.
static inline int32 atomic_add(int32* value, int32 addValue)
{
	return __atomic_fetch_add(value, addValue, __ATOMIC_SEQ_CST);
}

static inline int32 atomic_and(int32* value, int32 andValue)
{
	return __atomic_fetch_and(value, andValue, __ATOMIC_SEQ_CST);
}

static inline int32 atomic_or(int32* value, int32 orValue)
{
	return __atomic_fetch_or(value, orValue, __ATOMIC_SEQ_CST);
}

#ifdef __cplusplus
}
#endif

#endif // _OS_H
