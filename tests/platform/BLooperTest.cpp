// Tests of the platform's BHandler and BLooper: locking from construction to
// Run, delivery in the looper's thread and in order, targets, quitting from
// outside and from inside, and handler bookkeeping.

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

const uint32 kTick = 0x5449434B;  // 'TICK'
const uint32 kStop = 0x53544F50;  // 'STOP'
const uint32 kOther = 0x4F544852; // 'OTHR'

// Records what it receives: the command, an "index" field, the thread and
// whether the looper was locked by that thread. Counts down `latch` on every
// message whose what is `countOn`.
class RecordingHandler : public BHandler
{
public:
	RecordingHandler(const char* name = "recorder", uint32 countOn = kTick, int expected = 1)
	    : BHandler(name), fCountOn(countOn), fLatch(expected)
	{
	}

	void MessageReceived(BMessage* message) override
	{
		std::lock_guard<std::mutex> lock(fLock);
		int32 index = -1;
		message->FindInt32("index", &index);
		fWhats.push_back(message->what);
		fIndexes.push_back(index);
		fThreads.push_back(find_thread(nullptr));
		fLockedDuringDelivery.push_back(Looper() != nullptr && Looper()->IsLocked());
		fCurrentMatched.push_back(Looper() != nullptr && Looper()->CurrentMessage() == message);
		if (message->what == fCountOn)
			fLatch.CountDown();
	}

	bool Wait() { return fLatch.WaitFor(20s); }

	std::mutex fLock;
	std::vector<uint32> fWhats;
	std::vector<int32> fIndexes;
	std::vector<thread_id> fThreads;
	std::vector<bool> fLockedDuringDelivery;
	std::vector<bool> fCurrentMatched;

private:
	uint32 fCountOn;
	zvtest::Latch fLatch;
};

// A looper that records what reaches its own MessageReceived, reports its
// destruction, and answers QuitRequested as told.
class TestLooper : public BLooper
{
public:
	TestLooper(std::atomic<bool>* deleted = nullptr, thread_id* deletedIn = nullptr,
	           int32 capacity = B_LOOPER_PORT_DEFAULT_CAPACITY)
	    : BLooper("test looper", B_NORMAL_PRIORITY, capacity), fDeleted(deleted),
	      fDeletedIn(deletedIn)
	{
	}

	~TestLooper() override
	{
		if (fDeletedIn != nullptr)
			*fDeletedIn = find_thread(nullptr);
		if (fDeleted != nullptr)
			*fDeleted = true;
	}

	void MessageReceived(BMessage* message) override { fOwn.MessageReceived(message); }

	bool QuitRequested() override
	{
		fQuitAsked++;
		return fAllowQuit;
	}

	RecordingHandler fOwn{"own", kTick, 1};
	std::atomic<int32> fQuitAsked{0};
	std::atomic<bool> fAllowQuit{true};

private:
	std::atomic<bool>* fDeleted;
	thread_id* fDeletedIn;
};

TEST(BLooperTest, TheConstructingThreadHoldsTheLockUntilRun)
{
	zvtest::Watchdog watchdog(30s, "looper lock until Run");
	BLooper* looper = new BLooper("locked");
	EXPECT_TRUE(looper->IsLocked());
	EXPECT_EQ(find_thread(nullptr), looper->LockingThread());

	status_t otherTry = B_OK;
	std::thread([&] { otherTry = looper->LockWithTimeout(0); }).join();
	EXPECT_EQ(B_TIMED_OUT, otherTry);

	thread_id thread = looper->Run();
	EXPECT_GT(thread, 0);
	EXPECT_NE(find_thread(nullptr), thread);
	EXPECT_FALSE(looper->IsLocked());
	EXPECT_EQ(thread, looper->Thread());
	EXPECT_EQ(B_ALREADY_RUNNING, looper->Run());
	EXPECT_EQ(looper, BLooper::LooperForThread(thread));

	ASSERT_TRUE(looper->Lock());
	looper->Quit();
	EXPECT_EQ(nullptr, BLooper::LooperForThread(thread));
}

TEST(BLooperTest, MessagesArriveInTheLoopersThreadInPostingOrder)
{
	zvtest::Watchdog watchdog(30s, "delivery order");
	const int kCount = 150;
	RecordingHandler handler("recorder", kStop, 1);
	BLooper* looper = new BLooper("order");
	looper->AddHandler(&handler);
	thread_id thread = looper->Run();

	for (int32 i = 0; i < kCount; i++) {
		BMessage message(kTick);
		message.AddInt32("index", i);
		ASSERT_EQ(B_OK, looper->PostMessage(&message, &handler));
	}
	ASSERT_EQ(B_OK, looper->PostMessage(kStop, &handler));
	ASSERT_TRUE(handler.Wait());

	ASSERT_TRUE(looper->Lock());
	looper->Quit();

	ASSERT_EQ(static_cast<size_t>(kCount + 1), handler.fIndexes.size());
	for (int32 i = 0; i < kCount; i++) {
		EXPECT_EQ(i, handler.fIndexes[static_cast<size_t>(i)]);
		EXPECT_EQ(thread, handler.fThreads[static_cast<size_t>(i)]);
		EXPECT_TRUE(handler.fLockedDuringDelivery[static_cast<size_t>(i)]);
		EXPECT_TRUE(handler.fCurrentMatched[static_cast<size_t>(i)]);
	}
	EXPECT_EQ(kStop, handler.fWhats.back());
	EXPECT_EQ(nullptr, handler.Looper());
}

TEST(BLooperTest, PostingCopiesTheMessage)
{
	zvtest::Watchdog watchdog(30s, "posting copies");
	RecordingHandler handler;
	BLooper* looper = new BLooper;
	looper->AddHandler(&handler);
	BMessage message(kTick);
	message.AddInt32("index", 1);
	ASSERT_EQ(B_OK, looper->PostMessage(&message, &handler));
	message.ReplaceInt32("index", 2);
	looper->Run();
	ASSERT_TRUE(handler.Wait());
	ASSERT_TRUE(looper->Lock());
	looper->Quit();
	ASSERT_EQ(1u, handler.fIndexes.size());
	EXPECT_EQ(1, handler.fIndexes[0]);
	// The caller's message is untouched and still its own.
	int32 index = 0;
	EXPECT_EQ(B_OK, message.FindInt32("index", &index));
	EXPECT_EQ(2, index);
	EXPECT_FALSE(message.WasDelivered());
}

TEST(BLooperTest, TargetsAreTheHandlerTheLooperOrThePreferredHandler)
{
	zvtest::Watchdog watchdog(30s, "targets");
	RecordingHandler preferred("preferred", kStop, 1);
	TestLooper* looper = new TestLooper;
	looper->AddHandler(&preferred);
	looper->Run();

	// Without a handler argument the looper itself is the target.
	ASSERT_EQ(B_OK, looper->PostMessage(kTick));
	ASSERT_TRUE(looper->fOwn.Wait());

	// A nullptr handler means the preferred handler, which is the looper
	// itself until one is set.
	ASSERT_TRUE(looper->Lock());
	looper->SetPreferredHandler(&preferred);
	EXPECT_EQ(&preferred, looper->PreferredHandler());
	looper->Unlock();
	ASSERT_EQ(B_OK, looper->PostMessage(kOther, nullptr));
	ASSERT_EQ(B_OK, looper->PostMessage(kStop, static_cast<BHandler*>(nullptr)));
	ASSERT_TRUE(preferred.Wait());

	ASSERT_TRUE(looper->Lock());
	EXPECT_EQ(1u, looper->fOwn.fWhats.size());
	EXPECT_EQ((std::vector<uint32>{kOther, kStop}), preferred.fWhats);
	// Removing the preferred handler clears the preference.
	EXPECT_TRUE(looper->RemoveHandler(&preferred));
	EXPECT_EQ(nullptr, looper->PreferredHandler());
	looper->Quit();
}

TEST(BLooperTest, PostingToAHandlerOfAnotherLooperIsRefused)
{
	RecordingHandler handler;
	BLooper* first = new BLooper;
	BLooper* second = new BLooper;
	first->AddHandler(&handler);
	BMessage message(kTick);
	EXPECT_EQ(B_MISMATCHED_VALUES, second->PostMessage(&message, &handler));
	RecordingHandler loose;
	EXPECT_EQ(B_MISMATCHED_VALUES, second->PostMessage(&message, &loose));
	EXPECT_EQ(B_BAD_VALUE, second->PostMessage(static_cast<BMessage*>(nullptr)));
	first->Quit();
	second->Quit();
	EXPECT_EQ(nullptr, handler.Looper());
}

TEST(BLooperTest, AFullQueueRefusesPostsWithWouldBlock)
{
	std::atomic<bool> deleted{false};
	// Not running: nothing drains the queue of capacity 2.
	TestLooper* looper = new TestLooper(&deleted, nullptr, 2);
	EXPECT_EQ(B_OK, looper->PostMessage(kTick));
	EXPECT_EQ(B_OK, looper->PostMessage(kTick));
	EXPECT_EQ(B_WOULD_BLOCK, looper->PostMessage(kTick));
	// Quitting a looper that never ran deletes it at once, with the queued
	// messages (checked by the leak checker in the sanitizer builds).
	looper->Quit();
	EXPECT_TRUE(deleted.load());
}

TEST(BLooperTest, QuitFromAnotherThreadWaitsUntilTheLooperIsDeletedInItsThread)
{
	zvtest::Watchdog watchdog(30s, "quit from outside");
	std::atomic<bool> deleted{false};
	thread_id deletedIn = -1;
	TestLooper* looper = new TestLooper(&deleted, &deletedIn);
	thread_id thread = looper->Run();
	BMessenger messenger(looper, looper);
	ASSERT_TRUE(messenger.IsValid());

	// Lock held twice: Quit gives up both.
	ASSERT_TRUE(looper->Lock());
	ASSERT_TRUE(looper->Lock());
	looper->Quit();
	EXPECT_TRUE(deleted.load());
	EXPECT_EQ(thread, deletedIn);
	EXPECT_FALSE(messenger.IsValid());
	status_t exitValue = B_OK;
	EXPECT_NE(B_OK, wait_for_thread(thread, &exitValue));
}

TEST(BLooperTest, QuitFromAHandlerEndsTheLoopAfterTheCurrentMessage)
{
	zvtest::Watchdog watchdog(30s, "quit from inside");
	class QuittingHandler : public BHandler
	{
	public:
		void MessageReceived(BMessage* message) override
		{
			fSeen.push_back(message->what);
			if (message->what == kStop)
				Looper()->Quit();
		}
		std::vector<uint32> fSeen;
	};

	std::atomic<bool> deleted{false};
	thread_id deletedIn = -1;
	QuittingHandler handler;
	TestLooper* looper = new TestLooper(&deleted, &deletedIn);
	looper->AddHandler(&handler);
	// Queued before Run: the messages after kStop are never delivered.
	ASSERT_EQ(B_OK, looper->PostMessage(kTick, &handler));
	ASSERT_EQ(B_OK, looper->PostMessage(kStop, &handler));
	ASSERT_EQ(B_OK, looper->PostMessage(kOther, &handler));
	thread_id thread = looper->Run();
	status_t exitValue = B_ERROR;
	EXPECT_EQ(B_OK, wait_for_thread(thread, &exitValue));
	EXPECT_TRUE(deleted.load());
	EXPECT_EQ(thread, deletedIn);
	EXPECT_EQ((std::vector<uint32>{kTick, kStop}), handler.fSeen);
	EXPECT_EQ(nullptr, handler.Looper());
}

TEST(BLooperTest, QuitRequestedDecidesWhetherAQuitRequestEndsTheLooper)
{
	zvtest::Watchdog watchdog(30s, "quit requested");
	std::atomic<bool> deleted{false};
	TestLooper* looper = new TestLooper(&deleted);
	looper->fAllowQuit = false;
	thread_id thread = looper->Run();

	ASSERT_EQ(B_OK, looper->PostMessage(B_QUIT_REQUESTED));
	ASSERT_EQ(B_OK, looper->PostMessage(kTick));
	ASSERT_TRUE(looper->fOwn.Wait());
	EXPECT_EQ(1, looper->fQuitAsked.load());
	EXPECT_FALSE(deleted.load());
	// The request went to QuitRequested, not to MessageReceived.
	ASSERT_TRUE(looper->Lock());
	EXPECT_EQ(std::vector<uint32>{kTick}, looper->fOwn.fWhats);
	looper->fAllowQuit = true;
	looper->Unlock();

	ASSERT_EQ(B_OK, looper->PostMessage(B_QUIT_REQUESTED));
	status_t exitValue = B_ERROR;
	EXPECT_EQ(B_OK, wait_for_thread(thread, &exitValue));
	EXPECT_TRUE(deleted.load());
}

TEST(BLooperTest, QuitBeforeRunDeletesTheLooperAtOnce)
{
	std::atomic<bool> deleted{false};
	thread_id deletedIn = -1;
	TestLooper* looper = new TestLooper(&deleted, &deletedIn);
	looper->Quit();
	EXPECT_TRUE(deleted.load());
	EXPECT_EQ(find_thread(nullptr), deletedIn);
}

TEST(BLooperTest, HandlersAreCountedAndDetached)
{
	RecordingHandler first("first");
	RecordingHandler second("second");
	BLooper* looper = new BLooper("handlers");
	// The looper is its own first handler.
	EXPECT_EQ(1, looper->CountHandlers());
	EXPECT_EQ(looper, looper->HandlerAt(0));
	EXPECT_EQ(looper, looper->Looper());

	looper->AddHandler(&first);
	looper->AddHandler(&second);
	looper->AddHandler(&second);
	EXPECT_EQ(3, looper->CountHandlers());
	EXPECT_EQ(looper, first.Looper());
	EXPECT_EQ(1, looper->IndexOf(&first));
	EXPECT_EQ(2, looper->IndexOf(&second));
	EXPECT_EQ(nullptr, looper->HandlerAt(3));
	EXPECT_EQ(nullptr, looper->HandlerAt(-1));

	EXPECT_TRUE(looper->RemoveHandler(&first));
	EXPECT_FALSE(looper->RemoveHandler(&first));
	EXPECT_FALSE(looper->RemoveHandler(looper));
	EXPECT_EQ(nullptr, first.Looper());
	EXPECT_EQ(-1, looper->IndexOf(&first));

	{
		RecordingHandler temporary("temporary");
		looper->AddHandler(&temporary);
		EXPECT_EQ(3, looper->CountHandlers());
	}
	// The destroyed handler left the looper by itself.
	EXPECT_EQ(2, looper->CountHandlers());
	looper->Quit();
	EXPECT_EQ(nullptr, second.Looper());
}

TEST(BLooperTest, AHandlerRemovedAfterPostingDoesNotGetTheMessage)
{
	zvtest::Watchdog watchdog(30s, "removed handler");
	RecordingHandler removed;
	RecordingHandler witness("witness", kStop, 1);
	BLooper* looper = new BLooper;
	looper->AddHandler(&removed);
	looper->AddHandler(&witness);
	ASSERT_EQ(B_OK, looper->PostMessage(kTick, &removed));
	ASSERT_TRUE(looper->RemoveHandler(&removed));
	ASSERT_EQ(B_OK, looper->PostMessage(kStop, &witness));
	looper->Run();
	ASSERT_TRUE(witness.Wait());
	ASSERT_TRUE(looper->Lock());
	looper->Quit();
	EXPECT_TRUE(removed.fWhats.empty());
}

TEST(BLooperTest, HandlerNamesAndLockLooper)
{
	BHandler unnamed;
	EXPECT_EQ(nullptr, unnamed.Name());
	EXPECT_FALSE(unnamed.LockLooper());
	unnamed.SetName("named");
	EXPECT_STREQ("named", unnamed.Name());
	unnamed.SetName(nullptr);
	EXPECT_EQ(nullptr, unnamed.Name());

	BLooper* looper = new BLooper("named looper");
	EXPECT_STREQ("named looper", looper->Name());
	looper->AddHandler(&unnamed);
	looper->Run();
	ASSERT_TRUE(unnamed.LockLooper());
	EXPECT_TRUE(looper->IsLocked());
	unnamed.UnlockLooper();
	EXPECT_FALSE(looper->IsLocked());
	ASSERT_TRUE(looper->Lock());
	looper->Quit();
}

TEST(BLooperTest, AHandlerMayPostToItsOwnLooperWhileHandling)
{
	zvtest::Watchdog watchdog(30s, "post from handler");
	class EchoHandler : public BHandler
	{
	public:
		void MessageReceived(BMessage* message) override
		{
			int32 left = 0;
			message->FindInt32("left", &left);
			if (left > 0) {
				BMessage next(kTick);
				next.AddInt32("left", left - 1);
				EXPECT_EQ(B_OK, Looper()->PostMessage(&next, this));
			} else {
				fDone.CountDown();
			}
		}
		zvtest::Latch fDone{1};
	};
	EchoHandler handler;
	BLooper* looper = new BLooper;
	looper->AddHandler(&handler);
	looper->Run();
	BMessage first(kTick);
	first.AddInt32("left", 50);
	ASSERT_EQ(B_OK, looper->PostMessage(&first, &handler));
	EXPECT_TRUE(handler.fDone.WaitFor(20s));
	ASSERT_TRUE(looper->Lock());
	looper->Quit();
}

TEST(BLooperTest, ConcurrentPostersKeepTheirOwnOrder)
{
	zvtest::Watchdog watchdog(60s, "concurrent posting");
	const int kThreads = 4;
	const int kEach = 100;
	RecordingHandler handler("recorder", kTick, kThreads * kEach);
	BLooper* looper = new BLooper("busy", B_NORMAL_PRIORITY, kThreads * kEach);
	looper->AddHandler(&handler);
	looper->Run();
	std::vector<std::thread> posters;
	for (int t = 0; t < kThreads; t++) {
		posters.emplace_back([&, t] {
			for (int i = 0; i < kEach; i++) {
				BMessage message(kTick);
				message.AddInt32("index", t * kEach + i);
				EXPECT_EQ(B_OK, looper->PostMessage(&message, &handler));
			}
		});
	}
	for (std::thread& poster : posters)
		poster.join();
	ASSERT_TRUE(handler.Wait());
	ASSERT_TRUE(looper->Lock());
	looper->Quit();

	ASSERT_EQ(static_cast<size_t>(kThreads * kEach), handler.fIndexes.size());
	std::vector<int32> last(kThreads, -1);
	for (int32 index : handler.fIndexes) {
		const int t = index / kEach;
		EXPECT_LT(last[static_cast<size_t>(t)], index);
		last[static_cast<size_t>(t)] = index;
	}
}

TEST(BLooperTest, AQuitRequestAimedAtAHandlerIsAnOrdinaryMessage)
{
	zvtest::Watchdog watchdog(30s, "quit request to a handler");
	std::atomic<bool> deleted{false};
	RecordingHandler handler("recorder", B_QUIT_REQUESTED, 1);
	TestLooper* looper = new TestLooper(&deleted);
	looper->AddHandler(&handler);
	looper->Run();
	ASSERT_EQ(B_OK, looper->PostMessage(B_QUIT_REQUESTED, &handler));
	ASSERT_TRUE(handler.Wait());
	EXPECT_EQ(0, looper->fQuitAsked.load());
	EXPECT_FALSE(deleted.load());
	ASSERT_TRUE(looper->Lock());
	looper->Quit();
	EXPECT_TRUE(deleted.load());
}

TEST(BLooperTest, QuitFromOutsideWaitsForTheMessageBeingHandled)
{
	zvtest::Watchdog watchdog(30s, "quit while busy");
	class BusyHandler : public BHandler
	{
	public:
		void MessageReceived(BMessage*) override
		{
			fStarted.CountDown();
			fRelease.WaitFor(20s);
			fFinished = true;
		}
		zvtest::Latch fStarted{1};
		zvtest::Latch fRelease{1};
		std::atomic<bool> fFinished{false};
	};
	std::atomic<bool> deleted{false};
	BusyHandler handler;
	TestLooper* looper = new TestLooper(&deleted);
	looper->AddHandler(&handler);
	looper->Run();
	ASSERT_EQ(B_OK, looper->PostMessage(kTick, &handler));
	ASSERT_TRUE(handler.fStarted.WaitFor(20s));

	zvtest::Latch quitting(1);
	std::thread quitter([&] {
		quitting.CountDown();
		looper->Quit();
	});
	ASSERT_TRUE(quitting.WaitFor(20s));
	// The looper cannot be gone while its handler is still running.
	EXPECT_FALSE(deleted.load());
	handler.fRelease.CountDown();
	quitter.join();
	EXPECT_TRUE(handler.fFinished.load());
	EXPECT_TRUE(deleted.load());
}

TEST(BLooperTest, AHandlerDestroyedWhileItsLooperRunsLeavesIt)
{
	zvtest::Watchdog watchdog(30s, "handler destroyed while running");
	RecordingHandler witness("witness", kStop, 1);
	BLooper* looper = new BLooper;
	looper->AddHandler(&witness);
	looper->Run();
	BMessenger messenger;
	{
		RecordingHandler temporary("temporary");
		ASSERT_TRUE(looper->Lock());
		looper->AddHandler(&temporary);
		looper->Unlock();
		messenger = BMessenger(&temporary);
		EXPECT_EQ(&temporary, messenger.Target(nullptr));
	}
	EXPECT_EQ(nullptr, messenger.Target(nullptr));
	// Messages for the destroyed handler are dropped.
	EXPECT_EQ(B_OK, messenger.SendMessage(kTick));
	ASSERT_EQ(B_OK, looper->PostMessage(kStop, &witness));
	ASSERT_TRUE(witness.Wait());
	ASSERT_TRUE(looper->Lock());
	EXPECT_EQ(2, looper->CountHandlers());
	looper->Quit();
}

} // namespace
