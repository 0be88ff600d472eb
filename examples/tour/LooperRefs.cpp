// Tour section: refs to loopers, requests with replies, posts that do not
// wait.
#include "Tour.h"

#include <ZvKit.h>

#include <ZvMessenger.h>

#include <cstdio>

namespace {

const uint32 kSquare = 0x5351523F;  // 'SQR?'
const uint32 kSquared = 0x53515221; // 'SQR!'
const uint32 kHuh = 0x4855483F;     // 'HUH?'

// Answers "SQR?" with the square of its "n".
class Squarer : public ZvHandler
{
public:
	Squarer() : ZvHandler("squarer") {}

	void MessageReceived(ZvMessage* message) override
	{
		int32 n = 0;
		message->FindInt32("n", &n);
		ZvMessage answer(kSquared);
		answer.AddInt32("n", n * n);
		message->SendReply(&answer);
	}
};

// Asks the squarer, from its own looper's thread, and prints the answer.
class Asker : public ZvHandler
{
public:
	Asker(const ZvLooperRef& squarer, uint32 done)
	    : ZvHandler("asker"), fSquarer(squarer), fDone(done)
	{
	}

	void MessageReceived(ZvMessage* message) override
	{
		ZvMessage reply(0);
		const status_t status = fSquarer.SendMessage(message, &reply, 1000000);
		int32 n = 0;
		reply.FindInt32("n", &n);
		std::printf("  asker (its own looper) asked for 7 squared: %s, %d\n",
		            status == B_OK ? "answered" : "no answer", n);
		ZvSemaphore::Release(fDone);
	}

private:
	ZvLooperRef fSquarer;
	uint32 fDone;
};

void ShowLooperRefs()
{
	const uint32 done = ZvSemaphore::Create(0, "tour refs done");

	Squarer squarer;
	ZvLooper* server = new ZvLooper("server", ZV_NORMAL_PRIORITY, 64);
	server->AddHandler(&squarer);
	server->Run();
	const ZvLooperRef squarerRef(&squarer);

	// A request from one looper to another: the asker's thread waits for
	// the squarer's answer.
	ZvLooper* client = new ZvLooper("client", ZV_NORMAL_PRIORITY, 64);
	Asker asker(squarerRef, done);
	client->AddHandler(&asker);
	client->Run();
	ZvMessage question(kSquare);
	question.AddInt32("n", 7);
	ZvLooperRef(&asker).PostMessage(&question);
	ZvSemaphore::Acquire(done, -1);

	// A request nobody answers comes back at once as "no reply".
	ZvMessage reply(0);
	ZvLooperRef(server).SendMessage(kHuh, &reply);
	std::printf("a request the server ignores: reply what is %s\n",
	            reply.what == ZV_NO_REPLY ? "ZV_NO_REPLY (\"NONE\")" : "something else");

	// A never-run looper with a queue bound of 1: the fourth post would
	// wait, so TryPostMessage says so instead.
	ZvLooper* small = new ZvLooper("small", ZV_NORMAL_PRIORITY, 1);
	for (int i = 0; i < 3; i++)
		small->TryPostMessage(1, nullptr);
	std::printf("a fourth post into a full queue: %s\n",
	            small->TryPostMessage(1, nullptr) == B_WOULD_BLOCK ? "B_WOULD_BLOCK" : "queued");
	delete small;

	// Refs outlive what they name: once the server quits, posting through
	// the ref is refused instead of touching a deleted looper.
	client->RemoveHandler(&asker);
	client->Quit();
	server->RemoveHandler(&squarer);
	server->Quit();
	std::printf("after the server quit: ref valid %s, post gives %s\n",
	            squarerRef.IsValid() ? "yes" : "no",
	            squarerRef.PostMessage(kSquare) == B_BAD_VALUE ? "B_BAD_VALUE" : "?");

	ZvSemaphore::Delete(done);
}

} // namespace

static TourSection sSection(31, "Looper refs and requests", &ShowLooperRefs);
