// Tests of ZvSemaphore, the static semaphore wrappers.
#include <ZvSemaphore.h>

#include <OS.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ForeignTeam.h"
#include "OneThread.h"
#include "Polling.h"
#include "TestSupport.h"

using namespace std::chrono_literals;

namespace {

bool CountBecomes(uint32 sem, int32 wanted)
{
	return zvtest::WaitUntil([&] {
		int32 count = 0;
		return get_sem_count(static_cast<sem_id>(sem), &count) == B_OK && count == wanted;
	});
}

} // namespace

TEST(ZvSemaphore, CreateWithoutNameIsNamedZvSemaphore)
{
	const uint32 sem = ZvSemaphore::Create(0, nullptr);
	ASSERT_NE(sem, 0u);
	sem_info info;
	ASSERT_EQ(get_sem_info(static_cast<sem_id>(sem), &info), B_OK);
	EXPECT_STREQ(info.name, "ZvSemaphore");
	EXPECT_EQ(info.count, 0);
	EXPECT_EQ(info.team, getpid());
	EXPECT_TRUE(ZvSemaphore::Delete(sem));
}

TEST(ZvSemaphore, CreateKeepsAGivenNameAndCount)
{
	const uint32 sem = ZvSemaphore::Create(4, "named");
	sem_info info;
	ASSERT_EQ(get_sem_info(static_cast<sem_id>(sem), &info), B_OK);
	EXPECT_STREQ(info.name, "named");
	EXPECT_EQ(info.count, 4);
	EXPECT_TRUE(ZvSemaphore::Delete(sem));
}

TEST(ZvSemaphore, FailingCreateYieldsZero)
{
	EXPECT_EQ(ZvSemaphore::Create(-1, "negative"), 0u);
	EXPECT_EQ(ZvSemaphore::Create(-100, nullptr), 0u);
}

TEST(ZvSemaphore, AcquireWithZeroTimeoutOnEmptySemaphoreReturnsTwoAtOnce)
{
	const uint32 sem = ZvSemaphore::Create(0, nullptr);
	const bigtime_t start = system_time();
	EXPECT_EQ(ZvSemaphore::Acquire(sem, 0), 2);
	EXPECT_LT(system_time() - start, 200000);
	ASSERT_TRUE(ZvSemaphore::Release(sem));
	EXPECT_EQ(ZvSemaphore::Acquire(sem, 0), 1);
	EXPECT_EQ(ZvSemaphore::Acquire(sem, 0), 2);
	EXPECT_TRUE(ZvSemaphore::Delete(sem));
}

TEST(ZvSemaphore, AcquireOnADeletedSemaphoreReturnsZero)
{
	const uint32 sem = ZvSemaphore::Create(1, nullptr);
	ASSERT_TRUE(ZvSemaphore::Delete(sem));
	EXPECT_EQ(ZvSemaphore::Acquire(sem, 0), 0);
	EXPECT_EQ(ZvSemaphore::Acquire(sem, 100), 0);
	EXPECT_EQ(ZvSemaphore::Acquire(sem, -1), 0);
	EXPECT_EQ(ZvSemaphore::Acquire(0, 0), 0);
}

TEST(ZvSemaphore, AcquireTimesOutAfterTheGivenMilliseconds)
{
	const uint32 sem = ZvSemaphore::Create(0, nullptr);
	const bigtime_t start = system_time();
	EXPECT_EQ(ZvSemaphore::Acquire(sem, 50), 2);
	EXPECT_GE(system_time() - start, 50000);
	EXPECT_TRUE(ZvSemaphore::Delete(sem));
}

// Acquire(sem, -5) is the same very long relative wait as 2147483646 ms:
// it blocks until a release (returning 1) or the semaphore's deletion
// (returning 0), and does not time out.
class ZvSemaphoreLongWait : public testing::TestWithParam<int32>
{
};

TEST_P(ZvSemaphoreLongWait, BlocksUntilReleased)
{
	zvtest::Watchdog watchdog(30s);
	const uint32 sem = ZvSemaphore::Create(0, nullptr);
	std::atomic<int32> result{-1};
	std::thread waiter([&] { result = ZvSemaphore::Acquire(sem, GetParam()); });
	ASSERT_TRUE(CountBecomes(sem, -1));
	EXPECT_EQ(result.load(), -1);
	EXPECT_TRUE(ZvSemaphore::Release(sem));
	waiter.join();
	EXPECT_EQ(result.load(), 1);
	EXPECT_TRUE(ZvSemaphore::Delete(sem));
}

TEST_P(ZvSemaphoreLongWait, FailsWhenTheSemaphoreIsDeleted)
{
	zvtest::Watchdog watchdog(30s);
	const uint32 sem = ZvSemaphore::Create(0, nullptr);
	std::atomic<int32> result{-1};
	std::thread waiter([&] { result = ZvSemaphore::Acquire(sem, GetParam()); });
	ASSERT_TRUE(CountBecomes(sem, -1));
	EXPECT_TRUE(ZvSemaphore::Delete(sem));
	waiter.join();
	EXPECT_EQ(result.load(), 0);
}

INSTANTIATE_TEST_SUITE_P(NegativeAndLongest, ZvSemaphoreLongWait,
                         testing::Values(-5, -1, 2147483646));

TEST(ZvSemaphore, ReleaseReportsSuccess)
{
	const uint32 sem = ZvSemaphore::Create(0, nullptr);
	EXPECT_TRUE(ZvSemaphore::Release(sem));
	EXPECT_TRUE(ZvSemaphore::Release(sem));
	int32 count = 0;
	ASSERT_EQ(get_sem_count(static_cast<sem_id>(sem), &count), B_OK);
	EXPECT_EQ(count, 2);
	EXPECT_TRUE(ZvSemaphore::Delete(sem));
	EXPECT_FALSE(ZvSemaphore::Release(sem));
	EXPECT_FALSE(ZvSemaphore::Release(0));
}

TEST(ZvSemaphore, DeleteOfANonSemaphoreReturnsFalseSilently)
{
	zvtest::OutputCapture capture;
	EXPECT_FALSE(ZvSemaphore::Delete(0));
	EXPECT_FALSE(ZvSemaphore::Delete(0xFFFFFFFFu));
	EXPECT_FALSE(ZvSemaphore::Delete(0x7FFF1234u));
	const uint32 sem = ZvSemaphore::Create(0, nullptr);
	ASSERT_TRUE(ZvSemaphore::Delete(sem));
	EXPECT_FALSE(ZvSemaphore::Delete(sem));
	EXPECT_EQ(capture.Finish(), "");
}

TEST(ZvSemaphore, DeleteOfAnAlienSemaphorePrintsAndRefuses)
{
	zvtest::ForeignTeam other;
	ASSERT_TRUE(other.IsValid());
	const uint32 sem = ZvSemaphore::Create(1, "alien");
	ASSERT_EQ(set_sem_owner(static_cast<sem_id>(sem), other.Team()), B_OK);

	zvtest::OutputCapture capture;
	EXPECT_FALSE(ZvSemaphore::Delete(sem));
	char expected[128];
	snprintf(expected, sizeof(expected),
	         "Fatal! Trying to delete an alien semaphore! semaphore %08x\n", sem);
	EXPECT_EQ(capture.Finish(), expected);

	// The semaphore survives and still works.
	EXPECT_EQ(ZvSemaphore::Acquire(sem, 0), 1);
	EXPECT_TRUE(ZvSemaphore::Release(sem));
	ASSERT_EQ(set_sem_owner(static_cast<sem_id>(sem), getpid()), B_OK);
	EXPECT_TRUE(ZvSemaphore::Delete(sem));
}

TEST(ZvSemaphore, AForkedChildIsAnotherTeamForTheSemaphoresItInherits)
{
	// The parent's own team is known (and kept) before the fork.
	const uint32 own = ZvSemaphore::Create(1, "own");
	EXPECT_TRUE(ZvSemaphore::Delete(own));
	const uint32 inherited = ZvSemaphore::Create(1, "inherited");

	const pid_t child = fork();
	ASSERT_GE(child, 0);
	if (child == 0) {
		alarm(20);
		// The inherited semaphore belongs to the parent's team; one the
		// child makes belongs to the child's.
		const uint32 mine = ZvSemaphore::Create(1, "child");
		const bool refused = !ZvSemaphore::Delete(inherited);
		const bool deleted = ZvSemaphore::Delete(mine);
		fflush(stdout);
		_exit(refused && deleted ? 0 : 1);
	}
	int status = 0;
	ASSERT_EQ(child, waitpid(child, &status, 0));
	ASSERT_TRUE(WIFEXITED(status));
	EXPECT_EQ(0, WEXITSTATUS(status));
	EXPECT_TRUE(ZvSemaphore::Delete(inherited));
}

TEST(ZvSemaphore, DeleteReturnsTrueWhateverDeleteSemSays)
{
	// A semaphore of the caller's own team is deleted, and waiters see it.
	zvtest::Watchdog watchdog(30s);
	const uint32 sem = ZvSemaphore::Create(0, nullptr);
	std::atomic<int32> result{-1};
	std::thread waiter([&] { result = ZvSemaphore::Acquire(sem, 10000); });
	ASSERT_TRUE(CountBecomes(sem, -1));
	EXPECT_TRUE(ZvSemaphore::Delete(sem));
	waiter.join();
	EXPECT_EQ(result.load(), 0);
	sem_info info;
	EXPECT_EQ(get_sem_info(static_cast<sem_id>(sem), &info), B_BAD_SEM_ID);
}

namespace {

int32 CountOrError(uint32 sem)
{
	int32 count = 0;
	const status_t status = get_sem_count(static_cast<sem_id>(sem), &count);
	return status == B_OK ? count : status;
}

// Acquire and Release at the edges of the count, with the count after
// each call; the answers in order.
std::vector<int32> EdgeSequence()
{
	std::vector<int32> results;
	const uint32 one = ZvSemaphore::Create(1, nullptr);
	results.push_back(ZvSemaphore::Acquire(one, 0));
	results.push_back(CountOrError(one));
	results.push_back(ZvSemaphore::Acquire(one, 0));
	results.push_back(ZvSemaphore::Acquire(one, 1));
	results.push_back(ZvSemaphore::Release(one));
	results.push_back(ZvSemaphore::Acquire(one, -1));
	results.push_back(ZvSemaphore::Release(one));
	results.push_back(ZvSemaphore::Release(one));
	results.push_back(CountOrError(one));
	ZvSemaphore::Delete(one);
	results.push_back(ZvSemaphore::Acquire(one, 0));
	results.push_back(ZvSemaphore::Release(one));
	results.push_back(ZvSemaphore::Acquire(0, 0));
	results.push_back(ZvSemaphore::Release(0));
	const uint32 full = ZvSemaphore::Create(INT32_MAX - 1, nullptr);
	results.push_back(ZvSemaphore::Release(full));
	results.push_back(ZvSemaphore::Release(full));
	results.push_back(CountOrError(full));
	results.push_back(ZvSemaphore::Acquire(full, 0));
	results.push_back(CountOrError(full));
	ZvSemaphore::Delete(full);
	return results;
}

} // namespace

TEST(ZvSemaphore, AcquireAndReleaseInAProcessThatNeverStartedAThreadAnswerAsWithThreads)
{
	// Each test runs in a process of its own: until the thread below starts,
	// the semaphore takes its one-thread path.
	if (!zvtest::NeverThreaded())
		GTEST_SKIP() << zvtest::kThreadAlreadyStarted;
	const auto [alone, shared] = zvtest::BeforeAndAfterAThread(&EdgeSequence);
	EXPECT_EQ(alone, shared);
	const std::vector<int32> expected = {1, 0, 2, 2, 1, 1, 1,         1, 2,
	                                     0, 0, 0, 0, 1, 0, INT32_MAX, 1, INT32_MAX - 1};
	EXPECT_EQ(alone, expected);
}

TEST(ZvSemaphore, ReleaseWakesAnAcquireThatSleepsOnTheSemaphore)
{
	zvtest::Watchdog watchdog(30s);
	const uint32 sem = ZvSemaphore::Create(0, nullptr);
	std::atomic<int32> result{-1};
	std::thread waiter([&] { result = ZvSemaphore::Acquire(sem, -1); });
	ASSERT_TRUE(CountBecomes(sem, -1));
	EXPECT_TRUE(ZvSemaphore::Release(sem));
	waiter.join();
	EXPECT_EQ(result.load(), 1);
	EXPECT_EQ(CountOrError(sem), 0);
	EXPECT_TRUE(ZvSemaphore::Delete(sem));
}
