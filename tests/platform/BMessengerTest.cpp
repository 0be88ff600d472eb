// Tests of the platform's BMessenger: construction rules, validity before
// and after its looper quits, targets, asynchronous and synchronous sending,
// and replies (SendReply, B_NO_REPLY, reply handlers, time-outs).

#include <Handler.h>
#include <Looper.h>
#include <Message.h>
#include <Messenger.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

const uint32 kAsk = 0x41534B20;    // 'ASK '
const uint32 kAnswer = 0x414E5357; // 'ANSW'
const uint32 kSilent = 0x53494C54; // 'SILT'
const uint32 kNote = 0x4E4F5445;   // 'NOTE'
const uint32 kBlock = 0x424C4F4B;  // 'BLOK'
const uint32 kSelf = 0x53454C46;   // 'SELF'

// Answers kAsk with kAnswer carrying the question's "value" doubled, leaves
// kSilent unanswered, blocks on kBlock until released, and tries a
// synchronous send to its own looper on kSelf.
class Responder : public BHandler
{
public:
	Responder() : BHandler("responder") {}

	void MessageReceived(BMessage* message) override
	{
		{
			std::lock_guard<std::mutex> lock(fLock);
			fWhats.push_back(message->what);
			fThreads.push_back(find_thread(nullptr));
		}
		switch (message->what) {
		case kAsk: {
			int32 value = 0;
			message->FindInt32("value", &value);
			fWasWaiting = message->IsSourceWaiting();
			BMessage answer(kAnswer);
			answer.AddInt32("value", value * 2);
			fReplyStatus = message->SendReply(&answer);
			fSecondReplyStatus = message->SendReply(kAnswer);
			break;
		}
		case kBlock:
			fBlocked.CountDown();
			fRelease.WaitFor(20s);
			break;
		case kSelf: {
			BMessenger self(this);
			BMessage reply;
			fSelfStatus = self.SendMessage(kAsk, &reply);
			break;
		}
		default:
			break;
		}
		fReceived.CountDown();
	}

	std::mutex fLock;
	std::vector<uint32> fWhats;
	std::vector<thread_id> fThreads;
	std::atomic<bool> fWasWaiting{false};
	std::atomic<status_t> fReplyStatus{B_ERROR};
	std::atomic<status_t> fSecondReplyStatus{B_ERROR};
	std::atomic<status_t> fSelfStatus{B_ERROR};
	zvtest::Latch fReceived{1};
	zvtest::Latch fBlocked{1};
	zvtest::Latch fRelease{1};
};

// A running looper with one Responder, quit at the end of the test.
class BMessengerTest : public ::testing::Test
{
protected:
	void SetUp() override
	{
		fLooper = new BLooper("messenger target");
		fLooper->AddHandler(&fResponder);
		fThread = fLooper->Run();
	}

	void TearDown() override
	{
		if (fLooper != nullptr && fLooper->Lock())
			fLooper->Quit();
	}

	void QuitLooper()
	{
		ASSERT_TRUE(fLooper->Lock());
		fLooper->Quit();
		fLooper = nullptr;
	}

	zvtest::Watchdog fWatchdog{60s, "messenger test"};
	Responder fResponder;
	BLooper* fLooper = nullptr;
	thread_id fThread = -1;
};

TEST(BMessengerPlainTest, ADefaultMessengerIsInvalid)
{
	BMessenger messenger;
	EXPECT_FALSE(messenger.IsValid());
	EXPECT_FALSE(messenger.IsTargetLocal());
	BLooper* looper = reinterpret_cast<BLooper*>(1);
	EXPECT_EQ(nullptr, messenger.Target(&looper));
	EXPECT_EQ(nullptr, looper);
	EXPECT_EQ(-1, messenger.Team());
	EXPECT_EQ(B_BAD_PORT_ID, messenger.SendMessage(kNote));
	BMessage reply;
	EXPECT_EQ(B_BAD_PORT_ID, messenger.SendMessage(kAsk, &reply));
}

TEST(BMessengerPlainTest, ConstructionChecksHandlerAndLooper)
{
	status_t result = B_OK;
	BMessenger none(nullptr, nullptr, &result);
	EXPECT_EQ(B_BAD_VALUE, result);
	EXPECT_FALSE(none.IsValid());

	BHandler loose;
	BMessenger detached(&loose, nullptr, &result);
	EXPECT_EQ(B_MISMATCHED_VALUES, result);
	EXPECT_FALSE(detached.IsValid());

	BLooper* first = new BLooper;
	BLooper* second = new BLooper;
	first->AddHandler(&loose);
	BMessenger mismatched(&loose, second, &result);
	EXPECT_EQ(B_MISMATCHED_VALUES, result);
	EXPECT_FALSE(mismatched.IsValid());

	BMessenger matched(&loose, first, &result);
	EXPECT_EQ(B_OK, result);
	EXPECT_TRUE(matched.IsValid());
	BMessenger byHandler(&loose);
	EXPECT_TRUE(byHandler == matched);
	BMessenger byLooper(nullptr, first, &result);
	EXPECT_EQ(B_OK, result);
	EXPECT_TRUE(byLooper != matched);
	BMessenger copy(byLooper);
	EXPECT_TRUE(copy == byLooper);
	copy = matched;
	EXPECT_TRUE(copy == matched);

	first->Quit();
	second->Quit();
	EXPECT_FALSE(matched.IsValid());
	EXPECT_FALSE(copy.IsValid());
}

TEST_F(BMessengerTest, AValidMessengerNamesItsLocalTarget)
{
	BMessenger messenger(&fResponder);
	EXPECT_TRUE(messenger.IsValid());
	EXPECT_TRUE(messenger.IsTargetLocal());
	EXPECT_GE(messenger.Team(), 0);
	BLooper* looper = nullptr;
	EXPECT_EQ(&fResponder, messenger.Target(&looper));
	EXPECT_EQ(fLooper, looper);
	EXPECT_EQ(&fResponder, messenger.Target(nullptr));

	BMessenger preferred(nullptr, fLooper);
	EXPECT_EQ(nullptr, preferred.Target(&looper));
	EXPECT_EQ(fLooper, looper);
}

TEST_F(BMessengerTest, AMessengerOfAQuitLooperIsInvalidAndRefusesToSend)
{
	BMessenger messenger(&fResponder);
	ASSERT_TRUE(messenger.IsValid());
	QuitLooper();
	EXPECT_FALSE(messenger.IsValid());
	EXPECT_FALSE(messenger.IsTargetLocal());
	BLooper* looper = reinterpret_cast<BLooper*>(1);
	EXPECT_EQ(nullptr, messenger.Target(&looper));
	EXPECT_EQ(nullptr, looper);
	EXPECT_EQ(B_BAD_PORT_ID, messenger.SendMessage(kNote));
	BMessage reply;
	EXPECT_EQ(B_BAD_PORT_ID, messenger.SendMessage(kAsk, &reply));
	// A looper created later never takes over the old target.
	BLooper* newer = new BLooper;
	EXPECT_FALSE(messenger.IsValid());
	newer->Quit();
}

TEST_F(BMessengerTest, SendMessageDeliversACopyInTheLoopersThread)
{
	BMessenger messenger(&fResponder);
	BMessage note(kNote);
	note.AddInt32("value", 3);
	ASSERT_EQ(B_OK, messenger.SendMessage(&note));
	ASSERT_TRUE(fResponder.fReceived.WaitFor(20s));
	std::lock_guard<std::mutex> lock(fResponder.fLock);
	ASSERT_EQ(std::vector<uint32>{kNote}, fResponder.fWhats);
	EXPECT_EQ(fThread, fResponder.fThreads[0]);
	EXPECT_EQ(B_BAD_VALUE, messenger.SendMessage(static_cast<BMessage*>(nullptr)));
}

TEST_F(BMessengerTest, ASynchronousSendReturnsTheTargetsReply)
{
	BMessenger messenger(&fResponder);
	BMessage question(kAsk);
	question.AddInt32("value", 21);
	BMessage reply;
	ASSERT_EQ(B_OK, messenger.SendMessage(&question, &reply));
	EXPECT_EQ(kAnswer, reply.what);
	int32 value = 0;
	EXPECT_EQ(B_OK, reply.FindInt32("value", &value));
	EXPECT_EQ(42, value);
	// The handler records its reply results after the answer was sent.
	ASSERT_TRUE(fResponder.fReceived.WaitFor(20s));
	EXPECT_TRUE(fResponder.fWasWaiting.load());
	EXPECT_EQ(B_OK, fResponder.fReplyStatus.load());
	EXPECT_EQ(B_DUPLICATE_REPLY, fResponder.fSecondReplyStatus.load());
	EXPECT_EQ(B_BAD_VALUE, messenger.SendMessage(&question, static_cast<BMessage*>(nullptr)));
}

TEST_F(BMessengerTest, AnUnansweredMessageRepliesNoReply)
{
	BMessenger messenger(&fResponder);
	BMessage reply(kAnswer);
	reply.AddInt32("stale", 1);
	ASSERT_EQ(B_OK, messenger.SendMessage(kSilent, &reply));
	EXPECT_EQ(static_cast<uint32>(B_NO_REPLY), reply.what);
	EXPECT_FALSE(reply.HasInt32("stale"));
}

TEST_F(BMessengerTest, AMessageForARemovedHandlerIsDroppedAndRepliesNoReply)
{
	BMessenger messenger(&fResponder);
	ASSERT_TRUE(fLooper->Lock());
	ASSERT_TRUE(fLooper->RemoveHandler(&fResponder));
	fLooper->Unlock();
	// The looper still exists, so the messenger stays valid.
	EXPECT_TRUE(messenger.IsValid());
	EXPECT_EQ(nullptr, messenger.Target(nullptr));
	BMessage reply;
	ASSERT_EQ(B_OK, messenger.SendMessage(kAsk, &reply));
	EXPECT_EQ(static_cast<uint32>(B_NO_REPLY), reply.what);
	std::lock_guard<std::mutex> lock(fResponder.fLock);
	EXPECT_TRUE(fResponder.fWhats.empty());
}

TEST_F(BMessengerTest, AReplyTimeOutReturnsTimedOut)
{
	BMessenger messenger(&fResponder);
	ASSERT_EQ(B_OK, messenger.SendMessage(kBlock));
	ASSERT_TRUE(fResponder.fBlocked.WaitFor(20s));
	BMessage question(kAsk);
	BMessage reply;
	EXPECT_EQ(B_TIMED_OUT, messenger.SendMessage(&question, &reply, B_INFINITE_TIMEOUT, 20000));
	fResponder.fRelease.CountDown();
}

TEST_F(BMessengerTest, WaitingForAReplyFromTheLoopersOwnThreadIsRefused)
{
	BMessenger messenger(&fResponder);
	ASSERT_EQ(B_OK, messenger.SendMessage(kSelf));
	ASSERT_TRUE(fResponder.fReceived.WaitFor(20s));
	EXPECT_EQ(B_MESSAGE_TO_SELF, fResponder.fSelfStatus.load());
}

TEST_F(BMessengerTest, AQuitRequestSentSynchronouslyRepliesTheDecision)
{
	BMessenger messenger(nullptr, fLooper);
	BMessage reply;
	ASSERT_EQ(B_OK, messenger.SendMessage(B_QUIT_REQUESTED, &reply));
	bool result = false;
	EXPECT_EQ(B_OK, reply.FindBool("result", &result));
	EXPECT_TRUE(result);
	status_t exitValue = B_ERROR;
	EXPECT_EQ(B_OK, wait_for_thread(fThread, &exitValue));
	EXPECT_FALSE(messenger.IsValid());
	fLooper = nullptr;
}

TEST_F(BMessengerTest, RepliesGoToTheReplyHandlerNamedWhenPosting)
{
	// A second looper collects the answer.
	class Collector : public BHandler
	{
	public:
		void MessageReceived(BMessage* message) override
		{
			int32 value = 0;
			message->FindInt32("value", &value);
			fWhat = message->what;
			fValue = value;
			fThread = find_thread(nullptr);
			fDone.CountDown();
		}
		std::atomic<uint32> fWhat{0};
		std::atomic<int32> fValue{0};
		std::atomic<thread_id> fThread{-1};
		zvtest::Latch fDone{1};
	};
	Collector collector;
	BLooper* other = new BLooper("collector");
	other->AddHandler(&collector);
	thread_id otherThread = other->Run();

	BMessage question(kAsk);
	question.AddInt32("value", 5);
	ASSERT_EQ(B_OK, fLooper->PostMessage(&question, &fResponder, &collector));
	ASSERT_TRUE(collector.fDone.WaitFor(20s));
	EXPECT_EQ(kAnswer, collector.fWhat.load());
	EXPECT_EQ(10, collector.fValue.load());
	EXPECT_EQ(otherThread, collector.fThread.load());
	ASSERT_TRUE(fResponder.fReceived.WaitFor(20s));
	EXPECT_FALSE(fResponder.fWasWaiting.load());
	EXPECT_EQ(B_OK, fResponder.fReplyStatus.load());

	ASSERT_TRUE(other->Lock());
	other->Quit();
}

TEST_F(BMessengerTest, ARepliedMessageWithNowhereToGoIsRefused)
{
	// Posted without a reply handler and nobody waits: SendReply fails.
	BMessenger messenger(&fResponder);
	ASSERT_EQ(B_OK, messenger.SendMessage(kAsk));
	ASSERT_TRUE(fResponder.fReceived.WaitFor(20s));
	EXPECT_EQ(B_BAD_REPLY, fResponder.fReplyStatus.load());
}

TEST_F(BMessengerTest, ALooperMessengerReachesThePreferredHandler)
{
	ASSERT_TRUE(fLooper->Lock());
	fLooper->SetPreferredHandler(&fResponder);
	fLooper->Unlock();
	BMessenger messenger(nullptr, fLooper);
	BMessage question(kAsk);
	question.AddInt32("value", 4);
	BMessage reply;
	ASSERT_EQ(B_OK, messenger.SendMessage(&question, &reply));
	int32 value = 0;
	EXPECT_EQ(B_OK, reply.FindInt32("value", &value));
	EXPECT_EQ(8, value);
}

TEST(BMessengerAbandonTest, AnAbandonedReplyChannelIsReleasedWithItsMessage)
{
	zvtest::Watchdog watchdog(30s, "abandoned reply");
	Responder responder;
	// Not running: the message stays queued and the sender gives up.
	BLooper* looper = new BLooper;
	looper->AddHandler(&responder);
	BMessenger messenger(&responder);
	BMessage question(kAsk);
	BMessage reply;
	EXPECT_EQ(B_TIMED_OUT, messenger.SendMessage(&question, &reply, B_INFINITE_TIMEOUT, 1000));
	looper->Quit();
	EXPECT_FALSE(messenger.IsValid());
}

TEST(BMessengerAbandonTest, SendersToAFullQueueTimeOutOrWouldBlock)
{
	zvtest::Watchdog watchdog(30s, "full queue");
	BLooper* looper = new BLooper("tiny", B_NORMAL_PRIORITY, 1);
	BMessenger messenger(nullptr, looper);
	BMessage note(kNote);
	EXPECT_EQ(B_OK, messenger.SendMessage(&note, static_cast<BHandler*>(nullptr), 0));
	EXPECT_EQ(B_WOULD_BLOCK, messenger.SendMessage(&note, static_cast<BHandler*>(nullptr), 0));
	EXPECT_EQ(B_TIMED_OUT, messenger.SendMessage(&note, static_cast<BHandler*>(nullptr), 1000));
	BMessage reply;
	EXPECT_EQ(B_TIMED_OUT, messenger.SendMessage(&note, &reply, 1000, B_INFINITE_TIMEOUT));
	looper->Quit();
}

TEST(BMessengerConcurrencyTest, ManySendersGetTheirOwnAnswers)
{
	zvtest::Watchdog watchdog(60s, "concurrent synchronous sends");
	Responder responder;
	BLooper* looper = new BLooper("answers");
	looper->AddHandler(&responder);
	looper->Run();
	BMessenger messenger(&responder);
	std::vector<std::thread> senders;
	std::atomic<int32> wrong{0};
	for (int t = 0; t < 4; t++) {
		senders.emplace_back([&, t] {
			for (int32 i = 0; i < 50; i++) {
				BMessage question(kAsk);
				const int32 value = t * 1000 + i;
				question.AddInt32("value", value);
				BMessage reply;
				int32 answer = -1;
				if (messenger.SendMessage(&question, &reply) != B_OK ||
				    reply.FindInt32("value", &answer) != B_OK || answer != value * 2)
					wrong++;
			}
		});
	}
	for (std::thread& sender : senders)
		sender.join();
	EXPECT_EQ(0, wrong.load());
	ASSERT_TRUE(looper->Lock());
	looper->Quit();
}

} // namespace
