// Benchmarks of the kernel kit's semaphores and the library's locks against
// their nearest host equivalents.
#include <Benaphore.h>
#include <OS.h>
#include <ZvLocker.h>
#include <ZvSemaphore.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include <benchmark/benchmark.h>
#include <semaphore.h>

namespace {

// Uncontended acquire + release of one unit.
void SemAcquireReleaseZvkit(benchmark::State& state)
{
	const sem_id sem = create_sem(1, "bench");
	for (auto _ : state) {
		acquire_sem(sem);
		release_sem(sem);
	}
	delete_sem(sem);
}

void SemAcquireReleaseSemT(benchmark::State& state)
{
	sem_t sem;
	sem_init(&sem, 0, 1);
	for (auto _ : state) {
		sem_wait(&sem);
		sem_post(&sem);
	}
	sem_destroy(&sem);
}

// The same through ZvSemaphore, whose Acquire waits with a time-out.
void ZvSemaphoreAcquireReleaseZvkit(benchmark::State& state)
{
	const uint32 sem = ZvSemaphore::Create(1, "bench");
	for (auto _ : state) {
		ZvSemaphore::Acquire(sem, -1);
		ZvSemaphore::Release(sem);
	}
	ZvSemaphore::Delete(sem);
}

// Making and deleting a semaphore: ZvSemaphore checks on Delete that the
// semaphore belongs to the caller's team; the platform's calls do not.
void SemCreateDeleteZvkit(benchmark::State& state)
{
	for (auto _ : state) {
		const uint32 sem = ZvSemaphore::Create(1, "bench");
		ZvSemaphore::Delete(sem);
	}
}

void SemCreateDeletePlatform(benchmark::State& state)
{
	for (auto _ : state) {
		const sem_id sem = create_sem(1, "bench");
		delete_sem(sem);
	}
}

// One round trip between two threads over two semaphores.
void SemPingPongZvkit(benchmark::State& state)
{
	const sem_id ping = create_sem(0, "ping");
	const sem_id pong = create_sem(0, "pong");
	std::thread partner([&] {
		while (acquire_sem(ping) == B_OK)
			release_sem(pong);
	});
	for (auto _ : state) {
		release_sem(ping);
		acquire_sem(pong);
	}
	// Deleting ping makes the partner's acquire fail, which ends it.
	delete_sem(ping);
	partner.join();
	delete_sem(pong);
}

void SemPingPongSemT(benchmark::State& state)
{
	sem_t ping;
	sem_t pong;
	sem_init(&ping, 0, 0);
	sem_init(&pong, 0, 0);
	std::atomic<bool> stop{false};
	std::thread partner([&] {
		while (true) {
			sem_wait(&ping);
			if (stop.load(std::memory_order_relaxed))
				return;
			sem_post(&pong);
		}
	});
	for (auto _ : state) {
		sem_post(&ping);
		sem_wait(&pong);
	}
	stop = true;
	sem_post(&ping);
	partner.join();
	sem_destroy(&ping);
	sem_destroy(&pong);
}

void BenaphoreAcquireReleaseZvkit(benchmark::State& state)
{
	Benaphore benaphore;
	benaphore.Reset(1, "bench");
	for (auto _ : state) {
		benaphore.Acquire();
		benaphore.Release();
	}
}

void BenaphoreAcquireReleaseAtomic(benchmark::State& state)
{
	std::atomic<int32> count{1};
	for (auto _ : state) {
		benchmark::DoNotOptimize(count.fetch_add(-1));
		benchmark::DoNotOptimize(count.fetch_add(1));
	}
}

void LockerLockUnlockZvkit(benchmark::State& state)
{
	ZvLocker locker;
	for (auto _ : state) {
		locker.Lock();
		locker.Unlock();
	}
}

void LockerLockUnlockRecursiveMutex(benchmark::State& state)
{
	std::recursive_mutex mutex;
	for (auto _ : state) {
		mutex.lock();
		mutex.unlock();
	}
}

// Lock + Unlock by the thread that already holds the lock.
void LockerRecursiveLockUnlockZvkit(benchmark::State& state)
{
	ZvLocker locker;
	locker.Lock();
	for (auto _ : state) {
		locker.Lock();
		locker.Unlock();
	}
	locker.Unlock();
}

void LockerRecursiveLockUnlockRecursiveMutex(benchmark::State& state)
{
	std::recursive_mutex mutex;
	mutex.lock();
	for (auto _ : state) {
		mutex.lock();
		mutex.unlock();
	}
	mutex.unlock();
}

} // namespace

BENCHMARK(SemAcquireReleaseZvkit)->Name("SemAcquireRelease:zvkit");
BENCHMARK(SemAcquireReleaseSemT)->Name("SemAcquireRelease:sem_t");
BENCHMARK(ZvSemaphoreAcquireReleaseZvkit)->Name("ZvSemaphoreAcquireRelease:zvkit");
BENCHMARK(SemAcquireReleaseSemT)->Name("ZvSemaphoreAcquireRelease:sem_t");
BENCHMARK(SemCreateDeleteZvkit)->Name("SemCreateDelete:zvkit");
BENCHMARK(SemCreateDeletePlatform)->Name("SemCreateDelete:create_sem");
BENCHMARK(SemPingPongZvkit)->Name("SemPingPong:zvkit")->UseRealTime();
BENCHMARK(SemPingPongSemT)->Name("SemPingPong:sem_t")->UseRealTime();
BENCHMARK(BenaphoreAcquireReleaseZvkit)->Name("BenaphoreAcquireRelease:zvkit");
BENCHMARK(BenaphoreAcquireReleaseAtomic)->Name("BenaphoreAcquireRelease:atomic");
BENCHMARK(LockerLockUnlockZvkit)->Name("LockerLockUnlock:zvkit");
BENCHMARK(LockerLockUnlockRecursiveMutex)->Name("LockerLockUnlock:recursive_mutex");
BENCHMARK(LockerRecursiveLockUnlockZvkit)->Name("LockerRecursiveLockUnlock:zvkit");
BENCHMARK(LockerRecursiveLockUnlockRecursiveMutex)
    ->Name("LockerRecursiveLockUnlock:recursive_mutex");

// The C library drops the bus lock from its mutexes while the process has
// only ever had one thread, and so does the platform's semaphore; the first
// thread started flips both for good. The ping-pong cases start threads at a
// random point of the interleaved run, so every case would otherwise be timed
// partly in one mode and partly in the other. One thread started and joined
// first puts the whole run in the mode of a program that uses its locks;
// ZVKIT_BENCH_SINGLE_THREADED=1 leaves the process single-threaded instead
// (run it with a filter that leaves out the ping-pong cases).
int main(int argc, char** argv)
{
	const char* single = getenv("ZVKIT_BENCH_SINGLE_THREADED");
	if (single == nullptr || strcmp(single, "1") != 0)
		std::thread([] {}).join();
	benchmark::Initialize(&argc, argv);
	if (benchmark::ReportUnrecognizedArguments(argc, argv))
		return 1;
	benchmark::RunSpecifiedBenchmarks();
	benchmark::Shutdown();
	return 0;
}
