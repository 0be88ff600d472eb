// Tests of the inline one-unit acquire and release over the kernel kit's
// semaphore table (platform/kernel/internal/SemaphoreSlots.h), which
// libzvkit's locks take before they call acquire_sem_etc or release_sem.
#include <OS.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdio>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <sys/time.h>

#include "ForkedChild.h"
#include "OneThread.h"
#include "Polling.h"
#include "SemaphoreCount.h"
#include "TestSupport.h"
#include "platform/kernel/internal/SemaphoreSlots.h"

using namespace std::chrono_literals;

#if defined(ZVPLATFORM_INLINE_UNITS)

using zvplatform::GiveOneInline;
using zvplatform::TakeOneInline;

namespace {

using zvtest::CountBecomes;
using zvtest::CountOf;

enum class Unit
{
	kTake,
	kGive
};

// What one call made in a lock's way gives: whether the inline call did it,
// the answer (B_OK when the inline call did it, else the exported call's),
// and the count afterwards (or the get_sem_count error).
struct Outcome
{
	bool inlineDone;
	status_t result;
	int32 countAfter;

	bool operator==(const Outcome& other) const
	{
		return std::tie(inlineDone, result, countAfter) ==
		       std::tie(other.inlineDone, other.result, other.countAfter);
	}
};

int32 CountOrError(sem_id sem)
{
	int32 count = 0;
	const status_t status = get_sem_count(sem, &count);
	return status == B_OK ? count : status;
}

status_t Exported(Unit unit, sem_id sem)
{
	return unit == Unit::kTake ? acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 0) : release_sem(sem);
}

// The inline call, and the exported one when the inline one declined.
Outcome InlineFirst(Unit unit, sem_id sem)
{
	const int32 before = CountOrError(sem);
	const bool done = unit == Unit::kTake ? TakeOneInline(sem) : GiveOneInline(sem);
	if (done)
		return {true, B_OK, CountOrError(sem)};
	// Declining changes nothing.
	EXPECT_EQ(CountOrError(sem), before);
	const status_t result = Exported(unit, sem);
	return {false, result, CountOrError(sem)};
}

// A semaphore holding count units, made the same way for both callers.
sem_id SemaphoreWith(int32 count)
{
	return create_sem(count, "inline units");
}

// One call on a fresh semaphore of count units (deleted first when dead),
// made both ways; each entry is the inline way's outcome, and every answer
// and count must be the exported call's on a twin semaphore.
std::vector<Outcome> EdgeSequence()
{
	struct Case
	{
		int32 count;
		bool dead;
		Unit unit;
	};
	const Case cases[] = {
	    {0, false, Unit::kTake},
	    {1, false, Unit::kTake},
	    {2, false, Unit::kTake},
	    {INT32_MAX - 1, false, Unit::kTake},
	    {INT32_MAX, false, Unit::kTake},
	    {0, false, Unit::kGive},
	    {1, false, Unit::kGive},
	    {INT32_MAX - 2, false, Unit::kGive},
	    {INT32_MAX - 1, false, Unit::kGive},
	    {INT32_MAX, false, Unit::kGive},
	    {1, true, Unit::kTake},
	    {0, true, Unit::kGive},
	};
	std::vector<Outcome> outcomes;
	for (const Case& c : cases) {
		const sem_id mine = SemaphoreWith(c.count);
		const sem_id twin = SemaphoreWith(c.count);
		if (c.dead) {
			delete_sem(mine);
			delete_sem(twin);
		}
		const Outcome outcome = InlineFirst(c.unit, mine);
		const status_t exported = Exported(c.unit, twin);
		EXPECT_EQ(outcome.result, exported) << "count " << c.count;
		EXPECT_EQ(outcome.countAfter, CountOrError(twin)) << "count " << c.count;
		outcomes.push_back(outcome);
		// A second call in a row meets the state the first one left.
		const Outcome again = InlineFirst(c.unit, mine);
		EXPECT_EQ(again.result, Exported(c.unit, twin)) << "count " << c.count;
		EXPECT_EQ(again.countAfter, CountOrError(twin)) << "count " << c.count;
		outcomes.push_back(again);
		delete_sem(mine);
		delete_sem(twin);
	}
	return outcomes;
}

} // namespace

TEST(SemaphoreSlots, InlineCallsAnswerAsTheExportedCallsAtEveryEdgeOfTheCount)
{
	if (!zvtest::NeverThreaded())
		GTEST_SKIP() << zvtest::kThreadAlreadyStarted;
	const auto [alone, shared] = zvtest::BeforeAndAfterAThread(&EdgeSequence);
	EXPECT_EQ(alone, shared);
	// Pairs of calls: the inline way takes every unit there is and gives
	// back every unit there is room for; the rest is left to the exported
	// calls.
	const std::vector<Outcome> expected = {
	    {false, B_TIMED_OUT, 0},
	    {false, B_TIMED_OUT, 0},
	    {true, B_OK, 0},
	    {false, B_TIMED_OUT, 0},
	    {true, B_OK, 1},
	    {true, B_OK, 0},
	    {true, B_OK, INT32_MAX - 2},
	    {true, B_OK, INT32_MAX - 3},
	    {true, B_OK, INT32_MAX - 1},
	    {true, B_OK, INT32_MAX - 2},
	    {true, B_OK, 1},
	    {true, B_OK, 2},
	    {true, B_OK, 2},
	    {true, B_OK, 3},
	    {true, B_OK, INT32_MAX - 1},
	    {true, B_OK, INT32_MAX},
	    {true, B_OK, INT32_MAX},
	    {false, B_BAD_VALUE, INT32_MAX},
	    {false, B_BAD_VALUE, INT32_MAX},
	    {false, B_BAD_VALUE, INT32_MAX},
	    {false, B_BAD_SEM_ID, B_BAD_SEM_ID},
	    {false, B_BAD_SEM_ID, B_BAD_SEM_ID},
	    {false, B_BAD_SEM_ID, B_BAD_SEM_ID},
	    {false, B_BAD_SEM_ID, B_BAD_SEM_ID},
	};
	EXPECT_EQ(alone, expected);
}

namespace {

// Identifiers that name no live semaphore but share bits with one: the
// inline calls decline them all and leave every slot as it was.
std::vector<bool> ForeignIdentifierSequence()
{
	std::vector<bool> done;
	const sem_id live = create_sem(5, "live");
	const uint32 index = zvplatform::SlotIndexOf(live);
	const uint32 generation = zvplatform::LiveTagOf(live);
	const sem_id otherGeneration = static_cast<sem_id>((((generation % 0x7FFF) + 1) << 16) | index);
	const sem_id highBitSet = static_cast<sem_id>(static_cast<uint32>(live) | 0x80000000u);
	const uint64 slotZero = zvplatform::gSemSlots[0].word.load();
	for (const sem_id id : {sem_id(0), sem_id(-1), otherGeneration, highBitSet}) {
		done.push_back(TakeOneInline(id));
		done.push_back(GiveOneInline(id));
	}
	EXPECT_EQ(zvplatform::gSemSlots[0].word.load(), slotZero);
	EXPECT_EQ(CountOf(live), 5);
	delete_sem(live);
	return done;
}

} // namespace

TEST(SemaphoreSlots, IdentifiersOfNoLiveSemaphoreAreDeclinedAndChangeNoSlot)
{
	if (!zvtest::NeverThreaded())
		GTEST_SKIP() << zvtest::kThreadAlreadyStarted;
	const auto [alone, shared] = zvtest::BeforeAndAfterAThread(&ForeignIdentifierSequence);
	EXPECT_EQ(alone, std::vector<bool>(8, false));
	EXPECT_EQ(shared, std::vector<bool>(8, false));
}

TEST(SemaphoreSlots, ARegisteredWaiterLeavesTheReleaseToTheExportedCallWhichWakesIt)
{
	zvtest::Watchdog watchdog(30s);
	const sem_id sem = create_sem(0, "waited on");
	std::atomic<status_t> waited{1};
	std::thread waiter([&] { waited = acquire_sem(sem); });
	ASSERT_TRUE(CountBecomes(sem, -1));
	// The word has a waiter: the inline calls decline, changing nothing.
	EXPECT_FALSE(GiveOneInline(sem));
	EXPECT_FALSE(TakeOneInline(sem));
	EXPECT_EQ(CountOf(sem), -1);
	EXPECT_EQ(release_sem(sem), B_OK);
	waiter.join();
	EXPECT_EQ(waited.load(), B_OK);
	EXPECT_EQ(CountOf(sem), 0);
	// Without waiters the inline calls work again.
	EXPECT_TRUE(GiveOneInline(sem));
	EXPECT_TRUE(TakeOneInline(sem));
	EXPECT_EQ(CountOf(sem), 0);
	delete_sem(sem);
}

TEST(SemaphoreSlots, AForkedChildOfAThreadedProcessLeavesAWordWithTheParentsWaiterToTheCalls)
{
	// The parent's waiter stays registered in the child's copy of the table:
	// there the inline calls decline, and the exported ones answer.
	int result = -1;
	zvtest::ForkWithAParentWaiter(
	    [](sem_id sem) {
		    int bad = 0;
		    if (GiveOneInline(sem))
			    bad |= 1;
		    if (release_sem(sem) != B_OK)
			    bad |= 2;
		    if (TakeOneInline(sem))
			    bad |= 4;
		    if (acquire_sem_etc(sem, 1, B_RELATIVE_TIMEOUT, 0) != B_OK)
			    bad |= 8;
		    return bad;
	    },
	    &result);
	EXPECT_EQ(result, 0);
}

TEST(SemaphoreSlots, AForkedChildOfAProcessWithOneThreadTakesAndGivesInline)
{
	if (!zvtest::NeverThreaded())
		GTEST_SKIP() << zvtest::kThreadAlreadyStarted;
	const sem_id sem = create_sem(1, "forked");
	fflush(stdout);
	const int result = zvtest::RunInChild([sem] {
		int bad = 0;
		if (!TakeOneInline(sem) || TakeOneInline(sem))
			bad |= 1;
		if (!GiveOneInline(sem))
			bad |= 2;
		int32 count = 0;
		if (get_sem_count(sem, &count) != B_OK || count != 1)
			bad |= 4;
		return bad;
	});
	EXPECT_EQ(result, 0);
	// The child's calls changed its own copy of the table only.
	EXPECT_EQ(CountOf(sem), 1);
	delete_sem(sem);
}

namespace {

// A signal handler of the only thread that, on every signal, takes the
// semaphore's one unit (holding it until the next signal) or gives it back,
// by the inline calls first and the exported ones after, as a lock does.
sem_id gHandlerSem = -1;
volatile sig_atomic_t gHandlerHolds = 0;
std::atomic<int> gHandlerRuns{0};
std::atomic<bool> gHandlerSawBadCount{false};

void TakeOrGiveFromHandler(int)
{
	int32 count = 0;
	if (get_sem_count(gHandlerSem, &count) != B_OK || count < 0 || count > 1)
		gHandlerSawBadCount.store(true, std::memory_order_relaxed);
	if (gHandlerHolds == 0) {
		if (TakeOneInline(gHandlerSem) ||
		    acquire_sem_etc(gHandlerSem, 1, B_RELATIVE_TIMEOUT, 0) == B_OK)
			gHandlerHolds = 1;
	} else {
		if (GiveOneInline(gHandlerSem) || release_sem(gHandlerSem) == B_OK)
			gHandlerHolds = 0;
	}
	gHandlerRuns.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

TEST(SemaphoreSlots, AHandlerTakingTheUnitAmidTheOnlyThreadsInlineCallsLeavesTheCountExact)
{
	// The only thread takes and gives back the one unit as a lock does; its
	// handler, every 50 µs, takes the unit or gives it back the same way. A
	// handler can run between the thread's look at the word and its change.
	if (!zvtest::NeverThreaded())
		GTEST_SKIP() << zvtest::kThreadAlreadyStarted;
	gHandlerSem = create_sem(1, "lock-like");
	gHandlerHolds = 0;
	gHandlerRuns = 0;
	gHandlerSawBadCount = false;
	struct sigaction action = {};
	action.sa_handler = &TakeOrGiveFromHandler;
	sigemptyset(&action.sa_mask);
	struct sigaction previous = {};
	ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
	struct itimerval every = {{0, 50}, {0, 50}};
	ASSERT_EQ(setitimer(ITIMER_REAL, &every, nullptr), 0);
	bool sound = true;
	int inlineTakes = 0;
	const bigtime_t end = system_time() + 2000000;
	while (gHandlerRuns.load(std::memory_order_relaxed) < 2000 && system_time() < end && sound) {
		for (int i = 0; i < 1000; i++) {
			bool taken = TakeOneInline(gHandlerSem);
			inlineTakes += taken ? 1 : 0;
			if (!taken) {
				const status_t polled = acquire_sem_etc(gHandlerSem, 1, B_RELATIVE_TIMEOUT, 0);
				// The handler may hold the unit: then the poll times out.
				sound = sound && (polled == B_OK || polled == B_TIMED_OUT);
				taken = polled == B_OK;
			}
			if (taken) {
				// While the thread holds the unit the handler cannot.
				sound = sound && gHandlerHolds == 0;
				if (!GiveOneInline(gHandlerSem))
					sound = sound && release_sem(gHandlerSem) == B_OK;
			}
		}
	}
	struct itimerval stop = {};
	setitimer(ITIMER_REAL, &stop, nullptr);
	sigaction(SIGALRM, &previous, nullptr);
	EXPECT_TRUE(sound);
	EXPECT_GT(gHandlerRuns.load(), 0);
	EXPECT_GT(inlineTakes, 0);
	EXPECT_FALSE(gHandlerSawBadCount.load());
	EXPECT_EQ(CountOf(gHandlerSem), 1 - gHandlerHolds);
	delete_sem(gHandlerSem);
}

TEST(SemaphoreSlots, ThreadsTakingAndGivingInlineKeepTheCountExact)
{
	// Inline calls racing one another and the exported calls: a unit taken
	// is given back once, so the count ends where it began and no two
	// threads ever hold the only unit at once.
	zvtest::Watchdog watchdog(60s);
	const sem_id sem = create_sem(1, "raced");
	constexpr int kThreads = 4;
	constexpr int kRounds = 50000;
	std::atomic<int> holders{0};
	std::atomic<bool> overlapped{false};
	zvtest::Latch start(kThreads);
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([&, t] {
			start.CountDown();
			start.WaitFor(10s);
			for (int i = 0; i < kRounds; i++) {
				const bool viaInline = (i + t) % 2 == 0;
				if (!(viaInline && TakeOneInline(sem)) && acquire_sem(sem) != B_OK)
					return;
				if (holders.fetch_add(1) != 0)
					overlapped = true;
				holders.fetch_sub(1);
				if (!(viaInline && GiveOneInline(sem)))
					release_sem(sem);
			}
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	EXPECT_FALSE(overlapped.load());
	EXPECT_EQ(CountOf(sem), 1);
	delete_sem(sem);
}

#endif // ZVPLATFORM_INLINE_UNITS (other targets always make the calls)
