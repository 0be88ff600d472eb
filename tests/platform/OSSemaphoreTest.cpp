// Tests of the kernel kit's semaphores (OS.h).
#include <OS.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ForeignTeam.h"
#include "ForkedChild.h"
#include "NoSystemCalls.h"
#include "OneThread.h"
#include "Polling.h"
#include "SemaphoreCount.h"
#include "TestSupport.h"

using namespace std::chrono_literals;

namespace {

using zvtest::CountBecomes;
using zvtest::CountOf;

} // namespace

TEST(OSSemaphore, CreateAcquireReleaseRoundTrip)
{
	const sem_id sem = create_sem(1, "round trip");
	ASSERT_GT(sem, 0);
	EXPECT_EQ(acquire_sem(sem), B_OK);
	EXPECT_EQ(CountOf(sem), 0);
	EXPECT_EQ(release_sem(sem), B_OK);
	EXPECT_EQ(CountOf(sem), 1);
	EXPECT_EQ(delete_sem(sem), B_OK);
}

TEST(OSSemaphore, NegativeCountIsRefused)
{
	EXPECT_EQ(create_sem(-1, "negative"), B_BAD_VALUE);
}

TEST(OSSemaphore, NullNameIsAllowed)
{
	const sem_id sem = create_sem(0, nullptr);
	ASSERT_GT(sem, 0);
	sem_info info;
	ASSERT_EQ(get_sem_info(sem, &info), B_OK);
	EXPECT_STREQ(info.name, "");
	EXPECT_EQ(delete_sem(sem), B_OK);
}

TEST(OSSemaphore, ZeroAndNegativeIdentifiersAreNeverSemaphores)
{
	for (sem_id id : {0, -1, -2147483647 - 1, static_cast<sem_id>(B_BAD_SEM_ID)}) {
		int32 count;
		sem_info info;
		EXPECT_EQ(acquire_sem(id), B_BAD_SEM_ID) << id;
		EXPECT_EQ(acquire_sem_etc(id, 1, B_RELATIVE_TIMEOUT, 0), B_BAD_SEM_ID) << id;
		EXPECT_EQ(release_sem(id), B_BAD_SEM_ID) << id;
		EXPECT_EQ(get_sem_count(id, &count), B_BAD_SEM_ID) << id;
		EXPECT_EQ(get_sem_info(id, &info), B_BAD_SEM_ID) << id;
		EXPECT_EQ(set_sem_owner(id, getpid()), B_BAD_SEM_ID) << id;
		EXPECT_EQ(delete_sem(id), B_BAD_SEM_ID) << id;
	}
}

TEST(OSSemaphore, IdentifierThatWasNeverHandedOutIsBad)
{
	// Slot indexes far above anything created so far.
	EXPECT_EQ(acquire_sem(0x7fff7fff), B_BAD_SEM_ID);
	EXPECT_EQ(release_sem(0x00017fff), B_BAD_SEM_ID);
}

TEST(OSSemaphore, DeletedIdentifierIsStaleEverywhere)
{
	const sem_id sem = create_sem(3, "stale");
	ASSERT_GT(sem, 0);
	ASSERT_EQ(delete_sem(sem), B_OK);
	int32 count;
	sem_info info;
	EXPECT_EQ(acquire_sem(sem), B_BAD_SEM_ID);
	EXPECT_EQ(acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 0), B_BAD_SEM_ID);
	EXPECT_EQ(release_sem(sem), B_BAD_SEM_ID);
	EXPECT_EQ(release_sem_etc(sem, 2, 0), B_BAD_SEM_ID);
	EXPECT_EQ(get_sem_count(sem, &count), B_BAD_SEM_ID);
	EXPECT_EQ(get_sem_info(sem, &info), B_BAD_SEM_ID);
	EXPECT_EQ(set_sem_owner(sem, getpid()), B_BAD_SEM_ID);
	EXPECT_EQ(delete_sem(sem), B_BAD_SEM_ID);
}

TEST(OSSemaphore, IdentifiersArePositiveAndNotReusedSoon)
{
	std::set<sem_id> seen;
	for (int i = 0; i < 5000; i++) {
		const sem_id sem = create_sem(0, "churn");
		ASSERT_GT(sem, 0);
		EXPECT_TRUE(seen.insert(sem).second) << "identifier " << sem << " came back after " << i;
		ASSERT_EQ(delete_sem(sem), B_OK);
	}
	// A stale identifier stays stale although its slot has been reused.
	for (sem_id old : seen)
		ASSERT_EQ(release_sem(old), B_BAD_SEM_ID);
}

TEST(OSSemaphore, ManySemaphoresLiveAtOnce)
{
	std::vector<sem_id> sems;
	for (int i = 0; i < 3000; i++) {
		const sem_id sem = create_sem(i, "many");
		ASSERT_GT(sem, 0);
		sems.push_back(sem);
	}
	for (int i = 0; i < 3000; i++)
		EXPECT_EQ(CountOf(sems[i]), i);
	for (sem_id sem : sems)
		EXPECT_EQ(delete_sem(sem), B_OK);
}

TEST(OSSemaphore, AcquireAndReleaseWithCounts)
{
	const sem_id sem = create_sem(5, "counts");
	EXPECT_EQ(acquire_sem_etc(sem, 3, 0, 0), B_OK);
	EXPECT_EQ(CountOf(sem), 2);
	EXPECT_EQ(release_sem_etc(sem, 4, 0), B_OK);
	EXPECT_EQ(CountOf(sem), 6);
	EXPECT_EQ(acquire_sem_etc(sem, 6, B_RELATIVE_TIMEOUT, 0), B_OK);
	EXPECT_EQ(CountOf(sem), 0);
	delete_sem(sem);
}

TEST(OSSemaphore, NonPositiveCountsAreBadValues)
{
	const sem_id sem = create_sem(1, "bad counts");
	EXPECT_EQ(acquire_sem_etc(sem, 0, 0, 0), B_BAD_VALUE);
	EXPECT_EQ(acquire_sem_etc(sem, -2, 0, 0), B_BAD_VALUE);
	EXPECT_EQ(release_sem_etc(sem, 0, 0), B_BAD_VALUE);
	EXPECT_EQ(release_sem_etc(sem, -1, 0), B_BAD_VALUE);
	EXPECT_EQ(CountOf(sem), 1);
	delete_sem(sem);
}

TEST(OSSemaphore, ReleaseBeyondTheLargestCountIsRefused)
{
	const sem_id sem = create_sem(0x7ffffff0, "full");
	EXPECT_EQ(release_sem_etc(sem, 0x0f, 0), B_OK);
	EXPECT_EQ(release_sem(sem), B_BAD_VALUE);
	EXPECT_EQ(CountOf(sem), 0x7fffffff);
	delete_sem(sem);
}

TEST(OSSemaphore, RelativeTimeoutZeroOnUnavailableSemaphoreTimesOutAtOnce)
{
	const sem_id sem = create_sem(0, "poll");
	const bigtime_t start = system_time();
	EXPECT_EQ(acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 0), B_TIMED_OUT);
	EXPECT_LT(system_time() - start, 200000);
	EXPECT_EQ(CountOf(sem), 0);
	ASSERT_EQ(release_sem(sem), B_OK);
	EXPECT_EQ(acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 0), B_OK);
	delete_sem(sem);
}

TEST(OSSemaphore, RelativeTimeoutOf50msReturnsTimedOutNoEarlier)
{
	const sem_id sem = create_sem(0, "50 ms");
	const bigtime_t start = system_time();
	EXPECT_EQ(acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 50000), B_TIMED_OUT);
	const bigtime_t waited = system_time() - start;
	EXPECT_GE(waited, 50000);
	EXPECT_LT(waited, 2000000);
	EXPECT_EQ(CountOf(sem), 0);
	delete_sem(sem);
}

TEST(OSSemaphore, AbsoluteTimeoutIsOnTheSystemTimeClock)
{
	const sem_id sem = create_sem(0, "absolute");
	const bigtime_t deadline = system_time() + 30000;
	EXPECT_EQ(acquire_sem_etc(sem, 1, B_ABSOLUTE_TIMEOUT, deadline), B_TIMED_OUT);
	EXPECT_GE(system_time(), deadline);
	// A deadline in the past does not wait.
	const bigtime_t start = system_time();
	EXPECT_EQ(acquire_sem_etc(sem, 1, B_ABSOLUTE_TIMEOUT, start - 1000000), B_TIMED_OUT);
	EXPECT_LT(system_time() - start, 200000);
	// And an available semaphore is taken whatever the deadline.
	release_sem(sem);
	EXPECT_EQ(acquire_sem_etc(sem, 1, B_ABSOLUTE_TIMEOUT, 0), B_OK);
	delete_sem(sem);
}

TEST(OSSemaphore, TimedWaiterGetsAUnitReleasedBeforeTheDeadline)
{
	zvtest::Watchdog watchdog(30s);
	const sem_id sem = create_sem(0, "timed");
	std::atomic<status_t> result{1};
	std::thread waiter([&] { result = acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 20000000); });
	ASSERT_TRUE(CountBecomes(sem, -1));
	EXPECT_EQ(release_sem(sem), B_OK);
	waiter.join();
	EXPECT_EQ(result.load(), B_OK);
	EXPECT_EQ(CountOf(sem), 0);
	delete_sem(sem);
}

TEST(OSSemaphore, CountThreeAcquireWaitsForThreeReleases)
{
	zvtest::Watchdog watchdog(30s);
	const sem_id sem = create_sem(0, "three");
	std::atomic<bool> acquired{false};
	std::thread waiter([&] {
		EXPECT_EQ(acquire_sem_etc(sem, 3, 0, 0), B_OK);
		acquired = true;
	});
	ASSERT_TRUE(CountBecomes(sem, -3));
	EXPECT_EQ(release_sem(sem), B_OK);
	EXPECT_EQ(CountOf(sem), -2);
	EXPECT_EQ(release_sem(sem), B_OK);
	EXPECT_EQ(CountOf(sem), -1);
	EXPECT_FALSE(acquired.load());
	EXPECT_EQ(release_sem(sem), B_OK);
	waiter.join();
	EXPECT_TRUE(acquired.load());
	EXPECT_EQ(CountOf(sem), 0);
	delete_sem(sem);
}

TEST(OSSemaphore, ReleaseWithCountWakesThatManyWaiters)
{
	zvtest::Watchdog watchdog(30s);
	const sem_id sem = create_sem(0, "five");
	std::atomic<int> done{0};
	std::vector<std::thread> waiters;
	for (int i = 0; i < 5; i++) {
		waiters.emplace_back([&] {
			EXPECT_EQ(acquire_sem(sem), B_OK);
			done++;
		});
	}
	ASSERT_TRUE(CountBecomes(sem, -5));
	EXPECT_EQ(release_sem_etc(sem, 3, B_DO_NOT_RESCHEDULE), B_OK);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return done.load() == 3; }));
	EXPECT_EQ(CountOf(sem), -2);
	EXPECT_EQ(release_sem_etc(sem, 2, 0), B_OK);
	for (std::thread& waiter : waiters)
		waiter.join();
	EXPECT_EQ(done.load(), 5);
	EXPECT_EQ(CountOf(sem), 0);
	delete_sem(sem);
}

TEST(OSSemaphore, BackToBackSingleReleasesWakeEverySleepingWaiter)
{
	// Each release wakes fewer than the sleepers; the ones left asleep must
	// still be woken by the releases that follow at once.
	zvtest::Watchdog watchdog(60s);
	constexpr int kWaiters = 6;
	for (int round = 0; round < 20; round++) {
		const sem_id sem = create_sem(0, "singles");
		std::atomic<int> done{0};
		std::vector<std::thread> waiters;
		for (int i = 0; i < kWaiters; i++) {
			waiters.emplace_back([&] {
				EXPECT_EQ(acquire_sem(sem), B_OK);
				done++;
			});
		}
		ASSERT_TRUE(CountBecomes(sem, -kWaiters));
		for (int i = 0; i < kWaiters; i++)
			EXPECT_EQ(release_sem(sem), B_OK);
		for (std::thread& waiter : waiters)
			waiter.join();
		EXPECT_EQ(done.load(), kWaiters);
		EXPECT_EQ(CountOf(sem), 0);
		delete_sem(sem);
	}
}

TEST(OSSemaphore, PingPongBetweenTwoThreadsLosesNoWakeUp)
{
	zvtest::Watchdog watchdog(60s);
	const sem_id ping = create_sem(0, "ping");
	const sem_id pong = create_sem(0, "pong");
	constexpr int kRounds = 20000;
	std::thread partner([&] {
		for (int i = 0; i < kRounds; i++) {
			ASSERT_EQ(acquire_sem(ping), B_OK);
			ASSERT_EQ(release_sem(pong), B_OK);
		}
	});
	for (int i = 0; i < kRounds; i++) {
		ASSERT_EQ(release_sem(ping), B_OK);
		ASSERT_EQ(acquire_sem(pong), B_OK);
	}
	partner.join();
	EXPECT_EQ(CountOf(ping), 0);
	EXPECT_EQ(CountOf(pong), 0);
	delete_sem(ping);
	delete_sem(pong);
}

TEST(OSSemaphore, SmallWaiterIsNotStarvedBehindALargeOne)
{
	zvtest::Watchdog watchdog(30s);
	const sem_id sem = create_sem(0, "mixed");
	std::atomic<bool> bigDone{false};
	std::atomic<bool> smallDone{false};
	std::thread big([&] {
		EXPECT_EQ(acquire_sem_etc(sem, 4, 0, 0), B_OK);
		bigDone = true;
	});
	ASSERT_TRUE(CountBecomes(sem, -4));
	std::thread small([&] {
		EXPECT_EQ(acquire_sem(sem), B_OK);
		smallDone = true;
	});
	ASSERT_TRUE(CountBecomes(sem, -5));
	// One unit satisfies the small waiter only; it must get it.
	EXPECT_EQ(release_sem(sem), B_OK);
	small.join();
	EXPECT_TRUE(smallDone.load());
	EXPECT_FALSE(bigDone.load());
	EXPECT_EQ(release_sem_etc(sem, 4, 0), B_OK);
	big.join();
	EXPECT_TRUE(bigDone.load());
	delete_sem(sem);
}

TEST(OSSemaphore, DeleteWakesTenBlockedWaitersWithBadSemId)
{
	zvtest::Watchdog watchdog(30s);
	const sem_id sem = create_sem(0, "doomed");
	std::vector<std::thread> waiters;
	std::atomic<int> badId{0};
	for (int i = 0; i < 10; i++) {
		waiters.emplace_back([&, i] {
			// Half wait for ever, half with a long time-out, some for more
			// than one unit: all must come back with B_BAD_SEM_ID.
			const status_t status = (i % 2 == 0)
			                            ? acquire_sem_etc(sem, 1 + i % 3, 0, 0)
			                            : acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 60000000);
			if (status == B_BAD_SEM_ID)
				badId++;
		});
	}
	// 1+3+2+1+... : the waiters want 5 x (1 or 2 or 3) + 5 x 1 units.
	int32 owed = 0;
	for (int i = 0; i < 10; i++)
		owed += (i % 2 == 0) ? 1 + i % 3 : 1;
	ASSERT_TRUE(CountBecomes(sem, -owed));
	EXPECT_EQ(delete_sem(sem), B_OK);
	for (std::thread& waiter : waiters)
		waiter.join();
	EXPECT_EQ(badId.load(), 10);
	EXPECT_EQ(release_sem(sem), B_BAD_SEM_ID);
}

TEST(OSSemaphore, SlotOfADeletedSemaphoreWithWaitersIsReusedSafely)
{
	zvtest::Watchdog watchdog(60s);
	// Waiters of deleted semaphores leave while new semaphores are created:
	// a new semaphore never sees units or waiters of an old one.
	for (int round = 0; round < 50; round++) {
		const sem_id sem = create_sem(0, "reuse");
		std::vector<std::thread> waiters;
		for (int i = 0; i < 3; i++)
			waiters.emplace_back([sem] { EXPECT_EQ(acquire_sem(sem), B_BAD_SEM_ID); });
		ASSERT_TRUE(CountBecomes(sem, -3));
		ASSERT_EQ(delete_sem(sem), B_OK);
		std::vector<sem_id> fresh;
		for (int i = 0; i < 20; i++) {
			fresh.push_back(create_sem(2, "fresh"));
			EXPECT_EQ(CountOf(fresh.back()), 2);
		}
		for (std::thread& waiter : waiters)
			waiter.join();
		for (sem_id other : fresh) {
			EXPECT_EQ(CountOf(other), 2);
			delete_sem(other);
		}
	}
}

TEST(OSSemaphore, SemInfoGivesTeamNameAndCount)
{
	const sem_id sem = create_sem(7, "info test");
	sem_info info;
	memset(&info, 0x55, sizeof(info));
	ASSERT_EQ(get_sem_info(sem, &info), B_OK);
	EXPECT_EQ(info.sem, sem);
	EXPECT_EQ(info.team, getpid());
	EXPECT_STREQ(info.name, "info test");
	EXPECT_EQ(info.count, 7);
	EXPECT_EQ(get_sem_info(sem, nullptr), B_BAD_VALUE);
	int32* none = nullptr;
	EXPECT_EQ(get_sem_count(sem, none), B_BAD_VALUE);
	delete_sem(sem);
}

TEST(OSSemaphore, LongNameIsTruncatedToTheNameLength)
{
	const std::string longName(100, 'n');
	const sem_id sem = create_sem(0, longName.c_str());
	sem_info info;
	ASSERT_EQ(get_sem_info(sem, &info), B_OK);
	EXPECT_EQ(std::string(info.name), std::string(B_OS_NAME_LENGTH - 1, 'n'));
	delete_sem(sem);
}

TEST(OSSemaphore, SetSemOwnerToALiveTeam)
{
	zvtest::ForeignTeam other;
	ASSERT_TRUE(other.IsValid());
	const sem_id sem = create_sem(1, "given away");
	EXPECT_EQ(set_sem_owner(sem, other.Team()), B_OK);
	sem_info info;
	ASSERT_EQ(get_sem_info(sem, &info), B_OK);
	EXPECT_EQ(info.team, other.Team());
	// The semaphore still works in this process.
	EXPECT_EQ(acquire_sem(sem), B_OK);
	EXPECT_EQ(release_sem(sem), B_OK);
	EXPECT_EQ(set_sem_owner(sem, getpid()), B_OK);
	ASSERT_EQ(get_sem_info(sem, &info), B_OK);
	EXPECT_EQ(info.team, getpid());
	delete_sem(sem);
}

TEST(OSSemaphore, SetSemOwnerRefusesTeamsThatDoNotExist)
{
	const sem_id sem = create_sem(1, "kept");
	EXPECT_EQ(set_sem_owner(sem, 0), B_BAD_TEAM_ID);
	EXPECT_EQ(set_sem_owner(sem, -5), B_BAD_TEAM_ID);
	// A process that has ended is no team any more.
	int ended;
	{
		zvtest::ForeignTeam gone;
		ASSERT_TRUE(gone.IsValid());
		ended = gone.Team();
	}
	EXPECT_EQ(set_sem_owner(sem, ended), B_BAD_TEAM_ID);
	// Nor is a thread that is not the main thread of its process.
	zvtest::ForeignTeam other;
	ASSERT_TRUE(other.IsValid());
	EXPECT_EQ(set_sem_owner(sem, other.Thread()), B_BAD_TEAM_ID);
	sem_info info;
	ASSERT_EQ(get_sem_info(sem, &info), B_OK);
	EXPECT_EQ(info.team, getpid());
	delete_sem(sem);
}

TEST(OSSemaphore, MutualExclusionUnderContention)
{
	zvtest::Watchdog watchdog(60s);
	const sem_id sem = create_sem(1, "mutex");
	int64 shared = 0; // protected by sem only
	constexpr int kThreads = 4;
	constexpr int kRounds = 20000;
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([&] {
			for (int i = 0; i < kRounds; i++) {
				ASSERT_EQ(acquire_sem(sem), B_OK);
				shared++;
				ASSERT_EQ(release_sem(sem), B_OK);
			}
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	EXPECT_EQ(shared, int64{kThreads} * kRounds);
	EXPECT_EQ(CountOf(sem), 1);
	delete_sem(sem);
}

TEST(OSSemaphore, ProducerConsumerKeepsEveryUnit)
{
	zvtest::Watchdog watchdog(60s);
	const sem_id sem = create_sem(0, "units");
	constexpr int kProducers = 3;
	constexpr int kUnits = 10000;
	std::atomic<int> consumed{0};
	std::vector<std::thread> threads;
	for (int c = 0; c < 3; c++) {
		threads.emplace_back([&] {
			while (true) {
				const status_t status = acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 30000000);
				if (status != B_OK)
					return;
				if (++consumed == kProducers * kUnits)
					return;
			}
		});
	}
	std::vector<std::thread> producers;
	for (int p = 0; p < kProducers; p++) {
		producers.emplace_back([&] {
			for (int i = 0; i < kUnits; i++)
				ASSERT_EQ(release_sem(sem), B_OK);
		});
	}
	for (std::thread& producer : producers)
		producer.join();
	ASSERT_TRUE(zvtest::WaitUntil([&] { return consumed.load() == kProducers * kUnits; }, 30s));
	// The consumers still waiting end with the semaphore.
	delete_sem(sem);
	for (std::thread& thread : threads)
		thread.join();
	EXPECT_EQ(consumed.load(), kProducers * kUnits);
}

TEST(OSSemaphore, DeleteRacingWithAcquireAndReleaseIsSafe)
{
	zvtest::Watchdog watchdog(60s);
	for (int round = 0; round < 200; round++) {
		const sem_id sem = create_sem(1, "race");
		zvtest::Latch start(3);
		std::thread user([&] {
			start.CountDown();
			for (int i = 0; i < 1000; i++) {
				const status_t a = acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 1000000);
				if (a == B_BAD_SEM_ID)
					return;
				ASSERT_TRUE(a == B_OK || a == B_TIMED_OUT) << a;
				const status_t r = release_sem(sem);
				if (r == B_BAD_SEM_ID)
					return;
				ASSERT_EQ(r, B_OK);
			}
		});
		std::thread poller([&] {
			start.CountDown();
			int32 count;
			sem_info info;
			for (int i = 0; i < 1000; i++) {
				if (get_sem_count(sem, &count) != B_OK || get_sem_info(sem, &info) != B_OK)
					return;
			}
		});
		start.CountDown();
		ASSERT_TRUE(start.WaitFor(10s));
		EXPECT_EQ(delete_sem(sem), B_OK);
		user.join();
		poller.join();
		EXPECT_EQ(acquire_sem(sem), B_BAD_SEM_ID);
	}
}

TEST(OSSemaphore, AtomicAddReturnsThePreviousValue)
{
	int32 value = 5;
	EXPECT_EQ(atomic_add(&value, 3), 5);
	EXPECT_EQ(value, 8);
	EXPECT_EQ(atomic_add(&value, -10), 8);
	EXPECT_EQ(value, -2);
	EXPECT_EQ(atomic_or(&value, 1), -2);
	EXPECT_EQ(value, -1);
	EXPECT_EQ(atomic_and(&value, 6), -1);
	EXPECT_EQ(value, 6);
}

namespace {

void IgnoreSignal(int) {}

} // namespace

TEST(OSSemaphore, CanInterruptLetsASignalEndTheWait)
{
	zvtest::Watchdog watchdog(30s);
	// A handler installed without SA_RESTART, as for any interrupting signal.
	struct sigaction action;
	struct sigaction old;
	memset(&action, 0, sizeof(action));
	action.sa_handler = &IgnoreSignal;
	sigemptyset(&action.sa_mask);
	ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);

	const sem_id sem = create_sem(0, "interruptible");
	std::atomic<status_t> interruptible{1};
	std::atomic<status_t> plain{1};
	std::thread first([&] { interruptible = acquire_sem_etc(sem, 1, B_CAN_INTERRUPT, 0); });
	ASSERT_TRUE(CountBecomes(sem, -1));
	std::thread second([&] { plain = acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 60000000); });
	ASSERT_TRUE(CountBecomes(sem, -2));

	pthread_kill(first.native_handle(), SIGUSR1);
	first.join();
	EXPECT_EQ(interruptible.load(), B_INTERRUPTED);
	EXPECT_EQ(CountOf(sem), -1);

	// Without the flag a signal does not end the wait.
	pthread_kill(second.native_handle(), SIGUSR1);
	snooze(20000);
	EXPECT_EQ(plain.load(), 1);
	EXPECT_EQ(release_sem(sem), B_OK);
	second.join();
	EXPECT_EQ(plain.load(), B_OK);
	delete_sem(sem);
	sigaction(SIGUSR1, &old, nullptr);
}

TEST(OSSemaphore, TableRunsOutWithNoMoreSemsAndRecovers)
{
	std::vector<sem_id> sems;
	sem_id sem;
	while ((sem = create_sem(0, "filler")) > 0) {
		sems.push_back(sem);
		ASSERT_LE(sems.size(), 65536u);
	}
	EXPECT_EQ(sem, B_NO_MORE_SEMS);
	EXPECT_GT(sems.size(), 60000u);
	for (sem_id filler : sems)
		ASSERT_EQ(delete_sem(filler), B_OK);
	sem = create_sem(1, "after");
	ASSERT_GT(sem, 0);
	EXPECT_EQ(acquire_sem(sem), B_OK);
	delete_sem(sem);
}

TEST(OSSemaphore, SetSemOwnerRefusesAnEndedButUnreapedProcess)
{
	const sem_id sem = create_sem(1, "kept");
	fflush(stdout);
	const pid_t child = fork();
	if (child == 0)
		_exit(0);
	ASSERT_GT(child, 0);
	// Wait until the child has ended, leaving it a zombie (not reaped).
	siginfo_t info;
	ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
	EXPECT_EQ(set_sem_owner(sem, child), B_BAD_TEAM_ID);
	int status;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(set_sem_owner(sem, child), B_BAD_TEAM_ID);
	delete_sem(sem);
}

TEST(OSSemaphore, WaitersKilledDuringReleasesLeaveNoUnitUnclaimed)
{
	zvtest::Watchdog watchdog(120s);
	// Each release wakes one sleeper. A sleeper that is killed as it wakes
	// must pass the wake-up on: otherwise a live waiter would sleep on
	// beside a free unit, and its wait below would never end.
	for (int round = 0; round < 30; round++) {
		const sem_id sem = create_sem(0, "contested");
		std::vector<thread_id> waiters;
		for (int i = 0; i < 8; i++) {
			waiters.push_back(spawn_thread(
			    [](void* data) -> int32 {
				    return acquire_sem(static_cast<sem_id>(reinterpret_cast<intptr_t>(data)));
			    },
			    "contender", B_NORMAL_PRIORITY, reinterpret_cast<void*>(intptr_t{sem})));
			ASSERT_EQ(resume_thread(waiters.back()), B_OK);
		}
		ASSERT_TRUE(CountBecomes(sem, -8));
		std::thread releaser([sem] {
			for (int i = 0; i < 8; i++)
				release_sem(sem);
		});
		for (int i = 0; i < 8; i += 2)
			kill_thread(waiters[i]);
		releaser.join();
		int acquired = 0;
		for (thread_id waiter : waiters) {
			status_t value = -1;
			ASSERT_EQ(wait_for_thread(waiter, &value), B_OK);
			ASSERT_TRUE(value == B_OK || value == B_INTERRUPTED) << value;
			if (value == B_OK)
				acquired++;
		}
		EXPECT_GE(acquired, 4);
		EXPECT_EQ(CountOf(sem), 8 - acquired);
		delete_sem(sem);
	}
}

TEST(OSSemaphore, UncontendedAcquireAndReleaseMakeNoSystemCall)
{
	static sem_id sem;
	static thread_id first;
	const bool clean = zvtest::RunsWithoutSystemCalls(
	    [] {
		    sem = create_sem(2, "quiet");
		    first = find_thread(nullptr);
	    },
	    [] {
		    for (int i = 0; i < 1000; i++) {
			    if (acquire_sem(sem) != B_OK ||
			        acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 0) != B_OK ||
			        release_sem_etc(sem, 2, 0) != B_OK || find_thread(nullptr) != first) {
				    syscall(SYS_exit_group, 3);
			    }
		    }
	    });
	EXPECT_TRUE(clean);
	// The check itself works: a call that does enter the kernel is caught.
	EXPECT_FALSE(zvtest::RunsWithoutSystemCalls([] {}, [] { syscall(SYS_getppid); }));
}

namespace {

// One run of counting calls on a fresh semaphore; the results in order.
std::vector<status_t> CountingSequence()
{
	std::vector<status_t> results;
	const sem_id sem = create_sem(2, "sequence");
	results.push_back(acquire_sem(sem));
	results.push_back(acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 0));
	results.push_back(acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 0));
	results.push_back(release_sem_etc(sem, 3, 0));
	results.push_back(CountOf(sem));
	results.push_back(acquire_sem_etc(sem, 3, 0, 0));
	results.push_back(release_sem_etc(sem, INT32_MAX, 0));
	results.push_back(release_sem(sem));
	results.push_back(CountOf(sem));
	results.push_back(delete_sem(sem));
	results.push_back(acquire_sem(sem));
	results.push_back(release_sem(sem));
	return results;
}

std::atomic<int> gHandlerReleases{0};
sem_id gSignalledSem = -1;

void ReleaseFromHandler(int)
{
	if (release_sem(gSignalledSem) == B_OK)
		gHandlerReleases.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

TEST(OSSemaphore, AProcessWithOneThreadCountsAsOneWithMany)
{
	// Each test runs in a process of its own: until the thread below starts,
	// this one is the only thread, and the calls take the single-threaded
	// path.
	if (!zvtest::NeverThreaded())
		GTEST_SKIP() << zvtest::kThreadAlreadyStarted;
	const auto [alone, shared] = zvtest::BeforeAndAfterAThread(&CountingSequence);
	EXPECT_EQ(alone, shared);
	const std::vector<status_t> expected = {B_OK,      B_OK, B_TIMED_OUT,  B_OK,
	                                        3,         B_OK, B_OK,         B_BAD_VALUE,
	                                        INT32_MAX, B_OK, B_BAD_SEM_ID, B_BAD_SEM_ID};
	EXPECT_EQ(alone, expected);
}

TEST(OSSemaphore, AReleaseInASignalHandlerIsNeverLostBetweenAcquireAndRelease)
{
	// A signal handler of the only thread releases units while that thread
	// acquires and releases in a loop: every unit the handler added is still
	// there at the end. (With one thread the semaphore's exchanges are made
	// without the bus lock; they must still be single instructions.)
	if (!zvtest::NeverThreaded())
		GTEST_SKIP() << zvtest::kThreadAlreadyStarted;
	gSignalledSem = create_sem(1, "signalled");
	gHandlerReleases = 0;
	struct sigaction action = {};
	action.sa_handler = &ReleaseFromHandler;
	sigemptyset(&action.sa_mask);
	struct sigaction previous = {};
	ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
	struct itimerval every = {{0, 50}, {0, 50}};
	ASSERT_EQ(setitimer(ITIMER_REAL, &every, nullptr), 0);
	const bigtime_t end = system_time() + 2000000;
	while (gHandlerReleases.load(std::memory_order_relaxed) < 500 && system_time() < end) {
		for (int i = 0; i < 1000; i++) {
			ASSERT_EQ(acquire_sem(gSignalledSem), B_OK);
			ASSERT_EQ(release_sem(gSignalledSem), B_OK);
		}
	}
	struct itimerval stop = {};
	setitimer(ITIMER_REAL, &stop, nullptr);
	sigaction(SIGALRM, &previous, nullptr);
	EXPECT_GT(gHandlerReleases.load(), 0);
	EXPECT_EQ(CountOf(gSignalledSem), 1 + gHandlerReleases.load());
	delete_sem(gSignalledSem);
}

namespace {

// One-unit calls at the edges of the count, on fresh semaphores; the results
// in order.
std::vector<status_t> OneUnitEdgeSequence()
{
	std::vector<status_t> results;
	const sem_id empty = create_sem(0, "edges");
	results.push_back(acquire_sem_etc(empty, 1, B_RELATIVE_TIMEOUT, 0));
	results.push_back(release_sem(empty));
	results.push_back(acquire_sem(empty));
	results.push_back(acquire_sem_etc(empty, 1, B_RELATIVE_TIMEOUT, 0));
	results.push_back(release_sem_etc(empty, INT32_MAX - 1, 0));
	results.push_back(release_sem(empty));
	results.push_back(CountOf(empty));
	results.push_back(release_sem(empty));
	results.push_back(CountOf(empty));
	results.push_back(acquire_sem(empty));
	results.push_back(release_sem(empty));
	results.push_back(CountOf(empty));
	results.push_back(delete_sem(empty));
	results.push_back(acquire_sem(empty));
	results.push_back(acquire_sem_etc(empty, 1, B_RELATIVE_TIMEOUT, 0));
	results.push_back(release_sem(empty));
	// Odd and even counts on the way down and up.
	const sem_id three = create_sem(3, "three");
	for (int i = 0; i < 4; i++)
		results.push_back(acquire_sem_etc(three, 1, B_RELATIVE_TIMEOUT, 0));
	for (int i = 0; i < 3; i++)
		results.push_back(release_sem(three));
	results.push_back(CountOf(three));
	results.push_back(delete_sem(three));
	return results;
}

} // namespace

TEST(OSSemaphore, OneUnitCallsAnswerAloneAsWithThreadsAtTheEdgesOfTheCount)
{
	if (!zvtest::NeverThreaded())
		GTEST_SKIP() << zvtest::kThreadAlreadyStarted;
	const auto [alone, shared] = zvtest::BeforeAndAfterAThread(&OneUnitEdgeSequence);
	EXPECT_EQ(alone, shared);
	const std::vector<status_t> expected = {
	    B_TIMED_OUT,  B_OK,         B_OK, B_TIMED_OUT, B_OK,      B_OK,        INT32_MAX,
	    B_BAD_VALUE,  INT32_MAX,    B_OK, B_OK,        INT32_MAX, B_OK,        B_BAD_SEM_ID,
	    B_BAD_SEM_ID, B_BAD_SEM_ID, B_OK, B_OK,        B_OK,      B_TIMED_OUT, B_OK,
	    B_OK,         B_OK,         3,    B_OK};
	EXPECT_EQ(alone, expected);
}

namespace {

// A signal handler that, on every signal, either takes a unit (holding
// one afterwards) or gives back what it took; or, in giving mode, adds an
// extra unit or takes it back. It checks that every count it reads is
// within [gHandlerLow, gHandlerHigh].
sem_id gTogglingSem = -1;
bool gHandlerGives = false;
volatile sig_atomic_t gHandlerOwes = 0; // units the handler holds (or added)
std::atomic<int> gToggles{0};
std::atomic<bool> gHandlerSawBadCount{false};
int32 gHandlerLow = 0;
int32 gHandlerHigh = 0;

void ToggleFromHandler(int)
{
	int32 count = 0;
	if (get_sem_count(gTogglingSem, &count) != B_OK || count < gHandlerLow ||
	    count > gHandlerHigh) {
		gHandlerSawBadCount.store(true, std::memory_order_relaxed);
	}
	const bool first = gHandlerOwes == 0;
	const bool take = gHandlerGives ? !first : first;
	const status_t result =
	    take ? acquire_sem_etc(gTogglingSem, 1, B_RELATIVE_TIMEOUT, 0) : release_sem(gTogglingSem);
	if (result == B_OK)
		gHandlerOwes = first ? 1 : 0;
	gToggles.fetch_add(1, std::memory_order_relaxed);
}

// Runs the only thread's loop of one-unit calls while the handler toggles
// every 50 µs; false when a call of the loop gave a result it cannot give.
bool RunAgainstToggler(sem_id sem, bool handlerGives, int32 low, int32 high)
{
	gTogglingSem = sem;
	gHandlerGives = handlerGives;
	gHandlerOwes = 0;
	gToggles = 0;
	gHandlerSawBadCount = false;
	gHandlerLow = low;
	gHandlerHigh = high;
	struct sigaction action = {};
	action.sa_handler = &ToggleFromHandler;
	sigemptyset(&action.sa_mask);
	struct sigaction previous = {};
	if (sigaction(SIGALRM, &action, &previous) != 0)
		return false;
	struct itimerval every = {{0, 50}, {0, 50}};
	setitimer(ITIMER_REAL, &every, nullptr);
	bool sound = true;
	const bigtime_t end = system_time() + 2000000;
	while (gToggles.load(std::memory_order_relaxed) < 2000 && system_time() < end && sound) {
		for (int i = 0; i < 1000; i++) {
			if (!handlerGives) {
				// The handler may hold the only unit: then the poll times out.
				// While the thread holds the unit the handler cannot hold it.
				const status_t taken = acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 0);
				if (taken == B_OK)
					sound = sound && gHandlerOwes == 0 && release_sem(sem) == B_OK;
				else
					sound = sound && taken == B_TIMED_OUT;
			} else {
				// The handler's extra unit may fill the count: then the
				// release is refused.
				// While the thread's unit fills the count the handler's
				// cannot be there too.
				const status_t given = release_sem(sem);
				if (given == B_OK)
					sound = sound && gHandlerOwes == 0 && acquire_sem(sem) == B_OK;
				else
					sound = sound && given == B_BAD_VALUE;
			}
		}
	}
	struct itimerval stop = {};
	setitimer(ITIMER_REAL, &stop, nullptr);
	sigaction(SIGALRM, &previous, nullptr);
	return sound;
}

} // namespace

TEST(OSSemaphore, AHandlerTakingTheLastUnitAmidTheOnlyThreadsCallsLeavesTheCountExact)
{
	// One unit, taken and given back by the only thread and, on every other
	// signal, taken (held until the next signal) by its handler; a handler
	// can take the unit between the thread's look at the count and its
	// change of it.
	if (!zvtest::NeverThreaded())
		GTEST_SKIP() << zvtest::kThreadAlreadyStarted;
	const sem_id sem = create_sem(1, "toggled");
	EXPECT_TRUE(RunAgainstToggler(sem, false, 0, 1));
	EXPECT_GT(gToggles.load(), 0);
	EXPECT_FALSE(gHandlerSawBadCount.load());
	EXPECT_EQ(CountOf(sem), 1 - gHandlerOwes);
	delete_sem(sem);
}

TEST(OSSemaphore, AHandlerFillingTheCountAmidTheOnlyThreadsCallsLeavesTheCountExact)
{
	// One unit short of full, given and taken back by the only thread and,
	// on every other signal, filled by its handler; a handler can fill the
	// count between the thread's look at it and its release.
	if (!zvtest::NeverThreaded())
		GTEST_SKIP() << zvtest::kThreadAlreadyStarted;
	const sem_id sem = create_sem(INT32_MAX - 1, "filled");
	EXPECT_TRUE(RunAgainstToggler(sem, true, INT32_MAX - 1, INT32_MAX));
	EXPECT_GT(gToggles.load(), 0);
	EXPECT_FALSE(gHandlerSawBadCount.load());
	EXPECT_EQ(CountOf(sem), INT32_MAX - 1 + gHandlerOwes);
	delete_sem(sem);
}

TEST(OSSemaphore, AForkedChildOfAThreadedProcessUsesSemaphoresAWaiterOfTheParentIsRegisteredOn)
{
	// One-unit calls in the child answer as usual, though the parent's
	// waiter is registered in its copy of the table.
	int result = -1;
	zvtest::ForkWithAParentWaiter(
	    [](sem_id sem) {
		    int bad = 0;
		    if (release_sem(sem) != B_OK)
			    bad |= 1;
		    if (acquire_sem(sem) != B_OK)
			    bad |= 2;
		    if (acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 0) != B_TIMED_OUT)
			    bad |= 4;
		    if (release_sem(sem) != B_OK || release_sem(sem) != B_OK)
			    bad |= 8;
		    if (acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 0) != B_OK)
			    bad |= 16;
		    return bad;
	    },
	    &result);
	EXPECT_EQ(result, 0);
}
