// The four-character rendering of type codes.
#include <ZvTypeCodes.h>

#include <gtest/gtest.h>

#include <string>

namespace {

std::string Render(type_code code)
{
	char buffer[5];
	return ZV_TypeCodeString(code, buffer);
}

TEST(ZvTypeCodeTest, CodesRenderAsFourCharactersMostSignificantFirst)
{
	EXPECT_EQ("SI08", Render(0x53493038));
	EXPECT_EQ("SI32", Render(ZV_INT32_TYPE));
	EXPECT_EQ("ANYT", Render(ZV_ANY_TYPE));
	EXPECT_EQ("BMSG", Render(ZV_MESSAGE_TYPE));
}

TEST(ZvTypeCodeTest, TableValuesSpellTheirCodes)
{
	const struct
	{
		type_code code;
		const char* text;
	} table[] = {{ZV_ANY_TYPE, "ANYT"},     {ZV_INT8_TYPE, "SI08"},   {ZV_INT16_TYPE, "SI16"},
	             {ZV_INT32_TYPE, "SI32"},   {ZV_INT64_TYPE, "SI64"},  {ZV_FLOAT_TYPE, "FT32"},
	             {ZV_DOUBLE_TYPE, "FT64"},  {ZV_BOOL_TYPE, "BOOL"},   {ZV_STRING_TYPE, "CPTR"},
	             {ZV_POINTER_TYPE, "LPTR"}, {ZV_COLOR_TYPE, "COLR"},  {ZV_RECT_TYPE, "RECT"},
	             {ZV_POINT_TYPE, "PONT"},   {ZV_MESSAGE_TYPE, "BMSG"}};
	for (const auto& entry : table)
		EXPECT_EQ(entry.text, Render(entry.code));
	EXPECT_EQ(0x53493332u, ZV_INT32_TYPE);
}

TEST(ZvTypeCodeTest, UnprintableBytesBecomeSpacesAndZeroEndsTheText)
{
	EXPECT_EQ("A  B", Render(0x41201F42));    // 32 and 31 are outside 33..127
	EXPECT_EQ("A\x7F B", Render(0x417F8042)); // 127 stays, 128 becomes a space
	EXPECT_EQ("AB", Render(0x41420043));      // a zero byte ends the text
	EXPECT_EQ("", Render(0));
	EXPECT_EQ("   !", Render(0x01FFFE21));
}

} // namespace
