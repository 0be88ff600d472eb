// Byte order of the flattened form: writing and reading little- and
// big-endian blocks, the swapping of each value family, the hand-written
// big-endian blocks, detection, and malformed blocks in the other order.
#include <ZvByteOrder.h>
#include <ZvMessage.h>

#include "HexBlock.h"
#include "MessageTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <vector>

namespace {

using zvtest::FlatBytes;
using zvtest::RandomMessageBuilder;
using zvtest::ReadHexBlock;

zv_byte_order OtherOrder()
{
	return ZV_HostByteOrder() == ZV_LITTLE_ENDIAN ? ZV_BIG_ENDIAN : ZV_LITTLE_ENDIAN;
}

std::vector<uint8> FlatIn(const ZvMessage& message, zv_byte_order order)
{
	std::vector<uint8> bytes(message.FlattenedSize());
	int32 written = -1;
	EXPECT_EQ(B_OK, message.Flatten(bytes.data(), order, &written));
	bytes.resize(written < 0 ? 0 : written);
	return bytes;
}

uint32 FlagsOf(const ZvMessage& message)
{
	uint32 flags;
	memcpy(&flags, FlatBytes(message).data() + 4, 4);
	return flags;
}

// The message of big-families.hex, built through the typed members.
void BuildFamilies(ZvMessage* message)
{
	message->what = 0x66616D73;
	message->SetFlags(0x01020304);
	message->AddInt8("i8", -2);
	message->AddInt16("i16", 0x1234);
	message->AddInt32("i32", -100000);
	message->AddInt64("i64", 0x0102030405060708LL);
	message->AddFloat("f", 1.5f);
	message->AddDouble("d", -2.5);
	message->AddBool("b", true);
	message->AddString("s", "hi");
	const uint32 pointer4 = 0x11223344;
	message->AddData("p4", ZV_POINTER_TYPE, &pointer4, 4);
	const uint64 pointer8 = 0x1122334455667788ULL;
	message->AddData("p8", ZV_POINTER_TYPE, &pointer8, 8);
	message->AddData("c", ZV_COLOR_TYPE, "\x10\x20\x30\xFF\x01\x02\x03\x04", 8);
	message->AddRect("r", ZvRect<double>{0.5, 1.5, 2.5, -1.0});
	message->AddPoint("pt", ZvPoint<double>{3.0, 4.0});
	message->AddData("raw", 0x52415754, "\x01\x02\x03\x04", 4);
	ZvMessage inner(0x696E6E72);
	inner.SetFlags(5);
	inner.AddInt16("v", 0x0102);
	message->AddMessage("m", &inner);
}

TEST(ZvByteOrderTest, HostOrderIsTheMachinesOrder)
{
	const uint16 probe = 1;
	uint8 first;
	memcpy(&first, &probe, 1);
	EXPECT_EQ(first == 1 ? ZV_LITTLE_ENDIAN : ZV_BIG_ENDIAN, ZV_HostByteOrder());
}

TEST(ZvByteOrderTest, HandWrittenBlocksParse)
{
	for (const char* file : {"big-int32.hex", "little-int32.hex", "big-families.hex"}) {
		bool ok = false;
		EXPECT_FALSE(ReadHexBlock(file, &ok).empty()) << file;
		EXPECT_TRUE(ok) << file;
	}
}

TEST(ZvByteOrderTest, FlattenInHostOrderWritesTheSameBytesAsFlatten)
{
	for (uint32 seed = 1; seed <= 50; seed++) {
		RandomMessageBuilder builder(seed);
		ZvMessage message(0);
		builder.Fill(&message, 3);
		EXPECT_EQ(FlatBytes(message), FlatIn(message, ZV_HOST_ENDIAN)) << seed;
		EXPECT_EQ(FlatBytes(message), FlatIn(message, ZV_HostByteOrder())) << seed;
	}
}

TEST(ZvByteOrderTest, FlattenBigWritesTheHandWrittenBigEndianBlocks)
{
	ZvMessage small(0x74657374);
	small.SetFlags(2);
	small.AddInt32("n", 7);
	EXPECT_EQ(ReadHexBlock("big-int32.hex"), FlatIn(small, ZV_BIG_ENDIAN));
	EXPECT_EQ(ReadHexBlock("little-int32.hex"), FlatIn(small, ZV_LITTLE_ENDIAN));

	ZvMessage families(0);
	BuildFamilies(&families);
	EXPECT_EQ(ReadHexBlock("big-families.hex"), FlatIn(families, ZV_BIG_ENDIAN));
}

TEST(ZvByteOrderTest, UnflattenBigReadsEveryFamilyOfTheHandWrittenBlock)
{
	const std::vector<uint8> block = ReadHexBlock("big-families.hex");
	ZvMessage message(0);
	ASSERT_EQ(B_OK, message.Unflatten(block.data(), block.size(), ZV_BIG_ENDIAN));
	EXPECT_EQ(0x66616D73u, message.what);
	EXPECT_EQ(0x01020304u, FlagsOf(message));

	int8 i8;
	int16 i16;
	int32 i32;
	int64 i64;
	float f;
	double d;
	bool b;
	const char* s;
	ASSERT_TRUE(message.FindInt8("i8", &i8));
	EXPECT_EQ(-2, i8);
	ASSERT_TRUE(message.FindInt16("i16", &i16));
	EXPECT_EQ(0x1234, i16);
	ASSERT_TRUE(message.FindInt32("i32", &i32));
	EXPECT_EQ(-100000, i32);
	ASSERT_TRUE(message.FindInt64("i64", &i64));
	EXPECT_EQ(0x0102030405060708LL, i64);
	ASSERT_TRUE(message.FindFloat("f", &f));
	EXPECT_EQ(1.5f, f);
	ASSERT_TRUE(message.FindDouble("d", &d));
	EXPECT_EQ(-2.5, d);
	ASSERT_TRUE(message.FindBool("b", &b));
	EXPECT_TRUE(b);
	ASSERT_TRUE(message.FindString("s", &s));
	EXPECT_STREQ("hi", s);

	const void* data;
	int32 size;
	ASSERT_TRUE(message.FindData("p4", ZV_POINTER_TYPE, &data, &size));
	ASSERT_EQ(4, size);
	uint32 pointer4;
	memcpy(&pointer4, data, 4);
	EXPECT_EQ(0x11223344u, pointer4);
	ASSERT_TRUE(message.FindData("p8", ZV_POINTER_TYPE, &data, &size));
	ASSERT_EQ(8, size);
	uint64 pointer8;
	memcpy(&pointer8, data, 8);
	EXPECT_EQ(0x1122334455667788ULL, pointer8);

	zv_color color;
	ASSERT_TRUE(message.FindColor("c", &color));
	EXPECT_EQ(0x10, color.R());
	EXPECT_EQ(0xFF, color.A());
	EXPECT_EQ(0x04, color.K());

	ZvRect<double> rect;
	ASSERT_TRUE(message.FindRect("r", &rect));
	EXPECT_EQ(0.5, rect.left);
	EXPECT_EQ(1.5, rect.top);
	EXPECT_EQ(2.5, rect.right);
	EXPECT_EQ(-1.0, rect.bottom);
	ZvPoint<double> point;
	ASSERT_TRUE(message.FindPoint("pt", &point));
	EXPECT_EQ(3.0, point.x);
	EXPECT_EQ(4.0, point.y);

	ASSERT_TRUE(message.FindData("raw", 0x52415754, &data, &size));
	ASSERT_EQ(4, size);
	EXPECT_EQ(0, memcmp(data, "\x01\x02\x03\x04", 4));

	ZvMessage inner(0);
	ASSERT_TRUE(message.FindMessage("m", &inner));
	EXPECT_EQ(0x696E6E72u, inner.what);
	EXPECT_EQ(5u, FlagsOf(inner));
	ASSERT_TRUE(inner.FindInt16("v", &i16));
	EXPECT_EQ(0x0102, i16);

	ZvMessage built(0);
	BuildFamilies(&built);
	EXPECT_EQ(FlatBytes(built), FlatBytes(message));
}

TEST(ZvByteOrderTest, RandomMessagesRoundTripBetweenEveryOrder)
{
	const zv_byte_order orders[] = {ZV_LITTLE_ENDIAN, ZV_BIG_ENDIAN, ZV_HOST_ENDIAN};
	for (uint32 seed = 1; seed <= 150; seed++) {
		RandomMessageBuilder builder(seed * 7919);
		ZvMessage message(0);
		builder.Fill(&message, 5);
		const std::vector<uint8> host = FlatBytes(message);
		for (zv_byte_order from : orders) {
			const std::vector<uint8> written = FlatIn(message, from);
			ASSERT_EQ(host.size(), written.size());
			ZvMessage read(0);
			ASSERT_EQ(B_OK, read.Unflatten(written.data(), written.size(), from))
			    << "seed " << seed << " order " << from;
			EXPECT_EQ(host, FlatBytes(read)) << "seed " << seed << " order " << from;
			for (zv_byte_order to : orders) {
				const std::vector<uint8> again = FlatIn(read, to);
				EXPECT_EQ(FlatIn(message, to), again) << "seed " << seed;
			}
		}
	}
}

TEST(ZvByteOrderTest, NestedFiveDeepRoundTripsThroughTheOtherOrder)
{
	ZvMessage levels[6] = {ZvMessage(0), ZvMessage(1), ZvMessage(2),
	                       ZvMessage(3), ZvMessage(4), ZvMessage(5)};
	levels[5].AddInt64("deepest", -3);
	levels[5].AddRect("r", ZvRect<double>{1, 2, 3, 4});
	for (int i = 4; i >= 0; i--) {
		levels[i].AddInt32("level", i);
		levels[i].AddMessage("next", &levels[i + 1]);
		levels[i].SetFlags(100 + i);
	}
	const std::vector<uint8> other = FlatIn(levels[0], OtherOrder());
	EXPECT_NE(FlatBytes(levels[0]), other);
	ZvMessage read(0);
	ASSERT_EQ(B_OK, read.Unflatten(other.data(), other.size(), OtherOrder()));
	EXPECT_EQ(FlatBytes(levels[0]), FlatBytes(read));

	ZvMessage walk(read);
	for (int i = 0; i < 5; i++) {
		int32 level;
		ASSERT_TRUE(walk.FindInt32("level", &level));
		EXPECT_EQ(i, level);
		ZvMessage next(0);
		ASSERT_TRUE(walk.FindMessage("next", &next));
		walk = next;
	}
	int64 deepest;
	ASSERT_TRUE(walk.FindInt64("deepest", &deepest));
	EXPECT_EQ(-3, deepest);
}

TEST(ZvByteOrderTest, NumbersSwapByWidthAndLeftoverBytesStay)
{
	ZvMessage message(0);
	// Six bytes of int32: one word swaps, the two bytes after it stay.
	message.AddData("odd", ZV_INT32_TYPE, "\x01\x02\x03\x04\x05\x06", 6);
	message.AddData("pair", ZV_INT16_TYPE, "\x01\x02\x03\x04", 4);
	// A pointer of neither 4 nor 8 bytes is not an address: it stays.
	message.AddData("ptr6", ZV_POINTER_TYPE, "\x01\x02\x03\x04\x05\x06", 6);
	const std::vector<uint8> host = FlatBytes(message);
	const std::vector<uint8> other = FlatIn(message, OtherOrder());
	auto valueOf = [](const std::vector<uint8>& block, size_t at, size_t length) {
		return std::vector<uint8>(block.begin() + at, block.begin() + at + length);
	};
	// Record 1 value at 12 + 4 + 4 ("odd\0") + 4.
	EXPECT_EQ(std::vector<uint8>({4, 3, 2, 1, 5, 6}), valueOf(other, 24, 6));
	// Record 2 value at 30 + 4 + 5 ("pair\0") + 4.
	EXPECT_EQ(std::vector<uint8>({2, 1, 4, 3}), valueOf(other, 43, 4));
	// Record 3 value at 47 + 4 + 5 ("ptr6\0") + 4.
	EXPECT_EQ(valueOf(host, 60, 6), valueOf(other, 60, 6));
}

TEST(ZvByteOrderTest, BytesOfUnknownTypesStringsColoursAndBooleansStay)
{
	ZvMessage message(0);
	const uint8 eight[] = {1, 2, 3, 4, 5, 6, 7, 8};
	message.AddData("mine", 0x4D494E45, eight, 8);
	message.AddData("c", ZV_COLOR_TYPE, eight, 8);
	message.AddString("s", "abcdefg");
	message.AddBool("b", true);
	message.AddInt8("i", 9);
	const std::vector<uint8> host = FlatBytes(message);
	const std::vector<uint8> other = FlatIn(message, OtherOrder());
	ASSERT_EQ(91u, other.size());
	// Each record: type, name and terminator, size, value.
	const size_t records[][3] = {{12, 25, 8}, {33, 43, 8}, {51, 61, 8}, {69, 79, 1}, {80, 90, 1}};
	for (const auto& record : records) {
		const size_t type = record[0];
		const size_t value = record[1];
		const size_t length = record[2];
		EXPECT_TRUE(
		    std::equal(host.begin() + value, host.begin() + value + length, other.begin() + value))
		    << "value at " << value;
		EXPECT_TRUE(std::equal(host.begin() + type, host.begin() + type + 4,
		                       std::make_reverse_iterator(other.begin() + type + 4)))
		    << "type at " << type;
		EXPECT_TRUE(std::equal(host.begin() + value - 4, host.begin() + value,
		                       std::make_reverse_iterator(other.begin() + value)))
		    << "size before " << value;
	}
}

TEST(ZvByteOrderTest, DetectionNamesTheOrderOfEachBlock)
{
	zv_order_detection result;
	const std::vector<uint8> big = ReadHexBlock("big-families.hex");
	ASSERT_EQ(B_OK, ZV_DetectByteOrder(big.data(), big.size(), &result));
	EXPECT_EQ(ZV_ORDER_BIG, result);
	const std::vector<uint8> little = ReadHexBlock("little-int32.hex");
	ASSERT_EQ(B_OK, ZV_DetectByteOrder(little.data(), little.size(), &result));
	EXPECT_EQ(ZV_ORDER_LITTLE, result);

	ZvMessage empty(0x74657374);
	const std::vector<uint8> block = FlatBytes(empty);
	ASSERT_EQ(B_OK, ZV_DetectByteOrder(block.data(), block.size(), &result));
	EXPECT_EQ(ZV_ORDER_AMBIGUOUS, result);

	const uint8 garbage[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
	ASSERT_EQ(B_OK, ZV_DetectByteOrder(garbage, sizeof(garbage), &result));
	EXPECT_EQ(ZV_ORDER_NEITHER, result);

	std::vector<uint8> trailing = big;
	trailing.push_back(0);
	ASSERT_EQ(B_OK, ZV_DetectByteOrder(trailing.data(), trailing.size(), &result));
	EXPECT_EQ(ZV_ORDER_NEITHER, result) << "a block must end at its size";

	EXPECT_EQ(B_BAD_VALUE, ZV_DetectByteOrder(nullptr, 12, &result));
	EXPECT_EQ(B_BAD_VALUE, ZV_DetectByteOrder(big.data(), big.size(), nullptr));
}

TEST(ZvByteOrderTest, DetectionChecksNestedMessages)
{
	// The families block with its nested message's count made 2: the outer
	// records still fit, the nested one no longer does.
	std::vector<uint8> block = ReadHexBlock("big-families.hex");
	block[block.size() - 13] = 2;
	zv_order_detection result;
	ASSERT_EQ(B_OK, ZV_DetectByteOrder(block.data(), block.size(), &result));
	EXPECT_EQ(ZV_ORDER_NEITHER, result);
	ZvMessage message(0);
	EXPECT_EQ(B_BAD_DATA, message.Unflatten(block.data(), block.size(), ZV_BIG_ENDIAN));
	EXPECT_TRUE(message.IsEmpty());
}

// How often a real message reads validly in both orders: only the empty
// ones do. The counts are recorded in the test's XML output.
TEST(ZvByteOrderTest, OnlyEmptyMessagesAreAmbiguous)
{
	int ambiguous = 0;
	int empty = 0;
	const int total = 3000;
	for (int seed = 1; seed <= total; seed++) {
		RandomMessageBuilder builder(seed);
		ZvMessage message(0);
		builder.Fill(&message, seed % 4, 1 + seed % 40);
		empty += message.IsEmpty();
		for (zv_byte_order order : {ZV_LITTLE_ENDIAN, ZV_BIG_ENDIAN}) {
			const std::vector<uint8> block = FlatIn(message, order);
			zv_order_detection result;
			ASSERT_EQ(B_OK, ZV_DetectByteOrder(block.data(), block.size(), &result));
			if (message.IsEmpty()) {
				EXPECT_EQ(ZV_ORDER_AMBIGUOUS, result) << seed;
			} else {
				EXPECT_EQ(order == ZV_LITTLE_ENDIAN ? ZV_ORDER_LITTLE : ZV_ORDER_BIG, result)
				    << seed;
			}
			ambiguous += result == ZV_ORDER_AMBIGUOUS;
		}
	}
	RecordProperty("messages", total);
	RecordProperty("empty", empty);
	RecordProperty("ambiguous_blocks", ambiguous);
	EXPECT_GT(empty, 0);
	EXPECT_EQ(2 * empty, ambiguous);
}

TEST(ZvByteOrderTest, AnAmbiguousBlockReadsInTheHostOrderWithoutAnOrder)
{
	ZvMessage empty(0x01020304);
	empty.SetFlags(0x0A0B0C0D);
	const std::vector<uint8> block = FlatIn(empty, OtherOrder());
	ZvMessage host(0);
	ASSERT_TRUE(host.Unflatten(block.data(), block.size()));
	EXPECT_EQ(0x04030201u, host.what);
	ZvMessage other(0);
	ASSERT_EQ(B_OK, other.Unflatten(block.data(), block.size(), OtherOrder()));
	EXPECT_EQ(0x01020304u, other.what);
	EXPECT_EQ(0x0A0B0C0Du, FlagsOf(other));
}

TEST(ZvByteOrderTest, TheBoundedUnflattenWithoutAnOrderRefusesABlockOfTheOtherOrder)
{
	const std::vector<uint8> big = ReadHexBlock(
	    ZV_HostByteOrder() == ZV_LITTLE_ENDIAN ? "big-families.hex" : "little-int32.hex");
	ZvMessage message(0);
	EXPECT_FALSE(message.Unflatten(big.data(), big.size()));
	EXPECT_EQ(B_BAD_DATA, message.Unflatten(big.data(), big.size(), ZV_HOST_ENDIAN));
}

TEST(ZvByteOrderTest, HostOrderFormGivesTheBoundedResultsAsStatus)
{
	for (uint32 seed = 1; seed <= 40; seed++) {
		RandomMessageBuilder builder(seed);
		ZvMessage message(0);
		builder.Fill(&message, 2);
		std::vector<uint8> block = FlatBytes(message);
		// Corrupt one byte, or cut the block, by the seed.
		if (seed % 2 == 0 && block.size() > 12)
			block[12 + seed % (block.size() - 12)] ^= 0xFF;
		else
			block.resize(block.size() - seed % block.size());
		ZvMessage a(5);
		ZvMessage b(5);
		const bool accepted = a.Unflatten(block.data(), block.size());
		EXPECT_EQ(accepted ? B_OK : B_BAD_DATA,
		          b.Unflatten(block.data(), block.size(), ZV_HOST_ENDIAN));
		EXPECT_EQ(FlatBytes(a), FlatBytes(b));
	}
}

TEST(ZvByteOrderTest, EveryTruncationOfABigBlockIsRefusedCleanly)
{
	const std::vector<uint8> big = ReadHexBlock("big-families.hex");
	for (size_t length = 0; length < big.size(); length++) {
		// A copy of just that many bytes, so that a read past them is seen.
		std::unique_ptr<uint8[]> cut(new uint8[length + 1]);
		memcpy(cut.get(), big.data(), length);
		ZvMessage message(77);
		message.SetFlags(3);
		message.AddInt32("stale", 1);
		EXPECT_EQ(B_BAD_DATA, message.Unflatten(cut.get(), length, ZV_BIG_ENDIAN)) << length;
		EXPECT_TRUE(message.IsEmpty());
		EXPECT_EQ(77u, message.what);
	}
}

TEST(ZvByteOrderTest, CorruptedOtherOrderBlocksNeverCrash)
{
	RandomMessageBuilder builder(4242);
	for (int round = 0; round < 300; round++) {
		ZvMessage message(0);
		builder.Fill(&message, 3);
		std::vector<uint8> block = FlatIn(message, OtherOrder());
		const int flips = 1 + builder.Below(4);
		for (int i = 0; i < flips; i++)
			block[builder.Below(static_cast<int>(block.size()))] =
			    static_cast<uint8>(builder.Word());
		ZvMessage read(0);
		const status_t status = read.Unflatten(block.data(), block.size(), OtherOrder());
		EXPECT_TRUE(status == B_OK || status == B_BAD_DATA);
		if (status == B_BAD_DATA) {
			EXPECT_TRUE(read.IsEmpty());
		}
	}
}

TEST(ZvByteOrderTest, BadArgumentsChangeNothing)
{
	ZvMessage message(3);
	message.AddInt32("keep", 1);
	std::vector<uint8> buffer(message.FlattenedSize(), 0xEE);
	int32 size = -1;
	EXPECT_EQ(B_BAD_VALUE, message.Flatten(nullptr, ZV_BIG_ENDIAN, &size));
	EXPECT_EQ(B_BAD_VALUE, message.Flatten(buffer.data(), static_cast<zv_byte_order>(7), &size));
	EXPECT_EQ(-1, size);
	EXPECT_EQ(0xEE, buffer[0]);
	EXPECT_EQ(B_BAD_VALUE, message.Unflatten(nullptr, 12, ZV_BIG_ENDIAN));
	EXPECT_EQ(B_BAD_VALUE,
	          message.Unflatten(buffer.data(), buffer.size(), static_cast<zv_byte_order>(-1)));
	EXPECT_TRUE(message.HasInt32("keep"));
}

TEST(ZvByteOrderTest, AMalformedNestedValueCannotBeWrittenInTheOtherOrder)
{
	ZvMessage message(0);
	message.AddData("m", ZV_MESSAGE_TYPE, "not a message", 13);
	std::vector<uint8> buffer(message.FlattenedSize());
	EXPECT_EQ(B_BAD_DATA, message.Flatten(buffer.data(), OtherOrder()));
	EXPECT_EQ(B_OK, message.Flatten(buffer.data(), ZV_HOST_ENDIAN));
}

TEST(ZvByteOrderTest, NestingDeeperThanTheLimitIsRefusedInTheOtherOrderOnly)
{
	ZvMessage message = zvtest::NestedMessage(70);
	std::vector<uint8> buffer(message.FlattenedSize());
	EXPECT_EQ(B_OK, message.Flatten(buffer.data(), ZV_HOST_ENDIAN));
	EXPECT_EQ(B_BAD_DATA, message.Flatten(buffer.data(), OtherOrder()));
	EXPECT_EQ(B_OK, message.Flatten(buffer.data(), ZV_HOST_ENDIAN));
	ZvMessage read(0);
	EXPECT_TRUE(read.Unflatten(buffer.data(), buffer.size()));
}

} // namespace
