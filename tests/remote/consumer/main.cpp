// Uses the installed remote component the way an application would: a
// looper published by one endpoint, asked through another.
#include <ZvKit.h>

#include <cstdio>
#include <string>

#include <stdlib.h>
#include <unistd.h>

namespace {

class Answerer : public ZvLooper
{
public:
	Answerer() : ZvLooper("answerer", ZV_NORMAL_PRIORITY, 100) {}
	void MessageReceived(ZvMessage* message) override
	{
		ZvMessage answer(message->what + 1);
		message->SendReply(&answer);
	}
};

} // namespace

int main()
{
	char folder[] = "/tmp/zvremote-consumer-XXXXXX";
	if (mkdtemp(folder) == nullptr)
		return 1;
	const std::string address = std::string("ipc://") + folder + "/socket";
	Answerer* answerer = new Answerer;
	answerer->Run();
	int result = 1;
	{
		ZvRemoteEndpoint service;
		ZvRemoteEndpoint client;
		ZvRemoteRef ref;
		ZvMessage reply(0u);
		if (service.Bind(address.c_str()) == B_OK &&
		    service.Publish("answerer", ZvLooperRef(answerer)) == B_OK &&
		    client.Connect(address.c_str(), "answerer", &ref) == B_OK &&
		    ref.SendMessage(41u, &reply, 10000000) == B_OK && reply.what == 42u) {
			std::printf("remote consumer: ZvKit %s answers across an endpoint\n",
			            ZVKIT_VERSION_STRING);
			result = 0;
		}
	}
	answerer->Quit();
	unlink((std::string(folder) + "/socket").c_str());
	rmdir(folder);
	return result;
}
