// Tests of Benaphore, the counting lock that calls the kernel only when it
// must wait or wake.
#include <Benaphore.h>

#include <OS.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "NoSystemCalls.h"
#include "Polling.h"
#include "TestSupport.h"

using namespace std::chrono_literals;

namespace {

int32 CountOf(Benaphore& benaphore)
{
	int32 count = 0x7eadbeef;
	EXPECT_EQ(benaphore.GetCount(&count), B_OK);
	return count;
}

int32 SemCount(sem_id sem)
{
	int32 count = 0x7eadbeef;
	EXPECT_EQ(get_sem_count(sem, &count), B_OK);
	return count;
}

} // namespace

TEST(Benaphore, FreshBenaphoreFailsOnTheSlowPath)
{
	Benaphore benaphore;
	EXPECT_EQ(CountOf(benaphore), 0);
	// count 0 -> -1: the slow path acquires semaphore -1.
	EXPECT_EQ(benaphore.Acquire(), B_BAD_SEM_ID);
	EXPECT_EQ(CountOf(benaphore), -1);
	EXPECT_EQ(benaphore.Release(), B_BAD_SEM_ID);
}

TEST(Benaphore, ResetCreatesASemaphoreWithCountZero)
{
	Benaphore benaphore;
	const int32 sem = benaphore.Reset(3, "bena");
	ASSERT_GT(sem, 0);
	EXPECT_EQ(CountOf(benaphore), 3);
	sem_info info;
	ASSERT_EQ(get_sem_info(sem, &info), B_OK);
	EXPECT_STREQ(info.name, "bena");
	EXPECT_EQ(info.count, 0);
	// Resetting replaces the semaphore.
	const int32 second = benaphore.Reset(1, "again");
	ASSERT_GT(second, 0);
	EXPECT_NE(second, sem);
	EXPECT_EQ(get_sem_info(sem, &info), B_BAD_SEM_ID);
	EXPECT_EQ(CountOf(benaphore), 1);
}

TEST(Benaphore, UncontendedAcquireAndReleaseLeaveTheSemaphoreAlone)
{
	Benaphore benaphore;
	const sem_id sem = benaphore.Reset(2, "fast");
	EXPECT_EQ(benaphore.Acquire(), B_OK);
	EXPECT_EQ(benaphore.Acquire(), B_OK);
	EXPECT_EQ(CountOf(benaphore), 0);
	EXPECT_EQ(benaphore.Release(), B_OK);
	EXPECT_EQ(benaphore.Release(2), B_OK);
	EXPECT_EQ(CountOf(benaphore), 3);
	EXPECT_EQ(benaphore.Acquire(3), B_OK);
	EXPECT_EQ(CountOf(benaphore), 0);
	// The kernel semaphore never saw a unit.
	EXPECT_EQ(SemCount(sem), 0);
}

TEST(Benaphore, SecondAcquireFromAnotherThreadBlocksUntilRelease)
{
	zvtest::Watchdog watchdog(30s);
	Benaphore benaphore;
	const sem_id sem = benaphore.Reset(1, "x");
	EXPECT_EQ(benaphore.Acquire(), B_OK);
	std::atomic<int> state{0};
	std::thread second([&] {
		state = 1;
		EXPECT_EQ(benaphore.Acquire(), B_OK);
		state = 2;
	});
	// The second thread is asleep on the kernel semaphore.
	ASSERT_TRUE(zvtest::WaitUntil([&] { return SemCount(sem) == -1; }));
	EXPECT_EQ(state.load(), 1);
	EXPECT_EQ(CountOf(benaphore), -1);
	EXPECT_EQ(benaphore.Release(), B_OK);
	second.join();
	EXPECT_EQ(state.load(), 2);
	EXPECT_EQ(CountOf(benaphore), 0);
	EXPECT_EQ(benaphore.Release(), B_OK);
	EXPECT_EQ(CountOf(benaphore), 1);
}

TEST(Benaphore, AcquireOfMoreThanIsFreeWaitsForTheDifference)
{
	zvtest::Watchdog watchdog(30s);
	Benaphore benaphore;
	const sem_id sem = benaphore.Reset(2, "three");
	std::atomic<bool> done{false};
	std::thread taker([&] {
		EXPECT_EQ(benaphore.Acquire(3), B_OK);
		done = true;
	});
	// count 2 - 3 = -1; the taker waits for 1 unit of the semaphore.
	ASSERT_TRUE(zvtest::WaitUntil([&] { return SemCount(sem) == -1; }));
	EXPECT_EQ(CountOf(benaphore), -1);
	EXPECT_FALSE(done.load());
	// Release(5): previous -1, so min(1, 5) = 1 unit goes to the semaphore.
	EXPECT_EQ(benaphore.Release(5), B_OK);
	taker.join();
	EXPECT_TRUE(done.load());
	EXPECT_EQ(CountOf(benaphore), 4);
	EXPECT_EQ(SemCount(sem), 0);
}

TEST(Benaphore, AcquireOfNWhileOthersWaitIncludesTheirUnits)
{
	zvtest::Watchdog watchdog(30s);
	Benaphore benaphore;
	const sem_id sem = benaphore.Reset(0, "owed");
	std::thread first([&] { EXPECT_EQ(benaphore.Acquire(), B_OK); });
	ASSERT_TRUE(zvtest::WaitUntil([&] { return SemCount(sem) == -1; }));
	// previous = -1, n = 2: waits for n - previous = 3 units.
	std::thread second([&] { EXPECT_EQ(benaphore.Acquire(2), B_OK); });
	ASSERT_TRUE(zvtest::WaitUntil([&] { return SemCount(sem) == -4; }));
	EXPECT_EQ(CountOf(benaphore), -3);
	// Release(3): previous -3, releases min(3, 3) = 3 units. They satisfy
	// one waiter (the first, wanting 1, or the second, wanting 3); either
	// way the semaphore then owes exactly one unit to the other.
	EXPECT_EQ(benaphore.Release(3), B_OK);
	EXPECT_EQ(CountOf(benaphore), 0);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return SemCount(sem) == -1; }));
	EXPECT_EQ(release_sem(sem), B_OK);
	first.join();
	second.join();
	EXPECT_EQ(SemCount(sem), 0);
}

TEST(Benaphore, FreeDeletesTheSemaphore)
{
	Benaphore benaphore;
	const sem_id sem = benaphore.Reset(1, "freed");
	EXPECT_EQ(benaphore.Free(), B_OK);
	sem_info info;
	EXPECT_EQ(get_sem_info(sem, &info), B_BAD_SEM_ID);
	// Now sem is -1, whatever was there before.
	EXPECT_EQ(benaphore.Free(), B_BAD_SEM_ID);
	EXPECT_EQ(benaphore.Acquire(), B_OK); // a unit is still counted as free
	EXPECT_EQ(benaphore.Acquire(), B_BAD_SEM_ID);
}

TEST(Benaphore, FreeOfAFreshBenaphoreReportsTheBadSemaphore)
{
	Benaphore benaphore;
	EXPECT_EQ(benaphore.Free(), B_BAD_SEM_ID);
}

TEST(Benaphore, DestructorDeletesTheSemaphore)
{
	sem_id sem;
	{
		Benaphore benaphore;
		sem = benaphore.Reset(1, "scoped");
		ASSERT_GT(sem, 0);
	}
	sem_info info;
	EXPECT_EQ(get_sem_info(sem, &info), B_BAD_SEM_ID);
}

TEST(Benaphore, MutualExclusionUnderContention)
{
	zvtest::Watchdog watchdog(60s);
	Benaphore benaphore;
	benaphore.Reset(1, "mutex");
	int64 shared = 0; // protected by the benaphore only
	std::vector<std::thread> threads;
	for (int t = 0; t < 4; t++) {
		threads.emplace_back([&] {
			for (int i = 0; i < 20000; i++) {
				ASSERT_EQ(benaphore.Acquire(), B_OK);
				shared++;
				ASSERT_EQ(benaphore.Release(), B_OK);
			}
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	EXPECT_EQ(shared, 80000);
	EXPECT_EQ(CountOf(benaphore), 1);
}

TEST(Benaphore, UncontendedAcquireAndReleaseMakeNoSystemCall)
{
	static Benaphore* benaphore;
	EXPECT_TRUE(zvtest::RunsWithoutSystemCalls(
	    [] {
		    static Benaphore instance;
		    instance.Reset(3, "quiet");
		    benaphore = &instance;
	    },
	    [] {
		    for (int i = 0; i < 1000; i++) {
			    if (benaphore->Acquire() != B_OK || benaphore->Acquire(2) != B_OK ||
			        benaphore->Release(2) != B_OK || benaphore->Release() != B_OK) {
				    syscall(SYS_exit_group, 3);
			    }
		    }
	    }));
}
