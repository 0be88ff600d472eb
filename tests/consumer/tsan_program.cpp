// A multi-threaded ZvKit program built with -fsanitize=thread: two posters
// feed a looper, a data attribute is shared between threads, and the looper
// quits from the main thread. Built against a ThreadSanitizer build of ZvKit
// it must run without a single report.
#include <ZvKit.h>

#include <cstdio>
#include <thread>

namespace {

const uint32 kJob = 0x4A4F4221; // "JOB!"
const int32 kPerPoster = 2000;

class Counter : public ZvHandler
{
public:
	Counter(uint32 done) : ZvHandler("counter"), fDone(done) {}

	void MessageReceived(ZvMessage* message) override
	{
		int32 value = 0;
		if (message->what == kJob && message->FindInt32("value", &value)) {
			fSum += value;
			if (++fCount == 2 * kPerPoster)
				ZvSemaphore::Release(fDone);
		}
	}

	int64 fSum = 0;
	int32 fCount = 0;

private:
	uint32 fDone;
};

} // namespace

int main()
{
	const uint32 done = ZvSemaphore::Create(0, "done");
	// The queue's bound is soft: with two posters it must be one they never
	// reach, or a poster may wait on it for good (see ZvMessageQueue.h).
	ZvLooper* looper = new ZvLooper("worker", ZV_NORMAL_PRIORITY, 4 * kPerPoster);
	Counter counter(done);
	looper->AddHandler(&counter);
	if (!looper->Run())
		return 1;

	ZvDataSubscriber writer("tsan-consumer", 0);
	auto poster = [&](int32 base) {
		ZvDataSubscriber reader("tsan-consumer", 0);
		for (int32 i = 0; i < kPerPoster; i++) {
			ZvMessage job(kJob);
			job.AddInt32("value", base + i);
			looper->PostMessage(&job, &counter);
			(void)reader.DS_IntegerData();
		}
	};
	std::thread a(poster, 0), b(poster, kPerPoster);
	for (int32 i = 0; i < 100; i++)
		writer.DS_SetIntegerData(i, false);
	a.join();
	b.join();

	// A bounded wait: 30 s for every message to be handled.
	if (ZvSemaphore::Acquire(done, 30000) != 1)
		return 2;
	const int64 sum = counter.fSum; // the handler is done: no race
	const int32 count = counter.fCount;
	looper->Quit();
	ZvSemaphore::Delete(done);

	const int64 n = 2 * kPerPoster;
	if (count != n || sum != n * (n - 1) / 2)
		return 3;
	std::printf("tsan consumer: %d messages handled\n", (int)count);
	return 0;
}
