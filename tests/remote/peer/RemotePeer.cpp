// The second process of the remote endpoint's tests.
//
//   zvkit_remote_peer serve ADDRESS NAME
//       binds ADDRESS and publishes a looper under NAME that answers kEcho
//       (a copy plus "pid"), counts kNote, answers kCount with "notes" and
//       kStats with the endpoint's counters, and deletes kIgnore unanswered.
//       Runs until killed.
//   zvkit_remote_peer send ADDRESS NAME SENDER COUNT
//       posts COUNT kSequence messages ("sender", "seq" 0..COUNT-1) to NAME
//       at ADDRESS, then sends kDone and exits 0 when it is answered.
//
// Either way the program ends by itself after kLifetime seconds (SIGALRM)
// and when its parent, the test, dies.
#include <ZvMessage.h>
#include <ZvRemote.h>

#include "../RemoteTestSupport.h"

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

using namespace remote_test;

namespace {

constexpr unsigned kLifetime = 300;

int Serve(const char* address, const char* name)
{
	ZvRemoteEndpoint endpoint;
	std::atomic<int32> notes{0};
	RunningLooper service([&](ZvMessage* message) {
		switch (message->what) {
		case kEcho: {
			ZvMessage answer(message);
			answer.AddInt32("pid", static_cast<int32>(getpid()));
			message->SendReply(&answer);
			break;
		}
		case kNote:
			notes.fetch_add(1);
			break;
		case kCount: {
			ZvMessage answer(kCount);
			answer.AddInt32("notes", notes.load());
			message->SendReply(&answer);
			break;
		}
		case kStats: {
			zv_remote_stats stats;
			endpoint.GetStats(&stats);
			ZvMessage answer(kStats);
			answer.AddInt64("received", static_cast<int64>(stats.framesReceived));
			answer.AddInt64("oversized", static_cast<int64>(stats.refusedOversized));
			answer.AddInt64("malformed", static_cast<int64>(stats.refusedMalformed));
			answer.AddInt64("unknown", static_cast<int64>(stats.refusedUnknownTarget));
			answer.AddInt64("delivered", static_cast<int64>(stats.postsDelivered));
			message->SendReply(&answer);
			break;
		}
		default:
			break;
		}
	});
	if (endpoint.SetMaxFrameSize(64 * 1024) != B_OK || endpoint.Bind(address) != B_OK ||
	    endpoint.Publish(name, service.Ref()) != B_OK) {
		std::fprintf(stderr, "peer: cannot serve %s at %s\n", name, address);
		return 2;
	}
	// Until the test kills the process, or the lifetime ends.
	for (;;)
		pause();
}

int Send(const char* address, const char* name, int32 sender, int32 count)
{
	ZvRemoteEndpoint endpoint;
	ZvRemoteRef ref;
	if (endpoint.Connect(address, name, &ref) != B_OK)
		return 2;
	ZvMessage message(kSequence);
	message.AddInt32("sender", sender);
	message.AddInt32("seq", 0);
	for (int32 seq = 0; seq < count; seq++) {
		message.ReplaceInt32("seq", seq);
		if (ref.PostMessage(&message) != B_OK)
			return 3;
	}
	ZvMessage done(kDone);
	done.AddInt32("sender", sender);
	ZvMessage reply(kDone);
	// The answer comes after every post before it has been queued.
	return ref.SendMessage(&done, &reply, 100000000) == B_OK ? 0 : 4;
}

} // namespace

int main(int argc, char** argv)
{
	prctl(PR_SET_PDEATHSIG, SIGKILL);
	alarm(kLifetime);
	if (argc == 4 && std::strcmp(argv[1], "serve") == 0)
		return Serve(argv[2], argv[3]);
	if (argc == 6 && std::strcmp(argv[1], "send") == 0)
		return Send(argv[2], argv[3], std::atoi(argv[4]), std::atoi(argv[5]));
	std::fprintf(stderr, "usage: %s serve ADDRESS NAME | send ADDRESS NAME SENDER COUNT\n",
	             argv[0]);
	return 1;
}
