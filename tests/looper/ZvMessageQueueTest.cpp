// Tests of ZvMessageQueue: order, ownership and the soft bound kept by the
// "_item_limit" semaphore.

#include <ZvMessage.h>
#include <ZvMessageQueue.h>
#include <ZvThread.h>

#include "KitThread.h"
#include "Polling.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

std::atomic<int32> sDeleted{0};

// A message that counts its destructions.
class CountedMessage : public ZvMessage
{
public:
	explicit CountedMessage(uint32 what) : ZvMessage(what) {}
	~CountedMessage() override { sDeleted.fetch_add(1); }
};

// Adds a message in a thread of the kit's, whose waits the kit reports: a
// test can tell an add asleep on the bound from one that has not run yet.
class BackgroundAdd
{
public:
	BackgroundAdd(ZvMessageQueue& queue, ZvMessage* message)
	    : fDone(1), fThread(
	                    [this, &queue, message] {
		                    queue.AddMessage(message);
		                    fDone.CountDown();
	                    },
	                    "adder")
	{
	}

	bool FinishesWithin(std::chrono::milliseconds limit) { return fDone.WaitFor(limit); }
	bool HasFinished() { return fDone.WaitFor(0ms); }

	// True once the add is seen asleep on "_item_limit"; false when it
	// returns instead (or neither happens within WaitUntil's limit).
	bool WaitsForRoom()
	{
		return zvtest::WaitUntil(
		           [this] { return HasFinished() || fThread.IsWaitingOn("_item_limit"); }) &&
		       !HasFinished();
	}

private:
	zvtest::Latch fDone;
	// Declared last: joined by its destructor before the latch goes.
	zvtest::KitThread fThread;
};

class ZvMessageQueueTest : public ::testing::Test
{
protected:
	void SetUp() override { sDeleted.store(0); }
};

// Adds count messages numbered from first in the calling thread.
void AddNumbered(ZvMessageQueue& queue, uint32 first, int count)
{
	for (int i = 0; i < count; i++)
		queue.AddMessage(new ZvMessage(first + static_cast<uint32>(i)));
}

// Removes one message, checks its what and deletes it.
void ExpectNext(ZvMessageQueue& queue, uint32 what)
{
	std::unique_ptr<ZvMessage> message(queue.RemoveMessage());
	ASSERT_NE(message, nullptr);
	EXPECT_EQ(message->what, what);
}

// Removes count messages and tells whether they were numbered from first
// on, in order.
bool RemoveInOrder(ZvMessageQueue& queue, uint32 first, int count)
{
	for (int i = 0; i < count; i++) {
		std::unique_ptr<ZvMessage> message(queue.RemoveMessage());
		if (message == nullptr || message->what != first + static_cast<uint32>(i))
			return false;
	}
	return true;
}

// The sequence of an empty queue with limit 2 whose "_item_limit" still has
// its initial unit: three adds find the count at or below 2; the fourth
// finds 3 > 2 and passes on the initial unit; the fifth waits until a
// removal leaves at least 2 queued. The first four run in the calling
// thread, so a block there would trip the caller's watchdog. Empties the
// queue again.
void ExpectLimitTwoSequence(ZvMessageQueue& queue)
{
	AddNumbered(queue, 1, 4);
	ASSERT_EQ(queue.CountItems(), 4);

	BackgroundAdd fifth(queue, new ZvMessage(5));
	EXPECT_TRUE(fifth.WaitsForRoom()) << "the fifth add should wait";
	EXPECT_EQ(queue.CountItems(), 4);

	// This remove leaves 3 >= 2 queued: it releases one unit and the fifth
	// add appends.
	ExpectNext(queue, 1);
	EXPECT_TRUE(fifth.FinishesWithin(10s));
	EXPECT_EQ(queue.CountItems(), 4);
	EXPECT_TRUE(RemoveInOrder(queue, 2, 4));
	EXPECT_TRUE(queue.IsEmpty());
}

// A message that records each destruction of each what.
class TalliedMessage : public ZvMessage
{
public:
	TalliedMessage(uint32 what, std::vector<int>* tally) : ZvMessage(what), fTally(tally) {}
	~TalliedMessage() override { (*fTally)[what]++; }

private:
	std::vector<int>* fTally;
};

// Queues tallied messages with whats first .. last - 1.
void AddTallied(ZvMessageQueue& queue, uint32 first, uint32 last, std::vector<int>* tally)
{
	for (uint32 what = first; what < last; what++)
		queue.AddMessage(new TalliedMessage(what, tally));
}

// Whether each what first .. last - 1 was deleted exactly deletions times.
void ExpectTallies(const std::vector<int>& tally, uint32 first, uint32 last, int deletions)
{
	for (uint32 what = first; what < last; what++)
		EXPECT_EQ(tally[what], deletions) << what;
}

} // namespace

TEST_F(ZvMessageQueueTest, NewQueueIsEmpty)
{
	ZvMessageQueue queue(10);
	EXPECT_TRUE(queue.IsEmpty());
	EXPECT_EQ(queue.CountItems(), 0);
}

TEST_F(ZvMessageQueueTest, MessagesComeOutOldestFirst)
{
	ZvMessageQueue queue(100);
	AddNumbered(queue, 1, 40);
	EXPECT_EQ(queue.CountItems(), 40);
	EXPECT_FALSE(queue.IsEmpty());
	for (uint32 what = 1; what <= 40; what++)
		ExpectNext(queue, what);
	EXPECT_TRUE(queue.IsEmpty());
}

TEST_F(ZvMessageQueueTest, RemoveMessageOnAnEmptyQueueReturnsNull)
{
	ZvMessageQueue queue(10);
	EXPECT_EQ(queue.RemoveMessage(), nullptr);
	EXPECT_EQ(queue.CountItems(), 0);
}

TEST_F(ZvMessageQueueTest, RemovedMessageBelongsToTheCaller)
{
	{
		ZvMessageQueue queue(10);
		queue.AddMessage(new CountedMessage(1));
		ZvMessage* message = queue.RemoveMessage();
		ASSERT_NE(message, nullptr);
		EXPECT_EQ(sDeleted.load(), 0);
		delete message;
	}
	EXPECT_EQ(sDeleted.load(), 1);
}

TEST_F(ZvMessageQueueTest, MessagesStillQueuedAreDeletedWithTheQueue)
{
	{
		ZvMessageQueue queue(2);
		for (uint32 what = 0; what < 4; what++)
			queue.AddMessage(new CountedMessage(what));
		ASSERT_EQ(queue.CountItems(), 4);
		EXPECT_EQ(sDeleted.load(), 0);
	}
	EXPECT_EQ(sDeleted.load(), 4);
}

TEST_F(ZvMessageQueueTest, WithLimitTwoTheFirstFourAddsDoNotBlockAndTheFifthWaitsForARemove)
{
	zvtest::Watchdog watchdog(20s, "limit-2 sequence");
	ZvMessageQueue queue(2);
	ExpectLimitTwoSequence(queue);
}

TEST_F(ZvMessageQueueTest, ARemoveThatLeavesLessThanTheLimitReleasesNothing)
{
	zvtest::Watchdog watchdog(20s, "remove below the limit");
	ZvMessageQueue queue(2);
	// Two adds and two removes: the removes leave 1 and 0, below the limit,
	// so "_item_limit" keeps its single initial unit.
	AddNumbered(queue, 1, 2);
	ExpectNext(queue, 1);
	ExpectNext(queue, 2);
	// Three free adds, one on the initial unit, then the next one waits.
	AddNumbered(queue, 3, 4);
	BackgroundAdd blocked(queue, new ZvMessage(7));
	EXPECT_TRUE(blocked.WaitsForRoom());
	ExpectNext(queue, 3);
	EXPECT_TRUE(blocked.FinishesWithin(10s));
}

TEST_F(ZvMessageQueueTest, UnitsReleasedWhileNobodyWaitsLetLaterAddsPassTheBound)
{
	zvtest::Watchdog watchdog(20s, "accumulated units");
	ZvMessageQueue queue(2);
	AddNumbered(queue, 1, 3);
	// Leaves 2 >= 2: one more unit, with nobody waiting (two in all).
	ExpectNext(queue, 1);
	// 2 is not over the bound: free. Then 3 > 2 and 4 > 2 each take a unit.
	AddNumbered(queue, 4, 3);
	ASSERT_EQ(queue.CountItems(), 5);
	BackgroundAdd blocked(queue, new ZvMessage(9));
	EXPECT_TRUE(blocked.WaitsForRoom());
	ExpectNext(queue, 2);
	EXPECT_TRUE(blocked.FinishesWithin(10s));
	EXPECT_EQ(queue.CountItems(), 5);
}

TEST_F(ZvMessageQueueTest, AddersWokenWhileTheRemoverEmptiesTheQueueLeaveALaterAdderWaiting)
{
	zvtest::Watchdog watchdog(30s, "several waiting adders");
	ZvMessageQueue queue(2);
	AddNumbered(queue, 1, 4);
	// Three adders find 4 > 2 with no unit left: all three wait.
	std::vector<std::unique_ptr<BackgroundAdd>> adders;
	for (uint32 what = 10; what < 13; what++)
		adders.push_back(std::make_unique<BackgroundAdd>(queue, new ZvMessage(what)));
	for (auto& adder : adders)
		EXPECT_TRUE(adder->WaitsForRoom());

	// Holding the queue's lock, empty it: the removals leaving 3 and 2
	// release one unit each, those leaving 1 and 0 none. The two woken
	// adders append only once the lock is free.
	ASSERT_TRUE(queue.Lock());
	for (uint32 what = 1; what <= 4; what++)
		ExpectNext(queue, what);
	queue.Unlock();
	while (queue.CountItems() < 2)
		std::this_thread::yield();

	// The two woken adders return; the third is still asleep on the bound.
	auto finished = [&adders] {
		int count = 0;
		for (auto& adder : adders)
			count += adder->HasFinished() ? 1 : 0;
		return count;
	};
	EXPECT_TRUE(zvtest::WaitUntil([&] { return finished() == 2; }));
	for (auto& adder : adders) {
		if (!adder->HasFinished()) {
			EXPECT_TRUE(adder->WaitsForRoom());
		}
	}
	EXPECT_EQ(finished(), 2);
	EXPECT_EQ(queue.CountItems(), 2);

	// It goes on only when a removal leaves the queue at the limit again.
	queue.AddMessage(new ZvMessage(20));
	std::unique_ptr<ZvMessage> oldest(queue.RemoveMessage());
	for (auto& adder : adders)
		EXPECT_TRUE(adder->FinishesWithin(10s));
	EXPECT_EQ(queue.CountItems(), 3);
}

TEST_F(ZvMessageQueueTest, RemoveOnAnEmptyQueueWithLimitZeroReleasesAUnit)
{
	zvtest::Watchdog watchdog(20s, "limit 0");
	ZvMessageQueue queue(0);
	// Count 0 >= 0 after the (empty) removal: one unit is released, so two
	// units are free now.
	EXPECT_EQ(queue.RemoveMessage(), nullptr);
	// 0 > 0 is false: free. Then 1 > 0 and 2 > 0 take the two units.
	AddNumbered(queue, 1, 3);
	BackgroundAdd blocked(queue, new ZvMessage(4));
	EXPECT_TRUE(blocked.WaitsForRoom());
	ExpectNext(queue, 1);
	EXPECT_TRUE(blocked.FinishesWithin(10s));
}

TEST_F(ZvMessageQueueTest, RemoveOnAnEmptyQueueWithAPositiveLimitReleasesNothing)
{
	zvtest::Watchdog watchdog(20s, "limit 1");
	ZvMessageQueue queue(1);
	EXPECT_EQ(queue.RemoveMessage(), nullptr);
	// 0 and 1 are not over 1: free; 2 > 1 takes the only unit.
	AddNumbered(queue, 1, 3);
	BackgroundAdd blocked(queue, new ZvMessage(4));
	EXPECT_TRUE(blocked.WaitsForRoom());
	ExpectNext(queue, 1);
	EXPECT_TRUE(blocked.FinishesWithin(10s));
}

TEST_F(ZvMessageQueueTest, NegativeLimitBehavesAsZero)
{
	zvtest::Watchdog watchdog(20s, "negative limit");
	ZvMessageQueue queue(-3);
	EXPECT_EQ(queue.RemoveMessage(), nullptr);
	EXPECT_EQ(queue.RemoveMessage(), nullptr);
	// Every add finds the count over -3; the initial unit and the two
	// released by the empty removals let three through.
	AddNumbered(queue, 1, 3);
	BackgroundAdd blocked(queue, new ZvMessage(4));
	EXPECT_TRUE(blocked.WaitsForRoom());
	ExpectNext(queue, 1);
	EXPECT_TRUE(blocked.FinishesWithin(10s));
}

TEST_F(ZvMessageQueueTest, AddingToAQueueWhoseLockIsGoneNeitherQueuesNorDeletes)
{
	ZvMessageQueue queue(10);
	queue.Kill();
	CountedMessage* message = new CountedMessage(1);
	queue.AddMessage(message);
	EXPECT_EQ(queue.CountItems(), 0);
	EXPECT_EQ(sDeleted.load(), 0);
	EXPECT_FALSE(queue.TryAddMessage(message));
	EXPECT_EQ(queue.RemoveMessage(), nullptr);
	delete message;
	EXPECT_EQ(sDeleted.load(), 1);
}

TEST_F(ZvMessageQueueTest, TryAddMessageReportsAQueuedMessage)
{
	ZvMessageQueue queue(10);
	EXPECT_TRUE(queue.TryAddMessage(new ZvMessage(1)));
	EXPECT_EQ(queue.CountItems(), 1);
	ExpectNext(queue, 1);
}

// The queue's storage is a ring of slots: these tests move its head around
// the ring and make it grow and shrink while wrapped.

TEST_F(ZvMessageQueueTest, OrderIsKeptWhileTheHeadGoesAroundTheRingManyTimes)
{
	ZvMessageQueue queue(100000);
	uint32 added = 0;
	uint32 removed = 0;
	// Between 5 and 15 queued, below the smallest ring's 16 slots: the head
	// passes the end of the ring again and again without a resize.
	AddNumbered(queue, added, 10);
	added += 10;
	for (int round = 0; round < 400; round++) {
		const int adds = 1 + round % 5;
		AddNumbered(queue, added, adds);
		added += static_cast<uint32>(adds);
		ASSERT_TRUE(RemoveInOrder(queue, removed, adds)) << "round " << round;
		removed += static_cast<uint32>(adds);
		ASSERT_EQ(queue.CountItems(), 10);
	}
	EXPECT_TRUE(RemoveInOrder(queue, removed, 10));
	EXPECT_TRUE(queue.IsEmpty());
	EXPECT_EQ(queue.RemoveMessage(), nullptr);
}

TEST_F(ZvMessageQueueTest, GrowingWhileTheRingIsWrappedKeepsTheOrder)
{
	ZvMessageQueue queue(1000);
	AddNumbered(queue, 0, 10);
	ASSERT_TRUE(RemoveInOrder(queue, 0, 8));
	// The two left sit at slots 8 and 9: the next adds wrap past slot 15,
	// fill the ring and make it grow twice.
	AddNumbered(queue, 10, 30);
	EXPECT_EQ(queue.CountItems(), 32);
	EXPECT_TRUE(RemoveInOrder(queue, 8, 32));
	EXPECT_TRUE(queue.IsEmpty());
}

TEST_F(ZvMessageQueueTest, GrowingAtEveryHeadPositionKeepsTheOrder)
{
	// For each start of the head in the 16-slot ring, fill the ring from
	// there and add one more.
	for (int head = 0; head < 16; head++) {
		ZvMessageQueue queue(1000);
		AddNumbered(queue, 0, head);
		ASSERT_TRUE(RemoveInOrder(queue, 0, head));
		AddNumbered(queue, 100, 17);
		ASSERT_TRUE(RemoveInOrder(queue, 100, 17)) << "head " << head;
		EXPECT_TRUE(queue.IsEmpty());
	}
}

TEST_F(ZvMessageQueueTest, ABurstOfTenThousandDrainsInOrderAndTheQueueWorksAfterwards)
{
	ZvMessageQueue queue(20000);
	AddNumbered(queue, 0, 10000);
	EXPECT_EQ(queue.CountItems(), 10000);
	// Part of the way down (the ring halves as it goes), a second burst
	// while the ring is wrapped, then all the way.
	ASSERT_TRUE(RemoveInOrder(queue, 0, 9000));
	AddNumbered(queue, 10000, 5000);
	EXPECT_EQ(queue.CountItems(), 6000);
	ASSERT_TRUE(RemoveInOrder(queue, 9000, 6000));
	EXPECT_TRUE(queue.IsEmpty());

	// Shrunk back, the ring grows again with its head moving: two adds
	// for each removal.
	uint32 expected = 20000;
	for (uint32 what = 20000; what < 20200; what += 2) {
		AddNumbered(queue, what, 2);
		ExpectNext(queue, expected++);
	}
	EXPECT_EQ(queue.CountItems(), 100);
	EXPECT_TRUE(RemoveInOrder(queue, expected, 100));
	EXPECT_TRUE(queue.IsEmpty());
}

TEST_F(ZvMessageQueueTest, DestroyingAQueueWithAWrappedRingDeletesEachMessageOnce)
{
	std::vector<int> tally(24, 0);
	{
		ZvMessageQueue queue(1000);
		AddTallied(queue, 0, 12, &tally);
		ASSERT_TRUE(RemoveInOrder(queue, 0, 10));
		// Slots 10 to 15, then 0 to 7: wrapped, 14 queued.
		AddTallied(queue, 12, 24, &tally);
		ASSERT_EQ(queue.CountItems(), 14);
		ExpectTallies(tally, 0, 10, 1);
		ExpectTallies(tally, 10, 24, 0);
	}
	ExpectTallies(tally, 0, 24, 1);
}

TEST_F(ZvMessageQueueTest, DestroyingAQueueThatGrewWhileWrappedDeletesEachMessageOnce)
{
	std::vector<int> tally(60, 0);
	{
		ZvMessageQueue queue(1000);
		AddTallied(queue, 0, 10, &tally);
		ASSERT_TRUE(RemoveInOrder(queue, 0, 7));
		AddTallied(queue, 10, 50, &tally);
		// Take a few more so that the head moves in the grown ring too.
		ASSERT_TRUE(RemoveInOrder(queue, 7, 5));
		AddTallied(queue, 50, 60, &tally);
		ASSERT_EQ(queue.CountItems(), 48);
	}
	ExpectTallies(tally, 0, 60, 1);
}

TEST_F(ZvMessageQueueTest, WithLimitTwoAndAWrappedRingTheFirstFourAddsPassAndTheFifthWaits)
{
	zvtest::Watchdog watchdog(20s, "limit-2 sequence on a wrapped ring");
	ZvMessageQueue queue(2);
	// Thirteen single adds and removes leave the head at slot 13; each
	// removal leaves the queue empty, below the limit, so "_item_limit"
	// keeps its one initial unit.
	for (uint32 what = 100; what < 113; what++) {
		queue.AddMessage(new ZvMessage(what));
		ExpectNext(queue, what);
	}
	// Slots 13, 14, 15 and 0.
	ExpectLimitTwoSequence(queue);
}

TEST_F(ZvMessageQueueTest, ConcurrentAddersAndOneRemoverLoseNothingAndKeepEachAddersOrder)
{
	zvtest::Watchdog watchdog(60s, "queue adders");
	constexpr int kAdders = 4;
	constexpr int kEach = 2500;
	// A bound the adders never reach: several adders blocked on the bound at
	// once are covered by the looper's tests with a single producer.
	ZvMessageQueue queue(kAdders * kEach + 1);
	std::vector<std::thread> adders;
	for (int adder = 0; adder < kAdders; adder++) {
		adders.emplace_back([&queue, adder] {
			for (int i = 0; i < kEach; i++) {
				ZvMessage* message = new ZvMessage(static_cast<uint32>(adder));
				message->AddInt32("seq", i);
				queue.AddMessage(message);
			}
		});
	}

	std::vector<int32> next(kAdders, 0);
	int taken = 0;
	bool inOrder = true;
	while (taken < kAdders * kEach) {
		std::unique_ptr<ZvMessage> message(queue.RemoveMessage());
		if (message == nullptr) {
			std::this_thread::yield();
			continue;
		}
		int32 seq = -1;
		ASSERT_TRUE(message->FindInt32("seq", &seq));
		ASSERT_LT(message->what, static_cast<uint32>(kAdders));
		inOrder = inOrder && seq == next[message->what];
		next[message->what] = seq + 1;
		taken++;
	}
	for (std::thread& adder : adders)
		adder.join();
	EXPECT_TRUE(inOrder);
	EXPECT_TRUE(queue.IsEmpty());
	for (int adder = 0; adder < kAdders; adder++)
		EXPECT_EQ(next[adder], kEach);
}

TEST_F(ZvMessageQueueTest, CountItemsNeverShowsACountTheQueueDidNotHoldWhileAddsAndRemovesRun)
{
	// The adder stays at most kAhead messages ahead of the remover, so the
	// queue never holds more than kAhead; a third thread reads the count all
	// along. A count put together from a stale view of one side would show
	// more than kAhead, or less than 0.
	zvtest::Watchdog watchdog(120s, "count under adds and removes");
	constexpr int32 kAhead = 3;
	const int32 total = zvtest::kSanitized ? 20000 : 200000;
	ZvMessageQueue queue(1 << 30);
	std::atomic<int32> removed{0};
	std::atomic<bool> finished{false};
	std::atomic<int32> outside{0};
	std::atomic<int32> reads{0};

	std::thread reader([&] {
		while (!finished.load()) {
			const int32 count = queue.CountItems();
			if (count < 0 || count > kAhead)
				outside.fetch_add(1);
			reads.fetch_add(1, std::memory_order_relaxed);
		}
	});
	std::thread adder([&] {
		for (int32 i = 0; i < total; i++) {
			while (i - removed.load() >= kAhead)
				std::this_thread::yield();
			queue.AddMessage(new ZvMessage(static_cast<uint32>(i)));
		}
	});
	bool inOrder = true;
	for (int32 i = 0; i < total;) {
		std::unique_ptr<ZvMessage> message(queue.RemoveMessage());
		if (message == nullptr) {
			std::this_thread::yield();
			continue;
		}
		inOrder = inOrder && message->what == static_cast<uint32>(i);
		removed.store(++i);
	}
	adder.join();
	finished.store(true);
	reader.join();

	EXPECT_TRUE(inOrder);
	EXPECT_EQ(outside.load(), 0) << "of " << reads.load() << " reads";
	EXPECT_GT(reads.load(), 0);
	EXPECT_EQ(queue.CountItems(), 0);
	EXPECT_TRUE(queue.IsEmpty());
}

TEST_F(ZvMessageQueueTest, CountItemsIsExactAfterEveryAddAndRemoveOfALongRun)
{
	// The count is the difference of what went in and what came out, kept
	// apart; checked after each step of a run whose length goes up and down
	// across the ring's growing and shrinking and around the bound.
	zvtest::Watchdog watchdog(60s, "exact count");
	ZvMessageQueue queue(100);
	int32 expected = 0;
	uint32 nextIn = 0;
	uint32 nextOut = 0;
	bool exact = true;
	for (int round = 0; round < 50; round++) {
		const int32 adds = 1 + (round * 37) % 90;
		const int32 removes = 1 + (round * 53) % 90;
		for (int32 i = 0; i < adds && expected <= 100; i++) {
			queue.AddMessage(new ZvMessage(nextIn++));
			exact = exact && queue.CountItems() == ++expected;
		}
		for (int32 i = 0; i < removes; i++) {
			std::unique_ptr<ZvMessage> message(queue.RemoveMessage());
			if (expected == 0) {
				exact = exact && message == nullptr;
				continue;
			}
			exact = exact && message != nullptr && message->what == nextOut++;
			exact = exact && queue.CountItems() == --expected;
		}
	}
	EXPECT_TRUE(exact);
	EXPECT_EQ(queue.IsEmpty(), expected == 0);
}

// #pragma mark - release policy

TEST_F(ZvMessageQueueTest, PolicyIsTheSoftBoundUnlessChosenAndUnknownOnesAreRefused)
{
	ZvMessageQueue queue(2);
	EXPECT_EQ(ZV_QUEUE_SOFT_BOUND, queue.Policy());
	EXPECT_EQ(B_BAD_VALUE, queue.SetPolicy(static_cast<zv_queue_policy>(9)));
	EXPECT_EQ(ZV_QUEUE_SOFT_BOUND, queue.Policy());
	EXPECT_EQ(B_OK, queue.SetPolicy(ZV_QUEUE_RELEASE_BELOW_BOUND));
	EXPECT_EQ(ZV_QUEUE_RELEASE_BELOW_BOUND, queue.Policy());
	EXPECT_EQ(0, queue.CountBlockedAdders());
}

namespace {

// Bound 2 and four messages (the fourth passed on the initial unit), then
// three adders asleep on "_item_limit". All four messages are then removed
// while the test holds the queue's lock, so that no woken adder can append
// in between: the removals that leave 3 and 2 release one unit each, the
// ones that leave 1 and 0 release nothing under the soft bound.
struct ThreeBlockedAdders
{
	explicit ThreeBlockedAdders(zv_queue_policy policy) : queue(2)
	{
		EXPECT_EQ(B_OK, queue.SetPolicy(policy));
		for (uint32 i = 0; i < 4; i++)
			queue.AddMessage(new ZvMessage(i));
		for (uint32 i = 0; i < 3; i++) {
			adders.push_back(std::make_unique<BackgroundAdd>(queue, new ZvMessage(10 + i)));
			EXPECT_TRUE(adders.back()->WaitsForRoom());
		}
		EXPECT_EQ(3, queue.CountBlockedAdders());
		EXPECT_TRUE(queue.Lock());
		for (int i = 0; i < 4; i++)
			delete queue.RemoveMessage();
		queue.Unlock();
	}

	ZvMessageQueue queue;
	std::vector<std::unique_ptr<BackgroundAdd>> adders;
};

} // namespace

TEST_F(ZvMessageQueueTest, UnderTheSoftBoundAnAdderCanBeLeftBlockedWithTheQueueBelowTheBound)
{
	zvtest::Watchdog watchdog(60s, "soft bound");
	ThreeBlockedAdders setup(ZV_QUEUE_SOFT_BOUND);
	// Two adders append; the third stays asleep with 2 messages queued, and
	// no removal from here on leaves the queue at the bound.
	ASSERT_TRUE(zvtest::WaitUntil([&] { return setup.queue.CountItems() == 2; }));
	EXPECT_EQ(1, setup.queue.CountBlockedAdders());
	// The opt-in policy's next removal below the bound lets it through.
	EXPECT_EQ(B_OK, setup.queue.SetPolicy(ZV_QUEUE_RELEASE_BELOW_BOUND));
	delete setup.queue.RemoveMessage();
	int finished = 0;
	for (auto& adder : setup.adders)
		finished += adder->FinishesWithin(10s) ? 1 : 0;
	EXPECT_EQ(3, finished);
	EXPECT_EQ(2, setup.queue.CountItems());
	EXPECT_EQ(0, setup.queue.CountBlockedAdders());
}

TEST_F(ZvMessageQueueTest, ReleaseBelowTheBoundLetsEveryBlockedAdderThrough)
{
	zvtest::Watchdog watchdog(60s, "release below the bound");
	ThreeBlockedAdders setup(ZV_QUEUE_RELEASE_BELOW_BOUND);
	// The removal that left 1 released the third unit.
	int finished = 0;
	for (auto& adder : setup.adders)
		finished += adder->FinishesWithin(10s) ? 1 : 0;
	EXPECT_EQ(3, finished);
	EXPECT_EQ(3, setup.queue.CountItems());
	EXPECT_EQ(0, setup.queue.CountBlockedAdders());
	// Nothing is released for adders that do not exist: the next adds past
	// the bound block again, one passing on a unit left over only if one was.
	std::vector<uint32> whats;
	while (ZvMessage* message = setup.queue.RemoveMessage()) {
		whats.push_back(message->what);
		delete message;
	}
	std::sort(whats.begin(), whats.end());
	EXPECT_EQ((std::vector<uint32>{10, 11, 12}), whats);
}
