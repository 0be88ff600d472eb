// Tour section: data subscription. Two parts of an application share a
// named value without knowing of each other, a looper's handler hears about
// changes, a linker carries a value to a second attribute, and a subscriber
// archives its data into a message.
#include "Tour.h"

#include <Handler.h>
#include <Looper.h>
#include <Message.h>
#include <OS.h>

#include <ZvDataLinker.h>
#include <ZvDataRegistry.h>
#include <ZvDataSubscriber.h>

#include <stdio.h>

namespace {

const uint32 kVolumeChanged = 0x564F4C43; // 'VOLC'

// A panel that shows the volume: it hears about every change in its
// looper's thread, and tells the tour when it has shown one.
class VolumePanel : public BHandler
{
public:
	VolumePanel(sem_id done) : BHandler("volume panel"), fDone(done) {}

	void MessageReceived(BMessage* message) override
	{
		if (message->what != kVolumeChanged)
			return;
		void* source = nullptr;
		int32 touched = 0;
		message->FindPointer("Source", &source);
		message->FindInt32("touched_what", &touched);
		ZvDataSubscriber* mine = static_cast<ZvDataSubscriber*>(source);
		printf("  panel (looper thread): volume is now %lld (touched %ld)\n",
		       static_cast<long long>(mine->DS_IntegerData()), static_cast<long>(touched));
		release_sem(fDone);
	}

private:
	sem_id fDone;
};

// Scales the volume (0..100) into a gain (0..1) on the way from A to B.
class GainLinker : public ZvDataLinker
{
public:
	GainLinker() : ZvDataLinker("volume", "gain") {}

	status_t DL_ConvertAB(ZvDataSubscriber* a, ZvDataSubscriber* b, uint32) override
	{
		return b->DS_SetFloatData(a->DS_IntegerData() / 100.0, true);
	}
};

void ShareVolume()
{
	// The mixer owns the volume; the panel has a subscriber of its own.
	ZvDataSubscriber mixer("volume", ZV_DS_MODE_EXCHANGE);
	ZvDataSubscriber panelData("volume", ZV_DS_MODE_EXCHANGE);
	printf("two subscribers of \"volume\"; the registry has %ld attribute(s)\n",
	       static_cast<long>(zv_registry->DR_CountAttributes()));

	sem_id done = create_sem(0, "tour done");
	VolumePanel panel(done);
	BLooper* looper = new BLooper("panel looper");
	looper->AddHandler(&panel);
	looper->Run();
	panelData.DS_SetEventMessage(kVolumeChanged);
	panelData.DS_SetEventTarget(&panel);

	mixer.DS_SetIntegerData(40, true);
	acquire_sem(done);
	mixer.DS_SetIntegerData(75, true);
	acquire_sem(done);
	printf("panel's own copy: %lld\n", static_cast<long long>(panelData.DS_IntegerData()));

	// A display only listens: it pulls the current volume as it subscribes,
	// and what it sets stays its own.
	ZvDataSubscriber display("volume", ZV_DS_MODE_RECEIVE_ONLY | ZV_DS_JOIN_PULL);
	printf("display joined and pulled: %lld\n", static_cast<long long>(display.DS_IntegerData()));

	// A linker turns the volume into a gain on a second attribute.
	GainLinker linker;
	ZvDataSubscriber amplifier("gain", 0);
	linker.DL_SubscriberA()->EventReceived(ZV_DS_TOUCHED_INTEGER);
	printf("linker: volume %lld gives gain %.2f\n",
	       static_cast<long long>(linker.DL_SubscriberA()->DS_IntegerData()),
	       amplifier.DS_FloatData());

	// Archive and restore.
	mixer.DS_SetStringData("living room", false);
	BMessage archive;
	mixer.DS_Archive(&archive, ZV_DS_TOUCHED_INTEGER | ZV_DS_TOUCHED_STRING);
	const char* name = nullptr;
	const char* text = nullptr;
	archive.FindString("DS_ATTRIBUTENAME", &name);
	archive.FindString("DS_STRING", &text);
	printf("archive: attribute \"%s\", string \"%s\"\n", name, text);

	looper->Lock();
	looper->RemoveHandler(&panel);
	looper->Quit();
	delete_sem(done);
}

void ShowDataSubscription()
{
	printf("registry before any subscriber: %s\n", zv_registry == nullptr ? "none" : "exists");
	ShareVolume();
	printf("registry after the last subscriber left: %s\n",
	       zv_registry == nullptr ? "none" : "exists");
}

} // namespace

static TourSection sSection(40, "Data subscription", &ShowDataSubscription);
