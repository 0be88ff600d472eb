// Looper framework benchmarks.
//
// Placement. The machine these run on has two processors shared with other
// work, and a producer/consumer pair swings between two regimes depending
// on where the scheduler puts it: on two processors, the two sides run at
// once and meet on shared cache lines (and a consumer that catches up goes
// to sleep, so that each post has to wake it); on one processor they take
// turns in long slices, with no meeting at all. Asio's post, for one, is
// twice as fast in the second regime as in the first, and runs that mixed
// the two gave ratios from 0.5 to 2. So every case with two threads pins
// them: the producer (or sender) on processor 0 and the consumer on
// processor 1 ("apart", the plain case names), and, for the throughput
// cases, both on processor 0 ("OneCpu" names). "Unpinned" cases leave
// placement to the scheduler, as before, for reference.
//
// Throughput: one producer posts small messages (two int32 fields) to one
// consumer thread that counts them; one iteration is a batch of kBatch
// messages, timed until the consumer has counted the last one. Peers:
// Boost.Asio's io_context::post to a thread running the context, and a
// std::mutex + std::condition_variable queue of heap-allocated messages.
//
// Ping-pong: two loopers whose handlers post each message back to the
// other; one iteration is kRoundTrips round trips. Peer: two threads
// bouncing between two POSIX semaphores (sem_t).
//
// Through a small bound: the throughput case with a bound of 16, under the
// opt-in release policy ("ReleaseBelowBound", the ZvKit side) beside the
// specified soft bound ("soft_bound"), with one producer (several producers
// may be stranded for good under the soft bound); and eight producers under
// the opt-in policy alone.
//
// Refs: the throughput case posted through a ZvLooperRef to the handler,
// against ZvLooper::PostMessage itself ("RefPost"); and kRoundTrips
// requests answered by a looper's handler (ZvLooperRef::SendMessage and
// ZvMessage::SendReply), against the looper ping-pong ("RequestReply").

#include <ZvHandler.h>
#include <ZvLooper.h>
#include <ZvLooperRef.h>
#include <ZvMessage.h>

#include <benchmark/benchmark.h>

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#ifdef ZVKIT_HAVE_ASIO
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#endif

namespace {

constexpr int kBatch = 10000;
constexpr int kRoundTrips = 1000;
// The looper's soft bound for the throughput case: above a batch, so that
// the producer never waits on it, as nothing bounds the peers' queues.
constexpr int32 kQueueCapacity = 2 * kBatch;

// A POSIX semaphore as a one-shot "batch done" signal.
class Signal
{
public:
	Signal() { sem_init(&fSem, 0, 0); }
	~Signal() { sem_destroy(&fSem); }
	void Raise() { sem_post(&fSem); }
	void Wait()
	{
		while (sem_wait(&fSem) != 0) {
		}
	}

private:
	sem_t fSem;
};

// Where the two threads of a case run (see Placement at the top).
enum Placement
{
	kApart,
	kOneCpu,
	kUnpinned
};

const int kProducerCpu = 0;
int ConsumerCpu(Placement placement)
{
	return placement == kOneCpu ? 0 : 1;
}

// Pins the calling thread to cpu; a negative cpu lets it run anywhere.
void PinThisThread(int cpu)
{
	cpu_set_t set;
	CPU_ZERO(&set);
	if (cpu < 0) {
		for (int i = 0; i < CPU_SETSIZE; i++)
			CPU_SET(i, &set);
	} else {
		CPU_SET(cpu, &set);
	}
	pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
}

// Pins the producer for the life of a case and lets it go afterwards.
class ProducerPlacement
{
public:
	explicit ProducerPlacement(Placement placement) : fPinned(placement != kUnpinned)
	{
		if (fPinned)
			PinThisThread(kProducerCpu);
	}
	~ProducerPlacement()
	{
		if (fPinned)
			PinThisThread(-1);
	}

private:
	bool fPinned;
};

// Pins a running looper's thread to cpu: a handler attached for the
// purpose pins the thread that runs it.
class PinHandler : public ZvHandler
{
public:
	PinHandler(int cpu) : ZvHandler("pin"), fCpu(cpu) {}
	void MessageReceived(ZvMessage*) override
	{
		PinThisThread(fCpu);
		fDone.Raise();
	}
	void Wait() { fDone.Wait(); }

private:
	int fCpu;
	Signal fDone;
};

void PinLooper(ZvLooper* looper, Placement placement)
{
	if (placement == kUnpinned)
		return;
	PinHandler pin(ConsumerCpu(placement));
	looper->AddHandler(&pin);
	looper->PostMessage(1, &pin);
	pin.Wait();
	looper->RemoveHandler(&pin);
}

// Counts messages and raises the signal at each multiple of kBatch.
class Counter
{
public:
	explicit Counter(Signal* done) : fDone(done) {}
	void Count(int32 a, int32 b)
	{
		fSum += a ^ b;
		if (++fCount % kBatch == 0)
			fDone->Raise();
	}
	int64_t Sum() const { return fSum; }

private:
	Signal* fDone;
	int64_t fCount = 0;
	int64_t fSum = 0;
};

class CountingHandler : public ZvHandler
{
public:
	explicit CountingHandler(Counter* counter) : ZvHandler("counter"), fCounter(counter) {}
	void MessageReceived(ZvMessage* message) override
	{
		int32 a = 0, b = 0;
		message->FindInt32("a", &a);
		message->FindInt32("b", &b);
		fCounter->Count(a, b);
	}

private:
	Counter* fCounter;
};

// Posts batches of small messages to a looper's counting handler, each
// with post(looper, handler, ref, message), ref naming the handler; the
// looper's queue is bounded at capacity.
template <typename Post>
void PostThroughput(benchmark::State& state, Placement placement, int32 capacity, Post post)
{
	const ProducerPlacement producer(placement);
	Signal done;
	Counter counter(&done);
	CountingHandler handler(&counter);
	ZvLooper* looper = new ZvLooper("bench", ZV_NORMAL_PRIORITY, capacity);
	looper->AddHandler(&handler);
	looper->SetPreferredHandler(&handler);
	looper->Run();
	PinLooper(looper, placement);
	const ZvLooperRef ref(&handler);
	ZvMessage message(1);
	message.AddInt32("a", 0);
	message.AddInt32("b", 0);
	for (auto _ : state) {
		for (int32 i = 0; i < kBatch; i++) {
			message.ReplaceInt32("a", i);
			post(looper, &handler, ref, &message);
		}
		done.Wait();
	}
	// Before Quit: the looper's thread deletes the looper as it ends.
	looper->RemoveHandler(&handler);
	looper->Quit();
	benchmark::DoNotOptimize(counter.Sum());
	state.SetItemsProcessed(state.iterations() * kBatch);
}

void PostThroughput_zvkit(benchmark::State& state, Placement placement)
{
	PostThroughput(state, placement, kQueueCapacity,
	               [](ZvLooper* looper, ZvHandler*, const ZvLooperRef&, const ZvMessage* message) {
		               looper->PostMessage(message, nullptr);
	               });
}

// The same with the queue bound at 256 messages: the poster waits whenever
// it runs ahead of the loop by that many.
void PostThroughputBound256_zvkit(benchmark::State& state, Placement placement)
{
	PostThroughput(state, placement, 256,
	               [](ZvLooper* looper, ZvHandler*, const ZvLooperRef&, const ZvMessage* message) {
		               looper->PostMessage(message, nullptr);
	               });
}

void RefPost_ref(benchmark::State& state)
{
	PostThroughput(state, kApart, kQueueCapacity,
	               [](ZvLooper*, ZvHandler*, const ZvLooperRef& ref, const ZvMessage* message) {
		               ref.PostMessage(message);
	               });
}

void RefPost_looper(benchmark::State& state)
{
	PostThroughput(state, kApart, kQueueCapacity,
	               [](ZvLooper* looper, ZvHandler* handler, const ZvLooperRef&,
	                  const ZvMessage* message) { looper->PostMessage(message, handler); });
}

#ifdef ZVKIT_HAVE_ASIO
void PostThroughput_asio(benchmark::State& state, Placement placement)
{
	const ProducerPlacement producer(placement);
	Signal done;
	Counter counter(&done);
	boost::asio::io_context context(1);
	auto work = boost::asio::make_work_guard(context);
	std::thread runner([&context, placement] {
		if (placement != kUnpinned)
			PinThisThread(ConsumerCpu(placement));
		context.run();
	});
	for (auto _ : state) {
		for (int32 i = 0; i < kBatch; i++)
			boost::asio::post(context, [&counter, a = i, b = int32{0}] { counter.Count(a, b); });
		done.Wait();
	}
	work.reset();
	runner.join();
	benchmark::DoNotOptimize(counter.Sum());
	state.SetItemsProcessed(state.iterations() * kBatch);
}
#endif

// The plain queue: heap-allocated two-field messages under one mutex, the
// consumer woken by a condition variable.
struct SmallMessage
{
	int32 a;
	int32 b;
};

class MutexQueue
{
public:
	void Push(std::unique_ptr<SmallMessage> message)
	{
		{
			std::lock_guard<std::mutex> hold(fLock);
			fItems.push_back(std::move(message));
		}
		fReady.notify_one();
	}

	// Null once closed and empty.
	std::unique_ptr<SmallMessage> Pop()
	{
		std::unique_lock<std::mutex> hold(fLock);
		fReady.wait(hold, [this] { return !fItems.empty() || fClosed; });
		if (fItems.empty())
			return nullptr;
		std::unique_ptr<SmallMessage> message = std::move(fItems.front());
		fItems.pop_front();
		return message;
	}

	void Close()
	{
		{
			std::lock_guard<std::mutex> hold(fLock);
			fClosed = true;
		}
		fReady.notify_one();
	}

private:
	std::mutex fLock;
	std::condition_variable fReady;
	std::deque<std::unique_ptr<SmallMessage>> fItems;
	bool fClosed = false;
};

void PostThroughput_mutexcv(benchmark::State& state, Placement placement)
{
	const ProducerPlacement producer(placement);
	Signal done;
	Counter counter(&done);
	MutexQueue queue;
	std::thread consumer([&] {
		if (placement != kUnpinned)
			PinThisThread(ConsumerCpu(placement));
		while (std::unique_ptr<SmallMessage> message = queue.Pop())
			counter.Count(message->a, message->b);
	});
	for (auto _ : state) {
		for (int32 i = 0; i < kBatch; i++)
			queue.Push(std::make_unique<SmallMessage>(SmallMessage{i, 0}));
		done.Wait();
	}
	queue.Close();
	consumer.join();
	benchmark::DoNotOptimize(counter.Sum());
	state.SetItemsProcessed(state.iterations() * kBatch);
}

// kBatch messages through a bound of 16 from producers threads, under the
// given queue policy.
void PostThroughBound(benchmark::State& state, zv_queue_policy policy, int producers)
{
	Signal done;
	Counter counter(&done);
	CountingHandler handler(&counter);
	ZvLooper* looper = new ZvLooper("bounded bench", ZV_NORMAL_PRIORITY, 16);
	looper->SetQueuePolicy(policy);
	looper->AddHandler(&handler);
	looper->SetPreferredHandler(&handler);
	looper->Run();
	for (auto _ : state) {
		std::vector<std::thread> threads;
		for (int p = 0; p < producers; p++) {
			threads.emplace_back([looper, producers] {
				ZvMessage message(1);
				message.AddInt32("a", 0);
				message.AddInt32("b", 0);
				for (int32 i = 0; i < kBatch / producers; i++) {
					message.ReplaceInt32("a", i);
					looper->PostMessage(&message, nullptr);
				}
			});
		}
		for (std::thread& thread : threads)
			thread.join();
		done.Wait();
	}
	looper->Quit();
	benchmark::DoNotOptimize(counter.Sum());
	state.SetItemsProcessed(state.iterations() * kBatch);
}

void BoundOneProducer_release(benchmark::State& state)
{
	PostThroughBound(state, ZV_QUEUE_RELEASE_BELOW_BOUND, 1);
}

void BoundOneProducer_soft(benchmark::State& state)
{
	PostThroughBound(state, ZV_QUEUE_SOFT_BOUND, 1);
}

void BoundEightProducers_release(benchmark::State& state)
{
	PostThroughBound(state, ZV_QUEUE_RELEASE_BELOW_BOUND, 8);
}

// Bounces each message to its partner's handler until the round trips of
// one batch are done.
class Bouncer : public ZvHandler
{
public:
	Bouncer(Signal* done) : ZvHandler("bouncer"), fDone(done) {}
	void SetPartner(ZvHandler* partner) { fPartner = partner; }
	void MessageReceived(ZvMessage* message) override
	{
		if (message->what == 0) {
			fDone->Raise();
			return;
		}
		fPartner->Looper()->PostMessage(message->what - 1, fPartner);
	}

private:
	Signal* fDone;
	ZvHandler* fPartner = nullptr;
};

void PingPong_zvkit(benchmark::State& state)
{
	const ProducerPlacement producer(kApart);
	Signal done;
	Bouncer ping(&done), pong(&done);
	ping.SetPartner(&pong);
	pong.SetPartner(&ping);
	ZvLooper* left = new ZvLooper("ping", ZV_NORMAL_PRIORITY, 16);
	ZvLooper* right = new ZvLooper("pong", ZV_NORMAL_PRIORITY, 16);
	left->AddHandler(&ping);
	right->AddHandler(&pong);
	left->Run();
	right->Run();
	// As the request/reply case: one side on each processor.
	PinLooper(left, kOneCpu);
	PinLooper(right, kApart);
	for (auto _ : state) {
		// 2 * kRoundTrips hops; the handler that receives 0 signals.
		left->PostMessage(2 * kRoundTrips, &ping);
		done.Wait();
	}
	left->Quit();
	right->Quit();
	state.SetItemsProcessed(state.iterations() * kRoundTrips);
}

void PingPong_semaphore(benchmark::State& state)
{
	const ProducerPlacement producer(kApart);
	sem_t ping, pong;
	sem_init(&ping, 0, 0);
	sem_init(&pong, 0, 0);
	std::atomic<bool> stop{false};
	std::thread partner([&] {
		PinThisThread(ConsumerCpu(kApart));
		for (;;) {
			while (sem_wait(&ping) != 0) {
			}
			if (stop.load(std::memory_order_relaxed))
				break;
			sem_post(&pong);
		}
	});
	for (auto _ : state) {
		for (int i = 0; i < kRoundTrips; i++) {
			sem_post(&ping);
			while (sem_wait(&pong) != 0) {
			}
		}
	}
	stop.store(true);
	sem_post(&ping);
	partner.join();
	sem_destroy(&ping);
	sem_destroy(&pong);
	state.SetItemsProcessed(state.iterations() * kRoundTrips);
}

// Answers every request at once.
class Answerer : public ZvHandler
{
public:
	Answerer() : ZvHandler("answerer") {}
	void MessageReceived(ZvMessage* message) override
	{
		ZvMessage answer(message->what + 1);
		message->SendReply(&answer);
	}
};

void RequestReply_zvkit(benchmark::State& state)
{
	const ProducerPlacement sender(kApart);
	Answerer answerer;
	ZvLooper* looper = new ZvLooper("answers", ZV_NORMAL_PRIORITY, 16);
	looper->AddHandler(&answerer);
	looper->Run();
	PinLooper(looper, kApart);
	const ZvLooperRef ref(&answerer);
	const ZvMessage request(1);
	ZvMessage reply(0);
	for (auto _ : state) {
		for (int i = 0; i < kRoundTrips; i++)
			ref.SendMessage(&request, &reply);
	}
	benchmark::DoNotOptimize(reply.what);
	looper->RemoveHandler(&answerer);
	looper->Quit();
	state.SetItemsProcessed(state.iterations() * kRoundTrips);
}

} // namespace

BENCHMARK(RefPost_ref)->Name("RefPost:zvkit")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(RefPost_looper)
    ->Name("RefPost:looper_post")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(RequestReply_zvkit)
    ->Name("RequestReply:zvkit")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(PingPong_zvkit)
    ->Name("RequestReply:looper_pingpong")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// The throughput cases in each placement; the plain names are "apart".
static void RegisterThroughput(const char* suffix, Placement placement)
{
	const std::string tail = suffix;
	const auto add = [&](const std::string& name, void (*run)(benchmark::State&, Placement)) {
		benchmark::RegisterBenchmark(name.c_str(), run, placement)
		    ->UseRealTime()
		    ->Unit(benchmark::kMillisecond);
	};
	add("PostThroughput" + tail + ":zvkit", PostThroughput_zvkit);
	add("PostThroughputBound256" + tail + ":zvkit", PostThroughputBound256_zvkit);
#ifdef ZVKIT_HAVE_ASIO
	add("PostThroughput" + tail + ":asio", PostThroughput_asio);
	// Asio's post has no bound: the bounded looper is compared with it as is.
	add("PostThroughputBound256" + tail + ":asio", PostThroughput_asio);
#endif
	add("PostThroughput" + tail + ":mutex+condvar", PostThroughput_mutexcv);
}

static const bool kThroughputRegistered = [] {
	RegisterThroughput("", kApart);
	RegisterThroughput("OneCpu", kOneCpu);
	RegisterThroughput("Unpinned", kUnpinned);
	return true;
}();

BENCHMARK(PingPong_zvkit)->Name("PingPong:zvkit")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(PingPong_semaphore)->Name("PingPong:sem_t")->UseRealTime()->Unit(benchmark::kMillisecond);

BENCHMARK(BoundOneProducer_release)
    ->Name("BoundOf16OneProducer:zvkit")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BoundOneProducer_soft)
    ->Name("BoundOf16OneProducer:soft_bound")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BoundEightProducers_release)
    ->Name("BoundOf16EightProducers:zvkit")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
