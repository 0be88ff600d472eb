// The remote endpoint against raw ZeroMQ sending the same bytes.
//
// Both sides run in this process over an ipc:// socket in a private
// folder, each endpoint with its own I/O thread, as two processes would.
//
//  - Throughput: a batch of posts, timed until the receiving looper has
//    dispatched the last one. The peer sends the same frames (header, name
//    and flattened message, built once) from a DEALER to a ROUTER whose
//    thread receives (copies out) and counts them, one ZeroMQ message per
//    post as a raw ZeroMQ program sends them. The bridge gathers the posts
//    a sender makes while its I/O thread is busy into batch frames: the
//    same bytes plus a 4-byte length each and a header per batch.
//  - RoundTrip: one request and its answer at a time. The peer's ROUTER
//    thread sends each frame straight back.
#include <ZvLooper.h>
#include <ZvLooperRef.h>
#include <ZvMessage.h>
#include <ZvRemote.h>

#include <benchmark/benchmark.h>

#include <zmq.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <stdlib.h>
#include <unistd.h>

namespace {

constexpr int32 kBatch = 20000;
constexpr int32 kRoundTrips = 200;
constexpr uint32 kWhat = 0x53455120; // 'SEQ '

// The message both sides move: a what, a sequence number and a short text.
ZvMessage SampleMessage()
{
	ZvMessage message(kWhat);
	message.AddInt32("seq", 12345);
	message.AddString("text", "hello from the other side");
	return message;
}

// The bytes the endpoint puts on the wire for SampleMessage aimed at
// "sink": a 24-byte header, the name, the flattened message.
std::vector<uint8> SampleFrame()
{
	const ZvMessage message = SampleMessage();
	std::vector<uint8> frame(24 + 4 + message.FlattenedSize(), 0);
	std::memcpy(frame.data(), "ZvRm", 4);
	frame[4] = 1;
	frame[6] = 4;
	std::memcpy(frame.data() + 24, "sink", 4);
	message.Flatten(frame.data() + 28);
	return frame;
}

class Folder
{
public:
	Folder()
	{
		char pattern[] = "/tmp/zvremote-bench-XXXXXX";
		fPath = mkdtemp(pattern);
	}
	~Folder()
	{
		unlink((fPath + "/socket").c_str());
		rmdir(fPath.c_str());
	}
	std::string Address() const { return "ipc://" + fPath + "/socket"; }

private:
	std::string fPath;
};

// Counts down to zero, then wakes the waiter.
class Countdown
{
public:
	void Reset(int32 count)
	{
		std::lock_guard<std::mutex> hold(fLock);
		fCount = count;
	}
	void Tick()
	{
		std::lock_guard<std::mutex> hold(fLock);
		if (--fCount == 0)
			fZero.notify_all();
	}
	void Wait()
	{
		std::unique_lock<std::mutex> hold(fLock);
		fZero.wait(hold, [this] { return fCount <= 0; });
	}

private:
	std::mutex fLock;
	std::condition_variable fZero;
	int32 fCount = 0;
};

class SinkLooper : public ZvLooper
{
public:
	explicit SinkLooper(Countdown* countdown)
	    : ZvLooper("sink", ZV_NORMAL_PRIORITY, 10000), fCountdown(countdown)
	{
	}
	void MessageReceived(ZvMessage* message) override
	{
		if (message->IsSourceWaiting()) {
			message->SendReply(message);
			return;
		}
		fCountdown->Tick();
	}

private:
	Countdown* fCountdown;
};

// A service endpoint with a sink looper, and a client with a ref to it.
struct Bridge
{
	Bridge() : looper(new SinkLooper(&countdown))
	{
		looper->Run();
		server.Bind(folder.Address().c_str());
		server.Publish("sink", ZvLooperRef(looper));
		client.Connect(folder.Address().c_str(), "sink", &ref);
	}
	~Bridge() { looper->Quit(); }

	Folder folder;
	Countdown countdown;
	SinkLooper* looper;
	ZvRemoteEndpoint server;
	ZvRemoteEndpoint client;
	ZvRemoteRef ref;
};

// A DEALER and a ROUTER, each with a context (and so a ZeroMQ I/O thread)
// of its own, as in two processes and as the two endpoints of a Bridge; the
// ROUTER's thread counts frames or echoes them until it receives a
// one-byte frame.
struct RawPair
{
	explicit RawPair(bool echo) : context(zmq_ctx_new()), peerContext(zmq_ctx_new())
	{
		router = zmq_socket(peerContext, ZMQ_ROUTER);
		dealer = zmq_socket(context, ZMQ_DEALER);
		const int hwm = 10000;
		for (void* socket : {router, dealer}) {
			zmq_setsockopt(socket, ZMQ_SNDHWM, &hwm, sizeof(hwm));
			zmq_setsockopt(socket, ZMQ_RCVHWM, &hwm, sizeof(hwm));
		}
		zmq_bind(router, folder.Address().c_str());
		zmq_connect(dealer, folder.Address().c_str());
		thread = std::thread([this, echo] {
			char identity[256];
			std::vector<uint8> buffer(65536);
			for (;;) {
				const int idLength = zmq_recv(router, identity, sizeof(identity), 0);
				const int size = zmq_recv(router, buffer.data(), buffer.size(), 0);
				if (idLength < 0 || size <= 1)
					return;
				if (echo) {
					zmq_send(router, identity, idLength, ZMQ_SNDMORE);
					zmq_send(router, buffer.data(), size, 0);
				} else {
					countdown.Tick();
				}
			}
		});
	}
	~RawPair()
	{
		zmq_send(dealer, "q", 1, 0);
		thread.join();
		const int linger = 0;
		zmq_setsockopt(dealer, ZMQ_LINGER, &linger, sizeof(linger));
		zmq_setsockopt(router, ZMQ_LINGER, &linger, sizeof(linger));
		zmq_close(dealer);
		zmq_close(router);
		zmq_ctx_term(context);
		zmq_ctx_term(peerContext);
	}

	Folder folder;
	Countdown countdown;
	void* context;
	void* peerContext;
	void* router;
	void* dealer;
	std::thread thread;
};

void Throughput_zvkit(benchmark::State& state)
{
	Bridge bridge;
	const ZvMessage message = SampleMessage();
	for (auto _ : state) {
		bridge.countdown.Reset(kBatch);
		for (int32 i = 0; i < kBatch; i++)
			bridge.ref.PostMessage(&message);
		bridge.countdown.Wait();
	}
	state.SetItemsProcessed(state.iterations() * kBatch);
}

void Throughput_zeromq(benchmark::State& state)
{
	RawPair raw(false);
	const std::vector<uint8> frame = SampleFrame();
	for (auto _ : state) {
		raw.countdown.Reset(kBatch);
		for (int32 i = 0; i < kBatch; i++)
			zmq_send(raw.dealer, frame.data(), frame.size(), 0);
		raw.countdown.Wait();
	}
	state.SetItemsProcessed(state.iterations() * kBatch);
}

void RoundTrip_zvkit(benchmark::State& state)
{
	Bridge bridge;
	const ZvMessage message = SampleMessage();
	ZvMessage reply(static_cast<uint32>(0));
	for (auto _ : state) {
		for (int32 i = 0; i < kRoundTrips; i++) {
			if (bridge.ref.SendMessage(&message, &reply) != B_OK)
				state.SkipWithError("request failed");
		}
	}
	state.SetItemsProcessed(state.iterations() * kRoundTrips);
}

void RoundTrip_zeromq(benchmark::State& state)
{
	RawPair raw(true);
	const std::vector<uint8> frame = SampleFrame();
	std::vector<uint8> back(frame.size() + 16);
	for (auto _ : state) {
		for (int32 i = 0; i < kRoundTrips; i++) {
			zmq_send(raw.dealer, frame.data(), frame.size(), 0);
			zmq_recv(raw.dealer, back.data(), back.size(), 0);
		}
	}
	state.SetItemsProcessed(state.iterations() * kRoundTrips);
}

} // namespace

BENCHMARK(Throughput_zvkit)->Name("Throughput:zvkit")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Throughput_zeromq)
    ->Name("Throughput:zeromq")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(RoundTrip_zvkit)->Name("RoundTrip:zvkit")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(RoundTrip_zeromq)->Name("RoundTrip:zeromq")->UseRealTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
