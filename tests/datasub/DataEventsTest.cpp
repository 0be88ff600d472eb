// Tests of subscriber events delivered as platform messages: the event
// message template ("Source", "touched_what"), and delivery end to end to a
// handler of a running BLooper, in the looper's thread.
#include <ZvDataRegistry.h>
#include <ZvDataSubscriber.h>

#include <Handler.h>
#include <Looper.h>
#include <Message.h>
#include <OS.h>

#include "DataTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

using zvtest::Code;
using zvtest::CountField;
using zvtest::MakeUnsubscribed;
using zvtest::RecordingSubscriber;
using zvtest::Watchdog;

namespace {

const uint32 kEventWhat = Code("DSEV");

// Keeps a copy of every message it receives, and the thread it ran in.
class CollectingHandler : public BHandler
{
public:
	CollectingHandler() : BHandler("collector") {}

	void MessageReceived(BMessage* message) override
	{
		std::lock_guard<std::mutex> guard(fLock);
		fMessages.push_back(*message);
		fThreads.push_back(find_thread(nullptr));
		if (fOnReceive)
			fOnReceive(message);
		fChanged.notify_all();
	}

	// True when at least count messages arrived within the limit.
	bool WaitFor(size_t count, std::chrono::seconds limit = std::chrono::seconds(20))
	{
		std::unique_lock<std::mutex> guard(fLock);
		return fChanged.wait_for(guard, limit, [&] { return fMessages.size() >= count; });
	}

	std::vector<BMessage> Messages()
	{
		std::lock_guard<std::mutex> guard(fLock);
		return fMessages;
	}

	std::vector<thread_id> Threads()
	{
		std::lock_guard<std::mutex> guard(fLock);
		return fThreads;
	}

	// Runs in the looper's thread for each message (set before any event).
	void OnReceive(void (*hook)(BMessage*)) { fOnReceive = hook; }

private:
	std::mutex fLock;
	std::condition_variable fChanged;
	std::vector<BMessage> fMessages;
	std::vector<thread_id> fThreads;
	void (*fOnReceive)(BMessage*) = nullptr;
};

class DataEventsTest : public zvtest::RegistryTest
{
protected:
	void SetUp() override
	{
		zvtest::RegistryTest::SetUp();
		fLooper = new BLooper("data events");
		// The constructing thread holds the looper's lock until Run.
		fLooper->AddHandler(&fHandler);
		fLooperThread = fLooper->Run();
		ASSERT_GT(fLooperThread, 0);
	}

	void TearDown() override
	{
		ASSERT_TRUE(fLooper->Lock());
		fLooper->RemoveHandler(&fHandler);
		fLooper->Quit();
		zvtest::RegistryTest::TearDown();
	}

	// A posted message is delivered after every message posted before it:
	// posting one more and waiting for it drains the queue.
	void Drain(size_t expectedBefore)
	{
		BMessage marker(Code("DRAN"));
		ASSERT_EQ(fLooper->PostMessage(&marker, &fHandler), B_OK);
		ASSERT_TRUE(fHandler.WaitFor(expectedBefore + 1));
		std::vector<BMessage> messages = fHandler.Messages();
		ASSERT_EQ(messages.size(), expectedBefore + 1);
		EXPECT_EQ(messages.back().what, Code("DRAN"));
	}

	CollectingHandler fHandler;
	BLooper* fLooper = nullptr;
	thread_id fLooperThread = -1;
};

void* SourceOf(const BMessage& message, int32 index = 0)
{
	void* pointer = nullptr;
	if (message.FindPointer("Source", index, &pointer) != B_OK)
		return reinterpret_cast<void*>(-1);
	return pointer;
}

int32 TouchedWhatOf(const BMessage& message)
{
	int32 touched = -1;
	EXPECT_EQ(message.FindInt32("touched_what", &touched), B_OK);
	return touched;
}

} // namespace

// #pragma mark - The event message template

TEST_F(DataEventsTest, SetEventMessageCopiesTheMessageAndPointsSourceAtTheSubscriber)
{
	ZvDataSubscriber s("template", 0);
	EXPECT_EQ(s.DS_EventMessage(), nullptr);
	BMessage message(kEventWhat);
	message.AddString("app", "mine");
	message.AddPointer("Source", &message);
	message.AddPointer("Source", &message);
	ASSERT_EQ(s.DS_SetEventMessage(&message), 0);
	BMessage* stored = s.DS_EventMessage();
	ASSERT_NE(stored, nullptr);
	EXPECT_NE(stored, &message);
	EXPECT_EQ(stored->what, kEventWhat);
	EXPECT_EQ(CountField(*stored, "Source"), 1);
	EXPECT_EQ(SourceOf(*stored), &s);
	const char* app = nullptr;
	EXPECT_EQ(stored->FindString("app", &app), B_OK);
	EXPECT_STREQ(app, "mine");
	// The caller's message is untouched.
	EXPECT_EQ(CountField(message, "Source"), 2);

	// With null, the template is kept and one more "Source" is added.
	ASSERT_EQ(s.DS_SetEventMessage(static_cast<BMessage*>(nullptr)), 0);
	EXPECT_EQ(s.DS_EventMessage(), stored);
	EXPECT_EQ(CountField(*stored, "Source"), 2);
	EXPECT_EQ(SourceOf(*stored, 1), &s);
	EXPECT_EQ(stored->what, kEventWhat);

	// Giving the template back to itself keeps one "Source".
	ASSERT_EQ(s.DS_SetEventMessage(stored), 0);
	EXPECT_EQ(CountField(*stored, "Source"), 1);
	EXPECT_EQ(stored->FindString("app", &app), B_OK);
}

TEST_F(DataEventsTest, SetEventMessageByCodeEmptiesTheTemplate)
{
	ZvDataSubscriber s("template-code", 0);
	BMessage message(Code("OLD "));
	message.AddInt32("old", 1);
	ASSERT_EQ(s.DS_SetEventMessage(&message), 0);
	ASSERT_EQ(s.DS_SetEventMessage(kEventWhat), 0);
	BMessage* stored = s.DS_EventMessage();
	ASSERT_NE(stored, nullptr);
	EXPECT_EQ(stored->what, kEventWhat);
	EXPECT_FALSE(stored->HasInt32("old", 0));
	EXPECT_EQ(CountField(*stored, "Source"), 1);
	EXPECT_EQ(SourceOf(*stored), &s);
	EXPECT_EQ(stored->CountNames(B_ANY_TYPE), 1);

	ZvDataSubscriber fresh("template-code", 0);
	ASSERT_EQ(fresh.DS_SetEventMessage(Code("NEW ")), 0);
	ASSERT_NE(fresh.DS_EventMessage(), nullptr);
	EXPECT_EQ(fresh.DS_EventMessage()->what, Code("NEW "));
}

TEST_F(DataEventsTest, EventTargetIsStoredNotOwned)
{
	ZvDataSubscriber s("target", 0);
	EXPECT_EQ(s.DS_EventTarget(), nullptr);
	ASSERT_EQ(s.DS_SetEventTarget(&fHandler), 0);
	EXPECT_EQ(s.DS_EventTarget(), &fHandler);
	ASSERT_EQ(s.DS_SetEventTarget(nullptr), 0);
	EXPECT_EQ(s.DS_EventTarget(), nullptr);
}

// #pragma mark - Delivery

TEST_F(DataEventsTest, HandlerOfARunningLooperReceivesTheEventInTheLoopersThread)
{
	Watchdog watchdog(std::chrono::seconds(60), "event delivery");
	ZvDataSubscriber sender("delivery", 0);
	ZvDataSubscriber receiver("delivery", 0);
	BMessage message(kEventWhat);
	message.AddString("app", "own field");
	message.AddInt64("number", 99);
	ASSERT_EQ(receiver.DS_SetEventMessage(&message), 0);
	ASSERT_EQ(receiver.DS_SetEventTarget(&fHandler), 0);

	ASSERT_EQ(sender.DS_SetIntegerData(5, true), 0);
	ASSERT_TRUE(fHandler.WaitFor(1));
	std::vector<BMessage> messages = fHandler.Messages();
	ASSERT_EQ(messages.size(), 1u);
	const BMessage& event = messages[0];
	EXPECT_EQ(event.what, kEventWhat);
	const char* app = nullptr;
	EXPECT_EQ(event.FindString("app", &app), B_OK);
	EXPECT_STREQ(app, "own field");
	int64 number = 0;
	EXPECT_EQ(event.FindInt64("number", &number), B_OK);
	EXPECT_EQ(number, 99);
	EXPECT_EQ(SourceOf(event), &receiver);
	EXPECT_EQ(TouchedWhatOf(event), 1);
	EXPECT_EQ(CountField(event, "touched_what"), 1);
	EXPECT_EQ(fHandler.Threads(), std::vector<thread_id>{fLooperThread});
	EXPECT_NE(fLooperThread, find_thread(nullptr));

	// The template keeps a single "touched_what", the latest code.
	ASSERT_EQ(sender.DS_SetStringData("s", true), 0);
	ASSERT_TRUE(fHandler.WaitFor(2));
	EXPECT_EQ(TouchedWhatOf(fHandler.Messages()[1]), 4);
	EXPECT_EQ(CountField(*receiver.DS_EventMessage(), "touched_what"), 1);
	EXPECT_EQ(TouchedWhatOf(*receiver.DS_EventMessage()), 4);
}

TEST_F(DataEventsTest, EachReceiverPostsItsOwnMessageWithItselfAsSource)
{
	Watchdog watchdog(std::chrono::seconds(60), "several receivers");
	RecordingSubscriber sender("several", 0);
	ZvDataSubscriber first("several", 0);
	ZvDataSubscriber second("several", 1);
	ZvDataSubscriber deaf("several", 2);
	for (ZvDataSubscriber* s : {&first, &second, &deaf}) {
		ASSERT_EQ(s->DS_SetEventMessage(kEventWhat), 0);
		ASSERT_EQ(s->DS_SetEventTarget(&fHandler), 0);
	}
	// The sender's own template is never used for its own change.
	ASSERT_EQ(sender.DS_SetEventMessage(Code("SELF")), 0);
	ASSERT_EQ(sender.DS_SetEventTarget(&fHandler), 0);

	EXPECT_EQ(sender.DS_SendEvent(0x20), -1);
	Drain(2);
	std::vector<BMessage> messages = fHandler.Messages();
	// The sender is the oldest: newer subscribers follow, nearest first
	// (deaf is passed over).
	EXPECT_EQ(SourceOf(messages[0]), static_cast<ZvDataSubscriber*>(&first));
	EXPECT_EQ(SourceOf(messages[1]), static_cast<ZvDataSubscriber*>(&second));
	for (int i = 0; i < 2; i++) {
		EXPECT_EQ(messages[i].what, kEventWhat);
		EXPECT_EQ(TouchedWhatOf(messages[i]), 0x20);
	}
}

TEST_F(DataEventsTest, NoMessageWithoutNotifyTargetOrTemplate)
{
	Watchdog watchdog(std::chrono::seconds(60), "no message");
	ZvDataSubscriber sender("quiet", 0);
	ZvDataSubscriber onlyTarget("quiet", 0);
	ZvDataSubscriber onlyTemplate("quiet", 0);
	ZvDataSubscriber full("quiet", 0);
	ASSERT_EQ(onlyTarget.DS_SetEventTarget(&fHandler), 0);
	ASSERT_EQ(onlyTemplate.DS_SetEventMessage(kEventWhat), 0);
	ASSERT_EQ(full.DS_SetEventTarget(&fHandler), 0);
	ASSERT_EQ(full.DS_SetEventMessage(kEventWhat), 0);

	ASSERT_EQ(sender.DS_SetIntegerData(1, false), 0);
	ASSERT_EQ(sender.DS_SetIntegerData(2, true), 0);
	Drain(1);
	EXPECT_EQ(SourceOf(fHandler.Messages()[0]), &full);

	// A target set to null stops the messages.
	ASSERT_EQ(full.DS_SetEventTarget(nullptr), 0);
	ASSERT_EQ(sender.DS_SetIntegerData(3, true), 0);
	Drain(2);
}

TEST_F(DataEventsTest, HandlerOutsideAnyLooperGetsNothingAndNothingBreaks)
{
	CollectingHandler stray;
	ZvDataSubscriber sender("stray", 0);
	RecordingSubscriber receiver("stray", 0);
	ASSERT_EQ(receiver.DS_SetEventTarget(&stray), 0);
	ASSERT_EQ(receiver.DS_SetEventMessage(kEventWhat), 0);
	ASSERT_EQ(sender.DS_SetIntegerData(4, true), 0);
	EXPECT_EQ(receiver.Events(), std::vector<uint32>{1});
	EXPECT_EQ(receiver.DS_IntegerData(), 4);
	EXPECT_TRUE(stray.Messages().empty());
}

TEST_F(DataEventsTest, InitialPullWithNotifySendsTheNewcomersMessage)
{
	Watchdog watchdog(std::chrono::seconds(60), "initial pull");
	ZvDataSubscriber source("pull-event", 0);
	ASSERT_EQ(source.DS_SetIntegerData(17, false), 0);
	auto newcomer = MakeUnsubscribed("pull-event");
	ASSERT_EQ(newcomer->DS_SetEventMessage(kEventWhat), 0);
	ASSERT_EQ(newcomer->DS_SetEventTarget(&fHandler), 0);
	ASSERT_EQ(newcomer->DS_Subscribe(0, true), 0);
	ASSERT_TRUE(fHandler.WaitFor(1));
	const BMessage event = fHandler.Messages()[0];
	EXPECT_EQ(TouchedWhatOf(event), 255);
	EXPECT_EQ(SourceOf(event), newcomer.get());
	EXPECT_EQ(newcomer->DS_IntegerData(), 17);
}

TEST_F(DataEventsTest, UnArchiveOfNoKeysSendsTouchedWhatZero)
{
	Watchdog watchdog(std::chrono::seconds(60), "unarchive event");
	ZvDataSubscriber reader("unarchive-event", 0);
	ZvDataSubscriber receiver("unarchive-event", 0);
	ASSERT_EQ(receiver.DS_SetEventMessage(kEventWhat), 0);
	ASSERT_EQ(receiver.DS_SetEventTarget(&fHandler), 0);
	BMessage nothing;
	ASSERT_EQ(reader.DS_UnArchive(&nothing, true), 0);
	ASSERT_TRUE(fHandler.WaitFor(1));
	EXPECT_EQ(TouchedWhatOf(fHandler.Messages()[0]), 0);
}

TEST_F(DataEventsTest, PostedEventIsACopyOfTheTemplate)
{
	Watchdog watchdog(std::chrono::seconds(60), "posted copy");
	ZvDataSubscriber sender("copy", 0);
	ZvDataSubscriber receiver("copy", 0);
	ASSERT_EQ(receiver.DS_SetEventMessage(kEventWhat), 0);
	ASSERT_EQ(receiver.DS_SetEventTarget(&fHandler), 0);
	ASSERT_EQ(sender.DS_SetFloatData(1.0, true), 0);
	receiver.DS_EventMessage()->AddInt32("later", 1);
	receiver.DS_EventMessage()->what = Code("LATR");
	ASSERT_TRUE(fHandler.WaitFor(1));
	const BMessage event = fHandler.Messages()[0];
	EXPECT_EQ(event.what, kEventWhat);
	EXPECT_FALSE(event.HasInt32("later", 0));
	EXPECT_EQ(TouchedWhatOf(event), 2);
}

namespace {

ZvDataSubscriber* sReadBack = nullptr;
std::vector<int64> sReadValues;

// In the looper's thread: read the receiving subscriber named by "Source".
void ReadSourceInLooper(BMessage* message)
{
	void* source = nullptr;
	if (message->what == kEventWhat && message->FindPointer("Source", &source) == B_OK &&
	    source == sReadBack)
		sReadValues.push_back(static_cast<ZvDataSubscriber*>(source)->DS_IntegerData());
}

} // namespace

TEST_F(DataEventsTest, HandlerMayReadTheSourceSubscriberFromTheLoopersThread)
{
	Watchdog watchdog(std::chrono::seconds(60), "read back from handler");
	ZvDataSubscriber sender("read-back", 0);
	ZvDataSubscriber receiver("read-back", 0);
	sReadBack = &receiver;
	sReadValues.clear();
	fHandler.OnReceive(&ReadSourceInLooper);
	ASSERT_EQ(receiver.DS_SetEventMessage(kEventWhat), 0);
	ASSERT_EQ(receiver.DS_SetEventTarget(&fHandler), 0);
	const int kRounds = 50;
	for (int i = 1; i <= kRounds; i++) {
		ASSERT_EQ(sender.DS_SetIntegerData(i, true), 0);
	}
	Drain(kRounds);
	// Each read happened after its own change; the values never go back.
	ASSERT_EQ(sReadValues.size(), size_t(kRounds));
	for (int i = 0; i < kRounds; i++) {
		EXPECT_GE(sReadValues[i], i + 1);
		if (i > 0) {
			EXPECT_GE(sReadValues[i], sReadValues[i - 1]);
		}
	}
	EXPECT_EQ(sReadValues.back(), kRounds);
	sReadBack = nullptr;
}

TEST_F(DataEventsTest, HandlerThatLeftItsLooperGetsNothing)
{
	Watchdog watchdog(std::chrono::seconds(60), "handler left its looper");
	CollectingHandler leaving;
	ASSERT_TRUE(fLooper->Lock());
	fLooper->AddHandler(&leaving);
	fLooper->Unlock();
	ZvDataSubscriber sender("left", 0);
	RecordingSubscriber receiver("left", 0);
	ASSERT_EQ(receiver.DS_SetEventMessage(kEventWhat), 0);
	ASSERT_EQ(receiver.DS_SetEventTarget(&leaving), 0);
	ASSERT_EQ(sender.DS_SetIntegerData(1, true), 0);
	ASSERT_TRUE(leaving.WaitFor(1));

	ASSERT_TRUE(fLooper->Lock());
	EXPECT_TRUE(fLooper->RemoveHandler(&leaving));
	fLooper->Unlock();
	ASSERT_EQ(sender.DS_SetIntegerData(2, true), 0);
	EXPECT_EQ(receiver.Events(), (std::vector<uint32>{1, 1}));
	EXPECT_EQ(receiver.DS_IntegerData(), 2);
	// Whatever was posted before is delivered before this marker.
	Drain(0);
	EXPECT_EQ(leaving.Messages().size(), 1u);
}
