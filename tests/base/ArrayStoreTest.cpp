// The arrays that grow with a message (list slots, name index): small ones
// from the block cache, medium ones from the allocator, and the store that
// keeps large freed ones for reuse: rounding to a power of two, reuse by
// the next array of a class from any thread, its bounds per class and in
// all, what it never keeps, concurrent use and use after fork().
//
// This executable holds its own copies of the block cache and the store
// (see deps.cmake), which only this file uses. Tests that count a class's
// arrays empty it first (ClaimedClass), so that what another test left there
// cannot change their counts.
#include "base/internal/ArrayStore.h"
#include "base/internal/BlockCache.h"

#include "ClaimedBlocks.h"
#include "ForkedChild.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using zvkit::internal::AllocateArray;
using zvkit::internal::BlockCacheEnabled;
using zvkit::internal::FreeArray;
using zvkit::internal::kMaxStoredArray;
using zvkit::internal::kMaxStoredBytes;
using zvkit::internal::kMinStoredArray;
using zvkit::internal::kStoredArraysPerClass;
using zvkit::internal::StoredArrayBytes;
using zvkit::internal::StoredArrays;
using zvkit::internal::ThreadCachedBlocks;

constexpr size_t KiB = 1024;
constexpr size_t MiB = 1024 * KiB;

// Writes a pattern derived from seed over the first and the last page of an
// array and a word every 4 KiB in between (all of a large array would make
// the tests slow for nothing), and checks it.
void Stamp(void* array, size_t size, uint32_t seed)
{
	uint8_t* bytes = static_cast<uint8_t*>(array);
	for (size_t i = 0; i < size; i += (i < 4096 || i + 4096 >= size) ? 1 : 4096)
		bytes[i] = static_cast<uint8_t>(seed * 131 + i / 7);
}

bool HasStamp(const void* array, size_t size, uint32_t seed)
{
	const uint8_t* bytes = static_cast<const uint8_t*>(array);
	for (size_t i = 0; i < size; i += (i < 4096 || i + 4096 >= size) ? 1 : 4096) {
		if (bytes[i] != static_cast<uint8_t>(seed * 131 + i / 7))
			return false;
	}
	return true;
}

// Holds every array the store kept for requests of size bytes, for the life
// of a test, so that the test starts from an empty class.
class ClaimedClass : public zvtest::ClaimedBlocks
{
public:
	explicit ClaimedClass(size_t size)
	    : ClaimedBlocks(
	          size, [](size_t kept) { return StoredArrays(kept) > 0; }, &AllocateArray, &FreeArray)
	{
	}
};

// Tests of what the store keeps, which mean nothing with the caches off
// (AddressSanitizer builds, ZVKIT_FORCE_NEW).
class StoredArrayTest : public ::testing::Test
{
protected:
	void SetUp() override
	{
		if (!BlockCacheEnabled())
			GTEST_SKIP() << "the block cache and the array store are off in this process";
	}
};

} // namespace

TEST_F(StoredArrayTest, AFreedLargeArrayIsHandedOutAgainForTheNextArrayOfItsPowerOfTwo)
{
	ClaimedClass claimed(128 * KiB);
	void* first = AllocateArray(100 * KiB);
	Stamp(first, 100 * KiB, 1);
	FreeArray(first, 100 * KiB);
	EXPECT_EQ(StoredArrays(128 * KiB), 1u);
	EXPECT_EQ(StoredArrays(65 * KiB), 1u) << "65 KiB rounds up to the same 128 KiB class";
	// 120 KiB rounds up to the same 128 KiB: the kept array, every byte of
	// the larger request usable.
	void* second = AllocateArray(120 * KiB);
	EXPECT_EQ(second, first);
	EXPECT_EQ(StoredArrays(128 * KiB), 0u);
	Stamp(second, 128 * KiB, 2);
	EXPECT_TRUE(HasStamp(second, 128 * KiB, 2));
	FreeArray(second, 120 * KiB);
}

TEST_F(StoredArrayTest, ArraysOfAnotherPowerOfTwoAreNotHandedOut)
{
	ClaimedClass claimed64(64 * KiB);
	ClaimedClass claimed256(256 * KiB);
	void* kept = AllocateArray(64 * KiB);
	FreeArray(kept, 64 * KiB);
	ASSERT_EQ(StoredArrays(64 * KiB), 1u);
	void* larger = AllocateArray(200 * KiB);
	EXPECT_NE(larger, kept);
	EXPECT_EQ(StoredArrays(64 * KiB), 1u);
	FreeArray(larger, 200 * KiB);
	EXPECT_EQ(StoredArrays(256 * KiB), 1u);
}

TEST_F(StoredArrayTest, EachPowerOfTwoKeepsAtMostFourArrays)
{
	ClaimedClass claimed(512 * KiB);
	std::vector<void*> arrays;
	for (size_t i = 0; i < kStoredArraysPerClass + 3; i++)
		arrays.push_back(AllocateArray(300 * KiB));
	for (size_t i = 0; i < arrays.size(); i++) {
		FreeArray(arrays[i], 300 * KiB);
		EXPECT_EQ(StoredArrays(512 * KiB), std::min(i + 1, kStoredArraysPerClass));
	}
	EXPECT_EQ(kStoredArraysPerClass, 4u);
}

TEST_F(StoredArrayTest, TheStoreKeepsAtMostSixteenMebibytesInAll)
{
	ClaimedClass claimed4(4 * MiB);
	ClaimedClass claimed2(2 * MiB);
	ClaimedClass claimed1(1 * MiB);
	const size_t before = StoredArrayBytes();
	ASSERT_LE(before, kMaxStoredBytes);
	std::vector<std::pair<void*, size_t>> arrays;
	for (size_t size : {4 * MiB, 4 * MiB, 4 * MiB, 4 * MiB, 2 * MiB, 2 * MiB, 1 * MiB})
		arrays.emplace_back(AllocateArray(size), size);
	size_t most = 0;
	for (const auto& [array, size] : arrays) {
		FreeArray(array, size);
		most = std::max(most, StoredArrayBytes());
	}
	EXPECT_EQ(kMaxStoredBytes, 16 * MiB);
	EXPECT_LE(most, kMaxStoredBytes);
	// 16 MiB of arrays went by on top of what was kept before: the store
	// is full to the last array that fitted.
	EXPECT_GT(StoredArrayBytes(), kMaxStoredBytes - 4 * MiB);
}

TEST_F(StoredArrayTest, ArraysBelowSixtyFourKibibytesOrAboveFourMebibytesAreNeverKept)
{
	const size_t before = StoredArrayBytes();
	for (size_t size : {size_t(300), size_t(4 * KiB), kMinStoredArray - 1, kMaxStoredArray + 1,
	                    size_t(6 * MiB)}) {
		void* array = AllocateArray(size);
		Stamp(array, size, 3);
		EXPECT_TRUE(HasStamp(array, size, 3)) << size;
		FreeArray(array, size);
		EXPECT_EQ(StoredArrays(size), 0u) << size;
		EXPECT_EQ(StoredArrayBytes(), before) << size;
	}
}

TEST_F(StoredArrayTest, SmallArraysComeFromTheBlockCache)
{
	void* array = AllocateArray(200);
	const size_t cached = ThreadCachedBlocks(200);
	FreeArray(array, 200);
	EXPECT_EQ(ThreadCachedBlocks(200), cached + 1);
	void* again = AllocateArray(200);
	EXPECT_EQ(again, array);
	FreeArray(again, 200);
}

TEST_F(StoredArrayTest, AnArrayFreedOnOneThreadIsReusedOnAnother)
{
	ClaimedClass claimed(1 * MiB);
	void* made = nullptr;
	std::thread maker([&] {
		made = AllocateArray(900 * KiB);
		Stamp(made, 900 * KiB, 4);
	});
	maker.join();
	std::thread freer([&] { FreeArray(made, 900 * KiB); });
	freer.join();
	void* again = nullptr;
	std::thread taker([&] { again = AllocateArray(1 * MiB); });
	taker.join();
	EXPECT_EQ(again, made);
	FreeArray(again, 1 * MiB);
}

TEST(ArrayStoreTest, FreeingNullIsHarmless)
{
	const size_t before = StoredArrayBytes();
	FreeArray(nullptr, 100 * KiB);
	FreeArray(nullptr, 100);
	EXPECT_EQ(StoredArrayBytes(), before);
}

TEST(ArrayStoreTest, EveryArrayOfEverySizeIsUsableToItsLastByte)
{
	for (size_t size : {size_t(1), size_t(256), size_t(257), size_t(64 * KiB), size_t(64 * KiB + 1),
	                    size_t(3 * MiB), kMaxStoredArray}) {
		void* array = AllocateArray(size);
		ASSERT_NE(array, nullptr);
		EXPECT_EQ(reinterpret_cast<uintptr_t>(array) % alignof(std::max_align_t), 0u);
		memset(array, 0x5a, size);
		EXPECT_EQ(static_cast<uint8_t*>(array)[size - 1], 0x5a);
		FreeArray(array, size);
	}
}

TEST(ArrayStoreTest, ThreadsTakingAndGivingArraysNeverShareOne)
{
	zvtest::Watchdog watchdog(120s, "threads sharing the array store");
	constexpr int kThreads = 4;
	constexpr int kRounds = 300;
	std::atomic<int> damaged{0};
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([t, &damaged] {
			std::mt19937 random(static_cast<uint32_t>(t + 1));
			std::uniform_int_distribution<size_t> sizes(32 * KiB, 600 * KiB);
			for (int round = 0; round < kRounds; round++) {
				const size_t size = sizes(random);
				void* array = AllocateArray(size);
				const uint32_t seed = static_cast<uint32_t>(t * kRounds + round);
				Stamp(array, size, seed);
				std::this_thread::yield();
				if (!HasStamp(array, size, seed))
					damaged++;
				FreeArray(array, size);
			}
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	EXPECT_EQ(damaged.load(), 0);
	EXPECT_LE(StoredArrayBytes(), kMaxStoredBytes);
}

// With the store on: with it off the arrays come from the allocator itself,
// whose own locks are not this test's subject (AddressSanitizer's are not
// released in a forked child).
TEST_F(StoredArrayTest, AChildForkedWhileAnotherThreadUsesTheStoreCanStillUseIt)
{
	zvtest::Watchdog watchdog(120s, "forks during array store traffic");
	std::atomic<bool> stop{false};
	zvtest::Latch churning(1);
	std::thread churn([&] {
		for (int round = 0; !stop.load(std::memory_order_relaxed); round++) {
			void* array = AllocateArray(70 * KiB);
			FreeArray(array, 70 * KiB);
			if (round == 100)
				churning.CountDown();
		}
	});
	ASSERT_TRUE(churning.WaitFor(30s));
	int hung = 0;
	int failed = 0;
	// A child that hangs is killed, and ends the test: one is proof enough.
	for (int i = 0; i < 200 && hung == 0; i++) {
		const int result = zvtest::RunInChildWithin(5000ms, [] {
			void* array = AllocateArray(70 * KiB);
			Stamp(array, 70 * KiB, 9);
			const bool intact = HasStamp(array, 70 * KiB, 9);
			FreeArray(array, 70 * KiB);
			return intact ? 0 : 1;
		});
		if (result == -2)
			hung++;
		else if (result != 0)
			failed++;
	}
	stop.store(true);
	churn.join();
	EXPECT_EQ(hung, 0) << "children that never got an array";
	EXPECT_EQ(failed, 0);
}
