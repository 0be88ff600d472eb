// The text dumps of ZvMessage and ZvMessageItem, compared whole.
#include <ZvMessage.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using zvtest::OutputCapture;

std::string DumpOf(const ZvMessage& message)
{
	OutputCapture capture(1);
	message.PrintToStream();
	return capture.Finish();
}

std::string DumpOf(const ZvMessageItem& item)
{
	OutputCapture capture(1);
	item.PrintToStream();
	return capture.Finish();
}

TEST(ZvMessageDumpTest, OneInt32ItemPrintsTheFiveLines)
{
	ZvMessage message(0x74657374);
	message.AddInt32("n", 1);
	EXPECT_EQ("BEGIN WHAT: 'test' 0x74657374, COUNT: 1\n"
	          "\n"
	          " ITEM: 'n', TYPE: 'SI32' 0x53493332, SIZE: 4\n"
	          "  0x01,0x00,0x00,0x00,\n"
	          "END\n",
	          DumpOf(message));
}

TEST(ZvMessageDumpTest, EmptyMessagePrintsBeginEmptyLineAndEnd)
{
	ZvMessage message(0);
	EXPECT_EQ("BEGIN WHAT: '' 0x00000000, COUNT: 0\n\nEND\n", DumpOf(message));
}

TEST(ZvMessageDumpTest, WhatWithUnprintableBytesRendersSpaces)
{
	ZvMessage message(0x0141FF42);
	EXPECT_EQ("BEGIN WHAT: ' A B' 0x0141ff42, COUNT: 0\n\nEND\n", DumpOf(message));
}

TEST(ZvMessageDumpTest, TwentyDataBytesOfAnInt32ItemStandOnOneLine)
{
	ZvMessageItem item("wide", ZV_INT32_TYPE, 20, "ABCDEFGHIJKLMNOPQRST");
	EXPECT_EQ(" ITEM: 'wide', TYPE: 'SI32' 0x53493332, SIZE: 20\n"
	          "  0x41,0x42,0x43,0x44,0x45,0x46,0x47,0x48,0x49,0x4a,0x4b,0x4c,0x4d,0x4e,0x4f,"
	          "0x50,0x51,0x52,0x53,0x54,\n",
	          DumpOf(item));
}

TEST(ZvMessageDumpTest, CodeEndingInACharacterWithLowNibbleZeroBreaksAfterEveryByte)
{
	// "RAW0": the last character '0' is 0x30.
	ZvMessageItem item("r", 0x52415730, 3, "\x01\x02\xff");
	EXPECT_EQ(" ITEM: 'r', TYPE: 'RAW0' 0x52415730, SIZE: 3\n"
	          "  0x01,\n"
	          "  0x02,\n"
	          "  0xff,\n"
	          "  \n",
	          DumpOf(item));
	// '@' (0x40) and 'P' (0x50) break too; a last byte of zero does not.
	EXPECT_EQ(" ITEM: 'r', TYPE: 'ABC@' 0x41424340, SIZE: 1\n  0x07,\n  \n",
	          DumpOf(ZvMessageItem("r", 0x41424340, 1, "\x07")));
	EXPECT_EQ(" ITEM: 'r', TYPE: 'ABC' 0x41424300, SIZE: 2\n  0x07,0x08,\n",
	          DumpOf(ZvMessageItem("r", 0x41424300, 2, "\x07\x08")));
}

TEST(ZvMessageDumpTest, ItemWithoutDataPrintsAnEmptyDataLine)
{
	ZvMessageItem item;
	EXPECT_EQ(" ITEM: '@@@Unnamed', TYPE: '' 0x00000000, SIZE: 0\n  \n", DumpOf(item));
}

TEST(ZvMessageDumpTest, EveryLibraryTypeKeepsItsBytesOnOneLine)
{
	ZvMessage message(0x424D5347);
	message.AddBool("b", true);
	message.AddInt16("s", -2);
	message.AddString("t", "hi");
	message.AddPoint("p", ZvPoint<int32>{1, 2});
	const std::string expected = "BEGIN WHAT: 'BMSG' 0x424d5347, COUNT: 4\n"
	                             "\n"
	                             " ITEM: 'b', TYPE: 'BOOL' 0x424f4f4c, SIZE: 1\n"
	                             "  0x01,\n"
	                             " ITEM: 's', TYPE: 'SI16' 0x53493136, SIZE: 2\n"
	                             "  0xfe,0xff,\n"
	                             " ITEM: 't', TYPE: 'CPTR' 0x43505452, SIZE: 3\n"
	                             "  0x68,0x69,0x00,\n"
	                             " ITEM: 'p', TYPE: 'PONT' 0x504f4e54, SIZE: 16\n"
	                             "  0x00,0x00,0x00,0x00,0x00,0x00,0xf0,0x3f,"
	                             "0x00,0x00,0x00,0x00,0x00,0x00,0x00,0x40,\n"
	                             "END\n";
	EXPECT_EQ(expected, DumpOf(message));
}

TEST(ZvMessageDumpTest, NestedMessageIsDumpedAsItsFlatBytes)
{
	ZvMessage inner(0x696E6E72);
	ZvMessage outer(0x6F757472);
	outer.AddMessage("m", &inner);
	EXPECT_EQ("BEGIN WHAT: 'outr' 0x6f757472, COUNT: 1\n"
	          "\n"
	          " ITEM: 'm', TYPE: 'BMSG' 0x424d5347, SIZE: 12\n"
	          "  0x72,0x6e,0x6e,0x69,0x00,0x00,0x00,0x00,0x00,0x00,0x00,0x00,\n"
	          "END\n",
	          DumpOf(outer));
}

TEST(ZvMessageDumpTest, SixtyThreeCharacterNameIsPrintedWhole)
{
	const std::string name(63, 'q');
	ZvMessageItem item(name.c_str(), ZV_INT8_TYPE, 1, "\x09");
	EXPECT_EQ(" ITEM: '" + name + "', TYPE: 'SI08' 0x53493038, SIZE: 1\n  0x09,\n", DumpOf(item));
}

} // namespace
