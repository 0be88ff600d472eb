// Tour section: threads and synchronisation (ZvThread, ZvSemaphore,
// Benaphore, ZvLocker) over the platform's kernel kit.
#include "Tour.h"

#include <ZvKit.h>

#include <cstdio>

namespace {

struct PingPong
{
	uint32 ping;
	uint32 pong;
	int rounds;
};

// The worker answers every ping with a pong, then returns the rounds done.
int32 Answer(void* data)
{
	auto* game = static_cast<PingPong*>(data);
	int32 done = 0;
	for (int i = 0; i < game->rounds; i++) {
		if (ZvSemaphore::Acquire(game->ping, -1) != 1)
			break;
		ZvSemaphore::Release(game->pong);
		done++;
	}
	return done;
}

void ShowKernel()
{
	PingPong game{ZvSemaphore::Create(0, "ping"), ZvSemaphore::Create(0, "pong"), 1000};
	const int32 thread =
	    ZvThread::Create(reinterpret_cast<void*>(&Answer), &game, ZV_NORMAL_PRIORITY, "answerer");
	thread_info info;
	get_thread_info(thread, &info);
	std::printf("created thread \"%s\" (priority %d), suspended: %s\n", info.name,
	            static_cast<int>(info.priority), info.state == B_THREAD_SUSPENDED ? "yes" : "no");
	ZvThread::Resume(static_cast<uint32>(thread));

	const bigtime_t start = system_time();
	for (int i = 0; i < game.rounds; i++) {
		ZvSemaphore::Release(game.ping);
		ZvSemaphore::Acquire(game.pong, -1);
	}
	const bigtime_t elapsed = system_time() - start;
	int32 exitValue = 0;
	ZvThread::Wait(static_cast<uint32>(thread), &exitValue);
	std::printf("%d ping-pong round trips between two threads, %.1f us each; exit value %d\n",
	            game.rounds, static_cast<double>(elapsed) / game.rounds,
	            static_cast<int>(exitValue));

	const bigtime_t before = system_time();
	const int32 result = ZvSemaphore::Acquire(game.ping, 50);
	std::printf("Acquire with a 50 ms time-out on an empty semaphore: %d after %lld ms\n",
	            static_cast<int>(result), static_cast<long long>((system_time() - before) / 1000));
	ZvSemaphore::Delete(game.ping);
	std::printf("Acquire on the deleted semaphore: %d\n",
	            static_cast<int>(ZvSemaphore::Acquire(game.ping, 0)));
	ZvSemaphore::Delete(game.pong);

	ZvLocker locker;
	locker.Lock();
	locker.Lock();
	locker.Lock();
	std::printf("ZvLocker locked three times by its owner: depth %d\n",
	            static_cast<int>(locker.CountLock()));
	locker.Unlock();
	locker.Unlock();
	locker.Unlock();
	std::printf("after three unlocks: %s\n", locker.IsLocked() ? "locked" : "free");

	Benaphore benaphore;
	benaphore.Reset(2, "pool");
	benaphore.Acquire();
	int32 count = 0;
	benaphore.GetCount(&count);
	std::printf("Benaphore with 2 units, one taken: %d free, no kernel call made\n",
	            static_cast<int>(count));
	benaphore.Release();
}

} // namespace

static TourSection sSection(10, "Threads and synchronisation", &ShowKernel);
