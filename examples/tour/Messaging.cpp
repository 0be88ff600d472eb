// Tour section: the message container.
#include "Tour.h"

#include <ZvMessage.h>

#include <stdio.h>

#include <vector>

namespace {

void ShowMessaging()
{
	// Fields are named and typed; a name may hold several values.
	ZvMessage message(0x74657374); // 'test'
	message.AddInt32("n", 1);
	message.AddString("greeting", "hello");
	message.AddString("greeting", "bonjour");
	message.AddRect("frame", ZvRect<float>{0.5f, 1.5f, 640.5f, 480.5f});
	zv_color orange(200, 100, 50, 255);
	message.AddColor("tint", &orange);

	const char* second = nullptr;
	message.FindString("greeting", 1, &second);
	ZvRect<int32> frame;
	message.FindRect("frame", &frame);
	printf("greeting #1: %s; frame as int32: %d,%d,%d,%d\n", second, (int)frame.left,
	       (int)frame.top, (int)frame.right, (int)frame.bottom);
	printf("orange in CMYK: %u %u %u %u\n", orange.C(), orange.M(), orange.Y(), orange.K());

	// Nested messages are deep copies in flat form.
	ZvMessage outer(0x6F757472); // 'outr'
	outer.AddMessage("inner", &message);

	// The flat form is a self-contained byte block; the bounded reader
	// refuses anything malformed.
	std::vector<uint8> flat(outer.FlattenedSize());
	outer.Flatten(flat.data());
	ZvMessage restored(flat.data(), flat.size());
	ZvMessage inner(0);
	restored.FindMessage("inner", &inner);
	printf("flat size %zu bytes; inner message has %d names\n", flat.size(),
	       (int)inner.CountNames(ZV_ANY_TYPE));
	ZvMessage broken(0);
	printf("truncated block accepted: %s\n",
	       broken.Unflatten(flat.data(), flat.size() - 1) ? "yes" : "no");

	ZvMessage small(0x74657374);
	small.AddInt32("n", 1);
	small.PrintToStream();
}

static TourSection sSection(20, "Messaging", &ShowMessaging);

} // namespace
