// Tests of ZvLooper: handler list, posting, target selection, dispatch, the
// "QUIT" path, Run and Quit.
//
// Loopers that are never run are driven by hand (Lock, ProcessNextMessage,
// Unlock: TestLooper::Drain), which makes target selection deterministic;
// running loopers are sequenced with latches.

#include <ZvHandler.h>
#include <ZvLooper.h>
#include <ZvMessage.h>
#include <ZvSemaphore.h>
#include <ZvThread.h>

#include <OS.h>

#include "KitThread.h"
#include "LooperTestSupport.h"
#include "Polling.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <thread>

// Counting allocation functions for the whole test executable. Each thread
// counts the blocks it allocated and freed, in all and for each small size,
// so that a test can check that a message the looper dropped was really
// deleted (its blocks freed) in the thread that drives the looper. Each
// block carries its size in a header in front of it, so that the unsized
// deletes can count by size too. Every form is replaced, so that news and
// deletes are counted alike whichever form the code uses.
namespace {

// The library keeps freed messages and items in per-thread caches for
// reuse, which would hide them from the counts: this executable runs with
// the caches off. Set during static initialisation, before any block exists.
const int kForceNew = setenv("ZVKIT_FORCE_NEW", "1", 1);

constexpr std::size_t kHeader = alignof(std::max_align_t);
constexpr std::size_t kCountedSizes = 257;

thread_local int64_t tLiveBlocks = 0;
thread_local int64_t tLiveBySize[kCountedSizes] = {};

void* CountedAllocate(std::size_t size) noexcept
{
	char* block = static_cast<char*>(std::malloc(size + kHeader));
	if (block == nullptr)
		return nullptr;
	std::memcpy(block, &size, sizeof(size));
	tLiveBlocks++;
	if (size < kCountedSizes)
		tLiveBySize[size]++;
	return block + kHeader;
}

void* CountedAllocateOrThrow(std::size_t size)
{
	void* block = CountedAllocate(size);
	if (block == nullptr)
		throw std::bad_alloc();
	return block;
}

void CountedFree(void* pointer) noexcept
{
	if (pointer == nullptr)
		return;
	char* block = static_cast<char*>(pointer) - kHeader;
	std::size_t size;
	std::memcpy(&size, block, sizeof(size));
	tLiveBlocks--;
	if (size < kCountedSizes)
		tLiveBySize[size]--;
	std::free(block);
}

} // namespace

int64_t looper_test::LiveBlocksOfThisThread()
{
	return tLiveBlocks;
}

int64_t looper_test::LiveBlocksOfSize(std::size_t size)
{
	return size < kCountedSizes ? tLiveBySize[size] : 0;
}

void* operator new(std::size_t size)
{
	return CountedAllocateOrThrow(size);
}

void* operator new[](std::size_t size)
{
	return CountedAllocateOrThrow(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
	return CountedAllocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
	return CountedAllocate(size);
}

void operator delete(void* block) noexcept
{
	CountedFree(block);
}

void operator delete[](void* block) noexcept
{
	CountedFree(block);
}

void operator delete(void* block, std::size_t) noexcept
{
	CountedFree(block);
}

void operator delete[](void* block, std::size_t) noexcept
{
	CountedFree(block);
}

void operator delete(void* block, const std::nothrow_t&) noexcept
{
	CountedFree(block);
}

void operator delete[](void* block, const std::nothrow_t&) noexcept
{
	CountedFree(block);
}

namespace {

using namespace std::chrono_literals;
using looper_test::LiveBlocksOfThisThread;
using looper_test::PreferredField;
using looper_test::RecordingHandler;
using looper_test::TestLooper;

// Remembers, for each dispatch, the message's address, its target and its
// "_preferredhandler" field, then dispatches as the base class does.
class InspectingLooper : public TestLooper
{
public:
	void DispatchMessage(ZvMessage* message, ZvHandler* target) override
	{
		lastMessage = message;
		lastTarget = target;
		void* recorded = nullptr;
		hadField = message->FindPointer(PreferredField(), &recorded);
		field = recorded;
		dispatched++;
		ZvLooper::DispatchMessage(message, target);
	}

	ZvMessage* lastMessage = nullptr;
	ZvHandler* lastTarget = nullptr;
	bool hadField = false;
	void* field = nullptr;
	int dispatched = 0;
};

ZvLooper* LinkOf(ZvLooper& looper)
{
	return static_cast<ZvHandler&>(looper).Looper();
}

// Checks that the looper's own MessageReceived got the whats 1 to count, in
// that order and nothing else.
void ExpectOwnWhatsInOrder(const TestLooper& looper, uint32 count)
{
	ASSERT_EQ(looper.OwnWhats().size(), count);
	for (uint32 what = 1; what <= count; what++)
		EXPECT_EQ(looper.OwnWhats()[what - 1], what);
}

} // namespace

// Construction and the handler list.

TEST(ZvLooperTest, ANewLooperIsItsOwnFirstHandlerAndPreferredHandler)
{
	TestLooper looper;
	EXPECT_EQ(looper.CountHandlers(), 1);
	EXPECT_EQ(looper.IndexOfHandler(&looper), 0);
	EXPECT_EQ(looper.HandlerAt(0), &looper);
	EXPECT_EQ(LinkOf(looper), &looper);
	EXPECT_EQ(looper.PreferredHandler(), &looper);
	EXPECT_EQ(looper.CurrentMessage(), nullptr);
	EXPECT_STREQ(looper.Name(), "test looper");
}

TEST(ZvLooperTest, HandlerAtOutsideTheListReturnsNull)
{
	TestLooper looper;
	EXPECT_EQ(looper.HandlerAt(-1), nullptr);
	EXPECT_EQ(looper.HandlerAt(looper.CountHandlers()), nullptr);
}

TEST(ZvLooperTest, AddHandlerOfTheSameHandlerTwiceFailsTheSecondTime)
{
	TestLooper looper;
	ZvHandler handler("h");
	EXPECT_TRUE(looper.AddHandler(&handler));
	EXPECT_FALSE(looper.AddHandler(&handler));
	EXPECT_EQ(looper.CountHandlers(), 2);
	EXPECT_EQ(handler.Looper(), &looper);
	EXPECT_EQ(looper.IndexOfHandler(&handler), 1);
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperTest, AddHandlerOfNullFails)
{
	TestLooper looper;
	EXPECT_FALSE(looper.AddHandler(nullptr));
	EXPECT_EQ(looper.CountHandlers(), 1);
}

TEST(ZvLooperTest, AddingTheLooperToItselfAgainFails)
{
	TestLooper looper;
	EXPECT_FALSE(looper.AddHandler(&looper));
}

TEST(ZvLooperTest, RemoveHandlerDetachesItAndKeepsTheOthersInOrder)
{
	TestLooper looper;
	ZvHandler a("a"), b("b"), c("c");
	looper.AddHandler(&a);
	looper.AddHandler(&b);
	looper.AddHandler(&c);
	EXPECT_TRUE(looper.RemoveHandler(&b));
	EXPECT_EQ(b.Looper(), nullptr);
	EXPECT_EQ(looper.CountHandlers(), 3);
	EXPECT_EQ(looper.HandlerAt(0), &looper);
	EXPECT_EQ(looper.HandlerAt(1), &a);
	EXPECT_EQ(looper.HandlerAt(2), &c);
	EXPECT_EQ(looper.IndexOfHandler(&b), -1);
	EXPECT_FALSE(looper.RemoveHandler(&b));
	looper.RemoveHandler(&a);
	looper.RemoveHandler(&c);
}

TEST(ZvLooperTest, RemoveHandlerOfANullOrForeignHandlerFails)
{
	TestLooper looper;
	ZvHandler handler("h");
	EXPECT_FALSE(looper.RemoveHandler(nullptr));
	EXPECT_FALSE(looper.RemoveHandler(&handler));
}

TEST(ZvLooperTest, AddHandlerToASecondLooperMovesTheLinkButNotTheFirstList)
{
	TestLooper first, second;
	ZvHandler handler("h");
	first.AddHandler(&handler);
	EXPECT_TRUE(second.AddHandler(&handler));
	EXPECT_EQ(handler.Looper(), &second);
	EXPECT_EQ(first.IndexOfHandler(&handler), 1);
	EXPECT_EQ(second.IndexOfHandler(&handler), 1);
	second.RemoveHandler(&handler);
	first.RemoveHandler(&handler);
}

TEST(ZvLooperTest, RemovingThePreferredHandlerLeavesItPreferred)
{
	TestLooper looper;
	ZvHandler handler("h");
	looper.AddHandler(&handler);
	looper.SetPreferredHandler(&handler);
	looper.RemoveHandler(&handler);
	EXPECT_EQ(looper.PreferredHandler(), &handler);
}

TEST(ZvLooperTest, SetPreferredHandlerStoresAnyHandlerOrNull)
{
	TestLooper looper;
	ZvHandler handler("h");
	looper.SetPreferredHandler(&handler);
	EXPECT_EQ(looper.PreferredHandler(), &handler);
	looper.SetPreferredHandler(nullptr);
	EXPECT_EQ(looper.PreferredHandler(), nullptr);
}

TEST(ZvLooperTest, WithItsLockGoneTheLockingCallsFail)
{
	TestLooper looper;
	ZvHandler handler("h");
	looper.Kill();
	EXPECT_EQ(looper.PreferredHandler(), nullptr);
	EXPECT_FALSE(looper.AddHandler(&handler));
	EXPECT_EQ(handler.Looper(), nullptr);
	EXPECT_FALSE(looper.RemoveHandler(&looper));
	looper.SetPreferredHandler(&handler);
	EXPECT_EQ(looper.CountHandlers(), 1);
}

TEST(ZvLooperTest, QuitRequestedIsAlwaysTrue)
{
	TestLooper looper;
	EXPECT_TRUE(looper.QuitRequested());
}

// Posting and target selection, on loopers that are never run.

TEST(ZvLooperTest, ProcessNextMessageOnAnEmptyQueueReturnsFalse)
{
	TestLooper looper;
	ASSERT_TRUE(looper.Lock());
	EXPECT_FALSE(looper.ProcessNextMessage());
	EXPECT_EQ(looper.CurrentMessage(), nullptr);
	looper.Unlock();
}

TEST(ZvLooperTest, PostMessageOfAWhatMakesAMessageWithThatWhatAndNoTargetField)
{
	InspectingLooper looper;
	EXPECT_TRUE(looper.PostMessage(1234, nullptr));
	EXPECT_EQ(looper.Drain(), 1);
	EXPECT_FALSE(looper.hadField);
	ASSERT_EQ(looper.OwnWhats().size(), 1u);
	EXPECT_EQ(looper.OwnWhats()[0], 1234u);
}

TEST(ZvLooperTest, PostMessageCopiesTheMessageAndRecordsTheHandlerInTheCopyOnly)
{
	InspectingLooper looper;
	RecordingHandler handler;
	looper.AddHandler(&handler);
	ZvMessage message(77);
	message.AddInt32("n", 5);
	EXPECT_TRUE(looper.PostMessage(&message, &handler));
	EXPECT_FALSE(message.HasPointer(PreferredField(), 0));
	message.ReplaceInt32("n", 6);

	EXPECT_EQ(looper.Drain(), 1);
	EXPECT_NE(looper.lastMessage, &message);
	EXPECT_TRUE(looper.hadField);
	EXPECT_EQ(looper.field, static_cast<void*>(&handler));
	EXPECT_EQ(looper.lastTarget, &handler);
	ASSERT_EQ(handler.Received(), 1);
	EXPECT_EQ(handler.Whats()[0], 77u);
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperTest, ThePostedCopyKeepsTheFieldsAsTheyWereAtThePost)
{
	// A looper whose own MessageReceived reads the field of the copy.
	class FieldReader : public TestLooper
	{
	public:
		void MessageReceived(ZvMessage* message) override { message->FindInt32("n", &value); }
		int32 value = 0;
	} looper;
	ZvMessage message(1);
	message.AddInt32("n", 5);
	looper.PostMessage(&message, nullptr);
	message.ReplaceInt32("n", 6);
	looper.Drain();
	EXPECT_EQ(looper.value, 5);
}

TEST(ZvLooperTest, PostMessageOfNullReturnsTrueAndPostsNothing)
{
	TestLooper looper;
	EXPECT_TRUE(looper.PostMessage(nullptr, nullptr));
	EXPECT_EQ(looper.Drain(), 0);
}

TEST(ZvLooperTest, MessagesAreProcessedInTheOrderPosted)
{
	TestLooper looper;
	for (uint32 what = 1; what <= 50; what++)
		looper.PostMessage(what, nullptr);
	EXPECT_EQ(looper.Drain(), 50);
	ExpectOwnWhatsInOrder(looper, 50);
}

TEST(ZvLooperTest, AMessageForAnAttachedHandlerIsDeliveredAndThenDeleted)
{
	TestLooper looper;
	RecordingHandler handler;
	looper.AddHandler(&handler);
	ZvMessage message(5);
	message.AddInt32("a", 1);
	looper.PrimeQueue();
	const int64_t before = LiveBlocksOfThisThread();
	looper.PostMessage(&message, &handler);
	EXPECT_GT(LiveBlocksOfThisThread(), before);
	EXPECT_EQ(looper.Drain(), 1);
	EXPECT_EQ(handler.Received(), 1);
	EXPECT_EQ(LiveBlocksOfThisThread(), before);
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperTest, AMessageForAHandlerOfAnotherLooperIsDeletedWithoutDelivery)
{
	TestLooper looper, other;
	RecordingHandler handler;
	other.AddHandler(&handler);
	ZvMessage message(5);
	message.AddInt32("a", 1);
	looper.PrimeQueue();
	const int64_t before = LiveBlocksOfThisThread();
	looper.PostMessage(&message, &handler);
	EXPECT_GT(LiveBlocksOfThisThread(), before);
	EXPECT_EQ(looper.Drain(), 1);
	EXPECT_EQ(handler.Received(), 0);
	EXPECT_EQ(looper.OwnReceived(), 0);
	EXPECT_EQ(LiveBlocksOfThisThread(), before);
	other.RemoveHandler(&handler);
}

TEST(ZvLooperTest, AMessageForARemovedHandlerIsDeletedWithoutDelivery)
{
	TestLooper looper;
	RecordingHandler handler;
	looper.AddHandler(&handler);
	looper.PrimeQueue();
	const int64_t before = LiveBlocksOfThisThread();
	looper.PostMessage(5, &handler);
	looper.RemoveHandler(&handler);
	EXPECT_EQ(looper.Drain(), 1);
	EXPECT_EQ(handler.Received(), 0);
	EXPECT_EQ(looper.OwnReceived(), 0);
	EXPECT_EQ(LiveBlocksOfThisThread(), before);
}

TEST(ZvLooperTest, AMessageForANeverAttachedHandlerIsDeletedWithoutDelivery)
{
	TestLooper looper;
	RecordingHandler handler;
	looper.PrimeQueue();
	const int64_t before = LiveBlocksOfThisThread();
	looper.PostMessage(5, &handler);
	EXPECT_EQ(looper.Drain(), 1);
	EXPECT_EQ(handler.Received(), 0);
	EXPECT_EQ(LiveBlocksOfThisThread(), before);
}

TEST(ZvLooperTest, AMessageForAHandlerMovedToAnotherLooperIsDropped)
{
	TestLooper looper, other;
	RecordingHandler handler;
	looper.AddHandler(&handler);
	other.AddHandler(&handler);
	looper.PostMessage(5, &handler);
	EXPECT_EQ(looper.Drain(), 1);
	EXPECT_EQ(handler.Received(), 0);
	other.RemoveHandler(&handler);
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperTest, AMessageWithoutHandlerGoesToThePreferredHandler)
{
	TestLooper looper;
	RecordingHandler handler;
	looper.AddHandler(&handler);
	looper.SetPreferredHandler(&handler);
	looper.PostMessage(8, nullptr);
	EXPECT_EQ(looper.Drain(), 1);
	EXPECT_EQ(handler.Received(), 1);
	EXPECT_EQ(looper.OwnReceived(), 0);
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperTest, AMessageWithoutHandlerWhileThePreferredHandlerIsNullGoesToTheLooper)
{
	TestLooper looper;
	looper.SetPreferredHandler(nullptr);
	looper.PostMessage(8, nullptr);
	EXPECT_EQ(looper.Drain(), 1);
	EXPECT_EQ(looper.OwnReceived(), 1);
}

TEST(ZvLooperTest, AMessageWithoutHandlerForADetachedPreferredHandlerIsDropped)
{
	TestLooper looper;
	RecordingHandler handler;
	looper.AddHandler(&handler);
	looper.SetPreferredHandler(&handler);
	looper.RemoveHandler(&handler);
	looper.PrimeQueue();
	const int64_t before = LiveBlocksOfThisThread();
	looper.PostMessage(8, nullptr);
	EXPECT_EQ(looper.Drain(), 1);
	EXPECT_EQ(handler.Received(), 0);
	EXPECT_EQ(looper.OwnReceived(), 0);
	EXPECT_EQ(LiveBlocksOfThisThread(), before);
}

TEST(ZvLooperTest, ANullPreferredHandlerFieldFallsBackToThePreferredHandler)
{
	TestLooper looper;
	ZvMessage message(3);
	message.AddPointer(PreferredField(), nullptr);
	looper.PostMessage(&message, nullptr);
	EXPECT_EQ(looper.Drain(), 1);
	EXPECT_EQ(looper.OwnReceived(), 1);
}

TEST(ZvLooperTest, CurrentMessageIsTheDispatchedMessageDuringDispatchOnly)
{
	TestLooper looper;
	RecordingHandler handler;
	looper.AddHandler(&handler);
	looper.PostMessage(4, &handler);
	looper.Drain();
	EXPECT_TRUE(handler.CurrentMessageMatched());
	EXPECT_TRUE(handler.WasLockedDuringReceive());
	EXPECT_EQ(looper.CurrentMessage(), nullptr);
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperTest, DispatchMessageIsVirtualAndSeesTheChosenTarget)
{
	InspectingLooper looper;
	RecordingHandler handler;
	looper.AddHandler(&handler);
	looper.SetPreferredHandler(&handler);
	looper.PostMessage(4, nullptr);
	looper.Drain();
	EXPECT_EQ(looper.dispatched, 1);
	EXPECT_EQ(looper.lastTarget, &handler);
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperTest, DispatchMessageWithNullArgumentsDoesNothing)
{
	TestLooper looper;
	ZvMessage message(1);
	looper.DispatchMessage(nullptr, &looper);
	looper.DispatchMessage(&message, nullptr);
	EXPECT_EQ(looper.OwnReceived(), 0);
	EXPECT_EQ(looper.LockWithTimeout(0), 1);
	looper.Unlock();
}

TEST(ZvLooperTest, AQuitMessageAimedAtAnotherHandlerIsDeliveredLikeAnyOther)
{
	TestLooper looper;
	RecordingHandler handler;
	looper.AddHandler(&handler);
	looper.PostMessage(ZV_QUIT_REQUESTED, &handler);
	looper.PostMessage(9, nullptr);
	EXPECT_EQ(looper.Drain(), 2);
	ASSERT_EQ(handler.Received(), 1);
	EXPECT_EQ(handler.Whats()[0], ZV_QUIT_REQUESTED);
	EXPECT_EQ(looper.OwnReceived(), 1);
	EXPECT_EQ(looper.LockWithTimeout(0), 1);
	looper.Unlock();
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperTest, AQuitMessageWithoutHandlerGoesToAnotherPreferredHandler)
{
	TestLooper looper;
	RecordingHandler handler;
	looper.AddHandler(&handler);
	looper.SetPreferredHandler(&handler);
	looper.PostMessage(ZV_QUIT_REQUESTED, nullptr);
	EXPECT_EQ(looper.Drain(), 1);
	EXPECT_EQ(handler.Received(), 1);
	EXPECT_EQ(looper.LockWithTimeout(0), 1);
	looper.Unlock();
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperTest, AQuitMessageForTheLooperKillsItsLockAndIsNotDelivered)
{
	TestLooper looper;
	looper.PostMessage(ZV_QUIT_REQUESTED, nullptr);
	looper.PostMessage(9, nullptr);
	EXPECT_EQ(looper.Drain(), 1);
	EXPECT_EQ(looper.OwnReceived(), 0);
	// Any other thread now fails to lock: the lock's semaphore is gone.
	int32 lockResult = -1;
	bool lockedElsewhere = true;
	std::thread other([&] {
		lockResult = looper.LockWithTimeout(0);
		lockedElsewhere = looper.Lock();
	});
	other.join();
	EXPECT_EQ(lockResult, 0);
	EXPECT_FALSE(lockedElsewhere);
	// The message after the "QUIT" stays queued; it goes with the looper.
}

TEST(ZvLooperTest, ANeverRunLooperDeletedByItsOwnerDeletesTheQueuedMessages)
{
	// Counted by size: the kernel's semaphore table, which the looper's
	// construction and deletion use, keeps bookkeeping blocks of its own.
	TestLooper* looper = new TestLooper();
	ZvHandler handler("h");
	looper->AddHandler(&handler);
	const int64_t messagesBefore = looper_test::LiveBlocksOfSize(sizeof(ZvMessage));
	const int64_t itemsBefore = looper_test::LiveBlocksOfSize(sizeof(ZvMessageItem));
	for (uint32 what = 0; what < 40; what++)
		looper->PostMessage(what, &handler);
	EXPECT_EQ(looper_test::LiveBlocksOfSize(sizeof(ZvMessage)), messagesBefore + 40);
	EXPECT_EQ(looper_test::LiveBlocksOfSize(sizeof(ZvMessageItem)), itemsBefore + 40);
	// The deletion frees the 40 messages, and possibly a block of the
	// looper's own of the same size: never more than was there before.
	delete looper;
	EXPECT_LE(looper_test::LiveBlocksOfSize(sizeof(ZvMessage)), messagesBefore);
	EXPECT_LE(looper_test::LiveBlocksOfSize(sizeof(ZvMessageItem)), itemsBefore);
}

TEST(ZvLooperTest, TheBoundOfTheQueueHoldsAsIfTheLoopTookOneMessageAtATime)
{
	// The loop may take several waiting messages out of its queue at once;
	// they must still count as queued until each one's turn, so that posters
	// block, and pass, exactly as with one removal per turn.
	zvtest::Watchdog watchdog(60s, "bound through the looper");
	TestLooper looper(nullptr, nullptr, 2);
	// Three posts fit; the fourth finds 3 > 2 and passes on "_item_limit"'s
	// initial unit.
	for (uint32 what = 1; what <= 4; what++)
		looper.PostMessage(what, nullptr);
	// The first turn leaves 3 queued, at or above the bound: one unit.
	ASSERT_TRUE(looper.ProcessOne());
	// So the fifth post passes (4 queued), and the sixth waits for the next
	// turn.
	looper.PostMessage(5, nullptr);
	// The sixth post, from a thread of the kit's (whose waits the kit can
	// report).
	zvtest::KitThread poster([&] { looper.PostMessage(6, nullptr); }, "poster");
	ASSERT_TRUE(poster.Started());
	EXPECT_TRUE(poster.WaitsOn("_item_limit"));
	ASSERT_TRUE(looper.ProcessOne());
	EXPECT_TRUE(poster.Join());

	EXPECT_EQ(looper.Drain(), 4);
	ExpectOwnWhatsInOrder(looper, 6);
}

namespace {

// Through a never-run looper driven by hand with queue bound bound: the
// loop's turns that leave bound or more messages queued each leave one unit
// of "_item_limit" for later posters, and the turns that leave fewer leave
// none, however far the queue is from the bound when they run.
void ExpectTurnsReleaseAtTheBoundOnly(int32 bound)
{
	zvtest::Watchdog watchdog(60s, "turns at the bound");
	TestLooper looper(nullptr, nullptr, bound);
	uint32 what = 1;
	// bound + 1 posts find the queue at or below the bound; the next one
	// passes on the initial unit. All in this thread: a post that blocked
	// here would trip the watchdog.
	for (int32 i = 0; i < bound + 2; i++)
		looper.PostMessage(what++, nullptr);
	// The turns leave bound + 1 and bound (a unit each), then bound - 1 down
	// to 0 (none).
	for (int32 i = 0; i < bound + 2; i++)
		ASSERT_TRUE(looper.ProcessOne());
	EXPECT_FALSE(looper.ProcessOne());
	// Free posts up to the bound again, then two over it on the two units.
	for (int32 i = 0; i < bound + 3; i++)
		looper.PostMessage(what++, nullptr);
	// The units are used up: the next post waits for a turn that leaves the
	// bound or more.
	zvtest::KitThread poster([&] { looper.PostMessage(what, nullptr); }, "poster");
	ASSERT_TRUE(poster.Started());
	EXPECT_TRUE(poster.WaitsOn("_item_limit"));
	ASSERT_TRUE(looper.ProcessOne());
	EXPECT_TRUE(poster.Join());
	EXPECT_EQ(looper.Drain(), bound + 3);
	ExpectOwnWhatsInOrder(looper, what);
}

} // namespace

TEST(ZvLooperTest, WithBoundTwoOnlyTurnsLeavingTwoOrMoreQueuedLetLaterPostersThrough)
{
	ExpectTurnsReleaseAtTheBoundOnly(2);
}

TEST(ZvLooperTest, WithBoundThreeOnlyTurnsLeavingThreeOrMoreQueuedLetLaterPostersThrough)
{
	ExpectTurnsReleaseAtTheBoundOnly(3);
}

TEST(ZvLooperTest, WithBoundSixtyFourOnlyTurnsLeavingSixtyFourOrMoreLetLaterPostersThrough)
{
	ExpectTurnsReleaseAtTheBoundOnly(64);
}

TEST(ZvLooperTest, WithBoundAThousandOnlyTurnsLeavingAThousandOrMoreLetLaterPostersThrough)
{
	ExpectTurnsReleaseAtTheBoundOnly(1000);
}

namespace {

// Through a never-run looper driven by hand with queue bound bound: a long
// run of posts that may not wait (TryPostMessage) and turns, the queue's
// length drifting up and down across the bound in stretches of random
// length, each answer checked against the bound worked out one
// removal at a time: a post finding more than bound queued needs a unit of
// "_item_limit" (B_WOULD_BLOCK when there is none), each turn that leaves
// bound or more queued adds a unit, the semaphore starts with one. Returns
// the number of posts refused, so that callers can see the run went past
// the bound.
int32 ExpectRunMatchesOneRemovalAtATime(int32 bound, uint32 seed)
{
	TestLooper looper(nullptr, nullptr, bound);
	std::mt19937 random(seed);
	int32 queued = 0;
	int32 units = 1;
	int32 refused = 0;
	int32 handled = 0;
	uint32 what = 1;
	bool upward = true;
	// Stretches long enough, on average, to take the length past the bound.
	const uint32 stretch = 400 + 2 * static_cast<uint32>(bound);
	const int32 steps = 20000 + 30 * bound;
	for (int32 step = 0; step < steps; step++) {
		// A new stretch now and then, with the length moving towards three
		// times the bound or towards empty.
		if (random() % stretch == 0 || (upward && queued > 3 * bound + 4) ||
		    (!upward && queued == 0))
			upward = !upward;
		const bool post = random() % 100 < (upward ? 70u : 30u);
		if (post) {
			const bool mustWait = queued > bound;
			const status_t expected = mustWait && units == 0 ? B_WOULD_BLOCK : B_OK;
			const status_t status = looper.TryPostMessage(what, nullptr);
			if (status != expected) {
				ADD_FAILURE() << "bound " << bound << ", step " << step << ": post with " << queued
				              << " queued and " << units << " units gave " << status;
				return refused;
			}
			if (status == B_OK) {
				units -= mustWait ? 1 : 0;
				queued++;
				what++;
			} else {
				refused++;
			}
		} else {
			const bool took = looper.ProcessOne();
			if (took != (queued > 0)) {
				ADD_FAILURE() << "bound " << bound << ", step " << step << ": turn with " << queued
				              << " queued took " << took;
				return refused;
			}
			if (took) {
				queued--;
				handled++;
			}
			// An empty turn counts as a removal that left 0.
			units += queued >= bound ? 1 : 0;
		}
	}
	EXPECT_EQ(looper.Drain(), queued);
	EXPECT_EQ(looper.OwnReceived(), handled + queued);
	ExpectOwnWhatsInOrder(looper, what - 1);
	return refused;
}

} // namespace

TEST(ZvLooperTest, LongRunsOfPostsAndTurnsAroundTheBoundReleaseAsOneRemovalAtATime)
{
	// Bounds whose adders' ceiling moves in strides of 0, 1, 3, 32 and 500
	// messages, so that the loop's view of the posts is often out of date by
	// less, and by more, than the distance to the bound.
	zvtest::Watchdog watchdog(120s, "runs around the bound");
	const int32 bounds[] = {1, 2, 3, 7, 64, 1000};
	for (const int32 bound : bounds) {
		for (uint32 seed = 1; seed <= 3; seed++)
			EXPECT_GT(ExpectRunMatchesOneRemovalAtATime(bound, seed * 7919 + bound), 0)
			    << "bound " << bound << ": the run never found the queue over the bound";
	}
}

namespace {

// The int32 values that message what of the batch below carries (none, a
// few or many); every third message also carries a text longer than an
// item keeps inline.
int32 FieldsOf(uint32 what)
{
	return static_cast<int32>(what % 5 == 0 ? 30 : what % 4);
}

const std::string& LongText()
{
	static const std::string text(300, 'x');
	return text;
}

// Checks each message it gets against FieldsOf and LongText, in order.
class ContentHandler : public ZvHandler
{
public:
	ContentHandler() : ZvHandler("content") {}

	void MessageReceived(ZvMessage* message) override
	{
		const uint32 what = message->what;
		bool whole = what == fNext++;
		int32 count = 0;
		type_code type = 0;
		message->GetInfo("n", &type, &count);
		whole = whole && count == FieldsOf(what);
		for (int32 i = 0; i < count; i++) {
			int32 value = -1;
			whole = whole && message->FindInt32("n", i, &value) &&
			        value == static_cast<int32>(what) * 100 + i;
		}
		const char* text = nullptr;
		const bool hasText = message->FindString("text", &text);
		whole = whole && hasText == (what % 3 == 0) && (!hasText || LongText() == text);
		fIntact += whole ? 1 : 0;
	}

	int32 Intact() const { return fIntact; }

private:
	uint32 fNext = 1;
	int32 fIntact = 0;
};

} // namespace

TEST(ZvLooperTest, ABatchOfMessagesOfEveryShapeIsDeliveredWhole)
{
	// The loop reads ahead into the messages it holds; messages without
	// items, with many items and with values kept outside the item come
	// through intact and in order all the same, whether they name their
	// handler or go to the preferred one.
	TestLooper looper;
	ContentHandler handler;
	looper.AddHandler(&handler);
	looper.SetPreferredHandler(&handler);
	for (uint32 what = 1; what <= 40; what++) {
		ZvMessage message(what);
		for (int32 i = 0; i < FieldsOf(what); i++)
			message.AddInt32("n", static_cast<int32>(what) * 100 + i);
		if (what % 3 == 0)
			message.AddString("text", LongText().c_str());
		looper.PostMessage(&message, what % 2 == 0 ? &handler : nullptr);
	}
	EXPECT_EQ(looper.Drain(), 40);
	EXPECT_EQ(handler.Intact(), 40);
	EXPECT_EQ(looper.OwnReceived(), 0);
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperTest, MessagesTakenForTheLoopButNotYetHandledAreDeletedWithTheLooper)
{
	TestLooper* looper = new TestLooper();
	const int64_t messagesBefore = looper_test::LiveBlocksOfSize(sizeof(ZvMessage));
	for (uint32 what = 1; what <= 10; what++)
		looper->PostMessage(what, nullptr);
	// One turn: the loop may now hold the nine others outside the ring.
	ASSERT_TRUE(looper->ProcessOne());
	EXPECT_EQ(looper->OwnReceived(), 1);
	EXPECT_EQ(looper_test::LiveBlocksOfSize(sizeof(ZvMessage)), messagesBefore + 9);
	delete looper;
	EXPECT_LE(looper_test::LiveBlocksOfSize(sizeof(ZvMessage)), messagesBefore);
}

TEST(ZvLooperTest, MessagesPostedWhileTheLoopHoldsTakenOnesComeAfterThem)
{
	// After the first turn, 37 messages wait in the ring: they are taken in a
	// batch of 32 and one of 5, and the ring halves as it empties.
	TestLooper looper;
	for (uint32 what = 1; what <= 3; what++)
		looper.PostMessage(what, nullptr);
	ASSERT_TRUE(looper.ProcessOne());
	for (uint32 what = 4; what <= 40; what++)
		looper.PostMessage(what, nullptr);
	EXPECT_EQ(looper.Drain(), 39);
	ExpectOwnWhatsInOrder(looper, 40);
	EXPECT_FALSE(looper.ProcessOne());
}

TEST(ZvLooperTest, ATurnThatFindsNothingReleasesTheBoundWhenTheBoundIsZero)
{
	// As a removal from an empty queue: with a bound of 0 or less, the turn
	// lets one more poster through.
	zvtest::Watchdog watchdog(60s, "empty turn with bound 0");
	TestLooper looper(nullptr, nullptr, 0);
	EXPECT_FALSE(looper.ProcessOne());
	// 0 > 0 is false: free. Then 1 > 0 and 2 > 0 take the initial unit and
	// the one the empty turn released. All in this thread: a post that
	// blocked here would trip the watchdog.
	for (uint32 what = 1; what <= 3; what++)
		looper.PostMessage(what, nullptr);
	zvtest::KitThread poster([&] { looper.PostMessage(4, nullptr); }, "poster");
	ASSERT_TRUE(poster.Started());
	EXPECT_TRUE(poster.WaitsOn("_item_limit"));
	ASSERT_TRUE(looper.ProcessOne());
	EXPECT_TRUE(poster.Join());
	EXPECT_EQ(looper.Drain(), 3);
	ExpectOwnWhatsInOrder(looper, 4);
}

TEST(ZvLooperTest, ABatchTakenAcrossTheEndOfTheRingKeepsTheOrder)
{
	TestLooper looper;
	// Twelve messages leave the ring's head at slot 12 of 16; the next ten
	// fill slots 12 to 15 and 0 to 5, and are taken in one batch.
	for (uint32 what = 1; what <= 12; what++)
		looper.PostMessage(what, nullptr);
	EXPECT_EQ(looper.Drain(), 12);
	for (uint32 what = 13; what <= 22; what++)
		looper.PostMessage(what, nullptr);
	EXPECT_EQ(looper.Drain(), 10);
	ExpectOwnWhatsInOrder(looper, 22);
}

TEST(ZvLooperTest, QuitOnANeverRunLooperEndsItAndReturnsFalse)
{
	TestLooper looper;
	looper.PostMessage(1, nullptr);
	EXPECT_FALSE(looper.Quit());
	EXPECT_EQ(looper.LockWithTimeout(0), 0);
}

// Running loopers.

TEST(ZvLooperTest, RunStartsAThreadNamedZvThreadThatDispatchesWithTheLooperLocked)
{
	zvtest::Watchdog watchdog(30s, "run");
	std::atomic<int32> destroyed{0};
	TestLooper* looper = new TestLooper(&destroyed);
	RecordingHandler handler;
	zvtest::Latch arrived(1), release(1);
	handler.HoldOn(&arrived, &release);
	looper->AddHandler(&handler);
	looper->PostMessage(11, &handler);
	ASSERT_TRUE(looper->Run());
	ASSERT_TRUE(arrived.WaitFor(20s));

	thread_info info;
	ASSERT_EQ(get_thread_info(static_cast<thread_id>(handler.Thread()), &info), B_OK);
	EXPECT_STREQ(info.name, "ZvThread");
	EXPECT_EQ(info.priority, B_NORMAL_PRIORITY);
	EXPECT_NE(handler.Thread(), ZvThread::CurrentID());
	EXPECT_TRUE(handler.WasLockedDuringReceive());
	EXPECT_TRUE(handler.CurrentMessageMatched());
	EXPECT_TRUE(looper->IsLocked());

	release.CountDown();
	EXPECT_TRUE(looper->Quit());
	EXPECT_EQ(destroyed.load(), 1);
}

TEST(ZvLooperTest, RunUsesTheLoopersPriority)
{
	zvtest::Watchdog watchdog(30s, "priority");
	TestLooper* looper = new TestLooper(nullptr, nullptr, 100, ZV_LOW_PRIORITY);
	RecordingHandler handler;
	zvtest::Latch arrived(1), release(1);
	handler.HoldOn(&arrived, &release);
	looper->AddHandler(&handler);
	looper->PostMessage(11, &handler);
	ASSERT_TRUE(looper->Run());
	ASSERT_TRUE(arrived.WaitFor(20s));
	thread_info info;
	ASSERT_EQ(get_thread_info(static_cast<thread_id>(handler.Thread()), &info), B_OK);
	EXPECT_EQ(info.priority, B_LOW_PRIORITY);
	release.CountDown();
	EXPECT_TRUE(looper->Quit());
}

TEST(ZvLooperTest, RunningALooperTwiceIsRefused)
{
	zvtest::Watchdog watchdog(30s, "run twice");
	TestLooper* looper = new TestLooper();
	ASSERT_TRUE(looper->Run());
	EXPECT_FALSE(looper->Run());
	EXPECT_TRUE(looper->Quit());
}

TEST(ZvLooperTest, QuitEndsTheLoopWaitsForTheThreadAndTheLooperIsDeleted)
{
	zvtest::Watchdog watchdog(30s, "quit");
	std::atomic<int32> destroyed{0};
	TestLooper* looper = new TestLooper(&destroyed);
	RecordingHandler handler;
	looper->AddHandler(&handler);
	ASSERT_TRUE(looper->Run());
	looper->PostMessage(1, &handler);
	EXPECT_TRUE(looper->Quit());
	EXPECT_EQ(destroyed.load(), 1);
	EXPECT_LE(handler.Received(), 1);
}

TEST(ZvLooperTest, AQuitMessageForTheLooperEndsTheLoopAndTheThreadDeletesTheLooper)
{
	zvtest::Watchdog watchdog(30s, "quit message");
	std::atomic<int32> destroyed{0};
	zvtest::Latch gone(1);
	TestLooper* looper = new TestLooper(&destroyed, &gone);
	RecordingHandler handler;
	looper->AddHandler(&handler);
	looper->PostMessage(1, &handler);
	looper->PostMessage(ZV_QUIT_REQUESTED, nullptr);
	// Still queued behind the "QUIT": deleted with the looper, undelivered.
	looper->PostMessage(2, &handler);
	ASSERT_TRUE(looper->Run());
	ASSERT_TRUE(gone.WaitFor(20s));
	EXPECT_EQ(destroyed.load(), 1);
	ASSERT_EQ(handler.Received(), 1);
	EXPECT_EQ(handler.Whats()[0], 1u);
}

TEST(ZvLooperTest, QuitWhileAQuitMessageIsBeingDispatchedEndsTheLooperOnce)
{
	zvtest::Watchdog watchdog(30s, "quit during quit message");

	// Holds the "QUIT" message at the door of DispatchMessage until told.
	class HeldQuit : public TestLooper
	{
	public:
		HeldQuit(std::atomic<int32>* destroyed, zvtest::Latch* atDoor, zvtest::Latch* go)
		    : TestLooper(destroyed), fAtDoor(atDoor), fGo(go)
		{
		}

		void DispatchMessage(ZvMessage* message, ZvHandler* target) override
		{
			if (message->what == ZV_QUIT_REQUESTED) {
				fAtDoor->CountDown();
				fGo->WaitFor(20s);
			}
			ZvLooper::DispatchMessage(message, target);
		}

	private:
		zvtest::Latch* fAtDoor;
		zvtest::Latch* fGo;
	};

	std::atomic<int32> destroyed{0};
	zvtest::Latch atDoor(1), go(1);
	HeldQuit* looper = new HeldQuit(&destroyed, &atDoor, &go);
	looper->PostMessage(ZV_QUIT_REQUESTED, nullptr);
	ASSERT_TRUE(looper->Run());
	ASSERT_TRUE(atDoor.WaitFor(20s));

	// The looper cannot end while its thread waits at the door, so Quit is
	// entered on a live looper. It kills the lock (held by the looper's
	// thread, so until then a poll times out) and waits for the thread.
	std::atomic<int> quitResult{-1};
	std::thread quitter([&] { quitResult.store(looper->Quit() ? 1 : 0); });
	while (looper->LockWithTimeout(0) == 2)
		std::this_thread::yield();

	// The "QUIT" path now runs on a looper that Quit already ended: it
	// deletes nothing twice, and the thread deletes the looper once.
	go.CountDown();
	quitter.join();
	EXPECT_EQ(quitResult.load(), 1);
	EXPECT_EQ(destroyed.load(), 1);
}

TEST(ZvLooperTest, AQuitMessageWithAnotherPreferredHandlerDoesNotEndARunningLooper)
{
	zvtest::Watchdog watchdog(30s, "quit to handler");
	std::atomic<int32> destroyed{0};
	TestLooper* looper = new TestLooper(&destroyed);
	RecordingHandler handler;
	zvtest::Latch arrived(2), release(0);
	handler.HoldOn(&arrived, &release);
	looper->AddHandler(&handler);
	looper->SetPreferredHandler(&handler);
	ASSERT_TRUE(looper->Run());
	looper->PostMessage(ZV_QUIT_REQUESTED, nullptr);
	looper->PostMessage(2, nullptr);
	ASSERT_TRUE(arrived.WaitFor(20s));
	EXPECT_EQ(destroyed.load(), 0);
	EXPECT_EQ(handler.Whats(), (std::vector<uint32>{ZV_QUIT_REQUESTED, 2u}));
	EXPECT_TRUE(looper->Quit());
	EXPECT_EQ(destroyed.load(), 1);
}

TEST(ZvLooperTest, QuitFromTheLoopersOwnThreadEndsTheLoopAndReturnsFalse)
{
	zvtest::Watchdog watchdog(30s, "quit from inside");
	zvtest::Latch gone(1);
	std::atomic<int> result{-1};

	class SelfQuitter : public ZvHandler
	{
	public:
		explicit SelfQuitter(std::atomic<int>* result) : ZvHandler("quitter"), fResult(result) {}
		void MessageReceived(ZvMessage*) override
		{
			ZvLooper* looper = Looper();
			fResult->store(looper->Quit() ? 1 : 0);
		}

	private:
		std::atomic<int>* fResult;
	} quitter(&result);

	TestLooper* looper = new TestLooper(nullptr, &gone);
	looper->AddHandler(&quitter);
	looper->PostMessage(1, &quitter);
	looper->PostMessage(2, &quitter);
	ASSERT_TRUE(looper->Run());
	ASSERT_TRUE(gone.WaitFor(20s));
	EXPECT_EQ(result.load(), 0);
}

TEST(ZvLooperTest, QuitFromTheLoopersOwnThreadSkipsTheQueueAndDeletesAfterTheHandler)
{
	zvtest::Watchdog watchdog(30s, "quit from inside, then the queue");
	zvtest::Latch gone(1);
	std::atomic<int32> destroyed{0};

	// Quits on message 1 and records, under the handler's own lock, whether
	// the looper was still alive when Quit returned.
	class SelfQuitter : public ZvHandler
	{
	public:
		explicit SelfQuitter(std::atomic<int32>* destroyed)
		    : ZvHandler("quitter"), fDestroyed(destroyed)
		{
		}

		void MessageReceived(ZvMessage* message) override
		{
			fWhats.push_back(message->what);
			if (message->what == 1) {
				fQuitResult = Looper()->Quit() ? 1 : 0;
				fAliveAfterQuit = fDestroyed->load() == 0;
			}
		}

		std::vector<uint32> fWhats;
		int fQuitResult = -1;
		bool fAliveAfterQuit = false;

	private:
		std::atomic<int32>* fDestroyed;
	} quitter(&destroyed);

	TestLooper* looper = new TestLooper(&destroyed, &gone);
	looper->AddHandler(&quitter);
	looper->PostMessage(1, &quitter);
	looper->PostMessage(2, &quitter);
	looper->PostMessage(3, &quitter);
	ASSERT_TRUE(looper->Run());
	ASSERT_TRUE(gone.WaitFor(20s));
	// The looper's thread has ended: the handler's fields are settled.
	EXPECT_EQ(quitter.fQuitResult, 0);
	EXPECT_TRUE(quitter.fAliveAfterQuit);
	EXPECT_EQ(quitter.fWhats, (std::vector<uint32>{1u}));
	EXPECT_EQ(destroyed.load(), 1);
}

TEST(ZvLooperTest, LooperCallerOfNullReturnsZero)
{
	EXPECT_EQ(ZvLooper::LooperCaller(nullptr), 0);
}

namespace {

// Bounces a message between two loopers until its what counts down to 0,
// recording the thread of each looper.
class BouncingHandler : public ZvHandler
{
public:
	explicit BouncingHandler(zvtest::Latch* done) : ZvHandler("bouncer"), fDone(done) {}

	// Set only while no message is in flight.
	void SetDone(zvtest::Latch* done) { fDone = done; }
	void SetPartner(ZvHandler* partner) { fPartner = partner; }
	thread_id Thread() const { return fThread.load(); }

	void MessageReceived(ZvMessage* message) override
	{
		fThread.store(find_thread(nullptr));
		if (message->what == 0) {
			fDone->CountDown();
			return;
		}
		fPartner->Looper()->PostMessage(message->what - 1, fPartner);
	}

private:
	zvtest::Latch* fDone;
	ZvHandler* fPartner = nullptr;
	std::atomic<thread_id> fThread{0};
};

// Asleep waiting for its next message, not on a lock or the queue's bound.
bool IsAsleepWaitingForAMessage(thread_id thread)
{
	return zvtest::IsWaitingOnSemaphore(thread, "fLooperAccess");
}

} // namespace

TEST(ZvLooperTest, LoopersThatAnsweredEachOtherQuicklyGoToSleepOnceIdle)
{
	// A burst of quick exchanges may turn the loops' polling on; once the
	// messages stop, both loops must end up asleep on their semaphores
	// rather than keep polling.
	zvtest::Watchdog watchdog(60s, "idle loopers");
	zvtest::Latch done(1);
	BouncingHandler ping(&done), pong(&done);
	ping.SetPartner(&pong);
	pong.SetPartner(&ping);
	ZvLooper* left = new ZvLooper("ping", ZV_NORMAL_PRIORITY, 16);
	ZvLooper* right = new ZvLooper("pong", ZV_NORMAL_PRIORITY, 16);
	left->AddHandler(&ping);
	right->AddHandler(&pong);
	ASSERT_TRUE(left->Run());
	ASSERT_TRUE(right->Run());

	left->PostMessage(2000, &ping);
	// Not fatal: the loopers must be quit below whatever happens, as the
	// handlers they hold live on this stack.
	EXPECT_TRUE(done.WaitFor(30s));
	EXPECT_TRUE(zvtest::WaitUntil([&] { return IsAsleepWaitingForAMessage(ping.Thread()); }));
	EXPECT_TRUE(zvtest::WaitUntil([&] { return IsAsleepWaitingForAMessage(pong.Thread()); }));

	// A loop asleep after polling still wakes for the next message.
	zvtest::Latch again(1);
	ping.SetDone(&again);
	pong.SetDone(&again);
	left->PostMessage(100, &ping);
	EXPECT_TRUE(again.WaitFor(30s));

	EXPECT_TRUE(left->Quit());
	EXPECT_TRUE(right->Quit());
}

namespace {

TEST(ZvLooperTest, ALongHandlerListDeliversToAttachedHandlersOnlyAndKeepsItsOrder)
{
	const int kHandlers = 100;
	TestLooper looper;
	std::vector<std::unique_ptr<RecordingHandler>> handlers;
	for (int i = 0; i < kHandlers; i++) {
		handlers.push_back(std::make_unique<RecordingHandler>());
		ASSERT_TRUE(looper.AddHandler(handlers.back().get()));
	}
	// Attached once only, however long the list.
	EXPECT_FALSE(looper.AddHandler(handlers[kHandlers - 1].get()));
	EXPECT_FALSE(looper.AddHandler(handlers[3].get()));
	// Every third one leaves.
	for (int i = 0; i < kHandlers; i += 3)
		ASSERT_TRUE(looper.RemoveHandler(handlers[i].get()));
	EXPECT_FALSE(looper.RemoveHandler(handlers[0].get()));

	looper.PrimeQueue();
	for (int i = 0; i < kHandlers; i++)
		looper.PostMessage(static_cast<uint32>(i), handlers[i].get());
	EXPECT_EQ(looper.Drain(), kHandlers);
	int32 index = 1;
	for (int i = 0; i < kHandlers; i++) {
		if (i % 3 == 0) {
			EXPECT_EQ(handlers[i]->Received(), 0) << i;
			EXPECT_EQ(looper.IndexOfHandler(handlers[i].get()), -1);
			continue;
		}
		EXPECT_EQ(handlers[i]->Received(), 1) << i;
		EXPECT_EQ(looper.IndexOfHandler(handlers[i].get()), index);
		EXPECT_EQ(looper.HandlerAt(index), handlers[i].get());
		index++;
	}
	EXPECT_EQ(looper.CountHandlers(), index);
	// A handler that left can come back, at the end.
	ASSERT_TRUE(looper.AddHandler(handlers[0].get()));
	EXPECT_EQ(looper.IndexOfHandler(handlers[0].get()), index);
	for (auto& handler : handlers)
		looper.RemoveHandler(handler.get());
	EXPECT_EQ(looper.CountHandlers(), 1);
}

} // namespace
