// Memory held by queued messages and by idle loopers, reported as counters
// (each case runs once; its time means nothing):
//  - bytes_per_message: heap bytes in use per 2-field message (an int32 and a
//    short string) waiting in a message queue, the queue's own slots included;
//  - rss_per_looper: resident memory added per running looper that waits
//    for messages, its thread's stack and its queue included.
#include <ZvLooper.h>
#include <ZvMessage.h>
#include <ZvMessageQueue.h>

#include <benchmark/benchmark.h>

#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

namespace {

size_t HeapInUse()
{
	const struct mallinfo2 info = mallinfo2();
	return info.uordblks + info.hblkhd;
}

size_t ResidentBytes()
{
	FILE* status = fopen("/proc/self/status", "r");
	if (status == nullptr)
		return 0;
	char line[256];
	size_t kib = 0;
	while (fgets(line, sizeof(line), status) != nullptr) {
		if (strncmp(line, "VmRSS:", 6) == 0)
			kib = strtoul(line + 6, nullptr, 10);
	}
	fclose(status);
	return kib * 1024;
}

void QueuedMessageBytes(benchmark::State& state)
{
	const int kMessages = 20000;
	double perMessage = 0;
	for (auto _ : state) {
		ZvMessageQueue queue(kMessages * 2);
		const size_t before = HeapInUse();
		for (int i = 0; i < kMessages; i++) {
			ZvMessage* message = new ZvMessage(0x4D454D4Fu);
			message->AddInt32("index", i);
			message->AddString("text", "ab");
			queue.AddMessage(message);
		}
		perMessage = static_cast<double>(HeapInUse() - before) / kMessages;
	}
	state.counters["bytes_per_message"] = perMessage;
}
BENCHMARK(QueuedMessageBytes)->Name("Memory/QueuedTwoFieldMessage")->Iterations(1);

void IdleLooperResident(benchmark::State& state)
{
	const int kLoopers = 64;
	double perLooper = 0;
	for (auto _ : state) {
		const size_t before = ResidentBytes();
		std::vector<ZvLooper*> loopers;
		for (int i = 0; i < kLoopers; i++) {
			ZvLooper* looper = new ZvLooper("idle", ZV_NORMAL_PRIORITY, 256);
			looper->Run();
			loopers.push_back(looper);
		}
		// Let every thread reach its wait.
		std::this_thread::sleep_for(std::chrono::milliseconds(200));
		perLooper = static_cast<double>(ResidentBytes() - before) / kLoopers;
		for (ZvLooper* looper : loopers)
			looper->Quit();
	}
	state.counters["rss_per_looper"] = perLooper;
}
BENCHMARK(IdleLooperResident)->Name("Memory/IdleLooper")->Iterations(1)->UseRealTime();

} // namespace
