// Tests of ZvDataSubscriber: names and validity, subscription, the five
// kinds of data on both access paths, flag groups, propagation order,
// events from inside DS_EventReceived, archives and the messages on
// standard error.
#include <ZvDataRegistry.h>
#include <ZvDataSubscriber.h>

#include <Message.h>
#include <OS.h>
#include <TypeConstants.h>

#include "DataTestSupport.h"

#include <gtest/gtest.h>

#include <string.h>

#include <memory>
#include <string>
#include <vector>

using zvtest::Code;
using zvtest::CountField;
using zvtest::EventLog;
using zvtest::MakeUnsubscribed;
using zvtest::OutputCapture;
using zvtest::RecordingSubscriber;

namespace {

class ZvDataSubscriberTest : public zvtest::RegistryTest
{
};

} // namespace

// #pragma mark - Validity and names

TEST_F(ZvDataSubscriberTest, SubscriberWithoutNameIsNotValidAndRefusesEveryDataOperation)
{
	ZvDataSubscriber empty("", 0);
	ZvDataSubscriber null(nullptr, 0);
	EXPECT_EQ(zv_registry, nullptr);
	for (ZvDataSubscriber* s : {&empty, &null}) {
		EXPECT_EQ(s->DS_AttributeName(), nullptr);
		EXPECT_FALSE(s->DS_IsSubscribed());
		EXPECT_EQ(s->DS_Subscribe(0, true), -1);
		EXPECT_EQ(s->DS_UnSubscribe(), -1);
		EXPECT_EQ(s->DS_SetIntegerData(1, true), -1);
		EXPECT_EQ(s->DS_SetFloatData(1.0, true), -1);
		EXPECT_EQ(s->DS_SetStringData("x", true), -1);
		EXPECT_EQ(s->DS_SetRAWData("x", 1, true), -1);
		BMessage message(Code("TEST"));
		EXPECT_EQ(s->DS_SetMessageData(&message, true), -1);
		int64 integer = 3;
		double number = 3.0;
		int32 size = 3;
		char buffer[8] = "abc";
		EXPECT_EQ(s->DS_IntegerData(&integer), -1);
		EXPECT_EQ(s->DS_IntegerData(), 0);
		EXPECT_EQ(s->DS_FloatData(&number), -1);
		EXPECT_EQ(s->DS_FloatData(), 0.0);
		EXPECT_EQ(s->DS_StringData(buffer, -1), -1);
		EXPECT_EQ(s->DS_StringDataSize(&size), -1);
		EXPECT_EQ(s->DS_StringDataSize(), 0);
		EXPECT_EQ(s->DS_RAWData(buffer, -1), -1);
		EXPECT_EQ(s->DS_RAWDataSize(&size), -1);
		EXPECT_EQ(s->DS_RAWDataSize(), 0);
		EXPECT_EQ(s->DS_MessageData(&message), -1);
		EXPECT_EQ(s->DS_SendEvent(1), -1);
		EXPECT_EQ(s->DS_SetEventTarget(nullptr), -1);
		EXPECT_EQ(s->DS_EventTarget(), nullptr);
		EXPECT_EQ(s->DS_SetEventMessage(Code("EVNT")), -1);
		EXPECT_EQ(s->DS_SetEventMessage(&message), -1);
		EXPECT_EQ(s->DS_EventMessage(), nullptr);
		EXPECT_EQ(s->DS_Archive(&message, 255), -1);
		EXPECT_EQ(s->DS_UnArchive(&message, true), -1);
		EXPECT_EQ(integer, 3);
		EXPECT_EQ(number, 3.0);
		EXPECT_EQ(size, 3);
		EXPECT_STREQ(buffer, "abc");
	}
	// Nothing of this touched the registry.
	EXPECT_EQ(zv_registry, nullptr);
}

TEST_F(ZvDataSubscriberTest, LongNameIsCutToThirtyOneCharactersAndSharesTheAttribute)
{
	const char* name40 = "0123456789012345678901234567890123456789";
	const char* other40 = "0123456789012345678901234567890XXXXXXXXX";
	ZvDataSubscriber a(name40, 0);
	ZvDataSubscriber b(other40, 0);
	EXPECT_STREQ(a.DS_AttributeName(), "0123456789012345678901234567890");
	EXPECT_EQ(strlen(a.DS_AttributeName()), 31u);
	ASSERT_TRUE(zv_registry->DR_Lock());
	EXPECT_EQ(zv_registry->DR_CountAttributes(), 1);
	zv_registry->DR_Unlock();
	ASSERT_EQ(a.DS_SetIntegerData(31, false), 0);
	EXPECT_EQ(b.DS_IntegerData(), 31);
}

TEST_F(ZvDataSubscriberTest, RenamingNeedsARegistryAndAnUnsubscribedSubscriber)
{
	auto loner = MakeUnsubscribed("rename");
	zvtest::DestroyEmptyRegistry();
	ASSERT_EQ(zv_registry, nullptr);
	EXPECT_EQ(loner->DS_SetAttributeName("other"), -1);
	EXPECT_STREQ(loner->DS_AttributeName(), "rename");

	ZvDataSubscriber subscribed("rename", 0);
	EXPECT_EQ(subscribed.DS_SetAttributeName("other"), -1);
	EXPECT_STREQ(subscribed.DS_AttributeName(), "rename");

	EXPECT_EQ(loner->DS_SetAttributeName("renamed"), 0);
	EXPECT_STREQ(loner->DS_AttributeName(), "renamed");
	// Renaming does not subscribe.
	EXPECT_FALSE(loner->DS_IsSubscribed());
	ASSERT_EQ(loner->DS_Subscribe(0, true), 0);
	EXPECT_TRUE(loner->DS_IsSubscribed());
	ASSERT_EQ(loner->DS_UnSubscribe(), 0);

	// An empty name is accepted by renaming; a null one makes it not valid.
	EXPECT_EQ(loner->DS_SetAttributeName(""), 0);
	EXPECT_STREQ(loner->DS_AttributeName(), "");
	EXPECT_EQ(loner->DS_SetAttributeName(nullptr), -1);
	EXPECT_EQ(loner->DS_AttributeName(), nullptr);
	EXPECT_EQ(loner->DS_SetIntegerData(1, false), -1);
	EXPECT_EQ(loner->DS_SetAttributeName("back"), 0);
	EXPECT_EQ(loner->DS_SetIntegerData(1, false), 0);
}

TEST_F(ZvDataSubscriberTest, AfterTheRegistryIsGoneRenamingFailsUntilSomeoneSubscribesAgain)
{
	auto s = std::make_unique<ZvDataSubscriber>("gone", 0);
	ASSERT_EQ(s->DS_UnSubscribe(), 0);
	EXPECT_EQ(zv_registry, nullptr);
	EXPECT_EQ(s->DS_SetAttributeName("gone-2"), -1);
	{
		ZvDataSubscriber someone("elsewhere", 0);
		EXPECT_EQ(s->DS_SetAttributeName("gone-2"), 0);
		EXPECT_STREQ(s->DS_AttributeName(), "gone-2");
	}
	EXPECT_EQ(zv_registry, nullptr);
}

// #pragma mark - Subscription and messages

TEST_F(ZvDataSubscriberTest, SubscribingTwicePrintsAlreadySubscribed)
{
	ZvDataSubscriber s("twice", 0);
	OutputCapture capture(2);
	EXPECT_EQ(s.DS_Subscribe(0, true), -1);
	EXPECT_EQ(capture.Finish(), "ZvDataSubscriber::Subscribe(): Already subscribed.\n");
	EXPECT_TRUE(s.DS_IsSubscribed());
}

TEST_F(ZvDataSubscriberTest, RefusedSubscriptionPrintsSubscriptionFailed)
{
	OutputCapture capture(2);
	ZvDataSubscriber s("refused", 0x0100);
	EXPECT_EQ(capture.Finish(), "ZvDataSubscriber::Subscribe(): Subscription failed.\n");
	EXPECT_FALSE(s.DS_IsSubscribed());
	OutputCapture quiet(2);
	// Unsubscribing a subscriber that is not subscribed says nothing.
	EXPECT_EQ(s.DS_UnSubscribe(), -1);
	EXPECT_EQ(quiet.Finish(), "");
}

namespace {

// The identifier of the live semaphore named name, found by walking back
// from a fresh identifier (identifiers are handed out in increasing order).
sem_id FindSemaphoreNamed(const char* name)
{
	const sem_id probe = create_sem(0, "probe");
	delete_sem(probe);
	for (sem_id id = probe - 1; id > 0 && id > probe - 10000; id--) {
		sem_info info;
		if (get_sem_info(id, &info) == B_OK && strcmp(info.name, name) == 0)
			return id;
	}
	return -1;
}

} // namespace

TEST_F(ZvDataSubscriberTest, FailedUnsubscriptionPrintsItsMessage)
{
	// Losing the attribute's semaphore behind the registry's back leaves
	// the subscriber in a chain it can never leave again; the registry then
	// lives to the end of the process. The case therefore runs in a child.
	GTEST_FLAG_SET(death_test_style, "threadsafe");
	EXPECT_EXIT(
	    {
		    auto s = new ZvDataSubscriber("lost-semaphore", 0);
		    const sem_id sem = FindSemaphoreNamed("lost-semaphore");
		    if (sem < 0 || delete_sem(sem) != B_OK)
			    _exit(2);
		    OutputCapture capture(2);
		    const status_t result = s->DS_UnSubscribe();
		    const std::string text = capture.Finish();
		    const bool stillThere = s->DS_IsSubscribed();
		    _exit(result == -1 && stillThere &&
		                  text == "ZvDataSubscriber::ZvDataSubscriber(): Unsubscription failed.\n"
		              ? 0
		              : 1);
	    },
	    ::testing::ExitedWithCode(0), "");
}

TEST_F(ZvDataSubscriberTest, DestructorUnsubscribesAndDataOperationsWorkUnsubscribed)
{
	ZvDataSubscriber keeper("destroy", 0);
	auto leaver = std::make_unique<RecordingSubscriber>("destroy", 0);
	leaver.reset();
	ASSERT_EQ(keeper.DS_SetIntegerData(4, true), 0);
	ASSERT_TRUE(zv_registry->DR_Lock());
	EXPECT_EQ(zv_registry->DR_CountAttributes(), 1);
	zv_registry->DR_Unlock();

	// An unsubscribed, valid subscriber works on its own (direct path).
	auto alone = MakeUnsubscribed("destroy");
	EXPECT_EQ(alone->DS_SetIntegerData(9, true), 0);
	EXPECT_EQ(alone->DS_IntegerData(), 9);
	EXPECT_EQ(keeper.DS_IntegerData(), 4);
	EXPECT_EQ(alone->DS_SendEvent(1), -1);
}

// #pragma mark - Data and propagation

TEST_F(ZvDataSubscriberTest, SettingAnIntegerReachesTheOtherWithOneEventOnlyWhenNotified)
{
	RecordingSubscriber first("pair", 0);
	RecordingSubscriber second("pair", 0);
	ASSERT_EQ(first.DS_SetIntegerData(7, true), 0);
	EXPECT_EQ(second.DS_IntegerData(), 7);
	EXPECT_EQ(second.Events(), std::vector<uint32>{1});
	EXPECT_TRUE(first.Events().empty());

	second.ClearRecords();
	ASSERT_EQ(first.DS_SetIntegerData(8, false), 0);
	EXPECT_EQ(second.DS_IntegerData(), 8);
	EXPECT_TRUE(second.Events().empty());
}

TEST_F(ZvDataSubscriberTest, EachSetterPropagatesItsOwnKindOnly)
{
	RecordingSubscriber a("kinds", 0);
	RecordingSubscriber b("kinds", 0);
	ASSERT_EQ(b.DS_SetIntegerData(1, false), 0);
	b.ClearRecords();

	ASSERT_EQ(a.DS_SetFloatData(2.5, true), 0);
	ASSERT_EQ(a.DS_SetStringData("three", true), 0);
	const char raw[4] = {1, 2, 3, 4};
	ASSERT_EQ(a.DS_SetRAWData(raw, 4, true), 0);
	BMessage message(Code("FIVE"));
	ASSERT_EQ(a.DS_SetMessageData(&message, true), 0);
	EXPECT_EQ(b.Events(), (std::vector<uint32>{2, 4, 8, 16}));
	EXPECT_DOUBLE_EQ(b.DS_FloatData(), 2.5);
	char text[16];
	ASSERT_EQ(b.DS_StringData(text, -1), 0);
	EXPECT_STREQ(text, "three");
	char got[4] = {};
	ASSERT_EQ(b.DS_RAWData(got, 4), 0);
	EXPECT_EQ(memcmp(got, raw, 4), 0);
	BMessage copy;
	ASSERT_EQ(b.DS_MessageData(&copy), 0);
	EXPECT_EQ(copy.what, Code("FIVE"));
	// a's integer (0) was never sent.
	EXPECT_EQ(b.DS_IntegerData(), 1);
}

TEST_F(ZvDataSubscriberTest, ModeTwoPublishesButNeverReceives)
{
	RecordingSubscriber publisher("mode2", 2);
	RecordingSubscriber receiver("mode2", 0);
	ASSERT_EQ(publisher.DS_SetIntegerData(11, true), 0);
	EXPECT_EQ(receiver.DS_IntegerData(), 11);
	ASSERT_EQ(receiver.DS_SetIntegerData(12, true), 0);
	EXPECT_EQ(publisher.DS_IntegerData(), 11);
	EXPECT_TRUE(publisher.Events().empty());
	EXPECT_EQ(publisher.DS_SendEvent(1), -1);
	EXPECT_EQ(receiver.DS_IntegerData(), 11);
}

TEST_F(ZvDataSubscriberTest, LocalOnlyFlagReceivesButItsSettersChangeOnlyItself)
{
	RecordingSubscriber local("local", 0x10);
	RecordingSubscriber other("local", 0);
	ASSERT_EQ(other.DS_SetIntegerData(21, true), 0);
	EXPECT_EQ(local.DS_IntegerData(), 21);
	EXPECT_EQ(local.Events(), std::vector<uint32>{1});
	ASSERT_EQ(local.DS_SetIntegerData(22, true), 0);
	ASSERT_EQ(local.DS_SetStringData("mine", true), 0);
	EXPECT_EQ(local.DS_IntegerData(), 22);
	EXPECT_EQ(other.DS_IntegerData(), 21);
	EXPECT_EQ(other.DS_StringDataSize(), 0);
	EXPECT_TRUE(other.Events().empty());
}

TEST_F(ZvDataSubscriberTest, NullStringFailsButClearsTheStringEverywhere)
{
	ZvDataSubscriber a("clear", 0);
	RecordingSubscriber b("clear", 0);
	ZvDataSubscriber c("clear", 0);
	ASSERT_EQ(a.DS_SetStringData("something", true), 0);
	EXPECT_EQ(c.DS_StringDataSize(), 9);
	b.ClearRecords();
	EXPECT_EQ(a.DS_SetStringData(nullptr, true), -1);
	char buffer[16] = "untouched";
	for (ZvDataSubscriber* s :
	     {static_cast<ZvDataSubscriber*>(&a), static_cast<ZvDataSubscriber*>(&b), &c}) {
		EXPECT_EQ(s->DS_StringData(buffer, -1), -1);
		EXPECT_EQ(s->DS_StringDataSize(), 0);
	}
	EXPECT_STREQ(buffer, "untouched");
	EXPECT_EQ(b.Events(), std::vector<uint32>{4});
}

TEST_F(ZvDataSubscriberTest, RawSetterRefusesNullOrEmptyBlocksAndClearsEverywhere)
{
	ZvDataSubscriber a("raw", 0);
	ZvDataSubscriber b("raw", 0);
	const char block[3] = {'a', 'b', 'c'};
	ASSERT_EQ(a.DS_SetRAWData(block, 3, true), 0);
	EXPECT_EQ(b.DS_RAWDataSize(), 3);
	EXPECT_EQ(a.DS_SetRAWData(block, 0, true), -1);
	EXPECT_EQ(b.DS_RAWDataSize(), 0);
	char out[3] = {'x', 'x', 'x'};
	EXPECT_EQ(b.DS_RAWData(out, -1), -1);
	EXPECT_EQ(out[0], 'x');
	ASSERT_EQ(a.DS_SetRAWData(block, 3, true), 0);
	EXPECT_EQ(a.DS_SetRAWData(nullptr, 3, true), -1);
	EXPECT_EQ(b.DS_RAWDataSize(), 0);
	EXPECT_EQ(a.DS_SetRAWData(block, -5, true), -1);
}

TEST_F(ZvDataSubscriberTest, NullMessageFailsChangesNothingButStillPropagates)
{
	ZvDataSubscriber a("message", 0);
	RecordingSubscriber b("message", 0);
	BMessage message(Code("ORIG"));
	message.AddString("k", "v");
	ASSERT_EQ(a.DS_SetMessageData(&message, true), 0);
	b.ClearRecords();
	EXPECT_EQ(a.DS_SetMessageData(nullptr, true), -1);
	EXPECT_EQ(b.Events(), std::vector<uint32>{16});
	BMessage out;
	ASSERT_EQ(b.DS_MessageData(&out), 0);
	EXPECT_EQ(out.what, Code("ORIG"));
	const char* value = nullptr;
	EXPECT_EQ(out.FindString("k", &value), B_OK);
	EXPECT_STREQ(value, "v");
	EXPECT_EQ(a.DS_MessageData(nullptr), -1);
	ZvDataSubscriber none("message-none", 0);
	EXPECT_EQ(none.DS_MessageData(&out), -1);
}

TEST_F(ZvDataSubscriberTest, SendEventCopiesOnlyTheNamedKindsAndAlwaysFails)
{
	RecordingSubscriber sender("send", 0);
	RecordingSubscriber receiver("send", 0);
	RecordingSubscriber mode1("send", 1);
	RecordingSubscriber bystander("send", 3);
	// Give the sender data of its own without publishing it: a repeated
	// DS_Subscribe fails but keeps the flags it was given (0x10, local).
	{
		OutputCapture capture(2);
		ASSERT_EQ(sender.DS_Subscribe(0x10, true), -1);
		EXPECT_EQ(capture.Finish(), "ZvDataSubscriber::Subscribe(): Already subscribed.\n");
	}
	ASSERT_EQ(sender.DS_SetIntegerData(50, true), 0);
	ASSERT_EQ(sender.DS_SetStringData("sent", true), 0);
	EXPECT_EQ(receiver.DS_IntegerData(), 0);

	EXPECT_EQ(sender.DS_SendEvent(0x20), -1);
	EXPECT_EQ(receiver.Events(), std::vector<uint32>{0x20});
	EXPECT_EQ(mode1.Events(), std::vector<uint32>{0x20});
	EXPECT_TRUE(bystander.Events().empty());
	EXPECT_TRUE(sender.Events().empty());
	EXPECT_EQ(receiver.DS_IntegerData(), 0);
	EXPECT_EQ(receiver.DS_StringDataSize(), 0);

	// A code with kind bits copies those kinds (local-only bits ignored).
	EXPECT_EQ(sender.DS_SendEvent(0x21), -1);
	EXPECT_EQ(receiver.DS_IntegerData(), 50);
	EXPECT_EQ(receiver.DS_StringDataSize(), 0);
	EXPECT_EQ(receiver.Events(), (std::vector<uint32>{0x20, 0x21}));
}

TEST_F(ZvDataSubscriberTest, PropagationVisitsOlderSubscribersNearestFirstThenNewerOnes)
{
	EventLog log;
	RecordingSubscriber s1("order", 0, "s1", &log);
	RecordingSubscriber s2("order", 0, "s2", &log);
	RecordingSubscriber s3("order", 0, "s3", &log);
	RecordingSubscriber s4("order", 0, "s4", &log);
	RecordingSubscriber s5("order", 0, "s5", &log);
	ASSERT_EQ(s3.DS_SetIntegerData(1, true), 0);
	EXPECT_EQ(log.Entries(), (std::vector<std::string>{"s2:1", "s1:1", "s4:1", "s5:1"}));
}

TEST_F(ZvDataSubscriberTest, GettersCopyWhatIsStored)
{
	ZvDataSubscriber s("getters", 0);
	EXPECT_EQ(s.DS_IntegerData(nullptr), -1);
	EXPECT_EQ(s.DS_FloatData(nullptr), -1);
	ASSERT_EQ(s.DS_SetIntegerData(-5, true), 0);
	ASSERT_EQ(s.DS_SetFloatData(-0.25, true), 0);
	int64 integer = 0;
	double number = 0.0;
	EXPECT_EQ(s.DS_IntegerData(&integer), 0);
	EXPECT_EQ(s.DS_FloatData(&number), 0);
	EXPECT_EQ(integer, -5);
	EXPECT_EQ(number, -0.25);
}

TEST_F(ZvDataSubscriberTest, StringDataWithALengthWritesThatManyCharactersAndATerminator)
{
	ZvDataSubscriber s("string", 0);
	ASSERT_EQ(s.DS_SetStringData("abcdef", true), 0);
	char buffer[8];
	memset(buffer, '*', sizeof(buffer));
	ASSERT_EQ(s.DS_StringData(buffer, 3), 0);
	EXPECT_EQ(std::string(buffer, 4), std::string("abc\0", 4));
	EXPECT_EQ(buffer[4], '*');
	memset(buffer, '*', sizeof(buffer));
	ASSERT_EQ(s.DS_StringData(buffer, -1), 0);
	EXPECT_STREQ(buffer, "abcdef");
	EXPECT_EQ(buffer[7], '*');
	EXPECT_EQ(s.DS_StringData(nullptr, 3), -1);
}

TEST_F(ZvDataSubscriberTest, SizeQueriesOnTheLockedAndDirectPaths)
{
	ZvDataSubscriber subscribed("sizes", 0);
	auto direct = MakeUnsubscribed("sizes");
	int32 size = 77;
	// Locked path: a null size is accepted, a missing string leaves size.
	EXPECT_EQ(subscribed.DS_StringDataSize(nullptr), 0);
	EXPECT_EQ(subscribed.DS_StringDataSize(&size), 0);
	EXPECT_EQ(size, 77);
	EXPECT_EQ(subscribed.DS_RAWDataSize(nullptr), 0);
	EXPECT_EQ(subscribed.DS_RAWDataSize(&size), 0);
	EXPECT_EQ(size, 0);
	// Direct path: a null size is refused, a missing string leaves size.
	size = 77;
	EXPECT_EQ(direct->DS_StringDataSize(nullptr), -1);
	EXPECT_EQ(direct->DS_StringDataSize(&size), 0);
	EXPECT_EQ(size, 77);
	EXPECT_EQ(direct->DS_StringDataSize(), 0);
	EXPECT_EQ(direct->DS_RAWDataSize(nullptr), -1);
	ASSERT_EQ(direct->DS_SetStringData("four", false), 0);
	ASSERT_EQ(direct->DS_SetRAWData("12345", 5, false), 0);
	EXPECT_EQ(direct->DS_StringDataSize(&size), 0);
	EXPECT_EQ(size, 4);
	EXPECT_EQ(direct->DS_StringDataSize(), 4);
	EXPECT_EQ(direct->DS_RAWDataSize(), 5);
}

TEST_F(ZvDataSubscriberTest, RawDataCopiesTheBlockAndZeroFillsPastItsEnd)
{
	ZvDataSubscriber s("rawread", 0);
	ASSERT_EQ(s.DS_SetRAWData("xyz", 3, true), 0);
	char buffer[6];
	memset(buffer, '*', sizeof(buffer));
	ASSERT_EQ(s.DS_RAWData(buffer, 2), 0);
	EXPECT_EQ(std::string(buffer, 3), "xy*");
	memset(buffer, '*', sizeof(buffer));
	ASSERT_EQ(s.DS_RAWData(buffer, -1), 0);
	EXPECT_EQ(std::string(buffer, 4), "xyz*");
	memset(buffer, '*', sizeof(buffer));
	ASSERT_EQ(s.DS_RAWData(buffer, 5), 0);
	EXPECT_EQ(std::string(buffer, 6), std::string("xyz\0\0*", 6));
	EXPECT_EQ(s.DS_RAWData(nullptr, 3), -1);
}

TEST_F(ZvDataSubscriberTest, AssignmentCopiesAllKindsWithoutPropagating)
{
	ZvDataSubscriber source("assign-a", 0);
	RecordingSubscriber target("assign-b", 0);
	RecordingSubscriber watcher("assign-b", 0);
	ASSERT_EQ(source.DS_SetIntegerData(3, false), 0);
	ASSERT_EQ(source.DS_SetFloatData(4.5, false), 0);
	ASSERT_EQ(source.DS_SetStringData("five", false), 0);
	ASSERT_EQ(source.DS_SetRAWData("six", 3, false), 0);
	BMessage message(Code("SEVN"));
	ASSERT_EQ(source.DS_SetMessageData(&message, false), 0);
	ASSERT_EQ(target.DS_SetStringData("old", false), 0);
	watcher.ClearRecords();

	ZvDataSubscriber& result = (target = source);
	EXPECT_EQ(&result, &target);
	EXPECT_EQ(target.DS_IntegerData(), 3);
	EXPECT_DOUBLE_EQ(target.DS_FloatData(), 4.5);
	EXPECT_EQ(target.DS_StringDataSize(), 4);
	EXPECT_EQ(target.DS_RAWDataSize(), 3);
	BMessage out;
	ASSERT_EQ(target.DS_MessageData(&out), 0);
	EXPECT_EQ(out.what, Code("SEVN"));
	EXPECT_EQ(watcher.DS_IntegerData(), 0);
	EXPECT_TRUE(watcher.Events().empty());
	EXPECT_STREQ(target.DS_AttributeName(), "assign-b");

	// An empty source clears the string, block and message; self-assignment
	// keeps everything.
	ZvDataSubscriber empty("assign-c", 0);
	target = empty;
	EXPECT_EQ(target.DS_StringDataSize(), 0);
	EXPECT_EQ(target.DS_RAWDataSize(), 0);
	EXPECT_EQ(target.DS_MessageData(&out), -1);
	ZvDataSubscriber& alias = source;
	source = alias;
	EXPECT_EQ(source.DS_StringDataSize(), 4);
	EXPECT_EQ(source.DS_RAWDataSize(), 3);
}

// #pragma mark - In event

namespace {

void TryEverythingInside(RecordingSubscriber* self, uint32)
{
	BMessage message(Code("INSD"));
	self->hookResults = {
	    self->DS_SetIntegerData(1000, true),
	    self->DS_SetFloatData(1000.0, true),
	    self->DS_SetStringData("inside", true),
	    self->DS_SetRAWData("in", 2, true),
	    self->DS_SetMessageData(&message, true),
	    self->DS_SendEvent(1),
	    self->DS_Subscribe(0, true),
	    self->DS_UnSubscribe(),
	    self->DS_IsSubscribed() ? 1 : 0,
	    self->DS_StringDataSize(),
	};
}

} // namespace

TEST_F(ZvDataSubscriberTest, InsideItsEventASubscriberReadsDirectlyAndRefusesChanges)
{
	ZvDataSubscriber sender("inside", 0);
	RecordingSubscriber receiver("inside", 0);
	RecordingSubscriber other("inside", 0);
	receiver.SetHook(&TryEverythingInside);
	zvtest::Watchdog watchdog(std::chrono::seconds(30), "in-event calls");
	ASSERT_EQ(sender.DS_SetStringData("outside", true), 0);

	// Integer and float setters give 0 without effect, the others -1.
	EXPECT_EQ(receiver.hookResults, (std::vector<status_t>{0, 0, -1, -1, -1, -1, -1, -1, 1, 7}));
	EXPECT_EQ(receiver.DS_IntegerData(), 0);
	EXPECT_EQ(receiver.DS_FloatData(), 0.0);
	char text[16];
	ASSERT_EQ(receiver.DS_StringData(text, -1), 0);
	EXPECT_STREQ(text, "outside");
	EXPECT_EQ(receiver.DS_RAWDataSize(), 0);
	EXPECT_TRUE(receiver.DS_IsSubscribed());
	// Nothing was sent on from inside.
	EXPECT_EQ(other.Events(), std::vector<uint32>{4});
	// Outside its event, the receiver works as usual again.
	EXPECT_EQ(receiver.DS_SetIntegerData(5, false), 0);
	EXPECT_EQ(sender.DS_IntegerData(), 5);
}

// #pragma mark - Archive

TEST_F(ZvDataSubscriberTest, ArchiveWritesTheNamedKindsOnceEach)
{
	ZvDataSubscriber s("archive", 0);
	ASSERT_EQ(s.DS_SetIntegerData(12, false), 0);
	ASSERT_EQ(s.DS_SetFloatData(1.5, false), 0);
	BMessage archive;
	ASSERT_EQ(s.DS_Archive(&archive, 5), 0);
	const char* name = nullptr;
	ASSERT_EQ(archive.FindString("DS_ATTRIBUTENAME", &name), B_OK);
	EXPECT_STREQ(name, "archive");
	int32 touched = 0;
	ASSERT_EQ(archive.FindInt32("DS_TOUCHEDWHAT", &touched), B_OK);
	EXPECT_EQ(touched, 5);
	int64 integer = 0;
	ASSERT_EQ(archive.FindInt64("DS_INTEGER", &integer), B_OK);
	EXPECT_EQ(integer, 12);
	EXPECT_FALSE(archive.HasString("DS_STRING", 0));
	EXPECT_FALSE(archive.HasDouble("DS_FLOAT", 0));
	EXPECT_FALSE(archive.HasData("DS_RAW", B_RAW_TYPE, 0));
	EXPECT_FALSE(archive.HasMessage("DS_MESSAGE", 0));

	ASSERT_EQ(s.DS_SetStringData("str", false), 0);
	ASSERT_EQ(s.DS_Archive(&archive, 5), 0);
	ASSERT_EQ(s.DS_Archive(&archive, 5), 0);
	for (const char* field : {"DS_ATTRIBUTENAME", "DS_TOUCHEDWHAT", "DS_INTEGER", "DS_STRING"}) {
		EXPECT_EQ(CountField(archive, field), 1) << field;
	}
	const char* text = nullptr;
	ASSERT_EQ(archive.FindString("DS_STRING", &text), B_OK);
	EXPECT_STREQ(text, "str");
	EXPECT_EQ(s.DS_Archive(nullptr, 5), -1);
}

TEST_F(ZvDataSubscriberTest, ArchiveRoundTripsAllFiveKindsWithTheirFieldTypes)
{
	ZvDataSubscriber s("roundtrip", 0);
	ASSERT_EQ(s.DS_SetIntegerData(int64(1) << 40, false), 0);
	ASSERT_EQ(s.DS_SetFloatData(2.75, false), 0);
	ASSERT_EQ(s.DS_SetStringData("text", false), 0);
	const unsigned char block[5] = {0, 1, 2, 254, 255};
	ASSERT_EQ(s.DS_SetRAWData(block, 5, false), 0);
	BMessage inner(Code("INNR"));
	inner.AddInt32("n", 9);
	ASSERT_EQ(s.DS_SetMessageData(&inner, false), 0);

	BMessage archive(Code("ARCV"));
	archive.AddString("DS_STRING", "stale");
	ASSERT_EQ(s.DS_Archive(&archive, 255), 0);
	type_code type = 0;
	int32 count = 0;
	ASSERT_EQ(archive.GetInfo("DS_RAW", &type, &count), B_OK);
	EXPECT_EQ(type, B_RAW_TYPE);
	EXPECT_EQ(count, 1);
	ASSERT_EQ(archive.GetInfo("DS_INTEGER", &type, &count), B_OK);
	EXPECT_EQ(type, B_INT64_TYPE);
	ASSERT_EQ(archive.GetInfo("DS_FLOAT", &type, &count), B_OK);
	EXPECT_EQ(type, B_DOUBLE_TYPE);
	ASSERT_EQ(archive.GetInfo("DS_MESSAGE", &type, &count), B_OK);
	EXPECT_EQ(type, B_MESSAGE_TYPE);
	EXPECT_EQ(CountField(archive, "DS_STRING"), 1);
	EXPECT_EQ(archive.what, Code("ARCV"));

	auto restored = MakeUnsubscribed("another-name");
	ASSERT_EQ(restored->DS_UnArchive(&archive, true), 0);
	// The name is not read back.
	EXPECT_STREQ(restored->DS_AttributeName(), "another-name");
	EXPECT_EQ(restored->DS_IntegerData(), int64(1) << 40);
	EXPECT_DOUBLE_EQ(restored->DS_FloatData(), 2.75);
	char text[8];
	ASSERT_EQ(restored->DS_StringData(text, -1), 0);
	EXPECT_STREQ(text, "text");
	unsigned char got[5] = {};
	ASSERT_EQ(restored->DS_RAWDataSize(), 5);
	ASSERT_EQ(restored->DS_RAWData(got, 5), 0);
	EXPECT_EQ(memcmp(got, block, 5), 0);
	BMessage out;
	ASSERT_EQ(restored->DS_MessageData(&out), 0);
	EXPECT_EQ(out.what, Code("INNR"));
	int32 n = 0;
	EXPECT_EQ(out.FindInt32("n", &n), B_OK);
	EXPECT_EQ(n, 9);
	EXPECT_EQ(restored->DS_UnArchive(nullptr, true), -1);
}

TEST_F(ZvDataSubscriberTest, UnArchiveOfOnlyAFloatPropagatesWithMaskTwoPlusTouchedWhat)
{
	ZvDataSubscriber reader("unarchive", 0);
	RecordingSubscriber receiver("unarchive", 0);
	{
		// A repeated DS_Subscribe fails but keeps its flags: make the
		// reader local for one setter, then publishing again.
		OutputCapture capture(2);
		ASSERT_EQ(reader.DS_Subscribe(0x10, true), -1);
		ASSERT_EQ(reader.DS_SetIntegerData(66, false), 0);
		ASSERT_EQ(reader.DS_Subscribe(0, true), -1);
	}
	receiver.ClearRecords();

	BMessage onlyFloat;
	onlyFloat.AddDouble("DS_FLOAT", 6.5);
	ASSERT_EQ(reader.DS_UnArchive(&onlyFloat, true), 0);
	EXPECT_EQ(receiver.Events(), std::vector<uint32>{2});
	EXPECT_DOUBLE_EQ(receiver.DS_FloatData(), 6.5);
	EXPECT_EQ(receiver.DS_IntegerData(), 0);

	onlyFloat.AddInt32("DS_TOUCHEDWHAT", 1);
	ASSERT_EQ(reader.DS_UnArchive(&onlyFloat, true), 0);
	EXPECT_EQ(receiver.Events(), (std::vector<uint32>{2, 3}));
	EXPECT_EQ(receiver.DS_IntegerData(), 66);
}

TEST_F(ZvDataSubscriberTest, UnArchiveOfNoKeysStillPropagatesMaskZero)
{
	ZvDataSubscriber reader("unarchive-empty", 0);
	RecordingSubscriber receiver("unarchive-empty", 0);
	ASSERT_EQ(receiver.DS_SetIntegerData(3, false), 0);
	BMessage empty(Code("EMPT"));
	empty.AddInt32("unrelated", 1);
	ASSERT_EQ(reader.DS_UnArchive(&empty, true), 0);
	EXPECT_EQ(receiver.Events(), std::vector<uint32>{0});
	EXPECT_EQ(receiver.DS_IntegerData(), 3);
	EXPECT_EQ(reader.DS_IntegerData(), 3);
	ASSERT_EQ(reader.DS_UnArchive(&empty, false), 0);
	EXPECT_EQ(receiver.Events(), std::vector<uint32>{0});
}

TEST_F(ZvDataSubscriberTest, UnArchiveWithLocalOnlyFlagsStoresWithoutPropagating)
{
	ZvDataSubscriber reader("unarchive-local", 0x20);
	RecordingSubscriber receiver("unarchive-local", 0);
	BMessage archive;
	archive.AddInt64("DS_INTEGER", 8);
	ASSERT_EQ(reader.DS_UnArchive(&archive, true), 0);
	EXPECT_EQ(reader.DS_IntegerData(), 8);
	EXPECT_EQ(receiver.DS_IntegerData(), 0);
	EXPECT_TRUE(receiver.Events().empty());
}

TEST_F(ZvDataSubscriberTest, UnArchiveIgnoresARawFieldOfAnotherType)
{
	ZvDataSubscriber reader("unarchive-raw", 0);
	RecordingSubscriber receiver("unarchive-raw", 0);
	ASSERT_EQ(reader.DS_SetRAWData("keep", 4, false), 0);
	BMessage archive;
	// A raw field of another type is not "DS_RAW" of B_RAW_TYPE.
	archive.AddData("DS_RAW", B_STRING_TYPE, "no", 3, true, 1);
	ASSERT_EQ(reader.DS_UnArchive(&archive, true), 0);
	EXPECT_EQ(receiver.Events(), std::vector<uint32>{0});
	EXPECT_EQ(reader.DS_RAWDataSize(), 4);
}

// #pragma mark - Flag names

TEST_F(ZvDataSubscriberTest, FlagNamesLieInsideTheirOwnGroupsAndTheGroupsDoNotOverlap)
{
	const uint32 masks[] = {ZV_DS_MODE_MASK, ZV_DS_LOCAL_ONLY_MASK, ZV_DS_NEVER_REGISTERED_MASK,
	                        ZV_DS_JOIN_MASK, ZV_DS_SERVER_MASK};
	for (size_t i = 0; i < sizeof(masks) / sizeof(masks[0]); i++)
		for (size_t j = i + 1; j < sizeof(masks) / sizeof(masks[0]); j++)
			EXPECT_EQ(masks[i] & masks[j], 0u) << i << " " << j;
	for (uint32 mode : {ZV_DS_MODE_EXCHANGE, ZV_DS_MODE_RECEIVE_ONLY, ZV_DS_MODE_SOURCE_ONLY,
	                    ZV_DS_MODE_ISOLATED})
		EXPECT_EQ(mode & ~ZV_DS_MODE_MASK, 0u);
	EXPECT_EQ(ZV_DS_LOCAL_ONLY & ~ZV_DS_LOCAL_ONLY_MASK, 0u);
	EXPECT_NE(ZV_DS_LOCAL_ONLY, 0u);
	EXPECT_EQ(ZV_DS_NEVER_REGISTERED & ~ZV_DS_NEVER_REGISTERED_MASK, 0u);
	EXPECT_NE(ZV_DS_NEVER_REGISTERED, 0u);
	for (uint32 join : {ZV_DS_JOIN_PULL, ZV_DS_JOIN_PUSH, ZV_DS_JOIN_NONE})
		EXPECT_EQ(join & ~ZV_DS_JOIN_MASK, 0u);
	EXPECT_EQ(ZV_DS_SERVER & ~ZV_DS_SERVER_MASK, 0u);
	EXPECT_NE(ZV_DS_SERVER, 0u);
	EXPECT_EQ(ZV_DS_TOUCHED_INTEGER | ZV_DS_TOUCHED_FLOAT | ZV_DS_TOUCHED_STRING |
	              ZV_DS_TOUCHED_RAW | ZV_DS_TOUCHED_MESSAGE,
	          31u);
	EXPECT_EQ(ZV_DS_TOUCHED_ALL, 255u);
}

TEST_F(ZvDataSubscriberTest, NamedModesDecideWhoReceivesAndWhoGivesANewcomerItsData)
{
	RecordingSubscriber source("named-modes", ZV_DS_MODE_SOURCE_ONLY);
	RecordingSubscriber receiver("named-modes", ZV_DS_MODE_RECEIVE_ONLY);
	RecordingSubscriber isolated("named-modes", ZV_DS_MODE_ISOLATED);
	ASSERT_EQ(source.DS_SetIntegerData(31, true), 0);
	EXPECT_EQ(receiver.DS_IntegerData(), 31);
	EXPECT_EQ(receiver.Events(), std::vector<uint32>{ZV_DS_TOUCHED_INTEGER});
	EXPECT_EQ(isolated.DS_IntegerData(), 0);
	ASSERT_EQ(receiver.DS_SetIntegerData(32, true), 0);
	EXPECT_EQ(source.DS_IntegerData(), 31);

	// A newcomer that pulls takes its data from the source-only subscriber
	// (the receive-only one is no source).
	ZvDataSubscriber newcomer("named-modes", ZV_DS_MODE_EXCHANGE | ZV_DS_JOIN_PULL);
	EXPECT_EQ(newcomer.DS_IntegerData(), 31);
}

TEST_F(ZvDataSubscriberTest, NamedJoinFlagsPushOrSkipTheNewcomersData)
{
	RecordingSubscriber existing("named-join", ZV_DS_MODE_EXCHANGE);
	ASSERT_EQ(existing.DS_SetIntegerData(41, false), 0);

	auto quiet = MakeUnsubscribed("named-join");
	ASSERT_EQ(quiet->DS_SetIntegerData(42, false), 0);
	ASSERT_EQ(quiet->DS_Subscribe(ZV_DS_MODE_EXCHANGE | ZV_DS_JOIN_NONE, true), 0);
	EXPECT_EQ(quiet->DS_IntegerData(), 42);
	EXPECT_EQ(existing.DS_IntegerData(), 41);

	auto pusher = MakeUnsubscribed("named-join");
	ASSERT_EQ(pusher->DS_SetIntegerData(43, false), 0);
	ASSERT_EQ(pusher->DS_Subscribe(ZV_DS_MODE_EXCHANGE | ZV_DS_JOIN_PUSH, true), 0);
	EXPECT_EQ(existing.DS_IntegerData(), 43);
	EXPECT_EQ(quiet->DS_IntegerData(), 43);
}

TEST_F(ZvDataSubscriberTest, NamedLocalOnlyNeverRegisteredAndServerFlagsKeepTheirMeaning)
{
	RecordingSubscriber server("named-groups", ZV_DS_SERVER);
	RecordingSubscriber local("named-groups", ZV_DS_LOCAL_ONLY);
	ASSERT_EQ(local.DS_SetIntegerData(51, true), 0);
	EXPECT_EQ(server.DS_IntegerData(), 0);
	ASSERT_EQ(server.DS_SetIntegerData(52, true), 0);
	EXPECT_EQ(local.DS_IntegerData(), 52);

	OutputCapture capture(2);
	RecordingSubscriber outsider("named-groups", ZV_DS_NEVER_REGISTERED);
	capture.Finish();
	EXPECT_FALSE(outsider.DS_IsSubscribed());

	ASSERT_TRUE(zv_registry->DR_Lock());
	EXPECT_EQ(zv_registry->DR_UnSubscribeAllExceptServer("named-groups"), 0);
	EXPECT_TRUE(zv_registry->DR_SubscriberSubscribed(&server));
	EXPECT_FALSE(zv_registry->DR_SubscriberSubscribed(&local));
	zv_registry->DR_Unlock();
}
