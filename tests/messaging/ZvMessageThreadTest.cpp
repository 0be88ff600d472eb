// A message has no lock of its own: these tests check that it keeps no hidden
// shared state, so that separate messages can be used in separate threads and
// one message can be read (const operations only) by several at once, and
// that messages made on one thread and deleted on another (their blocks
// moving between the threads' caches) keep every value.
#include <ZvMessage.h>
#include <ZvMessageQueue.h>

#include "MessageTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using zvtest::FlatBytes;
using zvtest::Latch;
using zvtest::RandomMessageBuilder;
using zvtest::Watchdog;

const int kThreads = 4;

TEST(ZvMessageThreadTest, SeparateMessagesInSeparateThreadsDoNotInterfere)
{
	Watchdog watchdog(std::chrono::seconds(60), "separate messages");
	Latch ready(kThreads);
	std::atomic<int> failures{0};
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([t, &ready, &failures] {
			RandomMessageBuilder builder(1000 + t);
			ready.CountDown();
			ready.WaitFor(std::chrono::seconds(10));
			for (int round = 0; round < 50; round++) {
				ZvMessage message(0);
				builder.Fill(&message, 2, 10);
				message.AddInt32("thread", t);
				const std::vector<uint8> flat = FlatBytes(message);
				ZvMessage restored(flat.data(), flat.size());
				int32 who = -1;
				if (FlatBytes(restored) != flat || !restored.FindInt32("thread", &who) ||
				    who != t) {
					failures++;
				}
			}
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	EXPECT_EQ(0, failures.load());
}

TEST(ZvMessageThreadTest, ConstOperationsOnOneMessageMayRunInParallel)
{
	Watchdog watchdog(std::chrono::seconds(60), "parallel readers");
	ZvMessage shared(0x73686172);
	RandomMessageBuilder builder(77);
	builder.Fill(&shared, 2, 20);
	shared.AddInt32("known", 42);
	ZvMessage inner(5);
	inner.AddString("s", "nested");
	shared.AddMessage("inner", &inner);
	const std::vector<uint8> expected = FlatBytes(shared);

	Latch ready(kThreads);
	std::atomic<int> failures{0};
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([&] {
			ready.CountDown();
			ready.WaitFor(std::chrono::seconds(10));
			for (int round = 0; round < 200; round++) {
				int32 known = 0;
				ZvMessage found(0);
				ZvRect<int16> rect;
				if (!shared.FindInt32("known", &known) || known != 42 ||
				    !shared.FindMessage("inner", &found) || found.what != 5 ||
				    FlatBytes(shared) != expected) {
					failures++;
				}
				shared.FindRect("x", &rect);
				(void)shared.CountNames(ZV_ANY_TYPE);
			}
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	EXPECT_EQ(0, failures.load());
}

TEST(ZvMessageThreadTest, MessageHandedToAnotherThreadIsComplete)
{
	Watchdog watchdog(std::chrono::seconds(30), "hand-over");
	ZvMessage* message = new ZvMessage(1);
	message->AddString("text", "from the first thread");
	Latch handedOver(1);
	std::atomic<bool> ok{false};
	std::thread receiver([&] {
		handedOver.WaitFor(std::chrono::seconds(10));
		const char* text = nullptr;
		ok = message->FindString("text", &text) && std::string(text) == "from the first thread";
		delete message;
	});
	handedOver.CountDown();
	receiver.join();
	EXPECT_TRUE(ok.load());
}

// Hands messages from one thread to another through the looper's queue,
// with a count of queued messages for the receiver to wait on (a looper
// waits on a semaphore the same way). This executable runs with the block
// caches on, so the messages' blocks change threads as a looper's do.
class MessageChannel
{
public:
	MessageChannel() : fQueue(1 << 20), fQueued(0) {}

	void Push(ZvMessage* message)
	{
		fQueue.AddMessage(message);
		{
			std::lock_guard<std::mutex> hold(fLock);
			fQueued++;
		}
		fAdded.notify_one();
	}

	// The oldest message, or null when none arrives within the limit.
	ZvMessage* Pop(std::chrono::milliseconds limit)
	{
		{
			std::unique_lock<std::mutex> hold(fLock);
			if (!fAdded.wait_for(hold, limit, [this] { return fQueued > 0; }))
				return nullptr;
			fQueued--;
		}
		return fQueue.RemoveMessage();
	}

private:
	// Deletes the messages nobody took.
	ZvMessageQueue fQueue;
	std::mutex fLock;
	std::condition_variable fAdded;
	int fQueued;
};

// Field "seq" comes first, so its value lies at a fixed offset of the flat
// form: header (12), type (4), "seq" and its terminator (4), size (4).
constexpr size_t kSeqOffset = 24;

// A message with values of every size around the one kept inside an item,
// strings, a nested message and enough fields to grow the item list past
// several steps.
ZvMessage ExchangeTemplate()
{
	ZvMessage message(0x65786368);
	message.AddInt32("seq", 0);
	for (int32 size : {0, 1, 31, 32, 33, 100, 1000}) {
		std::vector<uint8> value(static_cast<size_t>(size));
		for (int32 i = 0; i < size; i++)
			value[i] = static_cast<uint8>(size + i);
		// AddData refuses null data, which an empty vector may give.
		const void* data = value.empty() ? static_cast<const void*>("") : value.data();
		message.AddData(("raw" + std::to_string(size)).c_str(), 0x52415754, data, size);
	}
	message.AddString("short", "inline");
	message.AddString("long", std::string(200, 'L').c_str());
	ZvMessage inner(2);
	inner.AddString("s", "nested value");
	inner.AddInt64("n", -1);
	message.AddMessage("inner", &inner);
	for (int i = 0; i < 40; i++)
		message.AddInt32("fill", i);
	return message;
}

// Whether message is the template with seq as its "seq" value.
bool MatchesTemplate(const ZvMessage& message, const std::vector<uint8>& templateFlat, int32 seq)
{
	std::vector<uint8> expected = templateFlat;
	memcpy(expected.data() + kSeqOffset, &seq, sizeof(seq));
	return FlatBytes(message) == expected;
}

TEST(ZvMessageThreadTest, CopiesMadeOnOneThreadAndDeletedOnAnotherKeepEveryValue)
{
	Watchdog watchdog(std::chrono::seconds(240), "message exchange");
	constexpr int32 kMessages = 3000;
	constexpr int32 kInFlight = 64;
	const ZvMessage model = ExchangeTemplate();
	ASSERT_TRUE(model.HasData("raw0", 0x52415754, 0));
	const std::vector<uint8> modelFlat = FlatBytes(model);
	ASSERT_EQ(0, memcmp(modelFlat.data() + kSeqOffset - 8, "seq", 4));

	MessageChannel toEcho;
	MessageChannel back;
	std::atomic<int> echoFailures{0};
	std::atomic<bool> echoStalled{false};
	// The echo thread checks each copy, answers with a copy of its own and
	// deletes the one it received: blocks made on one thread are freed on
	// the other in both directions.
	std::thread echo([&] {
		for (int32 i = 0; i < kMessages; i++) {
			ZvMessage* received = toEcho.Pop(std::chrono::seconds(20));
			if (received == nullptr) {
				echoStalled = true;
				return;
			}
			if (!MatchesTemplate(*received, modelFlat, i))
				echoFailures++;
			back.Push(new ZvMessage(*received));
			delete received;
		}
	});

	int failures = 0;
	int32 returned = 0;
	bool stalled = false;
	for (int32 i = 0; i < kMessages && !stalled; i++) {
		ZvMessage* copy = new ZvMessage(model);
		copy->ReplaceInt32("seq", i);
		toEcho.Push(copy);
		while (!stalled &&
		       (i + 1 - returned > kInFlight || (i + 1 == kMessages && returned < i + 1))) {
			ZvMessage* answer = back.Pop(std::chrono::seconds(20));
			if (answer == nullptr) {
				stalled = true;
				break;
			}
			if (!MatchesTemplate(*answer, modelFlat, returned))
				failures++;
			delete answer;
			returned++;
		}
	}
	echo.join();
	EXPECT_FALSE(stalled);
	EXPECT_FALSE(echoStalled.load());
	EXPECT_EQ(kMessages, returned);
	EXPECT_EQ(0, failures);
	EXPECT_EQ(0, echoFailures.load());
	// The model itself was only read.
	EXPECT_EQ(modelFlat, FlatBytes(model));
}

} // namespace
