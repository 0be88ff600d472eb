// Tests of ZvLooperRef and of requests: validity as loopers and handlers
// come and go, posting results and time-outs, SendMessage with SendReply,
// "no reply" answers, and the link a request keeps (never copied).
//
// Running loopers are sequenced with latches; loopers that are never run
// are driven by hand (TestLooper::Drain), which makes queue states exact.

#include <ZvHandler.h>
#include <ZvLooper.h>
#include <ZvLooperRef.h>
#include <ZvMessage.h>
#include <ZvThread.h>

#include <OS.h>
#include <ZvMessenger.h>

#include "KitThread.h"
#include "LooperTestSupport.h"
#include "Polling.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using looper_test::PreferredField;
using looper_test::RecordingHandler;
using looper_test::TestLooper;
using zvtest::KitThread;

constexpr uint32 kAsk = 0x41534B20;    // 'ASK '
constexpr uint32 kAnswer = 0x414E5352; // 'ANSR'

// Runs a function of its own for each message, in the looper's thread.
class FunctionHandler : public ZvHandler
{
public:
	explicit FunctionHandler(std::function<void(ZvMessage*)> function)
	    : ZvHandler("function"), fFunction(std::move(function))
	{
	}
	void MessageReceived(ZvMessage* message) override
	{
		fFunction(message);
		fReceived.fetch_add(1);
	}
	int32 Received() const { return fReceived.load(); }

private:
	std::function<void(ZvMessage*)> fFunction;
	std::atomic<int32> fReceived{0};
};

// Answers every message with kAnswer carrying the request's "n" plus one.
void AnswerWithNextNumber(ZvMessage* message)
{
	int32 n = 0;
	message->FindInt32("n", &n);
	ZvMessage answer(kAnswer);
	answer.AddInt32("n", n + 1);
	message->SendReply(&answer);
}

// A running looper whose preferred handler is handler; quit by the
// destructor unless it ended otherwise.
class RunningLooper
{
public:
	explicit RunningLooper(ZvHandler* handler, int32 capacity = 1000)
	    : fLooper(new TestLooper(nullptr, &fGone, capacity))
	{
		if (handler != nullptr) {
			fLooper->AddHandler(handler);
			fLooper->SetPreferredHandler(handler);
		}
		fLooper->Run();
	}
	~RunningLooper()
	{
		if (!fEnded)
			fLooper->Quit();
	}
	TestLooper* operator->() const { return fLooper; }
	TestLooper* Get() const { return fLooper; }
	void Quit()
	{
		fLooper->Quit();
		fEnded = true;
	}
	// For a looper that ends through a "QUIT" message: waits for its
	// deletion.
	bool WaitGone()
	{
		fEnded = true;
		return fGone.WaitFor(10s);
	}

private:
	zvtest::Latch fGone{1};
	TestLooper* fLooper;
	bool fEnded = false;
};

// --- Validity -----------------------------------------------------------

TEST(ZvLooperRefTest, ADefaultRefIsInvalidAndRefusesEverything)
{
	ZvLooperRef ref;
	ZvMessage message(7);
	ZvMessage reply(0);
	EXPECT_FALSE(ref.IsValid());
	EXPECT_EQ(ref.PostMessage(&message), B_BAD_VALUE);
	EXPECT_EQ(ref.PostMessage(7), B_BAD_VALUE);
	EXPECT_EQ(ref.SendMessage(&message, &reply, 1000), B_BAD_VALUE);
	EXPECT_EQ(reply.what, 0u);
}

TEST(ZvLooperRefTest, RefsMadeFromNullOrFromADetachedHandlerAreInvalid)
{
	ZvHandler detached("detached");
	EXPECT_FALSE(ZvLooperRef(static_cast<const ZvLooper*>(nullptr)).IsValid());
	EXPECT_FALSE(ZvLooperRef(static_cast<const ZvHandler*>(nullptr)).IsValid());
	ZvLooperRef ref(&detached);
	EXPECT_FALSE(ref.IsValid());
	EXPECT_EQ(ref.PostMessage(1), B_BAD_VALUE);
}

TEST(ZvLooperRefTest, ARefToADetachedHandlerStaysInvalidWhenTheHandlerIsAttachedLater)
{
	TestLooper looper;
	RecordingHandler handler;
	ZvLooperRef ref(&handler);
	ASSERT_TRUE(looper.AddHandler(&handler));
	EXPECT_FALSE(ref.IsValid());
	EXPECT_EQ(ref.PostMessage(1), B_BAD_VALUE);
	EXPECT_EQ(looper.Drain(), 0);
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperRefTest, ARefToALiveLooperIsValidAndPostsToItsPreferredHandler)
{
	TestLooper looper;
	RecordingHandler handler;
	looper.AddHandler(&handler);
	looper.SetPreferredHandler(&handler);
	ZvLooperRef ref(&looper);
	EXPECT_TRUE(ref.IsValid());
	EXPECT_EQ(ref.PostMessage(11), B_OK);
	ZvMessage message(12);
	EXPECT_EQ(ref.PostMessage(&message), B_OK);
	EXPECT_EQ(looper.Drain(), 2);
	EXPECT_EQ(handler.Whats(), (std::vector<uint32>{11, 12}));
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperRefTest, APostThroughARefCarriesExactlyWhatAPlainPostCarries)
{
	// The looper itself records what reaches it; the same message goes
	// through PostMessage and through a handler ref aimed at the looper.
	std::vector<std::vector<uint8>> flats;
	FunctionHandler handler([&flats](ZvMessage* message) {
		EXPECT_FALSE(message->IsSourceWaiting());
		std::vector<uint8> flat(static_cast<size_t>(message->FlattenedSize()));
		message->Flatten(flat.data());
		flats.push_back(flat);
	});
	TestLooper looper;
	looper.AddHandler(&handler);
	ZvMessage message(5);
	message.AddInt32("a", 1);
	message.AddString("s", "text");
	looper.PostMessage(&message, &handler);
	ASSERT_EQ(ZvLooperRef(&handler).PostMessage(&message), B_OK);
	ASSERT_EQ(looper.Drain(), 2);
	ASSERT_EQ(flats.size(), 2u);
	EXPECT_EQ(flats[0], flats[1]);
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperRefTest, AnOwnedPostQueuesTheMessageItselfAimedWhereTheRefSays)
{
	ZvMessage* seen = nullptr;
	int32 value = 0;
	void* recorded = nullptr;
	FunctionHandler handler([&](ZvMessage* message) {
		seen = message;
		message->FindInt32("a", &value);
		message->FindPointer(PreferredField(), &recorded);
	});
	TestLooper looper;
	looper.AddHandler(&handler);
	// A message that named another handler, as one passed on would.
	RecordingHandler other;
	looper.AddHandler(&other);
	auto* message = new ZvMessage(21);
	message->AddInt32("a", 5);
	message->AddPointer(PreferredField(), &other);
	ASSERT_EQ(ZvLooperRef(&handler).PostOwnedMessage(message), B_OK);
	ASSERT_EQ(looper.Drain(), 1);
	EXPECT_EQ(seen, message);
	EXPECT_EQ(value, 5);
	EXPECT_EQ(recorded, static_cast<void*>(static_cast<ZvHandler*>(&handler)));
	EXPECT_TRUE(other.Whats().empty());
	looper.RemoveHandler(&other);
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperRefTest, AnOwnedPostThatCannotBeQueuedDeletesTheMessage)
{
	// The leak detector of the sanitizer builds sees a message not deleted.
	EXPECT_EQ(ZvLooperRef().PostOwnedMessage(new ZvMessage(1)), B_BAD_VALUE);
	EXPECT_EQ(ZvLooperRef().PostOwnedMessage(nullptr), B_BAD_VALUE);
	ZvHandler detached("detached");
	EXPECT_EQ(ZvLooperRef(&detached).PostOwnedMessage(new ZvMessage(2)), B_BAD_VALUE);
	std::atomic<int32> destroyed{0};
	ZvLooperRef gone;
	{
		TestLooper looper(&destroyed);
		gone = ZvLooperRef(&looper);
	}
	EXPECT_EQ(destroyed.load(), 1);
	EXPECT_EQ(gone.PostOwnedMessage(new ZvMessage(3)), B_BAD_VALUE);
}

TEST(ZvLooperRefTest, AHandlerRefAimsItsPostsAtTheHandler)
{
	TestLooper looper;
	RecordingHandler handler;
	void* recorded = nullptr;
	FunctionHandler checker(
	    [&recorded](ZvMessage* message) { message->FindPointer(PreferredField(), &recorded); });
	looper.AddHandler(&checker);
	ZvLooperRef ref(&checker);
	ASSERT_TRUE(ref.IsValid());
	EXPECT_EQ(ref.PostMessage(3), B_OK);
	EXPECT_EQ(looper.Drain(), 1);
	EXPECT_EQ(checker.Received(), 1);
	EXPECT_EQ(recorded, static_cast<void*>(static_cast<ZvHandler*>(&checker)));
	EXPECT_EQ(looper.OwnReceived(), 0);
	looper.RemoveHandler(&checker);
}

TEST(ZvLooperRefTest, AReceivedMessagePassedOnThroughARefGoesWhereTheRefSays)
{
	TestLooper first;
	TestLooper second;
	RecordingHandler target;
	second.AddHandler(&target);
	const ZvLooperRef targetRef(&target);
	const ZvLooperRef secondRef(&second);
	status_t results[2] = {1, 1};
	FunctionHandler forwarder([&](ZvMessage* message) {
		results[0] = targetRef.PostMessage(message);
		results[1] = secondRef.PostMessage(message);
	});
	first.AddHandler(&forwarder);
	ASSERT_TRUE(first.PostMessage(6, &forwarder));
	ASSERT_EQ(first.Drain(), 1);
	EXPECT_EQ(results[0], B_OK);
	EXPECT_EQ(results[1], B_OK);
	ASSERT_EQ(second.Drain(), 2);
	EXPECT_EQ(target.Whats(), (std::vector<uint32>{6}));
	// The looper ref's copy names no handler: the preferred one (the
	// looper itself) receives it.
	EXPECT_EQ(second.OwnWhats(), (std::vector<uint32>{6}));
	first.RemoveHandler(&forwarder);
	second.RemoveHandler(&target);
}

TEST(ZvLooperRefTest, ARefIsInvalidOnceItsLooperQuit)
{
	RecordingHandler handler;
	RunningLooper looper(&handler);
	ZvLooperRef ref(looper.Get());
	ZvLooperRef handlerRef(&handler);
	ASSERT_TRUE(ref.IsValid());
	ASSERT_TRUE(handlerRef.IsValid());
	looper.Quit();
	EXPECT_FALSE(ref.IsValid());
	EXPECT_FALSE(handlerRef.IsValid());
	ZvMessage reply(0);
	EXPECT_EQ(ref.PostMessage(1), B_BAD_VALUE);
	EXPECT_EQ(handlerRef.PostMessage(1), B_BAD_VALUE);
	EXPECT_EQ(ref.SendMessage(1, &reply, 1000), B_BAD_VALUE);
	EXPECT_EQ(handler.Received(), 0);
}

TEST(ZvLooperRefTest, ARefIsInvalidOnceItsLooperEndedThroughAQuitMessage)
{
	RunningLooper looper(nullptr);
	ZvLooperRef ref(looper.Get());
	ASSERT_EQ(ref.PostMessage(ZV_QUIT_REQUESTED), B_OK);
	ASSERT_TRUE(looper.WaitGone());
	EXPECT_FALSE(ref.IsValid());
	EXPECT_EQ(ref.PostMessage(1), B_BAD_VALUE);
}

TEST(ZvLooperRefTest, RefsAndTheirCopiesSurviveTheirLooper)
{
	ZvLooperRef kept;
	{
		TestLooper* looper = new TestLooper;
		ZvLooperRef ref(looper);
		ZvLooperRef copy(ref);
		kept = copy;
		EXPECT_TRUE(kept.IsValid());
		EXPECT_EQ(kept.PostMessage(1), B_OK);
		delete looper; // a looper that never ran: its owner deletes it
		EXPECT_FALSE(ref.IsValid());
		EXPECT_FALSE(copy.IsValid());
	}
	EXPECT_FALSE(kept.IsValid());
	EXPECT_EQ(kept.PostMessage(2), B_BAD_VALUE);
	ZvLooperRef again(kept);
	EXPECT_FALSE(again.IsValid());
	EXPECT_TRUE(again == kept);
}

TEST(ZvLooperRefTest, CopiesCompareEqualAndAssignmentReplacesTheTarget)
{
	TestLooper first;
	TestLooper second;
	RecordingHandler handler;
	first.AddHandler(&handler);
	ZvLooperRef a(&first);
	ZvLooperRef b(a);
	ZvLooperRef c(&second);
	ZvLooperRef h(&handler);
	EXPECT_TRUE(a == b);
	EXPECT_TRUE(a != c);
	EXPECT_TRUE(a != h);
	b = c;
	EXPECT_TRUE(b == c);
	b = b;
	EXPECT_TRUE(b.IsValid());
	EXPECT_EQ(b.PostMessage(9), B_OK);
	EXPECT_EQ(first.Drain(), 0);
	EXPECT_EQ(second.Drain(), 1);
	EXPECT_EQ(second.OwnWhats(), (std::vector<uint32>{9}));
	first.RemoveHandler(&handler);
}

TEST(ZvLooperRefTest, AHandlerRefIsInvalidOnceTheHandlerIsRemoved)
{
	TestLooper looper;
	RecordingHandler handler;
	looper.AddHandler(&handler);
	ZvLooperRef ref(&handler);
	ASSERT_TRUE(ref.IsValid());
	looper.RemoveHandler(&handler);
	EXPECT_FALSE(ref.IsValid());
	EXPECT_EQ(ref.PostMessage(1), B_BAD_VALUE);
	// Attached again: a new attachment, which the old ref does not name.
	looper.AddHandler(&handler);
	EXPECT_FALSE(ref.IsValid());
	EXPECT_TRUE(ZvLooperRef(&handler).IsValid());
	EXPECT_EQ(looper.Drain(), 0);
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperRefTest, AHandlerRefIsInvalidOnceTheHandlerIsDeleted)
{
	TestLooper looper;
	auto* handler = new RecordingHandler;
	looper.AddHandler(handler);
	ZvLooperRef ref(handler);
	looper.RemoveHandler(handler);
	delete handler;
	EXPECT_FALSE(ref.IsValid());
	EXPECT_EQ(ref.PostMessage(1), B_BAD_VALUE);
	EXPECT_EQ(looper.Drain(), 0);
}

TEST(ZvLooperRefTest, AHandlerRefDoesNotFollowItsHandlerToAnotherLooper)
{
	TestLooper from;
	TestLooper to;
	RecordingHandler handler;
	from.AddHandler(&handler);
	ZvLooperRef ref(&handler);
	from.RemoveHandler(&handler);
	to.AddHandler(&handler);
	EXPECT_FALSE(ref.IsValid());
	EXPECT_EQ(ref.PostMessage(1), B_BAD_VALUE);
	EXPECT_EQ(from.Drain(), 0);
	EXPECT_EQ(to.Drain(), 0);
	EXPECT_EQ(handler.Received(), 0);
	// A ref made now names the new attachment.
	ZvLooperRef moved(&handler);
	EXPECT_EQ(moved.PostMessage(2), B_OK);
	EXPECT_EQ(to.Drain(), 1);
	EXPECT_EQ(handler.Whats(), (std::vector<uint32>{2}));
	to.RemoveHandler(&handler);
}

TEST(ZvLooperRefTest, AHandlerAddedToAnotherLooperWithoutRemovalInvalidatesItsRef)
{
	TestLooper from;
	TestLooper to;
	RecordingHandler handler;
	from.AddHandler(&handler);
	ZvLooperRef ref(&handler);
	to.AddHandler(&handler); // overwrites the link; still in from's list
	EXPECT_FALSE(ref.IsValid());
	EXPECT_EQ(ref.PostMessage(1), B_BAD_VALUE);
	EXPECT_EQ(from.Drain(), 0);
	to.RemoveHandler(&handler);
	from.RemoveHandler(&handler);
}

TEST(ZvLooperRefTest, AHandlerRefMovedBetweenRunningLoopersNeverDeliversToTheNewOne)
{
	RecordingHandler handler;
	RunningLooper from(nullptr);
	RunningLooper to(nullptr);
	from->AddHandler(&handler);
	ZvLooperRef ref(&handler);
	ASSERT_EQ(ref.PostMessage(1), B_OK);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return handler.Received() == 1; }));
	from->RemoveHandler(&handler);
	to->AddHandler(&handler);
	EXPECT_EQ(ref.PostMessage(2), B_BAD_VALUE);
	// A marker through the new looper: once it is in, nothing else came.
	ZvLooperRef(&handler).PostMessage(3);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return handler.Received() == 2; }));
	EXPECT_EQ(handler.Whats(), (std::vector<uint32>{1, 3}));
	to->RemoveHandler(&handler);
}

// --- Posting at the queue's bound ---------------------------------------

// A looper whose queue has a bound of 1, filled until the next post would
// wait: two posts pass under the bound, the third on the initial unit of
// "_item_limit".
class LooperAtItsBoundTest : public ::testing::Test
{
protected:
	void SetUp() override
	{
		for (int i = 0; i < 3; i++)
			ASSERT_TRUE(looper.PostMessage(100 + i, nullptr));
	}
	TestLooper looper{nullptr, nullptr, 1};
};

TEST_F(LooperAtItsBoundTest, TryPostMessageSaysWouldBlockAndQueuesNothing)
{
	ZvMessage message(7);
	EXPECT_EQ(looper.TryPostMessage(&message, nullptr), B_WOULD_BLOCK);
	EXPECT_EQ(looper.TryPostMessage(8, nullptr), B_WOULD_BLOCK);
	EXPECT_EQ(looper.Drain(), 3);
	EXPECT_EQ(looper.OwnWhats(), (std::vector<uint32>{100, 101, 102}));
}

TEST_F(LooperAtItsBoundTest, TryPostMessagePassesWhereARemovalLetsOneAdderThrough)
{
	// Taking one leaves 2 >= 1 queued: one adder may pass, whatever the count.
	ASSERT_TRUE(looper.ProcessOne());
	EXPECT_EQ(looper.TryPostMessage(8, nullptr), B_OK);
	EXPECT_EQ(looper.TryPostMessage(9, nullptr), B_WOULD_BLOCK);
	EXPECT_EQ(looper.Drain(), 3);
	EXPECT_EQ(looper.OwnWhats(), (std::vector<uint32>{100, 101, 102, 8}));
}

TEST_F(LooperAtItsBoundTest, ARefPostWithATimeOutTimesOutAndOneOfZeroWouldBlock)
{
	ZvLooperRef ref(&looper);
	EXPECT_EQ(ref.PostMessage(7, 0), B_WOULD_BLOCK);
	const bigtime_t start = system_time();
	EXPECT_EQ(ref.PostMessage(7, 20000), B_TIMED_OUT);
	EXPECT_GE(system_time() - start, 20000);
	ZvMessage reply(0);
	EXPECT_EQ(ref.SendMessage(7, &reply, 0), B_WOULD_BLOCK);
	EXPECT_EQ(ref.SendMessage(7, &reply, 1000), B_TIMED_OUT);
	EXPECT_EQ(looper.Drain(), 3);
}

TEST_F(LooperAtItsBoundTest, AnOwnedPostToAFullQueueTimesOutAndDeletesTheMessage)
{
	ZvLooperRef ref(&looper);
	EXPECT_EQ(ref.PostOwnedMessage(new ZvMessage(7), 0), B_WOULD_BLOCK);
	EXPECT_EQ(ref.PostOwnedMessage(new ZvMessage(8), 1000), B_TIMED_OUT);
	EXPECT_EQ(looper.Drain(), 3);
	EXPECT_EQ(looper.OwnWhats(), (std::vector<uint32>{100, 101, 102}));
}

TEST_F(LooperAtItsBoundTest, ARefPostWaitsForRoomAndThenQueues)
{
	ZvLooperRef ref(&looper);
	std::atomic<status_t> result{1};
	KitThread poster([&] { result.store(ref.PostMessage(7, 10000000)); });
	ASSERT_TRUE(zvtest::WaitUntil([&] { return poster.IsWaitingOn("_item_limit"); }));
	ASSERT_TRUE(looper.ProcessOne());
	poster.Join();
	EXPECT_EQ(result.load(), B_OK);
	EXPECT_EQ(looper.Drain(), 3);
	EXPECT_EQ(looper.OwnWhats(), (std::vector<uint32>{100, 101, 102, 7}));
}

TEST(ZvLooperTryPostTest, TryPostMessageOfANullMessageIsRefused)
{
	TestLooper looper;
	EXPECT_EQ(looper.TryPostMessage(static_cast<const ZvMessage*>(nullptr), nullptr), B_BAD_VALUE);
	EXPECT_EQ(looper.Drain(), 0);
}

TEST(ZvLooperTryPostTest, TryPostMessageUnderTheBoundQueuesLikePostMessage)
{
	TestLooper looper;
	RecordingHandler handler;
	looper.AddHandler(&handler);
	ZvMessage message(4);
	EXPECT_EQ(looper.TryPostMessage(&message, &handler), B_OK);
	EXPECT_EQ(looper.TryPostMessage(5, nullptr), B_OK);
	EXPECT_EQ(looper.Drain(), 2);
	EXPECT_EQ(handler.Whats(), (std::vector<uint32>{4}));
	EXPECT_EQ(looper.OwnWhats(), (std::vector<uint32>{5}));
	looper.RemoveHandler(&handler);
}

TEST(ZvLooperRefTest, APostWaitingForRoomIsLetGoWhenItsLooperEnds)
{
	zvtest::Watchdog watchdog(30s, "post waiting while its looper ends");
	zvtest::Latch arrived(1), release(1);
	RecordingHandler handler;
	handler.HoldOn(&arrived, &release);
	RunningLooper looper(&handler, 1);
	ZvLooperRef ref(looper.Get());
	// The first message holds the loop; three more fill the queue.
	ASSERT_EQ(ref.PostMessage(1), B_OK);
	ASSERT_TRUE(arrived.WaitFor(10s));
	for (int i = 0; i < 3; i++)
		ASSERT_EQ(ref.PostMessage(2), B_OK);
	std::atomic<status_t> result{1};
	KitThread blocked([&] { result.store(ref.PostMessage(3)); });
	ASSERT_TRUE(zvtest::WaitUntil([&] { return blocked.IsWaitingOn("_item_limit"); }));
	std::thread quitter([&] { looper.Quit(); });
	// Quit has begun once the ref sees the looper ending.
	ASSERT_TRUE(zvtest::WaitUntil([&] { return !ref.IsValid(); }));
	release.CountDown();
	quitter.join();
	blocked.Join();
	// It was let through into the ending looper's queue, deleted with it.
	EXPECT_EQ(result.load(), B_OK);
	EXPECT_EQ(handler.Received(), 1);
}

// --- Requests -----------------------------------------------------------

TEST(ZvLooperRefTest, SendMessageReturnsTheAnswer)
{
	zvtest::Watchdog watchdog(30s, "request");
	std::atomic<bool> waiting{false};
	FunctionHandler handler([&waiting](ZvMessage* message) {
		waiting.store(message->IsSourceWaiting());
		AnswerWithNextNumber(message);
	});
	RunningLooper looper(&handler);
	ZvMessage request(kAsk);
	request.AddInt32("n", 41);
	ZvMessage reply(0);
	ASSERT_EQ(ZvLooperRef(looper.Get()).SendMessage(&request, &reply), B_OK);
	EXPECT_EQ(reply.what, kAnswer);
	int32 n = 0;
	EXPECT_TRUE(reply.FindInt32("n", &n));
	EXPECT_EQ(n, 42);
	EXPECT_TRUE(waiting.load());
	looper->RemoveHandler(&handler);
}

TEST(ZvLooperRefTest, SendMessageThroughAHandlerRefIsAnsweredByThatHandler)
{
	zvtest::Watchdog watchdog(30s, "request to a handler");
	FunctionHandler handler(AnswerWithNextNumber);
	RunningLooper looper(nullptr);
	looper->AddHandler(&handler);
	ZvMessage reply(0);
	ZvMessage request(kAsk);
	request.AddInt32("n", 1);
	ASSERT_EQ(ZvLooperRef(&handler).SendMessage(&request, &reply, 10000000), B_OK);
	EXPECT_EQ(reply.what, kAnswer);
	EXPECT_EQ(looper->OwnReceived(), 0);
	looper->RemoveHandler(&handler);
}

TEST(ZvLooperRefTest, AnIgnoredRequestAnswersNoReplyAtOnce)
{
	zvtest::Watchdog watchdog(30s, "ignored request");
	RecordingHandler handler;
	RunningLooper looper(&handler);
	ZvMessage reply(0);
	reply.AddInt32("old", 1);
	// No time-out: only the "no reply" answer can end the wait.
	ASSERT_EQ(ZvLooperRef(looper.Get()).SendMessage(kAsk, &reply), B_OK);
	EXPECT_EQ(reply.what, ZV_NO_REPLY);
	EXPECT_TRUE(reply.IsEmpty());
	EXPECT_EQ(handler.Received(), 1);
	looper->RemoveHandler(&handler);
}

TEST(ZvLooperRefTest, TheNoReplyAnswerIsNone)
{
	// "NONE": the platform's no-reply code, which the messenger's reply form
	// also uses.
	EXPECT_EQ(ZV_NO_REPLY, 0x4E4F4E45u);
}

TEST(ZvLooperRefTest, ADroppedRequestAnswersNoReply)
{
	zvtest::Watchdog watchdog(30s, "dropped request");
	ZvHandler stranger("not attached");
	RunningLooper looper(nullptr);
	looper->SetPreferredHandler(&stranger);
	ZvMessage reply(0);
	ASSERT_EQ(ZvLooperRef(looper.Get()).SendMessage(kAsk, &reply), B_OK);
	EXPECT_EQ(reply.what, ZV_NO_REPLY);
	EXPECT_EQ(looper->OwnReceived(), 0);
}

TEST(ZvLooperRefTest, ARequestStillQueuedWhenItsLooperQuitsAnswersNoReply)
{
	zvtest::Watchdog watchdog(30s, "request left in the queue");
	zvtest::Latch arrived(1), release(1);
	RecordingHandler handler;
	handler.HoldOn(&arrived, &release);
	RunningLooper looper(&handler);
	ZvLooperRef ref(looper.Get());
	ASSERT_EQ(ref.PostMessage(1), B_OK);
	ASSERT_TRUE(arrived.WaitFor(10s));
	std::atomic<status_t> result{1};
	ZvMessage reply(0);
	std::atomic<bool> sending{false};
	std::thread sender([&] {
		sending.store(true);
		result.store(ref.SendMessage(kAsk, &reply));
	});
	ASSERT_TRUE(zvtest::WaitUntil([&] { return sending.load(); }));
	std::thread quitter([&] { looper.Quit(); });
	ASSERT_TRUE(zvtest::WaitUntil([&] { return !ref.IsValid(); }));
	release.CountDown();
	quitter.join();
	sender.join();
	// Either the request was queued before the end (no reply, deleted with
	// the queue) or it came after the looper began to end (refused).
	if (result.load() == B_OK)
		EXPECT_EQ(reply.what, ZV_NO_REPLY);
	else
		EXPECT_EQ(result.load(), B_BAD_VALUE);
	EXPECT_EQ(handler.Received(), 1);
}

TEST(ZvLooperRefTest, AnUnansweredRequestTimesOutAndALateAnswerIsTold)
{
	zvtest::Watchdog watchdog(30s, "late answer");
	zvtest::Latch arrived(1), release(1);
	std::atomic<status_t> late{1};
	std::atomic<bool> waitingLate{true};
	FunctionHandler handler([&](ZvMessage* message) {
		arrived.CountDown();
		release.WaitFor(10s);
		waitingLate.store(message->IsSourceWaiting());
		ZvMessage answer(kAnswer);
		late.store(message->SendReply(&answer));
	});
	RunningLooper looper(&handler);
	ZvMessage reply(0);
	EXPECT_EQ(ZvLooperRef(looper.Get()).SendMessage(kAsk, &reply, 20000), B_TIMED_OUT);
	EXPECT_EQ(reply.what, 0u);
	ASSERT_TRUE(arrived.WaitFor(10s));
	release.CountDown();
	ASSERT_TRUE(zvtest::WaitUntil([&] { return late.load() != 1; }));
	EXPECT_FALSE(waitingLate.load());
	EXPECT_EQ(late.load(), B_TIMED_OUT);
	looper->RemoveHandler(&handler);
}

TEST(ZvLooperRefTest, ARequestToANeverRunLooperTimesOut)
{
	TestLooper looper;
	ZvMessage reply(0);
	EXPECT_EQ(ZvLooperRef(&looper).SendMessage(kAsk, &reply, 10000), B_TIMED_OUT);
	// Still queued; deleted with the looper, its answer finds no one.
	EXPECT_EQ(looper.Drain(), 1);
}

TEST(ZvLooperRefTest, SendMessageFromTheTargetLoopersOwnThreadFailsAtOnce)
{
	zvtest::Watchdog watchdog(30s, "request to oneself");
	std::atomic<status_t> result{1};
	ZvLooperRef self;
	FunctionHandler handler([&](ZvMessage*) {
		ZvMessage reply(0);
		result.store(self.SendMessage(kAsk, &reply));
	});
	RunningLooper looper(&handler);
	self = ZvLooperRef(looper.Get());
	ASSERT_EQ(self.PostMessage(1), B_OK);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return result.load() != 1; }));
	EXPECT_EQ(result.load(), B_WOULD_BLOCK);
	looper->RemoveHandler(&handler);
}

TEST(ZvLooperRefTest, SendMessageRefusesNullMessagesAndReplies)
{
	TestLooper looper;
	ZvLooperRef ref(&looper);
	ZvMessage message(1);
	ZvMessage reply(0);
	EXPECT_EQ(ref.SendMessage(nullptr, &reply, 0), B_BAD_VALUE);
	EXPECT_EQ(ref.SendMessage(&message, nullptr, 0), B_BAD_VALUE);
	EXPECT_EQ(ref.PostMessage(static_cast<const ZvMessage*>(nullptr)), B_BAD_VALUE);
	EXPECT_EQ(looper.Drain(), 0);
}

TEST(ZvLooperRefTest, RequestsBetweenTwoLoopersAreAnswered)
{
	zvtest::Watchdog watchdog(30s, "request between loopers");
	FunctionHandler server(AnswerWithNextNumber);
	RunningLooper serverLooper(&server);
	ZvLooperRef serverRef(serverLooper.Get());
	std::atomic<int32> got{0};
	zvtest::Latch done(1);
	FunctionHandler client([&](ZvMessage* message) {
		ZvMessage reply(0);
		int32 n = 0;
		if (serverRef.SendMessage(message, &reply, 10000000) == B_OK)
			reply.FindInt32("n", &n);
		got.store(n);
		done.CountDown();
	});
	RunningLooper clientLooper(&client);
	ZvMessage start(kAsk);
	start.AddInt32("n", 99);
	ASSERT_EQ(ZvLooperRef(clientLooper.Get()).PostMessage(&start), B_OK);
	ASSERT_TRUE(done.WaitFor(10s));
	EXPECT_EQ(got.load(), 100);
	serverLooper->RemoveHandler(&server);
	clientLooper->RemoveHandler(&client);
}

// --- The request's link -------------------------------------------------

TEST(ZvMessageReplyTest, APlainMessageIsNoRequest)
{
	ZvMessage message(1);
	ZvMessage reply(2);
	EXPECT_FALSE(message.IsSourceWaiting());
	EXPECT_EQ(message.SendReply(&reply), B_BAD_REPLY);
	EXPECT_EQ(message.SendReply(nullptr), B_BAD_VALUE);
}

TEST(ZvMessageReplyTest, ASecondAnswerIsADuplicate)
{
	zvtest::Watchdog watchdog(30s, "duplicate answer");
	std::atomic<status_t> first{1}, second{1};
	std::atomic<bool> waitingAfter{true};
	FunctionHandler handler([&](ZvMessage* message) {
		ZvMessage answer(kAnswer);
		first.store(message->SendReply(&answer));
		waitingAfter.store(message->IsSourceWaiting());
		second.store(message->SendReply(&answer));
	});
	RunningLooper looper(&handler);
	ZvMessage reply(0);
	ASSERT_EQ(ZvLooperRef(looper.Get()).SendMessage(kAsk, &reply), B_OK);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return second.load() != 1; }));
	EXPECT_EQ(first.load(), B_OK);
	EXPECT_FALSE(waitingAfter.load());
	EXPECT_EQ(second.load(), B_DUPLICATE_REPLY);
	EXPECT_EQ(reply.what, kAnswer);
	looper->RemoveHandler(&handler);
}

TEST(ZvMessageReplyTest, CopiesOfARequestAreNotRequestsAndAssignmentKeepsTheLink)
{
	zvtest::Watchdog watchdog(30s, "copies of a request");
	std::atomic<bool> copyWaits{true}, pointerCopyWaits{true}, assignedWaits{true};
	std::atomic<bool> stillWaits{false};
	std::atomic<status_t> copyReply{1};
	FunctionHandler handler([&](ZvMessage* message) {
		ZvMessage copy(*message);
		ZvMessage pointerCopy(message);
		ZvMessage assigned(3);
		assigned = *message;
		copyWaits.store(copy.IsSourceWaiting());
		pointerCopyWaits.store(pointerCopy.IsSourceWaiting());
		assignedWaits.store(assigned.IsSourceWaiting());
		ZvMessage answer(kAnswer);
		copyReply.store(copy.SendReply(&answer));
		// Assigned over, the request keeps its own link.
		*message = ZvMessage(4);
		stillWaits.store(message->IsSourceWaiting());
		message->SendReply(&answer);
	});
	RunningLooper looper(&handler);
	ZvMessage reply(0);
	ASSERT_EQ(ZvLooperRef(looper.Get()).SendMessage(kAsk, &reply), B_OK);
	EXPECT_EQ(reply.what, kAnswer);
	EXPECT_FALSE(copyWaits.load());
	EXPECT_FALSE(pointerCopyWaits.load());
	EXPECT_FALSE(assignedWaits.load());
	EXPECT_TRUE(stillWaits.load());
	EXPECT_EQ(copyReply.load(), B_BAD_REPLY);
	looper->RemoveHandler(&handler);
}

TEST(ZvMessageReplyTest, ARequestPostedOnIsAPlainMessageAndTheOriginalAnswersNoReply)
{
	zvtest::Watchdog watchdog(30s, "request posted on");
	std::atomic<bool> forwardedWaits{true};
	zvtest::Latch forwarded(1);
	FunctionHandler last([&](ZvMessage* message) {
		forwardedWaits.store(message->IsSourceWaiting());
		forwarded.CountDown();
	});
	RunningLooper lastLooper(&last);
	FunctionHandler middle([&](ZvMessage* message) { lastLooper->PostMessage(message, &last); });
	RunningLooper middleLooper(&middle);
	ZvMessage reply(0);
	ASSERT_EQ(ZvLooperRef(middleLooper.Get()).SendMessage(kAsk, &reply), B_OK);
	EXPECT_EQ(reply.what, ZV_NO_REPLY);
	ASSERT_TRUE(forwarded.WaitFor(10s));
	EXPECT_FALSE(forwardedWaits.load());
	middleLooper->RemoveHandler(&middle);
	lastLooper->RemoveHandler(&last);
}

TEST(ZvMessageReplyTest, AnAnswerRacingTheSendersTimeOutIsEitherDeliveredOrToldItIsLate)
{
	// The handler answers at once while the sender's time-out runs out
	// around the same moment. Each side sees the same outcome: the sender
	// B_OK exactly when the answer found it waiting.
	zvtest::Watchdog watchdog(120s, "answers racing time-outs");
	std::atomic<int32> answeredInTime{0}, answeredLate{0}, other{0};
	FunctionHandler handler([&](ZvMessage* message) {
		ZvMessage answer(kAnswer);
		switch (message->SendReply(&answer)) {
		case B_OK:
			answeredInTime.fetch_add(1);
			break;
		case B_TIMED_OUT:
			answeredLate.fetch_add(1);
			break;
		default:
			other.fetch_add(1);
		}
	});
	RunningLooper looper(&handler);
	ZvLooperRef ref(looper.Get());
	const int rounds = zvtest::kSanitized ? 1000 : 5000;
	int32 ok = 0, timedOut = 0;
	for (int i = 0; i < rounds; i++) {
		ZvMessage reply(0);
		const status_t status = ref.SendMessage(kAsk, &reply, i % 40);
		if (status == B_OK) {
			ok++;
			EXPECT_EQ(reply.what, kAnswer);
		} else {
			ASSERT_TRUE(status == B_TIMED_OUT || status == B_WOULD_BLOCK) << status;
			timedOut++;
		}
	}
	// Every request is handled before the marker; the handler counts its
	// receipt once it has counted the answer's outcome.
	ZvMessage reply(0);
	ASSERT_EQ(ref.SendMessage(kAsk, &reply), B_OK);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return handler.Received() == rounds + 1; }));
	EXPECT_EQ(answeredInTime.load(), ok + 1);
	EXPECT_EQ(answeredLate.load(), timedOut);
	EXPECT_EQ(other.load(), 0);
	looper->RemoveHandler(&handler);
}

// A request of many fields: looking its fields up by name makes the
// message's name index, which lives beside the request's link.
ZvMessage ManyFields(uint32 what, int32 count)
{
	ZvMessage message(what);
	for (int32 i = 0; i < count; i++)
		message.AddInt32(("f" + std::to_string(i)).c_str(), i * 3);
	return message;
}

TEST(ZvMessageReplyTest, ARequestOfManyFieldsIsLookedUpByNameChangedAndAnswered)
{
	zvtest::Watchdog watchdog(30s, "request of many fields");
	std::atomic<bool> waitingAfterLookups{false};
	FunctionHandler handler([&](ZvMessage* message) {
		int32 sum = 0;
		for (int32 i = 0; i < 40; i++) {
			int32 value = -1;
			if (message->FindInt32(("f" + std::to_string(i)).c_str(), &value))
				sum += value;
		}
		message->RemoveName("f0");
		message->AddInt32("added", 7);
		int32 added = 0;
		message->FindInt32("added", &added);
		waitingAfterLookups.store(message->IsSourceWaiting());
		ZvMessage answer(kAnswer);
		answer.AddInt32("sum", sum);
		answer.AddInt32("added", added);
		answer.AddBool("f0 gone", !message->HasInt32("f0"));
		message->SendReply(&answer);
	});
	RunningLooper looper(&handler);
	const ZvMessage request = ManyFields(kAsk, 40);
	ZvMessage reply(0);
	ASSERT_EQ(ZvLooperRef(looper.Get()).SendMessage(&request, &reply), B_OK);
	ASSERT_EQ(reply.what, kAnswer);
	int32 sum = 0, added = 0;
	bool gone = false;
	EXPECT_TRUE(reply.FindInt32("sum", &sum));
	EXPECT_EQ(3 * (39 * 40 / 2), sum);
	EXPECT_TRUE(reply.FindInt32("added", &added));
	EXPECT_EQ(7, added);
	EXPECT_TRUE(reply.FindBool("f0 gone", &gone));
	EXPECT_TRUE(gone);
	EXPECT_TRUE(waitingAfterLookups.load());
	looper->RemoveHandler(&handler);
}

TEST(ZvMessageReplyTest, ARequestOfManyFieldsLookedUpAndLeftUnansweredAnswersNoReply)
{
	zvtest::Watchdog watchdog(30s, "unanswered request of many fields");
	std::atomic<int32> found{-1};
	FunctionHandler handler([&](ZvMessage* message) {
		int32 value = -1;
		message->FindInt32("f30", &value);
		found.store(value);
	});
	RunningLooper looper(&handler);
	const ZvMessage request = ManyFields(kAsk, 40);
	ZvMessage reply(0);
	ASSERT_EQ(ZvLooperRef(looper.Get()).SendMessage(&request, &reply), B_OK);
	EXPECT_EQ(reply.what, ZV_NO_REPLY);
	EXPECT_EQ(90, found.load());
	looper->RemoveHandler(&handler);
}

TEST(ZvMessageReplyTest, EmptyingRefillingAndMergingARequestKeepItsLink)
{
	zvtest::Watchdog watchdog(30s, "request emptied and refilled");
	std::atomic<int> waitingSteps{0};
	std::atomic<status_t> answered{1};
	FunctionHandler handler([&](ZvMessage* message) {
		const ZvMessage other = ManyFields(5, 30);
		std::vector<uint8> flat(static_cast<size_t>(other.FlattenedSize()));
		other.Flatten(flat.data());
		int32 value = 0;
		message->FindInt32("f10", &value);
		message->MakeEmpty();
		waitingSteps += message->IsSourceWaiting() ? 1 : 0;
		message->Unflatten(flat.data(), flat.size());
		message->FindInt32("f20", &value);
		waitingSteps += message->IsSourceWaiting() ? 1 : 0;
		*message += other;
		*message -= "f1";
		message->Set(&other);
		message->FindInt32("f29", &value);
		waitingSteps += message->IsSourceWaiting() ? 1 : 0;
		ZvMessage answer(kAnswer);
		answer.AddInt32("value", value);
		answered.store(message->SendReply(&answer));
	});
	RunningLooper looper(&handler);
	const ZvMessage request = ManyFields(kAsk, 40);
	ZvMessage reply(0);
	ASSERT_EQ(ZvLooperRef(looper.Get()).SendMessage(&request, &reply), B_OK);
	EXPECT_EQ(reply.what, kAnswer);
	int32 value = 0;
	EXPECT_TRUE(reply.FindInt32("value", &value));
	EXPECT_EQ(87, value);
	EXPECT_EQ(3, waitingSteps.load());
	// The handler stores SendReply's result after the sender may have woken.
	ASSERT_TRUE(zvtest::WaitUntil([&] { return answered.load() != 1; }));
	EXPECT_EQ(B_OK, answered.load());
	looper->RemoveHandler(&handler);
}

TEST(ZvMessageReplyTest, AMessageIndexedOnOneThreadIsLookedUpChangedAndDeletedOnTheLoopersThread)
{
	zvtest::Watchdog watchdog(30s, "indexed message handed over");
	std::atomic<int32> foundOnTheLooper{0};
	std::atomic<bool> changesSeen{false};
	zvtest::Latch handled(1);
	FunctionHandler handler([&](ZvMessage* message) {
		int32 found = 0;
		for (int32 i = 0; i < 60; i++) {
			int32 value = -1;
			if (message->FindInt32(("f" + std::to_string(i)).c_str(), &value) && value == i * 3)
				found++;
		}
		foundOnTheLooper.store(found);
		message->RemoveData("f59", 0);
		message->AddInt32("f59", -1);
		int32 value = 0;
		changesSeen.store(message->FindInt32("f59", &value) && value == -1 &&
		                  message->CountNames(ZV_INT32_TYPE) == 60);
		handled.CountDown();
	});
	RunningLooper looper(&handler);
	ZvMessage* owned = new ZvMessage(ManyFields(kAsk, 60));
	int32 value = 0;
	// Looked up here first: the index is made on this thread.
	ASSERT_TRUE(owned->FindInt32("f59", &value));
	ASSERT_EQ(B_OK, ZvLooperRef(looper.Get()).PostOwnedMessage(owned));
	ASSERT_TRUE(handled.WaitFor(10s));
	EXPECT_EQ(60, foundOnTheLooper.load());
	EXPECT_TRUE(changesSeen.load());
	looper->RemoveHandler(&handler);
}

} // namespace
