// The per-thread block cache behind messages, items and list arrays: reuse
// within a thread, size classes, the thread cache's bound and its batches,
// the central store (its hand-overs between threads and its cap), and the
// bypasses (large blocks, a disabled cache).
//
// This executable holds its own copy of the cache (see deps.cmake), whose
// blocks only this file allocates. Tests that count blocks work in size
// classes no other test counts in, and those that count the central store's
// blocks empty their class first, so that what one test (or an earlier
// repetition) leaves behind cannot change another's counts.
#include "base/internal/BlockCache.h"

#include "ClaimedBlocks.h"
#include "Polling.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using zvkit::internal::AllocateBlock;
using zvkit::internal::BlockCacheEnabled;
using zvkit::internal::CentralCachedBlocks;
using zvkit::internal::CentralLimitBytes;
using zvkit::internal::FreeBlock;
using zvkit::internal::FreeUnsizedBlock;
using zvkit::internal::RaiseCentralLimit;
using zvkit::internal::ThreadCachedBlocks;

using zvtest::kSanitized;

// The cache's parameters as its users see them.
constexpr size_t kGranule = 16;
constexpr size_t kBatch = 32;
constexpr size_t kThreadBound = 64;
constexpr size_t kCentralBytes = size_t(2) << 20;

const char kCacheOff[] = "the block cache is off in this process";

// Runs body in a thread of its own, which starts with an empty cache, and
// waits for it to end (its cache is flushed by then).
void RunInFreshThread(const std::function<void()>& body)
{
	std::thread thread(body);
	thread.join();
}

// Fills a block with a pattern derived from seed, and checks it.
void Stamp(void* block, size_t size, uint32_t seed)
{
	uint8_t* bytes = static_cast<uint8_t*>(block);
	for (size_t i = 0; i < size; i++)
		bytes[i] = static_cast<uint8_t>(seed * 31 + i);
}

bool HasStamp(const void* block, size_t size, uint32_t seed)
{
	const uint8_t* bytes = static_cast<const uint8_t*>(block);
	for (size_t i = 0; i < size; i++) {
		if (bytes[i] != static_cast<uint8_t>(seed * 31 + i))
			return false;
	}
	return true;
}

// The calling thread's cached blocks in every class, smallest first.
std::vector<size_t> ThreadCounts()
{
	std::vector<size_t> counts;
	for (size_t size = kGranule; size <= zvkit::internal::kMaxCachedBlock; size += kGranule)
		counts.push_back(ThreadCachedBlocks(size));
	return counts;
}

std::vector<size_t> CentralCounts()
{
	std::vector<size_t> counts;
	for (size_t size = kGranule; size <= zvkit::internal::kMaxCachedBlock; size += kGranule)
		counts.push_back(CentralCachedBlocks(size));
	return counts;
}

// Holds every block of a class that the calling thread and the central
// store had, for the life of a test, so that the test starts from an empty
// class whatever earlier tests (or an earlier repetition) left there.
class DrainedClass : public zvtest::ClaimedBlocks
{
public:
	explicit DrainedClass(size_t size)
	    : ClaimedBlocks(
	          size,
	          [](size_t kept) {
		          return ThreadCachedBlocks(kept) > 0 || CentralCachedBlocks(kept) > 0;
	          },
	          [](size_t kept) { return AllocateBlock(kept); }, &FreeBlock)
	{
	}
};

// Allocates count blocks of size bytes; they are kept in the order they
// were handed out.
std::vector<void*> AllocateMany(size_t size, size_t count)
{
	std::vector<void*> blocks;
	blocks.reserve(count);
	for (size_t i = 0; i < count; i++)
		blocks.push_back(AllocateBlock(size));
	return blocks;
}

// Gives back every block of blocks (all from AllocateBlock(size)), first to
// last.
void FreeAll(const std::vector<void*>& blocks, size_t size)
{
	for (void* block : blocks)
		FreeBlock(block, size);
}

// As FreeAll, and gives the most blocks the central store held for the
// class after any one of the frees.
size_t FreeAllWatchingTheCentralStore(const std::vector<void*>& blocks, size_t size)
{
	size_t most = 0;
	for (void* block : blocks) {
		FreeBlock(block, size);
		most = std::max(most, CentralCachedBlocks(size));
	}
	return most;
}

// Tests of what the cache does with blocks, which mean nothing when the
// process runs with the cache off.
class CachedBlockTest : public ::testing::Test
{
protected:
	void SetUp() override
	{
		if (!BlockCacheEnabled())
			GTEST_SKIP() << kCacheOff;
	}
};

// The path of this test executable, to run it again in a child process.
std::string OwnPath()
{
	char path[4096];
	const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
	if (length <= 0)
		return std::string();
	return std::string(path, static_cast<size_t>(length));
}

} // namespace

TEST_F(CachedBlockTest, AFreedBlockIsHandedOutAgainToTheSameThread)
{
	void* first = AllocateBlock(24);
	ASSERT_NE(first, nullptr);
	const size_t cached = ThreadCachedBlocks(24);
	FreeBlock(first, 24);
	EXPECT_EQ(ThreadCachedBlocks(24), cached + 1);
	void* again = AllocateBlock(24);
	EXPECT_EQ(again, first);
	EXPECT_EQ(ThreadCachedBlocks(24), cached);
	FreeBlock(again, 24);
}

TEST_F(CachedBlockTest, SizesWithinOneSixteenByteClassShareBlocks)
{
	// 33 to 48 bytes are one class: a block freed as 33 comes back as 48.
	void* small = AllocateBlock(33);
	const size_t cached = ThreadCachedBlocks(48);
	Stamp(small, 33, 1);
	FreeBlock(small, 33);
	EXPECT_EQ(ThreadCachedBlocks(48), cached + 1);
	void* large = AllocateBlock(48);
	EXPECT_EQ(large, small);
	EXPECT_EQ(ThreadCachedBlocks(33), cached);
	// The whole class size is usable.
	Stamp(large, 48, 2);
	EXPECT_TRUE(HasStamp(large, 48, 2));
	FreeBlock(large, 48);
	EXPECT_EQ(ThreadCachedBlocks(33), cached + 1);
}

TEST_F(CachedBlockTest, DifferentClassesDoNotShareBlocks)
{
	void* lower = AllocateBlock(64);
	const size_t lowerCached = ThreadCachedBlocks(64);
	const size_t upperCached = ThreadCachedBlocks(65);
	FreeBlock(lower, 64);
	EXPECT_EQ(ThreadCachedBlocks(64), lowerCached + 1);
	EXPECT_EQ(ThreadCachedBlocks(65), upperCached);

	// 65 bytes is the next class: the block of 64 stays in its own.
	void* upper = AllocateBlock(65);
	EXPECT_NE(upper, lower);
	Stamp(upper, 65, 3);
	EXPECT_EQ(ThreadCachedBlocks(64), lowerCached + 1);
	void* reused = AllocateBlock(64);
	EXPECT_EQ(reused, lower);
	FreeBlock(upper, 65);
	FreeBlock(reused, 64);
}

TEST(BlockCacheTest, SizeZeroGivesADistinctUsableBlockOfTheSmallestClass)
{
	void* first = AllocateBlock(0);
	void* second = AllocateBlock(0);
	ASSERT_NE(first, nullptr);
	ASSERT_NE(second, nullptr);
	EXPECT_NE(first, second);
	FreeBlock(second, 0);
	if (BlockCacheEnabled()) {
		// Size 0 is served from the 16-byte class, so 16 bytes may be used.
		Stamp(first, kGranule, 4);
		EXPECT_TRUE(HasStamp(first, kGranule, 4));
		void* reused = AllocateBlock(16);
		EXPECT_EQ(reused, second);
		FreeBlock(reused, 16);
	}
	FreeBlock(first, 0);
}

TEST_F(CachedBlockTest, TheThreadCacheHoldsAtMostSixtyFourBlocksAndSendsTheOldestThirtyTwoOnward)
{
	constexpr size_t kSize = 100;
	const DrainedClass drained(kSize);
	ASSERT_EQ(CentralCachedBlocks(kSize), 0u);
	RunInFreshThread([&] {
		ASSERT_EQ(ThreadCachedBlocks(kSize), 0u);
		const std::vector<void*> blocks = AllocateMany(kSize, kThreadBound + 1);

		for (size_t i = 0; i < kThreadBound; i++) {
			FreeBlock(blocks[i], kSize);
			EXPECT_EQ(ThreadCachedBlocks(kSize), i + 1);
			EXPECT_EQ(CentralCachedBlocks(kSize), 0u);
		}
		// The 65th free finds the cache full: a batch of the 32 freed first
		// goes to the central store, the newest 32 and this one stay.
		FreeBlock(blocks[kThreadBound], kSize);
		EXPECT_EQ(ThreadCachedBlocks(kSize), kThreadBound - kBatch + 1);
		EXPECT_EQ(CentralCachedBlocks(kSize), kBatch);

		// The 33 kept come out newest first.
		std::vector<void*> again = AllocateMany(kSize, kThreadBound - kBatch + 1);
		EXPECT_EQ(again.front(), blocks[kThreadBound]);
		EXPECT_EQ(again.back(), blocks[kBatch]);
		EXPECT_EQ(ThreadCachedBlocks(kSize), 0u);
		EXPECT_EQ(CentralCachedBlocks(kSize), kBatch);

		// The next allocation takes the batch back whole.
		again.push_back(AllocateBlock(kSize));
		EXPECT_EQ(CentralCachedBlocks(kSize), 0u);
		EXPECT_EQ(ThreadCachedBlocks(kSize), kBatch - 1);
		const std::set<void*> sentOn(blocks.begin(), blocks.begin() + kBatch);
		EXPECT_EQ(sentOn.count(again.back()), 1u);

		FreeAll(again, kSize);
	});
}

TEST_F(CachedBlockTest, ManyFreesNeverLeaveMoreThanSixtyFourBlocksInTheThreadCache)
{
	constexpr size_t kSize = 120;
	RunInFreshThread([&] {
		const std::vector<void*> blocks = AllocateMany(kSize, 1000);
		size_t most = 0;
		for (void* block : blocks) {
			FreeBlock(block, kSize);
			most = std::max(most, ThreadCachedBlocks(kSize));
		}
		EXPECT_EQ(most, kThreadBound);
		// Between batches the count runs from 33 to 64.
		EXPECT_GE(ThreadCachedBlocks(kSize), kThreadBound - kBatch + 1);
	});
}

TEST_F(CachedBlockTest, AnEndingThreadHandsItsBlocksToTheCentralStoreForAnotherThread)
{
	constexpr size_t kSize = 130;
	const DrainedClass drained(kSize);
	ASSERT_EQ(CentralCachedBlocks(kSize), 0u);
	std::set<void*> freedByFirst;
	RunInFreshThread([&] {
		const std::vector<void*> blocks = AllocateMany(kSize, kThreadBound);
		FreeAll(blocks, kSize);
		EXPECT_EQ(ThreadCachedBlocks(kSize), kThreadBound);
		EXPECT_EQ(CentralCachedBlocks(kSize), 0u);
		freedByFirst.insert(blocks.begin(), blocks.end());
	});
	// Two whole batches went to the store when the thread ended.
	EXPECT_EQ(CentralCachedBlocks(kSize), kThreadBound);

	RunInFreshThread([&] {
		std::vector<void*> blocks;
		for (size_t i = 0; i < kThreadBound; i++) {
			blocks.push_back(AllocateBlock(kSize));
			EXPECT_EQ(freedByFirst.count(blocks.back()), 1u) << "block " << i;
			Stamp(blocks.back(), kSize, static_cast<uint32_t>(i));
		}
		EXPECT_EQ(CentralCachedBlocks(kSize), 0u);
		for (size_t i = 0; i < blocks.size(); i++) {
			EXPECT_TRUE(HasStamp(blocks[i], kSize, static_cast<uint32_t>(i)));
			FreeBlock(blocks[i], kSize);
		}
	});
	EXPECT_EQ(CentralCachedBlocks(kSize), kThreadBound);
}

TEST_F(CachedBlockTest, AnEndingThreadStoresOnlyWholeBatches)
{
	constexpr size_t kSize = 150;
	const DrainedClass drained(kSize);
	ASSERT_EQ(CentralCachedBlocks(kSize), 0u);
	RunInFreshThread([&] {
		FreeAll(AllocateMany(kSize, kBatch + 8), kSize);
		EXPECT_EQ(ThreadCachedBlocks(kSize), kBatch + 8);
	});
	// One batch is stored; the eight left over went back to the allocator.
	EXPECT_EQ(CentralCachedBlocks(kSize), kBatch);
}

TEST_F(CachedBlockTest, BlocksFreedByAConsumerThreadComeBackToTheProducerThroughTheCentralStore)
{
	zvtest::Watchdog watchdog(120s, "block producer and consumer");
	constexpr size_t kSize = 180;
	constexpr int kRounds = 300;
	constexpr size_t kPerRound = kThreadBound;
	const DrainedClass drained(kSize);
	ASSERT_EQ(CentralCachedBlocks(kSize), 0u);

	// Round r: the producer allocates and stamps kPerRound blocks, then
	// counts down handed[r]; the consumer checks and frees them, then counts
	// down consumed[r]. The latches order every access to the shared
	// vectors.
	std::vector<std::unique_ptr<zvtest::Latch>> handed;
	std::vector<std::unique_ptr<zvtest::Latch>> consumed;
	for (int round = 0; round < kRounds; round++) {
		handed.push_back(std::make_unique<zvtest::Latch>(1));
		consumed.push_back(std::make_unique<zvtest::Latch>(1));
	}
	std::vector<void*> inFlight;
	std::set<void*> freedByConsumer;
	std::atomic<int> badStamps{0};
	// Rounds after which the producer's cache held blocks (it never frees
	// any), and frees after which the consumer's held more than its bound.
	std::atomic<int> producerCachedRounds{0};
	std::atomic<int> consumerOverBound{0};
	std::atomic<int> reusedFromConsumer{0};
	std::atomic<int> notFromConsumer{0};
	std::atomic<bool> stalled{false};

	std::thread producer([&] {
		for (int round = 0; round < kRounds; round++) {
			for (size_t i = 0; i < kPerRound; i++) {
				void* block = AllocateBlock(kSize);
				Stamp(block, kSize, static_cast<uint32_t>(round * 1000 + i));
				// From the third round on, the consumer has sent batches to
				// the store each round: every block should be one of those.
				if (round >= 2) {
					if (freedByConsumer.count(block) == 1)
						reusedFromConsumer.fetch_add(1);
					else
						notFromConsumer.fetch_add(1);
				}
				inFlight.push_back(block);
			}
			// The producer never frees, so its own cache stays empty.
			if (ThreadCachedBlocks(kSize) != 0)
				producerCachedRounds.fetch_add(1);
			handed[round]->CountDown();
			if (!consumed[round]->WaitFor(20s)) {
				stalled.store(true);
				return;
			}
		}
	});
	std::thread consumer([&] {
		for (int round = 0; round < kRounds; round++) {
			if (!handed[round]->WaitFor(20s)) {
				stalled.store(true);
				return;
			}
			for (size_t i = 0; i < inFlight.size(); i++) {
				if (!HasStamp(inFlight[i], kSize, static_cast<uint32_t>(round * 1000 + i)))
					badStamps.fetch_add(1);
				freedByConsumer.insert(inFlight[i]);
				FreeBlock(inFlight[i], kSize);
				if (ThreadCachedBlocks(kSize) > kThreadBound)
					consumerOverBound.fetch_add(1);
			}
			inFlight.clear();
			consumed[round]->CountDown();
		}
	});
	producer.join();
	consumer.join();

	EXPECT_FALSE(stalled.load());
	EXPECT_EQ(badStamps.load(), 0);
	EXPECT_EQ(producerCachedRounds.load(), 0)
	    << "rounds after which the producer's cache held blocks";
	EXPECT_EQ(consumerOverBound.load(), 0) << "frees that left the consumer's cache over its bound";
	EXPECT_EQ(notFromConsumer.load(), 0);
	EXPECT_EQ(reusedFromConsumer.load(), static_cast<int>((kRounds - 2) * kPerRound));
	// Two rounds' worth were ever made: everything else was reused.
	EXPECT_EQ(freedByConsumer.size(), 2 * kPerRound);
}

TEST_F(CachedBlockTest, AChildForkedWhileAnotherThreadUsesTheCentralStoreCanStillAllocate)
{
	zvtest::Watchdog watchdog(180s, "forks during central store traffic");
	constexpr size_t kSize = 220;
	constexpr int kForks = 100;
	// The churning thread takes and gives back batches all the time, so it
	// often holds the store's lock for this class when the fork happens.
	std::atomic<bool> stop{false};
	zvtest::Latch churning(1);
	std::thread churn([&] {
		for (int round = 0; !stop.load(std::memory_order_relaxed); round++) {
			FreeAll(AllocateMany(kSize, 3 * kBatch), kSize);
			if (round == 10)
				churning.CountDown();
		}
	});
	ASSERT_TRUE(churning.WaitFor(30s));

	int hung = 0;
	int failed = 0;
	for (int i = 0; i < kForks; i++) {
		const pid_t child = fork();
		if (child == 0) {
			// Enough to take batches from the store and to give them back.
			FreeAll(AllocateMany(kSize, 4 * kBatch), kSize);
			_exit(0);
		}
		ASSERT_GT(child, 0);
		int status = 0;
		const bool ended =
		    zvtest::WaitUntil([&] { return waitpid(child, &status, WNOHANG) == child; },
		                      std::chrono::milliseconds(5000));
		if (!ended) {
			hung++;
			kill(child, SIGKILL);
			waitpid(child, &status, 0);
		} else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
			failed++;
		}
	}
	stop.store(true);
	churn.join();
	EXPECT_EQ(hung, 0) << "children that never finished allocating";
	EXPECT_EQ(failed, 0);
}

TEST_F(CachedBlockTest, TheCentralStoreKeepsAtMostTwoMebibytesOfTheLargestClass)
{
	constexpr size_t kSize = zvkit::internal::kMaxCachedBlock;
	constexpr size_t kCap = kCentralBytes / kSize;
	RunInFreshThread([&] {
		const size_t most = FreeAllWatchingTheCentralStore(AllocateMany(kSize, kCap + 2000), kSize);
		EXPECT_LE(most, kCap);
		// Far more than the cap went through: the store is full.
		EXPECT_EQ(CentralCachedBlocks(kSize), kCap);
		EXPECT_LE(ThreadCachedBlocks(kSize), kThreadBound);
	});
	// The ending thread's batches found the store full too.
	EXPECT_EQ(CentralCachedBlocks(kSize), kCap);
}

TEST_F(CachedBlockTest, TheCentralStoreKeepsAtMostTwoMebibytesOfTheSmallestClass)
{
	constexpr size_t kSize = kGranule;
	constexpr size_t kCap = kCentralBytes / kSize;
	RunInFreshThread([&] {
		const std::vector<void*> blocks = AllocateMany(kSize, kCap + 5000);
		for (size_t i = 0; i < blocks.size(); i++) {
			FreeBlock(blocks[i], kSize);
			// Reading the count takes the store's lock: checked every batch.
			if (i % kBatch == 0) {
				ASSERT_LE(CentralCachedBlocks(kSize), kCap) << "after " << i << " frees";
			}
		}
		EXPECT_EQ(CentralCachedBlocks(kSize), kCap);
	});
	EXPECT_EQ(CentralCachedBlocks(kSize), kCap);
}

TEST_F(CachedBlockTest, ARaisedClassKeepsUpToItsNewLimitAndOthersKeepTwoMebibytes)
{
	// 176 bytes: a class no other test of this file counts or raises.
	constexpr size_t kSize = 176;
	constexpr size_t kRaised = size_t(3) << 20;
	DrainedClass drained(kSize);
	EXPECT_EQ(CentralLimitBytes(kSize), kCentralBytes);
	RaiseCentralLimit(kSize, kRaised);
	// A lower limit, or a size the cache does not keep, changes nothing.
	RaiseCentralLimit(kSize, kCentralBytes);
	RaiseCentralLimit(300, kRaised);
	EXPECT_EQ(CentralLimitBytes(kSize), kRaised);
	EXPECT_EQ(CentralLimitBytes(kSize - 15), kRaised) << "the whole class is raised";
	EXPECT_EQ(CentralLimitBytes(kSize + 16), kCentralBytes);
	EXPECT_EQ(CentralLimitBytes(300), 0u);

	constexpr size_t kCap = kRaised / kSize / kBatch * kBatch;
	RunInFreshThread([&] {
		const size_t most = FreeAllWatchingTheCentralStore(AllocateMany(kSize, kCap + 2000), kSize);
		EXPECT_LE(most, kCap);
		EXPECT_EQ(CentralCachedBlocks(kSize), kCap);
	});
	EXPECT_GT(kCap * kSize, kCentralBytes) << "more than an unraised class keeps";
}

TEST(BlockCacheTest, BlocksLargerThanTwoHundredFiftySixBytesBypassTheCache)
{
	const std::vector<size_t> threadBefore = ThreadCounts();
	const std::vector<size_t> centralBefore = CentralCounts();
	for (size_t size : {size_t(257), size_t(300), size_t(4096), size_t(1) << 20}) {
		void* block = AllocateBlock(size);
		ASSERT_NE(block, nullptr);
		// Every byte asked for is usable (AddressSanitizer checks this).
		Stamp(block, size, 5);
		EXPECT_TRUE(HasStamp(block, size, 5));
		FreeBlock(block, size);
		// Nothing landed in any class, in particular not in the largest one.
		EXPECT_EQ(ThreadCounts(), threadBefore) << size;
		EXPECT_EQ(CentralCounts(), centralBefore) << size;
	}
}

TEST(BlockCacheTest, NothrowAllocationGivesACachedBlock)
{
	void* block = AllocateBlock(40, std::nothrow);
	ASSERT_NE(block, nullptr);
	Stamp(block, 40, 6);
	EXPECT_TRUE(HasStamp(block, 40, 6));
	FreeBlock(block, 40);
	void* again = AllocateBlock(40, std::nothrow);
	ASSERT_NE(again, nullptr);
	if (BlockCacheEnabled()) {
		EXPECT_EQ(again, block);
	}
	FreeBlock(again, 40);
}

TEST(BlockCacheTest, NothrowAllocationOfAnImpossibleSizeGivesNull)
{
	// The sanitizers' allocators abort on such a request instead of failing
	// it, unless told otherwise for the whole process.
	if (kSanitized)
		GTEST_SKIP() << "a sanitizer's allocator aborts on impossible sizes";
	volatile size_t impossible = SIZE_MAX - 4095;
	EXPECT_EQ(AllocateBlock(impossible, std::nothrow), nullptr);
}

TEST(BlockCacheTest, FreeingNullIsHarmlessAndCachesNothing)
{
	const std::vector<size_t> threadBefore = ThreadCounts();
	const std::vector<size_t> centralBefore = CentralCounts();
	FreeBlock(nullptr, 0);
	FreeBlock(nullptr, 40);
	FreeBlock(nullptr, zvkit::internal::kMaxCachedBlock);
	FreeBlock(nullptr, 1000);
	FreeUnsizedBlock(nullptr);
	EXPECT_EQ(ThreadCounts(), threadBefore);
	EXPECT_EQ(CentralCounts(), centralBefore);
	// A null in the cache would be handed out here.
	void* block = AllocateBlock(40);
	EXPECT_NE(block, nullptr);
	FreeBlock(block, 40);
}

TEST(BlockCacheTest, AnUnsizedFreeReturnsACachedClassBlockToTheAllocator)
{
	void* block = AllocateBlock(72);
	void* another = AllocateBlock(72, std::nothrow);
	const std::vector<size_t> threadBefore = ThreadCounts();
	const std::vector<size_t> centralBefore = CentralCounts();
	FreeUnsizedBlock(block);
	FreeUnsizedBlock(another);
	// Neither block went into the cache (LeakSanitizer checks they were
	// freed at all).
	EXPECT_EQ(ThreadCounts(), threadBefore);
	EXPECT_EQ(CentralCounts(), centralBefore);
}

TEST(BlockCacheTest, ABlockFreedAfterItsThreadsCacheIsGoneGoesToTheAllocator)
{
	constexpr size_t kSize = 200;
	// Destroyed after the thread's cache, being constructed before it.
	struct LateFreer
	{
		void* block = nullptr;
		std::atomic<int>* done = nullptr;
		~LateFreer()
		{
			// The cache is gone: the free goes to the allocator, and an
			// allocation still works.
			FreeBlock(block, kSize);
			void* late = AllocateBlock(kSize);
			Stamp(late, kSize, 7);
			const bool stamped = HasStamp(late, kSize, 7);
			const bool uncached = ThreadCachedBlocks(kSize) == 0;
			FreeBlock(late, kSize);
			if (done != nullptr)
				done->store(stamped && uncached && ThreadCachedBlocks(kSize) == 0 ? 1 : 2);
		}
	};
	// The class (193 to 208 bytes) is also kOddSize's, below: it is emptied
	// first, so that the store's count read at the end is this test's alone.
	const DrainedClass drained(kSize);
	ASSERT_EQ(CentralCachedBlocks(kSize), 0u);
	std::atomic<int> done{0};
	RunInFreshThread([&] {
		thread_local LateFreer freer;
		freer.done = &done;
		freer.block = AllocateBlock(kSize);
		Stamp(freer.block, kSize, 8);
	});
	EXPECT_EQ(done.load(), 1);
	EXPECT_EQ(CentralCachedBlocks(kSize), 0u);
}

// A request of 193 bytes falls in the class of 193 to 208 bytes. The
// allocator's usable size tells a block made at the class's full size (at
// least 208) from one made at the requested size (less than 208 with the
// host's allocator and with the sanitizers', which report the request).
constexpr size_t kOddSize = 193;
constexpr size_t kOddClassBytes = 208;

TEST_F(CachedBlockTest, ABlockMadeAfterItsThreadsCacheIsGoneHasTheFullSizeOfItsClass)
{
	// Freed on a thread whose cache is live, such a block joins its class
	// and may be handed out for a request of the class's full size.
	struct LateAllocator
	{
		std::atomic<size_t>* usable = nullptr;
		~LateAllocator()
		{
			void* late = AllocateBlock(kOddSize);
			usable->store(malloc_usable_size(late));
			FreeBlock(late, kOddSize);
		}
	};
	std::atomic<size_t> usable{0};
	RunInFreshThread([&] {
		thread_local LateAllocator allocator;
		allocator.usable = &usable;
		// Makes this thread's cache after the allocator, so that the cache
		// is gone when the allocator's destructor runs.
		FreeBlock(AllocateBlock(kOddSize), kOddSize);
	});
	EXPECT_GE(usable.load(), kOddClassBytes);
}

TEST(BlockCacheTest, WithTheCacheOffBlocksAreMadeAtTheRequestedSize)
{
	if (BlockCacheEnabled())
		GTEST_SKIP() << "the block cache is on in this process";
	// Tools that turn the cache off count blocks by the size asked for.
	void* block = AllocateBlock(kOddSize);
	EXPECT_GE(malloc_usable_size(block), kOddSize);
	EXPECT_LT(malloc_usable_size(block), kOddClassBytes);
	FreeBlock(block, kOddSize);
}

TEST(BlockCacheTest, TheSettingIsTakenOnceSoALaterEnvironmentChangeHasNoEffect)
{
	const bool enabled = BlockCacheEnabled();
	const char* const previous = getenv("ZVKIT_FORCE_NEW");
	const std::string saved = previous != nullptr ? previous : "";
	if (enabled)
		setenv("ZVKIT_FORCE_NEW", "1", 1);
	else
		unsetenv("ZVKIT_FORCE_NEW");
	EXPECT_EQ(BlockCacheEnabled(), enabled);
	void* block = AllocateBlock(24);
	FreeBlock(block, 24);
	if (previous != nullptr)
		setenv("ZVKIT_FORCE_NEW", saved.c_str(), 1);
	else
		unsetenv("ZVKIT_FORCE_NEW");
}

TEST(BlockCacheTest, WithTheCacheOffEveryBlockGoesStraightToTheAllocator)
{
	if (BlockCacheEnabled())
		GTEST_SKIP() << "the block cache is on in this process";
	zvtest::Watchdog watchdog(60s, "uncached blocks");
	// Blocks of every class, made on one thread and freed on another, are
	// usable and never kept: LeakSanitizer and AddressSanitizer check that
	// each is freed once. The freeing thread gives back about 40 blocks of
	// every class, so a cache kept in spite of the setting would send whole
	// batches of each to the central store when that thread ends.
	std::vector<void*> blocks;
	std::vector<size_t> sizes;
	for (int round = 0; round < 20; round++) {
		for (size_t size = 0; size <= zvkit::internal::kMaxCachedBlock + 16; size += 8) {
			blocks.push_back(AllocateBlock(size));
			sizes.push_back(size);
			Stamp(blocks.back(), size, static_cast<uint32_t>(size));
		}
	}
	RunInFreshThread([&] {
		for (size_t i = 0; i < blocks.size(); i++) {
			EXPECT_TRUE(HasStamp(blocks[i], sizes[i], static_cast<uint32_t>(sizes[i])));
			FreeBlock(blocks[i], sizes[i]);
		}
	});
	EXPECT_EQ(CentralCounts(), std::vector<size_t>(CentralCounts().size(), 0));
}

TEST(BlockCacheTest, ZvkitForceNewInTheEnvironmentTurnsTheCacheOffForTheProcess)
{
	if (getenv("ZVKIT_FORCE_NEW") != nullptr) {
		// The child run below: the cache must be off.
		EXPECT_FALSE(BlockCacheEnabled());
		return;
	}
	zvtest::Watchdog watchdog(120s, "child run with ZVKIT_FORCE_NEW");
	const std::string self = OwnPath();
	ASSERT_FALSE(self.empty());
	const std::string command =
	    "ZVKIT_FORCE_NEW=1 '" + self +
	    "' --gtest_filter='BlockCacheTest.ZvkitForceNew*:BlockCacheTest.WithTheCacheOff*' 2>&1";
	std::FILE* child = popen(command.c_str(), "r");
	ASSERT_NE(child, nullptr);
	std::string output;
	char buffer[512];
	size_t got;
	while ((got = std::fread(buffer, 1, sizeof(buffer), child)) > 0)
		output.append(buffer, got);
	const int status = pclose(child);
	EXPECT_EQ(status, 0) << output;
	// All ran, and none of those that need the cache off skipped.
	EXPECT_NE(output.find("[  PASSED  ] 3 tests"), std::string::npos) << output;
	EXPECT_EQ(output.find("SKIPPED"), std::string::npos) << output;
}
