// Tour section: a looper reached through a ZeroMQ endpoint, as another
// process would reach it (examples/remote has a service and a client that
// run as two programs).
#include "Tour.h"

#include <ZvKit.h>

#include <cstdio>
#include <string>

#include <stdlib.h>
#include <unistd.h>

namespace {

#ifdef ZVKIT_TOUR_REMOTE
const uint32 kGreet = 0x48454C4F; // 'HELO'

class Greeter : public ZvLooper
{
public:
	Greeter() : ZvLooper("greeter", ZV_NORMAL_PRIORITY, 100) {}

	void MessageReceived(ZvMessage* message) override
	{
		const char* name = "nobody";
		message->FindString("name", &name);
		ZvMessage answer(kGreet);
		answer.AddString("text", ("hello, " + std::string(name)).c_str());
		message->SendReply(&answer);
	}
};

void ShowRemote()
{
	char folder[] = "/tmp/zvkit-tour-XXXXXX";
	if (mkdtemp(folder) == nullptr)
		return;
	const std::string address = std::string("ipc://") + folder + "/greeter";

	Greeter* greeter = new Greeter;
	greeter->Run();
	{
		// The service side: bind an address, publish the looper by name.
		ZvRemoteEndpoint service;
		service.Bind(address.c_str());
		service.Publish("greeter", ZvLooperRef(greeter));

		// The client side (normally another process): a ref by address and
		// name, used like a ZvLooperRef.
		ZvRemoteEndpoint client;
		ZvRemoteRef ref;
		client.Connect(address.c_str(), "greeter", &ref);
		ZvMessage request(kGreet);
		request.AddString("name", "tour");
		ZvMessage reply(kGreet);
		if (ref.SendMessage(&request, &reply, 5000000) == B_OK) {
			const char* text = "";
			reply.FindString("text", &text);
			std::printf("answer through %s: %s\n", address.c_str(), text);
		}
		ZvRemoteRef nobody;
		client.Connect(address.c_str(), "nobody", &nobody);
		std::printf("a name nobody published: %s\n",
		            nobody.SendMessage(kGreet, &reply, 5000000) == B_BAD_VALUE ? "B_BAD_VALUE"
		                                                                       : "?");
	}
	greeter->Quit();
	unlink((std::string(folder) + "/greeter").c_str());
	rmdir(folder);
}
#else
void ShowRemote()
{
	std::printf("built without libzvremote (ZVKIT_BUILD_REMOTE=OFF)\n");
}
#endif

} // namespace

static TourSection sSection(35, "Loopers across processes (ZeroMQ)", &ShowRemote);
