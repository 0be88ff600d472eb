// The remote endpoint between two real processes: the test and the peer
// program (tests/remote/peer), over ipc:// sockets in a private folder and
// over tcp on 127.0.0.1.
#include <ZvMessage.h>
#include <ZvRemote.h>

#include "Polling.h"
#include "RemoteTestSupport.h"

#include <gtest/gtest.h>

#include <zmq.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

using namespace remote_test;
using namespace std::chrono_literals;

namespace {

constexpr bigtime_t kAnswerTime = 10000000; // 10 s

int64 Counter(const ZvMessage& stats, const char* name)
{
	int64 value = -1;
	stats.FindInt64(name, &value);
	return value;
}

} // namespace

TEST(RemoteProcesses, FourSenderProcessesDeliver100000MessagesInOrderWithNoneLost)
{
	// 4 sender processes post 25,000 messages each: 100,000 in total, one
	// receiving looper, each sender's order checked.
	zvtest::Watchdog watchdog(290s, "four senders");
	constexpr int kSenders = 4;
	constexpr int32 kEach = 25000;
	static_assert(kSenders * kEach == 100000, "100,000 messages in all");
	SocketFolder folder;
	ASSERT_TRUE(folder.IsValid());
	const std::string address = folder.Address("sink");

	std::mutex lock;
	std::vector<int32> next(kSenders, 0);
	std::atomic<int32> outOfOrder{0};
	std::atomic<int32> strangers{0};
	zvtest::Latch finished(kSenders);
	RunningLooper sink(
	    [&](ZvMessage* message) {
		    int32 sender = -1;
		    int32 seq = -1;
		    message->FindInt32("sender", &sender);
		    if (sender < 0 || sender >= kSenders) {
			    strangers.fetch_add(1);
			    return;
		    }
		    if (message->what == kDone) {
			    ZvMessage answer(kDone);
			    message->SendReply(&answer);
			    finished.CountDown();
			    return;
		    }
		    message->FindInt32("seq", &seq);
		    std::lock_guard<std::mutex> hold(lock);
		    if (seq != next[sender])
			    outOfOrder.fetch_add(1);
		    next[sender] = seq + 1;
	    },
	    5000);
	ZvRemoteEndpoint endpoint;
	ASSERT_EQ(endpoint.Bind(address.c_str()), B_OK);
	ASSERT_EQ(endpoint.Publish("sink", sink.Ref()), B_OK);

	std::vector<std::unique_ptr<PeerProcess>> senders;
	for (int s = 0; s < kSenders; s++) {
		senders.push_back(std::make_unique<PeerProcess>(std::initializer_list<std::string>{
		    "send", address, "sink", std::to_string(s), std::to_string(kEach)}));
		ASSERT_TRUE(senders.back()->IsRunning());
	}
	ASSERT_TRUE(finished.WaitFor(280s));
	for (auto& sender : senders)
		EXPECT_EQ(sender->Wait(30s), 0);

	EXPECT_EQ(outOfOrder.load(), 0);
	EXPECT_EQ(strangers.load(), 0);
	std::lock_guard<std::mutex> hold(lock);
	for (int s = 0; s < kSenders; s++)
		EXPECT_EQ(next[s], kEach) << "sender " << s;
	zv_remote_stats stats;
	ASSERT_EQ(endpoint.GetStats(&stats), B_OK);
	EXPECT_EQ(stats.postsDelivered, static_cast<uint64>(kSenders) * kEach);
	EXPECT_EQ(stats.requestsAnswered, static_cast<uint64>(kSenders));
	EXPECT_EQ(stats.refusedMalformed + stats.refusedOversized + stats.refusedUnknownTarget, 0u);
}

TEST(RemoteProcesses, RequestsAreAnsweredByTheOtherProcess)
{
	zvtest::Watchdog watchdog(60s, "request and reply");
	SocketFolder folder;
	const std::string address = folder.Address("service");
	PeerProcess peer({"serve", address, "service"});
	ASSERT_TRUE(peer.IsRunning());
	ZvRemoteEndpoint endpoint;
	ZvRemoteRef ref;
	ASSERT_EQ(endpoint.Connect(address.c_str(), "service", &ref), B_OK);
	ZvMessage reply(static_cast<uint32>(0));
	ASSERT_TRUE(WaitForAnswer(ref, 20s, &reply));

	ZvMessage request(kEcho);
	request.AddString("text", "from the test");
	request.AddInt32("n", 99);
	ASSERT_EQ(ref.SendMessage(&request, &reply, kAnswerTime), B_OK);
	EXPECT_EQ(reply.what, kEcho);
	int32 pid = 0;
	int32 n = 0;
	const char* text = nullptr;
	EXPECT_TRUE(reply.FindInt32("pid", &pid));
	EXPECT_EQ(pid, static_cast<int32>(peer.Pid()));
	EXPECT_TRUE(reply.FindInt32("n", &n));
	EXPECT_EQ(n, 99);
	ASSERT_TRUE(reply.FindString("text", &text));
	EXPECT_STREQ(text, "from the test");

	// Posts then a request: the answer counts every post before it.
	for (int i = 0; i < 50; i++)
		ASSERT_EQ(ref.PostMessage(kNote), B_OK);
	ASSERT_EQ(ref.SendMessage(kCount, &reply, kAnswerTime), B_OK);
	int32 notes = 0;
	EXPECT_TRUE(reply.FindInt32("notes", &notes));
	EXPECT_EQ(notes, 50);

	EXPECT_EQ(ref.SendMessage(kIgnore, &reply, kAnswerTime), B_OK);
	EXPECT_EQ(reply.what, ZV_NO_REPLY);

	ZvRemoteRef nobody;
	ASSERT_EQ(endpoint.Connect(address.c_str(), "nobody", &nobody), B_OK);
	EXPECT_EQ(nobody.SendMessage(kEcho, &reply, kAnswerTime), B_BAD_VALUE);
}

TEST(RemoteProcesses, RequestsOverTcpOnTheLoopback)
{
	zvtest::Watchdog watchdog(60s, "tcp");
	// A free port: ask the kernel for one, then let it go for the peer.
	char port[64] = {};
	{
		void* context = zmq_ctx_new();
		void* socket = zmq_socket(context, ZMQ_ROUTER);
		ASSERT_EQ(zmq_bind(socket, "tcp://127.0.0.1:*"), 0);
		size_t length = sizeof(port);
		ASSERT_EQ(zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, port, &length), 0);
		zmq_close(socket);
		zmq_ctx_term(context);
	}
	PeerProcess peer({"serve", port, "service"});
	ZvRemoteEndpoint endpoint;
	ZvRemoteRef ref;
	ASSERT_EQ(endpoint.Connect(port, "service", &ref), B_OK);
	ZvMessage reply(static_cast<uint32>(0));
	ASSERT_TRUE(WaitForAnswer(ref, 20s, &reply));
	int32 pid = 0;
	EXPECT_TRUE(reply.FindInt32("pid", &pid));
	EXPECT_EQ(pid, static_cast<int32>(peer.Pid()));
}

TEST(RemoteProcesses, AReceiverKilledAndRestartedGetsWhatWasPostedMeanwhile)
{
	zvtest::Watchdog watchdog(90s, "restart");
	SocketFolder folder;
	const std::string address = folder.Address("service");
	ZvRemoteEndpoint endpoint;
	ZvRemoteRef ref;
	ASSERT_EQ(endpoint.Connect(address.c_str(), "service", &ref), B_OK);
	ZvMessage reply(static_cast<uint32>(0));
	int32 pid = 0;

	auto first = std::make_unique<PeerProcess>(
	    std::initializer_list<std::string>{"serve", address, "service"});
	ASSERT_TRUE(WaitForAnswer(ref, 20s, &reply));
	EXPECT_TRUE(reply.FindInt32("pid", &pid));
	EXPECT_EQ(pid, static_cast<int32>(first->Pid()));
	first->Kill();
	// Frames handed to the dead receiver's socket before the loss is seen
	// are gone (delivery is at most once); what is sent once the endpoint
	// has counted the disconnect waits for the receiver's return.
	zv_remote_stats stats;
	ASSERT_TRUE(zvtest::WaitUntil([&] {
		endpoint.GetStats(&stats);
		return stats.disconnects >= 1;
	}));

	// Nobody answers now; posts are queued for the receiver's return.
	EXPECT_EQ(ref.SendMessage(kEcho, &reply, 300000), B_TIMED_OUT);
	for (int i = 0; i < 20; i++)
		ASSERT_EQ(ref.PostMessage(kNote, kAnswerTime), B_OK);

	PeerProcess second({"serve", address, "service"});
	ASSERT_TRUE(WaitForAnswer(ref, 20s, &reply));
	EXPECT_TRUE(reply.FindInt32("pid", &pid));
	EXPECT_EQ(pid, static_cast<int32>(second.Pid()));
	ASSERT_EQ(ref.SendMessage(kCount, &reply, kAnswerTime), B_OK);
	int32 notes = 0;
	EXPECT_TRUE(reply.FindInt32("notes", &notes));
	EXPECT_EQ(notes, 20);
	// The request that timed out reached the new receiver too; its answer
	// found nobody waiting. The connection to the first receiver was lost
	// and one to the second made.
	ASSERT_EQ(endpoint.GetStats(&stats), B_OK);
	EXPECT_GE(stats.lateReplies, 1u);
	EXPECT_TRUE(zvtest::WaitUntil([&] {
		endpoint.GetStats(&stats);
		return stats.connects >= 2 && stats.disconnects >= 1;
	}));
}

TEST(RemoteProcesses, GarbageFromARawSocketDoesNotStopTheOtherProcess)
{
	zvtest::Watchdog watchdog(60s, "garbage");
	SocketFolder folder;
	const std::string address = folder.Address("service");
	PeerProcess peer({"serve", address, "service"});
	ZvRemoteEndpoint endpoint;
	ZvRemoteRef ref;
	ASSERT_EQ(endpoint.Connect(address.c_str(), "service", &ref), B_OK);
	ZvMessage reply(static_cast<uint32>(0));
	ASSERT_TRUE(WaitForAnswer(ref, 20s, &reply));

	void* context = zmq_ctx_new();
	void* raw = zmq_socket(context, ZMQ_DEALER);
	ASSERT_EQ(zmq_connect(raw, address.c_str()), 0);
	// Random bytes of random sizes, some with the right magic, and one over
	// the peer's 64 KiB limit.
	uint32 seed = 12345;
	const auto random = [&] {
		seed = seed * 1103515245u + 12345u;
		return seed >> 8;
	};
	constexpr int kFrames = 200;
	for (int i = 0; i < kFrames; i++) {
		std::vector<uint8> bytes(random() % 300);
		for (uint8& byte : bytes)
			byte = static_cast<uint8>(random());
		if (i % 2 == 0 && bytes.size() >= 8) {
			std::memcpy(bytes.data(), "ZvRm", 4);
			bytes[4] = static_cast<uint8>(1 + random() % 2);
			bytes[5] = static_cast<uint8>(random() % 2);
			bytes[6] = 0;
			bytes[7] = 0;
		}
		ASSERT_GE(zmq_send(raw, bytes.data(), bytes.size(), 0), 0);
	}
	std::vector<uint8> big(100000, 0);
	std::memcpy(big.data(), "ZvRm", 4);
	big[4] = 1;
	ASSERT_GE(zmq_send(raw, big.data(), big.size(), 0), 0);

	// The raw socket's frames are handled before any that comes after
	// them only per connection; ask until the peer has read all of them.
	int64 refused = 0;
	ZvMessage stats(static_cast<uint32>(0));
	const auto deadline = std::chrono::steady_clock::now() + 20s;
	while (std::chrono::steady_clock::now() < deadline) {
		ASSERT_EQ(ref.SendMessage(kStats, &stats, kAnswerTime), B_OK);
		refused =
		    Counter(stats, "oversized") + Counter(stats, "malformed") + Counter(stats, "unknown");
		if (refused >= kFrames + 1)
			break;
	}
	EXPECT_EQ(refused, kFrames + 1);
	EXPECT_EQ(Counter(stats, "oversized"), 1);
	EXPECT_EQ(waitpid(peer.Pid(), nullptr, WNOHANG), 0) << "the peer ended";

	int linger = 0;
	zmq_setsockopt(raw, ZMQ_LINGER, &linger, sizeof(linger));
	zmq_close(raw);
	zmq_ctx_term(context);
}
