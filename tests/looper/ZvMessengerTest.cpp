// Tests of ZvMessenger: where it posts (including the deliberate double
// delivery), the "NONE" reply, IsValid, IsTargetLocal and Target.
//
// The loopers are never run: each test drains them by hand and counts the
// messages taken from the queue (dropped ones included) and what was
// dispatched.

#include <ZvHandler.h>
#include <ZvLooper.h>
#include <ZvMessage.h>
#include <ZvMessenger.h>

#include "LooperTestSupport.h"

#include <gtest/gtest.h>

#include <type_traits>
#include <vector>

namespace {

using looper_test::PreferredField;
using looper_test::RecordingHandler;
using looper_test::TestLooper;

// One dispatched message as the looper saw it.
struct Dispatch
{
	uint32 what;
	bool hadField;
	void* field;
	ZvHandler* target;
};

class RecordingLooper : public TestLooper
{
public:
	void DispatchMessage(ZvMessage* message, ZvHandler* target) override
	{
		void* field = nullptr;
		const bool hadField = message->FindPointer(PreferredField(), &field);
		dispatches.push_back(Dispatch{message->what, hadField, field, target});
		ZvLooper::DispatchMessage(message, target);
	}

	std::vector<Dispatch> dispatches;
};

class ZvMessengerTest : public ::testing::Test
{
protected:
	void TearDown() override
	{
		looper.RemoveHandler(&handler);
		other.RemoveHandler(&handler);
	}

	RecordingLooper looper;
	RecordingLooper other;
	RecordingHandler handler;
};

} // namespace

TEST_F(ZvMessengerTest, ALooperOnlyMessengerPostsOnceWithoutATargetField)
{
	ZvMessenger(nullptr, &looper).SendMessage(7);
	EXPECT_EQ(looper.Drain(), 1);
	ASSERT_EQ(looper.dispatches.size(), 1u);
	EXPECT_EQ(looper.dispatches[0].what, 7u);
	EXPECT_FALSE(looper.dispatches[0].hadField);
	EXPECT_EQ(looper.dispatches[0].target, &looper);
}

TEST_F(ZvMessengerTest, AHandlerAttachedToTheLooperGetsTwoMessagesOneAimedOneNot)
{
	looper.AddHandler(&handler);
	ZvMessenger(&handler, &looper).SendMessage(7);
	EXPECT_EQ(looper.Drain(), 2);
	ASSERT_EQ(looper.dispatches.size(), 2u);
	EXPECT_TRUE(looper.dispatches[0].hadField);
	EXPECT_EQ(looper.dispatches[0].field, static_cast<void*>(&handler));
	EXPECT_EQ(looper.dispatches[0].target, &handler);
	EXPECT_FALSE(looper.dispatches[1].hadField);
	EXPECT_EQ(looper.dispatches[1].target, &looper);
	EXPECT_EQ(handler.Received(), 1);
	EXPECT_EQ(looper.OwnReceived(), 1);
}

TEST_F(ZvMessengerTest, ADetachedHandlerWithoutLooperPostsNothingAndIsNotValid)
{
	ZvMessenger messenger(&handler, nullptr);
	messenger.SendMessage(7);
	ZvMessage message(8);
	messenger.SendMessage(&message);
	EXPECT_FALSE(messenger.IsValid());
	EXPECT_EQ(looper.Drain(), 0);
	EXPECT_EQ(handler.Received(), 0);
}

TEST_F(ZvMessengerTest, AnAttachedHandlerOnlyMessengerPostsOnceThroughTheHandlersLooper)
{
	other.AddHandler(&handler);
	ZvMessenger messenger(&handler, nullptr);
	EXPECT_TRUE(messenger.IsValid());
	messenger.SendMessage(7);
	EXPECT_EQ(other.Drain(), 1);
	ASSERT_EQ(other.dispatches.size(), 1u);
	EXPECT_EQ(other.dispatches[0].target, &handler);
	EXPECT_EQ(handler.Received(), 1);
}

TEST_F(ZvMessengerTest, AHandlerOfAnotherLooperIsReachedThroughItsOwnLooperThenTheExplicitOnce)
{
	other.AddHandler(&handler);
	ZvMessenger(&handler, &looper).SendMessage(7);
	EXPECT_EQ(other.Drain(), 1);
	EXPECT_EQ(handler.Received(), 1);
	EXPECT_EQ(looper.Drain(), 1);
	ASSERT_EQ(looper.dispatches.size(), 1u);
	EXPECT_FALSE(looper.dispatches[0].hadField);
	EXPECT_EQ(looper.OwnReceived(), 1);
}

TEST_F(ZvMessengerTest, ADetachedHandlerWithALooperPostsTwiceToThatLooperAndTheAimedOneIsDropped)
{
	ZvMessenger(&handler, &looper).SendMessage(7);
	// Both are queued; the one aimed at the detached handler is dropped.
	EXPECT_EQ(looper.Drain(), 2);
	ASSERT_EQ(looper.dispatches.size(), 1u);
	EXPECT_FALSE(looper.dispatches[0].hadField);
	EXPECT_EQ(handler.Received(), 0);
}

TEST_F(ZvMessengerTest, AnEmptyMessengerPostsNothingAndIsNotValid)
{
	ZvMessenger messenger(nullptr, nullptr);
	messenger.SendMessage(7);
	EXPECT_FALSE(messenger.IsValid());
	ZvLooper* target = &looper;
	EXPECT_EQ(messenger.Target(&target), nullptr);
	EXPECT_EQ(target, nullptr);
}

TEST_F(ZvMessengerTest, TheMessageFormPostsACopyAndTheCallerKeepsTheMessage)
{
	looper.AddHandler(&handler);
	ZvMessage message(21);
	message.AddInt32("n", 3);
	ZvMessenger(&handler, nullptr).SendMessage(&message);
	EXPECT_FALSE(message.HasPointer(PreferredField(), 0));
	int32 value = 0;
	EXPECT_TRUE(message.FindInt32("n", &value));
	EXPECT_EQ(looper.Drain(), 1);
	ASSERT_EQ(handler.Received(), 1);
	EXPECT_EQ(handler.Whats()[0], 21u);
}

TEST_F(ZvMessengerTest, SendingANullMessagePostsNothing)
{
	ZvMessenger(nullptr, &looper).SendMessage(static_cast<const ZvMessage*>(nullptr));
	EXPECT_EQ(looper.Drain(), 0);
}

TEST_F(ZvMessengerTest, TheReplyFormSetsTheReplyToNoneWhenSomethingWasPosted)
{
	ZvMessage message(5);
	ZvMessage reply(99);
	reply.AddInt32("kept", 4);
	ZvMessenger(nullptr, &looper).SendMessage(&message, &reply, 10, 20);
	EXPECT_EQ(reply.what, ZV_NO_REPLY);
	EXPECT_EQ(reply.what, 0x4E4F4E45u);
	int32 kept = 0;
	EXPECT_TRUE(reply.FindInt32("kept", &kept));
	EXPECT_EQ(kept, 4);
	EXPECT_EQ(looper.Drain(), 1);
}

TEST_F(ZvMessengerTest, TheReplyFormSetsTheReplyToNoneWhenNothingWasPosted)
{
	ZvMessage message(5);
	ZvMessage reply(99);
	ZvMessenger(&handler, nullptr).SendMessage(&message, &reply, -1, -1);
	EXPECT_EQ(reply.what, ZV_NO_REPLY);
	EXPECT_EQ(looper.Drain(), 0);
}

TEST_F(ZvMessengerTest, TheReplyFormWithANullReplyStillSends)
{
	ZvMessage message(5);
	ZvMessenger(nullptr, &looper).SendMessage(&message, nullptr, 0, 0);
	EXPECT_EQ(looper.Drain(), 1);
}

TEST_F(ZvMessengerTest, TargetOfNullOnlyReturnsTheHandler)
{
	ZvMessenger messenger(&handler, &looper);
	EXPECT_EQ(messenger.Target(nullptr), &handler);
	EXPECT_EQ(ZvMessenger(nullptr, &looper).Target(nullptr), nullptr);
}

TEST_F(ZvMessengerTest, TargetStoresTheExplicitLooperFirst)
{
	other.AddHandler(&handler);
	ZvLooper* target = nullptr;
	EXPECT_EQ(ZvMessenger(&handler, &looper).Target(&target), &handler);
	EXPECT_EQ(target, &looper);
}

TEST_F(ZvMessengerTest, TargetStoresTheHandlersLooperWhenThereIsNoExplicitOne)
{
	other.AddHandler(&handler);
	ZvLooper* target = nullptr;
	EXPECT_EQ(ZvMessenger(&handler, nullptr).Target(&target), &handler);
	EXPECT_EQ(target, &other);
}

TEST_F(ZvMessengerTest, TargetOfADetachedHandlerWithoutLooperStoresNull)
{
	ZvLooper* target = &looper;
	EXPECT_EQ(ZvMessenger(&handler, nullptr).Target(&target), &handler);
	EXPECT_EQ(target, nullptr);
}

TEST_F(ZvMessengerTest, IsValidWithALooperWhateverTheHandler)
{
	EXPECT_TRUE(ZvMessenger(nullptr, &looper).IsValid());
	EXPECT_TRUE(ZvMessenger(&handler, &looper).IsValid());
}

TEST_F(ZvMessengerTest, IsTargetLocalIsAlwaysTrue)
{
	EXPECT_TRUE(ZvMessenger(nullptr, nullptr).IsTargetLocal());
	EXPECT_TRUE(ZvMessenger(&handler, &looper).IsTargetLocal());
}

TEST_F(ZvMessengerTest, CopiesShareTheTargets)
{
	looper.AddHandler(&handler);
	const ZvMessenger original(&handler, &looper);
	ZvMessenger copy(original);
	ZvMessenger assigned(nullptr, nullptr);
	assigned = original;
	ZvLooper* target = nullptr;
	EXPECT_EQ(copy.Target(&target), &handler);
	EXPECT_EQ(target, &looper);
	target = nullptr;
	EXPECT_EQ(assigned.Target(&target), &handler);
	EXPECT_EQ(target, &looper);
	assigned.SendMessage(3);
	EXPECT_EQ(looper.Drain(), 2);
	EXPECT_EQ(handler.Received(), 1);
}

TEST_F(ZvMessengerTest, MessengerIsAPlainValue)
{
	EXPECT_FALSE(std::is_polymorphic<ZvMessenger>::value);
	EXPECT_TRUE(std::is_copy_constructible<ZvMessenger>::value);
}
