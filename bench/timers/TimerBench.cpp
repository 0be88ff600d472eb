// Timer and descriptor wake-up benchmarks.
//
// Lateness: 100 timers with the same interval (1 ms or 10 ms), started a
// little apart, run for kTicks ticks each; every arrival records how long
// after its tick it came. The tick of an arrival is the last one due
// before it (exact while lateness stays below one interval). The reported
// time of an iteration is the median ("TimerLateness50") or the 99th
// percentile ("TimerLateness99") of all arrivals, in manual time, so
// bench/ratios.py prints their ratios. Peers: a thread sleeping with
// clock_nanosleep(TIMER_ABSTIME) per timer (the floor: no hand-over to
// another thread), and 100 Asio steady_timers
// on one io_context thread. ZvKit: 100 ZvMessageRunners posting to one
// looper, measured in the handler (the timer thread's wake-up plus the
// hand-over to the looper's thread).
//
// Wake-up: one byte written to a pipe, timed until a handler has read it;
// one iteration is kWakeRounds writes, each waiting for the read before
// the next; manual time is the sum of the one-way latencies. Peer: a
// thread in a plain epoll_wait loop. ZvKit: a ZvDescriptorWatch posting to
// a looper whose handler reads and re-arms (and the continuous form,
// which needs no re-arming).

#include <ZvDescriptorWatch.h>
#include <ZvHandler.h>
#include <ZvLooper.h>
#include <ZvLooperRef.h>
#include <ZvMessage.h>
#include <ZvMessageRunner.h>

#include <OS.h>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#ifdef ZVKIT_HAVE_ASIO
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#endif

namespace {

constexpr int kTimers = 100;
constexpr int kWakeRounds = 1000;

// Ticks per timer in one iteration: about a fifth of a second at 1 ms, one
// second at 10 ms.
int TicksFor(bigtime_t interval)
{
	return interval <= 1000 ? 200 : 100;
}

// Arrivals of all timers of one iteration.
class Lateness
{
public:
	Lateness(bigtime_t interval, int ticks) : fInterval(interval)
	{
		fSamples.reserve(static_cast<size_t>(kTimers * ticks));
		fLastTick.assign(kTimers, 0);
		fStart.assign(kTimers, 0);
	}

	void SetStart(int timer, bigtime_t start) { fStart[timer] = start; }

	// An arrival of timer at now.
	void Arrived(int timer, bigtime_t now)
	{
		const int64 tick = std::max<int64>(fLastTick[timer] + 1, (now - fStart[timer]) / fInterval);
		fLastTick[timer] = tick;
		fSamples.push_back(now - (fStart[timer] + tick * fInterval));
	}

	// The p-th percentile in seconds.
	double Percentile(int p)
	{
		if (fSamples.empty())
			return 0;
		std::sort(fSamples.begin(), fSamples.end());
		const size_t index = std::min(fSamples.size() - 1, fSamples.size() * p / 100);
		return static_cast<double>(fSamples[index]) / 1e6;
	}

	size_t Count() const { return fSamples.size(); }

private:
	bigtime_t fInterval;
	std::vector<bigtime_t> fSamples;
	std::vector<int64> fLastTick;
	std::vector<bigtime_t> fStart;
};

void Report(benchmark::State& state, Lateness& lateness, int percentile)
{
	const double p50 = lateness.Percentile(50);
	const double p99 = lateness.Percentile(99);
	state.SetIterationTime(percentile == 50 ? p50 : p99);
	state.counters["p50_us"] = p50 * 1e6;
	state.counters["p99_us"] = p99 * 1e6;
	state.counters["arrivals"] = static_cast<double>(lateness.Count());
}

// ZvKit: 100 runners posting to one looper.
class LatenessHandler : public ZvHandler
{
public:
	LatenessHandler(Lateness* lateness, int total, sem_t* done)
	    : ZvHandler("lateness"), fLateness(lateness), fLeft(total), fDone(done)
	{
	}
	void MessageReceived(ZvMessage* message) override
	{
		const bigtime_t now = system_time();
		int32 timer = 0;
		message->FindInt32("timer", &timer);
		fLateness->Arrived(timer, now);
		if (--fLeft == 0)
			sem_post(fDone);
	}

private:
	Lateness* fLateness;
	int fLeft;
	sem_t* fDone;
};

void TimerLateness_zvkit(benchmark::State& state, int percentile)
{
	const bigtime_t interval = state.range(0);
	const int ticks = TicksFor(interval);
	for (auto _ : state) {
		Lateness lateness(interval, ticks);
		sem_t done;
		sem_init(&done, 0, 0);
		LatenessHandler handler(&lateness, kTimers * ticks, &done);
		ZvLooper* looper = new ZvLooper("lateness", ZV_NORMAL_PRIORITY, 100000);
		looper->AddHandler(&handler);
		looper->SetPreferredHandler(&handler);
		looper->Run();
		std::vector<std::unique_ptr<ZvMessageRunner>> runners;
		for (int i = 0; i < kTimers; i++) {
			ZvMessage message(1);
			message.AddInt32("timer", i);
			// Made idle (a day), then started by SetInterval, which takes
			// its start just after the one recorded here.
			runners.push_back(std::make_unique<ZvMessageRunner>(ZvLooperRef(looper), &message,
			                                                    86400LL * 1000000, ticks));
		}
		for (int i = 0; i < kTimers; i++) {
			lateness.SetStart(i, system_time());
			runners[static_cast<size_t>(i)]->SetInterval(interval);
		}
		sem_wait(&done);
		runners.clear();
		looper->Quit();
		sem_destroy(&done);
		Report(state, lateness, percentile);
	}
}

// The floor: one thread per timer, each sleeping with clock_nanosleep until
// its next tick.
void TimerLateness_nanosleep(benchmark::State& state, int percentile)
{
	const bigtime_t interval = state.range(0);
	const int ticks = TicksFor(interval);
	for (auto _ : state) {
		Lateness lateness(interval, ticks);
		std::mutex lock;
		std::vector<std::thread> threads;
		for (int i = 0; i < kTimers; i++) {
			const bigtime_t start = system_time();
			lateness.SetStart(i, start);
			threads.emplace_back([&, i, start] {
				std::vector<bigtime_t> arrivals;
				arrivals.reserve(static_cast<size_t>(ticks));
				bigtime_t due = start + interval;
				for (int n = 0; n < ticks; n++) {
					timespec at;
					at.tv_sec = due / 1000000;
					at.tv_nsec = (due % 1000000) * 1000;
					while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) != 0) {
					}
					const bigtime_t now = system_time();
					arrivals.push_back(now);
					// No drift, no catching up: the first tick still ahead.
					due += interval;
					while (due <= now)
						due += interval;
				}
				std::lock_guard<std::mutex> hold(lock);
				for (const bigtime_t arrival : arrivals)
					lateness.Arrived(i, arrival);
			});
		}
		for (auto& thread : threads)
			thread.join();
		Report(state, lateness, percentile);
	}
}

#ifdef ZVKIT_HAVE_ASIO
// 100 steady_timers re-armed at the next tick from their own handlers.
void TimerLateness_asio(benchmark::State& state, int percentile)
{
	const bigtime_t interval = state.range(0);
	const int ticks = TicksFor(interval);
	for (auto _ : state) {
		Lateness lateness(interval, ticks);
		boost::asio::io_context context(1);
		std::vector<std::unique_ptr<boost::asio::steady_timer>> timers;
		std::vector<int> left(kTimers, ticks);
		std::vector<std::function<void(const boost::system::error_code&)>> handlers(kTimers);
		for (int i = 0; i < kTimers; i++) {
			timers.push_back(std::make_unique<boost::asio::steady_timer>(context));
			const bigtime_t start = system_time();
			lateness.SetStart(i, start);
			handlers[i] = [&, i](const boost::system::error_code& error) {
				if (error)
					return;
				const bigtime_t now = system_time();
				lateness.Arrived(i, now);
				if (--left[i] == 0)
					return;
				auto next = timers[i]->expiry() + std::chrono::microseconds(interval);
				while (next <= std::chrono::steady_clock::now())
					next += std::chrono::microseconds(interval);
				timers[i]->expires_at(next);
				timers[i]->async_wait(handlers[i]);
			};
			timers[i]->expires_at(
			    std::chrono::steady_clock::time_point(std::chrono::microseconds(start + interval)));
			timers[i]->async_wait(handlers[i]);
		}
		context.run();
		Report(state, lateness, percentile);
	}
}
#endif

// Wake-up latency.

class Wake
{
public:
	Wake()
	{
		int ends[2];
		if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
			std::abort();
		fRead = ends[0];
		fWrite = ends[1];
		sem_init(&fRead_, 0, 0);
	}
	~Wake()
	{
		close(fRead);
		close(fWrite);
		sem_destroy(&fRead_);
	}
	int ReadEnd() const { return fRead; }

	// The reader's side: takes the byte and tells the writer when.
	void Take()
	{
		char byte;
		while (read(fRead, &byte, 1) == 1) {
		}
		fArrived.store(system_time(), std::memory_order_relaxed);
		sem_post(&fRead_);
	}

	// kWakeRounds one-way latencies, summed, in seconds.
	double Rounds()
	{
		bigtime_t total = 0;
		for (int i = 0; i < kWakeRounds; i++) {
			const bigtime_t sent = system_time();
			if (write(fWrite, "w", 1) != 1)
				std::abort();
			while (sem_wait(&fRead_) != 0) {
			}
			total += fArrived.load(std::memory_order_relaxed) - sent;
		}
		return static_cast<double>(total) / 1e6;
	}

private:
	int fRead;
	int fWrite;
	sem_t fRead_;
	std::atomic<bigtime_t> fArrived{0};
};

class WakeHandler : public ZvHandler
{
public:
	explicit WakeHandler(Wake* wake) : ZvHandler("wake"), fWake(wake) {}
	void MessageReceived(ZvMessage*) override
	{
		fWake->Take();
		if (fWatch != nullptr)
			fWatch->Rearm();
	}
	ZvDescriptorWatch* fWatch = nullptr;

private:
	Wake* fWake;
};

void Wakeup(benchmark::State& state, uint32 flags)
{
	Wake wake;
	WakeHandler handler(&wake);
	ZvLooper* looper = new ZvLooper("wake", ZV_NORMAL_PRIORITY, 1000);
	looper->AddHandler(&handler);
	looper->SetPreferredHandler(&handler);
	looper->Run();
	ZvDescriptorWatch watch(wake.ReadEnd(), ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper), nullptr,
	                        flags);
	handler.fWatch = (flags & ZV_WATCH_CONTINUOUS) != 0 ? nullptr : &watch;
	for (auto _ : state)
		state.SetIterationTime(wake.Rounds());
	looper->Quit();
	state.SetItemsProcessed(state.iterations() * kWakeRounds);
}

void PipeWakeup_zvkit(benchmark::State& state)
{
	Wakeup(state, 0);
}

void PipeWakeupContinuous_zvkit(benchmark::State& state)
{
	Wakeup(state, ZV_WATCH_CONTINUOUS);
}

void PipeWakeup_epoll(benchmark::State& state)
{
	Wake wake;
	const int epoll = epoll_create1(EPOLL_CLOEXEC);
	epoll_event event = {};
	event.events = EPOLLIN;
	event.data.fd = wake.ReadEnd();
	epoll_ctl(epoll, EPOLL_CTL_ADD, wake.ReadEnd(), &event);
	std::atomic<bool> done{false};
	std::thread loop([&] {
		epoll_event ready[8];
		while (!done.load()) {
			const int count = epoll_wait(epoll, ready, 8, 100);
			for (int i = 0; i < count; i++)
				wake.Take();
		}
	});
	for (auto _ : state)
		state.SetIterationTime(wake.Rounds());
	done.store(true);
	loop.join();
	close(epoll);
	state.SetItemsProcessed(state.iterations() * kWakeRounds);
}

} // namespace

BENCHMARK_CAPTURE(TimerLateness_zvkit, p50, 50)
    ->Name("TimerLateness50:zvkit")
    ->Arg(1000)
    ->Arg(10000)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(TimerLateness_zvkit, p99, 99)
    ->Name("TimerLateness99:zvkit")
    ->Arg(1000)
    ->Arg(10000)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(TimerLateness_nanosleep, p50, 50)
    ->Name("TimerLateness50:clock_nanosleep")
    ->Arg(1000)
    ->Arg(10000)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(TimerLateness_nanosleep, p99, 99)
    ->Name("TimerLateness99:clock_nanosleep")
    ->Arg(1000)
    ->Arg(10000)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMicrosecond);
#ifdef ZVKIT_HAVE_ASIO
BENCHMARK_CAPTURE(TimerLateness_asio, p50, 50)
    ->Name("TimerLateness50:asio")
    ->Arg(1000)
    ->Arg(10000)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(TimerLateness_asio, p99, 99)
    ->Name("TimerLateness99:asio")
    ->Arg(1000)
    ->Arg(10000)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMicrosecond);
#endif
BENCHMARK(PipeWakeup_zvkit)
    ->Name("PipeWakeup:zvkit")
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(PipeWakeupContinuous_zvkit)
    ->Name("PipeWakeupContinuous:zvkit")
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(PipeWakeup_epoll)
    ->Name("PipeWakeup:epoll")
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(PipeWakeup_epoll)
    ->Name("PipeWakeupContinuous:epoll")
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
