// Tour section: the looper framework (handlers, loopers, messengers).
#include "Tour.h"

#include <ZvKit.h>

#include <cstdio>

namespace {

// Prints what it receives; a "done" message lets the tour go on.
class Printer : public ZvHandler
{
public:
	Printer(const char* name, uint32 done) : ZvHandler(name), fDone(done) {}

	void MessageReceived(ZvMessage* message) override
	{
		const char* text = "";
		message->FindString("text", &text);
		void* target = nullptr;
		const bool aimed = message->FindPointer("_preferredhandler", &target);
		std::printf("  %s got what %u \"%s\"%s\n", Name(), message->what, text,
		            aimed ? " (aimed at it)" : " (as preferred handler)");
		if (message->what == 99)
			ZvSemaphore::Release(fDone);
	}

private:
	uint32 fDone;
};

// A looper that says when its thread deletes it.
class TourLooper : public ZvLooper
{
public:
	TourLooper(uint32 gone) : ZvLooper("tour looper", ZV_NORMAL_PRIORITY, 64), fGone(gone) {}
	~TourLooper() override
	{
		std::printf("  the looper's thread deleted the looper\n");
		ZvSemaphore::Release(fGone);
	}

private:
	uint32 fGone;
};

void ShowLooper()
{
	const uint32 done = ZvSemaphore::Create(0, "tour done");
	const uint32 gone = ZvSemaphore::Create(0, "tour gone");

	TourLooper* looper = new TourLooper(gone);
	Printer alpha("alpha", done), beta("beta", done);
	looper->AddHandler(&alpha);
	looper->AddHandler(&beta);
	looper->SetPreferredHandler(&beta);
	std::printf("handlers: %d (the looper itself is handler %d)\n", looper->CountHandlers(),
	            looper->IndexOfHandler(looper));
	looper->Run();

	// PostMessage copies: the tour keeps and reuses its message.
	ZvMessage message(1);
	message.AddString("text", "hello");
	looper->PostMessage(&message, &alpha);
	looper->PostMessage(2, nullptr);

	// A messenger with a handler and a looper delivers twice.
	ZvMessage twice(3);
	twice.AddString("text", "via messenger");
	ZvMessenger messenger(&alpha, looper);
	messenger.SendMessage(&twice);
	looper->PostMessage(99, &alpha);
	ZvSemaphore::Acquire(done, -1);

	// A message for a detached handler is dropped without delivery.
	looper->RemoveHandler(&beta);
	looper->PostMessage(4, &beta);
	std::printf("posted what 4 to the detached beta: dropped\n");

	// "QUIT" for the looper ends its loop; its thread deletes it.
	looper->SetPreferredHandler(nullptr);
	looper->PostMessage(ZV_QUIT_REQUESTED, nullptr);
	ZvSemaphore::Acquire(gone, -1);

	ZvSemaphore::Delete(done);
	ZvSemaphore::Delete(gone);
}

} // namespace

static TourSection sSection(30, "Looper framework", &ShowLooper);
