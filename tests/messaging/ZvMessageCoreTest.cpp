// ZvMessageItem and the core of ZvMessage: lifecycle, copying, merging,
// names and counts, and the generic data operations.
#include <ZvMessage.h>

#include "MessageTestSupport.h"
#include "base/internal/BlockCache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace {

using zvtest::FlatBytes;

uint32 FlagsOf(const ZvMessage& message)
{
	// No reader is exported: the flags are the second word of the flat form.
	std::vector<uint8> bytes = FlatBytes(message);
	uint32 flags;
	memcpy(&flags, bytes.data() + 4, 4);
	return flags;
}

int32 CountOf(const ZvMessage& message)
{
	int32 count = -1;
	char* name;
	type_code type;
	if (!message.GetInfo(ZV_ANY_TYPE, 0, &name, &type, &count))
		return 0;
	return count;
}

// Names and types of all items, in order.
std::string Layout(const ZvMessage& message)
{
	std::string text;
	char* name;
	type_code type;
	int32 count;
	char code[5];
	for (int32 i = 0; message.GetInfo(ZV_ANY_TYPE, i, &name, &type, &count); i++)
		text += std::string(name) + ":" + ZV_TypeCodeString(type, code) + " ";
	return text;
}

// The stored bytes of the first "RAWT" item called name.
std::string RawValue(const ZvMessage& message, const char* name)
{
	const void* data;
	int32 size;
	if (!message.FindData(name, 0x52415754, &data, &size))
		return "<none>";
	return std::string(static_cast<const char*>(data), size);
}

// Whether the item's value lies inside the item object itself.
bool ValueIsInsideTheItem(const ZvMessageItem& item)
{
	const uintptr_t value = reinterpret_cast<uintptr_t>(item.data);
	return value >= reinterpret_cast<uintptr_t>(&item) &&
	       value < reinterpret_cast<uintptr_t>(&item + 1);
}

// count bytes that differ for each seed.
std::vector<uint8> Pattern(int32 count, int seed)
{
	std::vector<uint8> bytes(static_cast<size_t>(count));
	for (int32 i = 0; i < count; i++)
		bytes[i] = static_cast<uint8>(seed * 7 + i * 13 + 1);
	return bytes;
}

bool HoldsPattern(const void* data, int32 count, int seed)
{
	const std::vector<uint8> expected = Pattern(count, seed);
	return count == 0 || (data != nullptr && memcmp(data, expected.data(), expected.size()) == 0);
}

// Messages and items come from the library's block cache, which makes its
// blocks at the size of a whole 16-byte class with ::operator new.
constexpr size_t ClassBytes(size_t objectSize)
{
	return (objectSize + 15) / 16 * 16;
}

// Whether ::operator new hands out address for a block of bytes right now.
// A block held by the library's cache is still in use as far as the
// allocator knows, so it is never handed out; a block the class's operator
// delete gave straight back to the allocator is (glibc hands out the block
// of a size freed last first). The probe is freed again before returning.
bool AllocatorHandsOut(const void* address, size_t bytes)
{
	void* probe = ::operator new(bytes);
	const bool same = probe == address;
	::operator delete(probe);
	return same;
}

// Whether the library caches blocks in this process. BlockCacheEnabled() is
// the test executable's own copy of the cache (see deps.cmake), while the
// classes' operator new and delete use the copy inside libzvkit.so; both
// decide from the same ZVKIT_FORCE_NEW setting and the same sanitizer build,
// so they agree.
bool LibraryCachesBlocks()
{
	return zvkit::internal::BlockCacheEnabled();
}

// ZvMessageItem

TEST(ZvMessageItemTest, DefaultItemIsUnnamedAndEmpty)
{
	ZvMessageItem item;
	EXPECT_EQ(0u, item.type);
	EXPECT_EQ(0, item.size);
	EXPECT_EQ(nullptr, item.data);
	EXPECT_STREQ("@@@Unnamed", item.name);
}

TEST(ZvMessageItemTest, ConstructorCopiesNameAndData)
{
	const char value[] = {1, 2, 3};
	ZvMessageItem item("field", 0x41424344, 3, value);
	EXPECT_EQ(0x41424344u, item.type);
	EXPECT_EQ(3, item.size);
	ASSERT_NE(nullptr, item.data);
	EXPECT_NE(static_cast<const void*>(value), static_cast<void*>(item.data));
	EXPECT_EQ(0, memcmp(value, item.data, 3));
	EXPECT_STREQ("field", item.name);
}

TEST(ZvMessageItemTest, NullNameGivesUnnamedAndSizeBelowOneGivesNoBlock)
{
	ZvMessageItem item(nullptr, ZV_INT32_TYPE, 0, "abc");
	EXPECT_STREQ("@@@Unnamed", item.name);
	EXPECT_EQ(nullptr, item.data);
	ZvMessageItem negative("n", ZV_INT32_TYPE, -5, "abc");
	EXPECT_EQ(-5, negative.size);
	EXPECT_EQ(nullptr, negative.data);
}

TEST(ZvMessageItemTest, LongNameIsCutToSixtyThreeCharacters)
{
	const std::string longName(70, 'z');
	ZvMessageItem item(longName.c_str(), ZV_BOOL_TYPE, 1, "\1");
	EXPECT_EQ(std::string(63, 'z'), std::string(item.name));
}

TEST(ZvMessageItemTest, CopyIsDeep)
{
	ZvMessageItem original("copy", ZV_INT16_TYPE, 2, "\x05\x06");
	ZvMessageItem copy(&original);
	EXPECT_EQ(original.type, copy.type);
	EXPECT_EQ(original.size, copy.size);
	EXPECT_STREQ(original.name, copy.name);
	ASSERT_NE(original.data, copy.data);
	EXPECT_EQ(0, memcmp(original.data, copy.data, 2));
}

TEST(ZvMessageItemTest, SizeIsTheFlatRecordLength)
{
	ZvMessageItem item("abc", ZV_INT32_TYPE, 4, "\0\0\0\0");
	EXPECT_EQ(8 + 3 + 1 + 4, item.Size());
	ZvMessageItem empty("", ZV_INT32_TYPE, 0, "");
	EXPECT_EQ(9, empty.Size());
}

TEST(ZvMessageItemTest, ReplaceDataWithLargerValueGrowsTheBlock)
{
	ZvMessageItem item("grow", 0x52415754, 2, "ab");
	item.ReplaceData(5, "vwxyz");
	EXPECT_EQ(5, item.size);
	EXPECT_EQ(0, memcmp("vwxyz", item.data, 5));
}

TEST(ZvMessageItemTest, ReplaceDataNeverShrinksAndCopiesTheStoredSize)
{
	ZvMessageItem item("ten", 0x52415754, 10, "0123456789");
	const char source[] = "ABCDEFGHIJ";
	item.ReplaceData(4, source);
	EXPECT_EQ(10, item.size);
	EXPECT_EQ(0, memcmp("ABCDEFGHIJ", item.data, 10));
}

TEST(ZvMessageItemTest, ValuesOfUpToThirtyTwoBytesLiveInsideTheItemAndLongerOnesOutside)
{
	ASSERT_EQ(32, ZvMessageItem::kInlineDataSize);
	for (int32 size : {1, 4, 31, 32, 33, 64, 1000}) {
		const std::vector<uint8> value = Pattern(size, size);
		ZvMessageItem item("v", 0x52415754, size, value.data());
		EXPECT_EQ(size, item.size);
		EXPECT_TRUE(HoldsPattern(item.data, size, size)) << size;
		EXPECT_EQ(size <= ZvMessageItem::kInlineDataSize, ValueIsInsideTheItem(item)) << size;
	}
}

TEST(ZvMessageItemTest, NullDataGivesZerosInlineAndOnTheHeap)
{
	for (int32 size : {32, 33}) {
		ZvMessageItem item("zeros", 0x52415754, size, nullptr);
		ASSERT_NE(nullptr, item.data);
		EXPECT_EQ(std::vector<uint8>(size, 0), std::vector<uint8>(item.data, item.data + size));
	}
}

TEST(ZvMessageItemTest, ReplaceDataGrowingUpToThirtyTwoBytesKeepsTheValueInPlace)
{
	ZvMessageItem item("grow", 0x52415754, 4, "abcd");
	ASSERT_TRUE(ValueIsInsideTheItem(item));
	const uint8* before = item.data;
	for (int32 size : {5, 16, 31, 32}) {
		const std::vector<uint8> value = Pattern(size, size);
		item.ReplaceData(size, value.data());
		EXPECT_EQ(size, item.size);
		EXPECT_EQ(before, item.data) << size;
		EXPECT_TRUE(HoldsPattern(item.data, size, size)) << size;
	}
}

TEST(ZvMessageItemTest, ReplaceDataGrowingPastThirtyTwoBytesMovesTheValueOut)
{
	const std::vector<uint8> small = Pattern(32, 1);
	ZvMessageItem item("grow", 0x52415754, 32, small.data());
	const std::vector<uint8> large = Pattern(33, 2);
	item.ReplaceData(33, large.data());
	EXPECT_EQ(33, item.size);
	EXPECT_FALSE(ValueIsInsideTheItem(item));
	EXPECT_TRUE(HoldsPattern(item.data, 33, 2));

	// Shrinking keeps the stored size of 33 and copies 33 bytes.
	const std::vector<uint8> shorter = Pattern(33, 3);
	const uint8* heap = item.data;
	item.ReplaceData(10, shorter.data());
	EXPECT_EQ(33, item.size);
	EXPECT_EQ(heap, item.data);
	EXPECT_TRUE(HoldsPattern(item.data, 33, 3));

	// Growing again on the heap.
	const std::vector<uint8> larger = Pattern(300, 4);
	item.ReplaceData(300, larger.data());
	EXPECT_EQ(300, item.size);
	EXPECT_TRUE(HoldsPattern(item.data, 300, 4));
}

TEST(ZvMessageItemTest, ReplaceDataOnAnItemWithoutValueMakesAnInlineOne)
{
	ZvMessageItem item("empty", 0x52415754, 0, nullptr);
	ASSERT_EQ(nullptr, item.data);
	item.ReplaceData(8, "12345678");
	EXPECT_EQ(8, item.size);
	EXPECT_TRUE(ValueIsInsideTheItem(item));
	EXPECT_EQ(0, memcmp("12345678", item.data, 8));
}

TEST(ZvMessageItemTest, CopyOfAnInlineValueIsIndependentOfTheOriginal)
{
	for (int32 size : {1, 32, 33}) {
		const std::vector<uint8> value = Pattern(size, 5);
		std::unique_ptr<ZvMessageItem> original(
		    new ZvMessageItem("orig", 0x52415754, size, value.data()));
		ZvMessageItem copy(original.get());
		EXPECT_EQ(size <= ZvMessageItem::kInlineDataSize, ValueIsInsideTheItem(copy)) << size;
		EXPECT_NE(original->data, copy.data);

		// Changing either leaves the other.
		memset(original->data, 0xEE, static_cast<size_t>(size));
		EXPECT_TRUE(HoldsPattern(copy.data, size, 5)) << size;
		const std::vector<uint8> other = Pattern(size, 6);
		copy.ReplaceData(size, other.data());
		EXPECT_EQ(std::vector<uint8>(size, 0xEE),
		          std::vector<uint8>(original->data, original->data + size));

		// The copy outlives its original.
		original.reset();
		EXPECT_TRUE(HoldsPattern(copy.data, size, 6)) << size;
	}
}

TEST(ZvMessageItemTest, ReadingRecordsMovesTheValueBetweenTheItemAndTheHeap)
{
	// One item reads records of each size in turn, as Unflatten refills the
	// items a message already has.
	ZvMessageItem item;
	for (int32 size : {0, 33, 1, 1000, 32, 0, 32, 33, 33, 4}) {
		const std::vector<uint8> value = Pattern(size, size + 1);
		ZvMessageItem source("rec", 0x52415754, size, value.data());
		std::vector<uint8> record(static_cast<size_t>(source.Size()));
		ASSERT_EQ(source.Size(), source.GetData(record.data()));
		ASSERT_EQ(source.Size(), item.SetData(record.data(), record.size())) << size;
		EXPECT_EQ(size, item.size);
		// An empty record leaves a value block behind too.
		ASSERT_NE(nullptr, item.data) << size;
		EXPECT_EQ(size <= ZvMessageItem::kInlineDataSize, ValueIsInsideTheItem(item)) << size;
		EXPECT_TRUE(HoldsPattern(item.data, size, size + 1)) << size;

		ZvMessageItem trusting;
		ASSERT_EQ(source.Size(), trusting.SetData(record.data()));
		EXPECT_EQ(size <= ZvMessageItem::kInlineDataSize, ValueIsInsideTheItem(trusting));
		EXPECT_TRUE(HoldsPattern(trusting.data, size, size + 1)) << size;
	}
}

TEST(ZvMessageItemTest, NothrowNewGivesAUsableItem)
{
	ZvMessageItem* item = new (std::nothrow) ZvMessageItem("nothrow", ZV_INT32_TYPE, 4, "\1\2\3\4");
	ASSERT_NE(nullptr, item);
	EXPECT_STREQ("nothrow", item->name);
	EXPECT_EQ(0, memcmp("\1\2\3\4", item->data, 4));
	delete item;
}

// The class's own operator new hides the global placement form, so the class
// declares one: this test is first of all a check that the expression
// compiles, and then that the item built in place works.
TEST(ZvMessageItemTest, PlacementNewBuildsTheItemInTheCallersStorage)
{
	alignas(ZvMessageItem) unsigned char storage[sizeof(ZvMessageItem)];
	ZvMessageItem* item = new (storage) ZvMessageItem("placed", 0x52415754, 20, nullptr);
	EXPECT_STREQ("placed", item->name);
	EXPECT_EQ(0x52415754u, item->type);
	EXPECT_EQ(20, item->size);
	EXPECT_TRUE(ValueIsInsideTheItem(*item));
	// A null value gives zeros.
	EXPECT_EQ(std::vector<uint8>(20, 0), std::vector<uint8>(item->data, item->data + 20));
	item->ReplaceData(40, std::vector<uint8>(40, 9).data());
	EXPECT_FALSE(ValueIsInsideTheItem(*item));
	// The heap value is freed by the destructor (LeakSanitizer checks).
	item->~ZvMessageItem();
}

TEST(ZvMessageItemTest, ADeletedItemsBlockIsKeptByTheCacheAndReusedForTheNextItem)
{
	if (!LibraryCachesBlocks())
		GTEST_SKIP() << "the block cache is off in this process";
	static_assert(sizeof(ZvMessageItem) <= zvkit::internal::kMaxCachedBlock, "items are cached");
	ZvMessageItem* first = new ZvMessageItem("a", ZV_INT32_TYPE, 4, "abcd");
	void* const address = first;
	delete first;
	// The cache keeps the block: the allocator, which would hand it out
	// again had it been given back, does not have it.
	EXPECT_FALSE(AllocatorHandsOut(address, ClassBytes(sizeof(ZvMessageItem))));
	ZvMessageItem* second = new ZvMessageItem("b", ZV_INT32_TYPE, 4, "efgh");
	EXPECT_EQ(address, static_cast<void*>(second));
	EXPECT_STREQ("b", second->name);
	delete second;
}

// Where an item keeps a small value: in its name buffer, past the name.

// Whether the item's value lies in its name buffer, after the name's
// terminator.
bool ValueIsPastTheName(const ZvMessageItem& item)
{
	const uintptr_t value = reinterpret_cast<uintptr_t>(item.data);
	const uintptr_t nameEnd = reinterpret_cast<uintptr_t>(item.name) + strlen(item.name) + 1;
	const uintptr_t bufferEnd = reinterpret_cast<uintptr_t>(item.name + sizeof(item.name));
	return value >= nameEnd && value + static_cast<uintptr_t>(item.size) <= bufferEnd;
}

// A raw record of one item, as GetData writes it.
std::vector<uint8> RecordOf(const char* name, int32 size, int seed)
{
	const std::vector<uint8> value = Pattern(size, seed);
	ZvMessageItem source(name, 0x52415754, size, size > 0 ? value.data() : nullptr);
	std::vector<uint8> record(static_cast<size_t>(source.Size()));
	source.GetData(record.data());
	return record;
}

TEST(ZvMessageItemTest, AnItemIsNoLargerThanItsFourFields)
{
	EXPECT_EQ(sizeof(type_code) + sizeof(int32) + sizeof(uint8*) + 64, sizeof(ZvMessageItem));
}

TEST(ZvMessageItemTest, UnderANameOfUpTo31CharactersAValueOfUpTo32BytesLiesInTheSecondHalfOfTheName)
{
	for (size_t length : {0, 1, 5, 23, 31}) {
		for (int32 size : {1, 8, 17, 32}) {
			const std::string name(length, 'n');
			const std::vector<uint8> value = Pattern(size, size);
			ZvMessageItem item(name.c_str(), 0x52415754, size, value.data());
			EXPECT_EQ(reinterpret_cast<uint8*>(item.name) + 32, item.data) << length << "/" << size;
			EXPECT_EQ(name, item.name);
			EXPECT_TRUE(HoldsPattern(item.data, size, size)) << length << "/" << size;
		}
	}
}

TEST(ZvMessageItemTest, UnderALongerNameAValueLiesPastTheNameWhenItFitsAndOnTheHeapOtherwise)
{
	// offset: where the value starts in the name buffer; -1: on the heap.
	struct Case
	{
		size_t nameLength;
		int32 size;
		int offset;
	};
	const Case cases[] = {{32, 24, 40}, {32, 25, -1}, {39, 24, 40}, {40, 16, 48},
	                      {40, 17, -1}, {47, 16, 48}, {55, 8, 56},  {55, 9, -1},
	                      {56, 1, -1},  {63, 1, -1},  {63, 32, -1}, {70, 4, -1}};
	for (const Case& c : cases) {
		const std::string name(c.nameLength, 'L');
		const std::vector<uint8> value = Pattern(c.size, 3);
		ZvMessageItem item(name.c_str(), 0x52415754, c.size, value.data());
		EXPECT_EQ(name.substr(0, 63), item.name) << c.nameLength;
		EXPECT_TRUE(HoldsPattern(item.data, c.size, 3)) << c.nameLength << "/" << c.size;
		if (c.offset < 0) {
			EXPECT_FALSE(ValueIsInsideTheItem(item)) << c.nameLength << "/" << c.size;
		} else {
			EXPECT_EQ(reinterpret_cast<uint8*>(item.name) + c.offset, item.data)
			    << c.nameLength << "/" << c.size;
		}
	}
}

TEST(ZvMessageItemTest, NameAndValueNeverShareABytePastTheTerminatorWhateverTheirLengths)
{
	for (size_t length = 0; length <= 63; length++) {
		for (int32 size = 1; size <= 40; size++) {
			const std::string name(length, static_cast<char>('a' + length % 26));
			const std::vector<uint8> value = Pattern(size, static_cast<int>(length));
			ZvMessageItem item(name.c_str(), 0x52415754, size, value.data());
			ASSERT_EQ(name, item.name) << length << "/" << size;
			ASSERT_TRUE(HoldsPattern(item.data, size, static_cast<int>(length)));
			if (size > ZvMessageItem::kInlineDataSize || length >= 56) {
				EXPECT_FALSE(ValueIsInsideTheItem(item)) << length << "/" << size;
			}
			if (length <= 31 && size <= ZvMessageItem::kInlineDataSize) {
				EXPECT_TRUE(ValueIsInsideTheItem(item)) << length << "/" << size;
			}
			if (ValueIsInsideTheItem(item)) {
				EXPECT_TRUE(ValueIsPastTheName(item)) << length << "/" << size;
			}

			// A copy has its own value, in the same kind of place.
			ZvMessageItem copy(&item);
			EXPECT_EQ(name, copy.name);
			EXPECT_NE(item.data, copy.data);
			EXPECT_EQ(ValueIsInsideTheItem(item), ValueIsInsideTheItem(copy));
			EXPECT_TRUE(HoldsPattern(copy.data, size, static_cast<int>(length)));

			// Writing every byte of the value leaves both names alone.
			memset(item.data, 0xFF, static_cast<size_t>(size));
			memset(copy.data, 0xEE, static_cast<size_t>(size));
			ASSERT_EQ(name, item.name) << length << "/" << size;
			ASSERT_EQ(name, copy.name) << length << "/" << size;
		}
	}
}

TEST(ZvMessageItemTest, ReadingARecordUnderAnotherNameGivesTheValueThePlaceOfTheNewName)
{
	// One item reads records whose names and sizes change, as Unflatten
	// refills the items of a message with other fields.
	const std::string longName(60, 'L');
	const std::string middleName(40, 'M');
	const std::string longestName(63, 'z');
	struct Step
	{
		const char* name;
		int32 size;
		bool inside;
	};
	const Step steps[] = {{"s", 32, true},
	                      {longName.c_str(), 32, false},
	                      {"s", 8, true},
	                      {longName.c_str(), 8, false},
	                      {middleName.c_str(), 16, true},
	                      {"x", 40, false},
	                      {"y", 40, false},
	                      {longName.c_str(), 40, false},
	                      {middleName.c_str(), 17, false},
	                      {middleName.c_str(), 16, true},
	                      {"s", 0, true},
	                      {middleName.c_str(), 0, true},
	                      {longestName.c_str(), 0, false}};
	for (bool bounded : {false, true}) {
		ZvMessageItem item("start", 0x52415754, 4, "abcd");
		int seed = 0;
		for (const Step& step : steps) {
			seed++;
			const std::string name = step.name;
			const std::vector<uint8> record = RecordOf(name.c_str(), step.size, seed);
			const int32 consumed =
			    bounded ? item.SetData(record.data(), record.size()) : item.SetData(record.data());
			ASSERT_EQ(static_cast<int32>(record.size()), consumed) << name << "/" << step.size;
			EXPECT_EQ(name, item.name);
			EXPECT_EQ(step.size, item.size);
			ASSERT_NE(nullptr, item.data) << name << "/" << step.size;
			EXPECT_EQ(step.inside, ValueIsInsideTheItem(item)) << name << "/" << step.size;
			if (step.inside) {
				EXPECT_TRUE(ValueIsPastTheName(item)) << name << "/" << step.size;
			}
			EXPECT_TRUE(HoldsPattern(item.data, step.size, seed)) << name << "/" << step.size;
		}
	}
}

TEST(ZvMessageItemTest, ReplaceDataUnderALongNameMovesTheValueOutOnceItNoLongerFits)
{
	const std::string name(40, 'r');
	ZvMessageItem item(name.c_str(), 0x52415754, 8, Pattern(8, 1).data());
	uint8* const place = reinterpret_cast<uint8*>(item.name) + 48;
	ASSERT_EQ(place, item.data);
	item.ReplaceData(16, Pattern(16, 2).data());
	EXPECT_EQ(place, item.data);
	EXPECT_TRUE(HoldsPattern(item.data, 16, 2));
	item.ReplaceData(17, Pattern(17, 3).data());
	EXPECT_FALSE(ValueIsInsideTheItem(item));
	EXPECT_TRUE(HoldsPattern(item.data, 17, 3));
	EXPECT_EQ(name, item.name);
}

// Construction, copy and assignment

TEST(ZvMessageCoreTest, NewMessageHasWhatAndNoItems)
{
	ZvMessage message(0x74657374);
	EXPECT_EQ(0x74657374u, message.what);
	EXPECT_TRUE(message.IsEmpty());
	EXPECT_EQ(0u, FlagsOf(message));
	EXPECT_EQ(0, message.CountNames(ZV_ANY_TYPE));
}

TEST(ZvMessageCoreTest, CopyConstructorCopiesItemsButNotFlags)
{
	ZvMessage original(7);
	original.SetFlags(5);
	original.AddInt32("a", 1);
	original.AddString("b", "two");
	ZvMessage copy(original);
	ZvMessage pointerCopy(&original);
	for (const ZvMessage* m : {&copy, &pointerCopy}) {
		EXPECT_EQ(7u, m->what);
		EXPECT_EQ(0u, FlagsOf(*m));
		EXPECT_EQ(Layout(original), Layout(*m));
		int32 value;
		EXPECT_TRUE(m->FindInt32("a", &value));
		EXPECT_EQ(1, value);
	}
	// Deep: changing the copy leaves the original.
	copy.ReplaceInt32("a", 99);
	int32 value;
	original.FindInt32("a", &value);
	EXPECT_EQ(1, value);
}

TEST(ZvMessageCoreTest, AssignmentKeepsOwnFlagsAndReplacesItems)
{
	ZvMessage source(1);
	source.SetFlags(5);
	source.AddInt32("s", 1);
	ZvMessage target(2);
	target.SetFlags(9);
	target.AddBool("old", true);
	target = source;
	EXPECT_EQ(1u, target.what);
	EXPECT_EQ(9u, FlagsOf(target));
	EXPECT_EQ("s:SI32 ", Layout(target));

	ZvMessage viaSet(3);
	viaSet.SetFlags(4);
	viaSet.Set(&source);
	EXPECT_EQ(1u, viaSet.what);
	EXPECT_EQ(4u, FlagsOf(viaSet));
	EXPECT_EQ("s:SI32 ", Layout(viaSet));
}

TEST(ZvMessageCoreTest, FlagsSurviveTheFlatFormOnly)
{
	ZvMessage message(1);
	message.SetFlags(5);
	ZvMessage copied(message);
	ZvMessage assigned(2);
	assigned = message;
	std::vector<uint8> flat = FlatBytes(message);
	ZvMessage restored(static_cast<const void*>(flat.data()));
	EXPECT_EQ(0u, FlagsOf(copied));
	EXPECT_EQ(0u, FlagsOf(assigned));
	EXPECT_EQ(5u, FlagsOf(restored));
}

TEST(ZvMessageCoreTest, NullMessageCopiesToAnEmptyMessageAndSetFromNullChangesNothing)
{
	ZvMessage copy(static_cast<const ZvMessage*>(nullptr));
	EXPECT_EQ(0u, copy.what);
	EXPECT_TRUE(copy.IsEmpty());
	ZvMessage message(3);
	message.SetFlags(4);
	message.AddInt32("kept", 1);
	message.Set(nullptr);
	EXPECT_EQ(3u, message.what);
	EXPECT_EQ(4u, FlagsOf(message));
	EXPECT_TRUE(message.HasInt32("kept", 0));
}

TEST(ZvMessageCoreTest, AssigningToItselfEmptiesItAndKeepsWhat)
{
	ZvMessage message(42);
	message.AddInt32("a", 1);
	message.AddInt32("b", 2);
	ZvMessage& self = message;
	message = self;
	EXPECT_TRUE(message.IsEmpty());
	EXPECT_EQ(42u, message.what);
}

TEST(ZvMessageCoreTest, MakeEmptyKeepsWhatAndFlags)
{
	ZvMessage message(42);
	message.SetFlags(3);
	for (int i = 0; i < 40; i++)
		message.AddInt32("n", i);
	message.MakeEmpty();
	EXPECT_TRUE(message.IsEmpty());
	EXPECT_EQ(42u, message.what);
	EXPECT_EQ(3u, FlagsOf(message));
	EXPECT_EQ(12, message.FlattenedSize());
}

// Names, counts and information

TEST(ZvMessageCoreTest, CountNamesCountsDistinctNamesPerType)
{
	ZvMessage message(0);
	message.AddInt32("a", 1);
	message.AddInt32("a", 2);
	message.AddInt32("b", 3);
	message.AddString("a", "x");
	message.AddString("c", "y");
	EXPECT_EQ(3, message.CountNames(ZV_ANY_TYPE));
	EXPECT_EQ(2, message.CountNames(ZV_INT32_TYPE));
	EXPECT_EQ(2, message.CountNames(ZV_STRING_TYPE));
	EXPECT_EQ(0, message.CountNames(ZV_DOUBLE_TYPE));
}

TEST(ZvMessageCoreTest, CountNamesHandlesMoreThanOneListStepOfNames)
{
	ZvMessage message(0);
	for (int i = 0; i < 40; i++) {
		const std::string name = "name" + std::to_string(i);
		message.AddInt32(name.c_str(), i);
		message.AddInt32(name.c_str(), i);
	}
	EXPECT_EQ(40, message.CountNames(ZV_INT32_TYPE));
}

TEST(ZvMessageCoreTest, GetInfoByTypeGivesTheIndexthItemOfThatTypeAndItsCount)
{
	ZvMessage message(0);
	message.AddString("s0", "x");
	message.AddInt32("i0", 0);
	message.AddBool("b0", true);
	message.AddInt32("i1", 1);
	message.AddInt32("i2", 2);
	char* name = nullptr;
	type_code type = 0;
	int32 count = -1;
	ASSERT_TRUE(message.GetInfo(ZV_INT32_TYPE, 1, &name, &type, &count));
	EXPECT_STREQ("i1", name);
	EXPECT_EQ(ZV_INT32_TYPE, type);
	EXPECT_EQ(3, count);

	ASSERT_TRUE(message.GetInfo(ZV_ANY_TYPE, 1, &name, &type, &count));
	EXPECT_STREQ("i0", name);
	EXPECT_EQ(ZV_INT32_TYPE, type);
	EXPECT_EQ(5, count);
}

TEST(ZvMessageCoreTest, GetInfoByTypePointsIntoTheItemsName)
{
	ZvMessage message(0);
	message.AddInt32("field", 1);
	char* name = nullptr;
	ASSERT_TRUE(message.GetInfo(ZV_INT32_TYPE, 0, &name, nullptr, nullptr));
	ZvMessageItem* item = nullptr;
	ASSERT_TRUE(message._FindData("field", ZV_INT32_TYPE, 0, &item));
	EXPECT_EQ(item->name, name);
}

TEST(ZvMessageCoreTest, GetInfoByTypeFailsWithCountZero)
{
	ZvMessage empty(0);
	int32 count = -1;
	EXPECT_FALSE(empty.GetInfo(ZV_INT32_TYPE, 0, nullptr, nullptr, &count));
	EXPECT_EQ(0, count);

	ZvMessage message(0);
	message.AddInt32("a", 1);
	count = -1;
	EXPECT_FALSE(message.GetInfo(ZV_INT32_TYPE, 1, nullptr, nullptr, &count));
	EXPECT_EQ(0, count);
	count = -1;
	EXPECT_FALSE(message.GetInfo(ZV_INT32_TYPE, -1, nullptr, nullptr, &count));
	EXPECT_EQ(0, count);
	count = -1;
	EXPECT_FALSE(message.GetInfo(ZV_ANY_TYPE, 1, nullptr, nullptr, &count));
	EXPECT_EQ(0, count);
	count = -1;
	EXPECT_FALSE(message.GetInfo(ZV_ANY_TYPE, -1, nullptr, nullptr, &count));
	EXPECT_EQ(0, count);
	EXPECT_FALSE(message.GetInfo(ZV_DOUBLE_TYPE, 0, nullptr, nullptr, nullptr));
}

TEST(ZvMessageCoreTest, GetInfoByNameGivesFirstTypeAndCountOfAllTypes)
{
	ZvMessage message(0);
	message.AddBool("other", true);
	message.AddString("n", "x");
	message.AddInt32("n", 1);
	message.AddInt32("n", 2);
	type_code type = 0;
	int32 count = -1;
	ASSERT_TRUE(message.GetInfo("n", &type, &count));
	EXPECT_EQ(ZV_STRING_TYPE, type);
	EXPECT_EQ(3, count);

	count = -1;
	EXPECT_FALSE(message.GetInfo("missing", &type, &count));
	EXPECT_EQ(0, count);
	count = -1;
	EXPECT_FALSE(message.GetInfo(static_cast<const char*>(nullptr), &type, &count));
	EXPECT_EQ(0, count);
	ZvMessage empty(0);
	count = -1;
	EXPECT_FALSE(empty.GetInfo("n", &type, &count));
	EXPECT_EQ(0, count);
}

// Removal

TEST(ZvMessageCoreTest, RemoveNameDeletesEveryItemOfThatNameWhateverItsType)
{
	ZvMessage message(0);
	message.AddInt32("x", 1);
	message.AddInt32("keep", 2);
	message.AddString("x", "s");
	message.AddBool("x", true);
	message.AddInt32("keep", 3);
	EXPECT_TRUE(message.RemoveName("x"));
	EXPECT_EQ("keep:SI32 keep:SI32 ", Layout(message));
	EXPECT_FALSE(message.RemoveName("x"));
	EXPECT_FALSE(message.RemoveName(nullptr));
}

TEST(ZvMessageCoreTest, RemoveDataIndexCountsAcrossTypes)
{
	ZvMessage message(0);
	message.AddInt32("v", 1);
	message.AddString("v", "text");
	EXPECT_TRUE(message.RemoveData("v", 1));
	EXPECT_FALSE(message.HasString("v", 0));
	EXPECT_TRUE(message.HasInt32("v", 0));
	EXPECT_EQ("v:SI32 ", Layout(message));
}

TEST(ZvMessageCoreTest, RemoveDataRefusesNullNameNegativeIndexAndMissingItem)
{
	ZvMessage message(0);
	message.AddInt32("v", 1);
	EXPECT_FALSE(message.RemoveData(nullptr, 0));
	EXPECT_FALSE(message.RemoveData("v", -1));
	EXPECT_FALSE(message.RemoveData("v", 1));
	EXPECT_FALSE(message.RemoveData("w", 0));
	EXPECT_EQ(1, CountOf(message));
}

// Operators

TEST(ZvMessageCoreTest, PlusAppendsTheOtherItemsAfterOwnAndClearsFlags)
{
	ZvMessage left(1);
	left.SetFlags(8);
	left.AddInt32("a", 1);
	left.AddInt32("shared", 2);
	ZvMessage right(2);
	right.AddInt32("shared", 3);
	right.AddBool("b", true);
	ZvMessage sum = left + right;
	EXPECT_EQ(1u, sum.what);
	EXPECT_EQ(0u, FlagsOf(sum));
	EXPECT_EQ("a:SI32 shared:SI32 shared:SI32 b:BOOL ", Layout(sum));
	int32 value;
	ASSERT_TRUE(sum.FindInt32("shared", 1, &value));
	EXPECT_EQ(3, value);
	EXPECT_EQ(2, CountOf(left));
}

TEST(ZvMessageCoreTest, PlusWithItselfHoldsEveryItemTwice)
{
	ZvMessage message(1);
	message.AddInt32("a", 1);
	message.AddString("b", "x");
	ZvMessage twice = message + message;
	EXPECT_EQ("a:SI32 b:CPTR a:SI32 b:CPTR ", Layout(twice));
	EXPECT_EQ(2, CountOf(message));
}

TEST(ZvMessageCoreTest, PlusEqualsAppendsAndKeepsWhatAndFlags)
{
	ZvMessage left(1);
	left.SetFlags(6);
	left.AddInt32("a", 1);
	ZvMessage right(2);
	right.SetFlags(7);
	right.AddInt32("a", 2);
	ZvMessage& result = (left += right);
	EXPECT_EQ(&left, &result);
	EXPECT_EQ(1u, left.what);
	EXPECT_EQ(6u, FlagsOf(left));
	EXPECT_EQ("a:SI32 a:SI32 ", Layout(left));
}

TEST(ZvMessageCoreTest, MinusRemovesTheNameFromACopy)
{
	ZvMessage message(1);
	message.SetFlags(2);
	message.AddInt32("a", 1);
	message.AddInt32("b", 2);
	message.AddString("a", "x");
	ZvMessage difference = message - "a";
	EXPECT_EQ("b:SI32 ", Layout(difference));
	EXPECT_EQ(0u, FlagsOf(difference));
	EXPECT_EQ(3, CountOf(message));

	ZvMessage& result = (message -= "a");
	EXPECT_EQ(&message, &result);
	EXPECT_EQ("b:SI32 ", Layout(message));
	EXPECT_EQ(2u, FlagsOf(message));
}

// Generic data operations

TEST(ZvMessageCoreTest, AddDataRefusesTheWildcardAndNullData)
{
	ZvMessage message(0);
	EXPECT_FALSE(message.AddData("x", ZV_ANY_TYPE, "abcd", 4));
	EXPECT_FALSE(message.AddData("x", ZV_INT32_TYPE, nullptr, 4));
	EXPECT_TRUE(message.IsEmpty());
	EXPECT_TRUE(message._AddData("x", ZV_ANY_TYPE, 4, "abcd"));
	EXPECT_FALSE(message._AddData("x", ZV_INT32_TYPE, 4, nullptr));
	EXPECT_EQ("x:ANYT ", Layout(message));
}

TEST(ZvMessageCoreTest, AddDataWithSizeBelowOneMakesAnItemWithoutBlock)
{
	ZvMessage message(0);
	EXPECT_TRUE(message.AddData("empty", 0x52415754, "", 0));
	const void* data = reinterpret_cast<const void*>(1);
	int32 size = -1;
	ASSERT_TRUE(message.FindData("empty", 0x52415754, &data, &size));
	EXPECT_EQ(nullptr, data);
	EXPECT_EQ(0, size);
}

TEST(ZvMessageCoreTest, FindDataHandsBackTheItemsOwnBlock)
{
	ZvMessage message(0);
	message.AddData("raw", 0x52415754, "hello", 5);
	const void* data = nullptr;
	int32 size = 0;
	ASSERT_TRUE(message.FindData("raw", 0x52415754, 0, &data, &size));
	EXPECT_EQ(5, size);
	ZvMessageItem* item = nullptr;
	ASSERT_TRUE(message._FindData("raw", 0x52415754, 0, &item));
	EXPECT_EQ(item->data, data);
	// The size pointer is optional.
	EXPECT_TRUE(message.FindData("raw", ZV_ANY_TYPE, &data, nullptr));
}

TEST(ZvMessageCoreTest, FindDataFailsOnNullOutNullNameAndMissingMatch)
{
	ZvMessage message(0);
	message.AddData("raw", 0x52415754, "hello", 5);
	const void* data = nullptr;
	ZvMessageItem* item = nullptr;
	EXPECT_FALSE(message.FindData("raw", 0x52415754, nullptr, nullptr));
	EXPECT_FALSE(message.FindData(nullptr, 0x52415754, &data, nullptr));
	EXPECT_FALSE(message.FindData("raw", ZV_INT32_TYPE, &data, nullptr));
	EXPECT_FALSE(message.FindData("raw", 0x52415754, 1, &data, nullptr));
	EXPECT_FALSE(message.FindData("raw", 0x52415754, -1, &data, nullptr));
	EXPECT_FALSE(message._FindData(nullptr, 0x52415754, 0, &item));
	EXPECT_FALSE(message._FindData("raw", 0x52415754, 0, nullptr));
}

TEST(ZvMessageCoreTest, MatchingIsCaseSensitiveWholeNameAndCountsInOrder)
{
	ZvMessage message(0);
	message.AddInt32("Name", 1);
	message.AddInt32("name", 2);
	message.AddString("name", "between");
	message.AddInt32("name", 3);
	message.AddInt32("names", 4);
	const void* data;
	ASSERT_TRUE(message.FindData("name", ZV_INT32_TYPE, 1, &data, nullptr));
	EXPECT_EQ(3, *static_cast<const int32*>(data));
	ASSERT_TRUE(message.FindData("name", ZV_ANY_TYPE, 1, &data, nullptr));
	EXPECT_STREQ("between", static_cast<const char*>(data));
	EXPECT_FALSE(message.HasData("nam", ZV_ANY_TYPE, 0));
	EXPECT_FALSE(message.HasData("NAME", ZV_ANY_TYPE, 0));
	EXPECT_TRUE(message.HasData("Name", ZV_ANY_TYPE, 0));
}

TEST(ZvMessageCoreTest, SeventyCharacterNameIsStoredCutAndTheFullNameFindsNothing)
{
	const std::string longName(70, 'n');
	ZvMessage message(0);
	ASSERT_TRUE(message.AddInt32(longName.c_str(), 9));
	int32 value = 0;
	EXPECT_FALSE(message.FindInt32(longName.c_str(), &value));
	EXPECT_TRUE(message.FindInt32(longName.substr(0, 63).c_str(), &value));
	EXPECT_EQ(9, value);
}

TEST(ZvMessageCoreTest, NullNameAddsUnnamed)
{
	ZvMessage message(0);
	ASSERT_TRUE(message.AddInt32(nullptr, 5));
	int32 value = 0;
	EXPECT_TRUE(message.FindInt32("@@@Unnamed", &value));
	EXPECT_EQ(5, value);
}

TEST(ZvMessageCoreTest, ReplaceDataOfTenBytesWithFourKeepsTenAndCopiesTen)
{
	ZvMessage message(0);
	message.AddData("raw", 0x52415754, "0123456789", 10);
	const char source[] = "abcdefghij";
	ASSERT_TRUE(message.ReplaceData("raw", 0x52415754, source, 4));
	EXPECT_EQ("abcdefghij", RawValue(message, "raw"));
}

TEST(ZvMessageCoreTest, ReplaceDataWithLargerValueGrowsTheItem)
{
	ZvMessage message(0);
	message.AddData("raw", 0x52415754, "ab", 2);
	ASSERT_TRUE(message._ReplaceData("raw", ZV_ANY_TYPE, 0, 6, "uvwxyz"));
	EXPECT_EQ("uvwxyz", RawValue(message, "raw"));
}

TEST(ZvMessageCoreTest, ReplaceDataRefusesNullDataNullNameAndMissingMatch)
{
	ZvMessage message(0);
	message.AddData("raw", 0x52415754, "ab", 2);
	EXPECT_FALSE(message.ReplaceData("raw", 0x52415754, nullptr, 2));
	EXPECT_FALSE(message.ReplaceData(nullptr, 0x52415754, "cd", 2));
	EXPECT_FALSE(message.ReplaceData("raw", 0x52415754, 1, "cd", 2));
	EXPECT_FALSE(message._ReplaceData("raw", ZV_INT32_TYPE, 0, 2, "cd"));
	EXPECT_EQ("ab", RawValue(message, "raw"));
}

TEST(ZvMessageCoreTest, HasDataIsFalseOnEmptyMessageNegativeIndexAndNullName)
{
	ZvMessage message(0);
	EXPECT_FALSE(message.HasData("a", ZV_ANY_TYPE, 0));
	message.AddInt32("a", 1);
	EXPECT_TRUE(message.HasData("a", ZV_ANY_TYPE, 0));
	EXPECT_TRUE(message._HasData("a", ZV_INT32_TYPE, 0));
	EXPECT_FALSE(message.HasData("a", ZV_ANY_TYPE, -1));
	EXPECT_FALSE(message.HasData("a", ZV_ANY_TYPE, 1));
	EXPECT_FALSE(message._HasData(nullptr, ZV_ANY_TYPE, 0));
}

TEST(ZvMessageCoreTest, ManyItemsGrowAndShrinkTheItemList)
{
	ZvMessage message(0);
	for (int i = 0; i < 500; i++)
		message.AddInt32("n", i);
	for (int i = 0; i < 500; i += 7) {
		int32 value;
		ASSERT_TRUE(message.FindInt32("n", i, &value));
		ASSERT_EQ(i, value);
	}
	for (int i = 0; i < 490; i++)
		ASSERT_TRUE(message.RemoveData("n", 0));
	int32 value;
	ASSERT_TRUE(message.FindInt32("n", 0, &value));
	EXPECT_EQ(490, value);
	EXPECT_EQ(10, CountOf(message));
}

TEST(ZvMessageCoreTest, FindDataOfValuesAroundThirtyTwoBytesStaysValidWhileTheMessageGrows)
{
	ZvMessage message(0);
	const int32 sizes[] = {31, 32, 33};
	for (int32 size : sizes) {
		const std::vector<uint8> value = Pattern(size, size);
		ASSERT_TRUE(message.AddData(std::to_string(size).c_str(), 0x52415754, value.data(), size));
	}
	std::vector<const void*> found;
	for (int32 size : sizes) {
		const void* data = nullptr;
		int32 length = 0;
		ASSERT_TRUE(message.FindData(std::to_string(size).c_str(), 0x52415754, &data, &length));
		EXPECT_EQ(size, length);
		EXPECT_TRUE(HoldsPattern(data, size, size));
		ZvMessageItem* item = nullptr;
		ASSERT_TRUE(message._FindData(std::to_string(size).c_str(), 0x52415754, 0, &item));
		EXPECT_EQ(item->data, data);
		EXPECT_EQ(size <= ZvMessageItem::kInlineDataSize, ValueIsInsideTheItem(*item)) << size;
		found.push_back(data);
	}

	// The item list grows several times; the items themselves stay put.
	for (int i = 0; i < 300; i++)
		message.AddInt64("filler", i);
	for (size_t i = 0; i < found.size(); i++) {
		const void* data = nullptr;
		ASSERT_TRUE(message.FindData(std::to_string(sizes[i]).c_str(), 0x52415754, &data, nullptr));
		EXPECT_EQ(found[i], data);
		EXPECT_TRUE(HoldsPattern(found[i], sizes[i], sizes[i]));
	}
}

TEST(ZvMessageCoreTest, ReplacingAnInlineValueWithALargerOneUpToThirtyTwoBytesKeepsItsAddress)
{
	ZvMessage message(0);
	message.AddInt32("v", 7);
	const void* before = nullptr;
	ASSERT_TRUE(message.FindData("v", ZV_INT32_TYPE, &before, nullptr));
	const std::vector<uint8> value = Pattern(32, 8);
	ASSERT_TRUE(message.ReplaceData("v", ZV_INT32_TYPE, value.data(), 32));
	const void* after = nullptr;
	int32 size = 0;
	ASSERT_TRUE(message.FindData("v", ZV_INT32_TYPE, &after, &size));
	EXPECT_EQ(before, after);
	EXPECT_EQ(32, size);
	EXPECT_TRUE(HoldsPattern(after, 32, 8));

	const std::vector<uint8> larger = Pattern(33, 9);
	ASSERT_TRUE(message.ReplaceData("v", ZV_INT32_TYPE, larger.data(), 33));
	ASSERT_TRUE(message.FindData("v", ZV_INT32_TYPE, &after, &size));
	EXPECT_EQ(33, size);
	EXPECT_TRUE(HoldsPattern(after, 33, 9));
}

TEST(ZvMessageCoreTest, ACopiedMessagesInlineValuesAreIndependentOfTheOriginal)
{
	std::unique_ptr<ZvMessage> original(new ZvMessage(3));
	original->AddInt32("small", 1);
	original->AddString("text", "thirty-one characters of text!");
	const std::vector<uint8> large = Pattern(33, 10);
	original->AddData("large", 0x52415754, large.data(), 33);
	ZvMessage copy(*original);

	copy.ReplaceInt32("small", 2);
	copy.ReplaceString("text", "other");
	original->ReplaceString("text", "changed in the original as well");
	int32 value = 0;
	ASSERT_TRUE(original->FindInt32("small", &value));
	EXPECT_EQ(1, value);

	const char* text = nullptr;
	ASSERT_TRUE(copy.FindString("text", &text));
	// The stored size never shrinks: the copy keeps 31 bytes, "other" and
	// zeros.
	EXPECT_STREQ("other", text);
	original.reset();
	ASSERT_TRUE(copy.FindInt32("small", &value));
	EXPECT_EQ(2, value);
	EXPECT_STREQ("other", text);
	EXPECT_EQ(std::string(reinterpret_cast<const char*>(large.data()), 33),
	          RawValue(copy, "large"));
}

TEST(ZvMessageCoreTest, AMessageKeepsWhatFewMessagesNeedBehindOneWord)
{
	// The table of virtual functions, what, flags, the item list, and one
	// pointer for a request's link and the name index together.
	EXPECT_EQ(sizeof(void*) + 2 * sizeof(uint32) + sizeof(ZvList<ZvMessageItem*>) + sizeof(void*),
	          sizeof(ZvMessage));
}

// A message whose fields have names of every length and values of sizes
// around those kept inside an item.
ZvMessage FieldsOfEveryNameLength()
{
	ZvMessage message(0x6E616D65);
	for (size_t length = 1; length <= 70; length++) {
		const std::string name(length, static_cast<char>('a' + length % 26));
		const int32 size = static_cast<int32>(length % 41) + 1;
		const std::vector<uint8> value = Pattern(size, static_cast<int>(length));
		message.AddData(name.c_str(), 0x52415754, value.data(), size);
		message.AddInt64(name.c_str(), static_cast<int64>(length) * 1000003);
		message.AddString(name.c_str(), std::string(length % 30, 's').c_str());
	}
	return message;
}

// Whether message holds exactly the fields FieldsOfEveryNameLength adds.
bool HoldsFieldsOfEveryNameLength(const ZvMessage& message)
{
	bool intact = true;
	for (size_t length = 1; length <= 70; length++) {
		// Names past 63 characters were kept cut.
		const std::string name(std::min<size_t>(length, 63), static_cast<char>('a' + length % 26));
		const int32 size = static_cast<int32>(length % 41) + 1;
		const void* data = nullptr;
		int32 found = 0;
		int64 number = 0;
		const char* text = nullptr;
		intact = intact && message.FindData(name.c_str(), 0x52415754, &data, &found) &&
		         found == size && HoldsPattern(data, size, static_cast<int>(length)) &&
		         message.FindInt64(name.c_str(), &number) &&
		         number == static_cast<int64>(length) * 1000003 &&
		         message.FindString(name.c_str(), &text) &&
		         std::string(text) == std::string(length % 30, 's');
	}
	return intact;
}

TEST(ZvMessageCoreTest, FieldsUnderNamesOfEveryLengthSurviveCopiesMergesAndTheFlatForm)
{
	const ZvMessage message = FieldsOfEveryNameLength();
	ASSERT_TRUE(HoldsFieldsOfEveryNameLength(message));
	const std::vector<uint8> flat = FlatBytes(message);

	const ZvMessage copy(message);
	const ZvMessage pointerCopy(&message);
	ZvMessage assigned(1);
	assigned.AddString("earlier", "field");
	assigned = message;
	ZvMessage appended(message.what);
	appended += message;
	const ZvMessage sum = ZvMessage(message.what) + message;
	const ZvMessage difference = message - "no such name";
	const ZvMessage* const results[] = {&copy,     &pointerCopy, &assigned,
	                                    &appended, &sum,         &difference};
	for (const ZvMessage* result : results) {
		EXPECT_TRUE(HoldsFieldsOfEveryNameLength(*result));
		EXPECT_EQ(flat, FlatBytes(*result));
	}

	// Read into a message whose items had other names and sizes: every item
	// is refilled under a new name.
	for (int form = 0; form < 3; form++) {
		ZvMessage refilled(0);
		for (int i = 0; i < 300; i++) {
			const std::string name(static_cast<size_t>(63 - i % 63), 'q');
			refilled.AddData(name.c_str(), 0x52415754, Pattern(i % 50 + 1, i).data(), i % 50 + 1);
		}
		if (form == 0) {
			ASSERT_TRUE(refilled.Unflatten(flat.data()));
		} else if (form == 1) {
			ASSERT_TRUE(refilled.Unflatten(flat.data(), flat.size()));
		} else {
			const zv_byte_order other =
			    ZV_HostByteOrder() == ZV_LITTLE_ENDIAN ? ZV_BIG_ENDIAN : ZV_LITTLE_ENDIAN;
			std::vector<uint8> swapped(flat.size());
			ASSERT_EQ(B_OK, message.Flatten(swapped.data(), other));
			ASSERT_EQ(B_OK, refilled.Unflatten(swapped.data(), swapped.size(), other));
		}
		EXPECT_TRUE(HoldsFieldsOfEveryNameLength(refilled)) << form;
		EXPECT_EQ(flat, FlatBytes(refilled)) << form;
	}
}

TEST(ZvMessageCoreTest, NothrowNewGivesAUsableMessage)
{
	ZvMessage* message = new (std::nothrow) ZvMessage(11);
	ASSERT_NE(nullptr, message);
	EXPECT_EQ(11u, message->what);
	for (int i = 0; i < 40; i++)
		message->AddInt32("n", i);
	int32 value = 0;
	EXPECT_TRUE(message->FindInt32("n", 39, &value));
	EXPECT_EQ(39, value);
	delete message;
}

// As for items, the class declares its own placement form (its operator new
// hides the global one): this checks that the expression compiles, and that
// the message built in place works.
TEST(ZvMessageCoreTest, PlacementNewBuildsTheMessageInTheCallersStorage)
{
	alignas(ZvMessage) unsigned char storage[sizeof(ZvMessage)];
	ZvMessage* message = new (storage) ZvMessage(12);
	EXPECT_EQ(12u, message->what);
	EXPECT_TRUE(message->IsEmpty());
	message->AddString("s", "placed");
	const char* text = nullptr;
	EXPECT_TRUE(message->FindString("s", &text));
	EXPECT_STREQ("placed", text);
	// The destructor frees the items (LeakSanitizer checks).
	message->~ZvMessage();
}

// A message class with members of its own, as applications derive them.
template <size_t kTail> class TailedMessage : public ZvMessage
{
public:
	explicit TailedMessage(int* destroyed) : ZvMessage(uint32(kTail)), fDestroyed(destroyed)
	{
		for (size_t i = 0; i < kTail; i++)
			fTail[i] = static_cast<uint8>(i * 3);
	}

	~TailedMessage() override { *fDestroyed += TailIntact() ? 1 : 1000; }

	bool TailIntact() const
	{
		for (size_t i = 0; i < kTail; i++) {
			if (fTail[i] != static_cast<uint8>(i * 3))
				return false;
		}
		return true;
	}

private:
	int* fDestroyed;
	uint8 fTail[kTail];
};

template <size_t kTail> void CheckDerivedMessageThroughBasePointer()
{
	int destroyed = 0;
	ZvMessage* message = new TailedMessage<kTail>(&destroyed);
	message->AddInt32("a", 1);
	message->AddString("b", "two");
	EXPECT_TRUE(static_cast<TailedMessage<kTail>*>(message)->TailIntact());
	delete message;
	EXPECT_EQ(1, destroyed);
}

TEST(ZvMessageCoreTest, DerivedMessagesWithMembersOfTheirOwnAreDeletedThroughABasePointer)
{
	// Cached sizes and one past the cache's largest block.
	CheckDerivedMessageThroughBasePointer<8>();
	CheckDerivedMessageThroughBasePointer<100>();
	CheckDerivedMessageThroughBasePointer<300>();
}

TEST(ZvMessageCoreTest, ADerivedMessageIsFreedAsItsOwnSizeNotTheBaseSize)
{
	if (!LibraryCachesBlocks())
		GTEST_SKIP() << "the block cache is off in this process";
	using Derived = TailedMessage<100>;
	static_assert(ClassBytes(sizeof(Derived)) != ClassBytes(sizeof(ZvMessage)),
	              "sizes in different classes");
	static_assert(sizeof(Derived) <= zvkit::internal::kMaxCachedBlock, "derived message is cached");
	int destroyed = 0;
	ZvMessage* derived = new Derived(&destroyed);
	void* const address = derived;
	delete derived;
	// The cache keeps the block rather than giving it back to the allocator.
	EXPECT_FALSE(AllocatorHandsOut(address, ClassBytes(sizeof(Derived))));
	// Freed with the derived size, the block went to the derived size's
	// class: a base message does not get it, the next derived one does.
	ZvMessage* base = new ZvMessage(1);
	EXPECT_NE(address, static_cast<void*>(base));
	ZvMessage* again = new Derived(&destroyed);
	EXPECT_EQ(address, static_cast<void*>(again));
	delete again;
	delete base;
	EXPECT_EQ(2, destroyed);
}

} // namespace
