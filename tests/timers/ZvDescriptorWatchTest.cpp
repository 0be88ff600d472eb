// Tests of ZvDescriptorWatch: arguments, the fields of the message,
// readable, writable and hang-up events on pipes and loopback sockets,
// disarming and Rearm, continuous watching, a full target, a target that
// goes away, removal racing the epoll thread, many descriptors, closing
// the descriptor first, and fork().
//
// "Nothing more comes" is checked with a marker watch on another pipe,
// written after the event under test: the epoll thread reports both, and
// the marker's post comes after any post of the first.

#include <ZvDescriptorWatch.h>
#include <ZvHandler.h>
#include <ZvLooper.h>
#include <ZvLooperRef.h>
#include <ZvMessage.h>

#include <OS.h>

#include "ForkedChild.h"
#include "Polling.h"
#include "TestSupport.h"
#include "TimerTestSupport.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using timer_test::Receipt;
using timer_test::Recorder;
using timer_test::RecordingLooper;

constexpr uint32 kData = 0x44415441;   // 'DATA'
constexpr uint32 kMarker = 0x4D41524B; // 'MARK'

// A pipe whose ends close with it.
class Pipe
{
public:
	Pipe()
	{
		int ends[2];
		if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0) {
			fRead = ends[0];
			fWrite = ends[1];
		}
	}
	~Pipe()
	{
		CloseRead();
		CloseWrite();
	}
	Pipe(const Pipe&) = delete;
	Pipe& operator=(const Pipe&) = delete;

	int Read() const { return fRead; }
	int Write() const { return fWrite; }
	bool Put(const char* text) const
	{
		const ssize_t length = static_cast<ssize_t>(std::strlen(text));
		return write(fWrite, text, static_cast<size_t>(length)) == length;
	}
	// Reads everything there is (the read end does not block).
	std::string Drain() const
	{
		std::string text;
		char buffer[256];
		ssize_t got;
		while ((got = read(fRead, buffer, sizeof(buffer))) > 0)
			text.append(buffer, static_cast<size_t>(got));
		return text;
	}
	void CloseRead()
	{
		if (fRead >= 0)
			close(fRead);
		fRead = -1;
	}
	void CloseWrite()
	{
		if (fWrite >= 0)
			close(fWrite);
		fWrite = -1;
	}

private:
	int fRead = -1;
	int fWrite = -1;
};

ZvMessage Tagged(uint32 what, int32 id)
{
	ZvMessage message(what);
	message.AddInt32("id", id);
	return message;
}

// Writes to a pipe watched for the looper and waits for the marker's
// message: every event the epoll thread saw before has been posted.
bool MarkerArrives(RecordingLooper& looper)
{
	Pipe pipe;
	const ZvMessage marker(kMarker);
	ZvDescriptorWatch watch(pipe.Read(), ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper.Looper()),
	                        &marker);
	const size_t before = looper.Handler().Count(kMarker);
	return watch.InitCheck() == B_OK && pipe.Put("m") &&
	       looper.Handler().WaitFor(before + 1, kMarker);
}

TEST(ZvDescriptorWatchTest, RefusesBadArguments)
{
	RecordingLooper looper;
	const ZvLooperRef target(looper.Looper());
	Pipe pipe;

	EXPECT_EQ(ZvDescriptorWatch(-1, ZV_DESCRIPTOR_READABLE, target).InitCheck(), B_BAD_VALUE);
	EXPECT_EQ(ZvDescriptorWatch(pipe.Read(), 0, target).InitCheck(), B_BAD_VALUE);
	EXPECT_EQ(ZvDescriptorWatch(pipe.Read(), ZV_DESCRIPTOR_HUNG_UP, target).InitCheck(),
	          B_BAD_VALUE);
	EXPECT_EQ(ZvDescriptorWatch(pipe.Read(), ZV_DESCRIPTOR_READABLE | 0x100, target).InitCheck(),
	          B_BAD_VALUE);
	EXPECT_EQ(
	    ZvDescriptorWatch(pipe.Read(), ZV_DESCRIPTOR_READABLE, target, nullptr, 0x80).InitCheck(),
	    B_BAD_VALUE);
	EXPECT_EQ(ZvDescriptorWatch(pipe.Read(), ZV_DESCRIPTOR_READABLE, ZvLooperRef()).InitCheck(),
	          B_BAD_VALUE);

	// A descriptor number that is not open.
	int closed = dup(pipe.Read());
	close(closed);
	EXPECT_EQ(ZvDescriptorWatch(closed, ZV_DESCRIPTOR_READABLE, target).InitCheck(), B_BAD_VALUE);

	// A regular file: epoll refuses it.
	char path[] = "/tmp/zvkit-watch-XXXXXX";
	const int file = mkstemp(path);
	ASSERT_GE(file, 0);
	unlink(path);
	EXPECT_EQ(ZvDescriptorWatch(file, ZV_DESCRIPTOR_READABLE, target).InitCheck(), B_NOT_ALLOWED);
	close(file);

	// One watch per descriptor.
	ZvDescriptorWatch first(pipe.Read(), ZV_DESCRIPTOR_READABLE, target);
	ASSERT_EQ(first.InitCheck(), B_OK);
	ZvDescriptorWatch second(pipe.Read(), ZV_DESCRIPTOR_READABLE, target);
	EXPECT_EQ(second.InitCheck(), B_BUSY);
	EXPECT_EQ(second.Rearm(), B_NO_INIT);
	EXPECT_EQ(second.Descriptor(), -1);
	EXPECT_FALSE(second.IsActive());
	EXPECT_EQ(first.Descriptor(), pipe.Read());
	EXPECT_TRUE(first.IsActive());
}

TEST(ZvDescriptorWatchTest, AReadablePipePostsItsMessageWithTheDescriptorAndEvents)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	Pipe pipe;
	ZvMessage message = Tagged(kData, 42);
	ZvDescriptorWatch watch(pipe.Read(), ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper.Looper()),
	                        &message);
	ASSERT_EQ(watch.InitCheck(), B_OK);
	ASSERT_TRUE(pipe.Put("hello\n"));
	ASSERT_TRUE(looper.Handler().WaitFor(1, kData));
	const Receipt receipt = looper.Handler().Receipts()[0];
	EXPECT_EQ(receipt.id, 42);
	EXPECT_EQ(receipt.descriptor, pipe.Read());
	EXPECT_EQ(receipt.events, ZV_DESCRIPTOR_READABLE);
	EXPECT_EQ(pipe.Drain(), "hello\n");
}

TEST(ZvDescriptorWatchTest, WithoutAMessageTheWatchPostsDescriptorReady)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	Pipe pipe;
	ZvDescriptorWatch watch(pipe.Write(), ZV_DESCRIPTOR_WRITABLE, ZvLooperRef(looper.Looper()));
	ASSERT_EQ(watch.InitCheck(), B_OK);
	// An empty pipe has room: writable at once.
	ASSERT_TRUE(looper.Handler().WaitFor(1, ZV_DESCRIPTOR_READY));
	const Receipt receipt = looper.Handler().Receipts()[0];
	EXPECT_EQ(receipt.descriptor, pipe.Write());
	EXPECT_EQ(receipt.events, ZV_DESCRIPTOR_WRITABLE);
}

TEST(ZvDescriptorWatchTest, TheWatchStaysDisarmedUntilRearmed)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	Pipe pipe;
	const ZvMessage message(kData);
	ZvDescriptorWatch watch(pipe.Read(), ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper.Looper()),
	                        &message);
	ASSERT_TRUE(pipe.Put("a"));
	ASSERT_TRUE(looper.Handler().WaitFor(1, kData));
	// Still readable, and more comes: no further post while disarmed.
	ASSERT_TRUE(pipe.Put("b"));
	ASSERT_TRUE(pipe.Put("c"));
	ASSERT_TRUE(MarkerArrives(looper));
	EXPECT_EQ(looper.Handler().Count(kData), 1u);

	// Level-triggered: re-armed while data waits, it posts at once.
	ASSERT_EQ(watch.Rearm(), B_OK);
	ASSERT_TRUE(looper.Handler().WaitFor(2, kData));
	EXPECT_EQ(pipe.Drain(), "abc");
	// Re-armed with nothing to read: silent until data comes.
	ASSERT_EQ(watch.Rearm(), B_OK);
	ASSERT_TRUE(MarkerArrives(looper));
	EXPECT_EQ(looper.Handler().Count(kData), 2u);
	ASSERT_TRUE(pipe.Put("d"));
	ASSERT_TRUE(looper.Handler().WaitFor(3, kData));
	// Re-arming an armed watch is harmless.
	EXPECT_EQ(pipe.Drain(), "d");
	EXPECT_EQ(watch.Rearm(), B_OK);
	EXPECT_EQ(watch.Rearm(), B_OK);
}

TEST(ZvDescriptorWatchTest, AHandlerThatReadsAndRearmsGetsEveryLine)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	Pipe pipe;
	const ZvMessage message(kData);
	timer_test::Shared<ZvDescriptorWatch> watch;
	std::string received;
	zvtest::Latch all(1);
	constexpr int kLines = 200;
	looper.Handler().SetAction([&](ZvMessage* m) {
		if (m->what != kData)
			return;
		received += pipe.Drain();
		if (received.size() == kLines * 2)
			all.CountDown();
		watch.Use([](ZvDescriptorWatch& w) { w.Rearm(); });
	});
	watch.Make(pipe.Read(), ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper.Looper()), &message);
	std::string sent;
	for (int i = 0; i < kLines; i++) {
		const char line[3] = {static_cast<char>('a' + i % 26), '\n', 0};
		sent += line;
		ASSERT_TRUE(pipe.Put(line));
	}
	ASSERT_TRUE(all.WaitFor(20s));
	looper.Quit();
	watch.Reset();
	EXPECT_EQ(received, sent);
}

TEST(ZvDescriptorWatchTest, ClosingTheWriteEndIsAHangUp)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	Pipe pipe;
	const ZvMessage message(kData);
	ZvDescriptorWatch watch(pipe.Read(), ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper.Looper()),
	                        &message);
	pipe.CloseWrite();
	ASSERT_TRUE(looper.Handler().WaitFor(1, kData));
	EXPECT_NE(looper.Handler().Receipts()[0].events & ZV_DESCRIPTOR_HUNG_UP, 0);
}

TEST(ZvDescriptorWatchTest, ContinuousWatchPostsOnEachNewArrivalWithoutRearm)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	Pipe pipe;
	const ZvMessage message(kData);
	zvtest::Latch read[3] = {zvtest::Latch(1), zvtest::Latch(1), zvtest::Latch(1)};
	std::atomic<int> seen{0};
	looper.Handler().SetAction([&](ZvMessage* m) {
		if (m->what != kData)
			return;
		pipe.Drain();
		const int n = seen.fetch_add(1);
		if (n < 3)
			read[n].CountDown();
	});
	ZvDescriptorWatch watch(pipe.Read(), ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper.Looper()),
	                        &message, ZV_WATCH_CONTINUOUS);
	ASSERT_EQ(watch.InitCheck(), B_OK);
	for (int i = 0; i < 3; i++) {
		ASSERT_TRUE(pipe.Put("x"));
		ASSERT_TRUE(read[i].WaitFor(10s)) << "arrival " << i;
	}
	// Drained and nothing new: no flood of posts.
	ASSERT_TRUE(MarkerArrives(looper));
	EXPECT_EQ(looper.Handler().Count(kData), 3u);
	EXPECT_EQ(watch.Rearm(), B_OK);
}

TEST(ZvDescriptorWatchTest, LoopbackSocketsEchoAndReportThePeersClose)
{
	zvtest::Watchdog watchdog(60s);
	const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	ASSERT_GE(listener, 0);
	sockaddr_in address{};
	address.sin_family = AF_INET;
	address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	address.sin_port = 0;
	ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
	ASSERT_EQ(listen(listener, 4), 0);
	socklen_t length = sizeof(address);
	ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);

	RecordingLooper looper;
	const ZvMessage accept(kData);
	ZvDescriptorWatch acceptWatch(listener, ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper.Looper()),
	                              &accept);
	ASSERT_EQ(acceptWatch.InitCheck(), B_OK);

	const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	ASSERT_GE(client, 0);
	ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
	ASSERT_TRUE(looper.Handler().WaitFor(1, kData));
	const int server = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
	ASSERT_GE(server, 0);

	// The server side echoes whatever it reads, in the looper's thread.
	constexpr uint32 kServer = 0x53525652; // 'SRVR'
	timer_test::Shared<ZvDescriptorWatch> serverWatch;
	std::atomic<int32> hangUps{0};
	looper.Handler().SetAction([&](ZvMessage* m) {
		if (m->what != kServer)
			return;
		int32 events = 0;
		m->FindInt32("_events", &events);
		char buffer[256];
		ssize_t got;
		while ((got = read(server, buffer, sizeof(buffer))) > 0)
			(void)!write(server, buffer, static_cast<size_t>(got));
		if ((events & ZV_DESCRIPTOR_HUNG_UP) != 0)
			hangUps.fetch_add(1);
		else
			serverWatch.Use([](ZvDescriptorWatch& w) { w.Rearm(); });
	});
	const ZvMessage serverMessage(kServer);
	serverWatch.Make(server, ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper.Looper()), &serverMessage);
	status_t serverStatus = B_NO_INIT;
	serverWatch.Use([&](ZvDescriptorWatch& w) { serverStatus = w.InitCheck(); });
	ASSERT_EQ(serverStatus, B_OK);

	timeval limit{10, 0};
	setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
	for (int i = 0; i < 20; i++) {
		const std::string line = "line " + std::to_string(i) + "\n";
		ASSERT_EQ(write(client, line.data(), line.size()), static_cast<ssize_t>(line.size()));
		std::string echoed;
		char buffer[64];
		while (echoed.size() < line.size()) {
			const ssize_t got = read(client, buffer, sizeof(buffer));
			ASSERT_GT(got, 0) << "no echo within the limit";
			echoed.append(buffer, static_cast<size_t>(got));
		}
		EXPECT_EQ(echoed, line);
	}
	close(client);
	ASSERT_TRUE(zvtest::WaitUntil([&] { return hangUps.load() == 1; }));
	looper.Quit();
	serverWatch.Reset();
	close(server);
	close(listener);
}

TEST(ZvDescriptorWatchTest, AThousandDescriptorsEachPostOnce)
{
	zvtest::Watchdog watchdog(120s);
	constexpr int kDescriptors = 1000;
	RecordingLooper looper;
	std::vector<std::unique_ptr<Pipe>> pipes;
	std::vector<std::unique_ptr<ZvDescriptorWatch>> watches;
	for (int i = 0; i < kDescriptors; i++) {
		pipes.push_back(std::make_unique<Pipe>());
		ASSERT_GE(pipes.back()->Read(), 0);
		const ZvMessage message = Tagged(kData, i);
		watches.push_back(std::make_unique<ZvDescriptorWatch>(
		    pipes.back()->Read(), ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper.Looper()), &message));
		ASSERT_EQ(watches.back()->InitCheck(), B_OK);
	}
	for (auto& pipe : pipes)
		ASSERT_TRUE(pipe->Put("z"));
	ASSERT_TRUE(looper.Handler().WaitFor(kDescriptors, kData, 60s));
	ASSERT_TRUE(MarkerArrives(looper));
	std::vector<int> counts(kDescriptors, 0);
	for (const Receipt& receipt : looper.Handler().Receipts()) {
		if (receipt.what != kData)
			continue;
		ASSERT_GE(receipt.id, 0);
		ASSERT_LT(receipt.id, kDescriptors);
		EXPECT_EQ(receipt.descriptor, pipes[receipt.id]->Read());
		counts[receipt.id]++;
	}
	for (int i = 0; i < kDescriptors; i++)
		EXPECT_EQ(counts[i], 1) << "descriptor " << i;
	looper.Quit();
	watches.clear();
}

TEST(ZvDescriptorWatchTest, AllWatchesShareOneEpollThread)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	std::vector<std::unique_ptr<Pipe>> pipes;
	std::vector<std::unique_ptr<ZvDescriptorWatch>> watches;
	for (int i = 0; i < 20; i++) {
		pipes.push_back(std::make_unique<Pipe>());
		watches.push_back(std::make_unique<ZvDescriptorWatch>(
		    pipes.back()->Write(), ZV_DESCRIPTOR_WRITABLE, ZvLooperRef(looper.Looper())));
	}
	ASSERT_TRUE(looper.Handler().WaitFor(20, ZV_DESCRIPTOR_READY));
	EXPECT_EQ(timer_test::ThreadsNamed("zv epoll"), 1);
	looper.Quit();
	watches.clear();
}

TEST(ZvDescriptorWatchTest, DeletingAWatchWhileItsEventsAreInFlightStopsItsPosts)
{
	zvtest::Watchdog watchdog(120s);
	RecordingLooper looper;
	const int rounds = zvtest::kSanitized ? 100 : 300;
	for (int round = 0; round < rounds; round++) {
		// Everything the previous watch posted came before its marker.
		ASSERT_TRUE(looper.Handler().WaitFor(static_cast<size_t>(round), kMarker));
		const size_t before = looper.Handler().Count(kData);
		Pipe pipe;
		ASSERT_TRUE(pipe.Put("always readable"));
		const ZvMessage message = Tagged(kData, round);
		// Continuous on a pipe that another thread keeps writing: the epoll
		// thread posts for it again and again while it is deleted.
		auto watch = std::make_unique<ZvDescriptorWatch>(pipe.Read(), ZV_DESCRIPTOR_READABLE,
		                                                 ZvLooperRef(looper.Looper()), &message,
		                                                 ZV_WATCH_CONTINUOUS);
		std::atomic<bool> stop{false};
		std::thread writer([&] {
			// Bounded: each write is an event of its own.
			for (int i = 0; i < 2000 && !stop.load(); i++)
				(void)pipe.Put("x");
		});
		// Readable when registered: at least one post, perhaps many.
		ASSERT_TRUE(looper.Handler().WaitFor(before + 1, kData));
		std::thread deleter([&] { watch.reset(); });
		deleter.join();
		looper.Looper()->PostMessage(kMarker, nullptr);
		stop.store(true);
		writer.join();
	}
	ASSERT_TRUE(looper.Handler().WaitFor(rounds, kMarker));
	ASSERT_TRUE(MarkerArrives(looper));
	int32 round = 0;
	for (const Receipt& receipt : looper.Handler().Receipts()) {
		if (receipt.what == kMarker) {
			round++;
		} else if (receipt.what == kData) {
			ASSERT_EQ(receipt.id, round) << "a post of a deleted watch";
		}
	}
}

TEST(ZvDescriptorWatchTest, AHandlerMayDeleteItsOwnWatch)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	Pipe pipe;
	const ZvMessage message(kData);
	timer_test::Shared<ZvDescriptorWatch> watch;
	zvtest::Latch deleted(1);
	looper.Handler().SetAction([&](ZvMessage* m) {
		if (m->what == kData && watch.Reset())
			deleted.CountDown();
	});
	watch.Make(pipe.Read(), ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper.Looper()), &message,
	           ZV_WATCH_CONTINUOUS);
	ASSERT_TRUE(pipe.Put("q"));
	ASSERT_TRUE(deleted.WaitFor(10s));
	ASSERT_TRUE(pipe.Put("r"));
	ASSERT_TRUE(MarkerArrives(looper));
	EXPECT_EQ(looper.Handler().Count(kData), 1u);
}

TEST(ZvDescriptorWatchTest, AFullTargetGetsThePostOnceItHasRoom)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper(1);
	zvtest::Latch release(1);
	ASSERT_TRUE(timer_test::HoldWithAFullQueue(looper, release));

	Pipe pipe;
	const ZvMessage message(kData);
	ZvDescriptorWatch watch(pipe.Read(), ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper.Looper()),
	                        &message);
	ASSERT_TRUE(pipe.Put("w"));
	// Meanwhile the epoll thread serves other loopers.
	RecordingLooper other;
	ASSERT_TRUE(MarkerArrives(other));
	EXPECT_EQ(looper.Handler().Count(kData), 0u);
	release.CountDown();
	ASSERT_TRUE(looper.Handler().WaitFor(1, kData));
	const Receipt last = looper.Handler().Receipts().back();
	EXPECT_EQ(last.events, ZV_DESCRIPTOR_READABLE);
}

TEST(ZvDescriptorWatchTest, StopsForGoodWhenTheTargetIsGone)
{
	zvtest::Watchdog watchdog(60s);
	auto looper = std::make_unique<RecordingLooper>();
	Pipe pipe;
	const ZvMessage message(kData);
	ZvDescriptorWatch watch(pipe.Read(), ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper->Looper()),
	                        &message);
	looper->Quit();
	EXPECT_TRUE(watch.IsActive());
	ASSERT_TRUE(pipe.Put("late"));
	ASSERT_TRUE(zvtest::WaitUntil([&] { return !watch.IsActive(); }));
	EXPECT_EQ(watch.Rearm(), B_BAD_VALUE);
	EXPECT_EQ(looper->Handler().Count(kData), 0u);
}

TEST(ZvDescriptorWatchTest, ClosingTheDescriptorFirstIsSafeAndKeepsTheNumberBusy)
{
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	auto pipe = std::make_unique<Pipe>();
	const int number = pipe->Read();
	const ZvMessage message(kData);
	auto watch = std::make_unique<ZvDescriptorWatch>(number, ZV_DESCRIPTOR_READABLE,
	                                                 ZvLooperRef(looper.Looper()), &message);
	pipe.reset();
	// A new pipe may reuse the number: it cannot be watched until the old
	// watch is gone.
	Pipe again;
	if (again.Read() == number) {
		ZvDescriptorWatch blocked(number, ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper.Looper()));
		EXPECT_EQ(blocked.InitCheck(), B_BUSY);
	}
	watch->Rearm();
	watch.reset();
	ZvDescriptorWatch fresh(again.Read(), ZV_DESCRIPTOR_READABLE, ZvLooperRef(looper.Looper()),
	                        &message);
	ASSERT_EQ(fresh.InitCheck(), B_OK);
	ASSERT_TRUE(again.Put("n"));
	ASSERT_TRUE(looper.Handler().WaitFor(1, kData));
	EXPECT_EQ(looper.Handler().Receipts().back().descriptor, again.Read());
}

TEST(ZvDescriptorWatchTest, AForkedChildWatchesOnItsOwnAndLeavesTheParentsWatchAlone)
{
	if (timer_test::kThreadSanitizer)
		GTEST_SKIP() << "ThreadSanitizer starts no thread in a forked child";
	zvtest::Watchdog watchdog(60s);
	RecordingLooper looper;
	Pipe pipe;
	const ZvMessage message(kData);
	auto watch = std::make_unique<ZvDescriptorWatch>(pipe.Read(), ZV_DESCRIPTOR_READABLE,
	                                                 ZvLooperRef(looper.Looper()), &message);
	ASSERT_TRUE(MarkerArrives(looper));

	const int childStatus = zvtest::RunInChild([&] {
		int status = 0;
		// The parent's watch is inert here; deleting it must not touch the
		// parent's registration.
		watch.reset();
		RecordingLooper own;
		Pipe childPipe;
		ZvDescriptorWatch childWatch(childPipe.Read(), ZV_DESCRIPTOR_READABLE,
		                             ZvLooperRef(own.Looper()), &message);
		if (childWatch.InitCheck() != B_OK)
			status |= 1;
		childPipe.Put("c");
		if (!own.Handler().WaitFor(1, kData, 20s))
			status |= 2;
		return status;
	});
	ASSERT_EQ(childStatus, 0);
	ASSERT_TRUE(pipe.Put("p"));
	ASSERT_TRUE(looper.Handler().WaitFor(1, kData));
}

} // namespace
