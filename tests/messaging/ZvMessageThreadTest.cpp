// A message has no lock of its own: these tests check that it keeps no hidden
// shared state, so that separate messages can be used in separate threads and
// one message can be read (const operations only) by several at once.
#include <ZvMessage.h>

#include "MessageTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
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

} // namespace
