// ZvMessage <-> BMessage: each shared family is carried as the other's type,
// other codes as raw bytes, and what is lost either way is lost as
// documented and counted.
#include <ZvMessageBridge.h>

#include <Rect.h>
#include <TypeConstants.h>

#include "MessageTestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

namespace {

using zvtest::FlatBytes;

const type_code kMineType = 0x4D494E45; // "MINE"

// One item of every family both classes know, each under its own name.
void BuildShared(ZvMessage* message)
{
	message->AddBool("bool", true);
	message->AddInt8("int8", -8);
	message->AddInt16("int16", -1600);
	message->AddInt32("int32", -320000);
	message->AddInt64("int64", -6400000000LL);
	message->AddFloat("float", 0.25f);
	message->AddDouble("double", 1.0 / 3.0);
	message->AddString("string", "text");
	message->AddPointer("pointer", reinterpret_cast<void*>(0x1234));
	message->AddRect("rect", ZvRect<double>{0.5, 1.5, 2.5, 3.5});
	message->AddPoint("point", ZvPoint<double>{-4.0, 8.0});
	zv_color color(10, 20, 30, 255);
	message->AddColor("color", &color);
	message->AddData("mine", kMineType, "\x01\x02\x03", 3);
	ZvMessage inner(0x696E6E72);
	inner.AddInt32("deep", 42);
	inner.AddString("word", "nested");
	message->AddMessage("message", &inner);
}

TEST(ZvMessageBridgeTest, EverySharedFamilyBecomesTheBMessagesOwnType)
{
	ZvMessage source(0x74657374);
	BuildShared(&source);
	BMessage target(0x6A756E6Bu); // "junk"
	target.AddInt32("stale", 1);
	int32 dropped = -1;
	ASSERT_EQ(B_OK, ZV_ToBMessage(&source, &target, &dropped));
	EXPECT_EQ(0, dropped);
	EXPECT_EQ(0x74657374u, target.what);
	EXPECT_FALSE(target.HasInt32("stale"));

	bool b;
	int8 i8;
	int16 i16;
	int32 i32;
	int64 i64;
	float f;
	double d;
	const char* s;
	void* p;
	ASSERT_EQ(B_OK, target.FindBool("bool", &b));
	EXPECT_TRUE(b);
	ASSERT_EQ(B_OK, target.FindInt8("int8", &i8));
	EXPECT_EQ(-8, i8);
	ASSERT_EQ(B_OK, target.FindInt16("int16", &i16));
	EXPECT_EQ(-1600, i16);
	ASSERT_EQ(B_OK, target.FindInt32("int32", &i32));
	EXPECT_EQ(-320000, i32);
	ASSERT_EQ(B_OK, target.FindInt64("int64", &i64));
	EXPECT_EQ(-6400000000LL, i64);
	ASSERT_EQ(B_OK, target.FindFloat("float", &f));
	EXPECT_EQ(0.25f, f);
	ASSERT_EQ(B_OK, target.FindDouble("double", &d));
	EXPECT_EQ(1.0 / 3.0, d);
	ASSERT_EQ(B_OK, target.FindString("string", &s));
	EXPECT_STREQ("text", s);
	ASSERT_EQ(B_OK, target.FindPointer("pointer", &p));
	EXPECT_EQ(reinterpret_cast<void*>(0x1234), p);

	const void* data;
	ssize_t size;
	ASSERT_EQ(B_OK, target.FindData("rect", B_RECT_TYPE, &data, &size));
	ASSERT_EQ(static_cast<ssize_t>(sizeof(BRect)), size);
	BRect rect;
	memcpy(&rect, data, sizeof(rect));
	EXPECT_EQ(0.5f, rect.left);
	EXPECT_EQ(3.5f, rect.bottom);
	ASSERT_EQ(B_OK, target.FindData("point", B_POINT_TYPE, &data, &size));
	ASSERT_EQ(8, size);
	float xy[2];
	memcpy(xy, data, sizeof(xy));
	EXPECT_EQ(-4.0f, xy[0]);
	EXPECT_EQ(8.0f, xy[1]);
	ASSERT_EQ(B_OK, target.FindData("color", B_RGB_COLOR_TYPE, &data, &size));
	ASSERT_EQ(4, size);
	rgb_color color;
	memcpy(&color, data, sizeof(color));
	EXPECT_EQ(10, color.red);
	EXPECT_EQ(30, color.blue);
	EXPECT_EQ(255, color.alpha);
	ASSERT_EQ(B_OK, target.FindData("mine", kMineType, &data, &size));
	ASSERT_EQ(3, size);
	EXPECT_EQ(0, memcmp(data, "\x01\x02\x03", 3));

	BMessage inner;
	ASSERT_EQ(B_OK, target.FindMessage("message", &inner));
	EXPECT_EQ(0x696E6E72u, inner.what);
	ASSERT_EQ(B_OK, inner.FindInt32("deep", &i32));
	EXPECT_EQ(42, i32);
	ASSERT_EQ(B_OK, inner.FindString("word", &s));
	EXPECT_STREQ("nested", s);
}

TEST(ZvMessageBridgeTest, SharedFamiliesRoundTripFromZvMessageExactly)
{
	// Values a float holds exactly and a colour whose CMYK follows its RGB
	// come back byte for byte; only the flags are lost.
	ZvMessage source(0x74657374);
	source.SetFlags(9);
	BuildShared(&source);
	BMessage middle;
	ASSERT_EQ(B_OK, ZV_ToBMessage(&source, &middle));
	ZvMessage back(0);
	ASSERT_EQ(B_OK, ZV_FromBMessage(&middle, &back));
	ZvMessage expected(source); // the copy constructor drops flags as well
	EXPECT_EQ(FlatBytes(expected), FlatBytes(back));
}

TEST(ZvMessageBridgeTest, BMessageFamiliesRoundTripThroughZvMessage)
{
	BMessage source(0x626D7367u); // "bmsg"
	source.AddInt32("n", 1);
	source.AddInt32("n", 2);
	source.AddString("s", "one");
	source.AddDouble("d", 2.5);
	source.AddBool("b", false);
	source.AddInt8("i8", 3);
	source.AddInt16("i16", 4);
	source.AddInt64("i64", 5);
	source.AddFloat("f", 6.5f);
	source.AddPointer("p", &source);
	source.AddData("raw", B_RAW_TYPE, "\0\1", 2, false);
	const BRect rect(1, 2, 3, 4);
	source.AddData("r", B_RECT_TYPE, &rect, sizeof(rect));
	BMessage nested(0x6E657374u); // "nest"
	nested.AddString("inside", "yes");
	source.AddMessage("m", &nested);

	ZvMessage middle(0);
	int32 dropped = -1;
	ASSERT_EQ(B_OK, ZV_FromBMessage(&source, &middle, &dropped));
	EXPECT_EQ(0, dropped);
	int32 n;
	ASSERT_TRUE(middle.FindInt32("n", 1, &n));
	EXPECT_EQ(2, n);
	ZvRect<int32> zvRect;
	ASSERT_TRUE(middle.FindRect("r", &zvRect));
	EXPECT_EQ(4, zvRect.bottom);
	const void* raw;
	int32 rawSize;
	ASSERT_TRUE(middle.FindData("raw", B_RAW_TYPE, &raw, &rawSize));
	EXPECT_EQ(2, rawSize);

	BMessage back;
	ASSERT_EQ(B_OK, ZV_ToBMessage(&middle, &back));
	EXPECT_EQ(source.what, back.what);
	EXPECT_EQ(source.CountNames(B_ANY_TYPE), back.CountNames(B_ANY_TYPE));
	char* name;
	type_code type;
	int32 count;
	for (int32 i = 0; source.GetInfo(B_ANY_TYPE, i, &name, &type, &count) == B_OK; i++) {
		char* backName;
		type_code backType;
		int32 backCount;
		ASSERT_EQ(B_OK, back.GetInfo(B_ANY_TYPE, i, &backName, &backType, &backCount));
		EXPECT_STREQ(name, backName);
		EXPECT_EQ(type, backType) << name;
		EXPECT_EQ(count, backCount) << name;
		if (type == B_MESSAGE_TYPE)
			continue;
		for (int32 k = 0; k < count; k++) {
			const void* a;
			const void* b;
			ssize_t sa;
			ssize_t sb;
			ASSERT_EQ(B_OK, source.FindData(name, type, k, &a, &sa));
			ASSERT_EQ(B_OK, back.FindData(name, type, k, &b, &sb));
			ASSERT_EQ(sa, sb) << name;
			EXPECT_EQ(0, memcmp(a, b, sa)) << name;
		}
	}
	BMessage backNested;
	ASSERT_EQ(B_OK, back.FindMessage("m", &backNested));
	const char* inside;
	ASSERT_EQ(B_OK, backNested.FindString("inside", &inside));
	EXPECT_STREQ("yes", inside);
}

TEST(ZvMessageBridgeTest, ToBMessageGroupsItemsByNameAndDropsASecondType)
{
	ZvMessage source(1);
	source.AddInt32("a", 1);
	source.AddString("b", "x");
	source.AddInt32("a", 2);
	source.AddString("a", "a string under an int32 name");
	BMessage target;
	int32 dropped = -1;
	EXPECT_EQ(B_MISMATCHED_VALUES, ZV_ToBMessage(&source, &target, &dropped));
	EXPECT_EQ(1, dropped);
	int32 value;
	ASSERT_EQ(B_OK, target.FindInt32("a", 1, &value));
	EXPECT_EQ(2, value);

	ZvMessage back(0);
	ASSERT_EQ(B_OK, ZV_FromBMessage(&target, &back));
	// a, a, b: the items of one name now stand together.
	char* name;
	type_code type;
	ASSERT_TRUE(back.GetInfo(ZV_ANY_TYPE, 1, &name, &type, nullptr));
	EXPECT_STREQ("a", name);
	ASSERT_TRUE(back.GetInfo(ZV_ANY_TYPE, 2, &name, &type, nullptr));
	EXPECT_STREQ("b", name);
}

TEST(ZvMessageBridgeTest, ToBMessageLosesPrecisionCmykAndOddBytesAsDocumented)
{
	ZvMessage source(0);
	source.AddRect("r", ZvRect<double>{0.1, 0, 0, 0});
	source.AddPoint("p", ZvPoint<double>{1e300, 0});
	zv_color cmyk(0, 0, 0, 0, 255);
	cmyk.SetCMYKA(10, 20, 30, 40, 200);
	source.AddColor("c", &cmyk);
	source.AddData("b", ZV_BOOL_TYPE, "\x07", 1);
	source.AddString("s", "long");
	source.ReplaceString("s", "ab"); // the item keeps 5 bytes: "ab\0g\0"
	BMessage middle;
	ASSERT_EQ(B_OK, ZV_ToBMessage(&source, &middle));
	ZvMessage back(0);
	ASSERT_EQ(B_OK, ZV_FromBMessage(&middle, &back));

	ZvRect<double> rect;
	ASSERT_TRUE(back.FindRect("r", &rect));
	EXPECT_EQ(static_cast<double>(0.1f), rect.left);
	EXPECT_NE(0.1, rect.left);
	ZvPoint<double> point;
	ASSERT_TRUE(back.FindPoint("p", &point));
	EXPECT_TRUE(std::isinf(point.x));
	zv_color color;
	ASSERT_TRUE(back.FindColor("c", &color));
	EXPECT_EQ(cmyk.R(), color.R());
	EXPECT_EQ(cmyk.A(), color.A());
	const zv_color fromRgb(cmyk.RGBColor());
	EXPECT_EQ(fromRgb.C(), color.C()) << "CMYK comes back computed from RGB";
	const void* data;
	int32 size;
	ASSERT_TRUE(back.FindData("b", ZV_BOOL_TYPE, &data, &size));
	EXPECT_EQ(1, *static_cast<const uint8*>(data));
	ASSERT_TRUE(back.FindData("s", ZV_STRING_TYPE, &data, &size));
	EXPECT_EQ(3, size);
}

TEST(ZvMessageBridgeTest, ItemsWithoutAPlaceAreDroppedAndCounted)
{
	ZvMessage source(0);
	source.AddData("unterminated", ZV_STRING_TYPE, "abc", 3);
	source.AddData("short", ZV_INT64_TYPE, "\x01\x02", 2);
	source.AddData("badnest", ZV_MESSAGE_TYPE, "garbage", 7);
	const uint8 otherWidth[12] = {};
	source.AddData("pointer", ZV_POINTER_TYPE, otherWidth, 12);
	source.AddData("rect", ZV_RECT_TYPE, otherWidth, 12);
	source.AddInt32("kept", 5);
	BMessage target;
	int32 dropped = 0;
	EXPECT_EQ(B_MISMATCHED_VALUES, ZV_ToBMessage(&source, &target, &dropped));
	EXPECT_EQ(5, dropped);
	EXPECT_EQ(1, target.CountNames(B_ANY_TYPE));
	EXPECT_TRUE(target.HasInt32("kept"));

	BMessage odd;
	odd.AddData("rect", B_RECT_TYPE, "\x01\x02\x03", 3, false);
	odd.AddData("color", B_RGB_COLOR_TYPE, "\x01", 1, false);
	odd.AddInt32("kept", 1);
	ZvMessage back(0);
	EXPECT_EQ(B_MISMATCHED_VALUES, ZV_FromBMessage(&odd, &back, &dropped));
	EXPECT_EQ(2, dropped);
	EXPECT_TRUE(back.HasInt32("kept"));
}

TEST(ZvMessageBridgeTest, LongBMessageNamesAreCutToSixtyThreeCharacters)
{
	const std::string longName(80, 'n');
	BMessage source;
	source.AddInt32(longName.c_str(), 7);
	ZvMessage target(0);
	ASSERT_EQ(B_OK, ZV_FromBMessage(&source, &target));
	int32 value;
	EXPECT_TRUE(target.FindInt32(longName.substr(0, 63).c_str(), &value));
	EXPECT_EQ(7, value);
}

TEST(ZvMessageBridgeTest, NestingDeeperThanSixtyFourLevelsIsDropped)
{
	ZvMessage message = zvtest::NestedMessage(70);
	BMessage target;
	int32 dropped = 0;
	EXPECT_EQ(B_MISMATCHED_VALUES, ZV_ToBMessage(&message, &target, &dropped));
	EXPECT_EQ(1, dropped);
	EXPECT_TRUE(target.HasMessage("inner"));
}

TEST(ZvMessageBridgeTest, NullArgumentsChangeNothing)
{
	ZvMessage zv(5);
	zv.AddInt32("keep", 1);
	BMessage b(6);
	b.AddInt32("keep", 1);
	int32 dropped = -1;
	EXPECT_EQ(B_BAD_VALUE, ZV_ToBMessage(nullptr, &b, &dropped));
	EXPECT_EQ(B_BAD_VALUE, ZV_ToBMessage(&zv, nullptr, &dropped));
	EXPECT_EQ(B_BAD_VALUE, ZV_FromBMessage(nullptr, &zv, &dropped));
	EXPECT_EQ(B_BAD_VALUE, ZV_FromBMessage(&b, nullptr, &dropped));
	EXPECT_EQ(-1, dropped);
	EXPECT_TRUE(zv.HasInt32("keep"));
	EXPECT_TRUE(b.HasInt32("keep"));
}

TEST(ZvMessageBridgeTest, RandomMessagesKeepEveryItemOfASingleTypedName)
{
	// Random messages, nested, with names reused across types: every item
	// either arrives or is counted as dropped, and what arrives comes back.
	for (uint32 seed = 1; seed <= 100; seed++) {
		zvtest::RandomMessageBuilder builder(seed);
		ZvMessage source(0);
		builder.Fill(&source, 3);
		BMessage middle;
		int32 dropped = 0;
		const status_t status = ZV_ToBMessage(&source, &middle, &dropped);
		EXPECT_EQ(dropped == 0 ? B_OK : B_MISMATCHED_VALUES, status);
		ZvMessage back(0);
		EXPECT_EQ(B_OK, ZV_FromBMessage(&middle, &back)) << seed;
		EXPECT_EQ(source.what, back.what);
		BMessage again;
		EXPECT_EQ(B_OK, ZV_ToBMessage(&back, &again)) << seed;
		ZvMessage backAgain(0);
		EXPECT_EQ(B_OK, ZV_FromBMessage(&again, &backAgain));
		EXPECT_EQ(FlatBytes(back), FlatBytes(backAgain)) << "a second trip loses nothing more";
	}
}

} // namespace
