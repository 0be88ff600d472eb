// Tests of the platform's BLocker: recursion, ownership, time-outs and
// mutual exclusion, in both the benaphore and the plain semaphore style.

#include <Locker.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// The parameter is the benaphore style flag.
class BLockerTest : public ::testing::TestWithParam<bool>
{
};

INSTANTIATE_TEST_SUITE_P(Styles, BLockerTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
	                         return info.param ? "Benaphore" : "Semaphore";
                         });

TEST_P(BLockerTest, StartsUnlockedWithASemaphore)
{
	BLocker locker("test locker", GetParam());
	EXPECT_EQ(B_OK, locker.InitCheck());
	EXPECT_GT(locker.Sem(), 0);
	EXPECT_FALSE(locker.IsLocked());
	EXPECT_EQ(-1, locker.LockingThread());
	EXPECT_EQ(0, locker.CountLocks());
}

TEST_P(BLockerTest, TheOwnerMayLockAgainAndMustUnlockAsOften)
{
	BLocker locker(GetParam());
	ASSERT_TRUE(locker.Lock());
	ASSERT_TRUE(locker.Lock());
	EXPECT_EQ(B_OK, locker.LockWithTimeout(0));
	EXPECT_TRUE(locker.IsLocked());
	EXPECT_EQ(find_thread(nullptr), locker.LockingThread());
	EXPECT_EQ(3, locker.CountLocks());
	locker.Unlock();
	locker.Unlock();
	EXPECT_TRUE(locker.IsLocked());
	EXPECT_EQ(1, locker.CountLocks());
	locker.Unlock();
	EXPECT_FALSE(locker.IsLocked());
	EXPECT_EQ(-1, locker.LockingThread());
}

TEST_P(BLockerTest, AnotherThreadTimesOutWhileTheLockIsHeld)
{
	zvtest::Watchdog watchdog(30s, "BLocker time-out");
	BLocker locker(GetParam());
	ASSERT_TRUE(locker.Lock());
	ASSERT_TRUE(locker.Lock());
	const thread_id owner = find_thread(nullptr);

	status_t zeroWait = B_OK;
	status_t shortWait = B_OK;
	bool sawLocked = true;
	thread_id sawOwner = -1;
	std::thread other([&] {
		sawLocked = locker.IsLocked();
		sawOwner = locker.LockingThread();
		zeroWait = locker.LockWithTimeout(0);
		shortWait = locker.LockWithTimeout(20000);
		// An Unlock from a thread that does not hold the lock is ignored.
		locker.Unlock();
	});
	other.join();
	EXPECT_FALSE(sawLocked);
	EXPECT_EQ(owner, sawOwner);
	EXPECT_EQ(B_TIMED_OUT, zeroWait);
	EXPECT_EQ(B_TIMED_OUT, shortWait);
	EXPECT_TRUE(locker.IsLocked());
	EXPECT_EQ(2, locker.CountLocks());
	locker.Unlock();
	locker.Unlock();

	// After the time-outs the lock still works for everybody.
	status_t later = B_ERROR;
	std::thread again([&] {
		later = locker.LockWithTimeout(B_INFINITE_TIMEOUT);
		locker.Unlock();
	});
	again.join();
	EXPECT_EQ(B_OK, later);
	EXPECT_TRUE(locker.Lock());
	locker.Unlock();
}

TEST_P(BLockerTest, AWaiterGetsTheLockOnlyWhenTheOwnerHasUnlockedCompletely)
{
	zvtest::Watchdog watchdog(30s, "BLocker hand-over");
	BLocker locker(GetParam());
	ASSERT_TRUE(locker.Lock());
	ASSERT_TRUE(locker.Lock());

	std::atomic<bool> acquired{false};
	zvtest::Latch waiting(1);
	std::thread other([&] {
		waiting.CountDown();
		EXPECT_TRUE(locker.Lock());
		acquired = true;
		locker.Unlock();
	});
	ASSERT_TRUE(waiting.WaitFor(10s));
	locker.Unlock();
	// Still held once: the waiter cannot have it.
	EXPECT_FALSE(acquired.load());
	locker.Unlock();
	other.join();
	EXPECT_TRUE(acquired.load());
}

TEST_P(BLockerTest, ThreadsMixingLocksAndTimeOutsNeverOverlap)
{
	zvtest::Watchdog watchdog(60s, "BLocker exclusion");
	BLocker locker(GetParam());
	int64 counter = 0;
	std::atomic<int32> inside{0};
	std::atomic<bool> overlap{false};
	const int kThreads = 4;
	const int kRounds = 2000;
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([&, t] {
			for (int i = 0; i < kRounds; i++) {
				// Odd threads use short time-outs, which sometimes expire
				// and must leave the lock consistent.
				bool locked = (t % 2 == 0) ? locker.Lock() : locker.LockWithTimeout(50) == B_OK;
				if (!locked)
					continue;
				if (inside.fetch_add(1) != 0)
					overlap = true;
				// Not atomic on purpose: the lock alone protects it.
				counter++;
				inside.fetch_sub(1);
				locker.Unlock();
			}
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	EXPECT_FALSE(overlap.load());
	EXPECT_GE(counter, static_cast<int64>(kThreads / 2 * kRounds));
	EXPECT_LE(counter, static_cast<int64>(kThreads * kRounds));
	EXPECT_TRUE(locker.Lock());
	locker.Unlock();
}

TEST(BLockerPlainTest, DefaultConstructionIsUsable)
{
	BLocker locker;
	EXPECT_EQ(B_OK, locker.InitCheck());
	EXPECT_TRUE(locker.Lock());
	EXPECT_TRUE(locker.IsLocked());
	locker.Unlock();
	BLocker named("named");
	EXPECT_EQ(B_OK, named.InitCheck());
}

} // namespace
