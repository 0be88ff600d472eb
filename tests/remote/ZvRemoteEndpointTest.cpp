// ZvRemoteEndpoint and ZvRemoteRef within one process: two endpoints talk
// over a real ipc:// socket in a private folder.
#include <ZvByteOrder.h>
#include <ZvLooperRef.h>
#include <ZvMessage.h>
#include <ZvRemote.h>

#include "Polling.h"
#include "RemoteTestSupport.h"

#include <gtest/gtest.h>

#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <vector>

using namespace remote_test;
using namespace std::chrono_literals;

namespace {

// A service endpoint bound in a private folder with one looper published
// as "service", and a client endpoint with a ref to it.
class RemotePair : public ::testing::Test
{
protected:
	void SetUp() override
	{
		ASSERT_TRUE(fFolder.IsValid());
		fAddress = fFolder.Address("service");
		ASSERT_EQ(fServer.InitCheck(), B_OK);
		ASSERT_EQ(fServer.Bind(fAddress.c_str()), B_OK);
		ASSERT_EQ(fServer.Publish("service", fService.Ref()), B_OK);
		ASSERT_EQ(fClient.Connect(fAddress.c_str(), "service", &fRef), B_OK);
	}

	// What the service does with each message. The frames that cause the
	// calls pass through a socket, which a race detector cannot follow, so
	// the function is guarded by a lock of its own.
	void SetReceive(std::function<void(ZvMessage*)> receive)
	{
		std::lock_guard<std::mutex> hold(fReceiveLock);
		fReceive = std::move(receive);
	}
	void Receive(ZvMessage* message)
	{
		std::function<void(ZvMessage*)> receive;
		{
			std::lock_guard<std::mutex> hold(fReceiveLock);
			receive = fReceive;
		}
		receive(message);
	}

	std::mutex fReceiveLock;
	std::function<void(ZvMessage*)> fReceive = [](ZvMessage*) {};

	zvtest::Watchdog fWatchdog{60s, "remote endpoint test"};
	// For tests that hold the service's looper in a handler: they outlive
	// the looper and the endpoints, which may still be using them when a
	// test's body ends.
	zvtest::Latch fHolding{1};
	zvtest::Latch fRelease{1};
	SocketFolder fFolder;
	std::string fAddress;
	RunningLooper fService{[this](ZvMessage* message) { Receive(message); }};
	ZvRemoteEndpoint fServer;
	ZvRemoteEndpoint fClient;
	ZvRemoteRef fRef;
};

void Echo(ZvMessage* message)
{
	ZvMessage answer(message);
	answer.AddBool("answered", true);
	message->SendReply(&answer);
}

// Collects the notices an endpoint posts about refused frames.
class NoticeBox
{
public:
	explicit NoticeBox(int expected) : fArrived(expected) {}
	void Take(ZvMessage* message)
	{
		if (message->what != static_cast<uint32>(ZV_REMOTE_REFUSED))
			return;
		const char* reason = nullptr;
		message->FindString("reason", &reason);
		{
			std::lock_guard<std::mutex> hold(fLock);
			fReasons.push_back(reason != nullptr ? reason : "");
		}
		fArrived.CountDown();
	}
	bool Wait() { return fArrived.WaitFor(10s); }
	std::vector<std::string> Reasons()
	{
		std::lock_guard<std::mutex> hold(fLock);
		return fReasons;
	}

private:
	zvtest::Latch fArrived;
	std::mutex fLock;
	std::vector<std::string> fReasons;
};

// Frames built by hand in the host's order, as the wire carries them: a
// 24-byte header, the target's name, the flattened message.
std::vector<uint8> HandFrame(uint8 kind, const char* name, const ZvMessage* message,
                             uint64 request = 0, int64 argument = 0)
{
	const size_t nameLength = name != nullptr ? strlen(name) : 0;
	std::vector<uint8> frame(24 + nameLength, 0);
	std::memcpy(frame.data(), "ZvRm", 4);
	frame[4] = kind;
	frame[5] = ZV_HostByteOrder() == ZV_BIG_ENDIAN ? 1 : 0;
	frame[6] = static_cast<uint8>(nameLength);
	std::memcpy(frame.data() + 8, &request, 8);
	std::memcpy(frame.data() + 16, &argument, 8);
	if (nameLength > 0)
		std::memcpy(frame.data() + 24, name, nameLength);
	if (message != nullptr) {
		std::vector<uint8> body(message->FlattenedSize());
		message->Flatten(body.data());
		frame.insert(frame.end(), body.begin(), body.end());
	}
	return frame;
}

// A batch of frames: a header of kind 4 whose request field holds count,
// then each frame after its 4-byte length.
std::vector<uint8> HandBatch(const std::vector<std::vector<uint8>>& frames, uint64 count)
{
	std::vector<uint8> batch = HandFrame(4, nullptr, nullptr, count, 0);
	for (const std::vector<uint8>& frame : frames) {
		const uint32 length = static_cast<uint32>(frame.size());
		const uint8* bytes = reinterpret_cast<const uint8*>(&length);
		batch.insert(batch.end(), bytes, bytes + 4);
		batch.insert(batch.end(), frame.begin(), frame.end());
	}
	return batch;
}

std::vector<uint8> HandBatch(const std::vector<std::vector<uint8>>& frames)
{
	return HandBatch(frames, frames.size());
}

ZvMessage Numbered(int32 n)
{
	ZvMessage message(kSequence);
	message.AddInt32("n", n);
	return message;
}

// The "n" of each numbered message a receiving looper is handed, in the order
// handed, with a latch for the number expected.
class NumberLog
{
public:
	explicit NumberLog(int32 expected) : fArrived(expected) {}

	void Record(ZvMessage* message)
	{
		int32 n = -1;
		message->FindInt32("n", &n);
		{
			std::lock_guard<std::mutex> hold(fLock);
			fSeen.push_back(n);
		}
		fArrived.CountDown();
	}

	bool WaitFor(std::chrono::milliseconds limit) { return fArrived.WaitFor(limit); }

	std::vector<int32> Seen()
	{
		std::lock_guard<std::mutex> hold(fLock);
		return fSeen;
	}

private:
	std::mutex fLock;
	std::vector<int32> fSeen;
	zvtest::Latch fArrived;
};

// A raw DEALER connected to address, for frames no endpoint would send.
class RawDealer
{
public:
	explicit RawDealer(const std::string& address)
	    : fContext(zmq_ctx_new()), fSocket(zmq_socket(fContext, ZMQ_DEALER))
	{
		const int wait = 10000;
		zmq_setsockopt(fSocket, ZMQ_RCVTIMEO, &wait, sizeof(wait));
		fConnected = zmq_connect(fSocket, address.c_str()) == 0;
	}
	~RawDealer()
	{
		const int linger = 0;
		zmq_setsockopt(fSocket, ZMQ_LINGER, &linger, sizeof(linger));
		zmq_close(fSocket);
		zmq_ctx_term(fContext);
	}
	bool IsConnected() const { return fConnected; }
	bool Send(const std::vector<uint8>& frame)
	{
		return zmq_send(fSocket, frame.data(), frame.size(), 0) >= 0;
	}
	// The next frame, or an empty one after 10 s.
	std::vector<uint8> Receive()
	{
		std::vector<uint8> frame(65536);
		const int size = zmq_recv(fSocket, frame.data(), frame.size(), 0);
		frame.resize(size > 0 ? std::min<size_t>(size, frame.size()) : 0);
		return frame;
	}

private:
	void* fContext;
	void* fSocket;
	bool fConnected = false;
};
} // namespace

TEST_F(RemotePair, APostArrivesAsAnOrdinaryPostWithItsFields)
{
	zvtest::Latch arrived(1);
	int32 value = 0;
	const char* text = nullptr;
	std::string copied;
	SetReceive([&](ZvMessage* message) {
		message->FindInt32("n", &value);
		if (message->FindString("text", &text))
			copied = text;
		EXPECT_FALSE(message->IsSourceWaiting());
		arrived.CountDown();
	});
	ZvMessage message(0x706F7374);
	message.AddInt32("n", 42);
	message.AddString("text", "across");
	EXPECT_EQ(fRef.PostMessage(&message), B_OK);
	ASSERT_TRUE(arrived.WaitFor(10s));
	EXPECT_EQ(value, 42);
	EXPECT_EQ(copied, "across");
}

TEST_F(RemotePair, PostsFromOneEndpointArriveInTheOrderSent)
{
	constexpr int32 kCount = 2000;
	NumberLog log(kCount);
	SetReceive([&](ZvMessage* message) { log.Record(message); });
	for (int32 n = 0; n < kCount; n++) {
		ZvMessage message(kSequence);
		message.AddInt32("n", n);
		ASSERT_EQ(fRef.PostMessage(&message), B_OK);
	}
	ASSERT_TRUE(log.WaitFor(30s));
	const std::vector<int32> seen = log.Seen();
	ASSERT_EQ(seen.size(), static_cast<size_t>(kCount));
	for (int32 n = 0; n < kCount; n++)
		ASSERT_EQ(seen[n], n);
	// The count follows each post's return, which may come after the
	// looper has dispatched it.
	zv_remote_stats stats;
	EXPECT_TRUE(zvtest::WaitUntil([&] {
		fServer.GetStats(&stats);
		return stats.postsDelivered == static_cast<uint64>(kCount);
	}));
	EXPECT_EQ(stats.refusedMalformed + stats.refusedOversized + stats.refusedUnknownTarget, 0u);
}

TEST_F(RemotePair, ARequestIsAnsweredWithTheHandlersReply)
{
	SetReceive(Echo);
	ZvMessage request(kEcho);
	request.AddInt32("n", 7);
	ZvMessage reply(static_cast<uint32>(0));
	ASSERT_EQ(fRef.SendMessage(&request, &reply, 10000000), B_OK);
	EXPECT_EQ(reply.what, kEcho);
	int32 n = 0;
	EXPECT_TRUE(reply.FindInt32("n", &n));
	EXPECT_EQ(n, 7);
	bool answered = false;
	EXPECT_TRUE(reply.FindBool("answered", &answered));
	EXPECT_TRUE(answered);
}

TEST_F(RemotePair, ARequestDeletedUnansweredGivesNoReply)
{
	ZvMessage reply(static_cast<uint32>(0));
	ASSERT_EQ(fRef.SendMessage(kIgnore, &reply, 10000000), B_OK);
	EXPECT_EQ(reply.what, ZV_NO_REPLY);
	EXPECT_TRUE(reply.IsEmpty());
}

TEST_F(RemotePair, ManyThreadsSendRequestsAtOnceAndEachGetsItsOwnAnswer)
{
	SetReceive(Echo);
	constexpr int kThreads = 4;
	constexpr int32 kEach = 100;
	std::atomic<int32> wrong{0};
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; t++) {
		threads.emplace_back([&, t] {
			for (int32 i = 0; i < kEach; i++) {
				ZvMessage request(kEcho);
				request.AddInt32("n", t * 1000 + i);
				ZvMessage reply(static_cast<uint32>(0));
				int32 n = -1;
				if (fRef.SendMessage(&request, &reply, 10000000) != B_OK ||
				    !reply.FindInt32("n", &n) || n != t * 1000 + i)
					wrong.fetch_add(1);
			}
		});
	}
	for (std::thread& thread : threads)
		thread.join();
	EXPECT_EQ(wrong.load(), 0);
}

TEST_F(RemotePair, ANameNobodyPublishedIsBadValueForARequestAndCountedForAPost)
{
	ZvRemoteRef nobody;
	ASSERT_EQ(fClient.Connect(fAddress.c_str(), "nobody", &nobody), B_OK);
	ZvMessage reply(static_cast<uint32>(0));
	EXPECT_EQ(nobody.SendMessage(kEcho, &reply, 10000000), B_BAD_VALUE);
	EXPECT_EQ(nobody.PostMessage(kNote), B_OK);
	// Frames from one endpoint are handled in order: once this answer is
	// back the post before it has been refused.
	SetReceive(Echo);
	ASSERT_EQ(fRef.SendMessage(kEcho, &reply, 10000000), B_OK);
	zv_remote_stats stats;
	ASSERT_EQ(fServer.GetStats(&stats), B_OK);
	EXPECT_EQ(stats.refusedUnknownTarget, 2u);
}

TEST_F(RemotePair, AnUnpublishedNameIsRefusedFromThenOn)
{
	SetReceive(Echo);
	ZvMessage reply(static_cast<uint32>(0));
	ASSERT_EQ(fRef.SendMessage(kEcho, &reply, 10000000), B_OK);
	EXPECT_EQ(fServer.Unpublish("service"), B_OK);
	EXPECT_EQ(fServer.Unpublish("service"), B_NAME_NOT_FOUND);
	EXPECT_EQ(fRef.SendMessage(kEcho, &reply, 10000000), B_BAD_VALUE);
}

TEST_F(RemotePair, ATargetThatQuitIsBadValueLikeALocalRef)
{
	ZvRemoteEndpoint server;
	const std::string address = fFolder.Address("gone");
	ASSERT_EQ(server.Bind(address.c_str()), B_OK);
	{
		RunningLooper shortLived([](ZvMessage* message) { Echo(message); });
		ASSERT_EQ(server.Publish("short", shortLived.Ref()), B_OK);
	}
	ZvRemoteRef ref;
	ASSERT_EQ(fClient.Connect(address.c_str(), "short", &ref), B_OK);
	ZvMessage reply(static_cast<uint32>(0));
	EXPECT_EQ(ref.SendMessage(kEcho, &reply, 10000000), B_BAD_VALUE);
}

TEST_F(RemotePair, ARequestWithNoAnswerInTimeTimesOutAndTheLateAnswerIsCounted)
{
	SetReceive([&](ZvMessage* message) {
		if (message->what == kEcho) {
			fHolding.CountDown();
			fRelease.WaitFor(10s);
		}
		Echo(message);
	});
	ZvMessage reply(static_cast<uint32>(0));
	// The receiving side waits as long for its looper (50 ms from when the
	// request reaches it) and then answers B_TIMED_OUT; that answer comes
	// after the sender has given up.
	EXPECT_EQ(fRef.SendMessage(kEcho, &reply, 50000), B_TIMED_OUT);
	ASSERT_TRUE(fHolding.WaitFor(10s));
	fRelease.CountDown();
	ASSERT_EQ(fRef.SendMessage(kNote, &reply, 10000000), B_OK);
	// The two answers come from different helper threads, in either order.
	// Both are counted: the time-out answer as late, unless the sender's
	// thread was held up past its deadline for longer than the answer's trip
	// (a loaded machine), when it was still waiting for it.
	zv_remote_stats stats;
	EXPECT_TRUE(zvtest::WaitUntil([&] {
		fClient.GetStats(&stats);
		return stats.lateReplies + stats.repliesReceived == 2;
	}));
	EXPECT_LE(stats.lateReplies, 1u);
	EXPECT_GE(stats.repliesReceived, 1u);
}

TEST_F(RemotePair, ABigEndianWireIsReadByALittleEndianReceiver)
{
	ASSERT_EQ(fClient.SetWireOrder(ZV_BIG_ENDIAN), B_OK);
	ASSERT_EQ(fServer.SetWireOrder(ZV_BIG_ENDIAN), B_OK);
	SetReceive(Echo);
	ZvMessage request(kEcho);
	request.AddInt32("n", 0x01020304);
	request.AddDouble("x", 2.5);
	ZvMessage inner(0x696E6E72);
	inner.AddInt64("deep", -5);
	request.AddMessage("inner", &inner);
	ZvMessage reply(static_cast<uint32>(0));
	ASSERT_EQ(fRef.SendMessage(&request, &reply, 10000000), B_OK);
	int32 n = 0;
	double x = 0;
	ZvMessage innerBack(static_cast<uint32>(0));
	int64 deep = 0;
	EXPECT_TRUE(reply.FindInt32("n", &n));
	EXPECT_EQ(n, 0x01020304);
	EXPECT_TRUE(reply.FindDouble("x", &x));
	EXPECT_EQ(x, 2.5);
	ASSERT_TRUE(reply.FindMessage("inner", &innerBack));
	EXPECT_TRUE(innerBack.FindInt64("deep", &deep));
	EXPECT_EQ(deep, -5);
	EXPECT_EQ(fClient.SetWireOrder(static_cast<zv_byte_order>(7)), B_BAD_VALUE);
}

TEST_F(RemotePair, AFrameOverTheLimitIsRefusedCountedAndReportedAndTheSenderIsAnswered)
{
	NoticeBox notices(1);
	RunningLooper reports([&](ZvMessage* message) { notices.Take(message); });
	fServer.SetReportTarget(reports.Ref());
	ASSERT_EQ(fServer.SetMaxFrameSize(1024), B_OK);
	EXPECT_EQ(fServer.MaxFrameSize(), 1024u);
	SetReceive(Echo);
	ZvMessage big(kEcho);
	big.AddString("bytes", std::string(4000, 'x').c_str());
	ZvMessage reply(static_cast<uint32>(0));
	EXPECT_EQ(fRef.SendMessage(&big, &reply, 10000000), B_BAD_DATA);
	ASSERT_TRUE(notices.Wait());
	EXPECT_EQ(notices.Reasons(), std::vector<std::string>{"oversized"});
	zv_remote_stats stats;
	ASSERT_EQ(fServer.GetStats(&stats), B_OK);
	EXPECT_EQ(stats.refusedOversized, 1u);
	// A small one still goes through.
	EXPECT_EQ(fRef.SendMessage(kEcho, &reply, 10000000), B_OK);
	EXPECT_EQ(fServer.SetMaxFrameSize(10), B_BAD_VALUE);
	fServer.SetReportTarget(ZvLooperRef());
}

TEST_F(RemotePair, GarbageFromARawSocketIsRefusedAndCountedAndTheReceiverGoesOn)
{
	NoticeBox notices(8);
	RunningLooper reports([&](ZvMessage* message) { notices.Take(message); });
	fServer.SetReportTarget(reports.Ref());
	ASSERT_EQ(fServer.SetMaxFrameSize(4096), B_OK);

	void* context = zmq_ctx_new();
	void* raw = zmq_socket(context, ZMQ_DEALER);
	ASSERT_EQ(zmq_connect(raw, fAddress.c_str()), 0);
	const auto send = [&](const void* data, size_t size, int flags = 0) {
		EXPECT_GE(zmq_send(raw, data, size, flags), 0);
	};
	// A valid header for "service" whose body is then spoilt, cut short,
	// or followed by bytes that are not part of the block.
	ZvMessage valid(kNote);
	valid.AddInt32("n", 1);
	std::vector<uint8> body(valid.FlattenedSize());
	ASSERT_TRUE(valid.Flatten(body.data()));
	std::vector<uint8> header(24 + 7, 0);
	std::memcpy(header.data(), "ZvRm", 4);
	header[4] = 1; // a post
	header[5] = ZV_HostByteOrder() == ZV_BIG_ENDIAN ? 1 : 0;
	header[6] = 7;
	std::memcpy(header.data() + 24, "service", 7);
	const auto frameWith = [&](const std::vector<uint8>& tail) {
		std::vector<uint8> frame(header);
		frame.insert(frame.end(), tail.begin(), tail.end());
		return frame;
	};

	send("", 0);                                   // empty
	send("hello, world, this is not a frame", 33); // no magic
	std::vector<uint8> badKind = frameWith(body);
	badKind[4] = 9;
	send(badKind.data(), badKind.size());
	std::vector<uint8> longName = frameWith(body);
	longName[6] = 200;
	send(longName.data(), longName.size());
	std::vector<uint8> cut(body.begin(), body.end() - 3);
	std::vector<uint8> cutFrame = frameWith(cut);
	send(cutFrame.data(), cutFrame.size());
	std::vector<uint8> hugeCount(body);
	hugeCount[8] = 0xFF;
	hugeCount[9] = 0xFF;
	hugeCount[10] = 0xFF;
	hugeCount[11] = 0x7F;
	std::vector<uint8> hugeCountFrame = frameWith(hugeCount);
	send(hugeCountFrame.data(), hugeCountFrame.size());
	std::vector<uint8> trailing(body);
	trailing.push_back(0xAB);
	std::vector<uint8> trailingFrame = frameWith(trailing);
	send(trailingFrame.data(), trailingFrame.size());
	// Two parts.
	std::vector<uint8> good = frameWith(body);
	send(good.data(), good.size(), ZMQ_SNDMORE);
	send(good.data(), good.size());

	ASSERT_TRUE(notices.Wait());
	const std::vector<std::string> reasons = notices.Reasons();
	EXPECT_EQ(reasons.size(), 8u);
	for (const std::string& reason : reasons)
		EXPECT_EQ(reason, "malformed");

	// The receiver still serves, and the good frame from the raw socket is
	// delivered.
	zvtest::Latch delivered(1);
	SetReceive([&](ZvMessage* message) {
		if (message->what == kNote)
			delivered.CountDown();
		Echo(message);
	});
	send(good.data(), good.size());
	EXPECT_TRUE(delivered.WaitFor(10s));
	ZvMessage reply(static_cast<uint32>(0));
	EXPECT_EQ(fRef.SendMessage(kEcho, &reply, 10000000), B_OK);
	zv_remote_stats stats;
	ASSERT_EQ(fServer.GetStats(&stats), B_OK);
	EXPECT_EQ(stats.refusedMalformed, 8u);
	EXPECT_EQ(stats.postsDelivered, 1u);

	// The raw socket's disconnect is not this test's business: its notice
	// must not reach a report looper that is about to end.
	fServer.SetReportTarget(ZvLooperRef());
	int linger = 0;
	zmq_setsockopt(raw, ZMQ_LINGER, &linger, sizeof(linger));
	zmq_close(raw);
	zmq_ctx_term(context);
}

TEST_F(RemotePair, MalformedBatchesAreRefusedWholeAndCountedOnce)
{
	NoticeBox notices(8);
	RunningLooper reports([&](ZvMessage* message) { notices.Take(message); });
	fServer.SetReportTarget(reports.Ref());
	NumberLog delivered(2);
	SetReceive([&](ZvMessage* message) { delivered.Record(message); });
	RawDealer raw(fAddress);
	ASSERT_TRUE(raw.IsConnected());
	const ZvMessage first = Numbered(0);
	const ZvMessage second = Numbered(1);
	const std::vector<uint8> good = HandFrame(1, "service", &first);

	ASSERT_TRUE(raw.Send(HandBatch({good}, 0)));    // no frames
	ASSERT_TRUE(raw.Send(HandBatch({good}, 2)));    // fewer entries than counted
	ASSERT_TRUE(raw.Send(HandBatch({good}, 1025))); // over the count limit
	std::vector<uint8> trailing = HandBatch({good});
	trailing.push_back(0);
	ASSERT_TRUE(raw.Send(trailing)); // bytes after the last entry
	std::vector<uint8> pastEnd = HandBatch({good});
	std::memset(pastEnd.data() + 24, 0xFF, 4);
	ASSERT_TRUE(raw.Send(pastEnd)); // an entry longer than the batch
	std::vector<uint8> argument = HandBatch({good});
	argument[16] = 1;
	ASSERT_TRUE(raw.Send(argument)); // the argument field is not zero
	// A name in the header: the bytes after it do not split into entries.
	std::vector<uint8> named = HandBatch({good});
	named[6] = 4;
	ASSERT_TRUE(raw.Send(named));
	// Over 64 KiB in all, under ZeroMQ's own limit.
	ASSERT_TRUE(raw.Send(HandBatch({std::vector<uint8>(66000, 0x5A)})));

	ASSERT_TRUE(notices.Wait());
	std::vector<std::string> reasons = notices.Reasons();
	std::sort(reasons.begin(), reasons.end());
	std::vector<std::string> expected(7, "malformed");
	expected.push_back("oversized");
	EXPECT_EQ(reasons, expected);

	// A good batch from the same socket is delivered, in order.
	ASSERT_TRUE(raw.Send(HandBatch({good, HandFrame(1, "service", &second)})));
	ASSERT_TRUE(delivered.WaitFor(10s));
	EXPECT_EQ(delivered.Seen(), (std::vector<int32>{0, 1}));
	zv_remote_stats stats;
	ASSERT_EQ(fServer.GetStats(&stats), B_OK);
	EXPECT_EQ(stats.refusedMalformed, 7u);
	EXPECT_EQ(stats.refusedOversized, 1u);
	EXPECT_TRUE(zvtest::WaitUntil([&] {
		fServer.GetStats(&stats);
		return stats.postsDelivered == 2u;
	}));
	// Each refused batch counts as one frame, each frame of the good one.
	EXPECT_EQ(stats.framesReceived, 10u);
	fServer.SetReportTarget(ZvLooperRef());
}

TEST_F(RemotePair, EachFrameInABatchIsCheckedAndCountedOnItsOwn)
{
	NoticeBox notices(5);
	RunningLooper reports([&](ZvMessage* message) { notices.Take(message); });
	fServer.SetReportTarget(reports.Ref());
	ASSERT_EQ(fServer.SetMaxFrameSize(4096), B_OK);
	NumberLog delivered(3);
	SetReceive([&](ZvMessage* message) {
		if (message->what == kEcho)
			Echo(message);
		else
			delivered.Record(message);
	});
	RawDealer raw(fAddress);
	ASSERT_TRUE(raw.IsConnected());

	const ZvMessage zero = Numbered(0);
	const ZvMessage one = Numbered(1);
	const ZvMessage two = Numbered(2);
	std::vector<uint8> cut = HandFrame(1, "service", &zero);
	cut.resize(cut.size() - 3);
	const ZvMessage ninetyNine = Numbered(99);
	ZvMessage big(kSequence);
	big.AddString("bytes", std::string(5000, 'x').c_str());
	ZvMessage echo(kEcho);
	echo.AddInt32("n", 7);
	ASSERT_TRUE(raw.Send(HandBatch({
	    HandFrame(1, "service", &zero),
	    cut,                                               // malformed
	    HandBatch({HandFrame(1, "service", &ninetyNine)}), // nested: malformed
	    HandFrame(3, nullptr, &zero, 5, B_OK),             // an answer: malformed
	    HandFrame(1, "service", &one),
	    HandFrame(1, "service", &big),          // oversized
	    HandFrame(2, "service", &echo, 77, -1), // a request
	    HandFrame(1, "nobody", &zero),          // unknown target
	    HandFrame(1, "service", &two),
	})));

	ASSERT_TRUE(delivered.WaitFor(10s));
	EXPECT_EQ(delivered.Seen(), (std::vector<int32>{0, 1, 2}));
	// The request in the batch is answered to the raw socket.
	const std::vector<uint8> answer = raw.Receive();
	ASSERT_GE(answer.size(), 24u);
	EXPECT_EQ(answer[4], 3);
	uint64 request = 0;
	int64 status = -1;
	std::memcpy(&request, answer.data() + 8, 8);
	std::memcpy(&status, answer.data() + 16, 8);
	EXPECT_EQ(request, 77u);
	EXPECT_EQ(status, B_OK);
	ZvMessage reply(static_cast<uint32>(0));
	ASSERT_EQ(reply.Unflatten(answer.data() + 24, answer.size() - 24, ZV_HOST_ENDIAN), B_OK);
	int32 n = 0;
	EXPECT_TRUE(reply.FindInt32("n", &n));
	EXPECT_EQ(n, 7);

	ASSERT_TRUE(notices.Wait());
	std::vector<std::string> reasons = notices.Reasons();
	std::sort(reasons.begin(), reasons.end());
	EXPECT_EQ(reasons, (std::vector<std::string>{"malformed", "malformed", "malformed", "oversized",
	                                             "unknown target"}));
	zv_remote_stats stats;
	EXPECT_TRUE(zvtest::WaitUntil([&] {
		fServer.GetStats(&stats);
		return stats.postsDelivered == 3u && stats.requestsAnswered == 1u;
	}));
	EXPECT_EQ(stats.framesReceived, 9u);
	EXPECT_EQ(stats.refusedMalformed, 3u);
	EXPECT_EQ(stats.refusedOversized, 1u);
	EXPECT_EQ(stats.refusedUnknownTarget, 1u);
	fServer.SetReportTarget(ZvLooperRef());
}

TEST(ZvRemoteEndpoint, PostsQueuedWhileThePeerIsAwayGoInBatchesAndKeepTheirOrder)
{
	zvtest::Watchdog watchdog(60s, "batches");
	// More posts than ZeroMQ queues for an absent peer (10,000 frames): the
	// rest wait in the endpoint and go as batches when the peer comes.
	constexpr int32 kCount = 25000;
	SocketFolder folder;
	ASSERT_TRUE(folder.IsValid());
	const std::string address = folder.Address("late");
	ZvRemoteEndpoint client;
	ASSERT_EQ(client.SetQueueLimit(kCount), B_OK);
	ZvRemoteRef ref;
	ASSERT_EQ(client.Connect(address.c_str(), "sink", &ref), B_OK);
	for (int32 n = 0; n < kCount; n++) {
		const ZvMessage message = Numbered(n);
		ASSERT_EQ(ref.PostMessage(&message, 10000000), B_OK);
	}

	void* context = zmq_ctx_new();
	void* router = zmq_socket(context, ZMQ_ROUTER);
	const int wait = 10000;
	zmq_setsockopt(router, ZMQ_RCVTIMEO, &wait, sizeof(wait));
	ASSERT_EQ(zmq_bind(router, address.c_str()), 0);
	int32 next = 0;
	int32 batches = 0;
	size_t largest = 0;
	bool wellFormed = true;
	const auto readPost = [&](const uint8* frame, size_t size) {
		if (size < 28 || frame[4] != 1 || frame[6] != 4 || std::memcmp(frame + 24, "sink", 4) != 0)
			return false;
		ZvMessage message(static_cast<uint32>(0));
		int32 n = -1;
		if (message.Unflatten(frame + 28, size - 28, ZV_HOST_ENDIAN) != B_OK ||
		    !message.FindInt32("n", &n) || n != next)
			return false;
		next++;
		return true;
	};
	while (next < kCount && wellFormed) {
		zmq_msg_t identity;
		zmq_msg_t body;
		zmq_msg_init(&identity);
		zmq_msg_init(&body);
		if (zmq_msg_recv(&identity, router, 0) < 0 || zmq_msg_recv(&body, router, 0) < 0) {
			zmq_msg_close(&identity);
			zmq_msg_close(&body);
			break;
		}
		const uint8* data = static_cast<const uint8*>(zmq_msg_data(&body));
		const size_t size = zmq_msg_size(&body);
		if (size >= 24 && data[4] == 4) {
			batches++;
			largest = std::max(largest, size);
			uint64 count = 0;
			std::memcpy(&count, data + 8, 8);
			size_t at = 24;
			for (uint64 i = 0; i < count && wellFormed; i++) {
				uint32 length = 0;
				wellFormed = at + 4 <= size;
				if (wellFormed) {
					std::memcpy(&length, data + at, 4);
					wellFormed = at + 4 + length <= size && readPost(data + at + 4, length);
				}
				at += 4 + length;
			}
			wellFormed = wellFormed && at == size;
		} else {
			wellFormed = readPost(data, size);
		}
		zmq_msg_close(&identity);
		zmq_msg_close(&body);
	}
	EXPECT_TRUE(wellFormed) << "at post " << next;
	EXPECT_EQ(next, kCount);
	EXPECT_GE(batches, 1);
	EXPECT_LE(largest, 64u * 1024);
	zv_remote_stats stats;
	EXPECT_TRUE(zvtest::WaitUntil([&] {
		client.GetStats(&stats);
		return stats.framesSent == static_cast<uint64>(kCount);
	}));

	const int linger = 0;
	zmq_setsockopt(router, ZMQ_LINGER, &linger, sizeof(linger));
	zmq_close(router);
	zmq_ctx_term(context);
}

TEST_F(RemotePair, ConnectionsMadeAndLostAreCountedAndReported)
{
	zvtest::Latch connected(1);
	zvtest::Latch disconnected(1);
	RunningLooper reports([&](ZvMessage* message) {
		if (message->what == static_cast<uint32>(ZV_REMOTE_CONNECTED))
			connected.CountDown();
		else if (message->what == static_cast<uint32>(ZV_REMOTE_DISCONNECTED))
			disconnected.CountDown();
	});
	fServer.SetReportTarget(reports.Ref());
	SetReceive(Echo);
	{
		ZvRemoteEndpoint client;
		ZvRemoteRef ref;
		ASSERT_EQ(client.Connect(fAddress.c_str(), "service", &ref), B_OK);
		ZvMessage reply(static_cast<uint32>(0));
		ASSERT_EQ(ref.SendMessage(kEcho, &reply, 10000000), B_OK);
		EXPECT_TRUE(connected.WaitFor(10s));
	}
	EXPECT_TRUE(disconnected.WaitFor(10s));
	zv_remote_stats stats;
	ASSERT_EQ(fServer.GetStats(&stats), B_OK);
	// fClient's connection and the one that came and went.
	EXPECT_GE(stats.connects, 1u);
	EXPECT_GE(stats.disconnects, 1u);
	fServer.SetReportTarget(ZvLooperRef());
}

TEST_F(RemotePair, RefsOutliveTheirEndpointSafely)
{
	ZvRemoteRef ref;
	{
		ZvRemoteEndpoint shortLived;
		ASSERT_EQ(shortLived.Connect(fAddress.c_str(), "service", &ref), B_OK);
		EXPECT_TRUE(ref.IsValid());
	}
	EXPECT_FALSE(ref.IsValid());
	ZvMessage reply(static_cast<uint32>(0));
	EXPECT_EQ(ref.PostMessage(kNote), B_BAD_VALUE);
	EXPECT_EQ(ref.SendMessage(kEcho, &reply, 1000000), B_BAD_VALUE);
}

TEST_F(RemotePair, ASenderWaitingForAnAnswerIsReleasedWhenItsEndpointCloses)
{
	SetReceive([&](ZvMessage* message) {
		fHolding.CountDown();
		fRelease.WaitFor(10s);
		Echo(message);
	});
	auto client = std::make_unique<ZvRemoteEndpoint>();
	ZvRemoteRef ref;
	ASSERT_EQ(client->Connect(fAddress.c_str(), "service", &ref), B_OK);
	std::atomic<status_t> result{B_OK};
	std::thread waiter([&] {
		ZvMessage reply(static_cast<uint32>(0));
		result.store(ref.SendMessage(kEcho, &reply));
	});
	ASSERT_TRUE(fHolding.WaitFor(10s));
	client.reset();
	waiter.join();
	EXPECT_EQ(result.load(), B_BAD_VALUE);
	fRelease.CountDown();
}

TEST(ZvRemoteEndpoint, BadArgumentsAreRefused)
{
	SocketFolder folder;
	ZvRemoteEndpoint endpoint;
	ZvRemoteRef ref;
	RunningLooper looper([](ZvMessage*) {});
	EXPECT_FALSE(ref.IsValid());
	EXPECT_STREQ(ref.Name(), "");
	EXPECT_EQ(ref.PostMessage(kNote), B_BAD_VALUE);
	EXPECT_EQ(endpoint.Bind(nullptr), B_BAD_VALUE);
	EXPECT_EQ(endpoint.Bind("nonsense://here"), B_BAD_VALUE);
	EXPECT_EQ(endpoint.Connect("nonsense://here", "x", &ref), B_BAD_VALUE);
	EXPECT_EQ(endpoint.Connect(folder.Address("a").c_str(), "", &ref), B_BAD_VALUE);
	EXPECT_EQ(endpoint.Connect(folder.Address("a").c_str(), "x", nullptr), B_BAD_VALUE);
	const std::string longName(ZV_REMOTE_NAME_LENGTH + 1, 'n');
	EXPECT_EQ(endpoint.Connect(folder.Address("a").c_str(), longName.c_str(), &ref), B_BAD_VALUE);
	EXPECT_EQ(endpoint.Publish(longName.c_str(), looper.Ref()), B_BAD_VALUE);
	EXPECT_EQ(endpoint.Publish("x", ZvLooperRef()), B_BAD_VALUE);
	EXPECT_EQ(endpoint.Publish("x", looper.Ref()), B_OK);
	EXPECT_EQ(endpoint.Publish("x", looper.Ref()), B_NAME_IN_USE);
	EXPECT_EQ(endpoint.GetStats(nullptr), B_BAD_VALUE);
	EXPECT_EQ(endpoint.SetQueueLimit(0), B_BAD_VALUE);
	EXPECT_EQ(endpoint.SetLinger(-1), B_BAD_VALUE);
	ASSERT_EQ(endpoint.Connect(folder.Address("a").c_str(), "x", &ref), B_OK);
	EXPECT_STREQ(ref.Name(), "x");
	EXPECT_EQ(ref.PostMessage(nullptr), B_BAD_VALUE);
	ZvMessage reply(static_cast<uint32>(0));
	EXPECT_EQ(ref.SendMessage(nullptr, &reply), B_BAD_VALUE);
	EXPECT_EQ(ref.SendMessage(kEcho, nullptr), B_BAD_VALUE);
}

TEST(ZvRemoteEndpoint, ATakenAddressIsNameInUse)
{
	SocketFolder folder;
	ZvRemoteEndpoint first;
	ZvRemoteEndpoint second;
	ASSERT_EQ(first.Bind("tcp://127.0.0.1:*"), B_OK);
	// A tcp port cannot be bound twice; ipc paths are simply taken over.
	char port[64] = {};
	ASSERT_EQ(first.Bind(folder.Address("first").c_str()), B_OK);
	ZvRemoteEndpoint probe;
	void* context = zmq_ctx_new();
	void* socket = zmq_socket(context, ZMQ_ROUTER);
	ASSERT_EQ(zmq_bind(socket, "tcp://127.0.0.1:*"), 0);
	size_t length = sizeof(port);
	ASSERT_EQ(zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, port, &length), 0);
	EXPECT_EQ(second.Bind(port), B_NAME_IN_USE);
	zmq_close(socket);
	zmq_ctx_term(context);
}

TEST(ZvRemoteEndpoint, AFullSendQueueGivesWouldBlockOrTimedOutLikeALocalRef)
{
	zvtest::Watchdog watchdog(60s, "full send queue");
	SocketFolder folder;
	ZvRemoteEndpoint endpoint;
	ASSERT_EQ(endpoint.SetQueueLimit(1), B_OK);
	ASSERT_EQ(endpoint.SetLinger(0), B_OK);
	ZvRemoteRef ref;
	// Nobody listens: ZeroMQ keeps the frames for the peer until its own
	// queue is full, then they stay in the endpoint's.
	ASSERT_EQ(endpoint.Connect(folder.Address("nobody").c_str(), "x", &ref), B_OK);
	int32 accepted = 0;
	status_t status = B_OK;
	while (accepted < 40000) {
		status = ref.PostMessage(kNote, 1000000);
		if (status != B_OK)
			break;
		accepted++;
	}
	EXPECT_EQ(status, B_TIMED_OUT);
	EXPECT_GE(accepted, 10000);
	EXPECT_EQ(ref.PostMessage(kNote, 0), B_WOULD_BLOCK);
}
