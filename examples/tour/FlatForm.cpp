// Tour section: the flat form between machines and tools.
#include "Tour.h"

#include <Message.h>
#include <ZvByteOrder.h>
#include <ZvMessage.h>
#include <ZvMessageBridge.h>

#include <stdio.h>

#include <vector>

namespace {

void ShowFlatForm()
{
	// A block in a chosen byte order, read back on any machine.
	ZvMessage message(0x74657374); // 'test'
	message.AddInt32("n", 7);
	message.AddRect("frame", ZvRect<double>{0, 0, 639, 479});
	std::vector<uint8> block(message.FlattenedSize());
	int32 written = 0;
	message.Flatten(block.data(), ZV_BIG_ENDIAN, &written);
	printf("big-endian block of %d bytes starts %02x %02x %02x %02x\n", (int)written, block[0],
	       block[1], block[2], block[3]);

	zv_order_detection order;
	ZV_DetectByteOrder(block.data(), block.size(), &order);
	printf("detected: %s\n", order == ZV_ORDER_BIG ? "big-endian" : "something else");
	ZvMessage read(0);
	int32 n = 0;
	if (read.Unflatten(block.data(), block.size(), ZV_BIG_ENDIAN) == B_OK)
		read.FindInt32("n", &n);
	printf("read back n = %d (the host is %s)\n", (int)n,
	       ZV_HostByteOrder() == ZV_LITTLE_ENDIAN ? "little-endian" : "big-endian");
	printf("on the command line: zvmsg dump --json FILE, zvmsg check FILE\n");

	// The platform's BMessage and back.
	BMessage platform;
	int32 dropped = 0;
	ZV_ToBMessage(&read, &platform, &dropped);
	int32 fromPlatform = 0;
	platform.FindInt32("n", &fromPlatform);
	printf("as a BMessage: n = %d, %d fields, %d dropped\n", (int)fromPlatform,
	       (int)platform.CountNames(B_ANY_TYPE), (int)dropped);
}

static TourSection sSection(25, "Flat form, byte order and BMessage", &ShowFlatForm);

} // namespace
