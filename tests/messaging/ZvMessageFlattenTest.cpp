// The flattened form: exact bytes, round trips, the trusting Unflatten, and
// the bounded Unflatten against truncated and corrupted blocks.
#include <ZvMessage.h>

#include "MessageTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

using zvtest::FlatBytes;
using zvtest::RandomMessageBuilder;

std::vector<uint8> Bytes(std::initializer_list<int> values)
{
	std::vector<uint8> bytes;
	for (int value : values)
		bytes.push_back(static_cast<uint8>(value));
	return bytes;
}

uint32 FlagsOf(const ZvMessage& message)
{
	return FlatBytes(message)[4] | FlatBytes(message)[5] << 8;
}

TEST(ZvMessageFlattenTest, EmptyMessageFlattensToTwelveBytes)
{
	ZvMessage message(0x01020304);
	message.SetFlags(0x0A0B0C0D);
	EXPECT_EQ(12, message.FlattenedSize());
	std::vector<uint8> buffer(64, 0xEE);
	int32 size = -1;
	ASSERT_TRUE(message.Flatten(buffer.data(), &size));
	EXPECT_EQ(12, size);
	const std::vector<uint8> expected =
	    Bytes({0x04, 0x03, 0x02, 0x01, 0x0D, 0x0C, 0x0B, 0x0A, 0, 0, 0, 0});
	EXPECT_EQ(expected, std::vector<uint8>(buffer.begin(), buffer.begin() + 12));
	EXPECT_EQ(0xEE, buffer[12]);
}

TEST(ZvMessageFlattenTest, OneInt32ItemFlattensToTheTwentySixByteBlock)
{
	ZvMessage message(1);
	message.SetFlags(2);
	message.AddInt32("n", 7);
	EXPECT_EQ(26, message.FlattenedSize());
	const std::vector<uint8> expected =
	    Bytes({0x01, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x32,
	           0x33, 0x49, 0x53, 0x6E, 0x00, 0x04, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00});
	EXPECT_EQ(expected, FlatBytes(message));
}

TEST(ZvMessageFlattenTest, FlattenWithoutSizeAndWithNullBuffer)
{
	ZvMessage message(1);
	message.AddBool("b", true);
	std::vector<uint8> buffer(message.FlattenedSize());
	EXPECT_TRUE(message.Flatten(buffer.data()));
	EXPECT_EQ(FlatBytes(message), buffer);
	int32 size = -1;
	EXPECT_FALSE(message.Flatten(nullptr, &size));
	EXPECT_EQ(-1, size);
}

TEST(ZvMessageFlattenTest, RecordLengthIsTheItemSize)
{
	ZvMessageItem item("name", ZV_INT16_TYPE, 2, "\x11\x22");
	std::vector<uint8> record(item.Size());
	EXPECT_EQ(4 + 5 + 4 + 2, item.GetData(record.data()));
	EXPECT_EQ(Bytes({0x36, 0x31, 0x49, 0x53, 'n', 'a', 'm', 'e', 0, 2, 0, 0, 0, 0x11, 0x22}),
	          record);
	ZvMessageItem read;
	EXPECT_EQ(15, read.SetData(record.data()));
	EXPECT_EQ(ZV_INT16_TYPE, read.type);
	EXPECT_STREQ("name", read.name);
	EXPECT_EQ(2, read.size);
	EXPECT_EQ(0x2211, read.data[0] | read.data[1] << 8);
}

TEST(ZvMessageFlattenTest, StringRecordHoldsTheTerminatorTwice)
{
	ZvMessage message(0);
	message.AddString("s", "ab");
	const std::vector<uint8> flat = FlatBytes(message);
	const std::vector<uint8> record(flat.begin() + 12, flat.end());
	EXPECT_EQ(Bytes({0x52, 0x54, 0x50, 0x43, 's', 0, 3, 0, 0, 0, 'a', 'b', 0}), record);
}

TEST(ZvMessageFlattenTest, UnflattenRestoresWhatFlagsOrderNamesTypesAndBytes)
{
	ZvMessage message(0x41424344);
	message.SetFlags(5);
	message.AddInt32("a", 1);
	message.AddString("b", "text");
	message.AddInt32("a", 2);
	message.AddDouble("", 2.5);
	message.AddData("raw", 0x52415754, "\0\1\2", 3);
	const std::vector<uint8> flat = FlatBytes(message);

	ZvMessage restored(0);
	restored.AddBool("stale", true);
	ASSERT_TRUE(restored.Unflatten(flat.data()));
	EXPECT_EQ(0x41424344u, restored.what);
	EXPECT_EQ(5u, FlagsOf(restored));
	EXPECT_FALSE(restored.HasBool("stale", 0));
	EXPECT_EQ(flat, FlatBytes(restored));
	int32 value;
	ASSERT_TRUE(restored.FindInt32("a", 1, &value));
	EXPECT_EQ(2, value);
}

TEST(ZvMessageFlattenTest, CopyConstructorLosesFlagsWhereTheFlatFormKeepsThem)
{
	ZvMessage message(1);
	message.SetFlags(5);
	message.AddInt8("i", 3);
	ZvMessage copy(message);
	ZvMessage restored(FlatBytes(message).data(), FlatBytes(message).size());
	EXPECT_EQ(0u, FlagsOf(copy));
	EXPECT_EQ(5u, FlagsOf(restored));
}

TEST(ZvMessageFlattenTest, ConstructorFromFlatBlock)
{
	ZvMessage message(9);
	message.AddInt64("big", -5);
	const std::vector<uint8> flat = FlatBytes(message);
	ZvMessage trusted(static_cast<const void*>(flat.data()));
	ZvMessage bounded(flat.data(), flat.size());
	EXPECT_EQ(flat, FlatBytes(trusted));
	EXPECT_EQ(flat, FlatBytes(bounded));
	ZvMessage fromNull(static_cast<const void*>(nullptr));
	EXPECT_EQ(0u, fromNull.what);
	EXPECT_TRUE(fromNull.IsEmpty());
}

TEST(ZvMessageFlattenTest, NestedThreeLevelsDeepRoundTrips)
{
	ZvMessage level3(3);
	level3.AddString("deep", "bottom");
	ZvMessage level2(2);
	level2.AddMessage("child", &level3);
	level2.AddInt32("n", 2);
	ZvMessage level1(1);
	level1.AddMessage("child", &level2);
	ZvMessage top(0);
	top.AddMessage("child", &level1);

	const std::vector<uint8> flat = FlatBytes(top);
	ZvMessage restored(flat.data(), flat.size());
	EXPECT_EQ(flat, FlatBytes(restored));

	// Each level is the data of a "BMSG" record of the level above.
	const void* data;
	int32 size;
	ASSERT_TRUE(restored.FindData("child", ZV_MESSAGE_TYPE, &data, &size));
	EXPECT_EQ(level1.FlattenedSize(), size);
	ZvMessage one(0), two(0), three(0);
	ASSERT_TRUE(restored.FindMessage("child", &one));
	ASSERT_TRUE(one.FindMessage("child", &two));
	ASSERT_TRUE(two.FindMessage("child", &three));
	EXPECT_EQ(1u, one.what);
	EXPECT_EQ(2u, two.what);
	EXPECT_EQ(3u, three.what);
	const char* text = nullptr;
	ASSERT_TRUE(three.FindString("deep", &text));
	EXPECT_STREQ("bottom", text);
}

TEST(ZvMessageFlattenTest, CountZeroOrNegativeGivesAnEmptyMessage)
{
	for (int32 count : {0, -1, -1000}) {
		std::vector<uint8> block(12);
		const uint32 what = 0x77, flags = 0x66;
		memcpy(&block[0], &what, 4);
		memcpy(&block[4], &flags, 4);
		memcpy(&block[8], &count, 4);
		ZvMessage message(0);
		message.AddInt32("old", 1);
		EXPECT_TRUE(message.Unflatten(block.data())) << count;
		EXPECT_TRUE(message.IsEmpty());
		EXPECT_EQ(0x77u, message.what);
		EXPECT_EQ(0x66u, FlagsOf(message));
	}
}

TEST(ZvMessageFlattenTest, UnflattenOfNullChangesNothing)
{
	ZvMessage message(4);
	message.AddInt32("kept", 1);
	EXPECT_FALSE(message.Unflatten(nullptr));
	EXPECT_FALSE(message.Unflatten(nullptr, 100));
	EXPECT_EQ(4u, message.what);
	EXPECT_TRUE(message.HasInt32("kept", 0));
}

TEST(ZvMessageFlattenTest, TrustingSetDataKeepsSixtyThreeNameCharacters)
{
	// A record written with a 70-character name (writers never do this): the
	// name is cut to 63 characters and the size word is taken right after.
	std::vector<uint8> record(4 + 71 + 4 + 4, 0);
	const uint32 type = ZV_INT32_TYPE;
	memcpy(&record[0], &type, 4);
	memset(&record[4], 'x', 70);
	ZvMessageItem item;
	const int32 size = 0;
	memcpy(&record[4 + 64], &size, 4);
	EXPECT_EQ(4 + 64 + 4, item.SetData(record.data()));
	EXPECT_EQ(std::string(63, 'x'), item.name);
	EXPECT_EQ(0, item.size);
	// The bounded reader refuses such a record.
	ZvMessageItem strict;
	EXPECT_EQ(0, strict.SetData(record.data(), record.size()));
	EXPECT_STREQ("@@@Unnamed", strict.name);
}

TEST(ZvMessageFlattenTest, TrustingUnflattenReadsAZeroSizedRecord)
{
	ZvMessage message(0);
	message.AddData("e", 0x52415754, "", 0);
	const std::vector<uint8> flat = FlatBytes(message);
	ASSERT_EQ(12u + 9 + 1, flat.size());
	ZvMessage restored(static_cast<const void*>(flat.data()));
	const void* data;
	int32 size = -1;
	ASSERT_TRUE(restored.FindData("e", 0x52415754, &data, &size));
	EXPECT_EQ(0, size);
	EXPECT_EQ(flat, FlatBytes(restored));
}

TEST(ZvMessageFlattenTest, UnflattenIntoAMessageWithMoreOrFewerItemsLeavesOnlyTheBlocks)
{
	ZvMessage small(1);
	small.AddString("s", "short");
	small.AddInt32("n", 3);
	ZvMessage big(2);
	for (int i = 0; i < 40; i++)
		big.AddString("s", std::string(i, 'x').c_str());
	const std::vector<uint8> smallFlat = FlatBytes(small);
	const std::vector<uint8> bigFlat = FlatBytes(big);

	ZvMessage target(0);
	for (int round = 0; round < 3; round++) {
		ASSERT_TRUE(target.Unflatten(bigFlat.data(), bigFlat.size()));
		EXPECT_EQ(bigFlat, FlatBytes(target));
		ASSERT_TRUE(target.Unflatten(smallFlat.data()));
		EXPECT_EQ(smallFlat, FlatBytes(target));
		const char* text = nullptr;
		ASSERT_TRUE(target.FindString("s", &text));
		EXPECT_STREQ("short", text);
		EXPECT_FALSE(target.HasString("s", 1));
	}
}

// Values just below, at and above the size kept inside an item, and far
// above it, in every order.
const int32 kEdgeSizes[] = {0, 1, 32, 33, 1000};

std::vector<uint8> EdgeValue(int32 size, int seed)
{
	std::vector<uint8> value(static_cast<size_t>(size));
	for (int32 i = 0; i < size; i++)
		value[i] = static_cast<uint8>(seed + i * 11);
	return value;
}

// A message with one "RAWT" field per size of sizes, field i called "f<i>".
ZvMessage EdgeMessage(const std::vector<int32>& sizes, int seed)
{
	ZvMessage message(static_cast<uint32>(seed));
	for (size_t i = 0; i < sizes.size(); i++) {
		const std::vector<uint8> value = EdgeValue(sizes[i], seed + static_cast<int>(i));
		// AddData refuses null data, which an empty vector may give.
		const void* data = value.empty() ? static_cast<const void*>("") : value.data();
		message.AddData(("f" + std::to_string(i)).c_str(), 0x52415754, data, sizes[i]);
	}
	return message;
}

void ExpectEdgeValues(const ZvMessage& message, const std::vector<int32>& sizes, int seed)
{
	for (size_t i = 0; i < sizes.size(); i++) {
		const void* data = nullptr;
		int32 size = -1;
		ASSERT_TRUE(message.FindData(("f" + std::to_string(i)).c_str(), 0x52415754, &data, &size));
		ASSERT_EQ(sizes[i], size);
		const std::vector<uint8> expected = EdgeValue(sizes[i], seed + static_cast<int>(i));
		if (size > 0) {
			EXPECT_EQ(0, memcmp(expected.data(), data, expected.size())) << "size " << size;
		}
	}
}

TEST(ZvMessageFlattenTest, ValuesAroundTheInlineSizeRoundTripThroughBothUnflattens)
{
	const std::vector<int32> sizes(std::begin(kEdgeSizes), std::end(kEdgeSizes));
	const ZvMessage message = EdgeMessage(sizes, 3);
	const std::vector<uint8> flat = FlatBytes(message);

	ZvMessage trusted(static_cast<const void*>(flat.data()));
	ExpectEdgeValues(trusted, sizes, 3);
	EXPECT_EQ(flat, FlatBytes(trusted));

	ZvMessage bounded(0);
	ASSERT_TRUE(bounded.Unflatten(flat.data(), flat.size()));
	ExpectEdgeValues(bounded, sizes, 3);
	EXPECT_EQ(flat, FlatBytes(bounded));

	// A copy of the restored message (flags are 0 throughout) flattens alike.
	ZvMessage copy(bounded);
	ExpectEdgeValues(copy, sizes, 3);
	EXPECT_EQ(flat, FlatBytes(copy));
}

TEST(ZvMessageFlattenTest, RefillingItemsWithValuesOfOtherSizesKeepsEveryValue)
{
	// Every rotation of the sizes is read into the same message, so each of
	// its items goes from every size to every other one.
	std::vector<int32> sizes(std::begin(kEdgeSizes), std::end(kEdgeSizes));
	ZvMessage target(0);
	for (int round = 0; round < 3; round++) {
		for (size_t shift = 0; shift < sizes.size(); shift++) {
			std::rotate(sizes.begin(), sizes.begin() + 1, sizes.end());
			const int seed = round * 10 + static_cast<int>(shift);
			const std::vector<uint8> flat = FlatBytes(EdgeMessage(sizes, seed));
			const bool read = shift % 2 == 0 ? target.Unflatten(flat.data(), flat.size())
			                                 : target.Unflatten(flat.data());
			ASSERT_TRUE(read);
			ExpectEdgeValues(target, sizes, seed);
			EXPECT_EQ(flat, FlatBytes(target));
		}
	}
}

TEST(ZvMessageFlattenTest, NestedMessagesWithValuesAroundTheInlineSizeRoundTrip)
{
	const std::vector<int32> sizes(std::begin(kEdgeSizes), std::end(kEdgeSizes));
	const ZvMessage inner = EdgeMessage(sizes, 20);
	ZvMessage outer(1);
	ASSERT_TRUE(outer.AddMessage("inner", &inner));
	const std::vector<uint8> flat = FlatBytes(outer);
	ZvMessage restored(flat.data(), flat.size());
	ZvMessage found(0);
	ASSERT_TRUE(restored.FindMessage("inner", &found));
	ExpectEdgeValues(found, sizes, 20);
	EXPECT_EQ(FlatBytes(inner), FlatBytes(found));
}

// The bounded Unflatten

TEST(ZvMessageBoundedUnflattenTest, AcceptsEveryWellFormedBlockAndIgnoresTrailingBytes)
{
	ZvMessage message(1);
	message.SetFlags(2);
	message.AddInt32("n", 7);
	std::vector<uint8> flat = FlatBytes(message);
	flat.push_back(0xAB);
	flat.push_back(0xCD);
	ZvMessage restored(0);
	ASSERT_TRUE(restored.Unflatten(flat.data(), flat.size()));
	flat.resize(26);
	EXPECT_EQ(flat, FlatBytes(restored));
}

TEST(ZvMessageBoundedUnflattenTest, RefusesAShortHeaderAndACountThatCannotFit)
{
	ZvMessage message(3);
	message.SetFlags(4);
	message.AddInt32("stale", 1);
	const std::vector<uint8> header = Bytes({9, 0, 0, 0, 8, 0, 0, 0, 1, 0, 0, 0});
	EXPECT_FALSE(message.Unflatten(header.data(), 11));
	EXPECT_TRUE(message.IsEmpty());
	EXPECT_EQ(3u, message.what);
	EXPECT_EQ(4u, FlagsOf(message));
	// One record announced, none there.
	message.AddInt32("stale", 1);
	EXPECT_FALSE(message.Unflatten(header.data(), header.size()));
	EXPECT_TRUE(message.IsEmpty());

	// A count of 2^31 - 1 cannot fit in a small block; it is refused before
	// any record is read.
	const std::vector<uint8> huge = Bytes({9, 0, 0, 0, 8, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0x7F});
	EXPECT_FALSE(message.Unflatten(huge.data(), huge.size()));
	EXPECT_TRUE(message.IsEmpty());
	EXPECT_EQ(3u, message.what);
}

TEST(ZvMessageBoundedUnflattenTest, CountZeroOrNegativeGivesAnEmptyMessageAsInTheTrustingForm)
{
	for (int32 count : {0, -1, static_cast<int32>(0x80000000)}) {
		std::vector<uint8> block = Bytes({9, 0, 0, 0, 8, 0, 0, 0});
		block.resize(12);
		memcpy(&block[8], &count, 4);
		ZvMessage message(3);
		message.AddInt32("stale", 1);
		ASSERT_TRUE(message.Unflatten(block.data(), block.size())) << count;
		EXPECT_TRUE(message.IsEmpty());
		EXPECT_EQ(9u, message.what);
		EXPECT_EQ(8u, FlagsOf(message));
	}
}

TEST(ZvMessageBoundedUnflattenTest, FindMessageOfANegativeCountBlockIsAnEmptyMessage)
{
	const std::vector<uint8> block = Bytes({7, 0, 0, 0, 6, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF});
	ZvMessage outer(0);
	outer.AddData("m", ZV_MESSAGE_TYPE, block.data(), static_cast<int32>(block.size()));
	ZvMessage found(1);
	found.AddBool("old", true);
	ASSERT_TRUE(outer.FindMessage("m", &found));
	EXPECT_TRUE(found.IsEmpty());
	EXPECT_EQ(7u, found.what);
	EXPECT_EQ(6u, FlagsOf(found));
}

TEST(ZvMessageBoundedUnflattenTest, RefusesANameWithoutTerminatorWithinSixtyFourBytes)
{
	std::vector<uint8> block = Bytes({0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 'T', 'Y', 'P', 'E'});
	block.insert(block.end(), 64, 'n');
	block.insert(block.end(), {0, 0, 0, 0, 0});
	ZvMessage message(0);
	EXPECT_FALSE(message.Unflatten(block.data(), block.size()));
	// With the terminator at the 64th byte it is accepted.
	block[12 + 4 + 63] = 0;
	ASSERT_TRUE(message.Unflatten(block.data(), block.size()));
}

TEST(ZvMessageBoundedUnflattenTest, RefusesNegativeAndOverlongDataSizes)
{
	ZvMessage message(0);
	message.AddInt32("n", 7);
	std::vector<uint8> flat = FlatBytes(message);
	const size_t sizeAt = 12 + 4 + 2;
	for (int32 size : {-1, 5, 0x7FFFFFFF, static_cast<int32>(0x80000000)}) {
		std::vector<uint8> bad = flat;
		memcpy(&bad[sizeAt], &size, 4);
		ZvMessage target(0);
		target.AddBool("old", true);
		EXPECT_FALSE(target.Unflatten(bad.data(), bad.size())) << size;
		EXPECT_TRUE(target.IsEmpty());
	}
}

TEST(ZvMessageBoundedUnflattenTest, ConstructorPathLeavesAnEmptyMessageOnABadBlock)
{
	const std::vector<uint8> bad = Bytes({1, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 'a'});
	ZvMessage message(bad.data(), bad.size());
	EXPECT_TRUE(message.IsEmpty());
	EXPECT_EQ(0u, message.what);
	EXPECT_EQ(0u, FlagsOf(message));
}

TEST(ZvMessageBoundedUnflattenTest, BoundedSetDataReportsWhatItConsumed)
{
	ZvMessageItem item("abc", ZV_INT8_TYPE, 1, "\x05");
	std::vector<uint8> record(item.Size());
	item.GetData(record.data());
	ZvMessageItem read;
	EXPECT_EQ(item.Size(), read.SetData(record.data(), record.size()));
	EXPECT_STREQ("abc", read.name);
	EXPECT_EQ(0, read.SetData(record.data(), record.size() - 1));
	EXPECT_EQ(0, read.SetData(nullptr, 100));
	EXPECT_EQ(0, read.SetData(record.data(), 0));
}

// Properties over random messages

class ZvMessageFlattenPropertyTest : public ::testing::TestWithParam<uint32>
{
};

TEST_P(ZvMessageFlattenPropertyTest, RandomMessagesRoundTripByteForByte)
{
	RandomMessageBuilder builder(GetParam());
	for (int round = 0; round < 20; round++) {
		ZvMessage message(0);
		builder.Fill(&message, 3);
		const std::vector<uint8> flat = FlatBytes(message);
		ASSERT_EQ(static_cast<size_t>(message.FlattenedSize()), flat.size());

		ZvMessage trusted(static_cast<const void*>(flat.data()));
		EXPECT_EQ(flat, FlatBytes(trusted));
		ZvMessage bounded(0);
		ASSERT_TRUE(bounded.Unflatten(flat.data(), flat.size()));
		EXPECT_EQ(flat, FlatBytes(bounded));
		EXPECT_EQ(message.what, bounded.what);

		// Nested messages come back identical as well.
		ZvMessage nested(0);
		for (int32 i = 0; message.FindMessage("a", i, &nested); i++) {
			const void* data;
			int32 size;
			ASSERT_TRUE(message.FindData("a", ZV_MESSAGE_TYPE, i, &data, &size));
			const std::vector<uint8> stored(static_cast<const uint8*>(data),
			                                static_cast<const uint8*>(data) + size);
			EXPECT_EQ(stored, FlatBytes(nested));
		}
	}
}

// Every block the bounded reader accepts must re-flatten to its own prefix.
void ExpectAcceptedOrRefused(const std::vector<uint8>& block)
{
	// A copy of exactly this length, so ASan sees any read past the end.
	uint8* exact = new uint8[block.size() == 0 ? 1 : block.size()];
	if (!block.empty())
		memcpy(exact, block.data(), block.size());
	ZvMessage message(0);
	message.AddInt32("before", 1);
	if (message.Unflatten(exact, block.size())) {
		std::vector<uint8> again = FlatBytes(message);
		ASSERT_LE(again.size(), block.size());
		// A negative count was read as none: compare with the count it had.
		int32 count;
		memcpy(&count, block.data() + 8, 4);
		if (count < 0) {
			EXPECT_EQ(12u, again.size());
			memcpy(again.data() + 8, &count, 4);
		}
		EXPECT_TRUE(std::equal(again.begin(), again.end(), block.begin()));
	} else {
		EXPECT_TRUE(message.IsEmpty());
	}
	delete[] exact;
}

TEST_P(ZvMessageFlattenPropertyTest, EveryTruncationIsRefusedOrReadAsValid)
{
	RandomMessageBuilder builder(GetParam());
	ZvMessage message(0);
	builder.Fill(&message, 2, 8);
	const std::vector<uint8> flat = FlatBytes(message);
	for (size_t length = 0; length < flat.size(); length++) {
		std::vector<uint8> cut(flat.begin(), flat.begin() + length);
		ExpectAcceptedOrRefused(cut);
		// A well-formed block is never accepted when cut short.
		ZvMessage target(0);
		EXPECT_FALSE(target.Unflatten(cut.data(), cut.size())) << length;
	}
}

TEST_P(ZvMessageFlattenPropertyTest, EverySingleByteCorruptionIsRefusedOrReadAsValid)
{
	RandomMessageBuilder builder(GetParam());
	ZvMessage message(0);
	builder.Fill(&message, 2, 6);
	const std::vector<uint8> flat = FlatBytes(message);
	const uint8 patterns[] = {0x00, 0xFF, 0x7F, 0x80, 0x01};
	for (size_t at = 0; at < flat.size(); at++) {
		for (uint8 pattern : patterns) {
			std::vector<uint8> bad = flat;
			bad[at] ^= pattern == 0 ? 0 : pattern;
			if (pattern == 0)
				bad[at] = 0;
			ExpectAcceptedOrRefused(bad);
		}
	}
}

INSTANTIATE_TEST_SUITE_P(Seeds, ZvMessageFlattenPropertyTest,
                         ::testing::Values(1u, 2u, 3u, 42u, 1234u, 99991u, 0xC0FFEEu, 7u));

} // namespace
