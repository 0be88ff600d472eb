// remote_client: talks to remote_service.
//
//   remote_client [ADDRESS]
//
// Posts 'ADD ' messages with the numbers 1 to 100 to "tally" at ADDRESS
// (default ipc:///tmp/zvkit-remote-example), asks for the sum, and says
// goodbye, which ends the service.
#include <ZvKit.h>

#include <cstdio>

namespace {

const uint32 kAdd = 0x41444420; // 'ADD '
const uint32 kSum = 0x53554D3F; // 'SUM?'
const uint32 kBye = 0x42594520; // 'BYE '

} // namespace

int main(int argc, char** argv)
{
	const char* address = argc > 1 ? argv[1] : "ipc:///tmp/zvkit-remote-example";

	ZvRemoteEndpoint endpoint;
	ZvRemoteRef tally;
	if (endpoint.Connect(address, "tally", &tally) != B_OK) {
		std::fprintf(stderr, "remote_client: bad address %s\n", address);
		return 1;
	}

	// Posts are queued until the service is there; they arrive in order.
	for (int32 n = 1; n <= 100; n++) {
		ZvMessage add(kAdd);
		add.AddInt32("n", n);
		tally.PostMessage(&add);
	}

	// The answer to a request comes after everything posted before it.
	ZvMessage reply(kSum);
	const status_t status = tally.SendMessage(kSum, &reply, 5000000);
	if (status != B_OK) {
		std::fprintf(stderr, "remote_client: no answer from %s (%s)\n", address,
		             status == B_TIMED_OUT ? "timed out" : "refused");
		return 1;
	}
	int64 sum = 0;
	reply.FindInt64("sum", &sum);
	std::printf("remote_client: the tally is %lld\n", static_cast<long long>(sum));

	tally.SendMessage(kBye, &reply, 5000000);
	return sum == 5050 ? 0 : 1;
}
