// The typed field families of ZvMessage: one typed test suite for the fixed
// size scalars, one for rectangles and points per element type, and the
// string, pointer, colour and message families.
#include <ZvMessage.h>

#include "MessageTestSupport.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

namespace {

using zvtest::FlatBytes;

const type_code kRawType = 0x52415754; // "RAWT", a caller-defined code

// Member function types of one scalar family.
template <typename V> struct Family
{
	using Add = bool (ZvMessage::*)(const char*, V);
	using FindAt = bool (ZvMessage::*)(const char*, int32, V*) const;
	using Find = bool (ZvMessage::*)(const char*, V*) const;
	using ReplaceAt = bool (ZvMessage::*)(const char*, int32, V);
	using Replace = bool (ZvMessage::*)(const char*, V);
	using Has = bool (ZvMessage::*)(const char*, int32) const;
};

#define ZV_TEST_FAMILY_MEMBERS(V, Name)                                                            \
	static constexpr Family<V>::Add kAdd = &ZvMessage::Add##Name;                                  \
	static constexpr Family<V>::FindAt kFindAt = &ZvMessage::Find##Name;                           \
	static constexpr Family<V>::Find kFind = &ZvMessage::Find##Name;                               \
	static constexpr Family<V>::ReplaceAt kReplaceAt = &ZvMessage::Replace##Name;                  \
	static constexpr Family<V>::Replace kReplace = &ZvMessage::Replace##Name;                      \
	static constexpr Family<V>::Has kHas = &ZvMessage::Has##Name;

struct BoolField
{
	using Value = bool;
	static constexpr type_code kType = ZV_BOOL_TYPE;
	static constexpr int32 kSize = 1;
	static Value First() { return true; }
	static Value Second() { return false; }
	ZV_TEST_FAMILY_MEMBERS(bool, Bool)
};

struct Int8Field
{
	using Value = int8;
	static constexpr type_code kType = ZV_INT8_TYPE;
	static constexpr int32 kSize = 1;
	static Value First() { return -5; }
	static Value Second() { return 100; }
	ZV_TEST_FAMILY_MEMBERS(int8, Int8)
};

struct Int16Field
{
	using Value = int16;
	static constexpr type_code kType = ZV_INT16_TYPE;
	static constexpr int32 kSize = 2;
	static Value First() { return -30000; }
	static Value Second() { return 1234; }
	ZV_TEST_FAMILY_MEMBERS(int16, Int16)
};

struct Int32Field
{
	using Value = int32;
	static constexpr type_code kType = ZV_INT32_TYPE;
	static constexpr int32 kSize = 4;
	static Value First() { return 0x12345678; }
	static Value Second() { return -2; }
	ZV_TEST_FAMILY_MEMBERS(int32, Int32)
};

struct Int64Field
{
	using Value = int64;
	static constexpr type_code kType = ZV_INT64_TYPE;
	static constexpr int32 kSize = 8;
	static Value First() { return 0x123456789ABCDEF0LL; }
	static Value Second() { return -1; }
	ZV_TEST_FAMILY_MEMBERS(int64, Int64)
};

struct FloatField
{
	using Value = float;
	static constexpr type_code kType = ZV_FLOAT_TYPE;
	static constexpr int32 kSize = 4;
	static Value First() { return 1.5f; }
	static Value Second() { return -2.25e10f; }
	ZV_TEST_FAMILY_MEMBERS(float, Float)
};

struct DoubleField
{
	using Value = double;
	static constexpr type_code kType = ZV_DOUBLE_TYPE;
	static constexpr int32 kSize = 8;
	static Value First() { return 3.141592653589793; }
	static Value Second() { return -1e300; }
	ZV_TEST_FAMILY_MEMBERS(double, Double)
};

#undef ZV_TEST_FAMILY_MEMBERS

template <typename F> class ZvMessageScalarTest : public ::testing::Test
{
protected:
	using V = typename F::Value;

	bool Add(const char* name, V value) { return (fMessage.*F::kAdd)(name, value); }
	bool Find(const char* name, int32 index, V* value) const
	{
		return (fMessage.*F::kFindAt)(name, index, value);
	}
	bool Find(const char* name, V* value) const { return (fMessage.*F::kFind)(name, value); }
	bool Replace(const char* name, int32 index, V value)
	{
		return (fMessage.*F::kReplaceAt)(name, index, value);
	}
	bool Replace(const char* name, V value) { return (fMessage.*F::kReplace)(name, value); }
	bool Has(const char* name, int32 index) const { return (fMessage.*F::kHas)(name, index); }

	ZvMessage fMessage{0};
};

using ScalarFields = ::testing::Types<BoolField, Int8Field, Int16Field, Int32Field, Int64Field,
                                      FloatField, DoubleField>;
TYPED_TEST_SUITE(ZvMessageScalarTest, ScalarFields);

TYPED_TEST(ZvMessageScalarTest, AddStoresTheValueUnderItsCodeAndSize)
{
	using F = TypeParam;
	ASSERT_TRUE(this->Add("v", F::First()));
	const void* data = nullptr;
	int32 size = 0;
	ASSERT_TRUE(this->fMessage.FindData("v", F::kType, &data, &size));
	EXPECT_EQ(F::kSize, size);
	typename F::Value expected = F::First();
	EXPECT_EQ(0, memcmp(&expected, data, F::kSize));
}

TYPED_TEST(ZvMessageScalarTest, FindWithAndWithoutIndexGivesTheValue)
{
	using F = TypeParam;
	this->Add("v", F::First());
	typename F::Value value = F::Second();
	ASSERT_TRUE(this->Find("v", &value));
	EXPECT_EQ(F::First(), value);
	value = F::Second();
	ASSERT_TRUE(this->Find("v", 0, &value));
	EXPECT_EQ(F::First(), value);
}

TYPED_TEST(ZvMessageScalarTest, EveryAddAppendsAFurtherIndexOfTheName)
{
	using F = TypeParam;
	this->Add("v", F::First());
	this->Add("v", F::Second());
	typename F::Value value;
	ASSERT_TRUE(this->Find("v", 1, &value));
	EXPECT_EQ(F::Second(), value);
	ASSERT_TRUE(this->Find("v", 0, &value));
	EXPECT_EQ(F::First(), value);
	EXPECT_FALSE(this->Find("v", 2, &value));
	EXPECT_FALSE(this->Find("v", -1, &value));
}

TYPED_TEST(ZvMessageScalarTest, FindMatchesTheExactTypeOnly)
{
	using F = TypeParam;
	this->fMessage.AddData("v", kRawType, "\1\2\3\4\5\6\7\10", F::kSize);
	typename F::Value value = F::Second();
	EXPECT_FALSE(this->Find("v", &value));
	EXPECT_FALSE(this->Has("v", 0));
	EXPECT_EQ(F::Second(), value);
	// Items of another type do not count towards the index.
	this->Add("v", F::First());
	ASSERT_TRUE(this->Find("v", 0, &value));
	EXPECT_EQ(F::First(), value);
}

TYPED_TEST(ZvMessageScalarTest, FindRefusesNullOutNullNameAndMissingName)
{
	using F = TypeParam;
	this->Add("v", F::First());
	typename F::Value value = F::Second();
	EXPECT_FALSE(this->Find("v", nullptr));
	EXPECT_FALSE(this->Find("v", 0, nullptr));
	EXPECT_FALSE(this->Find(nullptr, &value));
	EXPECT_FALSE(this->Find("w", &value));
	EXPECT_EQ(F::Second(), value);
}

TYPED_TEST(ZvMessageScalarTest, ReplaceWithAndWithoutIndex)
{
	using F = TypeParam;
	this->Add("v", F::First());
	this->Add("v", F::First());
	ASSERT_TRUE(this->Replace("v", 1, F::Second()));
	typename F::Value value;
	this->Find("v", 0, &value);
	EXPECT_EQ(F::First(), value);
	this->Find("v", 1, &value);
	EXPECT_EQ(F::Second(), value);
	ASSERT_TRUE(this->Replace("v", F::Second()));
	this->Find("v", 0, &value);
	EXPECT_EQ(F::Second(), value);
}

TYPED_TEST(ZvMessageScalarTest, ReplaceRefusesNullNameAndMissingItem)
{
	using F = TypeParam;
	EXPECT_FALSE(this->Replace("v", F::First()));
	this->Add("v", F::First());
	EXPECT_FALSE(this->Replace(nullptr, F::Second()));
	EXPECT_FALSE(this->Replace("v", 1, F::Second()));
	EXPECT_FALSE(this->Replace("v", -1, F::Second()));
	typename F::Value value;
	this->Find("v", &value);
	EXPECT_EQ(F::First(), value);
}

TYPED_TEST(ZvMessageScalarTest, HasIsFalseForNegativeIndexAndOnEmptyMessage)
{
	using F = TypeParam;
	EXPECT_FALSE(this->Has("v", 0));
	this->Add("v", F::First());
	EXPECT_TRUE(this->Has("v", 0));
	EXPECT_FALSE(this->Has("v", -1));
	EXPECT_FALSE(this->Has("v", 1));
	EXPECT_FALSE(this->Has(nullptr, 0));
}

TYPED_TEST(ZvMessageScalarTest, NullNameStoresUnnamed)
{
	using F = TypeParam;
	ASSERT_TRUE(this->Add(nullptr, F::First()));
	typename F::Value value = F::Second();
	ASSERT_TRUE(this->Find("@@@Unnamed", &value));
	EXPECT_EQ(F::First(), value);
}

TYPED_TEST(ZvMessageScalarTest, ReplaceIntoALargerItemKeepsItsSizeAndPadsWithZeros)
{
	using F = TypeParam;
	const std::vector<uint8> ones(F::kSize + 6, 0xFF);
	this->fMessage.AddData("v", F::kType, ones.data(), static_cast<int32>(ones.size()));
	ASSERT_TRUE(this->Replace("v", F::Second()));
	const void* data;
	int32 size;
	ASSERT_TRUE(this->fMessage.FindData("v", F::kType, &data, &size));
	ASSERT_EQ(F::kSize + 6, size);
	typename F::Value expected = F::Second();
	EXPECT_EQ(0, memcmp(&expected, data, F::kSize));
	for (int32 i = F::kSize; i < size; i++)
		EXPECT_EQ(0, static_cast<const uint8*>(data)[i]) << i;
}

TEST(ZvMessageTypedTest, AddInt32ThenFindInt16FindsNothing)
{
	ZvMessage message(0);
	message.AddInt32("n", 5);
	int16 value = 77;
	EXPECT_FALSE(message.FindInt16("n", &value));
	EXPECT_EQ(77, value);
	int64 wide = 77;
	EXPECT_FALSE(message.FindInt64("n", &wide));
}

TEST(ZvMessageTypedTest, FindFromAShortBlockReadsOnlyWhatIsStored)
{
	ZvMessage message(0);
	const uint8 one = 0x2A;
	message.AddData("short", ZV_INT32_TYPE, &one, 1);
	int32 value = -1;
	ASSERT_TRUE(message.FindInt32("short", &value));
	EXPECT_EQ(0x2A, value);
}

TEST(ZvMessageTypedTest, StoredBoolByteOtherThanZeroIsTrue)
{
	ZvMessage message(0);
	message.AddData("b", ZV_BOOL_TYPE, "\x07", 1);
	message.AddData("b", ZV_BOOL_TYPE, "\x00", 1);
	bool value = false;
	ASSERT_TRUE(message.FindBool("b", 0, &value));
	EXPECT_TRUE(value);
	ASSERT_TRUE(message.FindBool("b", 1, &value));
	EXPECT_FALSE(value);
}

// Strings

TEST(ZvMessageTypedTest, AddStringStoresTheTerminatorAndFindPointsIntoTheItem)
{
	ZvMessage message(0);
	const char source[] = "abc";
	ASSERT_TRUE(message.AddString("s", source));
	ZvMessageItem* item = nullptr;
	ASSERT_TRUE(message._FindData("s", ZV_STRING_TYPE, 0, &item));
	EXPECT_EQ(4, item->size);
	const char* found = nullptr;
	ASSERT_TRUE(message.FindString("s", &found));
	EXPECT_EQ(reinterpret_cast<const char*>(item->data), found);
	EXPECT_NE(source, found);
	EXPECT_STREQ("abc", found);
	ASSERT_TRUE(message.FindString("s", 0, &found));
	EXPECT_STREQ("abc", found);
}

TEST(ZvMessageTypedTest, EmptyStringStoresOneByte)
{
	ZvMessage message(0);
	ASSERT_TRUE(message.AddString("s", ""));
	const void* data;
	int32 size;
	ASSERT_TRUE(message.FindData("s", ZV_STRING_TYPE, &data, &size));
	EXPECT_EQ(1, size);
	const char* found = nullptr;
	ASSERT_TRUE(message.FindString("s", &found));
	EXPECT_STREQ("", found);
}

TEST(ZvMessageTypedTest, StringFamilyRefusesNulls)
{
	ZvMessage message(0);
	EXPECT_FALSE(message.AddString("s", nullptr));
	EXPECT_TRUE(message.IsEmpty());
	message.AddString("s", "x");
	const char* found = nullptr;
	EXPECT_FALSE(message.FindString("s", nullptr));
	EXPECT_FALSE(message.FindString(nullptr, &found));
	EXPECT_FALSE(message.ReplaceString("s", nullptr));
	EXPECT_FALSE(message.ReplaceString(nullptr, "y"));
	EXPECT_FALSE(message.ReplaceString("s", 1, "y"));
	EXPECT_TRUE(message.HasString("s", 0));
	EXPECT_FALSE(message.HasString("s", -1));
}

TEST(ZvMessageTypedTest, ReplaceStringWithShorterKeepsTheSizeAndReadsTheNewString)
{
	ZvMessage message(0);
	message.AddString("s", "hello world");
	ASSERT_TRUE(message.ReplaceString("s", "hi"));
	const void* data;
	int32 size;
	ASSERT_TRUE(message.FindData("s", ZV_STRING_TYPE, &data, &size));
	EXPECT_EQ(12, size);
	const char* found = nullptr;
	ASSERT_TRUE(message.FindString("s", &found));
	EXPECT_STREQ("hi", found);
}

TEST(ZvMessageTypedTest, ReplaceStringWithLongerGrowsTheItem)
{
	ZvMessage message(0);
	message.AddString("s", "a");
	message.AddString("s", "b");
	ASSERT_TRUE(message.ReplaceString("s", 1, "longer text"));
	const char* found = nullptr;
	ASSERT_TRUE(message.FindString("s", 1, &found));
	EXPECT_STREQ("longer text", found);
	const void* data;
	int32 size;
	ASSERT_TRUE(message.FindData("s", ZV_STRING_TYPE, 1, &data, &size));
	EXPECT_EQ(12, size);
}

TEST(ZvMessageTypedTest, FindStringRefusesABlockWithoutTerminator)
{
	ZvMessage message(0);
	message.AddData("s", ZV_STRING_TYPE, "abc", 3);
	const char* found = nullptr;
	EXPECT_FALSE(message.FindString("s", &found));
	EXPECT_EQ(nullptr, found);
}

// Pointers

TEST(ZvMessageTypedTest, PointerStoresTheAddressValueInPointerWidth)
{
	int target = 0;
	ZvMessage message(0);
	ASSERT_TRUE(message.AddPointer("p", &target));
	const void* data;
	int32 size;
	ASSERT_TRUE(message.FindData("p", ZV_POINTER_TYPE, &data, &size));
	EXPECT_EQ(static_cast<int32>(sizeof(void*)), size);
#if defined(__i386__)
	EXPECT_EQ(4, size);
#endif
	void* found = nullptr;
	ASSERT_TRUE(message.FindPointer("p", &found));
	EXPECT_EQ(&target, found);
	ASSERT_TRUE(message.FindPointer("p", 0, &found));
	EXPECT_EQ(&target, found);
}

TEST(ZvMessageTypedTest, PointerReplaceAndHas)
{
	int first = 0;
	int second = 0;
	ZvMessage message(0);
	EXPECT_FALSE(message.HasPointer("p", 0));
	message.AddPointer("p", &first);
	message.AddPointer("p", nullptr);
	ASSERT_TRUE(message.ReplacePointer("p", 1, &second));
	ASSERT_TRUE(message.ReplacePointer("p", &second));
	void* found = nullptr;
	message.FindPointer("p", 0, &found);
	EXPECT_EQ(&second, found);
	message.FindPointer("p", 1, &found);
	EXPECT_EQ(&second, found);
	EXPECT_TRUE(message.HasPointer("p", 1));
	EXPECT_FALSE(message.HasPointer("p", 2));
	EXPECT_FALSE(message.ReplacePointer(nullptr, &first));
	EXPECT_FALSE(message.FindPointer("p", nullptr));
}

TEST(ZvMessageTypedTest, PreferredHandlerFieldRoundTrips)
{
	int handler = 0;
	ZvMessage message(0x51554954);
	ASSERT_TRUE(message.AddPointer("_preferredhandler", &handler));
	void* found = nullptr;
	ASSERT_TRUE(message.FindPointer("_preferredhandler", &found));
	EXPECT_EQ(&handler, found);
	ASSERT_TRUE(message.ReplacePointer("_preferredhandler", nullptr));
	ASSERT_TRUE(message.FindPointer("_preferredhandler", &found));
	EXPECT_EQ(nullptr, found);
}

// Colours

TEST(ZvMessageTypedTest, ColourStoresItsEightBytesInChannelOrder)
{
	ZvMessage message(0);
	const zv_color color(200, 100, 50, 7);
	ASSERT_TRUE(message.AddColor("c", &color));
	const void* data;
	int32 size;
	ASSERT_TRUE(message.FindData("c", ZV_COLOR_TYPE, &data, &size));
	ASSERT_EQ(8, size);
	const uint8* bytes = static_cast<const uint8*>(data);
	const uint8 expected[8] = {200, 100, 50, 7, color.C(), color.M(), color.Y(), color.K()};
	EXPECT_EQ(0, memcmp(expected, bytes, 8));
	zv_color found;
	ASSERT_TRUE(message.FindColor("c", &found));
	EXPECT_TRUE(found == color);
}

TEST(ZvMessageTypedTest, AddColorWithNullColourReturnsFalseAndAddsNothing)
{
	ZvMessage message(0);
	EXPECT_FALSE(message.AddColor("c", nullptr));
	EXPECT_TRUE(message.IsEmpty());
	zv_color color(1, 2, 3, 4);
	message.AddColor("c", &color);
	EXPECT_FALSE(message.ReplaceColor("c", nullptr));
	EXPECT_FALSE(message.FindColor("c", nullptr));
}

TEST(ZvMessageTypedTest, ColourReplaceWithAndWithoutIndex)
{
	ZvMessage message(0);
	const zv_color red(255, 0, 0, 255);
	const zv_color blue(0, 0, 255, 255);
	message.AddColor("c", &red);
	message.AddColor("c", &red);
	ASSERT_TRUE(message.ReplaceColor("c", 1, &blue));
	zv_color found;
	message.FindColor("c", 1, &found);
	EXPECT_TRUE(found == blue);
	message.FindColor("c", 0, &found);
	EXPECT_TRUE(found == red);
	ASSERT_TRUE(message.ReplaceColor("c", &blue));
	message.FindColor("c", &found);
	EXPECT_TRUE(found == blue);
	EXPECT_TRUE(message.HasColor("c", 1));
	EXPECT_FALSE(message.HasColor("c", 2));
}

// Nested messages

TEST(ZvMessageTypedTest, AddMessageKeepsTheMessageAsItWasAtTheAdd)
{
	ZvMessage inner(0x696E6E72);
	inner.SetFlags(3);
	inner.AddInt32("x", 1);
	ZvMessage outer(0);
	ASSERT_TRUE(outer.AddMessage("m", &inner));
	inner.what = 99;
	inner.SetFlags(4);
	inner.ReplaceInt32("x", 2);
	inner.AddBool("later", true);

	ZvMessage found(5);
	found.AddString("previous", "content");
	ASSERT_TRUE(outer.FindMessage("m", &found));
	EXPECT_EQ(0x696E6E72u, found.what);
	EXPECT_EQ(3u, FlatBytes(found)[4]);
	int32 x = 0;
	ASSERT_TRUE(found.FindInt32("x", &x));
	EXPECT_EQ(1, x);
	EXPECT_FALSE(found.HasBool("later", 0));
	EXPECT_FALSE(found.HasString("previous", 0));
}

TEST(ZvMessageTypedTest, MessageItemHoldsTheFlattenedBytes)
{
	ZvMessage inner(1);
	inner.AddInt16("s", 2);
	ZvMessage outer(0);
	outer.AddMessage("m", &inner);
	const void* data;
	int32 size;
	ASSERT_TRUE(outer.FindData("m", ZV_MESSAGE_TYPE, &data, &size));
	const std::vector<uint8> flat = FlatBytes(inner);
	ASSERT_EQ(static_cast<int32>(flat.size()), size);
	EXPECT_EQ(0, memcmp(flat.data(), data, size));
}

TEST(ZvMessageTypedTest, MessageFamilyRefusesNulls)
{
	ZvMessage outer(0);
	EXPECT_FALSE(outer.AddMessage("m", nullptr));
	EXPECT_TRUE(outer.IsEmpty());
	ZvMessage inner(1);
	outer.AddMessage("m", &inner);
	EXPECT_FALSE(outer.FindMessage("m", nullptr));
	EXPECT_FALSE(outer.ReplaceMessage("m", nullptr));
	EXPECT_FALSE(outer.ReplaceMessage(nullptr, &inner));
	EXPECT_FALSE(outer.ReplaceMessage("m", 1, &inner));
	ZvMessage found(0);
	EXPECT_FALSE(outer.FindMessage("m", 1, &found));
	EXPECT_TRUE(outer.HasMessage("m", 0));
	EXPECT_FALSE(outer.HasMessage("m", 1));
}

TEST(ZvMessageTypedTest, ReplaceMessageWithSmallerKeepsTheSizeAndFindsTheNewMessage)
{
	ZvMessage big(1);
	for (int i = 0; i < 5; i++)
		big.AddInt64("v", i);
	ZvMessage small(2);
	small.AddBool("b", true);
	ZvMessage outer(0);
	outer.AddMessage("m", &big);
	outer.AddMessage("m", &big);
	ASSERT_TRUE(outer.ReplaceMessage("m", 1, &small));
	const void* data;
	int32 size;
	ASSERT_TRUE(outer.FindData("m", ZV_MESSAGE_TYPE, 1, &data, &size));
	EXPECT_EQ(big.FlattenedSize(), size);
	ZvMessage found(0);
	ASSERT_TRUE(outer.FindMessage("m", 1, &found));
	EXPECT_EQ(2u, found.what);
	EXPECT_EQ(FlatBytes(small), FlatBytes(found));
	ASSERT_TRUE(outer.FindMessage("m", &found));
	EXPECT_EQ(FlatBytes(big), FlatBytes(found));
	ASSERT_TRUE(outer.ReplaceMessage("m", &small));
	ASSERT_TRUE(outer.FindMessage("m", &found));
	EXPECT_EQ(FlatBytes(small), FlatBytes(found));
}

TEST(ZvMessageTypedTest, FindMessageRefusesAMalformedNestedBlock)
{
	ZvMessage outer(0);
	// Claims one record but ends after the header.
	const uint8 broken[12] = {1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0};
	outer.AddData("m", ZV_MESSAGE_TYPE, broken, sizeof(broken));
	ZvMessage found(0);
	found.AddInt32("old", 1);
	EXPECT_FALSE(outer.FindMessage("m", &found));
	EXPECT_TRUE(found.IsEmpty());
}

TEST(ZvMessageTypedTest, AddMessageOfItselfNestsASnapshot)
{
	ZvMessage message(7);
	message.AddInt32("a", 1);
	ASSERT_TRUE(message.AddMessage("self", &message));
	ZvMessage found(0);
	ASSERT_TRUE(message.FindMessage("self", &found));
	EXPECT_EQ(7u, found.what);
	EXPECT_TRUE(found.HasInt32("a", 0));
	EXPECT_FALSE(found.HasMessage("self", 0));
}

TEST(ZvMessageTypedTest, FindMessageIntoItselfReplacesItWithTheNestedMessage)
{
	ZvMessage inner(2);
	inner.AddString("s", "inner value");
	ZvMessage message(1);
	message.AddInt32("a", 1);
	message.AddMessage("m", &inner);
	message.AddInt32("b", 2);
	ASSERT_TRUE(message.FindMessage("m", &message));
	EXPECT_EQ(FlatBytes(inner), FlatBytes(message));
}

// Rectangles and points, per element type

template <typename E> class ZvMessageShapeTest : public ::testing::Test
{
};

using ElementTypes = ::testing::Types<double, float, int32, int16>;
TYPED_TEST_SUITE(ZvMessageShapeTest, ElementTypes);

std::vector<double> StoredDoubles(const ZvMessage& message, const char* name, type_code type,
                                  int32 index = 0)
{
	const void* data;
	int32 size;
	if (!message.FindData(name, type, index, &data, &size))
		return {};
	std::vector<double> values(size / sizeof(double));
	memcpy(values.data(), data, values.size() * sizeof(double));
	return values;
}

TYPED_TEST(ZvMessageShapeTest, RectIsStoredAsFourDoublesAndFoundBack)
{
	using E = TypeParam;
	ZvMessage message(0);
	ASSERT_TRUE(message.AddRect("r", ZvRect<E>{E(1), E(-2), E(30), E(400)}));
	EXPECT_EQ((std::vector<double>{1, -2, 30, 400}), StoredDoubles(message, "r", ZV_RECT_TYPE));
	ZvRect<E> found;
	ASSERT_TRUE(message.FindRect("r", &found));
	EXPECT_EQ(E(1), found.left);
	EXPECT_EQ(E(-2), found.top);
	EXPECT_EQ(E(30), found.right);
	EXPECT_EQ(E(400), found.bottom);
	ASSERT_TRUE(message.FindRect("r", 0, &found));
	EXPECT_EQ(E(400), found.bottom);
	EXPECT_FALSE(message.FindRect("r", 1, &found));
	EXPECT_FALSE(message.FindRect("r", static_cast<ZvRect<E>*>(nullptr)));
	EXPECT_TRUE(message.HasRect("r", 0));
	EXPECT_FALSE(message.HasRect("r", -1));
}

TYPED_TEST(ZvMessageShapeTest, ReplaceRectAtIndexZeroReplacesAllFourValues)
{
	using E = TypeParam;
	ZvMessage message(0);
	message.AddRect("r", ZvRect<E>{E(1), E(2), E(3), E(4)});
	ASSERT_TRUE(message.ReplaceRect("r", 0, ZvRect<E>{E(5), E(6), E(7), E(8)}));
	EXPECT_EQ((std::vector<double>{5, 6, 7, 8}), StoredDoubles(message, "r", ZV_RECT_TYPE));
	ASSERT_TRUE(message.ReplaceRect("r", ZvRect<E>{E(9), E(10), E(11), E(12)}));
	EXPECT_EQ((std::vector<double>{9, 10, 11, 12}), StoredDoubles(message, "r", ZV_RECT_TYPE));
	EXPECT_FALSE(message.ReplaceRect("r", 1, ZvRect<E>{}));
	EXPECT_FALSE(message.ReplaceRect(nullptr, ZvRect<E>{}));
}

TYPED_TEST(ZvMessageShapeTest, PointIsStoredAsTwoDoublesAndFoundBack)
{
	using E = TypeParam;
	ZvMessage message(0);
	ASSERT_TRUE(message.AddPoint("p", ZvPoint<E>{E(-3), E(4)}));
	EXPECT_EQ((std::vector<double>{-3, 4}), StoredDoubles(message, "p", ZV_POINT_TYPE));
	ZvPoint<E> found;
	ASSERT_TRUE(message.FindPoint("p", &found));
	EXPECT_EQ(E(-3), found.x);
	EXPECT_EQ(E(4), found.y);
	ASSERT_TRUE(message.FindPoint("p", 0, &found));
	EXPECT_FALSE(message.FindPoint("p", 1, &found));
	EXPECT_TRUE(message.HasPoint("p", 0));
	EXPECT_FALSE(message.HasPoint("q", 0));
}

TYPED_TEST(ZvMessageShapeTest, ReplacePointReplacesBothValues)
{
	using E = TypeParam;
	ZvMessage message(0);
	message.AddPoint("p", ZvPoint<E>{E(1), E(2)});
	message.AddPoint("p", ZvPoint<E>{E(1), E(2)});
	ASSERT_TRUE(message.ReplacePoint("p", 1, ZvPoint<E>{E(7), E(8)}));
	EXPECT_EQ((std::vector<double>{1, 2}), StoredDoubles(message, "p", ZV_POINT_TYPE, 0));
	EXPECT_EQ((std::vector<double>{7, 8}), StoredDoubles(message, "p", ZV_POINT_TYPE, 1));
	ASSERT_TRUE(message.ReplacePoint("p", ZvPoint<E>{E(5), E(6)}));
	EXPECT_EQ((std::vector<double>{5, 6}), StoredDoubles(message, "p", ZV_POINT_TYPE, 0));
}

TYPED_TEST(ZvMessageShapeTest, ReplaceOnASmallerItemPassesSizeFour)
{
	using E = TypeParam;
	ZvMessage message(0);
	message.AddData("r", ZV_RECT_TYPE, "\1\2", 2);
	ASSERT_TRUE(message.ReplaceRect("r", ZvRect<E>{E(1), E(2), E(3), E(4)}));
	const void* data;
	int32 size;
	ASSERT_TRUE(message.FindData("r", ZV_RECT_TYPE, &data, &size));
	EXPECT_EQ(4, size);
	const double left = 1;
	EXPECT_EQ(0, memcmp(&left, data, 4));
}

TEST(ZvMessageShapeConversionTest, FloatRectFoundAsInt32IsTruncated)
{
	ZvMessage message(0);
	message.AddRect("r", ZvRect<float>{0.5f, 1.5f, 2.5f, 3.5f});
	ZvRect<int32> found{9, 9, 9, 9};
	ASSERT_TRUE(message.FindRect("r", &found));
	EXPECT_EQ(0, found.left);
	EXPECT_EQ(1, found.top);
	EXPECT_EQ(2, found.right);
	EXPECT_EQ(3, found.bottom);
}

TEST(ZvMessageShapeConversionTest, NegativeValueTruncatesTowardZeroIntoShort)
{
	ZvMessage message(0);
	message.AddRect("r", ZvRect<double>{-1.7, 1.7, -0.2, 32767.9});
	ZvRect<int16> found;
	ASSERT_TRUE(message.FindRect("r", &found));
	EXPECT_EQ(-1, found.left);
	EXPECT_EQ(1, found.top);
	EXPECT_EQ(0, found.right);
	EXPECT_EQ(32767, found.bottom);
}

TEST(ZvMessageShapeConversionTest, ShortKeepsTheLowSixteenBitsOfTheInt32Truncation)
{
	ZvMessage message(0);
	message.AddPoint("p", ZvPoint<double>{70000.5, -70000.5});
	ZvPoint<int16> found;
	ASSERT_TRUE(message.FindPoint("p", &found));
	EXPECT_EQ(static_cast<int16>(70000 & 0xFFFF), found.x);
	EXPECT_EQ(static_cast<int16>(static_cast<uint16>(-70000 & 0xFFFF)), found.y);
}

TEST(ZvMessageShapeConversionTest, OutOfRangeValuesGiveTheIntegerIndefinite)
{
	ZvMessage message(0);
	message.AddRect("r", ZvRect<double>{1e20, -1e20, std::nan(""), 2147483647.9});
	ZvRect<int32> found;
	ASSERT_TRUE(message.FindRect("r", &found));
	EXPECT_EQ(INT_MIN, found.left);
	EXPECT_EQ(INT_MIN, found.top);
	EXPECT_EQ(INT_MIN, found.right);
	EXPECT_EQ(INT_MAX, found.bottom);
}

TEST(ZvMessageShapeConversionTest, LongPointFoundAsDouble)
{
	ZvMessage message(0);
	message.AddPoint("p", ZvPoint<int32>{3, 4});
	ZvPoint<double> found;
	ASSERT_TRUE(message.FindPoint("p", &found));
	EXPECT_EQ(3.0, found.x);
	EXPECT_EQ(4.0, found.y);
}

TEST(ZvMessageShapeConversionTest, DoubleFoundAsFloatIsRounded)
{
	ZvMessage message(0);
	message.AddPoint("p", ZvPoint<double>{0.1, 1.0 / 3.0});
	ZvPoint<float> found;
	ASSERT_TRUE(message.FindPoint("p", &found));
	EXPECT_EQ(0.1f, found.x);
	EXPECT_EQ(static_cast<float>(1.0 / 3.0), found.y);
}

TEST(ZvMessageShapeConversionTest, RectOfAnotherSizeIsReadAsTheRequestedElements)
{
	ZvMessage message(0);
	const float floats[4] = {1.25f, 2.5f, 3.75f, 5.0f};
	message.AddData("f", ZV_RECT_TYPE, floats, sizeof(floats));
	ZvRect<float> asFloat;
	ASSERT_TRUE(message.FindRect("f", &asFloat));
	EXPECT_EQ(1.25f, asFloat.left);
	EXPECT_EQ(5.0f, asFloat.bottom);

	const int32 longs[4] = {-1, 2, -3, 4};
	message.AddData("l", ZV_RECT_TYPE, longs, sizeof(longs));
	ZvRect<int32> asLong;
	ASSERT_TRUE(message.FindRect("l", &asLong));
	EXPECT_EQ(-1, asLong.left);
	EXPECT_EQ(4, asLong.bottom);

	const int16 shorts[4] = {10, -20, 30, -40};
	message.AddData("s", ZV_RECT_TYPE, shorts, sizeof(shorts));
	ZvRect<int16> asShort;
	ASSERT_TRUE(message.FindRect("s", &asShort));
	EXPECT_EQ(10, asShort.left);
	EXPECT_EQ(-40, asShort.bottom);

	ZvRect<double> asDouble{7, 7, 7, 7};
	ASSERT_TRUE(message.FindRect("f", &asDouble));
	EXPECT_EQ(7.0, asDouble.left);
	EXPECT_EQ(7.0, asDouble.bottom);
}

TEST(ZvMessageShapeConversionTest, ShortBlockFillsOnlyWhatItHolds)
{
	ZvMessage message(0);
	const int16 one = 99;
	message.AddData("p", ZV_POINT_TYPE, &one, sizeof(one));
	ZvPoint<int32> found{-5, -6};
	ASSERT_TRUE(message.FindPoint("p", &found));
	EXPECT_EQ(-6, found.y);
	ZvPoint<int16> small{-5, -6};
	ASSERT_TRUE(message.FindPoint("p", &small));
	EXPECT_EQ(99, small.x);
	EXPECT_EQ(-6, small.y);
}

TEST(ZvMessageShapeConversionTest, RectAndPointShareOneCodeForEveryElementType)
{
	ZvMessage message(0);
	message.AddRect("r", ZvRect<int16>{1, 2, 3, 4});
	message.AddRect("r", ZvRect<double>{5, 6, 7, 8});
	ZvRect<float> second;
	ASSERT_TRUE(message.FindRect("r", 1, &second));
	EXPECT_EQ(5.0f, second.left);
	EXPECT_EQ(1, message.CountNames(ZV_RECT_TYPE));
	EXPECT_FALSE(message.HasPoint("r", 0));
}

} // namespace
