// Tests of ZvLocker, the recursive owner-tracking lock.
#include <ZvLocker.h>

#include <OS.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ForkedChild.h"
#include "NoSystemCalls.h"
#include "OneThread.h"
#include "Polling.h"
#include "TestSupport.h"

using namespace std::chrono_literals;

TEST(ZvLocker, FreshLockerIsUnlocked)
{
	ZvLocker locker;
	EXPECT_FALSE(locker.IsLocked());
	EXPECT_EQ(locker.CountLock(), 0);
}

TEST(ZvLocker, LockThreeTimesUnlockTwiceStaysLocked)
{
	ZvLocker locker;
	EXPECT_TRUE(locker.Lock());
	EXPECT_TRUE(locker.Lock());
	EXPECT_TRUE(locker.Lock());
	EXPECT_EQ(locker.CountLock(), 3);
	locker.Unlock();
	locker.Unlock();
	EXPECT_TRUE(locker.IsLocked());
	EXPECT_EQ(locker.CountLock(), 1);
	locker.Unlock();
	EXPECT_FALSE(locker.IsLocked());
	EXPECT_EQ(locker.CountLock(), 0);
	// Free again: another lock works at once.
	EXPECT_EQ(locker.LockWithTimeout(0), 1);
	locker.Unlock();
}

TEST(ZvLocker, LockWithTimeoutIsRecursiveToo)
{
	ZvLocker locker;
	EXPECT_EQ(locker.LockWithTimeout(0), 1);
	EXPECT_EQ(locker.LockWithTimeout(0), 1);
	EXPECT_TRUE(locker.Lock());
	EXPECT_EQ(locker.CountLock(), 3);
	locker.Unlock();
	locker.Unlock();
	locker.Unlock();
	EXPECT_FALSE(locker.IsLocked());
}

TEST(ZvLocker, UnlockOfAnUnlockedLockerIsIgnored)
{
	ZvLocker locker;
	locker.Unlock();
	EXPECT_FALSE(locker.IsLocked());
	EXPECT_EQ(locker.CountLock(), 0);
	EXPECT_TRUE(locker.Lock());
	EXPECT_EQ(locker.CountLock(), 1);
	locker.Unlock();
}

TEST(ZvLocker, UnlockFromANonOwnerChangesNothing)
{
	zvtest::Watchdog watchdog(30s);
	ZvLocker locker;
	ASSERT_TRUE(locker.Lock());
	ASSERT_TRUE(locker.Lock());
	zvtest::OutputCapture capture;
	std::thread([&] { locker.Unlock(); }).join();
	EXPECT_EQ(capture.Finish(), "");
	EXPECT_TRUE(locker.IsLocked());
	EXPECT_EQ(locker.CountLock(), 2);
	// Still owned here: the owner's own unlocks work, and another thread
	// cannot take it meanwhile.
	int32 other = -1;
	std::thread([&] { other = locker.LockWithTimeout(0); }).join();
	EXPECT_EQ(other, 2);
	locker.Unlock();
	locker.Unlock();
	EXPECT_FALSE(locker.IsLocked());
}

TEST(ZvLocker, LockWithTimeoutZeroOnALockHeldElsewhereReturnsTwoAtOnce)
{
	zvtest::Watchdog watchdog(30s);
	ZvLocker locker;
	zvtest::Latch held(1);
	zvtest::Latch done(1);
	std::thread owner([&] {
		locker.Lock();
		held.CountDown();
		done.WaitFor(30s);
		locker.Unlock();
	});
	ASSERT_TRUE(held.WaitFor(10s));
	const bigtime_t start = system_time();
	EXPECT_EQ(locker.LockWithTimeout(0), 2);
	EXPECT_LT(system_time() - start, 200000);
	EXPECT_EQ(locker.CountLock(), 1);
	// A real time-out waits at least that long.
	const bigtime_t timed = system_time();
	EXPECT_EQ(locker.LockWithTimeout(30), 2);
	EXPECT_GE(system_time() - timed, 30000);
	done.CountDown();
	owner.join();
	EXPECT_EQ(locker.LockWithTimeout(1000), 1);
	locker.Unlock();
}

TEST(ZvLocker, LockWaitsForTheOwnerToUnlockCompletely)
{
	zvtest::Watchdog watchdog(30s);
	ZvLocker locker;
	ASSERT_TRUE(locker.Lock());
	ASSERT_TRUE(locker.Lock());
	std::atomic<int> state{0};
	std::thread waiter([&] {
		state = 1;
		EXPECT_TRUE(locker.Lock());
		state = 2;
		EXPECT_EQ(locker.CountLock(), 1);
		locker.Unlock();
	});
	ASSERT_TRUE(zvtest::WaitUntil([&] { return state.load() == 1; }));
	locker.Unlock();
	snooze(20000);
	EXPECT_EQ(state.load(), 1);
	locker.Unlock();
	waiter.join();
	EXPECT_EQ(state.load(), 2);
	EXPECT_FALSE(locker.IsLocked());
}

TEST(ZvLocker, AfterKillLocksFail)
{
	ZvLocker locker;
	zvtest::OutputCapture capture;
	locker.Kill();
	EXPECT_EQ(capture.Finish(), "");
	EXPECT_FALSE(locker.Lock());
	EXPECT_EQ(locker.LockWithTimeout(0), 0);
	EXPECT_EQ(locker.LockWithTimeout(-1), 0);
	EXPECT_FALSE(locker.IsLocked());
	EXPECT_EQ(locker.CountLock(), 0);
	// A second Kill does nothing.
	locker.Kill();
}

TEST(ZvLocker, KillMakesBlockedLockersFail)
{
	zvtest::Watchdog watchdog(30s);
	ZvLocker locker;
	ASSERT_TRUE(locker.Lock());
	std::vector<thread_id> waiters;
	for (int i = 0; i < 3; i++) {
		waiters.push_back(spawn_thread(
		    [](void* data) -> int32 { return static_cast<ZvLocker*>(data)->Lock() ? 1 : 0; },
		    "locker", B_NORMAL_PRIORITY, &locker));
		waiters.push_back(spawn_thread(
		    [](void* data) -> int32 {
			    return static_cast<ZvLocker*>(data)->LockWithTimeout(60000);
		    },
		    "timed locker", B_NORMAL_PRIORITY, &locker));
	}
	for (thread_id waiter : waiters)
		ASSERT_EQ(resume_thread(waiter), B_OK);
	for (thread_id waiter : waiters) {
		ASSERT_TRUE(zvtest::WaitUntil([&] {
			thread_info info;
			return get_thread_info(waiter, &info) == B_OK && info.state == B_THREAD_WAITING;
		}));
	}
	locker.Kill();
	for (thread_id waiter : waiters) {
		status_t result = -1;
		EXPECT_EQ(wait_for_thread(waiter, &result), B_OK);
		EXPECT_EQ(result, 0);
	}
}

TEST(ZvLocker, KillOfALockerFromAnotherTeamPrintsTheAlienMessage)
{
	// The child of a fork is another team: a locker it inherited belongs to
	// the parent, so killing it in the child is refused with the message.
	ZvLocker locker;
	int pipeFds[2];
	ASSERT_EQ(pipe(pipeFds), 0);
	fflush(stdout);
	const pid_t child = fork();
	if (child == 0) {
		dup2(pipeFds[1], 1);
		locker.Kill();
		fflush(stdout);
		_exit(locker.Lock() ? 1 : 0);
	}
	close(pipeFds[1]);
	std::string output;
	char buffer[256];
	ssize_t got;
	while ((got = read(pipeFds[0], buffer, sizeof(buffer))) > 0)
		output.append(buffer, static_cast<size_t>(got));
	close(pipeFds[0]);
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	ASSERT_TRUE(WIFEXITED(status));
	// After the refused Kill the child's locker has no semaphore.
	EXPECT_EQ(WEXITSTATUS(status), 0);
	EXPECT_EQ(output.rfind("Fatal! Trying to delete an alien semaphore! semaphore ", 0), 0u)
	    << output;
	EXPECT_EQ(output.size(),
	          strlen("Fatal! Trying to delete an alien semaphore! semaphore 12345678\n"));
	// In this team the locker still works.
	EXPECT_TRUE(locker.Lock());
	locker.Unlock();
}

TEST(ZvLocker, MutualExclusionUnderContentionWithRecursion)
{
	zvtest::Watchdog watchdog(60s);
	ZvLocker locker;
	int64 shared = 0; // protected by the locker only
	std::vector<std::thread> threads;
	for (int t = 0; t < 4; t++) {
		threads.emplace_back([&] {
			for (int i = 0; i < 5000; i++) {
				ASSERT_TRUE(locker.Lock());
				ASSERT_TRUE(locker.Lock());
				shared++;
				EXPECT_EQ(locker.CountLock(), 2);
				locker.Unlock();
				locker.Unlock();
			}
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	EXPECT_EQ(shared, 20000);
	EXPECT_FALSE(locker.IsLocked());
}

TEST(ZvLocker, MutualExclusionHoldsWhenWaitersBothPollAndSleep)
{
	zvtest::Watchdog watchdog(120s);
	ZvLocker locker;
	constexpr int kThreads = 4;
	constexpr int kRounds = 20000;
	// Read, maybe yield, write back: a second thread inside the lock would
	// lose increments. Most holds are short, so waiters mostly get the lock
	// while polling; every 64th hold yields the processor inside the lock,
	// so that waiters run out of polls and sleep on the semaphore.
	int64 shared = 0;
	zvtest::Latch start(kThreads);
	std::atomic<int> failedLocks{0};
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([&] {
			start.CountDown();
			start.WaitFor(10s);
			for (int i = 0; i < kRounds; i++) {
				if (!locker.Lock()) {
					failedLocks++;
					return;
				}
				const int64 seen = shared;
				if (i % 64 == 0)
					std::this_thread::yield();
				shared = seen + 1;
				locker.Unlock();
			}
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	EXPECT_EQ(failedLocks.load(), 0);
	EXPECT_EQ(shared, int64(kThreads) * kRounds);
	EXPECT_FALSE(locker.IsLocked());
}

TEST(ZvLocker, KillDuringContendedChurnMakesEveryLockFailWithoutHanging)
{
	zvtest::Watchdog watchdog(60s);
	ZvLocker locker;
	constexpr int kThreads = 4;
	// Each thread counts down once it has held the lock a number of times,
	// then locks and unlocks until a Lock fails; from then on every Lock
	// must fail.
	zvtest::Latch warmedUp(kThreads);
	std::atomic<int> lateSuccesses{0};
	std::atomic<int> ended{0};
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([&] {
			for (int i = 0;; i++) {
				if (i == 500)
					warmedUp.CountDown();
				if (!locker.Lock())
					break;
				locker.Unlock();
			}
			for (int i = 0; i < 100; i++) {
				if (locker.Lock()) {
					lateSuccesses++;
					locker.Unlock();
				}
			}
			ended++;
		});
	}
	ASSERT_TRUE(warmedUp.WaitFor(30s));
	locker.Kill();
	for (std::thread& thread : threads)
		thread.join();
	EXPECT_EQ(ended.load(), kThreads);
	EXPECT_EQ(lateSuccesses.load(), 0);
	EXPECT_FALSE(locker.Lock());
}

TEST(ZvLocker, UncontendedAndRecursiveLockingMakeNoSystemCall)
{
	static ZvLocker* locker;
	EXPECT_TRUE(zvtest::RunsWithoutSystemCalls(
	    [] {
		    static ZvLocker instance;
		    locker = &instance;
		    // The thread's identifier is looked up once, before the check.
		    locker->Lock();
		    locker->Unlock();
	    },
	    [] {
		    for (int i = 0; i < 1000; i++) {
			    if (!locker->Lock() || !locker->Lock() || locker->LockWithTimeout(0) != 1)
				    syscall(SYS_exit_group, 3);
			    locker->Unlock();
			    locker->Unlock();
			    locker->Unlock();
			    if (locker->IsLocked())
				    syscall(SYS_exit_group, 4);
		    }
	    }));
}

namespace {

// Every answer of a locker's life in one thread, in order.
std::vector<int32> LockerLifeSequence()
{
	std::vector<int32> results;
	ZvLocker locker;
	results.push_back(locker.Lock());
	results.push_back(locker.Lock());
	results.push_back(locker.LockWithTimeout(0));
	results.push_back(locker.CountLock());
	locker.Unlock();
	locker.Unlock();
	results.push_back(locker.IsLocked());
	results.push_back(locker.CountLock());
	locker.Unlock();
	results.push_back(locker.IsLocked());
	locker.Unlock(); // ignored: not locked
	results.push_back(locker.CountLock());
	results.push_back(locker.LockWithTimeout(0));
	results.push_back(locker.LockWithTimeout(-1));
	locker.Unlock();
	locker.Unlock();
	results.push_back(locker.IsLocked());
	for (int i = 0; i < 3; i++) {
		results.push_back(locker.Lock());
		locker.Unlock();
	}
	locker.Kill();
	results.push_back(locker.Lock());
	results.push_back(locker.LockWithTimeout(0));
	results.push_back(locker.LockWithTimeout(5));
	results.push_back(locker.IsLocked());
	return results;
}

} // namespace

TEST(ZvLocker, ALockerInAProcessThatNeverStartedAThreadAnswersAsWithThreads)
{
	// Each test runs in a process of its own: until the thread below starts,
	// the semaphore under the locker takes its one-thread path.
	if (!zvtest::NeverThreaded())
		GTEST_SKIP() << zvtest::kThreadAlreadyStarted;
	const auto [alone, shared] = zvtest::BeforeAndAfterAThread(&LockerLifeSequence);
	EXPECT_EQ(alone, shared);
	const std::vector<int32> expected = {1, 1, 1, 3, 1, 1, 0, 0, 1, 1, 0, 1, 1, 1, 0, 0, 0, 0};
	EXPECT_EQ(alone, expected);
}

TEST(ZvLocker, ALockTakenBeforeTheFirstThreadStartsIsHandedOverAfterIt)
{
	// Taken while the process has one thread, given back after a second
	// thread has started: the thread, which waits meanwhile, gets it.
	if (!zvtest::NeverThreaded())
		GTEST_SKIP() << zvtest::kThreadAlreadyStarted;
	ZvLocker locker;
	ASSERT_TRUE(locker.Lock());
	ASSERT_TRUE(locker.Lock());
	zvtest::Latch polled(1);
	zvtest::Latch unlocked(1);
	std::atomic<int32> poll{-1};
	std::atomic<bool> locked{false};
	std::thread other([&] {
		poll = locker.LockWithTimeout(0);
		polled.CountDown();
		unlocked.WaitFor(30s);
		locked = locker.Lock();
		locker.Unlock();
	});
	ASSERT_TRUE(polled.WaitFor(30s));
	EXPECT_EQ(poll.load(), 2);
	locker.Unlock();
	EXPECT_TRUE(locker.IsLocked());
	locker.Unlock();
	unlocked.CountDown();
	other.join();
	EXPECT_TRUE(locked.load());
	EXPECT_FALSE(locker.IsLocked());
	EXPECT_EQ(locker.LockWithTimeout(0), 1);
	locker.Unlock();
}

TEST(ZvLocker, AnUnlockWakesAWaiterThatSleepsOnTheSemaphore)
{
	zvtest::Watchdog watchdog(30s);
	ZvLocker locker;
	ASSERT_TRUE(locker.Lock());
	const thread_id waiter = spawn_thread(
	    [](void* data) -> int32 {
		    ZvLocker* locker = static_cast<ZvLocker*>(data);
		    const int32 locked = locker->Lock() ? 1 : 0;
		    const int32 count = locker->CountLock();
		    locker->Unlock();
		    return locked * 10 + count;
	    },
	    "sleeper", B_NORMAL_PRIORITY, &locker);
	ASSERT_EQ(resume_thread(waiter), B_OK);
	ASSERT_TRUE(zvtest::WaitUntil([&] {
		thread_info info;
		return get_thread_info(waiter, &info) == B_OK && info.state == B_THREAD_WAITING;
	}));
	locker.Unlock();
	status_t result = -1;
	EXPECT_EQ(wait_for_thread(waiter, &result), B_OK);
	EXPECT_EQ(result, 11);
	EXPECT_FALSE(locker.IsLocked());
}

TEST(ZvLocker, AThreadsFirstCallMeetsTheLockAsAnyLaterCallWould)
{
	// A thread's first call looks its identifier up on the way: an Unlock
	// first is still ignored when another thread holds the lock, and a lock
	// first takes a free lock and is recursive.
	zvtest::Watchdog watchdog(30s);
	ZvLocker locker;
	ASSERT_TRUE(locker.Lock());
	std::vector<int32> seen;
	std::thread([&] {
		locker.Unlock();
		seen.push_back(locker.IsLocked());
		seen.push_back(locker.CountLock());
		seen.push_back(locker.LockWithTimeout(0));
	}).join();
	locker.Unlock();
	std::thread([&] {
		seen.push_back(locker.LockWithTimeout(0));
		seen.push_back(locker.Lock());
		seen.push_back(locker.CountLock());
		locker.Unlock();
		locker.Unlock();
		seen.push_back(locker.IsLocked());
	}).join();
	std::thread([&] {
		seen.push_back(locker.Lock());
		locker.Unlock();
		seen.push_back(locker.IsLocked());
	}).join();
	EXPECT_EQ(seen, (std::vector<int32>{1, 1, 2, 1, 1, 2, 0, 1, 0}));
}

TEST(ZvLocker, AForkedChildDoesNotOwnALockItsParentHeldAndLocksItsOwn)
{
	// The child's thread has an identifier of its own, so the lock the
	// parent's thread held is not the child's; a lock free at the fork is
	// the child's to take, once or recursively.
	ZvLocker held;
	ZvLocker free;
	ASSERT_TRUE(held.Lock());
	fflush(stdout);
	const int result = zvtest::RunInChildWithin(10s, [&] {
		int bad = 0;
		if (held.LockWithTimeout(0) != 2)
			bad |= 1;
		held.Unlock(); // ignored: the parent's thread holds it
		if (!held.IsLocked() || held.CountLock() != 1)
			bad |= 2;
		if (!free.Lock() || !free.Lock() || free.CountLock() != 2)
			bad |= 4;
		free.Unlock();
		free.Unlock();
		if (free.IsLocked() || free.LockWithTimeout(0) != 1)
			bad |= 8;
		free.Unlock();
		return bad;
	});
	EXPECT_EQ(result, 0);
	EXPECT_TRUE(held.IsLocked());
	held.Unlock();
	EXPECT_FALSE(held.IsLocked());
	EXPECT_EQ(free.LockWithTimeout(0), 1);
	free.Unlock();
}
