// The bounded poll that waiting threads try before they sleep (the loop, a
// request's sender, a post over a queue's bound): how long it polls, what
// it returns, and when PollBackoff lets it be tried.
#include "base/internal/Spin.h"

#include <OS.h>

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

using zvkit::internal::PollBackoff;
using zvkit::internal::PollFor;

TEST(BoundedPollTest, ReturnsAtOnceWhenTheFirstAttemptSucceeds)
{
	int attempts = 0;
	EXPECT_TRUE(PollFor(1000000, -1, [&] { return ++attempts == 1; }));
	EXPECT_EQ(attempts, 1);
}

TEST(BoundedPollTest, GivesUpNoEarlierThanItsBudget)
{
	const bigtime_t start = system_time();
	int attempts = 0;
	EXPECT_FALSE(PollFor(2000, -1, [&] {
		attempts++;
		return false;
	}));
	EXPECT_GE(system_time() - start, 2000);
	EXPECT_GT(attempts, 1);
}

TEST(BoundedPollTest, AnEarlierDeadlineCutsTheBudget)
{
	const bigtime_t start = system_time();
	EXPECT_FALSE(PollFor(10000000, start + 2000, [] { return false; }));
	const bigtime_t took = system_time() - start;
	EXPECT_GE(took, 2000);
	// Far below the ten seconds of the budget, whatever the machine does.
	EXPECT_LT(took, 5000000);
}

TEST(BoundedPollTest, APassedDeadlineStillMakesOneRoundOfAttempts)
{
	int attempts = 0;
	EXPECT_TRUE(PollFor(1000, system_time() - 1, [&] { return ++attempts == 3; }));
	EXPECT_EQ(attempts, 3);
}

TEST(BoundedPollTest, SeesAWriteFromAnotherThread)
{
	std::atomic<bool> flag{false};
	std::thread writer([&] { flag.store(true, std::memory_order_release); });
	// Up to ten seconds: bounded, and long enough for any scheduling delay.
	const bool seen = PollFor(10000000, -1, [&] { return flag.load(std::memory_order_acquire); });
	writer.join();
	EXPECT_TRUE(seen);
}

TEST(BoundedPollTest, BackoffPollsUntilAMiss)
{
	PollBackoff backoff;
	for (int i = 0; i < 5; i++) {
		EXPECT_TRUE(backoff.ShouldPoll());
		backoff.Hit();
	}
}

TEST(BoundedPollTest, BackoffSkipsTwiceAsManyWaitsAfterEachFurtherMiss)
{
	PollBackoff backoff;
	for (int misses = 1; misses <= 3; misses++) {
		ASSERT_TRUE(backoff.ShouldPoll());
		backoff.Miss();
		for (int skipped = 0; skipped < (1 << misses); skipped++)
			EXPECT_FALSE(backoff.ShouldPoll()) << "miss " << misses << ", wait " << skipped;
	}
	EXPECT_TRUE(backoff.ShouldPoll());
}

TEST(BoundedPollTest, BackoffSkipsAtMost256Waits)
{
	PollBackoff backoff;
	for (int misses = 0; misses < 20; misses++) {
		while (!backoff.ShouldPoll()) {
		}
		backoff.Miss();
	}
	int skipped = 0;
	while (!backoff.ShouldPoll())
		skipped++;
	EXPECT_EQ(skipped, 256);
}

TEST(BoundedPollTest, AHitAfterMissesPollsAgainAtTheNextWait)
{
	PollBackoff backoff;
	backoff.Miss();
	backoff.Miss();
	int skipped = 0;
	while (!backoff.ShouldPoll())
		skipped++;
	EXPECT_EQ(skipped, 4);
	backoff.Hit();
	EXPECT_TRUE(backoff.ShouldPoll());
	// The next miss starts the doubling over.
	backoff.Miss();
	EXPECT_FALSE(backoff.ShouldPoll());
	EXPECT_FALSE(backoff.ShouldPoll());
	EXPECT_TRUE(backoff.ShouldPoll());
}
