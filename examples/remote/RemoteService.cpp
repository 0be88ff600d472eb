// remote_service: a looper that keeps a tally, published over ZeroMQ.
//
//   remote_service [ADDRESS [SECONDS]]
//
// Binds ADDRESS (default ipc:///tmp/zvkit-remote-example) and publishes the
// looper as "tally". Posts of 'ADD ' add their "n" to the tally; requests
// 'SUM?' are answered with the tally in "sum"; a request 'BYE ' is answered
// and ends the service. The service also ends after SECONDS (default 60).
// Start it, then run remote_client with the same address.
#include <ZvKit.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

const uint32 kAdd = 0x41444420; // 'ADD '
const uint32 kSum = 0x53554D3F; // 'SUM?'
const uint32 kBye = 0x42594520; // 'BYE '

class TallyLooper : public ZvLooper
{
public:
	explicit TallyLooper(uint32 done) : ZvLooper("tally", ZV_NORMAL_PRIORITY, 1000), fDone(done) {}

	void MessageReceived(ZvMessage* message) override
	{
		switch (message->what) {
		case kAdd: {
			int32 n = 0;
			message->FindInt32("n", &n);
			fTally += n;
			break;
		}
		case kSum: {
			ZvMessage answer(kSum);
			answer.AddInt64("sum", fTally);
			message->SendReply(&answer);
			break;
		}
		case kBye: {
			ZvMessage answer(kBye);
			message->SendReply(&answer);
			ZvSemaphore::Release(fDone);
			break;
		}
		default:
			break;
		}
	}

private:
	uint32 fDone;
	int64 fTally = 0;
};

} // namespace

int main(int argc, char** argv)
{
	const char* address = argc > 1 ? argv[1] : "ipc:///tmp/zvkit-remote-example";
	const int32 seconds = argc > 2 ? std::atoi(argv[2]) : 60;

	const uint32 done = ZvSemaphore::Create(0, "remote service done");
	TallyLooper* looper = new TallyLooper(done);
	looper->Run();

	auto endpoint = std::make_unique<ZvRemoteEndpoint>();
	status_t status = endpoint->Bind(address);
	if (status == B_OK)
		status = endpoint->Publish("tally", ZvLooperRef(looper));
	if (status != B_OK) {
		std::fprintf(stderr, "remote_service: cannot serve at %s (%d)\n", address,
		             static_cast<int>(status));
		looper->Quit();
		return 1;
	}
	std::printf("remote_service: \"tally\" at %s\n", address);
	std::fflush(stdout);

	// Until a client says goodbye, or the time is up.
	ZvSemaphore::Acquire(done, seconds * 1000);

	zv_remote_stats stats;
	endpoint->GetStats(&stats);
	std::printf("remote_service: %llu posts delivered, %llu frames refused\n",
	            static_cast<unsigned long long>(stats.postsDelivered),
	            static_cast<unsigned long long>(stats.refusedMalformed + stats.refusedOversized +
	                                            stats.refusedUnknownTarget));
	// The endpoint closes first: it sends the last answers, then the looper
	// it published may go.
	endpoint.reset();
	looper->Quit();
	ZvSemaphore::Delete(done);
	return 0;
}
