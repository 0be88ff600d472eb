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
	zvtest::Latch all(kCount);
	std::vector<int32> seen;
	SetReceive([&](ZvMessage* message) {
		int32 n = -1;
		message->FindInt32("n", &n);
		seen.push_back(n);
		all.CountDown();
	});
	for (int32 n = 0; n < kCount; n++) {
		ZvMessage message(kSequence);
		message.AddInt32("n", n);
		ASSERT_EQ(fRef.PostMessage(&message), B_OK);
	}
	ASSERT_TRUE(all.WaitFor(30s));
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

	int linger = 0;
	zmq_setsockopt(raw, ZMQ_LINGER, &linger, sizeof(linger));
	zmq_close(raw);
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
