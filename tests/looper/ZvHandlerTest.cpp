// Tests of ZvHandler: name ownership, the looper link, the default receiver.

#include <ZvHandler.h>
#include <ZvLooper.h>
#include <ZvMessage.h>

#include "LooperTestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <type_traits>

using looper_test::TestLooper;

TEST(ZvHandlerTest, NameIsCopiedNotReferenced)
{
	char name[] = "alpha";
	ZvHandler handler(name);
	ASSERT_NE(handler.Name(), nullptr);
	EXPECT_NE(handler.Name(), name);
	name[0] = 'X';
	EXPECT_STREQ(handler.Name(), "alpha");
}

TEST(ZvHandlerTest, NullNameGivesANamelessHandler)
{
	ZvHandler handler(nullptr);
	EXPECT_EQ(handler.Name(), nullptr);
}

TEST(ZvHandlerTest, EmptyNameIsKeptAsAnEmptyString)
{
	ZvHandler handler("");
	ASSERT_NE(handler.Name(), nullptr);
	EXPECT_STREQ(handler.Name(), "");
}

TEST(ZvHandlerTest, SetNameNullFreesAndClearsTheName)
{
	ZvHandler handler("alpha");
	handler.SetName(nullptr);
	EXPECT_EQ(handler.Name(), nullptr);
}

TEST(ZvHandlerTest, SetNameReplacesTheNameWithACopy)
{
	ZvHandler handler("alpha");
	char name[] = "beta";
	handler.SetName(name);
	EXPECT_NE(handler.Name(), name);
	EXPECT_STREQ(handler.Name(), "beta");
	handler.SetName("a much longer name than the previous one");
	EXPECT_STREQ(handler.Name(), "a much longer name than the previous one");
}

TEST(ZvHandlerTest, SetNameOnANamelessHandlerGivesItAName)
{
	ZvHandler handler(nullptr);
	handler.SetName("gamma");
	EXPECT_STREQ(handler.Name(), "gamma");
}

TEST(ZvHandlerTest, NewHandlerHasNoLooper)
{
	ZvHandler handler("h");
	EXPECT_EQ(handler.Looper(), nullptr);
}

TEST(ZvHandlerTest, SetLooperStoresAndClearsTheLink)
{
	TestLooper looper;
	ZvHandler handler("h");
	handler.SetLooper(&looper);
	EXPECT_EQ(handler.Looper(), &looper);
	handler.SetLooper(nullptr);
	EXPECT_EQ(handler.Looper(), nullptr);
	// SetLooper alone does not attach: the looper's list is unchanged.
	EXPECT_EQ(looper.CountHandlers(), 1);
}

TEST(ZvHandlerTest, DefaultMessageReceivedLeavesTheMessageAlone)
{
	ZvHandler handler("h");
	ZvMessage message(42);
	ASSERT_TRUE(message.AddInt32("n", 7));
	handler.MessageReceived(&message);
	EXPECT_EQ(message.what, 42u);
	int32 value = 0;
	EXPECT_TRUE(message.FindInt32("n", &value));
	EXPECT_EQ(value, 7);
}

TEST(ZvHandlerTest, MessageReceivedIsVirtual)
{
	looper_test::RecordingHandler recorder;
	ZvHandler* handler = &recorder;
	ZvMessage message(9);
	handler->MessageReceived(&message);
	EXPECT_EQ(recorder.Received(), 1);
}

TEST(ZvHandlerTest, DestructorDoesNotDetachFromItsLooper)
{
	TestLooper looper;
	// The handler lives in storage that outlasts it, so that the looper's
	// list may keep its address after the destructor ran.
	std::aligned_storage_t<sizeof(ZvHandler), alignof(ZvHandler)> storage;
	ZvHandler* handler = new (&storage) ZvHandler("short-lived");
	ASSERT_TRUE(looper.AddHandler(handler));
	handler->~ZvHandler();
	EXPECT_EQ(looper.CountHandlers(), 2);
	EXPECT_EQ(looper.IndexOfHandler(handler), 1);
}

TEST(ZvHandlerTest, HandlersAreNotCopyable)
{
	EXPECT_FALSE(std::is_copy_constructible<ZvHandler>::value);
	EXPECT_FALSE(std::is_copy_assignable<ZvHandler>::value);
}
