// Tests of ZvMessageRunner: arguments, counts, the schedule (no early post,
// no drift, no catching up), interval and count changes, cancellation
// racing the timer thread, targets that go away or are full, the one-shot
// StartSending, many runners at once, and fork().
//
// Timing is only ever checked from below (a post never comes before its
// tick): how late posts are is measured by the benchmarks. "Nothing more
// comes" is checked with a marker that the same timer thread posts later.

#include <ZvHandler.h>
#include <ZvLooper.h>
#include <ZvLooperRef.h>
#include <ZvMessage.h>
#include <ZvMessageRunner.h>

#include <OS.h>

#include "ForkedChild.h"
#include "Polling.h"
#include "TestSupport.h"
#include "TimerTestSupport.h"
#include "looper/internal/TimerSchedule.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using timer_test::Receipt;
using timer_test::Recorder;
using timer_test::RecordingLooper;

constexpr uint32 kTick = 0x5449434B;   // 'TICK'
constexpr uint32 kMarker = 0x4D41524B; // 'MARK'

ZvMessage Tagged(uint32 what, int32 id)
{
	ZvMessage message(what);
	message.AddInt32("id", id);
	return message;
}

// Posts a marker through the timer thread after delay and waits for it:
// every post the thread made for a tick before then has arrived first.
bool MarkerArrives(RecordingLooper& looper, bigtime_t delay)
{
	const size_t before = looper.Handler().Count(kMarker);
	const ZvMessage marker(kMarker);
	if (ZvMessageRunner::StartSending(ZvLooperRef(looper.Looper()), &marker, delay) != B_OK)
		return false;
	return looper.Handler().WaitFor(before + 1, kMarker);
}

size_t CountAfterLastMarker(const std::vector<Receipt>& receipts, uint32 what)
{
	size_t count = 0;
	for (const Receipt& receipt : receipts) {
		if (receipt.what == kMarker)
			count = 0;
		else if (receipt.what == what)
			count++;
	}
	return count;
}

TEST(ZvMessageRunnerTest, RefusesBadArgumentsAndThenAnswersNoInit)
{
	RecordingLooper looper;
	const ZvLooperRef target(looper.Looper());
	const ZvMessage message(kTick);

	ZvMessageRunner nullMessage(target, nullptr, 1000);
	ZvMessageRunner zeroInterval(target, &message, 0);
	ZvMessageRunner negativeInterval(target, &message, -5);
	ZvMessageRunner zeroCount(target, &message, 1000, 0);
	ZvMessageRunner noTarget(ZvLooperRef(), &message, 1000);
	for (ZvMessageRunner* runner :
	     {&nullMessage, &zeroInterval, &negativeInterval, &zeroCount, &noTarget}) {
		EXPECT_EQ(runner->InitCheck(), B_BAD_VALUE);
		EXPECT_EQ(runner->SetInterval(1000), B_NO_INIT);
		EXPECT_EQ(runner->SetCount(3), B_NO_INIT);
		EXPECT_EQ(runner->GetInfo(nullptr, nullptr), B_NO_INIT);
		EXPECT_EQ(runner->Skipped(), 0);
	}
	EXPECT_EQ(ZvMessageRunner::StartSending(target, nullptr, 0), B_BAD_VALUE);
	EXPECT_EQ(ZvMessageRunner::StartSending(ZvLooperRef(), &message, 0), B_BAD_VALUE);

	ZvMessageRunner good(target, &message, 1000000);
	EXPECT_EQ(good.InitCheck(), B_OK);
	EXPECT_EQ(good.SetInterval(0), B_BAD_VALUE);
	EXPECT_EQ(good.SetInterval(-1), B_BAD_VALUE);
	bigtime_t interval = 0;
	int32 count = 0;
	ASSERT_EQ(good.GetInfo(&interval, &count), B_OK);
	EXPECT_EQ(interval, 1000000);
	EXPECT_EQ(count, -1);
}

TEST(ZvMessageRunnerTest, PostsCountCopiesNoneBeforeItsTickThenStops)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	ZvMessage message = Tagged(kTick, 7);
	const bigtime_t interval = 3000;
	const bigtime_t before = system_time();
	ZvMessageRunner runner(ZvLooperRef(looper.Looper()), &message, interval, 5);
	ASSERT_EQ(runner.InitCheck(), B_OK);
	// The runner posts copies: the caller's message is its own again.
	message.AddInt32("id", 8);

	ASSERT_TRUE(looper.Handler().WaitFor(5, kTick));
	ASSERT_TRUE(MarkerArrives(looper, 10 * interval));
	const std::vector<Receipt> receipts = looper.Handler().Receipts();
	int64 n = 0;
	for (const Receipt& receipt : receipts) {
		if (receipt.what != kTick)
			continue;
		n++;
		EXPECT_EQ(receipt.id, 7);
		EXPECT_GE(receipt.time, before + n * interval) << "post " << n << " came early";
	}
	EXPECT_EQ(n, 5);
	EXPECT_EQ(CountAfterLastMarker(receipts, kTick), 0u);
	int32 count = -7;
	ASSERT_EQ(runner.GetInfo(nullptr, &count), B_OK);
	EXPECT_EQ(count, 0);
}

TEST(ZvMessageRunnerTest, CountLeftFallsWithEachPost)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	std::vector<int32> seen;
	timer_test::Shared<ZvMessageRunner> runner;
	looper.Handler().SetAction([&](ZvMessage*) {
		runner.Use([&](ZvMessageRunner& r) {
			int32 count = 0;
			r.GetInfo(nullptr, &count);
			seen.push_back(count);
		});
	});
	const ZvMessage message(kTick);
	runner.Make(ZvLooperRef(looper.Looper()), &message, 2000, 4);
	ASSERT_TRUE(looper.Handler().WaitFor(4, kTick));
	looper.Handler().SetAction(nullptr);
	// A post counts before its message is queued: each receipt sees at most
	// what is left after its own post (less when the next post was made
	// before the handler ran).
	ASSERT_EQ(seen.size(), 4u);
	for (size_t i = 0; i < seen.size(); i++)
		EXPECT_LE(seen[i], static_cast<int32>(3 - i));
	EXPECT_EQ(seen.back(), 0);
}

TEST(ZvMessageRunnerTest, TicksStayOnTheScheduleAndMissedOnesAreDropped)
{
	using zvkit::internal::NextTick;
	using zvkit::internal::TickTime;
	// On time: the next tick follows.
	EXPECT_EQ(NextTick(1000, 100, 1, 1100), 2);
	EXPECT_EQ(NextTick(1000, 100, 1, 1150), 2);
	// Late by more than three intervals: ticks 2, 3 and 4 are dropped, and
	// tick 5 stays at start + 5 * interval (no drift from the late post).
	EXPECT_EQ(NextTick(1000, 100, 1, 1420), 5);
	EXPECT_EQ(TickTime(1000, 100, 5), 1500);
	// Exactly on a tick: that tick is passed, the next one is due.
	EXPECT_EQ(NextTick(1000, 100, 1, 1400), 5);
	// Out of range: as far as can be.
	EXPECT_EQ(TickTime(1000, INT64_MAX / 2, 4), INT64_MAX);
}

TEST(ZvMessageRunnerTest, SkippedPostsAreCountedNotMadeUpAndKeepTheCount)
{
	zvtest::Watchdog watchdog(60s);
	// A full queue makes every tick fail for a while: each is skipped and
	// counted, and afterwards the runner goes on at one post per tick
	// instead of delivering the skipped ones in a burst.
	RecordingLooper looper(1);
	zvtest::Latch arrived(1);
	zvtest::Latch release(1);
	ZvHandler blocker("blocker");
	struct Holder : ZvHandler
	{
		Holder(zvtest::Latch* a, zvtest::Latch* r) : ZvHandler("holder"), arrived(a), release(r) {}
		void MessageReceived(ZvMessage*) override
		{
			arrived->CountDown();
			release->WaitFor(30s);
		}
		zvtest::Latch* arrived;
		zvtest::Latch* release;
	} holder(&arrived, &release);
	looper.Looper()->AddHandler(&holder);
	looper.Looper()->PostMessage(1, &holder);
	ASSERT_TRUE(arrived.WaitFor(10s));
	// The looper's thread is held: fill the queue past its bound of 1.
	for (int i = 0; i < 3; i++)
		looper.Looper()->PostMessage(2, &blocker);

	const ZvMessage message(kTick);
	const bigtime_t interval = 1000;
	ZvMessageRunner runner(ZvLooperRef(looper.Looper()), &message, interval, 3);
	// Between two ticks (a post in flight holds one of the count until it
	// is skipped) the count left is still all of it.
	int32 left = 0;
	ASSERT_TRUE(zvtest::WaitUntil([&] {
		runner.GetInfo(nullptr, &left);
		return runner.Skipped() >= 5 && left == 3;
	})) << "a skipped post used up the count";
	release.CountDown();

	// The count is still 3, delivered one per tick, then nothing.
	ASSERT_TRUE(looper.Handler().WaitFor(3, kTick));
	ASSERT_TRUE(MarkerArrives(looper, 20 * interval));
	std::vector<bigtime_t> times;
	for (const Receipt& receipt : looper.Handler().Receipts()) {
		if (receipt.what == kTick)
			times.push_back(receipt.time);
	}
	ASSERT_EQ(times.size(), 3u);
	runner.GetInfo(nullptr, &left);
	EXPECT_EQ(left, 0);
}

TEST(ZvMessageRunnerTest, SetIntervalRestartsTheScheduleFromNow)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	const ZvMessage message(kTick);
	// An hour: nothing would come within the test.
	ZvMessageRunner runner(ZvLooperRef(looper.Looper()), &message, 3600LL * 1000000, 3);
	const bigtime_t changed = system_time();
	ASSERT_EQ(runner.SetInterval(2000), B_OK);
	bigtime_t interval = 0;
	int32 count = 0;
	runner.GetInfo(&interval, &count);
	EXPECT_EQ(interval, 2000);
	EXPECT_EQ(count, 3);
	ASSERT_TRUE(looper.Handler().WaitFor(3, kTick));
	int64 n = 0;
	for (const Receipt& receipt : looper.Handler().Receipts()) {
		n++;
		EXPECT_GE(receipt.time, changed + n * 2000);
	}

	// Slower again, on the finished runner: the next post waits for the
	// new interval.
	const bigtime_t slowed = system_time();
	ASSERT_EQ(runner.SetInterval(30000), B_OK);
	ASSERT_EQ(runner.SetCount(1), B_OK);
	ASSERT_TRUE(looper.Handler().WaitFor(4, kTick));
	EXPECT_GE(looper.Handler().Receipts().back().time, slowed + 30000);
}

TEST(ZvMessageRunnerTest, SetCountRestartsAFinishedRunnerAndZeroStopsIt)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	const ZvMessage message(kTick);
	ZvMessageRunner runner(ZvLooperRef(looper.Looper()), &message, 1000, 2);
	ASSERT_TRUE(looper.Handler().WaitFor(2, kTick));
	ASSERT_TRUE(zvtest::WaitUntil([&] {
		int32 count = -1;
		runner.GetInfo(nullptr, &count);
		return count == 0;
	}));
	ASSERT_EQ(runner.SetCount(3), B_OK);
	ASSERT_TRUE(looper.Handler().WaitFor(5, kTick));

	ASSERT_EQ(runner.SetCount(-1), B_OK);
	ASSERT_TRUE(looper.Handler().WaitFor(8, kTick));
	ASSERT_EQ(runner.SetCount(0), B_OK);
	// Posts queued (or in flight) when SetCount ran still arrive before
	// this marker; after it, nothing.
	ASSERT_TRUE(MarkerArrives(looper, 20000));
	const size_t settled = looper.Handler().Count(kTick);
	ASSERT_TRUE(MarkerArrives(looper, 20000));
	EXPECT_EQ(looper.Handler().Count(kTick), settled);
	int32 count = -1;
	runner.GetInfo(nullptr, &count);
	EXPECT_EQ(count, 0);
}

TEST(ZvMessageRunnerTest, DeletingTheRunnerWhilePostsAreDueStopsThemAtOnce)
{
	zvtest::Watchdog watchdog(120s);
	RecordingLooper looper;
	const int rounds = zvtest::kSanitized ? 100 : 400;
	for (int round = 0; round < rounds; round++) {
		const ZvMessage message = Tagged(kTick, round);
		auto runner = std::make_unique<ZvMessageRunner>(ZvLooperRef(looper.Looper()), &message,
		                                                50 + round % 100);
		// Let some posts happen, then delete from another thread while the
		// timer thread keeps posting.
		ASSERT_TRUE(looper.Handler().WaitFor(1 + looper.Handler().Count(kTick), kTick));
		std::thread deleter([&] { runner.reset(); });
		deleter.join();
		// Posted directly after the destructor returned: every post of the
		// runner came before it.
		looper.Looper()->PostMessage(kMarker, nullptr);
	}
	ASSERT_TRUE(looper.Handler().WaitFor(rounds, kMarker));
	// The timer thread had every chance to make a stray post by now.
	ASSERT_TRUE(MarkerArrives(looper, 5000));
	int32 round = 0;
	for (const Receipt& receipt : looper.Handler().Receipts()) {
		if (receipt.what == kMarker) {
			round++;
		} else {
			ASSERT_EQ(receipt.id, round) << "a post of a deleted runner";
		}
	}
}

TEST(ZvMessageRunnerTest, AHandlerMayDeleteTheRunnerThatPostsToIt)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	const ZvMessage message(kTick);
	timer_test::Shared<ZvMessageRunner> runner;
	zvtest::Latch deleted(1);
	std::atomic<int> calls{0};
	looper.Handler().SetAction([&](ZvMessage* received) {
		if (received->what == kTick && calls.fetch_add(1) == 2) {
			runner.Reset();
			deleted.CountDown();
		}
	});
	runner.Make(ZvLooperRef(looper.Looper()), &message, 200);
	ASSERT_TRUE(deleted.WaitFor(10s));
	const size_t atDeletion = looper.Handler().Count(kTick);
	ASSERT_TRUE(MarkerArrives(looper, 5000));
	// Posts queued before the deletion may still arrive; none made after.
	EXPECT_EQ(CountAfterLastMarker(looper.Handler().Receipts(), kTick), 0u);
	EXPECT_GE(looper.Handler().Count(kTick), atDeletion);
}

TEST(ZvMessageRunnerTest, StopsByItselfWhenTheLooperEnds)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	const ZvMessage message(kTick);
	ZvMessageRunner runner(ZvLooperRef(looper.Looper()), &message, 500);
	ASSERT_TRUE(looper.Handler().WaitFor(2, kTick));
	looper.Quit();
	ASSERT_TRUE(zvtest::WaitUntil([&] {
		int32 count = -1;
		runner.GetInfo(nullptr, &count);
		return count == 0;
	}));
	EXPECT_EQ(runner.SetCount(5), B_BAD_VALUE);
	EXPECT_EQ(runner.SetInterval(1000), B_OK);
}

TEST(ZvMessageRunnerTest, StopsByItselfWhenItsHandlerIsRemoved)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	Recorder other;
	looper.Looper()->AddHandler(&other);
	const ZvMessage message(kTick);
	ZvMessageRunner runner(ZvLooperRef(&other), &message, 500);
	ASSERT_TRUE(other.WaitFor(2, kTick));
	looper.Looper()->RemoveHandler(&other);
	ASSERT_TRUE(zvtest::WaitUntil([&] {
		int32 count = -1;
		runner.GetInfo(nullptr, &count);
		return count == 0;
	}));
	EXPECT_EQ(looper.Handler().Count(kTick), 0u);
}

TEST(ZvMessageRunnerTest, AFullTargetDoesNotHoldUpOtherRunners)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper blocked(1);
	RecordingLooper free;
	zvtest::Latch release(1);
	ASSERT_TRUE(timer_test::HoldWithAFullQueue(blocked, release));

	const ZvMessage message(kTick);
	ZvMessageRunner stuck(ZvLooperRef(blocked.Looper()), &message, 500, 4);
	ZvMessageRunner flowing(ZvLooperRef(free.Looper()), &message, 500, 40);
	// All forty posts of the other runner arrive while the first one's
	// target cannot take anything.
	ASSERT_TRUE(free.Handler().WaitFor(40, kTick));
	EXPECT_GT(stuck.Skipped(), 0);
	EXPECT_EQ(blocked.Handler().Count(kTick), 0u);
	release.CountDown();
	// Skipped posts did not use up the count: all four arrive.
	ASSERT_TRUE(blocked.Handler().WaitFor(4, kTick));
	ASSERT_TRUE(MarkerArrives(blocked, 10000));
	EXPECT_EQ(blocked.Handler().Count(kTick), 4u);
}

TEST(ZvMessageRunnerTest, StartSendingPostsOnceAfterTheDelay)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	const ZvMessage message = Tagged(kTick, 3);
	const bigtime_t before = system_time();
	ASSERT_EQ(ZvMessageRunner::StartSending(ZvLooperRef(looper.Looper()), &message, 20000), B_OK);
	ASSERT_TRUE(looper.Handler().WaitFor(1, kTick));
	EXPECT_GE(looper.Handler().Receipts()[0].time, before + 20000);
	EXPECT_EQ(looper.Handler().Receipts()[0].id, 3);
	ASSERT_TRUE(MarkerArrives(looper, 40000));
	EXPECT_EQ(looper.Handler().Count(kTick), 1u);

	// No delay: posted at once by the timer thread.
	ASSERT_EQ(ZvMessageRunner::StartSending(ZvLooperRef(looper.Looper()), &message, 0), B_OK);
	ASSERT_TRUE(looper.Handler().WaitFor(2, kTick));
}

TEST(ZvMessageRunnerTest, StartSendingToATargetThatEndsFirstPostsNothing)
{
	zvtest::Watchdog watchdog(60s);
	Recorder survivor;
	const bigtime_t before = system_time();
	bigtime_t gone = 0;
	{
		RecordingLooper looper;
		looper.Looper()->AddHandler(&survivor);
		for (int32 i = 0; i < 20; i++) {
			const ZvMessage message = Tagged(kTick, i);
			ASSERT_EQ(
			    ZvMessageRunner::StartSending(ZvLooperRef(&survivor), &message, 1000 + i * 10000),
			    B_OK);
		}
	}
	gone = system_time();
	// Every delay has passed once this arrives. The posts due after the
	// looper had ended found no target and were dropped (and freed: the
	// sanitizer builds check that nothing leaks).
	RecordingLooper later;
	ASSERT_TRUE(MarkerArrives(later, 250000));
	for (const Receipt& receipt : survivor.Receipts())
		EXPECT_LT(before + 1000 + receipt.id * 10000, gone) << "post " << receipt.id;
}

TEST(ZvMessageRunnerTest, AThousandRunnersOnTenLoopersKeepTheirCounts)
{
	zvtest::Watchdog watchdog(120s);
	constexpr int kLoopers = 10;
	constexpr int kRunners = 1000;
	constexpr int32 kCount = 5;
	std::vector<std::unique_ptr<RecordingLooper>> loopers;
	for (int i = 0; i < kLoopers; i++)
		loopers.push_back(std::make_unique<RecordingLooper>());

	const bigtime_t before = system_time();
	std::vector<std::unique_ptr<ZvMessageRunner>> runners;
	std::vector<bigtime_t> intervals;
	for (int i = 0; i < kRunners; i++) {
		const ZvMessage message = Tagged(kTick, i);
		intervals.push_back(1000 + (i % 37) * 250);
		runners.push_back(std::make_unique<ZvMessageRunner>(
		    ZvLooperRef(loopers[i % kLoopers]->Looper()), &message, intervals.back(), kCount));
		ASSERT_EQ(runners.back()->InitCheck(), B_OK);
	}
	for (auto& looper : loopers)
		ASSERT_TRUE(looper->Handler().WaitFor(kRunners / kLoopers * kCount, kTick, 60s));
	for (auto& looper : loopers)
		ASSERT_TRUE(MarkerArrives(*looper, 20000));

	std::vector<int> counts(kRunners, 0);
	for (auto& looper : loopers) {
		for (const Receipt& receipt : looper->Handler().Receipts()) {
			if (receipt.what != kTick)
				continue;
			ASSERT_GE(receipt.id, 0);
			ASSERT_LT(receipt.id, kRunners);
			ASSERT_EQ(receipt.id % kLoopers, &looper - &loopers[0]) << "wrong looper";
			const int n = ++counts[receipt.id];
			EXPECT_GE(receipt.time, before + n * intervals[receipt.id]) << "runner " << receipt.id;
		}
	}
	for (int i = 0; i < kRunners; i++)
		EXPECT_EQ(counts[i], kCount) << "runner " << i;
	runners.clear();
}

TEST(ZvMessageRunnerTest, AllRunnersShareOneTimerThread)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	const ZvMessage message(kTick);
	std::vector<std::unique_ptr<ZvMessageRunner>> runners;
	for (int i = 0; i < 50; i++) {
		runners.push_back(
		    std::make_unique<ZvMessageRunner>(ZvLooperRef(looper.Looper()), &message, 1000, 2));
	}
	ASSERT_TRUE(looper.Handler().WaitFor(100, kTick));
	EXPECT_EQ(timer_test::ThreadsNamed("zv timer"), 1);
}

TEST(ZvMessageRunnerTest, RunnersMadeAndDeletedInManyThreadsLeaveNoStrayPost)
{
	zvtest::Watchdog watchdog(60s);
	// Making and deleting runners in many threads at once, while the timer
	// thread posts for them.
	RecordingLooper looper;
	std::vector<std::thread> threads;
	std::atomic<int> made{0};
	for (int t = 0; t < 4; t++) {
		threads.emplace_back([&, t] {
			const ZvMessage message = Tagged(kTick, t);
			for (int i = 0; i < (zvtest::kSanitized ? 100 : 500); i++) {
				ZvMessageRunner runner(ZvLooperRef(looper.Looper()), &message, 100 + i % 50);
				if (runner.InitCheck() == B_OK)
					made.fetch_add(1);
				if (i % 3 == 0)
					runner.SetInterval(50);
				if (i % 5 == 0)
					runner.SetCount(2);
			}
		});
	}
	for (auto& thread : threads)
		thread.join();
	EXPECT_EQ(made.load(), 4 * (zvtest::kSanitized ? 100 : 500));
	looper.Looper()->PostMessage(kMarker, nullptr);
	ASSERT_TRUE(looper.Handler().WaitFor(1, kMarker));
	ASSERT_TRUE(MarkerArrives(looper, 5000));
	EXPECT_EQ(CountAfterLastMarker(looper.Handler().Receipts(), kTick), 0u);
}

TEST(ZvMessageRunnerTest, AForkedChildRunsRunnersOfItsOwn)
{
	if (timer_test::kThreadSanitizer)
		GTEST_SKIP() << "ThreadSanitizer starts no thread in a forked child";
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	const ZvMessage message(kTick);
	ZvMessageRunner parentRunner(ZvLooperRef(looper.Looper()), &message, 1000);
	ASSERT_TRUE(looper.Handler().WaitFor(1, kTick));

	const int childStatus = zvtest::RunInChild([&] {
		// The parent's runner is inert here and can be changed and deleted.
		int status = 0;
		if (parentRunner.SetInterval(500) != B_OK)
			status |= 1;
		RecordingLooper own;
		ZvMessageRunner runner(ZvLooperRef(own.Looper()), &message, 1000, 3);
		if (!own.Handler().WaitFor(3, kTick, 20s))
			status |= 2;
		return status;
	});
	ASSERT_EQ(childStatus, 0);
	// The parent's timer thread goes on.
	const size_t now = looper.Handler().Count(kTick);
	ASSERT_TRUE(looper.Handler().WaitFor(now + 3, kTick));
}

} // namespace
