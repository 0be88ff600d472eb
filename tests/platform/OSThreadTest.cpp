// Tests of the kernel kit's threads and time (OS.h).
#include <OS.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ForeignTeam.h"
#include "Polling.h"
#include "TestSupport.h"

using namespace std::chrono_literals;

namespace {

int32 ReturnData(void* data)
{
	return static_cast<int32>(reinterpret_cast<intptr_t>(data));
}

void* AsData(intptr_t value)
{
	return reinterpret_cast<void*>(value);
}

int32 SetFlag(void* data)
{
	static_cast<std::atomic<int>*>(data)->store(1);
	return 7;
}

thread_state StateOf(thread_id thread)
{
	thread_info info;
	if (get_thread_info(thread, &info) != B_OK)
		return static_cast<thread_state>(0);
	return info.state;
}

int CountTasks()
{
	int count = 0;
	DIR* tasks = opendir("/proc/self/task");
	while (struct dirent* entry = readdir(tasks)) {
		if (entry->d_name[0] != '.')
			count++;
	}
	closedir(tasks);
	return count;
}

std::string HostName(int team, thread_id thread)
{
	std::ifstream comm("/proc/" + std::to_string(team) + "/task/" + std::to_string(thread) +
	                   "/comm");
	std::string name;
	std::getline(comm, name);
	return name;
}

struct Spinner
{
	std::atomic<int64> counter{0};
	std::atomic<bool> stop{false};
};

int32 Spin(void* data)
{
	auto* spinner = static_cast<Spinner*>(data);
	while (!spinner->stop.load())
		spinner->counter++;
	return 0;
}

// Sets a flag from its destructor: shows that a killed thread unwinds.
struct UnwindWitness
{
	std::atomic<int>* flag;
	~UnwindWitness() { flag->store(1); }
};

struct KillTarget
{
	sem_id sem = 0;
	std::atomic<int> unwound{0};
	std::atomic<int> pastTheWait{0};
};

int32 BlockOnSemaphore(void* data)
{
	auto* target = static_cast<KillTarget*>(data);
	UnwindWitness witness{&target->unwound};
	acquire_sem(target->sem);
	target->pastTheWait = 1;
	return 0;
}

int32 BlockInSnooze(void* data)
{
	auto* target = static_cast<KillTarget*>(data);
	UnwindWitness witness{&target->unwound};
	snooze(60000000);
	target->pastTheWait = 1;
	return 0;
}

} // namespace

TEST(OSThread, WaitForThreadGivesExitValue)
{
	zvtest::Watchdog watchdog(20s);
	const thread_id thread = spawn_thread(&ReturnData, "exit value", B_NORMAL_PRIORITY, AsData(42));
	ASSERT_GT(thread, 0);
	EXPECT_EQ(resume_thread(thread), B_OK);
	status_t value = 0;
	EXPECT_EQ(wait_for_thread(thread, &value), B_OK);
	EXPECT_EQ(value, 42);
	// Once collected, the thread is gone.
	EXPECT_EQ(wait_for_thread(thread, &value), B_BAD_THREAD_ID);
}

TEST(OSThread, SpawnWithoutFunctionFails)
{
	EXPECT_EQ(spawn_thread(nullptr, "none", B_NORMAL_PRIORITY, nullptr), B_BAD_VALUE);
}

TEST(OSThread, IdentifierIsTheHostThreadIdAndTeamTheProcess)
{
	zvtest::Watchdog watchdog(20s);
	std::atomic<thread_id> seen{0};
	const thread_id thread = spawn_thread(
	    [](void* data) -> int32 {
		    static_cast<std::atomic<thread_id>*>(data)->store(
		        static_cast<thread_id>(syscall(SYS_gettid)));
		    return 0;
	    },
	    "identity", B_NORMAL_PRIORITY, &seen);
	ASSERT_GT(thread, 0);
	thread_info info;
	ASSERT_EQ(get_thread_info(thread, &info), B_OK);
	EXPECT_EQ(info.thread, thread);
	EXPECT_EQ(info.team, getpid());
	EXPECT_STREQ(info.name, "identity");
	EXPECT_EQ(HostName(getpid(), thread), "identity");
	ASSERT_EQ(resume_thread(thread), B_OK);
	ASSERT_EQ(wait_for_thread(thread, nullptr), B_OK);
	EXPECT_EQ(seen.load(), thread);
}

TEST(OSThread, SpawnedThreadRunsOnlyAfterResume)
{
	zvtest::Watchdog watchdog(20s);
	std::atomic<int> ran{0};
	const thread_id thread = spawn_thread(&SetFlag, "gated", B_NORMAL_PRIORITY, &ran);
	ASSERT_GT(thread, 0);
	EXPECT_EQ(StateOf(thread), B_THREAD_SUSPENDED);
	snooze(30000);
	EXPECT_EQ(ran.load(), 0);
	// Suspending a thread that never ran changes nothing.
	EXPECT_EQ(suspend_thread(thread), B_OK);
	EXPECT_EQ(resume_thread(thread), B_OK);
	status_t value = 0;
	EXPECT_EQ(wait_for_thread(thread, &value), B_OK);
	EXPECT_EQ(ran.load(), 1);
	EXPECT_EQ(value, 7);
}

TEST(OSThread, ResumeOfARunningThreadIsABadState)
{
	zvtest::Watchdog watchdog(20s);
	const sem_id gate = create_sem(0, "gate");
	const thread_id thread = spawn_thread(
	    [](void* data) -> int32 {
		    return acquire_sem(static_cast<sem_id>(reinterpret_cast<intptr_t>(data)));
	    },
	    "running", B_NORMAL_PRIORITY, AsData(gate));
	ASSERT_EQ(resume_thread(thread), B_OK);
	EXPECT_EQ(resume_thread(thread), B_BAD_THREAD_STATE);
	release_sem(gate);
	status_t value = -1;
	EXPECT_EQ(wait_for_thread(thread, &value), B_OK);
	EXPECT_EQ(value, B_OK);
	EXPECT_EQ(resume_thread(thread), B_BAD_THREAD_ID);
	delete_sem(gate);
}

TEST(OSThread, WaitForThreadResumesANewThread)
{
	zvtest::Watchdog watchdog(20s);
	const thread_id thread =
	    spawn_thread(&ReturnData, "never resumed", B_NORMAL_PRIORITY, AsData(3));
	status_t value = 0;
	EXPECT_EQ(wait_for_thread(thread, &value), B_OK);
	EXPECT_EQ(value, 3);
}

TEST(OSThread, ExitValueSurvivesAThreadThatEndedBeforeTheWait)
{
	zvtest::Watchdog watchdog(20s);
	const thread_id thread = spawn_thread(&ReturnData, "early", B_NORMAL_PRIORITY, AsData(-17));
	ASSERT_EQ(resume_thread(thread), B_OK);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return StateOf(thread) == 0; }));
	status_t value = 0;
	EXPECT_EQ(wait_for_thread(thread, &value), B_OK);
	EXPECT_EQ(value, -17);
}

TEST(OSThread, ExitThreadSetsTheExitValueAndUnwinds)
{
	zvtest::Watchdog watchdog(20s);
	std::atomic<int> unwound{0};
	const thread_id thread = spawn_thread(
	    [](void* data) -> int32 {
		    UnwindWitness witness{static_cast<std::atomic<int>*>(data)};
		    exit_thread(1234);
		    return 0;
	    },
	    "exits", B_NORMAL_PRIORITY, &unwound);
	ASSERT_EQ(resume_thread(thread), B_OK);
	status_t value = 0;
	EXPECT_EQ(wait_for_thread(thread, &value), B_OK);
	EXPECT_EQ(value, 1234);
	EXPECT_EQ(unwound.load(), 1);
}

TEST(OSThread, SeveralWaitersAllGetTheExitValue)
{
	zvtest::Watchdog watchdog(20s);
	const sem_id gate = create_sem(0, "gate");
	const thread_id thread = spawn_thread(
	    [](void* data) -> int32 {
		    acquire_sem(static_cast<sem_id>(reinterpret_cast<intptr_t>(data)));
		    return 99;
	    },
	    "waited", B_NORMAL_PRIORITY, AsData(gate));
	ASSERT_EQ(resume_thread(thread), B_OK);
	std::vector<thread_id> waiters;
	for (int i = 0; i < 4; i++) {
		waiters.push_back(spawn_thread(
		    [](void* data) -> int32 {
			    status_t value = 0;
			    const thread_id target = static_cast<thread_id>(reinterpret_cast<intptr_t>(data));
			    return wait_for_thread(target, &value) == B_OK ? value : -1;
		    },
		    "waiter", B_NORMAL_PRIORITY, AsData(thread)));
		ASSERT_EQ(resume_thread(waiters.back()), B_OK);
	}
	for (thread_id waiter : waiters)
		ASSERT_TRUE(zvtest::WaitUntil([&] { return StateOf(waiter) == B_THREAD_ASLEEP; }));
	release_sem(gate);
	int good = 0;
	for (thread_id waiter : waiters) {
		status_t value = 0;
		if (wait_for_thread(waiter, &value) == B_OK && value == 99)
			good++;
	}
	EXPECT_EQ(good, 4);
	delete_sem(gate);
}

TEST(OSThread, WaitForBadOrForeignThreadFails)
{
	status_t value = 55;
	EXPECT_EQ(wait_for_thread(0, &value), B_BAD_THREAD_ID);
	EXPECT_EQ(wait_for_thread(-3, &value), B_BAD_THREAD_ID);
	// The calling thread was not made by spawn_thread.
	EXPECT_EQ(wait_for_thread(find_thread(nullptr), &value), B_NOT_ALLOWED);
	EXPECT_EQ(value, 55);
}

TEST(OSThread, ThreadsNobodyWaitsForLeaveNothingBehind)
{
	zvtest::Watchdog watchdog(60s);
	const int before = CountTasks();
	std::atomic<int> ran{0};
	for (int i = 0; i < 300; i++) {
		const thread_id thread = spawn_thread(
		    [](void* data) -> int32 {
			    static_cast<std::atomic<int>*>(data)->fetch_add(1);
			    return 0;
		    },
		    "fire and forget", B_NORMAL_PRIORITY, &ran);
		ASSERT_GT(thread, 0);
		ASSERT_EQ(resume_thread(thread), B_OK);
	}
	ASSERT_TRUE(zvtest::WaitUntil([&] { return ran.load() == 300; }, 30s));
	// Every host thread really ends: none is left to be joined.
	EXPECT_TRUE(zvtest::WaitUntil([&] { return CountTasks() <= before; }, 30s))
	    << CountTasks() << " tasks, " << before << " before";
}

TEST(OSThread, SuspendReallyPausesARunningThread)
{
	zvtest::Watchdog watchdog(30s);
	Spinner spinner;
	const thread_id thread = spawn_thread(&Spin, "spinner", B_NORMAL_PRIORITY, &spinner);
	ASSERT_EQ(resume_thread(thread), B_OK);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return spinner.counter.load() > 1000; }));
	ASSERT_EQ(suspend_thread(thread), B_OK);
	EXPECT_EQ(StateOf(thread), B_THREAD_SUSPENDED);
	const int64 frozen = spinner.counter.load();
	snooze(50000);
	EXPECT_EQ(spinner.counter.load(), frozen);
	// Suspending again is harmless; one resume lets it go on.
	EXPECT_EQ(suspend_thread(thread), B_OK);
	ASSERT_EQ(resume_thread(thread), B_OK);
	EXPECT_TRUE(zvtest::WaitUntil([&] { return spinner.counter.load() > frozen + 1000; }));
	spinner.stop = true;
	EXPECT_EQ(wait_for_thread(thread, nullptr), B_OK);
}

TEST(OSThread, SuspendedThreadBlockedOnASemaphoreStaysPausedAfterTheRelease)
{
	zvtest::Watchdog watchdog(30s);
	KillTarget target;
	target.sem = create_sem(0, "blocked");
	const thread_id thread = spawn_thread(&BlockOnSemaphore, "blocked", B_NORMAL_PRIORITY, &target);
	ASSERT_EQ(resume_thread(thread), B_OK);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return StateOf(thread) == B_THREAD_WAITING; }));
	ASSERT_EQ(suspend_thread(thread), B_OK);
	ASSERT_EQ(release_sem(target.sem), B_OK);
	snooze(50000);
	EXPECT_EQ(target.pastTheWait.load(), 0);
	ASSERT_EQ(resume_thread(thread), B_OK);
	EXPECT_EQ(wait_for_thread(thread, nullptr), B_OK);
	EXPECT_EQ(target.pastTheWait.load(), 1);
	delete_sem(target.sem);
}

TEST(OSThread, ThreadCanSuspendItselfUntilResumed)
{
	zvtest::Watchdog watchdog(30s);
	std::atomic<int> after{0};
	const thread_id thread = spawn_thread(
	    [](void* data) -> int32 {
		    suspend_thread(find_thread(nullptr));
		    static_cast<std::atomic<int>*>(data)->store(1);
		    return 0;
	    },
	    "self suspender", B_NORMAL_PRIORITY, &after);
	ASSERT_EQ(resume_thread(thread), B_OK);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return StateOf(thread) == B_THREAD_SUSPENDED; }));
	EXPECT_EQ(after.load(), 0);
	ASSERT_EQ(resume_thread(thread), B_OK);
	EXPECT_EQ(wait_for_thread(thread, nullptr), B_OK);
	EXPECT_EQ(after.load(), 1);
}

TEST(OSThread, KillOfANeverResumedThreadEndsItWithoutRunning)
{
	zvtest::Watchdog watchdog(20s);
	std::atomic<int> ran{0};
	const thread_id thread = spawn_thread(&SetFlag, "killed early", B_NORMAL_PRIORITY, &ran);
	EXPECT_EQ(kill_thread(thread), B_OK);
	status_t value = 0;
	EXPECT_EQ(wait_for_thread(thread, &value), B_OK);
	EXPECT_EQ(value, B_INTERRUPTED);
	EXPECT_EQ(ran.load(), 0);
	EXPECT_EQ(kill_thread(thread), B_BAD_THREAD_ID);
}

TEST(OSThread, KillEndsAThreadBlockedOnASemaphore)
{
	zvtest::Watchdog watchdog(20s);
	KillTarget target;
	target.sem = create_sem(0, "never released");
	const thread_id thread = spawn_thread(&BlockOnSemaphore, "victim", B_NORMAL_PRIORITY, &target);
	ASSERT_EQ(resume_thread(thread), B_OK);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return StateOf(thread) == B_THREAD_WAITING; }));
	EXPECT_EQ(kill_thread(thread), B_OK);
	status_t value = 0;
	EXPECT_EQ(wait_for_thread(thread, &value), B_OK);
	EXPECT_EQ(value, B_INTERRUPTED);
	EXPECT_EQ(target.unwound.load(), 1);
	EXPECT_EQ(target.pastTheWait.load(), 0);
	// The killed waiter no longer counts against the semaphore.
	int32 count = -1;
	EXPECT_EQ(get_sem_count(target.sem, &count), B_OK);
	EXPECT_EQ(count, 0);
	delete_sem(target.sem);
}

TEST(OSThread, KillEndsAThreadInSnooze)
{
	zvtest::Watchdog watchdog(20s);
	KillTarget target;
	const thread_id thread = spawn_thread(&BlockInSnooze, "sleeper", B_NORMAL_PRIORITY, &target);
	ASSERT_EQ(resume_thread(thread), B_OK);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return StateOf(thread) == B_THREAD_ASLEEP; }));
	const bigtime_t start = system_time();
	EXPECT_EQ(kill_thread(thread), B_OK);
	status_t value = 0;
	EXPECT_EQ(wait_for_thread(thread, &value), B_OK);
	EXPECT_LT(system_time() - start, 10000000);
	EXPECT_EQ(value, B_INTERRUPTED);
	EXPECT_EQ(target.unwound.load(), 1);
	EXPECT_EQ(target.pastTheWait.load(), 0);
}

TEST(OSThread, KilledSuspendedThreadEndsAtItsNextKillPoint)
{
	zvtest::Watchdog watchdog(30s);
	KillTarget target;
	Spinner spinner;
	struct Both
	{
		Spinner* spinner;
		KillTarget* target;
	} both{&spinner, &target};
	const thread_id thread = spawn_thread(
	    [](void* data) -> int32 {
		    auto* both = static_cast<Both*>(data);
		    UnwindWitness witness{&both->target->unwound};
		    Spin(both->spinner);
		    // The next point where the kit would block.
		    snooze(60000000);
		    both->target->pastTheWait = 1;
		    return 0;
	    },
	    "suspended victim", B_NORMAL_PRIORITY, &both);
	ASSERT_EQ(resume_thread(thread), B_OK);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return spinner.counter.load() > 0; }));
	ASSERT_EQ(suspend_thread(thread), B_OK);
	EXPECT_EQ(kill_thread(thread), B_OK);
	spinner.stop = true;
	status_t value = 0;
	EXPECT_EQ(wait_for_thread(thread, &value), B_OK);
	EXPECT_EQ(value, B_INTERRUPTED);
	EXPECT_EQ(target.unwound.load(), 1);
	EXPECT_EQ(target.pastTheWait.load(), 0);
}

TEST(OSThread, KillEndsAThreadWaitingForAnotherThread)
{
	zvtest::Watchdog watchdog(30s);
	const sem_id gate = create_sem(0, "gate");
	const thread_id inner = spawn_thread(
	    [](void* data) -> int32 {
		    return acquire_sem(static_cast<sem_id>(reinterpret_cast<intptr_t>(data)));
	    },
	    "inner", B_NORMAL_PRIORITY, AsData(gate));
	ASSERT_EQ(resume_thread(inner), B_OK);
	const thread_id outer = spawn_thread(
	    [](void* data) -> int32 {
		    status_t value;
		    wait_for_thread(static_cast<thread_id>(reinterpret_cast<intptr_t>(data)), &value);
		    return 1;
	    },
	    "outer", B_NORMAL_PRIORITY, AsData(inner));
	ASSERT_EQ(resume_thread(outer), B_OK);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return StateOf(outer) == B_THREAD_ASLEEP; }));
	EXPECT_EQ(kill_thread(outer), B_OK);
	status_t value = 0;
	EXPECT_EQ(wait_for_thread(outer, &value), B_OK);
	EXPECT_EQ(value, B_INTERRUPTED);
	// The inner thread was not touched.
	EXPECT_EQ(release_sem(gate), B_OK);
	EXPECT_EQ(wait_for_thread(inner, &value), B_OK);
	EXPECT_EQ(value, B_OK);
	delete_sem(gate);
}

TEST(OSThread, ThreadCanKillItself)
{
	zvtest::Watchdog watchdog(20s);
	std::atomic<int> after{0};
	const thread_id thread = spawn_thread(
	    [](void* data) -> int32 {
		    kill_thread(find_thread(nullptr));
		    static_cast<std::atomic<int>*>(data)->store(1);
		    return 0;
	    },
	    "suicide", B_NORMAL_PRIORITY, &after);
	ASSERT_EQ(resume_thread(thread), B_OK);
	status_t value = 0;
	EXPECT_EQ(wait_for_thread(thread, &value), B_OK);
	EXPECT_EQ(value, B_INTERRUPTED);
	EXPECT_EQ(after.load(), 0);
}

TEST(OSThread, KillRefusesThreadsNotMadeBySpawnThread)
{
	EXPECT_EQ(kill_thread(find_thread(nullptr)), B_NOT_ALLOWED);
	EXPECT_EQ(kill_thread(0), B_BAD_THREAD_ID);
	EXPECT_EQ(suspend_thread(find_thread(nullptr)), B_NOT_ALLOWED);
	EXPECT_EQ(resume_thread(-4), B_BAD_THREAD_ID);
}

TEST(OSThread, FindThreadOfNullIsTheCallerAndStable)
{
	zvtest::Watchdog watchdog(20s);
	const thread_id me = find_thread(nullptr);
	EXPECT_EQ(me, static_cast<thread_id>(syscall(SYS_gettid)));
	EXPECT_EQ(find_thread(nullptr), me);
	thread_id other = 0;
	std::thread([&] { other = find_thread(nullptr); }).join();
	EXPECT_GT(other, 0);
	EXPECT_NE(other, me);
}

TEST(OSThread, FindThreadByName)
{
	zvtest::Watchdog watchdog(20s);
	const thread_id thread =
	    spawn_thread(&ReturnData, "a rather long thread name", B_NORMAL_PRIORITY, nullptr);
	EXPECT_EQ(find_thread("a rather long thread name"), thread);
	EXPECT_EQ(find_thread("no thread has this name"), B_NAME_NOT_FOUND);
	ASSERT_EQ(rename_thread(thread, "renamed"), B_OK);
	EXPECT_EQ(find_thread("renamed"), thread);
	EXPECT_EQ(find_thread("a rather long thread name"), B_NAME_NOT_FOUND);
	EXPECT_EQ(wait_for_thread(thread, nullptr), B_OK);
	EXPECT_EQ(find_thread("renamed"), B_NAME_NOT_FOUND);
	// A thread not made by spawn_thread is found by its host name.
	std::thread([] {
		ASSERT_EQ(rename_thread(find_thread(nullptr), "plain finder"), B_OK);
		EXPECT_EQ(find_thread("plain finder"), find_thread(nullptr));
	}).join();
}

TEST(OSThread, RenameThreadChangesInfoAndHostName)
{
	zvtest::Watchdog watchdog(20s);
	const thread_id thread = spawn_thread(&ReturnData, "before", B_NORMAL_PRIORITY, nullptr);
	ASSERT_EQ(rename_thread(thread, "after the renaming of it"), B_OK);
	thread_info info;
	ASSERT_EQ(get_thread_info(thread, &info), B_OK);
	EXPECT_STREQ(info.name, "after the renaming of it");
	EXPECT_EQ(HostName(getpid(), thread), "after the renam");
	EXPECT_EQ(rename_thread(thread, nullptr), B_BAD_VALUE);
	EXPECT_EQ(wait_for_thread(thread, nullptr), B_OK);
	EXPECT_EQ(rename_thread(thread, "gone"), B_BAD_THREAD_ID);
}

TEST(OSThread, RenameOfTheCallingThread)
{
	zvtest::Watchdog watchdog(20s);
	std::thread([] {
		ASSERT_EQ(rename_thread(find_thread(nullptr), "plain thread"), B_OK);
		thread_info info;
		ASSERT_EQ(get_thread_info(find_thread(nullptr), &info), B_OK);
		EXPECT_STREQ(info.name, "plain thread");
		EXPECT_EQ(info.team, getpid());
		EXPECT_EQ(info.state, B_THREAD_RUNNING);
	}).join();
}

TEST(OSThread, GetThreadInfoOfAThreadOfAnotherProcess)
{
	zvtest::ForeignTeam other;
	ASSERT_TRUE(other.IsValid());
	thread_info info;
	ASSERT_EQ(get_thread_info(other.Thread(), &info), B_OK);
	EXPECT_EQ(info.thread, other.Thread());
	EXPECT_EQ(info.team, other.Team());
	EXPECT_STREQ(info.name, "zvforeign");
	ASSERT_EQ(get_thread_info(other.Team(), &info), B_OK);
	EXPECT_EQ(info.team, other.Team());
	// The kit does not act on threads of other teams.
	EXPECT_EQ(kill_thread(other.Thread()), B_NOT_ALLOWED);
	EXPECT_EQ(suspend_thread(other.Thread()), B_NOT_ALLOWED);
	EXPECT_EQ(rename_thread(other.Thread(), "stolen"), B_NOT_ALLOWED);
	const int gone = other.Thread();
	other.End();
	EXPECT_EQ(get_thread_info(gone, &info), B_BAD_THREAD_ID);
}

TEST(OSThread, GetThreadInfoRefusesBadArguments)
{
	thread_info info;
	EXPECT_EQ(get_thread_info(0, &info), B_BAD_THREAD_ID);
	EXPECT_EQ(get_thread_info(-1, &info), B_BAD_THREAD_ID);
	EXPECT_EQ(get_thread_info(find_thread(nullptr), nullptr), B_BAD_VALUE);
}

TEST(OSThread, PrioritiesAreReportedAsGivenAndMappedToNiceValues)
{
	zvtest::Watchdog watchdog(20s);
	// A new thread starts with its creator's nice value; lowering it needs
	// privileges, without which the thread keeps the creator's value.
	errno = 0;
	const int base = getpriority(PRIO_PROCESS, 0);
	ASSERT_EQ(errno, 0);
	struct Case
	{
		int32 priority;
		int nice;
	};
	for (const Case& c : {Case{B_LOW_PRIORITY, 10}, Case{B_NORMAL_PRIORITY, 0},
	                      Case{B_REAL_TIME_PRIORITY, -10}, Case{1, 18}, Case{15, -1}}) {
		std::atomic<int> nice{1000};
		const thread_id thread = spawn_thread(
		    [](void* data) -> int32 {
			    static_cast<std::atomic<int>*>(data)->store(getpriority(PRIO_PROCESS, 0));
			    return 0;
		    },
		    "prioritised", c.priority, &nice);
		thread_info info;
		ASSERT_EQ(get_thread_info(thread, &info), B_OK);
		EXPECT_EQ(info.priority, c.priority);
		ASSERT_EQ(wait_for_thread(thread, nullptr), B_OK);
		EXPECT_TRUE(nice.load() == c.nice || (c.nice < base && nice.load() == base))
		    << "priority " << c.priority << " ran at nice " << nice.load();
	}
}

TEST(OSThread, SetThreadPriorityReturnsTheOldPriority)
{
	zvtest::Watchdog watchdog(20s);
	const thread_id thread = spawn_thread(&ReturnData, "reprioritised", B_NORMAL_PRIORITY, nullptr);
	EXPECT_EQ(set_thread_priority(thread, B_LOW_PRIORITY), B_NORMAL_PRIORITY);
	thread_info info;
	ASSERT_EQ(get_thread_info(thread, &info), B_OK);
	EXPECT_EQ(info.priority, B_LOW_PRIORITY);
	EXPECT_EQ(wait_for_thread(thread, nullptr), B_OK);
}

TEST(OSTime, SystemTimeIsMonotonicMicroseconds)
{
	const auto steadyBefore = std::chrono::steady_clock::now();
	const bigtime_t first = system_time();
	snooze(20000);
	const bigtime_t second = system_time();
	const auto steadyAfter = std::chrono::steady_clock::now();
	const auto outer =
	    std::chrono::duration_cast<std::chrono::microseconds>(steadyAfter - steadyBefore);
	EXPECT_GE(first, 0);
	EXPECT_GE(second - first, 20000);
	// The same clock as steady_clock: the interval lies within the outer one
	// (one microsecond of rounding on each side).
	EXPECT_LE(second - first, outer.count() + 2);
}

TEST(OSTime, SnoozeOfZeroOrLessReturnsAtOnce)
{
	const bigtime_t start = system_time();
	EXPECT_EQ(snooze(0), B_OK);
	EXPECT_EQ(snooze(-100), B_OK);
	EXPECT_LT(system_time() - start, 200000);
}

TEST(OSTime, SnoozeUntilAnAbsoluteTime)
{
	const bigtime_t until = system_time() + 15000;
	EXPECT_EQ(snooze_until(until, 0), B_OK);
	EXPECT_GE(system_time(), until);
}

int32 SnoozeUntilPastTimes(void*)
{
	const bigtime_t start = system_time();
	if (snooze_until(-1, 0) != B_OK || snooze_until(-5000, 0) != B_OK ||
	    snooze_until(start - 1000, 0) != B_OK)
		return 1;
	return system_time() - start < 200000 ? 0 : 2;
}

TEST(OSTime, SnoozeUntilATimeInThePastReturnsAtOnce)
{
	zvtest::Watchdog watchdog(20s);
	// From a thread the kit did not make, and from one it did.
	EXPECT_EQ(SnoozeUntilPastTimes(nullptr), 0);
	const thread_id thread =
	    spawn_thread(&SnoozeUntilPastTimes, "past", B_NORMAL_PRIORITY, nullptr);
	ASSERT_GT(thread, 0);
	ASSERT_EQ(resume_thread(thread), B_OK);
	status_t result = -1;
	EXPECT_EQ(wait_for_thread(thread, &result), B_OK);
	EXPECT_EQ(result, 0);
}

TEST(OSThread, ForkedChildIsANewTeamWithItsOwnThreadId)
{
	const thread_id parentThread = find_thread(nullptr);
	fflush(stdout);
	const pid_t child = fork();
	if (child == 0) {
		// Only calls that are safe after fork: no allocation, no locks.
		int failures = 0;
		const thread_id mine = find_thread(nullptr);
		if (mine != static_cast<thread_id>(syscall(SYS_gettid)) || mine == parentThread)
			failures |= 1;
		thread_info info;
		if (get_thread_info(mine, &info) != B_OK || info.team != getpid())
			failures |= 2;
		_exit(failures);
	}
	ASSERT_GT(child, 0);
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	ASSERT_TRUE(WIFEXITED(status));
	EXPECT_EQ(WEXITSTATUS(status), 0);
	EXPECT_EQ(find_thread(nullptr), parentThread);
}

TEST(OSThread, SuspendingAThreadBusyInTheKitNeverDeadlocksTheKit)
{
	zvtest::Watchdog watchdog(60s);
	// The target keeps taking the kit's internal locks; suspending it at any
	// point must leave every other kit call (resume_thread first) working.
	Spinner spinner;
	const thread_id thread = spawn_thread(
	    [](void* data) -> int32 {
		    auto* spinner = static_cast<Spinner*>(data);
		    while (!spinner->stop.load()) {
			    const sem_id sem = create_sem(0, "churn");
			    thread_info info;
			    get_thread_info(find_thread(nullptr), &info);
			    sem_info semInfo;
			    get_sem_info(sem, &semInfo);
			    delete_sem(sem);
			    spinner->counter++;
		    }
		    return 0;
	    },
	    "kit user", B_NORMAL_PRIORITY, &spinner);
	ASSERT_EQ(resume_thread(thread), B_OK);
	for (int round = 0; round < 200; round++) {
		const int64 before = spinner.counter.load();
		ASSERT_TRUE(zvtest::WaitUntil([&] { return spinner.counter.load() > before; }));
		ASSERT_EQ(suspend_thread(thread), B_OK);
		// Other kit calls go on while it is paused.
		const sem_id sem = create_sem(1, "meanwhile");
		thread_info info;
		EXPECT_EQ(get_thread_info(thread, &info), B_OK);
		EXPECT_EQ(info.state, B_THREAD_SUSPENDED);
		EXPECT_EQ(delete_sem(sem), B_OK);
		ASSERT_EQ(resume_thread(thread), B_OK);
	}
	spinner.stop = true;
	EXPECT_EQ(wait_for_thread(thread, nullptr), B_OK);
}
