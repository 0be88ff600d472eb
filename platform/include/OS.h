// OS.h: the platform's kernel kit: semaphores, threads, teams, time, atomics.
//
// Off the platform these calls are provided by libzvplatform on top of the
// host's threads and futexes, with the platform's observable behaviour:
//
//  - A team is a process. A thread's identifier is the host kernel's thread
//    id, so threads of other processes can be asked about (get_thread_info).
//  - Semaphores live in a table local to the process. Identifiers are
//    positive and not reused soon after deletion: a stale identifier gets
//    B_BAD_SEM_ID. Deleting a semaphore wakes every waiter with B_BAD_SEM_ID.
//  - spawn_thread creates a suspended thread; resume_thread starts it.
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
enum {
	B_CAN_INTERRUPT = 0x01,
	B_DO_NOT_RESCHEDULE = 0x02,
	B_CHECK_PERMISSION = 0x04,
	B_RELATIVE_TIMEOUT = 0x08,
	B_ABSOLUTE_TIMEOUT = 0x10,
	B_TIMEOUT = B_RELATIVE_TIMEOUT,
};

// Thread priorities.
enum {
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

typedef struct sem_info {
	sem_id sem;
	team_id team;
	char name[B_OS_NAME_LENGTH];
	int32 count;
	thread_id latest_holder;
} sem_info;

typedef enum {
	B_THREAD_RUNNING = 1,
	B_THREAD_READY,
	B_THREAD_RECEIVING,
	B_THREAD_ASLEEP,
	B_THREAD_SUSPENDED,
	B_THREAD_WAITING,
} thread_state;

typedef struct thread_info {
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

// Threads.
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
