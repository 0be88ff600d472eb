// ZvList growth and shrink rules.
#include <ZvList.h>
#include <ZvLocker.h>
#include <ZvMessage.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

// Distinct addresses to store in a list.
struct Slots
{
	int values[512] = {};
	int* At(int i) { return &values[i]; }
};

void Fill(ZvList<int*>* list, Slots* slots, int count)
{
	for (int i = 0; i < count; i++)
		list->AddItem(slots->At(i));
}

TEST(ZvListTest, NewListIsEmptyWithoutArray)
{
	ZvList<int*> list(16);
	EXPECT_EQ(0, list.count);
	EXPECT_EQ(0, list.capacity);
	EXPECT_EQ(16, list.growStep);
	EXPECT_EQ(16, list.blockSize);
	EXPECT_EQ(nullptr, list.items);
	EXPECT_EQ(nullptr, list.defaultItem);
	EXPECT_EQ(nullptr, list.lock);
	EXPECT_EQ(0, list.CountItems());
}

TEST(ZvListTest, DefaultStepIsSixteenAndStepIsTakenFromConstructor)
{
	ZvList<int*> byDefault;
	EXPECT_EQ(16, byDefault.growStep);
	ZvList<int*> registryStep(20);
	EXPECT_EQ(20, registryStep.growStep);
	EXPECT_EQ(20, registryStep.blockSize);
}

TEST(ZvListTest, FirstAddAllocatesOneStep)
{
	Slots slots;
	ZvList<int*> list(16);
	list.AddItem(slots.At(0));
	EXPECT_EQ(1, list.count);
	EXPECT_EQ(16, list.capacity);
	EXPECT_NE(nullptr, list.items);
	EXPECT_EQ(slots.At(0), list.ItemAt(0));
}

TEST(ZvListTest, SeventeenthEntryGrowsToThirtyTwoAndThirtyThirdToFortyEight)
{
	Slots slots;
	ZvList<int*> list(16);
	Fill(&list, &slots, 17);
	EXPECT_EQ(32, list.capacity);
	EXPECT_EQ(16, list.growStep);
	for (int i = 17; i < 33; i++)
		list.AddItem(slots.At(i));
	EXPECT_EQ(33, list.count);
	EXPECT_EQ(48, list.capacity);
	EXPECT_EQ(24, list.growStep);
}

// The successive capacities of a list of the given step while count entries
// are added; every entry must stay in place through the copies.
std::vector<int32> CapacitiesWhileAdding(int32 step, int count)
{
	Slots slots;
	ZvList<int*> list(step);
	std::vector<int32> capacities;
	for (int i = 0; i < count; i++) {
		list.AddItem(slots.At(i));
		if (capacities.empty() || capacities.back() != list.capacity)
			capacities.push_back(list.capacity);
	}
	for (int i = 0; i < count; i++)
		EXPECT_EQ(slots.At(i), list.ItemAt(i)) << i;
	return capacities;
}

TEST(ZvListTest, CapacitiesGrowByHalfOnceBeyondTwiceTheBlock)
{
	EXPECT_EQ((std::vector<int32>{16, 32, 48, 72, 108, 162, 243}), CapacitiesWhileAdding(16, 163));
}

TEST(ZvListTest, BlockSizeOfTwentyGrowsByTwentyThenByHalf)
{
	EXPECT_EQ((std::vector<int32>{20, 40, 60, 90, 135}), CapacitiesWhileAdding(20, 100));
}

TEST(ZvListTest, RemovingFromSeventeenInThirtyTwoShrinksToSixteen)
{
	Slots slots;
	ZvList<int*> list(16);
	Fill(&list, &slots, 17);
	ASSERT_EQ(32, list.capacity);
	EXPECT_EQ(slots.At(16), list.RemoveItem(16));
	EXPECT_EQ(16, list.count);
	EXPECT_EQ(16, list.capacity);
	EXPECT_EQ(16, list.growStep);
	for (int i = 0; i < 16; i++)
		EXPECT_EQ(slots.At(i), list.ItemAt(i));
}

TEST(ZvListTest, RemovingTheOnlyEntryFreesTheArray)
{
	Slots slots;
	ZvList<int*> list(16);
	list.AddItem(slots.At(0));
	EXPECT_EQ(slots.At(0), list.RemoveItem(0));
	EXPECT_EQ(0, list.count);
	EXPECT_EQ(0, list.capacity);
	EXPECT_EQ(nullptr, list.items);
	EXPECT_EQ(16, list.growStep);
}

TEST(ZvListTest, RemovalMovesLaterEntriesDownInOrder)
{
	Slots slots;
	ZvList<int*> list(16);
	Fill(&list, &slots, 5);
	EXPECT_EQ(slots.At(1), list.RemoveItem(1));
	ASSERT_EQ(4, list.count);
	EXPECT_EQ(slots.At(0), list.ItemAt(0));
	EXPECT_EQ(slots.At(2), list.ItemAt(1));
	EXPECT_EQ(slots.At(3), list.ItemAt(2));
	EXPECT_EQ(slots.At(4), list.ItemAt(3));
	EXPECT_EQ(16, list.capacity);
}

TEST(ZvListTest, ShrinkFollowsTheStepDownToTwoSlotsThatAreNeverFreed)
{
	Slots slots;
	ZvList<int*> list(16);
	Fill(&list, &slots, 49);
	ASSERT_EQ(72, list.capacity);
	ASSERT_EQ(36, list.growStep);

	std::vector<int32> capacities{list.capacity};
	while (list.count > 0) {
		list.RemoveItem(0);
		if (capacities.back() != list.capacity)
			capacities.push_back(list.capacity);
		for (int32 i = 0; i < list.count; i++)
			ASSERT_EQ(slots.At(49 - list.count + i), list.ItemAt(i));
	}
	// 72 -> 36 at count 36 (step 18), -> 18 at count 18 (step 16), -> 2 at
	// count 2; then the reduced capacity is negative and count never gets
	// below it, so the two slots stay.
	EXPECT_EQ((std::vector<int32>{72, 36, 18, 2}), capacities);
	EXPECT_EQ(16, list.growStep);
	EXPECT_NE(nullptr, list.items);
}

TEST(ZvListTest, OutOfRangeIndexesReturnNullAndChangeNothing)
{
	Slots slots;
	ZvList<int*> list(16);
	Fill(&list, &slots, 3);
	int** before = list.items;
	EXPECT_EQ(nullptr, list.ItemAt(-1));
	EXPECT_EQ(nullptr, list.ItemAt(3));
	EXPECT_EQ(nullptr, list.RemoveItem(3));
	EXPECT_EQ(nullptr, list.RemoveItem(-1));
	EXPECT_EQ(3, list.count);
	EXPECT_EQ(16, list.capacity);
	EXPECT_EQ(before, list.items);
	EXPECT_EQ(slots.At(2), list.ItemAt(2));
}

TEST(ZvListTest, MakeEmptyFreesSlotsButNotTheItems)
{
	ZvList<ZvMessageItem*> list(16);
	ZvMessageItem* first = new ZvMessageItem("first", ZV_INT32_TYPE, 4, "\1\0\0\0");
	ZvMessageItem* second = new ZvMessageItem("second", ZV_BOOL_TYPE, 1, "\1");
	list.AddItem(first);
	list.AddItem(second);
	list.MakeEmpty();
	EXPECT_EQ(0, list.count);
	EXPECT_EQ(0, list.capacity);
	EXPECT_EQ(nullptr, list.items);
	EXPECT_EQ(16, list.growStep);
	// The items are still alive and owned by the caller.
	EXPECT_STREQ("first", first->name);
	EXPECT_STREQ("second", second->name);
	delete first;
	delete second;
}

TEST(ZvListTest, MakeEmptyKeepsTheGrownStep)
{
	Slots slots;
	ZvList<int*> list(16);
	Fill(&list, &slots, 49);
	ASSERT_EQ(36, list.growStep);
	list.MakeEmpty();
	EXPECT_EQ(36, list.growStep);
	list.AddItem(slots.At(0));
	EXPECT_EQ(36, list.capacity);
}

TEST(ZvListTest, DefaultItemIsHandedBackForBadIndexes)
{
	Slots slots;
	ZvList<int*> list(16);
	list.defaultItem = slots.At(100);
	EXPECT_EQ(slots.At(100), list.ItemAt(0));
	EXPECT_EQ(slots.At(100), list.RemoveItem(0));
}

TEST(ZvListTest, ListWithAStepBelowOneStaysEmpty)
{
	Slots slots;
	for (int32 step : {0, -16}) {
		ZvList<int*> list(step);
		list.AddItem(slots.At(0));
		EXPECT_EQ(0, list.count) << step;
		EXPECT_EQ(0, list.capacity);
		EXPECT_EQ(nullptr, list.items);
		EXPECT_EQ(nullptr, list.ItemAt(0));
	}
}

TEST(ZvListTest, DestructorDeletesItsLock)
{
	// Leak detection (ASan) fails this test if the lock is not deleted.
	ZvList<int*>* list = new ZvList<int*>(16);
	list->lock = new ZvLocker();
	delete list;
	SUCCEED();
}

TEST(ZvListTest, ListIsPolymorphicWithVirtualMakeEmpty)
{
	struct CountingList : ZvList<int*>
	{
		int emptied = 0;
		void MakeEmpty() override
		{
			emptied++;
			ZvList<int*>::MakeEmpty();
		}
	};
	CountingList list;
	ZvList<int*>& base = list;
	base.MakeEmpty();
	EXPECT_EQ(1, list.emptied);
}

// Whether list holds exactly the entries of model, in order.
bool SameEntries(const ZvList<int*>& list, const std::deque<int*>& model)
{
	if (list.CountItems() != static_cast<int32>(model.size()))
		return false;
	for (int32 i = 0; i < list.CountItems(); i++) {
		if (list.ItemAt(i) != model[static_cast<size_t>(i)])
			return false;
	}
	return true;
}

TEST(ZvListTest, EntriesStayInOrderAcrossManyAddsAndRemovalsFromBothEnds)
{
	std::vector<int> values(20000);
	size_t next = 0;
	ZvList<int*> list(16);
	std::deque<int*> model;
	std::mt19937 random(12345);
	int resizes = 0;
	// Three waves: grow to about 2000 entries while also removing from both
	// ends, then drain from both ends while still adding now and then.
	for (int wave = 0; wave < 3; wave++) {
		for (int phase = 0; phase < 2; phase++) {
			const unsigned addPercent = phase == 0 ? 70 : 25;
			while (phase == 0 ? model.size() < 2000 : !model.empty()) {
				const int32 capacity = list.capacity;
				if (random() % 100 < addPercent) {
					int* entry = &values[next++ % values.size()];
					list.AddItem(entry);
					model.push_back(entry);
				} else if (!model.empty()) {
					const bool front = random() % 2 == 0;
					const int32 index = front ? 0 : list.CountItems() - 1;
					ASSERT_EQ(front ? model.front() : model.back(), list.RemoveItem(index));
					if (front)
						model.pop_front();
					else
						model.pop_back();
				}
				ASSERT_GE(list.capacity, list.CountItems());
				// The array was copied: check every entry.
				if (list.capacity != capacity) {
					resizes++;
					ASSERT_TRUE(SameEntries(list, model)) << "after a resize to " << list.capacity;
				}
			}
			ASSERT_TRUE(SameEntries(list, model));
		}
	}
	EXPECT_GT(resizes, 50);
	// Emptied, the list keeps less than a step: the few slots that a
	// removal can never free.
	EXPECT_EQ(0, list.CountItems());
	EXPECT_LT(list.capacity, 16);
}

TEST(ZvListTest, AListGrownOnOneThreadIsShrunkAndFreedOnAnother)
{
	zvtest::Watchdog watchdog(std::chrono::seconds(60), "list hand-over");
	std::vector<int> values(5000);
	ZvList<int*>* list = new ZvList<int*>(16);
	// Joining the first thread before starting the second orders the two.
	std::thread filler([&] {
		for (int& value : values)
			list->AddItem(&value);
	});
	filler.join();
	bool inOrder = true;
	std::thread drainer([&] {
		int32 front = 0;
		int32 back = static_cast<int32>(values.size()) - 1;
		while (list->CountItems() > 100) {
			inOrder = inOrder && list->RemoveItem(0) == &values[front++];
			inOrder = inOrder && list->RemoveItem(list->CountItems() - 1) == &values[back--];
		}
		for (int32 i = 0; i < list->CountItems(); i++)
			inOrder = inOrder && list->ItemAt(i) == &values[front + i];
		delete list;
	});
	drainer.join();
	EXPECT_TRUE(inOrder);
}

} // namespace
