// The JSON form of zvmsg: every message round-trips byte for byte through
// its document, in both byte orders; values without an exact typed form are
// kept as hexadecimal; bad documents are refused with the path of the
// problem.
#include <ZvMessage.h>

#include "FlatJson.h"
#include "HexBlock.h"
#include "MessageTestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace {

using zvkit::internal::Json;
using zvkit::internal::JsonToMessage;
using zvkit::internal::MessageToJson;
using zvtest::FlatBytes;
using zvtest::RandomMessageBuilder;

std::vector<uint8> FlatIn(const ZvMessage& message, zv_byte_order order)
{
	std::vector<uint8> bytes(message.FlattenedSize());
	int32 written = 0;
	EXPECT_EQ(B_OK, message.Flatten(bytes.data(), order, &written));
	bytes.resize(written);
	return bytes;
}

// The document as text and back, then the message it builds.
std::vector<uint8> ThroughText(const ZvMessage& message, zv_byte_order order)
{
	const std::string text = MessageToJson(message, order).dump(2);
	const Json parsed = Json::parse(text, nullptr, false);
	EXPECT_FALSE(parsed.is_discarded());
	ZvMessage built(0);
	zv_byte_order builtOrder = ZV_HOST_ENDIAN;
	std::string error;
	EXPECT_TRUE(JsonToMessage(parsed, &built, &builtOrder, &error)) << error << "\n" << text;
	EXPECT_EQ(order, builtOrder);
	return FlatIn(built, builtOrder);
}

Json FieldOf(const ZvMessage& message, size_t index = 0)
{
	return MessageToJson(message, ZV_LITTLE_ENDIAN)["fields"][index];
}

TEST(FlatJsonTest, RandomMessagesRoundTripExactlyInBothOrders)
{
	for (uint32 seed = 1; seed <= 200; seed++) {
		RandomMessageBuilder builder(seed * 31);
		ZvMessage message(0);
		builder.Fill(&message, 5);
		for (zv_byte_order order : {ZV_LITTLE_ENDIAN, ZV_BIG_ENDIAN})
			EXPECT_EQ(FlatIn(message, order), ThroughText(message, order)) << seed;
	}
}

TEST(FlatJsonTest, TypedValuesAreReadable)
{
	ZvMessage message(0x61626364u); // "abcd"
	message.AddInt32("n", -7);
	message.AddString("s", "caf\xC3\xA9");
	message.AddRect("r", ZvRect<double>{1, 2, 3, 4.5});
	zv_color color(1, 2, 3, 4);
	message.AddColor("c", &color);
	const Json document = MessageToJson(message, ZV_BIG_ENDIAN);
	EXPECT_EQ("big", document["byte_order"]);
	EXPECT_EQ("abcd", document["what_code"]);
	EXPECT_EQ(-7, document["fields"][0]["value"]);
	EXPECT_EQ("SI32", document["fields"][0]["type"]);
	EXPECT_EQ("caf\xC3\xA9", document["fields"][1]["value"]);
	EXPECT_EQ(4.5, document["fields"][2]["value"]["bottom"]);
	EXPECT_EQ(1, document["fields"][3]["value"]["r"]);
}

TEST(FlatJsonTest, NestedMessagesNest)
{
	ZvMessage inner(1);
	inner.AddInt16("deep", 3);
	ZvMessage outer(2);
	outer.AddMessage("m", &inner);
	const Json field = FieldOf(outer);
	ASSERT_TRUE(field.contains("message"));
	EXPECT_EQ(3, field["message"]["fields"][0]["value"]);
	EXPECT_FALSE(field["message"].contains("byte_order"));
}

TEST(FlatJsonTest, ValuesWithoutAnExactTypedFormAreHex)
{
	ZvMessage message(0);
	const float nan = std::nanf("");
	message.AddFloat("nan", nan);
	message.AddData("short", ZV_INT32_TYPE, "\x01\x02\x03", 3);
	message.AddData("unterminated", ZV_STRING_TYPE, "abc", 3);
	message.AddData("latin1", ZV_STRING_TYPE, "caf\xE9", 5);
	message.AddData("bool2", ZV_BOOL_TYPE, "\x02", 1);
	message.AddData("mine", 0x4D494E45, "\x00\xFF", 2);
	message.AddDouble("negzero", -0.0);
	for (size_t i = 0; i < 6; i++)
		EXPECT_TRUE(FieldOf(message, i).contains("hex")) << i;
	EXPECT_EQ("010203", FieldOf(message, 1)["hex"]);
	EXPECT_TRUE(FieldOf(message, 6).contains("value")) << "-0.0 keeps its sign in JSON";
	for (zv_byte_order order : {ZV_LITTLE_ENDIAN, ZV_BIG_ENDIAN})
		EXPECT_EQ(FlatIn(message, order), ThroughText(message, order));
}

TEST(FlatJsonTest, HexIsInTheDocumentsByteOrder)
{
	ZvMessage message(0);
	// Six bytes of int32 have no typed form: the first word swaps.
	message.AddData("odd", ZV_INT32_TYPE, "\x01\x02\x03\x04\x05\x06", 6);
	const Json little = MessageToJson(message, ZV_LITTLE_ENDIAN)["fields"][0];
	const Json big = MessageToJson(message, ZV_BIG_ENDIAN)["fields"][0];
	if (ZV_HostByteOrder() == ZV_LITTLE_ENDIAN) {
		EXPECT_EQ("010203040506", little["hex"]);
		EXPECT_EQ("040302010506", big["hex"]);
	} else {
		EXPECT_EQ("010203040506", big["hex"]);
		EXPECT_EQ("040302010506", little["hex"]);
	}
}

TEST(FlatJsonTest, PointersKeepTheirWidth)
{
	ZvMessage message(0);
	const uint32 narrow = 0x1234;
	const uint64 wide = 0x1234;
	message.AddData("narrow", ZV_POINTER_TYPE, &narrow, 4);
	message.AddData("wide", ZV_POINTER_TYPE, &wide, 8);
	EXPECT_EQ(0x1234, FieldOf(message, 0)["value"]);
	EXPECT_EQ(0x1234, FieldOf(message, 1)["value"]);
	EXPECT_EQ(8, FieldOf(message, 1)["size"]);
	for (zv_byte_order order : {ZV_LITTLE_ENDIAN, ZV_BIG_ENDIAN})
		EXPECT_EQ(FlatIn(message, order), ThroughText(message, order));
}

TEST(FlatJsonTest, NamesThatAreNotUtf8AreHex)
{
	ZvMessage message(0);
	message.AddInt8("bad\xFF", 1);
	const Json field = FieldOf(message);
	EXPECT_FALSE(field.contains("name"));
	EXPECT_EQ("626164ff", field["name_hex"]);
	EXPECT_EQ(FlatIn(message, ZV_BIG_ENDIAN), ThroughText(message, ZV_BIG_ENDIAN));
}

TEST(FlatJsonTest, BadDocumentsNameThePathOfTheProblem)
{
	struct Case
	{
		const char* text;
		const char* error;
	};
	const Case cases[] = {
	    {R"({"fields": []})", "$: missing \"what\""},
	    {R"({"what": -1})", "$.what: integer out of range"},
	    {R"({"what": 1, "fields": {}})", "$.fields: expected an array"},
	    {R"({"what": 1, "fields": [{"type": "SI32", "value": 1}]})",
	     "$.fields[0]: missing \"name\""},
	    {R"({"what": 1, "fields": [{"name": "n", "value": 1}]})",
	     "$.fields[0]: missing \"type_code\""},
	    {R"({"what": 1, "fields": [{"name": "n", "type": "SI16", "value": 70000}]})",
	     "$.fields[0].value: integer out of range"},
	    {R"({"what": 1, "fields": [{"name": "n", "type": "FT64", "value": "x"}]})",
	     "$.fields[0].value: expected a number"},
	    {R"({"what": 1, "fields": [{"name": "n", "type": "RAWT", "value": 1}]})",
	     "$.fields[0].value: this type has no typed value"},
	    {R"({"what": 1, "fields": [{"name": "n", "type": "SI32", "hex": "0g"}]})",
	     "$.fields[0].hex: expected a string of hexadecimal digit pairs"},
	    {R"({"what": 1, "fields": [{"name": "n", "type": "SI32", "value": 1, "hex": "00"}]})",
	     "$.fields[0]: a field needs exactly one"},
	    {R"({"what": 1, "fields": [{"name": "m", "type": "BMSG", "message": {"what": 1,
	        "fields": [{"name": "x", "type": "BOOL", "value": 3}]}}]})",
	     "$.fields[0].message.fields[0].value: expected true or false"},
	    {R"({"what": 1, "byte_order": "middle"})", "byte_order: expected"},
	    {R"({"what": 1, "fields": [{"name": "0123456789012345678901234567890123456789012345678901234567890123", "type": "BOOL", "value": true}]})",
	     "$.fields[0].name: a name has at most 63 bytes"},
	};
	for (const Case& test : cases) {
		const Json document = Json::parse(test.text, nullptr, false);
		ASSERT_FALSE(document.is_discarded()) << test.text;
		ZvMessage message(0);
		message.AddInt32("stale", 1);
		zv_byte_order order;
		std::string error;
		EXPECT_FALSE(JsonToMessage(document, &message, &order, &error)) << test.text;
		EXPECT_EQ(0u, error.find(test.error)) << error;
		EXPECT_TRUE(message.IsEmpty());
	}
}

TEST(FlatJsonTest, AHandWrittenDocumentBuildsTheGoldenBlock)
{
	const Json document = Json::parse(
	    R"({"byte_order": "big", "what": "test", "flags": 2,
	        "fields": [{"name": "n", "type": "SI32", "value": 7}]})");
	ZvMessage message(0);
	zv_byte_order order;
	std::string error;
	ASSERT_TRUE(JsonToMessage(document, &message, &order, &error)) << error;
	EXPECT_EQ(zvtest::ReadHexBlock("big-int32.hex"), FlatIn(message, order));
}

} // namespace
