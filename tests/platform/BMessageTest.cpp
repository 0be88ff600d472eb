// Tests of the platform's BMessage: typed fields and their status codes,
// index forms, raw data, nested messages, copies and field information.

#include <Message.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

// A four-character code, most significant byte first.
constexpr uint32 Code(const char (&text)[5])
{
	return static_cast<uint32>(static_cast<uint8>(text[0])) << 24 |
	       static_cast<uint32>(static_cast<uint8>(text[1])) << 16 |
	       static_cast<uint32>(static_cast<uint8>(text[2])) << 8 | static_cast<uint8>(text[3]);
}

// One traits class per typed family: its type code, two distinct values and
// the family's members.
struct BoolFamily
{
	typedef bool Value;
	static constexpr type_code kType = B_BOOL_TYPE;
	static Value First() { return true; }
	static Value Second() { return false; }
	static status_t Add(BMessage& m, const char* n, Value v) { return m.AddBool(n, v); }
	static status_t Find(const BMessage& m, const char* n, Value* v) { return m.FindBool(n, v); }
	static status_t Find(const BMessage& m, const char* n, int32 i, Value* v)
	{
		return m.FindBool(n, i, v);
	}
	static status_t Replace(BMessage& m, const char* n, Value v) { return m.ReplaceBool(n, v); }
	static status_t Replace(BMessage& m, const char* n, int32 i, Value v)
	{
		return m.ReplaceBool(n, i, v);
	}
	static bool Has(const BMessage& m, const char* n, int32 i) { return m.HasBool(n, i); }
};

struct Int8Family
{
	typedef int8 Value;
	static constexpr type_code kType = B_INT8_TYPE;
	static Value First() { return -7; }
	static Value Second() { return 120; }
	static status_t Add(BMessage& m, const char* n, Value v) { return m.AddInt8(n, v); }
	static status_t Find(const BMessage& m, const char* n, Value* v) { return m.FindInt8(n, v); }
	static status_t Find(const BMessage& m, const char* n, int32 i, Value* v)
	{
		return m.FindInt8(n, i, v);
	}
	static status_t Replace(BMessage& m, const char* n, Value v) { return m.ReplaceInt8(n, v); }
	static status_t Replace(BMessage& m, const char* n, int32 i, Value v)
	{
		return m.ReplaceInt8(n, i, v);
	}
	static bool Has(const BMessage& m, const char* n, int32 i) { return m.HasInt8(n, i); }
};

struct Int16Family
{
	typedef int16 Value;
	static constexpr type_code kType = B_INT16_TYPE;
	static Value First() { return -30000; }
	static Value Second() { return 1234; }
	static status_t Add(BMessage& m, const char* n, Value v) { return m.AddInt16(n, v); }
	static status_t Find(const BMessage& m, const char* n, Value* v) { return m.FindInt16(n, v); }
	static status_t Find(const BMessage& m, const char* n, int32 i, Value* v)
	{
		return m.FindInt16(n, i, v);
	}
	static status_t Replace(BMessage& m, const char* n, Value v) { return m.ReplaceInt16(n, v); }
	static status_t Replace(BMessage& m, const char* n, int32 i, Value v)
	{
		return m.ReplaceInt16(n, i, v);
	}
	static bool Has(const BMessage& m, const char* n, int32 i) { return m.HasInt16(n, i); }
};

struct Int32Family
{
	typedef int32 Value;
	static constexpr type_code kType = B_INT32_TYPE;
	static Value First() { return -2000000000; }
	static Value Second() { return 77; }
	static status_t Add(BMessage& m, const char* n, Value v) { return m.AddInt32(n, v); }
	static status_t Find(const BMessage& m, const char* n, Value* v) { return m.FindInt32(n, v); }
	static status_t Find(const BMessage& m, const char* n, int32 i, Value* v)
	{
		return m.FindInt32(n, i, v);
	}
	static status_t Replace(BMessage& m, const char* n, Value v) { return m.ReplaceInt32(n, v); }
	static status_t Replace(BMessage& m, const char* n, int32 i, Value v)
	{
		return m.ReplaceInt32(n, i, v);
	}
	static bool Has(const BMessage& m, const char* n, int32 i) { return m.HasInt32(n, i); }
};

struct Int64Family
{
	typedef int64 Value;
	static constexpr type_code kType = B_INT64_TYPE;
	static Value First() { return -9000000000000000000LL; }
	static Value Second() { return 5000000000LL; }
	static status_t Add(BMessage& m, const char* n, Value v) { return m.AddInt64(n, v); }
	static status_t Find(const BMessage& m, const char* n, Value* v) { return m.FindInt64(n, v); }
	static status_t Find(const BMessage& m, const char* n, int32 i, Value* v)
	{
		return m.FindInt64(n, i, v);
	}
	static status_t Replace(BMessage& m, const char* n, Value v) { return m.ReplaceInt64(n, v); }
	static status_t Replace(BMessage& m, const char* n, int32 i, Value v)
	{
		return m.ReplaceInt64(n, i, v);
	}
	static bool Has(const BMessage& m, const char* n, int32 i) { return m.HasInt64(n, i); }
};

struct FloatFamily
{
	typedef float Value;
	static constexpr type_code kType = B_FLOAT_TYPE;
	static Value First() { return 1.5f; }
	static Value Second() { return -0.25f; }
	static status_t Add(BMessage& m, const char* n, Value v) { return m.AddFloat(n, v); }
	static status_t Find(const BMessage& m, const char* n, Value* v) { return m.FindFloat(n, v); }
	static status_t Find(const BMessage& m, const char* n, int32 i, Value* v)
	{
		return m.FindFloat(n, i, v);
	}
	static status_t Replace(BMessage& m, const char* n, Value v) { return m.ReplaceFloat(n, v); }
	static status_t Replace(BMessage& m, const char* n, int32 i, Value v)
	{
		return m.ReplaceFloat(n, i, v);
	}
	static bool Has(const BMessage& m, const char* n, int32 i) { return m.HasFloat(n, i); }
};

struct DoubleFamily
{
	typedef double Value;
	static constexpr type_code kType = B_DOUBLE_TYPE;
	static Value First() { return 3.141592653589793; }
	static Value Second() { return -1e300; }
	static status_t Add(BMessage& m, const char* n, Value v) { return m.AddDouble(n, v); }
	static status_t Find(const BMessage& m, const char* n, Value* v) { return m.FindDouble(n, v); }
	static status_t Find(const BMessage& m, const char* n, int32 i, Value* v)
	{
		return m.FindDouble(n, i, v);
	}
	static status_t Replace(BMessage& m, const char* n, Value v) { return m.ReplaceDouble(n, v); }
	static status_t Replace(BMessage& m, const char* n, int32 i, Value v)
	{
		return m.ReplaceDouble(n, i, v);
	}
	static bool Has(const BMessage& m, const char* n, int32 i) { return m.HasDouble(n, i); }
};

int sPointees[2];

struct PointerFamily
{
	typedef void* Value;
	static constexpr type_code kType = B_POINTER_TYPE;
	static Value First() { return &sPointees[0]; }
	static Value Second() { return &sPointees[1]; }
	static status_t Add(BMessage& m, const char* n, Value v) { return m.AddPointer(n, v); }
	static status_t Find(const BMessage& m, const char* n, Value* v) { return m.FindPointer(n, v); }
	static status_t Find(const BMessage& m, const char* n, int32 i, Value* v)
	{
		return m.FindPointer(n, i, v);
	}
	static status_t Replace(BMessage& m, const char* n, Value v) { return m.ReplacePointer(n, v); }
	static status_t Replace(BMessage& m, const char* n, int32 i, Value v)
	{
		return m.ReplacePointer(n, i, v);
	}
	static bool Has(const BMessage& m, const char* n, int32 i) { return m.HasPointer(n, i); }
};

template <typename Family> class BMessageTypedTest : public ::testing::Test
{
};

typedef ::testing::Types<BoolFamily, Int8Family, Int16Family, Int32Family, Int64Family, FloatFamily,
                         DoubleFamily, PointerFamily>
    Families;
TYPED_TEST_SUITE(BMessageTypedTest, Families);

TYPED_TEST(BMessageTypedTest, AddedValuesAreFoundByIndexInOrder)
{
	BMessage message;
	ASSERT_EQ(B_OK, TypeParam::Add(message, "v", TypeParam::First()));
	ASSERT_EQ(B_OK, TypeParam::Add(message, "v", TypeParam::Second()));

	typename TypeParam::Value value{};
	EXPECT_EQ(B_OK, TypeParam::Find(message, "v", &value));
	EXPECT_EQ(TypeParam::First(), value);
	EXPECT_EQ(B_OK, TypeParam::Find(message, "v", 1, &value));
	EXPECT_EQ(TypeParam::Second(), value);
	EXPECT_TRUE(TypeParam::Has(message, "v", 0));
	EXPECT_TRUE(TypeParam::Has(message, "v", 1));
	EXPECT_FALSE(TypeParam::Has(message, "v", 2));

	type_code type = 0;
	int32 count = 0;
	EXPECT_EQ(B_OK, message.GetInfo("v", &type, &count));
	EXPECT_EQ(TypeParam::kType, type);
	EXPECT_EQ(2, count);
}

TYPED_TEST(BMessageTypedTest, FindGivesPlatformStatusCodes)
{
	BMessage message;
	ASSERT_EQ(B_OK, TypeParam::Add(message, "v", TypeParam::First()));
	ASSERT_EQ(B_OK, message.AddString("other", "text"));

	typename TypeParam::Value value = TypeParam::Second();
	EXPECT_EQ(B_NAME_NOT_FOUND, TypeParam::Find(message, "missing", &value));
	EXPECT_EQ(B_BAD_TYPE, TypeParam::Find(message, "other", &value));
	EXPECT_EQ(B_BAD_INDEX, TypeParam::Find(message, "v", 1, &value));
	EXPECT_EQ(B_BAD_INDEX, TypeParam::Find(message, "v", -1, &value));
	EXPECT_EQ(B_BAD_VALUE, TypeParam::Find(message, nullptr, &value));
	EXPECT_EQ(B_BAD_VALUE, TypeParam::Find(message, "v", nullptr));
	// Failed finds leave the out-value alone.
	EXPECT_EQ(TypeParam::Second(), value);
	EXPECT_FALSE(TypeParam::Has(message, "other", 0));
	EXPECT_FALSE(TypeParam::Has(message, "missing", 0));
	EXPECT_FALSE(TypeParam::Has(message, nullptr, 0));
}

TYPED_TEST(BMessageTypedTest, AddUnderANameOfAnotherTypeIsRefused)
{
	BMessage message;
	ASSERT_EQ(B_OK, message.AddString("name", "text"));
	EXPECT_EQ(B_BAD_TYPE, TypeParam::Add(message, "name", TypeParam::First()));
	EXPECT_EQ(B_BAD_VALUE, TypeParam::Add(message, nullptr, TypeParam::First()));
	int32 count = 0;
	type_code type = 0;
	EXPECT_EQ(B_OK, message.GetInfo("name", &type, &count));
	EXPECT_EQ(1, count);
	EXPECT_EQ(static_cast<type_code>(B_STRING_TYPE), type);
}

TYPED_TEST(BMessageTypedTest, ReplaceChangesOneItemAndChecksNameTypeAndIndex)
{
	BMessage message;
	ASSERT_EQ(B_OK, TypeParam::Add(message, "v", TypeParam::First()));
	ASSERT_EQ(B_OK, TypeParam::Add(message, "v", TypeParam::First()));
	ASSERT_EQ(B_OK, message.AddString("other", "text"));

	EXPECT_EQ(B_OK, TypeParam::Replace(message, "v", 1, TypeParam::Second()));
	typename TypeParam::Value value{};
	EXPECT_EQ(B_OK, TypeParam::Find(message, "v", 0, &value));
	EXPECT_EQ(TypeParam::First(), value);
	EXPECT_EQ(B_OK, TypeParam::Find(message, "v", 1, &value));
	EXPECT_EQ(TypeParam::Second(), value);

	EXPECT_EQ(B_OK, TypeParam::Replace(message, "v", TypeParam::Second()));
	EXPECT_EQ(B_OK, TypeParam::Find(message, "v", &value));
	EXPECT_EQ(TypeParam::Second(), value);

	EXPECT_EQ(B_NAME_NOT_FOUND, TypeParam::Replace(message, "missing", TypeParam::First()));
	EXPECT_EQ(B_BAD_TYPE, TypeParam::Replace(message, "other", TypeParam::First()));
	EXPECT_EQ(B_BAD_INDEX, TypeParam::Replace(message, "v", 2, TypeParam::First()));
}

// #pragma mark - Strings

TEST(BMessageStringTest, StringsAreCopiedAndFoundByIndex)
{
	BMessage message;
	char buffer[] = "first";
	ASSERT_EQ(B_OK, message.AddString("s", buffer));
	ASSERT_EQ(B_OK, message.AddString("s", ""));
	buffer[0] = 'X';

	const char* found = nullptr;
	EXPECT_EQ(B_OK, message.FindString("s", &found));
	EXPECT_STREQ("first", found);
	EXPECT_EQ(B_OK, message.FindString("s", 1, &found));
	EXPECT_STREQ("", found);
	EXPECT_EQ(B_BAD_INDEX, message.FindString("s", 2, &found));
	EXPECT_TRUE(message.HasString("s", 1));
	EXPECT_FALSE(message.HasString("s", 2));

	bool fixed = true;
	type_code type = 0;
	EXPECT_EQ(B_OK, message.GetInfo("s", &type, &fixed));
	EXPECT_EQ(static_cast<type_code>(B_STRING_TYPE), type);
	EXPECT_FALSE(fixed);
}

TEST(BMessageStringTest, ReplaceStringMayChangeTheLength)
{
	BMessage message;
	ASSERT_EQ(B_OK, message.AddString("s", "short"));
	EXPECT_EQ(B_OK, message.ReplaceString("s", "a much longer string"));
	const char* found = nullptr;
	EXPECT_EQ(B_OK, message.FindString("s", &found));
	EXPECT_STREQ("a much longer string", found);
	EXPECT_EQ(B_BAD_VALUE, message.ReplaceString("s", nullptr));
	EXPECT_EQ(B_BAD_INDEX, message.ReplaceString("s", 1, "x"));
}

TEST(BMessageStringTest, NullStringsAndOutPointersAreRefused)
{
	BMessage message;
	EXPECT_EQ(B_BAD_VALUE, message.AddString("s", nullptr));
	EXPECT_TRUE(message.IsEmpty());
	ASSERT_EQ(B_OK, message.AddString("s", "x"));
	EXPECT_EQ(B_BAD_VALUE, message.FindString("s", nullptr));
}

TEST(BMessageStringTest, UnterminatedBytesUnderTheStringTypeAreNotHandedOutAsAString)
{
	BMessage message;
	ASSERT_EQ(B_OK, message.AddData("s", B_STRING_TYPE, "abc", 3, false));
	const char* found = nullptr;
	EXPECT_EQ(B_BAD_DATA, message.FindString("s", &found));
	EXPECT_EQ(nullptr, found);
}

// #pragma mark - Raw data

TEST(BMessageDataTest, FixedSizeDataKeepsItsItemSize)
{
	BMessage message;
	const uint8 first[4] = {1, 2, 3, 4};
	const uint8 second[4] = {5, 6, 7, 8};
	const uint8 wrong[3] = {9, 9, 9};
	ASSERT_EQ(B_OK, message.AddData("raw", B_RAW_TYPE, first, sizeof(first), true, 2));
	EXPECT_EQ(B_OK, message.AddData("raw", B_RAW_TYPE, second, sizeof(second)));
	EXPECT_EQ(B_BAD_VALUE, message.AddData("raw", B_RAW_TYPE, wrong, sizeof(wrong)));
	EXPECT_EQ(B_BAD_VALUE, message.ReplaceData("raw", B_RAW_TYPE, 0, wrong, sizeof(wrong)));

	const void* data = nullptr;
	ssize_t size = 0;
	EXPECT_EQ(B_OK, message.FindData("raw", B_RAW_TYPE, 1, &data, &size));
	ASSERT_EQ(4, size);
	EXPECT_EQ(0, std::memcmp(second, data, 4));
	EXPECT_EQ(B_OK, message.FindData("raw", B_RAW_TYPE, &data, &size));
	EXPECT_EQ(0, std::memcmp(first, data, 4));

	bool fixed = false;
	type_code type = 0;
	EXPECT_EQ(B_OK, message.GetInfo("raw", &type, &fixed));
	EXPECT_TRUE(fixed);
	EXPECT_EQ(static_cast<type_code>(B_RAW_TYPE), type);
}

TEST(BMessageDataTest, VariableSizeDataTakesItemsOfAnySize)
{
	BMessage message;
	ASSERT_EQ(B_OK, message.AddData("blob", Code("BLOB"), "abc", 3, false));
	ASSERT_EQ(B_OK, message.AddData("blob", Code("BLOB"), "defgh", 5, false));
	const void* data = nullptr;
	ssize_t size = 0;
	EXPECT_EQ(B_OK, message.FindData("blob", Code("BLOB"), 1, &data, &size));
	EXPECT_EQ(5, size);
	EXPECT_EQ(0, std::memcmp("defgh", data, 5));
	EXPECT_EQ(B_OK, message.ReplaceData("blob", Code("BLOB"), 0, "xy", 2));
	EXPECT_EQ(B_OK, message.FindData("blob", Code("BLOB"), 0, &data, &size));
	EXPECT_EQ(2, size);
}

TEST(BMessageDataTest, AnyTypeFindsAFieldOfEveryType)
{
	BMessage message;
	ASSERT_EQ(B_OK, message.AddInt32("n", 5));
	const void* data = nullptr;
	ssize_t size = 0;
	EXPECT_EQ(B_OK, message.FindData("n", B_ANY_TYPE, 0, &data, &size));
	EXPECT_EQ(4, size);
	EXPECT_TRUE(message.HasData("n", B_ANY_TYPE));
	EXPECT_FALSE(message.HasData("n", B_RAW_TYPE));
	EXPECT_EQ(B_BAD_TYPE, message.FindData("n", B_RAW_TYPE, 0, &data, &size));
}

TEST(BMessageDataTest, BadArgumentsAreRefused)
{
	BMessage message;
	int32 value = 1;
	EXPECT_EQ(B_BAD_VALUE, message.AddData(nullptr, B_RAW_TYPE, &value, 4));
	EXPECT_EQ(B_BAD_VALUE, message.AddData("x", B_RAW_TYPE, nullptr, 4));
	EXPECT_EQ(B_BAD_VALUE, message.AddData("x", B_RAW_TYPE, &value, 0));
	EXPECT_EQ(B_BAD_VALUE, message.AddData("x", B_RAW_TYPE, &value, -1));
	EXPECT_EQ(B_BAD_VALUE, message.AddData("x", B_ANY_TYPE, &value, 4));
	EXPECT_TRUE(message.IsEmpty());

	ASSERT_EQ(B_OK, message.AddData("x", B_RAW_TYPE, &value, 4));
	EXPECT_EQ(B_BAD_VALUE, message.FindData("x", B_RAW_TYPE, 0, nullptr, nullptr));
	EXPECT_EQ(B_BAD_VALUE, message.ReplaceData("x", B_RAW_TYPE, 0, nullptr, 4));
	EXPECT_EQ(B_NAME_NOT_FOUND, message.ReplaceData("y", B_RAW_TYPE, 0, &value, 4));
	EXPECT_EQ(B_BAD_TYPE, message.AddData("x", B_INT32_TYPE, &value, 4));
}

TEST(BMessageDataTest, PointersToEarlierItemsSurviveLaterAdds)
{
	BMessage message;
	ASSERT_EQ(B_OK, message.AddString("s", "zero"));
	const char* zero = nullptr;
	ASSERT_EQ(B_OK, message.FindString("s", &zero));
	for (int i = 0; i < 100; i++)
		ASSERT_EQ(B_OK, message.AddString("s", "more"));
	EXPECT_STREQ("zero", zero);
}

// #pragma mark - Nested messages

TEST(BMessageNestedTest, MessagesRoundTripWithTheirFieldsAndWhat)
{
	BMessage inner(Code("INNR"));
	ASSERT_EQ(B_OK, inner.AddInt32("a", 42));
	ASSERT_EQ(B_OK, inner.AddString("b", "text"));
	BMessage innermost(Code("DEEP"));
	ASSERT_EQ(B_OK, innermost.AddDouble("d", 2.5));
	ASSERT_EQ(B_OK, inner.AddMessage("m", &innermost));

	BMessage outer;
	ASSERT_EQ(B_OK, outer.AddMessage("msg", &inner));
	ASSERT_EQ(B_OK, outer.AddMessage("msg", &innermost));

	BMessage found;
	ASSERT_EQ(B_OK, found.AddBool("stale", true));
	ASSERT_EQ(B_OK, outer.FindMessage("msg", &found));
	EXPECT_EQ(Code("INNR"), found.what);
	EXPECT_FALSE(found.HasBool("stale"));
	int32 a = 0;
	EXPECT_EQ(B_OK, found.FindInt32("a", &a));
	EXPECT_EQ(42, a);
	BMessage deep;
	ASSERT_EQ(B_OK, found.FindMessage("m", &deep));
	double d = 0;
	EXPECT_EQ(B_OK, deep.FindDouble("d", &d));
	EXPECT_EQ(2.5, d);

	ASSERT_EQ(B_OK, outer.FindMessage("msg", 1, &found));
	EXPECT_EQ(Code("DEEP"), found.what);
	EXPECT_TRUE(outer.HasMessage("msg", 1));
	EXPECT_EQ(B_BAD_INDEX, outer.FindMessage("msg", 2, &found));
}

TEST(BMessageNestedTest, ReplaceAndBadArguments)
{
	BMessage outer;
	BMessage first(Code("ONE "));
	BMessage second(Code("TWO "));
	EXPECT_EQ(B_BAD_VALUE, outer.AddMessage("m", nullptr));
	ASSERT_EQ(B_OK, outer.AddMessage("m", &first));
	EXPECT_EQ(B_OK, outer.ReplaceMessage("m", &second));
	BMessage found;
	ASSERT_EQ(B_OK, outer.FindMessage("m", &found));
	EXPECT_EQ(Code("TWO "), found.what);
	EXPECT_EQ(B_BAD_VALUE, outer.FindMessage("m", nullptr));
	EXPECT_EQ(B_BAD_VALUE, outer.ReplaceMessage("m", nullptr));
	EXPECT_EQ(B_NAME_NOT_FOUND, outer.FindMessage("x", &found));
}

TEST(BMessageNestedTest, ForgedMessageBytesAreRefusedAndLeaveTheMessageEmpty)
{
	BMessage outer;
	const uint8 junk[6] = {'G', 'S', 'M', 'P', 0, 0};
	ASSERT_EQ(B_OK, outer.AddData("m", B_MESSAGE_TYPE, junk, sizeof(junk), false));
	BMessage found(Code("KEEP"));
	ASSERT_EQ(B_OK, found.AddInt32("x", 1));
	EXPECT_EQ(B_BAD_DATA, outer.FindMessage("m", &found));
	EXPECT_TRUE(found.IsEmpty());
	EXPECT_EQ(0u, found.what);
}

TEST(BMessageNestedTest, EveryTruncationOrExtensionOfANestedMessageIsRefused)
{
	BMessage inner(Code("INNR"));
	ASSERT_EQ(B_OK, inner.AddInt32("a", 42));
	ASSERT_EQ(B_OK, inner.AddString("b", "text"));
	BMessage holder;
	ASSERT_EQ(B_OK, holder.AddMessage("m", &inner));
	const void* data = nullptr;
	ssize_t size = 0;
	ASSERT_EQ(B_OK, holder.FindData("m", B_MESSAGE_TYPE, &data, &size));
	const uint8* bytes = static_cast<const uint8*>(data);
	std::vector<uint8> copy(bytes, bytes + size);

	for (ssize_t length = 1; length < size; length++) {
		BMessage outer;
		ASSERT_EQ(B_OK, outer.AddData("m", B_MESSAGE_TYPE, copy.data(), length, false));
		BMessage found;
		EXPECT_EQ(B_BAD_DATA, outer.FindMessage("m", &found)) << length;
		EXPECT_TRUE(found.IsEmpty());
	}
	copy.push_back(0);
	BMessage outer;
	ASSERT_EQ(B_OK, outer.AddData("m", B_MESSAGE_TYPE, copy.data(), size + 1, false));
	BMessage found;
	EXPECT_EQ(B_BAD_DATA, outer.FindMessage("m", &found));
}

// #pragma mark - The message as a whole

TEST(BMessageTest, ConstructionSetsWhatAndStartsEmpty)
{
	BMessage plain;
	EXPECT_EQ(0u, plain.what);
	EXPECT_TRUE(plain.IsEmpty());
	BMessage command(Code("CMND"));
	EXPECT_EQ(Code("CMND"), command.what);
	command.what = Code("OTHR");
	EXPECT_EQ(Code("OTHR"), command.what);
	EXPECT_EQ(0, command.CountNames(B_ANY_TYPE));
	EXPECT_FALSE(command.WasDelivered());
	EXPECT_FALSE(command.IsSourceWaiting());
}

TEST(BMessageTest, CopiesAreDeepAndIndependent)
{
	BMessage original(Code("ORIG"));
	ASSERT_EQ(B_OK, original.AddInt32("n", 1));
	ASSERT_EQ(B_OK, original.AddString("s", "text"));

	BMessage copy(original);
	ASSERT_EQ(B_OK, original.ReplaceInt32("n", 2));
	ASSERT_EQ(B_OK, original.RemoveName("s"));
	EXPECT_EQ(Code("ORIG"), copy.what);
	int32 n = 0;
	EXPECT_EQ(B_OK, copy.FindInt32("n", &n));
	EXPECT_EQ(1, n);
	EXPECT_TRUE(copy.HasString("s"));

	BMessage assigned(Code("ASGN"));
	ASSERT_EQ(B_OK, assigned.AddBool("gone", true));
	assigned = original;
	EXPECT_EQ(Code("ORIG"), assigned.what);
	EXPECT_FALSE(assigned.HasBool("gone"));
	EXPECT_EQ(B_OK, assigned.FindInt32("n", &n));
	EXPECT_EQ(2, n);

	const BMessage& self = assigned;
	assigned = self;
	EXPECT_EQ(B_OK, assigned.FindInt32("n", &n));
	EXPECT_EQ(2, n);
}

TEST(BMessageTest, MakeEmptyRemovesEveryFieldButKeepsWhat)
{
	BMessage message(Code("KEEP"));
	ASSERT_EQ(B_OK, message.AddInt32("a", 1));
	ASSERT_EQ(B_OK, message.AddString("b", "x"));
	EXPECT_EQ(B_OK, message.MakeEmpty());
	EXPECT_TRUE(message.IsEmpty());
	EXPECT_EQ(Code("KEEP"), message.what);
	EXPECT_FALSE(message.HasInt32("a"));
}

TEST(BMessageTest, RemoveNameRemovesEveryItemOfTheField)
{
	BMessage message;
	ASSERT_EQ(B_OK, message.AddInt32("a", 1));
	ASSERT_EQ(B_OK, message.AddInt32("a", 2));
	ASSERT_EQ(B_OK, message.AddInt32("b", 3));
	EXPECT_EQ(B_OK, message.RemoveName("a"));
	EXPECT_FALSE(message.HasInt32("a", 0));
	EXPECT_TRUE(message.HasInt32("b", 0));
	EXPECT_EQ(B_NAME_NOT_FOUND, message.RemoveName("a"));
	EXPECT_EQ(B_BAD_VALUE, message.RemoveName(nullptr));
	// The name can be used again, with another type.
	EXPECT_EQ(B_OK, message.AddString("a", "now a string"));
}

TEST(BMessageTest, RemoveDataRemovesOneItemAndTheFieldWithItsLast)
{
	BMessage message;
	ASSERT_EQ(B_OK, message.AddInt32("a", 1));
	ASSERT_EQ(B_OK, message.AddInt32("a", 2));
	EXPECT_EQ(B_BAD_INDEX, message.RemoveData("a", 2));
	EXPECT_EQ(B_OK, message.RemoveData("a", 0));
	int32 value = 0;
	EXPECT_EQ(B_OK, message.FindInt32("a", &value));
	EXPECT_EQ(2, value);
	EXPECT_EQ(B_OK, message.RemoveData("a"));
	EXPECT_EQ(B_NAME_NOT_FOUND, message.RemoveData("a"));
	EXPECT_TRUE(message.IsEmpty());
}

TEST(BMessageTest, CountNamesCountsFieldsByType)
{
	BMessage message;
	ASSERT_EQ(B_OK, message.AddInt32("a", 1));
	ASSERT_EQ(B_OK, message.AddInt32("a", 2));
	ASSERT_EQ(B_OK, message.AddInt32("b", 3));
	ASSERT_EQ(B_OK, message.AddString("c", "x"));
	EXPECT_EQ(3, message.CountNames(B_ANY_TYPE));
	EXPECT_EQ(2, message.CountNames(B_INT32_TYPE));
	EXPECT_EQ(1, message.CountNames(B_STRING_TYPE));
	EXPECT_EQ(0, message.CountNames(B_DOUBLE_TYPE));
}

TEST(BMessageTest, GetInfoByTypeAndIndexWalksTheFieldsInOrder)
{
	BMessage message;
	ASSERT_EQ(B_OK, message.AddInt32("first", 1));
	ASSERT_EQ(B_OK, message.AddString("second", "x"));
	ASSERT_EQ(B_OK, message.AddInt32("third", 3));
	ASSERT_EQ(B_OK, message.AddInt32("third", 4));

	char* name = nullptr;
	type_code type = 0;
	int32 count = 0;
	EXPECT_EQ(B_OK, message.GetInfo(B_ANY_TYPE, 1, &name, &type, &count));
	EXPECT_STREQ("second", name);
	EXPECT_EQ(static_cast<type_code>(B_STRING_TYPE), type);
	EXPECT_EQ(1, count);

	EXPECT_EQ(B_OK, message.GetInfo(B_INT32_TYPE, 1, &name, &type, &count));
	EXPECT_STREQ("third", name);
	EXPECT_EQ(2, count);

	EXPECT_EQ(B_BAD_INDEX, message.GetInfo(B_ANY_TYPE, 3, &name, &type));
	EXPECT_EQ(B_BAD_INDEX, message.GetInfo(B_ANY_TYPE, -1, &name, &type));
	EXPECT_EQ(B_BAD_INDEX, message.GetInfo(B_INT32_TYPE, 2, &name, &type));
	EXPECT_EQ(B_BAD_TYPE, message.GetInfo(B_DOUBLE_TYPE, 0, &name, &type));
}

TEST(BMessageTest, GetInfoByNameReportsMissingNames)
{
	BMessage message;
	type_code type = 0;
	int32 count = 0;
	EXPECT_EQ(B_NAME_NOT_FOUND, message.GetInfo("none", &type, &count));
	EXPECT_EQ(B_BAD_VALUE, message.GetInfo(nullptr, &type, &count));
}

TEST(BMessageTest, TypeCodesAreThePlatformsFourCharacterCodes)
{
	EXPECT_EQ(Code("BOOL"), static_cast<type_code>(B_BOOL_TYPE));
	EXPECT_EQ(Code("BYTE"), static_cast<type_code>(B_INT8_TYPE));
	EXPECT_EQ(Code("SHRT"), static_cast<type_code>(B_INT16_TYPE));
	EXPECT_EQ(Code("LONG"), static_cast<type_code>(B_INT32_TYPE));
	EXPECT_EQ(Code("LLNG"), static_cast<type_code>(B_INT64_TYPE));
	EXPECT_EQ(Code("FLOT"), static_cast<type_code>(B_FLOAT_TYPE));
	EXPECT_EQ(Code("DBLE"), static_cast<type_code>(B_DOUBLE_TYPE));
	EXPECT_EQ(Code("CSTR"), static_cast<type_code>(B_STRING_TYPE));
	EXPECT_EQ(Code("PNTR"), static_cast<type_code>(B_POINTER_TYPE));
	EXPECT_EQ(Code("RAWT"), static_cast<type_code>(B_RAW_TYPE));
	EXPECT_EQ(Code("MSGG"), static_cast<type_code>(B_MESSAGE_TYPE));
	EXPECT_EQ(Code("_QRQ"), static_cast<uint32>(B_QUIT_REQUESTED));
	EXPECT_EQ(Code("_NRP"), static_cast<uint32>(B_NO_REPLY));
}

TEST(BMessageTest, ReplyAndNotUnderstoodCodesAreThePlatformsValues)
{
	EXPECT_EQ(Code("RPLY"), static_cast<uint32>(B_REPLY));
	EXPECT_EQ(Code("MNOT"), static_cast<uint32>(B_MESSAGE_NOT_UNDERSTOOD));
	EXPECT_EQ(0x52504C59u, static_cast<uint32>(B_REPLY));
	EXPECT_EQ(0x4D4E4F54u, static_cast<uint32>(B_MESSAGE_NOT_UNDERSTOOD));
}

TEST(BMessageTest, AReplyOutsideADeliveryIsRefused)
{
	BMessage message(Code("ASK "));
	EXPECT_EQ(B_BAD_REPLY, message.SendReply(Code("ANSR")));
	EXPECT_EQ(B_BAD_VALUE, message.SendReply(static_cast<BMessage*>(nullptr)));
}

} // namespace
