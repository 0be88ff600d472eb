// Threads.cpp: the kernel kit's threads on top of POSIX threads.
//
// Identity. A thread's identifier is the host kernel's thread id (gettid)
// and its team the process id, so threads of other processes are real
// threads of other teams: get_thread_info reads them from /proc.
//
// Bookkeeping. Each thread made by spawn_thread has a ThreadControl, shared
// between a table entry, the thread itself and whoever is waiting for it.
// The host thread is detached: when it ends it removes its own table entry
// and wakes its waiters, so nothing is left to join. The exit value of a
// thread that ended while nobody was waiting is kept in a small bounded
// record (kMaxDeadThreads, oldest dropped) for a wait_for_thread that comes
// later; a waited-for thread leaves no record.
//
// Start and suspension. A new thread parks on its state word until
// resume_thread. suspend_thread moves a running thread to the suspended state
// and sends it a real-time signal whose handler waits on the state word
// (a futex wait, which is async-signal-safe) until resume_thread.
//
// Killing. kill_thread marks the target and wakes it from wherever the kit
// has it blocked; the target then unwinds and ends at that point (see OS.h
// for exactly which calls are such kill points).
#include "KernelPrivate.h"

#include <OS.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include <dirent.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace zvplatform {
namespace {

enum : uint32
{
	kStateNew = 0, // spawned, never resumed
	kStateRunning = 1,
	kStateSuspended = 2, // suspend_thread: parked in the signal handler
	kStateDone = 3,
};

constexpr size_t kMaxDeadThreads = 256;
constexpr size_t kHostNameLength = 15; // the host keeps 15 characters of a name

struct ThreadControl
{
	thread_func function = nullptr;
	void* data = nullptr;
	team_id team = 0;

	std::atomic<thread_id> id{0};
	std::atomic<uint32> idReady{0};
	// Futex word: the thread parks on it while new or suspended.
	std::atomic<uint32> state{kStateNew};
	// Set by the suspend handler once the thread is parked.
	std::atomic<uint32> pauseAck{0};
	std::atomic<uint32> killed{0};
	// Kit sections the thread is in, and a suspension deferred until it
	// leaves them. Touched only by the thread itself and its signal handler.
	std::atomic<int32> sections{0};
	std::atomic<bool> suspendPending{false};
	std::atomic<int32> priority{B_NORMAL_PRIORITY};
	std::atomic<sem_id> waitingSem{0};
	// Sequence words: snooze sleeps on sleepSeq, waiters on doneSeq.
	std::atomic<uint32> sleepSeq{0};
	std::atomic<uint32> doneSeq{0};
	std::atomic<bool> done{false};
	// Written by the thread itself before done is set.
	status_t exitValue = B_OK;

	// The word the thread blocks on in BlockOn, so kill_thread can bump it.
	// Set and cleared under waitLock; kill_thread bumps it under waitLock,
	// and the blocked thread keeps the word's owner alive until it has
	// cleared the pointer, so the bump never touches freed memory.
	std::mutex waitLock;
	std::atomic<uint32>* waitingOn = nullptr;
	std::atomic<bool> blocked{false};

	// Guarded by gThreadLock.
	char name[B_OS_NAME_LENGTH] = {};
	int32 joiners = 0;
};

// A thread spawned by this process that has ended. Its exit value is kept
// for one wait_for_thread that comes after the end; the record also tells
// the kit that the host thread, which may linger for a moment in /proc, is
// no longer one it can act on.
struct DeadThread
{
	thread_id id;
	status_t exitValue;
	bool collected;
};

std::mutex gThreadLock;
// The tables are never destroyed: detached threads may still be ending
// while the process runs its exit-time destructors.
std::unordered_map<thread_id, std::shared_ptr<ThreadControl>>& gThreads =
    *new std::unordered_map<thread_id, std::shared_ptr<ThreadControl>>();
std::deque<DeadThread>& gDeadThreads = *new std::deque<DeadThread>();
std::atomic<team_id> gTeam{0};
int gSuspendSignal = 0;

// Initial-exec TLS: reading these needs no allocation, so the suspend signal
// handler may read tSelf.
thread_local ThreadControl* tSelf __attribute__((tls_model("initial-exec"))) = nullptr;
thread_local thread_id tTid __attribute__((tls_model("initial-exec"))) = 0;

thread_id HostThreadId()
{
	return static_cast<thread_id>(syscall(SYS_gettid));
}

// The platform priority to the host's nice value of the thread (SCHED_OTHER).
// An unprivileged process may only raise nice values, so priorities above
// normal take effect only with CAP_SYS_NICE (or a raised RLIMIT_NICE).
int NiceForPriority(int32 priority)
{
	if (priority <= B_IDLE_PRIORITY)
		return 19;
	if (priority < B_NORMAL_PRIORITY)
		return 2 * (B_NORMAL_PRIORITY - priority);
	if (priority == B_NORMAL_PRIORITY)
		return 0;
	if (priority < B_REAL_TIME_DISPLAY_PRIORITY)
		return -std::min(9, (priority - B_NORMAL_PRIORITY + 9) / 10);
	return -10;
}

// The reverse, for threads whose platform priority is not known.
int32 PriorityForNice(int nice)
{
	if (nice > 0)
		return std::max<int32>(B_LOWEST_ACTIVE_PRIORITY, B_NORMAL_PRIORITY - (nice + 1) / 2);
	if (nice == 0)
		return B_NORMAL_PRIORITY;
	if (nice > -10)
		return B_NORMAL_PRIORITY + 10 * (-nice) - 5;
	return B_REAL_TIME_PRIORITY;
}

void ApplyPriority(thread_id thread, int32 priority)
{
	// Best effort: a refused change (EPERM) leaves the host's value as is.
	setpriority(PRIO_PROCESS, static_cast<id_t>(thread), NiceForPriority(priority));
}

void SetHostName(const char* name)
{
	char shortName[kHostNameLength + 1];
	CopyName(shortName, sizeof(shortName), name);
	prctl(PR_SET_NAME, shortName, 0, 0, 0);
}

std::string TaskPath(team_id team, thread_id thread, const char* file)
{
	return "/proc/" + std::to_string(team) + "/task/" + std::to_string(thread) + "/" + file;
}

// Reads a small /proc file into buffer; false when it does not exist.
bool ReadSmallFile(const std::string& path, char* buffer, size_t size)
{
	FILE* file = fopen(path.c_str(), "re");
	if (file == nullptr)
		return false;
	const size_t got = fread(buffer, 1, size - 1, file);
	fclose(file);
	buffer[got] = '\0';
	return true;
}

// name has room for B_OS_NAME_LENGTH characters.
bool ReadComm(team_id team, thread_id thread, char* name)
{
	char buffer[64];
	if (!ReadSmallFile(TaskPath(team, thread, "comm"), buffer, sizeof(buffer)))
		return false;
	buffer[strcspn(buffer, "\n")] = '\0';
	CopyName(name, B_OS_NAME_LENGTH, buffer);
	return true;
}

// Fills state, host priority and times of a thread from /proc.
bool ReadTaskStat(team_id team, thread_id thread, thread_info* info)
{
	char buffer[1024];
	if (!ReadSmallFile(TaskPath(team, thread, "stat"), buffer, sizeof(buffer)))
		return false;
	// "tid (comm) S ppid ...": the name may hold spaces and parentheses, so
	// the fields start after the last ')'.
	const char* rest = strrchr(buffer, ')');
	if (rest == nullptr)
		return false;
	rest++;
	char* fields[20] = {};
	int count = 0;
	char* save = nullptr;
	for (char* token = strtok_r(const_cast<char*>(rest), " ", &save);
	     token != nullptr && count < 20; token = strtok_r(nullptr, " ", &save)) {
		fields[count++] = token;
	}
	if (count < 17)
		return false;
	switch (fields[0][0]) {
	case 'R':
		info->state = B_THREAD_RUNNING;
		break;
	case 'T':
	case 't':
		info->state = B_THREAD_SUSPENDED;
		break;
	case 'D':
		info->state = B_THREAD_WAITING;
		break;
	default:
		info->state = B_THREAD_ASLEEP;
		break;
	}
	const long ticks = sysconf(_SC_CLK_TCK);
	const bigtime_t perTick = ticks > 0 ? 1000000 / ticks : 10000;
	info->user_time = strtoll(fields[11], nullptr, 10) * perTick;
	info->kernel_time = strtoll(fields[12], nullptr, 10) * perTick;
	info->priority = PriorityForNice(static_cast<int>(strtol(fields[16], nullptr, 10)));
	return true;
}

void FillOwnTimes(thread_info* info)
{
	struct rusage usage;
	if (getrusage(RUSAGE_THREAD, &usage) == 0) {
		info->user_time =
		    static_cast<bigtime_t>(usage.ru_utime.tv_sec) * 1000000 + usage.ru_utime.tv_usec;
		info->kernel_time =
		    static_cast<bigtime_t>(usage.ru_stime.tv_sec) * 1000000 + usage.ru_stime.tv_usec;
	}
}

// The control of a live thread spawned by this process, with gThreadLock held.
std::shared_ptr<ThreadControl> FindLocked(thread_id id)
{
	auto found = gThreads.find(id);
	if (found == gThreads.end() || found->second->team != CurrentTeam())
		return nullptr;
	return found->second;
}

std::shared_ptr<ThreadControl> Find(thread_id id)
{
	KitLock lock(gThreadLock);
	return FindLocked(id);
}

DeadThread* FindDeadLocked(thread_id id)
{
	for (DeadThread& dead : gDeadThreads) {
		if (dead.id == id)
			return &dead;
	}
	return nullptr;
}

bool HasEnded(thread_id id)
{
	KitLock lock(gThreadLock);
	return FindDeadLocked(id) != nullptr;
}

// The error for a thread the kit cannot act on: it exists but was not made
// by spawn_thread in this process (B_NOT_ALLOWED), or it does not exist (any
// more).
status_t NotOurs(thread_id id)
{
	if (id <= 0 || HasEnded(id))
		return B_BAD_THREAD_ID;
	return TeamOfThread(id) > 0 ? B_NOT_ALLOWED : B_BAD_THREAD_ID;
}

// Parks the calling thread while it is suspended. Async-signal-safe.
void PauseSelf(ThreadControl* self)
{
	self->pauseAck.store(1, std::memory_order_seq_cst);
	FutexWake(&self->pauseAck, INT_MAX);
	while (self->state.load(std::memory_order_acquire) == kStateSuspended)
		FutexWait(&self->state, kStateSuspended, kNoDeadline);
}

void SuspendHandler(int)
{
	const int savedErrno = errno;
	ThreadControl* self = tSelf;
	if (self != nullptr) {
		if (self->sections.load(std::memory_order_relaxed) > 0)
			self->suspendPending.store(true, std::memory_order_relaxed);
		else
			PauseSelf(self);
	}
	errno = savedErrno;
}

void PrepareFork()
{
	gThreadLock.lock();
}

void ParentAfterFork()
{
	gThreadLock.unlock();
}

void ChildAfterFork()
{
	// The child is a new team with one thread, which is not one that this
	// process spawned: entries of the parent's threads are ignored from now
	// on (their team no longer matches).
	gTeam.store(static_cast<team_id>(getpid()), std::memory_order_relaxed);
	tTid = 0;
	tSelf = nullptr;
	gThreadLock.unlock();
}

struct Initializer
{
	Initializer()
	{
		gTeam.store(static_cast<team_id>(getpid()), std::memory_order_relaxed);
		// A real-time signal above the ones the C library keeps for itself.
		gSuspendSignal = SIGRTMIN + 5;
		struct sigaction action;
		memset(&action, 0, sizeof(action));
		action.sa_handler = &SuspendHandler;
		action.sa_flags = SA_RESTART;
		sigemptyset(&action.sa_mask);
		sigaction(gSuspendSignal, &action, nullptr);
		pthread_atfork(&PrepareFork, &ParentAfterFork, &ChildAfterFork);
	}
} sInitializer;

// Ends the thread's bookkeeping when its function returns or it unwinds
// (exit_thread, kill_thread).
class Finisher
{
public:
	explicit Finisher(const std::shared_ptr<ThreadControl>& control) : fControl(control) {}

	~Finisher()
	{
		ThreadControl* self = fControl.get();
		const thread_id id = self->id.load(std::memory_order_relaxed);
		// From here on suspend_thread and resume_thread see an ended thread;
		// a suspension already signalled finds the state changed and does
		// not park the thread.
		self->state.store(kStateDone, std::memory_order_seq_cst);
		{
			KitLock lock(gThreadLock);
			auto found = gThreads.find(id);
			if (found != gThreads.end() && found->second == fControl)
				gThreads.erase(found);
			// Threads already waiting collect the value themselves.
			gDeadThreads.push_back(DeadThread{id, self->exitValue, self->joiners > 0});
			if (gDeadThreads.size() > kMaxDeadThreads)
				gDeadThreads.pop_front();
		}
		self->done.store(true, std::memory_order_release);
		self->doneSeq.fetch_add(1, std::memory_order_seq_cst);
		FutexWake(&self->doneSeq, INT_MAX);
		self->pauseAck.store(1, std::memory_order_seq_cst);
		FutexWake(&self->pauseAck, INT_MAX);
		tSelf = nullptr;
	}

	Finisher(const Finisher&) = delete;
	Finisher& operator=(const Finisher&) = delete;

private:
	const std::shared_ptr<ThreadControl>& fControl;
};

void* ThreadStart(void* argument)
{
	auto* holder = static_cast<std::shared_ptr<ThreadControl>*>(argument);
	const std::shared_ptr<ThreadControl> control = std::move(*holder);
	delete holder;
	ThreadControl* self = control.get();

	tTid = HostThreadId();
	tSelf = self;
	self->id.store(tTid, std::memory_order_relaxed);
	ApplyPriority(tTid, self->priority.load(std::memory_order_relaxed));
	// The name is not shared yet: rename_thread can reach this thread only
	// after spawn_thread has seen idReady.
	SetHostName(self->name);
	self->idReady.store(1, std::memory_order_release);
	FutexWake(&self->idReady, 1);

	Finisher finisher(control);
	while (self->state.load(std::memory_order_acquire) == kStateNew)
		FutexWait(&self->state, kStateNew, kNoDeadline);
	if (self->killed.load(std::memory_order_acquire) != 0)
		self->exitValue = B_INTERRUPTED;
	else
		self->exitValue = self->function(self->data);
	return nullptr;
}

} // namespace

team_id CurrentTeam()
{
	team_id team = gTeam.load(std::memory_order_relaxed);
	if (team == 0) {
		team = static_cast<team_id>(getpid());
		gTeam.store(team, std::memory_order_relaxed);
	}
	return team;
}

team_id TeamOfThread(thread_id thread)
{
	if (thread <= 0)
		return -1;
	char buffer[2048];
	if (!ReadSmallFile("/proc/" + std::to_string(thread) + "/status", buffer, sizeof(buffer)))
		return -1;
	// A zombie (ended, not yet reaped) is no live thread or team.
	const char* state = strstr(buffer, "\nState:");
	if (state != nullptr) {
		state += 7;
		while (*state == ' ' || *state == '\t')
			state++;
		if (*state == 'Z' || *state == 'X')
			return -1;
	}
	const char* tgid = strstr(buffer, "\nTgid:");
	if (tgid == nullptr)
		return -1;
	return static_cast<team_id>(strtol(tgid + 6, nullptr, 10));
}

void EnterKitSection()
{
	ThreadControl* self = tSelf;
	if (self != nullptr)
		self->sections.fetch_add(1, std::memory_order_relaxed);
	std::atomic_signal_fence(std::memory_order_seq_cst);
}

void LeaveKitSection()
{
	std::atomic_signal_fence(std::memory_order_seq_cst);
	ThreadControl* self = tSelf;
	if (self != nullptr && self->sections.fetch_sub(1, std::memory_order_relaxed) == 1 &&
	    self->suspendPending.exchange(false, std::memory_order_relaxed)) {
		PauseSelf(self);
	}
}

bool CurrentThreadKilled()
{
	ThreadControl* self = tSelf;
	return self != nullptr && self->killed.load(std::memory_order_acquire) != 0;
}

void ExitKilledThread()
{
	ThreadControl* self = tSelf;
	if (self != nullptr)
		self->exitValue = B_INTERRUPTED;
	pthread_exit(nullptr);
}

void NoteWaitingOnSem(sem_id sem)
{
	ThreadControl* self = tSelf;
	if (self != nullptr)
		self->waitingSem.store(sem, std::memory_order_relaxed);
}

block_outcome BlockOn(std::atomic<uint32>* word, uint32 expected, bigtime_t deadline)
{
	ThreadControl* self = tSelf;
	if (self != nullptr) {
		{
			KitLock lock(self->waitLock);
			self->waitingOn = word;
		}
		// kill_thread sets killed before it looks at waitingOn: either it
		// sees the word above and bumps it (the wait below returns), or this
		// load sees the mark.
		if (self->killed.load(std::memory_order_seq_cst) != 0) {
			KitLock lock(self->waitLock);
			self->waitingOn = nullptr;
			return BLOCK_KILLED;
		}
		self->blocked.store(true, std::memory_order_release);
	}
	const int result = FutexWait(word, expected, deadline);
	if (self != nullptr) {
		self->blocked.store(false, std::memory_order_release);
		{
			KitLock lock(self->waitLock);
			self->waitingOn = nullptr;
		}
		if (self->killed.load(std::memory_order_seq_cst) != 0)
			return BLOCK_KILLED;
	}
	if (result == ETIMEDOUT)
		return BLOCK_TIMED_OUT;
	if (result == EINTR)
		return BLOCK_INTERRUPTED;
	return BLOCK_WOKEN;
}

} // namespace zvplatform

using namespace zvplatform;

thread_id spawn_thread(thread_func function, const char* name, int32 priority, void* data)
{
	if (function == nullptr)
		return B_BAD_VALUE;

	auto control = std::make_shared<ThreadControl>();
	control->function = function;
	control->data = data;
	control->team = CurrentTeam();
	control->priority.store(priority, std::memory_order_relaxed);
	CopyName(control->name, sizeof(control->name), name != nullptr ? name : "unnamed thread");

	pthread_attr_t attributes;
	pthread_attr_init(&attributes);
	// Detached: the thread cleans up after itself (see Finisher), so one
	// that nobody waits for leaves nothing to join.
	pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
	auto* holder = new std::shared_ptr<ThreadControl>(control);
	pthread_t handle;
	const int error = pthread_create(&handle, &attributes, &ThreadStart, holder);
	pthread_attr_destroy(&attributes);
	if (error != 0) {
		delete holder;
		return error == EAGAIN ? B_NO_MORE_THREADS : B_NO_MEMORY;
	}

	// The identifier is the host's thread id, which only the new thread can
	// read; it reports it at once and then parks until resume_thread.
	while (control->idReady.load(std::memory_order_acquire) == 0)
		FutexWait(&control->idReady, 0, kNoDeadline);
	const thread_id id = control->id.load(std::memory_order_relaxed);

	KitLock lock(gThreadLock);
	gThreads[id] = control;
	// A record of an earlier thread with the same (reused) host id is stale.
	gDeadThreads.erase(std::remove_if(gDeadThreads.begin(), gDeadThreads.end(),
	                                  [id](const DeadThread& dead) { return dead.id == id; }),
	                   gDeadThreads.end());
	return id;
}

status_t resume_thread(thread_id id)
{
	const std::shared_ptr<ThreadControl> control = Find(id);
	if (control == nullptr)
		return NotOurs(id);
	uint32 state = control->state.load(std::memory_order_acquire);
	while (true) {
		if (state == kStateRunning)
			return B_BAD_THREAD_STATE;
		if (state == kStateDone)
			return B_BAD_THREAD_ID;
		if (control->state.compare_exchange_weak(state, kStateRunning, std::memory_order_acq_rel))
			break;
	}
	FutexWake(&control->state, INT_MAX);
	return B_OK;
}

status_t suspend_thread(thread_id id)
{
	const std::shared_ptr<ThreadControl> control = Find(id);
	if (control == nullptr)
		return NotOurs(id);
	uint32 state = control->state.load(std::memory_order_acquire);
	while (true) {
		if (state == kStateNew || state == kStateSuspended)
			return B_OK;
		if (state == kStateDone)
			return B_BAD_THREAD_ID;
		control->pauseAck.store(0, std::memory_order_relaxed);
		if (control->state.compare_exchange_weak(state, kStateSuspended, std::memory_order_acq_rel))
			break;
	}
	if (control.get() == tSelf) {
		PauseSelf(control.get());
		return B_OK;
	}
	// The handler runs whatever the thread is doing and parks it. The
	// handler checks its own thread's state, so a signal that reaches
	// another thread after the id was reused does nothing.
	syscall(SYS_tgkill, CurrentTeam(), id, gSuspendSignal);
	// Return once the thread is parked, or ended, or blocked in the kit (a
	// sanitizer runtime may hold the signal back until that wait ends; the
	// thread is not running meanwhile and parks as soon as it wakes).
	while (control->pauseAck.load(std::memory_order_acquire) == 0 &&
	       !control->done.load(std::memory_order_acquire) &&
	       !control->blocked.load(std::memory_order_acquire) &&
	       control->state.load(std::memory_order_acquire) == kStateSuspended) {
		FutexWait(&control->pauseAck, 0, DeadlineAfter(10000));
	}
	return B_OK;
}

status_t wait_for_thread(thread_id id, status_t* returnValue)
{
	std::shared_ptr<ThreadControl> control;
	{
		KitLock lock(gThreadLock);
		control = FindLocked(id);
		if (control == nullptr) {
			DeadThread* dead = FindDeadLocked(id);
			if (dead != nullptr) {
				if (dead->collected)
					return B_BAD_THREAD_ID;
				dead->collected = true;
				if (returnValue != nullptr)
					*returnValue = dead->exitValue;
				return B_OK;
			}
		} else if (control.get() != tSelf) {
			control->joiners++;
		}
	}
	if (control == nullptr)
		return NotOurs(id);
	if (control.get() == tSelf)
		return B_NOT_ALLOWED;

	// As on the platform, waiting for a thread that is suspended (or was
	// never resumed) lets it run.
	uint32 state = control->state.load(std::memory_order_acquire);
	while ((state == kStateNew || state == kStateSuspended) &&
	       !control->state.compare_exchange_weak(state, kStateRunning, std::memory_order_acq_rel)) {
	}
	if (state == kStateNew || state == kStateSuspended)
		FutexWake(&control->state, INT_MAX);

	bool killed = false;
	while (!control->done.load(std::memory_order_acquire)) {
		const uint32 seq = control->doneSeq.load(std::memory_order_seq_cst);
		if (control->done.load(std::memory_order_acquire))
			break;
		if (BlockOn(&control->doneSeq, seq, kNoDeadline) == BLOCK_KILLED) {
			killed = true;
			break;
		}
	}
	{
		KitLock lock(gThreadLock);
		control->joiners--;
	}
	if (killed)
		ExitKilledThread();
	if (returnValue != nullptr)
		*returnValue = control->exitValue;
	return B_OK;
}

status_t kill_thread(thread_id id)
{
	const std::shared_ptr<ThreadControl> control = Find(id);
	if (control == nullptr)
		return NotOurs(id);
	if (control.get() == tSelf)
		ExitKilledThread();
	if (control->done.load(std::memory_order_acquire))
		return B_BAD_THREAD_ID;

	control->killed.store(1, std::memory_order_seq_cst);
	// A thread that was never resumed ends without running its function; a
	// suspended one leaves the signal handler and ends at its next kill
	// point.
	uint32 state = control->state.load(std::memory_order_acquire);
	while ((state == kStateNew || state == kStateSuspended) &&
	       !control->state.compare_exchange_weak(state, kStateRunning, std::memory_order_acq_rel)) {
	}
	FutexWake(&control->state, INT_MAX);
	// A thread blocked in the kit wakes up, sees the mark and unwinds.
	KitLock lock(control->waitLock);
	if (control->waitingOn != nullptr) {
		control->waitingOn->fetch_add(1, std::memory_order_seq_cst);
		FutexWake(control->waitingOn, INT_MAX);
	}
	return B_OK;
}

void exit_thread(status_t status)
{
	ThreadControl* self = tSelf;
	if (self != nullptr)
		self->exitValue = status;
	pthread_exit(nullptr);
}

namespace zvplatform {
namespace {

// find_thread by name: kept out of line so that find_thread(nullptr) stays a
// few instructions.
__attribute__((noinline)) thread_id FindThreadByName(const char* name)
{
	char wanted[B_OS_NAME_LENGTH];
	CopyName(wanted, sizeof(wanted), name);
	{
		KitLock lock(gThreadLock);
		for (const auto& entry : gThreads) {
			if (entry.second->team == CurrentTeam() && strcmp(entry.second->name, wanted) == 0)
				return entry.first;
		}
	}
	// Threads not made by spawn_thread, by their host name.
	DIR* tasks = opendir("/proc/self/task");
	if (tasks == nullptr)
		return B_NAME_NOT_FOUND;
	thread_id found = B_NAME_NOT_FOUND;
	while (struct dirent* entry = readdir(tasks)) {
		const thread_id thread = static_cast<thread_id>(strtol(entry->d_name, nullptr, 10));
		char taskName[B_OS_NAME_LENGTH];
		if (thread > 0 && ReadComm(CurrentTeam(), thread, taskName) &&
		    strcmp(taskName, wanted) == 0 && !HasEnded(thread)) {
			found = thread;
			break;
		}
	}
	closedir(tasks);
	return found;
}

} // namespace
} // namespace zvplatform

thread_id find_thread(const char* name)
{
	if (name == nullptr) {
		// The host's thread id does not change, so it is read once per
		// thread (a forked child reads it again).
		if (__builtin_expect(tTid == 0, 0))
			tTid = HostThreadId();
		return tTid;
	}
	return FindThreadByName(name);
}

status_t get_thread_info(thread_id id, thread_info* info)
{
	if (info == nullptr)
		return B_BAD_VALUE;
	if (id <= 0)
		return B_BAD_THREAD_ID;
	memset(info, 0, sizeof(*info));
	info->thread = id;

	std::shared_ptr<ThreadControl> control;
	{
		KitLock lock(gThreadLock);
		control = FindLocked(id);
		if (control != nullptr)
			memcpy(info->name, control->name, sizeof(info->name));
	}
	if (control != nullptr) {
		info->team = control->team;
		info->priority = control->priority.load(std::memory_order_relaxed);
		info->sem = control->waitingSem.load(std::memory_order_relaxed);
		const uint32 state = control->state.load(std::memory_order_acquire);
		if (state == kStateNew || state == kStateSuspended)
			info->state = B_THREAD_SUSPENDED;
		else if (info->sem > 0)
			info->state = B_THREAD_WAITING;
		else if (control->blocked.load(std::memory_order_relaxed))
			info->state = B_THREAD_ASLEEP;
		else
			info->state = B_THREAD_RUNNING;
		if (id == find_thread(nullptr)) {
			FillOwnTimes(info);
		} else {
			thread_info host;
			if (ReadTaskStat(info->team, id, &host)) {
				info->user_time = host.user_time;
				info->kernel_time = host.kernel_time;
			}
		}
		return B_OK;
	}

	if (id == find_thread(nullptr)) {
		// The calling thread, not made by spawn_thread: no /proc needed.
		info->team = CurrentTeam();
		char hostName[kHostNameLength + 1] = {};
		prctl(PR_GET_NAME, hostName, 0, 0, 0);
		CopyName(info->name, sizeof(info->name), hostName);
		errno = 0;
		const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(id));
		info->priority = PriorityForNice(errno == 0 ? nice : 0);
		info->state = B_THREAD_RUNNING;
		FillOwnTimes(info);
		return B_OK;
	}

	// Any other thread of the host, in this process or another.
	const team_id team = TeamOfThread(id);
	if (team <= 0 || (team == CurrentTeam() && HasEnded(id)))
		return B_BAD_THREAD_ID;
	info->team = team;
	if (!ReadComm(team, id, info->name) || !ReadTaskStat(team, id, info))
		return B_BAD_THREAD_ID;
	return B_OK;
}

status_t rename_thread(thread_id id, const char* newName)
{
	if (newName == nullptr)
		return B_BAD_VALUE;
	const std::shared_ptr<ThreadControl> control = Find(id);
	if (control != nullptr) {
		KitLock lock(gThreadLock);
		CopyName(control->name, sizeof(control->name), newName);
	} else if (id <= 0 || HasEnded(id) || TeamOfThread(id) != CurrentTeam()) {
		return NotOurs(id);
	}
	// The host keeps the first 15 characters, for tools like ps and top.
	if (id == find_thread(nullptr)) {
		SetHostName(newName);
	} else {
		FILE* comm = fopen(TaskPath(CurrentTeam(), id, "comm").c_str(), "we");
		if (comm != nullptr) {
			char shortName[kHostNameLength + 1];
			CopyName(shortName, sizeof(shortName), newName);
			fputs(shortName, comm);
			fclose(comm);
		}
	}
	return B_OK;
}

status_t set_thread_priority(thread_id id, int32 newPriority)
{
	const std::shared_ptr<ThreadControl> control = Find(id);
	int32 old;
	if (control != nullptr) {
		old = control->priority.exchange(newPriority, std::memory_order_relaxed);
	} else {
		if (id <= 0 || HasEnded(id) || TeamOfThread(id) != CurrentTeam())
			return NotOurs(id);
		errno = 0;
		const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(id));
		old = PriorityForNice(errno == 0 ? nice : 0);
	}
	ApplyPriority(id, newPriority);
	return old;
}

namespace {

// Sleeps until deadline; kNoDeadline (what a snooze too long to express
// becomes) sleeps for ever.
status_t SleepUntil(bigtime_t time)
{
	ThreadControl* self = tSelf;
	if (self != nullptr) {
		// Sleeping on a futex of its own lets kill_thread wake the thread.
		while (time == kNoDeadline || system_time() < time) {
			const uint32 seq = self->sleepSeq.load(std::memory_order_seq_cst);
			if (BlockOn(&self->sleepSeq, seq, time) == BLOCK_KILLED)
				ExitKilledThread();
		}
		return B_OK;
	}
	if (time == kNoDeadline || time / 1000000 >= INT32_MAX) {
		while (true)
			pause();
	}
	struct timespec when;
	when.tv_sec = static_cast<time_t>(time / 1000000);
	when.tv_nsec = static_cast<long>((time % 1000000) * 1000);
	while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &when, nullptr) == EINTR) {
	}
	return B_OK;
}

} // namespace

status_t snooze(bigtime_t microseconds)
{
	if (microseconds <= 0)
		return B_OK;
	return SleepUntil(DeadlineAfter(microseconds));
}

status_t snooze_until(bigtime_t time, int /*timeBase*/)
{
	// Every negative time is in the past; -1 must not be taken for the
	// internal "no deadline" marker.
	if (time < 0)
		return B_OK;
	return SleepUntil(time);
}
