// Tour section: a looper that ticks (ZvMessageRunner) and one that echoes
// lines from a pipe (ZvDescriptorWatch).
#include "Tour.h"

#include <ZvKit.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

const uint32 kTick = 0x5449434B; // 'TICK'

// Counts its ticks and lets the tour go on after the last one.
class Ticker : public ZvHandler
{
public:
	explicit Ticker(uint32 done) : ZvHandler("ticker"), fDone(done) {}

	void MessageReceived(ZvMessage* message) override
	{
		if (message->what != kTick)
			return;
		std::printf("  tick %d\n", ++fTicks);
		if (fTicks == 3)
			ZvSemaphore::Release(fDone);
	}

private:
	uint32 fDone;
	int fTicks = 0;
};

// Reads what the pipe holds when its watch says so, prints each complete
// line, and re-arms the watch; stops at the hang-up.
class Echo : public ZvHandler
{
public:
	Echo(int descriptor, uint32 done) : ZvHandler("echo"), fDescriptor(descriptor), fDone(done) {}

	void SetWatch(ZvDescriptorWatch* watch) { fWatch = watch; }

	void MessageReceived(ZvMessage* message) override
	{
		if (message->what != ZV_DESCRIPTOR_READY)
			return;
		int32 events = 0;
		message->FindInt32("_events", &events);
		char buffer[128];
		ssize_t got;
		while ((got = read(fDescriptor, buffer, sizeof(buffer))) > 0)
			fPending.append(buffer, static_cast<size_t>(got));
		size_t end;
		while ((end = fPending.find('\n')) != std::string::npos) {
			std::printf("  echo: %s\n", fPending.substr(0, end).c_str());
			fPending.erase(0, end + 1);
		}
		if ((events & ZV_DESCRIPTOR_HUNG_UP) != 0) {
			std::printf("  the writer hung up\n");
			ZvSemaphore::Release(fDone);
		} else {
			fWatch->Rearm();
		}
	}

private:
	int fDescriptor;
	uint32 fDone;
	ZvDescriptorWatch* fWatch = nullptr;
	std::string fPending;
};

void ShowTimers()
{
	const uint32 done = ZvSemaphore::Create(0, "tour timers done");

	// A ticking looper: a runner posts "TICK" every 20 ms, three times.
	Ticker ticker(done);
	ZvLooper* clock = new ZvLooper("clock", ZV_NORMAL_PRIORITY, 100);
	clock->AddHandler(&ticker);
	clock->Run();
	const ZvMessage tick(kTick);
	ZvMessageRunner runner(ZvLooperRef(&ticker), &tick, 20000, 3);
	std::printf("runner made: %s\n", runner.InitCheck() == B_OK ? "B_OK" : "failed");
	ZvSemaphore::Acquire(done, 5000);
	int32 left = -1;
	runner.GetInfo(nullptr, &left);
	std::printf("posts left after three ticks: %d\n", left);

	// An echoing looper: a watch on the read end of a pipe.
	int ends[2];
	if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
		std::printf("no pipe\n");
	} else {
		Echo echo(ends[0], done);
		ZvLooper* echoer = new ZvLooper("echoer", ZV_NORMAL_PRIORITY, 100);
		echoer->AddHandler(&echo);
		echoer->Run();
		{
			ZvDescriptorWatch watch(ends[0], ZV_DESCRIPTOR_READABLE, ZvLooperRef(&echo));
			echo.SetWatch(&watch);
			const char text[] = "hello from the pipe\nsecond line\n";
			(void)!write(ends[1], text, sizeof(text) - 1);
			close(ends[1]);
			ZvSemaphore::Acquire(done, 5000);
			// The watch goes before the descriptor it watches.
		}
		close(ends[0]);
		echoer->RemoveHandler(&echo);
		echoer->Quit();
	}

	clock->RemoveHandler(&ticker);
	clock->Quit();
	ZvSemaphore::Delete(done);
}

} // namespace

static TourSection sSection(32, "Timers and descriptor watches", &ShowTimers);
